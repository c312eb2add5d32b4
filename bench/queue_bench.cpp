// Message queues of the program, the floor of their model, pipes and POSIX message queues.
#include "queue_rows.h"

#include "osaMsg.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <mqueue.h>
#include <pthread.h>
#include <unistd.h>

namespace {

struct hnetd {
    uint size;
    MSG_Q_ID id;
    explicit hnetd(size_t bytes)
        : size(static_cast<uint>(bytes)), id(msgQCreate(QUEUE_CAPACITY, static_cast<int>(bytes), 0))
    {
    }
    ~hnetd() { msgQDelete(id); }
    void send(char* message) { msgQSend(id, message, size, WAIT_FOREVER, MSG_PRI_NORMAL); }
    void receive(char* message) { msgQReceive(id, message, size, WAIT_FOREVER); }
};

// The model in a few lines: each operation looks the queue up in a list under the list's mutex,
// then copies one message under the queue's recursive mutex and broadcasts.
struct model {
    pthread_mutex_t lock;
    pthread_cond_t filled = PTHREAD_COND_INITIALIZER;
    pthread_cond_t emptied = PTHREAD_COND_INITIALIZER;
    size_t size;
    char* ring;
    int head = 0;
    int count = 0;
    model* next;

    static inline pthread_mutex_t list_lock = PTHREAD_MUTEX_INITIALIZER;
    static inline model* list = nullptr;

    explicit model(size_t bytes)
        : size(bytes), ring(static_cast<char*>(malloc(QUEUE_CAPACITY * bytes))), next(list)
    {
        pthread_mutexattr_t recursive;
        pthread_mutexattr_init(&recursive);
        pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&lock, &recursive);
        list = this;
    }
    ~model()
    {
        model** link = &list;
        while (*link != this) {
            link = &(*link)->next;
        }
        *link = next;
        free(ring);
    }
    static bool listed(const model* queue)
    {
        pthread_mutex_lock(&list_lock);
        const model* found = list;
        while (found != nullptr && found != queue) {
            found = found->next;
        }
        pthread_mutex_unlock(&list_lock);
        return found != nullptr;
    }
    [[gnu::noinline]] void send(const char* message)
    {
        if (!listed(this)) {
            return;
        }
        pthread_mutex_lock(&lock);
        while (count == QUEUE_CAPACITY) {
            pthread_cond_wait(&emptied, &lock);
        }
        const int tail = head + count;
        memcpy(ring + size * static_cast<size_t>(tail % QUEUE_CAPACITY), message, size);
        count++;
        pthread_cond_broadcast(&filled);
        pthread_mutex_unlock(&lock);
    }
    [[gnu::noinline]] void receive(char* message)
    {
        if (!listed(this)) {
            return;
        }
        pthread_mutex_lock(&lock);
        while (count == 0) {
            pthread_cond_wait(&filled, &lock);
        }
        memcpy(message, ring + size * static_cast<size_t>(head), size);
        head = (head + 1) % QUEUE_CAPACITY;
        count--;
        pthread_cond_broadcast(&emptied);
        pthread_mutex_unlock(&lock);
    }
};

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
QUEUE_ROWS(model, "floor");
QUEUE_ROWS(pipe_queue, "pipe");
QUEUE_ROWS(posix, "POSIX mq");
