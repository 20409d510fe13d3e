// The same shapes in oneDNN, on one thread and over slices that lie ready in its own layouts. Each function
// returns one run over its own buffers, or nothing where the library was not found at build time.
#pragma once

#include <functional>

#include "kernels/Shapes.h"

namespace onednn {

// groups is 1, or the number of channels of a channel-wise convolution.
std::function<void()> makeConvolution(const zevrant::kernels::Convolution& shape, int groups);
std::function<void()> makeTransposed(const zevrant::kernels::TransposedConvolution& shape);
std::function<void()> makeDense(int numOfFrequencies, int numOfChannels);

}  // namespace onednn
