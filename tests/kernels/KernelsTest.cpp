#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <ostream>
#include <random>
#include <vector>

#include "kernels/BandKernels.h"
#include "kernels/ChannelKernels.h"
#include "kernels/ConvolutionKernels.h"
#include "kernels/DenseKernels.h"
#include "kernels/PlainKernels.h"
#include "kernels/TransposedKernels.h"
#include "simd/TargetOverride.h"

namespace zevrant::simd {
void PrintTo(const Target& target, std::ostream* out) {
    *out << target.name;
}
}  // namespace zevrant::simd

namespace zevrant::kernels {
namespace {

using Values = std::vector<float>;

Values noise(std::ptrdiff_t count, unsigned seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> distribution(-1.0f, 1.0f);
    Values values(static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0)));
    for (float& value : values) value = distribution(generator);
    return values;
}

// Rows on the heap, each of exactly its length, so that a sanitizer sees every step behind one.
struct Rows {
    Rows(std::ptrdiff_t numOfRows, std::ptrdiff_t length, unsigned seed) {
        for (std::ptrdiff_t r = 0; r < numOfRows; ++r) rows.push_back(noise(length, seed + 31 * unsigned(r)));
        for (Values& row : rows) pointers.push_back(row.data());
    }
    Rows(const Rows& other) : rows(other.rows) {
        for (Values& row : rows) pointers.push_back(row.data());
    }
    std::vector<Values> rows;
    std::vector<float*> pointers;
};

// Slices whose last one is still to be stored in its place, where there is nothing yet. In some turns all
// kernel rows meet that one.
struct SlicesOfAStream : Rows {
    SlicesOfAStream(const Convolution& shape, std::ptrdiff_t numOfChannels, std::size_t turn)
        : Rows(shape.numOfSlices, shape.inputFrequencies * numOfChannels, 1), newest(rows.back()) {
        if (turn % 4 == 1) std::fill(pointers.begin(), pointers.end(), pointers.back());
        sources.assign(pointers.begin(), pointers.end());
        if (turn % 4 == 0) return;
        store = {newest.data(), pointers.back()};
        std::replace<std::vector<const float*>::iterator, const float*>(sources.begin(), sources.end(),
                                                                        store.to, store.from);
        std::fill(rows.back().begin(), rows.back().end(), NAN);
    }
    const Values newest;
    std::vector<const float*> sources;
    SliceToStore store;
};

// Every instruction set of this machine is compared with the plain loop: bit by bit where multiply-adds
// are fused, otherwise within the extra rounding of each of numOfTerms products of factors up to 1.
class Kernels : public testing::TestWithParam<simd::Target> {
  protected:
    void expectSame(const Values& actual, const Values& expected, std::ptrdiff_t numOfTerms) const {
        ASSERT_EQ(actual.size(), expected.size());
        const bool isFused = GetParam().name.starts_with("AVX") || GetParam().name.starts_with("NEON");
        const float tolerance = isFused ? 0.0f : FLT_EPSILON * float(numOfTerms) * float(numOfTerms + 2);
        for (std::size_t i = 0; i < actual.size(); ++i)
            ASSERT_NEAR(actual[i], expected[i], tolerance) << "value " << i;
    }

