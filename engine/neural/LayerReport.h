#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "neural/Finding.h"
#include "neural/Tensor.h"

namespace zevrant {

// The product, or the end of the range that it lies behind: numbers from a file may be anything.
std::int64_t multiplyLimited(std::int64_t a, std::int64_t b);

// One time slice of a tensor.
struct SliceShape {
    std::int64_t frequencies = 0;
    std::int64_t channels = 0;

    std::int64_t numOfValues() const { return multiplyLimited(frequencies, channels); }
    bool operator==(const SliceShape&) const = default;
};

// "257 x 2"
std::string toText(const SliceShape& shape);

// What one layer is, does and costs where it stands in its graph. A walk through the graph fills in names and
// inputs and asks BaseLayer::describe() for the rest.
struct LayerReport {
    std::string name;
    std::vector<std::string> sources;  // in the order of the layer's inputs
    std::vector<SliceShape> inputs;    // of each source, at least one when a layer is asked

    std::string kind;
    std::string details;  // what the kind leaves open: kernel, strides and so on
    SliceShape output;
    double slicesPerFrame = 1.0;  // output slices per frame of the model's input; those of the inputs before
    std::int64_t numOfParameters = 0;   // values in weights and biases
    double multiplyAddsPerFrame = 0.0;  // of weights and levels; pure functions count nothing
    double priceOfMultiplyAdd = 1.0;    // in those of a wide product, which fill their vectors
    bool triggers = false;              // the layer calls triggerForward() of its own accord
    bool stops = false;                 // no slice of these inputs gets through: the layer throws
    std::int64_t latency = 0;           // frames, as the layer reports it
    std::int64_t numOfStateBytes = 0;   // what it keeps from slice to slice
    std::vector<Finding> findings;      // for these inputs

    struct Weights {
        std::string field;
        Tensor<float> tensor;  // shared with the layer
    };
    std::vector<Weights> weights;

    // For layers that describe themselves.

    // The name of the source that one of the inputs belongs to, in quotes.
    std::string getSource(const SliceShape& input) const;

    void addDetail(const std::string& text);

    // Counts parameters, and offers them to whoever looks at their values.
    void addWeights(const std::string& field, const Tensor<float>& tensor);

    // Multiply-adds for so many outputs side by side cost as much as for a whole vector of them.
    void priceOutputs(std::int64_t numOfOutputs);

    // State of so many slices of this shape.
    void keepSlices(std::int64_t numOfSlices, const SliceShape& slice);

    void addError(const std::string& field, const std::string& value, const std::string& problem,
                  const std::string& remedy = {});
    void addWarning(const std::string& field, const std::string& value, const std::string& problem,
                    const std::string& remedy = {});
    // An error where the layer stops at it, and else a warning.
    void addMismatch(bool isFatal, const std::string& field, const std::string& value,
                     const std::string& problem);

    // Finds a tensor with fewer values than the layer reads, an error, or with more, a warning.
    void expectValues(const std::string& field, const Tensor<float>& tensor, std::int64_t numOfValues,
                      const std::string& reader);
    void expectFinite(const std::string& field, float value);
};

// "[3, 3, 2]"
std::string toText(const std::vector<int>& shape);

}  // namespace zevrant
