// Watchdogs of the program, with the exception task's pass called from here.
#include "timer_models.h"

#include "osaWd.h"

namespace {

struct hnetd {
    static constexpr bool WALKS = false;
    static inline int fired = 0;
    static inline std::vector<WDOG_ID> watchdogs;

    hnetd()
    {
        if (!watchdogs.empty()) {
            return;
        }
        // As after long use: neighbours in the list are no neighbours in memory.
        sequence random(5);
        for (int i = 0; i < TIMERS_MAX + TIMERS_OWN; i++) {
            watchdogs.push_back(wdCreate());
            std::swap(watchdogs.back(),
                      watchdogs[random.below(static_cast<uint32_t>(watchdogs.size()))]);
        }
    }
    static int count(void*) { return fired++; }
    void arm(int number, uint32_t delay)
    {
        wdStart(watchdogs[static_cast<size_t>(number)], static_cast<int>(delay),
                reinterpret_cast<FUNCPTR>(count), nullptr);
    }
    void arm_due(int number) { arm(number, 1); }
    void move(int number, uint32_t delay) { arm(number, delay); }
    void drop(int number) { wdCancel(watchdogs[static_cast<size_t>(number)]); }
    void tidy() {}
    void pass() { process_wdog(); }
};

[[maybe_unused]] const bool added[] = {
    add_watchdogs<hnetd>("hnetd"),
    add_watchdogs<delta_list>("floor"),
    add_watchdogs<multimap>("std::multimap"),
};

} // namespace
