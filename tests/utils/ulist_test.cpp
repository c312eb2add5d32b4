#include "ulist.h"

#include "internal.h"
#include "log_double.h"
#include "osaSem.h"
#include "uBm.h"

#include <cstring>
#include <semaphore>
#include <unistd.h>

static char letters[][2] = {"A", "B", "C", "D", "X"};
static char *const A = letters[0], *const B = letters[1], *const C = letters[2];
static char *const D = letters[3], *const X = letters[4];
static ulist_t* list;
static std::string freed;
static std::jthread holder;
static std::atomic<bool> released; // by the holder

static addr_t note_free(addr_t element)
{
    EXPECT_EQ(self_record->depth, 0);
    freed += element;
    return nullptr;
}

struct List : testing::Test {
    List() { list = uListInit(1); }
    ~List() override
    {
        hold({});
        EXPECT_EQ(uListUninit(list), OK);
    }
    static void hold(std::initializer_list<char*> elements)
    {
        holder = {};
        uListSpecialClear(list, note_free);
        for (char* element : elements) {
            uListAppend(list, element);
        }
        freed.clear();
        log_clear();
    }
    static std::string content()
    {
        std::string all;
        for (int32_t pos = 0; !uListEol(list, pos); pos++) {
            all += uListGet(list, pos);
        }
        return all;
    }
};

// Proves that nobody holds the lock of the list: another thread uses it.
static void append_elsewhere(addr_t element)
{
    std::thread([element] { uListAppend(list, element); }).join();
}

// Another thread keeps the list for itself, for two milliseconds from now on.
static void lock_elsewhere()
{
    static std::binary_semaphore held(0);
    released = false;
    holder = std::jthread([] {
        semTake(list->lockSem, WAIT_FOREVER);
        held.release();
        usleep(2000);
        released = true;
        semGive(list->lockSem);
        uListEol(list, 0); // looks without the lock, and races with nothing
        usleep(500);
        uListGet(list, 0); // nor does what is done under it
    });
    held.acquire();
}

TEST_F(List, InsertsRemovesAndFindsAtEveryPosition)
{
    char same[] = "B";
    EXPECT_EQ(uListFirst(list), nullptr);
    int32_t size = 0;
    for (auto [element, pos] : {std::pair{B, 0}, {A, 0}, {D, 2}, {C, 2}, {X, 5}, {+same, -1}}) {
        EXPECT_EQ(uListAdd(list, element, pos), ++size);
    }
    EXPECT_EQ(uListAppend(list, D), 7);
    EXPECT_EQ(uListRemove(list, 6), D);
    EXPECT_EQ(content(), "ABCDXB");
    EXPECT_EQ(uListSearch(list, same, nullptr), 5);
    EXPECT_EQ(uListSearch(list, same, [](auto a, auto b) { return strcmp(a, b); }), 1);
    EXPECT_EQ(uListSearch(list, same, [](auto, auto) { return 1; }), -1);
    EXPECT_EQ(uListSearch(list, B, [](auto a, auto b) { return a > b ? 0 : 1; }), 2);
    EXPECT_EQ(uListPosGetByElement(list, same + 1), -1);
    EXPECT_EQ(uListRemove(list, 5), same);
    EXPECT_EQ(uListRemove(list, 2), C);
    EXPECT_EQ(uListRemove(list, 0), A);
    EXPECT_EQ(content(), "BDX");
    EXPECT_EQ(uListFirst(list), B);
}

TEST_F(List, IsReleasedOnlyEmpty)
{
    ulist_t* heap = uListInit(0);
    for (int i = 0; i < 3; i++) { // a leak or a double free shows under the address sanitizer
        uListAppend(heap, static_cast<addr_t>(uMalloc(8)));
    }
    EXPECT_EQ(uListRemoveAndFree(heap, 1, nullptr), 2);
    EXPECT_EQ(uListRemoveAndFree(heap, 1, nullptr), 1);
    EXPECT_EQ(uListUninit(heap), ERROR);
    EXPECT_EQ(log_of("quarn.utils.list"), "6 uListUninit: Uninit list that has nodes not free!|");
    uListSpecialClear(heap, nullptr);
    EXPECT_EQ(uListUninit(heap), OK);
}

TEST_F(List, LetsCallersFunctionsUseIt)
{
    const auto append_and_note = [](addr_t element) {
        append_elsewhere(X);
        return note_free(element);
    };
    hold({A, B, C});
    uListSpecialClear(list, append_and_note);
    EXPECT_EQ(uListRemoveAndFree(list, 0, append_and_note), 3);
    EXPECT_EQ(freed, "ABCX");
    EXPECT_EQ(content(), "XXX");

    // The comparison removes what it was called for; the search goes on with the next position.
    uListAppend(list, B);
    const auto compare = [](addr_t stored, addr_t element) -> int32_t {
        append_elsewhere(C);
        return stored == X ? uListRemove(list, 0), 1 : stored != element;
    };
    EXPECT_EQ(uListSearch(list, C, compare), 2);
    EXPECT_EQ(content(), "XBCCC");
}

TEST_F(List, GetsBackWhatAThreadThatEndsDidNotFree)
{
    static constexpr uListSpecificFreeFuncPtr ends_at_b = [](addr_t element) {
        note_free(element);
        if (*element != *B) {
            return uListAppend(list, D), element; // in the meantime
        }
        lock_elsewhere();
        record_ask_end(self_record); // an ending thread is not ended once more
        pthread_exit(nullptr);
    };
    static constexpr uListSpecificFreeFuncPtr is_told = [](addr_t element) {
        lock_elsewhere();
        record_ask_end(self_record);
        return note_free(element);
    };
    const auto expect = [](void (*use)(), const std::string& gone, const std::string& left) {
        hold({A, B, C, D});
        released = true;
        std::thread(use).join();
        EXPECT_TRUE(released); // the lock was waited for
        append_elsewhere(X);
        EXPECT_EQ(freed, gone);
        EXPECT_EQ(content(), left);
    };
    expect([] { uListSpecialClear(list, ends_at_b); }, "AB", "CDDX");
    expect([] { uListSpecialClear(list, is_told); }, "A", "BCDX");
    static constexpr auto told = [] { uListGet(list, 0), record_ask_end(self_record); };
    expect([] { told(), uListRemoveAndFree(list, 1, note_free); }, "", "ABCDX");
    expect([] { told(), uListSpecialClear(list, note_free); }, "", "ABCDX");
    expect([] { told(), uListGet(list, 1); }, "", "ABCDX");
    expect([] { told(), uListPosGetByElement(list, A); }, "", "ABCDX");
    hold({A});
    std::thread(uListSpecialClear, list,
                [](addr_t) -> addr_t { // the last may release the list
                    uListUninit(list);
                    pthread_exit(nullptr);
                })
        .join();
    list = uListInit(1);
}

TEST_F(List, IsLeftAloneWhileItsLockIsHeld)
{
    for (void (*use)() : std::initializer_list<void (*)()>{
             [] { uListAdd(list, X, 1); }, [] { uListGet(list, 1); }, [] { uListRemove(list, 1); },
             [] { uListPosGetByElement(list, C); }, [] { uListSpecialClear(list, note_free); }}) {
        hold({A, B, C});
        lock_elsewhere();
        use();
        EXPECT_TRUE(released);
    }
}
