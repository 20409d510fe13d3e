#include "simd/TargetOverride.h"

#include "simd/Dispatch.h"

namespace zevrant::simd {

std::vector<Target> getUsableTargets() {
    std::vector<Target> targets;
    for (std::size_t index = 0; index < kNumOfTargets; ++index)
        if (isUsable(index)) targets.push_back({index, hwy::TargetName(kTargets[index])});
    return targets;
}

ScopedTarget::ScopedTarget(const Target& target) {
    targetIndex.store(target.index, std::memory_order_relaxed);
}

ScopedTarget::~ScopedTarget() {
    chooseTarget();
}

ScopedPrefetch::ScopedPrefetch(bool isUseful) {
    isPrefetchUseful.store(isUseful ? 1 : 0, std::memory_order_relaxed);
}

ScopedPrefetch::~ScopedPrefetch() {
    choosePrefetch();
}

}  // namespace zevrant::simd
