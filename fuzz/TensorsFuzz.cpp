// A model file, and tensors of any shape pushed through it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Choices.h"
#include "Execution.h"
#include "Inputs.h"
#include "ModelMutator.h"
#include "PushTensors.h"

ZEVRANT_MUTATES_MODELS(zevrant::fuzz::numOfTensorChoices)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zevrant::fuzz;
    const Execution execution;
    const std::size_t numOfChoices = std::min(size, numOfTensorChoices);
    std::vector<float> results;
    pushTensors({data, numOfChoices}, {data + numOfChoices, size - numOfChoices}, results);
    return 0;
}
