// Demonstrations of the network services: addresses read, compared and looked up, and the time from
// a server; at the start and then every minute, on a task that may wait for its answers.
//
// The environment says what is asked:
//     HNETD_DEMO_NAMES  names, with commas in between: naptr:NAME asks for the SIP services of a
//                       domain (NAPTR), a name that begins with '_' for a service (SRV), any other
//                       for the addresses of a host
//     HNETD_DEMO_SNTP   name or address of a server, which is asked on port 123
// as in HNETD_DEMO_NAMES=example.com,_sip._udp.example.com,naptr:example.com. Without the first,
// only address literals are looked up, which send no query; without the second, a server of the
// demonstration's own answers on loopback. Then no network is needed.
#include "nxaLog.h"
#include "osaResolv.h"
#include "osaSocket.h"
#include "osaTask.h"
#include "sntp.h"

#include "demo.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static const char* names = "127.0.0.1,::1,[2001:db8::1]";
static const char* time_server; // null: the demonstration's own

// ---- Addresses: text to binary, and compared ----

static void compare(const char* one, const char* other)
{
    static constexpr const char* relations[] = {"not comparable with", "greater than", "equal to",
                                                "less than"}; // by sockIpCmp_e
    char text[INET6_ADDRSTRLEN] = "";
    sockIpAddr_t addresses[2];

    if (sockIpAddrPton(one, &addresses[0]) != SEC_OK ||
        sockIpAddrPton(other, &addresses[1]) != SEC_OK ||
        sockIpAddrNtop(&addresses[0], text, sizeof text) != SEC_OK) {
        SAY("%s or %s is no address", one, other);
        return;
    }
    SAY("address %s is %s, %s %s", one, text,
        relations[sockCompareIpAddr(&addresses[0], &addresses[1])], other);
}

// ---- Look-ups ----

struct query_t {
    const char* prefix; // of the names that it is for
    size_t skipped;     // characters of the prefix that are not part of the name
    queryType_e type;
    const char* what;
};

static constexpr query_t queries[] = {
    {"naptr:", 6, QUERY_NAPTR, "SIP services of"},
    {"_", 0, QUERY_SRV, "service"},
    {"", 0, QUERY_ADDRESS, "addresses of"}, // whatever is left
};

static const query_t* query_for(const char* name)
{
    const query_t* query = queries;
    while (strncmp(name, query->prefix, strlen(query->prefix)) != 0) {
        query++;
    }
    return query;
}

static void say_record(hostInfo_t* record)
{
    static constexpr const char* protocols[] = {"", " tcp", " udp"}; // by protoType_e
    char address[INET6_ADDRSTRLEN] = "";

    sockIpAddrNtop(&record->ipAddr, address, sizeof address);
    if (record->port == 0) { // of a host: the port is for whoever asks to know
        SAY("  %s, may be kept for %d s", address, record->ttl);
        return;
    }
    SAY("  %s port %d%s, may be kept for %d s", address, record->port, protocols[record->type],
        record->ttl);
}

static void look_up(const char* asked)
{
    const query_t* query = query_for(asked);
    const char* name = asked + query->skipped;
    const int64_t begun_us = now_us();

    ulist_t* found = osaGetHostByName(name, query->type, SERV_SIP); // null: nothing found
    SAY("%s %s: %d found in %.1f ms", query->what, name, found != nullptr ? uListSize(found) : 0,
        static_cast<double>(now_us() - begun_us) / 1e3);
    for (int32_t pos = 0; !uListEol(found, pos); pos++) {
        say_record(reinterpret_cast<hostInfo_t*>(uListGet(found, pos)));
    }
    osaFreeHostInfoList(found);
}

static void look_up_all(void)
{
    char name[260]; // "naptr:" and the longest name that the DNS has; longer ones are passed over
    const char* rest = names;

    while (*rest != '\0') {
        const size_t length = strcspn(rest, ",");
        if (length > 0 && length < sizeof name) {
            memcpy(name, rest, length);
            name[length] = '\0';
            look_up(name);
        }
        rest += rest[length] == ',' ? length + 1 : length;
    }
}

// ---- A time server on loopback (RFC 4330) ----

