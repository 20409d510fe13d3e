#include "DspCore/PackedFormats.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "simd/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "DspCore/PackedFormats.cpp"
#include "hwy/foreach_target.h"  // from here on once per instruction set

#include "hwy/highway.h"
#include "simd/Dispatch.h"
#include "simd/Samples-inl.h"
#include "simd/VectorMath-inl.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::HWY_NAMESPACE {
namespace {

using namespace zevrant::simd::HWY_NAMESPACE;

// Encoders round first and let the conversions to integers and to smaller integers limit: the limits are
// integers, so that is the same as to limit first.
//
// The formats. Each converts the lanes of its tag at once; numOfSpareBytes is how far behind its last
// sample a step reads or writes. decodeEverySecond, where there is one, reads twice as far.

// x * 2^31 is exact in float, so this is what the product in double gives.
template <class D, class V = hn::Vec<D>>
HWY_INLINE hn::Vec<hn::RebindToSigned<D>> toFullScale(D d, V x) {
    return nearestInt(d, hn::Mul(x, hn::Set(d, 0x1p31f)));
}

template <class D, class V>
HWY_INLINE hn::Vec<D> fromFullScale(D d, V v) {
    return hn::Mul(hn::ConvertTo(d, v), hn::Set(d, 0x1p-31f));
}

struct Uint8 {
    using Tag = hn::ScalableTag<float>;
    static constexpr std::size_t numOfBytes = 1, numOfSpareBytes = 0;

    static HWY_INLINE hn::Vec<Tag> decode(Tag d, const std::uint8_t* source) {
        const hn::RebindToSigned<Tag> di;
        const auto v = hn::PromoteTo(di, loadSamples<std::uint8_t, false>(d, source));
        return hn::Mul(hn::ConvertTo(d, hn::Sub(v, hn::Set(di, 127))), hn::Set(d, 0x1p-7f));
    }

    // x * 128 is exact, so the sum is that of a fused multiply-add on every processor.
    static HWY_INLINE void encode(Tag d, hn::Vec<Tag> x, std::uint8_t* destination) {
        const auto product = hn::MulAdd(x, hn::Set(d, 128.0f), hn::Set(d, 127.0f));
        // Not every processor narrows to unsigned bytes from more than 16 bits.
        const auto v = nearestInt(d, hn::Min(product, hn::Set(d, 255.0f)));
        storeSamples<false>(hn::DemoteTo(hn::Rebind<std::uint8_t, Tag>(), v), destination);
    }
};

// int8 and int16
template <class T, bool bigEndian>
struct SmallInteger {
    using Tag = hn::ScalableTag<float>;
    static constexpr std::size_t numOfBytes = sizeof(T), numOfSpareBytes = 0;
    static constexpr float scale = sizeof(T) == 1 ? 0x1p7f : 0x1p15f;

    static HWY_INLINE hn::Vec<Tag> decode(Tag d, const std::uint8_t* source) {
        const auto v = hn::PromoteTo(hn::RebindToSigned<Tag>(), loadSamples<T, bigEndian>(d, source));
        return hn::Mul(hn::ConvertTo(d, v), hn::Set(d, 1.0f / scale));
    }

    static HWY_INLINE hn::Vec<Tag> decodeEverySecond(Tag d,
                                                     const std::uint8_t* source) requires(sizeof(T) == 2) {
        const auto v = loadEverySecondOf16Bits<bigEndian>(hn::RebindToSigned<Tag>(), source);
        return hn::Mul(hn::ConvertTo(d, v), hn::Set(d, 1.0f / scale));
    }

    static HWY_INLINE void encode(Tag d, hn::Vec<Tag> x, std::uint8_t* destination) {
        const auto v = nearestInt(d, hn::Mul(x, hn::Set(d, scale)));
        storeSamples<bigEndian>(hn::DemoteTo(hn::Rebind<T, Tag>(), v), destination);
    }
};

template <bool bigEndian>
struct Int32 {
    using Tag = hn::ScalableTag<float>;
    static constexpr std::size_t numOfBytes = 4, numOfSpareBytes = 0;

