// One model and one input on every instruction set of the machine.
//
// Where multiply-adds are fused all results are the same bit for bit, and where none is they are the same
// among themselves. Not-a-number is any of its bit patterns.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "Execution.h"
#include "Inputs.h"
#include "ModelMutator.h"
#include "PushTensors.h"
#include "simd/TargetOverride.h"

ZEVRANT_MUTATES_MODELS(zevrant::fuzz::numOfTensorChoices)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zevrant;
    const std::size_t numOfChoices = std::min(size, fuzz::numOfTensorChoices);
    std::map<bool, std::vector<float>> expected;  // by whether multiply-adds are fused
    for (const simd::Target& target : simd::getUsableTargets()) {
        const simd::ScopedTarget scope(target);
        const fuzz::Execution execution;
        std::vector<float> results;
        if (!fuzz::pushTensors({data, numOfChoices}, {data + numOfChoices, size - numOfChoices}, results))
            break;
        const bool isFused = target.name.starts_with("AVX") || target.name.starts_with("NEON");
        const auto& others = expected.emplace(isFused, results).first->second;
        const auto isSame = [](float a, float b) { return a == b || (std::isnan(a) && std::isnan(b)); };
        fuzz::require(std::equal(results.begin(), results.end(), others.begin(), others.end(), isSame),
                      "results are the same on every instruction set");
    }
    return 0;
}
