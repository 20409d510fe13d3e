// Handles of processors: creating, pushing, pulling, resetting.
#include "interface/ProcessorState.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "AudioHost.h"
#include "neural/ConvLayer.h"
#include "neural/DenseLayers.h"
#include "neural/MergeLayers.h"
#include "neural/ModelOfAllLayers.h"
#include "neural/SelfAttentionLayer.h"
#include "neural/TransposedConvLayer.h"

namespace zevrant {
namespace {

constexpr double rate = 48000.0;

TEST(ProcessorState, creatingFailsWithANullHandle) {
    ModelFolder models;
    const std::string good = models.write({}), other = models.write({.hopSize = 128});
    const std::string text = models.folder.makeFile("text", "no model"),
                      empty = models.folder.makeFile("empty");
    const std::string missing = models.folder.getPath("missing");
    for (const std::string& path : {text, empty, missing, models.folder.path, std::string()})
        EXPECT_EQ(zevrantCreateProcessor(path.c_str(), 1, rate), nullptr) << path;

    const auto create = [](std::vector<const char*> paths) {
        return zevrantCreateStemSeparator(static_cast<int>(paths.size()), paths.data(), 2, rate);
    };
    EXPECT_EQ(create({}), nullptr);
    EXPECT_EQ(create({good.c_str(), other.c_str()}), nullptr);
    EXPECT_EQ(create({good.c_str(), missing.c_str()}), nullptr);
    EXPECT_THROW(zevrantCreateStemSeparator(-1, nullptr, 2, rate), std::length_error);
    EXPECT_THROW(zevrantCreateProcessor(good.c_str(), -1, rate), std::length_error);
    zevrantDeleteProcessor(nullptr);
}

template <class Layer>
Layer* findLayer(ProcessorState& state, const char* name) {
    auto& entry = state.processor.getNeuralModels()[0].layers.at(name);
    return dynamic_cast<Layer*>(std::get<std::shared_ptr<BaseLayer<float>>>(entry).get());
}

// A handle runs its model in when it is created. Fields are then as the load has left them, and the first
// sound meets the same state as in a processor that nothing has run through.
TEST(ProcessorState, creatingLeavesNoTraceInTheModel) {
    using namespace modelwriter;
    const TemporaryFolder folder;
    const Bytes bytes = makeModelOfAllLayers(0x100a, TensorStorage::SinglePrecision, Packing::magnitudes(9));
    const std::string path = folder.makeFile("model", {bytes.begin(), bytes.end()});
    const char* paths[] = {path.c_str()};
    auto state = std::make_unique<ProcessorState>();
    ASSERT_TRUE(state->loadModels(1, paths, 2, rate));

    const auto expectNew = [](auto* layer, auto... fields) {
        ASSERT_NE(layer, nullptr);
        for (const Tensor<float>& tensor : {layer->*fields...})
            EXPECT_TRUE(tensor.shape.empty() && !tensor.data);
    };
    using Conv = ConvLayer<float>;
    using Transposed = TransposedConvLayer<float>;
    using Separable = SeparableChannelConvLayer<float>;
    using Attention = SelfAttentionLayer<float>;
    using Sum = ArithmeticLayer<float>;
    expectNew(findLayer<Conv>(*state, "conv"), &Conv::history, &Conv::output);
    expectNew(findLayer<Transposed>(*state, "transposed"), &Transposed::accumulator, &Transposed::inputSlice,
              &Transposed::outputSlice);
    expectNew(findLayer<Separable>(*state, "separable"), &Separable::history, &Separable::timeFiltered,
              &Separable::output);
    expectNew(findLayer<Attention>(*state, "attention"), &Attention::history, &Attention::filtered,
              &Attention::output);
    expectNew(findLayer<Sum>(*state, "sum"), &Sum::slice, &Sum::output);
    EXPECT_EQ(findLayer<Conv>(*state, "conv")->timeIndex, 0);
    EXPECT_EQ(state->outputQueue.numOfChannels, -1);
    EXPECT_EQ(state->processor.getSensitivity(0), 0.0f);

    ZevrantProcessor processor;
    AudioFormat format;
    format.createDefaultChannelMapping(2);
    format.sampleRate = rate;
    ASSERT_TRUE(processor.loadModelFiles({File(path)}) && processor.setFormat(format, format));
    const Audio in = makeNoise(2, 777, 4);
    for (int block = 0; block < 3; ++block) {
        Signal32 signal(2, 777);
        for (int c = 0; c < 2; ++c) std::copy(in[c].begin(), in[c].end(), signal.getWriteChannelPtr(c));
        const Signal32 expected = processor.process(signal);
        const float* rows[] = {in[0].data(), in[1].data()};
        state->addAudio(rows, 777);
        ASSERT_EQ(state->outputQueue.numOfSamples, expected.numOfSamples);
        std::vector<float> left(static_cast<std::size_t>(expected.numOfSamples)), right = left;
        float* const out[] = {left.data(), right.data()};
        EXPECT_TRUE(state->getAudio(out, expected.numOfSamples));
        EXPECT_TRUE(std::equal(left.begin(), left.end(), expected.getReadChannelPtr(0)));
        EXPECT_TRUE(std::equal(right.begin(), right.end(), expected.getReadChannelPtr(1)));
    }
}

TEST(ProcessorState, pullingIsAllOrNothing) {
    ModelFolder models;
    for (bool isInterleaved : {false, true}) {
        AudioHost host = models.open({.channels = 2}, 2, rate);
        const Audio in = makeNoise(2, 3000, 2);
        Audio out(2);
        std::vector<float> left(8, 5.0f), right(16, 6.0f);
        float* const rows[] = {left.data(), right.data()};
        EXPECT_FALSE(isInterleaved ? zevrantGetAudioInterleaved(host.handle.get(), right.data(), 8)
                                   : zevrantGetAudio(host.handle.get(), rows, 8));
        EXPECT_EQ(left, std::vector(8, 5.0f));
        EXPECT_EQ(right, std::vector(16, 6.0f));
        host.push(in, 0, 3000);
        const int pending = zevrantGetNumOfPendingSamples(host.handle.get());
        ASSERT_GT(pending, 2000);
        EXPECT_FALSE(host.pull(out, pending + 1, isInterleaved));
        EXPECT_EQ(zevrantGetNumOfPendingSamples(host.handle.get()), pending);
        int taken = 0;
        for (int size : {1, 63, 64, 500, 7}) {
            EXPECT_TRUE(host.pull(out, size, isInterleaved));
            taken += size;
            EXPECT_EQ(zevrantGetNumOfPendingSamples(host.handle.get()), pending - taken);
        }
        EXPECT_TRUE(host.pull(out, pending - taken, isInterleaved));
        EXPECT_FALSE(host.pull(out, 1, isInterleaved));
        EXPECT_LT(calcDifference(out, in), -100.0);
        float* const none[] = {nullptr, nullptr};
        EXPECT_TRUE(zevrantGetAudio(host.handle.get(), none, 0));
    }
}

// What cannot be framed ends in an exception and not in memory that belongs to others.
TEST(ProcessorState, formatsThatCannotBeFramedThrowWhenAudioComes) {
    ModelFolder models;
    const Audio in = makeNoise(2, 3000, 4);
    for (const auto& [channels, sampleRate] : {std::pair{2, 0.0}, {2, -1.0}, {2, std::nan("")}, {0, rate}}) {
        AudioHost host = models.open({.channels = 2}, channels, sampleRate);
        ASSERT_TRUE(host.handle);
        EXPECT_THROW(host.push(in, 0, 3000), std::exception) << channels << " at " << sampleRate;
    }
    EXPECT_THROW(models.open({}, 1, INFINITY), std::length_error);
    AudioHost host = models.open({.channels = 2}, 2, rate);
    host.handle->outputQueue.add(Signal32(1, 10, 0.5f));  // less channels than the host has
    Audio out(2);
    EXPECT_THROW(host.pull(out, 10, true), std::out_of_range);
}

}  // namespace
}  // namespace zevrant
