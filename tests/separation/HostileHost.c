/* A host in plain C, compiled without exceptions, that does what no host should: odd arguments, files that
 * are none, memory that runs out. And one that counts: what audio calls ask of the system, from the first
 * block on.
 *
 *   hostile_host MODEL
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <math.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zevrant_separation.h"

#ifdef __linux__
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

static int numOfFailures = 0;

#define EXPECT(condition, ...)                                     \
    do {                                                           \
        if (!(condition)) {                                        \
            printf("%s:%d: %s: ", __FILE__, __LINE__, #condition); \
            printf(__VA_ARGS__);                                   \
            printf("\n");                                          \
            ++numOfFailures;                                       \
        }                                                          \
    } while (0)

/* ---- the system's memory and locks, counted ------------------------------------------------- */

static _Thread_local long numOfRequests, numOfLocks;
static long numOfLiveBlocks, requestsUntilFailure = -1; /* -1: none fails */

#if defined(__GLIBC__) && !defined(ZEVRANT_SANITIZED)
#define COUNTS 1
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

static bool fails(void) {
    ++numOfRequests;
    if (requestsUntilFailure > 0) --requestsUntilFailure;
    return requestsUntilFailure == 0;
}

static void* counted(void* block) {
    if (block) __atomic_add_fetch(&numOfLiveBlocks, 1, __ATOMIC_RELAXED);
    return block;
}

void* malloc(size_t size) {
    return fails() ? NULL : counted(__libc_malloc(size));
}
void* calloc(size_t count, size_t size) {
    return fails() ? NULL : counted(__libc_calloc(count, size));
}
void* realloc(void* block, size_t size) {
    if (fails()) return NULL;
    return block ? __libc_realloc(block, size) : counted(__libc_realloc(block, size));
}
void* memalign(size_t alignment, size_t size) {
    return fails() ? NULL : counted(__libc_memalign(alignment, size));
}
void* aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}
int posix_memalign(void** block, size_t alignment, size_t size) {
    *block = memalign(alignment, size);
    return *block ? 0 : 12;
}
void free(void* block) {
    if (block) __atomic_sub_fetch(&numOfLiveBlocks, 1, __ATOMIC_RELAXED);
    __libc_free(block);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) {
    static int (*lock)(pthread_mutex_t*);
    if (!lock) *(void**)&lock = dlsym(RTLD_NEXT, "pthread_mutex_lock");
    ++numOfLocks;
    return lock(mutex);
}
#else
#define COUNTS 0
#endif

/* ---- odd arguments and files ---------------------------------------------------------------- */

static ZevrantSeparationOptions makeOptions(const char* model) {
    ZevrantSeparationOptions options = {.size = sizeof options,
                                        .model = model,
                                        .sampleRate = 44100.0,
                                        .numOfChannels = 2,
                                        .longestBlock = 512,
                                        .output = ZEVRANT_SEPARATION_BUSSES};
    return options;
}

/* Opens, expects this status with a sentence that has this word, and closes. */
static void expectRefusal(const ZevrantSeparationOptions* options, int status, const char* word) {
    ZevrantSeparation* separation = NULL;
    char text[512];
    const int answer = zevrantSeparationOpen(options, &separation);
    EXPECT(answer == status, "%d instead of %d, %s", answer, status, word);
    EXPECT((int)zevrantSeparationGetLastError(separation, text, sizeof text) == status, "%s", word);
    EXPECT(strstr(text, word) != NULL, "\"%s\" does not name \"%s\"", text, word);
    float sample[16] = {0};
    EXPECT(zevrantSeparationAddInterleaved(separation, sample, 1) != ZEVRANT_SEPARATION_OK, "%s", word);
    EXPECT(zevrantSeparationGetNumOfPendingSamples(separation) == 0, "%s", word);
    zevrantSeparationClose(separation);
}

