#include "DspCore/SampleRateConversion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <limits>
#include <numbers>
#include <random>
#include <stdexcept>
#include <thread>

#include "TestSignals.h"

namespace zevrant {
namespace {

using Stream = std::vector<std::vector<float>>;  // [channel][sample]

// Sends a stream through in blocks of a length, or of random ones up to it.
Stream convert(SampleRateConversion& conversion, const Signal32& stream, int longest, bool varies = false) {
    std::mt19937 random(3);
    Stream result(static_cast<std::size_t>(stream.numOfChannels));
    for (int start = 0, length = 0; start < stream.numOfSamples; start += length) {
        length = std::min(varies ? 1 + static_cast<int>(random() % static_cast<unsigned>(longest)) : longest,
                          stream.numOfSamples - start);
        const Stream output = rowsOf(conversion.process(stream.extractSection(start, length)));
        for (std::size_t c = 0; c < output.size(); ++c)
            result[c].insert(result[c].end(), output[c].begin(), output[c].end());
    }
    return result;
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
            const Stream result = convert(conversion, stream, 333);
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
        const Stream whole = convert(conversion, stream, 6000);
        for (const int longest : {1, 7, 5000}) {
            conversion.reset();
            const Stream cut = convert(conversion, stream, longest, true);
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
    for (const double rate : {8000.0, 44100.0}) {
        SampleRateConversion conversion;
        ASSERT_TRUE(conversion.setFormat(makeFormat(3, rate), makeFormat(3, rate)));
        const Signal32 stream = noiseSignal(3, 3000, 4);
        const Stream result = convert(conversion, stream, 200, true);
        // An odd filter length splits into unequal halves.
        const int length = 3000 - conversion.getLatency(0) - conversion.filterLength % 2;
        EXPECT_EQ(result, rowsOf(stream.extractSection(0, length)));
        const std::int64_t queued = conversion.inputQueue.numOfSamples;
        for (const Signal32& empty : {Signal32(), Signal32(3, 0)})
            EXPECT_EQ(conversion.process(empty).data, nullptr);
        EXPECT_EQ(conversion.inputQueue.numOfSamples, queued);
    }
}

TEST(SampleRateConversion, theFilterFollowsTheInputRate) {
    const struct {
        double rate;
        int length;
    } cases[] = {{48000, 72}, {48000 * 0.91875, 66}, {11000, 16}, {13000, 20}, {0, 0}};  // ties go to even
    for (const auto& [rate, length] : cases) {
        SampleRateConversion conversion;
        ASSERT_TRUE(conversion.setFormat(makeFormat(1, rate), makeFormat(1, 24000)));
        EXPECT_EQ(conversion.filterLength, length);
        EXPECT_EQ(conversion.getLatency(512), length / 2 + 1);
        EXPECT_EQ(conversion.sincTable.numOfSamples, length);
        EXPECT_EQ(conversion.inputQueue.numOfSamples, length / 2);
    }
}

TEST(SampleRateConversion, aCutoffOfAllOfTheBandHasAnIdentityPhase) {
    SampleRateConversion conversion;
    conversion.cutoffPercent = 100.0f;
    ASSERT_TRUE(conversion.setFormat(makeFormat(1, 24000), makeFormat(1, 48000)));
    EXPECT_EQ(conversion.identityPhase, 0);
    const Signal32 stream = noiseSignal(1, 1000, 6);
    const Stream result = convert(conversion, stream, 100);
    for (std::size_t i = 0; 2 * i < result[0].size(); ++i)
        EXPECT_EQ(result[0][2 * i], stream.getReadChannelPtr(0)[i]);
    ASSERT_TRUE(conversion.setFormat(makeFormat(1, 48000), makeFormat(1, 24000)));
    EXPECT_EQ(conversion.identityPhase, -1) << "the cutoff is half of the band";
}

TEST(SampleRateConversion, aSecondFormatDropsWhatIsQueuedAndOneOfOtherChannelsIsRefused) {
    SampleRateConversion conversion;
    const Signal32 stream = noiseSignal(1, 5000, 7);
    ASSERT_TRUE(conversion.setFormat(makeFormat(1, 44100), makeFormat(1, 48000)));
    const Stream expected = convert(conversion, stream, 500);
    ASSERT_TRUE(conversion.setFormat(makeFormat(1, 48000), makeFormat(1, 16000)));
    convert(conversion, stream, 500);
    ASSERT_TRUE(conversion.setFormat(makeFormat(1, 44100), makeFormat(1, 48000)));
    EXPECT_EQ(convert(conversion, stream, 500), expected);

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
    const double rates[] = {0.0, -48000.0, 1e-300, 0.1, 300.0, 48000.0, 1e12, infinity, std::nan("")};
    const Signal32 stream = noiseSignal(2, 1000, 8);
    for (const double input : rates)
        for (const double output : rates) {
            SampleRateConversion conversion;
            conversion.cutoffPercent = 100.0f;  // with a phase that is read and not filtered
            for (int block = 0; block < 4; ++block) try {
                    if (block == 0) conversion.setFormat(makeFormat(2, input), makeFormat(2, output));
                    const Signal32 result = conversion.process(stream);
                    EXPECT_TRUE(result.numOfSamples == 0 || result.numOfChannels == 2)
                        << input << " to " << output;
                } catch (const std::logic_error&) {
                }
        }
    EXPECT_THROW(SampleRateConversion().process(stream), std::invalid_argument);
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
        std::thread([&] { EXPECT_FALSE(conversion.lock.try_lock()); }).join();
    }
    std::atomic<bool> done = false;
    std::thread changer([&] {
        for (int i = 0; i < 60; ++i)
            conversion.setFormat(makeFormat(2, i % 2 == 0 ? 44100 : 48000),
                                 makeFormat(2, 48000 - 1000 * (i % 3)));
        done = true;
    });
    float highest = 0.0f;
    for (std::int64_t numOfSamples = 0; !done || numOfSamples < 48000;) {
        const Signal32 output = conversion.process(Signal32(2, 480, 1.0f));
        numOfSamples += output.numOfSamples;
        for (const auto& row : rowsOf(output))
            for (const float sample : row) highest = std::max(highest, std::abs(sample));
    }
    changer.join();
    // Every stream is a step from 0 to 1, which overshoots by no more than an unwindowed one (9 %).
    EXPECT_NEAR(highest, 1.0f, 0.09f);
}

}  // namespace
}  // namespace zevrant
