// zevrant.clap in a host of ours, which does what hosts do and watches the audio thread while it runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "clap/entry.h"
#include "clap/ext/audio-ports.h"
#include "clap/ext/latency.h"
#include "clap/ext/params.h"
#include "clap/ext/state.h"
#include "clap/plugin-factory.h"

#include "files/TemporaryFolder.h"
#include "plugins/AudioThread.h"
#include "plugins/PluginHost.h"

namespace zevrant {
namespace {

constexpr clap_id bypass = 0, model = 1, status = 2, firstLevel = 100, firstSensitivity = 200;
enum Status { None, Loading, Ready, Missing, Broken, WaitsForRestart };

// A change of a parameter at a time of the whole stream.
struct Change {
    std::int64_t time;
    clap_id id;
    double value;
};

const clap_plugin_entry_t& getEntry() {
    static const auto* const entry = [] {
        void* library = dlopen(ZEVRANT_CLAP, RTLD_NOW | RTLD_LOCAL);
        if (!library) throw std::runtime_error(dlerror());
        const auto* found = static_cast<const clap_plugin_entry_t*>(dlsym(library, "clap_entry"));
        if (!found || !found->init(ZEVRANT_CLAP)) throw std::runtime_error("no entry");
        return found;
    }();
    return *entry;
}

const clap_plugin_factory_t& getFactory() {
    return *static_cast<const clap_plugin_factory_t*>(getEntry().get_factory(CLAP_PLUGIN_FACTORY_ID));
}

// One plug-in in a host. A bare host has no extensions at all.
class Host {
  public:
    explicit Host(const std::string& id, bool isBare = false) {
        host = {CLAP_VERSION_INIT,
                this,
                "test",
                "",
                "",
                "1",
                getExtension,
                requestRestart,
                [](const clap_host_t*) {},
                [](const clap_host_t*) {}};
        if (isBare)
            host.get_extension = [](const clap_host_t*, const char*) -> const void* { return nullptr; };
        plugin = getFactory().create_plugin(&getFactory(), &host, id.c_str());
        if (!plugin || !plugin->init(plugin)) throw std::runtime_error("no plug-in " + id);
        ports = get<clap_plugin_audio_ports_t>(CLAP_EXT_AUDIO_PORTS);
        parameters = get<clap_plugin_params_t>(CLAP_EXT_PARAMS);
        states = get<clap_plugin_state_t>(CLAP_EXT_STATE);
        numOfOutputs = static_cast<int>(2 * ports->count(plugin, false));
    }
    ~Host() { plugin->destroy(plugin); }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void activate(double sampleRate, std::uint32_t longestBlock = 1024) {
        ASSERT_TRUE(plugin->activate(plugin, sampleRate, 1, longestBlock));
        plugin->start_processing(plugin);
    }
    void deactivate() {
        plugin->stop_processing(plugin);
        plugin->deactivate(plugin);
    }
    int getLatency() const {
        return static_cast<int>(get<clap_plugin_latency_t>(CLAP_EXT_LATENCY)->get(plugin));
    }
    double getValue(clap_id id) const {
        double value = NAN;
        return parameters->get_value(plugin, id, &value) ? value : NAN;
    }
    std::string getText(clap_id id) const {
        char text[256] = "";
        parameters->value_to_text(plugin, id, getValue(id), text, sizeof text);
        return text;
    }
    void set(clap_id id, double value) {
        const Change change{0, id, value};
        Events events(&change, &change + 1, 0);
        parameters->flush(plugin, &events.list, nullptr);
    }

    // Ids and names of the ports and parameters, a line each.
    std::set<std::string> describe() const {
        std::set<std::string> lines;
        for (bool isInput : {true, false})
            for (std::uint32_t i = 0; i < ports->count(plugin, isInput); ++i) {
                clap_audio_port_info_t info;
                EXPECT_TRUE(ports->get(plugin, i, isInput, &info));
                lines.insert((isInput ? "in " : "out ") + std::to_string(info.id) + " " + info.name);
            }
        for (std::uint32_t i = 0; i < parameters->count(plugin); ++i) {
            clap_param_info_t info;
            EXPECT_TRUE(parameters->get_info(plugin, i, &info));
            lines.insert(std::to_string(info.id) + " " + info.name);
        }
        return lines;
    }

