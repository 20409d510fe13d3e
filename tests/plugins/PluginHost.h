// What plug-ins are compared with, and signals that go through them.
#pragma once

#include <gtest/gtest.h>

#include "interface/AudioHost.h"
#include "plugins/ShippedModels.h"
#include "separation/Stream.h"

namespace zevrant {

struct Separated {
    Audio audio;  // the mix, or each bus
    int latency;
};

// The separation itself on the same audio, with these levels of the first busses.
inline Separated separate(const std::string& model, const Audio& in, double sampleRate,
                          separation::Output output, const std::vector<float>& levels) {
    using namespace separation;
    Controls controls;
    for (std::size_t bus = 0; bus < levels.size(); ++bus) controls.levels[bus] = levels[bus];
    const int length = static_cast<int>(in[0].size());
    Stream stream(Model::open(MODELS_FOLDER "/" + model + ".zevrant"),
                  {.numOfChannels = 2, .sampleRate = sampleRate, .longestBlock = length, .output = output},
                  controls);
    Audio out(static_cast<std::size_t>(stream.getSeparator().getNumOfOutputChannels()),
              std::vector<float>(in[0].size()));
    std::vector<const float*> from{in[0].data(), in[1].data()};
    std::vector<float*> to;
    for (auto& row : out) to.push_back(row.data());
    stream.process(from.data(), to.data(), length);
    return {out, stream.getLatency()};
}

}  // namespace zevrant
