// Vectors of samples from and to memory at any address, in either byte order. Compiled once per instruction
// set, like all that includes it.
#if defined(ZEVRANT_SIMD_SAMPLES_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef ZEVRANT_SIMD_SAMPLES_INL_H
#undef ZEVRANT_SIMD_SAMPLES_INL_H
#else
#define ZEVRANT_SIMD_SAMPLES_INL_H
#endif

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::simd::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

static_assert(std::endian::native == std::endian::little);

// loadSamples             one sample of type T for each lane of the tag
// loadEverySecondSample   the same of every second one, for samples of four bytes; reads twice as far
// loadEverySecondOf16Bits the same for samples of two bytes, in lanes of four
// load24Bits, store24Bits samples of three bytes, as the upper ones of a lane; they read and write
//                         kSpareBytesOf24Bits behind the last one
#if HWY_TARGET == HWY_SCALAR

inline constexpr std::size_t kSpareBytesOf24Bits = 0;

template <class T>
HWY_INLINE T reverseBytes(T value) {
    std::uint8_t bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    std::reverse(bytes, bytes + sizeof(T));
    std::memcpy(&value, bytes, sizeof(T));
    return value;
}

template <class T, bool bigEndian, class D>
HWY_INLINE auto loadSamples(D, const std::uint8_t* source) {
    T value;
    std::memcpy(&value, source, sizeof(T));
    return hn::Set(hn::Rebind<T, D>(), bigEndian ? reverseBytes(value) : value);
}

template <bool bigEndian, class V>
HWY_INLINE void storeSamples(V samples, std::uint8_t* destination) {
    const auto value = hn::GetLane(samples);
    const auto ordered = bigEndian ? reverseBytes(value) : value;
    std::memcpy(destination, &ordered, sizeof(value));
}

template <class T, bool bigEndian, class D>
HWY_INLINE auto loadEverySecondSample(D d, const std::uint8_t* source) {
    return loadSamples<T, bigEndian>(d, source);
}

template <bool bigEndian, class D>
HWY_INLINE hn::Vec<D> loadEverySecondOf16Bits(D d, const std::uint8_t* source) {
    return hn::PromoteTo(d, loadSamples<std::int16_t, bigEndian>(d, source));
}

template <bool bigEndian, class D>
HWY_INLINE hn::Vec<D> load24Bits(D d, const std::uint8_t* source) {
    std::uint8_t bytes[4] = {};
    std::memcpy(bytes + (bigEndian ? 0 : 1), source, 3);
    return loadSamples<std::int32_t, bigEndian>(d, bytes);
}

template <bool bigEndian, class V>
HWY_INLINE void store24Bits(V samples, std::uint8_t* destination) {
    std::uint8_t bytes[4];
    storeSamples<bigEndian>(samples, bytes);
    std::memcpy(destination, bytes + (bigEndian ? 0 : 1), 3);
}

#else

inline constexpr std::size_t kSpareBytesOf24Bits = 4;

template <std::size_t numOfBytes, class D>
HWY_INLINE auto reverseBytes(D d, hn::Vec<D> bytes) {
    HWY_ALIGN std::uint8_t order[16];
    for (std::size_t i = 0; i < 16; ++i)
        order[i] = static_cast<std::uint8_t>(i - i % numOfBytes + numOfBytes - 1 - i % numOfBytes);
    return hn::TableLookupBytes(bytes, hn::LoadDup128(d, order));
}

template <class T, bool bigEndian, class D>
HWY_INLINE auto loadSamples(D, const std::uint8_t* source) {
    const hn::Rebind<T, D> d;
    const hn::Repartition<std::uint8_t, decltype(d)> bytes;
    auto samples = hn::LoadU(bytes, source);
    if constexpr (bigEndian) samples = reverseBytes<sizeof(T)>(bytes, samples);
    return hn::BitCast(d, samples);
}

template <bool bigEndian, class V>
HWY_INLINE void storeSamples(V samples, std::uint8_t* destination) {
    const hn::DFromV<V> d;
    const hn::Repartition<std::uint8_t, decltype(d)> bytes;
    auto ordered = hn::BitCast(bytes, samples);
    if constexpr (bigEndian) ordered = reverseBytes<sizeof(hn::TFromV<V>)>(bytes, ordered);
    hn::StoreU(ordered, bytes, destination);
}

template <class T, bool bigEndian, class D>
HWY_INLINE auto loadEverySecondSample(D d, const std::uint8_t* source) {
    const hn::Rebind<T, D> samples;
    const auto first = loadSamples<T, bigEndian>(d, source);
    return hn::ConcatEven(samples, loadSamples<T, bigEndian>(d, source + hn::MaxLanes(d) * sizeof(T)), first);
}

// A pair of samples fills a lane, of which the first one becomes the upper half.
template <bool bigEndian, class D>
HWY_INLINE hn::Vec<D> loadEverySecondOf16Bits(D d, const std::uint8_t* source) {
    auto pairs = loadSamples<std::int32_t, bigEndian>(d, source);
    if constexpr (!bigEndian) pairs = hn::ShiftLeft<16>(pairs);
    return hn::ShiftRight<16>(pairs);
}

// Four samples, the twelve bytes of which are spread over, or gathered from, a block of sixteen.
template <bool bigEndian, class D>
HWY_INLINE hn::Vec<D> load24Bits(D d, const std::uint8_t* source) {
    const hn::Repartition<std::uint8_t, D> bytes;
    HWY_ALIGN static constexpr std::uint8_t little[16] = {128, 0, 1, 2, 128, 3, 4,  5,
                                                          128, 6, 7, 8, 128, 9, 10, 11};
    HWY_ALIGN static constexpr std::uint8_t big[16] = {128, 2, 1, 0, 128, 5,  4,  3,
                                                       128, 8, 7, 6, 128, 11, 10, 9};
    const auto order = hn::Load(bytes, bigEndian ? big : little);
    return hn::BitCast(d, hn::TableLookupBytesOr0(hn::LoadU(bytes, source), order));
}

template <bool bigEndian, class V>
HWY_INLINE void store24Bits(V samples, std::uint8_t* destination) {
    const hn::Repartition<std::uint8_t, hn::DFromV<V> > bytes;
    HWY_ALIGN static constexpr std::uint8_t little[16] = {1,  2,  3,  5,  6,   7,   9,   10,
                                                          11, 13, 14, 15, 128, 128, 128, 128};
    HWY_ALIGN static constexpr std::uint8_t big[16] = {3, 2,  1,  7,  6,   5,   11,  10,
                                                       9, 15, 14, 13, 128, 128, 128, 128};
    const auto order = hn::Load(bytes, bigEndian ? big : little);
    hn::StoreU(hn::TableLookupBytesOr0(hn::BitCast(bytes, samples), order), bytes, destination);
}

#endif

}  // namespace zevrant::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
