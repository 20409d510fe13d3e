#pragma once

#include <cstddef>

#include "DspCore/NumberFormatConversion.h"

namespace zevrant {

// The functions of a number format on packed rows, samples one behind the other, for the instruction set
// in use when they were asked for. Neither row needs to be aligned.
struct PackedFormat {
    void (*decode)(const void* source, float* destination, std::size_t numOfSamples);
    void (*encode)(const float* source, void* destination, std::size_t numOfSamples);

    // As decode, from samples of which every second one counts: one channel of stereo. Null for the
    // formats that gain nothing by it.
    void (*decodeEverySecond)(const void* source, float* destination, std::size_t numOfSamples);
};

// For a format from 0 to 6.
PackedFormat getPackedFormat(NumberFormat format, bool bigEndian);

}  // namespace zevrant
