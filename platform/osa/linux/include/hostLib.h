// The host table, its name hook, and small helpers for IPv4.
//
// The table is created empty and stays so here: whoever adds, finds or removes entries holds
// hostListSem meanwhile. Any thread may call the operations, but for hostTblInit.
#pragma once

#include "lstLib.h"
#include "vxw_defs.h"

#include <netinet/in.h>
#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A name of a host, in the chain of all of them. */
typedef struct hostname_struct {
    struct hostname_struct* link; // next name, or null
    char* name;
} HOSTNAME;

/** A host of the table. */
typedef struct {
    NODE node;              // link in hostList
    HOSTNAME hostName;      // first name, head of the chain
    struct in_addr netAddr; // network byte order
} HOSTENTRY;

static_assert(offsetof(HOSTENTRY, hostName) == 16 && offsetof(HOSTENTRY, netAddr) == 32 &&
                  sizeof(HOSTENTRY) == 40,
              "shared with the closed libraries");

extern LIST hostList;           // of HOSTENTRY, guarded by hostListSem
extern SEM_ID hostListSem;      // mutual exclusion; null before hostTblInit, and without memory
extern BOOL hostInitFlag;       // 1 once hostTblInit was called
extern int mutexOptionsHostLib; // for the creation of hostListSem: 4

/**
 * Turns a host name or dotted address into an IPv4 address: int (*)(char* name), null before
 * hostTblInit, which installs a look-up through the platform's gethostbyname.
 *
 * That one returns the address in network byte order, or ERROR for a name that is null or not
 * known; the text 255.255.255.255 is looked up as a name. It may block for as long as the platform
 * looks for the name, a deletion of the caller waits until then, and it may be called from several
 * threads at once where the platform's gethostbyname may.
 */
extern FUNCPTR _presolvHostLibGetByName;

/** Creates the host table; the root task calls it. Further calls change nothing. */
void hostTblInit(void);

/** Prepares the network interfaces: nothing to do. */
void ifLibInit(void);

/** Prepares the resolver, which keeps no state. @return OK */
status_t resolvInit(void);

/**
 * Writes an IPv4 address as text, "192.168.0.1".
 *
 * @param inetAddress  network byte order
 * @param pString      at least 16 bytes; the text is terminated. Null: nothing
 */
void inet_ntoa_b(struct in_addr inetAddress, char* pString);

/**
 * The Internet checksum (RFC 1071): complement of the ones' complement sum of the 16-bit words.
 *
 * @param pAddr  bytes to sum, at any address; null: no bytes
 * @param len    bytes, also odd; 0 or less: no bytes, 0xffff
 * @return the checksum, to be stored in host byte order
 */
u_short checksum(u_short* pAddr, int len);

#ifdef __cplusplus
}
#endif
