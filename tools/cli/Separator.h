#pragma once

#include <memory>
#include <vector>

#include "cli/Model.h"

namespace zevrant::cli {

// Where the controls of the busses stand; all neutral at the start.
struct BusControls {
    explicit BusControls(int numOfBusses)
        : gains(static_cast<std::size_t>(numOfBusses), 1.0f),
          sensitivities(static_cast<std::size_t>(numOfBusses), 0.0f) {}

    std::vector<float> gains;          // linear
    std::vector<float> sensitivities;  // -100 to 100
    bool extrapolatesMasks = true;
};

// The engine behind interleaved audio: add blocks, take what is ready. Sample k that comes out belongs to
// sample k that went in, so nothing has to be cut off at the start, and at the end so many zeros are added
// that all samples have come out.
class Separator {
  public:
    virtual ~Separator() = default;

    virtual void add(const float* interleaved, int numOfSamples) = 0;
    virtual int getNumOfPendingSamples() = 0;
    virtual void take(float* interleaved, int numOfSamples) = 0;  // no more than are pending

    int numOfInputChannels = 0;
    int numOfOutputChannels = 0;
    int latency = 0;            // samples that are in and not yet out at the most, as the model reports it
    float residualGain = 1.0f;  // with which the last bus comes out
};

// The mix of all busses: as many channels as go in, through the C interface.
std::unique_ptr<Separator> createMixer(const Model& model, int numOfChannels, double sampleRate,
                                       const BusControls& controls);

// Every bus on its own, from one run of the network: numOfBusses times the input's channels, bus after bus.
std::unique_ptr<Separator> createStemSplitter(const Model& model, int numOfChannels, double sampleRate,
                                              const BusControls& controls);

// Runs groups of channels side by side, each with an engine of its own. make is asked for an engine on so
// many channels; the last group has those that are left.
template <class Make>
std::unique_ptr<Separator> createGroups(int numOfChannels, int channelsPerGroup, const Make& make);

// The outputs of the groups are put together so that each bus has all channels in the order of the input.
std::unique_ptr<Separator> joinGroups(std::vector<std::unique_ptr<Separator>> groups);

template <class Make>
std::unique_ptr<Separator> createGroups(int numOfChannels, int channelsPerGroup, const Make& make) {
    if (channelsPerGroup < 1 || channelsPerGroup >= numOfChannels) return make(numOfChannels);
    std::vector<std::unique_ptr<Separator>> groups;
    for (int first = 0; first < numOfChannels; first += channelsPerGroup)
        groups.push_back(make(std::min(channelsPerGroup, numOfChannels - first)));
    return joinGroups(std::move(groups));
}

}  // namespace zevrant::cli