    std::string save() const {
        std::string state;
        const clap_ostream_t stream = {
            &state, [](const clap_ostream_t* self, const void* bytes, std::uint64_t size) {
                const std::uint64_t count = std::min<std::uint64_t>(size, 7);
                static_cast<std::string*>(self->ctx)->append(static_cast<const char*>(bytes), count);
                return static_cast<std::int64_t>(count);
            }};
        EXPECT_TRUE(states->save(plugin, &stream));
        return state;
    }
    bool load(std::string state) {
        const clap_istream_t stream = {
            &state, [](const clap_istream_t* self, void* bytes, std::uint64_t size) {
                auto& rest = *static_cast<std::string*>(self->ctx);
                const std::size_t count = std::min<std::size_t>({size, rest.size(), 7});
                std::memcpy(bytes, rest.data(), count);
                rest.erase(0, count);
                return static_cast<std::int64_t>(count);
            }};
        return states->load(plugin, &stream);
    }

    // One block on the thread that calls. Audio of all outputs; a change counts from its sample on.
    void play(const float* const* in, float* const* out, int numOfSamples, const Change* from,
              const Change* to, std::int64_t time) {
        Events events(from, to, time);
        const clap_output_events_t outEvents = {
            this, [](const clap_output_events_t* self, const clap_event_header_t* event) {
                const auto& change = reinterpret_cast<const clap_event_param_value_t&>(*event);
                if (change.param_id == status)
                    static_cast<Host*>(self->ctx)->toldStatus = static_cast<int>(change.value);
                return true;
            }};
        clap_audio_buffer_t input{};
        input.data32 = const_cast<float**>(in);
        input.channel_count = 2;
        clap_audio_buffer_t outputs[17] = {};
        for (int port = 0; 2 * port < numOfOutputs; ++port) {
            outputs[port].data32 = const_cast<float**>(out) + std::ptrdiff_t{2} * port;
            outputs[port].channel_count = 2;
        }
        clap_process_t block{};
        block.frames_count = static_cast<std::uint32_t>(numOfSamples);
        block.audio_inputs = &input;
        block.audio_inputs_count = 1;
        block.audio_outputs = outputs;
        block.audio_outputs_count = static_cast<std::uint32_t>(numOfOutputs / 2);
        block.in_events = &events.list;
        block.out_events = &outEvents;
        plugin->process(plugin, &block);
    }

    // The whole signal in blocks of this length, or for 0 of random ones, on a watched thread.
    Audio play(const Audio& in, int blockLength, const std::vector<Change>& changes = {}) {
        const auto length = static_cast<int>(in[0].size());
        Audio out(static_cast<std::size_t>(numOfOutputs), std::vector<float>(in[0].size()));
        std::vector<float*> rows(out.size());
        std::mt19937 random(1);
        const Watch watch = runOnAudioThread([&] {
            for (int at = 0; at < length;) {
                const int count =
                    std::min(length - at, blockLength > 0 ? blockLength : static_cast<int>(random() % 1025));
                const float* const inRows[] = {in[0].data() + at, in[1].data() + at};
                for (std::size_t row = 0; row < rows.size(); ++row) rows[row] = out[row].data() + at;
                const Change *from = changes.data(), *end = from + changes.size();
                while (from < end && from->time < at) ++from;
                const Change* to = from;
                while (to < end && to->time < at + count) ++to;
                play(inRows, rows.data(), count, from, to, at);
                at += count;
            }
        });
        EXPECT_TRUE(watch.hasEnded) << "a system call";
        EXPECT_EQ(watch.numOfAllocations, 0);
        EXPECT_EQ(watch.numOfLocks, 0);
        return out;
    }

    int numOfOutputs = 0;  // rows
    std::atomic<int> toldStatus{-1};
    std::atomic<int> numOfRestarts{0};
    int numOfLatencyChanges = 0, numOfRescans = 0;

  private:
    struct Events {
        Events(const Change* from, const Change* to, std::int64_t time)
            : numOfChanges(std::min<std::size_t>(static_cast<std::size_t>(to - from), 64)) {
            for (std::size_t i = 0; i < numOfChanges; ++i) {
                changes[i].header = {sizeof changes[i], static_cast<std::uint32_t>(from[i].time - time),
                                     CLAP_CORE_EVENT_SPACE_ID, CLAP_EVENT_PARAM_VALUE, 0};
                changes[i].param_id = from[i].id;
                changes[i].value = from[i].value;
            }
        }
        std::size_t numOfChanges;
        clap_event_param_value_t changes[64] = {};
        clap_input_events_t list = {
            this,
            [](const clap_input_events_t* self) {
                return static_cast<std::uint32_t>(static_cast<Events*>(self->ctx)->numOfChanges);
            },
            [](const clap_input_events_t* self, std::uint32_t index) -> const clap_event_header_t* {
                return &static_cast<Events*>(self->ctx)->changes[index].header;
            }};
    };

