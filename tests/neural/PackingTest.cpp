#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <stdexcept>

#include "TestSignals.h"
#include "neural/NeuralModel.h"

namespace zevrant {
namespace {

using Bin = std::complex<float>;

struct Layout {
    int packing, numBins, numFineBins, binGroupSize, channels;
};

std::ostream& operator<<(std::ostream& out, const Layout& layout) {
    return out << "packing " << layout.packing << ", bins " << layout.numBins << ", fine "
               << layout.numFineBins << ", group " << layout.binGroupSize << ", channels " << layout.channels;
}

NeuralModel<float> makeModel(const Layout& layout) {
    NeuralModel<float> model;
    model.inputPacking = model.outputPacking = layout.packing;
    model.numBins = layout.numBins;
    model.numFineBins = layout.numFineBins;
    model.binGroupSize = layout.binGroupSize;
    model.numOfInputChannels = model.numOfOutputChannels = layout.channels;
    model.tensorFrequencies =
        layout.packing == 6 ? (layout.numBins - layout.numFineBins) / layout.binGroupSize + layout.numFineBins
                            : 3 * layout.numFineBins + layout.numBins;
    return model;
}

// The padding of the rows holds noise too: groups may read on into it.
ComplexSignal32 makeNoise(int channels, int bins, unsigned seed) {
    ComplexSignal32 signal(channels, bins);
    signal = noiseSpectrum(channels, signal.data->stride, seed, 2.0f);
    signal.ensureDimensions(channels, bins);
    return signal;
}

// The rules of packing, one element after the other. Every column walks over the rows with a bin counter
// of its own.
double packElement(const Layout& layout, const ComplexSignal32& signal, int row, int column) {
    const int n = signal.numOfSamples;
    const bool isComplex = layout.packing == 4 || layout.packing == 6;
    const Bin* bins = signal.getReadChannelPtr(isComplex ? column / 2 : column);
    const auto part = [&](int b) { return column % 2 == 0 ? bins[b].real() : bins[b].imag(); };
    double element = 0.0;
    int b = 0;
    for (int r = 0; r <= row; ++r) {
        element = 0.0;
        if (layout.packing == 4) {
            element = r < n ? part(r) : 0.0;
        } else if (b >= n) {
            continue;
        } else if (layout.packing == 6) {
            if (b < layout.numFineBins) {
                element = part(b++);
            } else if (layout.binGroupSize > 0) {
                float mean = 0.0f;
                for (int i = 0; i < layout.binGroupSize; ++i)
                    mean += part(b + i) / static_cast<float>(layout.binGroupSize);
                element = mean;
                b += layout.binGroupSize;
            }
        } else if (b >= layout.numFineBins) {
            element = std::hypot(double{bins[b].real()}, double{bins[b].imag()});
            ++b;
        } else {
            const float parts[] = {bins[b].real(), bins[b].imag(), -bins[b].real(), -bins[b].imag()};
            element = std::max(parts[r % 4], 0.0f);
            if (r % 4 == 3) ++b;
        }
    }
    return element;
}

std::vector<Layout> allLayouts() {
    std::vector<Layout> layouts;
    for (int channels : {1, 2, 3}) {
        for (int bins : {1, 15, 40, 300, 1025}) layouts.push_back({1, bins, 0, 1, channels});
        for (int bins : {1, 15, 300}) layouts.push_back({4, bins, 0, 1, channels});
        for (int fine : {0, 1, 3, 10})
            for (int bins : {10, 40, 300}) layouts.push_back({2, bins, fine, 1, channels});
        for (int fine : {0, 1, 20})
            for (int group : {1, 2, 3, 4, 7, 127})
                layouts.push_back({6, fine + group * (group > 100 ? 3 : 20), fine, group, channels});
    }
    layouts.push_back({2, 10, 12, 1, 2});  // fewer bins than fine bins: the last fine rows are cut
    layouts.push_back({2, 10, -2, 1, 1});  // no fine bins, and fewer rows than bins
    layouts.push_back({6, 40, -6, 4, 1});  // the first group begins inside
    layouts.push_back({6, 43, 3, -4, 1});  // groups of negative size are rows of zeros
    layouts.push_back({4, 40, 5, 1, 1});   // rows that no bin fills
    return layouts;
}

TEST(Packing, everyElementFollowsItsRule) {
    for (const Layout& layout : allLayouts()) {
        SCOPED_TRACE(testing::Message() << layout);
        NeuralModel<float> model = makeModel(layout);
        const int columns = layout.channels * (layout.packing == 4 || layout.packing == 6 ? 2 : 1);
        if (model.tensorFrequencies <= 0) continue;
        for (int n : {0, 1, 2, 9, 16, layout.numBins - 1, layout.numBins, layout.numBins + 5}) {
            if (n < 0) continue;
            SCOPED_TRACE(testing::Message() << n << " bins in the frame");
            ComplexSignal32 signal = makeNoise(layout.channels + 1, n + 128, 1);
            signal.ensureDimensions(layout.channels, n);  // groups read on into the hidden bins
            const Tensor<float> tensor = model.signalsToTensor({signal});
            ASSERT_EQ(tensor.shape, (std::vector<int>{1, model.tensorFrequencies, columns}));
            const bool isExact = layout.packing == 4 || layout.packing == 6;
            for (int row = 0; row < model.tensorFrequencies; ++row)
                for (int c = 0; c < columns; ++c) {
                    const double expected = packElement(layout, signal, row, c);
                    const double tolerance = isExact ? 0.0 : 4 * FLT_EPSILON * expected;
                    ASSERT_NEAR(tensor.data->data[row * columns + c], expected, tolerance)
                        << "row " << row << ", column " << c;
                }
        }
    }
}

// The rules of unpacking, one bin after the other, with a read position that advances.
std::vector<std::complex<double>> unpackChannel(const NeuralModel<float>& model, const Tensor<float>& tensor,
                                                int t, int c, int numOfSamples) {
    const bool isComplex = model.outputPacking == 4 || model.outputPacking == 6;
    const int C = tensor.shape[2], group = model.binGroupSize;
    const float* p = tensor.data->data + t * C * model.tensorFrequencies + c * (isComplex ? 2 : 1);
    double m = 0.0;
    std::vector<std::complex<double>> bins;
    for (int b = 0; b < numOfSamples; ++b) {
        std::complex<double> v;
        if (b >= model.numBins) {
            v = m;
        } else if (model.outputPacking == 4 || (isComplex && b < model.numFineBins)) {
            v = {p[0], p[1]};
            p += C;
        } else if (isComplex) {
            const int j = (b - model.numFineBins) % group;
            const double f = static_cast<double>(j) / group;
            std::complex<double> next;
            if (b + group < model.numBins) next = {p[C], p[C + 1]};
            v = (1.0 - f) * std::complex<double>(p[0], p[1]) + f * next;
            if (j == group - 1) p += C;
        } else if (b < model.numFineBins) {
            v = {double{p[0]} - p[2 * C], double{p[C]} - p[3 * C]};
            p += 4 * C;
        } else {
            v = p[0];
            p += C;
        }
        if (model.maskExtrapolationEnabled && b < model.numBins) m = 0.98 * m + 0.02 * std::abs(v);
        bins.push_back(v);
    }
    return bins;
}

TEST(Packing, everyBinComesBackByItsRule) {
    for (const Layout& layout : allLayouts()) {
        SCOPED_TRACE(testing::Message() << layout);
        NeuralModel<float> model = makeModel(layout);
        const int columns = layout.channels * (layout.packing == 4 || layout.packing == 6 ? 2 : 1);
        for (int T : {1, 3}) {
            // Rows that are only interpolated towards, or lie behind a frame cut short, belong to the tensor.
            const int numOfRows = std::max(model.tensorFrequencies, 0) + 64;
            Tensor<float> tensor({T, numOfRows, columns});
            const auto values = noise(static_cast<std::size_t>(tensor.data->size), 2);
            std::copy(values.begin(), values.end(), tensor.getWritePointer());
            if (model.tensorFrequencies < 0 && T > 1) continue;
            for (int n :
                 {0, 1, 9, 16, layout.numBins - 1, layout.numBins, layout.numBins + 1, layout.numBins + 300})
                for (bool isExtrapolating : {false, true}) {
                    if (n < 0) continue;
                    SCOPED_TRACE(testing::Message()
                                 << T << " frames of " << n << ", extrapolating " << isExtrapolating);
                    model.maskExtrapolationEnabled = isExtrapolating;
                    const auto signals = model.tensorToSignals(tensor, n);
                    ASSERT_EQ(signals.size(), static_cast<std::size_t>(T));
                    for (int t = 0; t < T; ++t) {
                        ASSERT_EQ(signals[t].numOfChannels, layout.channels);
                        ASSERT_EQ(signals[t].numOfSamples, n);
                        for (int c = 0; c < layout.channels; ++c) {
                            const auto expected = unpackChannel(model, tensor, t, c, n);
                            const Bin* bins = signals[t].getReadChannelPtr(c);
                            for (int b = 0; b < n; ++b) {
                                // Magnitudes below 2; the smoothing rounds by 3 ulps a bin and forgets
                                // within 50 bins.
                                const double tolerance =
                                    b < layout.numBins ? 2 * FLT_EPSILON : 200 * FLT_EPSILON;
                                ASSERT_NEAR(bins[b].real(), expected[b].real(), tolerance) << "bin " << b;
                                ASSERT_NEAR(bins[b].imag(), expected[b].imag(), tolerance) << "bin " << b;
                                if (b > layout.numBins && b > 0) {
                                    ASSERT_EQ(bins[b], bins[b - 1]) << "bin " << b;
                                }
                            }
                        }
                    }
                }
        }
    }
}

// A group is cut off by nothing but the end of the row that it lies in.
TEST(Packing, groupsReadToTheEndOfTheirRowAndNotBeyond) {
    NeuralModel<float> model = makeModel({6, 40, 0, 5, 2});
    for (int n = 1; n <= 24; ++n) {
        const ComplexSignal32 signal = makeNoise(2, n, 3);
        const int end = (n + 4) / 5 * 5;
        if (end > signal.data->stride)
            EXPECT_THROW(model.signalsToTensor({signal}), std::out_of_range) << n;
        else
            EXPECT_NO_THROW(model.signalsToTensor({signal})) << n;
    }
}

TEST(Packing, whatIsMissingThrowsBeforeItIsRead) {
    for (int packing : {1, 2, 4, 6}) {
        NeuralModel<float> model =
            makeModel({packing, 20, packing % 4 == 2 ? 4 : 0, packing == 6 ? 4 : 1, 2});
        EXPECT_THROW(model.signalsToTensor({makeNoise(1, 20, 1)}), std::invalid_argument) << packing;
        EXPECT_THROW(model.signalsToTensor({makeNoise(2, 20, 1), makeNoise(2, 10, 1)}),
                     std::invalid_argument);
        EXPECT_NO_THROW(model.signalsToTensor({ComplexSignal32(1, 0)})) << packing;

        const Tensor<float> tensor = model.signalsToTensor({makeNoise(2, 20, 1)});
        const int C = tensor.shape[2];
        Tensor<float> shorter({1, tensor.shape[1] - 1, C}), uneven({3, tensor.shape[1] - 1, C}), hollow;
        hollow.shape = tensor.shape;
        for (const Tensor<float>& wrong : {shorter, uneven, hollow, Tensor<float>({40, C})})
            EXPECT_THROW(model.tensorToSignals(wrong, 20), std::out_of_range) << packing;
        EXPECT_EQ(model.tensorToSignals(shorter, 4).size(), 1u);  // what is asked for is there
        EXPECT_TRUE(model.tensorToSignals(Tensor<float>({2, 0, C}), 20).empty());
    }
    NeuralModel<float> model = makeModel({6, 20, 4, 4, 1});
    model.binGroupSize = 0;
    EXPECT_THROW(model.tensorToSignals(Tensor<float>({1, 20, 2}), 20), std::invalid_argument);
    EXPECT_NO_THROW(model.signalsToTensor({makeNoise(1, 20, 1)}));  // rows of zeros
    // Bin 7 is the end of the first group behind four fine bins, and on its way to the second.
    model.binGroupSize = 4;
    EXPECT_THROW(model.tensorToSignals(Tensor<float>({1, 5, 2}), 8), std::out_of_range);
    EXPECT_EQ(model.tensorToSignals(Tensor<float>({1, 6, 2}), 8).size(), 1u);
    model = makeModel({1, 9, 0, 1, 1});
    model.tensorFrequencies = -9;
    EXPECT_THROW(model.tensorToSignals(Tensor<float>({2, 9, 1}), 9), std::out_of_range);
}

TEST(Packing, unknownCodesThrowWhereABinIsConverted) {
    for (int packing : {0, 3, 5, 7}) {
        NeuralModel<float> model = makeModel({packing, 8, 0, 1, 1});
        try {
            model.signalsToTensor({makeNoise(1, 8, 1)});
            FAIL() << packing;
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Unknown packing format");
        }
        EXPECT_THROW(model.tensorToSignals(Tensor<float>({1, 8, 1}), 8), std::runtime_error);
        const Tensor<float> cleared = model.signalsToTensor({ComplexSignal32(1, 0)});
        EXPECT_EQ((std::vector(cleared.data->data, cleared.data->data + 8)), std::vector(8, 0.0f));
        EXPECT_TRUE(model.signalsToTensor({}).shape.empty());
        model.numHistoryFrames = 3;
        EXPECT_EQ(model.signalsToTensor({ComplexSignal32(1, 0)}).shape, (std::vector{1, 8, 3}));
        model.tensorFrequencies = -1;
        EXPECT_EQ(model.signalsToTensor({makeNoise(1, 8, 1)}).shape, (std::vector{1, -1, 3}));
    }
}

}  // namespace
}  // namespace zevrant
