#include "separation/RateConverter.h"

#include <cmath>
#include <cstdint>
#include <new>

#include <speex/speex_resampler.h>

namespace zevrant::separation {

namespace {

// The shortest filter of which nothing folds above -80 dB: 96 taps at the lower rate. The next shorter one
// lets images of what lies above 20 kHz come to -73 dB.
constexpr int quality = 6;

}  // namespace

void StreamConverter::Deleter::operator()(SpeexResamplerState_* resampler) const {
    speex_resampler_destroy(resampler);
}

StreamConverter::StreamConverter(int inputRate, int outputRate, int channels)
    : ratio(static_cast<double>(outputRate) / inputRate), numOfChannels(static_cast<std::size_t>(channels)) {
    int error = RESAMPLER_ERR_SUCCESS;
    state.reset(speex_resampler_init(static_cast<unsigned>(channels), static_cast<unsigned>(inputRate),
                                     static_cast<unsigned>(outputRate), quality, &error));
    if (!state) throw std::bad_alloc();
    const int numOfZeros = 2 * getDelay() + 2;
    zeros.resize(static_cast<std::size_t>(numOfZeros) * numOfChannels);
    discarded.reserve(static_cast<std::size_t>(getMostOutput(numOfZeros)) * numOfChannels);
}

StreamConverter::~StreamConverter() = default;

int StreamConverter::getDelay() const {
    return speex_resampler_get_input_latency(state.get());
}

int StreamConverter::getMostOutput(int numOfSamples) const {
    return static_cast<int>(std::ceil(numOfSamples * ratio)) + 1;
}

void StreamConverter::process(const float* interleaved, int numOfSamples, std::vector<float>& out) {
    if (numOfSamples < 1) return;
    const std::size_t before = out.size();
    auto numOfInputs = static_cast<std::uint32_t>(numOfSamples);
    auto numOfOutputs = static_cast<std::uint32_t>(getMostOutput(numOfSamples));
    out.resize(before + numOfOutputs * numOfChannels);
    speex_resampler_process_interleaved_float(state.get(), interleaved, &numOfInputs, out.data() + before,
                                              &numOfOutputs);
    out.resize(before + numOfOutputs * numOfChannels);
}

// The library's own reset leaves samples in the memory of all channels but the first, so zeros push them out.
void StreamConverter::reset() {
    discarded.clear();
    process(zeros.data(), static_cast<int>(zeros.size() / numOfChannels), discarded);
    speex_resampler_reset_mem(state.get());
}

}  // namespace zevrant::separation
