// What a whole processor costs, and where the time goes. Stereo, window 2048, hop 512, 48 kHz, a model that
// hands magnitudes on as masks.
//
//   secondOfAudio   times per frame of the whole road and of its stages, each on its own, in one run.
//                   over_stated compares the whole with transforms, windows and the arithmetic per bin as
//                   the formulas state it, on fixed buffers; 1 would be an engine for nothing.
//   sensitivity     nanoseconds per bin, beside the formula in scalar calls of the C library.
//   blocks          time per call for a host's block sizes, and system allocations per call.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <filesystem>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "AllocationCounter.h"
#include "DspCore/VectorOperations.h"
#include "Interleaved.h"
#include "TestModels.h"
#include "interface/ProcessorState.h"
#include "processors/ZevrantProcessor.h"

namespace {

using namespace zevrant;

constexpr int numOfChannels = 2, sampleRate = 48000, windowSize = 2048, hopSize = 512;
constexpr int numOfBins = windowSize / 2 + 1;
constexpr float pi = 3.1415927f;

std::string writePassThroughModel() {
    const auto path = std::filesystem::temp_directory_path() / "zevrant-benchmark.model";
    TestModel options{
        .channels = numOfChannels, .fftSize = windowSize, .windowSize = windowSize, .hopSize = hopSize};
    describeModel(options).setOutput("input").write(path);
    return path;
}

std::unique_ptr<ProcessorState> makeProcessor(float sensitivity) {
    const std::string path = writePassThroughModel();
    const char* paths[] = {path.c_str()};
    auto state = std::make_unique<ProcessorState>();
    if (!state->loadModels(1, paths, numOfChannels, sampleRate)) std::abort();
    for (int id : {512, 513}) state->setParameterValue(id, sensitivity);
    return state;
}

// Masks with magnitudes from 0 to 1 and any phase.
ComplexSignal32 makeMask() {
    std::mt19937 random(1);
    std::uniform_real_distribution<float> uniform(0.0f, 1.0f);
    ComplexSignal32 mask(numOfChannels, numOfBins);
    for (int c = 0; c < numOfChannels; ++c)
        for (int i = 0; i < numOfBins; ++i)
            mask.getWriteChannelPtr(c)[i] = std::polar(uniform(random), 6.28f * uniform(random));
    return mask;
}

// Noise at a level that gives spectra magnitudes around 1, as masks have.
Signal32 makeNoise(int numOfSamples) {
    std::mt19937 random(2);
    std::uniform_real_distribution<float> uniform(-0.02f, 0.02f);
    Signal32 noise(numOfChannels, numOfSamples);
    for (int c = 0; c < numOfChannels; ++c)
        for (int i = 0; i < numOfSamples; ++i) noise.getWriteChannelPtr(c)[i] = uniform(random);
    return noise;
}

// A host with planar buffers of one block.
struct Host {
    Host(ProcessorState& processor, int size)
        : state(processor), blockSize(size), in(makeNoise(size)), out(in) {
        for (int c = 0; c < numOfChannels; ++c) {
            inRows.push_back(in.getReadChannelPtr(c));
            outRows.push_back(out.getWriteChannelPtr(c));
        }
    }
    void push() { state.addAudio(inRows.data(), blockSize); }
    void pull() {
        while (state.getAudio(outRows.data(), blockSize)) {
        }
    }
    ProcessorState& state;
    int blockSize;
    Signal32 in, out;
    std::vector<const float*> inRows;
    std::vector<float*> outRows;
};

// The framing around a spectral step that does nothing.
class HandBack : public BaseSpectralProcessor {
  public:
    using BaseSpectralProcessor::process;
    std::list<ComplexSignal32> process(const ComplexSignal32& spectrum) override {
        std::list<ComplexSignal32> results;
        resultNodes.append(results, spectrum);
        return results;
    }
};

// One frame as the formulas state it: windows, transforms and per bin the arithmetic of packing, both
// sensitivities over magnitude and phase, gains, residual and product, row by row on buffers that stay.
struct StatedFrame {
    explicit StatedFrame(float sensitivity)
        : curve(static_cast<float>(std::exp(0.0075 * sensitivity))), time(makeNoise(windowSize)) {}

