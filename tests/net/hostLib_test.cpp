#include "fail.h"
#include "hostLib.h"
#include "osaSem.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <random>
#include <string>
#include <vector>

// ---- The platform's look-up, scripted ----

static std::vector<std::string> looked_up;
static hostent* answer = nullptr;

extern "C" hostent* __wrap_gethostbyname(const char* name)
{
    looked_up.push_back(name);
    return answer;
}

static int by_name(const char* name)
{
    return reinterpret_cast<int (*)(char*)>(_presolvHostLibGetByName)(const_cast<char*>(name));
}

// ---- Host table ----

TEST(HostTable, IsMadeOnce)
{
    hostTblInit();
    EXPECT_EQ(hostInitFlag, 1);
    EXPECT_EQ(hostList.node.next, nullptr);
    EXPECT_EQ(hostList.node.previous, nullptr);
    EXPECT_EQ(hostList.count, 0);
    ASSERT_EQ(semTake(hostListSem, WAIT_FOREVER), OK);
    EXPECT_EQ(semGive(hostListSem), OK);

    const SEM_ID sem = hostListSem;
    HOSTENTRY entry = {};
    hostList = {{&entry.node, &entry.node}, 1};
    hostTblInit();
    EXPECT_EQ(hostListSem, sem);
    EXPECT_EQ(hostList.node.next, &entry.node);
    EXPECT_EQ(hostList.count, 1);
    lstInit(&hostList);
    EXPECT_EQ(hostList.node.next, nullptr);
    EXPECT_EQ(hostList.node.previous, nullptr);
    EXPECT_EQ(hostList.count, 0);
}

TEST(HostTable, WithoutMemoryThereIsNoSemaphore)
{
    hostTblInit();
    const SEM_ID sem = hostListSem;

    hostInitFlag = 0;
    fail_malloc(1);
    hostTblInit();
    EXPECT_TRUE(failed());
    fail_nothing();
    EXPECT_EQ(hostListSem, nullptr);
    EXPECT_EQ(hostInitFlag, 1);
    EXPECT_NE(_presolvHostLibGetByName, nullptr);
    hostListSem = sem;
}

TEST(HostTable, NamesAreLookedUpAndAddressesAreNot)
{
    unsigned char first[] = {192, 0, 2, 7};
    unsigned char second[] = {192, 0, 2, 8};
    char* addresses[] = {reinterpret_cast<char*>(first), reinterpret_cast<char*>(second), nullptr};
    char* no_addresses[] = {nullptr};
    hostent host = {};

    hostTblInit();
    looked_up.clear();
    answer = nullptr;
    EXPECT_EQ(by_name("10.1.2.3"), static_cast<int>(htonl(0x0a010203)));
    EXPECT_EQ(by_name(nullptr), ERROR);
    EXPECT_TRUE(looked_up.empty());

    EXPECT_EQ(by_name("255.255.255.255"), ERROR);
    EXPECT_EQ(by_name("nowhere.test"), ERROR);
    host.h_addr_list = addresses;
    answer = &host;
    EXPECT_EQ(by_name("here.test"), static_cast<int>(htonl(0xc0000207)));
    host.h_addr_list = no_addresses;
    EXPECT_EQ(by_name("empty.test"), ERROR);
    EXPECT_EQ(looked_up, (std::vector<std::string>{"255.255.255.255", "nowhere.test", "here.test",
                                                   "empty.test"}));
}

// ---- Addresses as text ----

TEST(InetNtoa, WritesEveryOctetInEveryPlace)
{
    for (unsigned int i = 0; i < 256; i++) {
        const in_addr address = {htonl(i << 24 | (255 - i) << 16 | (i ^ 0x5a) << 8 | i)};
        char expected[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &address, expected, sizeof expected);
        // No byte more than the text needs.
        const std::unique_ptr<char[]> text(new char[strlen(expected) + 1]);
        inet_ntoa_b(address, text.get());
        EXPECT_STREQ(text.get(), expected);
    }
}

// ---- Checksum ----

static u_short sum_of(const std::vector<unsigned char>& bytes, size_t misplaced = 0)
{
    // Exactly as long as the bytes, so that a read past the end is seen.
    const std::unique_ptr<unsigned char[]> copy(new unsigned char[bytes.size() + misplaced]);
    std::copy(bytes.begin(), bytes.end(), copy.get() + misplaced);
    void* start = copy.get() + misplaced;
    return checksum(static_cast<u_short*>(start), static_cast<int>(bytes.size()));
}

// By its definition: end-around carry after every word.
static u_short expected_sum(const std::vector<unsigned char>& bytes)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2) {
        const unsigned int high = i + 1 < bytes.size() ? bytes[i + 1] : 0;
        sum += bytes[i] | high << 8;
        sum = sum > 0xffff ? sum - 0xffff : sum;
    }
    return static_cast<u_short>(~sum);
}

TEST(Checksum, KnownSums)
{
    EXPECT_EQ(checksum(nullptr, 0), 0xffff);
    EXPECT_EQ(sum_of({1, 2, 3}), 0xfdfb);
    EXPECT_EQ(sum_of({0xff, 0xff, 0xff, 0xff}), 0);
    EXPECT_EQ(sum_of({0, 0}), 0xffff);
    u_short word = 0x1234;
    EXPECT_EQ(checksum(&word, -1), 0xffff);

    std::vector<unsigned char> header = {0x45, 0x00, 0x00, 0x3c, 0x1c, 0x46, 0x40,
                                         0x00, 0x40, 0x06, 0x00, 0x00, 0xac, 0x10,
                                         0x0a, 0x63, 0xac, 0x10, 0x0a, 0x0c};
    const u_short sum = sum_of(header);
    memcpy(&header[10], &sum, sizeof sum);
    EXPECT_EQ(header[10], 0xb1);
    EXPECT_EQ(header[11], 0xe6);
    EXPECT_EQ(sum_of(header), 0);
}

TEST(Checksum, AnyLengthAtAnyAddress)
{
    std::mt19937 random(1);

    for (size_t length = 0; length < 300; length++) {
        std::vector<unsigned char> bytes(length);
        for (unsigned char& byte : bytes) {
            byte = static_cast<unsigned char>(random());
        }
        EXPECT_EQ(sum_of(bytes), expected_sum(bytes)) << length;
        EXPECT_EQ(sum_of(bytes, 1), expected_sum(bytes)) << length;
    }
    for (const size_t length : {65'535, 65'536, 131'072, 131'075, 1'000'003}) {
        const std::vector<unsigned char> bytes(length, 0xfe); // 32 bits do not hold the last sums
        EXPECT_EQ(sum_of(bytes), expected_sum(bytes)) << length;
    }
}
