#include "kernels/DenseKernels.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "kernels/EvenSplit.h"
#include "simd/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/DenseKernels.cpp"
#include "hwy/foreach_target.h"  // from here on once per instruction set

#include "simd/Dispatch.h"
#include "simd/Tiles-inl.h"

#ifndef ZEVRANT_KERNELS_DENSE_ONCE
#define ZEVRANT_KERNELS_DENSE_ONCE

namespace zevrant::kernels {
namespace {

constexpr std::ptrdiff_t kVectorsPerDenseBlock = 8;

// From this number on, the weights of a dense layer come from the second level of cache or from further away,
// and widening halves costs less than reading floats.
constexpr std::size_t kMinWeightsAsHalves = std::size_t{1} << 18;

}  // namespace
}  // namespace zevrant::kernels

#endif

HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {
namespace {

using namespace zevrant::simd::HWY_NAMESPACE;

HWY_INLINE Vector loadWeights(const float* weights) {
    return hn::Load(Floats(), weights);
}

using Halves = hn::Rebind<hwy::float16_t, Floats>;

HWY_INLINE Vector loadWeights(const std::uint16_t* weights) {
    return hn::PromoteTo(Floats(), hn::Load(Halves(), reinterpret_cast<const hwy::float16_t*>(weights)));
}

// Whole vectors. False where a value would change, or where widening takes many instructions.
bool packAsHalves(const float* values, std::size_t count, std::uint16_t* halves) {
    if (!kWidensHalves) return false;
    const Floats d;
    const hn::RebindToUnsigned<Floats> bits;
    for (std::size_t i = 0; i < count; i += kNumOfLanes) {
        const Vector value = hn::Load(d, values + i);
        hn::Store(hn::DemoteTo(Halves(), value), Halves(), reinterpret_cast<hwy::float16_t*>(halves + i));
        if (!hn::AllTrue(bits, hn::Eq(hn::BitCast(bits, value), hn::BitCast(bits, loadWeights(halves + i)))))
            return false;
    }
    return true;
}

// Vectors sums over all input frequencies, their weights being one stream that is read once. With
// isAlongChannels a vector holds channels of one output frequency, and they share the input vector;
// otherwise it holds output frequencies of one channel, and they share the input value.
template <int Vectors, bool isAhead, class Weight>
void sumDense(const float* HWY_RESTRICT in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
              const Weight* HWY_RESTRICT weights, bool isAlongChannels, float* HWY_RESTRICT sums) {
    const Floats d;
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
    Vector sum[Vectors];
    ZEVRANT_UNROLL
    for (int v = 0; v < Vectors; ++v) sum[v] = hn::Zero(d);
    for (std::ptrdiff_t i = 0; i < numOfFrequencies; ++i, in += numOfChannels) {
        const Vector x = isAlongChannels ? hn::LoadU(d, in) : hn::Set(d, *in);
        ZEVRANT_UNROLL
        for (int v = 0; v < Vectors; ++v) {
            if constexpr (isAhead) hwy::Prefetch(weights + 2048 / sizeof(Weight));
            sum[v] = hn::MulAdd(x, loadWeights(weights), sum[v]);
            weights += numOfLanes;
        }
    }
    ZEVRANT_UNROLL
    for (int v = 0; v < Vectors; ++v) hn::Store(sum[v], d, sums + v * numOfLanes);
}

template <class Weight>
using SumDense = void (*)(const float*, std::ptrdiff_t, std::ptrdiff_t, const Weight*, bool, float*);
template <class Weight, bool isAhead>
constexpr std::array<SumDense<Weight>, kVectorsPerDenseBlock> kDenseBlocks = {
    sumDense<1, isAhead, Weight>, sumDense<2, isAhead, Weight>, sumDense<3, isAhead, Weight>,
    sumDense<4, isAhead, Weight>, sumDense<5, isAhead, Weight>, sumDense<6, isAhead, Weight>,
    sumDense<7, isAhead, Weight>, sumDense<8, isAhead, Weight>};

template <class Weight>
void multiplyDenseBy(const Weight* weights, const float* in, std::ptrdiff_t numOfFrequencies,
                     std::ptrdiff_t numOfChannels, const PackedWeights& packed, float* out) {
    HWY_ALIGN float sums[kVectorsPerDenseBlock * kNumOfLanes];
    const std::ptrdiff_t numOfLanes = packed.numOfLanes, numOfVectors = getNumOfVectors(packed);
    const bool isAlongChannels = packed.numOfMatrices != numOfChannels;
    const std::ptrdiff_t channelStep = isAlongChannels ? numOfLanes : 1;
    const EvenSplit blocks(numOfVectors, packed.vectorsPerBlock);
    const auto& sumBlock = simd::asksAhead() ? kDenseBlocks<Weight, true> : kDenseBlocks<Weight, false>;
    for (std::ptrdiff_t c = 0; c < numOfChannels; c += channelStep)
        for (std::ptrdiff_t b = 0, o = 0; b < blocks.numOfParts; ++b) {
            const std::ptrdiff_t vectors = blocks.sizeOf(b);
            sumBlock[static_cast<std::size_t>(vectors - 1)](in + c, numOfFrequencies, numOfChannels, weights,
                                                            isAlongChannels, sums);
            weights += vectors * numOfLanes * packed.numOfTerms;
            if (isAlongChannels) {
                for (std::ptrdiff_t v = 0; v < vectors; ++v, ++o)
                    std::copy_n(sums + v * numOfLanes, numOfLanes, out + o * numOfChannels + c);
            } else {
                const std::ptrdiff_t end = std::min(o + vectors * numOfLanes, numOfFrequencies);
                for (const float* sum = sums; o < end; ++o) out[o * numOfChannels + c] = *sum++;
            }
        }
}

template <bool hasHalves>
void multiplyDenseOf(const float* in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
                     const PackedWeights& packed, float* out) {
    if constexpr (hasHalves)
        if (!packed.halves.empty())
            return multiplyDenseBy(packed.halves.data(), in, numOfFrequencies, numOfChannels, packed, out);
    multiplyDenseBy(packed.values.data(), in, numOfFrequencies, numOfChannels, packed, out);
}

void multiplyDensePlane(const float* in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
                        const PackedWeights& packed, float* out) {
    multiplyDenseOf<kWidensHalves>(in, numOfFrequencies, numOfChannels, packed, out);
}

}  // namespace
}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zevrant::kernels {

ZEVRANT_DISPATCH_TABLE(packAsHalves);
ZEVRANT_DISPATCH_TABLE(multiplyDensePlane);

namespace {

// Vectors run along channels where these fill them, otherwise along the output frequency.
PackedWeights packDenseValues(const float* weights, std::ptrdiff_t numOfFrequencies,
                              std::ptrdiff_t numOfChannels) {
    const std::ptrdiff_t numOfLanes = getNumOfLanes();
    const std::ptrdiff_t f = numOfFrequencies, c = numOfChannels;
    if (c <= 0 || c % numOfLanes != 0 || numOfLanes == 1)
        return packBlocks(weights, c, f, f, {1, c, f * c}, kVectorsPerDenseBlock);
    // The outputs of a matrix are the lanes of all output frequencies, one after the other.
    PackedWeights packed;
    packed.numOfMatrices = c / numOfLanes;
    packed.numOfTerms = f;
    packed.numOfOutputs = f * numOfLanes;
    packed.numOfLanes = numOfLanes;
    packed.vectorsPerBlock = kVectorsPerDenseBlock;
    packed.values.resize(static_cast<std::size_t>(f * f * c));
    float* out = packed.values.data();
    const EvenSplit blocks(f, kVectorsPerDenseBlock);
    for (std::ptrdiff_t channel = 0; channel < c; channel += numOfLanes)
        for (std::ptrdiff_t b = 0, o = 0; b < blocks.numOfParts; o += blocks.sizeOf(b++))
            for (std::ptrdiff_t i = 0; i < f; ++i)
                for (std::ptrdiff_t v = 0; v < blocks.sizeOf(b); ++v, out += numOfLanes)
                    std::copy_n(weights + ((o + v) * f + i) * c + channel, numOfLanes, out);
    return packed;
}

}  // namespace

PackedWeights packDense(const float* weights, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels) {
    PackedWeights packed = packDenseValues(weights, numOfFrequencies, numOfChannels);
    const std::size_t count = packed.values.size();
    if (count < kMinWeightsAsHalves) return packed;
    packed.halves.resize(count);
    if (ZEVRANT_DISPATCH(packAsHalves)(packed.values.data(), count, packed.halves.data()))
        packed.values = AlignedValues();
    else
        packed.halves.clear();
    return packed;
}

void multiplyDense(const float* in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
                   const PackedWeights& weights, float* out) {
    requireSuited(weights);
    ZEVRANT_DISPATCH(multiplyDensePlane)(in, numOfFrequencies, numOfChannels, weights, out);
}

}  // namespace zevrant::kernels

#endif  // HWY_ONCE
