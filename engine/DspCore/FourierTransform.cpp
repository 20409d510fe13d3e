#include "DspCore/FourierTransform.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstddef>
#include <new>
#include <numbers>
#include <stdexcept>
#include <utility>
#include <vector>

#include "DspCore/MathEx.h"
#include "DspCore/PffftMemory.h"
#include "DspCore/RecyclingPool.h"
#include "DspCore/VectorOperations.h"
#include "pffft.h"

namespace zevrant {

namespace {

// The shortest lengths that PFFFT serves with four-lane vectors.
constexpr int shortestFastReal = 32;
constexpr int shortestFastComplex = 16;
constexpr int longestShort = 16;  // the longest that is left to the transform of our own

using Complex = std::complex<double>;
using ShortBuffer = std::array<Complex, longestShort>;

struct FreeSetup {
    void operator()(PFFFT_Setup* setup) const { pffft_destroy_setup(setup); }
};

struct FreeAligned {
    void operator()(float* block) const { pffft_aligned_free(block); }
};

using SetupPointer = std::unique_ptr<PFFFT_Setup, FreeSetup>;
using SetupMemory = std::vector<std::byte, RecyclingAllocator<std::byte>>;
using AlignedFloats = std::unique_ptr<float[], FreeAligned>;

AlignedFloats makeAligned(int count) {
    AlignedFloats block(
        static_cast<float*>(pffft_aligned_malloc(sizeof(float) * static_cast<std::size_t>(count))));
    if (!block) throw std::bad_alloc();
    std::fill_n(block.get(), count, 0.0f);
    return block;
}

// e^(-j 2 pi k / 16), which holds the roots of every shorter power of two as well. A quarter of the
// circle is computed and turned, so that opposite roots cancel exactly.
ShortBuffer makeRoots() {
    constexpr int quarter = longestShort / 4;
    constexpr Complex quarterTurn(0.0, -1.0);
    ShortBuffer roots;
    for (int k = 0; k < quarter; ++k) {
        const double angle = 2.0 * std::numbers::pi * k / longestShort;
        Complex root(std::cos(angle), -std::sin(angle));
        for (int turn = 0; turn < 4; ++turn, root *= quarterTurn) roots[k + turn * quarter] = root;
    }
    return roots;
}

// Decimation in time, from every step-th element of in (Cooley and Tukey, 1965). At most 16 points,
// so a plain recursion in double is quick and rounds only once, on the way to float.
void transformShort(const ShortBuffer& roots, bool forward, const Complex* in, int step, Complex* out,
                    int length) {
    if (length == 1) {
        out[0] = in[0];
        return;
    }
    const int half = length / 2;
    transformShort(roots, forward, in, 2 * step, out, half);
    transformShort(roots, forward, in + step, 2 * step, out + half, half);
    for (int k = 0; k < half; ++k) {
        const Complex& root = roots[k * (longestShort / length)];
        const Complex turned = out[half + k] * (forward ? root : std::conj(root));
        out[half + k] = out[k] - turned;
        out[k] += turned;
    }
}

template <class T>
void checkRoom(const Signal<T>& out, int numOfChannels, int numOfColumns) {
    if (numOfChannels > 0 && (out.numOfChannels < numOfChannels || out.numOfSamples < numOfColumns))
        throw std::length_error("the output of a Fourier transform is too small");
}

}  // namespace

// Tables and work space of one pair at one length. All calls take one row.
class FourierTransform::Plan {
  public:
    Plan(int numOfPoints, bool real)
        : size(numOfPoints), order(MathEx::log2(numOfPoints)), length(1 << order), roots(makeRoots()) {
        if (length < (real ? shortestFastReal : shortestFastComplex)) return;
        setupMemory.resize(numOfBytesOfHeads +
                           sizeof(float) * static_cast<std::size_t>(real ? length : 2 * length));
        zevrantLendToPffft(setupMemory.data(), setupMemory.size());
        setup.reset(pffft_new_setup(length, real ? PFFFT_REAL : PFFFT_COMPLEX));
        zevrantLendToPffft(nullptr, 0);
        if (!setup) throw std::bad_alloc();
        work = makeAligned(real ? length : 2 * length);
        if (!real) return;
        reordered = makeAligned(length);
        nyquistSlot = findNyquistSlot();
    }

