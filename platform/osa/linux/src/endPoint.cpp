// Where a task that is told to end may end: what the C library has under way in it, read off its
// stack, and the timer that asks again.
//
// The C library takes and lets go its own locks between a call of the program and the return from
// it. So what counts is which of its functions the program called, on every frame of the stack and
// not only on the innermost: qsort calls back, a look-up calls modules, stdio calls read. A task is
// inside when one of these is not known to do without locks. Known are those that wait: a task may
// spend any time in them, and has to end there. The others are over soon, and the timer strikes
// again until it finds the task outside.
//
// The way up the stack is the one that pthread_exit takes to run the cleanup handlers, through the
// same tables. Where these are missing a task cannot be ended, whatever it is doing: that is so for
// a moment in a library that is being loaded (its resolvers of symbols run with the loader's locks
// held), and for good in code that was compiled without.
//
// All here runs in a signal handler as well: no locks, no allocation, errno kept. The tables below
// are filled before main and constant from there on; the libraries that they are about are loaded
// for good.
#include "endPoint.h"

#include "osaTask.h"

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#if defined(__GLIBC__)
#include <execinfo.h>
#include <gnu/lib-names.h>
#else
#define LIBC_SO "libc.so"
#endif
#if !defined(sigev_notify_thread_id)
#define sigev_notify_thread_id _sigev_un._tid
#endif

// The one switch. Off, a task ends wherever it is, a lock of the C library in its hands or not; as
// it does where libraries have no tables that lead up the stack from any instruction.
#if (defined(__GLIBC__) || defined(__BIONIC__)) && (defined(__x86_64__) || defined(__aarch64__))
static constexpr bool KNOWS_C_LIBRARY = true;
#else
static constexpr bool KNOWS_C_LIBRARY = false;
#endif

static constexpr long AGAIN_NS = 200'000; // between signals, at first
static constexpr int AGAIN_OFTEN = 100;   // so many put the end off; from there on every tick
static constexpr long NS_PER_MS = 1'000'000;

// ---- What is the C library's ----

typedef struct {
    uintptr_t begin;
    uintptr_t end;
} code_range_t;

// The loader resolves symbols and loads libraries under locks, too; older versions have their
// threads, names and resolver apart.
static constexpr const char* LIBRARY_NAMES[] = {
    "libc.so", "libc-", "ld-", "ld.so", "linker", "libpthread", "libdl", "libresolv", "libnss_"};

// Without a lock of the library's over any of their instructions, whatever they call in it; a lock
// that is handed in is the caller's own. Where one ends in a jump to another function of the
// library it is not recognised there (glibc: sem_wait, sem_timedwait, pthread_join,
// pthread_mutex_timedlock).
static constexpr char LOCKLESS_NAMES[] =
    "accept accept4 clock_gettime clock_nanosleep connect epoll_pwait epoll_wait fcntl flock "
    "ioctl kill msgrcv msgsnd nanosleep open openat pause poll ppoll pread pselect "
    "pthread_barrier_wait pthread_cond_clockwait pthread_cond_timedwait pthread_cond_wait "
    "pthread_join pthread_kill pthread_mutex_lock pthread_mutex_timedlock pthread_rwlock_rdlock "
    "pthread_rwlock_wrlock pthread_sigmask pwrite raise read readv recv recvfrom recvmmsg "
    "recvmsg sched_yield select sem_clockwait sem_timedwait sem_wait semop send sendmsg sendto "
    "sigprocmask sigsuspend sigtimedwait sigwait sigwaitinfo sleep syscall usleep wait wait4 "
    "waitid waitpid write writev";

static constexpr int MAX_CODES = 16;
static code_range_t codes[MAX_CODES];
static int code_count = 0;

static constexpr int MAX_LOCKLESS = 80;
static uintptr_t lockless[MAX_LOCKLESS]; // where they begin; 0: there is no such function

static bool in_c_library(uintptr_t pc)
{
    for (int i = 0; i < code_count; i++) {
        if (pc >= codes[i].begin && pc < codes[i].end) {
            return true;
        }
    }
    return false;
}

static bool is_lockless(uintptr_t function)
{
    for (const uintptr_t known : lockless) {
        if (function == known) {
            return true;
        }
    }
    return false;
}

static bool is_c_library(const char* path)
{
    const char* slash = strrchr(path, '/');
    const char* file = slash != nullptr ? slash + 1 : path;

    for (const char* name : LIBRARY_NAMES) {
        if (strncmp(file, name, strlen(name)) == 0) {
            return true;
        }
    }
    return false;
}

