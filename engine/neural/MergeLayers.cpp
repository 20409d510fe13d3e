#include "neural/MergeLayers.h"

#include <algorithm>
#include <string>
#include <utility>

#include "DspCore/VectorOperations.h"
#include "neural/LayerReport.h"

namespace zevrant {

namespace {

template <class T>
int widthOf(const Tensor<T>& input) {
    return getSliceAxes(input).channels;
}

// Asks the shape and the buffer: a queued slice may sit on a larger buffer with an older slice's values in
// it.
template <class T>
void requireInput(const Tensor<T>& input, std::int64_t numOfElements) {
    require(numOfElements <= std::max(0, input.getNumOfElements()), "merge layer: an input is too short");
    requireElements(input, numOfElements, "merge layer: an input's buffer is shorter than its shape");
}

// out = r combined with x, element by element
void combine(std::int32_t operation, const float* r, const float* x, float* out, int n) {
    switch (operation) {
        case ArithmeticOperationEnum::multiplyInputs:
            return vo::multiply(r, x, out, n);
        case ArithmeticOperationEnum::divideInputs:
            return vo::divide(r, x, out, n);
        case ArithmeticOperationEnum::addInputs:
            return vo::add(r, x, out, n);
        case ArithmeticOperationEnum::subtractInputs:
            return vo::subtract(r, x, out, n);
        default:
            return;
    }
}

bool isKnown(std::int32_t operation) {
    return operation >= ArithmeticOperationEnum::multiplyInputs &&
           operation <= ArithmeticOperationEnum::subtractInputs;
}

}  // namespace

template <class T>
ConcatLayer<T>::ConcatLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version)
    : BaseQueuedLayer<T>(layers, std::move(stream), version, LayerTypeEnum::Concat) {}

template <class T>
bool ConcatLayer<T>::push(const std::vector<Tensor<T>>& inputs, std::vector<BaseLayer<T>*>) {
    return merge(inputs);
}

template <class T>
bool ConcatLayer<T>::merge(const std::vector<Tensor<T>>& inputs) {
    const SliceAxes first = inputs.empty() ? SliceAxes{0, 0, 0} : getSliceAxes(inputs.front());
    const bool hasRows = first.times > 0 && first.frequencies > 0;
    std::int64_t channels = 0;
    for (const Tensor<T>& input : inputs) {
        const int width = widthOf(input);
        channels += width;
        if (!hasRows) continue;
        require(width >= 0, "concat layer: an input has a negative width");
        requireInput(input, std::int64_t{first.frequencies} * width);
    }
    require(channels == static_cast<int>(channels), "concat layer: too many channels");

    output.ensureShape({first.times, first.frequencies, static_cast<int>(channels)});
    output.ensureUniqueForOverwrite();
    if (hasRows) joinRows(inputs, first, static_cast<int>(channels));
    return this->forward(output);
}

template <class T>
void ConcatLayer<T>::joinRows(const std::vector<Tensor<T>>& inputs, const SliceAxes& first, int channels) {
    T* column = output.getWritePointer();
    for (const Tensor<T>& input : inputs) {
        const int width = widthOf(input);
        for (int t = 0; t < first.times; ++t) {
            const T* row = input.getReadPointer();
            T* out = column + std::ptrdiff_t{t} * first.frequencies * channels;
            for (int f = 0; f < first.frequencies; ++f, row += width, out += channels)
                vo::copy(row, out, width);
        }
        column += width;
    }
}

template <class T>
ArithmeticLayer<T>::ArithmeticLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version)
    : BaseQueuedLayer<T>(layers, stream, version, LayerTypeEnum::Arithmetic),
      operation(readNumber<std::int8_t>(*stream, "operation")) {}

template <class T>
bool ArithmeticLayer<T>::push(const std::vector<Tensor<T>>& inputs, std::vector<BaseLayer<T>*>) {
    return merge(inputs);
}

template <class T>
bool ArithmeticLayer<T>::merge(const std::vector<Tensor<T>>& inputs) {
    require(!inputs.empty(), "arithmetic layer: no inputs");
    const Tensor<T>& first = inputs.front();
    const int n = std::max(0, first.getNumOfElements());
    const bool combines = inputs.size() > 1 && isKnown(operation);
    for (const Tensor<T>& input : inputs)
        if (combines || &input == &first) requireInput(input, n);

    // The first operation reads the first input where it stands, which spares a copy of it.
    output.ensureShape(first.shape);
    output.ensureUniqueForOverwrite();
    T* out = output.getWritePointer();
    if (!combines) vo::copy(first.getReadPointer(), out, n);
    for (std::size_t i = 1; combines && i < inputs.size(); ++i)
        combine(operation, i == 1 ? first.getReadPointer() : out, inputs[i].getReadPointer(), out, n);
    return this->forward(output);
}

template <class T>
void ConcatLayer<T>::describe(LayerReport& report) const {
    report.kind = "concat";
    report.output.channels = 0;
    for (const SliceShape& input : report.inputs) {
        report.output.channels += input.channels;
        if (input.frequencies != report.output.frequencies)
            report.addMismatch(
                input.frequencies < report.output.frequencies, "source", report.getSource(input),
                "has " + std::to_string(input.frequencies) + " frequencies and the first has " +
                    std::to_string(report.output.frequencies));
    }
}

template <class T>
void ArithmeticLayer<T>::describe(LayerReport& report) const {
    constexpr const char* kinds[] = {"multiply", "divide", "add", "subtract"};
    report.kind = isKnown(operation) ? kinds[operation] : "first input";
    report.multiplyAddsPerFrame = static_cast<double>(std::ssize(report.inputs) - 1) *
                                  static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
    if (!isKnown(operation))
        return report.addWarning("operation", std::to_string(operation),
                                 "is none of 0 to 3, so the first input passes alone");
    for (const SliceShape& input : report.inputs)
        if (input != report.output)
            report.addMismatch(input.numOfValues() < report.output.numOfValues(), "source",
                               report.getSource(input),
                               "is " + toText(input) + " and the first is " + toText(report.output));
}

template class ConcatLayer<float>;
template class ArithmeticLayer<float>;

}  // namespace zevrant
