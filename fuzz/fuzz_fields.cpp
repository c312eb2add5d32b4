// The texts in NAPTR records. The input is what the fields of well-formed records say; each record
// leads to a service and an address of its own, so that the result tells which ones were followed,
// and in which order.
#include "fuzz.h"
#include "osaResolv.h"

#include <strings.h>

enum : int { TYPE_A = 1, TYPE_SRV = 33, TYPE_NAPTR = 35 };

static constexpr size_t RECORDS = 4;
static constexpr size_t ANSWER = 512;
static constexpr int FIRST_PORT = 5000;

/** Kinds of service names, as what they say of the transport. */
static constexpr struct {
    std::string_view parent; // each label with its length in front, ended by the root's
    protoType_e proto;
} KINDS[] = {
    {std::string_view("\4_tcp\1x\0", 8), PROTO_TCP},
    {std::string_view("\4_udp\1x\0", 8), PROTO_UDP},
    {std::string_view("\4_tcp\4_udp\1x\0", 13), PROTO_TCP},
    {std::string_view("\1x\0", 3), PROTO_UNSPEC},
};

/** One record; its service is named for its place, 'a' the first. */
struct naptr {
    unsigned order, preference, kind;
    bool followed;
};

static naptr records[RECORDS];
static size_t record_count;

/** An answer in the making; what does not fit is left out whole by its maker. */
class answer {
  public:
    explicit answer(unsigned count) : bytes{0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(count)} {}

    answer& u8(unsigned value)
    {
        bytes[size++] = static_cast<uint8_t>(value);
        return *this;
    }
    answer& u16(unsigned value) { return u8(value >> 8).u8(value); }
    answer& raw(std::string_view text)
    {
        memcpy(bytes + size, text.data(), text.size());
        size += text.size();
        return *this;
    }
    /** A record of the root's, up to its data. */
    answer& record(unsigned type, size_t length)
    {
        return u8(0).u16(type).u16(1).u16(0).u16(60).u16(static_cast<unsigned>(length));
    }
    void count_record() { bytes[7]++; }
    bool has_room(size_t more) const { return size + more <= ANSWER; }
    int copy(unsigned char* to) const
    {
        memcpy(to, bytes, size);
        return static_cast<int>(size);
    }

  private:
    uint8_t bytes[ANSWER];
    size_t size = 12;
};

static answer domain(0);

extern "C" int __wrap___res_init(void)
{
    return 0;
}

extern "C" int __wrap_res_search(const char* name, int, int type, unsigned char* to, int)
{
    const auto place = static_cast<unsigned>(name[0] - 'a');

    switch (type) {
    case TYPE_NAPTR:
        return domain.copy(to);
    case TYPE_SRV:
        expect(place < record_count && records[place].followed);
        return answer(1)
            .record(TYPE_SRV, 9)
            .u16(0)
            .u16(0)
            .u16(FIRST_PORT + place)
            .u8(1)
            .u8('a' + place)
            .u8(0)
            .copy(to);
    case TYPE_A:
        return answer(1).record(TYPE_A, 4).u16(10 << 8).u16(place).copy(to);
    default:
        return -1;
    }
}

/** Whether a record whose fields say this is the one that is looked for. */
static bool is_followed(std::string_view flags, std::string_view service, serviceName_e wanted)
{
    flags = flags.substr(0, flags.find('\0'));
    service = service.substr(0, service.find('\0'));
    if (flags != "s" && flags != "S") {
        return false;
    }
    return wanted == SERV_NONE || (wanted == SERV_SIP && service.size() > 3 && service[3] == '+' &&
                                   strncasecmp(service.data(), "sip", 3) == 0);
}

static void read_records(fuzz_input* input, serviceName_e wanted)
{
    bool hidden = false; // behind one that is not followed

    domain = answer(0);
    for (record_count = 0; record_count < RECORDS && !input->at_end(); record_count++) {
        naptr& record = records[record_count];
        const unsigned numbers = input->byte();
        record = {numbers & 7, numbers >> 3 & 7, numbers >> 6, false};
        const std::string_view flags = input->text(255);
        const std::string_view service = input->text(255);
        const std::string_view regexp = input->text(255);
        const std::string_view parent = KINDS[record.kind].parent;
        const size_t length =
            9 + flags.size() + service.size() + regexp.size() + parent.size(); // of the data
        if (!domain.has_room(11 + length)) {
            return;
        }
        domain.count_record();
        domain.record(TYPE_NAPTR, length).u16(record.order).u16(record.preference);
        for (const std::string_view text : {flags, service, regexp}) {
            domain.u8(static_cast<unsigned>(text.size())).raw(text);
        }
        domain.u8(1).u8('a' + static_cast<unsigned>(record_count)).raw(parent);
        hidden = hidden || !is_followed(flags, service, wanted);
        record.followed = !hidden;
    }
}

/** The addresses of all records that are followed, each once, in order. */
static void expect_result(ulist_t* list)
{
    unsigned before = 0;
    size_t followed = 0;

    for (int32_t pos = 0; uListEol(list, pos) == 0; pos++) {
        const auto* host = reinterpret_cast<const hostInfo_t*>(uListGet(list, pos));
        const auto place = static_cast<size_t>(host->port - FIRST_PORT);
        expect(place < record_count && records[place].followed);
        naptr& record = records[place];
        const unsigned rank = record.order << 8 | record.preference;
        expect(host->type == KINDS[record.kind].proto && host->ttl == 60);
        expect(host->ipAddr.ver == IPVER_IPV4 && rank >= before);
        before = rank;
        record.followed = false;
        followed++;
    }
    expect((list != nullptr) == (followed > 0));
    expect(
        std::none_of(records, records + record_count, [](const naptr& r) { return r.followed; }));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);

    const auto wanted = static_cast<serviceName_e>(input.byte() % 3);
    read_records(&input, wanted);
    ulist_t* list = osaGetHostByName("domain", QUERY_NAPTR, wanted);
    expect_result(list);
    osaFreeHostInfoList(list);
    return 0;
}
