#pragma once

#include <cstdint>
#include <functional>

#include "DspCore/Signals.h"

namespace zevrant {

// The formats of raw samples. Values from outside 0 to 6 are possible and mean no format.
namespace NumberFormatEnum {
enum NumberFormat : std::int32_t {
    uint8 = 0,
    int8 = 1,
    int16 = 2,
    int24 = 3,
    int32 = 4,
    float32 = 5,
    float64 = 6,
};
}  // namespace NumberFormatEnum
using NumberFormatEnum::NumberFormat;

// Moves samples between signals and raw PCM or floating-point memory, interleaved or planar.
//
//            to float                             from float, before rounding    limits
//   uint8    (v - 127) / 128                      x * 128 + 127                  0 to 255
//   int8     v / 128                              x * 128                        -128 to 127
//   int16    v / 32768                            x * 32768                      -32768 to 32767
//   int24    v / 2^31, the bytes being the top    x * 2^31, of which the top     those of int32
//            three of a 32-bit integer v          three bytes are kept
//   int32    v / 2^31, v rounded to float first   x * 2^31                       -2^31 to 2^31 - 1
//   float32  the same value                       the same value                 none
//   float64  narrowed to nearest                  widened                        none
//
// uint8 is centred on 127, on purpose: silence is 127, and 128 is 1/128.
// A product is limited first and then rounded to nearest, ties to even, without dither. int24 rounds
// at 32 bits and then drops the low byte, so a value just under a 24-bit step goes down.
//
// Order    Big-endian is the most significant byte first, for floating point as well. uint8 and int8
//          have one form for both.
// Memory   The caller's: interleaved memory holds numOfChannels * numOfSamples samples, each plane
//          numOfSamples. It need not be aligned. Values beyond full scale are limited without report,
//          and NaN becomes any value of an integer format.
// Errors   A conversion of a signal with channels before a format is set throws std::bad_function_call.
// Threads  A conversion changes nothing in the object, so any number may run at once; setFormat may not
//          run beside them.
class NumberFormatConversion {
  public:
    // Stores both and chooses the functions. An unknown format sets frameSize to 0 and leaves the
    // functions as they were.
    void setFormat(NumberFormat newFormat, bool newBigEndian);

    // The integer format that holds so many bits in whole bytes: uint8 (for which the byte order is
    // cleared), int16, int24 or int32. False, with nothing changed, if there is none.
    bool setPcmFormat(int bitsPerSample, bool newBigEndian);

    NumberFormat getFormat() const { return format; }

    // Channel c of the signal from or to the samples c, c + numOfChannels, c + 2 * numOfChannels, ...
    // of interleaved memory, or from planes[c]. The shape is that of the signal.
    void convertToSignal32(void* interleaved, Signal32& out) const;
    void convertToSignal32(void** planes, Signal32& out) const;
    void convertFromSignal32(const Signal32& in, void* interleaved) const;

    // From the table of formats; -1 for an unknown format.
    static int getNumberOfBitsPerSample(NumberFormat format);
    static int getFrameSize(NumberFormat format);

    // destination[i] = source[numOfBytes - 1 - i]; the ranges do not overlap.
    static void reverseByteOrder(const void* source, void* destination, int numOfBytes);

    NumberFormat format = NumberFormat::uint8;
    bool bigEndian = false;
    std::int32_t frameSize = 0;  // bytes per sample of the format

    // (source, destination, number of samples, stride of the raw side in samples); the float side is
    // contiguous.
    std::function<void(const void*, float*, int, int)> toFloat;
    std::function<void(const float*, void*, int, int)> fromFloat;
};

}  // namespace zevrant
