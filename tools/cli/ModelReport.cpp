#include "cli/ModelReport.h"

#include <algorithm>
#include <map>
#include <memory>
#include <variant>

#include "neural/ActivationLayers.h"
#include "neural/ConvLayer.h"
#include "neural/DenseLayers.h"
#include "neural/FrequencyRescaleLayer.h"
#include "neural/MergeLayers.h"
#include "neural/NormLayers.h"
#include "neural/SelfAttentionLayer.h"
#include "neural/TransposedConvLayer.h"

namespace zevrant::cli {

namespace {

using Layer = BaseLayer<float>;

std::int64_t countValues(const Tensor<float>& tensor) {
    std::int64_t count = tensor.shape.empty() ? 0 : 1;
    for (const int size : tensor.shape) count *= std::max(size, 0);
    return count;
}

// A file may hold numbers that make a layer impossible; a report only has to survive them.
std::int64_t divide(std::int64_t value, std::int64_t divisor) {
    return divisor == 0 ? 0 : value / divisor;
}

std::string by(std::int64_t a, std::int64_t b) {
    return std::to_string(a) + " x " + std::to_string(b);
}

void addDetail(std::string& details, const std::string& text) {
    details += (details.empty() ? "" : ", ") + text;
}

void setStateSlices(LayerReport& report, std::int64_t numOfSlices, const SliceShape& slice) {
    report.numOfStateBytes = numOfSlices * slice.numOfValues() * static_cast<std::int64_t>(sizeof(float));
}

// ---- the kinds of layers -----------------------------------------------------------------------

template <class AnyConv>
void describeKernel(const AnyConv& layer, bool isChannelWise, LayerReport& report) {
    addDetail(report.details,
              "kernel " + by(layer.kernelTime, layer.kernelFrequency) + " (time x frequency)");
    if (isChannelWise) addDetail(report.details, "channel by channel");
    if (layer.timeStride != 1 || layer.frequencyStride != 1)
        addDetail(report.details, "stride " + by(layer.timeStride, layer.frequencyStride));
    if (layer.timeDilation != 1) addDetail(report.details, "dilation " + std::to_string(layer.timeDilation));
    if (layer.timeOffset != 0) addDetail(report.details, "offset " + std::to_string(layer.timeOffset));
    report.numOfParameters = countValues(layer.weights) + countValues(layer.bias);
}

void describe(const ConvLayer<float>& layer, double timeScale, LayerReport& report) {
    const SliceShape in = report.inputs.front();
    const bool isChannelWise = layer.inputChannels == 1 && in.channels > 1;
    report.kind = "convolution";
    report.output = {divide(in.frequencies, layer.frequencyStride), layer.outputChannels};
    report.slicesPerFrame /= std::max(layer.timeStride, 1);
    const double terms = static_cast<double>(layer.kernelTime) * layer.kernelFrequency *
                         (isChannelWise ? 1 : layer.inputChannels);
    report.multiplyAddsPerFrame =
        terms * static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
    report.latency = static_cast<std::int64_t>(layer.timeOffset * timeScale);
    setStateSlices(report, layer.historyLength, in);
    describeKernel(layer, isChannelWise, report);
}

void describe(const TransposedConvLayer<float>& layer, double timeScale, LayerReport& report) {
    const SliceShape in = report.inputs.front();
    const bool isChannelWise = layer.kernelOutputs == 1 && layer.outputChannels > 1;
    report.kind = "transposed convolution";
    report.output = {in.frequencies * layer.frequencyStride, layer.outputChannels};
    const double terms = static_cast<double>(layer.kernelTime) * layer.kernelFrequency *
                         (isChannelWise ? 1 : layer.inputChannels) * layer.outputChannels;
    report.multiplyAddsPerFrame = terms * static_cast<double>(in.frequencies) * report.slicesPerFrame;
    report.slicesPerFrame *= layer.timeStride;
    report.latency = static_cast<std::int64_t>(layer.timeOffset * timeScale);
    setStateSlices(report, std::max(layer.timeStride, layer.kernelTime), report.output);
    describeKernel(layer, isChannelWise, report);
}

void describe(const DenseLayer<float>& layer, double, LayerReport& report) {
    report.kind = "dense";
    report.numOfParameters = countValues(layer.weights) + countValues(layer.bias);
    report.multiplyAddsPerFrame = static_cast<double>(report.output.frequencies) *
                                  static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
}

void describe(const SeparableChannelConvLayer<float>& layer, double, LayerReport& report) {
    const std::int64_t times = countValues(layer.timeKernel),
                       frequencies = countValues(layer.frequencyKernel);
    report.kind = "separable convolution";
    report.details =
        "kernels " + std::to_string(times) + " (time), " + std::to_string(frequencies) + " (frequency)";
    report.numOfParameters = times + frequencies;
    report.multiplyAddsPerFrame = static_cast<double>(times + frequencies) *
                                  static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
    setStateSlices(report, times, report.output);
}

void describe(const SelfAttentionLayer<float>& layer, double, LayerReport& report) {
    const std::int64_t slices = getAxis(layer.timeWeights, 0);
    report.kind = "self-attention";
    report.details = std::to_string(slices) + " slices";
    if (layer.startDelay != 0) addDetail(report.details, "delay " + std::to_string(layer.startDelay));
    report.numOfParameters =
        countValues(layer.channelMatrix) + countValues(layer.timeWeights) + countValues(layer.positionBias);
    report.multiplyAddsPerFrame = static_cast<double>(slices + report.output.channels) *
                                  static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
    report.latency = std::max(layer.startDelay, 0);
    setStateSlices(report, slices, report.output);
}

void describe(const FrequencyRescaleLayer<float>& layer, double, LayerReport& report) {
    report.kind = "frequency rescale";
    for (const int taps : layer.tapCounts) report.numOfParameters += taps;
    report.output.frequencies = layer.outputBins;
    report.multiplyAddsPerFrame = static_cast<double>(report.numOfParameters) *
                                  static_cast<double>(report.output.channels) * report.slicesPerFrame;
}

void describe(const NormLayer<float>& layer, double, LayerReport& report) {
    report.kind = "norm";
    report.details = layer.normMode == 0 ? "gain and offset" : "level per bin";
    report.numOfParameters = countValues(layer.gain) + countValues(layer.offset);
    report.multiplyAddsPerFrame = (layer.normMode == 0 ? 1.0 : 3.0) *
                                  static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
}

void describe(const PreNormLayer<float>& layer, double, LayerReport& report) {
    report.kind = "level norm";
    report.details = std::to_string(layer.levelCount) + " slices";
    report.numOfParameters = countValues(layer.levelWeights);
    report.multiplyAddsPerFrame =
        2.0 * static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
    setStateSlices(report, layer.levelCount, {1, 1});
}

void describe(const ARPreNormLayer<float>&, double, LayerReport& report) {
    report.kind = "level follower";
    report.numOfParameters = 3;
    report.multiplyAddsPerFrame =
        2.0 * static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
    setStateSlices(report, 1, {1, 1});
}

void describe(const ConcatLayer<float>&, double, LayerReport& report) {
    report.kind = "concat";
    report.output.channels = 0;
    for (const SliceShape& input : report.inputs) report.output.channels += input.channels;
}

void describe(const ArithmeticLayer<float>& layer, double, LayerReport& report) {
    constexpr const char* kinds[] = {"multiply", "divide", "add", "subtract"};
    const bool isKnown = layer.operation >= 0 && layer.operation < std::ssize(kinds);
    report.kind = isKnown ? kinds[layer.operation] : "first input";
    report.multiplyAddsPerFrame = static_cast<double>(std::ssize(report.inputs) - 1) *
                                  static_cast<double>(report.output.numOfValues()) * report.slicesPerFrame;
}

template <class Kind>
bool describeAs(const Layer& layer, double timeScale, LayerReport& report) {
    const auto* ofKind = dynamic_cast<const Kind*>(&layer);
    if (ofKind) describe(*ofKind, timeScale, report);
    return ofKind != nullptr;
}

template <class Kind>
bool nameAs(const Layer& layer, const char* kind, LayerReport& report) {
    const bool isOfKind = dynamic_cast<const Kind*>(&layer) != nullptr;
    if (isOfKind) report.kind = kind;
    return isOfKind;
}

// Fills what the layer's class knows. The report holds its inputs, an output like the first of them, and the
// number of slices that come in.
void describeLayer(const Layer& layer, LayerReport& report) {
    const double timeScale = report.slicesPerFrame > 0.0 ? 1.0 / report.slicesPerFrame : 0.0;
    const bool isKnown = describeAs<ConvLayer<float>>(layer, timeScale, report) ||
                         describeAs<TransposedConvLayer<float>>(layer, timeScale, report) ||
                         describeAs<DenseLayer<float>>(layer, timeScale, report) ||
                         describeAs<SeparableChannelConvLayer<float>>(layer, timeScale, report) ||
                         describeAs<SelfAttentionLayer<float>>(layer, timeScale, report) ||
                         describeAs<FrequencyRescaleLayer<float>>(layer, timeScale, report) ||
                         describeAs<NormLayer<float>>(layer, timeScale, report) ||
                         describeAs<PreNormLayer<float>>(layer, timeScale, report) ||
                         describeAs<ARPreNormLayer<float>>(layer, timeScale, report) ||
                         describeAs<ConcatLayer<float>>(layer, timeScale, report) ||
                         describeAs<ArithmeticLayer<float>>(layer, timeScale, report) ||
                         nameAs<ReLULayer<float>>(layer, "ReLU", report) ||
                         nameAs<ELULayer<float>>(layer, "ELU", report) ||
                         nameAs<SigmoidLayer<float>>(layer, "sigmoid", report) ||
                         nameAs<HardSigmoidLayer<float>>(layer, "hard sigmoid", report) ||
                         nameAs<SoftplusLayer<float>>(layer, "softplus", report);
    if (isKnown) return;
    if (const auto* leaky = dynamic_cast<const LeakyReLULayer<float>*>(&layer)) {
        report.kind = "leaky ReLU";
        report.details = "slope " + std::to_string(leaky->alpha);
    } else {
        report.kind = "layer of type " + std::to_string(layer.type);
    }
}

// ---- the graph ---------------------------------------------------------------------------------

class Graph {
  public:
    explicit Graph(const LayerMap& layers) {
        for (const auto& [name, entry] : layers)
            if (const auto* layer = std::get_if<std::shared_ptr<Layer>>(&entry); layer && *layer) {
                names[layer->get()] = name;
                for (const Layer* consumer : (*layer)->consumers) sources[consumer].push_back(layer->get());
            }
        // A merge tells the order of its inputs; the table of layers only knows their names.
        for (auto& [layer, list] : sources)
            if (const auto* merge = dynamic_cast<const BaseQueuedLayer<float>*>(layer))
                list.assign(merge->inputLayers.begin(), merge->inputLayers.end());
    }

