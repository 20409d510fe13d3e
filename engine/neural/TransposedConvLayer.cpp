#include "neural/TransposedConvLayer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "DspCore/VectorOperations.h"
#include "kernels/ChannelKernels.h"
#include "neural/KernelReport.h"

namespace zevrant {

namespace {

// Taps whose output stays in the band, for a tap 0 at output frequency p.
struct Taps {
    Taps(std::ptrdiff_t p, std::ptrdiff_t numOfTaps, std::ptrdiff_t numOfFrequencies)
        : first(std::max<std::ptrdiff_t>(-p, 0)),
          count(std::max<std::ptrdiff_t>(std::min(numOfFrequencies - p, numOfTaps) - first, 0)) {}
    std::ptrdiff_t first, count;
};

}  // namespace

template <class T>
TransposedConvLayer<T>::TransposedConvLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream,
                                            int version)
    : BaseLayer<T>(layers, stream, LayerTypeEnum::TransposedConv),
      weights(readTensor<T>(stream, version, "weights")),
      bias(readTensor<T>(stream, version, "bias")) {
    kernelTime = getAxis(weights, 0);
    kernelFrequency = getAxis(weights, 1);
    kernelOutputs = getAxis(weights, 2);
    inputChannels = getAxis(weights, 3);
    outputChannels = version >= 0x1008 ? readNumber<std::int16_t>(*stream, "outputChannels") : kernelOutputs;
    timeStride = readNumber<std::int8_t>(*stream, "timeStride");
    frequencyStride = readNumber<std::int8_t>(*stream, "frequencyStride");
    timeDilation = readNumber<std::int8_t>(*stream, "timeDilation");
    reservedParameter = readNumber<std::int8_t>(*stream, "reservedParameter");
    timeOffset = readNumber<std::int8_t>(*stream, "timeOffset");
    if (hasTerms() && weights.data && kernelOutputs == outputChannels) packWeights();
}

template <class T>
const kernels::PackedWeights& TransposedConvLayer<T>::packWeights() {
    return packedKernel.get(
        weights, {kernelTime, kernelFrequency, kernelOutputs, inputChannels, frequencyStride},
        [this](const T* kernel) {
            return kernels::packTransposed(kernel, {kernelTime, kernelFrequency, inputChannels, kernelOutputs,
                                                    0, 0, frequencyStride, 0});
        });
}

// Whether the kernel's axes tell of anything to add.
template <class T>
bool TransposedConvLayer<T>::hasTerms() const {
    return kernelTime > 0 && kernelFrequency > 0 && inputChannels > 0 && kernelOutputs > 0;
}

template <class T>
int TransposedConvLayer<T>::getRingLength() const {
    return std::max(timeStride, kernelTime);
}

template <class T>
bool TransposedConvLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const int times = tensor.shape.empty() ? 0 : tensor.shape[0];
    const int frequencies = tensor.shape.empty() ? 0 : tensor.shape.at(1);
    if (times == 1 && tensor.shape.size() == 3 && tensor.shape[2] == inputChannels) {
        inputSlice = tensor;  // a tensor of one slice is that slice, so it is shared and not copied
        return pushTimeSlice(inputSlice);
    }
    inputSlice.ensureShape({1, frequencies, inputChannels});
    inputSlice.ensureUniqueForOverwrite();
    if (times < 1) return false;

    require(frequencies >= 0 && inputChannels >= 0, "transposed convolution: a slice of negative size");
    const int numOfValues = frequencies * inputChannels;
    requireElements(tensor, std::int64_t{times} * numOfValues,
                    "transposed convolution: the tensor is shorter than its slices");
    bool hasReachedOutput = false;
    for (int time = 0; time < times; ++time) {
        vo::copy(tensor.getReadPointer() + std::ptrdiff_t{time} * numOfValues, inputSlice.getWritePointer(),
                 numOfValues);
        hasReachedOutput |= pushTimeSlice(inputSlice);
    }
    return hasReachedOutput;
}

