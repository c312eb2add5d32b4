// The Internet checksum, and IPv4 addresses to text and back.
#include "bench.h"

#include "hostLib.h"
#include "osaSocket.h"

#include <arpa/inet.h>
#include <array>

namespace {

std::vector<uint64_t> packet(size_t bytes)
{
    std::vector<uint64_t> words((bytes + sizeof(uint64_t) - 1) / sizeof(uint64_t));
    sequence random(3);
    for (uint64_t& each : words) {
        each = uint64_t{random.next()} << 32 | random.next();
    }
    return words;
}

void sum_packet(benchmark::State& state)
{
    const int bytes = static_cast<int>(state.range(0));
    std::vector<uint64_t> data = packet(static_cast<size_t>(bytes));
    for (auto _ : state) {
        benchmark::DoNotOptimize(checksum(reinterpret_cast<u_short*>(data.data()), bytes));
        benchmark::ClobberMemory();
    }
}

// One load for each word, whatever the compiler could make of the loop.
[[gnu::noinline]] uint64_t read_words(const uint64_t* words, size_t count)
{
    uint64_t sum = 0;
    for (size_t i = 0; i < count; i++) {
        uint64_t word = words[i];
        __asm__("" : "+r"(word));
        sum += word;
    }
    return sum;
}

void read_packet(benchmark::State& state)
{
    const std::vector<uint64_t> data = packet(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(read_words(data.data(), data.size()));
        benchmark::ClobberMemory();
    }
}

constexpr size_t ADDRESSES = 64;

std::array<in_addr, ADDRESSES> addresses()
{
    std::array<in_addr, ADDRESSES> all;
    sequence random(9);
    for (in_addr& each : all) {
        each.s_addr = random.next();
    }
    return all;
}

void hnetd_to_text(in_addr address, char* text)
{
    inet_ntoa_b(address, text);
}

void libc_to_text(in_addr address, char* text)
{
    inet_ntop(AF_INET, &address, text, INET_ADDRSTRLEN);
}

template <void (*to_text)(in_addr, char*)> void write_address(benchmark::State& state)
{
    const auto all = addresses();
    char text[INET_ADDRSTRLEN];
    size_t round = 0;
    for (auto _ : state) {
        to_text(all[round++ % ADDRESSES], text);
        benchmark::DoNotOptimize(text);
        benchmark::ClobberMemory();
    }
}

bool hnetd_from_text(int, const char* text)
{
    sockIpAddr_t address;
    const bool valid = sockIpAddrPton(text, &address) == SEC_OK;
    benchmark::DoNotOptimize(address);
    return valid;
}

bool libc_from_text(int family, const char* text)
{
    in6_addr address;
    const bool valid = inet_pton(family, text, &address) == 1;
    benchmark::DoNotOptimize(address);
    return valid;
}

template <int family> std::vector<std::array<char, INET6_ADDRSTRLEN>> texts()
{
    std::vector<std::array<char, INET6_ADDRSTRLEN>> all(ADDRESSES);
    sequence random(21);
    for (auto& text : all) {
        uint32_t words[4];
        for (uint32_t& word : words) {
            word = random.next();
        }
        inet_ntop(family, words, text.data(), INET6_ADDRSTRLEN);
    }
    return all;
}

template <bool (*from_text)(int, const char*), int family>
void read_address(benchmark::State& state)
{
    const auto all = texts<family>();
    size_t round = 0;
    bool valid = true;
    for (auto _ : state) {
        valid = from_text(family, all[round++ % ADDRESSES].data()) && valid;
    }
    if (!valid) {
        state.SkipWithError("a valid address was refused");
    }
}

} // namespace

BENCHMARK(sum_packet)->Name("net.checksum/hnetd")->Arg(1500)->Arg(65536);
BENCHMARK(read_packet)->Name("net.checksum/floor")->Arg(1500)->Arg(65536);

BENCHMARK(write_address<hnetd_to_text>)->Name("net.to-text/hnetd");
BENCHMARK(write_address<libc_to_text>)->Name("net.to-text/inet_ntop");

BENCHMARK(read_address<hnetd_from_text, AF_INET>)->Name("net.from-text4/hnetd");
BENCHMARK(read_address<libc_from_text, AF_INET>)->Name("net.from-text4/inet_pton");
BENCHMARK(read_address<hnetd_from_text, AF_INET6>)->Name("net.from-text6/hnetd");
BENCHMARK(read_address<libc_from_text, AF_INET6>)->Name("net.from-text6/inet_pton");
