#include "neural/FrequencyRescaleLayer.h"

#include "neural/LayerTesting.h"

namespace zevrant::test {
namespace {

Record rescaleRecord(const std::vector<Band>& bands) {
    Record record;
    record.string("input").int16(static_cast<int>(bands.size()));
    for (const Band& band : bands) record.int16(band.start).tensor(band.taps);
    return record;
}

// Runs of 1 to mostTaps bins, spread over F of them, overlapping as it comes.
std::vector<Band> spreadBands(int numOfBands, int F, int mostTaps) {
    std::vector<Band> bands;
    for (int i = 0; i < numOfBands; ++i) {
        const int numOfTaps = std::min(1 + i * 5 % mostTaps, F);
        bands.push_back(
            {i * 7 % (F - numOfTaps + 1), noiseWeights({numOfTaps}, 20u + static_cast<unsigned>(i))});
    }
    return bands;
}

TEST(FrequencyRescaleLayer, followsTheDefinition) {
    for (int F : {1, 4, 30})
        for (int numOfBands : {0, 1, 3, 40})
            for (int C : {1, 2, 5, 8, 16, 17, 32, 40, 48})
                for (int mostTaps : {1, 2, 16}) {
                    SCOPED_TRACE(testing::Message()
                                 << F << " to " << numOfBands << " bins, " << C << " channels");
                    const std::vector<Band> bands = spreadBands(numOfBands, F, mostTaps);
                    const Sequence input = noiseSequence(5, F, C, 3);
                    ASSERT_NO_FATAL_FAILURE(expectStreamsInOrder<FrequencyRescaleLayer<float>>(
                        rescaleRecord(bands), input, rescaleFrequencies(input, bands)));
                }
}

TEST(FrequencyRescaleLayer, theFirstTapIsAppliedWhateverTheCount) {
    const std::vector<Band> bands = {{1, {{-1, -2}, {0.5f, 9.0f}}}, {0, {{1, 3}, {2.0f, 8.0f, 8.0f}}}};
    LayerUnderTest<FrequencyRescaleLayer<float>> test(rescaleRecord(bands));
    EXPECT_EQ(test.layer->tapCounts, (std::vector<int>{-1, 1}));
    test.push(tensorOf({1, 2, 1}, {3.0f, 4.0f}));
    EXPECT_EQ(test.sink.values, (std::vector<float>{2.0f, 6.0f}));
}

// A run past the band goes on in the next slice, and behind the last one as far as the buffer goes.
TEST(FrequencyRescaleLayer, aRunPastTheBufferIsRefused) {
    LayerUnderTest<FrequencyRescaleLayer<float>> test(rescaleRecord({{1, {{2}, {1.0f, 1.0f}}}}));
    EXPECT_THROW(test.push(Tensor<float>({1, 2, 3})), std::invalid_argument);
    EXPECT_THROW(test.push(Tensor<float>({2, 2, 3})), std::invalid_argument);
    Tensor<float> followed = tensorOf({8}, {1, 2, 3, 4, 5, 6, 7, 8});
    followed.shape = {2, 2, 1};
    test.push(followed);
    EXPECT_EQ(test.sink.values, (std::vector<float>{2 + 3, 4 + 5}));
    test.push(Tensor<float>({1, 3, 1}));
    EXPECT_EQ(test.sink.shapes.back(), (std::vector<int>{1, 1, 1}));
}

TEST(FrequencyRescaleLayer, impossibleEntriesAreRefusedInThePush) {
    for (const Band& band : {Band{-1, {{1}, {1.0f}}}, Band{0, {}}, Band{0, {{0}, {}}}, Band{0, {{4, 0}, {}}},
                             Band{3, {{1}, {1.0f}}}, Band{3, {{-1, -1}, {1.0f}}}}) {
        LayerUnderTest<FrequencyRescaleLayer<float>> test(rescaleRecord({band}));
        EXPECT_TRUE(test.push(Tensor<float>({0, 3, 2})));
        EXPECT_TRUE(test.push(Tensor<float>({1, 3, 0}))) << "without channels nothing is read";
        EXPECT_THROW(test.push(Tensor<float>({1, 3, 2})), std::invalid_argument);
    }
    EXPECT_THROW(LayerUnderTest<FrequencyRescaleLayer<float>>(Record().string("input").int16(-1)),
                 std::length_error);
}

TEST(FrequencyRescaleLayer, aTableCanBeInstalledAnew) {
    LayerUnderTest<FrequencyRescaleLayer<float>> test(rescaleRecord({{0, {{1}, {1.0f}}}}));
    const Tensor<float> taps = tensorOf({2}, {10.0f, 1.0f});
    test.layer->createWeightsCache({{0, taps}, {1, taps}});
    EXPECT_EQ(test.layer->outputBins, 2);
    EXPECT_EQ(test.layer->tapPointers[1], taps.getReadPointer()) << "the taps are shared";
    test.layer->createWeightsCache(test.layer->weights);
    test.push(tensorOf({1, 3, 1}, {1.0f, 2.0f, 3.0f}));
    EXPECT_EQ(test.sink.values, (std::vector<float>{12.0f, 23.0f}));
}

}  // namespace
}  // namespace zevrant::test
