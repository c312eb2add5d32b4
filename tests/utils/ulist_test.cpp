#include "ulist.h"

#include "fail.h"
#include "internal.h"
#include "log_double.h"
#include "uBm.h"

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

char letters[][2] = {"A", "B", "C", "D", "X"};
char* const A = letters[0];
char* const B = letters[1];
char* const C = letters[2];
char* const D = letters[3];
char* const X = letters[4];

std::string content(ulist_t* list)
{
    std::string all;
    for (int32_t pos = 0; !uListEol(list, pos); pos++) {
        all += uListGet(list, pos);
    }
    return all;
}

/** A list of letters; what it holds at the end is dropped. */
struct letter_list {
    explicit letter_list(std::initializer_list<char*> elements) : list(uListInit(1))
    {
        for (char* element : elements) {
            uListAppend(list, element);
        }
    }
    ~letter_list()
    {
        while (uListRemove(list, 0) != nullptr) {
        }
        EXPECT_EQ(uListUninit(list), OK);
    }
    ulist_t* list;
};

std::string freed;
ulist_t* shared;

addr_t note_free(addr_t element)
{
    freed += element;
    return nullptr;
}

/** Proves that nobody holds the lock of a list: another thread uses it. */
void use_elsewhere(ulist_t* list, addr_t element)
{
    std::thread([list, element] { uListAppend(list, element); }).join();
}

} // namespace

TEST(List, InsertsAndRemovesAtEveryPosition)
{
    letter_list l({});
    EXPECT_EQ(uListFirst(l.list), nullptr);
    EXPECT_EQ(uListAppend(l.list, B), 1);
    EXPECT_EQ(uListAdd(l.list, A, 0), 2);
    EXPECT_EQ(uListAdd(l.list, D, 2), 3);
    EXPECT_EQ(uListAdd(l.list, C, 2), 4);
    EXPECT_EQ(uListAdd(l.list, X, 99), 5);
    EXPECT_EQ(uListAdd(l.list, A, -1), 6);
    EXPECT_EQ(content(l.list), "ABCDXA");
    EXPECT_EQ(uListRemove(l.list, 5), A);
    EXPECT_EQ(uListRemove(l.list, 2), C);
    EXPECT_EQ(uListRemove(l.list, 0), A);
    EXPECT_EQ(content(l.list), "BDX");
    EXPECT_EQ(uListFirst(l.list), B);
}

TEST(List, AnswersNonsenseWithoutChange)
{
    letter_list l({A, B});
    for (ulist_t* list : {l.list, static_cast<ulist_t*>(nullptr)}) {
        for (int32_t pos : {-1, -2, 2, INT32_MIN, INT32_MAX}) {
            EXPECT_EQ(uListGet(list, pos), nullptr) << pos;
            EXPECT_EQ(uListRemove(list, pos), nullptr) << pos;
            EXPECT_EQ(uListRemoveAndFree(list, pos, note_free), uListSize(list)) << pos;
            EXPECT_TRUE(uListEol(list, pos)) << pos;
        }
        EXPECT_EQ(uListAdd(list, C, list == nullptr ? 0 : -2), -1);
        EXPECT_EQ(uListAdd(list, nullptr, 0), -1);
        EXPECT_EQ(uListSearch(list, nullptr, nullptr), -1);
    }
    EXPECT_EQ(content(l.list), "AB");
    EXPECT_EQ(uListSize(nullptr), -1);
    EXPECT_EQ(uListFirst(nullptr), nullptr);
    EXPECT_EQ(uListPosGetByElement(nullptr, A), -1);
    EXPECT_EQ(uListUninit(nullptr), OK);
    uListSpecialClear(nullptr, note_free);
}

TEST(List, FindsByIdentityAndByComparison)
{
    char same[] = "B";
    letter_list l({A, B, C, same});
    const auto by_text = [](addr_t stored, addr_t element) { return strcmp(stored, element); };
    const auto is_behind = [](addr_t stored, addr_t element) -> int32_t {
        return stored > element ? 0 : 1; // tells which argument is which
    };
    EXPECT_EQ(uListSearch(l.list, same, nullptr), 3);
    EXPECT_EQ(uListSearch(l.list, same, by_text), 1);
    EXPECT_EQ(uListSearch(l.list, B, is_behind), 2);
    EXPECT_EQ(uListSearch(l.list, X, by_text), -1);
    EXPECT_EQ(uListPosGetByElement(l.list, X), -1);
}

