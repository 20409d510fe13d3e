#include "DspCore/Signals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <stdexcept>

#include "TestSignals.h"

namespace zevrant {
namespace {

template <class T>
T makeValue(int channel, int sample) {
    const double value = 1000.0 * (channel + 1) + sample;
    if constexpr (std::is_floating_point_v<T>)
        return static_cast<T>(value);
    else
        return T(static_cast<typename T::value_type>(value), static_cast<typename T::value_type>(-sample));
}

template <class S>
using Element = std::remove_cvref_t<decltype(*std::declval<S>().getReadChannelPtr(0))>;

template <class S>
S makeRamp(int numOfChannels, int numOfSamples) {
    S signal(numOfChannels, numOfSamples);
    for (int c = 0; c < numOfChannels; ++c)
        for (int i = 0; i < numOfSamples; ++i) signal.getWriteChannelPtr(c)[i] = makeValue<Element<S>>(c, i);
    return signal;
}

template <class S>
class SignalTypes : public testing::Test {};
using AllSignals = testing::Types<Signal32, Signal64, ComplexSignal32, ComplexSignal64>;
TYPED_TEST_SUITE(SignalTypes, AllSignals);

TYPED_TEST(SignalTypes, rowsAreAlignedAndFilledAndApartByWholeUnits) {
    using T = Element<TypeParam>;
    constexpr int unit = 64 / sizeof(T);
    for (int numOfSamples : {0, 1, unit - 1, unit, unit + 1, 1000}) {
        const TypeParam signal(3, numOfSamples, makeValue<T>(0, 5));
        EXPECT_EQ(signal.data->stride, (numOfSamples + unit - 1) / unit * unit) << numOfSamples;
        EXPECT_EQ(signal.data->alignment, 64);
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(signal.getReadChannelPtr(c)) % 64, 0u);
        EXPECT_TRUE(rowsOf(signal) == std::vector(3, std::vector(numOfSamples, makeValue<T>(0, 5))));
    }
    EXPECT_THROW(TypeParam(1 << 20, 1 << 20), std::length_error);
    EXPECT_THROW(TypeParam(2, 0x7fffffff), std::length_error);
    const TypeParam negative(-1, -5);  // holds nothing
    EXPECT_EQ(negative.data->data, nullptr);
}

TYPED_TEST(SignalTypes, copiesShareUntilTheFirstWriteOfEitherHandle) {
    for (bool writeToTheCopy : {false, true})
        for (int accessor : {0, 1, 2}) {
            TypeParam original = makeRamp<TypeParam>(2, 37);
            auto written = rowsOf(original);
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
            EXPECT_TRUE(rowsOf(reader) == written);
            written[1][3] = {};
            EXPECT_TRUE(rowsOf(writer) == written);
        }
}

TYPED_TEST(SignalTypes, aSingleOwnerWritesInPlaceAndItsTableOfRowsStays) {
    TypeParam signal = makeRamp<TypeParam>(3, 5);
    const auto* row = signal.getReadChannelPtr(0);
    EXPECT_EQ(TypeParam(signal).getReadChannelPtr(0), row);
    EXPECT_EQ(signal.getWriteChannelPtr(0), row);
    auto** table = signal.getWritePointer();
    for (int c = 0; c < 3; ++c) EXPECT_EQ(table[c], signal.getReadChannelPtr(c));
    TypeParam copy = signal;
    copy.ensureUnique();
    EXPECT_EQ(copy.getWritePointer()[2], copy.getReadChannelPtr(2));
    EXPECT_EQ(signal.getWritePointer(), table);

    TypeParam moved = std::move(signal);
    EXPECT_EQ(moved.getWriteChannelPtr(0), row);
    EXPECT_EQ(signal.data, nullptr);  // NOLINT(bugprone-use-after-move): a moved-from signal is empty
    EXPECT_TRUE(signal.numOfChannels == 0 && signal.numOfSamples == 0);
}

TYPED_TEST(SignalTypes, viewsShrinkAndGrowInsideTheirBlock) {
    TypeParam signal = makeRamp<TypeParam>(4, 100);
    const TypeParam copy = signal;
    EXPECT_FALSE(signal.ensureDimensions(2, 10));
    EXPECT_EQ(signal.data, copy.data);
    EXPECT_EQ(copy.numOfSamples, 100);
    signal.getWriteChannelPtr(0);  // clones hidden rows and columns too
    EXPECT_NE(signal.data, copy.data);
    EXPECT_FALSE(signal.ensureDimensions(4, 100));
    EXPECT_TRUE(rowsOf(signal) == rowsOf(copy));
    for (auto [channels, samples] : {std::pair{5, 100}, std::pair{4, 101}}) {
        TypeParam grown = copy;
        EXPECT_TRUE(grown.ensureDimensions(channels, samples));
        EXPECT_NE(grown.data, copy.data);
        EXPECT_EQ(grown.data->numOfChannels, channels);
        EXPECT_EQ(grown.data->numOfSamples, samples);
    }
}

TYPED_TEST(SignalTypes, multichannelSignalsRepeatTheFirstRow) {
    const TypeParam four = makeRamp<TypeParam>(4, 33);
    for (int n : {-1, 0, 1}) {
        const TypeParam same = four.createMultichannelSignal(n);
        EXPECT_EQ(same.data, four.data);
        EXPECT_EQ(same.numOfChannels, 4);
    }
    const TypeParam three = four.createMultichannelSignal(3);
    EXPECT_TRUE(rowsOf(three) == std::vector(3, rowsOf(four)[0]));
    EXPECT_NE(three.data, four.data);
}

// The right operands are larger than the left ones, so that their own strides count and the left ones'
// shapes decide. Small integers keep all results exact.
TEST(Signals, operatorsGiveNewSignalsInTheShapeOfTheLeftOperand) {
    const Signal32 a = makeRamp<Signal32>(2, 19), b = makeRamp<Signal32>(3, 50) * 3.0f;
    const std::complex<float> factor(0.5f, -2.0f);
    const ComplexSignal32 z = makeRamp<ComplexSignal32>(2, 19), w = makeRamp<ComplexSignal32>(3, 50) * factor;
    ComplexSignal32 total = z;
    total += w;
    const auto expectEach = [](const auto& result, const auto& define) {
        auto expected = rowsOf(result);
        for (std::size_t c = 0; c < 2; ++c)
            for (int i = 0; i < 19; ++i)
                expected.at(c).at(static_cast<std::size_t>(i)) = define(static_cast<int>(c), i);
        EXPECT_EQ(rowsOf(result), expected);
        EXPECT_TRUE(result.numOfChannels == 2 && result.numOfSamples == 19);
    };
    const auto x = [&](int c, int i) { return a.getReadChannelPtr(c)[i]; };
    const auto y = [&](int c, int i) { return b.getReadChannelPtr(c)[i]; };
    const auto u = [&](int c, int i) { return makeValue<std::complex<float>>(c, i); };  // z holds it still
    const auto v = [&](int c, int i) { return w.getReadChannelPtr(c)[i]; };
    expectEach(a * b, [&](int c, int i) { return x(c, i) * y(c, i); });
    expectEach(a + b, [&](int c, int i) { return x(c, i) + y(c, i); });
    expectEach(a * 0.5f, [&](int c, int i) { return x(c, i) * 0.5f; });
    expectEach(z - w, [&](int c, int i) { return u(c, i) - v(c, i); });
    expectEach(z * factor, [&](int c, int i) { return u(c, i) * factor; });
    expectEach(total, [&](int c, int i) { return u(c, i) + v(c, i); });
    expectEach(z, u);
}

TEST(Signals, anEmptySumTakesItsFirstTermOver) {
    const ComplexSignal32 term = makeRamp<ComplexSignal32>(2, 8);
    ComplexSignal32 sum, withoutSamples(5, 0);
    sum += term;
    EXPECT_EQ(sum.data, term.data);
    withoutSamples += term;
    EXPECT_EQ(withoutSamples.numOfChannels, 2);
    sum += term;  // parts from the term
    EXPECT_NE(sum.data, term.data);
    EXPECT_EQ(sum.getReadChannelPtr(1)[7], 2.0f * term.getReadChannelPtr(1)[7]);
}

TEST(Signals, extractsSectionsAndChannelsIntoStorageOfTheirOwn) {
    const Signal32 signal = makeRamp<Signal32>(4, 40);
    const auto rows = rowsOf(signal);
    const auto section = rowsOf(signal.extractSection(7, 21));
    ASSERT_EQ(section.size(), 4u);
    for (std::size_t c = 0; c < 4; ++c)
        EXPECT_EQ(section[c], std::vector(rows[c].begin() + 7, rows[c].begin() + 28));
    EXPECT_EQ(rowsOf(signal.extractChannels(1, 2)), (std::vector{rows[1], rows[2]}));
    EXPECT_NE(signal.extractSection(0, 40).data, signal.data);
    const auto channels = signal.toVectorOfChannels();
    ASSERT_EQ(channels.size(), 4u);
    for (std::size_t c = 0; c < 4; ++c) EXPECT_EQ(rowsOf(channels[c]), std::vector(1, rows[c]));
}

TEST(Signals, sumsChannelsInOrder) {
    ComplexSignal32 signal(3, 2);
    // In float, (1e8 + 1) - 1e8 is 0 and (1e8 - 1e8) + 1 would be 1.
    const float values[3] = {1e8f, 1.0f, -1e8f};
    for (int c = 0; c < 3; ++c)
        for (int i = 0; i < 2; ++i) signal.getWriteChannelPtr(c)[i] = {values[c], -values[c]};
    EXPECT_EQ(rowsOf(ComplexSignal32::sumChannels(signal)),
              std::vector(1, std::vector(2, std::complex<float>())));
    const ComplexSignal32 one = makeRamp<ComplexSignal32>(1, 9);
    EXPECT_EQ(rowsOf(ComplexSignal32::sumChannels(one)), rowsOf(one));
}

TEST(Signals, convertsBetweenWidthsAndPolarForm) {
    Signal64 wide(2, 51);
    ComplexSignal64 wideSpectrum(2, 51);
    for (int c = 0; c < 2; ++c)
        for (int i = 0; i < 51; ++i) {
            wide.getWriteChannelPtr(c)[i] = std::sin(1.0 + i + 100 * c);
            wideSpectrum.getWriteChannelPtr(c)[i] = std::polar(std::exp(0.1 * (i - 25)), 1.0 + i + 100 * c);
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

TEST(Signals, rowsAreMissedOnlyWhereThereAreSamples) {
    EXPECT_EQ(Signal32::empty.data, nullptr);
    EXPECT_TRUE(Signal32::empty.toVectorOfChannels().empty());
    EXPECT_EQ((Signal32::empty * 2.0f).numOfSamples, 0);
    EXPECT_EQ(Signal32().getWritePointer(), nullptr);
    EXPECT_EQ(ComplexSignal32::sumChannels(ComplexSignal32::empty).numOfChannels, 1);
    EXPECT_EQ(Signal32::empty.createMultichannelSignal(2).numOfChannels, 2);
    EXPECT_THROW(ComplexSignal32::sumChannels(ComplexSignal32(0, 3)), std::out_of_range);
    EXPECT_THROW(Signal32(0, 3).createMultichannelSignal(2), std::out_of_range);
}

}  // namespace
}  // namespace zevrant
