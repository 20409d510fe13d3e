#include "DspCore/PffftMemory.h"

#include <stdlib.h>

// Stands before each block that is handed out and keeps it aligned.
union Head {
    int isOwned;
    char size[16];
};

static _Thread_local char* lent;
static _Thread_local size_t numOfBytesLent;

void zevrantLendToPffft(void* block, size_t numOfBytes) {
    lent = block;
    numOfBytesLent = numOfBytes;
}

void* zevrantPffftMalloc(size_t numOfBytes) {
    const size_t size = (numOfBytes + sizeof(union Head) + 15) / 16 * 16;
    union Head* head;
    if (lent && size <= numOfBytesLent) {
        head = (union Head*)lent;
        lent += size;
        numOfBytesLent -= size;
        head->isOwned = 0;
    } else {
        head = malloc(size);
        if (!head) return NULL;
        head->isOwned = 1;
    }
    return head + 1;
}

void zevrantPffftFree(void* block) {
    union Head* head = (union Head*)block - 1;
    if (block && head->isOwned) free(head);
}
