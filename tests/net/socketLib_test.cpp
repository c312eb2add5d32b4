#include "osaSocket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <unistd.h>

using std::string;

static string text_of(sockIpAddr_t* addr)
{
    char text[INET6_ADDRSTRLEN];
    return sockIpAddrNtop(addr, text, sizeof text) == SEC_OK ? text : "";
}

static sockIpAddr_t address(const char* text)
{
    sockIpAddr_t addr;
    EXPECT_EQ(sockIpAddrPton(text, &addr), SEC_OK) << text;
    return addr;
}

// What the check of a quad has always been; the product has its own few lines instead.
static bool scanf_accepts(const string& s)
{
    unsigned d[4];
    char tail[16];

    return s.size() >= 7 && s.size() <= 15 &&
           sscanf(s.c_str(), "%3u.%3u.%3u.%3u%s", &d[0], &d[1], &d[2], &d[3], tail) == 4 &&
           *std::max_element(d, d + 4) < 256;
}

TEST(QuadTest, AcceptsExactlyWhatScanfDoes)
{
    const char* const parts[] = {"0",  "0001", "255", "256", "1234", "-0",   "+012",
                                 "-1", "\t+2", "",    "1 ",  "\v1",  "\2401"};
    const char* const tails[] = {"", "\n ", "x", "."};
    constexpr size_t PARTS = std::size(parts);

    for (size_t i = 0; i < PARTS * PARTS * PARTS * PARTS * std::size(tails); i++) {
        string s = tails[i % std::size(tails)];
        for (size_t rest = i / std::size(tails), n = 0; n < 4; n++, rest /= PARTS) {
            s = parts[rest % PARTS] + (n > 0 ? '.' + s : s);
        }
        const std::vector<char> copy(s.c_str(), s.c_str() + s.size() + 1); // a read past it is seen
        ASSERT_EQ(validateIP4Dotted(copy.data()) != 0, scanf_accepts(s)) << s;
    }
}

// What a storage holds comes back, piece by piece, and makes the same storage again.
static void expect_pieces(sockAddrStorage_t* ss, const string& text)
{
    const bool ipv4 = text.find(':') == string::npos;
    sockAddrStorage_t other = {};
    uint16_t port = 0;
    sockIpAddr_t addr;
    char unaligned[17];
    memset(&addr, 0xee, sizeof addr);
    EXPECT_EQ(sockGetStorageFamily(ss), ipv4 ? AF_INET : AF_INET6);
    EXPECT_EQ(reinterpret_cast<sockaddr_in*>(ss)->sin_port, htons(0x1234));
    EXPECT_EQ(sockSetStoragePort(ss, 0xff01), SEC_OK);
    EXPECT_EQ(sockGetStoragePort(ss, &port), SEC_OK);
    EXPECT_EQ(port, 0xff01);
    EXPECT_EQ(sockGetStorageBinaryAddr(ss, &addr), SEC_OK);
    EXPECT_EQ(text_of(&addr), text);
    EXPECT_TRUE(!ipv4 || addr.addr.ip.v6[3] == 0xeeeeeeee); // the unused bytes stay
    char* const binary = static_cast<char*>(memcpy(unaligned + 1, &addr.addr, 16));
    sockSetStorageByBinaryAddr(SOCK_IPTYPE_OTHER, addr.ver, binary, port, &other);
    EXPECT_EQ(memcmp(ss, &other, sizeof other), 0);
}

