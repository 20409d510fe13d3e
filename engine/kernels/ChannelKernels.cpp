#include "kernels/ChannelKernels.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "kernels/EvenSplit.h"
#include "simd/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/ChannelKernels.cpp"
#include "hwy/foreach_target.h"  // from here on once per instruction set

#include "kernels/SliceStoring-inl.h"
#include "simd/Dispatch.h"
#include "simd/Tiles-inl.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {
namespace {

using namespace zevrant::simd::HWY_NAMESPACE;

// Rows output frequencies from f times Vectors vectors of channels. The kernel is little and the slices are
// much, so the loads set the pace: the rows that the next tile begins with are asked for in advance.
template <int Rows, int Vectors, bool isPartial>
void sumChannels(const Convolution& shape, const float* const* slices, const float* weights,
                 const float* first, std::ptrdiff_t firstStep, float* out, std::ptrdiff_t f,
                 std::size_t lanes) {
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
    const std::ptrdiff_t numOfChannels = shape.numOfOutputs, stride = shape.frequencyStride;
    const std::ptrdiff_t p = shape.start + f * stride, step = stride * numOfChannels;
    const std::ptrdiff_t lastRow = p + (Rows - 1) * stride;

    Tile<Rows, Vectors> sums;
    startTile<Rows, Vectors>(first ? first + f * firstStep : nullptr, firstStep, lanes, sums);
    for (std::ptrdiff_t r = 0; r < shape.numOfSlices; ++r) {
        const float* slice = slices[r] + p * numOfChannels;
        const float* rows[Rows];
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row) rows[row] = slice + row * step;
        const float* next = slice + (shape.numOfTaps + (Rows - 1) * stride) * numOfChannels;
        for (std::ptrdiff_t k = 0, tap = 0; k < shape.numOfTaps; ++k, tap += numOfChannels) {
            Vector w[Vectors];
            ZEVRANT_UNROLL
            for (int v = 0; v < Vectors; ++v)
                w[v] = loadLanes<isPartial>(weights + tap + v * numOfLanes, lanes);
            if (p + k >= 0 && lastRow + k < shape.inputFrequencies) {
                ZEVRANT_UNROLL
                for (int row = 0; row < Rows; ++row) {
                    ZEVRANT_UNROLL
                    for (int v = 0; v < Vectors; ++v)
                        sums[row][v] =
                            hn::MulAdd(loadLanes<isPartial>(rows[row] + tap + v * numOfLanes, lanes), w[v],
                                       sums[row][v]);
                }
                continue;
            }
            ZEVRANT_UNROLL
            for (int row = 0; row < Rows; ++row) {
                const std::ptrdiff_t frequency = p + row * stride + k;
                if (frequency < 0 || frequency >= shape.inputFrequencies) continue;
                ZEVRANT_UNROLL
                for (int v = 0; v < Vectors; ++v)
                    sums[row][v] = hn::MulAdd(loadLanes<isPartial>(rows[row] + tap + v * numOfLanes, lanes),
                                              w[v], sums[row][v]);
            }
        }
        weights += shape.numOfTaps * numOfChannels;
        for (std::ptrdiff_t row = 0; row < Rows * stride; ++row) {
            ZEVRANT_UNROLL
            for (int v = 0; v < Vectors; ++v) hwy::Prefetch(next + row * numOfChannels + v * numOfLanes);
        }
    }
    storeTile<Rows, Vectors>(sums, out + f * numOfChannels, numOfChannels, lanes);
}

constexpr int kMaxChannelRows = 6;
using SumChannels = void (*)(const Convolution&, const float* const*, const float*, const float*,
                             std::ptrdiff_t, float*, std::ptrdiff_t, std::size_t);
using ChannelTiles = std::array<SumChannels, kMaxChannelRows>;

template <int Vectors, bool isPartial, int... Rows>
constexpr ChannelTiles listChannelTiles(std::integer_sequence<int, Rows...>) {
    return {sumChannels<Rows + 1, Vectors, isPartial>...};
}

constexpr auto kChannelRows = std::make_integer_sequence<int, kMaxChannelRows>();
constexpr ChannelTiles kPartialChannels = listChannelTiles<1, true>(kChannelRows);
constexpr ChannelTiles kOneChannelVector = listChannelTiles<1, false>(kChannelRows);
constexpr ChannelTiles kAllChannelVectors = listChannelTiles<kMaxVectors, false>(kChannelRows);
constexpr std::ptrdiff_t kMaxSlices = 32;  // taken at once; more go in turns

