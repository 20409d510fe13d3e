#include <gtest/gtest.h>

#include "HostGuideExample.h"
#include "interface/AudioHost.h"

namespace {

// A model that lets everything through: the guide's example must hand the recording
// back in its place, whatever its length.
TEST(HostGuide, recordingComesBackInItsPlace) {
    zevrant::ModelFolder models;
    const std::string path = models.write({.constantMasks = true});
    for (const int numOfSamples : {0, 1, 63, 480, 481, 5000}) {
        zevrant::Processor processor(path, 2, 48000.0);
        processor.setBusGain(1, 0.0f);
        const auto recording = zevrant::makeNoise(1, 2 * numOfSamples, 3)[0];
        const auto result = processRecording(processor, recording);
        ASSERT_EQ(result.size(), recording.size());
        for (std::size_t i = 0; i < result.size(); ++i)
            ASSERT_NEAR(result[i], recording[i], 1e-5) << "value " << i << " of " << result.size();
    }
}

}  // namespace
