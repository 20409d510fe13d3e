// LV2: for each model that ships a stereo plug-in and one with its busses apart, and one for any model.
// Nothing is required of hosts but URIDs, and those only for any model. Its model is the property
// urn:zevrant:model, a path; a state holds name and checksum beside it, so that projects move between
// machines.
#include <lv2/atom/atom.h>
#include <lv2/atom/forge.h>
#include <lv2/atom/util.h>
#include <lv2/core/lv2.h>
#include <lv2/log/log.h>
#include <lv2/patch/patch.h>
#include <lv2/state/state.h>
#include <lv2/urid/urid.h>
#include <lv2/worker/worker.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

#include "plugins/ModelFiles.h"
#include "plugins/lv2/Lv2Models.h"

namespace zevrant::plugins {

namespace {

// What the host offers.
struct Features {
    explicit Features(const LV2_Feature* const* features) {
        for (; features && *features; ++features) {
            const std::string_view uri = (*features)->URI;
            void* const data = (*features)->data;
            if (uri == LV2_URID__map) map = static_cast<LV2_URID_Map*>(data);
            if (uri == LV2_WORKER__schedule) schedule = static_cast<LV2_Worker_Schedule*>(data);
            if (uri == LV2_LOG__log) log = static_cast<LV2_Log_Log*>(data);
            if (uri == LV2_STATE__mapPath) mapPath = static_cast<LV2_State_Map_Path*>(data);
            if (uri == LV2_STATE__freePath) freePath = static_cast<LV2_State_Free_Path*>(data);
        }
    }

    LV2_URID_Map* map = nullptr;
    LV2_Worker_Schedule* schedule = nullptr;
    LV2_Log_Log* log = nullptr;
    LV2_State_Map_Path* mapPath = nullptr;
    LV2_State_Free_Path* freePath = nullptr;
};

class Lv2Plugin {
  public:
    Lv2Plugin(const Lv2Model& lv2Model, double sampleRate, const Features& features)
        : model(lv2Model),
          map(features.map),
          log(features.log),
          schedule(model.model ? nullptr : features.schedule),
          plugin(model.ports, {.changesModels = !model.model && !schedule, .takesAnyLatency = true},
                 sampleRate, model.model ? model.model->id : "") {
        if (map) {
            lv2_atom_forge_init(&forge, map);
            modelProperty = getId(modelPropertyUri);
            referenceProperty = getId(referencePropertyUri);
            patchSet = getId(LV2_PATCH__Set);
            patchGet = getId(LV2_PATCH__Get);
            patchProperty = getId(LV2_PATCH__property);
            patchValue = getId(LV2_PATCH__value);
            logError = getId(LV2_LOG__Error);
        }
        if (model.model) sayFault();
    }

    void connect(std::size_t port, void* memory) {
        if (port < model.ports.size())
            plugin.connect(port, memory);
        else if (port == model.getControlPort())
            control = static_cast<const LV2_Atom_Sequence*>(memory);
        else
            notify = static_cast<LV2_Atom_Sequence*>(memory);
    }

    // A state may have brought another model since the plug-in was made.
    void activate(double sampleRate) {
        plugin.core.activate(sampleRate);
        plugin.activate();
        setPath(plugin.core.getModelPath());
        if (!model.model) sayFault();
    }

    void run(int numOfSamples) noexcept {
        if (!model.model && map) {
            readMessages();
            if (!asked.empty() && plugin.core.requestModel(asked)) asked = {};
            if (schedule && !isScheduled && plugin.core.needsWork()) {
                const char nothing = 0;
                isScheduled = schedule->schedule_work(schedule->handle, 1, &nothing) == LV2_WORKER_SUCCESS;
            }
        }
        plugin.run(numOfSamples);
        if (!model.model && map) writeMessages();
    }

    // On the host's worker. The path goes back to the audio thread.
    LV2_Worker_Status work(LV2_Worker_Respond_Function respond, LV2_Worker_Respond_Handle handle) {
        plugin.core.work();
        sayFault();
        const std::string path = plugin.core.getModelPath();
        const auto size = static_cast<std::uint32_t>(std::min(path.size(), pathOfModel.size() - 1));
        return respond(handle, size, path.data());
    }

    void endWork(const void* path, std::size_t size) noexcept {
        isScheduled = false;
        if (asked.empty()) setPath({static_cast<const char*>(path), size});
    }

    LV2_State_Status save(LV2_State_Store_Function store, LV2_State_Handle handle, const Features& features) {
        const std::string path = plugin.core.getModelPath();
        if (!map || path.empty()) return LV2_STATE_SUCCESS;
        const std::string reference = makeReference(path).getText();
        const std::uint32_t flags = LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE;
        store(handle, referenceProperty, reference.c_str(), reference.size() + 1, forge.String, flags);
        if (!features.mapPath) return LV2_STATE_SUCCESS;
        char* const abstract = features.mapPath->abstract_path(features.mapPath->handle, path.c_str());
        if (!abstract) return LV2_STATE_ERR_UNKNOWN;
        store(handle, modelProperty, abstract, std::strlen(abstract) + 1, forge.Path, flags);
        freePath(features, abstract);
        return LV2_STATE_SUCCESS;
    }

