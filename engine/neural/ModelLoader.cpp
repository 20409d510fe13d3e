#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "neural/LayerTable.h"
#include "neural/NeuralModel.h"
#include "neural/StreamNumbers.h"

namespace zevrant {

namespace {

constexpr int earliestVersion = 0x1004;
constexpr int versionWithWindowSize = 0x1005;
constexpr int versionWithBusses = 0x1006;

struct PackingFields {
    int numBins = 0;
    int numFineBins = 0;
    int binGroupSize = 1;
    int numHistoryFrames = 1;
};

// The fields behind a packing code; false for a code that has none.
bool readPackingFields(InputStream& stream, int packing, PackingFields& fields) {
    switch (packing) {
        case 1:
        case 4:
            fields.numBins = readNumber<std::int16_t>(stream);
            return true;
        case 2:
        case 5:
        case 6:
            fields.numFineBins = readNumber<std::int16_t>(stream);
            fields.numBins = fields.numFineBins + readNumber<std::int16_t>(stream);
            if (packing == 5) {
                fields.numHistoryFrames = readNumber<std::int16_t>(stream);
                readNumber<std::int16_t>(stream);
            }
            if (packing == 6) fields.binGroupSize = readNumber<std::int8_t>(stream);
            return true;
        default:
            return false;
    }
}

// Towards zero; 0 for what no 32-bit integer holds, not-a-number included.
int truncateRate(double rate) {
    const bool fits = rate > std::numeric_limits<std::int32_t>::min() - 1.0 &&
                      rate < std::numeric_limits<std::int32_t>::max() + 1.0;
    return fits ? static_cast<int>(rate) : 0;
}

// The time that passes until the first frame is complete, through the network and the overlap-add.
int calcLatencyMilliseconds(int latencyInFrames, int windowSize, int hopSize, int rate) {
    const std::int64_t extraFrames = windowSize >= std::int64_t{3} * hopSize ? 3 : 2;
    const std::int64_t milliseconds = ((latencyInFrames + extraFrames) * hopSize * 1000 + rate / 2) / rate;
    return static_cast<int>(std::clamp<std::int64_t>(milliseconds, std::numeric_limits<int>::min(),
                                                     std::numeric_limits<int>::max()));
}

}  // namespace

template <class T>
bool NeuralModel<T>::loadModel(const File& file) {
    auto stream = std::make_shared<FileStream>();
    if (!stream->open(file, FileStream::Read, FileStream::OpenExisting)) return false;
    return loadModel(std::shared_ptr<InputStream>(std::move(stream)));
}

template <class T>
bool NeuralModel<T>::loadModel(std::shared_ptr<InputStream> stream) {
    processingMode = 0;
    latencyMilliseconds = 0;
    layers.clear();
    inputLayer = std::make_shared<InputLayer<T>>();
    layers["input"] = inputLayer;

    stream->setPosition(0);
    const std::string magic = stream->readString();
    const bool isEarlierFormat = magic == "KOLVE.model" || magic == "TQLe.model";
    if (magic != "zevrant.model" && !isEarlierFormat) return false;
    const int version = readNumber<std::int32_t>(*stream);
    if (version < earliestVersion) return false;
    if (isEarlierFormat) {
        readNumber<std::int16_t>(*stream);
        return false;
    }

    modelName = stream->readString();
    modelInfoText = stream->readString();
    sampleRate = readNumber(*stream, sampleRate);
    numOfInputChannels = readNumber<std::int8_t>(*stream);
    inputPacking = readNumber<std::int8_t>(*stream);
    PackingFields inputFields;
    const bool isInputPackingKnown = readPackingFields(*stream, inputPacking, inputFields);
    numHistoryFrames = inputFields.numHistoryFrames;
    binGroupSize = inputFields.binGroupSize;
    numFineBins = inputFields.numFineBins;
    if (!isInputPackingKnown) return false;
    numBins = inputFields.numBins;
    clearFrameHistory();

    processingMode = readNumber<std::int8_t>(*stream);
    numOfOutputChannels = readNumber<std::int8_t>(*stream);
    if (version >= versionWithBusses) {
        numOfOutputBusses = readNumber<std::int8_t>(*stream);
        for (int i = 0; i <= numOfOutputBusses; ++i) outputBusNames.push_back(stream->readString());
    } else {
        numOfOutputBusses = 1;
        outputBusNames.insert(outputBusNames.end(), {"Processed", "Residual"});
    }
    outputPacking = readNumber<std::int8_t>(*stream);
    PackingFields outputFields;  // the input's layout serves both ways
    if (!readPackingFields(*stream, outputPacking, outputFields)) return false;
    fftSize = readNumber<std::int16_t>(*stream);
    windowSize = version >= versionWithWindowSize ? readNumber<std::int16_t>(*stream) : fftSize;
    hopSize = readNumber<std::int16_t>(*stream);

    if (inputPacking == 6) {
        require(binGroupSize != 0, "packing 6: groups of no bins");
        tensorFrequencies = (numBins - numFineBins) / binGroupSize + numFineBins;
    } else {
        tensorFrequencies = 3 * numFineBins + numBins;
    }
    if (!readLayers(stream, version)) return false;
    latencyInFrames = inputLayer->measureLatency(1);

    const int rate = truncateRate(sampleRate);
    if (rate <= 0 || windowSize <= 0 || hopSize <= 0) return false;
    latencyMilliseconds = calcLatencyMilliseconds(latencyInFrames, windowSize, hopSize, rate);
    outputLayer = std::make_shared<OutputLayer<T>>(layers, stream);
    layers["output"] = outputLayer;
    return true;
}

template <class T>
bool NeuralModel<T>::readLayers(const std::shared_ptr<InputStream>& stream, int version) {
    const float levelScale = calcLevelScale();
    const int numOfLayers = readNumber<std::int32_t>(*stream);
    for (int i = 0; i < numOfLayers; ++i) {
        const std::string name = stream->readString();
        const int typeCode = readNumber<std::uint16_t>(*stream);
        auto layer = makeLayer(typeCode, {layers, stream, version, levelScale});
        if (!layer) return false;
        layers[name] = std::move(layer);
    }
    return true;
}

// Layers that measure levels were trained on plain half spectra. A packing of more or fewer numbers per
// spectrum changes the root mean square, and the square root of the ratio of both counts undoes that.
template <class T>
float NeuralModel<T>::calcLevelScale() const {
    if (numHistoryFrames != 1 || numBins < fftSize / 2 || binGroupSize != 1) return 1.0f;
    const int columns = numOfInputChannels * getBinLayout(inputPacking).getColumnsPerChannel();
    const int numOfValues = columns * tensorFrequencies;
    const int numOfPlainValues = numOfInputChannels * (fftSize / 2 + 1);
    if (numOfValues <= 0 || numOfPlainValues <= 0) return 1.0f;
    return std::sqrt(static_cast<float>(numOfValues) / static_cast<float>(numOfPlainValues));
}

template bool NeuralModel<float>::loadModel(const File& file);
template bool NeuralModel<float>::loadModel(std::shared_ptr<InputStream> stream);
template bool NeuralModel<float>::readLayers(const std::shared_ptr<InputStream>& stream, int version);
template float NeuralModel<float>::calcLevelScale() const;

}  // namespace zevrant
