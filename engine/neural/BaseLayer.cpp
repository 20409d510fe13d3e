#include "neural/BaseLayer.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include "DspCore/VectorOperations.h"
#include "neural/LayerReport.h"

namespace zevrant {

namespace {

constexpr int mostLayersOnAPath = 4096;
constexpr std::int64_t mostTriggerWays = std::int64_t{1} << 28;

// One walk of measureLatency() through a graph, from the first call on this thread to its return.
class LatencyWalk {
  public:
    LatencyWalk() {
        if (numOfCalls++ == 0) current = ++numOfWalks;
    }
    ~LatencyWalk() { --numOfCalls; }
    LatencyWalk(const LatencyWalk&) = delete;
    LatencyWalk& operator=(const LatencyWalk&) = delete;

    std::int64_t getNumber() const { return current; }

  private:
    inline static std::atomic<std::int64_t> numOfWalks = 0;
    inline static thread_local std::int64_t current = 0;
    inline static thread_local int numOfCalls = 0;
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
    : type(layerType) {
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
BaseLayer<T>* BaseLayer<T>::attachToSource(const LayerMap& layers, InputStream& stream) {
    const auto& entry = findLayer(layers, readText(stream, "source"));
    BaseLayer<T>* source = std::get<std::shared_ptr<BaseLayer<T>>>(entry).get();
    require(source != nullptr, "layer graph: the source is null");

    numOfTriggerWays += source->numOfTriggerWays + (source->triggersConsumers ? 1 : 0);
    depth = std::max(depth, source->depth + 1);
    if (depth > mostLayersOnAPath) throw std::length_error("layer graph: too deep");
    if (numOfTriggerWays > mostTriggerWays)
        throw std::length_error("layer graph: too many ways of a trigger");
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
bool BaseLayer<T>::forward(const Tensor<T>& output) {
    bool reachedOutput = false;
    for (BaseLayer<T>* consumer : consumers) reachedOutput |= consumer->push(output, this);
    return reachedOutput;
}

template <class T>
int BaseLayer<T>::measureConsumers(int timeScale) {
    const LatencyWalk walk;
    int latency = 0;
    for (BaseLayer<T>* consumer : consumers) {
        LatencyAnswer& answer = consumer->latencyAnswer;
        if (answer.walk != walk.getNumber() || answer.timeScale != timeScale) {
            const int measured = consumer->measureLatency(timeScale);
            answer = {walk.getNumber(), timeScale, measured};
        }
        latency = std::max(latency, answer.latency);
    }
    return latency;
}

template <class T>
bool InputLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
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
}

template <class T>
BaseQueuedLayer<T>::BaseQueuedLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int,
                                    LayerType) {
    const int numOfInputs = readNumber<std::int16_t>(*stream, "number of sources");
    for (int i = 0; i < numOfInputs; ++i) {
        BaseLayer<T>* source = this->attachToSource(layers, *stream);
        queues.push_back({{}, source});
        inputLayers.push_back(source);
    }
}

template <class T>
bool BaseQueuedLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>* sender) {
    const auto queue = std::find_if(queues.begin(), queues.end(), [sender](const InputQueue& candidate) {
        return candidate.layer == sender;
    });
    require(queue != queues.end(), "queued layer: the sender is not one of its sources");

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
        reserve.append(queue->tensors, slice);
    }
    return forwardFromQueue();
}

template <class T>
bool BaseQueuedLayer<T>::forwardFromQueue() {
    require(!queues.empty(), "queued layer: without sources there is nothing to forward");
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
