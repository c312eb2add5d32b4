#include "osaSocket.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

using std::string;

static const char LONGEST[] = "0000:0000:0000:0000:0000:ffff:255.255.255.255"; // 45 characters

static string text_of(sockIpAddr_t* addr)
{
    char text[INET6_ADDRSTRLEN] = "?";
    return sockIpAddrNtop(addr, text, sizeof text) == SEC_OK ? text : "?";
}

static string text_of(sockAddrStorage_t* ss)
{
    char text[INET6_ADDRSTRLEN] = "?";
    return sockGetStorageStringAddr(ss, text, sizeof text) == SEC_OK ? text : "?";
}

static sockIpAddr_t address(const char* text)
{
    sockIpAddr_t addr;
    EXPECT_EQ(sockIpAddrPton(text, &addr), SEC_OK) << text;
    return addr;
}

// What the check of a quad has always been; the product has its own few lines instead.
static bool scanf_accepts(const char* s)
{
    unsigned d[4];
    char tail[16] = "";

    if (strlen(s) < 7 || strlen(s) > 15) {
        return false;
    }
    if (sscanf(s, "%3u.%3u.%3u.%3u%s", &d[0], &d[1], &d[2], &d[3], tail) != 4) {
        return false;
    }
    return tail[0] == '\0' && d[0] < 256 && d[1] < 256 && d[2] < 256 && d[3] < 256;
}

// An exact copy on the heap, so that a read past the text is seen.
static bool quad_accepted(const string& s)
{
    std::unique_ptr<char[]> copy(new char[s.size() + 1]);
    memcpy(copy.get(), s.c_str(), s.size() + 1);
    return validateIP4Dotted(copy.get()) != 0;
}

TEST(QuadTest, AcceptsExactlyWhatScanfDoes)
{
    const char* const parts[] = {"0",    "0001", "09", "255",  "256", "1234", "-0", "+7",
                                 "+012", "-1",   " 1", "\t+2", "",    "+",    "1 "};
    const char* const tails[] = {"", " ", "\n\t", "x", ".", " x"};
    int accepted = 0;
    int wrong = 0;

    auto check = [&](const string& s) {
        const bool expected = scanf_accepts(s.c_str());
        accepted += expected ? 1 : 0;
        if (quad_accepted(s) != expected) {
            wrong++;
            ADD_FAILURE() << '"' << s << '"';
        }
    };
    for (const char* a : parts) {
        for (const char* b : parts) {
            for (const char* c : parts) {
                for (const char* d : parts) {
                    const string quad = string(a) + '.' + b + '.' + c + '.' + d;
                    for (const char* tail : tails) {
                        check(quad + tail);
                    }
                    ASSERT_LT(wrong, 10);
                }
            }
        }
    }
    EXPECT_GT(accepted, 5000);

    const char alphabet[] = "0125.. +-\v\xa0x";
    std::mt19937 random(1);
    for (int i = 0; i < 200000 && wrong < 10; i++) {
        string s(random() % 18, '\0');
        for (char& c : s) {
            c = alphabet[random() % (sizeof alphabet - 1)];
        }
        check(s);
    }
    EXPECT_FALSE(validateIP4Dotted(nullptr));
}

