// A model file and a host that streams audio through it with any format, blocks, parameters and resets.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

#include "Choices.h"
#include "Execution.h"
#include "Host.h"
#include "Inputs.h"
#include "MemoryFile.h"
#include "ModelMutator.h"
#include "neural/MemoryStream.h"
#include "neural/ModelLimits.h"
#include "neural/ModelLoader.h"
#include "neural/ModelReport.h"

namespace {

// The price of opening a model, which runs it in. 0 for a file that is none.
double estimateOpening(std::span<const std::uint8_t> bytes, int numOfChannels, double sampleRate) {
    constexpr double numOfFrames = 4.0;
    zevrant::NeuralModel<float> model;
    zevrant::LoadReport report;
    bool isLoaded = false;
    zevrant::fuzz::attempt([&] {
        isLoaded = tryLoadModel(zevrant::streamOver({bytes.begin(), bytes.end()}), model, report);
    });
    if (!isLoaded) return 0.0;
    const double frameSize = model.fftSize * std::max(1.0, sampleRate / model.sampleRate);
    const double bins = std::clamp<double>(frameSize, 0.0, zevrant::limits::frameSize) * numOfChannels;
    return numOfFrames * estimateSeconds(describeModel(model).step, bins);
}

}  // namespace

ZEVRANT_MUTATES_MODELS(zevrant::fuzz::numOfAudioChoices)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zevrant::fuzz;
    const Execution execution;
    const std::size_t numOfChoices = std::min(size, numOfAudioChoices);
    const MemoryFile file({data + numOfChoices, size - numOfChoices});
    Choices choices({data, numOfChoices});

    const int numOfChannels = choices.takeOneOf({1, 2, 2, 2, 3, 8, 0, -1});
    double sampleRate = choices.takeOneOf({48000.0, 44100.0, 96000.0, 22050.0, 8000.0, 0.0, -1.0, 1e300,
                                           std::numeric_limits<double>::infinity()});
    if (choices.takeByte() % 16 == 0) sampleRate = choices.takeRaw<double>();
    const int numOfModels = choices.takeByte() % 16 == 0 ? 2 : 1;
    if (!Budget().take(
            estimateOpening({data + numOfChoices, size - numOfChoices}, numOfChannels, sampleRate)))
        return 0;
    attempt([&] {
        Host host(file.getPath(), numOfModels, numOfChannels, sampleRate);
        for (int left = 12; left > 0 && host.isOpen(); --left) host.act(choices);
    });
    return 0;
}
