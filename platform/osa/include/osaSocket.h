// Socket addresses: text, the layer's compact address, and the platform's socket address storage,
// converted into each other, checked, classified and compared.
//
// Addresses are in network byte order wherever they are binary, ports in host byte order wherever
// they are arguments or results. Text is IPv4 in dotted-quad form, or IPv6; IPv6 text may stand in
// one pair of square brackets, as in a URI. Not more than 47 characters of IPv6 text are looked at.
//
// All operations work on the caller's memory alone: any thread may call them, none blocks,
// allocates or prints, and none reports through errno. A storage must be at least as large as
// sockAddrStorage_t and is not cleared before an address is put into it: callers clear it first.
// Where nothing else is said, a null pointer gives SEC_INVALID_PARAM and a family that is neither
// AF_INET nor AF_INET6 gives SEC_UNSPEC, and a failed operation leaves what it was handed alone.
#pragma once

#include "coreBaseTypes.h"

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The platform's socket address: a sockaddr_in or a sockaddr_in6, told apart by ss_family. */
typedef struct sockaddr_storage sockAddrStorage_t;

enum sockIpVer_e : int32_t {
    IPVER_UNSPEC = 0,
    IPVER_IPV4 = 1,
    IPVER_IPV6 = 2,
};

enum sockErrCode_e : int32_t {
    SEC_OK = 0,
    SEC_INVALID_ADDR = 1,  // text or data that is no address
    SEC_INVALID_PARAM = 2, // an argument is missing
    SEC_UNSPEC = 3,        // neither IPv4 nor IPv6
};

enum sockIpType_e : int32_t {
    SOCK_IPTYPE_UNSPEC = 0,
    SOCK_IPTYPE_ANY = 1,      // 0.0.0.0 or ::
    SOCK_IPTYPE_LOOPBACK = 2, // 127.0.0.1 or ::1, no other
    SOCK_IPTYPE_OTHER = 3,
};

enum sockIpCmp_e : int32_t {
    IPCMP_UNSPEC = 0, // not comparable
    IPCMP_GREATER = 1,
    IPCMP_EQUAL = 2,
    IPCMP_LESS = 3,
};

/** The bytes of an address as they stand in a packet. */
typedef struct {
    union {
        uint32_t v4;
        uint32_t v6[4];
    } ip;
} sockInAddr_t;

/** An address and which member of it is valid. */
typedef struct {
    sockIpVer_e ver;
    sockInAddr_t addr;
} sockIpAddr_t;

static_assert(sizeof(sockAddrStorage_t) == 128, "closed libraries hand storages of this size");
static_assert(sizeof(sockIpAddr_t) == 20 && offsetof(sockIpAddr_t, addr) == 4);

/** The storage's family; 0 for a null storage. */
sa_family_t sockGetStorageFamily(sockAddrStorage_t* ss);

/** Reads the port of a storage. @return SEC_OK, SEC_INVALID_PARAM or SEC_UNSPEC */
sockErrCode_e sockGetStoragePort(sockAddrStorage_t* ss, uint16_t* port);

/** Sets the port of a storage whose family is set. @return as sockGetStoragePort */
sockErrCode_e sockSetStoragePort(sockAddrStorage_t* ss, uint16_t port);

/** The IP version of a storage; IPVER_UNSPEC for any other family and for null. */
sockIpVer_e sockGetStorageIpVer(sockAddrStorage_t* ss);

/**
 * Writes the address of a storage as text.
 *
 * @param bufSize  bytes at buf, 0 gives SEC_INVALID_PARAM. IPv4 text that does not fit is cut;
 *                 INET6_ADDRSTRLEN bytes hold any address
 * @return SEC_OK; SEC_INVALID_ADDR when IPv6 text does not fit; SEC_INVALID_PARAM; SEC_UNSPEC
 */
sockErrCode_e sockGetStorageStringAddr(sockAddrStorage_t* ss, char* buf, size_t bufSize);

/**
 * Puts an address given as text, and a port, into a storage; sets its family.
 *
 * @return SEC_OK; SEC_INVALID_ADDR for text that is no address, also when ss is null, and for
 *         255.255.255.255, which the platform's parser cannot tell from a failure;
 *         SEC_INVALID_PARAM for a null ss
 */