TEST(TextTest, ConvertsAsThePlatformParses)
{
    const string bracketed = string("[") + LONGEST + "]"; // 47 characters: all that is looked at
    const struct {
        string text;
        bool valid;
        sockIpVer_e ver;
        const char* back;
    } cases[] = {
        {"192.168.1.1", true, IPVER_IPV4, "192.168.1.1"},
        {"0.0.0.0", true, IPVER_IPV4, "0.0.0.0"},
        {"010.1.1.1", true, IPVER_IPV4, "8.1.1.1"}, // octal
        {"08.1.1.1", true, IPVER_UNSPEC, ""},       // a quad, but not octal
        {" 1.2.3.4", true, IPVER_UNSPEC, ""},
        {"1.2.3.4 ", true, IPVER_IPV4, "1.2.3.4"},
        {"255.255.255.255", true, IPVER_UNSPEC, ""}, // looks like the parser's failure
        {"1.2.3", false, IPVER_UNSPEC, ""},
        {"::1", true, IPVER_IPV6, "::1"},
        {"[2001:db8::1]", true, IPVER_IPV6, "2001:db8::1"},
        {"2001:db8::1]", false, IPVER_UNSPEC, ""},
        {"[2001:db8::1", false, IPVER_UNSPEC, ""},
        {"[[::1]]", false, IPVER_UNSPEC, ""},
        {"[1.2.3.4]", false, IPVER_UNSPEC, ""},
        {"[]", false, IPVER_UNSPEC, ""},
        {"[", false, IPVER_UNSPEC, ""},
        {"]", false, IPVER_UNSPEC, ""},
        {"", false, IPVER_UNSPEC, ""},
        {"fe80::1%1", false, IPVER_UNSPEC, ""},
        {LONGEST, true, IPVER_IPV6, "::ffff:255.255.255.255"},
        {string(LONGEST) + "x", false, IPVER_UNSPEC, ""},
        {bracketed, true, IPVER_IPV6, "::ffff:255.255.255.255"},
        {bracketed + "x", true, IPVER_IPV6, "::ffff:255.255.255.255"},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const sockErrCode_e expected = c.ver != IPVER_UNSPEC ? SEC_OK : SEC_INVALID_ADDR;
        string text = c.text;
        sockIpAddr_t addr;
        memset(&addr, 0xee, sizeof addr);
        EXPECT_EQ(sockIsValidAddr(c.text.c_str()), c.valid ? 1 : 0);
        EXPECT_EQ(sockIpAddrPton(c.text.c_str(), &addr), expected);
        EXPECT_EQ(sockIpAddrPton(c.text.c_str(), nullptr), expected);
        EXPECT_EQ(sockGetIpVer(text.data()), c.ver);
        EXPECT_EQ(addr.ver, c.ver);
        sockAddrStorage_t ss = {};
        EXPECT_EQ(sockSetStorageByStringAddr(c.text.c_str(), 0x1234, &ss), expected);
        if (expected == SEC_OK) {
            EXPECT_EQ(text_of(&addr), c.back);
            EXPECT_EQ(text_of(&ss), c.back);
            EXPECT_EQ(sockSetStorageByStringAddr(c.text.c_str(), 1, nullptr), SEC_INVALID_PARAM);
        } else {
            const sockAddrStorage_t untouched = {};
            EXPECT_EQ(memcmp(&ss, &untouched, sizeof ss), 0);
        }
        if (c.ver != IPVER_IPV6) {
            const uint32_t zero[3] = {};
            EXPECT_EQ(memcmp(&addr.addr.ip.v6[1], zero, sizeof zero), 0); // cleared, failed or not
        }
    }
    EXPECT_EQ(sockIsValidAddr(nullptr), 0);
    EXPECT_EQ(sockGetIpVer(nullptr), IPVER_UNSPEC);
    EXPECT_EQ(sockSetStorageByStringAddr(nullptr, 1, nullptr), SEC_INVALID_ADDR);
}

TEST(TextTest, Ipv4TextMatchesThePlatformsAndIsCut)
{
    std::mt19937 random(2);
    sockIpAddr_t addr = {};
    addr.ver = IPVER_IPV4;
    for (int i = 0; i < 20000; i++) {
        char expected[INET_ADDRSTRLEN];
        addr.addr.ip.v4 = i < 256 ? static_cast<uint32_t>(i) * 0x01010101U : random();
        inet_ntop(AF_INET, &addr.addr, expected, sizeof expected);
        ASSERT_EQ(text_of(&addr), expected);
    }

    addr = address("192.168.100.200"); // 15 characters
    for (size_t size = 1; size <= 17; size++) {
        std::unique_ptr<char[]> buf(new char[size]);
        EXPECT_EQ(sockIpAddrNtop(&addr, buf.get(), size), SEC_OK);
        EXPECT_EQ(buf.get(), string("192.168.100.200").substr(0, size - 1));
    }
    addr = address("::1");
    char buf[4];
    EXPECT_EQ(sockIpAddrNtop(&addr, buf, 3), SEC_INVALID_ADDR); // IPv6 text is not cut
    EXPECT_EQ(sockIpAddrNtop(&addr, buf, 4), SEC_OK);
    EXPECT_EQ(sockIpAddrNtop(&addr, buf, 0), SEC_INVALID_PARAM);
    EXPECT_EQ(sockIpAddrNtop(&addr, nullptr, 4), SEC_INVALID_PARAM);
    EXPECT_EQ(sockIpAddrNtop(nullptr, nullptr, 0), SEC_INVALID_ADDR);
    addr.ver = static_cast<sockIpVer_e>(3);
    EXPECT_EQ(sockIpAddrNtop(&addr, buf, 4), SEC_UNSPEC);
}

