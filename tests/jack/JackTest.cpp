// zevrant-jack as its users meet it: a server, a player, the program, a recorder.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <jack/jack.h>

#include "TestSignals.h"
#include "separation/Model.h"
#include "separation/StreamState.h"

namespace zevrant {
namespace {

constexpr int sampleRate = 48000;
constexpr int period = 1024;
constexpr const char* model = MODELS_FOLDER "/harmonic-percussive.zevrant";

bool waitFor(const std::function<bool()>& isTrue) {
    for (int i = 0; i < 1200; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(50)))
        if (isTrue()) return true;
    return false;
}

// A program that runs until it is told to end.
class Process {
  public:
    explicit Process(std::vector<std::string> words) {
        std::vector<char*> arguments;
        for (std::string& word : words) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        id = fork();
        if (id == 0) {
            execv(arguments[0], arguments.data());
            _exit(127);
        }
    }
    ~Process() { endBy(SIGKILL); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // The signal that ended it, or 0.
    int endBy(int signal) {
        if (id <= 0) return 0;
        kill(id, signal);
        int status = 0;
        waitpid(id, &status, 0);
        id = -1;
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    bool isRunning() const { return waitpid(id, nullptr, WNOHANG) == 0; }

  private:
    pid_t id = -1;
};

// Plays a signal on two ports and records two others, block for block of the same cycles.
class PlayerAndRecorder {
  public:
    PlayerAndRecorder() {
        player = open("player", [](jack_nframes_t count, void* self) {
            return static_cast<PlayerAndRecorder*>(self)->play(count);
        });
        recorder = open("recorder", [](jack_nframes_t count, void* self) {
            return static_cast<PlayerAndRecorder*>(self)->record(count);
        });
        if (!isOpen()) return;
        for (int c = 0; c < 2; ++c) {
            const std::string number = std::to_string(c + 1);
            outputs[c] = jack_port_register(player, ("play_" + number).c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                            JackPortIsOutput, 0);
            inputs[c] = jack_port_register(recorder, ("record_" + number).c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                           JackPortIsInput, 0);
        }
        jack_activate(player);
        jack_activate(recorder);
    }
    ~PlayerAndRecorder() {
        if (player) jack_client_close(player);
        if (recorder) jack_client_close(recorder);
    }
    PlayerAndRecorder(const PlayerAndRecorder&) = delete;
    PlayerAndRecorder& operator=(const PlayerAndRecorder&) = delete;

    bool isOpen() const { return player && recorder; }
    bool isConnected() const {
        for (int c = 0; c < 2; ++c)
            if (!jack_port_connected(outputs[c]) || !jack_port_connected(inputs[c])) return false;
        return true;
    }
    jack_nframes_t getLatency() const {
        jack_latency_range_t range{};
        jack_port_get_latency_range(inputs[0], JackCaptureLatency, &range);
        return range.max;
    }

    std::vector<float> recordWhilePlaying(const std::vector<float>& newSignal) {
        signal = newSignal;
        recording.assign(newSignal.size(), 0.0f);
        next = 0;
        isPlaying = true;
        EXPECT_TRUE(waitFor([&] { return !isPlaying; }));
        return recording;
    }

  private:
    jack_client_t* open(const char* name, JackProcessCallback callback) {
        const auto options = static_cast<jack_options_t>(JackNoStartServer | JackUseExactName);
        jack_client_t* client = jack_client_open(name, options, nullptr);
        if (client) jack_set_process_callback(client, callback, this);
        return client;
    }
    // The program stands between the two, so the recorder comes behind the player in every cycle.
    int play(jack_nframes_t count) {
        const bool plays = isPlaying;
        start = plays ? next.fetch_add(count) : ~std::size_t{0};
        for (int c = 0; c < 2; ++c) {
            auto* out = static_cast<float*>(jack_port_get_buffer(outputs[c], count));
            for (std::size_t i = 0; i < count; ++i) {
                const std::size_t at = 2 * (start + i) + static_cast<std::size_t>(c);
                out[i] = plays && at < signal.size() ? signal[at] : 0.0f;
            }
        }
        return 0;
    }
    int record(jack_nframes_t count) {
        if (!isPlaying || start == ~std::size_t{0}) return 0;
        for (int c = 0; c < 2; ++c) {
            const auto* in = static_cast<const float*>(jack_port_get_buffer(inputs[c], count));
            for (std::size_t i = 0; i < count; ++i) {
                const std::size_t at = 2 * (start + i) + static_cast<std::size_t>(c);
                if (at < recording.size()) recording[at] = in[i];
            }
        }
        if (2 * (start + count) >= recording.size()) isPlaying = false;
        return 0;
    }

    jack_client_t *player = nullptr, *recorder = nullptr;
    jack_port_t *outputs[2] = {}, *inputs[2] = {};
    std::vector<float> signal, recording;
    std::atomic<std::size_t> next{0}, start{0};
    std::atomic<bool> isPlaying{false};
};

class JackTest : public testing::Test {
  protected:
    JackTest() {
        setenv("JACK_DEFAULT_SERVER", name.c_str(), 1);
        setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
        jack_set_error_function([](const char*) {});
        jack_set_info_function([](const char*) {});
    }

    void startServer() {
        server = std::make_unique<Process>(std::vector<std::string>{
            "/bin/sh", "-c",
            "exec " JACKD " -n " + name + " -S -t 5000 --no-realtime -d dummy -C 0 -P 0 -r " +
                std::to_string(sampleRate) + " -p " + std::to_string(period) + " >/dev/null 2>&1"});
        startClients();
    }
    // Under their own names alone, which those before them may hold for a moment yet.
    void startClients() {
        ASSERT_TRUE(waitFor([&] {
            clients.reset();
            clients = std::make_unique<PlayerAndRecorder>();
            return clients->isOpen();
        })) << "no server";
    }
    void stopServer() {
        clients.reset();
        server->endBy(SIGTERM);
    }

    const std::string name = "zevrant-test-" + std::to_string(getpid());
    std::unique_ptr<Process> server;
    std::unique_ptr<PlayerAndRecorder> clients;
};

// What a stream makes of the signal that begins so many samples after the stream.
std::vector<float> separate(const std::vector<float>& signal, int samplesBefore, float level, int& latency) {
    separation::StreamOptions options;
    options.format = {2, sampleRate, period, separation::Output::Mix};
    separation::StreamState stream(separation::Model::open(model), options);
    stream.getControls().levels[1] = level;
    stream.reset();
    latency = stream.info.latency;
    const std::vector<float> zeros(2 * period, 0.0f);
    std::vector<float> out(signal.size());
    for (int rest = samplesBefore; rest > 0; rest -= period) {
        stream.addInterleaved(zeros.data(), std::min(rest, period));
        stream.takeInterleaved(out.data(), std::min(rest, period));
    }
    for (std::size_t i = 0; i < signal.size(); i += 2 * period) {
        const auto count = static_cast<int>(std::min<std::size_t>(period, (signal.size() - i) / 2));
        stream.addInterleaved(signal.data() + i, count);
        stream.takeInterleaved(out.data() + i, count);
    }
    return out;
}

TEST_F(JackTest, soundsLikeTheStreamAndFindsItsPlaceAgain) {
    startServer();
    Process program(
        {ZEVRANT_JACK, "-m", model, "--level", "percussive=-12", "--from", "player", "--to", "recorder"});
    ASSERT_TRUE(waitFor([&] { return clients->isConnected(); }));

    // Frames of the model begin where the program has begun, so many whole blocks ago.
    const std::vector<float> signal = noise(2 * 2 * sampleRate, 1, 0.25f);
    const std::vector<float> recording = clients->recordWhilePlaying(signal);
    int latency = 0;
    float least = INFINITY;
    for (int blocks = 0; blocks < 4; ++blocks) {
        const std::vector<float> expected = separate(signal, 8192 + blocks * period, -12.0f, latency);
        float largest = 0.0f;
        for (std::size_t i = 0; i < recording.size(); ++i)
            largest = std::max(largest, std::abs(recording[i] - expected[i]));
        least = std::min(least, largest);
    }
    EXPECT_LT(least, 1e-6f);
    EXPECT_TRUE(waitFor([&] { return static_cast<int>(clients->getLatency()) == latency; }))
        << clients->getLatency() << " instead of " << latency;

    startClients();  // the player and the recorder end and start again
    EXPECT_TRUE(waitFor([&] { return clients->isConnected(); }));

    stopServer();
    startServer();
    EXPECT_TRUE(waitFor([&] { return clients->isConnected(); }));
    EXPECT_TRUE(program.isRunning());
    EXPECT_EQ(program.endBy(SIGINT), SIGINT);
}

}  // namespace
}  // namespace zevrant
