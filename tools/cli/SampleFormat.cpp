#include "cli/SampleFormat.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <sndfile.h>

namespace zevrant::cli {

int getIntegerBits(int sampleFormat) {
    switch (sampleFormat) {
        case SF_FORMAT_PCM_S8:
        case SF_FORMAT_PCM_U8:
            return 8;
        case SF_FORMAT_PCM_16:
        case SF_FORMAT_ALAC_16:
            return 16;
        case SF_FORMAT_ALAC_20:
            return 20;
        case SF_FORMAT_PCM_24:
        case SF_FORMAT_ALAC_24:
            return 24;
        case SF_FORMAT_PCM_32:
        case SF_FORMAT_ALAC_32:
            return 32;
        default:
            return 0;
    }
}

int parseSampleFormat(const std::string& text) {
    static constexpr std::pair<const char*, int> names[] = {{"pcm16", SF_FORMAT_PCM_16},
                                                            {"pcm24", SF_FORMAT_PCM_24},
                                                            {"pcm32", SF_FORMAT_PCM_32},
                                                            {"float", SF_FORMAT_FLOAT},
                                                            {"double", SF_FORMAT_DOUBLE}};
    for (const auto& [name, format] : names)
        if (text == name) return format;
    return 0;
}

std::int64_t quantise(const float* samples, std::int64_t numOfValues, int bits, std::int32_t* out) {
    const double scale = std::ldexp(1.0, bits - 1);
    const auto step = static_cast<std::int64_t>(std::ldexp(1.0, 32 - bits));
    std::int64_t numOfClipped = 0;
    for (std::int64_t i = 0; i < numOfValues; ++i) {
        const double value = std::isnan(samples[i]) ? 0.0 : double{samples[i]};
        if (std::abs(value) > 1.0) ++numOfClipped;
        const double level = std::clamp(std::nearbyint(value * scale), -scale, scale - 1.0);
        out[i] = static_cast<std::int32_t>(static_cast<std::int64_t>(level) * step);
    }
    return numOfClipped;
}

}  // namespace zevrant::cli
