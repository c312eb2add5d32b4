// The time from an SNTP server: one request, one reply (RFC 4330), and the server's transmit time
// out of it. Nothing is computed from it and the system clock is not set; the answer is as old as
// the reply's way here.
//
// A server is named by host name or address literal. Each of its addresses is tried in turn, IPv4
// first, until one answers. Any thread may call. A call blocks for the queries that the name takes
// (osaResolv.h), and then for up to 5 seconds per address, or without limit. A signal ends the wait
// for a reply, which counts as a failure; a deletion of the calling task takes effect there.
//
// The first reply that reaches the socket is taken, whoever sent it: there is no authentication.
#pragma once

#include "vxw_defs.h"

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/** An NTP message. All fields but single bytes are in network byte order. */
typedef struct sntpPacket {
    uint8_t leapVerMode; // leap indicator in bits 7-6, version in 5-3, mode in 2-0
    uint8_t stratum;
    int8_t poll;
    int8_t precision;
    uint32_t rootDelay;
    uint32_t rootDispersion;
    uint32_t referenceIdentifier;
    uint32_t referenceTimestampSec;  // seconds since 1900, as all of the timestamps
    uint32_t referenceTimestampFrac; // units of 2^-32 s, as all of the fractions
    uint32_t originateTimestampSec;
    uint32_t originateTimestampFrac;
    uint32_t receiveTimestampSec;
    uint32_t receiveTimestampFrac;
    uint32_t transmitTimestampSec;
    uint32_t transmitTimestampFrac;
} SNTP_PACKET;

static_assert(sizeof(SNTP_PACKET) == 48 && offsetof(SNTP_PACKET, transmitTimestampSec) == 40);

/** UDP port of the servers, host byte order; 0, where no server is, until it is set. Atomic. */
extern u_short sntpcPort;

/**
 * Asks a server on the SNTP port 123, see sntpcTimeGet. Sets sntpcPort.
 */
status_t osaGetTimeFromSntpServer(const char* pServerAddr, int32_t timeout,
                                  struct timespec* sntpTime);

/** Sets sntpcPort. @return OK */
STATUS sntpcInit(u_short port);

/**
 * Asks a server for the time.
 *
 * @param timeout    not a duration: WAIT_FOREVER waits for each address's reply without limit, 0 to
 *                   0x7fffffff waits 5 seconds; anything else is refused
 * @param pCurrTime  where the time goes: seconds since 1970 and nanoseconds, up to 80 ns less than
 *                   the server sent. Times from 1970 to 2106 are told apart
 * @return OK; ERROR when no address answered with a valid reply, *pCurrTime untouched. A null
 *         pCurrTime and a bad timeout print "sntpcTimeGet: param error.", a null pServerAddr prints
 *         "sntpcTimeGet: server is NULL."
 */
STATUS sntpcTimeGet(char* pServerAddr, u_int timeout, struct timespec* pCurrTime);

#ifdef __cplusplus
}
#endif
