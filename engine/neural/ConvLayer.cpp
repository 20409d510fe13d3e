#include "neural/ConvLayer.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "DspCore/VectorOperations.h"
#include "kernels/ChannelKernels.h"
#include "kernels/ConvolutionKernels.h"
#include "kernels/PlainKernels.h"
#include "neural/StreamNumbers.h"

namespace zevrant {

namespace {

std::int32_t saturate(std::int64_t value) {
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, std::numeric_limits<std::int32_t>::min(),
                                                              std::numeric_limits<std::int32_t>::max()));
}

}  // namespace

template <class T>
ConvLayer<T>::ConvLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version)
    : BaseLayer<T>(layers, stream, LayerTypeEnum::Conv), weights(stream, version), bias(stream, version) {
    timeStride = readNumber<std::int8_t>(*stream);
    frequencyStride = readNumber<std::int8_t>(*stream);
    timeDilation = readNumber<std::int8_t>(*stream);
    reservedParameter = readNumber<std::int8_t>(*stream);
    timeOffset = readNumber<std::int8_t>(*stream);
    this->triggersConsumers = timeStride != 1 || timeOffset > 0;

    if (version <= 0x1000) weights = permuteKernels(weights);
    kernelTime = getAxis(weights, 0);
    kernelFrequency = getAxis(weights, 1);
    inputChannels = getAxis(weights, 2);
    outputChannels = getAxis(weights, 3);
    historyLength = saturate(1 + std::int64_t{timeDilation} * (std::int64_t{kernelTime} - 1));
    if (hasTerms() && weights.data) packWeights();
}

template <class T>
const kernels::PackedWeights& ConvLayer<T>::packWeights() {
    return packedKernel.get(
        weights, {kernelTime, kernelFrequency, inputChannels, outputChannels}, [this](const T* kernel) {
            return kernels::packConvolution(kernel, {kernelTime, kernelFrequency, inputChannels,
                                                     outputChannels, 0, 0, frequencyStride, 0});
        });
}

template <class T>
Tensor<T> ConvLayer<T>::permuteKernels(Tensor<T> kernels) {
    if (kernels.shape.size() != 4) return kernels;
    const int numOfRows = kernels.shape[3], numOfColumns = kernels.shape[2];
    Tensor<T> result({kernels.shape[0], kernels.shape[1], numOfRows, numOfColumns});
    const int count = kernels.data ? result.getNumOfElements() : 0;
    const T* in = kernels.getReadPointer();
    T* out = result.getWritePointer();
    for (int i = 0; i < count; ++i) {
        const int row = i / numOfColumns % numOfRows, column = i % numOfColumns;
        out[i] = in[i - row * numOfColumns - column + column * numOfRows + row];
    }
    return result;
}

// Whether the kernel's axes tell of anything to add.
template <class T>
bool ConvLayer<T>::hasTerms() const {
    return kernelTime > 0 && kernelFrequency > 0 && inputChannels > 0 && outputChannels > 0;
}

template <class T>
void ConvLayer<T>::requirePossible(const Tensor<T>& tensor, const SliceAxes& axes,
                                   int historyChannels) const {
    const auto [times, frequencies, channels] = axes;
    require(channels > 0 && frequencies >= 0 && historyChannels >= 0,
            "convolution: a slice without channels or of negative size");
    require(historyLength > 0, "convolution: the kernel leaves no room for a slice");
    require(!history.hasElements() || (history.shape[0] == historyLength && history.shape[1] == frequencies &&
                                       history.shape[2] == historyChannels),
            "convolution: the slice differs from those in the ring");
    const std::int64_t numOfValues = historyChannels / channels > 1
                                         ? std::int64_t{frequencies} * channels
                                         : std::int64_t{times} * frequencies * historyChannels;
    requireElements(tensor, numOfValues, "convolution: the tensor is shorter than its slices");
    if (timeIndex + times > timeOffset)
        requireComputable(frequencies, historyChannels, inputChannels == 1 && channels != 1);
}

// Whether a ring with slices of this size can be convolved.
template <class T>
void ConvLayer<T>::requireComputable(int frequencies, int historyChannels, bool isChannelWise) const {
    require(timeStride > 0 && frequencyStride > 0, "convolution: a stride has to be positive");
    const int outputFrequencies = frequencies / frequencyStride;
    Tensor<T>::countElements(std::array{outputFrequencies, std::max(outputChannels, 1)});
    if (outputFrequencies < 1) return;
    require(outputChannels >= 0, "convolution: a negative number of output channels");
    if (bias.hasElements()) requireElements(bias, outputChannels, "convolution: the bias is too short");
    if (kernelTime < 1) return;
    require(weights.shape.size() >= 4, "convolution: the kernel has less than four axes");
    if (!hasTerms()) return;
    requireElements(weights, std::int64_t{kernelTime} * kernelFrequency * inputChannels * outputChannels,
                    "convolution: the kernel is shorter than its shape");
    require((isChannelWise ? outputChannels : inputChannels) <= historyChannels,
            "convolution: the slice has too few channels");
}

