// The layers, one new slice in, and what comes of it: each beside its plain loop, beside the libraries that
// are found, and beside what this core can do, all in turns within one run, in time that this thread has a
// core for.
//
//   us         one push of the whole layer, its copies into and out of the rings included: the median
//   GFLOPs     two operations for each product that the definition has inside the band
//   peak       fraction of the multiply-adds that this core does on registers alone: each turn beside the
//              peak of that turn, as the clock changes; of ten turns the second best counts
//   vs_loop    the plain loop's time over ours
//   vs_onednn, vs_xnnpack   our time over that of the library in the form in which it is fastest, which the
//              label names: the median over the turns
//   other_prefetch   the time with weights asked for ahead where this processor's kernels do not, or not
//   asked
//              for where they do, over ours
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "DspCore/VectorOperations.h"
#include "Interleaved.h"
#include "LayerLoops.h"
#include "PeerLayers.h"
#include "kernels/PackedWeights.h"
#include "modelwriter/ModelWriter.h"
#include "neural/LayerTable.h"
#include "neural/MemoryStream.h"
#include "simd/Dispatch.h"
#include "simd/TargetOverride.h"

namespace kernels = zevrant::kernels;
namespace writer = zevrant::modelwriter;
using zevrant::BaseLayer;
using zevrant::Tensor;

namespace {

using Values = kernels::AlignedValues;
using Work = std::function<void()>;

Values noise(std::ptrdiff_t count, unsigned seed = 1) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    Values values(static_cast<std::size_t>(count));
    for (float& value : values) value = uniform(engine);
    return values;
}

writer::WeightTensor noiseTensor(std::vector<int> shape) {
    std::ptrdiff_t count = 1;
    for (int axis : shape) count *= axis;
    const Values values = noise(count);
    return {std::move(shape), {values.begin(), values.end()}};
}

Tensor<float> sliceOf(int frequencies, int channels) {
    Tensor<float> slice({1, frequencies, channels});
    const Values values = noise(std::ptrdiff_t{frequencies} * channels);
    std::copy(values.begin(), values.end(), slice.getWritePointer());
    return slice;
}

// A layer of a model by itself, without consumers.
struct LayerAlone {
    LayerAlone(int typeCode, const writer::SingleSourceLayer& record) {
        layers["input"] = std::shared_ptr<BaseLayer<float>>(source);
        layer = zevrant::makeLayer(
            typeCode, {layers, zevrant::streamOver(writer::encodeLayer("input", record)), 0x100a, 1.0f});
    }

    std::shared_ptr<zevrant::InputLayer<float>> source = std::make_shared<zevrant::InputLayer<float>>();
    zevrant::LayerMap layers;
    std::shared_ptr<BaseLayer<float>> layer;
};

// A library in its fastest form.
class Peer {
  public:
    Peer(std::string nameOfLibrary, const PeerForms& forms) : name(std::move(nameOfLibrary)) {
        std::vector<ShortestTime> times(forms.size());
        for (int turn = 0; turn < 30; ++turn)
            for (std::size_t i = 0; i < forms.size(); ++i) times[i].add(10, forms[i].run);
        double best = 1e9;
        for (std::size_t i = 0; i < forms.size(); ++i)
            if (times[i].microseconds() < best) best = times[i].microseconds(), form = forms[i];
    }
    void add(int numOfCalls, double ours) {
        if (!form.run) return;
        form.run();
        ratios.push_back(ours / timeBatch(numOfCalls, form.run));
    }
    void report(benchmark::State& state, std::string& label) const {
        if (!form.run) return;
        state.counters["vs_" + name] = findMedian(ratios);
        label += (label.empty() ? "" : "; ") + name + ": " + form.name;
    }

  private:
    std::string name;
    PeerForm form;
    std::vector<double> ratios;
};

struct Peers {
    PeerForms onednn, xnnpack;
};

