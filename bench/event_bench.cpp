// The event registry of the program, and the floor of its model.
#include "event_rows.h"

#include "uEvent.h"

#include <array>
#include <mutex>

namespace {

char event_name[] = "SYSTEM_TIME_UPDATED";

// A function is registered once for an event, so each handler is one of its own.
int called_handlers = 0;

template <int number> int32_t count_call(char*, void*, int32_t*, size_t)
{
    return called_handlers += 1;
}

template <int... numbers>
constexpr std::array<EVENTPROCESS, HANDLERS_MAX> all_of(std::integer_sequence<int, numbers...>)
{
    return {count_call<numbers>...};
}

constexpr auto count_calls = all_of(std::make_integer_sequence<int, HANDLERS_MAX>());

struct hnetd {
    static inline int& called = called_handlers;
    int32_t param = 50;

    explicit hnetd(int others = OTHER_EVENTS)
    {
        for (int i = 0; i < others; i++) {
            uEventCare(other_event(i).data(), count_calls[0], nullptr);
        }
    }
    ~hnetd() { uEventUninit(); }
    void care(int handler)
    {
        uEventCare(event_name, count_calls[static_cast<size_t>(handler)], this);
    }
    void raise() { uEventRaise(event_name, &param, sizeof param); }
};

// The model in a few lines: a table of names behind a recursive mutex; the handlers are copied and
// called without it.
struct model {
    static inline int called = 0;
    struct handler {
        EVENTPROCESS process;
        void* handle;
    };
    std::recursive_mutex lock;
    name_table<std::vector<handler>> events;
    int32_t param = 50;

    explicit model(int others = OTHER_EVENTS)
    {
        for (int i = 0; i < others; i++) {
            events[other_event(i)].push_back({count, nullptr});
        }
    }
    static int32_t count(char*, void*, int32_t*, size_t) { return called += 1; }
    void care(int) { events[event_name].push_back({count, this}); }
    [[gnu::noinline]] void raise()
    {
        std::array<handler, HANDLERS_MAX> copies;
        size_t copied = 0;
        {
            std::lock_guard guard(lock);
            for (const handler& each : events.find(std::string_view(event_name))->second) {
                copies[copied++] = each;
            }
        }
        for (size_t i = 0; i < copied; i++) {
            copies[i].process(event_name, copies[i].handle, &param, sizeof param);
        }
    }
};

} // namespace

EVENT_ROWS(hnetd, "hnetd");
EVENT_ROWS(model, "floor");
MANY_EVENTS_ROWS(hnetd, "hnetd");
MANY_EVENTS_ROWS(model, "floor");
