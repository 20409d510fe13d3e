// One whole network, slice by slice: a streaming encoder-decoder of about 0.3 million parameters over 256
// bins of one channel. Prints for each layer its time alone (its input at hand, no consumers) and its time
// inside the running network, then the whole beside the sum, and the system allocations of a slice.
//
// The whole is measured without the probes that tell the layers apart; they add two clock readings per edge.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "AllocationCounter.h"
#include "Interleaved.h"
#include "modelwriter/ModelWriter.h"
#include "neural/BaseLayer.h"
#include "neural/MemoryStream.h"
#include "neural/NeuralModel.h"

namespace {

using namespace zevrant;
using namespace zevrant::modelwriter;

// The network as it is described, with what its layers need to be run alone.
class Network {
  public:
    struct Node {
        std::string name;
        std::vector<std::string> sources;
        int frequencies, channels;  // of its output
    };

    Network() : model("encoder and decoder") {
        model.setFrames(512, 512, 128).setPacking(Packing::complexBins(256));
        nodes.push_back({"input", {}, 256, 2});
        encode("down1", "input", 16);
        encode("down2", "down1_elu", 32);
        encode("down3", "down2_elu", 64);
        encode("down4", "down3_elu", 64);
        addGated("gate1", "down4_elu");
        addGated("gate2", "gate1_sum");
        add("dense", {"gate2_sum"}, Dense{.weights = noise({16, 16, 64}), .bias = noise({16, 64})}, 16, 64);
        add("attention", {"dense"},
            SelfAttention{.channelMatrix = noise({64, 64}),
                          .positionBias = noise({16, 64}),
                          .timeWeights = noise({8, 64})},
            16, 64);
        decode("up4", "attention", "down4_elu", 64);
        decode("up3", "up4", "down3_elu", 32);
        decode("up2", "up3", "down2_elu", 16);
        decode("up1", "up2", "down1_elu", 2);
        add("mask", {"up1"}, Sigmoid{}, 256, 2);
        model.setOutput("mask");
    }

    ModelWriter model;
    std::vector<Node> nodes;
    long numOfParameters = 0;

  private:
    const Node& get(const std::string& name) const {
        return *std::find_if(nodes.begin(), nodes.end(), [&](const Node& node) { return node.name == name; });
    }

    WeightTensor noise(std::vector<int> shape) {
        int count = 1;
        for (int axis : shape) count *= axis;
        numOfParameters += count;
        std::uniform_real_distribution<float> uniform(-0.1f, 0.1f);
        WeightTensor tensor{std::move(shape), std::vector<float>(static_cast<std::size_t>(count))};
        for (float& value : tensor.values) value = uniform(random);
        return tensor;
    }

    void add(const std::string& name, const std::vector<std::string>& sources, const SingleSourceLayer& layer,
             int frequencies, int channels) {
        model.addLayer(name, sources.front(), layer);
        nodes.push_back({name, sources, frequencies, channels});
    }
    void merge(const std::string& name, const std::vector<std::string>& sources, const MergingLayer& layer,
               int channels) {
        model.addLayer(name, sources, layer);
        nodes.push_back({name, sources, get(sources.front()).frequencies, channels});
    }

    void encode(const std::string& name, const std::string& source, int channels) {
        const auto [frequencies, inputs] = std::pair(get(source).frequencies, get(source).channels);
        add(name, {source},
            Conv{.weights = noise({2, 3, inputs, channels}), .bias = noise({channels}), .frequencyStride = 2},
            frequencies / 2, channels);
        add(name + "_elu", {name}, ELU{}, frequencies / 2, channels);
    }
    void addGated(const std::string& name, const std::string& source) {
        const auto pointwise = [&](const std::string& suffix, const std::string& from, int in, int out) {
            add(name + suffix, {from}, Conv{.weights = noise({1, 1, in, out}), .bias = noise({out})}, 16,
                out);
        };
        pointwise("_value", source, 64, 256);
        add(name + "_elu", {name + "_value"}, ELU{}, 16, 256);
        pointwise("_gate", source, 64, 256);
        add(name + "_sigmoid", {name + "_gate"}, Sigmoid{}, 16, 256);
        merge(name + "_product", {name + "_elu", name + "_sigmoid"}, Arithmetic{Arithmetic::Multiply}, 256);
        pointwise("_back", name + "_product", 256, 64);
        merge(name + "_sum", {name + "_back", source}, Arithmetic{Arithmetic::Add}, 64);
    }
    void decode(const std::string& name, const std::string& source, const std::string& skip, int channels) {
        const int frequencies = get(source).frequencies, inputs = get(source).channels + get(skip).channels;
        merge(name + "_skip", {source, skip}, Concat{}, inputs);
        add(name, {name + "_skip"},
            TransposedConv{
                .weights = noise({2, 4, channels, inputs}), .bias = noise({channels}), .frequencyStride = 2},
            2 * frequencies, channels);
    }