// Runs all in turns; loop may be empty.
void compare(benchmark::State& state, double numOfProducts, const Work& ours, const Work& loop,
             const Peers& forms) {
    ShortestTime loopTime, peakTime;
    Peer peers[] = {{"onednn", forms.onednn}, {"xnnpack", forms.xnnpack}};
    std::vector<double> ourTimes, otherPrefetch;
    const int numOfCalls = std::max(1, static_cast<int>(2e-4 / std::max(1e-7, timeBatch(3, ours))));
    const int numOfLoops = std::max(1, numOfCalls / 8);
    std::vector<double> fractions;
    long long peakProducts = 1;
    for (auto _ : state) {
        plain::multiplyAndAddAtPeak();  // until the clock has settled
        const double peakOfTurn = peakTime.add(1, [&] { peakProducts = plain::multiplyAndAddAtPeak(); });
        ours();  // brings its weights into the caches, as each of the others does before it counts
        const double timeOfTurn = timeBatch(numOfCalls, ours);
        ourTimes.push_back(1e6 * timeOfTurn);
        fractions.push_back(numOfProducts / timeOfTurn * peakOfTurn / static_cast<double>(peakProducts));
        if (loop) loopTime.add(numOfLoops, loop);
        for (Peer& peer : peers) peer.add(numOfCalls, timeOfTurn);
        const zevrant::simd::ScopedPrefetch other(!zevrant::simd::asksAhead());
        ours();
        otherPrefetch.push_back(timeBatch(numOfCalls, ours) / timeOfTurn);
    }
    const double us = findMedian(ourTimes);
    const double peak = static_cast<double>(peakProducts) / peakTime.microseconds();
    state.counters["us"] = us;
    if (numOfProducts > 0) {
        state.counters["GFLOPs"] = 2e-3 * numOfProducts / us;
        std::sort(fractions.begin(), fractions.end());
        state.counters["peak"] = fractions[fractions.size() * 9 / 10];
        state.counters["peakGFLOPs"] = 2e-3 * peak;
    }
    state.counters["other_prefetch"] = findMedian(otherPrefetch);
    if (loop) state.counters["vs_loop"] = loopTime.microseconds() / us;
    std::string label;
    for (const Peer& peer : peers) peer.report(state, label);
    state.SetLabel(label);
}

struct ConvCase {
    int kernelTime, kernelFrequency, inputs, outputs, F, frequencyStride;
};

kernels::Convolution shapeOf(const ConvCase& c) {
    return {c.kernelTime,
            c.kernelFrequency,
            c.inputs,
            c.outputs,
            c.F,
            c.F / c.frequencyStride,
            c.frequencyStride,
            -((c.kernelFrequency - c.frequencyStride) / 2)};
}

// Products inside the band of one slice, for each pair of channels.
double countTaps(const kernels::Convolution& shape) {
    double count = 0;
    for (std::ptrdiff_t f = 0; f < shape.outputFrequencies; ++f)
        for (std::ptrdiff_t k = 0; k < shape.numOfTaps; ++k) {
            const std::ptrdiff_t at = shape.start + f * shape.frequencyStride + k;
            count += at >= 0 && at < shape.inputFrequencies;
        }
    return count * static_cast<double>(shape.numOfSlices);
}

void convolution(benchmark::State& state, const ConvCase& c) {
    const LayerAlone conv(
        2, writer::Conv{.weights = noiseTensor({c.kernelTime, c.kernelFrequency, c.inputs, c.outputs}),
                        .bias = noiseTensor({c.outputs}),
                        .frequencyStride = c.frequencyStride});
    const Tensor<float> slice = sliceOf(c.F, c.inputs);
    const kernels::Convolution shape = shapeOf(c);
    const Values in = noise(std::ptrdiff_t{c.kernelTime} * c.F * c.inputs);
    const Values weights = noise(std::ptrdiff_t{c.kernelTime} * c.kernelFrequency * c.inputs * c.outputs);
    Values out(static_cast<std::size_t>(shape.outputFrequencies * c.outputs));
    std::vector<const float*> slices;
    for (int r = 0; r < c.kernelTime; ++r) slices.push_back(in.data() + std::ptrdiff_t{r} * c.F * c.inputs);
    compare(
        state, countTaps(shape) * c.inputs * c.outputs, [&] { conv.layer->push(slice, nullptr); },
        [&] { plain::convolve(shape, slices.data(), weights.data(), out.data()); },
        {onednn::makeConvolution(shape, 1), xnnpack::makeConvolution(shape, 1)});
}

void channelWise(benchmark::State& state, const ConvCase& c) {
    const LayerAlone conv(
        2, writer::Conv{.weights = noiseTensor({c.kernelTime, c.kernelFrequency, 1, c.outputs}),
                        .bias = noiseTensor({c.outputs}),
                        .frequencyStride = c.frequencyStride});
    const Tensor<float> slice = sliceOf(c.F, c.outputs);
    const kernels::Convolution shape = shapeOf(c);
    const Values in = noise(std::ptrdiff_t{c.kernelTime} * c.F * c.outputs);
    const Values weights = noise(std::ptrdiff_t{c.kernelTime} * c.kernelFrequency * c.outputs);
    Values out(static_cast<std::size_t>(shape.outputFrequencies * c.outputs));
    std::vector<const float*> slices;
    for (int r = 0; r < c.kernelTime; ++r) slices.push_back(in.data() + std::ptrdiff_t{r} * c.F * c.outputs);
    compare(
        state, countTaps(shape) * c.outputs, [&] { conv.layer->push(slice, nullptr); },
        [&] { plain::convolveChannels(shape, slices.data(), weights.data(), out.data()); },
        {onednn::makeConvolution(shape, c.outputs), xnnpack::makeConvolution(shape, c.outputs)});
}

