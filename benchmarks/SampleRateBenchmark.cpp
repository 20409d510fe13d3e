// Rate conversion beside libsamplerate's medium sinc converter on the same blocks. The counter tells how
// many times faster than real time a stream is converted.
#include <benchmark/benchmark.h>
#include <samplerate.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "DspCore/SampleRateConversion.h"

namespace {

using namespace zevrant;

std::vector<float> makeNoise(int numOfSamples) {
    std::mt19937 random(1);
    std::uniform_real_distribution<float> distribution(-1.0f, 1.0f);
    std::vector<float> noise(numOfSamples);
    for (float& sample : noise) sample = distribution(random);
    return noise;
}

void tellRealTime(benchmark::State& state, double inputRate, int blockSize) {
    const double seconds = static_cast<double>(state.iterations()) * blockSize / inputRate;
    state.counters["timesRealTime"] = benchmark::Counter(seconds, benchmark::Counter::kIsRate);
}

void ours(benchmark::State& state, double inputRate, double outputRate) {
    const int numOfChannels = static_cast<int>(state.range(0)), blockSize = static_cast<int>(state.range(1));
    SampleRateConversion conversion;
    AudioFormat input, output;
    input.createDefaultChannelMapping(numOfChannels);
    output.createDefaultChannelMapping(numOfChannels);
    input.sampleRate = inputRate;
    output.sampleRate = outputRate;
    conversion.setFormat(input, output);
    const std::vector<float> noise = makeNoise(blockSize);
    Signal32 block(numOfChannels, blockSize);
    for (int c = 0; c < numOfChannels; ++c)
        std::copy(noise.begin(), noise.end(), block.getWriteChannelPtr(c));
    for (auto _ : state) benchmark::DoNotOptimize(conversion.process(block));
    tellRealTime(state, inputRate, blockSize);
}

void libsamplerate(benchmark::State& state, double inputRate, double outputRate) {
    const int numOfChannels = static_cast<int>(state.range(0)), blockSize = static_cast<int>(state.range(1));
    int error = 0;
    const std::unique_ptr<SRC_STATE, SRC_STATE* (*)(SRC_STATE*)> converter(
        src_new(SRC_SINC_MEDIUM_QUALITY, numOfChannels, &error), src_delete);
    const std::vector<float> noise = makeNoise(blockSize * numOfChannels);
    std::vector<float> result(2 * noise.size() + 1000);
    SRC_DATA data{};
    data.data_in = noise.data();
    data.data_out = result.data();
    data.input_frames = blockSize;
    data.output_frames = static_cast<long>(result.size()) / numOfChannels;
    data.src_ratio = outputRate / inputRate;
    for (auto _ : state) {
        if (src_process(converter.get(), &data) != 0) state.SkipWithError("libsamplerate refused a block");
        benchmark::DoNotOptimize(result.data());
        benchmark::ClobberMemory();
    }
    tellRealTime(state, inputRate, blockSize);
}

void channelsAndBlocks(benchmark::internal::Benchmark* bench) {
    bench->ArgNames({"channels", "block"})->ArgsProduct({{1, 2}, {64, 480, 4096}});
}

BENCHMARK_CAPTURE(ours, down48000To44100, 48000.0, 44100.0)->Apply(channelsAndBlocks);
BENCHMARK_CAPTURE(libsamplerate, down48000To44100, 48000.0, 44100.0)->Apply(channelsAndBlocks);
BENCHMARK_CAPTURE(ours, up44100To48000, 44100.0, 48000.0)->Apply(channelsAndBlocks);
BENCHMARK_CAPTURE(libsamplerate, up44100To48000, 44100.0, 48000.0)->Apply(channelsAndBlocks);

}  // namespace