// To a compact address and into a storage, and back: "" for what does not convert.
TEST(TextTest, ConvertsAsThePlatformParses)
{
    const string longest = "0000:0000:0000:0000:0000:ffff:255.255.255.255"; // 45 characters
    const struct {
        string text;
        bool valid;
        string back;
    } cases[] = {
        {"192.168.1.1", true, "192.168.1.1"},
        {"010.1.1.1", true, "8.1.1.1"}, // octal
        {"08.1.1.1", true, ""},         // a quad, but not octal
        {" 1.2.3.4", true, ""},
        {"1.2.3.4 ", true, "1.2.3.4"},
        {"255.255.255.255", true, ""}, // looks like the parser's failure
        {"1.2.3", false, ""},
        {"[2001:db8::1]", true, "2001:db8::1"},
        {"2001:db8::1]", false, ""},
        {"[2001:db8::1", false, ""},
        {"[[::1]]", false, ""},
        {"[1.2.3.4]", false, ""},
        {"[]", false, ""},
        {"[", false, ""},
        {"fe80::1%1", false, ""},
        {longest + "x", false, ""},
        {longest, true, "::ffff:255.255.255.255"},
        {"[" + longest + "]x", true, "::ffff:255.255.255.255"}, // 47 characters are looked at
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const bool ipv4 = c.back.find(':') == string::npos;
        const sockIpVer_e version = c.back.empty() ? IPVER_UNSPEC : ipv4 ? IPVER_IPV4 : IPVER_IPV6;
        const sockErrCode_e result = c.back.empty() ? SEC_INVALID_ADDR : SEC_OK;
        string text = c.text;
        sockIpAddr_t addr;
        sockAddrStorage_t ss = {};
        memset(&addr, 0xee, sizeof addr);
        EXPECT_EQ(sockIsValidAddr(text.c_str()), c.valid ? 1 : 0);
        EXPECT_EQ(sockIpAddrPton(text.c_str(), &addr), result);
        EXPECT_EQ(sockIpAddrPton(text.c_str(), nullptr), result);
        EXPECT_EQ(sockGetIpVer(text.data()), version);
        EXPECT_EQ(addr.ver, version);
        EXPECT_EQ(text_of(&addr), c.back);
        EXPECT_TRUE(version == IPVER_IPV6 || addr.addr.ip.v6[3] == 0); // cleared all the same
        EXPECT_EQ(sockSetStorageByStringAddr(text.c_str(), 0x1234, &ss), result);
        EXPECT_EQ(sockSetStorageByStringAddr(text.c_str(), 1, nullptr),
                  c.valid ? SEC_INVALID_PARAM : SEC_INVALID_ADDR);
        char buf[INET6_ADDRSTRLEN] = "";
        EXPECT_EQ(sockGetStorageStringAddr(&ss, buf, sizeof buf),
                  c.back.empty() ? SEC_UNSPEC : SEC_OK);
        EXPECT_EQ(buf, c.back);
        if (result == SEC_OK) {
            expect_pieces(&ss, c.back);
        }
    }
}

TEST(TextTest, Ipv4TextIsCut)
{
    sockIpAddr_t addr = address("192.168.100.200");
    for (size_t size = 1; size <= 17; size++) {
        std::vector<char> buf(size);
        EXPECT_EQ(sockIpAddrNtop(&addr, buf.data(), size), SEC_OK);
        EXPECT_EQ(buf.data(), string("192.168.100.200").substr(0, size - 1));
    }
    char buf[4];
    addr = address("::1");
    EXPECT_EQ(sockIpAddrNtop(&addr, buf, 3), SEC_INVALID_ADDR); // IPv6 text is not cut
    EXPECT_EQ(sockIpAddrNtop(&addr, buf, 4), SEC_OK);
    addr.ver = static_cast<sockIpVer_e>(3);
    EXPECT_EQ(sockIpAddrNtop(&addr, buf, 4), SEC_UNSPEC);
}

TEST(StorageTest, WellKnownAddressesAndRefusals)
{
    const struct {
        int type, version;
        sockErrCode_e result;
        string text; // of what the storage holds then
    } cases[] = {
        {SOCK_IPTYPE_ANY, IPVER_IPV4, SEC_OK, "0.0.0.0"},
        {SOCK_IPTYPE_LOOPBACK, IPVER_IPV4, SEC_OK, "127.0.0.1"},
        {SOCK_IPTYPE_ANY, IPVER_IPV6, SEC_OK, "::"},
        {SOCK_IPTYPE_LOOPBACK, IPVER_IPV6, SEC_OK, "::1"},
        {SOCK_IPTYPE_OTHER, IPVER_IPV4, SEC_INVALID_ADDR, "9.9.9.9"}, // untouched
        {SOCK_IPTYPE_UNSPEC, IPVER_IPV4, SEC_INVALID_PARAM, "9.9.9.9"},
        {4, IPVER_IPV6, SEC_INVALID_PARAM, "9.9.9.9"},
        {SOCK_IPTYPE_UNSPEC, 3, SEC_UNSPEC, "9.9.9.9"},
    };
    char buf[INET6_ADDRSTRLEN];
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto type = static_cast<sockIpType_e>(c.type);
        const auto version = static_cast<sockIpVer_e>(c.version);
        sockAddrStorage_t ss = {};
        uint16_t port = 0;
        sockSetStorageByStringAddr("9.9.9.9", 9, &ss);
        EXPECT_EQ(sockSetStorageByBinaryAddr(type, version, nullptr, 123, &ss), c.result);
        EXPECT_EQ(sockGetStorageStringAddr(&ss, buf, sizeof buf), SEC_OK);
        EXPECT_EQ(buf, c.text);
        EXPECT_EQ(sockGetStoragePort(&ss, &port), SEC_OK);
        EXPECT_EQ(port, c.result == SEC_OK ? 123 : 9);
    }
    sockAddrStorage_t foreign = {};
    sockIpAddr_t addr;
    uint16_t port = 0;
    foreign.ss_family = AF_UNIX;
    EXPECT_EQ(sockGetStoragePort(&foreign, &port), SEC_UNSPEC);
    EXPECT_EQ(sockSetStoragePort(&foreign, 1), SEC_UNSPEC);
    EXPECT_EQ(sockGetStorageBinaryAddr(&foreign, &addr), SEC_UNSPEC);
    EXPECT_EQ(sockGetStorageStringAddr(&foreign, buf, sizeof buf), SEC_UNSPEC);
    EXPECT_EQ(sockGetStorageIpVer(&foreign), IPVER_UNSPEC);
}

