// The example programs, seen from outside: real audio through a model from disk.
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

Audio readFloats(const std::string& bytes, std::size_t start, std::size_t numOfChannels) {
    Audio audio(numOfChannels);
    for (std::size_t at = start, i = 0; at + 4 <= bytes.size(); at += 4, ++i) {
        float value;
        std::memcpy(&value, bytes.data() + at, sizeof value);
        audio[i % numOfChannels].push_back(value);
    }
    return audio;
}

Audio readFloatWav(const std::string& wav, std::size_t numOfChannels) {
    return readFloats(wav, 44, numOfChannels);
}

std::string makeRaw(const Audio& audio) {
    std::string bytes;
    for (std::size_t i = 0; i < audio[0].size(); ++i)
        for (const auto& row : audio) bytes.append(reinterpret_cast<const char*>(&row[i]), sizeof row[i]);
    return bytes;
}

// The samples from start on, or as many as there are before end.
Audio cut(Audio audio, std::ptrdiff_t start, std::ptrdiff_t end) {
    for (auto& row : audio) row = {row.begin() + start, row.begin() + end};
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

constexpr std::ptrdiff_t latency = 384;  // of the model below: three hops of framing, and its delay

std::string writeTwoBusses(const ModelFolder& models) {
    TestModel description{.channels = 2, .delay = 3, .busGains = {0.75f}, .names = {"Voice", "Rest"}};
    description.constantMasks = true;
    const std::string path = models.folder.getPath("two-busses.model");
    describeModel(description).write(path);
    return path;
}

TEST(Example, streamsWavFilesThroughAModel) {
    const ModelFolder models;
    const std::string model = writeTwoBusses(models);
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

// As many samples out as in, for blocks of any size: silence for as long as the latency, then the input.
TEST(RealtimeHost, playsTheInputLaterByTheLatency) {
    const ModelFolder models;
    const std::string model = writeTwoBusses(models);
    const Audio in = makeNoise(2, 10007, 1);
    const std::string input = models.folder.makeFile("in.f32", makeRaw(in));
    for (const int blockSize : {1, 100, 256, 20000}) {
        SCOPED_TRACE(blockSize);
        const std::string output = models.folder.getPath("out.f32");
        const std::string text = run(std::string(REALTIME_HOST) + " " + model + " " +
                                     std::to_string(blockSize) + " 2>&1 <" + input + " >" + output);
        EXPECT_NE(text.find("latency 384 samples, 8.0 ms"), std::string::npos) << text;
        const Audio out = readFloats(models.folder.readFile("out.f32"), 0, 2);
        ASSERT_EQ(out[1].size(), in[1].size());
        EXPECT_EQ(cut(out, 0, latency), Audio(2, std::vector<float>(latency)));
        EXPECT_LT(calcDifference(cut(out, latency, 10007), in), -100.0);
    }
}

// A line that is written to the control file while audio runs: the second half of the input comes when the
// program has told that the gain is there.
TEST(RealtimeHost, turnsAGainWhileAudioRuns) {
    const ModelFolder models;
    const std::string model = writeTwoBusses(models);
    const Audio in = makeNoise(2, 9600, 1);
    models.folder.makeFile("first.f32", makeRaw(cut(in, 0, 4800)));
    models.folder.makeFile("second.f32", makeRaw(cut(in, 4800, 9600)));
    models.folder.makeFile("control");
    run("cd " + models.folder.path +
        " && { cat first.f32; echo 7 1 >> control; echo 1 0 >> control; "
        "until grep -q 'Rest: gain 0.00' err; do sleep 0.01; done; cat second.f32; } 2>/dev/null | " +
        REALTIME_HOST + " " + model + " 256 control 2>err >out.f32");
    EXPECT_NE(models.folder.readFile("err").find("not a bus and a gain: 7 1"), std::string::npos);
    const Audio out = readFloats(models.folder.readFile("out.f32"), 0, 2);
    ASSERT_EQ(out[1].size(), in[1].size());
    // The pipe hands the first half on before the gain falls, or after that, and the frames around it are
    // mixed.
    EXPECT_LT(calcDifference(cut(out, 4800 + latency, 9600), cut(in, 4800, 9600), 0.75), -100.0);
}

// One file per bus, which add up to the input at every rate; the model by path or by name.
TEST(StreamStems, writesBussesThatAddUpToTheInput) {
    const ModelFolder models;
    const Audio audio = makeNoise(2, 10007, 1);
    std::string wav = makeWav(audio, 4, true);
    models.folder.makeFile("48000.wav", wav);
    wav[wav.find("fmt ") + 12] = 0x44, wav[wav.find("fmt ") + 13] = static_cast<char>(0xac);
    models.folder.makeFile("44100.wav", wav);
    for (const char* rate : {"48000", "44100"})
        for (const std::string& model : {writeTwoBusses(models), std::string("center-sides")}) {
            SCOPED_TRACE(model + " at " + rate);
            const std::string prefix = models.folder.getPath("bus");
            const std::string text = run(std::string(STREAM_STEMS) + " " + model + " " +
                                         models.folder.getPath(std::string(rate) + ".wav") + " " + prefix);
            EXPECT_NE(text.find("bus1.wav: "), std::string::npos) << text;
            Audio sum = readFloatWav(models.folder.readFile("bus0.wav"), 2);
            const Audio rest = readFloatWav(models.folder.readFile("bus1.wav"), 2);
            ASSERT_EQ(rest[1].size(), 10007u);
            for (std::size_t c = 0; c < 2; ++c)
                for (std::size_t i = 0; i < sum[c].size(); ++i) sum[c][i] += rest[c][i];
            EXPECT_LT(calcDifference(sum, audio), -100.0);
        }
}

// The bus that stays has the input's quarter; then another model comes, at another latency.
TEST(RealtimeSeparation, turnsLevelsAndChangesTheModelWhileAudioRuns) {
    const ModelFolder models;
    const std::string model = writeTwoBusses(models);
    const Audio in = makeNoise(2, 24000, 1);
    models.folder.makeFile("first.f32", makeRaw(cut(in, 0, 4800)));
    models.folder.makeFile("second.f32", makeRaw(cut(in, 4800, 24000)));
    models.folder.makeFile("control");
    run("cd " + models.folder.path +
        " && { cat first.f32; echo level 0 -144 >> control; echo level 9 0 >> control; "
        "until grep -q 'no bus 9' err; do sleep 0.01; done; cat second.f32; "
        "echo model center-sides >> control; until grep -q 'latency 4096' err; do sleep 0.01; done; "
        "cat second.f32; } 2>/dev/null | " +
        REALTIME_SEPARATION + " " + model + " 48000 256 control 2>err >out.f32");
    EXPECT_NE(models.folder.readFile("err").find("latency 384 samples"), std::string::npos);
    const Audio out = readFloats(models.folder.readFile("out.f32"), 0, 2);
    ASSERT_EQ(out[1].size(), 24000u + 19200u);
    EXPECT_LT(calcDifference(cut(out, 7200 + latency, 14000), cut(in, 7200, 14000), 0.25), -100.0);
    EXPECT_LT(calcDifference(cut(out, 38400, 43200), cut(in, 19200 - 4096, 24000 - 4096)), -100.0);
}

}  // namespace
}  // namespace zevrant
