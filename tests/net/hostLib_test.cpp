#include "fail.h"
#include "hostLib.h"
#include "osaSem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <numeric>
#include <random>

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
    memset(&hostList, 0xff, sizeof hostList);
    hostTblInit();
    const SEM_ID sem = hostListSem;
    EXPECT_EQ(hostList.node.next, nullptr);
    EXPECT_EQ(hostList.node.previous, nullptr);
    EXPECT_EQ(hostList.count, 0);
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

// Against end-around carry after every word, up to the very end of the memory.
TEST(Checksum, AnyLengthAtAnyAddress)
{
    std::mt19937 random(1);
    std::vector<size_t> sizes(300);
    std::iota(sizes.begin(), sizes.end(), 0);
    sizes.insert(sizes.end(), {65'537, 131'076, 1'000'003}); // the last sum is over 32 bits
    for (const size_t size : sizes) {
        const size_t first = size / 2 % 2;
        std::vector<unsigned char> bytes(size, 0xff);
        std::generate_n(bytes.begin(), size < 300 ? size : 0, std::ref(random));
        uint32_t sum = 0;
        for (size_t i = first; i < size; i++) {
            sum += i % 2 == first ? bytes[i] : bytes[i] << 8U;
            sum = sum > 0xffff ? sum - 0xffff : sum;
        }
        auto* start = reinterpret_cast<u_short*>(bytes.data() + first);
        EXPECT_EQ(checksum(start, static_cast<int>(size - first)), 0xffff - sum) << size;
    }
    EXPECT_EQ(checksum(nullptr, -1), 0xffff);
}
