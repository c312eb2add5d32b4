#include "dns_double.h"
#include "fail.h"
#include "hostLib.h"
#include "look_up.h"

using std::string;

static string looked_up; // calls of gethostbyname, "a|b|"

// Finds a host of any name but "gone": without an address if it is "empty".
extern "C" hostent* __wrap_gethostbyname(const char* name)
{
    static in_addr found = {inet_addr("10.9.8.7")};
    static char* addrs[] = {reinterpret_cast<char*>(&found), nullptr};
    static hostent host = {};

    EXPECT_GT(self_record->depth, 0); // nobody ends while the C library holds a lock over it
    looked_up += string(name) + '|';
    host.h_addr_list = addrs + (looked_up.ends_with("empty|") ? 1 : 0);
    return looked_up.ends_with("gone|") ? nullptr : &host;
}

// What an A query with this answer gives.
static string parsed(const dns_packet& packet, int length = -1)
{
    dns_answer("host.x", A, packet.bytes, length);
    return addresses("host.x");
}

// A host with one address of each kind: "10.0.0.n" and "fd00::n".
static void add_host(const string& name, int n)
{
    const string number = std::to_string(n);
    dns_answer(name, A, dns_packet().question(name, A).a(name, "10.0.0." + number).bytes);
    dns_answer(name, AAAA, dns_packet().question(name, AAAA).a(name, "fd00::" + number).bytes);
}

class ResolverTest : public testing::Test {
  protected:
    void SetUp() override { dns_clear(); }
};

// ---- Good answers ----

TEST_F(ResolverTest, Addresses)
{
    EXPECT_EQ(addresses("192.168.1.9"), "192.168.1.9 0|");
    EXPECT_EQ(addresses("[2001:db8::1]"), "2001:db8::1 0|");
    EXPECT_EQ(addresses("") + look_up("", QUERY_NAPTR), "");
    EXPECT_EQ(dns_queries, "");
    EXPECT_EQ(addresses("1.2.3"), ""); // a name like any other
    EXPECT_EQ(dns_queries, "A 1.2.3|AAAA 1.2.3|");

    // Aliases are stepped over; all sections are looked at, by both queries.
    dns_packet alias;
    alias.question("www.x", A).named("www.x", CNAME, "", "longer-than-an-address.x");
    alias.named("longer-than-an-address.x", CNAME, "", "b.y").a("b.y", "10.0.0.1", 0x80000001);
    alias.record("b.y", TXT, string(200, 't')).section(AUTHORITY).a("ns.y", "10.0.0.2");
    alias.section(ADDITIONAL).a("ns.y", "::2");
    dns_answer("www.x", A, alias.bytes);
    const string once = "10.0.0.1 -2147483647|10.0.0.2 60|::2 60|";
    EXPECT_EQ(addresses("www.x"), once);
    dns_answer("www.x", AAAA, alias.bytes);
    EXPECT_EQ(addresses("www.x"), once + once);
}

TEST_F(ResolverTest, ServicesByPriorityAndWeight)
{
    const char* const name = "_sip._udp.x";
    dns_packet answer;
    answer.question(name, SRV).srv(name, 65535, 5, 4, "d.x").srv(name, 65535, 5, 5, "e.x");
    answer.srv(name, 0, 0, 3, "c.x").srv(name, 0, 65535, 1, "a.x").srv(name, 0, 65535, 2, "b.x");
    dns_answer(name, SRV, answer.bytes);
    add_host("a.x", 1);
    add_host("b.x", 2); // c.x has no address
    add_host("d.x", 4);
    EXPECT_EQ(look_up(name, QUERY_SRV), "udp 10.0.0.1:1 60|udp 10.0.0.2:2 60|udp 10.0.0.4:4 60|"
                                        "udp fd00::1:1 60|udp fd00::2:2 60|udp fd00::4:4 60|");
    // The order of equals is that of the exchanges.
    EXPECT_EQ(dns_queries, "SRV _sip._udp.x|A a.x|A b.x|A c.x|A e.x|A d.x|"
                           "AAAA a.x|AAAA b.x|AAAA c.x|AAAA e.x|AAAA d.x|");
}

TEST_F(ResolverTest, TheServiceNameTellsTheTransport)
{
    const std::pair<const char*, string> cases[] = {
        {"_sip._udp.x", "udp "}, {"_sip._tcp.x", "tcp "}, {"_udp._tcp.x", "tcp "},
        {"_udp.x_tcp.", "tcp "}, {"_sip._tcp", ""},       {"_sip._UDP.x", ""}};
    add_host("t.x", 1);
    for (const auto& [name, proto] : cases) {
        dns_answer(name, SRV, dns_packet().srv(name, 0, 0, 9, "t.x").bytes);
        EXPECT_EQ(look_up(name, QUERY_SRV), proto + "10.0.0.1:9 60|" + proto + "fd00::1:9 60|")
            << name;
    }
}

