// Basic types shared by every module and by the closed libraries.
//
// The layout of everything declared in the public headers is that of the 64-bit target; the
// closed libraries were built against it.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int status_t;   // OK or ERROR
typedef int32_t bool_t; // 0 false, anything else true; operations return 1 for true
typedef char* addr_t;   // untyped address: list elements, object handles

static constexpr status_t OK = 0;
static constexpr status_t ERROR = -1;

/**
 * A function called with arguments that the caller and the callee agree on: task entries take ten
 * int, asynchronous calls, jobs and watchdog routines one pointer. Whoever calls through it casts
 * it to the real signature first.
 */
typedef int (*FUNCPTR)(...);

static_assert(sizeof(void*) == 8, "handles and records are those of a 64-bit process");

#ifdef __cplusplus
}
#endif
