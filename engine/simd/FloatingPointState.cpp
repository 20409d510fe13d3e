#include "simd/FloatingPointState.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace zevrant {

namespace {

#if defined(__x86_64__) || defined(__i386__)

// MXCSR: flush-to-zero is bit 15, denormals-are-zero bit 6.
constexpr std::uint64_t kFlushBits = 0x8040;

std::uint64_t readControl() {
    return _mm_getcsr();
}
void writeControl(std::uint64_t state) {
    _mm_setcsr(static_cast<unsigned>(state));
}

#elif defined(__aarch64__)

// FPCR: bit 24 flushes inputs and results alike. Exception flags have a register of their own, FPSR, which
// takes the upper half of our state, so that they come back as well.
constexpr std::uint64_t kFlushBits = std::uint64_t{1} << 24;

std::uint64_t readControl() {
    std::uint64_t control, status;
    asm volatile("mrs %0, fpcr" : "=r"(control));
    asm volatile("mrs %0, fpsr" : "=r"(status));
    return control | status << 32;
}

void writeControl(std::uint64_t state) {
    const std::uint64_t control = state & 0xffffffff, status = state >> 32;
    asm volatile("msr fpcr, %0" : : "r"(control));
    asm volatile("msr fpsr, %0" : : "r"(status));
}

#else

constexpr std::uint64_t kFlushBits = 0;

std::uint64_t readControl() {
    return 0;
}
void writeControl(std::uint64_t) {}

#endif

}  // namespace

ScopedFlushDenormals::ScopedFlushDenormals() noexcept : callersState(readControl()) {
    writeControl(callersState | kFlushBits);
}

ScopedFlushDenormals::~ScopedFlushDenormals() {
    writeControl(callersState);
}

}  // namespace zevrant
