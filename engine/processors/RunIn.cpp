#include "processors/RunIn.h"

#include "neural/ModelReport.h"
#include "processors/ZevrantProcessor.h"

namespace zevrant {

namespace {

constexpr double mostSeconds = 1.0;  // for a round

}  // namespace

RunInPlan::RunInPlan(ZevrantProcessor& processor) {
    if (processor.getNeuralModels().size() != 1 || processor.windowSize < 1 || processor.hopSize < 1) return;
    const NeuralModel<float>& model = processor.getNeuralModels().front();
    const ModelReport report = describeModel(model);
    const double bins = static_cast<double>(processor.fftSize) * processor.inputFormat.getNumOfChannels();
    const double seconds = estimateSeconds(report.step, bins);
    if (!(seconds <= processor.hopSize / processor.inputFormat.sampleRate)) return;

    double slowest = 1.0;  // slices per frame
    for (const LayerReport& layer : report.layers)
        if (layer.slicesPerFrame > 0.0) slowest = std::min(slowest, layer.slicesPerFrame);
    const double delay = std::max(model.latencyInFrames, 0) + std::max(model.numHistoryFrames, 0);
    framesOfQuiet = static_cast<int>(std::min(8.0 + delay + 2.0 / slowest, 1e4));
    mostFrames = static_cast<int>(std::min(3.0 * framesOfQuiet, mostSeconds / seconds));
    if (!RecyclingPool::keepsBlocks) mostFrames = std::min(mostFrames, 2);
}

}  // namespace zevrant
