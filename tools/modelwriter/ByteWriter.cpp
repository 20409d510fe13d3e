#include "modelwriter/ByteWriter.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace zevrant::modelwriter {

namespace {

// The product of the axes, 0 without any. Large enough for what a file can hold, or an error.
std::int64_t countValues(const std::vector<int>& shape, const char* field) {
    if (shape.empty()) return 0;
    std::int64_t count = 1;
    for (int axis : shape) {
        requireArgument(axis >= 0, std::string(field) + " has a negative axis");
        count = std::min(count * axis, std::int64_t{std::numeric_limits<std::int32_t>::max()});
    }
    return count;
}

}  // namespace

void requireArgument(bool holds, const std::string& text) {
    if (!holds) throw std::invalid_argument(text);
}

// A half has 11 bits of fraction from 2^-14 up, and below that counts steps of 2^-24. Either way the
// value is a whole number of some step, and rounding it to that number is all there is to do.
std::uint16_t toHalfPrecision(float value) {
    const auto bits = std::bit_cast<std::uint32_t>(value);
    const auto sign = static_cast<std::uint16_t>(bits >> 16 & 0x8000u);
    const std::uint32_t magnitude = bits & 0x7fffffffu;
    constexpr std::uint32_t smallestNormal = 113u << 23;    // 2^-14
    constexpr std::uint32_t roundsToInfinity = 0x477ff000;  // 65520
    if (magnitude >= roundsToInfinity)
        throw std::invalid_argument(std::to_string(value) + " is beyond half precision, which ends at 65504");
    if (magnitude < smallestNormal) {
        // Adding 0.5 leaves a float whose last bit is worth 2^-24, rounded to nearest even by the addition.
        const float shifted = std::bit_cast<float>(magnitude) + 0.5f;
        return static_cast<std::uint16_t>(sign | (std::bit_cast<std::uint32_t>(shifted) & 0x7ffu));
    }
    const std::uint32_t lastBit = magnitude >> 13 & 1u;
    const std::uint32_t rounded = (magnitude - (112u << 23) + 0xfffu + lastBit) >> 13;
    return static_cast<std::uint16_t>(sign | rounded);
}

void ByteWriter::appendLittleEndian(std::uint64_t value, int numOfBytes) {
    for (int i = 0; i < numOfBytes; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

void ByteWriter::writeInteger(std::int64_t value, int numOfBits, bool isSigned, const char* field) {
    const std::int64_t lowest = isSigned ? -(std::int64_t{1} << (numOfBits - 1)) : 0;
    const std::int64_t highest = (std::int64_t{1} << (isSigned ? numOfBits - 1 : numOfBits)) - 1;
    if (value < lowest || value > highest)
        throw std::invalid_argument(std::string(field) + " is " + std::to_string(value) +
                                    ", and its field holds " + std::to_string(lowest) + " to " +
                                    std::to_string(highest));
    appendLittleEndian(static_cast<std::uint64_t>(value), numOfBits / 8);
}

void ByteWriter::writeInt8(int value, const char* field) {
    writeInteger(value, 8, true, field);
}

void ByteWriter::writeUint16(int value, const char* field) {
    writeInteger(value, 16, false, field);
}

void ByteWriter::writeInt16(int value, const char* field) {
    writeInteger(value, 16, true, field);
}

void ByteWriter::writeInt32(std::int64_t value, const char* field) {
    writeInteger(value, 32, true, field);
}

void ByteWriter::writeFloat32(float value) {
    appendLittleEndian(std::bit_cast<std::uint32_t>(value), 4);
}

void ByteWriter::writeFloat64(double value) {
    appendLittleEndian(std::bit_cast<std::uint64_t>(value), 8);
}

void ByteWriter::writeString(const std::string& text) {
    writeInt32(static_cast<std::int64_t>(text.size()), "the length of a text");
    bytes.insert(bytes.end(), text.begin(), text.end());
}

void ByteWriter::append(const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void ByteWriter::writeTensor(const WeightTensor& tensor, const char* field) {
    const bool isHalf = storage == TensorStorage::HalfPrecision;
    requireArgument(!isHalf || version >= 0x1009, "half precision needs version 0x1009");
    const std::int64_t count = countValues(tensor.shape, field);
    requireArgument(count == static_cast<std::int64_t>(tensor.values.size()),
                    std::string(field) + " has " + std::to_string(tensor.values.size()) +
                        " values for a shape of " + std::to_string(count));
    if (version >= 0x1009) bytes.push_back(static_cast<std::uint8_t>(storage));
    writeInt8(static_cast<int>(tensor.shape.size()), "the rank of a tensor");
    for (int axis : tensor.shape) writeInt32(axis, "an axis");
    bytes.reserve(bytes.size() + tensor.values.size() * (isHalf ? 2 : 4));
    if (isHalf)
        for (float value : tensor.values) appendLittleEndian(toHalfPrecision(value), 2);
    else
        for (float value : tensor.values) writeFloat32(value);
}

}  // namespace zevrant::modelwriter
