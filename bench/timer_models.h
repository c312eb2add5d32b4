// What the timers and the watchdogs are measured against: a textbook delta list that is walked once
// for each operation, and a multimap of deadlines; both behind one mutex, in the fewest lines.
#pragma once

#include "timer_rows.h"

#include <map>
#include <mutex>
#include <unordered_map>

namespace {

struct delta_list {
    struct node {
        node* next;
        uint32_t gap; // after the one before
        int number;
    };
    static constexpr bool WALKS = true;
    static inline int fired = 0;
    static inline std::vector<node> pool;
    static inline node* first_free = nullptr; // first in, first out
    static inline node** last_free = &first_free;
    std::recursive_mutex lock;
    node* head = nullptr;

    delta_list()
    {
        if (pool.empty()) {
            make_pool();
        }
    }
    // As after long use: neighbours in the list are no neighbours in memory.
    static void make_pool()
    {
        std::vector<node*> order;
        sequence random(5);
        pool.resize(static_cast<size_t>(TIMERS_MAX + TIMERS_OWN));
        for (node& each : pool) {
            order.push_back(&each);
            std::swap(order.back(), order[random.below(static_cast<uint32_t>(order.size()))]);
        }
        for (node* each : order) {
            put_back(each);
        }
    }
    static node* take_free()
    {
        node* taken = first_free;
        first_free = taken->next;
        if (first_free == nullptr) {
            last_free = &first_free;
        }
        return taken;
    }
    static void put_back(node* done)
    {
        done->next = nullptr;
        *last_free = done;
        last_free = &done->next;
    }
    void insert(node* timer, uint32_t delay)
    {
        node** link = &head;
        while (*link != nullptr && (*link)->gap < delay) {
            delay -= (*link)->gap;
            link = &(*link)->next;
        }
        timer->gap = delay;
        timer->next = *link;
        if (timer->next != nullptr) {
            timer->next->gap -= delay;
        }
        *link = timer;
    }
    node* unlink(int number)
    {
        node** link = &head;
        while (*link != nullptr && (*link)->number != number) {
            link = &(*link)->next;
        }
        node* found = *link;
        if (found != nullptr) {
            *link = found->next;
            if (*link != nullptr) {
                (*link)->gap += found->gap;
            }
        }
        return found;
    }
    [[gnu::noinline]] void arm(int number, uint32_t delay)
    {
        std::lock_guard guard(lock);
        node* timer = take_free();
        timer->number = number;
        insert(timer, delay);
    }
    void arm_due(int number) { arm(number, 1); }
    [[gnu::noinline]] void move(int number, uint32_t delay)
    {
        std::lock_guard guard(lock);
        node* timer = unlink(number);
        if (timer != nullptr) {
            insert(timer, delay);
        }
    }
    [[gnu::noinline]] uint32_t left(int number)
    {
        std::lock_guard guard(lock);
        uint32_t sum = 0;
        for (const node* each = head; each != nullptr; each = each->next) {
            sum += each->gap;
            if (each->number == number) {
                return sum;
            }
        }
        return 0;
    }
    [[gnu::noinline]] void drop(int number)
    {
        std::lock_guard guard(lock);
        node* timer = unlink(number);
        if (timer != nullptr) {
            put_back(timer);
        }
    }
    void tidy() {}
    [[gnu::noinline]] void pass()
    {
        node* due = nullptr;
        node** last_due = &due;
        {
            std::lock_guard guard(lock);
            uint32_t passed = 1;
            while (head != nullptr && head->gap <= passed) {
                passed -= head->gap;
                *last_due = head;
                last_due = &head->next;
                head = head->next;
            }
            *last_due = nullptr;
            if (head != nullptr) {
                head->gap -= passed;
            }
        }
        while (due != nullptr) {
            node* next = due->next;
            fired++;
            std::lock_guard guard(lock);
            put_back(due);
            due = next;
        }
    }
};

struct multimap {
    using deadlines = std::multimap<uint64_t, int>;
    static constexpr bool WALKS = false;
    static inline int fired = 0;
    std::mutex lock;
    deadlines timers;
    std::unordered_map<int, deadlines::iterator> by_number;
    uint64_t now = 0;

    [[gnu::noinline]] void arm(int number, uint32_t delay)
    {
        std::lock_guard guard(lock);
        by_number[number] = timers.emplace(now + delay, number);
    }
    void arm_due(int number) { arm(number, 1); }
    [[gnu::noinline]] void move(int number, uint32_t delay)
    {
        std::lock_guard guard(lock);
        auto found = by_number.find(number);
        if (found != by_number.end()) {
            timers.erase(found->second);
            found->second = timers.emplace(now + delay, number);
        }
    }
    [[gnu::noinline]] uint32_t left(int number)
    {
        std::lock_guard guard(lock);
        auto found = by_number.find(number);
        return found == by_number.end() ? 0 : static_cast<uint32_t>(found->second->first - now);
    }
    [[gnu::noinline]] void drop(int number)
    {
        std::lock_guard guard(lock);
        auto found = by_number.find(number);
        if (found != by_number.end()) {
            timers.erase(found->second);
            by_number.erase(found);
        }
    }
    void tidy() {}
    [[gnu::noinline]] void pass()
    {
        std::unique_lock guard(lock);
        now++;
        while (!timers.empty() && timers.begin()->first <= now) {
            by_number.erase(timers.begin()->second);
            timers.erase(timers.begin());
            guard.unlock();
            fired++;
            guard.lock();
        }
    }
};

} // namespace
