#include "DspCore/VectorOperations.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "simd/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "DspCore/VectorOperations.cpp"
#include "hwy/foreach_target.h"  // from here on once per instruction set

#include "hwy/highway.h"
#include "simd/ComplexRows-inl.h"
#include "simd/Dispatch.h"
#include "simd/Rows-inl.h"
#include "simd/VectorMath-inl.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::vo::HWY_NAMESPACE {
namespace {

using namespace zevrant::simd::HWY_NAMESPACE;

void fillRow(float value, float* out, std::size_t count) {
    transformRow(count, out, [value](auto d) HWY_ATTR { return hn::Set(d, value); });
}

void addRows(const float* a, const float* b, float* out, std::size_t count) {
    transformRow(
        count, out, [](auto, auto x, auto y) HWY_ATTR { return hn::Add(x, y); }, a, b);
}

void subtractRows(const float* a, const float* b, float* out, std::size_t count) {
    transformRow(
        count, out, [](auto, auto x, auto y) HWY_ATTR { return hn::Sub(y, x); }, a, b);
}

void multiplyRows(const float* a, const float* b, float* out, std::size_t count) {
    transformRow(
        count, out, [](auto, auto x, auto y) HWY_ATTR { return hn::Mul(x, y); }, a, b);
}

void divideRows(const float* a, const float* b, float* out, std::size_t count) {
    transformRow(
        count, out, [](auto, auto x, auto y) HWY_ATTR { return hn::Div(y, x); }, a, b);
}

void multiplyAndAddRows(const float* a, const float* b, float* inOut, std::size_t count) {
    transformRow(
        count, inOut, [](auto, auto x, auto y, auto sum) HWY_ATTR { return hn::MulAdd(x, y, sum); }, a, b,
        static_cast<const float*>(inOut));
}

void addToRow(const float* in, float c, float* out, std::size_t count) {
    transformRow(
        count, out, [c](auto d, auto x) HWY_ATTR { return hn::Add(x, hn::Set(d, c)); }, in);
}

void multiplyRowBy(const float* in, float c, float* out, std::size_t count) {
    transformRow(
        count, out, [c](auto d, auto x) HWY_ATTR { return hn::Mul(x, hn::Set(d, c)); }, in);
}

void addMultipleOfRow(const float* in, float c, float* inOut, std::size_t count) {
    transformRow(
        count, inOut, [c](auto d, auto x, auto sum) HWY_ATTR { return hn::MulAdd(x, hn::Set(d, c), sum); },
        in, static_cast<const float*>(inOut));
}

void lowerBoundRow(const float* in, float* out, float low, std::size_t count) {
    transformRow(
        count, out, [low](auto d, auto x) HWY_ATTR { return raise(x, hn::Set(d, low)); }, in);
}

void upperBoundRow(const float* in, float* out, float high, std::size_t count) {
    transformRow(
        count, out, [high](auto d, auto x) HWY_ATTR { return lower(x, hn::Set(d, high)); }, in);
}

void boundRow(const float* in, float* out, float low, float high, std::size_t count) {
    transformRow(
        count, out,
        [low, high](auto d, auto x) HWY_ATTR {
            const auto l = hn::Set(d, low);
            return hn::IfThenElse(hn::Lt(x, l), l, lower(x, hn::Set(d, high)));
        },
        in);
}

void widenRow(const float* in, double* out, std::size_t count) {
    const hn::ScalableTag<double> d;
    const hn::Rebind<float, decltype(d)> narrow;
    std::size_t i = 0;
    for (; i + hn::Lanes(d) <= count; i += hn::Lanes(d))
        hn::StoreU(hn::PromoteTo(d, hn::LoadU(narrow, in + i)), d, out + i);
    for (; i < count; ++i) out[i] = static_cast<double>(in[i]);
}

void narrowRow(const double* in, float* out, std::size_t count) {
    const hn::ScalableTag<double> d;
    const hn::Rebind<float, decltype(d)> narrow;
    std::size_t i = 0;
    for (; i + hn::Lanes(d) <= count; i += hn::Lanes(d))
        hn::StoreU(narrowTo(narrow, hn::LoadU(d, in + i)), narrow, out + i);
    for (; i < count; ++i) out[i] = static_cast<float>(in[i]);
}

float dotProductOfRows(const float* a, const float* b, std::size_t count) {
    return sumOfProducts(a, b, count);
}

double dotProductOfWideRows(const double* a, const double* b, std::size_t count) {
    return sumOfProducts(a, b, count);
}

float rootMeanSquareOfRow(const float* in, std::size_t count) {
    return rootMeanSquare(in, count);
}

void expRow(const float* in, float* out, std::size_t count) {
    transformRow(
        count, out, [](auto d, auto x) HWY_ATTR { return expOf(d, x); }, in);
}

void lnRow(const float* in, float* out, std::size_t count) {
    transformRow(
        count, out, [](auto d, auto x) HWY_ATTR { return lnOf(d, x); }, in);
}

void cosRow(const float* in, float* out, std::size_t count) {
    transformRow(
        count, out,
        [](auto d, auto x) HWY_ATTR {
            hn::Vec<decltype(d)> cosine, sine;
            cosAndSinOf(d, x, cosine, sine);
            return cosine;
        },
        in);
}

// What the C library does for a base below 0 or of -0: an odd exponent keeps the sign, and an exponent
// that is no integer makes a finite base NaN. To float, every infinite or large exponent is even.
void powRow(const float* base, float exponent, float* out, std::size_t count) {
    constexpr float infinity = std::numeric_limits<float>::infinity();
    const bool isInteger = std::trunc(exponent) == exponent;
    const bool isOdd = std::fabs(std::fmod(exponent, 2.0f)) == 1.0f;
    const float keptSign = isOdd ? -0.0f : 0.0f;
    const float invalidBelow = isInteger ? -infinity : 0.0f;
    transformRow(
        count, out,
        [=](auto d, auto x) HWY_ATTR {
            const auto power = powerOf(d, hn::Abs(x), exponent);
            const auto invalid =
                hn::And(hn::Lt(x, hn::Set(d, invalidBelow)), hn::Gt(x, hn::Set(d, -infinity)));
            return hn::IfThenElse(invalid, hn::Set(d, std::numeric_limits<float>::quiet_NaN()),
                                  hn::Or(power, hn::And(x, hn::Set(d, keptSign))));
        },
        base);
}

// out[i] = op(tag, real part, imaginary part) over a row of complex numbers
template <class Op>
HWY_INLINE void transformComplexRow(const float* in, float* out, std::size_t count, Op op) {
    const hn::ScalableTag<float> d;
    constexpr std::size_t numOfLanes = hn::MaxLanes(d);
    hn::Vec<decltype(d)> re, im;
    std::size_t i = 0;
    for (; i + numOfLanes <= count; i += numOfLanes) {
        hn::LoadInterleaved2(d, in + 2 * i, re, im);
        hn::StoreU(op(d, re, im), d, out + i);
    }
    if (i == count) return;
    HWY_ALIGN float pairs[2 * numOfLanes] = {};
    HWY_ALIGN float results[numOfLanes];
    std::memcpy(pairs, in + 2 * i, 2 * (count - i) * sizeof(float));
    hn::LoadInterleaved2(d, pairs, re, im);
    hn::Store(op(d, re, im), d, results);
    std::memcpy(out + i, results, (count - i) * sizeof(float));
}

void magnitudeRow(const float* in, float* out, std::size_t count) {
    transformComplexRow(in, out, count,
                        [](auto d, auto re, auto im) HWY_ATTR { return magnitudeOf(d, re, im); });
}

void phaseRow(const float* in, float* out, std::size_t count) {
    transformComplexRow(in, out, count, [](auto d, auto re, auto im) HWY_ATTR { return phaseOf(d, im, re); });
}

template <class D>
HWY_INLINE void storePolar(D d, const float* magnitude, const float* phase, float* out) {
    hn::Vec<D> cosine, sine;
    cosAndSinOf(d, hn::LoadU(d, phase), cosine, sine);
    const auto m = hn::LoadU(d, magnitude);
    hn::StoreInterleaved2(hn::Mul(m, cosine), hn::Mul(m, sine), d, out);
}

void polarRow(const float* magnitude, const float* phase, float* out, std::size_t count) {
    const hn::ScalableTag<float> d;
    constexpr std::size_t numOfLanes = hn::MaxLanes(d);
    std::size_t i = 0;
    for (; i + numOfLanes <= count; i += numOfLanes) storePolar(d, magnitude + i, phase + i, out + 2 * i);
    if (i == count) return;
    HWY_ALIGN float lastMagnitudes[numOfLanes] = {};
    HWY_ALIGN float lastPhases[numOfLanes] = {};
    HWY_ALIGN float pairs[2 * numOfLanes];
    std::memcpy(lastMagnitudes, magnitude + i, (count - i) * sizeof(float));
    std::memcpy(lastPhases, phase + i, (count - i) * sizeof(float));
    storePolar(d, lastMagnitudes, lastPhases, pairs);
    std::memcpy(out + 2 * i, pairs, 2 * (count - i) * sizeof(float));
}

}  // namespace
}  // namespace zevrant::vo::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zevrant::vo {

