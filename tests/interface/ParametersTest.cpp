// Parameters by number, and what a processor tells about itself.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <numbers>
#include <utility>

#include "AudioHost.h"

namespace zevrant {
namespace {

constexpr double rate = 48000.0;

// The controls as a table of their own: what a set does to them and what a get reads.
struct Controls {
    std::array<float, 16> gains, sensitivities{};
    float extrapolation = 1.0f;

    Controls() { gains.fill(1.0f); }

    void set(int id, float value) {
        if (id == 1) gains[0] = 1.0f, gains[1] = std::min(std::pow(10.0f, value / 20.0f), 1.0f);
        if (id == 2) sensitivities[0] = limit(value);
        if (id == 3) extrapolation = value >= 0.5f ? 1.0f : 0.0f;
        if (id >= 256 && id < 272) gains[static_cast<std::size_t>(id - 256)] = std::max(value, 0.0f);
        if (id >= 512 && id < 528) sensitivities[static_cast<std::size_t>(id - 512)] = limit(value);
    }

    float get(int id) const {
        if (id == 1) return 20.0f * std::log10(std::min(std::max(gains[1], std::pow(10.0f, -4.8f)), 1.0f));
        if (id == 2) return sensitivities[0];
        if (id == 3) return extrapolation;
        if (id >= 256 && id < 272) return gains[static_cast<std::size_t>(id - 256)];
        if (id >= 512 && id < 528) return sensitivities[static_cast<std::size_t>(id - 512)];
        return 0.0f;
    }

