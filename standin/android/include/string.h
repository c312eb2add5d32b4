// Bytes and strings.
#pragma once
#include <sys/cdefs.h>

#include <stddef.h>
#include <strings.h>

__BEGIN_DECLS
void* memchr(const void*, int, size_t);
int memcmp(const void*, const void*, size_t);
void* memcpy(void*, const void*, size_t);
void* memmove(void*, const void*, size_t);
void* memset(void*, int, size_t);
char* strcat(char*, const char*);
char* strcpy(char*, const char*);
int strcmp(const char*, const char*);
size_t strcspn(const char*, const char*);
char* strdup(const char*);
char* strerror(int);
size_t strlen(const char*);
int strncmp(const char*, const char*, size_t);
char* strncpy(char*, const char*, size_t);
size_t strnlen(const char*, size_t);
size_t strspn(const char*, const char*);
#ifdef __cplusplus
}
// Overloaded in C++ by what they search in.
extern "C++" {
char* strchr(char*, int) __asm__("strchr");
const char* strchr(const char*, int) __asm__("strchr");
char* strrchr(char*, int) __asm__("strrchr");
const char* strrchr(const char*, int) __asm__("strrchr");
char* strstr(char*, const char*) __asm__("strstr");
const char* strstr(const char*, const char*) __asm__("strstr");
}
extern "C" {
#else
char* strchr(const char*, int);
char* strrchr(const char*, int);
char* strstr(const char*, const char*);
#endif
__END_DECLS
