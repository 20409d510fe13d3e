#include "PlainSeparation.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

namespace zevrant::plain {

namespace {

std::vector<double> makeHannWindow(int size) {
    std::vector<double> window(static_cast<std::size_t>(size));
    for (int i = 0; i < size; ++i)
        window[static_cast<std::size_t>(i)] = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * (i + 0.5) / size);
    return window;
}

std::vector<double> makeSynthesisWindow(const Framing& framing) {
    const std::vector<double> analysis = makeHannWindow(framing.size);
    if (!framing.isShort) return analysis;
    std::vector<double> window(analysis.size(), 0.0);
    const std::vector<double> middle = makeHannWindow(2 * framing.hop);
    const std::size_t start = (analysis.size() - middle.size()) / 2;
    for (std::size_t i = 0; i < middle.size(); ++i) window[start + i] = middle[i] / analysis[start + i];
    return window;
}

// Radix 2, in place: x[k] = sum over n of x[n] exp(sign * 2 pi i k n / size), unscaled.
void transform(std::vector<std::complex<double>>& x, double sign) {
    const std::size_t size = x.size();
    for (std::size_t i = 1, j = 0; i < size; ++i) {  // bit-reversed order
        std::size_t bit = size / 2;
        for (; j & bit; bit /= 2) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(x[i], x[j]);
    }
    for (std::size_t half = 1; half < size; half *= 2)
        for (std::size_t k = 0; k < half; ++k) {
            const auto factor =
                std::polar(1.0, sign * std::numbers::pi * static_cast<double>(k) / static_cast<double>(half));
            for (std::size_t i = k; i < size; i += 2 * half) {
                const auto odd = factor * x[i + half];
                x[i + half] = x[i] - odd;
                x[i] += odd;
            }
        }
}

int countFrames(std::size_t length, const Framing& framing) {
    return static_cast<int>(length) / framing.hop + 2;
}

// The place in the recording of a frame's first sample.
int getStart(int frame, const Framing& framing) {
    return frame * framing.hop - framing.size / 2;
}

Plane makePlane(const Plane& like) {
    return Plane(like.size(), std::vector<double>(like.empty() ? 0 : like[0].size()));
}

// result[t][f] = calc(a[t][f], b[t][f])
template <class Calc>
Plane combine(const Plane& a, const Plane& b, Calc calc) {
    Plane result = makePlane(a);
    for (std::size_t t = 0; t < a.size(); ++t)
        std::transform(a[t].begin(), a[t].end(), b[t].begin(), result[t].begin(), calc);
    return result;
}

Plane calcMeanMagnitude(const Spectrogram& stereo) {
    Plane magnitudes(stereo[0].size(), std::vector<double>(stereo[0][0].size()));
    for (std::size_t t = 0; t < magnitudes.size(); ++t)
        for (std::size_t f = 0; f < magnitudes[t].size(); ++f)
            magnitudes[t][f] = 0.5 * (std::abs(stereo[0][t][f]) + std::abs(stereo[1][t][f])) + 1e-5;
    return magnitudes;
}

Plane smoothPower(const Spectrogram& stereo) {
    return filterAlongTime(filterAlongFrequency(calcMeanPower(stereo), 3, calcMean), 3, calcMean);
}

Plane calcSubtractionMask(const Plane& power, const Plane& noise) {
    const auto calcGain = [](double all, double floor) {
        return all * all / (all * all + 2.25 * floor * floor);
    };
    return filterAlongTime(combine(power, noise, calcGain), 3, calcMean);
}

double calcWienerGain(double wanted, double unwanted) {
    return wanted * wanted / (wanted * wanted + unwanted * unwanted);
}

}  // namespace

Spectrogram analyse(const Channels& audio, const Framing& framing) {
    const std::vector<double> window = makeHannWindow(framing.size);
    Spectrogram result(audio.size());
    for (std::size_t c = 0; c < audio.size(); ++c)
        for (int frame = 0; frame < countFrames(audio[c].size(), framing); ++frame) {
            const int start = getStart(frame, framing), length = static_cast<int>(audio[c].size());
            std::vector<std::complex<double>> bins(window.size());
            for (int i = std::max(0, -start); i < framing.size && start + i < length; ++i) {
                const auto from = static_cast<std::size_t>(start + i), to = static_cast<std::size_t>(i);
                bins[to] = audio[c][from] * window[to];
            }
            transform(bins, -1.0);
            bins.resize(window.size() / 2 + 1);
            result[c].push_back(bins);
        }
    return result;
}

