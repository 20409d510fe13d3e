#pragma once

#include <cstddef>

#include "kernels/PackedWeights.h"
#include "kernels/Shapes.h"

// Convolutions over channels, and the product with a matrix, which is one of one slice and one tap. The terms
// and their order: Shapes.h.
namespace zevrant::kernels {

// Weights [slices][taps][inputs][outputs] as one matrix with a term per slice, tap and input.
PackedWeights packConvolution(const float* weights, const Convolution& shape);

void convolve(const Convolution& shape, const float* const* slices, const PackedWeights& weights,
              const float* first, std::ptrdiff_t firstStep, float* out, const SliceToStore& store = {});

// out[row][o] = first[row * firstStep + o] + sum over c, in order, of in[row][c] * weights[matrix][c][o]
void multiplyMatrix(const float* in, std::ptrdiff_t numOfRows, const PackedWeights& weights,
                    const float* first, std::ptrdiff_t firstStep, float* out, std::ptrdiff_t matrix = 0);

}  // namespace zevrant::kernels
