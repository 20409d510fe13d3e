#include "neural/Tensor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>

#include "modelwriter/ModelWriter.h"
#include "neural/MemoryStream.h"

namespace zevrant {
namespace {

using modelwriter::Bytes;
using modelwriter::encodeTensor;
using modelwriter::TensorStorage;
using modelwriter::WeightTensor;

using Shape = std::vector<int>;

void fill(Tensor<float>& tensor) {
    std::iota(tensor.data->data, tensor.data->data + tensor.data->size, 1.0f);
}

std::vector<float> getBuffer(const Tensor<float>& tensor) {
    return {tensor.data->data, tensor.data->data + tensor.data->size};
}

TEST(Tensor, countsElementsAsTheProductOfItsShape) {
    EXPECT_EQ(Tensor<float>().getNumOfElements(), 0);
    const std::vector<std::pair<Shape, int>> counts = {
        {{}, 0},         {{0}, 0},          {{7}, 7},
        {{2, 3, 4}, 24}, {{2, 0, 4}, 0},    {{0, 65536, 65536, 65536}, 0},
        {{-2, 3}, -6},   {{-2, -3}, 6},     {{1 << 28, 1}, 1 << 28},
        {{-1, 0}, 0},    {{1, 1, 1, 1}, 1}, {{std::numeric_limits<int>::min(), 2, 0}, 0},
    };
    for (const auto& [shape, count] : counts)
        EXPECT_EQ(Tensor<float>::countElements(shape), count) << testing::PrintToString(shape);
    for (const Shape& shape : {Shape{1 << 29}, Shape{65536, 65536}, Shape{65536, 65536, 65536, 65536},
                               Shape{-65536, -65536}, Shape{1 << 30, 1 << 30, 1 << 30, 1 << 30, 16}}) {
        EXPECT_THROW(Tensor<float>{shape}, std::length_error) << testing::PrintToString(shape);
        Tensor<float> tensor({2});
        fill(tensor);
        EXPECT_THROW(tensor.ensureShape(shape), std::length_error);
        EXPECT_EQ(tensor.shape, Shape{2});
        EXPECT_EQ(getBuffer(tensor), (std::vector{1.0f, 2.0f}));
    }
}

TEST(Tensor, shapesWithoutElementsHaveABufferThatNobodyTouches) {
    for (const Shape& shape : {Shape{}, Shape{0}, Shape{3, 0}, Shape{-2, 3}, Shape{-65536, 65536, 65536}}) {
        Tensor<float> tensor(shape);
        ASSERT_NE(tensor.data, nullptr);
        EXPECT_LE(tensor.data->size, 0);
        Tensor<float> copy(tensor);
        copy.setToZero();
        copy.ensureUnique();
        EXPECT_NE(copy.data, tensor.data);
        Tensor<float> grown;
        grown.ensureShape(shape);
        EXPECT_NE(grown.data, nullptr);
        EXPECT_EQ(grown.shape, shape);
    }
    Tensor<float> nothing;
    nothing.setToZero();
    nothing.ensureUnique();
}

TEST(Tensor, aBufferStaysForEverythingThatFitsAndIsReplacedOtherwise) {
    Tensor<float> tensor({3, 4});
    fill(tensor);
    const auto content = getBuffer(tensor);
    const auto* record = tensor.data.get();
    const Tensor<float> sharing(tensor);

    for (const Shape& shape : {Shape{6}, Shape{}, Shape{2, 0, 9}, Shape{-5}, Shape{12}, Shape{2, 2, 3}}) {
        tensor.ensureShape(shape);
        EXPECT_EQ(tensor.shape, shape);
        EXPECT_EQ(tensor.data.get(), record);
        EXPECT_EQ(tensor.data->size, 12);
        EXPECT_EQ(getBuffer(tensor), content);
    }
    tensor.ensureShape(tensor.shape);
    EXPECT_EQ(tensor.shape, (Shape{2, 2, 3}));

    tensor.ensureShape({13});
    EXPECT_EQ(tensor.data->size, 13);
    EXPECT_EQ(sharing.data.get(), record);
    EXPECT_EQ(sharing.shape, (Shape{3, 4}));
    EXPECT_EQ(getBuffer(sharing), content);
}

TEST(Tensor, writersPartFromOthersWithAllOfTheBuffer) {
    Tensor<float> a({5});
    fill(a);
    const auto content = getBuffer(a);
    Tensor<float> b(a);
    EXPECT_EQ(a.data, b.data);
    b.ensureShape({2});
    b.ensureUnique();
    EXPECT_NE(a.data, b.data);
    EXPECT_EQ(getBuffer(b), content);  // also what lies beyond its shape
    const auto* alone = b.data.get();
    b.ensureUnique();
    EXPECT_EQ(b.data.get(), alone);

    Tensor<float> c(b);
    c.setToZero();
    EXPECT_EQ(getBuffer(b), content);
    EXPECT_EQ(getBuffer(c), (std::vector{0.0f, 0.0f, 3.0f, 4.0f, 5.0f}));

    Tensor<float> d(a);
    d.ensureUniqueForOverwrite();
    EXPECT_NE(d.data, a.data);
    EXPECT_EQ(d.data->size, 5);
    d.dropContent();
    EXPECT_EQ(d.data, nullptr);
    EXPECT_TRUE(d.shape.empty());
    EXPECT_EQ(getBuffer(a), content);
}

// The definition, in double: 2^(e - 15) * (1 + m / 1024) for every exponent but 0, the largest included.
double widen(int half) {
    const double sign = half & 0x8000 ? -1.0 : 1.0;
    const int exponent = half >> 10 & 31, fraction = half & 1023;
    if (exponent == 0) return sign * std::ldexp(fraction, -24);
    return sign * std::ldexp(1.0 + fraction / 1024.0, exponent - 15);
}

TEST(Tensor, widensEveryHalfExactly) {
    Bytes record{0, 1, 0, 0, 1, 0};  // half precision, rank 1, 65536 elements
    for (int half = 0; half < 65536; ++half) {
        record.push_back(static_cast<std::uint8_t>(half));
        record.push_back(static_cast<std::uint8_t>(half >> 8));
    }
    const Tensor<float> tensor(streamOver(record), 0x1009);
    ASSERT_EQ(tensor.shape, Shape{65536});
    for (int half = 0; half < 65536; ++half) {
        const float value = tensor.data->data[half];
        ASSERT_EQ(double{value}, widen(half)) << half;
        ASSERT_EQ(std::signbit(value), half >= 0x8000) << half;
    }
}

TEST(Tensor, recordsComeBackAsTheyWereWrittenAndLeaveTheStreamBehindThem) {
    for (int version : {0x1004, 0x1008, 0x1009, 0x100a})
        for (const auto storage : {TensorStorage::SinglePrecision, TensorStorage::HalfPrecision})
            for (int count : {0, 1, 2, 3, 7, 1023, 1024, 1025, 2048, 5000}) {
                if (storage == TensorStorage::HalfPrecision && version < 0x1009) continue;
                SCOPED_TRACE(testing::Message()
                             << version << ' ' << static_cast<int>(storage) << ' ' << count);
                WeightTensor written{{1, count, 1}, std::vector<float>(count)};
                for (int i = 0; i < count; ++i)
                    written.values[i] = static_cast<float>(i % 2048) / 16.0f - 40.0f;
                Bytes bytes = encodeTensor(written, version, storage);
                const auto length = static_cast<long long>(bytes.size());
                bytes.push_back(99);
                const auto stream = streamOver(bytes);
                const Tensor<float> read(stream, version);
                EXPECT_EQ(read.shape, written.shape);
                EXPECT_EQ(stream->getPosition(), length);
                if (count == 0) {
                    EXPECT_EQ(read.data, nullptr);
                } else {
                    ASSERT_EQ(read.data->size, count);
                    EXPECT_EQ(getBuffer(read), written.values);
                }
            }
}

TEST(Tensor, oddRecordsReadAsTold) {
    const auto bytesOf = [](std::initializer_list<int> values) {
        return Bytes(values.begin(), values.end());
    };
    const auto stream = streamOver(bytesOf({1, 0, 77}));  // rank 0
    const Tensor<float> scalar(stream, 0x1009);
    EXPECT_TRUE(scalar.shape.empty());
    EXPECT_EQ(scalar.data, nullptr);
    EXPECT_EQ(stream->getPosition(), 2);

    const auto other = streamOver(bytesOf({2, 1, 3, 0, 0, 0, 77}));  // a storage format that stores nothing
    const Tensor<float> unread(other, 0x1009);
    EXPECT_EQ(unread.shape, Shape{3});
    EXPECT_EQ(unread.data->size, 3);
    EXPECT_EQ(other->getPosition(), 6);

    const Tensor<float> negative(streamOver(bytesOf({1, 1, 255, 255, 255, 255})), 0x1009);
    EXPECT_EQ(negative.shape, Shape{-1});
    EXPECT_EQ(negative.data, nullptr);

    const Tensor<float> cutShape(streamOver(bytesOf({1, 2, 5, 0, 0, 0})), 0x1009);
    EXPECT_EQ(cutShape.shape, (Shape{5, 0}));
    EXPECT_EQ(cutShape.data, nullptr);

    EXPECT_THROW(Tensor<float>(streamOver(bytesOf({1, 255})), 0x1009), std::length_error);
    EXPECT_THROW(Tensor<float>(streamOver(bytesOf({1, 1, 0, 0, 0, 64})), 0x1009), std::length_error);
    EXPECT_THROW(Tensor<float>(streamOver(bytesOf({7, 1, 1, 0, 0, 1})), 0x1009), std::length_error);
    for (int format : {0, 1})  // 2^28 elements of which two bytes are there
        EXPECT_THROW(Tensor<float>(streamOver(bytesOf({format, 1, 0, 0, 0, 16, 1, 2})), 0x1009),
                     std::length_error);
}

// A stream that cannot tell its length.
class EndlessLookingStream : public MemoryStream {
  public:
    using MemoryStream::MemoryStream;
    long long getLength() const override { return 0; }
};

TEST(Tensor, cutOffElementsAreZero) {
    const std::vector<float> values = {1, 2, 3, 4, 5, 6};
    for (const auto storage : {TensorStorage::SinglePrecision, TensorStorage::HalfPrecision}) {
        const Bytes whole = encodeTensor({{2, 3}, values}, 0x1009, storage);
        const std::size_t bytesPerValue = storage == TensorStorage::SinglePrecision ? 4 : 2;
        for (std::size_t held = 0; held <= values.size(); ++held) {
            const Bytes cut(whole.begin(),
                            whole.begin() + static_cast<std::ptrdiff_t>(10 + held * bytesPerValue));
            std::vector<float> expected(values.size());
            std::copy_n(values.begin(), held, expected.begin());
            EXPECT_EQ(getBuffer(Tensor<float>(streamOver(cut), 0x1009)), expected);
            EXPECT_EQ(getBuffer(Tensor<float>(std::make_shared<EndlessLookingStream>(cut), 0x1009)),
                      expected);
        }
    }
}

}  // namespace
}  // namespace zevrant
