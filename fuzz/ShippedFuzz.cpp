// The models that ship, with any format a host can have, and calls and audio as they come. Nothing throws,
// latency is as told, and finite audio stays finite.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "Choices.h"
#include "Execution.h"
#include "Host.h"

namespace {

std::vector<std::string> findModels() {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(MODELS_FOLDER))
        if (entry.path().extension() == ".zevrant") paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zevrant::fuzz;
    static const std::vector<std::string> models = findModels();
    const Execution execution;
    Choices choices({data, size});
    const std::string& model = models[static_cast<std::size_t>(choices.takeByte()) % models.size()];
    const int numOfChannels = choices.takeOneOf({2, 1, 3, 6});
    const double sampleRate = choices.takeOneOf({48000.0, 44100.0, 96000.0, 32000.0, 8000.0});
    Host host(model, 1, numOfChannels, sampleRate);
    require(host.isOpen(), "a shipped model opens");
    for (int left = 24; left > 0 && !choices.isAtEnd(); --left) {
        require(host.act(choices), "a shipped model never throws");
        require(host.getNumOfHeldSamples() <= host.getLatency(), "no more samples are held than the latency");
    }
    if (host.hasFiniteInput()) require(host.hasFiniteOutput(), "finite audio stays finite");
    return 0;
}
