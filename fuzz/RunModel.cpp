#include "RunModel.h"

#include <algorithm>
#include <new>

#include "Execution.h"
#include "neural/MemoryStream.h"
#include "neural/ModelLoader.h"
#include "neural/ModelReport.h"
#include "neural/NeuralModel.h"

namespace zevrant::fuzz {

bool runModel(std::span<const std::uint8_t> bytes) {
    NeuralModel<float> model;
    LoadReport report;
    bool isLoaded = false;
    if (!attempt([&] { isLoaded = tryLoadModel(streamOver({bytes.begin(), bytes.end()}), model, report); }))
        return false;  // no memory
    require(isLoaded != report.refusal.has_value(), "a refusal has a reason, and only that");
    if (!isLoaded) return false;

    auto findings = checkModel(model);
    findings.insert(findings.end(), report.findings.begin(), report.findings.end());
    const int numOfBins = model.fftSize > 0 ? model.fftSize / 2 + 1 : 17;
    const int numOfChannels = std::max(1, model.numOfInputChannels);
    const StepCost step = describeModel(model).step;
    if (!Budget().take(2.0 * estimateSeconds(step, static_cast<double>(numOfBins) * numOfChannels)))
        return true;
    const bool ran = attempt([&] {
        const ComplexSignal32 frame(numOfChannels, numOfBins, {0.5f, -0.25f});
        model.process(frame);
        model.reset();
        model.process(frame);
    });
    const auto isError = [](const Finding& finding) { return finding.severity == Finding::Error; };
    require(ran || std::any_of(findings.begin(), findings.end(), isError),
            "a model that stops at a frame has been checked to do so");
    return true;
}

}  // namespace zevrant::fuzz
