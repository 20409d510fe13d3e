#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "DspCore/MemoryBudget.h"
#include "DspCore/RecyclingPool.h"
#include "neural/RecordStream.h"
#include "neural/Slices.h"
#include "neural/Tensor.h"

namespace zevrant {

// What a model file calls each kind of layer. 0 and 1 never stand in a file.
namespace LayerTypeEnum {
enum LayerType : std::int32_t {
    Input = 0,
    Output = 1,
    Conv = 2,
    TransposedConv = 3,
    ReLU = 4,
    ELU = 5,
    Sigmoid = 6,
    Norm = 7,
    Concat = 9,
    LeakyReLU = 12,
    Dense = 14,
    SeparableChannelConv = 15,
    PreNorm = 16,
    Softplus = 17,
    Arithmetic = 18,
    SelfAttention = 19,
    HardSigmoid = 20,
    FrequencyRescale = 22,
    ARPreNorm = 23
};
}  // namespace LayerTypeEnum
using LayerTypeEnum::LayerType;

struct LayerReport;
template <class T>
class BaseLayer;

// A model's layers by name. The map owns them; the links inside the graph are plain pointers. Only the
// float alternative is ever created.
using LayerMap = std::map<std::string, std::variant<std::shared_ptr<BaseLayer<float>>,
                                                    std::shared_ptr<BaseLayer<std::complex<float>>>>>;

// Root of all layers: a node that is pushed tensors and pushes its own result to its consumers at once.
//
// There is no scheduler: one push on the input layer runs the whole reachable graph depth-first on the
// caller's stack. A layer may swallow a slice or make several of one. A source has to exist before the
// layer that names it, and that keeps the graph free of cycles. A layer that is destroyed leaves the
// graph: it is taken off its sources' lists, so that no link ever points to a dead layer.
//
// Memory   The result that forward() hands out is shared by whoever keeps it, so a layer calls
//          ensureUnique() on its output before it writes again.
// Errors   Attaching throws std::out_of_range "map::at:  key not found" for an unknown source,
//          std::bad_variant_access for one that is not of T, and std::length_error where a graph gets
//          deeper than ModelLimits.h allows. So does measuring a latency with more questions than that.
// Threads  A graph is driven by one thread at a time; no locks.
template <class T>
class BaseLayer {
  public:
    BaseLayer() = default;  // a layer without a source
    explicit BaseLayer(LayerType layerType) : type(layerType) {}

    // Reads the name of the source from the stream and becomes the last of its consumers.
    BaseLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, LayerType layerType);

    virtual ~BaseLayer();
    BaseLayer(const BaseLayer&) = delete;
    BaseLayer& operator=(const BaseLayer&) = delete;

    // Takes a tensor from the sender and returns whether anything reached an output layer by it. The base
    // does nothing and returns false.
    virtual bool push(const Tensor<T>& tensor, BaseLayer<T>* sender);

    // Clears what survives from one push to the next.
    virtual void reset();

    // How many frames of the model's input a signal is delayed from here on, on the slowest path.
    // timeScale is how many input frames one slice stands for at this place. A walk through the graph asks
    // a layer once for each of its time scales, however many ways lead there.
    virtual int measureLatency(int timeScale);

    // Asks layers further on to release what they hold back, without new data.
    virtual void triggerForward();

    // Fills in what the layer knows of itself, for the inputs that the report names: its kind, the shape and
    // the rate of its output, its costs, and what of its record cannot work with these inputs or is ignored.
    // The report holds an output like the first input, which is what a layer gives that overrides nothing.
    virtual void describe(LayerReport& report) const;

    // As the constructor has left it: a reset, and the tensors that pushes fill in are empty again. Their
    // memory goes to the pool and scratch keeps its own, so that the next pushes find both.
    virtual void startOver();

    // The layers that this one has attached itself to and that still exist, in the order of its record.
    const std::vector<BaseLayer<T>*>& getSources() const { return attachedSources; }

    // Takes the links between these layers and all others down, as their destructors would, which then have
    // nothing left to do. One by one, each searches the lists of its neighbours; this goes through them once.
    // std::bad_alloc leaves everything as it was.
    static void disconnect(std::vector<BaseLayer<T>*> layers);

    std::list<BaseLayer<T>*> consumers;  // in the order of the model file
    std::int32_t type = LayerTypeEnum::Input;

