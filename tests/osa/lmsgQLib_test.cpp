#include "fail.h"
#include "internal.h"
#include "osaMsg.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <deque>
#include <random>
#include <thread>
#include <vector>

static std::atomic<int> clock_reads;
static std::atomic<int> clock_lag_s;

extern "C" int __real_gettimeofday(timeval* tv, void* zone);
extern "C" int __wrap_gettimeofday(timeval* tv, void* zone)
{
    clock_reads++;
    const int result = __real_gettimeofday(tv, zone);
    tv->tv_sec -= clock_lag_s;
    return result;
}

static int waiting(MSG_Q_ID id)
{
    return load_acquire(&reinterpret_cast<v2pt_mqueue_t*>(id)->waitTasks);
}

static void expect_send(MSG_Q_ID id, std::string msg, int wait, int pri, int code)
{
    errno = 0;
    const status_t result = msgQSend(id, msg.data(), static_cast<uint>(msg.size()), wait, pri);
    EXPECT_EQ(result, code == 0 ? OK : ERROR) << msg;
    EXPECT_EQ(errno, code) << msg;
}

static void send(MSG_Q_ID id, const std::string& msg, int pri = MSG_PRI_NORMAL)
{
    expect_send(id, msg, NO_WAIT, pri, 0);
}

static std::string receive(MSG_Q_ID id, int max_wait = NO_WAIT)
{
    char buffer[2048];
    const int32_t size = msgQReceive(id, buffer, sizeof buffer, max_wait);
    return size < 0 ? "none" : std::string(buffer, static_cast<size_t>(size));
}

static void expect_none(MSG_Q_ID id, int max_wait, int code)
{
    errno = 0;
    EXPECT_EQ(receive(id, max_wait), "none");
    EXPECT_EQ(errno, code);
}

TEST(MsgQTest, SizesOutOfRangeAreRefused)
{
    struct {
        int max_msgs;
        int msglen;
        int code;
    } const cases[] = {
        {0, 8, S_msgQLib_INVALID_MSG_LENGTH},
        {-1, 8, S_msgQLib_INVALID_MSG_LENGTH},
        {8, -1, S_msgQLib_INVALID_MSG_LENGTH},
        {INT_MIN, INT_MIN, S_msgQLib_INVALID_MSG_LENGTH},
        {INT_MAX, 8, S_memLib_NOT_ENOUGH_MEMORY},
        {INT_MAX, INT_MAX, S_memLib_NOT_ENOUGH_MEMORY},
        {65535, 65528, S_memLib_NOT_ENOUGH_MEMORY}, // 0 in 32 bits
        {1, INT_MAX, S_memLib_NOT_ENOUGH_MEMORY},
    };
    for (const auto& c : cases) {
        errno = 0;
        EXPECT_EQ(msgQCreate(c.max_msgs, c.msglen, 0), nullptr);
        EXPECT_EQ(errno, c.code) << c.max_msgs << " " << c.msglen;
    }
}

// A record is made when no deleted queue left one; the queue after the next uses it again.
TEST(MsgQTest, FailedAllocationsLeaveNothing)
{
    std::vector<MSG_Q_ID> queues;
    do {
        fail_malloc(0);
        queues.push_back(msgQCreate(2, 16, 0));
    } while (malloc_calls() < 2);
    for (const int nth : {1, 2}) {
        fail_malloc(nth);
        errno = 0;
        EXPECT_EQ(msgQCreate(2, 16, 0), nullptr);
        EXPECT_EQ(errno, S_memLib_NOT_ENOUGH_MEMORY);
        EXPECT_TRUE(failed());
    }
    for (MSG_Q_ID id : queues) {
        EXPECT_EQ(msgQDelete(id), OK);
    }
    fail_malloc(2);
    const MSG_Q_ID again = msgQCreate(2, 16, 0);
    fail_nothing();
    EXPECT_EQ(malloc_calls(), 1);
    EXPECT_EQ(receive(again), "none");
    send(again, "x");
    EXPECT_EQ(receive(again), "x");
    EXPECT_EQ(msgQDelete(again), OK);
}

