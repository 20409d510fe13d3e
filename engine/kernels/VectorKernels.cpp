#include "kernels/VectorKernels.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "simd/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/VectorKernels.cpp"
#include "hwy/foreach_target.h"  // from here on once per instruction set

#include "hwy/cache_control.h"
#include "hwy/highway.h"

// A loop whose count is known and whose vectors are to live in registers has to be laid out in full.
// Sanitizers would check each copy of its body, which takes minutes to compile and finds no more.
#if defined(ZEVRANT_SANITIZED)
#define ZEVRANT_UNROLL
#elif defined(__clang__)
#define ZEVRANT_UNROLL _Pragma("clang loop unroll(full)")
#else
#define ZEVRANT_UNROLL _Pragma("GCC unroll 32")
#endif

#ifndef ZEVRANT_SIMD_VECTOR_KERNELS_ONCE
#define ZEVRANT_SIMD_VECTOR_KERNELS_ONCE

namespace zevrant::kernels {
namespace {

// Cuts count things into parts that differ by one at most, so that no part is a poor rest.
struct EvenSplit {
    EvenSplit(std::ptrdiff_t count, std::ptrdiff_t largest)
        : numOfParts((count + largest - 1) / largest),
          smaller(numOfParts > 0 ? count / numOfParts : 0),
          numOfLarger(count - smaller * numOfParts) {}

    std::ptrdiff_t sizeOf(std::ptrdiff_t part) const { return smaller + (part < numOfLarger ? 1 : 0); }

    std::ptrdiff_t numOfParts, smaller, numOfLarger;
};

// Of any a and a positive b.
std::ptrdiff_t ceilOfQuotient(std::ptrdiff_t a, std::ptrdiff_t b) {
    return a > 0 ? (a + b - 1) / b : -(-a / b);
}

std::ptrdiff_t getNumOfVectors(const PackedWeights& weights) {
    return (weights.numOfOutputs + weights.numOfLanes - 1) / weights.numOfLanes;
}

// One column of a product: a block of output vectors, for all output frequencies.
struct Column {
    const float* const* slices;
    std::ptrdiff_t numOfSlices;
    std::ptrdiff_t numOfTaps;
    std::ptrdiff_t numOfInputs;
    std::ptrdiff_t inputFrequencies;
    std::ptrdiff_t frequencyStride;
    std::ptrdiff_t start;
    const float* weights;
    const float* first;  // may be null
    std::ptrdiff_t firstStep;
    float* out;
    std::ptrdiff_t outStep;
    std::size_t lanesOfLastVector;
    SliceToStore store;
    bool addsToOut;   // the sums start from zero and are added to out when they are whole
    WholeSlot whole;  // with addsToOut: where out goes on to
};

struct Geometry {
    std::ptrdiff_t numOfLanes, vectorsPerBlock;
};

constexpr std::ptrdiff_t kVectorsPerDenseBlock = 8;

// From this number on, the weights of a dense layer come from the second level of cache or from further away,
// and widening halves costs less than reading floats.
constexpr std::size_t kMinWeightsAsHalves = std::size_t{1} << 18;

// Weights that every tile reads anew stay in the first level of cache up to this number; more are asked
// for some terms ahead.
constexpr std::ptrdiff_t kMaxWeightsAtHand = 6144;
constexpr std::ptrdiff_t kTermsAhead = 8;

// The table of a transposed convolution with few outputs.
constexpr std::ptrdiff_t kTableRows = 24;
constexpr std::ptrdiff_t kMaxTableWidth = 256;

}  // namespace
}  // namespace zevrant::kernels

#endif

HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

using Floats = hn::ScalableTag<float>;
using Vector = hn::Vec<Floats>;

// A tile of sums fills the registers but for those of one term's weights and input.
#if HWY_TARGET == HWY_AVX3 || HWY_ARCH_ARM_A64
constexpr int kMaxVectors = 4;
constexpr std::array<int, kMaxVectors> kMaxRows = {24, 12, 8, 6};
#else
constexpr int kMaxVectors = 2;
constexpr std::array<int, kMaxVectors> kMaxRows = {12, 6};
#endif

constexpr std::ptrdiff_t kMaxEdgeRows = 6;

Geometry getGeometry() {
    return {static_cast<std::ptrdiff_t>(hn::Lanes(Floats())), kMaxVectors};
}

HWY_INLINE Vector loadFirst(const float* in, std::size_t count) {
    const Floats d;
    if (count == hn::Lanes(d)) return hn::LoadU(d, in);
#if HWY_MEM_OPS_MIGHT_FAULT
    HWY_ALIGN float lanes[HWY_MAX_BYTES / sizeof(float)] = {};
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
    if (count == hn::Lanes(d)) return hn::StoreU(v, d, out);
#if HWY_MEM_OPS_MIGHT_FAULT
    HWY_ALIGN float lanes[HWY_MAX_BYTES / sizeof(float)];
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

// Rows of a tile lie step apart; the last vector of each has only the first lanes.
template <int Rows, int Vectors>
HWY_INLINE void loadTile(const float* in, std::ptrdiff_t step, std::size_t lanes,
                         Vector (&tile)[Rows][Vectors]) {
    const Floats d;
    const std::size_t numOfLanes = hn::Lanes(d);
    constexpr int last = Vectors - 1;
    const RowPointers<const float, Rows> rows(in, step);
    ZEVRANT_UNROLL
    for (int row = 0; row < Rows; ++row) {
        ZEVRANT_UNROLL
        for (int v = 0; v < last; ++v) tile[row][v] = hn::LoadU(d, rows[row] + v * numOfLanes);
    }
    if (lanes == numOfLanes) {
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row) tile[row][last] = hn::LoadU(d, rows[row] + last * numOfLanes);
    } else {
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row)
            tile[row][last] = loadFirst(rows[row] + last * numOfLanes, lanes);
    }
}

// Asks for the place of a tile that is going to be stored, so that its stores do not hold up the loads of the
// next.
template <int Rows, int Vectors>
HWY_INLINE void prefetchTile(const float* out, std::ptrdiff_t step) {
    const RowPointers<const float, Rows> rows(out, step);
    ZEVRANT_UNROLL
    for (int row = 0; row < Rows; ++row) {
        ZEVRANT_UNROLL
        for (int v = 0; v < Vectors; ++v) hwy::Prefetch(rows[row] + v * hn::Lanes(Floats()));
    }
}

template <int Rows, int Vectors>
HWY_INLINE void storeTile(const Vector (&tile)[Rows][Vectors], float* out, std::ptrdiff_t step,
                          std::size_t lanes) {
    const Floats d;
    const std::size_t numOfLanes = hn::Lanes(d);
    constexpr int last = Vectors - 1;
    const RowPointers<float, Rows> rows(out, step);
    ZEVRANT_UNROLL
    for (int row = 0; row < Rows; ++row) {
        ZEVRANT_UNROLL
        for (int v = 0; v < last; ++v) hn::StoreU(tile[row][v], d, rows[row] + v * numOfLanes);
    }
    if (lanes == numOfLanes) {
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row) hn::StoreU(tile[row][last], d, rows[row] + last * numOfLanes);
    } else {
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row)
            storeFirst(tile[row][last], rows[row] + last * numOfLanes, lanes);
    }
}

template <int Rows, int Vectors>
HWY_INLINE void addTile(const Vector (&tile)[Rows][Vectors], Vector (&sums)[Rows][Vectors]) {
    ZEVRANT_UNROLL
    for (int row = 0; row < Rows; ++row) {
        ZEVRANT_UNROLL
        for (int v = 0; v < Vectors; ++v) sums[row][v] = hn::Add(tile[row][v], sums[row][v]);
    }
}

