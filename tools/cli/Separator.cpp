#include "cli/Separator.h"

#include <algorithm>
#include <utility>

#include "DspCore/SignalQueue.h"
#include "cli/Failure.h"
#include "cli/StemProcessor.h"
#include "files/File.h"
#include "interface/zevrant.h"
#include "simd/FloatingPointState.h"

namespace zevrant::cli {

namespace {

[[noreturn]] void failToOpen(const Model& model) {
    throw Failure(ExitStatus::BadModel, model.path.string() + ": the engine does not open it");
}

// ---- the mix -----------------------------------------------------------------------------------

struct ProcessorDeleter {
    void operator()(ProcessorState* handle) const { zevrantDeleteProcessor(handle); }
};

// Parameter numbers, see zevrant.h.
constexpr int maskExtrapolation = 3;
constexpr int busGain = 256;
constexpr int busSensitivity = 512;

class Mixer : public Separator {
  public:
    Mixer(const Model& model, int numOfChannels, double sampleRate, const BusControls& controls)
        : handle(zevrantCreateProcessor(model.path.c_str(), numOfChannels, sampleRate)) {
        if (!handle) failToOpen(model);
        numOfInputChannels = numOfOutputChannels = numOfChannels;
        ProcessorInfo info;
        zevrantGetProcessorInfo(handle.get(), &info);
        latency = info.latency;
        if (!controls.gains.empty()) residualGain = controls.gains.back();
        zevrantSetParameterValue(handle.get(), maskExtrapolation, controls.extrapolatesMasks ? 1.0f : 0.0f);
        for (int bus = 0; bus < std::ssize(controls.gains); ++bus) {
            const auto index = static_cast<std::size_t>(bus);
            zevrantSetParameterValue(handle.get(), busGain + bus, controls.gains[index]);
            zevrantSetParameterValue(handle.get(), busSensitivity + bus, controls.sensitivities[index]);
        }
    }

    void add(const float* interleaved, int numOfSamples) override {
        zevrantAddAudioInterleaved(handle.get(), interleaved, numOfSamples);
    }
    int getNumOfPendingSamples() override { return zevrantGetNumOfPendingSamples(handle.get()); }
    void take(float* interleaved, int numOfSamples) override {
        zevrantGetAudioInterleaved(handle.get(), interleaved, numOfSamples);
    }

  private:
    std::unique_ptr<ProcessorState, ProcessorDeleter> handle;
};

// ---- stems -------------------------------------------------------------------------------------

class StemSplitter : public Separator {
  public:
    StemSplitter(const Model& model, int numOfChannels, double sampleRate, const BusControls& controls) {
        if (!stems.open(File(model.path.string()), numOfChannels, sampleRate)) failToOpen(model);
        numOfInputChannels = numOfChannels;
        numOfOutputChannels = numOfChannels * stems.processor.getNumOfOutputBusses(true);
        latency = stems.getLatency(1);
        if (!controls.gains.empty()) residualGain = controls.gains.back();
        stems.processor.setMaskExtrapolationEnabled(controls.extrapolatesMasks);
        for (int bus = 0; bus < std::ssize(controls.gains); ++bus) {
            const auto index = static_cast<std::size_t>(bus);
            stems.processor.setGain(bus, controls.gains[index]);
            stems.processor.setSensitivity(bus, controls.sensitivities[index]);
        }
    }

    void add(const float* interleaved, int numOfSamples) override {
        Signal32 block(numOfInputChannels, numOfSamples);
        for (int c = 0; c < numOfInputChannels; ++c) {
            float* row = block.getWriteChannelPtr(c);
            for (int i = 0; i < numOfSamples; ++i) row[i] = interleaved[i * numOfInputChannels + c];
        }
        const ScopedFlushDenormals flushDenormals;
        queue.add(stems.process(block));
    }

    int getNumOfPendingSamples() override { return static_cast<int>(queue.numOfSamples); }

    void take(float* interleaved, int numOfSamples) override {
        const Signal32 block = queue.get(numOfSamples);
        for (int c = 0; c < numOfOutputChannels; ++c) {
            const float* row = block.getReadChannelPtr(c);
            for (int i = 0; i < numOfSamples; ++i) interleaved[i * numOfOutputChannels + c] = row[i];
        }
    }

  private:
    StemProcessor stems;
    SignalQueue<Signal32> queue;
};

// ---- groups of channels ------------------------------------------------------------------------

class GroupSeparator : public Separator {
  public:
    explicit GroupSeparator(std::vector<std::unique_ptr<Separator>> separators)
        : groups(std::move(separators)) {
        residualGain = groups.front()->residualGain;
        for (const auto& group : groups) {
            numOfInputChannels += group->numOfInputChannels;
            numOfOutputChannels += group->numOfOutputChannels;
            latency = std::max(latency, group->latency);
        }
    }

    void add(const float* interleaved, int numOfSamples) override {
        int first = 0;
        for (const auto& group : groups) {
            const int width = group->numOfInputChannels;
            scratch.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(numOfSamples));
            for (int i = 0; i < numOfSamples; ++i)
                std::copy_n(interleaved + i * numOfInputChannels + first, width, scratch.data() + i * width);
            group->add(scratch.data(), numOfSamples);
            first += width;
        }
    }

    int getNumOfPendingSamples() override {
        int fewest = groups.front()->getNumOfPendingSamples();
        for (const auto& group : groups) fewest = std::min(fewest, group->getNumOfPendingSamples());
        return fewest;
    }

    void take(float* interleaved, int numOfSamples) override {
        const int numOfBusses = numOfOutputChannels / numOfInputChannels;
        int first = 0;
        for (const auto& group : groups) {
            const int width = group->numOfInputChannels;
            const int groupOutputs = group->numOfOutputChannels;
            scratch.resize(static_cast<std::size_t>(groupOutputs) * static_cast<std::size_t>(numOfSamples));
            group->take(scratch.data(), numOfSamples);
            for (int i = 0; i < numOfSamples; ++i)
                for (int bus = 0; bus < numOfBusses; ++bus)
                    std::copy_n(scratch.data() + i * groupOutputs + bus * width, width,
                                interleaved + i * numOfOutputChannels + bus * numOfInputChannels + first);
            first += width;
        }
    }

  private:
    std::vector<std::unique_ptr<Separator>> groups;
    std::vector<float> scratch;
};

}  // namespace

std::unique_ptr<Separator> createMixer(const Model& model, int numOfChannels, double sampleRate,
                                       const BusControls& controls) {
    return std::make_unique<Mixer>(model, numOfChannels, sampleRate, controls);
}

std::unique_ptr<Separator> createStemSplitter(const Model& model, int numOfChannels, double sampleRate,
                                              const BusControls& controls) {
    return std::make_unique<StemSplitter>(model, numOfChannels, sampleRate, controls);
}

std::unique_ptr<Separator> joinGroups(std::vector<std::unique_ptr<Separator>> groups) {
    return std::make_unique<GroupSeparator>(std::move(groups));
}

}  // namespace zevrant::cli
