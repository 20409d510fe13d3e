#include "neural/NormLayers.h"

#include <cmath>
#include <limits>

#include "DspCore/VectorOperations.h"
#include "neural/LayerTesting.h"

namespace zevrant::test {
namespace {

Record normRecord(int mode, const Weights& gain, const Weights& offset, int version = newestVersion) {
    Record record(version);
    record.string("input");
    if (version >= 0x100a) return record.int8(mode).tensor(gain).tensor(offset);
    return record.tensor(offset).tensor(gain);
}

// Loud and quiet slices in turn, and one of silence, so that a level follower has something to follow.
Sequence waves(int slices, int frequencies, int channels) {
    Sequence sequence = noiseSequence(slices, frequencies, channels, 5);
    for (int t = 0; t < slices; ++t)
        for (int f = 0; f < frequencies; ++f)
            for (int c = 0; c < channels; ++c)
                sequence.at(t, f, c).value *= t == 4 ? 0.0 : std::ldexp(1.0, (t * 5) % 7 - 3);
    return sequence;
}

// On every instruction set. One of the rows is silent and stays so.
TEST(NormLayer, followsTheDefinition) {
    for (const simd::Target& target : simd::getUsableTargets()) {
        const simd::ScopedTarget scope(target);
        for (int mode : {0, 1})
            for (int C : {1, 3, 4, 8, 15, 16, 17, 33, 64})
                for (bool hasOffset : {true, mode == 0}) {
                    SCOPED_TRACE(testing::Message()
                                 << "mode " << mode << ", " << C << " channels, " << target.name);
                    const Weights gain = noiseWeights({C}, 2),
                                  offset = hasOffset ? noiseWeights({C}, 3) : Weights();
                    Sequence input = noiseSequence(4, 5, C, 1);
                    for (int c = 0; c < C; ++c) input.at(0, 3, c) = 0.0;
                    ASSERT_NO_FATAL_FAILURE(expectStreamsAs<NormLayer<float>>(
                        normRecord(mode, gain, offset), input, normalise(input, mode, gain, offset)));
                }
    }
}

TEST(NormLayer, theTwoTensorsChangePlacesWithTheVersion) {
    const Weights gain = {{1}, {2.0f}}, offset = {{1}, {0.5f}};
    for (int version : {0x1004, 0x1008, 0x1009, 0x100a, 0x100b}) {
        LayerUnderTest<NormLayer<float>> test(normRecord(0, gain, offset, version));
        EXPECT_TRUE(test.readsAll());
        EXPECT_EQ(test.layer->normMode, 0);
        test.push(tensorOf({1, 1, 1}, {3.0f}));
        EXPECT_EQ(test.sink.values.at(0), 6.5f) << "version " << version;
    }
}

TEST(NormLayer, anUnknownModeForwardsWhatTheOutputHolds) {
    LayerUnderTest<NormLayer<float>> test(normRecord(1, {{1}, {1.0f}}, {}));
    test.push(tensorOf({1, 2, 1}, {5.0f, -5.0f}));
    test.layer->normMode = 2;
    test.push(tensorOf({1, 2, 1}, {7.0f, 7.0f}));
    EXPECT_EQ(test.sink.values, (std::vector<float>{1, -1, 1, -1}));
    test.sink.clear();
    test.push(Tensor<float>({2, 3, 5}));
    EXPECT_EQ(test.sink.shapes.back(), (std::vector<int>{2, 3, 5}));
    EXPECT_EQ(test.sink.values, std::vector<float>(30)) << "a new buffer must not show an old block's values";
}

TEST(NormLayer, shortTensorsAreRefusedWhereTheyAreRead) {
    const Weights two = {{2}, {1, 1}}, three = {{3}, {1, 1, 1}};
    for (const auto& [mode, gain, offset] : {std::tuple{0, three, Weights()},
                                             {0, three, two},
                                             {0, two, three},
                                             {1, two, Weights()},
                                             {1, three, two}}) {
        LayerUnderTest<NormLayer<float>> test(normRecord(mode, gain, offset));
        EXPECT_NO_THROW(test.push(Tensor<float>()));
        EXPECT_NO_THROW(test.push(Tensor<float>({1, 0, 3})));
        EXPECT_THROW(test.push(Tensor<float>({1, 2, 3})), std::invalid_argument);
    }
    LayerUnderTest<NormLayer<float>> unread(normRecord(5, {}, {}));
    EXPECT_NO_THROW(unread.push(Tensor<float>({1, 2, 3})));
}

TEST(PreNormLayer, followsTheDefinition) {
    for (int levelCount : {1, 2, 3, 5, 20})
        for (int C : {1, 3, 16})
            for (int F : {1, 9}) {
                SCOPED_TRACE(testing::Message() << levelCount << " levels, " << F << " x " << C);
                Weights weights = noiseWeights({levelCount}, 3);
                for (float& weight : weights.values) weight = std::abs(weight);  // keeps the sum away from 0
                const Sequence input = waves(11, F, C);
                const Record record = Record().string("input").tensor(weights);
                ASSERT_NO_FATAL_FAILURE(
                    expectStreamsAs<PreNormLayer<float>>(record, input, preNormalise(input, weights)));
            }
}

// The count of slices outgrows 32 bits in a long stream; the ring keeps its phase.
TEST(PreNormLayer, theCountOfSlicesMayOverflow) {
    const Weights weights = {{3}, {100.0f, 10.0f, 1.0f}};
    LayerUnderTest<PreNormLayer<float>> test(Record().string("input").tensor(weights));
    test.push(tensorOf({1, 1, 1}, {1.0f}));
    const int far = std::numeric_limits<int>::max() - 4;
    test.layer->sliceCount = far - far % 3 + 1;
    for (float level : {2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f, 8.0f}) test.push(tensorOf({1, 1, 1}, {level}));
    EXPECT_FLOAT_EQ(test.sink.values.at(7), 8.0f / (100 * 8 + 10 * 6 + 1 * 7));
    EXPECT_LT(test.layer->sliceCount, 100);
}

TEST(PreNormLayer, missingWeightsAreRefusedAtTheFirstSlice) {
    for (const Weights& weights : {Weights(), Weights{{0}, {}}, Weights{{-3}, {}}, Weights{{5, 0}, {}}}) {
        LayerUnderTest<PreNormLayer<float>> test(Record().string("input").tensor(weights));
        EXPECT_NO_THROW(test.push(Tensor<float>({0, 2, 2})));
        EXPECT_THROW(test.push(Tensor<float>({1, 2, 2})), std::invalid_argument);
    }
}

Record followerRecord(float attack, float release, float epsilon) {
    return Record().string("input").number(attack).number(release).number(epsilon);
}

TEST(ARPreNormLayer, followsTheDefinition) {
    for (float attack : {0.0f, 0.3f, 0.9f})
        for (float release : {0.5f, 0.99f, 1.0f})
            for (int C : {1, 3, 17}) {
                SCOPED_TRACE(testing::Message() << "attack " << attack << ", release " << release);
                const Sequence input = waves(15, 5, C);
                ASSERT_NO_FATAL_FAILURE(
                    expectStreamsAs<ARPreNormLayer<float>>(followerRecord(attack, release, 1e-3f), input,
                                                           followLevel(input, attack, release, 1e-3f, 1.0)));
            }
}

TEST(ARPreNormLayer, anEqualLevelTakesTheReleaseAndAResetKeepsTheScale) {
    LayerUnderTest<ARPreNormLayer<float>> test(followerRecord(0.0f, 1.0f, 0.0f));
    test.layer->levelScale = 2.0f;
    test.push(tensorOf({1, 1, 1}, {3.0f}));
    EXPECT_EQ(test.layer->level, 6.0f);
    test.layer->releaseCoefficient = 0.25f;
    test.push(tensorOf({1, 1, 1}, {std::numeric_limits<float>::quiet_NaN()}));
    EXPECT_TRUE(std::isnan(test.layer->level));
    test.layer->reset();
    EXPECT_EQ(test.layer->level, 0.0f);
    EXPECT_EQ(test.layer->levelScale, 2.0f);
    EXPECT_TRUE(test.layer->output.shape.empty());
    EXPECT_EQ(test.layer->output.data, nullptr);

    test.layer->level = 2.0f;
    test.layer->attackCoefficient = std::numeric_limits<float>::quiet_NaN();
    test.push(tensorOf({1, 1, 1}, {1.0f}));
    EXPECT_EQ(test.layer->level, 2.0f);
}

TEST(NormLayers, sliceLessAndShortTensors) {
    LayerUnderTest<ARPreNormLayer<float>> test(followerRecord(0.5f, 0.5f, 1.0f));
    EXPECT_TRUE(test.push(Tensor<float>()));
    EXPECT_TRUE(test.sink.shapes.back().empty());
    Tensor<float> tooShort({1, 2, 2});
    tooShort.shape = {9, 9, 9};
    EXPECT_THROW(test.push(tooShort), std::invalid_argument);
    EXPECT_THROW(test.push(Tensor<float>({1, -2, -2})), std::invalid_argument);
    EXPECT_THROW(test.push(Tensor<float>({4})), std::out_of_range);
}

}  // namespace
}  // namespace zevrant::test
