#include "ModelFile.h"

#include <cstring>
#include <limits>
#include <map>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "modelwriter/LayerRecords.h"

namespace zevrant::fuzz {

namespace {

// Takes the fields of a file apart and notes where its numbers stand. Throws std::out_of_range at the end.
class Reader {
  public:
    explicit Reader(std::span<const std::uint8_t> content) : bytes(content) {}

    template <class Value>
    Value take() {
        Value value;
        std::memcpy(&value, skip(sizeof value), sizeof value);
        return value;
    }

    template <class Value>
    Value takeNumber() {
        numbers.push_back({position, sizeof(Value)});
        return take<Value>();
    }

    std::string takeString() {
        const auto length = take<std::int32_t>();
        if (length < 0) throw std::out_of_range("a negative length");
        const auto* text = skip(static_cast<std::size_t>(length));
        return {text, text + length};
    }

    void takeTensor(int version) {
        const int storage = version >= 0x1009 ? takeNumber<std::uint8_t>() : 1;
        const int rank = takeNumber<std::int8_t>();
        std::int64_t count = rank > 0 ? 1 : 0;
        for (int axis = 0; axis < rank; ++axis) {
            count *= takeNumber<std::int32_t>();
            if (count < 0 || count > std::numeric_limits<std::int32_t>::max())
                throw std::out_of_range("too many elements");
        }
        skip(static_cast<std::size_t>(count) * (storage == 0 ? 2 : storage == 1 ? 4 : 0));
    }

    void takePacking() {
        const int code = takeNumber<std::int8_t>();
        takeNumber<std::int16_t>();
        if (code == 2 || code == 5 || code == 6) takeNumber<std::int16_t>();
        if (code == 5) takeNumber<std::int32_t>();
        if (code == 6) takeNumber<std::int8_t>();
    }

    const std::uint8_t* skip(std::size_t count) {
        if (count > bytes.size() - position) throw std::out_of_range("the file ends here");
        position += count;
        return bytes.data() + position - count;
    }

    Bytes copy(std::size_t from) const {
        return {bytes.begin() + static_cast<std::ptrdiff_t>(from),
                bytes.begin() + static_cast<std::ptrdiff_t>(position)};
    }

