// Types, status codes and constants of the kernel interface.
#pragma once

#include "coreBaseTypes.h"

#include <pthread.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int STATUS;          // OK or ERROR
typedef int BOOL;            // 0 false, anything else true
typedef unsigned long ULONG; // tick counts and uptimes, 64 bits
typedef pthread_t taskId_t;  // a task is named by its thread; 0 is the caller in look-ups
typedef addr_t SEM_ID;       // address of the semaphore's record, not verified
typedef addr_t MSG_Q_ID;     // address of the queue's record, verified by every operation
typedef addr_t WDOG_ID;      // address of the watchdog's record, not verified
typedef int32_t SEM_B_STATE; // SEM_EMPTY or SEM_FULL

#ifndef FALSE
static constexpr BOOL FALSE = 0;
static constexpr BOOL TRUE = 1;
#endif

/** Time-outs of the layer, in ticks of msPerTick milliseconds. */
static constexpr int WAIT_FOREVER = -1;
static constexpr int NO_WAIT = 0;

/** Initial states of a binary semaphore. */
static constexpr SEM_B_STATE SEM_EMPTY = 0;
static constexpr SEM_B_STATE SEM_FULL = 1;

/** Priorities of a message; every value but MSG_PRI_URGENT is normal. */
static constexpr int MSG_PRI_NORMAL = 0;
static constexpr int MSG_PRI_URGENT = 1;

/**
 * Status codes, found in errno after a failure. A code is the module's number times 65,536 plus
 * the error's number in the module.
 */

// No memory, or a thread could not be created.
static constexpr int S_memLib_NOT_ENOUGH_MEMORY = 0x110001;
// Message longer than the queue's maximum, or receive buffer shorter than it.
static constexpr int S_msgQLib_INVALID_MSG_LENGTH = 0x410001;
// Null or unknown object id.
static constexpr int S_objLib_OBJ_ID_ERROR = 0x3d0001;
// Nothing available, and the time-out is 0.
static constexpr int S_objLib_OBJ_UNAVAILABLE = 0x3d0002;
// The object was deleted while the caller waited.
static constexpr int S_objLib_OBJ_DELETED = 0x3d0003;
// The deadline passed.
static constexpr int S_objLib_OBJ_TIMEOUT = 0x3d0004;
// Not allowed for this kind of semaphore.
static constexpr int S_semLib_INVALID_OPERATION = 0x160068;
// Task spawn without an entry or without memory for its control block.
static constexpr int S_smObjLib_NOT_INITIALIZED = 0x580001;
// Known by name only.
static constexpr int S_taskLib_ILLEGAL_PRIORITY = 0x30065;

#ifdef __cplusplus
}
#endif
