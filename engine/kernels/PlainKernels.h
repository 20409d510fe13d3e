#pragma once

#include <cstddef>

#include "kernels/Shapes.h"

// The definitions as plain loops over unpacked weights, one fused multiply-add per term. They judge the
// kernels, and they serve shapes that those do not take.
namespace zevrant::kernels::plain {

// rowStep: channels of an input row, which may be more than the inputs that are read.
void convolve(const Convolution& shape, const float* const* slices, std::ptrdiff_t rowStep,
              const float* weights, const float* first, std::ptrdiff_t firstStep, float* out);
void convolveChannels(const Convolution& shape, const float* const* slices, const float* weights,
                      const float* first, std::ptrdiff_t firstStep, float* out);
void convolveTransposed(const TransposedConvolution& shape, const float* in, const float* weights,
                        float* const* slots);
void convolveTransposedChannels(const TransposedConvolution& shape, const float* in, const float* weights,
                                float* const* slots);
void multiplyDense(const float* in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
                   const float* weights, float* out);
void combineRows(const float* const* rows, const float* factors, std::ptrdiff_t numOfRows,
                 std::ptrdiff_t count, float* out);
void rescaleBands(const float* in, std::ptrdiff_t numOfChannels, std::ptrdiff_t numOfBands, const int* starts,
                  const int* counts, const float* const* factors, float* out);

}  // namespace zevrant::kernels::plain
