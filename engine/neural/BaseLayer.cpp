#include "neural/BaseLayer.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>

#include "DspCore/VectorOperations.h"
#include "neural/LayerReport.h"
#include "neural/ModelLimits.h"

namespace zevrant {

namespace {

// One walk of measureLatency() through a graph, from the first call on this thread to its return.
class LatencyWalk {
  public:
    LatencyWalk() : outermost(current ? *current : *this) {
        if (!current) current = this;
    }
    ~LatencyWalk() {
        if (current == this) current = nullptr;
    }
    LatencyWalk(const LatencyWalk&) = delete;
    LatencyWalk& operator=(const LatencyWalk&) = delete;

    // What measure() gives, asked once for a layer and a time scale.
    template <class Measure>
    int ask(const void* layer, int timeScale, const Measure& measure) {
        if (++outermost.numOfQuestions > limits::latencyQuestions)
            throw std::length_error("layer graph: too many time scales on its ways");
        auto& known = outermost.answers[layer];
        if (const auto answer = known.find(timeScale); answer != known.end()) return answer->second;
        return known[timeScale] = measure();
    }

  private:
    inline static thread_local LatencyWalk* current = nullptr;

    LatencyWalk& outermost;
    std::unordered_map<const void*, std::unordered_map<int, int>> answers;
    std::int64_t numOfQuestions = 0;
};

// The text is part of the interface and must not depend on the standard library.
const LayerMap::mapped_type& findLayer(const LayerMap& layers, const std::string& name) {
    const auto entry = layers.find(name);
    if (entry == layers.end()) throw std::out_of_range("map::at:  key not found");
    return entry->second;
}

}  // namespace

template <class T>
BaseLayer<T>::BaseLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, LayerType layerType)
    : BaseLayer(layerType) {  // from here on the destructor takes down what is linked
    attachToSource(layers, *stream);
}

template <class T>
BaseLayer<T>::~BaseLayer() {
    for (BaseLayer<T>* source : attachedSources) {
        source->consumers.remove(this);
        std::erase(source->attachedConsumers, this);
    }
    for (BaseLayer<T>* consumer : attachedConsumers) std::erase(consumer->attachedSources, this);
}

template <class T>
void BaseLayer<T>::disconnect(std::vector<BaseLayer<T>*> layers) {
    std::sort(layers.begin(), layers.end());
    const auto isOneOfThem = [&](BaseLayer<T>* layer) {
        return std::binary_search(layers.begin(), layers.end(), layer);
    };
    std::vector<BaseLayer<T>*> others;
    for (const BaseLayer<T>* layer : layers)
        for (const auto* links : {&layer->attachedSources, &layer->attachedConsumers})
            std::copy_if(links->begin(), links->end(), std::back_inserter(others), std::not_fn(isOneOfThem));
    std::sort(others.begin(), others.end());
    others.erase(std::unique(others.begin(), others.end()), others.end());

    for (BaseLayer<T>* other : others) {
        other->consumers.remove_if(isOneOfThem);
        std::erase_if(other->attachedConsumers, isOneOfThem);
        std::erase_if(other->attachedSources, isOneOfThem);
    }
    for (BaseLayer<T>* layer : layers) {
        layer->attachedSources.clear();
        layer->attachedConsumers.clear();
    }
}

template <class T>
BaseLayer<T>* BaseLayer<T>::attachToSource(const LayerMap& layers, InputStream& stream) {
    const auto& entry = findLayer(layers, readText(stream, "source"));
    BaseLayer<T>* source = std::get<std::shared_ptr<BaseLayer<T>>>(entry).get();
    require(source != nullptr, "layer graph: the source is null");

    depth = std::max(depth, source->depth + 1);
    if (depth > limits::layersOnAPath) throw std::length_error("layer graph: too deep");
    attachedSources.push_back(source);
    source->attachedConsumers.push_back(this);
    source->consumers.push_back(this);
    return source;
}

template <class T>
bool BaseLayer<T>::push(const Tensor<T>&, BaseLayer<T>*) {
    return false;
}

template <class T>
void BaseLayer<T>::reset() {}

template <class T>
int BaseLayer<T>::measureLatency(int timeScale) {
    return measureConsumers(timeScale);
}

template <class T>
void BaseLayer<T>::triggerForward() {
    for (BaseLayer<T>* consumer : consumers) consumer->triggerForward();
}

template <class T>
void BaseLayer<T>::describe(LayerReport& report) const {
    report.kind = "layer of type " + std::to_string(type);
}

template <class T>
void BaseLayer<T>::startOver() {
    reset();
}

template <class T>
bool BaseLayer<T>::forward(const Tensor<T>& output) {
    bool reachedOutput = false;
    for (BaseLayer<T>* consumer : consumers) reachedOutput |= consumer->push(output, this);
    return reachedOutput;
}

template <class T>
int BaseLayer<T>::measureConsumers(int timeScale) {
    LatencyWalk walk;
    int latency = 0;
    for (BaseLayer<T>* consumer : consumers)
        latency = std::max(
            latency, walk.ask(consumer, timeScale, [&] { return consumer->measureLatency(timeScale); }));
    return latency;
}

void takeDown(LayerMap& layers) noexcept {
    try {
        std::vector<BaseLayer<float>*> ending;
        for (const auto& [name, entry] : layers)
            if (const auto* layer = std::get_if<std::shared_ptr<BaseLayer<float>>>(&entry);
                layer && layer->use_count() == 1)
                ending.push_back(layer->get());
        BaseLayer<float>::disconnect(std::move(ending));
    } catch (const std::bad_alloc&) {  // then each takes its own links down
    }
    layers.clear();
}

template <class T>
InputLayer<T>::InputLayer() : budget(std::make_shared<MemoryBudget>(limits::bytes)) {}

