// The example programs, seen from outside: real audio through a model from disk.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "AudioHost.h"
#include "cli/Sound.h"

namespace zevrant {
namespace {

// Runs a program and returns what it printed; fails the test unless it ends with success.
std::string run(const std::string& command) {
    std::string text;
    std::FILE* pipe = popen(command.c_str(), "r");
    char line[256];
    while (std::fgets(line, sizeof line, pipe)) text += line;
    EXPECT_EQ(pclose(pipe), 0) << command << "\n" << text;
    return text;
}

std::string toBytes(const Sound& sound, int first, int behind) {
    return {reinterpret_cast<const char*>(&sound.values[static_cast<std::size_t>(first * sound.channels)]),
            reinterpret_cast<const char*>(sound.values.data() + behind * sound.channels)};
}

// Sample by sample behind the first ones, as many as there are.
Sound fromBytes(const std::string& bytes, int first) {
    Sound sound{.channels = 2};
    sound.values.resize(bytes.size() / sizeof(float) - static_cast<std::size_t>(2 * first));
    std::memcpy(sound.values.data(), bytes.data() + 2 * static_cast<std::size_t>(first) * sizeof(float),
                sound.values.size() * sizeof(float));
    return sound;
}

constexpr int latency = 384;  // of the model below: three hops of framing, and its delay

class Example : public testing::Test {
  protected:
    std::string at(const std::string& name) const { return models.folder.getPath(name); }