static void testOptions(const char* model) {
    const ZevrantSeparationOptions good = makeOptions(model);
    ZevrantSeparationOptions options = good;
    expectRefusal(NULL, ZEVRANT_SEPARATION_INVALID_ARGUMENT, "options");
    EXPECT(zevrantSeparationOpen(&good, NULL) == ZEVRANT_SEPARATION_INVALID_ARGUMENT,
           "no place for the handle");
    options.size = 8;
    expectRefusal(&options, ZEVRANT_SEPARATION_INVALID_ARGUMENT, "size");
    options = makeOptions(NULL);
    expectRefusal(&options, ZEVRANT_SEPARATION_INVALID_ARGUMENT, "model");
    options = makeOptions("/nowhere/model");
    expectRefusal(&options, ZEVRANT_SEPARATION_NO_SUCH_MODEL, "/nowhere/model");
    options = makeOptions("unheard-of");
    expectRefusal(&options, ZEVRANT_SEPARATION_NO_SUCH_MODEL, "unheard-of");
    options = makeOptions("/");
    expectRefusal(&options, ZEVRANT_SEPARATION_BAD_MODEL, "folder");
    options = makeOptions("/dev/zero");
    expectRefusal(&options, ZEVRANT_SEPARATION_BAD_MODEL, "no model");

    const double rates[] = {0.0, -1.0, (double)NAN, (double)INFINITY, -(double)INFINITY, 999.0, 1e300};
    for (size_t i = 0; i < sizeof rates / sizeof *rates; ++i) {
        options = good;
        options.sampleRate = rates[i];
        expectRefusal(&options, ZEVRANT_SEPARATION_INVALID_ARGUMENT, "sampleRate");
    }
    const int32_t odd[] = {0, -1, INT32_MIN, INT32_MAX};
    for (size_t i = 0; i < sizeof odd / sizeof *odd; ++i) {
        options = good;
        options.numOfChannels = odd[i];
        expectRefusal(&options, ZEVRANT_SEPARATION_INVALID_ARGUMENT, "numOfChannels");
        options = good;
        options.longestBlock = odd[i];
        expectRefusal(&options, ZEVRANT_SEPARATION_INVALID_ARGUMENT, "longestBlock");
        options = good;
        options.output = odd[i] == 0 ? 2 : odd[i];
        expectRefusal(&options, ZEVRANT_SEPARATION_INVALID_ARGUMENT, "output");
        options = good;
        options.flags = odd[i] == 0 ? 4 : odd[i];
        expectRefusal(&options, ZEVRANT_SEPARATION_INVALID_ARGUMENT, "flags");
    }
}

/* As much of everything as can be asked for: an answer comes soon, whatever it is. */
static void testLargest(const char* model) {
    ZevrantSeparationOptions options = makeOptions(model);
    options.numOfChannels = 256;
    options.longestBlock = 1 << 20;
    expectRefusal(&options, ZEVRANT_SEPARATION_INVALID_ARGUMENT, "longestBlock");
    options = makeOptions(model);
    options.sampleRate = 1e7;
    ZevrantSeparation* separation;
    zevrantSeparationOpen(&options, &separation);
    zevrantSeparationClose(separation);
}

