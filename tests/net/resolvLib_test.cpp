#include "osaResolv.h"

#include "dns_double.h"
#include "fail.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <random>
#include <semaphore>
#include <thread>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#else
#define __lsan_do_recoverable_leak_check() 0
#endif

using std::string;

static string hosts_by_name; // calls of gethostbyname, "a|b|"
static in_addr named = {0};  // what it finds; 0: nothing

extern "C" hostent* __wrap_gethostbyname(const char* name)
{
    static char* addrs[] = {reinterpret_cast<char*>(&named), nullptr};
    static hostent found = {};

    hosts_by_name += string(name) + '|';
    found.h_addr_list = addrs;
    return named.s_addr != 0 ? &found : nullptr;
}

// "udp 10.0.0.1:5060 60|" for each result; port and proto only where they are set. Frees the list.
static string take_results(ulist_t* list)
{
    const char* const protos[] = {"", "tcp ", "udp "};
    string all;

    for (int32_t pos = 0; uListEol(list, pos) == 0; pos++) {
        auto* host = reinterpret_cast<hostInfo_t*>(uListGet(list, pos));
        char text[INET6_ADDRSTRLEN] = "?";
        sockIpAddrNtop(&host->ipAddr, text, sizeof text);
        all += string(protos[host->type]) + text;
        all += host->port != 0 ? ":" + std::to_string(host->port) : "";
        all += " " + std::to_string(host->ttl) + "|";
    }
    EXPECT_TRUE(list == nullptr || !all.empty());
    osaFreeHostInfoList(list);
    return all;
}

static string look_up(const char* name, queryType_e type, serviceName_e service = SERV_NONE)
{
    return take_results(osaGetHostByName(name, type, service));
}

static string addresses(const char* name)
{
    return look_up(name, QUERY_ADDRESS);
}

// What an A query with this answer gives.
static string parsed(const dns_packet& packet, int length = -1)
{
    dns_answer("host.x", DNS_A, packet, length);
    return addresses("host.x");
}

class ResolverTest : public testing::Test {
  protected:
    void SetUp() override { dns_clear(); }
    void TearDown() override { dns_clear(); }

    // A host with one address of each kind: "10.0.0.n" and "fd00::n".
    static void add_host(const string& name, int n)
    {
        dns_answer(name, DNS_A, dns_packet().question(name, DNS_A).a(name, ipv4(n)));
        dns_answer(name, DNS_AAAA, dns_packet().question(name, DNS_AAAA).aaaa(name, ipv6(n)));
    }
    static string ipv4(int n) { return "10.0.0." + std::to_string(n); }
    static string ipv6(int n) { return "fd00::" + std::to_string(n); }
};

// ---- Addresses ----

TEST_F(ResolverTest, LiteralsAreTheirOwnAnswer)
{
    EXPECT_EQ(addresses("192.168.1.9"), "192.168.1.9 0|");
    EXPECT_EQ(addresses("[2001:db8::1]"), "2001:db8::1 0|");
    EXPECT_EQ(dns_queries(), "");
    EXPECT_EQ(addresses("1.2.3"), ""); // a name like any other
    EXPECT_EQ(dns_queries(), "A 1.2.3|AAAA 1.2.3|");
}

TEST_F(ResolverTest, AddressesComeInTheOrderOfTheQueriesAndTheAnswers)
{
    dns_answer("host.x", DNS_A,
               dns_packet()
                   .compress()
                   .question("host.x", DNS_A)
                   .a("host.x", "10.0.0.2", 0x80000001)
                   .a("host.x", "10.0.0.1", 7));
    dns_answer("host.x", DNS_AAAA, dns_packet().question("host.x", DNS_AAAA).aaaa("host.x", "::2"));
    EXPECT_EQ(addresses("host.x"), "10.0.0.2 -2147483647|10.0.0.1 7|::2 60|");
    EXPECT_EQ(dns_queries(), "A host.x|AAAA host.x|");
}

