// zevrant.vst3 in a host of ours. It goes through travesty's tables, which the plug-in itself does not use.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "travesty/audio_processor.h"
#include "travesty/component.h"
#include "travesty/edit_controller.h"
#include "travesty/factory.h"

#include "plugins/AudioThread.h"
#include "plugins/PluginHost.h"

namespace zevrant {
namespace {

constexpr v3_param_id model = 1, status = 2, firstLevel = 100;

// What the host hands over as an object: a pointer to a table, whose first entries are those of all objects.
template <class Table>
struct Object {
    v3_funknown base = {[](void*, const v3_tuid, void** object) {
                            *object = nullptr;
                            return v3_result{V3_NO_INTERFACE};
                        },
                        [](void*) { return 1u; }, [](void*) { return 1u; }};
    Table table{};
};

struct MemoryStream {
    Object<v3_bstream>* object = &content;
    Object<v3_bstream> content;
    std::string bytes;
    std::size_t position = 0;

    MemoryStream() {
        content.table.read = [](void* self, void* out, std::int32_t size, std::int32_t* count) {
            auto& stream = *static_cast<MemoryStream*>(self);
            *count = std::min({size, 7, static_cast<std::int32_t>(stream.bytes.size() - stream.position)});
            std::memcpy(out, stream.bytes.data() + stream.position, static_cast<std::size_t>(*count));
            stream.position += static_cast<std::size_t>(*count);
            return v3_result{V3_OK};
        };
        content.table.write = [](void* self, void* in, std::int32_t size, std::int32_t* count) {
            *count = std::min(size, 7);
            static_cast<MemoryStream*>(self)->bytes.append(static_cast<const char*>(in),
                                                           static_cast<std::size_t>(*count));
            return v3_result{V3_OK};
        };
    }
    v3_bstream** get() { return reinterpret_cast<v3_bstream**>(this); }
};

// Changes of one parameter. The plug-in writes the status into it, too.
struct Queue {
    Object<v3_param_value_queue>* object = &content;
    Object<v3_param_value_queue> content;
    v3_param_id id = 0;
    std::int32_t numOfPoints = 0;
    std::int32_t times[64] = {};
    double values[64] = {};

    Queue() {
        content.table.get_param_id = [](void* self) { return static_cast<Queue*>(self)->id; };
        content.table.get_point_count = [](void* self) { return static_cast<Queue*>(self)->numOfPoints; };
        content.table.get_point = [](void* self, std::int32_t index, std::int32_t* time, double* value) {
            *time = static_cast<Queue*>(self)->times[index];
            *value = static_cast<Queue*>(self)->values[index];
            return v3_result{V3_OK};
        };
        content.table.add_point = [](void* self, std::int32_t time, double value, std::int32_t* index) {
            auto& queue = *static_cast<Queue*>(self);
            *index = queue.numOfPoints = 1;
            queue.times[0] = time;
            queue.values[0] = value;
            return v3_result{V3_OK};
        };
    }
};

struct Changes {
    Object<v3_param_changes>* object = &content;
    Object<v3_param_changes> content;
    Queue queue;

    Changes() {
        content.table.get_param_count = [](void* self) {
            return static_cast<Changes*>(self)->queue.numOfPoints > 0 ? 1 : 0;
        };
        content.table.get_param_data = [](void* self, std::int32_t) {
            return reinterpret_cast<v3_param_value_queue**>(&static_cast<Changes*>(self)->queue);
        };
        content.table.add_param_data = [](void* self, v3_param_id* id, std::int32_t* index) {
            *index = 0;
            static_cast<Changes*>(self)->queue.id = *id;
            return reinterpret_cast<v3_param_value_queue**>(&static_cast<Changes*>(self)->queue);
        };
    }
    v3_param_changes** get() { return reinterpret_cast<v3_param_changes**>(this); }
};

struct Handler {
    Object<v3_component_handler>* object = &content;
    Object<v3_component_handler> content;
    int flags = 0;

