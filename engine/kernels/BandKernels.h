#pragma once

#include <cstddef>

namespace zevrant::kernels {

// Bands as weighted runs of bins: out[o][c] = in[starts[o]][c] * factors[o][0], then
// + in[starts[o] + k][c] * factors[o][k] for k from 1 to counts[o] - 1 in order.
// The first factor is applied whatever the count. Pointers need the alignment of a float only.
void rescaleBands(const float* in, std::ptrdiff_t numOfChannels, std::ptrdiff_t numOfBands, const int* starts,
                  const int* counts, const float* const* factors, float* out);

}  // namespace zevrant::kernels
