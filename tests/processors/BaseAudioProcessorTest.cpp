#include "processors/BaseAudioProcessor.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

namespace zevrant {
namespace {

class PassOn : public BaseAudioProcessor {
  public:
    Signal32 process(const Signal32& input) override { return input; }
};

AudioFormat makeFormat(int numOfChannels, double sampleRate) {
    AudioFormat format;
    format.createDefaultChannelMapping(numOfChannels);
    format.sampleRate = sampleRate;
    return format;
}

// Every pair of formats that differ in one thing after every other pair: what counts as a change is
// stored with its descriptions, and what does not leaves the held descriptions standing.
TEST(BaseAudioProcessor, takesOverFormatsWhereARateOrAChannelListChanges) {
    std::vector<AudioFormat> formats = {AudioFormat(), makeFormat(1, 44100.0), makeFormat(2, 44100.0),
                                        makeFormat(2, 48000.0)};
    formats.push_back(formats[2]);
    formats.back().channelMapping[1] = SpeakerId(4);  // as many channels, another speaker
    formats.back().updateSpeakerDescriptions();

    for (const AudioFormat& firstInput : formats)
        for (const AudioFormat& firstOutput : formats)
            for (const AudioFormat& input : formats)
                for (const AudioFormat& output : formats) {
                    PassOn processor;
                    ASSERT_TRUE(processor.setFormat(firstInput, firstOutput));
                    const auto before = processor.inputFormat.speakerDescriptions;
                    // Descriptions of their own, so that it shows which ones are held afterwards.
                    AudioFormat newInput = input, newOutput = output;
                    newInput.updateSpeakerDescriptions();
                    newOutput.updateSpeakerDescriptions();
                    ASSERT_TRUE(processor.setFormat(newInput, newOutput));

                    const bool same = &input == &firstInput && &output == &firstOutput;
                    EXPECT_EQ(processor.inputFormat.speakerDescriptions,
                              same ? before : newInput.speakerDescriptions);
                    EXPECT_EQ(processor.inputFormat.channelMapping, input.channelMapping);
                    EXPECT_EQ(processor.inputFormat.sampleRate, input.sampleRate);
                    EXPECT_EQ(processor.outputFormat.channelMapping, output.channelMapping);
                    EXPECT_EQ(processor.outputFormat.sampleRate, output.sampleRate);
                    if (!same) {
                        EXPECT_EQ(processor.outputFormat.speakerDescriptions, newOutput.speakerDescriptions);
                    }
                }
}

TEST(BaseAudioProcessor, takesItsOwnFormatsInEitherPlace) {
    PassOn processor;
    processor.setFormat(makeFormat(1, 44100.0), makeFormat(2, 48000.0));
    processor.setFormat(processor.inputFormat, processor.outputFormat);
    EXPECT_EQ(processor.inputFormat.channelMapping.size(), 1u);
    EXPECT_EQ(processor.outputFormat.channelMapping.size(), 2u);

    processor.setFormat(processor.outputFormat, processor.inputFormat);
    EXPECT_EQ(processor.inputFormat.sampleRate, 48000.0);
    EXPECT_EQ(processor.inputFormat.channelMapping.size(), 2u);
    EXPECT_EQ(processor.outputFormat.sampleRate, 44100.0);
    EXPECT_EQ(processor.outputFormat.channelMapping.size(), 1u);
    EXPECT_EQ(processor.outputFormat.speakerDescriptions.size(), 1u);
}

TEST(BaseAudioProcessor, hasNoLatencyWhateverTheBlock) {
    const PassOn processor;
    for (int blockSize : {INT_MIN, -1, 0, 1, 512, INT_MAX}) EXPECT_EQ(processor.getLatency(blockSize), 0);
}

}  // namespace
}  // namespace zevrant
