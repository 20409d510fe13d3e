#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <new>
#include <optional>
#include <utility>

namespace zevrant {

// Memory for the blocks that the audio path takes and gives back in every frame.
//
// A freed block goes to a free list of its size class on the thread that freed it, and the next
// request of that class on this thread takes it from there. So a stream that has been running for
// a few frames asks the system for nothing, takes no lock, and finds its blocks warm in the cache.
//
// Sizes    Four classes per power of two, so a block is at most a quarter larger than asked for.
// Align    Every block starts 64-byte aligned.
// Bound    A thread keeps at most 64 MiB of free blocks; blocks over 16 MiB are never kept.
// Threads  Any thread may free any block. A thread's free blocks go back to the system when it ends.
// Errors   std::bad_alloc.
//
// Builds under AddressSanitizer hand every request to the system, so that it sees each lifetime.
void* allocateRecycled(std::size_t numOfBytes);
void freeRecycled(void* block, std::size_t numOfBytes) noexcept;

// Free blocks that belong to one stream of audio instead of to a thread, with the classes and the bound told
// above. A stream that has run once has all its blocks here, so it asks the system for nothing on whatever
// thread it runs next. One thread at a time; what is left goes back to the system at the end.
class RecyclingPool {
  public:
    RecyclingPool() = default;
    RecyclingPool(const RecyclingPool&) = delete;
    RecyclingPool& operator=(const RecyclingPool&) = delete;
    ~RecyclingPool();

    // Blocks that it did not have and that were asked of the system.
    std::int64_t getNumOfRequests() const { return numOfRequests; }

    // False in builds under AddressSanitizer.
    static const bool keepsBlocks;

  private:
    friend void* allocateRecycled(std::size_t numOfBytes);
    friend void freeRecycled(void* block, std::size_t numOfBytes) noexcept;

    struct FreeBlock {
        FreeBlock* next;
    };
    static constexpr std::size_t numOfClasses = 1 + (24 - 6) * 4;

    std::array<FreeBlock*, numOfClasses> heads{};
    std::size_t keptBytes = 0;
    std::int64_t numOfRequests = 0;
};

// While it lives, the calling thread takes its blocks from this pool and gives them back to it.
class ScopedRecyclingPool {
  public:
    explicit ScopedRecyclingPool(RecyclingPool& pool) noexcept;
    ScopedRecyclingPool(const ScopedRecyclingPool&) = delete;
    ScopedRecyclingPool& operator=(const ScopedRecyclingPool&) = delete;
    ~ScopedRecyclingPool();

  private:
    RecyclingPool* before;
};

// The base of a handle: a pool for its blocks, so that they come back to the handle on whatever thread its
// next call is made. Calls on a handle follow each other, which is why the pool needs no lock. As the first
// base it outlives all other parts; the handle's destructor calls freeIntoPool(), and what these parts free
// goes to the system with the pool instead of to the thread that happens to delete.
class PoolOwner {
  protected:
    void freeIntoPool() noexcept { untilEnd.emplace(pool); }

    RecyclingPool pool;

  private:
    std::optional<ScopedRecyclingPool> untilEnd;
};

// The pool as a standard allocator, for the control blocks of shared pointers and for small tables.
template <class T>
struct RecyclingAllocator {
    using value_type = T;

    RecyclingAllocator() = default;
    template <class U>
    RecyclingAllocator(const RecyclingAllocator<U>&) noexcept {}

    T* allocate(std::size_t count) { return static_cast<T*>(allocateRecycled(count * sizeof(T))); }
    void deallocate(T* block, std::size_t count) noexcept { freeRecycled(block, count * sizeof(T)); }

    friend bool operator==(const RecyclingAllocator&, const RecyclingAllocator&) { return true; }
};

// Keeps the nodes of a list that shrinks for the same list when it grows again, so that a queue
// in steady motion allocates no nodes. A value that offers dropContent() is asked to let go of what
// it shares and may keep its own small tables; any other value is replaced by a new one.
// Threads: those of the lists it serves; no locks.
template <class T>
class ListNodeReserve {
  public:
    template <class Value>
    void append(std::list<T>& list, Value&& value) {
        if (nodes.empty()) {
            list.push_back(std::forward<Value>(value));
            return;
        }
        nodes.front() = std::forward<Value>(value);
        list.splice(list.end(), nodes, nodes.begin());
    }

    void removeFront(std::list<T>& list) {
        drop(list.front());
        nodes.splice(nodes.begin(), list, list.begin());
    }

    void clear(std::list<T>& list) {
        while (!list.empty()) removeFront(list);
    }

    // Has a node ready for each of so many values more than the list holds now.
    void reserve(const std::list<T>& list, std::size_t numOfValues) {
        for (std::size_t n = list.size() + nodes.size(); n < numOfValues; ++n) nodes.emplace_back();
    }

    // Nodes that are kept now. A list that also gets nodes from elsewhere would let the reserve grow
    // without end, so whoever empties one asks first.
    std::size_t numOfNodes() const { return nodes.size(); }

  private:
    static void drop(T& value) {
        if constexpr (requires { value.dropContent(); })
            value.dropContent();
        else
            value = T();
    }

    std::list<T> nodes;
};

}  // namespace zevrant
