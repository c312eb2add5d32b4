#include "dns_packet.h"

#include <arpa/inet.h>

using std::string;

static constexpr size_t HEADER_SIZE = 12;
static constexpr size_t FARTHEST_POINTER = 0x3fff;

void put16(string* data, unsigned value)
{
    *data += static_cast<char>(value >> 8);
    *data += static_cast<char>(value);
}

void put_string(string* data, const string& text)
{
    *data += static_cast<char>(text.size());
    *data += text;
}

static string first_label(const string& name)
{
    return name.substr(0, name.find('.'));
}

static string rest(const string& name)
{
    const size_t dot = name.find('.');
    return dot == string::npos ? "" : name.substr(dot + 1);
}

string wire_name(const string& name)
{
    string wire;
    for (string left = name; !left.empty(); left = rest(left)) {
        put_string(&wire, first_label(left));
    }
    return wire + '\0';
}

dns_packet::dns_packet() : packet(HEADER_SIZE, '\0')
{
    packet[2] = static_cast<char>(0x81); // an answer
    packet[3] = static_cast<char>(0x80);
}

dns_packet& dns_packet::compress()
{
    compressing = true;
    return *this;
}

dns_packet& dns_packet::section(dns_section s)
{
    current = s;
    return *this;
}

dns_packet& dns_packet::count(dns_section s, unsigned value)
{
    string wire;
    put16(&wire, value);
    packet.replace(4 + 2 * static_cast<size_t>(s), 2, wire);
    return *this;
}

void dns_packet::bump()
{
    const size_t at = 4 + 2 * static_cast<size_t>(current);
    const unsigned low = static_cast<uint8_t>(packet[at + 1]);
    const unsigned high = static_cast<uint8_t>(packet[at]);
    count(current, (high << 8 | low) + 1);
}

void dns_packet::put_name(const string& name)
{
    for (string left = name; !left.empty(); left = rest(left)) {
        const auto known = seen.find(left);
        if (compressing && known != seen.end()) {
            put16(&packet, 0xc000U | static_cast<unsigned>(known->second));
            return;
        }
        if (packet.size() <= FARTHEST_POINTER) {
            seen.emplace(left, packet.size());
        }
        put_string(&packet, first_label(left));
    }
    packet += '\0';
}

void dns_packet::begin_record(unsigned type, uint32_t ttl)
{
    bump();
    records.emplace_back(type, 0);
    put16(&packet, type);
    put16(&packet, 1);
    put16(&packet, ttl >> 16);
    put16(&packet, ttl & 0xffff);
    put16(&packet, 0); // data length, filled in later
    data_start = packet.size();
}

void dns_packet::end_record()
{
    string length;
    put16(&length, static_cast<unsigned>(packet.size() - data_start));
    packet.replace(data_start - 2, 2, length);
    records.back().second = packet.size();
}

dns_packet& dns_packet::question(const string& name, unsigned type)
{
    const dns_section kept = current;
    current = DNS_QUESTION;
    bump();
    current = kept;
    put_name(name);
    put16(&packet, type);
    put16(&packet, 1);
    return *this;
}

dns_packet& dns_packet::record(const string& name, unsigned type, const string& data, int length,
                               uint32_t ttl)
{
    put_name(name);
    begin_record(type, ttl);
    packet += data;
    end_record();
    if (length >= 0) {
        string wire;
        put16(&wire, static_cast<unsigned>(length));
        packet.replace(data_start - 2, 2, wire);
    }
    return *this;
}

dns_packet& dns_packet::record_owned(const string& wire_owner, unsigned type, const string& data)
{
    packet += wire_owner;
    begin_record(type, 60);
    packet += data;
    end_record();
    return *this;
}

dns_packet& dns_packet::raw(const string& bytes)
{
    packet += bytes;
    return *this;
}

dns_packet& dns_packet::a(const string& name, const string& addr, uint32_t ttl)
{
    char data[4];
    inet_pton(AF_INET, addr.c_str(), data);
    return record(name, DNS_A, string(data, sizeof data), -1, ttl);
}

dns_packet& dns_packet::aaaa(const string& name, const string& addr, uint32_t ttl)
{
    char data[16];
    inet_pton(AF_INET6, addr.c_str(), data);
    return record(name, DNS_AAAA, string(data, sizeof data), -1, ttl);
}

dns_packet& dns_packet::cname(const string& name, const string& target)
{
    put_name(name);
    begin_record(DNS_CNAME, 60);
    put_name(target);
    end_record();
    return *this;
}

dns_packet& dns_packet::srv(const string& name, unsigned priority, unsigned weight, unsigned port,
                            const string& target)
{
    put_name(name);
    begin_record(DNS_SRV, 60);
    put16(&packet, priority);
    put16(&packet, weight);
    put16(&packet, port);
    put_name(target);
    end_record();
    return *this;
}

dns_packet& dns_packet::naptr(const string& name, unsigned order, unsigned preference,
                              const string& flags, const string& service, const string& regexp,
                              const string& replacement)
{
    put_name(name);
    begin_record(DNS_NAPTR, 60);
    put16(&packet, order);
    put16(&packet, preference);
    put_string(&packet, flags);
    put_string(&packet, service);
    put_string(&packet, regexp);
    put_name(replacement);
    end_record();
    return *this;
}

std::vector<size_t> dns_packet::ends(unsigned type) const
{
    std::vector<size_t> all;
    for (const auto& [record_type, end] : records) {
        if (record_type == type) {
            all.push_back(end);
        }
    }
    return all;
}
