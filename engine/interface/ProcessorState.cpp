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
#include "processors/RunIn.h"
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

constexpr std::int64_t mostSamplesHeld = 1 << 23;
constexpr float bent = 10.0f;  // a sensitivity that is not neutral takes the most memory

}  // namespace

void* ProcessorState::operator new(std::size_t numOfBytes) {
    static_assert(alignof(ProcessorState) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
    return std::memset(::operator new(numOfBytes), 0, numOfBytes);
}

void ProcessorState::operator delete(void* memory) {
    ::operator delete(memory);
}

bool ProcessorState::loadModels(int count, const char** paths, int numOfChannels, double sampleRate) {
    {
        RecyclingPool poolOfLoad;  // so that nothing stays of what is needed on the way
        const ScopedRecyclingPool passing(poolOfLoad);
        if (!load(count, paths, numOfChannels, sampleRate)) return false;
    }
    const ScopedRecyclingPool ownBlocks(pool);
    runIn();
    return true;
}

bool ProcessorState::load(int count, const char** paths, int numOfChannels, double sampleRate) {
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

// Silence runs through the model, and then all is put back as the load has left it, but that the memory
// stays. What frames take depends on the state of the stream and not on the length of blocks; for that, the
// samples that wait at most are held.
void ProcessorState::runIn() {
    const RunInPlan plan(processor);
    const std::int64_t mostQueued =
        processor.windowSize +
        2 * (std::int64_t{longestBlock} + processor.hopSize + processor.inputQueue.lengthOfOwn);
    const bool isModest = mostQueued * numOfInputChannels <= mostSamplesHeld;
    if (plan.mostFrames < 1 || numOfInputChannels < 1 || !isModest) return;
    try {
        SignalQueue<Signal32> held;
        held.append(numOfInputChannels, static_cast<int>(mostQueued), [](auto&&...) {});
        processor.inputQueue.reserveNodes(mostQueued);
        outputQueue.reserveNodes(mostQueued);
        for (int bus = 0; bus < ZevrantProcessor::numOfControls; ++bus) processor.setSensitivity(bus, bent);
        for (int round = 0; round < RunInPlan::numOfRounds; ++round) {
            plan.run(pool, 0, [this] { processSilence(); });
            reset();
        }
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {  // will be thrown again where the host can see what it belongs to
    }
    for (int bus = 0; bus < ZevrantProcessor::numOfControls; ++bus) processor.setSensitivity(bus, 0.0f);
    outputQueue.reset();
    processor.startOver();
}

// A hop of it, and what comes out is dropped.
void ProcessorState::processSilence() {
    const ScopedFlushDenormals flushDenormals;
    processor.inputQueue.append(numOfInputChannels, processor.hopSize,
                                [](Signal32& to, int column, int, int count) {
                                    for (int c = 0; c < to.numOfChannels; ++c)
                                        vo::setToZero(to.getWriteChannelPtr(c) + column, count);
                                });
    processor.processQueued(outputQueue);
    outputQueue.skip(static_cast<int>(outputQueue.numOfSamples));
}

void ProcessorState::addAudio(const float** channels, int numOfSamples) {
    add(numOfSamples, [&](Signal32& input, int column, int start, int count) {
        for (int c = 0; c < numOfInputChannels; ++c)
            vo::copy(channels[c] + start, input.getWriteChannelPtr(c) + column, count);
    });
}

void ProcessorState::addAudioInterleaved(const float* samples, int numOfSamples) {
    add(numOfSamples, [&](Signal32& input, int column, int start, int count) {
        deinterleave(samples + std::ptrdiff_t{start} * numOfInputChannels, numOfInputChannels, input, column,
                     count);
    });
}

// Processes a block that write() fills in, in one part or several.
template <class Write>
void ProcessorState::add(int numOfSamples, const Write& write) {
    const ScopedRecyclingPool ownBlocks(pool);
    const ScopedFlushDenormals flushDenormals;
    const bool isFramed = numOfSamples > 0 && numOfInputChannels > 0 && processor.windowSize > 0 &&
                          processor.hopSize > 0 && !licensingGate.isOutputRestricted();
    if (isFramed) {
        processor.inputQueue.append(numOfInputChannels, numOfSamples, write);
        return processor.processQueued(outputQueue);
    }
    Signal32 input(numOfInputChannels, numOfSamples);
    write(input, 0, 0, numOfSamples);
    outputQueue.add(process(input));
}

Signal32 ProcessorState::process(const Signal32& input) {
    Signal32 processed = processor.process(input);
    if (!licensingGate.isOutputRestricted()) return processed;
    return licensingStage.process(processed);
}

bool ProcessorState::getAudio(float* const* channels, int numOfSamples) {
    return take(numOfSamples, [&](const Signal32& audio, int column, int start, int count) {
        for (int c = 0; c < numOfOutputChannels; ++c)
            vo::copy(audio.getReadChannelPtr(c) + column, channels[c] + start, count);
    });
}

bool ProcessorState::getAudioInterleaved(float* samples, int numOfSamples) {
    return take(numOfSamples, [&](const Signal32& audio, int column, int start, int count) {
        interleave(audio, column, count, samples + std::ptrdiff_t{start} * numOfOutputChannels,
                   numOfOutputChannels);
    });
}

// Has so many samples read and takes them from the queue. False, with nothing touched, when fewer are there.
template <class Read>
bool ProcessorState::take(int numOfSamples, const Read& read) {
    if (outputQueue.numOfSamples < numOfSamples) return false;
    if (numOfSamples < 1) return true;
    if (outputQueue.numOfChannels < numOfOutputChannels)
        throw std::out_of_range("the queued audio lacks output channels");
    const ScopedRecyclingPool ownBlocks(pool);
    outputQueue.get(numOfSamples, read);
    return true;
}

void ProcessorState::reset() {
    const ScopedRecyclingPool ownBlocks(pool);
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
