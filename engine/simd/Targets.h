// The instruction sets that the vector code is compiled for: the plain fallback for any processor and
// the steps that change its speed. Every source of this folder that is compiled once per instruction
// set includes this before any header of Highway, so that all of them offer the same choice at run time.
// The steps in between would add compile time and size, and no speed that these loops could use.
#pragma once

#ifdef HIGHWAY_HWY_DETECT_TARGETS_H_
#error "Targets.h comes before any header of Highway"
#endif

#define HWY_DISABLED_TARGETS (HWY_SSSE3 | HWY_AVX3_DL | HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128)

// The fallback is one lane wide with every compiler: the emulated 128-bit vectors are miscompiled by
// some that we support (GCC bug 106322). One lane has no neighbours, so code that moves values between
// lanes needs a plain form beside it, under HWY_TARGET == HWY_SCALAR.
#define HWY_BROKEN_EMU128 1
