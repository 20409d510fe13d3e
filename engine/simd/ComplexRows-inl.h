// Rows of complex numbers, walked as rows of twice as many floats in pairs of real and imaginary part; count
// is that of the floats. Compiled once per instruction set, like all that includes it.
#if defined(ZEVRANT_SIMD_COMPLEX_ROWS_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef ZEVRANT_SIMD_COMPLEX_ROWS_INL_H
#undef ZEVRANT_SIMD_COMPLEX_ROWS_INL_H
#else
#define ZEVRANT_SIMD_COMPLEX_ROWS_INL_H
#endif

#include <cstddef>

#include "hwy/highway.h"
#include "simd/Rows-inl.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::simd::HWY_NAMESPACE {

#if HWY_TARGET == HWY_SCALAR

inline void fillComplexRow(float re, float im, float* out, std::size_t count) {
    for (std::size_t i = 0; i < count; i += 2) {
        out[i] = re;
        out[i + 1] = im;
    }
}

inline void multiplyComplexRows(const float* a, const float* b, float* out, std::size_t count) {
    for (std::size_t i = 0; i < count; i += 2) {
        const float re = a[i] * b[i] - a[i + 1] * b[i + 1];
        const float im = a[i + 1] * b[i] + a[i] * b[i + 1];
        out[i] = re;
        out[i + 1] = im;
    }
}

inline void multiplyComplexRowBy(const float* in, float re, float im, float* out, std::size_t count) {
    for (std::size_t i = 0; i < count; i += 2) {
        const float productRe = in[i] * re - in[i + 1] * im;
        const float productIm = in[i + 1] * re + in[i] * im;
        out[i] = productRe;
        out[i + 1] = productIm;
    }
}

#else

inline constexpr std::size_t kComplex = 2;  // floats that belong together

inline void fillComplexRow(float re, float im, float* out, std::size_t count) {
    transformRow<kComplex>(count, out,
                           [re, im](auto d) HWY_ATTR { return hn::OddEven(hn::Set(d, im), hn::Set(d, re)); });
}

// x times a number whose parts stand as (re, re, ...) and (-im, im, -im, im, ...):
// real lanes get x.re * re - x.im * im, imaginary ones x.im * re + x.re * im, each rounded as written.
template <class V>
HWY_INLINE V multiplyComplex(V x, V re, V signedIm) {
    const hn::DFromV<V> d;
    return hn::Add(hn::Mul(x, re), hn::Mul(hn::Reverse2(d, x), signedIm));
}

inline void multiplyComplexRows(const float* a, const float* b, float* out, std::size_t count) {
    transformRow<kComplex>(
        count, out,
        [](auto d, auto x, auto y) HWY_ATTR {
            const auto realSigns = hn::OddEven(hn::Zero(d), hn::Set(d, -0.0f));
            return multiplyComplex(x, hn::DupEven(y), hn::Xor(hn::DupOdd(y), realSigns));
        },
        a, b);
}

inline void multiplyComplexRowBy(const float* in, float re, float im, float* out, std::size_t count) {
    transformRow<kComplex>(
        count, out,
        [re, im](auto d, auto x) HWY_ATTR {
            return multiplyComplex(x, hn::Set(d, re), hn::OddEven(hn::Set(d, im), hn::Set(d, -im)));
        },
        in);
}

#endif

}  // namespace zevrant::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
