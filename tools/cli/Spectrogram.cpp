#include "cli/Spectrogram.h"

#include <algorithm>
#include <cmath>
#include <complex>

#include "DspCore/FourierTransform.h"
#include "DspCore/Signals.h"
#include "DspCore/WindowFunctions.h"
#include "cli/Interruption.h"

namespace zevrant::cli {

namespace {

constexpr double leastPower = 1e-20;  // -200 dB

float toDecibels(double power) {
    return static_cast<float>(10.0 * std::log10(std::max(power, leastPower)));
}

// Hands out the frames of a stream: frame k has its middle at sample k * hop, with zeros around the stream.
class FrameReader {
  public:
    FrameReader(audiofiles::AudioReader& source, int frameSize, int hop)
        : reader(source),
          channels(source.description.numOfChannels),
          numOfFrameSamples(frameSize),
          numOfHopSamples(hop),
          samples(static_cast<std::size_t>(frameSize / 2) * static_cast<std::size_t>(channels), 0.0f),
          block(static_cast<std::size_t>(blockSize) * static_cast<std::size_t>(channels)) {}

    // False once the middle of the frame lies behind the end.
    bool next(const Signal32& window, Signal32& frame) {
        const auto width = static_cast<std::size_t>(channels);
        while (!isAtEnd && samples.size() < static_cast<std::size_t>(numOfFrameSamples) * width) {
            stopIfInterrupted();
            const int count = reader.read(block.data(), blockSize);
            samples.insert(samples.end(), block.begin(), block.begin() + count * channels);
            isAtEnd = count == 0;
        }
        if (isAtEnd) {
            if (samples.size() <= static_cast<std::size_t>(numOfFrameSamples / 2) * width) return false;
            const std::size_t rest = samples.size();
            samples.resize(std::max(rest, static_cast<std::size_t>(numOfFrameSamples) * width), 0.0f);
            fill(window, frame);
            samples.resize(rest);
        } else {
            fill(window, frame);
        }
        const std::size_t step = std::min(static_cast<std::size_t>(numOfHopSamples) * width, samples.size());
        samples.erase(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(step));
        return true;
    }

  private:
    static constexpr int blockSize = 8192;

    void fill(const Signal32& window, Signal32& frame) const {
        const float* shape = window.getReadChannelPtr(0);
        for (int c = 0; c < channels; ++c) {
            float* row = frame.getWriteChannelPtr(c);
            for (int i = 0; i < numOfFrameSamples; ++i)
                row[i] = shape[i] * samples[static_cast<std::size_t>(i * channels + c)];
        }
    }

