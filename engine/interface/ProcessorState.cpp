#include "interface/ProcessorState.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <stdexcept>

#include "DspCore/AudioFormat.h"
#include "DspCore/MathEx.h"
#include "DspCore/VectorOperations.h"
#include "files/File.h"
#include "simd/FloatingPointState.h"

using namespace zevrant;

namespace {

enum GlobalParameter { residualGainInDecibel = 1, sensitivity = 2, maskExtrapolation = 3 };
enum ParameterGroup { global = 0, busGain = 1, busSensitivity = 2 };

constexpr int parametersPerGroup = 256;
constexpr float globalMinimums[] = {-96.0f, -100.0f, 0.0f};  // by id less 1
constexpr float globalMaximums[] = {0.0f, 100.0f, 1.0f};

struct ParameterAddress {
    explicit ParameterAddress(int id)
        : group(id / parametersPerGroup), bus(id - group * parametersPerGroup) {}
    int group;  // rounded towards 0, so the ids around 0 of both signs are global
    int bus;
};

}  // namespace

void* ProcessorState::operator new(std::size_t numOfBytes) {
    static_assert(alignof(ProcessorState) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
    return std::memset(::operator new(numOfBytes), 0, numOfBytes);
}

void ProcessorState::operator delete(void* memory) {
    ::operator delete(memory);
}

bool ProcessorState::loadModels(int count, const char** paths, int numOfChannels, double sampleRate) {
    if (count < 0) throw std::length_error("negative number of model files");
    const std::vector<File> files(paths, std::next(paths, count));
    if (!processor.loadModelFiles(files)) return false;

    AudioFormat format;
    format.createDefaultChannelMapping(numOfChannels);
    format.sampleRate = sampleRate;
    if (!processor.setFormat(format, format)) return false;

    for (const auto& model : processor.getNeuralModels())
        loadedModels.emplace_back(model.modelName, model.latencyMilliseconds);
    if (!licensingStage.setFormat(processor.outputFormat, processor.outputFormat)) return false;
    numOfInputChannels = numOfChannels;
    numOfOutputChannels = numOfChannels;
    return true;
}

void ProcessorState::addAudio(const float** channels, int numOfSamples) {
    Signal32 input(numOfInputChannels, numOfSamples);
    for (int c = 0; c < numOfInputChannels; ++c)
        vo::copy(channels[c], input.getWriteChannelPtr(c), numOfSamples);
    outputQueue.add(process(input));
}

void ProcessorState::addAudioInterleaved(const float* samples, int numOfSamples) {
    Signal32 input(numOfInputChannels, numOfSamples);
    deinterleave(samples, numOfInputChannels, input);
    outputQueue.add(process(input));
}

Signal32 ProcessorState::process(const Signal32& input) {
    const ScopedFlushDenormals flushDenormals;
    Signal32 processed = processor.process(input);
    if (!licensingGate.isOutputRestricted()) return processed;
    return licensingStage.process(processed);
}

// Takes numOfSamples from the queue. False, with nothing touched, when fewer are there.
bool ProcessorState::takeQueued(int numOfSamples, Signal32& audio) {
    if (outputQueue.numOfSamples < numOfSamples) return false;
    if (numOfSamples > 0 && outputQueue.numOfChannels < numOfOutputChannels)
        throw std::out_of_range("the queued audio lacks output channels");
    audio = Signal32(outputQueue.numOfChannels, numOfSamples);
    outputQueue.get(audio);
    return true;
}

bool ProcessorState::getAudio(float* const* channels, int numOfSamples) {
    Signal32 audio;
    if (!takeQueued(numOfSamples, audio)) return false;
    if (numOfSamples < 1) return true;
    for (int c = 0; c < numOfOutputChannels; ++c)
        vo::copy(audio.getReadChannelPtr(c), channels[c], numOfSamples);
    return true;
}

bool ProcessorState::getAudioInterleaved(float* samples, int numOfSamples) {
    Signal32 audio;
    if (!takeQueued(numOfSamples, audio)) return false;
    if (numOfSamples < 1) return true;
    audio.numOfChannels = numOfOutputChannels;  // of the queue's, which has these at least
    interleave(audio, samples, numOfOutputChannels);
    return true;
}

void ProcessorState::reset() {
    outputQueue.reset();
    processor.reset();
    licensingStage.reset();
}

float ProcessorState::getParameterValue(int id) const {
    const ParameterAddress address(id);
    if (address.group == busGain) return processor.getGain(address.bus);
    if (address.group == busSensitivity) return processor.getSensitivity(address.bus);
    if (id == residualGainInDecibel)
        return MathEx::toDecibel(std::clamp(processor.getGain(1), MathEx::fromDecibel(-96.0f), 1.0f));
    if (id == sensitivity) return processor.getSensitivity(0);
    if (id == maskExtrapolation) return processor.getMaskExtrapolationEnabled() ? 1.0f : 0.0f;
    return 0.0f;
}

void ProcessorState::setParameterValue(int id, float value) {
    const ParameterAddress address(id);
    if (address.group == busGain) {
        processor.setGain(address.bus, value);
    } else if (address.group == busSensitivity) {
        processor.setSensitivity(address.bus, value);
    } else if (id == residualGainInDecibel) {
        // Against bus 0 at unity: on purpose a gain that bus 0 had is lost.
        processor.setGain(0, 1.0f);
        processor.setGain(1, std::clamp(MathEx::fromDecibel(value), 0.0f, 1.0f));
    } else if (id == sensitivity) {
        processor.setSensitivity(0, value);
    } else if (id == maskExtrapolation) {
        processor.setMaskExtrapolationEnabled(value >= 0.5f);
    }
}

void ProcessorState::getParameterRange(int id, float& minimum, float& maximum) {
    minimum = maximum = 0.0f;
    const ParameterAddress address(id);
    if (address.group == busGain) {
        maximum = 100.0f;
    } else if (address.group == busSensitivity) {
        minimum = -100.0f;
        maximum = 100.0f;
    } else if (address.group == global && id >= 1 && id <= static_cast<int>(std::size(globalMinimums))) {
        minimum = globalMinimums[id - 1];
        maximum = globalMaximums[id - 1];
    }
}