TEST_F(ResolverTest, AliasesAreSteppedOverAndOtherSectionsTaken)
{
    dns_packet alias;
    alias.compress().question("www.x", DNS_A).cname("www.x", "longer-than-an-address.x");
    alias.cname("longer-than-an-address.x", "b.y");
    alias.a("b.y", "10.0.0.1").record("b.y", DNS_TXT, string(200, 't'));
    alias.section(DNS_AUTHORITY).a("ns.y", "10.0.0.2");
    alias.section(DNS_ADDITIONAL).aaaa("ns.y", "::2");
    dns_answer("www.x", DNS_A, alias);
    dns_answer("www.x", DNS_AAAA, alias);
    const string once = "10.0.0.1 60|10.0.0.2 60|::2 60|";
    EXPECT_EQ(addresses("www.x"), once + once);
}

TEST_F(ResolverTest, OneKindMayBeMissing)
{
    dns_answer("six.x", DNS_AAAA, dns_packet().aaaa("six.x", "::6"));
    EXPECT_EQ(addresses("six.x"), "::6 60|");
    dns_answer("four.x", DNS_A, dns_packet().a("four.x", "10.0.0.4"));
    EXPECT_EQ(addresses("four.x"), "10.0.0.4 60|");
    EXPECT_EQ(addresses("none.x"), "");
}

TEST_F(ResolverTest, NothingIsAskedForNothing)
{
    for (const queryType_e type : {QUERY_ADDRESS, QUERY_SRV, QUERY_NAPTR}) {
        EXPECT_EQ(osaGetHostByName(nullptr, type, SERV_NONE), nullptr);
        EXPECT_EQ(osaGetHostByName("", type, SERV_NONE), nullptr);
    }
    EXPECT_EQ(osaGetHostByName("10.0.0.1", static_cast<queryType_e>(3), SERV_NONE), nullptr);
    osaFreeHostInfoList(nullptr);
    EXPECT_EQ(dns_queries(), "");
}

// ---- Services ----

TEST_F(ResolverTest, ServicesByPriorityAndWeight)
{
    const char* const name = "_sip._udp.x";
    dns_packet answer;
    answer.compress().question(name, DNS_SRV);
    answer.srv(name, 20, 5, 4, "d.x").srv(name, 10, 1, 3, "c.x");
    answer.srv(name, 10, 60, 1, "a.x").srv(name, 10, 30, 2, "b.x");
    dns_answer(name, DNS_SRV, answer);
    for (const int n : {1, 2, 4}) { // c.x has no address
        add_host(string(1, static_cast<char>('a' + n - 1)) + ".x", n);
    }
    EXPECT_EQ(look_up(name, QUERY_SRV), "udp 10.0.0.1:1 60|udp 10.0.0.2:2 60|udp 10.0.0.4:4 60|"
                                        "udp fd00::1:1 60|udp fd00::2:2 60|udp fd00::4:4 60|");
    EXPECT_EQ(dns_queries(), "SRV _sip._udp.x|A a.x|A b.x|A c.x|A d.x|"
                             "AAAA a.x|AAAA b.x|AAAA c.x|AAAA d.x|");
}

TEST_F(ResolverTest, EqualServicesKeepTheOrderOfTheExchanges)
{
    std::mt19937 random(3);
    for (int round = 0; round < 30; round++) {
        struct service {
            unsigned priority, weight;
            char id;
        };
        std::vector<service> model(random() % 12);
        const unsigned values[] = {0, 1, 2, 65535};
        dns_clear();
        dns_packet answer;
        for (size_t i = 0; i < model.size(); i++) {
            model[i] = {values[random() % 4], values[random() % 4], static_cast<char>('a' + i)};
            answer.srv("s", model[i].priority, model[i].weight, 1, string(1, model[i].id));
        }
        dns_answer("s", DNS_SRV, answer);

        for (size_t i = 0; i < model.size(); i++) {
            for (size_t j = i + 1; j < model.size(); j++) {
                if (model[i].priority > model[j].priority) {
                    std::swap(model[i], model[j]);
                }
            }
        }
        for (size_t i = 0; i < model.size(); i++) {
            for (size_t j = i + 1; j < model.size() && model[j].priority == model[i].priority;
                 j++) {
                if (model[i].weight < model[j].weight) {
                    std::swap(model[i], model[j]);
                }
            }
        }
        string expected = "SRV s|";
        for (const char* type : {"A ", "AAAA "}) {
            for (const service& s : model) {
                expected += type + string(1, s.id) + '|';
            }
        }
        EXPECT_EQ(look_up("s", QUERY_SRV), "");
        ASSERT_EQ(dns_queries(), expected);
    }
}

