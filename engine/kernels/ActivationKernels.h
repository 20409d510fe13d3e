#pragma once

#include <cstddef>

// Activations in one pass, each with the operations and the roundings of the separate passes of
// VectorOperations.h that it stands for. out may be in; a count of 0 or less does nothing.
//
//   elu          (exp(min(x, 0)) - 1) + max(x, 0)
//   sigmoid      exp(y) / (exp(y) + 1) with y = x limited to -10 .. 10
//   leakyRelu    max(x, 0) + alpha * min(x, 0), fused
//   hardSigmoid  x * (1 / 6) + 0.5 limited to 0 .. 1, not fused
//   softplus     ln(exp(x) + 1)
namespace zevrant::kernels {

void elu(const float* in, std::ptrdiff_t count, float* out);
void sigmoid(const float* in, std::ptrdiff_t count, float* out);
void leakyRelu(const float* in, float alpha, std::ptrdiff_t count, float* out);
void hardSigmoid(const float* in, std::ptrdiff_t count, float* out);
void softplus(const float* in, std::ptrdiff_t count, float* out);

}  // namespace zevrant::kernels
