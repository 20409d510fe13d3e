#include "neural/ModelReport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

#include "neural/ModelLimits.h"
#include "neural/SpectrumPacking.h"

namespace zevrant {

namespace {

using Layer = BaseLayer<float>;
using Model = NeuralModel<float>;

constexpr int mostBusses = 16;  // that a processor has controls for, the residual included

class Findings {
  public:
    explicit Findings(std::vector<Finding>& all) : list(all) {}

    void addError(const std::string& field, std::int64_t value, const std::string& problem,
                  const std::string& remedy = {}) {
        list.push_back({Finding::Error, {}, field, std::to_string(value), problem, remedy});
    }
    void addWarning(const std::string& field, std::int64_t value, const std::string& problem,
                    const std::string& remedy = {}) {
        list.push_back({Finding::Warning, {}, field, std::to_string(value), problem, remedy});
    }

  private:
    std::vector<Finding>& list;
};

BinLayout getLayout(const Model& model, int packing) {
    return {packing, model.numBins, model.numFineBins, model.binGroupSize, model.tensorFrequencies};
}

int countBins(const Model& model) {
    return model.fftSize / 2 + 1;
}

// ---- the header --------------------------------------------------------------------------------

// How far the frames of BaseSpectralProcessor give back what they take.
void checkFrames(const Model& model, Findings findings) {
    const std::int64_t fft = model.fftSize, window = model.windowSize, hop = model.hopSize;
    if (fft < 2 || (fft & (fft - 1)) != 0)
        findings.addError("fftSize", fft, "a transform has a length of 2, 4, 8 and so on");
    if (window > fft) findings.addError("windowSize", window, "is longer than the transform");
    if (hop < 1 || window < 1)
        return findings.addError("hopSize", hop, "a frame and a hop have a sample or more");
    if (window < 2 * hop)
        return findings.addError("hopSize", hop, "two hops are longer than the window", "window / 4, or / 2");
    if (window >= 8 * hop)
        return findings.addError(
            "hopSize", hop,
            "the window has eight hops or more, and what is taken from a frame lies where it "
            "is silent",
            "window / 4");
    if (window != 2 * hop && window != 4 * hop)
        findings.addWarning("hopSize", hop, "such frames do not add up to their input", "window / 4, or / 2");
    if (window >= 3 * hop && fft > window)
        findings.addWarning("windowSize", window,
                            "with a longer transform, frames of three hops and more come out too loud",
                            std::to_string(fft));
}

void checkInput(const Model& model, Findings findings) {
    const BinLayout layout = getLayout(model, model.inputPacking);
    if (!layout.isKnown()) findings.addError("inputPacking", layout.packing, "loads and cannot be run");
    if (model.numOfInputChannels < 1)
        findings.addError("numOfInputChannels", model.numOfInputChannels, "needs 1 or more");
    if (model.numBins < 1 || model.numFineBins < 0 || model.numFineBins > model.numBins ||
        model.tensorFrequencies < 1)
        return findings.addError("numBins", model.numBins, "leaves the network no bins");
    if (model.inputPacking == 6 && model.binGroupSize < 1)
        return findings.addError("binGroupSize", model.binGroupSize, "a group has one bin or more");
    const std::string bins = "the transform has " + std::to_string(countBins(model)) + " bins";
    if (model.numBins > countBins(model) && model.inputPacking == 6)
        findings.addError("numBins", model.numBins, bins + ", and groups read what stands behind them");
    else if (model.numBins > countBins(model))
        findings.addWarning("numBins", model.numBins, bins + ", and the network sees zeros above");
    if (model.inputPacking == 6 && (model.numBins - model.numFineBins) % model.binGroupSize != 0)
        findings.addWarning("binGroupSize", model.binGroupSize,
                            "the last bins fill no group and are not seen");
}

void checkBusses(const Model& model, Findings findings) {
    const auto numOfNames = std::ssize(model.outputBusNames);
    if (model.numOfOutputBusses < 1)
        findings.addError("numOfOutputBusses", model.numOfOutputBusses,
                          "a processor has nothing but the residual");
    else if (numOfNames > mostBusses)
        findings.addError("numOfOutputBusses", model.numOfOutputBusses,
                          "there are at most 15 busses besides the residual");
    if (model.numOfOutputChannels < 1)
        findings.addError("numOfOutputChannels", model.numOfOutputChannels, "needs 1 or more");
    std::set<std::string> names;
    for (const std::string& name : model.outputBusNames)
        if (!names.insert(name).second)
            findings.addWarning("outputBusNames", numOfNames, "two busses are called \"" + name + "\"");
}

// ---- the output --------------------------------------------------------------------------------

// What unpacking and the mixing of busses need of the slices that arrive.
void checkOutput(const Model& model, const ModelReport& report, Findings findings) {
    const BinLayout layout = getLayout(model, model.outputPacking);
    const auto [frequencies, columns] = report.output;
    if (!layout.isKnown())
        return findings.addError("outputPacking", layout.packing, "loads and cannot be run");
    const std::int64_t channels = columns / layout.getColumnsPerChannel();
    const std::int64_t needed =
        multiplyLimited(std::max(model.numOfOutputBusses, 0), std::max(model.numOfOutputChannels, 0));
    const std::string given =
        "the network gives " + std::to_string(channels) + " and the busses take " + std::to_string(needed);
    if (channels < needed)
        findings.addError("numOfOutputBusses", model.numOfOutputBusses,
                          "nothing fills the last of them: of channels " + given);
    else if (columns != multiplyLimited(needed, layout.getColumnsPerChannel()))
        findings.addWarning("numOfOutputBusses", model.numOfOutputBusses,
                            "some of the output is ignored: of channels " + given);

    const bool isGrouped = layout.packing == 6;
    if (model.numBins < 1 || (isGrouped && layout.binGroupSize < 1)) return;
    const std::int64_t rows = layout.countRowsRead(countBins(model));
    const std::string ofRows = "the network gives " + std::to_string(frequencies) + " rows and " +
                               std::to_string(model.numBins) + " bins take " + std::to_string(rows);
    if (frequencies < rows)
        findings.addError("outputPacking", model.outputPacking, ofRows);
    else if (frequencies != std::max<std::int64_t>(rows, model.tensorFrequencies))
        findings.addWarning("outputPacking", model.outputPacking, ofRows + ", the others are ignored");
}

// ---- the graph ---------------------------------------------------------------------------------

class Graph {
  public:
    explicit Graph(const Model& loaded) : model(loaded) {
        for (const auto& [name, entry] : model.layers)
            if (const auto* layer = std::get_if<std::shared_ptr<Layer>>(&entry); layer && *layer)
                names[layer->get()] = name;
        names[model.inputLayer.get()] = "input";
        for (const auto& [layer, name] : names) {
            std::vector<const Layer*>& list = sources[layer];
            for (const Layer* source : layer->getSources())
                if (names.contains(source)) list.push_back(source);
        }
        // Links that were made by hand stand in the list of consumers alone.
        std::set<std::pair<const Layer*, const Layer*>> links;
        for (const auto& [consumer, list] : sources)
            for (const Layer* source : list) links.emplace(source, consumer);
        for (const auto& [layer, name] : names)
            for (const Layer* consumer : layer->consumers)
                if (links.emplace(layer, consumer).second) sources[consumer].push_back(layer);
    }