TEST_F(ResolverTest, TheServiceNameTellsTheTransport)
{
    const std::pair<const char*, const char*> cases[] = {
        {"_sip._udp.x", "udp 10.0.0.1:9 60|udp fd00::1:9 60|"},
        {"_sip._tcp.x", "tcp 10.0.0.1:9 60|tcp fd00::1:9 60|"},
        {"_udp._tcp.x", "tcp 10.0.0.1:9 60|tcp fd00::1:9 60|"},
        {"_sip._tcp", "10.0.0.1:9 60|fd00::1:9 60|"},
        {"_udp.x_tcp.", "tcp 10.0.0.1:9 60|tcp fd00::1:9 60|"},
        {"_sip._UDP.x", "10.0.0.1:9 60|fd00::1:9 60|"},
        {"_sip._udp", "10.0.0.1:9 60|fd00::1:9 60|"},
    };
    add_host("t.x", 1);
    for (const auto& [name, results] : cases) {
        dns_answer(name, DNS_SRV, dns_packet().srv(name, 0, 0, 9, "t.x"));
        EXPECT_EQ(look_up(name, QUERY_SRV), results) << name;
    }
}

// ---- Services of a domain ----

TEST_F(ResolverTest, DomainsByOrderAndPreference)
{
    dns_packet answer;
    answer.compress().question("x", DNS_NAPTR);
    answer.naptr("x", 10, 7, "s", "SIP+D2U", "", "_udp.b");
    answer.naptr("x", 10, 3, "S", "sip+d2t", "!^.*$!", "_tcp.a");
    answer.naptr("x", 5, 9, "s", "Sip+D2S", "", "c");
    dns_answer("x", DNS_NAPTR, answer);
    dns_answer("_udp.b", DNS_SRV, dns_packet().srv("_udp.b", 0, 0, 1, "one.x"));
    dns_answer("_tcp.a", DNS_SRV, dns_packet().srv("_tcp.a", 0, 0, 2, "two.x"));
    add_host("one.x", 1);
    add_host("two.x", 2);
    EXPECT_EQ(look_up("x", QUERY_NAPTR, SERV_SIP), "tcp 10.0.0.2:2 60|tcp fd00::2:2 60|"
                                                   "udp 10.0.0.1:1 60|udp fd00::1:1 60|");
    EXPECT_EQ(dns_queries(), "NAPTR x|SRV c|SRV _tcp.a|A two.x|AAAA two.x|"
                             "SRV _udp.b|A one.x|AAAA one.x|");
}

TEST_F(ResolverTest, OnlyTerminalRecordsOfTheService)
{
    const struct {
        const char* flags;
        string service;
        serviceName_e wanted;
        bool followed;
    } cases[] = {
        {"s", "SIP+D2U", SERV_SIP, true},
        {"S", "sIp+", SERV_SIP, true},
        {"s", "SIP", SERV_SIP, false},
        {"s", "SIPS+D2T", SERV_SIP, false},
        {"s", "", SERV_SIP, false},
        {"s", "+SIP", SERV_SIP, false},
        {"s", "XMPP", SERV_NONE, true},
        {"s", "", SERV_NONE, true},
        {"su", "SIP+D2U", SERV_SIP, false},
        {"a", "SIP+D2U", SERV_NONE, false},
        {"", "SIP+D2U", SERV_NONE, false},
        {"s", "SIP+D2U", static_cast<serviceName_e>(2), false},
        {"s", "SIP" + string(60, ' ') + "+", SERV_SIP, false},
        {"s", string(200, 'S') + "+D2U", SERV_NONE, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flags + (" " + c.service));
        dns_clear();
        dns_packet answer;
        answer.naptr("x", 1, 1, "s", "SIP+D2U", "", "first");
        answer.naptr("x", 2, 1, c.flags, c.service, "", "second");
        answer.naptr("x", 3, 1, "s", "SIP+D2U", "", "third"); // hidden by one that is not taken
        dns_answer("x", DNS_NAPTR, answer);
        EXPECT_EQ(look_up("x", QUERY_NAPTR, c.wanted), "");
        const bool first_too = c.wanted <= SERV_SIP;
        EXPECT_EQ(dns_queries(), c.followed  ? "NAPTR x|SRV first|SRV second|SRV third|"
                                 : first_too ? "NAPTR x|SRV first|"
                                             : "NAPTR x|");
    }
}

