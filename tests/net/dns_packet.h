// Builds DNS answers byte by byte, good ones and bad ones. Names point at earlier equal suffixes.
#pragma once

#include <arpa/inet.h>
#include <map>
#include <string>
#include <utility>
#include <vector>

enum dns_type : unsigned { A = 1, CNAME = 5, TXT = 16, AAAA = 28, SRV = 33, NAPTR = 35 };

/** Sections by the place of their count in the header. */
enum dns_section : size_t { QUESTION, ANSWER, AUTHORITY, ADDITIONAL };

static inline std::string u16(unsigned value)
{
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

/** A character-string: its length, itself. */
static inline std::string counted(const std::string& text)
{
    return static_cast<char>(text.size()) + text;
}

class dns_packet {
  public:
    /** Records from here on belong to this section, and count there. */
    dns_packet& section(dns_section s)
    {
        current = s;
        return *this;
    }
    dns_packet& count(dns_section s, unsigned value)
    {
        bytes.replace(4 + 2 * s, 2, u16(value));
        return *this;
    }
    dns_packet& raw(const std::string& more)
    {
        bytes += more;
        return *this;
    }
    dns_packet& question(const std::string& name, unsigned type)
    {
        bump(QUESTION);
        put_name(name);
        return raw(u16(type) + u16(1));
    }

    /** A record without its owner name, which went before; its length field may lie. */
    dns_packet& rest(unsigned type, const std::string& data, int length = -1, uint32_t ttl = 60)
    {
        bump(current);
        raw(u16(type) + u16(1) + u16(ttl >> 16) + u16(ttl & 0xffff));
        raw(u16(length < 0 ? static_cast<unsigned>(data.size()) : static_cast<unsigned>(length)));
        raw(data);
        ends.emplace_back(type, bytes.size());
        return *this;
    }
    dns_packet& record(const std::string& name, unsigned type, const std::string& data,
                       int length = -1, uint32_t ttl = 60)
    {
        put_name(name);
        return rest(type, data, length, ttl);
    }
    dns_packet& a(const std::string& name, const std::string& addr, uint32_t ttl = 60)
    {
        const bool ipv4 = addr.find(':') == std::string::npos;
        std::string data(ipv4 ? 4 : 16, '\0');
        inet_pton(ipv4 ? AF_INET : AF_INET6, addr.c_str(), data.data());
        return record(name, ipv4 ? A : AAAA, data, -1, ttl);
    }

    /** A record whose data ends with a name. */
    dns_packet& named(const std::string& name, unsigned type, const std::string& data,
                      const std::string& target)
    {
        record(name, type, data);
        const size_t start = bytes.size() - data.size();
        put_name(target);
        bytes.replace(start - 2, 2, u16(static_cast<unsigned>(bytes.size() - start)));
        ends.back().second = bytes.size();
        return *this;
    }
    dns_packet& srv(const std::string& name, unsigned priority, unsigned weight, unsigned port,
                    const std::string& target)
    {
        return named(name, SRV, u16(priority) + u16(weight) + u16(port), target);
    }
    dns_packet& naptr(const std::string& name, unsigned order, unsigned preference,
                      const std::string& flags, const std::string& service,
                      const std::string& replacement, const std::string& regexp = "")
    {
        return named(name, NAPTR,
                     u16(order) + u16(preference) + counted(flags) + counted(service) +
                         counted(regexp),
                     replacement);
    }

    std::string bytes{"\0\0\x81\x80\0\0\0\0\0\0\0\0", 12};
    std::vector<std::pair<unsigned, size_t>> ends; // each record's type, and where it ends

  private:
    void put_name(std::string left)
    {
        while (!left.empty()) {
            const auto [known, added] = seen.emplace(left, bytes.size());
            if (!added) {
                raw(u16(0xc000U | static_cast<unsigned>(known->second)));
                return;
            }
            const size_t dot = left.find('.');
            raw(counted(left.substr(0, dot)));
            left = dot == std::string::npos ? "" : left.substr(dot + 1);
        }
        bytes += '\0';
    }
    void bump(dns_section s) { bytes[5 + 2 * s]++; } // fewer than 256

    dns_section current = ANSWER;
    std::map<std::string, size_t> seen; // suffix to offset
};
