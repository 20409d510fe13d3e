#include <cstdio>
#include <filesystem>
#include <memory>

#include "cli/Commands.h"
#include "cli/Failure.h"
#include "cli/Json.h"
#include "cli/Model.h"
#include "cli/Text.h"
#include "neural/ModelReport.h"
#include "separation/Separator.h"

namespace zevrant::cli {

namespace {

std::string describePacking(const NeuralModel<float>& network, int packing) {
    const std::string fine = std::to_string(network.numFineBins), rest = std::to_string(network.numBins);
    switch (packing) {
        case 1:
            return "magnitudes of " + rest + " bins";
        case 2:
            return "rectified parts of " + fine + " bins, magnitudes up to bin " + rest;
        case 4:
            return "real and imaginary parts of " + rest + " bins";
        case 5:
            return "a history of frames, which the engine does not run";
        case 6:
            return "real and imaginary parts of " + fine + " bins, then groups of " +
                   std::to_string(network.binGroupSize) + " up to bin " + rest;
        default:
            return "unknown";
    }
}

// 1234567 as "1.23 M"
std::string formatCount(double count) {
    char text[32];
    if (count >= 1e9)
        std::snprintf(text, sizeof text, "%.2f G", count / 1e9);
    else if (count >= 1e6)
        std::snprintf(text, sizeof text, "%.2f M", count / 1e6);
    else if (count >= 1e4)
        std::snprintf(text, sizeof text, "%.1f k", count / 1e3);
    else
        std::snprintf(text, sizeof text, "%.0f", count);
    return text;
}

std::string joinNames(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + makeHarmless(name);
    return text;
}

// What there is to say about the whole model.
struct Summary {
    explicit Summary(const Model& opened)
        : model(opened), network(opened.network), report(describeModel(opened.network)) {
        const int channels = network.numOfInputChannels > 0 ? network.numOfInputChannels : 1;
        latency =
            separation::Separator(model, separation::Output::Mix, channels, network.sampleRate).getLatency();
        framesPerSecond = network.sampleRate / network.hopSize;
    }

    double toMilliseconds(double numOfSamples) const { return 1000.0 * numOfSamples / network.sampleRate; }
    std::int64_t getFileSize() const {
        std::error_code error;
        return static_cast<std::int64_t>(std::filesystem::file_size(model.path, error));
    }

