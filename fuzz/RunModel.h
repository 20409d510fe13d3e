#pragma once

#include <cstdint>
#include <span>

namespace zevrant::fuzz {

// Loads a model from memory, describes it, and runs two frames with a reset in between, where the budget of
// an execution has room for them. A refusal has a reason, and a model that stops at a frame has an error
// among its findings. Returns whether it loaded.
bool runModel(std::span<const std::uint8_t> bytes);

}  // namespace zevrant::fuzz
