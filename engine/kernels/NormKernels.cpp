#include "kernels/NormKernels.h"

#include <cstddef>

#include "simd/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/NormKernels.cpp"
#include "hwy/foreach_target.h"  // from here on once per instruction set

#include "hwy/highway.h"
#include "simd/Dispatch.h"
#include "simd/Rows-inl.h"

// Rows of a norm are short: as separate passes each row pays for three calls, and waits for its own root and
// quotients. In one loop over the rows the processor works on the next ones meanwhile.
HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {
namespace {

using namespace zevrant::simd::HWY_NAMESPACE;

void scaleOneRow(const float* in, const float* gain, const float* offset, std::size_t length, float* out) {
    if (offset)
        transformRow(
            length, out, [](auto, auto x, auto g, auto o) HWY_ATTR { return hn::Add(hn::Mul(x, g), o); }, in,
            gain, offset);
    else
        transformRow(
            length, out, [](auto, auto x, auto g) HWY_ATTR { return hn::Mul(x, g); }, in, gain);
}

void normaliseOneRow(const float* in, float scale, const float* gain, const float* offset, std::size_t length,
                     float* out) {
    if (offset)
        transformRow(
            length, out,
            [scale](auto d, auto x, auto g, auto o)
                HWY_ATTR { return hn::Add(hn::Mul(hn::Mul(x, hn::Set(d, scale)), g), o); },
            in, gain, offset);
    else
        transformRow(
            length, out,
            [scale](auto d, auto x, auto g) HWY_ATTR { return hn::Mul(hn::Mul(x, hn::Set(d, scale)), g); },
            in, gain);
}

void scaleEachRow(const float* in, std::ptrdiff_t numOfRows, std::size_t length, const float* gain,
                  const float* offset, float* out) {
    for (std::ptrdiff_t row = 0; row < numOfRows; ++row, in += length, out += length)
        scaleOneRow(in, gain, offset, length, out);
}

void normaliseEachRow(const float* in, std::ptrdiff_t numOfRows, std::size_t length, float guard,
                      const float* gain, const float* offset, float* out) {
    for (std::ptrdiff_t row = 0; row < numOfRows; ++row, in += length, out += length)
        normaliseOneRow(in, 1.0f / (rootMeanSquare(in, length) + guard), gain, offset, length, out);
}

}  // namespace
}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zevrant::kernels {

ZEVRANT_DISPATCH_TABLE(scaleEachRow);
ZEVRANT_DISPATCH_TABLE(normaliseEachRow);

void scaleRows(const float* in, std::ptrdiff_t numOfRows, std::ptrdiff_t length, const float* gain,
               const float* offset, float* out) {
    if (length > 0) ZEVRANT_DISPATCH(scaleEachRow)
    (in, numOfRows, static_cast<std::size_t>(length), gain, offset, out);
}

void normaliseRows(const float* in, std::ptrdiff_t numOfRows, std::ptrdiff_t length, float guard,
                   const float* gain, const float* offset, float* out) {
    if (length > 0) ZEVRANT_DISPATCH(normaliseEachRow)
    (in, numOfRows, static_cast<std::size_t>(length), guard, gain, offset, out);
}

}  // namespace zevrant::kernels

#endif  // HWY_ONCE
