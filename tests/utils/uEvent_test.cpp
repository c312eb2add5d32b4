// Events: the table against a model, handlers that interfere with their own raise, and threads.
#include "uEvent.h"

#include "hashMethod.h"
#include "internal.h"

#include "child.h"
#include "fail.h"
#include "log_double.h"
#include "together.h"

#include <random>
#include <set>
#include <unistd.h>

static constexpr int HANDLERS = 24; // functions, for an event has each of them once
static thread_local std::string called;
static thread_local int depth;                // of the thread in the last call
static void (*action)(int handler) = nullptr; // of every handler, beside noting the call
static int32_t param;

template <int N> static int32_t handler(char*, void* handle, int32_t* given, size_t size)
{
    called += std::to_string(N) + (handle == &param && given == &param && size == 99 ? " " : "?");
    depth = self_record->depth;
    if (action != nullptr) {
        action(N);
    }
    return N;
}

static const std::vector<EVENTPROCESS> handlers = []<int... N>(std::integer_sequence<int, N...>)
{
    return std::vector<EVENTPROCESS>{handler<N>...};
}
(std::make_integer_sequence<int, HANDLERS>());

static char* text(const std::string& name)
{
    return const_cast<char*>(name.c_str());
}

static bool care(const std::string& name, int handler)
{
    return uEventCare(text(name), handlers[static_cast<size_t>(handler)], &param) == 1;
}

static bool clear(const std::string& name, int handler)
{
    return uEventClear(text(name), handlers[static_cast<size_t>(handler)], nullptr) == 1;
}

// Raises and lists the handlers called: "0 1 2 "; "-" when nobody cares.
static std::string raise_to(const std::string& name)
{
    called.clear();
    depth = 0;
    return uEventRaise(text(name), &param, 99) != 0 ? called : "-";
}

static std::string numbers(int first, int last)
{
    return first > last ? "" : std::to_string(first) + " " + numbers(first + 1, last);
}

static std::string logged()
{
    return log_of("quarn.utils.event");
}

// In a child, which has not used the registry yet; afterwards it comes and goes under its users.
TEST(EventTest, FirstUseByManyMakesOneRegistry)
{
    for (int round = 0; round < 100; round++) {
        ASSERT_TRUE(passes_in_child([] {
            log_ignore();
            together(8, [](int self) { EXPECT_TRUE(care("e0", self)); });
            EXPECT_EQ(raise_to("e0").size(), 16U);
            action = [](int n) { clear("e1", n % 4 == 0 ? n : 23); };
            together(8, [](int self) {
                std::mt19937 random(static_cast<unsigned>(self));
                for (int step = 0; step < 100; step++) {
                    const std::string name = "e" + std::to_string(random() % 3);
                    const int n = static_cast<int>(random() % HANDLERS);
                    care(name, n);
                    care(name, (n + 1) % HANDLERS);
                    fail_malloc(random() % 4 == 0 ? 1 : 0); // now and then the walk
                    raise_to(name);
                    fail_nothing();
                    random() % 64 == 0 ? uEventUninit() : static_cast<void>(clear(name, n));
                }
            });
        }));
    }
}

TEST(EventTest, Keys)
{
    EXPECT_EQ(rsHash(nullptr, 256) + bkdrHash(nullptr) + remainderHash(nullptr), 0);
    EXPECT_EQ(rsHash(text("abcdefgh"), 0), 1542187824U);
    EXPECT_EQ(rsHash(text("abcdefgh"), -1), 1542187824U); // modulo 2^32 - 1
    EXPECT_EQ(bkdrHash(text("abcdefgh")), 387275572);
    EXPECT_EQ(rsHash(text("\xff\x80"), 1000), (255U * 63689 * 378551 + 128) % 1000);
    EXPECT_EQ(bkdrHash(text("\xff\x80")), 255 * 131 + 128);
    EXPECT_EQ(remainderHash(text("\xff\x80")), 255 + 128);
    for (std::string name; name.size() < 140;
         name += static_cast<char>(name.size() * 97 % 255 + 1)) {
        EXPECT_EQ(keys_of(text(name)).a, bkdrHash(text(name))) << name.size();
        EXPECT_EQ(keys_of(text(name)).b, rsHash(text(name), 256)) << name.size();
    }
    care("gpr83pr", 1);
    EXPECT_EQ(raise_to("jz8z5q8"), "1 "); // both keys are equal
    EXPECT_EQ(bkdrHash(text("A\xf0")), bkdrHash(text("B\x6d")));
    for (int i = 0; i < 255; i++) {
        care(i == 0 ? "A\xf0" : std::to_string(i), 2);
    }
    EXPECT_EQ(raise_to("B\x6d"), "-"); // one key is, and the search passes every event
}