    const Model& model;
    const NeuralModel<float>& network;
    ModelReport report;
    int latency = 0;  // samples at the model's rate, framing included
    double framesPerSecond = 0.0;
};

void printText(const Summary& summary) {
    const NeuralModel<float>& network = summary.network;
    const ModelReport& report = summary.report;
    std::printf("%s\n", makeHarmless(network.modelName).c_str());
    std::printf("  file       %s, %s bytes\n", makeHarmless(summary.model.path.string()).c_str(),
                formatCount(static_cast<double>(summary.getFileSize())).c_str());
    if (!network.modelInfoText.empty())
        std::printf("  about      %s\n", makeHarmless(network.modelInfoText).c_str());
    std::printf("  audio      %g Hz, %d channels in, %d out\n", network.sampleRate,
                network.numOfInputChannels, network.numOfOutputChannels);
    std::printf("  frames     transform %d, window %d, hop %d samples: %.1f frames per second\n",
                network.fftSize, network.windowSize, network.hopSize, summary.framesPerSecond);
    std::printf("  takes      %s\n", describePacking(network, network.inputPacking).c_str());
    std::printf("  gives      %s, as %s\n", describePacking(network, network.outputPacking).c_str(),
                network.processingMode == 0 ? "masks" : "spectra");
    std::printf("  latency    network %d frames (%.1f ms), in all %d samples (%.1f ms)\n",
                network.latencyInFrames,
                summary.toMilliseconds(double{1} * network.latencyInFrames * network.hopSize),
                summary.latency, summary.toMilliseconds(summary.latency));
    const auto busNames = summary.model.getBusNames();
    for (std::size_t bus = 0; bus < busNames.size(); ++bus)
        std::printf("  %-10s %zu  %s%s\n", bus == 0 ? "busses" : "", bus, makeHarmless(busNames[bus]).c_str(),
                    bus + 1 == busNames.size() ? "  (residual: what the others leave)" : "");

    std::size_t nameWidth = 5, kindWidth = 4, sourceWidth = 7;
    for (const LayerReport& layer : report.layers) {
        nameWidth = std::max(nameWidth, makeHarmless(layer.name).size());
        kindWidth = std::max(kindWidth, layer.kind.size());
        sourceWidth = std::max(sourceWidth, joinNames(layer.sources).size());
    }
    const auto printRow = [&](const char* name, const char* kind, const char* sources, const char* shape,
                              const char* parameters, const char* work, const char* details) {
        std::printf("  %-*s  %-*s  %-*s  %12s  %10s  %10s  %s\n", static_cast<int>(nameWidth), name,
                    static_cast<int>(kindWidth), kind, static_cast<int>(sourceWidth), sources, shape,
                    parameters, work, details);
    };
    std::printf("\n");
    printRow("layer", "kind", "sources", "output", "parameters", "mul-adds", "");
    printRow("input", "", "", toText(report.input).c_str(), "", "", "frequencies x channels");
    for (const LayerReport& layer : report.layers)
        printRow(makeHarmless(layer.name).c_str(), layer.kind.c_str(), joinNames(layer.sources).c_str(),
                 toText(layer.output).c_str(),
                 formatCount(static_cast<double>(layer.numOfParameters)).c_str(),
                 formatCount(layer.multiplyAddsPerFrame).c_str(), layer.details.c_str());
    printRow("output", "", joinNames(report.outputSources).c_str(), "", "", "", "");
    printRow("total", "", "", "", formatCount(static_cast<double>(report.numOfParameters)).c_str(),
             formatCount(report.multiplyAddsPerFrame).c_str(), "per frame");
    std::printf("\n  work       %s multiply-adds per second, transforms and merging of busses not counted\n",
                formatCount(report.multiplyAddsPerFrame * summary.framesPerSecond).c_str());
    std::printf("  memory     parameters %s bytes, state between frames %s bytes\n",
                formatCount(static_cast<double>(report.numOfParameterBytes)).c_str(),
                formatCount(static_cast<double>(report.numOfStateBytes)).c_str());
}

Json toJson(const SliceShape& shape) {
    return Json::array({shape.frequencies, shape.channels});
}

void printJson(const Summary& summary) {
    const NeuralModel<float>& network = summary.network;
    Json layers = Json::array();
    for (const LayerReport& layer : summary.report.layers) {
        Json inputs = Json::array();
        for (const SliceShape& input : layer.inputs) inputs.push_back(toJson(input));
        layers.push_back({{"name", layer.name},
                          {"kind", layer.kind},
                          {"details", layer.details},
                          {"sources", layer.sources},
                          {"inputShapes", inputs},
                          {"outputShape", toJson(layer.output)},
                          {"slicesPerFrame", layer.slicesPerFrame},
                          {"parameters", layer.numOfParameters},
                          {"multiplyAddsPerFrame", layer.multiplyAddsPerFrame},
                          {"latencyInFrames", layer.latency},
                          {"stateBytes", layer.numOfStateBytes}});
    }
    writeJson(Json({{"name", network.modelName},
                    {"path", summary.model.path.string()},
                    {"about", network.modelInfoText},
                    {"fileBytes", summary.getFileSize()},
                    {"sampleRate", network.sampleRate},
                    {"inputChannels", network.numOfInputChannels},
                    {"outputChannels", network.numOfOutputChannels},
                    {"fftSize", network.fftSize},
                    {"windowSize", network.windowSize},
                    {"hopSize", network.hopSize},
                    {"inputPacking", network.inputPacking},
                    {"outputPacking", network.outputPacking},
                    {"bins", network.numBins},
                    {"fineBins", network.numFineBins},
                    {"gives", network.processingMode == 0 ? "masks" : "spectra"},
                    {"busses", summary.model.getBusNames()},
                    {"latencyInFrames", network.latencyInFrames},
                    {"latencyInSamples", summary.latency},
                    {"latencyInMilliseconds", summary.toMilliseconds(summary.latency)},
                    {"inputShape", toJson(summary.report.input)},
                    {"layers", layers},
                    {"outputSources", summary.report.outputSources},
                    {"parameters", summary.report.numOfParameters},
                    {"multiplyAddsPerFrame", summary.report.multiplyAddsPerFrame},
                    {"multiplyAddsPerSecond", summary.report.multiplyAddsPerFrame * summary.framesPerSecond},
                    {"parameterBytes", summary.report.numOfParameterBytes},
                    {"stateBytes", summary.report.numOfStateBytes}}));
}

// Names for Graphviz, one below the other. A name stays one line of its own letters, whatever is in it.
std::string quote(std::initializer_list<std::string> lines) {
    std::string quoted;
    for (const std::string& line : lines) {
        if (line.empty()) continue;
        quoted += quoted.empty() ? "" : "\\n";
        for (const char letter : makeHarmless(line)) {
            if (letter == '"' || letter == '\\') quoted += '\\';
            quoted += letter;
        }
    }
    return "\"" + quoted + "\"";
}

void printDot(const Summary& summary) {
    const ModelReport& report = summary.report;
    std::printf("digraph %s {\n", quote({summary.network.modelName}).c_str());
    std::printf(
        "  rankdir=TB;\n  node [shape=box, style=rounded, fontname=\"sans-serif\", fontsize=11];\n"
        "  edge [fontname=\"sans-serif\", fontsize=9];\n"
        "  \"input\" [shape=ellipse];\n  \"output\" [shape=ellipse];\n");
    for (const LayerReport& layer : report.layers)
        std::printf("  %s [label=%s];\n", quote({layer.name}).c_str(),
                    quote({layer.name, layer.kind, layer.details}).c_str());
    SliceShape last = report.input;
    for (const LayerReport& layer : report.layers) {
        for (std::size_t i = 0; i < layer.sources.size(); ++i)
            std::printf("  %s -> %s [label=\"%s\"];\n", quote({layer.sources[i]}).c_str(),
                        quote({layer.name}).c_str(), toText(layer.inputs[i]).c_str());
        for (const std::string& source : report.outputSources)
            if (source == layer.name) last = layer.output;
    }
    for (const std::string& source : report.outputSources)
        std::printf("  %s -> \"output\" [label=\"%s\"];\n", quote({source}).c_str(), toText(last).c_str());
    std::printf("}\n");
}

void printModelList() {
    for (const std::string& name : separation::listModels()) std::printf("%s\n", makeHarmless(name).c_str());
    for (const auto& folder : separation::getModelFolders())
        std::printf("  looked for in %s\n", makeHarmless(folder.string()).c_str());
}

void printModelListAsJson() {
    Json models = Json::array(), folders = Json::array();
    for (const std::string& name : separation::listModels())
        models.push_back({{"name", name}, {"path", separation::findModel(name).string()}});
    for (const auto& folder : separation::getModelFolders()) folders.push_back(folder.string());
    writeJson(Json({{"models", models}, {"folders", folders}}));
}

struct InfoCommand {
    std::string model;
    bool asDot = false;
    bool asJson = false;

