// The resolver: asks the platform's stub resolver for one record type at a time and walks the raw
// answers.
//
// Answers are hostile. A walk looks at no byte before it has compared what is left, and what is
// left ends with the answer or with the 512 bytes of its buffer, whichever comes first. Every step
// takes at least one byte, so the counts in the header bound nothing and cost nothing. A walk that
// meets something it cannot step over, or cannot take, stops there and keeps what it has. Memory
// grows with the bytes that came, never with a length that the answer merely claims.
//
// No state between calls. A deletion of the calling task takes effect between two queries:
// resolvSearch then answers none any more, and everything unwinds as if nothing had been found.
//
// Locks, outermost first:
//   resolver_lock  over a query, where the C library has one state for all threads
//   environ_lock   while it reads its configuration and the environment
#include "arpa_nameser.h"

#include "osaResolv.h"

#include "internal.h"
#include "longLock.h"
#include "uBm.h"

#include <arpa/inet.h>
#include <resolv.h>
#include <string.h>
#include <strings.h>

extern "C" {
// The closed library's bounded copy: at most count characters of src and at most size - 1, ended
// with a zero. The result is not used.
char* uStrnSafeCopy(char* dst, size_t size, const char* src, size_t count);
}

#if defined(__BIONIC__)
// Android's C library has it under this name alone, and in no header.
extern "C" int __dn_skipname(const u_char* comp_dn, const u_char* eom);
#define dn_skipname __dn_skipname
#endif

// Android's C library has one resolver state for the process, and nothing guards it: two threads in
// res_init and res_search at once have each other wait for ever. Elsewhere each thread has its own,
// or there is none.
#if defined(__BIONIC__) || defined(HNETD_ONE_RESOLVER)
static constexpr bool ONE_RESOLVER = true;
#else
static constexpr bool ONE_RESOLVER = false;
#endif

static constexpr size_t SERVICE_SIZE = 32; // compared part of a NAPTR service field, terminated

/** One SRV record. */
typedef struct {
    unsigned short priority; // host byte order, as weight and port
    unsigned short weight;
    unsigned short port;
    char* addrIndex; // always null
    char* target;    // NS_MAXDNAME bytes
} SRV_INFO;

/** One NAPTR record. */
typedef struct {
    uint16_t order; // host byte order, as preference
    uint16_t preference;
    char* flags;
    char* service;
    char* regex;
    char* replacement; // NS_MAXDNAME bytes
} naptrInfo_t;

typedef union {
    HEADER hdr;
    u_char buf[NS_PACKETSZ];
} querybuf;

/** An answer being walked: the bytes from curPos to endPos are yet to come. */
typedef struct {
    querybuf resp;
    char* name; // NS_MAXDNAME bytes for owner names, which nobody reads
    const u_char* curPos;
    const u_char* endPos;
} walk_t;

/** One record of an answer, all of it before the answer's end. */
typedef struct {
    uint16_t type;
    uint16_t dataLen;
    int32_t ttl;
    const u_char* data;
} record_t;

/** Looks at one record and takes it if it is of the kind wanted. @return false ends the walk */
typedef bool (*record_taker_t)(const walk_t* walk, const record_t* record, void* arg);

// ---- Queries and the walk over an answer ----

// Reads the resolver's configuration afresh. Where that fails, for want of a descriptor or of
// memory, the C library leaves its state marked as initialised, without the addresses: the next
// search, ours or gethostbyname's, would read through null. Unmarked, it starts anew.
static bool read_configuration(void)
{
    bool done = false;

    LOCK_SECTION(&environ_lock, environHeld);
    done = res_init() == 0;
    END_SECTION(environHeld);
#if !defined(__BIONIC__) // which shows no state
    if (!done) {
        _res.options &= ~static_cast<decltype(_res.options)>(RES_INIT);
    }
#endif
    return done;
}

static constinit long_lock_t resolver_lock;

// Whoever waits here has the time-outs of others to wait for, unless it is deleted.
static bool resolver_take(void)
{
    return !ONE_RESOLVER || long_lock_take(self_record, &resolver_lock);
}

