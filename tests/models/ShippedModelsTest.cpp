#include "models/ShippedModels.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numbers>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "PlainSeparation.h"
#include "interface/AudioHost.h"

namespace zevrant::models {
namespace {

namespace fs = std::filesystem;
using plain::Channels;

constexpr double sampleRate = 48000.0;

std::string getPath(const std::string& model) {
    return (fs::path(MODELS_FOLDER) / (model + ".zevrant")).string();
}

Channels toDouble(const Audio& audio) {
    Channels result;
    for (const auto& row : audio) result.emplace_back(row.begin(), row.end());
    return result;
}

Audio makeSilence(std::size_t length) {
    return Audio(2, std::vector<float>(length, 0.0f));
}

Audio add(const Audio& a, const Audio& b, float factor = 1.0f) {
    Audio sum = a;
    for (std::size_t c = 0; c < sum.size(); ++c)
        for (std::size_t i = 0; i < sum[c].size(); ++i) sum[c][i] += factor * b[c][i];
    return sum;
}

// Alike on both channels: partials of a low note, and a quieter tone that comes and goes with the seconds.
Audio makeTones(std::size_t length) {
    Audio audio = makeSilence(length);
    for (std::size_t i = 0; i < length; ++i) {
        const double time = static_cast<double>(i) / sampleRate;
        double sum =
            0.1 * std::sin(2.0 * std::numbers::pi * 1234.5 * time) * std::sin(std::numbers::pi * time);
        for (int partial = 1; partial <= 8; ++partial)
            sum += 0.2 / partial * std::sin(2.0 * std::numbers::pi * 220.0 * partial * time + partial);
        audio[0][i] = audio[1][i] = static_cast<float>(sum);
    }
    return audio;
}

// Alike on both channels: bursts of noise that die away within milliseconds, three in a second.
Audio makeClicks(std::size_t length) {
    Audio audio = makeNoise(1, static_cast<int>(length), 7, 0.5f);
    for (std::size_t i = 0; i < length; ++i)
        audio[0][i] *= static_cast<float>(std::exp(-static_cast<double>((i + 5000) % 16000) / 150.0));
    return {audio[0], audio[0]};
}

// One bus of all that a model makes of the audio, or, for -1, their sum.
Audio separate(const std::string& model, const Audio& audio, int bus) {
    AudioHost host{zevrantCreateProcessor(getPath(model).c_str(), 2, sampleRate), 2};
    EXPECT_NE(host.handle, nullptr) << model;
    if (!host.handle) return audio;
    for (int other = 0; other < zevrantGetNumOfOutputBusses(host.handle.get()); ++other)
        if (bus >= 0 && other != bus) zevrantSetParameterValue(host.handle.get(), 256 + other, 0.0f);
    ProcessorInfo info{};
    zevrantGetProcessorInfo(host.handle.get(), &info);
    Audio padded = audio;
    for (auto& row : padded) row.resize(row.size() + static_cast<std::size_t>(info.latency), 0.0f);
    Audio result = host.stream(padded, inBlocksOf(500));
    for (auto& row : result) row.resize(audio[0].size());
    return result;
}

// How much closer to the truth a bus is than the mixture, in decibels.
double calcImprovement(const std::string& model, const Audio& truth, const Audio& rest, int bus) {
    const Audio mixture = add(truth, rest);
    return plain::calcSignalToDistortion(toDouble(separate(model, mixture, bus)), toDouble(truth)) -
           plain::calcSignalToDistortion(toDouble(mixture), toDouble(truth));
}

// What docs/models.md promises of models that learned: names of busses, and the longest latency.
struct TrainedModel {
    std::string name;
    std::vector<std::string> busses;
    double latency;  // seconds
};
const std::vector<TrainedModel> trainedModels = {{"drums", {"Drums", "Rest"}, 0.055},
                                                 {"band", {"Drums", "Bass", "Rest"}, 0.075},
                                                 {"speech", {"Speech", "Background"}, 0.032},
                                                 {"speech-fast", {"Speech", "Background"}, 0.012}};

TEST(ShippedModels, everyFileIsGeneratedOrHasACheckpoint) {
    std::set<std::string> names;
    for (const auto& [fileName, description] : describeShippedModels()) {
        names.insert(fileName);
        std::ifstream file(fs::path(MODELS_FOLDER) / fileName, std::ios::binary);
        const modelwriter::Bytes committed{std::istreambuf_iterator<char>(file), {}};
        EXPECT_TRUE(committed == description.toBytes())
            << fileName << " differs: run zevrant_models on the folder of the models";
    }
    for (const TrainedModel& model : trainedModels) {
        const auto checkpoint = fs::path(MODELS_FOLDER) / "../training/checkpoints" / (model.name + ".pt");
        EXPECT_EQ(fs::exists(getPath(model.name)), fs::exists(checkpoint)) << model.name;
        names.insert(model.name + ".zevrant");
    }
    for (const auto& entry : fs::directory_iterator(MODELS_FOLDER)) {
        const fs::path& path = entry.path();
        EXPECT_TRUE(path.extension() != ".zevrant" || names.count(path.filename().string()))
            << path << " has no generator, and is not told to be trained";
    }
}

// ---- against the plain computation -----------------------------------------------------------

// The engine in single precision and in a stream, and the whole recording at once in double precision with
// the engine's windows. At the end the engine sees silence where the recording ends, so a second of it is
// appended.
TEST(ShippedModels, theStreamIsThePlainComputation) {
    constexpr std::size_t length = 3 * 48000;
    Audio audio = add(makeTones(length), makeClicks(length));
    audio = add(audio, makeNoise(2, static_cast<int>(length), 11, 0.05f));
    for (auto& row : audio) row.resize(length + 48000, 0.0f);
    const plain::Framing framing{.size = 4096, .hop = 1024, .isShort = true};
    const plain::Spectrogram spectrogram = plain::analyse(toDouble(audio), framing);
    const struct {
        const char* name;
        plain::Plane mask;
    } cases[] = {{"harmonic-percussive", plain::calcHarmonicMask(spectrogram)},
                 {"center-sides", plain::calcCenterMask(spectrogram)},
                 {"hiss-reduction", plain::calcCleanMask(spectrogram, 0)}};
    for (const auto& [name, mask] : cases) {
        Audio stream = separate(name, audio, 0);
        Channels expected = plain::applyMask(toDouble(audio), mask, framing);
        double error = 0.0, power = 0.0;
        for (std::size_t c = 0; c < 2; ++c)
            for (std::size_t i = 0; i < length; ++i) {
                error += std::pow(stream[c][i] - expected[c][i], 2);
                power += std::pow(expected[c][i], 2);
            }
        const double difference = 10.0 * std::log10(error / power);
        EXPECT_LT(difference, -120.0) << name;  // measured: -135
    }
}

// What the models are for, on signals that are plainly the one or the other. The bounds stand 1 dB below
// what was measured.

TEST(ShippedModels, tonesAndClicksComeApart) {
    const Audio tones = makeTones(4 * 48000), clicks = makeClicks(4 * 48000);
    EXPECT_GT(calcImprovement("harmonic-percussive", tones, clicks, 0), 5.5);
    EXPECT_GT(calcImprovement("harmonic-percussive", clicks, tones, 1), 25.0);
}

TEST(ShippedModels, trainedModelsKeepTheirPromises) {
    const Audio tones = makeTones(2 * 48000), clicks = makeClicks(2 * 48000), mixture = add(tones, clicks);
    for (const auto& [name, busses, latency] : trainedModels) {
        if (!fs::exists(getPath(name))) continue;
        SCOPED_TRACE(name);
        EXPECT_LT(fs::file_size(getPath(name)), 3'000'000u);
        const AudioHost host{zevrantCreateProcessor(getPath(name).c_str(), 2, sampleRate), 2};
        ASSERT_NE(host.handle, nullptr);
        ProcessorInfo info{};
        zevrantGetProcessorInfo(host.handle.get(), &info);
        EXPECT_LE(info.latency, latency * sampleRate);
        ASSERT_EQ(zevrantGetNumOfOutputBusses(host.handle.get()), static_cast<int>(busses.size()));
        for (std::size_t bus = 0; bus < busses.size(); ++bus) {
            char text[64];
            zevrantGetOutputBusName(host.handle.get(), static_cast<int>(bus), text, sizeof text);
            EXPECT_EQ(text, busses[bus]);
        }
        EXPECT_LT(calcDifference(separate(name, mixture, -1), mixture), -100.0);
        const Audio silence = makeSilence(48000);
        EXPECT_EQ(separate(name, silence, 0), silence);
        if (busses[0] != "Drums") continue;
        EXPECT_GT(calcImprovement(name, clicks, tones, 0), 15.0);
        EXPECT_GT(calcImprovement(name, tones, clicks, static_cast<int>(busses.size()) - 1), 0.0);
    }
}

TEST(ShippedModels, theMiddleAndTheSidesComeApart) {
    const Audio middle = makeTones(4 * 48000), sides = makeNoise(2, 4 * 48000, 9, 0.3f);
    EXPECT_GT(calcImprovement("center-sides", middle, sides, 0), 13.6);
    EXPECT_GT(calcImprovement("center-sides", sides, middle, 1), 14.4);
}

TEST(ShippedModels, hissGoesAndSoundStays) {
    const Audio tones = makeTones(4 * 48000), hiss = makeNoise(2, 4 * 48000, 9, 0.05f);
    EXPECT_GT(calcImprovement("hiss-reduction", tones, hiss, 0), 4.2);
    EXPECT_GT(calcImprovement("hiss-reduction", hiss, tones, 1), 22.4);
    const Audio clean = separate("hiss-reduction", tones, 0);
    EXPECT_GT(plain::calcSignalToDistortion(toDouble(clean), toDouble(tones)), 70.0);
}

}  // namespace
}  // namespace zevrant::models
