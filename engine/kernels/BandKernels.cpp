#include "kernels/BandKernels.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "simd/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/BandKernels.cpp"
#include "hwy/foreach_target.h"  // from here on once per instruction set

#include "simd/Dispatch.h"
#include "simd/Tiles-inl.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {
namespace {

using namespace zevrant::simd::HWY_NAMESPACE;

// What the bands of a rescaling share, for one vector of channels.
struct Bands {
    const float* in;
    std::ptrdiff_t numOfChannels;
    const int* starts;
    const int* counts;
    const float* const* factors;
    float* out;
};

// Adds terms without a test in between, as often as that many are left.
template <int Terms, class Load>
HWY_INLINE void addTermsOfBand(const float*& row, std::ptrdiff_t step, const float*& factor, int& left,
                               Vector& sum, Load load) {
    for (; left >= Terms; left -= Terms) {
        ZEVRANT_UNROLL
        for (int k = 0; k < Terms; ++k)
            sum = hn::MulAdd(load(row += step), hn::Set(Floats(), *++factor), sum);
    }
}

// The sum of a band is one chain of multiply-adds. The processor has those of the next bands under way before
// it ends, as long as a band takes few instructions besides the two loads of each of its terms.
template <class Load, class Store>
HWY_NOINLINE void sumShortBands(const Bands& bands, std::ptrdiff_t begin, std::ptrdiff_t end, Load load,
                                Store store) {
    const auto [in, step, starts, counts, factors, out] = bands;
    for (std::ptrdiff_t b = begin; b < end; ++b) {
        const float* row = in + starts[b] * step;
        const float* factor = factors[b];
        Vector sum = hn::Mul(load(row), hn::Set(Floats(), *factor));
        int left = counts[b] - 1;
        addTermsOfBand<15>(row, step, factor, left, sum, load);
        addTermsOfBand<5>(row, step, factor, left, sum, load);
        addTermsOfBand<1>(row, step, factor, left, sum, load);
        store(sum, out + b * step);
    }
}

constexpr int kFloats = static_cast<int>(kNumOfLanes);
constexpr int kLongBands = 4;  // side by side

// Copies an odd lane of a vector to all its lanes.
class LaneSpreader {
  public:
    HWY_INLINE LaneSpreader() {
        for (int i = 0; i < kFloats / 2; ++i) {
            HWY_ALIGN std::int32_t lanes[kFloats];
            std::fill_n(lanes, kFloats, 2 * i + 1);
            indices[i] = hn::SetTableIndices(Floats(), lanes);
        }
    }
    HWY_INLINE Vector spread(Vector v, int lane) const { return hn::TableLookupLanes(v, indices[lane / 2]); }