    // The file at the path that was saved, where it is the very one, or else what name and checksum mean.
    LV2_State_Status restore(LV2_State_Retrieve_Function retrieve, LV2_State_Handle handle,
                             const Features& features) {
        if (!map) return LV2_STATE_ERR_NO_FEATURE;
        const std::optional<std::string> text = getText(retrieve, handle, referenceProperty, forge.String);
        const std::optional<std::string> saved = getText(retrieve, handle, modelProperty, forge.Path);
        std::string path = saved.value_or("");
        if (saved && features.mapPath) {
            char* const absolute = features.mapPath->absolute_path(features.mapPath->handle, saved->c_str());
            if (absolute) path = absolute;
            freePath(features, absolute);
        }
        if (text) {
            const ModelReference reference = ModelReference::fromText(*text);
            if (path.empty() || makeReference(path).checksum != reference.checksum) {
                const std::filesystem::path found = findModelFile(reference);
                if (!found.empty() || path.empty()) path = found.empty() ? reference.name : found.string();
            }
        }
        while (!plugin.core.requestModel(path)) {
            if (path.size() > 4095) return LV2_STATE_ERR_BAD_TYPE;
        }
        return LV2_STATE_SUCCESS;
    }

  private:
    LV2_URID getId(const char* uri) const { return map->map(map->handle, uri); }

    static void freePath(const Features& features, char* path) {
        if (features.freePath)
            features.freePath->free_path(features.freePath->handle, path);
        else
            std::free(path);
    }

    static std::optional<std::string> getText(LV2_State_Retrieve_Function retrieve, LV2_State_Handle handle,
                                              LV2_URID key, LV2_URID expectedType) {
        std::size_t size = 0;
        std::uint32_t type = 0, flags = 0;
        const auto* text = static_cast<const char*>(retrieve(handle, key, &size, &type, &flags));
        if (!text || type != expectedType) return std::nullopt;
        return std::string(text, strnlen(text, size));
    }

    void sayFault() {
        const PluginCore::Status status = plugin.core.getStatus();
        if (status != PluginCore::Status::Missing && status != PluginCore::Status::Broken) return;
        const std::string text = model.title + " passes audio on: " + plugin.core.getMessage() + "\n";
        if (log && map)
            log->printf(log->handle, logError, "%s", text.c_str());
        else
            std::fputs(text.c_str(), stderr);
    }

    void setPath(std::string_view path) noexcept {
        lengthOfPath = std::min(path.size(), pathOfModel.size() - 1);
        std::copy_n(path.begin(), lengthOfPath, pathOfModel.begin());
        pathOfModel[lengthOfPath] = '\0';
        hasNews = true;
    }

    void readMessages() noexcept {
        if (!control) return;
        LV2_ATOM_SEQUENCE_FOREACH(control, event) {
            if (!lv2_atom_forge_is_object_type(&forge, event->body.type)) continue;
            const auto* message = reinterpret_cast<const LV2_Atom_Object*>(&event->body);
            const LV2_Atom *property = nullptr, *value = nullptr;
            lv2_atom_object_get(message, patchProperty, &property, patchValue, &value, 0);
            const bool isOurs = property && property->type == forge.URID &&
                                reinterpret_cast<const LV2_Atom_URID*>(property)->body == modelProperty;
            if (message->body.otype == patchGet && (!property || isOurs)) hasNews = true;
            if (message->body.otype != patchSet || !isOurs || !value) continue;
            if (value->type != forge.Path && value->type != forge.String) continue;
            const auto* text = static_cast<const char*>(LV2_ATOM_BODY_CONST(value));
            setPath({text, strnlen(text, value->size)});
            asked = {pathOfModel.data(), lengthOfPath};
            if (asked.empty()) plugin.core.requestModel("");
        }
    }

    // Tells the path of the model to whoever asked, and when it is another.
    void writeMessages() noexcept {
        if (!notify) return;
        const std::uint32_t capacity = notify->atom.size;
        lv2_atom_forge_set_buffer(&forge, reinterpret_cast<std::uint8_t*>(notify), capacity);
        LV2_Atom_Forge_Frame sequence, message;
        if (!lv2_atom_forge_sequence_head(&forge, &sequence, 0)) return;
        if (hasNews && capacity >= lengthOfPath + 256) {
            lv2_atom_forge_frame_time(&forge, 0);
            lv2_atom_forge_object(&forge, &message, 0, patchSet);
            lv2_atom_forge_key(&forge, patchProperty);
            lv2_atom_forge_urid(&forge, modelProperty);
            lv2_atom_forge_key(&forge, patchValue);
            lv2_atom_forge_path(&forge, pathOfModel.data(), static_cast<std::uint32_t>(lengthOfPath));
            lv2_atom_forge_pop(&forge, &message);
            hasNews = false;
        }
        lv2_atom_forge_pop(&forge, &sequence);
    }

