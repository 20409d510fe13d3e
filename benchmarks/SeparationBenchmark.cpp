// What the separation library costs over the plain one: the same blocks through both in turns, in one run.
//
//   SeparationBenchmark MODEL [SAMPLE_RATE [BLOCK_SIZE [SECONDS]]]
//
// Prints the time per block of the plain mix, and as ratios of it the separation's mix, all busses, and both
// with the rate converted, where the sample rate asks for that.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "zevrant.hpp"
#include "zevrant_separation.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using zevrant::Separation;

constexpr int numOfChannels = 2;

std::vector<float> makeNoise(std::size_t numOfValues) {
    std::vector<float> noise(numOfValues);
    std::uint32_t state = 1;
    for (float& value : noise) {
        state = state * 1664525u + 1013904223u;
        value = 0.1f * (static_cast<float>(state >> 8) / 8388608.0f - 1.0f);
    }
    return noise;
}

struct Subject {
    const char* name;
    int flags;
    Separation::Output output;
    double seconds = 0.0;
};

template <class Call>
double measure(const Call& call) {
    const Clock::time_point start = Clock::now();
    call();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const std::string path = argv[1];
    const double rate = argc > 2 ? std::atof(argv[2]) : 48000.0;
    const int blockSize = argc > 3 ? std::atoi(argv[3]) : 512;
    const double seconds = argc > 4 ? std::atof(argv[4]) : 20.0;
    const auto width = static_cast<std::size_t>(blockSize) * numOfChannels;
    const std::vector<float> noise = makeNoise(64 * width);

    zevrant::Processor plain(path, numOfChannels, rate);
    Subject subjects[] = {{"mix", ZEVRANT_SEPARATION_KEEP_RATE, Separation::Mix},
                          {"all busses", ZEVRANT_SEPARATION_KEEP_RATE, Separation::Busses},
                          {"mix, converted", 0, Separation::Mix},
                          {"all busses, converted", 0, Separation::Busses}};
    std::vector<Separation> separations;
    for (const Subject& subject : subjects)
        separations.emplace_back(Separation::Options{.model = path,
                                                     .numOfChannels = numOfChannels,
                                                     .sampleRate = rate,
                                                     .longestBlock = blockSize,
                                                     .output = subject.output,
                                                     .flags = subject.flags});
    std::vector<float> out(16 * width);
    double plainSeconds = 0.0;
    const auto numOfBlocks = static_cast<int>(seconds * rate / blockSize);
    for (int block = -100; block < numOfBlocks; ++block) {  // the first ones are not counted
        const std::span in(noise.data() + static_cast<std::size_t>((block + 100) % 64) * width, width);
        const double time = measure([&] {
            plain.addAudioInterleaved(in);
            while (plain.getNumOfPendingSamples() >= blockSize)
                if (!plain.getAudioInterleaved(std::span(out).first(width))) break;
        });
        if (block >= 0) plainSeconds += time;
        for (std::size_t i = 0; i < separations.size(); ++i) {
            const auto count = width / numOfChannels *
                               static_cast<std::size_t>(separations[i].getInfo().numOfOutputChannels);
            const double taken = measure([&] {
                if (separations[i].addInterleaved(in) != ZEVRANT_SEPARATION_OK ||
                    separations[i].takeInterleaved(std::span(out).first(count)) != ZEVRANT_SEPARATION_OK)
                    std::abort();
            });
            if (block >= 0) subjects[i].seconds += taken;
        }
    }
    std::printf("plain mix: %.1f us per block of %d, %.1f times real time\n",
                1e6 * plainSeconds / numOfBlocks, blockSize, numOfBlocks * blockSize / rate / plainSeconds);
    for (const Subject& subject : subjects)
        std::printf("%-22s %.3f of that\n", subject.name, subject.seconds / plainSeconds);
    return 0;
}
