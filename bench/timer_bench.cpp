// Software timers of the program beside a delta list and a multimap.
#include "timer_models.h"

#include "uTimer.h"

namespace {

// The service is one for the process and has no end, so neither has this contestant.
struct hnetd {
    static constexpr bool WALKS = false;
    static inline int fired = 0;
    static inline std::vector<uint32_t> ids;

    hnetd()
    {
        if (ids.empty()) {
            make_pool();
        }
    }
    // As after long use: neighbours in the list are no neighbours in memory.
    static void make_pool()
    {
        sequence random(5);
        ids.resize(static_cast<size_t>(TIMERS_MAX + TIMERS_OWN));
        uTimerInit(TIMERS_MAX + TIMERS_OWN);
        for (size_t i = 0; i < ids.size(); i++) {
            uTimerAdd(nullptr, nullptr, static_cast<int32_t>(random.below(FAR_FROM)));
        }
        uTimerRun(FAR_FROM);
    }
    static void count(void*) { fired++; }
    void arm(int number, uint32_t delay)
    {
        ids[static_cast<size_t>(number)] =
            uTimerAdd(reinterpret_cast<void*>(count), nullptr, static_cast<int32_t>(delay));
    }
    void arm_due(int number) { arm(number, 1); }
    void move(int number, uint32_t delay)
    {
        uTimerRefresh(ids[static_cast<size_t>(number)], static_cast<int32_t>(delay));
    }
    uint32_t left(int number)
    {
        return static_cast<uint32_t>(uTimerRemainGet(ids[static_cast<size_t>(number)]));
    }
    void drop(int number) { uTimerDel(ids[static_cast<size_t>(number)]); }
    void tidy() {}
    void pass() { uTimerRun(1); }
};

[[maybe_unused]] const bool added[] = {
    add_timers<hnetd>("hnetd"),
    add_timers<delta_list>("floor"),
    add_timers<multimap>("std::multimap"),
};

} // namespace
