#pragma once

#include <cstdlib>
#include <vector>

#include "neural/BoundedValue.h"

// What each layer computes, told over a whole sequence of slices at once: sums over absolute time with zeros
// before the start, no ring, no queue, no state. The streaming layers have to come to the same values.
namespace zevrant::test {

// [numOfSlices, numOfFrequencies, numOfChannels]
struct Sequence {
    int numOfSlices = 0;
    int numOfFrequencies = 0;
    int numOfChannels = 0;
    std::vector<Bounded> values;

    Sequence() = default;
    Sequence(int slices, int frequencies, int channels)
        : numOfSlices(slices),
          numOfFrequencies(frequencies),
          numOfChannels(channels),
          values(static_cast<std::size_t>(slices) * frequencies * channels) {}

    Bounded& at(int t, int f, int c) {
        return values[(static_cast<std::size_t>(t) * numOfFrequencies + f) * numOfChannels + c];
    }
    const Bounded& at(int t, int f, int c) const { return const_cast<Sequence*>(this)->at(t, f, c); }

    // Silence before the start of the stream and outside the band.
    Bounded padded(int t, int f, int c) const {
        return t < 0 || f < 0 || f >= numOfFrequencies ? Bounded() : at(t, f, c);
    }
};

// Weights as a record holds them: shape and values, row-major.
struct Weights {
    std::vector<int> shape;
    std::vector<float> values;

