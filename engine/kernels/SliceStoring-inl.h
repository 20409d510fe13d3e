// Copies a slice on to where the next reader needs it. Compiled once per instruction set, like all that
// includes it.
#if defined(ZEVRANT_KERNELS_SLICE_STORING_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef ZEVRANT_KERNELS_SLICE_STORING_INL_H
#undef ZEVRANT_KERNELS_SLICE_STORING_INL_H
#else
#define ZEVRANT_KERNELS_SLICE_STORING_INL_H
#endif

#include <algorithm>
#include <cstddef>

#include "kernels/Shapes.h"
#include "simd/Tiles-inl.h"

HWY_BEFORE_NAMESPACE();
namespace zevrant::kernels::HWY_NAMESPACE {

using namespace zevrant::simd::HWY_NAMESPACE;

class SliceStoring {
  public:
    SliceStoring(const SliceToStore& slice, std::ptrdiff_t count)
        : from(slice.from), to(slice.to), left(count) {}

    void copyUpTo(std::ptrdiff_t end) {
        if (!from || end <= done) return;
        const Floats d;
        constexpr auto numOfLanes = static_cast<std::ptrdiff_t>(kNumOfLanes);
        end = std::min(end, left);
        for (; done + numOfLanes <= end; done += numOfLanes)
            hn::StoreU(hn::LoadU(d, from + done), d, to + done);
        for (; done < end; ++done) to[done] = from[done];
    }
    void copyAll() { copyUpTo(left); }

    // For a kernel that has stored them itself.
    void isCopiedUpTo(std::ptrdiff_t end) { done = std::max(done, end); }

  private:
    const float* from;
    float* to;
    std::ptrdiff_t left;
    std::ptrdiff_t done = 0;
};

}  // namespace zevrant::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
