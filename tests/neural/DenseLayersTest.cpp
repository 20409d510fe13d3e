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
    for (int C : {1, 2, 3, 7, 16, 17, 33})
        for (int F : {1, 2, 5, 16, 19})
            for (bool hasBias : {true, false}) {
                SCOPED_TRACE(testing::Message() << F << " x " << C);
                const Weights weights = noiseWeights({F, F, C}, 1);
                const Weights bias = hasBias ? noiseWeights({F, C}, 2) : Weights{{0, C}, {}};
                const Sequence input = noiseSequence(6, F, C, 3);
                ASSERT_NO_FATAL_FAILURE(expectStreamsAs<DenseLayer<float>>(
                    denseRecord(weights, bias), input, mixFrequencies(input, weights, bias)));
            }
}

// Terms in the order of the input frequency, each fused, then the bias: bit for bit on all that can fuse.
TEST(DenseLayer, accumulatesInTheStatedOrder) {
    for (const simd::Target& target : getFusingTargets()) {
        const simd::ScopedTarget scope(target);
        for (int C : {1, 3, 8, 16, 21, 64})
            for (int F : {1, 6, 13}) {
                SCOPED_TRACE(testing::Message() << F << " x " << C << ", " << target.name);
                const auto in = noise(static_cast<std::size_t>(F * C), 1);
                const Weights weights = noiseWeights({F, F, C}, 2), bias = noiseWeights({F, C}, 3);
                std::vector<float> expected;
                for (int o = 0; o < F; ++o)
                    for (int c = 0; c < C; ++c) {
                        float sum = 0.0f;
                        for (int i = 0; i < F; ++i)
                            sum = std::fma(in[i * C + c], weights.values[(o * F + i) * C + c], sum);
                        expected.push_back(sum + bias.values[o * C + c]);
                    }
                LayerUnderTest<DenseLayer<float>> test(denseRecord(weights, bias));
                test.push(tensorOf({1, F, C}, in));
                ASSERT_EQ(test.sink.values, expected);
            }
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
                    ASSERT_NO_FATAL_FAILURE(expectStreamsAs<SeparableChannelConvLayer<float>>(
                        separableRecord(time, frequency), input, filterSeparably(input, time, frequency)));
                }
}

// Products first, then fused terms: time taps in turn, the centre of the frequency taps before the others.
TEST(SeparableChannelConvLayer, accumulatesInTheStatedOrder) {
    for (const simd::Target& target : getFusingTargets()) {
        const simd::ScopedTarget scope(target);
        const int F = 11, C = 5, S = F * C, timeTaps = 4, frequencyTaps = 6, centre = 2;
        const Weights time = noiseWeights({timeTaps}, 1), frequency = noiseWeights({frequencyTaps}, 2);
        LayerUnderTest<SeparableChannelConvLayer<float>> test(separableRecord(time, frequency));
        std::vector<std::vector<float>> slices(timeTaps, std::vector<float>(S));
        for (int t = 0; t < 9; ++t) {
            slices.push_back(noise(S, 10u + static_cast<unsigned>(t)));
            test.sink.clear();
            test.push(tensorOf({1, F, C}, slices.back()));
            if (test.sink.values.empty()) continue;
            const std::size_t newest = slices.size() - 1;
            std::vector<float> mid, expected;
            for (int i = 0; i < S; ++i) {
                float sum = slices[newest - 1][i] * time.values[0];
                for (std::size_t b = 1; b < timeTaps; ++b)
                    sum =
                        std::fma(slices[b == timeTaps - 1 ? newest : newest - 1 - b][i], time.values[b], sum);
                mid.push_back(sum);
            }
            for (int i = 0; i < S; ++i) {
                float sum = mid[i] * frequency.values[centre];
                for (int j = 0; j < frequencyTaps; ++j) {
                    const int from = i + (centre - j) * C;
                    if (j != centre && from >= 0 && from < S)
                        sum = std::fma(mid[from], frequency.values[j], sum);
                }
                expected.push_back(sum);
            }
            ASSERT_EQ(test.sink.values, expected) << "slice " << t << ", " << target.name;
        }
    }
}

// Time taps 0, 1, 2 of an impulse come out in the order newest, then the two before it.
TEST(SeparableChannelConvLayer, theTimeTapsAreRotated) {
    LayerUnderTest<SeparableChannelConvLayer<float>> test(
        separableRecord({{3}, {1.0f, 2.0f, 4.0f}}, {{1}, {1.0f}}));
    EXPECT_FALSE(test.push(tensorOf({1, 1, 1}, {0.0f}))) << "the first slice is dropped";
    EXPECT_EQ(test.sink.numOfTriggers, 0);
    for (float x : {1.0f, 0.0f, 0.0f, 0.0f}) EXPECT_TRUE(test.push(tensorOf({1, 1, 1}, {x})));
    EXPECT_EQ(test.sink.values, (std::vector<float>{4.0f, 1.0f, 2.0f, 0.0f}));
}

TEST(SeparableChannelConvLayer, theDroppedSlicesFollowTheTimeKernel) {
    const std::pair<int, int> expected[] = {{1, 0}, {2, 0}, {3, 1}, {4, 1}, {5, 2}, {6, 2}, {7, 3}};
    for (const auto& [timeTaps, dropped] : expected) {
        LayerUnderTest<SeparableChannelConvLayer<float>> test(
            separableRecord(noiseWeights({timeTaps}, 1), noiseWeights({3}, 2)));
        test.push(Tensor<float>({9, 2, 2}));
        EXPECT_EQ(test.sink.countSlices(), 9 - dropped);
        test.layer->reset();
        EXPECT_TRUE(test.layer->timeFiltered.shape.empty());
        test.sink.clear();
        test.push(Tensor<float>({9, 2, 2}));
        EXPECT_EQ(test.sink.countSlices(), 9 - dropped) << "after a reset";
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

TEST(SeparableChannelConvLayer, sharesTheCodeOfTheDenseLayer) {
    LayerUnderTest<SeparableChannelConvLayer<float>> test(separableRecord({{1}, {1.0f}}, {{1}, {1.0f}}));
    EXPECT_EQ(test.layer->type, 14);
}

}  // namespace
}  // namespace zevrant::test
