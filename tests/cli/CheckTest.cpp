// What check says about models that are bent in one place each.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <limits>

#include "Program.h"
#include "files/TemporaryFolder.h"
#include "modelwriter/ModelWriter.h"

namespace zevrant {
namespace {

using namespace modelwriter;

WeightTensor zeros(const std::vector<int>& shape) {
    std::size_t count = 1;
    for (const int size : shape) count *= static_cast<std::size_t>(size);
    return {shape, std::vector<float>(count, 0.0f)};
}

ModelWriter start(const Packing& packing = Packing::magnitudes(17)) {
    ModelWriter model("bent");
    model.setFrames(32, 32, 8).setPacking(packing);
    return model;
}

Bytes end(ModelWriter model, const std::string& output = "x") {
    return model.setOutput(output).toBytes();
}

// One layer "x" on the input.
Bytes with(const SingleSourceLayer& layer) {
    return end(start().addLayer("x", "input", layer));
}

Bytes withoutLast(Bytes bytes, std::size_t count) {
    bytes.resize(bytes.size() - count);
    return bytes;
}

Bytes replaced(Bytes bytes, const std::string& from, const std::string& to) {
    const auto place = std::search(bytes.begin(), bytes.end(), from.begin(), from.end());
    EXPECT_NE(place, bytes.end());
    std::copy(to.begin(), to.end(), place);
    return bytes;
}

struct Case {
    Bytes bytes;
    std::vector<std::string> lines;  // all that check prints
};

std::vector<Case> makeRefusedModels() {
    const Conv conv{.weights = zeros({1, 1, 1, 1})};
    ModelWriter two = start(), unknownSource = start(), noRate = start(), noGroup = start();
    two.addLayer("c1", "input", conv).addLayer("c2", "c1", conv);
    const Bytes twoConvolutions = end(two, "c2");
    unknownSource.addRawLayer("bar", ReLU::typeCode, encodeLayer("foo", ReLU{}));
    noRate.setSampleRate(0.5);
    const Bytes text{'n', 'o', 'n', 'e'};
    return {
        {{}, {"error    magic: this is no model (byte 0)"}},
        {{255, 255, 255, 255}, {"error    magic: this is no model (byte 0)"}},
        {replaced(with(ReLU{}), "zevrant", "ZEVRANT"), {"error    magic: this is no model (byte 0)"}},
        {replaced(with(ReLU{}), std::string("model\x0a\x10", 7), std::string("model\x03\x10", 7)),
         {"error    version 0x1003: this version of the format is not supported (byte 17); 0x1004 or later"}},
        {replaced(with(ReLU{}), std::string("\1\1\x11", 3), std::string("\1\x9\x11", 3)),
         {"error    inputPacking 9: this packing is not known (byte 42); 1, 2, 4 or 6"}},
        {end(start().addRawLayer("x\x1b[2J", 99, {}), "input"),
         {"error    layer \"x\\x1b[2J\": type 99: no layer has this code (byte 95)"}},
        {end(unknownSource, "bar"),
         {"error    layer \"bar\": source \"foo\": no layer of this name stands before it (byte 95)"}},
        {end(noRate, "input"), {"error    sampleRate 0: has to be 1 or more"}},
        {end(start(Packing::complexGroups(5, 12, 0)), "input"),
         {"error    group size: packing 6: groups of no bins"}},
        {withoutLast(twoConvolutions, 30), {"error    layer \"c2\": weights: the file ends here (byte 146)"}},
        {with(TransposedConv{.weights = zeros({1, 1, 1, 1}), .timeStride = 0}),
         {"error    layer \"x\": timeStride: transposed convolution: a stride has to be positive"}},
    };
}

std::vector<Case> makeBentLayers() {
    const WeightTensor one = zeros({1, 1, 1, 1});
    const float nan = std::numeric_limits<float>::quiet_NaN();
    ModelWriter twice = start(), rates = start(), lost = start(), delayed = start();
    twice.addLayer("x", std::vector<std::string>{"input", "input"}, Arithmetic{});
    rates.addLayer("half", "input", Conv{.weights = one, .timeStride = 2})
        .addLayer("x", std::vector<std::string>{"input", "half"}, Concat{});
    lost.addLayer("lost", "input", ELU{}).addLayer("x", "input", ReLU{});
    delayed.addLayer("x", "input", SelfAttention{.channelMatrix = zeros({1, 1}), .startDelay = -1});
    FrequencyRescale rescale;
    for (int bin = 0; bin < 17; ++bin) rescale.bands.push_back({bin, zeros({2})});
    Bytes doubled = end(start().addLayer("a", "input", ReLU{}).addLayer("x", "input", ELU{}));
    const std::string second = std::string{1, 0, 0, 0} + "a" + std::string{4, 0};
    doubled = replaced(doubled, second, std::string{1, 0, 0, 0} + "x" + std::string{4, 0});
    Bytes behind = with(ReLU{});
    behind.insert(behind.end(), 3, 0);

    return {
        {with(Conv{.weights = zeros({3, 3, 1})}),
         {"error    layer \"x\": weights [3, 3, 1]: has rank 3, a kernel has 4 axes"}},
        {with(Conv{.weights = zeros({1, 1, 2, 1})}),
         {"error    layer \"x\": weights [1, 1, 2, 1]: the kernel takes 2 channels and gets 1"}},
        {with(Conv{.weights = zeros({1, 1, 2, 1}), .timeOffset = -1}),
         {"warning  layer \"x\": timeOffset -1: takes away from the latency",
          "error    layer \"x\": weights [1, 1, 2, 1]: the kernel takes 2 channels and gets 1"}},
        {with(Conv{.weights = one, .bias = zeros({2}), .frequencyStride = 0}),
         {"error    layer \"x\": frequencyStride 0: a stride has to be positive; 1 keeps the rate",
          "warning  layer \"x\": bias [2]: the layer reads 1 values and there are 2"}},
        {with(Conv{.weights = {{1, 1, 1, 1}, {nan}}}),
         {"error    layer \"x\": weights [1, 1, 1, 1]: 1 values are no finite numbers"}},
        {with(LeakyReLU{nan}), {"error    layer \"x\": alpha nan: no finite number"}},
        {with(TransposedConv{.weights = one, .outputChannels = 2}),
         {"error    layer \"x\": outputChannels 2: the kernel makes 1, so that it writes across the ends of "
          "rows"}},
        {with(Norm{.gain = zeros({1})}),
         {"error    layer \"x\": offset []: a row reads 1 values and there are 0"}},
        {with(Dense{.weights = zeros({17, 16, 1})}),
         {"error    layer \"x\": weights [17, 16, 1]: a slice of 17 x 1 reads 289 values and there are 272"}},
        {with(SeparableChannelConv{zeros({3}), zeros({1})}),
         {"warning  layer \"x\": timeKernel [3]: the first 1 slices are dropped, which the model's latency "
          "does "
          "not count"}},
        {with(PreNorm{}), {"error    layer \"x\": levelWeights []: no weights for levels"}},
        {with(ARPreNorm{1.0f, 0.5f, 1e-6f}),
         {"warning  layer \"x\": attackCoefficient 1.000000: the level never settles; 0 up to below 1"}},
        {with(rescale), {"error    layer \"x\": band 16: reads bins 16 to 17 of 17"}},
        {end(delayed), {"error    layer \"x\": startDelay -1: nothing is ever sent on"}},
        {end(twice),
         {"error    layer \"x\": source: one source is named twice, and its slices wait for others for "
          "ever"}},
        {end(rates),
         {"error    layer \"x\": source: the sources give 0.500000 and 1.000000 slices per frame, so that "
          "ever "
          "more of them wait"}},
        {end(lost), {"warning  layer \"lost\": has no way to the output; leave it out"}},
        {doubled,
         {"error    layer \"x\": name: is taken, so that one layer takes the place of another and its links "
          "go"}},
        {behind, {"warning  3 bytes behind the model are ignored (byte 107)"}},
    };
}

std::vector<Case> makeBentHeaders() {
    const auto framed = [](int fft, int window, int hop) {
        return end(start(Packing::magnitudes(fft / 2 + 1)).setFrames(fft, window, hop), "input");
    };
    FrequencyRescale rescale;
    for (int bin = 0; bin < 16; ++bin) rescale.bands.push_back({bin, zeros({1})});
    return {
        {framed(32, 32, 4),
         {"error    hopSize 4: the window has eight hops or more, and what is taken from a frame lies where "
          "it is "
          "silent; window / 4"}},
        {framed(32, 32, 10),
         {"warning  hopSize 10: such frames do not add up to their input; window / 4, or / 2"}},
        {framed(32, 32, 17),
         {"error    hopSize 17: two hops are longer than the window; window / 4, or / 2"}},
        {framed(48, 32, 16), {"error    fftSize 48: a transform has a length of 2, 4, 8 and so on"}},
        {framed(32, 64, 16), {"error    windowSize 64: is longer than the transform"}},
        {end(start(Packing::magnitudes(20)), "input"),
         {"warning  numBins 20: the transform has 17 bins, and the network sees zeros above"}},
        {end(start(Packing::frameHistory(1, 16, 1)), "input"),
         {"error    inputPacking 5: loads and cannot be run"}},
        {end(start().setBusses({"A", "B", "Rest"}), "input"),
         {"error    numOfOutputBusses 2: nothing fills the last of them: of channels the network gives 1 and "
          "the "
          "busses take 2"}},
        {end(start().setChannels(2, 1), "input"),
         {"warning  numOfOutputBusses 1: some of the output is ignored: of channels the network gives 2 and "
          "the "
          "busses take 1"}},
        {end(start().addLayer("x", "input", rescale)),
         {"error    outputPacking 1: the network gives 16 rows and 17 bins take 17"}},
        {end(start().addLayer("x", "input", TransposedConv{.weights = zeros({1, 1, 1, 1}), .timeStride = 2})),
         {"error    output: gets 2.000000 slices per frame, and busses need one"}},
    };
}

TEST(Check, namesEveryFaultOnceAndNothingElse) {
    TemporaryFolder folder;
    const std::string path = folder.getPath("bent.zevrant");
    for (const auto& cases : {makeRefusedModels(), makeBentLayers(), makeBentHeaders()})
        for (const Case& bent : cases) {
            std::string expected;
            for (const std::string& line : bent.lines) expected += line + "\n";
            folder.makeFile("bent.zevrant", {bent.bytes.begin(), bent.bytes.end()});
            const Outcome outcome = run({"check", path});
            EXPECT_EQ(outcome.status, 1);
            EXPECT_EQ(outcome.out, expected);
        }
}

TEST(Check, aSoundModelHasStatus0AndAMissingOneIsNoFinding) {
    TemporaryFolder folder;
    const Bytes sound = with(ReLU{});
    const std::string path = folder.makeFile("sound.zevrant", {sound.begin(), sound.end()});
    EXPECT_EQ(run({"check", path}).status, 0);
    EXPECT_EQ(run({"check", folder.getPath("missing")}).status, 4);
    EXPECT_EQ(nlohmann::json::parse(run({"check", path, "--json"}).out)["findings"].size(), 0u);
    folder.makeFile("sound.zevrant", "none");
    const Outcome outcome = run({"check", path, "--json"});
    EXPECT_EQ(outcome.status, 1);
    const auto findings = nlohmann::json::parse(outcome.out)["findings"];
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0]["severity"], "error");
    EXPECT_EQ(findings[0]["field"], "magic");
    EXPECT_EQ(findings[0]["position"], 0);
}

}  // namespace
}  // namespace zevrant
