// Live streams as a host meets them: the shared library through its C++ wrapper.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <numeric>
#include <thread>

#include "interface/AudioHost.h"
#include "zevrant_separation.hpp"

namespace zevrant {
namespace {

using testing::HasSubstr;

const char* const refused = "answers a failure";

struct Stream {
    // Adds all of the audio in such blocks and takes as much after each; interleaved in every other block.
    Audio play(const Audio& in, const BlockSizes& nextBlockSize) {
        const auto inputs = in.size(),
                   outputs = static_cast<std::size_t>(handle.getInfo().numOfOutputChannels);
        Audio out(outputs, std::vector<float>(in[0].size()));
        const int length = static_cast<int>(in[0].size());
        for (int start = 0, block = 0; start < length; ++block) {
            const int size = std::min(nextBlockSize(), length - start);
            if (block % 2 == 0) {
                std::vector<const float*> from;
                std::vector<float*> to;
                for (const auto& row : in) from.push_back(row.data() + start);
                for (auto& row : out) to.push_back(row.data() + start);
                EXPECT_EQ(handle.add(from, size), ZEVRANT_SEPARATION_OK) << refused;
                EXPECT_EQ(handle.take(to, size), ZEVRANT_SEPARATION_OK) << refused;
            } else {
                const auto count = static_cast<std::size_t>(size), at = static_cast<std::size_t>(start);
                std::vector<float> from(count * inputs), to(count * outputs);
                for (std::size_t i = 0; i < from.size(); ++i) from[i] = in[i % inputs][at + i / inputs];
                EXPECT_EQ(handle.addInterleaved(from), ZEVRANT_SEPARATION_OK) << refused;
                EXPECT_EQ(handle.takeInterleaved(to), ZEVRANT_SEPARATION_OK) << refused;
                for (std::size_t i = 0; i < to.size(); ++i) out[i % outputs][at + i / outputs] = to[i];
            }
            start += size;
        }
        return out;
    }
    Separation handle;
};

class StreamTest : public testing::Test {
  protected:
    Separation open(const TestModel& model, int channels, double rate,
                    Separation::Output output = Separation::Mix, int flags = 0) {
        return Separation({.model = models.write(model),
                           .numOfChannels = channels,
                           .sampleRate = rate,
                           .longestBlock = 700,
                           .output = output,
                           .flags = flags});
    }
    ModelFolder models;
};

Audio delay(const Audio& in, int numOfSamples) {
    Audio delayed = in;
    for (auto& row : delayed) {
        row.insert(row.begin(), static_cast<std::size_t>(numOfSamples), 0.0f);
        row.resize(in[0].size());
    }
    return delayed;
}

Audio sumBusses(const Audio& busses, std::size_t channels) {
    Audio sum(channels, std::vector<float>(busses[0].size()));
    for (std::size_t row = 0; row < busses.size(); ++row)
        for (std::size_t i = 0; i < sum[0].size(); ++i) sum[row % channels][i] += busses[row][i];
    return sum;
}

float findPeak(const Audio& audio, int start, int end) {
    float peak = 0.0f;
    for (const auto& row : audio)
        for (int i = start; i < end; ++i) peak = std::max(peak, std::abs(row[static_cast<std::size_t>(i)]));
    return peak;
}

// Whatever the model, the rates and the blocks: the told number of samples of silence, then the input, which
// is the mix of all busses and the sum of them. White noise up to the highest frequency, so that an error of
// a hundredth of a sample in any path would be heard.
TEST_F(StreamTest, theInputComesBackAfterTheToldLatency) {
    const TestModel shapes[] = {
        {},
        {.channels = 2, .hopSize = 128, .delay = 3, .busGains = {0.7f, 0.4f}},
        {.channels = 2, .sampleRate = 44100.0, .processingMode = 1, .busGains = {0.3f}},
        {.fftSize = 512, .windowSize = 256, .hopSize = 128}};
    for (const auto& shape : shapes)
        for (const double rate : {8000.0, 22050.0, 32000.0, 44100.0, 44101.0, 48000.0, 88200.0, 96000.0}) {
            SCOPED_TRACE(testing::Message()
                         << "model of " << shape.sampleRate << ", delay " << shape.delay << ", at " << rate);
            const Audio in = makeNoise(2, 9000, 3);
            Stream mix{open(shape, 2, rate)};
            const ZevrantSeparationInfo info = mix.handle.getInfo();
            const bool isOctave = std::abs(std::remainder(std::log2(rate / shape.sampleRate), 1.0)) < 1e-4;
            EXPECT_EQ(info.conversionLatency > 0, !isOctave);
            EXPECT_LE(info.conversionLatency, 0.006 * 44100.0);
            const Audio out = mix.play(in, inBlocksOf(480));
            EXPECT_LT(calcDifference(out, delay(in, info.latency)), -100.0);
            EXPECT_LT(findPeak(out, 0, info.latency), 1e-5f);
            mix.handle.reset();
            EXPECT_EQ(mix.play(in, inRandomBlocks(5, 700)), out);

            Stream busses{open(shape, 2, rate, Separation::Busses)};
            EXPECT_EQ(busses.handle.getInfo().latency, info.latency);
            for (int bus = 0; bus < info.numOfBusses; ++bus)
                for (Separation* handle : {&mix.handle, &busses.handle})
                    handle->setLevel(bus, 3.0f - 6.0f * static_cast<float>(bus));
            mix.handle.reset();
            busses.handle.reset();
            const Audio leveled = mix.play(in, inBlocksOf(700));
            EXPECT_LT(calcDifference(sumBusses(busses.play(in, inBlocksOf(1)), 2), leveled), -100.0);
        }
}

// Without conversion the mix is that of the plain interface bit for bit, late by the silence.
TEST_F(StreamTest, withoutConversionTheSamplesAreThoseOfThePlainInterface) {
    const TestModel model{.channels = 2, .delay = 2, .busGains = {0.7f, 0.4f}};
    const Audio in = makeNoise(2, 6000, 4);
    for (const double rate : {44100.0, 48000.0, 96000.0}) {
        Stream stream{open(model, 2, rate, Separation::Mix, ZEVRANT_SEPARATION_KEEP_RATE)};
        AudioHost host = models.open(model, 2, rate);
        for (int bus = 0; bus < 3; ++bus) {
            stream.handle.setSensitivity(bus, 20.0f * static_cast<float>(bus));
            zevrantSetParameterValue(host.handle.get(), 512 + bus, 20.0f * static_cast<float>(bus));
        }
        stream.handle.setMaskExtrapolation(false);
        zevrantSetParameterValue(host.handle.get(), 3, 0.0f);
        stream.handle.reset();
        Audio expected = host.stream(in, inBlocksOf(480));
        for (auto& row : expected)
            row.insert(row.begin(), static_cast<std::size_t>(stream.handle.getInfo().latency), 0.0f);
        for (auto& row : expected) row.resize(in[0].size());
        EXPECT_EQ(stream.play(in, inBlocksOf(77)), expected);
    }
}

// A level reaches what was asked for within 20 ms or a frame, and nothing steps on the way.
TEST_F(StreamTest, levelsAreFaded) {
    for (const double rate : {48000.0, 44100.0}) {
        Stream stream{open({.constantMasks = true}, 1, rate)};
        Audio in(1, std::vector<float>(24000));
        for (std::size_t i = 0; i < in[0].size(); ++i)
            in[0][i] = static_cast<float>(std::sin(2.0 * M_PI * 50.0 * static_cast<double>(i) / rate));
        const Audio before(1, {in[0].begin(), in[0].begin() + 12000}),
            after(1, {in[0].begin() + 12000, in[0].end()});
        stream.play(before, inBlocksOf(480));
        stream.handle.setLevel(0, -std::numeric_limits<float>::infinity());
        Audio out = stream.play(after, inBlocksOf(480));
        const int latency = stream.handle.getInfo().latency, fade = static_cast<int>(0.02 * rate) + 3 * 64;
        float steepest = 0.0f;
        for (std::size_t i = 1; i < out[0].size(); ++i)
            steepest = std::max(steepest, std::abs(out[0][i] - out[0][i - 1]));
        EXPECT_LT(steepest, 2.0 * M_PI * 50.0 / rate + 1.0 / (0.015 * rate));
        EXPECT_LT(findPeak(out, latency + fade, 12000), 1e-4f);
        stream.handle.setLevel(0, -6.0f);
        out = stream.play(before, inBlocksOf(480));
        EXPECT_NEAR(findPeak(out, 8000, 12000), std::pow(10.0, -0.3), 1e-3);
    }
}

TEST_F(StreamTest, aFlushGivesTheRestOnce) {
    for (const double rate : {48000.0, 44100.0}) {
        Stream stream{open({.channels = 2, .delay = 2}, 2, rate)};
        const int latency = stream.handle.getInfo().latency;
        const Audio in = makeNoise(2, 5000, 5);
        Audio out = stream.play(in, inBlocksOf(333));
        stream.handle.flush();
        stream.handle.flush();
        ASSERT_EQ(stream.handle.getNumOfPendingSamples(), latency);
        std::vector<float> rest(2 * static_cast<std::size_t>(latency));
        std::vector<float> sample(2);
        EXPECT_EQ(stream.handle.addInterleaved(sample), ZEVRANT_SEPARATION_WRONG_STATE);
        EXPECT_EQ(stream.handle.takeInterleaved(rest), ZEVRANT_SEPARATION_OK);
        EXPECT_EQ(stream.handle.takeInterleaved(sample), ZEVRANT_SEPARATION_TOO_FEW_SAMPLES);
        for (std::size_t i = 0; i < rest.size(); ++i) out[i % 2].push_back(rest[i]);
        for (auto& row : out) row.erase(row.begin(), row.begin() + latency);
        EXPECT_LT(calcDifference(out, in), -100.0);
        stream.handle.reset();
        EXPECT_EQ(stream.handle.getNumOfPendingSamples(), 0);
        EXPECT_EQ(stream.handle.addInterleaved(sample), ZEVRANT_SEPARATION_OK);
    }
}

TEST_F(StreamTest, whatIsNotFiniteIsReplacedAndCounted) {
    Audio in = makeNoise(2, 4000, 6), clean = in;
    const float odd[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                         -std::numeric_limits<float>::infinity()};
    for (std::size_t i = 0; i < 3; ++i) {
        in[i % 2][300 * i + 7] = odd[i];
        clean[i % 2][300 * i + 7] = 0.0f;
    }
    Stream stream{open({.channels = 2}, 2, 44100.0)}, expected{open({.channels = 2}, 2, 44100.0)};
    EXPECT_EQ(stream.play(in, inBlocksOf(480)), expected.play(clean, inBlocksOf(480)));
    EXPECT_EQ(stream.handle.getNumOfReplacedSamples(), 3);
    EXPECT_EQ(expected.handle.getNumOfReplacedSamples(), 0);
    Stream keeping{open({.channels = 2}, 2, 48000.0, Separation::Mix, ZEVRANT_SEPARATION_KEEP_NON_FINITE)};
    keeping.play(in, inBlocksOf(480));
    EXPECT_EQ(keeping.handle.getNumOfReplacedSamples(), 0);
}

// Both models give the input back, so a swap is right when nobody hears it.
TEST_F(StreamTest, aSwapToTheSameLatencyFadesOver) {
    for (const double rate : {48000.0, 44100.0}) {
        Stream stream{open({.delay = 1, .busGains = {0.2f}, .names = {"Old", "Rest"}}, 1, rate)};
        const int latency = stream.handle.getInfo().latency;
        const Audio in = makeNoise(1, 12000, 7);
        const Audio before(1, {in[0].begin(), in[0].begin() + 4000}),
            after(1, {in[0].begin() + 4000, in[0].end()});
        Audio out = stream.play(before, inBlocksOf(480));
        Separation next =
            open({.delay = 1, .busGains = {0.6f, 0.1f}, .names = {"New", "Other", "Rest"}}, 1, rate);
        stream.handle.swap(next);
        EXPECT_FALSE(stream.handle.finishSwap());
        EXPECT_THAT(stream.handle.getBusNames(), testing::ElementsAre("New", "Other", "Rest"));
        const Audio rest = stream.play(after, inBlocksOf(480));
        out[0].insert(out[0].end(), rest[0].begin(), rest[0].end());
        EXPECT_LT(calcDifference(out, delay(in, latency)), -100.0);
        EXPECT_TRUE(stream.handle.finishSwap());
        float sample = 0.0f;
        EXPECT_EQ(next.addInterleaved(std::span(&sample, 1)), ZEVRANT_SEPARATION_WRONG_STATE);
    }
}

TEST_F(StreamTest, aSwapToAnotherLatencyIsAskedForAndSilentInBetween) {
    for (const auto& [oldDelay, newDelay] : {std::pair(0, 60), std::pair(60, 0)}) {
        Stream stream{open({.delay = oldDelay}, 1, 48000.0)};
        const Audio in = makeNoise(1, 10000, 8);
        const int before = stream.handle.getInfo().latency;
        stream.play(in, inBlocksOf(480));
        Separation next = open({.delay = newDelay}, 1, 48000.0);
        const int after = next.getInfo().latency;
        try {
            stream.handle.swap(next);
            ADD_FAILURE() << "nothing is said";
        } catch (const SeparationError& error) {
            EXPECT_EQ(error.status, ZEVRANT_SEPARATION_LATENCY_DIFFERS);
            EXPECT_THAT(error.what(), HasSubstr(std::to_string(after)));
        }
        stream.handle.swap(next, true);
        EXPECT_EQ(stream.handle.getInfo().latency, after);
        const Audio out = stream.play(in, inBlocksOf(480));
        Audio end = out, expected = delay(in, after);
        const int settled = after + 961;
        end[0].erase(end[0].begin(), end[0].begin() + settled);
        expected[0].erase(expected[0].begin(), expected[0].begin() + settled);
        EXPECT_LT(calcDifference(end, expected), -100.0);
        EXPECT_EQ(after > before ? findPeak(out, before, after) : 0.0f, 0.0f);
        EXPECT_GT(findPeak(out, 0, std::min(before, after) / 2), 0.0f);
        EXPECT_TRUE(stream.handle.finishSwap());
    }
}

// The audio thread plays, one thread turns the controls, and one swaps: for ThreadSanitizer.
TEST_F(StreamTest, controlsAndSwapsOnOtherThreads) {
    Stream stream{open({}, 1, 44100.0)};
    std::atomic<bool> isDone = false;
    std::thread audio([&] {
        const Audio in = makeNoise(1, 48000, 9);
        while (!isDone) {
            const Audio out = stream.play(in, inBlocksOf(300));
            EXPECT_LT(findPeak(out, 0, 48000), 10.0f);
        }
    });
    std::thread controls([&] {
        for (int i = 0; !isDone; ++i) {
            stream.handle.setLevel(i % 2, static_cast<float>(-(i % 50)));
            stream.handle.setSensitivity(0, static_cast<float>(i % 100));
            EXPECT_LE(stream.handle.getLevel(i % 2), 0.0f);
        }
    });
    for (int i = 0; i < 5; ++i) {
        Separation next = open({.delay = i % 2}, 1, 44100.0);
        stream.handle.swap(next, true);
        while (!stream.handle.finishSwap()) std::this_thread::yield();
    }
    isDone = true;
    audio.join();
    controls.join();
}

TEST_F(StreamTest, blocksThatAreNotTakenAreRefusedInTheEnd) {
    Separation stream = open({}, 1, 48000.0);
    std::vector<float> block(700), longer(701);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(stream.addInterleaved(block), ZEVRANT_SEPARATION_OK);
    EXPECT_EQ(stream.addInterleaved(std::span(block).first(1)), ZEVRANT_SEPARATION_FULL);
    EXPECT_EQ(stream.getNumOfPendingSamples(), 2800);
    EXPECT_EQ(stream.addInterleaved(longer), ZEVRANT_SEPARATION_INVALID_ARGUMENT);
    EXPECT_THAT(stream.getLastError(), HasSubstr("701"));
    float* none[] = {nullptr};
    EXPECT_EQ(stream.take(none, 2800), ZEVRANT_SEPARATION_OK);
    EXPECT_EQ(stream.getNumOfPendingSamples(), 0);
}

TEST_F(StreamTest, modelsByNameAndFromMemory) {
    EXPECT_THAT(Separation::listModels(), testing::Contains("center-sides"));
    Separation named({.model = "center-sides", .sampleRate = 44100.0});
    EXPECT_THAT(named.getBusNames(), testing::Contains("Center"));
    EXPECT_FALSE(named.getModelDescription().empty());
    const std::string path = models.write({.delay = 1});
    const std::string bytes = models.folder.readFile(std::filesystem::path(path).filename());
    const Audio in = makeNoise(2, 3000, 10);
    Stream fromFile{Separation({.model = path})},
        fromMemory{Separation({.modelBytes = std::as_bytes(std::span(bytes))})};
    EXPECT_EQ(fromMemory.play(in, inBlocksOf(480)), fromFile.play(in, inBlocksOf(480)));
}

}  // namespace
}  // namespace zevrant
