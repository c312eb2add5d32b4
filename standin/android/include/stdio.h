// Streams: pointers that are variables of the library.
#pragma once
#include <sys/cdefs.h>

#include <stdarg.h>
#include <stddef.h>
#include <sys/types.h>

#define EOF    (-1)
#define BUFSIZ 1024

typedef struct __sFILE FILE;

__BEGIN_DECLS
extern FILE* stdin;
extern FILE* stdout;
extern FILE* stderr;
#define stdin  stdin
#define stdout stdout
#define stderr stderr

int dprintf(int, const char*, ...) __attribute__((__format__(printf, 2, 3)));
int fclose(FILE*);
int feof(FILE*);
int ferror(FILE*);
int fflush(FILE*);
int fgetc(FILE*);
char* fgets(char*, int, FILE*);
int fileno(FILE*);
void flockfile(FILE*);
FILE* fopen(const char*, const char*);
int fprintf(FILE*, const char*, ...) __attribute__((__format__(printf, 2, 3)));
int fputc(int, FILE*);
int fputs(const char*, FILE*);
size_t fread(void*, size_t, size_t, FILE*);
int fscanf(FILE*, const char*, ...) __attribute__((__format__(scanf, 2, 3)));
void funlockfile(FILE*);
size_t fwrite(const void*, size_t, size_t, FILE*);
int getc(FILE*);
int getc_unlocked(FILE*);
ssize_t getline(char**, size_t*, FILE*);
void perror(const char*);
int printf(const char*, ...) __attribute__((__format__(printf, 1, 2)));
int putchar(int);
int puts(const char*);
int remove(const char*);
int snprintf(char*, size_t, const char*, ...) __attribute__((__format__(printf, 3, 4)));
int sscanf(const char*, const char*, ...) __attribute__((__format__(scanf, 2, 3)));
int vfprintf(FILE*, const char*, va_list) __attribute__((__format__(printf, 2, 0)));
int vprintf(const char*, va_list) __attribute__((__format__(printf, 1, 0)));
int vsnprintf(char*, size_t, const char*, va_list) __attribute__((__format__(printf, 3, 0)));
__END_DECLS