TEST(MsgQTest, UnknownIdsAreRefusedUnread)
{
    MSG_Q_ID gone = msgQCreate(1, 8, 0);
    EXPECT_EQ(msgQDelete(gone), OK);
    for (const MSG_Q_ID id :
         {gone, reinterpret_cast<MSG_Q_ID>(1), static_cast<MSG_Q_ID>(nullptr)}) {
        stdout_capture console;
        expect_send(id, "x", WAIT_FOREVER, MSG_PRI_NORMAL, S_objLib_OBJ_ID_ERROR);
        EXPECT_EQ(console.text(), "msgQSend not found");
        expect_none(id, WAIT_FOREVER, id == nullptr ? 0 : S_objLib_OBJ_ID_ERROR);
        errno = 0;
        EXPECT_EQ(msgQNumMsgs(id), -1);
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(msgQDelete(id), ERROR);
        EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
    }
    MSG_Q_ID id = msgQCreate(1, 8, 0);
    MSG_Q_ID variable = id;
    EXPECT_EQ(msgQSafeDelete(&variable), OK);
    EXPECT_EQ(variable, nullptr);
    EXPECT_EQ(msgQNumMsgs(id), -1);
    EXPECT_EQ(msgQSafeDelete(&variable), ERROR);
    EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
    errno = 0;
    EXPECT_EQ(msgQSafeDelete(nullptr), ERROR);
    EXPECT_EQ(errno, 0);
}

TEST(MsgQTest, LengthsAreChecked)
{
    MSG_Q_ID id = msgQCreate(2, 4, 0);
    char buffer[4];
    stdout_capture console;
    send(id, "four");
    expect_send(id, "five!", WAIT_FOREVER, MSG_PRI_URGENT, S_msgQLib_INVALID_MSG_LENGTH);
    EXPECT_EQ(msgQSend(id, buffer, UINT_MAX, NO_WAIT, 0), ERROR);
    errno = 0;
    EXPECT_EQ(msgQReceive(id, buffer, 3, WAIT_FOREVER), -1);
    EXPECT_EQ(errno, S_msgQLib_INVALID_MSG_LENGTH);
    EXPECT_EQ(console.text(), "msglen > queue->msg_len\nmsglen > queue->msg_len\n"
                              "buflen < queue->msg_len   dd \n");
    EXPECT_EQ(msgQNumMsgs(id), 1);
    EXPECT_EQ(msgQReceive(id, buffer, 4, NO_WAIT), 4);
    msgQDelete(id);
}

TEST(MsgQTest, UrgentMessagesComeFirstAndUseTheSpareSlot)
{
    MSG_Q_ID id = msgQCreate(4, 8, 0);
    EXPECT_EQ(msgQNumMsgs(id), 0);
    send(id, "A");
    send(id, "B", 2); // no priority but 1 is urgent
    send(id, "U1", MSG_PRI_URGENT);
    send(id, "U2", MSG_PRI_URGENT);
    expect_send(id, "C", NO_WAIT, MSG_PRI_NORMAL, S_objLib_OBJ_UNAVAILABLE);
    send(id, "U3", MSG_PRI_URGENT);
    EXPECT_EQ(msgQNumMsgs(id), 5);
    expect_send(id, "U4", NO_WAIT, MSG_PRI_URGENT, S_objLib_OBJ_UNAVAILABLE);
    for (const char* next : {"U3", "U2", "U1", "A", "B"}) {
        EXPECT_EQ(receive(id), next);
    }
    expect_none(id, NO_WAIT, S_objLib_OBJ_UNAVAILABLE);
    msgQDelete(id);
}

TEST(MsgQTest, NullMessageKeepsTheSlotAndNullBufferThrowsAway)
{
    MSG_Q_ID id = msgQCreate(1, 8, 0);
    for (int i = 0; i < 2; i++) { // both slots
        send(id, "-bcd");
        EXPECT_EQ(msgQReceive(id, nullptr, 8, NO_WAIT), 0);
    }
    EXPECT_EQ(msgQSend(id, nullptr, 4, NO_WAIT, 0), OK);
    EXPECT_EQ(receive(id), std::string("\0bcd", 4));
    expect_none(id, NO_WAIT, S_objLib_OBJ_UNAVAILABLE);
    msgQDelete(id);
}

// Random traffic beside a model; lengths that leave the slots unaligned, and none at all.
TEST(MsgQTest, RingWrapsAtEveryLength)
{
    std::mt19937 random(7);
    for (const int length : {0, 1, 7, 8, 16, 1024}) {
        const MSG_Q_ID id = msgQCreate(3, length, 0);
        std::deque<std::string> model;
        for (int i = 0; i < 2000; i++) {
            const int pri = random() % 3 == 0 ? MSG_PRI_URGENT : MSG_PRI_NORMAL;
            const size_t room = pri == MSG_PRI_URGENT ? 4 : 3;
            if (random() % 2 == 0 && model.size() < room) {
                std::string msg(random() % (static_cast<size_t>(length) + 1),
                                static_cast<char>(random()));
                send(id, msg, pri);
                model.insert(pri == MSG_PRI_URGENT ? model.begin() : model.end(), msg);
            } else if (!model.empty()) {
                ASSERT_EQ(receive(id), model.front()) << length;
                model.pop_front();
            }
            ASSERT_EQ(msgQNumMsgs(id), static_cast<int>(model.size()));
        }
        msgQDelete(id);
    }
}

