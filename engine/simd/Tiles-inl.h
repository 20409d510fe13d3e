// Tiles: a few rows of a few vectors each that live in registers, loaded from rows that lie step apart and
// stored to such rows. Compiled once per instruction set, like all that includes it.
#if defined(ZEVRANT_SIMD_TILES_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef ZEVRANT_SIMD_TILES_INL_H
#undef ZEVRANT_SIMD_TILES_INL_H
#else
#define ZEVRANT_SIMD_TILES_INL_H
#endif

#include <algorithm>
#include <array>
#include <cstddef>

#include "hwy/cache_control.h"
#include "hwy/highway.h"

// A loop whose count is known and whose vectors are to live in registers has to be laid out in full.
// Sanitizers would check each copy of its body, which takes minutes to compile and finds no more.
#if !defined(ZEVRANT_UNROLL)
#if defined(ZEVRANT_SANITIZED)
#define ZEVRANT_UNROLL
#elif defined(__clang__)
#define ZEVRANT_UNROLL _Pragma("clang loop unroll(full)")
#else
#define ZEVRANT_UNROLL _Pragma("GCC unroll 32")
#endif
#endif

HWY_BEFORE_NAMESPACE();
namespace zevrant::simd::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

using Floats = hn::ScalableTag<float>;
using Vector = hn::Vec<Floats>;

inline constexpr std::size_t kNumOfLanes = hn::MaxLanes(Floats());

// The largest tiles of sums, by their vectors per row: they fill the registers but for those of one term's
// weights and input. kSliding...: tiles that keep the weights of some taps in registers as well.
#if HWY_TARGET == HWY_AVX3 || HWY_ARCH_ARM_A64
inline constexpr int kMaxVectors = 4;
inline constexpr std::array<int, kMaxVectors> kMaxRows = {24, 12, 8, 6};
inline constexpr int kSlidingRows = 8, kSlidingVectors = 2;
#else
inline constexpr int kMaxVectors = 2;
inline constexpr std::array<int, kMaxVectors> kMaxRows = {12, 6};
inline constexpr int kSlidingRows = 8, kSlidingVectors = 1;
#endif

// Whether a vector of half precision is widened in one instruction.
inline constexpr bool kWidensHalves = HWY_TARGET != HWY_SCALAR && HWY_TARGET != HWY_SSE4;

// The first count lanes; the others are zero.
HWY_INLINE Vector loadFirst(const float* in, std::size_t count) {
    const Floats d;
    if (count == kNumOfLanes) return hn::LoadU(d, in);
#if HWY_MEM_OPS_MIGHT_FAULT
    HWY_ALIGN float lanes[kNumOfLanes] = {};
    std::copy_n(in, count, lanes);
    return hn::Load(d, lanes);
#else
    return hn::MaskedLoad(hn::FirstN(d, count), d, in);
#endif
}

template <bool isPartial>
HWY_INLINE Vector loadLanes(const float* in, std::size_t count) {
    if constexpr (isPartial) return loadFirst(in, count);
    return hn::LoadU(Floats(), in);
}

HWY_INLINE void storeFirst(Vector v, float* out, std::size_t count) {
    const Floats d;
    if (count == kNumOfLanes) return hn::StoreU(v, d, out);
#if HWY_MEM_OPS_MIGHT_FAULT
    HWY_ALIGN float lanes[kNumOfLanes];
    hn::Store(v, d, lanes);
    std::copy_n(lanes, count, out);
#else
    hn::BlendedStore(v, hn::FirstN(d, count), d, out);
#endif
}

// The pointer itself, as one number: g++ otherwise takes the addresses of a tile apart and keeps more of
// their parts than it has registers.
template <class Value>
HWY_INLINE Value* asOneNumber(Value* pointer) {
#if HWY_COMPILER_GCC
    asm("" : "+r"(pointer));
#endif
    return pointer;
}

// The beginnings of rows that lie step apart. They are reached from every fourth one, which costs fewer
// address registers than one for each.
template <class Value, int Rows>
class RowPointers {
  public:
    HWY_INLINE RowPointers(Value* first, std::ptrdiff_t step) : steps{0, step, 2 * step, 3 * step} {
        ZEVRANT_UNROLL
        for (int b = 0; b < kNumOfBases; ++b, first += 4 * step) bases[b] = asOneNumber(first);
    }
    HWY_INLINE Value* operator[](int row) const { return bases[row / 4] + steps[row % 4]; }
    HWY_INLINE void operator++() {
        ZEVRANT_UNROLL
        for (int b = 0; b < kNumOfBases; ++b) ++bases[b];
    }

