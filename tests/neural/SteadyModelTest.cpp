#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "neural/MemoryStream.h"
#include "neural/ModelOfAllLayers.h"
#include "neural/NeuralModel.h"

namespace zevrant {
namespace {

using namespace modelwriter;

// Frames through a model until everything has its size, then a hundred more that may ask for nothing.
void expectSteady(const Bytes& bytes) {
    NeuralModel<float> model;
    ASSERT_TRUE(model.loadModel(streamOver(bytes)));
    std::vector<ComplexSignal32> results;
    std::int64_t before = 0;
    std::size_t numOfResults = 0;
    for (int i = 0; i < 200; ++i) {
        if (i == 100) before = countAllocations();
        model.process(ComplexSignal32(2, 17, {0.5f, -0.25f}), results);
        numOfResults += results.size();
    }
    EXPECT_GT(numOfResults, 90u);
    EXPECT_EQ(countAllocations(), before);
}

TEST(SteadyModel, aFrameThroughAllLayersAsksTheSystemForNothing) {
    if (!allocationsAreRecycled()) GTEST_SKIP() << "every request goes to the system in this build";
    expectSteady(makeModelOfAllLayers(0x100a, TensorStorage::SinglePrecision, Packing::magnitudes(9)));
    expectSteady(
        makeModelOfAllLayers(0x100a, TensorStorage::HalfPrecision, Packing::complexGroups(3, 12, 2)));
    expectSteady(makeModelOfAllLayers(0x1004, TensorStorage::SinglePrecision, Packing::complexBins(9)));
    expectSteady(ModelWriter("")
                     .setChannels(2, 2)
                     .setPacking(Packing::rectifiedParts(2, 7))
                     .setOutput("input")
                     .toBytes());
}

// Down to half the frames and up again, beside a branch that waits for it in a queue.
TEST(SteadyModel, aFrameThroughTwoTimeScalesAsksTheSystemForNothing) {
    if (!allocationsAreRecycled()) GTEST_SKIP() << "every request goes to the system in this build";
    ModelWriter model("");
    model.setChannels(2, 2).setPacking(Packing::magnitudes(8));
    model.addLayer("down", "input",
                   Conv{.weights = makeWeights({2, 3, 2, 4}), .timeStride = 2, .frequencyStride = 2});
    model.addLayer(
        "up", "down",
        TransposedConv{.weights = makeWeights({2, 3, 2, 4}), .timeStride = 2, .frequencyStride = 2});
    model.addLayer("beside", "input", Conv{.weights = makeWeights({3, 1, 2, 2}), .timeDilation = 2});
    model.addLayer("sum", {"up", "beside"}, Arithmetic{}).addLayer("both", {"sum", "input"}, Concat{});
    model.addLayer("mix", "both", Conv{.weights = makeWeights({1, 1, 4, 2})});
    expectSteady(model.setOutput("mix").toBytes());
}

}  // namespace
}  // namespace zevrant
