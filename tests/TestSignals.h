// Signals that tests send through the engine, and what they compare of them.
#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <random>
#include <type_traits>
#include <vector>

#include "DspCore/AudioFormat.h"
#include "DspCore/Signals.h"

namespace zevrant {

inline std::vector<float> noise(std::size_t count, unsigned seed, float level = 1.0f) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> uniform(-level, level);
    std::vector<float> values(count);
    for (float& value : values) value = uniform(random);
    return values;
}

// Noise in every part of every element.
template <class S = Signal32>
S noiseSignal(int numOfChannels, int numOfSamples, unsigned seed, float level = 1.0f) {
    S signal(numOfChannels, numOfSamples);
    for (int c = 0; c < numOfChannels; ++c) {
        auto* row = signal.getWriteChannelPtr(c);
        const std::size_t perElement = sizeof(*row) / sizeof(float);
        const auto values = noise(perElement * static_cast<std::size_t>(numOfSamples),
                                  seed + 1000 * static_cast<unsigned>(c), level);
        std::copy(values.begin(), values.end(), reinterpret_cast<float*>(row));
    }
    return signal;
}

inline ComplexSignal32 noiseSpectrum(int numOfChannels, int numOfBins, unsigned seed, float level = 1.0f) {
    return noiseSignal<ComplexSignal32>(numOfChannels, numOfBins, seed, level);
}

// What a signal shows, [channel][sample].
template <class S>
auto rowsOf(const S& signal) {
    using T = std::remove_cvref_t<decltype(*signal.getReadChannelPtr(0))>;
    std::vector<std::vector<T>> rows;
    for (int c = 0; c < signal.numOfChannels; ++c) {
        const T* row = signal.numOfSamples > 0 ? signal.getReadChannelPtr(c) : nullptr;
        rows.emplace_back(row, row + signal.numOfSamples);
    }
    return rows;
}

inline AudioFormat makeFormat(int numOfChannels, double sampleRate = 48000.0) {
    AudioFormat format;
    format.createDefaultChannelMapping(numOfChannels);
    format.sampleRate = sampleRate;
    return format;
}

// The definition: the sum over the first length values of row with e^(sign j 2 pi k n / length).
template <class T>
std::vector<std::complex<double>> calcDft(const T* row, int length, double sign) {
    std::vector<std::complex<double>> roots, result(static_cast<std::size_t>(length));
    for (int n = 0; n < length; ++n) roots.push_back(std::polar(1.0, sign * 2.0 * M_PI * n / length));
    for (int k = 0; k < length; ++k)
        for (int n = 0; n < length; ++n)
            result[static_cast<std::size_t>(k)] +=
                std::complex<double>(row[n]) * roots[static_cast<std::size_t>(std::int64_t{k} * n % length)];
    return result;
}

}  // namespace zevrant