template <int Rows, int Vectors>
HWY_INLINE void clearTile(float* out, std::ptrdiff_t step, std::size_t lanes) {
    Vector zeros[Rows][Vectors];
    ZEVRANT_UNROLL
    for (int row = 0; row < Rows; ++row) {
        ZEVRANT_UNROLL
        for (int v = 0; v < Vectors; ++v) zeros[row][v] = hn::Zero(Floats());
    }
    storeTile<Rows, Vectors>(zeros, out, step, lanes);
}

// Adds numOfTerms products to each sum of a tile. The inputs of a row lie side by side, those of the next
// row step further; each weight vector is loaded once for all rows, each input once for all vectors.
// Rows before First and from Last on are left out.
template <int Rows, int Vectors, bool isAhead, int First = 0, int Last = Rows>
HWY_INLINE void addTerms(const float* HWY_RESTRICT in, std::ptrdiff_t step, const float* HWY_RESTRICT weights,
                         std::ptrdiff_t numOfTerms, Vector (&sums)[Rows][Vectors]) {
    const Floats d;
    const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(d));
    RowPointers<const float, Last - First> rows(in + First * step, step);
    for (std::ptrdiff_t term = 0; term < numOfTerms; ++term, ++rows) {
        Vector w[Vectors];
        ZEVRANT_UNROLL
        for (int v = 0; v < Vectors; ++v) {
            w[v] = hn::Load(d, weights + v * numOfLanes);
            if constexpr (isAhead) hwy::Prefetch(weights + (kTermsAhead * Vectors + v) * numOfLanes);
        }
        weights += Vectors * numOfLanes;
        ZEVRANT_UNROLL
        for (int row = First; row < Last; ++row) {
            const Vector x = hn::Set(d, *rows[row - First]);
            ZEVRANT_UNROLL
            for (int v = 0; v < Vectors; ++v) sums[row][v] = hn::MulAdd(x, w[v], sums[row][v]);
        }
    }
}

// The same for one tap at the edge of the band, where not all rows have it: that of the first row is at
// frequency p.
template <int Rows, int Vectors>
HWY_INLINE void addTapOfSomeRows(const Column& column, std::ptrdiff_t p, const float* HWY_RESTRICT in,
                                 const float* HWY_RESTRICT weights, Vector (&sums)[Rows][Vectors]) {
    const Floats d;
    const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(d));
    const std::ptrdiff_t stride = column.frequencyStride, step = stride * column.numOfInputs;
    std::ptrdiff_t begin = 0, end = Rows;
    while (begin < end && p + begin * stride < 0) ++begin;
    while (begin < end && p + (end - 1) * stride >= column.inputFrequencies) --end;
    if (begin == end) return;
    if constexpr (Rows > 1) {  // usually one row misses it
        if (begin == 1 && end == Rows)
            return addTerms<Rows, Vectors, false, 1, Rows>(in, step, weights, column.numOfInputs, sums);
        if (begin == 0 && end == Rows - 1)
            return addTerms<Rows, Vectors, false, 0, Rows - 1>(in, step, weights, column.numOfInputs, sums);
    }
    for (std::ptrdiff_t term = 0; term < column.numOfInputs; ++term, weights += Vectors * numOfLanes) {
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row) {
            if (row < begin || row >= end) continue;
            const Vector x = hn::Set(d, in[row * step + term]);
            ZEVRANT_UNROLL
            for (int v = 0; v < Vectors; ++v)
                sums[row][v] = hn::MulAdd(x, hn::Load(d, weights + v * numOfLanes), sums[row][v]);
        }
    }
}

enum class Band { inside, atEdge };

// Rows output frequencies from f, times all vectors of a column. The sums stay in registers from the first
// slice to the last, so an output is stored once. Inside the band, taps and inputs of a slice are one run of
// terms; at its edge the taps that all rows have are one, and those before and after them go alone.
template <int Rows, int Vectors, bool isAhead, Band band>
void sumTile(const Column& column, std::ptrdiff_t f) {
    const Floats d;
    const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(d));
    const std::size_t rest = column.lanesOfLastVector;
    const std::ptrdiff_t numOfInputs = column.numOfInputs, numOfTaps = column.numOfTaps;
    const std::ptrdiff_t p = column.start + f * column.frequencyStride;
    const std::ptrdiff_t step = column.frequencyStride * numOfInputs;

    Vector sums[Rows][Vectors];
    if (column.first) {
        loadTile<Rows, Vectors>(column.first + f * column.firstStep, column.firstStep, rest, sums);
    } else {
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row) {
            ZEVRANT_UNROLL
            for (int v = 0; v < Vectors; ++v) sums[row][v] = hn::Zero(d);
        }
    }

    const float* weights = column.weights;
    const std::ptrdiff_t weightsPerTap = numOfInputs * Vectors * numOfLanes;
    for (std::ptrdiff_t r = 0; r < column.numOfSlices; ++r, weights += numOfTaps * weightsPerTap) {
        const float* in = column.slices[r] + p * numOfInputs;
        if constexpr (band == Band::inside) {
            addTerms<Rows, Vectors, isAhead>(in, step, weights, numOfTaps * numOfInputs, sums);
        } else {
            const std::ptrdiff_t lastRow = (Rows - 1) * column.frequencyStride;
            const std::ptrdiff_t begin = std::clamp<std::ptrdiff_t>(-p, 0, numOfTaps);
            const std::ptrdiff_t end = std::clamp(column.inputFrequencies - p - lastRow, begin, numOfTaps);
            for (std::ptrdiff_t k = 0; k < numOfTaps; ++k) {
                const float *tapIn = in + k * numOfInputs, *tapWeights = weights + k * weightsPerTap;
                if (k < begin || k >= end) {
                    addTapOfSomeRows<Rows, Vectors>(column, p + k, tapIn, tapWeights, sums);
                } else {
                    addTerms<Rows, Vectors, isAhead>(tapIn, step, tapWeights, (end - begin) * numOfInputs,
                                                     sums);
                    k = end - 1;
                }
            }
        }
    }

    float* out = column.out + f * column.outStep;
    if (band == Band::inside && column.addsToOut) {
        Vector before[Rows][Vectors];
        loadTile<Rows, Vectors>(out, column.outStep, rest, before);
        addTile<Rows, Vectors>(before, sums);
        if (column.whole.out) {
            clearTile<Rows, Vectors>(out, column.outStep, rest);
            if (column.whole.bias) {
                loadTile<Rows, Vectors>(column.whole.bias, 0, rest, before);
                addTile<Rows, Vectors>(before, sums);
            }
            out = column.whole.out + f * column.outStep;
        }
    }
    storeTile<Rows, Vectors>(sums, out, column.outStep, rest);
}

using SumTile = void (*)(const Column&, std::ptrdiff_t);
using TilesByRows = std::array<SumTile, kMaxRows[0]>;
using TilesByVectors = std::array<TilesByRows, kMaxVectors>;

template <bool isAhead, Band band, int Vectors, int... Rows>
constexpr TilesByRows listTiles(std::integer_sequence<int, Rows...>) {
    return {sumTile<Rows + 1, Vectors, isAhead, band>...};
}

