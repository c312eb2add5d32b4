// Events: the table against a model, handlers that interfere with their own raise, and threads.
#include "uEvent.h"

#include "internal.h"

#include "child.h"
#include "fail.h"
#include "log_double.h"

#include <barrier>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

static constexpr int HANDLERS = 24; // functions, for an event has each of them once
static thread_local std::string called;
static void (*action)(int handler) = nullptr; // of every handler, beside noting the call

template <int N> static int32_t handler(char*, void*, int32_t*, size_t)
{
    called += std::to_string(N) + " ";
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
    return uEventCare(text(name), handlers[static_cast<size_t>(handler)], nullptr) == 1;
}

static bool clear(const std::string& name, int handler)
{
    return uEventClear(text(name), handlers[static_cast<size_t>(handler)], nullptr) == 1;
}

// Raises and lists the handlers called: "0 1 2 "; "-" when nobody cares.
static std::string raise_to(const std::string& name)
{
    called.clear();
    return uEventRaise(text(name), nullptr, 0) != 0 ? called : "-";
}

static std::string numbers(int first, int last)
{
    return first > last ? "" : std::to_string(first) + " " + numbers(first + 1, last);
}

class EventTest : public testing::Test {
  protected:
    void TearDown() override
    {
        action = nullptr;
        uEventUninit();
    }
};

TEST_F(EventTest, FirstUseByManyMakesOneRegistry)
{
    for (int round = 0; round < 100; round++) { // no other test may come before
        ASSERT_TRUE(passes_in_child([] {
            std::barrier together(8);
            std::vector<std::jthread> threads;
            for (int i = 0; i < 8; i++) {
                threads.emplace_back([&together, i] {
                    together.arrive_and_wait();
                    EXPECT_TRUE(care("e", i));
                });
            }
            threads.clear();
            EXPECT_EQ(raise_to("e").size(), 16U);
        }));
    }
}

TEST_F(EventTest, AFailedAllocationLeavesNothing)
{
    bool done = false;
    for (int nth = 1; nth <= 300 && !done; nth++) { // lock, slots and node
        uEventUninit();
        log_clear();
        fail_malloc(nth, true);
        done = care("e", 0);
        EXPECT_EQ(raise_to("e"), done ? "0 " : "-");
        EXPECT_EQ(log_texts(), done ? "" : "register event e fail.|No module care event e.|");
    }
    EXPECT_TRUE(done);
    fail_nothing();
}

TEST_F(EventTest, Keys)
{
    EXPECT_EQ(rsHash(nullptr, 256) + bkdrHash(nullptr) + remainderHash(nullptr), 0);
    EXPECT_EQ(rsHash(text("\xff\x80"), 1000), (255U * 63689 * 378551 + 128) % 1000);
    EXPECT_EQ(rsHash(text("abcdefgh"), 0), 1542187824U);
    EXPECT_EQ(rsHash(text("abcdefgh"), -1), 1542187824U); // modulo 2^32 - 1
    EXPECT_EQ(bkdrHash(text("abcdefgh")), 387275572);
    EXPECT_EQ(remainderHash(text("\xff\x80")), 255 + 128);
    care("gpr83pr", 1);
    EXPECT_EQ(raise_to("jz8z5q8"), "1 "); // both keys are equal
    EXPECT_EQ(bkdrHash(text("A\xf0")), bkdrHash(text("B\x6d")));
    care("A\xf0", 2);
    EXPECT_EQ(raise_to("B\x6d"), "-"); // one key is
}

TEST_F(EventTest, RegistrationsAndTheirEnd)
{
    int32_t param = 7;
    const EVENTPROCESS looks = [](char*, void* handle, int32_t* given, size_t size) {
        called += handle == given && size == 99 ? "looks " : "wrong ";
        EXPECT_EQ(self_record->depth, 0); // the caller may be ended here
        return 0;
    };
    called.clear();
    log_clear();
    EXPECT_EQ(uEventCare(nullptr, looks, &param), 1);
    EXPECT_TRUE(care("", 0));
    EXPECT_EQ(uEventCare(text(""), looks, nullptr), 1);
    EXPECT_EQ(uEventRaise(nullptr, &param, 99), 1);
    EXPECT_EQ(called, "looks 0 ");
    EXPECT_TRUE(clear("", 1));
    EXPECT_EQ(uEventCare(text("e"), nullptr, nullptr), 1);
    EXPECT_EQ(raise_to("e"), ""); // somebody cares, with nothing to call
    EXPECT_EQ(uEventClear(text("e"), nullptr, nullptr), 1);
    EXPECT_FALSE(clear("e", 0));
    EXPECT_EQ(raise_to("e"), "-");
    uEventInit();
    uEventUninit();
    uEventUninit();
    EXPECT_EQ(log_texts(), "eventprocess has existed\n|This eventprocess didn't exist|"
                           "No module care event e.|Event is alreday init.|Event not init.|");
}

