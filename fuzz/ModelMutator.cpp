#include "ModelMutator.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "modelwriter/LayerRecords.h"
#include "neural/ModelOfAllLayers.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace zevrant::fuzz {

namespace {

using namespace modelwriter;
using Record = ModelFile::Record;

void mutateBytes(Bytes& bytes, std::size_t room) {
    const std::size_t size = bytes.size();
    bytes.resize(size + room);
    if (!bytes.empty()) bytes.resize(LLVMFuzzerMutate(bytes.data(), size, bytes.size()));
}

class Mutator {
  public:
    Mutator(ModelFile model, unsigned seed) : file(std::move(model)), random(seed) {}

    Bytes run() {
        for (int left = 1 + below(3); left > 0; --left) changeOnce();
        return file.toBytes();
    }

    Bytes cross(const ModelFile& other) {
        if (!other.records.empty()) {
            const int start = below(static_cast<int>(other.records.size()));
            const int count = 1 + below(static_cast<int>(other.records.size()) - start);
            const auto place = below(static_cast<int>(file.records.size()) + 1);
            file.records.insert(std::next(file.records.begin(), place), other.records.begin() + start,
                                other.records.begin() + start + count);
            repairSources();
            if (oneIn(2)) file.output = file.records.back().name;
        }
        return file.toBytes();
    }

  private:
    int below(int bound) { return static_cast<int>(random() % static_cast<unsigned>(std::max(1, bound))); }
    bool oneIn(int count) { return below(count) == 0; }

    Record& pickRecord() {
        return file.records[static_cast<std::size_t>(below(static_cast<int>(file.records.size())))];
    }

    void changeOnce() {
        if (oneIn(8)) return bend(file.header, file.headerNumbers);
        if (oneIn(24)) return mutateBytes(file.header, 4);
        if (file.records.empty() || oneIn(5)) return insertDrawn();
        switch (below(9)) {
            case 0:
            case 1:
            case 2: {
                Record& record = pickRecord();
                return bend(record.fields, record.numbers);
            }
            case 3: {
                Record& record = pickRecord();
                const Record drawn = drawRecord(record.name, record.sources);
                record = drawn;
                return;
            }
            case 4:
                file.records.erase(file.records.begin() + below(static_cast<int>(file.records.size())));
                return repairSources();
            case 5: {
                Record copy = pickRecord();
                copy.name = makeName();
                file.records.push_back(std::move(copy));
                file.output = file.records.back().name;
                return;
            }
            case 6: {
                std::swap(pickRecord(), pickRecord());
                return repairSources();
            }
            case 7: {
                Record& record = pickRecord();
                if (hasManySources(record.typeCode) && oneIn(3))
                    record.sources.push_back(pickName(file.records.size()));
                else if (!record.sources.empty())
                    record.sources[static_cast<std::size_t>(below(static_cast<int>(record.sources.size())))] =
                        pickName(static_cast<std::size_t>(&record - file.records.data()));
                else if (oneIn(2))
                    file.output = pickName(file.records.size());
                return;
            }
            default:
                return mutateBytes(pickRecord().fields, 8);
        }
    }

    // To the values where fields turn over, and those that sizes multiply to.
    void bend(Bytes& bytes, const std::vector<ModelFile::Number>& numbers) {
        if (numbers.empty()) return;
        const auto number = numbers[static_cast<std::size_t>(below(static_cast<int>(numbers.size())))];
        if (number.position + number.size > bytes.size()) return;
        static constexpr std::int64_t edges[] = {
            0,   1,   2,   3,    4,    -1,    -2,     8,     16,    17,      64,         127,          -128,
            128, 255, 256, 1024, 4096, 32767, -32768, 65535, 65536, 1 << 24, 2147483647, -2147483648LL};
        std::int64_t value = edges[below(static_cast<int>(std::size(edges)))];
        if (oneIn(3)) {
            value = 0;
            std::memcpy(&value, bytes.data() + number.position, number.size);
            value += below(5) - 2;
        }
        if (number.size == sizeof(double) && oneIn(2)) {
            static constexpr double rates[] = {1.0, 0.5, -1.0, 48000.0, 44100.0, 1e300, 1e-300, 2147483648.0};
            std::memcpy(&value, &rates[below(static_cast<int>(std::size(rates)))], sizeof value);
        }
        std::memcpy(bytes.data() + number.position, &value, number.size);
    }

