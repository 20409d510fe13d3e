// How a row is walked: whole vectors first, then what is left at its end. Compiled once per
// instruction set, like all that includes it.
#if defined(ZEVRANT_SIMD_ROWS_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef ZEVRANT_SIMD_ROWS_INL_H
#undef ZEVRANT_SIMD_ROWS_INL_H
#else
#define ZEVRANT_SIMD_ROWS_INL_H
#endif

#include <cmath>
#include <cstddef>

#include "hwy/highway.h"

// Loads and stores under a mask that leave the masked-out memory alone, so that a tail is one step.
#define ZEVRANT_HAS_MASKED_MEMORY (HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_AVX3)

HWY_BEFORE_NAMESPACE();
namespace zevrant::simd::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// out[i] = op(in[i]...) for rows of one element type, op being called as op(tag, vectors...).
// Elements that belong together, as the parts of a complex number, form a group: count is a multiple
// of it, and no step parts a group. Each vector is loaded before its place is stored, so out may be
// one of the inputs.
template <std::size_t group = 1, class T, class Op, class... In>
HWY_INLINE void transformRow(std::size_t count, T* out, Op op, const In*... in) {
    const hn::ScalableTag<T> d;
    const std::size_t numOfLanes = hn::Lanes(d);
    std::size_t i = 0;
    for (; i + numOfLanes <= count; i += numOfLanes) hn::StoreU(op(d, hn::LoadU(d, in + i)...), d, out + i);
#if ZEVRANT_HAS_MASKED_MEMORY
    if (i < count) {
        const auto rest = hn::FirstN(d, count - i);
        hn::BlendedStore(op(d, hn::MaskedLoad(rest, d, in + i)...), rest, d, out + i);
    }
#else
    const hn::CappedTag<T, group> one;
    for (; i < count; i += group) hn::StoreU(op(one, hn::LoadU(one, in + i)...), one, out + i);
#endif
}

// Sum of term(a[i], b[i], sum) from 0, over lanes and four vectors side by side: four chains hide the
// latency of the addition.
template <class T>
HWY_INLINE T sumOfProducts(const T* a, const T* b, std::size_t count) {
    const hn::ScalableTag<T> d;
    const std::size_t numOfLanes = hn::Lanes(d);
    auto sum0 = hn::Zero(d), sum1 = sum0, sum2 = sum0, sum3 = sum0;
    std::size_t i = 0;
    for (; i + 4 * numOfLanes <= count; i += 4 * numOfLanes) {
        const T *x = a + i, *y = b + i;
        sum0 = hn::MulAdd(hn::LoadU(d, x), hn::LoadU(d, y), sum0);
        sum1 = hn::MulAdd(hn::LoadU(d, x + numOfLanes), hn::LoadU(d, y + numOfLanes), sum1);
        sum2 = hn::MulAdd(hn::LoadU(d, x + 2 * numOfLanes), hn::LoadU(d, y + 2 * numOfLanes), sum2);
        sum3 = hn::MulAdd(hn::LoadU(d, x + 3 * numOfLanes), hn::LoadU(d, y + 3 * numOfLanes), sum3);
    }
    for (; i + numOfLanes <= count; i += numOfLanes)
        sum0 = hn::MulAdd(hn::LoadU(d, a + i), hn::LoadU(d, b + i), sum0);
#if ZEVRANT_HAS_MASKED_MEMORY
    if (i < count) {
        const auto rest = hn::FirstN(d, count - i);
        sum1 = hn::MulAdd(hn::MaskedLoad(rest, d, a + i), hn::MaskedLoad(rest, d, b + i), sum1);
    }
    const T tail = 0;
#else
    const hn::CappedTag<T, 1> one;
    auto tailSum = hn::Zero(one);
    for (; i < count; ++i) tailSum = hn::MulAdd(hn::LoadU(one, a + i), hn::LoadU(one, b + i), tailSum);
    const T tail = hn::GetLane(tailSum);
#endif
    const auto sum = hn::Add(hn::Add(sum0, sum1), hn::Add(sum2, sum3));
    return hn::GetLane(hn::SumOfLanes(d, sum)) + tail;
}

// In double the squares are exact and neither overflow nor vanish.
HWY_INLINE double sumOfSquares(const float* in, std::size_t count) {
    const hn::ScalableTag<double> d;
    const hn::Rebind<float, decltype(d)> narrow;
    const std::size_t numOfLanes = hn::Lanes(d);
    auto sum0 = hn::Zero(d), sum1 = sum0;
    std::size_t i = 0;
    for (; i + 2 * numOfLanes <= count; i += 2 * numOfLanes) {
        const auto x0 = hn::PromoteTo(d, hn::LoadU(narrow, in + i));
        const auto x1 = hn::PromoteTo(d, hn::LoadU(narrow, in + i + numOfLanes));
        sum0 = hn::MulAdd(x0, x0, sum0);
        sum1 = hn::MulAdd(x1, x1, sum1);
    }
    double sum = hn::GetLane(hn::SumOfLanes(d, hn::Add(sum0, sum1)));
    for (; i < count; ++i) sum += static_cast<double>(in[i]) * static_cast<double>(in[i]);
    return sum;
}

// Square root of the mean of the squares of count values, 1 or more.
HWY_INLINE float rootMeanSquare(const float* in, std::size_t count) {
    return static_cast<float>(std::sqrt(sumOfSquares(in, count) / static_cast<double>(count)));
}

}  // namespace zevrant::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
