#pragma once

#include <cstdint>
#include <vector>

#include "kernels/Shapes.h"
#include "neural/BaseLayer.h"
#include "neural/PackedKernel.h"

namespace zevrant {

// Streaming two-dimensional convolution, causal in time, centred and zero-padded in frequency.
//
//   out[f][o] = bias[o] + sum over r, k, c of weights[r][k][c][o]
//               * in[t - timeDilation * (kernelTime - 1 - r)][start + f * frequencyStride + k][c]
//   with start = -((kernelFrequency - frequencyStride) / 2), rounded towards zero,
//
// where taps outside the band are left out. A kernel with one input channel that meets several is
// channel-wise: output channel o then takes channel o of the ring alone, and a push of fewer channels
// fills the ring with each of its channels several times in a row.
//
// Shapes   in [T, F, C], F and C as the first push brings them; out [1, F / frequencyStride, outputChannels]
//          for every timeStride-th slice from timeOffset on. In between the consumers are triggered.
// Order    An output value takes its terms by r, then k, then c, and rounds accordingly.
// Memory   A ring of 1 + timeDilation * (kernelTime - 1) slices, zero at the start of a stream, and the
//          weights a second time in the order of use. A ring of one slice shares
//          the buffer of the tensor that was pushed, until the next push.
// Latency  timeOffset slices.   Threads: only the one that runs the model; no locks.
// Errors   What the file's numbers or the tensor make impossible (a stride of 0, a slice unlike the ring's,
//          no kernel) throws std::invalid_argument or std::length_error in that push, before memory is
//          touched, and so does a ring that is unlike the kernel in processTimeSlice().
template <class T>
class ConvLayer : public BaseLayer<T> {
  public:
    // After the source: weights, bias, then five int8: timeStride, frequencyStride, timeDilation,
    // reservedParameter, timeOffset. Up to version 0x1000 the last two axes of the weights are swapped.
    ConvLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void reset() override;
    int measureLatency(int timeScale) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(history, output); }

    // [d0, d1, d2, d3] to [d0, d1, d3, d2].
    Tensor<T> permuteKernels(Tensor<T> kernels);

    // Convolves what the ring holds, if it is time for a slice, and hands the result on. The slice at
    // timeIndex is the newest; inputChannelCount is what its tensor had.
    bool processTimeSlice(int inputChannelCount);

    std::int32_t timeStride;         // input slices per output slice
    std::int32_t frequencyStride;    // input frequencies per output frequency
    std::int32_t timeDilation;       // slices between kernel rows
    std::int32_t reservedParameter;  // kept as it was read
    std::int64_t timeIndex = 0;      // slices since the start of the stream
    std::int32_t timeOffset;         // slices before the first output
    Tensor<T> weights;               // [kernelTime, kernelFrequency, inputChannels, outputChannels]
    Tensor<T> bias;                  // [outputChannels], or without elements
    Tensor<T> history;               // [historyLength, F, channels of the ring], ring over time
    Tensor<T> output;                // [1, F / frequencyStride, outputChannels]
    std::int32_t kernelTime;
    std::int32_t historyLength;
    std::int32_t kernelFrequency;
    std::int32_t inputChannels;
    std::int32_t outputChannels;

  private:
    // What all slices of one push have in common.
    struct Plan {
        int frequencies;        // of a slice of the ring
        int channels;           // of a slice of the ring
        int outputFrequencies;  // 0 with a stride that is not positive
        bool isChannelWise;

        int getSliceLength() const { return frequencies * channels; }
    };

    bool hasTerms() const;
    Plan planFor(int frequencies, int inputChannelCount, int ringChannels) const;
    void requirePossible(const Tensor<T>& tensor, const SliceAxes& axes, const Plan& plan) const;
    void requireComputable(const Plan& plan) const;
    const kernels::PackedWeights& packWeights();
    bool processSlice(const Plan& plan, const kernels::SliceToStore& store);
    void convolve(const Plan& plan, const kernels::SliceToStore& store);

    PackedKernel<T> packedKernel;
    std::vector<const T*> rows;  // the slices that the kernel rows meet
};

extern template class ConvLayer<float>;

}  // namespace zevrant
