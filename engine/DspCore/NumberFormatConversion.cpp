#include "DspCore/NumberFormatConversion.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>

#include "DspCore/PackedFormats.h"
#include "DspCore/VectorOperations.h"

namespace zevrant {

namespace {

constexpr int kBytesPerSample[] = {1, 1, 2, 3, 4, 4, 8};

bool isKnown(NumberFormat format) {
    return format >= NumberFormat::uint8 && format <= NumberFormat::float64;
}

// Moves numOfSamples samples between memories in which they lie sourceStep and destinationStep bytes apart.
template <std::size_t numOfBytes>
void moveSamples(const std::byte* source, std::ptrdiff_t sourceStep, std::byte* destination,
                 std::ptrdiff_t destinationStep, int numOfSamples) {
    for (std::ptrdiff_t i = 0; i < numOfSamples; ++i)
        std::memcpy(destination + i * destinationStep, source + i * sourceStep, numOfBytes);
}

// Samples that do not lie side by side go through a block in which they do: moving them is all that a
// stride costs, and the conversion has one form. A stride of 2, stereo, is a constant, for which the
// compiler moves in vectors.
constexpr int kBlockLength = 512;

template <std::size_t numOfBytes>
struct Decoder {
    decltype(PackedFormat::decode) decode;
    decltype(PackedFormat::decodeEverySecond) decodeEverySecond;

    void operator()(const void* source, float* destination, int numOfSamples, int stride) const {
        if (numOfSamples <= 0) return;
        const auto length = static_cast<std::size_t>(numOfSamples);
        if (stride == 1) return decode(source, destination, length);
        if (stride == 2 && decodeEverySecond) return decodeEverySecond(source, destination, length);
        constexpr std::ptrdiff_t size = numOfBytes;
        std::byte block[kBlockLength * numOfBytes];
        const auto* in = static_cast<const std::byte*>(source);
        for (int done = 0; done < numOfSamples; done += kBlockLength) {
            const int count = std::min(kBlockLength, numOfSamples - done);
            const std::byte* first = in + done * (stride * size);
            if (stride == 2)
                moveSamples<numOfBytes>(first, 2 * size, block, size, count);
            else
                moveSamples<numOfBytes>(first, stride * size, block, size, count);
            decode(block, destination + done, static_cast<std::size_t>(count));
        }
    }
};

template <std::size_t numOfBytes>
struct Encoder {
    decltype(PackedFormat::encode) encode;

    void operator()(const float* source, void* destination, int numOfSamples, int stride) const {
        if (numOfSamples <= 0) return;
        if (stride == 1) return encode(source, destination, static_cast<std::size_t>(numOfSamples));
        constexpr std::ptrdiff_t size = numOfBytes;
        std::byte block[kBlockLength * numOfBytes];
        auto* out = static_cast<std::byte*>(destination);
        for (int done = 0; done < numOfSamples; done += kBlockLength) {
            const int count = std::min(kBlockLength, numOfSamples - done);
            encode(source + done, block, static_cast<std::size_t>(count));
            std::byte* first = out + done * (stride * size);
            if (stride == 2)
                moveSamples<numOfBytes>(block, size, first, 2 * size, count);
            else
                moveSamples<numOfBytes>(block, size, first, stride * size, count);
        }
    }
};

// Floats in the processor's own order need no conversion, only gathering.
void gatherFloats(const void* source, float* destination, int numOfSamples, int stride) {
    if (numOfSamples <= 0) return;
    const auto* in = static_cast<const std::byte*>(source);
    const std::ptrdiff_t step = stride * std::ptrdiff_t{sizeof(float)};
    const std::ptrdiff_t length = std::ptrdiff_t{numOfSamples - 1} * stride + 1;
    const bool aligned = reinterpret_cast<std::uintptr_t>(source) % alignof(float) == 0;
    if (stride == 1)
        std::memcpy(destination, in, static_cast<std::size_t>(numOfSamples) * sizeof(float));
    else if (aligned && stride > 1 && length <= std::numeric_limits<int>::max())
        vo::decimate(static_cast<const float*>(source), static_cast<int>(length), destination, stride, 0);
    else
        moveSamples<sizeof(float)>(in, step, reinterpret_cast<std::byte*>(destination), sizeof(float),
                                   numOfSamples);
}

template <std::size_t numOfBytes>
void setFunctions(NumberFormatConversion& conversion) {
    const PackedFormat packed = getPackedFormat(conversion.format, conversion.bigEndian);
    conversion.toFloat = Decoder<numOfBytes>{packed.decode, packed.decodeEverySecond};
    conversion.fromFloat = Encoder<numOfBytes>{packed.encode};
}

}  // namespace

void NumberFormatConversion::setFormat(NumberFormat newFormat, bool newBigEndian) {
    format = newFormat;
    bigEndian = newBigEndian;
    frameSize = isKnown(newFormat) ? getFrameSize(newFormat) : 0;
    switch (frameSize) {
        case 1:
            return setFunctions<1>(*this);
        case 2:
            return setFunctions<2>(*this);
        case 3:
            return setFunctions<3>(*this);
        case 4:
            setFunctions<4>(*this);
            break;
        case 8:
            return setFunctions<8>(*this);
        default:
            return;
    }
    if (format == NumberFormat::float32 && !bigEndian) toFloat = gatherFloats;
}

bool NumberFormatConversion::setPcmFormat(int bitsPerSample, bool newBigEndian) {
    switch ((std::int64_t{bitsPerSample} + 7) / 8) {
        case 1:
            setFormat(NumberFormat::uint8, false);
            return true;
        case 2:
            setFormat(NumberFormat::int16, newBigEndian);
            return true;
        case 3:
            setFormat(NumberFormat::int24, newBigEndian);
            return true;
        case 4:
            setFormat(NumberFormat::int32, newBigEndian);
            return true;
        default:
            return false;
    }
}

// Without samples the memory may be null, which nothing may be added to.
void NumberFormatConversion::convertToSignal32(void* interleaved, Signal32& out) const {
    if (out.numOfSamples < 1) return;
    auto* samples = static_cast<std::byte*>(interleaved);
    for (int c = 0; c < out.numOfChannels; ++c)
        toFloat(samples + std::ptrdiff_t{c} * frameSize, out.getWriteChannelPtr(c), out.numOfSamples,
                out.numOfChannels);
}

void NumberFormatConversion::convertToSignal32(void** planes, Signal32& out) const {
    for (int c = 0; c < out.numOfChannels; ++c)
        toFloat(planes[c], out.getWriteChannelPtr(c), out.numOfSamples, 1);
}

void NumberFormatConversion::convertFromSignal32(const Signal32& in, void* interleaved) const {
    if (in.numOfSamples < 1) return;
    auto* samples = static_cast<std::byte*>(interleaved);
    for (int c = 0; c < in.numOfChannels; ++c)
        fromFloat(in.getReadChannelPtr(c), samples + std::ptrdiff_t{c} * frameSize, in.numOfSamples,
                  in.numOfChannels);
}

int NumberFormatConversion::getNumberOfBitsPerSample(NumberFormat format) {
    return isKnown(format) ? 8 * kBytesPerSample[format] : -1;
}

int NumberFormatConversion::getFrameSize(NumberFormat format) {
    return isKnown(format) ? kBytesPerSample[format] : -1;
}

void NumberFormatConversion::reverseByteOrder(const void* source, void* destination, int numOfBytes) {
    if (numOfBytes < 1) return;
    const auto* in = static_cast<const std::byte*>(source);
    std::reverse_copy(in, in + numOfBytes, static_cast<std::byte*>(destination));
}

}  // namespace zevrant
