#include "modelwriter/ModelWriter.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "modelwriter/ByteWriter.h"

namespace zevrant::modelwriter {

namespace {

void writePackingFields(ByteWriter& writer, const Packing& packing) {
    switch (packing.code) {
        case 1:
        case 4:
            writer.writeInt16(packing.numOfBins, "the number of bins");
            return;
        case 2:
        case 5:
        case 6:
            writer.writeInt16(packing.numOfFineBins, "the number of fine bins");
            writer.writeInt16(packing.numOfBins, "the number of other bins");
            if (packing.code == 5) {
                writer.writeInt16(packing.numOfHistoryFrames, "the number of history frames");
                writer.writeInt16(0, "the ignored field");
            }
            if (packing.code == 6) writer.writeInt8(packing.binGroupSize, "the group size");
            return;
        default:
            throw std::invalid_argument("packing " + std::to_string(packing.code) + " does not exist");
    }
}

// Says which layer an error is about.
template <class Encode>
Bytes encodeNamed(const std::string& name, Encode encode) {
    try {
        return encode();
    } catch (const std::invalid_argument& error) {
        throw std::invalid_argument("layer \"" + name + "\": " + error.what());
    }
}

// A file that takes its place only when it is complete, and is gone otherwise.
class FileInWaiting {
  public:
    explicit FileInWaiting(const std::filesystem::path& finalPath) : path(finalPath), waitingPath(finalPath) {
        static std::atomic<int> counter{0};
        waitingPath += "." + std::to_string(getpid()) + "-" + std::to_string(counter++) + ".tmp";
    }
    ~FileInWaiting() {
        std::error_code ignored;
        if (!isInPlace) std::filesystem::remove(waitingPath, ignored);
    }
    FileInWaiting(const FileInWaiting&) = delete;
    FileInWaiting& operator=(const FileInWaiting&) = delete;

    void write(const Bytes& bytes) {
        std::ofstream stream(waitingPath, std::ios::binary);
        stream.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        stream.close();
        if (!stream)
            throw std::filesystem::filesystem_error("cannot write the model", waitingPath,
                                                    std::error_code(errno, std::generic_category()));
        std::filesystem::rename(waitingPath, path);
        isInPlace = true;
    }