    simd::ScopedTarget target{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(EveryTarget, Kernels, testing::ValuesIn(simd::getUsableTargets()),
                         [](const auto& instance) { return instance.param.name; });

const std::ptrdiff_t kWidths[] = {1, 2,  3,  4,  5,  7,  8,
                                  9, 16, 17, 31, 33, 64, 80};  // around every vector width

void forEachConvolution(const auto& check) {
    for (std::ptrdiff_t numOfSlices : {1, 3})
        for (std::ptrdiff_t numOfTaps : {1, 2, 3, 5, 7})
            for (std::ptrdiff_t stride : {1, 2, 3, 9})
                for (std::ptrdiff_t frequencies : {1, 2, 5, 13, 40}) {
                    const std::ptrdiff_t start = -((numOfTaps - stride) / 2);
                    check(Convolution{numOfSlices, numOfTaps, 0, 0, frequencies, frequencies / stride, stride,
                                      start});
                }
}

testing::Message describe(const Convolution& shape) {
    return testing::Message() << shape.numOfSlices << " slices, " << shape.numOfTaps << " taps, "
                              << shape.numOfInputs << " to " << shape.numOfOutputs << " channels, "
                              << shape.inputFrequencies << " frequencies, stride " << shape.frequencyStride;
}

TEST_P(Kernels, convolveIsThePlainLoop) {
    std::size_t turn = 0;
    forEachConvolution([&](Convolution shape) {
        for (int repetition = 0; repetition < 3; ++repetition, ++turn) {
            shape.numOfInputs = kWidths[turn % 11];
            shape.numOfOutputs = kWidths[turn / 3 % std::size(kWidths)];
            SCOPED_TRACE(describe(shape));
            const simd::ScopedPrefetch prefetch(turn % 2 == 0);
            const std::ptrdiff_t numOfTerms = shape.numOfSlices * shape.numOfTaps * shape.numOfInputs;
            const SlicesOfAStream slices(shape, shape.numOfInputs, turn);
            const Values weights = noise(numOfTerms * shape.numOfOutputs, 2);
            const Values first = noise(shape.outputFrequencies * shape.numOfOutputs, 3);
            Values out(first.size(), -1.0f), expected = out;
            // Start from a row for all, from a plane or from zero.
            const float* from = turn % 3 == 2 ? nullptr : first.data();
            const std::ptrdiff_t step = turn % 3 == 0 ? 0 : shape.numOfOutputs;
            convolve(shape, slices.pointers.data(), packConvolution(weights.data(), shape), from, step,
                     out.data(), slices.store);
            plain::convolve(shape, slices.sources.data(), shape.numOfInputs, weights.data(), from, step,
                            expected.data());
            ASSERT_NO_FATAL_FAILURE(expectSame(out, expected, numOfTerms));
            ASSERT_EQ(slices.rows.back(), slices.newest);
        }
    });
}

// Few channels in and out over bands that are long enough for tiles of frequencies, and for a rest of any
// size.
TEST_P(Kernels, narrowConvolutionIsThePlainLoop) {
    std::size_t turn = 0;
    for (std::ptrdiff_t numOfInputs : {1, 2, 3, 4, 5})
        for (std::ptrdiff_t numOfOutputs : {1, 2, 3, 4, 5})
            for (std::ptrdiff_t frequencies : {27, 29, 37, 64, 151, 303}) {
                const std::ptrdiff_t numOfTaps = 1 + std::ptrdiff_t(turn % 7), numOfSlices = 1 + turn % 2;
                const Convolution shape = {numOfSlices, numOfTaps,   numOfInputs, numOfOutputs,
                                           frequencies, frequencies, 1,           -((numOfTaps - 1) / 2)};
                SCOPED_TRACE(describe(shape));
                const SlicesOfAStream slices(shape, numOfInputs, turn);
                const std::ptrdiff_t numOfTerms = numOfSlices * numOfTaps * numOfInputs;
                const Values weights = noise(numOfTerms * numOfOutputs, 2);
                const Values first = noise(frequencies * numOfOutputs, 3);
                Values out(first.size(), -1.0f), expected = out;
                const float* from = turn % 3 == 2 ? nullptr : first.data();
                const std::ptrdiff_t step = turn % 3 == 0 ? 0 : numOfOutputs;
                convolve(shape, slices.pointers.data(), packConvolution(weights.data(), shape), from, step,
                         out.data(), slices.store);
                plain::convolve(shape, slices.sources.data(), numOfInputs, weights.data(), from, step,
                                expected.data());
                ASSERT_NO_FATAL_FAILURE(expectSame(out, expected, numOfTerms));
                ASSERT_EQ(slices.rows.back(), slices.newest);
                ++turn;
            }
}

// Rows times vectors of every tile, and the even splits into them.
TEST_P(Kernels, everyTileOfAMatrixProductIsThePlainLoop) {
    for (std::ptrdiff_t numOfRows = 0; numOfRows <= 34; ++numOfRows)
        for (std::ptrdiff_t numOfOutputs : {3, 16, 20, 32, 40, 48, 64, 70, 96, 130}) {
            SCOPED_TRACE(testing::Message() << numOfRows << " rows, " << numOfOutputs << " outputs");
            const std::ptrdiff_t numOfTerms = 5;
            const Values in = noise(numOfRows * numOfTerms, 1), weights = noise(numOfTerms * numOfOutputs, 2);
            Values out(static_cast<std::size_t>(numOfRows * numOfOutputs)), expected = out;
            const Convolution shape = {1, 1, numOfTerms, numOfOutputs, numOfRows, numOfRows, 1, 0};
            const float* slice = in.data();
            multiplyMatrix(slice, numOfRows, packConvolution(weights.data(), shape), nullptr, 0, out.data());
            plain::convolve(shape, &slice, numOfTerms, weights.data(), nullptr, 0, expected.data());
            ASSERT_NO_FATAL_FAILURE(expectSame(out, expected, numOfTerms));
        }
}

TEST_P(Kernels, convolveChannelsIsThePlainLoop) {
    std::size_t turn = 0;
    forEachConvolution([&](Convolution shape) {
        for (int repetition = 0; repetition < 3; ++repetition, ++turn) {
            shape.numOfOutputs = kWidths[turn % std::size(kWidths)];
            if (turn % 7 == 0) shape.numOfSlices = 35;
            SCOPED_TRACE(describe(shape));
            const std::ptrdiff_t numOfTerms = shape.numOfSlices * shape.numOfTaps;
            const SlicesOfAStream slices(shape, shape.numOfOutputs, turn);
            const Values weights = noise(numOfTerms * shape.numOfOutputs, 2);
            const Values first = noise(shape.numOfOutputs, 3);
            Values out(static_cast<std::size_t>(shape.outputFrequencies * shape.numOfOutputs)),
                expected = out;
            const float* from = turn % 2 ? nullptr : first.data();
            convolveChannels(shape, slices.pointers.data(), weights.data(), from, 0, out.data(),
                             slices.store);
            plain::convolveChannels(shape, slices.sources.data(), weights.data(), from, 0, expected.data());
            ASSERT_NO_FATAL_FAILURE(expectSame(out, expected, numOfTerms));
            ASSERT_EQ(slices.rows.back(), slices.newest);
        }
    });
}

void forEachTransposedConvolution(const auto& check) {
    for (std::ptrdiff_t numOfSlots : {1, 2, 3})
        for (std::ptrdiff_t numOfTaps : {1, 2, 3, 4, 7})
            for (std::ptrdiff_t stride : {1, 2, 3, 5})
                for (std::ptrdiff_t frequencies : {0, 1, 2, 5, 17, 40}) {
                    const std::ptrdiff_t start = -((numOfTaps - stride) / 2);
                    check(TransposedConvolution{numOfSlots, numOfTaps, 0, 0, frequencies,
                                                stride * frequencies, stride, start});
                }
}

TEST_P(Kernels, convolveTransposedIsThePlainLoop) {
    std::size_t turn = 0;
    forEachTransposedConvolution([&](TransposedConvolution shape) {
        for (int repetition = 0; repetition < 3; ++repetition, ++turn) {
            shape.numOfInputs = kWidths[turn % 11];
            shape.numOfOutputs = kWidths[turn / 2 % std::size(kWidths)];
            SCOPED_TRACE(testing::Message()
                         << shape.numOfSlots << " slots, " << shape.numOfTaps << " taps, "
                         << shape.numOfInputs << " to " << shape.numOfOutputs << " channels, "
                         << shape.inputFrequencies << " frequencies, stride " << shape.frequencyStride);
            const Values in = noise(shape.inputFrequencies * shape.numOfInputs, 1);
            const Values weights =
                noise(shape.numOfSlots * shape.numOfTaps * shape.numOfOutputs * shape.numOfInputs, 2);
            Rows slots(shape.numOfSlots, shape.outputFrequencies * shape.numOfOutputs, 3), expected = slots;
            const Values bias = noise(shape.numOfOutputs, 4);
            Values out(expected.rows[0].size()), expectedOut = out;
            const WholeSlot whole = {turn % 5 == 0 ? nullptr : bias.data(),
                                     turn % 3 == 0 ? nullptr : out.data()};
            convolveTransposed(shape, in.data(), packTransposed(weights.data(), shape), slots.pointers.data(),
                               whole);
            plain::convolveTransposed(shape, in.data(), weights.data(), expected.pointers.data());
            for (std::size_t i = 0; whole.out && i < out.size(); ++i) {
                expectedOut[i] = expected.rows[0][i] + (whole.bias ? bias[i % bias.size()] : 0.0f);
                expected.rows[0][i] = 0.0f;
            }
            ASSERT_NO_FATAL_FAILURE(expectSame(out, expectedOut, shape.numOfTaps * shape.numOfInputs));
            for (std::size_t r = 0; r < expected.rows.size(); ++r)
                ASSERT_NO_FATAL_FAILURE(
                    expectSame(slots.rows[r], expected.rows[r], shape.numOfTaps * shape.numOfInputs));
        }
    });
}

TEST_P(Kernels, convolveTransposedChannelsIsThePlainLoop) {
    std::size_t turn = 0;
    forEachTransposedConvolution([&](TransposedConvolution shape) {
        shape.numOfOutputs = kWidths[turn++ % std::size(kWidths)];
        const Values in = noise(shape.inputFrequencies * shape.numOfOutputs, 1);
        const Values weights = noise(shape.numOfSlots * shape.numOfTaps * shape.numOfOutputs, 2);
        Rows slots(shape.numOfSlots, shape.outputFrequencies * shape.numOfOutputs, 3), expected = slots;
        convolveTransposedChannels(shape, in.data(), weights.data(), slots.pointers.data());
        plain::convolveTransposedChannels(shape, in.data(), weights.data(), expected.pointers.data());
        for (std::size_t r = 0; r < expected.rows.size(); ++r)
            ASSERT_NO_FATAL_FAILURE(expectSame(slots.rows[r], expected.rows[r], shape.numOfTaps));
    });
}

TEST_P(Kernels, multiplyDenseIsThePlainLoop) {
    for (std::ptrdiff_t frequencies : {1, 2, 7, 8, 9, 17, 33, 130})
        for (std::ptrdiff_t channels : kWidths) {
            SCOPED_TRACE(testing::Message() << frequencies << " frequencies, " << channels << " channels");
            const simd::ScopedPrefetch prefetch(channels % 2 == 0);
            const Values in = noise(frequencies * channels, 1);
            const Values weights = noise(frequencies * frequencies * channels, 2);
            Values out(in.size()), expected(in.size());
            multiplyDense(in.data(), frequencies, channels, packDense(weights.data(), frequencies, channels),
                          out.data());
            plain::multiplyDense(in.data(), frequencies, channels, weights.data(), expected.data());
            ASSERT_NO_FATAL_FAILURE(expectSame(out, expected, frequencies));
        }
}

// Every number of half precision up to 1, of both signs.
Values halves(std::size_t count) {
    Values values(count);
    for (std::size_t i = 0; i < count; ++i) {
        const int bits = static_cast<int>(i / 2 % 0x3c01), exponent = bits >> 10, fraction = bits & 0x3ff;
        const float magnitude = exponent == 0 ? std::ldexp(float(fraction), -24)
                                              : std::ldexp(float(1024 + fraction), exponent - 25);
        values[i] = i % 2 ? -magnitude : magnitude;
    }
    return values;
}

TEST_P(Kernels, weightsAreKeptAsHalvesWhereThatChangesNothing) {
    const bool canWiden = GetParam().name.starts_with("AVX") || GetParam().name.starts_with("NEON");
    constexpr std::ptrdiff_t frequencies = 130;
    for (const std::ptrdiff_t channels : {16, 19})
        for (const float odd : {1.0f, 1.0f / 3, 65536.0f, 1e-8f, INFINITY}) {
            SCOPED_TRACE(testing::Message() << channels << " channels, one weight is " << odd);
            const Values in = noise(frequencies * channels, 1);
            Values weights = halves(static_cast<std::size_t>(frequencies * frequencies * channels));
            weights[weights.size() / 2] = odd;
            const PackedWeights packed = packDense(weights.data(), frequencies, channels);
            EXPECT_EQ(!packed.halves.empty(), canWiden && (odd == 1.0f || std::isinf(odd)));
            EXPECT_NE(packed.halves.empty(), packed.values.empty());
            Values out(in.size()), expected(in.size());
            multiplyDense(in.data(), frequencies, channels, packed, out.data());
            plain::multiplyDense(in.data(), frequencies, channels, weights.data(), expected.data());
            for (std::size_t i = 0; i < out.size(); ++i)  // an infinity is in no tolerance
                if (std::isinf(expected[i])) {
                    ASSERT_EQ(out[i], expected[i]);
                    out[i] = expected[i] = 0.0f;
                }
            const float scale = std::isinf(odd) ? 1.0f : std::max(odd, 1.0f);
            for (std::size_t i = 0; i < out.size(); ++i) out[i] /= scale, expected[i] /= scale;
            ASSERT_NO_FATAL_FAILURE(expectSame(out, expected, frequencies));
        }
}

TEST_P(Kernels, combineRowsIsThePlainLoop) {
    for (std::ptrdiff_t numOfRows : {1, 2, 5})
        for (std::ptrdiff_t count : {0, 1, 3, 16, 127, 128, 129, 300}) {
            Rows rows(numOfRows, count, 1);
            const Values factors = noise(numOfRows, 2);
            Values out(static_cast<std::size_t>(count)), expected = out;
            combineRows(rows.pointers.data(), factors.data(), numOfRows, count, out.data());
            plain::combineRows(rows.pointers.data(), factors.data(), numOfRows, count, expected.data());
            ASSERT_NO_FATAL_FAILURE(expectSame(out, expected, numOfRows));
        }
}

TEST_P(Kernels, rescaleBandsIsThePlainLoop) {
    constexpr int numOfBins = 70, numOfBands = 21, maxCount = 46;
    const Values values = noise(maxCount * numOfBands, 1);
    for (int fewest : {0, 4, 7, 15, 16, 33}) {  // 0 still applies the first factor
        std::vector<int> starts, counts;
        std::vector<const float*> factors;
        for (std::size_t b = 0; b < numOfBands; ++b) {
            counts.push_back(fewest + int(b) * 5 % 13);
            const int last = numOfBins - std::max(counts[b], 1);  // so that a band ends where the plane does
            starts.push_back(b % 4 == 3 ? last : int(b) * 11 % last);
            factors.push_back(values.data() + maxCount * b);
        }
        for (std::ptrdiff_t channels : kWidths)
            for (std::ptrdiff_t bands : {0, 1, 7, 8, 9, numOfBands}) {
                const Values in = noise(numOfBins * channels, 2);
                Values out(static_cast<std::size_t>(bands * channels)), expected = out;
                rescaleBands(in.data(), channels, bands, starts.data(), counts.data(), factors.data(),
                             out.data());
                plain::rescaleBands(in.data(), channels, bands, starts.data(), counts.data(), factors.data(),
                                    expected.data());
                ASSERT_NO_FATAL_FAILURE(expectSame(out, expected, maxCount));
            }
    }
}

// The plain loop itself, against sums in double over a padded band.
TEST(PlainKernels, convolveIsTheDefinition) {
    forEachConvolution([](Convolution shape) {
        shape.numOfInputs = 3;
        shape.numOfOutputs = 2;
        const std::ptrdiff_t pad = shape.numOfTaps + 9;
        Rows slices(shape.numOfSlices, shape.inputFrequencies * 3, 1);
        std::vector<std::vector<double>> padded;
        for (const Values& row : slices.rows) {
            padded.emplace_back(static_cast<std::size_t>((shape.inputFrequencies + 2 * pad) * 3), 0.0);
            std::copy(row.begin(), row.end(), padded.back().begin() + 3 * pad);
        }
        const std::ptrdiff_t numOfTerms = shape.numOfSlices * shape.numOfTaps * 3;
        const Values weights = noise(numOfTerms * 2, 2);
        Values out(static_cast<std::size_t>(shape.outputFrequencies * 2));
        plain::convolve(shape, slices.pointers.data(), 3, weights.data(), nullptr, 0, out.data());
        for (std::ptrdiff_t f = 0; f < shape.outputFrequencies; ++f)
            for (std::ptrdiff_t o = 0; o < 2; ++o) {
                double sum = 0;
                for (std::ptrdiff_t term = 0; term < numOfTerms; ++term) {
                    const std::ptrdiff_t r = term / (shape.numOfTaps * 3),
                                         inRow = term % (shape.numOfTaps * 3);
                    const std::ptrdiff_t at = (pad + shape.start + f * shape.frequencyStride) * 3 + inRow;
                    sum +=
                        padded[std::size_t(r)][std::size_t(at)] * double{weights[std::size_t(term * 2 + o)]};
                }
                ASSERT_NEAR(out[std::size_t(f * 2 + o)], sum, FLT_EPSILON * double(numOfTerms * numOfTerms))
                    << describe(shape);
            }
    });
}

}  // namespace
}  // namespace zevrant::kernels
