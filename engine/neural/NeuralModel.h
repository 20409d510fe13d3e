#pragma once

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "DspCore/Signals.h"
#include "files/Streams.h"
#include "neural/BaseLayer.h"
#include "neural/SpectrumPacking.h"
#include "neural/Tensor.h"

namespace zevrant {

// A streaming network with what it needs to run on spectra: reads a model file, packs a frame into a
// tensor, pushes it through the layer graph and unpacks what comes out.
//
// A copy is a second handle on the same network: it shares all layers and their state, so two copies are
// not run at the same time. Models that are loaded on their own share nothing.
//
// Memory   After the first frames process() asks the system for no memory where the results go into a
//          vector that the caller keeps.
// Threads  One at a time; no locks.
template <class T>
class NeuralModel {
  public:
    // A graph that connects "input" to "output". It moves tensors, but has no frames before a load.
    NeuralModel();
    NeuralModel(const NeuralModel& other) = default;
    NeuralModel& operator=(const NeuralModel& other) = default;
    virtual ~NeuralModel();

    // Reads a model, as ModelLoader.h tells; the form there says why one is refused. False for a file that
    // cannot be opened too. After false or an exception the model is not to be used.
    bool loadModel(const File& file);
    bool loadModel(std::shared_ptr<InputStream> stream);

    // One frame in, zero or more frames out, in order of time and with as many bins as came in. None come
    // out while the network fills its delay or its stride holds them back. The frame has at least the
    // channels that the packing takes, and is shared, not copied.
    // Errors   std::runtime_error "Unknown packing format" for packing 5; std::logic_error for a model
    //          without frames in its history; what the file's numbers make impossible, as told there.
    std::vector<ComplexSignal32> process(const ComplexSignal32& frame);
    void process(const ComplexSignal32& frame, std::vector<ComplexSignal32>& results);

    // Back to the state after the load.
    void reset();

    // As after the load to the last field, as BaseLayer::startOver() tells it of the layers.
    void startOver();

    // The first part of reset(), which makes a loaded model ready for its first frame.
    void clearFrameHistory();

    // [1, tensorFrequencies, C], with C as SpectrumPacking tells for inputPacking. Every signal fills the
    // same elements, so the last one stands. A default tensor for no signals.
    Tensor<T> signalsToTensor(const std::vector<ComplexSignal32>& signals);

    // One signal of numOfSamples bins per time slice of the tensor, none for a tensor without elements.
    // Slices lie tensorFrequencies rows apart, whatever shape[1] says. Throws std::out_of_range where that
    // leads past the tensor.
    std::vector<ComplexSignal32> tensorToSignals(const Tensor<T>& tensor, int numOfSamples);

    LayerMap layers;
    std::shared_ptr<InputLayer<T>> inputLayer;    // "input"
    std::shared_ptr<OutputLayer<T>> outputLayer;  // "output"
    std::string modelName;
    int latencyMilliseconds = 0;
    std::string modelInfoText;
    double sampleRate = 0.0;  // hertz
    int numOfInputChannels = 0;
    int inputPacking = 0;
    int numOfOutputChannels = 0;
    int outputPacking = 0;
    int numOfOutputBusses = 0;  // those that the model fills
    std::list<std::string> outputBusNames;
    int processingMode = 0;
    int fftSize = 0;
    int windowSize = 0;
    int hopSize = 0;
    int numBins = 0;       // bins that the network sees
    int numFineBins = 0;   // the lowest of these, kept in detail
    int binGroupSize = 1;  // bins per row above the fine ones, packing 6
    int latencyInFrames = 0;
    bool maskExtrapolationEnabled = true;
    int numHistoryFrames = 1;
    std::list<ComplexSignal32> frameHistory;  // the latest frames, oldest first
    int tensorFrequencies = 0;                // rows of the input tensor

  private:
    BinLayout getBinLayout(int packing) const;
    template <class Signals>
    void packSignals(const Signals& signals, Tensor<T>& tensor) const;
    void unpackTensor(const Tensor<T>& tensor, int numOfSamples, std::vector<ComplexSignal32>& signals) const;

    Tensor<T> inputTensor;   // of the frame that is on its way
    Tensor<T> outputTensor;  // what it led to
};

extern template class NeuralModel<float>;

}  // namespace zevrant
