// speexdsp's preprocessor as a filter: mono floats at 48 kHz from standard input to standard output.
// Arguments: the most that it may suppress in dB, below 0, and the frame in milliseconds.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <speex/speex_preprocess.h>

int main(int, char** argv) {
    constexpr int rate = 48000;
    const int frame = rate / 1000 * std::atoi(argv[2]);
    SpeexPreprocessState* state = speex_preprocess_state_init(frame, rate);
    int on = 1, most = std::atoi(argv[1]);
    speex_preprocess_ctl(state, SPEEX_PREPROCESS_SET_DENOISE, &on);
    speex_preprocess_ctl(state, SPEEX_PREPROCESS_SET_NOISE_SUPPRESS, &most);
    std::vector<float> samples(frame);
    std::vector<spx_int16_t> integers(frame);
    while (std::fread(samples.data(), sizeof(float), frame, stdin) == static_cast<std::size_t>(frame)) {
        for (int i = 0; i < frame; ++i)
            integers[i] =
                static_cast<spx_int16_t>(std::lrint(std::clamp(samples[i] * 32768.0f, -32768.0f, 32767.0f)));
        speex_preprocess_run(state, integers.data());
        for (int i = 0; i < frame; ++i) samples[i] = static_cast<float>(integers[i]) / 32768.0f;
        std::fwrite(samples.data(), sizeof(float), frame, stdout);
    }
    speex_preprocess_state_destroy(state);
    return 0;
}
