// Files of all kinds, of other programs' kinds, and many at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "Program.h"
#include "Sound.h"
#include "TestModels.h"
#include "files/TemporaryFolder.h"

namespace zevrant {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class FormatsTest : public testing::Test {
  protected:
    FormatsTest() { describeModel({.channels = 2, .busGains = {0.6f}}).write(at("model.zevrant")); }

    std::string at(const std::string& name) const { return folder.getPath(name); }

    std::vector<std::string> stems(const std::vector<std::string>& inputs,
                                   const std::vector<std::string>& options = {}) const {
        std::vector<std::string> arguments{"stems", "-m", at("model.zevrant"), "-d", at("stems")};
        arguments.insert(arguments.end(), inputs.begin(), inputs.end());
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }
    std::vector<std::string> process(const std::string& input, const std::string& output) const {
        return {"process", input, "-m", at("model.zevrant"), "-o", at(output)};
    }

    Sound sumStems(const std::string& where, const std::string& extension) const {
        Sound sum = read(at(where + "/Bus 0." + extension));
        const Sound rest = read(at(where + "/Residual." + extension));
        for (std::size_t i = 0; i < sum.values.size(); ++i) sum.values[i] += rest.values.at(i);
        return sum;
    }

    TemporaryFolder folder;
};

// Stems keep samples whatever they come from, in the container of the input where that is the user's choice.
TEST_F(FormatsTest, everyFormatGoesInAndComesOut) {
    const struct {
        std::string extension;
        int format;
        std::string stems;
        int stemFormat;
    } cases[] = {
        {"wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, "wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16},
        {"flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24, "flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
        {"aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_24, "aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_24},
        {"au", SF_FORMAT_AU | SF_FORMAT_PCM_16, "au", SF_FORMAT_AU | SF_FORMAT_PCM_16},
        {"au", SF_FORMAT_AU | SF_FORMAT_ULAW, "au", SF_FORMAT_AU | SF_FORMAT_FLOAT},
        {"rf64", SF_FORMAT_RF64 | SF_FORMAT_FLOAT, "wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
        {"caf", SF_FORMAT_CAF | SF_FORMAT_FLOAT, "caf", SF_FORMAT_CAF | SF_FORMAT_FLOAT},
        {"w64", SF_FORMAT_W64 | SF_FORMAT_PCM_24, "w64", SF_FORMAT_W64 | SF_FORMAT_PCM_24},
        {"mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, "wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
        {"ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS, "wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
        {"opus", SF_FORMAT_OGG | SF_FORMAT_OPUS, "wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
    };
    for (const auto& [extension, format, stemExtension, stemFormat] : cases) {
        SCOPED_TRACE(testing::Message() << extension << " " << std::hex << format);
        const std::string input = at("in." + extension);
        const Sound before = read(write(input, makeTones(2, 48000, format, 12000, 4000.0)));
        const Outcome outcome = run(stems({input}));
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        const Sound sum = sumStems("stems", stemExtension);
        EXPECT_EQ(sum.format, stemFormat);
        EXPECT_LT(calcDifference(sum, before),
                  (stemFormat & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16 ? -60.0 : -100.0);

        ASSERT_EQ(run(process(input, "out.wav")).status, 0);
        EXPECT_LT(calcDifference(read(at("out.wav")), before), -60.0);
        ASSERT_EQ(run(process(input, "out." + extension)).status, 0);
        EXPECT_LT(calcDifference(read(at("out." + extension)), before), -10.0);
        const Outcome withoutOutput = run({"process", input, "-m", at("model.zevrant")});
        EXPECT_EQ(withoutOutput.status, 2);
        EXPECT_THAT(withoutOutput.err, HasSubstr("--output is required: the file to write, with -o"));
    }
}

// What is printed holds for the files or is not printed.
TEST_F(FormatsTest, codedStemsHaveNoNullDepth) {
    const std::string input =
        write(at("in.wav"), makeTones(2, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 12000, 4000.0));
    for (const char* extension : {"mp3", "ogg", ".opus"}) {
        const Outcome outcome = run(stems({input}, {"--format", extension}));
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_THAT(outcome.out, HasSubstr("null depth: none"));
        EXPECT_THAT(outcome.out, testing::Not(HasSubstr("dB")));
    }
}

TEST_F(FormatsTest, valuesThatAreNoNumbersAreCountedAndCountAsZero) {
    Sound sound = makeNoise(2, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 5000);
    sound.values[3000] = std::numeric_limits<float>::quiet_NaN();
    sound.values[3001] = -std::numeric_limits<float>::infinity();
    const Outcome outcome = run(stems({write(at("in.wav"), sound)}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.err, HasSubstr("2 samples were not numbers"));
    EXPECT_THAT(outcome.out, HasSubstr("null depth: -1"));
    sound.values[3000] = sound.values[3001] = 0.0f;
    EXPECT_LT(calcDifference(sumStems("stems", "wav"), sound), -120.0);
    EXPECT_THAT(run(process(at("in.wav"), "out.wav")).err, HasSubstr("2 samples were not numbers"));
}

// ---- several files -----------------------------------------------------------------------------

TEST_F(FormatsTest, severalFilesGetAFolderEach) {
    fs::create_directories(at("album/cover.wav"));
    const int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    const std::vector<std::string> songs{"album/one.wav", "album/T\xC3\xB6ne, 2.wav", "album/three.wav",
                                         "ONE.wav"};
    std::vector<Sound> sounds;
    for (const std::string& song : songs)
        sounds.push_back(
            read(write(at(song), makeNoise(2, 44100, format, 3000, static_cast<unsigned>(sounds.size())))));
    folder.makeFile("album/notes.txt", "no audio");
    folder.makeFile("album/.hidden.wav", "no audio");
    const std::vector<std::string> names{"one", "T\xC3\xB6ne, 2", "three", "ONE-2"};
    for (const char* jobs : {"1", "3"}) {
        const Outcome outcome = run(stems({at("album"), at("ONE.wav")}, {"--jobs", jobs}));
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        for (std::size_t i = 0; i < names.size(); ++i) {
            EXPECT_LT(calcDifference(sumStems("stems/" + names[i], "wav"), sounds[i]), -120.0) << names[i];
            EXPECT_THAT(outcome.out,
                        HasSubstr(at(songs[i]) + " -> " + at("stems/" + names[i]) + ", null depth: -1"));
        }
        EXPECT_EQ(std::distance(fs::directory_iterator(at("stems")), {}), 4);
        fs::remove_all(at("stems"));
    }

    // A file that fails stops no other, leaves nothing and makes the status.
    folder.makeFile("album/broken.wav", "no audio");
    Invocation invocation{stems({at("album"), at("missing.wav")}, {"--quiet"})};
    const Outcome outcome = run(invocation);
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.out, "");
    for (const char* words : {"broken.wav: ", "missing.wav: ", "2 of 5 files failed"})
        EXPECT_THAT(outcome.err, HasSubstr(words));
    EXPECT_EQ(std::distance(fs::directory_iterator(at("stems")), {}), 3);
    invocation.showsErrorsOnTerminal = true;
    invocation.arguments.pop_back();
    EXPECT_THAT(run(invocation).err, HasSubstr("5 of 5 files"));

    EXPECT_THAT(run(stems({at("album/cover.wav")})).err, HasSubstr("no audio files in this folder"));
    EXPECT_EQ(run(stems({"-", at("album")})).status, 2);
}

// ---- other programs' formats -------------------------------------------------------------------

// A program in the place of ffmpeg that says how it was called, and then what a test wants.
class DecoderTest : public FormatsTest {
  protected:
    DecoderTest() {
        sound = makeNoise(2, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 20000);
        write(at("decoded.wav"), sound);
    }

    Outcome runWith(const std::string& script, const std::vector<std::string>& arguments) const {
        fs::create_directory(at("bin"));
        folder.makeFile("bin/ffmpeg",
                        "#!/bin/sh\ncd '" + folder.path + "'\nprintf '%s\\n' \"$@\" > called\n" + script);
        fs::permissions(at("bin/ffmpeg"), fs::perms::owner_all);
        return run({.arguments = arguments, .environment = {{"PATH", at("bin") + ":/usr/bin:/bin"}}});
    }

    Sound sound;
};

TEST_F(DecoderTest, itGetsTheNameAsAFileAndItsSoundIsRead) {
    for (const char* name :
         {"film.mkv", "-i.m4a", "concat:a|b.wma", "http:x.webm", "a ' \" $(b) \xC3\xBC.m4a"}) {
        SCOPED_TRACE(name);
        const std::string input = folder.makeFile(name, "of another kind");
        // More errors than a pipe holds, before the sound comes.
        const Outcome outcome = runWith("seq 30000 >&2; cat decoded.wav", process(input, "out.wav"));
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr(input + ": ffmpeg: 30000\n"));
        EXPECT_THAT(folder.readFile("called"),
                    HasSubstr("\n-protocol_whitelist\nfile\n-i\nfile:" + input + "\n-vn\n"));
        EXPECT_LT(calcDifference(read(at("out.wav")), sound), -120.0);
    }
    ASSERT_EQ(runWith("cat decoded.wav", stems({at("film.mkv")})).status, 0);
    EXPECT_LT(calcDifference(sumStems("stems", "wav"), sound), -120.0);
    EXPECT_EQ(runWith("cat decoded.wav", {"spectrogram", at("film.mkv"), "-o", at("out.png")}).status, 0);
}

TEST_F(DecoderTest, itsErrorsArePassedOn) {
    const std::string input = folder.makeFile("song.m4a", "of another kind");
    for (const auto& [script, words] : std::vector<std::pair<std::string, std::string>>{
             {"echo first >&2; echo \"file:" + input + ": no moov\" >&2; exit 1", "; ffmpeg: no moov)"},
             {"head -c 90000 decoded.wav; echo '[wav @ 0x1234] torn' >&2; exit 1", "damaged (ffmpeg: torn)"},
             {"exit 0", "ffmpeg: no audio"},
             {"cat /dev/zero", "ffmpeg: "}}) {
        const Outcome outcome = runWith(script, process(input, "out.wav"));
        EXPECT_EQ(outcome.status, 3);
        EXPECT_THAT(outcome.err, testing::AllOf(HasSubstr(input), HasSubstr(words)));
        EXPECT_FALSE(fs::exists(at("out.wav")));
    }
    const Outcome without = run({.arguments = process(input, "out.wav"), .environment = {{"PATH", "/none"}}});
    EXPECT_EQ(without.status, 3);
    EXPECT_THAT(without.err, HasSubstr("With ffmpeg installed"));
    EXPECT_THAT(without.err, HasSubstr("pipe WAV"));
}

TEST_F(DecoderTest, filesOfTheRealOne) {
    if (std::system("ffmpeg -version > /dev/null 2>&1") != 0) GTEST_SKIP() << "ffmpeg is not installed";
    for (const char* name : {"a.m4a", "a.mkv", "a.webm", "a.wma"}) {
        const std::string command =
            "ffmpeg -v error -i '" + at("decoded.wav") + "' -b:a 256k '" + at(name) + "'";
        ASSERT_EQ(std::system(command.c_str()), 0);
        const Outcome outcome = run(stems({at(name)}));
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.err, "");
        EXPECT_NEAR(sumStems("stems", "wav").length(), sound.length(), 3000) << name;
    }
}

}  // namespace
}  // namespace zevrant