Channels synthesise(const Spectrogram& spectrogram, const Framing& framing, std::size_t length) {
    const std::vector<double> analysis = makeHannWindow(framing.size),
                              synthesis = makeSynthesisWindow(framing);
    Channels result(spectrogram.size(), std::vector<double>(length, 0.0));
    for (std::size_t c = 0; c < spectrogram.size(); ++c) {
        std::vector<double> weight(length, 0.0);
        for (std::size_t frame = 0; frame < spectrogram[c].size(); ++frame) {
            std::vector<std::complex<double>> bins = spectrogram[c][frame];
            for (std::size_t bin = bins.size() - 2; bin > 0; --bin) bins.push_back(std::conj(bins[bin]));
            transform(bins, 1.0);
            const int start = getStart(static_cast<int>(frame), framing);
            for (int i = std::max(0, -start); i < framing.size && start + i < static_cast<int>(length); ++i) {
                const auto from = static_cast<std::size_t>(i), to = static_cast<std::size_t>(start + i);
                result[c][to] += bins[from].real() / framing.size * synthesis[from];
                weight[to] += analysis[from] * synthesis[from];
            }
        }
        for (std::size_t i = 0; i < length; ++i) result[c][i] /= weight[i];
    }
    return result;
}

Channels applyMask(const Channels& audio, const Plane& mask, const Framing& framing) {
    Spectrogram spectrogram = analyse(audio, framing);
    for (auto& channel : spectrogram)
        for (std::size_t t = 0; t < channel.size(); ++t)
            for (std::size_t f = 0; f < channel[t].size(); ++f) channel[t][f] *= mask[t][f];
    return synthesise(spectrogram, framing, audio[0].size());
}

Plane filterAlongTime(const Plane& plane, int size, const Reduce& reduce) {
    Plane result = makePlane(plane);
    const int numOfFrames = static_cast<int>(plane.size());
    std::vector<double> values;
    for (int t = 0; t < numOfFrames; ++t)
        for (std::size_t f = 0; f < plane[0].size(); ++f) {
            values.clear();
            for (int u = std::max(0, t - size / 2); u <= std::min(numOfFrames - 1, t + size / 2); ++u)
                values.push_back(plane[static_cast<std::size_t>(u)][f]);
            result[static_cast<std::size_t>(t)][f] = reduce(values);
        }
    return result;
}

Plane filterAlongFrequency(const Plane& plane, int size, const Reduce& reduce) {
    Plane result = makePlane(plane);
    std::vector<double> values;
    for (std::size_t t = 0; t < plane.size(); ++t) {
        const int numOfBins = static_cast<int>(plane[t].size());
        for (int f = 0; f < numOfBins; ++f) {
            const int first = std::max(0, f - size / 2), last = std::min(numOfBins - 1, f + size / 2);
            values.assign(plane[t].begin() + first, plane[t].begin() + last + 1);
            result[t][static_cast<std::size_t>(f)] = reduce(values);
        }
    }
    return result;
}

double calcMean(std::vector<double>& values) {
    double sum = 0.0;
    for (double x : values) sum += x;
    return sum / static_cast<double>(values.size());
}

double calcHarmonicMean(std::vector<double>& values) {
    double sum = 0.0;
    for (double x : values) sum += 1.0 / x;
    return static_cast<double>(values.size()) / sum;
}