static void resolver_give(void)
{
    if (ONE_RESOLVER) {
        long_lock_give(&resolver_lock);
    }
}

static int resolvSearch(const char* domainName, int queryType, querybuf* resp)
{
    int length = -1;

    if (domainName == nullptr || domainName[0] == '\0' || resp == nullptr) {
        return -1;
    }
    if (end_asked(self_record) || !resolver_take()) {
        return -1;
    }
    if (read_configuration()) {
        length = res_search(domainName, ns_c_in, queryType, resp->buf, NS_PACKETSZ);
    }
    resolver_give();
    return length;
}

// Steps over the next count bytes, if they are all there.
static bool step(walk_t* walk, int count)
{
    if (count < 0 || count > walk->endPos - walk->curPos) {
        return false;
    }
    walk->curPos += count;
    return true;
}

static bool skip_questions(walk_t* walk)
{
    for (int left = ntohs(walk->resp.hdr.qdcount); left > 0; left--) {
        if (!step(walk, dn_skipname(walk->curPos, walk->endPos)) || !step(walk, NS_QFIXEDSZ)) {
            return false;
        }
    }
    return true;
}

static bool next_record(walk_t* walk, record_t* record)
{
    const int nameLen =
        dn_expand(walk->resp.buf, walk->endPos, walk->curPos, walk->name, NS_MAXDNAME);
    if (!step(walk, nameLen)) {
        return false;
    }
    const u_char* const fixed = walk->curPos; // type, class, TTL, data length
    if (!step(walk, NS_RRFIXEDSZ)) {
        return false;
    }
    record->type = ns_read16(fixed);
    record->ttl = static_cast<int32_t>(ns_read32(fixed + 4));
    record->dataLen = ns_read16(fixed + 8);
    record->data = walk->curPos;
    return step(walk, record->dataLen);
}

static void walk_answer(walk_t* walk, int len, record_taker_t take, void* arg)
{
    const HEADER* const hdr = &walk->resp.hdr;
    record_t record;

    if (len < NS_HFIXEDSZ) {
        return;
    }
    walk->curPos = walk->resp.buf + NS_HFIXEDSZ;
    walk->endPos = walk->resp.buf + (len < NS_PACKETSZ ? len : NS_PACKETSZ);
    if (!skip_questions(walk)) {
        return;
    }
    // All three sections; their sum wraps at 16 bits.
    auto left =
        static_cast<uint16_t>(ntohs(hdr->ancount) + ntohs(hdr->nscount) + ntohs(hdr->arcount));
    while (left > 0 && next_record(walk, &record) && take(walk, &record, arg)) {
        left--;
    }
}

// The two buffers are allocated apart: each is small enough for the fast lists of the allocator,
// which both together are not.
static void query(const char* domainName, int queryType, record_taker_t take, void* arg)
{
    char* name = static_cast<char*>(uMalloc(NS_MAXDNAME));
    walk_t* walk = static_cast<walk_t*>(uMalloc(sizeof(walk_t)));
    if (name != nullptr && walk != nullptr) {
        walk->name = name;
        walk_answer(walk, resolvSearch(domainName, queryType, &walk->resp), take, arg);
    }
    uFree(walk);
    uFree(name);
}

static bool is_missing(const char* domainName, const ulist_t* list)
{
    return domainName == nullptr || domainName[0] == '\0' || list == nullptr;
}

template <typename T> static T* record_at(ulist_t* list, int32_t pos)
{
    return reinterpret_cast<T*>(uListGet(list, pos));
}

template <typename T> static T* take_first(ulist_t* list)
{
    return reinterpret_cast<T*>(uListRemove(list, 0));
}

// ---- Addresses ----

/** What the addresses of one walk have in common. */
typedef struct {
    protoType_e proto;
    uint16_t port;
    ulist_t* list;
} addr_walk_t;

