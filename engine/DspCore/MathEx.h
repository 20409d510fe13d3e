#pragma once

#include <bit>
#include <cstdint>

namespace zevrant {

// Scalar conversions: decibels, powers of two, rounding and phases. All are free of state.
namespace MathEx {

// 20 log10(gain), so -infinity for 0 and NaN below it.
float toDecibel(float gain);

// As above, but never below floorDb, and floorDb for a gain of exactly 0.
float toDecibel(float gain, float floorDb);

// 10 ^ (db / 20).
float fromDecibel(float db);

// The power of two nearest to n; a tie goes to the lower one. 1 for n = 1 and 0 for n of 0 or less.
// Throws std::overflow_error where the answer would be 2^31.
int findNearestPowerOfTwo(int n);

// The smallest power of two that is not below n; 1 for n of 1 or less.
// Throws std::overflow_error for n above 2^30, where the answer would be 2^31.
int findLargerPowerOfTwo(int n);

// Floor of the base-2 logarithm; 0 for n of 0 or 1. A negative n is not a valid argument.
int log2(int n);

// Rounds half away from zero: adds or takes half and truncates, so that the largest double below 0.5
// gives 1. Throws std::range_error for NaN and for what 64 bits do not hold.
std::int64_t roundToInt64(double x);

// Rounds half to even by adding 1.5 * 2^52, where a double's last bit counts ones, and takes the low
// 32 bits: exact in the range of 32 bits, modulo 2^32 beyond it up to a magnitude of 2^51. Needs the
// default rounding mode.
inline std::int32_t roundToInt32(double x) {
    return static_cast<std::int32_t>(std::bit_cast<std::uint64_t>(x + 6755399441055744.0));
}

// The phase less the multiple of 2 pi nearest to it, in radians, computed in double.
float toMinusPiToPi(float phase);

// The gain per block of a decay by 60 dB within reverbTime; both times in one unit.
float reverbTimeToGain(float reverbTime, float blockTime);

// The inverse of reverbTimeToGain.
float gainToReverbTime(float gain, float blockTime);

}  // namespace MathEx

// a - b * floor(a / b), which takes the sign of b; a when b is 0.
float remainder(float a, float b);

}  // namespace zevrant
