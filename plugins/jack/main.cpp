// zevrant-jack: a model between the ports of a JACK server, PipeWire's included.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/Failure.h"
#include "cli/Interruption.h"
#include "cli/Model.h"
#include "cli/Text.h"
#include "jack/Connections.h"
#include "jack/JackSession.h"
#include "separation/Model.h"

namespace {

using namespace zevrant::cli;
using namespace zevrant::jack;
using Clock = std::chrono::steady_clock;

constexpr double mostDecibels = 40.0;
constexpr std::chrono::milliseconds tick(100);    // from one look at the graph to the next
constexpr std::chrono::milliseconds retry(1000);  // from one try to reach a server to the next

struct Options {
    std::string model;
    std::string name = "zevrant";
    std::vector<std::string> levels, sensitivities;  // BUS=NUMBER
    std::string from, to;
    int numOfChannels = 2;
    double statusInterval = -1.0;  // seconds; 0 never, below 0 as the terminal has it
    bool hasStems = false;
    bool isQuiet = false;
    bool listsModels = false;

    void addTo(CLI::App& program) {
        program.add_option("-m,--model", model, "Model: a path, or the name of an installed one");
        program
            .add_option("--level", levels,
                        "BUS=dB, up to 40: the level of a bus; -inf silences it. May be repeated")
            ->allow_extra_args(false);
        program
            .add_option("--sensitivity", sensitivities,
                        "BUS=VALUE, -100 to 100: above 0 weak parts of a mask fade, below 0 they rise")
            ->allow_extra_args(false);
        program.add_flag("--stems", hasStems, "Ports for every bus besides those of the mix");
        program.add_option("--from", from,
                           "Connect the inputs to the outputs of this client, or to those whose names\n"
                           "begin like this, as soon as they are there");
        program.add_option("--to", to, "Connect the outputs of the mix likewise");
        program.add_option("--channels", numOfChannels, "Inputs, and outputs of the mix and of each bus")
            ->check(CLI::Range(1, 64))
            ->capture_default_str();
        program.add_option("-n,--name", name, "Name of the client")->capture_default_str();
        program
            .add_option("--status", statusInterval,
                        "Seconds from one status line to the next, 0 for none. Without it every second\n"
                        "where standard error is a terminal, and none elsewhere")
            ->check(CLI::Range(0.0, 86400.0));
        program.add_flag("--models", listsModels, "List the models that go by name, and end");
        program.add_flag("-q,--quiet", isQuiet, "Print nothing but errors");
    }

    Settings makeSettings(const Model& opened) const {
        const std::size_t numOfBusses = opened.getBusNames().size();
        Settings settings{name, numOfChannels, hasStems, {}, {}};
        settings.levels.resize(numOfBusses, 0.0f);
        settings.sensitivities.resize(numOfBusses, 0.0f);
        for (const std::string& text : levels) {
            const BusSetting level(opened, text, "--level", -std::numeric_limits<double>::infinity(),
                                   mostDecibels);
            settings.levels[static_cast<std::size_t>(level.bus)] = static_cast<float>(level.value);
        }
        for (const std::string& text : sensitivities) {
            const BusSetting setting(opened, text, "--sensitivity", -100.0, 100.0);
            settings.sensitivities[static_cast<std::size_t>(setting.bus)] = static_cast<float>(setting.value);
        }
        return settings;
    }
};

// Standard error: lines for what happens, and below them the status, which on a terminal stays in its place.
class Display {
  public:
    explicit Display(const Options& options)
        : isQuiet(options.isQuiet),
          isTerminal(isatty(STDERR_FILENO) == 1),
          interval(options.statusInterval >= 0.0 ? options.statusInterval : (isTerminal ? 1.0 : 0.0)) {}
    ~Display() {
        if (hasStatus) std::fputc('\n', stderr);
    }
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    void print(const std::string& line) {
        if (isQuiet) return;
        std::fprintf(stderr, "%s%s\n", hasStatus ? "\r\x1b[K" : "", makeHarmless(line).c_str());
        hasStatus = false;
    }

    // Load is that of the time since the last status.
    void showStatus(const JackSession& session) {
        const Clock::time_point now = Clock::now();
        if (isQuiet || interval <= 0.0 || now - lastTime < std::chrono::duration<double>(interval)) return;
        const Statistics statistics = session.getStatistics();
        const auto microseconds = std::chrono::duration<double, std::micro>(now - lastTime).count();
        const double load =
            static_cast<double>(statistics.busyMicroseconds - lastBusyMicroseconds) / microseconds;
        lastTime = now;
        lastBusyMicroseconds = statistics.busyMicroseconds;
        if (isTerminal) std::fputs("\r\x1b[K", stderr);
        std::fprintf(stderr, "load %.1f %%, slowest block %.2f ms of %.2f, %lld xruns", 100.0 * load,
                     static_cast<double>(statistics.slowestMicroseconds) / 1e3,
                     1e3 * jack_get_buffer_size(session.getClient()) / session.getInfo().sampleRate,
                     static_cast<long long>(statistics.numOfXruns));
        if (statistics.numOfFailures > 0)
            std::fprintf(stderr, ", the model failed %lld times",
                         static_cast<long long>(statistics.numOfFailures));
        if (!isTerminal) std::fputc('\n', stderr);
        hasStatus = isTerminal;
    }

