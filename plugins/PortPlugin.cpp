#include "plugins/PortPlugin.h"

#include <algorithm>

namespace zevrant::plugins {

namespace {

constexpr int numOfChannels = 2;
constexpr const char* sides[] = {"left", "right"};

PluginCore::Options addBusOutputs(PluginCore::Options options, std::span<const Port> ports) {
    for (const Port& port : ports)
        if (port.kind == Port::Kind::BusOutput) options.numOfBusOutputs = port.bus + 1;
    return options;
}

}  // namespace

float Port::getLowest() const {
    return kind == Kind::Level         ? PluginCore::lowestLevel
           : kind == Kind::Sensitivity ? -PluginCore::mostSensitivity
                                       : 0.0f;
}

float Port::getHighest() const {
    return kind == Kind::Level         ? PluginCore::highestLevel
           : kind == Kind::Sensitivity ? PluginCore::mostSensitivity
                                       : 1.0f;
}

std::vector<Port> makePorts(std::span<const ShippedBus> busses, Port::Kind kindOfSwitch, bool hasBusOutputs) {
    using Kind = Port::Kind;
    std::vector<Port> ports;
    for (const auto& [kind, name] : {std::pair(Kind::Input, "in"), std::pair(Kind::Output, "out")})
        for (int c = 0; c < numOfChannels; ++c)
            ports.push_back({kind, c, 0,
                             std::string(name == std::string("in") ? "Input " : "Output ") + sides[c],
                             std::string(name) + "_" + sides[c]});
    const auto addForBusses = [&](Kind kind, const std::string& what) {
        for (int bus = 0; bus < std::ssize(busses); ++bus)
            ports.push_back({kind, 0, bus, busses[static_cast<std::size_t>(bus)].name + (" " + what),
                             busses[static_cast<std::size_t>(bus)].symbol + ("_" + what)});
    };
    addForBusses(Kind::Level, "level");
    addForBusses(Kind::Sensitivity, "sensitivity");
    if (kindOfSwitch == Kind::Bypass)
        ports.push_back({kindOfSwitch, 0, 0, "Bypass", "bypass"});
    else
        ports.push_back({kindOfSwitch, 0, 0, "Enabled", "enabled"});
    ports.push_back({Kind::Latency, 0, 0, "latency", "latency"});
    if (!hasBusOutputs) return ports;
    for (int bus = 0; bus < std::ssize(busses); ++bus)
        for (int c = 0; c < numOfChannels; ++c) {
            const ShippedBus& names = busses[static_cast<std::size_t>(bus)];
            ports.push_back({Kind::BusOutput, c, bus, names.name + (std::string(" ") + sides[c]),
                             names.symbol + (std::string("_") + sides[c])});
        }
    return ports;
}

PortPlugin::PortPlugin(std::span<const Port> portsOfPlugin, PluginCore::Options options, double sampleRate,
                       const std::string& model)
    : core(addBusOutputs(options, portsOfPlugin)), ports(portsOfPlugin), memories(ports.size()) {
    for (const Port& port : ports) {
        if (port.kind == Port::Kind::Input) inputs.push_back(nullptr);
        if (port.isAudioOutput()) outputs.push_back(nullptr);
    }
    core.requestModel(model);
    core.activate(sampleRate);
}

void PortPlugin::readControls() noexcept {
    for (std::size_t i = 0; i < ports.size(); ++i) {
        if (!memories[i]) continue;
        const float value = *memories[i];
        switch (ports[i].kind) {
            case Port::Kind::Level:
                core.setLevel(ports[i].bus, value);
                break;
            case Port::Kind::Sensitivity:
                core.setSensitivity(ports[i].bus, value);
                break;
            case Port::Kind::Bypass:
                core.setBypassed(value > 0.0f);
                break;
            case Port::Kind::Enabled:
                core.setBypassed(!(value > 0.0f));
                break;
            default:
                break;
        }
    }
}

void PortPlugin::run(int numOfSamples) noexcept {
    std::size_t numOfInputs = 0, numOfOutputs = 0;
    for (std::size_t i = 0; i < ports.size(); ++i) {
        if (ports[i].kind == Port::Kind::Input) inputs[numOfInputs++] = memories[i];
        if (ports[i].isAudioOutput()) outputs[numOfOutputs++] = memories[i];
    }
    if (numOfSamples > 0) {
        readControls();
        if (isFresh) core.reset();
        isFresh = false;
    }
    const bool isConnected =
        std::none_of(inputs.begin(), inputs.end(), [](const float* row) { return !row; });
    if (isConnected) core.process(inputs.data(), outputs.data(), numOfSamples);
    for (std::size_t i = 0; i < ports.size(); ++i)
        if (ports[i].kind == Port::Kind::Latency && memories[i])
            *memories[i] = static_cast<float>(core.getLatency());
}

}  // namespace zevrant::plugins
