#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "modelwriter/ModelWriter.h"

namespace zevrant::fuzz {

using modelwriter::Bytes;

// A model file as a list of parts that can be moved about. What parse() reads, toBytes() writes.
struct ModelFile {
    // A number among bytes: where it stands, and how wide it is.
    struct Number {
        std::size_t position;
        std::size_t size;
    };

    struct Record {
        std::string name;
        int typeCode = 0;
        std::vector<std::string> sources;
        Bytes fields;                 // behind the sources
        std::vector<Number> numbers;  // in the fields: settings, ranks and axes of tensors, no elements
    };

    // Nothing for bytes that end too early or have a layer of unknown type.
    static std::optional<ModelFile> parse(std::span<const std::uint8_t> bytes);

    // Reads the fields of a record of this version again, to know its numbers.
    static Record makeRecord(std::string name, int typeCode, std::vector<std::string> sources, Bytes fields,
                             int version);

    Bytes toBytes() const;

    int version = 0;
    Bytes header;  // up to the number of layers
    std::vector<Number> headerNumbers;
    std::vector<Record> records;
    std::string output;
    Bytes rest;  // behind the end
};

// Concat and Arithmetic.
bool hasManySources(int typeCode);

}  // namespace zevrant::fuzz
