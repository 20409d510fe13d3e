#include "processors/ZevrantProcessor.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <complex>
#include <future>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "DspCore/VectorOperations.h"
#include "DspCore/simd/FloatingPointState.h"

namespace zevrant {

namespace {

// The bound on frames that wait for their results.
constexpr std::int64_t fewestFrames = 1024;
constexpr std::int64_t mostBytesOfFrames = std::int64_t{256} << 20;

constexpr float floorOfMagnitude = 1e-12f;
constexpr float pi = 3.1415927f;

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

// Bins as pairs of real numbers.
float* asReals(std::complex<float>* bins) {
    return reinterpret_cast<float*>(bins);
}
const float* asReals(const std::complex<float>* bins) {
    return reinterpret_cast<const float*>(bins);
}

// Whether no value is NaN or of a magnitude above limit. Without their sign bits, floats order like the
// integers of the same bits, with NaN at the top, and integers compare in vectors on every processor.
bool areBounded(const float* values, int count, float limit) {
    const auto highest = std::bit_cast<std::int32_t>(limit);
    std::int32_t anyOther = 0;
    for (int i = 0; i < count; ++i)
        anyOther |= (std::bit_cast<std::int32_t>(values[i]) & 0x7fffffff) > highest;
    return anyOther == 0;
}

// Whether all moduli are sure to be finite: the square of no part overflows.
bool hasFiniteModuli(const ComplexSignal32& signal) {
    for (int c = 0; c < signal.numOfChannels; ++c)
        if (!areBounded(asReals(signal.getReadChannelPtr(c)), 2 * signal.numOfSamples, 1e18f)) return false;
    return true;
}

ComplexSignal32 scale(const ComplexSignal32& signal, float gain) {
    ComplexSignal32 scaled(signal.numOfChannels, signal.numOfSamples);
    for (int c = 0; c < signal.numOfChannels; ++c)
        vo::constantMultiply(asReals(signal.getReadChannelPtr(c)), gain,
                             asReals(scaled.getWriteChannelPtr(c)), 2 * signal.numOfSamples);
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
    const auto follow = [&](int size) { return toInt(std::nearbyint(size * factor), text); };
    setBlocking(follow(model.fftSize), follow(model.windowSize), follow(model.hopSize));
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
    if (hasControls(bus)) sensitivities[static_cast<std::size_t>(bus)] = std::clamp(value, -100.0f, 100.0f);
}

float ZevrantProcessor::getGain(int bus) const {
    return hasControls(bus) ? gains[static_cast<std::size_t>(bus)].load() : 0.0f;
}

void ZevrantProcessor::setGain(int bus, float value) {
    if (hasControls(bus)) gains[static_cast<std::size_t>(bus)] = std::max(value, 0.0f);
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
    const float curve =
        static_cast<float>(std::pow(2.718281828459045, static_cast<double>(sensitivity * 0.0075f)));
    // The exponent is 0 and every factor 1, so the result is a copy of a mask of ordinary numbers.
    if (curve == 1.0f && hasFiniteModuli(mask)) {
        ComplexSignal32 copy = mask;
        copy.ensureUnique();
        return copy;
    }

    const int numOfBins = std::clamp(fftSize / 2 + 1, 0, std::max(mask.numOfSamples, 0));
    const int numOfRows = std::min(outputFormat.getNumOfChannels(), mask.numOfChannels);
    ComplexSignal32 shaped(mask.numOfChannels, mask.numOfSamples);
    for (int c = 0; c < mask.numOfChannels; ++c)
        shapeRow(mask.getReadChannelPtr(c), curve, c < numOfRows ? numOfBins : 0,
                 shaped.getWriteChannelPtr(c), mask.numOfSamples);
    return shaped;
}

// One row of a mask, of which the first numOfBins bins change.
void ZevrantProcessor::shapeRow(const std::complex<float>* mask, float curve, int numOfBins,
                                std::complex<float>* shaped, int numOfSamples) {
    if (numOfSamples > std::ssize(magnitudes)) {
        magnitudes.resize(static_cast<std::size_t>(numOfSamples));
        factors.resize(magnitudes.size());
        phases.resize(magnitudes.size());
    }
    float* m = magnitudes.data();
    float* factor = factors.data();
    vo::calcMagnitudes(mask, m, numOfSamples);
    if (curve < 1.0f) {
        vo::constantAdd(m, floorOfMagnitude, factor, numOfBins);
    } else {
        vo::constantMultiply(m, pi, factor, numOfBins);
        vo::cos(factor, factor, numOfBins);
        for (int i = 0; i < numOfBins; ++i) factor[i] = (0.5f + -0.5f * factor[i]) + floorOfMagnitude;
    }
    vo::pow(factor, curve - 1.0f, factor, numOfBins);

    if (areBounded(m, numOfSamples, FLT_MAX)) {
        const float* in = asReals(mask);
        float* out = asReals(shaped);
        for (int i = 0; i < numOfBins; ++i) {
            out[2 * i] = in[2 * i] * factor[i];
            out[2 * i + 1] = in[2 * i + 1] * factor[i];
        }
        vo::copy(mask + numOfBins, shaped + numOfBins, numOfSamples - numOfBins);
        return;
    }
    vo::multiply(m, factor, m, numOfBins);
    vo::calcPhases(mask, phases.data(), numOfSamples);
    vo::convertPolarToCartesian(m, phases.data(), shaped, numOfSamples);
}

}  // namespace zevrant
