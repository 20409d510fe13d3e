#include "neural/NormLayers.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "DspCore/VectorOperations.h"
#include "kernels/NormKernels.h"
#include "neural/LayerReport.h"

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
        normMode = readNumber<std::int8_t>(*stream, "normMode");
        gain = readTensor<T>(stream, version, "gain");
        offset = readTensor<T>(stream, version, "offset");
    } else {
        offset = readTensor<T>(stream, version, "offset");
        gain = readTensor<T>(stream, version, "gain");
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
      levelWeights(readTensor<T>(stream, version, "levelWeights")),
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
      attackCoefficient(readNumber<float>(*stream, "attackCoefficient")),
      releaseCoefficient(readNumber<float>(*stream, "releaseCoefficient")),
      epsilon(readNumber<float>(*stream, "epsilon")) {}

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
    output.dropContent();
    level = 0.0f;
}

template <class T>
void NormLayer<T>::describe(LayerReport& report) const {
    const std::int64_t channels = report.output.channels;
    report.kind = "norm";
    report.addDetail(normMode == scaleAndShift ? "gain and offset" : "level per bin");
    report.addWeights("gain", gain);
    report.addWeights("offset", offset);
    report.multiplyAddsPerFrame = (normMode == scaleAndShift ? 1.0 : 3.0) *
                                  static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
    if (normMode != scaleAndShift && normMode != rootMeanSquare)
        return report.addError("normMode", std::to_string(normMode),
                               "is neither 0 nor 1, so that nothing is computed and zeros go on");
    report.expectValues("gain", gain, channels, "a row");
    if (normMode == scaleAndShift || offset.hasElements())
        report.expectValues("offset", offset, channels, "a row");
}

template <class T>
void PreNormLayer<T>::describe(LayerReport& report) const {
    report.kind = "level norm";
    report.addDetail(std::to_string(levelCount) + " slices");
    report.addWeights("levelWeights", levelWeights);
    report.multiplyAddsPerFrame =
        2.0 * static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
    report.keepSlices(levelCount, {1, 1});
    if (levelCount < 1)
        report.addError("levelWeights", toText(levelWeights.shape), "no weights for levels");
    else
        report.expectValues("levelWeights", levelWeights, levelCount, "the filter");
}

template <class T>
void ARPreNormLayer<T>::describe(LayerReport& report) const {
    report.kind = "level follower";
    report.numOfParameters = 3;
    report.multiplyAddsPerFrame =
        2.0 * static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
    report.keepSlices(1, {1, 1});
    report.expectFinite("epsilon", epsilon);
    for (const auto& [field, value] :
         {std::pair{"attackCoefficient", attackCoefficient}, {"releaseCoefficient", releaseCoefficient}}) {
        report.expectFinite(field, value);
        if (std::abs(value) >= 1.0f)
            report.addWarning(field, std::to_string(value), "the level never settles", "0 up to below 1");
    }
}

template class NormLayer<float>;
template class PreNormLayer<float>;
template class ARPreNormLayer<float>;

}  // namespace zevrant
