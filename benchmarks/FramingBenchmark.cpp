// What framing costs beside the work that nobody can save: a second of stereo at 48 kHz through a spectral
// step that hands its input back, against the same number of transforms and window multiplications alone.
// Times are per frame. Read over_bare: 1 would be framing for nothing. realtime is seconds of audio per
// second.
#include <benchmark/benchmark.h>

#include <list>
#include <numeric>

#include "DspCore/VectorOperations.h"
#include "Interleaved.h"
#include "processors/BaseSpectralProcessor.h"

namespace {

using zevrant::ComplexSignal32;
using zevrant::Signal32;

constexpr int numOfChannels = 2;
constexpr int sampleRate = 48000;

class HandBack : public zevrant::BaseSpectralProcessor {
  public:
    using BaseSpectralProcessor::process;
    std::list<ComplexSignal32> process(const ComplexSignal32& spectrum) override {
        std::list<ComplexSignal32> results;
        resultNodes.append(results, spectrum);
        return results;
    }
};

void multiplyRows(const Signal32& a, const Signal32& b, Signal32& out) {
    for (int c = 0; c < numOfChannels; ++c)
        zevrant::vo::multiply(a.getReadChannelPtr(c), b.getReadChannelPtr(c), out.getWriteChannelPtr(c),
                              out.numOfSamples);
}

void framing(benchmark::State& state) {
    const int size = static_cast<int>(state.range(0));
    const int hopSize = static_cast<int>(state.range(1));
    const int blockSize = static_cast<int>(state.range(2));
    zevrant::AudioFormat format;
    format.createDefaultChannelMapping(numOfChannels);
    format.sampleRate = sampleRate;
    HandBack processor;
    processor.setFormat(format, format);
    processor.setBlocking(size, size, hopSize);

    const Signal32 block(numOfChannels, blockSize, 0.25f);
    // About a second, in whole blocks and whole hops, so that every pass makes as many frames.
    const int unit = std::lcm(blockSize, hopSize);
    const int numOfSamples = (sampleRate + unit - 1) / unit * unit;
    const int numOfBlocks = numOfSamples / blockSize, numOfFrames = numOfSamples / hopSize;
    const auto processAll = [&] {
        for (int i = 0; i < numOfBlocks; ++i) {
            const Signal32 output = processor.process(block);
            benchmark::DoNotOptimize(output.data.get());
        }
    };
    processAll();

    const Signal32 frame(numOfChannels, size, 0.25f);
    Signal32 windowed(numOfChannels, size), time(numOfChannels, size);
    ComplexSignal32 spectrum(numOfChannels, size / 2 + 1);
    zevrant::FourierTransform transform;
    const auto transformFrame = [&] {
        multiplyRows(frame, processor.analysisWindow, windowed);
        transform.forwardReal(windowed, spectrum);
        transform.inverseReal(spectrum, time);
        multiplyRows(time, processor.synthesisWindow, time);
        benchmark::ClobberMemory();
    };

    ShortestTime whole, bare;
    for (auto _ : state) {
        whole.add(1, processAll);
        bare.add(numOfFrames, transformFrame);
    }
    const double perFrame = whole.microseconds() / numOfFrames;
    state.counters["framing_us"] = perFrame;
    state.counters["bare_us"] = bare.microseconds();
    state.counters["over_bare"] = perFrame / bare.microseconds();
    state.counters["realtime"] = 1e6 * numOfSamples / sampleRate / whole.microseconds();
}

BENCHMARK(framing)
    ->ArgNames({"window", "hop", "block"})
    ->ArgsProduct({{2048}, {512, 1024}, {64, 480, 4096}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
