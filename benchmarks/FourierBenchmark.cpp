// A forward and an inverse real transform of one row: ours, bare PFFFT calls on the same buffers, and
// FFTW in single precision with measured plans. Read the ratios: over_pffft is what our own work around
// PFFFT costs (the place of the Nyquist value, an input that stays as it is), over_fftw below 1 means
// faster than FFTW.
#include <benchmark/benchmark.h>
#include <fftw3.h>
#include <pffft.h>

#include <algorithm>
#include <complex>
#include <random>

#include "DspCore/FourierTransform.h"
#include "Interleaved.h"

namespace {

void forwardAndInverseReal(benchmark::State& state) {
    const int size = static_cast<int>(state.range(0));
    const int numOfCalls = (1 << 20) / size;
    zevrant::Signal32 in(1, size), out(1, size);
    zevrant::ComplexSignal32 spectrum(1, size / 2 + 1);
    std::mt19937 engine(1);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    for (int n = 0; n < size; ++n) in.getWriteChannelPtr(0)[n] = uniform(engine);
    float* inRow = in.getWriteChannelPtr(0);
    float* outRow = out.getWriteChannelPtr(0);
    auto* bins = reinterpret_cast<float*>(spectrum.getWriteChannelPtr(0));

    zevrant::FourierTransform transform;
    PFFFT_Setup* setup = pffft_new_setup(size, PFFFT_REAL);
    auto* work = static_cast<float*>(pffft_aligned_malloc(sizeof(float) * static_cast<std::size_t>(size)));
    zevrant::Signal32 fftwIn(1, size);
    float* fftwRow = fftwIn.getWriteChannelPtr(0);
    auto* fftwBins = reinterpret_cast<fftwf_complex*>(bins);
    // FFTW's multi-step inverses use their input as work space unless told otherwise; ours keep it too.
    fftwf_plan forward = fftwf_plan_dft_r2c_1d(size, fftwRow, fftwBins, FFTW_MEASURE | FFTW_PRESERVE_INPUT);
    fftwf_plan inverse = fftwf_plan_dft_c2r_1d(size, fftwBins, outRow, FFTW_MEASURE | FFTW_PRESERVE_INPUT);
    std::copy_n(inRow, size, fftwRow);  // measuring has overwritten it

    ShortestTime ours, bare, fftw;
    for (auto _ : state) {
        ours.add(numOfCalls, [&] {
            transform.forwardReal(in, spectrum);
            transform.inverseReal(spectrum, out);
            benchmark::ClobberMemory();
        });
        bare.add(numOfCalls, [&] {
            pffft_transform_ordered(setup, inRow, bins, work, PFFFT_FORWARD);
            pffft_transform_ordered(setup, bins, outRow, work, PFFFT_BACKWARD);
            benchmark::ClobberMemory();
        });
        fftw.add(numOfCalls, [&] {
            fftwf_execute(forward);
            fftwf_execute(inverse);
            benchmark::ClobberMemory();
        });
    }
    state.counters["ours_us"] = ours.microseconds();
    state.counters["pffft_us"] = bare.microseconds();
    state.counters["fftw_us"] = fftw.microseconds();
    state.counters["over_pffft"] = ours.microseconds() / bare.microseconds();
    state.counters["over_fftw"] = ours.microseconds() / fftw.microseconds();
    fftwf_destroy_plan(forward);
    fftwf_destroy_plan(inverse);
    pffft_aligned_free(work);
    pffft_destroy_setup(setup);
}

BENCHMARK(forwardAndInverseReal)->RangeMultiplier(2)->Range(512, 8192)->Unit(benchmark::kMillisecond);

}  // namespace
