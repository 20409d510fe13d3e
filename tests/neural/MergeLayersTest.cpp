#include "neural/MergeLayers.h"

#include "neural/LayerTesting.h"

namespace zevrant::test {
namespace {

using Tensors = std::vector<Tensor<float>>;

std::vector<std::string> namesOf(int numOfSources) {
    std::vector<std::string> names = {"input"};
    for (int i = 1; i < numOfSources; ++i) names.push_back("input" + std::to_string(i));
    return names;
}

Record arithmeticRecord(int operation, int numOfSources) {
    return Record().sources(namesOf(numOfSources)).int8(operation);
}

// Pushes slice t of every input in turn, the first source being `delay` slices late.
template <class Layer>
void expectMerged(const Record& record, const std::vector<Sequence>& inputs, int delay,
                  const Sequence& expected) {
    LayerUnderTest<Layer> test(record, static_cast<int>(inputs.size()));
    EXPECT_TRUE(test.readsAll());
    test.sink.keeps = true;
    const int slices = inputs.front().numOfSlices;
    for (int t = 0; t < slices + delay; ++t)
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            const int own = i == 0 ? t - delay : t;
            if (own >= 0 && own < slices) test.push(slicesOf(inputs[i], own, 1), static_cast<int>(i));
        }
    expectWithin(test.sink.values, expected);
    EXPECT_TRUE(test.sink.isUnchanged());
    for (const auto& shape : test.sink.shapes)
        EXPECT_EQ(shape, (std::vector{1, expected.numOfFrequencies, expected.numOfChannels}));
}

std::vector<const Sequence*> pointTo(const std::vector<Sequence>& inputs) {
    std::vector<const Sequence*> pointers;
    for (const Sequence& input : inputs) pointers.push_back(&input);
    return pointers;
}

TEST(ConcatLayer, rowsAreTheRowsOfTheInputsInTurn) {
    for (const std::vector<int>& widths :
         std::vector<std::vector<int>>{{2, 5}, {1}, {3, 0, 4}, {16, 1, 17}, {0, 0}})
        for (int delay : {0, 2}) {
            SCOPED_TRACE(testing::Message() << widths.size() << " inputs, a delay of " << delay);
            std::vector<Sequence> inputs;
            for (int width : widths)
                inputs.push_back(noiseSequence(5, 3, width, 7u + static_cast<unsigned>(width)));
            expectMerged<ConcatLayer<float>>(Record().sources(namesOf(static_cast<int>(widths.size()))),
                                             inputs, delay, concatenate(pointTo(inputs)));
        }
}

// Sets of several slices never arrive from the queues; given one, each slice repeats the first.
TEST(ConcatLayer, everySliceOfASetReadsFromTheStart) {
    LayerUnderTest<ConcatLayer<float>> test(Record().sources(namesOf(2)), 2);
    const Tensors inputs = {tensorOf({2, 1, 1}, {1, 2}), tensorOf({2, 1, 2}, {3, 4, 5, 6})};
    BaseQueuedLayer<float>& layer = *test.layer;
    EXPECT_TRUE(layer.push(inputs, {}));
    EXPECT_EQ(test.sink.values, (std::vector<float>{1, 3, 4, 1, 3, 4}));

    test.sink.clear();
    layer.push(Tensors(), {});
    EXPECT_EQ(test.sink.shapes.back(), (std::vector<int>{0, 0, 0}));
    layer.push(Tensors{Tensor<float>(), tensorOf({1, 1, 2}, {1, 2})}, {});
    EXPECT_EQ(test.sink.shapes.back(), (std::vector<int>{0, 0, 2}));
}

TEST(ConcatLayer, inputsThatDoNotFitAreRefused) {
    LayerUnderTest<ConcatLayer<float>> test(Record().sources(namesOf(2)), 2);
    test.push(Tensor<float>({1, 4, 2}), 0);
    EXPECT_THROW(test.push(Tensor<float>({1, 3, 2}), 1), std::invalid_argument);
    BaseQueuedLayer<float>& layer = *test.layer;
    EXPECT_THROW(layer.push(Tensors{Tensor<float>({1, 1, 1}), Tensor<float>({1, -1, -2})}, {}),
                 std::invalid_argument);
    EXPECT_THROW(layer.push(Tensors{Tensor<float>({1, 1})}, {}), std::out_of_range);
}

// The accumulator is divisor and subtrahend; an unknown operation leaves the first input.
TEST(ArithmeticLayer, combinesItsInputsFromTheFirstOn) {
    for (int operation : {0, 1, 2, 3, 7, -1})
        for (int numOfSources : {1, 2, 3, 4})
            for (int C : {1, 5, 16, 17}) {
                SCOPED_TRACE(testing::Message()
                             << "operation " << operation << ", " << numOfSources << " inputs");
                std::vector<Sequence> inputs;
                for (int i = 0; i < numOfSources; ++i)
                    inputs.push_back(noiseSequence(4, C == 1 ? 1 : 3, C, 40u + static_cast<unsigned>(i)));
                ASSERT_NO_FATAL_FAILURE(
                    expectMerged<ArithmeticLayer<float>>(arithmeticRecord(operation, numOfSources), inputs, 1,
                                                         combineAll(operation, pointTo(inputs))));
            }
}

TEST(ArithmeticLayer, inputsShorterThanTheFirstAreRefused) {
    LayerUnderTest<ArithmeticLayer<float>> test(arithmeticRecord(2, 2), 2);
    test.push(Tensor<float>({1, 4, 2}), 0);
    EXPECT_THROW(test.push(Tensor<float>({1, 3, 2}), 1), std::invalid_argument);
    test.push(Tensor<float>({1, 4, 2}), 0);
    EXPECT_NO_THROW(test.push(Tensor<float>({1, 2, 5}), 1)) << "a longer one serves, whatever its shape";
}

}  // namespace
}  // namespace zevrant::test
