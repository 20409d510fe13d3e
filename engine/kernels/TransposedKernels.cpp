#include "kernels/TransposedKernels.h"

#include <algorithm>
#include <cstddef>

#include "kernels/ConvolutionKernels.h"
#include "simd/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/TransposedKernels.cpp"
#include "hwy/foreach_target.h"  // from here on once per instruction set

#include "kernels/ProductTiles-inl.h"
#include "simd/Dispatch.h"

#ifndef ZEVRANT_KERNELS_TRANSPOSED_ONCE
#define ZEVRANT_KERNELS_TRANSPOSED_ONCE

namespace zevrant::kernels {
namespace {

// The table of sums for few outputs.
constexpr std::ptrdiff_t kTableRows = 24;
constexpr std::ptrdiff_t kMaxTableWidth = 256;

// Input frequencies whose tap k falls into the band.
struct ValidInputs {
    ValidInputs(const TransposedConvolution& shape, std::ptrdiff_t k)
        : begin(std::max<std::ptrdiff_t>(0, ceilOfQuotient(-shape.start - k, shape.frequencyStride))),
          end(std::min(shape.inputFrequencies,
                       ceilOfQuotient(shape.outputFrequencies - shape.start - k, shape.frequencyStride))) {}

    std::ptrdiff_t begin, end;
};

// Input frequencies whose taps from k on, as many as a matrix has, all fall into the band.
ValidInputs findInputsInside(const TransposedConvolution& shape, std::ptrdiff_t k, std::ptrdiff_t taps) {
    ValidInputs inside(shape, k);
    inside.begin = std::min(inside.begin, shape.inputFrequencies);
    inside.end = std::clamp(ValidInputs(shape, k + taps - 1).end, inside.begin, shape.inputFrequencies);
    return inside;
}

}  // namespace
}  // namespace zevrant::kernels

#endif

HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {
namespace {

// One column of a product of rows of inputs with one matrix, whose sums are added to rows of out.
struct AddedColumn {
    const float* in;
    std::ptrdiff_t numOfInputs;
    const float* weights;
    float* out;
    std::ptrdiff_t outStep;
    WholeSlot whole;  // where out goes on to, its rows outStep apart as well
    std::size_t lanesOfLastVector;
};

// The sums start from zero and are added to out when they are whole; then out goes on, where it is whole.
template <bool isAhead>
struct AddedTile {
    using Column = AddedColumn;
    static constexpr auto maxRows = kMaxRows;

    template <int Rows, int Vectors>
    static void sumTile(const Column& column, std::ptrdiff_t row) {
        const std::size_t lanes = column.lanesOfLastVector;
        const std::ptrdiff_t numOfInputs = column.numOfInputs, outStep = column.outStep;
        Tile<Rows, Vectors> sums, others;
        zeroTile<Rows, Vectors>(sums);
        addTerms<Rows, Vectors, isAhead>(column.in + row * numOfInputs, numOfInputs, column.weights,
                                         numOfInputs, sums);
        float* out = column.out + row * outStep;
        loadTile<Rows, Vectors>(out, outStep, lanes, others);
        addTile<Rows, Vectors>(others, sums);
        if (column.whole.out) {
            clearTile<Rows, Vectors>(out, outStep, lanes);
            if (column.whole.bias) {
                loadTile<Rows, Vectors>(column.whole.bias, 0, lanes, others);
                addTile<Rows, Vectors>(others, sums);
            }
            out = column.whole.out + row * outStep;
        }
        storeTile<Rows, Vectors>(sums, out, outStep, lanes);
    }
};

// Adds the product of numOfRows rows of inputs with one matrix to rows of out, which lie outStep apart.
void addProducts(const float* in, std::ptrdiff_t numOfRows, const PackedWeights& packed,
                 std::ptrdiff_t matrix, float* out, std::ptrdiff_t outStep, const WholeSlot& whole) {
    const auto nothing = [](std::ptrdiff_t) {};
    forEachBlock(packed, matrix, [&](const OutputBlock& block) HWY_ATTR {
        const std::ptrdiff_t first = block.firstOutput;
        const AddedColumn column = {
            in,
            packed.numOfTerms,
            block.weights,
            out + first,
            outStep,
            {whole.bias ? whole.bias + first : nullptr, whole.out ? whole.out + first : nullptr},
            block.lanesOfLastVector};
        if (block.isAhead)
            sumRows<AddedTile<true>>(column, block.width, 0, numOfRows, nothing);
        else
            sumRows<AddedTile<false>>(column, block.width, 0, numOfRows, nothing);
    });
}

// A slot that is whole goes on: out = slot + bias, and the slot is cleared. Rows shorter than a vector run
// together: their biases repeat every length vectors.
void finishRows(float* slot, const float* bias, std::ptrdiff_t numOfRows, std::ptrdiff_t length, float* out) {
    if (numOfRows <= 0) return;  // and then a bias may be shorter than the channels that are not there
    const Floats d;
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
    HWY_ALIGN float pattern[kNumOfLanes * kNumOfLanes];
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
                multiplyMatrix(in + row * shape.numOfInputs, 1, weights, nullptr, 0, sums, matrix);
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
                addProducts(in + begin * shape.numOfInputs, end - begin, weights, matrix,
                            out + begin * outStep, outStep, rows);
        }
    if (whole.out) finishOtherRows(shape, taps, slots[0], whole);
}

// inOut[i] += values[i] in rows of a few values, which lie valuesStep and inOutStep apart.
void addShortRows(const float* values, std::ptrdiff_t valuesStep, float* inOut, std::ptrdiff_t inOutStep,
                  std::ptrdiff_t length, std::ptrdiff_t numOfRows) {
    const hn::CappedTag<float, 4> few;
    constexpr auto step = static_cast<std::ptrdiff_t>(hn::MaxLanes(few));
    std::ptrdiff_t first = 0;
    for (; first + step <= length; first += step)
        for (std::ptrdiff_t row = 0; row < numOfRows; ++row) {
            float* out = inOut + row * inOutStep + first;
            const auto sum = hn::LoadU(few, values + row * valuesStep + first);
            hn::StoreU(hn::Add(hn::LoadU(few, out), sum), few, out);
        }
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
        multiplyMatrix(in + i * shape.numOfInputs, count, weights, nullptr, 0, table);
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

}  // namespace
}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zevrant::kernels {

ZEVRANT_DISPATCH_TABLE(transposeSlice);
ZEVRANT_DISPATCH_TABLE(finishRows);

// The taps of one stride make a matrix where their outputs share vectors or widen a tile of one vector, and
// the kernel is a whole number of strides; otherwise each tap is a matrix. With few outputs their vectors
// would be mostly padding; then all sums of an input frequency make one matrix, unless they are too many for
// the table.
PackedWeights packTransposed(const float* weights, const TransposedConvolution& shape) {
    const std::ptrdiff_t stride = shape.frequencyStride, outputs = shape.numOfOutputs;
    const std::ptrdiff_t numOfLanes = getNumOfLanes();
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
    ZEVRANT_DISPATCH(transposeSlice)(shape, in, weights, slots, whole);
}

void finishSlot(float* slot, std::ptrdiff_t outputFrequencies, std::ptrdiff_t numOfOutputs,
                const WholeSlot& whole) {
    ZEVRANT_DISPATCH(finishRows)(slot, whole.bias, outputFrequencies, numOfOutputs, whole.out);
}

}  // namespace zevrant::kernels

#endif  // HWY_ONCE