void transposed(benchmark::State& state, const ConvCase& c) {
    const LayerAlone conv(
        3,
        writer::TransposedConv{.weights = noiseTensor({c.kernelTime, c.kernelFrequency, c.outputs, c.inputs}),
                               .bias = noiseTensor({c.outputs}),
                               .frequencyStride = c.frequencyStride});
    const Tensor<float> slice = sliceOf(c.F, c.inputs);
    const kernels::TransposedConvolution shape = {c.kernelTime,
                                                  c.kernelFrequency,
                                                  c.inputs,
                                                  c.outputs,
                                                  c.F,
                                                  std::ptrdiff_t{c.F} * c.frequencyStride,
                                                  c.frequencyStride,
                                                  -((c.kernelFrequency - c.frequencyStride) / 2)};
    double taps = 0;
    for (std::ptrdiff_t i = 0; i < c.F; ++i)
        for (std::ptrdiff_t k = 0; k < c.kernelFrequency; ++k) {
            const std::ptrdiff_t at = shape.start + i * c.frequencyStride + k;
            taps += at >= 0 && at < shape.outputFrequencies;
        }
    const Values in = noise(std::ptrdiff_t{c.F} * c.inputs);
    const Values weights = noise(std::ptrdiff_t{c.kernelTime} * c.kernelFrequency * c.inputs * c.outputs);
    std::vector<Values> slots(static_cast<std::size_t>(c.kernelTime),
                              Values(static_cast<std::size_t>(shape.outputFrequencies * c.outputs)));
    std::vector<float*> rows;
    for (Values& slot : slots) rows.push_back(slot.data());
    compare(
        state, taps * c.kernelTime * c.inputs * c.outputs, [&] { conv.layer->push(slice, nullptr); },
        [&] { plain::convolveTransposed(shape, in.data(), weights.data(), rows.data()); },
        {onednn::makeTransposed(shape), xnnpack::makeTransposed(shape)});
}

// With weights of half precision where these are multiples of 1 / 1024.
void dense(benchmark::State& state, int F, int channels, bool hasHalves) {
    writer::WeightTensor values = noiseTensor({F, F, channels});
    if (hasHalves)
        for (float& value : values.values) value = std::round(1024 * value) / 1024;
    const LayerAlone layer(14, writer::Dense{.weights = values});
    const Tensor<float> slice = sliceOf(F, channels);
    const Values in = noise(std::ptrdiff_t{F} * channels), weights = noise(std::ptrdiff_t{F} * F * channels);
    Values out(in.size());
    compare(
        state, double(F) * F * channels, [&] { layer.layer->push(slice, nullptr); },
        [&] { plain::multiplyDense(in.data(), F, channels, weights.data(), out.data()); },
        {onednn::makeDense(F, channels), xnnpack::makeDense(F, channels)});
    // Reading as many values from the same level of cache, in the same run.
    ShortestTime reading, ours;
    for (int i = 0; i < 300; ++i) {
        reading.add(8, [&] {
            benchmark::DoNotOptimize(plain::readAll(weights.data(), static_cast<int>(weights.size())));
        });
        ours.add(8, [&] { layer.layer->push(slice, nullptr); });
    }
    const double bytes = 4.0 * static_cast<double>(weights.size());
    state.counters["readGBs"] = 1e-3 * bytes / reading.microseconds();
    state.counters["GBs"] = 1e-3 * bytes / ours.microseconds();
    state.counters["of_read"] = reading.microseconds() / ours.microseconds();
}

void activation(benchmark::State& state, int typeCode, const writer::SingleSourceLayer& record,
                const Peers& forms) {
    const LayerAlone layer(typeCode, record);
    const Tensor<float> slice = sliceOf(256, 64);
    const Values in = noise(16384);
    Values out(in.size());
    ShortestTime ours, copying;
    Peer peers[] = {{"onednn", forms.onednn}, {"xnnpack", forms.xnnpack}};
    for (auto _ : state) {
        const double timeOfTurn = ours.add(30, [&] { layer.layer->push(slice, nullptr); });
        for (Peer& peer : peers) peer.add(30, timeOfTurn);
        copying.add(30, [&] {
            zevrant::vo::copy(in.data(), out.data(), 16384);
            benchmark::ClobberMemory();
        });
    }
    state.counters["us"] = ours.microseconds();
    state.counters["vs_copy"] = ours.microseconds() / copying.microseconds();
    std::string label;
    for (const Peer& peer : peers) peer.report(state, label);
    state.SetLabel(label);
}

