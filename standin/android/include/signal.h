// Signals. A set is one word, and the record of an action begins with its flags.
#pragma once
#include <sys/cdefs.h>

#include <sys/types.h>
#include <time.h>

#define SIGHUP          1
#define SIGINT          2
#define SIGQUIT         3
#define SIGILL          4
#define SIGTRAP         5
#define SIGABRT         6
#define SIGBUS          7
#define SIGFPE          8
#define SIGKILL         9
#define SIGUSR1         10
#define SIGSEGV         11
#define SIGUSR2         12
#define SIGPIPE         13
#define SIGALRM         14
#define SIGTERM         15
#define SIGCHLD         17
#define SIG_BLOCK       0
#define SIG_UNBLOCK     1
#define SIG_SETMASK     2
#define SIG_DFL         ((sighandler_t)0)
#define SIG_IGN         ((sighandler_t)1)
#define SIG_ERR         ((sighandler_t)-1)
#define SA_SIGINFO      0x00000004
#define SA_ONSTACK      0x08000000
#define SA_RESTART      0x10000000
#define SA_NODEFER      0x40000000
#define SA_RESETHAND    0x80000000
#define SI_USER         0
#define SI_QUEUE        (-1)
#define SI_TIMER        (-2)
#define SI_TKILL        (-6)
#define SIGEV_THREAD_ID 4

typedef unsigned long sigset_t;
typedef void (*sighandler_t)(int);
typedef union sigval {
    int sival_int;
    void* sival_ptr;
} sigval_t;
typedef struct siginfo {
    int si_signo;
    int si_errno;
    int si_code;
    int padding;
    union {
        struct {
            pid_t pid;
            uid_t uid;
        } sender;
        char size[112];
    } fields;
} siginfo_t;
#define si_pid fields.sender.pid
#define si_uid fields.sender.uid
struct sigaction {
    int sa_flags;
    union {
        sighandler_t sa_handler;
        void (*sa_sigaction)(int, siginfo_t*, void*);
    };
    sigset_t sa_mask;
    void (*sa_restorer)(void);
};
typedef struct sigevent {
    sigval_t sigev_value;
    int sigev_signo;
    int sigev_notify;
    union {
        int _pad[12];
        int _tid;
    } _sigev_un;
} sigevent_t;

__BEGIN_DECLS
int kill(pid_t, int);
int pthread_kill(pthread_t, int);
int pthread_sigmask(int, const sigset_t*, sigset_t*);
int raise(int);
int sigaction(int, const struct sigaction*, struct sigaction*);
int sigaddset(sigset_t*, int);
int sigdelset(sigset_t*, int);
int sigemptyset(sigset_t*);
int sigfillset(sigset_t*);
int sigismember(const sigset_t*, int);
sighandler_t signal(int, sighandler_t);
__END_DECLS
