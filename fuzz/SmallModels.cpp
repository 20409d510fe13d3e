#include "SmallModels.h"

#include <utility>

#include "neural/ModelOfAllLayers.h"

namespace zevrant::fuzz {

namespace {

using namespace modelwriter;

ModelWriter describeFrames(const std::string& name, const Packing& packing) {
    ModelWriter model(name);
    model.setFrames(16, 16, 8).setPacking(packing);
    return model;
}

}  // namespace

std::vector<SmallModel> makeSmallModels() {
    std::vector<SmallModel> models;
    const auto addModel = [&](const std::string& name, const Packing& packing, const auto& addLayers) {
        ModelWriter model = describeFrames(name, packing);
        addLayers(model);
        models.push_back({name, model.toBytes()});
    };
    const auto add = [&](const std::string& name, const SingleSourceLayer& layer) {
        addModel(name, Packing::complexBins(5),
                 [&](ModelWriter& model) { model.addLayer("a", "input", layer).setOutput("a"); });
    };
    const auto addMerging = [&](const std::string& name, const MergingLayer& layer) {
        addModel(name, Packing::complexBins(5), [&](ModelWriter& model) {
            model.addLayer("a", "input", Conv{.weights = makeWeights({1, 1, 2, 2}), .timeOffset = 1})
                .addLayer("b", {"a", "input"}, layer)
                .setOutput("b");
        });
    };
    add("conv", Conv{.weights = makeWeights({2, 3, 2, 2}), .bias = makeWeights({2}), .timeDilation = 2});
    add("channelwise", Conv{.weights = makeWeights({1, 3, 1, 2})});
    add("transposed",
        TransposedConv{.weights = makeWeights({2, 3, 2, 2}), .bias = makeWeights({2}), .timeOffset = 1});
    addModel("strides", Packing::complexBins(8), [](ModelWriter& model) {
        model
            .addLayer("down", "input",
                      Conv{.weights = makeWeights({2, 2, 2, 3}), .timeStride = 2, .frequencyStride = 2})
            .addLayer(
                "up", "down",
                TransposedConv{.weights = makeWeights({2, 2, 2, 3}), .timeStride = 2, .frequencyStride = 2})
            .addLayer("sum", {"up", "input"}, Arithmetic{})
            .setOutput("sum");
    });
    add("relu", ReLU{});
    add("elu", ELU{});
    add("sigmoid", Sigmoid{});
    add("hard sigmoid", HardSigmoid{});
    add("softplus", Softplus{});
    add("leaky relu", LeakyReLU{0.25f});
    add("norm", Norm{1, makeWeights({2}), makeWeights({2})});
    add("prenorm", PreNorm{makeWeights({3})});
    add("arprenorm", ARPreNorm{0.5f, 0.9f, 1e-6f});
    add("dense", Dense{makeWeights({5, 5, 2}), makeWeights({5, 2})});
    add("separable", SeparableChannelConv{makeWeights({2}), makeWeights({3})});
    add("attention", SelfAttention{.channelMatrix = makeWeights({2, 2}),
                                   .positionBias = makeWeights({5, 2}),
                                   .timeWeights = makeWeights({2, 2})});
    FrequencyRescale rescale;
    for (int bin = 0; bin < 5; ++bin) rescale.bands.push_back({bin, makeWeights({bin < 4 ? 2 : 1})});
    add("rescale", rescale);
    addMerging("concat", Concat{});
    for (int operation = 0; operation < 4; ++operation)
        addMerging("arithmetic " + std::to_string(operation), Arithmetic{operation});

    const auto handOn = [](ModelWriter& model) { model.setOutput("input"); };
    addModel("packing 1", Packing::magnitudes(9), handOn);
    addModel("packing 2", Packing::rectifiedParts(2, 7), handOn);
    addModel("packing 6", Packing::complexGroups(3, 6, 2), handOn);

    using enum TensorStorage;
    models.push_back({"all", makeModelOfAllLayers(0x100a, SinglePrecision, Packing::magnitudes(9))});
    models.push_back({"all, half precision",
                      makeModelOfAllLayers(0x1009, HalfPrecision, Packing::complexGroups(3, 12, 2))});
    models.push_back(
        {"all, first version", makeModelOfAllLayers(0x1004, SinglePrecision, Packing::complexBins(9))});
    return models;
}

}  // namespace zevrant::fuzz
