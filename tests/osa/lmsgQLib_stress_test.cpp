// Queues under load: nothing lost, reordered or torn between many senders and receivers; queues
// that die under their users; users that die under their queues.
#include "internal.h"
#include "osaMsg.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

// Share of the work where everything takes longer.
#if defined(HNETD_TEST_POINTS)
static constexpr int SHARE = 20;
#elif defined(__SANITIZE_THREAD__)
static constexpr int SHARE = 4;
#else
static constexpr int SHARE = 1;
#endif

static v2pt_mqueue_t* record(MSG_Q_ID id)
{
    return reinterpret_cast<v2pt_mqueue_t*>(id);
}

static int waiting(MSG_Q_ID id)
{
    return load_acquire(&record(id)->waitTasks);
}

static void expect_at_rest(MSG_Q_ID id)
{
    pthread_mutex_lock(&record(id)->queue_lock);
    EXPECT_EQ(record(id)->waitTasks, 0);
    EXPECT_EQ(record(id)->senders_waiting, 0);
    EXPECT_EQ(record(id)->receivers_waiting, 0);
    pthread_mutex_unlock(&record(id)->queue_lock);
}

class FastTicks {
  public:
    FastTicks() { sysClkRateSet(1000); }
    ~FastTicks() { sysClkRateSet(100); }
};

struct traffic {
    int senders;
    int receivers;
    int capacity;
    int messages; // per sender
};

// A message is its sender's number, its place in the sender's order, and the number all over.
static constexpr uint LENGTH = 45;

static void fill(char* msg, int sender, int place)
{
    memset(msg, 'a' + sender, LENGTH);
    memcpy(msg, &sender, sizeof sender);
    memcpy(msg + sizeof sender, &place, sizeof place);
}

static void send_all(MSG_Q_ID id, int sender, int messages)
{
    char msg[LENGTH];
    for (int place = 0; place < messages; place++) {
        fill(msg, sender, place);
        while (msgQSend(id, msg, LENGTH, place % 2 == 0 ? WAIT_FOREVER : 1, 0) != OK) {
        }
    }
}

static int receive_all(MSG_Q_ID id, int senders)
{
    std::vector<int> latest(static_cast<size_t>(senders), -1);
    char msg[LENGTH];
    char expected[LENGTH];
    int received = 0;
    for (int turn = 0;; turn++) {
        errno = 0;
        if (msgQReceive(id, msg, LENGTH, turn % 2 == 0 ? WAIT_FOREVER : 1) < 0) {
            if (errno == S_objLib_OBJ_TIMEOUT) {
                continue;
            }
            return received; // the queue is going away
        }
        int sender = 0;
        int place = 0;
        memcpy(&sender, msg, sizeof sender);
        memcpy(&place, msg + sizeof sender, sizeof place);
        fill(expected, sender, place);
        EXPECT_EQ(memcmp(msg, expected, LENGTH), 0);
        EXPECT_GT(place, latest.at(static_cast<size_t>(sender)));
        latest[static_cast<size_t>(sender)] = place;
        received++;
    }
}

TEST(MsgQStress, NothingIsLostTornOrReordered)
{
    const FastTicks ticks;
    for (const traffic& t :
         {traffic{1, 1, 1, 20000}, {4, 4, 1, 20000}, {8, 2, 2, 4000}, {2, 6, 20, 10000}}) {
        const MSG_Q_ID id = msgQCreate(t.capacity, LENGTH, 0);
        std::atomic<int> received{0};
        std::vector<std::thread> senders;
        std::vector<std::thread> receivers;
        for (int i = 0; i < t.receivers; i++) {
            receivers.emplace_back([&] { received += receive_all(id, t.senders); });
        }
        for (int i = 0; i < t.senders; i++) {
            senders.emplace_back([&, i] { send_all(id, i, t.messages / SHARE); });
        }
        for (std::thread& sender : senders) {
            sender.join();
        }
        EXPECT_TRUE(eventually([&] { return msgQNumMsgs(id) == 0; }));
        EXPECT_EQ(msgQDelete(id), OK);
        for (std::thread& receiver : receivers) {
            receiver.join();
        }
        EXPECT_EQ(received, t.senders * (t.messages / SHARE));
        expect_at_rest(id);
    }
}

