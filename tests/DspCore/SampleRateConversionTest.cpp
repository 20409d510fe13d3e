#include "DspCore/SampleRateConversion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <functional>
#include <limits>
#include <numbers>
#include <stdexcept>
#include <thread>

#include "TestSignals.h"

namespace zevrant {
namespace {

using Stream = std::vector<std::vector<float>>;  // [channel][sample]
using NextLength = std::function<int()>;

// Sends a stream through in blocks of the lengths that nextLength gives.
Stream convert(SampleRateConversion& conversion, const Signal32& stream, const NextLength& nextLength) {
    Stream result(static_cast<std::size_t>(stream.numOfChannels));
    for (int start = 0; start < stream.numOfSamples;) {
        const int length = std::min(nextLength(), stream.numOfSamples - start);
        const Stream output = rowsOf(conversion.process(stream.extractSection(start, length)));
        for (std::size_t c = 0; c < output.size(); ++c)
            result[c].insert(result[c].end(), output[c].begin(), output[c].end());
        start += length;
    }
    return result;
}

NextLength inBlocksOf(int length) {
    return [length] { return length; };
}

NextLength inRandomBlocks(unsigned longest) {
    return [random = std::mt19937(3), longest]() mutable { return static_cast<int>(1 + random() % longest); };
}

// The definition over a whole channel: no table, no queue, no read position that accumulates.
struct Oracle {
    Oracle(double inputRate, double outputRate)
        : step(inputRate / outputRate),
          length(static_cast<int>(std::nearbyint(inputRate * 1.5 / 1000.0))),
          cutoff(double{0.95f * static_cast<float>(std::min(1.0, outputRate / inputRate))}) {}

    double calcTap(int k, double fraction) const {
        const int half = length / 2;
        const double u = k - half - fraction;
        const double a = cutoff * std::numbers::pi * u;
        const double width = 0.1 * length;
        return (a == 0.0 ? 1.0 : std::sin(a) / a) * std::exp(-u * u / (2.0 * width * width)) * cutoff;
    }

    double calcPhase(const std::vector<float>& primed, std::int64_t subSample) const {
        double sum = 0.0;
        for (int k = 0; k < length; ++k)
            sum += primed[subSample / 64 + k] * calcTap(k, static_cast<double>(subSample % 64) / 64.0);
        return sum;
    }

    double calcOutput(const std::vector<float>& primed, int i, bool interpolated) const {
        const double scaled = i * step * 64.0;
        const auto subSample = static_cast<std::int64_t>(scaled);
        const double value = calcPhase(primed, subSample);
        if (!interpolated) return value;
        return value + (calcPhase(primed, subSample + 1) - value) * (scaled - static_cast<double>(subSample));
    }