    void shape(const std::complex<float>* mask, std::complex<float>* shaped) {
        vo::calcPhases(mask, phases.data(), numOfBins);
        vo::calcMagnitudes(mask, magnitudes.data(), numOfBins);
        if (curve < 1.0f) {
            vo::constantAdd(magnitudes.data(), 1e-12f, factors.data(), numOfBins);
        } else {
            vo::constantMultiply(magnitudes.data(), pi, factors.data(), numOfBins);
            vo::cos(factors.data(), factors.data(), numOfBins);
            vo::constantMultiply(factors.data(), -0.5f, factors.data(), numOfBins);
            vo::constantAdd(factors.data(), 0.5f, factors.data(), numOfBins);
            vo::constantAdd(factors.data(), 1e-12f, factors.data(), numOfBins);
        }
        vo::pow(factors.data(), curve - 1.0f, factors.data(), numOfBins);
        vo::multiply(magnitudes.data(), factors.data(), magnitudes.data(), numOfBins);
        vo::convertPolarToCartesian(magnitudes.data(), phases.data(), shaped, numOfBins);
    }

    void run() {
        for (int c = 0; c < numOfChannels; ++c)
            vo::multiply(time.getReadChannelPtr(c), window.getReadChannelPtr(c),
                         windowed.getWriteChannelPtr(c), windowSize);
        transform.forwardReal(windowed, spectrum);
        for (int c = 0; c < numOfChannels; ++c) {
            const std::complex<float>* in = spectrum.getReadChannelPtr(c);
            vo::calcMagnitudes(in, magnitudes.data(), numOfBins);
            for (std::size_t i = 0; i < numOfBins; ++i) sum[i] = magnitudes[i];
            shape(sum.data(), sum.data());
            vo::constantMultiply(sum.data(), {1.0f, 0.0f}, mix.data(), numOfBins);
            vo::subtract(sum.data(), ones.data(), residual.data(), numOfBins);
            shape(residual.data(), residual.data());
            vo::constantMultiply(residual.data(), {1.0f, 0.0f}, residual.data(), numOfBins);
            vo::add(mix.data(), residual.data(), mix.data(), numOfBins);
            vo::multiply(in, mix.data(), output.getWriteChannelPtr(c), numOfBins);
        }
        transform.inverseReal(output, windowed);
        for (int c = 0; c < numOfChannels; ++c) {
            float* row = windowed.getWriteChannelPtr(c);
            vo::multiply(row, window.getReadChannelPtr(c), row, windowSize);
            vo::add(row, row + hopSize, row, hopSize);
        }
        benchmark::ClobberMemory();
    }

    void runTransforms() {
        transform.forwardReal(windowed, spectrum);
        transform.inverseReal(spectrum, windowed);
        benchmark::ClobberMemory();
    }

