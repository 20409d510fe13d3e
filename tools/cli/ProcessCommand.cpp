#include <cmath>
#include <filesystem>
#include <limits>
#include <memory>
#include <system_error>

#include <sndfile.h>

#include "audiofiles/Pass.h"
#include "cli/Commands.h"
#include "cli/Failure.h"
#include "cli/Progress.h"
#include "cli/SeparationOptions.h"
#include "cli/Text.h"

namespace zevrant::cli {

namespace {

constexpr double mostDecibels = 40.0;

struct ProcessCommand : SeparationOptions {
    std::string input;
    std::string output;
    std::vector<std::string> gains;  // BUS=dB
    std::vector<std::string> solos;
    bool writesRaw = false;

    void setGains(const Model& opened, BusControls& controls) const {
        if (!solos.empty()) {
            std::vector<float> soloed(controls.gains.size(), 0.0f);
            for (const std::string& solo : solos)
                soloed[static_cast<std::size_t>(findBus(opened, solo))] = 1.0f;
            controls.gains = soloed;
        }
        for (const std::string& text : gains) {
            const BusSetting setting(opened, text, "--gain", -std::numeric_limits<double>::infinity(),
                                     mostDecibels);
            controls.gains[static_cast<std::size_t>(setting.bus)] *=
                static_cast<float>(std::pow(10.0, setting.value / 20.0));
        }
    }

    void run() const {
        const Model opened = openModel();
        BusControls controls = getControls(opened);
        setGains(opened, controls);
        if (std::error_code error; std::filesystem::is_directory(input, error))
            throw Failure(ExitStatus::BadInput,
                          input + ": is a folder; process takes one file, stems takes folders");
        const auto reader = openInput(input);
        AudioDescription description = describeOutput(reader->description);
        if (output == "-" && writesRaw) {
            const audiofiles::RawSampleFormat raw = getRawSampleFormat();
            description.container = SF_FORMAT_RAW;
            description.sampleFormat = raw.sampleFormat;
            description.isBigEndian = raw.isBigEndian;
        }
        const double workingRate = getWorkingRate(*reader, opened);
        Separator mixer(opened, Output::Mix, description.numOfChannels, workingRate, channelsPerGroup);
        controls.applyTo(mixer);

        audiofiles::ProtectedFiles inputs;
        inputs.add(input);
        inputs.add(opened.path);
        const auto writer = audiofiles::createAudio(output, description, inputs);
        Progress progress("process", 1, isQuiet);
        std::int64_t numOfSamplesDone = 0;
        const audiofiles::PassResult pass = audiofiles::runPass(
            *reader, mixer, workingRate, blockSize, [&](const audiofiles::PassBlock& block) {
                writer->write(block.output, block.numOfSamples);
                numOfSamplesDone += block.numOfSamples;
                progress.show(0, numOfSamplesDone, description.numOfSamples, description.sampleRate);
            });
        writer->close();
        writer->commit();
        if (isQuiet) return;
        std::vector<std::string> notes = getNotes(*reader, pass);
        if (writer->numOfClippedValues > 0)
            notes.push_back(std::to_string(writer->numOfClippedValues) +
                            " values were clipped; lower the gains or write floats");
        for (const std::string& note : notes) progress.print(stderr, "zevrant: note: " + makeHarmless(note));
    }
};

}  // namespace

void addProcessCommand(CLI::App& program) {
    auto* command =
        program.add_subcommand("process", "Runs audio through a model and writes the mix of its busses");
    const auto options = std::make_shared<ProcessCommand>();
    command->add_option("IN", options->input, inputHelp)->required();
    options->addTo(*command);
    command
        ->add_option("-o,--output", options->output,
                     "File to write, in the format of its extension; - for a WAV stream")
        ->required();
    command->add_option("--gain", options->gains, "BUS=dB, up to 40; -inf silences a bus. May be repeated")
        ->allow_extra_args(false);
    command->add_option("--solo", options->solos, "BUS: silence all others. May be repeated")
        ->allow_extra_args(false);
    command->add_flag("--raw", options->writesRaw, "With -o -: samples without a header instead of WAV");
    command->footer(
        "The output lines up with the input sample for sample and has its length. Busses are named or "
        "numbered\n"
        "from 0; 'zevrant info MODEL' lists them. With all gains at 0 dB the output is the input.\n"
        "\n"
        "Examples:\n"
        "  zevrant process song.flac -m harmonic-percussive --gain Percussive=-12 -o calmer.flac\n"
        "  zevrant process song.wav -m center-sides --solo Center --resample -o middle.wav\n"
        "  ffmpeg -i film.mkv -f wav - | zevrant process - -m center-sides --solo Center -o - | aplay");
    command->callback([options] { options->run(); });
}

}  // namespace zevrant::cli
