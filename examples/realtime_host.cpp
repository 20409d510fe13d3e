// A live host in C++: audio comes and goes in blocks of one size, as a sound card or a plug-in host hands
// them out, while a second thread turns the gains of the busses.
//
//   realtime_host MODEL BLOCK_SIZE [CONTROL] < in.f32 > out.f32
//
// Audio is stereo at 48000 Hz in raw 32-bit floats, so that a pipe makes a live effect of it:
//
//   touch control
//   arecord -q -t raw -f FLOAT_LE -c 2 -r 48000 | realtime_host MODEL 256 control | aplay -q -t raw -f
//   FLOAT_LE -c 2 -r 48000
//
// and in another terminal, to fade bus 1 out:  echo 1 0.0 >> control
//
// At the end it tells how much of the time that a block lasts its processing took.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "zevrant.hpp"

namespace {

using namespace std::chrono_literals;

constexpr int numOfChannels = 2;
constexpr double sampleRate = 48000.0;

// What an audio callback calls: a block goes in and comes back with as many samples, all of them late by the
// same latency. It begins with that much silence; from then on the processor has enough at any time, because
// it never keeps back more than its latency. Once the stream runs, nothing in here locks, allocates or waits.
class Effect {
  public:
    explicit Effect(zevrant::Processor& usedProcessor)
        : processor(usedProcessor),
          numOfSilentValues(static_cast<std::size_t>(processor.getInfo().latency) * numOfChannels) {}

    void process(std::span<float> block) {
        processor.addAudioInterleaved(block);
        const std::size_t numOfSilent = std::min(numOfSilentValues, block.size());
        numOfSilentValues -= numOfSilent;
        std::ranges::fill(block.first(numOfSilent), 0.0f);
        const std::span<float> rest = block.subspan(numOfSilent);
        if (!rest.empty() && !processor.getAudioInterleaved(rest)) std::ranges::fill(rest, 0.0f);
    }

  private:
    zevrant::Processor& processor;
    std::size_t numOfSilentValues;  // still to be played before the first sample that comes out
};

// How long the blocks took, as a part of the time that they last.
struct Load {
    void add(std::chrono::duration<double> taken, std::size_t numOfSamples) {
        const double load = taken.count() * sampleRate / static_cast<double>(numOfSamples);
        ++numOfBlocks;
        sum += load;
        highest = std::max(highest, load);
    }

    long numOfBlocks = 0;
    double sum = 0.0, highest = 0.0;
};

// The audio callback's loop: standard input and output stand for the sound card.
Load runAudio(Effect& effect, std::size_t blockSize) {
    Load load;
    std::vector<float> buffer(blockSize * numOfChannels);
    while (const std::size_t count =
               std::fread(buffer.data(), numOfChannels * sizeof(float), blockSize, stdin)) {
        const std::span<float> block = std::span(buffer).first(count * numOfChannels);
        const auto start = std::chrono::steady_clock::now();
        effect.process(block);
        load.add(std::chrono::steady_clock::now() - start, count);
        std::fwrite(block.data(), numOfChannels * sizeof(float), count, stdout);
        std::fflush(stdout);
    }
    return load;
}

// A gain takes effect at once, so a jump is made of small steps, which nobody hears.
void fade(zevrant::Processor& processor, int bus, float target) {
    constexpr int numOfSteps = 32;
    const float start = processor.getBusGain(bus);
    for (int step = 1; step <= numOfSteps; ++step) {
        processor.setBusGain(bus, start + (target - start) * static_cast<float>(step) / numOfSteps);
        std::this_thread::sleep_for(2ms);
    }
    std::fprintf(stderr, "%s: gain %.2f\n", processor.getOutputBusName(bus).c_str(),
                 processor.getBusGain(bus));
}

// Follows the lines "BUS GAIN" of a file that grows. Parameters may be set on any thread, also while audio
// runs.
void followControls(const std::stop_token& stop, std::ifstream& file, zevrant::Processor& processor) {
    while (!stop.stop_requested()) {
        const auto start = file.tellg();
        std::string line;
        if (!std::getline(file, line) || file.eof()) {  // nothing yet, or half a line
            file.clear();
            file.seekg(start);
            std::this_thread::sleep_for(10ms);
            continue;
        }
        int bus = 0;
        float gain = 0.0f;
        if (std::istringstream(line) >> bus >> gain && bus >= 0 && bus < processor.getNumOfOutputBusses())
            fade(processor, bus, gain);
        else
            std::fprintf(stderr, "not a bus and a gain: %s\n", line.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int blockSize = argc > 2 ? std::atoi(argv[2]) : 0;
    if (argc > 4 || blockSize < 1) {
        std::fprintf(stderr, "usage: realtime_host MODEL BLOCK_SIZE [CONTROL] < in.f32 > out.f32\n");
        return 2;
    }
    std::ifstream controls;
    if (argc > 3) controls.open(argv[3]);
    auto processor = zevrant::Processor::create(argv[1], numOfChannels, sampleRate);
    if (!processor || (argc > 3 && !controls)) {
        std::fprintf(stderr, "cannot open %s\n", processor ? argv[3] : argv[1]);
        return 1;
    }
    const int latency = processor->getInfo().latency;
    std::fprintf(stderr, "latency %d samples, %.1f ms\n", latency, 1000.0 * latency / sampleRate);

    Effect effect(*processor);
    Load load;
    {
        std::jthread controller;
        if (controls.is_open())
            controller = std::jthread(
                [&](const std::stop_token& stop) { followControls(stop, controls, *processor); });
        load = runAudio(effect, static_cast<std::size_t>(blockSize));
    }  // the controller is told to stop, and waited for, before the processor goes

    const double mean = load.sum / static_cast<double>(std::max(load.numOfBlocks, 1L));
    std::fprintf(stderr, "%ld blocks: %.1f %% of real time, the slowest %.1f %%\n", load.numOfBlocks,
                 100.0 * mean, 100.0 * load.highest);
    return 0;
}
