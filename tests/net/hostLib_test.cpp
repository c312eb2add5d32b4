#include "fail.h"
#include "hostLib.h"
#include "osaSem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

TEST(HostTable, IsMadeOnceEvenWithoutMemory)
{
    hostInitFlag = 0;
    fail_malloc(1);
    hostTblInit();
    fail_nothing();
    EXPECT_EQ(hostListSem, nullptr);
    EXPECT_EQ(hostInitFlag, 1);
    EXPECT_NE(_presolvHostLibGetByName, nullptr);
    hostInitFlag = 0;
    hostTblInit();
    const SEM_ID sem = hostListSem;
    hostList.count = 1;
    hostTblInit();
    EXPECT_EQ(hostListSem, sem);
    EXPECT_EQ(hostList.count, 1);
    semDelete(sem);
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
