#include "DspCore/MathEx.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>
#include <random>
#include <stdexcept>
#include <vector>

namespace zevrant {
namespace {

constexpr float infinity = std::numeric_limits<float>::infinity();

// Small numbers of both signs, and both sides of every power of two and of every midpoint.
std::vector<int> getOddIntegers() {
    std::vector<int> numbers = {INT_MIN, INT_MIN + 1, -1000};
    for (int n = -5; n <= 5000; ++n) numbers.push_back(n);
    for (std::int64_t power = 4096; power <= INT_MAX; power *= 2)
        for (const std::int64_t centre : {power, power + power / 2})
            for (const std::int64_t n : {centre - 1, centre, centre + 1})
                if (n <= INT_MAX) numbers.push_back(static_cast<int>(n));
    numbers.push_back(INT_MAX);
    return numbers;
}

TEST(MathEx, powersOfTwoMatchTheirDefinitions) {
    for (const int n : getOddIntegers()) {
        SCOPED_TRACE(n);
        std::int64_t upper = 1;
        int logarithm = 0;
        while (upper < n) upper *= 2;
        while ((std::int64_t{2} << logarithm) <= n) ++logarithm;
        const std::int64_t lower = upper / 2;
        const std::int64_t nearest = upper - n < std::llabs(n - lower) ? upper : lower;

        if (upper <= INT_MAX) {
            EXPECT_EQ(MathEx::findLargerPowerOfTwo(n), upper);
        } else {
            EXPECT_THROW(MathEx::findLargerPowerOfTwo(n), std::overflow_error);
        }
        if (nearest <= INT_MAX) {
            EXPECT_EQ(MathEx::findNearestPowerOfTwo(n), nearest);
        } else {
            EXPECT_THROW(MathEx::findNearestPowerOfTwo(n), std::overflow_error);
        }
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
        for (const float floorDb : {-100.0f, 0.0f, 60.0f})
            EXPECT_NEAR(MathEx::toDecibel(value, floorDb), std::max<double>(floorDb, decibels), tolerance);
        // db / 20 carries half a last place into the exponent of 10.
        const auto db = static_cast<float>(decibels);
        const double expected = std::pow(10.0, double{db} / 20.0);
        EXPECT_NEAR(MathEx::fromDecibel(db), expected,
                    expected * FLT_EPSILON * (2.0 + std::abs(decibels) / 20.0 * std::numbers::ln10));
    }
    EXPECT_EQ(MathEx::toDecibel(0.0f), -infinity);
    EXPECT_EQ(MathEx::toDecibel(0.0f, -100.0f), -100.0f);
    EXPECT_EQ(MathEx::toDecibel(-0.0f, -100.0f), -100.0f);
    EXPECT_EQ(MathEx::toDecibel(1e-9f, -100.0f), -100.0f);
    EXPECT_EQ(MathEx::toDecibel(1.0f), 0.0f);
    EXPECT_EQ(MathEx::fromDecibel(-infinity), 0.0f);
}

TEST(MathEx, roundToInt64RoundsHalfAwayFromZero) {
    for (int quarters = -4000; quarters <= 4000; ++quarters) {
        const int magnitude = (std::abs(quarters) + 2) / 4;  // in quarters, adding a half is adding 2
        EXPECT_EQ(MathEx::roundToInt64(quarters / 4.0), quarters < 0 ? -magnitude : magnitude) << quarters;
    }
    EXPECT_EQ(MathEx::roundToInt64(std::nextafter(0.5, 0.0)), 1) << "the sum with a half rounds up to 1";
    EXPECT_EQ(MathEx::roundToInt64(0x1p62), INT64_C(1) << 62);
    EXPECT_EQ(MathEx::roundToInt64(-0x1p63), INT64_MIN);
    for (const double x : {0x1p63, -0x1.0000000000001p63, double{INFINITY}, double{-INFINITY}, std::nan("")})
        EXPECT_THROW(MathEx::roundToInt64(x), std::range_error) << x;
}

TEST(MathEx, roundToInt32RoundsHalfToEven) {
    for (int quarters = -4000; quarters <= 4000; ++quarters)
        EXPECT_EQ(MathEx::roundToInt32(quarters / 4.0), std::nearbyint(quarters / 4.0)) << quarters;
    EXPECT_EQ(MathEx::roundToInt32(2147483647.0), INT_MAX);
    EXPECT_EQ(MathEx::roundToInt32(-2147483648.0), INT_MIN);
    EXPECT_EQ(MathEx::roundToInt32(2147483648.0), INT_MIN) << "wraps";
    EXPECT_EQ(MathEx::roundToInt32(4294967297.0), 1) << "wraps";
}

TEST(MathEx, phasesWrapToTheNearestTurn) {
    std::mt19937 random(1);
    std::uniform_real_distribution<double> exponent(-20.0, 30.0);
    const long double turn = 2.0L * std::numbers::pi_v<long double>;
    for (int i = 0; i < 20000; ++i) {
        const auto phase = static_cast<float>((i % 2 != 0 ? -1.0 : 1.0) * std::exp2(exponent(random)));
        const float wrapped = MathEx::toMinusPiToPi(phase);
        // 2 pi as a double is off by 2.5e-16 per turn; the product rounds to 53 bits.
        const double tolerance = FLT_EPSILON * 2.0 + std::abs(double{phase}) * DBL_EPSILON;
        const long double distance = std::remainder(static_cast<long double>(phase) - wrapped, turn);
        EXPECT_NEAR(static_cast<double>(distance), 0.0, tolerance) << phase;
        EXPECT_LE(std::abs(wrapped), std::numbers::pi + tolerance) << phase;
        if (std::abs(phase) < 3.1415926f) {
            EXPECT_EQ(wrapped, phase);
        }
    }
}

TEST(MathEx, reverbTimesDecayBySixtyDecibels) {
    for (const float reverbTime : {0.1f, 0.5f, 1.0f, 2.0f, 7.5f})
        for (const float blockTime : {0.001f, 0.01f, 0.1f}) {
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
            SCOPED_TRACE(testing::Message() << a << " by " << b << ", in quarters");
            const float result = remainder(static_cast<float>(a) / 4.0f, static_cast<float>(b) / 4.0f);
            const int expected = b == 0 ? a : ((a % b) + b) % b;  // exact in quarters
            EXPECT_EQ(result, static_cast<float>(expected) / 4.0f);
        }
}

}  // namespace
}  // namespace zevrant
