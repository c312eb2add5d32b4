#include "fail.h"
#include "internal.h"
#include "osaMsg.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <deque>
#include <random>
#include <thread>
#include <vector>

static constexpr int64_t TICK_NS = 10'000'000;

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

static v2pt_mqueue_t* record(MSG_Q_ID id)
{
    return reinterpret_cast<v2pt_mqueue_t*>(id);
}

static bool wait_in(MSG_Q_ID id, int count)
{
    return eventually([=] { return load_acquire(&record(id)->waitTasks) == count; });
}

static void send(MSG_Q_ID id, std::string msg, int pri = MSG_PRI_NORMAL, int wait = NO_WAIT,
                 int code = 0)
{
    errno = 0;
    const status_t result = msgQSend(id, msg.data(), static_cast<uint>(msg.size()), wait, pri);
    EXPECT_EQ(result, code == 0 ? OK : ERROR) << msg;
    EXPECT_EQ(errno, code) << msg;
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

static void expect_chain(const std::vector<MSG_Q_ID>& queues)
{
    for (size_t i = 1; i < queues.size(); i++) {
        EXPECT_EQ(record(queues[i - 1])->nxt_queue, record(queues[i]));
    }
    EXPECT_EQ(record(queues.back())->nxt_queue, nullptr);
}

// A queue takes a ring, a record if no deleted queue left one, and room for that in the registry,
// which keeps the order of creation.
TEST(MsgQTest, FailedAllocationsLeaveNothing)
{
    std::vector<MSG_Q_ID> queues;
    int most = 0;
    for (int nth = 1; queues.size() < 20; nth++) {
        fail_malloc(nth);
        errno = 0;
        const MSG_Q_ID id = msgQCreate(2, 16, 0);
        EXPECT_EQ(errno, failed() ? S_memLib_NOT_ENOUGH_MEMORY : 0);
        EXPECT_EQ(id == nullptr, failed());
        if (id != nullptr) {
            most = std::max(most, std::exchange(nth, 0) - 1);
            queues.push_back(id);
        }
    }
    EXPECT_EQ(most, 3);
    expect_chain(queues);
    for (const size_t gone : {10, 10, 0, 16}) {
        EXPECT_EQ(msgQDelete(queues[gone]), OK);
        queues.erase(queues.begin() + static_cast<long>(gone));
    }
    for (int i = 0; i < 3; i++) {
        fail_malloc(2);
        queues.push_back(msgQCreate(2, 16, 0)); // in a record of those
        EXPECT_EQ(malloc_calls(), 1);
    }
    fail_nothing();
    expect_chain(queues);
    for (const MSG_Q_ID id : queues) {
        EXPECT_EQ(receive(id), "none");
        EXPECT_EQ(msgQDelete(id), OK);
    }
}

TEST(MsgQTest, RingsTooLargeAreRefusedAndIdsForgottenWithTheirQueue)
{
    EXPECT_EQ(msgQCreate(INT_MAX, INT_MAX, 0), nullptr);
    EXPECT_EQ(msgQCreate(65535, 65528, 0), nullptr); // 0 in 32 bits
    MSG_Q_ID id = msgQCreate(1, 8, 0);
    const int64_t before = now_ns();
    EXPECT_EQ(msgQSafeDelete(&id), OK);
    EXPECT_GE(now_ns() - before, TICK_NS);
    EXPECT_EQ(id, nullptr);
    EXPECT_EQ(code_of([&] { return msgQSafeDelete(&id); }), S_objLib_OBJ_ID_ERROR);
}

TEST(MsgQTest, LengthsAreCheckedAndNullsCopyNothing)
{
    MSG_Q_ID id = msgQCreate(1, 4, 0);
    char buffer[4];
    stdout_capture console;
    send(id, "-bcd");
    send(id, "five!", MSG_PRI_URGENT, WAIT_FOREVER, S_msgQLib_INVALID_MSG_LENGTH);
    EXPECT_EQ(code_of([&] { return msgQReceive(id, buffer, 3, WAIT_FOREVER); }),
              S_msgQLib_INVALID_MSG_LENGTH);
    EXPECT_EQ(msgQReceive(id, nullptr, 4, NO_WAIT), 0); // thrown away
    send(id, "....");                                   // the other slot
    EXPECT_EQ(msgQReceive(id, buffer, 4, NO_WAIT), 4);
    EXPECT_EQ(msgQSend(id, nullptr, 4, NO_WAIT, 0), OK); // the slot keeps what it held
    EXPECT_EQ(receive(id), std::string("\0bcd", 4));
    msgQDelete(id);
}

// Random traffic beside a model: urgent messages go to the front and may use a slot more. Lengths
// leave the slots unaligned. Nothing here waits, so no clock is read.
TEST(MsgQTest, RingWrapsAtEveryLengthWithUrgentMessagesFirst)
{
    std::mt19937 random(7);
    clock_reads = 0;
    for (const size_t length : {0, 1, 7, 8, 16, 1024}) {
        const MSG_Q_ID id = msgQCreate(3, static_cast<int>(length), 0);
        std::deque<std::string> model;
        for (int i = 0; i < 2000; i++) {
            const int pri = static_cast<int>(random() % 3); // none but 1 is urgent
            const size_t room = pri == MSG_PRI_URGENT ? 4 : 3;
            const std::string msg(random() % (length + 1), static_cast<char>(random()));
            if (random() % 2 == 0 && model.size() >= room) {
                send(id, msg, pri, NO_WAIT, S_objLib_OBJ_UNAVAILABLE);
            } else if (random() % 2 == 0 && model.size() < room) {
                send(id, msg, pri, 100);
                model.insert(pri == MSG_PRI_URGENT ? model.begin() : model.end(), msg);
            } else if (model.empty()) {
                expect_none(id, NO_WAIT, S_objLib_OBJ_UNAVAILABLE);
            } else {
                ASSERT_EQ(receive(id, 100), model.front()) << length;
                model.pop_front();
            }
            ASSERT_EQ(msgQNumMsgs(id), static_cast<int>(model.size()));
        }
        msgQDelete(id);
    }
    EXPECT_EQ(clock_reads, 0);
}

TEST(MsgQTest, WaitsEndAtTheirDeadlineAndNotBefore)
{
    MSG_Q_ID id = msgQCreate(1, 8, 0);
    const int64_t before = now_ns();
    expect_none(id, 3, S_objLib_OBJ_TIMEOUT);
    send(id, "x");
    send(id, "y", MSG_PRI_NORMAL, 3, S_objLib_OBJ_TIMEOUT);
    EXPECT_GE(now_ns() - before, 2 * 29 * 1000000LL);
    for (const int past : {-2, INT_MIN}) {
        send(id, "y", MSG_PRI_NORMAL, past, S_objLib_OBJ_TIMEOUT);
        EXPECT_EQ(receive(id, past), "x"); // there already: the deadline does not matter
        expect_none(id, past, S_objLib_OBJ_TIMEOUT);
        send(id, "x", MSG_PRI_NORMAL, past);
    }
    receive(id);
    clock_lag_s = 3600; // the end is an instant of the wall clock, and this one has passed
    expect_none(id, 6000, S_objLib_OBJ_TIMEOUT);
    clock_lag_s = 0;
    EXPECT_TRUE(wait_in(id, 0));
    msgQDelete(id);
}

TEST(MsgQTest, WaitersGoOnWhenTheirTurnComes)
{
    const MSG_Q_ID id = msgQCreate(1, 8, 0);
    send(id, "A");
    send(id, "U", MSG_PRI_URGENT);
    const std::jthread urgent(send, id, "V", MSG_PRI_URGENT, WAIT_FOREVER, 0);
    const std::jthread normal(send, id, "B", MSG_PRI_NORMAL, 300000, 0);
    ASSERT_TRUE(wait_in(id, 2));
    EXPECT_EQ(receive(id), "U"); // the spare slot is for those that do not wait
    taskDelay(2);
    EXPECT_TRUE(wait_in(id, 2));
    EXPECT_EQ(receive(id), "A");
    const std::string first = receive(id, WAIT_FOREVER); // the faster of the two has the slot
    EXPECT_TRUE(first == "V" || first == "B") << first;
    EXPECT_EQ(receive(id, WAIT_FOREVER), first == "V" ? "B" : "V");
    EXPECT_TRUE(wait_in(id, 0));
    msgQDelete(id);
}

// Keeps a waiter inside its wait, with no lock in its hands.
static std::atomic<bool> held;
static std::atomic<int> stopped;

static void stay(int)
{
    stopped++;
    while (held) {
        usleep(100);
    }
}

// Every other deleter is itself deleted before it gets the task lock, and waits for nobody then.
// Until the queue is gone, what does not wait goes on and a second deleter is refused. One waiter
// is slow to leave: the record is not used again before it has.
TEST(MsgQTest, DeletionTurnsWaitersAwayEvenIfTheDeleterDies)
{
    const stdout_capture console;
    signal(SIGUSR2, stay);
    for (const int round : {0, 1, 2, 3}) {
        const bool full = round < 2;
        const bool dies = round % 2 == 0;
        const MSG_Q_ID id = msgQCreate(1, 8, 0);
        if (full) {
            send(id, "x");
        }
        std::vector<std::jthread> waiters;
        for (const int wait : {WAIT_FOREVER, 300000, WAIT_FOREVER}) {
            full ? waiters.emplace_back(send, id, "y", 0, wait, S_objLib_OBJ_DELETED)
                 : waiters.emplace_back(expect_none, id, wait, S_objLib_OBJ_DELETED);
        }
        ASSERT_TRUE(wait_in(id, 3));
        held = true;
        pthread_kill(waiters.front().native_handle(), SIGUSR2);
        ASSERT_TRUE(eventually([=] { return stopped == round + 1; }));
        taskLock();
        const taskId_t deleter = spawn([=] { EXPECT_EQ(msgQDelete(id), OK); });
        ASSERT_TRUE(
            eventually([=] { return load_relaxed(&record(id)->send_type) == SEND_DELETED; }));
        if (full) {
            EXPECT_EQ(msgQNumMsgs(id), 1);
            expect_none(id, WAIT_FOREVER, 0);
            send(id, "U", MSG_PRI_URGENT);
            send(id, "C", MSG_PRI_NORMAL, NO_WAIT, S_objLib_OBJ_UNAVAILABLE);
            send(id, "C", MSG_PRI_NORMAL, WAIT_FOREVER, S_objLib_OBJ_DELETED);
        }
        EXPECT_EQ(msgQDelete(id), ERROR);
        const int64_t before = now_ns();
        EXPECT_TRUE(!dies || taskDelete(deleter) == OK);
        taskUnlock();
        EXPECT_TRUE(wait_in(id, 1));
        EXPECT_EQ(eventually([=] { return msgQNumMsgs(id) == -1; }, dies ? 10000 : 30), dies);
        EXPECT_GE(now_ns() - before, TICK_NS);
        const MSG_Q_ID next = msgQCreate(1, 8, 0);
        EXPECT_NE(next, id);
        held = false;
        waiters.clear();
        EXPECT_TRUE(eventually([=] { return msgQNumMsgs(id) == -1; }));
        EXPECT_EQ(msgQDelete(next), OK);
    }
}
