// Loaded libraries.
#pragma once
#include <sys/cdefs.h>

#define RTLD_LAZY    1
#define RTLD_NOW     2
#define RTLD_NOLOAD  4
#define RTLD_DEFAULT ((void*)0)

__BEGIN_DECLS
int dlclose(void*);
void* dlopen(const char*, int);
void* dlsym(void*, const char*);
__END_DECLS
