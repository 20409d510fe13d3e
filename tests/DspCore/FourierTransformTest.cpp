#include "DspCore/FourierTransform.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <complex>
#include <functional>
#include <numbers>
#include <random>
#include <utility>
#include <vector>

namespace zevrant {
namespace {

using Complex = std::complex<double>;
using Spectrum = std::vector<Complex>;

constexpr float guard = 12345.0f;

template <class S>
void fillWithNoise(S& signal, unsigned seed) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    for (int c = 0; c < signal.numOfChannels; ++c) {
        auto* row = reinterpret_cast<float*>(signal.getWriteChannelPtr(c));
        const int perColumn = sizeof(*signal.getReadChannelPtr(c)) / sizeof(float);
        for (int i = 0; i < signal.numOfSamples * perColumn; ++i) row[i] = uniform(engine);
    }
}

Signal32 makeNoise(int numOfChannels, int numOfSamples, unsigned seed) {
    Signal32 signal(numOfChannels, numOfSamples);
    fillWithNoise(signal, seed);
    return signal;
}

ComplexSignal32 makeComplexNoise(int numOfChannels, int numOfSamples, unsigned seed) {
    ComplexSignal32 signal(numOfChannels, numOfSamples);
    fillWithNoise(signal, seed);
    return signal;
}

// The definition: the sum over the first length values of row with e^(sign j 2 pi k n / length).
template <class T>
Spectrum calcDft(const T* row, int length, double sign) {
    Spectrum roots(static_cast<std::size_t>(length));
    for (int n = 0; n < length; ++n) roots[n] = std::polar(1.0, sign * 2.0 * std::numbers::pi * n / length);
    Spectrum result(static_cast<std::size_t>(length));
    for (int k = 0; k < length; ++k)
        for (int n = 0; n < length; ++n)
            result[k] += Complex(row[n]) * roots[static_cast<std::size_t>(std::int64_t{k} * n % length)];
    return result;
}

// All bins of a real signal from the N / 2 + 1 that are stored, the real ones without imaginary part.
std::vector<Complex> completeSpectrum(const std::complex<float>* bins, int length) {
    std::vector<Complex> all(static_cast<std::size_t>(length));
    for (int k = 1; k < length / 2; ++k) {
        all[k] = Complex(bins[k]);
        all[length - k] = std::conj(all[k]);
    }
    all[length / 2] = bins[length / 2].real();
    all[0] = length > 1 ? bins[0].real() : all[0];
    return all;
}

// The error of a row against its oracle, as a share of the oracle's norm. Higham, Accuracy and Stability
// of Numerical Algorithms, chapter 24: at most log2 N times a few roundings of the butterflies and of
// the twiddle factors; 12 unit roundoffs per stage are counted here, and one for the result.
template <class T>
void expectClose(const T* row, const Spectrum& expected, int count) {
    double error = 0.0, norm = 0.0;
    for (int k = 0; k < count; ++k) {
        error += std::norm(Complex(row[k]) - expected[k]);
        norm += std::norm(expected[k]);
    }
    const double roundoff = FLT_EPSILON / 2.0;
    const double tolerance = roundoff * (1.0 + 12.0 * std::log2(expected.size()));
    EXPECT_LE(std::sqrt(error), tolerance * std::sqrt(norm) + FLT_MIN);
}

int floorPowerOfTwo(int n) {
    int power = 1;
    while (power <= n / 2) power *= 2;
    return power;
}

// All powers of two on both sides of the shortest lengths of the fast path, and what lies around them.
// For each: the right values in the transform's length, zeros up to the promised shape, and not one
// element changed beyond it, in columns or in channels.
constexpr int lengths[] = {1,  2,  3,  4,  5,  6,  7,   8,   9,   12,  15,  16,   17,   24,   31,   32,
                           33, 48, 63, 64, 65, 96, 127, 128, 129, 255, 256, 1000, 1001, 1024, 2048, 4096};

TEST(FourierTransform, forwardRealIsTheSumOfItsDefinition) {
    FourierTransform transform;
    for (int size : lengths) {
        SCOPED_TRACE(size);
        const int length = floorPowerOfTwo(size), numOfBins = size / 2 + 1;
        const Signal32 in = makeNoise(2, size, 1);
        ComplexSignal32 out(3, numOfBins + 3, guard);
        transform.forwardReal(in, out);
        EXPECT_EQ(transform.size, size);
        EXPECT_EQ(1 << transform.order, length);
        for (int c = 0; c < 2; ++c) {
            const auto* row = out.getReadChannelPtr(c);
            expectClose(row, calcDft(in.getReadChannelPtr(c), length, -1.0), length / 2 + 1);
            EXPECT_EQ(row[0].imag(), 0.0f);
            EXPECT_EQ(row[length / 2].imag(), 0.0f);
            for (int k = length / 2 + 1; k < numOfBins; ++k) EXPECT_EQ(row[k], 0.0f);
            for (int k = numOfBins; k < out.numOfSamples; ++k) EXPECT_EQ(row[k], guard);
        }
        for (int k = 0; k < out.numOfSamples; ++k) EXPECT_EQ(out.getReadChannelPtr(2)[k], guard);
    }
}

TEST(FourierTransform, inverseRealIsTheSumOverAConjugateSpectrumAndSkipsTheTwoImaginaryParts) {
    FourierTransform transform;
    for (int numOfBins : {2, 3, 4, 5, 6, 8, 9, 10, 16, 17, 18, 32, 33, 34, 65, 100, 129, 501, 1025, 2049}) {
        SCOPED_TRACE(numOfBins);
        const int size = 2 * numOfBins - 2, length = floorPowerOfTwo(size);
        const ComplexSignal32 in = makeComplexNoise(2, numOfBins, 2);  // noise in all imaginary parts
        Signal32 out(3, size + 3, guard);
        transform.inverseReal(in, out);
        EXPECT_EQ(transform.size, size);
        for (int c = 0; c < 2; ++c) {
            const Spectrum spectrum = completeSpectrum(in.getReadChannelPtr(c), length);
            const float* row = out.getReadChannelPtr(c);
            expectClose(row, calcDft(spectrum.data(), length, 1.0), length);
            for (int n = length; n < size; ++n) EXPECT_EQ(row[n], 0.0f);
            for (int n = size; n < out.numOfSamples; ++n) EXPECT_EQ(row[n], guard);
        }
        for (int n = 0; n < out.numOfSamples; ++n) EXPECT_EQ(out.getReadChannelPtr(2)[n], guard);
    }
}

TEST(FourierTransform, theComplexPairIsTheSumOfItsDefinition) {
    FourierTransform transform;
    for (int size : lengths)
        for (bool forward : {true, false}) {
            SCOPED_TRACE(testing::Message() << size << (forward ? " forward" : " inverse"));
            const int length = floorPowerOfTwo(size);
            const ComplexSignal32 in = makeComplexNoise(2, size, 3);
            ComplexSignal32 out(3, size + 3, guard);
            forward ? transform.forwardComplex(in, out) : transform.inverseComplex(in, out);
            EXPECT_EQ(transform.size, size);
            EXPECT_EQ(1 << transform.order, length);
            for (int c = 0; c < 2; ++c) {
                const auto* row = out.getReadChannelPtr(c);
                expectClose(row, calcDft(in.getReadChannelPtr(c), length, forward ? -1.0 : 1.0), length);
                for (int k = length; k < size; ++k) EXPECT_EQ(row[k], 0.0f);
                for (int k = size; k < out.numOfSamples; ++k) EXPECT_EQ(row[k], guard);
            }
            for (int k = 0; k < out.numOfSamples; ++k) EXPECT_EQ(out.getReadChannelPtr(2)[k], guard);
        }
}

TEST(FourierTransform, anInverseOfAForwardGivesNTimesTheInput) {
    FourierTransform transform;
    for (int size = 2; size <= 1 << 18; size *= 2) {
        SCOPED_TRACE(size);
        const Signal32 in = makeNoise(2, size, 4);
        const ComplexSignal32 complexIn = makeComplexNoise(1, size, 5);
        const Signal32 out = transform.inverseReal(transform.forwardReal(in));
        const ComplexSignal32 complexOut = transform.inverseComplex(transform.forwardComplex(complexIn));
        ASSERT_EQ(out.numOfChannels, 2);
        ASSERT_EQ(out.numOfSamples, size);
        Spectrum expected(static_cast<std::size_t>(size));
        for (int c = 0; c < 2; ++c) {
            for (int n = 0; n < size; ++n) expected[n] = double{in.getReadChannelPtr(c)[n]} * size;
            expectClose(out.getReadChannelPtr(c), expected, size);
        }
        for (int n = 0; n < size; ++n)
            expected[n] = Complex(complexIn.getReadChannelPtr(0)[n]) * double(size);
        expectClose(complexOut.getReadChannelPtr(0), expected, size);
    }
}

// Sums of equal terms are exact, so the spectra of these signals are too.
TEST(FourierTransform, aConstantFallsIntoBinZeroAndAnAlternationIntoTheRealPartOfTheLastBin) {
    FourierTransform transform;
    for (int size = 2; size <= 8192; size *= 2) {
        SCOPED_TRACE(size);
        Signal32 in(2, size, 1.0f);
        for (int n = 1; n < size; n += 2) in.getWriteChannelPtr(1)[n] = -1.0f;
        const ComplexSignal32 out = transform.forwardReal(in);
        for (int k = 0; k <= size / 2; ++k) {
            EXPECT_EQ(out.getReadChannelPtr(0)[k], k == 0 ? float(size) : 0.0f) << k;
            EXPECT_EQ(out.getReadChannelPtr(1)[k], k == size / 2 ? float(size) : 0.0f) << k;
        }
    }
}

// Rows of any two signals may be shared. Whoever reads the old block, the input included, keeps what it
// had, and the result is the same as with blocks of their own.
TEST(FourierTransform, neverWritesABlockThatAnotherHandleReads) {
    using Call = std::function<void(FourierTransform&, const ComplexSignal32&, ComplexSignal32&)>;
    const Call forward = [](auto& t, const auto& in, auto& out) { t.forwardComplex(in, out); };
    const Call inverse = [](auto& t, const auto& in, auto& out) { t.inverseComplex(in, out); };
    FourierTransform transform;
    for (int size : {1, 4, 16, 64, 1024}) {
        SCOPED_TRACE(size);
        for (const Call& call : {forward, inverse}) {
            const ComplexSignal32 in = makeComplexNoise(2, size, 6), original = makeComplexNoise(2, size, 6);
            ComplexSignal32 expected(2, size), sharing = in, inPlace = in;
            call(transform, in, expected);
            call(transform, in, sharing);
            call(transform, inPlace, inPlace);
            for (int c = 0; c < 2; ++c)
                for (int k = 0; k < size; ++k) {
                    EXPECT_EQ(in.getReadChannelPtr(c)[k], original.getReadChannelPtr(c)[k]);
                    EXPECT_EQ(sharing.getReadChannelPtr(c)[k], expected.getReadChannelPtr(c)[k]);
                    EXPECT_EQ(inPlace.getReadChannelPtr(c)[k], expected.getReadChannelPtr(c)[k]);
                }
        }
        if (size < 2) continue;

        const Signal32 samples = makeNoise(2, size, 7), sameSamples = makeNoise(2, size, 7);
        ComplexSignal32 bins(2, size / 2 + 1, guard);
        const ComplexSignal32 witness = bins;
        transform.forwardReal(samples, bins);
        const ComplexSignal32 sameBins = transform.forwardReal(sameSamples);
        Signal32 back(2, size, guard);
        const Signal32 backWitness = back;
        transform.inverseReal(bins, back);
        for (int c = 0; c < 2; ++c) {
            for (int k = 0; k <= size / 2; ++k) {
                EXPECT_EQ(witness.getReadChannelPtr(c)[k], guard);
                EXPECT_EQ(bins.getReadChannelPtr(c)[k], sameBins.getReadChannelPtr(c)[k]);
            }
            for (int n = 0; n < size; ++n) {
                EXPECT_EQ(samples.getReadChannelPtr(c)[n], sameSamples.getReadChannelPtr(c)[n]);
                EXPECT_EQ(backWitness.getReadChannelPtr(c)[n], guard);
            }
        }
    }
}

TEST(FourierTransform, tooSmallAnOutputThrowsAndStaysAsItIs) {
    FourierTransform transform;
    const Signal32 samples = makeNoise(2, 64, 8);
    const ComplexSignal32 bins = makeComplexNoise(2, 33, 8);
    for (auto [numOfChannels, missing] : {std::pair{1, 0}, {0, 0}, {2, 1}, {2, 20}, {1, 1}}) {
        ComplexSignal32 halfSpectrum(numOfChannels, 33 - missing, guard);
        ComplexSignal32 spectrum(numOfChannels, 33 - missing, guard);
        Signal32 time(numOfChannels, 64 - missing, guard);
        EXPECT_THROW(transform.forwardReal(samples, halfSpectrum), std::exception);
        EXPECT_THROW(transform.inverseReal(bins, time), std::exception);
        EXPECT_THROW(transform.forwardComplex(bins, spectrum), std::exception);
        EXPECT_THROW(transform.inverseComplex(bins, spectrum), std::exception);
        for (int c = 0; c < numOfChannels; ++c) {
            EXPECT_EQ(halfSpectrum.getReadChannelPtr(c)[0], guard);
            EXPECT_EQ(spectrum.getReadChannelPtr(c)[0], guard);
            EXPECT_EQ(time.getReadChannelPtr(c)[0], guard);
        }
    }
}

TEST(FourierTransform, emptySignalsChangeNothing) {
    FourierTransform transform;
    transform.allocate(64, true);
    Signal32 samples;
    ComplexSignal32 bins;
    transform.forwardReal(Signal32(), bins);
    transform.inverseReal(ComplexSignal32(), samples);
    transform.forwardComplex(ComplexSignal32(), bins);
    transform.inverseComplex(ComplexSignal32(2, 0), bins);
    EXPECT_EQ(transform.size, 64);
    EXPECT_EQ(bins.data, nullptr);
    EXPECT_EQ(samples.data, nullptr);
    const ComplexSignal32 zero = transform.forwardReal(Signal32(2, 0));
    EXPECT_EQ(zero.numOfSamples, 1);
    EXPECT_EQ(zero.getReadChannelPtr(1)[0], 0.0f);
    for (int numOfBins : {0, 1})
        EXPECT_EQ(transform.inverseReal(ComplexSignal32(1, numOfBins)).numOfSamples, 0);
}

TEST(FourierTransform, keepsItsSetupOverMovesAndLosesItWithFree) {
    FourierTransform transform;
    EXPECT_EQ(transform.size, 0);
    transform.allocate(1000, true);
    EXPECT_EQ(transform.size, 1000);
    EXPECT_EQ(transform.order, 9);
    FourierTransform other = std::move(transform);
    EXPECT_EQ(transform.size, 0);
    EXPECT_EQ(other.size, 1000);
    const Signal32 in = makeNoise(1, 256, 9);
    const ComplexSignal32 expected = other.forwardReal(in);
    for (FourierTransform* each : {&transform, &other}) {
        each->free();
        EXPECT_EQ(each->size, 0);
        EXPECT_EQ(each->order, 0);
        const ComplexSignal32 out = each->forwardReal(in);
        for (int k = 0; k <= 128; ++k)
            EXPECT_EQ(out.getReadChannelPtr(0)[k], expected.getReadChannelPtr(0)[k]);
    }
    transform.allocate(0, true);
    EXPECT_EQ(transform.size, 0);
    EXPECT_EQ(transform.forwardReal(in).numOfSamples, 129);
}

}  // namespace
}  // namespace zevrant