    void forwardReal(const float* in, std::complex<float>* out) {
        const int half = length / 2;
        if (!setup) {
            ShortBuffer samples{};
            for (int n = 0; n < length; ++n) samples[n] = in[n];
            const ShortBuffer bins = transformShortRow(samples, true);
            for (int k = 0; k <= half; ++k) out[k] = std::complex<float>(bins[k]);
            out[0].imag(0.0f);
            out[half].imag(0.0f);
            return;
        }
        pffft_transform_ordered(setup.get(), in, vo::asReals(out), work.get(), PFFFT_FORWARD);
        out[half] = out[0].imag();
        out[0].imag(0.0f);
    }

    // The Nyquist value has to get into the imaginary part of bin 0, and the input must not be
    // written. So the two halves of the ordered transform are called apart, and the value is put in
    // between them, where the reordering has taken that part: this saves a copy of the row.
    void inverseReal(const std::complex<float>* in, float* out) {
        const int half = length / 2;
        if (!setup) {
            ShortBuffer bins{};
            for (int k = 1; k < half; ++k) {
                bins[k] = Complex(in[k]);
                bins[length - k] = std::conj(bins[k]);
            }
            bins[0] = in[0].real();
            bins[half] = in[half].real();
            const ShortBuffer samples = transformShortRow(bins, false);
            for (int n = 0; n < length; ++n) out[n] = static_cast<float>(samples[n].real());
            return;
        }
        pffft_zreorder(setup.get(), vo::asReals(in), reordered.get(), PFFFT_BACKWARD);
        reordered[nyquistSlot] = in[half].real();
        pffft_transform(setup.get(), reordered.get(), out, work.get(), PFFFT_BACKWARD);
    }

    void transformComplex(const std::complex<float>* in, std::complex<float>* out, bool forward) {
        if (!setup) {
            ShortBuffer values{};
            for (int n = 0; n < length; ++n) values[n] = Complex(in[n]);
            const ShortBuffer results = transformShortRow(values, forward);
            for (int n = 0; n < length; ++n) out[n] = std::complex<float>(results[n]);
            return;
        }
        pffft_transform_ordered(setup.get(), vo::asReals(in), vo::asReals(out), work.get(),
                                forward ? PFFFT_FORWARD : PFFFT_BACKWARD);
    }

    const int size;
    const int order;
    const int length;  // 2^order, at most size

  private:
    ShortBuffer transformShortRow(const ShortBuffer& in, bool forward) const {
        ShortBuffer out{};
        transformShort(roots, forward, in.data(), 1, out.data(), length);
        return out;
    }

    // Where the imaginary part of bin 0 stands in PFFFT's own order.
    int findNyquistSlot() {
        work[1] = 1.0f;
        pffft_zreorder(setup.get(), work.get(), reordered.get(), PFFFT_BACKWARD);
        return static_cast<int>(std::find(reordered.get(), reordered.get() + length, 1.0f) - reordered.get());
    }

    static constexpr std::size_t numOfBytesOfHeads = 1024;  // of all that a setup is but its table

