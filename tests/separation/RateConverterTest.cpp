#include "separation/RateConverter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace zevrant {
namespace {

using separation::StreamConverter;

std::vector<float> convert(StreamConverter& converter, const std::vector<float>& in, int numOfChannels) {
    std::mt19937 random(1);
    std::vector<float> out;
    const auto width = static_cast<std::size_t>(numOfChannels);
    for (std::size_t start = 0; start < in.size();) {
        const std::size_t size = std::min<std::size_t>(random() % 400 * width, in.size() - start);
        converter.process(in.data() + start, static_cast<int>(size / width), out);
        start += size;
    }
    return out;
}

struct Measures {
    double gain, rest;  // dB of the tone, and of all that is not the tone against a tone of 0 dB
};

// The best fitting sine of this frequency in the middle half.
Measures measure(const std::vector<float>& values, double frequency, double rate) {
    double cc = 0.0, ss = 0.0, cs = 0.0, vc = 0.0, vs = 0.0, vv = 0.0;
    const std::size_t first = values.size() / 4, last = 3 * values.size() / 4;
    for (std::size_t i = first; i < last; ++i) {
        const double phase = 2.0 * M_PI * frequency * static_cast<double>(i) / rate;
        const double c = std::cos(phase), s = std::sin(phase), v = values[i];
        cc += c * c, ss += s * s, cs += c * s, vc += v * c, vs += v * s, vv += v * v;
    }
    const double determinant = cc * ss - cs * cs;
    const double a = (vc * ss - vs * cs) / determinant, b = (vs * cc - vc * cs) / determinant;
    const double rest = std::max(vv - a * vc - b * vs, 1e-30) * 2.0 / static_cast<double>(last - first);
    return {20.0 * std::log10(std::hypot(a, b)), 10.0 * std::log10(rest)};
}

// There and back: flat, and clean, for two channels that are not each other's; images on the way stay low up
// to half of the lower rate.
TEST(StreamConverter, keepsTheBandAndLetsNothingFold) {
    for (const auto& [host, work] :
         {std::pair(44100, 48000), std::pair(48000, 44100), std::pair(44101, 48000)}) {
        StreamConverter there(host, work, 2), back(work, host, 2);
        EXPECT_LT(static_cast<double>(there.getDelay()) / host + static_cast<double>(back.getDelay()) / work,
                  0.006);
        for (double frequency = 60.0; frequency < 22050.0; frequency += 697.0) {
            SCOPED_TRACE(testing::Message() << frequency << " Hz, " << host << " to " << work);
            std::vector<float> in;
            for (int i = 0; i < 12000; ++i) {
                in.push_back(static_cast<float>(std::sin(2.0 * M_PI * frequency * i / host)));
                in.push_back(0.0f);
            }
            there.reset();
            back.reset();
            std::vector<float> converted = convert(there, in, 2);
            ASSERT_EQ(converted.size() / 2, static_cast<std::size_t>(std::ceil(12000.0 * work / host)));
            const std::vector<float> returned = convert(back, converted, 2);
            std::vector<float> left, middle;
            for (std::size_t i = 0; i < returned.size(); i += 2) {
                left.push_back(returned[i]);
                EXPECT_EQ(returned[i + 1], 0.0f);
            }
            for (std::size_t i = 0; i < converted.size(); i += 2) middle.push_back(converted[i]);
            EXPECT_LT(measure(left, frequency, host).rest, -80.0);
            EXPECT_LT(measure(middle, frequency, work).rest, -80.0);
            EXPECT_NEAR(frequency <= 18000.0 ? measure(left, frequency, host).gain : 0.0, 0.0, 0.1);
        }
    }
}

}  // namespace
}  // namespace zevrant