TEST(List, IsReleasedOnlyEmpty)
{
    ulist_t* list = uListInit(0);
    for (int i = 0; i < 3; i++) { // a leak or a double free shows under the address sanitizer
        uListAppend(list, static_cast<addr_t>(uMalloc(8)));
    }
    EXPECT_EQ(uListRemoveAndFree(list, 1, nullptr), 2);
    log_clear();
    EXPECT_EQ(uListUninit(list), ERROR);
    EXPECT_EQ(log_texts(), "uListUninit: Uninit list that has nodes not free!|");
    EXPECT_EQ(log_lines().front().priority, 6);
    EXPECT_EQ(log_lines().front().tag, "quarn.utils.list");
    uListSpecialClear(list, nullptr);
    EXPECT_EQ(uListUninit(list), OK);
}

TEST(List, StaysAsItWasWithoutMemory)
{
    for (int nth : {1, 2}) {
        fail_malloc(nth);
        EXPECT_EQ(uListInit(1), nullptr) << nth;
    }
    letter_list l({A, B});
    freed.clear();
    log_clear();
    fail_malloc(1);
    EXPECT_EQ(uListAdd(l.list, C, 1), -1);
    fail_malloc(1);
    uListSpecialClear(l.list, note_free);
    EXPECT_EQ(content(l.list), "AB");
    EXPECT_EQ(log_texts(), "uListSpecialClear: init list error!|");
    fail_malloc(2, true); // the elements themselves move without any
    uListSpecialClear(l.list, note_free);
    fail_nothing();
    EXPECT_EQ(freed, "AB");
}

TEST(List, LetsCallersFunctionsUseIt)
{
    letter_list l({A, B, C});
    shared = l.list;
    freed.clear();
    const auto append_and_note = [](addr_t element) {
        use_elsewhere(shared, X);
        return note_free(element);
    };
    uListSpecialClear(l.list, append_and_note);
    EXPECT_EQ(uListRemoveAndFree(l.list, 0, append_and_note), 3);
    EXPECT_EQ(freed, "ABCX");
    EXPECT_EQ(content(l.list), "XXX");

    // The comparison removes what it was called for; the search goes on with the next position.
    uListAppend(l.list, B);
    const auto remove_and_compare = [](addr_t stored, addr_t element) -> int32_t {
        use_elsewhere(shared, C);
        if (stored == X) {
            uListRemove(shared, 0);
        }
        return stored != element;
    };
    EXPECT_EQ(uListSearch(l.list, C, remove_and_compare), 2);
    EXPECT_EQ(content(l.list), "XBCCC");
}

TEST(List, GetsBackWhatAThreadThatEndsDidNotFree)
{
    letter_list l({A, B, C, D});
    shared = l.list;
    freed.clear();
    std::thread([] {
        uListSpecialClear(shared, [](addr_t element) -> addr_t {
            note_free(element);
            if (element == B) {
                uListAppend(shared, X);
                pthread_exit(nullptr);
            }
            return nullptr;
        });
    }).join();
    EXPECT_EQ(freed, "AB");
    EXPECT_EQ(content(l.list), "CDX");

    // Told to end before the first call: everything is put back in its place.
    for (const bool clear : {false, true}) {
        std::thread([clear] {
            op_leave(op_enter());
            record_ask_end(self_record);
            clear ? uListSpecialClear(shared, note_free)
                  : static_cast<void>(uListRemoveAndFree(shared, 1, note_free));
        }).join();
        EXPECT_EQ(freed, "AB");
        EXPECT_EQ(content(l.list), "CDX");
    }
    use_elsewhere(l.list, A);
}

TEST(List, LosesNothingBetweenThreads)
{
    constexpr int ROUNDS = 3000;
    static std::atomic<int> taken;
    letter_list l({});
    std::vector<std::jthread> threads;

    taken = 0;
    for (int self = 0; self < 4; self++) {
        threads.emplace_back([&l] {
            for (int round = 0; round < ROUNDS; round++) {
                uListAdd(l.list, A, round % 3 - 1);
                if (!uListEol(l.list, 20)) {
                    taken += uListRemove(l.list, round % 20) != nullptr;
                }
                if (round % 100 == 0) {
                    uListSpecialClear(l.list, [](addr_t element) {
                        taken++;
                        return element;
                    });
                }
            }
        });
    }
    threads.clear();
    const int32_t size = uListSize(l.list);
    EXPECT_EQ(size + taken, 4 * ROUNDS);
    EXPECT_EQ(content(l.list), std::string(static_cast<size_t>(size), 'A'));
}
