// Counts what a program asks the system allocator for, through new as well as through the C functions, and
// the mutexes that it locks. A test program that links zevrant_allocation_counter counts from its first
// instruction on.
#pragma once

#include <cstdint>

namespace zevrant {

// Requests of the calling thread so far.
std::int64_t countAllocations();

// Lets the request of the calling thread that comes after so many others fail, as if memory had run out, and
// those behind it succeed again. None before that call, or with a number below 0.
void failAllocationAfter(std::int64_t numOfRequests);

// Mutexes that the calling thread has locked so far, or tried to.
std::int64_t countLocks();

// False where a sanitizer's build keeps the engine's pools from recycling, so that counts mean nothing.
constexpr bool allocationsAreRecycled() {
#if defined(__SANITIZE_ADDRESS__)
    return false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    return false;
#else
    return true;
#endif
#else
    return true;
#endif
}

}  // namespace zevrant
