// Names to addresses, asked of a real server. The rows exist where HNETD_BENCH_DNS is set: in the
// network namespace that dns.py makes, where a server on loopback holds the zone bench.test.
#include "bench.h"

#include "osaResolv.h"

#include <ares.h>
#include <arpa/nameser.h>
#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <resolv.h>
#include <string>
#include <sys/select.h>

namespace {

const char HOST[] = "one.bench.test";
const char OTHER_HOST[] = "two.bench.test";
const char SERVICE[] = "_sip._udp.bench.test";
const char DOMAIN[] = "bench.test";
constexpr int HOST_ADDRESSES = 2;    // an A and an AAAA record
constexpr int SERVICE_ADDRESSES = 4; // of both hosts

struct hnetd {
    static int found(const char* name, queryType_e type)
    {
        ulist_t* list = osaGetHostByName(name, type, SERV_SIP);
        const int count = uListSize(list);
        osaFreeHostInfoList(list);
        return count;
    }
    int address() { return found(HOST, QUERY_ADDRESS); }
    int srv() { return found(SERVICE, QUERY_SRV); }
    int naptr() { return found(DOMAIN, QUERY_NAPTR); }
};

// The same queries and nothing else: no list is built and no answer is parsed.
struct bare {
    struct __res_state state = {};
    bare() { res_ninit(&state); }
    ~bare() { res_nclose(&state); }
    int ask(const char* name, int type)
    {
        u_char answer[NS_PACKETSZ];
        return res_nsearch(&state, name, ns_c_in, type, answer, sizeof answer) > 0 ? 1 : 0;
    }
    int address() { return ask(HOST, ns_t_a) + ask(HOST, ns_t_aaaa); }
    int srv()
    {
        return ask(SERVICE, ns_t_srv) * (ask(HOST, ns_t_a) + ask(OTHER_HOST, ns_t_a) +
                                         ask(HOST, ns_t_aaaa) + ask(OTHER_HOST, ns_t_aaaa));
    }
    int naptr() { return ask(DOMAIN, ns_t_naptr) * srv(); }
};

struct libc {
    int address()
    {
        addrinfo hints = {};
        addrinfo* list = nullptr;
        int count = 0;

        hints.ai_socktype = SOCK_STREAM;
        if (getaddrinfo(HOST, nullptr, &hints, &list) == 0) {
            for (const addrinfo* each = list; each != nullptr; each = each->ai_next) {
                count++;
            }
            freeaddrinfo(list);
        }
        return count;
    }
};

// The queries that do not need each other's answers are under way at the same time.
struct cares {
    ares_channel channel = nullptr;
    int count = 0;

    cares()
    {
        ares_library_init(ARES_LIB_INIT_ALL);
        ares_init(&channel);
    }
    ~cares() { ares_destroy(channel); }
    static void on_addresses(void* arg, int, int, ares_addrinfo* list)
    {
        cares* self = static_cast<cares*>(arg);
        if (list == nullptr) {
            return;
        }
        for (const ares_addrinfo_node* each = list->nodes; each != nullptr; each = each->ai_next) {
            self->count++;
        }
        ares_freeaddrinfo(list);
    }
    static void on_srv(void* arg, int status, int, unsigned char* answer, int length)
    {
        cares* self = static_cast<cares*>(arg);
        ares_srv_reply* records = nullptr;
        if (status != ARES_SUCCESS ||
            ares_parse_srv_reply(answer, length, &records) != ARES_SUCCESS) {
            return;
        }
        for (const ares_srv_reply* each = records; each != nullptr; each = each->next) {
            self->ask_addresses(each->host);
        }
        ares_free_data(records);
    }
    static void on_naptr(void* arg, int status, int, unsigned char* answer, int length)
    {
        cares* self = static_cast<cares*>(arg);
        ares_naptr_reply* records = nullptr;
        if (status != ARES_SUCCESS ||
            ares_parse_naptr_reply(answer, length, &records) != ARES_SUCCESS) {
            return;
        }
        for (const ares_naptr_reply* each = records; each != nullptr; each = each->next) {
            ares_query(self->channel, each->replacement, ns_c_in, ns_t_srv, on_srv, self);
        }
        ares_free_data(records);
    }
    void ask_addresses(const char* name)
    {
        ares_addrinfo_hints hints = {};
        hints.ai_socktype = SOCK_STREAM;
        ares_getaddrinfo(channel, name, nullptr, &hints, on_addresses, this);
    }
    int wait()
    {
        for (;;) {
            fd_set readers;
            fd_set writers;
            timeval space;
            FD_ZERO(&readers);
            FD_ZERO(&writers);
            const int limit = ares_fds(channel, &readers, &writers);
            if (limit == 0) {
                return count;
            }
            select(limit, &readers, &writers, nullptr, ares_timeout(channel, nullptr, &space));
            ares_process(channel, &readers, &writers);
        }
    }
    int address()
    {
        count = 0;
        ask_addresses(HOST);
        return wait();
    }
    int srv()
    {
        count = 0;
        ares_query(channel, SERVICE, ns_c_in, ns_t_srv, on_srv, this);
        return wait();
    }
    int naptr()
    {
        count = 0;
        ares_query(channel, DOMAIN, ns_c_in, ns_t_naptr, on_naptr, this);
        return wait();
    }
};

template <class Resolver, int (Resolver::*look_up)(), int expected>
void look_up_addresses(benchmark::State& state)
{
    Resolver resolver;
    int found = expected;

    for (auto _ : state) {
        const int now = (resolver.*look_up)();
        found = now != expected ? now : found;
    }
    if (found != expected) {
        state.SkipWithError(("found " + std::to_string(found) + " addresses").c_str());
    }
}

template <class Resolver, int (Resolver::*look_up)(), int expected> void add(const char* name)
{
    benchmark::RegisterBenchmark(name, look_up_addresses<Resolver, look_up, expected>)
        ->MeasureProcessCPUTime()
        ->UseRealTime();
}

template <class Resolver> void add_services(const std::string& who)
{
    add<Resolver, &Resolver::srv, SERVICE_ADDRESSES>(("dns.srv/" + who).c_str());
    add<Resolver, &Resolver::naptr, SERVICE_ADDRESSES>(("dns.naptr/" + who).c_str());
}

template <class Resolver> void add_addresses(const std::string& who)
{
    add<Resolver, &Resolver::address, HOST_ADDRESSES>(("dns.address/" + who).c_str());
}

[[maybe_unused]] const bool added = [] {
    if (getenv("HNETD_BENCH_DNS") == nullptr) {
        return false;
    }
    add_addresses<hnetd>("hnetd");
    add_addresses<bare>("res_nsearch");
    add_addresses<libc>("getaddrinfo");
    add_addresses<cares>("c-ares");
    add_services<hnetd>("hnetd");
    add_services<bare>("res_nsearch");
    add_services<cares>("c-ares");
    return true;
}();

} // namespace