    audiofiles::AudioReader& reader;
    int channels, numOfFrameSamples, numOfHopSamples;
    std::vector<float> samples;  // from the start of the next frame on
    std::vector<float> block;
    bool isAtEnd = false;
};

// The level of each row from the powers of the bins: the mean of those that the row spans, or, where it is
// finer than a bin, on the line between its neighbours.
void fillColumn(const std::vector<double>& powers, double binWidth, const FrequencyScale& scale,
                LevelGrid& grid, int column) {
    const auto lastBin = static_cast<double>(powers.size() - 1);
    for (int row = 0; row < grid.height; ++row) {
        const double bottom = scale.toFrequency(1.0 - (row + 1.0) / grid.height) / binWidth;
        const double top = scale.toFrequency(1.0 - (row + 0.0) / grid.height) / binWidth;
        float level = toDecibels(0.0);
        const double first = std::ceil(bottom);
        if (top - first >= 1.0 && first <= lastBin) {
            const auto from = static_cast<std::size_t>(first);
            const auto behind = static_cast<std::size_t>(std::min(std::floor(top), lastBin)) + 1;
            double sum = 0.0;
            for (std::size_t bin = from; bin < behind; ++bin) sum += powers[bin];
            level = toDecibels(sum / static_cast<double>(behind - from));
        } else if (const double middle = 0.5 * (bottom + top); middle <= lastBin) {
            const auto below = static_cast<std::size_t>(middle);
            const auto above = std::min(below + 1, powers.size() - 1);
            const auto part = static_cast<float>(middle - static_cast<double>(below));
            level = (1.0f - part) * toDecibels(powers[below]) + part * toDecibels(powers[above]);
        }
        grid.levels[static_cast<std::size_t>(row) * static_cast<std::size_t>(grid.width) +
                    static_cast<std::size_t>(column)] = level;
    }
}

}  // namespace

double FrequencyScale::toPosition(double frequency) const {
    if (isLogarithmic) return std::log(frequency / lowest) / std::log(highest / lowest);
    return (frequency - lowest) / (highest - lowest);
}

double FrequencyScale::toFrequency(double position) const {
    if (isLogarithmic) return lowest * std::pow(highest / lowest, position);
    return lowest + position * (highest - lowest);
}

LevelGrid calcSpectrogram(audiofiles::AudioReader& reader, double secondsPerColumn, int height, int frameSize,
                          const FrequencyScale& scale) {
    const int channels = reader.description.numOfChannels;
    const double sampleRate = reader.description.sampleRate;
    const double samplesPerColumn = secondsPerColumn * sampleRate;
    const auto length = static_cast<double>(std::max<std::int64_t>(reader.description.numOfSamples, 1));
    LevelGrid grid{std::max(static_cast<int>(std::ceil(length / samplesPerColumn)), 1), height, {}};
    grid.levels.assign(static_cast<std::size_t>(grid.width) * static_cast<std::size_t>(height),
                       toDecibels(0.0));

    const int hop = std::clamp(static_cast<int>(samplesPerColumn), 1, frameSize / 4);
    const Signal32 window = WindowFunctions::generateHannWindow(1, frameSize);
    double windowSum = 0.0;
    for (int i = 0; i < frameSize; ++i) windowSum += double{window.getReadChannelPtr(0)[i]};
    const double scaleOfPower = 4.0 / (windowSum * windowSum) / channels;

    FrameReader frames(reader, frameSize, hop);
    FourierTransform transform;
    Signal32 frame(channels, frameSize);
    ComplexSignal32 spectrum(channels, frameSize / 2 + 1);
    std::vector<double> powers(static_cast<std::size_t>(frameSize / 2 + 1), 0.0);
    int column = 0, numOfFramesInColumn = 0;
    // Sounds of fewer samples than columns leave columns without a frame, which are like the one before them.
    const auto finishColumn = [&](int nextColumn) {
        const double mean = scaleOfPower / std::max(numOfFramesInColumn, 1);
        for (double& power : powers) power *= mean;
        fillColumn(powers, sampleRate / frameSize, scale, grid, column);
        for (int row = 0; row < height; ++row)
            std::fill_n(grid.levels.begin() + static_cast<std::ptrdiff_t>(row) * grid.width + column + 1,
                        nextColumn - column - 1, grid.get(row, column));
        std::fill(powers.begin(), powers.end(), 0.0);
        numOfFramesInColumn = 0;
    };
    for (std::int64_t n = 0; frames.next(window, frame); ++n) {
        const auto wanted =
            std::min(static_cast<int>(static_cast<double>(n * hop) / samplesPerColumn), grid.width - 1);
        if (wanted != column) {
            finishColumn(wanted);
            column = wanted;
        }
        transform.forwardReal(frame, spectrum);
        for (int c = 0; c < channels; ++c) {
            const std::complex<float>* bins = spectrum.getReadChannelPtr(c);
            for (std::size_t bin = 0; bin < powers.size(); ++bin) powers[bin] += double{std::norm(bins[bin])};
        }
        ++numOfFramesInColumn;
    }
    if (numOfFramesInColumn > 0) finishColumn(grid.width);
    return grid;
}

}  // namespace zevrant::cli
