#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <utility>
#include <vector>

#include "DspCore/RecyclingPool.h"
#include "separation/AudioRing.h"
#include "separation/RateConverter.h"
#include "separation/Separator.h"

namespace zevrant::separation {

constexpr int longestPart = 1024;     // of a block, in samples, that is processed at once
constexpr double fadeSeconds = 0.02;  // from one gain or model to the next

// Where the controls of a stream are to go. Any thread, at any time.
struct Controls {
    static constexpr std::size_t mostBusses = 16;

    Controls() { set(nullptr); }
    void set(const Controls* other);  // null: all neutral

    std::array<std::atomic<float>, mostBusses> levels;  // decibels
    std::array<std::atomic<float>, mostBusses> sensitivities;
    std::atomic<bool> extrapolatesMasks{true};
};

struct StreamFormat {
    int numOfChannels = 0;
    double sampleRate = 0.0;  // hertz
    int longestBlock = 0;     // samples; what process() gets at once
    Output output = Output::Mix;
    bool convertsRate = true;
};

// A live stream through a model: as many samples out as in, late by a constant number of samples.
//
//   in -> [to the working rate] -> whole hops -> separator -> [back] -> out
//
//   out[n] = what belongs to in[n - latency], the first latency samples being 0
//
// Rates    The working rate is the model's times the power of two for which it is the lowest that reaches 0.9
//          of the host's. Where it is the host's, nothing is converted. Otherwise two converters stand around
//          the separator, and
//
//            out of the residual += its level * (in - (in, there and back))
//
//          so that the busses add up to what went in, with what the conversion loses. The first converter
//          delays by d1 samples of the host's rate, the second by d2 of the working rate W / H. Zeros that
//          the second one gets first bring d2 to a whole number of samples of the host, d1 + ceil(d2 * H / W)
//          in all.
// Latency  That of the separator at the host's rate, rounded up, and that of the conversion.
// Levels   Each hop moves them on towards where the controls stand, in 20 ms, and overlap-add joins the
// steps. Memory   All is taken by the constructor, which runs the model in; the blocks of signals and tensors
// are
//          the stream's own, so that any thread may run it.
// Errors   From the constructor what Model and Separator throw, and Error with BadModel for a model that
// keeps
//          more samples back than it says. process() never throws: see getFailure().
// Threads  One at a time.
class Stream {
  public:
    // The controls are followed from here on.
    Stream(const Model& model, const StreamFormat& format, const Controls& controls);
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // One pointer per channel on each side; the two sides may not overlap.
    void process(const float* const* in, float* const* out, int numOfSamples) noexcept;

    // What went wrong in process() since the last question, none as a rule: the output is then silent where
    // it lacks. The stream goes on.
    bool hasFailed() const { return failure != nullptr; }
    std::exception_ptr takeFailure() { return std::exchange(failure, nullptr); }

    // As new, with levels where the controls stand.
    void reset();

    // Follows other controls from here on. While no audio is processed.
    void follow(const Controls& other) { controls = &other; }

    int getLatency() const { return latency; }                      // samples at the host's rate
    int getConversionLatency() const { return conversionLatency; }  // of that
    double getWorkingRate() const { return workingRate; }
    const Separator& getSeparator() const { return *separator; }

  private:
    void open(const Model& model);
    void connectConverters();
    void runIn(const Model& model);
    [[noreturn]] void refuse(const Model& model);
    void addPart(const float* const* in, int first, int numOfSamples);
    void runHop();
    template <class Step>
    void tryTo(const Step& step);
    void updateLevels(bool atOnce);
    void emit(int numOfSamples);
    void emitReturned();

    StreamFormat format;
    const Controls* controls;
    RecyclingPool pool;  // outlives what takes blocks from it
    std::unique_ptr<Separator> separator;
    int numOfOutputs = 0;  // channels
    int hopSize = 0;       // samples at the working rate
    int latency = 0, conversionLatency = 0;
    double workingRate = 0.0;

    AudioRing input;                      // at the working rate: what makes no hop yet
    AudioRing output;                     // at the host's rate: what waits for its block
    std::vector<std::vector<float>> hop;  // [channel][sample], into and out of the separator
    std::vector<float*> hopRows;
    std::int64_t numOfSamplesDue = 0;  // that the separator owes, below 0 before its delay is over
    bool hasFallenShort = false;

    // Around the separator where rates differ. Back go the outputs, and behind them the input.
    std::unique_ptr<StreamConverter> toWorkingRate, toHostRate;
    AudioRing around;                        // input of the separator whose output is still to come
    AudioRing original;                      // input of the host, late as the way there and back is
    std::vector<float> hostPart, workPart;   // interleaved, on their ways into the converters
    std::vector<float> converted, returned;  // and out of them
    std::vector<float> originalPart;         // one channel
    int numOfPrimingZeros = 0;               // before the way back
    int numOfPrimingOutputs = 0;             // that they lead to and that are left out
    std::int64_t numOfOutputsToDrop = 0;

    struct Level {
        float now = 1.0f, before = 1.0f;  // linear; before: at the hop before
        float target = 1.0f;
        int numOfSteps = 0;  // that are left to the target
    };
    std::array<Level, Controls::mostBusses> levels;
    int stepsPerChange = 1;
    std::exception_ptr failure;
};

}  // namespace zevrant::separation
