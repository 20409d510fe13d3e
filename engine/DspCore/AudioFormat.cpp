#include "DspCore/AudioFormat.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace zevrant {

namespace {

using namespace SpeakerIdEnum;

struct Speaker {
    const char* shortName;
    const char* name;
    float x, y, z;
    float lowPassFrequency;
};

constexpr float fullRange = -1.0f;

// Indexed by SpeakerId. TRL stands at the right on purpose, at the place of TRR.
constexpr Speaker speakers[] = {
    {"N/A", "Undefined", 0.0f, 0.0f, 0.0f, fullRange},
    {"M", "Mono", 0.0f, 1.0f, 0.0f, fullRange},
    {"L", "Left", -1.0f, 1.0f, 0.0f, fullRange},
    {"R", "Right", 1.0f, 1.0f, 0.0f, fullRange},
    {"C", "Center", 0.0f, 1.0f, 0.0f, fullRange},
    {"LFE", "Low frequency effects", 0.0f, -1.0f, 0.0f, 120.0f},
    {"LS", "Left surround", -1.0f, -1.0f, 0.0f, fullRange},
    {"RS", "Right surround", 1.0f, -1.0f, 0.0f, fullRange},
    {"LC", "Left of center", -0.5f, 1.0f, 0.0f, fullRange},
    {"RC", "Right of center", 0.5f, 1.0f, 0.0f, fullRange},
    {"S", "Surround", 0.0f, -1.0f, 0.0f, fullRange},
    {"SL", "Side left", -1.0f, 0.0f, 0.0f, fullRange},
    {"SR", "Side right", 1.0f, 0.0f, 0.0f, fullRange},
    {"TM", "Top middle", 0.0f, 0.0f, 1.0f, fullRange},
    {"TFL", "Top front left", -1.0f, 1.0f, 1.0f, fullRange},
    {"TFC", "Top front center", 0.0f, 1.0f, 1.0f, fullRange},
    {"TFR", "Top front right", 1.0f, 1.0f, 1.0f, fullRange},
    {"TRL", "Top rear left", 1.0f, -1.0f, 1.0f, fullRange},
    {"TRC", "Top rear center", 0.0f, -1.0f, 1.0f, fullRange},
    {"TRR", "Top rear right", 1.0f, -1.0f, 1.0f, fullRange},
    {"TSL", "Top side left", -1.0f, 0.0f, 1.0f, fullRange},
    {"TSR", "Top side right", 1.0f, 0.0f, 1.0f, fullRange},
};

const Speaker& getSpeaker(SpeakerId id) {
    return id > Undefined && id < std::ssize(speakers) ? speakers[id] : speakers[Undefined];
}

constexpr int maxDefaultChannels = 10;

// Row n - 1 holds the standard layout of n channels.
constexpr std::array<SpeakerId, maxDefaultChannels> defaultMappings[maxDefaultChannels] = {
    {M},
    {L, R},
    {L, R, C},
    {L, R, LS, RS},
    {L, R, C, LS, RS},
    {L, R, C, LFE, LS, RS},
    {L, R, C, LS, RS, SL, SR},
    {L, R, C, LFE, LS, RS, SL, SR},
    {L, R, C, LS, RS, SL, SR, TSL, TSR},
    {L, R, C, LFE, LS, RS, SL, SR, TSL, TSR},
};

}  // namespace

SpeakerDescription::SpeakerDescription(SpeakerId speakerId)
    : id(speakerId),
      x(getSpeaker(speakerId).x),
      y(getSpeaker(speakerId).y),
      z(getSpeaker(speakerId).z),
      lowPassFrequency(getSpeaker(speakerId).lowPassFrequency),
      shortName(getSpeaker(speakerId).shortName),
      name(getSpeaker(speakerId).name) {}

void AudioFormat::createDefaultChannelMapping(int numOfChannels) {
    channelMapping.resize(numOfChannels, Undefined);
    if (numOfChannels >= 1 && numOfChannels <= maxDefaultChannels)
        std::copy_n(defaultMappings[numOfChannels - 1].begin(), numOfChannels, channelMapping.begin());
    updateSpeakerDescriptions();
}

void AudioFormat::updateSpeakerDescriptions() const {
    speakerDescriptions.resize(channelMapping.size());
    std::transform(channelMapping.begin(), channelMapping.end(), speakerDescriptions.begin(),
                   [](SpeakerId id) { return std::make_shared<SpeakerDescription>(id); });
}

}  // namespace zevrant
