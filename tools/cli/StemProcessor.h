#pragma once

#include <list>

#include "processors/ZevrantProcessor.h"

namespace zevrant::cli {

// Takes the busses of a processor to the time domain, each on its own: the framing is done once, the networks
// run once, and the spectra of all busses lie side by side as channels on their way back.
//
//   output channel bus * channels + c = channel c of this bus, the residual last
//
// The processor serves as the spectral step alone. Its formats and sizes are followed, its controls apply,
// and the sum of the busses is what it would give by itself, to rounding.
class StemProcessor : public BaseSpectralProcessor {
  public:
    // Loads a model and sets the format. False when either is refused.
    bool open(const File& modelFile, int numOfChannels, double sampleRate);

    int getLatency(int blockSize) const override;
    void reset() override;
    using BaseSpectralProcessor::process;
    std::list<ComplexSignal32> process(const ComplexSignal32& spectrum) override;

    ZevrantProcessor processor;

  private:
    void receiveBus(int bus, const ComplexSignal32& spectrum);

    ComplexSignal32 stems;              // of the frame at hand
    std::list<ComplexSignal32> frames;  // complete ones
};

}  // namespace zevrant::cli
