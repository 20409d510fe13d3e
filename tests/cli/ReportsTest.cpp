// What info, bench and compare print.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include <nlohmann/json.hpp>

#include "Program.h"
#include "Sound.h"
#include "TestModels.h"
#include "files/TemporaryFolder.h"

namespace zevrant {
namespace {

using Json = nlohmann::json;
using testing::HasSubstr;

// With a model that has a layer of each sort whose shape, weights or latency is not that of its input.
class ReportsTest : public testing::Test {
  protected:
    ReportsTest() {
        using namespace modelwriter;
        const auto zeros = [](std::vector<int> shape) {
            std::size_t count = 1;
            for (const int size : shape) count *= static_cast<std::size_t>(size);
            return WeightTensor{shape, std::vector<float>(count, 0.0f)};
        };
        FrequencyRescale rescale;
        for (int bin = 0; bin < 128; ++bin) rescale.bands.push_back({bin, zeros({2})});
        ModelWriter("Wide")
            .setChannels(2, 2)
            .setBusses({"Voice \"A\"", "Rest"})
            .setFrames(256, 256, 64)
            .setPacking(Packing::complexBins(129), Packing::magnitudes(129))
            .addLayer("rescale", "input", rescale)
            .addLayer("down", "rescale",
                      Conv{.weights = zeros({3, 5, 4, 8}),
                           .bias = zeros({8}),
                           .timeStride = 2,
                           .frequencyStride = 2,
                           .timeDilation = 2,
                           .timeOffset = 1})
            .addLayer("each", "down", Conv{.weights = zeros({1, 3, 1, 8})})
            .addLayer("dense", "each", Dense{.weights = zeros({64, 64, 8})})
            .addLayer("attention", "dense",
                      SelfAttention{.channelMatrix = zeros({8, 8}),
                                    .positionBias = zeros({64, 8}),
                                    .startDelay = 2,
                                    .timeWeights = zeros({4, 8})})
            .addLayer("act", "attention", ReLU{})
            .addLayer("both", std::vector<std::string>{"act", "dense"}, Concat{})
            .addLayer("up", "both",
                      TransposedConv{.weights = zeros({2, 4, 2, 16}), .timeStride = 2, .frequencyStride = 2})
            .addLayer("squash", "up", Sigmoid{})
            .addLayer("mask", std::vector<std::string>{"squash", "up"},
                      Arithmetic{.operation = Arithmetic::Multiply})
            .setOutput("mask")
            .write(folder.getPath("wide.zevrant"));
    }

