#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "kernels/PackedWeights.h"
#include "neural/BaseLayer.h"
#include "neural/PackedKernel.h"
#include "neural/Tensor.h"

namespace zevrant {

// A streaming linear operator: per channel a causal filter over the latest H slices, then a matrix across the
// channels, on top of a fixed term per frequency and channel.
//
//   mid[f][c] = sum over u of timeWeights[u][c] * in[t - (H - 1 - u)][f][c]
//   out[f][o] = positionBias[f][o] + sum over c of mid[f][c] * channelMatrix[c][o]
//
// Without timeWeights mid is the input.
//
// Shapes   in [T, F, C], out the same, or [1, F, C] slice by slice where startDelay is 1 or more. An empty
//          positionBias counts as zeros.
// Order    mid starts from 0 and takes u upwards; out starts from the fixed term and takes c upwards; fused.
// Memory   A ring of H slices, zero at the start of a stream; none without timeWeights.
// Latency  startDelay slices, dropped at the start without a word to the consumers, and reported unscaled by
//          time strides, on purpose. A negative startDelay forwards nothing at all.
// Threads  Only the one that runs the model; no locks.
// Errors   Weights too short for F and C, a slice unlike the ring, or T > 1 where startDelay is 1 or more
//          throws std::invalid_argument in that push, before any memory is touched.
template <class T>
class SelfAttentionLayer : public BaseLayer<T> {
  public:
    // Record behind the source name: channelMatrix, positionBias; from version 0x1007 startDelay as int8 and
    // timeWeights.
    SelfAttentionLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void reset() override;
    int measureLatency(int timeScale) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(history, filtered, output); }

    Tensor<T> channelMatrix;      // [C, C]: input channel, output channel
    Tensor<T> timeWeights;        // [H, C] or empty
    Tensor<T> positionBias;       // [F, C]
    Tensor<T> history;            // [H, F, C], ring over time
    Tensor<T> filtered;           // [F, C]
    std::int32_t startDelay = 0;  // slices
    std::int64_t timeIndex = 0;   // slices since the last reset
    Tensor<T> output;

  private:
    void requireWeights(const SliceAxes& axes, int historyLength) const;
    void prepareHistory(const SliceAxes& axes, int historyLength);
    const T* filterTime(const T* in, const SliceAxes& axes, int historyLength);
    void mixChannels(const T* in, const SliceAxes& axes, T* out);
    const kernels::PackedWeights& packMatrix(int channels);

    PackedKernel<T> packedMatrix;
    std::vector<const T*> rows;  // the slices of the ring, oldest first
};

}  // namespace zevrant
