#include "LayerLoops.h"

#include <algorithm>

namespace plain {

namespace {

#ifdef __AVX512F__
constexpr int vectorBytes = 64, chains = 24;
#else
constexpr int vectorBytes = 32, chains = 12;
#endif
typedef float Vector __attribute__((vector_size(vectorBytes)));
constexpr int lanes = vectorBytes / int(sizeof(float));

}  // namespace

void convolve(const zevrant::kernels::Convolution& shape, const float* const* slices, const float* weights,
              float* out) {
    const auto numOfOutputs = shape.numOfOutputs;
    std::fill_n(out, shape.outputFrequencies * numOfOutputs, 0.0f);
    for (std::ptrdiff_t r = 0; r < shape.numOfSlices; ++r)
        for (std::ptrdiff_t f = 0; f < shape.outputFrequencies; ++f) {
            const std::ptrdiff_t p = shape.start + f * shape.frequencyStride;
            const std::ptrdiff_t end = std::min(shape.inputFrequencies - p, shape.numOfTaps);
            for (std::ptrdiff_t k = std::max<std::ptrdiff_t>(-p, 0); k < end; ++k)
                for (std::ptrdiff_t c = 0; c < shape.numOfInputs; ++c) {
                    const float x = slices[r][(p + k) * shape.numOfInputs + c];
                    const float* w =
                        weights + ((r * shape.numOfTaps + k) * shape.numOfInputs + c) * numOfOutputs;
                    float* __restrict sums = out + f * numOfOutputs;
                    for (std::ptrdiff_t o = 0; o < numOfOutputs; ++o) sums[o] += x * w[o];
                }
        }
}

void convolveChannels(const zevrant::kernels::Convolution& shape, const float* const* slices,
                      const float* weights, float* out) {
    const auto numOfChannels = shape.numOfOutputs;
    std::fill_n(out, shape.outputFrequencies * numOfChannels, 0.0f);
    for (std::ptrdiff_t r = 0; r < shape.numOfSlices; ++r)
        for (std::ptrdiff_t f = 0; f < shape.outputFrequencies; ++f) {
            const std::ptrdiff_t p = shape.start + f * shape.frequencyStride;
            const std::ptrdiff_t end = std::min(shape.inputFrequencies - p, shape.numOfTaps);
            for (std::ptrdiff_t k = std::max<std::ptrdiff_t>(-p, 0); k < end; ++k) {
                const float* x = slices[r] + (p + k) * numOfChannels;
                const float* w = weights + (r * shape.numOfTaps + k) * numOfChannels;
                float* __restrict sums = out + f * numOfChannels;
                for (std::ptrdiff_t c = 0; c < numOfChannels; ++c) sums[c] += x[c] * w[c];
            }
        }
}

void convolveTransposed(const zevrant::kernels::TransposedConvolution& shape, const float* in,
                        const float* weights, float* const* slots) {
    for (std::ptrdiff_t r = 0; r < shape.numOfSlots; ++r)
        for (std::ptrdiff_t i = 0; i < shape.inputFrequencies; ++i) {
            const std::ptrdiff_t p = shape.start + i * shape.frequencyStride;
            const std::ptrdiff_t end = std::min(shape.outputFrequencies - p, shape.numOfTaps);
            for (std::ptrdiff_t k = std::max<std::ptrdiff_t>(-p, 0); k < end; ++k)
                for (std::ptrdiff_t o = 0; o < shape.numOfOutputs; ++o) {
                    const float* x = in + i * shape.numOfInputs;
                    const float* w =
                        weights + ((r * shape.numOfTaps + k) * shape.numOfOutputs + o) * shape.numOfInputs;
                    float sum = 0.0f;
#pragma omp simd reduction(+ : sum)
                    for (std::ptrdiff_t c = 0; c < shape.numOfInputs; ++c) sum += x[c] * w[c];
                    slots[r][(p + k) * shape.numOfOutputs + o] += sum;
                }
        }
}

void multiplyDense(const float* in, int numOfFrequencies, int numOfChannels, const float* weights,
                   float* __restrict out) {
    std::fill_n(out, numOfFrequencies * numOfChannels, 0.0f);
    for (int o = 0; o < numOfFrequencies; ++o, out += numOfChannels)
        for (int i = 0; i < numOfFrequencies; ++i, weights += numOfChannels)
            for (int c = 0; c < numOfChannels; ++c) out[c] += in[i * numOfChannels + c] * weights[c];
}

void rescale(const float* in, int numOfChannels, int numOfBands, int numOfTaps, const int* starts,
             const float* weights, float* __restrict out) {
    std::fill_n(out, numOfBands * numOfChannels, 0.0f);
    for (int b = 0; b < numOfBands; ++b, out += numOfChannels)
        for (int k = 0; k < numOfTaps; ++k, ++weights)
            for (int c = 0; c < numOfChannels; ++c)
                out[c] += in[(starts[b] + k) * numOfChannels + c] * *weights;
}

long long multiplyAndAddAtPeak() {
    constexpr int rounds = 4000;
    Vector sums[chains], a = {}, b = {};
    for (int v = 0; v < chains; ++v) sums[v] = Vector{} + float(v);
    asm volatile("" : "+v"(a), "+v"(b));
    for (int round = 0; round < rounds; ++round) {
#pragma GCC unroll 32
        for (int v = 0; v < chains; ++v) sums[v] += a * b;
        asm volatile("" : "+v"(a), "+v"(b));
    }
    for (Vector& sum : sums) asm volatile("" : : "v"(sum));
    return static_cast<long long>(rounds) * chains * lanes;
}

float readAll(const float* values, int count) {
    constexpr int width = 16;
    Vector sums[width] = {};
    const auto* vectors = reinterpret_cast<const Vector*>(values);
    for (int i = 0; i + width <= count / lanes; i += width) {
#pragma GCC unroll 16
        for (int v = 0; v < width; ++v) sums[v] += vectors[i + v];
    }
    for (int v = 1; v < width; ++v) sums[0] += sums[v];
    return sums[0][0];
}

}  // namespace plain