template <class T>
bool InputLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const MemoryBudget::Scope scope(budget);
    return this->forward(tensor);
}

template <class T>
OutputLayer<T>::OutputLayer() : BaseLayer<T>(LayerTypeEnum::Output) {}

template <class T>
OutputLayer<T>::OutputLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream)
    : BaseLayer<T>(layers, std::move(stream), LayerTypeEnum::Output) {}

template <class T>
bool OutputLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    reserve.append(results, tensor);
    return true;
}

template <class T>
void OutputLayer<T>::reset() {
    reserve.clear(results);
}

template <class T>
Tensor<T> OutputLayer<T>::getResults() {
    Tensor<T> joined;
    joinResults(joined);
    return joined;
}

template <class T>
void OutputLayer<T>::takeResults(Tensor<T>& joined) {
    const bool isSingleResult = results.size() == 1 && results.front().shape.size() == 3;
    if (!isSingleResult) return joinResults(joined);
    std::swap(joined, results.front());
    reserve.clear(results);
}

template <class T>
void OutputLayer<T>::joinResults(Tensor<T>& joined) {
    if (results.empty()) return joined.dropContent();
    try {
        copyResults(joined);
    } catch (...) {
        reserve.clear(results);
        throw;
    }
    reserve.clear(results);
}

template <class T>
void OutputLayer<T>::copyResults(Tensor<T>& joined) const {
    std::int64_t times = 0;
    std::int64_t numOfElements = 0;
    for (const Tensor<T>& result : results) {
        const int count = std::max(0, result.getNumOfElements());
        requireElements(result, count, "output layer: a result's buffer is shorter than its shape");
        times += result.shape.empty() ? 0 : result.shape[0];
        numOfElements += count;
    }
    const SliceAxes first = getSliceAxes(results.front());
    if (times != static_cast<int>(times)) throw std::length_error("output layer: too many time slices");
    joined.ensureShape({static_cast<int>(times), first.frequencies, first.channels});
    joined.ensureUniqueForOverwrite();
    if (numOfElements > std::max(0, joined.getNumOfElements()))
        throw std::length_error("output layer: the results do not fit into the first one's shape");

    T* destination = joined.getWritePointer();
    for (const Tensor<T>& result : results) {
        const int count = std::max(0, result.getNumOfElements());
        vo::copy(result.getReadPointer(), destination, count);
        destination += count;
    }
    // Smaller slices than the first leave room, which must not show what the memory held before.
    vo::setToZero(destination, static_cast<int>(joined.getNumOfElements() - numOfElements));
}

template <class T>
BaseQueuedLayer<T>::BaseQueuedLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int,
                                    LayerType) {
    const int numOfInputs = readNumber<std::int16_t>(*stream, "number of sources");
    for (int i = 0; i < numOfInputs; ++i) {
        BaseLayer<T>* source = this->attachToSource(layers, *stream);
        queues.push_back({{}, source});
        queueOfSource.emplace(source, &queues.back());
        inputLayers.push_back(source);
    }
}

template <class T>
bool BaseQueuedLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>* sender) {
    const auto entry = queueOfSource.find(sender);
    require(entry != queueOfSource.end(), "queued layer: the sender is not one of its sources");
    InputQueue& queue = *entry->second;

    const SliceAxes axes = getSliceAxes(tensor);
    slice.ensureShape({1, axes.frequencies, axes.channels});
    const int sliceLength = std::max(0, slice.getNumOfElements());
    requireElements(tensor, std::int64_t{axes.times} * sliceLength,
                    "queued layer: a tensor's buffer is shorter than its shape");
    for (int t = 0; t < axes.times; ++t) {
        slice.ensureUniqueForOverwrite();
        if (sliceLength > 0)
            vo::copy(tensor.getReadPointer() + std::ptrdiff_t{t} * sliceLength, slice.getWritePointer(),
                     sliceLength);
        reserve.append(queue.tensors, slice);
    }
    return forwardFromQueue();
}

template <class T>
bool BaseQueuedLayer<T>::forwardFromQueue() {
    require(!queues.empty(), "queued layer: without sources there is nothing to forward");
    if (isAnyQueueEmpty()) return false;
    std::size_t numOfSets = std::numeric_limits<std::size_t>::max();
    for (const InputQueue& queue : queues) numOfSets = std::min(numOfSets, queue.tensors.size());

    inputSet.resize(queues.size());
    bool reachedOutput = false;
    for (std::size_t i = 0; i < numOfSets; ++i) {
        auto input = inputSet.begin();
        for (InputQueue& queue : queues) {
            std::swap(*input++, queue.tensors.front());
            reserve.removeFront(queue.tensors);
        }
        reachedOutput |= merge(inputSet);
        for (Tensor<T>& merged : inputSet) merged.dropContent();
    }
    return reachedOutput;
}

// A queue that was empty the last time is asked first, and those before it are asked only when it has filled:
// so the many queues of a wide layer are looked through once for each set and not for each slice.
template <class T>
bool BaseQueuedLayer<T>::isAnyQueueEmpty() {
    for (std::size_t i = 0; i < queues.size(); ++i, ++firstToLookAt) {
        if (firstToLookAt == queues.end()) firstToLookAt = queues.begin();
        if (firstToLookAt->tensors.empty()) return true;
    }
    return false;
}

template <class T>
void BaseQueuedLayer<T>::reset() {
    for (InputQueue& queue : queues) reserve.clear(queue.tensors);
}

template class BaseLayer<float>;
template class BaseLayer<std::complex<float>>;
template class InputLayer<float>;
template class OutputLayer<float>;
template class BaseQueuedLayer<float>;

}  // namespace zevrant
