#pragma once

#include <cstddef>

#include "kernels/PackedWeights.h"

namespace zevrant::kernels {

// out[o][c] = sum over i, in order from 0, of in[i][c] * weights[o][i][c]: a matrix across frequency for
// each channel. Weights stream past once, so they are packed into the order of use. Many weights that all are
// numbers of IEEE half precision, as a model file may hold them, are packed as such and widened on their way:
// half the traffic, and the same sums.
PackedWeights packDense(const float* weights, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels);
void multiplyDense(const float* in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
                   const PackedWeights& weights, float* out);

}  // namespace zevrant::kernels
