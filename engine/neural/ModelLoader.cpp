#include "neural/ModelLoader.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include "neural/LayerReport.h"
#include "neural/LayerTable.h"
#include "neural/ModelLimits.h"
#include "neural/ModelReport.h"
#include "neural/NeuralModel.h"
#include "neural/RecordStream.h"

namespace zevrant {

namespace {

constexpr int earliestVersion = 0x1004;
constexpr int versionWithWindowSize = 0x1005;
constexpr int versionWithBusses = 0x1006;

// What the field that was read last is refused for.
struct Refusal {
    std::string value;
    std::string problem;
    std::string remedy{};
};

// Nothing, where the file can be read on.
using Verdict = std::optional<Refusal>;

struct PackingFields {
    int numBins = 0;
    int numFineBins = 0;
    int binGroupSize = 1;
    int numHistoryFrames = 1;
};

// The fields behind a packing code.
Verdict readPackingFields(InputStream& stream, int packing, PackingFields& fields) {
    switch (packing) {
        case 1:
        case 4:
            fields.numBins = readNumber<std::int16_t>(stream, "bins");
            return {};
        case 2:
        case 5:
        case 6:
            fields.numFineBins = readNumber<std::int16_t>(stream, "fine bins");
            fields.numBins = fields.numFineBins + readNumber<std::int16_t>(stream, "other bins");
            if (packing == 5) {
                fields.numHistoryFrames = readNumber<std::int16_t>(stream, "history frames");
                readNumber<std::int16_t>(stream, "ignored field");
            }
            if (packing == 6) fields.binGroupSize = readNumber<std::int8_t>(stream, "group size");
            return {};
        default:
            return Refusal{std::to_string(packing), "this packing is not known", "1, 2, 4 or 6"};
    }
}

Verdict readMagicAndVersion(RecordStream& stream, int& version) {
    const std::string magic = readText(stream, "magic");
    const bool isEarlierFormat = magic == "KOLVE.model" || magic == "TQLe.model";
    if (magic != "zevrant.model" && !isEarlierFormat) return Refusal();
    version = readNumber<std::int32_t>(stream, "version");
    if (version < earliestVersion) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "0x%x", static_cast<unsigned>(version));
        return Refusal{digits, "this version of the format is not supported", "0x1004 or later"};
    }
    if (!isEarlierFormat) return {};
    readNumber<std::int16_t>(stream);
    stream.pointAt({}, "magic");
    return Refusal{magic, "a model of an earlier format, which is not supported"};
}

template <class T>
Verdict readInputFields(InputStream& stream, NeuralModel<T>& model) {
    model.modelName = readText(stream, "modelName");
    model.modelInfoText = readText(stream, "modelInfoText");
    model.sampleRate = readNumber(stream, "sampleRate", model.sampleRate);
    model.numOfInputChannels = readNumber<std::int8_t>(stream, "numOfInputChannels");
    model.inputPacking = readNumber<std::int8_t>(stream, "inputPacking");
    PackingFields fields;
    Verdict verdict = readPackingFields(stream, model.inputPacking, fields);
    model.numHistoryFrames = fields.numHistoryFrames;
    model.binGroupSize = fields.binGroupSize;
    model.numFineBins = fields.numFineBins;
    if (verdict) return verdict;
    model.numBins = fields.numBins;
    model.clearFrameHistory();
    return {};
}

template <class T>
Verdict readOutputFields(RecordStream& stream, int version, NeuralModel<T>& model) {
    model.processingMode = readNumber<std::int8_t>(stream, "processingMode");
    model.numOfOutputChannels = readNumber<std::int8_t>(stream, "numOfOutputChannels");
    if (version >= versionWithBusses) {
        model.numOfOutputBusses = readNumber<std::int8_t>(stream, "numOfOutputBusses");
        for (int i = 0; i <= model.numOfOutputBusses; ++i)
            model.outputBusNames.push_back(readText(stream, "outputBusNames"));
    } else {
        model.numOfOutputBusses = 1;
        model.outputBusNames.insert(model.outputBusNames.end(), {"Processed", "Residual"});
    }
    model.outputPacking = readNumber<std::int8_t>(stream, "outputPacking");
    PackingFields ignored;  // the input's layout serves both ways
    if (Verdict verdict = readPackingFields(stream, model.outputPacking, ignored)) return verdict;
    model.fftSize = readNumber<std::int16_t>(stream, "fftSize");
    model.windowSize =
        version >= versionWithWindowSize ? readNumber<std::int16_t>(stream, "windowSize") : model.fftSize;
    model.hopSize = readNumber<std::int16_t>(stream, "hopSize");

    if (model.inputPacking == 6) {
        if (model.binGroupSize == 0) stream.pointAt({}, "group size");
        require(model.binGroupSize != 0, "packing 6: groups of no bins");
        model.tensorFrequencies =
            (model.numBins - model.numFineBins) / model.binGroupSize + model.numFineBins;
    } else {
        model.tensorFrequencies = 3 * model.numFineBins + model.numBins;
    }
    return {};
}