    static HWY_INLINE hn::Vec<Tag> decode(Tag d, const std::uint8_t* source) {
        return fromFullScale(d, loadSamples<std::int32_t, bigEndian>(d, source));
    }

    static HWY_INLINE hn::Vec<Tag> decodeEverySecond(Tag d, const std::uint8_t* source) {
        return fromFullScale(d, loadEverySecondSample<std::int32_t, bigEndian>(d, source));
    }

    static HWY_INLINE void encode(Tag d, hn::Vec<Tag> x, std::uint8_t* destination) {
        storeSamples<bigEndian>(toFullScale(d, x), destination);
    }
};

template <bool bigEndian>
struct Int24 {
    using Tag = hn::CappedTag<float, 4>;
    static constexpr std::size_t numOfBytes = 3, numOfSpareBytes = kSpareBytesOf24Bits;

    static HWY_INLINE hn::Vec<Tag> decode(Tag d, const std::uint8_t* source) {
        return fromFullScale(d, load24Bits<bigEndian>(hn::RebindToSigned<Tag>(), source));
    }

    static HWY_INLINE void encode(Tag d, hn::Vec<Tag> x, std::uint8_t* destination) {
        store24Bits<bigEndian>(toFullScale(d, x), destination);
    }
};

template <bool bigEndian>
struct Float32 {
    using Tag = hn::ScalableTag<float>;
    static constexpr std::size_t numOfBytes = 4, numOfSpareBytes = 0;

    static HWY_INLINE hn::Vec<Tag> decode(Tag d, const std::uint8_t* source) {
        return loadSamples<float, bigEndian>(d, source);
    }

    static HWY_INLINE hn::Vec<Tag> decodeEverySecond(Tag d, const std::uint8_t* source) {
        return loadEverySecondSample<float, bigEndian>(d, source);
    }

    static HWY_INLINE void encode(Tag, hn::Vec<Tag> x, std::uint8_t* destination) {
        storeSamples<bigEndian>(x, destination);
    }
};

template <bool bigEndian>
struct Float64 {
    using Tag = hn::Rebind<float, hn::ScalableTag<double>>;
    static constexpr std::size_t numOfBytes = 8, numOfSpareBytes = 0;

    static HWY_INLINE hn::Vec<Tag> decode(Tag d, const std::uint8_t* source) {
        return narrowTo(d, loadSamples<double, bigEndian>(d, source));
    }

