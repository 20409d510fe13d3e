#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zevrant::simd {

// One instruction set that the vector code was compiled for.
struct Target {
    std::size_t index;  // among those compiled, the fastest first
    std::string name;   // the backend's name for it, as "AVX2"
};

// What this processor can run of what was compiled, the fastest first. The vector code takes the first.
std::vector<Target> getUsableTargets();

// For its life all vector code of the process runs on one instruction set, so that tests can compare
// them. One at a time, and only while no other thread runs vector code that should not change.
class ScopedTarget {
  public:
    explicit ScopedTarget(const Target& target);
    ~ScopedTarget();

    ScopedTarget(const ScopedTarget&) = delete;
    ScopedTarget& operator=(const ScopedTarget&) = delete;
};

// For its life the kernels ask for weights ahead, or not, whatever suits the processor. As above.
class ScopedPrefetch {
  public:
    explicit ScopedPrefetch(bool isUseful);
    ~ScopedPrefetch();

    ScopedPrefetch(const ScopedPrefetch&) = delete;
    ScopedPrefetch& operator=(const ScopedPrefetch&) = delete;
};

}  // namespace zevrant::simd