template <bool isAhead, Band band, int... Vectors>
constexpr TilesByVectors listTilesOfAllWidths(std::integer_sequence<int, Vectors...>) {
    return {listTiles<isAhead, band, Vectors + 1>(
        std::make_integer_sequence < int, band == Band::inside ? kMaxRows[Vectors] : kMaxEdgeRows > ())...};
}

constexpr auto kWidths = std::make_integer_sequence<int, kMaxVectors>();
constexpr TilesByVectors kTilesInside = listTilesOfAllWidths<false, Band::inside>(kWidths);
constexpr TilesByVectors kTilesInsideAhead = listTilesOfAllWidths<true, Band::inside>(kWidths);
constexpr TilesByVectors kTilesAtEdge = listTilesOfAllWidths<false, Band::atEdge>(kWidths);

// Copies a slice on to where the next reader needs it.
class SliceStoring {
  public:
    SliceStoring(const SliceToStore& slice, std::ptrdiff_t count)
        : from(slice.from), to(slice.to), left(count) {}

    void copyUpTo(std::ptrdiff_t end) {
        if (!from || end <= done) return;
        const Floats d;
        const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(d));
        end = std::min(end, left);
        for (; done + numOfLanes <= end; done += numOfLanes)
            hn::StoreU(hn::LoadU(d, from + done), d, to + done);
        for (; done < end; ++done) to[done] = from[done];
    }
    void copyAll() { copyUpTo(left); }

    // For a kernel that has stored them itself.
    void isCopiedUpTo(std::ptrdiff_t end) { done = std::max(done, end); }

  private:
    const float* from;
    float* to;
    std::ptrdiff_t left;
    std::ptrdiff_t done = 0;
};

void sumRows(const Column& column, SliceStoring& storing, const TilesByRows& tilesByRows,
             std::ptrdiff_t maxRows, std::ptrdiff_t begin, std::ptrdiff_t end) {
    const EvenSplit tiles(end - begin, maxRows);
    for (std::ptrdiff_t t = 0, f = begin; t < tiles.numOfParts; ++t) {
        const std::ptrdiff_t rows = tiles.sizeOf(t), lastRow = f + rows - 1;
        storing.copyUpTo((column.start + lastRow * column.frequencyStride + column.numOfTaps) *
                         column.numOfInputs);
        tilesByRows[static_cast<std::size_t>(rows - 1)](column, f);
        f += rows;
    }
}

// All columns of one packed matrix. column holds what they share.
void sumColumns(Column column, std::ptrdiff_t numOfRows, const PackedWeights& packed, std::ptrdiff_t matrix) {
    const std::ptrdiff_t numOfVectors = getNumOfVectors(packed), numOfLanes = packed.numOfLanes;
    const EvenSplit blocks(numOfVectors, packed.vectorsPerBlock);
    SliceStoring storing(column.store, column.inputFrequencies * column.numOfInputs);
    if (numOfRows < 1) return storing.copyAll();
    // The rows that miss a tap, and as many beside them as make a tile.
    const std::ptrdiff_t stride = column.frequencyStride;
    const std::ptrdiff_t rowsBefore = ceilOfQuotient(-column.start, stride);
    const std::ptrdiff_t rowsBehind =
        numOfRows - ceilOfQuotient(column.inputFrequencies - column.numOfTaps - column.start + 1, stride);
    const std::ptrdiff_t insideBegin =
        rowsBefore > 0 ? std::min(numOfRows, std::max(rowsBefore, kMaxEdgeRows)) : 0;
    const std::ptrdiff_t insideEnd =
        rowsBehind > 0 ? std::max(insideBegin, numOfRows - std::max(rowsBehind, kMaxEdgeRows)) : numOfRows;
    column.weights = packed.values.data() + matrix * numOfVectors * numOfLanes * packed.numOfTerms;
    std::ptrdiff_t output = 0;
    for (std::ptrdiff_t b = 0; b < blocks.numOfParts; ++b) {
        const std::ptrdiff_t vectors = blocks.sizeOf(b);
        const auto width = static_cast<std::size_t>(vectors - 1);
        const std::ptrdiff_t numOfOutputs = std::min(vectors * numOfLanes, packed.numOfOutputs - output);
        column.lanesOfLastVector = static_cast<std::size_t>(numOfOutputs - (vectors - 1) * numOfLanes);
        const bool isAhead = packed.numOfTerms * vectors * numOfLanes > kMaxWeightsAtHand;
        sumRows(column, storing, kTilesAtEdge[width], kMaxEdgeRows, 0, insideBegin);
        sumRows(column, storing, (isAhead ? kTilesInsideAhead : kTilesInside)[width], kMaxRows[width],
                insideBegin, insideEnd);
        sumRows(column, storing, kTilesAtEdge[width], kMaxEdgeRows, insideEnd, numOfRows);
        output += numOfOutputs;
        column.weights += packed.numOfTerms * vectors * numOfLanes;
        column.out += numOfOutputs;
        if (column.first) column.first += numOfOutputs;
        if (column.whole.out) column.whole.out += numOfOutputs;
        if (column.whole.bias) column.whole.bias += numOfOutputs;
    }
    storing.copyAll();
}

void convolveSlices(const Convolution& shape, const float* const* slices, const PackedWeights& weights,
                    const float* first, std::ptrdiff_t firstStep, float* out, const SliceToStore& store) {
    Column column = {};
    column.slices = slices;
    column.numOfSlices = shape.numOfSlices;
    column.numOfTaps = shape.numOfTaps;
    column.numOfInputs = shape.numOfInputs;
    column.inputFrequencies = shape.inputFrequencies;
    column.frequencyStride = shape.frequencyStride;
    column.start = shape.start;
    column.first = first;
    column.firstStep = firstStep;
    column.out = out;
    column.outStep = shape.numOfOutputs;
    column.store = store;
    sumColumns(column, shape.outputFrequencies, weights, 0);
}

// Rows output frequencies from f times Vectors vectors of channels. The kernel is little and the slices are
// much, so the loads set the pace: the rows that the next tile begins with are asked for in advance.
template <int Rows, int Vectors, bool isPartial>
void sumChannels(const Convolution& shape, const float* const* slices, const float* weights,
                 const float* first, std::ptrdiff_t firstStep, float* out, std::ptrdiff_t f,
                 std::size_t lanes) {
    const Floats d;
    const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(d));
    const std::ptrdiff_t numOfChannels = shape.numOfOutputs, stride = shape.frequencyStride;
    const std::ptrdiff_t p = shape.start + f * stride, step = stride * numOfChannels;
    const std::ptrdiff_t lastRow = p + (Rows - 1) * stride;

    Vector sums[Rows][Vectors];
    if (first) {
        loadTile<Rows, Vectors>(first + f * firstStep, firstStep, lanes, sums);
    } else {
        ZEVRANT_UNROLL
        for (int row = 0; row < Rows; ++row) {
            ZEVRANT_UNROLL
            for (int v = 0; v < Vectors; ++v) sums[row][v] = hn::Zero(d);
        }
    }
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

#if HWY_TARGET == HWY_AVX3 || HWY_ARCH_ARM_A64
constexpr int kSlidingRows = 8, kSlidingVectors = 2;
#else
constexpr int kSlidingRows = 8, kSlidingVectors = 1;
#endif

// The terms of one slice, whose weights stay in registers while an input vector is loaded once for all the
// rows that use it. Each row still meets its taps in their order. The input rows that no later tile loads are
// stored on their way where to is not null.
template <int Rows, int Taps, bool isStored>
HWY_INLINE void slideOverSlice(const float* HWY_RESTRICT in, const float* HWY_RESTRICT weights,
                               std::ptrdiff_t numOfChannels, float* HWY_RESTRICT to,
                               Vector (&sums)[Rows][kSlidingVectors]) {
    const Floats d;
    const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(d));
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
    float* to;  // where the last slice is stored on its way; may be null
};

