#include "neural/LayerReport.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace zevrant {

namespace {

std::int64_t countValues(const Tensor<float>& tensor) {
    std::int64_t count = tensor.shape.empty() ? 0 : 1;
    for (const int size : tensor.shape) count = multiplyLimited(count, std::max(size, 0));
    return count;
}

}  // namespace

std::int64_t multiplyLimited(std::int64_t a, std::int64_t b) {
    constexpr double limit = 9.2e18;
    const double product = static_cast<double>(a) * static_cast<double>(b);
    if (product >= limit) return std::numeric_limits<std::int64_t>::max();
    if (product <= -limit) return std::numeric_limits<std::int64_t>::min();
    return a * b;
}

std::string toText(const SliceShape& shape) {
    return std::to_string(shape.frequencies) + " x " + std::to_string(shape.channels);
}

std::string toText(const std::vector<int>& shape) {
    std::string text;
    for (const int size : shape) text += (text.empty() ? "" : ", ") + std::to_string(size);
    return "[" + text + "]";
}

std::string LayerReport::getSource(const SliceShape& input) const {
    return "\"" + sources.at(static_cast<std::size_t>(&input - inputs.data())) + "\"";
}

void LayerReport::addDetail(const std::string& text) {
    details += (details.empty() ? "" : ", ") + text;
}

void LayerReport::addWeights(const std::string& field, const Tensor<float>& tensor) {
    numOfParameters += countValues(tensor);
    weights.push_back({field, tensor});
}

void LayerReport::priceOutputs(std::int64_t numOfOutputs) {
    constexpr std::int64_t widest = 16;
    priceOfMultiplyAdd =
        static_cast<double>(widest) / static_cast<double>(std::clamp<std::int64_t>(numOfOutputs, 1, widest));
}

void LayerReport::keepSlices(std::int64_t numOfSlices, const SliceShape& slice) {
    numOfStateBytes = multiplyLimited(multiplyLimited(numOfSlices, slice.numOfValues()), sizeof(float));
    if (numOfStateBytes > std::numeric_limits<std::int32_t>::max())
        addError("", "",
                 "keeps " + std::to_string(numOfSlices) + " slices of " + toText(slice) +
                     ", which is more than 2 GiB");
}

void LayerReport::addError(const std::string& field, const std::string& value, const std::string& problem,
                           const std::string& remedy) {
    findings.push_back({Finding::Error, name, field, value, problem, remedy});
}

void LayerReport::addWarning(const std::string& field, const std::string& value, const std::string& problem,
                             const std::string& remedy) {
    findings.push_back({Finding::Warning, name, field, value, problem, remedy});
}

void LayerReport::addMismatch(bool isFatal, const std::string& field, const std::string& value,
                              const std::string& problem) {
    stops |= isFatal;
    findings.push_back({isFatal ? Finding::Error : Finding::Warning, name, field, value, problem});
}

void LayerReport::expectValues(const std::string& field, const Tensor<float>& tensor,
                               std::int64_t numOfValues, const std::string& reader) {
    const std::int64_t count = tensor.data ? tensor.data->size : 0;
    const std::string problem =
        reader + " reads " + std::to_string(numOfValues) + " values and there are " + std::to_string(count);
    if (count != numOfValues) addMismatch(count < numOfValues, field, toText(tensor.shape), problem);
}

void LayerReport::expectFinite(const std::string& field, float value) {
    if (!std::isfinite(value)) addError(field, std::to_string(value), "no finite number");
}

}  // namespace zevrant
