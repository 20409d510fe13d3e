#pragma once

#include <cstdint>
#include <functional>

#include "audiofiles/Audio.h"
#include "separation/Separator.h"

namespace zevrant::audiofiles {

// What a pass hands out: the input and what the separator made of it, for the same samples.
struct PassBlock {
    const float* input;   // interleaved, the reader's channels
    const float* output;  // interleaved, the separator's output channels
    int numOfSamples;
    int numOfOutputChannels;
};

struct PassResult {
    std::int64_t numOfSamples = 0;
    std::int64_t numOfReplacedValues = 0;  // of the input, over all channels, that were no finite numbers
};

// Runs a whole stream through a separator, in memory that does not grow with its length. What is handed out
// lines up with the input sample for sample and has its length: the end is pushed through with zeros.
//
// workingRate  the rate that the separator runs at. Where it is another than the reader's, audio is converted
//              there and back, without a delay. What is lost on this way, above all the frequencies that the
//              lower of the rates does not hold, is what all busses leave of the input, and so it joins the
//              residual with its gain.
// Values of the input that are no finite numbers count as 0, in what is handed out as input too. Throws
// Error, for a model that keeps samples back too, separation::Error for one that cannot process, and what the
// interruption check throws.
PassResult runPass(AudioReader& reader, separation::Separator& separator, double workingRate, int blockSize,
                   const std::function<void(const PassBlock&)>& receive);

}  // namespace zevrant::audiofiles
