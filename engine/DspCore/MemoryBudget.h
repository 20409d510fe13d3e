#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace zevrant {

// What one model holds in tensors and packed weights, and the most that it may: one account, asked wherever
// such memory is taken, before it is taken.
//
// Which account that is follows from the thread: the model that is loaded or run on it. Outside of both there
// is none, and nothing is counted.
//
// Errors   std::length_error where more is asked for than is left; nothing is taken then.
// Threads  Any thread may give back; shares outlive their model where somebody keeps a tensor.
class MemoryBudget {
  public:
    explicit MemoryBudget(std::int64_t numOfBytes) : most(numOfBytes) {}

    // More room, for what a file really holds. Before anything else uses the account.
    void extend(std::int64_t numOfBytes) { most += numOfBytes; }

    void take(std::int64_t numOfBytes);
    void giveBack(std::int64_t numOfBytes) noexcept { used.fetch_sub(numOfBytes, std::memory_order_relaxed); }

    // Makes an account that of the running thread, for as long as the scope lasts.
    class Scope {
      public:
        explicit Scope(const std::shared_ptr<MemoryBudget>& budget);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        const std::shared_ptr<MemoryBudget>* outer;
    };

    // A part of the running thread's account, given back at the end.
    class Share {
      public:
        Share() = default;
        explicit Share(std::int64_t numOfBytes);
        Share(Share&& other) noexcept;
        Share& operator=(Share&& other) noexcept;
        ~Share();

      private:
        std::shared_ptr<MemoryBudget> budget;
        std::int64_t size = 0;
    };

  private:
    std::int64_t most;
    std::atomic<std::int64_t> used = 0;
};

}  // namespace zevrant
