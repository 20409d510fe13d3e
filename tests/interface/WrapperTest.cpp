#include <gtest/gtest.h>

#include <random>
#include <string>
#include <type_traits>
#include <utility>

#include "files/TemporaryFolder.h"
#include "modelwriter/ModelWriter.h"
#include "zevrant.hpp"

namespace {

using zevrant::modelwriter::Conv;
using zevrant::modelwriter::ModelWriter;
using zevrant::modelwriter::Packing;

static_assert(!std::is_copy_constructible_v<zevrant::Processor> &&
              !std::is_copy_assignable_v<zevrant::Processor>);
static_assert(std::is_nothrow_move_constructible_v<zevrant::Processor> &&
              std::is_nothrow_move_assignable_v<zevrant::Processor>);
static_assert(!std::is_copy_constructible_v<zevrant::Model> &&
              std::is_nothrow_move_constructible_v<zevrant::Model> &&
              std::is_nothrow_move_assignable_v<zevrant::Model>);
static_assert(sizeof(zevrant::Model) == sizeof(void*), "a handle and nothing else");

// A model file for the length of a test: every bin times a factor.
class Wrapper : public testing::Test {
  protected:
    static constexpr int numOfBins = 129;

    Wrapper() {
        ModelWriter("Half as loud")
            .setFrames(256, 256, 64)
            .setBusses({"Quiet", "Rest"})
            .setPacking(Packing::magnitudes(numOfBins))
            .addLayer("zero", "input", Conv{.weights = {{1, 1, 1, 1}, {0.0f}}, .bias = {{1}, {0.5f}}})
            .setOutput("zero")
            .write(path);
    }

    static std::vector<float> makeNoise(std::size_t length) {
        std::mt19937 random(7);
        std::uniform_real_distribution<float> value(-1.0f, 1.0f);
        std::vector<float> noise(length);
        for (float& sample : noise) sample = value(random);
        return noise;
    }

