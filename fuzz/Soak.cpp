// Hours of a host's work: handles that stay and handles that come and go, blocks of any length, controls that
// move, resets. The memory stays flat, and in the end a handle that is reset gives, bit for bit, the minute
// that a fresh one gives.
//
// Usage: fuzz_soak SECONDS      of processor time
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Choices.h"
#include "Execution.h"
#include "MemoryFile.h"
#include "SmallModels.h"
#include "interface/zevrant.h"

#if defined(__SANITIZE_ADDRESS__) || defined(ZEVRANT_SANITIZED)
#include <sanitizer/allocator_interface.h>
#endif

namespace {

using namespace zevrant::fuzz;

constexpr int numOfChannels = 2, longestBlock = 8192;
constexpr int controls[] = {1, 2, 3, 256, 257, 258, 512, 513, 514};
constexpr std::size_t mostGrowth = std::size_t{4} << 20;  // bytes that chance may add

std::size_t countAllocatedBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(ZEVRANT_SANITIZED)
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

class Stream {
  public:
    Stream(std::string path, double rate) : modelPath(std::move(path)), sampleRate(rate) {
        open();
        for (int id : controls) neutral.push_back(zevrantGetParameterValue(handle, id));
    }
    ~Stream() { zevrantDeleteProcessor(handle); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    void open() {
        zevrantDeleteProcessor(handle);
        handle = zevrantCreateProcessor(modelPath.c_str(), numOfChannels, sampleRate);
        require(handle != nullptr, "a model opens");
    }

    void reset() { zevrantResetProcessorState(handle); }

    void turnControl(std::mt19937& random) {
        const int id = controls[random() % std::size(controls)];
        zevrantSetParameterValue(handle, id, static_cast<float>(random() % 201) - 100.0f);
    }

    void setNeutral() {
        for (std::size_t i = 0; i < neutral.size(); ++i)
            zevrantSetParameterValue(handle, controls[i], neutral[i]);
    }

    // Adds a block of noise and takes what is ready.
    const std::vector<float>& play(std::mt19937& random) {
        const int length = 1 + static_cast<int>(random() % (random() % 8 == 0 ? longestBlock : 512));
        const int seed = static_cast<int>(random() % 128) * 2;  // even: finite
        const std::vector<float> in = makeValues(static_cast<std::size_t>(length * numOfChannels), seed);
        zevrantAddAudioInterleaved(handle, in.data(), length);
        const int ready = zevrantGetNumOfPendingSamples(handle);
        out.resize(static_cast<std::size_t>(ready * numOfChannels));
        if (ready > 0)
            require(zevrantGetAudioInterleaved(handle, out.data(), ready), "what waits is delivered");
        numOfSamples += length;
        return out;
    }

    const std::string modelPath;
    const double sampleRate;
    std::int64_t numOfSamples = 0;

  private:
    ProcessorState* handle = nullptr;
    std::vector<float> neutral, out;
};

// A minute of the same audio on a handle with a past and on one without.
void requireAsNew(Stream& old) {
    Stream fresh(old.modelPath, old.sampleRate);
    old.setNeutral();
    old.reset();
    std::mt19937 forOld(1), forFresh(1);
    while (static_cast<double>(fresh.numOfSamples) < 60.0 * fresh.sampleRate) {
        const std::vector<float>&a = old.play(forOld), &b = fresh.play(forFresh);
        const bool isSame = a.size() == b.size() &&
                            (a.empty() || std::memcmp(a.data(), b.data(), sizeof(float) * a.size()) == 0);
        require(isSame, "a reset makes a handle new");
    }
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 60.0;
    std::vector<std::unique_ptr<MemoryFile>> files;
    std::vector<std::unique_ptr<Stream>> streams;
    for (const SmallModel& model : makeSmallModels()) {
        if (!model.name.starts_with("all")) continue;  // every kind of layer in one graph
        files.push_back(std::make_unique<MemoryFile>(model.bytes));
        streams.push_back(std::make_unique<Stream>(files.back()->getPath(), 48000.0));
    }
    for (const char* name : {"center-sides", "harmonic-percussive", "hiss-reduction"})
        for (const double rate : {44100.0, 48000.0})
            streams.push_back(
                std::make_unique<Stream>(std::string(MODELS_FOLDER "/") + name + ".zevrant", rate));

    std::mt19937 random(1);
    const Stopwatch stopwatch;
    std::size_t mostInFirstHalf = 0, mostInSecondHalf = 0;
    std::int64_t numOfResets = 0;
    while (stopwatch.getSeconds() < seconds) {
        Stream& stream = *streams[random() % streams.size()];
        for (int i = 0; i < 50; ++i) {
            stream.play(random);
            if (random() % 4 == 0) stream.turnControl(random);
        }
        const unsigned event = random() % 64;
        if (event < 8) stream.reset(), ++numOfResets;
        if (event == 8) stream.open();
        const std::size_t bytes = countAllocatedBytes();
        std::size_t& most = stopwatch.getSeconds() < seconds / 2 ? mostInFirstHalf : mostInSecondHalf;
        most = std::max(most, bytes);
    }
    for (const auto& stream : streams) requireAsNew(*stream);
    double audio = 0.0;
    for (const auto& stream : streams)
        audio += static_cast<double>(stream->numOfSamples) / stream->sampleRate;
    std::printf("%.0f s of audio, %lld resets; at most %zu KiB in the first half, %zu KiB in the second\n",
                audio, static_cast<long long>(numOfResets), mostInFirstHalf >> 10, mostInSecondHalf >> 10);
    require(mostInSecondHalf <= mostInFirstHalf + mostGrowth, "memory stays flat");
    return 0;
}
