#include "neural/ActivationLayers.h"

#include <cmath>
#include <limits>

#include "DspCore/VectorOperations.h"
#include "neural/LayerTesting.h"

namespace zevrant::test {
namespace {

// Values around zero, at the limits of the functions, beyond them, and special ones.
std::vector<float> probes() {
    std::vector<float> values = {0.0f,       -0.0f,   1.0f,   -1.0f,   2.0f,  -2.0f,  3.0f,  -3.0f,
                                 2.9999998f, 10.0f,   -10.0f, 11.0f,   88.0f, -88.0f, 89.0f, 100.0f,
                                 -100.0f,    -104.0f, 1e-30f, -1e-30f, 1e30f, -1e30f};
    for (float x = -12.0f; x < 12.0f; x += 0.0371f) values.push_back(x);
    return values;
}

// One activation: its record, its definition, and its operations as they are told, one pass each.
struct Activation {
    const char* name;
    std::vector<float> (*run)(const Tensor<float>& tensor);
    Bounded (*define)(Bounded x);
    void (*passes)(const float* in, float* out, float* work, int n);
};

constexpr float slope = 0.1f;

template <class Layer>
std::vector<float> run(const Tensor<float>& tensor) {
    Record record;
    record.string("input");
    if constexpr (std::is_same_v<Layer, LeakyReLULayer<float>>) record.number(slope);
    LayerUnderTest<Layer> test(record);
    EXPECT_TRUE(test.readsAll());
    EXPECT_TRUE(test.push(tensor));
    EXPECT_EQ(test.sink.shapes.back(), tensor.shape);
    return test.sink.values;
}

const Activation activations[] = {
    {"ReLU", run<ReLULayer<float>>, [](Bounded x) { return relu(x); },
     [](const float* in, float* out, float*, int n) { vo::lowerBound(in, out, 0.0f, n); }},
    {"ELU", run<ELULayer<float>>, [](Bounded x) { return elu(x); },
     [](const float* in, float* out, float* work, int n) {
         vo::upperBound(in, out, 0.0f, n);
         vo::exp(out, work, n);
         vo::constantSubtract(work, 1.0f, out, n);
         vo::lowerBound(in, work, 0.0f, n);
         vo::add(out, work, out, n);
     }},
    {"Sigmoid", run<SigmoidLayer<float>>, [](Bounded x) { return sigmoid(x); },
     [](const float* in, float* out, float* work, int n) {
         vo::bound(in, out, -10.0f, 10.0f, n);
         vo::exp(out, work, n);
         vo::constantAdd(work, 1.0f, out, n);
         vo::divide(out, work, out, n);
     }},
    {"LeakyReLU", run<LeakyReLULayer<float>>, [](Bounded x) { return leakyRelu(x, slope); },
     [](const float* in, float* out, float* work, int n) {
         vo::lowerBound(in, out, 0.0f, n);
         vo::upperBound(in, work, 0.0f, n);
         vo::constantMultiplyAndAdd(work, slope, out, n);
     }},
    {"Softplus", run<SoftplusLayer<float>>, [](Bounded x) { return softplus(x); },
     [](const float* in, float* out, float*, int n) {
         vo::exp(in, out, n);
         vo::constantAdd(out, 1.0f, out, n);
         vo::ln(out, out, n);
     }},
    {"HardSigmoid", run<HardSigmoidLayer<float>>, [](Bounded x) { return hardSigmoid(x); },
     [](const float* in, float* out, float* work, int n) {
         vo::constantMultiply(in, 0.16666667f, out, n);
         vo::constantAdd(out, 0.5f, work, n);
         vo::bound(work, out, 0.0f, 1.0f, n);
     }},
};

TEST(ActivationLayers, valuesFollowTheDefinition) {
    const std::vector<float> values = probes();
    const Tensor<float> tensor = tensorOf({1, static_cast<int>(values.size()), 1}, values);
    for (const Activation& activation : activations) {
        const std::vector<float> result = activation.run(tensor);
        ASSERT_EQ(result.size(), values.size());
        for (std::size_t i = 0; i < values.size(); ++i) {
            const bool overflows = std::string(activation.name) == "Softplus" && values[i] > 88.7f;
            const Bounded expected =
                overflows ? Bounded(std::numeric_limits<double>::infinity()) : activation.define(values[i]);
            EXPECT_TRUE(expected.contains(result[i]))
                << activation.name << " of " << values[i] << ": " << result[i];
        }
    }
}

// One pass over the data or several give the same bits, on every instruction set, whatever the count and the
// place of a value in a row; NaN and infinities included.
TEST(ActivationLayers, valuesAreThoseOfTheSeparatePasses) {
    std::vector<float> values = probes();
    for (float special : {std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                          std::numeric_limits<float>::quiet_NaN()})
        values.push_back(special);
    for (const simd::Target& target : simd::getUsableTargets()) {
        const simd::ScopedTarget scope(target);
        for (int n : {0, 1, 3, 4, 7, 8, 9, 15, 16, 17, 31, 33, 64, static_cast<int>(values.size())})
            for (const Activation& activation : activations) {
                SCOPED_TRACE(testing::Message()
                             << activation.name << ", " << n << " values, " << target.name);
                const std::vector<float> in(values.end() - n, values.end());
                std::vector<float> expected(in.size()), work(in.size());
                activation.passes(in.data(), expected.data(), work.data(), n);
                const std::vector<float> result = activation.run(tensorOf({1, n, 1}, in));
                ASSERT_EQ(result.size(), expected.size());
                for (std::size_t i = 0; i < result.size(); ++i) {
                    if (std::isnan(expected[i]))
                        ASSERT_TRUE(std::isnan(result[i])) << "of " << in[i];
                    else
                        ASSERT_EQ(std::memcmp(&result[i], &expected[i], sizeof(float)), 0)
                            << "of " << in[i] << ": " << result[i] << " and not " << expected[i];
                }
            }
    }
}

// A consumer may keep what it was given: the next push writes somewhere else.
TEST(ActivationLayers, aKeptOutputKeepsItsValues) {
    LayerUnderTest<ELULayer<float>> test(Record().string("input"));
    test.push(tensorOf({1, 2, 2}, {1, 2, 3, 4}));
    const Tensor<float> kept = test.layer->output;
    test.push(tensorOf({1, 2, 2}, {5, 6, 7, 8}));
    EXPECT_EQ(std::vector<float>(kept.getReadPointer(), kept.getReadPointer() + 4),
              (std::vector<float>{1, 2, 3, 4}));
    EXPECT_NE(kept.data, test.layer->output.data);

    const float* buffer = test.layer->output.getReadPointer();
    test.push(tensorOf({1, 1, 3}, {1, 2, 3}));
    EXPECT_EQ(test.layer->output.getReadPointer(), buffer) << "a smaller shape needs no other buffer";
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