    bool empty() const { return values.empty(); }
    int dimension(std::size_t axis) const { return axis < shape.size() ? shape[axis] : 0; }
    double at(int i) const { return values[static_cast<std::size_t>(i)]; }
    double at(int i, int j) const { return at(i * shape[1] + j); }
    double at(int i, int j, int k) const { return at((i * shape[1] + j) * shape[2] + k); }
    double at(int i, int j, int k, int l) const {
        return at(((i * shape[1] + j) * shape[2] + k) * shape[3] + l);
    }
};

// out[t][f][c] = function(t, f, c) in the order of time, so that a function may look back at what it
// returned.
template <class Function>
Sequence tabulate(int slices, int frequencies, int channels, Function function) {
    Sequence out(slices, frequencies, channels);
    for (int t = 0; t < slices; ++t)
        for (int f = 0; f < frequencies; ++f)
            for (int c = 0; c < channels; ++c) out.at(t, f, c) = function(t, f, c);
    return out;
}

template <class Function>
Sequence mapValues(const Sequence& in, Function function) {
    Sequence out = in;
    for (Bounded& value : out.values) value = function(value);
    return out;
}

inline Bounded relu(Bounded x) {
    return max(x, 0.0);
}
inline Bounded leakyRelu(Bounded x, float alpha) {
    return x.value > 0.0 ? x : x * Bounded(alpha);
}
inline Bounded elu(Bounded x) {
    return max(x, 0.0) + (exp(min(x, 0.0)) - 1.0);
}
inline Bounded sigmoid(Bounded x) {
    return Bounded(1.0) / (Bounded(1.0) + exp(Bounded(0.0) - min(max(x, -10.0), 10.0)));
}
inline Bounded hardSigmoid(Bounded x) {
    return min(max(x / Bounded(6.0) + 0.5, 0.0), 1.0);
}
inline Bounded softplus(Bounded x) {
    return log(Bounded(1.0) + exp(x));
}

// How far a centred kernel reaches below the first output, rounded towards zero.
inline int reachOf(int kernelFrequency, int frequencyStride) {
    return (kernelFrequency - frequencyStride) / 2;
}

struct ConvolutionSettings {
    int timeStride = 1;
    int frequencyStride = 1;
    int timeDilation = 1;
    int timeOffset = 0;
};

// weights [kernelTime, kernelFrequency, inputs, outputs]; inputs = 1 over several channels is channel-wise,
// each input channel standing for outputs / channels of them.
inline Sequence convolve(const Sequence& in, const Weights& weights, const Weights& bias,
                         const ConvolutionSettings& settings) {
    const int kernelTime = weights.dimension(0), kernelFrequency = weights.dimension(1);
    const int inputs = weights.dimension(2), outputs = weights.dimension(3);
    const bool channelWise = inputs == 1 && in.numOfChannels != 1;
    const int reach = reachOf(kernelFrequency, settings.frequencyStride);
    std::vector<int> times;
    for (int t = 0; t < in.numOfSlices; ++t)
        if (t >= settings.timeOffset && (t - settings.timeOffset) % settings.timeStride == 0)
            times.push_back(t);
    return tabulate(static_cast<int>(times.size()), in.numOfFrequencies / settings.frequencyStride, outputs,
                    [&](int i, int f, int o) {
                        Bounded sum = bias.empty() ? 0.0 : bias.at(o);
                        for (int r = 0; r < kernelTime; ++r)
                            for (int k = 0; k < kernelFrequency; ++k) {
                                const int t = times[static_cast<std::size_t>(i)] -
                                              settings.timeDilation * (kernelTime - 1 - r);
                                const int from = f * settings.frequencyStride + k - reach;
                                if (channelWise) {
                                    const int c = o / (outputs / in.numOfChannels);
                                    sum.addProduct(in.padded(t, from, c), weights.at(r, k, 0, o));
                                } else {
                                    for (int c = 0; c < inputs; ++c)
                                        sum.addProduct(in.padded(t, from, c), weights.at(r, k, c, o));
                                }
                            }
                        return sum;
                    });
}

// weights [kernelTime, kernelFrequency, outputs, inputs]; a single kernel output over several channels is
// channel-wise. Input slice t adds its kernel row r to output slice timeStride * t + r.
inline Sequence convolveTransposed(const Sequence& in, const Weights& weights, const Weights& bias,
                                   int channels, int timeStride, int frequencyStride, int timeOffset) {
    const int kernelTime = weights.dimension(0), kernelFrequency = weights.dimension(1);
    const int inputs = weights.dimension(3);
    const bool channelWise = weights.dimension(2) == 1 && channels != 1;
    const int reach = reachOf(kernelFrequency, frequencyStride);
    const int slices = std::max(in.numOfSlices * timeStride - timeOffset, 0);
    return tabulate(slices, in.numOfFrequencies * frequencyStride, channels, [&](int i, int f, int o) {
        Bounded sum;
        for (int r = 0; r < kernelTime; ++r) {
            const int stretched = i + timeOffset - r;
            if (stretched < 0 || stretched % timeStride != 0 || stretched / timeStride >= in.numOfSlices)
                continue;
            for (int k = 0; k < kernelFrequency; ++k) {
                const int from = f + reach - k;
                if (from < 0 || from % frequencyStride != 0) continue;
                const int t = stretched / timeStride, row = from / frequencyStride;
                if (channelWise)
                    sum += in.padded(t, row, o) * weights.at(r, k, 0, o);
                else
                    for (int c = 0; c < inputs; ++c) sum += in.padded(t, row, c) * weights.at(r, k, o, c);
            }
        }
        return bias.empty() ? sum : sum + bias.at(o);
    });
}

// Sets of slices meet by their order of arrival, so the shortest sequence decides.
inline int shortestOf(const std::vector<const Sequence*>& inputs) {
    int slices = inputs.front()->numOfSlices;
    for (const Sequence* input : inputs) slices = std::min(slices, input->numOfSlices);
    return slices;
}

inline Sequence concatenate(const std::vector<const Sequence*>& inputs) {
    int channels = 0;
    for (const Sequence* input : inputs) channels += input->numOfChannels;
    return tabulate(shortestOf(inputs), inputs.front()->numOfFrequencies, channels, [&](int t, int f, int c) {
        auto input = inputs.begin();
        while (c >= (*input)->numOfChannels) c -= (*input++)->numOfChannels;
        return (*input)->at(t, f, c);
    });
}

inline Bounded combine(int operation, Bounded r, Bounded x) {
    switch (operation) {
        case 0:
            return r * x;
        case 1:
            return x / r;
        case 2:
            return r + x;
        case 3:
            return x - r;
        default:
            return r;
    }
}

inline Sequence combineAll(int operation, const std::vector<const Sequence*>& inputs) {
    const Sequence& first = *inputs.front();
    return tabulate(shortestOf(inputs), first.numOfFrequencies, first.numOfChannels,
                    [&](int t, int f, int c) {
                        Bounded r = first.at(t, f, c);
                        for (std::size_t i = 1; i < inputs.size(); ++i)
                            r = combine(operation, r, inputs[i]->at(t, f, c));
                        return r;
                    });
}

// The root mean square over all channels from frequency row `first` on, `rows` of them.
inline Bounded rmsOf(const Sequence& in, int t, int first, int rows) {
    Bounded sum;
    for (int f = first; f < first + rows; ++f)
        for (int c = 0; c < in.numOfChannels; ++c) sum += in.at(t, f, c) * in.at(t, f, c);
    return sqrt(sum / Bounded(static_cast<double>(rows) * in.numOfChannels));
}

constexpr double silenceGuard = 1e-12;

inline Sequence normalise(const Sequence& in, int mode, const Weights& gain, const Weights& offset) {
    return tabulate(in.numOfSlices, in.numOfFrequencies, in.numOfChannels, [&](int t, int f, int c) {
        Bounded x = in.at(t, f, c);
        if (mode == 1) x = x * (Bounded(1.0) / (rmsOf(in, t, f, 1) + silenceGuard));
        x = x * gain.at(c);
        return offset.empty() ? x : x + offset.at(c);
    });
}

// levelWeights[0] meets the newest level, [1] the oldest of levelCount, the last one that before the newest.
// Time before the stream has the level of the first slice.
inline Sequence preNormalise(const Sequence& in, const Weights& levelWeights) {
    const int levelCount = levelWeights.dimension(0);
    std::vector<Bounded> scales;
    for (int t = 0; t < in.numOfSlices; ++t) {
        Bounded sum;
        for (int k = 0; k < levelCount; ++k) {
            const int when = k == 0 ? t : t - levelCount + k;
            sum += rmsOf(in, std::max(when, 0), 0, in.numOfFrequencies) * levelWeights.at(k);
        }
        scales.push_back(Bounded(1.0) / (sum + silenceGuard));
    }
    return tabulate(in.numOfSlices, in.numOfFrequencies, in.numOfChannels, [&](int t, int f, int c) {
        return in.at(t, f, c) * scales[static_cast<std::size_t>(t)];
    });
}

inline Sequence followLevel(const Sequence& in, float attack, float release, float epsilon,
                            Bounded levelScale) {
    std::vector<Bounded> scales;
    Bounded level;
    for (int t = 0; t < in.numOfSlices; ++t) {
        const Bounded m = rmsOf(in, t, 0, in.numOfFrequencies) * levelScale;
        const Bounded c = m.value > level.value ? attack : release;
        level = (Bounded(1.0) - c) * m + level * c;
        scales.push_back(Bounded(1.0) / (level + epsilon));
    }
    return tabulate(in.numOfSlices, in.numOfFrequencies, in.numOfChannels, [&](int t, int f, int c) {
        return in.at(t, f, c) * scales[static_cast<std::size_t>(t)];
    });
}

// weights [F, F, C]: output frequency, input frequency, channel
inline Sequence mixFrequencies(const Sequence& in, const Weights& weights, const Weights& bias) {
    const int F = in.numOfFrequencies, C = in.numOfChannels;
    return tabulate(in.numOfSlices, F, C, [&](int t, int o, int c) {
        Bounded sum;
        for (int i = 0; i < F; ++i) sum.addProduct(in.at(t, i, c), weights.at((o * F + i) * C + c));
        return bias.empty() ? sum : sum + bias.at(o * C + c);
    });
}

// The time tap before the last meets the oldest slice, the last one the newest. The centre of the frequency
// taps comes before the others.
inline Sequence filterSeparably(const Sequence& in, const Weights& timeKernel,
                                const Weights& frequencyKernel) {
    const int taps = timeKernel.dimension(0), width = frequencyKernel.dimension(0);
    const int centre = (width - 1) / 2, dropped = (taps + 1) / 2 - 1;
    const Sequence mid =
        tabulate(in.numOfSlices, in.numOfFrequencies, in.numOfChannels, [&](int t, int f, int c) {
            Bounded sum;
            for (int age = 1; age < taps; ++age)
                sum.addProduct(in.padded(t - age, f, c), timeKernel.at(age - 1));
            sum.addProduct(in.at(t, f, c), timeKernel.at(taps - 1));
            return sum;
        });
    return tabulate(std::max(in.numOfSlices - dropped, 0), in.numOfFrequencies, in.numOfChannels,
                    [&](int t, int f, int c) {
                        Bounded sum;
                        sum.addProduct(mid.at(t + dropped, f, c), frequencyKernel.at(centre));
                        for (int j = 0; j < width; ++j)
                            if (j != centre)
                                sum.addProduct(mid.padded(t + dropped, f + centre - j, c),
                                               frequencyKernel.at(j));
                        return sum;
                    });
}

// channelMatrix [C, C]: input, output; timeWeights [H, C] or empty; positionBias [F, C] or empty
inline Sequence attend(const Sequence& in, const Weights& channelMatrix, const Weights& timeWeights,
                       const Weights& positionBias, int startDelay) {
    const int C = in.numOfChannels, H = timeWeights.dimension(0);
    const Sequence mid =
        timeWeights.empty() ? in : tabulate(in.numOfSlices, in.numOfFrequencies, C, [&](int t, int f, int c) {
            Bounded sum;
            for (int u = 0; u < H; ++u)
                sum.addProduct(in.padded(t - (H - 1 - u), f, c), timeWeights.at(u, c));
            return sum;
        });
    return tabulate(std::max(in.numOfSlices - startDelay, 0), in.numOfFrequencies, C,
                    [&](int t, int f, int o) {
                        Bounded sum = positionBias.empty() ? 0.0 : positionBias.at(f, o);
                        for (int c = 0; c < C; ++c)
                            sum.addProduct(mid.at(t + startDelay, f, c), channelMatrix.at(c, o));
                        return sum;
                    });
}

struct Band {
    int start = 0;
    Weights taps;  // [n]
};

inline Sequence rescaleFrequencies(const Sequence& in, const std::vector<Band>& bands) {
    return tabulate(in.numOfSlices, static_cast<int>(bands.size()), in.numOfChannels,
                    [&](int t, int o, int c) {
                        const Band& band = bands[static_cast<std::size_t>(o)];
                        Bounded sum;
                        for (int k = 0; k < band.taps.dimension(0); ++k) {
                            // A run past the band continues in the next slice.
                            const int bin = t * in.numOfFrequencies + band.start + k;
                            sum.addProduct(in.at(bin / in.numOfFrequencies, bin % in.numOfFrequencies, c),
                                           band.taps.at(k));
                        }
                        return sum;
                    });
}

}  // namespace zevrant::test
