#pragma once

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "modelwriter/ModelWriter.h"
#include "neural/LayerTesting.h"
#include "neural/WholeSequence.h"

namespace zevrant::test {

inline modelwriter::WeightTensor toFile(const Weights& weights) {
    return {weights.shape, weights.values};
}

// A network drawn from a seed, of the layers that networks for sound are mostly made of, at one rate: a model
// file, and by the definitions over whole sequences what comes out of it for its input. Branches of uneven
// delay meet again. A drawn layer is taken only if float can hold its result well: silent, exploding and
// cancelling ones are drawn again, so that the bounds stay narrow down to the output.
class RandomGraph {
  public:
    explicit RandomGraph(unsigned seed) : writer("Graph " + std::to_string(seed)), random(seed) {
        nodes.push_back({"input", noiseSequence(24, between(3, 12), between(1, 4), seed + 1000), 0});
        const auto numOfNodes = static_cast<std::size_t>(between(7, 17));
        while (nodes.size() < numOfNodes) addSomeLayer();
        writer.setOutput(nodes.back().name);
    }

    const Sequence& getInput() const { return nodes.front().values; }
    const Sequence& getOutput() const { return nodes.back().values; }
    int getLatency() const { return latency; }

    modelwriter::ModelWriter writer;

  private:
    struct Node {
        std::string name;
        Sequence values;
        int delay;  // frames, on the slowest way
    };

    int between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); }

    // Keeps a sum of numOfTerms near 1.
    Weights drawWeights(std::vector<int> shape, int numOfTerms) {
        Weights weights = noiseWeights(std::move(shape), static_cast<unsigned>(random()));
        for (float& value : weights.values) value /= std::sqrt(static_cast<float>(numOfTerms) / 2.0f);
        return weights;
    }
    Weights drawOptional(std::vector<int> shape) {
        return between(0, 2) > 0 ? drawWeights(std::move(shape), 2) : Weights();
    }

    // Mostly behind the latest layers, now and then far back, which makes the skips.
    void addSomeLayer() {
        std::size_t source = nodes.size() - 1;
        while (source > 0 && between(0, 2) == 0) --source;
        const int kind = between(0, 9);
        if (kind < 4) return addConv(source, kind == 3);
        if (kind == 4) return addTransposed(source);
        if (kind < 7) return addActivation(source);
        if (kind == 7) return addNorm(source);
        addMerge(source);
    }

    static bool isWorthKeeping(const Sequence& values) {
        double largest = 0.0, worst = 0.0;
        for (const Bounded& value : values.values) {
            largest = std::max(largest, std::abs(value.value));
            worst = std::isfinite(value.error) ? std::max(worst, value.error) : INFINITY;
        }
        return largest > 0.01 && largest < 1000.0 && worst < 2e-4 * largest;
    }

    template <class Layer, class Source>
    void take(const Layer& layer, const Source& source, Sequence values, int delay) {
        if (!isWorthKeeping(values)) return;
        const std::string name = "layer " + std::to_string(nodes.size());
        writer.addLayer(name, source, layer);
        latency = std::max(latency, delay);
        nodes.push_back({name, std::move(values), delay});
    }

    void takeBehind(std::size_t source, const modelwriter::SingleSourceLayer& layer, Sequence values,
                    int ownDelay = 0) {
        take(layer, nodes[source].name, std::move(values), nodes[source].delay + ownDelay);
    }

    void addConv(std::size_t source, bool isChannelWise) {
        const Sequence& in = nodes[source].values;
        if (isChannelWise && in.numOfChannels < 2) return;
        const int inputs = isChannelWise ? 1 : in.numOfChannels;
        const int outputs = isChannelWise ? in.numOfChannels : between(1, 7);
        const Weights weights = drawWeights({between(1, 3), between(1, 4), inputs, outputs}, 6 * inputs);
        const Weights bias = drawOptional({outputs});
        const ConvolutionSettings settings = {1, in.numOfFrequencies >= 4 ? between(1, 2) : 1, between(1, 2),
                                              between(0, 2)};
        takeBehind(source,
                   modelwriter::Conv{.weights = toFile(weights),
                                     .bias = toFile(bias),
                                     .frequencyStride = settings.frequencyStride,
                                     .timeDilation = settings.timeDilation,
                                     .timeOffset = settings.timeOffset},
                   convolve(in, weights, bias, settings), settings.timeOffset);
    }

    void addTransposed(std::size_t source) {
        const Sequence& in = nodes[source].values;
        const int C = in.numOfChannels, channels = between(1, 6), offset = between(0, 2);
        const int stride = in.numOfFrequencies <= 8 ? between(1, 2) : 1;
        const Weights weights = drawWeights({between(1, 3), between(1, 4), channels, C}, 6 * C);
        const Weights bias = drawOptional({channels});
        takeBehind(source,
                   modelwriter::TransposedConv{.weights = toFile(weights),
                                               .bias = toFile(bias),
                                               .frequencyStride = stride,
                                               .timeOffset = offset},
                   convolveTransposed(in, weights, bias, channels, 1, stride, offset), offset);
    }

    void addActivation(std::size_t source) {
        const Sequence& in = nodes[source].values;
        switch (between(0, 3)) {
            case 0:
                return takeBehind(source, modelwriter::ReLU(), mapValues(in, relu));
            case 1:
                return takeBehind(source, modelwriter::ELU(), mapValues(in, elu));
            case 2:
                return takeBehind(source, modelwriter::Sigmoid(), mapValues(in, sigmoid));
            default:
                return takeBehind(source, modelwriter::LeakyReLU{0.25f},
                                  mapValues(in, [](Bounded x) { return leakyRelu(x, 0.25f); }));
        }
    }

    void addNorm(std::size_t source) {
        const Sequence& in = nodes[source].values;
        const int mode = between(0, 1), C = in.numOfChannels;
        const Weights gain = drawWeights({C}, 2),
                      offset = mode == 0 ? drawWeights({C}, 2) : drawOptional({C});
        takeBehind(source, modelwriter::Norm{mode, toFile(gain), toFile(offset)},
                   normalise(in, mode, gain, offset));
    }

    // With another branch of its size, or joined to any of its bands.
    void addMerge(std::size_t source) {
        const Node &first = nodes[source],
                   &second = nodes[static_cast<std::size_t>(between(0, static_cast<int>(source)))];
        const Sequence &a = first.values, &b = second.values;
        const bool isConcat = a.numOfChannels != b.numOfChannels;
        if (a.numOfFrequencies != b.numOfFrequencies || a.numOfChannels + b.numOfChannels > 12 ||
            &first == &second)
            return;
        const int delay = std::max(first.delay, second.delay), operation = between(2, 3);
        const std::vector<std::string> names = {first.name, second.name};
        if (isConcat) return take(modelwriter::Concat(), names, concatenate({&a, &b}), delay);
        take(modelwriter::Arithmetic{operation}, names, combineAll(operation, {&a, &b}), delay);
    }

    std::mt19937 random;
    std::vector<Node> nodes;
    int latency = 0;
};

}  // namespace zevrant::test
