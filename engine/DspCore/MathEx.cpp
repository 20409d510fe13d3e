#include "DspCore/MathEx.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <stdexcept>

namespace zevrant {
namespace MathEx {

namespace {

// 64 bits hold the power above every int.
std::int64_t findLargerPower(int n) {
    return n <= 1 ? 1 : static_cast<std::int64_t>(std::bit_ceil(static_cast<std::uint64_t>(n)));
}

int narrowPower(std::int64_t power) {
    if (power > std::numeric_limits<int>::max()) throw std::overflow_error("power of two exceeds int");
    return static_cast<int>(power);
}

}  // namespace

float toDecibel(float gain) {
    return 20.0f * std::log10(gain);
}

float toDecibel(float gain, float floorDb) {
    return gain == 0.0f ? floorDb : std::max(floorDb, toDecibel(gain));
}

float fromDecibel(float db) {
    return std::pow(10.0f, db / 20.0f);
}

int findNearestPowerOfTwo(int n) {
    const std::int64_t upper = findLargerPower(n), lower = upper / 2;
    return narrowPower(upper - n < std::abs(n - lower) ? upper : lower);
}

int findLargerPowerOfTwo(int n) {
    return narrowPower(findLargerPower(n));
}

int log2(int n) {
    return n < 2 ? 0 : std::bit_width(static_cast<unsigned>(n)) - 1;
}

std::int64_t roundToInt64(double x) {
    const double moved = x > 0.0 ? x + 0.5 : x - 0.5;
    if (!(moved >= -0x1p63 && moved < 0x1p63)) throw std::range_error("value exceeds 64 bits");
    return static_cast<std::int64_t>(moved);
}

float toMinusPiToPi(float phase) {
    constexpr double turn = 2.0 * std::numbers::pi;
    return static_cast<float>(phase - turn * roundToInt32(phase / turn));
}

float reverbTimeToGain(float reverbTime, float blockTime) {
    return std::pow(1000.0f, -blockTime / reverbTime);
}

float gainToReverbTime(float gain, float blockTime) {
    return blockTime * -3.0f / std::log10(gain);
}

}  // namespace MathEx

float remainder(float a, float b) {
    return b == 0.0f ? a : a - b * std::floor(a / b);
}

}  // namespace zevrant
