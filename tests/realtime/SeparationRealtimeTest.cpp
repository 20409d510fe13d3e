// The separation library from the first block after the opening on, with conversion of rates and without, the
// end of a recording included: nothing that could wait.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "RealtimeScope.h"
#include "TestSignals.h"
#include "zevrant_separation.h"

namespace zevrant {
namespace {

constexpr int longestBlock = 4096;
constexpr int numOfChannels = 2;
constexpr int mostOutputChannels = 2 * 16;

std::vector<int> makeBlockSizes() {
    std::vector<int> sizes;
    for (const int size : {64, 1, 128, 480, 512, longestBlock})
        sizes.insert(sizes.end(), static_cast<std::size_t>(std::max(4, 20000 / size)), size);
    std::mt19937 random(1);
    for (int i = 0; i < 20; ++i) sizes.push_back(1 + static_cast<int>(random() % longestBlock));
    return sizes;
}

// Turns every control, in and out of its range.
auto turnControlsOf(ZevrantSeparation* separation) {
    return [separation](int step) {
        for (const int bus : {0, 1, 2, 99}) {
            zevrantSeparationSetLevel(separation, bus, static_cast<float>(step % 60 - 40));
            zevrantSeparationSetSensitivity(separation, bus, static_cast<float>(step % 250 - 125));
            zevrantSeparationSetMaskExtrapolation(separation, step % 2 == 0);
        }
    };
}

struct Buffers {
    std::vector<float> in = noise(numOfChannels * longestBlock, 1, 0.25f);
    std::vector<float> out = std::vector<float>(std::size_t{mostOutputChannels} * longestBlock);
    const float* inRows[numOfChannels] = {in.data(), in.data() + longestBlock};
    float* outRows[mostOutputChannels] = {};

    Buffers() {
        for (int c = 0; c < mostOutputChannels; ++c) outRows[c] = out.data() + c * longestBlock;
    }
};

// Adds all blocks, takes what is ready after each, and then the rest. Returns how many calls have failed.
int stream(ZevrantSeparation* separation, const std::vector<int>& sizes, Buffers& buffers,
           bool isInterleaved) {
    int numOfFailures = 0;
    const auto take = [&](int size) {
        const auto status = isInterleaved
                                ? zevrantSeparationTakeInterleaved(separation, buffers.out.data(), size)
                                : zevrantSeparationTake(separation, buffers.outRows, size);
        numOfFailures += status != ZEVRANT_SEPARATION_OK;
    };
    for (const int size : sizes) {
        const auto status = isInterleaved
                                ? zevrantSeparationAddInterleaved(separation, buffers.in.data(), size)
                                : zevrantSeparationAdd(separation, buffers.inRows, size);
        numOfFailures += status != ZEVRANT_SEPARATION_OK;
        take(size);
    }
    numOfFailures += zevrantSeparationFlush(separation) != ZEVRANT_SEPARATION_OK;
    while (const int rest = zevrantSeparationGetNumOfPendingSamples(separation))
        take(std::min(rest, longestBlock));
    return numOfFailures;
}

void listInRealtime() {
    const RealtimeScope scope;
    zevrantSeparationListModels(nullptr, 0);
}

TEST(RealtimeDeathTest, aFaultInsideTheSharedLibraryIsCaught) {
    EXPECT_DEATH(listInRealtime(), "malloc");
}

TEST(Realtime, separationOfEveryShippedModel) {
    const std::vector<int> sizes = makeBlockSizes();
    Buffers buffers;
    int numOfModels = 0;
    for (const auto& entry : std::filesystem::directory_iterator(MODELS_FOLDER)) {
        if (entry.path().extension() != ".zevrant") continue;
        ++numOfModels;
        const std::string path = entry.path().string();
        for (const auto output : {ZEVRANT_SEPARATION_MIX, ZEVRANT_SEPARATION_BUSSES})
            for (const double sampleRate : {44100.0, 48000.0}) {
                SCOPED_TRACE(testing::Message() << path << " at " << sampleRate << " Hz, output " << output);
                ZevrantSeparationOptions options = {};
                options.size = sizeof options;
                options.model = path.c_str();
                options.sampleRate = sampleRate;
                options.numOfChannels = numOfChannels;
                options.longestBlock = longestBlock;
                options.output = output;
                ZevrantSeparation* separation = nullptr;
                ASSERT_EQ(zevrantSeparationOpen(&options, &separation), ZEVRANT_SEPARATION_OK);
                for (const bool isInterleaved : {false, true}) {
                    int numOfFailures = 0;
                    {
                        const ControlThread controls(turnControlsOf(separation));
                        const RealtimeScope scope;
                        numOfFailures = stream(separation, sizes, buffers, isInterleaved);
                    }
                    EXPECT_EQ(numOfFailures, 0);
                    zevrantSeparationReset(separation);
                }
                zevrantSeparationClose(separation);
            }
    }
    EXPECT_GT(numOfModels, 0);
}

}  // namespace
}  // namespace zevrant