    static float limit(float value) { return std::min(std::max(value, -100.0f), 100.0f); }
};

// Every id, in and out of the table, set in turn; after each all that could have changed is read.
TEST(Parameters, everyIdReachesItsControlAndNoOther) {
    ModelFolder models;
    AudioHost host = models.open({.busGains = {0.5f, 0.5f}}, 1, rate);
    Controls controls;
    std::vector<int> ids{1, 2, 3, 0, 4, 5, 255, 1 << 30, -(1 << 30), -1, -2, -255, -256, -300, -512};
    for (int id = 250; id < 800; ++id) ids.push_back(id);
    const std::vector<int> watched{1, 2, 3, 256, 257, 271, 272, 300, 512, 513, 527, 528, 768};
    std::mt19937 random(1);
    for (int round = 0; round < 2; ++round)
        for (int id : ids) {
            const float value = std::uniform_real_distribution(-130.0f, 130.0f)(random);
            controls.set(id, value);
            zevrantSetParameterValue(host.handle.get(), id, value);
            EXPECT_NEAR(zevrantGetParameterValue(host.handle.get(), id), controls.get(id), 2e-5f) << id;
            for (int other : watched)
                ASSERT_NEAR(zevrantGetParameterValue(host.handle.get(), other), controls.get(other), 2e-5f)
                    << other << " after " << id << " = " << value;
        }
}

TEST(Parameters, levelsAndTheSwitchAtTheirLimits) {
    ModelFolder models;
    AudioHost host = models.open({}, 1, rate);
    const auto read = [&](int id) { return zevrantGetParameterValue(host.handle.get(), id); };
    for (float level : {-INFINITY, -200.0f, -96.0f, -6.0206f, -0.1f, 0.0f, 6.0f}) {
        zevrantSetParameterValue(host.handle.get(), 1, level);
        EXPECT_NEAR(read(1), std::min(std::max(level, -96.0f), 0.0f), 2e-5f);
        EXPECT_NEAR(read(257), std::pow(10.0, std::min(level, 0.0f) / 20.0), 1e-6);
    }
    zevrantSetParameterValue(host.handle.get(), 257, 50.0f);  // louder than the range of id 1
    EXPECT_EQ(read(1), 0.0f);
    EXPECT_EQ(read(3), 1.0f);
    for (float value : {0.0f, 0.49f, 0.5f, 1.0f, -5.0f, 5.0f, NAN}) {
        zevrantSetParameterValue(host.handle.get(), 3, value);
        EXPECT_EQ(read(3), value >= 0.5f ? 1.0f : 0.0f) << value;
    }
}

TEST(Parameters, rangesOfAllIds) {
    for (int id = -1100; id <= 1100; ++id) {
        float minimum = 9.0f, maximum = 9.0f;
        zevrantGetParameterRange(nullptr, id, &minimum, &maximum);
        const std::pair<float, float> expected = id == 1                  ? std::pair(-96.0f, 0.0f)
                                                 : id == 2                ? std::pair(-100.0f, 100.0f)
                                                 : id == 3                ? std::pair(0.0f, 1.0f)
                                                 : id >= 256 && id <= 511 ? std::pair(0.0f, 100.0f)
                                                 : id >= 512 && id <= 767 ? std::pair(-100.0f, 100.0f)
                                                                          : std::pair(0.0f, 0.0f);
        EXPECT_EQ(std::pair(minimum, maximum), expected) << id;
    }
}

TEST(Parameters, busNamesFitTheirBufferAndEnd) {
    ModelFolder models;
    AudioHost host = models.open({.busGains = {1.0f, 1.0f}, .names = {"Voice", "", "Residual"}}, 1, rate);
    EXPECT_EQ(zevrantGetNumOfOutputBusses(host.handle.get()), 3);
    const std::string names[] = {"", "Voice", "", "Residual", ""};
    for (int bus = -1; bus <= 3; ++bus)
        for (int size : {-1, 0, 1, 2, 5, 6, 8, 9, 30}) {
            std::vector<char> buffer(40, 'x');
            zevrantGetOutputBusName(host.handle.get(), bus, buffer.data(), size);
            std::string expected = names[bus + 1].substr(0, static_cast<std::size_t>(std::max(size - 1, 0)));
            expected.resize(static_cast<std::size_t>(std::max(size, 0)), '\0');
            expected.resize(40, 'x');
            EXPECT_EQ(std::string(buffer.begin(), buffer.end()), expected) << bus << ", " << size;
        }
}

TEST(Parameters, theNameOfTheArithmeticMayFillItsBuffer) {
    char whole[64];
    zevrantGetVectorArithmeticWrapperName(whole, 64);
    const std::string name(whole);
    ASSERT_GT(name.size(), 2u);
    for (std::size_t size = 0; size < 63; ++size) {
        std::string buffer(64, 'x'), expected = name.substr(0, size);
        zevrantGetVectorArithmeticWrapperName(buffer.data(), static_cast<int>(size));
        expected.resize(size, '\0');
        expected.resize(64, 'x');
        EXPECT_EQ(buffer, expected) << size;
    }
}

TEST(Parameters, informationIsTheModelsAndOnlyLatencyFollowsTheHost) {
    ModelFolder models;
    for (double ratio : {0.5, 1.0, 2.0}) {
        AudioHost host = models.open({.channels = 2, .delay = 2}, 1, ratio * rate);
        ProcessorInfo info;
        zevrantGetProcessorInfo(host.handle.get(), &info);
        EXPECT_EQ(std::tuple(info.sampleRate, info.numOfChannels, info.windowSize, info.hopSize),
                  std::tuple(rate, 2, 256, 64));
        EXPECT_EQ(info.latency, static_cast<int>((3 + 2) * 64 * ratio));
    }
}

// Sound that went in before the call: a set fades in over the hop that ends where the guide for hosts says.
TEST(Parameters, aSetLandsALatencyBeforeTheEndOfItsHop) {
    ModelFolder models;
    for (const auto& [window, delay] : {std::pair(128, 0), {128, 2}, {256, 0}, {256, 5}})
        for (const int added : {1280, 1281, 1343}) {
            SCOPED_TRACE(testing::Message() << "window " << window << ", delay " << delay << ", " << added);
            const TestModel model{.windowSize = window, .delay = delay, .constantMasks = true};
            AudioHost host = models.open(model, 1, rate);
            ProcessorInfo info;
            zevrantGetProcessorInfo(host.handle.get(), &info);
            const Audio ones(1, std::vector<float>(2048, 1.0f));
            Audio out(1);
            host.push(ones, 0, added);
            for (const int bus : {0, 1}) zevrantSetParameterValue(host.handle.get(), 256 + bus, 0.0f);
            host.push(ones, added, 2048 - added);
            ASSERT_TRUE(host.pull(out, zevrantGetNumOfPendingSamples(host.handle.get())));
            const auto start = static_cast<std::size_t>((added / 64 + 1) * 64 - info.latency);
            for (std::size_t i = start - 64; i < start + 128; ++i) {
                const double phase = (static_cast<double>(i) - static_cast<double>(start) + 0.5) / 64.0;
                const double fade = 0.5 + 0.5 * std::cos(std::numbers::pi * std::clamp(phase, 0.0, 1.0));
                EXPECT_NEAR(out[0][i], fade, 1e-4) << i;
            }
        }
}

}  // namespace
}  // namespace zevrant
