// WebRTC's noise suppression as a filter: mono floats at 48 kHz from standard input to standard output.
// The one argument is its level, 0 (low) to 3 (very high).
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <webrtc/modules/audio_processing/include/audio_processing.h>

int main(int, char** argv) {
    constexpr int rate = 48000, frame = rate / 100;
    const std::unique_ptr<webrtc::AudioProcessing> processing(webrtc::AudioProcessing::Create());
    const auto level = static_cast<webrtc::NoiseSuppression::Level>(std::atoi(argv[1]));
    if (processing->noise_suppression()->set_level(level) != 0 ||
        processing->noise_suppression()->Enable(true) != 0)
        return 1;
    const webrtc::StreamConfig format(rate, 1);
    float samples[frame];
    float* const channels[] = {samples};
    while (std::fread(samples, sizeof(float), frame, stdin) == frame) {
        if (processing->ProcessStream(channels, format, format, channels) != 0) return 1;
        std::fwrite(samples, sizeof(float), frame, stdout);
    }
    return 0;
}
