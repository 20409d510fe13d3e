// The instruction sets that the vector code is compiled for: the plain fallback for any processor and
// the steps that change its speed. Every source that is compiled once per instruction set includes this
// before any header of Highway, so that all of them offer the same choice at run time. The steps in between
// would add compile time and size, and no speed that these loops could use.
//
// With HWY_COMPILE_ONLY_STATIC defined there is one instruction set, the best that the compiler's options
// allow (AVX2 by -march=haswell -maes), and no choice.
#pragma once

#ifdef HIGHWAY_HWY_DETECT_TARGETS_H_
#error "Targets.h comes before any header of Highway"
#endif

#define HWY_DISABLED_TARGETS \
    (~(HWY_AVX3 | HWY_AVX2 | HWY_SSE4 | HWY_NEON | HWY_WASM | HWY_EMU128 | HWY_SCALAR))

// The fallback is one lane wide with every compiler: the emulated 128-bit vectors are miscompiled by
// some that we support (GCC bug 106322). One lane has no neighbours, so code that moves values between
// lanes needs a plain form beside it, under HWY_TARGET == HWY_SCALAR.
#define HWY_BROKEN_EMU128 1
