#include "DspCore/FourierTransform.h"

#include <gtest/gtest.h>

#include <array>
#include <cfloat>
#include <cmath>
#include <utility>

#include "TestSignals.h"

namespace zevrant {
namespace {

using Complex = std::complex<double>;
using Spectrum = std::vector<Complex>;

constexpr float guard = 12345.0f;

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
    const double tolerance = FLT_EPSILON / 2.0 * (1.0 + 12.0 * std::log2(expected.size()));
    EXPECT_LE(std::sqrt(error), tolerance * std::sqrt(norm) + FLT_MIN);
}

using Channels = std::array<Spectrum, 2>;

template <class S>
Channels calcDfts(const S& in, int length, double sign) {
    return {calcDft(in.getReadChannelPtr(0), length, sign), calcDft(in.getReadChannelPtr(1), length, sign)};
}

// The right values first, zeros up to the promised shape, and not one element changed beyond it, in columns
// or in the channel that the input lacks. A handle that shared the block sees none of it.
template <class S>
void expectChannels(const S& out, const S& witness, const Channels& expected, int count, int shape) {
    const auto rows = rowsOf(out), old = rowsOf(witness);
    for (std::size_t c = 0; c < 3; ++c) {
        if (c < 2) expectClose(rows[c].data(), expected[c], count);
        for (int k = c < 2 ? count : 0; k < out.numOfSamples; ++k)
            EXPECT_EQ(rows[c][k], c < 2 && k < shape ? 0.0f : guard) << c << ", " << k;
        for (const auto& value : old[c]) ASSERT_EQ(value, guard);
    }
}

// All values of a real signal's spectrum from the N / 2 + 1 that are stored; the first and the last have no
// imaginary part, whatever stands there.
Spectrum completeSpectrum(const std::complex<float>* bins, int length) {
    Spectrum all(static_cast<std::size_t>(length));
    for (int k = 1; k < length / 2; ++k) all[length - k] = std::conj(all[k] = Complex(bins[k]));
    all[length / 2] = bins[length / 2].real();
    all[0] = length > 1 ? bins[0].real() : all[0];
    return all;
}

// All powers of two on both sides of the shortest lengths of the fast path, and what lies around them.
TEST(FourierTransform, everyTransformIsTheSumOfItsDefinition) {
    FourierTransform transform, inverse;
    for (int size :
         {1,  2,  3,  4,  5,  6,  7,  8,   9,   10,  12,  15,  16,  17,   24,   31,   32,   33,
          34, 48, 63, 64, 65, 96, 99, 127, 128, 129, 198, 255, 256, 1000, 1001, 1024, 2048, 4096}) {
        SCOPED_TRACE(size);
        int length = 1;
        while (length <= size / 2) length *= 2;
        const Signal32 samples = noiseSignal(2, size, 1);
        const ComplexSignal32 columns = noiseSpectrum(2, size, 3), bins = noiseSpectrum(2, size / 2 + 1, 2);
        const auto samplesBefore = rowsOf(samples);
        const auto columnsBefore = rowsOf(columns), binsBefore = rowsOf(bins);

        ComplexSignal32 out(3, size + 3, guard), witness = out;
        transform.forwardReal(samples, out);
        EXPECT_EQ(transform.size, size);
        EXPECT_EQ(1 << transform.order, length);
        expectChannels(out, witness, calcDfts(samples, length, -1.0), length / 2 + 1, size / 2 + 1);
        for (int c : {0, 1})
            for (int k : {0, length / 2}) EXPECT_EQ(out.getReadChannelPtr(c)[k].imag(), 0.0f);

        for (bool forward : {true, false}) {
            ComplexSignal32 inPlace = columns;
            out = witness;
            forward ? transform.forwardComplex(columns, out) : transform.inverseComplex(columns, out);
            EXPECT_EQ(transform.size, size);
            expectChannels(out, witness, calcDfts(columns, length, forward ? -1.0 : 1.0), length, size);
            if (size != length) continue;
            forward ? transform.forwardComplex(inPlace, inPlace) : transform.inverseComplex(inPlace, inPlace);
            for (int c : {0, 1})
                EXPECT_TRUE(std::equal(inPlace.getReadChannelPtr(c), inPlace.getReadChannelPtr(c) + size,
                                       out.getReadChannelPtr(c)));
        }

        if (size == 1) continue;
        // A set-up of an odd length serves the bins that it has made; others are set up here.
        const int even = size / 2 * 2;
        FourierTransform& back = size % 2 == 0 ? inverse : transform;
        Signal32 time(3, even + 3, guard), timeWitness = time;
        back.inverseReal(bins, time);
        EXPECT_EQ(back.size, size);
        Channels expected;
        for (int c : {0, 1})
            expected[c] = calcDft(completeSpectrum(bins.getReadChannelPtr(c), length).data(), length, 1.0);
        expectChannels(time, timeWitness, expected, length, even);
        EXPECT_TRUE(rowsOf(samples) == samplesBefore && rowsOf(columns) == columnsBefore &&
                    rowsOf(bins) == binsBefore);
    }
}

TEST(FourierTransform, anInverseOfAForwardGivesNTimesTheInput) {
    FourierTransform transform;
    for (int size = 2; size <= 1 << 18; size *= 2) {
        SCOPED_TRACE(size);
        const auto expectTimesSize = [&](const auto& out, const auto& in) {
            ASSERT_EQ(out.numOfSamples, size);
            for (int c = 0; c < in.numOfChannels; ++c) {
                Spectrum expected(in.getReadChannelPtr(c), in.getReadChannelPtr(c) + size);
                for (Complex& value : expected) value *= size;
                expectClose(out.getReadChannelPtr(c), expected, size);
            }
        };
        const Signal32 in = noiseSignal(2, size, 4);
        const ComplexSignal32 complexIn = noiseSpectrum(1, size, 5);
        expectTimesSize(transform.inverseReal(transform.forwardReal(in)), in);
        expectTimesSize(transform.inverseComplex(transform.forwardComplex(complexIn)), complexIn);
    }
}

TEST(FourierTransform, tooSmallAnOutputThrowsAndStaysAsItIs) {
    FourierTransform transform;
    const Signal32 samples = noiseSignal(2, 64, 8);
    const ComplexSignal32 bins = noiseSpectrum(2, 33, 8);
    for (auto [numOfChannels, missing] : {std::pair{1, 0}, {0, 0}, {2, 1}, {2, 20}, {1, 1}}) {
        ComplexSignal32 spectrum(numOfChannels, 33 - missing, guard);
        Signal32 time(numOfChannels, 64 - missing, guard);
        EXPECT_THROW(transform.forwardReal(samples, spectrum), std::exception);
        EXPECT_THROW(transform.inverseReal(bins, time), std::exception);
        EXPECT_THROW(transform.forwardComplex(bins, spectrum), std::exception);
        EXPECT_THROW(transform.inverseComplex(bins, spectrum), std::exception);
        for (int c = 0; c < numOfChannels; ++c) {
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
    EXPECT_EQ(rowsOf(transform.forwardReal(Signal32(2, 0))),
              (std::vector(2, std::vector(1, std::complex<float>()))));
    for (int numOfBins : {0, 1})
        EXPECT_EQ(transform.inverseReal(ComplexSignal32(1, numOfBins)).numOfSamples, 0);
}

TEST(FourierTransform, keepsItsSetupOverMovesAndLosesItWithFree) {
    FourierTransform transform;
    transform.allocate(1000, true);
    EXPECT_EQ(transform.size, 1000);
    EXPECT_EQ(transform.order, 9);
    FourierTransform other = std::move(transform);
    EXPECT_EQ(transform.size, 0);
    EXPECT_EQ(other.size, 1000);
    const Signal32 in = noiseSignal(1, 256, 9);
    const auto expected = rowsOf(other.forwardReal(in));
    for (FourierTransform* each : {&transform, &other}) {
        each->free();
        EXPECT_TRUE(each->size == 0 && each->order == 0);
        each->allocate(0, true);
        EXPECT_EQ(rowsOf(each->forwardReal(in)), expected);
    }
}

}  // namespace
}  // namespace zevrant
