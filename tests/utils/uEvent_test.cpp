// Events: the table against a model, handlers that interfere with their own raise, and threads.
#include "uEvent.h"

#include "child.h"
#include "fail.h"
#include "log_double.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

// ---- Handlers: 24 functions, for an event has each of them once ----

struct call {
    int handler;
    void* handle;
    int32_t* param;
    size_t size;
};

static constexpr int HANDLERS = 24;
static thread_local std::vector<call> calls;
static void (*action)(int handler) = nullptr; // of every handler, beside noting the call

template <int N> static int32_t handler(char*, void* handle, int32_t* param, size_t size)
{
    calls.push_back({N, handle, param, size});
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

static bool care(const std::string& name, int handler, void* handle = nullptr)
{
    return uEventCare(text(name), handlers[static_cast<size_t>(handler)], handle) == 1;
}

static bool clear(const std::string& name, int handler)
{
    return uEventClear(text(name), handlers[static_cast<size_t>(handler)], nullptr) == 1;
}

// Raises and lists the handlers called: "0 1 2 "; "-" when nobody cares.
static std::string raise_to(const std::string& name)
{
    calls.clear();
    if (uEventRaise(text(name), nullptr, 0) == 0) {
        return "-";
    }
    std::string list;
    for (const call& c : calls) {
        list += std::to_string(c.handler) + " ";
    }
    return list;
}

static std::string numbers(int first, int last)
{
    std::string list;
    for (int i = first; i <= last; i++) {
        list += std::to_string(i) + " ";
    }
    return list;
}

// Names whose searches start at one slot.
static std::vector<std::string> names_at(uint32_t slot, size_t count)
{
    std::vector<std::string> names;
    for (int i = 0; names.size() < count; i++) {
        const std::string name = "event" + std::to_string(i);
        if (rsHash(text(name), 256) == slot) {
            names.push_back(name);
        }
    }
    return names;
}

class EventTest : public testing::Test {
  protected:
    void SetUp() override
    {
        action = nullptr;
        uEventInit();
        log_clear();
    }
    void TearDown() override { uEventUninit(); }
};

TEST_F(EventTest, HashFunctions)
{
    EXPECT_EQ(rsHash(nullptr, 256), 0U);
    EXPECT_EQ(rsHash(text("a"), 256), 97U);
    EXPECT_EQ(rsHash(text("\xff\x80"), 1000), (255U * 63689 * 378551 + 128) % 1000);
    EXPECT_EQ(rsHash(text("abcdefgh"), 0), 1542187824U);
    EXPECT_EQ(rsHash(text("abcdefgh"), -1), 1542187824U); // modulo 2^32 - 1
    EXPECT_EQ(bkdrHash(nullptr), 0);
    EXPECT_EQ(bkdrHash(text("ab")), 12805);
    EXPECT_EQ(bkdrHash(text("\xff\x80")), 255 * 131 + 128);
    EXPECT_EQ(bkdrHash(text("abcdefgh")), 387275572);
    EXPECT_EQ(remainderHash(nullptr), 0);
    EXPECT_EQ(remainderHash(text("\xff\x80")), 255 + 128);
}

TEST_F(EventTest, HandlersGetWhatWasRegisteredAndRaised)
{
    int32_t param = 7;
    int first = 0;
    int second = 0;
    EXPECT_TRUE(care("e", 2, &first));
    EXPECT_TRUE(care("e", 0));
    EXPECT_TRUE(care("e", 2, &second));
    EXPECT_EQ(log_texts(), "eventprocess has existed\n|");
    EXPECT_EQ(log_lines()[0].priority, 3);
    EXPECT_EQ(log_lines()[0].tag, "quarn.utils.event");
    calls.clear();
    EXPECT_EQ(uEventRaise(text("e"), &param, 99), 1);
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].handler, 2);
    EXPECT_EQ(calls[0].handle, &first);
    EXPECT_EQ(calls[0].param, &param);
    EXPECT_EQ(calls[1].handler, 0);
    EXPECT_EQ(calls[1].size, 99U);

    log_clear();
    EXPECT_TRUE(clear("e", 1));
    EXPECT_TRUE(clear("e", 2));
    EXPECT_EQ(raise_to("e"), "0 ");
    EXPECT_TRUE(clear("e", 0));
    EXPECT_EQ(raise_to("e"), "-");
    EXPECT_FALSE(clear("e", 0));
    uEventInit();
    uEventUninit();
    uEventUninit();
    EXPECT_EQ(log_texts(), "This eventprocess didn't exist|No module care event e.|"
                           "Event is alreday init.|Event not init.|");
    EXPECT_TRUE(care("e", 1));
    EXPECT_EQ(raise_to("e"), "1 ");
}