template <class T>
void TransposedConvLayer<T>::requirePossible(const Tensor<T>& slice) const {
    const int frequencies = getAxis(slice, 1);
    require(timeStride > 0 && frequencyStride > 0, "transposed convolution: a stride has to be positive");
    require(frequencies >= 0 && outputChannels >= 0, "transposed convolution: a slice of negative size");
    const std::int64_t outputFrequencies = std::int64_t{frequencyStride} * frequencies;
    require(outputFrequencies <= std::numeric_limits<int>::max(),
            "transposed convolution: the output is too wide");
    const std::array ring = {getRingLength(), static_cast<int>(outputFrequencies), outputChannels};
    Tensor<T>::countElements(ring);
    require(!accumulator.hasElements() || std::equal(ring.begin(), ring.end(), accumulator.shape.begin()),
            "transposed convolution: the slice differs from those in the ring");
    if (frequencies == 0) return;
    if (bias.hasElements())
        requireElements(bias, outputChannels, "transposed convolution: the bias is too short");
    if (kernelTime < 1) return;
    require(weights.shape.size() >= 4, "transposed convolution: the kernel has less than four axes");
    if (!hasTerms()) return;
    requireElements(weights, std::int64_t{kernelTime} * kernelFrequency * kernelOutputs * inputChannels,
                    "transposed convolution: the kernel is shorter than its shape");
    requireElements(slice, std::int64_t{frequencies} * inputChannels,
                    "transposed convolution: the tensor is shorter than its slices");
}

template <class T>
bool TransposedConvLayer<T>::pushTimeSlice(const Tensor<T>& slice) {
    requirePossible(slice);
    openRing(accumulator, getRingLength(), {1, frequencyStride * getAxis(slice, 1), outputChannels});
    const bool isFinished = hasTerms() && getAxis(slice, 1) > 0 && addSlice(slice);
    if (!isFinished) finishSlices();
    timeIndex += timeStride;
    return forwardFromQueue();
}

// Returns whether the slices that are due went on with it: usually that is one, and the kernel sends it on
// its way.
template <class T>
bool TransposedConvLayer<T>::addSlice(const Tensor<T>& slice) {
    const kernels::TransposedConvolution shape = {
        kernelTime,      kernelFrequency,
        inputChannels,   outputChannels,
        slice.shape[1],  accumulator.shape[1],
        frequencyStride, -((std::ptrdiff_t{kernelFrequency} - frequencyStride) / 2)};
    slots.resize(static_cast<std::size_t>(kernelTime));
    for (int r = 0; r < kernelTime; ++r)
        slots[static_cast<std::size_t>(r)] = getSlot(accumulator, timeIndex + r);

    const T* in = slice.getReadPointer();
    const T* kernel = weights.getReadPointer();
    const bool isChannelWise = kernelOutputs == 1 && outputChannels != 1;
    if (isChannelWise && inputChannels == outputChannels) {
        kernels::convolveTransposedChannels(shape, in, kernel, slots.data());
        return false;
    }
    if (kernelOutputs != outputChannels) {
        addAcrossRows(slice, shape.start);
        return false;
    }
    const bool isOneDue = timeStride == 1 && timeIndex >= timeOffset;
    kernels::convolveTransposed(shape, in, packWeights(), slots.data(),
                                isOneDue ? openOutput() : kernels::WholeSlot());
    if (isOneDue) reserve.append(outputQueue, outputSlice);
    return isOneDue;
}

// The rows of the kernel and of the ring do not line up: from the place of its first tap on, an input
// frequency writes one value after the other, over the ends of rows and into the slots behind.
template <class T>
void TransposedConvLayer<T>::addAcrossRows(const Tensor<T>& slice, std::ptrdiff_t start) {
    const std::ptrdiff_t frequencies = slice.shape[1], outputFrequencies = accumulator.shape[1];
    const bool isChannelWise = kernelOutputs == 1 && outputChannels != 1;
    const std::ptrdiff_t valuesPerTap = isChannelWise ? inputChannels : kernelOutputs;
    const T* const end = accumulator.getReadPointer() + accumulator.getNumOfElements();

    const auto forEachRun = [&](const auto& visit) {
        for (int r = 0; r < kernelTime; ++r)
            for (std::ptrdiff_t i = 0; i < frequencies; ++i) {
                const std::ptrdiff_t p = start + i * frequencyStride;
                const Taps taps(p, kernelFrequency, outputFrequencies);
                if (taps.count > 0)
                    visit(i,
                          (std::ptrdiff_t{r} * kernelFrequency + taps.first) * kernelOutputs * inputChannels,
                          getSlot(accumulator, timeIndex + r), (p + taps.first) * outputChannels,
                          taps.count * valuesPerTap);
            }
    };
    forEachRun([&](auto, auto, const T* slot, std::ptrdiff_t position, std::ptrdiff_t count) {
        require(position + count <= end - slot, "transposed convolution: the kernel writes behind the ring");
    });
    forEachRun(
        [&](std::ptrdiff_t i, std::ptrdiff_t first, T* slot, std::ptrdiff_t position, std::ptrdiff_t count) {
            const T* in = slice.getReadPointer() + i * inputChannels;
            const T* w = weights.getReadPointer() + first;
            for (T* out = slot + position; count > 0; --count, ++out) {
                if (isChannelWise) {
                    *out = std::fma(in[(out - slot - position) % inputChannels], *w++, *out);
                    continue;
                }
                T sum = 0;
                for (int c = 0; c < inputChannels; ++c) sum = std::fma(in[c], *w++, sum);
                *out += sum;
            }
        });
}