// Tiles of Rows output frequencies from f on, each with all channels before the next, as they lie in memory.
template <int Rows, int Taps>
void slideOverChannels(const SlidingChannels& shared, std::ptrdiff_t f, std::ptrdiff_t numOfTiles) {
    const Floats d;
    const std::size_t lanes = hn::Lanes(d);
    const auto step = static_cast<std::ptrdiff_t>(kSlidingVectors * lanes);
    const auto [slices, numOfSlices, numOfChannels, start, weights, first, firstStep, out, to] = shared;
    for (; numOfTiles > 0; --numOfTiles, f += Rows)
        for (std::ptrdiff_t c = 0; c < numOfChannels; c += step) {
            const std::ptrdiff_t in = (start + f) * numOfChannels + c;
            Vector sums[Rows][kSlidingVectors];
            if (first) {
                loadTile<Rows, kSlidingVectors>(first + f * firstStep + c, firstStep, lanes, sums);
            } else {
                ZEVRANT_UNROLL
                for (int row = 0; row < Rows; ++row) {
                    ZEVRANT_UNROLL
                    for (int v = 0; v < kSlidingVectors; ++v) sums[row][v] = hn::Zero(d);
                }
            }
            prefetchTile<Rows, kSlidingVectors>(out + f * numOfChannels + c, numOfChannels);
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
    const auto step = static_cast<std::ptrdiff_t>(kSlidingVectors * hn::Lanes(Floats()));
    if (shape.frequencyStride != 1 || shape.numOfOutputs % step != 0 || shape.numOfSlices < 1) return nullptr;
    return shape.numOfTaps == 3 ? &kSlidingTilesOf3 : shape.numOfTaps == 5 ? &kSlidingTilesOf5 : nullptr;
}

// All channels of the rows from f to end, in blocks of vectors as wide as they come.
void sumChannelRows(const Convolution& shape, const float* const* slices, const float* weights,
                    const float* first, std::ptrdiff_t firstStep, float* out, std::ptrdiff_t f,
                    std::ptrdiff_t end) {
    const std::ptrdiff_t numOfChannels = shape.numOfOutputs;
    const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(Floats()));
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
                                            endsWithNewSlice ? store.to : nullptr};
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

// Input frequencies whose tap k falls into the band.
struct ValidInputs {
    ValidInputs(const TransposedConvolution& shape, std::ptrdiff_t k)
        : begin(std::max<std::ptrdiff_t>(0, ceilOfQuotient(-shape.start - k, shape.frequencyStride))),
          end(std::min(shape.inputFrequencies,
                       ceilOfQuotient(shape.outputFrequencies - shape.start - k, shape.frequencyStride))) {}

    std::ptrdiff_t begin, end;
};

// A product of rows of inputs with one matrix.
void multiplyRows(const TransposedConvolution& shape, const float* in, std::ptrdiff_t numOfRows,
                  const PackedWeights& weights, std::ptrdiff_t matrix, float* out, std::ptrdiff_t outStep,
                  bool addsToOut, const WholeSlot& whole = {}) {
    Column column = {};
    column.slices = &in;
    column.numOfSlices = 1;
    column.numOfTaps = 1;
    column.numOfInputs = shape.numOfInputs;
    column.inputFrequencies = numOfRows;
    column.frequencyStride = 1;
    column.out = out;
    column.outStep = outStep;
    column.addsToOut = addsToOut;
    column.whole = whole;
    sumColumns(column, numOfRows, weights, matrix);
}

// A slot that is whole goes on: out = slot + bias, and the slot is cleared. Rows shorter than a vector run
// together: their biases repeat every length vectors.
void finishRows(float* slot, const float* bias, std::ptrdiff_t numOfRows, std::ptrdiff_t length, float* out) {
    const Floats d;
    const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(d));
    constexpr std::size_t maxLanes = HWY_MAX_BYTES / sizeof(float);
    HWY_ALIGN float pattern[maxLanes * maxLanes];
    std::ptrdiff_t period = length, count = length;
    if (length < numOfLanes || !bias) {
        period = length * numOfLanes;
        count = numOfRows * length;
        numOfRows = 1;
    }
    if (length < numOfLanes && bias) {
        for (std::ptrdiff_t i = 0; i < period; ++i) pattern[i] = bias[i % length];
        bias = pattern;
    }
    for (std::ptrdiff_t row = 0; row < numOfRows; ++row, slot += count, out += count)
        for (std::ptrdiff_t i = 0, at = 0; i < count; i += numOfLanes) {
            const auto lanes = static_cast<std::size_t>(std::min(numOfLanes, count - i));
            Vector sum = loadFirst(slot + i, lanes);
            if (bias) sum = hn::Add(sum, loadFirst(bias + at, lanes));
            storeFirst(sum, out + i, lanes);
            storeFirst(hn::Zero(d), slot + i, lanes);
            at = at + numOfLanes < period ? at + numOfLanes : 0;
        }
}

// Input frequencies whose taps from k on, as many as a matrix has, all fall into the band.
ValidInputs findInputsInside(const TransposedConvolution& shape, std::ptrdiff_t k, std::ptrdiff_t taps) {
    ValidInputs inside(shape, k);
    inside.begin = std::min(inside.begin, shape.inputFrequencies);
    inside.end = std::clamp(ValidInputs(shape, k + taps - 1).end, inside.begin, shape.inputFrequencies);
    return inside;
}

// Finishes the rows that transposeByTaps() leaves because no matrix meets them inside the band.
void finishOtherRows(const TransposedConvolution& shape, std::ptrdiff_t taps, float* slot,
                     const WholeSlot& whole) {
    const std::ptrdiff_t length = shape.numOfOutputs, stride = shape.frequencyStride;
    for (std::ptrdiff_t tap = 0; tap < stride; ++tap) {
        const ValidInputs done = findInputsInside(shape, tap / taps * taps, taps);
        const bool isMet = tap < shape.numOfTaps;
        for (std::ptrdiff_t i = ceilOfQuotient(-shape.start - tap, stride);; ++i) {
            if (isMet && i >= done.begin) i = std::max(i, done.end);
            const std::ptrdiff_t f = shape.start + tap + i * stride;
            if (f >= shape.outputFrequencies) break;
            finishRows(slot + f * length, whole.bias, 1, length, whole.out + f * length);
        }
    }
}

