#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "audiofiles/OutputFile.h"
#include "cli/Spectrogram.h"

namespace zevrant::cli {

struct SpectrogramPanel {
    std::string title;
    LevelGrid grid;
};

// Panels one below the other, on one time axis, one frequency axis and one scale of colours.
struct SpectrogramPicture {
    static constexpr int leftMargin = 66, rightMargin = 84, topMargin = 8, bottomMargin = 46;
    static constexpr int titleHeight = 26;

    // Pixels of a picture with so many panels.
    static int getHeight(int numOfPanels, int panelHeight) {
        return topMargin + numOfPanels * (titleHeight + panelHeight) + bottomMargin;
    }
    static int getPlotWidth(int pictureWidth) { return pictureWidth - leftMargin - rightMargin; }

    // Throws Failure with BadOutput.
    void write(audiofiles::OutputFile& file) const;

    std::vector<SpectrogramPanel> panels;  // grids of panelHeight rows
    FrequencyScale scale;
    double seconds = 0.0;       // that the plot's width stands for
    double highestLevel = 0.0;  // decibels, the brightest colour
    double range = 80.0;        // decibels from there to black
    int width = 0;              // pixels, margins included
    int panelHeight = 0;        // pixels
};

// Colours of evenly rising lightness, 0xRRGGBB, from near black over violet and red to pale yellow: a path in
// Oklab (B. Ottosson, A perceptual color space for image processing, 2020) with as much chroma as sRGB holds.
std::array<std::uint32_t, 256> makeColourMap();

}  // namespace zevrant::cli
