#pragma once

#include <cstddef>

// Rows of length values with a gain and an offset for each of them, in one pass with the roundings of the
// separate passes of VectorOperations.h; offset may be null, out may be in.
//
//   scaleRows      out = in * gain + offset, not fused
//   normaliseRows  out = (in * (1 / (calcRms(in) + guard))) * gain + offset, each row by its own level
namespace zevrant::kernels {

void scaleRows(const float* in, std::ptrdiff_t numOfRows, std::ptrdiff_t length, const float* gain,
               const float* offset, float* out);
void normaliseRows(const float* in, std::ptrdiff_t numOfRows, std::ptrdiff_t length, float guard,
                   const float* gain, const float* offset, float* out);

}  // namespace zevrant::kernels
