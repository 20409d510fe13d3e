// Elementary functions on vectors, to a few units in the last place of float over its whole range.
// Compiled once per instruction set.
//
// The polynomials are minimax fits of the relative error of the function that they stand in for, found
// by Remez's exchange; each states its interval and that error, before the rounding of the arithmetic.
// A lane's result depends on that lane alone, so a value comes out alike wherever in a row it stands.
//
// Highway 1.0.3 has functions of its own (hwy/contrib/math), without a power, a modulus or an arctangent of
// two arguments. Over all of float, in units in the last place, ours and theirs: exp 0.97 and 0.97, ln 0.77
// and 0.83, cos 1.52 and 2.34, sin 1.56 and 2.38, atan 1.36 and 2.38. Theirs take NaN to numbers, ln of 0 and
// below as well, lose the sign of sin(-0) and every digit beyond 39000. exp takes 0.8 of their time and
// cosine with sine 0.9; ln takes 1.3 for its odd values, a cosine alone 1.4 (AVX2 and AVX-512).
#if defined(ZEVRANT_SIMD_VECTOR_MATH_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef ZEVRANT_SIMD_VECTOR_MATH_INL_H
#undef ZEVRANT_SIMD_VECTOR_MATH_INL_H
#else
#define ZEVRANT_SIMD_VECTOR_MATH_INL_H
#endif

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::simd::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

template <class D, class V>
HWY_INLINE V polynomial(D d, V, double c) {
    return hn::Set(d, static_cast<hn::TFromD<D>>(c));
}

// c0 + x * (c1 + x * (...)), by Horner's rule
template <class D, class V, class... C>
HWY_INLINE V polynomial(D d, V x, double c0, C... c) {
    return hn::MulAdd(polynomial(d, x, c...), x, hn::Set(d, static_cast<hn::TFromD<D>>(c0)));
}

// On x86 minimum and maximum instructions answer with their second operand for NaN and for equal zeros.
#define ZEVRANT_LIMITS_PASS_SECOND (HWY_ARCH_X86 && HWY_TARGET != HWY_SCALAR && HWY_TARGET != HWY_EMU128)

// low where x < low, otherwise x; high where x > high, otherwise x. So NaN passes, and zeros of either sign.
template <class V>
HWY_INLINE V raise(V x, V low) {
#if ZEVRANT_LIMITS_PASS_SECOND
    return hn::Max(low, x);
#else
    return hn::IfThenElse(hn::Lt(x, low), low, x);
#endif
}

template <class V>
HWY_INLINE V lower(V x, V high) {
#if ZEVRANT_LIMITS_PASS_SECOND
    return hn::Min(high, x);
#else
    return hn::IfThenElse(hn::Gt(x, high), high, x);
#endif
}

// Narrowing to nearest. The one-lane fallback of the backend saturates where a conversion overflows.
template <class D, class V>
HWY_INLINE hn::Vec<D> narrowTo(D d, V x) {
#if HWY_TARGET == HWY_SCALAR
    return hn::Set(d, static_cast<float>(hn::GetLane(x)));
#else
    return hn::DemoteTo(d, x);
#endif
}

// The nearest integer, ties to even; the limit that it passes for a value beyond those of int32. The
// one-lane fallback of the backend does not limit 2^31 itself.
template <class D, class V = hn::Vec<D>>
HWY_INLINE hn::Vec<hn::RebindToSigned<D>> nearestInt(D, V x) {
#if HWY_TARGET == HWY_SCALAR
    if (hn::GetLane(x) >= 0x1p31f)
        return hn::Set(hn::RebindToSigned<D>(), std::numeric_limits<std::int32_t>::max());
#endif
    return hn::NearestInt(x);
}

// op, which computes in double, on vectors of float: on both halves in turn, or on the one lane.
template <class D, class Op, class... V>
HWY_INLINE hn::Vec<D> inDouble(D d, Op op, V... x) {
#if HWY_TARGET != HWY_SCALAR
    if constexpr (hn::MaxLanes(D()) > 1) {
        const hn::Half<D> half;
        const hn::Rebind<double, decltype(half)> wide;
        const auto low = op(wide, hn::PromoteTo(wide, hn::LowerHalf(half, x))...);
        const auto high = op(wide, hn::PromoteTo(wide, hn::UpperHalf(half, x))...);
        return hn::Combine(d, narrowTo(half, high), narrowTo(half, low));
    } else
#endif
    {
        const hn::Rebind<double, D> wide;
        return narrowTo(d, op(wide, hn::PromoteTo(wide, x)...));
    }
}