template <class T>
bool ConvLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const SliceAxes axes = getSliceAxes(tensor);
    const auto [times, frequencies, channels] = axes;
    const int historyChannels = inputChannels == 1 && channels != 1 ? outputChannels : channels;
    if (times > 0) requirePossible(tensor, axes, historyChannels);
    if (historyLength == 1 && times == 1 && channels == historyChannels && tensor.shape.size() == 3) {
        history = tensor;  // a ring of one slice is that slice, so it is shared and not copied
        const bool hasReachedOutput = processCheckedSlice(channels);
        ++timeIndex;
        return hasReachedOutput;
    }
    if (!history.hasElements()) {
        history.ensureShape({historyLength, frequencies, historyChannels});
        history.setToZero();
    }
    history.ensureUnique();
    if (times < 1) return false;

    const int repeat = historyChannels / channels;
    const int numOfValues = frequencies * historyChannels;
    const T* in = tensor.getReadPointer();
    bool hasReachedOutput = false;
    for (int time = 0; time < times; ++time) {
        T* slot = history.getWritePointer() + timeIndex % historyLength * numOfValues;
        if (repeat <= 1) {
            newSlice = {in, slot};  // for the kernel, or for storeNewSlice() if none takes it
            in += numOfValues;
        } else {
            // Every slice of the tensor takes the values of the first one, on purpose.
            for (int i = 0; i < frequencies * channels; ++i, slot += repeat) std::fill_n(slot, repeat, in[i]);
        }
        hasReachedOutput |= processCheckedSlice(channels);
        ++timeIndex;
    }
    return hasReachedOutput;
}

template <class T>
void ConvLayer<T>::storeNewSlice() {
    if (newSlice.from) vo::copy(newSlice.from, newSlice.to, history.shape[1] * history.shape[2]);
    newSlice = {};
}

template <class T>
bool ConvLayer<T>::processTimeSlice(int inputChannelCount) {
    const SliceAxes ring = getSliceAxes(history);
    if (timeIndex >= timeOffset) {
        requireComputable(ring.frequencies, ring.channels, inputChannels == 1 && inputChannelCount != 1);
        if (hasTerms() && ring.frequencies >= frequencyStride) requireRing(history, historyLength, ring);
    }
    return processCheckedSlice(inputChannelCount);
}

template <class T>
bool ConvLayer<T>::processCheckedSlice(int inputChannelCount) {
    if (timeIndex < timeOffset || (timeIndex - timeOffset) % timeStride != 0) {
        storeNewSlice();
        BaseLayer<T>::triggerForward();
        return false;
    }
    const int outputFrequencies = getSliceAxes(history).frequencies / frequencyStride;
    output.ensureShape({1, outputFrequencies, outputChannels});
    output.ensureUniqueForOverwrite();
    convolve(outputFrequencies, inputChannels == 1 && inputChannelCount != 1);
    return this->forward(output);
}

template <class T>
void ConvLayer<T>::convolve(int outputFrequencies, bool isChannelWise) {
    const auto [length, frequencies, historyChannels] = getSliceAxes(history);
    const T* first = bias.hasElements() ? bias.getReadPointer() : nullptr;
    T* out = output.getWritePointer();
    kernels::Convolution shape = {0,
                                  kernelFrequency,
                                  inputChannels,
                                  outputChannels,
                                  frequencies,
                                  outputFrequencies,
                                  frequencyStride,
                                  -((std::ptrdiff_t{kernelFrequency} - frequencyStride) / 2)};
    if (!hasTerms() || outputFrequencies < 1) {
        storeNewSlice();
        return kernels::plain::convolve(shape, nullptr, 0, nullptr, first, 0, out);
    }

    shape.numOfSlices = kernelTime;
    rows.resize(static_cast<std::size_t>(kernelTime));
    const T* slots = history.getReadPointer();
    for (int r = 0; r < kernelTime; ++r) {
        const std::int64_t slot = (timeIndex + 1 + std::int64_t{r} * timeDilation) % length;
        rows[static_cast<std::size_t>(r)] = slots + slot * frequencies * historyChannels;
    }
    const T* kernel = weights.getReadPointer();
    if (inputChannels != historyChannels && !isChannelWise) {
        storeNewSlice();
        return kernels::plain::convolve(shape, rows.data(), historyChannels, kernel, first, 0, out);
    }
    const kernels::SliceToStore store = std::exchange(newSlice, {});
    if (isChannelWise) return kernels::convolveChannels(shape, rows.data(), kernel, first, 0, out, store);
    kernels::convolve(shape, rows.data(), packWeights(), first, 0, out, store);
}

template <class T>
void ConvLayer<T>::reset() {
    history.setToZero();
    timeIndex = 0;
}

template <class T>
int ConvLayer<T>::measureLatency(int timeScale) {
    const std::int64_t scale = timeScale;
    return static_cast<int>(scale * timeOffset +
                            this->measureConsumers(static_cast<int>(scale * timeStride)));
}

template class ConvLayer<float>;

}  // namespace zevrant
