#include "processors/ZevrantProcessor.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <future>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "DspCore/VectorOperations.h"
#include "neural/ModelLimits.h"
#include "neural/ModelReport.h"
#include "simd/FloatingPointState.h"

namespace zevrant {

namespace {

// The bound on frames that wait for their results.
constexpr std::int64_t fewestFrames = 1024;
constexpr std::int64_t mostBytesOfFrames = std::int64_t{256} << 20;

bool hasControls(int bus) {
    return bus >= 0 && bus < ZevrantProcessor::numOfControls;
}

int toInt(double value, const char* text) {
    if (!(value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max()))
        throw std::length_error(text);
    return static_cast<int>(value);
}

void requireShape(const ComplexSignal32& signal, const ComplexSignal32& shape, const char* text) {
    if (signal.numOfChannels < shape.numOfChannels || signal.numOfSamples < shape.numOfSamples)
        throw std::out_of_range(text);
}

ComplexSignal32 scale(const ComplexSignal32& signal, float gain) {
    ComplexSignal32 scaled(signal.numOfChannels, signal.numOfSamples);
    for (int c = 0; c < signal.numOfChannels; ++c)
        vo::constantMultiply(vo::asReals(signal.getReadChannelPtr(c)), gain,
                             vo::asReals(scaled.getWriteChannelPtr(c)), 2 * signal.numOfSamples);
    return scaled;
}

// Adds a term to a sum that starts as a default signal and then takes the first term over.
void addTerm(ComplexSignal32& sum, const ComplexSignal32& term) {
    if (sum.data && sum.numOfSamples > 0) requireShape(term, sum, "a bus lacks channels or bins");
    sum += term;
}

// 1 - signal
ComplexSignal32 subtractFromOne(const ComplexSignal32& signal) {
    ComplexSignal32 difference(signal.numOfChannels, signal.numOfSamples, {1.0f, 0.0f});
    for (int c = 0; c < signal.numOfChannels; ++c) {
        std::complex<float>* row = difference.getWriteChannelPtr(c);
        vo::subtract(signal.getReadChannelPtr(c), row, row, signal.numOfSamples);
    }
    return difference;
}

// Turns a mask into the part of the frame that it lets through.
void applyMask(const ComplexSignal32& frame, ComplexSignal32& mask) {
    requireShape(frame, mask, "the input lacks channels or bins of the masks");
    for (int c = 0; c < mask.numOfChannels; ++c) {
        std::complex<float>* row = mask.getWriteChannelPtr(c);
        vo::multiply(frame.getReadChannelPtr(c), row, row, mask.numOfSamples);
    }
}

// Waits on its way out for every task that was started, so that none outlives the frame.
struct RunningModels {
    ~RunningModels() {
        for (auto& future : futures)
            if (future.valid()) future.wait();
    }
    std::vector<std::future<void>> futures;
};

}  // namespace

ZevrantProcessor::ZevrantProcessor() {
    spectralFlag = false;
    for (auto& sensitivity : sensitivities) sensitivity = 0.0f;
    for (auto& gain : gains) gain = 1.0f;
}

ZevrantProcessor::~ZevrantProcessor() = default;

// ---- loading and formats ----------------------------------------------------------------------

bool ZevrantProcessor::loadModelFiles(const std::vector<File>& files) {
    return fillModels(files.size(), [&](std::size_t i) { return neuralModels[i].loadModel(files[i]); });
}

bool ZevrantProcessor::setModels(const std::vector<NeuralModel<float>>& models) {
    return fillModels(models.size(), [&](std::size_t i) {
        neuralModels[i] = models[i];
        return true;
    });
}

template <class Fill>
bool ZevrantProcessor::fillModels(std::size_t count, const Fill& fill) {
    numOfModels = static_cast<std::int32_t>(count);
    neuralModels.resize(count);
    modelInputFormat = {};
    modelOutputFormat = {};
    outputBusNames.clear();
    for (std::size_t i = 0; i < count; ++i) {
        if (!fill(i)) return false;
        const NeuralModel<float>& model = neuralModels[i];
        requireModestFrames(model);
        if (!agreesInFrameSizes(model)) return false;
        if (!acceptFormat(modelInputFormat, model.numOfInputChannels, model.sampleRate)) return false;
        if (!acceptFormat(modelOutputFormat, model.numOfOutputChannels, model.sampleRate)) return false;
        outputBusNames.insert(outputBusNames.end(), model.outputBusNames.begin(), model.outputBusNames.end());
    }
    emptyBusOutputs();

    if (inputFormat.isSet()) {
        if (!BaseAudioProcessor::setFormat(inputFormat, inputFormat)) return false;
        updateBlockSize();
    }
    if (numOfModels >= 2) threadPool = std::make_unique<ThreadPool>(numOfModels);
    return true;
}

// The transform lengths of models may differ; only the framing has to be one.
bool ZevrantProcessor::agreesInFrameSizes(const NeuralModel<float>& model) const {
    const auto first = std::find_if(neuralModels.begin(), neuralModels.end(),
                                    [](const auto& candidate) { return candidate.windowSize != 0; });
    if (first == neuralModels.end()) return true;
    return model.windowSize == first->windowSize && model.hopSize == first->hopSize;
}

// The first model sets the format, and every other has to have the same.
bool ZevrantProcessor::acceptFormat(AudioFormat& modelFormat, int numOfChannels, double sampleRate) {
    AudioFormat format;
    format.createDefaultChannelMapping(numOfChannels);
    format.sampleRate = sampleRate;
    if (modelFormat.isSet())
        return format.sampleRate == modelFormat.sampleRate &&
               format.channelMapping == modelFormat.channelMapping;
    modelFormat = format;
    return true;
}

bool ZevrantProcessor::setFormat(const AudioFormat& input, const AudioFormat& output) {
    if (!modelInputFormat.isSet() || !modelOutputFormat.isSet()) return false;
    if (!BaseAudioProcessor::setFormat(input, output)) return false;
    updateBlockSize();
    return true;
}

void ZevrantProcessor::updateBlockSize() {
    constexpr const char* text = "the sample rates differ by more than frame sizes can follow";
    blockSizeExponent = 0;
    if (inputFormat.isSet() && modelInputFormat.isSet() && !neuralModels.empty()) {
        const double ratio = inputFormat.sampleRate / modelOutputFormat.sampleRate;
        const double exponent = std::log(ratio) / 0.6931471805599453;
        blockSizeExponent = toInt(ratio >= 1.0 ? std::round(exponent) : std::ceil(exponent), text);
    }
    if (neuralModels.empty()) return;
    const double factor = std::ldexp(1.0, blockSizeExponent);
    const NeuralModel<float>& model = neuralModels.front();
    const auto follow = [&](int size) {
        const double scaled = std::nearbyint(size * factor);
        if (scaled > limits::frameSize) throw std::length_error(text);
        return toInt(scaled, text);
    };
    for (const NeuralModel<float>& each : neuralModels) {
        const int numOfBusses = std::clamp<int>(each.numOfOutputBusses, 0, numOfControls);
        const int numOfChannels = std::max(each.numOfInputChannels, each.numOfOutputChannels * numOfBusses);
        if (std::int64_t{numOfChannels} * (follow(model.fftSize) / 2 + 1) > limits::binsOfSpectra)
            throw std::length_error("the spectra of all channels have too many bins");
    }
    setBlocking(follow(model.fftSize), follow(model.windowSize), follow(model.hopSize));
    maskShaping.reserve(fftSize / 2 + 1);
}

int ZevrantProcessor::getLatency(int blockSize) const {
    std::int64_t modelLatency = 0;
    for (const auto& model : neuralModels)
        modelLatency = std::max<std::int64_t>(modelLatency, model.latencyInFrames);
    const std::int64_t latency = BaseSpectralProcessor::getLatency(blockSize) + modelLatency * hopSize;
    return toInt(static_cast<double>(latency), "a latency of 2^31 samples or more");
}

void ZevrantProcessor::reset() {
    BaseSpectralProcessor::reset();
    resultNodes.clear(inputFrames);
    emptyBusOutputs();
    for (auto& model : neuralModels) model.reset();
}

void ZevrantProcessor::startOver() {
    for (auto& model : neuralModels) model.startOver();
    reset();
}

void ZevrantProcessor::emptyBusOutputs() {
    for (auto& list : busOutputs) resultNodes.clear(list);
    busOutputs.resize(static_cast<std::size_t>(getNumOfBusLists()));
    numOfOutdatedResults.assign(busOutputs.size(), 0);
}

// ---- busses and controls ----------------------------------------------------------------------

int ZevrantProcessor::getNumOfOutputBusses(bool includeResidual) const {
    const int numOfNames = static_cast<int>(outputBusNames.size());
    return includeResidual ? numOfNames : std::max(numOfNames - 1, 0);
}

std::string ZevrantProcessor::getOutputBusName(int index) const {
    if (index < 0 || index >= getNumOfOutputBusses(true)) return {};
    return *std::next(outputBusNames.begin(), index);
}

bool ZevrantProcessor::isQueueEmpty() {
    return inputFrames.empty() ||
           std::any_of(busOutputs.begin(), busOutputs.end(), [](const auto& list) { return list.empty(); });
}

float ZevrantProcessor::getSensitivity(int bus) const {
    return hasControls(bus) ? sensitivities[static_cast<std::size_t>(bus)].load() : 0.0f;
}

void ZevrantProcessor::setSensitivity(int bus, float value) {
    if (hasControls(bus) && !std::isnan(value))
        sensitivities[static_cast<std::size_t>(bus)] = std::clamp(value, -100.0f, 100.0f);
}

float ZevrantProcessor::getGain(int bus) const {
    return hasControls(bus) ? gains[static_cast<std::size_t>(bus)].load() : 0.0f;
}

void ZevrantProcessor::setGain(int bus, float value) {
    if (hasControls(bus) && !std::isnan(value)) gains[static_cast<std::size_t>(bus)] = std::max(value, 0.0f);
}

bool ZevrantProcessor::getMaskExtrapolationEnabled() const {
    return maskExtrapolation != 0.0f;
}

void ZevrantProcessor::setMaskExtrapolationEnabled(bool enabled) {
    maskExtrapolation = enabled ? 1.0f : 0.0f;
}

// ---- one frame --------------------------------------------------------------------------------

Signal32 ZevrantProcessor::process(const Signal32& input) {
    return BaseSpectralProcessor::process(input);
}

std::list<ComplexSignal32> ZevrantProcessor::process(const ComplexSignal32& spectrum) {
    resultNodes.append(inputFrames, spectrum);
    boundQueues();

    const int numOfModelChannels = modelInputFormat.getNumOfChannels();
    const ComplexSignal32 modelInput = ensureChannelFormat(spectrum, numOfModelChannels);
    if (modelInput.numOfChannels < numOfModelChannels) throw std::out_of_range("a frame lacks channels");
    const bool extrapolates = getMaskExtrapolationEnabled();
    for (auto& model : neuralModels) model.maskExtrapolationEnabled = extrapolates;
    if (threadPool)
        runModelsInPool(modelInput);
    else
        runModels(modelInput);

    std::list<ComplexSignal32> output;
    const bool outputsAreSpectra = neuralModels.at(0).processingMode != 0;
    while (!isQueueEmpty()) {
        resultNodes.append(output, mixOldestFrame(outputsAreSpectra));
        resultNodes.removeFront(inputFrames);
    }
    return output;
}

void ZevrantProcessor::runModels(const ComplexSignal32& modelInput) {
    modelResults.resize(neuralModels.size());
    int busIndex = 0;
    for (std::size_t i = 0; i < neuralModels.size(); ++i) {
        neuralModels[i].process(modelInput, modelResults[i]);
        appendToBusOutputs(busIndex, neuralModels[i].numOfOutputBusses, modelResults[i]);
    }
}

void ZevrantProcessor::runModelsInPool(const ComplexSignal32& modelInput) {
    modelResults.resize(neuralModels.size());
    RunningModels running;
    running.futures.reserve(neuralModels.size());
    for (std::size_t i = 0; i < neuralModels.size(); ++i)
        running.futures.push_back(threadPool->add([this, i, modelInput] {
            const ScopedFlushDenormals flushDenormals;
            neuralModels[i].process(modelInput, modelResults[i]);
        }));
    int busIndex = 0;
    for (std::size_t i = 0; i < neuralModels.size(); ++i) {
        running.futures[i].get();
        appendToBusOutputs(busIndex, neuralModels[i].numOfOutputBusses, modelResults[i]);
    }
}

ComplexSignal32 ZevrantProcessor::ensureChannelFormat(const ComplexSignal32& signal, int numOfChannels) {
    if (signal.numOfChannels == numOfChannels) return signal;
    if (signal.numOfChannels < 1 && numOfChannels >= 2) throw std::out_of_range("a frame without channels");
    ComplexSignal32 mono = signal;
    if (signal.numOfChannels >= 2)
        mono = ComplexSignal32::sumChannels(signal) *
               std::complex<float>(1.0f / static_cast<float>(signal.numOfChannels), 0.0f);
    return mono.createMultichannelSignal(numOfChannels);
}

void ZevrantProcessor::appendToBusOutputs(int& busIndex, int numOfBusses,
                                          const std::vector<ComplexSignal32>& results) {
    const int numOfChannels = modelOutputFormat.getNumOfChannels();
    const bool isUsed = !results.empty() && numOfBusses > 0;
    if (isUsed && (busIndex < 0 || std::int64_t{busIndex} + numOfBusses > std::ssize(busOutputs)))
        throw std::out_of_range("a model has more busses than bus names");
    numOfOutdatedResults.resize(busOutputs.size());
    for (const auto& result : results) {
        if (isUsed && result.numOfChannels < std::int64_t{numOfBusses} * numOfChannels)
            throw std::out_of_range("a model's result has fewer rows than its busses have channels");
        for (int bus = 0; bus < numOfBusses; ++bus) {
            const auto index = static_cast<std::size_t>(busIndex + bus);
            if (numOfOutdatedResults[index] > 0) {
                --numOfOutdatedResults[index];
                continue;
            }
            auto& list = busOutputs[index];
            if (std::ssize(list) >= mostWaitingFrames) continue;
            ComplexSignal32 signal(numOfChannels, result.numOfSamples);
            for (int c = 0; c < numOfChannels; ++c)
                vo::copy(result.getReadChannelPtr(bus * numOfChannels + c), signal.getWriteChannelPtr(c),
                         result.numOfSamples);
            resultNodes.append(list, std::move(signal));
        }
    }
    busIndex += numOfBusses;
}

// Drops the oldest frames from all lists where more wait than the bound.
void ZevrantProcessor::boundQueues() {
    const ComplexSignal32& newest = inputFrames.back();
    const auto bytesPerFrame = static_cast<std::int64_t>(sizeof(std::complex<float>)) *
                               std::max(newest.numOfChannels, 1) * std::max(newest.numOfSamples, 1);
    mostWaitingFrames =
        std::clamp(mostBytesOfFrames / bytesPerFrame, fewestFrames, ZevrantProcessor::mostFrames);
    numOfOutdatedResults.resize(busOutputs.size());
    while (std::ssize(inputFrames) > mostWaitingFrames) {
        resultNodes.removeFront(inputFrames);
        for (std::size_t i = 0; i < busOutputs.size(); ++i) {
            if (busOutputs[i].empty())
                ++numOfOutdatedResults[i];
            else
                resultNodes.removeFront(busOutputs[i]);
        }
    }
}

// Forms one output spectrum from the oldest input and the oldest entry of every list, and takes the
// latter out.
ComplexSignal32 ZevrantProcessor::mixOldestFrame(bool outputsAreSpectra) {
    const ComplexSignal32& frame = inputFrames.front();
    const auto residualBus = static_cast<std::size_t>(getNumOfBusLists());
    if (residualBus >= numOfControls) throw std::out_of_range("more than 16 busses");

    ComplexSignal32 busSum, outputSum;
    for (std::size_t bus = 0; bus < residualBus; ++bus) {
        ComplexSignal32 busSignal =
            ensureChannelFormat(busOutputs.at(bus).front(), outputFormat.getNumOfChannels());
        if (!outputsAreSpectra) busSignal = processSensitivity(sensitivities[bus], busSignal);
        addTerm(busSum, busSignal);
        const ComplexSignal32 scaled = scale(busSignal, gains[bus]);
        handOutBus(bus, scaled, outputsAreSpectra);
        addTerm(outputSum, scaled);
        resultNodes.removeFront(busOutputs[bus]);
    }

    ComplexSignal32 residual;
    if (outputsAreSpectra) {
        requireShape(busSum, frame, "the busses lack channels or bins of the input");
        residual = frame - busSum;
    } else {
        residual = processSensitivity(sensitivities[residualBus], subtractFromOne(busSum));
    }
    residual = scale(residual, gains[residualBus]);
    handOutBus(residualBus, residual, outputsAreSpectra);
    addTerm(outputSum, residual);
    if (!outputsAreSpectra) applyMask(inputFrames.front(), outputSum);
    return outputSum;
}

void ZevrantProcessor::handOutBus(std::size_t bus, const ComplexSignal32& scaled, bool isSpectrum) const {
    if (!busReceiver) return;
    ComplexSignal32 spectrum = scaled;
    if (!isSpectrum) applyMask(inputFrames.front(), spectrum);
    busReceiver(static_cast<int>(bus), spectrum);
}

// ---- sensitivity ------------------------------------------------------------------------------

ComplexSignal32 ZevrantProcessor::processSensitivity(float sensitivity, const ComplexSignal32& mask) {
    return maskShaping.shape(mask, sensitivity, outputFormat.getNumOfChannels(), fftSize / 2 + 1);
}

}  // namespace zevrant