static void testCalls(const char* model) {
    const ZevrantSeparationOptions options = makeOptions(model);
    ZevrantSeparation *separation, *other;
    EXPECT(zevrantSeparationOpen(&options, &separation) == ZEVRANT_SEPARATION_OK, "opens");
    float sample[16] = {0};
    const float* in[2] = {sample, NULL};
    float* out[16] = {NULL};
    const int32_t counts[] = {-1, INT32_MIN, 513, INT32_MAX};
    for (size_t i = 0; i < sizeof counts / sizeof *counts; ++i) {
        EXPECT(zevrantSeparationAdd(separation, in, counts[i]) == ZEVRANT_SEPARATION_INVALID_ARGUMENT, "%d",
               counts[i]);
        EXPECT(zevrantSeparationAddInterleaved(separation, sample, counts[i]) ==
                   ZEVRANT_SEPARATION_INVALID_ARGUMENT,
               "%d", counts[i]);
        EXPECT(zevrantSeparationTake(separation, out, counts[i]) != ZEVRANT_SEPARATION_OK, "%d", counts[i]);
        EXPECT(zevrantSeparationTakeInterleaved(separation, sample, counts[i]) != ZEVRANT_SEPARATION_OK, "%d",
               counts[i]);
    }
    EXPECT(zevrantSeparationAdd(separation, in, 1) == ZEVRANT_SEPARATION_INVALID_ARGUMENT, "a null channel");
    EXPECT(zevrantSeparationAdd(separation, NULL, 1) == ZEVRANT_SEPARATION_INVALID_ARGUMENT, "null");
    EXPECT(zevrantSeparationTake(separation, NULL, 1) == ZEVRANT_SEPARATION_INVALID_ARGUMENT, "null");
    EXPECT(zevrantSeparationAdd(separation, NULL, 0) == ZEVRANT_SEPARATION_OK, "nothing");
    EXPECT(zevrantSeparationTakeInterleaved(separation, NULL, 0) == ZEVRANT_SEPARATION_OK, "nothing");
    const int32_t busses[] = {-1, 2, INT32_MIN, INT32_MAX};
    for (size_t i = 0; i < sizeof busses / sizeof *busses; ++i) {
        EXPECT(zevrantSeparationSetLevel(separation, busses[i], 0.0f) == ZEVRANT_SEPARATION_INVALID_ARGUMENT,
               "%d", busses[i]);
        EXPECT(zevrantSeparationGetBusName(separation, busses[i], NULL, 0) == 0, "%d", busses[i]);
        EXPECT(zevrantSeparationGetSensitivity(separation, busses[i]) == 0.0f, "%d", busses[i]);
    }
    EXPECT(zevrantSeparationSetLevel(separation, 0, NAN) == ZEVRANT_SEPARATION_INVALID_ARGUMENT, "no number");
    EXPECT(zevrantSeparationSetLevel(separation, 0, INFINITY) == ZEVRANT_SEPARATION_INVALID_ARGUMENT,
           "infinite");
    EXPECT(zevrantSeparationSetLevel(separation, 0, -INFINITY) == ZEVRANT_SEPARATION_OK, "silence");
    EXPECT(zevrantSeparationSetSensitivity(separation, 0, NAN) == ZEVRANT_SEPARATION_INVALID_ARGUMENT,
           "no number");
    EXPECT(zevrantSeparationSetSensitivity(separation, 0, 101.0f) == ZEVRANT_SEPARATION_INVALID_ARGUMENT,
           "too much");
    EXPECT(zevrantSeparationGetInfo(separation, NULL) == ZEVRANT_SEPARATION_INVALID_ARGUMENT, "null");
    EXPECT(zevrantSeparationGetModelText(separation, 9, NULL, 0) == 0, "no such text");
    char name[4] = "....";
    EXPECT(zevrantSeparationGetBusName(separation, 0, name, sizeof name) > 3 && name[3] == '\0', "%.4s",
           name);
    EXPECT(zevrantSeparationSwap(separation, separation, true) == ZEVRANT_SEPARATION_INVALID_ARGUMENT,
           "itself");
    EXPECT(zevrantSeparationSwap(separation, NULL, true) == ZEVRANT_SEPARATION_INVALID_ARGUMENT, "null");
    ZevrantSeparationOptions longer = options;
    longer.longestBlock = 100;
    EXPECT(zevrantSeparationOpen(&longer, &other) == ZEVRANT_SEPARATION_OK, "opens");
    EXPECT(zevrantSeparationSwap(NULL, other, true) == ZEVRANT_SEPARATION_INVALID_ARGUMENT, "null");
    EXPECT(zevrantSeparationSwap(separation, other, true) == ZEVRANT_SEPARATION_INVALID_ARGUMENT,
           "another block");
    zevrantSeparationClose(other);
    zevrantSeparationClose(separation);

    EXPECT(zevrantSeparationReset(NULL) == ZEVRANT_SEPARATION_INVALID_ARGUMENT, "null");
    EXPECT(zevrantSeparationFlush(NULL) == ZEVRANT_SEPARATION_INVALID_ARGUMENT, "null");
    EXPECT(zevrantSeparationFinishSwap(NULL), "null");
    EXPECT(zevrantSeparationGetNumOfReplacedSamples(NULL) == 0, "null");
    EXPECT(zevrantSeparationGetLastError(NULL, NULL, 0) == ZEVRANT_SEPARATION_OUT_OF_MEMORY, "null");
    zevrantSeparationClose(NULL);
}

