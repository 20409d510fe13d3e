#include "neural/SelfAttentionLayer.h"

#include "neural/LayerTesting.h"

namespace zevrant::test {
namespace {

struct Attention {
    Weights channelMatrix, positionBias, timeWeights;
    int startDelay = 0;

    Record record(int version = newestVersion) const {
        Record bytes(version);
        bytes.string("input").tensor(channelMatrix).tensor(positionBias);
        return version < 0x1007 ? bytes : bytes.int8(startDelay).tensor(timeWeights);
    }
    Sequence define(const Sequence& input) const {
        return attend(input, channelMatrix, timeWeights, positionBias, startDelay);
    }
};

Attention noiseAttention(int F, int C, int historyLength, int startDelay) {
    return {noiseWeights({C, C}, 1), noiseWeights({F, C}, 2),
            historyLength > 0 ? noiseWeights({historyLength, C}, 3) : Weights(), startDelay};
}

using Patterns = std::vector<std::vector<int>>;

TEST(SelfAttentionLayer, followsTheDefinition) {
    for (int C : {1, 2, 5, 7, 16, 19, 24, 33, 64})
        for (int F : {1, 4})
            for (int historyLength : {0, 1, 3, 8})
                for (int startDelay : {0, 2}) {
                    SCOPED_TRACE(testing::Message() << F << " x " << C << ", history " << historyLength
                                                    << ", delay " << startDelay);
                    Attention attention = noiseAttention(F, C, historyLength, startDelay);
                    if (historyLength == 1) attention.positionBias = {{0, C}, {}};  // sums start from zero
                    const Sequence input = noiseSequence(11, F, C, 4);
                    ASSERT_NO_FATAL_FAILURE(expectStreamsInOrder<SelfAttentionLayer<float>>(
                        attention.record(), input, attention.define(input),
                        startDelay > 0 ? Patterns{{1}} : Patterns{{1}, {2, 5}, {100}}));
                }
}

TEST(SelfAttentionLayer, theOldRecordHasNoHistoryAndNoDelay) {
    const Attention attention = noiseAttention(2, 3, 4, 1);
    const Sequence input = noiseSequence(4, 2, 3, 9);
    for (int version : {0x1004, 0x1006, 0x1007, 0x1008, 0x1009}) {
        SCOPED_TRACE(testing::Message() << "version " << std::hex << version);
        LayerUnderTest<SelfAttentionLayer<float>> test(attention.record(version));
        EXPECT_TRUE(test.readsAll());
        test.pushAll(input);
        const bool isOld = version < 0x1007;
        expectWithin(test.sink.values,
                     isOld ? attend(input, attention.channelMatrix, {}, attention.positionBias, 0)
                           : attention.define(input));
    }
}

TEST(SelfAttentionLayer, theDelayIsDroppedAndReportedUnscaled) {
    LayerUnderTest<SelfAttentionLayer<float>> test(noiseAttention(1, 1, 2, 2).record());
    const Tensor<float> slice = tensorOf({1, 1, 1}, {1.0f});
    EXPECT_FALSE(test.push(slice));
    EXPECT_FALSE(test.push(slice));
    EXPECT_TRUE(test.push(slice));
    EXPECT_EQ(test.sink.numOfTriggers, 0);
    EXPECT_EQ(test.layer->measureLatency(5), 2);
    EXPECT_EQ(test.layer->timeIndex, 3);

    LayerUnderTest<SelfAttentionLayer<float>> negative(noiseAttention(1, 1, 2, -1).record());
    EXPECT_FALSE(negative.push(Tensor<float>({3, 1, 1})));
    EXPECT_TRUE(negative.sink.shapes.empty());
    EXPECT_EQ(negative.layer->output.shape, (std::vector<int>{3, 1, 1}));
    EXPECT_EQ(negative.layer->measureLatency(5), -1);
}

TEST(SelfAttentionLayer, whatCannotBeComputedIsRefused) {
    const Attention whole = noiseAttention(3, 4, 2, 0);
    const Tensor<float> slice({1, 3, 4});
    Attention cases[] = {whole, whole, whole, whole, noiseAttention(3, 4, 2, 1)};
    cases[0].channelMatrix = noiseWeights({3, 5}, 1);
    cases[1].positionBias = noiseWeights({11}, 1);
    cases[2].timeWeights = noiseWeights({2, 3}, 1);
    cases[3].timeWeights = noiseWeights({-2, -4}, 1);
    for (const Attention& attention : cases) {
        LayerUnderTest<SelfAttentionLayer<float>> test(attention.record());
        EXPECT_NO_THROW(test.push(Tensor<float>({0, 3, 4})));
        EXPECT_THROW(test.push(attention.startDelay ? Tensor<float>({2, 3, 4}) : slice),
                     std::invalid_argument);
    }
    LayerUnderTest<SelfAttentionLayer<float>> test(whole.record());
    test.push(slice);
    EXPECT_THROW(test.push(Tensor<float>({1, 2, 4})), std::invalid_argument);
    EXPECT_NO_THROW(test.push(slice));
}

}  // namespace
}  // namespace zevrant::test
