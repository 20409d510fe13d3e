// zevrant.vst3: the plug-ins of all models in one bundle, on the interfaces that travesty describes.
//
// One object is component, processor and controller at once, so that a parameter has one home and a model is
// loaded once.
//
// Outputs   The mix, and one bus of outputs per bus of the model, off at the start, all stereo.
// Latency   Known from setupProcessing() on. Where the model that was chosen has another one, the status
//           parameter says so; the host shows it to the controller on its own thread, and there it is told
//           that the latency has changed, which it takes by setActive(). What it had goes on until then.
// Threads   The host's: process() and what may come during it are PluginCore's [audio] and [any].
#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "plugins/HostedPlugin.h"
#include "plugins/vst3/Vst3Interfaces.h"

#define ZEVRANT_VST3_EXPORT extern "C" __attribute__((visibility("default")))

namespace zevrant::plugins {

namespace {

constexpr std::int32_t numOfChannels = 2;
constexpr v3_speaker_arrangement stereo = V3_SPEAKER_L | V3_SPEAKER_R;
constexpr int partLength = 1024;  // samples of silence that stand for an input that is not there
constexpr int leastSlice = 32;    // samples from one change of parameters to the next
constexpr const char* category = "Audio Module Class";
constexpr const char* subCategories = "Fx|Restoration";
constexpr const char* sdkVersion = "VST 3.7.4";

// ---- what VST3 wants things as -----------------------------------------------------------------

// UTF-8 as UTF-16, cut off where it has to be. What is no UTF-8 becomes a question mark.
template <std::size_t size>
void copyText(std::string_view text, std::int16_t (&out)[size]) {
    std::size_t length = 0;
    const auto put = [&](std::uint32_t unit) {
        if (length + 1 < size) out[length++] = static_cast<std::int16_t>(unit);
    };
    for (std::size_t i = 0; i < text.size();) {
        const auto first = static_cast<unsigned char>(text[i]);
        const std::size_t rest = first < 0x80 ? 0 : first < 0xe0 ? 1 : first < 0xf0 ? 2 : 3;
        std::uint32_t code = rest == 0 ? first : first & (0x3fu >> rest);
        bool isGood = i + rest < text.size() && (first < 0x80 || first >= 0xc2);
        for (std::size_t j = 1; j <= rest && isGood; ++j) {
            const auto next = static_cast<unsigned char>(text[i + j]);
            isGood = (next & 0xc0) == 0x80;
            code = (code << 6) | (next & 0x3fu);
        }
        i += isGood ? rest + 1 : 1;
        if (!isGood) {
            put('?');
        } else if (code < 0x10000) {
            put(code);
        } else if (length + 2 < size) {
            put(0xd800 + ((code - 0x10000) >> 10));
            put(0xdc00 + ((code - 0x10000) & 0x3ff));
        }
    }
    out[length] = 0;
}

std::string toAscii(const std::int16_t* text) {
    std::string ascii;
    for (; *text != 0; ++text) ascii += *text > 0 && *text < 128 ? static_cast<char>(*text) : '?';
    return ascii;
}

template <std::size_t size>
void copyText(std::string_view text, char (&out)[size]) {
    std::snprintf(out, size, "%.*s", static_cast<int>(text.size()), text.data());
}

// Two hashes of its id: users' projects find a plug-in by them.
void makeClassId(const PluginType& type, v3_tuid id) {
    const std::uint64_t halves[] = {hash(type.id), hash("vst3 " + type.id)};
    for (int i = 0; i < 16; ++i) id[i] = static_cast<std::uint8_t>(halves[i / 8] >> 8 * (7 - i % 8));
}

int getNumOfSteps(const Parameter& parameter) {
    return parameter.isStepped ? static_cast<int>(parameter.most - parameter.least) : 0;
}

// Hosts may keep what they are told as a float between 0 and 1; thousandths make 0 dB the same again.
double toPlain(const Parameter& parameter, double normalised) {
    const double within = std::clamp(normalised, 0.0, 1.0);
    const int steps = getNumOfSteps(parameter);
    if (steps > 0) return parameter.least + std::min<double>(steps, std::floor(within * (steps + 1)));
    const double plain = parameter.least + within * (parameter.most - parameter.least);
    return std::round(1000.0 * plain) / 1000.0;
}

double toNormalised(const Parameter& parameter, double plain) {
    return std::clamp((plain - parameter.least) / (parameter.most - parameter.least), 0.0, 1.0);
}

template <class Interface>
Interface* getTable(Interface** object) {
    return v3_cpp_obj(object);
}

// ---- the plug-in -------------------------------------------------------------------------------

class Vst3Plugin final : public IComponent, public IAudioProcessor, public IEditController {
  public:
    explicit Vst3Plugin(const PluginType& type)
        : plugin(type),
          numOfOutputs(1 + static_cast<std::int32_t>(plugin.getBusNames().size())),
          outRows(static_cast<std::size_t>(numOfOutputs * numOfChannels)) {}

