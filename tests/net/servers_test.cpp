// The resolver and the SNTP client against servers as they are; servers_test.sh starts them.
#include "look_up.h"
#include "sntp.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

using std::string;

static uint32_t ip_of(const char* name)
{
    return ntohl(osaGetIpFromName(const_cast<char*>(name)));
}

class NameServerTest : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        ASSERT_TRUE(eventually([] { return ip_of("two.hnetd.test") != 0xffffffff; }));
    }
};

TEST_F(NameServerTest, Addresses)
{
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
}

TEST_F(NameServerTest, Services)
{
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
    const auto seconds = [](const timespec& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
    };
    const auto own_time = [&] {
        timespec t;
        clock_gettime(CLOCK_REALTIME, &t);
        return seconds(t);
    };
    timespec now = {};
    ASSERT_TRUE(eventually([&] { return osaGetTimeFromSntpServer("::1", 0, &now) == OK; }));
    for (const char* name : {"127.0.0.1", "::1", "clock.hnetd.test", "clock6.hnetd.test"}) {
        const double before = own_time();
        EXPECT_EQ(osaGetTimeFromSntpServer(name, 0, &now), OK) << name;
        EXPECT_GT(seconds(now), before - 0.01) << name;
        EXPECT_LT(seconds(now), own_time() + 0.01) << name;
    }
    EXPECT_EQ(osaGetTimeFromSntpServer("192.0.2.99", 0, &now), ERROR); // no way there
}

static int raise_loopback()
{
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    return ioctl(socket(AF_INET, SOCK_DGRAM, 0), SIOCSIFFLAGS, &request) == 0 ? 0 : 1;
}

int main(int argc, char** argv)
{
    if (argc > 1 && string(argv[1]) == "--raise-loopback") {
        return raise_loopback();
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
