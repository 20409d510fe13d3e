#include "kernels/ActivationKernels.h"

#include <cstddef>

#include "simd/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/ActivationKernels.cpp"
#include "hwy/foreach_target.h"  // from here on once per instruction set

#include "hwy/highway.h"
#include "simd/Dispatch.h"
#include "simd/Rows-inl.h"
#include "simd/VectorMath-inl.h"

// A value is loaded once, goes through all its operations in registers and is stored once; in separate passes
// every intermediate value is loaded and stored again. Each operation rounds as the pass of its name does.
HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {
namespace {

using namespace zevrant::simd::HWY_NAMESPACE;

// Below this e^x no longer counts beside 1, and down to it e^x takes the short way.
constexpr float kLeastExponent = -87.0f;

constexpr float kOneSixth = 0x1.555556p-3f;

void eluOfRow(const float* in, std::size_t count, float* out) {
    transformRow(
        count, out,
        [](auto d, auto x) HWY_ATTR {
            const auto zero = hn::Zero(d);
            const auto exponent = raise(lower(x, zero), hn::Set(d, kLeastExponent));
            return hn::Add(hn::Sub(expOfModerate(d, exponent), hn::Set(d, 1.0f)), raise(x, zero));
        },
        in);
}

void sigmoidOfRow(const float* in, std::size_t count, float* out) {
    transformRow(
        count, out,
        [](auto d, auto x) HWY_ATTR {
            const auto y = raise(lower(x, hn::Set(d, 10.0f)), hn::Set(d, -10.0f));
            const auto power = expOfModerate(d, y);
            return hn::Div(power, hn::Add(power, hn::Set(d, 1.0f)));
        },
        in);
}

void leakyReluOfRow(const float* in, float alpha, std::size_t count, float* out) {
    transformRow(
        count, out,
        [alpha](auto d, auto x) HWY_ATTR {
            const auto zero = hn::Zero(d);
            return hn::MulAdd(lower(x, zero), hn::Set(d, alpha), raise(x, zero));
        },
        in);
}

void hardSigmoidOfRow(const float* in, std::size_t count, float* out) {
    transformRow(
        count, out,
        [](auto d, auto x) HWY_ATTR {
            const auto line = hn::Add(hn::Mul(x, hn::Set(d, kOneSixth)), hn::Set(d, 0.5f));
            return raise(lower(line, hn::Set(d, 1.0f)), hn::Zero(d));
        },
        in);
}

void softplusOfRow(const float* in, std::size_t count, float* out) {
    transformRow(
        count, out, [](auto d, auto x) HWY_ATTR { return lnOf(d, hn::Add(expOf(d, x), hn::Set(d, 1.0f))); },
        in);
}

}  // namespace
}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zevrant::kernels {

ZEVRANT_DISPATCH_TABLE(eluOfRow);
ZEVRANT_DISPATCH_TABLE(sigmoidOfRow);
ZEVRANT_DISPATCH_TABLE(leakyReluOfRow);
ZEVRANT_DISPATCH_TABLE(hardSigmoidOfRow);
ZEVRANT_DISPATCH_TABLE(softplusOfRow);

void elu(const float* in, std::ptrdiff_t count, float* out) {
    if (count > 0) ZEVRANT_DISPATCH(eluOfRow)(in, static_cast<std::size_t>(count), out);
}

void sigmoid(const float* in, std::ptrdiff_t count, float* out) {
    if (count > 0) ZEVRANT_DISPATCH(sigmoidOfRow)(in, static_cast<std::size_t>(count), out);
}

void leakyRelu(const float* in, float alpha, std::ptrdiff_t count, float* out) {
    if (count > 0) ZEVRANT_DISPATCH(leakyReluOfRow)(in, alpha, static_cast<std::size_t>(count), out);
}

void hardSigmoid(const float* in, std::ptrdiff_t count, float* out) {
    if (count > 0) ZEVRANT_DISPATCH(hardSigmoidOfRow)(in, static_cast<std::size_t>(count), out);
}

void softplus(const float* in, std::ptrdiff_t count, float* out) {
    if (count > 0) ZEVRANT_DISPATCH(softplusOfRow)(in, static_cast<std::size_t>(count), out);
}

}  // namespace zevrant::kernels

#endif  // HWY_ONCE
