#include "neural/RandomGraph.h"

#include <gtest/gtest.h>

#include "neural/NeuralModel.h"

namespace zevrant::test {
namespace {

// All slices of the input, as many per push as the pattern says in turn; the values of all results.
std::vector<float> run(NeuralModel<float>& model, const Sequence& input, const std::vector<int>& pattern) {
    std::vector<float> values;
    std::size_t turn = 0;
    for (int t = 0, count = 0; t < input.numOfSlices; t += count) {
        count = std::min(pattern[turn++ % pattern.size()], input.numOfSlices - t);
        model.inputLayer->push(slicesOf(input, t, count), nullptr);
        const Tensor<float> result = model.outputLayer->getResults();
        values.insert(values.end(), result.getReadPointer(),
                      result.getReadPointer() + result.getNumOfElements());
    }
    return values;
}

// In two ways of cutting the stream, with a reset in between.
void expectDefinition(const modelwriter::ModelWriter& writer, const Sequence& input, const Sequence& expected,
                      int latency, const std::vector<int>& pattern) {
    NeuralModel<float> model;
    ASSERT_TRUE(model.loadModel(streamOver(writer.toBytes())));
    EXPECT_EQ(model.latencyInFrames, latency);
    const std::vector<float> values = run(model, input, {1});
    ASSERT_NO_FATAL_FAILURE(expectWithin(values, expected));
    model.reset();
    EXPECT_EQ(run(model, input, pattern), values) << "another split or a reset changes bits";
}

TEST(RandomGraph, streamsAsItsWholeSequencesTell) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        const RandomGraph graph(seed);
        ASSERT_NO_FATAL_FAILURE(expectDefinition(graph.writer, graph.getInput(), graph.getOutput(),
                                                 graph.getLatency(), {3, 1, 2, 5}));
    }
}

// Half the rate and back up, beside a branch at the full rate that waits in a queue; one slice at a time.
TEST(RandomGraph, aNetworkOfTwoRatesStreamsAsItsWholeSequencesTell) {
    using namespace modelwriter;
    const Sequence input = noiseSequence(31, 8, 2, 1);
    const Weights down = noiseWeights({2, 3, 2, 4}, 2), each = noiseWeights({2, 3, 1, 4}, 3),
                  up = noiseWeights({3, 4, 2, 4}, 4), beside = noiseWeights({3, 1, 2, 2}, 5),
                  matrix = noiseWeights({4, 4}, 6), bias = noiseWeights({8, 4}, 7),
                  time = noiseWeights({2, 4}, 8);
    ModelWriter model("two rates");
    model.addLayer("down", "input",
                   Conv{.weights = toFile(down), .timeStride = 2, .frequencyStride = 2, .timeOffset = 1});
    model.addLayer("each", "down", Conv{.weights = toFile(each), .timeOffset = 1});
    model.addLayer(
        "up", "each",
        TransposedConv{.weights = toFile(up), .timeStride = 2, .frequencyStride = 2, .timeOffset = 1});
    model.addLayer("beside", "input", Conv{.weights = toFile(beside), .timeDilation = 2, .timeOffset = 2});
    model.addLayer("both", {"up", "beside"}, Concat{});
    model.addLayer("attention", "both", SelfAttention{toFile(matrix), toFile(bias), 2, toFile(time)});
    model.setOutput("attention");

    const Sequence halved = convolve(input, down, {}, {2, 2, 1, 1});
    const Sequence raised = convolveTransposed(convolve(halved, each, {}, {1, 1, 1, 1}), up, {}, 2, 2, 2, 1);
    const Sequence dilated = convolve(input, beside, {}, {1, 1, 2, 2});
    const Sequence expected = attend(concatenate({&raised, &dilated}), matrix, time, bias, 2);
    expectDefinition(model, input, expected, 1 + 2 * 1 + 2 * 1 + 2, {1});
}

}  // namespace
}  // namespace zevrant::test
