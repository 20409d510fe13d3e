#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "Program.h"
#include "Sound.h"
#include "TestModels.h"
#include "files/TemporaryFolder.h"

namespace zevrant {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

enum Status { Failed = 1, WrongUsage = 2, BadInput = 3, BadModel = 4, BadOutput = 5 };

// A folder with a model, sounds and everything that is none. Whatever a command does wrong, the folder is
// afterwards what it was before.
class ErrorsTest : public testing::Test {
  protected:
    ErrorsTest() {
        describeModel({.delay = 1}).write(at("model.zevrant"));
        write(at("in.wav"), makeNoise(2, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 40000));
        write(at("in.flac"), makeNoise(2, 48000, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 40000));
        write(at("five.wav"), makeNoise(5, 96000, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 400));
        folder.makeFile("text", "neither sound nor model\n");
        folder.makeFile("empty");
        folder.makeFile("old.wav", "what was there before");
    }

    std::string at(const std::string& name) const { return folder.getPath(name); }

    std::map<std::string, std::string> takeStock() const {
        std::map<std::string, std::string> contents;
        for (const auto& entry : fs::recursive_directory_iterator(folder.path)) {
            const std::string name = fs::relative(entry.path(), folder.path).string();
            contents[name] = entry.is_regular_file() ? folder.readFile(name) : "";
        }
        return contents;
    }

    void expectRunFailure(const Invocation& invocation, int status, const std::string& text) const {
        SCOPED_TRACE(testing::PrintToString(invocation.arguments));
        const auto before = takeStock();
        const Outcome outcome = run(invocation);
        EXPECT_EQ(outcome.status, status);
        EXPECT_THAT(outcome.err, HasSubstr(text));
        EXPECT_THAT(outcome.err, testing::StartsWith("zevrant: "));
        EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
        EXPECT_TRUE(takeStock() == before) << "files have changed";
    }

    void expectFailure(const std::vector<std::string>& arguments, int status, const std::string& text) const {
        expectRunFailure(Invocation{arguments}, status, text);
    }

