// zevrant.clap: the plug-ins of all models in one file, on the headers of CLAP 1.1.
//
// Outputs   The mix, and one port per bus, all stereo and all from one run of the network.
// Latency   Changes across a restart only: where the model that was chosen has another one, the host is asked
//           to restart, and what it had goes on until then.
// Threads   The host's, as the headers name them. Extensions of the host are asked for by name, and left
// alone
//           where it has none.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "clap/entry.h"
#include "clap/ext/audio-ports.h"
#include "clap/ext/latency.h"
#include "clap/ext/params.h"
#include "clap/ext/state.h"
#include "clap/plugin-factory.h"

#include "plugins/HostedPlugin.h"

namespace zevrant::plugins {

namespace {

constexpr std::uint32_t numOfChannels = 2;
constexpr std::uint32_t partLength = 1024;  // samples of silence that stand for an input that is not there

class ClapPlugin {
  public:
    ClapPlugin(const PluginType& type, const clap_plugin_descriptor_t& descriptor,
               const clap_host_t* hostOfThis)
        : plugin(type), host(hostOfThis), outRows((1 + plugin.getBusNames().size()) * numOfChannels) {
        clap = {&descriptor,     this,           init,  destroy, activate,     deactivate,
                startProcessing, stopProcessing, reset, process, getExtension, onMainThread};
    }

    const clap_plugin_t* getClap() const { return &clap; }

  private:
    static ClapPlugin& of(const clap_plugin_t* handle) {
        return *static_cast<ClapPlugin*>(handle->plugin_data);
    }

    // What the host has of this name; null where it has none.
    template <class Extension>
    const Extension* findInHost(const char* name) const {
        return static_cast<const Extension*>(host->get_extension ? host->get_extension(host, name) : nullptr);
    }

    // ---- life

    static bool init(const clap_plugin_t* handle) {
        ClapPlugin& me = of(handle);
        me.hostLatency = me.findInHost<clap_host_latency_t>(CLAP_EXT_LATENCY);
        me.hostParameters = me.findInHost<clap_host_params_t>(CLAP_EXT_PARAMS);
        return true;
    }
    static void destroy(const clap_plugin_t* handle) { delete &of(handle); }

    static bool activate(const clap_plugin_t* handle, double sampleRate, std::uint32_t, std::uint32_t) try {
        ClapPlugin& me = of(handle);
        PluginCore& core = me.plugin.getCore();
        core.activate(sampleRate);
        me.hasAskedForRestart = false;
        const int latency = core.getLatency();
        if (latency != me.toldLatency && me.hostLatency && me.hostLatency->changed)
            me.hostLatency->changed(me.host);
        me.toldLatency = latency;
        return true;
    } catch (const std::exception&) {
        return false;
    }
    static void deactivate(const clap_plugin_t* handle) { of(handle).plugin.getCore().deactivate(); }
    static bool startProcessing(const clap_plugin_t*) { return true; }
    static void stopProcessing(const clap_plugin_t*) {}
    static void reset(const clap_plugin_t* handle) { of(handle).plugin.getCore().reset(); }
    static void onMainThread(const clap_plugin_t*) {}

    static const void* getExtension(const clap_plugin_t*, const char* id) {
        static const clap_plugin_audio_ports_t audioPorts = {countPorts, getPort};
        static const clap_plugin_latency_t latency = {[](const clap_plugin_t* handle) {
            return static_cast<std::uint32_t>(of(handle).plugin.getCore().getLatency());
        }};
        static const clap_plugin_params_t parameters = {countParameters, getParameter,   getValue,
                                                        getText,         getValueOfText, flush};
        static const clap_plugin_state_t state = {save, load};
        const std::string_view name = id;
        if (name == CLAP_EXT_AUDIO_PORTS) return &audioPorts;
        if (name == CLAP_EXT_LATENCY) return &latency;
        if (name == CLAP_EXT_PARAMS) return &parameters;
        return name == CLAP_EXT_STATE ? &state : nullptr;
    }

    // ---- ports

    static std::uint32_t countPorts(const clap_plugin_t* handle, bool isInput) {
        return isInput ? 1 : 1 + static_cast<std::uint32_t>(of(handle).plugin.getBusNames().size());
    }

    static bool getPort(const clap_plugin_t* handle, std::uint32_t index, bool isInput,
                        clap_audio_port_info_t* info) {
        if (index >= countPorts(handle, isInput)) return false;
        const bool isMain = index == 0;
        *info = {};
        info->id = index;
        std::snprintf(info->name, sizeof info->name, "%s",
                      isInput  ? "Input"
                      : isMain ? "Mix"
                               : of(handle).plugin.getBusNames()[index - 1].c_str());
        info->flags = isMain ? CLAP_AUDIO_PORT_IS_MAIN : 0;
        info->channel_count = numOfChannels;
        info->port_type = CLAP_PORT_STEREO;
        info->in_place_pair = isMain ? 0 : CLAP_INVALID_ID;
        return true;
    }

