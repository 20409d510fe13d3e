// One model and one input on every instruction set of the machine.
//
// Levels are sums over whole rows, whose order follows the width of the vectors; models that measure any give
// results of the same shapes, which differ by rounding and by what the network makes of it. Of all others:
// where multiply-adds are fused all results are the same bit for bit, and where none is they are the same
// among themselves. Not-a-number is any of its bit patterns, and a denormal number is 0: they are flushed in
// arithmetic, and where a value is only chosen, one instruction hands it on and another gives 0.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <variant>
#include <vector>

#include "Execution.h"
#include "Inputs.h"
#include "ModelMutator.h"
#include "PushTensors.h"
#include "neural/MemoryStream.h"
#include "neural/ModelLoader.h"
#include "neural/NeuralModel.h"
#include "simd/TargetOverride.h"

ZEVRANT_MUTATES_MODELS(zevrant::fuzz::numOfTensorChoices)

namespace {

bool measuresLevels(std::span<const std::uint8_t> bytes) {
    using namespace zevrant;
    NeuralModel<float> model;
    LoadReport report;
    const bool isLoaded = fuzz::attempt([&] {
        tryLoadModel(streamOver({bytes.begin(), bytes.end()}), model, report);
    });
    return isLoaded && std::any_of(model.layers.begin(), model.layers.end(), [](const auto& layer) {
               const int type = std::get<std::shared_ptr<BaseLayer<float>>>(layer.second)->type;
               return type == LayerTypeEnum::Norm || type == LayerTypeEnum::PreNorm ||
                      type == LayerTypeEnum::ARPreNorm;
           });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zevrant;
    const std::size_t numOfChoices = std::min(size, fuzz::numOfTensorChoices);
    const std::span<const std::uint8_t> choices(data, numOfChoices),
        model(data + numOfChoices, size - numOfChoices);
    const bool isExact = !measuresLevels(model);
    std::map<bool, std::vector<float>> expected;  // by whether multiply-adds are fused
    for (const simd::Target& target : simd::getUsableTargets()) {
        const simd::ScopedTarget scope(target);
        const fuzz::Execution execution;
        std::vector<float> results;
        if (!fuzz::pushTensors(choices, model, results)) break;
        const bool isFused = target.name.starts_with("AVX") || target.name.starts_with("NEON");
        const auto& others = expected.emplace(isFused, results).first->second;
        const auto flush = [](float x) { return std::abs(x) < FLT_MIN ? 0.0f : x; };
        const auto isSame = [&](float a, float b) {
            return !isExact || flush(a) == flush(b) || (std::isnan(a) && std::isnan(b));
        };
        fuzz::require(std::equal(results.begin(), results.end(), others.begin(), others.end(), isSame),
                      "results are the same on every instruction set");
    }
    return 0;
}
