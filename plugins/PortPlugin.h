#pragma once

#include <span>
#include <string>
#include <vector>

#include "plugins/PluginCore.h"
#include "plugins/ShippedModels.h"

namespace zevrant::plugins {

// A plug-in whose host connects every port to memory of its own: what LADSPA and LV2 have in common. Both are
// stereo.
//
// The order of the ports is
//
//   inputs, outputs, a level per bus, a sensitivity per bus, the switch, the latency, then with outputs of
//   their own those of the busses
//
// and with the symbols an interface of its own, which users' projects hold.
struct Port {
    enum class Kind { Input, Output, Level, Sensitivity, Bypass, Enabled, Latency, BusOutput };

    Kind kind;
    int channel;  // of audio
    int bus;      // of levels, sensitivities and outputs of busses
    std::string name, symbol;

    bool isAudio() const { return kind == Kind::Input || isAudioOutput(); }
    bool isAudioOutput() const { return kind == Kind::Output || kind == Kind::BusOutput; }

    // Of controls that go in. Decibels, the range of sensitivities, or 0 and 1.
    float getLowest() const;
    float getHighest() const;
    float getDefault() const { return kind == Kind::Enabled ? 1.0f : 0.0f; }
};

// The ports for busses of these names and symbols. The switch is Bypass or Enabled, as the format has it.
std::vector<Port> makePorts(std::span<const ShippedBus> busses, Port::Kind kindOfSwitch, bool hasBusOutputs);

class PortPlugin {
  public:
    // The ports outlive the plug-in. The model is read here: path, name, or "" for none.
    PortPlugin(std::span<const Port> ports, PluginCore::Options options, double sampleRate,
               const std::string& model);

    // [audio]
    void connect(std::size_t port, void* memory) { memories[port] = static_cast<float*>(memory); }

    // Starts anew, with controls where the first block finds them. [host, not during run()]
    void activate() { isFresh = true; }

    // Fills the latency for blocks of no samples, too. [audio]
    void run(int numOfSamples) noexcept;

    PluginCore core;

  private:
    void readControls() noexcept;

    const std::span<const Port> ports;
    std::vector<float*> memories;  // one for each port
    std::vector<const float*> inputs;
    std::vector<float*> outputs;
    bool isFresh = true;
};

}  // namespace zevrant::plugins
