#include "neural/NormLayers.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "DspCore/VectorOperations.h"
#include "kernels/NormKernels.h"

namespace zevrant {

namespace {

// Keeps the scale of silence finite.
constexpr float silenceGuard = 1e-12f;

constexpr int scaleAndShift = 0, rootMeanSquare = 1;  // values of normMode

}  // namespace

template <class T>
NormLayer<T>::NormLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version)
    : BaseLayer<T>(layers, stream, LayerTypeEnum::Norm) {
    if (version >= 0x100a) {
        normMode = readNumber<std::int8_t>(*stream);
        gain = Tensor<T>(stream, version);
        offset = Tensor<T>(stream, version);
    } else {
        offset = Tensor<T>(stream, version);
        gain = Tensor<T>(stream, version);
    }
}

template <class T>
bool NormLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const SliceAxes axes = requireSlices(tensor);
    const bool computes = normMode == scaleAndShift || normMode == rootMeanSquare;
    const bool shifts = normMode == scaleAndShift || offset.hasElements();
    const bool hasRows = axes.times > 0 && axes.frequencies > 0;
    if (computes && hasRows) {
        requireElements(gain, axes.channels, "norm layer: gain is shorter than a row");
        if (shifts) requireElements(offset, axes.channels, "norm layer: offset is shorter than a row");
    }

    const T* oldBuffer = output.getReadPointer();
    output.ensureShape(tensor.shape);
    if (!computes) {
        // What is forwarded unwritten may be old, but is never another block's leftover.
        if (output.getReadPointer() != oldBuffer) output.setToZero();
    } else if (hasRows) {
        output.ensureUniqueForOverwrite();
        scaleRows(tensor.getReadPointer(), axes.times * axes.frequencies, axes.channels, shifts);
    }
    return this->forward(output);
}

template <class T>
void NormLayer<T>::scaleRows(const T* in, int numOfRows, int channels, bool shifts) {
    const T* factor = gain.getReadPointer();
    const T* shift = shifts ? offset.getReadPointer() : nullptr;
    if (normMode == rootMeanSquare)
        kernels::normaliseRows(in, numOfRows, channels, silenceGuard, factor, shift,
                               output.getWritePointer());
    else
        kernels::scaleRows(in, numOfRows, channels, factor, shift, output.getWritePointer());
}

template <class T>
PreNormLayer<T>::PreNormLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version)
    : BaseLayer<T>(layers, stream, LayerTypeEnum::PreNorm),
      levelWeights(stream, version),
      levelCount(levelWeights.shape.empty() ? 0 : levelWeights.shape[0]) {
    levelHistory = Tensor<T>({levelCount});
    PreNormLayer<T>::reset();
}

template <class T>
bool PreNormLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const SliceAxes axes = requireSlices(tensor);
    if (axes.times > 0) {
        require(levelCount >= 1, "pre-norm layer: no level weights");
        requireElements(levelWeights, levelCount, "pre-norm layer: fewer weights than their axis tells");
        requireElements(levelHistory, levelCount, "pre-norm layer: the ring is shorter than the weights");
    }
    output.ensureShape(tensor.shape);
    output.ensureUniqueForOverwrite();
    levelHistory.ensureUnique();

    const T* in = tensor.getReadPointer();
    T* out = output.getWritePointer();
    for (int t = 0; t < axes.times; ++t) {
        const int sliceLength = axes.frequencies * axes.channels;
        const T level = followLevels(vo::calcRms(in, sliceLength));
        vo::constantMultiply(in, 1.0f / (level + silenceGuard), out, sliceLength);
        in += sliceLength;
        out += sliceLength;
    }
    return this->forward(output);
}

// The weights meet the ring from its newest entry on: first up to the ring's end, then from its start.
template <class T>
T PreNormLayer<T>::followLevels(T newest) {
    const int i = sliceCount % levelCount;
    T* ring = levelHistory.getWritePointer();
    if (sliceCount == 0)
        vo::setToValue(newest, ring, levelCount);
    else
        ring[i] = newest;
    const T a = vo::dotProduct(levelWeights.getReadPointer(), ring + i, levelCount - i);
    const T b = vo::dotProduct(levelWeights.getReadPointer() + (levelCount - i), ring, i);
    sliceCount = countSlice(sliceCount, levelCount);
    return b + a;
}

template <class T>
void PreNormLayer<T>::reset() {
    sliceCount = 0;
    levelHistory.setToZero();
}

template <class T>
ARPreNormLayer<T>::ARPreNormLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int)
    : BaseLayer<T>(layers, stream, LayerTypeEnum::ARPreNorm),
      attackCoefficient(readNumber<float>(*stream)),
      releaseCoefficient(readNumber<float>(*stream)),
      epsilon(readNumber<float>(*stream)) {}

template <class T>
bool ARPreNormLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const SliceAxes axes = requireSlices(tensor);
    output.ensureShape(tensor.shape);
    output.ensureUniqueForOverwrite();

    const T* in = tensor.getReadPointer();
    T* out = output.getWritePointer();
    for (int t = 0; t < axes.times; ++t) {
        const int sliceLength = axes.frequencies * axes.channels;
        const float m = vo::calcRms(in, sliceLength) * levelScale;
        const float c = m > level ? attackCoefficient : releaseCoefficient;
        level = (1.0f - c) * m + level * c;
        vo::constantMultiply(in, 1.0f / (level + epsilon), out, sliceLength);
        in += sliceLength;
        out += sliceLength;
    }
    return this->forward(output);
}

template <class T>
void ARPreNormLayer<T>::reset() {
    output = Tensor<T>();
    level = 0.0f;
}

template class NormLayer<float>;
template class PreNormLayer<float>;
template class ARPreNormLayer<float>;

}  // namespace zevrant
