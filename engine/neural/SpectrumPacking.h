#pragma once

#include <complex>
#include <cstdint>

#include "DspCore/Signals.h"

namespace zevrant {

// How the bins of a spectrum lie along the frequency axis of a tensor. Rows count from the lowest bin.
//
//   1  magnitudes          one row per bin
//   2  rectified parts     four rows per fine bin: max(re, 0), max(im, 0), max(-re, 0), max(-im, 0);
//                          above the fine bins one row per bin with the magnitude
//   4  complex             one row per bin, real and imaginary part in adjacent columns
//   6  complex, grouped    as 4 for the fine bins; above them one row per group of bins, holding their
//                          mean, and on the way back a straight line from each row to the next
//
// Element (row, column) stands at row * numOfColumns + column. A channel fills one column, two when the
// packing is complex.
struct BinLayout {
    int packing;
    int numBins;       // bins that the network sees
    int numFineBins;   // of these, the lowest ones that are kept in detail
    int binGroupSize;  // bins per row above the fine bins, packing 6
    int numOfRows;     // of the input tensor

    bool isKnown() const { return packing == 1 || packing == 2 || packing == 4 || packing == 6; }
    bool isComplex() const { return packing == 4 || packing == 6; }
    int getColumnsPerChannel() const { return isComplex() ? 2 : 1; }

    // The rows that unpacking this many bins reads, those that are only interpolated towards included.
    // Throws std::invalid_argument where the numbers leave no rule: groups of 0 bins.
    std::int64_t countRowsRead(int numOfSamples) const;
};

// Fills numOfRows x numOfColumns elements with the first numOfSamples bins of a signal, zeros above.
// A group of packing 6 is not cut off at the last bin: it reads on into the row of the signal, hidden bins
// and padding as they are.
// Errors   std::invalid_argument for a signal with fewer bins or channels than that, and
//          std::out_of_range for a group that reaches past the signal's row, both before anything is read.
void packSpectrum(const BinLayout& layout, const ComplexSignal32& signal, int numOfSamples, int numOfColumns,
                  float* out);

// The way back for one channel. in points to the channel's first column. Bins from numBins on are 0, or,
// when extrapolating, the magnitudes of the bins below, smoothed by m = 0.98 m + 0.02 |v|, as real values.
// The caller answers for the rows of countRowsRead().
void unpackSpectrum(const BinLayout& layout, const float* in, int numOfColumns, bool isExtrapolating,
                    std::complex<float>* out, int numOfSamples);

}  // namespace zevrant