TEST(AddressTest, KindsAndOrder)
{
    const std::pair<const char*, sockIpType_e> kinds[] = {
        {"0.0.0.0", SOCK_IPTYPE_ANY},     {"127.0.0.1", SOCK_IPTYPE_LOOPBACK},
        {"127.0.0.2", SOCK_IPTYPE_OTHER}, {"::", SOCK_IPTYPE_ANY},
        {"::1", SOCK_IPTYPE_LOOPBACK},    {"::ffff:127.0.0.1", SOCK_IPTYPE_OTHER}};
    for (const auto& [text, kind] : kinds) {
        sockIpAddr_t addr = address(text);
        EXPECT_EQ(sockGetIpAddrType(&addr), kind) << text;
    }
    const std::pair<const char*, const char*> orders[] = {
        // less, greater
        {"11.0.0.1", "10.0.0.2"},
        {"1.0.0.127", "1.0.0.128"}, // the last octet weighs most
        {"2001:db8::ff", "2001:db8::100"},
        {"::1", "8000::"}}; // the first byte weighs most
    for (const auto& [low, high] : orders) {
        sockIpAddr_t less = address(low);
        sockIpAddr_t greater = address(high);
        EXPECT_EQ(sockCompareIpAddr(&less, &greater), IPCMP_LESS) << low;
        EXPECT_EQ(sockCompareIpAddr(&greater, &less), IPCMP_GREATER) << low;
        EXPECT_EQ(sockCompareIpAddr(&less, &less), IPCMP_EQUAL) << low;
    }
    sockIpAddr_t none = {};
    sockIpAddr_t ipv4 = address("1.2.3.4");
    sockIpAddr_t ipv6 = address("::1");
    EXPECT_EQ(sockGetIpAddrType(&none), SOCK_IPTYPE_UNSPEC);
    for (sockIpAddr_t* other : {&none, &ipv6}) {
        EXPECT_EQ(sockCompareIpAddr(&ipv4, other), IPCMP_UNSPEC);
        EXPECT_EQ(sockCompareIpAddr(other, &ipv4), IPCMP_UNSPEC);
    }
    EXPECT_EQ(sockCompareIpAddr(&none, &none), IPCMP_UNSPEC);
}

TEST(PeerTest, OnlyConnectedInternetSocketsHaveAnAddress)
{
    sockAddrStorage_t target = {};
    sockAddrStorage_t peer;
    sockIpAddr_t addr = address("9.9.9.9");
    const auto expect_peer = [&](int fd, sockErrCode_e name, sockErrCode_e of_addr, int family) {
        memset(&peer, 0xee, sizeof peer);
        EXPECT_EQ(sockGetPeerName(fd, &peer), name);
        EXPECT_EQ(peer.ss_family, family); // cleared all the same
        EXPECT_EQ(sockGetPeerAddr(fd, &addr), of_addr);
        EXPECT_EQ(text_of(&addr), of_addr == SEC_OK ? "127.0.0.1" : "9.9.9.9");
    };
    int local[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, local), 0);
    expect_peer(local[0], SEC_OK, SEC_UNSPEC, AF_UNIX);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    expect_peer(fd, SEC_INVALID_PARAM, SEC_INVALID_PARAM, 0);
    ASSERT_EQ(sockSetStorageByStringAddr("127.0.0.1", 4242, &target), SEC_OK);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&target), sizeof target), 0);
    expect_peer(fd, SEC_OK, SEC_OK, AF_INET);
    EXPECT_EQ(memcmp(&peer, &target, sizeof peer), 0);
    for (const int file : {local[0], local[1], fd}) {
        close(file);
    }
}
