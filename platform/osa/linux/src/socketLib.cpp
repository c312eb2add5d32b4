// Socket addresses. No state, no locks, nothing allocated.
//
// The bytes of a storage are reached by offset and memcpy, never through a pointer of another
// type, so neither alignment nor the compiler's view of types can get in the way.
#include "osaSocket.h"

#include "dottedQuad.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

static constexpr size_t IPV4_LEN = sizeof(in_addr);
static constexpr size_t IPV6_LEN = sizeof(in6_addr);
static constexpr size_t TEXT_LEN = 48; // bytes of the copy that IPv6 text is parsed in
static constexpr size_t QUAD_MIN = 7;  // 0.0.0.0
static constexpr size_t QUAD_MAX = 15; // 255.255.255.255
static constexpr int PART_MAX = 3;     // characters of one part of a quad

// One offset serves the port of both families.
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));

static constexpr in6_addr ipv6_any = IN6ADDR_ANY_INIT;
static constexpr in6_addr ipv6_loopback = IN6ADDR_LOOPBACK_INIT;

static size_t addr_offset(sa_family_t family)
{
    return family == AF_INET ? offsetof(sockaddr_in, sin_addr) : offsetof(sockaddr_in6, sin6_addr);
}

static size_t addr_len(sa_family_t family)
{
    return family == AF_INET ? IPV4_LEN : IPV6_LEN;
}

static bool is_ip(const sockAddrStorage_t* ss)
{
    return ss->ss_family == AF_INET || ss->ss_family == AF_INET6;
}

static const char* addr_bytes(const sockAddrStorage_t* ss)
{
    return reinterpret_cast<const char*>(ss) + addr_offset(ss->ss_family);
}

static void store_port(sockAddrStorage_t* ss, uint16_t port)
{
    const uint16_t wire = htons(port);

    memcpy(reinterpret_cast<char*>(ss) + offsetof(sockaddr_in, sin_port), &wire, sizeof wire);
}

static void store_addr(sockAddrStorage_t* ss, sa_family_t family, const void* bytes, uint16_t port)
{
    memcpy(reinterpret_cast<char*>(ss) + addr_offset(family), bytes, addr_len(family));
    ss->ss_family = family;
    store_port(ss, port);
}

// Text of an IPv4 address, cut to the buffer.
static void ipv4_text(const void* bytes, char* buf, size_t size)
{
    char text[INET_ADDRSTRLEN];

    size_t len = static_cast<size_t>(put_quad(text, bytes) - text);
    if (len >= size) {
        len = size - 1;
    }
    memcpy(buf, text, len);
    buf[len] = '\0';
}

static sockErrCode_e addr_text(sa_family_t family, const void* bytes, char* buf, size_t size)
{
    if (family == AF_INET) {
        ipv4_text(bytes, buf, size);
        return SEC_OK;
    }
    const auto room = static_cast<socklen_t>(size < INET6_ADDRSTRLEN ? size : INET6_ADDRSTRLEN);
    return inet_ntop(AF_INET6, bytes, buf, room) != nullptr ? SEC_OK : SEC_INVALID_ADDR;
}

// Removes the brackets around an IPv6 literal, in place, if both are there.
static char* sockStripIPv6Brackets(char* str)
{
    if (str == nullptr) {
        return nullptr;
    }
    const size_t len = strlen(str);
    if (len < 2 || str[0] != '[' || str[len - 1] != ']') {
        return str;
    }
    memmove(str, str + 1, len - 2);
    str[len - 2] = '\0';
    return str;
}

static bool parse_ipv6(const char* text, in6_addr* addr)
{
    char copy[TEXT_LEN];
    const size_t len = strnlen(text, sizeof copy - 1);

    memcpy(copy, text, len);
    copy[len] = '\0';
    return inet_pton(AF_INET6, sockStripIPv6Brackets(copy), addr) == 1;
}

// A dotted quad, read as the layer accepts it.
typedef struct {
    uint32_t value; // first part in the high bits
    bool plain;     // decimal digits without leading zeros: it means the same to every parser
} dotted_quad_t;

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

static const char* skip_space(const char* s)
{
    while (isspace(static_cast<unsigned char>(*s)) != 0) {
        s++;
    }
    return s;
}

// Reads one part of a quad just as scanf reads "%3u": white space in front does not count, a sign
// counts as one of the three characters, and a minus wraps. Returns the end of it, or null.
static const char* read_part(const char* s, dotted_quad_t* quad)
{
    int left = PART_MAX;
    unsigned number = 0;
    bool negative = false;

    if (!is_digit(*s)) {
        quad->plain = false;
        s = skip_space(s);
        negative = *s == '-';
        if (negative || *s == '+') {
            s++;
            left--;
        }
    }
    const char* const digits = s;
    while (left > 0 && is_digit(*s)) {
        number = number * 10 + static_cast<unsigned>(*s - '0');
        s++;
        left--;
    }
    if (s == digits || number > UINT8_MAX || (negative && number != 0)) {
        return nullptr;
    }
    if (*digits == '0' && s - digits > 1) {
        quad->plain = false; // octal to the platform
    }
    quad->value = quad->value << 8 | number;
    return s;
}

