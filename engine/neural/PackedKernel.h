#pragma once

#include <array>
#include <memory>

#include "kernels/PackedWeights.h"
#include "neural/Tensor.h"

namespace zevrant {

// A layer's weights a second time, in the order in which the kernels of the running processor read them.
//
// Memory   Packed when the layer is loaded, and anew where the tensor has other elements than then or is
//          read by other axes. Its elements are shared until then, so a writer who calls ensureUnique() first
//          is noticed.
// Threads  Only the one that runs the model; no locks.
template <class T>
class PackedKernel {
  public:
    using Axes = std::array<int, 5>;  // whatever the order depends on

    // pack(weights) gives kernels::PackedWeights for these axes.
    template <class Pack>
    const kernels::PackedWeights& get(const Tensor<T>& weights, const Axes& axes, const Pack& pack) {
        if (source != weights.data || packedAxes != axes || !kernels::isSuited(packed)) {
            packed = pack(weights.getReadPointer());
            packedAxes = axes;
            source = weights.data;
        }
        return packed;
    }

  private:
    kernels::PackedWeights packed;
    Axes packedAxes = {};
    std::shared_ptr<TensorData<T>> source;
};

}  // namespace zevrant
