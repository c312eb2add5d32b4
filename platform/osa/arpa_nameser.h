// DNS on the wire: the constants and readers that the resolver parses answers with (RFC 1035
// section 4, RFC 3596 for AAAA, RFC 2782 for SRV, RFC 3403 for NAPTR).
//
// Stands in for the platform's <arpa/nameser.h>, whose contents differ between C libraries, and
// takes its include guard, so that <resolv.h> comes after it and works on these definitions.
#pragma once

#if defined(_ARPA_NAMESER_H_) || defined(_ARPA_NAMESER_COMPAT_)
#error "include arpa_nameser.h before anything that includes <arpa/nameser.h>"
#endif
#define _ARPA_NAMESER_H_
#define _ARPA_NAMESER_H // musl's
#define _ARPA_NAMESER_COMPAT_

#include <stdint.h>
#include <sys/types.h>

/** Sizes in bytes. */
enum : int {
    NS_PACKETSZ = 512,  // answer without extensions
    NS_MAXDNAME = 1025, // longest name as text, with its terminator
    NS_HFIXEDSZ = 12,   // header
    NS_QFIXEDSZ = 4,    // a question behind its name: type, class
    NS_RRFIXEDSZ = 10,  // a record between name and data: type, class, TTL, data length
    NS_INT16SZ = 2,
    NS_INT32SZ = 4,
    NS_INADDRSZ = 4,   // data of an A record
    NS_IN6ADDRSZ = 16, // data of an AAAA record
};

/** Record types. */
enum ns_type : uint16_t {
    ns_t_a = 1,      // RFC 1035: IPv4 address
    ns_t_aaaa = 28,  // RFC 3596: IPv6 address
    ns_t_srv = 33,   // RFC 2782: priority, weight, port, target
    ns_t_naptr = 35, // RFC 3403: order, preference, flags, services, regexp, replacement
};

/** Classes. */
enum ns_class : uint16_t { ns_c_in = 1 };

/** Reads 16 bits in network byte order, at any alignment. */
static inline uint16_t ns_read16(const u_char* p)
{
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

/** Reads 32 bits in network byte order, at any alignment. */
static inline uint32_t ns_read32(const u_char* p)
{
    return static_cast<uint32_t>(ns_read16(p)) << 16 | ns_read16(p + NS_INT16SZ);
}

#include "arpa_nameser_compat.h"