// The table fills and empties: probe sequences wrap and overlap, and events leave from anywhere.
TEST_F(EventTest, TableAgreesWithAModel)
{
    std::map<std::string, std::string> model; // handlers of each event, as raise_to lists them
    std::mt19937 random(1);
    const auto any = [&random] { return "event" + std::to_string(random() % 300); };
    size_t largest = 0;
    for (int step = 0; step < 24000; step++) {
        const std::string name = any();
        const int n = static_cast<int>(random() % 2);
        const std::string listed = std::to_string(n) + " ";
        const bool known = model.count(name) != 0;
        const size_t at = known ? model[name].find(listed) : std::string::npos;
        if (random() % 8 < (step / 4000 % 2 == 0 ? 6 : 3)) { // filling or emptying
            const bool fits = known || model.size() < 256;
            log_clear();
            ASSERT_EQ(care(name, n), fits);
            ASSERT_EQ(log_texts() == "Event hash buffer full.|", !fits);
            if (fits && at == std::string::npos) {
                model[name] += listed;
            }
        } else {
            ASSERT_EQ(clear(name, n), known);
            if (at != std::string::npos && model[name].erase(at, listed.size()).empty()) {
                model.erase(name);
            }
        }
        largest = std::max(largest, model.size());
        const std::string other = any();
        ASSERT_EQ(raise_to(other), model.count(other) != 0 ? model[other] : "-");
    }
    EXPECT_EQ(largest, 256U);
}

// A raise inside the raise.
static void raise_again(int n)
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

static void clear_neighbours(int n)
{
    for (int other : {0, 2, 3, 19}) {
        clear("e", n == 1 ? other : 23);
    }
}

static const struct {
    void (*action)(int);
    std::string copied; // handlers called when they were copied
    std::string walked; // and when there was no memory for it
    std::string after;  // handlers of the next raise
} changes[] = {
    {[](int n) { clear("e", n); }, numbers(0, 19), numbers(0, 19), "-"},
    {clear_neighbours, numbers(0, 19), numbers(0, 1) + numbers(4, 18), "1 " + numbers(4, 18)},
    {[](int n) { n == 5 ? uEventUninit() : void(); }, numbers(0, 19), numbers(0, 5), "-"},
    {[](int n) { clear("e", n), care("e", n); }, numbers(0, 19), numbers(0, 19), numbers(0, 19)},
    {[](int n) { n == 3 ? pthread_exit(nullptr) : void(); }, "", "", numbers(0, 19)},
    {raise_again, numbers(0, 19), numbers(0, 2) + numbers(5, 7) + numbers(9, 19),
     numbers(0, 2) + numbers(5, 7) + numbers(9, 19)},
};

TEST_F(EventTest, HandlersMayChangeTheEventTheyAreCalledFor)
{
    for (const auto& change : changes) {
        for (const bool memory : {true, false}) {
            uEventUninit();
            for (int i = 0; i < 20; i++) {
                care("e", i);
            }
            std::string list;
            action = change.action;
            std::thread([&] {
                fail_malloc(memory ? 0 : 1);
                list = raise_to("e");
            }).join();
            action = nullptr;
            EXPECT_EQ(list, memory ? change.copied : change.walked);
            std::thread([&] { EXPECT_EQ(raise_to("e"), change.after); }).join(); // no lock is held
            clear("e", 4); // where an ended raise would have gone on
        }
    }
}

TEST_F(EventTest, RaiseCareAndClearWhileTheRegistryComesAndGoes)
{
    std::atomic<bool> stop = false;
    action = [](int n) { clear("e1", n % 4 == 0 ? n : 23); };
    std::vector<std::jthread> threads;
    for (unsigned seed = 0; seed < 4; seed++) {
        threads.emplace_back([&stop, seed] {
            std::mt19937 random(seed);
            while (!stop) {
                const std::string name = "e" + std::to_string(random() % 3);
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
    for (int round = 0; round < 200; round++) {
        uEventUninit();
        log_clear();
        usleep(500);
    }
    stop = true;
    threads.clear();
    uEventUninit();
    EXPECT_TRUE(care("e2", 1));
    EXPECT_EQ(raise_to("e2"), "1 ");
}