// For an output the contributions come in the order of the input frequency, so of falling taps: the last
// taps first. The taps of one stride give outputs that lie side by side, and beside those of the next input
// frequency, so they are one matrix product; otherwise a tap goes alone, with outputs a stride apart.
// The slot that is whole with this slice comes last, and goes on in the pass of its last contributions: those
// of the taps of the first stride.
void transposeByTaps(const TransposedConvolution& shape, const float* in, const PackedWeights& weights,
                     float* const* slots, const WholeSlot& whole) {
    const std::ptrdiff_t numOfOutputs = shape.numOfOutputs, stride = shape.frequencyStride;
    const std::ptrdiff_t taps = weights.numOfOutputs / numOfOutputs, outStep = stride * numOfOutputs;
    HWY_ALIGN float sums[kMaxTableWidth];
    HWY_ALIGN float biasOfTaps[kMaxTableWidth];
    if (whole.bias && taps > 1)
        for (std::ptrdiff_t o = 0; o < weights.numOfOutputs; ++o)
            biasOfTaps[o] = whole.bias[o % numOfOutputs];
    for (std::ptrdiff_t r = shape.numOfSlots - 1; r >= 0; --r)
        for (std::ptrdiff_t k = shape.numOfTaps - taps; k >= 0; k -= taps) {
            const std::ptrdiff_t matrix = (r * shape.numOfTaps + k) / taps;
            const std::ptrdiff_t offset = (shape.start + k) * numOfOutputs;
            float* const out = slots[r] + offset;
            const auto [begin, end] = findInputsInside(shape, k, taps);
            // At the edges of the band some of the taps fall outside.
            const auto addClippedRow = [&](std::ptrdiff_t row) {
                const std::ptrdiff_t p = shape.start + row * stride + k;
                const std::ptrdiff_t first = std::clamp<std::ptrdiff_t>(-p, 0, taps);
                const std::ptrdiff_t behind = std::clamp(shape.outputFrequencies - p, first, taps);
                if (first == behind) return;
                multiplyRows(shape, in + row * shape.numOfInputs, 1, weights, matrix, sums, 0, false);
                for (std::ptrdiff_t o = first * numOfOutputs; o < behind * numOfOutputs; ++o)
                    out[row * outStep + o] += sums[o];
            };
            for (std::ptrdiff_t row = 0; row < begin; ++row) addClippedRow(row);
            for (std::ptrdiff_t row = end; row < shape.inputFrequencies; ++row) addClippedRow(row);
            WholeSlot rows;
            if (r == 0 && k < stride && whole.out)
                rows = {whole.bias && taps > 1 ? biasOfTaps : whole.bias,
                        whole.out + offset + begin * outStep};
            if (begin < end)
                multiplyRows(shape, in + begin * shape.numOfInputs, end - begin, weights, matrix,
                             out + begin * outStep, outStep, true, rows);
        }
    if (whole.out) finishOtherRows(shape, taps, slots[0], whole);
}

// inOut[i] += values[i] in rows of a few values, which lie valuesStep and inOutStep apart.
void addShortRows(const float* values, std::ptrdiff_t valuesStep, float* inOut, std::ptrdiff_t inOutStep,
                  std::ptrdiff_t length, std::ptrdiff_t numOfRows) {
    std::ptrdiff_t first = 0;
#if HWY_TARGET != HWY_SCALAR
    const hn::CappedTag<float, 4> four;
    for (; first + 4 <= length; first += 4)
        for (std::ptrdiff_t row = 0; row < numOfRows; ++row) {
            float* out = inOut + row * inOutStep + first;
            const auto sum = hn::LoadU(four, values + row * valuesStep + first);
            hn::StoreU(hn::Add(hn::LoadU(four, out), sum), four, out);
        }
#endif
    for (; first < length; ++first)
        for (std::ptrdiff_t row = 0; row < numOfRows; ++row)
            inOut[row * inOutStep + first] += values[row * valuesStep + first];
}

// Adds the sums of count input frequencies from i, whose rows in the table are width long. The taps of one
// stride lie side by side in the table and in the slot, so they are added in one go where the band has them
// all; later strides come first, as with single taps.
void addTable(const TransposedConvolution& shape, const float* table, std::ptrdiff_t width, std::ptrdiff_t i,
              std::ptrdiff_t count, float* slot) {
    const std::ptrdiff_t numOfOutputs = shape.numOfOutputs, stride = shape.frequencyStride;
    for (std::ptrdiff_t k = (shape.numOfTaps - 1) / stride * stride; k >= 0; k -= stride) {
        const std::ptrdiff_t numOfTaps = std::min(stride, shape.numOfTaps - k);
        const ValidInputs first(shape, k), last(shape, k + numOfTaps - 1);
        const std::ptrdiff_t begin = std::clamp(first.begin, i, i + count);
        const std::ptrdiff_t end = std::clamp(last.end, begin, i + count);
        const auto add = [&](std::ptrdiff_t row, std::ptrdiff_t tap, std::ptrdiff_t taps,
                             std::ptrdiff_t rows) {
            addShortRows(table + (row - i) * width + tap * numOfOutputs, width,
                         slot + (shape.start + row * stride + tap) * numOfOutputs, stride * numOfOutputs,
                         taps * numOfOutputs, rows);
        };
        const auto addClipped = [&](std::ptrdiff_t row) {
            for (std::ptrdiff_t tap = k; tap < k + numOfTaps; ++tap) {
                const std::ptrdiff_t frequency = shape.start + row * stride + tap;
                if (frequency >= 0 && frequency < shape.outputFrequencies) add(row, tap, 1, 1);
            }
        };
        for (std::ptrdiff_t row = i; row < begin; ++row) addClipped(row);
        add(begin, k, numOfTaps, end - begin);
        for (std::ptrdiff_t row = end; row < i + count; ++row) addClipped(row);
    }
}

// Few outputs leave lanes empty, so all slots, taps and outputs share vectors: the sums of some input
// frequencies go to a small table first, and from there to the slots.
void transposeThroughTable(const TransposedConvolution& shape, const float* in, const PackedWeights& weights,
                           float* const* slots, const WholeSlot& whole) {
    alignas(64) float table[kTableRows * kMaxTableWidth];
    const std::ptrdiff_t width = weights.numOfOutputs;
    for (std::ptrdiff_t i = 0; i < shape.inputFrequencies; i += kTableRows) {
        const std::ptrdiff_t count = std::min(kTableRows, shape.inputFrequencies - i);
        multiplyRows(shape, in + i * shape.numOfInputs, count, weights, 0, table, width, false);
        for (std::ptrdiff_t r = 0; r < shape.numOfSlots; ++r)
            addTable(shape, table + r * shape.numOfTaps * shape.numOfOutputs, width, i, count, slots[r]);
    }
    if (whole.out) finishRows(slots[0], whole.bias, shape.outputFrequencies, shape.numOfOutputs, whole.out);
}

void transposeSlice(const TransposedConvolution& shape, const float* in, const PackedWeights& weights,
                    float* const* slots, const WholeSlot& whole) {
    if (shape.inputFrequencies < 1) {
        if (whole.out)
            finishRows(slots[0], whole.bias, shape.outputFrequencies, shape.numOfOutputs, whole.out);
        return;
    }
    const std::ptrdiff_t taps = weights.numOfOutputs / shape.numOfOutputs;
    if (taps == 1 || (taps == shape.frequencyStride && shape.numOfTaps % taps == 0))
        transposeByTaps(shape, in, weights, slots, whole);
    else
        transposeThroughTable(shape, in, weights, slots, whole);
}

// inOut[i] += a[i] * b[i]
HWY_INLINE void addProductsOfRow(const float* a, const float* b, float* inOut, std::ptrdiff_t count) {
    const Floats d;
    const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(d));
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

HWY_INLINE Vector loadWeights(const float* weights) {
    return hn::Load(Floats(), weights);
}

#if HWY_TARGET == HWY_SCALAR || HWY_TARGET == HWY_SSE4
bool packAsHalves(const float*, std::size_t, std::uint16_t*) {
    return false;  // widening takes many instructions there
}
#else
using Halves = hn::Rebind<hwy::float16_t, Floats>;

HWY_INLINE Vector loadWeights(const std::uint16_t* weights) {
    return hn::PromoteTo(Floats(), hn::Load(Halves(), reinterpret_cast<const hwy::float16_t*>(weights)));
}