    double step;
    int length;
    double cutoff;
};

constexpr std::pair<double, double> variousRates[] = {
    {48000, 44100}, {44100, 48000}, {48000, 24000},     {24000, 96000},
    {8000, 48000},  {96000, 8000},  {44100, 44099.999}, {48000, 48000 * std::numbers::phi},
    {1000, 48000},  {48000, 1000}};

// Noise of 1 through taps that add up to less than 3 in magnitude: the float result is good to half a
// last place, and the read position to 1e-9 of a sample, over which a value moves by pi * 1e-9.
constexpr double outputTolerance = 2.0 * FLT_EPSILON;

TEST(SampleRateConversion, matchesItsDefinitionOverWholeStreams) {
    for (const auto& [inputRate, outputRate] : variousRates)
        for (const bool interpolated : {true, false}) {
            // Without interpolation a position that rounds across a phase's edge moves the value, so
            // only ratios with exact positions can be compared.
            const Oracle oracle(inputRate, outputRate);
            if (!interpolated && std::ldexp(oracle.step, 20) != std::trunc(std::ldexp(oracle.step, 20)))
                continue;
            SCOPED_TRACE(testing::Message()
                         << inputRate << " to " << outputRate << (interpolated ? "" : ", plain"));
            SampleRateConversion conversion;
            conversion.interpolatePhases = interpolated;
            ASSERT_TRUE(conversion.setFormat(makeFormat(2, inputRate), makeFormat(2, outputRate)));
            const Signal32 stream = noiseSignal(2, 4000, 1);
            const Stream result = convert(conversion, stream, inBlocksOf(333));
            for (std::size_t c : {0u, 1u}) {
                std::vector<float> primed = rowsOf(stream)[c];
                primed.insert(primed.begin(), static_cast<std::size_t>(oracle.length / 2), 0.0f);
                // Held back are the filter, one sample and less than one step; the queue was cut at whole
                // samples.
                const double reached = static_cast<double>(result[c].size()) * oracle.step;
                const double available = static_cast<double>(primed.size()) - oracle.length - 1;
                EXPECT_NEAR(reached, available, oracle.step + 1.0);
                const int stride = std::max<int>(1, static_cast<int>(result[c].size()) / 997);
                for (int i = 0; i < static_cast<int>(result[c].size()); i += stride)
                    ASSERT_NEAR(result[c][i], oracle.calcOutput(primed, i, interpolated), outputTolerance)
                        << "sample " << i;
            }
        }
}

TEST(SampleRateConversion, theStreamIsTheSameHoweverItIsCut) {
    const Signal32 stream = noiseSignal(2, 6000, 2);
    for (const auto& [inputRate, outputRate] : variousRates) {
        SCOPED_TRACE(testing::Message() << inputRate << " to " << outputRate);
        SampleRateConversion conversion;
        ASSERT_TRUE(conversion.setFormat(makeFormat(2, inputRate), makeFormat(2, outputRate)));
        const Stream whole = convert(conversion, stream, inBlocksOf(6000));
        for (const unsigned longest : {1u, 7u, 100u, 5000u}) {
            conversion.reset();
            const Stream cut = convert(conversion, stream, inRandomBlocks(longest));
            // Each step rounds a position of up to 6000 by 2^-41 at most; a value moves with the position
            // no faster than 8 per sample, which the two taps of 1000 Hz come near.
            const double drift = std::ldexp(8.0, -41) * static_cast<double>(whole[0].size());
            EXPECT_NEAR(static_cast<double>(cut[0].size()), static_cast<double>(whole[0].size()),
                        2.0 + 2.0 * outputRate / inputRate);
            for (std::size_t c : {0u, 1u})
                for (std::size_t i = 0; i < std::min(cut[c].size(), whole[c].size()); ++i)
                    ASSERT_NEAR(cut[c][i], whole[c][i], outputTolerance + drift) << "sample " << i;
            EXPECT_GE(conversion.position, 0.0);
            EXPECT_LT(conversion.position, 1.0);
        }
    }
}

TEST(SampleRateConversion, equalRatesPassSamplesOn) {
    for (const double rate : {8000.0, 44100.0, 48000.0, 96000.0}) {
        SampleRateConversion conversion;
        ASSERT_TRUE(conversion.setFormat(makeFormat(3, rate), makeFormat(3, rate)));
        const Signal32 stream = noiseSignal(3, 3000, 4);
        const Stream result = convert(conversion, stream, inRandomBlocks(200));
        // An odd filter length splits into unequal halves.
        const int length = 3000 - conversion.getLatency(0) - conversion.filterLength % 2;
        EXPECT_EQ(result, rowsOf(stream.extractSection(0, length)));
        EXPECT_EQ(conversion.position, 0.0);
    }
}

TEST(SampleRateConversion, givesNothingUntilTheFilterIsFull) {
    SampleRateConversion conversion;
    ASSERT_TRUE(conversion.setFormat(makeFormat(1), makeFormat(1)));
    for (int n = 37; n < 76; ++n) {
        const Signal32 output = conversion.process(Signal32(1, 1, 0.5f));
        EXPECT_EQ(output.numOfSamples, n < 74 ? 0 : 1);
        EXPECT_EQ(output.data == nullptr, n < 74);
        EXPECT_EQ(conversion.inputQueue.numOfSamples, std::min(n, 73));
    }
    EXPECT_EQ(conversion.process(Signal32::empty).data, nullptr);
    EXPECT_EQ(conversion.process(Signal32(1, 0)).data, nullptr);
    EXPECT_EQ(conversion.inputQueue.numOfSamples, 73) << "empty blocks leave the state alone";
}

TEST(SampleRateConversion, tablesFollowTheRates) {
    const struct {
        double input, output;
        int length;
        float cutoff;
    } cases[] = {{48000, 48000, 72, 0.95f},   {48000 * 0.91875, 48000, 66, 0.95f},
                 {48000, 24000, 72, 0.475f},  {24000, 48000, 36, 0.95f},
                 {11000, 11000, 16, 0.95f},  // 16.5 taps, ties to even
                 {13000, 13000, 20, 0.95f},  // 19.5
                 {48000, 36000, 72, 0.7125f}, {0, 48000, 0, 0.95f}};
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::Message() << test.input << " to " << test.output);
        SampleRateConversion conversion;
        ASSERT_TRUE(conversion.setFormat(makeFormat(1, test.input), makeFormat(1, test.output)));
        EXPECT_EQ(conversion.filterLength, test.length);
        EXPECT_EQ(conversion.getLatency(512), test.length / 2 + 1);
        EXPECT_EQ(conversion.sincTable.numOfChannels, 64);
        EXPECT_EQ(conversion.sincTable.numOfSamples, test.length);
        EXPECT_EQ(conversion.identityPhase, -1);
        EXPECT_EQ(conversion.inputQueue.numOfSamples, test.length / 2);
        if (test.length == 0) continue;
        // At its centre the filter is its cutoff.
        EXPECT_NEAR(conversion.sincTable.getReadChannelPtr(0)[test.length / 2], test.cutoff, 1e-7);
        const Oracle oracle(test.input, test.output);
        for (int p = 0; p < 64; ++p)
            for (int k = 0; k < test.length; ++k)
                EXPECT_NEAR(conversion.sincTable.getReadChannelPtr(p)[k], oracle.calcTap(k, p / 64.0), 3e-7);
    }
}

