#pragma once

#include <memory>
#include <vector>

#include "separation/RateConverter.h"

struct soxr;

namespace zevrant::audiofiles {

// The converter of files: no delay, in the very high quality of libsoxr. It waits with its output for as long
// as its filters take.
class Resampler : public separation::RateConverter {
  public:
    Resampler(double inputRate, double outputRate, int numOfChannels);
    ~Resampler() override;

    void process(const float* interleaved, int numOfSamples, std::vector<float>& out) override;
    int getDelay() const override { return 0; }

    // Appends the rest. Nothing may be processed after it.
    void finish(std::vector<float>& out);

  private:
    void run(const float* interleaved, int numOfSamples, std::vector<float>& out);

    struct Deleter {
        void operator()(soxr* state) const;
    };
    std::unique_ptr<soxr, Deleter> state;
    double ratio;  // output samples per input sample
    std::size_t numOfChannels;
};

}  // namespace zevrant::audiofiles
