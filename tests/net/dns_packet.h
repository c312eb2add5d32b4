// Builds DNS answers byte by byte, good ones and bad ones.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

enum dns_type : uint16_t {
    DNS_A = 1,
    DNS_CNAME = 5,
    DNS_TXT = 16,
    DNS_AAAA = 28,
    DNS_SRV = 33,
    DNS_NAPTR = 35,
};

/** Sections by their count's place in the header. */
enum dns_section { DNS_QUESTION, DNS_ANSWER, DNS_AUTHORITY, DNS_ADDITIONAL };

/** Appends to data: 16 bits in network order, a character-string. */
void put16(std::string* data, unsigned value);
void put_string(std::string* data, const std::string& text);

/** A name on the wire, uncompressed; "" is the root. */
std::string wire_name(const std::string& name);

class dns_packet {
  public:
    dns_packet();

    /** Names from here on point at earlier equal suffixes where they can. */
    dns_packet& compress();
    /** Records from here on belong, and count, to this section. */
    dns_packet& section(dns_section s);
    /** Overwrites a section's count when all is built: what follows no longer counts. */
    dns_packet& count(dns_section s, unsigned value);

    dns_packet& question(const std::string& name, unsigned type);
    dns_packet& a(const std::string& name, const std::string& addr, uint32_t ttl = 60);
    dns_packet& aaaa(const std::string& name, const std::string& addr, uint32_t ttl = 60);
    dns_packet& cname(const std::string& name, const std::string& target);
    dns_packet& srv(const std::string& name, unsigned priority, unsigned weight, unsigned port,
                    const std::string& target);
    dns_packet& naptr(const std::string& name, unsigned order, unsigned preference,
                      const std::string& flags, const std::string& service,
                      const std::string& regexp, const std::string& replacement);
    /** A record with any data; its length field says length where that is not -1. */
    dns_packet& record(const std::string& name, unsigned type, const std::string& data,
                       int length = -1, uint32_t ttl = 60);
    /** A record whose owner name are these bytes, not checked. */
    dns_packet& record_owned(const std::string& wire_owner, unsigned type, const std::string& data);
    dns_packet& raw(const std::string& bytes);

    size_t size() const { return packet.size(); }
    const std::string& bytes() const { return packet; }
    /** Where each record of a type ends. */
    std::vector<size_t> ends(unsigned type) const;

  private:
    void put_name(const std::string& name);
    void begin_record(unsigned type, uint32_t ttl);
    void end_record();
    void bump();

    std::string packet;
    bool compressing = false;
    dns_section current = DNS_ANSWER;
    std::map<std::string, size_t> seen; // suffix to offset
    size_t data_start = 0;
    std::vector<std::pair<unsigned, size_t>> records; // type, end
};