// ---- Hostile answers ----

TEST_F(ResolverTest, LyingLengthsAndCounts)
{
    dns_packet two;
    two.question("host.x", DNS_A).a("host.x", "10.0.0.1").a("host.x", "10.0.0.2");
    const string both = "10.0.0.1 60|10.0.0.2 60|";

    EXPECT_EQ(parsed(two, -1), both);
    for (int length = 0; length < 12; length++) {
        EXPECT_EQ(parsed(two, length), "");
    }
    const struct {
        dns_section section;
        unsigned count;
        string results;
    } cases[] = {
        {DNS_ANSWER, 65535, both},
        {DNS_ANSWER, 1, "10.0.0.1 60|"},
        {DNS_ANSWER, 0, ""},
        {DNS_AUTHORITY, 65534, ""}, // the sum wraps to 0
        {DNS_AUTHORITY, 65535, "10.0.0.1 60|"},
        {DNS_ADDITIONAL, 65535, "10.0.0.1 60|"},
        {DNS_QUESTION, 65535, ""},
        {DNS_QUESTION, 2, ""}, // the first record is skipped for a question, its data in the middle
    };
    for (const auto& c : cases) {
        EXPECT_EQ(parsed(dns_packet(two).count(c.section, c.count)), c.results)
            << c.section << ' ' << c.count;
    }
}

TEST_F(ResolverTest, TheEndIsNoFurtherThanTheBuffer)
{
    dns_packet many;
    string expected;
    many.compress().question("host.x", DNS_A);
    for (int n = 1; n <= 60; n++) {
        many.a("host.x", ipv4(n));
        expected += many.size() <= 512 ? ipv4(n) + " 60|" : "";
    }
    ASSERT_GT(many.size(), 512U);
    EXPECT_EQ(parsed(many), expected); // as many bytes as fit, the full length claimed
    EXPECT_EQ(parsed(many, 65535), expected);
}

TEST_F(ResolverTest, WhatCannotBeSteppedOverEndsTheWalk)
{
    const string good = "10.0.0.1 60|";
    const string addr("\x0a\0\0\x02", 4);
    auto first = [] { return dns_packet().a("host.x", "10.0.0.1"); };

    // Owner names: a loop, past the end, a bad label type, too long.
    const string long_label = '\x3f' + string(63, 'l');
    const string long_name = long_label + long_label + long_label + long_label + '\0';
    const size_t here = first().size();
    string self;
    put16(&self, 0xc000U | static_cast<unsigned>(here));
    for (const string& owner : {self, string("\xc3\xff"), string("\x40xx"), string("\x80xx"),
                                long_name, string("\x3fshort"), string("\xc0")}) {
        EXPECT_EQ(parsed(first().record_owned(owner, DNS_A, addr).a("host.x", "10.0.0.3")), good);
    }
    // A pointer ahead is the platform's to judge; the walk goes on behind it, or ends.
    const string ahead = parsed(first().record_owned("\xc0\x2f", DNS_A, addr));
    EXPECT_TRUE(ahead == good || ahead == good + "10.0.0.2 60|") << ahead;
    // Read from one byte back, what follows would make an address.
    const string one_back("\x01\0\x80\0\0\0\x05\0\x04\x0a\0\0\x09", 13);
    dns_packet zero;
    zero.a("host.x", "10.0.0.0").raw(one_back).count(DNS_ANSWER, 2);
    EXPECT_EQ(parsed(zero), "10.0.0.0 60|");
    // A question whose name cannot be skipped.
    EXPECT_EQ(parsed(dns_packet().raw("\x40").count(DNS_QUESTION, 1).a("host.x", "10.0.0.1")), "");

    // Data that passes the end, of a kind wanted or not.
    EXPECT_EQ(parsed(first().record("host.x", DNS_A, addr, 5)), good);
    EXPECT_EQ(parsed(first().record("host.x", DNS_A, addr, 65535)), good);
    EXPECT_EQ(parsed(first().record("host.x", DNS_TXT, addr, 5)), good);
}

