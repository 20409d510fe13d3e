// Small models whose effect on audio is known, for tests that run whole processors.
#pragma once

#include <string>
#include <vector>

#include "modelwriter/ModelWriter.h"

namespace zevrant {

struct TestModel {
    int channels = 1;
    double sampleRate = 48000.0;
    int fftSize = 256, windowSize = 256, hopSize = 64;
    int delay = 0;                      // frames for which results are held back
    int processingMode = 0;             // 0: masks
    std::vector<float> busGains{1.0f};  // one per bus
    std::vector<std::string> names{};   // made up unless given
    bool constantMasks = false;         // masks that are the bus gains instead of the network's

    int numOfBins() const { return fftSize / 2 + 1; }
};

// A convolution that hands slice k on as result k, delay slices late, with row o of the output being
// factors[o] times input channel o % inputs.
inline modelwriter::Conv makeDelayedGains(int delay, int inputs, const std::vector<float>& factors) {
    const int outputs = static_cast<int>(factors.size());
    modelwriter::Conv conv{.weights = {{delay + 1, 1, inputs, outputs}, {}}, .timeOffset = delay};
    conv.weights.values.assign(static_cast<std::size_t>((delay + 1) * inputs * outputs), 0.0f);
    for (int o = 0; o < outputs; ++o)
        conv.weights.values[static_cast<std::size_t>(o % inputs * outputs + o)] =
            factors[static_cast<std::size_t>(o)];
    return conv;
}

// Spectra (processingMode not 0): bus b is its gain times the input's spectrum.
// Masks: bus b is its gain times a number from 0 to 1 per bin and channel that follows the input's
// magnitude, or the gain itself where constantMasks is set.
inline modelwriter::ModelWriter describeModel(const TestModel& options) {
    using namespace modelwriter;
    const bool makesSpectra = options.processingMode != 0;
    const int columns = makesSpectra ? 2 * options.channels : options.channels;
    auto names = options.names;
    for (std::size_t bus = names.size(); bus < options.busGains.size(); ++bus)
        names.push_back("Bus " + std::to_string(bus));
    if (names.size() == options.busGains.size()) names.push_back("Residual");

    std::vector<float> factors;
    for (float gain : options.busGains)
        factors.insert(factors.end(), static_cast<std::size_t>(columns), gain);
    ModelWriter model("Test model");
    model.setSampleRate(options.sampleRate)
        .setChannels(options.channels, options.channels)
        .setProcessingMode(options.processingMode)
        .setBusses(names)
        .setFrames(options.fftSize, options.windowSize, options.hopSize)
        .setPacking(makesSpectra ? Packing::complexBins(options.numOfBins())
                                 : Packing::magnitudes(options.numOfBins()));
    if (makesSpectra) {
        model.addLayer("busses", "input", makeDelayedGains(options.delay, columns, factors));
    } else if (options.constantMasks) {
        Conv conv = makeDelayedGains(options.delay, columns, std::vector<float>(factors.size(), 0.0f));
        conv.bias = {{static_cast<int>(factors.size())}, factors};
        model.addLayer("busses", "input", conv);
    } else {
        model.addLayer("level", "input", Sigmoid{});
        model.addLayer("busses", "level", makeDelayedGains(options.delay, columns, factors));
    }
    model.setOutput("busses");
    return model;
}

}  // namespace zevrant
