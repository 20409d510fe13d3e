#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "Program.h"
#include "Sound.h"
#include "TestModels.h"
#include "files/TemporaryFolder.h"

namespace zevrant {
namespace {

using testing::HasSubstr;

class ProcessTest : public testing::Test {
  protected:
    std::string makeModel(const TestModel& model, const std::string& name = "model.zevrant") {
        describeModel(model).write(folder.getPath(name));
        return folder.getPath(name);
    }

    // The result of a run that has to succeed in silence.
    Sound process(const std::string& input, const std::string& model,
                  const std::vector<std::string>& options = {}, const std::string& output = "out.wav") {
        std::vector<std::string> arguments{"process", input, "-m", model, "-o", folder.getPath(output)};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.err + outcome.out, "");
        return read(folder.getPath(output));
    }

    TemporaryFolder folder;
};

struct Kind {
    const char* name;
    int channels, sampleRate, format;
};
const Kind kinds[] = {
    {"8 kHz mono.wav", 1, 8000, SF_FORMAT_WAV | SF_FORMAT_PCM_16},
    {"44.1 kHz stereo.flac", 2, 44100, SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
    {"96 kHz six channels.wav", 6, 96000, SF_FORMAT_WAVEX | SF_FORMAT_PCM_24},
    {"48 kHz floats.wav", 2, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT},
    {"22 kHz.aiff", 3, 22050, SF_FORMAT_AIFF | SF_FORMAT_PCM_24},
    {"8 bits.au", 1, 11025, SF_FORMAT_AU | SF_FORMAT_PCM_S8},
    {"doubles.caf", 2, 32000, SF_FORMAT_CAF | SF_FORMAT_DOUBLE},
};

// Neutral controls give the input back: whole, in its format and at its place, integers bit for bit up to 16
// bits and within a step of 24. What a conversion of the rate loses comes back with the residual.
TEST_F(ProcessTest, neutralControlsGiveTheInputBack) {
    const std::string model = makeModel({.channels = 2, .delay = 3, .busGains = {0.7f, 0.2f}});
    for (const Kind& kind : kinds)
        for (const int length : {1, 777, 20011})
            for (const auto& options :
                 std::vector<std::vector<std::string>>{{},
                                                       {"--resample"},
                                                       {"--block", "37"},
                                                       {"--split", "2", "--resample", "--block", "1000"}}) {
                SCOPED_TRACE(testing::Message() << kind.name << ", " << length << " samples, "
                                                << testing::PrintToString(options));
                const std::string input =
                    write(folder.getPath(kind.name),
                          makeNoise(kind.channels, kind.sampleRate, kind.format, length));
                const std::string output = std::string("out") + std::strrchr(kind.name, '.');
                const Sound before = read(input), after = process(input, model, options, output);
                EXPECT_EQ(after.channels, before.channels);
                EXPECT_EQ(after.sampleRate, before.sampleRate);
                EXPECT_EQ(after.format, before.format);
                ASSERT_EQ(after.length(), length);
                const int sampleFormat = before.format & SF_FORMAT_SUBMASK;
                const bool isExact = sampleFormat == SF_FORMAT_PCM_16 || sampleFormat == SF_FORMAT_PCM_S8;
                for (std::size_t i = 0; i < before.values.size(); ++i)
                    ASSERT_NEAR(after.values[i], before.values[i], isExact ? 0.0 : 0x1p-22) << "value " << i;
            }
}

// Constant masks make the chain a plain factor of the bus, so that the place can be told to a part of a
// sample: a lag of a tenth of one would leave a difference of -20 dB at the highest tones.
TEST_F(ProcessTest, aBusKeepsThePlaceToAPartOfASample) {
    for (const int delay : {0, 5}) {
        const std::string model =
            makeModel({.channels = 1, .delay = delay, .busGains = {0.5f}, .constantMasks = true});
        for (const int sampleRate : {8000, 44100, 48000, 96000}) {
            const Sound tones = makeTones(2, sampleRate, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 20000,
                                          0.35 * std::min(sampleRate, 48000));
            const std::string input = write(folder.getPath("in.wav"), tones);
            EXPECT_LT(calcDifference(process(input, model, {"--solo", "0"}), tones, 0.5, 2000), -90.0);
            EXPECT_LT(calcDifference(process(input, model, {"--solo", "0", "--resample"}), tones, 0.5, 2000),
                      -90.0)
                << sampleRate << " Hz, delay " << delay;
        }
    }
}

TEST_F(ProcessTest, controlsReachTheirBusses) {
    const std::string model = makeModel({.channels = 2,
                                         .busGains = {0.5f, 0.125f},
                                         .names = {"Voice", "Bass", "Rest"},
                                         .constantMasks = true});
    const double bent = 0.5 * std::pow(0.5 - 0.5 * std::cos(M_PI * 0.5), std::exp(0.0075 * 60.0) - 1.0);
    const double lifted = 0.375 * std::pow(0.375, std::exp(0.0075 * -40.0) - 1.0);
    const struct {
        std::vector<std::string> options;
        double gain;
    } cases[] = {
        {{"--gain", "Voice=-6.0206"}, 0.25 + 0.125 + 0.375},
        {{"--gain", "voice=-inf", "--gain", "2=6.0206"}, 0.125 + 0.75},
        {{"--solo", "Bass"}, 0.125},
        {{"--solo", "0", "--solo", "Rest"}, 0.5 + 0.375},
        {{"--solo", "Bass", "--gain", "Bass=20"}, 1.25},
        {{"--solo", "Voice", "--sensitivity", "Voice=60"}, bent},
        {{"--sensitivity", "0=60", "--solo", "Rest"},
         1.0 - 0.125 - bent},  // what bending takes goes to the rest
        {{"--solo", "Rest", "--sensitivity", "Rest=-40"}, lifted},
    };
    const Sound noise = makeNoise(2, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 5000);
    const std::string input = write(folder.getPath("in.wav"), noise);
    for (const auto& [options, gain] : cases)
        EXPECT_LT(calcDifference(process(input, model, options), noise, gain), -100.0)
            << testing::PrintToString(options);
}

TEST_F(ProcessTest, masksGoOnAboveTheModelsBinsOnDemand) {
    using namespace modelwriter;
    const std::string model = folder.getPath("low.zevrant");
    ModelWriter("Low")
        .setFrames(256, 256, 64)
        .setPacking(Packing::magnitudes(33))  // up to 6 kHz
        .addLayer("half", "input", Conv{.weights = {{1, 1, 1, 1}, {0.0f}}, .bias = {{1}, {0.5f}}})
        .setOutput("half")
        .write(model);
    Sound tone{1, 48000};
    for (int i = 0; i < 8000; ++i)
        tone.values.push_back(static_cast<float>(0.5 * std::sin(1.5 * i)));  // 11 kHz
    const std::string input = write(folder.getPath("in.wav"), tone);
    EXPECT_LT(
        calcDifference(process(input, model, {"--solo", "0"}), tone, 0.5 * (1.0 - std::pow(0.98, 33)), 300),
        -40.0);
    EXPECT_LT(calcDifference(process(input, model, {"--solo", "0", "--no-extrapolation"}), tone, 0.0, 300),
              -60.0);
}

// More channels than the model has get the masks of their mono mix, or go through in groups.
TEST_F(ProcessTest, manyChannelsShareMasksOrGoInGroups) {
    const std::string model = makeModel({.channels = 2, .busGains = {0.8f}});
    const int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    const Sound five = makeNoise(5, 48000, format, 6000);
    const std::string input = write(folder.getPath("five.wav"), five);
    const Sound grouped = process(input, model, {"--solo", "0", "--split", "2"}, "grouped.wav");
    const Sound together = process(input, model, {"--solo", "0"}, "together.wav");
    EXPECT_GT(calcDifference(grouped, together), -30.0);
    for (const int first : {0, 2, 4}) {
        const int width = std::min(2, 5 - first);
        Sound part{width, 48000, format};
        for (int i = 0; i < five.length(); ++i)
            for (int c = 0; c < width; ++c) part.values.push_back(five.get(i, first + c));
        const Sound alone = process(write(folder.getPath("part.wav"), part), model, {"--solo", "0"});
        for (int i = 0; i < five.length(); ++i)
            for (int c = 0; c < width; ++c) ASSERT_EQ(alone.get(i, c), grouped.get(i, first + c)) << first;
    }
    // One mask for all channels keeps what is silent silent, and proportions as they are.
    Sound copies{3, 48000, format};
    for (int i = 0; i < five.length(); ++i)
        for (const float factor : {1.0f, -0.5f, 0.0f}) copies.values.push_back(factor * five.get(i, 0));
    const Sound shared = process(write(folder.getPath("copies.wav"), copies), model, {"--solo", "0"});
    for (int i = 0; i < five.length(); ++i) {
        ASSERT_NEAR(shared.get(i, 1), -0.5f * shared.get(i, 0), 1e-6);
        ASSERT_EQ(shared.get(i, 2), 0.0f);
    }
}

TEST_F(ProcessTest, theExtensionChoosesTheFormatAndKeepsTheSampleFormat) {
    const std::string model = makeModel({});
    Sound sound = makeTones(2, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_24, 12000, 4000.0);
    sound.title = "A title";
    const struct {
        int sampleFormat;
        const char* output;
        int expected;
    } cases[] = {
        {SF_FORMAT_PCM_24, "x.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
        {SF_FORMAT_PCM_24, "x.AIFF", SF_FORMAT_AIFF | SF_FORMAT_PCM_24},
        {SF_FORMAT_PCM_16, "x.caf", SF_FORMAT_CAF | SF_FORMAT_PCM_16},
        {SF_FORMAT_PCM_U8, "x.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_S8},
        {SF_FORMAT_PCM_32, "x.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
        {SF_FORMAT_FLOAT, "x.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
        {SF_FORMAT_DOUBLE, "x.w64", SF_FORMAT_W64 | SF_FORMAT_DOUBLE},
        {SF_FORMAT_PCM_16, "x.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
    };
    for (const auto& [sampleFormat, output, expected] : cases) {
        sound.format = SF_FORMAT_WAV | sampleFormat;
        const Sound after = process(write(folder.getPath("in.wav"), sound), model, {}, output);
        EXPECT_EQ(after.format, expected) << output;
        if (output != std::string("x.w64")) {  // has no place for it
            EXPECT_EQ(after.title, sound.title) << output;
        }
        EXPECT_EQ(after.length(), sound.length()) << output;
        EXPECT_LT(calcDifference(after, sound),
                  output == std::string("x.ogg") || sampleFormat == SF_FORMAT_PCM_U8 ? -15.0 : -60.0)
            << output;
    }
    const Sound floats = process(folder.getPath("in.wav"), model, {"--sample-format", "float"});
    EXPECT_EQ(floats.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
}

TEST_F(ProcessTest, loudIntegersAreLimitedAndSaySo) {
    const std::string model = makeModel({});
    const Sound noise = makeNoise(1, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 4000);
    const std::string input = write(folder.getPath("in.wav"), noise);
    const Outcome outcome = run(
        {"process", input, "-m", model, "-o", folder.getPath("out.wav"), "--gain", "0=30", "--gain", "1=30"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.err, HasSubstr("clipped"));
    const Sound after = read(folder.getPath("out.wav"));
    for (std::size_t i = 0; i < noise.values.size(); ++i)
        if (std::abs(noise.values[i]) > 0.1f) {
            ASSERT_EQ(std::signbit(after.values[i]), std::signbit(noise.values[i]));
        }
}

TEST_F(ProcessTest, anEmptyFileStaysEmpty) {
    const std::string input = write(folder.getPath("in.wav"), Sound{2, 44100}), model = makeModel({});
    EXPECT_EQ(process(input, model, {"--quiet"}).length(), 0);
    EXPECT_EQ(process(input, model, {"--quiet", "--resample"}).length(), 0);
    EXPECT_THAT(run({"process", input, "-m", model, "-o", folder.getPath("out.wav")}).err,
                HasSubstr("in.wav: holds no samples"));
}

TEST_F(ProcessTest, aLinkIsFollowedAndAnOldOutputReplaced) {
    const std::string model = makeModel({});
    const Sound noise = makeNoise(1, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 1000);
    const std::string input = write(folder.getPath("in.wav"), noise);
    folder.makeFile("real.wav", "old");
    std::filesystem::create_symlink("real.wav", folder.getPath("link.wav"));
    process(input, model, {}, "link.wav");
    EXPECT_TRUE(std::filesystem::is_symlink(folder.getPath("link.wav")));
    EXPECT_EQ(read(folder.getPath("real.wav")).length(), 1000);
}

TEST_F(ProcessTest, modelsAreFoundByName) {
    makeModel({.names = {"Found"}}, "by-name.zevrant");
    const Invocation found{.arguments = {"info", "by-name"},
                           .environment = {{"ZEVRANT_MODEL_PATH", "/none:" + folder.path}}};
    EXPECT_THAT(run(found).out, HasSubstr("Found"));
    EXPECT_EQ(run({"info", "by-name"}).status, 4);
    EXPECT_THAT(run({"info"}).out, HasSubstr("harmonic-percussive"));
    EXPECT_EQ(run({"info", "harmonic-percussive"}).status, 0);
}

// ---- pipes -------------------------------------------------------------------------------------

class PipeTest : public ProcessTest {
  protected:
    Outcome pipe(const std::string& input, const std::vector<std::string>& options = {},
                 const std::string& rest = "") {
        std::vector<std::string> arguments{"process", "-", "-m", folder.getPath("model.zevrant"), "-o", "-"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return run(Invocation{.arguments = arguments, .input = input, .inputRest = rest});
    }
    std::string getBytes(const Sound& sound) {
        write(folder.getPath("bytes"), sound);
        return folder.readFile("bytes");
    }
    Sound fromBytes(const std::string& bytes) { return read(folder.makeFile("from", bytes)); }
};

TEST_F(PipeTest, wavGoesThroughAsItIs) {
    makeModel({.channels = 2, .delay = 2});
    for (const int sampleFormat : {SF_FORMAT_PCM_U8, SF_FORMAT_PCM_16, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32,
                                   SF_FORMAT_FLOAT, SF_FORMAT_DOUBLE})
        for (const int container : {SF_FORMAT_WAV, SF_FORMAT_WAVEX, SF_FORMAT_RF64})
            for (const int channels : {1, 2, 6}) {
                SCOPED_TRACE(testing::Message()
                             << std::hex << container << " " << sampleFormat << ", " << channels);
                const Sound sound =
                    fromBytes(getBytes(makeNoise(channels, 44100, container | sampleFormat, 3001)));
                const Outcome outcome = pipe(getBytes(sound));
                ASSERT_EQ(outcome.status, 0) << outcome.err;
                const Sound after = fromBytes(outcome.out);
                EXPECT_EQ(after.format & SF_FORMAT_SUBMASK,
                          sampleFormat == SF_FORMAT_PCM_U8 ? SF_FORMAT_PCM_16 : sampleFormat);
                EXPECT_EQ(after.channels, channels);
                EXPECT_EQ(after.sampleRate, 44100);
                ASSERT_EQ(after.length(), sound.length());
                EXPECT_LT(calcDifference(after, sound), sampleFormat == SF_FORMAT_PCM_U8   ? -110.0
                                                        : sampleFormat == SF_FORMAT_PCM_16 ? -200.0
                                                                                           : -115.0);
            }
}

// As other programs write into a pipe: without lengths, with chunks in between, in pieces.
TEST_F(PipeTest, wavWithoutALengthLastsUntilTheEnd) {
    makeModel({.channels = 2});
    const Sound sound = makeNoise(2, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 3001);
    const std::string bytes = getBytes(sound);
    const std::string expected = pipe(bytes).out;
    ASSERT_GT(expected.size(), 12000u);
    const std::size_t data = bytes.find("data");
    for (const char* length : {"\xFF\xFF\xFF\xFF", "\0\0\0\0", "\x00\xF0\xFF\x7F"}) {
        std::string open = bytes;
        open.replace(data + 4, 4, std::string(length, 4));
        open.insert(12, std::string("odd \x03\0\0\0abc\0", 12));
        const Outcome outcome = pipe(open.substr(0, 5001), {}, open.substr(5001));
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.out.substr(44), expected.substr(44));
        EXPECT_EQ(fromBytes(outcome.out).length(), 3001);
    }
    const Outcome half = pipe(bytes.substr(0, data + 8 + 4003));  // ends within a frame
    EXPECT_EQ(half.status, 0);
    EXPECT_EQ(fromBytes(half.out).length(), 1000);
}

// A bar with the speed while it works, and nothing of it afterwards; anywhere else, silence.
TEST_F(PipeTest, progressIsShownOnATerminalOnly) {
    if (!hasTerminals()) GTEST_SKIP() << "no pseudo-terminal can be had here";
    makeModel({.channels = 2});
    const std::string bytes = getBytes(makeNoise(2, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 20000));
    for (const bool onTerminal : {true, false})
        for (const bool isQuiet : {true, false}) {
            Invocation invocation{{"process", "-", "-m", folder.getPath("model.zevrant"), "-o", "-"}};
            if (isQuiet) invocation.arguments.push_back("--quiet");
            invocation.input = bytes.substr(0, 40000);
            invocation.inputRest = bytes.substr(40000);
            invocation.showsErrorsOnTerminal = onTerminal;
            const Outcome outcome = run(invocation);
            EXPECT_EQ(outcome.status, 0);
            EXPECT_EQ(outcome.out.size(), bytes.size());
            if (onTerminal && !isQuiet) {
                EXPECT_THAT(outcome.err, HasSubstr("x real time"));
                EXPECT_THAT(outcome.err, testing::EndsWith("\r\x1b[K"));
            } else {
                EXPECT_EQ(outcome.err, "");
            }
        }
}

TEST_F(PipeTest, rawFloatsGoThroughAsTheyAre) {
    makeModel({.channels = 2, .delay = 4});
    const Sound sound = makeNoise(3, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 2001);
    const std::string bytes(reinterpret_cast<const char*>(sound.values.data()), 4 * sound.values.size());
    const std::vector<std::string> format{"--raw-channels", "3", "--raw-rate", "48000"};
    const Outcome raw = pipe(bytes, format);
    ASSERT_EQ(raw.out.size(), bytes.size()) << raw.err;
    Sound after = sound;
    std::memcpy(after.values.data(), raw.out.data(), bytes.size());
    EXPECT_LT(calcDifference(after, sound), -120.0);

    // From a file as well, and into files of all kinds.
    folder.makeFile("floats", bytes);
    const Sound file = process(folder.getPath("floats"), folder.getPath("model.zevrant"), format);
    EXPECT_EQ(file.format & SF_FORMAT_SUBMASK, SF_FORMAT_FLOAT);
    EXPECT_LT(calcDifference(file, sound), -120.0);
}

// libsndfile makes the samples and judges what comes back.
TEST_F(PipeTest, rawSamplesOfAllFormatsAndByteOrders) {
    makeModel({.channels = 2, .delay = 1});
    const std::pair<std::string, int> formats[] = {{"s16", SF_FORMAT_PCM_16},
                                                   {"s24", SF_FORMAT_PCM_24},
                                                   {"s32", SF_FORMAT_PCM_32},
                                                   {"f32", SF_FORMAT_FLOAT},
                                                   {"f64", SF_FORMAT_DOUBLE}};
    for (const auto& [name, format] : formats)
        for (const bool isBigEndian : {false, true}) {
            SCOPED_TRACE(name);
            const int order = isBigEndian ? SF_ENDIAN_BIG : SF_ENDIAN_LITTLE;
            Sound sound = makeNoise(2, 44100, SF_FORMAT_RAW | order | format, 1500);
            write(folder.getPath("raw"), sound);
            const std::string bytes = folder.readFile("raw");
            const Outcome outcome = pipe(bytes, {"--raw-channels", "2", "--raw-rate", "44100", "--raw-format",
                                                 name + (isBigEndian ? "be" : "le")});
            ASSERT_EQ(outcome.out.size(), bytes.size()) << outcome.err;
            EXPECT_TRUE(format != SF_FORMAT_PCM_16 || outcome.out == bytes);
            folder.makeFile("after", outcome.out);
            EXPECT_LT(calcDifference(read(folder.getPath("after"), sound), sound), -80.0);
        }
}

TEST_F(PipeTest, aRegularFileAsStandardInputMayHaveAnyFormat) {
    makeModel({});
    const Sound sound = makeNoise(2, 44100, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 2000);
    const std::string input = write(folder.getPath("in.flac"), sound);
    const Outcome outcome =
        run({.arguments = {"process", "-", "-m", folder.getPath("model.zevrant"), "-o", "-", "--raw"},
             .inputFile = input});
    EXPECT_EQ(outcome.out.size(), 2u * 2000u * 4u) << outcome.err;
}

}  // namespace
}  // namespace zevrant
