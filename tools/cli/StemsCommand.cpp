#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>

#include <sndfile.h>

#include "audiofiles/Pass.h"
#include "audiofiles/SampleFormat.h"
#include "audiofiles/StemFiles.h"
#include "cli/Commands.h"
#include "cli/Failure.h"
#include "cli/Progress.h"
#include "cli/SeparationOptions.h"

namespace zevrant::cli {

namespace fs = std::filesystem;

namespace {

// Of exact stems, above which they do not add up: some 40 dB above what rounding leaves.
constexpr double worstNullDepth = -90.0;

// How far the sum of stems lies below the input: the energy of the difference over that of the input.
class NullMeter {
  public:
    void add(double input, double sum) {
        inputEnergy += input * input;
        differenceEnergy += (input - sum) * (input - sum);
    }
    bool isSilent() const { return inputEnergy == 0.0 && differenceEnergy == 0.0; }
    double getDepth() const { return 10.0 * std::log10(differenceEnergy / inputEnergy); }

  private:
    double inputEnergy = 0.0;
    double differenceEnergy = 0.0;
};

struct StemsCommand : SeparationOptions {
    std::string folder;
    std::string extension;

    std::string getExtension(const AudioDescription& description) const {
        if (extension.empty()) return audiofiles::chooseExtension(description);
        return extension.front() == '.' ? extension.substr(1) : extension;
    }

    void run() {
        const Model opened = Model::open(model);
        const BusControls controls = getControls(opened);
        const auto reader = openInput();
        const AudioDescription description = describeOutput(*reader);
        const double workingRate = getWorkingRate(*reader, opened);
        Separator splitter(opened, Output::Busses, description.numOfChannels, workingRate, channelsPerGroup);
        controls.applyTo(splitter);

        audiofiles::ProtectedFiles inputs;
        inputs.add(input);
        inputs.add(opened.path);
        audiofiles::OutputFolder outputFolder(folder);
        std::vector<std::unique_ptr<audiofiles::AudioWriter>> writers;
        const auto busNames = opened.getBusNames();
        for (const std::string& name : audiofiles::makeFileNames(busNames)) {
            const fs::path path = fs::path(folder) / (name + "." + getExtension(description));
            writers.push_back(audiofiles::createAudio(path.string(), description, inputs));
        }

        std::int64_t numOfSamples = 0;
        double seconds = 0.0;
        {
            Progress progress("stems", description.numOfSamples, description.sampleRate, isQuiet);
            audiofiles::runPass(*reader, splitter, workingRate, blockSize,
                                [&](const audiofiles::PassBlock& block) {
                                    writeBlock(block, writers);
                                    progress.show(numOfSamples += block.numOfSamples);
                                });
            seconds = progress.getSeconds();
        }
        for (const auto& writer : writers) writer->close();
        for (const auto& writer : writers) writer->commit();
        outputFolder.keep();
        report(busNames, writers, static_cast<double>(numOfSamples) / description.sampleRate / seconds);
        check(controls);
    }

    // Writes the channels of each stem, and measures the sums of what the engine gave and of what is written.
    void writeBlock(const audiofiles::PassBlock& block,
                    const std::vector<std::unique_ptr<audiofiles::AudioWriter>>& writers) {
        const std::size_t numOfStems = writers.size();
        const auto length = static_cast<std::size_t>(block.numOfSamples);
        const auto channels = static_cast<std::size_t>(block.numOfOutputChannels) / numOfStems;
        stem.resize(length * channels);
        exactSum.assign(length * channels, 0.0);
        writtenSum.assign(length * channels, 0.0);
        for (std::size_t s = 0; s < numOfStems; ++s) {
            for (std::size_t i = 0; i < length; ++i)
                std::copy_n(block.output + (i * numOfStems + s) * channels, channels,
                            stem.data() + i * channels);
            writers[s]->write(stem.data(), block.numOfSamples);
            for (std::size_t i = 0; i < stem.size(); ++i) exactSum[i] += double{stem[i]};
            const int bits = writers[s]->integerBits;
            if (bits == 0) {
                for (std::size_t i = 0; i < stem.size(); ++i) writtenSum[i] += double{stem[i]};
                continue;
            }
            integers.resize(stem.size());
            audiofiles::quantise(stem.data(), std::ssize(stem), bits, integers.data());
            for (std::size_t i = 0; i < stem.size(); ++i) writtenSum[i] += integers[i] / 2147483648.0;
        }
        for (std::size_t i = 0; i < stem.size(); ++i) {
            exactNull.add(double{block.input[i]}, exactSum[i]);
            writtenNull.add(double{block.input[i]}, writtenSum[i]);
        }
    }

    void report(const std::vector<std::string>& busNames,
                const std::vector<std::unique_ptr<audiofiles::AudioWriter>>& writers, double speed) const {
        std::size_t width = 0;
        for (const std::string& name : busNames) width = std::max(width, name.size());
        std::int64_t numOfClippedValues = 0;
        for (std::size_t i = 0; i < writers.size(); ++i) {
            std::printf("%-*s  %s\n", static_cast<int>(width), busNames[i].c_str(), writers[i]->name.c_str());
            numOfClippedValues += writers[i]->numOfClippedValues;
        }
        if (writtenNull.isSilent())
            std::printf("null depth: the input is silent, and so is the sum of the stems\n");
        else if (writers.front()->integerBits > 0)
            std::printf("null depth: %.1f dB as written with %d bits, %.1f dB before that\n",
                        writtenNull.getDepth(), writers.front()->integerBits, exactNull.getDepth());
        else
            std::printf("null depth: %.1f dB\n", exactNull.getDepth());
        std::printf("speed: %.1f x real time\n", speed);
        if (numOfClippedValues > 0 && !isQuiet)
            std::fprintf(stderr,
                         "zevrant: note: %lld values were clipped; --sample-format float keeps them\n",
                         static_cast<long long>(numOfClippedValues));
    }

    // A sensitivity of the residual changes the sum by its nature.
    void check(const BusControls& controls) const {
        if (controls.sensitivities.back() != 0.0f || exactNull.isSilent()) return;
        if (!(exactNull.getDepth() < worstNullDepth))
            throw Failure(
                ExitStatus::Failed,
                "the stems are written, but do not add up to the input: the frame sizes of this model "
                "do not give their input back");
    }

    std::vector<float> stem;
    std::vector<double> exactSum, writtenSum;
    std::vector<std::int32_t> integers;
    NullMeter exactNull, writtenNull;
};

}  // namespace

void addStemsCommand(CLI::App& program) {
    auto* command = program.add_subcommand("stems", "Splits audio into one file per bus of a model");
    const auto options = std::make_shared<StemsCommand>();
    options->addTo(*command);
    command->add_option("-d,--directory", options->folder, "Folder for the stems; made if it is not there")
        ->required();
    command->add_option("--format", options->extension,
                        "Extension of the stems, such as wav or flac; without it that of the input");
    command->footer(
        "The stems line up with the input sample for sample, and their sum is the input: the null depth that "
        "is\n"
        "printed is the level of the difference against the input. Float files null to rounding, integer "
        "files\n"
        "to their resolution. The network runs once for all stems.\n"
        "\n"
        "Example:\n"
        "  zevrant stems song.flac -m harmonic-percussive -d stems --sample-format pcm24");
    command->callback([options] { options->run(); });
}

}  // namespace zevrant::cli
