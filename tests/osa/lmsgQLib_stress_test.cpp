// Queues under load: nothing lost, reordered or torn between many senders and receivers; queues
// that die under their users; users that die under their queues.
#include "lockWord.h"
#include "osaMsg.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

// Share of the work where everything takes longer.
#if defined(HNETD_TEST_POINTS)
static constexpr int SHARE = 20;
#else
static constexpr int SHARE = TSAN ? 4 : 1;
#endif

class MsgQStress : public testing::Test {
  protected:
    MsgQStress() { sysClkRateSet(1000); }
    ~MsgQStress() override { sysClkRateSet(100); }
};

static int use(MSG_Q_ID id, bool send, int wait)
{
    char message[8] = {};
    return send ? msgQSend(id, message, 8, wait, 0) : msgQReceive(id, message, 8, wait);
}

// Nobody waits, and every call that was noted was posted.
static void expect_at_rest(MSG_Q_ID id)
{
    v2pt_mqueue_t* queue = reinterpret_cast<v2pt_mqueue_t*>(id);
    lock_word_take(&queue->guard, &queue->queue_lock);
    EXPECT_EQ(queue->waitTasks, 0);
    for (const queue_waiters_t& end : {queue->senders, queue->receivers}) {
        EXPECT_EQ(end.waiting, 0);
        EXPECT_EQ(end.called, end.calls);
    }
    lock_word_give(&queue->guard, &queue->queue_lock);
}

/** Its sender, its place in the sender's order, and the sender all over: slots are not aligned. */
struct message {
    int sender, place;
    std::array<char, 37> bytes;
};
static constexpr uint LENGTH = offsetof(message, bytes) + sizeof message::bytes;

static void send_all(MSG_Q_ID id, int sender, int messages)
{
    message m = {sender, 0, {}};
    m.bytes.fill(static_cast<char>('a' + sender));
    for (; m.place < messages; m.place++) {
        const int wait = m.place % 2 == 0 ? WAIT_FOREVER : 1;
        while (msgQSend(id, reinterpret_cast<char*>(&m), LENGTH, wait, 0) != OK) {
        }
    }
}

// Until the queue goes away.
static int receive_all(MSG_Q_ID id)
{
    std::array<int, 8> next = {};
    message m;
    int received = 0;
    for (int turn = 0;; turn++) {
        const int wait = turn % 2 == 0 ? WAIT_FOREVER : 1;
        errno = 0;
        if (msgQReceive(id, reinterpret_cast<char*>(&m), LENGTH, wait) >= 0) {
            received++;
            EXPECT_GE(m.place, std::exchange(next.at(static_cast<size_t>(m.sender)), m.place + 1));
            EXPECT_EQ(std::string(m.bytes.data(), m.bytes.size()),
                      std::string(m.bytes.size(), static_cast<char>('a' + m.sender)));
        } else if (errno != S_objLib_OBJ_TIMEOUT) {
            return received;
        }
    }
}

TEST_F(MsgQStress, NothingIsLostTornOrReordered)
{
    const struct {
        int senders, receivers, capacity, messages;
    } loads[] = {{1, 1, 1, 20000}, {4, 4, 1, 20000}, {8, 2, 2, 4000}, {2, 6, 20, 10000}};
    for (const auto& load : loads) {
        const MSG_Q_ID id = msgQCreate(load.capacity, LENGTH, 0);
        std::atomic<int> received{0};
        std::vector<std::jthread> senders;
        std::vector<std::jthread> receivers;
        for (int i = 0; i < load.receivers; i++) {
            receivers.emplace_back([&] { received += receive_all(id); });
        }
        for (int i = 0; i < load.senders; i++) {
            senders.emplace_back(send_all, id, i, load.messages / SHARE);
        }
        senders.clear();
        EXPECT_TRUE(eventually([=] { return msgQNumMsgs(id) == 0; }));
        EXPECT_EQ(msgQDelete(id), OK);
        receivers.clear();
        EXPECT_EQ(received, load.senders * (load.messages / SHARE));
        expect_at_rest(id);
    }
}

// Three deleters and four users on whatever queue there is; the deleter that wins makes the next.
TEST_F(MsgQStress, QueuesDieUnderTheirUsers)
{
    const stdout_capture console;
    std::atomic<MSG_Q_ID> current{msgQCreate(1, 8, 0)};
    std::atomic<int> deletions{0};
    std::vector<std::jthread> users;
    std::vector<std::jthread> deleters;
    for (int i = 0; i < 3; i++) {
        deleters.emplace_back([&] {
            while (deletions < 800 / SHARE) {
                if (msgQSafeDelete(reinterpret_cast<MSG_Q_ID*>(&current)) == OK) {
                    current = msgQCreate(1, 8, 0);
                    deletions++;
                }
            }
        });
    }
    for (int i = 0; i < 4; i++) {
        users.emplace_back([&, i] {
            while (deletions < 800 / SHARE || current != nullptr) {
                if (use(current, i < 2, i % 2 == 0 ? WAIT_FOREVER : 1) < 0) {
                    sched_yield(); // it may be a while until the next queue
                }
                EXPECT_LE(msgQNumMsgs(current), 2);
            }
        });
    }
    deleters.clear();
    const MSG_Q_ID last = current.exchange(nullptr);
    EXPECT_EQ(msgQDelete(last), OK);
    users.clear();
    expect_at_rest(last);
}

// Tasks die while they wait, poll, or have just been called, and two threads wait beside them: what
// comes then is theirs, and what comes after the deletion in any case.
TEST_F(MsgQStress, UsersDieAndOthersGoOn)
{
    const stdout_capture console; // of what the tasks say as they end
    for (const bool sends : {false, true}) {
        const MSG_Q_ID id = msgQCreate(1, 8, 0);
        const int* waiting = &reinterpret_cast<v2pt_mqueue_t*>(id)->waitTasks;
        const int at_rest = sends ? 1 : 0;
        std::atomic<int> theirs{0};
        std::vector<std::jthread> others;
        for (int i = 0; i < 2; i++) {
            others.emplace_back([=, &theirs] {
                for (; use(id, sends, WAIT_FOREVER) >= 0; theirs++) {
                }
            });
        }
        const int threads = threads_at_rest();
        for (int round = 0; round < 200 + 400 / SHARE; round++) {
            ASSERT_TRUE(eventually([=] { return load_acquire(waiting) == 2; })) << round;
            const int before = theirs;
            std::vector<taskId_t> tasks;
            for (const int wait : {WAIT_FOREVER, NO_WAIT, 1}) {
                tasks.push_back(spawn([=] {
                    for (;;) {
                        use(id, sends, wait);
                    }
                }));
            }
            usleep(static_cast<useconds_t>(round % 40 * 25));
            if (round % 2 == 0) {
                use(id, !sends, WAIT_FOREVER);
            }
            for (const taskId_t task : tasks) {
                EXPECT_EQ(taskDelete(task), OK);
            }
            if (round % 2 == 1) {
                use(id, !sends, WAIT_FOREVER);
                ASSERT_TRUE(eventually([&] { return theirs == before + 1; })) << round;
            }
            ASSERT_TRUE(eventually([=] { return msgQNumMsgs(id) == at_rest; })) << round;
            ASSERT_TRUE(eventually([=] { return thread_count() == threads; }));
        }
        EXPECT_EQ(msgQDelete(id), OK);
        others.clear();
        expect_at_rest(id);
    }
}
