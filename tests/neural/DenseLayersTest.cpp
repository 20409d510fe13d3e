#include "neural/DenseLayers.h"

#include <limits>

#include "neural/LayerTesting.h"

namespace zevrant::test {
namespace {

Record denseRecord(const Weights& weights, const Weights& bias, int version = newestVersion) {
    Record record(version);
    record.string("input");
    if (version < 0x1002) return record.int8(77).int8(-1).tensor(weights);
    return record.tensor(weights).tensor(bias);
}

TEST(DenseLayer, followsTheDefinition) {
    for (int C : {1, 2, 3, 7, 8, 16, 17, 33, 64})
        for (int F : {1, 2, 5, 16, 19})
            for (bool hasBias : {true, false}) {
                SCOPED_TRACE(testing::Message() << F << " x " << C);
                const Weights weights = noiseWeights({F, F, C}, 1);
                const Weights bias = hasBias ? noiseWeights({F, C}, 2) : Weights{{0, C}, {}};
                const Sequence input = noiseSequence(6, F, C, 3);
                ASSERT_NO_FATAL_FAILURE(expectStreamsInOrder<DenseLayer<float>>(
                    denseRecord(weights, bias), input, mixFrequencies(input, weights, bias)));
            }
}

TEST(DenseLayer, theOldRecordHasTwoIdleBytesAndNoBias) {
    const Weights weights = {{1, 1, 1}, {3.0f}}, bias = {{1, 1}, {10.0f}};
    for (int version : {0x1000, 0x1001, 0x1002, 0x1008, 0x1009}) {
        LayerUnderTest<DenseLayer<float>> test(denseRecord(weights, bias, version));
        EXPECT_TRUE(test.readsAll());
        test.push(tensorOf({1, 1, 1}, {2.0f}));
        EXPECT_EQ(test.sink.values.at(0), version < 0x1002 ? 6.0f : 16.0f);
    }
}

// The shape of the weights says nothing: the input's axes tell how they are read.
TEST(DenseLayer, sizesComeFromTheInput) {
    const Weights flat = noiseWeights({72}, 4);
    LayerUnderTest<DenseLayer<float>> test(denseRecord(flat, {}));
    for (const auto& [F, C] : {std::pair{6, 2}, std::pair{3, 8}, std::pair{1, 72}, std::pair{6, 2}}) {
        const Sequence input = noiseSequence(2, F, C, 5);
        test.sink.clear();
        test.push(slicesOf(input, 0, 2));
        expectWithin(test.sink.values, mixFrequencies(input, flat, {}));
    }
    EXPECT_THROW(test.push(Tensor<float>({1, 3, 9})), std::invalid_argument);
    EXPECT_NO_THROW(test.push(Tensor<float>({0, 3, 9})));
    LayerUnderTest<DenseLayer<float>> shortBias(denseRecord(flat, {{5}, {1, 2, 3, 4, 5}}));
    EXPECT_THROW(shortBias.push(Tensor<float>({1, 3, 2})), std::invalid_argument);
    EXPECT_NO_THROW(shortBias.push(Tensor<float>({1, 1, 5})));
}

Record separableRecord(const Weights& timeKernel, const Weights& frequencyKernel) {
    return Record().string("input").tensor(timeKernel).tensor(frequencyKernel);
}

TEST(SeparableChannelConvLayer, followsTheDefinition) {
    for (int timeTaps : {1, 2, 3, 4, 5, 7})
        for (int frequencyTaps : {1, 2, 3, 4, 5, 7})
            for (int F : {1, 2, 3, 9})
                for (int C : {1, 3, 17}) {
                    SCOPED_TRACE(testing::Message()
                                 << timeTaps << " x " << frequencyTaps << " taps, " << F << " x " << C);
                    const Weights time = noiseWeights({timeTaps}, 1),
                                  frequency = noiseWeights({frequencyTaps}, 2);
                    const Sequence input = noiseSequence(12, F, C, 3);
                    ASSERT_NO_FATAL_FAILURE(expectStreamsInOrder<SeparableChannelConvLayer<float>>(
                        separableRecord(time, frequency), input, filterSeparably(input, time, frequency)));
                }
}

TEST(SeparableChannelConvLayer, theDroppedSlicesFollowTheTimeKernel) {
    for (int timeTaps = 1; timeTaps <= 7; ++timeTaps) {
        LayerUnderTest<SeparableChannelConvLayer<float>> test(
            separableRecord(noiseWeights({timeTaps}, 1), noiseWeights({3}, 2)));
        for (int n = 0; n < 9; ++n) EXPECT_EQ(test.push(Tensor<float>({1, 2, 2})), n >= (timeTaps - 1) / 2);
        EXPECT_EQ(test.sink.numOfTriggers, 0);
        test.layer->reset();
        EXPECT_TRUE(test.layer->timeFiltered.shape.empty());
        test.layer->sliceCount = std::numeric_limits<int>::max() - 1;
        test.sink.clear();
        test.push(Tensor<float>({9, 2, 2}));
        EXPECT_EQ(test.sink.countSlices(), 9) << "once the count is full";
    }
}

TEST(SeparableChannelConvLayer, whatCannotBeComputedIsRefused) {
    const Weights one = {{1}, {1.0f}};
    for (const Weights& none :
         {Weights(), Weights{{0}, {}}, Weights{{3, 0}, {}}, Weights{{-1, -1}, {1.0f}}}) {
        LayerUnderTest<SeparableChannelConvLayer<float>> noTime(separableRecord(none, one));
        EXPECT_NO_THROW(noTime.push(Tensor<float>({0, 2, 2})));
        EXPECT_THROW(noTime.push(Tensor<float>({1, 2, 2})), std::invalid_argument);
        LayerUnderTest<SeparableChannelConvLayer<float>> noFrequency(separableRecord(one, none));
        EXPECT_THROW(noFrequency.push(Tensor<float>({1, 2, 2})), std::invalid_argument);
    }
    LayerUnderTest<SeparableChannelConvLayer<float>> test(separableRecord(one, one));
    test.push(Tensor<float>({1, 2, 3}));
    EXPECT_THROW(test.push(Tensor<float>({1, 3, 3})), std::invalid_argument);
    EXPECT_THROW(test.push(Tensor<float>({1, 3, 2})), std::invalid_argument);
    EXPECT_NO_THROW(test.push(Tensor<float>({1, 2, 3})));
}

}  // namespace
}  // namespace zevrant::test
