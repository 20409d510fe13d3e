#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "neural/Finding.h"
#include "neural/LayerReport.h"
#include "neural/NeuralModel.h"

namespace zevrant {

// The most that one step, a frame of audio or a slice pushed as a tensor, can cost a network.
struct StepCost {
    double slices = 0.0;    // that all layers take
    double triggers = 0.0;  // calls of triggerForward()
    double work = 0.0;      // multiply-adds of a wide product that take as long
    std::string dearest;    // the layer with most of the work
};

// The time in seconds that such a step takes one core at most, with the transforms of so many bins around it.
double estimateSeconds(const StepCost& step, double numOfBins);

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
    StepCost step;
    std::int64_t numOfParameterBytes = 0;
    std::int64_t numOfStateBytes = 0;

    // Of the header, of the layers in their order, of the graph, of the output. What an error makes of shapes
    // and rates is not held against the layers behind it.
    std::vector<Finding> findings;
};

ModelReport describeModel(const NeuralModel<float>& model);

// The same for slices that are pushed as tensors, whatever the header says.
ModelReport describeModel(const NeuralModel<float>& model, const SliceShape& input);

// The limits of ModelLimits.h, asked before anything is run: those of the graph hold for slices of any shape,
// and the work of a step for the shape that the report was made for. std::length_error where one is exceeded.
void requireModestGraph(const ModelReport& report);
void requireModestWork(const ModelReport& report, double hopSeconds);
void requireModestFrames(const NeuralModel<float>& model);

// The findings of the report, and those about the values of weights, which take a look at each of them.
std::vector<Finding> checkModel(const NeuralModel<float>& model);

}  // namespace zevrant
