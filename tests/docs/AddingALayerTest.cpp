// The layer that docs/adding-a-layer.md adds, in a model file, through the engine's own loader.
#include <gtest/gtest.h>

#include "modelwriter/ModelWriter.h"
#include "neural/MemoryStream.h"
#include "neural/NeuralModel.h"

namespace zevrant {
namespace {

using namespace modelwriter;

TEST(AddingALayer, theNewLayerRunsInAModel) {
    ModelWriter writer("peaks");
    writer.setFrames(32, 32, 16).setPacking(Packing::magnitudes(17));
    writer.addLayer("held", "input", PeakHold{.decay = 0.5f}).setOutput("held");
    NeuralModel<float> model;
    ASSERT_TRUE(model.loadModel(streamOver(writer.toBytes())));
    for (const auto& [in, out] : {std::pair{0.5f, 0.5f}, {2.0f, 2.0f}, {0.0f, 1.0f}, {0.75f, 0.75f}}) {
        const auto masks = model.process(ComplexSignal32(1, 17, in));
        ASSERT_EQ(masks.size(), 1u);
        EXPECT_FLOAT_EQ(masks[0].getReadChannelPtr(0)[5].real(), out);
    }
}

}  // namespace
}  // namespace zevrant
