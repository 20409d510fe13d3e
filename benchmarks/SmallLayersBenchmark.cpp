#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "modelwriter/ModelWriter.h"
#include "neural/ActivationLayers.h"
#include "neural/DenseLayers.h"
#include "neural/FrequencyRescaleLayer.h"
#include "neural/LayerTable.h"
#include "neural/MemoryStream.h"
#include "neural/MergeLayers.h"
#include "neural/NormLayers.h"
#include "neural/SelfAttentionLayer.h"

// The layers beside the two convolutions, each as its push: one slice in, one out, on one thread. A copy of a
// slice stands beside the element-wise ones as their measure.
namespace zevrant {
namespace {

using namespace modelwriter;

std::vector<float> noise(int count) {
    std::mt19937 generator(1);
    std::uniform_real_distribution<float> distribution(-1.0f, 1.0f);
    std::vector<float> values(static_cast<std::size_t>(count));
    for (float& value : values) value = distribution(generator);
    return values;
}

WeightTensor weights(std::vector<int> shape) {
    int count = 1;
    for (int dimension : shape) count *= dimension;
    return {std::move(shape), noise(count)};
}

Tensor<float> slice(int frequencies, int channels) {
    Tensor<float> tensor({1, frequencies, channels});
    const std::vector<float> values = noise(frequencies * channels);
    std::copy(values.begin(), values.end(), tensor.getWritePointer());
    return tensor;
}

// Pushes a slice through one layer. flops and bytes are those of one slice; 0 leaves their rate out.
void pushSlices(benchmark::State& state, int typeCode, const SingleSourceLayer& record, int frequencies,
                int channels, double flops, double bytes) {
    LayerMap layers;
    auto input = std::make_shared<InputLayer<float>>();
    layers["input"] = std::shared_ptr<BaseLayer<float>>(input);
    const auto layer =
        makeLayer(typeCode, {layers, streamOver(encodeLayer("input", record)), latestVersion, 1.0f});
    const Tensor<float> tensor = slice(frequencies, channels);
    for (int i = 0; i < 16; ++i) layer->push(tensor, nullptr);
    for (auto _ : state) {
        layer->push(tensor, nullptr);
        benchmark::ClobberMemory();
    }
    using benchmark::Counter;
    const double iterations = static_cast<double>(state.iterations());
    if (flops > 0) state.counters["FLOP/s"] = Counter(flops * iterations, Counter::kIsRate);
    if (bytes > 0) state.counters["B/s"] = Counter(bytes * iterations, Counter::kIsRate);
}

// The values of an activation in the middle of a network: F 256 x 64 channels.
constexpr int frequencies = 256, channels = 64;

void copySlice(benchmark::State& state) {
    const Tensor<float> in = slice(frequencies, channels);
    Tensor<float> out = slice(frequencies, channels);
    for (auto _ : state) {
        std::memcpy(out.getWritePointer(), in.getReadPointer(), sizeof(float) * frequencies * channels);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(copySlice);

void peak(benchmark::State& state) {
    // Multiply-adds of a 1 x 1 convolution that stays in the first-level cache come close to the peak.
    pushSlices(state, 2, Conv{.weights = weights({1, 1, 48, 64})}, 48, 48, 2.0 * 48 * 48 * 64, 0);
}
BENCHMARK(peak);

#define ZEVRANT_LAYER_BENCHMARK(name, ...) \
    void name(benchmark::State& state) {   \
        pushSlices(state, __VA_ARGS__);    \
    }                                      \
    BENCHMARK(name)

ZEVRANT_LAYER_BENCHMARK(reluSlice, 4, ReLU{}, frequencies, channels, 0, 0);
ZEVRANT_LAYER_BENCHMARK(eluSlice, 5, ELU{}, frequencies, channels, 0, 0);
ZEVRANT_LAYER_BENCHMARK(sigmoidSlice, 6, Sigmoid{}, frequencies, channels, 0, 0);
ZEVRANT_LAYER_BENCHMARK(leakyReluSlice, 12, LeakyReLU{0.1f}, frequencies, channels, 0, 0);
ZEVRANT_LAYER_BENCHMARK(softplusSlice, 17, Softplus{}, frequencies, channels, 0, 0);
ZEVRANT_LAYER_BENCHMARK(hardSigmoidSlice, 20, HardSigmoid{}, frequencies, channels, 0, 0);

ZEVRANT_LAYER_BENCHMARK(norm128x64, 7, (Norm{1, weights({64}), weights({64})}), 128, 64, 0, 0);
ZEVRANT_LAYER_BENCHMARK(scaleAndShift128x64, 7, (Norm{0, weights({64}), weights({64})}), 128, 64, 0, 0);
ZEVRANT_LAYER_BENCHMARK(preNorm128x64, 16, PreNorm{weights({8})}, 128, 64, 0, 0);
ZEVRANT_LAYER_BENCHMARK(followedNorm128x64, 23, (ARPreNorm{0.5f, 0.9f, 1e-3f}), 128, 64, 0, 0);

ZEVRANT_LAYER_BENCHMARK(dense128x16, 14, (Dense{weights({128, 128, 16})}), 128, 16, 2.0 * 128 * 128 * 16,
                        4.0 * 128 * 128 * 16);
ZEVRANT_LAYER_BENCHMARK(separable3x3of128x64, 15, (SeparableChannelConv{weights({3}), weights({3})}), 128, 64,
                        2.0 * 6 * 128 * 64, 0);
ZEVRANT_LAYER_BENCHMARK(selfAttention64x64, 19,
                        (SelfAttention{weights({64, 64}), weights({64, 64}), 0, weights({8, 64})}), 64, 64,
                        2.0 * 64 * 64 * (64 + 8), 0);

FrequencyRescale bandScale(int bins, int numOfBands, int taps) {
    FrequencyRescale record;
    for (int o = 0; o < numOfBands; ++o)
        record.bands.push_back({o * (bins - taps) / (numOfBands - 1), weights({taps})});
    return record;
}
ZEVRANT_LAYER_BENCHMARK(rescale513to64of16, 22, bandScale(513, 64, 16), 513, 16, 2.0 * 64 * 16 * 16, 0);

}  // namespace
}  // namespace zevrant
