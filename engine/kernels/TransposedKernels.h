#pragma once

#include <cstddef>

#include "kernels/PackedWeights.h"
#include "kernels/Shapes.h"

// Transposed convolutions over channels. The terms and their order: Shapes.h.
namespace zevrant::kernels {

// Where a slot goes that no later slice reaches:
//
//   out[f][o] = slot[f][o] + bias[o]
//
// after which the slot is cleared for its next use. A null bias adds nothing; with a null out the slot stays.
struct WholeSlot {
    const float* bias = nullptr;
    float* out = nullptr;
};

// Weights [slots][taps][outputs][inputs]: a matrix per slot and tap, or one for all where outputs are few.
PackedWeights packTransposed(const float* weights, const TransposedConvolution& shape);

// firstSlot: what becomes of slots[0] once these contributions are in it, in the same pass.
void convolveTransposed(const TransposedConvolution& shape, const float* in, const PackedWeights& weights,
                        float* const* slots, const WholeSlot& firstSlot = {});

// The last step by itself; out is needed.
void finishSlot(float* slot, std::ptrdiff_t outputFrequencies, std::ptrdiff_t numOfOutputs,
                const WholeSlot& whole);

}  // namespace zevrant::kernels
