// Handles of processors: creating, pushing, pulling, resetting.
#include "interface/ProcessorState.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "AudioHost.h"

namespace zevrant {
namespace {

constexpr double rate = 48000.0;

TEST(ProcessorState, creatingFailsWithANullHandle) {
    ModelFolder models;
    const std::string good = models.write({}), other = models.write({.hopSize = 128});
    const std::string text = models.folder.makeFile("text", "no model"),
                      empty = models.folder.makeFile("empty");
    const std::string missing = models.folder.getPath("missing");
    for (const std::string& path : {text, empty, missing, models.folder.path, std::string()})
        EXPECT_EQ(zevrantCreateProcessor(path.c_str(), 1, rate), nullptr) << path;

    const auto create = [](std::vector<const char*> paths) {
        return zevrantCreateStemSeparator(static_cast<int>(paths.size()), paths.data(), 2, rate);
    };
    EXPECT_EQ(create({}), nullptr);
    EXPECT_EQ(create({good.c_str(), other.c_str()}), nullptr);
    EXPECT_EQ(create({good.c_str(), missing.c_str()}), nullptr);
    EXPECT_THROW(zevrantCreateStemSeparator(-1, nullptr, 2, rate), std::length_error);
    EXPECT_THROW(zevrantCreateProcessor(good.c_str(), -1, rate), std::length_error);
    zevrantDeleteProcessor(nullptr);
}

TEST(ProcessorState, pullingIsAllOrNothing) {
    ModelFolder models;
    for (bool isInterleaved : {false, true}) {
        AudioHost host = models.open({.channels = 2}, 2, rate);
        const Audio in = makeNoise(2, 3000, 2);
        Audio out(2);
        std::vector<float> left(8, 5.0f), right(16, 6.0f);
        float* const rows[] = {left.data(), right.data()};
        EXPECT_FALSE(isInterleaved ? zevrantGetAudioInterleaved(host.handle.get(), right.data(), 8)
                                   : zevrantGetAudio(host.handle.get(), rows, 8));
        EXPECT_EQ(left, std::vector(8, 5.0f));
        EXPECT_EQ(right, std::vector(16, 6.0f));
        host.push(in, 0, 3000);
        const int pending = zevrantGetNumOfPendingSamples(host.handle.get());
        ASSERT_GT(pending, 2000);
        EXPECT_FALSE(host.pull(out, pending + 1, isInterleaved));
        EXPECT_EQ(zevrantGetNumOfPendingSamples(host.handle.get()), pending);
        int taken = 0;
        for (int size : {1, 63, 64, 500, 7}) {
            EXPECT_TRUE(host.pull(out, size, isInterleaved));
            taken += size;
            EXPECT_EQ(zevrantGetNumOfPendingSamples(host.handle.get()), pending - taken);
        }
        EXPECT_TRUE(host.pull(out, pending - taken, isInterleaved));
        EXPECT_FALSE(host.pull(out, 1, isInterleaved));
        EXPECT_LT(calcDifference(out, in), -100.0);
        float* const none[] = {nullptr, nullptr};
        EXPECT_TRUE(zevrantGetAudio(host.handle.get(), none, 0));
    }
}

// What cannot be framed ends in an exception and not in memory that belongs to others.
TEST(ProcessorState, formatsThatCannotBeFramedThrowWhenAudioComes) {
    ModelFolder models;
    const Audio in = makeNoise(2, 3000, 4);
    for (const auto& [channels, sampleRate] : {std::pair{2, 0.0}, {2, -1.0}, {2, std::nan("")}, {0, rate}}) {
        AudioHost host = models.open({.channels = 2}, channels, sampleRate);
        ASSERT_TRUE(host.handle);
        EXPECT_THROW(host.push(in, 0, 3000), std::exception) << channels << " at " << sampleRate;
    }
    EXPECT_THROW(models.open({}, 1, INFINITY), std::length_error);
    AudioHost host = models.open({.channels = 2}, 2, rate);
    host.handle->outputQueue.add(Signal32(1, 10, 0.5f));  // less channels than the host has
    Audio out(2);
    EXPECT_THROW(host.pull(out, 10, true), std::out_of_range);
}

}  // namespace
}  // namespace zevrant
