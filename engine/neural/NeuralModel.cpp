#include "neural/NeuralModel.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "DspCore/VectorOperations.h"
#include "neural/ModelLoader.h"

namespace zevrant {

template <class T>
NeuralModel<T>::NeuralModel()
    : inputLayer(std::make_shared<InputLayer<T>>()), outputLayer(std::make_shared<OutputLayer<T>>()) {
    inputLayer->consumers.push_back(outputLayer.get());
    layers["input"] = inputLayer;
    layers["output"] = outputLayer;
}

template <class T>
NeuralModel<T>::~NeuralModel() {
    takeDown(layers);
}

template <class T>
bool NeuralModel<T>::loadModel(const File& file) {
    LoadReport report;
    return zevrant::loadModel(file, *this, report);
}

template <class T>
bool NeuralModel<T>::loadModel(std::shared_ptr<InputStream> stream) {
    LoadReport report;
    return zevrant::loadModel(stream, *this, report);
}

template <class T>
std::vector<ComplexSignal32> NeuralModel<T>::process(const ComplexSignal32& frame) {
    std::vector<ComplexSignal32> results;
    process(frame, results);
    return results;
}

template <class T>
void NeuralModel<T>::process(const ComplexSignal32& frame, std::vector<ComplexSignal32>& results) {
    if (frameHistory.empty()) throw std::logic_error("this model keeps no frames: none is loaded");
    frameHistory.splice(frameHistory.end(), frameHistory, frameHistory.begin());
    frameHistory.back() = frame;

    packSignals(frameHistory, inputTensor);
    inputLayer->push(inputTensor, nullptr);
    outputLayer->takeResults(outputTensor);
    unpackTensor(outputTensor, frame.numOfSamples, results);
    outputTensor.dropContent();  // its layer writes the next slice into the same buffer
}

template <class T>
void NeuralModel<T>::reset() {
    for (auto& entry : layers) std::get<std::shared_ptr<BaseLayer<T>>>(entry.second)->reset();
    clearFrameHistory();
}

template <class T>
void NeuralModel<T>::startOver() {
    for (auto& entry : layers) std::get<std::shared_ptr<BaseLayer<T>>>(entry.second)->startOver();
    inputTensor.dropContent();
    outputTensor.dropContent();
    clearFrameHistory();
}

template <class T>
void NeuralModel<T>::clearFrameHistory() {
    const ComplexSignal32 silence(numOfInputChannels, numBins, 0.0f);
    frameHistory.assign(static_cast<std::size_t>(std::max(0, numHistoryFrames)), silence);
}

template <class T>
Tensor<T> NeuralModel<T>::signalsToTensor(const std::vector<ComplexSignal32>& signals) {
    Tensor<T> tensor;
    packSignals(signals, tensor);
    return tensor;
}

template <class T>
std::vector<ComplexSignal32> NeuralModel<T>::tensorToSignals(const Tensor<T>& tensor, int numOfSamples) {
    std::vector<ComplexSignal32> signals;
    unpackTensor(tensor, numOfSamples, signals);
    return signals;
}

template <class T>
BinLayout NeuralModel<T>::getBinLayout(int packing) const {
    return {packing, numBins, numFineBins, binGroupSize, tensorFrequencies};
}

template <class T>
template <class Signals>
void NeuralModel<T>::packSignals(const Signals& signals, Tensor<T>& tensor) const {
    if (signals.empty()) return tensor.dropContent();
    const BinLayout layout = getBinLayout(inputPacking);
    const int numOfSamples = signals.begin()->numOfSamples;
    const std::int64_t numOfColumns = layout.isComplex()
                                          ? std::int64_t{2} * numOfInputChannels
                                          : std::int64_t{numOfInputChannels} * numHistoryFrames;
    require(numOfColumns == static_cast<int>(numOfColumns), "packing: too many columns");
    const bool isFilled = numOfColumns > 0 && tensorFrequencies > 0;
    if (isFilled && !layout.isKnown() && numOfSamples > 0) throw std::runtime_error("Unknown packing format");

    tensor.ensureShape({1, tensorFrequencies, static_cast<int>(numOfColumns)});
    tensor.ensureUniqueForOverwrite();
    if (!isFilled) return;
    if (!layout.isKnown()) return tensor.setToZero();
    for (const ComplexSignal32& signal : signals)
        packSpectrum(layout, signal, numOfSamples, static_cast<int>(numOfColumns), tensor.getWritePointer());
}

template <class T>
void NeuralModel<T>::unpackTensor(const Tensor<T>& tensor, int numOfSamples,
                                  std::vector<ComplexSignal32>& signals) const {
    signals.clear();
    if (!tensor.hasElements()) return;
    const BinLayout layout = getBinLayout(outputPacking);
    const SliceAxes axes = getSliceAxes(tensor);
    const int numOfChannels = axes.channels / layout.getColumnsPerChannel();
    if (axes.times <= 0) return;

    if (numOfChannels > 0 && std::min(numOfSamples, numBins) > 0) {
        if (!layout.isKnown()) throw std::runtime_error("Unknown packing format");
        const std::int64_t endOfRows =
            std::int64_t{axes.times - 1} * tensorFrequencies + layout.countRowsRead(numOfSamples);
        const std::int64_t numOfRows = tensor.getNumOfElements() / axes.channels;
        const bool runsBackwards = axes.times > 1 && tensorFrequencies < 0;
        if (runsBackwards || endOfRows > numOfRows || !tensor.data)
            throw std::out_of_range("unpacking: the network's output has too few frequencies");
    }
    const std::ptrdiff_t sliceLength = std::ptrdiff_t{axes.channels} * tensorFrequencies;
    for (int t = 0; t < axes.times; ++t) {
        ComplexSignal32& signal = signals.emplace_back(numOfChannels, numOfSamples);
        for (int c = 0; c < numOfChannels; ++c)
            unpackSpectrum(
                layout, tensor.getReadPointer() + t * sliceLength + c * layout.getColumnsPerChannel(),
                axes.channels, maskExtrapolationEnabled, signal.getWriteChannelPtr(c), numOfSamples);
    }
}

template class NeuralModel<float>;

}  // namespace zevrant
