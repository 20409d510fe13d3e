#include "processors/BaseAudioProcessor.h"

#include <gtest/gtest.h>

#include <climits>

#include "TestSignals.h"

namespace zevrant {
namespace {

class PassOn : public BaseAudioProcessor {
  public:
    Signal32 process(const Signal32& input) override { return input; }
};

// What counts as a change is stored with its descriptions, and what does not leaves the held descriptions
// standing.
TEST(BaseAudioProcessor, takesOverFormatsWhereARateOrAChannelListChanges) {
    std::vector<AudioFormat> formats = {AudioFormat(), makeFormat(1, 44100.0), makeFormat(2, 44100.0),
                                        makeFormat(2, 48000.0), makeFormat(2, 44100.0)};
    formats.back().channelMapping[1] = SpeakerId(4);  // as many channels, another speaker
    for (const AudioFormat& first : formats)
        for (const AudioFormat& second : formats)
            for (bool isInput : {true, false}) {
                PassOn processor;
                ASSERT_TRUE(processor.setFormat(first, first));
                AudioFormat given = second;
                given.updateSpeakerDescriptions();  // of its own, so that it shows which ones are held
                ASSERT_TRUE(processor.setFormat(isInput ? given : first, isInput ? first : given));
                const AudioFormat& held = isInput ? processor.inputFormat : processor.outputFormat;
                EXPECT_EQ(held.channelMapping, given.channelMapping);
                EXPECT_EQ(held.sampleRate, given.sampleRate);
                EXPECT_EQ(held.speakerDescriptions, (&first == &second ? first : given).speakerDescriptions);
            }
}

TEST(BaseAudioProcessor, takesItsOwnFormatsInEitherPlaceAndHasNoLatency) {
    PassOn processor;
    processor.setFormat(makeFormat(1, 44100.0), makeFormat(2, 48000.0));
    processor.setFormat(processor.outputFormat, processor.inputFormat);
    EXPECT_EQ(processor.inputFormat.sampleRate, 48000.0);
    EXPECT_EQ(processor.inputFormat.channelMapping.size(), 2u);
    EXPECT_EQ(processor.outputFormat.sampleRate, 44100.0);
    EXPECT_EQ(processor.outputFormat.channelMapping.size(), 1u);
    EXPECT_EQ(processor.outputFormat.speakerDescriptions.size(), 1u);
    for (int blockSize : {INT_MIN, -1, 0, 1, INT_MAX}) EXPECT_EQ(processor.getLatency(blockSize), 0);
}

}  // namespace
}  // namespace zevrant
