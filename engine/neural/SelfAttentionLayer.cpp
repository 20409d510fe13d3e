#include "neural/SelfAttentionLayer.h"

#include <algorithm>
#include <string>
#include <utility>

#include "DspCore/VectorOperations.h"
#include "kernels/ChannelKernels.h"
#include "kernels/ConvolutionKernels.h"
#include "neural/LayerReport.h"

namespace zevrant {

template <class T>
SelfAttentionLayer<T>::SelfAttentionLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream,
                                          int version)
    : BaseLayer<T>(layers, stream, LayerTypeEnum::SelfAttention),
      channelMatrix(readTensor<T>(stream, version, "channelMatrix")),
      positionBias(readTensor<T>(stream, version, "positionBias")) {
    const std::vector<int>& shape = channelMatrix.shape;
    if (shape.size() == 2 && shape[0] == shape[1] && channelMatrix.data) packMatrix(shape[0]);
    if (version < 0x1007) return;
    startDelay = readNumber<std::int8_t>(*stream, "startDelay");
    timeWeights = readTensor<T>(stream, version, "timeWeights");
}

template <class T>
bool SelfAttentionLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const SliceAxes axes = requireSlices(tensor);
    const int historyLength = timeWeights.hasElements() ? timeWeights.shape[0] : 0;
    if (axes.times > 0) requireWeights(axes, historyLength);
    const int sliceLength = axes.times > 0 ? axes.frequencies * axes.channels : 0;

    if (startDelay >= 1)
        output.ensureShape({1, axes.frequencies, axes.channels});
    else
        output.ensureShape(tensor.shape);
    if (timeWeights.hasElements()) prepareHistory(axes, historyLength);
    output.ensureUniqueForOverwrite();

    bool reachedOutput = false;
    for (int t = 0; t < axes.times; ++t) {
        const T* in = tensor.getReadPointer() + std::ptrdiff_t{t} * sliceLength;
        T* out = output.getWritePointer() + std::ptrdiff_t{t} * sliceLength;
        if (sliceLength > 0)
            mixChannels(historyLength > 0 ? filterTime(in, axes, historyLength) : in, axes, out);
        if (startDelay > 0 && timeIndex >= startDelay) reachedOutput |= this->forward(output);
        ++timeIndex;
    }
    return startDelay == 0 ? this->forward(output) : reachedOutput;
}

template <class T>
void SelfAttentionLayer<T>::requireWeights(const SliceAxes& axes, int historyLength) const {
    const std::int64_t F = axes.frequencies, C = axes.channels;
    require(startDelay < 1 || axes.times <= 1,
            "self-attention layer: a delayed start takes one slice at a time");
    requireElements(channelMatrix, C * C, "self-attention layer: channelMatrix is smaller than C * C");
    if (positionBias.hasElements())
        requireElements(positionBias, F * C, "self-attention layer: positionBias is smaller than F * C");
    if (!timeWeights.hasElements()) return;
    require(historyLength >= 1, "self-attention layer: a history without a length");
    requireElements(timeWeights, historyLength * C,
                    "self-attention layer: timeWeights is smaller than H * C");
}

template <class T>
void SelfAttentionLayer<T>::prepareHistory(const SliceAxes& axes, int historyLength) {
    if (axes.times > 0) requireRing(history, historyLength, axes);
    openRing(history, historyLength, axes);
    filtered.ensureShape({axes.frequencies, axes.channels});
    filtered.ensureUniqueForOverwrite();
}

// Stores the slice and returns the sum over the ring, from its oldest slice to the one just stored. That is a
// convolution along time, channel by channel.
template <class T>
const T* SelfAttentionLayer<T>::filterTime(const T* in, const SliceAxes& axes, int historyLength) {
    const int F = axes.frequencies, C = axes.channels;
    vo::copy(in, getSlot(history, timeIndex), F * C);
    rows.resize(static_cast<std::size_t>(historyLength));
    collectSlots(history, timeIndex, 1, rows);
    const kernels::Convolution alongTime = {historyLength, 1, C, C, F, F, 1, 0};
    kernels::convolveChannels(alongTime, rows.data(), timeWeights.getReadPointer(), nullptr, 0,
                              filtered.getWritePointer());
    return filtered.getReadPointer();
}

template <class T>
void SelfAttentionLayer<T>::mixChannels(const T* in, const SliceAxes& axes, T* out) {
    const T* first = positionBias.hasElements() ? positionBias.getReadPointer() : nullptr;
    kernels::multiplyMatrix(in, axes.frequencies, packMatrix(axes.channels), first, axes.channels, out);
}

template <class T>
const kernels::PackedWeights& SelfAttentionLayer<T>::packMatrix(int channels) {
    return packedMatrix.get(channelMatrix, {channels}, [channels](const T* matrix) {
        return kernels::packWeights(matrix, 1, channels, channels, {0, channels, 1});
    });
}

template <class T>
void SelfAttentionLayer<T>::reset() {
    history.setToZero();
    timeIndex = 0;
}

template <class T>
int SelfAttentionLayer<T>::measureLatency(int timeScale) {
    return startDelay + this->measureConsumers(timeScale);
}

template <class T>
void SelfAttentionLayer<T>::describe(LayerReport& report) const {
    const SliceShape in = report.inputs.front();
    const int historyLength = getAxis(timeWeights, 0);
    report.kind = "self-attention";
    report.addDetail(std::to_string(historyLength) + " slices");
    if (startDelay != 0) report.addDetail("delay " + std::to_string(startDelay));
    report.addWeights("channelMatrix", channelMatrix);
    report.addWeights("timeWeights", timeWeights);
    report.addWeights("positionBias", positionBias);
    report.multiplyAddsPerFrame = static_cast<double>(historyLength + in.channels) *
                                  static_cast<double>(in.numOfValues()) * report.slicesPerFrame;
    report.priceOutputs(in.channels);
    report.latency = std::max(startDelay, 0);
    report.keepSlices(historyLength, in);

    report.expectValues("channelMatrix", channelMatrix, multiplyLimited(in.channels, in.channels),
                        "a slice of " + toText(in));
    if (positionBias.hasElements())
        report.expectValues("positionBias", positionBias, in.numOfValues(), "a slice of " + toText(in));
    if (timeWeights.hasElements() && historyLength < 1)
        report.addError("timeWeights", toText(timeWeights.shape), "a history without a length");
    else if (timeWeights.hasElements())
        report.expectValues("timeWeights", timeWeights, multiplyLimited(historyLength, in.channels),
                            "a slice of " + toText(in));
    if (startDelay > 0 && report.slicesPerFrame != 1.0)
        report.addWarning("startDelay", std::to_string(startDelay),
                          "counts as frames in the model's latency, though slices come at another rate");
    if (startDelay < 0) {
        report.addError("startDelay", std::to_string(startDelay), "nothing is ever sent on");
        report.slicesPerFrame = 0.0;
    }
}

template class SelfAttentionLayer<float>;

}  // namespace zevrant
