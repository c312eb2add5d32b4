#include "fail.h"
#include "hostLib.h"
#include "internal.h"
#include "osaSem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <functional>
#include <netdb.h>
#include <random>
#include <string>
#include <vector>

static std::string looked_up; // "a|b|"
static hostent* answer = nullptr;

extern "C" hostent* __wrap_gethostbyname(const char* name)
{
    EXPECT_GT(self_record->depth, 0); // nobody ends while the C library holds a lock over it
    looked_up += std::string(name) + "|";
    return answer;
}

TEST(HostTable, IsMadeOnceEvenWithoutMemory)
{
    hostInitFlag = 0;
    fail_malloc(1);
    hostTblInit();
    fail_nothing();
    EXPECT_EQ(hostListSem, nullptr);
    EXPECT_EQ(hostInitFlag, 1);
    hostInitFlag = 0;
    hostTblInit();
    const SEM_ID sem = hostListSem;
    hostList.count = 1;
    hostTblInit();
    EXPECT_EQ(hostListSem, sem);
    EXPECT_EQ(hostList.count, 1);
    semDelete(sem);
}

TEST(HostTable, NamesAreLookedUpAndAddressesAreNot)
{
    char octets[] = {'\xc0', 0, 2, 7, '\xc0', 0, 2, 8};
    char* two[] = {octets, octets + 4, nullptr};
    hostent host = {};

    const auto by_name = reinterpret_cast<int (*)(const char*)>(_presolvHostLibGetByName);
    looked_up.clear();
    answer = nullptr;
    EXPECT_EQ(by_name("10.1.2.3"), static_cast<int>(htonl(0x0a010203)));
    EXPECT_EQ(by_name(nullptr), ERROR);
    EXPECT_EQ(looked_up, "");
    EXPECT_EQ(by_name("255.255.255.255"), ERROR);
    answer = &host;
    host.h_addr_list = two;
    EXPECT_EQ(by_name("here.test"), static_cast<int>(htonl(0xc0000207)));
    host.h_addr_list = two + 2;
    EXPECT_EQ(by_name("empty.test"), ERROR);
    EXPECT_EQ(looked_up, "255.255.255.255|here.test|empty.test|");
}

TEST(InetNtoa, WritesEveryOctetAndNoByteMore)
{
    for (unsigned i = 0; i < 256; i++) {
        const in_addr address = {htonl(i << 24 | (255 - i) << 16 | (i ^ 0x5a) << 8 | i)};
        char expected[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &address, expected, sizeof expected);
        std::vector<char> text(strlen(expected) + 1);
        inet_ntoa_b(address, text.data());
        EXPECT_STREQ(text.data(), expected);
    }
}

// Against end-around carry after every word, from a first byte to the very end of the memory.
static void expect_sum(std::vector<unsigned char> bytes, size_t first)
{
    uint32_t sum = 0;
    for (size_t i = first; i < bytes.size(); i++) {
        sum += i % 2 == first ? bytes[i] : bytes[i] << 8U;
        sum = sum > 0xffff ? sum - 0xffff : sum;
    }
    void* start = bytes.data() + first;
    const int length = static_cast<int>(bytes.size() - first);
    EXPECT_EQ(checksum(static_cast<u_short*>(start), length), static_cast<u_short>(~sum)) << length;
}

TEST(Checksum, AnyLengthAtAnyAddress)
{
    std::mt19937 random(1);
    for (size_t size = 0; size < 300; size++) {
        std::vector<unsigned char> bytes(size);
        std::generate(bytes.begin(), bytes.end(), std::ref(random));
        expect_sum(bytes, size / 2 % 2);
    }
    for (const size_t size : {65'537, 131'076, 1'000'003}) {
        expect_sum(std::vector<unsigned char>(size, 0xfe), 1); // the last is over 32 bits
    }
    expect_sum({0xff, 0xff, 0xff, 0xff}, 0);
    EXPECT_EQ(checksum(nullptr, -1), 0xffff);
}
