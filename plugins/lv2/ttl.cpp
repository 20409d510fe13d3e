// Writes the data of the LV2 bundle, manifest.ttl and zevrant.ttl, into a folder.
//
//   zevrant_lv2_ttl FOLDER VERSION
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

#include "plugins/lv2/Lv2Models.h"

namespace {

using namespace zevrant::plugins;

constexpr const char* prefixes = R"(@prefix atom: <http://lv2plug.in/ns/ext/atom#> .
@prefix doap: <http://usefulinc.com/ns/doap#> .
@prefix foaf: <http://xmlns.com/foaf/0.1/> .
@prefix lv2: <http://lv2plug.in/ns/lv2core#> .
@prefix patch: <http://lv2plug.in/ns/ext/patch#> .
@prefix pg: <http://lv2plug.in/ns/ext/port-groups#> .
@prefix pprops: <http://lv2plug.in/ns/ext/port-props#> .
@prefix rdfs: <http://www.w3.org/2000/01/rdf-schema#> .
@prefix rsz: <http://lv2plug.in/ns/ext/resize-port#> .
@prefix state: <http://lv2plug.in/ns/ext/state#> .
@prefix units: <http://lv2plug.in/ns/extensions/units#> .
@prefix urid: <http://lv2plug.in/ns/ext/urid#> .
@prefix work: <http://lv2plug.in/ns/ext/worker#> .

)";

std::string quote(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += c == '\n' ? ' ' : c;
    }
    return quoted + '"';
}

// The output of busses are in groups of their own, so that hosts show them as stereo.
std::string getGroup(const Lv2Model& model, const Port& port) {
    if (port.kind == Port::Kind::Input) return "<urn:zevrant:group:in>";
    if (port.kind == Port::Kind::Output) return "<urn:zevrant:group:out>";
    return "<" + model.uri + ":" + model.model->busses[static_cast<std::size_t>(port.bus)].symbol + ">";
}

std::string describeAudio(const Lv2Model& model, const Port& port) {
    return " ;\n        lv2:designation " + std::string(port.channel == 0 ? "pg:left" : "pg:right") +
           " ;\n        pg:group " + getGroup(model, port) +
           (port.kind == Port::Kind::BusOutput ? " ;\n        lv2:portProperty lv2:connectionOptional" : "");
}

std::string describeControl(const Port& port) {
    if (port.kind == Port::Kind::Latency)
        return " ;\n        lv2:designation lv2:latency ;\n        lv2:portProperty lv2:reportsLatency , "
               "lv2:integer ;\n        units:unit units:frame ;\n        lv2:minimum 0 ;\n        "
               "lv2:maximum 10000000";
    std::string text = " ;\n        lv2:default " + std::to_string(port.getDefault()) +
                       " ;\n        lv2:minimum " + std::to_string(port.getLowest()) +
                       " ;\n        lv2:maximum " + std::to_string(port.getHighest());
    if (port.kind == Port::Kind::Level) text += " ;\n        units:unit units:db";
    if (port.kind == Port::Kind::Enabled)
        text += " ;\n        lv2:designation lv2:enabled ;\n        lv2:portProperty lv2:toggled";
    return text;
}

std::string describePort(const Lv2Model& model, std::size_t index) {
    const Port& port = model.ports[index];
    const bool isInput = !port.isAudioOutput() && port.kind != Port::Kind::Latency;
    return std::string("    [\n        a ") + (isInput ? "lv2:InputPort" : "lv2:OutputPort") + " , " +
           (port.isAudio() ? "lv2:AudioPort" : "lv2:ControlPort") + " ;\n        lv2:index " +
           std::to_string(index) + " ;\n        lv2:symbol " + quote(port.symbol) + " ;\n        lv2:name " +
           quote(port.name) + (port.isAudio() ? describeAudio(model, port) : describeControl(port)) +
           "\n    ]";
}