// Adding this to a float below 2^22 rounds it to an integer, which then stands in the low bits of the sum,
// here with the bias of an exponent on top.
inline constexpr float kRoundToExponent = 0x1.8p23f + 127.0f;

// e^x = 2^n * e^r with r in -ln(2) / 2 to ln(2) / 2: returns e^r, and n + 127 in the low bits of rounded.
// ln(2) comes in two parts, of which n times the first is exact.
template <class D, class V = hn::Vec<D>>
HWY_INLINE V splitExp(D d, V x, V& rounded) {
    const V magic = hn::Set(d, kRoundToExponent);
    rounded = hn::MulAdd(x, hn::Set(d, 1.44269504f), magic);
    const V n = hn::Sub(rounded, magic);
    const V r = hn::NegMulAdd(n, hn::Set(d, -2.12194440e-4f), hn::NegMulAdd(n, hn::Set(d, 0.693359375f), x));
    // (e^r - 1 - r) / r^2: 2^-28 of e^r
    const V p = polynomial(d, r, 0.4999999404, 0.1666651517, 0.04166845605, 0.008369418792, 0.001381314476);
    return hn::Add(hn::MulAdd(hn::Mul(r, r), p, r), hn::Set(d, 1.0f));
}

// The same bits as expOf for x from -87 to 88 or NaN, where e^x is a normal number and 2^n a float.
template <class D, class V = hn::Vec<D>>
HWY_INLINE V expOfModerate(D d, V x) {
    const hn::RebindToSigned<D> di;
    V rounded;
    const V mantissa = splitExp(d, x, rounded);
    return hn::Mul(mantissa, hn::BitCast(d, hn::ShiftLeft<23>(hn::BitCast(di, rounded))));
}

// 2^n is applied in two steps, so that results down to the denormals round once.
template <class D, class V = hn::Vec<D>>
HWY_INLINE V expOf(D d, V x) {
    const hn::RebindToSigned<D> di;
    // Beyond these e^x is 0 or infinity in float.
    x = raise(lower(x, hn::Set(d, 89.0f)), hn::Set(d, -104.0f));
    V rounded;
    const V mantissa = splitExp(d, x, rounded);
    const auto n = hn::Sub(hn::BitCast(di, rounded), hn::BitCast(di, hn::Set(d, kRoundToExponent)));
    const auto halfN = hn::ShiftRight<1>(n);
    const auto bias = hn::Set(di, 127);
    const V scale1 = hn::BitCast(d, hn::ShiftLeft<23>(hn::Add(halfN, bias)));
    const V scale2 = hn::BitCast(d, hn::ShiftLeft<23>(hn::Add(hn::Sub(n, halfN), bias)));
    return hn::Mul(hn::Mul(mantissa, scale1), scale2);
}

// x = 2^e * (1 + f) with 1 + f in sqrt(1/2) to sqrt(2), exactly, for x above 0 and finite. Close to 1
// e is 0, so a logarithm is that of 1 + f alone, and nothing cancels.
template <class D, class V = hn::Vec<D>>
HWY_INLINE void splitExponent(D d, V x, V& e, V& f) {
    const hn::RebindToSigned<D> di;
    const auto sqrtHalfBits = hn::Set(di, 0x3f3504f3);
    const auto tiny = hn::Lt(x, hn::Set(d, std::numeric_limits<float>::min()));
    const V normal = hn::IfThenElse(tiny, hn::Mul(x, hn::Set(d, 0x1p25f)), x);
    const auto shifted = hn::Sub(hn::BitCast(di, normal), sqrtHalfBits);
    const auto fraction = hn::And(shifted, hn::Set(di, 0x007fffff));
    f = hn::Sub(hn::BitCast(d, hn::Add(fraction, sqrtHalfBits)), hn::Set(d, 1.0f));
    e = hn::Sub(hn::ConvertTo(d, hn::ShiftRight<23>(shifted)), hn::IfThenElseZero(tiny, hn::Set(d, 25.0f)));
}

