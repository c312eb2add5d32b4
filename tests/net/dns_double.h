// Stands in for the stub resolver: res_init and res_search, replaced at link time
// (--wrap=res_search,--wrap=__res_init). It hands out answers by name and type, as many bytes as
// there are: the rest of the caller's buffer is filled with rubbish and, under the address
// sanitizer, must not be touched. Included once in a program.
#pragma once

#include "dns_packet.h"
#include "internal.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <latch>
#include <mutex>
#include <sanitizer/asan_interface.h>
#include <semaphore>

static std::mutex dns_lock; // guards the answers and the queries
static std::map<std::string, std::pair<std::string, int>> dns_answers; // bytes, length claimed
static std::string dns_queries; // "SRV _sip._udp.x|A host.x|"; "!": without a fresh res_init
static std::function<void()> dns_on_query = [] {}; // runs before the answer

static inline std::string dns_key(const std::string& name, int type)
{
    static const std::map<int, std::string> types = {
        {A, "A "}, {AAAA, "AAAA "}, {SRV, "SRV "}, {NAPTR, "NAPTR "}};
    return types.at(type) + name;
}

/** The number of queries in such a text, or of results. */
static inline long count_of(const std::string& text)
{
    return std::count(text.begin(), text.end(), '|');
}

static inline void dns_clear()
{
    dns_answers.clear();
    dns_queries.clear();
}

/** Sets the answer to a query. It claims to be length bytes long where that is not -1. */
static inline void dns_answer(const std::string& name, int type, const std::string& bytes,
                              int length = -1)
{
    dns_answers[dns_key(name, type)] = {bytes,
                                        length < 0 ? static_cast<int>(bytes.size()) : length};
}

static thread_local bool dns_initialised;

extern "C" int __wrap___res_init(void)
{
    EXPECT_EQ(pthread_mutex_trylock(&environ_lock), EBUSY); // it reads the environment
    dns_initialised = true;
    return 0;
}

extern "C" int __wrap_res_search(const char* name, int rclass, int type, unsigned char* answer,
                                 int size)
{
    const std::lock_guard<std::mutex> guard(dns_lock);
    const std::string key = dns_key(name, type);
    const auto& [bytes, length] = dns_answers.emplace(key, std::pair("", -1)).first->second;
    dns_queries += (dns_initialised && rclass == 1 ? "" : "!") + key + '|';
    dns_initialised = false;
    dns_on_query();
    const size_t room = static_cast<size_t>(size);
    const size_t given = std::min(room, bytes.size());
    memset(answer, 0xc0, room); // reads as pointers
    memcpy(answer, bytes.data(), given);
    ASAN_POISON_MEMORY_REGION(answer + given, room - given);
    return length;
}

/** Deletes a task while its body stands in a hook. @return true if it ends, and only once let go */
static inline bool ends_in(std::function<void()>* hook, const std::function<void()>& body)
{
    std::counting_semaphore<> there(0);
    std::latch deleted(1);
    probe p;

    *hook = [&] {
        there.release();
        deleted.wait();
    };
    const taskId_t id = spawn([&] {
        probe_attach(&p);
        body();
        ADD_FAILURE() << "not ended";
    });
    there.acquire();
    EXPECT_EQ(taskDelete(id), OK);
    EXPECT_FALSE(p.ended);
    deleted.count_down();
    const bool ended = eventually([&] { return p.ended.load(); });
    *hook = [] {};
    return ended;
}