TEST(SampleRateConversion, aCutoffOfAllOfTheBandHasAnIdentityPhase) {
    SampleRateConversion conversion;
    conversion.cutoffPercent = 100.0f;
    ASSERT_TRUE(conversion.setFormat(makeFormat(1, 24000), makeFormat(1, 48000)));
    EXPECT_EQ(conversion.identityPhase, 0);
    const Signal32 stream = noiseSignal(1, 1000, 6);
    const Stream result = convert(conversion, stream, inBlocksOf(100));
    for (std::size_t i = 0; 2 * i < result[0].size(); ++i)
        EXPECT_EQ(result[0][2 * i], stream.getReadChannelPtr(0)[i]);
    ASSERT_TRUE(conversion.setFormat(makeFormat(1, 48000), makeFormat(1, 24000)));
    EXPECT_EQ(conversion.identityPhase, -1) << "the cutoff is half of the band";
}

TEST(SampleRateConversion, aSecondFormatDropsWhatIsQueuedAndOneOfOtherChannelsIsRefused) {
    SampleRateConversion conversion;
    const Signal32 stream = noiseSignal(1, 5000, 7);
    ASSERT_TRUE(conversion.setFormat(makeFormat(1, 44100), makeFormat(1, 48000)));
    const Stream expected = convert(conversion, stream, inBlocksOf(500));
    ASSERT_TRUE(conversion.setFormat(makeFormat(1, 48000), makeFormat(1, 16000)));
    convert(conversion, stream, inBlocksOf(500));
    ASSERT_TRUE(conversion.setFormat(makeFormat(1, 44100), makeFormat(1, 48000)));
    EXPECT_EQ(convert(conversion, stream, inBlocksOf(500)), expected);

    SampleRateConversion uneven;
    EXPECT_TRUE(uneven.setFormat(makeFormat(1, 48000), makeFormat(2, 44100))) << "none is held yet";
    EXPECT_EQ(uneven.outputFormat.channelMapping.size(), 2u);
    EXPECT_FALSE(uneven.setFormat(makeFormat(2, 96000), makeFormat(2, 44100))) << "stuck for good";
    EXPECT_EQ(uneven.inputFormat.sampleRate, 48000.0);
    EXPECT_EQ(uneven.inputFormat.channelMapping.size(), 1u);
}