TEST_F(ResolverTest, DomainsByOrderAndPreference)
{
    dns_packet answer;
    answer.question("x", NAPTR).naptr("x", 10, 7, "s", "SIP+D2U", "_udp.b");
    answer.naptr("x", 10, 3, "S", "sip+d2t", "_tcp.a", "!^.*$!");
    answer.naptr("x", 5, 9, "s", "Sip+D2S", "c");
    dns_answer("x", NAPTR, answer.bytes);
    dns_answer("_udp.b", SRV, dns_packet().srv("_udp.b", 0, 0, 1, "one.x").bytes);
    dns_answer("_tcp.a", SRV, dns_packet().srv("_tcp.a", 0, 0, 2, "two.x").bytes);
    add_host("one.x", 1);
    add_host("two.x", 2);
    EXPECT_EQ(look_up("x", QUERY_NAPTR, SERV_SIP), "tcp 10.0.0.2:2 60|tcp fd00::2:2 60|"
                                                   "udp 10.0.0.1:1 60|udp fd00::1:1 60|");
    EXPECT_EQ(dns_queries, "NAPTR x|SRV c|SRV _tcp.a|A two.x|AAAA two.x|"
                           "SRV _udp.b|A one.x|AAAA one.x|");
}

TEST_F(ResolverTest, OnlyTerminalRecordsOfTheService)
{
    const struct {
        const char* flags;
        string service;
        int wanted;
        bool followed;
    } cases[] = {
        {"S", "sIp+", SERV_SIP, true},
        {"s", "SIP", SERV_SIP, false},
        {"s", "SIPS+D2T", SERV_SIP, false},
        {"s", "", SERV_NONE, true},
        {"su", "SIP+D2U", SERV_SIP, false},
        {"", "SIP+D2U", SERV_NONE, false},
        {"s", "SIP+D2U", 2, false},
        {"s", string(200, 'S') + "+D2U", SERV_NONE, true},
        {"s", "SIP" + string(60, ' ') + "+", SERV_SIP, false},
    };
    for (const auto& c : cases) {
        dns_clear();
        dns_packet answer;
        answer.naptr("x", 1, 1, c.flags, c.service, "this");
        answer.naptr("x", 2, 1, "s", "SIP+D2U", "next"); // hidden by one that is not taken
        dns_answer("x", NAPTR, answer.bytes);
        EXPECT_EQ(look_up("x", QUERY_NAPTR, static_cast<serviceName_e>(c.wanted)), "");
        EXPECT_EQ(dns_queries, c.followed ? "NAPTR x|SRV this|SRV next|" : "NAPTR x|")
            << c.flags << ' ' << c.service;
    }
}

// ---- Hostile answers ----

TEST_F(ResolverTest, LyingLengthsAndCounts)
{
    dns_packet two;
    two.question("host.x", A).a("host.x", "10.0.0.1").a("host.x", "10.0.0.2");
    const string one = "10.0.0.1 60|";
    const string both = one + "10.0.0.2 60|";
    const struct {
        dns_section section;
        unsigned count;
        string results;
    } cases[] = {
        {ANSWER, 2, both},       {ANSWER, 65535, both},    {ANSWER, 1, one},
        {ANSWER, 0, ""},         {AUTHORITY, 65534, ""}, // the sum wraps to 0
        {AUTHORITY, 65535, one}, {ADDITIONAL, 65535, one}, {QUESTION, 65535, ""},
        {QUESTION, 2, ""}, // the first record's start is skipped for a question
    };
    for (const auto& c : cases) {
        EXPECT_EQ(parsed(dns_packet(two).count(c.section, c.count)), c.results)
            << c.section << ' ' << c.count;
    }
    for (int length = 0; length < 12; length++) {
        EXPECT_EQ(parsed(two, length), "");
    }

    // The end is no further than the buffer.
    dns_packet many;
    string expected;
    many.question("host.x", A);
    while (many.bytes.size() < 900) {
        many.a("host.x", "10.0.0.1");
        expected += many.bytes.size() <= 512 ? one : "";
    }
    EXPECT_EQ(parsed(many), expected); // as many bytes as fit, the full length claimed
    EXPECT_EQ(parsed(many, 65535), expected);
}

