#include "neural/DenseLayers.h"

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>

#include "DspCore/VectorOperations.h"
#include "kernels/ChannelKernels.h"
#include "kernels/DenseKernels.h"
#include "neural/LayerReport.h"

namespace zevrant {

template <class T>
DenseLayer<T>::DenseLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version)
    : BaseLayer<T>(layers, stream, LayerTypeEnum::Dense) {
    const bool hasBias = version >= 0x1002;
    if (!hasBias) {
        readNumber<std::int8_t>(*stream);
        readNumber<std::int8_t>(*stream);
    }
    weights = readTensor<T>(stream, version, "weights");
    if (hasBias) bias = readTensor<T>(stream, version, "bias");
    const std::vector<int>& shape = weights.shape;
    if (shape.size() == 3 && shape[0] == shape[1] && weights.data) packWeights(shape[1], shape[2]);
}

template <class T>
const kernels::PackedWeights& DenseLayer<T>::packWeights(int frequencies, int channels) {
    return packedKernel.get(weights, {frequencies, channels}, [=](const T* kernel) {
        return kernels::packDense(kernel, frequencies, channels);
    });
}

template <class T>
bool DenseLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const SliceAxes axes = requireSlices(tensor);
    const int F = axes.frequencies, C = axes.channels, sliceLength = axes.times > 0 ? F * C : 0;
    requireElements(weights, std::int64_t{sliceLength} * F, "dense layer: fewer weights than F * F * C");
    const bool hasBias = bias.hasElements();
    if (hasBias) requireElements(bias, sliceLength, "dense layer: bias is shorter than a slice");
    output.ensureShape(tensor.shape);
    output.ensureUniqueForOverwrite();
    for (int t = 0; sliceLength > 0 && t < axes.times; ++t) {
        const T* in = tensor.getReadPointer() + std::ptrdiff_t{t} * sliceLength;
        T* out = output.getWritePointer() + std::ptrdiff_t{t} * sliceLength;
        kernels::multiplyDense(in, F, C, packWeights(F, C), out);
        if (hasBias) vo::add(out, bias.getReadPointer(), out, sliceLength);
    }
    return this->forward(output);
}

template <class T>
SeparableChannelConvLayer<T>::SeparableChannelConvLayer(const LayerMap& layers,
                                                        std::shared_ptr<InputStream> stream, int version)
    // The code of the dense layer, on purpose; nothing reads it.
    : BaseLayer<T>(layers, stream, LayerTypeEnum::Dense),
      timeKernel(readTensor<T>(stream, version, "timeKernel")),
      frequencyKernel(readTensor<T>(stream, version, "frequencyKernel")) {}

template <class T>
bool SeparableChannelConvLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const SliceAxes axes = requireSlices(tensor);
    const int timeTaps = timeKernel.shape.empty() ? 0 : timeKernel.shape[0];
    const int frequencyTaps = frequencyKernel.shape.empty() ? 0 : frequencyKernel.shape[0];
    if (axes.times > 0) {
        require(timeTaps >= 1 && frequencyTaps >= 1, "separable layer: a kernel has no taps");
        requireElements(timeKernel, timeTaps, "separable layer: timeKernel is shorter than its axis");
        requireElements(frequencyKernel, frequencyTaps,
                        "separable layer: frequencyKernel is shorter than its axis");
    }
    if (axes.times > 0) requireRing(history, timeTaps, axes);
    openRing(history, timeTaps, axes);
    timeFiltered.ensureShape({1, axes.frequencies, axes.channels});
    output.ensureShape({1, axes.frequencies, axes.channels});
    timeFiltered.ensureUnique();

    const int sliceLength = axes.times > 0 ? axes.frequencies * axes.channels : 0;
    const int threshold = (timeTaps + 1) / 2 - 1;
    bool reachedOutput = false;
    for (int t = 0; t < axes.times; ++t) {
        const T* in = tensor.getReadPointer() + std::ptrdiff_t{t} * sliceLength;
        vo::copy(in, getSlot(history, sliceCount), sliceLength);
        filterTime(timeTaps, sliceLength);
        output.ensureUniqueForOverwrite();
        filterFrequency(frequencyTaps, axes.frequencies, axes.channels);
        if (sliceCount >= threshold) reachedOutput |= this->forward(output);
        sliceCount = countSlice(sliceCount, timeTaps);
    }
    return reachedOutput;
}

