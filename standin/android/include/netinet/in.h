// Addresses of the Internet.
#pragma once
#include <sys/cdefs.h>

#include <sys/socket.h>

#define IPPROTO_IP       0
#define IPPROTO_TCP      6
#define IPPROTO_UDP      17
#define IPPROTO_IPV6     41
#define INADDR_ANY       ((in_addr_t)0x00000000)
#define INADDR_BROADCAST ((in_addr_t)0xffffffff)
#define INADDR_LOOPBACK  ((in_addr_t)0x7f000001)
#define INADDR_NONE      ((in_addr_t)0xffffffff)
#define INET_ADDRSTRLEN  16
#define INET6_ADDRSTRLEN 46

typedef uint16_t in_port_t;
typedef uint32_t in_addr_t;
struct in_addr {
    in_addr_t s_addr;
};
struct in6_addr {
    union {
        uint8_t u6_addr8[16];
        uint16_t u6_addr16[8];
        uint32_t u6_addr32[4];
    } in6_u;
};
#define IN6ADDR_ANY_INIT                                                                           \
    {                                                                                              \
        {                                                                                          \
            {                                                                                      \
                0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0                                     \
            }                                                                                      \
        }                                                                                          \
    }
#define IN6ADDR_LOOPBACK_INIT                                                                      \
    {                                                                                              \
        {                                                                                          \
            {                                                                                      \
                0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1                                     \
            }                                                                                      \
        }                                                                                          \
    }
#define s6_addr   in6_u.u6_addr8
#define s6_addr32 in6_u.u6_addr32
struct sockaddr_in {
    sa_family_t sin_family;
    in_port_t sin_port;
    struct in_addr sin_addr;
    unsigned char pad[8];
};
struct sockaddr_in6 {
    sa_family_t sin6_family;
    in_port_t sin6_port;
    uint32_t sin6_flowinfo;
    struct in6_addr sin6_addr;
    uint32_t sin6_scope_id;
};

#define htons(x) __builtin_bswap16(x)
#define ntohs(x) __builtin_bswap16(x)
#define htonl(x) __builtin_bswap32(x)
#define ntohl(x) __builtin_bswap32(x)

__BEGIN_DECLS
extern const struct in6_addr in6addr_any;
extern const struct in6_addr in6addr_loopback;
__END_DECLS
