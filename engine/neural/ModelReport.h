#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "neural/Finding.h"
#include "neural/LayerReport.h"
#include "neural/NeuralModel.h"

namespace zevrant {

// What a loaded model is, does and costs, worked out from its file alone: no frame is run and no memory taken
// for one. Shapes and rates follow from the input, layer by layer.
struct ModelReport {
    std::vector<LayerReport> layers;  // sources before their consumers, those alone that slices come to
    std::vector<std::string> outputSources;
    SliceShape input;
    SliceShape output;                  // of the last source, as it reaches the output
    double outputSlicesPerFrame = 0.0;  // 0 where nothing reaches the output
    std::int64_t numOfParameters = 0;
    double multiplyAddsPerFrame = 0.0;
    std::int64_t numOfParameterBytes = 0;
    std::int64_t numOfStateBytes = 0;

    // Of the header, of the layers in their order, of the graph, of the output. What an error makes of shapes
    // and rates is not held against the layers behind it.
    std::vector<Finding> findings;
};

ModelReport describeModel(const NeuralModel<float>& model);

// The findings of the report, and those about the values of weights, which take a look at each of them.
std::vector<Finding> checkModel(const NeuralModel<float>& model);

}  // namespace zevrant
