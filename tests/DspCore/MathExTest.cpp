#include "DspCore/MathEx.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <stdexcept>
#include <vector>

namespace zevrant {
namespace {

// Small numbers of both signs, and both sides of every power of two and of every midpoint.
TEST(MathEx, powersOfTwoMatchTheirDefinitions) {
    std::vector<std::int64_t> numbers = {INT_MIN, -1000, INT_MAX};
    for (int n = -5; n <= 5000; ++n) numbers.push_back(n);
    for (std::int64_t power = 4096; power <= INT_MAX; power *= 2)
        for (const std::int64_t centre : {power, power + power / 2})
            for (const std::int64_t n : {centre - 1, centre, centre + 1})
                if (n <= INT_MAX) numbers.push_back(n);
    for (const std::int64_t number : numbers) {
        SCOPED_TRACE(number);
        const int n = static_cast<int>(number);
        std::int64_t upper = 1;
        int logarithm = 0;
        while (upper < n) upper *= 2;
        while ((std::int64_t{2} << logarithm) <= n) ++logarithm;
        const std::int64_t nearest = upper - n < std::llabs(n - upper / 2) ? upper : upper / 2;
        const auto expectPower = [n](int (*find)(int), std::int64_t expected) {
            if (expected <= INT_MAX)
                EXPECT_EQ(find(n), expected);
            else
                EXPECT_THROW(find(n), std::overflow_error);
        };
        expectPower(MathEx::findLargerPowerOfTwo, upper);
        expectPower(MathEx::findNearestPowerOfTwo, nearest);
        if (n >= 0) {
            EXPECT_EQ(MathEx::log2(n), logarithm);
        }
    }
}

TEST(MathEx, decibelsMatchTheirDefinition) {
    for (double gain = 1e-30; gain < 1e30; gain *= 1.0173) {
        const auto value = static_cast<float>(gain);
        const double decibels = 20.0 * std::log10(double{value});
        // The logarithm is good to a few last places, of 1 where it passes through 0.
        const double tolerance = 4.0 * FLT_EPSILON * (20.0 + std::abs(decibels));
        EXPECT_NEAR(MathEx::toDecibel(value), decibels, tolerance);
        EXPECT_NEAR(MathEx::toDecibel(value, -100.0f), std::max(-100.0, decibels), tolerance);
        // db / 20 carries half a last place into the exponent of 10.
        const auto db = static_cast<float>(decibels);
        const double expected = std::pow(10.0, double{db} / 20.0);
        EXPECT_NEAR(MathEx::fromDecibel(db), expected,
                    expected * FLT_EPSILON * (2.0 + std::abs(decibels) / 20.0 * std::numbers::ln10));
    }
    EXPECT_EQ(MathEx::toDecibel(0.0f), -INFINITY);
    EXPECT_EQ(MathEx::toDecibel(-0.0f, -100.0f), -100.0f);
    EXPECT_EQ(MathEx::fromDecibel(-INFINITY), 0.0f);
}

TEST(MathEx, roundingToWideIntegersIsAwayFromZeroAndToNarrowOnesToEven) {
    for (int quarters = -4000; quarters <= 4000; ++quarters) {
        EXPECT_EQ(MathEx::roundToInt64(quarters / 4.0), std::llround(quarters / 4.0)) << quarters;
        EXPECT_EQ(MathEx::roundToInt32(quarters / 4.0), std::nearbyint(quarters / 4.0)) << quarters;
    }
    EXPECT_EQ(MathEx::roundToInt64(std::nextafter(0.5, 0.0)), 1) << "the sum with a half rounds up to 1";
    EXPECT_EQ(MathEx::roundToInt64(-0x1p63), INT64_MIN);
    for (const double x : {0x1p63, -0x1.0000000000001p63, double{-INFINITY}, std::nan("")})
        EXPECT_THROW(MathEx::roundToInt64(x), std::range_error) << x;
    EXPECT_EQ(MathEx::roundToInt32(2147483648.0), INT_MIN) << "wraps";
    EXPECT_EQ(MathEx::roundToInt32(4294967297.0), 1) << "wraps";
}

TEST(MathEx, phasesWrapToTheNearestTurn) {
    const long double turn = 2.0L * std::numbers::pi_v<long double>;
    for (double magnitude = 1e-6; magnitude < 1e9; magnitude *= 1.0037)
        for (const auto phase : {static_cast<float>(magnitude), static_cast<float>(-magnitude)}) {
            const float wrapped = MathEx::toMinusPiToPi(phase);
            // 2 pi as a double is off by 2.5e-16 per turn; the product rounds to 53 bits.
            const double tolerance = FLT_EPSILON * 2.0 + magnitude * DBL_EPSILON;
            const long double distance = std::remainder(static_cast<long double>(phase) - wrapped, turn);
            EXPECT_NEAR(static_cast<double>(distance), 0.0, tolerance) << phase;
            EXPECT_LE(std::abs(wrapped), std::numbers::pi + tolerance) << phase;
            if (magnitude < 3.14) {
                EXPECT_EQ(wrapped, phase);
            }
        }
}

TEST(MathEx, reverbTimesDecayBySixtyDecibels) {
    for (const float reverbTime : {0.1f, 1.0f, 7.5f})
        for (const float blockTime : {0.001f, 0.1f}) {
            const float gain = MathEx::reverbTimeToGain(reverbTime, blockTime);
            EXPECT_NEAR(MathEx::toDecibel(gain) * reverbTime / blockTime, -60.0, 0.05);
            // The gain lies close to 1, where its last place is a large share of its logarithm.
            const double tolerance = 4.0 * FLT_EPSILON / -std::log(double{gain}) + 4.0 * FLT_EPSILON;
            EXPECT_NEAR(MathEx::gainToReverbTime(gain, blockTime), reverbTime, reverbTime * tolerance);
        }
    EXPECT_EQ(MathEx::reverbTimeToGain(0.0f, 1.0f), 0.0f);
    EXPECT_EQ(MathEx::gainToReverbTime(0.0f, 1.0f), 0.0f);
}

TEST(MathEx, remainderTakesTheSignOfTheDivisor) {
    for (int a = -60; a <= 60; ++a)
        for (int b = -9; b <= 9; ++b) {
            const int expected = b == 0 ? a : ((a % b) + b) % b;  // exact in quarters
            EXPECT_EQ(remainder(static_cast<float>(a) / 4.0f, static_cast<float>(b) / 4.0f),
                      static_cast<float>(expected) / 4.0f)
                << a << " by " << b << ", in quarters";
        }
}

}  // namespace
}  // namespace zevrant
