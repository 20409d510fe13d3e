#include "modelwriter/ModelWriter.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>

#include "files/TemporaryFolder.h"
#include "neural/MemoryStream.h"
#include "neural/NeuralModel.h"
#include "neural/Tensor.h"

namespace zevrant {
namespace {

using namespace modelwriter;

// Bytes as the format lays them out, written by hand.
class HandWritten {
  public:
    template <class Number>
    HandWritten& number(Number value) {
        const auto* first = reinterpret_cast<const std::uint8_t*>(&value);
        bytes.insert(bytes.end(), first, first + sizeof value);
        return *this;
    }
    HandWritten& int8(int value) { return number(static_cast<std::int8_t>(value)); }
    HandWritten& int16(int value) { return number(static_cast<std::int16_t>(value)); }
    HandWritten& int32(int value) { return number(static_cast<std::int32_t>(value)); }
    HandWritten& text(const std::string& value) {
        int32(static_cast<int>(value.size()));
        bytes.insert(bytes.end(), value.begin(), value.end());
        return *this;
    }
    HandWritten& tensor(int version, std::vector<int> shape, std::vector<float> values) {
        if (version >= 0x1009) int8(1);
        int8(static_cast<int>(shape.size()));
        for (int axis : shape) int32(axis);
        for (float value : values) number(value);
        return *this;
    }
    Bytes bytes;
};

TEST(ModelWriter, headerFollowsItsVersionFieldByField) {
    for (int version = 0x1004; version <= 0x100a; ++version) {
        SCOPED_TRACE(version);
        ModelWriter model("Name", version);
        model.setInfoText("Info").setSampleRate(44100.5).setChannels(2, 3).setProcessingMode(-1);
        model.setPacking(Packing::complexGroups(20, 80, 4), Packing::frameHistory(5, 6, 7));
        if (version >= 0x1005)
            model.setFrames(512, 400, 100);
        else
            model.setFrames(512, 512, 100);
        if (version >= 0x1006) model.setBusses({"A", "Bb", "Rest"});
        model.setOutput("input");

        HandWritten expected;
        expected.text("zevrant.model").int32(version).text("Name").text("Info").number(44100.5).int8(2);
        expected.int8(6).int16(20).int16(80).int8(4).int8(-1).int8(3);
        if (version >= 0x1006) expected.int8(2).text("A").text("Bb").text("Rest");
        expected.int8(5).int16(5).int16(6).int16(7).int16(0).int16(512);
        if (version >= 0x1005) expected.int16(400);
        expected.int16(100).int32(0).text("input");
        EXPECT_EQ(model.toBytes(), expected.bytes);
    }
}

TEST(ModelWriter, everyLayerRecordFollowsItsVersionFieldByField) {
    const WeightTensor a{{2}, {1.0f, -2.5f}}, b{{1, 1}, {3.0f}}, none;
    const WeightTensor kernel{{1, 1, 2, 1}, {0.25f, 0.5f}};
    for (int version : {0x1004, 0x1006, 0x1007, 0x1008, 0x1009, 0x100a}) {
        SCOPED_TRACE(version);
        const auto start = [] { return HandWritten().text("src"); };
        const auto expectRecord = [&](int typeCode, const SingleSourceLayer& layer,
                                      const HandWritten& expected) {
            EXPECT_EQ(encodeLayer("src", layer, version), expected.bytes) << "type " << typeCode;
            ModelWriter withLayer("", version), without("", version);
            withLayer.addRawLayer("src", 99, {}).addLayer("x", "src", layer).setOutput("src");
            without.addRawLayer("src", 99, {}).addRawLayer("x", typeCode, expected.bytes).setOutput("src");
            EXPECT_EQ(withLayer.toBytes(), without.toBytes()) << "type " << typeCode;
        };
        auto putA = [&](HandWritten& out) { out.tensor(version, a.shape, a.values); };
        auto putB = [&](HandWritten& out) { out.tensor(version, b.shape, b.values); };
        auto putNone = [&](HandWritten& out) { out.tensor(version, {}, {}); };
        auto putKernel = [&](HandWritten& out) { out.tensor(version, kernel.shape, kernel.values); };

        HandWritten conv = start();
        putKernel(conv);
        putA(conv);
        conv.int8(1).int8(2).int8(3).int8(-4).int8(-128);
        expectRecord(2,
                     Conv{.weights = kernel,
                          .bias = a,
                          .frequencyStride = 2,
                          .timeDilation = 3,
                          .reservedParameter = -4,
                          .timeOffset = -128},
                     conv);
        HandWritten transposed = start();
        putKernel(transposed);
        putNone(transposed);
        if (version >= 0x1008) transposed.int16(2);
        transposed.int8(5).int8(1).int8(1).int8(0).int8(127);
        expectRecord(3, TransposedConv{.weights = kernel, .timeStride = 5, .timeOffset = 127}, transposed);
        expectRecord(4, ReLU{}, start());
        expectRecord(5, ELU{}, start());
        expectRecord(6, Sigmoid{}, start());
        expectRecord(17, Softplus{}, start());
        expectRecord(20, HardSigmoid{}, start());
        expectRecord(12, LeakyReLU{0.125f}, start().number(0.125f));
        HandWritten norm = start();
        if (version >= 0x100a) {
            norm.int8(0);
            putA(norm);
            putB(norm);
        } else {
            putB(norm);
            putA(norm);
        }
        expectRecord(7, Norm{.gain = a, .offset = b}, norm);
        HandWritten preNorm = start();
        putA(preNorm);
        expectRecord(16, PreNorm{a}, preNorm);
        expectRecord(23, ARPreNorm{0.5f, 0.75f, 1e-3f}, start().number(0.5f).number(0.75f).number(1e-3f));
        HandWritten dense = start();
        putA(dense);
        putB(dense);
        expectRecord(14, Dense{a, b}, dense);
        expectRecord(15, SeparableChannelConv{a, b}, dense);
        HandWritten attention = start();
        putA(attention);
        putB(attention);
        if (version >= 0x1007) {
            attention.int8(version >= 0x1007 ? 9 : 0);
            putB(attention);
            expectRecord(19, SelfAttention{a, b, 9, b}, attention);
        } else {
            expectRecord(19, SelfAttention{.channelMatrix = a, .positionBias = b}, attention);
        }
        HandWritten rescale = start().int16(2).int16(3);
        putA(rescale);
        rescale.int16(-1);
        putB(rescale);
        expectRecord(22, FrequencyRescale{{{3, a}, {-1, b}}}, rescale);

        EXPECT_EQ(encodeLayer({"p", "qq"}, Concat{}, version),
                  HandWritten().int16(2).text("p").text("qq").bytes);
        EXPECT_EQ(encodeLayer({"p"}, Arithmetic{Arithmetic::Subtract}, version),
                  HandWritten().int16(1).text("p").int8(3).bytes);
    }
}

// Every half that the writer makes is the nearest one, and of two equally near the even one. The oracle
// looks through the neighbours in double.
TEST(ModelWriter, halvesAreTheNearestOfTheFormat) {
    const auto valueOf = [](int half) {
        const int exponent = half >> 10 & 31;
        const double fraction = half & 1023;
        return exponent == 0 ? std::ldexp(fraction, -24) : std::ldexp(1024.0 + fraction, exponent - 25);
    };
    const auto expectNearest = [&](float value) {
        const int half = toHalfPrecision(value);
        ASSERT_EQ(half >> 15, std::signbit(value) ? 1 : 0) << value;
        const int magnitude = half & 0x7fff;
        ASSERT_LT(magnitude, 31 << 10) << value;
        const double error = std::abs(valueOf(magnitude) - std::abs(double{value}));
        for (int neighbour : {magnitude - 1, magnitude + 1}) {
            if (neighbour < 0) continue;
            const double other = std::abs(valueOf(neighbour) - std::abs(double{value}));
            ASSERT_LE(error, other) << value;
            if (error == other) {
                ASSERT_EQ(magnitude % 2, 0) << value;
            }
        }
    };
    for (int half = 0; half < 31 << 10; ++half) {
        const double exact = valueOf(half), above = valueOf(half + 1);
        for (double value :
             {exact, (exact + above) / 2, exact + (above - exact) * 0.49, exact + (above - exact) * 0.51}) {
            if (value >= 65520.0) continue;
            expectNearest(static_cast<float>(value));
            expectNearest(static_cast<float>(-value));
        }
    }
    expectNearest(std::numeric_limits<float>::denorm_min());
    expectNearest(std::nextafter(65520.0f, 0.0f));
    for (float value : {65520.0f, 1e9f, std::numeric_limits<float>::infinity(), std::nanf("")}) {
        EXPECT_THROW(toHalfPrecision(value), std::invalid_argument) << value;
        EXPECT_THROW(toHalfPrecision(-value), std::invalid_argument) << value;
    }
}

template <class Call>
std::string getErrorText(Call call) {
    try {
        call();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "no error";
}

TEST(ModelWriter, whatCannotBeWrittenIsRefusedAtItsCallAndChangesNothing) {
    ModelWriter model("x", 0x1005);
    model.addLayer("a", "input", ReLU{}).setOutput("a");
    const Bytes before = model.toBytes();
    const WeightTensor four{{1, 1, 1, 1}, {1.0f}};

    EXPECT_EQ(getErrorText([&] { model.addLayer("b", "c", ReLU{}); }),
              "layer \"b\": no layer \"c\" stands before it");
    EXPECT_EQ(getErrorText([&] {
                  model.addLayer("m", {"a", "later"}, Concat{});
              }),
              "layer \"m\": no layer \"later\" stands before it");
    EXPECT_EQ(getErrorText([&] { model.addLayer("a", "input", ReLU{}); }), "layer \"a\": the name is taken");
    EXPECT_EQ(getErrorText([&] { model.addLayer("output", "a", ReLU{}); }),
              "layer \"output\": the name is taken");
    EXPECT_EQ(getErrorText([&] { model.addLayer("input", "a", ReLU{}); }),
              "layer \"input\": the name is taken");
    EXPECT_EQ(getErrorText([&] { model.setOutput("b"); }), "the output: no layer \"b\" stands before it");
    EXPECT_EQ(getErrorText([&] { model.addLayer("c", "a", Conv{.weights = four, .timeStride = 128}); }),
              "layer \"c\": timeStride is 128, and its field holds -128 to 127");
    EXPECT_EQ(getErrorText([&] {
                  model.addLayer("d", "a", Dense{{{2, 2, 1}, {1, 2, 3}}, {}});
              }),
              "layer \"d\": weights has 3 values for a shape of 4");
    EXPECT_EQ(getErrorText([&] {
                  model.addLayer("d", "a", PreNorm{{{-1, -1}, {1.0f}}});
              }),
              "layer \"d\": levelWeights has a negative axis");
    EXPECT_EQ(getErrorText([&] { model.addLayer("e", "a", Norm{.normMode = 1, .gain = four}); }),
              "layer \"e\": a normMode other than 0 needs version 0x100a");
    EXPECT_THROW(model.addLayer("f", "a", TransposedConv{.weights = four, .outputChannels = 2}),
                 std::invalid_argument);
    EXPECT_THROW(model.addLayer("g", "a", SelfAttention{four, four, 1, {}}), std::invalid_argument);
    EXPECT_THROW(model.setTensorStorage(TensorStorage::HalfPrecision), std::invalid_argument);
    EXPECT_THROW(model.setBusses({"A"}), std::invalid_argument);
    EXPECT_THROW(model.setFrames(40000, 40000, 1), std::invalid_argument);
    EXPECT_THROW(model.setChannels(1, 200), std::invalid_argument);
    EXPECT_THROW(model.setPacking({.code = 3}), std::invalid_argument);
    EXPECT_THROW(model.addRawLayer("h", 70000, {}), std::invalid_argument);
    EXPECT_EQ(model.toBytes(), before);

    EXPECT_THROW(ModelWriter("x", 0x1003), std::invalid_argument);
    EXPECT_THROW(ModelWriter("x", 0x100b), std::invalid_argument);
    EXPECT_THROW(ModelWriter("x").toBytes(), std::logic_error);
    EXPECT_THROW(ModelWriter("x", 0x1004).setFrames(512, 256, 128), std::invalid_argument);
}

class ModelWriterFiles : public testing::Test {
  protected:
    int countFiles() const {
        return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder), {}));
    }
    const TemporaryFolder temporary;
    const std::filesystem::path folder = temporary.path;
};

