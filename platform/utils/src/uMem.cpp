// Zero-filled allocation from the process heap.
#include "uBm.h"
#include "internal.h"

#include <stdlib.h>
#include <string.h>

void* uMalloc(uint32_t num_bytes)
{
    thread_record_t* me = op_enter();
    void* block = malloc(num_bytes);
    if (block != nullptr) {
        // As another number of bytes: of malloc and memset of the same number the compiler makes a
        // calloc, which is several times slower here.
        size_t filled = num_bytes;
        __asm__("" : "+r"(filled));
        memset(block, 0, filled);
    }
    op_leave(me);
    return block;
}

void uFree(void* ptr)
{
    if (ptr == nullptr) {
        return;
    }
    thread_record_t* me = op_enter();
    free(ptr);
    op_leave(me);
}
