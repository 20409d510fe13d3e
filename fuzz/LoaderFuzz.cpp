// A model file in memory: load it or refuse it with a reason, describe it, run a frame and be gone.
#include <cstddef>
#include <cstdint>
#include <optional>

#include "Execution.h"
#include "ModelMutator.h"
#include "RunModel.h"

ZEVRANT_MUTATES_MODELS(0)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const zevrant::fuzz::Execution execution;
    zevrant::fuzz::runModel({data, size});
    return 0;
}
