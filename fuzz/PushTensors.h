#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace zevrant::fuzz {

// Loads a model and pushes tensors of chosen shapes and values through it, with resets in between; appends
// what comes out, shapes included. False if the model does not load.
bool pushTensors(std::span<const std::uint8_t> choices, std::span<const std::uint8_t> model,
                 std::vector<float>& results);

}  // namespace zevrant::fuzz
