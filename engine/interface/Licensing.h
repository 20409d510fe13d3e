#pragma once

#include "processors/BaseAudioProcessor.h"

namespace zevrant {

// Where entitlement meets the audio path: a decision per processed block and a stage that restricted
// audio passes through. Nothing is restricted, so the decision is always no and the stage hands audio
// on as it is.

// Threads: those of the handle that it belongs to.
class LicensingGate {
  public:
    bool isOutputRestricted() const { return restricted; }

  private:
    bool restricted = false;
};

class LicensingStage : public BaseAudioProcessor {
  public:
    Signal32 process(const Signal32& input) override { return input; }
};

}  // namespace zevrant
