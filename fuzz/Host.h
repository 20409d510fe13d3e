#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Choices.h"
#include "Execution.h"
#include "interface/zevrant.h"

namespace zevrant::fuzz {

// A host with a processor handle that does one thing after the other, as chosen, and holds the answers
// against what zevrant.h promises of every model. It adds no more audio than an execution's budget is for.
class Host {
  public:
    Host(const std::string& modelPath, int numOfModels, int numOfChannels, double sampleRate);

    bool isOpen() const { return handle != nullptr; }

    // Adds or takes a block, sets or reads a parameter, resets, or asks for information. True if all went
    // without an exception. Exceptions of add and reset are the model's own.
    bool act(Choices& choices);

    // No sample that has gone in was infinite or not a number since the last reset, and none that has come
    // out.
    bool hasFiniteInput() const { return isInputFinite; }
    bool hasFiniteOutput() const { return isOutputFinite; }

    // Samples that are in and not yet ready.
    std::int64_t getNumOfHeldSamples() const;
    int getLatency() const;

  private:
    double estimateBlock(int numOfSamples) const;
    void add(Choices& choices);
    void take(Choices& choices);
    void setParameter(Choices& choices);
    void inquire(Choices& choices);

    std::unique_ptr<ProcessorState, void (*)(ProcessorState*)> handle{nullptr, zevrantDeleteProcessor};
    Budget budget;
    double secondsPerFrame = 0.0;
    int channels;
    std::int64_t numOfAdded = 0, numOfTaken = 0;
    bool isInputFinite = true, isOutputFinite = true;
};

}  // namespace zevrant::fuzz
