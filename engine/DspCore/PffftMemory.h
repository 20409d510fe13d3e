#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// PFFFT writes through whatever malloc() gives it, null included. It is compiled with these two in the place
// of malloc() and free(), so that a setup is built in memory that is known to be there.

// From here on the running thread's requests are met out of this block, 16-byte aligned, as far as it goes:
// it has to stay until they are freed. Null ends that, and requests go to the system again.
void zevrantLendToPffft(void* block, size_t numOfBytes);

void* zevrantPffftMalloc(size_t numOfBytes);
void zevrantPffftFree(void* block);

#ifdef __cplusplus
}
#endif
