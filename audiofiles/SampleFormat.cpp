#include "audiofiles/SampleFormat.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <sndfile.h>

namespace zevrant::audiofiles {

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

bool keepsSamples(int sampleFormat) {
    return getIntegerBits(sampleFormat) > 0 || sampleFormat == SF_FORMAT_FLOAT ||
           sampleFormat == SF_FORMAT_DOUBLE;
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

RawSampleFormat::RawSampleFormat() : sampleFormat(SF_FORMAT_FLOAT) {}

std::optional<RawSampleFormat> parseRawSampleFormat(const std::string& text) {
    static constexpr std::pair<const char*, int> names[] = {{"s16", SF_FORMAT_PCM_16},
                                                            {"s24", SF_FORMAT_PCM_24},
                                                            {"s32", SF_FORMAT_PCM_32},
                                                            {"f32", SF_FORMAT_FLOAT},
                                                            {"f64", SF_FORMAT_DOUBLE}};
    for (const auto& [name, format] : names)
        for (const bool isBigEndian : {false, true})
            if (text == std::string(name) + (isBigEndian ? "be" : "le"))
                return RawSampleFormat{format, isBigEndian};
    return std::nullopt;
}

// ---- streams ----------------------------------------------------------------------------------

SampleCoding::SampleCoding(int sampleFormat, bool isBigEndian)
    : isUnsigned(sampleFormat == SF_FORMAT_PCM_U8), integerBits(getIntegerBits(sampleFormat)) {
    if (integerBits > 0)
        conversion.setPcmFormat(integerBits, isBigEndian);
    else
        conversion.setFormat(sampleFormat == SF_FORMAT_DOUBLE ? NumberFormat::float64 : NumberFormat::float32,
                             isBigEndian);
    bytesPerValue = static_cast<std::size_t>(conversion.frameSize);
}

void SampleCoding::decode(const void* bytes, std::size_t numOfValues, float* samples) const {
    if (!isUnsigned) return conversion.toFloat(bytes, samples, static_cast<int>(numOfValues), 1);
    const auto* values = static_cast<const unsigned char*>(bytes);
    for (std::size_t i = 0; i < numOfValues; ++i) samples[i] = static_cast<float>(values[i] - 128) / 128.0f;
}

// Rounded integers are floats of few bits, so that the engine's conversion, which cuts integers of 24 bits
// off instead of rounding them, finds nothing left to change.
std::int64_t SampleCoding::encode(const float* samples, std::size_t numOfValues, void* bytes) {
    std::int64_t numOfClipped = 0;
    if (integerBits > 0) {
        integers.resize(numOfValues);
        rounded.resize(numOfValues);
        numOfClipped =
            quantise(samples, static_cast<std::int64_t>(numOfValues), integerBits, integers.data());
        for (std::size_t i = 0; i < numOfValues; ++i)
            rounded[i] = static_cast<float>(integers[i]) / 2147483648.0f;
        samples = rounded.data();
    }
    conversion.fromFloat(samples, bytes, static_cast<int>(numOfValues), 1);
    return numOfClipped;
}

}  // namespace zevrant::audiofiles
