#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "ModelFile.h"

namespace zevrant::fuzz {

// Bends one model file into another that is still mostly one: numbers go to their edges, layers come, go,
// change places and sources, and some bytes change at random. What is no model is bent at random.
Bytes mutateModel(std::span<const std::uint8_t> bytes, std::size_t maxSize, unsigned seed);

// Some layers of the second model in the midst of the first, or the first where either is no model.
Bytes crossModels(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second, unsigned seed);

// The bodies of libFuzzer's own functions, for inputs that are a model behind numOfChoices bytes of choices.
std::size_t mutateInput(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed,
                        std::size_t numOfChoices);
std::size_t crossInputs(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second,
                        std::span<std::uint8_t> out, unsigned seed, std::size_t numOfChoices);

}  // namespace zevrant::fuzz

// Makes libFuzzer use them.
#define ZEVRANT_MUTATES_MODELS(numOfChoices)                                                              \
    extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,                  \
                                                   std::size_t maxSize, unsigned seed) {                  \
        return zevrant::fuzz::mutateInput(data, size, maxSize, seed, numOfChoices);                       \
    }                                                                                                     \
    extern "C" std::size_t LLVMFuzzerCustomCrossOver(                                                     \
        const std::uint8_t* first, std::size_t firstSize, const std::uint8_t* second,                     \
        std::size_t secondSize, std::uint8_t* out, std::size_t maxSize, unsigned seed) {                  \
        return zevrant::fuzz::crossInputs({first, firstSize}, {second, secondSize}, {out, maxSize}, seed, \
                                          numOfChoices);                                                  \
    }
