// The models that ship, with any format a host can have, and calls and audio as they come. Nothing throws,
// latency is as told, and finite audio stays finite.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Choices.h"
#include "Execution.h"
#include "Host.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zevrant::fuzz;
    const Execution execution;
    Choices choices({data, size});
    const std::string model =
        choices.takeOneOf({"center-sides.zevrant", "harmonic-percussive.zevrant", "hiss-reduction.zevrant"});
    const int numOfChannels = choices.takeOneOf({2, 1, 3, 6});
    const double sampleRate = choices.takeOneOf({48000.0, 44100.0, 96000.0, 32000.0, 8000.0});
    Host host(MODELS_FOLDER "/" + model, 1, numOfChannels, sampleRate);
    require(host.isOpen(), "a shipped model opens");
    for (int left = 24; left > 0 && !choices.isAtEnd(); --left) {
        require(host.act(choices), "a shipped model never throws");
        require(host.getNumOfHeldSamples() <= host.getLatency(), "no more samples are held than the latency");
    }
    if (host.hasFiniteInput()) require(host.hasFiniteOutput(), "finite audio stays finite");
    return 0;
}
