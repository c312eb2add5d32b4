// Children.
#pragma once
#include <sys/cdefs.h>

#include <sys/types.h>

#define WNOHANG        1
#define WEXITSTATUS(s) (((s)&0xff00) >> 8)
#define WTERMSIG(s)    ((s)&0x7f)
#define WIFEXITED(s)   (WTERMSIG(s) == 0)
#define WIFSIGNALED(s) (WTERMSIG((s) + 1) >= 2)

__BEGIN_DECLS
pid_t waitpid(pid_t, int*, int);
__END_DECLS
