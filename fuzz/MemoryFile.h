#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <span>
#include <string>

#include "Execution.h"

namespace zevrant::fuzz {

// A file that has a path and lives in memory, for calls that take models by path.
class MemoryFile {
  public:
    explicit MemoryFile(std::span<const std::uint8_t> content) : descriptor(memfd_create("model", 0)) {
        const auto written = write(descriptor, content.data(), content.size());
        require(written == static_cast<ssize_t>(content.size()), "the machine keeps files in memory");
    }
    ~MemoryFile() { close(descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string getPath() const { return "/proc/self/fd/" + std::to_string(descriptor); }

  private:
    int descriptor;
};

}  // namespace zevrant::fuzz