// Layers that measure levels were trained on plain half spectra. A packing of more or fewer numbers per
// spectrum changes the root mean square, and the square root of the ratio of both counts undoes that.
template <class T>
float calcLevelScale(const NeuralModel<T>& model) {
    if (model.numHistoryFrames != 1 || model.numBins < model.fftSize / 2 || model.binGroupSize != 1)
        return 1.0f;
    const bool isComplex = model.inputPacking == 4 || model.inputPacking == 6;
    const int numOfValues = model.numOfInputChannels * (isComplex ? 2 : 1) * model.tensorFrequencies;
    const int numOfPlainValues = model.numOfInputChannels * (model.fftSize / 2 + 1);
    if (numOfValues <= 0 || numOfPlainValues <= 0) return 1.0f;
    return std::sqrt(static_cast<float>(numOfValues) / static_cast<float>(numOfPlainValues));
}

// Layers that others of their name have taken the place of, until they end together.
class ReplacedLayers {
  public:
    ReplacedLayers() = default;
    ReplacedLayers(const ReplacedLayers&) = delete;
    ReplacedLayers& operator=(const ReplacedLayers&) = delete;
    ~ReplacedLayers() { takeDown(layers); }

    void keep(LayerMap::mapped_type layer) {
        layers.emplace(std::to_string(layers.size()), std::move(layer));
    }

  private:
    LayerMap layers;
};

