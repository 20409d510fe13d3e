#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "DspCore/RecyclingPool.h"

// The blocked kernels of the neural layers: many sums of products side by side.
//
// Order     Every output value takes its terms in the order that its comment states, one multiply-add per
//           term, fused where the processor has that. Blocking runs over outputs only, so a result is the
//           same on every processor with fused multiply-adds and the same as the plain loop's.
// Shapes    A plane is a time slice of [frequencies, channels], channels contiguous.
// Pointers  Need the alignment of a float only. Outputs overlap no input.
// Memory    Packing allocates; running a kernel does not.
// Errors    Sizes are the caller's care. std::logic_error for packed weights that are not isSuited;
//           std::bad_alloc from packing.
// Threads   Free of state; any thread at any time, as long as outputs are not shared.
namespace zevrant::kernels {

using AlignedValues = std::vector<float, RecyclingAllocator<float>>;

// Matrices of weights in the order in which the kernels of the running processor read them:
// [matrix][block of output vectors][term][vector of the block][lane], with zeros behind the last output.
// A block holds as many vectors as a tile of sums is wide. Packed once, when a model is loaded.
struct PackedWeights {
    std::ptrdiff_t numOfMatrices = 0;
    std::ptrdiff_t numOfTerms = 0;    // length of each sum
    std::ptrdiff_t numOfOutputs = 0;  // sums per matrix
    std::ptrdiff_t numOfLanes = 0;    // of the instruction set that the order suits
    std::ptrdiff_t vectorsPerBlock = 0;
    AlignedValues values;
    std::vector<std::uint16_t, RecyclingAllocator<std::uint16_t>>
        halves;  // in place of values: see packDense()
};

// Where the weight of a matrix, a term and an output stands in unpacked weights.
struct WeightSteps {
    std::ptrdiff_t matrix, term, output;
};

// False when the order suits another instruction set than the one that runs, as with nothing packed at all.
bool isSuited(const PackedWeights& weights) noexcept;

PackedWeights packWeights(const float* weights, std::ptrdiff_t numOfMatrices, std::ptrdiff_t numOfTerms,
                          std::ptrdiff_t numOfOutputs, const WeightSteps& steps);

// A convolution of some time slices into one, clipped at the edges of the band:
//
//   out[f][o] = first[f * firstStep + o]
//               + sum over slices r, taps k, inputs c, in this order, of
//                 slices[r][start + f * frequencyStride + k][c] * weights[r][k][c][o]
//
// where a tap that falls outside of 0 to inputFrequencies - 1 is left out.
struct Convolution {
    std::ptrdiff_t numOfSlices;
    std::ptrdiff_t numOfTaps;
    std::ptrdiff_t numOfInputs;   // channels of the input
    std::ptrdiff_t numOfOutputs;  // channels of the output
    std::ptrdiff_t inputFrequencies;
    std::ptrdiff_t outputFrequencies;
    std::ptrdiff_t frequencyStride;
    std::ptrdiff_t start;  // frequency that tap 0 meets at output frequency 0
};

// Weights [slices][taps][inputs][outputs] as one matrix with a term per slice, tap and input.
PackedWeights packConvolution(const float* weights, const Convolution& shape);

// A slice that is not in its place yet: a kernel that takes one copies it there on its way, as far as it has
// come with its rows, because a copy in advance would fill the cache with rows that are not needed yet.
struct SliceToStore {
    const float* from = nullptr;  // null when there is nothing to do
    float* to = nullptr;          // one of the slices of the convolution
};

// first is a row of one value per output, which every output frequency starts from with a firstStep of 0,
// or a plane with a firstStep of its row length, or null for zeros.
void convolve(const Convolution& shape, const float* const* slices, const PackedWeights& weights,
              const float* first, std::ptrdiff_t firstStep, float* out, const SliceToStore& store = {});

// The same without sums over channels: output channel o takes input channel o alone, by
// weights[r][k][o]. numOfInputs is not read; input rows have numOfOutputs channels.
void convolveChannels(const Convolution& shape, const float* const* slices, const float* weights,
                      const float* first, std::ptrdiff_t firstStep, float* out,
                      const SliceToStore& store = {});

// out[row][o] = first[row * firstStep + o] + sum over c, in order, of in[row][c] * weights[c][o]
// with one packed matrix; a convolution of one slice and one tap.
void multiplyMatrix(const float* in, std::ptrdiff_t numOfRows, const PackedWeights& weights,
                    const float* first, std::ptrdiff_t firstStep, float* out);

// A transposed convolution of one time slice onto several open ones:
//
//   slots[r][start + i * frequencyStride + k][o] += sum over c, in order from 0, of in[i][c] *
//   weights[r][k][o][c]
//
// for each slot r, input frequency i, tap k and output o in this order, each sum being whole before it is
// added. Taps that fall outside of 0 to outputFrequencies - 1 are left out.
struct TransposedConvolution {
    std::ptrdiff_t numOfSlots;
    std::ptrdiff_t numOfTaps;
    std::ptrdiff_t numOfInputs;
    std::ptrdiff_t numOfOutputs;
    std::ptrdiff_t inputFrequencies;
    std::ptrdiff_t outputFrequencies;
    std::ptrdiff_t frequencyStride;  // 1 or more
    std::ptrdiff_t start;
};

// Where a slot goes that no later slice reaches:
//
//   out[f][o] = slot[f][o] + bias[o]
//
// after which the slot is cleared for its next use. A null bias adds nothing; with a null out the slot stays.
struct WholeSlot {
    const float* bias = nullptr;
    float* out = nullptr;
};

// The same by itself; out is needed.
void finishSlot(float* slot, std::ptrdiff_t outputFrequencies, std::ptrdiff_t numOfOutputs,
                const WholeSlot& whole);

// Weights [slots][taps][outputs][inputs]: a matrix per slot and tap, or one for all where outputs are few.
PackedWeights packTransposed(const float* weights, const TransposedConvolution& shape);

// firstSlot: what becomes of slots[0] once these contributions are in it, in the same pass.
void convolveTransposed(const TransposedConvolution& shape, const float* in, const PackedWeights& weights,
                        float* const* slots, const WholeSlot& firstSlot = {});

// The same without sums over channels: slots[r][...][o] += in[i][o] * weights[r][k][o], one multiply-add
// for each slot, input frequency and tap in this order. numOfInputs is not read.
void convolveTransposedChannels(const TransposedConvolution& shape, const float* in, const float* weights,
                                float* const* slots);

// out[o][c] = sum over i, in order from 0, of in[i][c] * weights[o][i][c]: a matrix across frequency for
// each channel. Weights stream past once, so they are packed into the order of use. Many weights that all are
// numbers of IEEE half precision, as a model file may hold them, are packed as such and widened on their way:
// half the traffic, and the same sums.
PackedWeights packDense(const float* weights, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels);
void multiplyDense(const float* in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
                   const PackedWeights& weights, float* out);

// out[i] = rows[0][i] * factors[0], then + rows[k][i] * factors[k] for k from 1 in order.
// With one factor or none it is the bare product of the first row.
void combineRows(const float* const* rows, const float* factors, std::ptrdiff_t numOfRows,
                 std::ptrdiff_t count, float* out);

// Bands as weighted runs of bins: out[o][c] = in[starts[o]][c] * factors[o][0], then
// + in[starts[o] + k][c] * factors[o][k] for k from 1 to counts[o] - 1 in order.
// The first factor is applied whatever the count.
void rescaleBands(const float* in, std::ptrdiff_t numOfChannels, std::ptrdiff_t numOfBands, const int* starts,
                  const int* counts, const float* const* factors, float* out);

// Rows of length values with a gain and an offset for each of them, in one pass with the roundings of the
// separate passes of VectorOperations.h; offset may be null, out may be in.
//
//   scaleRows      out = in * gain + offset, not fused
//   normaliseRows  out = (in * (1 / (calcRms(in) + guard))) * gain + offset, each row by its own level
void scaleRows(const float* in, std::ptrdiff_t numOfRows, std::ptrdiff_t length, const float* gain,
               const float* offset, float* out);
void normaliseRows(const float* in, std::ptrdiff_t numOfRows, std::ptrdiff_t length, float guard,
                   const float* gain, const float* offset, float* out);

// Activations in one pass, each with the operations and the roundings of the separate passes of
// VectorOperations.h that it stands for. out may be in; a count of 0 or less does nothing.
//
//   elu          (exp(min(x, 0)) - 1) + max(x, 0)
//   sigmoid      exp(y) / (exp(y) + 1) with y = x limited to -10 .. 10
//   leakyRelu    max(x, 0) + alpha * min(x, 0), fused
//   hardSigmoid  x * (1 / 6) + 0.5 limited to 0 .. 1, not fused
//   softplus     ln(exp(x) + 1)
void elu(const float* in, std::ptrdiff_t count, float* out);
void sigmoid(const float* in, std::ptrdiff_t count, float* out);
void leakyRelu(const float* in, float alpha, std::ptrdiff_t count, float* out);
void hardSigmoid(const float* in, std::ptrdiff_t count, float* out);
void softplus(const float* in, std::ptrdiff_t count, float* out);

// The definitions as plain loops over unpacked weights, one fused multiply-add per term. They judge the
// kernels above, and they serve shapes that those do not take.
namespace plain {

// rowStep: channels of an input row, which may be more than the inputs that are read.
void convolve(const Convolution& shape, const float* const* slices, std::ptrdiff_t rowStep,
              const float* weights, const float* first, std::ptrdiff_t firstStep, float* out);
void convolveChannels(const Convolution& shape, const float* const* slices, const float* weights,
                      const float* first, std::ptrdiff_t firstStep, float* out);
void convolveTransposed(const TransposedConvolution& shape, const float* in, const float* weights,
                        float* const* slots);
void convolveTransposedChannels(const TransposedConvolution& shape, const float* in, const float* weights,
                                float* const* slots);
void multiplyDense(const float* in, std::ptrdiff_t numOfFrequencies, std::ptrdiff_t numOfChannels,
                   const float* weights, float* out);
void combineRows(const float* const* rows, const float* factors, std::ptrdiff_t numOfRows,
                 std::ptrdiff_t count, float* out);
void rescaleBands(const float* in, std::ptrdiff_t numOfChannels, std::ptrdiff_t numOfBands, const int* starts,
                  const int* counts, const float* const* factors, float* out);

}  // namespace plain

}  // namespace zevrant::kernels
