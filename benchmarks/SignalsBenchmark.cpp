// What handing a signal on costs: a copy of its handle and a place in the queue, at two lengths. Both
// times are the same when no sample is copied; the deep copy beside them shows what a copy would cost.
#include <benchmark/benchmark.h>

#include "DspCore/SignalQueue.h"

namespace {

using zevrant::Signal32;

void copyHandle(benchmark::State& state) {
    const Signal32 signal(2, static_cast<int>(state.range(0)), 1.0f);
    for (auto _ : state) {
        Signal32 copy = signal;
        benchmark::DoNotOptimize(copy.data.get());
    }
}

void copySamples(benchmark::State& state) {
    const Signal32 signal(2, static_cast<int>(state.range(0)), 1.0f);
    for (auto _ : state) {
        Signal32 copy = signal;
        copy.ensureUnique();
        benchmark::DoNotOptimize(copy.data.get());
    }
}

void addToQueueAndSkip(benchmark::State& state) {
    const Signal32 signal(2, static_cast<int>(state.range(0)), 1.0f);
    zevrant::SignalQueue<Signal32> queue;
    queue.add(signal);
    for (auto _ : state) {
        queue.add(signal);
        queue.skip(signal.numOfSamples);
        benchmark::DoNotOptimize(queue.numOfSamples);
    }
}

BENCHMARK(copyHandle)->Arg(64)->Arg(65536);
BENCHMARK(addToQueueAndSkip)->Arg(64)->Arg(65536);
BENCHMARK(copySamples)->Arg(64)->Arg(65536);

}  // namespace
