// Each vector operation beside its plain loop on the same buffers. Read "speed": the loop's time over
// ours, so 1 is as fast as the loop and 3 is three times as fast. The loops know the processor that
// they are compiled for; ours learn it at run time, which is the cost that the short rows show.
#include <benchmark/benchmark.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "DspCore/Signals.h"
#include "DspCore/VectorOperations.h"
#include "Interleaved.h"
#include "PlainLoops.h"

namespace vo = zevrant::vo;

namespace {

using Complex = std::complex<float>;

// Rows of a signal, as the engine has them: each starts on a cache line.
struct Buffers {
    explicit Buffers(int n) : reals(4, n), wides(3, n), spectra(3, n) {
        std::mt19937 engine(1);
        std::uniform_real_distribution<float> uniform(0.1f, 2.0f);
        for (int i = 0; i < n; ++i) {
            for (int c = 0; c < 4; ++c) reals.getWriteChannelPtr(c)[i] = uniform(engine);
            for (int c = 0; c < 3; ++c) wides.getWriteChannelPtr(c)[i] = double{uniform(engine)};
            for (int c = 0; c < 3; ++c)
                spectra.getWriteChannelPtr(c)[i] = {uniform(engine), -uniform(engine)};
        }
        a = reals.getWriteChannelPtr(0), b = reals.getWriteChannelPtr(1), out = reals.getWriteChannelPtr(2);
        wideA = wides.getWriteChannelPtr(0), wideB = wides.getWriteChannelPtr(1);
        wideOut = wides.getWriteChannelPtr(2);
        complexA = spectra.getWriteChannelPtr(0), complexB = spectra.getWriteChannelPtr(1);
        complexOut = spectra.getWriteChannelPtr(2);
    }

    zevrant::Signal32 reals;
    zevrant::Signal64 wides;
    zevrant::ComplexSignal32 spectra;
    float *a, *b, *out;
    double *wideA, *wideB, *wideOut;
    Complex *complexA, *complexB, *complexOut;
};

using Call = std::function<void(Buffers&, int n)>;

void compare(benchmark::State& state, const Call& ours, const Call& loop) {
    const int n = static_cast<int>(state.range(0));
    const int numOfCalls = std::max(1, (1 << 17) / n);
    Buffers buffers(n);
    ShortestTime oursTime, loopTime;
    for (auto _ : state) {
        oursTime.add(numOfCalls, [&] {
            ours(buffers, n);
            benchmark::ClobberMemory();
        });
        loopTime.add(numOfCalls, [&] {
            loop(buffers, n);
            benchmark::ClobberMemory();
        });
    }
    state.counters["ours_ns"] = 1e3 * oursTime.microseconds();
    state.counters["loop_ns"] = 1e3 * loopTime.microseconds();
    state.counters["speed"] = loopTime.microseconds() / oursTime.microseconds();
}

// The same call text on vo and on the plain loops.
#define ZEVRANT_COMPARE(name, call)    \
    {                                  \
        name,                          \
            [](Buffers& r, int n) {    \
                using namespace vo;    \
                (void)r, (void)n;      \
                call;                  \
            },                         \
            [](Buffers& r, int n) {    \
                using namespace plain; \
                (void)r, (void)n;      \
                call;                  \
            }                          \
    }

struct Operation {
    const char* name;
    Call ours, loop;
};

const Operation kOperations[] = {
    ZEVRANT_COMPARE("setToValue", setToValue(0.5f, r.out, n)),
    ZEVRANT_COMPARE("setToValue/complex", setToValue(Complex(0.5f, 1.0f), r.complexOut, n)),
    ZEVRANT_COMPARE("setToZero", setToZero(r.out, n)),
    ZEVRANT_COMPARE("copy", copy(r.a, r.out, n)),
    ZEVRANT_COMPARE("add", add(r.a, r.b, r.out, n)),
    ZEVRANT_COMPARE("add/complex", add(r.complexA, r.complexB, r.complexOut, n)),
    ZEVRANT_COMPARE("subtract", subtract(r.a, r.b, r.out, n)),
    ZEVRANT_COMPARE("multiply", multiply(r.a, r.b, r.out, n)),
    ZEVRANT_COMPARE("multiply/complex", multiply(r.complexA, r.complexB, r.complexOut, n)),
    ZEVRANT_COMPARE("divide", divide(r.a, r.b, r.out, n)),
    ZEVRANT_COMPARE("multiplyAndAdd", multiplyAndAdd(r.a, r.b, r.out, n)),
    ZEVRANT_COMPARE("constantAdd", constantAdd(r.a, 0.5f, r.out, n)),
    ZEVRANT_COMPARE("constantMultiply", constantMultiply(r.a, 0.5f, r.out, n)),
    ZEVRANT_COMPARE("constantMultiply/complex",
                    constantMultiply(r.complexA, Complex(0.5f, 1.0f), r.complexOut, n)),
    ZEVRANT_COMPARE("constantMultiplyAndAdd", constantMultiplyAndAdd(r.a, 0.5f, r.out, n)),
    ZEVRANT_COMPARE("lowerBound", lowerBound(r.a, r.out, 0.5f, n)),
    ZEVRANT_COMPARE("bound", bound(r.a, r.out, 0.5f, 1.5f, n)),
    ZEVRANT_COMPARE("convert32To64", convert32To64(r.a, r.wideOut, n)),
    ZEVRANT_COMPARE("convert64To32", convert64To32(r.wideA, r.out, n)),
    ZEVRANT_COMPARE("decimate/2", decimate(r.a, n, r.out, 2, 0)),
    ZEVRANT_COMPARE("decimate/3", decimate(r.a, n, r.out, 3, 1)),
    ZEVRANT_COMPARE("dotProduct", benchmark::DoNotOptimize(dotProduct(r.a, r.b, n))),
    ZEVRANT_COMPARE("dotProduct/double", benchmark::DoNotOptimize(dotProduct(r.wideA, r.wideB, n))),
    ZEVRANT_COMPARE("calcRms", benchmark::DoNotOptimize(calcRms(r.a, n))),
    ZEVRANT_COMPARE("exp", exp(r.a, r.out, n)),
    ZEVRANT_COMPARE("ln", ln(r.a, r.out, n)),
    ZEVRANT_COMPARE("cos", cos(r.a, r.out, n)),
    ZEVRANT_COMPARE("pow", pow(r.a, 1.117f, r.out, n)),
    ZEVRANT_COMPARE("calcMagnitudes", calcMagnitudes(r.complexA, r.out, n)),
    ZEVRANT_COMPARE("calcPhases", calcPhases(r.complexA, r.out, n)),
    ZEVRANT_COMPARE("convertPolarToCartesian", convertPolarToCartesian(r.a, r.b, r.complexOut, n)),
};

const bool kRegistered = [] {
    for (const Operation& operation : kOperations)
        for (const int n : {16, 64, 1024, 65536})
            benchmark::RegisterBenchmark(operation.name, compare, operation.ours, operation.loop)
                ->Arg(n)
                ->Unit(benchmark::kMillisecond);
    return true;
}();

}  // namespace
