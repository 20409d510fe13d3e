// Convolutions of a few channels into a few, in steps of one frequency. Vectors of outputs would leave most
// of their lanes empty, so here a lane is an output frequency: the slices are taken apart into their channels
// as they are loaded, and put together again as they are stored. An output meets its terms in the usual
// order. Compiled once per instruction set, like all that includes it.
#if defined(ZEVRANT_KERNELS_NARROW_TILES_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef ZEVRANT_KERNELS_NARROW_TILES_INL_H
#undef ZEVRANT_KERNELS_NARROW_TILES_INL_H
#else
#define ZEVRANT_KERNELS_NARROW_TILES_INL_H
#endif

#include <array>
#include <cstddef>

#include "kernels/PackedWeights.h"
#include "kernels/Shapes.h"
#include "simd/Tiles-inl.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {

using namespace zevrant::simd::HWY_NAMESPACE;

inline constexpr int kMaxNarrowChannels = 4;

// Vectors of frequencies side by side: enough chains to hide the latency of a multiply-add, and few enough
// sums for the registers.
template <int Outputs>
inline constexpr int kNarrowVectors = Outputs == 1   ? 8
                                      : Outputs == 2 ? 4
                                                     : 2;

template <int Channels>
HWY_INLINE void loadChannels(const float* in, Vector (&x)[Channels]) {
    const Floats d;
    if constexpr (Channels == 1) x[0] = hn::LoadU(d, in);
    if constexpr (Channels == 2) hn::LoadInterleaved2(d, in, x[0], x[1]);
    if constexpr (Channels == 3) hn::LoadInterleaved3(d, in, x[0], x[1], x[2]);
    if constexpr (Channels == 4) hn::LoadInterleaved4(d, in, x[0], x[1], x[2], x[3]);
}

template <int Channels>
HWY_INLINE void storeChannels(const Vector (&x)[Channels], float* out) {
    const Floats d;
    if constexpr (Channels == 1) hn::StoreU(x[0], d, out);
    if constexpr (Channels == 2) hn::StoreInterleaved2(x[0], x[1], d, out);
    if constexpr (Channels == 3) hn::StoreInterleaved3(x[0], x[1], x[2], d, out);
    if constexpr (Channels == 4) hn::StoreInterleaved4(x[0], x[1], x[2], x[3], d, out);
}

// What the tiles of a convolution share. Weights as packed: a vector of outputs for each term.
struct NarrowColumn {
    const Convolution& shape;
    const float* const* slices;
    const float* weights;
    const float* first;  // may be null
    std::ptrdiff_t firstStep;
    float* out;
};

// Vectors vectors of output frequencies from f on, all of which have all taps.
template <int Inputs, int Outputs, int Vectors>
HWY_INLINE void sumNarrowTile(const NarrowColumn& column, std::ptrdiff_t f) {
    const Floats d;
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
    const Convolution& shape = column.shape;
    Vector sums[Vectors][Outputs];
    ZEVRANT_UNROLL
    for (int v = 0; v < Vectors; ++v) {
        if (column.first && column.firstStep != 0) {
            loadChannels<Outputs>(column.first + (f + v * numOfLanes) * Outputs, sums[v]);
            continue;
        }
        ZEVRANT_UNROLL
        for (int o = 0; o < Outputs; ++o)
            sums[v][o] = column.first ? hn::Set(d, column.first[o]) : hn::Zero(d);
    }
    const float* weights = column.weights;
    for (std::ptrdiff_t r = 0; r < shape.numOfSlices; ++r) {
        const float* in = column.slices[r] + (shape.start + f) * Inputs;
        for (std::ptrdiff_t k = 0; k < shape.numOfTaps; ++k, in += Inputs, weights += Inputs * numOfLanes) {
            ZEVRANT_UNROLL
            for (int v = 0; v < Vectors; ++v) {
                Vector x[Inputs];
                loadChannels<Inputs>(in + v * numOfLanes * Inputs, x);
                ZEVRANT_UNROLL
                for (int c = 0; c < Inputs; ++c) {
                    ZEVRANT_UNROLL
                    for (int o = 0; o < Outputs; ++o)
                        sums[v][o] = hn::MulAdd(x[c], hn::Set(d, weights[c * numOfLanes + o]), sums[v][o]);
                }
            }
        }
    }
    ZEVRANT_UNROLL
    for (int v = 0; v < Vectors; ++v)
        storeChannels<Outputs>(sums[v], column.out + (f + v * numOfLanes) * Outputs);
}