    template <class Extension>
    const Extension* get(const char* name) const {
        return static_cast<const Extension*>(plugin->get_extension(plugin, name));
    }
    static Host& of(const clap_host_t* host) { return *static_cast<Host*>(host->host_data); }
    static void requestRestart(const clap_host_t* host) { ++of(host).numOfRestarts; }
    static const void* getExtension(const clap_host_t*, const char* name) {
        static const clap_host_latency_t latency = {
            [](const clap_host_t* self) { ++of(self).numOfLatencyChanges; }};
        static const clap_host_params_t params = {
            [](const clap_host_t* self, clap_param_rescan_flags) { ++of(self).numOfRescans; },
            [](const clap_host_t*, clap_id, clap_param_clear_flags) {}, [](const clap_host_t*) {}};
        if (std::string_view(name) == CLAP_EXT_LATENCY) return &latency;
        return std::string_view(name) == CLAP_EXT_PARAMS ? &params : nullptr;
    }

    clap_host_t host{};
    const clap_plugin_t* plugin = nullptr;
    const clap_plugin_audio_ports_t* ports = nullptr;
    const clap_plugin_params_t* parameters = nullptr;
    const clap_plugin_state_t* states = nullptr;
};

float getLargestDifference(const std::vector<float>& a, const std::vector<float>& b,
                           std::size_t delayOfA = 0) {
    float largest = 0.0f;
    for (std::size_t i = 0; i < b.size() - delayOfA; ++i)
        largest = std::max(largest, std::abs(a[i + delayOfA] - b[i]));
    return largest;
}

// Projects of users hold these. More may come, but nothing here may change.
TEST(Clap, idsAndNamesStay) {
    const std::map<std::string, std::vector<std::string>> busses = {
        {"zevrant.center-sides", {"Center", "Sides"}},
        {"zevrant.drums", {"Drums", "Rest"}},
        {"zevrant.harmonic-percussive", {"Harmonic", "Percussive"}},
        {"zevrant.hiss-reduction", {"Clean", "Noise"}},
        {"zevrant.speech", {"Speech", "Background"}},
        {"zevrant.any-model", {"Bus 1", "Bus 2", "Bus 3", "Bus 4", "Bus 5", "Bus 6", "Bus 7", "Bus 8"}}};
    std::set<std::string> ids;
    for (std::uint32_t i = 0; i < getFactory().get_plugin_count(&getFactory()); ++i)
        ids.insert(getFactory().get_plugin_descriptor(&getFactory(), i)->id);
    for (const auto& [id, names] : busses) {
        SCOPED_TRACE(id);
        ASSERT_TRUE(ids.contains(id));
        const bool isAny = id == "zevrant.any-model";
        std::set<std::string> expected = {"in 0 Input", "out 0 Mix", "0 Bypass", "2 Status"};
        if (isAny) expected.insert("1 Model");
        for (std::size_t bus = 0; bus < names.size(); ++bus) {
            const std::string number = std::to_string(bus + 1);
            expected.insert("out " + number + " " + names[bus]);
            expected.insert(std::to_string(100 + bus) + " " +
                            (isAny ? "Level " + number : names[bus] + " level"));
            expected.insert(std::to_string(200 + bus) + " " +
                            (isAny ? "Sensitivity " + number : names[bus] + " sensitivity"));
        }
        EXPECT_EQ(Host(id, true).describe(), expected);
    }
}

// At every rate and block length each output is that of the library, bit for bit, after every activation.
TEST(Clap, playsWhatTheLibraryPlays) {
    const Audio in = makeNoise(2, 30000, 1);
    for (const char* name : {"center-sides", "harmonic-percussive", "hiss-reduction"})
        for (double sampleRate : {44100.0, 48000.0}) {
            const auto [expected, latency] = separate(name, in, sampleRate, separation::Output::Busses, {});
            for (bool isBare : {true, false}) {
                Host host(std::string("zevrant.") + name, isBare);
                for (int blockLength : {32, 64, 256, 1024, 0}) {
                    SCOPED_TRACE(testing::Message()
                                 << name << " at " << sampleRate << " Hz in blocks of " << blockLength);
                    host.activate(sampleRate);
                    EXPECT_EQ(host.getLatency(), latency);
                    const Audio out = host.play(in, blockLength);
                    for (std::size_t row = 0; row < expected.size(); ++row)
                        EXPECT_EQ(out[row + 2], expected[row]);
                    // At these levels the mix is the input, but for roundings of sums.
                    EXPECT_LT(getLargestDifference(out[0], in[0], static_cast<std::size_t>(latency)), 1e-5f);
                    EXPECT_EQ(host.toldStatus, Ready);
                    host.deactivate();
                    if (isBare) break;
                }
                EXPECT_EQ(host.numOfLatencyChanges, isBare ? 0 : 1);
            }
        }
}

// Changes count from their sample on, however the host cuts blocks around them, and none of them clicks.
TEST(Clap, automationIsTheSameInAllBlocks) {
    const int length = 40000;
    Audio in = makeNoise(2, length, 1);
    for (auto& row : in)
        for (int i = 0; i < length; ++i)
            row[static_cast<std::size_t>(i)] = 0.25f * std::sin(0.02f * static_cast<float>(i));
    std::vector<Change> changes;
    std::mt19937 random(3);
    for (std::int64_t time = 5000; time < length; time += 200 + random() % 3000) {
        changes.push_back(
            {time, firstLevel + static_cast<clap_id>(random() % 2), -static_cast<double>(random() % 100)});
        changes.push_back({time, firstSensitivity + static_cast<clap_id>(random() % 2),
                           static_cast<double>(random() % 200) - 100.0});
        if (random() % 3 == 0) changes.push_back({time, bypass, static_cast<double>(random() % 2)});
    }
    Host host("zevrant.harmonic-percussive");
    Audio first;
    for (int blockLength : {1024, 1, 32, 0}) {
        SCOPED_TRACE(blockLength);
        host.activate(48000.0);
        ASSERT_TRUE(host.load("zevrant 1\n"));  // all controls as at the start
        host.deactivate();
        host.activate(48000.0);
        const Audio out = host.play(in, blockLength, changes);
        host.deactivate();
        if (first.empty()) first = out;
        EXPECT_EQ(out, first);
    }
    float steepest = 0.0f;
    for (std::size_t i = 1; i < first[0].size(); ++i)
        steepest = std::max(steepest, std::abs(first[0][i] - first[0][i - 1]));
    EXPECT_LT(steepest,
              0.25f * 0.02f + 0.25f * 2.0f / 960.0f + 2e-3f);  // the sine's own, and a fade over 20 ms
}

class AnyModel : public testing::Test {
  protected:
    AnyModel() {
        for (const char* name : {"center-sides", "harmonic-percussive"})
            std::filesystem::copy(std::string(MODELS_FOLDER "/") + name + ".zevrant", folder.path);
        std::filesystem::copy(MODELS_FOLDER "/center-sides.zevrant", folder.getPath("copy.zevrant"));
        folder.makeFile("broken.zevrant", "no model");
        setenv("ZEVRANT_MODEL_PATH", folder.path.c_str(), 1);
    }
    ~AnyModel() override { unsetenv("ZEVRANT_MODEL_PATH"); }