    // Behind the functions of the interfaces in its table, where no host looks.
    virtual ~Vst3Plugin() { setComponentHandler(nullptr); }
    Vst3Plugin(const Vst3Plugin&) = delete;
    Vst3Plugin& operator=(const Vst3Plugin&) = delete;

    // ---- FUnknown

    v3_result queryInterface(const v3_tuid iid, void** object) override {
        *object = nullptr;
        if (v3_tuid_match(iid, v3_funknown_iid) || v3_tuid_match(iid, v3_plugin_base_iid) ||
            v3_tuid_match(iid, v3_component_iid))
            *object = static_cast<IComponent*>(this);
        else if (v3_tuid_match(iid, v3_audio_processor_iid))
            *object = static_cast<IAudioProcessor*>(this);
        else if (v3_tuid_match(iid, v3_edit_controller_iid))
            *object = static_cast<IEditController*>(this);
        if (!*object) return V3_NO_INTERFACE;
        addRef();
        return V3_OK;
    }
    std::uint32_t addRef() override { return ++numOfReferences; }
    std::uint32_t release() override {
        const std::uint32_t left = --numOfReferences;
        if (left == 0) delete this;
        return left;
    }

    // ---- IPluginBase, of component and controller

    v3_result initialize(v3_funknown**) override { return V3_OK; }
    v3_result terminate() override {
        setComponentHandler(nullptr);
        return V3_OK;
    }

    // ---- IComponent

    v3_result getControllerClassId(v3_tuid) override { return V3_NOT_IMPLEMENTED; }  // this object is it
    v3_result setIoMode(std::int32_t) override { return V3_OK; }

    std::int32_t getBusCount(std::int32_t mediaType, std::int32_t direction) override {
        if (mediaType != V3_AUDIO) return 0;
        return direction == V3_INPUT ? 1 : numOfOutputs;
    }

    v3_result getBusInfo(std::int32_t mediaType, std::int32_t direction, std::int32_t index,
                         v3_bus_info* info) override {
        if (index < 0 || index >= getBusCount(mediaType, direction)) return V3_INVALID_ARG;
        const bool isInput = direction == V3_INPUT, isMain = index == 0;
        *info = {};
        info->media_type = mediaType;
        info->direction = direction;
        info->channel_count = numOfChannels;
        copyText(isInput  ? "Input"
                 : isMain ? "Mix"
                          : plugin.getBusNames()[static_cast<std::size_t>(index - 1)],
                 info->bus_name);
        info->bus_type = isMain ? V3_MAIN : V3_AUX;
        info->flags = isMain ? V3_DEFAULT_ACTIVE : 0;
        return V3_OK;
    }

    v3_result getRoutingInfo(v3_routing_info*, v3_routing_info*) override { return V3_NOT_IMPLEMENTED; }

    // Outputs without buffers are left out in process().
    v3_result activateBus(std::int32_t mediaType, std::int32_t direction, std::int32_t index,
                          v3_bool) override {
        return index >= 0 && index < getBusCount(mediaType, direction) ? V3_OK : V3_INVALID_ARG;
    }

    v3_result setActive(v3_bool isActive) override {
        return guarded([&] {
            if (isActive)
                plugin.getCore().activate(sampleRate);
            else
                plugin.getCore().deactivate();
            if (isActive) toldLatency = -1;
        });
    }

    v3_result setState(v3_bstream** stream) override {
        v3_result result = V3_INTERNAL_ERR;
        guarded([&] {
            std::string state;
            std::array<char, 4096> part;
            for (std::int32_t count = 0;
                 getTable(stream)->read(stream, part.data(), static_cast<std::int32_t>(part.size()),
                                        &count) == V3_OK &&
                 count > 0;)
                state.append(part.data(), static_cast<std::size_t>(count));
            result = plugin.load(state) ? V3_OK : V3_FALSE;
        });
        return result;
    }

    v3_result getState(v3_bstream** stream) override {
        v3_result result = V3_INTERNAL_ERR;
        guarded([&] {
            std::string state = plugin.save();
            std::int32_t count = 0;
            for (std::size_t done = 0; done < state.size(); done += static_cast<std::size_t>(count)) {
                const auto rest = static_cast<std::int32_t>(state.size() - done);
                if (getTable(stream)->write(stream, state.data() + done, rest, &count) != V3_OK || count <= 0)
                    return;
            }
            result = V3_OK;
        });
        return result;
    }

