// Zero-filled allocation from the process heap.
#include "uBm.h"
#include "internal.h"

#include <stdlib.h>
#include <string.h>

void* uMalloc(uint32_t num_bytes)
{
    thread_record_t* me = op_enter();
    void* block = malloc(num_bytes);
    // The compiler would make a calloc of malloc and memset, which is slower here by a factor.
    __asm__("" : "+r"(block));
    if (block != nullptr) {
        memset(block, 0, num_bytes);
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
