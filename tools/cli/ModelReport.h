#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/Model.h"

namespace zevrant::cli {

// The axes of one time slice of a tensor.
struct SliceShape {
    std::int64_t frequencies = 0;
    std::int64_t channels = 0;
    std::int64_t numOfValues() const { return frequencies * channels; }
};

// One layer of a model's graph, with shapes as they follow from the model's input.
struct LayerReport {
    std::string name;
    std::string kind;
    std::string details;               // what the kind leaves open: kernel, strides and so on
    std::vector<std::string> sources;  // in the order of the layer's inputs
    std::vector<SliceShape> inputs;    // of each source
    SliceShape output;
    double slicesPerFrame = 1.0;        // output slices per frame of the model's input
    std::int64_t numOfParameters = 0;   // values in weights and biases
    double multiplyAddsPerFrame = 0.0;  // of weights and levels; pure functions count nothing
    std::int64_t latency = 0;           // frames, as the layer reports it
    std::int64_t numOfStateBytes = 0;   // what it keeps from slice to slice
};

struct ModelReport {
    std::vector<LayerReport> layers;  // sources before their consumers, without the input and the output
    std::vector<std::string> outputSources;
    SliceShape input;
    std::int64_t numOfParameters = 0;
    double multiplyAddsPerFrame = 0.0;
    std::int64_t numOfParameterBytes = 0;
    std::int64_t numOfStateBytes = 0;
};

ModelReport describeModel(const Model& model);

}  // namespace zevrant::cli