  private:
    using Indices = decltype(hn::SetTableIndices(Floats(), static_cast<const std::int32_t*>(nullptr)));
    Indices indices[(kFloats + 1) / 2];
};

// As many terms as a vector has lanes. Two loads per term would hold up the multiply-adds, and so would a
// shuffle per term, so half of the factors come by either way.
template <class Load>
HWY_INLINE void addVectorOfTerms(const LaneSpreader& spreader, std::ptrdiff_t step,
                                 const float* (&rows)[kLongBands], const float* (&factors)[kLongBands],
                                 Vector (&sums)[kLongBands], Load load) {
    const Floats d;
    Vector allFactors[kLongBands];
    ZEVRANT_UNROLL
    for (int b = 0; b < kLongBands; ++b) allFactors[b] = hn::LoadU(d, factors[b]);
    ZEVRANT_UNROLL
    for (int k = 0; k < kFloats; ++k) {
        ZEVRANT_UNROLL
        for (int b = 0; b < kLongBands; ++b) {
            const Vector factor = k % 2 == 0 ? hn::Set(d, factors[b][k]) : spreader.spread(allFactors[b], k);
            sums[b] = hn::MulAdd(load(rows[b]), factor, sums[b]);
            rows[b] = asOneNumber(rows[b] + step);
        }
    }
    ZEVRANT_UNROLL
    for (int b = 0; b < kLongBands; ++b) factors[b] += kFloats;
}

// Bands with at least as many terms as a vector has lanes, side by side as far as all of them reach.
template <class Load, class Store>
HWY_NOINLINE void sumLongBands(const Bands& bands, std::ptrdiff_t end, Load load, Store store) {
    const auto [in, step, starts, counts, allFactors, out] = bands;
    const LaneSpreader spreader;
    for (std::ptrdiff_t first = 0; first < end; first += kLongBands) {
        const float* rows[kLongBands];
        const float* factors[kLongBands];
        Vector sums[kLongBands];
        int shortest = counts[first];
        ZEVRANT_UNROLL
        for (int b = 0; b < kLongBands; ++b) {
            rows[b] = in + starts[first + b] * step;
            factors[b] = allFactors[first + b];
            shortest = std::min(shortest, counts[first + b]);
            sums[b] = hn::Set(Floats(), -0.0f);  // which leaves every first product as it is
        }
        addVectorOfTerms(spreader, step, rows, factors, sums, load);
        int done = kFloats;
        for (; done + kFloats <= shortest; done += kFloats)
            addVectorOfTerms(spreader, step, rows, factors, sums, load);
        ZEVRANT_UNROLL
        for (int b = 0; b < kLongBands; ++b) {
            for (int k = done; k < counts[first + b]; ++k, rows[b] += step)
                sums[b] = hn::MulAdd(load(rows[b]), hn::Set(Floats(), *factors[b]++), sums[b]);
            store(sums[b], out + (first + b) * step);
        }
    }
}

// One vector of channels of all bands. They go side by side, as far as they come in full sets, where all are
// long.
template <class Load, class Store>
void sumBands(const Bands& bands, std::ptrdiff_t numOfBands, Load load, Store store) {
    int fewest = kFloats;
    for (std::ptrdiff_t b = 0; b < numOfBands; ++b) fewest = std::min(fewest, bands.counts[b]);
    const std::ptrdiff_t end = fewest == kFloats ? numOfBands / kLongBands * kLongBands : 0;
    if (end > 0) sumLongBands(bands, end, load, store);
    sumShortBands(bands, end, numOfBands, load, store);
}

void rescaleAllBands(const float* in, std::ptrdiff_t numOfChannels, std::ptrdiff_t numOfBands,
                     const int* starts, const int* counts, const float* const* factors, float* out) {
    if (numOfBands < 1) return;
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
    std::ptrdiff_t c = 0;
    for (; c + numOfLanes <= numOfChannels; c += numOfLanes) {
        const auto load = [](const float* row) HWY_ATTR { return hn::LoadU(Floats(), row); };
        const auto store = [](Vector sum, float* to) HWY_ATTR { hn::StoreU(sum, Floats(), to); };
        sumBands({in + c, numOfChannels, starts, counts, factors, out + c}, numOfBands, load, store);
    }
    if (c == numOfChannels) return;
    const auto rest = static_cast<std::size_t>(numOfChannels - c);
    const auto load = [rest](const float* row) HWY_ATTR { return loadFirst(row, rest); };
    const auto store = [rest](Vector sum, float* to) HWY_ATTR { storeFirst(sum, to, rest); };
    sumBands({in + c, numOfChannels, starts, counts, factors, out + c}, numOfBands, load, store);
}

}  // namespace
}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zevrant::kernels {

ZEVRANT_DISPATCH_TABLE(rescaleAllBands);

void rescaleBands(const float* in, std::ptrdiff_t numOfChannels, std::ptrdiff_t numOfBands, const int* starts,
                  const int* counts, const float* const* factors, float* out) {
    ZEVRANT_DISPATCH(rescaleAllBands)(in, numOfChannels, numOfBands, starts, counts, factors, out);
}

}  // namespace zevrant::kernels

#endif  // HWY_ONCE
