#include "plugins/HostedPlugin.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <system_error>

namespace zevrant::plugins {

namespace {

constexpr const char* firstLineOfState = "zevrant 1";

constexpr const char* statusTexts[] = {"no model",         "loading",         "ready",
                                       "model is missing", "model is broken", "waits for a restart"};

// Numbers as text, the same in every country.
std::string toText(double value) {
    char text[32];
    const auto result = std::to_chars(std::begin(text), std::end(text), value);
    return {text, result.ptr};
}

std::optional<double> toNumber(std::string_view text) {
    double value = 0.0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec != std::errc() || !std::isfinite(value)) return std::nullopt;
    return value;
}

std::string describeNumber(const char* format, double value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    std::replace(std::begin(text), std::end(text), ',', '.');
    return text;
}

PluginCore::Options makeOptions(const PluginType& type) {
    PluginCore::Options options;
    options.numOfBusOutputs =
        type.model ? static_cast<int>(type.model->busses.size()) : PluginCore::mostBussesOfAnyModel;
    options.changesModels = type.model == nullptr;
    return options;
}

}  // namespace

const std::vector<PluginType>& getPluginTypes() {
    static const std::vector<PluginType> types = [] {
        std::vector<PluginType> all;
        for (const ShippedModel& model : getShippedModels())
            all.push_back({std::string("zevrant.") + model.id, model.title, model.description, &model});
        all.push_back({"zevrant.any-model", "Zevrant Any Model",
                       "Runs a model of your choice from the model folders.", nullptr});
        return all;
    }();
    return types;
}

// ---- parameters --------------------------------------------------------------------------------

HostedPlugin::HostedPlugin(const PluginType& typeOfPlugin)
    : type(typeOfPlugin), core(makeOptions(typeOfPlugin)) {
    if (type.model) {
        for (const ShippedBus& bus : type.model->busses) busses.push_back({bus.name, bus.symbol});
        core.requestModel(type.model->id);
    } else {
        for (int bus = 1; bus <= PluginCore::mostBussesOfAnyModel; ++bus)
            busses.push_back({"Bus " + std::to_string(bus), "bus" + std::to_string(bus)});
        files = listModelFiles();
        paths.emplace_back();
        for (const ModelFile& file : files) paths.push_back(file.path.string());
    }
    for (const Bus& bus : busses) busNames.push_back(bus.name);
    addParameters();
}

void HostedPlugin::addParameters() {
    parameters.push_back({.id = bypassId,
                          .name = "Bypass",
                          .unit = "",
                          .least = 0.0,
                          .most = 1.0,
                          .initial = 0.0,
                          .isStepped = true,
                          .isBypass = true});
    if (!type.model)
        parameters.push_back({.id = modelId,
                              .name = "Model",
                              .unit = "",
                              .least = 0.0,
                              .most = static_cast<double>(getOtherChoice()),
                              .initial = 0.0,
                              .isStepped = true});
    parameters.push_back({.id = statusId,
                          .name = "Status",
                          .unit = "",
                          .least = 0.0,
                          .most = waitsForRestart,
                          .initial = 0.0,
                          .isStepped = true,
                          .isReadOnly = true});
    for (std::uint32_t bus = 0; bus < busses.size(); ++bus)
        parameters.push_back(
            {.id = levelId + bus,
             .name = type.model ? busses[bus].name + " level" : "Level " + std::to_string(bus + 1),
             .unit = "dB",
             .least = PluginCore::lowestLevel,
             .most = PluginCore::highestLevel,
             .initial = 0.0});
    for (std::uint32_t bus = 0; bus < busses.size(); ++bus)
        parameters.push_back({.id = sensitivityId + bus,
                              .name = type.model ? busses[bus].name + " sensitivity"
                                                 : "Sensitivity " + std::to_string(bus + 1),
                              .unit = "",
                              .least = -PluginCore::mostSensitivity,
                              .most = PluginCore::mostSensitivity,
                              .initial = 0.0});
}

const Parameter* HostedPlugin::findParameter(std::uint32_t id) const noexcept {
    const auto found = std::find_if(parameters.begin(), parameters.end(),
                                    [&](const Parameter& parameter) { return parameter.id == id; });
    return found != parameters.end() ? &*found : nullptr;
}

double HostedPlugin::getValue(std::uint32_t id) const noexcept {
    if (id == bypassId) return core.isBypassed() ? 1.0 : 0.0;
    if (id == modelId) return choice;
    if (id == statusId)
        return core.getNextLatency() ? waitsForRestart : static_cast<double>(core.getStatus());
    return id >= sensitivityId ? core.getSensitivity(static_cast<int>(id - sensitivityId))
                               : core.getLevel(static_cast<int>(id - levelId));
}

