#include "AllocationCounter.h"

#include <pthread.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constinit thread_local std::int64_t numOfRequests = 0;
constinit thread_local std::int64_t numOfLocks = 0;
constinit thread_local std::int64_t requestToFail = -1;

bool isToFail() {
    return numOfRequests++ == requestToFail;
}

}  // namespace

std::int64_t zevrant::countAllocations() {
    return numOfRequests;
}

void zevrant::failAllocationAfter(std::int64_t number) {
    requestToFail = number < 0 ? -1 : numOfRequests + number;
}

std::int64_t zevrant::countLocks() {
    return numOfLocks;
}

// The linker sends every call of these functions from the program's own objects here (--wrap).
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void* __real_aligned_alloc(std::size_t alignment, std::size_t size);
int __real_posix_memalign(void** block, std::size_t alignment, std::size_t size);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_trylock(pthread_mutex_t* mutex);

void* __wrap_malloc(std::size_t size) {
    return isToFail() ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    return isToFail() ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* block, std::size_t size) {
    return isToFail() ? nullptr : __real_realloc(block, size);
}

void* __wrap_aligned_alloc(std::size_t alignment, std::size_t size) {
    return isToFail() ? nullptr : __real_aligned_alloc(alignment, size);
}

int __wrap_posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    return isToFail() ? ENOMEM : __real_posix_memalign(block, alignment, size);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    ++numOfLocks;
    return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    ++numOfLocks;
    return __real_pthread_mutex_trylock(mutex);
}
}

// The remaining forms of new and delete call these.
void* operator new(std::size_t size) {
    if (void* block = std::malloc(size > 0 ? size : 1)) return block;
    throw std::bad_alloc();
}

void* operator new(std::size_t size, std::align_val_t alignment) {
    const auto unit = static_cast<std::size_t>(alignment);
    if (void* block = std::aligned_alloc(unit, (size + unit - 1) / unit * unit)) return block;
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    std::free(block);
}