template <class T>
Verdict readLayers(const std::shared_ptr<RecordStream>& stream, int version, NeuralModel<T>& model,
                   std::vector<Finding>& findings) {
    const float levelScale = calcLevelScale(model);
    ReplacedLayers replaced;
    const int numOfLayers = readNumber<std::int32_t>(*stream, "number of layers");
    for (int i = 0; i < numOfLayers; ++i) {
        const std::string name = readText(*stream, "name of a layer");
        stream->enterLayer(name);
        const int typeCode = readNumber<std::uint16_t>(*stream, "type");
        auto layer = makeLayer(typeCode, {model.layers, stream, version, levelScale});
        if (!layer) return Refusal{std::to_string(typeCode), "no layer has this code"};
        const auto namesake = model.layers.find(name);
        if (name == "output" || namesake != model.layers.end())
            findings.push_back({Finding::Error,
                                name,
                                "name",
                                {},
                                "is taken, so that one layer takes the place of another and its links go"});
        if (namesake == model.layers.end())
            model.layers.emplace(name, std::move(layer));
        else
            replaced.keep(std::exchange(namesake->second, std::move(layer)));
    }
    stream->enterLayer({});
    return {};
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

// The name of a layer whose stride does not let latencies be measured.
template <class T>
std::string findStrideOfNone(const NeuralModel<T>& model) {
    for (const auto& [name, entry] : model.layers) {
        LayerReport report;
        report.inputs = {{1, 1}};
        report.sources = {{}};
        std::get<std::shared_ptr<BaseLayer<T>>>(entry)->describe(report);
        for (const Finding& finding : report.findings)
            if (finding.field == "timeStride") return name;
    }
    return {};
}

template <class T>
Verdict measureLatency(RecordStream& stream, NeuralModel<T>& model) {
    try {
        model.latencyInFrames = model.inputLayer->measureLatency(1);
    } catch (const std::invalid_argument&) {
        stream.pointAt(findStrideOfNone(model), "timeStride");
        throw;
    } catch (const std::length_error&) {
        stream.pointAt({}, "timeStride");
        throw;
    }
    const int rate = truncateRate(model.sampleRate);
    for (const auto& [field, number] :
         {std::pair{"sampleRate", rate}, {"windowSize", model.windowSize}, {"hopSize", model.hopSize}})
        if (number <= 0) {
            stream.pointAt({}, field);
            return Refusal{std::to_string(number), "has to be 1 or more"};
        }
    model.latencyMilliseconds =
        calcLatencyMilliseconds(model.latencyInFrames, model.windowSize, model.hopSize, rate);
    return {};
}

template <class T>
void makeInput(NeuralModel<T>& model) {
    model.processingMode = 0;
    model.latencyMilliseconds = 0;
    takeDown(model.layers);
    model.inputLayer = std::make_shared<InputLayer<T>>();
    model.layers["input"] = model.inputLayer;
}

// A stream that does not know its length is taken to hold whatever it claims.
template <class T>
void allowForFile(const InputStream& stream, NeuralModel<T>& model) {
    const std::int64_t length = stream.getLength();
    model.inputLayer->getBudget()->extend(length > 0 ? multiplyLimited(length, limits::bytesPerByteOfFile)
                                                     : std::int64_t{1} << 40);
}

template <class T>
void readOutput(const std::shared_ptr<RecordStream>& stream, NeuralModel<T>& model) {
    model.outputLayer = std::make_shared<OutputLayer<T>>(model.layers, stream);
    model.layers["output"] = model.outputLayer;
}

template <class T>
Verdict readModel(const std::shared_ptr<RecordStream>& stream, NeuralModel<T>& model,
                  std::vector<Finding>& findings) {
    makeInput(model);
    allowForFile(*stream, model);
    const MemoryBudget::Scope scope(model.inputLayer->getBudget());
    stream->setPosition(0);
    int version = 0;
    if (Verdict verdict = readMagicAndVersion(*stream, version)) return verdict;
    if (Verdict verdict = readInputFields(*stream, model)) return verdict;
    if (Verdict verdict = readOutputFields(*stream, version, model)) return verdict;
    if (Verdict verdict = readLayers(stream, version, model, findings)) return verdict;
    if (Verdict verdict = measureLatency(*stream, model)) return verdict;
    readOutput(stream, model);
    stream->pointAt({}, "layers");
    requireModestGraph(describeModel(model));
    return {};
}

// ---- what is reported --------------------------------------------------------------------------

Finding toFinding(const RecordStream::Place& place, const Refusal& refusal) {
    return {Finding::Error,  place.layer,    place.field,   refusal.value,
            refusal.problem, refusal.remedy, place.position};
}

const Refusal missingBytes = {{}, "the file ends here"};

// A file that ends early leads to some refusal or other further on, and the end is its reason. What ends or
// throws in its first text is something else than a model.
Finding explainRefusal(const RecordStream& stream, const Refusal& refusal) {
    if (stream.getPlace().field == "magic" && refusal.value.empty())
        return toFinding(stream.getPlace(), {{}, "this is no model"});
    if (const auto& missing = stream.getFirstMissing()) return toFinding(*missing, missingBytes);
    return toFinding(stream.getPlace(), refusal);
}

Refusal toRefusal(const RecordStream::Place& place, const std::exception& error) {
    const bool isUnknownSource = place.field == "source" && dynamic_cast<const std::out_of_range*>(&error);
    if (isUnknownSource) return {"\"" + place.value + "\"", "no layer of this name stands before it"};
    return {{}, error.what()};
}

void lookAtTheEnd(const RecordStream& stream, std::vector<Finding>& findings) {
    if (const auto& missing = stream.getFirstMissing()) findings.push_back(toFinding(*missing, missingBytes));
    const long long position = stream.getPosition(), length = stream.getLength();
    if (position < length)
        findings.push_back({Finding::Warning,
                            {},
                            {},
                            {},
                            std::to_string(length - position) + " bytes behind the model are ignored",
                            {},
                            position});
}

}  // namespace

template <class T>
bool loadModel(const std::shared_ptr<InputStream>& stream, NeuralModel<T>& model, LoadReport& report) {
    report = {};
    const auto record = std::make_shared<RecordStream>(stream);
    try {
        if (const Verdict verdict = readModel(record, model, report.findings)) {
            report.refusal = explainRefusal(*record, *verdict);
            return false;
        }
    } catch (const std::exception& error) {
        report.refusal = explainRefusal(*record, toRefusal(record->getPlace(), error));
        throw;
    }
    lookAtTheEnd(*record, report.findings);
    return true;
}

template <class T>
bool loadModel(const File& file, NeuralModel<T>& model, LoadReport& report) {
    auto stream = std::make_shared<FileStream>();
    if (stream->open(file, FileStream::Read, FileStream::OpenExisting))
        return loadModel(std::shared_ptr<InputStream>(std::move(stream)), model, report);
    report = {};
    report.refusal = Finding{.problem = "the file cannot be opened"};
    return false;
}

template bool loadModel(const std::shared_ptr<InputStream>& stream, NeuralModel<float>& model,
                        LoadReport& report);
template bool loadModel(const File& file, NeuralModel<float>& model, LoadReport& report);

}  // namespace zevrant
