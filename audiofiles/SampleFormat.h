#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "DspCore/NumberFormatConversion.h"

namespace zevrant::audiofiles {

// Sample formats are libsndfile's subtype numbers (SF_FORMAT_PCM_16 and so on).

// Bits of an integer format that holds samples as they are; 0 for floats and for coded formats.
int getIntegerBits(int sampleFormat);

// Whether what is written in a sample format comes back as it was, to rounding: integers and floats. All
// others (MP3, Vorbis, mu-law and so on) are coded.
bool keepsSamples(int sampleFormat);

// A number from a command line: "pcm16", "pcm24", "pcm32", "float" or "double"; 0 for any other text.
int parseSampleFormat(const std::string& text);

// How samples without a header lie in bytes; 32-bit floats with the lowest byte first unless told.
struct RawSampleFormat {
    RawSampleFormat();
    RawSampleFormat(int format, bool bigEndian) : sampleFormat(format), isBigEndian(bigEndian) {}

    int sampleFormat;
    bool isBigEndian = false;
};

// From a command line: s16, s24, s32, f32 or f64, and le or be behind it.
std::optional<RawSampleFormat> parseRawSampleFormat(const std::string& text);

// Samples to integers of 2 to 32 bits in the upper end of 32: rounded to nearest and limited to the range.
// Returns how many lay outside -1 to 1. What was read from such integers comes back exactly.
std::int64_t quantise(const float* samples, std::int64_t numOfValues, int bits, std::int32_t* out);

// Samples as they lie in the bytes of a stream: integers of 16, 24 and 32 bits, floats and doubles in both
// byte orders, and integers of 8 bits as WAV has them, which are not the engine's: unsigned around 128.
class SampleCoding {
  public:
    SampleCoding(int sampleFormat, bool isBigEndian);

    // Samples to values that their format holds exactly comes back bit for bit.
    void decode(const void* bytes, std::size_t numOfValues, float* samples) const;

    // Integers are rounded and limited as quantise() does. Returns how many lay outside -1 to 1.
    std::int64_t encode(const float* samples, std::size_t numOfValues, void* bytes);

    std::size_t getBytesPerValue() const { return bytesPerValue; }

  private:
    NumberFormatConversion conversion;
    bool isUnsigned;
    int integerBits;
    std::size_t bytesPerValue;
    std::vector<std::int32_t> integers;  // of the block at hand
    std::vector<float> rounded;
};

}  // namespace zevrant::audiofiles