TEST_F(ResolverTest, ShortAddressesAreSteppedOver)
{
    const string bytes(16, '\x01');
    dns_packet answer;
    for (const size_t size : {0U, 1U, 3U}) {
        answer.record("host.x", DNS_A, bytes.substr(0, size));
    }
    for (const size_t size : {0U, 4U, 15U}) {
        answer.record("host.x", DNS_AAAA, bytes.substr(0, size));
    }
    answer.record("host.x", DNS_A, bytes.substr(0, 9)); // the rest is nobody's
    answer.aaaa("host.x", "::5").record("host.x", DNS_A, "");
    EXPECT_EQ(parsed(answer), "1.1.1.1 60|::5 60|");
}

// Queries that follow from the answer to the first one.
static string followed(queryType_e type, unsigned wire_type, const dns_packet& answer)
{
    dns_clear();
    dns_answer("x", wire_type, answer);
    EXPECT_EQ(look_up("x", type), "");
    return dns_queries().substr(dns_queries().find('|') + 1);
}

TEST_F(ResolverTest, ServiceDataIsBoundedByItsLength)
{
    string fixed;
    for (const unsigned value : {1U, 2U, 3U}) {
        put16(&fixed, value);
    }
    const string data = fixed + wire_name("long.x");
    for (size_t length = 0; length <= data.size(); length++) {
        dns_packet answer;
        answer.srv("x", 0, 0, 1, "ok.x");
        answer.record("x", DNS_SRV, data.substr(0, length));
        answer.record("x", DNS_TXT, data.substr(length)); // where the name would go on
        answer.srv("x", 9, 0, 1, "last.x");
        const string all = length < data.size() ? "A ok.x|AAAA ok.x|"
                                                : "A ok.x|A long.x|A last.x|"
                                                  "AAAA ok.x|AAAA long.x|AAAA last.x|";
        EXPECT_EQ(followed(QUERY_SRV, DNS_SRV, answer), all) << length;

        dns_packet at_the_end;
        at_the_end.record("x", DNS_SRV, data.substr(0, length));
        EXPECT_EQ(followed(QUERY_SRV, DNS_SRV, at_the_end),
                  length < data.size() ? "" : "A long.x|AAAA long.x|");
    }
    EXPECT_EQ(followed(QUERY_SRV, DNS_SRV, dns_packet().srv("x", 0, 0, 1, "")), ""); // the root
    dns_packet with_rest;
    with_rest.record("x", DNS_SRV, fixed + wire_name("a.x") + "rest").srv("x", 2, 0, 0, "b.x");
    EXPECT_EQ(followed(QUERY_SRV, DNS_SRV, with_rest), "A a.x|A b.x|AAAA a.x|AAAA b.x|");
}

TEST_F(ResolverTest, DomainDataIsBoundedByItsLength)
{
    string data;
    put16(&data, 7);
    put16(&data, 7);
    for (const char* text : {"s", "SIP+D2U", "!re!"}) {
        put_string(&data, text);
    }
    data += wire_name("long.x");
    for (size_t length = 0; length <= data.size(); length++) {
        dns_packet answer;
        answer.naptr("x", 1, 1, "s", "SIP+D2U", "", "ok.x");
        answer.record("x", DNS_NAPTR, data.substr(0, length));
        answer.record("x", DNS_TXT, data.substr(length));
        answer.naptr("x", 9, 1, "s", "SIP+D2U", "", "last.x");
        EXPECT_EQ(followed(QUERY_NAPTR, DNS_NAPTR, answer),
                  length < data.size() ? "SRV ok.x|" : "SRV ok.x|SRV long.x|SRV last.x|")
            << length;

        dns_packet at_the_end;
        at_the_end.record("x", DNS_NAPTR, data.substr(0, length));
        EXPECT_EQ(followed(QUERY_NAPTR, DNS_NAPTR, at_the_end),
                  length < data.size() ? "" : "SRV long.x|");
    }
    // A string that claims more than the record has, by one byte or as much as it can.
    for (const size_t at : {4U, 6U, 14U}) {
        for (const size_t claimed : {data.size() - at, size_t{255}}) {
            string lying = data;
            lying[at] = static_cast<char>(claimed);
            dns_packet answer;
            answer.record("x", DNS_NAPTR, lying);
            EXPECT_EQ(followed(QUERY_NAPTR, DNS_NAPTR, answer), "") << at;
            EXPECT_EQ(followed(QUERY_NAPTR, DNS_NAPTR, answer.raw(string(300, '\0'))), "") << at;
        }
    }
}

