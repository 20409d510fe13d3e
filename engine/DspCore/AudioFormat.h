#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zevrant {

// The speakers that a channel may feed, named by their short names. Undefined and every value above
// TSR describe no speaker.
namespace SpeakerIdEnum {
enum SpeakerId : std::int32_t {
    Undefined = 0,
    M = 1,
    L = 2,
    R = 3,
    C = 4,
    LFE = 5,
    LS = 6,
    RS = 7,
    LC = 8,
    RC = 9,
    S = 10,
    SL = 11,
    SR = 12,
    TM = 13,
    TFL = 14,
    TFC = 15,
    TFR = 16,
    TRL = 17,
    TRC = 18,
    TRR = 19,
    TSL = 20,
    TSR = 21
};
}  // namespace SpeakerIdEnum
using SpeakerIdEnum::SpeakerId;

// Where a speaker stands and what it is called, from one fixed table.
struct SpeakerDescription {
    // Any id is taken and kept; one without a speaker gives "N/A", "Undefined", at the origin.
    explicit SpeakerDescription(SpeakerId speakerId);
    explicit SpeakerDescription(std::int32_t number)  // any number: those outside the table are undefined
        : SpeakerDescription(static_cast<SpeakerId>(number)) {}

    SpeakerId id;
    float x;                 // left -1 to right +1
    float y;                 // rear -1 to front +1
    float z;                 // ear level 0 to top 1
    float lowPassFrequency;  // hertz, -1 for a full-range speaker
    std::string shortName;
    std::string name;
};

// What a stream of signals is: which speaker each channel feeds, and at what rate. A default format
// has no channels and a rate of 0, which means that no format is set.
//
// Formats are values; copies share their descriptions. Threads: none of its own.
struct AudioFormat {
    // Sets the standard layout of 1 to 10 channels and describes it. Any other count is honoured as a
    // count: a mapping keeps what survives the resize, and new channels are Undefined.
    // Errors: a negative count throws std::length_error.
    void createDefaultChannelMapping(int numOfChannels);

    // Whether a format is set: it has channels, and a rate above 0, which NaN is not.
    bool isSet() const { return !channelMapping.empty() && sampleRate > 0.0; }

    int getNumOfChannels() const { return static_cast<int>(channelMapping.size()); }

    // Makes new descriptions for all channels from channelMapping.
    void updateSpeakerDescriptions() const;

    std::vector<SpeakerId> channelMapping;  // one speaker per channel: its size is the channel count
    mutable std::vector<std::shared_ptr<SpeakerDescription>> speakerDescriptions;  // told by channelMapping
    double sampleRate = 0.0;                                                       // hertz, 0 = not set
};

}  // namespace zevrant
