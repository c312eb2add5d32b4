// Addresses as text.
#pragma once
#include <sys/cdefs.h>

#include <netinet/in.h>

__BEGIN_DECLS
in_addr_t inet_addr(const char*);
const char* inet_ntop(int, const void*, char*, socklen_t);
int inet_pton(int, const char*, void*);
__END_DECLS
