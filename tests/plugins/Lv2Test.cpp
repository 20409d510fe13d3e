// The LV2 bundle as a host has it: found, described and loaded by lilv, connected port by port.
#include <gmock/gmock.h>
#include <lilv/lilv.h>
#include <lv2/atom/forge.h>
#include <lv2/atom/util.h>
#include <lv2/patch/patch.h>
#include <lv2/state/state.h>
#include <lv2/urid/urid.h>
#include <lv2/worker/worker.h>

#include <chrono>
#include <cstring>
#include <map>
#include <thread>

#include "plugins/AudioThread.h"
#include "plugins/PluginHost.h"

namespace zevrant {
namespace {

using testing::ElementsAre;

// A host with a worker that works when it is told to, or without one.
class Host {
  public:
    explicit Host(bool hasWorker) {
        setenv("LV2_PATH", LV2_FOLDER, 1);
        world = lilv_world_new();
        lilv_world_load_all(world);
        features.push_back(&mapFeature);
        features.push_back(&unmapFeature);
        if (hasWorker) features.push_back(&scheduleFeature);
        features.push_back(nullptr);
        lv2_atom_forge_init(&forge, &map);
    }
    ~Host() { lilv_world_free(world); }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    const LilvPlugin* find(const std::string& uri) {
        LilvNode* node = lilv_new_uri(world, uri.c_str());
        const LilvPlugin* plugin = lilv_plugins_get_by_uri(lilv_world_get_all_plugins(world), node);
        lilv_node_free(node);
        return plugin;
    }

    LV2_URID getId(const char* uri) {
        for (std::size_t i = 0; i < uris.size(); ++i)
            if (uris[i] == uri) return static_cast<LV2_URID>(i + 1);
        uris.emplace_back(uri);
        return static_cast<LV2_URID>(uris.size());
    }

    LilvWorld* world;
    std::vector<std::string> uris;
    LV2_URID_Map map{this, [](void* self, const char* uri) { return static_cast<Host*>(self)->getId(uri); }};
    LV2_URID_Unmap unmap{this, [](void* self, LV2_URID id) -> const char* {
                             return static_cast<Host*>(self)->uris[id - 1].c_str();
                         }};
    int numOfSchedules = 0;
    LV2_Worker_Schedule schedule{this, [](void* self, std::uint32_t, const void*) {
                                     ++static_cast<Host*>(self)->numOfSchedules;
                                     return LV2_WORKER_SUCCESS;
                                 }};
    LV2_Feature mapFeature{LV2_URID__map, &map}, unmapFeature{LV2_URID__unmap, &unmap};
    LV2_Feature scheduleFeature{LV2_WORKER__schedule, &schedule};
    std::vector<const LV2_Feature*> features;
    LV2_Atom_Forge forge{};
};

// One plug-in with memory for all its ports: audio and controls in the order of the ports, then messages.
class Plugin {
  public:
    Plugin(Host& pluginHost, const std::string& uri, double rate) : host(pluginHost), plugin(host.find(uri)) {
        if (!plugin) throw std::runtime_error(uri + " is not found");
        instance = lilv_plugin_instantiate(plugin, rate, host.features.data());
        LilvNode* audio = lilv_new_uri(host.world, LILV_URI_AUDIO_PORT);
        LilvNode* atom = lilv_new_uri(host.world, LILV_URI_ATOM_PORT);
        LilvNode* input = lilv_new_uri(host.world, LILV_URI_INPUT_PORT);
        const std::uint32_t count = lilv_plugin_get_num_ports(plugin);
        controls.resize(count);
        std::vector<float> defaults(count);
        lilv_plugin_get_port_ranges_float(plugin, nullptr, nullptr, defaults.data());
        for (std::uint32_t i = 0; i < count; ++i) {
            const LilvPort* port = lilv_plugin_get_port_by_index(plugin, i);
            const std::string symbol = lilv_node_as_string(lilv_port_get_symbol(plugin, port));
            indexes[symbol] = i;
            symbols.push_back(symbol);
            const bool isInput = lilv_port_is_a(plugin, port, input);
            if (lilv_port_is_a(plugin, port, audio)) {
                (isInput ? inputs : outputs).push_back(i);
            } else if (lilv_port_is_a(plugin, port, atom)) {
                lilv_instance_connect_port(instance, i, isInput ? toPlugin : fromPlugin);
            } else {
                controls[i] = symbol == "latency" ? -1.0f : defaults[i];
                lilv_instance_connect_port(instance, i, &controls[i]);
            }
        }
        for (LilvNode* node : {audio, atom, input}) lilv_node_free(node);
        send(nullptr);
    }
    ~Plugin() { lilv_instance_free(instance); }
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    float& operator[](const std::string& symbol) { return controls[indexes.at(symbol)]; }