// The output frequencies from begin to end, a vector or more, all of which have all taps. The last vector
// takes some of them once more: they come out the same. beforeTile(lastRow) is told how far each tile
// reaches.
template <int Inputs, int Outputs, class BeforeTile>
void sumNarrowRows(const NarrowColumn& column, std::ptrdiff_t begin, std::ptrdiff_t end,
                   const BeforeTile& beforeTile) {
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
    constexpr int vectors = kNarrowVectors<Outputs>;
    std::ptrdiff_t f = begin;
    for (; f + vectors * numOfLanes <= end; f += vectors * numOfLanes) {
        beforeTile(f + vectors * numOfLanes - 1);
        sumNarrowTile<Inputs, Outputs, vectors>(column, f);
    }
    beforeTile(end - 1);
    for (; f + numOfLanes <= end; f += numOfLanes) sumNarrowTile<Inputs, Outputs, 1>(column, f);
    if (f < end) sumNarrowTile<Inputs, Outputs, 1>(column, end - numOfLanes);
}

// Whether lanes are better filled with frequencies than with outputs.
inline bool isNarrow(const Convolution& shape, const float* first, std::ptrdiff_t firstStep) {
    return kNumOfLanes >= 4 && shape.frequencyStride == 1 && shape.numOfInputs >= 1 &&
           shape.numOfInputs <= kMaxNarrowChannels && shape.numOfOutputs >= 1 &&
           shape.numOfOutputs <= kMaxNarrowChannels &&
           2 * shape.numOfOutputs <= static_cast<std::ptrdiff_t>(kNumOfLanes) &&
           (!first || firstStep == 0 || firstStep == shape.numOfOutputs);
}

template <class BeforeTile>
using SumNarrowRows = void (*)(const NarrowColumn&, std::ptrdiff_t, std::ptrdiff_t, const BeforeTile&);

// By inputs - 1 and outputs - 1.
template <class BeforeTile>
SumNarrowRows<BeforeTile> findNarrowRows(const Convolution& shape) {
    constexpr std::array<std::array<SumNarrowRows<BeforeTile>, kMaxNarrowChannels>, kMaxNarrowChannels>
        table = {{{sumNarrowRows<1, 1, BeforeTile>, sumNarrowRows<1, 2, BeforeTile>,
                   sumNarrowRows<1, 3, BeforeTile>, sumNarrowRows<1, 4, BeforeTile>},
                  {sumNarrowRows<2, 1, BeforeTile>, sumNarrowRows<2, 2, BeforeTile>,
                   sumNarrowRows<2, 3, BeforeTile>, sumNarrowRows<2, 4, BeforeTile>},
                  {sumNarrowRows<3, 1, BeforeTile>, sumNarrowRows<3, 2, BeforeTile>,
                   sumNarrowRows<3, 3, BeforeTile>, sumNarrowRows<3, 4, BeforeTile>},
                  {sumNarrowRows<4, 1, BeforeTile>, sumNarrowRows<4, 2, BeforeTile>,
                   sumNarrowRows<4, 3, BeforeTile>, sumNarrowRows<4, 4, BeforeTile>}}};
    return table[static_cast<std::size_t>(shape.numOfInputs - 1)]
                [static_cast<std::size_t>(shape.numOfOutputs - 1)];
}

}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
