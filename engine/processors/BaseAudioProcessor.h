#pragma once

#include "DspCore/AudioFormat.h"
#include "DspCore/Signals.h"

namespace zevrant {

// Root of everything that takes a block of audio and gives a block of audio.
//
// Both formats start empty, without channels and with a sample rate of 0, which means that no format
// has been set.
// Threads: no locks. The format must not change while process runs, unless a derived class says so.
class BaseAudioProcessor {
  public:
    virtual ~BaseAudioProcessor();

    // Takes over both formats where the sample rate or the channel list of either differs from what is
    // held; formats that differ only in their speaker descriptions count as equal. Always true here;
    // derived classes return false to refuse a format.
    virtual bool setFormat(const AudioFormat& input, const AudioFormat& output);

    // Latency in samples at the input rate, for a caller that brings blocks of blockSize samples.
    virtual int getLatency(int blockSize) const;

    // Drops what is held from earlier blocks.
    virtual void reset();

    virtual Signal32 process(const Signal32& input) = 0;

    AudioFormat inputFormat;   // of what process receives
    AudioFormat outputFormat;  // of what process returns
};

}  // namespace zevrant
