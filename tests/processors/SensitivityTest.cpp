// How sensitivity bends masks: the formula over the whole range, measured beside its definition. Private
// members are reached with access control off.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <complex>
#include <limits>
#include <vector>

#include "processors/ZevrantProcessor.h"

namespace zevrant {
namespace {

constexpr double ulp = 0x1p-24;  // half a unit in the last place of 1: one rounding

// A processor that is set up just as far as shaping needs it.
struct Shaper {
    Shaper(int numOfChannels, int fftSize) {
        processor.outputFormat.createDefaultChannelMapping(numOfChannels);
        processor.fftSize = fftSize;
    }
    ZevrantProcessor processor;
};

std::vector<float> listMagnitudes() {
    std::vector<float> magnitudes{0.0f, 1e-38f, 1e-30f, 1e-20f, 1e-13f, 1e-12f, 1e-11f};
    for (float m = 1e-9f; m < 12.0f; m *= 1.03f) magnitudes.push_back(m);
    for (float m : {1.0f, std::nextafter(1.0f, 0.0f), std::nextafter(1.0f, 2.0f), 2.0f, 3.0f, 100.0f, 1e6f})
        magnitudes.push_back(m);
    return magnitudes;
}

// The interval in which the factor of a magnitude has to lie: what the formula gives in double, widened
// by the roundings of its single-precision steps.
struct Interval {
    double low, high;
};

Interval calcFactor(float sensitivity, float magnitude) {
    const float curve = static_cast<float>(std::pow(2.718281828459045, double{sensitivity * 0.0075f}));
    const double exponent = curve - 1.0f;
    double base = magnitude + 1e-12, uncertainty = 4 * ulp * base;
    if (!(curve < 1.0f)) {
        const double angle = double{magnitude} * double{3.1415927f};
        base = 0.5 - 0.5 * std::cos(angle) + 1e-12;
        uncertainty = (angle + 4) * ulp;  // of the angle, and of a cosine and a sum near 1
    }
    const double a = std::pow(std::max(base - uncertainty, 1e-12 * (1 - 4 * ulp)), exponent);
    const double b = std::pow(base + uncertainty, exponent);
    return {std::min(a, b) * (1 - 8 * ulp), std::max(a, b) * (1 + 8 * ulp)};
}

TEST(Sensitivity, bendsMagnitudesByItsFormulaAndKeepsPhases) {
    const auto magnitudes = listMagnitudes();
    const int numOfBins = static_cast<int>(magnitudes.size());
    Shaper shaper(1, 2 * numOfBins);
    for (float sensitivity :
         {-100.0f, -73.0f, -20.0f, -1.0f, -0.01f, 0.0f, 0.01f, 1.0f, 20.0f, 73.0f, 100.0f})
        for (float angle : {0.0f, 0.7f, 1.5707964f, 2.5f, 3.1415927f, -0.4f, -3.0f}) {
            SCOPED_TRACE(testing::Message() << "sensitivity " << sensitivity << ", angle " << angle);
            ComplexSignal32 mask(1, numOfBins);
            for (int i = 0; i < numOfBins; ++i)
                mask.getWriteChannelPtr(0)[i] = std::polar(magnitudes[i], angle);
            const auto shaped = shaper.processor.processSensitivity(sensitivity, mask);
            EXPECT_NE(shaped.data, mask.data) << "a result of its own, whatever the sensitivity";
            ASSERT_EQ(shaped.numOfSamples, numOfBins);
            for (int i = 0; i < numOfBins; ++i) {
                const std::complex<double> in = mask.getReadChannelPtr(0)[i];
                const std::complex<double> out = shaped.getReadChannelPtr(0)[i];
                const double m = std::abs(in);
                const Interval factor = calcFactor(sensitivity, static_cast<float>(m));
                const double tiny = DBL_MIN + FLT_MIN;  // denormal results may be flushed
                EXPECT_GE(std::abs(out), m * factor.low * (1 - 8 * ulp) - tiny) << "magnitude " << m;
                EXPECT_LE(std::abs(out), m * factor.high * (1 + 8 * ulp) + tiny) << "magnitude " << m;
                if (std::abs(out) > FLT_MIN) {
                    EXPECT_NEAR(std::abs(out / std::abs(out) - in / m), 0.0, 8 * ulp) << "magnitude " << m;
                }
            }
        }
}

TEST(Sensitivity, leavesBinsAboveTheSpectrumAndRowsBeyondTheFormatAlone) {
    for (float sensitivity : {-100.0f, 60.0f}) {
        Shaper shaper(2, 64);  // 33 bins, 2 channels
        const ComplexSignal32 mask(3, 50, {0.25f, -0.5f});
        const auto shaped = shaper.processor.processSensitivity(sensitivity, mask);
        ASSERT_EQ(shaped.numOfChannels, 3);
        ASSERT_EQ(shaped.numOfSamples, 50);
        for (int c = 0; c < 3; ++c)
            for (int i = 0; i < 50; ++i) {
                const float change = std::abs(shaped.getReadChannelPtr(c)[i] - std::complex(0.25f, -0.5f));
                if (c < 2 && i < 33)
                    EXPECT_GT(change, 0.05f) << c << ", " << i;
                else
                    EXPECT_LT(change, 1e-6f) << c << ", " << i;
            }
    }
}

// The way over magnitude and phase tells what a bin becomes that is not finite, at every sensitivity.
TEST(Sensitivity, binsThatAreNotFiniteFollowMagnitudeAndPhase) {
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    for (float sensitivity : {-50.0f, 0.0f, 50.0f}) {
        Shaper shaper(1, 14);
        ComplexSignal32 mask(1, 8, {0.5f, 0.0f});
        std::complex<float>* row = mask.getWriteChannelPtr(0);
        row[1] = {nan, 1.0f};
        row[2] = {inf, 1.0f};
        row[3] = {FLT_MAX, FLT_MAX};  // a modulus beyond float
        const auto shaped = shaper.processor.processSensitivity(sensitivity, mask);
        const std::complex<float>* out = shaped.getReadChannelPtr(0);
        EXPECT_TRUE(std::isnan(out[1].real()) && std::isnan(out[1].imag())) << sensitivity;
        EXPECT_FALSE(std::isfinite(out[2].real()) && std::isfinite(out[2].imag())) << sensitivity;
        EXPECT_FALSE(std::isfinite(out[3].real()) && std::isfinite(out[3].imag())) << sensitivity;
        for (int i : {0, 4, 5, 6, 7}) EXPECT_TRUE(std::isfinite(out[i].real())) << sensitivity;
    }
}

}  // namespace
}  // namespace zevrant
