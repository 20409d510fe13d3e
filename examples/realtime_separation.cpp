// A live separation in C++: audio comes and goes in blocks, as a sound card or a plug-in host hands them out,
// while a second thread turns the levels of the busses and changes the model.
//
//   realtime_separation MODEL SAMPLE_RATE BLOCK_SIZE [CONTROL] < in.f32 > out.f32
//
// Audio is stereo in raw 32-bit floats. MODEL is a path or the name of an installed model. In another
// terminal:
//
//   echo level 1 -20 >> control        to turn bus 1 down, in decibels
//   echo model center-sides >> control to play through another model from now on
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

#include "zevrant_separation.hpp"

namespace {

using namespace std::chrono_literals;
using zevrant::Separation;
using zevrant::SeparationError;

constexpr std::size_t numOfChannels = 2;

// What an audio callback does. Nothing in here locks, allocates or waits, from the first block on.
void process(Separation& separation, std::span<float> block) {
    if (separation.addInterleaved(block) != ZEVRANT_SEPARATION_OK ||
        separation.takeInterleaved(block) != ZEVRANT_SEPARATION_OK)
        std::fill(block.begin(), block.end(), 0.0f);
}

// Opens another model beside the one that plays, and hands it over. A latency that changes is accepted here;
// a plug-in would first ask its host.
void change(Separation& separation, Separation::Options options, const std::string& model) {
    options.model = model;
    Separation next(options);
    separation.swap(next, true);
    const int latency = separation.getInfo().latency;
    std::fprintf(stderr, "%s: latency %d samples\n", separation.getModelName().c_str(), latency);
    while (!separation.finishSwap()) std::this_thread::sleep_for(10ms);
}

void obey(Separation& separation, const Separation::Options& options, const std::string& line) {
    std::istringstream words(line);
    std::string command, model;
    int bus = 0;
    float decibel = 0.0f;
    words >> command;
    if (command == "level" && words >> bus >> decibel)
        separation.setLevel(bus, decibel);
    else if (command == "model" && words >> model)
        change(separation, options, model);
    else
        std::fprintf(stderr, "neither a level nor a model: %s\n", line.c_str());
}

// Follows the lines of a file that grows.
void followControls(const std::stop_token& stop, std::ifstream& file, Separation& separation,
                    const Separation::Options& options) {
    while (!stop.stop_requested()) {
        const auto start = file.tellg();
        std::string line;
        if (!std::getline(file, line) || file.eof()) {  // nothing yet, or half a line
            file.clear();
            file.seekg(start);
            std::this_thread::sleep_for(10ms);
            continue;
        }
        try {
            obey(separation, options, line);
        } catch (const SeparationError& error) {
            std::fprintf(stderr, "%s\n", error.what());
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4 || argc > 5) {
        std::fprintf(
            stderr, "usage: realtime_separation MODEL SAMPLE_RATE BLOCK_SIZE [CONTROL] < in.f32 > out.f32\n");
        return 2;
    }
    const Separation::Options options{
        .model = argv[1], .sampleRate = std::atof(argv[2]), .longestBlock = std::atoi(argv[3])};
    try {
        Separation separation(options);
        std::fprintf(stderr, "latency %d samples\n", static_cast<int>(separation.getInfo().latency));
        std::ifstream controls(argc > 4 ? argv[4] : "");
        std::jthread controller;  // goes before the separation does
        if (controls) {
            controller = std::jthread(
                [&](const std::stop_token& stop) { followControls(stop, controls, separation, options); });
        }
        std::vector<float> block(static_cast<std::size_t>(options.longestBlock) * numOfChannels);
        while (const std::size_t count = std::fread(block.data(), numOfChannels * sizeof(float),
                                                    block.size() / numOfChannels, stdin)) {
            process(separation, std::span(block).first(count * numOfChannels));
            std::fwrite(block.data(), numOfChannels * sizeof(float), count, stdout);
            std::fflush(stdout);
        }
    } catch (const SeparationError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
