#include "DspCore/NumberFormatConversion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "DspCore/simd/TargetOverride.h"

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
    switch (c.format) {
        case NumberFormat::uint8:
            return static_cast<float>((static_cast<long double>(raw) - 127) / 128);
        case NumberFormat::int8:
            return static_cast<float>(static_cast<std::int8_t>(raw) / 128.0L);
        case NumberFormat::int16:
            return static_cast<float>(static_cast<std::int16_t>(raw) / 32768.0L);
        case NumberFormat::int24:
            return static_cast<float>(static_cast<std::int32_t>(raw << 8) / 0x1p31L);
        case NumberFormat::int32:
            return static_cast<float>(static_cast<std::int32_t>(raw) / 0x1p31L);
        case NumberFormat::float32:
            return std::bit_cast<float>(static_cast<std::uint32_t>(raw));
        case NumberFormat::float64:
            return static_cast<float>(std::bit_cast<double>(raw));
    }
    return 0.0f;
}

void encodeOne(const NumberFormatConversion& c, float x, std::uint8_t* bytes) {
    const auto integer = [](long double product, long double low, long double high) {
        return static_cast<std::uint64_t>(std::llrint(std::clamp(product, low, high)));  // ties to even
    };
    const long double exact = x;
    std::uint64_t raw = 0;
    switch (c.format) {
        case NumberFormat::uint8:
            raw = integer(std::fma(x, 128.0f, 127.0f), 0, 255);
            break;
        case NumberFormat::int8:
            raw = integer(exact * 128, -128, 127);
            break;
        case NumberFormat::int16:
            raw = integer(exact * 32768, -32768, 32767);
            break;
        case NumberFormat::int24:
            raw = integer(exact * 0x1p31L, -0x1p31L, 0x1p31L - 1) >> 8;
            break;
        case NumberFormat::int32:
            raw = integer(exact * 0x1p31L, -0x1p31L, 0x1p31L - 1);
            break;
        case NumberFormat::float32:
            raw = std::bit_cast<std::uint32_t>(x);
            break;
        case NumberFormat::float64:
            raw = std::bit_cast<std::uint64_t>(static_cast<double>(x));
            break;
    }
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
    std::mt19937 generator(1);
    std::uniform_real_distribution<float> uniform(-1.2f, 1.2f);
    for (int i = 0; i < 3000; ++i) values.push_back(uniform(generator));
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

// Every code of 8 and 16 bits, and many of 24; 32-bit codes keep what a float can hold of them.
TEST(NumberFormatConversion, codesComeBack) {
    forEveryFormat([](const NumberFormatConversion& conversion) {
        const int size = conversion.frameSize;
        if (conversion.format > NumberFormat::int24) return;
        const int n = size == 3 ? 100003 : 1 << (8 * size);
        std::mt19937 generator(4);
        std::uniform_int_distribution<std::uint32_t> codes(0, (1 << 24) - 1);
        Bytes raw(static_cast<std::size_t>(n * size)), back(raw.size());
        for (int i = 0; i < n; ++i)
            writeInteger(size == 3 ? codes(generator) : static_cast<std::uint32_t>(i),
                         &raw[static_cast<std::size_t>(i * size)], size, false);
        std::vector<float> values(static_cast<std::size_t>(n));
        conversion.toFloat(raw.data(), values.data(), n, 1);
        conversion.fromFloat(values.data(), back.data(), n, 1);
        EXPECT_EQ(back, raw);
    });
}

Bytes encoded(NumberFormat format, bool bigEndian, const std::vector<float>& values) {
    NumberFormatConversion conversion;
    conversion.setFormat(format, bigEndian);
    Bytes bytes(values.size() * static_cast<std::size_t>(conversion.frameSize));
    conversion.fromFloat(values.data(), bytes.data(), static_cast<int>(values.size()), 1);
    return bytes;
}

TEST(NumberFormatConversion, wellKnownCodes) {
    EXPECT_EQ(encoded(NumberFormat::uint8, false, {0.0f, 1.0f, -1.0f, 1.0f / 128}),
              (Bytes{127, 255, 0, 128}));
    EXPECT_EQ(encoded(NumberFormat::int16, true, {1.0f, -1.0f, 0.5f}),
              (Bytes{0x7f, 0xff, 0x80, 0x00, 0x40, 0x00}));
    EXPECT_EQ(encoded(NumberFormat::int24, true, {0.5f}), (Bytes{0x40, 0x00, 0x00}));
    // Just below a step of 24 bits: dropping the low byte goes down, and away from zero below it.
    EXPECT_EQ(encoded(NumberFormat::int24, true, {0x1.fep-23f, -0x1p-31f}),
              (Bytes{0, 0, 1, 0xff, 0xff, 0xff}));
    EXPECT_EQ(encoded(NumberFormat::float32, true, {1.0f}), (Bytes{0x3f, 0x80, 0, 0}));
    // Ties go to even.
    EXPECT_EQ(encoded(NumberFormat::int8, false, {0.5f / 128, 1.5f / 128, -0.5f / 128}), (Bytes{0, 2, 0}));
}

TEST(NumberFormatConversion, notANumberDoesNoHarm) {
    const std::vector<float> values(37, std::numeric_limits<float>::quiet_NaN());
    for (const Format& f : kFormats) encoded(f.format, f.bigEndian, values);
}

// Three channels, through the interleaved and the planar form, to and from signals.
TEST(NumberFormatConversion, signalsTakeTheirChannelsFromTheirPlaces) {
    constexpr int numOfChannels = 3, n = 700;
    forEveryFormat([](const NumberFormatConversion& conversion) {
        const int size = conversion.frameSize;
        Bytes raw = randomSamples(conversion, numOfChannels * n, 0, 5);
        Signal32 signal(numOfChannels, n), planar(numOfChannels, n);
        const Signal32 shared = signal;
        conversion.convertToSignal32(raw.data(), signal);
        EXPECT_NE(shared.getReadChannelPtr(0), signal.getReadChannelPtr(0)) << "wrote into shared rows";

        std::vector<Bytes> planes(numOfChannels);
        for (int c = 0; c < numOfChannels; ++c)
            for (int i = 0; i < n; ++i) {
                const std::uint8_t* sample = &raw[static_cast<std::size_t>((i * numOfChannels + c) * size)];
                ASSERT_EQ(signal.getReadChannelPtr(c)[i], decodeOne(conversion, sample));
                planes[static_cast<std::size_t>(c)].insert(planes[static_cast<std::size_t>(c)].end(), sample,
                                                           sample + size);
            }
        void* pointers[] = {planes[0].data(), planes[1].data(), planes[2].data()};
        conversion.convertToSignal32(pointers, planar);
        for (int c = 0; c < numOfChannels; ++c)
            ASSERT_EQ(
                std::memcmp(planar.getReadChannelPtr(c), signal.getReadChannelPtr(c), n * sizeof(float)), 0);

        Bytes back(raw.size());
        conversion.convertFromSignal32(signal, back.data());
        for (int i = 0; i < numOfChannels * n; ++i) {
            std::uint8_t expected[8];
            encodeOne(conversion, signal.getReadChannelPtr(i % numOfChannels)[i / numOfChannels], expected);
            ASSERT_EQ(std::memcmp(&back[static_cast<std::size_t>(i * size)], expected,
                                  static_cast<std::size_t>(size)),
                      0)
                << i;
        }
    });
}

TEST(NumberFormatConversion, pcmSizesSelectTheirFormat) {
    for (int bits = -20; bits <= 80; ++bits)
        for (const bool bigEndian : {false, true}) {
            NumberFormatConversion conversion;
            conversion.setFormat(NumberFormat::float64, true);
            const bool selected = conversion.setPcmFormat(bits, bigEndian);
            ASSERT_EQ(selected, bits >= 1 && bits <= 32) << bits;
            const NumberFormat expected = !selected    ? NumberFormat::float64
                                          : bits <= 8  ? NumberFormat::uint8
                                          : bits <= 16 ? NumberFormat::int16
                                          : bits <= 24 ? NumberFormat::int24
                                                       : NumberFormat::int32;
            EXPECT_EQ(conversion.getFormat(), expected) << bits;
            EXPECT_EQ(conversion.bigEndian, selected ? bits > 8 && bigEndian : true) << bits;
            EXPECT_EQ(conversion.frameSize, NumberFormatConversion::getFrameSize(expected)) << bits;
        }
    NumberFormatConversion conversion;
    EXPECT_FALSE(conversion.setPcmFormat(INT32_MAX, false));
    EXPECT_FALSE(conversion.setPcmFormat(INT32_MIN, false));
}

TEST(NumberFormatConversion, unknownFormatsKeepTheFunctions) {
    for (const int unknown : {-1, 7, 1000}) {
        EXPECT_EQ(NumberFormatConversion::getFrameSize(NumberFormat(unknown)), -1);
        EXPECT_EQ(NumberFormatConversion::getNumberOfBitsPerSample(NumberFormat(unknown)), -1);
        NumberFormatConversion conversion;
        conversion.setFormat(NumberFormat::int16, true);
        conversion.setFormat(NumberFormat(unknown), false);
        EXPECT_EQ(conversion.frameSize, 0);
        EXPECT_EQ(conversion.getFormat(), unknown);
        EXPECT_FALSE(conversion.bigEndian);
        const std::uint8_t half[] = {0x40, 0x00};
        float value = 0.0f;
        conversion.toFloat(half, &value, 1, 1);
        EXPECT_EQ(value, 0.5f);
    }
    const int bits[] = {8, 8, 16, 24, 32, 32, 64};
    for (int format = 0; format <= 6; ++format) {
        EXPECT_EQ(NumberFormatConversion::getNumberOfBitsPerSample(NumberFormat(format)), bits[format]);
        EXPECT_EQ(NumberFormatConversion::getFrameSize(NumberFormat(format)), bits[format] / 8);
    }
}

TEST(NumberFormatConversion, aConversionNeedsAFormat) {
    NumberFormatConversion conversion;
    Signal32 signal(1, 1), empty;
    float memory = 0.0f;
    void* planes[] = {&memory};
    EXPECT_THROW(conversion.convertToSignal32(&memory, signal), std::bad_function_call);
    EXPECT_THROW(conversion.convertToSignal32(planes, signal), std::bad_function_call);
    EXPECT_THROW(conversion.convertFromSignal32(signal, &memory), std::bad_function_call);
    conversion.convertToSignal32(&memory, empty);
    conversion.convertToSignal32(planes, empty);
    conversion.convertFromSignal32(empty, &memory);
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
