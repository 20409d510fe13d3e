#include "DspCore/Signals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <type_traits>

namespace zevrant {
namespace {

template <class T>
T makeValue(int channel, int sample) {
    const auto value = static_cast<float>(1000 * (channel + 1) + sample);
    if constexpr (std::is_floating_point_v<T>)
        return static_cast<T>(value);
    else
        return T(static_cast<typename T::value_type>(value), static_cast<typename T::value_type>(-sample));
}

template <class S>
S makeRamp(int numOfChannels, int numOfSamples) {
    S signal(numOfChannels, numOfSamples);
    for (int c = 0; c < numOfChannels; ++c) {
        auto* row = signal.getWriteChannelPtr(c);
        for (int i = 0; i < numOfSamples; ++i) row[i] = makeValue<std::decay_t<decltype(*row)>>(c, i);
    }
    return signal;
}

template <class S>
class SignalTypes : public testing::Test {};
using AllSignals = testing::Types<Signal32, Signal64, ComplexSignal32, ComplexSignal64>;
TYPED_TEST_SUITE(SignalTypes, AllSignals);

TYPED_TEST(SignalTypes, rowsAreAlignedAndApartByWholeUnits) {
    using T = std::decay_t<decltype(*std::declval<TypeParam>().getReadChannelPtr(0))>;
    constexpr int unit = 64 / sizeof(T);
    for (int numOfSamples : {0, 1, unit - 1, unit, unit + 1, 1000}) {
        const TypeParam signal(3, numOfSamples);
        EXPECT_EQ(signal.data->stride, (numOfSamples + unit - 1) / unit * unit) << numOfSamples;
        EXPECT_EQ(signal.data->alignment, 64);
        for (int c = 0; c < 3; ++c) {
            const auto address = reinterpret_cast<std::uintptr_t>(signal.getReadChannelPtr(c));
            EXPECT_EQ(address % 64, 0u);
        }
    }
}

TYPED_TEST(SignalTypes, copiesShareUntilTheFirstWriteOfEitherHandle) {
    for (bool writeToTheCopy : {false, true})
        for (int accessor : {0, 1, 2}) {
            TypeParam original = makeRamp<TypeParam>(2, 37);
            TypeParam copy = original;
            ASSERT_EQ(copy.data, original.data);
            TypeParam& writer = writeToTheCopy ? copy : original;
            const TypeParam& reader = writeToTheCopy ? original : copy;
            const auto* shared = reader.getReadChannelPtr(0);

            if (accessor == 0) writer.getWriteChannelPtr(1)[3] = {};
            if (accessor == 1) writer.getWritePointer()[1][3] = {};
            if (accessor == 2) {
                writer.ensureUnique();
                writer.data->getRow(1)[3] = {};
            }
            EXPECT_NE(writer.data, reader.data);
            EXPECT_EQ(reader.getReadChannelPtr(0), shared);
            for (int c = 0; c < 2; ++c)
                for (int i = 0; i < 37; ++i) {
                    using T = std::decay_t<decltype(*shared)>;
                    EXPECT_EQ(reader.getReadChannelPtr(c)[i], makeValue<T>(c, i));
                    EXPECT_EQ(writer.getReadChannelPtr(c)[i], c == 1 && i == 3 ? T{} : makeValue<T>(c, i));
                }
        }
}

TYPED_TEST(SignalTypes, aSingleOwnerWritesInPlace) {
    TypeParam signal = makeRamp<TypeParam>(2, 5);
    const auto* row = signal.getReadChannelPtr(0);
    {
        const TypeParam passing = signal;
        EXPECT_EQ(passing.getReadChannelPtr(0), row);
    }
    EXPECT_EQ(signal.getWriteChannelPtr(0), row);
    TypeParam moved = std::move(signal);
    EXPECT_EQ(moved.getWriteChannelPtr(0), row);
    EXPECT_EQ(signal.data, nullptr);  // NOLINT(bugprone-use-after-move): a moved-from signal is empty
    EXPECT_EQ(signal.numOfChannels, 0);
    EXPECT_EQ(signal.numOfSamples, 0);
}

TYPED_TEST(SignalTypes, theTableOfRowsStaysWithItsBlock) {
    TypeParam signal = makeRamp<TypeParam>(3, 9);
    EXPECT_TRUE(signal.data->channelPointers.empty());
    auto** table = signal.getWritePointer();
    for (int c = 0; c < 3; ++c) EXPECT_EQ(table[c], signal.getReadChannelPtr(c));
    TypeParam copy = signal;
    EXPECT_EQ(copy.data->channelPointers.size(), 3u);
    copy.ensureUnique();
    EXPECT_TRUE(copy.data->channelPointers.empty());
    EXPECT_EQ(signal.getWritePointer(), table);
}

TYPED_TEST(SignalTypes, viewsShrinkAndGrowInsideTheirBlock) {
    TypeParam signal = makeRamp<TypeParam>(4, 100);
    TypeParam copy = signal;
    const auto block = signal.data;
    EXPECT_FALSE(signal.ensureDimensions(2, 10));
    EXPECT_EQ(signal.data, block);
    EXPECT_EQ(copy.numOfSamples, 100);
    EXPECT_FALSE(signal.ensureDimensions(4, 100));
    EXPECT_FALSE(signal.ensureDimensions(1, 7));

    signal.getWriteChannelPtr(0);  // clones hidden rows and columns too
    EXPECT_NE(signal.data, block);
    EXPECT_EQ(signal.data->stride, block->stride);
    EXPECT_FALSE(signal.ensureDimensions(4, 100));
    using T = std::decay_t<decltype(*signal.getReadChannelPtr(0))>;
    EXPECT_EQ(signal.getReadChannelPtr(3)[99], makeValue<T>(3, 99));

    for (auto [channels, samples] : {std::pair{5, 100}, std::pair{4, 101}}) {
        TypeParam grown = copy;
        EXPECT_TRUE(grown.ensureDimensions(channels, samples));
        EXPECT_NE(grown.data, copy.data);
        EXPECT_EQ(grown.data->numOfChannels, channels);
        EXPECT_EQ(grown.data->numOfSamples, samples);
    }
    TypeParam fresh;
    EXPECT_TRUE(fresh.ensureDimensions(1, 0));
}

TYPED_TEST(SignalTypes, fillsEveryUsedElement) {
    using T = std::decay_t<decltype(*std::declval<TypeParam>().getReadChannelPtr(0))>;
    const TypeParam signal(3, 21, makeValue<T>(0, 5));
    for (int c = 0; c < 3; ++c)
        for (int i = 0; i < 21; ++i) EXPECT_EQ(signal.getReadChannelPtr(c)[i], makeValue<T>(0, 5));
}

TYPED_TEST(SignalTypes, blocksOfTwoGigabytesAreRefused) {
    EXPECT_THROW(TypeParam(1 << 20, 1 << 20), std::length_error);
    EXPECT_THROW(TypeParam(2, 0x7fffffff), std::length_error);
    const TypeParam negative(-1, -5);  // holds nothing
    EXPECT_EQ(negative.data->data, nullptr);
}

TYPED_TEST(SignalTypes, multichannelSignalsRepeatTheFirstRow) {
    const TypeParam four = makeRamp<TypeParam>(4, 33);
    for (int n : {-1, 0, 1}) {
        const TypeParam same = four.createMultichannelSignal(n);
        EXPECT_EQ(same.data, four.data);
        EXPECT_EQ(same.numOfChannels, 4);
    }
    const TypeParam three = four.createMultichannelSignal(3);
    ASSERT_EQ(three.numOfChannels, 3);
    for (int c = 0; c < 3; ++c)
        for (int i = 0; i < 33; ++i)
            EXPECT_EQ(three.getReadChannelPtr(c)[i], four.getReadChannelPtr(0)[i]) << c << ", " << i;
    EXPECT_NE(three.data, four.data);
}

// The right operand is larger than the left one, so that its own stride counts and the left one's
// shape decides.
TEST(Signals, operatorsGiveNewSignalsInTheShapeOfTheLeftOperand) {
    const Signal32 a = makeRamp<Signal32>(2, 19), b = makeRamp<Signal32>(3, 50);
    const Signal32 product = a * b, sum = a + b, scaled = a * 0.5f;
    for (const Signal32* result : {&product, &sum, &scaled}) {
        EXPECT_EQ(result->numOfChannels, 2);
        EXPECT_EQ(result->numOfSamples, 19);
        EXPECT_NE(result->data, a.data);
    }
    for (int c = 0; c < 2; ++c)
        for (int i = 0; i < 19; ++i) {
            const float x = a.getReadChannelPtr(c)[i], y = b.getReadChannelPtr(c)[i];
            EXPECT_EQ(product.getReadChannelPtr(c)[i], x * y);
            EXPECT_EQ(sum.getReadChannelPtr(c)[i], x + y);
            EXPECT_EQ(scaled.getReadChannelPtr(c)[i], x * 0.5f);
        }
}

TEST(Signals, complexOperatorsFollowComplexArithmetic) {
    const ComplexSignal32 a = makeRamp<ComplexSignal32>(2, 19), b = makeRamp<ComplexSignal32>(2, 20);
    const std::complex<float> factor(0.5f, -2.0f);
    const ComplexSignal32 difference = a - b * factor;
    ComplexSignal32 sum = a;
    sum += b;
    for (int c = 0; c < 2; ++c)
        for (int i = 0; i < 19; ++i) {
            const std::complex<float> x = a.getReadChannelPtr(c)[i], y = b.getReadChannelPtr(c)[i];
            EXPECT_EQ(difference.getReadChannelPtr(c)[i], x - y * factor);  // exact: small integers
            EXPECT_EQ(sum.getReadChannelPtr(c)[i], x + y);
            EXPECT_EQ(a.getReadChannelPtr(c)[i], makeValue<std::complex<float>>(c, i));
        }
}

TEST(Signals, anEmptySumTakesItsFirstTermOver) {
    const ComplexSignal32 term = makeRamp<ComplexSignal32>(2, 8);
    ComplexSignal32 sum;
    sum += term;
    EXPECT_EQ(sum.data, term.data);
    ComplexSignal32 withoutSamples(5, 0);
    withoutSamples += term;
    EXPECT_EQ(withoutSamples.numOfChannels, 2);
    sum += term;  // parts from the term
    EXPECT_NE(sum.data, term.data);
    EXPECT_EQ(sum.getReadChannelPtr(1)[7], 2.0f * term.getReadChannelPtr(1)[7]);
}

TEST(Signals, extractsSectionsAndChannelsIntoStorageOfTheirOwn) {
    const Signal32 signal = makeRamp<Signal32>(4, 40);
    const Signal32 section = signal.extractSection(7, 21), channels = signal.extractChannels(1, 2);
    ASSERT_EQ(section.numOfChannels, 4);
    ASSERT_EQ(section.numOfSamples, 21);
    ASSERT_EQ(channels.numOfChannels, 2);
    ASSERT_EQ(channels.numOfSamples, 40);
    for (int i = 0; i < 21; ++i) EXPECT_EQ(section.getReadChannelPtr(3)[i], makeValue<float>(3, 7 + i));
    for (int i = 0; i < 40; ++i) EXPECT_EQ(channels.getReadChannelPtr(1)[i], makeValue<float>(2, i));
    EXPECT_NE(signal.extractSection(0, 40).data, signal.data);

    const auto rows = signal.toVectorOfChannels();
    ASSERT_EQ(rows.size(), 4u);
    for (int c = 0; c < 4; ++c) {
        EXPECT_EQ(rows[c].numOfChannels, 1);
        EXPECT_EQ(rows[c].getReadChannelPtr(0)[39], makeValue<float>(c, 39));
    }
}

TEST(Signals, sumsChannelsInOrder) {
    ComplexSignal32 signal(3, 2);
    // In float, (1e8 + 1) - 1e8 is 0 and (1e8 - 1e8) + 1 would be 1.
    const float values[3] = {1e8f, 1.0f, -1e8f};
    for (int c = 0; c < 3; ++c)
        for (int i = 0; i < 2; ++i) signal.getWriteChannelPtr(c)[i] = {values[c], -values[c]};
    const ComplexSignal32 sum = ComplexSignal32::sumChannels(signal);
    ASSERT_EQ(sum.numOfChannels, 1);
    EXPECT_EQ(sum.getReadChannelPtr(0)[1], std::complex<float>(0.0f, 0.0f));
    const ComplexSignal32 one = makeRamp<ComplexSignal32>(1, 9);
    const ComplexSignal32 copy = ComplexSignal32::sumChannels(one);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(copy.getReadChannelPtr(0)[i], one.getReadChannelPtr(0)[i]);
}

TEST(Signals, convertsBetweenWidthsAndPolarForm) {
    std::mt19937 generator(1);
    std::normal_distribution<double> normal;
    Signal64 wide(2, 51);
    ComplexSignal64 wideSpectrum(2, 51);
    for (int c = 0; c < 2; ++c)
        for (int i = 0; i < 51; ++i) {
            wide.getWriteChannelPtr(c)[i] = normal(generator);
            wideSpectrum.getWriteChannelPtr(c)[i] = {normal(generator), normal(generator)};
        }
    const Signal32 narrow = wide.toSignal32();
    const Signal64 back = narrow.toSignal64();
    const ComplexSignal32 spectrum = wideSpectrum.toComplexSignal32();
    const ComplexSignal64 spectrumBack = spectrum.toComplexSignal64();
    const Signal<float> magnitudes = spectrum.getMagnitudeSignal(), phases = spectrum.getPhaseSignal();
    const ComplexSignal32 again = ComplexSignal32::fromPolar(magnitudes, phases);
    for (int c = 0; c < 2; ++c)
        for (int i = 0; i < 51; ++i) {
            EXPECT_EQ(narrow.getReadChannelPtr(c)[i], static_cast<float>(wide.getReadChannelPtr(c)[i]));
            EXPECT_EQ(back.getReadChannelPtr(c)[i], double{narrow.getReadChannelPtr(c)[i]});
            const std::complex<float> bin = spectrum.getReadChannelPtr(c)[i];
            EXPECT_EQ(bin, std::complex<float>(wideSpectrum.getReadChannelPtr(c)[i]));
            EXPECT_EQ(spectrumBack.getReadChannelPtr(c)[i], std::complex<double>(bin));
            EXPECT_FLOAT_EQ(magnitudes.getReadChannelPtr(c)[i], std::abs(bin));
            EXPECT_NEAR(phases.getReadChannelPtr(c)[i], std::arg(bin), 1e-6);
            EXPECT_NEAR(std::abs(again.getReadChannelPtr(c)[i] - bin), 0.0, 1e-6 * (1.0 + std::abs(bin)));
        }
}

TEST(Signals, emptySignalsHoldNothing) {
    EXPECT_EQ(Signal32::empty.data, nullptr);
    EXPECT_EQ(ComplexSignal32::empty.numOfChannels, 0);
    EXPECT_TRUE(Signal32::empty.toVectorOfChannels().empty());
    EXPECT_EQ((Signal32::empty * 2.0f).numOfSamples, 0);
    EXPECT_EQ(Signal32().getWritePointer(), nullptr);
}

TEST(Signals, rowsAreMissedOnlyWhereThereAreSamples) {
    EXPECT_EQ(ComplexSignal32::sumChannels(ComplexSignal32::empty).numOfChannels, 1);
    EXPECT_EQ(Signal32::empty.createMultichannelSignal(2).numOfChannels, 2);
    EXPECT_THROW(ComplexSignal32::sumChannels(ComplexSignal32(0, 3)), std::out_of_range);
    EXPECT_THROW(Signal32(0, 3).createMultichannelSignal(2), std::out_of_range);
}

}  // namespace
}  // namespace zevrant
