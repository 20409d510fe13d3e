#include "audiofiles/Resampler.h"

#include <algorithm>
#include <string>

#include <soxr.h>

#include "audiofiles/Error.h"

namespace zevrant::audiofiles {

namespace {

void require(soxr_error_t error) {
    if (error) throw Error(ErrorKind::Failed, std::string("rate conversion: ") + error);
}

}  // namespace

void Resampler::Deleter::operator()(soxr* resampler) const {
    soxr_delete(resampler);
}

Resampler::Resampler(double inputRate, double outputRate, int channels)
    : ratio(outputRate / inputRate), numOfChannels(static_cast<std::size_t>(channels)) {
    soxr_error_t error = nullptr;
    const soxr_io_spec_t samples = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
    const soxr_runtime_spec_t oneThread = soxr_runtime_spec(1);
    state.reset(soxr_create(inputRate, outputRate, static_cast<unsigned>(channels), &error, &samples,
                            &quality, &oneThread));
    require(error);
}

Resampler::~Resampler() = default;

void Resampler::process(const float* interleaved, int numOfSamples, std::vector<float>& out) {
    if (numOfSamples > 0) run(interleaved, numOfSamples, out);
}

void Resampler::finish(std::vector<float>& out) {
    run(nullptr, 0, out);
}

// Without input libsoxr takes the stream as ended.
void Resampler::run(const float* interleaved, int numOfSamples, std::vector<float>& out) {
    auto rest = static_cast<std::size_t>(numOfSamples);
    const std::size_t room = static_cast<std::size_t>(static_cast<double>(numOfSamples) * ratio) + 1024;
    for (;;) {
        const std::size_t before = out.size();
        out.resize(before + room * numOfChannels);
        std::size_t taken = 0, made = 0;
        require(soxr_process(state.get(), interleaved, rest, &taken, out.data() + before, room, &made));
        out.resize(before + made * numOfChannels);
        if (interleaved) {
            interleaved += taken * numOfChannels;
            rest -= taken;
            if (rest == 0 && made < room) return;
        } else if (made < room) {
            return;
        }
    }
}

}  // namespace zevrant::audiofiles
