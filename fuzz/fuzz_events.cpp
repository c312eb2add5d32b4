// The event registry by name: sequences of care, clear and raise, held against a list of events
// with a list of handlers each. Handlers use the registry themselves.
#include "fuzz.h"
#include "hashMethod.h"
#include "uEvent.h"

#include <array>
#include <utility>

static constexpr size_t EVENTS = 256;
static constexpr size_t HANDLERS = 20; // more than the registry copies without memory
static constexpr size_t CALLS = 64;
static constexpr size_t BULK = 16;      // events that one step of the input names
static constexpr size_t LONGEST = 80;   // name
static constexpr size_t NO_HANDLER = 0; // null, as which it cares and is not called
static constexpr size_t CLEARS_ITSELF = 1;
static constexpr size_t CARES_FOR_LAST = 2; // registers LAST for the event it is called for
static constexpr size_t LAST = HANDLERS - 1;

struct event {
    int64_t a, b; // the keys of the name
    uint8_t handlers[HANDLERS];
    size_t count;
    char name[LONGEST + 1]; // as it was first cared for
};

static event events[EVENTS];
static char handles[HANDLERS];
static size_t event_count;
static uint8_t called[CALLS]; // handlers, in the order of their calls
static size_t call_count;

// ---- The handlers ----

static EVENTPROCESS process_of(size_t handler);
static bool model_care(char* name, size_t handler);
static bool model_clear(char* name, size_t handler);

template <size_t SELF> static int32_t handle(char* name, void* self, int32_t* param, size_t size)
{
    expect(self == &handles[SELF] && *param == 7 && size == sizeof *param);
    expect(call_count < CALLS);
    called[call_count++] = SELF;
    if (SELF == CLEARS_ITSELF) {
        expect(uEventClear(name, process_of(SELF), nullptr) == 1);
    }
    if (SELF == CARES_FOR_LAST) {
        expect(uEventCare(name, process_of(LAST), &handles[LAST]) == 1);
    }
    return 0;
}

template <size_t... SELF>
static constexpr std::array<EVENTPROCESS, HANDLERS> make_table(std::index_sequence<SELF...>)
{
    return {nullptr, handle<SELF + 1>...};
}
static constexpr auto table = make_table(std::make_index_sequence<HANDLERS - 1>());

static EVENTPROCESS process_of(size_t handler)
{
    return table[handler];
}

// ---- The model ----

static event* find(char* name)
{
    const int64_t a = bkdrHash(name);
    const int64_t b = rsHash(name, EVENTS);
    event* found = std::find_if(events, events + event_count,
                                [&](const event& e) { return e.a == a && e.b == b; });
    return found != events + event_count ? found : nullptr;
}

static bool model_care(char* name, size_t handler)
{
    event* e = find(name);
    if (e == nullptr) {
        if (event_count == EVENTS) {
            return false;
        }
        e = &events[event_count++];
        *e = {bkdrHash(name), rsHash(name, EVENTS), {}, 0, {}};
        strcpy(e->name, name);
    }
    uint8_t* const end = e->handlers + e->count;
    if (std::find(e->handlers, end, handler) == end) {
        e->handlers[e->count++] = static_cast<uint8_t>(handler);
    }
    return true;
}

static bool model_clear(char* name, size_t handler)
{
    event* e = find(name);
    if (e == nullptr) {
        return false;
    }
    uint8_t* const end = e->handlers + e->count;
    e->count = static_cast<size_t>(std::remove(e->handlers, end, handler) - e->handlers);
    if (e->count == 0) {
        *e = events[--event_count];
    }
    return true;
}

// ---- Steps ----

static void care(char* name, size_t handler)
{
    const bool taken = uEventCare(name, process_of(handler), &handles[handler]) != 0;
    expect(taken == model_care(name, handler));
}

static void clear(char* name, size_t handler)
{
    const bool known = uEventClear(name, process_of(handler), nullptr) != 0;
    expect(known == model_clear(name, handler));
}

static void raise(char* name)
{
    int32_t param = 7;
    const event* e = find(name);
    const event before = e != nullptr ? *e : event{};
    size_t calls = 0;

    call_count = 0;
    expect((uEventRaise(name, &param, sizeof param) != 0) == (e != nullptr));
    for (size_t i = 0; i < before.count; i++) {
        const size_t handler = before.handlers[i];
        if (handler != NO_HANDLER) {
            expect(calls < call_count && called[calls] == handler);
            calls++;
        }
        if (handler == CLEARS_ITSELF) {
            model_clear(name, CLEARS_ITSELF);
        } else if (handler == CARES_FOR_LAST) {
            model_care(name, LAST);
        }
    }
    expect(calls == call_count);
}

/** The same with as many names as there are second letters; their keys differ. */
static void for_many(uint8_t first, void (*step)(char*, size_t), size_t handler)
{
    char name[] = {static_cast<char>('A' + first % 32), '!', '\0'};
    for (size_t i = 0; i < BULK; i++, name[1]++) {
        step(name, handler);
    }
}

static void run_step(fuzz_input* input)
{
    const uint8_t what = input->byte();
    const size_t handler = static_cast<size_t>(what >> 3) % HANDLERS;

    if ((what & 7) == 7) {
        const uint8_t first = input->byte();
        for_many(first, first < 128 ? care : clear, handler);
        return;
    }
    const std::string_view bytes = input->text(LONGEST);
    const fuzz_text name(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    if ((what & 7) < 3) {
        care(name.bytes, handler);
    } else if ((what & 7) < 5) {
        clear(name.bytes, handler);
    } else {
        raise(name.bytes);
    }
    const name_keys_t keys = keys_of(name.bytes);
    expect(keys.a == bkdrHash(name.bytes) && keys.b == rsHash(name.bytes, EVENTS));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);

    for (int steps = 0; steps < 24 && !input.at_end(); steps++) {
        run_step(&input);
    }
    while (event_count > 0) {
        char name[LONGEST + 1];
        strcpy(name, events[0].name);
        clear(name, events[0].handlers[0]);
    }
    return 0;
}
