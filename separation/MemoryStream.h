#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "files/Streams.h"

namespace zevrant::separation {

// Bytes in memory as the stream that a model is read from. At its end it delivers less than was asked for,
// as a file does.
class MemoryStream : public InputStream {
  public:
    explicit MemoryStream(std::shared_ptr<const std::string> content) : bytes(std::move(content)) {}

    int read(void* destination, int size) override {
        const long long left = getLength() - position;
        const auto count = static_cast<int>(std::clamp<long long>(left, 0, std::max(0, size)));
        if (count > 0) std::memcpy(destination, bytes->data() + position, static_cast<std::size_t>(count));
        position += count;
        return count;
    }
    bool setPosition(long long newPosition) override {
        if (newPosition < 0) return false;
        position = newPosition;
        return true;
    }
    long long getPosition() const override { return position; }
    long long getLength() const override { return static_cast<long long>(bytes->size()); }
    void close() override {}

  private:
    std::shared_ptr<const std::string> bytes;
    long long position = 0;
};

}  // namespace zevrant::separation