    const std::map<const Layer*, std::string>& getNames() const { return names; }
    const std::vector<const Layer*>& getSources(const Layer* layer) { return sources[layer]; }

    // The layers that slices come to, sources before their consumers, and otherwise in the order in which
    // they are reached.
    std::vector<const Layer*> sort() {
        std::vector<const Layer*> sorted{model.inputLayer.get()};
        std::map<const Layer*, std::size_t> numOfReady;
        for (std::size_t i = 0; i < sorted.size(); ++i)
            for (const Layer* consumer : sorted[i]->consumers)
                if (names.contains(consumer) && ++numOfReady[consumer] == sources[consumer].size())
                    sorted.push_back(consumer);
        return sorted;
    }

    // The layers whose results have a way to the output.
    std::set<const Layer*> findUsed() {
        std::set<const Layer*> used{model.outputLayer.get()};
        std::vector<const Layer*> open{model.outputLayer.get()};
        while (!open.empty()) {
            const Layer* layer = open.back();
            open.pop_back();
            for (const Layer* source : sources[layer])
                if (used.insert(source).second) open.push_back(source);
        }
        return used;
    }

  private:
    const Model& model;
    std::map<const Layer*, std::string> names;
    std::map<const Layer*, std::vector<const Layer*>> sources;
};

std::int64_t limit(std::int64_t size) {
    return std::clamp<std::int64_t>(size, std::numeric_limits<std::int32_t>::min(),
                                    std::numeric_limits<std::int32_t>::max());
}

bool hasError(const std::vector<Finding>& findings) {
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.severity == Finding::Error; });
}

// What a layer with several sources needs of them, whatever it does with their slices.
void checkSources(LayerReport& report, const std::vector<double>& rates) {
    const std::set<std::string> different(report.sources.begin(), report.sources.end());
    if (different.size() < report.sources.size()) {
        report.addError("source", "", "one source is named twice, and its slices wait for others for ever");
        report.slicesPerFrame = 0.0;
    }
    const auto [slowest, fastest] = std::minmax_element(rates.begin(), rates.end());
    if (*slowest > 0.0 && *fastest - *slowest > 1e-9)
        report.addError("source", "",
                        "the sources give " + std::to_string(*slowest) + " and " + std::to_string(*fastest) +
                            " slices per frame, so that ever more of them wait");
    report.slicesPerFrame = std::min(report.slicesPerFrame, *slowest);
}