double calcMedian(std::vector<double>& values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

Plane calcHarmonicMask(const Spectrogram& stereo) {
    const Plane level = calcMeanMagnitude(stereo);
    const Plane harmonic = filterAlongTime(filterAlongTime(level, 9, calcHarmonicMean), 9, calcMean);
    const Plane percussive =
        filterAlongFrequency(filterAlongFrequency(level, 5, calcHarmonicMean), 7, calcMean);
    return combine(harmonic, percussive, calcWienerGain);
}

Plane calcHarmonicMaskByMedians(const Spectrogram& stereo, int sizeInTime, int sizeInFrequency) {
    const Plane level = calcMeanMagnitude(stereo);
    return combine(filterAlongTime(level, sizeInTime, calcMedian),
                   filterAlongFrequency(level, sizeInFrequency, calcMedian), calcWienerGain);
}

Plane calcCenterMask(const Spectrogram& stereo) {
    const std::size_t numOfFrames = stereo[0].size(), numOfBins = stereo[0][0].size();
    Plane mask(numOfFrames, std::vector<double>(numOfBins));
    for (std::size_t t = 0; t < numOfFrames; ++t)
        for (std::size_t f = 0; f < numOfBins; ++f) {
            double alike = 0.0, everything = 0.0;
            for (int offset : {-1, 0, 1}) {
                const std::size_t u = t + static_cast<std::size_t>(offset);  // wraps to past the end below 0
                if (u >= numOfFrames) continue;
                const double weight = offset == 0 ? 2.0 : 1.0;
                const std::complex<double> left = stereo[0][u][f], right = stereo[1][u][f];
                alike += weight * 2.0 * (left * std::conj(right)).real();
                everything += weight * (std::norm(left) + std::norm(right));
            }
            mask[t][f] = std::pow(std::max(alike, 0.0) / (everything + 1e-12), 3);
        }
    return mask;
}

Plane calcMeanPower(const Spectrogram& stereo) {
    Plane power(stereo[0].size(), std::vector<double>(stereo[0][0].size()));
    for (std::size_t t = 0; t < power.size(); ++t)
        for (std::size_t f = 0; f < power[t].size(); ++f)
            power[t][f] = 0.5 * (std::norm(stereo[0][t][f]) + std::norm(stereo[1][t][f])) + 1e-9;
    return power;
}

Plane calcCleanMask(const Spectrogram& stereo, int framesAhead) {
    const Plane power = smoothPower(stereo);
    const int numOfFrames = static_cast<int>(power.size()), numOfBins = static_cast<int>(power[0].size());
    constexpr int numOfBands = 17;
    const double spacing = (numOfBins - 1.0) / (numOfBands - 1);
    Plane noise = makePlane(power);
    for (int t = 0; t < numOfFrames; ++t) {
        std::vector<double> floors;  // harmonic means over frames and over bins under a triangle
        for (int band = 0; band < numOfBands; ++band) {
            double weights = 0.0, inverses = 0.0, numOfSlices = 0.0;
            for (int u = t + framesAhead; u >= t + framesAhead - 44; u -= 4) {
                if (u < 0 || u >= numOfFrames) continue;
                ++numOfSlices;
                for (int f = 0; f < numOfBins; ++f) {
                    const double weight = std::max(0.0, 1.0 - std::abs(f / spacing - band));
                    weights += weight;
                    inverses += weight / power[static_cast<std::size_t>(u)][static_cast<std::size_t>(f)];
                }
            }
            floors.push_back(weights / inverses * numOfSlices / 12.0);
        }
        for (int f = 0; f < numOfBins; ++f)
            for (int band = 0; band < numOfBands; ++band)
                noise[static_cast<std::size_t>(t)][static_cast<std::size_t>(f)] +=
                    std::max(0.0, 1.0 - std::abs(f / spacing - band)) *
                    floors[static_cast<std::size_t>(band)];
    }
    return calcSubtractionMask(power, noise);
}

Plane calcCleanMask(const Spectrogram& stereo, const std::vector<double>& noisePower) {
    const Plane power = smoothPower(stereo);
    return calcSubtractionMask(power, Plane(power.size(), noisePower));
}

Plane calcIdealMask(const Spectrogram& first, const Spectrogram& second) {
    return combine(calcMeanPower(first), calcMeanPower(second),
                   [](double wanted, double unwanted) { return wanted / (wanted + unwanted); });
}

double calcSignalToDistortion(const Channels& estimate, const Channels& truth) {
    double product = 0.0, power = 0.0;
    for (std::size_t c = 0; c < truth.size(); ++c)
        for (std::size_t i = 0; i < truth[c].size(); ++i) {
            product += estimate[c][i] * truth[c][i];
            power += truth[c][i] * truth[c][i];
        }
    const double scale = product / power;
    double error = 0.0;
    for (std::size_t c = 0; c < truth.size(); ++c)
        for (std::size_t i = 0; i < truth[c].size(); ++i)
            error += std::pow(scale * truth[c][i] - estimate[c][i], 2);
    return 10.0 * std::log10(scale * scale * power / error);
}

}  // namespace zevrant::plain
