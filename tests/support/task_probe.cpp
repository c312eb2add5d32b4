#include "task_probe.h"

#include "internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

// A thread that an operation forgot to leave is never ended: looked at after every test.
struct operations_left : testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo&) override
    {
        EXPECT_EQ(self_record == nullptr ? 0 : self_record->depth, 0);
    }
};
[[maybe_unused]] static const bool watched =
    (testing::UnitTest::GetInstance()->listeners().Append(new operations_left), true);

int64_t now_ns()
{
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

bool eventually(const std::function<bool()>& holds, int limit_ms)
{
    const int64_t end = now_ns() + limit_ms * 1000000LL;
    while (!holds()) {
        if (now_ns() > end) {
            return false;
        }
        usleep(200);
    }
    return true;
}

static int status_of_process(const char* format)
{
    FILE* file = fopen("/proc/self/status", "r");
    char line[256];
    int value = -1;
    while (value < 0 && fgets(line, sizeof line, file) != nullptr) {
        sscanf(line, format, &value);
    }
    fclose(file);
    return value;
}

// Not by listing /proc/self/task: a listing ends early when the thread it stands at ends.
int thread_count()
{
    return status_of_process("Threads: %d");
}

int threads_at_rest()
{
    std::thread([] {}).join(); // the first thread of all brings a sanitizer's own with it
    int least = thread_count();
    for (int look = 0; look < 10; look++) {
        usleep(500);
        least = std::min(least, thread_count());
    }
    return least;
}

int64_t resident_bytes()
{
    return status_of_process("VmRSS: %d") * int64_t{1024};
}

void mask_exit_signal(int how)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(how, &signals, nullptr);
}

int code_of(const std::function<int()>& call)
{
    errno = 0;
    EXPECT_EQ(call(), ERROR);
    return errno;
}

bool ends_in(const std::function<void()>& call)
{
    bool came_back = false;
    stdout_capture quiet;
    std::thread([&] {
        record_ask_end(own_record());
        call();
        came_back = true;
    }).join();
    return !came_back;
}

// At load: a thread that is deleted here must not leave a half-initialised static behind.
static const pthread_key_t probe_key = [] {
    pthread_key_t key;
    pthread_key_create(&key, [](void* arg) {
        probe* p = static_cast<probe*>(arg);
        p->ended_at = now_ns();
        p->ended = true;
    });
    return key;
}();

void probe_attach(probe* p)
{
    pthread_setspecific(probe_key, p);
    p->running = true;
}

using body_t = std::function<void()>;

static std::mutex spawn_lock;
static std::atomic<body_t*> handed_over{nullptr};

static int run_body(int, int, int, int, int, int, int, int, int, int)
{
    body_t* body = handed_over;
    pthread_cleanup_push([](void* own) { delete static_cast<body_t*>(own); }, body);
    handed_over = nullptr;
    (*body)();
    pthread_cleanup_pop(1);
    return 0;
}

taskId_t spawn(const body_t& body, const char* name, int pri)
{
    std::lock_guard<std::mutex> guard(spawn_lock);
    handed_over = new body_t(body);
    const taskId_t id =
        taskSpawn(const_cast<char*>(name), pri, 0, 0, reinterpret_cast<FUNCPTR>(run_body), 0, 0, 0,
                  0, 0, 0, 0, 0, 0, 0);
    if (id == static_cast<taskId_t>(ERROR)) {
        delete handed_over.exchange(nullptr);
    }
    while (handed_over != nullptr) {
        sched_yield();
    }
    return id;
}

stdout_capture::stdout_capture()
{
    fflush(nullptr);
    saved = dup(STDOUT_FILENO);
    file = memfd_create("stdout", 0);
    fcntl(file, F_SETFL, O_APPEND); // such a file has no lock for its position
    dup2(file, STDOUT_FILENO);
}

stdout_capture::~stdout_capture()
{
    fflush(nullptr);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    close(file);
}

std::string stdout_capture::text()
{
    fflush(nullptr);
    std::string all(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
    const ssize_t size = pread(file, all.data(), all.size(), 0);
    all.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return all;
}
