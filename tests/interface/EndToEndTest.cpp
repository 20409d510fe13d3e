// Real signals through the C interface.
#include <gtest/gtest.h>

#include <atomic>
#include <cfloat>
#include <cmath>
#include <numeric>
#include <random>
#include <thread>

#include "AudioHost.h"
#include "interface/ProcessorState.h"

namespace zevrant {
namespace {

constexpr double rate = 48000.0;

ProcessorInfo getInfo(const AudioHost& host) {
    ProcessorInfo info;
    zevrantGetProcessorInfo(host.handle.get(), &info);
    return info;
}

void setGains(AudioHost& host, const std::vector<float>& gains) {
    for (std::size_t bus = 0; bus < gains.size(); ++bus)
        zevrantSetParameterValue(host.handle.get(), 256 + static_cast<int>(bus), gains[bus]);
}

// Neutral controls give the input back, whatever the masks, the frames, the channels and the rate.
TEST(EndToEnd, neutralControlsGiveTheInputBack) {
    ModelFolder models;
    const TestModel shapes[] = {
        {},
        {.hopSize = 128, .delay = 3},
        {.channels = 2, .fftSize = 512, .windowSize = 512, .hopSize = 128, .busGains = {0.7f, 1.5f}},
        {.channels = 2, .delay = 2, .processingMode = 1, .busGains = {0.3f, 2.0f, -0.5f}},
        // A transform longer than the window has unit gain only with root Hann windows.
        {.fftSize = 512, .windowSize = 256, .hopSize = 128},
    };
    for (const auto& shape : shapes)
        for (int channels : {1, 2, 3})
            for (double ratio : {0.5, 0.91875, 1.0, 1.5, 2.0}) {
                SCOPED_TRACE(testing::Message() << "transform " << shape.fftSize << ", hop " << shape.hopSize
                                                << ", mode " << shape.processingMode << ", " << channels
                                                << " channels on " << shape.channels << ", ratio " << ratio);
                AudioHost host = models.open(shape, channels, ratio * rate);
                ASSERT_TRUE(host.handle);
                const Audio in = makeNoise(channels, 6000, 1);
                const Audio out = host.stream(in, inBlocksOf(480));
                ASSERT_GE(static_cast<int>(out[0].size()), 6000 - getInfo(host).latency);
                EXPECT_LT(calcDifference(out, in), -100.0);
            }
}

// A host that plays a block for every block it pushes starts with as much silence as is in and not ready
// at the worst moment. Blocks that the hop does not divide come as close to a whole hop as their common
// divisor lets them.
TEST(EndToEnd, latencyIsTheDelayOfAHostThatPlaysInStep) {
    ModelFolder models;
    for (int hopSize : {64, 128})
        for (int delay : {0, 3})
            for (double ratio : {0.5, 1.0, 2.0}) {
                AudioHost host = models.open({.hopSize = hopSize, .delay = delay}, 1, ratio * rate);
                const int hop = static_cast<int>(hopSize * ratio);
                for (int blockSize : {hop, 2 * hop, 5 * hop, 1, hop / 2, 96, 100, 480, hop + hop / 2}) {
                    zevrantResetProcessorState(host.handle.get());
                    const Audio in = makeNoise(1, 40 * hop, 6);
                    Audio out(1);
                    int delayed = 0;
                    for (int start = 0; start + blockSize <= 40 * hop; start += blockSize) {
                        host.push(in, start, blockSize);
                        host.pull(out, zevrantGetNumOfPendingSamples(host.handle.get()));
                        delayed = std::max(delayed, start + blockSize - static_cast<int>(out[0].size()));
                    }
                    const int slack = blockSize % hop == 0 ? 0 : std::gcd(blockSize, hop);
                    EXPECT_EQ(delayed, host.handle->processor.getLatency(blockSize) - slack)
                        << "hop " << hop << ", block " << blockSize << ", delay " << delay;
                    EXPECT_LE(delayed, getInfo(host).latency);
                    EXPECT_LT(calcDifference(out, in), -100.0);
                }
            }
}

TEST(EndToEnd, anyPartitionOfTheAudioGivesTheSameBits) {
    ModelFolder models;
    const TestModel model{.channels = 2, .delay = 2, .busGains = {0.8f, 0.4f}};
    const Audio in = makeNoise(2, 5000, 7);
    const auto open = [&] {
        AudioHost host = models.open(model, 2, rate);
        setGains(host, {0.3f, 1.2f, 0.6f});
        zevrantSetParameterValue(host.handle.get(), 512, 25.0f);
        return host;
    };
    const Audio whole = open().stream(in, inBlocksOf(5000));
    ASSERT_GT(whole[0].size(), 4000u);
    for (int size : {1, 7, 63, 64, 65, 480, 1024})
        EXPECT_EQ(open().stream(in, inBlocksOf(size)), whole) << size;
    for (unsigned seed : {1u, 2u, 3u}) {
        EXPECT_EQ(open().stream(in, inRandomBlocks(seed, 300)), whole) << seed;
        EXPECT_EQ(open().stream(in, inRandomBlocks(seed, 300), true), whole) << "interleaved, " << seed;
    }
}

TEST(EndToEnd, aResetProcessorIsLikeANewOneWithItsParameters) {
    ModelFolder models;
    const TestModel model{.channels = 2, .delay = 3};
    const Audio in = makeNoise(2, 4000, 8);
    AudioHost host = models.open(model, 2, rate);
    setGains(host, {0.3f, 0.9f});
    const Audio first = host.stream(in, inBlocksOf(100));
    host.push(makeNoise(2, 777, 9), 0, 777);
    zevrantResetProcessorState(host.handle.get());
    EXPECT_EQ(zevrantGetNumOfPendingSamples(host.handle.get()), 0);
    EXPECT_EQ(zevrantGetParameterValue(host.handle.get(), 256), 0.3f);
    EXPECT_EQ(host.stream(in, inBlocksOf(100)), first);
}

TEST(EndToEnd, aStemSeparatorTakesAudioAndNeverGivesAny) {
    ModelFolder models;
    const std::string first = models.write({.channels = 2, .names = {"A", "R"}});
    const std::string second = models.write({.channels = 2, .names = {"B", "S"}});
    const char* paths[] = {first.c_str(), second.c_str()};
    AudioHost host(zevrantCreateStemSeparator(2, paths, 2, rate), 2);
    ASSERT_TRUE(host.handle);
    EXPECT_EQ(zevrantGetNumOfOutputBusses(host.handle.get()), 4);
    EXPECT_TRUE(host.stream(makeNoise(2, 48000, 10), inBlocksOf(480))[0].empty());
    zevrantResetProcessorState(host.handle.get());
    EXPECT_TRUE(host.stream(makeNoise(2, 4800, 10), inBlocksOf(480))[0].empty());

    const char* one[] = {first.c_str()};
    AudioHost single(zevrantCreateStemSeparator(1, one, 2, rate), 2);
    const Audio in = makeNoise(2, 4800, 10);
    EXPECT_LT(calcDifference(single.stream(in, inBlocksOf(480)), in), -100.0);
}

TEST(EndToEnd, denormalsAreFlushedInsideAndTheCallersStateSurvives) {
    ModelFolder models;
    volatile float smallest = FLT_MIN;
    const auto keepsDenormals = [&] { return smallest / 2.0f != 0.0f; };
    ASSERT_TRUE(keepsDenormals());
    AudioHost host = models.open({}, 1, rate);
    const Audio in = makeNoise(1, 2000, 11, 1e-39f);
    const Audio out = host.stream(in, inBlocksOf(100));
    EXPECT_GT(out[0].size(), 1500u);
    for (float sample : out[0]) ASSERT_EQ(sample, 0.0f);
    EXPECT_TRUE(keepsDenormals());

    auto failing = describeModel({});
    failing.setPacking(modelwriter::Packing::frameHistory(0, 129, 1));
    failing.write(models.folder.getPath("failing"));
    AudioHost broken(zevrantCreateProcessor(models.folder.getPath("failing").c_str(), 1, rate), 1);
    ASSERT_TRUE(broken.handle);
    EXPECT_THROW(broken.push(in, 0, 2000), std::runtime_error);
    EXPECT_TRUE(keepsDenormals());
}

// ---- threads ----------------------------------------------------------------------------------

TEST(EndToEnd, parametersMayBeSetWhileAnotherThreadProcesses) {
    ModelFolder models;
    AudioHost host = models.open({.channels = 2, .busGains = {0.8f, 0.4f}}, 2, rate);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        std::mt19937 random(1);
        ProcessorState* handle = host.handle.get();
        while (!done) {
            for (int id : {1, 2, 3, 256, 257, 258, 512, 513, 514}) {
                float minimum, maximum;
                zevrantGetParameterRange(handle, id, &minimum, &maximum);
                zevrantSetParameterValue(handle, id,
                                         std::uniform_real_distribution(minimum, maximum)(random));
                const float value = zevrantGetParameterValue(handle, id);
                EXPECT_TRUE(value >= minimum - 0.001f && value <= maximum) << id;
            }
            std::this_thread::yield();
        }
    });
    const Audio out = host.stream(makeNoise(2, 24000, 12), inBlocksOf(480));
    done = true;
    writer.join();
    for (const auto& row : out)
        for (float sample : row) ASSERT_TRUE(std::isfinite(sample));
}

TEST(EndToEnd, twoHandlesOnTwoThreadsShareNothing) {
    ModelFolder models;
    const TestModel model{.channels = 2, .delay = 1};
    const Audio in = makeNoise(2, 20000, 13);
    const Audio expected = models.open(model, 2, rate).stream(in, inBlocksOf(480));
    const std::string path = models.write(model);
    std::vector<Audio> outputs(2);
    std::vector<std::thread> threads;
    for (auto& output : outputs)
        threads.emplace_back([&] {
            AudioHost host(zevrantCreateProcessor(path.c_str(), 2, rate), 2);
            output = host.stream(in, inBlocksOf(480));
        });
    for (auto& thread : threads) thread.join();
    for (const auto& output : outputs) EXPECT_EQ(output, expected);
}

}  // namespace
}  // namespace zevrant
