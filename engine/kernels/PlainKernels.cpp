#include "kernels/PlainKernels.h"

#include <algorithm>
#include <cmath>

namespace zevrant::kernels::plain {

namespace {

// The taps that fall into the band, for a tap 0 at frequency p.
struct Taps {
    Taps(std::ptrdiff_t p, std::ptrdiff_t numOfTaps, std::ptrdiff_t numOfFrequencies)
        : begin(std::max<std::ptrdiff_t>(-p, 0)), end(std::min(numOfFrequencies - p, numOfTaps)) {}
    std::ptrdiff_t begin, end;
};

void start(const Convolution& shape, const float* first, std::ptrdiff_t firstStep, float* out) {
    for (std::ptrdiff_t f = 0; f < shape.outputFrequencies; ++f)
        for (std::ptrdiff_t o = 0; o < shape.numOfOutputs; ++o)
            out[f * shape.numOfOutputs + o] = first ? first[f * firstStep + o] : 0.0f;
}

}  // namespace

void convolve(const Convolution& shape, const float* const* slices, std::ptrdiff_t rowStep,
              const float* weights, const float* first, std::ptrdiff_t firstStep, float* out) {
    start(shape, first, firstStep, out);
    for (std::ptrdiff_t r = 0; r < shape.numOfSlices; ++r)
        for (std::ptrdiff_t f = 0; f < shape.outputFrequencies; ++f) {
            const std::ptrdiff_t p = shape.start + f * shape.frequencyStride;
            const Taps taps(p, shape.numOfTaps, shape.inputFrequencies);
            for (std::ptrdiff_t k = taps.begin; k < taps.end; ++k)
                for (std::ptrdiff_t c = 0; c < shape.numOfInputs; ++c) {
                    const float x = slices[r][(p + k) * rowStep + c];
                    const float* w =
                        weights + ((r * shape.numOfTaps + k) * shape.numOfInputs + c) * shape.numOfOutputs;
                    for (std::ptrdiff_t o = 0; o < shape.numOfOutputs; ++o) {
                        float& sum = out[f * shape.numOfOutputs + o];
                        sum = std::fma(x, w[o], sum);
                    }
                }
        }
}

void convolveChannels(const Convolution& shape, const float* const* slices, const float* weights,
                      const float* first, std::ptrdiff_t firstStep, float* out) {
    const std::ptrdiff_t numOfChannels = shape.numOfOutputs;
    start(shape, first, firstStep, out);
    for (std::ptrdiff_t r = 0; r < shape.numOfSlices; ++r)
        for (std::ptrdiff_t f = 0; f < shape.outputFrequencies; ++f) {
            const std::ptrdiff_t p = shape.start + f * shape.frequencyStride;
            const Taps taps(p, shape.numOfTaps, shape.inputFrequencies);
            for (std::ptrdiff_t k = taps.begin; k < taps.end; ++k)
                for (std::ptrdiff_t c = 0; c < numOfChannels; ++c) {
                    float& sum = out[f * numOfChannels + c];
                    sum = std::fma(slices[r][(p + k) * numOfChannels + c],
                                   weights[(r * shape.numOfTaps + k) * numOfChannels + c], sum);
                }
        }
}

void convolveTransposed(const TransposedConvolution& shape, const float* in, const float* weights,
                        float* const* slots) {
    for (std::ptrdiff_t r = 0; r < shape.numOfSlots; ++r)
        for (std::ptrdiff_t i = 0; i < shape.inputFrequencies; ++i) {
            const std::ptrdiff_t p = shape.start + i * shape.frequencyStride;
            const Taps taps(p, shape.numOfTaps, shape.outputFrequencies);
            for (std::ptrdiff_t k = taps.begin; k < taps.end; ++k)
                for (std::ptrdiff_t o = 0; o < shape.numOfOutputs; ++o) {
                    const float* w =
                        weights + ((r * shape.numOfTaps + k) * shape.numOfOutputs + o) * shape.numOfInputs;
                    float sum = 0;
                    for (std::ptrdiff_t c = 0; c < shape.numOfInputs; ++c)
                        sum = std::fma(in[i * shape.numOfInputs + c], w[c], sum);
                    slots[r][(p + k) * shape.numOfOutputs + o] += sum;
                }
        }
}

void convolveTransposedChannels(const TransposedConvolution& shape, const float* in, const float* weights,
                                float* const* slots) {
    const std::ptrdiff_t numOfChannels = shape.numOfOutputs;
    for (std::ptrdiff_t r = 0; r < shape.numOfSlots; ++r)
        for (std::ptrdiff_t i = 0; i < shape.inputFrequencies; ++i) {
            const std::ptrdiff_t p = shape.start + i * shape.frequencyStride;
            const Taps taps(p, shape.numOfTaps, shape.outputFrequencies);
            for (std::ptrdiff_t k = taps.begin; k < taps.end; ++k)
                for (std::ptrdiff_t o = 0; o < numOfChannels; ++o) {
                    float& sum = slots[r][(p + k) * numOfChannels + o];
                    sum = std::fma(in[i * numOfChannels + o],
                                   weights[(r * shape.numOfTaps + k) * numOfChannels + o], sum);
                }
        }
}

void multiplyDense(const float* in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
                   const float* weights, float* out) {
    std::fill_n(out, numOfFrequencies * numOfChannels, 0.0f);
    for (std::ptrdiff_t o = 0; o < numOfFrequencies; ++o)
        for (std::ptrdiff_t i = 0; i < numOfFrequencies; ++i)
            for (std::ptrdiff_t c = 0; c < numOfChannels; ++c) {
                float& sum = out[o * numOfChannels + c];
                sum = std::fma(in[i * numOfChannels + c], *weights++, sum);
            }
}

void combineRows(const float* const* rows, const float* factors, std::ptrdiff_t numOfRows,
                 std::ptrdiff_t count, float* out) {
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        float sum = rows[0][i] * factors[0];
        for (std::ptrdiff_t k = 1; k < numOfRows; ++k) sum = std::fma(rows[k][i], factors[k], sum);
        out[i] = sum;
    }
}

void rescaleBands(const float* in, std::ptrdiff_t numOfChannels, std::ptrdiff_t numOfBands, const int* starts,
                  const int* counts, const float* const* factors, float* out) {
    for (std::ptrdiff_t b = 0; b < numOfBands; ++b)
        for (std::ptrdiff_t c = 0; c < numOfChannels; ++c) {
            const float* run = in + starts[b] * numOfChannels + c;
            float sum = run[0] * factors[b][0];
            for (std::ptrdiff_t k = 1; k < counts[b]; ++k)
                sum = std::fma(run[k * numOfChannels], factors[b][k], sum);
            out[b * numOfChannels + c] = sum;
        }
}

}  // namespace zevrant::kernels::plain
