// Message queues, and with them what a program says about itself: logging, pipes, trace and debug
// aids.
//
// A queue holds a fixed number of messages of at most a fixed length, copied into a ring that is
// allocated with the queue: sending and receiving allocate nothing. A normal message goes behind
// the others, an urgent one before them, so that the latest urgent message is received first. One
// slot is spare: a full queue takes one urgent message more. A message or a free slot wakes one of
// the tasks that wait for it; there is no order among them, and one that comes along may be faster.
//
// An id is looked up by every operation; one that was never created, or whose queue is gone, is
// refused and not read through. The address of a deleted queue is used again by a later one. What
// an operation costs does not depend on how many queues there are.
//
// Time-outs are ticks of msPerTick milliseconds: WAIT_FOREVER, NO_WAIT, or a positive number of any
// size. A wait ends at an instant of the wall clock, so stepping the clock moves it: a step back
// makes a wait longer, a step forward ends it. Negative numbers other than WAIT_FOREVER have passed
// already. A message, a free slot or a deletion that comes together with the deadline wins. No
// clock is read by an operation that need not wait, or must not.
//
// Any thread may call any operation, but never one that holds the task lock. A task that is deleted
// while it waits leaves the queue as if it had never come: it takes no message and puts none, and a
// deletion of the queue does not wait for it. Nor does it take or put anything later: what is sent
// after taskDelete returned is there for others. Inside an operation of the layer that waits on a
// queue, being told to end shows as S_objLib_OBJ_UNAVAILABLE.
#pragma once

#include "v2lpthread.h"

#include <stdio.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- Message queues ----

/**
 * An empty queue.
 *
 * @param max_msgs  messages it holds, 1 or more
 * @param msglen    bytes of the longest message, 0 or more
 * @param opt       not used
 * @return the queue, for msgQDelete to release; or null with errno
 *           S_msgQLib_INVALID_MSG_LENGTH  max_msgs or msglen out of range
 *           S_memLib_NOT_ENOUGH_MEMORY    no memory, or a ring of 2 GiB and more
 */
MSG_Q_ID msgQCreate(int max_msgs, int msglen, int opt);

/**
 * Puts a message into a queue, waiting for a slot if there is none.
 *
 * The message is copied; msg is the caller's again when the call returns.
 *
 * @param msg     the message; null sends msglen bytes of whatever the slot held before
 * @param msglen  bytes, at most the queue's maximum
 * @param wait    ticks, see above
 * @param pri     MSG_PRI_URGENT goes to the head, and into the spare slot of a full queue; every
 *                other value is MSG_PRI_NORMAL
 * @return OK, or ERROR with errno
 *           S_objLib_OBJ_ID_ERROR         no such queue; prints "msgQSend not found"
 *           S_msgQLib_INVALID_MSG_LENGTH  message too long; prints "msglen > queue->msg_len\n"
 *           S_objLib_OBJ_UNAVAILABLE      full, and wait was NO_WAIT
 *           S_objLib_OBJ_TIMEOUT          full until the deadline
 *           S_objLib_OBJ_DELETED          the queue went away during the wait
 *         A queue that is being deleted still takes a message that finds room, and loses it.
 */
status_t msgQSend(MSG_Q_ID queuePtr, char* msg, uint msglen, int wait, int pri);

/**
 * Takes the message at the head of a queue, waiting for one if there is none.
 *
 * The message is copied to msgbuf and its slot is free when the call returns.
 *
 * @param msgbuf    where the message goes; null throws it away
 * @param buflen    bytes at msgbuf, at least the queue's maximum, however short the message
 * @param max_wait  ticks, see above
 * @return bytes copied (0 for a message thrown away), or ERROR with errno
 *           S_objLib_OBJ_ID_ERROR         no such queue
 *           S_msgQLib_INVALID_MSG_LENGTH  buflen too short, the message stays; prints
 *                                         "buflen < queue->msg_len   dd \n"
 *           S_objLib_OBJ_UNAVAILABLE      empty, and max_wait was NO_WAIT
 *           S_objLib_OBJ_TIMEOUT          empty until the deadline
 *           S_objLib_OBJ_DELETED          the queue went away during the wait
 *         A null id, or a queue already being deleted: ERROR, errno untouched.
 */
int32_t msgQReceive(MSG_Q_ID queuePtr, char* msgbuf, uint buflen, int max_wait);

/** Messages held, urgent and normal; -1 when there is no such queue, errno untouched. */
int msgQNumMsgs(MSG_Q_ID queuePtr);

/**
 * Deletes a queue and the messages in it. Waiting senders and receivers fail with
 * S_objLib_OBJ_DELETED; the call returns when all of them have left, and one tick later. It holds
 * the task lock meanwhile.
 *
 * @return OK, or ERROR with errno S_objLib_OBJ_ID_ERROR for a null or unknown id, and for a queue
 *         that another task is deleting at this moment
 *
 * A task that is deleted inside this call completes the deletion, and waits for the tick alone.
 */
status_t msgQDelete(MSG_Q_ID queuePtr);

/**
 * Deletes the queue whose id a variable holds, and sets the variable to null first; of several
 * callers with the same variable one deletes.
 *
 * @return like msgQDelete; ERROR, errno untouched, for a null queuePtr
 */
