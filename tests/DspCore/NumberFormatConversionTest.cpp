#include "DspCore/NumberFormatConversion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "TestSignals.h"
#include "simd/TargetOverride.h"

namespace zevrant {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

struct Format {
    NumberFormat format;
    bool bigEndian;
};

const std::vector<Format> kFormats = [] {
    std::vector<Format> formats;
    for (int format = 0; format <= 6; ++format)
        for (const bool bigEndian : {false, true}) formats.push_back({NumberFormat(format), bigEndian});
    return formats;
}();

// Every format on every instruction set that this processor has; the functions are chosen by setFormat.
template <class Check>
void forEveryFormat(Check check) {
    for (const simd::Target& target : simd::getUsableTargets()) {
        const simd::ScopedTarget scope(target);
        for (const Format& f : kFormats) {
            SCOPED_TRACE(testing::Message()
                         << target.name << ", format " << f.format << (f.bigEndian ? ", big" : ""));
            NumberFormatConversion conversion;
            conversion.setFormat(f.format, f.bigEndian);
            check(conversion);
        }
    }
}

// The definition of one sample, by integers, and by long double, which holds every product exactly.

std::uint64_t readInteger(const std::uint8_t* bytes, int size, bool bigEndian) {
    std::uint64_t value = 0;
    for (int i = 0; i < size; ++i) value = value << 8 | bytes[bigEndian ? i : size - 1 - i];
    return value;
}

void writeInteger(std::uint64_t value, std::uint8_t* bytes, int size, bool bigEndian) {
    for (int i = 0; i < size && i < 8; ++i)  // no format is longer, which compilers like to be told
        bytes[bigEndian ? size - 1 - i : i] = static_cast<std::uint8_t>(value >> (8 * i));
}

float decodeOne(const NumberFormatConversion& c, const std::uint8_t* bytes) {
    const std::uint64_t raw = readInteger(bytes, c.frameSize, c.bigEndian);
    const long double code = static_cast<std::int32_t>(raw << (32 - 8 * std::min(c.frameSize, 4)));
    if (c.format == NumberFormat::uint8)
        return static_cast<float>((static_cast<long double>(raw) - 127) / 128);
    if (c.format == NumberFormat::float32) return std::bit_cast<float>(static_cast<std::uint32_t>(raw));
    if (c.format == NumberFormat::float64) return static_cast<float>(std::bit_cast<double>(raw));
    return static_cast<float>(code / 0x1p31L);  // integers of all sizes, by their highest bits
}

void encodeOne(const NumberFormatConversion& c, float x, std::uint8_t* bytes) {
    const auto integer = [](long double product, long double low, long double high) {
        return static_cast<std::uint64_t>(std::llrint(std::clamp(product, low, high)));  // ties to even
    };
    const int bits = c.format == NumberFormat::int24 ? 32 : std::min(8 * c.frameSize, 32);
    const long double scale = std::ldexp(1.0L, bits - 1);
    std::uint64_t raw = 0;
    if (c.format == NumberFormat::uint8)
        raw = integer(std::fma(x, 128.0f, 127.0f), 0, 255);
    else if (c.format == NumberFormat::float32)
        raw = std::bit_cast<std::uint32_t>(x);
    else if (c.format == NumberFormat::float64)
        raw = std::bit_cast<std::uint64_t>(static_cast<double>(x));
    else
        raw = integer(x * scale, -scale, scale - 1) >> (c.format == NumberFormat::int24 ? 8 : 0);
    writeInteger(raw, bytes, c.frameSize, c.bigEndian);
}

Bytes randomBytes(int size, unsigned seed) {
    std::mt19937 generator(seed);
    std::uniform_int_distribution<int> values(0, 255);
    Bytes bytes(static_cast<std::size_t>(size));
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(values(generator));
    return bytes;
}

// Raw memory that holds no NaN in any format, so that every value has one right answer.
Bytes randomSamples(const NumberFormatConversion& c, int numOfSamples, int offset, unsigned seed) {
    Bytes bytes = randomBytes(offset + numOfSamples * c.frameSize, seed);
    for (int i = 0; i < numOfSamples; ++i)
        while (std::isnan(decodeOne(c, &bytes[static_cast<std::size_t>(offset + i * c.frameSize)])))
            bytes[static_cast<std::size_t>(offset + i * c.frameSize + (c.bigEndian ? 0 : c.frameSize - 1))] ^=
                0x40;
    return bytes;
}

// Values in and beyond full scale, ties and their neighbours for every integer format, and the extremes.
std::vector<float> interestingFloats() {
    std::vector<float> values = {0.0f,    -0.0f,    1.0f,        -1.0f,        kInfinity,  -kInfinity,
                                 FLT_MAX, -FLT_MAX, FLT_MIN,     1e-45f,       -1e-45f,    1e10f,
                                 -1e10f,  0.5f,     0.99999994f, -0.99999994f, 1.0000001f, -1.0000001f};
    for (const float scale : {0x1p7f, 0x1p15f, 0x1p23f, 0x1p31f})
        for (const int code :
             {-129, -128, -127, -3, -2, -1, 0, 1, 2, 3, 126, 127, 128, 32766, 32767, 32768, -32769})
            for (const float part : {0.0f, 0.5f, -0.5f}) {
                const float x = (static_cast<float>(code) + part) / scale;
                for (const float y : {x, std::nextafter(x, 2.0f), std::nextafter(x, -2.0f)})
                    values.push_back(y);
            }
    for (const float value : noise(3000, 1, 1.2f)) values.push_back(value);
    return values;
}

TEST(NumberFormatConversion, decodersMatchTheirDefinitionForAnyCountStrideAndAddress) {
    forEveryFormat([](const NumberFormatConversion& conversion) {
        for (const int stride : {1, 2, 3, 8})
            for (const int n : {0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 33, 64, 511, 512, 513, 1100})
                for (const int offset : {0, 1, 3}) {
                    const int size = n > 0 ? (n - 1) * stride + 1 : 0;
                    const Bytes raw = randomSamples(conversion, size, offset, 2);
                    std::vector<float> out(static_cast<std::size_t>(n) + 1, -9.0f);
                    conversion.toFloat(raw.data() + offset, out.data(), n, stride);
                    for (int i = 0; i < n; ++i) {
                        const float expected = decodeOne(
                            conversion,
                            &raw[static_cast<std::size_t>(offset + i * stride * conversion.frameSize)]);
                        ASSERT_EQ(std::bit_cast<std::uint32_t>(out[static_cast<std::size_t>(i)]),
                                  std::bit_cast<std::uint32_t>(expected))
                            << "sample " << i << " of " << n << ", stride " << stride;
                    }
                    ASSERT_EQ(out.back(), -9.0f);
                }
    });
}

TEST(NumberFormatConversion, encodersMatchTheirDefinitionAndTouchNothingBetween) {
    const auto values = interestingFloats();
    const int numOfValues = static_cast<int>(values.size());
    forEveryFormat([&](const NumberFormatConversion& conversion) {
        for (const int stride : {1, 2, 3, 8})
            for (const int n : {0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 33, 64, 511, 513, numOfValues})
                for (const int offset : {0, 1, 3}) {
                    const int first = (numOfValues - n) / 2;
                    const float* in = values.data() + first;
                    Bytes expected = randomBytes(offset + (n * stride + 1) * conversion.frameSize, 3);
                    Bytes out = expected;
                    for (int i = 0; i < n; ++i)
                        encodeOne(
                            conversion, in[i],
                            &expected[static_cast<std::size_t>(offset + i * stride * conversion.frameSize)]);
                    conversion.fromFloat(in, out.data() + offset, n, stride);
                    const auto difference = std::mismatch(out.begin(), out.end(), expected.begin());
                    const auto where = difference.first - out.begin() - offset;
                    ASSERT_EQ(difference.first, out.end())
                        << "byte " << where << ", value " << in[where / (stride * conversion.frameSize)]
                        << ", n " << n << ", stride " << stride;
                }
    });
}

// Three channels, through the interleaved and the planar form, to and from signals.
TEST(NumberFormatConversion, signalsTakeTheirChannelsFromTheirPlaces) {
    constexpr int numOfChannels = 3, n = 700;
    forEveryFormat([](const NumberFormatConversion& conversion) {
        const auto size = static_cast<std::size_t>(conversion.frameSize);
        Bytes raw = randomSamples(conversion, numOfChannels * n, 0, 5);
        Signal32 signal(numOfChannels, n), planar(numOfChannels, n);
        const Signal32 shared = signal;
        conversion.convertToSignal32(raw.data(), signal);
        EXPECT_NE(shared.getReadChannelPtr(0), signal.getReadChannelPtr(0)) << "wrote into shared rows";

        Bytes planes[numOfChannels], expected(raw.size()), back(raw.size());
        for (std::size_t i = 0; i < numOfChannels * n; ++i) {
            const std::uint8_t* sample = &raw[i * size];
            const float value =
                signal.getReadChannelPtr(static_cast<int>(i % numOfChannels))[i / numOfChannels];
            ASSERT_EQ(value, decodeOne(conversion, sample));
            planes[i % numOfChannels].insert(planes[i % numOfChannels].end(), sample, sample + size);
            encodeOne(conversion, value, &expected[i * size]);
        }
        void* pointers[] = {planes[0].data(), planes[1].data(), planes[2].data()};
        conversion.convertToSignal32(pointers, planar);
        EXPECT_EQ(rowsOf(planar), rowsOf(signal));
        conversion.convertFromSignal32(signal, back.data());
        EXPECT_EQ(back, expected);
    });
}

TEST(NumberFormatConversion, pcmSizesSelectTheirFormat) {
    for (const int bits : {INT32_MIN, -1, 0, 1, 8, 9, 16, 17, 24, 25, 32, 33, INT32_MAX})
        for (const bool bigEndian : {false, true}) {
            NumberFormatConversion conversion;
            conversion.setFormat(NumberFormat::float64, true);
            const bool selected = conversion.setPcmFormat(bits, bigEndian);
            ASSERT_EQ(selected, bits >= 1 && bits <= 32) << bits;
            EXPECT_EQ(conversion.frameSize, selected ? (bits + 7) / 8 : 8) << bits;
            EXPECT_EQ(conversion.getFormat() == NumberFormat::uint8, selected && bits <= 8) << bits;
            EXPECT_EQ(conversion.bigEndian, selected ? bits > 8 && bigEndian : true) << bits;
        }
}

TEST(NumberFormatConversion, unknownFormatsKeepTheFunctions) {
    EXPECT_THROW(NumberFormatConversion().convertFromSignal32(Signal32(1, 1), nullptr),
                 std::bad_function_call);
    for (const int unknown : {-1, 7, 1000}) {
        EXPECT_EQ(NumberFormatConversion::getFrameSize(NumberFormat(unknown)), -1);
        EXPECT_EQ(NumberFormatConversion::getNumberOfBitsPerSample(NumberFormat(unknown)), -1);
        NumberFormatConversion conversion;
        conversion.setFormat(NumberFormat::int16, true);
        EXPECT_EQ(NumberFormatConversion::getNumberOfBitsPerSample(conversion.getFormat()), 16);
        conversion.setFormat(NumberFormat(unknown), false);
        EXPECT_EQ(conversion.frameSize, 0);
        const std::uint8_t half[] = {0x40, 0x00};
        float value = 0.0f;
        conversion.toFloat(half, &value, 1, 1);
        EXPECT_EQ(value, 0.5f);
    }
}

TEST(NumberFormatConversion, bytesReverse) {
    for (int n = -1; n <= 9; ++n) {
        const Bytes in = randomBytes(10, 6);
        Bytes out(10, 0xee), expected = out;
        NumberFormatConversion::reverseByteOrder(in.data(), out.data(), n);
        if (n > 0) std::reverse_copy(in.begin(), in.begin() + n, expected.begin());
        EXPECT_EQ(out, expected) << n;
    }
}

}  // namespace
}  // namespace zevrant
