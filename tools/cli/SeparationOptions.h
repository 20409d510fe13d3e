#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "audiofiles/Audio.h"
#include "audiofiles/Pass.h"
#include "cli/Model.h"
#include "separation/Separator.h"

namespace zevrant::cli {

using audiofiles::AudioDescription;
using audiofiles::AudioReader;
using separation::Output;
using separation::Separator;

// What all commands say about an audio file that they read.
constexpr const char* inputHelp =
    "Audio file of any format that libsndfile or, where it is installed, ffmpeg reads; - is standard input";

// Where the controls of the busses are to stand; all neutral at the start.
struct BusControls {
    explicit BusControls(int numOfBusses)
        : gains(static_cast<std::size_t>(numOfBusses), 1.0f),
          sensitivities(static_cast<std::size_t>(numOfBusses), 0.0f) {}

    void applyTo(Separator& separator) const;

    std::vector<float> gains;          // linear
    std::vector<float> sensitivities;  // -100 to 100
    bool extrapolatesMasks = true;
};

// What the commands that run audio through a model have in common on their command lines.
struct SeparationOptions {
    void addTo(CLI::App& command);

    std::unique_ptr<AudioReader> openInput(const std::string& input) const;
    Model openModel() const;
    audiofiles::RawSampleFormat getRawSampleFormat() const;
    BusControls getControls(const Model& model) const;  // without gains
    double getWorkingRate(const AudioReader& reader, const Model& model) const;

    // What the output is like that keeps the input's sample format, unless another is asked for.
    AudioDescription describeOutput(const AudioDescription& input) const;

    // What to tell the user about audio that was read in a pass that went well.
    std::vector<std::string> getNotes(const AudioReader& reader, const audiofiles::PassResult& pass) const;

    std::string model;
    std::vector<std::string> sensitivities;  // BUS=VALUE
    bool keepsMasksShort = false;            // --no-extrapolation
    bool resamples = false;
    bool isQuiet = false;
    int blockSize = 4096;
    int channelsPerGroup = 0;  // 0: all channels together
    int rawChannels = 0;
    int rawRate = 0;
    std::string rawFormat = "f32le";
    std::string sampleFormat;
};

}  // namespace zevrant::cli
