#include "neural/ConvLayer.h"

#include <algorithm>
#include <array>
#include <limits>

#include "DspCore/VectorOperations.h"
#include "kernels/ChannelKernels.h"
#include "kernels/ConvolutionKernels.h"
#include "kernels/PlainKernels.h"
#include "neural/KernelReport.h"

namespace zevrant {

namespace {

std::int32_t saturate(std::int64_t value) {
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, std::numeric_limits<std::int32_t>::min(),
                                                              std::numeric_limits<std::int32_t>::max()));
}

}  // namespace

template <class T>
ConvLayer<T>::ConvLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version)
    : BaseLayer<T>(layers, stream, LayerTypeEnum::Conv),
      weights(readTensor<T>(stream, version, "weights")),
      bias(readTensor<T>(stream, version, "bias")) {
    timeStride = readNumber<std::int8_t>(*stream, "timeStride");
    frequencyStride = readNumber<std::int8_t>(*stream, "frequencyStride");
    timeDilation = readNumber<std::int8_t>(*stream, "timeDilation");
    reservedParameter = readNumber<std::int8_t>(*stream, "reservedParameter");
    timeOffset = readNumber<std::int8_t>(*stream, "timeOffset");

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
typename ConvLayer<T>::Plan ConvLayer<T>::planFor(int frequencies, int inputChannelCount,
                                                  int ringChannels) const {
    return {frequencies, ringChannels, frequencyStride > 0 ? frequencies / frequencyStride : 0,
            inputChannels == 1 && inputChannelCount != 1};
}

template <class T>
void ConvLayer<T>::requirePossible(const Tensor<T>& tensor, const SliceAxes& axes, const Plan& plan) const {
    const auto [times, frequencies, channels] = axes;
    require(channels > 0 && frequencies >= 0 && plan.channels >= 0,
            "convolution: a slice without channels or of negative size");
    requireRing(history, historyLength, {times, frequencies, plan.channels});
    const std::int64_t numOfValues = plan.channels / channels > 1
                                         ? std::int64_t{frequencies} * channels
                                         : std::int64_t{times} * frequencies * plan.channels;
    requireElements(tensor, numOfValues, "convolution: the tensor is shorter than its slices");
    if (timeIndex + times > timeOffset) requireComputable(plan);
}

// Whether a ring with slices of this size can be convolved.
template <class T>
void ConvLayer<T>::requireComputable(const Plan& plan) const {
    require(timeStride > 0 && frequencyStride > 0, "convolution: a stride has to be positive");
    Tensor<T>::countElements(std::array{plan.outputFrequencies, std::max(outputChannels, 1)});
    if (plan.outputFrequencies < 1) return;
    require(outputChannels >= 0, "convolution: a negative number of output channels");
    if (bias.hasElements()) requireElements(bias, outputChannels, "convolution: the bias is too short");
    if (kernelTime < 1) return;
    require(weights.shape.size() >= 4, "convolution: the kernel has less than four axes");
    if (!hasTerms()) return;
    requireElements(weights, std::int64_t{kernelTime} * kernelFrequency * inputChannels * outputChannels,
                    "convolution: the kernel is shorter than its shape");
    require((plan.isChannelWise ? outputChannels : inputChannels) <= plan.channels,
            "convolution: the slice has too few channels");
}

template <class T>
bool ConvLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const SliceAxes axes = getSliceAxes(tensor);
    const auto [times, frequencies, channels] = axes;
    const int ringChannels = inputChannels == 1 && channels != 1 ? outputChannels : channels;
    const Plan plan = planFor(frequencies, channels, ringChannels);
    if (times > 0) requirePossible(tensor, axes, plan);
    if (historyLength == 1 && times == 1 && channels == ringChannels && tensor.shape.size() == 3) {
        history = tensor;  // a ring of one slice is that slice, so it is shared and not copied
        const bool hasReachedOutput = processSlice(plan, {});
        ++timeIndex;
        return hasReachedOutput;
    }
    openRing(history, historyLength, {times, frequencies, ringChannels});
    if (times < 1) return false;

    const int repeat = ringChannels / channels;
    const T* in = tensor.getReadPointer();
    bool hasReachedOutput = false;
    for (int time = 0; time < times; ++time) {
        T* slot = getSlot(history, timeIndex);
        kernels::SliceToStore store;
        if (repeat <= 1) {
            store = {in, slot};
            in += plan.getSliceLength();
        } else {
            // Every slice of the tensor takes the values of the first one, on purpose.
            for (int i = 0; i < frequencies * channels; ++i, slot += repeat) std::fill_n(slot, repeat, in[i]);
        }
        hasReachedOutput |= processSlice(plan, store);
        ++timeIndex;
    }
    return hasReachedOutput;
}

