#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "separation/Error.h"
#include "separation/Stream.h"
#include "separation/zevrant_separation.h"

namespace zevrant::separation {

// The last failure of a handle. A thread that finds another one telling or asking leaves its own untold, so
// that none ever waits on the audio thread.
class LastFailure {
  public:
    void set(ZevrantSeparationStatus newStatus, const char* newText) noexcept;
    ZevrantSeparationStatus get(char* out, std::size_t size) const noexcept;

  private:
    mutable std::atomic_flag isBusy;
    ZevrantSeparationStatus status = ZEVRANT_SEPARATION_OK;
    char text[512] = {};
};

// What the host asked for.
struct StreamOptions {
    StreamFormat format;
    bool keepsNonFinite = false;
};

// A stream that waits to be taken, and another one that may take its place.
//
// Host and audio thread share three places. The host puts a new stream at incoming; the audio thread takes it
// from there by one exchange, runs both until the fade is over, and puts the old one at retired, from where
// the host takes it to free it. Controls are kept twice, so that a stream on its way out keeps its own.
// Threads  As zevrant_separation.h tells. Errors   Error, std::bad_alloc and what models throw.
class StreamState {
  public:
    StreamState(const Model& model, const StreamOptions& options);
    ~StreamState();
    StreamState(const StreamState&) = delete;
    StreamState& operator=(const StreamState&) = delete;

    void add(const float* const* channels, int numOfSamples);
    void addInterleaved(const float* samples, int numOfSamples);
    int getNumOfPendingSamples() const;
    void take(float* const* channels, int numOfSamples);
    void takeInterleaved(float* samples, int numOfSamples);
    void flush();
    void reset();

    Controls& getControls() { return controls[activeControls.load()]; }
    const Controls& getControls() const { return controls[activeControls.load()]; }
    int getNumOfBusses() const { return numOfBusses; }
    int getNumOfChannels() const { return options.format.numOfChannels; }
    int getLongestBlock() const { return options.format.longestBlock; }
    std::int64_t getNumOfReplacedSamples() const { return numOfReplacedSamples; }

    // Takes the stream of the other one over, which is left without one.
    void takeOver(StreamState& next, bool allowsOtherLatency);
    bool finishSwap();

    // For the host, about the stream that was opened last.
    ZevrantSeparationInfo info{};
    std::vector<std::string> busNames;
    std::string modelName, modelDescription;

  private:
    template <class Read>
    void addBlock(int numOfSamples, const Read& read);
    void processPart(int numOfSamples);
    void takeIncoming();
    void fade(int numOfSamples);
    template <class Use>
    void takeBlock(int numOfSamples, const Use& use);
    void requireOpen() const;

    const StreamOptions options;
    const int partLength;                  // samples that are processed at once
    int numOfOutputs = 0;                  // channels
    std::unique_ptr<Stream> stream, next;  // the audio thread's; next only while it comes in
    std::atomic<Stream*> incoming{nullptr}, retired{nullptr};
    bool isSwapping = false;  // for the host: until the old stream is freed

    std::array<Controls, 2> controls;
    std::atomic<std::size_t> activeControls{0};
    std::atomic<int> numOfBusses{0};
    std::atomic<std::int64_t> numOfReplacedSamples{0};

    AudioRing ready;
    std::vector<std::vector<float>> in, out, coming;  // [channel][sample], one part
    std::vector<float*> inRows, outRows, comingRows;
    std::int64_t numOfSamplesToFlush = 0;
    bool isFlushed = false;

    // Of a swap, in samples since the new stream began.
    std::int64_t timeOfSwap = 0;
    std::int64_t fadeOutStart = 0, fadeOutLength = 0, fadeInStart = 0, fadeInLength = 0;
};

}  // namespace zevrant::separation

// What a handle points to: the stream, where opening succeeded, and what went wrong last.
struct ZevrantSeparation {
    std::unique_ptr<zevrant::separation::StreamState> state;
    zevrant::separation::LastFailure lastFailure;
};
