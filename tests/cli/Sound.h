// Sound files for the tests of the program, made and read with libsndfile.
#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <sndfile.h>

namespace zevrant {

struct Sound {
    int channels = 1;
    int sampleRate = 48000;
    int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    std::vector<float> values{};  // frame by frame
    std::string title{};

    int length() const { return static_cast<int>(values.size()) / channels; }
    float get(int sample, int channel) const {
        return values[static_cast<std::size_t>(sample * channels + channel)];
    }
};

inline Sound makeNoise(int channels, int sampleRate, int format, int length, unsigned seed = 1) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> level(-0.25f, 0.25f);
    Sound sound{channels, sampleRate, format};
    sound.values.resize(static_cast<std::size_t>(channels * length));
    for (float& value : sound.values) value = level(random);
    return sound;
}

// Sines far below half of the rate, with phases and levels of their own in each channel.
inline Sound makeTones(int channels, int sampleRate, int format, int length, double highestFrequency) {
    Sound sound{channels, sampleRate, format};
    std::mt19937 random(7);
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    sound.values.assign(static_cast<std::size_t>(channels * length), 0.0f);
    for (int tone = 0; tone < 12; ++tone)
        for (int c = 0; c < channels; ++c) {
            const double step = 2.0 * M_PI * highestFrequency * uniform(random) / sampleRate;
            const double phase = 6.28 * uniform(random), level = 0.05 * uniform(random);
            for (int i = 0; i < length; ++i)
                sound.values[static_cast<std::size_t>(i * channels + c)] +=
                    static_cast<float>(level * std::sin(step * i + phase));
        }
    return sound;
}

inline std::string write(const std::string& path, const Sound& sound) {
    SF_INFO info = {};
    info.channels = sound.channels;
    info.samplerate = sound.sampleRate;
    info.format = sound.format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file) throw std::runtime_error(path + ": " + sf_strerror(nullptr));
    if (!sound.title.empty()) sf_set_string(file, SF_STR_TITLE, sound.title.c_str());
    sf_write_float(file, sound.values.data(), static_cast<sf_count_t>(sound.values.size()));
    sf_close(file);
    return path;
}

// Of samples without a header, raw tells the format.
inline Sound read(const std::string& path, const Sound& raw = {}) {
    SF_INFO info = {};
    if ((raw.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_RAW)
        info = {0, raw.sampleRate, raw.channels, raw.format, 0, 0};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) throw std::runtime_error(path + ": " + sf_strerror(nullptr));
    Sound sound{info.channels, info.samplerate, info.format};
    sound.values.resize(static_cast<std::size_t>(info.frames * info.channels));
    sf_read_float(file, sound.values.data(), static_cast<sf_count_t>(sound.values.size()));
    if (const char* title = sf_get_string(file, SF_STR_TITLE)) sound.title = title;
    sf_close(file);
    return sound;
}

// The energy of estimate - gain * reference against that of the reference, over all but margin samples at
// both ends, in dB.
inline double calcDifference(const Sound& estimate, const Sound& reference, double gain = 1.0,
                             int margin = 0) {
    double difference = 0.0, energy = 1e-30;
    const auto skipped = static_cast<std::size_t>(margin * reference.channels);
    for (std::size_t i = skipped; i + skipped < reference.values.size(); ++i) {
        const double r = reference.values[i], e = estimate.values.at(i);
        difference += (e - gain * r) * (e - gain * r);
        energy += r * r;
    }
    return 10.0 * std::log10(difference / energy + 1e-30);
}

}  // namespace zevrant