TEST(StorageTest, PortsAndAddressesComeBack)
{
    for (const char* text : {"10.1.2.3", "2001:db8::7"}) {
        const bool ipv4 = strchr(text, '.') != nullptr;
        sockAddrStorage_t ss = {};
        uint16_t port = 0;
        sockIpAddr_t addr;
        memset(&addr, 0xee, sizeof addr);
        ASSERT_EQ(sockSetStorageByStringAddr(text, 5060, &ss), SEC_OK);
        EXPECT_EQ(sockGetStorageFamily(&ss), ipv4 ? AF_INET : AF_INET6);
        EXPECT_EQ(sockGetStorageIpVer(&ss), ipv4 ? IPVER_IPV4 : IPVER_IPV6);
        EXPECT_EQ(reinterpret_cast<sockaddr_in*>(&ss)->sin_port, htons(5060));
        EXPECT_EQ(sockSetStoragePort(&ss, 0xff01), SEC_OK);
        EXPECT_EQ(sockGetStoragePort(&ss, &port), SEC_OK);
        EXPECT_EQ(port, 0xff01);
        EXPECT_EQ(sockGetStorageBinaryAddr(&ss, &addr), SEC_OK);
        EXPECT_EQ(text_of(&addr), text);
        EXPECT_EQ(addr.addr.ip.v6[3] == 0xeeeeeeee, ipv4); // the unused bytes stay

        sockAddrStorage_t other = {};
        char unaligned[17];
        memcpy(unaligned + 1, &addr.addr, 16);
        EXPECT_EQ(
            sockSetStorageByBinaryAddr(SOCK_IPTYPE_OTHER, addr.ver, unaligned + 1, 0xff01, &other),
            SEC_OK);
        EXPECT_EQ(memcmp(&ss, &other, sizeof ss), 0);
    }
}

TEST(StorageTest, WellKnownAddressesAndRefusals)
{
    const struct {
        sockIpType_e type;
        sockIpVer_e ver;
        sockErrCode_e result;
        const char* text;
    } cases[] = {
        {SOCK_IPTYPE_ANY, IPVER_IPV4, SEC_OK, "0.0.0.0"},
        {SOCK_IPTYPE_LOOPBACK, IPVER_IPV4, SEC_OK, "127.0.0.1"},
        {SOCK_IPTYPE_ANY, IPVER_IPV6, SEC_OK, "::"},
        {SOCK_IPTYPE_LOOPBACK, IPVER_IPV6, SEC_OK, "::1"},
        {SOCK_IPTYPE_OTHER, IPVER_IPV4, SEC_INVALID_ADDR, nullptr},
        {SOCK_IPTYPE_OTHER, IPVER_IPV6, SEC_INVALID_ADDR, nullptr},
        {SOCK_IPTYPE_UNSPEC, IPVER_IPV4, SEC_INVALID_PARAM, nullptr},
        {static_cast<sockIpType_e>(4), IPVER_IPV6, SEC_INVALID_PARAM, nullptr},
        {SOCK_IPTYPE_ANY, IPVER_UNSPEC, SEC_UNSPEC, nullptr},
        {SOCK_IPTYPE_UNSPEC, static_cast<sockIpVer_e>(3), SEC_UNSPEC, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.type << ' ' << c.ver);
        sockAddrStorage_t ss;
        memset(&ss, 0xee, sizeof ss);
        const sockAddrStorage_t before = ss;
        EXPECT_EQ(sockSetStorageByBinaryAddr(c.type, c.ver, nullptr, 123, &ss), c.result);
        EXPECT_EQ(sockSetStorageByBinaryAddr(c.type, c.ver, nullptr, 123, nullptr),
                  SEC_INVALID_PARAM);
        if (c.text != nullptr) {
            uint16_t port = 0;
            EXPECT_EQ(text_of(&ss), c.text);
            EXPECT_EQ(sockGetStoragePort(&ss, &port), SEC_OK);
            EXPECT_EQ(port, 123);
        } else {
            EXPECT_EQ(memcmp(&ss, &before, sizeof ss), 0);
        }
    }

    sockAddrStorage_t ss = {};
    sockIpAddr_t addr = {};
    uint16_t port = 7;
    char buf[8];
    ss.ss_family = AF_UNIX;
    EXPECT_EQ(sockGetStoragePort(&ss, &port), SEC_UNSPEC);
    EXPECT_EQ(sockGetStoragePort(&ss, nullptr), SEC_INVALID_PARAM);
    EXPECT_EQ(sockGetStoragePort(nullptr, &port), SEC_INVALID_PARAM);
    EXPECT_EQ(sockSetStoragePort(&ss, 1), SEC_UNSPEC);
    EXPECT_EQ(sockSetStoragePort(nullptr, 1), SEC_INVALID_PARAM);
    EXPECT_EQ(sockGetStorageBinaryAddr(&ss, &addr), SEC_UNSPEC);
    EXPECT_EQ(sockGetStorageBinaryAddr(&ss, nullptr), SEC_INVALID_PARAM);
    EXPECT_EQ(sockGetStorageStringAddr(&ss, buf, sizeof buf), SEC_UNSPEC);
    EXPECT_EQ(sockGetStorageStringAddr(&ss, buf, 0), SEC_INVALID_PARAM);
    EXPECT_EQ(sockGetStorageStringAddr(&ss, nullptr, 8), SEC_INVALID_PARAM);
    EXPECT_EQ(sockGetStorageStringAddr(nullptr, buf, 8), SEC_INVALID_PARAM);
    EXPECT_EQ(sockGetStorageIpVer(&ss), IPVER_UNSPEC);
    EXPECT_EQ(sockGetStorageIpVer(nullptr), IPVER_UNSPEC);
    EXPECT_EQ(sockGetStorageFamily(nullptr), 0);
    EXPECT_EQ(port, 7);
}