    float curve;
    Signal32 time, window{numOfChannels, windowSize, 0.02f}, windowed{numOfChannels, windowSize, 0.0f};
    ComplexSignal32 spectrum{numOfChannels, numOfBins, 0.0f}, output{numOfChannels, numOfBins, 0.0f};
    FourierTransform transform;
    std::vector<float> phases = std::vector<float>(numOfBins), magnitudes = phases, factors = phases;
    std::vector<std::complex<float>> ones = std::vector<std::complex<float>>(numOfBins, 1.0f), sum = ones,
                                     mix = ones, residual = ones;
};

void secondOfAudio(benchmark::State& state) {
    const auto sensitivity = static_cast<float>(state.range(0));
    const auto processor = makeProcessor(sensitivity);
    Host host(*processor, hopSize);
    StatedFrame stated(sensitivity);
    HandBack framing;
    framing.setFormat(processor->processor.inputFormat, processor->processor.outputFormat);
    framing.setBlocking(windowSize, windowSize, hopSize);
    const Signal32 block = makeNoise(hopSize);
    const ComplexSignal32 spectrum = stated.transform.forwardReal(stated.time);
    const ComplexSignal32 mask = makeMask();
    ZevrantProcessor& spectral = processor->processor;
    std::vector<ComplexSignal32> results;

    constexpr int numOfFrames = sampleRate / hopSize + 1;
    ShortestTime whole, bare, transforms, frames, model, shaping, step;
    for (auto _ : state) {
        whole.add(numOfFrames, [&] { host.push(), host.pull(); });
        bare.add(numOfFrames, [&] { stated.run(); });
        transforms.add(numOfFrames, [&] { stated.runTransforms(); });
        frames.add(numOfFrames, [&] { benchmark::DoNotOptimize(framing.process(block).data.get()); });
        model.add(numOfFrames, [&] { spectral.neuralModels[0].process(spectrum, results); });
        shaping.add(numOfFrames, [&] {
            for (int bus = 0; bus < 2; ++bus)
                benchmark::DoNotOptimize(spectral.processSensitivity(sensitivity, mask).data.get());
        });
        step.add(numOfFrames, [&] {
            spectral.resultNodes.clear(
                *std::make_unique<std::list<ComplexSignal32>>(spectral.process(spectrum)));
        });
    }
    const auto us = [](const ShortestTime& time) { return time.microseconds(); };
    state.counters["whole_us"] = us(whole);
    state.counters["stated_us"] = us(bare);
    state.counters["over_stated"] = us(whole) / us(bare);
    state.counters["transforms_us"] = us(transforms);
    state.counters["framing_us"] = us(frames) - us(transforms);
    state.counters["packing_us"] = us(model);
    state.counters["sensitivity_us"] = us(shaping);
    state.counters["mixing_us"] = us(step) - us(model) - us(shaping);
    state.counters["ms_per_s"] = us(whole) * sampleRate / hopSize / 1000.0;
}

BENCHMARK(secondOfAudio)->ArgName("sensitivity")->Arg(0)->Arg(-50)->Arg(50)->Unit(benchmark::kMillisecond);

// The formula bin by bin with the C library's functions.
void shapeWithScalarCalls(float sensitivity, const ComplexSignal32& mask, ComplexSignal32& shaped) {
    const float curve = static_cast<float>(std::pow(std::numbers::e, double{sensitivity * 0.0075f}));
    const float exponent = curve - 1.0f;
    for (int c = 0; c < mask.numOfChannels; ++c)
        for (int i = 0; i < mask.numOfSamples; ++i) {
            const std::complex<float> in = mask.getReadChannelPtr(c)[i];
            const float phase = std::atan2(in.imag(), in.real());
            float m = std::hypot(in.real(), in.imag());
            const float base = curve < 1.0f ? m + 1e-12f : 0.5f + -0.5f * std::cos(m * pi) + 1e-12f;
            m *= std::pow(base, exponent);
            shaped.getWriteChannelPtr(c)[i] = {m * std::cos(phase), m * std::sin(phase)};
        }
}

void sensitivity(benchmark::State& state) {
    const auto value = static_cast<float>(state.range(0));
    const auto processor = makeProcessor(value);
    const ComplexSignal32 mask = makeMask();
    ComplexSignal32 shaped(numOfChannels, numOfBins);
    ShortestTime ours, scalar;
    for (auto _ : state) {
        ours.add(20, [&] {
            benchmark::DoNotOptimize(processor->processor.processSensitivity(value, mask).data.get());
        });
        scalar.add(5, [&] {
            shapeWithScalarCalls(value, mask, shaped);
            benchmark::ClobberMemory();
        });
    }
    const double perBin = 1000.0 / (numOfChannels * numOfBins);
    state.counters["ns_per_bin"] = ours.microseconds() * perBin;
    state.counters["scalar_ns_per_bin"] = scalar.microseconds() * perBin;
    state.counters["times_faster"] = scalar.microseconds() / ours.microseconds();
}

BENCHMARK(sensitivity)->ArgName("sensitivity")->Arg(0)->Arg(-100)->Arg(-50)->Arg(50)->Arg(100);

void blocks(benchmark::State& state) {
    const int blockSize = static_cast<int>(state.range(0));
    const auto processor = makeProcessor(30.0f);
    Host host(*processor, blockSize);
    const auto call = [&] { host.push(), host.pull(); };
    for (int i = 0; i < 200; ++i) call();
    std::vector<double> times;
    times.reserve(4000 + 20 * sampleRate / hopSize);
    const std::int64_t before = countAllocations();
    for (auto _ : state)
        for (std::size_t i = 0; i < 4000; ++i) {
            const double seconds = timeBatch(1, call);
            if (times.size() < times.capacity()) times.push_back(seconds);
        }
    const auto numOfRequests = static_cast<double>(countAllocations() - before);
    std::sort(times.begin(), times.end());
    const auto at = [&](double part) {
        return 1e6 * times[static_cast<std::size_t>(part * static_cast<double>(times.size() - 1))];
    };
    state.counters["median_us"] = at(0.5);
    state.counters["p99.9_us"] = at(0.999);
    state.counters["worst_us"] = at(1.0);
    state.counters["block_us"] = 1e6 * blockSize / sampleRate;
    state.counters["allocations"] = numOfRequests / static_cast<double>(state.iterations() * 4000);
}

BENCHMARK(blocks)
    ->ArgName("block")
    ->Arg(64)
    ->Arg(128)
    ->Arg(480)
    ->Arg(512)
    ->Arg(1024)
    ->Arg(4096)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
