// Memory, numbers, the environment, the shell.
#pragma once
#include <sys/cdefs.h>

#include <stddef.h>

#define EXIT_FAILURE 1
#define EXIT_SUCCESS 0

__BEGIN_DECLS
void abort(void) __attribute__((__noreturn__));
int abs(int);
int atexit(void (*)(void));
int atoi(const char*);
void* calloc(size_t, size_t);
void exit(int) __attribute__((__noreturn__));
void free(void*);
char* getenv(const char*);
long labs(long);
void* malloc(size_t);
void qsort(void*, size_t, size_t, int (*)(const void*, const void*));
void* realloc(void*, size_t);
int setenv(const char*, const char*, int);
long strtol(const char*, char**, int);
unsigned long strtoul(const char*, char**, int);
int system(const char*);
int unsetenv(const char*);
__END_DECLS
