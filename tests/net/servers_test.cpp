// The resolver and the SNTP client against servers as they are; servers_test.sh starts them.
#include "look_up.h"
#include "sntp.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <algorithm>

using std::string;
using namespace std::chrono_literals;

static uint32_t ip_of(const char* name)
{
    return ntohl(osaGetIpFromName(const_cast<char*>(name)));
}

TEST(NameServerTest, AddressesAndServices)
{
    ASSERT_TRUE(eventually([] { return ip_of("two.hnetd.test") != 0xffffffff; }));
    const string two = "192.0.2.1 600|192.0.2.2 600|2001:db8::2 700|";
    EXPECT_EQ(addresses("two.hnetd.test"), two);
    EXPECT_EQ(addresses("two"), two); // found by the search list
    EXPECT_EQ(addresses("alias.hnetd.test"), two);
    EXPECT_EQ(addresses("six.hnetd.test"), "2001:db8::6 300|");
    EXPECT_EQ(addresses("text.hnetd.test"), "");
    EXPECT_EQ(addresses("nobody.hnetd.test"), "");
    EXPECT_EQ(addresses("not..a.name"), "");
    EXPECT_EQ(ip_of("two.hnetd.test") & ~3U, 0xc0000200);
    EXPECT_EQ(ip_of("nobody.hnetd.test"), 0xffffffff);

    // 60 addresses take a second try over TCP, and more room than the buffer has.
    const string many = addresses("many.hnetd.test");
    const auto count = std::count(many.begin(), many.end(), '|');
    EXPECT_GT(count, 25);
    EXPECT_LE(count, 31); // of 16 bytes each

    const string udp = "udp 192.0.2.11:5060 300|udp 192.0.2.12:5062 300|udp 2001:db8::11:5060 300|";
    const string tcp = "tcp 192.0.2.12:5070 300|";
    EXPECT_EQ(look_up("_sip._udp.hnetd.test", QUERY_SRV), udp);
    EXPECT_EQ(look_up("_sip._tcp.hnetd.test", QUERY_SRV), tcp);
    EXPECT_EQ(look_up("two.hnetd.test", QUERY_SRV), "");
    EXPECT_EQ(look_up("hnetd.test", QUERY_NAPTR, SERV_SIP), tcp + udp);
    EXPECT_EQ(look_up("other.hnetd.test", QUERY_NAPTR, SERV_SIP), "");
}

// The server gives this machine's own time.
TEST(TimeServerTest, TheTimeOfThisMachine)
{
    using std::chrono::system_clock;
    const auto instant = [](const timespec& t) {
        return system_clock::from_time_t(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec);
    };
    timespec now = {};
    ASSERT_TRUE(eventually([&] { return osaGetTimeFromSntpServer("::1", 0, &now) == OK; }));
    for (const char* name : {"127.0.0.1", "::1", "clock.hnetd.test", "clock6.hnetd.test"}) {
        const auto before = system_clock::now();
        EXPECT_EQ(osaGetTimeFromSntpServer(name, 0, &now), OK) << name;
        EXPECT_GT(instant(now), before - 10ms) << name;
        EXPECT_LT(instant(now), system_clock::now() + 10ms) << name;
    }
    EXPECT_EQ(osaGetTimeFromSntpServer("192.0.2.99", 0, &now), ERROR); // no way there
}
