#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "modelwriter/ModelWriter.h"
#include "neural/MemoryStream.h"
#include "neural/NeuralModel.h"
#include "neural/NormLayers.h"

namespace zevrant {
namespace {

using namespace modelwriter;

struct Loaded {
    NeuralModel<float> model;
    bool result;
    long long position;  // where the reading stopped
};

Loaded load(const Bytes& bytes) {
    Loaded loaded;
    const auto stream = streamOver(bytes);
    loaded.result = loaded.model.loadModel(stream);
    loaded.position = stream->getPosition();
    return loaded;
}

void appendInt32(Bytes& bytes, std::int32_t value) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

void appendText(Bytes& bytes, const std::string& text) {
    appendInt32(bytes, static_cast<std::int32_t>(text.size()));
    bytes.insert(bytes.end(), text.begin(), text.end());
}

TEST(ModelLoader, everyHeaderFormComesBack) {
    const std::vector<Packing> packings = {
        Packing::magnitudes(33),        Packing::rectifiedParts(3, 30),    Packing::complexBins(-7),
        Packing::frameHistory(2, 9, 4), Packing::complexGroups(20, 80, 4), Packing::complexGroups(-3, 9, -5)};
    for (int version = earliestVersion; version <= latestVersion; ++version)
        for (const Packing& in : packings)
            for (const Packing& out : packings) {
                SCOPED_TRACE(testing::Message() << version << ": " << in.code << " to " << out.code);
                const int window = version >= 0x1005 ? 900 : 1024;
                ModelWriter writer("The name", version);
                writer.setInfoText("Info").setSampleRate(22050.9).setChannels(2, 5).setProcessingMode(-3);
                writer.setPacking(in, out).setFrames(1024, window, 300).setOutput("input");
                if (version >= 0x1006) writer.setBusses({"One", "", "Rest"});
                const Bytes bytes = writer.toBytes();
                const auto [model, result, position] = load(bytes);
                ASSERT_TRUE(result);
                EXPECT_EQ(position, static_cast<long long>(bytes.size()));
                EXPECT_EQ(
                    std::tuple(model.modelName, model.modelInfoText, model.sampleRate, model.processingMode),
                    std::tuple("The name", "Info", 22050.9, -3));
                EXPECT_EQ(std::tuple(model.numOfInputChannels, model.numOfOutputChannels, model.inputPacking,
                                     model.outputPacking, model.fftSize, model.windowSize, model.hopSize),
                          std::tuple(2, 5, in.code, out.code, 1024, window, 300));
                EXPECT_EQ(
                    std::tuple(model.numFineBins, model.numBins, model.binGroupSize, model.numHistoryFrames,
                               model.tensorFrequencies, model.frameHistory.size()),
                    std::tuple(in.numOfFineBins, in.numOfFineBins + in.numOfBins, in.binGroupSize,
                               in.numOfHistoryFrames,
                               in.code == 6 ? in.numOfBins / in.binGroupSize + in.numOfFineBins
                                            : 4 * in.numOfFineBins + in.numOfBins,
                               static_cast<std::size_t>(in.numOfHistoryFrames)));
                const std::list<std::string> names = version >= 0x1006
                                                         ? std::list<std::string>{"One", "", "Rest"}
                                                         : std::list<std::string>{"Processed", "Residual"};
                EXPECT_EQ(model.outputBusNames, names);
                EXPECT_EQ(std::tuple(model.numOfOutputBusses, model.latencyInFrames, model.layers.size()),
                          std::tuple(version >= 0x1006 ? 2 : 1, 0, 2u));
                EXPECT_EQ(std::get<std::shared_ptr<BaseLayer<float>>>(model.layers.at("output")),
                          model.outputLayer);
            }
}

TEST(ModelLoader, busNamesAreOneMoreThanBussesAndPileUp) {
    for (int count : {0, 1, 2, 128}) {
        ModelWriter writer("x");
        writer.setBusses(std::vector<std::string>(static_cast<std::size_t>(count), "bus")).setOutput("input");
        auto [model, result, position] = load(writer.toBytes());
        EXPECT_TRUE(result);
        EXPECT_EQ(model.numOfOutputBusses, count - 1);
        EXPECT_EQ(model.outputBusNames.size(), static_cast<std::size_t>(count));
        EXPECT_TRUE(model.loadModel(streamOver(writer.toBytes())));
        EXPECT_EQ(model.outputBusNames.size(), static_cast<std::size_t>(2 * count));
    }
}

TEST(ModelLoader, refusesAfterTheBytesThatTellIt) {
    for (const auto& [magic, version, bytesBehindMagic] : {std::tuple{"KOLVE.model", 0x1009, 6},
                                                           {"TQLe.model", 0x1004, 6},
                                                           {"KOLVE.model", 0x1003, 4},
                                                           {"zevrant.model", 0x1003, 4},
                                                           {"zevrant.model", -1, 4},
                                                           {"zevrant.mode", 0x1009, 0},
                                                           {"", 0x1009, 0}}) {
        Bytes bytes;
        appendText(bytes, magic);
        const auto start = static_cast<long long>(bytes.size());
        appendInt32(bytes, version);
        bytes.resize(bytes.size() + 100, 1);
        const Loaded loaded = load(bytes);
        EXPECT_FALSE(loaded.result) << magic;
        EXPECT_EQ(loaded.position, start + bytesBehindMagic) << magic;
        EXPECT_EQ(loaded.model.modelName, "");
    }
    EXPECT_FALSE(load({}).result);
    EXPECT_FALSE(NeuralModel<float>().loadModel(File("/no such folder/no such file")));
}

TEST(ModelLoader, refusesCodesThatItDoesNotKnow) {
    const Bytes valid =
        ModelWriter("", 0x1004).setPacking(Packing::magnitudes(1)).setOutput("input").toBytes();
    const std::size_t inputPacking = 4 + 13 + 4 + 4 + 4 + 8 + 1, outputPacking = inputPacking + 1 + 2 + 2;
    ASSERT_EQ(valid[inputPacking], 1);
    ASSERT_EQ(valid[outputPacking], 1);
    for (int code = -128; code < 128; ++code) {
        const bool isKnown = code == 1 || code == 2 || (code >= 4 && code <= 6);
        for (std::size_t place : {inputPacking, outputPacking}) {
            Bytes bytes = valid;
            bytes[place] = static_cast<std::uint8_t>(code);
            // Behind a known one the fields would be misread.
            EXPECT_FALSE(!isKnown && load(bytes).result) << code;
        }
    }
    for (int code : {0, 1, 8, 10, 11, 13, 21, 24, 256 + 4, 65535})
        EXPECT_FALSE(load(ModelWriter("").addRawLayer("x", code, {}).setOutput("input").toBytes()).result)
            << code;
}

TEST(ModelLoader, unknownSourcesThrowWithTheirText) {
    const int relu = 4, concat = 9;
    const auto withLayer = [](int code, const Bytes& payload) {
        return ModelWriter("").addRawLayer("a", code, payload).setOutput("input").toBytes();
    };
    Bytes noSource = ModelWriter("").setOutput("input").toBytes(), behind, negative;
    noSource.resize(noSource.size() - 9);  // a text that reads as empty
    behind = negative = noSource;
    appendText(behind, "output");
    appendInt32(negative, -1);
    for (const Bytes& bytes :
         {withLayer(relu, encodeLayer("later", ReLU{})), withLayer(relu, encodeLayer("a", ReLU{})),  // itself
          withLayer(relu, encodeLayer("output", ReLU{})),
          withLayer(concat, encodeLayer({"input", "later"}, Concat{})), noSource, behind}) {
        try {
            load(bytes);
            FAIL() << "loaded";
        } catch (const std::out_of_range& error) {
            EXPECT_STREQ(error.what(), "map::at:  key not found");
        }
    }
    EXPECT_THROW(load(negative), std::length_error);
}

TEST(ModelLoader, latencyFollowsTheChainOfLayers) {
    const WeightTensor one{{1, 1, 1, 1}, {1.0f}};
    for (const auto& [rate, fft, hop, offset, milliseconds] :
         std::vector<std::tuple<double, int, int, int, int>>{{48000, 1024, 256, 4, 37},
                                                             {48000.9, 1024, 256, 4, 37},
                                                             {44100, 1024, 512, 4, 70},
                                                             {1, 3, 1, 127, 130000}}) {
        ModelWriter writer("");
        writer.setSampleRate(rate).setFrames(fft, fft, hop).setPacking(Packing::magnitudes(1));
        writer.addLayer("a", "input", Conv{.weights = one, .timeStride = 2, .timeOffset = offset - 2});
        writer.addLayer("b", "a", Conv{.weights = one, .timeOffset = 1}).addLayer("c", "input", ReLU{});
        const auto [model, result, position] = load(writer.setOutput("b").toBytes());
        ASSERT_TRUE(result);
        EXPECT_EQ(model.latencyInFrames, offset);  // offset - 2, and 1 at two frames a slice
        EXPECT_EQ(model.latencyMilliseconds, milliseconds);
    }
}

TEST(ModelLoader, ratesAndFramesThatAreNotPositiveAreRefused) {
    const auto loads = [](double rate, int window, int hop) {
        return load(
                   ModelWriter("").setSampleRate(rate).setFrames(8, window, hop).setOutput("input").toBytes())
            .result;
    };
    EXPECT_TRUE(loads(1.0, 1, 1));
    EXPECT_TRUE(loads(2147483647.5, 1, 1));
    for (double rate : {0.0, 0.99, -1.0, -48000.0, 2147483648.0, 1e300, -1e300,
                        std::numeric_limits<double>::infinity(), std::nan("")})
        EXPECT_FALSE(loads(rate, 8, 8)) << rate;
    for (int bad : {0, -1, -32768}) {
        EXPECT_FALSE(loads(48000, bad, 8));
        EXPECT_FALSE(loads(48000, 8, bad));
    }
}

TEST(ModelLoader, levelScaleUndoesThePackingsShareOfTheLevel) {
    const auto getScale = [](const Packing& packing, int fft, int channels) {
        ModelWriter writer("");
        writer.setPacking(packing).setFrames(fft, fft, 1).setChannels(channels, 1);
        writer.addLayer("level", "input", ARPreNorm{0.5f, 0.5f, 1.0f}).setOutput("level");
        const NeuralModel<float> model = load(writer.toBytes()).model;
        const auto layer = std::get<std::shared_ptr<BaseLayer<float>>>(model.layers.at("level"));
        return dynamic_cast<const ARPreNormLayer<float>&>(*layer).levelScale;
    };
    const auto root = [](double a, double b) { return static_cast<float>(std::sqrt(a / b)); };
    for (int channels : {1, 2, 127}) {
        EXPECT_FLOAT_EQ(getScale(Packing::magnitudes(513), 1024, channels), 1.0f);
        EXPECT_FLOAT_EQ(getScale(Packing::magnitudes(512), 1024, channels), root(512, 513));
        EXPECT_EQ(getScale(Packing::magnitudes(511), 1024, channels), 1.0f);
        EXPECT_FLOAT_EQ(getScale(Packing::rectifiedParts(13, 500), 1024, channels), root(552, 513));
        EXPECT_FLOAT_EQ(getScale(Packing::complexBins(513), 1025, channels), root(2, 1));
        EXPECT_FLOAT_EQ(getScale(Packing::complexGroups(13, 500, 1), 1024, channels), root(2, 1));
        EXPECT_EQ(getScale(Packing::complexGroups(13, 500, 2), 1024, channels), 1.0f);
        EXPECT_EQ(getScale(Packing::frameHistory(13, 500, 2), 1024, channels), 1.0f);
        EXPECT_FLOAT_EQ(getScale(Packing::frameHistory(13, 500, 1), 1024, channels), root(552, 513));
    }
    EXPECT_EQ(getScale(Packing::magnitudes(513), 1024, 0), 1.0f);
    EXPECT_EQ(getScale(Packing::magnitudes(513), 1024, -1), 1.0f);
    EXPECT_EQ(getScale(Packing::magnitudes(0), -8, 1), 1.0f);
}

TEST(ModelLoader, oddHeadersLoadAndStopAtTheirFirstUse) {
    const auto loadWith = [](const Packing& packing, int channels = 1) {
        return load(
            ModelWriter("").setChannels(channels, 1).setPacking(packing).setOutput("input").toBytes());
    };
    // Silence is one block, however long it is.
    Loaded longest = loadWith(Packing::frameHistory(32767, 32767, 32767), 127);
    ASSERT_EQ(longest.model.frameHistory.size(), 32767u);
    const auto& first = longest.model.frameHistory.front();
    EXPECT_TRUE(first.numOfChannels == 127 && first.numOfSamples == 65534);
    for (const auto& frame : longest.model.frameHistory) ASSERT_EQ(frame.data, first.data);
    EXPECT_THROW(longest.model.process(ComplexSignal32(127, 16)), std::runtime_error);
    for (int frames : {0, -5}) {
        Loaded loaded = loadWith(Packing::frameHistory(1, 1, frames));
        EXPECT_TRUE(loaded.result);
        EXPECT_THROW(loaded.model.process(ComplexSignal32(1, 16)), std::logic_error);
    }
    EXPECT_THROW(loadWith(Packing::complexGroups(2, 8, 0)), std::invalid_argument);
    for (int channels : {0, -1, -128}) {
        Loaded loaded = loadWith(Packing::magnitudes(5), channels);
        ASSERT_TRUE(loaded.result) << channels;
        EXPECT_TRUE(loaded.model.process(ComplexSignal32(1, 5)).empty() || channels < 0);
    }
    for (int bins : {0, -32768}) EXPECT_TRUE(loadWith(Packing::complexBins(bins)).result) << bins;
}

TEST(ModelLoader, aSecondLayerOfAnameReplacesTheFirst) {
    const int relu = 4, elu = 5;
    Bytes bytes = ModelWriter("")
                      .addRawLayer("a", relu, encodeLayer("input", ReLU{}))
                      .addRawLayer("b", elu, encodeLayer("a", ELU{}))
                      .setOutput("b")
                      .toBytes();
    // The second record's name becomes "a" too; the output then names it.
    const std::string second = std::string{1, 0, 0, 0} + "b" + std::string{5, 0};
    const auto place = std::search(bytes.begin(), bytes.end(), second.begin(), second.end());
    ASSERT_NE(place, bytes.end());
    *(place + 4) = 'a';
    bytes.back() = 'a';
    Loaded loaded = load(bytes);
    ASSERT_TRUE(loaded.result);
    EXPECT_EQ(loaded.model.layers.size(), 3u);
    EXPECT_EQ(std::get<std::shared_ptr<BaseLayer<float>>>(loaded.model.layers.at("a"))->type, elu);
    loaded.model.inputLayer->push(Tensor<float>({1, 1, 1}), nullptr);  // touches nothing that is gone
    loaded.model.reset();
}

}  // namespace
}  // namespace zevrant
