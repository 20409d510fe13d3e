#include "DspCore/RecyclingPool.h"

#include <array>
#include <bit>
#include <cstdint>

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

constexpr std::size_t numOfClasses = 1 + (24 - 6) * 4;

struct FreeBlock {
    FreeBlock* next;
};

// True once the thread's free lists are gone: whatever is freed later goes straight to the system.
constinit thread_local bool threadHasEnded = false;

struct FreeLists {
    std::array<FreeBlock*, numOfClasses> heads{};
    std::size_t keptBytes = 0;

    ~FreeLists() {
        threadHasEnded = true;
        for (FreeBlock* head : heads)
            while (head) {
                FreeBlock* next = head->next;
                ::operator delete(head, blockAlignment);
                head = next;
            }
    }
};

constinit thread_local FreeLists freeLists;

}  // namespace

void* allocateRecycled(std::size_t numOfBytes) {
    const bool fits = keepsBlocks && numOfBytes <= largestKeptBlock;
    if (!fits) return ::operator new(numOfBytes, blockAlignment);
    const SizeClass sizeClass = findSizeClass(numOfBytes);
    if (!threadHasEnded) {
        FreeBlock*& head = freeLists.heads[sizeClass.index];
        if (head) {
            FreeBlock* block = head;
            head = block->next;
            freeLists.keptBytes -= sizeClass.numOfBytes;
            return block;
        }
    }
    return ::operator new(sizeClass.numOfBytes, blockAlignment);
}

void freeRecycled(void* block, std::size_t numOfBytes) noexcept {
    if (!block) return;
    if (keepsBlocks && numOfBytes <= largestKeptBlock && !threadHasEnded) {
        const SizeClass sizeClass = findSizeClass(numOfBytes);
        if (freeLists.keptBytes + sizeClass.numOfBytes <= mostKeptBytes) {
            freeLists.heads[sizeClass.index] = new (block) FreeBlock{freeLists.heads[sizeClass.index]};
            freeLists.keptBytes += sizeClass.numOfBytes;
            return;
        }
    }
    ::operator delete(block, blockAlignment);
}

}  // namespace zevrant
