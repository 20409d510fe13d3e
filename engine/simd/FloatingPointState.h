#pragma once

#include <cstdint>

namespace zevrant {

// For its life the calling thread counts denormal numbers as 0, in what it reads and in what it
// computes: a stream that decays into silence would otherwise take many times as long per block. At
// the end, by an exception as well, the thread has the control and status register that it came with,
// bit for bit; flags that arithmetic raised in between are not left behind. Objects on one thread nest.
class ScopedFlushDenormals {
  public:
    ScopedFlushDenormals() noexcept;
    ~ScopedFlushDenormals();

    ScopedFlushDenormals(const ScopedFlushDenormals&) = delete;
    ScopedFlushDenormals& operator=(const ScopedFlushDenormals&) = delete;

  private:
    std::uint64_t callersState;  // the control register at the start
};

}  // namespace zevrant