    std::span<const std::uint8_t> bytes;
    std::size_t position = 0;
    std::vector<ModelFile::Number> numbers;
};

// What stands behind the sources: T a tensor, b, h and f numbers of 1, 2 and 4 bytes.
std::string_view getLayout(int typeCode, int version) {
    using namespace modelwriter;
    static const std::map<int, std::string_view> layouts = {{Conv::typeCode, "TTbbbbb"},
                                                            {ReLU::typeCode, ""},
                                                            {ELU::typeCode, ""},
                                                            {Sigmoid::typeCode, ""},
                                                            {HardSigmoid::typeCode, ""},
                                                            {Softplus::typeCode, ""},
                                                            {LeakyReLU::typeCode, "f"},
                                                            {PreNorm::typeCode, "T"},
                                                            {ARPreNorm::typeCode, "fff"},
                                                            {Dense::typeCode, "TT"},
                                                            {SeparableChannelConv::typeCode, "TT"},
                                                            {Concat::typeCode, ""},
                                                            {Arithmetic::typeCode, "b"}};
    if (typeCode == TransposedConv::typeCode) return version >= 0x1008 ? "TThbbbbb" : "TTbbbbb";
    if (typeCode == Norm::typeCode) return version >= 0x100a ? "bTT" : "TT";
    if (typeCode == SelfAttention::typeCode) return version >= 0x1007 ? "TTbT" : "TT";
    return layouts.at(typeCode);
}

void takeFields(Reader& reader, int typeCode, int version) {
    if (typeCode == modelwriter::FrequencyRescale::typeCode) {
        for (int left = reader.takeNumber<std::int16_t>(); left > 0; --left) {
            reader.takeNumber<std::int16_t>();
            reader.takeTensor(version);
        }
        return;
    }
    for (char field : getLayout(typeCode, version)) {
        if (field == 'T') reader.takeTensor(version);
        if (field == 'b') reader.takeNumber<std::int8_t>();
        if (field == 'h') reader.takeNumber<std::int16_t>();
        if (field == 'f') reader.takeNumber<float>();
    }
}

ModelFile::Record takeRecord(Reader& reader, int version) {
    ModelFile::Record record;
    record.name = reader.takeString();
    record.typeCode = reader.take<std::uint16_t>();
    const int numOfSources = hasManySources(record.typeCode) ? reader.take<std::int16_t>() : 1;
    for (int i = 0; i < numOfSources; ++i) record.sources.push_back(reader.takeString());
    const std::size_t start = reader.position;
    reader.numbers.clear();
    takeFields(reader, record.typeCode, version);
    record.fields = reader.copy(start);
    for (ModelFile::Number number : reader.numbers)
        record.numbers.push_back({number.position - start, number.size});
    return record;
}

void takeHeader(Reader& reader, int version) {
    reader.takeString();
    reader.takeString();
    reader.takeNumber<double>();
    reader.takeNumber<std::int8_t>();
    reader.takePacking();
    reader.takeNumber<std::int8_t>();
    reader.takeNumber<std::int8_t>();
    if (version >= 0x1006)
        for (int left = reader.takeNumber<std::int8_t>(); left >= 0; --left) reader.takeString();
    reader.takePacking();
    for (int i = version >= 0x1005 ? 3 : 2; i > 0; --i) reader.takeNumber<std::int16_t>();
}

void append(Bytes& bytes, const void* data, std::size_t size) {
    const auto* first = static_cast<const std::uint8_t*>(data);
    bytes.insert(bytes.end(), first, first + size);
}

void append(Bytes& bytes, const std::string& text) {
    const auto length = static_cast<std::int32_t>(text.size());
    append(bytes, &length, sizeof length);
    append(bytes, text.data(), text.size());
}

}  // namespace

bool hasManySources(int typeCode) {
    return typeCode == modelwriter::Concat::typeCode || typeCode == modelwriter::Arithmetic::typeCode;
}

std::optional<ModelFile> ModelFile::parse(std::span<const std::uint8_t> bytes) {
    try {
        Reader reader(bytes);
        ModelFile file;
        reader.takeString();
        file.version = reader.takeNumber<std::int32_t>();
        takeHeader(reader, file.version);
        file.header = reader.copy(0);
        file.headerNumbers = reader.numbers;
        for (auto left = reader.take<std::int32_t>(); left > 0; --left)
            file.records.push_back(takeRecord(reader, file.version));
        file.output = reader.takeString();
        const std::size_t end = reader.position;
        reader.skip(bytes.size() - end);
        file.rest = reader.copy(end);
        return file;
    } catch (const std::out_of_range&) {
        return std::nullopt;
    }
}

ModelFile::Record ModelFile::makeRecord(std::string name, int typeCode, std::vector<std::string> sources,
                                        Bytes fields, int version) {
    Record record{std::move(name), typeCode, std::move(sources), std::move(fields), {}};
    Reader reader(record.fields);
    takeFields(reader, typeCode, version);
    record.numbers = reader.numbers;
    return record;
}

Bytes ModelFile::toBytes() const {
    Bytes bytes = header;
    const auto numOfRecords = static_cast<std::int32_t>(records.size());
    append(bytes, &numOfRecords, sizeof numOfRecords);
    for (const Record& record : records) {
        append(bytes, record.name);
        append(bytes, &record.typeCode, 2);
        const auto numOfSources = static_cast<std::int16_t>(record.sources.size());
        if (hasManySources(record.typeCode)) append(bytes, &numOfSources, sizeof numOfSources);
        for (const std::string& source : record.sources) append(bytes, source);
        append(bytes, record.fields.data(), record.fields.size());
    }
    append(bytes, output);
    append(bytes, rest.data(), rest.size());
    return bytes;
}

}  // namespace zevrant::fuzz
