#include "neural/TransposedConvLayer.h"

#include "neural/LayerTesting.h"

namespace zevrant::test {
namespace {

struct TransposedRecord {
    Weights weights;  // [kernelTime, kernelFrequency, kernelOutputs, inputChannels]
    Weights bias = {};
    int outputChannels = 1;
    int timeStride = 1;
    int frequencyStride = 1;
    int timeOffset = 0;

    Record build(int version = newestVersion) const {
        Record record(version);
        record.string("input").tensor(weights).tensor(bias);
        if (version >= 0x1008) record.int16(outputChannels);
        return record.int8(timeStride).int8(frequencyStride).int8(-3).int8(-4).int8(timeOffset);
    }
};

struct Transposed : LayerUnderTest<TransposedConvLayer<float>> {
    explicit Transposed(const TransposedRecord& record, int version = newestVersion)
        : LayerUnderTest(record.build(version)) {}
};

void expectDefinition(const TransposedRecord& record, int slices, int frequencies, int channels) {
    SCOPED_TRACE(testing::Message() << "kernel " << testing::PrintToString(record.weights.shape) << " on "
                                    << frequencies << " frequencies, strides " << record.timeStride << ", "
                                    << record.frequencyStride << ", offset " << record.timeOffset);
    const Sequence input = noiseSequence(slices, frequencies, channels, 3);
    // A negative offset has no slices to drop and makes none.
    const Sequence expected =
        convolveTransposed(input, record.weights, record.bias, record.outputChannels, record.timeStride,
                           record.frequencyStride, std::max(record.timeOffset, 0));
    // The sink answers false, as a layer does that is not the last, so that nothing waits in the queue.
    Transposed test(record);
    EXPECT_TRUE(test.readsAll()) << "the record has bytes that were not read";
    test.sink.answer = false;
    for (const std::vector<int>& pattern : {std::vector{1}, std::vector{3, 1, 2}, std::vector{1000}}) {
        test.sink.keeps = pattern.front() == 1;
        test.pushAll(input, pattern);
        ASSERT_NO_FATAL_FAILURE(expectWithin(test.sink.values, expected));
        EXPECT_TRUE(test.sink.isUnchanged()) << "the layer has written to its old output";
        for (const auto& shape : test.sink.shapes)
            ASSERT_EQ(shape, (std::vector{1, frequencies * record.frequencyStride, record.outputChannels}));
        test.layer->reset();
        test.pushAll(noiseSequence(2, frequencies, channels, 99));
        test.layer->reset();
        test.sink.clear();
    }
}

TEST(TransposedConvLayer, followsTheDefinition) {
    int turn = 0;
    for (int kernelTime = 1; kernelTime <= 7; ++kernelTime)
        for (int kernelFrequency = 1; kernelFrequency <= 7; ++kernelFrequency)
            for (int frequencyStride : {1, 2, 3, 5}) {
                ++turn;
                const int inputs = std::array{2, 1, 3, 5, 17}[turn % 5];
                const int outputs = std::array{1, 3, 16, 2, 33, 20, 70}[turn % 7];
                const TransposedRecord record = {
                    noiseWeights({kernelTime, kernelFrequency, outputs, inputs}, 1),
                    turn % 2 ? noiseWeights({outputs}, 2) : Weights{},
                    outputs,
                    1 + turn % 4,
                    frequencyStride,
                    turn % 7 - 1};
                const int frequencies = std::array{1, 2, 9, 23}[turn / 7 % 4];
                ASSERT_NO_FATAL_FAILURE(expectDefinition(record, 6, frequencies, inputs));
            }
}

TEST(TransposedConvLayer, channelWiseFollowsTheDefinition) {
    int turn = 0;
    for (int kernelTime : {1, 2, 3, 5})
        for (int kernelFrequency : {1, 2, 4, 7})
            for (int channels : {2, 5, 16, 33}) {
                ++turn;
                const TransposedRecord record = {noiseWeights({kernelTime, kernelFrequency, 1, channels}, 1),
                                                 turn % 2 ? noiseWeights({channels}, 2) : Weights{},
                                                 channels,
                                                 1 + turn % 3,
                                                 1 + turn % 4,
                                                 turn % 5};
                ASSERT_NO_FATAL_FAILURE(expectDefinition(record, 5, 1 + turn % 9, channels));
            }
}

// A kernel of other outputs than the layer's: from the place of its first tap on, an input frequency writes
// one value after the other, over the ends of rows and into the slots behind.
TEST(TransposedConvLayer, rowsThatDoNotLineUpWriteOn) {
    const std::vector<float> weights = {1, 2, 3, 4, 5, 6}, expected = {1, 2, 13, 24, 35, 6, 0, 0, 0, 0, 0, 0};
    const struct {
        int kernelOutputs, inputs;
        std::vector<float> in;
    } cases[] = {{3, 1, {1, 10}}, {1, 3, {1, 1, 1, 10, 10, 10}}};  // the second one channel by channel
    for (const auto& [kernelOutputs, inputs, in] : cases) {
        Transposed test({{{1, 2, kernelOutputs, inputs}, weights}, {}, 2, 3, 1});
        test.sink.answer = false;
        test.push(tensorOf({1, 2, inputs}, in));
        EXPECT_EQ(test.sink.values, expected) << kernelOutputs << " of " << inputs;
    }
}

// Rows that do not line up may reach behind the slot, but not behind the ring.
TEST(TransposedConvLayer, aWriteBehindTheRingIsRefused) {
    const TransposedRecord record = {noiseWeights({1, 2, 5, 3}, 1), {}, 2, 1, 2};
    Transposed test(record);
    EXPECT_THROW(test.push(tensorOf({1, 4, 3}, noise(12, 2))), std::invalid_argument);
    EXPECT_EQ(test.layer->timeIndex, 0);
}

// Sanitizers see whether it is.
TEST(TransposedConvLayer, withoutFrequenciesAShortBiasIsNotRead) {
    Transposed test({noiseWeights({1, 1, 3, 2}, 1), {{1}, {100}}, 1, 1});
    test.push(tensorOf({1, 0, 2}, {}));
    EXPECT_TRUE(test.sink.values.empty());
    EXPECT_THROW(test.push(tensorOf({1, 2, 2}, noise(4, 2))), std::invalid_argument);
}

TEST(TransposedConvLayer, aSliceThatArrivesLeavesTheOthersWaiting) {
    Transposed test({{{2, 1, 1, 1}, {1, 10}}, {{1}, {100}}, 1, 2});
    EXPECT_TRUE(test.push(tensorOf({1, 1, 1}, {1})));
    EXPECT_EQ(test.sink.values, (std::vector<float>{101}));
    EXPECT_EQ(test.layer->outputQueue.size(), 1u);
    test.layer->triggerForward();
    EXPECT_EQ(test.sink.values, (std::vector<float>{101, 110}));
    EXPECT_EQ(test.sink.numOfTriggers, 1) << "consumers are triggered too";
    EXPECT_TRUE(test.layer->outputQueue.empty());

    // Two inputs in one push: one slice for each, and two wait.
    EXPECT_TRUE(test.push(tensorOf({2, 1, 1}, {2, 3})));
    EXPECT_EQ(test.sink.values, (std::vector<float>{101, 110, 102, 120}));
    EXPECT_EQ(test.layer->outputQueue.size(), 2u);
    test.layer->reset();
    EXPECT_TRUE(test.layer->outputQueue.empty());
    test.layer->triggerForward();
    EXPECT_EQ(test.sink.values.size(), 4u);
}

TEST(TransposedConvLayer, olderRecordsTakeTheChannelsFromTheKernel) {
    const Weights kernel = noiseWeights({1, 2, 3, 4}, 1);
    for (int version : {0x1004, 0x1007, 0x1008, 0x100a}) {
        Transposed test({kernel, {}, 5, 1, 2, 0}, version);
        EXPECT_TRUE(test.readsAll());
        EXPECT_EQ(test.layer->outputChannels, version < 0x1008 ? 3 : 5);
        EXPECT_EQ(test.layer->frequencyStride, 2);
        EXPECT_EQ(test.layer->timeDilation, -3);
    }
    Transposed empty(TransposedRecord{}, 0x1007);
    EXPECT_EQ(empty.layer->outputChannels, 0);
}

TEST(TransposedConvLayer, oddKernelsAndBands) {
    // Without a kernel the bias alone comes out.
    Transposed bare({{}, {{2}, {5, 6}}, 2, 2, 2});
    bare.sink.answer = false;
    bare.push(Tensor<float>({1, 1, 9}));
    EXPECT_EQ(bare.sink.values, (std::vector<float>{5, 6, 5, 6, 5, 6, 5, 6}));
    // A band without frequencies still makes slices, and a tensor of two axes has all that is read.
    Transposed empty({noiseWeights({1, 1, 2, 1}, 1), {}, 2});
    EXPECT_TRUE(empty.push(Tensor<float>({1, 0, 1})));
    EXPECT_EQ(empty.sink.shapes.back(), (std::vector{1, 0, 2}));
    Transposed flat({{{1, 1, 1, 1}, {3}}});
    flat.push(tensorOf({1, 2}, {1, 2}));
    EXPECT_EQ(flat.sink.values, (std::vector<float>{3, 6}));
    EXPECT_FALSE(flat.push(Tensor<float>()));
}

TEST(TransposedConvLayer, impossibleNumbersThrowInThePush) {
    const Weights kernel = noiseWeights({2, 3, 3, 2}, 1);
    const Tensor<float> slice = tensorOf({1, 4, 2}, noise(8, 2));
    const TransposedRecord impossible[] = {
        {kernel, {}, 3, 0, 1},                   // no time stride
        {kernel, {}, 3, -1, 1},                  //
        {kernel, {}, 3, 1, 0},                   // no frequency stride
        {kernel, {}, 3, 1, -1},                  //
        {kernel, {}, -1},                        // a negative number of channels
        {kernel, {}, 0},                         // nowhere to write to
        {kernel, {{2}, {1, 2}}, 3},              // a short bias
        {noiseWeights({2, 3}, 1), {}, 3},        // a kernel of two axes
        {{{2, 3, 3, 2, 0}, {}}, {}, 3},          // a kernel without values
        {{{1 << 30, 0, 3, 2}, {}}, {}, 3},       // a ring beyond all memory
        {noiseWeights({1, 1, 1, 5}, 1), {}, 5},  // a tensor with too few values
    };
    for (const TransposedRecord& record : impossible) {
        Transposed test(record);
        EXPECT_ANY_THROW(test.push(slice)) << testing::PrintToString(record.weights.shape);
        EXPECT_NO_THROW(test.layer->reset());
    }
    Transposed test({kernel, {}, 3});
    EXPECT_TRUE(test.push(slice));
    EXPECT_THROW(test.push(tensorOf({1, 5, 2}, noise(10, 1))), std::invalid_argument);
    EXPECT_TRUE(test.push(slice)) << "a refused slice leaves the layer as it was";
    EXPECT_THROW(Transposed({kernel, {}, 3, 0}).layer->measureLatency(1), std::invalid_argument);
}

TEST(TransposedConvLayer, latencyCountsTheOwnOffsetUnscaled) {
    Transposed test({noiseWeights({1, 1, 1, 1}, 1), {}, 1, 2, 1, 3});
    EXPECT_EQ(test.layer->measureLatency(5), 15);
    Transposed behind({noiseWeights({1, 1, 1, 1}, 1), {}, 1, 1, 1, 4});
    test.layer->consumers.push_back(behind.layer.get());
    EXPECT_EQ(test.layer->measureLatency(5), 5 * 3 + 5 / 2 * 4);
    test.layer->consumers.pop_back();
}

}  // namespace
}  // namespace zevrant::test
