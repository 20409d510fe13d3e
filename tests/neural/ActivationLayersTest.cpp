#include "neural/ActivationLayers.h"

#include <cmath>
#include <limits>

#include "neural/LayerTesting.h"

namespace zevrant::test {
namespace {

constexpr float slope = 0.1f;
constexpr float infinity = std::numeric_limits<float>::infinity();

// Values around zero, at the limits of the functions, beyond them, and special ones.
std::vector<float> probes() {
    std::vector<float> values = {0.0f,   -0.0f,  2.9999998f, 10.0f,     88.0f,
                                 -88.0f, 100.0f, -104.0f,    1e-30f,    -1e-30f,
                                 1e30f,  -1e30f, infinity,   -infinity, std::nanf("")};
    for (float x = -12.0f; x < 12.0f; x += 0.0371f) values.push_back(x);
    return values;
}

// Every count around the width of a vector, on every instruction set; NaN stays NaN. A consumer may keep what
// it was given: the next push writes somewhere else.
template <class Layer>
void expectDefinition(Bounded (*define)(Bounded), const Record& record = Record().string("input")) {
    const std::vector<float> values = probes();
    for (const simd::Target& target : simd::getUsableTargets()) {
        const simd::ScopedTarget scope(target);
        for (int n : {0, 1, 3, 4, 7, 8, 9, 15, 16, 17, 31, 33, static_cast<int>(values.size())}) {
            LayerUnderTest<Layer> test(record);
            EXPECT_TRUE(test.readsAll());
            EXPECT_TRUE(test.push(tensorOf({1, n, 1}, {values.begin(), values.begin() + n})));
            const Tensor<float> kept = test.layer->output;
            test.push(tensorOf({1, n, 1}, std::vector<float>(static_cast<std::size_t>(n), 5.0f)));
            ASSERT_EQ(kept.shape, (std::vector{1, n, 1}));
            for (int i = 0; i < n; ++i) {
                const float x = values[static_cast<std::size_t>(i)], y = kept.getReadPointer()[i];
                const Bounded expected = std::isnan(x) ? Bounded(x) : define(x);
                EXPECT_EQ(std::isnan(y), std::isnan(expected.value)) << x;
                EXPECT_TRUE(expected.contains(y)) << target.name << ", " << n << ": " << y << " of " << x;
            }
        }
    }
}

TEST(ActivationLayers, valuesFollowTheDefinition) {
    expectDefinition<ReLULayer<float>>(relu);
    expectDefinition<ELULayer<float>>(elu);
    expectDefinition<SigmoidLayer<float>>(sigmoid);
    expectDefinition<LeakyReLULayer<float>>([](Bounded x) { return leakyRelu(x, slope); },
                                            Record().string("input").number(slope));
    // e^x overflows first.
    expectDefinition<SoftplusLayer<float>>(
        [](Bounded x) { return x.value > 88.7 ? Bounded(double{infinity}) : softplus(x); });
    expectDefinition<HardSigmoidLayer<float>>(hardSigmoid);
}

TEST(ActivationLayers, emptyTensorsArePassedOnAndShortOnesRefused) {
    LayerUnderTest<SigmoidLayer<float>> test(Record().string("input"));
    EXPECT_TRUE(test.push(Tensor<float>()));
    EXPECT_TRUE(test.push(Tensor<float>({1, 0, 4})));
    EXPECT_EQ(test.sink.shapes, (std::vector<std::vector<int>>{{}, {1, 0, 4}}));
    test.sink.answer = false;
    Tensor<float> tensor({1, 2, 4});
    EXPECT_FALSE(test.push(tensor));
    tensor.shape = {4, 2, 4};
    EXPECT_THROW(test.push(tensor), std::invalid_argument);
}

}  // namespace
}  // namespace zevrant::test
