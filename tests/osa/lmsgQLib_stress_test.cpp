// Queues under load: nothing lost, reordered or torn between many senders and receivers; queues
// that die under their users; users that die under their queues.
#include "internal.h"
#include "osaMsg.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
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

static void expect_at_rest(MSG_Q_ID id)
{
    pthread_mutex_lock(&record(id)->queue_lock);
    EXPECT_EQ(record(id)->waitTasks, 0);
    EXPECT_EQ(record(id)->senders_waiting, 0);
    EXPECT_EQ(record(id)->receivers_waiting, 0);
    pthread_mutex_unlock(&record(id)->queue_lock);
}

static void join_all(std::vector<std::thread>& threads)
{
    for (std::thread& thread : threads) {
        thread.join();
    }
}

class MsgQStress : public testing::Test {
  protected:
    void SetUp() override { sysClkRateSet(1000); }
    void TearDown() override { sysClkRateSet(100); }
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

static int receive_all(MSG_Q_ID id)
{
    std::map<int, int> latest; // place, by sender
    char msg[LENGTH];
    char expected[LENGTH];
    int received = 0;
    for (;;) {
        errno = 0;
        if (msgQReceive(id, msg, LENGTH, received % 2 == 0 ? WAIT_FOREVER : 1) >= 0) {
            int sender = 0;
            int place = 0;
            memcpy(&sender, msg, sizeof sender);
            memcpy(&place, msg + sizeof sender, sizeof place);
            fill(expected, sender, place);
            EXPECT_EQ(memcmp(msg, expected, LENGTH), 0);
            EXPECT_TRUE(latest.try_emplace(sender, -1).first->second < place);
            latest[sender] = place;
            received++;
        } else if (errno != S_objLib_OBJ_TIMEOUT) {
            return received; // the queue is going away
        }
    }
}

TEST_F(MsgQStress, NothingIsLostTornOrReordered)
{
    const struct {
        int senders;
        int receivers;
        int capacity;
        int messages; // per sender
    } loads[] = {{4, 4, 1, 20000}, {8, 2, 2, 4000}, {2, 6, 20, 10000}};
    for (const auto& t : loads) {
        const MSG_Q_ID id = msgQCreate(t.capacity, LENGTH, 0);
        std::atomic<int> received{0};
        std::vector<std::thread> senders;
        std::vector<std::thread> receivers;
        for (int i = 0; i < t.receivers; i++) {
            receivers.emplace_back([&] { received += receive_all(id); });
        }
        for (int i = 0; i < t.senders; i++) {
            senders.emplace_back([&, i] { send_all(id, i, t.messages / SHARE); });
        }
        join_all(senders);
        EXPECT_TRUE(eventually([&] { return msgQNumMsgs(id) == 0; }));
        EXPECT_EQ(msgQDelete(id), OK);
        join_all(receivers);
        EXPECT_EQ(received, t.senders * (t.messages / SHARE));
        expect_at_rest(id);
    }
}

// Three deleters and four users on whatever queue there is; the deleter that wins makes the next.
TEST_F(MsgQStress, QueuesDieUnderTheirUsers)
{
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
    join_all(deleters);
    stop = true;
    const MSG_Q_ID last = current;
    EXPECT_EQ(msgQDelete(last), OK);
    join_all(users);
    expect_at_rest(last);
}

// Tasks are deleted while they all wait, or in the middle of what they do.
TEST_F(MsgQStress, UsersDieAndTheQueueGoesOn)
{
    const stdout_capture console;                           // of what tasks say as they end
    const char* const companies[] = {"sss", "rrr", "srsr"}; // senders and receivers
    const int waits[] = {WAIT_FOREVER, 100000, 1};
    const int threads = thread_count();
    for (int round = 0; round < 540 / SHARE; round++) {
        const std::string company = companies[round % 3];
        const int wait = waits[round / 3 % 3];
        const MSG_Q_ID id = msgQCreate(1 + round % 4, 8, 0);
        char buffer[8] = {};
        std::vector<taskId_t> tasks;
        for (const char kind : company) {
            tasks.push_back(spawn([=] {
                char own[8] = {};
                for (;;) {
                    kind == 's' ? msgQSend(id, own, 8, wait, round % 2)
                                : msgQReceive(id, own, 8, wait);
                }
            }));
        }
        if (company == "srsr") {
            usleep(static_cast<useconds_t>(round % 40 * 25));
        } else {
            ASSERT_TRUE(eventually([&] { return load_acquire(&record(id)->waitTasks) == 3; }));
        }
        for (const taskId_t task : tasks) {
            EXPECT_EQ(taskDelete(task), OK);
        }
        // A task may need a moment longer than its deletion.
        EXPECT_TRUE(eventually([&] { return thread_count() == threads; }));
        expect_at_rest(id);
        while (msgQReceive(id, buffer, 8, NO_WAIT) >= 0) {
        }
        EXPECT_EQ(errno, S_objLib_OBJ_UNAVAILABLE);
        EXPECT_EQ(msgQSend(id, buffer, 8, NO_WAIT, 0), OK);
        EXPECT_EQ(msgQReceive(id, buffer, 8, NO_WAIT), 8);
        EXPECT_EQ(msgQDelete(id), OK);
    }
}