TEST_F(ResolverTest, WhatCannotBeSteppedOverEndsTheWalk)
{
    const string good = "10.0.0.1 60|";
    const string addr("\x0a\0\0\x02", 4);
    const string label = '\x3f' + string(63, 'l');
    dns_packet first;
    first.a("host.x", "10.0.0.1");
    const string itself = u16(0xc000U | static_cast<unsigned>(first.bytes.size()));
    for (const string& owner : {itself, string("\xc3\xff"), string("\x40xx"), string("\x80xx"),
                                label + label + label + label + '\0', string("\x3fshort")}) {
        dns_packet answer(first);
        EXPECT_EQ(parsed(answer.raw(owner).rest(A, addr).a("host.x", "10.0.0.3")), good);
    }
    for (const int length : {5, 65535}) { // data past the end, of a kind wanted or not
        EXPECT_EQ(parsed(dns_packet(first).record("host.x", A, addr, length)), good);
        EXPECT_EQ(parsed(dns_packet(first).record("host.x", TXT, addr, length)), good);
    }
    // Read from one byte back, what follows would make an address.
    const string one_back("\x01\0\x80\0\0\0\x05\0\x04\x0a\0\0\x09", 13);
    dns_packet zero;
    EXPECT_EQ(parsed(zero.a("host.x", "10.0.0.0").raw(one_back).count(ANSWER, 2)), "10.0.0.0 60|");
    // A question whose name cannot be skipped.
    dns_packet question;
    EXPECT_EQ(parsed(question.raw("\x40").count(QUESTION, 1).a("host.x", "10.0.0.1")), "");
    // Addresses that are too short are stepped over.
    dns_packet answer;
    for (const unsigned size : {0U, 1U, 3U, 4U, 15U}) {
        answer.record("host.x", size < 4 ? A : AAAA, string(size, '\x01'));
    }
    answer.record("host.x", A, string(9, '\x01')); // the rest is nobody's
    answer.a("host.x", "::5").record("host.x", A, "");
    EXPECT_EQ(parsed(answer), "1.1.1.1 60|::5 60|");
}

// Queries that follow from the answer to the first one.
static string followed(queryType_e type, const dns_packet& answer)
{
    dns_clear();
    dns_answer("x", type == QUERY_SRV ? SRV : NAPTR, answer.bytes);
    EXPECT_EQ(look_up("x", type), "");
    return dns_queries.substr(dns_queries.find('|') + 1);
}

// Data of SRV and NAPTR records, cut at each byte, with the rest behind it or nothing at all.
TEST_F(ResolverTest, DataIsBoundedByItsLength)
{
    const string name("\4long\1x\0", 8);
    const string service = u16(1) + u16(2) + u16(3) + name;
    const string domain =
        u16(7) + u16(7) + counted("s") + counted("SIP+D2U") + counted("!re!") + name;
    for (const queryType_e type : {QUERY_SRV, QUERY_NAPTR}) {
        const unsigned wire_type = type == QUERY_SRV ? SRV : NAPTR;
        const string& data = type == QUERY_SRV ? service : domain;
        for (size_t length = 0; length <= data.size(); length++) {
            SCOPED_TRACE(length);
            const bool whole = length == data.size();
            dns_packet answer;
            answer.record("x", wire_type, data.substr(0, length));
            EXPECT_EQ(followed(type, answer) != "", whole);
            answer.record("x", TXT, data.substr(length));
            answer.srv("x", 9, 0, 1, "end").naptr("x", 9, 1, "s", "", "end");
            EXPECT_EQ(followed(type, answer).find("end") != string::npos, whole);
        }
        EXPECT_NE(followed(type, dns_packet().record("x", wire_type, data + "rest")), "");
    }
    EXPECT_EQ(followed(QUERY_SRV, dns_packet().srv("x", 0, 0, 1, "")), ""); // the root
    // A string that claims more than the record has, by one byte or as much as it can.
    for (const size_t at : {4U, 6U, 14U}) {
        for (const size_t claimed : {domain.size() - at, size_t{255}}) {
            string lying = domain;
            lying[at] = static_cast<char>(claimed);
            dns_packet answer;
            EXPECT_EQ(followed(QUERY_NAPTR, answer.record("x", NAPTR, lying)), "") << at;
            EXPECT_EQ(followed(QUERY_NAPTR, answer.raw(string(300, '\0'))), "") << at;
        }
    }
}