    void start() {
        lastTime = Clock::now();
        lastBusyMicroseconds = 0;
    }

  private:
    const bool isQuiet, isTerminal;
    const double interval;  // seconds
    bool hasStatus = false;
    Clock::time_point lastTime;
    std::int64_t lastBusyMicroseconds = 0;
};

void wait(std::chrono::milliseconds duration) {
    for (const Clock::time_point end = Clock::now() + duration; Clock::now() < end;) {
        stopIfInterrupted();
        std::this_thread::sleep_for(std::min(tick, duration));
    }
    stopIfInterrupted();
}

std::string describe(const JackSession& session) {
    const ZevrantSeparationInfo& info = session.getInfo();
    char text[160];
    std::snprintf(text, sizeof text, ": %.0f Hz, blocks of %u, latency %d samples (%.1f ms)", info.sampleRate,
                  jack_get_buffer_size(session.getClient()), info.latency,
                  1e3 * info.latency / info.sampleRate);
    return std::string(jack_get_client_name(session.getClient())) + text;
}

// Takes part in one server after the other until a signal ends the program.
[[noreturn]] void serve(const Options& options) {
    const Model model = Model::open(options.model);
    const Settings settings = options.makeSettings(model);
    Connections connections;
    if (!options.from.empty())
        connections.ask(JackSession::makeInputNames(options.numOfChannels), options.from, JackPortIsOutput);
    if (!options.to.empty())
        connections.ask(JackSession::makeOutputNames(options.numOfChannels), options.to, JackPortIsInput);

    Display display(options);
    for (bool isWaiting = false;;) {
        const std::unique_ptr<JackSession> session = JackSession::open(model, settings);
        if (!session) {
            if (!isWaiting) display.print("no JACK server; waiting for one");
            isWaiting = true;
            wait(retry);
            continue;
        }
        isWaiting = false;
        display.print(describe(*session));
        display.start();
        while (!session->isOver()) {
            connections.update(session->getClient(), session->getPorts());
            display.showStatus(*session);
            wait(tick);
        }
        display.print("the JACK server has ended, or changed its sample rate");
        connections.noteEnd();
    }
}

int report(int status, const std::string& text) {
    std::fprintf(stderr, "zevrant-jack: %s\n", makeHarmless(text).c_str());
    return status;
}

int run(int argc, char** argv) {
    CLI::App program("Separates live audio with a neural model between the ports of a JACK server.",
                     "zevrant-jack");
    program.footer(
        "Busses are named or numbered from 0; 'zevrant info MODEL' lists them. The latency is told to the\n"
        "server, which shows it by 'jack_lsp -l'. When the server ends, the program waits for the next one,\n"
        "and its connections come back, as they do when the program at their other end does.\n"
        "\n"
        "Examples:\n"
        "  zevrant-jack -m harmonic-percussive --level Percussive=-12 --from system --to system\n"
        "  zevrant-jack -m center-sides --stems\n"
        "  pw-jack zevrant-jack -m hiss-reduction\n"
        "\n"
        "Exit status:\n"
        "  1  the work failed\n"
        "  2  wrong usage: an unknown option or bus, a number out of range\n"
        "  4  a model is missing, damaged or no model\n"
        "  A signal ends the program: 130 after Ctrl-C.");
    program.set_version_flag("--version", "zevrant-jack " ZEVRANT_VERSION);
    Options options;
    options.addTo(program);
    try {
        program.parse(argc, argv);
        if (options.listsModels) {
            for (const std::string& name : zevrant::separation::listModels())
                std::printf("%s\n", name.c_str());
            return 0;
        }
        if (options.model.empty())
            throw Failure(ExitStatus::WrongUsage, "--model is required (see zevrant-jack --help)");
        serve(options);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return program.exit(error);
        return report(ExitStatus::WrongUsage, std::string(error.what()) + " (see zevrant-jack --help)");
    } catch (const std::exception&) {
        const Failure failure = toFailure(std::current_exception());
        return report(failure.status, failure.what());
    }
}

}  // namespace

int main(int argc, char** argv) {
    noteInterruptions();
    jack_set_error_function([](const char*) {});  // what it would say, the program says in its own words
    jack_set_info_function([](const char*) {});
    try {
        return run(argc, argv);
    } catch (const Interrupted& interrupted) {
        endBySignal(interrupted.signal);
    } catch (const std::exception& error) {
        return report(ExitStatus::Failed, error.what());
    }
}