TEST(EventTest, RegistrationsAndTheirEnd)
{
    uEventUninit();
    log_clear();
    uEventInit();
    EXPECT_EQ(uEventCare(nullptr, handlers[3], &param), 1);
    EXPECT_TRUE(care("", 0));
    EXPECT_EQ(uEventCare(text(""), handlers[3], nullptr), 1);
    EXPECT_EQ(raise_to(""), "3 0 ");
    EXPECT_TRUE(clear("", 1));
    EXPECT_EQ(uEventRaise(nullptr, &param, 99), 1);
    uEventInit();
    uEventUninit();
    EXPECT_EQ(uEventRaise(nullptr, &param, 99), 0);
    EXPECT_FALSE(clear("e", 0));
    uEventUninit();
    uEventInit();
    uEventUninit();
    uEventUninit();
    EXPECT_EQ(logged(), "3 eventprocess has existed\n|3 This eventprocess didn't exist|"
                        "4 Event is alreday init.|3 No module care event .|4 Event not init.|");
}

// The table fills and empties: probe sequences wrap and overlap, and events leave from anywhere.
TEST(EventTest, TableAgreesWithAModel)
{
    std::set<std::string> model;
    std::mt19937 random(1);
    const auto any = [&random] { return "event" + std::to_string(random() % 300); };
    size_t largest = 0;
    uEventUninit();
    for (int step = 0; step < 24000; step++) {
        const std::string name = any();
        const std::string other = any();
        const bool known = model.count(name) != 0;
        if (random() % 8 < (step / 4000 % 2 == 0 ? 7 : 3)) { // filling or emptying
            const bool fits = known || model.size() < 256;
            log_clear();
            ASSERT_EQ(care(name, 0), fits);
            ASSERT_EQ(logged() == "6 Event hash buffer full.|", !fits);
            fits ? static_cast<void>(model.insert(name)) : void();
        } else {
            ASSERT_EQ(clear(name, 0), known);
            model.erase(name);
        }
        largest = std::max(largest, model.size());
        ASSERT_EQ(raise_to(other), model.count(other) != 0 ? "0 " : "-");
    }
    EXPECT_EQ(largest, 256U);
}

static void raise_inside(int n)
{
    if (n != 2) {
        return;
    }
    const std::string outer = called;
    fail_malloc(1, true);
    action = [](int m) { clear("e", m == 4 ? 3 : m == 6 ? 8 : 23); };
    raise_to("e");
    action = nullptr;
    called = outer;
    clear("e", 4); // the outer raise stands on it by now
}

static std::jthread other; // waits for the end of a walk

static const struct {
    void (*action)(int);
    std::string copied; // handlers called when they were copied
    std::string walked; // and when there was no memory for it
    std::string after;  // handlers of the next raise
} changes[] = {
    {[](int n) { clear("e", n); }, numbers(0, 19), numbers(0, 19), ""},
    {[](int n) { n == 1 && clear("e", 0) && clear("e", 2) && clear("e", 3) && clear("e", 19); },
     numbers(0, 19), numbers(0, 1) + numbers(4, 18), "1 " + numbers(4, 18)},
    {[](int n) { n == 5 ? uEventUninit() : void(); }, numbers(0, 19), numbers(0, 5), "-"},
    {[](int n) { clear("e", n), care("e", n); }, numbers(0, 19), numbers(0, 19), numbers(0, 19)},
    {[](int n) { n == 3 ? pthread_exit(nullptr) : void(); }, "", "", numbers(0, 19)},
    {[](int n) { n == 5 ? clear("e", 23), other = std::jthread(clear, "e", 6), usleep(2000) : 0; },
     numbers(0, 19), numbers(0, 19), numbers(0, 5) + numbers(7, 19)},
    {raise_inside, numbers(0, 19), numbers(0, 2) + numbers(5, 7) + numbers(9, 19),
     numbers(0, 2) + numbers(5, 7) + numbers(9, 19)},
};

TEST(EventTest, HandlersMayChangeTheEventTheyAreCalledFor)
{
    for (const auto& change : changes) {
        for (const bool memory : {true, false}) {
            uEventUninit();
            for (int last = -1; last < 20; last++) {
                last < 0 ? uEventCare(text("e"), nullptr, nullptr) : care("e", last);
                fail_malloc(memory ? 0 : 1);
                EXPECT_EQ(raise_to("e"), numbers(0, last));
                EXPECT_EQ(malloc_calls(), last < 16 ? 0 : 1); // the stack has room for sixteen
                EXPECT_EQ(depth == 0, memory || last < 16);   // the raiser may be ended in a call
                fail_nothing();
            }
            std::string list;
            action = change.action;
            std::thread([&] {
                fail_malloc(memory ? 0 : 1);
                list = raise_to("e");
            }).join();
            action = nullptr;
            other = {};
            EXPECT_EQ(list, memory ? change.copied : change.walked);
            std::thread([&] { EXPECT_EQ(raise_to("e"), change.after); }).join(); // no lock is held
            clear("e", 4); // where an ended raise would have gone on
        }
    }
}