// Tap 0 meets the slice before the newest, the last tap the newest.
template <class T>
void SeparableChannelConvLayer<T>::filterTime(int numOfTaps, int sliceLength) {
    const std::int64_t before = std::int64_t{sliceCount} + numOfTaps - 1;
    rows.resize(static_cast<std::size_t>(numOfTaps));
    for (int b = 0; b < numOfTaps; ++b) rows[static_cast<std::size_t>(b)] = getSlot(history, before - b);
    kernels::combineRows(rows.data(), timeKernel.getReadPointer(), numOfTaps, sliceLength,
                         timeFiltered.getWritePointer());
}

// Tap j moves the band by centre - j rows, and what comes in from outside is left out. So a row combines the
// rows around it, the centre first; all rows that have every tap within the band are combined as one.
template <class T>
void SeparableChannelConvLayer<T>::filterFrequency(int numOfTaps, int frequencies, int channels) {
    const int centre = (numOfTaps - 1) / 2;
    const int firstWhole = std::min(numOfTaps - 1 - centre, frequencies);
    const int behindWhole = std::max(frequencies - centre, firstWhole);
    for (int f = 0; f < firstWhole; ++f) combineTaps(numOfTaps, frequencies, channels, f, 1);
    if (behindWhole > firstWhole)
        combineTaps(numOfTaps, frequencies, channels, firstWhole, behindWhole - firstWhole);
    for (int f = behindWhole; f < frequencies; ++f) combineTaps(numOfTaps, frequencies, channels, f, 1);
}

// Rows f to f + numOfRows - 1 of the output, all of which have the same taps within the band.
template <class T>
void SeparableChannelConvLayer<T>::combineTaps(int numOfTaps, int frequencies, int channels, int f,
                                               int numOfRows) {
    const int centre = (numOfTaps - 1) / 2;
    rows.clear();
    factors.clear();
    const auto take = [&](int j) {
        rows.push_back(timeFiltered.getReadPointer() + std::ptrdiff_t{f + centre - j} * channels);
        factors.push_back(frequencyKernel.getReadPointer()[j]);
    };
    take(centre);
    for (int j = 0; j < numOfTaps; ++j)
        if (j != centre && f + centre - j >= 0 && f + centre - j < frequencies) take(j);
    kernels::combineRows(rows.data(), factors.data(), static_cast<std::ptrdiff_t>(rows.size()),
                         std::ptrdiff_t{numOfRows} * channels,
                         output.getWritePointer() + std::ptrdiff_t{f} * channels);
}

template <class T>
void SeparableChannelConvLayer<T>::reset() {
    history.setToZero();
    sliceCount = 0;
    timeFiltered.dropContent();
}

template <class T>
void DenseLayer<T>::describe(LayerReport& report) const {
    const SliceShape in = report.inputs.front();
    const double terms = static_cast<double>(in.frequencies) * static_cast<double>(in.numOfValues());
    report.kind = "dense";
    report.addWeights("weights", weights);
    report.addWeights("bias", bias);
    report.multiplyAddsPerFrame = terms * report.slicesPerFrame;
    report.priceOutputs(in.frequencies);
    report.expectValues("weights", weights, multiplyLimited(in.frequencies, in.numOfValues()),
                        "a slice of " + toText(in));
    if (bias.hasElements()) report.expectValues("bias", bias, in.numOfValues(), "a slice of " + toText(in));
}

template <class T>
void SeparableChannelConvLayer<T>::describe(LayerReport& report) const {
    const int timeTaps = getAxis(timeKernel, 0), frequencyTaps = getAxis(frequencyKernel, 0);
    report.kind = "separable convolution";
    report.addWeights("timeKernel", timeKernel);
    report.addWeights("frequencyKernel", frequencyKernel);
    report.addDetail("kernels " + std::to_string(timeTaps) + " (time), " + std::to_string(frequencyTaps) +
                     " (frequency)");
    report.multiplyAddsPerFrame = (static_cast<double>(timeTaps) + frequencyTaps) *
                                  static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
    report.keepSlices(timeTaps, report.output);
    for (const auto& [field, kernel, taps] : {std::tuple{"timeKernel", &timeKernel, timeTaps},
                                              {"frequencyKernel", &frequencyKernel, frequencyTaps}})
        if (taps < 1)
            report.addError(field, toText(kernel->shape), "a kernel without taps");
        else
            report.expectValues(field, *kernel, taps, "the filter");
    const int threshold = (timeTaps + 1) / 2 - 1;
    if (threshold > 0)
        report.addWarning("timeKernel", toText(timeKernel.shape),
                          "the first " + std::to_string(threshold) +
                              " slices are dropped, which the model's latency does not count");
}

template class DenseLayer<float>;
template class SeparableChannelConvLayer<float>;

}  // namespace zevrant
