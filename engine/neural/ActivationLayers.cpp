#include "neural/ActivationLayers.h"

#include <algorithm>
#include <string>
#include <utility>

#include "DspCore/VectorOperations.h"
#include "kernels/ActivationKernels.h"
#include "neural/LayerReport.h"

namespace zevrant {

namespace {

// Gives a tensor the shape of the input and a buffer of its own, whose contents are still open.
template <class T>
T* prepare(Tensor<T>& tensor, const Tensor<T>& like) {
    tensor.ensureShape(like.shape);
    tensor.ensureUniqueForOverwrite();
    return tensor.getWritePointer();
}

// The kernels work in one pass, so scratch has the shape of the input and no buffer.
template <class T>
void leaveWithoutBuffer(Tensor<T>& scratch, const Tensor<T>& like) {
    scratch.shape = like.shape;
}

template <class T>
int countValues(const Tensor<T>& tensor) {
    const int n = std::max(0, tensor.getNumOfElements());
    requireElements(tensor, n, "activation layer: the input's buffer is shorter than its shape");
    return n;
}

}  // namespace

template <class T>
ReLULayer<T>::ReLULayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int)
    : BaseLayer<T>(layers, std::move(stream), LayerTypeEnum::ReLU) {}

template <class T>
bool ReLULayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const int n = countValues(tensor);
    vo::lowerBound(tensor.getReadPointer(), prepare(output, tensor), 0.0f, n);
    return this->forward(output);
}

template <class T>
void ReLULayer<T>::describe(LayerReport& report) const {
    report.kind = "ReLU";
}

template <class T>
ELULayer<T>::ELULayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int)
    : BaseLayer<T>(layers, std::move(stream), LayerTypeEnum::ELU) {}

template <class T>
bool ELULayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const int n = countValues(tensor);
    leaveWithoutBuffer(scratch, tensor);
    kernels::elu(tensor.getReadPointer(), n, prepare(output, tensor));
    return this->forward(output);
}

template <class T>
void ELULayer<T>::describe(LayerReport& report) const {
    report.kind = "ELU";
}

template <class T>
SigmoidLayer<T>::SigmoidLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int)
    : BaseLayer<T>(layers, std::move(stream), LayerTypeEnum::Sigmoid) {}

template <class T>
bool SigmoidLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const int n = countValues(tensor);
    leaveWithoutBuffer(scratch, tensor);
    kernels::sigmoid(tensor.getReadPointer(), n, prepare(output, tensor));
    return this->forward(output);
}

template <class T>
void SigmoidLayer<T>::describe(LayerReport& report) const {
    report.kind = "sigmoid";
}

template <class T>
LeakyReLULayer<T>::LeakyReLULayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int)
    : BaseLayer<T>(layers, stream, LayerTypeEnum::LeakyReLU), alpha(readNumber<float>(*stream, "alpha")) {}

template <class T>
bool LeakyReLULayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const int n = countValues(tensor);
    leaveWithoutBuffer(scratch, tensor);
    kernels::leakyRelu(tensor.getReadPointer(), alpha, n, prepare(output, tensor));
    return this->forward(output);
}

template <class T>
void LeakyReLULayer<T>::describe(LayerReport& report) const {
    report.kind = "leaky ReLU";
    report.addDetail("slope " + std::to_string(alpha));
    report.expectFinite("alpha", alpha);
}

template <class T>
SoftplusLayer<T>::SoftplusLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int)
    : BaseLayer<T>(layers, std::move(stream), LayerTypeEnum::Softplus) {}

template <class T>
bool SoftplusLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const int n = countValues(tensor);
    kernels::softplus(tensor.getReadPointer(), n, prepare(output, tensor));
    return this->forward(output);
}

template <class T>
void SoftplusLayer<T>::describe(LayerReport& report) const {
    report.kind = "softplus";
}

template <class T>
HardSigmoidLayer<T>::HardSigmoidLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int)
    : BaseLayer<T>(layers, std::move(stream), LayerTypeEnum::HardSigmoid) {}

template <class T>
bool HardSigmoidLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const int n = countValues(tensor);
    leaveWithoutBuffer(scratch, tensor);
    kernels::hardSigmoid(tensor.getReadPointer(), n, prepare(output, tensor));
    return this->forward(output);
}

template <class T>
void HardSigmoidLayer<T>::describe(LayerReport& report) const {
    report.kind = "hard sigmoid";
}

template class ReLULayer<float>;
template class ELULayer<float>;
template class SigmoidLayer<float>;
template class LeakyReLULayer<float>;
template class SoftplusLayer<float>;
template class HardSigmoidLayer<float>;

}  // namespace zevrant
