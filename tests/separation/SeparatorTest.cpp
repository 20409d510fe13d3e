#include "separation/Separator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "interface/AudioHost.h"

namespace zevrant {
namespace {

using separation::Error;
using separation::ErrorKind;
using separation::Model;
using separation::Output;
using separation::Separator;

// Pushes all of the audio in blocks and pulls what is ready after each.
Audio stream(Separator& separator, const Audio& in, int blockSize, bool isInterleaved = false) {
    const auto width = static_cast<std::size_t>(separator.getNumOfOutputChannels());
    Audio out(width);
    for (int start = 0; start < std::ssize(in[0]); start += blockSize) {
        const int size = std::min<int>(blockSize, static_cast<int>(std::ssize(in[0])) - start);
        std::vector<const float*> rows;
        for (const auto& row : in) rows.push_back(row.data() + start);
        std::vector<float> frames;
        for (int i = 0; i < size; ++i)
            for (const float* row : rows) frames.push_back(row[i]);
        if (isInterleaved)
            separator.addInterleaved(frames.data(), size);
        else
            separator.add(rows.data(), size);

        const auto count = static_cast<std::size_t>(separator.getNumOfPendingSamples());
        std::vector<float> samples(count * width);
        std::vector<float*> places;
        for (std::size_t c = 0; c < width; ++c) places.push_back(samples.data() + c * count);
        if (isInterleaved)
            separator.takeInterleaved(samples.data(), static_cast<int>(count));
        else
            separator.take(places.data(), static_cast<int>(count));
        for (std::size_t i = 0; i < samples.size(); ++i)
            out[isInterleaved ? i % width : i / count].push_back(samples[i]);
    }
    return out;
}

Audio sumBusses(const Audio& busses, int numOfChannels) {
    const auto channels = static_cast<std::size_t>(numOfChannels);
    Audio sum(busses.begin(), busses.begin() + numOfChannels);
    for (std::size_t row = channels; row < busses.size(); ++row)
        for (std::size_t i = 0; i < busses[row].size(); ++i) sum[row % channels][i] += busses[row][i];
    return sum;
}

// Whatever the model, the channels, the rate, the controls and the blocks: the mix is that of the C interface
// bit for bit, and the busses add up to it.
TEST(Separator, givesWhatTheCInterfaceGives) {
    ModelFolder models;
    const TestModel shapes[] = {{.busGains = {0.8f}},
                                {.channels = 2, .hopSize = 128, .delay = 2, .busGains = {0.7f, 0.2f}},
                                {.channels = 2, .delay = 1, .processingMode = 1, .busGains = {0.5f, -0.25f}}};
    for (const auto& shape : shapes)
        for (const int channels : {1, 2, 3})
            for (const double rate : {44100.0, 96000.0}) {
                SCOPED_TRACE(testing::Message() << "mode " << shape.processingMode << ", " << channels
                                                << " channels, " << rate << " Hz");
                const std::string path = models.write(shape);
                AudioHost host(zevrantCreateProcessor(path.c_str(), channels, rate), channels);
                const Audio in = makeNoise(channels, 5000, 3);
                const Model model = Model::open(path);
                Separator mixer(model, Output::Mix, channels, rate);
                Separator splitter(model, Output::Busses, channels, rate);
                ASSERT_EQ(splitter.getNumOfBusses(), std::ssize(shape.busGains) + 1);
                for (int bus = 0; bus < splitter.getNumOfBusses(); ++bus) {
                    const auto b = static_cast<float>(bus);
                    zevrantSetParameterValue(host.handle.get(), 256 + bus, 0.3f + b);
                    zevrantSetParameterValue(host.handle.get(), 512 + bus, 20.0f - 30.0f * b);
                    for (Separator* separator : {&mixer, &splitter}) {
                        separator->setGain(bus, 0.3f + b);
                        separator->setSensitivity(bus, 20.0f - 30.0f * b);
                    }
                }
                zevrantSetParameterValue(host.handle.get(), 3, 0.0f);
                mixer.setMaskExtrapolationEnabled(false);
                splitter.setMaskExtrapolationEnabled(false);
                const Audio expected = host.stream(in, inBlocksOf(480));
                EXPECT_EQ(stream(mixer, in, 480), expected);
                mixer.reset();
                EXPECT_EQ(stream(mixer, in, 77, true), expected);
                const Audio busses = stream(splitter, in, 333);
                splitter.reset();
                EXPECT_EQ(stream(splitter, in, 480, true), busses);
                EXPECT_LT(calcDifference(sumBusses(busses, channels), expected), -120.0);
                ProcessorInfo info;
                zevrantGetProcessorInfo(host.handle.get(), &info);
                EXPECT_EQ(mixer.getLatency(), info.latency);
                EXPECT_EQ(splitter.getLatency(), info.latency);
            }
}

// Groups are engines of their own: each has the samples that it has alone, at its place.
TEST(Separator, groupsOfChannelsShareNothing) {
    ModelFolder models;
    const Model model = Model::open(models.write({.channels = 2, .delay = 1, .busGains = {0.7f, 0.2f}}));
    const Audio in = makeNoise(5, 3000, 4);
    for (const Output output : {Output::Mix, Output::Busses})
        for (const bool isInterleaved : {false, true}) {
            Separator all(model, output, 5, 48000.0, 2);
            const Audio out = stream(all, in, 480, isInterleaved);
            for (int first = 0; first < 5; first += 2) {
                const int width = std::min(2, 5 - first);
                Separator alone(model, output, width, 48000.0);
                const Audio part =
                    stream(alone, Audio(in.begin() + first, in.begin() + first + width), 480, isInterleaved);
                for (int row = 0; row < std::ssize(part); ++row)
                    EXPECT_EQ(out[static_cast<std::size_t>(row / width * 5 + first + row % width)],
                              part[static_cast<std::size_t>(row)])
                        << "group at " << first << ", row " << row;
            }
        }
}

TEST(Separator, modelsFromMemoryAreThoseOfTheFile) {
    ModelFolder models;
    const std::string path = models.write({.channels = 2, .delay = 2, .busGains = {0.7f, 0.2f}});
    const std::string bytes = models.folder.readFile(std::filesystem::path(path).filename());
    const Model fromMemory = Model::fromMemory(bytes.data(), bytes.size(), "bytes");
    EXPECT_THAT(fromMemory.getBusNames(), testing::ElementsAre("Bus 0", "Bus 1", "Residual"));
    Separator expected(Model::open(path), Output::Busses, 2, 48000.0);
    const Audio in = makeNoise(2, 3000, 5);
    const Audio out = stream(expected, in, 480);
    for (int engine = 0; engine < 2; ++engine) {  // the second one loads its network anew
        Separator separator(fromMemory, Output::Busses, 2, 48000.0);
        EXPECT_EQ(stream(separator, in, 480), out);
    }
}

TEST(Separator, errorsSayWhatWasRefusedAndWhy) {
    ModelFolder models;
    const std::string path = models.write({});
    const std::string bytes = models.folder.readFile(std::filesystem::path(path).filename());
    const auto expectError = [](ErrorKind kind, const std::string& text, const auto& call) {
        try {
            call();
            ADD_FAILURE() << "nothing is refused: " << text;
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, kind);
            EXPECT_THAT(error.what(), testing::HasSubstr(text));
        }
    };
    const auto open = [&](const std::string& content) {
        return [content] { Model::fromMemory(content.data(), content.size(), "given"); };
    };
    expectError(ErrorKind::NoSuchModel, "no such file and no model of this name",
                [] { Model::open("unheard-of"); });
    expectError(ErrorKind::NoSuchModel, "/nowhere/model: No such file",
                [] { Model::open("/nowhere/model"); });
    expectError(ErrorKind::BadModel, "is a folder", [&] { Model::open(models.folder.path); });
    expectError(ErrorKind::BadModel, "given: no model", open(""));
    expectError(ErrorKind::BadModel, "given: no model", open("neither sound nor model"));
    expectError(ErrorKind::BadModel, "given: a damaged or truncated",
                open(bytes.substr(0, bytes.size() / 2)));
    expectError(ErrorKind::BadArgument, "1 channel or more",
                [&] { Separator(Model::open(path), Output::Mix, 0, 48000.0); });
    expectError(ErrorKind::BadFormat, "frame sizes",
                [&] { Separator(Model::open(path), Output::Mix, 1, 1e30); });
    expectError(ErrorKind::BadArgument, "than are pending", [&] {
        float sample = 0.0f;
        Separator(Model::open(path), Output::Mix, 1, 48000.0).takeInterleaved(&sample, 1);
    });
}

}  // namespace
}  // namespace zevrant