    // Puts a message for the next run into the port: a patch:Set of the model, or none.
    void send(const char* path) {
        lv2_atom_forge_set_buffer(&host.forge, reinterpret_cast<std::uint8_t*>(toPlugin), sizeof toPlugin);
        LV2_Atom_Forge_Frame sequence, message;
        lv2_atom_forge_sequence_head(&host.forge, &sequence, 0);
        if (path) {
            lv2_atom_forge_frame_time(&host.forge, 0);
            lv2_atom_forge_object(&host.forge, &message, 0, host.getId(LV2_PATCH__Set));
            lv2_atom_forge_key(&host.forge, host.getId(LV2_PATCH__property));
            lv2_atom_forge_urid(&host.forge, host.getId("urn:zevrant:model"));
            lv2_atom_forge_key(&host.forge, host.getId(LV2_PATCH__value));
            lv2_atom_forge_path(&host.forge, path, static_cast<std::uint32_t>(std::strlen(path)));
            lv2_atom_forge_pop(&host.forge, &message);
        }
        lv2_atom_forge_pop(&host.forge, &sequence);
    }

    // The path that the plug-in tells in the run before, if any.
    std::string receive() {
        std::string path;
        const auto* sequence = reinterpret_cast<const LV2_Atom_Sequence*>(fromPlugin);
        LV2_ATOM_SEQUENCE_FOREACH(sequence, event) {
            const LV2_Atom* value = nullptr;
            lv2_atom_object_get(reinterpret_cast<const LV2_Atom_Object*>(&event->body),
                                host.getId(LV2_PATCH__value), &value, 0);
            if (value) path = static_cast<const char*>(LV2_ATOM_BODY_CONST(value));
        }
        return path;
    }

    void run(Audio& in, Audio& out, int start, int size) {
        for (std::size_t c = 0; c < inputs.size(); ++c)
            lilv_instance_connect_port(instance, inputs[c], in[c].data() + start);
        for (std::size_t c = 0; c < outputs.size(); ++c)
            lilv_instance_connect_port(instance, outputs[c], out[c].data() + start);
        reinterpret_cast<LV2_Atom*>(fromPlugin)->size = sizeof fromPlugin - sizeof(LV2_Atom);
        lilv_instance_run(instance, static_cast<std::uint32_t>(size));
    }

    // In odd blocks, the first of no samples, and watched.
    Audio play(Audio in) {
        Audio out(outputs.size(), std::vector<float>(in[0].size()));
        const int length = static_cast<int>(in[0].size());
        lilv_instance_activate(instance);
        run(in, out, 0, 0);
        EXPECT_GE((*this)["latency"], 0.0f);
        const Watch watch = runOnAudioThread([&] {
            for (int start = 0, size = 32; start < length; start += size, size = size % 1024 + 31) {
                size = std::min(size, length - start);
                run(in, out, start, size);
            }
        });
        EXPECT_TRUE(isQuiet(watch));
        lilv_instance_deactivate(instance);
        return out;
    }

    // What the host's worker would do between two blocks.
    void work() {
        const auto* worker = static_cast<const LV2_Worker_Interface*>(
            lilv_instance_get_extension_data(instance, LV2_WORKER__interface));
        for (; host.numOfSchedules > 0; --host.numOfSchedules)
            worker->work(
                instance->lv2_handle,
                [](LV2_Worker_Respond_Handle self, std::uint32_t size, const void* data) {
                    const auto& own = *static_cast<Plugin*>(self);
                    const auto* interface = static_cast<const LV2_Worker_Interface*>(
                        lilv_instance_get_extension_data(own.instance, LV2_WORKER__interface));
                    return interface->work_response(own.instance->lv2_handle, size, data);
                },
                this, 0, nullptr);
    }

