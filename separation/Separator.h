#pragma once

#include <memory>
#include <string>
#include <vector>

#include "processors/RunIn.h"
#include "separation/Error.h"
#include "separation/Model.h"

namespace zevrant::separation {

// What a separator gives: one signal with all busses at their levels, or every bus on its own.
enum class Output { Mix, Busses };

// Audio in, the busses of a model out: the engine for programs and bindings.
//
//   Separator separator(Model::open("harmonic-percussive"), Output::Busses, 2, 48000.0);
//   separator.addInterleaved(block, 480);
//   while (separator.getNumOfPendingSamples() >= 480) separator.takeInterleaved(stems, 480);
//
// Sample k that comes out belongs to sample k that went in: nothing has to be cut off at the start, and at
// the end so many zeros are added that all samples have come out. The mix is what zevrantGetAudio gives, bit
// for bit, and the busses add up to it, to rounding. How the audio is cut into blocks changes no sample.
//
//   channels of the mix      those that go in
//   channels of the busses   bus * numOfInputChannels + c, the residual last
//
// Groups   With channelsPerGroup the channels are taken in groups of so many, the last with what is left,
//          each through an engine of its own. Without, or for fewer channels, one engine hears all of them.
// Rates    Audio is not converted: frame sizes follow the sample rate by a power of two.
// Memory   After some blocks, adding and taking ask the system for nothing.
// Errors   Error: BadModel and BadFormat from the constructor, CannotProcess from adding, after which the
//          audio of the frame at hand is lost until reset(). std::bad_alloc.
// Threads  One at a time, but for the controls: those may be set and read at any time.
class Separator {
  public:
    Separator(const Model& model, Output output, int numOfChannels, double sampleRate,
              int channelsPerGroup = 0);
    ~Separator();
    Separator(const Separator&) = delete;
    Separator& operator=(const Separator&) = delete;

    // Counts are samples per channel. Planar audio is one pointer for each channel.
    void add(const float* const* channels, int numOfSamples);
    void addInterleaved(const float* samples, int numOfSamples);

    // Samples that are ready, and their way out: no more than are pending.
    int getNumOfPendingSamples() const;
    void take(float* const* channels, int numOfSamples);
    void takeInterleaved(float* samples, int numOfSamples);

    // Drops all audio and starts the model anew. Controls stay.
    void reset();

    // Controls of busses 0 to 15; any other bus reads 0 and ignores a set.
    float getGain(int bus) const;
    void setGain(int bus, float gain);  // linear, 0 or more
    float getSensitivity(int bus) const;
    void setSensitivity(int bus, float sensitivity);  // -100 to 100
    bool getMaskExtrapolationEnabled() const;
    void setMaskExtrapolationEnabled(bool enabled);

    int getNumOfInputChannels() const { return numOfInputChannels; }
    int getNumOfOutputChannels() const { return numOfOutputChannels; }
    int getNumOfBusses() const { return numOfBusses; }  // the residual included

    // Samples that are in and not yet out at the most, for blocks of any length.
    int getLatency() const { return latency; }

    // Samples from one frame to the next: what is added completes a frame wherever it reaches a multiple.
    int getHopSize() const { return hopSize; }

    // How many hops bring all the blocks that audio will take.
    RunInPlan planRunIn() const;

  private:
    struct Engine;

    template <class Fill>
    void addToEngines(int numOfSamples, const Fill& fill);
    template <class Use>
    void takeFromEngines(int numOfSamples, const Use& use);

    std::vector<std::unique_ptr<Engine>> engines;  // one for each group of channels
    int numOfInputChannels = 0;
    int numOfOutputChannels = 0;
    int numOfBusses = 0;
    int latency = 0;
    int hopSize = 0;
};

}  // namespace zevrant::separation
