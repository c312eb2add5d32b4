// Addresses as text: quads as scanf reads them, IPv6 in brackets and without, scope ids. What the
// layer makes of a text is held against what the C library does, and must come back from the text
// that it is shown as.
#include "fuzz.h"
#include "osaResolv.h"
#include "osaSocket.h"

#include <arpa/inet.h>
#include <cstdio>

extern "C" hostent* __wrap_gethostbyname(const char*)
{
    return nullptr; // names lead nowhere
}

static constexpr size_t LONGEST_IPV6 = 47; // characters that are looked at

static bool is_quad(const fuzz_text& text)
{
    unsigned parts[4] = {};
    int end = 0;

    if (text.length < 7 || text.length > 15) {
        return false;
    }
    return sscanf(text.bytes, "%3u.%3u.%3u.%3u %n", &parts[0], &parts[1], &parts[2], &parts[3],
                  &end) == 4 &&
           text.bytes[end] == '\0' &&
           std::all_of(parts, parts + 4, [](unsigned p) { return p < 256; });
}

static bool is_ipv6(const fuzz_text& text, in6_addr* addr)
{
    char copy[LONGEST_IPV6 + 1] = {};
    const char* start = copy;

    const size_t length = std::min(text.length, LONGEST_IPV6);
    memcpy(copy, text.bytes, length);
    if (length >= 2 && copy[0] == '[' && copy[length - 1] == ']') {
        copy[length - 1] = '\0';
        start++;
    }
    return inet_pton(AF_INET6, start, addr) == 1;
}

/** Into a buffer of any size: what fits, and no byte behind it. */
static void expect_shown(sockIpAddr_t* addr, sockAddrStorage_t* storage, size_t size)
{
    char whole[INET6_ADDRSTRLEN];
    sockIpAddr_t again;

    expect(sockIpAddrNtop(addr, whole, sizeof whole) == SEC_OK);
    expect(sockIpAddrPton(whole, &again) == SEC_OK);
    expect(sockCompareIpAddr(addr, &again) == IPCMP_EQUAL);

    char* part = static_cast<char*>(malloc(size));
    const sockErrCode_e result = sockGetStorageStringAddr(storage, part, size);
    const bool fits = strlen(whole) < size;
    expect(result == (fits || addr->ver == IPVER_IPV4 ? SEC_OK : SEC_INVALID_ADDR));
    expect(result != SEC_OK || strncmp(part, whole, size - 1) == 0);
    expect(result != SEC_OK || part[std::min(size - 1, strlen(whole))] == '\0');
    free(part);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const fuzz_text text(data, size);
    sockIpAddr_t addr = {};
    sockAddrStorage_t storage = {};
    in6_addr ipv6 = {};

    const bool quad = is_quad(text);
    const bool six = is_ipv6(text, &ipv6);
    const in_addr_t four = quad ? inet_addr(text.bytes) : INADDR_NONE;
    const bool converts = quad ? four != INADDR_NONE : six;
    const sockErrCode_e expected = converts ? SEC_OK : SEC_INVALID_ADDR;

    expect(validateIP4Dotted(text.bytes) == (quad ? 1 : 0));
    expect(sockIsValidAddr(text.bytes) == (quad || six ? 1 : 0));
    expect(sockIpAddrPton(text.bytes, nullptr) == expected);
    expect(sockIpAddrPton(text.bytes, &addr) == expected);
    expect(sockSetStorageByStringAddr(text.bytes, 5060, &storage) == expected);
    expect(sockGetIpVer(text.bytes) == addr.ver);
    expect(osaGetIpFromName(text.bytes) == inet_addr(text.bytes));
    if (!converts) {
        expect(addr.ver == IPVER_UNSPEC && storage.ss_family == 0);
        return 0;
    }
    expect(addr.ver == (quad ? IPVER_IPV4 : IPVER_IPV6));
    expect(quad ? addr.addr.ip.v4 == four : memcmp(&addr.addr, &ipv6, sizeof ipv6) == 0);
    expect_shown(&addr, &storage, 1 + size % 48);
    return 0;
}