// A good answer cut at every byte: what lies whole before the cut is used.
TEST_F(ResolverTest, CutAnswers)
{
    dns_packet answer;
    answer.question("x", A).named("x", CNAME, "", "y.x").a("y.x", "10.0.0.1");
    answer.srv("x", 1, 0, 1, "a.x");
    answer.naptr("x", 1, 1, "s", "SIP+D2U", "_sip._udp.x", "!a!b!");
    answer.section(ADDITIONAL).srv("x", 2, 0, 1, "b.x").a("z.x", "10.0.0.2");
    answer.naptr("x", 2, 1, "s", "SIP+D2T", "_sip._tcp.x").record("x", TXT, "text");
    // What a record of the kind leads to: one result, or so many queries.
    const std::tuple<queryType_e, unsigned, long> cases[] = {
        {QUERY_ADDRESS, A, 1}, {QUERY_SRV, SRV, 2}, {QUERY_NAPTR, NAPTR, 1}};
    for (const auto& [type, kind, each] : cases) {
        for (size_t at = 0; at <= answer.bytes.size(); at++) {
            long expected = 0;
            for (const auto& [record, end] : answer.ends) {
                expected += record == kind && end <= at ? each : 0;
            }
            dns_clear();
            dns_answer("x", kind, answer.bytes.substr(0, at));
            const string results = look_up("x", type);
            ASSERT_EQ(type == QUERY_ADDRESS ? count_of(results) : count_of(dns_queries) - 1,
                      expected)
                << at;
        }
    }
}

// ---- Memory, threads, deletion ----

TEST_F(ResolverTest, WithoutMemoryWhatIsThereIsUsedAndNothingLeaks)
{
    dns_packet answer;
    answer.naptr("x", 1, 1, "s", "SIP+D2U", "_udp.s").naptr("x", 2, 1, "s", "SIP+D2T", "t");
    dns_packet services;
    services.srv("x", 1, 0, 5, "one.x").srv("x", 2, 0, 6, "two.x");
    dns_answer("x", NAPTR, answer.bytes);
    dns_answer("_udp.s", SRV, services.bytes);
    dns_answer("t", SRV, dns_packet().srv("x", 1, 0, 7, "one.x").bytes);
    add_host("one.x", 1);
    add_host("two.x", 2);
    const string all = look_up("x", QUERY_NAPTR, SERV_SIP);
    ASSERT_EQ(count_of(all), 6);

    for (const bool and_after : {false, true}) {
        bool hit = true;
        for (int n = 1; hit; n++) {
            fail_malloc(n, and_after);
            ulist_t* list = osaGetHostByName("x", QUERY_NAPTR, SERV_SIP);
            hit = failed();
            fail_nothing();
            const string some = take_results(list);
            for (size_t start = 0, end = 0; start < some.size(); start = end) {
                end = some.find('|', start) + 1;
                ASSERT_NE(all.find(some.substr(start, end - start)), string::npos) << n;
            }
            ASSERT_TRUE(hit || some == all);
        }
    }
}

TEST_F(ResolverTest, DeletionTakesEffectBetweenTwoQueries)
{
    add_host("one.x", 1);
    EXPECT_TRUE(ends_in(&dns_on_query, [] { addresses("one.x"); }));
    EXPECT_EQ(dns_queries, "A one.x|");
}

TEST_F(ResolverTest, ThreadsDoNotMeet)
{
    std::vector<std::jthread> threads;
    for (const int n : {1, 2, 3, 4}) {
        add_host("host" + std::to_string(n), n);
    }
    for (const string number : {"1", "2", "3", "4"}) {
        threads.emplace_back([number] {
            const string expected = "10.0.0." + number + " 60|fd00::" + number + " 60|";
            for (int i = 0; i < 200; i++) {
                ASSERT_EQ(addresses("host" + number), expected);
            }
        });
    }
}

// By either of its names, the second of which is the host table's hook.
TEST_F(ResolverTest, GetHostByNameBehindTheLiterals)
{
    const std::pair<const char*, const char*> cases[] = {
        {nullptr, "255.255.255.255"}, // INADDR_NONE, which the parser cannot tell from a failure
        {"10.1.2.3", "10.1.2.3"},     {"gone", "255.255.255.255"},    {"host", "10.9.8.7"},
        {"empty", "255.255.255.255"}, {"255.255.255.255", "10.9.8.7"}};
    hostTblInit();
    for (const FUNCPTR by_name :
         {reinterpret_cast<FUNCPTR>(osaGetIpFromName), _presolvHostLibGetByName}) {
        looked_up.clear();
        for (const auto& [name, found] : cases) {
            EXPECT_EQ(reinterpret_cast<in_addr_t (*)(const char*)>(by_name)(name),
                      inet_addr(found));
        }
        EXPECT_EQ(looked_up, "gone|host|empty|255.255.255.255|");
    }
}