  private:
    static constexpr int kNumOfBases = (Rows + 3) / 4;
    Value* bases[kNumOfBases];
    std::ptrdiff_t steps[4];
};

template <int Rows, int Vectors>
using Tile = Vector[Rows][Vectors];

template <int Rows, int Vectors>
HWY_INLINE void zeroTile(Tile<Rows, Vectors>& tile) {
    ZEVRANT_UNROLL
    for (int row = 0; row < Rows; ++row) {
        ZEVRANT_UNROLL
        for (int v = 0; v < Vectors; ++v) tile[row][v] = hn::Zero(Floats());
    }
}

// The last vector of each row has only the first lanes.
template <int Rows, int Vectors>
HWY_INLINE void loadTile(const float* in, std::ptrdiff_t step, std::size_t lanes, Tile<Rows, Vectors>& tile) {
    const Floats d;
    constexpr int last = Vectors - 1;
    const RowPointers<const float, Rows> rows(in, step);
    ZEVRANT_UNROLL
    for (int row = 0; row < Rows; ++row) {
        ZEVRANT_UNROLL
        for (int v = 0; v < last; ++v) tile[row][v] = hn::LoadU(d, rows[row] + v * kNumOfLanes);
    }
    if (lanes == kNumOfLanes) {
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row) tile[row][last] = hn::LoadU(d, rows[row] + last * kNumOfLanes);
    } else {
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row)
            tile[row][last] = loadFirst(rows[row] + last * kNumOfLanes, lanes);
    }
}

// What sums start from: rows that lie step apart, or zeros for a null pointer.
template <int Rows, int Vectors>
HWY_INLINE void startTile(const float* first, std::ptrdiff_t step, std::size_t lanes,
                          Tile<Rows, Vectors>& tile) {
    if (first)
        loadTile<Rows, Vectors>(first, step, lanes, tile);
    else
        zeroTile<Rows, Vectors>(tile);
}

// Asks for the place of a tile that is going to be stored, so that its stores do not hold up the loads of the
// next.
template <int Rows, int Vectors>
HWY_INLINE void prefetchTile(const float* out, std::ptrdiff_t step) {
    const RowPointers<const float, Rows> rows(out, step);
    ZEVRANT_UNROLL
    for (int row = 0; row < Rows; ++row) {
        ZEVRANT_UNROLL
        for (int v = 0; v < Vectors; ++v) hwy::Prefetch(rows[row] + v * kNumOfLanes);
    }
}

template <int Rows, int Vectors>
HWY_INLINE void storeTile(const Tile<Rows, Vectors>& tile, float* out, std::ptrdiff_t step,
                          std::size_t lanes) {
    const Floats d;
    constexpr int last = Vectors - 1;
    const RowPointers<float, Rows> rows(out, step);
    ZEVRANT_UNROLL
    for (int row = 0; row < Rows; ++row) {
        ZEVRANT_UNROLL
        for (int v = 0; v < last; ++v) hn::StoreU(tile[row][v], d, rows[row] + v * kNumOfLanes);
    }
    if (lanes == kNumOfLanes) {
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row) hn::StoreU(tile[row][last], d, rows[row] + last * kNumOfLanes);
    } else {
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row)
            storeFirst(tile[row][last], rows[row] + last * kNumOfLanes, lanes);
    }
}

// sums = tile + sums
template <int Rows, int Vectors>
HWY_INLINE void addTile(const Tile<Rows, Vectors>& tile, Tile<Rows, Vectors>& sums) {
    ZEVRANT_UNROLL
    for (int row = 0; row < Rows; ++row) {
        ZEVRANT_UNROLL
        for (int v = 0; v < Vectors; ++v) sums[row][v] = hn::Add(tile[row][v], sums[row][v]);
    }
}

template <int Rows, int Vectors>
HWY_INLINE void clearTile(float* out, std::ptrdiff_t step, std::size_t lanes) {
    Tile<Rows, Vectors> zeros;
    zeroTile<Rows, Vectors>(zeros);
    storeTile<Rows, Vectors>(zeros, out, step, lanes);
}

}  // namespace zevrant::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