TEST_F(ModelWriterFiles, aFileIsWholeOrAsItWas) {
    const auto path = folder / "m.model";
    ModelWriter model("first");
    model.setOutput("input");
    model.write(path);
    model.setInfoText("second").write(path);
    std::ifstream stream(path, std::ios::binary);
    const Bytes content{std::istreambuf_iterator<char>(stream), {}};
    EXPECT_EQ(content, model.toBytes());
    EXPECT_EQ(countFiles(), 1);

    EXPECT_THROW(ModelWriter("no output").write(path), std::logic_error);
    EXPECT_THROW(model.write(folder / "missing" / "m.model"), std::filesystem::filesystem_error);
    std::filesystem::create_directories(folder / "taken" / "by a folder");
    EXPECT_THROW(model.write(folder / "taken"), std::filesystem::filesystem_error);
    EXPECT_EQ(countFiles(), 2);
    EXPECT_EQ(std::filesystem::file_size(path), content.size());
}

TEST_F(ModelWriterFiles, aModelWhoseOutputNamesTheInputLoadsFromDiskAndRuns) {
    ModelWriter("Through")
        .setPacking(Packing::complexBins(5))
        .setFrames(8, 8, 4)
        .setOutput("input")
        .write(folder / "through.model");
    NeuralModel<float> model;
    ASSERT_TRUE(model.loadModel(File((folder / "through.model").string())));
    EXPECT_EQ(model.modelName, "Through");
    ComplexSignal32 frame(1, 5);
    for (int i = 0; i < 5; ++i) frame.getWriteChannelPtr(0)[i] = std::polar(1.0f, static_cast<float>(i));
    const auto results = model.process(frame);
    ASSERT_EQ(results.size(), 1u);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(results[0].getReadChannelPtr(0)[i], frame.getReadChannelPtr(0)[i]) << "bin " << i;
    EXPECT_FALSE(model.loadModel(File((folder / "no such file").string())));
}

}  // namespace
}  // namespace zevrant
