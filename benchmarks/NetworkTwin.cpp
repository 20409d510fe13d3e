// The network of scripts/whole-networks in this engine, for that script to load: an encoder and a decoder
// over 256 bins of one channel, with gated blocks and a dense layer at the bottom of 16 bins. The weights
// come from the script as one row, in the order in which the layers take them, so that its twin has the same.
#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Interleaved.h"
#include "modelwriter/ModelWriter.h"
#include "neural/MemoryStream.h"
#include "neural/NeuralModel.h"

#define ZEVRANT_TWIN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using namespace zevrant;
using namespace zevrant::modelwriter;

class Twin {
  public:
    Twin(int width, int numOfGates, bool hasElu, bool isHalf, const float* values)
        : next(values), isElu(hasElu), writer("twin") {
        writer.setFrames(512, 512, 128).setPacking(Packing::complexBins(256));
        writer.setTensorStorage(isHalf ? TensorStorage::HalfPrecision : TensorStorage::SinglePrecision);
        const int sizes[] = {2, width, 2 * width, 4 * width, 4 * width};
        std::vector<std::string> skips;
        std::string last = "input";
        for (int i = 0; i < 4; ++i) {
            const std::string name = "down" + std::to_string(i);
            writer.addLayer(name, last,
                            Conv{.weights = take({2, 3, sizes[i], sizes[i + 1]}),
                                 .bias = take({sizes[i + 1]}),
                                 .frequencyStride = 2});
            last = activate(name);
            skips.push_back(last);
        }
        for (int i = 0; i < numOfGates; ++i) last = addGated("gate" + std::to_string(i), last, sizes[4]);
        writer.addLayer("dense", last, Dense{.weights = take({16, 16, sizes[4]})});
        last = "dense";
        for (int i = 3; i >= 0; --i) {
            const std::string name = "up" + std::to_string(i);
            writer.addLayer(name + "_skip", {last, skips[static_cast<std::size_t>(i)]}, Concat{});
            writer.addLayer(name, name + "_skip",
                            TransposedConv{.weights = take({1, 4, sizes[i], 2 * sizes[i + 1]}),
                                           .bias = take({sizes[i]}),
                                           .frequencyStride = 2});
            last = i > 0 ? activate(name) : name;
        }
        writer.addLayer("mask", last, Sigmoid{}).setOutput("mask");
        isLoaded = model.loadModel(streamOver(writer.toBytes()));
    }

    void push(const float* in) {
        slice.ensureUnique();
        std::copy_n(in, 512, slice.getWritePointer());
        model.inputLayer->push(slice, nullptr);
        model.outputLayer->takeResults(result);
    }

    bool isLoaded = false;
    Tensor<float> result;
    std::ptrdiff_t numOfParameters = 0;

  private:
    WeightTensor take(std::vector<int> shape) {
        std::ptrdiff_t count = 1;
        for (int axis : shape) count *= axis;
        WeightTensor tensor{std::move(shape), std::vector<float>(next, next + count)};
        next += count;
        numOfParameters += count;
        return tensor;
    }
    std::string activate(const std::string& name) {
        if (isElu)
            writer.addLayer(name + "_act", name, ELU{});
        else
            writer.addLayer(name + "_act", name, ReLU{});
        return name + "_act";
    }
    std::string addGated(const std::string& name, const std::string& source, int channels) {
        const auto add = [&](const std::string& layer, const std::string& from, int in, int out) {
            writer.addLayer(layer, from, Conv{.weights = take({1, 1, in, out}), .bias = take({out})});
        };
        add(name + "_value", source, channels, 2 * channels);
        add(name + "_gate", source, channels, 2 * channels);
        writer.addLayer(name + "_sigmoid", name + "_gate", Sigmoid{});
        writer.addLayer(name + "_product", {activate(name + "_value"), name + "_sigmoid"},
                        Arithmetic{Arithmetic::Multiply});
        add(name + "_back", name + "_product", 2 * channels, channels);
        writer.addLayer(name + "_sum", {name + "_back", source}, Arithmetic{Arithmetic::Add});
        return name + "_sum";
    }

    const float* next;
    bool isElu;
    ModelWriter writer;
    NeuralModel<float> model;
    Tensor<float> slice{1, 256, 2};
};

}  // namespace

// Null where the network does not load or takes another number of weights.
ZEVRANT_TWIN_EXPORT void* makeTwin(int width, int numOfGates, int hasElu, int isHalf, const float* weights,
                                   long numOfWeights) {
    auto twin = std::make_unique<Twin>(width, numOfGates, hasElu != 0, isHalf != 0, weights);
    return twin->isLoaded && twin->numOfParameters == numOfWeights ? twin.release() : nullptr;
}

ZEVRANT_TWIN_EXPORT void dropTwin(void* twin) {
    delete static_cast<Twin*>(twin);
}

// Seconds of processor time for one slice of [256, 2], numOfSlices of which lie in a row.
ZEVRANT_TWIN_EXPORT double runTwin(void* handle, const float* in, int numOfSlices) {
    auto& twin = *static_cast<Twin*>(handle);
    const double start = readThreadClock();
    for (int i = 0; i < numOfSlices; ++i) twin.push(in + std::ptrdiff_t{512} * i);
    return (readThreadClock() - start) / numOfSlices;
}

// What the last slice led to, of the same shape.
ZEVRANT_TWIN_EXPORT void readTwin(void* handle, float* out) {
    std::copy_n(static_cast<Twin*>(handle)->result.getReadPointer(), 512, out);
}
