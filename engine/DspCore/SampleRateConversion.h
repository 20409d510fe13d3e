#pragma once

#include <cstdint>
#include <mutex>

#include "DspCore/SignalQueue.h"
#include "DspCore/Signals.h"
#include "processors/BaseAudioProcessor.h"

namespace zevrant {

// Changes the rate of a stream by any real ratio, with polyphase interpolation (J. O. Smith, "Digital
// Audio Resampling"): a table holds one windowed-sinc filter for each of numOfPhases positions between
// two samples, and a value between two positions is interpolated between their filters' results.
//
// The filter at fraction f = p / numOfPhases has the taps
//   sinc(cutoff pi u) exp(-0.5 (u / (0.1 filterLength))^2) cutoff,   u = k - filterLength / 2 - f,
// with sinc(a) = sin(a) / a, the half in whole samples, and cutoff = cutoffPercent / 100 times the
// lesser of 1 and output rate / input rate. The taps are not normalised to a sum of 1.
//
// Equal rates pass samples on as they are; filterLength / 2 + 1 of them are held back.
//
// Formats  The channel counts of both formats must agree. setFormat looks at the formats that are held
//          already, not at the new ones, on purpose: unequal counts are taken once and refuse every
//          format after them.
// Order    Sums in double. The stream comes out the same however it is cut, but for the read position,
//          which rounds to a double at each step from the start of a block.
// Memory   setFormat and the first blocks of a stream take it; blocks of a steady size take none.
// Latency  filterLength / 2 + 1 samples at the input rate.
// Threads  setFormat, reset and process hold one recursive lock, so any thread may change the format.
//          The host's blocks come from one thread at a time.
// Errors   process throws std::invalid_argument without sample rates above 0, std::length_error for a
//          result that no signal can hold and std::out_of_range for blocks with fewer channels than the
//          format; setFormat throws std::length_error for a rate that gives no filter length.
class SampleRateConversion : public BaseAudioProcessor {
  public:
    ~SampleRateConversion() override;

    bool setFormat(const AudioFormat& input, const AudioFormat& output) override;
    int getLatency(int blockSize) const override;

    // Drops the stream and puts filterLength / 2 zeros in front of the next one.
    void reset() override;

    // All output samples that the input so far allows for; empty until the filter has enough of it.
    Signal32 process(const Signal32& input) override;

    // Makes sincTable for the rates that are held.
    void updateSincTables();

    // The value at subSamplePosition / numOfPhases samples behind the start of input's filter, which
    // reads filterLength samples from input + subSamplePosition / numOfPhases on.
    double calculateSubSampleValue(int subSamplePosition, const double* input) const;

    std::recursive_mutex lock;
    float filterLengthMs = 1.5f;    // milliseconds at the input rate
    float cutoffPercent = 95.0f;    // of the lower of the two Nyquist frequencies
    int numOfPhases = 64;           // a power of two, as phaseMask needs it
    bool interpolatePhases = true;  // linearly
    std::int32_t phaseMask = 63;    // numOfPhases - 1
    int filterLength = 0;           // taps per phase
    int identityPhase = -1;         // the phase whose filter is a pure delay, or -1
    Signal64 sincTable;             // [numOfPhases, filterLength]
    SignalQueue<Signal32> inputQueue;
    double position = 0.0;  // of the next value, in input samples from the start of inputQueue

  private:
    int countOutputSamples(double step) const;
    void interpolate(double step, Signal32& output);

    Signal32 queued;   // all of inputQueue, in the shape of the input format
    Signal64 widened;  // the same in double
};

}  // namespace zevrant