TEST(MsgQTest, WaitsEndAtTheirDeadlineAndNotBefore)
{
    MSG_Q_ID id = msgQCreate(1, 8, 0);
    for (const int ticks : {3, -2, INT_MIN}) {
        int64_t before = now_ns();
        expect_none(id, ticks, S_objLib_OBJ_TIMEOUT);
        EXPECT_GE(now_ns() - before, ticks > 0 ? 29 * 1000000LL : 0);
        send(id, "x");
        before = now_ns();
        expect_send(id, "y", ticks, MSG_PRI_NORMAL, S_objLib_OBJ_TIMEOUT);
        EXPECT_GE(now_ns() - before, ticks > 0 ? 29 * 1000000LL : 0);
        EXPECT_EQ(receive(id, ticks), "x"); // there already: the deadline does not matter
    }
    clock_lag_s = 3600; // the end is an instant of the wall clock, and this one has passed
    expect_none(id, 6000, S_objLib_OBJ_TIMEOUT);
    clock_lag_s = 0;
    EXPECT_EQ(waiting(id), 0);
    msgQDelete(id);
}

TEST(MsgQTest, NoClockIsReadWhereNoneIsNeeded)
{
    MSG_Q_ID id = msgQCreate(1, 8, 0);
    clock_reads = 0;
    expect_none(id, NO_WAIT, S_objLib_OBJ_UNAVAILABLE);
    expect_send(id, "x", 100, MSG_PRI_NORMAL, 0);
    expect_send(id, "y", NO_WAIT, MSG_PRI_NORMAL, S_objLib_OBJ_UNAVAILABLE);
    EXPECT_EQ(receive(id, 100), "x");
    EXPECT_EQ(clock_reads, 0);
    msgQDelete(id);
}

TEST(MsgQTest, WaitersGoOnWhenTheirTurnComes)
{
    MSG_Q_ID id = msgQCreate(1, 8, 0);
    std::thread receiver([&] { EXPECT_EQ(receive(id, 300000), "first"); });
    ASSERT_TRUE(eventually([&] { return waiting(id) == 1; }));
    send(id, "first");
    receiver.join();

    send(id, "A");
    send(id, "U", MSG_PRI_URGENT);
    std::thread urgent([&] { expect_send(id, "V", WAIT_FOREVER, MSG_PRI_URGENT, 0); });
    std::thread normal([&] { expect_send(id, "B", 300000, MSG_PRI_NORMAL, 0); });
    ASSERT_TRUE(eventually([&] { return waiting(id) == 2; }));
    EXPECT_EQ(receive(id), "U"); // opens the spare slot, which only an urgent message takes
    urgent.join();
    EXPECT_EQ(waiting(id), 1);
    EXPECT_EQ(receive(id), "V");
    EXPECT_EQ(receive(id), "A");
    normal.join();
    EXPECT_EQ(receive(id), "B");
    EXPECT_EQ(waiting(id), 0);
    msgQDelete(id);
}

TEST(MsgQTest, DeletionTurnsWaitersAwayAndWaitsForThem)
{
    for (const bool full : {false, true}) {
        MSG_Q_ID id = msgQCreate(1, 8, 0);
        std::vector<std::thread> waiters;
        std::atomic<int> left{0};
        if (full) {
            send(id, "x");
        }
        for (const int wait : {WAIT_FOREVER, 300000}) {
            waiters.emplace_back([&, wait] {
                if (full) {
                    expect_send(id, "y", wait, MSG_PRI_NORMAL, S_objLib_OBJ_DELETED);
                } else {
                    expect_none(id, wait, S_objLib_OBJ_DELETED);
                }
                left++;
            });
        }
        ASSERT_TRUE(eventually([&] { return waiting(id) == 2; }));
        const int64_t before = now_ns();
        EXPECT_EQ(msgQDelete(id), OK);
        EXPECT_GE(now_ns() - before, 10 * 1000000LL);
        EXPECT_EQ(waiting(id), 0);
        EXPECT_TRUE(eventually([&] { return left == 2; }));
        for (std::thread& waiter : waiters) {
            waiter.join();
        }
    }
}

