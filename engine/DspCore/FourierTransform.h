#pragma once

#include <memory>

#include "DspCore/Signals.h"

namespace zevrant {

// Fast Fourier transform of whole signals, row c of the input to row c of the output.
//
//   forward   X[k] = sum over n of x[n] e^(-j 2 pi k n / N)
//   inverse   x[n] = sum over k of X[k] e^(+j 2 pi k n / N)
//
// Neither is scaled: an inverse of a forward gives N times the input.
//
// Shapes   Real: N samples to N / 2 + 1 bins and back, bin k at column k. Bins 0 and N / 2 are real,
//          so their imaginary parts are 0 after forwardReal and are ignored by inverseReal.
//          Complex: N columns to N columns.
// Lengths  Powers of two. For any other length, size keeps it and the transform has length
//          L = 2^order on the first L samples, or the first L / 2 + 1 bins; what the output has beyond
//          that, up to the shape above, becomes 0. A length below 1 leaves everything as it is.
// Output   Must have at least the channels of the input and the columns above; what else it holds is
//          kept. Shared storage is parted before the first write, so the input is never written,
//          unless input and output are one and the same signal.
// Memory   Tables and work space are made at the first transform of a length and kept. The real and
//          the complex pair each keep their own, so alternating between them rebuilds nothing. After
//          that nothing is allocated here; the forms that return a signal allocate that signal.
// Errors   std::length_error when the output is too small, before anything is written;
//          std::bad_alloc.
// Threads  One at a time, since the work space belongs to the object.
class FourierTransform {
  public:
    FourierTransform();
    FourierTransform(FourierTransform&& other) noexcept;  // leaves other unallocated
    FourierTransform& operator=(FourierTransform&& other) noexcept;
    ~FourierTransform();

    void forwardReal(const Signal32& in, ComplexSignal32& out);
    ComplexSignal32 forwardReal(const Signal32& in);

    void inverseReal(const ComplexSignal32& in, Signal32& out);
    Signal32 inverseReal(const ComplexSignal32& in);  // 2 * in.numOfSamples - 2 samples

    void forwardComplex(const ComplexSignal32& in, ComplexSignal32& out);
    ComplexSignal32 forwardComplex(const ComplexSignal32& in);

    void inverseComplex(const ComplexSignal32& in, ComplexSignal32& out);
    ComplexSignal32 inverseComplex(const ComplexSignal32& in);

    // Builds the tables of one pair for a length. A transform does so itself when its length changes;
    // calling it before keeps that work off the audio thread.
    void allocate(int newSize, bool real = true);

    // Releases everything.
    void free();

  private:
    class Plan;

    Plan& select(bool real, int newSize, bool fits);
    void transformComplex(const ComplexSignal32& in, ComplexSignal32& out, bool forward);

    std::unique_ptr<Plan> realPlan;
    std::unique_ptr<Plan> complexPlan;

  public:
    int size = 0;   // length of the pair that was used or built last, 0 when unallocated
    int order = 0;  // floor of its base-2 logarithm
};

}  // namespace zevrant
