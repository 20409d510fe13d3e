// What every format has of the core: one latency, levels, bypass, other models, faults, and nothing asked of
// the system.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>

#include "interface/AudioHost.h"
#include "plugins/AudioThread.h"
#include "plugins/ModelFiles.h"
#include "plugins/PluginCore.h"

namespace zevrant {
namespace {

using namespace plugins;
using Status = PluginCore::Status;

// A quarter on the first bus, the rest on the residual.
const TestModel quarter{.channels = 2, .busGains = {0.25f}, .constantMasks = true};

Audio delay(const Audio& in, int numOfSamples) {
    Audio late = in;
    for (auto& row : late) {
        row.insert(row.begin(), static_cast<std::size_t>(numOfSamples), 0.0f);
        row.resize(in[0].size());
    }
    return late;
}

// Over one period of the rate in so many samples: what a click would stand out from.
Audio makeSine(int numOfSamples) {
    Audio audio(2, std::vector<float>(static_cast<std::size_t>(numOfSamples)));
    for (auto& row : audio)
        for (std::size_t i = 0; i < row.size(); ++i)
            row[i] =
                0.5f * static_cast<float>(std::sin(2.0 * M_PI * 200.0 / 48000.0 * static_cast<double>(i)));
    return audio;
}

// The sharpest bend from this sample on. That of the sine of makeSine is 0.5 (2 pi 200 / 48000)^2 = 3.4e-4.
double getSharpestBend(const Audio& audio, std::size_t start) {
    double sharpest = 0.0;
    for (const auto& row : audio)
        for (std::size_t i = start + 2; i < row.size(); ++i)
            sharpest = std::max(sharpest, std::abs(double{row[i]} - 2.0 * row[i - 1] + row[i - 2]));
    return sharpest;
}

// A fade of 960 samples bends by 2 * amplitude * (slope of the sine + 1) / 960 at its corners, below this.
constexpr double softBend = 2.5e-3;

class PluginCoreTest : public testing::Test {
  protected:
    // Plays on, in place where rows allow, and calls before each block.
    Audio play(
        PluginCore& core, const Audio& in, const BlockSizes& nextBlockSize, int numOfOutputs = 2,
        const std::function<void(int)>& beforeBlock = [](int) {}) {
        Audio out = in;
        out.resize(static_cast<std::size_t>(numOfOutputs), std::vector<float>(in[0].size()));
        const int length = static_cast<int>(in[0].size());
        for (int start = 0; start < length;) {
            beforeBlock(start);
            const int size = std::min(nextBlockSize(), length - start);
            std::vector<const float*> from;
            std::vector<float*> to;
            for (std::size_t c = 0; c < in.size(); ++c) from.push_back(out[c].data() + start);
            for (auto& row : out) to.push_back(row.data() + start);
            core.process(from.data(), to.data(), size);
            start += size;
        }
        return out;
    }