// The terms of one slice, whose weights stay in registers while an input vector is loaded once for all the
// rows that use it. Each row still meets its taps in their order. The input rows that no later tile loads are
// stored on their way where to is not null.
template <int Rows, int Taps, bool isStored>
HWY_INLINE void slideOverSlice(const float* HWY_RESTRICT in, const float* HWY_RESTRICT weights,
                               std::ptrdiff_t numOfChannels, float* HWY_RESTRICT to,
                               Tile<Rows, kSlidingVectors>& sums) {
    const Floats d;
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
    Vector w[Taps][kSlidingVectors];
    ZEVRANT_UNROLL
    for (int k = 0; k < Taps; ++k) {
        ZEVRANT_UNROLL
        for (int v = 0; v < kSlidingVectors; ++v)
            w[k][v] = hn::LoadU(d, weights + k * numOfChannels + v * numOfLanes);
    }
    const RowPointers<const float, Rows + Taps - 1> rows(in, numOfChannels);
    const RowPointers<float, Rows> places(to, isStored ? numOfChannels : 0);
    ZEVRANT_UNROLL
    for (int j = 0; j < Rows + Taps - 1; ++j) {
        ZEVRANT_UNROLL
        for (int v = 0; v < kSlidingVectors; ++v) {
            const Vector x = hn::LoadU(d, rows[j] + v * numOfLanes);
            if (isStored && j < Rows) hn::StoreU(x, d, places[j] + v * numOfLanes);
            ZEVRANT_UNROLL
            for (int k = 0; k < Taps; ++k)
                if (j >= k && j - k < Rows) sums[j - k][v] = hn::MulAdd(x, w[k][v], sums[j - k][v]);
        }
    }
}

// What the tiles inside the band share, for a stride of 1.
struct SlidingChannels {
    const float* const* slices;
    std::ptrdiff_t numOfSlices;  // 1 or more
    std::ptrdiff_t numOfChannels;
    std::ptrdiff_t start;
    const float* weights;
    const float* first;
    std::ptrdiff_t firstStep;
    float* out;
    float* to;     // where the last slice is stored on its way; may be null
    bool isAhead;  // whether places are asked for ahead of their stores
};

// Tiles of Rows output frequencies from f on, each with all channels before the next, as they lie in memory.
template <int Rows, int Taps>
void slideOverChannels(const SlidingChannels& shared, std::ptrdiff_t f, std::ptrdiff_t numOfTiles) {
    constexpr std::size_t lanes = kNumOfLanes;
    constexpr auto step = static_cast<std::ptrdiff_t>(kSlidingVectors * lanes);
    const auto [slices, numOfSlices, numOfChannels, start, weights, first, firstStep, out, to, isAhead] =
        shared;
    for (; numOfTiles > 0; --numOfTiles, f += Rows)
        for (std::ptrdiff_t c = 0; c < numOfChannels; c += step) {
            const std::ptrdiff_t in = (start + f) * numOfChannels + c;
            Tile<Rows, kSlidingVectors> sums;
            startTile<Rows, kSlidingVectors>(first ? first + f * firstStep + c : nullptr, firstStep, lanes,
                                             sums);
            if (isAhead) prefetchTile<Rows, kSlidingVectors>(out + f * numOfChannels + c, numOfChannels);
            const float* w = weights + c;
            for (std::ptrdiff_t r = 0; r < numOfSlices - 1; ++r, w += Taps * numOfChannels)
                slideOverSlice<Rows, Taps, false>(slices[r] + in, w, numOfChannels, nullptr, sums);
            const float* last = slices[numOfSlices - 1] + in;
            if (to)
                slideOverSlice<Rows, Taps, true>(last, w, numOfChannels, to + in, sums);
            else
                slideOverSlice<Rows, Taps, false>(last, w, numOfChannels, nullptr, sums);
            storeTile<Rows, kSlidingVectors>(sums, out + f * numOfChannels + c, numOfChannels, lanes);
        }
}

using SlideOverChannels = void (*)(const SlidingChannels&, std::ptrdiff_t, std::ptrdiff_t);
using SlidingTiles = std::array<SlideOverChannels, kSlidingRows>;

template <int Taps, int... Rows>
constexpr SlidingTiles listSlidingTiles(std::integer_sequence<int, Rows...>) {
    return {slideOverChannels<Rows + 1, Taps>...};
}

constexpr auto kSlidingRowCounts = std::make_integer_sequence<int, kSlidingRows>();
constexpr SlidingTiles kSlidingTilesOf3 = listSlidingTiles<3>(kSlidingRowCounts);
constexpr SlidingTiles kSlidingTilesOf5 = listSlidingTiles<5>(kSlidingRowCounts);