static bool append_host(const addr_walk_t* common, int32_t ttl, const sockIpAddr_t* addr)
{
    hostInfo_t* host = static_cast<hostInfo_t*>(uMalloc(sizeof(hostInfo_t)));
    if (host == nullptr) {
        return false;
    }
    host->ttl = ttl;
    host->type = common->proto;
    host->port = common->port;
    host->ipAddr = *addr;
    if (uListAppend(common->list, reinterpret_cast<addr_t>(host)) < 0) {
        uFree(host);
        return false;
    }
    return true;
}

static bool take_address(const walk_t*, const record_t* record, void* arg)
{
    const bool ipv4 = record->type == ns_t_a;
    const int addrLen = ipv4 ? NS_INADDRSZ : NS_IN6ADDRSZ;
    sockIpAddr_t addr = {};

    if (!ipv4 && record->type != ns_t_aaaa) {
        return true;
    }
    if (record->dataLen < addrLen) {
        return true; // too short for an address
    }
    addr.ver = ipv4 ? IPVER_IPV4 : IPVER_IPV6;
    memcpy(&addr.addr, record->data, static_cast<size_t>(addrLen));
    return append_host(static_cast<const addr_walk_t*>(arg), record->ttl, &addr);
}

static void resolvAddrRecord(const char* domainName, int queryType, protoType_e proto,
                             uint16_t port, ulist_t* hostInfoList)
{
    addr_walk_t common = {proto, port, hostInfoList};

    if (is_missing(domainName, hostInfoList)) {
        return;
    }
    if (queryType != ns_t_a && queryType != ns_t_aaaa) {
        return;
    }
    query(domainName, queryType, take_address, &common);
}

static void resolvAddrQuery(const char* domainName, ulist_t* hostInfoList)
{
    const addr_walk_t common = {PROTO_UNSPEC, 0, hostInfoList};
    sockIpAddr_t addr;

    if (is_missing(domainName, hostInfoList)) {
        return;
    }
    if (sockIpAddrPton(domainName, &addr) == SEC_OK) {
        (void)append_host(&common, 0, &addr); // without memory there is no result
        return;
    }
    resolvAddrRecord(domainName, ns_t_a, PROTO_UNSPEC, 0, hostInfoList);
    resolvAddrRecord(domainName, ns_t_aaaa, PROTO_UNSPEC, 0, hostInfoList);
}

// ---- Sorting ----

/** Whether the first of two records belongs behind the second. */
template <typename T> using record_order_t = bool (*)(const T*, const T*);

template <typename T> static void swap_records(T* a, T* b)
{
    const T kept = *a;

    *a = *b;
    *b = kept;
}

// Sorts by the major order, then every run of equals by the minor one. An exchange sort that swaps
// contents: the order of records that are equal in both follows from it and is part of the result.
template <typename T>
static void sort_records(ulist_t* list, record_order_t<T> major, record_order_t<T> minor)
{
    const int32_t size = uListSize(list);

    for (int32_t i = 0; i < size; i++) {
        T* const first = record_at<T>(list, i);
        for (int32_t j = i + 1; j < size; j++) {
            T* const other = record_at<T>(list, j);
            if (major(first, other)) {
                swap_records(first, other);
            }
        }
    }
    for (int32_t i = 0; i < size; i++) {
        T* const first = record_at<T>(list, i);
        for (int32_t j = i + 1; j < size; j++) {
            T* const other = record_at<T>(list, j);
            if (major(other, first)) {
                break; // the next run
            }
            if (minor(first, other)) {
                swap_records(first, other);
            }
        }
    }
}

// ---- Services ----

static void srvInfoFree(SRV_INFO* srvInfo)
{
    if (srvInfo == nullptr) {
        return;
    }
    uFree(srvInfo->addrIndex);
    uFree(srvInfo->target);
    uFree(srvInfo);
}

static void srvInfoListFree(ulist_t* srvInfoList)
{
    while (uListSize(srvInfoList) > 0) {
        srvInfoFree(take_first<SRV_INFO>(srvInfoList));
    }
    (void)uListUninit(srvInfoList); // empty, or null
}

