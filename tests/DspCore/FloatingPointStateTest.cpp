#include "simd/FloatingPointState.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <cfloat>

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

namespace zevrant {
namespace {

volatile float tiny = FLT_MIN;

volatile float denormal = FLT_MIN / 2.0f;

// What a product comes to, and what goes into one.
bool flushes() {
    const bool asResult = tiny * 0.5f == 0.0f, asOperand = denormal * 4.0f == 0.0f;
    EXPECT_EQ(asResult, asOperand);
    return asResult;
}

TEST(FloatingPointState, denormalsAreFlushedForTheLifeOfTheScope) {
    EXPECT_FALSE(flushes());
    {
        const ScopedFlushDenormals outer;
        { const ScopedFlushDenormals inner; }
        EXPECT_TRUE(flushes());
    }
    EXPECT_FALSE(flushes());
}

// A host may round its own way, and may look at its exception flags.
TEST(FloatingPointState, theCallersRegisterComesBackBitForBit) {
    std::fenv_t usual;
    std::fegetenv(&usual);
    for (const int rounding : {FE_TONEAREST, FE_UPWARD, FE_TOWARDZERO}) {
        std::fesetround(rounding);
        std::feclearexcept(FE_ALL_EXCEPT);
#if defined(__SSE__)
        const unsigned before = _mm_getcsr();
#endif
        {
            const ScopedFlushDenormals scope;
            EXPECT_EQ(std::fegetround(), rounding);
            volatile float third = tiny / 3.0f;  // inexact, and flushed
            (void)third;
        }
        EXPECT_EQ(std::fegetround(), rounding);
        EXPECT_EQ(std::fetestexcept(FE_ALL_EXCEPT), 0);
#if defined(__SSE__)
        EXPECT_EQ(_mm_getcsr(), before);
#endif
    }
    std::fesetenv(&usual);
}

}  // namespace
}  // namespace zevrant
