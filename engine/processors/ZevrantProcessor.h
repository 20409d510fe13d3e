#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DspCore/AudioFormat.h"
#include "DspCore/Signals.h"
#include "files/File.h"
#include "neural/NeuralModel.h"
#include "processors/BaseSpectralProcessor.h"
#include "processors/MaskShaping.h"
#include "processors/ThreadPool.h"

namespace zevrant {

// The spectral processor of the engine: runs one or more models on every frame and mixes their busses.
//
// For mask models (processingMode 0 of the first model), with shape_b the sensitivity of bus b, m_b its
// mask, g_b its gain, and r the last bus, the residual:
//
//   output = input * (sum over b of g_b * shape_b(m_b) + g_r * shape_r(1 - sum over b of shape_b(m_b)))
//
// For other models, with s_b the spectrum of bus b: output = sum of g_b * s_b + g_r * (input - sum of s_b).
// The residual is no model's output, so unit gains and neutral sensitivities give the input back.
//
// Format   The host's rate is not converted. Frame sizes are the model's times a power of two: with
//          ratio = host rate / model rate, its exponent is log2(ratio), rounded to the nearest from a
//          ratio of 1 up and rounded up below. On purpose: 0.91875 keeps the model's sizes, 1.5 doubles
//          them. Channels that differ from the model's go through mono, whatever the counts.
// Latency  getLatency: that of the framing and the slowest model's.
// Queues   Input spectra wait for the results of their frame, and each bus list for the others. The k-th
//          result of every list belongs to the k-th input. With N > 1 model files there are N - 1 more
//          lists than models fill, on purpose, so no frame is ever completed.
//          Bound: at most 4096 input frames wait, or as many as fill 256 MiB, but never fewer than 1024.
//          Beyond that the oldest frame is dropped from all lists together; a list that has no result for
//          it yet drops that result when it comes, so that what is left stays aligned. A list that is
//          filled faster than frames come takes no more than this number either.
// Memory   Spectra, list nodes and scratch rows are recycled: with one model, a frame in the steady state
//          asks the system for nothing. With a pool each task costs a few small blocks.
// Errors   Loading and formats report false. Standard exceptions, before memory is touched: frame sizes
//          that no int holds, results with fewer rows than busses times channels, frames that lack
//          channels, an output frame with more than 16 busses, and what models throw. A model's exception
//          in the pool is thrown again here once every model of the frame has finished.
// Threads  Gains, sensitivities and the mask extrapolation switch: any thread at any time. All else one
//          thread at a time. With two or more models each runs on a thread of the pool during process.
class ZevrantProcessor : public BaseSpectralProcessor {
  public:
    static constexpr int numOfControls = 16;          // busses with a gain and a sensitivity
    static constexpr std::int64_t mostFrames = 4096;  // that wait for their results

    ZevrantProcessor();
    ~ZevrantProcessor() override;

    // Loads one model per file. False when a file is no model, or when models differ in window size, hop
    // size, channels or sample rate; the processor is then not to be used. A host format that is already
    // set is kept.
    bool loadModelFiles(const std::vector<File>& files);

    // The same with models that are loaded already and that nothing else runs: a copy shares its state.
    bool setModels(const std::vector<NeuralModel<float>>& models);

    // False without loaded models. Every change of format drops all streaming state.
    bool setFormat(const AudioFormat& input, const AudioFormat& output) override;

    // Scales the first model's frame sizes to the formats and takes them over, with new windows and empty
    // queues. Without models the sizes stay.
    // Throws std::length_error for sizes beyond limits::frameSize and spectra beyond limits::binsOfSpectra.
    void updateBlockSize();

    // Throws std::length_error for a latency that no int holds.
    int getLatency(int blockSize) const override;

    // Drops all audio and the models' state; parameters keep their values.
    void reset() override;

    // As after the load and the formats, to the last field of every layer; the memory stays with the pool.
    void startOver();

    Signal32 process(const Signal32& input) override;

    // One input spectrum in, the output spectra that it completes out, oldest first: none, one or more.
    std::list<ComplexSignal32> process(const ComplexSignal32& spectrum) override;