// Expands a name at curPos that must end at or before dataEnd; it may point anywhere in the answer
// up to endPos. Returns a buffer of NS_MAXDNAME bytes, or null.
static char* expand_name(const u_char* respBuf, const u_char* endPos, const u_char* curPos,
                         const u_char* dataEnd)
{
    char* name = static_cast<char*>(uMalloc(NS_MAXDNAME));
    if (name == nullptr) {
        return nullptr;
    }
    const int len = dn_expand(respBuf, endPos, curPos, name, NS_MAXDNAME);
    if (len < 0 || len > dataEnd - curPos) {
        uFree(name);
        return nullptr;
    }
    return name;
}

// Parses the dataLen bytes of SRV data at curPos, which lie before endPos.
static SRV_INFO* resolvSrvRecord(const u_char* respBuf, const u_char* endPos, const u_char* curPos,
                                 int dataLen)
{
    constexpr int WEIGHT_AT = 2;
    constexpr int PORT_AT = 4;
    constexpr int TARGET_AT = 6;

    if (respBuf == nullptr || endPos == nullptr || curPos == nullptr || dataLen < TARGET_AT) {
        return nullptr;
    }
    SRV_INFO* srvInfo = static_cast<SRV_INFO*>(uMalloc(sizeof(SRV_INFO)));
    if (srvInfo == nullptr) {
        return nullptr;
    }
    srvInfo->priority = ns_read16(curPos);
    srvInfo->weight = ns_read16(curPos + WEIGHT_AT);
    srvInfo->port = ns_read16(curPos + PORT_AT);
    srvInfo->target = expand_name(respBuf, endPos, curPos + TARGET_AT, curPos + dataLen);
    if (srvInfo->target == nullptr) {
        srvInfoFree(srvInfo);
        return nullptr;
    }
    return srvInfo;
}

static bool take_service(const walk_t* walk, const record_t* record, void* arg)
{
    if (record->type != ns_t_srv) {
        return true;
    }
    SRV_INFO* srvInfo =
        resolvSrvRecord(walk->resp.buf, walk->endPos, record->data, record->dataLen);
    if (uListAppend(static_cast<ulist_t*>(arg), reinterpret_cast<addr_t>(srvInfo)) < 0) {
        srvInfoFree(srvInfo);
        return false;
    }
    return true;
}

// Ascending priority, then descending weight: no dice are thrown.
static void sortSrvInfoList(ulist_t* srvInfoList)
{
    sort_records<SRV_INFO>(
        srvInfoList, [](const SRV_INFO* a, const SRV_INFO* b) { return a->priority > b->priority; },
        [](const SRV_INFO* a, const SRV_INFO* b) { return a->weight < b->weight; });
}

static protoType_e srvInfoServiceProto(const char* domainName)
{
    if (domainName == nullptr) {
        return PROTO_UNSPEC;
    }
    if (strstr(domainName, "_tcp.") != nullptr) {
        return PROTO_TCP;
    }
    return strstr(domainName, "_udp.") != nullptr ? PROTO_UDP : PROTO_UNSPEC;
}

// All IPv4 addresses come before all IPv6 addresses.
static void srvInfoAddrQuery(ulist_t* srvInfoList, protoType_e proto, ulist_t* hostInfoList)
{
    static constexpr ns_type kinds[] = {ns_t_a, ns_t_aaaa};

    if (srvInfoList == nullptr || hostInfoList == nullptr) {
        return;
    }
    for (const ns_type queryType : kinds) {
        for (int32_t pos = 0; uListEol(srvInfoList, pos) == 0; pos++) {
            const SRV_INFO* srvInfo = record_at<SRV_INFO>(srvInfoList, pos);
            resolvAddrRecord(srvInfo->target, queryType, proto, srvInfo->port, hostInfoList);
        }
    }
}

static void resolvSrvQuery(const char* domainName, ulist_t* hostInfoList)
{
    if (is_missing(domainName, hostInfoList)) {
        return;
    }
    ulist_t* srvInfoList = uListInit(FALSE);
    if (srvInfoList == nullptr) {
        return;
    }
    query(domainName, ns_t_srv, take_service, srvInfoList);
    sortSrvInfoList(srvInfoList);
    srvInfoAddrQuery(srvInfoList, srvInfoServiceProto(domainName), hostInfoList);
    srvInfoListFree(srvInfoList);
}

