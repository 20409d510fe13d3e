#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "neural/BaseLayer.h"
#include "neural/Tensor.h"

namespace zevrant {

// The layers where branches of the graph meet. Their base collects one time slice per source, so both see
// complete sets of slices; differences in delay between the branches wait in the queues.
//
// Memory   Only the queues of the base; output is overwritten by every push.
// Threads  Only the one that runs the model; no locks.

// Joins its inputs along the channel axis, in the order of the sources.
//
//   out[t][f][offset + c] = in[0][f][c], offset being the width of the inputs before it
//
// Shapes   in [1, F, w] each, out [T, F, sum of w], T and F being those of the first input. An input with an
//          empty shape has width 0. Every t reads from the start of the input, on purpose: sets have T = 1.
// Errors   An input with fewer than F * w values, or a negative width, throws std::invalid_argument.
template <class T>
class ConcatLayer : public BaseQueuedLayer<T> {
  public:
    ConcatLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    using BaseQueuedLayer<T>::push;
    bool push(const std::vector<Tensor<T>>& inputs, std::vector<BaseLayer<T>*> sources) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(this->slice, output); }

    Tensor<T> output;

  protected:
    bool merge(const std::vector<Tensor<T>>& inputs) override;

  private:
    void joinRows(const std::vector<Tensor<T>>& inputs, const SliceAxes& first, int channels);
};

namespace ArithmeticOperationEnum {
enum ArithmeticOperation : std::int32_t {
    multiplyInputs = 0,  // r * x
    divideInputs = 1,    // x / r: the accumulator is the divisor
    addInputs = 2,       // r + x
    subtractInputs = 3,  // x - r: the accumulator is the subtrahend
};
}
using ArithmeticOperationEnum::ArithmeticOperation;

// Combines its inputs element by element: r starts as the first input and takes each further input x in turn.
// With inputs a, b, c the quotient is c / (b / a) and the difference c - (b - a), on purpose. A code outside
// the table leaves r as it is, so the first input passes through.
//
// Shapes   out like the first input; the others need as many values, and their shapes are not looked at.
// Errors   A set without inputs, or with one of fewer values than the first, throws std::invalid_argument.
template <class T>
class ArithmeticLayer : public BaseQueuedLayer<T> {
  public:
    // Record behind the list of sources: operation as int8.
    ArithmeticLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    using BaseQueuedLayer<T>::push;
    bool push(const std::vector<Tensor<T>>& inputs, std::vector<BaseLayer<T>*> sources) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(this->slice, output); }

    std::int32_t operation = 0;  // ArithmeticOperation, or any other code
    Tensor<T> output;

  protected:
    bool merge(const std::vector<Tensor<T>>& inputs) override;
};

}  // namespace zevrant
