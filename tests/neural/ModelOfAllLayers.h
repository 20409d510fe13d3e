#pragma once

#include <numeric>
#include <utility>
#include <vector>

#include "modelwriter/ModelWriter.h"

namespace zevrant {

inline modelwriter::WeightTensor makeWeights(std::vector<int> shape) {
    modelwriter::WeightTensor tensor{std::move(shape), {}};
    tensor.values.resize(std::accumulate(tensor.shape.begin(), tensor.shape.end(), std::size_t{1},
                                         [](std::size_t count, int axis) { return count * axis; }));
    for (std::size_t i = 0; i < tensor.values.size(); ++i)
        tensor.values[i] = static_cast<float>(i * 37 % 19) / 16.0f - 0.5f;
    return tensor;
}

// Every layer of the format on one road from the input to the output, which gives one frame for each. The
// signal between them is [1, 9, 4].
inline modelwriter::Bytes makeModelOfAllLayers(int version, modelwriter::TensorStorage storage,
                                               const modelwriter::Packing& packing) {
    using namespace modelwriter;
    const int inputColumns = packing.code == 1 ? 2 : 4;
    ModelWriter model("all layers", version);
    model.setInfoText("").setSampleRate(48000).setFrames(32, 32, 16).setChannels(2, 2);
    model.setPacking(packing).setTensorStorage(storage);
    model.addLayer("conv", "input",
                   Conv{.weights = makeWeights({2, 3, inputColumns, 4}), .bias = makeWeights({4})});
    model.addLayer("channelwise", "conv", Conv{.weights = makeWeights({1, 3, 1, 4})});
    model.addLayer("relu", "channelwise", ReLU{}).addLayer("elu", "conv", ELU{});
    model.addLayer("sum", {"relu", "elu"}, Arithmetic{Arithmetic::Add}).addLayer("sigmoid", "sum", Sigmoid{});
    model.addLayer("hard", "sigmoid", HardSigmoid{}).addLayer("softplus", "hard", Softplus{});
    model.addLayer("leaky", "softplus", LeakyReLU{0.25f});
    model.addLayer("norm", "leaky", Norm{version >= 0x100a ? 1 : 0, makeWeights({4}), makeWeights({4})});
    model.addLayer("prenorm", "norm", PreNorm{makeWeights({3})})
        .addLayer("arprenorm", "prenorm", ARPreNorm{0.5f, 0.9f, 1e-6f});
    model.addLayer("dense", "arprenorm", Dense{makeWeights({9, 9, 4}), makeWeights({9, 4})});
    model.addLayer("separable", "dense", SeparableChannelConv{makeWeights({2}), makeWeights({3})});
    SelfAttention attention{.channelMatrix = makeWeights({4, 4}), .positionBias = makeWeights({9, 4})};
    if (version >= 0x1007) attention.timeWeights = makeWeights({2, 4});
    model.addLayer("attention", "separable", attention);
    FrequencyRescale rescale;
    for (int bin = 0; bin < 9; ++bin) rescale.bands.push_back({bin, makeWeights({bin < 8 ? 2 : 1})});
    model.addLayer("rescale", "attention", rescale);
    model.addLayer("concat", {"rescale", "conv"}, Concat{});
    model.addLayer(
        "transposed", "concat",
        TransposedConv{.weights = makeWeights({2, 3, inputColumns, 8}), .bias = makeWeights({inputColumns})});
    return model.setOutput("transposed").toBytes();
}

}  // namespace zevrant