template <class T>
bool ConvLayer<T>::processTimeSlice(int inputChannelCount) {
    const SliceAxes ring = getSliceAxes(history);
    const Plan plan = planFor(ring.frequencies, inputChannelCount, ring.channels);
    if (timeIndex >= timeOffset) {
        requireComputable(plan);
        if (hasTerms() && plan.outputFrequencies >= 1) {
            require(history.hasElements(), "convolution: nothing is in the ring");
            requireRing(history, historyLength, ring);
        }
    }
    return processSlice(plan, {});
}

// Sends the slice that is due at timeIndex, if one is. The newest slice of the ring stands there already or
// is stored on the way: a kernel that takes it does so as far as it has come with its rows.
template <class T>
bool ConvLayer<T>::processSlice(const Plan& plan, const kernels::SliceToStore& store) {
    if (timeIndex < timeOffset || (timeIndex - timeOffset) % timeStride != 0) {
        if (store.from) vo::copy(store.from, store.to, plan.getSliceLength());
        BaseLayer<T>::triggerForward();
        return false;
    }
    output.ensureShape({1, plan.outputFrequencies, outputChannels});
    output.ensureUniqueForOverwrite();
    convolve(plan, store);
    return this->forward(output);
}

template <class T>
void ConvLayer<T>::convolve(const Plan& plan, const kernels::SliceToStore& store) {
    const T* first = bias.hasElements() ? bias.getReadPointer() : nullptr;
    T* out = output.getWritePointer();
    kernels::Convolution shape = {0,
                                  kernelFrequency,
                                  inputChannels,
                                  outputChannels,
                                  plan.frequencies,
                                  plan.outputFrequencies,
                                  frequencyStride,
                                  -((std::ptrdiff_t{kernelFrequency} - frequencyStride) / 2)};
    const bool isPlain =
        !hasTerms() || plan.outputFrequencies < 1 || (inputChannels != plan.channels && !plan.isChannelWise);
    if (isPlain && store.from) vo::copy(store.from, store.to, plan.getSliceLength());
    if (!hasTerms() || plan.outputFrequencies < 1)
        return kernels::plain::convolve(shape, nullptr, 0, nullptr, first, 0, out);

    shape.numOfSlices = kernelTime;
    rows.resize(static_cast<std::size_t>(kernelTime));
    collectSlots(history, timeIndex, timeDilation, rows);
    const T* kernel = weights.getReadPointer();
    if (isPlain) return kernels::plain::convolve(shape, rows.data(), plan.channels, kernel, first, 0, out);
    if (plan.isChannelWise)
        return kernels::convolveChannels(shape, rows.data(), kernel, first, 0, out, store);
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

template <class T>
void ConvLayer<T>::describe(LayerReport& report) const {
    const SliceShape in = report.inputs.front();
    const bool isChannelWise = inputChannels == 1 && in.channels != 1;
    const double framesPerSlice = report.slicesPerFrame > 0.0 ? 1.0 / report.slicesPerFrame : 0.0;
    report.kind = "convolution";
    describeKernel(*this, isChannelWise, report);
    report.output = {frequencyStride > 0 ? in.frequencies / frequencyStride : 0, outputChannels};
    report.slicesPerFrame /= std::max(timeStride, 1);
    const double terms =
        static_cast<double>(kernelTime) * kernelFrequency * (isChannelWise ? 1 : inputChannels);
    report.multiplyAddsPerFrame =
        terms * static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
    report.triggers = timeStride != 1 || timeOffset > 0;
    report.stops = timeStride < 1 || frequencyStride < 1;
    const bool isPlain = !isChannelWise && inputChannels != in.channels;
    report.priceOutputs(isPlain ? 1 : outputChannels);
    report.latency = static_cast<std::int64_t>(timeOffset * framesPerSlice);
    const SliceShape ringSlice = {in.frequencies, isChannelWise ? outputChannels : in.channels};
    report.keepSlices(historyLength, ringSlice);

    if (historyLength < 1)
        report.addError("timeDilation", std::to_string(timeDilation),
                        "the rows of the kernel lead into the future");
    if (!isKernelSound(*this, report) || in.channels < 1) return;
    if (isChannelWise && outputChannels % in.channels != 0)
        report.addError("weights", toText(weights.shape),
                        "a kernel for " + std::to_string(outputChannels) + " channels meets " +
                            std::to_string(in.channels) + ", which is no divisor of it");
    if (!isChannelWise && inputChannels != in.channels)
        report.addMismatch(inputChannels > in.channels, "weights", toText(weights.shape),
                           "the kernel takes " + std::to_string(inputChannels) + " channels and gets " +
                               std::to_string(in.channels));
    if (in.frequencies > 0 && report.output.frequencies == 0)
        report.addError("frequencyStride", std::to_string(frequencyStride),
                        "larger than the band of " + std::to_string(in.frequencies) + " frequencies");
}

template class ConvLayer<float>;

}  // namespace zevrant
