#pragma once

#include <cstdint>
#include <string>

namespace zevrant::cli {

// Sample formats are libsndfile's subtype numbers (SF_FORMAT_PCM_16 and so on).

// Bits of an integer format that holds samples as they are; 0 for floats and for coded formats.
int getIntegerBits(int sampleFormat);

// A number from a command line: "pcm16", "pcm24", "pcm32", "float" or "double"; 0 for any other text.
int parseSampleFormat(const std::string& text);

// Samples to integers of 2 to 32 bits in the upper end of 32: rounded to nearest and limited to the range.
// Returns how many lay outside -1 to 1. What was read from such integers comes back exactly.
std::int64_t quantise(const float* samples, std::int64_t numOfValues, int bits, std::int32_t* out);

}  // namespace zevrant::cli
