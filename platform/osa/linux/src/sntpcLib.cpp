// The SNTP client. No locks; the only state is the servers' port.
//
// A request is sent from a socket of its own, which is closed before anything can end the thread.
// The wait for the reply can be cut short by a deletion of the calling task without a gap: SIGUSR1
// is shut out before the last look at the mark, and let in by the wait itself.
#include "sntp.h"

#include "internal.h"
#include "osaResolv.h"
#include "osaSocket.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static constexpr u_short SNTP_PORT = 123;
static constexpr uint8_t CLIENT_REQUEST = 0x0b; // leap 0, version 1, mode 3
static constexpr uint8_t VERSION_MASK = 0x38;
static constexpr uint32_t UNIX_EPOCH = 2'208'988'800; // seconds from 1900 to 1970
static constexpr time_t REPLY_WAIT_S = 5;

u_short sntpcPort = 0; // atomic, a number only

// sntpFraction * 10^9 / 2^32, digit by digit of 10^19 / 2^32; each term is cut for itself, so the
// result is up to 80 below the exact one. Large fractions give a digit away to stay in range.
static ULONG sntpcFractionToNsec(ULONG sntpFraction)
{
    ULONG factor = 0x8ac72305;
    ULONG divisor = 10;
    ULONG mask = 1'000'000'000;
    ULONG nsec = 0;
    const bool shift = (sntpFraction & 0xf0000000) != 0;

    if (shift) {
        sntpFraction /= 10;
    }
    for (int loop = 0; loop < 10; loop++) {
        nsec += sntpFraction * (factor / mask) / divisor;
        factor %= mask;
        mask /= 10;
        divisor *= 10;
    }
    return shift ? nsec * 10 : nsec;
}

// Waits until the socket has something to read. @return false after the time-out, on a signal, and
// when the caller is to end
static bool wait_for_reply(int sntpSocket, u_int timeout)
{
    const struct timespec limit = {.tv_sec = REPLY_WAIT_S, .tv_nsec = 0};
    const bool forever = static_cast<int>(timeout) == WAIT_FOREVER;
    struct pollfd readFds = {.fd = sntpSocket, .events = POLLIN, .revents = 0};
    sigset_t exit_signal;
    sigset_t mask;
    bool ready = false;

    sigemptyset(&exit_signal);
    sigaddset(&exit_signal, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &exit_signal, &mask);
    // Not end_asked, which looks at the mask of this moment and not at the caller's. A mark that is
    // missed here comes with a signal, which the wait lets in.
    if (load_acquire(&self_record->pending) == 0 || sigismember(&mask, SIGUSR1) == 1) {
        ready = ppoll(&readFds, 1, forever ? nullptr : &limit, &mask) > 0;
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    return ready;
}

static bool exchange(int sntpSocket, const sockAddrStorage_t* pTarget, u_int timeout,
                     SNTP_PACKET* sntpReply)
{
    const int optval = 1;
    SNTP_PACKET sntpRequest = {};
    sockAddrStorage_t servAddr = {};
    socklen_t servAddrLen = sizeof servAddr;

    (void)setsockopt(sntpSocket, SOL_SOCKET, SO_BROADCAST, &optval, sizeof optval); // if it can be
    sntpRequest.leapVerMode = CLIENT_REQUEST;
    if (sendto(sntpSocket, &sntpRequest, sizeof sntpRequest, 0,
               reinterpret_cast<const sockaddr*>(pTarget), sizeof *pTarget) == -1) {
        return false;
    }
    if (!wait_for_reply(sntpSocket, timeout)) {
        return false;
    }
    // What made the socket readable may be gone by now: a datagram with a bad checksum.
    return recvfrom(sntpSocket, sntpReply, sizeof *sntpReply, MSG_DONTWAIT,
                    reinterpret_cast<sockaddr*>(&servAddr), &servAddrLen) != -1;
}

static STATUS sntpcFetch(sockAddrStorage_t* pTarget, u_int timeout, struct timespec* pCurrTime)
{
    SNTP_PACKET sntpReply = {}; // what a short reply does not cover stays zero

    const int sntpSocket = socket(sockGetStorageFamily(pTarget), SOCK_DGRAM, 0);
    if (sntpSocket == -1) {
        return ERROR;
    }
    const bool replied = exchange(sntpSocket, pTarget, timeout, &sntpReply);
    (void)close(sntpSocket); // nothing of it is wanted any more
    if (!replied || sntpReply.transmitTimestampSec == 0 ||
        (sntpReply.leapVerMode & VERSION_MASK) == 0) {
        return ERROR;
    }
    // 32 bits wrap, so that the small numbers of the era after 2036 come out right.
    const uint32_t seconds = ntohl(sntpReply.transmitTimestampSec) - UNIX_EPOCH;
    pCurrTime->tv_sec = static_cast<time_t>(seconds);
    pCurrTime->tv_nsec =
        static_cast<long>(sntpcFractionToNsec(ntohl(sntpReply.transmitTimestampFrac)));
    return OK;
}

static STATUS fetch_from_any(ulist_t* list, u_int timeout, struct timespec* pCurrTime)
{
    STATUS result = ERROR;

    for (int32_t pos = 0; pos < uListSize(list) && result != OK; pos++) {
        if (end_asked(self_record)) {
            break;
        }
        hostInfo_t* hostInfo = reinterpret_cast<hostInfo_t*>(uListGet(list, pos));
        sockAddrStorage_t target = {};
        if (sockSetStorageByBinaryAddr(SOCK_IPTYPE_OTHER, hostInfo->ipAddr.ver,
                                       &hostInfo->ipAddr.addr, load_relaxed(&sntpcPort),
                                       &target) != SEC_OK) {
            continue;
        }
        result = sntpcFetch(&target, timeout, pCurrTime);
    }
    return result;
}

// ---- Operations ----

status_t osaGetTimeFromSntpServer(const char* pServerAddr, int32_t timeout,
                                  struct timespec* sntpTime)
{
    (void)sntpcInit(SNTP_PORT); // cannot fail
    return sntpcTimeGet(const_cast<char*>(pServerAddr), static_cast<u_int>(timeout), sntpTime);
}

STATUS sntpcInit(u_short port)
{
    store_relaxed(&sntpcPort, port);
    return OK;
}

STATUS sntpcTimeGet(char* pServerAddr, u_int timeout, struct timespec* pCurrTime)
{
    const int ticks = static_cast<int>(timeout);
    STATUS result = ERROR;

    thread_record_t* me = op_enter();
    if (pCurrTime == nullptr || (ticks < 0 && ticks != WAIT_FOREVER)) {
        printf("%s: param error.\n", __func__);
    } else if (pServerAddr == nullptr) {
        printf("%s: server is NULL.\n", __func__);
    } else {
        ulist_t* list = osaGetHostByName(pServerAddr, QUERY_ADDRESS, SERV_NONE);
        result = fetch_from_any(list, timeout, pCurrTime);
        osaFreeHostInfoList(list);
    }
    op_leave(me);
    return result;
}
