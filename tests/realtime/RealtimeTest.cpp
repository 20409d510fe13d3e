// Adding and taking audio asks the system for nothing that could wait: no memory, no lock, no file. The
// sanitizer's runtime ends the process at the first call that would.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "RealtimeScope.h"
#include "TestSignals.h"
#include "files/TemporaryFolder.h"
#include "interface/zevrant.h"
#include "neural/ModelOfAllLayers.h"

namespace zevrant {
namespace {

using namespace modelwriter;

void allocateInRealtime() {
    const RealtimeScope scope;
    void* volatile block = std::malloc(16);
    std::free(block);
}

void lockInRealtime() {
    std::mutex mutex;
    const RealtimeScope scope;
    const std::lock_guard lock(mutex);
}

TEST(RealtimeDeathTest, plantedFaultsAreCaught) {
    EXPECT_DEATH(allocateInRealtime(), "malloc");
    EXPECT_DEATH(lockInRealtime(), "pthread_mutex_lock");
}

constexpr int longestBlock = 8192;
constexpr int numOfChannels = 2;

std::vector<int> makeBlockSizes(int size) {
    std::vector<int> sizes(static_cast<std::size_t>(size > 0 ? std::max(4, 40000 / size) : 200), size);
    std::mt19937 random(1);
    if (size == 0)
        for (int& drawn : sizes) drawn = 1 + static_cast<int>(random() % longestBlock);
    return sizes;
}

// Turns every control, in and out of its range.
auto turnControlsOf(ProcessorState* handle) {
    return [handle](int step) {
        for (int id : {1, 2, 3, 256, 257, 512, 513, 9999}) {
            zevrantSetParameterValue(handle, id, static_cast<float>(step % 250 - 125));
            zevrantGetParameterValue(handle, id);
        }
    };
}

// Adds the blocks one after the other and takes what is ready after each.
std::int64_t stream(ProcessorState* handle, const std::vector<int>& blockSizes, bool isInterleaved) {
    static std::vector<float> in = noise(numOfChannels * longestBlock, 1, 0.25f), out(2 * in.size());
    const float* rows[] = {in.data(), in.data() + longestBlock};
    float* const outRows[] = {out.data(), out.data() + out.size() / 2};
    std::int64_t numOfTaken = 0;
    for (int size : blockSizes) {
        if (isInterleaved)
            zevrantAddAudioInterleaved(handle, in.data(), size);
        else
            zevrantAddAudio(handle, rows, size);
        const int ready = std::min(zevrantGetNumOfPendingSamples(handle), 2 * longestBlock);
        if (ready < 1) continue;
        const bool isThere = isInterleaved ? zevrantGetAudioInterleaved(handle, out.data(), ready)
                                           : zevrantGetAudio(handle, outRows, ready);
        numOfTaken += isThere ? ready : 0;
    }
    return numOfTaken;
}

void expectRealtime(const std::string& path, double sampleRate) {
    for (int size : {1, 64, 128, 480, 512, 4096, longestBlock, 0})
        for (bool isInterleaved : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << path << ", blocks of " << size << " at " << sampleRate << " Hz");
            ProcessorState* handle = zevrantCreateProcessor(path.c_str(), numOfChannels, sampleRate);
            ASSERT_NE(handle, nullptr);
            const std::vector<int> blockSizes = makeBlockSizes(size);
            stream(handle, {}, isInterleaved);  // makes the buffers of this host
            for (int round = 0; round < 2; ++round) {
                const ControlThread controls(turnControlsOf(handle));
                {
                    const RealtimeScope scope;
                    EXPECT_GT(stream(handle, blockSizes, isInterleaved), 0);
                }
                zevrantResetProcessorState(handle);
            }
            zevrantDeleteProcessor(handle);
        }
}

TEST(Realtime, everyShippedModel) {
    int numOfModels = 0;
    for (const auto& entry : std::filesystem::directory_iterator(MODELS_FOLDER))
        for (double sampleRate : {48000.0, 44100.0})
            if (entry.path().extension() == ".zevrant") {
                expectRealtime(entry.path().string(), sampleRate);
                ++numOfModels;
            }
    EXPECT_GT(numOfModels, 0);
}

TEST(Realtime, everyLayer) {
    const TemporaryFolder folder;
    int numOfModels = 0;
    for (const Bytes& bytes :
         {makeModelOfAllLayers(0x100a, TensorStorage::SinglePrecision, Packing::magnitudes(9)),
          makeModelOfAllLayers(0x100a, TensorStorage::HalfPrecision, Packing::complexGroups(3, 12, 2)),
          makeModelOfAllLayers(0x1004, TensorStorage::SinglePrecision, Packing::complexBins(9))})
        expectRealtime(folder.makeFile("model" + std::to_string(numOfModels++), {bytes.begin(), bytes.end()}),
                       48000.0);
}

}  // namespace
}  // namespace zevrant