/* Every cut and bent byte of a model either opens and plays or is refused with a sentence. */
static void testDamagedModels(const unsigned char* bytes, size_t size) {
    unsigned char* bent = malloc(size);
    float block[2 * 512] = {0};
    for (size_t i = 0; i < 2 * size; i += 11) {
        const size_t at = i % size;
        memcpy(bent, bytes, size);
        if (i >= size) bent[at] ^= (unsigned char)(1u << i % 8);
        ZevrantSeparationOptions options = makeOptions("bent");
        options.modelBytes = bent;
        options.numOfModelBytes = i < size ? at : size;
        ZevrantSeparation* separation;
        char text[512] = "";
        if (zevrantSeparationOpen(&options, &separation) == ZEVRANT_SEPARATION_OK) {
            for (int round = 0; round < 3; ++round) zevrantSeparationAddInterleaved(separation, block, 512);
        } else {
            zevrantSeparationGetLastError(separation, text, sizeof text);
            EXPECT(strstr(text, "bent") || strstr(text, "memory"), "byte %zu: \"%s\"", at, text);
        }
        zevrantSeparationClose(separation);
    }
    free(bent);
}

/* ---- memory that runs out ------------------------------------------------------------------- */

static void testMemoryThatRunsOut(const char* model) {
    const ZevrantSeparationOptions options = makeOptions(model);
    ZevrantSeparation* separation;
    bool isOpen = false;
    long live = -1, numOfTries = 0;
    for (long allowed = 1; !isOpen && COUNTS; allowed += 1 + allowed / 60) {
        if (numOfTries++ == 3) live = numOfLiveBlocks; /* what is made once is made by now */
        requestsUntilFailure = allowed;
        const int status = zevrantSeparationOpen(&options, &separation);
        requestsUntilFailure = -1;
        isOpen = status == ZEVRANT_SEPARATION_OK;
        EXPECT(isOpen || status == ZEVRANT_SEPARATION_OUT_OF_MEMORY, "%d after %ld requests", status,
               allowed);
        if (!isOpen) {
            char text[64];
            EXPECT(zevrantSeparationGetLastError(separation, text, sizeof text) ==
                       ZEVRANT_SEPARATION_OUT_OF_MEMORY,
                   "%s", text);
        }
        zevrantSeparationClose(separation);
        EXPECT(live < 0 || numOfLiveBlocks == live, "%ld blocks left after %ld requests",
               numOfLiveBlocks - live, allowed);
    }
    printf("%ld times out of memory\n", numOfTries);
}

/* ---- what audio calls ask of the system ----------------------------------------------------- */

static ZevrantSeparation* playing;
static volatile long playedRequests = -1, playedLocks = -1, takenRequests = -1;

/* With a taker, one thread adds and another takes, in turn. */
static bool hasTaker;
static atomic_int lengthToTake; /* -1: nothing to take, -2: the end */

static void* takeInTurn(void* unused) {
    static float out[8 * 512];
    long numOfRefusals = 0;
#if COUNTS
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT);
#endif
    for (int length; (length = lengthToTake) != -2;) {
        if (length < 0) continue;
        if (zevrantSeparationTakeInterleaved(playing, out, length) != ZEVRANT_SEPARATION_OK) ++numOfRefusals;
        lengthToTake = -1;
    }
    takenRequests = numOfRequests + numOfLocks + numOfRefusals;
