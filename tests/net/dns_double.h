// Stands in for the stub resolver: res_init and res_search, replaced at link time
// (--wrap=res_search,--wrap=__res_init). It hands out answers by name and type, as many bytes as
// there are: the rest of the caller's buffer is filled with rubbish and, under the address
// sanitizer, must not be touched.
#pragma once

#include "dns_packet.h"

#include <functional>
#include <string>

/** Forgets answers, queries and hooks. */
void dns_clear();

/** Sets the answer to a query. It claims length bytes where that is not -1. */
void dns_answer(const std::string& name, unsigned type, const dns_packet& packet, int length = -1);
void dns_answer(const std::string& name, unsigned type, const std::string& bytes, int length = -1);

/** Queries so far: "SRV _sip._udp.x|A host.x|". "!" stands before one without a fresh res_init. */
std::string dns_queries();

/** Queries so far, by number. */
int dns_query_count();

/** Called in each query before it is answered, on the thread that asks. */
void dns_on_query(std::function<void()> hook);