void rescale(benchmark::State& state) {
    constexpr int F = 513, bands = 64, taps = 16, channels = 16;
    writer::FrequencyRescale record;
    std::vector<int> starts;
    for (int b = 0; b < bands; ++b) {
        starts.push_back(b * (F - taps) / (bands - 1));
        record.bands.push_back({starts.back(), noiseTensor({taps})});
    }
    const LayerAlone layer(22, record);
    const Tensor<float> slice = sliceOf(F, channels);
    const Values in = noise(F * channels), weights = noise(bands * taps);
    Values out(bands * channels);
    compare(
        state, double(bands) * taps * channels, [&] { layer.layer->push(slice, nullptr); },
        [&] { plain::rescale(in.data(), channels, bands, taps, starts.data(), weights.data(), out.data()); },
        {});
}

void alone(benchmark::State& state, int typeCode, const writer::SingleSourceLayer& record, int F,
           int channels, double numOfProducts) {
    const LayerAlone layer(typeCode, record);
    const Tensor<float> slice = sliceOf(F, channels);
    compare(state, numOfProducts, [&] { layer.layer->push(slice, nullptr); }, {}, {});
}

const int registered = [] {
    const auto add = [](const char* name, auto&& function, auto... arguments) {
        benchmark::RegisterBenchmark(name, [=](benchmark::State& state) { function(state, arguments...); })
            ->Iterations(200)
            ->Unit(benchmark::kMicrosecond);
    };
    add("A_conv_3x3_16to32_F256_stride2", convolution, ConvCase{3, 3, 16, 32, 256, 2});
    add("B_conv_3x3_64to64_F64", convolution, ConvCase{3, 3, 64, 64, 64, 1});
    add("C_conv_1x1_64to64_F128", convolution, ConvCase{1, 1, 64, 64, 128, 1});
    add("D_channelwise_3x3_64_F128", channelWise, ConvCase{3, 3, 1, 64, 128, 1});
    add("E_conv_5x5_2to16_F513", convolution, ConvCase{5, 5, 2, 16, 513, 1});
    add("E_conv_9x1_1to1_F2049", convolution, ConvCase{9, 1, 1, 1, 2049, 1});
    add("E_conv_1x7_1to1_F2049", convolution, ConvCase{1, 7, 1, 1, 2049, 1});
    add("E_conv_1x1_2to1_F2049", convolution, ConvCase{1, 1, 2, 1, 2049, 1});
    add("E_conv_3x3_4to4_F513", convolution, ConvCase{3, 3, 4, 4, 513, 1});
    add("F_transposed_2x4_64to32_F64to128", transposed, ConvCase{2, 4, 64, 32, 64, 2});
    add("G_dense_F128_16", dense, 128, 16, false);
    add("G_dense_F128_16_halves", dense, 128, 16, true);
    add("G_dense_F256_16", dense, 256, 16, false);
    add("G_dense_F256_16_halves", dense, 256, 16, true);
    add("H_elu_16384", activation, 5, writer::SingleSourceLayer(writer::ELU{}),
        Peers{onednn::makeElu(16384), xnnpack::makeElu(16384)});
    add("H_sigmoid_16384", activation, 6, writer::SingleSourceLayer(writer::Sigmoid{}),
        Peers{onednn::makeSigmoid(16384), xnnpack::makeSigmoid(16384)});
    add("H_hardsigmoid_16384", activation, 20, writer::SingleSourceLayer(writer::HardSigmoid{}), Peers{});
    add("H_leakyrelu_16384", activation, 12, writer::SingleSourceLayer(writer::LeakyReLU{0.1f}), Peers{});
    add("I_rescale_513to64_16taps_16", rescale);
    add("J_transposed_2x4_32to2_F128to256", transposed, ConvCase{2, 4, 32, 2, 128, 2});
    add("K_attention_64_F64_history8", alone, 19,
        writer::SingleSourceLayer(writer::SelfAttention{.channelMatrix = noiseTensor({64, 64}),
                                                        .positionBias = noiseTensor({64, 64}),
                                                        .timeWeights = noiseTensor({8, 64})}),
        64, 64, 64.0 * 64 * (64 + 8));
    add("K_separable_3x3_64_F128", alone, 15,
        writer::SingleSourceLayer(writer::SeparableChannelConv{.timeKernel = noiseTensor({3}),
                                                               .frequencyKernel = noiseTensor({3})}),
        128, 64, 128.0 * 64 * 6);
    add("K_norm_F128_64", alone, 7,
        writer::SingleSourceLayer(
            writer::Norm{.normMode = 1, .gain = noiseTensor({64}), .offset = noiseTensor({64})}),
        128, 64, 0.0);
    add("K_prenorm_F128_64", alone, 16, writer::SingleSourceLayer(writer::PreNorm{noiseTensor({20})}), 128,
        64, 0.0);
    add("K_arprenorm_F128_64", alone, 23, writer::SingleSourceLayer(writer::ARPreNorm{0.5f, 0.9f, 1e-6f}),
        128, 64, 0.0);
    return 0;
}();

}  // namespace