#if COUNTS
    syscall(SYS_exit, 0);
#endif
    return unused;
}

/* Plays blocks of all lengths, turns controls and flushes, while any system call but read and write ends the
 * thread. */
static void* play(void* unused) {
    static float in[2 * 512], out[8 * 512];
    unsigned random = 1;
#if COUNTS
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT);
#endif
    for (int block = 0; block < 400; ++block) {
        random = random * 1664525u + 1013904223u;
        const int32_t length = (int32_t)(random >> 16) % 513;
        for (int i = 0; i < 2 * length; ++i) in[i] = (float)((random >> i % 24) & 255) / 512.0f;
        if (zevrantSeparationAddInterleaved(playing, in, length) != ZEVRANT_SEPARATION_OK) break;
        if (hasTaker) {
            lengthToTake = length;
            while (lengthToTake != -1) continue;
        } else if (zevrantSeparationTakeInterleaved(playing, out, length) != ZEVRANT_SEPARATION_OK) {
            break;
        }
        zevrantSeparationSetLevel(playing, block % 2, (float)-(block % 20));
        zevrantSeparationSetSensitivity(playing, block % 2, (float)(block % 100));
    }
    zevrantSeparationFlush(playing);
    while (zevrantSeparationGetNumOfPendingSamples(playing) >= 512)
        zevrantSeparationTakeInterleaved(playing, out, 512);
    playedRequests = numOfRequests;
    playedLocks = numOfLocks;
#if COUNTS
    syscall(SYS_exit, 0); /* of this thread; what pthread_exit does beyond that is not allowed any more */
#endif
    return unused;
}

static void testRealTime(const char* model) {
    for (int variant = 0; variant < 9; ++variant) {
        ZevrantSeparationOptions options = makeOptions(model);
        options.sampleRate = variant & 1 ? 44100.0 : 48000.0;
        options.output = variant & 2 ? ZEVRANT_SEPARATION_BUSSES : ZEVRANT_SEPARATION_MIX;
        ZevrantSeparation* next = NULL;
        EXPECT(zevrantSeparationOpen(&options, &playing) == ZEVRANT_SEPARATION_OK, "opens");
        if (variant & 4) { /* with a swap on its way */
            EXPECT(zevrantSeparationOpen(&options, &next) == ZEVRANT_SEPARATION_OK, "opens");
            EXPECT(zevrantSeparationSwap(playing, next, false) == ZEVRANT_SEPARATION_OK, "swaps");
        }
        playedRequests = playedLocks = -1;
        hasTaker = variant == 8;
        lengthToTake = -1;
        pthread_t thread, taker;
        if (hasTaker) pthread_create(&taker, NULL, takeInTurn, NULL);
        pthread_create(&thread, NULL, play, NULL);
        pthread_join(thread, NULL);
        lengthToTake = -2;
        if (hasTaker) pthread_join(taker, NULL);
        EXPECT(!hasTaker || takenRequests == 0, "%ld requests and locks of the taker (-1: a system call)",
               takenRequests);
        EXPECT(playedRequests == 0, "variant %d: %ld requests for memory (-1: a system call)", variant,
               playedRequests);
        EXPECT(playedLocks == 0, "variant %d: %ld locks", variant, playedLocks);
        EXPECT(zevrantSeparationFinishSwap(playing), "variant %d: the swap is not complete", variant);
        zevrantSeparationClose(next);
        zevrantSeparationClose(playing);
    }
}

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    static unsigned char bytes[1 << 16];
    FILE* file = fopen(argv[1], "rb");
    const size_t size = file ? fread(bytes, 1, sizeof bytes, file) : 0;
    if (file) fclose(file);
    EXPECT(size > 0, "%s cannot be read", argv[1]);
    testOptions(argv[1]);
    testLargest(argv[1]);
    testCalls(argv[1]);
    testRealTime(argv[1]);
    testMemoryThatRunsOut(argv[1]);
    testDamagedModels(bytes, size);
    return numOfFailures > 0;
}