// Whatever rates and blocks come, a call ends in a result or a standard exception.
TEST(SampleRateConversion, oddRatesEndInExceptionsOrNothing) {
    const double infinity = std::numeric_limits<double>::infinity();
    const double rates[] = {0.0,   -0.0,    -48000.0, 1e-300, 5e-324,   0.1,
                            300.0, 48000.0, 1e12,     1e300,  infinity, std::nan("")};
    const Signal32 stream = noiseSignal(2, 1000, 8);
    for (const double input : rates)
        for (const double output : rates) {
            SCOPED_TRACE(testing::Message() << input << " to " << output);
            SampleRateConversion conversion;
            conversion.cutoffPercent = 100.0f;  // with a phase that is read and not filtered
            try {
                conversion.setFormat(makeFormat(2, input), makeFormat(2, output));
            } catch (const std::length_error&) {
            }
            for (int block = 0; block < 3; ++block) {
                try {
                    const Signal32 result = conversion.process(stream);
                    EXPECT_TRUE(result.numOfSamples == 0 || result.numOfChannels == 2);
                } catch (const std::invalid_argument&) {
                } catch (const std::length_error&) {
                } catch (const std::out_of_range&) {
                }
            }
        }
    SampleRateConversion unset;
    EXPECT_THROW(unset.process(stream), std::invalid_argument);
    for (const int numOfPhases : {-64, 0, 65}) {  // 65 only after the table is made
        SampleRateConversion conversion;
        if (numOfPhases < 1) conversion.numOfPhases = numOfPhases;
        ASSERT_TRUE(conversion.setFormat(makeFormat(2, 48000), makeFormat(2, 44100)));
        conversion.numOfPhases = numOfPhases;
        EXPECT_THROW(conversion.process(stream), std::out_of_range) << numOfPhases;
    }
}

TEST(SampleRateConversion, blocksOfAnotherChannelCountStayInsideTheirRows) {
    for (const int held : {1, 2, 6})
        for (const int given : {1, 2, 6}) {
            SCOPED_TRACE(testing::Message() << given << " channels for " << held);
            SampleRateConversion conversion;
            ASSERT_TRUE(conversion.setFormat(makeFormat(held, 48000), makeFormat(held, 44100)));
            for (int block = 0; block < 3; ++block)
                if (given < held)
                    EXPECT_THROW(conversion.process(Signal32(given, 1000, 0.5f)), std::out_of_range);
                else
                    EXPECT_EQ(conversion.process(Signal32(given, 1000, 0.5f)).numOfChannels, held);
        }
}

TEST(SampleRateConversion, aSecondThreadMayChangeTheFormatAndTheLockIsTakenTwice) {
    SampleRateConversion conversion;
    {
        const std::lock_guard<std::recursive_mutex> guard(conversion.lock);
        ASSERT_TRUE(conversion.setFormat(makeFormat(2, 48000), makeFormat(2, 44100)));
        conversion.reset();
        std::thread([&] { EXPECT_FALSE(conversion.lock.try_lock()); }).join();
    }
    std::atomic<bool> done = false;
    std::thread changer([&] {
        for (int i = 0; i < 60; ++i) {
            conversion.setFormat(makeFormat(2, i % 2 == 0 ? 44100 : 48000),
                                 makeFormat(2, 48000 - 1000 * (i % 3)));
            if (i % 5 == 0) conversion.reset();
        }
        done = true;
    });
    const Signal32 ones(2, 480, 1.0f);
    float lowest = 0.0f, highest = 0.0f;
    for (std::int64_t numOfSamples = 0; !done || numOfSamples < 48000;) {
        const Signal32 output = conversion.process(ones);
        numOfSamples += output.numOfSamples;
        for (const auto& row : rowsOf(output))
            for (const float sample : row) {
                lowest = std::min(lowest, sample);
                highest = std::max(highest, sample);
            }
    }
    changer.join();
    // Every stream is a step from 0 to 1, which overshoots by no more than an unwindowed one (9 %).
    EXPECT_GT(lowest, -0.09f);
    EXPECT_LT(highest, 1.09f);
    EXPECT_GT(highest, 0.99f);
}

}  // namespace
}  // namespace zevrant
