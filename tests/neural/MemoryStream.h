#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "files/Streams.h"

namespace zevrant {

// A model file in memory. At its end it delivers less than was asked for, as a file does.
class MemoryStream : public InputStream {
  public:
    explicit MemoryStream(std::vector<std::uint8_t> content) : bytes(std::move(content)) {}

    int read(void* destination, int size) override {
        const auto left = static_cast<long long>(bytes.size()) - position;
        const int count = static_cast<int>(std::clamp<long long>(left, 0, std::max(0, size)));
        if (count > 0) std::memcpy(destination, bytes.data() + position, static_cast<std::size_t>(count));
        position += count;
        return count;
    }
    bool setPosition(long long newPosition) override {
        position = newPosition;
        return true;
    }
    long long getPosition() const override { return position; }
    long long getLength() const override { return static_cast<long long>(bytes.size()); }
    void close() override {}

  private:
    std::vector<std::uint8_t> bytes;
    long long position = 0;
};

inline std::shared_ptr<InputStream> streamOver(std::vector<std::uint8_t> content) {
    return std::make_shared<MemoryStream>(std::move(content));
}

}  // namespace zevrant