    static HWY_INLINE void encode(Tag, hn::Vec<Tag> x, std::uint8_t* destination) {
        storeSamples<bigEndian>(hn::PromoteTo(hn::ScalableTag<double>(), x), destination);
    }
};

// A row: whole steps as long as the memory of the row covers them, and the rest through a buffer that
// holds one step, so that the same code converts every sample.

template <class Format>
void decodeRow(const void* source, float* destination, std::size_t numOfSamples) {
    const typename Format::Tag d;
    constexpr std::size_t numOfLanes = hn::MaxLanes(d), numOfBytes = Format::numOfBytes;
    constexpr std::size_t stepBytes = numOfLanes * numOfBytes + Format::numOfSpareBytes;
    const auto* in = static_cast<const std::uint8_t*>(source);
    const std::size_t size = numOfSamples * numOfBytes;
    std::size_t i = 0;
    for (; i * numOfBytes + stepBytes <= size; i += numOfLanes)
        hn::StoreU(Format::decode(d, in + i * numOfBytes), d, destination + i);
    for (; i < numOfSamples; i += numOfLanes) {
        const std::size_t count = std::min(numOfLanes, numOfSamples - i);
        HWY_ALIGN std::uint8_t samples[stepBytes] = {};
        HWY_ALIGN float values[numOfLanes];
        std::memcpy(samples, in + i * numOfBytes, count * numOfBytes);
        hn::Store(Format::decode(d, samples), d, values);
        std::memcpy(destination + i, values, count * sizeof(float));
    }
}

template <class Format>
void encodeRow(const float* source, void* destination, std::size_t numOfSamples) {
    const typename Format::Tag d;
    constexpr std::size_t numOfLanes = hn::MaxLanes(d), numOfBytes = Format::numOfBytes;
    constexpr std::size_t stepBytes = numOfLanes * numOfBytes + Format::numOfSpareBytes;
    auto* out = static_cast<std::uint8_t*>(destination);
    const std::size_t size = numOfSamples * numOfBytes;
    std::size_t i = 0;
    for (; i * numOfBytes + stepBytes <= size; i += numOfLanes)
        Format::encode(d, hn::LoadU(d, source + i), out + i * numOfBytes);
    for (; i < numOfSamples; i += numOfLanes) {
        const std::size_t count = std::min(numOfLanes, numOfSamples - i);
        HWY_ALIGN float values[numOfLanes] = {};
        HWY_ALIGN std::uint8_t samples[stepBytes];
        std::memcpy(values, source + i, count * sizeof(float));
        Format::encode(d, hn::Load(d, values), samples);
        std::memcpy(out + i * numOfBytes, samples, count * numOfBytes);
    }
}

// Every second sample. A step reads the sample behind its last one too, which at the end of a row may not
// be there; what whole steps leave over is gathered into packed samples.
template <class Format>
void decodeEverySecond(const void* source, float* destination, std::size_t numOfSamples) {
    const typename Format::Tag d;
    constexpr std::size_t numOfLanes = hn::MaxLanes(d), numOfBytes = Format::numOfBytes;
    const auto* in = static_cast<const std::uint8_t*>(source);
    std::size_t i = 0;
    for (; i + numOfLanes < numOfSamples; i += numOfLanes)
        hn::StoreU(Format::decodeEverySecond(d, in + 2 * i * numOfBytes), d, destination + i);
    const std::size_t count = std::min(numOfLanes, numOfSamples - i);
    std::uint8_t rest[numOfLanes * numOfBytes];
    for (std::size_t k = 0; k < count; ++k)
        std::memcpy(rest + k * numOfBytes, in + 2 * (i + k) * numOfBytes, numOfBytes);
    decodeRow<Format>(rest, destination + i, count);
}

template <class Format>
PackedFormat functionsOf() {
    PackedFormat functions{decodeRow<Format>, encodeRow<Format>, nullptr};
    if constexpr (requires(typename Format::Tag d) { Format::decodeEverySecond(d, nullptr); })
        functions.decodeEverySecond = decodeEverySecond<Format>;
    return functions;
}

PackedFormat choosePackedFormat(NumberFormat format, bool bigEndian) {
    switch (format) {
        case NumberFormat::uint8:
            return functionsOf<Uint8>();
        case NumberFormat::int8:
            return functionsOf<SmallInteger<std::int8_t, false>>();
        case NumberFormat::int16:
            return bigEndian ? functionsOf<SmallInteger<std::int16_t, true>>()
                             : functionsOf<SmallInteger<std::int16_t, false>>();
        case NumberFormat::int24:
            return bigEndian ? functionsOf<Int24<true>>() : functionsOf<Int24<false>>();
        case NumberFormat::int32:
            return bigEndian ? functionsOf<Int32<true>>() : functionsOf<Int32<false>>();
        case NumberFormat::float32:
            return bigEndian ? functionsOf<Float32<true>>() : functionsOf<Float32<false>>();
        case NumberFormat::float64:
            return bigEndian ? functionsOf<Float64<true>>() : functionsOf<Float64<false>>();
    }
    return {};
}

}  // namespace
}  // namespace zevrant::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zevrant {

ZEVRANT_DISPATCH_TABLE(choosePackedFormat);

PackedFormat getPackedFormat(NumberFormat format, bool bigEndian) {
    return ZEVRANT_DISPATCH(choosePackedFormat)(format, bigEndian);
}

}  // namespace zevrant

#endif  // HWY_ONCE
