#include "neural/SpectrumPacking.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <stdexcept>

#include "DspCore/VectorOperations.h"
#include "neural/Slices.h"

namespace zevrant {

namespace {

using Bin = std::complex<float>;

// Bins are taken through a scratch row of this length, which stays in the first cache.
constexpr int blockLength = 256;
using Block = std::array<float, blockLength>;

// Calls operation(first, length) for consecutive blocks that cover count bins.
template <class Operation>
void forEachBlock(int count, Operation operation) {
    for (int first = 0; first < count; first += blockLength)
        operation(first, std::min(blockLength, count - first));
}

const float* asFloats(const Bin* bins) {
    return reinterpret_cast<const float*>(bins);
}

float* asFloats(Bin* bins) {
    return reinterpret_cast<float*>(bins);
}

// Column c of out receives the magnitudes of channel c. One and two columns are written as whole vectors;
// more columns are too far apart for that.
void packMagnitudes(const ComplexSignal32& signal, int firstBin, int count, int numOfColumns, float* out) {
    const auto getBins = [&](int channel) { return signal.getReadChannelPtr(channel) + firstBin; };
    if (numOfColumns == 1) return vo::calcMagnitudes(getBins(0), out, count);
    if (numOfColumns == 2)
        return forEachBlock(count, [&](int first, int length) {
            Block left, right;
            vo::calcMagnitudes(getBins(0) + first, left.data(), length);
            vo::calcMagnitudes(getBins(1) + first, right.data(), length);
            float* pairs = out + std::ptrdiff_t{2} * first;
            for (int i = 0; i < length; ++i) {
                pairs[2 * i] = left[i];
                pairs[2 * i + 1] = right[i];
            }
        });
    for (int c = 0; c < numOfColumns; ++c)
        forEachBlock(count, [&](int first, int length) {
            Block magnitudes;
            vo::calcMagnitudes(getBins(c) + first, magnitudes.data(), length);
            float* column = out + std::ptrdiff_t{numOfColumns} * first + c;
            for (int i = 0; i < length; ++i) column[std::ptrdiff_t{numOfColumns} * i] = magnitudes[i];
        });
}

// Four rows per bin. The last bin may find fewer than four rows left.
void packRectifiedParts(const ComplexSignal32& signal, int numOfRows, int numOfColumns, float* out) {
    for (int c = 0; c < numOfColumns; ++c) {
        const Bin* bins = signal.getReadChannelPtr(c);
        for (int row = 0; row < numOfRows; row += 4) {
            const Bin bin = bins[row / 4];
            const std::array parts = {std::max(bin.real(), 0.0f), std::max(bin.imag(), 0.0f),
                                      std::max(-bin.real(), 0.0f), std::max(-bin.imag(), 0.0f)};
            for (int i = 0; i < std::min(4, numOfRows - row); ++i)
                out[std::ptrdiff_t{numOfColumns} * (row + i) + c] = parts[i];
        }
    }
}

// Channel c fills the complex column c.
void packBins(const ComplexSignal32& signal, int count, int numOfChannels, Bin* out) {
    if (numOfChannels == 1) return vo::copy(signal.getReadChannelPtr(0), out, count);
    for (int c = 0; c < numOfChannels; ++c) {
        const Bin* bins = signal.getReadChannelPtr(c);
        for (int row = 0; row < count; ++row) out[std::ptrdiff_t{numOfChannels} * row + c] = bins[row];
    }
}

// One row per group: every bin is divided on its own, and the quotients are added in order from 0. The
// divisions run as vectors over the bins, whatever the groups.
void packGroups(const ComplexSignal32& signal, int firstBin, int numOfGroups, int groupSize,
                int numOfChannels, Bin* out) {
    const float divisor = static_cast<float>(groupSize);
    for (int c = 0; c < numOfChannels; ++c) {
        const Bin* bins = signal.getReadChannelPtr(c) + firstBin;
        Bin* column = out + c;
        Bin sum = 0.0f;
        int place = 0;
        forEachBlock(numOfGroups * groupSize, [&](int first, int length) {
            std::array<Bin, blockLength> quotients;
            const float* dividends = asFloats(bins + first);
            for (int i = 0; i < 2 * length; ++i) asFloats(quotients.data())[i] = dividends[i] / divisor;
            for (int i = 0; i < length; ++i) {
                sum += quotients[i];
                if (++place < groupSize) continue;
                *column = sum;
                column += numOfChannels;
                sum = 0.0f;
                place = 0;
            }
        });
    }
}

// How many of count rows behind the fine rows are groups that begin below bin n.
int countGroups(const BinLayout& layout, int numOfSamples, int numOfFine, int numOfRowsLeft) {
    if (layout.binGroupSize <= 0) return 0;
    const int numOfBinsLeft = numOfSamples - numOfFine;
    return std::min(numOfRowsLeft, (numOfBinsLeft + layout.binGroupSize - 1) / layout.binGroupSize);
}

void unpackRealRows(const float* in, int numOfColumns, Bin* out, int count) {
    float* parts = asFloats(out);
    if (numOfColumns == 1) {
        for (int i = 0; i < count; ++i) {
            parts[2 * i] = in[i];
            parts[2 * i + 1] = 0.0f;
        }
        return;
    }
    for (int i = 0; i < count; ++i) {
        parts[2 * i] = in[std::ptrdiff_t{numOfColumns} * i];
        parts[2 * i + 1] = 0.0f;
    }
}

void unpackRectifiedParts(const float* in, int numOfColumns, Bin* out, int count) {
    const std::ptrdiff_t row = numOfColumns;
    for (int i = 0; i < count; ++i, in += 4 * row) out[i] = {in[0] - in[2 * row], in[row] - in[3 * row]};
}

void unpackComplexRows(const float* in, int numOfColumns, Bin* out, int count) {
    if (numOfColumns == 2) return vo::copy(in, asFloats(out), 2 * count);
    for (int i = 0; i < count; ++i, in += numOfColumns) out[i] = {in[0], in[1]};
}

// The place of a bin within its group. Fine bins may be fewer than none, and groups of negative size count
// like positive ones, but never come to an end.
int getPlaceInGroup(const BinLayout& layout, int bin) {
    return static_cast<int>((std::int64_t{bin} - layout.numFineBins) % layout.binGroupSize);
}

// From the row of a group to the next one in a straight line, and from the last one to zero.
void unpackGroups(const BinLayout& layout, const float* in, int numOfColumns, Bin* out, int firstBin,
                  int endBin) {
    if (firstBin >= endBin) return;
    const int groupSize = layout.binGroupSize;
    const int placesPerGroup = std::abs(groupSize);
    int place = getPlaceInGroup(layout, firstBin);
    for (int bin = firstBin; bin < endBin; ++bin) {
        const bool hasNext = std::int64_t{bin} + groupSize < layout.numBins;
        const float nextReal = hasNext ? in[numOfColumns] : 0.0f;
        const float nextImaginary = hasNext ? in[numOfColumns + 1] : 0.0f;
        const float share = static_cast<float>(place) / static_cast<float>(groupSize);
        out[bin] = {(1.0f - share) * in[0] + share * nextReal,
                    (1.0f - share) * in[1] + share * nextImaginary};
        if (place == groupSize - 1) in += numOfColumns;
        if (++place == placesPerGroup) place = 0;
    }
}

// The value that the magnitudes of these bins, smoothed along the frequency axis, arrive at. Only the
// recurrence itself runs bin by bin.
float smoothMagnitudes(const Bin* bins, int count) {
    float smoothed = 0.0f;
    forEachBlock(count, [&](int first, int length) {
        Block magnitudes;
        vo::calcMagnitudes(bins + first, magnitudes.data(), length);
        for (int i = 0; i < length; ++i) smoothed = 0.98f * smoothed + 0.02f * magnitudes[i];
    });
    return smoothed;
}

}  // namespace

std::int64_t BinLayout::countRowsRead(int numOfSamples) const {
    const int numOfBins = std::max(0, std::min(numOfSamples, numBins));
    if (numOfBins == 0) return 0;
    const int numOfFine = std::clamp(numFineBins, 0, numOfBins);
    if (packing == 2 || packing == 1) return std::int64_t{3} * numOfFine + numOfBins;
    if (packing == 4 || numOfFine == numOfBins) return numOfBins;

    require(binGroupSize != 0, "packing 6: groups of no bins");
    const auto countRowsUpTo = [&](int bin) {
        if (binGroupSize < 0) return std::int64_t{numOfFine} + 1;
        return numOfFine + 1 +
               (std::int64_t{getPlaceInGroup(*this, numOfFine)} + bin - numOfFine) / binGroupSize;
    };
    const int lastBin = numOfBins - 1;
    const std::int64_t lastWithNext =
        std::min<std::int64_t>(lastBin, std::int64_t{numBins} - binGroupSize - 1);
    const std::int64_t numOfRowsTowards =
        lastWithNext >= numOfFine ? countRowsUpTo(static_cast<int>(lastWithNext)) + 1 : 0;
    return std::max(countRowsUpTo(lastBin), numOfRowsTowards);
}

void packSpectrum(const BinLayout& layout, const ComplexSignal32& signal, int numOfSamples, int numOfColumns,
                  float* out) {
    const int numOfChannels = numOfColumns / layout.getColumnsPerChannel();
    require(numOfSamples <= 0 || (signal.data && signal.numOfChannels >= numOfChannels &&
                                  signal.data->numOfSamples >= numOfSamples),
            "packing: the spectrum has fewer bins or channels than the model takes");
    const int numOfBins = std::max(0, numOfSamples);
    const int numOfFine = std::clamp(layout.numFineBins, 0, numOfBins);
    const auto getRow = [&](int row) { return out + std::ptrdiff_t{numOfColumns} * row; };
    const auto getComplexRow = [&](int row) { return reinterpret_cast<Bin*>(getRow(row)); };

    int numOfRows = 0;  // that have been filled
    if (layout.packing == 4) {
        numOfRows = std::min(layout.numOfRows, numOfBins);
        packBins(signal, numOfRows, numOfChannels, getComplexRow(0));
    } else if (layout.packing == 6) {
        const int numOfFineRows = std::min(layout.numOfRows, numOfFine);
        const int numOfGroups = countGroups(layout, numOfBins, numOfFine, layout.numOfRows - numOfFineRows);
        const std::int64_t endOfGroups = numOfFine + std::int64_t{numOfGroups} * layout.binGroupSize;
        if (numOfGroups > 0 && endOfGroups > signal.data->stride)
            throw std::out_of_range("packing 6: a group of bins reaches past the row of its spectrum");
        packBins(signal, numOfFineRows, numOfChannels, getComplexRow(0));
        packGroups(signal, numOfFine, numOfGroups, layout.binGroupSize, numOfChannels,
                   getComplexRow(numOfFineRows));
        numOfRows = numOfFineRows + numOfGroups;
    } else {
        const int numOfFineRows = std::min(layout.numOfRows, 4 * numOfFine);
        const int numOfMagnitudes = std::min(layout.numOfRows - numOfFineRows, numOfBins - numOfFine);
        packRectifiedParts(signal, numOfFineRows, numOfColumns, out);
        packMagnitudes(signal, numOfFine, numOfMagnitudes, numOfColumns, getRow(numOfFineRows));
        numOfRows = numOfFineRows + numOfMagnitudes;
    }
    vo::setToZero(getRow(numOfRows), numOfColumns * (layout.numOfRows - numOfRows));
}

void unpackSpectrum(const BinLayout& layout, const float* in, int numOfColumns, bool isExtrapolating,
                    std::complex<float>* out, int numOfSamples) {
    const int numOfBins = std::max(0, std::min(numOfSamples, layout.numBins));
    const int numOfFine = std::clamp(layout.numFineBins, 0, numOfBins);
    if (layout.packing == 4) {
        unpackComplexRows(in, numOfColumns, out, numOfBins);
    } else if (layout.packing == 6) {
        unpackComplexRows(in, numOfColumns, out, numOfFine);
        unpackGroups(layout, in + std::ptrdiff_t{numOfColumns} * numOfFine, numOfColumns, out, numOfFine,
                     numOfBins);
    } else {
        unpackRectifiedParts(in, numOfColumns, out, numOfFine);
        unpackRealRows(in + std::ptrdiff_t{4} * numOfColumns * numOfFine, numOfColumns, out + numOfFine,
                       numOfBins - numOfFine);
    }
    if (numOfSamples <= numOfBins) return;
    const float smoothed = isExtrapolating ? smoothMagnitudes(out, numOfBins) : 0.0f;
    vo::setToValue(Bin(smoothed, 0.0f), out + numOfBins, numOfSamples - numOfBins);
}

}  // namespace zevrant