  private:
    std::filesystem::path path;
    std::filesystem::path waitingPath;
    bool isInPlace = false;
};

}  // namespace

Packing Packing::magnitudes(int bins) {
    return {.code = 1, .numOfBins = bins};
}

Packing Packing::rectifiedParts(int fineBins, int otherBins) {
    return {.code = 2, .numOfBins = otherBins, .numOfFineBins = fineBins};
}

Packing Packing::complexBins(int bins) {
    return {.code = 4, .numOfBins = bins};
}

Packing Packing::frameHistory(int fineBins, int otherBins, int frames) {
    return {.code = 5, .numOfBins = otherBins, .numOfFineBins = fineBins, .numOfHistoryFrames = frames};
}

Packing Packing::complexGroups(int fineBins, int otherBins, int groupSize) {
    return {.code = 6, .numOfBins = otherBins, .numOfFineBins = fineBins, .binGroupSize = groupSize};
}

ModelWriter::ModelWriter(std::string nameOfModel, int fileVersion)
    : version(fileVersion), modelName(std::move(nameOfModel)) {
    requireArgument(version >= earliestVersion && version <= latestVersion,
                    "model files have versions 0x1004 to 0x100a");
}

ModelWriter& ModelWriter::setInfoText(std::string text) {
    infoText = std::move(text);
    return *this;
}

ModelWriter& ModelWriter::setSampleRate(double hertz) {
    sampleRate = hertz;
    return *this;
}

ModelWriter& ModelWriter::setChannels(int input, int output) {
    ByteWriter check(version);
    check.writeInt8(input, "the number of input channels");
    check.writeInt8(output, "the number of output channels");
    numOfInputChannels = input;
    numOfOutputChannels = output;
    return *this;
}

ModelWriter& ModelWriter::setProcessingMode(int mode) {
    ByteWriter(version).writeInt8(mode, "the processing mode");
    processingMode = mode;
    return *this;
}

ModelWriter& ModelWriter::setBusses(std::vector<std::string> names) {
    requireArgument(version >= 0x1006, "bus names need version 0x1006");
    ByteWriter(version).writeInt8(static_cast<int>(names.size()) - 1, "the number of busses");
    busNames = std::move(names);
    return *this;
}

ModelWriter& ModelWriter::setFrames(int fft, int window, int hop) {
    requireArgument(version >= 0x1005 || window == fft,
                    "a window other than the transform needs version 0x1005");
    ByteWriter check(version);
    check.writeInt16(fft, "fftSize");
    check.writeInt16(window, "windowSize");
    check.writeInt16(hop, "hopSize");
    fftSize = fft;
    windowSize = window;
    hopSize = hop;
    return *this;
}

ModelWriter& ModelWriter::setPacking(const Packing& both) {
    return setPacking(both, both);
}

ModelWriter& ModelWriter::setPacking(const Packing& input, const Packing& output) {
    ByteWriter check(version);
    writePackingFields(check, input);
    writePackingFields(check, output);
    inputPacking = input;
    outputPacking = output;
    return *this;
}

ModelWriter& ModelWriter::setTensorStorage(TensorStorage storage) {
    requireArgument(storage == TensorStorage::SinglePrecision || version >= 0x1009,
                    "half precision needs version 0x1009");
    tensorStorage = storage;
    return *this;
}

void ModelWriter::requireSource(const std::string& name, const std::string& user) const {
    requireArgument(layerNames.count(name) != 0, user + ": no layer \"" + name + "\" stands before it");
}

void ModelWriter::addRecord(const std::string& name, int typeCode, const Bytes& payload) {
    requireArgument(name != "output" && layerNames.count(name) == 0,
                    "layer \"" + name + "\": the name is taken");
    ByteWriter record(version);
    record.writeString(name);
    record.writeUint16(typeCode, "the type code");
    layerRecords.insert(layerRecords.end(), record.bytes.begin(), record.bytes.end());
    layerRecords.insert(layerRecords.end(), payload.begin(), payload.end());
    layerNames.insert(name);
    ++numOfLayers;
}

ModelWriter& ModelWriter::addLayer(const std::string& name, const std::string& source,
                                   const SingleSourceLayer& layer) {
    requireSource(source, "layer \"" + name + "\"");
    addRecord(name, getTypeCode(layer),
              encodeNamed(name, [&] { return encodeLayer(source, layer, version, tensorStorage); }));
    return *this;
}

ModelWriter& ModelWriter::addLayer(const std::string& name, const std::vector<std::string>& sources,
                                   const MergingLayer& layer) {
    for (const std::string& source : sources) requireSource(source, "layer \"" + name + "\"");
    addRecord(name, getTypeCode(layer),
              encodeNamed(name, [&] { return encodeLayer(sources, layer, version); }));
    return *this;
}

ModelWriter& ModelWriter::addRawLayer(const std::string& name, int typeCode, const Bytes& payload) {
    addRecord(name, typeCode, payload);
    return *this;
}

ModelWriter& ModelWriter::setOutput(const std::string& source) {
    requireSource(source, "the output");
    outputSource = source;
    return *this;
}

Bytes ModelWriter::toBytes() const {
    if (outputSource.empty()) throw std::logic_error("no layer is set to feed the output");
    ByteWriter writer(version);
    writer.writeString("zevrant.model");
    writer.writeInt32(version, "version");
    writer.writeString(modelName);
    writer.writeString(infoText);
    writer.writeFloat64(sampleRate);
    writer.writeInt8(numOfInputChannels, "the number of input channels");
    writer.writeInt8(inputPacking.code, "the input packing");
    writePackingFields(writer, inputPacking);
    writer.writeInt8(processingMode, "the processing mode");
    writer.writeInt8(numOfOutputChannels, "the number of output channels");
    if (version >= 0x1006) {
        writer.writeInt8(static_cast<int>(busNames.size()) - 1, "the number of busses");
        for (const std::string& name : busNames) writer.writeString(name);
    }
    writer.writeInt8(outputPacking.code, "the output packing");
    writePackingFields(writer, outputPacking);
    writer.writeInt16(fftSize, "fftSize");
    if (version >= 0x1005) writer.writeInt16(windowSize, "windowSize");
    writer.writeInt16(hopSize, "hopSize");
    writer.writeInt32(numOfLayers, "the number of layers");
    writer.append(layerRecords);
    writer.writeString(outputSource);
    return std::move(writer.bytes);
}

void ModelWriter::write(const std::filesystem::path& path) const {
    FileInWaiting(path).write(toBytes());
}

}  // namespace zevrant::modelwriter