    // The signal itself, sharing its storage, where the count fits; otherwise the average of its channels,
    // repeated for every channel.
    ComplexSignal32 ensureChannelFormat(const ComplexSignal32& signal, int numOfChannels);

    // Cuts each result, numOfBusses * channels rows, into its busses and queues them in the lists from
    // busIndex on, which moves on by numOfBusses.
    void appendToBusOutputs(int& busIndex, int numOfBusses, const std::vector<ComplexSignal32>& results);

    std::vector<NeuralModel<float>>& getNeuralModels() { return neuralModels; }
    int getNumOfOutputBusses(bool includeResidual) const;
    std::string getOutputBusName(int index) const;  // empty outside the list

    // Whether no frame can be completed: no input waits, or a list has nothing.
    bool isQueueEmpty();

    // Controls. A bus outside 0 to 15 reads 0 and ignores a set. What is not a number is ignored.
    float getSensitivity(int bus) const;
    void setSensitivity(int bus, float value);  // limited to -100 to 100
    float getGain(int bus) const;
    void setGain(int bus, float value);  // linear; negative values become 0
    bool getMaskExtrapolationEnabled() const;
    void setMaskExtrapolationEnabled(bool enabled);

    // Receives each bus of each output frame before the busses are mixed: its spectrum with its sensitivity
    // and gain, in the channels of outputFormat, busses in order and the residual last. The sum of a frame's
    // busses is its output spectrum, to rounding. Called inside process, on its thread. An empty function, as
    // at the start, costs nothing; any other one complex product per bus and bin for mask models.
    // Set while no audio is processed.
    using BusReceiver = std::function<void(int bus, const ComplexSignal32& spectrum)>;
    void setBusReceiver(BusReceiver receiver) { busReceiver = std::move(receiver); }

    // Takes back results of process that were not framed here, so that the next ones find their nodes.
    void recycle(std::list<ComplexSignal32>& results) { resultNodes.clear(results); }

    std::array<std::atomic<float>, numOfControls> sensitivities;
    std::array<std::atomic<float>, numOfControls> gains;
    std::atomic<float> maskExtrapolation{1.0f};  // not 0: on
    std::unique_ptr<ThreadPool> threadPool;      // from two models on
    std::int32_t numOfModels = 0;
    std::vector<NeuralModel<float>> neuralModels;
    AudioFormat modelInputFormat;
    AudioFormat modelOutputFormat;
    std::list<std::string> outputBusNames;  // of all models, each with its residual bus
    std::int32_t blockSizeExponent = 0;     // power of two between the model's frame sizes and ours
    std::list<ComplexSignal32> inputFrames;
    std::vector<std::list<ComplexSignal32>> busOutputs;  // per bus but the last

  private:
    // Bends the magnitudes of a mask, as MaskShaping tells, for the first fftSize / 2 + 1 bins of as many
    // rows as outputFormat has channels.
    ComplexSignal32 processSensitivity(float sensitivity, const ComplexSignal32& mask);

    template <class Fill>
    bool fillModels(std::size_t count, const Fill& fill);
    bool acceptFormat(AudioFormat& modelFormat, int numOfChannels, double sampleRate);
    bool agreesInFrameSizes(const NeuralModel<float>& model) const;
    int getNumOfBusLists() const { return getNumOfOutputBusses(false); }
    void emptyBusOutputs();
    void boundQueues();
    void runModels(const ComplexSignal32& modelInput);
    void runModelsInPool(const ComplexSignal32& modelInput);
    ComplexSignal32 mixOldestFrame(bool outputsAreSpectra);
    void handOutBus(std::size_t bus, const ComplexSignal32& scaled, bool isSpectrum) const;

    std::vector<std::int64_t> numOfOutdatedResults;  // per bus list: to be dropped when they come
    std::int64_t mostWaitingFrames = mostFrames;
    BusReceiver busReceiver;

    std::vector<std::vector<ComplexSignal32>> modelResults;  // of the frame at hand, per model
    MaskShaping maskShaping;
};

}  // namespace zevrant