    ModelFolder models;
};

TEST_F(PluginCoreTest, theMixHasTheLevelsAndBussesHaveOutputsOfTheirOwn) {
    for (int numOfBusOutputs : {0, 3})
        for (double rate : {48000.0, 44100.0}) {
            SCOPED_TRACE(testing::Message() << numOfBusOutputs << " outputs of busses at " << rate << " Hz");
            PluginCore core({.numOfBusOutputs = numOfBusOutputs});
            core.requestModel(models.write(quarter));
            core.setLevel(0, 6.0f);
            core.setLevel(1, PluginCore::lowestLevel);
            core.activate(rate);
            ASSERT_EQ(core.getStatus(), Status::Ready) << core.getMessage();
            EXPECT_GT(core.getLatency(), 0);
            EXPECT_THAT(core.getBusNames(), testing::ElementsAre("Bus 0", "Residual"));
            Audio in = makeNoise(2, 20000, 1);
            if (rate != 48000.0) in = makeSine(20000);  // which conversion keeps
            const Audio out = play(core, in, inBlocksOf(480), 2 + 2 * numOfBusOutputs);
            const Audio late = delay(in, core.getLatency());
            const double gain = 0.25 * std::pow(10.0, 6.0 / 20.0);
            EXPECT_LT(calcDifference({out[0], out[1]}, late, gain), -60.0);
            for (int i = 0; i < core.getLatency(); ++i)
                ASSERT_NEAR(out[0][static_cast<std::size_t>(i)], 0.0f, rate == 48000.0 ? 0.0 : 1e-3)
                    << "before the latency was over";
            for (std::size_t row = 2; row < out.size(); ++row)
                EXPECT_LT(calcDifference({out[row]}, {late[row % 2]}, row < 4 ? gain : 0.0), -60.0) << row;
        }
}

TEST_F(PluginCoreTest, howAudioIsCutChangesNoSample) {
    const std::string path = models.write({.channels = 2, .busGains = {0.5f, 0.25f}});
    const Audio in = makeNoise(2, 12000, 2);
    for (double rate : {48000.0, 44100.0}) {
        PluginCore core({.numOfBusOutputs = 2});
        core.requestModel(path);
        const auto playIn = [&](const BlockSizes& nextBlockSize) {
            core.setBypassed(false);
            core.activate(rate);
            Audio out =
                play(core, {{in[0].begin(), in[0].begin() + 6000}, {in[1].begin(), in[1].begin() + 6000}},
                     nextBlockSize, 6);
            core.setBypassed(true);
            const Audio rest =
                play(core, {{in[0].begin() + 6000, in[0].end()}, {in[1].begin() + 6000, in[1].end()}},
                     nextBlockSize, 6);
            for (std::size_t c = 0; c < out.size(); ++c)
                out[c].insert(out[c].end(), rest[c].begin(), rest[c].end());
            return out;
        };
        const Audio whole = playIn(inBlocksOf(6000));
        EXPECT_EQ(playIn(inRandomBlocks(1, 300)), whole);
        EXPECT_EQ(playIn(inRandomBlocks(2, 5000)), whole);
    }
}

TEST_F(PluginCoreTest, bypassIsTheInputEquallyLateAndDoesNotClick) {
    PluginCore core({.numOfBusOutputs = 2});
    core.requestModel(models.write(quarter));
    core.setLevel(0, PluginCore::lowestLevel);
    core.activate(48000.0);
    const Audio in = makeSine(48000);
    const auto latency = static_cast<std::size_t>(core.getLatency());
    const Audio out = play(core, in, inRandomBlocks(3, 500), 6,
                           [&](int start) { core.setBypassed(start / 8000 % 2 == 1); });
    EXPECT_LT(getSharpestBend(out, latency + 2000), softBend);
    const Audio late = delay(in, core.getLatency());
    for (std::size_t i = 8000 + 1500; i < 16000; ++i) {
        ASSERT_EQ(out[0][i], late[0][i]);
        ASSERT_EQ(out[2][i], 0.0f) << "the first bus";
        ASSERT_EQ(out[4][i], late[0][i]) << "the residual";
    }
}

TEST_F(PluginCoreTest, automationMovesWithoutSteps) {
    PluginCore core({});
    core.requestModel(models.write({.channels = 2, .busGains = {0.5f}}));
    core.activate(48000.0);
    std::mt19937 random(1);
    const Audio out = play(core, makeSine(48000), inBlocksOf(512), 2, [&](int) {
        core.setLevel(0, static_cast<float>(random() % 30) - 24.0f);
        core.setSensitivity(1, static_cast<float>(random() % 60) - 30.0f);
    });
    EXPECT_LT(getSharpestBend(out, static_cast<std::size_t>(core.getLatency()) + 2000), 2 * softBend);
}

TEST_F(PluginCoreTest, anotherModelFadesInOrWaitsForTheHost) {
    const std::string first = models.write(quarter), damaged = models.folder.makeFile("damaged", {1, 2, 3});
    TestModel half = quarter;
    half.busGains = {0.5f};
    TestModel later = half;
    later.delay = 20;
    const std::string same = models.write(half), other = models.write(later);
    for (bool takesAnyLatency : {false, true}) {
        PluginCore core({.takesAnyLatency = takesAnyLatency});
        core.requestModel(first);
        core.setLevel(1, PluginCore::lowestLevel);
        core.activate(48000.0);
        const int latency = core.getLatency();
        const Audio in = makeSine(40000);
        // Asked for on the audio thread, brought by the worker, in the middle of what plays.
        const auto playWith = [&](const std::string& model) {
            return play(core, in, inBlocksOf(480), 2, [&](int start) {
                if (start != 9600) return;
                ASSERT_TRUE(core.requestModel(model));
                EXPECT_TRUE(core.needsWork());
                EXPECT_EQ(core.getStatus(), Status::Loading);
                core.work();
            });
        };
        const auto expectEnd = [&](const Audio& out, double factor) {
            const Audio late = delay(in, core.getLatency());
            for (std::size_t i = 30000; i < 40000; ++i)
                ASSERT_NEAR(out[0][i], factor * late[0][i], 1e-3) << i;
            EXPECT_LT(getSharpestBend(out, static_cast<std::size_t>(core.getLatency()) + 2000), softBend);
        };
        expectEnd(playWith(same), 0.5);
        EXPECT_EQ(core.getLatency(), latency);
        EXPECT_TRUE(core.needsWork()) << "the old one is to be freed";
        core.work();
        EXPECT_FALSE(core.needsWork());
        const Audio out = playWith(other);
        if (takesAnyLatency) {
            EXPECT_GT(core.getLatency(), latency);
            expectEnd(out, 0.5);
        } else {
            EXPECT_EQ(core.getLatency(), latency);
            expectEnd(out, 0.5);
            ASSERT_TRUE(core.getNextLatency());
            const int next = *core.getNextLatency();
            core.deactivate();
            core.activate(48000.0);
            EXPECT_EQ(core.getLatency(), next);
            EXPECT_FALSE(core.getNextLatency());
            expectEnd(play(core, in, inBlocksOf(480)), 0.5);
        }
        // What cannot be opened lets audio pass, as late as before.
        const int before = core.getLatency();
        for (const auto& [path, status] :
             {std::pair(damaged, Status::Broken), {"unheard-of", Status::Missing}}) {
            const Audio passed = playWith(path);
            EXPECT_EQ(core.getLatency(), before);
            EXPECT_EQ(core.getStatus(), status);
            EXPECT_THAT(core.getMessage(), testing::HasSubstr(path));
            const Audio late = delay(in, before);
            for (std::size_t i = 30000; i < 40000; ++i) ASSERT_EQ(passed[0][i], late[0][i]);
            core.work();
        }
        expectEnd(playWith(other), 0.5);
    }
}

TEST_F(PluginCoreTest, audioPassesWhereThereIsNoModel) {
    for (const char* model : {"", "/nowhere/model"}) {
        PluginCore core({.numOfBusOutputs = 1});
        core.requestModel(model);
        core.activate(44100.0);
        Audio in = makeNoise(2, 3000, 4);
        const Audio out = play(core, in, inRandomBlocks(1, 100), 4);
        EXPECT_EQ(Audio({out[0], out[1]}), in);
        EXPECT_EQ(core.getLatency(), 0);
        EXPECT_EQ(core.getStatus(), *model ? Status::Missing : Status::None);
        in[0][7] = std::numeric_limits<float>::quiet_NaN();
        EXPECT_EQ(play(core, in, inBlocksOf(3000), 4)[0][7], 0.0f);
    }
}

TEST_F(PluginCoreTest, theAudioThreadAsksForNothing) {
    const std::string paths[] = {models.write(quarter), models.write({.channels = 2, .busGains = {0.5f}})};
    for (double rate : {44100.0, 48000.0})
        for (int numOfBusOutputs : {0, 2}) {
            PluginCore core({.numOfBusOutputs = numOfBusOutputs, .changesModels = true});
            core.requestModel(paths[0]);
            core.activate(rate);
            const Audio in = makeNoise(2, 1024, 5);
            Audio out = makeNoise(2 + 2 * numOfBusOutputs, 1024, 6);
            const float* const from[] = {in[0].data(), in[1].data()};
            std::vector<float*> to;
            for (auto& row : out) to.push_back(row.data());
            int numOfSwaps = 0;
            const Watch watch = runOnAudioThread([&] {
                for (int round = 0; round < 40; ++round)
                    for (int size : {32, 0, 64, 100, 128, 256, 512, 1024}) {
                        core.setLevel(round % 2, static_cast<float>(-round));
                        core.setSensitivity(round % 2, static_cast<float>(round));
                        core.setBypassed(round % 10 > 7);
                        if (size == 64 && round % 13 == 5) numOfSwaps += core.requestModel(paths[round % 2]);
                        if (size == 0 && round == 20) core.reset();
                        core.process(from, to.data(), size);
                        // Gives the worker time as a sound card does, without asking the system for it.
                        if (round % 13 == 5)
                            while (core.getStatus() == Status::Loading) core.process(from, to.data(), 32);
                    }
            });
            EXPECT_TRUE(isQuiet(watch));
            EXPECT_GE(numOfSwaps, 3);
        }
}

TEST_F(PluginCoreTest, projectsMeanModelsByNameAndChecksum) {
    const std::string path = models.write(quarter), folder = models.folder.getPath("library");
    std::filesystem::create_directories(folder);
    const char* const before = std::getenv("ZEVRANT_MODEL_PATH");
    const std::string saved = before ? before : "";
    setenv("ZEVRANT_MODEL_PATH", folder.c_str(), 1);
    std::filesystem::copy(path, folder + "/mine.zevrant");
    const ModelReference reference = makeReference(folder + "/mine.zevrant");
    EXPECT_EQ(reference.name, "mine");
    EXPECT_EQ(ModelReference::fromText(reference.getText()).checksum, reference.checksum);
    EXPECT_EQ(findModelFile(reference), folder + "/mine.zevrant");
    EXPECT_EQ(findModelFile("mine"), folder + "/mine.zevrant");
    std::filesystem::rename(folder + "/mine.zevrant", folder + "/yours.zevrant");
    EXPECT_EQ(findModelFile(reference), folder + "/yours.zevrant") << "the same under another name";
    std::filesystem::copy(models.write({.channels = 2}), folder + "/mine.zevrant");
    EXPECT_EQ(findModelFile(reference), folder + "/yours.zevrant") << "another one under this name";
    std::filesystem::remove(folder + "/yours.zevrant");
    EXPECT_EQ(findModelFile(reference), folder + "/mine.zevrant") << "another version";
    std::filesystem::remove(folder + "/mine.zevrant");
    EXPECT_EQ(findModelFile(reference), "");
    before ? setenv("ZEVRANT_MODEL_PATH", saved.c_str(), 1) : unsetenv("ZEVRANT_MODEL_PATH");
}

}  // namespace
}  // namespace zevrant
