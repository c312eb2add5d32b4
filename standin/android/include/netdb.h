// Hosts by name.
#pragma once
#include <sys/cdefs.h>

#include <sys/types.h>

#define NETDB_INTERNAL (-1)
#define HOST_NOT_FOUND 1

struct hostent {
    char* h_name;
    char** h_aliases;
    int h_addrtype;
    int h_length;
    char** h_addr_list;
};
#define h_addr h_addr_list[0]

__BEGIN_DECLS
struct hostent* gethostbyname(const char*);
__END_DECLS
