// What the separation library costs over the plain one: the same blocks through both in turns, in one run.
//
//   SeparationBenchmark MODEL [SAMPLE_RATE [BLOCK_SIZE [SECONDS]]]
//
// Prints the time per block of the plain mix, and as ratios of it the separation's mix, all busses, and both
// with the rate converted, where the sample rate asks for that.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "zevrant.hpp"
#include "zevrant_separation.hpp"

namespace {

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
    std::vector<double> times{};  // of groups of blocks, seconds
};

// One value per group of blocks, of which the middle one counts: whole frames, and no visits of other
// programs.
constexpr int blocksPerGroup = 32;

double findMedian(std::vector<double> times) {
    std::nth_element(times.begin(), times.begin() + std::ssize(times) / 2, times.end());
    return times[times.size() / 2];
}

template <class Call>
double measure(const Call& call) {
    timespec start{}, end{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
    call();
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
    return static_cast<double>(end.tv_sec - start.tv_sec) +
           1e-9 * static_cast<double>(end.tv_nsec - start.tv_nsec);
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
    std::vector<double> plainTimes;
    const int numOfBlocks = static_cast<int>(seconds * rate / blockSize) / blocksPerGroup * blocksPerGroup;
    for (int block = -100; block < numOfBlocks; ++block) {  // the first ones are not counted
        const std::span in(noise.data() + static_cast<std::size_t>((block + 100) % 64) * width, width);
        const auto add = [&](std::vector<double>& times, double time) {
            if (block < 0) return;
            if (block % blocksPerGroup == 0) times.push_back(0.0);
            times.back() += time;
        };
        add(plainTimes, measure([&] {
                plain.addAudioInterleaved(in);
                while (plain.getNumOfPendingSamples() >= blockSize)
                    if (!plain.getAudioInterleaved(std::span(out).first(width))) break;
            }));
        for (std::size_t i = 0; i < separations.size(); ++i) {
            const auto count = width / numOfChannels *
                               static_cast<std::size_t>(separations[i].getInfo().numOfOutputChannels);
            add(subjects[i].times, measure([&] {
                    if (separations[i].addInterleaved(in) != ZEVRANT_SEPARATION_OK ||
                        separations[i].takeInterleaved(std::span(out).first(count)) != ZEVRANT_SEPARATION_OK)
                        std::abort();
                }));
        }
    }
    const double plainTime = findMedian(plainTimes) / blocksPerGroup;
    std::printf("plain mix: %.1f us per block of %d, %.1f times real time\n", 1e6 * plainTime, blockSize,
                blockSize / rate / plainTime);
    for (const Subject& subject : subjects)
        std::printf("%-22s %.3f of that\n", subject.name,
                    findMedian(subject.times) / blocksPerGroup / plainTime);
    return 0;
}
