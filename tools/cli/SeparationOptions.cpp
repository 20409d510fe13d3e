#include "cli/SeparationOptions.h"

#include <sndfile.h>

#include "audiofiles/SampleFormat.h"
#include "cli/Failure.h"

namespace zevrant::cli {

void BusControls::applyTo(Separator& separator) const {
    separator.setMaskExtrapolationEnabled(extrapolatesMasks);
    for (int bus = 0; bus < std::ssize(gains); ++bus) {
        const auto index = static_cast<std::size_t>(bus);
        separator.setGain(bus, gains[index]);
        separator.setSensitivity(bus, sensitivities[index]);
    }
}

void SeparationOptions::addTo(CLI::App& command) {
    command.add_option("-m,--model", model, "Model: a path, or the name of an installed one")->required();
    command
        .add_option("--sensitivity", sensitivities,
                    "BUS=VALUE, -100 to 100: above 0 weak parts of a mask fade, below 0 they rise")
        ->allow_extra_args(false);
    command.add_flag("--no-extrapolation", keepsMasksShort,
                     "Masks end where the model's bins end, instead of going on above them");
    command.add_flag("--resample", resamples,
                     "Run at the model's own rate, with conversion there and back. Without it the frame\n"
                     "sizes follow the file's rate by a power of two and nothing is converted");
    command
        .add_option("--split", channelsPerGroup,
                    "Process so many channels at a time, each group by an engine of its own. Without it\n"
                    "a file with other channels than the model is analysed as its mono mix, and all\n"
                    "channels get the same masks")
        ->check(CLI::Range(1, 1024));
    command.add_option("--block", blockSize, "Samples per block, which changes nothing but speed")
        ->check(CLI::Range(1, 1 << 20))
        ->capture_default_str();
    command.add_option("--sample-format", sampleFormat,
                       "pcm16, pcm24, pcm32, float or double, instead of the input's own");
    command.add_option("--raw-channels", rawChannels, "Input without a header: its channels")
        ->check(CLI::Range(1, 1024));
    command.add_option("--raw-rate", rawRate, "Input without a header: sample rate in Hz")
        ->check(CLI::Range(1, audiofiles::highestSampleRate));
    command
        .add_option("--raw-format", rawFormat,
                    "Samples without a header, in and out: s16, s24, s32, f32 or f64, and le or be behind it")
        ->capture_default_str();
    command.add_flag("-q,--quiet", isQuiet, "Print nothing but errors");
}

// Who gives the audio file as the model has changed the two for each other.
Model SeparationOptions::openModel() const {
    try {
        return Model::open(model);
    } catch (const separation::Error& error) {
        if (!audiofiles::hasAudioExtension(model)) throw;
        throw Failure(ExitStatus::BadModel,
                      std::string(error.what()) + "; -m takes a model, and audio stands without an option");
    }
}

std::unique_ptr<AudioReader> SeparationOptions::openInput(const std::string& input) const {
    if ((rawChannels > 0) != (rawRate > 0))
        throw Failure(ExitStatus::WrongUsage, "--raw-channels and --raw-rate go together");
    const audiofiles::RawFormat raw{rawChannels, rawRate, getRawSampleFormat()};
    return audiofiles::openAudio(input, rawChannels > 0 ? std::optional(raw) : std::nullopt);
}

audiofiles::RawSampleFormat SeparationOptions::getRawSampleFormat() const {
    if (const auto format = audiofiles::parseRawSampleFormat(rawFormat)) return *format;
    throw Failure(
        ExitStatus::WrongUsage,
        "--raw-format " + rawFormat + ": has to be s16, s24, s32, f32 or f64 with le or be behind it");
}

BusControls SeparationOptions::getControls(const Model& opened) const {
    BusControls controls(static_cast<int>(opened.getBusNames().size()));
    controls.extrapolatesMasks = !keepsMasksShort;
    for (const std::string& text : sensitivities) {
        const BusSetting setting(opened, text, "--sensitivity", -100.0, 100.0);
        controls.sensitivities[static_cast<std::size_t>(setting.bus)] = static_cast<float>(setting.value);
    }
    return controls;
}

double SeparationOptions::getWorkingRate(const AudioReader& reader, const Model& opened) const {
    return resamples ? opened.network.sampleRate : reader.description.sampleRate;
}

AudioDescription SeparationOptions::describeOutput(const AudioDescription& input) const {
    AudioDescription description = input;
    if (!sampleFormat.empty()) {
        description.sampleFormat = audiofiles::parseSampleFormat(sampleFormat);
        if (description.sampleFormat == 0)
            throw Failure(ExitStatus::WrongUsage, "--sample-format " + sampleFormat +
                                                      ": has to be pcm16, pcm24, pcm32, float or double");
    }
    return description;
}

std::vector<std::string> SeparationOptions::getNotes(const AudioReader& reader,
                                                     const audiofiles::PassResult& pass) const {
    std::vector<std::string> notes;
    if (!reader.note.empty()) notes.push_back(reader.note);
    if (pass.numOfSamples == 0) notes.push_back(reader.name + ": holds no samples");
    if (pass.numOfReplacedValues > 0)
        notes.push_back(reader.name + ": " + std::to_string(pass.numOfReplacedValues) +
                        (pass.numOfReplacedValues == 1 ? " sample was not a number, and counts as 0"
                                                       : " samples were not numbers, and count as 0"));
    return notes;
}

}  // namespace zevrant::cli