template <class T>
kernels::WholeSlot TransposedConvLayer<T>::openOutput() {
    outputSlice.ensureShape({1, accumulator.shape[1], outputChannels});
    outputSlice.ensureUniqueForOverwrite();
    return {bias.hasElements() ? bias.getReadPointer() : nullptr, outputSlice.getWritePointer()};
}

// The oldest slices of the ring are whole; those before timeOffset are not sent.
template <class T>
void TransposedConvLayer<T>::finishSlices() {
    const int frequencies = accumulator.shape[1];
    for (std::int64_t time = timeIndex; time < timeIndex + timeStride; ++time) {
        if (time < timeOffset) {
            vo::setToZero(getSlot(accumulator, time), frequencies * outputChannels);
            continue;
        }
        kernels::finishSlot(getSlot(accumulator, time), frequencies, outputChannels, openOutput());
        reserve.append(outputQueue, outputSlice);
    }
}

template <class T>
bool TransposedConvLayer<T>::forwardFromQueue() {
    while (!outputQueue.empty()) {
        const bool hasReachedOutput = this->forward(outputQueue.front());
        reserve.removeFront(outputQueue);
        if (hasReachedOutput) return true;
    }
    return false;
}

template <class T>
void TransposedConvLayer<T>::triggerForward() {
    forwardFromQueue();
    BaseLayer<T>::triggerForward();
}

template <class T>
void TransposedConvLayer<T>::reset() {
    accumulator.setToZero();
    reserve.clear(outputQueue);
    timeIndex = 0;
}

template <class T>
int TransposedConvLayer<T>::measureLatency(int timeScale) {
    require(timeStride != 0, "transposed convolution: a stride has to be positive");
    const std::int64_t scale = timeScale;
    return static_cast<int>(scale * timeOffset +
                            this->measureConsumers(static_cast<int>(scale / timeStride)));
}

template <class T>
void TransposedConvLayer<T>::describe(LayerReport& report) const {
    const SliceShape in = report.inputs.front();
    const bool isChannelWise = kernelOutputs == 1 && outputChannels != 1;
    const double framesPerSlice = report.slicesPerFrame > 0.0 ? 1.0 / report.slicesPerFrame : 0.0;
    report.kind = "transposed convolution";
    describeKernel(*this, isChannelWise, report);
    report.output = {in.frequencies * frequencyStride, outputChannels};
    const double terms = static_cast<double>(kernelTime) * kernelFrequency *
                         (isChannelWise ? 1 : inputChannels) * outputChannels;
    report.multiplyAddsPerFrame = terms * static_cast<double>(in.frequencies) * report.slicesPerFrame;
    report.slicesPerFrame *= std::max(timeStride, 0);
    report.stops = timeStride < 1 || frequencyStride < 1;
    report.priceOutputs(kernelOutputs == outputChannels ? kernelOutputs : 1);
    report.latency = static_cast<std::int64_t>(timeOffset * framesPerSlice);
    report.keepSlices(getRingLength(), report.output);

    if (!isKernelSound(*this, report)) return;
    if (inputChannels != in.channels)
        report.addMismatch(inputChannels > in.channels, "weights", toText(weights.shape),
                           "the kernel takes " + std::to_string(inputChannels) + " channels and gets " +
                               std::to_string(in.channels));
    const int numOfWritten = isChannelWise ? inputChannels : kernelOutputs;
    if (numOfWritten != outputChannels)
        report.addError("outputChannels", std::to_string(outputChannels),
                        "the kernel makes " + std::to_string(numOfWritten) +
                            ", so that it writes across the ends of rows");
}

template class TransposedConvLayer<float>;

}  // namespace zevrant
