#include "DspCore/RecyclingPool.h"

#include <bit>
#include <cstdint>

#include "DspCore/ThreadLocal.h"

namespace zevrant {

namespace {

constexpr std::align_val_t blockAlignment{64};
constexpr std::size_t smallestBlock = 64;
constexpr std::size_t largestKeptBlock = std::size_t{16} << 20;
constexpr std::size_t mostKeptBytes = std::size_t{64} << 20;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool keepsBlocks = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool keepsBlocks = false;
#else
constexpr bool keepsBlocks = true;
#endif
#else
constexpr bool keepsBlocks = true;
#endif

struct SizeClass {
    std::size_t index;
    std::size_t numOfBytes;
};

// Four steps per power of two: with 2^e the largest power of two not above the size less one,
// the class ends at 2^e plus one to four quarters of it.
SizeClass findSizeClass(std::size_t numOfBytes) {
    if (numOfBytes <= smallestBlock) return {0, smallestBlock};
    const std::size_t last = numOfBytes - 1;
    const auto exponent = static_cast<std::size_t>(std::bit_width(last)) - 1;
    const std::size_t quarter = std::size_t{1} << (exponent - 2);
    const std::size_t step = (last >> (exponent - 2)) & 3;
    return {1 + (exponent - 6) * 4 + step, (std::size_t{1} << exponent) + (step + 1) * quarter};
}

constinit thread_local RecyclingPool* scopedPool ZEVRANT_PLACED_AT_THREAD_START = nullptr;

// True once the thread's free lists are gone: whatever is freed later goes straight to the system.
constinit thread_local bool threadHasEnded ZEVRANT_PLACED_AT_THREAD_START = false;

struct PoolOfThread {
    ~PoolOfThread() {
        threadHasEnded = true;
        delete pool;
    }
    RecyclingPool* pool = nullptr;  // made when the first block is freed
};

constinit thread_local PoolOfThread poolOfThread ZEVRANT_PLACED_AT_THREAD_START;

// Null where blocks go straight to the system.
RecyclingPool* findPool() {
    if (scopedPool) return scopedPool;
    return threadHasEnded ? nullptr : poolOfThread.pool;
}

RecyclingPool* findOrMakePool() {
    RecyclingPool* pool = findPool();
    if (!pool && !threadHasEnded) pool = poolOfThread.pool = new (std::nothrow) RecyclingPool;
    return pool;
}

}  // namespace

const bool RecyclingPool::keepsBlocks = zevrant::keepsBlocks;

RecyclingPool::~RecyclingPool() {
    for (FreeBlock* head : heads)
        while (head) {
            FreeBlock* next = head->next;
            ::operator delete(head, blockAlignment);
            head = next;
        }
}

ScopedRecyclingPool::ScopedRecyclingPool(RecyclingPool& pool) noexcept : before(scopedPool) {
    scopedPool = &pool;
}

ScopedRecyclingPool::~ScopedRecyclingPool() {
    scopedPool = before;
}

void* allocateRecycled(std::size_t numOfBytes) {
    const bool fits = keepsBlocks && numOfBytes <= largestKeptBlock;
    if (!fits) return ::operator new(numOfBytes, blockAlignment);
    const SizeClass sizeClass = findSizeClass(numOfBytes);
    if (RecyclingPool* pool = findPool()) {
        RecyclingPool::FreeBlock*& head = pool->heads[sizeClass.index];
        if (head) {
            RecyclingPool::FreeBlock* block = head;
            head = block->next;
            pool->keptBytes -= sizeClass.numOfBytes;
            return block;
        }
        ++pool->numOfRequests;
    }
    return ::operator new(sizeClass.numOfBytes, blockAlignment);
}

void freeRecycled(void* block, std::size_t numOfBytes) noexcept {
    if (!block) return;
    RecyclingPool* pool = keepsBlocks && numOfBytes <= largestKeptBlock ? findOrMakePool() : nullptr;
    if (pool) {
        const SizeClass sizeClass = findSizeClass(numOfBytes);
        if (pool->keptBytes + sizeClass.numOfBytes <= mostKeptBytes) {
            RecyclingPool::FreeBlock*& head = pool->heads[sizeClass.index];
            head = new (block) RecyclingPool::FreeBlock{head};
            pool->keptBytes += sizeClass.numOfBytes;
            return;
        }
    }
    ::operator delete(block, blockAlignment);
}

}  // namespace zevrant