// Three deleters and four users on whatever queue there is; the deleter that wins makes the next.
TEST(MsgQStress, QueuesDieUnderTheirUsers)
{
    const FastTicks ticks;
    const stdout_capture console;
    std::atomic<MSG_Q_ID> current{msgQCreate(1, 8, 0)};
    std::atomic<int> deletions{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> users;
    std::vector<std::thread> deleters;
    for (int i = 0; i < 3; i++) {
        deleters.emplace_back([&] {
            while (deletions < 800 / SHARE) {
                if (msgQDelete(current) == OK) {
                    current = msgQCreate(1, 8, 0);
                    deletions++;
                }
            }
        });
    }
    for (int i = 0; i < 4; i++) {
        users.emplace_back([&, i] {
            char buffer[8];
            while (!stop) {
                const int wait = i % 2 == 0 ? WAIT_FOREVER : 1;
                if (i >= 2) {
                    msgQReceive(current, buffer, 8, wait);
                } else if (msgQSend(current, nullptr, 8, wait, i) != OK) {
                    sched_yield(); // it may be a while until the next queue
                }
                EXPECT_LE(msgQNumMsgs(current), 2);
            }
        });
    }
    for (std::thread& deleter : deleters) {
        deleter.join();
    }
    stop = true;
    const MSG_Q_ID last = current;
    EXPECT_EQ(msgQDelete(last), OK);
    for (std::thread& user : users) {
        user.join();
    }
    expect_at_rest(last);
}

// A deleted task may need a moment longer than taskDelete.
static void delete_tasks(const std::vector<taskId_t>& tasks, int threads_before)
{
    for (const taskId_t task : tasks) {
        EXPECT_EQ(taskDelete(task), OK);
    }
    EXPECT_TRUE(eventually([&] { return thread_count() == threads_before; }));
}

static void expect_usable_and_deletable(MSG_Q_ID id)
{
    char buffer[8] = {};
    expect_at_rest(id);
    while (msgQReceive(id, buffer, 8, NO_WAIT) >= 0) {
    }
    EXPECT_EQ(errno, S_objLib_OBJ_UNAVAILABLE);
    EXPECT_EQ(msgQSend(id, buffer, 8, NO_WAIT, 0), OK);
    EXPECT_EQ(msgQReceive(id, buffer, 8, NO_WAIT), 8);
    const int64_t before = now_ns();
    EXPECT_EQ(msgQDelete(id), OK);
    EXPECT_LT(now_ns() - before, 1000000000);
    expect_at_rest(id);
}

TEST(MsgQStress, BlockedUsersDieAndTheQueueGoesOn)
{
    const FastTicks ticks;
    const stdout_capture console; // of what the tasks say as they end
    const int threads = threads_at_rest();
    for (int round = 0; round < 160 / SHARE; round++) {
        const bool full = round % 2 == 0;
        const int wait = round % 4 < 2 ? WAIT_FOREVER : 100000;
        const MSG_Q_ID id = msgQCreate(1, 8, 0);
        std::vector<taskId_t> tasks;
        if (full) {
            msgQSend(id, nullptr, 8, NO_WAIT, 0);
        }
        for (int i = 0; i < 3; i++) {
            tasks.push_back(spawn([=] {
                char buffer[8];
                full ? msgQSend(id, nullptr, 8, wait, 0) : msgQReceive(id, buffer, 8, wait);
            }));
        }
        ASSERT_TRUE(eventually([&] { return waiting(id) == 3; }));
        delete_tasks(tasks, threads);
        EXPECT_EQ(msgQNumMsgs(id), full ? 1 : 0);
        expect_usable_and_deletable(id);
    }
}

TEST(MsgQStress, BusyUsersDieAndTheQueueGoesOn)
{
    const FastTicks ticks;
    const stdout_capture console; // of what the tasks say as they end
    const int threads = threads_at_rest();
    for (int round = 0; round < 400 / SHARE; round++) {
        const MSG_Q_ID id = msgQCreate(1 + round % 3, 8, 0);
        std::vector<taskId_t> tasks;
        for (int i = 0; i < 4; i++) {
            tasks.push_back(spawn([=] {
                char buffer[8];
                for (;;) {
                    i % 2 == 0 ? msgQSend(id, buffer, 8, WAIT_FOREVER, i / 2)
                               : msgQReceive(id, buffer, 8, i == 1 ? WAIT_FOREVER : 1);
                }
            }));
        }
        usleep(static_cast<useconds_t>(round % 40 * 25));
        delete_tasks(tasks, threads);
        expect_usable_and_deletable(id);
    }
}