    // The value of the parameter that stands for this model.
    static double find(Host& host, const std::string& name) {
        for (double value = 0.0;; value += 1.0) {
            host.set(model, value);
            if (host.getText(model) == name) return value;
            if (value > 100.0) throw std::runtime_error("no choice " + name);
        }
    }

    const TemporaryFolder folder;
};

TEST_F(AnyModel, changesWhileAudioPlays) {
    Host host("zevrant.any-model");
    const double broken = find(host, "broken"), copy = find(host, "copy"),
                 other = find(host, "harmonic-percussive");
    find(host, "center-sides");
    host.activate(48000.0);
    const int latency = host.getLatency();
    EXPECT_GT(latency, 0);

    // Until a model has come, or the host is to restart, and a second beyond. Nothing is heard of it.
    Audio in = makeNoise(2, 1 << 16, 1);
    Audio out(static_cast<std::size_t>(host.numOfOutputs), std::vector<float>(1024));

    std::vector<float*> rows;
    for (auto& row : out) rows.push_back(row.data());
    std::int64_t time = 0;
    const auto playUntil = [&](double choice, Status expected) {
        float largest = 0.0f;
        bool hasCome = false;
        const Watch watch = runOnAudioThread([&] {
            const Change change{time, model, choice};
            host.play(nullptr, rows.data(), 0, &change, &change + 1, time);
            for (std::int64_t rest = 48000, blocks = 0; rest > 0 && blocks < 20000000; ++blocks) {
                const int count = 64;
                const auto at = static_cast<std::size_t>(time % (1 << 16));
                const float* const inRows[] = {in[0].data() + at, in[1].data() + at};
                host.play(inRows, rows.data(), count, nullptr, nullptr, time);
                for (int i = 0; i < count && time + i >= latency; ++i)
                    largest = std::max(
                        largest, std::abs(out[0][static_cast<std::size_t>(i)] -
                                          in[0][static_cast<std::size_t>((time + i - latency) % (1 << 16))]));
                time += count;
                hasCome |= host.toldStatus == expected;
                if (hasCome) rest -= count;
            }
        });
        EXPECT_TRUE(isQuiet(watch)) << watch.hasEnded << watch.numOfAllocations << watch.numOfLocks;
        EXPECT_TRUE(hasCome) << host.getText(status);
        EXPECT_LT(largest, 1e-5f);
    };
    playUntil(copy, Ready);
    playUntil(broken, Broken);
    playUntil(copy, Ready);
    EXPECT_EQ(host.numOfRestarts, 0);
    playUntil(other, WaitsForRestart);
    EXPECT_EQ(host.numOfRestarts, 1);
    EXPECT_EQ(host.getLatency(), latency);
    EXPECT_EQ(host.numOfLatencyChanges, 1);
    host.deactivate();
    host.activate(48000.0);
    EXPECT_NE(host.getLatency(), latency);
    EXPECT_EQ(host.numOfLatencyChanges, 2);
    host.deactivate();
}

TEST_F(AnyModel, projectsHoldItByNameAndChecksum) {
    // A model that is nowhere else: one letter of what it says about itself is another.
    std::string bytes = folder.readFile("harmonic-percussive.zevrant");
    bytes[bytes.find("percussive") + 1] = 'E';
    folder.makeFile("mine.zevrant", bytes);
    std::string state;
    Audio in = makeNoise(2, 20000, 1), before;
    {
        Host host("zevrant.any-model");
        find(host, "mine");
        host.set(firstLevel + 1, -7.5);
        host.set(firstSensitivity, 25.0);
        state = host.save();
        host.activate(44100.0);
        before = host.play(in, 0);
    }
    EXPECT_THAT(state, testing::ContainsRegex("model mine:[0-9a-f]{16}\n"));
    EXPECT_THAT(state, testing::HasSubstr("bus2.level -7.5\n"));
    const auto expectSameSound = [&](const std::string& text, const std::string& name) {
        Host host("zevrant.any-model");
        ASSERT_TRUE(host.load(text));
        EXPECT_EQ(host.getText(model), name);
        EXPECT_EQ(host.numOfRescans, 1);
        host.activate(44100.0);
        EXPECT_EQ(host.play(in, 256), before);
    };
    expectSameSound(state, "mine");
    folder.makeFile("a-new-first.zevrant", folder.readFile("center-sides.zevrant"));  // positions move
    expectSameSound(state, "mine");
    std::filesystem::rename(folder.getPath("mine.zevrant"), folder.getPath("renamed.zevrant"));
    expectSameSound(state, "renamed");

    // A model that is missing leaves the input, says so, and stays in the project.
    std::filesystem::remove(folder.getPath("renamed.zevrant"));
    setenv("HOME", folder.path.c_str(), 1);
    std::string missing = state;
    missing.replace(missing.find("mine:"), 21, "nowhere:0123456789abcdef");
    Host host("zevrant.any-model");
    ASSERT_TRUE(host.load(missing));
    EXPECT_EQ(host.getText(model), "nowhere (missing)");
    host.activate(44100.0);
    const Audio out = host.play(in, 64);
    EXPECT_EQ(getLargestDifference(out[0], in[0], static_cast<std::size_t>(host.getLatency())), 0.0f);
    EXPECT_EQ(host.getText(status), "model is missing");
    EXPECT_EQ(host.save(), missing);
    for (const char* text : {"", "zevrant", "another program's", "zevrant 2\nbypass 1\n"})
        EXPECT_FALSE(host.load(text)) << text;
    EXPECT_TRUE(host.load(state.substr(0, state.size() / 2)));
}

}  // namespace
}  // namespace zevrant