// ln(x) = e * ln(2) + ln(1 + f)
template <class D, class V = hn::Vec<D>>
HWY_INLINE V lnOf(D d, V x) {
    constexpr float infinity = std::numeric_limits<float>::infinity();
    V e, f;
    splitExponent(d, x, e, f);
    // (ln(1 + f) - f + f^2 / 2) / f^3: 2^-30 of ln(1 + f)
    const V p = polynomial(d, f, 0.3333331347, -0.2500000894, 0.2000211924, -0.1666799635, 0.1421955228,
                           -0.1240558997, 0.118881613, -0.1167564541, 0.06746634841);
    const V square = hn::Mul(f, f);
    V small = hn::Mul(hn::Mul(square, f), p);
    small = hn::MulAdd(e, hn::Set(d, -2.12194440e-4f), small);
    small = hn::NegMulAdd(square, hn::Set(d, 0.5f), small);
    const V result = hn::MulAdd(e, hn::Set(d, 0.693359375f), hn::Add(f, small));
    const auto usual = hn::And(hn::Gt(x, hn::Zero(d)), hn::Lt(x, hn::Set(d, infinity)));
    // NaN and +infinity answer themselves.
    const V below = hn::IfThenElse(hn::Eq(x, hn::Zero(d)), hn::Set(d, -infinity),
                                   hn::Set(d, std::numeric_limits<float>::quiet_NaN()));
    return hn::IfThenElse(usual, result, hn::IfThenElse(hn::Le(x, hn::Zero(d)), below, x));
}

// Beyond this the quarter turns take more bits than the reduction below has room for.
inline constexpr float kLargestReducedAngle = 65536.0f;

// Cosine and sine by the library for the lanes that are too large to be reduced, which are rare in a
// stream of phases, and for infinities and NaN.
template <class D, class V = hn::Vec<D>>
HWY_INLINE void replaceLargeAngles(D d, V x, V& cosine, V& sine) {
    constexpr std::size_t size = hn::MaxLanes(D());
    HWY_ALIGN float angles[size];
    HWY_ALIGN float cosines[size];
    HWY_ALIGN float sines[size];
    hn::Store(x, d, angles);
    hn::Store(cosine, d, cosines);
    hn::Store(sine, d, sines);
    for (std::size_t i = 0; i < size; ++i) {
        if (std::fabs(angles[i]) <= kLargestReducedAngle) continue;
        cosines[i] = std::cos(angles[i]);
        sines[i] = std::sin(angles[i]);
    }
    cosine = hn::Load(d, cosines);
    sine = hn::Load(d, sines);
}

// angle - turns * pi/2 for whole numbers of quarter turns near angle, good to float even where it all but
// vanishes. With a fused multiply-add, pi/2 in three parts of float does it: the first difference is exact,
// and the second rounds once. Without, the difference is formed in double, with pi/2 in two parts of which
// the first has 33 bits, so that its product with turns is exact.
template <class D, class V = hn::Vec<D>>
HWY_INLINE V withoutQuarterTurns(D d, V angle, V turns) {
#if HWY_NATIVE_FMA
    const V first = hn::NegMulAdd(turns, hn::Set(d, 0x1.921fb6p+0f), angle);
    const V second = hn::NegMulAdd(turns, hn::Set(d, -0x1.777a5cp-25f), first);
    return hn::NegMulAdd(turns, hn::Set(d, -0x1.ee59dap-50f), second);
#else
    return inDouble(
        d,
        [](auto wide, auto x, auto q) HWY_ATTR {
            const auto first = hn::NegMulAdd(q, hn::Set(wide, 0x1.921fb544p+0), x);
            return hn::NegMulAdd(q, hn::Set(wide, 0x1.0b4611a626331p-34), first);
        },
        angle, turns);
#endif
}

