// What a stream asks the system for once it is running: nothing.
#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "AudioHost.h"
#include "interface/ModelState.h"

namespace zevrant {
namespace {

// Requests of the second half of a stream of blocks, pushed and pulled.
std::int64_t countRequests(AudioHost& host, int blockSize, bool isInterleaved) {
    constexpr int numOfBlocks = 200;
    std::vector<float> in(static_cast<std::size_t>(host.channels * blockSize), 0.1f), out = in;
    std::vector<const float*> inRows;
    std::vector<float*> outRows;
    for (int c = 0; c < host.channels; ++c) {
        inRows.push_back(in.data() + c * blockSize);
        outRows.push_back(out.data() + c * blockSize);
    }
    ProcessorState* handle = host.handle.get();
    std::int64_t before = 0;
    for (int block = 0; block < numOfBlocks; ++block) {
        if (block == numOfBlocks / 2) before = countAllocations();
        if (isInterleaved) {
            zevrantAddAudioInterleaved(handle, in.data(), blockSize);
            while (zevrantGetAudioInterleaved(handle, out.data(), blockSize)) {
            }
        } else {
            zevrantAddAudio(handle, inRows.data(), blockSize);
            while (zevrantGetAudio(handle, outRows.data(), blockSize)) {
            }
        }
    }
    return countAllocations() - before;
}

TEST(SteadyState, aStreamAsksTheSystemForNothing) {
    if (!allocationsAreRecycled()) GTEST_SKIP();
    ModelFolder models;
    for (int mode : {0, 1})
        for (int channels : {1, 2})
            for (float sensitivity : {0.0f, -30.0f, 30.0f})
                for (int blockSize : {64, 100, 480, 1024}) {
                    AudioHost host = models.open(
                        {.delay = 2, .processingMode = mode, .busGains = {0.4f, 0.3f}}, channels, 48000.0);
                    for (int id : {512, 513, 514})
                        zevrantSetParameterValue(host.handle.get(), id, sensitivity);
                    for (bool isInterleaved : {false, true})
                        EXPECT_EQ(countRequests(host, blockSize, isInterleaved), 0)
                            << "mode " << mode << ", " << channels << " channels, sensitivity " << sensitivity
                            << ", blocks of " << blockSize;
                }
}

TEST(SteadyState, aModelAsksTheSystemForNothing) {
    if (!allocationsAreRecycled()) GTEST_SKIP();
    ModelFolder models;
    ModelState* model = zevrantCreateModel(models.write({.channels = 2, .delay = 1}).c_str());
    ASSERT_NE(model, nullptr);
    const int shape[] = {1, 129, 2};
    std::vector<float> tensor(258, 0.5f);
    std::int64_t before = 0;
    for (int n = 0; n < 20; ++n) {
        if (n == 10) before = countAllocations();
        zevrantAddTensor(model, tensor.data(), 3, shape);
        zevrantGetTensor(model, tensor.data());
    }
    EXPECT_EQ(countAllocations(), before);
    zevrantDeleteModel(model);
}

}  // namespace
}  // namespace zevrant
