#pragma once

#include <cstdint>
#include <list>
#include <vector>

#include "kernels/TransposedKernels.h"
#include "neural/BaseLayer.h"
#include "neural/PackedKernel.h"

namespace zevrant {

// Streaming transposed convolution: every input slice makes timeStride output slices, each
// frequencyStride times as wide.
//
//   out[t * timeStride + r - timeOffset][start + i * frequencyStride + k][o]
//       += sum over c of in[t][i][c] * weights[r][k][o][c]
//   with start = -((kernelFrequency - frequencyStride) / 2), rounded towards zero,
//
// where outputs outside the band are dropped. Slices that no later input reaches get the bias and go to
// the consumers, one at a time; when one of them has reached an output layer, the others wait in
// outputQueue for triggerForward() or the next push. A kernel with one output that makes several channels
// is channel-wise: output channel o then takes input channel o alone, by weights[r][k][0][o].
//
// A kernel whose outputs, or in channel-wise mode inputs, are not as many as outputChannels writes on
// from place to place all the same, across the ends of rows, on purpose.
//
// Shapes   in [T, F, inputChannels]; out [1, frequencyStride * F, outputChannels].
// Order    Each sum over c is whole before it is added: by kernel row, input frequency, tap, output.
//          The bias comes last.
// Memory   A ring of max(timeStride, kernelTime) slices, the queue, and the weights a second time in the
//          order in which the kernel reads them. In steady motion no buffer and no list node is new.
//          A tensor of one slice is shared as inputSlice, a longer one copied slice by slice.
// Latency  timeOffset output slices, which are dropped at the start of the stream.
// Threads  Only the one that runs the model; no locks.
// Errors   What the file's numbers or the tensor make impossible (a stride of 0, a slice unlike the ring's,
//          a write behind the ring) throws std::invalid_argument or std::length_error for that slice,
//          before memory is touched.
template <class T>
class TransposedConvLayer : public BaseLayer<T> {
  public:
    // After the source: weights, bias, from version 0x1008 on int16 outputChannels, then five int8:
    // timeStride, frequencyStride, timeDilation, reservedParameter, timeOffset.
    TransposedConvLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void reset() override;
    int measureLatency(int timeScale) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(accumulator, inputSlice, outputSlice); }

    // Sends on what waits, then asks the consumers to do the same.
    void triggerForward() override;

    // Takes one slice in, finishes what it completes and sends that on.
    bool pushTimeSlice(const Tensor<T>& slice);

    // Sends waiting slices until one has reached an output layer; true when one has.
    bool forwardFromQueue();

    std::int32_t timeStride;           // output slices per input slice
    std::int32_t frequencyStride;      // output frequencies per input frequency
    std::int32_t timeDilation;         // kept as it was read
    std::int32_t reservedParameter;    // kept as it was read
    std::int64_t timeIndex = 0;        // output time of the oldest open slice
    std::int32_t timeOffset;           // output slices dropped at the start
    Tensor<T> weights;                 // [kernelTime, kernelFrequency, kernelOutputs, inputChannels]
    Tensor<T> bias;                    // [outputChannels], or without elements
    Tensor<T> accumulator;             // [ring length, output frequencies, outputChannels], open slices
    Tensor<T> inputSlice;              // [1, F, inputChannels]
    Tensor<T> outputSlice;             // [1, output frequencies, outputChannels]
    std::list<Tensor<T>> outputQueue;  // finished slices, oldest first
    std::int32_t kernelTime;
    std::int32_t kernelFrequency;
    std::int32_t inputChannels;
    std::int32_t kernelOutputs;
    std::int32_t outputChannels;

  private:
    bool hasTerms() const;
    int getRingLength() const;
    void requirePossible(const Tensor<T>& slice) const;
    const kernels::PackedWeights& packWeights();
    bool addSlice(const Tensor<T>& slice);
    void addAcrossRows(const Tensor<T>& slice, std::ptrdiff_t start);
    kernels::WholeSlot openOutput();
    void finishSlices();

    PackedKernel<T> packedKernel;
    std::vector<T*> slots;  // the open slices that the kernel rows meet
    ListNodeReserve<Tensor<T>> reserve;
};

extern template class TransposedConvLayer<float>;

}  // namespace zevrant
