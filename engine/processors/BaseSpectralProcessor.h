#pragma once

#include <list>

#include "DspCore/FourierTransform.h"
#include "DspCore/RecyclingPool.h"
#include "DspCore/SignalQueue.h"
#include "DspCore/Signals.h"
#include "processors/BaseAudioProcessor.h"

namespace zevrant {

// Cuts a stream of audio blocks of any length into overlapping frames, takes each to the frequency
// domain for a derived class, and sums what comes back to audio.
//
//   block     the oldest windowSize samples of the queue, which then moves on by hopSize
//   spectrum  forwardReal(fftSize - windowSize zeros, then block * analysisWindow)
//   frame     the last windowSize samples of inverseReal(result), * synthesisWindow
//   output    per hop: samples windowSize - hopSize * (numOfTailHops + 1) onward of the oldest frame
//             + samples windowSize - hopSize * (numOfTailHops + 2) onward of the one after it
//
// Two frames are summed for every output hop, whatever windowSize / hopSize: a frame contributes two
// hops of its samples and the rest of it is left out.
//
//   windowSize < 3 * hopSize   root Hann windows, synthesis scaled by 1 / fftSize; no tail hop
//   windowSize >= 3 * hopSize  a Hann analysis window; synthesis takes it back and puts a Hann window of
//                              two hops in the middle of the frame, scaled by 1 / windowSize; the last
//                              hop of the frame is a tail that is left out. On purpose, the gain is 1
//                              only where fftSize equals windowSize, and a window of three hops does not
//                              line up with its segments.
//
// Latency  getLatency. Output comes in whole hops, when two frames are there.
// Memory   Spectra, frames and list nodes are recycled: after the first frames, a block asks the system
//          for nothing (a derived class that makes its results with resultNodes included).
// Errors   std::out_of_range or std::invalid_argument, before memory is touched, for what the sizes make
//          impossible: a hop below 1, a window longer than the transform, segments outside their frame,
//          blocks or results with other channels than the windows. The queue has then moved on and the
//          frames of that block are lost.
// Threads  setBlocking, reset and process must not overlap; no locks.
class BaseSpectralProcessor : public BaseAudioProcessor {
  public:
    BaseSpectralProcessor();
    ~BaseSpectralProcessor() override;

    // (numOfTailHops + numOfOverlapFrames - 1) hops for a block of whole hops, one hop more for others.
    int getLatency(int blockSize) const override;

    // Drops all audio, and primes the queue with so many zeros that the first output sample lines up
    // with the first input sample after getLatency.
    void reset() override;

    // Adds a block and returns the audio that is complete, which may be 0 samples. With a windowSize
    // below 1 the result shares its storage with input.
    Signal32 process(const Signal32& input) override;

    // The same for what waits in inputQueue already, whose audio goes to the end of ready hop by hop. So the
    // memory that a block takes does not depend on its length. Needs a windowSize of 1 or more.
    void processQueued(SignalQueue<Signal32>& ready);

    // The spectral step: fftSize / 2 + 1 bins per input channel to any number of spectra of as many bins
    // per output channel. Each of them becomes a frame; none is allowed.
    virtual std::list<ComplexSignal32> process(const ComplexSignal32& spectrum) = 0;

    // Makes both windows for the current formats and sizes. Does nothing while no output format is set.
    virtual void generateWindows();

    // All in samples. A windowSize of 0 makes the processor transparent. To be called again after a
    // change of format, since the windows have a row per channel.
    void setBlocking(int newFftSize, int newWindowSize, int newHopSize);

    Signal32 getAnalysisWindow() const;  // shares storage

    // One block of windowSize samples in, its synthesis frames out.
    std::list<Signal32> processBlock(const Signal32& block);

    bool spectralFlag = true;    // for derived classes to set; nothing here depends on it
    int fftSize = 0;             // transform length
    int windowSize = 0;          // frame length, at most fftSize
    int hopSize = 0;             // distance between frame starts
    int numOfTailHops = 0;       // hops at the end of a frame that are left out of the output
    int numOfOverlapFrames = 2;  // frames summed for an output hop
    Signal32 analysisWindow;     // a row per input channel, windowSize samples
    Signal32 synthesisWindow;    // a row per output channel, windowSize samples, with the inverse's scale
    FourierTransform fourierTransform;
    std::list<Signal32> outputFrames;  // windowed frames that wait to be summed, oldest first
    SignalQueue<Signal32> inputQueue;  // input that is not used up

  protected:
    // Nodes of the result lists, kept for the next ones: a derived class appends its results with them.
    ListNodeReserve<ComplexSignal32> resultNodes;

  private:
    void requireHop() const;
    bool takeFrame();
    Signal32 windowForTransform(const Signal32& block) const;
    Signal32 windowForOutput(Signal32 time) const;
    void requireOldestFrames(int numOfChannels) const;
    void sumOldestFrames(Signal32& result, int column, int start, int count) const;

    ListNodeReserve<Signal32> frameNodes;
};

}  // namespace zevrant