    std::string makeName() { return "n" + std::to_string(below(1000)); }

    // Of a layer before this place, or the input.
    std::string pickName(std::size_t place) {
        const int index = below(static_cast<int>(place) + 1) - 1;
        return index < 0 ? "input" : file.records[static_cast<std::size_t>(index)].name;
    }

    // Sources that no longer stand earlier in the file become some that do, but for one in eight.
    void repairSources() {
        std::vector<std::string> known{"input"};
        const auto repair = [&](std::string& source) {
            if (std::find(known.begin(), known.end(), source) == known.end() && !oneIn(8))
                source = known[known.size() - 1 -
                               static_cast<std::size_t>(
                                   below(static_cast<int>(std::min<std::size_t>(known.size(), 3))))];
        };
        for (Record& record : file.records) {
            for (std::string& source : record.sources) repair(source);
            known.push_back(record.name);
        }
        repair(file.output);
    }

    void insertDrawn() {
        const auto place = static_cast<std::size_t>(below(static_cast<int>(file.records.size()) + 1));
        Record record = drawRecord(makeName(), {pickName(place)});
        // Whoever heard the same source before mostly hears the new layer now.
        const std::string source = record.sources.empty() ? "" : record.sources[0];
        for (std::size_t i = place; i < file.records.size(); ++i)
            for (std::string& other : file.records[i].sources)
                if (other == source && !oneIn(3)) other = record.name;
        if (file.output == source) file.output = record.name;
        file.records.insert(file.records.begin() + static_cast<std::ptrdiff_t>(place), std::move(record));
    }

    // A whole record through the writer, with sizes that often fit a small network.
    Record drawRecord(std::string name, std::vector<std::string> sources) {
        if (oneIn(6)) {
            if (sources.size() < 2) sources.push_back(pickName(file.records.size()));
            const int operation = below(5);
            const MergingLayer layer = operation == 4 ? MergingLayer(Concat{}) : Arithmetic{operation};
            return finish(std::move(name), getCode(layer), std::move(sources),
                          encodeLayer(std::vector<std::string>{}, layer, getVersion()), 2);
        }
        sources.resize(1, "input");
        const SingleSourceLayer layer = drawLayer();
        return finish(std::move(name), getCode(layer), std::move(sources),
                      encodeLayer("", layer, getVersion(), getStorage()), 4);
    }

    Record finish(std::string name, int typeCode, std::vector<std::string> sources, const Bytes& encoded,
                  int skipped) {
        return ModelFile::makeRecord(std::move(name), typeCode, std::move(sources),
                                     {encoded.begin() + skipped, encoded.end()}, getVersion());
    }

    template <class Layer>
    static int getCode(const Layer& layer) {
        return std::visit([](const auto& record) { return record.typeCode; }, layer);
    }

    int getVersion() const { return std::clamp(file.version, earliestVersion, latestVersion); }
    TensorStorage getStorage() {
        return getVersion() >= 0x1009 && oneIn(3) ? TensorStorage::HalfPrecision
                                                  : TensorStorage::SinglePrecision;
    }

    int drawChannels() { return std::vector{1, 2, 4, 4, 4, 8, 16, 17}[static_cast<std::size_t>(below(8))]; }
    int drawFrequencies() {
        return std::vector{9, 9, 9, 8, 17, 1, 4, 18}[static_cast<std::size_t>(below(8))];
    }
    int drawStride() {
        return oneIn(3) ? std::vector{0, 2, 3, -1, 127, -128}[static_cast<std::size_t>(below(6))] : 1;
    }
    WeightTensor drawOptional(std::vector<int> shape) {
        return oneIn(2) ? makeWeights(std::move(shape)) : WeightTensor{};
    }

