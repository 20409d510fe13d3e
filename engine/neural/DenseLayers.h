#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "kernels/PackedWeights.h"
#include "neural/BaseLayer.h"
#include "neural/PackedKernel.h"
#include "neural/Tensor.h"

namespace zevrant {

// A full matrix across the frequency axis of each slice, one per channel:
//
//   out[t][o][c] = sum over i of in[t][i][c] * weights[o][i][c], + bias[o][c]
//
// Shapes   in [T, F, C], out the same. The sizes come from the input; the shape of weights is not consulted.
// Order    A sum starts from 0 and takes its terms by i, each a fused multiply-add; bias comes last.
// Memory   The weights a second time, in the order of use for these sizes; nothing between pushes.
// Latency  None.   Threads: only the one that runs the model; no locks.
// Errors   Fewer than F * F * C weights, or a bias with values but fewer than F * C, throws
//          std::invalid_argument in that push, before output is written.
template <class T>
class DenseLayer : public BaseLayer<T> {
  public:
    // Record behind the source name: weights, bias; below version 0x1002 two bytes without meaning, weights.
    DenseLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output); }

    Tensor<T> weights;  // [F, F, C]: output frequency, input frequency, channel
    Tensor<T> bias;     // [F, C] or empty
    Tensor<T> output;   // [T, F, C]

  private:
    const kernels::PackedWeights& packWeights(int frequencies, int channels);

    PackedKernel<T> packedKernel;
};

// A filter along time, then one along frequency, with one short kernel each that all channels share:
//
//   mid[u][c] = sum over b of timeKernel[b] * in[t - 1 - b][u][c], the last b meeting in[t]
//   out[u][c] = sum over j of frequencyKernel[j] * mid[u + centre - j][c], zero outside the band
//   with centre = (frequencyKernelLength - 1) / 2
//
// The rotation of the time taps (0 meets the slice before the newest, the last one the newest) is part of the
// definition, on purpose.
//
// Shapes   in [T, F, C], each slice forwarded by itself as [1, F, C].
// Order    mid by b; out by centre first and then j upwards. The first term is a product, each further one a
//          fused multiply-add.
// Memory   A ring of timeKernelLength slices, zero at the start of a stream.
// Latency  The first (timeKernelLength + 1) / 2 - 1 slices are taken in and dropped without a word to the
//          consumers, and measureLatency does not count them.   Threads: only the one that runs the model.
// Errors   A kernel of length 0, one with fewer taps than its length, or a slice unlike the ring throws a
//          standard exception in that push, before any memory is touched.
template <class T>
class SeparableChannelConvLayer : public BaseLayer<T> {
  public:
    // Record behind the source name: timeKernel, frequencyKernel.
    SeparableChannelConvLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output, history, timeFiltered); }
    void reset() override;

    Tensor<T> timeKernel;         // [timeKernelLength]
    Tensor<T> frequencyKernel;    // [frequencyKernelLength]
    Tensor<T> output;             // [1, F, C]
    Tensor<T> history;            // [timeKernelLength, F, C], ring over time
    Tensor<T> timeFiltered;       // [1, F, C]
    std::int32_t sliceCount = 0;  // slices since the last reset

  private:
    void filterTime(int numOfTaps, int sliceLength);
    void filterFrequency(int numOfTaps, int frequencies, int channels);
    void combineTaps(int numOfTaps, int frequencies, int channels, int f, int numOfRows);

    // What the taps of one filter meet, and these taps in the order in which they are added.
    std::vector<const T*> rows;
    std::vector<T> factors;
};

}  // namespace zevrant
