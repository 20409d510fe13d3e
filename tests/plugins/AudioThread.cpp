#include "plugins/AudioThread.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cstddef>
#include <new>

#if defined(__linux__) && defined(__GLIBC__) && !defined(ZEVRANT_SANITIZED)
#define WATCHES 1
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#else
#define WATCHES 0
#endif

namespace {

constinit thread_local bool isWatched = false;
constinit thread_local long numOfAllocations = 0, numOfLocks = 0;

struct Task {
    const std::function<void()>& audio;
    zevrant::Watch watch;
};

void* runTask(void* argument) {
    auto& task = *static_cast<Task*>(argument);
#if WATCHES
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT);
#endif
    isWatched = true;
    task.audio();
    isWatched = false;
    task.watch = {true, numOfAllocations, numOfLocks};
#if WATCHES
    syscall(SYS_exit, 0);  // of this thread; what pthread_exit does beyond that is not allowed any more
#endif
    return nullptr;
}

}  // namespace

zevrant::Watch zevrant::runOnAudioThread(const std::function<void()>& audio) {
    Task task{audio, {}};
    pthread_t thread;
    pthread_create(&thread, nullptr, runTask, &task);
    pthread_join(thread, nullptr);
    return task.watch;
}

#if WATCHES
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t size) {
    numOfAllocations += isWatched;
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    numOfAllocations += isWatched;
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    numOfAllocations += isWatched;
    return __libc_realloc(block, size);
}
void* memalign(std::size_t alignment, std::size_t size) {
    numOfAllocations += isWatched;
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return memalign(alignment, size);
}
int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    *block = memalign(alignment, size);
    return *block ? 0 : 12;
}
void free(void* block) {
    numOfAllocations += isWatched && block;  // what is freed may go back to the system
    __libc_free(block);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) {
    using Lock = int (*)(pthread_mutex_t*);
    static const auto lock = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    numOfLocks += isWatched;
    return lock(mutex);
}
}
#endif
