#pragma once

#include <cstdint>
#include <optional>
#include <variant>
#include <vector>

// The layers that a model file can hold, as plain values. Each struct is one record; its fields are
// what the engine reads, in the units that the engine uses. Axes are written outermost first.
// typeCode is what the file calls the kind.
namespace zevrant::modelwriter {

// A tensor of weights: row-major, the last axis contiguous. No shape means a tensor without values,
// which is how an optional one is left out.
struct WeightTensor {
    std::vector<int> shape;
    std::vector<float> values;  // as many as the product of the axes
};

// Two-dimensional convolution over time and frequency. With one input channel in the weights and several
// in the signal it works channel by channel.
struct Conv {
    static constexpr int typeCode = 2;
    WeightTensor weights{};  // [kernelTime, kernelFrequency, inputChannels, outputChannels]
    WeightTensor bias{};     // [outputChannels], or none
    int timeStride = 1;
    int frequencyStride = 1;
    int timeDilation = 1;
    int reservedParameter = 0;  // stored and not used
    int timeOffset = 0;         // slices to wait before the first output
};

// The upsampling counterpart: each input slice gives timeStride slices, frequencyStride times as wide.
struct TransposedConv {
    static constexpr int typeCode = 3;
    WeightTensor weights{};  // [kernelTime, kernelFrequency, kernelOutputs, inputChannels]
    WeightTensor bias{};     // [outputChannels], or none
    std::optional<int>
        outputChannels{};  // kernelOutputs unless given; files below 0x1008 cannot tell another
    int timeStride = 1;
    int frequencyStride = 1;
    int timeDilation = 1;       // stored and not used
    int reservedParameter = 0;  // stored and not used
    int timeOffset = 0;         // output slices to drop at the start
};

// max(x, 0)
struct ReLU {
    static constexpr int typeCode = 4;
};

// max(x, 0) + exp(min(x, 0)) - 1
struct ELU {
    static constexpr int typeCode = 5;
};

// exp(y) / (1 + exp(y)), y = x limited to -10..10
struct Sigmoid {
    static constexpr int typeCode = 6;
};

// x / 6 + 0.5 limited to 0..1
struct HardSigmoid {
    static constexpr int typeCode = 20;
};

// ln(1 + exp(x))
struct Softplus {
    static constexpr int typeCode = 17;
};

struct LeakyReLU {
    static constexpr int typeCode = 12;
    float alpha = 0.0f;  // slope below 0
};

// Gain and offset per channel, with or without division by the root mean square of each row of channels.
struct Norm {
    static constexpr int typeCode = 7;
    int normMode = 0;       // 0 gain and offset alone, 1 root mean square; files below 0x100a hold 0 only
    WeightTensor gain{};    // [channels]
    WeightTensor offset{};  // [channels]; may be left out in mode 1
};

// Division by a weighted sum of the levels of recent slices.
struct PreNorm {
    static constexpr int typeCode = 16;
    WeightTensor levelWeights{};  // [levels]
};

// Division by a level follower.
struct ARPreNorm {
    static constexpr int typeCode = 23;
    float attackCoefficient = 0.0f;   // 0 follows at once, near 1 is slow
    float releaseCoefficient = 0.0f;  // the same while the level falls
    float epsilon = 0.0f;             // added to the level before dividing
};

// A full matrix across frequency, one for each channel.
struct Dense {
    static constexpr int typeCode = 14;
    WeightTensor weights{};  // [outputFrequencies, inputFrequencies, channels], both frequency axes alike
    WeightTensor bias{};     // [frequencies, channels], or none
};

// One kernel along time and one along frequency, shared by all channels.
struct SeparableChannelConv {
    static constexpr int typeCode = 15;
    WeightTensor timeKernel{};       // [taps]
    WeightTensor frequencyKernel{};  // [taps]
};

// A causal filter per channel, a channel matrix and a fixed term.
struct SelfAttention {
    static constexpr int typeCode = 19;
    WeightTensor channelMatrix{};  // [inputChannels, outputChannels]
    WeightTensor positionBias{};   // [frequencies, channels]
    int startDelay = 0;            // slices to drop at the start; files below 0x1007 hold 0 only
    WeightTensor timeWeights{};    // [slices, channels], or none; files below 0x1007 hold none
};

// A sparse matrix across frequency.
struct FrequencyRescale {
    static constexpr int typeCode = 22;
    struct Band {
        int firstBin;
        WeightTensor taps{};  // [taps], for firstBin and the bins above it
    };
    std::vector<Band> bands;  // one per output bin
};

// Joins its sources along the channel axis.
struct Concat {
    static constexpr int typeCode = 9;
};

// Combines its sources element by element, from the first to the last: with r what was combined so far
// and x the next source, r * x, x / r, r + x or x - r.
struct Arithmetic {
    static constexpr int typeCode = 18;
    enum Operation : std::int8_t { Multiply = 0, Divide = 1, Add = 2, Subtract = 3 };
    int operation = Add;
};

using SingleSourceLayer =
    std::variant<Conv, TransposedConv, ReLU, ELU, Sigmoid, HardSigmoid, Softplus, LeakyReLU, Norm, PreNorm,
                 ARPreNorm, Dense, SeparableChannelConv, SelfAttention, FrequencyRescale>;
using MergingLayer = std::variant<Concat, Arithmetic>;

}  // namespace zevrant::modelwriter
