#pragma once

#include <string>
#include <vector>

#include "audiofiles/Audio.h"

namespace zevrant::cli {

// How frequencies lie along the vertical axis of a picture, 0 at its lower and 1 at its upper end.
struct FrequencyScale {
    double lowest = 0.0;   // hertz; above 0 on a logarithmic scale
    double highest = 0.0;  // hertz
    bool isLogarithmic = true;

    double toPosition(double frequency) const;
    double toFrequency(double position) const;
};

// Levels over time and frequency on a grid of pixels.
struct LevelGrid {
    int width = 0;              // columns that the sound takes up
    int height = 0;             // rows, the highest frequency first
    std::vector<float> levels;  // [height, width] decibels; a sine of full scale has 0

    float get(int row, int column) const {
        return levels[static_cast<std::size_t>(row) * static_cast<std::size_t>(width) +
                      static_cast<std::size_t>(column)];
    }
};

// Reads a file of known length to its end and averages the power of Hann-windowed frames over its channels
// and over the frames of each column. The columns have this length; frames overlap by three quarters or more.
LevelGrid calcSpectrogram(audiofiles::AudioReader& reader, double secondsPerColumn, int height, int frameSize,
                          const FrequencyScale& scale);

}  // namespace zevrant::cli
