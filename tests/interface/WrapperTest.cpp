#include "zevrant.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <tuple>
#include <type_traits>

#include "interface/AudioHost.h"

namespace {

static_assert(!std::is_copy_constructible_v<zevrant::Processor> &&
              !std::is_copy_assignable_v<zevrant::Processor>);
static_assert(std::is_nothrow_move_constructible_v<zevrant::Processor> &&
              std::is_nothrow_move_assignable_v<zevrant::Processor>);
static_assert(!std::is_copy_constructible_v<zevrant::Model> &&
              std::is_nothrow_move_constructible_v<zevrant::Model> &&
              std::is_nothrow_move_assignable_v<zevrant::Model>);
static_assert(sizeof(zevrant::Model) == sizeof(void*), "a handle and nothing else");

class Wrapper : public testing::Test {
  protected:
    zevrant::ModelFolder models;
    const std::string path =
        models.write({.busGains = {0.5f}, .names = {"Quiet", "Rest"}, .constantMasks = true});
};

TEST_F(Wrapper, sameAudioAsTheCallsThatItWraps) {
    zevrant::AudioHost host(zevrantCreateProcessor(path.c_str(), 2, 48000.0), 2);
    auto wrapped = zevrant::Processor::create(path, 2, 48000.0);
    ASSERT_TRUE(wrapped && *wrapped);
    const zevrant::Audio in = zevrant::makeNoise(2, 3000, 7);
    zevrant::Audio expected(2);
    for (const bool isInterleaved : {false, true}) {
        host.push(in, 0, 3000);
        const int pending = zevrantGetNumOfPendingSamples(host.handle.get());
        host.pull(expected, pending);
        std::vector<float> samples, out(2 * std::size_t(pending)), tooMany(out.size() + 2, 9.0f);
        for (std::size_t i = 0; i < 3000; ++i) samples.insert(samples.end(), {in[0][i], in[1][i]});
        const float* channels[] = {in[0].data(), in[1].data()};
        float* const rows[] = {out.data(), out.data() + pending};
        if (isInterleaved)
            wrapped->addAudioInterleaved(samples);
        else
            wrapped->addAudio(channels, 3000);
        zevrant::Processor moved = std::move(*wrapped);  // a stream goes on where its handle goes
        EXPECT_FALSE(*wrapped);
        wrapped = std::move(moved);
        ASSERT_EQ(wrapped->getNumOfPendingSamples(), pending);
        EXPECT_FALSE(wrapped->getAudioInterleaved(tooMany));
        EXPECT_EQ(tooMany, std::vector<float>(tooMany.size(), 9.0f));
        ASSERT_TRUE(isInterleaved ? wrapped->getAudioInterleaved(out) : wrapped->getAudio(rows, pending));
        for (int i = 0; i < pending; ++i)
            for (int c = 0; c < 2; ++c)
                ASSERT_EQ(isInterleaved ? out[std::size_t(2 * i + c)] : rows[c][i],
                          expected[std::size_t(c)][expected[0].size() - std::size_t(pending - i)]);
    }
    wrapped->addAudioInterleaved(std::vector<float>(3000));
    wrapped->reset();
    EXPECT_EQ(wrapped->getNumOfPendingSamples(), 0);
}

TEST_F(Wrapper, namedParametersReachTheNumberedOnes) {
    zevrant::Processor processor(path, 1, 48000.0);
    const auto read = [&](int id) { return zevrantGetParameterValue(processor.get(), id); };
    for (int bus = 0; bus < 2; ++bus) {
        processor.setBusGain(bus, 0.25f + float(bus));
        EXPECT_EQ(read(256 + bus), 0.25f + float(bus));
        EXPECT_EQ(processor.getBusGain(bus), read(256 + bus));
        processor.setBusSensitivity(bus, -20.0f * float(bus + 1));
        EXPECT_EQ(read(512 + bus), -20.0f * float(bus + 1));
        EXPECT_EQ(processor.getBusSensitivity(bus), read(512 + bus));
    }
    processor.setResidualGain(-30.0f);
    EXPECT_NEAR(read(1), -30.0f, 1e-4f);
    EXPECT_EQ(processor.getResidualGain(), read(1));
    for (const bool enabled : {false, true}) {
        processor.setMaskExtrapolationEnabled(enabled);
        EXPECT_EQ(read(3), enabled ? 1.0f : 0.0f);
        EXPECT_EQ(processor.getMaskExtrapolationEnabled(), enabled);
    }
    EXPECT_EQ(processor.getParameterRange(1).minimum, -96.0f);
    EXPECT_EQ(processor.getParameterRange(1).maximum, 0.0f);
}

TEST_F(Wrapper, tellsWhatTheFileSays) {
    const zevrant::Processor processor(path, 1, 48000.0);
    EXPECT_EQ(processor.getNumOfOutputBusses(), 2);
    EXPECT_EQ(processor.getOutputBusName(1), "Rest");
    EXPECT_EQ(processor.getOutputBusName(2), "");
    EXPECT_EQ(processor.getInfo().hopSize, 64);
    EXPECT_EQ(zevrant::Model(path).getInfo().fftSize, 256);
    EXPECT_FALSE(zevrant::getVectorArithmeticWrapperName().empty());
    EXPECT_EQ(zevrant::getVersion(), ZEVRANT_PROJECT_VERSION);
}

TEST_F(Wrapper, failedCreationIsAnEmptyOptionalOrAnExceptionThatTellsWhatItKnows) {
    using Kind = zevrant::CreationError::Kind;
    const std::string folder = std::filesystem::path(path).parent_path(), text = folder + "/text",
                      damaged = folder + "/damaged", good = path;
    std::ofstream(text) << "no model, but longer than the start of one";
    std::ofstream(damaged, std::ios::binary).write("\x0d\0\0\0zevrant.model\x0a\x10\0\0", 21);
    const double nan = std::nan(""), infinite = std::numeric_limits<double>::infinity();
    const std::tuple<Kind, std::vector<std::string>, int, double> cases[] = {
        {Kind::Missing, {path + ".missing"}, 2, 48e3},
        {Kind::Missing, {path, path + ".missing"}, 2, 48e3},
        {Kind::Missing, {}, 2, 48e3},
        {Kind::NotReadable, {folder}, 2, 48e3},
        {Kind::NoModel, {text}, 2, 48e3},
        {Kind::Refused, {damaged}, 2, 48e3},
        {Kind::UnusableFormat, {path}, 0, 48e3},
        {Kind::UnusableFormat, {path}, -1, 48e3},
        {Kind::UnusableFormat, {path}, 2, 0.0},
        {Kind::UnusableFormat, {path}, 2, nan},
        {Kind::UnusableFormat, {path}, 2, infinite},
        {Kind::Refused, {path}, 2, 1e18}};
    for (const auto& [kind, paths, channels, rate] : cases) {
        SCOPED_TRACE(testing::Message() << testing::PrintToString(paths) << channels << " at " << rate);
        EXPECT_FALSE(zevrant::Processor::create(paths, channels, rate));
        try {
            zevrant::Processor(paths, channels, rate);
            ADD_FAILURE() << "no exception";
        } catch (const zevrant::CreationError& error) {
            EXPECT_EQ(error.getKind(), kind) << error.what();
        }
    }
    EXPECT_FALSE(zevrant::Model::create(damaged));
    EXPECT_THROW(zevrant::Model{text}, zevrant::CreationError);
}

TEST_F(Wrapper, whatIsNoNumberDoesNotEnter) {
    const float nan = std::nanf(""), infinite = std::numeric_limits<float>::infinity();
    std::vector<float> odd = zevrant::makeNoise(1, 1000, 3)[0], zeroed = odd;
    for (const auto& [index, value] : {std::pair(10, nan), {11, infinite}, {999, -infinite}}) {
        odd[std::size_t(index)] = value;
        zeroed[std::size_t(index)] = 0.0f;
    }
    std::vector<float> outputs[3];
    for (int form = 0; form < 3; ++form) {  // the zeros themselves, planar, interleaved
        zevrant::Processor processor(path, 1, 48000.0);
        const float* channels[] = {form == 0 ? zeroed.data() : odd.data()};
        form == 2 ? processor.addAudioInterleaved(odd) : processor.addAudio(channels, 1000);
        EXPECT_EQ(processor.getNumOfReplacedSamples(), form == 0 ? 0 : 3);
        outputs[form].resize(std::size_t(processor.getNumOfPendingSamples()));
        ASSERT_TRUE(processor.getAudioInterleaved(outputs[form]));
        processor.setBusGain(0, 0.5f);
        processor.setBusGain(0, nan);
        EXPECT_EQ(processor.getBusGain(0), 0.5f);
    }
    EXPECT_EQ(outputs[1], outputs[0]);
    EXPECT_EQ(outputs[2], outputs[0]);
}

TEST_F(Wrapper, tensorsGoInAndComeOut) {
    auto model = zevrant::Model::create(path);
    ASSERT_TRUE(model);
    EXPECT_FALSE(model->getResultTensorShape());
    std::vector<float> slice(129, 3.0f), result(129);
    EXPECT_FALSE(model->getTensor(result));
    EXPECT_THROW(model->addTensor(std::span(slice).first(128), {1, 129, 1}), std::length_error);
    model->addTensor(slice, {1, 129, 1});
    ASSERT_EQ(model->getResultTensorShape(), (zevrant::Model::Shape{1, 129, 1}));
    EXPECT_THROW((void)model->getTensor(std::span(result).first(128)), std::length_error);
    ASSERT_TRUE(model->getTensor(result));
    EXPECT_EQ(result, std::vector<float>(129, 0.5f));
    ModelState* released = model->release();
    EXPECT_FALSE(*model);
    zevrantDeleteModel(released);
}

}  // namespace
