// Times of any number of events in a few kilobytes: counts by size, 16 sizes to a power of two.
// Any thread may add.
#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdint>

class histogram {
  public:
    void add(int64_t ns)
    {
        const auto value = static_cast<uint64_t>(ns > 0 ? ns : 0);
        const int shift = std::max(static_cast<int>(std::bit_width(value)) - 5, 0);
        counts[shift * 16 + static_cast<int>(value >> shift)]++;
        int64_t seen = most;
        while (ns > seen && !most.compare_exchange_weak(seen, ns)) {
        }
    }

    void add(const histogram& other)
    {
        for (int i = 0; i < SIZES; i++) {
            counts[i] += other.counts[i];
        }
    }

    /** The time that this share of all lies at or below, to 6 %. 0 without any */
    int64_t percentile(double share) const
    {
        int64_t left = 0;
        for (const auto& count : counts) {
            left += count;
        }
        left = static_cast<int64_t>(static_cast<double>(left) * share);
        int at = 0;
        while (at < SIZES && (left -= counts[at]) >= 0) {
            at++;
        }
        return at == SIZES ? most.load() : at < 32 ? at : int64_t{at % 16 + 17} << (at / 16 - 1);
    }

    int64_t maximum() const { return most; }

  private:
    static constexpr int SIZES = 16 * 62;
    std::atomic<int64_t> counts[SIZES] = {};
    std::atomic<int64_t> most{0};
};