// Null for a shape that goes in other tiles.
const SlidingTiles* findSlidingTiles(const Convolution& shape) {
    constexpr auto step = static_cast<std::ptrdiff_t>(kSlidingVectors * kNumOfLanes);
    if (shape.frequencyStride != 1 || shape.numOfOutputs % step != 0 || shape.numOfSlices < 1) return nullptr;
    return shape.numOfTaps == 3 ? &kSlidingTilesOf3 : shape.numOfTaps == 5 ? &kSlidingTilesOf5 : nullptr;
}

// All channels of the rows from f to end, in blocks of vectors as wide as they come.
void sumChannelRows(const Convolution& shape, const float* const* slices, const float* weights,
                    const float* first, std::ptrdiff_t firstStep, float* out, std::ptrdiff_t f,
                    std::ptrdiff_t end) {
    const std::ptrdiff_t numOfChannels = shape.numOfOutputs;
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
    std::array<const float*, kMaxSlices> columns;
    const EvenSplit tiles(end - f, kMaxChannelRows);
    for (std::ptrdiff_t t = 0; t < tiles.numOfParts; f += tiles.sizeOf(t++)) {
        const auto row = static_cast<std::size_t>(tiles.sizeOf(t) - 1);
        for (std::ptrdiff_t c = 0, vectors = 0; c < numOfChannels; c += vectors * numOfLanes) {
            const std::ptrdiff_t left = numOfChannels - c;
            vectors = left >= kMaxVectors * numOfLanes ? kMaxVectors : 1;
            const SumChannels tile = vectors > 1          ? kAllChannelVectors[row]
                                     : left >= numOfLanes ? kOneChannelVector[row]
                                                          : kPartialChannels[row];
            for (std::ptrdiff_t r = 0; r < shape.numOfSlices; ++r)
                columns[static_cast<std::size_t>(r)] = slices[r] + c;
            tile(shape, columns.data(), weights + c, first ? first + c : nullptr, firstStep, out + c, f,
                 static_cast<std::size_t>(std::min(left, numOfLanes)));
        }
    }
}

void convolveChannelSlices(const Convolution& whole, const float* const* slices, const float* weights,
                           const float* first, std::ptrdiff_t firstStep, float* out,
                           const SliceToStore& store) {
    const std::ptrdiff_t numOfChannels = whole.numOfOutputs;
    SliceStoring storing(store, whole.inputFrequencies * numOfChannels);
    // The rows that have all taps; with sliding tiles a row is a step of one frequency.
    const SlidingTiles* const slidingTiles = findSlidingTiles(whole);
    const std::ptrdiff_t rows = whole.outputFrequencies;
    const std::ptrdiff_t begin = slidingTiles ? std::clamp<std::ptrdiff_t>(-whole.start, 0, rows) : rows;
    const std::ptrdiff_t end =
        std::clamp(whole.inputFrequencies - whole.numOfTaps - whole.start + 1, begin, rows);

    Convolution shape = whole;
    std::array<const float*, kMaxSlices> sources;
    for (std::ptrdiff_t slice = 0; slice == 0 || slice < whole.numOfSlices; slice += kMaxSlices) {
        shape.numOfSlices = std::min(whole.numOfSlices - slice, kMaxSlices);
        bool endsWithNewSlice = false;  // which is read where it is, not where it will be
        for (std::ptrdiff_t r = 0; r < shape.numOfSlices; ++r) {
            endsWithNewSlice = store.from && slices[slice + r] == store.to;
            sources[static_cast<std::size_t>(r)] = endsWithNewSlice ? store.from : slices[slice + r];
        }
        sumChannelRows(shape, sources.data(), weights, first, firstStep, out, 0, begin);
        if (begin < end) {
            const EvenSplit tiles(end - begin, kSlidingRows);
            const auto larger = static_cast<std::size_t>(tiles.sizeOf(0) - 1);
            if (endsWithNewSlice) storing.copyUpTo((shape.start + begin) * numOfChannels);
            const SlidingChannels shared = {sources.data(),
                                            shape.numOfSlices,
                                            numOfChannels,
                                            shape.start,
                                            weights,
                                            first,
                                            firstStep,
                                            out,
                                            endsWithNewSlice ? store.to : nullptr,
                                            simd::asksAhead()};
            (*slidingTiles)[larger](shared, begin,
                                    tiles.numOfLarger > 0 ? tiles.numOfLarger : tiles.numOfParts);
            if (tiles.numOfLarger > 0 && tiles.numOfLarger < tiles.numOfParts)
                (*slidingTiles)[larger - 1](shared, begin + tiles.numOfLarger * (tiles.smaller + 1),
                                            tiles.numOfParts - tiles.numOfLarger);
            if (endsWithNewSlice) storing.isCopiedUpTo((shape.start + end) * numOfChannels);
        }
        sumChannelRows(shape, sources.data(), weights, first, firstStep, out, end, rows);
        weights += shape.numOfSlices * shape.numOfTaps * numOfChannels;
        first = out;
        firstStep = numOfChannels;
    }
    storing.copyAll();
}

