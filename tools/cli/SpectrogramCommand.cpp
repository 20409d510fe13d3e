#include <algorithm>
#include <bit>
#include <cmath>
#include <filesystem>
#include <memory>

#include "cli/Commands.h"
#include "cli/Failure.h"
#include "cli/SpectrogramPicture.h"

namespace zevrant::cli {

namespace {

constexpr double frameSeconds = 0.06;  // partials apart from each other, and attacks still steep
constexpr int longestFrame = 65536;    // samples
constexpr double lowestFrequency = 40.0;

struct SpectrogramCommand {
    std::vector<std::string> inputs;
    std::vector<std::string> titles;
    std::string output;
    int width = 1280;
    int panelHeight = 240;
    int frameSize = 0;
    double range = 80.0;
    double highestFrequency = 0.0;
    bool isLinear = false;

    void run() const {
        if (titles.size() > inputs.size())
            throw Failure(ExitStatus::WrongUsage, "--title: there are more titles than files");
        audiofiles::ProtectedFiles protectedInputs;
        std::vector<std::unique_ptr<audiofiles::AudioReader>> readers;
        double seconds = 0.0, highestRate = 0.0;
        for (const std::string& input : inputs) {
            readers.push_back(audiofiles::openAudio(input));
            protectedInputs.add(input);
            const audiofiles::AudioDescription& description = readers.back()->description;
            if (description.numOfSamples < 0 && !isStream(input))
                readers.back()->description.numOfSamples = countSamples(input);
            if (description.numOfSamples < 0)
                throw Failure(ExitStatus::BadInput,
                              readers.back()->name + ": a picture needs to know the length beforehand");
            seconds =
                std::max(seconds, static_cast<double>(description.numOfSamples) / description.sampleRate);
            highestRate = std::max(highestRate, static_cast<double>(description.sampleRate));
        }
        if (seconds <= 0.0) throw Failure(ExitStatus::BadInput, readers.front()->name + ": has no samples");

        SpectrogramPicture picture;
        picture.width = width;
        picture.panelHeight = panelHeight;
        picture.seconds = seconds;
        picture.range = range;
        picture.scale.isLogarithmic = !isLinear;
        picture.scale.highest = highestFrequency > 0.0 ? highestFrequency : highestRate / 2.0;
        picture.scale.lowest = isLinear ? 0.0 : std::min(lowestFrequency, picture.scale.highest / 10.0);
        protectedInputs.requireOther(output);
        if (audiofiles::getExtension(output) != "png")
            throw Failure(ExitStatus::WrongUsage,
                          output + ": pictures are PNG files, so the name has to end in .png");
        audiofiles::OutputFile file(output, protectedInputs);
        const double secondsPerColumn = seconds / SpectrogramPicture::getPlotWidth(width);
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            const std::string name = std::filesystem::path(inputs[i]).filename().string();
            picture.panels.push_back({i < titles.size() ? titles[i] : name,
                                      calcSpectrogram(*readers[i], secondsPerColumn, panelHeight,
                                                      chooseFrameSize(*readers[i]), picture.scale)});
        }
        picture.highestLevel = findHighestLevel(picture.panels);
        picture.write(file);
        file.commit();
    }

    static bool isStream(const std::string& input) {
        return input == "-" || audiofiles::isSpecialFile(input);
    }

    // Of a file whose length only its end tells.
    static std::int64_t countSamples(const std::string& input) {
        constexpr int blockSize = 16384;
        const auto reader = audiofiles::openAudio(input);
        std::vector<float> block(static_cast<std::size_t>(blockSize) *
                                 static_cast<std::size_t>(reader->description.numOfChannels));
        std::int64_t numOfSamples = 0;
        while (const int count = reader->read(block.data(), blockSize)) numOfSamples += count;
        return numOfSamples;
    }

    int chooseFrameSize(const audiofiles::AudioReader& reader) const {
        if (frameSize > 0) return static_cast<int>(std::bit_ceil(static_cast<unsigned>(frameSize)));
        const double wanted = frameSeconds * reader.description.sampleRate;
        return static_cast<int>(std::bit_ceil(static_cast<unsigned>(std::min(wanted, double{longestFrame}))));
    }

    // In steps of 5 dB, so that pictures of like sounds have like scales.
    static double findHighestLevel(const std::vector<SpectrogramPanel>& panels) {
        float highest = -200.0f;
        for (const SpectrogramPanel& panel : panels)
            for (const float level : panel.grid.levels) highest = std::max(highest, level);
        return highest <= -199.0f ? 0.0 : 5.0 * std::ceil(double{highest} / 5.0);
    }
};

}  // namespace

void addSpectrogramCommand(CLI::App& program) {
    auto* command = program.add_subcommand("spectrogram",
                                           "Draws audio files over time and frequency, one below the other");
    const auto options = std::make_shared<SpectrogramCommand>();
    command->add_option("IN", options->inputs, "Audio files")->required();
    command->add_option("-o,--output", options->output, "PNG file to write")->required();
    command
        ->add_option("--title", options->titles, "Title of a panel instead of its file's name; once per file")
        ->allow_extra_args(false);
    command->add_option("--width", options->width, "Pixels")
        ->check(CLI::Range(320, 16384))
        ->capture_default_str();
    command->add_option("--height", options->panelHeight, "Pixels of each panel")
        ->check(CLI::Range(64, 4096))
        ->capture_default_str();
    command
        ->add_option("--frame", options->frameSize,
                     "Samples per frame, raised to a power of two; without it 60 ms")
        ->check(CLI::Range(64, longestFrame));
    command->add_option("--range", options->range, "Decibels from the brightest colour to black")
        ->check(CLI::Range(10.0, 200.0))
        ->capture_default_str();
    command
        ->add_option("--max-frequency", options->highestFrequency,
                     "Upper end in Hz; without it half the rate")
        ->check(CLI::Range(100.0, 1e6));
    command->add_flag("--linear", options->isLinear, "A linear frequency axis instead of a logarithmic one");
    command->footer(
        "All panels share their axes and colours. Levels are powers averaged over channels; a sine of full "
        "scale\n"
        "in all channels has 0 dB.\n"
        "\n"
        "Example:\n"
        "  zevrant spectrogram song.flac stems/Harmonic.flac stems/Percussive.flac -o stems.png");
    command->callback([options] { options->run(); });
}

}  // namespace zevrant::cli
