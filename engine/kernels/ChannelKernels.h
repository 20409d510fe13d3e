#pragma once

#include <cstddef>

#include "kernels/Shapes.h"

// Channel by channel: no sums over channels, so the weights are few and need no packing, and the time goes
// into moving the slices. The terms and their order: Shapes.h.
namespace zevrant::kernels {

// Output channel o takes input channel o alone, by weights[r][k][o]. numOfInputs is not read; input rows have
// numOfOutputs channels.
void convolveChannels(const Convolution& shape, const float* const* slices, const float* weights,
                      const float* first, std::ptrdiff_t firstStep, float* out,
                      const SliceToStore& store = {});

// slots[r][...][o] += in[i][o] * weights[r][k][o], one multiply-add for each slot, input frequency and tap in
// this order. numOfInputs is not read.
void convolveTransposedChannels(const TransposedConvolution& shape, const float* in, const float* weights,
                                float* const* slots);

// out[i] = rows[0][i] * factors[0], then + rows[k][i] * factors[k] for k from 1 in order.
// With one factor or none it is the bare product of the first row.
void combineRows(const float* const* rows, const float* factors, std::ptrdiff_t numOfRows,
                 std::ptrdiff_t count, float* out);

}  // namespace zevrant::kernels
