// LADSPA: one stereo plug-in for each model that ships. Its label is the model's name. The port "latency" has
// the only name by which hosts compensate.
#include <ladspa.h>

#include <cstdio>
#include <memory>
#include <new>
#include <vector>

#include "plugins/PortPlugin.h"

namespace zevrant::plugins {

namespace {

struct LadspaModel {
    explicit LadspaModel(const ShippedModel& shipped);
    LadspaModel(const LadspaModel&) = delete;
    LadspaModel& operator=(const LadspaModel&) = delete;

    const ShippedModel& model;
    const std::vector<Port> ports;
    std::vector<LADSPA_PortDescriptor> kinds;
    std::vector<const char*> names;
    std::vector<LADSPA_PortRangeHint> hints;
    LADSPA_Descriptor descriptor{};
};

PortPlugin& getPlugin(LADSPA_Handle handle) {
    return *static_cast<PortPlugin*>(handle);
}

LADSPA_Handle instantiate(const LADSPA_Descriptor* descriptor, unsigned long sampleRate) try {
    const auto& self = *static_cast<const LadspaModel*>(descriptor->ImplementationData);
    auto plugin = std::make_unique<PortPlugin>(self.ports, PluginCore::Options{},
                                               static_cast<double>(sampleRate), self.model.id);
    // LADSPA has no means to say it but this one.
    if (plugin->core.getStatus() != PluginCore::Status::Ready)
        std::fprintf(stderr, "%s passes audio on: %s\n", self.model.title, plugin->core.getMessage().c_str());
    return plugin.release();
} catch (const std::exception&) {
    return nullptr;  // no memory
}

LADSPA_PortRangeHint makeHint(const Port& port) {
    if (port.isAudio() || port.kind == Port::Kind::Latency) return {0, 0.0f, 0.0f};
    LADSPA_PortRangeHintDescriptor hint = LADSPA_HINT_DEFAULT_0;
    hint |= port.kind == Port::Kind::Bypass ? LADSPA_HINT_TOGGLED
                                            : LADSPA_HINT_BOUNDED_BELOW | LADSPA_HINT_BOUNDED_ABOVE;
    return {hint, port.getLowest(), port.getHighest()};
}

LadspaModel::LadspaModel(const ShippedModel& shipped)
    : model(shipped), ports(makePorts(shipped.busses, Port::Kind::Bypass, false)) {
    for (const Port& port : ports) {
        const bool isInput = port.kind != Port::Kind::Output && port.kind != Port::Kind::Latency;
        kinds.push_back((isInput ? LADSPA_PORT_INPUT : LADSPA_PORT_OUTPUT) |
                        (port.isAudio() ? LADSPA_PORT_AUDIO : LADSPA_PORT_CONTROL));
        names.push_back(port.name.c_str());
        hints.push_back(makeHint(port));
    }
    descriptor.UniqueID = model.number;
    descriptor.Label = model.id;
    descriptor.Properties = LADSPA_PROPERTY_HARD_RT_CAPABLE;
    descriptor.Name = model.title;
    descriptor.Maker = "zevrant";
    descriptor.Copyright = "None";
    descriptor.PortCount = ports.size();
    descriptor.PortDescriptors = kinds.data();
    descriptor.PortNames = names.data();
    descriptor.PortRangeHints = hints.data();
    descriptor.ImplementationData = this;
    descriptor.instantiate = instantiate;
    descriptor.connect_port = [](LADSPA_Handle handle, unsigned long port, LADSPA_Data* memory) {
        getPlugin(handle).connect(port, memory);
    };
    descriptor.activate = [](LADSPA_Handle handle) { getPlugin(handle).activate(); };
    descriptor.run = [](LADSPA_Handle handle, unsigned long numOfSamples) {
        getPlugin(handle).run(static_cast<int>(numOfSamples));
    };
    descriptor.cleanup = [](LADSPA_Handle handle) { delete &getPlugin(handle); };
}

}  // namespace

}  // namespace zevrant::plugins

extern "C" __attribute__((visibility("default"))) const LADSPA_Descriptor* ladspa_descriptor(
    unsigned long index) try {
    using namespace zevrant::plugins;
    static const std::vector<std::unique_ptr<LadspaModel>> models = [] {
        std::vector<std::unique_ptr<LadspaModel>> made;
        for (const ShippedModel& model : getShippedModels())
            made.push_back(std::make_unique<LadspaModel>(model));
        return made;
    }();
    return index < models.size() ? &models[index]->descriptor : nullptr;
} catch (const std::exception&) {
    return nullptr;
}
