// Packing a stereo frame of 1025 bins and unpacking the result, per code, in nanoseconds per bin of both
// channels. "unpackBeyond" has a network that sees half of the bins, so that the rest is extrapolated. The
// plain loops walk element by element, as the rules are told.

#include <benchmark/benchmark.h>

#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include "neural/NeuralModel.h"

namespace {

using zevrant::ComplexSignal32;
using zevrant::NeuralModel;
using zevrant::Tensor;

constexpr int numOfSamples = 1025;
constexpr int numOfChannels = 2;

NeuralModel<float> makeModel(int packing, int numBins) {
    NeuralModel<float> model;
    model.inputPacking = model.outputPacking = packing;
    model.numOfInputChannels = numOfChannels;
    model.numBins = numBins;
    model.numFineBins =
        packing == 2 || packing == 6 ? numBins / 4 + numBins % 4 : 0;  // the rest is whole groups
    model.binGroupSize = packing == 6 ? 4 : 1;
    model.tensorFrequencies = packing == 6 ? (numBins - model.numFineBins) / 4 + model.numFineBins
                                           : 3 * model.numFineBins + numBins;
    return model;
}

ComplexSignal32 makeFrame() {
    std::mt19937 random(1);
    std::normal_distribution<float> values;
    ComplexSignal32 frame(numOfChannels, numOfSamples + 8);
    for (int c = 0; c < numOfChannels; ++c)
        for (int b = 0; b < numOfSamples + 8; ++b)
            frame.getWriteChannelPtr(c)[b] = {values(random), values(random)};
    frame.ensureDimensions(numOfChannels, numOfSamples);
    return frame;
}

void reportPerBin(benchmark::State& state) {
    state.counters["per bin"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * numOfSamples * numOfChannels,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void pack(benchmark::State& state) {
    NeuralModel<float> model = makeModel(static_cast<int>(state.range(0)), numOfSamples);
    const std::vector<ComplexSignal32> frames{makeFrame()};
    for (auto _ : state) benchmark::DoNotOptimize(model.signalsToTensor(frames));
    reportPerBin(state);
}

void unpackFrame(benchmark::State& state, int numBins) {
    NeuralModel<float> model = makeModel(static_cast<int>(state.range(0)), numBins);
    const Tensor<float> tensor = model.signalsToTensor({makeFrame()});
    for (auto _ : state) benchmark::DoNotOptimize(model.tensorToSignals(tensor, numOfSamples));
    reportPerBin(state);
}

void unpack(benchmark::State& state) {
    unpackFrame(state, numOfSamples);
}

void unpackBeyond(benchmark::State& state) {
    unpackFrame(state, numOfSamples / 2);
}

// The rule of packing 1, 2 and 6 (4 is 6 without groups), column by column and row by row.
void packPlainly(benchmark::State& state) {
    const NeuralModel<float> model = makeModel(static_cast<int>(state.range(0)), numOfSamples);
    const ComplexSignal32 frame = makeFrame();
    const bool isComplex = model.inputPacking == 4 || model.inputPacking == 6;
    const int C = isComplex ? 2 * numOfChannels : numOfChannels, rows = model.tensorFrequencies;
    const int n = numOfSamples, fine = model.inputPacking == 4 ? n : model.numFineBins;
    for (auto _ : state) {
        Tensor<float> tensor({1, rows, C});
        float* out = tensor.getWritePointer();
        for (int c = 0; c < C; ++c) {
            const std::complex<float>* bins = frame.getReadChannelPtr(isComplex ? c / 2 : c);
            const auto part = [&](int b) { return c % 2 == 0 ? bins[b].real() : bins[b].imag(); };
            int b = 0;
            for (int r = 0; r < rows; ++r) {
                float& element = out[r * C + c];
                if (b >= n) {
                    element = 0.0f;
                } else if (isComplex && b < fine) {
                    element = part(b++);
                } else if (isComplex) {
                    element = 0.0f;
                    for (int i = 0; i < model.binGroupSize; ++i)
                        element += part(b + i) / static_cast<float>(model.binGroupSize);
                    b += model.binGroupSize;
                } else if (b >= fine) {
                    element = std::hypot(bins[b].real(), bins[b].imag());
                    ++b;
                } else {
                    const float value = r % 2 == 0 ? bins[b].real() : bins[b].imag();
                    element = std::max(r % 4 < 2 ? value : -value, 0.0f);
                    if (r % 4 == 3) ++b;
                }
            }
        }
        benchmark::DoNotOptimize(tensor);
    }
    reportPerBin(state);
}

BENCHMARK(pack)->ArgName("packing")->Arg(1)->Arg(2)->Arg(4)->Arg(6);
BENCHMARK(packPlainly)->ArgName("packing")->Arg(1)->Arg(2)->Arg(4)->Arg(6);
BENCHMARK(unpack)->ArgName("packing")->Arg(1)->Arg(2)->Arg(4)->Arg(6);
BENCHMARK(unpackBeyond)->ArgName("packing")->Arg(1)->Arg(2)->Arg(4)->Arg(6);

}  // namespace
