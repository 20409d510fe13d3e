// Builds on the example program: a real file through a model from disk, seen from outside.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "AudioHost.h"

namespace zevrant {
namespace {

// A WAV file of 16-bit, 24-bit or float samples, with a chunk before the samples that readers skip.
std::string makeWav(const Audio& audio, int bytesPerSample, bool isFloat) {
    std::string samples;
    const auto put = [](std::string& text, std::uint32_t value, int numOfBytes) {
        for (int i = 0; i < numOfBytes; ++i) text += static_cast<char>(value >> 8 * i);
    };
    for (std::size_t i = 0; i < audio[0].size(); ++i)
        for (const auto& row : audio) {
            std::uint32_t bits;
            std::memcpy(&bits, &row[i], sizeof bits);
            const double scale = std::ldexp(1.0, 8 * bytesPerSample - 1);
            put(samples, isFloat ? bits : static_cast<std::uint32_t>(std::lrint(row[i] * scale)),
                bytesPerSample);
        }
    const auto channels = static_cast<std::uint32_t>(audio.size());
    const auto bytes = static_cast<std::uint32_t>(bytesPerSample),
               size = static_cast<std::uint32_t>(samples.size());
    std::string wav = "RIFF";
    put(wav, 36 + 14 + size, 4);
    wav += "WAVELIST";
    put(wav, 5, 4);
    wav += std::string("abcde\0", 6) + "fmt ";
    put(wav, 16, 4);
    put(wav, isFloat ? 3 : 1, 2);
    put(wav, channels, 2);
    put(wav, 48000, 4);
    put(wav, 48000 * channels * bytes, 4);
    put(wav, channels * bytes, 2);
    put(wav, 8 * bytes, 2);
    wav += "data";
    put(wav, size, 4);
    return wav + samples;
}

Audio readFloatWav(const std::string& wav, std::size_t numOfChannels) {
    Audio audio(numOfChannels);
    for (std::size_t at = 44, i = 0; at + 4 <= wav.size(); at += 4, ++i) {
        float value;
        std::memcpy(&value, wav.data() + at, sizeof value);
        audio[i % numOfChannels].push_back(value);
    }
    return audio;
}

// Runs a program and returns what it printed; fails the test unless it ends with success.
std::string run(const std::string& command) {
    std::string text;
    std::FILE* pipe = popen(command.c_str(), "r");
    char line[256];
    while (std::fgets(line, sizeof line, pipe)) text += line;
    EXPECT_EQ(pclose(pipe), 0) << command << "\n" << text;
    return text;
}

TEST(Example, streamsWavFilesThroughAModel) {
    ModelFolder models;
    TestModel description{.channels = 2, .delay = 3, .busGains = {0.75f}, .names = {"Voice", "Rest"}};
    description.constantMasks = true;
    const std::string model = models.write(description);
    const std::string in = models.folder.getPath("in.wav"), out = models.folder.getPath("out.wav");
    const std::string program = std::string(STREAM_FILE) + " " + model + " " + in + " " + out;
    const struct {
        int channels, bytesPerSample;
        bool isFloat;
        double tolerance;  // decibels, from the rounding of the file's integers
    } formats[] = {{1, 4, true, -100.0}, {2, 2, false, -75.0}, {2, 3, false, -100.0}};
    for (const auto& [channels, bytesPerSample, isFloat, tolerance] : formats) {
        const Audio audio = makeNoise(channels, 10007, 1);
        models.folder.makeFile("in.wav", makeWav(audio, bytesPerSample, isFloat));
        const std::string text = run(program);
        EXPECT_NE(text.find("latency 384 samples"), std::string::npos) << text;
        EXPECT_NE(text.find("bus 0: Voice, gain 1.00"), std::string::npos) << text;
        EXPECT_NE(text.find("bus 1: Rest, gain 1.00"), std::string::npos) << text;
        const Audio back = readFloatWav(models.folder.readFile("out.wav"), audio.size());
        ASSERT_EQ(back.back().size(), 10007u);
        EXPECT_LT(calcDifference(back, audio), tolerance);

        // The rest, a quarter of the input, taken out.
        EXPECT_NE(run(program + " 1 0").find("bus 1: Rest, gain 0.00"), std::string::npos);
        const Audio voice = readFloatWav(models.folder.readFile("out.wav"), audio.size());
        EXPECT_LT(calcDifference(voice, audio, 0.75), tolerance);
    }
}

}  // namespace
}  // namespace zevrant
