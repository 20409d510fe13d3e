// What the layers are measured beside: their definitions as loops, innermost over contiguous values, compiled
// for the very processor that builds them; and what that processor can do at most.
#pragma once

#include "kernels/Shapes.h"

namespace plain {

void convolve(const zevrant::kernels::Convolution& shape, const float* const* slices, const float* weights,
              float* out);
void convolveChannels(const zevrant::kernels::Convolution& shape, const float* const* slices,
                      const float* weights, float* out);
void convolveTransposed(const zevrant::kernels::TransposedConvolution& shape, const float* in,
                        const float* weights, float* const* slots);
void multiplyDense(const float* in, int numOfFrequencies, int numOfChannels, const float* weights,
                   float* out);
void rescale(const float* in, int numOfChannels, int numOfBands, int numOfTaps, const int* starts,
             const float* weights, float* out);

// Multiply-adds on registers alone, as many as fit side by side. Returns how many it did.
long long multiplyAndAddAtPeak();

// Reads count values into registers, a multiple of 1024.
float readAll(const float* values, int count);

}  // namespace plain