    // ---- IAudioProcessor

    v3_result setBusArrangements(v3_speaker_arrangement* inputs, std::int32_t numOfInputs,
                                 v3_speaker_arrangement* outputs, std::int32_t numOfAsked) override {
        const auto isStereo = [](v3_speaker_arrangement arrangement) { return arrangement == stereo; };
        return numOfInputs == 1 && numOfAsked == numOfOutputs &&
                       std::all_of(inputs, inputs + numOfInputs, isStereo) &&
                       std::all_of(outputs, outputs + numOfAsked, isStereo)
                   ? V3_TRUE
                   : V3_FALSE;
    }
    v3_result getBusArrangement(std::int32_t direction, std::int32_t index,
                                v3_speaker_arrangement* arrangement) override {
        if (index < 0 || index >= getBusCount(V3_AUDIO, direction)) return V3_INVALID_ARG;
        *arrangement = stereo;
        return V3_OK;
    }
    v3_result canProcessSampleSize(std::int32_t sampleSize) override {
        return sampleSize == V3_SAMPLE_32 ? V3_TRUE : V3_FALSE;
    }
    std::uint32_t getLatencySamples() override {
        return static_cast<std::uint32_t>(plugin.getCore().getLatency());
    }
    v3_result setupProcessing(v3_process_setup* setup) override {
        if (setup->symbolic_sample_size != V3_SAMPLE_32) return V3_FALSE;
        return guarded([&] {
            sampleRate = setup->sample_rate;
            plugin.getCore().activate(sampleRate);  // the latency is known from here on
            plugin.getCore().deactivate();
        });
    }
    v3_result setProcessing(v3_bool isProcessing) override {
        if (isProcessing) plugin.getCore().reset();
        return V3_OK;
    }
    std::uint32_t getTailSamples() override { return getLatencySamples(); }

    v3_result process(v3_process_data* data) override {
        v3_param_changes** changes = data->input_params;
        std::int32_t first = 0;
        for (std::int32_t from = -1;;) {
            const std::int32_t next = applyChanges(changes, from, first, data->nframes);
            if (first >= data->nframes) break;
            processPart(*data, first, next - first);
            from = first;
            first = next;
        }
        for (std::int32_t bus = 0; bus < data->num_output_buses; ++bus)
            data->outputs[bus].channel_silence_bitset = 0;
        tellStatus(data->output_params);
        return V3_OK;
    }

    // ---- IEditController

    v3_result setComponentState(v3_bstream**) override { return V3_OK; }  // the component has it already
    v3_result setControllerState(v3_bstream**) override { return V3_OK; }
    v3_result getControllerState(v3_bstream**) override { return V3_OK; }

    std::int32_t getParameterCount() override {
        return static_cast<std::int32_t>(plugin.getParameters().size());
    }

    v3_result getParameterInfo(std::int32_t index, v3_param_info* info) override {
        if (index < 0 || index >= getParameterCount()) return V3_INVALID_ARG;
        const Parameter& parameter = plugin.getParameters()[static_cast<std::size_t>(index)];
        *info = {};
        info->param_id = parameter.id;
        copyText(parameter.name, info->title);
        copyText(parameter.name, info->short_title);
        copyText(parameter.unit, info->units);
        info->step_count = getNumOfSteps(parameter);
        info->default_normalised_value = toNormalised(parameter, parameter.initial);
        info->flags = parameter.isReadOnly ? V3_PARAM_READ_ONLY : V3_PARAM_CAN_AUTOMATE;
        if (parameter.isBypass) info->flags |= V3_PARAM_IS_BYPASS;
        if (parameter.isStepped && !parameter.isBypass) info->flags |= V3_PARAM_IS_LIST;
        return V3_OK;
    }