    std::mt19937 random{1};
};

using Clock = std::chrono::steady_clock;

// Tells the time inside a running network apart: stands between a layer and its consumers, and gives the
// time since the last event to the layer that was at work.
struct Profile {
    // A time that is put down to the consumer that has it.
    void charge(const BaseLayer<float>* layer) {
        const auto now = Clock::now();
        own[layer] += std::chrono::duration<double>(now - mark).count();
        mark = now;
    }
    std::map<const BaseLayer<float>*, double> own;
    Clock::time_point mark;
};

class Probe : public BaseLayer<float> {
  public:
    Probe(BaseLayer<float>& watched, Profile& times) : layer(watched), profile(times) {
        std::swap(consumers, layer.consumers);
        layer.consumers.push_back(this);
    }
    ~Probe() override { std::swap(consumers, layer.consumers), consumers.clear(); }

    bool push(const Tensor<float>& tensor, BaseLayer<float>*) override {
        profile.charge(&layer);
        bool reached = false;
        for (BaseLayer<float>* consumer : consumers) {
            reached |= consumer->push(tensor, &layer);
            profile.charge(consumer);
        }
        return reached;
    }

  private:
    BaseLayer<float>& layer;
    Profile& profile;
};

Tensor<float> noiseSlice(int frequencies, int channels) {
    std::mt19937 random(2);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    Tensor<float> slice({1, frequencies, channels});
    for (int i = 0; i < frequencies * channels; ++i) slice.getWritePointer()[i] = uniform(random);
    return slice;
}

}  // namespace

int main() {
    Network network;
    NeuralModel<float> model;
    if (!model.loadModel(streamOver(network.model.toBytes()))) return 1;
    const auto layerOf = [&](const std::string& name) {
        return std::get<std::shared_ptr<BaseLayer<float>>>(model.layers.at(name)).get();
    };
    const auto nodeOf = [&](const std::string& name) {
        return *std::find_if(network.nodes.begin(), network.nodes.end(),
                             [&](const auto& node) { return node.name == name; });
    };

    const Tensor<float> slice = noiseSlice(256, 2);
    Tensor<float> result;
    const auto pushSlice = [&] {
        model.inputLayer->push(slice, nullptr);
        model.outputLayer->takeResults(result);
    };
    for (int i = 0; i < 100; ++i) pushSlice();
    const std::int64_t before = countAllocations();
    for (int i = 0; i < 100; ++i) pushSlice();
    const double allocations = static_cast<double>(countAllocations() - before) / 100;

    // Each layer alone, in turns with the whole.
    std::map<std::string, ShortestTime> alone;
    std::map<std::string, std::function<void()>> calls;
    for (const auto& node : network.nodes) {
        if (node.sources.empty()) continue;
        BaseLayer<float>* layer = layerOf(node.name);
        std::vector<std::pair<Tensor<float>, BaseLayer<float>*>> inputs;
        for (const std::string& source : node.sources)
            inputs.push_back(
                {noiseSlice(nodeOf(source).frequencies, nodeOf(source).channels), layerOf(source)});
        calls[node.name] = [layer, inputs] {
            for (const auto& [tensor, source] : inputs) layer->push(tensor, source);
        };
    }
    ShortestTime whole;
    for (int round = 0; round < 400; ++round) {
        whole.add(10, pushSlice);
        for (auto& [name, call] : calls) {
            BaseLayer<float>* layer = layerOf(name);
            std::list<BaseLayer<float>*> consumers;
            std::swap(consumers, layer->consumers);
            alone[name].add(10, call);
            std::swap(consumers, layer->consumers);
        }
    }

    std::map<const BaseLayer<float>*, double> inside;
    {
        Profile profile;
        std::vector<std::unique_ptr<Probe>> probes;
        for (const auto& node : network.nodes)
            probes.push_back(std::make_unique<Probe>(*layerOf(node.name), profile));
        for (int i = 0; i < 4000; ++i) {
            profile.own.clear();
            profile.mark = Clock::now();
            pushSlice();
            for (const auto& [layer, time] : profile.own) {
                const auto entry = inside.try_emplace(layer, time).first;
                entry->second = std::min(entry->second, time);
            }
        }
        while (!probes.empty()) probes.pop_back();
    }

    double sum = 0.0;
    std::printf("%-16s %12s %12s %12s\n", "layer", "output", "alone us", "inside us");
    for (const auto& node : network.nodes) {
        if (node.sources.empty()) continue;
        sum += alone[node.name].microseconds();
        std::printf("%-16s %6d x %3d %12.2f %12.2f\n", node.name.c_str(), node.frequencies, node.channels,
                    alone[node.name].microseconds(), 1e6 * inside[layerOf(node.name)]);
    }
    std::printf(
        "\n%ld parameters, %.2f us per slice, %.2f us sum of the layers alone, ratio %.3f, "
        "%.2f system allocations per slice\n",
        network.numOfParameters, whole.microseconds(), sum, whole.microseconds() / sum, allocations);
    return 0;
}
