// Names to transport addresses: A and AAAA records, SRV records, and NAPTR records that lead to
// SRV records.
//
// The look-ups ask the platform's stub resolver, with the servers, time-outs and search list of
// its configuration, which is read afresh before every query. Nothing is cached and nothing kept
// between calls. Failures are not told apart and not logged: what could not be found, fetched,
// parsed or allocated is missing from the result, and what was found before stays in it.
//
// A call blocks for as long as its queries take, one after another, each with the time-outs of the
// stub resolver (5 s per server and try by default):
//   QUERY_ADDRESS  2 queries; an address literal costs none
//   QUERY_SRV      1 query, and 2 for every record in the answer
//   QUERY_NAPTR    1 query, and for every record that leads on what QUERY_SRV costs
// An answer of 512 bytes holds some 25 records, so a zone made for it can keep a QUERY_NAPTR busy
// with more than 1,000 queries, for hours. Call from a thread that may wait.
//
// Any thread may call. Where the C library keeps its resolver's state for each thread (glibc), or
// keeps none (musl), look-ups run side by side. Android's has one unguarded state for the process:
// there one query is asked at a time, and a look-up may have to wait for the time-outs of others.
// It does not know of queries that closed libraries ask the C library themselves; res_init,
// res_search and their kin are not for them while look-ups run. That library reads no resolv.conf
// either: the servers are those of the platform's resolver service, and a process outside it has
// none, unless something answers on port 53 of the device itself.
//
// A task deleted in a look-up ends after the query in progress, for a query cannot be cut short;
// one that waits for its turn ends at once.
#pragma once

#include "osaSocket.h"
#include "ulist.h"

#include <netdb.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What to look up. */
enum queryType_e : int32_t {
    QUERY_ADDRESS = 0, // addresses of a host
    QUERY_SRV = 1,     // a service, as in _sip._udp.example.com
    QUERY_NAPTR = 2,   // the services of a domain
};

/** Which of a domain's services QUERY_NAPTR follows. */
enum serviceName_e : int32_t {
    SERV_NONE = 0, // all
    SERV_SIP = 1,  // those whose service field starts with "SIP+", in any case
};

enum protoType_e : int32_t { PROTO_UNSPEC = 0, PROTO_TCP = 1, PROTO_UDP = 2 };

/** One transport address. */
typedef struct {
    int32_t ttl;         // seconds the address record may be kept, as sent; 0 for a literal
    protoType_e type;    // from the service name; PROTO_UNSPEC in address look-ups
    uint16_t port;       // host byte order, from the SRV record; 0 in address look-ups
    sockIpAddr_t ipAddr; // network byte order
} hostInfo_t;

static_assert(offsetof(hostInfo_t, port) == 8 && offsetof(hostInfo_t, ipAddr) == 12);
static_assert(sizeof(hostInfo_t) == 32);

/**
 * The platform's gethostbyname.
 *
 * @param port        ignored
 * @param portNumber  ignored
 * @return the platform's record, which the next call overwrites, of any thread where the C library
 *         keeps one for the process; null when there is none, and for a null name
 *
 * On such a C library only one thread of the process may use this, osaGetIpFromName and
 * gethostbyname at a time.
 */
struct hostent* resolv(char* name, unsigned short* port, int portNumber);

/**
 * An IPv4 address from text in any form inet_addr takes, or from a host name through resolv, with
 * the same bounds on its use from several threads.
 *
 * @return the address in network byte order; 0xFFFFFFFF for a null name, a name without an address
 *         and the text 255.255.255.255 where no host bears that name
 */
uint32_t osaGetIpFromName(char* name);

/**
 * Looks up the transport addresses of a host, a service or a domain.
 *
 * QUERY_ADDRESS: the IPv4 addresses, then the IPv6 addresses, each in the order of the answer. An
 * address literal, IPv6 with or without brackets, gives itself. Addresses that an answer carries
 * beside those asked for are taken as well, so an address may come twice.
 *
 * QUERY_SRV: the targets in the order of their priority, and of falling weight where that is
 * equal, without chance; first the IPv4 addresses of all targets, then the IPv6 ones. Each carries
 * the port of its record, and PROTO_TCP or PROTO_UDP when the service name contains "_tcp." or,
 * failing that, "_udp.".
 *
 * QUERY_NAPTR: what QUERY_SRV gives for the replacement of each record that has the flag s and the
 * wanted service, by rising order, then preference. The first record that does not, or that is
 * malformed, hides those behind it in the answer.
 *
 * @param servName  for QUERY_NAPTR; otherwise not looked at
 * @return a list of hostInfo_t, at least one, for osaFreeHostInfoList; null when nothing was found,
 *         also for a null or empty name and an unknown type
 *
 * Only the first 512 bytes of an answer are looked at.
 */
ulist_t* osaGetHostByName(const char* name, queryType_e type, serviceName_e servName);

/** Frees a list of osaGetHostByName with its records; null is ignored. */
void osaFreeHostInfoList(ulist_t* hostInfoList);

#ifdef __cplusplus
}
#endif