    // ---- parameters

    static std::uint32_t countParameters(const clap_plugin_t* handle) {
        return static_cast<std::uint32_t>(of(handle).plugin.getParameters().size());
    }

    static bool getParameter(const clap_plugin_t* handle, std::uint32_t index, clap_param_info_t* info) {
        if (index >= countParameters(handle)) return false;
        const Parameter& parameter = of(handle).plugin.getParameters()[index];
        *info = {};
        info->id = parameter.id;
        info->flags = (parameter.isStepped ? CLAP_PARAM_IS_STEPPED : 0) |
                      (parameter.isBypass ? CLAP_PARAM_IS_BYPASS : 0) |
                      (parameter.isReadOnly ? CLAP_PARAM_IS_READONLY : CLAP_PARAM_IS_AUTOMATABLE);
        std::snprintf(info->name, sizeof info->name, "%s", parameter.name.c_str());
        info->min_value = parameter.least;
        info->max_value = parameter.most;
        info->default_value = parameter.initial;
        return true;
    }

    static bool getValue(const clap_plugin_t* handle, clap_id id, double* value) {
        if (!of(handle).plugin.findParameter(id)) return false;
        *value = of(handle).plugin.getValue(id);
        return true;
    }

    static bool getText(const clap_plugin_t* handle, clap_id id, double value, char* text,
                        std::uint32_t size) try {
        if (!of(handle).plugin.findParameter(id)) return false;
        std::snprintf(text, size, "%s", of(handle).plugin.getText(id, value).c_str());
        return true;
    } catch (const std::exception&) {
        return false;
    }

    static bool getValueOfText(const clap_plugin_t* handle, clap_id id, const char* text, double* value) try {
        const std::optional<double> found = of(handle).plugin.getValue(id, text);
        if (found) *value = *found;
        return found.has_value();
    } catch (const std::exception&) {
        return false;
    }

    static void flush(const clap_plugin_t* handle, const clap_input_events_t* in,
                      const clap_output_events_t* out) {
        ClapPlugin& me = of(handle);
        for (std::uint32_t i = 0, count = in ? in->size(in) : 0; i < count; ++i) me.apply(*in->get(in, i));
        me.tellStatus(out, 0);
    }

    void apply(const clap_event_header_t& event) noexcept {
        if (event.space_id != CLAP_CORE_EVENT_SPACE_ID || event.type != CLAP_EVENT_PARAM_VALUE) return;
        const auto& change = reinterpret_cast<const clap_event_param_value_t&>(event);
        plugin.setValue(change.param_id, change.value);
    }

    // The host learns what the status is when it changes.
    void tellStatus(const clap_output_events_t* out, std::uint32_t time) noexcept {
        const double status = plugin.getValue(HostedPlugin::statusId);
        if (status == toldStatus || !out) return;
        clap_event_param_value_t event{};
        event.header = {sizeof event, time, CLAP_CORE_EVENT_SPACE_ID, CLAP_EVENT_PARAM_VALUE, 0};
        event.param_id = HostedPlugin::statusId;
        event.note_id = -1;
        event.port_index = event.channel = event.key = -1;
        event.value = status;
        if (out->try_push(out, &event.header)) toldStatus = status;
    }

    // ---- audio

    static clap_process_status process(const clap_plugin_t* handle, const clap_process_t* block) {
        return of(handle).process(*block);
    }

    clap_process_status process(const clap_process_t& block) noexcept {
        const clap_input_events_t* events = block.in_events;
        const std::uint32_t numOfEvents = events ? events->size(events) : 0;
        std::uint32_t event = 0;
        for (std::uint32_t first = 0; first < block.frames_count;) {
            std::uint32_t end = block.frames_count;
            for (; event < numOfEvents; ++event) {
                const clap_event_header_t& next = *events->get(events, event);
                if (next.time > first) {
                    end = std::min(end, next.time);
                    break;
                }
                apply(next);
            }
            processPart(block, first, end - first);
            first = end;
        }
        for (; event < numOfEvents; ++event) apply(*events->get(events, event));
        tellStatus(block.out_events, block.frames_count > 0 ? block.frames_count - 1 : 0);
        if (plugin.getCore().getNextLatency() && !hasAskedForRestart) {
            hasAskedForRestart = true;
            host->request_restart(host);
        }
        return CLAP_PROCESS_CONTINUE;
    }

