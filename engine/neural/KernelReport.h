#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

#include "neural/LayerReport.h"

namespace zevrant {

// What convolutions and transposed convolutions say alike of their kernels.

template <class AnyConv>
void describeKernel(const AnyConv& layer, bool isChannelWise, LayerReport& report) {
    const auto by = [](std::int64_t a, std::int64_t b) {
        return std::to_string(a) + " x " + std::to_string(b);
    };
    report.addDetail("kernel " + by(layer.kernelTime, layer.kernelFrequency) + " (time x frequency)");
    if (isChannelWise) report.addDetail("channel by channel");
    if (layer.timeStride != 1 || layer.frequencyStride != 1)
        report.addDetail("stride " + by(layer.timeStride, layer.frequencyStride));
    if (layer.timeDilation != 1) report.addDetail("dilation " + std::to_string(layer.timeDilation));
    if (layer.timeOffset != 0) report.addDetail("offset " + std::to_string(layer.timeOffset));
    report.addWeights("weights", layer.weights);
    report.addWeights("bias", layer.bias);
}

// Finds what no input could work with; false where it makes no sense to look at the input.
template <class AnyConv>
bool isKernelSound(const AnyConv& layer, LayerReport& report) {
    const auto firstFinding = std::ssize(report.findings);
    for (const auto& [field, stride] :
         {std::pair{"timeStride", layer.timeStride}, {"frequencyStride", layer.frequencyStride}})
        if (stride < 1)
            report.addError(field, std::to_string(stride), "a stride has to be positive", "1 keeps the rate");
    if (layer.timeOffset < 0)
        report.addWarning("timeOffset", std::to_string(layer.timeOffset), "takes away from the latency");
    const auto& shape = layer.weights.shape;
    const bool isEmpty = std::find(shape.begin(), shape.end(), 0) != shape.end();
    if (shape.size() != 4)
        report.addError("weights", toText(shape),
                        "has rank " + std::to_string(shape.size()) + ", a kernel has 4 axes");
    else if (layer.outputChannels < 1)
        report.addError("outputChannels", std::to_string(layer.outputChannels), "needs 1 or more");
    else if (isEmpty || !layer.weights.data)
        report.addError("weights", toText(shape), "a kernel without values, which leaves the bias alone");
    if (layer.bias.hasElements())
        report.expectValues("bias", layer.bias, std::max(layer.outputChannels, 0), "the layer");
    return std::none_of(report.findings.begin() + firstFinding, report.findings.end(),
                        [](const Finding& finding) { return finding.severity == Finding::Error; });
}

}  // namespace zevrant
