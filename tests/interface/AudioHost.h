// A host that streams audio through the C interface, and measures of what comes back.
#pragma once

#include <cmath>
#include <cstddef>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "TestModels.h"
#include "files/TemporaryFolder.h"
#include "interface/zevrant.h"

namespace zevrant {

using Audio = std::vector<std::vector<float>>;  // [channel][sample]

inline Audio makeNoise(int numOfChannels, int numOfSamples, unsigned seed, float level = 0.25f) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> uniform(-level, level);
    Audio audio(static_cast<std::size_t>(numOfChannels),
                std::vector<float>(static_cast<std::size_t>(numOfSamples)));
    for (auto& row : audio)
        for (float& sample : row) sample = uniform(random);
    return audio;
}

// What out differs from factor times in, over the length of out and relative to in, in decibels.
inline double calcDifference(const Audio& out, const Audio& in, double factor = 1.0) {
    double error = 0.0, level = 1e-30;
    for (std::size_t c = 0; c < out.size(); ++c)
        for (std::size_t i = 0; i < out[c].size() && i < in[c].size(); ++i) {
            error += std::pow(out[c][i] - factor * in[c][i], 2);
            level += std::pow(double{in[c][i]}, 2);
        }
    return 10.0 * std::log10(std::max(error, 1e-30 * level) / level);
}

using BlockSizes = std::function<int()>;
inline BlockSizes inBlocksOf(int size) {
    return [size] { return size; };
}
inline BlockSizes inRandomBlocks(unsigned seed, int largest) {
    std::mt19937 generator(seed);
    return [=]() mutable { return std::uniform_int_distribution(0, largest)(generator); };
}

// A processor handle with its channel count.
class AudioHost {
  public:
    AudioHost(ProcessorState* processor, int numOfChannels)
        : handle(processor, zevrantDeleteProcessor), channels(numOfChannels) {}

    // Pushes all of the audio and pulls all that is ready after every block.
    Audio stream(const Audio& in, const BlockSizes& nextBlockSize, bool isInterleaved = false) {
        Audio out(static_cast<std::size_t>(channels));
        const int length = static_cast<int>(in[0].size());
        for (int start = 0; start < length;) {
            const int size = std::min(nextBlockSize(), length - start);
            push(in, start, size, isInterleaved);
            start += size;
            pull(out, zevrantGetNumOfPendingSamples(handle.get()), isInterleaved);
        }
        return out;
    }

    void push(const Audio& in, int start, int size, bool isInterleaved = false) {
        if (isInterleaved) {
            std::vector<float> samples;
            for (int i = start; i < start + size; ++i)
                for (const auto& row : in) samples.push_back(row[static_cast<std::size_t>(i)]);
            return zevrantAddAudioInterleaved(handle.get(), samples.data(), size);
        }
        std::vector<const float*> rows;
        for (const auto& row : in) rows.push_back(row.data() + start);
        zevrantAddAudio(handle.get(), rows.data(), size);
    }

    // Appends size samples to every channel of out; false, with out as it was, when they are not there.
    bool pull(Audio& out, int size, bool isInterleaved = false) {
        if (size < 1) return true;
        const auto numOfSamples = static_cast<std::size_t>(size), count = static_cast<std::size_t>(channels);
        std::vector<float> samples(numOfSamples * count);
        std::vector<float*> rows(count);
        for (std::size_t c = 0; c < count; ++c) rows[c] = samples.data() + c * numOfSamples;
        const bool isThere = isInterleaved ? zevrantGetAudioInterleaved(handle.get(), samples.data(), size)
                                           : zevrantGetAudio(handle.get(), rows.data(), size);
        for (std::size_t i = 0; isThere && i < samples.size(); ++i)
            out[isInterleaved ? i % count : i / numOfSamples].push_back(samples[i]);
        return isThere;
    }

    std::unique_ptr<ProcessorState, void (*)(ProcessorState*)> handle;
    int channels;
};

// Model files and handles on them.
class ModelFolder {
  public:
    std::string write(const TestModel& model) {
        const std::string path = folder.getPath("model" + std::to_string(numOfFiles++));
        describeModel(model).write(path);
        return path;
    }

    AudioHost open(const TestModel& model, int numOfChannels, double sampleRate) {
        return {zevrantCreateProcessor(write(model).c_str(), numOfChannels, sampleRate), numOfChannels};
    }

    TemporaryFolder folder;

  private:
    int numOfFiles = 0;
};

}  // namespace zevrant