    void run() const {
        if (model.empty()) return asJson ? printModelListAsJson() : printModelList();
        const Model opened = Model::open(model);
        const Summary summary(opened);
        if (asDot)
            printDot(summary);
        else if (asJson)
            printJson(summary);
        else
            printText(summary);
    }
};

}  // namespace

void addInfoCommand(CLI::App& program) {
    auto* command = program.add_subcommand("info", "Tells what a model is, or which models are installed");
    const auto options = std::make_shared<InfoCommand>();
    command->add_option("MODEL", options->model, "Model: a path, or the name of an installed one");
    auto* dot = command->add_flag("--dot", options->asDot, "The graph of layers, for Graphviz");
    command->add_flag("--json", options->asJson, "Everything, for programs")->excludes(dot);
    command->footer(
        "Shapes are frequencies x channels of one time slice. Multiply-adds are those of weights and levels, "
        "per\n"
        "frame of the input.\n"
        "\n"
        "Examples:\n"
        "  zevrant info harmonic-percussive\n"
        "  zevrant info harmonic-percussive --dot | dot -Tsvg > graph.svg\n"
        "  zevrant info my.zevrant --json | jq .latencyInMilliseconds\n"
        "  zevrant info --json | jq -r '.models[].name'");
    command->callback([options] { options->run(); });
}

}  // namespace zevrant::cli