// ---- The services of a domain ----

/** What a walk over NAPTR records is after. */
typedef struct {
    serviceName_e serviceName;
    ulist_t* list;
} naptr_walk_t;

static void naptrInfoFree(naptrInfo_t* naptrInfo)
{
    if (naptrInfo == nullptr) {
        return;
    }
    uFree(naptrInfo->flags);
    uFree(naptrInfo->service);
    uFree(naptrInfo->regex);
    uFree(naptrInfo->replacement);
    uFree(naptrInfo);
}

static void naptrInfoListFree(ulist_t* naptrInfoList)
{
    while (uListSize(naptrInfoList) > 0) {
        naptrInfoFree(take_first<naptrInfo_t>(naptrInfoList));
    }
    (void)uListUninit(naptrInfoList); // empty, or null
}

// Only a record that leads straight to SRV records, of the wanted service.
static bool checkNaptrService(const naptrInfo_t* naptrInfo, serviceName_e serviceName)
{
    char wanted[SERVICE_SIZE] = {};

    if (naptrInfo == nullptr || naptrInfo->flags == nullptr ||
        strcasecmp(naptrInfo->flags, "s") != 0) {
        return false;
    }
    const char* const plus = strchr(naptrInfo->service, '+');
    if (plus != nullptr) {
        const auto len = static_cast<size_t>(plus - naptrInfo->service);
        (void)uStrnSafeCopy(wanted, sizeof wanted, naptrInfo->service, len);
    }
    switch (serviceName) {
    case SERV_NONE:
        return true;
    case SERV_SIP:
        return strcasecmp(wanted, "SIP") == 0;
    default:
        return false;
    }
}

// Copies the character-string at *curPos, a length byte and as many bytes, and steps over it.
// Returns null when it would pass dataEnd, or without memory.
static char* copy_string(const u_char** curPos, const u_char* dataEnd)
{
    const u_char* const length = *curPos;

    if (length >= dataEnd || *length >= dataEnd - length) {
        return nullptr;
    }
    char* text = static_cast<char*>(uMalloc(*length + 1U));
    if (text == nullptr) {
        return nullptr;
    }
    memcpy(text, length + 1, *length);
    *curPos = length + 1 + *length;
    return text;
}

static bool parse_naptr_strings(naptrInfo_t* naptrInfo, const u_char** curPos,
                                const u_char* dataEnd)
{
    naptrInfo->flags = copy_string(curPos, dataEnd);
    if (naptrInfo->flags == nullptr) {
        return false;
    }
    naptrInfo->service = copy_string(curPos, dataEnd);
    if (naptrInfo->service == nullptr) {
        return false;
    }
    naptrInfo->regex = copy_string(curPos, dataEnd);
    return naptrInfo->regex != nullptr;
}

// Parses the dataLen bytes of NAPTR data at curPos, which lie before endPos. Null for a record that
// is malformed or leads elsewhere.
static naptrInfo_t* resolvNaptrRecord(const u_char* respBuf, const u_char* endPos,
                                      const u_char* curPos, int dataLen, serviceName_e serviceName)
{
    constexpr int FIXED_LEN = 2 * NS_INT16SZ;

    if (respBuf == nullptr || endPos == nullptr || curPos == nullptr || dataLen < FIXED_LEN) {
        return nullptr;
    }
    naptrInfo_t* naptrInfo = static_cast<naptrInfo_t*>(uMalloc(sizeof(naptrInfo_t)));
    if (naptrInfo == nullptr) {
        return nullptr;
    }
    const u_char* const dataEnd = curPos + dataLen;
    naptrInfo->order = ns_read16(curPos);
    naptrInfo->preference = ns_read16(curPos + NS_INT16SZ);
    curPos += FIXED_LEN;
    if (parse_naptr_strings(naptrInfo, &curPos, dataEnd)) {
        naptrInfo->replacement = expand_name(respBuf, endPos, curPos, dataEnd);
    }
    if (naptrInfo->replacement == nullptr || !checkNaptrService(naptrInfo, serviceName)) {
        naptrInfoFree(naptrInfo);
        return nullptr;
    }
    return naptrInfo;
}