    SingleSourceLayer drawLayer() {
        const int C = drawChannels(), O = drawChannels(), F = drawFrequencies();
        const bool isLate = getVersion() >= 0x1007;
        switch (below(17)) {
            case 0:
            case 1:
                return Conv{.weights = makeWeights({1 + below(4), 1 + below(5), oneIn(4) ? 1 : C, O}),
                            .bias = drawOptional({O}),
                            .timeStride = drawStride(),
                            .frequencyStride = drawStride(),
                            .timeDilation = drawStride(),
                            .timeOffset = oneIn(2) ? 0 : below(256) - 128};
            case 2:
            case 3:
                return TransposedConv{.weights = makeWeights({1 + below(4), 1 + below(5), O, C}),
                                      .bias = drawOptional({O}),
                                      .timeStride = drawStride(),
                                      .frequencyStride = drawStride(),
                                      .timeOffset = oneIn(2) ? 0 : below(256) - 128};
            case 4:
                return ReLU{};
            case 5:
                return ELU{};
            case 6:
                return Sigmoid{};
            case 7:
                return HardSigmoid{};
            case 8:
                return Softplus{};
            case 9:
                return LeakyReLU{0.25f};
            case 10:
                return Norm{getVersion() >= 0x100a ? below(3) : 0, makeWeights({C}), drawOptional({C})};
            case 11:
                return PreNorm{makeWeights({below(5)})};
            case 12:
                return ARPreNorm{0.5f, oneIn(4) ? 2.0f : 0.9f, oneIn(4) ? 0.0f : 1e-6f};
            case 13:
                return Dense{makeWeights({F, F, C}), drawOptional({F, C})};
            case 14:
                return SeparableChannelConv{makeWeights({below(4)}), makeWeights({below(6)})};
            case 15:
                return SelfAttention{.channelMatrix = makeWeights({C, C}),
                                     .positionBias = makeWeights({F, C}),
                                     .startDelay = isLate ? below(4) : 0,
                                     .timeWeights = isLate ? drawOptional({below(4), C}) : WeightTensor{}};
            default: {
                FrequencyRescale rescale;
                for (int bin = 0; bin < F; ++bin)
                    rescale.bands.push_back({below(F), makeWeights({1 + below(2)})});
                return rescale;
            }
        }
    }

    ModelFile file;
    std::minstd_rand random;
};

std::size_t copyOut(const Bytes& bytes, std::uint8_t* out, std::size_t maxSize) {
    const std::size_t count = std::min(bytes.size(), maxSize);
    std::copy_n(bytes.begin(), count, out);
    return count;
}

}  // namespace

Bytes mutateModel(std::span<const std::uint8_t> bytes, std::size_t maxSize, unsigned seed) {
    if (seed % 16 != 0)
        if (auto file = ModelFile::parse(bytes)) {
            Bytes result = Mutator(std::move(*file), seed / 16).run();
            if (result.size() <= maxSize) return result;
        }
    Bytes result(bytes.begin(), bytes.end());
    mutateBytes(result, maxSize > result.size() ? maxSize - result.size() : 0);
    return result;
}

Bytes crossModels(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second, unsigned seed) {
    auto a = ModelFile::parse(first), b = ModelFile::parse(second);
    if (!a || !b) return {first.begin(), first.end()};
    return Mutator(std::move(*a), seed).cross(*b);
}

std::size_t mutateInput(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed,
                        std::size_t numOfChoices) {
    if (size < numOfChoices || (numOfChoices > 0 && seed % 4 == 0)) {
        // The choices keep their length, so that the model stays where it is.
        const std::size_t length = std::min(std::max(size, numOfChoices), maxSize);
        std::fill(data + std::min(size, length), data + length, std::uint8_t{0});
        LLVMFuzzerMutate(data, std::min(numOfChoices, length), std::min(numOfChoices, length));
        return length;
    }
    const Bytes model =
        mutateModel({data + numOfChoices, size - numOfChoices}, maxSize - numOfChoices, seed / 4);
    return numOfChoices + copyOut(model, data + numOfChoices, maxSize - numOfChoices);
}

std::size_t crossInputs(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second,
                        std::span<std::uint8_t> out, unsigned seed, std::size_t numOfChoices) {
    if (std::min({first.size(), second.size(), out.size()}) < numOfChoices)
        return copyOut({first.begin(), first.end()}, out.data(), out.size());
    std::copy_n(seed % 2 == 0 ? first.begin() : second.begin(), numOfChoices, out.begin());
    const Bytes model = crossModels(first.subspan(numOfChoices), second.subspan(numOfChoices), seed / 2);
    return numOfChoices + copyOut(model, out.data() + numOfChoices, out.size() - numOfChoices);
}

}  // namespace zevrant::fuzz
