#include "jack/JackSession.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace zevrant::jack {

namespace {

constexpr int longestPart = 1024;  // samples that go through the stream at once

void append(std::vector<std::string>& names, const std::string& name, int numOfChannels) {
    for (int c = 1; c <= numOfChannels; ++c) names.push_back(name + "_" + std::to_string(c));
}

// Written by one thread only.
void raise(std::atomic<std::int64_t>& count, std::int64_t by) {
    count.store(count.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

// From the least to the most of what these ports have, those alone that are connected.
jack_latency_range_t joinLatencies(const std::vector<jack_port_t*>& ports, JackPortFlags direction,
                                   jack_latency_callback_mode_t mode) {
    jack_latency_range_t joined{};
    bool isFirst = true;
    for (jack_port_t* port : ports) {
        if ((jack_port_flags(port) & direction) == 0 || !jack_port_connected(port)) continue;
        jack_latency_range_t range;
        jack_port_get_latency_range(port, mode, &range);
        joined.min = isFirst ? range.min : std::min(joined.min, range.min);
        joined.max = std::max(joined.max, range.max);
        isFirst = false;
    }
    return joined;
}

}  // namespace

std::vector<std::string> JackSession::makeInputNames(int numOfChannels) {
    std::vector<std::string> names;
    append(names, "in", numOfChannels);
    return names;
}

std::vector<std::string> JackSession::makeOutputNames(int numOfChannels) {
    std::vector<std::string> names;
    append(names, "out", numOfChannels);
    return names;
}

// ---- opening -----------------------------------------------------------------------------------

std::unique_ptr<JackSession> JackSession::open(const separation::Model& model, const Settings& settings) {
    jack_status_t status{};
    jack_client_t* client = jack_client_open(settings.clientName.c_str(), JackNoStartServer, &status);
    if (!client) return nullptr;
    return std::unique_ptr<JackSession>(new JackSession(client, model, settings));
}

JackSession::JackSession(jack_client_t* opened, const separation::Model& model, const Settings& settings)
    : client(opened), numOfChannels(settings.numOfChannels) {
    // A constructor that throws runs no destructor.
    struct Guard {
        jack_client_t* client;
        ~Guard() {
            if (client) jack_client_close(client);
        }
    } guard{client};

    const auto sampleRate = jack_get_sample_rate(client);
    separation::StreamOptions options;
    options.format = {numOfChannels, static_cast<double>(sampleRate), longestPart,
                      settings.hasStems ? separation::Output::Busses : separation::Output::Mix};
    stream = std::make_unique<separation::StreamState>(model, options);
    for (std::size_t bus = 0; bus < settings.levels.size(); ++bus) {
        stream->getControls().levels[bus] = settings.levels[bus];
        stream->getControls().sensitivities[bus] = settings.sensitivities[bus];
    }
    stream->reset();  // starts with these levels instead of fading to them
    numOfOutputs = stream->info.numOfOutputChannels;
    registerPorts(stream->busNames, settings.hasStems);

    jack_on_shutdown(
        client, [](void* self) { static_cast<JackSession*>(self)->hasEnded = true; }, this);
    jack_set_sample_rate_callback(
        client,
        [](jack_nframes_t newRate, void* self) {
            auto& session = *static_cast<JackSession*>(self);
            if (newRate != static_cast<jack_nframes_t>(session.stream->info.sampleRate))
                session.hasEnded = true;
            return 0;
        },
        this);
    jack_set_xrun_callback(
        client,
        [](void* self) {
            ++static_cast<JackSession*>(self)->numOfXruns;
            return 0;
        },
        this);
    jack_set_latency_callback(
        client,
        [](jack_latency_callback_mode_t mode, void* self) {
            static_cast<JackSession*>(self)->tellLatency(mode);
        },
        this);
    jack_set_process_callback(
        client,
        [](jack_nframes_t numOfSamples, void* self) {
            static_cast<JackSession*>(self)->process(static_cast<int>(numOfSamples));
            return 0;
        },
        this);
    if (jack_activate(client) != 0)
        throw std::runtime_error("the JACK server does not let this client take part");
    guard.client = nullptr;
}

void JackSession::registerPorts(const std::vector<std::string>& busNames, bool hasStems) {
    const auto registerAll = [&](const std::vector<std::string>& names, JackPortFlags direction) {
        for (const std::string& name : names) {
            ports.push_back(jack_port_register(client, name.c_str(), JACK_DEFAULT_AUDIO_TYPE, direction, 0));
            if (!ports.back()) throw std::runtime_error("the JACK server has no port for " + name);
        }
    };
    registerAll(makeInputNames(numOfChannels), JackPortIsInput);
    std::vector<std::string> outputs = makeOutputNames(numOfChannels);
    if (hasStems)
        for (const std::string& name : busNames) append(outputs, name, numOfChannels);
    registerAll(outputs, JackPortIsOutput);
    buffers.resize(ports.size());
    inRows.resize(static_cast<std::size_t>(numOfChannels));
    outRows.resize(static_cast<std::size_t>(numOfOutputs));
}

JackSession::~JackSession() {
    jack_client_close(client);
}

// ---- what JACK calls ---------------------------------------------------------------------------

void JackSession::process(int numOfSamples) noexcept {
    const jack_time_t start = jack_get_time();
    for (std::size_t i = 0; i < ports.size(); ++i)
        buffers[i] =
            static_cast<float*>(jack_port_get_buffer(ports[i], static_cast<jack_nframes_t>(numOfSamples)));
    for (int first = 0; first < numOfSamples; first += longestPart)
        processPart(first, std::min(longestPart, numOfSamples - first));

    const auto duration = static_cast<std::int64_t>(jack_get_time() - start);
    raise(numOfBlocks, 1);
    raise(busyMicroseconds, duration);
    if (duration > slowestMicroseconds.load(std::memory_order_relaxed))
        slowestMicroseconds.store(duration, std::memory_order_relaxed);
}

void JackSession::processPart(int first, int numOfSamples) {
    const auto channels = static_cast<std::size_t>(numOfChannels);
    const auto outputs = static_cast<std::size_t>(numOfOutputs);
    const bool hasStems = outputs > channels;
    float* const* mix = buffers.data() + channels;
    for (std::size_t c = 0; c < channels; ++c) inRows[c] = buffers[c] + first;
    for (std::size_t c = 0; c < outputs; ++c) outRows[c] = mix[hasStems ? channels + c : c] + first;
    try {
        stream->add(inRows.data(), numOfSamples);
    } catch (...) {  // what it led to is silence
        raise(numOfFailures, 1);
    }
    try {
        stream->take(outRows.data(), numOfSamples);
    } catch (...) {
        for (float* row : outRows) std::fill_n(row, numOfSamples, 0.0f);
    }
    if (!hasStems) return;
    for (std::size_t c = 0; c < channels; ++c) {
        float* sum = mix[c] + first;
        std::copy_n(outRows[c], numOfSamples, sum);
        for (std::size_t row = c + channels; row < outputs; row += channels)
            for (int i = 0; i < numOfSamples; ++i) sum[i] += outRows[row][i];
    }
}

void JackSession::tellLatency(jack_latency_callback_mode_t mode) {
    const JackPortFlags source = mode == JackCaptureLatency ? JackPortIsInput : JackPortIsOutput;
    jack_latency_range_t range = joinLatencies(ports, source, mode);
    range.min += static_cast<jack_nframes_t>(stream->info.latency);
    range.max += static_cast<jack_nframes_t>(stream->info.latency);
    for (jack_port_t* port : ports)
        if ((jack_port_flags(port) & source) == 0) jack_port_set_latency_range(port, mode, &range);
}

Statistics JackSession::getStatistics() const {
    return {numOfBlocks, busyMicroseconds, slowestMicroseconds, numOfXruns, numOfFailures};
}

}  // namespace zevrant::jack