sockErrCode_e sockSetStorageByStringAddr(const char* ipStr, uint16_t port, sockAddrStorage_t* ss);

/**
 * Copies the address of a storage to a compact address. For IPv4 the last 12 bytes of the compact
 * address stay as they were.
 *
 * @return SEC_OK, SEC_INVALID_PARAM or SEC_UNSPEC
 */
sockErrCode_e sockGetStorageBinaryAddr(sockAddrStorage_t* ss, sockIpAddr_t* ipAddr);

/**
 * Puts a well-known address, or raw address bytes, and a port into a storage; sets its family.
 *
 * @param type        SOCK_IPTYPE_ANY, SOCK_IPTYPE_LOOPBACK, or SOCK_IPTYPE_OTHER for the bytes at
 *                    binaryAddr; anything else gives SEC_INVALID_PARAM
 * @param binaryAddr  4 or 16 bytes, aligned or not; looked at for SOCK_IPTYPE_OTHER only
 * @return SEC_OK; SEC_INVALID_ADDR for missing bytes; SEC_INVALID_PARAM; SEC_UNSPEC for a version
 *         that is neither IPv4 nor IPv6
 */
sockErrCode_e sockSetStorageByBinaryAddr(sockIpType_e type, sockIpVer_e ver, void* binaryAddr,
                                         uint16_t port, sockAddrStorage_t* ss);

/** 1 for a dotted quad and for IPv6 text, with or without brackets; 0 for anything else. */
bool_t sockIsValidAddr(const char* ipStr);

/**
 * 1 for a dotted quad: 7 to 15 characters, four parts of at most three digits, each below 256.
 *
 * Leading zeros pass. So do what scanf("%3u") takes for a number as well, white space in front of
 * a part and a sign (-0, +7) as one of its three characters, and white space at the end; whether
 * such text then converts to an address is for the platform to say.
 */
bool_t validateIP4Dotted(const char* s);

/**
 * Converts text to a compact address. The platform parses: parts with leading zeros are octal.
 *
 * @param addr  cleared first, whatever follows, so that the unused bytes of an IPv4 address are
 *              zero; null only asks whether the text converts
 * @return SEC_OK, or SEC_INVALID_ADDR (null text and 255.255.255.255 included)
 */
sockErrCode_e sockIpAddrPton(const char* ip, sockIpAddr_t* addr);

/**
 * Converts a compact address to text.
 *
 * @param bufSize  as for sockGetStorageStringAddr
 * @return SEC_OK; SEC_INVALID_ADDR for a null ipAddr and for IPv6 text that does not fit;
 *         SEC_INVALID_PARAM for a null buf or no room at all; SEC_UNSPEC
 */
sockErrCode_e sockIpAddrNtop(sockIpAddr_t* ipAddr, char* buf, size_t bufSize);

/** The version of an address given as text; IPVER_UNSPEC if it is none. */
sockIpVer_e sockGetIpVer(char* ip);

/** What kind of address it is; SOCK_IPTYPE_UNSPEC for null and for other versions. */
sockIpType_e sockGetIpAddrType(sockIpAddr_t* ipAddr);

/**
 * Tells how dest stands to src. The order is total within a version and otherwise of no meaning:
 * IPv4 addresses compare from their last octet to their first, as the integers they are in the
 * memory of a little-endian machine (10.0.0.2 is greater than 11.0.0.1), IPv6 ones from the first
 * byte on.
 *
 * @return IPCMP_UNSPEC for a null pointer and for different or unknown versions
 */
sockIpCmp_e sockCompareIpAddr(sockIpAddr_t* dest, sockIpAddr_t* src);

/**
 * Address of the peer of a connected socket. *dest is cleared first, also when the call fails.
 *
 * @return SEC_OK; SEC_INVALID_PARAM for a null dest or a socket without a peer, whatever its family
 */
sockErrCode_e sockGetPeerName(int32_t sockFd, sockAddrStorage_t* dest);

/** The same as a compact address, see sockGetStorageBinaryAddr. */
sockErrCode_e sockGetPeerAddr(int32_t sockFd, sockIpAddr_t* dest);

#ifdef __cplusplus
}
#endif