    const std::string& getName(const Layer* layer) const { return names.at(layer); }
    const std::vector<const Layer*>& getSources(const Layer* layer) { return sources[layer]; }

    // Sources before their consumers, and otherwise in the order in which they are reached.
    std::vector<const Layer*> sort(const Layer* input) {
        std::vector<const Layer*> sorted{input};
        std::map<const Layer*, std::size_t> numOfReady;
        for (std::size_t i = 0; i < sorted.size(); ++i)
            for (const Layer* consumer : sorted[i]->consumers)
                if (names.contains(consumer) && ++numOfReady[consumer] == sources[consumer].size())
                    sorted.push_back(consumer);
        return sorted;
    }

  private:
    std::map<const Layer*, std::string> names;
    std::map<const Layer*, std::vector<const Layer*>> sources;
};

}  // namespace

ModelReport describeModel(const Model& model) {
    const NeuralModel<float>& network = model.network;
    const bool isComplex = network.inputPacking == 4 || network.inputPacking == 6;
    ModelReport report;
    report.input = {network.tensorFrequencies, std::int64_t{network.numOfInputChannels} *
                                                   network.numHistoryFrames * (isComplex ? 2 : 1)};

    Graph graph(network.layers);
    std::map<const Layer*, std::pair<SliceShape, double>> outputs;  // shape, slices per frame
    outputs[network.inputLayer.get()] = {report.input, 1.0};
    for (const Layer* source : graph.getSources(network.outputLayer.get()))
        report.outputSources.push_back(graph.getName(source));

    for (const Layer* layer : graph.sort(network.inputLayer.get())) {
        if (layer == network.inputLayer.get() || layer == network.outputLayer.get()) continue;
        LayerReport entry;
        entry.name = graph.getName(layer);
        for (const Layer* source : graph.getSources(layer)) {
            entry.sources.push_back(graph.getName(source));
            entry.inputs.push_back(outputs[source].first);
        }
        entry.output = entry.inputs.front();
        entry.slicesPerFrame = outputs[graph.getSources(layer).front()].second;
        describeLayer(*layer, entry);
        outputs[layer] = {entry.output, entry.slicesPerFrame};
        report.numOfParameters += entry.numOfParameters;
        report.multiplyAddsPerFrame += entry.multiplyAddsPerFrame;
        report.numOfStateBytes += entry.numOfStateBytes;
        report.layers.push_back(entry);
    }
    report.numOfParameterBytes = report.numOfParameters * static_cast<std::int64_t>(sizeof(float));
    return report;
}

}  // namespace zevrant::cli
