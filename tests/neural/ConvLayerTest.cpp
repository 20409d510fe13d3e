#include "neural/ConvLayer.h"

#include <array>
#include <tuple>

#include "neural/LayerTesting.h"

namespace zevrant::test {
namespace {

struct ConvRecord {
    Weights weights;
    Weights bias = {};
    ConvolutionSettings settings = {};

    Record build(int version = newestVersion) const {
        return Record(version)
            .string("input")
            .tensor(weights)
            .tensor(bias)
            .int8(settings.timeStride)
            .int8(settings.frequencyStride)
            .int8(settings.timeDilation)
            .int8(-7)
            .int8(settings.timeOffset);
    }
};

struct Conv : LayerUnderTest<ConvLayer<float>> {
    explicit Conv(const ConvRecord& record, int version = newestVersion)
        : LayerUnderTest(record.build(version)) {}
};

void expectDefinition(const ConvRecord& record, int slices, int frequencies, int channels,
                      const std::vector<std::vector<int>>& patterns = {{1}, {3, 1, 2}, {1000}}) {
    SCOPED_TRACE(testing::Message() << "kernel " << testing::PrintToString(record.weights.shape) << " on "
                                    << frequencies << " x " << channels << ", time stride "
                                    << record.settings.timeStride << ", dilation "
                                    << record.settings.timeDilation << ", offset "
                                    << record.settings.timeOffset << ", frequency stride "
                                    << record.settings.frequencyStride);
    const Sequence input = noiseSequence(slices, frequencies, channels, 3);
    expectStreamsInOrder<ConvLayer<float>>(
        record.build(), input, convolve(input, record.weights, record.bias, record.settings), patterns);
}

TEST(ConvLayer, followsTheDefinition) {
    int turn = 0;
    for (int kernelTime = 1; kernelTime <= 7; ++kernelTime)
        for (int kernelFrequency = 1; kernelFrequency <= 7; ++kernelFrequency)
            for (int frequencyStride : {1, 2, 3, 8}) {
                ++turn;
                const int inputs = std::array{2, 1, 3, 5, 17}[turn % 5];
                const int outputs = std::array{1, 3, 16, 2, 33, 20, 70}[turn % 7];
                const ConvRecord record = {noiseWeights({kernelTime, kernelFrequency, inputs, outputs}, 1),
                                           turn % 2 ? noiseWeights({outputs}, 2) : Weights{},
                                           {1 + turn % 3, frequencyStride, turn % 4, turn % 6 - 2}};
                const int frequencies = std::array{1, 2, 9, 23}[turn / 7 % 4];
                const int channels =
                    turn % 11 == 0 && inputs > 1 ? inputs + 2 : inputs;  // more than are read
                ASSERT_NO_FATAL_FAILURE(expectDefinition(record, 9, frequencies, channels));
            }
}

// One kernel input over several channels; with fewer channels than outputs each stands for several.
TEST(ConvLayer, channelWiseFollowsTheDefinition) {
    int turn = 0;
    for (int kernelTime : {1, 2, 3, 5})
        for (int kernelFrequency : {1, 2, 3, 6, 7})
            for (int frequencyStride : {1, 2, 4})
                for (int repeat : {1, 4}) {
                    ++turn;
                    const int channels = std::array{2, 5, 16, 33}[turn % 4];
                    const ConvRecord record = {
                        noiseWeights({kernelTime, kernelFrequency, 1, channels * repeat}, 1),
                        turn % 2 ? noiseWeights({channels * repeat}, 2) : Weights{},
                        {1 + turn % 2, frequencyStride, 1 + turn % 3, turn % 4 - 1}};
                    const int frequencies = std::array{1, 3, 21}[turn % 3];
                    std::vector<std::vector<int>> patterns = {{1}};
                    if (repeat == 1) patterns.push_back({2, 3});
                    ASSERT_NO_FATAL_FAILURE(expectDefinition(record, 8, frequencies, channels, patterns));
                }
}

TEST(ConvLayer, theGateTriggersConsumersInBetween) {
    const Sequence input = noiseSequence(7, 1, 1, 1);
    for (const auto& [timeStride, timeOffset, when] :
         {std::tuple{2, 1, std::vector{1, 3, 5}}, std::tuple{3, -1, std::vector{2, 5}},
          std::tuple{3, -3, std::vector{0, 3, 6}}, std::tuple{1, 5, std::vector{5, 6}}}) {
        const ConvRecord record = {{{1, 1, 1, 1}, {2.0f}}, {}, {timeStride, 1, 1, timeOffset}};
        Conv test(record);
        for (int t = 0; t < input.numOfSlices; ++t) {
            const bool isDue = std::find(when.begin(), when.end(), t) != when.end();
            const int triggers = test.sink.numOfTriggers;
            EXPECT_EQ(test.push(slicesOf(input, t, 1)), isDue) << "slice " << t;
            EXPECT_EQ(test.sink.numOfTriggers - triggers, isDue ? 0 : 1) << "slice " << t;
        }
        EXPECT_EQ(test.sink.countSlices(), static_cast<int>(when.size()));
    }
}

// The repeating path takes the values of a tensor's first slice for each of its slices.
TEST(ConvLayer, repeatedChannelsComeFromTheFirstSlice) {
    const ConvRecord record = {{{1, 1, 1, 4}, {1, 1, 1, 1}}};
    Conv test(record);
    test.push(tensorOf({2, 1, 2}, {1, 2, 3, 4}));
    EXPECT_EQ(test.sink.values, (std::vector<float>{1, 1, 2, 2, 1, 1, 2, 2}));
}

// Fewer channels than outputs that do not divide: with one for each, slices are taken from the tensor's
// buffer as if they had the outputs' channels; with more, the values stand at the start of the slot.
TEST(ConvLayer, channelsThatDoNotDivideTheOutputs) {
    const std::vector<float> values = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    Tensor<float> tensor = tensorOf({2, 2, 4}, values);
    tensor.ensureShape({2, 2, 3});
    Conv fromBuffer({{{1, 1, 1, 4}, {1, 1, 1, 1}}});
    fromBuffer.push(tensor);
    EXPECT_EQ(fromBuffer.sink.values, values);
    Conv tooShort({{{1, 1, 1, 4}, {1, 1, 1, 1}}});
    EXPECT_THROW(tooShort.push(Tensor<float>({1, 2, 3})), std::invalid_argument);
    Conv repeated({{{1, 1, 1, 5}, {1, 1, 1, 1, 1}}});
    repeated.push(tensorOf({1, 2, 2}, {1, 2, 3, 4}));
    EXPECT_EQ(repeated.sink.values, (std::vector<float>{1, 1, 2, 2, 3, 3, 4, 4, 0, 0}));
}

TEST(ConvLayer, oddBandsAndBiases) {
    const ConvRecord truncated = {noiseWeights({1, 3, 1, 1}, 1), {}, {1, 2, 1, 0}};
    for (int frequencies : {257, 1, 0}) {  // a band without a whole step is still handed on
        Conv test(truncated);
        EXPECT_TRUE(test.push(Tensor<float>({1, frequencies, 1})));
        EXPECT_EQ(test.sink.shapes.back(), (std::vector{1, frequencies / 2, 1}));
    }
    Conv unbiased({{{1, 1, 1, 2}, {3, 4}}, {{2, 0}, {}}});
    unbiased.push(tensorOf({1, 1, 1}, {2}));
    EXPECT_EQ(unbiased.sink.values, (std::vector<float>{6, 8}));
    // A kernel without rows or taps leaves the bias, as long as the ring has room for a slice.
    for (const ConvRecord& record : {ConvRecord{{{0, 3, 1, 2}, {}}, {{2}, {5, 6}}, {1, 1, 0, 0}},
                                     ConvRecord{{{1, 0, 1, 2}, {}}, {{2}, {5, 6}}}}) {
        Conv bare(record);
        bare.push(tensorOf({1, 2, 1}, {1, 2}));
        EXPECT_EQ(bare.sink.values, (std::vector<float>{5, 6, 5, 6}));
    }
}

// The ring can be convolved without a push, too, and whatever it then meets is checked.
TEST(ConvLayer, aSliceCanBeProcessedByItself) {
    Conv test({{{2, 1, 1, 1}, {10.0f, 1.0f}}});
    test.push(tensorOf({2, 2, 1}, {1, 2, 3, 4}));
    test.sink.clear();
    EXPECT_TRUE(test.layer->processTimeSlice(1));
    EXPECT_EQ(test.sink.values, (std::vector<float>{31, 42})) << "timeIndex 2 takes slice 1 for the oldest";
    test.layer->history = tensorOf({1, 2, 1}, {1, 2});
    EXPECT_THROW(test.layer->processTimeSlice(1), std::invalid_argument);
}

TEST(ConvLayer, otherWeightsAreTakenUpWithTheNextPush) {
    Conv test({{{1, 1, 1, 1}, {2.0f}}});
    const Tensor<float> slice = tensorOf({1, 2, 1}, {1, 2});
    test.push(slice);
    test.layer->weights.ensureUnique();
    test.layer->weights.getWritePointer()[0] = 5.0f;
    test.push(slice);
    test.layer->weights = tensorOf({1, 3, 1, 1}, {1, 10, 100});
    test.layer->kernelFrequency = 3;
    test.push(slice);
    EXPECT_EQ(test.sink.values, (std::vector<float>{2, 4, 5, 10, 210, 21}));
}

// What the numbers of a file make impossible loads, and stops the push that would need it.
TEST(ConvLayer, impossibleNumbersThrowInThePush) {
    const Weights kernel = noiseWeights({2, 3, 2, 3}, 1);
    const Tensor<float> slice = tensorOf({1, 4, 2}, noise(8, 2));
    const ConvRecord impossible[] = {
        {kernel, {}, {0, 1, 1, 0}},                      // no time stride
        {kernel, {}, {-1, 1, 1, 0}},                     //
        {kernel, {}, {1, 0, 1, 0}},                      // no frequency stride
        {kernel, {}, {1, -2, 1, 0}},                     //
        {kernel, {}, {1, 1, -1, 0}},                     // a ring without slices
        {{{}, {}}, {}, {1, 1, 1, 0}},                    // no kernel
        {kernel, {{2}, {1, 2}}, {1, 1, 1, 0}},           // a short bias
        {noiseWeights({2, 3}, 1), {}, {1, 1, 1, 0}},     // a kernel of two axes
        {noiseWeights({2, 3, 3, 3}, 1), {}, {}},         // more inputs than channels
        {{{2, 3, 2, 3, 0}, {}}, {}, {}},                 // a kernel without values
        {{{1 << 24, 0, 2, 3}, {}}, {}, {1, 1, 127, 0}},  // a ring beyond all memory
    };
    for (const ConvRecord& record : impossible) {
        Conv test(record);
        EXPECT_ANY_THROW(test.push(slice)) << testing::PrintToString(record.weights.shape);
        EXPECT_NO_THROW(test.layer->reset());
        EXPECT_NO_THROW(test.layer->measureLatency(1));
    }
    // Only what is reached has to be possible.
    Conv early({kernel, {}, {0, 0, 1, 1}});
    EXPECT_FALSE(early.push(slice));
    EXPECT_THROW(early.push(slice), std::invalid_argument);
    Conv test({kernel});
    EXPECT_TRUE(test.push(slice));
    Tensor<float> shortened = slice;
    shortened.shape[0] = 2;
    for (const Tensor<float>& other :
         {Tensor<float>({1, 5, 2}), Tensor<float>({1, 4, 3}), Tensor<float>({1, 4, 0}), shortened})
        EXPECT_THROW(test.push(other), std::invalid_argument);
    EXPECT_FALSE(test.push(Tensor<float>())) << "an empty tensor has no slices";
    EXPECT_TRUE(test.push(slice)) << "a refused slice leaves the layer as it was";
}

TEST(ConvLayer, oldRecordsHaveTheLastAxesSwapped) {
    const Weights kernel = noiseWeights({2, 2, 3, 5}, 1);
    Weights swapped = {{2, 2, 5, 3}, {}};
    for (int i = 0; i < 4; ++i)
        for (int o = 0; o < 5; ++o)
            for (int c = 0; c < 3; ++c) swapped.values.push_back(float(kernel.at(0, i, c, o)));
    Conv old({swapped}, 0x1000), current({kernel}, 0x1001);
    EXPECT_EQ(old.layer->inputChannels, 3);
    EXPECT_EQ(old.layer->outputChannels, 5);
    EXPECT_EQ(old.layer->weights.shape, kernel.shape);
    for (Conv* test : {&old, &current}) test->pushAll(noiseSequence(3, 4, 3, 2));
    EXPECT_EQ(old.sink.values, current.sink.values);
}

TEST(ConvLayer, latencyIsScaledByWhatStandsBefore) {
    Conv test({noiseWeights({1, 1, 1, 1}, 1), {}, {2, 1, 1, 3}});
    EXPECT_EQ(test.layer->measureLatency(5), 15);
    Conv behind({noiseWeights({1, 1, 1, 1}, 1), {}, {1, 1, 1, 1}});
    test.layer->consumers.push_back(behind.layer.get());
    EXPECT_EQ(test.layer->measureLatency(1), 1 * 3 + 2 * 1);
    test.layer->consumers.pop_back();
}

// Consumers that keep the output keep its values, and a slice is read from a shared ring no more.
TEST(ConvLayer, keptResultsStayAsTheyWere) {
    OutputLayer<float> keeper;
    const ConvRecord record = {noiseWeights({2, 3, 2, 3}, 1)};
    Conv test(record);
    test.layer->consumers.push_back(&keeper);
    test.pushAll(noiseSequence(4, 5, 2, 2));
    const Tensor<float> kept = keeper.getResults();
    ASSERT_EQ(kept.getNumOfElements(), static_cast<int>(test.sink.values.size()));
    EXPECT_TRUE(std::equal(test.sink.values.begin(), test.sink.values.end(), kept.getReadPointer()));

    // A ring of one slice is the tensor that was pushed, which the push of more slices leaves alone.
    Conv shallow({noiseWeights({1, 3, 2, 3}, 1)});
    const Sequence input = noiseSequence(3, 5, 2, 3);
    const Tensor<float> first = slicesOf(input, 0, 1), before = slicesOf(input, 0, 1);
    shallow.push(first);
    shallow.push(slicesOf(input, 1, 2));
    EXPECT_TRUE(std::equal(before.getReadPointer(), before.getReadPointer() + 10, first.getReadPointer()));
}

}  // namespace
}  // namespace zevrant::test
