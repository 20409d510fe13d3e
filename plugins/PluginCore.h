#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "separation/Model.h"
#include "separation/Stream.h"

namespace zevrant::plugins {

// A model in somebody else's host: what all plug-in formats of ours share.
//
//   main[n] = sum over busses of level * bus[n - latency], bypassed in[n - latency]
//   bus b   = level * bus[n - latency]; bypassed the residual is in[n - latency] and all others are silent
//
// Formats translate calls and parameters, and nothing else. In the order in which a host calls:
//
//   PluginCore core({.changesModels = true});
//   core.requestModel("drums");                              // path or name
//   core.activate(48000.0);                                  // has the model now, and its latency
//   core.process(in, out, numOfSamples);                     // ... any lengths
//   core.deactivate();
//
// Blocks   Of any length, 0 included; how audio is cut changes no sample. Input and output rows may be the
//          same memory. Samples that are infinite or no number count as 0.
// Latency  That of the model at the host's rate, constant from activate() on: so many samples of silence,
// then
//          sound. Without a model it is 0, and audio passes.
// Levels   Decibels, -90 is silence. Levels move in 20 ms, sensitivities with the overlap of the frames;
// bypass
//          fades in 20 ms between sound and input, both equally late.
// Models   Another model is read, built and run in by the worker, while the old one plays, and the old one is
//          freed there. Of the same latency it fades in within 20 ms. One of another latency waits until the
//          host activates anew, and getNextLatency() tells it so that the format can announce that; where
//          takesAnyLatency is set it comes in at once, with a gap as long as the latency grows.
// Faults   A model that is missing, damaged, or fails on the audio is replaced by the input, as late as the
//          model was: the same latency. getStatus() and getMessage() tell.
// Threads  [host] one at a time, never during process() where it says so. [audio] takes no lock, asks for no
//          memory, makes no system call and never throws. [any] any thread at any time.
class PluginCore {
  public:
    static constexpr int mostBusses = 16;
    static constexpr int mostBussesOfAnyModel = 8;  // with parameters, where the model is the user's choice
    static constexpr float lowestLevel = -90.0f, highestLevel = 12.0f;  // decibels; the lowest is silence
    static constexpr float mostSensitivity = 100.0f;                    // -100 to 100, 0 is neutral

    struct Options {
        int numOfChannels = 2;
        int numOfBusOutputs = 0;       // busses with outputs of their own, behind the main output
        bool changesModels = false;    // runs a thread of its own that works whenever there is work
        bool takesAnyLatency = false;  // for hosts that only read a latency and never restart
    };

    enum class Status {
        None,     // no model was asked for
        Loading,  // the one that was asked for last is not there yet
        Ready,
        Missing,  // no such file
        Broken    // no model, a damaged one, or one that failed on the audio
    };

    explicit PluginCore(const Options& options);
    ~PluginCore();
    PluginCore(const PluginCore&) = delete;
    PluginCore& operator=(const PluginCore&) = delete;

    // ---- the model

    // Asks for the model of this path or name ("" for none), which the next activate() or the worker brings;
    // the last one asked for counts. [any] False, on the audio thread, at a moment when the worker reads an
    // earlier request, or for a name longer than 4095 bytes: ask again with the next block.
    bool requestModel(std::string_view pathOrName) noexcept { return requests.put(pathOrName); }

    // Whether work() has something to do. For formats whose host has a worker. [any]
    bool needsWork() const noexcept;

    // Loads, builds and frees. Takes as long as files and models take. [host, also during process()]
    void work();

    // The latency that the next activate() will bring, where it differs from what plays. [any]
    std::optional<int> getNextLatency() const noexcept;

    Status getStatus() const noexcept {  // [any]
        return requests.isFull() || wantsOther ? Status::Loading : status.load();
    }
    std::string getMessage() const;                // one sentence about it, empty when ready [host]
    std::vector<std::string> getBusNames() const;  // of the model that was opened last [host]
    std::string getModelPath() const;              // of its file, or what was asked for in vain [host]

    // ---- audio

    // Makes ready for a rate, 1000 to 10000000 Hz, with the model that was asked for last and no audio in it.
    // A fault leaves what passes audio; memory that runs out is std::bad_alloc. [host, not during process()]
    void activate(double sampleRate);
    void deactivate();
    bool isActive() const noexcept { return active; }

    // Drops all audio: as after activate(). [audio, or host when not during process()]
    void reset() noexcept;

    // in: one row for each channel. out: the rows of the main output, then those of each bus with an output.
    // Rows of out may be null, and then are left out. Before activate() the output is silent. [audio]
    void process(const float* const* in, float* const* out, int numOfSamples) noexcept;

    int getLatency() const noexcept { return latency; }  // samples [any]

    // ---- parameters [any]

    void setLevel(int bus, float decibel) noexcept;
    float getLevel(int bus) const noexcept;
    void setSensitivity(int bus, float value) noexcept;
    float getSensitivity(int bus) const noexcept;
    void setBypassed(bool isOn) noexcept { bypassed = isOn; }
    bool isBypassed() const noexcept { return bypassed; }

  private:
    struct Source;  // a model, or none, with the input equally late

    // Texts of any thread for the worker: the last one counts, and nobody waits for long.
    class Mailbox {
      public:
        bool put(std::string_view text) noexcept;
        std::string take();  // of a full one
        bool isFull() const noexcept { return full; }

      private:
        std::atomic_flag busy;
        std::atomic<bool> full{false};
        std::array<char, 4096> content{};
        std::size_t length = 0;
    };

    void runWorker();
    void takeRequest();
    std::unique_ptr<Source> build(int latencyOfFault);
    void tell(const Source& source);
    void tell(Status newStatus, const std::string& text);
    void processPart(const float* const* in, float* const* out, int first, int numOfSamples);
    void takeIncoming();
    void blend(int numOfSamples);
    void finishSwap();

    const Options options;
    separation::Controls controls;
    std::atomic<bool> bypassed{false};
    std::atomic<int> latency{0}, nextLatency{-1};  // -1: no other

    // Between worker and audio thread. What plays belongs to the audio thread while it is active.
    Mailbox requests;
    std::atomic<Source*> incoming{nullptr}, retired{nullptr};
    std::unique_ptr<Source> current, next;  // next only while it comes in
    std::vector<std::vector<float>> input;  // [channel][sample], one part
    std::vector<float*> inputRows;

    // Of a swap, in samples since the new source began.
    std::int64_t timeOfSwap = 0, fadeOutStart = 0, fadeInStart = 0, fadeLength = 1;

    // Of the worker and the host, behind workMutex.
    std::mutex workMutex;
    std::string wanted;                      // path or name
    std::unique_ptr<Source> waiting;         // has another latency
    std::optional<separation::Model> model;  // the last one that was opened
    double sampleRate = 0.0;                 // hertz
    std::atomic<bool> wantsOther{false};     // wanted is not yet what was built last
    std::atomic<bool> active{false};

    std::atomic<Status> status{Status::None};
    mutable std::mutex textMutex;  // for what follows
    std::string message, modelPath;
    std::vector<std::string> busNames;

    std::mutex wakeMutex;
    std::condition_variable wake;
    bool isOver = false;
    std::thread worker;
};

}  // namespace zevrant::plugins