ZEVRANT_DISPATCH_TABLE(fillRow);
ZEVRANT_DISPATCH_TABLE(fillComplexRow);
ZEVRANT_DISPATCH_TABLE(addRows);
ZEVRANT_DISPATCH_TABLE(subtractRows);
ZEVRANT_DISPATCH_TABLE(multiplyRows);
ZEVRANT_DISPATCH_TABLE(divideRows);
ZEVRANT_DISPATCH_TABLE(multiplyAndAddRows);
ZEVRANT_DISPATCH_TABLE(multiplyComplexRows);
ZEVRANT_DISPATCH_TABLE(multiplyComplexRowBy);
ZEVRANT_DISPATCH_TABLE(addToRow);
ZEVRANT_DISPATCH_TABLE(multiplyRowBy);
ZEVRANT_DISPATCH_TABLE(addMultipleOfRow);
ZEVRANT_DISPATCH_TABLE(lowerBoundRow);
ZEVRANT_DISPATCH_TABLE(upperBoundRow);
ZEVRANT_DISPATCH_TABLE(boundRow);
ZEVRANT_DISPATCH_TABLE(expRow);
ZEVRANT_DISPATCH_TABLE(lnRow);
ZEVRANT_DISPATCH_TABLE(cosRow);
ZEVRANT_DISPATCH_TABLE(powRow);
ZEVRANT_DISPATCH_TABLE(magnitudeRow);
ZEVRANT_DISPATCH_TABLE(phaseRow);
ZEVRANT_DISPATCH_TABLE(polarRow);
ZEVRANT_DISPATCH_TABLE(widenRow);
ZEVRANT_DISPATCH_TABLE(narrowRow);
ZEVRANT_DISPATCH_TABLE(dotProductOfRows);
ZEVRANT_DISPATCH_TABLE(dotProductOfWideRows);
ZEVRANT_DISPATCH_TABLE(rootMeanSquareOfRow);

