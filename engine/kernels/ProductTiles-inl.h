// What the products share: the inner loop over terms, and the walk over the blocks of outputs and the tiles
// of rows. Compiled once per instruction set, like all that includes it.
//
// A tile of sums stays in registers while its terms stream past. Columns of outputs are as wide as a tile,
// rows are cut into tiles of even size; neither changes the order of the terms of any one output.
#if defined(ZEVRANT_KERNELS_PRODUCT_TILES_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef ZEVRANT_KERNELS_PRODUCT_TILES_INL_H
#undef ZEVRANT_KERNELS_PRODUCT_TILES_INL_H
#else
#define ZEVRANT_KERNELS_PRODUCT_TILES_INL_H
#endif

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "kernels/EvenSplit.h"
#include "kernels/PackedWeights.h"
#include "simd/Dispatch.h"
#include "simd/Tiles-inl.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {

using namespace zevrant::simd::HWY_NAMESPACE;

// Weights that every tile reads anew stay in the first level of cache up to this number; more are asked
// for some terms ahead, where the processor gains from that.
inline constexpr std::ptrdiff_t kMaxWeightsAtHand = 6144;
inline constexpr std::ptrdiff_t kTermsAhead = 8;

// Adds numOfTerms products to each sum of a tile. The inputs of a row lie side by side, those of the next
// row step further; each weight vector is loaded once for all rows, each input once for all vectors.
// Rows before First and from Last on are left out.
template <int Rows, int Vectors, bool isAhead, int First = 0, int Last = Rows>
HWY_INLINE void addTerms(const float* HWY_RESTRICT in, std::ptrdiff_t step, const float* HWY_RESTRICT weights,
                         std::ptrdiff_t numOfTerms, Tile<Rows, Vectors>& sums) {
    const Floats d;
    constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
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

// A kernel is a type with the column that its tiles share, the largest number of rows for each width, and
// sumTile<rows, vectors>(column, row), which computes that many rows from row on.
template <class Kernel>
using SumTile = void (*)(const typename Kernel::Column&, std::ptrdiff_t row);
template <class Kernel>
using TilesByRows = std::array<SumTile<Kernel>, kMaxRows[0]>;

template <class Kernel, int Vectors, int... Rows>
constexpr TilesByRows<Kernel> listTilesOfWidth(std::integer_sequence<int, Rows...>) {
    return {Kernel::template sumTile<Rows + 1, Vectors>...};
}

template <class Kernel, int... Vectors>
constexpr std::array<TilesByRows<Kernel>, kMaxVectors> listTiles(std::integer_sequence<int, Vectors...>) {
    return {listTilesOfWidth<Kernel, Vectors + 1>(
        std::make_integer_sequence<int, Kernel::maxRows[Vectors]>())...};
}

// By vectors - 1 and rows - 1.
template <class Kernel>
constexpr auto kTilesOf = listTiles<Kernel>(std::make_integer_sequence<int, kMaxVectors>());

// The rows of a column from begin to end. beforeTile(lastRow) is told how far each tile reaches.
template <class Kernel, class BeforeTile>
void sumRows(const typename Kernel::Column& column, std::size_t width, std::ptrdiff_t begin,
             std::ptrdiff_t end, BeforeTile beforeTile) {
    const EvenSplit tiles(end - begin, Kernel::maxRows[width]);
    for (std::ptrdiff_t t = 0, row = begin; t < tiles.numOfParts; ++t) {
        const std::ptrdiff_t rows = tiles.sizeOf(t);
        beforeTile(row + rows - 1);
        kTilesOf<Kernel>[width][static_cast<std::size_t>(rows - 1)](column, row);
        row += rows;
    }
}

// A block of outputs of a packed matrix.
struct OutputBlock {
    const float* weights;
    std::ptrdiff_t firstOutput;
    std::size_t width;  // vectors - 1
    std::size_t lanesOfLastVector;
    bool isAhead;  // so many weights that they are asked for ahead
};

template <class Use>
void forEachBlock(const PackedWeights& packed, std::ptrdiff_t matrix, Use use) {
    const std::ptrdiff_t numOfVectors = getNumOfVectors(packed), numOfLanes = packed.numOfLanes;
    const EvenSplit blocks(numOfVectors, packed.vectorsPerBlock);
    const float* weights = packed.values.data() + matrix * numOfVectors * numOfLanes * packed.numOfTerms;
    std::ptrdiff_t output = 0;
    for (std::ptrdiff_t b = 0; b < blocks.numOfParts; ++b) {
        const std::ptrdiff_t vectors = blocks.sizeOf(b), lanes = vectors * numOfLanes;
        const std::ptrdiff_t numOfOutputs = std::min(lanes, packed.numOfOutputs - output);
        use(OutputBlock{weights, output, static_cast<std::size_t>(vectors - 1),
                        static_cast<std::size_t>(numOfOutputs - (vectors - 1) * numOfLanes),
                        packed.numOfTerms * lanes > kMaxWeightsAtHand && simd::asksAhead()});
        output += numOfOutputs;
        weights += packed.numOfTerms * lanes;
    }
}

}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
