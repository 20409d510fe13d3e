// How good the rate converter is: its gain over frequency, what it adds to a pure tone, and how far it
// lets a tone through that the output rate cannot carry. Prints tables in Markdown.
//
// Each tone is a sine of amplitude 1 in blocks of 480 samples. Where the output can carry it, a sine of
// the same frequency is fitted to the output by least squares; its amplitude is the gain, and what is
// left is told relative to full scale: images above the input's Nyquist frequency and interpolation noise
// together. Where the output cannot carry it, all of the output is alias.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <numbers>
#include <vector>

#include "DspCore/SampleRateConversion.h"

namespace {

using namespace zevrant;

constexpr double pi = std::numbers::pi;
constexpr int blockSize = 480;

double toDecibel(double amplitude) {
    return 20.0 * std::log10(std::max(amplitude, 1e-15));
}

// The output for one second or more of a signal that is given over time in seconds.
std::vector<double> convert(double inputRate, double outputRate, double seconds,
                            const std::function<double(double)>& signal) {
    SampleRateConversion conversion;
    AudioFormat input, output;
    input.createDefaultChannelMapping(1);
    output.createDefaultChannelMapping(1);
    input.sampleRate = inputRate;
    output.sampleRate = outputRate;
    conversion.setFormat(input, output);
    std::vector<double> result;
    Signal32 block(1, blockSize);
    for (int start = 0; start < seconds * inputRate; start += blockSize) {
        for (int i = 0; i < blockSize; ++i)
            block.getWriteChannelPtr(0)[i] = static_cast<float>(signal((start + i) / inputRate));
        const Signal32 out = conversion.process(block);
        if (out.numOfSamples > 0)
            result.insert(result.end(), out.getReadChannelPtr(0),
                          out.getReadChannelPtr(0) + out.numOfSamples);
    }
    return result;
}

double calcRms(const double* values, int n) {
    double sum = 0.0;
    for (int i = 0; i < n; ++i) sum += values[i] * values[i];
    return std::sqrt(sum / n);
}

struct Tone {
    double gain;      // amplitude of the tone in the output
    double residual;  // amplitude of a sine with the power of everything else
};

// The tone is cut to whole halves of a second behind the filter's start.
Tone measureTone(double inputRate, double outputRate, double frequency) {
    const auto tone = [&](double time) { return std::sin(2.0 * pi * frequency * time); };
    std::vector<double> output = convert(inputRate, outputRate, 0.6, tone);
    output.erase(output.begin(), output.begin() + static_cast<int>(0.05 * outputRate));
    const int n = static_cast<int>(0.5 * outputRate);

    double cc = 0.0, ss = 0.0, cs = 0.0, cy = 0.0, sy = 0.0;
    for (int i = 0; i < n; ++i) {
        const double c = std::cos(2.0 * pi * frequency * i / outputRate);
        const double s = std::sin(2.0 * pi * frequency * i / outputRate);
        cc += c * c, ss += s * s, cs += c * s, cy += c * output[i], sy += s * output[i];
    }
    const double determinant = cc * ss - cs * cs;
    const double a = (cy * ss - sy * cs) / determinant, b = (sy * cc - cy * cs) / determinant;
    for (int i = 0; i < n; ++i)
        output[i] -= a * std::cos(2.0 * pi * frequency * i / outputRate) +
                     b * std::sin(2.0 * pi * frequency * i / outputRate);
    return {std::hypot(a, b), calcRms(output.data(), n) * std::numbers::sqrt2};
}

double measureAlias(double inputRate, double outputRate, double frequency) {
    const auto tone = [&](double time) { return std::sin(2.0 * pi * frequency * time); };
    const std::vector<double> output = convert(inputRate, outputRate, 0.6, tone);
    const int start = static_cast<int>(0.05 * outputRate);
    return calcRms(output.data() + start, static_cast<int>(0.5 * outputRate)) * std::numbers::sqrt2;
}

void printTones(double inputRate, double outputRate, const std::vector<double>& frequencies) {
    const double nyquist = std::min(inputRate, outputRate) / 2.0;
    std::printf("\n%.0f Hz to %.0f Hz\n\n", inputRate, outputRate);
    std::printf("| tone, Hz | gain, dB | everything else, dB |\n|---:|---:|---:|\n");
    for (const double frequency : frequencies) {
        if (frequency < nyquist) {
            const Tone tone = measureTone(inputRate, outputRate, frequency);
            std::printf("| %.0f | %+.4f | %.1f |\n", frequency, toDecibel(tone.gain),
                        toDecibel(tone.residual));
        } else {
            std::printf("| %.0f | | %.1f |\n", frequency,
                        toDecibel(measureAlias(inputRate, outputRate, frequency)));
        }
    }
}

// Largest and smallest gain over a dense grid of tones up to the given share of the lower Nyquist
// frequency, and the highest residual there.
void printBand(double inputRate, double outputRate, double share) {
    const double top = share * std::min(inputRate, outputRate) / 2.0;
    double lowest = 1e9, highest = 0.0, residual = 0.0;
    for (int step = 0; step < 120; ++step) {
        const double frequency = 20.0 * std::pow(top / 20.0, step / 119.0);
        const Tone tone = measureTone(inputRate, outputRate, frequency);
        lowest = std::min(lowest, tone.gain);
        highest = std::max(highest, tone.gain);
        residual = std::max(residual, tone.residual);
    }
    std::printf("| %.0f to %.0f | 20 to %.0f | %+.4f | %+.4f | %.1f |\n", inputRate, outputRate, top,
                toDecibel(lowest), toDecibel(highest), toDecibel(residual));
}

// A linear sweep over four seconds. The difference between the output and the same sweep sampled at the
// output rate, in windows of 1/50 s, and the level itself, for what the output cannot carry.
void printSweep(double inputRate, double outputRate) {
    const double seconds = 4.0, top = inputRate / 2.0, nyquist = outputRate / 2.0;
    const auto sweep = [&](double time) { return std::sin(pi * top / seconds * time * time); };
    const std::vector<double> output = convert(inputRate, outputRate, seconds, sweep);
    const int window = static_cast<int>(outputRate / 50.0);
    std::printf("\n%.0f Hz to %.0f Hz, sweep from 0 to %.0f Hz\n\n", inputRate, outputRate, top);
    std::printf("| sweep at, Hz | output, dB | output less ideal, dB |\n|---:|---:|---:|\n");
    for (double frequency : {500.0, 1000.0, 5000.0, 10000.0, 15000.0, 17000.0, 18000.0, 19000.0, 20000.0,
                             21000.0, 22000.0, 22500.0, 23000.0, 23500.0, 23900.0}) {
        if (frequency >= top) continue;
        const int start = static_cast<int>(frequency / top * seconds * outputRate) - window / 2;
        std::vector<double> difference(window);
        for (int i = 0; i < window; ++i) difference[i] = output[start + i] - sweep((start + i) / outputRate);
        const double level = toDecibel(calcRms(output.data() + start, window) * std::numbers::sqrt2);
        if (frequency < nyquist)
            std::printf("| %.0f | %.2f | %.1f |\n", frequency, level,
                        toDecibel(calcRms(difference.data(), window) * std::numbers::sqrt2));
        else
            std::printf("| %.0f | %.2f | |\n", frequency, level);
    }
}

}  // namespace

int main() {
    std::printf(
        "| rates, Hz | band, Hz | lowest gain, dB | highest gain, dB | everything else, at most, dB |\n");
    std::printf("|---|---|---:|---:|---:|\n");
    for (const double share : {0.5, 0.8, 0.9})
        for (const bool down : {true, false})
            printBand(down ? 48000.0 : 44100.0, down ? 44100.0 : 48000.0, share);

    const std::vector<double> tones = {20,    100,   1000,  5000,  10000, 15000, 16000, 17000, 18000, 19000,
                                       20000, 20500, 21000, 21500, 22000, 22500, 23000, 23500, 23900};
    printTones(48000.0, 44100.0, tones);
    printTones(44100.0, 48000.0, {tones.begin(), tones.end() - 4});
    printSweep(48000.0, 44100.0);
    printSweep(44100.0, 48000.0);
}