namespace {

std::size_t countOf(int n) {
    return static_cast<std::size_t>(n);
}

// A complex number is stored as its two parts (ISO C++, [complex.numbers]).
std::size_t countOfParts(int n) {
    return 2 * countOf(n);
}
const float* partsOf(const std::complex<float>* row) {
    return reinterpret_cast<const float*>(row);
}
float* partsOf(std::complex<float>* row) {
    return reinterpret_cast<float*>(row);
}

}  // namespace

void setToValue(float value, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(fillRow)(value, out, countOf(n));
}

void setToValue(std::complex<float> value, std::complex<float>* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(fillComplexRow)(value.real(), value.imag(), partsOf(out), countOfParts(n));
}

void setToZero(float* out, int n) noexcept {
    if (n > 0) std::memset(out, 0, countOf(n) * sizeof(float));
}

void add(const float* a, const float* b, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(addRows)(a, b, out, countOf(n));
}

void add(const std::complex<float>* a, const std::complex<float>* b, std::complex<float>* out,
         int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(addRows)(partsOf(a), partsOf(b), partsOf(out), countOfParts(n));
}

void subtract(const float* a, const float* b, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(subtractRows)(a, b, out, countOf(n));
}

void subtract(const std::complex<float>* a, const std::complex<float>* b, std::complex<float>* out,
              int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(subtractRows)(partsOf(a), partsOf(b), partsOf(out), countOfParts(n));
}

