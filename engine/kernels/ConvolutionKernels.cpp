#include "kernels/ConvolutionKernels.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "simd/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/ConvolutionKernels.cpp"
#include "hwy/foreach_target.h"  // from here on once per instruction set

#include "kernels/NarrowTiles-inl.h"
#include "kernels/ProductTiles-inl.h"
#include "kernels/SliceStoring-inl.h"
#include "simd/Dispatch.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {
namespace {

// One column of a convolution: a block of output vectors, for all output frequencies. A row of a tile is an
// output frequency. The sums stay in registers from the first slice to the last, so an output is stored once.
struct ConvolutionColumn {
    Convolution shape;
    const float* const* slices;
    const float* weights;
    const float* first;  // may be null
    std::ptrdiff_t firstStep;
    float* out;
    std::size_t lanesOfLastVector;
};

// Where all rows have all taps: taps and inputs of a slice are one run of terms.
template <bool isAhead>
struct TileInside {
    using Column = ConvolutionColumn;
    static constexpr auto maxRows = kMaxRows;

    template <int Rows, int Vectors>
    static void sumTile(const Column& column, std::ptrdiff_t f) {
        const Convolution& shape = column.shape;
        const std::size_t lanes = column.lanesOfLastVector;
        const std::ptrdiff_t p = shape.start + f * shape.frequencyStride;
        const std::ptrdiff_t step = shape.frequencyStride * shape.numOfInputs;
        const std::ptrdiff_t numOfTerms = shape.numOfTaps * shape.numOfInputs;
        Tile<Rows, Vectors> sums;
        startTile<Rows, Vectors>(column.first ? column.first + f * column.firstStep : nullptr,
                                 column.firstStep, lanes, sums);
        const float* weights = column.weights;
        for (std::ptrdiff_t r = 0; r < shape.numOfSlices; ++r) {
            addTerms<Rows, Vectors, isAhead>(column.slices[r] + p * shape.numOfInputs, step, weights,
                                             numOfTerms, sums);
            weights += numOfTerms * Vectors * static_cast<std::ptrdiff_t>(kNumOfLanes);
        }
        storeTile<Rows, Vectors>(sums, column.out + f * shape.numOfOutputs, shape.numOfOutputs, lanes);
    }
};

// One tap at the edge of the band, where not all rows have it: that of the first row is at frequency p.
template <int Rows, int Vectors>
HWY_INLINE void addTapOfSomeRows(const Convolution& shape, std::ptrdiff_t p, const float* HWY_RESTRICT in,
                                 const float* HWY_RESTRICT weights, Tile<Rows, Vectors>& sums) {
    const Floats d;
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
    const std::ptrdiff_t stride = shape.frequencyStride, step = stride * shape.numOfInputs;
    std::ptrdiff_t begin = 0, end = Rows;
    while (begin < end && p + begin * stride < 0) ++begin;
    while (begin < end && p + (end - 1) * stride >= shape.inputFrequencies) --end;
    if (begin == end) return;
    if constexpr (Rows > 1) {  // usually one row misses it
        if (begin == 1 && end == Rows)
            return addTerms<Rows, Vectors, false, 1, Rows>(in, step, weights, shape.numOfInputs, sums);
        if (begin == 0 && end == Rows - 1)
            return addTerms<Rows, Vectors, false, 0, Rows - 1>(in, step, weights, shape.numOfInputs, sums);
    }
    for (std::ptrdiff_t term = 0; term < shape.numOfInputs; ++term, weights += Vectors * numOfLanes) {
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

constexpr std::ptrdiff_t kMaxEdgeRows = 6;

// At an edge of the band: the taps that all rows have are one run, and those before and after them go alone.
struct TileAtEdge {
    using Column = ConvolutionColumn;
    static constexpr auto maxRows = [] {
        std::array<int, kMaxVectors> rows = {};
        for (int& row : rows) row = kMaxEdgeRows;
        return rows;
    }();

    template <int Rows, int Vectors>
    static void sumTile(const Column& column, std::ptrdiff_t f) {
        const Convolution& shape = column.shape;
        const std::size_t lanes = column.lanesOfLastVector;
        const std::ptrdiff_t numOfInputs = shape.numOfInputs, numOfTaps = shape.numOfTaps;
        const std::ptrdiff_t p = shape.start + f * shape.frequencyStride;
        const std::ptrdiff_t step = shape.frequencyStride * numOfInputs;
        const std::ptrdiff_t lastRow = (Rows - 1) * shape.frequencyStride;
        const std::ptrdiff_t begin = std::clamp<std::ptrdiff_t>(-p, 0, numOfTaps);
        const std::ptrdiff_t end = std::clamp(shape.inputFrequencies - p - lastRow, begin, numOfTaps);
        Tile<Rows, Vectors> sums;
        startTile<Rows, Vectors>(column.first ? column.first + f * column.firstStep : nullptr,
                                 column.firstStep, lanes, sums);
        const float* weights = column.weights;
        const std::ptrdiff_t weightsPerTap = numOfInputs * Vectors * static_cast<std::ptrdiff_t>(kNumOfLanes);
        for (std::ptrdiff_t r = 0; r < shape.numOfSlices; ++r, weights += numOfTaps * weightsPerTap) {
            const float* in = column.slices[r] + p * numOfInputs;
            for (std::ptrdiff_t k = 0; k < numOfTaps; ++k) {
                const float *tapIn = in + k * numOfInputs, *tapWeights = weights + k * weightsPerTap;
                if (k < begin || k >= end) {
                    addTapOfSomeRows<Rows, Vectors>(shape, p + k, tapIn, tapWeights, sums);
                } else {
                    addTerms<Rows, Vectors, false>(tapIn, step, tapWeights, (end - begin) * numOfInputs,
                                                   sums);
                    k = end - 1;
                }
            }
        }
        storeTile<Rows, Vectors>(sums, column.out + f * shape.numOfOutputs, shape.numOfOutputs, lanes);
    }
};

// The output frequencies that have all taps. Outside of them lie the rows that miss one, and as many beside
// those as make a tile.
struct RowsInside {
    explicit RowsInside(const Convolution& shape) {
        const std::ptrdiff_t rows = shape.outputFrequencies, stride = shape.frequencyStride;
        const std::ptrdiff_t before = ceilOfQuotient(-shape.start, stride);
        const std::ptrdiff_t behind =
            rows - ceilOfQuotient(shape.inputFrequencies - shape.numOfTaps - shape.start + 1, stride);
        begin = before > 0 ? std::min(rows, std::max(before, kMaxEdgeRows)) : 0;
        end = behind > 0 ? std::max(begin, rows - std::max(behind, kMaxEdgeRows)) : rows;
    }
    std::ptrdiff_t begin, end;
};

void sumColumns(const Convolution& shape, const float* const* slices, const PackedWeights& packed,
                std::ptrdiff_t matrix, const float* first, std::ptrdiff_t firstStep, float* out,
                const SliceToStore& store) {
    SliceStoring storing(store, shape.inputFrequencies * shape.numOfInputs);
    if (shape.outputFrequencies < 1) return storing.copyAll();
    const RowsInside inside(shape);
    const auto storeUpTo = [&](std::ptrdiff_t lastRow) HWY_ATTR {
        storing.copyUpTo((shape.start + lastRow * shape.frequencyStride + shape.numOfTaps) *
                         shape.numOfInputs);
    };
    forEachBlock(packed, matrix, [&](const OutputBlock& block) HWY_ATTR {
        const ConvolutionColumn column = {shape,
                                          slices,
                                          block.weights,
                                          first ? first + block.firstOutput : nullptr,
                                          firstStep,
                                          out + block.firstOutput,
                                          block.lanesOfLastVector};
        sumRows<TileAtEdge>(column, block.width, 0, inside.begin, storeUpTo);
        if (isNarrow(shape, first, firstStep) &&
            inside.end - inside.begin >= static_cast<std::ptrdiff_t>(kNumOfLanes))
            findNarrowRows<decltype(storeUpTo)>(shape)({shape, slices, block.weights, first, firstStep, out},
                                                       inside.begin, inside.end, storeUpTo);
        else if (block.isAhead)
            sumRows<TileInside<true>>(column, block.width, inside.begin, inside.end, storeUpTo);
        else
            sumRows<TileInside<false>>(column, block.width, inside.begin, inside.end, storeUpTo);
        sumRows<TileAtEdge>(column, block.width, inside.end, shape.outputFrequencies, storeUpTo);
    });
    storing.copyAll();
}

}  // namespace
}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zevrant::kernels {

ZEVRANT_DISPATCH_TABLE(sumColumns);

PackedWeights packConvolution(const float* weights, const Convolution& shape) {
    return packWeights(weights, 1, shape.numOfSlices * shape.numOfTaps * shape.numOfInputs,
                       shape.numOfOutputs, {0, shape.numOfOutputs, 1});
}

void convolve(const Convolution& shape, const float* const* slices, const PackedWeights& weights,
              const float* first, std::ptrdiff_t firstStep, float* out, const SliceToStore& store) {
    requireSuited(weights);
    ZEVRANT_DISPATCH(sumColumns)(shape, slices, weights, 0, first, firstStep, out, store);
}

void multiplyMatrix(const float* in, std::ptrdiff_t numOfRows, const PackedWeights& weights,
                    const float* first, std::ptrdiff_t firstStep, float* out, std::ptrdiff_t matrix) {
    requireSuited(weights);
    const Convolution shape = {1, 1, weights.numOfTerms, weights.numOfOutputs, numOfRows, numOfRows, 1, 0};
    ZEVRANT_DISPATCH(sumColumns)(shape, &in, weights, matrix, first, firstStep, out, {});
}

}  // namespace zevrant::kernels

#endif  // HWY_ONCE
