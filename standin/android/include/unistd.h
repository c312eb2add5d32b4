// Descriptors and processes.
#pragma once
#include <sys/cdefs.h>

#include <sys/types.h>

#define STDIN_FILENO  0
#define STDOUT_FILENO 1
#define STDERR_FILENO 2

__BEGIN_DECLS
void _exit(int) __attribute__((__noreturn__));
int access(const char*, int);
unsigned int alarm(unsigned int);
int close(int);
uid_t geteuid(void);
pid_t getpid(void);
pid_t gettid(void);
uid_t getuid(void);
int pause(void);
ssize_t read(int, void*, size_t);
int sethostname(const char*, size_t);
unsigned int sleep(unsigned int);
long syscall(long, ...);
int unlink(const char*);
int usleep(useconds_t);
ssize_t write(int, const void*, size_t);
__END_DECLS