    // A whole command line on which one thing is wrong.
    std::vector<std::string> process(const std::string& input, const std::string& model,
                                     const std::string& output,
                                     const std::vector<std::string>& options = {}) const {
        std::vector<std::string> arguments{"process", at(input), "-m", at(model), "-o", at(output)};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    TemporaryFolder folder;
};

TEST_F(ErrorsTest, inputs) {
    expectFailure(process("missing.wav", "model.zevrant", "out.wav"), BadInput, "No such file");
    expectFailure(process("text", "model.zevrant", "out.wav"), BadInput, "no audio file");
    expectFailure(process("empty", "model.zevrant", "out.wav"), BadInput, "no audio file");
    expectFailure(process(".", "model.zevrant", "out.wav"), BadInput, "folder");
    folder.makeFile("cut.wav", folder.readFile("in.wav").substr(0, 30));
    expectFailure(process("cut.wav", "model.zevrant", "out.wav"), BadInput, "cut.wav");
    expectFailure(
        std::vector<std::string>{"stems", at("text"), "-m", at("model.zevrant"), "-d", at("new/deep")},
        BadInput, "no audio file");
    expectFailure({"spectrogram", at("in.wav"), at("text"), "-o", at("out.png")}, BadInput, "no audio file");
    expectFailure({"compare", at("in.wav"), at("five.wav")}, BadInput, "differ in channels");
}

// A rate that no sound has would ask for all memory or for hours.
TEST_F(ErrorsTest, aRateOfTwoGigahertz) {
    std::string wav = folder.readFile("in.wav");
    wav.replace(24, 4, std::string("\0\x94\x35\x77", 4));
    const std::string path = folder.makeFile("fast.wav", wav), text = "a sample rate of 2000000000 Hz";
    for (const auto& options : {std::vector<std::string>{}, {"--resample"}})
        expectFailure(process("fast.wav", "model.zevrant", "out.wav", options), BadInput, text);
    expectFailure({"spectrogram", path, "-o", at("out.png")}, BadInput, text);
    expectFailure({"stems", path, "-m", at("model.zevrant"), "-d", at("new")}, BadInput, text);
    expectRunFailure({.arguments = {"process", "-", "-m", at("model.zevrant"), "-o", "-"}, .input = wav},
                     BadInput, text);
}

// A FLAC file that ends early is found out in the middle, when most of the output has been written.
TEST_F(ErrorsTest, damageInTheMiddle) {
    const std::string whole = folder.readFile("in.flac");
    std::string damaged = whole;
    for (std::size_t i = whole.size() / 2; i < whole.size() / 2 + 20000; ++i)
        damaged[i] = static_cast<char>(i * 7);
    folder.makeFile("damaged.flac", damaged);
    expectFailure(process("damaged.flac", "model.zevrant", "out.wav"), BadInput, "damaged.flac");
}

TEST_F(ErrorsTest, streams) {
    const std::vector<std::string> arguments{"process", "-", "-m", at("model.zevrant"), "-o", at("out.wav")};
    const std::string wav = folder.readFile("in.wav");
    expectRunFailure({.arguments = arguments}, BadInput, "standard input");
    expectRunFailure({.arguments = arguments, .input = "no sound at all"}, BadInput, "--raw-channels");
    for (const std::size_t length : {5u, 12u, 15u, 25u, 40u})
        expectRunFailure({.arguments = arguments, .input = wav.substr(0, length)}, BadInput, "cut off");
    std::string odd = wav;
    odd[20] = 2;  // a coding that is neither integers nor floats
    expectRunFailure({.arguments = arguments, .input = odd}, BadInput, "integers or floats");
    odd = wav;
    odd[22] = odd[23] = 0;
    expectRunFailure({.arguments = arguments, .input = odd}, BadInput, "no channels");
    expectFailure(
        std::vector<std::string>{"process", "-", "-m", at("model.zevrant"), "-o", "-", "--raw-rate", "48000"},
        WrongUsage, "go together");
}

TEST_F(ErrorsTest, models) {
    expectFailure(process("in.wav", "missing", "out.wav"), BadModel, "No such file");
    expectFailure({"process", at("in.wav"), "-m", "unheard-of", "-o", at("out.wav")}, BadModel,
                  "center-sides");
    expectFailure(process("in.wav", "text", "out.wav"), BadModel, "no model");
    expectFailure(process("in.wav", "empty", "out.wav"), BadModel, "no model");
    expectFailure(process("in.wav", "in.flac", "out.wav"), BadModel, "no model");
    expectFailure({"info", at(".")}, BadModel, "folder");

    const std::string whole = folder.readFile("model.zevrant");
    for (std::size_t length = 17; length < whole.size(); length += 5) {
        folder.makeFile("cut.zevrant", whole.substr(0, length));
        expectFailure({"info", at("cut.zevrant")}, BadModel, "the file ends here");
    }
    folder.makeFile("cut.zevrant", whole.substr(0, whole.size() - 3));
    expectFailure(process("in.wav", "cut.zevrant", "out.wav"), BadModel, "the file ends here");
    expectFailure({"stems", at("in.wav"), "-m", at("cut.zevrant"), "-d", at("new")}, BadModel,
                  "the file ends");
    expectFailure({"bench", at("cut.zevrant")}, BadModel, "damaged");
    folder.makeFile("early.zevrant", std::string("\x0b\0\0\0KOLVE.model", 15) + whole.substr(17));
    expectFailure({"info", at("early.zevrant")}, BadModel, "earlier format");
}

// What only the first frame shows: a layer with an impossible number, and one that keeps everything.
TEST_F(ErrorsTest, modelsThatCannotProcess) {
    using namespace modelwriter;
    const auto make = [&](const std::string& name, const SingleSourceLayer& layer) {
        ModelWriter("Odd")
            .setFrames(256, 256, 64)
            .setPacking(Packing::magnitudes(129))
            .addLayer("odd", "input", layer)
            .setOutput("odd")
            .write(at(name));
    };
    make("stride.zevrant", Conv{.weights = {{1, 1, 1, 1}, {1.0f}}, .frequencyStride = 0});
    make("silent.zevrant", SelfAttention{.channelMatrix = {{1, 1}, {1.0f}}, .startDelay = -1});
    expectFailure(process("in.wav", "stride.zevrant", "out.wav"), Failed, "cannot process");
    expectFailure(
        std::vector<std::string>{"stems", at("in.wav"), "-m", at("stride.zevrant"), "-d", at("new")}, Failed,
        "cannot process");
    expectFailure(process("in.wav", "silent.zevrant", "out.wav"), Failed, "keeps back 40000 samples");
}

TEST_F(ErrorsTest, usage) {
    const auto with = [&](const std::vector<std::string>& options) {
        return process("in.wav", "model.zevrant", "out.wav", options);
    };
    expectFailure(with({"--gain", "Drums=3"}), WrongUsage, "0 Bus 0, 1 Residual");
    expectFailure(with({"--solo", "2"}), WrongUsage, "no bus '2'");
    expectFailure(with({"--solo", ""}), WrongUsage, "no bus");
    for (const char* wrong : {"0", "0=", "0=x", "0=3dB", "0=nan", "0=41"})
        expectFailure(with({"--gain", wrong}), WrongUsage, "--gain");
    for (const char* wrong : {"0=101", "0=-101", "0=inf"})
        expectFailure(with({"--sensitivity", wrong}), WrongUsage, "--sensitivity");
    expectFailure(with({"--sample-format", "pcm12"}), WrongUsage, "pcm12");
    expectFailure(with({"--block", "0"}), WrongUsage, "--block");
    expectFailure(with({"--unheard-of"}), WrongUsage, "--unheard-of");
    expectFailure({"process", at("in.wav"), "-m", at("model.zevrant")}, WrongUsage, "--output");
    expectFailure(std::vector<std::string>{}, WrongUsage, "subcommand");
    expectFailure({"unheard-of"}, WrongUsage, "no command 'unheard-of'; there are process, stems");
    expectFailure({"-m", at("model.zevrant"), "stems"}, WrongUsage, "options stand behind the command");
    expectFailure({at("in.wav"), "stems"}, WrongUsage, "a command has to come first");
    expectFailure({"stems", at("in.wav"), "-d", at("new")}, WrongUsage,
                  "harmonic-percussive, hiss-reduction");
    expectFailure({"process", at("in.wav"), at("in.flac"), "-m", at("model.zevrant"), "-o", at("new.wav")},
                  WrongUsage, "stems takes several");
    expectFailure({"spectrogram", at("in.wav"), "-o", at("new.jpg")}, WrongUsage, ".png");
    expectFailure(process("in.wav", "in.flac", "new.wav"), BadModel, "-m takes a model");
    for (const char* output : {"out", "out.txt", "out.wav.part"})
        expectFailure(process("in.wav", "model.zevrant", output), WrongUsage, "flac");
    expectFailure(process("five.wav", "model.zevrant", "out.mp3"), WrongUsage, "5 channels");
    expectFailure({"stems", at("in.wav"), "-m", at("model.zevrant"), "-d", at("new"), "--format", "xyz"},
                  WrongUsage, "xyz");
    expectFailure({"spectrogram", at("in.wav"), "-o", at("out.png"), "--title", "a", "--title", "b"},
                  WrongUsage, "titles");
}

TEST_F(ErrorsTest, anInputIsNeverOverwritten) {
    fs::create_symlink("in.wav", at("symbolic.wav"));
    fs::create_hard_link(at("in.wav"), at("hard.wav"));
    fs::create_directory(at("sub"));
    for (const char* output : {"in.wav", "symbolic.wav", "hard.wav", "./in.wav", "sub/../in.wav"})
        expectFailure(process("in.wav", "model.zevrant", output), BadOutput, "overwrite");
    expectFailure(process("symbolic.wav", "model.zevrant", "in.wav"), BadOutput, "overwrite");
    fs::copy(at("model.zevrant"), at("model.wav"));
    expectFailure(process("in.wav", "model.wav", "model.wav"), BadOutput, "overwrite");
    expectRunFailure({.arguments = {"process", "-", "-m", at("model.zevrant"), "-o", at("in.wav")},
                      .inputFile = at("in.wav")},
                     BadOutput, "overwrite");
    expectFailure({"spectrogram", at("in.flac"), at("in.wav"), "-o", at("in.wav")}, BadOutput, "overwrite");
    fs::copy(at("in.wav"), at("sub/Residual.wav"));
    expectFailure(process("sub/Residual.wav", "model.zevrant", "sub/Residual.wav"), BadOutput, "overwrite");
    expectFailure(
        std::vector<std::string>{"stems", at("sub/Residual.wav"), "-m", at("model.zevrant"), "-d", at("sub")},
        BadOutput, "overwrite");
}

TEST_F(ErrorsTest, outputsThatCannotBeWritten) {
    expectFailure(process("in.wav", "model.zevrant", "none/out.wav"), BadOutput, "No such file");
    expectFailure(process("in.wav", "model.zevrant", "text/out.wav"), BadOutput, "text/out.wav");
    fs::create_directory(at("folder.wav"));
    expectFailure(process("in.wav", "model.zevrant", "folder.wav"), BadOutput, "folder");
    expectFailure(
        std::vector<std::string>{"stems", at("in.wav"), "-m", at("model.zevrant"), "-d", at("text")},
        BadOutput, "text");
    expectFailure(
        std::vector<std::string>{"process", at("in.wav"), "-m", at("model.zevrant"), "-o", "/dev/full"},
        BadOutput, "No space left");
}

TEST_F(ErrorsTest, whatIsReplacedStaysItsOwners) {
    const std::string old = at("old.wav");
    ASSERT_EQ(chmod(old.c_str(), 0444), 0);
    expectFailure(process("in.wav", "model.zevrant", "old.wav"), BadOutput, "Permission denied");
    ASSERT_EQ(chmod(old.c_str(), 0640), 0);
    const bool canGive = geteuid() == 0 && chown(old.c_str(), 1234, 2345) == 0;
    EXPECT_EQ(run(process("in.wav", "model.zevrant", "old.wav")).status, 0);
    struct stat status = {};
    ASSERT_EQ(stat(old.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    EXPECT_GT(status.st_size, 40000);
    if (canGive) {
        EXPECT_EQ(std::make_pair(status.st_uid, status.st_gid), std::make_pair(1234u, 2345u));
    }
}

// Whatever a command prints, help texts included: what does not arrive is an error.
TEST_F(ErrorsTest, aFullStandardOutput) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"--help"},
             {"--version"},
             {"stems", "--help"},
             {"info"},
             {"info", at("model.zevrant")},
             {"info", at("model.zevrant"), "--dot"},
             {"check", at("model.zevrant")},
             {"bench", at("model.zevrant"), "--block", "64", "--seconds", "0"},
             {"compare", at("in.wav"), at("in.wav"), "--json"},
             {"completion", "zsh"}})
        expectRunFailure({.arguments = arguments, .outputFile = "/dev/full"}, BadOutput, "standard output");
}

