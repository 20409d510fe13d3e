#include "modelwriter/ModelWriter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>

#include "files/TemporaryFolder.h"
#include "neural/LayerTesting.h"
#include "neural/NeuralModel.h"

namespace zevrant {
namespace {

using namespace modelwriter;

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

        test::Record expected;
        expected.string("zevrant.model").number(version).string("Name").string("Info").number(44100.5);
        expected.int8(2).int8(6).int16(20).int16(80).int8(4).int8(-1).int8(3);
        if (version >= 0x1006) expected.int8(2).string("A").string("Bb").string("Rest");
        expected.int8(5).int16(5).int16(6).int16(7).int16(0).int16(512);
        if (version >= 0x1005) expected.int16(400);
        expected.int16(100).number(0).string("input");
        EXPECT_EQ(model.toBytes(), expected.bytes);
    }
}

TEST(ModelWriter, fieldsThatAreNotGivenAreNeutral) {
    const WeightTensor kernel{{1, 1, 2, 1}, {0.25f, 0.5f}};
    const test::Weights weights{kernel.shape, kernel.values}, none;
    const auto start = [&] { return test::Record().string("src").tensor(weights).tensor(none); };
    EXPECT_EQ(encodeLayer("src", Conv{.weights = kernel}),
              start().int8(1).int8(1).int8(1).int8(0).int8(0).bytes);
    EXPECT_EQ(encodeLayer("src", TransposedConv{.weights = kernel}),
              start().int16(2).int8(1).int8(1).int8(1).int8(0).int8(0).bytes);
    EXPECT_EQ(encodeLayer("src", SelfAttention{.channelMatrix = kernel}), start().int8(0).tensor(none).bytes);
    EXPECT_EQ(encodeLayer("src", Norm{.gain = kernel}),
              test::Record().string("src").int8(0).tensor(weights).tensor(none).bytes);
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

TEST(ModelWriter, whatCannotBeWrittenIsRefusedAtItsCallAndChangesNothing) {
    ModelWriter model("x", 0x1005);
    model.addLayer("a", "input", ReLU{}).setOutput("a");
    const Bytes before = model.toBytes();
    const WeightTensor four{{1, 1, 1, 1}, {1.0f}}, short4{{2, 2, 1}, {1, 2, 3}}, negative{{-1, -1}, {1.0f}};
    const auto add = [&](const char* name, const SingleSourceLayer& layer) {
        model.addLayer(name, "a", layer);
    };
    const std::pair<std::function<void()>, const char*> calls[] = {
        {[&] { model.addLayer("b", "c", ReLU{}); }, "layer \"b\": no layer \"c\" stands before it"},
        {[&] {
             model.addLayer("m", std::vector<std::string>{"a", "later"}, Concat{});
         },
         "no layer \"later\""},
        {[&] { add("output", ReLU{}); }, "layer \"output\": the name is taken"},
        {[&] { model.setOutput("b"); }, "the output: no layer \"b\" stands before it"},
        {[&] { add("c", Conv{.weights = four, .timeStride = 128}); },
         "timeStride is 128, and its field holds -128 to 127"},
        {[&] {
             add("d", Dense{short4, {}});
         },
         "weights has 3 values for a shape of 4"},
        {[&] { add("d", PreNorm{negative}); }, "levelWeights has a negative axis"},
        {[&] { add("e", Norm{.normMode = 1, .gain = four}); }, "other than 0 needs version 0x100a"},
        {[&] { add("f", TransposedConv{.weights = four, .outputChannels = 2}); }, "layer \"f\""},
        {[&] {
             add("g", SelfAttention{four, four, 1, {}});
         },
         "layer \"g\""},
        {[&] { model.setTensorStorage(TensorStorage::HalfPrecision); }, ""},
        {[&] { model.setBusses({"A"}); }, ""},
        {[&] { model.setFrames(40000, 40000, 1); }, ""},
        {[&] { model.setChannels(1, 200); }, ""},
        {[&] { model.setPacking({.code = 3}); }, ""},
        {[&] { model.addRawLayer("h", 70000, {}); }, ""},
        {[&] { ModelWriter("x", 0x1003); }, ""},
        {[&] { ModelWriter("x", 0x1004).setFrames(512, 256, 128); }, ""},
    };
    for (const auto& [call, text] : calls) try {
            call();
            ADD_FAILURE() << text;
        } catch (const std::invalid_argument& error) {
            EXPECT_NE(std::string(error.what()).find(text), std::string::npos) << error.what();
        }
    EXPECT_EQ(model.toBytes(), before);
    EXPECT_THROW(ModelWriter("x").toBytes(), std::logic_error);
}

TEST(ModelWriter, aFileIsWholeOrAsItWas) {
    const TemporaryFolder temporary;
    const std::filesystem::path folder = temporary.path;
    const auto countFiles = [&] { return std::distance(std::filesystem::directory_iterator(folder), {}); };
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

}  // namespace
}  // namespace zevrant
