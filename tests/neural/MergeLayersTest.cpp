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
void pushInterleaved(LayerUnderTest<Layer>& test, const std::vector<const Sequence*>& inputs, int delay) {
    const int slices = inputs.front()->numOfSlices;
    for (int t = 0; t < slices + delay; ++t)
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            const int own = i == 0 ? t - delay : t;
            if (own >= 0 && own < slices) test.push(slicesOf(*inputs[i], own, 1), static_cast<int>(i));
        }
}

TEST(ConcatLayer, rowsAreTheRowsOfTheInputsInTurn) {
    for (const std::vector<int>& widths :
         std::vector<std::vector<int>>{{2, 5}, {1}, {3, 0, 4}, {16, 1, 17}, {0, 0}})
        for (int delay : {0, 2}) {
            SCOPED_TRACE(testing::Message() << widths.size() << " inputs, a delay of " << delay);
            const int F = 3, T = 5;
            std::vector<Sequence> inputs;
            std::vector<const Sequence*> pointers;
            for (int width : widths)
                inputs.push_back(noiseSequence(T, F, width, 7u + static_cast<unsigned>(width)));
            for (const Sequence& input : inputs) pointers.push_back(&input);
            LayerUnderTest<ConcatLayer<float>> test(
                Record().sources(namesOf(static_cast<int>(widths.size()))), static_cast<int>(widths.size()));
            EXPECT_TRUE(test.readsAll());
            pushInterleaved(test, pointers, delay);
            const Sequence expected = concatenate(pointers);
            expectWithin(test.sink.values, expected);
            for (const auto& shape : test.sink.shapes)
                EXPECT_EQ(shape, (std::vector<int>{1, F, expected.numOfChannels}));
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

TEST(ArithmeticLayer, combinesItsInputsFromTheFirstOn) {
    for (int operation : {0, 1, 2, 3, 7, -1})
        for (int numOfSources : {1, 2, 3, 4})
            for (int C : {1, 5, 16, 17}) {
                SCOPED_TRACE(testing::Message()
                             << "operation " << operation << ", " << numOfSources << " inputs");
                std::vector<Sequence> inputs;
                std::vector<const Sequence*> pointers;
                for (int i = 0; i < numOfSources; ++i)
                    inputs.push_back(noiseSequence(4, 3, C, 40u + static_cast<unsigned>(i)));
                for (const Sequence& input : inputs) pointers.push_back(&input);
                LayerUnderTest<ArithmeticLayer<float>> test(arithmeticRecord(operation, numOfSources),
                                                            numOfSources);
                EXPECT_TRUE(test.readsAll());
                EXPECT_EQ(test.layer->operation, operation);
                pushInterleaved(test, pointers, 1);
                ASSERT_NO_FATAL_FAILURE(expectWithin(test.sink.values, combineAll(operation, pointers)));
            }
}

TEST(ArithmeticLayer, theAccumulatorIsDivisorAndSubtrahend) {
    const auto combineOf = [](int operation) {
        LayerUnderTest<ArithmeticLayer<float>> test(arithmeticRecord(operation, 2), 2);
        test.push(tensorOf({1, 1, 1}, {2.0f}), 0);
        test.push(tensorOf({1, 1, 1}, {6.0f}), 1);
        return test.sink.values.at(0);
    };
    EXPECT_EQ(combineOf(0), 12.0f);
    EXPECT_EQ(combineOf(1), 3.0f);
    EXPECT_EQ(combineOf(2), 8.0f);
    EXPECT_EQ(combineOf(3), 4.0f);
    EXPECT_EQ(combineOf(7), 2.0f);
}

TEST(ArithmeticLayer, theResultHasABufferOfItsOwn) {
    LayerUnderTest<ArithmeticLayer<float>> test(arithmeticRecord(0, 1));
    const Tensor<float> input = tensorOf({1, 1, 2}, {3.0f, 4.0f});
    BaseQueuedLayer<float>& layer = *test.layer;
    layer.push(Tensors{input}, {});
    EXPECT_NE(test.layer->output.data, input.data);
    EXPECT_EQ(test.sink.values, (std::vector<float>{3.0f, 4.0f}));
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