    const Lv2Model& model;
    LV2_URID_Map* const map;
    LV2_Log_Log* const log;
    LV2_Worker_Schedule* const schedule;
    PortPlugin plugin;
    LV2_Atom_Forge forge{};
    LV2_URID modelProperty = 0, referenceProperty = 0, patchSet = 0, patchGet = 0, patchProperty = 0,
             patchValue = 0, logError = 0;
    const LV2_Atom_Sequence* control = nullptr;
    LV2_Atom_Sequence* notify = nullptr;

    // Of the audio thread.
    std::array<char, 4096> pathOfModel{};
    std::size_t lengthOfPath = 0;
    std::string_view asked;  // in pathOfModel, until the core has taken it
    bool hasNews = false, isScheduled = false;
};

const std::vector<Lv2Model>& getModels() {
    static const std::vector<Lv2Model> models = makeLv2Models();
    return models;
}

struct Instance {
    Lv2Plugin plugin;
    double sampleRate;
};

Instance& getInstance(LV2_Handle handle) {
    return *static_cast<Instance*>(handle);
}

LV2_Handle instantiate(const LV2_Descriptor* descriptor, double sampleRate, const char*,
                       const LV2_Feature* const* offered) try {
    const Features features(offered);
    for (const Lv2Model& model : getModels())
        if (model.uri == descriptor->URI) {
            if (!model.model && !features.map) return nullptr;
            return new Instance{{model, sampleRate, features}, sampleRate};
        }
    return nullptr;
} catch (const std::exception&) {
    return nullptr;
}

LV2_Worker_Status work(LV2_Handle handle, LV2_Worker_Respond_Function respond,
                       LV2_Worker_Respond_Handle respondHandle, std::uint32_t, const void*) try {
    return getInstance(handle).plugin.work(respond, respondHandle);
} catch (const std::exception&) {
    return LV2_WORKER_ERR_UNKNOWN;
}

LV2_Worker_Status endWork(LV2_Handle handle, std::uint32_t size, const void* path) {
    getInstance(handle).plugin.endWork(path, size);
    return LV2_WORKER_SUCCESS;
}

LV2_State_Status save(LV2_Handle handle, LV2_State_Store_Function store, LV2_State_Handle stateHandle,
                      std::uint32_t, const LV2_Feature* const* features) try {
    return getInstance(handle).plugin.save(store, stateHandle, Features(features));
} catch (const std::exception&) {
    return LV2_STATE_ERR_UNKNOWN;
}

LV2_State_Status restore(LV2_Handle handle, LV2_State_Retrieve_Function retrieve,
                         LV2_State_Handle stateHandle, std::uint32_t,
                         const LV2_Feature* const* features) try {
    return getInstance(handle).plugin.restore(retrieve, stateHandle, Features(features));
} catch (const std::exception&) {
    return LV2_STATE_ERR_UNKNOWN;
}

const void* getExtension(const char* uri) {
    static const LV2_Worker_Interface worker{work, endWork, nullptr};
    static const LV2_State_Interface state{save, restore};
    if (std::string_view(uri) == LV2_WORKER__interface) return &worker;
    if (std::string_view(uri) == LV2_STATE__interface) return &state;
    return nullptr;
}

LV2_Descriptor describe(const Lv2Model& model) {
    return {model.uri.c_str(),
            instantiate,
            [](LV2_Handle handle, std::uint32_t port, void* memory) {
                getInstance(handle).plugin.connect(port, memory);
            },
            [](LV2_Handle handle) {
                Instance& instance = getInstance(handle);
                instance.plugin.activate(instance.sampleRate);
            },
            [](LV2_Handle handle, std::uint32_t numOfSamples) {
                getInstance(handle).plugin.run(static_cast<int>(numOfSamples));
            },
            nullptr,
            [](LV2_Handle handle) { delete &getInstance(handle); },
            model.model ? nullptr : getExtension};
}

}  // namespace

}  // namespace zevrant::plugins

LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(std::uint32_t index) try {
    using namespace zevrant::plugins;
    static const std::vector<LV2_Descriptor> descriptors = [] {
        std::vector<LV2_Descriptor> made;
        for (const Lv2Model& model : getModels()) made.push_back(describe(model));
        return made;
    }();
    return index < descriptors.size() ? &descriptors[index] : nullptr;
} catch (const std::exception&) {
    return nullptr;
}