    Handler() {
        content.table.restart_component = [](void* self, std::int32_t newFlags) {
            static_cast<Handler*>(self)->flags |= newFlags;
            return v3_result{V3_OK};
        };
    }
};

v3_plugin_factory** getFactory() {
    static v3_plugin_factory** const factory = [] {
        void* library = dlopen(ZEVRANT_VST3, RTLD_NOW | RTLD_LOCAL);
        if (!library) throw std::runtime_error(dlerror());
        const auto enter = reinterpret_cast<bool (*)(void*)>(dlsym(library, "ModuleEntry"));
        const auto get = reinterpret_cast<v3_plugin_factory** (*)()>(dlsym(library, "GetPluginFactory"));
        if (!enter || !get || !dlsym(library, "ModuleExit") || !enter(library))
            throw std::runtime_error("no entry");
        return get();
    }();
    return factory;
}

std::string toText(const std::int16_t* text) {
    std::string ascii;
    for (; *text != 0; ++text) ascii += static_cast<char>(*text);
    return ascii;
}

// Class ids by name.
std::map<std::string, std::string> listClasses() {
    std::map<std::string, std::string> classes;
    for (int i = 0; i < v3_cpp_obj(getFactory())->num_classes(getFactory()); ++i) {
        v3_class_info info;
        EXPECT_EQ(v3_cpp_obj(getFactory())->get_class_info(getFactory(), i, &info), V3_OK);
        EXPECT_STREQ(info.category, "Audio Module Class");
        classes[info.name] = std::string(reinterpret_cast<const char*>(info.class_id), sizeof info.class_id);
    }
    return classes;
}

class Host {
  public:
    explicit Host(const std::string& name) {
        const std::string id = listClasses().at(name);
        v3_tuid classId;
        std::memcpy(classId, id.data(), sizeof classId);
        void* object = nullptr;
        if (v3_cpp_obj(getFactory())->create_instance(getFactory(), classId, v3_component_iid, &object) !=
            V3_OK)
            throw std::runtime_error("no plug-in " + name);
        component = static_cast<v3_component**>(object);
        v3_cpp_obj_initialize(component, static_cast<v3_funknown**>(nullptr));
        v3_cpp_obj_query_interface(component, v3_audio_processor_iid, &processor);
        v3_cpp_obj_query_interface(component, v3_edit_controller_iid, &controller);
        v3_cpp_obj(controller)
            ->set_component_handler(controller, reinterpret_cast<v3_component_handler**>(&handler));
        numOfOutputs = v3_cpp_obj(component)->get_bus_count(component, V3_AUDIO, V3_OUTPUT);
        out = Audio(static_cast<std::size_t>(2 * numOfOutputs), std::vector<float>(1024));
        for (auto& row : out) rows.push_back(row.data());
        for (std::size_t bus = 0; 2 * bus < rows.size(); ++bus) {
            outputs[bus].num_channels = 2;
            outputs[bus].channel_buffers_32 = rows.data() + 2 * bus;
        }
    }
    ~Host() {
        v3_cpp_obj_unref(controller);
        v3_cpp_obj_unref(processor);
        v3_cpp_obj_terminate(component);
        EXPECT_EQ(v3_cpp_obj_unref(component), 0u);
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void activate(double sampleRate) {
        v3_process_setup setup{V3_REALTIME, V3_SAMPLE_32, 1024, sampleRate};
        EXPECT_EQ(v3_cpp_obj(processor)->setup_processing(processor, &setup), V3_OK);
        EXPECT_EQ(v3_cpp_obj(component)->set_active(component, true), V3_OK);
        v3_cpp_obj(processor)->set_processing(processor, true);
    }
    void deactivate() {
        v3_cpp_obj(processor)->set_processing(processor, false);
        v3_cpp_obj(component)->set_active(component, false);
    }
    int getLatency() const { return static_cast<int>(v3_cpp_obj(processor)->get_latency_samples(processor)); }

    std::set<std::string> describe() const {
        std::set<std::string> lines;
        for (std::int32_t bus = 0; bus < numOfOutputs; ++bus) {
            v3_bus_info info;
            EXPECT_EQ(v3_cpp_obj(component)->get_bus_info(component, V3_AUDIO, V3_OUTPUT, bus, &info), V3_OK);
            lines.insert("out " + toText(info.bus_name));
        }
        for (std::int32_t i = 0; i < v3_cpp_obj(controller)->get_parameter_count(controller); ++i) {
            v3_param_info info;
            EXPECT_EQ(v3_cpp_obj(controller)->get_parameter_info(controller, i, &info), V3_OK);
            lines.insert(std::to_string(info.param_id) + " " + toText(info.title));
        }
        return lines;
    }

    double getNormalised(v3_param_id id, double plain) const {
        return v3_cpp_obj(controller)->plain_parameter_to_normalised(controller, id, plain);
    }
    void set(v3_param_id id, double plain) {
        v3_cpp_obj(controller)->set_parameter_normalised(controller, id, getNormalised(id, plain));
    }
    std::string getText(v3_param_id id) const {
        v3_str_128 text;
        v3_cpp_obj(controller)
            ->get_parameter_string_for_value(
                controller, id, v3_cpp_obj(controller)->get_parameter_normalised(controller, id), text);
        return toText(text);
    }
    // The value of the parameter that stands for this model.
    double find(const std::string& name) {
        for (double value = 0.0; value < 100.0; value += 1.0) {
            set(model, value);
            if (getText(model) == name) return value;
        }
        throw std::runtime_error("no choice " + name);
    }

    // One block on the thread that calls, into out.
    void play(const float* left, const float* right, int numOfSamples) {
        float* inRows[] = {const_cast<float*>(left), const_cast<float*>(right)};
        v3_audio_bus_buffers input{};
        input.num_channels = 2;
        input.channel_buffers_32 = inRows;
        v3_process_data data{};
        data.nframes = numOfSamples;
        data.num_input_buses = 1;
        data.num_output_buses = numOfOutputs;
        data.inputs = &input;
        data.outputs = outputs;
        data.input_params = in.get();
        data.output_params = told.get();
        v3_cpp_obj(processor)->process(processor, &data);
        in.queue.numOfPoints = 0;
    }

    // The whole signal on a watched thread, with changes of one parameter at these times.
    Audio play(const Audio& signal, int blockLength, v3_param_id id = 0,
               const std::map<int, double>& changes = {}) {
        const auto length = static_cast<int>(signal[0].size());
        Audio whole(out.size(), std::vector<float>(signal[0].size()));
        const Watch watch = runOnAudioThread([&] {
            for (int at = 0; at < length; at += blockLength) {
                const int count = std::min(length - at, blockLength);
                in.queue.id = id;
                for (const auto& [time, value] : changes)
                    if (time >= at && time < at + count) {
                        in.queue.times[in.queue.numOfPoints] = time - at;
                        in.queue.values[in.queue.numOfPoints++] = value;
                    }
                play(signal[0].data() + at, signal[1].data() + at, count);
                for (std::size_t row = 0; row < out.size(); ++row)
                    std::copy_n(out[row].begin(), count, whole[row].begin() + at);
            }
        });
        EXPECT_TRUE(isQuiet(watch)) << watch.hasEnded << " " << watch.numOfAllocations << " "
                                    << watch.numOfLocks;
        return whole;
    }

    std::string save() const {
        MemoryStream stream;
        EXPECT_EQ(v3_cpp_obj(component)->get_state(component, stream.get()), V3_OK);
        return stream.bytes;
    }
    bool load(const std::string& state) {
        MemoryStream stream;
        stream.bytes = state;
        return v3_cpp_obj(component)->set_state(component, stream.get()) == V3_OK;
    }

    std::int32_t numOfOutputs = 0;  // busses
    Audio out;
    Handler handler;
    Changes in, told;

  private:
    v3_component** component = nullptr;
    v3_audio_processor** processor = nullptr;
    v3_edit_controller** controller = nullptr;
    std::vector<float*> rows;
    v3_audio_bus_buffers outputs[17] = {};
};

// Projects of users hold these. More may come, but nothing here may change.
TEST(Vst3, idsAndNamesStay) {
    const std::map<std::string, std::string> ids = {
        {"Zevrant Center Sides", "2cde9f0a3617cab11ccc961cb6a4c471"},
        {"Zevrant Harmonic Percussive", "09ab12c6ab493ed81a7329643a135e98"},
        {"Zevrant Hiss Reduction", "7b627f3aa2109a58db78a0538f295f18"},
        {"Zevrant Any Model", "9a804ff08fb9f065f22f01fe7b034825"}};
    const std::map<std::string, std::string> classes = listClasses();
    for (const auto& [name, id] : ids) {
        std::string digits;
        for (const char byte : classes.at(name)) {
            char text[3];
            std::snprintf(text, sizeof text, "%02x", static_cast<unsigned char>(byte));
            digits += text;
        }
        EXPECT_EQ(digits, id) << name;
    }
    const std::set<std::string> expected = {"out Mix",
                                            "out Harmonic",
                                            "out Percussive",
                                            "0 Bypass",
                                            "2 Status",
                                            "100 Harmonic level",
                                            "101 Percussive level",
                                            "200 Harmonic sensitivity",
                                            "201 Percussive sensitivity"};
    EXPECT_EQ(Host("Zevrant Harmonic Percussive").describe(), expected);
    const std::set<std::string> any = Host("Zevrant Any Model").describe();
    for (const char* line : {"out Bus 8", "1 Model", "107 Level 8", "207 Sensitivity 8"})
        EXPECT_TRUE(any.contains(line)) << line;
}

TEST(Vst3, playsWhatTheLibraryPlays) {
    const Audio in = makeNoise(2, 20000, 1);
    Host host("Zevrant Harmonic Percussive");
    for (double sampleRate : {44100.0, 48000.0}) {
        const auto [expected, latency] =
            separate("harmonic-percussive", in, sampleRate, separation::Output::Busses, {});
        for (int blockLength : {32, 256, 1024}) {
            SCOPED_TRACE(testing::Message() << sampleRate << " Hz in blocks of " << blockLength);
            host.activate(sampleRate);
            EXPECT_EQ(host.getLatency(), latency);
            const Audio out = host.play(in, blockLength);
            for (std::size_t row = 0; row < expected.size(); ++row) EXPECT_EQ(out[row + 2], expected[row]);
            host.deactivate();
        }
    }
}

// Points of a queue count from their sample on, also where they are close to each other or to the end.
TEST(Vst3, automationIsTheSameInAllBlocks) {
    const Audio in = makeNoise(2, 30000, 1);
    std::map<int, double> changes;
    for (int time = 3007; time < 30000; time += 997) changes[time] = time % 7 / 7.0;
    Host host("Zevrant Harmonic Percussive");
    Audio first;
    for (int blockLength : {1024, 256, 37}) {
        host.set(firstLevel, 0.0);
        host.activate(48000.0);
        const Audio out = host.play(in, blockLength, firstLevel, changes);
        host.deactivate();
        if (first.empty()) first = out;
        EXPECT_EQ(out, first) << blockLength;
    }
}

TEST(Vst3, tellsAnotherLatencyOnTheThreadOfTheController) {
    setenv("ZEVRANT_MODEL_PATH", MODELS_FOLDER, 1);
    Host host("Zevrant Any Model");
    const double other = host.find("harmonic-percussive");
    const double normalised = host.getNormalised(model, other);
    host.find("center-sides");
    host.set(firstLevel + 1, -6.5);
    const std::string state = host.save();
    host.activate(48000.0);
    const int latency = host.getLatency();
    const Audio in = makeNoise(2, 1024, 1);
    const Watch watch = runOnAudioThread([&] {
        host.in.queue.id = model;
        host.in.queue.numOfPoints = 1;
        host.in.queue.values[0] = normalised;
        for (int i = 0; i < 2000000 && host.told.queue.values[0] < 1.0; ++i)
            host.play(in[0].data(), in[1].data(), 64);
    });
    EXPECT_TRUE(isQuiet(watch));
    EXPECT_EQ(host.told.queue.id, status);
    EXPECT_EQ(host.getLatency(), latency);
    EXPECT_EQ(host.handler.flags, 0);
    host.set(status, 5.0);  // as hosts pass on what came out of process()
    EXPECT_EQ(host.handler.flags, V3_RESTART_LATENCY_CHANGED);
    host.deactivate();
    host.activate(48000.0);
    EXPECT_NE(host.getLatency(), latency);

    Host copy("Zevrant Any Model");
    ASSERT_TRUE(copy.load(state));
    EXPECT_EQ(copy.getText(model), "center-sides");
    EXPECT_EQ(copy.getText(firstLevel + 1), "-6.5 dB");
    EXPECT_FALSE(copy.load("something else"));
    unsetenv("ZEVRANT_MODEL_PATH");
}

}  // namespace
}  // namespace zevrant
