// Sockets.
#pragma once
#include <sys/cdefs.h>

#include <sys/types.h>

#define AF_UNSPEC     0
#define AF_UNIX       1
#define AF_INET       2
#define AF_INET6      10
#define PF_INET       AF_INET
#define PF_INET6      AF_INET6
#define SOCK_STREAM   1
#define SOCK_DGRAM    2
#define SOCK_NONBLOCK 04000
#define SOCK_CLOEXEC  02000000
#define SOL_SOCKET    1
#define SO_REUSEADDR  2
#define SO_BROADCAST  6
#define SO_RCVTIMEO   20
#define MSG_DONTWAIT  0x40
#define MSG_NOSIGNAL  0x4000

typedef unsigned short sa_family_t;
typedef unsigned int socklen_t;
struct sockaddr {
    sa_family_t sa_family;
    char sa_data[14];
};
struct sockaddr_storage {
    sa_family_t ss_family;
    char data[126];
} __attribute__((aligned(sizeof(long))));

__BEGIN_DECLS
int bind(int, const struct sockaddr*, socklen_t);
int connect(int, const struct sockaddr*, socklen_t);
int getpeername(int, struct sockaddr*, socklen_t*);
int getsockname(int, struct sockaddr*, socklen_t*);
ssize_t recvfrom(int, void*, size_t, int, struct sockaddr*, socklen_t*);
ssize_t sendto(int, const void*, size_t, int, const struct sockaddr*, socklen_t);
int setsockopt(int, int, int, const void*, socklen_t);
int socket(int, int, int);
__END_DECLS