void requireAtMost(double cost, double limit, const std::string& unit) {
    if (cost <= limit) return;
    char text[64];
    std::snprintf(text, sizeof text, "one step costs up to %.3g, and %.3g is the limit, of ", cost, limit);
    throw std::length_error(text + unit);
}

class Walk {
  public:
    Walk(const Model& loaded, const SliceShape& input) : model(loaded), graph(loaded) {
        report.input = input;
    }

    ModelReport run() {
        checkInput(model, Findings(report.findings));
        flows[model.inputLayer.get()] = {report.input, 1.0, !hasError(report.findings), 1.0, 0.0};
        checkFrames(model, Findings(report.findings));
        checkBusses(model, Findings(report.findings));
        for (const Layer* layer : graph.sort())
            if (layer != model.inputLayer.get() && layer != model.outputLayer.get()) describe(*layer);
        report.numOfParameterBytes = multiplyLimited(report.numOfParameters, sizeof(float));
        checkReach();
        findOutput();
        checkCosts();
        return std::move(report);
    }

  private:
    struct Flow {
        SliceShape shape;
        double slicesPerFrame = 0.0;
        bool isSound = true;      // no error stands before it
        double mostSlices = 0.0;  // in one step
        double triggers = 0.0;    // that the layer hands on in one step, at most
    };

    void describe(const Layer& layer) {
        LayerReport entry;
        std::vector<double> rates;
        bool isSound = true;
        Flow most;
        entry.name = graph.getNames().at(&layer);
        for (const Layer* source : graph.getSources(&layer)) {
            entry.sources.push_back(graph.getNames().at(source));
            entry.inputs.push_back(flows[source].shape);
            rates.push_back(flows[source].slicesPerFrame);
            isSound &= flows[source].isSound;
            most.mostSlices = std::max(most.mostSlices, flows[source].mostSlices);
            most.triggers += flows[source].triggers;
            report.step.slices += flows[source].mostSlices;
        }
        entry.output = entry.inputs.front();
        entry.slicesPerFrame = rates.front();
        checkSources(entry, rates);
        const double rate = entry.slicesPerFrame;
        layer.describe(entry);
        entry.output = {limit(entry.output.frequencies), limit(entry.output.channels)};
        if (multiplyLimited(entry.output.numOfValues(), sizeof(float)) > std::numeric_limits<int>::max())
            entry.addError("", "", "makes slices of " + toText(entry.output) + ", which is more than 2 GiB");

        if (!isSound) entry.findings.clear();
        addCost(entry, rate, most);
        flows[&layer] = {entry.output, entry.slicesPerFrame, isSound && !hasError(entry.findings),
                         most.mostSlices, most.triggers};
        report.numOfParameters += entry.numOfParameters;
        report.multiplyAddsPerFrame += entry.multiplyAddsPerFrame;
        report.numOfStateBytes += std::min(entry.numOfStateBytes, std::int64_t{1} << 40);
        report.findings.insert(report.findings.end(), entry.findings.begin(), entry.findings.end());
        report.layers.push_back(std::move(entry));
    }

    // What the layer adds to a step that brings it most.mostSlices slices, rate being their mean, and what it
    // then hands on. A layer that throws ends the step.
    void addCost(const LayerReport& entry, double rate, Flow& most) {
        constexpr double workPerSlice = 1024.0, workPerValue = 8.0;
        StepCost& step = report.step;
        step.triggers += most.triggers;
        if (entry.triggers) most.triggers += most.mostSlices;
        const double slices = std::exchange(most.mostSlices, 0.0);
        if (entry.stops || !(rate > 0.0)) return;
        const double ratio = entry.slicesPerFrame / rate;
        most.mostSlices = ratio < 1.0 && ratio > 0.0 ? std::ceil(slices * ratio) : slices * ratio;
        most.mostSlices = std::min(most.mostSlices, mostCounted);

        double values = static_cast<double>(entry.output.numOfValues());
        for (const SliceShape& input : entry.inputs) values += static_cast<double>(input.numOfValues());
        const double work = std::max(slices, most.mostSlices) * (workPerSlice + workPerValue * values) +
                            slices / rate * entry.multiplyAddsPerFrame * entry.priceOfMultiplyAdd;
        step.work += work;
        if (work > workOfDearest) step.dearest = entry.name;
        workOfDearest = std::max(work, workOfDearest);
    }

