#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/Audio.h"
#include "cli/Separator.h"

namespace zevrant::cli {

// What the commands that run audio through a model have in common on their command lines.
struct SeparationOptions {
    void addTo(CLI::App& command);

    std::unique_ptr<AudioReader> openInput() const;
    BusControls getControls(const Model& model) const;  // without gains
    double getWorkingRate(const AudioReader& reader, const Model& model) const;

    // What the output is like that keeps the input's sample format, unless another is asked for.
    AudioDescription describeOutput(const AudioReader& reader) const;

    std::string input;
    std::string model;
    std::vector<std::string> sensitivities;  // BUS=VALUE
    bool keepsMasksShort = false;            // --no-extrapolation
    bool resamples = false;
    bool isQuiet = false;
    int blockSize = 4096;
    int channelsPerGroup = 0;  // 0: all channels together
    int rawChannels = 0;
    int rawRate = 0;
    std::string sampleFormat;
};

// A bus and a number from "BUS=NUMBER". Throws Failure with WrongUsage where that is not it.
struct BusSetting {
    BusSetting(const Model& model, const std::string& text, const char* option, double least, double most);

    int bus;
    double value;
};

}  // namespace zevrant::cli