    Host& host;
    const LilvPlugin* plugin;
    LilvInstance* instance;
    std::vector<std::string> symbols;
    std::map<std::string, std::uint32_t> indexes;
    std::vector<float> controls;
    std::vector<std::uint32_t> inputs, outputs;
    alignas(8) std::uint8_t toPlugin[8192] = {}, fromPlugin[8192] = {};
};

// Projects hold URIs and symbols.
TEST(Lv2, descriptionsAreCompleteAndSymbolsStay) {
    Host host(true);
    EXPECT_EQ(lilv_plugins_size(lilv_world_get_all_plugins(host.world)),
              2 * plugins::getShippedModels().size() + 1);
    for (const char* uri : {"urn:zevrant:harmonic-percussive", "urn:zevrant:harmonic-percussive:stems",
                            "urn:zevrant:center-sides", "urn:zevrant:hiss-reduction", "urn:zevrant:drums",
                            "urn:zevrant:speech", "urn:zevrant:any"}) {
        const LilvPlugin* plugin = host.find(uri);
        ASSERT_NE(plugin, nullptr) << uri;
        EXPECT_TRUE(lilv_plugin_verify(plugin));
        EXPECT_TRUE(lilv_plugin_has_latency(plugin));
        LilvNodes* required = lilv_plugin_get_required_features(plugin);
        EXPECT_EQ(lilv_nodes_size(required), std::string_view(uri) == "urn:zevrant:any" ? 1u : 0u);
        lilv_nodes_free(required);
    }
    const auto getSymbols = [&](const char* uri) { return Plugin(host, uri, 48000.0).symbols; };
    EXPECT_THAT(getSymbols("urn:zevrant:hiss-reduction"),
                ElementsAre("in_left", "in_right", "out_left", "out_right", "clean_level", "noise_level",
                            "clean_sensitivity", "noise_sensitivity", "enabled", "latency"));
    EXPECT_THAT(getSymbols("urn:zevrant:center-sides:stems"),
                ElementsAre("in_left", "in_right", "out_left", "out_right", "center_level", "sides_level",
                            "center_sensitivity", "sides_sensitivity", "enabled", "latency", "center_left",
                            "center_right", "sides_left", "sides_right"));
    const auto any = getSymbols("urn:zevrant:any");
    ASSERT_EQ(any.size(), 24u);
    EXPECT_EQ(any[4], "level1");
    EXPECT_EQ(any[19], "sensitivity8");
    EXPECT_EQ(any[22], "control");
}

TEST(Lv2, playsWhatTheSeparationGives) {
    Host host(false);
    const Audio in = makeNoise(2, 32000, 1);
    for (const plugins::ShippedModel& model : plugins::getShippedModels())
        for (double rate : {44100.0, 48000.0}) {
            SCOPED_TRACE(testing::Message() << model.id << " at " << rate << " Hz");
            const std::string uri = std::string("urn:zevrant:") + model.id;
            const std::string level = std::string(model.busses[0].symbol) + "_level";
            Plugin mix(host, uri, rate), stems(host, uri + ":stems", rate);
            mix[level] = stems[level] = -12.0f;
            const Separated expected = separate(model.id, in, rate, separation::Output::Mix, {-12.0f});
            EXPECT_EQ(mix.play(in), expected.audio);
            EXPECT_EQ(mix["latency"], static_cast<float>(expected.latency));
            const Audio out = stems.play(in);
            const Separated busses = separate(model.id, in, rate, separation::Output::Busses, {-12.0f});
            EXPECT_EQ(Audio(out.begin() + 2, out.end()), busses.audio);
            EXPECT_LT(calcDifference({out[0], out[1]}, expected.audio), -100.0);
            mix["enabled"] = 0.0f;
            const Audio passed = mix.play(in);
            for (std::size_t i = static_cast<std::size_t>(expected.latency); i < 32000; ++i)
                ASSERT_EQ(passed[1][i], in[1][i - static_cast<std::size_t>(expected.latency)]);
        }
}

// With the host's worker and with the plug-in's own.
TEST(Lv2, anyModelComesByItsPathAndStaysInTheState) {
    const std::string path = MODELS_FOLDER "/center-sides.zevrant";
    Audio in = makeNoise(2, 32000, 1), out = in;
    const Separated expected = separate("center-sides", in, 48000.0, separation::Output::Mix, {-12.0f});
    for (bool hasWorker : {true, false}) {
        Host host(hasWorker);
        Plugin plugin(host, "urn:zevrant:any", 48000.0);
        EXPECT_EQ(plugin.play(in), in) << "without a model";
        EXPECT_EQ(plugin["latency"], 0.0f);
        lilv_instance_activate(plugin.instance);
        plugin["level1"] = -12.0f;
        plugin.send(path.c_str());
        EXPECT_TRUE(isQuiet(runOnAudioThread([&] { plugin.run(in, out, 0, 480); })));
        EXPECT_EQ(plugin.receive(), path);
        plugin.send(nullptr);
        for (int turn = 0; turn < 3000 && plugin["latency"] == 0.0f; ++turn) {
            if (hasWorker)
                plugin.work();
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            plugin.run(in, out, 0, 480);
        }
        EXPECT_EQ(plugin["latency"], static_cast<float>(expected.latency));
        EXPECT_EQ(plugin.play(in), expected.audio);

        LilvState* state = lilv_state_new_from_instance(
            plugin.plugin, plugin.instance, &host.map, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
            LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE, host.features.data());
        ASSERT_NE(state, nullptr);
        EXPECT_GE(lilv_state_get_num_properties(state), 1u);
        Plugin other(host, "urn:zevrant:any", 48000.0);
        setenv("ZEVRANT_MODEL_PATH", MODELS_FOLDER, 1);
        lilv_state_restore(state, other.instance, nullptr, nullptr, 0, host.features.data());
        lilv_state_free(state);
        unsetenv("ZEVRANT_MODEL_PATH");
        other["level1"] = -12.0f;
        EXPECT_EQ(other.play(in), expected.audio);
    }
}

}  // namespace
}  // namespace zevrant