    void checkCosts() {
        const auto check = [this](const auto& requireModest) {
            try {
                requireModest();
            } catch (const std::length_error& error) {
                report.findings.push_back({Finding::Error, {}, {}, {}, error.what()});
            }
        };
        check([&] { requireModestGraph(report); });
        check([&] { requireModestWork(report, model.hopSize / model.sampleRate); });
        const std::int64_t numOfBytes =
            multiplyLimited(report.numOfParameters, sizeof(float)) + report.numOfStateBytes;
        if (report.numOfStateBytes > limits::bytes)
            report.findings.push_back(
                {Finding::Error,
                 {},
                 {},
                 {},
                 "the layers take " + std::to_string(numOfBytes >> 20) + " MiB, and a model may take " +
                     std::to_string(limits::bytes >> 20) + " MiB and " +
                     std::to_string(limits::bytesPerByteOfFile) + " times the size of its file"});
    }

    void checkReach() {
        const std::set<const Layer*> used = graph.findUsed();
        for (const auto& [layer, name] : graph.getNames()) {
            if (layer == model.inputLayer.get() || layer == model.outputLayer.get()) continue;
            if (!flows.contains(layer))
                report.findings.push_back(
                    {Finding::Error, name, "source", {}, "nothing ever comes to this layer"});
            else if (!used.contains(layer))
                report.findings.push_back(
                    {Finding::Warning, name, {}, {}, "has no way to the output", "leave it out"});
        }
    }

    void findOutput() {
        bool isSound = true;
        for (const Layer* source : graph.getSources(model.outputLayer.get())) {
            report.outputSources.push_back(graph.getNames().at(source));
            report.output = flows[source].shape;
            report.outputSlicesPerFrame = flows[source].slicesPerFrame;
            report.step.slices += flows[source].mostSlices;
            isSound &= flows[source].isSound;
        }
        if (!isSound) return;
        const double rate = report.outputSlicesPerFrame;
        if (rate <= 0.0) return addOutputError("nothing ever reaches it");
        if (std::abs(rate - 1.0) > 1e-9)
            addOutputError("gets " + std::to_string(rate) + " slices per frame, and busses need one");
        checkOutput(model, report, Findings(report.findings));
    }

    void addOutputError(const std::string& problem) {
        report.findings.push_back({Finding::Error, {}, "output", {}, problem});
    }

    static constexpr double mostCounted = 1e15;

    const Model& model;
    Graph graph;
    ModelReport report;
    std::map<const Layer*, Flow> flows;
    double workOfDearest = 0.0;
};

}  // namespace

ModelReport describeModel(const NeuralModel<float>& model) {
    const bool isComplex = getLayout(model, model.inputPacking).isComplex();
    return describeModel(model, {model.tensorFrequencies, std::int64_t{model.numOfInputChannels} *
                                                              (isComplex ? 2 : model.numHistoryFrames)});
}

ModelReport describeModel(const NeuralModel<float>& model, const SliceShape& input) {
    return Walk(model, input).run();
}

double estimateSeconds(const StepCost& step, double numOfBins) {
    constexpr double workPerTrigger = 32.0, workPerBin = 128.0;
    return (step.work + workPerTrigger * step.triggers + workPerBin * numOfBins) / limits::workPerSecond;
}

void requireModestGraph(const ModelReport& report) {
    requireAtMost(report.step.slices, limits::slicesPerStep, "slices");
    requireAtMost(report.step.triggers, limits::triggersPerStep, "triggers");
}

void requireModestWork(const ModelReport& report, double hopSeconds) {
    const double hop =
        hopSeconds > limits::shortestHop ? std::min(hopSeconds, limits::longestHop) : limits::shortestHop;
    requireAtMost(report.step.work, hop * limits::hopsPerStep * limits::workPerSecond,
                  "multiply-adds, most of them in \"" + report.step.dearest + "\"");
}

void requireModestFrames(const NeuralModel<float>& model) {
    requireModestWork(describeModel(model), model.hopSize / model.sampleRate);
}

std::vector<Finding> checkModel(const NeuralModel<float>& model) {
    ModelReport report = describeModel(model);
    for (const LayerReport& layer : report.layers)
        for (const auto& [field, tensor] : layer.weights) {
            const float* values = tensor.getReadPointer();
            const int count = tensor.data ? std::max(0, tensor.getNumOfElements()) : 0;
            const auto numOfOthers =
                std::count_if(values, values + count, [](float value) { return !std::isfinite(value); });
            if (numOfOthers > 0)
                report.findings.push_back({Finding::Error, layer.name, field, toText(tensor.shape),
                                           std::to_string(numOfOthers) + " values are no finite numbers"});
        }
    return std::move(report.findings);
}

}  // namespace zevrant