void multiply(const float* a, const float* b, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(multiplyRows)(a, b, out, countOf(n));
}

void multiply(const std::complex<float>* a, const std::complex<float>* b, std::complex<float>* out,
              int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(multiplyComplexRows)(partsOf(a), partsOf(b), partsOf(out), countOfParts(n));
}

void divide(const float* a, const float* b, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(divideRows)(a, b, out, countOf(n));
}

void multiplyAndAdd(const float* a, const float* b, float* inOut, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(multiplyAndAddRows)(a, b, inOut, countOf(n));
}

void constantAdd(const float* in, float c, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(addToRow)(in, c, out, countOf(n));
}

void constantSubtract(const float* in, float c, float* out, int n) noexcept {
    constantAdd(in, -c, out, n);
}

void constantMultiply(const float* in, float c, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(multiplyRowBy)(in, c, out, countOf(n));
}

void constantMultiply(const std::complex<float>* in, std::complex<float> c, std::complex<float>* out,
                      int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(multiplyComplexRowBy)
    (partsOf(in), c.real(), c.imag(), partsOf(out), countOfParts(n));
}

void constantMultiplyAndAdd(const float* in, float c, float* inOut, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(addMultipleOfRow)(in, c, inOut, countOf(n));
}

void lowerBound(const float* in, float* out, float low, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(lowerBoundRow)(in, out, low, countOf(n));
}

void upperBound(const float* in, float* out, float high, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(upperBoundRow)(in, out, high, countOf(n));
}

void bound(const float* in, float* out, float low, float high, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(boundRow)(in, out, low, high, countOf(n));
}

void exp(const float* in, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(expRow)(in, out, countOf(n));
}

void ln(const float* in, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(lnRow)(in, out, countOf(n));
}

void cos(const float* in, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(cosRow)(in, out, countOf(n));
}

void pow(const float* base, float exponent, float* out, int n) noexcept {
    // Anything to the power 0 is 1, NaN as well.
    if (exponent == 0.0f) return setToValue(1.0f, out, n);
    if (n > 0) ZEVRANT_DISPATCH(powRow)(base, exponent, out, countOf(n));
}

void calcMagnitudes(const std::complex<float>* in, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(magnitudeRow)(partsOf(in), out, countOf(n));
}

void calcPhases(const std::complex<float>* in, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(phaseRow)(partsOf(in), out, countOf(n));
}

void convertPolarToCartesian(const float* magnitude, const float* phase, std::complex<float>* out,
                             int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(polarRow)(magnitude, phase, partsOf(out), countOf(n));
}

void convert32To64(const float* in, double* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(widenRow)(in, out, countOf(n));
}

void convert64To32(const double* in, float* out, int n) noexcept {
    if (n > 0) ZEVRANT_DISPATCH(narrowRow)(in, out, countOf(n));
}

void decimate(const float* in, int inLength, float* out, int factor, int phase) noexcept {
    if (factor < 1 || phase < 0) return;
    const std::ptrdiff_t step = factor;
    for (std::ptrdiff_t i = phase; i < inLength; i += step) *out++ = in[i];
}

float dotProduct(const float* a, const float* b, int n) noexcept {
    return n > 0 ? ZEVRANT_DISPATCH(dotProductOfRows)(a, b, countOf(n)) : 0.0f;
}

double dotProduct(const double* a, const double* b, int n) noexcept {
    return n > 0 ? ZEVRANT_DISPATCH(dotProductOfWideRows)(a, b, countOf(n)) : 0.0;
}

float calcRms(const float* in, int n) noexcept {
    return n > 0 ? ZEVRANT_DISPATCH(rootMeanSquareOfRow)(in, countOf(n)) : 0.0f;
}

const char* getBackendName() noexcept {
    return "Google Highway";
}

}  // namespace zevrant::vo

#endif  // HWY_ONCE