// A disk that fills up: at the header, in the middle, and in what is written last. What was there stays.
TEST_F(ErrorsTest, aFullDiskLeavesNothingBehind) {
    for (const char* output : {"out.wav", "old.wav", "out.flac", "out.ogg", "out.aiff"})
        for (const long limit : {0L, 20L, 9000L, 20000L, 150000L}) {
            Invocation invocation{process("in.wav", "model.zevrant", output)};
            invocation.mostFileBytes = limit;
            if (output == std::string("out.ogg") && limit > 9000L) continue;
            if (output == std::string("out.flac") && limit > 100000L) continue;
            expectRunFailure(invocation, BadOutput, "File too large");
        }
    Invocation stems{{"stems", at("in.wav"), "-m", at("model.zevrant"), "-d", at("new/deep")}};
    stems.mostFileBytes = 100000;
    expectRunFailure(stems, BadOutput, "File too large");
    Invocation picture{{"spectrogram", at("in.wav"), "-o", at("out.png")}};
    EXPECT_EQ(run(picture).status, 0);  // once in full, so that the fonts' cache exists
    std::filesystem::remove(at("out.png"));
    picture.mostFileBytes = 1000;
    expectRunFailure(picture, BadOutput, "File too large");
}

TEST_F(ErrorsTest, aSignalLeavesNothingBehind) {
    const auto before = takeStock();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        for (const auto& arguments : std::vector<std::vector<std::string>>{
                 {"process", "-", "-m", at("model.zevrant"), "-o", at("out.wav")},
                 {"process", "-", "-m", at("model.zevrant"), "-o", at("old.wav")},
                 {"stems", "-", "-m", at("model.zevrant"), "-d", at("new/deep")}}) {
            SCOPED_TRACE(testing::Message() << signal << " " << testing::PrintToString(arguments));
            WaitingProgram program(
                {.arguments = arguments, .input = folder.readFile("in.wav").substr(0, 60000)});
            for (int i = 0; i < 1000 && takeStock().size() == before.size(); ++i) usleep(5000);
            EXPECT_GT(takeStock().size(), before.size()) << "nothing to be left behind";
            EXPECT_EQ(program.endBy(signal), 128 + signal);
            EXPECT_TRUE(takeStock() == before);
        }
}

}  // namespace
}  // namespace zevrant
