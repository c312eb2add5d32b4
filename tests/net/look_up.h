// Look-ups of the resolver with their results as text.
#pragma once

#include "osaResolv.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string>

/** "udp 10.0.0.1:5060 60|" per result; proto and port only where they are set. Frees the list. */
static inline std::string take_results(ulist_t* list)
{
    const char* const protos[] = {"", "tcp ", "udp "};
    std::string all;

    for (int32_t pos = 0; uListEol(list, pos) == 0; pos++) {
        auto* host = reinterpret_cast<hostInfo_t*>(uListGet(list, pos));
        char text[INET6_ADDRSTRLEN] = "?";
        sockIpAddrNtop(&host->ipAddr, text, sizeof text);
        all += std::string(protos[host->type]) + text;
        all += host->port != 0 ? ":" + std::to_string(host->port) : "";
        all += " " + std::to_string(host->ttl) + "|";
    }
    EXPECT_TRUE(list == nullptr || !all.empty());
    osaFreeHostInfoList(list);
    return all;
}

static inline std::string look_up(const std::string& name, queryType_e type,
                                  serviceName_e service = SERV_NONE)
{
    return take_results(osaGetHostByName(name.c_str(), type, service));
}

static inline std::string addresses(const std::string& name)
{
    return look_up(name, QUERY_ADDRESS);
}
