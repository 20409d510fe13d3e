#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <numeric>
#include <utility>
#include <vector>

#include "cli/Commands.h"
#include "cli/Interruption.h"
#include "cli/Json.h"
#include "cli/Model.h"
#include "cli/Text.h"
#include "separation/Separator.h"

namespace zevrant::cli {

namespace {

constexpr int fewestBlocks = 1000;     // for a 99.9th percentile
constexpr double warmUpSeconds = 0.5;  // of audio, beyond the latency

// Milliseconds per block.
struct Percentiles {
    explicit Percentiles(std::vector<double> times) {
        std::sort(times.begin(), times.end());
        const auto percentile = [&](double part) {
            const double place = std::ceil(part * static_cast<double>(times.size()));
            return times[std::min(times.size() - 1, static_cast<std::size_t>(place) - 1)];
        };
        median = percentile(0.5), percentile99 = percentile(0.99), percentile999 = percentile(0.999);
        worst = times.back();
    }
    double median, percentile99, percentile999, worst;
};

struct Timing {
    double sampleRate;
    int blockSize;
    int numOfBlocks;
    double speed;           // times real time
    double processorShare;  // of a core, while the block lasts
    Percentiles clock;      // by the clock on the wall
    Percentiles processor;  // while this thread had a core
};

// Seconds that this thread has had a core for.
double readThreadClock() {
    std::timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// White noise at -20 dB that is the same in every run.
std::vector<float> makeNoise(std::size_t numOfValues) {
    std::vector<float> noise(numOfValues);
    std::uint32_t state = 1;
    for (float& value : noise) {
        state = state * 1664525u + 1013904223u;
        value = 0.1f * (static_cast<float>(state >> 8) / 8388608.0f - 1.0f);
    }
    return noise;
}

Timing measure(const Model& model, int channels, double sampleRate, int blockSize, double seconds) {
    using Clock = std::chrono::steady_clock;
    separation::Separator mixer(model, separation::Output::Mix, channels, sampleRate);
    const auto numOfBlocks = std::max(fewestBlocks, static_cast<int>(seconds * sampleRate / blockSize));
    const auto numOfWarmUps =
        static_cast<int>((mixer.getLatency() + warmUpSeconds * sampleRate) / blockSize) + 1;
    // One second of noise is cycled through, so that generating it takes no part.
    const auto width = static_cast<std::size_t>(channels);
    const std::size_t cycle = std::max<std::size_t>(static_cast<std::size_t>(sampleRate), 1);
    const std::vector<float> noise = makeNoise((cycle + static_cast<std::size_t>(blockSize)) * width);
    std::vector<float> output(static_cast<std::size_t>(blockSize) * width);
    std::vector<double> times, processorTimes;
    times.reserve(static_cast<std::size_t>(numOfBlocks));
    processorTimes.reserve(static_cast<std::size_t>(numOfBlocks));

    std::size_t position = 0;
    for (int i = -numOfWarmUps; i < numOfBlocks; ++i) {
        stopIfInterrupted();
        const Clock::time_point start = Clock::now();
        const double processorStart = readThreadClock();
        mixer.addInterleaved(noise.data() + position * width, blockSize);
        while (mixer.getNumOfPendingSamples() >= blockSize) mixer.takeInterleaved(output.data(), blockSize);
        if (i >= 0) {
            processorTimes.push_back(1000.0 * (readThreadClock() - processorStart));
            times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        }
        position = (position + static_cast<std::size_t>(blockSize)) % cycle;
    }
    const double audio = 1000.0 * blockSize / sampleRate * numOfBlocks;
    const double sum = std::accumulate(times.begin(), times.end(), 0.0);
    const double processorSum = std::accumulate(processorTimes.begin(), processorTimes.end(), 0.0);
    return {sampleRate,
            blockSize,
            numOfBlocks,
            audio / sum,
            processorSum / audio,
            Percentiles(std::move(times)),
            Percentiles(std::move(processorTimes))};
}

struct BenchCommand {
    std::string model;
    std::vector<double> sampleRates;
    std::vector<int> blockSizes{64, 256, 1024, 4096};
    int channels = 0;
    double seconds = 5.0;
    bool asJson = false;

    void run() {
        const Model opened = Model::open(model);
        const int numOfChannels = channels > 0 ? channels : std::max(opened.network.numOfInputChannels, 1);
        if (sampleRates.empty()) sampleRates = {opened.network.sampleRate, 2.0 * opened.network.sampleRate};
        Json rows = Json::array();
        if (!asJson) {
            std::printf("%s, %d channels, one thread; milliseconds per block\n\n",
                        makeHarmless(opened.network.modelName).c_str(), numOfChannels);
            std::printf(
                "    rate  block  lasts    median  99 %%      99.9 %%    worst     speed\n"
                "        of them on a core:                                         load\n");
        }
        for (const double sampleRate : sampleRates)
            for (const int blockSize : blockSizes) {
                const Timing timing = measure(opened, numOfChannels, sampleRate, blockSize, seconds);
                if (asJson)
                    rows.push_back(toJson(timing));
                else
                    print(timing);
            }
        if (asJson)
            writeJson(
                Json({{"model", opened.network.modelName}, {"channels", numOfChannels}, {"timings", rows}}));
    }

    static void print(const Timing& timing) {
        const auto printPercentiles = [](const Percentiles& times) {
            std::printf("  %8.4f  %8.4f  %8.4f  %8.4f", times.median, times.percentile99, times.percentile999,
                        times.worst);
        };
        std::printf("%8g %6d %6.2f", timing.sampleRate, timing.blockSize,
                    1000.0 * timing.blockSize / timing.sampleRate);
        printPercentiles(timing.clock);
        std::printf("  %6.1f x\n%22s", timing.speed, "");
        printPercentiles(timing.processor);
        std::printf("  %6.1f %%\n", 100.0 * timing.processorShare);
        std::fflush(stdout);
    }

    static Json toJson(const Timing& timing) {
        const auto percentiles = [](const Percentiles& times) {
            return Json({{"median", times.median},
                         {"percentile99", times.percentile99},
                         {"percentile999", times.percentile999},
                         {"worst", times.worst}});
        };
        return {{"sampleRate", timing.sampleRate},
                {"blockSize", timing.blockSize},
                {"numOfBlocks", timing.numOfBlocks},
                {"timesRealTime", timing.speed},
                {"medianMilliseconds", timing.clock.median},
                {"percentile99Milliseconds", timing.clock.percentile99},
                {"percentile999Milliseconds", timing.clock.percentile999},
                {"worstMilliseconds", timing.clock.worst},
                {"processorShare", timing.processorShare},
                {"processorMilliseconds", percentiles(timing.processor)}};
    }
};

}  // namespace

void addBenchCommand(CLI::App& program) {
    auto* command = program.add_subcommand("bench", "Times a model against real time on one core");
    const auto options = std::make_shared<BenchCommand>();
    command->add_option("MODEL", options->model, "Model: a path, or the name of an installed one")
        ->required();
    command
        ->add_option("--rate", options->sampleRates,
                     "Sample rates in Hz; without it the model's and its double")
        ->delimiter(',')
        ->check(CLI::Range(1.0, 1e7));
    command->add_option("--block", options->blockSizes, "Samples per block")
        ->delimiter(',')
        ->check(CLI::Range(1, 1 << 20))
        ->capture_default_str();
    command->add_option("--channels", options->channels, "Channels; without it the model's")
        ->check(CLI::Range(1, 64));
    command->add_option("--seconds", options->seconds, "Audio per line, and no less than 1000 blocks")
        ->check(CLI::Range(0.0, 3600.0))
        ->capture_default_str();
    command->add_flag("--json", options->asJson, "For programs");
    command->footer(
        "A block that completes a hop does a whole frame's work, so with small blocks most blocks cost "
        "nearly\n"
        "nothing and the percentiles tell what a host has to bear: it has to stay below what a block lasts.\n"
        "\n"
        "Example:\n"
        "  zevrant bench harmonic-percussive --rate 44100,48000 --block 128,512");
    command->callback([options] { options->run(); });
}

}  // namespace zevrant::cli
