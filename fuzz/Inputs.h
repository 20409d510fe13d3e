#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace zevrant::fuzz {

// What the input of a target is made of: bytes that its choices are read from, then a model file.
struct InputKind {
    std::size_t numOfChoices;
    bool hasModel;
};

constexpr std::size_t numOfTensorChoices = 32;
constexpr std::size_t numOfAudioChoices = 96;

inline const std::map<std::string, InputKind> inputKinds = {{"loader", {0, true}},
                                                            {"tensors", {numOfTensorChoices, true}},
                                                            {"audio", {numOfAudioChoices, true}},
                                                            {"differential", {numOfTensorChoices, true}},
                                                            {"shipped", {0, false}},
                                                            {"signals", {0, false}}};

}  // namespace zevrant::fuzz
