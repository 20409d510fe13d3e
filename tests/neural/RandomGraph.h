#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "modelwriter/ModelWriter.h"
#include "neural/LayerTesting.h"
#include "neural/WholeSequence.h"

namespace zevrant::test {

// A network drawn from a seed: a model file and, told by the definitions over whole sequences, what comes out
// of it for its input. Branches of uneven delay meet again, time is strided and comes back up, and every kind
// of layer has a chance.
//
// A drawn layer is taken only if float can hold its result well: silent, exploding or cancelling ones are
// drawn again, so that the bounds stay narrow down to the output.
class RandomGraph {
  public:
    // With slicesArePushedTogether, what takes one slice at a time is left out where several may come.
    explicit RandomGraph(unsigned seed, bool slicesArePushedTogether = false)
        : random(seed), version(drawVersion()), writer("Graph " + std::to_string(seed), version) {
        const int frames = 36, frequencies = between(3, 12), channels = between(1, 4);
        const Sequence input = noiseSequence(frames, frequencies, channels, seed + 1000);
        drawHeader(frequencies);
        grow(input, slicesArePushedTogether, between(6, 16));
        writer.setOutput(nodes.back().name);
    }

    // For a given input, ending in outputs channels at the input's frequencies and rate, with values from 0
    // to 1.
    RandomGraph(unsigned seed, const Sequence& input, int outputs)
        : random(seed),
          version(modelwriter::latestVersion),
          writer("Graph " + std::to_string(seed), version) {
        grow(input, false, between(5, 9));
        endAsMask(input.numOfFrequencies, outputs);
        writer.setOutput(nodes.back().name);
    }

    const Sequence& getInput() const { return nodes.front().values; }
    const Sequence& getOutput() const { return nodes.back().values; }

    // The slices that a stride may hold back at the end of a stream.
    int getMostHeldBack() const { return coarsestTime - 1; }

    int measureLatency() const { return measureLatencyFrom(0, 1); }

  private:
    struct Node {
        std::string name;
        Sequence values;
        int framesPerSlice = 1;
        bool mayComeTogether = false;  // several slices in a push
        int timeStride = 1, timeUpsampling = 1, timeOffset = 0, unscaledDelay = 0;
        std::vector<std::size_t> consumers;
    };
    using Sources = std::vector<std::size_t>;