  protected:
    // Reads a name, looks the layer up and becomes its last consumer.
    BaseLayer<T>* attachToSource(const LayerMap& layers, InputStream& stream);

    // What startOver() is made of.
    template <class... Tensors>
    void dropAndReset(Tensors&... tensors) {
        (tensors.dropContent(), ...);
        reset();
    }

    // Pushes the output to every consumer in list order; true when one of them returned true.
    bool forward(const Tensor<T>& output);

    // The largest answer of the consumers, at least 0.
    int measureConsumers(int timeScale);

  private:
    // Both ends of the links that attachToSource() made, so that either end can take them down.
    std::vector<BaseLayer<T>*> attachedSources;
    std::vector<BaseLayer<T>*> attachedConsumers;

    int depth = 0;  // layers on the longest way from the input to this one
};

// Empties the map. The layers that end by it leave the graph together, which costs time for each link once
// and not for each pair.
void takeDown(LayerMap& layers) noexcept;

// Where a model's tensors enter; known to all layers as "input". What its graph holds while they run is
// counted, and std::length_error ends a push that takes more than limits::bytes and what the file allows.
template <class T>
class InputLayer : public BaseLayer<T> {
  public:
    InputLayer();
    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;

    const std::shared_ptr<MemoryBudget>& getBudget() const { return budget; }

  private:
    std::shared_ptr<MemoryBudget> budget;
};

// Where tensors leave: keeps what arrives, in order, until it is fetched.
template <class T>
class OutputLayer : public BaseLayer<T> {
  public:
    OutputLayer();
    OutputLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void reset() override;

    // Everything that arrived since the last call, joined along time into a new tensor: [sum of T, F, C]
    // with F and C of the first. A default tensor when nothing arrived. Throws std::length_error when the
    // elements do not fit into that shape; results are gone then, too.
    Tensor<T> getResults();

    // The same into the caller's tensor. A single result is handed over as it is, without a copy, so it
    // may still share its layer's buffer: ensureUnique() before writing to it.
    void takeResults(Tensor<T>& joined);

    std::list<Tensor<T>> results;

  private:
    void joinResults(Tensor<T>& joined);
    void copyResults(Tensor<T>& joined) const;

    ListNodeReserve<Tensor<T>> reserve;
};

// The base of layers with several sources: slices wait until every source has delivered one, and are
// then handed on together, matched by the order of their arrival alone.
//
// Shapes   in [T, F, C] from each source; to the derived layer one [1, F, C] per source, in file order.
// Memory   Queues are unbounded, up to what the whole graph may hold; their nodes and buffers are reused.
// Errors   A sender that is no source, and a tensor whose buffer is shorter than its axes, throw
//          std::invalid_argument.
template <class T>
class BaseQueuedLayer : public BaseLayer<T> {
  public:
    struct InputQueue {
        std::list<Tensor<T>> tensors;  // waiting slices, oldest first
        BaseLayer<T>* layer;           // the source that feeds this queue
    };

    // Reads an int16 count and that many source names.
    BaseQueuedLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version,
                    LayerType layerType);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void reset() override;

    // One slice of each input, in the order of the queues; sources is a copy of inputLayers.
    virtual bool push(const std::vector<Tensor<T>>& inputs, std::vector<BaseLayer<T>*> sources) = 0;

    // Hands complete sets of slices on for as long as no queue is empty.
    bool forwardFromQueue();

    std::vector<BaseLayer<T>*> inputLayers;
    std::list<InputQueue> queues;
    Tensor<T> slice;  // [1, F, C], scratch

  protected:
    // What forwardFromQueue() calls. A layer that does not look at its sources overrides this one too,
    // because the list by value that push() is told to take costs memory in every frame.
    virtual bool merge(const std::vector<Tensor<T>>& inputs) { return push(inputs, inputLayers); }

  private:
    bool isAnyQueueEmpty();

    std::vector<Tensor<T>> inputSet;  // one slice per queue while they are merged
    std::unordered_map<const BaseLayer<T>*, InputQueue*> queueOfSource;  // the first of those of one source
    typename std::list<InputQueue>::iterator firstToLookAt = queues.end();
    ListNodeReserve<Tensor<T>> reserve;
};

extern template class BaseLayer<float>;
extern template class InputLayer<float>;
extern template class OutputLayer<float>;
extern template class BaseQueuedLayer<float>;

}  // namespace zevrant
