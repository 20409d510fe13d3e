#pragma once

#include <memory>

#include "neural/BaseLayer.h"
#include "neural/Tensor.h"

namespace zevrant {

// The element-wise non-linearities. Each has one source, keeps nothing between pushes, adds no latency
// and works on whatever shape it is given.
//
// Shapes   in any, out the same; scratch has that shape and no elements, since one pass needs none.
// Order    Each value goes through the operations of the formula, each rounded. They run in one pass over the
//          data, which changes no result, because values do not meet each other.
// Memory   output is rewritten by every push, and moves to another buffer when a consumer still holds it.
//          The input is never written.
// Threads  Only the one that runs the model; no locks.
// Errors   A tensor with fewer values than its shape tells throws std::invalid_argument.

// max(x, 0)
template <class T>
class ReLULayer : public BaseLayer<T> {
  public:
    ReLULayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output); }

    Tensor<T> output;
};

// max(x, 0) + (exp(min(x, 0)) - 1)
template <class T>
class ELULayer : public BaseLayer<T> {
  public:
    ELULayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output, scratch); }

    Tensor<T> output;
    Tensor<T> scratch;
};

// exp(y) / (1 + exp(y)) with y = x limited to -10 .. 10, so the result never reaches 0 or 1.
template <class T>
class SigmoidLayer : public BaseLayer<T> {
  public:
    SigmoidLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output, scratch); }

    Tensor<T> output;
    Tensor<T> scratch;
};

// max(x, 0) + alpha * min(x, 0), the product and the sum fused
template <class T>
class LeakyReLULayer : public BaseLayer<T> {
  public:
    // Record behind the source name: alpha as float32.
    LeakyReLULayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output, scratch); }

    float alpha = 0.0f;  // slope for negative inputs
    Tensor<T> output;
    Tensor<T> scratch;
};

// ln(1 + exp(x)), with no shortcut for large x: above about 88 the result is infinite, on purpose.
template <class T>
class SoftplusLayer : public BaseLayer<T> {
  public:
    SoftplusLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output); }

    Tensor<T> output;
};

// x * (1 / 6) + 0.5 limited to 0 .. 1
template <class T>
class HardSigmoidLayer : public BaseLayer<T> {
  public:
    HardSigmoidLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output, scratch); }

    Tensor<T> output;
    Tensor<T> scratch;
};

}  // namespace zevrant