    v3_result getParameterStringForValue(v3_param_id id, double normalised, v3_str_128 text) override {
        const Parameter* parameter = plugin.findParameter(id);
        if (!parameter) return V3_INVALID_ARG;
        return guarded([&] {
            std::int16_t out[128];
            copyText(plugin.getText(id, toPlain(*parameter, normalised)), out);
            std::copy(std::begin(out), std::end(out), text);
        });
    }
    v3_result getParameterValueForString(v3_param_id id, std::int16_t* text, double* normalised) override {
        const Parameter* parameter = plugin.findParameter(id);
        if (!parameter) return V3_INVALID_ARG;
        v3_result result = V3_FALSE;
        guarded([&] {
            if (const auto value = plugin.getValue(id, toAscii(text))) {
                *normalised = toNormalised(*parameter, *value);
                result = V3_OK;
            }
        });
        return result;
    }
    double normalisedParameterToPlain(v3_param_id id, double normalised) override {
        const Parameter* parameter = plugin.findParameter(id);
        return parameter ? toPlain(*parameter, normalised) : normalised;
    }
    double plainParameterToNormalised(v3_param_id id, double plain) override {
        const Parameter* parameter = plugin.findParameter(id);
        return parameter ? toNormalised(*parameter, plain) : plain;
    }
    double getParameterNormalised(v3_param_id id) override {
        const Parameter* parameter = plugin.findParameter(id);
        return parameter ? toNormalised(*parameter, plugin.getValue(id)) : 0.0;
    }
    v3_result setParameterNormalised(v3_param_id id, double normalised) override {
        const Parameter* parameter = plugin.findParameter(id);
        if (!parameter) return V3_INVALID_ARG;
        plugin.setValue(id, toPlain(*parameter, normalised));
        tellLatency();
        return V3_OK;
    }
    v3_result setComponentHandler(v3_component_handler** newHandler) override {
        v3_component_handler** const old = handler;
        if (newHandler) v3_cpp_obj_ref(newHandler);
        handler = newHandler;
        if (old) v3_cpp_obj_unref(old);
        return V3_OK;
    }
    v3_plugin_view** createView(const char*) override { return nullptr; }  // hosts draw their own

  private:
    // No exception goes to the host.
    template <class Action>
    static v3_result guarded(const Action& action) noexcept {
        try {
            action();
            return V3_OK;
        } catch (const std::exception&) {
            return V3_INTERNAL_ERR;
        }
    }

    // Applies what changes behind sample `from` and up to `to`; returns where the next change is due, at the
    // latest the end.
    std::int32_t applyChanges(v3_param_changes** changes, std::int32_t from, std::int32_t to,
                              std::int32_t end) noexcept {
        const std::int32_t numOfParameters = changes ? getTable(changes)->get_param_count(changes) : 0;
        std::int32_t next = end;
        for (std::int32_t i = 0; i < numOfParameters; ++i) {
            v3_param_value_queue** queue = getTable(changes)->get_param_data(changes, i);
            if (!queue) continue;
            const v3_param_value_queue* table = getTable(queue);
            const Parameter* parameter = plugin.findParameter(table->get_param_id(queue));
            const std::int32_t numOfPoints = parameter ? table->get_point_count(queue) : 0;
            for (std::int32_t point = 0; point < numOfPoints; ++point) {
                std::int32_t time = 0;
                double value = 0.0;
                if (table->get_point(queue, point, &time, &value) != V3_OK || time <= from) continue;
                if (time <= to || to >= end)
                    plugin.setValue(parameter->id, toPlain(*parameter, value));
                else
                    next = std::min(next, std::max(time, to + leastSlice));
            }
        }
        return next;
    }

    void processPart(const v3_process_data& data, std::int32_t first, std::int32_t numOfSamples) noexcept {
        const v3_audio_bus_buffers* in = data.num_input_buses > 0 ? data.inputs : nullptr;
        const bool hasInput =
            in && in->num_channels > 0 && in->channel_buffers_32 && in->channel_buffers_32[0];
        const std::int32_t most = hasInput ? numOfSamples : partLength;
        for (const std::int32_t end = first + numOfSamples; first < end; first += most) {
            std::array<const float*, numOfChannels> inRows;
            for (std::int32_t c = 0; c < numOfChannels; ++c) {
                const float* row =
                    hasInput ? in->channel_buffers_32[std::min(c, in->num_channels - 1)] : nullptr;
                inRows[static_cast<std::size_t>(c)] =
                    row ? row + first : (hasInput ? in->channel_buffers_32[0] + first : silence.data());
            }
            for (std::int32_t row = 0; row < numOfOutputs * numOfChannels; ++row) {
                const std::int32_t bus = row / numOfChannels, c = row % numOfChannels;
                const v3_audio_bus_buffers* out = bus < data.num_output_buses ? data.outputs + bus : nullptr;
                const bool isThere =
                    out && out->channel_buffers_32 && c < out->num_channels && out->channel_buffers_32[c];
                outRows[static_cast<std::size_t>(row)] =
                    isThere ? out->channel_buffers_32[c] + first : nullptr;
            }
            plugin.process(inRows.data(), outRows.data(), std::min(most, end - first));
        }
    }

