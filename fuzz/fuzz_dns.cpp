// The walk over an answer's records, of the kind that FUZZ_QUERY asks for. The input is the answer
// to the first query of its kind and to the first few that follow from it; the others fail. The
// sanitizer guards what lies behind it in the resolver's buffer, to the byte.
#include "fuzz.h"
#include "osaResolv.h"

#if defined(__has_feature)
#define FEED_CLANG_ASAN __has_feature(address_sanitizer)
#else
#define FEED_CLANG_ASAN 0
#endif
#if FEED_CLANG_ASAN || defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(addr, size) (static_cast<void>(addr), static_cast<void>(size))
#endif

enum : int { TYPE_SRV = 33, TYPE_NAPTR = 35 };

static constexpr size_t LONGEST_NAME = 1024;
static constexpr size_t SMALLEST_RECORD = 15; // root, fixed fields, an IPv4 address

static const uint8_t* input;
static size_t input_size;

/** Queries of a kind that still get the input. */
static int domains_left;
static int services_left;
static int addresses_left;

static int* answers_left(int type)
{
    switch (type) {
    case TYPE_NAPTR:
        return &domains_left;
    case TYPE_SRV:
        return &services_left;
    default:
        return &addresses_left;
    }
}

extern "C" int __wrap___res_init(void)
{
    return 0;
}

extern "C" int __wrap_res_search(const char* name, int, int type, unsigned char* answer, int size)
{
    const size_t room = static_cast<size_t>(size);
    const size_t given = std::min(room, input_size);

    expect(name[0] != '\0' && strlen(name) <= LONGEST_NAME);
    int* left = answers_left(type);
    if (*left == 0) {
        return -1;
    }
    --*left;
    memcpy(answer, input, given);
    ASAN_POISON_MEMORY_REGION(answer + given, room - given);
    return static_cast<int>(input_size); // more than was given, if it does not fit
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    input = data;
    input_size = size;
    domains_left = 1;
    services_left = 2;
    addresses_left = 4;
    ulist_t* list = osaGetHostByName("x.y", FUZZ_QUERY, SERV_SIP);
    expect(uListSize(list) <= static_cast<int>(4 * 512 / SMALLEST_RECORD));
    for (int32_t pos = 0; uListEol(list, pos) == 0; pos++) {
        const auto* host = reinterpret_cast<const hostInfo_t*>(uListGet(list, pos));
        expect(host->ipAddr.ver == IPVER_IPV4 || host->ipAddr.ver == IPVER_IPV6);
    }
    osaFreeHostInfoList(list);
    return 0;
}
