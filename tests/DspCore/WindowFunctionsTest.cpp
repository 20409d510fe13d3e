#include "DspCore/WindowFunctions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <numbers>

#include "TestSignals.h"

namespace zevrant {
namespace {

constexpr long double pi = std::numbers::pi_v<long double>;
constexpr int sizes[] = {1, 2, 3, 16, 17, 255, 1000, 2048};

struct PeriodicWindow {
    const char* name;
    Signal32 (*generate)(int numOfChannels, int size);
    long double (*calculate)(long double t);  // t in periods
};

long double cosine(long double turns) {
    return std::cos(2.0L * pi * turns);
}

long double sineSquared(long double t) {
    return std::sin(pi * t) * std::sin(pi * t);
}

const PeriodicWindow periodicWindows[] = {
    {"Hamming", WindowFunctions::generateHammingWindow,
     [](long double t) { return 0.54L - 0.46L * cosine(t); }},
    {"Hann", WindowFunctions::generateHannWindow, sineSquared},
    {"square-root Hann", WindowFunctions::generateSqrtHannWindow,
     [](long double t) { return std::sin(pi * t); }},
    {"Vorbis", WindowFunctions::generateVorbisWindow,
     [](long double t) { return std::sin(pi / 2.0L * sineSquared(t)); }},
    {"Blackman", WindowFunctions::generateBlackmanWindow,
     [](long double t) {
         return 0.3635819L - 0.4891775L * cosine(t) + 0.1365995L * cosine(2.0L * t) -
                0.0106411L * cosine(3.0L * t);
     }},
    {"flat top", WindowFunctions::generateFlatTopWindow,
     [](long double t) {
         return 0.21557895L - 0.41663158L * cosine(t) + 0.277263158L * cosine(2.0L * t) -
                0.083578947L * cosine(3.0L * t) + 0.006947368L * cosine(4.0L * t);
     }},
};

TEST(WindowFunctions, periodicWindowsMatchTheirFormulas) {
    for (const PeriodicWindow& window : periodicWindows)
        for (const int size : sizes) {
            SCOPED_TRACE(testing::Message() << window.name << ", size " << size);
            const auto row = rowsOf(window.generate(1, size)).at(0);
            ASSERT_EQ(row.size(), static_cast<std::size_t>(size));
            for (int i = 0; i < size; ++i) {
                const auto expected = static_cast<double>(window.calculate((i + 0.5L) / size));
                // Half a last place of the result; the terms up to 1 cancel to within 1e-15, of which the
                // square root near 0 makes 1e-15 / (2 * root) at most.
                const double root = std::max(std::abs(expected), 1e-4);
                EXPECT_NEAR(row[i], expected, std::abs(expected) * FLT_EPSILON / 2 * 1.0001 + 2e-15 / root);
            }
        }
}

TEST(WindowFunctions, gaussianPeaksAtHalfItsSize) {
    for (const float sigma : {0.1f, 2.0f, INFINITY})
        for (const int size : sizes) {
            const Signal32 signal = WindowFunctions::generateGaussianWindow(1, size, sigma);
            for (int i = 0; i < size; ++i) {
                const long double u = (i - size / 2.0L) / (sigma * (size / 2.0L));
                const auto expected = static_cast<double>(std::exp(-0.5L * u * u));
                EXPECT_NEAR(signal.getReadChannelPtr(0)[i], expected, expected * FLT_EPSILON + FLT_MIN)
                    << "sigma " << sigma << ", size " << size << ", sample " << i;
            }
        }
}

// By its three-term recurrence, which shares nothing with the trigonometric form.
long double calcChebyshevPolynomial(int degree, long double t) {
    long double before = 1.0L, value = t;
    for (int n = 1; n < degree; ++n) before = std::exchange(value, 2.0L * t * value - before);
    return degree == 0 ? before : value;
}

TEST(WindowFunctions, dolphChebyshevMatchesItsSum) {
    for (const float ripple : {1.0f, 10.0f, 100.0f, 1e4f})
        for (const int size : {1, 2, 3, 4, 5, 6, 7, 8, 16, 31, 64, 101}) {
            SCOPED_TRACE(testing::Message() << "ripple " << ripple << ", size " << size);
            const Signal32 signal = WindowFunctions::generateDolphChebyshevWindow(1, size, ripple);
            std::vector<long double> expected(size, ripple);
            const int degree = size - 1, half = degree / 2;
            const long double x0 = std::cosh(static_cast<long double>(std::acosh(ripple)) / degree);
            long double scale = ripple;
            for (int i = 0; size >= 3 && i <= size / 2; ++i) {
                long double sum = 0.0L;
                scale = ripple;
                for (int k = 1; k <= std::max(half, 1); ++k) {
                    const long double bin = calcChebyshevPolynomial(degree, x0 * std::cos(pi * k / size));
                    sum += bin * std::cos(2.0L * pi * (i - half) * k / size);
                    scale += 2.0L * std::abs(bin);
                }
                expected[i] = expected[size - 1 - i] = ripple + 2.0L * sum;
            }
            for (int i = 0; i < size; ++i) {
                const auto value = static_cast<double>(expected[i]);
                EXPECT_NEAR(signal.getReadChannelPtr(0)[i], value,
                            std::abs(value) * FLT_EPSILON + static_cast<double>(scale) * size * 1e-14)
                    << "sample " << i;
            }
        }
}

TEST(WindowFunctions, everyChannelHoldsTheSameRow) {
    for (const int size : {-1, 0, 1, 17})
        for (const int numOfChannels : {0, 1, 3})
            for (const Signal32& window :
                 {WindowFunctions::generateHannWindow(numOfChannels, size),
                  WindowFunctions::generateGaussianWindow(numOfChannels, size, 0.5f),
                  WindowFunctions::generateDolphChebyshevWindow(numOfChannels, size, 100.0f)}) {
                const auto rows = rowsOf(window);
                ASSERT_EQ(rows.size(), static_cast<std::size_t>(numOfChannels));
                for (const auto& row : rows) EXPECT_EQ(row, rows[0]);
                EXPECT_EQ(window.numOfSamples, std::max(size, 0));
            }
    EXPECT_ANY_THROW(WindowFunctions::generateHannWindow(2, INT_MAX));
}

}  // namespace
}  // namespace zevrant