status_t msgQSafeDelete(MSG_Q_ID* queuePtr);

/** Writes nothing. @return 0 */
int msgQShow(v2pt_mqueue_t* q, FILE* out, int mem);

/** Writes nothing. @return 0 */
int msgQList(FILE* out, int mem);

// ---- Message logging ----
//
// Messages go to one callback that is installed from outside, unformatted; without it they are
// dropped. Up to five descriptors are kept in a table beside it, in the order they were added, for
// whoever wants them: nothing here writes to them, checks them or closes them. The calls of this
// section wait for each other's short sections only.

/** Takes a message like logMsg does; formatting and output are its business. Result ignored. */
typedef int (*exLogCallBackFunc)(char* fmt, int arg1, int arg2, int arg3, int arg4, int arg5,
                                 int arg6);

extern int mutexOptionsLogLib;          // for the creation of the table's semaphore: 4
extern exLogCallBackFunc exLogCallBack; // null: none; read and written atomically

/**
 * Makes the table usable, puts fd into it like logFdSet and removes the callback. May be called
 * again.
 *
 * @param maxMsgs  not used
 * @return OK; without memory for the semaphore the table stays unusable
 */
STATUS logInit(int fd, int maxMsgs);

/**
 * Makes fd the default descriptor: it replaces the one of the last logFdSet, any others stay. If
 * five others are there, there is no default afterwards.
 */
void logFdSet(int fd);

/**
 * Adds a descriptor, which may be in the table already.
 *
 * @return OK, or ERROR with the table as it was: it is full (errno untouched), or logInit has not
 *         made it usable (errno S_objLib_OBJ_ID_ERROR)
 */
STATUS logFdAdd(int fd);

/** Removes the first entry of a descriptor. @return OK, or ERROR as above when there is none */
STATUS logFdDelete(int fd);

/** Installs the callback in place of any other; null removes it. A message under way may still go
 * to the old one. */
void setExLogCallBack(exLogCallBackFunc callBack);

/**
 * Hands a message to the callback, on the caller's thread and with no lock held.
 *
 * @return 1
 */
int logMsg(char* fmt, int arg1, int arg2, int arg3, int arg4, int arg5, int arg6);

// ---- Pipes ----

/**
 * Makes a FIFO, open to all but for the process's mask.
 *
 * @param nMessages  not used
 * @param nBytes     not used
 * @return OK, also when something of that name exists; else ERROR with errno from mkfifo
 */
STATUS pipeDevCreate(char* name, int nMessages, int nBytes);

/** Removes a FIFO. @param force not used @return OK, whatever came of it */
STATUS pipeDevDelete(char* name, BOOL force);

// ---- Kernel calls with nothing left to do ----

/** 0: never in interrupt context. */
int intContext(void);

/** Nothing. @return 0 */
int splnet(void);

/** Nothing. */
void splx(int x);
void mybreak(void);

/** Sleeps for ever. */
[[noreturn]] void vxShell(void);

// ---- Functions under libc's names ----
//
// Declared in <stdio.h> and <unistd.h>; the program's stand in for them in the whole process, for
// whoever calls them by these names. A header may have an inline getline, which calls another
// function of the C library (glibc's has one in optimised builds): such a call is not replaced.
//
// getline(lineptr, n, stream) reads at most *n - 1 bytes of a line into the buffer at *lineptr,
//   which the caller provides: it is never allocated, enlarged or freed. A longer line comes in
//   pieces. Result: the length, newline included, but only up to a zero byte in the line; -1 at the
//   end of the file, on an error, and with nothing written for a null lineptr, n, buffer or
//   stream and a buffer of less than 2 bytes (errno EINVAL). A signal while it waits for input is
//   an error, and loses what there was of the line; SIGUSR1 is, so a deletion of the calling task
//   takes effect there. Only when it comes in the instant before the wait does the task end after
//   the line.
// sethostname(host, len) changes nothing and returns 0.
// gettid() is the kernel's id of the calling thread.

// ---- Trace and debug aids ----

extern struct timeval start_tv; // wall clock of the first trace_time
extern struct timeval prev_tv;  // wall clock of the last line it printed

// For the closed libraries; nothing here uses them.
extern int tracev2l; // 1
extern char trace_fn[100];
extern int tid;

/**
 * Prints on standard error the time since the first call and since the last line; the first call
 * prints the local date and time as well. Prints nothing when the microseconds of the time since
 * the last line, its seconds left aside, are fewer than 10001. From one thread at a time.
 */
void trace_time(void);

/** Installs sighandler for SIGSEGV. */
void signal_init(void);

/** Calls gdb, and in the child it forks, sends SIGSEGV. @param x the signal, not used */
void sighandler(int x);

/**
 * Leaves a core of a fault, and then ends the process: the first call forks a child, in which
 * SIGSEGV has its default action again, and waits for it to end; both return. In the fault's
 * handler this means that the child dies of it, and that the parent meets it again and calls gdb
 * once more, which ends the process with status 1. After a SIGSEGV that somebody sent there is no
 * fault to meet: the child leaves its core, and the process goes on until the next one.
 *
 * May be called in any state of the process, inside malloc as well. When exit has not come to an
 * end after 3 seconds, the process ends all the same; SIGALRM serves for that.
 */
void gdb(void);

#ifdef __cplusplus
}
#endif