std::string describeMessagePort(std::size_t index, bool isInput) {
    return std::string(" ,\n    [\n        a ") + (isInput ? "lv2:InputPort" : "lv2:OutputPort") +
           " , atom:AtomPort ;\n        atom:bufferType atom:Sequence ;\n        atom:supports patch:Message "
           ";\n"
           "        lv2:designation lv2:control ;\n        rsz:minimumSize " +
           std::to_string(sizeOfMessages) + " ;\n        lv2:index " + std::to_string(index) +
           " ;\n        lv2:symbol \"" + (isInput ? "control" : "notify") + "\" ;\n        lv2:name \"" +
           (isInput ? "Control" : "Notify") + "\" ;\n        lv2:portProperty lv2:connectionOptional\n    ]";
}

std::string describe(const Lv2Model& model, const std::string& minorVersion,
                     const std::string& microVersion) {
    std::string text = "<" + model.uri + ">\n    a lv2:Plugin , lv2:SpectralPlugin , doap:Project ;\n" +
                       "    doap:name " + quote(model.title) +
                       " ;\n    doap:license <urn:zevrant:licence> ;\n" +
                       "    doap:maintainer [ foaf:name \"zevrant\" ] ;\n    rdfs:comment " +
                       quote(model.model ? model.model->description
                                         : "Runs the model of any path. Audio passes where it has none.") +
                       " ;\n    lv2:minorVersion " + minorVersion + " ;\n    lv2:microVersion " +
                       microVersion + " ;\n    lv2:optionalFeature lv2:hardRTCapable";
    if (!model.model)
        text +=
            " , work:schedule , state:threadSafeRestore ;\n    lv2:requiredFeature urid:map ;\n"
            "    lv2:extensionData work:interface , state:interface ;\n"
            "    patch:writable <" +
            std::string(modelPropertyUri) + "> ;\n    patch:readable <" + std::string(modelPropertyUri) + ">";
    text +=
        " ;\n    pg:mainInput <urn:zevrant:group:in> ;\n    pg:mainOutput <urn:zevrant:group:out> ;\n    "
        "lv2:port\n";
    for (std::size_t i = 0; i < model.ports.size(); ++i)
        text += (i > 0 ? " ,\n" : "") + describePort(model, i);
    if (!model.model)
        text += describeMessagePort(model.getControlPort(), true) +
                describeMessagePort(model.getNotifyPort(), false);
    return text + " .\n\n";
}

std::string describeGroups(const Lv2Model& model) {
    std::string text;
    for (const Port& port : model.ports)
        if (port.kind == Port::Kind::BusOutput && port.channel == 0) {
            const ShippedBus& bus = model.model->busses[static_cast<std::size_t>(port.bus)];
            text += getGroup(model, port) + "\n    a pg:StereoGroup , pg:OutputGroup ;\n    lv2:symbol " +
                    quote(bus.symbol) + " ;\n    lv2:name " + quote(bus.name) + " .\n\n";
        }
    return text;
}

void write(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    if (!file.flush()) throw std::runtime_error(path + ": cannot be written");
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 3) return 2;
    const std::string folder = argv[1], version = argv[2];
    const std::size_t point = version.find('.'), secondPoint = version.find('.', point + 1);
    const std::string minorVersion = version.substr(point + 1, secondPoint - point - 1);
    const std::string microVersion = version.substr(secondPoint + 1);

    std::string manifest = prefixes, data = prefixes;
    for (const auto& [symbol, name] : {std::pair("in", "Input"), std::pair("out", "Output")})
        data += std::string("<urn:zevrant:group:") + symbol + ">\n    a pg:StereoGroup , pg:" + name +
                "Group ;\n    lv2:symbol \"" + symbol + "\" ;\n    lv2:name \"" + name + "\" .\n\n";
    data += "<" + std::string(modelPropertyUri) +
            ">\n    a lv2:Parameter ;\n    rdfs:label \"Model\" ;\n    rdfs:range atom:Path .\n\n";
    for (const Lv2Model& model : makeLv2Models()) {
        manifest +=
            "<" + model.uri +
            ">\n    a lv2:Plugin ;\n    lv2:binary <zevrant.so> ;\n    rdfs:seeAlso <zevrant.ttl> .\n\n";
        data += describeGroups(model) + describe(model, minorVersion, microVersion);
    }
    write(folder + "/manifest.ttl", manifest);
    write(folder + "/zevrant.ttl", data);
} catch (const std::exception& error) {
    std::fprintf(stderr, "zevrant_lv2_ttl: %s\n", error.what());
    return 1;
}
