// The index against the plain list, which walks.
#include "deltaList.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

constexpr uint32_t MOST = 700;

int32_t saturated(int64_t gap)
{
    return int32_t(std::min<int64_t>(gap, INT32_MAX));
}

/** The delta list as it would be written without the index. */
struct plain_list {
    struct item {
        uint32_t entry;
        int32_t gap;
        bool operator==(const item&) const = default;
    };
    std::vector<item> items;

    void insert(uint32_t entry, int32_t timeout)
    {
        int64_t before = 0;
        auto at = items.begin();
        for (; at != items.end() && timeout > before + at->gap; ++at) {
            before += at->gap;
        }
        const int32_t gap = int32_t(timeout - before);
        if (at != items.end()) {
            at->gap -= gap;
        }
        items.insert(at, {entry, gap});
    }
    void remove(uint32_t entry)
    {
        auto at = std::find_if(items.begin(), items.end(),
                               [entry](const item& each) { return each.entry == entry; });
        if (at + 1 != items.end()) {
            at[1].gap = saturated(int64_t{at->gap} + at[1].gap);
        }
        items.erase(at);
    }
    std::vector<uint32_t> pass(int64_t left)
    {
        std::vector<uint32_t> due;
        for (; !items.empty() && items.front().gap <= left; items.erase(items.begin())) {
            left -= items.front().gap;
            due.push_back(items.front().entry);
        }
        if (!items.empty()) {
            items.front().gap = saturated(items.front().gap - left);
        }
        return due;
    }
};

/** The list with its index, and with the gaps as an owner keeps them. */
struct indexed_list {
    std::vector<std::byte> memory = std::vector<std::byte>(delta_bytes(0)); // not a byte too much
    delta_list_t list = {.links = reinterpret_cast<delta_link_t*>(memory.data())};
    int32_t gaps[MOST + 1] = {};

    void make_room(uint32_t entries)
    {
        std::vector<std::byte> larger(delta_bytes(entries));
        delta_move(&list, larger.data(), entries);
        memory.swap(larger);
    }
    void insert(uint32_t entry, int32_t timeout)
    {
        gaps[entry] = delta_insert(&list, entry, timeout);
        if (delta_next(&list, entry) != 0) {
            gaps[delta_next(&list, entry)] -= gaps[entry];
        }
    }
    void remove(uint32_t entry)
    {
        const uint32_t behind = delta_remove(&list, entry);
        gaps[behind] = behind == 0 ? 0 : delta_sum(&list, behind, gaps[behind], gaps[entry]);
    }
    std::vector<uint32_t> pass(int32_t by)
    {
        std::vector<uint32_t> due;
        delta_advance(&list, by);
        const bool expected = delta_is_due(&list);
        for (uint32_t entry = delta_cut(&list); entry != 0; entry = delta_next(&list, entry)) {
            due.push_back(entry);
        }
        EXPECT_EQ(expected, !due.empty());
        gaps[delta_first(&list)] = int32_t(delta_left(&list, delta_first(&list)));
        return due;
    }
    std::vector<plain_list::item> items() const
    {
        std::vector<plain_list::item> all;
        for (uint32_t each = delta_first(&list); each != 0; each = delta_next(&list, each)) {
            all.push_back({each, gaps[each]});
        }
        return all;
    }
    /** What makes the search find the place: cells in order, none empty, bounds between them. */
    void check() const
    {
        uint32_t entry = delta_first(&list);
        for (uint32_t place = list.used; place-- > 0;) {
            const uint32_t number = list.order[place];
            ASSERT_EQ(list.cells[number].first, entry);
            ASSERT_GT(list.cells[number].count, 0U);
            ASSERT_LE(list.cells[number].count, 16U);
            for (uint32_t i = 0; i < list.cells[number].count; i++) {
                ASSERT_EQ(list.cell_of[entry], number);
                ASSERT_TRUE(place + 1 == list.used || list.links[entry].due >= list.bounds[place]);
                ASSERT_TRUE(place == 0 || list.links[entry].due <= list.bounds[place - 1]);
                ASSERT_EQ(list.links[list.links[entry].before].next, entry);
                entry = delta_next(&list, entry);
            }
        }
        ASSERT_EQ(entry, 0U);
    }
};

TEST(DeltaListTest, AgreesWithThePlainList)
{
    std::mt19937 random(3);
    const auto pick = [&random](size_t below) { return uint32_t(random() % below); };
    plain_list plain;
    indexed_list indexed;
    std::vector<uint32_t> idle;
    uint32_t live_at_most = 8;

    for (int step = 0; step < 1'000'000 && !HasFatalFailure(); step++) {
        if (idle.empty() && indexed.list.room < live_at_most) {
            const uint32_t room = indexed.list.room;
            indexed.make_room(std::min(room * 2 + 1, MOST));
            for (uint32_t entry = indexed.list.room; entry > room; entry--) {
                idle.push_back(entry);
            }
        }
        if (step % 20'000 == 0) {
            live_at_most = 8 + pick(MOST - 8); // from nearly empty to many cells, and back
        }
        const int32_t spread = step / 20'000 % 2 == 0 ? 40 : 100'000; // many equal ones, or few
        const uint32_t what = pick(256);
        const bool refresh = what < 60;

        if (plain.items.size() > live_at_most || refresh || what < 120) {
            if (!plain.items.empty()) {
                const uint32_t entry = plain.items[what < 8 ? 0 : pick(plain.items.size())].entry;
                plain.remove(entry);
                indexed.remove(entry);
                idle.push_back(entry);
            }
        }
        if ((refresh || what >= 110) && !idle.empty()) {
            const uint32_t entry = idle.back();
            const int32_t timeout =
                what % 64 == 0 ? INT32_MAX - int32_t(pick(2)) : int32_t(pick(spread));
            idle.pop_back();
            plain.insert(entry, timeout);
            indexed.insert(entry, timeout);
        }
        if (what == 110 || step % 5'000 == 0) {
            const int32_t far[] = {INT32_MIN, INT32_MIN + 5, -1'000'000, INT32_MAX};
            const int32_t by = step % 5'000 == 0 ? far[pick(4)] : int32_t(pick(spread / 8)) - 1;
            const std::vector<uint32_t> due = indexed.pass(by);
            ASSERT_EQ(due, plain.pass(by)) << step;
            if (!due.empty() && pick(4) == 0) { // back in, in their order
                delta_put_back(&indexed.list, due[0]);
                for (size_t at = due.size(); at-- > 0;) {
                    indexed.gaps[due[at]] = 0;
                    plain.insert(due[at], 0);
                }
            } else {
                idle.insert(idle.end(), due.begin(), due.end());
            }
        }
        ASSERT_EQ(indexed.list.size, plain.items.size());
        if (step % 128 == 0) {
            ASSERT_EQ(indexed.items(), plain.items) << step;
            indexed.check();
            int64_t left = 0;
            for (const plain_list::item& each : plain.items) {
                left += each.gap;
                ASSERT_EQ(delta_left(&indexed.list, each.entry), left);
            }
        }
    }
    EXPECT_EQ(indexed.list.room, MOST);
}

} // namespace
