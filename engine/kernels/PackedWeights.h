#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "DspCore/MemoryBudget.h"
#include "DspCore/RecyclingPool.h"

// What holds for all kernels:
//
// Order     Every output value takes its terms in the order that the kernel's comment states, one
// multiply-add
//           per term, fused where the processor has that. Blocking runs over outputs only, so a result is the
//           same on every processor with fused multiply-adds and the same as the plain loop's.
// Shapes    A plane is a time slice of [frequencies, channels], channels contiguous.
// Pointers  Need the alignment of a float only. Outputs overlap no input unless the comment allows it.
// Memory    Packing allocates; running a kernel does not.
// Errors    Sizes are the caller's care. std::logic_error for packed weights that are not isSuited;
//           std::bad_alloc from packing, and std::length_error where the model has no room for it.
// Threads   Free of state; any thread at any time, as long as outputs are not shared.
namespace zevrant::kernels {

using AlignedValues = std::vector<float, RecyclingAllocator<float>>;

// Matrices of weights in the order in which the kernels of the running processor read them:
// [matrix][block of output vectors][term][vector of the block][lane], with zeros behind the last output.
// Packed once, when a model is loaded.
struct PackedWeights {
    std::ptrdiff_t numOfMatrices = 0;
    std::ptrdiff_t numOfTerms = 0;    // length of each sum
    std::ptrdiff_t numOfOutputs = 0;  // sums per matrix
    std::ptrdiff_t numOfLanes = 0;    // of the instruction set that the order suits
    std::ptrdiff_t vectorsPerBlock = 0;
    MemoryBudget::Share share;
    AlignedValues values;
    std::vector<std::uint16_t, RecyclingAllocator<std::uint16_t>>
        halves;  // in place of values: see packDense()
};

// Where the weight of a matrix, a term and an output stands in unpacked weights.
struct WeightSteps {
    std::ptrdiff_t matrix, term, output;
};

// In blocks as wide as a tile of sums.
PackedWeights packWeights(const float* weights, std::ptrdiff_t numOfMatrices, std::ptrdiff_t numOfTerms,
                          std::ptrdiff_t numOfOutputs, const WeightSteps& steps);

// In blocks of another width.
PackedWeights packBlocks(const float* weights, std::ptrdiff_t numOfMatrices, std::ptrdiff_t numOfTerms,
                         std::ptrdiff_t numOfOutputs, const WeightSteps& steps,
                         std::ptrdiff_t vectorsPerBlock);

// False when the order suits another instruction set than the one that runs, as with nothing packed at all.
bool isSuited(const PackedWeights& weights) noexcept;
void requireSuited(const PackedWeights& weights);

// Floats in a vector of the instruction set that runs.
std::ptrdiff_t getNumOfLanes() noexcept;

inline std::ptrdiff_t getNumOfVectors(const PackedWeights& weights) {
    return (weights.numOfOutputs + weights.numOfLanes - 1) / weights.numOfLanes;
}

}  // namespace zevrant::kernels
