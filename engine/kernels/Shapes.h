#pragma once

#include <cstddef>

// The shapes that the products and the channel-wise kernels share, and what may go on in their passes.
namespace zevrant::kernels {

// A convolution of some time slices into one, clipped at the edges of the band:
//
//   out[f][o] = first[f * firstStep + o]
//               + sum over slices r, taps k, inputs c, in this order, of
//                 slices[r][start + f * frequencyStride + k][c] * weights[r][k][c][o]
//
// where a tap that falls outside of 0 to inputFrequencies - 1 is left out. first is a row of one value per
// output, which every output frequency starts from with a firstStep of 0, or a plane with a firstStep of its
// row length, or null for zeros.
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

// A slice that is not in its place yet: a kernel that takes one copies it there on its way, as far as it has
// come with its rows, because a copy in advance would fill the cache with rows that are not needed yet.
struct SliceToStore {
    const float* from = nullptr;  // null when there is nothing to do
    float* to = nullptr;          // one of the slices of the convolution
};

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

}  // namespace zevrant::kernels
