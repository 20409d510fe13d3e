#pragma once

#include <cstddef>
#include <vector>

#include "DspCore/RecyclingPool.h"
#include "neural/LayerReport.h"
#include "neural/NeuralModel.h"
#include "neural/Tensor.h"

// What a model handle points to: a model without audio framing, and the last tensor that it gave.
//
// Memory   The object is made on the heap with all its memory cleared. Blocks come from a pool of its own, so
//          that tensors of a shape that has been pushed before ask the system for nothing.
// Errors   bool results. Exceptions of the model's layers pass through.
// Threads  One at a time. Two states share nothing.
struct ModelState : private zevrant::PoolOwner, public zevrant::NeuralModel<float> {
    ModelState() = default;
    ~ModelState() override { freeIntoPool(); }

    static void* operator new(std::size_t numOfBytes);
    static void operator delete(void* memory);

    using zevrant::NeuralModel<float>::loadModel;
    bool loadModel(const char* path);

    // Pushes a tensor of this shape, row-major, through the model. What comes out replaces the result:
    // an empty tensor while the model holds its results back.
    // Errors: std::length_error for a negative number of dimensions, a negative dimension, 2 GiB and more of
    // elements, and slices that cost the network more than ModelLimits.h allows.
    void addTensor(const float* elements, int numOfDimensions, const int* shape);

    void reset();  // as NeuralModel's, with the blocks of this model

    // Copies the result's shape; false, and nothing written, unless it has numOfDimensions.
    bool getResultShape(int numOfDimensions, int* shape) const;

    // Copies the result's elements; false when there are none.
    bool getResult(float* elements) const;

    zevrant::Tensor<float> result;
    std::vector<int> resultShape;  // empty until there is a result

  private:
    void requireModestSlices(const zevrant::SliceShape& slice);

    zevrant::SliceShape judged;    // the last slices whose cost is known to keep to the limits
    zevrant::Tensor<float> input;  // the last tensor pushed; its buffer is used again once it is free
    std::vector<int> inputShape;
};
