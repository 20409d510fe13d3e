#pragma once

#include <list>

#include "processors/ZevrantProcessor.h"

namespace zevrant::separation {

// Takes the busses of a processor to the time domain, each on its own: the framing is done once, the networks
// run once, and the spectra of all busses lie side by side as channels on their way back.
//
//   output channel bus * channels + c = channel c of this bus, the residual last
//
// The processor serves as the spectral step alone. Its formats and sizes are followed, its controls apply,
// and the sum of the busses is what it would give by itself, to rounding.
class BusSplitter : public BaseSpectralProcessor {
  public:
    // On a processor that has its models and its format, and that nothing else runs from here on. It has to
    // outlive the splitter.
    explicit BusSplitter(ZevrantProcessor& processor);
    ~BusSplitter() override;

    int getLatency(int blockSize) const override;
    void reset() override;
    using BaseSpectralProcessor::process;
    std::list<ComplexSignal32> process(const ComplexSignal32& spectrum) override;

  private:
    void receiveBus(int bus, const ComplexSignal32& spectrum);

    ZevrantProcessor& processor;
    ComplexSignal32 busses;             // of the frame at hand
    std::list<ComplexSignal32> frames;  // complete ones
};

}  // namespace zevrant::separation