// inOut[i] += a[i] * b[i]
HWY_INLINE void addProductsOfRow(const float* a, const float* b, float* inOut, std::ptrdiff_t count) {
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
    for (std::ptrdiff_t i = 0; i < count; i += numOfLanes) {
        const auto lanes = static_cast<std::size_t>(std::min(numOfLanes, count - i));
        const Vector sum = loadFirst(inOut + i, lanes);
        storeFirst(hn::MulAdd(loadFirst(a + i, lanes), loadFirst(b + i, lanes), sum), inOut + i, lanes);
    }
}

void transposeChannels(const TransposedConvolution& shape, const float* in, const float* weights,
                       float* const* slots) {
    const std::ptrdiff_t numOfChannels = shape.numOfOutputs;
    for (std::ptrdiff_t r = 0; r < shape.numOfSlots; ++r)
        for (std::ptrdiff_t i = 0; i < shape.inputFrequencies; ++i) {
            const std::ptrdiff_t p = shape.start + i * shape.frequencyStride;
            const std::ptrdiff_t end = std::min(shape.numOfTaps, shape.outputFrequencies - p);
            for (std::ptrdiff_t k = std::max<std::ptrdiff_t>(0, -p); k < end; ++k)
                addProductsOfRow(in + i * numOfChannels, weights + (r * shape.numOfTaps + k) * numOfChannels,
                                 slots[r] + (p + k) * numOfChannels, numOfChannels);
        }
}

template <int Vectors>
HWY_INLINE void combineVectors(const float* const* rows, const float* factors, std::ptrdiff_t numOfRows,
                               std::ptrdiff_t i, std::size_t lanesOfLastVector, float* out) {
    const Floats d;
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
    Vector sums[Vectors];
    std::size_t lanes[Vectors];
    ZEVRANT_UNROLL
    for (int v = 0; v < Vectors; ++v) lanes[v] = v < Vectors - 1 ? kNumOfLanes : lanesOfLastVector;
    Vector factor = hn::Set(d, factors[0]);
    ZEVRANT_UNROLL
    for (int v = 0; v < Vectors; ++v)
        sums[v] = hn::Mul(loadFirst(rows[0] + i + v * numOfLanes, lanes[v]), factor);
    for (std::ptrdiff_t k = 1; k < numOfRows; ++k) {
        factor = hn::Set(d, factors[k]);
        ZEVRANT_UNROLL
        for (int v = 0; v < Vectors; ++v)
            sums[v] = hn::MulAdd(loadFirst(rows[k] + i + v * numOfLanes, lanes[v]), factor, sums[v]);
    }
    ZEVRANT_UNROLL
    for (int v = 0; v < Vectors; ++v) storeFirst(sums[v], out + i + v * numOfLanes, lanes[v]);
}

void combineAllRows(const float* const* rows, const float* factors, std::ptrdiff_t numOfRows,
                    std::ptrdiff_t count, float* out) {
    constexpr int vectors = 8;  // chains side by side
    constexpr auto step = static_cast<std::ptrdiff_t>(kNumOfLanes);
    std::ptrdiff_t i = 0;
    for (; i + vectors * step <= count; i += vectors * step)
        combineVectors<vectors>(rows, factors, numOfRows, i, kNumOfLanes, out);
    for (; i < count; i += step)
        combineVectors<1>(rows, factors, numOfRows, i, static_cast<std::size_t>(std::min(step, count - i)),
                          out);
}

}  // namespace
}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zevrant::kernels {

ZEVRANT_DISPATCH_TABLE(convolveChannelSlices);
ZEVRANT_DISPATCH_TABLE(transposeChannels);
ZEVRANT_DISPATCH_TABLE(combineAllRows);

void convolveChannels(const Convolution& shape, const float* const* slices, const float* weights,
                      const float* first, std::ptrdiff_t firstStep, float* out, const SliceToStore& store) {
    ZEVRANT_DISPATCH(convolveChannelSlices)(shape, slices, weights, first, firstStep, out, store);
}

void convolveTransposedChannels(const TransposedConvolution& shape, const float* in, const float* weights,
                                float* const* slots) {
    ZEVRANT_DISPATCH(transposeChannels)(shape, in, weights, slots);
}

void combineRows(const float* const* rows, const float* factors, std::ptrdiff_t numOfRows,
                 std::ptrdiff_t count, float* out) {
    ZEVRANT_DISPATCH(combineAllRows)(rows, factors, numOfRows, count, out);
}

}  // namespace zevrant::kernels

#endif  // HWY_ONCE
