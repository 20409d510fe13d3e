#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <span>
#include <vector>

namespace zevrant::fuzz {

// The decisions of one execution, read from its input in order. Past the end all bytes are 0, so that an
// input may be cut anywhere and every input means something.
class Choices {
  public:
    explicit Choices(std::span<const std::uint8_t> input) : bytes(input) {}

    bool isAtEnd() const { return bytes.empty(); }

    int takeByte() {
        if (bytes.empty()) return 0;
        const int value = bytes.front();
        bytes = bytes.subspan(1);
        return value;
    }

    template <class Value>
    Value takeRaw() {
        Value value{};
        const std::size_t count = bytes.size() < sizeof value ? bytes.size() : sizeof value;
        if (count > 0) std::memcpy(&value, bytes.data(), count);
        bytes = bytes.subspan(count);
        return value;
    }

    template <class Value>
    Value takeOneOf(std::initializer_list<Value> values) {
        return *std::next(values.begin(), takeByte() % static_cast<int>(values.size()));
    }

  private:
    std::span<const std::uint8_t> bytes;
};

// Values that one seed stands for: noise up to 1, and for odd seeds now and then a value that hosts send only
// by mistake.
inline std::vector<float> makeValues(std::size_t count, int seed) {
    constexpr float hostile[] = {std::numeric_limits<float>::quiet_NaN(),
                                 std::numeric_limits<float>::infinity(),
                                 -std::numeric_limits<float>::infinity(),
                                 std::numeric_limits<float>::max(),
                                 std::numeric_limits<float>::denorm_min(),
                                 -0.0f,
                                 1e20f,
                                 -1e-20f};
    std::vector<float> values(count);
    auto state = static_cast<std::uint32_t>(seed + 1) * 2654435761u;
    for (float& value : values) {
        state = state * 1664525u + 1013904223u;
        value = static_cast<float>(static_cast<std::int32_t>(state)) * 0x1p-31f;
        if (seed % 2 != 0 && (state >> 24) < 4) value = hostile[(state >> 16) % std::size(hostile)];
    }
    return values;
}

}  // namespace zevrant::fuzz
