#include "simd/Dispatch.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#if HWY_ARCH_X86
#include <cpuid.h>
#endif

// What the assertions in Highway's headers call where they are compiled, as in a debug build. Weak, for a
// program that links Highway as well.
[[gnu::weak]] void hwy::Abort(const char* file, int line, const char* format, ...) {
    std::fprintf(stderr, "%s:%d: ", file, line);
    std::va_list values;
    va_start(values, format);
    std::vfprintf(stderr, format, values);
    va_end(values);
    std::fputc('\n', stderr);
    std::abort();
}

namespace zevrant::simd {

namespace {

#if HWY_ARCH_X86

constexpr bool hasAll(std::uint64_t bits, std::uint64_t wanted) {
    return (bits & wanted) == wanted;
}

// The parts of the register state that the system saves for every thread.
std::uint64_t getSavedState() {
    std::uint32_t low, high;
    asm("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return low | std::uint64_t{high} << 32;
}

constexpr std::uint64_t kVectorState = 0x06;      // XMM and YMM
constexpr std::uint64_t kWideVectorState = 0xe6;  // and opmasks and ZMM

// What Highway lets the compiler use for a target, and what g++ and clang take that to include.
struct Processor {
    Processor() {
        unsigned eax, ebx, ecx, edx;
        if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return;
        hasSse4 = hasAll(ecx, bit_SSSE3 | bit_SSE4_1 | bit_SSE4_2 | bit_PCLMUL | bit_AES | bit_POPCNT);
        const bool hasAvx = hasAll(ecx, bit_OSXSAVE | bit_AVX | bit_FMA | bit_F16C);
        if (!hasSse4 || !hasAvx || !__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) return;
        const std::uint64_t saved = getSavedState();
        hasAvx2 = hasAll(ebx, bit_AVX2 | bit_BMI | bit_BMI2) && hasAll(saved, kVectorState);
        hasAvx3 = hasAvx2 && hasAll(ebx, bit_AVX512F | bit_AVX512VL | bit_AVX512DQ | bit_AVX512BW) &&
                  hasAll(saved, kWideVectorState);
    }
    bool hasSse4 = false, hasAvx2 = false, hasAvx3 = false;
};

// AMD's cores look ahead far enough by themselves: there the prefetch instructions only take the places of
// loads, and a network that streams its weights needs up to a fifth more time with them. Intel's gain.
bool gainsFromPrefetch() {
    unsigned eax, ebx, ecx, edx;
    const bool isKnown = __get_cpuid(0, &eax, &ebx, &ecx, &edx) != 0;
    return !isKnown || ebx != signature_AMD_ebx || ecx != signature_AMD_ecx || edx != signature_AMD_edx;
}

bool hasTarget(std::int64_t target) {
    const Processor processor;
    return (target == HWY_AVX3 && processor.hasAvx3) || (target == HWY_AVX2 && processor.hasAvx2) ||
           (target == HWY_SSE4 && processor.hasSse4);
}

#else

bool gainsFromPrefetch() {
    return true;
}

// NEON belongs to every aarch64, and elsewhere there is only what the compiler was told to use.
bool hasTarget(std::int64_t) {
    return false;
}

#endif

}  // namespace

bool isUsable(std::size_t index) noexcept {
    return kTargets[index] == HWY_STATIC_TARGET || hasTarget(kTargets[index]);
}

int choosePrefetch() noexcept {
    const int choice = gainsFromPrefetch() ? 1 : 0;
    isPrefetchUseful.store(choice, std::memory_order_relaxed);
    return choice;
}

std::size_t chooseTarget() noexcept {
    std::size_t index = 0;
    while (!isUsable(index)) ++index;
    targetIndex.store(index, std::memory_order_relaxed);
    return index;
}

}  // namespace zevrant::simd