static bool read_quad(const char* s, dotted_quad_t* quad)
{
    const size_t len = strnlen(s, QUAD_MAX + 1);
    if (len < QUAD_MIN || len > QUAD_MAX) {
        return false;
    }
    *quad = {.value = 0, .plain = true};
    for (size_t i = 0; i < IPV4_LEN; i++) {
        if (i > 0 && *s++ != '.') {
            return false;
        }
        s = read_part(s, quad);
        if (s == nullptr) {
            return false;
        }
    }
    if (*s != '\0') {
        quad->plain = false;
        s = skip_space(s);
    }
    return *s == '\0';
}

// No text is both a quad and IPv6.
static bool parse_addr(const char* text, sockIpAddr_t* addr)
{
    dotted_quad_t quad;
    in6_addr ipv6;

    if (read_quad(text, &quad)) {
        addr->ver = IPVER_IPV4;
        addr->addr.ip.v4 = quad.plain ? htonl(quad.value) : inet_addr(text);
        return addr->addr.ip.v4 != INADDR_NONE;
    }
    if (!parse_ipv6(text, &ipv6)) {
        return false;
    }
    addr->ver = IPVER_IPV6;
    memcpy(addr->addr.ip.v6, &ipv6, IPV6_LEN);
    return true;
}

// ---- Operations ----

sa_family_t sockGetStorageFamily(sockAddrStorage_t* ss)
{
    return ss != nullptr ? ss->ss_family : sa_family_t{0};
}

sockErrCode_e sockGetStoragePort(sockAddrStorage_t* ss, uint16_t* port)
{
    uint16_t wire = 0;

    if (ss == nullptr || port == nullptr) {
        return SEC_INVALID_PARAM;
    }
    if (!is_ip(ss)) {
        return SEC_UNSPEC;
    }
    memcpy(&wire, reinterpret_cast<char*>(ss) + offsetof(sockaddr_in, sin_port), sizeof wire);
    *port = ntohs(wire);
    return SEC_OK;
}

sockErrCode_e sockSetStoragePort(sockAddrStorage_t* ss, uint16_t port)
{
    if (ss == nullptr) {
        return SEC_INVALID_PARAM;
    }
    if (!is_ip(ss)) {
        return SEC_UNSPEC;
    }
    store_port(ss, port);
    return SEC_OK;
}

sockIpVer_e sockGetStorageIpVer(sockAddrStorage_t* ss)
{
    switch (sockGetStorageFamily(ss)) {
    case AF_INET:
        return IPVER_IPV4;
    case AF_INET6:
        return IPVER_IPV6;
    default:
        return IPVER_UNSPEC;
    }
}

sockErrCode_e sockGetStorageStringAddr(sockAddrStorage_t* ss, char* buf, size_t bufSize)
{
    if (ss == nullptr || buf == nullptr || bufSize == 0) {
        return SEC_INVALID_PARAM;
    }
    if (!is_ip(ss)) {
        return SEC_UNSPEC;
    }
    return addr_text(ss->ss_family, addr_bytes(ss), buf, bufSize);
}

sockErrCode_e sockSetStorageByStringAddr(const char* ipStr, uint16_t port, sockAddrStorage_t* ss)
{
    sockIpAddr_t addr = {};

    if (sockIsValidAddr(ipStr) == 0) {
        return SEC_INVALID_ADDR;
    }
    if (ss == nullptr) {
        return SEC_INVALID_PARAM;
    }
    if (!parse_addr(ipStr, &addr)) {
        return SEC_INVALID_ADDR;
    }
    store_addr(ss, addr.ver == IPVER_IPV4 ? AF_INET : AF_INET6, &addr.addr, port);
    return SEC_OK;
}

sockErrCode_e sockGetStorageBinaryAddr(sockAddrStorage_t* ss, sockIpAddr_t* ipAddr)
{
    if (ss == nullptr || ipAddr == nullptr) {
        return SEC_INVALID_PARAM;
    }
    if (!is_ip(ss)) {
        return SEC_UNSPEC;
    }
    ipAddr->ver = sockGetStorageIpVer(ss);
    memcpy(&ipAddr->addr, addr_bytes(ss), addr_len(ss->ss_family));
    return SEC_OK;
}

sockErrCode_e sockSetStorageByBinaryAddr(sockIpType_e type, sockIpVer_e ver, void* binaryAddr,
                                         uint16_t port, sockAddrStorage_t* ss)
{
    const in_addr_t quad = htonl(type == SOCK_IPTYPE_LOOPBACK ? INADDR_LOOPBACK : INADDR_ANY);
    const in6_addr* const ipv6 = type == SOCK_IPTYPE_LOOPBACK ? &ipv6_loopback : &ipv6_any;

    if (ss == nullptr) {
        return SEC_INVALID_PARAM;
    }
    if (ver != IPVER_IPV4 && ver != IPVER_IPV6) {
        return SEC_UNSPEC;
    }
    const sa_family_t family = ver == IPVER_IPV4 ? AF_INET : AF_INET6;
    const void* bytes = ver == IPVER_IPV4 ? static_cast<const void*>(&quad) : ipv6;
    switch (type) {
    case SOCK_IPTYPE_ANY:
    case SOCK_IPTYPE_LOOPBACK:
        break;
    case SOCK_IPTYPE_OTHER:
        bytes = binaryAddr;
        break;
    default:
        return SEC_INVALID_PARAM;
    }
    if (bytes == nullptr) {
        return SEC_INVALID_ADDR;
    }
    store_addr(ss, family, bytes, port);
    return SEC_OK;
}

