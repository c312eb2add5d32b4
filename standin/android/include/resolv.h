// The stub resolver.
#pragma once
#include <sys/cdefs.h>

#include <sys/types.h>

// The calls have other names in the library's table. No state is shown.
#define res_init   __res_init
#define res_search __res_search

__BEGIN_DECLS
int dn_expand(const u_char*, const u_char*, const u_char*, char*, int);
int res_init(void);
int res_search(const char*, int, int, u_char*, int);
__END_DECLS
