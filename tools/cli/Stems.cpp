#include "cli/Stems.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "audiofiles/SampleFormat.h"
#include "audiofiles/StemFiles.h"

namespace zevrant::cli {

namespace fs = std::filesystem;

namespace {

// Of exact stems, above which they do not add up: some 40 dB above what rounding leaves.
constexpr double worstNullDepth = -90.0;

using Writers = std::vector<std::unique_ptr<audiofiles::AudioWriter>>;

std::string formatDecibels(double level) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f dB", level);
    return text;
}

// Writes the channels of each stem, and measures the sums of what the engine gave and of what is written.
class StemsWriter {
  public:
    StemsWriter(const Writers& outputs, Stems& result) : writers(outputs), stems(result) {}

    void write(const audiofiles::PassBlock& block) {
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
            stems.exactNull.add(double{block.input[i]}, exactSum[i]);
            stems.writtenNull.add(double{block.input[i]}, writtenSum[i]);
        }
    }

  private:
    const Writers& writers;
    Stems& stems;
    std::vector<float> stem;
    std::vector<double> exactSum, writtenSum;
    std::vector<std::int32_t> integers;
};

}  // namespace

double NullMeter::getDepth() const {
    return 10.0 * std::log10(differenceEnergy / inputEnergy);
}

std::string Stems::describeNullDepth() const {
    const std::string start = "null depth: ";
    if (writtenNull.isSilent()) return start + "the input is silent, and so is the sum of the stems";
    if (std::isnan(exactNull.getDepth())) return start + "none, since the stems are not finite";
    if (isCoded) return start + "none, since coded files only come near the stems; flac and wav keep them";
    if (integerBits == 0) return start + formatDecibels(writtenNull.getDepth());
    return start + formatDecibels(writtenNull.getDepth()) + " as written with " +
           std::to_string(integerBits) + " bits, " + formatDecibels(exactNull.getDepth()) + " before that";
}

bool Stems::addUp() const {
    return exactNull.isSilent() || exactNull.getDepth() < worstNullDepth;
}

Stems writeStems(const SeparationOptions& options, const Model& model, const std::string& input,
                 const fs::path& folder, const std::string& extension,
                 const audiofiles::ProtectedFiles& inputs,
                 const std::function<void(std::int64_t, const AudioDescription&)>& show) {
    const auto reader = options.openInput(input);
    const AudioDescription description = options.describeOutput(reader->description);
    const double workingRate = options.getWorkingRate(*reader, model);
    Separator splitter(model, Output::Busses, description.numOfChannels, workingRate,
                       options.channelsPerGroup);
    options.getControls(model).applyTo(splitter);

    audiofiles::OutputFolder outputFolder(folder);
    const std::string ending = extension.empty() ? audiofiles::chooseExtension(description) : extension;
    Stems stems;
    Writers writers;
    for (const std::string& name : audiofiles::makeFileNames(model.getBusNames())) {
        stems.paths.push_back((folder / (name + "." + ending)).string());
        writers.push_back(audiofiles::createAudio(stems.paths.back(), description, inputs));
    }
    stems.integerBits = writers.front()->integerBits;
    stems.isCoded = writers.front()->isCoded;

    StemsWriter writer(writers, stems);
    std::int64_t numOfSamples = 0;
    const audiofiles::PassResult pass = audiofiles::runPass(
        *reader, splitter, workingRate, options.blockSize, [&](const audiofiles::PassBlock& block) {
            writer.write(block);
            show(numOfSamples += block.numOfSamples, description);
        });
    for (const auto& output : writers) output->close();
    for (const auto& output : writers) output->commit();
    outputFolder.keep();

    stems.notes = options.getNotes(*reader, pass);
    std::int64_t numOfClippedValues = 0;
    for (const auto& output : writers) numOfClippedValues += output->numOfClippedValues;
    if (numOfClippedValues > 0)
        stems.notes.push_back(reader->name + ": " + std::to_string(numOfClippedValues) +
                              " values of its stems were clipped; --sample-format float keeps them");
    return stems;
}

}  // namespace zevrant::cli
