#include "kernels/PackedWeights.h"

#include <algorithm>
#include <stdexcept>

#include "kernels/EvenSplit.h"
#include "simd/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/PackedWeights.cpp"
#include "hwy/foreach_target.h"  // from here on once per instruction set

#include "simd/Dispatch.h"
#include "simd/Tiles-inl.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {
namespace {

std::ptrdiff_t getLanesOfVector() {
    return static_cast<std::ptrdiff_t>(simd::HWY_NAMESPACE::kNumOfLanes);
}

std::ptrdiff_t getVectorsOfTile() {
    return simd::HWY_NAMESPACE::kMaxVectors;
}

}  // namespace
}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zevrant::kernels {

ZEVRANT_DISPATCH_TABLE(getLanesOfVector);
ZEVRANT_DISPATCH_TABLE(getVectorsOfTile);

std::ptrdiff_t getNumOfLanes() noexcept {
    return ZEVRANT_DISPATCH(getLanesOfVector)();
}

bool isSuited(const PackedWeights& weights) noexcept {
    return weights.numOfLanes == getNumOfLanes();
}

void requireSuited(const PackedWeights& weights) {
    if (!isSuited(weights)) throw std::logic_error("Weights are packed for another instruction set");
}

PackedWeights packWeights(const float* weights, std::ptrdiff_t numOfMatrices, std::ptrdiff_t numOfTerms,
                          std::ptrdiff_t numOfOutputs, const WeightSteps& steps) {
    return packBlocks(weights, numOfMatrices, numOfTerms, numOfOutputs, steps,
                      ZEVRANT_DISPATCH(getVectorsOfTile)());
}

PackedWeights packBlocks(const float* weights, std::ptrdiff_t numOfMatrices, std::ptrdiff_t numOfTerms,
                         std::ptrdiff_t numOfOutputs, const WeightSteps& steps,
                         std::ptrdiff_t vectorsPerBlock) {
    PackedWeights packed;
    packed.numOfMatrices = std::max<std::ptrdiff_t>(numOfMatrices, 0);
    packed.numOfTerms = std::max<std::ptrdiff_t>(numOfTerms, 0);
    packed.numOfOutputs = std::max<std::ptrdiff_t>(numOfOutputs, 0);
    packed.numOfLanes = getNumOfLanes();
    packed.vectorsPerBlock = vectorsPerBlock;
    const std::ptrdiff_t numOfLanes = packed.numOfLanes, numOfVectors = getNumOfVectors(packed);
    const std::ptrdiff_t numOfValues = packed.numOfMatrices * packed.numOfTerms * numOfVectors * numOfLanes;
    packed.share = MemoryBudget::Share(numOfValues * std::ptrdiff_t{sizeof(float)});
    AlignedValues& values = packed.values;
    values.reserve(static_cast<std::size_t>(numOfValues));  // and each value is written once
    std::vector<float> row(static_cast<std::size_t>(vectorsPerBlock * numOfLanes));
    const EvenSplit blocks(numOfVectors, vectorsPerBlock);
    for (std::ptrdiff_t matrix = 0; matrix < packed.numOfMatrices; ++matrix)
        for (std::ptrdiff_t b = 0, begin = 0; b < blocks.numOfParts; ++b) {
            const std::ptrdiff_t end = begin + blocks.sizeOf(b) * numOfLanes;
            const std::ptrdiff_t count = std::min(end, packed.numOfOutputs) - begin;
            for (std::ptrdiff_t term = 0; term < packed.numOfTerms; ++term) {
                const float* in = weights + matrix * steps.matrix + term * steps.term + begin * steps.output;
                if (steps.output != 1) {
                    for (std::ptrdiff_t i = 0; i < count; ++i)
                        row[static_cast<std::size_t>(i)] = in[i * steps.output];
                    in = row.data();
                }
                values.insert(values.end(), in, in + count);
                values.insert(values.end(), static_cast<std::size_t>(end - begin - count), 0.0f);
            }
            begin = end;
        }
    return packed;
}

}  // namespace zevrant::kernels

#endif  // HWY_ONCE