    ModelFolder models;
    const std::string model = models.write(
        {.channels = 2, .delay = 3, .busGains = {0.75f}, .names = {"Voice", "Rest"}, .constantMasks = true});
    const Sound in = makeNoise(2, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 9600);
};

TEST_F(Example, streamsWavFilesThroughAModel) {
    const std::string program =
        std::string(STREAM_FILE) + " " + model + " " + at("in.wav") + " " + at("out.wav");
    const struct {
        int channels, format;
        double tolerance;  // decibels, from the rounding of the file's integers
    } formats[] = {{1, SF_FORMAT_FLOAT, -100.0}, {2, SF_FORMAT_PCM_16, -75.0}, {2, SF_FORMAT_PCM_24, -100.0}};
    for (const auto& [channels, format, tolerance] : formats) {
        Sound audio = makeNoise(channels, 48000, SF_FORMAT_WAV | format, 10007);
        audio.title = "a chunk before the samples";
        write(at("in.wav"), audio);
        const std::string text = run(program);
        for (const char* words : {"latency 384 samples", "bus 0: Voice, gain 1.00", "bus 1: Rest, gain 1.00"})
            EXPECT_NE(text.find(words), std::string::npos) << text;
        EXPECT_LT(calcDifference(read(at("out.wav")), audio), tolerance);
        // The rest, a quarter of the input, taken out.
        EXPECT_NE(run(program + " 1 0").find("bus 1: Rest, gain 0.00"), std::string::npos);
        EXPECT_LT(calcDifference(read(at("out.wav")), audio, 0.75), tolerance);
    }
}

// As many samples out as in, for blocks of any size: silence for as long as the latency, then the input.
TEST_F(Example, aRealtimeHostPlaysTheInputLaterByTheLatency) {
    models.folder.makeFile("in.f32", toBytes(in, 0, 9600));
    for (const int blockSize : {1, 100, 256, 20000}) {
        const std::string text =
            run(std::string(REALTIME_HOST) + " " + model + " " + std::to_string(blockSize) + " 2>&1 <" +
                at("in.f32") + " >" + at("out.f32"));
        EXPECT_NE(text.find("latency 384 samples, 8.0 ms"), std::string::npos) << text;
        const std::string out = models.folder.readFile("out.f32");
        Sound expected = fromBytes(toBytes(in, 0, 9600 - latency), 0);
        EXPECT_LT(calcDifference(fromBytes(out, latency), expected), -100.0) << blockSize;
        ASSERT_EQ(out.size(), in.values.size() * sizeof(float));
        EXPECT_EQ(out.substr(0, latency * 8), std::string(latency * 8, '\0'));
    }
}

// A line that is written to the control file while audio runs: the second half of the input comes when the
// program has told that the gain is there.
TEST_F(Example, aRealtimeHostTurnsAGainWhileAudioRuns) {
    models.folder.makeFile("first.f32", toBytes(in, 0, 4800));
    models.folder.makeFile("second.f32", toBytes(in, 4800, 9600));
    models.folder.makeFile("control");
    run("cd " + models.folder.path +
        " && { cat first.f32; echo 7 1 >> control; echo 1 0 >> control; "
        "until grep -q 'Rest: gain 0.00' err; do sleep 0.01; done; cat second.f32; } 2>/dev/null | " +
        REALTIME_HOST + " " + model + " 256 control 2>err >out.f32");
    EXPECT_NE(models.folder.readFile("err").find("not a bus and a gain: 7 1"), std::string::npos);
    const std::string out = models.folder.readFile("out.f32");
    ASSERT_EQ(out.size(), in.values.size() * sizeof(float));
    // The pipe hands the first half on before the gain falls, or after that, and the frames around it are
    // mixed.
    Sound expected = fromBytes(toBytes(in, 4800, 9600 - latency), 0);
    EXPECT_LT(calcDifference(fromBytes(out, 4800 + latency), expected, 0.75), -100.0);
}

// One file per bus, which add up to the input at every rate; the model by path or by name.
TEST_F(Example, streamsStemsThatAddUpToTheInput) {
    for (const int rate : {48000, 44100}) {
        const Sound audio = makeNoise(2, rate, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 10007);
        write(at("in.wav"), audio);
        for (const std::string& name : {model, std::string("center-sides")}) {
            SCOPED_TRACE(name + " at " + std::to_string(rate));
            const std::string text =
                run(std::string(STREAM_STEMS) + " " + name + " " + at("in.wav") + " " + at("bus"));
            EXPECT_NE(text.find("bus1.wav: "), std::string::npos) << text;
            Sound sum = read(at("bus0.wav"));
            const Sound rest = read(at("bus1.wav"));
            ASSERT_EQ(rest.values.size(), 2u * 10007u);
            for (std::size_t i = 0; i < sum.values.size(); ++i) sum.values[i] += rest.values[i];
            EXPECT_LT(calcDifference(sum, audio), -100.0);
        }
    }
}

// The bus that stays has the input's quarter; then another model comes, at another latency.
TEST_F(Example, aRealtimeSeparationTurnsLevelsAndChangesTheModelWhileAudioRuns) {
    const Sound sound = makeNoise(2, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 24000);
    models.folder.makeFile("first.f32", toBytes(sound, 0, 4800));
    models.folder.makeFile("second.f32", toBytes(sound, 4800, 24000));
    models.folder.makeFile("control");
    run("cd " + models.folder.path +
        " && { cat first.f32; echo level 0 -144 >> control; echo level 9 0 >> control; "
        "until grep -q 'no bus 9' err; do sleep 0.01; done; cat second.f32; "
        "echo model center-sides >> control; until grep -q 'latency 4096' err; do sleep 0.01; done; "
        "cat second.f32; } 2>/dev/null | " +
        REALTIME_SEPARATION + " " + model + " 48000 256 control 2>err >out.f32");
    EXPECT_NE(models.folder.readFile("err").find("latency 384 samples"), std::string::npos);
    const std::string out = models.folder.readFile("out.f32");
    ASSERT_EQ(out.size(), (24000 + 19200) * 2 * sizeof(float));
    const auto heard = [&](int first, int behind) {
        return fromBytes(out.substr(0, static_cast<std::size_t>(behind) * 2 * sizeof(float)), first);
    };
    const auto expected = [&](int first, int behind) { return fromBytes(toBytes(sound, first, behind), 0); };
    EXPECT_LT(calcDifference(heard(7200 + latency, 14000), expected(7200, 14000 - latency), 0.25), -100.0);
    EXPECT_LT(calcDifference(heard(38400, 43200), expected(19200 - 4096, 24000 - 4096)), -100.0);
}

}  // namespace
}  // namespace zevrant