// x = q * pi/2 + r with r in about -pi/4 to pi/4
template <class D, class V = hn::Vec<D>>
HWY_INLINE void cosAndSinOf(D d, V x, V& cosine, V& sine) {
    const hn::RebindToSigned<D> di;
    const auto q = nearestInt(d, hn::Mul(x, hn::Set(d, 0.636619772f)));
    const V quarterTurns = hn::ConvertTo(d, q);
    const V reduced = withoutQuarterTurns(d, x, quarterTurns);
    // An angle without a quarter turn stands for itself, which keeps the sign of a zero.
    const V r = hn::IfThenElse(hn::Eq(quarterTurns, hn::Zero(d)), x, reduced);
    const V square = hn::Mul(r, r);
    // (sin(r) - r) / r^3: 2^-27 of sin(r); (cos(r) - 1 + r^2 / 2) / r^4: 2^-32 of cos(r)
    const V s = polynomial(d, square, -0.1666665375, 0.008332111873, -0.0001950861915);
    const V c = polynomial(d, square, 0.04166664556, -0.00138872501, 2.442554251e-5);
    const V sinR = hn::CopySign(hn::MulAdd(hn::Mul(square, r), s, r), r);  // or -0 would become 0
    const V cosR =
        hn::MulAdd(hn::Mul(square, square), c, hn::NegMulAdd(square, hn::Set(d, 0.5f), hn::Set(d, 1.0f)));

    const auto one = hn::Set(di, 1);
    const auto two = hn::Set(di, 2);
    const auto odd = hn::RebindMask(d, hn::Eq(hn::And(q, one), one));
    const V sineSign = hn::BitCast(d, hn::ShiftLeft<30>(hn::And(q, two)));
    const V cosineSign = hn::BitCast(d, hn::ShiftLeft<30>(hn::And(hn::Add(q, one), two)));
    sine = hn::Xor(hn::IfThenElse(odd, cosR, sinR), sineSign);
    cosine = hn::Xor(hn::IfThenElse(odd, sinR, cosR), cosineSign);
    if (!hn::AllTrue(d, hn::Le(hn::Abs(x), hn::Set(d, kLargestReducedAngle))))
        replaceLargeAngles(d, x, cosine, sine);
}

// Modulus. The sum of squares serves as it is unless it left the range in which float holds it to full
// precision; those lanes are computed in double, whose range holds every square.
template <class D, class V = hn::Vec<D>>
HWY_INLINE V magnitudeOf(D d, V re, V im) {
    const V infinity = hn::Set(d, std::numeric_limits<float>::infinity());
    const V sum = hn::MulAdd(re, re, hn::Mul(im, im));
    const V direct = hn::Sqrt(sum);
    const auto inRange = hn::And(hn::Gt(sum, hn::Set(d, 0x1p-100f)), hn::Lt(sum, infinity));
    if (HWY_LIKELY(hn::AllTrue(d, inRange))) return direct;
    const V careful = inDouble(
        d, [](auto, auto x, auto y) HWY_ATTR { return hn::Sqrt(hn::MulAdd(x, x, hn::Mul(y, y))); }, re, im);
    // An infinite part makes an infinite modulus, even beside NaN.
    const auto infinite = hn::Or(hn::Eq(hn::Abs(re), infinity), hn::Eq(hn::Abs(im), infinity));
    return hn::IfThenElse(infinite, infinity, hn::IfThenElse(inRange, direct, careful));
}

// Arctangent of the smaller over the larger part, in 0 to pi/4, moved into its octant: 0, pi/2 or pi
// plus or minus it, with the part of pi that float drops, and then with the sign of y.
template <class D, class V = hn::Vec<D>>
HWY_INLINE V phaseOf(D d, V y, V x) {
    const V zero = hn::Zero(d);
    const V absX = hn::Abs(x), absY = hn::Abs(y);
    const auto steep = hn::Gt(absY, absX);
    const V small = hn::IfThenElse(steep, absX, absY);
    const V large = hn::IfThenElse(steep, absY, absX);
    // Two zeros count as a ratio of 0 and two infinities as one of 1, as in the C library.
    const V same = hn::IfThenElse(hn::Eq(large, zero), zero, hn::Set(d, 1.0f));
    const V t = hn::IfThenElse(hn::Eq(small, large), same, hn::Div(small, large));
    const V square = hn::Mul(t, t);
    // (atan(t) - t) / t^3: 2^-28 of atan(t)
    const V p = polynomial(d, square, -0.3333329856, 0.1999854892, -0.1426424235, 0.1095218584,
                           -0.08403450251, 0.05795759335, -0.03117784858, 0.01091460697, -0.001793622039);
    const V angle = hn::MulAdd(hn::Mul(square, t), p, t);

    // Not x < 0: a zero has a side as well.
    const auto left = hn::Lt(hn::CopySign(hn::Set(d, 1.0f), x), zero);
    const V signBit = hn::Set(d, -0.0f);
    const V turned = hn::Xor(hn::Xor(angle, hn::And(x, signBit)), hn::IfThenElseZero(steep, signBit));
    const V offset =
        hn::IfThenElse(steep, hn::Set(d, 1.57079637f), hn::IfThenElseZero(left, hn::Set(d, 3.14159274f)));
    const V rest = hn::IfThenElse(steep, hn::Set(d, -4.37113883e-8f),
                                  hn::IfThenElseZero(left, hn::Set(d, -8.74227766e-8f)));
    return hn::CopySign(hn::Add(offset, hn::Add(rest, turned)), y);
}

