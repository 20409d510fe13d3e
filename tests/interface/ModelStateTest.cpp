// Models on their own: tensors in, tensors out.
#include "interface/ModelState.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>

#include "AudioHost.h"

namespace zevrant {
namespace {

using Handle = std::unique_ptr<ModelState, void (*)(ModelState*)>;

Handle open(const std::string& path) {
    return {zevrantCreateModel(path.c_str()), zevrantDeleteModel};
}

std::vector<float> makeRamp(int size) {
    std::vector<float> values(static_cast<std::size_t>(size));
    for (int i = 0; i < size; ++i) values[static_cast<std::size_t>(i)] = 0.5f + static_cast<float>(i);
    return values;
}

TEST(ModelState, informationIsThatOfTheFileIfItIsAModel) {
    ModelFolder models;
    EXPECT_EQ(open(models.folder.getPath("missing")), nullptr);
    EXPECT_EQ(open(models.folder.makeFile("text", "no model")), nullptr);
    zevrantDeleteModel(nullptr);
    const auto model = open(models.write({.channels = 2, .sampleRate = 44100.0, .fftSize = 512, .delay = 6}));
    ModelInfo info;
    std::memset(&info, 0xff, sizeof info);
    zevrantGetModelInfo(model.get(), &info);
    EXPECT_EQ(std::tuple(info.sampleRate, info.numOfChannels, info.fftSize, info.windowSize, info.hopSize),
              std::tuple(44100.0, 2, 512, 256, 64));
    EXPECT_EQ(std::tuple(info.latency, info.reserved), std::tuple(6, 0));
}

// A model that hands slices on with a delay and a gain: result k is gain times input k.
TEST(ModelState, resultsComeWhenTheModelGivesThem) {
    ModelFolder models;
    for (int delay : {0, 1, 3}) {
        const auto model =
            open(models.write({.fftSize = 16, .delay = delay, .processingMode = 1, .busGains = {2.0f}}));
        const int shape[] = {1, 9, 2};
        int resultShape[] = {-1, -1, -1};
        std::vector<float> result(18, -1.0f);
        EXPECT_FALSE(zevrantGetTensor(model.get(), result.data()));
        EXPECT_FALSE(zevrantGetResultTensorShape(model.get(), 3, resultShape));
        EXPECT_TRUE(zevrantGetResultTensorShape(model.get(), 0, resultShape));  // no result, no dimensions
        for (int n = 0; n < 6; ++n) {
            auto in = makeRamp(18);
            for (float& value : in) value += 100.0f * static_cast<float>(n);
            zevrantAddTensor(model.get(), in.data(), 3, shape);
            if (n < delay) {
                EXPECT_FALSE(zevrantGetTensor(model.get(), result.data()));
                EXPECT_EQ(result, std::vector<float>(18, -1.0f));
                EXPECT_FALSE(zevrantGetResultTensorShape(model.get(), 3, resultShape));
                continue;
            }
            for (int rank : {-1, 0, 2, 4})
                EXPECT_FALSE(zevrantGetResultTensorShape(model.get(), rank, resultShape));
            ASSERT_TRUE(zevrantGetResultTensorShape(model.get(), 3, resultShape));
            EXPECT_EQ(std::vector(resultShape, resultShape + 3), std::vector(shape, shape + 3));
            for (int reading = 0; reading < 2; ++reading) {
                std::fill(result.begin(), result.end(), -1.0f);
                ASSERT_TRUE(zevrantGetTensor(model.get(), result.data()));
                for (int i = 0; i < 18; ++i)
                    EXPECT_EQ(result[static_cast<std::size_t>(i)],
                              2.0f * (0.5f + static_cast<float>(i) + 100.0f * static_cast<float>(n - delay)));
            }
        }
        // A reset keeps the last result and starts the model anew.
        zevrantResetModelState(model.get());
        EXPECT_TRUE(zevrantGetTensor(model.get(), result.data()));
        zevrantAddTensor(model.get(), makeRamp(18).data(), 3, shape);
        EXPECT_EQ(zevrantGetTensor(model.get(), result.data()), delay == 0);

        // Denormals are flushed on the way: they would come out as others.
        for (int n = 0; n <= delay; ++n)
            zevrantAddTensor(model.get(), std::vector<float>(18, FLT_MIN / 4.0f).data(), 3, shape);
        ASSERT_TRUE(zevrantGetTensor(model.get(), result.data()));
        EXPECT_TRUE(delay > 0 || result == std::vector<float>(18, 0.0f));
    }
}

TEST(ModelState, severalSlicesAtOnceAndTensorsWithoutElements) {
    ModelFolder models;
    // The input itself is the result, which its next tensor must not change.
    describeModel({.fftSize = 16, .processingMode = 1})
        .setOutput("input")
        .write(models.folder.getPath("through"));
    const auto model = open(models.folder.getPath("through"));
    const int shape[] = {5, 9, 2}, none[] = {0, 9, 2};
    const auto in = makeRamp(90);
    zevrantAddTensor(model.get(), in.data(), 3, shape);
    std::vector<float> result(90);
    int resultShape[3];
    ASSERT_TRUE(zevrantGetResultTensorShape(model.get(), 3, resultShape));
    EXPECT_EQ(std::vector(resultShape, resultShape + 3), std::vector(shape, shape + 3));
    ASSERT_TRUE(zevrantGetTensor(model.get(), result.data()));
    EXPECT_EQ(result, in);
    const Tensor<float> kept = model->result;
    zevrantAddTensor(model.get(), std::vector<float>(90, 3.0f).data(), 3, shape);
    EXPECT_TRUE(std::equal(in.begin(), in.end(), kept.getReadPointer())) << "a later tensor leaves it alone";
    EXPECT_EQ(model->result.getReadPointer()[0], 3.0f);
    zevrantAddTensor(model.get(), nullptr, 3, none);
    EXPECT_FALSE(zevrantGetTensor(model.get(), result.data()));
    zevrantAddTensor(model.get(), nullptr, 0, nullptr);
    EXPECT_FALSE(zevrantGetTensor(model.get(), result.data()));
}

TEST(ModelState, shapesThatCannotBeThrowBeforeDataIsRead) {
    ModelFolder models;
    const auto model = open(models.write({.fftSize = 16, .processingMode = 1}));
    const std::vector<std::vector<int>> shapes{
        {-1, 9, 2}, {1, -9, 2}, {-1, -9, 2}, {1 << 20, 1 << 20, 2}, {1 << 30, 4, 4}, {46341, 46341, 1}};
    for (const auto& shape : shapes)
        EXPECT_THROW(zevrantAddTensor(model.get(), nullptr, 3, shape.data()), std::length_error);
    EXPECT_THROW(zevrantAddTensor(model.get(), nullptr, -1, nullptr), std::length_error);
    EXPECT_THROW(zevrantAddTensor(model.get(), nullptr, std::numeric_limits<int>::min(), nullptr),
                 std::length_error);
    // The handle is still as good as before.
    const int shape[] = {1, 9, 2};
    std::vector<float> result(18);
    zevrantAddTensor(model.get(), makeRamp(18).data(), 3, shape);
    EXPECT_TRUE(zevrantGetTensor(model.get(), result.data()));
    EXPECT_EQ(result, makeRamp(18));
    // Layers that read three axes refuse other ranks.
    EXPECT_THROW(zevrantAddTensor(model.get(), makeRamp(18).data(), 2, shape + 1), std::exception);
}

}  // namespace
}  // namespace zevrant