TEST(AddressTest, KindsAndOrder)
{
    const struct {
        const char* text;
        sockIpType_e type;
    } kinds[] = {
        {"0.0.0.0", SOCK_IPTYPE_ANY},     {"127.0.0.1", SOCK_IPTYPE_LOOPBACK},
        {"127.0.0.2", SOCK_IPTYPE_OTHER}, {"::", SOCK_IPTYPE_ANY},
        {"::1", SOCK_IPTYPE_LOOPBACK},    {"::ffff:127.0.0.1", SOCK_IPTYPE_OTHER},
    };
    for (const auto& kind : kinds) {
        sockIpAddr_t addr = address(kind.text);
        EXPECT_EQ(sockGetIpAddrType(&addr), kind.type) << kind.text;
    }
    sockIpAddr_t none = {};
    EXPECT_EQ(sockGetIpAddrType(&none), SOCK_IPTYPE_UNSPEC);
    EXPECT_EQ(sockGetIpAddrType(nullptr), SOCK_IPTYPE_UNSPEC);

    const struct {
        const char* less;
        const char* greater;
    } orders[] = {
        {"11.0.0.1", "10.0.0.2"}, // the last octet weighs most
        {"1.0.0.127", "1.0.0.128"},
        {"2001:db8::ff", "2001:db8::100"}, // the first byte weighs most
        {"::1", "8000::"},
    };
    for (const auto& order : orders) {
        sockIpAddr_t less = address(order.less);
        sockIpAddr_t greater = address(order.greater);
        EXPECT_EQ(sockCompareIpAddr(&less, &greater), IPCMP_LESS) << order.less;
        EXPECT_EQ(sockCompareIpAddr(&greater, &less), IPCMP_GREATER) << order.less;
        EXPECT_EQ(sockCompareIpAddr(&less, &less), IPCMP_EQUAL) << order.less;
    }
    sockIpAddr_t ipv4 = address("1.2.3.4");
    sockIpAddr_t ipv6 = address("::1");
    EXPECT_EQ(sockCompareIpAddr(&ipv4, &ipv6), IPCMP_UNSPEC);
    EXPECT_EQ(sockCompareIpAddr(&none, &none), IPCMP_UNSPEC);
    EXPECT_EQ(sockCompareIpAddr(nullptr, &ipv4), IPCMP_UNSPEC);
    EXPECT_EQ(sockCompareIpAddr(&ipv4, nullptr), IPCMP_UNSPEC);
}

TEST(PeerTest, OnlyConnectedInternetSocketsHaveAnAddress)
{
    for (const char* text : {"127.0.0.1", "::1"}) {
        sockAddrStorage_t target = {};
        sockAddrStorage_t peer;
        sockIpAddr_t addr = {};
        uint16_t port = 0;
        ASSERT_EQ(sockSetStorageByStringAddr(text, 4242, &target), SEC_OK);
        const int fd = socket(target.ss_family, SOCK_DGRAM, 0);
        EXPECT_EQ(sockGetPeerName(fd, &peer), SEC_INVALID_PARAM);
        EXPECT_EQ(peer.ss_family, 0); // cleared all the same
        EXPECT_EQ(sockGetPeerAddr(fd, &addr), SEC_INVALID_PARAM);
        if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&target), sizeof target) == 0) {
            memset(&peer, 0xee, sizeof peer);
            EXPECT_EQ(sockGetPeerName(fd, &peer), SEC_OK);
            EXPECT_EQ(sockGetStoragePort(&peer, &port), SEC_OK);
            EXPECT_EQ(port, 4242);
            EXPECT_EQ(sockGetPeerAddr(fd, &addr), SEC_OK);
            EXPECT_EQ(text_of(&addr), text);
        } else {
            EXPECT_EQ(target.ss_family, AF_INET6); // a machine may lack that
        }
        close(fd);
    }

    int pair[2];
    sockIpAddr_t addr = address("9.9.9.9");
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    EXPECT_EQ(sockGetPeerAddr(pair[0], &addr), SEC_UNSPEC);
    EXPECT_EQ(text_of(&addr), "9.9.9.9");
    EXPECT_EQ(sockGetPeerAddr(pair[0], nullptr), SEC_INVALID_PARAM);
    EXPECT_EQ(sockGetPeerName(pair[0], nullptr), SEC_INVALID_PARAM);
    EXPECT_EQ(sockGetPeerAddr(-1, &addr), SEC_INVALID_PARAM);
    close(pair[0]);
    close(pair[1]);
}