// Whole vectors. False where a value would change.
bool packAsHalves(const float* values, std::size_t count, std::uint16_t* halves) {
    const Floats d;
    const hn::RebindToUnsigned<Floats> bits;
    for (std::size_t i = 0; i < count; i += hn::Lanes(d)) {
        const Vector value = hn::Load(d, values + i);
        hn::Store(hn::DemoteTo(Halves(), value), Halves(), reinterpret_cast<hwy::float16_t*>(halves + i));
        if (!hn::AllTrue(bits, hn::Eq(hn::BitCast(bits, value), hn::BitCast(bits, loadWeights(halves + i)))))
            return false;
    }
    return true;
}
#endif

// Vectors sums over all input frequencies, their weights being one stream that is read once. With
// isAlongChannels a vector holds channels of one output frequency, and they share the input vector;
// otherwise it holds output frequencies of one channel, and they share the input value.
template <int Vectors, class Weight>
void sumDense(const float* HWY_RESTRICT in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
              const Weight* HWY_RESTRICT weights, bool isAlongChannels, float* HWY_RESTRICT sums) {
    const Floats d;
    const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(d));
    Vector sum[Vectors];
    ZEVRANT_UNROLL
    for (int v = 0; v < Vectors; ++v) sum[v] = hn::Zero(d);
    for (std::ptrdiff_t i = 0; i < numOfFrequencies; ++i, in += numOfChannels) {
        const Vector x = isAlongChannels ? hn::LoadU(d, in) : hn::Set(d, *in);
        ZEVRANT_UNROLL
        for (int v = 0; v < Vectors; ++v) {
            hwy::Prefetch(weights + 2048 / sizeof(Weight));
            sum[v] = hn::MulAdd(x, loadWeights(weights), sum[v]);
            weights += numOfLanes;
        }
    }
    ZEVRANT_UNROLL
    for (int v = 0; v < Vectors; ++v) hn::Store(sum[v], d, sums + v * numOfLanes);
}

template <class Weight>
using SumDense = void (*)(const float*, std::ptrdiff_t, std::ptrdiff_t, const Weight*, bool, float*);
template <class Weight>
constexpr std::array<SumDense<Weight>, kVectorsPerDenseBlock> kDenseBlocks = {
    sumDense<1, Weight>, sumDense<2, Weight>, sumDense<3, Weight>, sumDense<4, Weight>,
    sumDense<5, Weight>, sumDense<6, Weight>, sumDense<7, Weight>, sumDense<8, Weight>};

template <class Weight>
void multiplyDenseBy(const Weight* weights, const float* in, std::ptrdiff_t numOfFrequencies,
                     std::ptrdiff_t numOfChannels, const PackedWeights& packed, float* out) {
    HWY_ALIGN float sums[kVectorsPerDenseBlock * HWY_MAX_BYTES / sizeof(float)];
    const std::ptrdiff_t numOfLanes = packed.numOfLanes, numOfVectors = getNumOfVectors(packed);
    const bool isAlongChannels = packed.numOfMatrices != numOfChannels;
    const std::ptrdiff_t channelStep = isAlongChannels ? numOfLanes : 1;
    const EvenSplit blocks(numOfVectors, packed.vectorsPerBlock);
    for (std::ptrdiff_t c = 0; c < numOfChannels; c += channelStep)
        for (std::ptrdiff_t b = 0, o = 0; b < blocks.numOfParts; ++b) {
            const std::ptrdiff_t vectors = blocks.sizeOf(b);
            kDenseBlocks<Weight>[static_cast<std::size_t>(vectors - 1)](
                in + c, numOfFrequencies, numOfChannels, weights, isAlongChannels, sums);
            weights += vectors * numOfLanes * packed.numOfTerms;
            if (isAlongChannels) {
                for (std::ptrdiff_t v = 0; v < vectors; ++v, ++o)
                    std::copy_n(sums + v * numOfLanes, numOfLanes, out + o * numOfChannels + c);
            } else {
                const std::ptrdiff_t end = std::min(o + vectors * numOfLanes, numOfFrequencies);
                for (const float* sum = sums; o < end; ++o) out[o * numOfChannels + c] = *sum++;
            }
        }
}

void multiplyDensePlane(const float* in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
                        const PackedWeights& packed, float* out) {
#if HWY_TARGET != HWY_SCALAR && HWY_TARGET != HWY_SSE4
    if (!packed.halves.empty())
        return multiplyDenseBy(packed.halves.data(), in, numOfFrequencies, numOfChannels, packed, out);
#endif
    multiplyDenseBy(packed.values.data(), in, numOfFrequencies, numOfChannels, packed, out);
}

template <int Vectors>
HWY_INLINE void combineVectors(const float* const* rows, const float* factors, std::ptrdiff_t numOfRows,
                               std::ptrdiff_t i, std::size_t lanesOfLastVector, float* out) {
    const Floats d;
    const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(d));
    Vector sums[Vectors];
    std::size_t lanes[Vectors];
    ZEVRANT_UNROLL
    for (int v = 0; v < Vectors; ++v) lanes[v] = v < Vectors - 1 ? hn::Lanes(d) : lanesOfLastVector;
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
    const std::size_t numOfLanes = hn::Lanes(Floats());
    const auto step = static_cast<std::ptrdiff_t>(numOfLanes);
    std::ptrdiff_t i = 0;
    for (; i + vectors * step <= count; i += vectors * step)
        combineVectors<vectors>(rows, factors, numOfRows, i, numOfLanes, out);
    for (; i < count; i += step)
        combineVectors<1>(rows, factors, numOfRows, i, static_cast<std::size_t>(std::min(step, count - i)),
                          out);
}

// What the bands of a rescaling share, for one vector of channels.
struct Bands {
    const float* in;
    std::ptrdiff_t numOfChannels;
    const int* starts;
    const int* counts;
    const float* const* factors;
    float* out;
};

// Adds terms without a test in between, as often as that many are left.
template <int Terms, class Load>
HWY_INLINE void addTermsOfBand(const float*& row, std::ptrdiff_t step, const float*& factor, int& left,
                               Vector& sum, Load load) {
    for (; left >= Terms; left -= Terms) {
        ZEVRANT_UNROLL
        for (int k = 0; k < Terms; ++k)
            sum = hn::MulAdd(load(row += step), hn::Set(Floats(), *++factor), sum);
    }
}

// The sum of a band is one chain of multiply-adds. The processor has those of the next bands under way before
// it ends, as long as a band takes few instructions besides the two loads of each of its terms.
template <class Load, class Store>
HWY_NOINLINE void sumShortBands(const Bands& bands, std::ptrdiff_t begin, std::ptrdiff_t end, Load load,
                                Store store) {
    const auto [in, step, starts, counts, factors, out] = bands;
    for (std::ptrdiff_t b = begin; b < end; ++b) {
        const float* row = in + starts[b] * step;
        const float* factor = factors[b];
        Vector sum = hn::Mul(load(row), hn::Set(Floats(), *factor));
        int left = counts[b] - 1;
        addTermsOfBand<15>(row, step, factor, left, sum, load);
        addTermsOfBand<5>(row, step, factor, left, sum, load);
        addTermsOfBand<1>(row, step, factor, left, sum, load);
        store(sum, out + b * step);
    }
}

constexpr int kFloats = static_cast<int>(hn::MaxLanes(Floats()));
constexpr int kLongBands = 4;  // side by side

