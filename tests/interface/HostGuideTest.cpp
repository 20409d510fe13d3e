#include <gtest/gtest.h>

#include <random>

#include "HostGuideExample.h"
#include "files/TemporaryFolder.h"
#include "modelwriter/ModelWriter.h"

namespace {

using namespace zevrant::modelwriter;

// A model that lets everything through: the guide's example must hand the recording
// back in its place, whatever its length.
TEST(HostGuide, recordingComesBackInItsPlace) {
    const zevrant::TemporaryFolder folder;
    const std::string path = folder.getPath("transparent.model");
    ModelWriter("Transparent")
        .setFrames(256, 256, 64)
        .setPacking(Packing::magnitudes(129))
        .addLayer("one", "input", Conv{.weights = {{1, 1, 1, 1}, {0.0f}}, .bias = {{1}, {1.0f}}})
        .setOutput("one")
        .write(path);
    std::mt19937 random(3);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    for (const std::size_t numOfSamples : {0, 1, 63, 480, 481, 5000}) {
        zevrant::Processor processor(path, 2, 48000.0);
        processor.setBusGain(1, 0.0f);
        std::vector<float> recording(2 * numOfSamples);
        for (float& sample : recording) sample = value(random);
        const auto result = processRecording(processor, recording);
        ASSERT_EQ(result.size(), recording.size());
        for (std::size_t i = 0; i < result.size(); ++i)
            ASSERT_NEAR(result[i], recording[i], 1e-5) << "value " << i << " of " << result.size();
    }
}

}  // namespace