    void processPart(const clap_process_t& block, std::uint32_t first, std::uint32_t numOfSamples) noexcept {
        const clap_audio_buffer_t* in = block.audio_inputs_count > 0 ? block.audio_inputs : nullptr;
        const bool hasInput = in && in->data32 && in->channel_count > 0;
        const std::uint32_t most = hasInput ? numOfSamples : partLength;
        for (std::uint32_t end = first + numOfSamples; first < end; first += most) {
            std::array<const float*, numOfChannels> inRows;
            for (std::uint32_t c = 0; c < numOfChannels; ++c)
                inRows[c] =
                    hasInput ? in->data32[std::min(c, in->channel_count - 1)] + first : silence.data();
            for (std::uint32_t row = 0; row < outRows.size(); ++row) {
                const std::uint32_t port = row / numOfChannels, c = row % numOfChannels;
                const clap_audio_buffer_t* out =
                    port < block.audio_outputs_count ? block.audio_outputs + port : nullptr;
                const bool isThere = out && out->data32 && c < out->channel_count && out->data32[c];
                outRows[row] = isThere ? out->data32[c] + first : nullptr;
            }
            plugin.process(inRows.data(), outRows.data(), static_cast<int>(std::min(most, end - first)));
        }
        for (std::uint32_t port = 0; port < block.audio_outputs_count; ++port)
            block.audio_outputs[port].constant_mask = 0;
    }

    // ---- state

    static bool save(const clap_plugin_t* handle, const clap_ostream_t* stream) try {
        const std::string state = of(handle).plugin.save();
        for (std::size_t done = 0; done < state.size();) {
            const std::int64_t count = stream->write(stream, state.data() + done, state.size() - done);
            if (count <= 0) return false;
            done += static_cast<std::size_t>(count);
        }
        return true;
    } catch (const std::exception&) {
        return false;
    }

    static bool load(const clap_plugin_t* handle, const clap_istream_t* stream) try {
        std::string state;
        std::array<char, 4096> part;
        for (;;) {
            const std::int64_t count = stream->read(stream, part.data(), part.size());
            if (count < 0) return false;
            if (count == 0) break;
            state.append(part.data(), static_cast<std::size_t>(count));
        }
        ClapPlugin& me = of(handle);
        if (!me.plugin.load(state)) return false;
        if (me.hostParameters && me.hostParameters->rescan)
            me.hostParameters->rescan(me.host, CLAP_PARAM_RESCAN_VALUES | CLAP_PARAM_RESCAN_TEXT);
        return true;
    } catch (const std::exception&) {
        return false;
    }

    HostedPlugin plugin;
    const clap_host_t* host;
    const clap_host_latency_t* hostLatency = nullptr;
    const clap_host_params_t* hostParameters = nullptr;
    clap_plugin_t clap{};
    std::vector<float*> outRows;
    std::array<float, partLength> silence{};
    int toldLatency = 0;       // samples
    double toldStatus = -1.0;  // of the audio thread, or while it does not run
    bool hasAskedForRestart = false;
};

// ---- the file ----------------------------------------------------------------------------------

const std::vector<clap_plugin_descriptor_t>& getDescriptors() {
    static const char* features[] = {CLAP_PLUGIN_FEATURE_AUDIO_EFFECT, CLAP_PLUGIN_FEATURE_RESTORATION,
                                     CLAP_PLUGIN_FEATURE_STEREO, nullptr};
    static const std::vector<clap_plugin_descriptor_t> descriptors = [] {
        std::vector<clap_plugin_descriptor_t> all;
        for (const PluginType& type : getPluginTypes())
            all.push_back({CLAP_VERSION_INIT, type.id.c_str(), type.title.c_str(), "Zevrant", "", "", "",
                           ZEVRANT_VERSION, type.description.c_str(), features});
        return all;
    }();
    return descriptors;
}

std::uint32_t countPlugins(const clap_plugin_factory_t*) {
    return static_cast<std::uint32_t>(getDescriptors().size());
}

const clap_plugin_descriptor_t* getDescriptor(const clap_plugin_factory_t*, std::uint32_t index) {
    return index < getDescriptors().size() ? &getDescriptors()[index] : nullptr;
}

const clap_plugin_t* createPlugin(const clap_plugin_factory_t*, const clap_host_t* host, const char* id) try {
    if (!host || !clap_version_is_compatible(host->clap_version)) return nullptr;
    for (std::size_t i = 0; i < getPluginTypes().size(); ++i)
        if (getPluginTypes()[i].id == id)
            return std::make_unique<ClapPlugin>(getPluginTypes()[i], getDescriptors()[i], host)
                .release()
                ->getClap();
    return nullptr;
} catch (const std::exception&) {
    return nullptr;
}

const void* getFactory(const char* id) {
    static const clap_plugin_factory_t factory = {countPlugins, getDescriptor, createPlugin};
    return std::strcmp(id, CLAP_PLUGIN_FACTORY_ID) == 0 ? &factory : nullptr;
}

}  // namespace

}  // namespace zevrant::plugins

const clap_plugin_entry_t clap_entry = {CLAP_VERSION_INIT, [](const char*) { return true; }, [] {},
                                        zevrant::plugins::getFactory};