    void tellStatus(v3_param_changes** changes) noexcept {
        const double status = plugin.getValue(HostedPlugin::statusId);
        if (status == toldStatus || !changes) return;
        v3_param_id id = HostedPlugin::statusId;
        std::int32_t index = 0;
        v3_param_value_queue** queue = getTable(changes)->add_param_data(changes, &id, &index);
        const Parameter* parameter = plugin.findParameter(id);
        if (queue && parameter &&
            getTable(queue)->add_point(queue, 0, toNormalised(*parameter, status), &index) == V3_OK)
            toldStatus = status;
    }

    // On the controller's thread.
    void tellLatency() {
        const int next = plugin.getCore().getNextLatency().value_or(-1);
        if (next < 0 || next == toldLatency || !handler) return;
        toldLatency = next;
        getTable(handler)->restart_component(handler, V3_RESTART_LATENCY_CHANGED);
    }

    HostedPlugin plugin;
    const std::int32_t numOfOutputs;
    std::atomic<std::uint32_t> numOfReferences{1};
    v3_component_handler** handler = nullptr;
    double sampleRate = 48000.0;  // hertz
    std::vector<float*> outRows;
    std::array<float, partLength> silence{};
    double toldStatus = -1.0;  // of the audio thread
    int toldLatency = -1;      // samples
};

// ---- the factory -------------------------------------------------------------------------------

class Factory final : public IPluginFactory3 {
  public:
    virtual ~Factory() = default;

    v3_result queryInterface(const v3_tuid iid, void** object) override {
        const bool isKnown =
            v3_tuid_match(iid, v3_funknown_iid) || v3_tuid_match(iid, v3_plugin_factory_iid) ||
            v3_tuid_match(iid, v3_plugin_factory_2_iid) || v3_tuid_match(iid, v3_plugin_factory_3_iid);
        *object = isKnown ? static_cast<IPluginFactory3*>(this) : nullptr;
        return isKnown ? V3_OK : V3_NO_INTERFACE;
    }
    std::uint32_t addRef() override { return 1; }  // it stays for as long as the file is loaded
    std::uint32_t release() override { return 1; }

    v3_result getFactoryInfo(v3_factory_info* info) override {
        *info = {};
        copyText("Zevrant", info->vendor);
        info->flags = 0x10;  // names are unicode
        return V3_OK;
    }
    std::int32_t countClasses() override { return static_cast<std::int32_t>(getPluginTypes().size()); }

    v3_result getClassInfo(std::int32_t index, v3_class_info* info) override { return fill(index, info); }
    v3_result getClassInfo2(std::int32_t index, v3_class_info_2* info) override {
        return fillMore(index, info);
    }
    v3_result getClassInfoUnicode(std::int32_t index, v3_class_info_3* info) override {
        return fillMore(index, info);
    }
    v3_result setHostContext(v3_funknown**) override { return V3_OK; }

    v3_result createInstance(const v3_tuid classId, const v3_tuid iid, void** instance) override {
        *instance = nullptr;
        for (const PluginType& type : getPluginTypes()) {
            v3_tuid id;
            makeClassId(type, id);
            if (!v3_tuid_match(id, classId)) continue;
            try {
                auto* plugin = new Vst3Plugin(type);
                const v3_result result = plugin->queryInterface(iid, instance);
                plugin->release();
                return result;
            } catch (const std::exception&) {
                return V3_NOMEM;
            }
        }
        return V3_NO_INTERFACE;
    }

  private:
    template <class Info>
    v3_result fill(std::int32_t index, Info* info) {
        if (index < 0 || index >= countClasses()) return V3_INVALID_ARG;
        const PluginType& type = getPluginTypes()[static_cast<std::size_t>(index)];
        *info = {};
        makeClassId(type, info->class_id);
        info->cardinality = 0x7fffffff;
        copyText(category, info->category);
        copyText(type.title, info->name);
        return V3_OK;
    }
    template <class Info>
    v3_result fillMore(std::int32_t index, Info* info) {
        if (const v3_result result = fill(index, info); result != V3_OK) return result;
        copyText(subCategories, info->sub_categories);
        copyText("Zevrant", info->vendor);
        copyText(ZEVRANT_VERSION, info->version);
        copyText(sdkVersion, info->sdk_version);
        return V3_OK;
    }
};

}  // namespace

}  // namespace zevrant::plugins

ZEVRANT_VST3_EXPORT const void* GetPluginFactory();
ZEVRANT_VST3_EXPORT bool ModuleEntry(void* library);
ZEVRANT_VST3_EXPORT bool ModuleExit();

const void* GetPluginFactory() {
    static zevrant::plugins::Factory factory;
    return static_cast<zevrant::plugins::IPluginFactory3*>(&factory);
}
bool ModuleEntry(void*) {
    return true;
}
bool ModuleExit() {
    return true;
}
