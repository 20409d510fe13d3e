#pragma once

#include <cstdint>
#include <string>

#include "modelwriter/ModelWriter.h"

namespace zevrant::modelwriter {

// Appends the fields of a model file: little-endian, without padding. A number that its field cannot hold
// is an error that names the field.
class ByteWriter {
  public:
    explicit ByteWriter(int fileVersion, TensorStorage tensorStorage = TensorStorage::SinglePrecision)
        : version(fileVersion), storage(tensorStorage) {}

    void writeInt8(int value, const char* field);
    void writeUint16(int value, const char* field);
    void writeInt16(int value, const char* field);
    void writeInt32(std::int64_t value, const char* field);
    void writeFloat32(float value);
    void writeFloat64(double value);
    void writeString(const std::string& text);
    void writeTensor(const WeightTensor& tensor, const char* field);
    void append(const Bytes& more);

    const int version;
    const TensorStorage storage;
    Bytes bytes;

  private:
    void writeInteger(std::int64_t value, int numOfBits, bool isSigned, const char* field);
    void appendLittleEndian(std::uint64_t value, int numOfBytes);
};

// What a record calls its kind of layer.
int getTypeCode(const SingleSourceLayer& layer);
int getTypeCode(const MergingLayer& layer);

// Throws std::invalid_argument with this text unless the condition holds.
void requireArgument(bool holds, const std::string& text);

}  // namespace zevrant::modelwriter
