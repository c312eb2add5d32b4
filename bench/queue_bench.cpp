// Message queues of the program, those of the books, pipes and POSIX message queues.
#include "queue_rows.h"

#include "osaMsg.h"
#include "osaTask.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <mqueue.h>
#include <pthread.h>
#include <unistd.h>
#include <utility>

namespace {

struct hnetd {
    uint size;
    MSG_Q_ID id;
    explicit hnetd(size_t bytes, int capacity = QUEUE_CAPACITY)
        : size(static_cast<uint>(bytes)), id(msgQCreate(capacity, static_cast<int>(bytes), 0))
    {
    }
    ~hnetd() { msgQDelete(id); }
    void send(char* message) { msgQSend(id, message, size, WAIT_FOREVER, MSG_PRI_NORMAL); }
    void receive(char* message) { msgQReceive(id, message, size, WAIT_FOREVER); }
};

// What the books have: a ring under one plain mutex, a condition for either end, one signal for
// each message. Nothing is looked up or checked.
struct textbook {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t filled = PTHREAD_COND_INITIALIZER;
    pthread_cond_t emptied = PTHREAD_COND_INITIALIZER;
    size_t size;
    int capacity;
    char* ring;
    int head = 0;
    int tail = 0;
    int count = 0;

    explicit textbook(size_t bytes, int messages = QUEUE_CAPACITY)
        : size(bytes), capacity(messages),
          ring(static_cast<char*>(malloc(static_cast<size_t>(messages) * bytes)))
    {
    }
    ~textbook() { free(ring); }
    [[gnu::noinline]] void send(const char* message)
    {
        pthread_mutex_lock(&lock);
        while (count == capacity) {
            pthread_cond_wait(&emptied, &lock);
        }
        memcpy(ring + size * static_cast<size_t>(tail), message, size);
        tail = tail + 1 == capacity ? 0 : tail + 1;
        count++;
        pthread_cond_signal(&filled);
        pthread_mutex_unlock(&lock);
    }
    [[gnu::noinline]] void receive(char* message)
    {
        pthread_mutex_lock(&lock);
        while (count == 0) {
            pthread_cond_wait(&filled, &lock);
        }
        memcpy(message, ring + size * static_cast<size_t>(head), size);
        head = head + 1 == capacity ? 0 : head + 1;
        count--;
        pthread_cond_signal(&emptied);
        pthread_mutex_unlock(&lock);
    }
};

// Queues that are there, and that nobody uses. They take their ticks when they go: none here.
struct idle_queues {
    std::vector<MSG_Q_ID> ids;
    explicit idle_queues(int64_t count)
    {
        while (count-- > 0) {
            ids.push_back(msgQCreate(QUEUE_CAPACITY, 16, 0));
        }
    }
    ~idle_queues() { clear(0); }
    void clear(size_t left)
    {
        const int tick = std::exchange(msPerTick, 0);
        for (; ids.size() > left; ids.pop_back()) {
            msgQDelete(ids.back());
        }
        msPerTick = tick;
    }
};

void send_to_one_of_many(benchmark::State& state)
{
    static sequence choice(1);
    idle_queues queues(state.range(0));
    const MSG_Q_ID id = queues.ids[choice.below(static_cast<uint32_t>(queues.ids.size()))];
    char message[16] = "fifteen letters";

    for (auto _ : state) {
        msgQSend(id, message, sizeof message, WAIT_FOREVER, MSG_PRI_NORMAL);
        msgQReceive(id, message, sizeof message, WAIT_FOREVER);
    }
}

// Some at a time, for the clock takes as long as one of them.
void create_the_next(benchmark::State& state)
{
    constexpr int BATCH = 32;
    const auto others = static_cast<size_t>(state.range(0)) - 1;
    idle_queues queues(state.range(0) - 1);

    for (auto _ : state) {
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < BATCH; i++) {
            queues.ids.push_back(msgQCreate(QUEUE_CAPACITY, 16, 0));
        }
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        state.SetIterationTime(took.count() / BATCH);
        queues.clear(others);
    }
}

void lost(const char* what)
{
    perror(what);
    abort();
}

struct pipe_queue {
    int fds[2];
    size_t size;
    explicit pipe_queue(size_t bytes) : size(bytes)
    {
        if (pipe(fds) != 0) {
            lost("pipe");
        }
    }
    ~pipe_queue()
    {
        close(fds[0]);
        close(fds[1]);
    }
    void send(const char* message)
    {
        if (write(fds[1], message, size) != static_cast<ssize_t>(size)) {
            lost("write");
        }
    }
    void receive(char* message)
    {
        if (read(fds[0], message, size) != static_cast<ssize_t>(size)) {
            lost("read");
        }
    }
};

struct posix {
    mqd_t queue;
    size_t size;
    explicit posix(size_t bytes) : size(bytes)
    {
        char name[64];
        struct mq_attr attr = {};
        attr.mq_maxmsg = 10; // what the kernel allows without privileges
        attr.mq_msgsize = static_cast<long>(bytes);
        snprintf(name, sizeof name, "/hnetd-bench-%d-%p", getpid(), static_cast<void*>(this));
        queue = mq_open(name, O_RDWR | O_CREAT | O_EXCL, 0600, &attr);
        if (queue == static_cast<mqd_t>(-1)) {
            lost("mq_open");
        }
        mq_unlink(name);
    }
    ~posix() { mq_close(queue); }
    void send(const char* message) { mq_send(queue, message, size, 0); }
    void receive(char* message) { mq_receive(queue, message, size, nullptr); }
};

} // namespace

QUEUE_ROWS(hnetd, "hnetd");
QUEUE_ROWS(textbook, "textbook");
QUEUE_ROWS(pipe_queue, "pipe");
QUEUE_ROWS(posix, "POSIX mq");
QUEUE_WAITING_ROWS(hnetd, "hnetd");
QUEUE_WAITING_ROWS(textbook, "textbook");
BENCHMARK(send_to_one_of_many)->Name("queue.many/hnetd")->Arg(1)->Arg(100)->Arg(10'000);
BENCHMARK(create_the_next)
    ->Name("queue.create/hnetd")
    ->Arg(1)
    ->Arg(100)
    ->Arg(10'000)
    ->UseManualTime()
    ->Iterations(20);