static int note_library(struct dl_phdr_info* library, size_t, void*)
{
    if (!is_c_library(library->dlpi_name)) {
        return 0;
    }
    for (int i = 0; i < library->dlpi_phnum && code_count < MAX_CODES; i++) {
        const auto& part = library->dlpi_phdr[i];
        if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0) {
            const uintptr_t begin = library->dlpi_addr + part.p_vaddr;
            codes[code_count] = {begin, begin + part.p_memsz};
            code_count++;
        }
    }
    return 0;
}

static void note_lockless(void)
{
    void* libc = dlopen(LIBC_SO, RTLD_LAZY | RTLD_NOLOAD);
    const char* rest = LOCKLESS_NAMES;

    for (int i = 0; libc != nullptr && i < MAX_LOCKLESS && *rest != '\0'; i++) {
        char name[32];
        const size_t length = strcspn(rest, " ");
        memcpy(name, rest, length);
        name[length] = '\0';
        rest += rest[length] == ' ' ? length + 1 : length;
        lockless[i] = reinterpret_cast<uintptr_t>(dlsym(libc, name));
    }
}

// Before any thread of ours exists, and not when the first task is deleted: the loader's lock is
// taken here, which somebody may hold who is about to ask for one of ours.
__attribute__((constructor)) static void know_c_library(void)
{
#if defined(__GLIBC__)
    // pthread_exit needs the unwinder and loads it when it is first wanted, which allocates.
    void* frame[1];
    backtrace(frame, 1);
#endif
    if (!KNOWS_C_LIBRARY) {
        return;
    }
    note_lockless();
    dl_iterate_phdr(note_library, nullptr);
}

// ---- The stack ----

typedef struct {
    uintptr_t top;      // of the task's own part of the stack
    uintptr_t function; // where the function of the frame before begins, if it is the C library's
    place_t place;
} climb_t;

static _Unwind_Reason_Code look_at_frame(struct _Unwind_Context* frame, void* arg)
{
    climb_t* climb = static_cast<climb_t*>(arg);
    int interrupted = 0;

    const uintptr_t pc = _Unwind_GetIPInfo(frame, &interrupted);
    if (interrupted != 0) {
        climb->function = 0; // the way into a handler is code of the C library, but no call
    }
    const bool arrived = _Unwind_GetCFA(frame) >= climb->top;
    // What returns to an instruction is a call before it, maybe the last one of its function.
    if (!arrived && in_c_library(interrupted != 0 ? pc : pc - 1)) {
        climb->function = _Unwind_GetRegionStart(frame);
        return _URC_NO_REASON;
    }
    if (climb->function != 0 && !is_lockless(climb->function)) {
        climb->place = INSIDE_C_LIBRARY;
    } else if (arrived) {
        climb->place = OUTSIDE_C_LIBRARY;
    }
    climb->function = 0;
    return climb->place != UNSEEN_PLACE ? _URC_END_OF_STACK : _URC_NO_REASON;
}

place_t place_of(const thread_record_t* me)
{
    climb_t climb = {.top = me->stack_top, .function = 0, .place = UNSEEN_PLACE};

    if (!KNOWS_C_LIBRARY || climb.top == 0) {
        return OUTSIDE_C_LIBRARY;
    }
    _Unwind_Backtrace(look_at_frame, &climb);
    return climb.place;
}

// ---- Asking again ----

// By bare calls: the C library's may allocate. The timer's signal goes to this thread alone.
static bool make_timer(int* timer)
{
    struct sigevent event = {};

    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGUSR1;
    event.sigev_notify_thread_id = static_cast<pid_t>(syscall(SYS_gettid));
    return syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, timer) == 0;
}

// It goes on by itself, for a signal that strikes inside an operation has no effect.
static void start_timer(int timer, const struct timespec& period)
{
    const struct itimerspec every = {.it_interval = period, .it_value = period};

    syscall(SYS_timer_settime, timer, 0, &every, nullptr);
}

void end_again_soon(thread_record_t* me)
{
    const int saved = errno;

    record_ask_end(me);
    if (me->put_off == 0 && make_timer(&me->again_timer)) {
        me->put_off = 1;
        start_timer(me->again_timer, {0, AGAIN_NS});
    } else if (me->put_off > 0 && me->put_off < AGAIN_OFTEN) {
        me->put_off++;
        if (me->put_off == AGAIN_OFTEN) {
            const int ms = load_relaxed(&msPerTick);
            start_timer(me->again_timer, {ms / 1000, ms % 1000 * NS_PER_MS});
        }
    }
    errno = saved;
}

void end_not_again(thread_record_t* me)
{
    __atomic_signal_fence(__ATOMIC_SEQ_CST); // the handler is inert first
    if (me->put_off != 0) {
        me->put_off = 0;
        syscall(SYS_timer_delete, me->again_timer);
    }
}