// Good answers of each kind, cut at every byte: what lies whole before the cut is used.
TEST_F(ResolverTest, CutAnswersGiveTheirWholeRecords)
{
    for (const bool compressed : {false, true}) {
        dns_packet address, service, domain, mixed;
        for (dns_packet* p : {&address, &service, &domain, &mixed}) {
            if (compressed) {
                p->compress();
            }
        }
        address.question("x", DNS_A).cname("x", "y.x").a("y.x", "10.0.0.1").aaaa("y.x", "::1");
        address.section(DNS_ADDITIONAL).a("z.x", "10.0.0.2");
        mixed.section(DNS_AUTHORITY).record("x", DNS_TXT, string(30, 't')).a("x", "10.0.0.9");
        service.question("x", DNS_SRV).srv("x", 1, 0, 1, "a.x").srv("x", 1, 0, 1, "b.x");
        service.section(DNS_ADDITIONAL).a("a.x", "10.0.0.1").srv("x", 2, 0, 1, "c.x");
        domain.question("x", DNS_NAPTR).naptr("x", 1, 1, "s", "SIP+D2U", "", "_sip._udp.x");
        domain.naptr("x", 2, 1, "s", "SIP+D2T", "!a!b!", "_sip._tcp.x");
        const struct {
            const dns_packet& packet;
            queryType_e type;
            unsigned wire_type;
            unsigned queries_each; // for every record of the type that was taken
        } cases[] = {{address, QUERY_ADDRESS, DNS_A, 0},
                     {mixed, QUERY_ADDRESS, DNS_A, 0},
                     {service, QUERY_SRV, DNS_SRV, 2},
                     {domain, QUERY_NAPTR, DNS_NAPTR, 1}};
        for (const auto& c : cases) {
            for (size_t length = 0; length <= c.packet.size(); length++) {
                dns_clear();
                dns_answer("x", c.wire_type, c.packet.bytes().substr(0, length));
                ulist_t* list = osaGetHostByName("x", c.type, SERV_NONE);
                const int found = std::max(uListSize(list), 0);
                osaFreeHostInfoList(list);
                auto whole = [&](unsigned type) {
                    const std::vector<size_t> ends = c.packet.ends(type);
                    return std::count_if(ends.begin(), ends.end(),
                                         [&](size_t end) { return end <= length; });
                };
                if (c.type == QUERY_ADDRESS) {
                    ASSERT_EQ(found, whole(DNS_A) + whole(DNS_AAAA)) << length;
                } else {
                    ASSERT_EQ(dns_query_count() - 1, whole(c.wire_type) * c.queries_each) << length;
                }
            }
        }
    }
}

// Every byte of good answers replaced by every value that matters; the sanitizers watch.
TEST_F(ResolverTest, DamagedAnswersDoNoHarm)
{
    dns_packet answer;
    answer.compress().question("x", DNS_SRV).cname("x", "y.x").a("y.x", "10.0.0.1");
    answer.srv("x", 1, 2, 3, "a.x").naptr("x", 1, 1, "s", "SIP+D2U", "re", "_sip._udp.x");
    answer.aaaa("x", "::1");
    const std::pair<queryType_e, unsigned> kinds[] = {
        {QUERY_ADDRESS, DNS_A}, {QUERY_SRV, DNS_SRV}, {QUERY_NAPTR, DNS_NAPTR}};
    for (const auto& [type, wire_type] : kinds) {
        for (size_t at = 0; at < answer.size(); at++) {
            for (const int value : {0, 1, 0x21, 0x3f, 0x40, 0xc0, 0xff}) {
                string damaged = answer.bytes();
                damaged[at] = static_cast<char>(value);
                dns_clear();
                dns_answer("x", wire_type, damaged);
                (void)look_up("x", type);
                ASSERT_LT(dns_query_count(), 100);
            }
        }
    }
}

// ---- Memory, threads, deletion ----

