#include "DspCore/AudioFormat.h"

#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <string>

namespace zevrant {
namespace {

using namespace SpeakerIdEnum;

constexpr const char* layouts[] = {"",
                                   "M",
                                   "L R",
                                   "L R C",
                                   "L R LS RS",
                                   "L R C LS RS",
                                   "L R C LFE LS RS",
                                   "L R C LS RS SL SR",
                                   "L R C LFE LS RS SL SR",
                                   "L R C LS RS SL SR TSL TSR",
                                   "L R C LFE LS RS SL SR TSL TSR",
                                   "N/A N/A N/A N/A N/A N/A N/A N/A N/A N/A N/A"};

std::string getLayout(const AudioFormat& format) {
    std::string layout;
    for (const auto& description : format.speakerDescriptions)
        layout += (layout.empty() ? "" : " ") + description->shortName;
    return layout;
}

// Whatever layout was there before.
TEST(AudioFormat, defaultMappingsAreTheStandardLayouts) {
    for (int before = 0; before <= 10; ++before)
        for (int numOfChannels = 0; numOfChannels <= 11; ++numOfChannels) {
            AudioFormat format;
            format.createDefaultChannelMapping(numOfChannels == 11 ? 0 : before);
            format.createDefaultChannelMapping(numOfChannels);
            EXPECT_EQ(getLayout(format), layouts[numOfChannels]) << before << " channels before";
            ASSERT_EQ(format.channelMapping.size(), static_cast<std::size_t>(numOfChannels));
            ASSERT_EQ(format.speakerDescriptions.size(), format.channelMapping.size());
            for (int c = 0; c < numOfChannels; ++c)
                EXPECT_EQ(format.speakerDescriptions[c]->id, format.channelMapping[c]);
        }
}

TEST(AudioFormat, countsWithoutLayoutKeepWhatSurvives) {
    AudioFormat format;
    format.createDefaultChannelMapping(3);
    format.createDefaultChannelMapping(12);
    EXPECT_EQ(getLayout(format), "L R C N/A N/A N/A N/A N/A N/A N/A N/A N/A");
    format.createDefaultChannelMapping(11);
    EXPECT_EQ(getLayout(format), "L R C N/A N/A N/A N/A N/A N/A N/A N/A");
    for (const int negative : {-1, INT_MIN})
        EXPECT_THROW(format.createDefaultChannelMapping(negative), std::length_error);
}

TEST(AudioFormat, descriptionsAreSharedByCopiesAndMadeAnewByUpdates) {
    AudioFormat format;
    EXPECT_EQ(format.sampleRate, 0.0);
    format.createDefaultChannelMapping(2);
    const AudioFormat copy = format;
    EXPECT_EQ(copy.speakerDescriptions, format.speakerDescriptions);
    copy.updateSpeakerDescriptions();
    for (int c = 0; c < 2; ++c) EXPECT_NE(copy.speakerDescriptions[c], format.speakerDescriptions[c]);
    EXPECT_EQ(getLayout(copy), getLayout(format));
    format.channelMapping = {static_cast<SpeakerId>(22)};
    format.updateSpeakerDescriptions();
    EXPECT_EQ(getLayout(format), "N/A");
    EXPECT_EQ(getLayout(copy), "L R");
    EXPECT_EQ(SpeakerDescription(LFE).lowPassFrequency, 120.0f);
    EXPECT_EQ(SpeakerDescription(TRL).x, 1.0f) << "top rear left stands at the right, on purpose";
}

TEST(SpeakerDescription, idsWithoutSpeakerAreUndefinedAndKept) {
    for (const int id : {0, 22, 23, 1000, INT_MAX, -1, INT_MIN}) {
        const SpeakerDescription speaker{static_cast<SpeakerId>(id)};
        EXPECT_EQ(speaker.id, id);
        EXPECT_EQ(speaker.shortName, "N/A");
        EXPECT_EQ(speaker.name, "Undefined");
        EXPECT_EQ(speaker.lowPassFrequency, -1.0f);
        EXPECT_TRUE(speaker.x == 0.0f && speaker.y == 0.0f && speaker.z == 0.0f);
    }
}

}  // namespace
}  // namespace zevrant
