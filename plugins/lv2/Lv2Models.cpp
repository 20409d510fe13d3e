#include "plugins/lv2/Lv2Models.h"

#include <array>

namespace zevrant::plugins {

namespace {

// Names for the busses of whatever model is chosen: "Bus 1", and level1 as the symbol of its level.
std::vector<Port> makePortsOfAnyModel() {
    static_assert(PluginCore::mostBussesOfAnyModel == 8);
    static constexpr std::array<ShippedBus, 8> busses{{{"Bus 1", "1"},
                                                       {"Bus 2", "2"},
                                                       {"Bus 3", "3"},
                                                       {"Bus 4", "4"},
                                                       {"Bus 5", "5"},
                                                       {"Bus 6", "6"},
                                                       {"Bus 7", "7"},
                                                       {"Bus 8", "8"}}};
    std::vector<Port> ports = makePorts(busses, Port::Kind::Enabled, false);
    for (Port& port : ports) {
        if (port.kind == Port::Kind::Level) port.symbol = "level" + std::to_string(port.bus + 1);
        if (port.kind == Port::Kind::Sensitivity) port.symbol = "sensitivity" + std::to_string(port.bus + 1);
    }
    return ports;
}

}  // namespace

std::vector<Lv2Model> makeLv2Models() {
    std::vector<Lv2Model> models;
    for (const ShippedModel& model : getShippedModels()) {
        const std::string uri = std::string("urn:zevrant:") + model.id, title = model.title;
        models.push_back({&model, uri, title, makePorts(model.busses, Port::Kind::Enabled, false)});
        models.push_back(
            {&model, uri + ":stems", title + " (stems)", makePorts(model.busses, Port::Kind::Enabled, true)});
    }
    models.push_back({nullptr, "urn:zevrant:any", "Zevrant (any model)", makePortsOfAnyModel()});
    return models;
}

}  // namespace zevrant::plugins