static bool take_naptr(const walk_t* walk, const record_t* record, void* arg)
{
    const naptr_walk_t* const wanted = static_cast<const naptr_walk_t*>(arg);

    if (record->type != ns_t_naptr) {
        return true;
    }
    naptrInfo_t* naptrInfo = resolvNaptrRecord(walk->resp.buf, walk->endPos, record->data,
                                               record->dataLen, wanted->serviceName);
    if (uListAppend(wanted->list, reinterpret_cast<addr_t>(naptrInfo)) < 0) {
        naptrInfoFree(naptrInfo);
        return false;
    }
    return true;
}

// Ascending order, then ascending preference.
static void sortNaptrInfoList(ulist_t* naptrInfoList)
{
    sort_records<naptrInfo_t>(
        naptrInfoList,
        [](const naptrInfo_t* a, const naptrInfo_t* b) { return a->order > b->order; },
        [](const naptrInfo_t* a, const naptrInfo_t* b) { return a->preference > b->preference; });
}

static void naptrInfoSrvQuery(ulist_t* naptrInfoList, ulist_t* hostInfoList)
{
    for (int32_t pos = 0; uListEol(naptrInfoList, pos) == 0; pos++) {
        resolvSrvQuery(record_at<naptrInfo_t>(naptrInfoList, pos)->replacement, hostInfoList);
    }
}

static void resolvNaptrQuery(const char* domainName, serviceName_e serviceName,
                             ulist_t* hostInfoList)
{
    if (is_missing(domainName, hostInfoList)) {
        return;
    }
    naptr_walk_t wanted = {serviceName, uListInit(FALSE)};
    if (wanted.list == nullptr) {
        return;
    }
    query(domainName, ns_t_naptr, take_naptr, &wanted);
    sortNaptrInfoList(wanted.list);
    naptrInfoSrvQuery(wanted.list, hostInfoList);
    naptrInfoListFree(wanted.list);
}

// ---- Operations ----

// The C library holds a lock of its own over the look-up, so the caller must not end inside.
struct hostent* resolv(char* name, unsigned short*, int)
{
    if (name == nullptr) {
        return nullptr;
    }
    thread_record_t* me = op_enter();
    hostent* host = gethostbyname(name);
    op_leave(me);
    return host;
}

uint32_t osaGetIpFromName(char* name)
{
    uint32_t addr = INADDR_NONE;

    if (name == nullptr) {
        return INADDR_NONE;
    }
    const in_addr_t literal = inet_addr(name);
    if (literal != INADDR_NONE) {
        return literal;
    }
    const hostent* host = resolv(name, nullptr, 0);
    if (host != nullptr && host->h_addr_list[0] != nullptr) {
        memcpy(&addr, host->h_addr_list[0], sizeof addr);
    }
    return addr;
}

ulist_t* osaGetHostByName(const char* name, queryType_e type, serviceName_e servName)
{
    thread_record_t* me = op_enter();
    ulist_t* list = uListInit(FALSE);
    switch (type) {
    case QUERY_ADDRESS:
        resolvAddrQuery(name, list);
        break;
    case QUERY_SRV:
        resolvSrvQuery(name, list);
        break;
    case QUERY_NAPTR:
        resolvNaptrQuery(name, servName, list);
        break;
    default:
        break;
    }
    if (uListSize(list) <= 0 || end_asked(me)) {
        osaFreeHostInfoList(list);
        list = nullptr;
    }
    op_leave(me);
    return list;
}

void osaFreeHostInfoList(ulist_t* hostInfoList)
{
    if (hostInfoList == nullptr) {
        return;
    }
    thread_record_t* me = op_enter();
    while (uListSize(hostInfoList) > 0) {
        uFree(take_first<hostInfo_t>(hostInfoList));
    }
    (void)uListUninit(hostInfoList); // empty
    op_leave(me);
}
