#include "processors/BaseAudioProcessor.h"

#include <utility>

namespace zevrant {

namespace {

bool sameStream(const AudioFormat& a, const AudioFormat& b) {
    return a.sampleRate == b.sampleRate && a.channelMapping == b.channelMapping;
}

}  // namespace

BaseAudioProcessor::~BaseAudioProcessor() = default;

bool BaseAudioProcessor::setFormat(const AudioFormat& input, const AudioFormat& output) {
    if (sameStream(input, inputFormat) && sameStream(output, outputFormat)) return true;
    AudioFormat newOutput = output;  // output may be the inputFormat that is about to change
    inputFormat = input;
    outputFormat = std::move(newOutput);
    return true;
}

int BaseAudioProcessor::getLatency(int) const {
    return 0;
}

void BaseAudioProcessor::reset() {}

}  // namespace zevrant