TEST_F(EventTest, NullNamesAndNullHandlers)
{
    EXPECT_EQ(uEventCare(nullptr, handlers[0], nullptr), 1);
    EXPECT_EQ(raise_to(""), "0 ");
    EXPECT_EQ(uEventRaise(nullptr, nullptr, 0), 1);
    EXPECT_EQ(uEventClear(nullptr, handlers[0], nullptr), 1);
    EXPECT_EQ(uEventCare(text("e"), nullptr, nullptr), 0);
    EXPECT_EQ(raise_to("e"), "-");
}

TEST_F(EventTest, EqualKeysAreOneEventAndNeitherKeyAloneIs)
{
    EXPECT_EQ(bkdrHash(text("gpr83pr")), bkdrHash(text("jz8z5q8")));
    EXPECT_EQ(rsHash(text("gpr83pr"), 256), rsHash(text("jz8z5q8"), 256));
    care("gpr83pr", 1);
    EXPECT_EQ(raise_to("jz8z5q8"), "1 ");
    // One step up, 131 down: the same bkdrHash, another slot.
    EXPECT_EQ(bkdrHash(text("A\xf0")), bkdrHash(text("B\x6d")));
    care("A\xf0", 2);
    EXPECT_EQ(raise_to("B\x6d"), "-");
}

// Names crowd around the end of the table and then fill it: probe sequences wrap and overlap, and
// events leave from every place in them.
TEST_F(EventTest, TableAgreesWithAModel)
{
    std::vector<std::string> names;
    for (uint32_t slot : {253, 254, 255, 0, 1, 40}) {
        const std::vector<std::string> more = names_at(slot, 50);
        names.insert(names.end(), more.begin(), more.end());
    }
    std::map<std::string, std::string> model; // handlers of each event, as raise_to lists them
    std::mt19937 random(1);
    bool was_full = false;
    for (int step = 0; step < 24000; step++) {
        const std::string& name = names[random() % names.size()];
        const int n = static_cast<int>(random() % 2);
        const std::string listed = std::to_string(n) + " ";
        const bool known = model.count(name) != 0;
        const bool filling = step / 4000 % 2 == 0;
        if (random() % 8 < (filling ? 6 : 3)) {
            const bool fits = known || model.size() < 256;
            was_full |= !fits;
            log_clear();
            ASSERT_EQ(care(name, n), fits);
            ASSERT_EQ(log_texts() == "Event hash buffer full.|", !fits);
            if (fits && model[name].find(listed) == std::string::npos) {
                model[name] += listed;
            }
        } else {
            ASSERT_EQ(clear(name, n), known);
            const size_t at = known ? model[name].find(listed) : std::string::npos;
            if (at != std::string::npos && model[name].erase(at, listed.size()).empty()) {
                model.erase(name);
            }
        }
        const std::string& other = names[random() % names.size()];
        ASSERT_EQ(raise_to(other), model.count(other) != 0 ? model[other] : "-");
    }
    EXPECT_TRUE(was_full);
}

TEST_F(EventTest, RaiseAllocatesForMoreThan16HandlersOnly)
{
    for (int count = 1; count <= 18; count++) {
        care("e", count);
        fail_malloc(0); // counts from here
        raise_to("e");
        EXPECT_EQ(malloc_calls(), count <= 16 ? 0 : 1) << count;
    }
}

TEST_F(EventTest, AFailedAllocationLeavesNothing)
{
    uEventUninit();
    int failures = 0;
    for (bool done = false; !done; failures++) {
        log_clear();
        fail_malloc(failures + 1);
        done = care("e", 0);
        fail_nothing();
        EXPECT_EQ(log_texts(), done ? "" : "register event e fail.|");
        if (!done) {
            EXPECT_EQ(raise_to("e"), "-");
            uEventUninit();
        }
    }
    EXPECT_EQ(failures - 1, 257); // the slots and the node
    EXPECT_EQ(raise_to("e"), "0 ");
}

// ---- Handlers that change the event while it is raised ----

