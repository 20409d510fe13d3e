// Model files with numbers that no trainer would write: a stream through them ends in audio, a null handle
// or a standard exception, and never outside its memory. Worth most under the sanitizers.
#include <gtest/gtest.h>

#include <exception>
#include <limits>
#include <random>

#include "AudioHost.h"

namespace zevrant {
namespace {

// The first choice, which is the usual one, three times out of four.
template <class T>
T pick(std::mt19937& random, std::initializer_list<T> choices) {
    return std::data(choices)[random() % 4 > 0 ? 0 : random() % choices.size()];
}

void describeOddly(std::mt19937& random, modelwriter::ModelWriter& model) {
    using modelwriter::Packing;
    const int fft = pick(random, {256, 64, 32, 16, 2, 1, 0, -256, 100, 1024});
    const int window = pick(random, {256, 64, 1, 0, -1, 255, 1024});
    const int hop = pick(random, {64, 128, 256, 300, 1000, 50, 0, -64});
    const int inputs = pick(random, {1, 2, 3, 0, -1, 127}), outputs = pick(random, {1, 2, 3, 0, 127});
    const int bins = pick(random, {129, 128, 1, 0, -5, 400});
    const Packing packings[] = {Packing::magnitudes(bins), Packing::complexBins(bins),
                                Packing::rectifiedParts(5, bins), Packing::complexGroups(5, bins, 4)};
    const std::size_t in = random() % 4, out = random() % 4;
    model.setSampleRate(pick(random, {48000.0, 44100.0, 24000.0, 96000.0, 3000.0, 1e9}))
        .setChannels(inputs, outputs)
        .setProcessingMode(pick(random, {0, 1, -7}))
        .setBusses(std::vector<std::string>(pick<std::size_t>(random, {2, 3, 1, 0, 20}), "Bus"))
        .setFrames(fft, window, hop)
        .setPacking(packings[in], packings[random() % 2 ? in : out])
        .setOutput("input");
}

TEST(OddModels, endInAudioANullHandleOrAnException) {
    ModelFolder models;
    std::mt19937 random(1);
    const Audio in = makeNoise(3, 3000, 1);
    int numOfStreams = 0;
    for (int round = 0; round < 2000; ++round) {
        modelwriter::ModelWriter model("Odd");
        describeOddly(random, model);
        const std::string path = models.folder.getPath("odd");
        model.write(path);
        const int channels = pick(random, {1, 2, 3, 0});
        const double rate = pick(random, {48000.0, 44100.0, 96000.0, 16000.0, 0.0});
        try {
            AudioHost host(zevrantCreateProcessor(path.c_str(), channels, rate), channels);
            if (!host.handle) continue;
            for (int id : {512, 513}) zevrantSetParameterValue(host.handle.get(), id, 40.0f);
            Audio block(in.begin(), in.begin() + channels);
            for (int start = 0; start < 3000; start += 300) host.push(in, start, 300);
            const int pending = zevrantGetNumOfPendingSamples(host.handle.get());
            Audio out(static_cast<std::size_t>(channels));
            EXPECT_TRUE(host.pull(out, pending)) << "round " << round;
            zevrantResetProcessorState(host.handle.get());
            ++numOfStreams;
        } catch (const std::exception&) {
        }
    }
    EXPECT_GT(numOfStreams, 300);  // enough of them are usable to say something
}

}  // namespace
}  // namespace zevrant
