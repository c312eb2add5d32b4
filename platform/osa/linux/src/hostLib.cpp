// The host table with its name hook, addresses as text, and the Internet checksum.
//
// No locks: hostTblInit belongs to the root task before anybody else runs, and whoever uses the
// table afterwards holds hostListSem.
#include "hostLib.h"

#include "dottedQuad.h"
#include "internal.h"
#include "osaResolv.h"
#include "osaSem.h"

#include <stdint.h>
#include <string.h>

static constexpr int SUM_BLOCK = 64; // bytes

LIST hostList = {};
SEM_ID hostListSem = nullptr;
BOOL hostInitFlag = FALSE;
int mutexOptionsHostLib = 4;
FUNCPTR _presolvHostLibGetByName = nullptr;

// ---- Host table ----

static int resolvHostLibGetByName(char* pHostName)
{
    static_assert(INADDR_NONE == static_cast<in_addr_t>(ERROR));
    return static_cast<int>(osaGetIpFromName(pHostName));
}

void hostTblInit(void)
{
    if (hostInitFlag != FALSE) {
        return;
    }
    thread_record_t* me = op_enter();
    hostInitFlag = TRUE;
    lstInit(&hostList);
    hostListSem = semMCreate(mutexOptionsHostLib);
    _presolvHostLibGetByName = reinterpret_cast<FUNCPTR>(resolvHostLibGetByName);
    op_leave(me);
}

status_t resolvInit(void)
{
    return OK;
}

// ---- Addresses as text ----

void inet_ntoa_b(struct in_addr inetAddress, char* pString)
{
    if (pString != nullptr) {
        *put_quad(pString, &inetAddress) = '\0';
    }
}

// ---- Checksum ----

static uint32_t word_at(const char* bytes)
{
    uint16_t word;

    memcpy(&word, bytes, sizeof word); // at an odd address as well
    return word;
}

// A whole block has a fixed number of words, so the compiler adds several at once.
static uint32_t block_sum(const char* bytes)
{
    uint32_t sum = 0;

    for (int i = 0; i < SUM_BLOCK; i += 2) {
        sum += word_at(bytes + i);
    }
    return sum;
}

u_short checksum(u_short* pAddr, int len)
{
    const char* bytes = reinterpret_cast<const char*>(pAddr);
    int nLeft = bytes != nullptr ? len : 0;
    uint64_t sum = 0; // holds the words of any int length

    for (; nLeft >= SUM_BLOCK; nLeft -= SUM_BLOCK, bytes += SUM_BLOCK) {
        sum += block_sum(bytes);
    }
    for (; nLeft > 1; nLeft -= 2, bytes += 2) {
        sum += word_at(bytes);
    }
    if (nLeft == 1) {
        sum += static_cast<unsigned char>(*bytes); // as if a zero byte followed
    }
    while (sum > UINT16_MAX) {
        sum = (sum >> 16) + (sum & UINT16_MAX);
    }
    return static_cast<u_short>(~sum);
}
