#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <jack/jack.h>

#include "separation/Model.h"
#include "separation/StreamState.h"

namespace zevrant::jack {

struct Settings {
    std::string clientName;
    int numOfChannels = 2;
    bool hasStems = false;             // output ports for each bus besides those of the mix
    std::vector<float> levels;         // decibels, one per bus
    std::vector<float> sensitivities;  // one per bus
};

// What has happened on the audio thread so far.
struct Statistics {
    std::int64_t numOfBlocks = 0;
    std::int64_t busyMicroseconds = 0;
    std::int64_t slowestMicroseconds = 0;
    std::int64_t numOfXruns = 0;  // that the server reports, whoever caused them
    std::int64_t numOfFailures = 0;
};

// A client of a JACK server, from its opening until the server goes away.
//
//   in_1, in_2 -> stream -> out_1, out_2, and with stems BUS_1, BUS_2 for every bus
//
// Latency  Every output tells that of its inputs plus the stream's, and every input that of its outputs.
// Blocks   Of any length, also while it changes.
// Errors   The constructor throws separation::Error and std::runtime_error. On the audio thread a model that
//          fails leaves silence and is counted.
// Threads  The main thread's, but for what JACK calls on its own.
class JackSession {
  public:
    // Null where no server answers.
    static std::unique_ptr<JackSession> open(const separation::Model& model, const Settings& settings);

    JackSession(const JackSession&) = delete;
    JackSession& operator=(const JackSession&) = delete;
    ~JackSession();

    // Whether the server has gone, or has another sample rate now, so that the session is to be opened anew.
    bool isOver() const { return hasEnded; }

    Statistics getStatistics() const;
    jack_client_t* getClient() const { return client; }
    const std::vector<jack_port_t*>& getPorts() const { return ports; }
    const ZevrantSeparationInfo& getInfo() const { return stream->info; }

    static std::vector<std::string> makeInputNames(int numOfChannels);
    static std::vector<std::string> makeOutputNames(int numOfChannels);

  private:
    JackSession(jack_client_t* opened, const separation::Model& model, const Settings& settings);
    void registerPorts(const std::vector<std::string>& busNames, bool hasStems);
    void process(int numOfSamples) noexcept;
    void processPart(int first, int numOfSamples);
    void tellLatency(jack_latency_callback_mode_t mode);

    jack_client_t* client;
    std::unique_ptr<separation::StreamState> stream;
    int numOfChannels;
    int numOfOutputs = 0;             // of the stream
    std::vector<jack_port_t*> ports;  // inputs, outputs of the mix, outputs of the busses
    std::vector<float*> buffers;      // theirs in this block
    std::vector<const float*> inRows;
    std::vector<float*> outRows;

    std::atomic<bool> hasEnded{false};
    std::atomic<std::int64_t> numOfBlocks{0}, busyMicroseconds{0}, slowestMicroseconds{0};
    std::atomic<std::int64_t> numOfXruns{0}, numOfFailures{0};
};

}  // namespace zevrant::jack