// The deleter has set its mark and waits for the task lock.
TEST(MsgQTest, MarkedQueueIsUsableToTheEndAndDeletedOnce)
{
    MSG_Q_ID id = msgQCreate(2, 8, 0);
    taskLock();
    std::thread deleter([&] { EXPECT_EQ(msgQDelete(id), OK); });
    ASSERT_TRUE(eventually([&] {
        errno = 0;
        return receive(id) == "none" && errno == 0;
    }));
    send(id, "A");
    send(id, "B");
    EXPECT_EQ(msgQNumMsgs(id), 2);
    expect_none(id, WAIT_FOREVER, 0);
    expect_send(id, "C", NO_WAIT, MSG_PRI_NORMAL, S_objLib_OBJ_UNAVAILABLE);
    expect_send(id, "C", WAIT_FOREVER, MSG_PRI_NORMAL, S_objLib_OBJ_DELETED);
    errno = 0;
    EXPECT_EQ(msgQDelete(id), ERROR);
    EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
    taskUnlock();
    deleter.join();
    EXPECT_EQ(msgQNumMsgs(id), -1);
}

// Without ever getting the task lock, and with its waiters still there: they leave the old queue,
// not the one that is created right after it.
TEST(MsgQTest, DeletedDeleterLeavesNoHalfDeletedQueue)
{
    const stdout_capture console;
    for (int round = 0; round < 20; round++) {
        MSG_Q_ID id = msgQCreate(1, 8, 0);
        std::vector<std::thread> receivers;
        for (int i = 0; i < 3; i++) {
            receivers.emplace_back([&] { expect_none(id, WAIT_FOREVER, S_objLib_OBJ_DELETED); });
        }
        ASSERT_TRUE(eventually([&] { return waiting(id) == 3; }));
        taskLock();
        const taskId_t deleter = spawn([&] { msgQDelete(id); });
        ASSERT_TRUE(eventually([&] {
            errno = 0;
            return receive(id) == "none" && errno == 0;
        }));
        EXPECT_EQ(taskDelete(deleter), OK);
        while (msgQNumMsgs(id) != -1) {
        }
        MSG_Q_ID next = msgQCreate(1, 8, 0);
        for (std::thread& receiver : receivers) {
            receiver.join();
        }
        taskUnlock();
        EXPECT_EQ(msgQDelete(next), OK);
    }
}

static void* run(void* body)
{
    (*static_cast<std::function<void()>*>(body))();
    return nullptr;
}

static void cancel_when(std::function<void()> body, const std::function<bool()>& ready,
                        const std::function<void()>& then)
{
    pthread_t thread;
    pthread_create(&thread, nullptr, run, &body);
    ASSERT_TRUE(eventually(ready));
    pthread_cancel(thread);
    then();
    pthread_join(thread, nullptr);
}

// Threads that end in their waits without having been deleted: the handlers alone clean up.
TEST(MsgQTest, CancelledThreadsLeaveNothingBehind)
{
    MSG_Q_ID id = msgQCreate(1, 8, 0);
    v2pt_mqueue_t* queue = reinterpret_cast<v2pt_mqueue_t*>(id);
    const auto one_waits = [&] { return waiting(id) == 1; };
    cancel_when([&] { receive(id, WAIT_FOREVER); }, one_waits, [] {});
    EXPECT_EQ(waiting(id), 0);
    send(id, "x");
    cancel_when([&] { msgQSend(id, nullptr, 0, WAIT_FOREVER, 0); }, one_waits, [] {});
    EXPECT_EQ(waiting(id), 0);
    EXPECT_EQ(receive(id), "x");

    std::thread receiver([&] { expect_none(id, WAIT_FOREVER, S_objLib_OBJ_DELETED); });
    ASSERT_TRUE(eventually(one_waits));
    taskLock();
    const auto deleter_waits = [&] {
        if (load_relaxed(&queue->send_type) != SEND_DELETED) {
            return false;
        }
        pthread_mutex_lock(&queue->queue_lock); // the receiver cannot leave
        taskUnlock();
        return true;
    };
    cancel_when([&] { msgQDelete(id); }, deleter_waits,
                [&] { pthread_mutex_unlock(&queue->queue_lock); });
    receiver.join();
    EXPECT_EQ(msgQNumMsgs(id), -1);
    std::thread([] {
        taskLock();
        taskUnlock();
    }).join();
}