// Copies an odd lane of a vector to all its lanes.
class LaneSpreader {
  public:
    HWY_INLINE LaneSpreader() {
        for (int i = 0; i < kFloats / 2; ++i) {
            HWY_ALIGN std::int32_t lanes[kFloats];
            std::fill_n(lanes, kFloats, 2 * i + 1);
            indices[i] = hn::SetTableIndices(Floats(), lanes);
        }
    }
    HWY_INLINE Vector spread(Vector v, int lane) const { return hn::TableLookupLanes(v, indices[lane / 2]); }

  private:
    using Indices = decltype(hn::SetTableIndices(Floats(), static_cast<const std::int32_t*>(nullptr)));
    Indices indices[(kFloats + 1) / 2];
};

// As many terms as a vector has lanes. Two loads per term would hold up the multiply-adds, and so would a
// shuffle per term, so half of the factors come by either way.
template <class Load>
HWY_INLINE void addVectorOfTerms(const LaneSpreader& spreader, std::ptrdiff_t step,
                                 const float* (&rows)[kLongBands], const float* (&factors)[kLongBands],
                                 Vector (&sums)[kLongBands], Load load) {
    const Floats d;
    Vector allFactors[kLongBands];
    ZEVRANT_UNROLL
    for (int b = 0; b < kLongBands; ++b) allFactors[b] = hn::LoadU(d, factors[b]);
    ZEVRANT_UNROLL
    for (int k = 0; k < kFloats; ++k) {
        ZEVRANT_UNROLL
        for (int b = 0; b < kLongBands; ++b) {
            const Vector factor = k % 2 == 0 ? hn::Set(d, factors[b][k]) : spreader.spread(allFactors[b], k);
            sums[b] = hn::MulAdd(load(rows[b]), factor, sums[b]);
            rows[b] = asOneNumber(rows[b] + step);
        }
    }
    ZEVRANT_UNROLL
    for (int b = 0; b < kLongBands; ++b) factors[b] += kFloats;
}

// Bands with at least as many terms as a vector has lanes, side by side as far as all of them reach.
template <class Load, class Store>
HWY_NOINLINE void sumLongBands(const Bands& bands, std::ptrdiff_t end, Load load, Store store) {
    const auto [in, step, starts, counts, allFactors, out] = bands;
    const LaneSpreader spreader;
    for (std::ptrdiff_t first = 0; first < end; first += kLongBands) {
        const float* rows[kLongBands];
        const float* factors[kLongBands];
        Vector sums[kLongBands];
        int shortest = counts[first];
        ZEVRANT_UNROLL
        for (int b = 0; b < kLongBands; ++b) {
            rows[b] = in + starts[first + b] * step;
            factors[b] = allFactors[first + b];
            shortest = std::min(shortest, counts[first + b]);
            sums[b] = hn::Set(Floats(), -0.0f);  // which leaves every first product as it is
        }
        addVectorOfTerms(spreader, step, rows, factors, sums, load);
        int done = kFloats;
        for (; done + kFloats <= shortest; done += kFloats)
            addVectorOfTerms(spreader, step, rows, factors, sums, load);
        ZEVRANT_UNROLL
        for (int b = 0; b < kLongBands; ++b) {
            for (int k = done; k < counts[first + b]; ++k, rows[b] += step)
                sums[b] = hn::MulAdd(load(rows[b]), hn::Set(Floats(), *factors[b]++), sums[b]);
            store(sums[b], out + (first + b) * step);
        }
    }
}

// One vector of channels of all bands. They go side by side, as far as they come in full sets, where all are
// long.
template <class Load, class Store>
void sumBands(const Bands& bands, std::ptrdiff_t numOfBands, Load load, Store store) {
    int fewest = kFloats;
    for (std::ptrdiff_t b = 0; b < numOfBands; ++b) fewest = std::min(fewest, bands.counts[b]);
    const std::ptrdiff_t end = fewest == kFloats ? numOfBands / kLongBands * kLongBands : 0;
    if (end > 0) sumLongBands(bands, end, load, store);
    sumShortBands(bands, end, numOfBands, load, store);
}