    TemporaryFolder folder;
};

TEST_F(ReportsTest, infoCountsWhatTheLayersDo) {
    const Outcome outcome = run({"info", folder.getPath("wide.zevrant"), "--json"});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    const Json info = Json::parse(outcome.out);
    EXPECT_EQ(info["name"], "Wide");
    EXPECT_EQ(info["busses"], Json({"Voice \"A\"", "Rest"}));
    EXPECT_EQ(info["inputShape"], Json({129, 4}));
    EXPECT_EQ(info["latencyInFrames"], 3);              // 1 of the convolution, 2 of the attention
    EXPECT_EQ(info["latencyInSamples"], (3 + 3) * 64);  // and 3 hops of framing for blocks of any length
    EXPECT_DOUBLE_EQ(info["latencyInMilliseconds"], 8.0);

    const struct {
        const char* name;
        int frequencies, channels;
        double slicesPerFrame;
        int parameters;
        double multiplyAdds;
        std::vector<std::string> sources;
    } layers[] = {
        {"rescale", 128, 4, 1.0, 256, 256 * 4, {"input"}},
        {"down", 64, 8, 0.5, 3 * 5 * 4 * 8 + 8, 0.5 * 3 * 5 * 4 * 8 * 64, {"rescale"}},
        {"each", 64, 8, 0.5, 24, 0.5 * 3 * 8 * 64, {"down"}},
        {"dense", 64, 8, 0.5, 64 * 64 * 8, 0.5 * 64 * 64 * 8, {"each"}},
        {"attention", 64, 8, 0.5, 64 + 512 + 32, 0.5 * (4 + 8) * 64 * 8, {"dense"}},
        {"act", 64, 8, 0.5, 0, 0, {"attention"}},
        {"both", 64, 16, 0.5, 0, 0, {"act", "dense"}},
        {"up", 128, 2, 1.0, 2 * 4 * 2 * 16, 0.5 * 2 * 4 * 2 * 16 * 64, {"both"}},
        {"squash", 128, 2, 1.0, 0, 0, {"up"}},
        {"mask", 128, 2, 1.0, 0, 256, {"squash", "up"}},
    };
    ASSERT_EQ(info["layers"].size(), std::size(layers));
    double multiplyAdds = 0.0;
    int parameters = 0;
    for (std::size_t i = 0; i < std::size(layers); ++i) {
        const auto& expected = layers[i];
        const Json& layer = info["layers"][i];
        EXPECT_EQ(layer["name"], expected.name);
        EXPECT_EQ(layer["outputShape"], Json({expected.frequencies, expected.channels})) << expected.name;
        EXPECT_EQ(layer["slicesPerFrame"], expected.slicesPerFrame) << expected.name;
        EXPECT_EQ(layer["parameters"], expected.parameters) << expected.name;
        EXPECT_EQ(layer["multiplyAddsPerFrame"], expected.multiplyAdds) << expected.name;
        EXPECT_EQ(layer["sources"], Json(expected.sources)) << expected.name;
        multiplyAdds += expected.multiplyAdds;
        parameters += expected.parameters;
    }
    EXPECT_EQ(info["layers"][1]["stateBytes"], 4 * 5 * 128 * 4);  // a ring of 1 + 2 * 2 slices
    EXPECT_EQ(info["parameters"], parameters);
    EXPECT_EQ(info["multiplyAddsPerFrame"], multiplyAdds);
    EXPECT_EQ(info["multiplyAddsPerSecond"], multiplyAdds * 750.0);
}

TEST_F(ReportsTest, infoDrawsTheGraphAndWritesForPeople) {
    const std::string dot = run({"info", folder.getPath("wide.zevrant"), "--dot"}).out;
    for (const char* edge :
         {"\"input\" -> \"rescale\" [label=\"129 x 4\"]", "\"act\" -> \"both\"", "\"dense\" -> \"both\"",
          "\"up\" -> \"mask\"", "\"mask\" -> \"output\" [label=\"128 x 2\"]"})
        EXPECT_THAT(dot, HasSubstr(edge));
    const std::string text = run({"info", folder.getPath("wide.zevrant")}).out;
    for (const char* words :
         {"Wide", "48000 Hz", "Voice \"A\"", "residual", "in all 384 samples (8.0 ms)", "kernel 3 x 5"})
        EXPECT_THAT(text, HasSubstr(words));
}

TEST_F(ReportsTest, benchTimesEveryRateAndBlockSize) {
    describeModel({}).write(folder.getPath("small.zevrant"));
    const Outcome outcome = run({"bench", folder.getPath("small.zevrant"), "--rate", "8000,48000", "--block",
                                 "32,64,100", "--seconds", "0", "--json"});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    const Json timings = Json::parse(outcome.out)["timings"];
    ASSERT_EQ(timings.size(), 6u);
    EXPECT_EQ(timings[4]["sampleRate"], 48000);
    EXPECT_EQ(timings[4]["blockSize"], 64);
    for (const Json& timing : timings) {
        EXPECT_GE(timing["numOfBlocks"], 1000);
        EXPECT_GT(timing["timesRealTime"], 0.0);
        EXPECT_LE(timing["medianMilliseconds"], timing["percentile99Milliseconds"]);
        EXPECT_LE(timing["percentile99Milliseconds"], timing["percentile999Milliseconds"]);
        EXPECT_LE(timing["percentile999Milliseconds"], timing["worstMilliseconds"]);
        // A thread has a core for no longer than the clock runs, give or take the reading of two clocks.
        const Json& processor = timing["processorMilliseconds"];
        for (const char* part : {"median", "percentile99", "percentile999", "worst"}) {
            EXPECT_GE(processor[part], 0.0);
            EXPECT_LE(processor[part], timing[std::string(part) + "Milliseconds"].get<double>() + 0.05);
        }
        EXPECT_GT(timing["processorShare"], 0.0);
    }
    EXPECT_THAT(run({"bench", folder.getPath("small.zevrant"), "--block", "64", "--seconds", "0"}).out,
                HasSubstr("96000     64"));
}

// An error at right angles to the reference and 20 dB below it, at any gain.
TEST_F(ReportsTest, compareMeasuresWhatItSays) {
    Sound reference{1, 48000}, mixture = reference;
    for (int i = 0; i < 48000; ++i) {
        reference.values.push_back(static_cast<float>(0.5 * std::sin(2.0 * M_PI * 100.0 / 48000.0 * i)));
        mixture.values.push_back(reference.values.back() +
                                 static_cast<float>(0.5 * std::sin(2.0 * M_PI * 300.0 / 48000.0 * i)));
    }
    write(folder.getPath("reference.wav"), reference);
    write(folder.getPath("mixture.wav"), mixture);
    for (const double gain : {1.0, 0.25}) {
        Sound estimate = reference;
        for (int i = 0; i < 48000; ++i) {
            float& value = estimate.values[static_cast<std::size_t>(i)];
            value = static_cast<float>(gain * (value + 0.05 * std::cos(2.0 * M_PI * 100.0 / 48000.0 * i)));
        }
        write(folder.getPath("estimate.wav"), estimate);
        const Outcome outcome =
            run({"compare", folder.getPath("estimate.wav"), folder.getPath("reference.wav"), "--mixture",
                 folder.getPath("mixture.wav"), "--json"});
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        const Json result = Json::parse(outcome.out);
        EXPECT_NEAR(result["siSdr"], 20.0, 0.001);
        EXPECT_NEAR(result["siSdrOfMixture"], 0.0, 0.001);
        EXPECT_NEAR(result["improvement"], 20.0, 0.001);
        EXPECT_NEAR(result["difference"], 10.0 * std::log10(std::pow(1.0 - gain, 2) + 0.01 * gain * gain),
                    0.001);
    }
}

TEST_F(ReportsTest, infoListsTheModelsForPrograms) {
    const Json list = Json::parse(run({"info", "--json"}).out);
    std::map<std::string, std::string> models;
    for (const Json& model : list["models"]) models[model["name"]] = model["path"];
    EXPECT_TRUE(std::filesystem::exists(models["harmonic-percussive"]));
    EXPECT_FALSE(list["folders"].empty());
}

// Names in a model, and of the files, are data from outside: none moves the cursor, whoever prints it.
TEST_F(ReportsTest, namesMoveNoCursor) {
    const std::string hostile = "\x1b[2J\x7f\xc2\x9b\n\r\xff\"\\";
    ASSERT_TRUE(std::filesystem::create_directory(folder.getPath(hostile)));
    const auto at = [&](const std::string& name) { return folder.getPath(hostile + "/" + name); };
    using namespace modelwriter;
    ModelWriter(hostile)
        .setInfoText(hostile)
        .setBusses({hostile, "Rest"})
        .setFrames(256, 256, 64)
        .setPacking(Packing::magnitudes(129))
        .addLayer(hostile, "input", Sigmoid{})
        .setOutput(hostile)
        .write(at("m"));
    write(at("s.wav"), makeNoise(1, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 4000));
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"info", at("m")},
             {"info", at("m"), "--dot"},
             {"info", at("m"), "--json"},
             {"check", at("m")},
             {"check", at("m"), "--json"},
             {"bench", at("m"), "--block", "64", "--seconds", "0"},
             {"bench", at("m"), "--block", "64", "--seconds", "0", "--json"},
             {"stems", at("s.wav"), "-m", at("m"), "-d", at("stems")},
             {"stems", at("s.wav"), at("s.wav"), "-m", at("m"), "-d", at("both")},
             {"process", at("s.wav"), "-m", at("m"), "-o", at("o.wav"), "--solo", "none"},
             {"process", at("s.wav"), "-m", at("m"), "-o", at("none/o.wav")},
             {hostile}}) {
        SCOPED_TRACE(arguments.front() + arguments.back());
        const Outcome outcome = run(arguments);
        const std::string text = outcome.out + outcome.err;
        EXPECT_THAT(text, testing::AnyOf(HasSubstr("x1b[2J"), HasSubstr("u001b[2J")));
        for (const char letter : text)
            EXPECT_TRUE(letter == '\n' || (letter >= 0x20 && letter < 0x7f)) << static_cast<int>(letter);
    }
    EXPECT_EQ(Json::parse(run({"info", at("m"), "--json"}).out)["layers"][0]["name"].get<std::string>(),
              "\x1b[2J\x7f\xc2\x9b\n\r\xef\xbf\xbd\"\\");
}