void HostedPlugin::setValue(std::uint32_t id, double value) noexcept {
    const Parameter* parameter = findParameter(id);
    if (!parameter || parameter->isReadOnly || !(value == value)) return;
    const double within = std::clamp(value, parameter->least, parameter->most);
    if (id == bypassId)
        core.setBypassed(within >= 0.5);
    else if (id == modelId)
        choose(static_cast<int>(std::lround(within)));
    else if (id >= sensitivityId)
        core.setSensitivity(static_cast<int>(id - sensitivityId), static_cast<float>(within));
    else
        core.setLevel(static_cast<int>(id - levelId), static_cast<float>(within));
}

std::string HostedPlugin::getText(std::uint32_t id, double value) const {
    const Parameter* parameter = findParameter(id);
    if (!parameter) return {};
    const double within = std::clamp(value, parameter->least, parameter->most);
    if (id == bypassId) return within >= 0.5 ? "on" : "off";
    if (id == statusId) return statusTexts[std::lround(within)];
    if (id == modelId) {
        const auto index = static_cast<int>(std::lround(within));
        if (index == 0) return "none";
        if (index < getOtherChoice()) return files[static_cast<std::size_t>(index - 1)].name;
        const Other* model = other;
        return model ? model->text : "another";
    }
    if (id >= sensitivityId) return describeNumber("%.0f", within);
    return within <= PluginCore::lowestLevel ? "silent" : describeNumber("%.1f dB", within);
}

std::optional<double> HostedPlugin::getValue(std::uint32_t id, std::string_view text) const {
    const Parameter* parameter = findParameter(id);
    if (!parameter) return std::nullopt;
    if (parameter->isStepped || text == "silent") {
        for (double value = parameter->least; value <= parameter->most; value += 1.0)
            if (getText(id, value) == text) return value;
        return std::nullopt;
    }
    const std::optional<double> value = toNumber(text);
    if (value && (*value < parameter->least || *value > parameter->most)) return std::nullopt;
    return value;
}

// ---- model -------------------------------------------------------------------------------------

void HostedPlugin::choose(int newChoice) noexcept {
    if (newChoice == choice || (newChoice == getOtherChoice() && !other.load())) return;
    choice = newChoice;
    requestChoice();
}

// Where the worker is just reading an earlier request, the next block asks again.
void HostedPlugin::requestChoice() noexcept {
    const int index = choice;
    const Other* model = other;
    if (index == getOtherChoice() && !model) return;
    isRequestDue =
        !core.requestModel(index == getOtherChoice() ? model->path : paths[static_cast<std::size_t>(index)]);
}

void HostedPlugin::loadModel(const ModelReference& reference) {
    const std::filesystem::path path =
        reference.name.empty() ? std::filesystem::path() : findModelFile(reference);
    const auto place = std::find(paths.begin(), paths.end(), path.string());
    if (place != paths.end() && (reference.name.empty() || !path.empty())) {
        choice = static_cast<int>(place - paths.begin());
    } else {
        const bool isMissing = path.empty();
        others.push_back({reference, isMissing ? reference.name : path.string(),
                          reference.name + (isMissing ? " (missing)" : "")});
        other = &others.back();
        choice = getOtherChoice();
    }
    requestChoice();
}

void HostedPlugin::process(const float* const* in, float* const* out, int numOfSamples) noexcept {
    if (isRequestDue) requestChoice();
    core.process(in, out, numOfSamples);
}

// ---- state -------------------------------------------------------------------------------------

std::string HostedPlugin::save() const {
    std::string state = std::string(firstLineOfState) + "\n";
    const auto add = [&](const std::string& key, const std::string& value) {
        state += key + " " + value + "\n";
    };
    if (!type.model) {
        const int index = choice;
        const Other* model = other;
        if (index == getOtherChoice() && model)
            add("model", model->reference.getText());
        else if (index > 0)
            add("model", makeReference(paths[static_cast<std::size_t>(index)]).getText());
    }
    add("bypass", toText(getValue(bypassId)));
    for (std::uint32_t bus = 0; bus < busses.size(); ++bus) {
        add(busses[bus].symbol + ".level", toText(getValue(levelId + bus)));
        add(busses[bus].symbol + ".sensitivity", toText(getValue(sensitivityId + bus)));
    }
    return state;
}

bool HostedPlugin::load(const std::string& state) {
    std::istringstream lines(state);
    std::string line, model;
    if (!std::getline(lines, line) || line != firstLineOfState) return false;
    for (const Parameter& parameter : parameters)
        if (parameter.id != modelId) setValue(parameter.id, parameter.initial);
    while (std::getline(lines, line)) {
        const std::size_t space = line.find(' ');
        if (space == std::string::npos) continue;
        const std::string key = line.substr(0, space), text = line.substr(space + 1);
        const double value = toNumber(text).value_or(0.0);
        if (key == "model") model = text;
        if (key == "bypass") setValue(bypassId, value);
        for (std::uint32_t bus = 0; bus < busses.size(); ++bus) {
            if (key == busses[bus].symbol + ".level") setValue(levelId + bus, value);
            if (key == busses[bus].symbol + ".sensitivity") setValue(sensitivityId + bus, value);
        }
    }
    if (!type.model) loadModel(ModelReference::fromText(model));
    return true;
}

}  // namespace zevrant::plugins
