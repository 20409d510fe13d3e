// Which instruction set runs: the best of those compiled that the processor has, found out at the first call.
// Only headers of Highway are used, so the choice is made here.
//
// A source that is compiled once per instruction set lists a function f of all of them with
// ZEVRANT_DISPATCH_TABLE(f), in the namespace around the targets' own, and calls it as
// ZEVRANT_DISPATCH(f)(...). A call costs a load, a test that is never taken and a jump through the table.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "simd/Targets.h"

#include "hwy/highway.h"

// The instruction sets above the one that the compiler may use everywhere (the static target) come and go
// with its options; the static one is the last of a table.
#define ZEVRANT_TARGETS_ABOVE (HWY_TARGETS & ~HWY_STATIC_TARGET)

#if ZEVRANT_TARGETS_ABOVE & HWY_AVX3
#define ZEVRANT_IF_AVX3(entry) entry,
#else
#define ZEVRANT_IF_AVX3(entry)
#endif

#if ZEVRANT_TARGETS_ABOVE & HWY_AVX2
#define ZEVRANT_IF_AVX2(entry) entry,
#else
#define ZEVRANT_IF_AVX2(entry)
#endif

#if ZEVRANT_TARGETS_ABOVE & HWY_SSE4
#define ZEVRANT_IF_SSE4(entry) entry,
#else
#define ZEVRANT_IF_SSE4(entry)
#endif

// Those of its arguments that were compiled, the best first.
#define ZEVRANT_COMPILED(avx3, avx2, sse4, always) \
    ZEVRANT_IF_AVX3(avx3) ZEVRANT_IF_AVX2(avx2) ZEVRANT_IF_SSE4(sse4) always

#define ZEVRANT_DISPATCH_TABLE(f)                                                          \
    constexpr decltype(&HWY_STATIC_DISPATCH(f)) f##Table[zevrant::simd::kNumOfTargets] = { \
        ZEVRANT_COMPILED(N_AVX3::f, N_AVX2::f, N_SSE4::f, HWY_STATIC_DISPATCH(f))}

#define ZEVRANT_DISPATCH(f) (f##Table[zevrant::simd::getTargetIndex()])

namespace zevrant::simd {

// Highway's bits for the functions of a table.
inline constexpr std::int64_t kTargets[] = {
    ZEVRANT_COMPILED(HWY_AVX3, HWY_AVX2, HWY_SSE4, HWY_STATIC_TARGET)};
inline constexpr std::size_t kNumOfTargets = std::size(kTargets);

static_assert((ZEVRANT_TARGETS_ABOVE & ~(HWY_AVX3 | HWY_AVX2 | HWY_SSE4)) == 0, "a target without its entry");

// Of the target in use; kNumOfTargets until one has been chosen.
inline constinit std::atomic<std::size_t> targetIndex{kNumOfTargets};

// The first one that this processor runs, from now on in use.
std::size_t chooseTarget() noexcept;

// Whether this processor runs the functions at that place of a table.
bool isUsable(std::size_t index) noexcept;

// Whether this processor runs faster when weights that stream past are asked for ahead; 0, 1, or -1 until
// that has been found out. Results do not depend on it.
inline constinit std::atomic<int> isPrefetchUseful{-1};
int choosePrefetch() noexcept;

inline bool asksAhead() noexcept {
    const int choice = isPrefetchUseful.load(std::memory_order_relaxed);
    return (HWY_LIKELY(choice >= 0) ? choice : choosePrefetch()) != 0;
}

inline std::size_t getTargetIndex() noexcept {
    if constexpr (kNumOfTargets == 1) return 0;
    const std::size_t index = targetIndex.load(std::memory_order_relaxed);
    return HWY_LIKELY(index < kNumOfTargets) ? index : chooseTarget();
}

}  // namespace zevrant::simd
