#pragma once

#include <cstdint>
#include <memory>
#include <tuple>
#include <vector>

#include "neural/BaseLayer.h"
#include "neural/Tensor.h"

namespace zevrant {

// Maps the frequency axis onto another one by a sparse matrix: each output bin is a weighted sum of a
// contiguous run of input bins.
//
//   out[t][o][c] = sum over k of in[t][startBins[o] + k][c] * taps[o][k]
//
// Shapes   in [T, F, C], out [T, outputBins, C]. F is only the distance between slices: a run past the band
//          reads on behind it, on purpose, as far as the tensor's buffer goes.
// Order    The first term is a product, applied whatever the tap count is; the others follow by k, fused.
// Memory   None between pushes.   Latency: none.   Threads: only the one that runs the model; no locks.
// Errors   A run that starts before the buffer or ends behind it, or an entry without a tap, throws
//          std::invalid_argument in that push, before output is written.
template <class T>
class FrequencyRescaleLayer : public BaseLayer<T> {
  public:
    // Record behind the source name: entry count as int16, and per entry the first input bin as int16 and the
    // taps as a tensor. A negative count throws std::length_error.
    FrequencyRescaleLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    // Installs a table, one entry per output bin: first input bin, taps along axis 0. The taps are shared.
    void createWeightsCache(const std::vector<std::tuple<int, Tensor<T>>>& newWeights);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output); }

    std::vector<std::tuple<int, Tensor<T>>> weights;  // owns the taps

    // Drawn from weights, so that push touches neither tuples nor shared storage. The tensors of weights are
    // never written, which is what keeps the addresses valid.
    std::vector<std::int32_t> tapCounts;
    std::vector<std::int32_t> startBins;
    std::vector<const T*> tapPointers;
    std::int32_t outputBins = 0;

    Tensor<T> output;  // [T, outputBins, C]

  private:
    // What all entries together ask of a tensor, so that one comparison per push is enough.
    std::int64_t firstBin = 0;   // lowest bin that is read
    std::int64_t binBehind = 0;  // behind the highest bin that is read
    bool everyEntryHasTaps = true;
};

}  // namespace zevrant
