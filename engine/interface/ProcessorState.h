#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "DspCore/RecyclingPool.h"
#include "DspCore/SignalQueue.h"
#include "DspCore/Signals.h"
#include "interface/Licensing.h"
#include "processors/ZevrantProcessor.h"

// What a processor handle points to: the processor, and a queue between it and the host that pulls.
//
// Samples are counted per channel. Audio is copied once on its way in, from the host's buffers, and
// twice on its way out, into the queue's signals and into the host's buffers.
//
// Memory   The object is made on the heap with all its memory cleared. Blocks come from a pool of its own.
//          loadModels() runs a single model in, so that all is there that a stream takes which adds blocks of
//          up to longestBlock samples and takes them as they get ready: it asks the system for nothing, from
//          the first block on and after resets too. A model that one core cannot run in real time is not
//          run in, and several models take a few small blocks for each task.
// Errors   bool results. Exceptions of the processor pass through, and then the block's audio is lost.
// Threads  Calls on one state are serialised by their caller, except that the two parameter functions
//          may run at any time. Two states share nothing.
struct ProcessorState : private zevrant::PoolOwner {
    static constexpr int longestBlock = 8192;  // samples, that memory is there for

    ProcessorState() = default;
    ~ProcessorState() { freeIntoPool(); }

    static void* operator new(std::size_t numOfBytes);
    static void operator delete(void* memory);

    // Loads the models and sets the host's format, the same for input and output. False when a model
    // cannot be loaded, models disagree or the format is refused; the state is then not to be used.
    bool loadModels(int count, const char** paths, int numOfChannels, double sampleRate);

    // Copies a block in, processes what it completes and queues the result.
    void addAudio(const float** channels, int numOfSamples);
    void addAudioInterleaved(const float* samples, int numOfSamples);

    // Delivers numOfSamples or nothing; false when fewer are queued.
    bool getAudio(float* const* channels, int numOfSamples);
    bool getAudioInterleaved(float* samples, int numOfSamples);

    // Back to the state after creation, but that parameters keep their values.
    void reset();

    // Parameters by number: ids -255 to 255 are global, all others are group * 256 + bus.
    float getParameterValue(int id) const;
    void setParameterValue(int id, float value);
    static void getParameterRange(int id, float& minimum, float& maximum);

    zevrant::LicensingGate licensingGate;
    std::int32_t numOfInputChannels = 0;
    std::int32_t numOfOutputChannels = 0;
    zevrant::ZevrantProcessor processor;
    zevrant::SignalQueue<zevrant::Signal32> outputQueue;  // processed audio that waits for the host
    zevrant::LicensingStage licensingStage;
    std::vector<std::pair<std::string, std::int32_t>> loadedModels;  // name, latency in milliseconds

  private:
    zevrant::Signal32 process(const zevrant::Signal32& input);
    template <class Write>
    void add(int numOfSamples, const Write& write);
    template <class Read>
    bool take(int numOfSamples, const Read& read);
    bool load(int count, const char** paths, int numOfChannels, double sampleRate);
    void runIn();
    void processSilence();
};