void rescaleAllBands(const float* in, std::ptrdiff_t numOfChannels, std::ptrdiff_t numOfBands,
                     const int* starts, const int* counts, const float* const* factors, float* out) {
    if (numOfBands < 1) return;
    const auto numOfLanes = static_cast<std::ptrdiff_t>(hn::Lanes(Floats()));
    std::ptrdiff_t c = 0;
    for (; c + numOfLanes <= numOfChannels; c += numOfLanes) {
        const auto load = [](const float* row) HWY_ATTR { return hn::LoadU(Floats(), row); };
        const auto store = [](Vector sum, float* to) HWY_ATTR { hn::StoreU(sum, Floats(), to); };
        sumBands({in + c, numOfChannels, starts, counts, factors, out + c}, numOfBands, load, store);
    }
    if (c == numOfChannels) return;
    const auto rest = static_cast<std::size_t>(numOfChannels - c);
    const auto load = [rest](const float* row) HWY_ATTR { return loadFirst(row, rest); };
    const auto store = [rest](Vector sum, float* to) HWY_ATTR { storeFirst(sum, to, rest); };
    sumBands({in + c, numOfChannels, starts, counts, factors, out + c}, numOfBands, load, store);
}

}  // namespace
}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zevrant::kernels {

HWY_EXPORT(getGeometry);
HWY_EXPORT(convolveSlices);
HWY_EXPORT(convolveChannelSlices);
HWY_EXPORT(transposeSlice);
HWY_EXPORT(finishRows);
HWY_EXPORT(transposeChannels);
HWY_EXPORT(packAsHalves);
HWY_EXPORT(multiplyDensePlane);
HWY_EXPORT(combineAllRows);
HWY_EXPORT(rescaleAllBands);

namespace {

PackedWeights packBlocks(const float* weights, std::ptrdiff_t numOfMatrices, std::ptrdiff_t numOfTerms,
                         std::ptrdiff_t numOfOutputs, const WeightSteps& steps,
                         std::ptrdiff_t vectorsPerBlock) {
    PackedWeights packed;
    packed.numOfMatrices = std::max<std::ptrdiff_t>(numOfMatrices, 0);
    packed.numOfTerms = std::max<std::ptrdiff_t>(numOfTerms, 0);
    packed.numOfOutputs = std::max<std::ptrdiff_t>(numOfOutputs, 0);
    packed.numOfLanes = HWY_DYNAMIC_DISPATCH(getGeometry)().numOfLanes;
    packed.vectorsPerBlock = vectorsPerBlock;
    const std::ptrdiff_t numOfLanes = packed.numOfLanes, numOfVectors = getNumOfVectors(packed);
    packed.values.resize(
        static_cast<std::size_t>(packed.numOfMatrices * packed.numOfTerms * numOfVectors * numOfLanes));
    float* out = packed.values.data();
    const EvenSplit blocks(numOfVectors, vectorsPerBlock);
    for (std::ptrdiff_t matrix = 0; matrix < packed.numOfMatrices; ++matrix)
        for (std::ptrdiff_t b = 0, begin = 0; b < blocks.numOfParts; ++b) {
            const std::ptrdiff_t end = begin + blocks.sizeOf(b) * numOfLanes;
            for (std::ptrdiff_t term = 0; term < packed.numOfTerms; ++term)
                for (std::ptrdiff_t output = begin; output < end; ++output)
                    *out++ = output < packed.numOfOutputs
                                 ? weights[matrix * steps.matrix + term * steps.term + output * steps.output]
                                 : 0.0f;
            begin = end;
        }
    return packed;
}

void requireSuited(const PackedWeights& weights) {
    if (!isSuited(weights)) throw std::logic_error("Weights are packed for another instruction set");
}

}  // namespace

bool isSuited(const PackedWeights& weights) noexcept {
    return weights.numOfLanes == HWY_DYNAMIC_DISPATCH(getGeometry)().numOfLanes;
}

PackedWeights packWeights(const float* weights, std::ptrdiff_t numOfMatrices, std::ptrdiff_t numOfTerms,
                          std::ptrdiff_t numOfOutputs, const WeightSteps& steps) {
    return packBlocks(weights, numOfMatrices, numOfTerms, numOfOutputs, steps,
                      HWY_DYNAMIC_DISPATCH(getGeometry)().vectorsPerBlock);
}

PackedWeights packConvolution(const float* weights, const Convolution& shape) {
    return packWeights(weights, 1, shape.numOfSlices * shape.numOfTaps * shape.numOfInputs,
                       shape.numOfOutputs, {0, shape.numOfOutputs, 1});
}

void convolve(const Convolution& shape, const float* const* slices, const PackedWeights& weights,
              const float* first, std::ptrdiff_t firstStep, float* out, const SliceToStore& store) {
    requireSuited(weights);
    HWY_DYNAMIC_DISPATCH(convolveSlices)(shape, slices, weights, first, firstStep, out, store);
}

void convolveChannels(const Convolution& shape, const float* const* slices, const float* weights,
                      const float* first, std::ptrdiff_t firstStep, float* out, const SliceToStore& store) {
    HWY_DYNAMIC_DISPATCH(convolveChannelSlices)(shape, slices, weights, first, firstStep, out, store);
}

void multiplyMatrix(const float* in, std::ptrdiff_t numOfRows, const PackedWeights& weights,
                    const float* first, std::ptrdiff_t firstStep, float* out) {
    convolve({1, 1, weights.numOfTerms, weights.numOfOutputs, numOfRows, numOfRows, 1, 0}, &in, weights,
             first, firstStep, out);
}

// The taps of one stride make a matrix where their outputs share vectors or widen a tile of one vector, and
// the kernel is a whole number of strides; otherwise each tap is a matrix. With few outputs their vectors
// would be mostly padding; then all sums of an input frequency make one matrix, unless they are too many for
// the table.
PackedWeights packTransposed(const float* weights, const TransposedConvolution& shape) {
    const std::ptrdiff_t stride = shape.frequencyStride, outputs = shape.numOfOutputs;
    const std::ptrdiff_t numOfLanes = HWY_DYNAMIC_DISPATCH(getGeometry)().numOfLanes;
    const auto padded = [=](std::ptrdiff_t count) {
        return (count + numOfLanes - 1) / numOfLanes * numOfLanes;
    };
    const bool isGrouped = stride > 1 && shape.numOfTaps % stride == 0 && outputs <= numOfLanes &&
                           stride * outputs <= kMaxTableWidth;
    const std::ptrdiff_t width = isGrouped ? stride * outputs : outputs;
    const std::ptrdiff_t numOfSums = shape.numOfSlots * shape.numOfTaps * outputs;
    const bool isWide =
        numOfSums <= kMaxTableWidth && 5 * padded(numOfSums) < 4 * numOfSums / width * padded(width);
    if (isWide) return packWeights(weights, 1, shape.numOfInputs, numOfSums, {0, 1, shape.numOfInputs});
    return packWeights(weights, numOfSums / width, shape.numOfInputs, width,
                       {width * shape.numOfInputs, 1, shape.numOfInputs});
}

void convolveTransposed(const TransposedConvolution& shape, const float* in, const PackedWeights& weights,
                        float* const* slots, const WholeSlot& whole) {
    requireSuited(weights);
    HWY_DYNAMIC_DISPATCH(transposeSlice)(shape, in, weights, slots, whole);
}

void finishSlot(float* slot, std::ptrdiff_t outputFrequencies, std::ptrdiff_t numOfOutputs,
                const WholeSlot& whole) {
    HWY_DYNAMIC_DISPATCH(finishRows)(slot, whole.bias, outputFrequencies, numOfOutputs, whole.out);
}

void convolveTransposedChannels(const TransposedConvolution& shape, const float* in, const float* weights,
                                float* const* slots) {
    HWY_DYNAMIC_DISPATCH(transposeChannels)(shape, in, weights, slots);
}

namespace {

// Vectors run along channels where these fill them, otherwise along the output frequency.
PackedWeights packDenseValues(const float* weights, std::ptrdiff_t numOfFrequencies,
                              std::ptrdiff_t numOfChannels) {
    const std::ptrdiff_t numOfLanes = HWY_DYNAMIC_DISPATCH(getGeometry)().numOfLanes;
    const std::ptrdiff_t f = numOfFrequencies, c = numOfChannels;
    if (c <= 0 || c % numOfLanes != 0 || numOfLanes == 1)
        return packBlocks(weights, c, f, f, {1, c, f * c}, kVectorsPerDenseBlock);
    // The outputs of a matrix are the lanes of all output frequencies, one after the other.
    PackedWeights packed;
    packed.numOfMatrices = c / numOfLanes;
    packed.numOfTerms = f;
    packed.numOfOutputs = f * numOfLanes;
    packed.numOfLanes = numOfLanes;
    packed.vectorsPerBlock = kVectorsPerDenseBlock;
    packed.values.resize(static_cast<std::size_t>(f * f * c));
    float* out = packed.values.data();
    const EvenSplit blocks(f, kVectorsPerDenseBlock);
    for (std::ptrdiff_t channel = 0; channel < c; channel += numOfLanes)
        for (std::ptrdiff_t b = 0, o = 0; b < blocks.numOfParts; o += blocks.sizeOf(b++))
            for (std::ptrdiff_t i = 0; i < f; ++i)
                for (std::ptrdiff_t v = 0; v < blocks.sizeOf(b); ++v, out += numOfLanes)
                    std::copy_n(weights + ((o + v) * f + i) * c + channel, numOfLanes, out);
    return packed;
}

}  // namespace

PackedWeights packDense(const float* weights, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels) {
    PackedWeights packed = packDenseValues(weights, numOfFrequencies, numOfChannels);
    const std::size_t count = packed.values.size();
    if (count < kMinWeightsAsHalves) return packed;
    packed.halves.resize(count);
    if (HWY_DYNAMIC_DISPATCH(packAsHalves)(packed.values.data(), count, packed.halves.data()))
        packed.values = AlignedValues();
    else
        packed.halves.clear();
    return packed;
}

void multiplyDense(const float* in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
                   const PackedWeights& weights, float* out) {
    requireSuited(weights);
    HWY_DYNAMIC_DISPATCH(multiplyDensePlane)(in, numOfFrequencies, numOfChannels, weights, out);
}

void combineRows(const float* const* rows, const float* factors, std::ptrdiff_t numOfRows,
                 std::ptrdiff_t count, float* out) {
    HWY_DYNAMIC_DISPATCH(combineAllRows)(rows, factors, numOfRows, count, out);
}

void rescaleBands(const float* in, std::ptrdiff_t numOfChannels, std::ptrdiff_t numOfBands, const int* starts,
                  const int* counts, const float* const* factors, float* out) {
    HWY_DYNAMIC_DISPATCH(rescaleAllBands)(in, numOfChannels, numOfBands, starts, counts, factors, out);
}

}  // namespace zevrant::kernels

#endif  // HWY_ONCE