// (2^e * (1 + f))^y = 2^(y * (e + log2(1 + f))), in double: the 2^-38 of the logarithm stay well below a
// unit of float after the largest product that does not overflow.
template <class D, class V = hn::Vec<D>>
HWY_INLINE V powerOfSplit(D d, V e, V f, V y) {
    const hn::RebindToUnsigned<D> du;
    // log2(1 + f) / f: 2^-38. Longer than a series in f / (2 + f), and no slower than its division.
    const V p =
        polynomial(d, f, 1.44269504088657441, -0.721347520327546343, 0.480898348802871412,
                   -0.360673793137997467, 0.288538795728877917, -0.24044643354946757, 0.206107122969427597,
                   -0.180436750917200017, 0.160216669477078938, -0.142498641209391375, 0.130275600772957134,
                   -0.134629246016842563, 0.132512034336274453, -0.0697392532488910061);
    // Beyond these the power is 0 or infinity in float.
    const V t = hn::Min(hn::Max(hn::Mul(y, hn::MulAdd(f, p, e)), hn::Set(d, -160.0)), hn::Set(d, 130.0));
    // Adding 1.5 * 2^52 rounds to an integer, which then stands in the low bits of the sum.
    const V magic = hn::Set(d, 0x1.8p52);
    const V rounded = hn::Add(t, magic);
    const V r = hn::Sub(t, hn::Sub(rounded, magic));
    const V scale = hn::BitCast(d, hn::ShiftLeft<52>(hn::Add(hn::BitCast(du, rounded), hn::Set(du, 1023))));
    // 2^r for r in -1/2 to 1/2: 2^-29
    const V power = polynomial(d, r, 1.00000000055504934, 0.693147205767136398, 0.240226468860802483,
                               0.0555032871181250081, 0.0096184892443942939, 0.00133999576251204121,
                               0.00015345788970612799);
    return hn::Mul(power, scale);
}

// x^y for x of 0 or more and any y but 0
template <class D, class V = hn::Vec<D>>
HWY_INLINE V powerOf(D d, V x, float y) {
    constexpr float infinity = std::numeric_limits<float>::infinity();
    V e, f;
    splitExponent(d, x, e, f);
    const V power = inDouble(
        d,
        [y](auto wide, auto wideE, auto wideF)
            HWY_ATTR { return powerOfSplit(wide, wideE, wideF, hn::Set(wide, static_cast<double>(y))); },
        e, f);
    const auto usual = hn::And(hn::Gt(x, hn::Zero(d)), hn::Lt(x, hn::Set(d, infinity)));
    if (HWY_LIKELY(std::isfinite(y) && hn::AllTrue(d, usual))) return power;

    const V ofZero = hn::Set(d, y < 0.0f ? infinity : 0.0f);
    const V ofInfinity = hn::Set(d, y < 0.0f ? 0.0f : infinity);
    const V finite = hn::IfThenElse(hn::Eq(x, hn::Zero(d)), ofZero, power);
    const V number = hn::IfThenElse(hn::Eq(x, hn::Set(d, infinity)), ofInfinity, finite);
    const V sum = hn::Add(x, hn::Set(d, std::isnan(y) ? y : 0.0f));
    const V result = hn::IfThenElse(hn::IsNaN(sum), sum, number);
    return hn::IfThenElse(hn::Eq(x, hn::Set(d, 1.0f)), x, result);  // 1 whatever y is
}

}  // namespace zevrant::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
