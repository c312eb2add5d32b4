// Stands in for the stub resolver: res_init and res_search, replaced at link time
// (--wrap=res_search,--wrap=__res_init). It hands out answers by name and type, as many bytes as
// there are: the rest of the caller's buffer is filled with rubbish and, under the address
// sanitizer, must not be touched. Included once in a program.
#pragma once

#include "dns_packet.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <mutex>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(addr, size) (static_cast<void>(addr), static_cast<void>(size))
#endif

static std::mutex dns_lock; // guards the answers and the queries
static std::map<std::string, std::pair<std::string, int>> dns_answers; // bytes, length claimed
static std::string dns_queries; // "SRV _sip._udp.x|A host.x|"; "!": without a fresh res_init
static std::function<void()> dns_on_query; // set while nobody asks; runs before the answer

static inline std::string dns_key(const std::string& name, int type)
{
    static const std::map<int, std::string> types = {
        {A, "A "}, {AAAA, "AAAA "}, {SRV, "SRV "}, {NAPTR, "NAPTR "}};
    return types.at(type) + name;
}

static inline long dns_query_count()
{
    return std::count(dns_queries.begin(), dns_queries.end(), '|');
}

static inline void dns_clear()
{
    dns_answers.clear();
    dns_queries.clear();
    dns_on_query = nullptr;
}

/** Sets the answer to a query. It claims to be length bytes long where that is not -1. */
static inline void dns_answer(const std::string& name, int type, const std::string& bytes,
                              int length = -1)
{
    dns_answers[dns_key(name, type)] = {bytes,
                                        length < 0 ? static_cast<int>(bytes.size()) : length};
}

static std::atomic<int> dns_inits;
static thread_local bool dns_initialised;

extern "C" int __wrap___res_init(void)
{
    dns_inits++;
    dns_initialised = true;
    return 0;
}

extern "C" int __wrap_res_search(const char* name, int rclass, int type, unsigned char* answer,
                                 int size)
{
    std::pair<std::string, int> found = {"", -1};
    {
        const std::lock_guard<std::mutex> guard(dns_lock);
        const std::string key = dns_key(name, type);
        dns_queries += (dns_initialised && rclass == 1 ? "" : "!") + key + '|';
        if (dns_answers.count(key) != 0) {
            found = dns_answers[key];
        }
    }
    dns_initialised = false;
    if (dns_on_query) {
        dns_on_query();
    }
    const size_t room = static_cast<size_t>(size);
    const size_t given = std::min(room, found.first.size());
    memset(answer, 0xc0, room); // reads as pointers
    memcpy(answer, found.first.data(), given);
    ASAN_POISON_MEMORY_REGION(answer + given, room - given);
    return found.second;
}