bool_t sockIsValidAddr(const char* ipStr)
{
    in6_addr ipv6;

    if (ipStr == nullptr) {
        return 0;
    }
    return validateIP4Dotted(ipStr) != 0 || parse_ipv6(ipStr, &ipv6) ? 1 : 0;
}

bool_t validateIP4Dotted(const char* s)
{
    dotted_quad_t quad;

    return s != nullptr && read_quad(s, &quad) ? 1 : 0;
}

sockErrCode_e sockIpAddrPton(const char* ip, sockIpAddr_t* addr)
{
    sockIpAddr_t parsed = {};

    if (addr != nullptr) {
        *addr = parsed;
    }
    if (ip == nullptr || !parse_addr(ip, &parsed)) {
        return SEC_INVALID_ADDR;
    }
    if (addr != nullptr) {
        *addr = parsed;
    }
    return SEC_OK;
}

sockErrCode_e sockIpAddrNtop(sockIpAddr_t* ipAddr, char* buf, size_t bufSize)
{
    if (ipAddr == nullptr) {
        return SEC_INVALID_ADDR;
    }
    if (buf == nullptr || bufSize == 0) {
        return SEC_INVALID_PARAM;
    }
    if (ipAddr->ver != IPVER_IPV4 && ipAddr->ver != IPVER_IPV6) {
        return SEC_UNSPEC;
    }
    return addr_text(ipAddr->ver == IPVER_IPV4 ? AF_INET : AF_INET6, &ipAddr->addr, buf, bufSize);
}

sockIpVer_e sockGetIpVer(char* ip)
{
    sockIpAddr_t addr;

    return sockIpAddrPton(ip, &addr) == SEC_OK ? addr.ver : IPVER_UNSPEC;
}

sockIpType_e sockGetIpAddrType(sockIpAddr_t* ipAddr)
{
    if (ipAddr == nullptr) {
        return SOCK_IPTYPE_UNSPEC;
    }
    if (ipAddr->ver == IPVER_IPV4) {
        switch (ntohl(ipAddr->addr.ip.v4)) {
        case INADDR_ANY:
            return SOCK_IPTYPE_ANY;
        case INADDR_LOOPBACK:
            return SOCK_IPTYPE_LOOPBACK;
        default:
            return SOCK_IPTYPE_OTHER;
        }
    }
    if (ipAddr->ver != IPVER_IPV6) {
        return SOCK_IPTYPE_UNSPEC;
    }
    if (memcmp(ipAddr->addr.ip.v6, &ipv6_any, IPV6_LEN) == 0) {
        return SOCK_IPTYPE_ANY;
    }
    return memcmp(ipAddr->addr.ip.v6, &ipv6_loopback, IPV6_LEN) == 0 ? SOCK_IPTYPE_LOOPBACK
                                                                     : SOCK_IPTYPE_OTHER;
}

static sockIpCmp_e compared(int order)
{
    if (order == 0) {
        return IPCMP_EQUAL;
    }
    return order > 0 ? IPCMP_GREATER : IPCMP_LESS;
}

sockIpCmp_e sockCompareIpAddr(sockIpAddr_t* dest, sockIpAddr_t* src)
{
    if (dest == nullptr || src == nullptr || dest->ver != src->ver) {
        return IPCMP_UNSPEC;
    }
    const sockInAddr_t* const a = &dest->addr;
    const sockInAddr_t* const b = &src->addr;
    switch (dest->ver) {
    case IPVER_IPV4:
        return compared((a->ip.v4 > b->ip.v4) - (a->ip.v4 < b->ip.v4));
    case IPVER_IPV6:
        return compared(memcmp(a->ip.v6, b->ip.v6, IPV6_LEN));
    default:
        return IPCMP_UNSPEC;
    }
}

sockErrCode_e sockGetPeerName(int32_t sockFd, sockAddrStorage_t* dest)
{
    socklen_t len = sizeof *dest;

    if (dest == nullptr) {
        return SEC_INVALID_PARAM;
    }
    memset(dest, 0, sizeof *dest);
    return getpeername(sockFd, reinterpret_cast<sockaddr*>(dest), &len) == 0 ? SEC_OK
                                                                             : SEC_INVALID_PARAM;
}

sockErrCode_e sockGetPeerAddr(int32_t sockFd, sockIpAddr_t* dest)
{
    sockAddrStorage_t peer;

    if (dest == nullptr) {
        return SEC_INVALID_PARAM;
    }
    const sockErrCode_e result = sockGetPeerName(sockFd, &peer);
    return result == SEC_OK ? sockGetStorageBinaryAddr(&peer, dest) : result;
}
