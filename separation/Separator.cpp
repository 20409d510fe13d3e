#include "separation/Separator.h"

#include <algorithm>
#include <exception>
#include <new>

#include "DspCore/AudioFormat.h"
#include "DspCore/SignalQueue.h"
#include "DspCore/VectorOperations.h"
#include "processors/ZevrantProcessor.h"
#include "separation/BusSplitter.h"
#include "simd/FloatingPointState.h"

namespace zevrant::separation {

// What runs one group of channels.
struct Separator::Engine {
    Engine(const Model& model, Output output, int first, int count, double sampleRate)
        : firstChannel(first), numOfChannels(count) {
        AudioFormat format;
        format.createDefaultChannelMapping(count);
        format.sampleRate = sampleRate;
        if (!processor.setModels({model.makeNetwork()}) || !processor.setFormat(format, format))
            throw Error(ErrorKind::BadModel, model.name + ": the engine does not open it");
        if (output == Output::Busses) splitter = std::make_unique<BusSplitter>(processor);
    }

    BaseSpectralProcessor& getStream() {
        if (splitter) return *splitter;
        return processor;
    }

    const int firstChannel;
    const int numOfChannels;
    ZevrantProcessor processor;
    std::unique_ptr<BusSplitter> splitter;  // none for the mix
    SignalQueue<Signal32> queue;            // what is ready
};

Separator::Separator(const Model& model, Output output, int numOfChannels, double sampleRate,
                     int channelsPerGroup)
    : numOfInputChannels(numOfChannels) {
    if (numOfChannels < 1 || !(sampleRate > 0.0))
        throw Error(ErrorKind::BadArgument, "audio has 1 channel or more and a sample rate above 0");
    const int width = channelsPerGroup < 1 ? numOfChannels : std::min(channelsPerGroup, numOfChannels);
    try {
        for (int first = 0; first < numOfChannels; first += width)
            engines.push_back(std::make_unique<Engine>(model, output, first,
                                                       std::min(width, numOfChannels - first), sampleRate));
        latency = engines.front()->processor.getLatency(1);
    } catch (const Error&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        throw Error(ErrorKind::BadFormat, model.name + ": " + error.what());
    }
    hopSize = engines.front()->processor.hopSize;
    numOfBusses = engines.front()->processor.getNumOfOutputBusses(true);
    numOfOutputChannels = output == Output::Busses ? numOfBusses * numOfChannels : numOfChannels;
}

Separator::~Separator() = default;

// ---- audio -------------------------------------------------------------------------------------

// fill(firstChannel, block) writes the samples of a group, whose channels start there.
template <class Fill>
void Separator::addToEngines(int numOfSamples, const Fill& fill) {
    const ScopedFlushDenormals flushDenormals;
    try {
        for (const auto& engine : engines) {
            Signal32 block(engine->numOfChannels, numOfSamples);
            fill(engine->firstChannel, block);
            engine->queue.add(engine->getStream().process(block));
        }
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        throw Error(ErrorKind::CannotProcess,
                    std::string("the model cannot process this audio (") + error.what() + ")");
    }
}

void Separator::add(const float* const* channels, int numOfSamples) {
    addToEngines(numOfSamples, [&](int firstChannel, Signal32& block) {
        for (int c = 0; c < block.numOfChannels; ++c)
            vo::copy(channels[firstChannel + c], block.getWriteChannelPtr(c), numOfSamples);
    });
}

void Separator::addInterleaved(const float* samples, int numOfSamples) {
    addToEngines(numOfSamples, [&](int firstChannel, Signal32& block) {
        deinterleave(samples + firstChannel, numOfInputChannels, block);
    });
}

int Separator::getNumOfPendingSamples() const {
    std::int64_t fewest = engines.front()->queue.numOfSamples;
    for (const auto& engine : engines) fewest = std::min(fewest, engine->queue.numOfSamples);
    return static_cast<int>(fewest);
}

// use(channel, part) gets the channels of a group that lie side by side in the output, from this one on.
template <class Use>
void Separator::takeFromEngines(int numOfSamples, const Use& use) {
    if (numOfSamples < 1) return;
    if (numOfSamples > getNumOfPendingSamples())
        throw Error(ErrorKind::BadArgument, "more samples asked for than are pending");
    for (const auto& engine : engines) {
        const Signal32 audio = engine->queue.get(numOfSamples);
        if (engines.size() == 1) return use(0, audio);
        for (int part = 0; part * engine->numOfChannels < audio.numOfChannels; ++part)
            use(part * numOfInputChannels + engine->firstChannel,
                Signal32(audio.extractChannels(part * engine->numOfChannels, engine->numOfChannels)));
    }
}

void Separator::take(float* const* channels, int numOfSamples) {
    takeFromEngines(numOfSamples, [&](int channel, const Signal32& part) {
        for (int c = 0; c < part.numOfChannels; ++c)
            vo::copy(part.getReadChannelPtr(c), channels[channel + c], numOfSamples);
    });
}

void Separator::takeInterleaved(float* samples, int numOfSamples) {
    takeFromEngines(numOfSamples, [&](int channel, const Signal32& part) {
        interleave(part, samples + channel, numOfOutputChannels);
    });
}

void Separator::reset() {
    for (const auto& engine : engines) {
        engine->queue.reset();
        engine->getStream().reset();
    }
}

RunInPlan Separator::planRunIn() const {
    return RunInPlan(engines.front()->processor);
}

// ---- controls ----------------------------------------------------------------------------------

float Separator::getGain(int bus) const {
    return engines.front()->processor.getGain(bus);
}

void Separator::setGain(int bus, float gain) {
    for (const auto& engine : engines) engine->processor.setGain(bus, gain);
}

float Separator::getSensitivity(int bus) const {
    return engines.front()->processor.getSensitivity(bus);
}

void Separator::setSensitivity(int bus, float sensitivity) {
    for (const auto& engine : engines) engine->processor.setSensitivity(bus, sensitivity);
}

bool Separator::getMaskExtrapolationEnabled() const {
    return engines.front()->processor.getMaskExtrapolationEnabled();
}

void Separator::setMaskExtrapolationEnabled(bool enabled) {
    for (const auto& engine : engines) engine->processor.setMaskExtrapolationEnabled(enabled);
}

}  // namespace zevrant::separation