TEST_F(ResolverTest, WithoutMemoryWhatIsThereIsUsedAndNothingLeaks)
{
    dns_packet answer;
    answer.naptr("x", 1, 1, "s", "SIP+D2U", "", "_udp.s").naptr("x", 2, 1, "s", "SIP+D2T", "", "t");
    dns_answer("x", DNS_NAPTR, answer);
    dns_answer("_udp.s", DNS_SRV,
               dns_packet().srv("x", 1, 0, 5, "one.x").srv("x", 2, 0, 6, "two.x"));
    dns_answer("t", DNS_SRV, dns_packet().srv("x", 1, 0, 7, "one.x"));
    add_host("one.x", 1);
    add_host("two.x", 2);
    const string all = look_up("x", QUERY_NAPTR, SERV_SIP);
    ASSERT_EQ(std::count(all.begin(), all.end(), '|'), 6);

    bool complete = false;
    for (const bool and_after : {false, true}) {
        complete = false;
        for (int n = 1; !complete; n++) {
            ASSERT_LT(n, 1000);
            fail_malloc(n, and_after);
            ulist_t* list = osaGetHostByName("x", QUERY_NAPTR, SERV_SIP);
            const bool hit = failed();
            fail_nothing();
            const string some = take_results(list);
            size_t at = 0;
            for (size_t start = 0; start < some.size();) { // a part of all, in the same order
                const size_t end = some.find('|', start) + 1;
                at = all.find(some.substr(start, end - start), at);
                ASSERT_NE(at, string::npos) << n << ' ' << some;
                at++;
                start = end;
            }
            ASSERT_TRUE(hit || some == all);
            complete = !hit;
        }
    }
    fail_malloc(1);
    EXPECT_EQ(osaGetHostByName("10.0.0.1", QUERY_ADDRESS, SERV_NONE), nullptr);
    fail_nothing();
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
}

TEST_F(ResolverTest, DeletionTakesEffectBetweenTwoQueries)
{
    std::binary_semaphore asked(0);
    std::binary_semaphore deleted(0);
    probe p;

    dns_answer("x", DNS_SRV, dns_packet().srv("x", 1, 0, 5, "one.x").srv("x", 2, 0, 6, "two.x"));
    add_host("one.x", 1);
    add_host("two.x", 2);
    dns_on_query([&] {
        if (dns_query_count() == 2) {
            asked.release();
            deleted.acquire();
        }
    });
    const taskId_t id = spawn([&] {
        probe_attach(&p);
        osaFreeHostInfoList(osaGetHostByName("x", QUERY_SRV, SERV_NONE));
        ADD_FAILURE() << "not ended";
    });
    asked.acquire();
    EXPECT_EQ(taskDelete(id), OK);
    EXPECT_FALSE(p.ended); // a query is not cut short
    deleted.release();
    EXPECT_TRUE(eventually([&] { return p.ended.load(); }));
    EXPECT_EQ(dns_queries(), "SRV x|A one.x|");
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
}

TEST_F(ResolverTest, ThreadsDoNotMeet)
{
    std::vector<std::thread> threads;
    for (int n = 1; n <= 4; n++) {
        const string name = "host" + std::to_string(n);
        add_host(name, n);
        threads.emplace_back([name, n] {
            for (int i = 0; i < 200; i++) {
                ASSERT_EQ(addresses(name.c_str()), ipv4(n) + " 60|" + ipv6(n) + " 60|");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// ---- gethostbyname ----

TEST_F(ResolverTest, AddressOfAName)
{
    char literal[] = "10.1.2.3";
    char broadcast[] = "255.255.255.255";
    char host[] = "host";
    unsigned short port = 7;

    hosts_by_name.clear();
    named.s_addr = 0;
    EXPECT_EQ(osaGetIpFromName(nullptr), 0xffffffffU);
    EXPECT_EQ(osaGetIpFromName(literal), inet_addr("10.1.2.3"));
    EXPECT_EQ(hosts_by_name, "");
    EXPECT_EQ(osaGetIpFromName(host), 0xffffffffU);
    EXPECT_EQ(osaGetIpFromName(broadcast),
              0xffffffffU); // the parser's failure: asked for as a name
    EXPECT_EQ(resolv(host, &port, 1), nullptr);
    named.s_addr = inet_addr("10.9.8.7");
    EXPECT_EQ(osaGetIpFromName(host), inet_addr("10.9.8.7"));
    EXPECT_NE(resolv(host, nullptr, 0), nullptr);
    EXPECT_EQ(hosts_by_name, "host|255.255.255.255|host|host|host|");
    EXPECT_EQ(port, 7);
}
