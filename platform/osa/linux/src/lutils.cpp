// The kernel's small services, reduced to what a process needs: message logging, pipes, calls with
// nothing left to do, and the functions that stand in for libc's in the whole process.
//
// Locks, outermost first:
//   log_init_lock   creation of logFdSem
//   logFdSem        the descriptor table and the replacement of the callback
// A message is handed to the callback with neither of them held.
#define __NO_INLINE__ 1 // the headers' inline getline is in the way of our own

#include "osaMsg.h"

#include "internal.h"
#include "osaSem.h"

#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static constexpr int MAX_LOG_FDS = 5;
static constexpr mode_t FIFO_MODE = 0777; // less the process's mask

static constexpr lock_role_t logHeld;
static constexpr lock_role_t logInitHeld;
static pthread_mutex_t log_init_lock = PTHREAD_MUTEX_INITIALIZER;

static SEM_ID logFdSem = nullptr; // atomic, released when made; never replaced
static int logFd[MAX_LOG_FDS] GUARDED_BY(logHeld) = {};
static int numLogFds GUARDED_BY(logHeld) = 0;

int mutexOptionsLogLib = 4;
exLogCallBackFunc exLogCallBack = nullptr; // atomic: released with all that the callback needs

// ---- Message logging ----

static STATUS add_locked(int fd) REQUIRES(logHeld)
{
    if (numLogFds >= MAX_LOG_FDS) {
        return ERROR;
    }
    logFd[numLogFds++] = fd;
    return OK;
}

static STATUS delete_locked(int fd) REQUIRES(logHeld)
{
    int i = 0;

    while (i < numLogFds && logFd[i] != fd) {
        i++;
    }
    if (i == numLogFds) {
        return ERROR;
    }
    numLogFds--;
    for (; i < numLogFds; i++) {
        logFd[i] = logFd[i + 1];
    }
    return OK;
}

STATUS logInit(int fd, int)
{
    thread_record_t* me = op_enter();
    // Once: a second one would take the table from under those who hold the first.
    LOCK_SECTION(&log_init_lock, logInitHeld);
    if (load_relaxed(&logFdSem) == nullptr) {
        store_release(&logFdSem, semMCreate(load_relaxed(&mutexOptionsLogLib)));
    }
    END_SECTION(logInitHeld);
    logFdSet(fd);
    store_release(&exLogCallBack, static_cast<exLogCallBackFunc>(nullptr));
    op_leave(me);
    return OK;
}

void logFdSet(int fd)
{
    static int oldLogFd = -1; // what the last call put in; atomic, a number only

    thread_record_t* me = op_enter();
    const int old = load_relaxed(&oldLogFd);
    if (old != -1) {
        logFdDelete(old); // somebody may have taken it out already
    }
    store_relaxed(&oldLogFd, logFdAdd(fd) == OK ? fd : -1);
    op_leave(me);
}

STATUS logFdAdd(int fd)
{
    STATUS status = ERROR;

    thread_record_t* me = op_enter();
    const SEM_ID sem = load_acquire(&logFdSem);
    if (semTake(sem, WAIT_FOREVER) == OK) {
        role_taken(logHeld);
        status = add_locked(fd);
        role_given(logHeld);
        semGive(sem);
    }
    op_leave(me);
    return status;
}

STATUS logFdDelete(int fd)
{
    STATUS status = ERROR;

    thread_record_t* me = op_enter();
    const SEM_ID sem = load_acquire(&logFdSem);
    if (semTake(sem, WAIT_FOREVER) == OK) {
        role_taken(logHeld);
        status = delete_locked(fd);
        role_given(logHeld);
        semGive(sem);
    }
    op_leave(me);
    return status;
}

void setExLogCallBack(exLogCallBackFunc callBack)
{
    thread_record_t* me = op_enter();
    const SEM_ID sem = load_acquire(&logFdSem);
    // The store needs no lock, so it happens without a logInit as well.
    const bool locked = sem != nullptr && semTake(sem, WAIT_FOREVER) == OK;
    store_release(&exLogCallBack, callBack);
    if (locked) {
        semGive(sem);
    }
    op_leave(me);
}

// A message without a callback waits for the table's users to be done, and is dropped.
static void pass_lock(void)
{
    thread_record_t* me = op_enter();
    const SEM_ID sem = load_acquire(&logFdSem);
    if (sem != nullptr && semTake(sem, WAIT_FOREVER) == OK) {
        semGive(sem);
    }
    op_leave(me);
}

int logMsg(char* fmt, int arg1, int arg2, int arg3, int arg4, int arg5, int arg6)
{
    const exLogCallBackFunc callBack = load_acquire(&exLogCallBack);

    if (callBack != nullptr) {
        callBack(fmt, arg1, arg2, arg3, arg4, arg5, arg6);
    } else {
        pass_lock();
    }
    return 1;
}

// ---- Pipes ----

STATUS pipeDevCreate(char* name, int, int)
{
    if (name == nullptr) {
        errno = EFAULT;
        return ERROR;
    }
    return mkfifo(name, FIFO_MODE) == 0 || errno == EEXIST ? OK : ERROR;
}

STATUS pipeDevDelete(char* name, BOOL)
{
    if (name != nullptr) {
        unlink(name); // gone is gone, and nobody is told what else kept it
    }
    return OK;
}

// ---- Calls with nothing left to do ----

int intContext(void)
{
    return 0;
}

int splnet(void)
{
    return 0;
}

void splx(int) {}

void mybreak(void) {}

void vxShell(void)
{
    for (;;) {
        sleep(1);
    }
}

// ---- Under libc's names ----

ssize_t getline(char** lineptr, size_t* n, FILE* stream)
{
    // Room for the terminator alone would return nothing read, for ever.
    if (lineptr == nullptr || *lineptr == nullptr || n == nullptr || *n < 2 || stream == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const int room = *n < INT_MAX ? static_cast<int>(*n) : INT_MAX;

    thread_record_t* me = op_enter();
    const char* line = fgets(*lineptr, room, stream);
    op_leave(me);
    return line != nullptr ? static_cast<ssize_t>(strlen(line)) : -1;
}

int sethostname(const char*, size_t)
{
    return 0;
}

pid_t gettid(void)
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}
