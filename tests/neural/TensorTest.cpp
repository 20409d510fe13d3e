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

TEST(Tensor, aBufferStaysForEverythingThatFitsAndIsReplacedOtherwise) {
    Tensor<float> tensor({3, 4});
    fill(tensor);
    const auto content = getBuffer(tensor);
    const Tensor<float> sharing(tensor);
    for (const Shape& shape : {Shape{6}, Shape{}, Shape{2, 0, 9}, Shape{-5}, Shape{2, 2, 3}}) {
        tensor.ensureShape(shape);
        EXPECT_EQ(tensor.shape, shape);
        EXPECT_EQ(tensor.data, sharing.data);
    }
    tensor.ensureShape({13});
    EXPECT_EQ(tensor.data->size, 13);
    EXPECT_EQ(sharing.shape, (Shape{3, 4}));
    EXPECT_EQ(getBuffer(sharing), content);
    for (const Shape& shape : {Shape{}, Shape{3, 0}, Shape{-65536, 65536, 65536}}) {
        Tensor<float> empty(shape), copy(empty), grown;
        ASSERT_NE(empty.data, nullptr) << "a buffer that nobody touches";
        EXPECT_LE(empty.data->size, 0);
        copy.setToZero();
        EXPECT_NE(copy.data, empty.data);
        grown.ensureShape(shape);
        EXPECT_NE(grown.data, nullptr);
    }
    Tensor<float>().setToZero();
}

TEST(Tensor, writersPartFromOthersWithAllOfTheBuffer) {
    Tensor<float> a({5});
    fill(a);
    const auto content = getBuffer(a);
    Tensor<float> b(a);
    b.ensureShape({2});
    b.ensureUnique();
    EXPECT_NE(a.data, b.data);
    EXPECT_EQ(getBuffer(b), content);  // also what lies beyond its shape
    const auto* alone = b.data.get();
    b.ensureUnique();
    EXPECT_EQ(b.data.get(), alone);
    Tensor<float> c(b), d(a);
    c.setToZero();
    EXPECT_EQ(getBuffer(b), content);
    EXPECT_EQ(getBuffer(c), (std::vector{0.0f, 0.0f, 3.0f, 4.0f, 5.0f}));
    d.ensureUniqueForOverwrite();
    EXPECT_NE(d.data, a.data);
    EXPECT_EQ(d.data->size, 5);
    d.dropContent();
    EXPECT_TRUE(d.data == nullptr && d.shape.empty());
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
    for (const auto& [version, storage] : {std::pair{0x1008, TensorStorage::SinglePrecision},
                                           {0x1009, TensorStorage::SinglePrecision},
                                           {0x100a, TensorStorage::HalfPrecision}})
        for (int count : {0, 1, 2, 1023, 1024, 1025, 5000}) {
            SCOPED_TRACE(testing::Message() << version << ' ' << count);
            WeightTensor written{{1, count, 1}, std::vector<float>(static_cast<std::size_t>(count))};
            std::iota(written.values.begin(), written.values.end(), -2000.0f);
            for (float& value : written.values) value = std::fmod(value, 2048.0f);  // halves hold these
            Bytes bytes = encodeTensor(written, version, storage);
            const auto length = static_cast<long long>(bytes.size());
            bytes.push_back(99);
            const auto stream = streamOver(bytes);
            const Tensor<float> read(stream, version);
            EXPECT_EQ(read.shape, written.shape);
            EXPECT_EQ(stream->getPosition(), length);
            EXPECT_EQ(read.data ? getBuffer(read) : std::vector<float>(), written.values);
        }
}

// Behind other records, so that what the file holds counts from where the stream stands.
Tensor<float> readBehind(int numOfBytes, std::initializer_list<int> record, long long* position = nullptr) {
    Bytes bytes(static_cast<std::size_t>(numOfBytes));
    bytes.insert(bytes.end(), record.begin(), record.end());
    const auto stream = streamOver(std::move(bytes));
    stream->setPosition(numOfBytes);
    Tensor<float> tensor(stream, 0x1009);
    if (position) *position = stream->getPosition() - numOfBytes;
    return tensor;
}

TEST(Tensor, oddRecordsReadAsTold) {
    long long position = 0;
    const Tensor<float> scalar = readBehind(0, {1, 0, 77}, &position);  // rank 0
    EXPECT_TRUE(scalar.shape.empty() && !scalar.data);
    EXPECT_EQ(position, 2);
    // A storage format that stores nothing.
    EXPECT_EQ(readBehind(0, {2, 1, 3, 0, 0, 0, 77}, &position).data->size, 3);
    EXPECT_EQ(position, 6);
    EXPECT_EQ(readBehind(0, {1, 1, 255, 255, 255, 255}).shape, Shape{-1});
    const Tensor<float> cutShape = readBehind(0, {1, 2, 5, 0, 0, 0});
    EXPECT_EQ(cutShape.shape, (Shape{5, 0}));
    EXPECT_EQ(cutShape.data, nullptr);

    EXPECT_THROW(readBehind(0, {1, 255}), std::length_error);
    EXPECT_THROW(readBehind(0, {1, 1, 0, 0, 0, 64}), std::length_error);
    EXPECT_THROW(readBehind(0, {7, 1, 1, 0, 0, 1}), std::length_error);
    for (int format : {0, 1})  // 2^28 elements of which two bytes are there
        EXPECT_THROW(readBehind(0, {format, 1, 0, 0, 0, 16, 1, 2}), std::length_error);
    const int elements = (1 << 24) + 1;  // whose bytes stand before the record and not behind it
    EXPECT_THROW(readBehind(2 * elements, {0, 1, 1, 0, 0, 1}), std::length_error);
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
