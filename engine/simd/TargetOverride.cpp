#include "simd/TargetOverride.h"

#include "simd/Targets.h"

#include <hwy/highway.h>

namespace zevrant::simd {

namespace {

// The dispatcher keeps the choice that it made at the first call until it is told to choose again.
void restrictTo(std::int64_t targets) {
    hwy::SetSupportedTargetsForTest(targets);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

}  // namespace

std::vector<Target> getUsableTargets() {
    std::vector<Target> targets;
    for (const std::int64_t id : hwy::SupportedAndGeneratedTargets())
        targets.push_back({id, hwy::TargetName(id)});
    return targets;
}

ScopedTarget::ScopedTarget(const Target& target) {
    restrictTo(target.id);
}

ScopedTarget::~ScopedTarget() {
    restrictTo(0);
}

}  // namespace zevrant::simd
