// Writes the inputs that the fuzz targets start from.
//
// usage: make_seeds <corpus directory>
#include "dns_packet.h"

#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;
using std::string;

static fs::path corpus;

static void seed(const char* target, const char* name, const string& bytes)
{
    std::error_code error;
    fs::create_directories(corpus / target, error);
    std::ofstream(corpus / target / name, std::ios::binary) << bytes;
}

static void seed(const char* target, const char* name, const dns_packet& packet)
{
    seed(target, name, packet.bytes());
}

// A record whose owner points at itself.
static dns_packet looping(unsigned type, const string& data)
{
    dns_packet packet;
    packet.question("x.y", type);
    string owner;
    put16(&owner, 0xc000U | static_cast<unsigned>(packet.size()));
    return packet.record_owned(owner, type, data);
}

static void address_seeds()
{
    dns_packet plain;
    plain.question("x.y", DNS_A).a("x.y", "192.0.2.1").a("x.y", "192.0.2.2");
    seed("address", "plain", plain);
    seed("address", "cut", plain.bytes().substr(0, plain.size() - 3));
    seed("address", "counts", dns_packet(plain).count(DNS_ANSWER, 0xffff));
    seed("address", "header", plain.bytes().substr(0, 12));
    seed("address", "loop", looping(DNS_A, "abcd"));
    dns_packet alias;
    alias.compress().question("x.y", DNS_AAAA).cname("x.y", "a.y").cname("a.y", "b.z");
    alias.aaaa("b.z", "2001:db8::1").section(DNS_AUTHORITY).record("z", 2, wire_name("ns.z"));
    alias.section(DNS_ADDITIONAL).a("ns.z", "192.0.2.3").aaaa("ns.z", "::1");
    seed("address", "alias", alias);
    dns_packet lengths;
    lengths.record("x.y", DNS_A, "abc").record("x.y", DNS_AAAA, "abcd").record("x.y", DNS_A, "");
    lengths.record("x.y", DNS_A, "abcdefgh").record("x.y", DNS_A, "abcd", 5);
    seed("address", "lengths", lengths);
    dns_packet many;
    many.compress().question("x.y", DNS_A);
    for (int i = 0; i < 34; i++) {
        many.a("x.y", "192.0.2.9");
    }
    seed("address", "many", many);
}

static void service_seeds()
{
    dns_packet plain;
    plain.compress().question("_sip._udp.x.y", DNS_SRV);
    plain.srv("_sip._udp.x.y", 20, 5, 5060, "a.x.y").srv("_sip._udp.x.y", 10, 60, 5061, "b.x.y");
    plain.section(DNS_ADDITIONAL).a("a.x.y", "192.0.2.1").aaaa("b.x.y", "::1");
    seed("service", "plain", plain);
    seed("service", "cut", plain.bytes().substr(0, plain.size() - 60));
    dns_packet equal;
    for (const unsigned weight : {0U, 65535U, 7U, 7U}) {
        equal.srv("x", 1, weight, 1, "t");
    }
    seed("service", "equal", equal);
    seed("service", "root", dns_packet().srv("x", 1, 1, 1, ""));
    dns_packet lengths;
    lengths.srv("x", 1, 1, 1, "t").record("x", DNS_SRV, string("\0\1\0\2\0\3\1", 7));
    seed("service", "lengths", lengths);
    seed("service", "short", dns_packet().record("x", DNS_SRV, "abcde"));
    seed("service", "loop", looping(DNS_SRV, string("\0\1\0\2\0\3\xc0\x0c", 8)));
}

static void domain_seeds()
{
    dns_packet plain;
    plain.compress().question("x.y", DNS_NAPTR);
    plain.naptr("x.y", 20, 1, "s", "SIP+D2U", "", "_sip._udp.x.y");
    plain.naptr("x.y", 10, 1, "S", "sip+D2T", "!^.*$!x!", "_sip._tcp.x.y");
    seed("domain", "plain", plain);
    seed("domain", "cut", plain.bytes().substr(0, plain.size() - 5));
    dns_packet mixed(plain);
    mixed.srv("_sip._udp.x.y", 1, 1, 5060, "a.x.y").a("a.x.y", "192.0.2.1");
    mixed.aaaa("a.x.y", "2001:db8::1");
    seed("domain", "mixed", mixed);
    seed("domain", "other", dns_packet().naptr("x", 1, 1, "u", "E2U+sip", "!^.*$!sip:a@b!", ""));
    seed("domain", "long", dns_packet().naptr("x", 1, 1, "s", string(40, 'S') + "+", "", "t"));
    dns_packet lying;
    lying.record("x", DNS_NAPTR, string("\0\1\0\2\1s\xffSIP+D2U", 14));
    seed("domain", "lying", lying);
    seed("domain", "empty", dns_packet().record("x", DNS_NAPTR, string("\0\1\0\2\0\0\0\0", 8)));
    seed("domain", "loop", looping(DNS_NAPTR, string("\0\1\0\2\1s\4SIP+\0\xc0\x0c", 14)));
}

static string reply(const string& seconds, const string& fraction, char first)
{
    return first + string(39, '\0') + seconds + fraction;
}

static void sntp_seeds()
{
    const string some = "\xe8\xb6\xa8\xc0";
    const string half("\x80\0\0\0", 4);
    seed("sntp", "plain", reply(some, half, '\x24'));
    seed("sntp", "long", reply(some, half, '\x24') + "more");
    seed("sntp", "short", reply(some, half, '\x24').substr(0, 43));
    seed("sntp", "empty", string());
    seed("sntp", "version", reply(some, half, '\x04'));
    seed("sntp", "zero", reply(string(4, '\0'), half, '\x24'));
    seed("sntp", "era", reply(string("\0\0\0\1", 4), "\xff\xff\xff\xff", '\x24'));
    seed("sntp", "edge", reply(string("\x83\xaa\x7e\x80", 4), "\x0f\xff\xff\xff", '\xe4'));
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        return 2;
    }
    corpus = argv[1];
    address_seeds();
    service_seeds();
    domain_seeds();
    sntp_seeds();
    return 0;
}