    SetupMemory setupMemory;
    SetupPointer setup;  // null for lengths below PFFFT's shortest
    AlignedFloats work;
    AlignedFloats reordered;  // real pair: a spectrum in PFFFT's own order
    int nyquistSlot = 0;
    ShortBuffer roots;
};

FourierTransform::FourierTransform() = default;
FourierTransform::~FourierTransform() = default;

FourierTransform::FourierTransform(FourierTransform&& other) noexcept {
    *this = std::move(other);
}

FourierTransform& FourierTransform::operator=(FourierTransform&& other) noexcept {
    if (this == &other) return *this;
    realPlan = std::move(other.realPlan);
    complexPlan = std::move(other.complexPlan);
    size = std::exchange(other.size, 0);
    order = std::exchange(other.order, 0);
    return *this;
}

void FourierTransform::allocate(int newSize, bool real) {
    std::unique_ptr<Plan>& plan = real ? realPlan : complexPlan;
    plan.reset();
    size = order = 0;
    if (newSize > 0) plan = std::make_unique<Plan>(newSize, real);
    size = newSize;
    order = plan ? plan->order : 0;
}

void FourierTransform::free() {
    realPlan.reset();
    complexPlan.reset();
    size = order = 0;
}

// The plan of a pair: as it stands where it fits, and built anew for newSize where it does not.
FourierTransform::Plan& FourierTransform::select(bool real, int newSize, bool fits) {
    if (!fits) allocate(newSize, real);
    Plan& plan = real ? *realPlan : *complexPlan;
    size = plan.size;
    order = plan.order;
    return plan;
}

void FourierTransform::forwardReal(const Signal32& in, ComplexSignal32& out) {
    const int numOfSamples = in.numOfSamples;
    if (numOfSamples < 1) return;
    const int numOfBins = numOfSamples / 2 + 1;
    checkRoom(out, in.numOfChannels, numOfBins);
    Plan& plan = select(true, numOfSamples, realPlan && realPlan->size == numOfSamples);
    const int numOfOwnBins = plan.length / 2 + 1;
    for (int c = 0; c < in.numOfChannels; ++c) {
        std::complex<float>* row = out.getWriteChannelPtr(c);
        plan.forwardReal(in.getReadChannelPtr(c), row);
        std::fill(row + numOfOwnBins, row + numOfBins, 0.0f);
    }
}

void FourierTransform::inverseReal(const ComplexSignal32& in, Signal32& out) {
    const int numOfBins = in.numOfSamples;
    if (numOfBins < 2) return;
    const int numOfSamples = 2 * numOfBins - 2;
    checkRoom(out, in.numOfChannels, numOfSamples);
    Plan& plan = select(true, numOfSamples, realPlan && realPlan->size / 2 + 1 == numOfBins);
    for (int c = 0; c < in.numOfChannels; ++c) {
        float* row = out.getWriteChannelPtr(c);
        plan.inverseReal(in.getReadChannelPtr(c), row);
        std::fill(row + plan.length, row + numOfSamples, 0.0f);
    }
}

void FourierTransform::transformComplex(const ComplexSignal32& in, ComplexSignal32& out, bool forward) {
    const int numOfSamples = in.numOfSamples;
    if (numOfSamples < 1) return;
    checkRoom(out, in.numOfChannels, numOfSamples);
    Plan& plan = select(false, numOfSamples, complexPlan && complexPlan->size == numOfSamples);
    for (int c = 0; c < in.numOfChannels; ++c) {
        std::complex<float>* row = out.getWriteChannelPtr(c);  // parts from in before in is read
        plan.transformComplex(in.getReadChannelPtr(c), row, forward);
        std::fill(row + plan.length, row + numOfSamples, 0.0f);
    }
}

void FourierTransform::forwardComplex(const ComplexSignal32& in, ComplexSignal32& out) {
    transformComplex(in, out, true);
}

void FourierTransform::inverseComplex(const ComplexSignal32& in, ComplexSignal32& out) {
    transformComplex(in, out, false);
}

ComplexSignal32 FourierTransform::forwardReal(const Signal32& in) {
    if (in.numOfSamples < 1) return ComplexSignal32(in.numOfChannels, 1, 0.0f);
    ComplexSignal32 out(in.numOfChannels, in.numOfSamples / 2 + 1);
    forwardReal(in, out);
    return out;
}

Signal32 FourierTransform::inverseReal(const ComplexSignal32& in) {
    Signal32 out(in.numOfChannels, std::max(2 * in.numOfSamples - 2, 0));
    inverseReal(in, out);
    return out;
}

ComplexSignal32 FourierTransform::forwardComplex(const ComplexSignal32& in) {
    ComplexSignal32 out(in.numOfChannels, in.numOfSamples);
    forwardComplex(in, out);
    return out;
}

ComplexSignal32 FourierTransform::inverseComplex(const ComplexSignal32& in) {
    ComplexSignal32 out(in.numOfChannels, in.numOfSamples);
    inverseComplex(in, out);
    return out;
}

}  // namespace zevrant