// As the shell asks: the words so far, the last of them under the cursor.
TEST_F(ReportsTest, bashCompletesCommandsOptionsAndModels) {
    folder.makeFile("completion", run({"completion", "bash"}).out);
    const auto complete = [&](const std::string& words) {
        folder.makeFile("ask", "source '" + folder.getPath("completion") +
                                   "'\nCOMP_WORDS=('" ZEVRANT_PROGRAM "' " + words +
                                   ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_zevrant\n" +
                                   "echo \"${COMPREPLY[*]}\" > '" + folder.getPath("answer") + "'\n");
        EXPECT_EQ(std::system(("bash -u '" + folder.getPath("ask") + "'").c_str()), 0) << words;
        return folder.readFile("answer");
    };
    EXPECT_EQ(complete("s"), "stems spectrogram\n");
    EXPECT_EQ(complete("stems --jo"), "--jobs\n");
    EXPECT_EQ(complete("process --jo"), "\n");
    EXPECT_EQ(complete("stems -m harm"), "harmonic-percussive\n");
    EXPECT_EQ(complete("info harm"), "harmonic-percussive\n");
    EXPECT_EQ(complete("stems harm"), "\n");  // a file, which the shell knows
    for (const char* shell : {"zsh", "fish"}) EXPECT_THAT(run({"completion", shell}).out, HasSubstr("jobs"));
    EXPECT_EQ(run({"completion", "cmd"}).status, 2);
}

TEST_F(ReportsTest, helpShowsAnExampleOfEachCommand) {
    EXPECT_THAT(run({"--help"}).out, HasSubstr("Exit status:"));
    for (const char* command :
         {"process", "stems", "info", "check", "bench", "spectrogram", "compare", "completion"}) {
        const Outcome outcome = run({command, "--help"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_THAT(outcome.out, HasSubstr(std::string("  zevrant ") + command)) << command;
    }
}

}  // namespace
}  // namespace zevrant
