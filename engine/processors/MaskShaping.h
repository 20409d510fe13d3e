#pragma once

#include <complex>
#include <vector>

#include "DspCore/Signals.h"

namespace zevrant {

// Sensitivity: bends the magnitudes m of a mask and keeps its phases. With curve = e^(0.0075 * sensitivity):
//
//   sensitivity < 0   m * (m + 1e-12)^(curve - 1), which lifts small magnitudes
//   otherwise         m * (0.5 - 0.5 cos(pi m) + 1e-12)^(curve - 1), which presses them towards 0 and
//                     on purpose turns down again above 1
//
// A bin is scaled by its factor instead of going through its angle and back, which gives the same number to
// rounding; bins that are not finite take the way through the angle.
//
// Memory   Scratch rows, which grow to the longest mask and stay.   Threads: one at a time.
class MaskShaping {
  public:
    // Takes the memory for masks of up to so many bins ahead of the first that is bent.
    void reserve(int numOfBins);

    // The mask with the first numOfBins bins of its first numOfRows rows bent and the rest as it is. It
    // shares nothing with the mask.
    ComplexSignal32 shape(const ComplexSignal32& mask, float sensitivity, int numOfRows, int numOfBins);

  private:
    void shapeRow(const std::complex<float>* mask, float curve, int numOfBins, std::complex<float>* shaped,
                  int numOfSamples);

    std::vector<float> magnitudes, factors, phases;
};

}  // namespace zevrant