    zevrant::TemporaryFolder folder;
    const std::string path = folder.getPath("half.model");
};

TEST_F(Wrapper, sameAudioAsTheCallsThatItWraps) {
    constexpr int numOfChannels = 2;
    const auto noise = makeNoise(std::size_t{numOfChannels} * 6000);
    ProcessorState* plain = zevrantCreateProcessor(path.c_str(), numOfChannels, 48000.0);
    ASSERT_NE(plain, nullptr);
    auto wrapped = zevrant::Processor::create(path, numOfChannels, 48000.0);
    ASSERT_TRUE(wrapped && *wrapped);

    std::size_t position = 0;
    int numOfComparedSamples = 0;
    for (const int length : {1, 63, 64, 65, 500, 0, 777, 2048, 300}) {
        const std::span<const float> block(&noise[position * numOfChannels],
                                           std::size_t(length) * numOfChannels);
        position += std::size_t(length);
        std::vector<float> left, right;
        for (int i = 0; i < length; ++i) {
            left.push_back(block[std::size_t(2 * i)]);
            right.push_back(block[std::size_t(2 * i + 1)]);
        }
        const float* channels[] = {left.data(), right.data()};
        zevrantAddAudioInterleaved(plain, block.data(), length);
        if (length % 2 == 0)
            wrapped->addAudioInterleaved(block);
        else
            wrapped->addAudio(channels, length);
        zevrant::Processor moved = std::move(*wrapped);  // a stream goes on where its handle goes
        EXPECT_FALSE(*wrapped);
        wrapped = std::move(moved);

        const int pending = zevrantGetNumOfPendingSamples(plain);
        ASSERT_EQ(wrapped->getNumOfPendingSamples(), pending);
        if (pending == 0) continue;
        std::vector<float> expected(std::size_t(pending) * numOfChannels), tooMany(expected.size() + 2, 9.0f);
        auto actual = expected;
        EXPECT_FALSE(wrapped->getAudioInterleaved(tooMany));
        EXPECT_EQ(tooMany, std::vector<float>(tooMany.size(), 9.0f));
        ASSERT_TRUE(zevrantGetAudioInterleaved(plain, expected.data(), pending));
        if (length % 2 == 0) {
            ASSERT_TRUE(wrapped->getAudioInterleaved(actual));
        } else {
            std::vector<float> rows(actual.size());
            float* const out[] = {rows.data(), rows.data() + pending};
            ASSERT_TRUE(wrapped->getAudio(out, pending));
            for (int i = 0; i < pending * numOfChannels; ++i) actual[std::size_t(i)] = out[i % 2][i / 2];
        }
        EXPECT_EQ(actual, expected);
        numOfComparedSamples += pending;
    }
    EXPECT_GT(numOfComparedSamples, 3000);
    wrapped->reset();
    EXPECT_EQ(wrapped->getNumOfPendingSamples(), 0);
    zevrantDeleteProcessor(plain);
}

TEST_F(Wrapper, namedParametersReachTheNumberedOnes) {
    zevrant::Processor processor(path, 1, 48000.0);
    ProcessorState* handle = processor.get();
    for (int bus = 0; bus < 2; ++bus) {
        processor.setBusGain(bus, 0.25f + float(bus));
        EXPECT_EQ(zevrantGetParameterValue(handle, 256 + bus), processor.getBusGain(bus));
        EXPECT_EQ(processor.getBusGain(bus), 0.25f + float(bus));
        processor.setBusSensitivity(bus, -20.0f * float(bus + 1));
        EXPECT_EQ(zevrantGetParameterValue(handle, 512 + bus), -20.0f * float(bus + 1));
        EXPECT_EQ(processor.getBusSensitivity(bus), -20.0f * float(bus + 1));
    }
    processor.setResidualGain(-30.0f);
    EXPECT_NEAR(zevrantGetParameterValue(handle, 1), -30.0f, 1e-4f);
    EXPECT_EQ(processor.getResidualGain(), zevrantGetParameterValue(handle, 1));
    for (const bool enabled : {false, true}) {
        processor.setMaskExtrapolationEnabled(enabled);
        EXPECT_EQ(zevrantGetParameterValue(handle, 3), enabled ? 1.0f : 0.0f);
        EXPECT_EQ(processor.getMaskExtrapolationEnabled(), enabled);
    }
    const auto range = processor.getParameterRange(1);
    EXPECT_EQ(range.minimum, -96.0f);
    EXPECT_EQ(range.maximum, 0.0f);
}

TEST_F(Wrapper, tellsWhatTheFileSays) {
    const zevrant::Processor processor(path, 1, 48000.0);
    EXPECT_EQ(processor.getNumOfOutputBusses(), 2);
    EXPECT_EQ(processor.getOutputBusName(0), "Quiet");
    EXPECT_EQ(processor.getOutputBusName(1), "Rest");
    EXPECT_EQ(processor.getOutputBusName(2), "");
    EXPECT_EQ(processor.getInfo().windowSize, 256);
    EXPECT_EQ(processor.getInfo().hopSize, 64);
    const zevrant::Model model(path);
    EXPECT_EQ(model.getInfo().fftSize, 256);
    EXPECT_FALSE(zevrant::getVectorArithmeticWrapperName().empty());
}

TEST_F(Wrapper, failedCreationIsAnEmptyOptionalOrAnException) {
    const std::string missing = path + ".missing";
    const std::string paths[] = {path, missing};
    EXPECT_FALSE(zevrant::Processor::create(missing, 2, 48000.0));
    EXPECT_FALSE(zevrant::Processor::create(paths, 2, 48000.0));
    EXPECT_FALSE(zevrant::Model::create(missing));
    EXPECT_THROW(zevrant::Processor(missing, 2, 48000.0), zevrant::CreationError);
    EXPECT_THROW(zevrant::Processor(paths, 2, 48000.0), zevrant::CreationError);
    EXPECT_THROW(zevrant::Model{missing}, zevrant::CreationError);
}

TEST_F(Wrapper, tensorsGoInAndComeOut) {
    auto model = zevrant::Model::create(path);
    ASSERT_TRUE(model);
    EXPECT_FALSE(model->getResultTensorShape());
    std::vector<float> result(numOfBins);
    EXPECT_FALSE(model->getTensor(result));

    const auto slice = makeNoise(numOfBins);
    EXPECT_THROW(model->addTensor(std::span(slice).first(numOfBins - 1), {1, numOfBins, 1}),
                 std::length_error);
    model->addTensor(slice, {1, numOfBins, 1});
    ASSERT_EQ(model->getResultTensorShape(), (zevrant::Model::Shape{1, numOfBins, 1}));
    EXPECT_THROW((void)model->getTensor(std::span(result).first(numOfBins - 1)), std::length_error);
    ASSERT_TRUE(model->getTensor(result));
    EXPECT_EQ(result, std::vector<float>(numOfBins, 0.5f));

    ModelState* released = model->release();
    EXPECT_FALSE(*model);
    zevrantDeleteModel(released);
}

}  // namespace