static constexpr uint32_t UNIX_EPOCH = 2'208'988'800; // seconds from 1900 to 1970
static constexpr uint8_t VERSION_MASK = 0x38;
static constexpr uint8_t SERVER_MODE = 4;
static int server_socket = -1;
static uint16_t server_port;

static SNTP_PACKET reply_to(const SNTP_PACKET* request)
{
    SNTP_PACKET reply = {};
    struct timespec now;

    clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t fraction = (static_cast<uint64_t>(now.tv_nsec) << 32) / 1'000'000'000;
    reply.leapVerMode = static_cast<uint8_t>((request->leapVerMode & VERSION_MASK) | SERVER_MODE);
    reply.stratum = 1;
    reply.originateTimestampSec = request->transmitTimestampSec;
    reply.originateTimestampFrac = request->transmitTimestampFrac;
    // 32 bits wrap in 2036; the client knows.
    reply.transmitTimestampSec = htonl(static_cast<uint32_t>(now.tv_sec) + UNIX_EPOCH);
    reply.transmitTimestampFrac = htonl(static_cast<uint32_t>(fraction));
    reply.receiveTimestampSec = reply.transmitTimestampSec;
    reply.receiveTimestampFrac = reply.transmitTimestampFrac;
    return reply;
}

static int serve_time([[maybe_unused]] int unused)
{
    taskNeedCheck();
    for (;;) {
        SNTP_PACKET request;
        struct sockaddr_in client;
        socklen_t size = sizeof client;
        if (recvfrom(server_socket, &request, sizeof request, 0,
                     reinterpret_cast<sockaddr*>(&client), &size) != sizeof request) {
            taskDelay(1); // nothing to answer; a socket that fails must not keep a core busy
            continue;
        }
        const SNTP_PACKET reply = reply_to(&request);
        (void)sendto(server_socket, &reply, sizeof reply, 0, reinterpret_cast<sockaddr*>(&client),
                     size); // a client without a reply asks again
    }
}

static bool open_server(void)
{
    struct sockaddr_in address = {};
    socklen_t size = sizeof address;

    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    server_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (server_socket < 0) {
        return false;
    }
    sockaddr* any = reinterpret_cast<sockaddr*>(&address);
    if (bind(server_socket, any, size) != 0 || getsockname(server_socket, any, &size) != 0) {
        close(server_socket);
        return false;
    }
    server_port = ntohs(address.sin_port); // that the system chose
    return true;
}

// ---- The time from a server ----

static void ask_time(void)
{
    static char own_server[] = "127.0.0.1";
    const char* server = time_server != nullptr ? time_server : own_server;
    struct timespec told;
    struct timespec now;
    status_t result = ERROR;

    if (time_server != nullptr) {
        result = osaGetTimeFromSntpServer(time_server, 0, &told);
    } else {
        sntpcInit(server_port);
        result = sntpcTimeGet(own_server, 0, &told);
    }
    clock_gettime(CLOCK_REALTIME, &now);
    if (result != OK) {
        SAY("no time from %s", server);
        return;
    }
    SAY("time from %s: %lld.%03ld s since 1970, %+.3f ms from the system's", server,
        static_cast<long long>(told.tv_sec), told.tv_nsec / 1'000'000,
        static_cast<double>(told.tv_sec - now.tv_sec) * 1e3 +
            static_cast<double>(told.tv_nsec - now.tv_nsec) / 1e6);
}

static int use_the_network([[maybe_unused]] int unused)
{
    taskNeedCheck();
    for (;;) {
        compare("2001:0DB8:0:0:0:0:0:1", "[2001:db8::1]");
        compare("192.0.2.1", "192.0.2.2");
        look_up_all();
        ask_time();
        taskDelay(ticks(60'000));
    }
}

void demo_net(void)
{
    static char server[] = "tDemoSntpServer";
    static char client[] = "tDemoNet";
    const char* wanted = getenv("HNETD_DEMO_NAMES");

    names = wanted != nullptr ? wanted : names;
    time_server = getenv("HNETD_DEMO_SNTP");
    if (time_server == nullptr) {
        if (open_server()) {
            start_task(server, serve_time);
        } else {
            SAY("no socket for a time server");
        }
    }
    start_task(client, use_the_network);
}
