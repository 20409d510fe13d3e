#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plugins/ModelFiles.h"
#include "plugins/PluginCore.h"
#include "plugins/ShippedModels.h"

namespace zevrant::plugins {

// What a host has in its list: one for each model that ships, and one for any model.
struct PluginType {
    std::string id;     // "zevrant.harmonic-percussive", "zevrant.any-model"
    std::string title;  // for people
    std::string description;
    const ShippedModel* model;  // null: any
};

// Those that ship sorted by id, then the one for any model.
const std::vector<PluginType>& getPluginTypes();

struct Parameter {
    std::uint32_t id;  // stays the same for ever, because users' projects hold it
    std::string name;
    std::string unit;
    double least, most, initial;
    bool isStepped = false, isReadOnly = false, isBypass = false;
};

// A plug-in for hosts that know parameters by number, as CLAP and VST3 do: a core, and what its controls are
// called.
//
//   bypass                  0
//   model                   1           any model alone: 0 none, then the files of the model folders as they
//                                       were when the plug-in was made, the last one a model beyond these
//   status                  2           a PluginCore::Status, or waitsForRestart. Read only
//   level of bus b          100 + b     decibels
//   sensitivity of bus b    200 + b
//
// State    Lines of text, a key and a value each. Models are in it by name and checksum, and controls by the
//          symbols of their busses, so that neither positions nor folders matter. What is unknown is skipped,
//          what lacks takes its initial value.
// Threads  As PluginCore has them.
class HostedPlugin {
  public:
    static constexpr std::uint32_t bypassId = 0, modelId = 1, statusId = 2, levelId = 100,
                                   sensitivityId = 200;
    static constexpr int waitsForRestart = 5;  // a status: the model has another latency, which the host
                                               // has to take

    explicit HostedPlugin(const PluginType& type);

    const PluginType& getType() const { return type; }
    PluginCore& getCore() { return core; }
    const std::vector<Parameter>& getParameters() const { return parameters; }
    const Parameter* findParameter(std::uint32_t id) const noexcept;
    const std::vector<std::string>& getBusNames() const { return busNames; }  // of the outputs

    double getValue(std::uint32_t id) const noexcept;           // [any]
    void setValue(std::uint32_t id, double value) noexcept;     // [any] ignores what is not there
    std::string getText(std::uint32_t id, double value) const;  // [host]
    std::optional<double> getValue(std::uint32_t id, std::string_view text) const;  // [host]

    // As the core's. in: two rows, which may be the same memory as those of out. [audio]
    void process(const float* const* in, float* const* out, int numOfSamples) noexcept;

    std::string save() const;             // [host]
    bool load(const std::string& state);  // [host] false where it is none, and then nothing has changed

  private:
    struct Bus {
        std::string name, symbol;
    };

    void addParameters();
    void choose(int choice) noexcept;
    void requestChoice() noexcept;
    void loadModel(const ModelReference& reference);
    int getOtherChoice() const { return static_cast<int>(paths.size()); }

    const PluginType& type;
    std::vector<Bus> busses;
    std::vector<std::string> busNames;
    std::vector<Parameter> parameters;
    std::vector<ModelFile> files;    // that there are to choose from
    std::vector<std::string> paths;  // by choice: none, then those of the files

    // A model that is not among the files, or not anywhere. The texts stay, because the audio thread may be
    // reading one.
    struct Other {
        ModelReference reference;
        std::string path, text;
    };
    std::deque<Other> others;
    std::atomic<const Other*> other{nullptr};
    std::atomic<int> choice{0};
    std::atomic<bool> isRequestDue{false};

    PluginCore core;
};

}  // namespace zevrant::plugins