    int between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); }
    bool chance(int percent) { return between(1, 100) <= percent; }
    int drawVersion() { return chance(50) ? modelwriter::latestVersion : between(0x1004, 0x100a); }

    // Multiples of 2^-9 below 1, and a power of two that keeps a sum of numOfTerms of them near 1: half
    // precision holds these exactly.
    Weights drawWeights(std::vector<int> shape, int numOfTerms) {
        const float scale = std::exp2(-std::floor(std::log2(static_cast<float>(numOfTerms)) / 2.0f));
        Weights weights{std::move(shape), {}};
        const int count = Tensor<float>::countElements(weights.shape);
        for (int i = 0; i < count; ++i)
            weights.values.push_back(static_cast<float>(between(-511, 511)) / 512.0f * scale);
        return weights;
    }
    Weights drawPositive(int count) {
        Weights weights{{count}, {}};
        for (int i = 0; i < count; ++i)
            weights.values.push_back(static_cast<float>(between(100, 512)) / 512.0f);
        return weights;
    }
    Weights drawOptional(std::vector<int> shape) {
        return chance(70) ? drawWeights(std::move(shape), 1) : Weights();
    }
    static modelwriter::WeightTensor toFile(const Weights& weights) {
        return {weights.shape, weights.values};
    }

    // Half of the headers describe complex bins over the whole transform, which scales measured levels.
    void drawHeader(int bins) {
        const int fftSize = chance(50) ? 2 * bins : 4 * bins;
        writer.setPacking(modelwriter::Packing::complexBins(bins)).setFrames(fftSize, fftSize, bins);
        if (fftSize == 2 * bins) levelScale = sqrt(Bounded(2.0) * Bounded(bins) / Bounded(fftSize / 2 + 1));
        if (version >= 0x1009 && chance(50))
            writer.setTensorStorage(modelwriter::TensorStorage::HalfPrecision);
        if (version >= 0x1006) writer.setBusses({"Voice", "Drums", "Residual"});
    }

    void grow(const Sequence& input, bool slicesArePushedTogether, int numOfLayers) {
        Node node;
        node.name = "input";
        node.values = input;
        node.mayComeTogether = slicesArePushedTogether;
        nodes.push_back(std::move(node));
        for (int i = 0; i < numOfLayers; ++i) addSomeLayer();
        while (nodes.back().framesPerSlice > 1) addTransposed(nodes.size() - 1, 2);
    }

    // Mostly behind the latest layers, now and then far back, which makes the skips.
    std::size_t drawSource() {
        std::size_t source = nodes.size() - 1;
        while (source > 0 && chance(30)) --source;
        return source;
    }

    void addSomeLayer() {
        const std::size_t s = drawSource();
        const std::array<std::function<bool()>, 13> kinds = {
            [&] { return addConv(s); },
            [&] { return addConv(s); },
            [&] { return addChannelWiseConv(s); },
            [&] { return addTransposed(s, nodes[s].framesPerSlice % 2 == 0 ? between(1, 2) : 1); },
            [&] { return addActivation(s); },
            [&] { return addActivation(s); },
            [&] { return addNorm(s); },
            [&] { return addLevelNorm(s); },
            [&] { return addDense(s); },
            [&] { return addSeparable(s); },
            [&] { return addAttention(s); },
            [&] { return addRescale(s); },
            [&] { return addMerge(s) || addMerge(s); },
        };
        for (int attempt = 0; attempt < 50; ++attempt)
            if (kinds[static_cast<std::size_t>(between(0, static_cast<int>(kinds.size()) - 1))]()) return;
    }

    static bool isWorthKeeping(const Sequence& values) {
        double largest = 0.0, worst = 0.0;
        for (const Bounded& value : values.values) {
            largest = std::max(largest, std::abs(value.value));
            worst = std::isfinite(value.error) ? std::max(worst, value.error) : INFINITY;
        }
        return values.numOfSlices >= 8 && largest > 0.01 && largest < 1000.0 && worst < 2e-4 * largest;
    }

    template <class Layer>
    bool take(const char* kind, const Layer& layer, const Sources& sources, Node node) {
        if (!isWorthKeeping(node.values)) return false;
        node.name = kind + std::to_string(nodes.size());
        node.framesPerSlice = nodes[sources.front()].framesPerSlice * node.timeStride / node.timeUpsampling;
        coarsestTime = std::max(coarsestTime, node.framesPerSlice);
        if constexpr (std::is_same_v<Layer, modelwriter::MergingLayer>) {
            std::vector<std::string> names;
            for (std::size_t source : sources) names.push_back(nodes[source].name);
            writer.addLayer(node.name, names, layer);
        } else {
            writer.addLayer(node.name, nodes[sources.front()].name, modelwriter::SingleSourceLayer(layer));
        }
        for (std::size_t source : sources) nodes[source].consumers.push_back(nodes.size());
        nodes.push_back(std::move(node));
        kindsInUse.insert(kind);
        return true;
    }

    // A layer without a stride or a delay of its own.
    template <class Layer>
    bool takePlain(const char* kind, const Layer& layer, std::size_t source, Sequence values) {
        Node node;
        node.values = std::move(values);
        node.mayComeTogether = nodes[source].mayComeTogether;
        return take(kind, layer, {source}, std::move(node));
    }

    bool addConvOf(std::size_t source, const Weights& weights) {
        const Sequence& in = nodes[source].values;
        const Weights bias = drawOptional({weights.dimension(3)});
        ConvolutionSettings settings;
        settings.timeStride = nodes[source].framesPerSlice < 4 ? between(1, 2) : 1;
        settings.frequencyStride = in.numOfFrequencies >= 4 ? between(1, 2) : 1;
        settings.timeDilation = between(1, 2);
        settings.timeOffset = between(-1, 2);
        modelwriter::Conv layer;
        layer.weights = toFile(weights);
        layer.bias = toFile(bias);
        layer.timeStride = settings.timeStride;
        layer.frequencyStride = settings.frequencyStride;
        layer.timeDilation = settings.timeDilation;
        layer.timeOffset = settings.timeOffset;
        Node node;
        node.values = convolve(in, weights, bias, settings);
        node.timeStride = settings.timeStride;
        node.timeOffset = settings.timeOffset;
        return take("Conv", layer, {source}, std::move(node));
    }

    bool addConv(std::size_t source) {
        const int C = nodes[source].values.numOfChannels;
        if (C == 1 && nodes[source].mayComeTogether) return false;
        const int kernelTime = between(1, 3), kernelFrequency = between(1, 4);
        return addConvOf(source, drawWeights({kernelTime, kernelFrequency, C, between(1, 7)},
                                             kernelTime * kernelFrequency * C));
    }

    bool addChannelWiseConv(std::size_t source) {
        const int C = nodes[source].values.numOfChannels;
        const int repeat = nodes[source].mayComeTogether ? 1 : between(1, 2);
        if (C < 2 || C > 8) return false;
        const int kernelTime = between(1, 3), kernelFrequency = between(1, 4);
        return addConvOf(
            source, drawWeights({kernelTime, kernelFrequency, 1, C * repeat}, kernelTime * kernelFrequency));
    }

    bool addTransposed(std::size_t source, int timeStride) {
        const Sequence& in = nodes[source].values;
        const int C = in.numOfChannels;
        const bool isChannelWise = version >= 0x1008 && C > 1 && chance(30);
        const int channels = isChannelWise ? C : between(1, 6);
        const int kernelTime = between(1, 3), kernelFrequency = between(1, 4);
        const Weights weights = drawWeights({kernelTime, kernelFrequency, isChannelWise ? 1 : channels, C},
                                            isChannelWise ? 1 : C);
        const Weights bias = drawOptional({channels});
        modelwriter::TransposedConv layer;
        layer.weights = toFile(weights);
        layer.bias = toFile(bias);
        if (isChannelWise) layer.outputChannels = channels;
        layer.timeStride = timeStride;
        layer.frequencyStride = in.numOfFrequencies <= 8 ? between(1, 2) : 1;
        layer.timeOffset = between(0, 2);
        Node node;
        node.values = convolveTransposed(in, weights, bias, channels, layer.timeStride, layer.frequencyStride,
                                         layer.timeOffset);
        node.timeUpsampling = timeStride;
        node.timeOffset = layer.timeOffset;
        return take("TransposedConv", layer, {source}, std::move(node));
    }

    bool addActivation(std::size_t source) {
        using namespace modelwriter;
        const struct {
            const char* kind;
            SingleSourceLayer layer;
            Bounded (*function)(Bounded);
        } plain[] = {{"ReLU", ReLU(), relu},
                     {"ELU", ELU(), elu},
                     {"Sigmoid", Sigmoid(), sigmoid},
                     {"HardSigmoid", HardSigmoid(), hardSigmoid},
                     {"Softplus", Softplus(), softplus}};
        const Sequence& in = nodes[source].values;
        const auto choice = static_cast<std::size_t>(between(0, 5));
        if (choice < std::size(plain)) {
            const auto& [kind, layer, function] = plain[choice];
            return takePlain(kind, layer, source, mapValues(in, function));
        }
        const float alpha = static_cast<float>(between(-300, 300)) / 512.0f;
        return takePlain("LeakyReLU", modelwriter::LeakyReLU{alpha}, source,
                         mapValues(in, [alpha](Bounded x) { return leakyRelu(x, alpha); }));
    }

    bool addNorm(std::size_t source) {
        const Sequence& in = nodes[source].values;
        const int mode = version >= 0x100a ? between(0, 1) : 0;
        const Weights gain = drawWeights({in.numOfChannels}, 1);
        const Weights offset =
            mode == 0 ? drawWeights({in.numOfChannels}, 1) : drawOptional({in.numOfChannels});
        return takePlain("Norm", modelwriter::Norm{mode, toFile(gain), toFile(offset)}, source,
                         normalise(in, mode, gain, offset));
    }

    bool addLevelNorm(std::size_t source) {
        const Sequence& in = nodes[source].values;
        if (chance(50)) {
            const Weights weights = drawPositive(between(1, 4));
            return takePlain("PreNorm", modelwriter::PreNorm{toFile(weights)}, source,
                             preNormalise(in, weights));
        }
        const float attack = 0.125f, release = static_cast<float>(between(4, 15)) / 16.0f, epsilon = 0.0625f;
        return takePlain("ARPreNorm", modelwriter::ARPreNorm{attack, release, epsilon}, source,
                         followLevel(in, attack, release, epsilon, levelScale));
    }

    bool addDense(std::size_t source) {
        const Sequence& in = nodes[source].values;
        const int F = in.numOfFrequencies, C = in.numOfChannels;
        const Weights weights = drawWeights({F, F, C}, F), bias = drawOptional({F, C});
        return takePlain("Dense", modelwriter::Dense{toFile(weights), toFile(bias)}, source,
                         mixFrequencies(in, weights, bias));
    }

    bool addSeparable(std::size_t source) {
        const int timeTaps = between(1, 5), frequencyTaps = between(1, 5);
        const Weights time = drawWeights({timeTaps}, timeTaps);
        const Weights frequency = drawWeights({frequencyTaps}, frequencyTaps);
        Node node;
        node.values = filterSeparably(nodes[source].values, time, frequency);
        return take("SeparableChannelConv",
                    modelwriter::SeparableChannelConv{toFile(time), toFile(frequency)}, {source},
                    std::move(node));
    }

    bool addAttention(std::size_t source) {
        const Sequence& in = nodes[source].values;
        const int F = in.numOfFrequencies, C = in.numOfChannels;
        const int historyLength = version >= 0x1007 ? between(0, 4) : 0;
        const Weights matrix = drawWeights({C, C}, C), bias = drawWeights({F, C}, 1);
        const Weights time = historyLength > 0 ? drawWeights({historyLength, C}, historyLength) : Weights();
        const bool isDelayed = version >= 0x1007 && !nodes[source].mayComeTogether && chance(50);
        modelwriter::SelfAttention layer;
        layer.channelMatrix = toFile(matrix);
        layer.positionBias = toFile(bias);
        layer.timeWeights = toFile(time);
        layer.startDelay = isDelayed ? between(1, 2) : 0;
        Node node;
        node.values = attend(in, matrix, time, bias, layer.startDelay);
        node.mayComeTogether = nodes[source].mayComeTogether;
        node.unscaledDelay = layer.startDelay;
        return take("SelfAttention", layer, {source}, std::move(node));
    }

    bool addRescaleTo(std::size_t source, int numOfBands) {
        const Sequence& in = nodes[source].values;
        modelwriter::FrequencyRescale layer;
        std::vector<Band> bands;
        for (int i = 0; i < numOfBands; ++i) {
            const int numOfTaps = between(1, std::min(4, in.numOfFrequencies));
            bands.push_back(
                {between(0, in.numOfFrequencies - numOfTaps), drawWeights({numOfTaps}, numOfTaps)});
            layer.bands.push_back({bands.back().start, toFile(bands.back().taps)});
        }
        return takePlain("FrequencyRescale", layer, source, rescaleFrequencies(in, bands));
    }
    bool addRescale(std::size_t source) { return addRescaleTo(source, between(2, 12)); }

    // The first source with one or two others of its rate and shape, the same one again if need be.
    bool addMerge(std::size_t source) {
        const bool isConcat = chance(50);
        const Sequence& first = nodes[source].values;
        Sources candidates;
        for (std::size_t i = 0; i < nodes.size(); ++i)
            if (nodes[i].framesPerSlice == nodes[source].framesPerSlice && i != source &&
                nodes[i].values.numOfFrequencies == first.numOfFrequencies &&
                (isConcat || nodes[i].values.numOfChannels == first.numOfChannels))
                candidates.push_back(i);
        if (candidates.empty()) return false;
        Sources sources = {source};
        std::shuffle(candidates.begin(), candidates.end(), random);
        sources.push_back(candidates.front());
        if (candidates.size() > 1 && chance(30)) sources.push_back(candidates.back());
        std::shuffle(sources.begin(), sources.end(), random);

        std::vector<const Sequence*> inputs;
        int channels = 0;
        for (std::size_t i : sources) {
            inputs.push_back(&nodes[i].values);
            channels += nodes[i].values.numOfChannels;
        }
        if (isConcat && channels > 12) return false;
        const int operation = between(0, 3);
        Node node;
        node.values = isConcat ? concatenate(inputs) : combineAll(operation, inputs);
        const auto layer = isConcat ? modelwriter::MergingLayer(modelwriter::Concat())
                                    : modelwriter::MergingLayer(modelwriter::Arithmetic{operation});
        return take(isConcat ? "Concat" : "Arithmetic", layer, sources, std::move(node));
    }

    void endAsMask(int frequencies, int outputs) {
        for (int attempt = 0; attempt < 200; ++attempt) {
            const std::size_t last = nodes.size() - 1;
            const Sequence& in = nodes[last].values;
            if (in.numOfFrequencies != frequencies) {
                addRescaleTo(last, frequencies);
            } else if (in.numOfChannels != outputs) {
                const Weights weights = drawWeights({1, 1, in.numOfChannels, outputs}, in.numOfChannels);
                Node node;
                node.values = convolve(in, weights, {}, {});
                modelwriter::Conv layer;
                layer.weights = toFile(weights);
                take("Conv", layer, {last}, std::move(node));
            } else if (takePlain("Sigmoid", modelwriter::Sigmoid(), last, mapValues(in, sigmoid))) {
                return;
            }
        }
        throw std::logic_error("no mask could be drawn");
    }

    int measureLatencyFrom(std::size_t i, int timeScale) const {
        const Node& node = nodes[i];
        int slowest = 0;
        for (std::size_t consumer : node.consumers)
            slowest = std::max(
                slowest, measureLatencyFrom(consumer, timeScale * node.timeStride / node.timeUpsampling));
        return slowest + timeScale * node.timeOffset + node.unscaledDelay;
    }

    std::mt19937 random;
    int version;
    Bounded levelScale = 1.0;
    int coarsestTime = 1;
    std::vector<Node> nodes;

  public:
    modelwriter::ModelWriter writer;
    std::set<std::string> kindsInUse;
};

}  // namespace zevrant::test