static const struct {
    const char* what;
    void (*action)(int);
    std::string copied; // handlers called when they were copied
    std::string walked; // and when there was no memory for it
    std::string after;  // handlers of the next raise
} changes[] = {
    {"clears itself", [](int n) { clear("e", n); }, numbers(0, 19), numbers(0, 19), "-"},
    {"clears others",
     [](int n) {
         if (n == 1) {
             for (int other : {0, 2, 3, 19}) {
                 clear("e", other);
             }
         }
     },
     numbers(0, 19), numbers(0, 1) + numbers(4, 18), "1 " + numbers(4, 18)},
    {"clears all",
     [](int) {
         for (int other = 0; other < HANDLERS; other++) {
             clear("e", other);
         }
     },
     numbers(0, 19), "0 ", "-"},
    {"uninitialises",
     [](int n) {
         if (n == 5) {
             uEventUninit();
         }
     },
     numbers(0, 19), numbers(0, 5), "-"},
    {"registers again",
     [](int n) {
         clear("e", n);
         care("e", n);
     },
     numbers(0, 19), numbers(0, 19), numbers(0, 19)},
    {"registers another", [](int) { care("e", 20); }, numbers(0, 19), numbers(0, 19),
     numbers(0, 20)},
    {"clears in a nested raise",
     [](int n) {
         if (n == 2) {
             std::vector<call> outer = calls;
             fail_malloc(1, true);
             action = [](int m) { clear("e", m == 4 ? 3 : m == 6 ? 8 : 23); };
             raise_to("e");
             action = nullptr;
             calls = outer;
             clear("e", 4); // the outer raise stands on it by now
         }
     },
     "", numbers(0, 2) + numbers(5, 7) + numbers(9, 19),
     numbers(0, 2) + numbers(5, 7) + numbers(9, 19)},
};

TEST_F(EventTest, HandlersMayChangeTheEventTheyAreCalledFor)
{
    for (const auto& change : changes) {
        for (const bool memory : {true, false}) {
            if (memory && change.copied.empty()) {
                continue;
            }
            uEventUninit();
            for (int i = 0; i < 20; i++) {
                care("e", i);
            }
            action = change.action;
            fail_malloc(memory ? 0 : 1);
            EXPECT_EQ(raise_to("e"), memory ? change.copied : change.walked) << change.what;
            action = nullptr;
            fail_nothing();
            std::thread([&] { EXPECT_EQ(raise_to("e"), change.after) << change.what; }).join();
        }
    }
}

TEST_F(EventTest, AHandlerMayEndItsThread)
{
    for (int failing : {0, 1}) {
        uEventUninit();
        for (int i = 0; i < 20; i++) {
            care("e", i);
        }
        std::thread([failing] {
            action = [](int n) {
                if (n == 3) {
                    pthread_exit(nullptr);
                }
            };
            fail_malloc(failing);
            uEventRaise(text("e"), nullptr, 0);
        }).join();
        action = nullptr;
        std::thread([] {
            EXPECT_EQ(raise_to("e"), numbers(0, 19)); // the lock was let go
            clear("e", 4);                            // where the raise would have gone on
        }).join();
    }
}

// ---- Many threads ----

static void first_use_by_many()
{
    std::barrier together(8);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([&together, i] {
            together.arrive_and_wait();
            EXPECT_TRUE(care("e", i));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    raise_to("e");
    EXPECT_EQ(calls.size(), 8U);
}

static void first_use_without_memory()
{
    for (int nth = 1; nth <= 257; nth++) {
        fail_malloc(nth, true);
        EXPECT_FALSE(care("e", 0));
        EXPECT_EQ(raise_to("e"), "-");
        fail_nothing();
        if (nth > 1) {
            uEventUninit();
        }
    }
    EXPECT_TRUE(care("e", 0));
}

// In a process of its own, in which nobody has used events yet.
TEST(EventFirstUseTest, MakesOneRegistry)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            int passed = passes_in_child(first_use_without_memory) ? 1 : 0;
            for (int round = 0; round < 100; round++) {
                passed += passes_in_child(first_use_by_many) ? 1 : 0;
            }
            exit(passed == 101 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EventTest, RaiseCareAndClearWhileTheRegistryComesAndGoes)
{
    static std::atomic<bool> stop;
    stop = false;
    action = [](int n) {
        if (n % 4 == 0) {
            clear("e1", n);
        }
    };
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 4; seed++) {
        threads.emplace_back([seed] {
            std::mt19937 random(seed);
            while (!stop) {
                static const std::string names[] = {"e0", "e1", "e2"};
                const std::string& name = names[random() % 3];
                const int n = static_cast<int>(random() % HANDLERS);
                care(name, n);
                care(name, (n + 1) % HANDLERS);
                fail_malloc(random() % 4 == 0 ? 1 : 0); // now and then the walk
                raise_to(name);
                fail_nothing();
                clear(name, n);
            }
        });
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(700);
    while (std::chrono::steady_clock::now() < end) {
        uEventUninit();
        log_clear();
        usleep(500);
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    action = nullptr;
    uEventUninit();
    EXPECT_TRUE(care("e1", 1));
    EXPECT_EQ(raise_to("e1"), "1 ");
}
