#pragma once

#include <memory>
#include <vector>

struct soxr;

namespace zevrant::audiofiles {

// Converts the rate of interleaved audio, with a linear phase and no delay: output sample k stands at the
// time k / outputRate of the input. Very high quality of libsoxr.
class Resampler {
  public:
    Resampler(double inputRate, double outputRate, int numOfChannels);
    ~Resampler();

    // Appends what is complete to out.
    void process(const float* interleaved, int numOfSamples, std::vector<float>& out);

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
