// What a task that ends may keep nobody waiting for, and what waits for it.
#include "child.h"
#include "osaSem.h"
#include "osaTask.h"
#include "task_test.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <search.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using TaskEndTest = TaskTest;

/** How often the calling thread, or all of them, went to sleep so far. */
long sleeps(int who)
{
    rusage usage;
    getrusage(who, &usage);
    return usage.ru_nvcsw;
}

v2lsem_t* record_of(SEM_ID id)
{
    return reinterpret_cast<v2lsem_t*>(id);
}

/** Makes standard output a pipe that is full. @return its other end, which nobody reads */
int block_stdout()
{
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
    while (write(ends[1], "0123456789", 10) > 0) {
    }
    fcntl(ends[1], F_SETFL, 0);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
    return ends[0];
}

// First of all: the key is made once in a process.
TEST_F(TaskEndTest, WithoutAThreadSpecificKeyAPlainThreadIsRefusedTheTaskLock)
{
    EXPECT_TRUE(passes_in_child([] {
        pthread_key_t key = 0;
        while (pthread_key_create(&key, nullptr) == 0) {
        }
        pthread_setspecific(key, &key);
        EXPECT_EQ(taskLock(), ERROR);
        EXPECT_EQ(pthread_getspecific(key), &key);
        SEM_ID token = semBCreate(0, SEM_EMPTY);
        EXPECT_EQ(semDelete(token), OK);
        std::atomic<int> locked{77};
        spawn([&] { locked = taskLock(); }); // a task needs none
        EXPECT_TRUE(eventually([&] { return locked == OK; }));
        pthread_key_delete(key);
        EXPECT_EQ(taskLock(), OK);
    }));
}

// Though it has the task lock. Every task brings the handler of the signal again, and lets the
// signal in, which changes nothing for its spawner.
TEST_F(TaskEndTest, OneThatIsEndedSaysSoOnceTaskOrNotAndWaitsForNoReader)
{
    for (const bool read : {true, false}) {
        stdout_capture out;
        const int unread = read ? -1 : block_stdout();
        probe task, plain;
        sigset_t mask;
        signal(SIGUSR1, SIG_IGN);
        mask_exit_signal(SIG_BLOCK);
        const taskId_t id = spawn([&] {
            taskLock();
            taskLock();
            for (probe_attach(&task);;) {
                taskIdVerify(0);
            }
        });
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        mask_exit_signal(SIG_UNBLOCK);
        EXPECT_EQ(sigismember(&mask, SIGUSR1), 1);
        std::thread thread([&] {
            for (probe_attach(&plain);;) {
                usleep(1000); // a sanitizer may hold the signal back until the next call
            }
        });
        ASSERT_TRUE(eventually([&] { return task.running && plain.running; }));
        EXPECT_EQ(taskDelete(id), OK);
        EXPECT_EQ(code_of([=] { return taskDelete(id); }), S_objLib_OBJ_ID_ERROR); // nobody by now
        pthread_kill(thread.native_handle(), SIGUSR1);
        thread.join();
        EXPECT_TRUE(eventually([&] { return task.ended.load(); }));
        close(unread);
        EXPECT_EQ(out.text(), read ? "this signal is 10 \nthis signal is 10 \n" : "");
    }
}

// One deleter waits for the short section of somebody who needs the processor to end it.
TEST_F(TaskEndTest, ADeleterSleepsWhileItCannotWakeItsTask)
{
    SEM_ID token = semBCreate(0, SEM_EMPTY);
    long slept = 0;
    stdout_capture quiet;
    const taskId_t id = spawn([&] { semTake(token, WAIT_FOREVER); });
    usleep(20000);
    pthread_mutex_lock(&record_of(token)->sem_lock);
    std::thread deleter([&] {
        taskDelete(id);
        slept = sleeps(RUSAGE_THREAD);
    });
    usleep(200000);
    pthread_mutex_unlock(&record_of(token)->sem_lock);
    deleter.join();
    EXPECT_GT(slept, 20);
    semDelete(token);
}

std::atomic<int> locked_in_handler;

void lock_tasks(void*)
{
    locked_in_handler = taskLock();
    taskUnlock();
}

// Its handlers may wait, though somebody else wants its end as well.
TEST_F(TaskEndTest, ATaskThatDeletesItselfIsNotAskedAgain)
{
    stdout_capture quiet;
    for (int round = 0; round < 500; round++) {
        std::atomic<bool> go{false};
        probe p;
        locked_in_handler = 77;
        const taskId_t id = spawn([&] {
            pthread_cleanup_push(lock_tasks, nullptr);
            probe_attach(&p);
            while (!go) {
            }
            taskDelete(taskIdSelf());
            pthread_cleanup_pop(0);
        });
        ASSERT_TRUE(eventually([&] { return p.running.load(); }));
        taskLock();
        go = true;
        for (int i = round % 50 * 10; i > 0; i--) {
            __atomic_signal_fence(__ATOMIC_SEQ_CST);
        }
        taskDelete(id);
        usleep(static_cast<useconds_t>(round % 7 * 20));
        taskUnlock();
        ASSERT_TRUE(eventually([&] { return p.ended.load(); }));
        ASSERT_EQ(locked_in_handler, OK);
    }
}

/** One that takes a mutex and gives it, and gives it as well when it is deleted in between. */
struct taker {
    SEM_ID mutex;
    bool has = false;
};

void give_back(void* arg)
{
    const taker* self = static_cast<taker*>(arg);
    if (self->has || !TSAN) { // which takes a give by a stranger, which is refused, for a fault
        semGive(self->mutex);
    }
}

void take_and_give(SEM_ID mutex)
{
    taker self = {mutex};
    pthread_cleanup_push(give_back, &self);
    self.has = semTake(mutex, NO_WAIT) == OK; // waits all the same
    pthread_cleanup_pop(1);
}

// Waiting costs nothing, and each wake-up reaches somebody who can go on.
TEST_F(TaskEndTest, TasksWaitForAMutexAsleepAndPassItsWakeUpOn)
{
    constexpr int TASKS = 50;
    SEM_ID mutex = semMCreate(0);
    const auto waiting = [&] { return load_relaxed(&record_of(mutex)->mutex_waiters); };
    std::atomic<int> taken{0};
    std::vector<taskId_t> ids;
    stdout_capture quiet;

    ASSERT_EQ(semTake(mutex, WAIT_FOREVER), OK);
    for (int i = 0; i < TASKS; i++) {
        ids.push_back(spawn([&] {
            take_and_give(mutex);
            taken++;
        }));
    }
    ASSERT_TRUE(eventually([&] { return waiting() == TASKS; }));
    const long before = sleeps(RUSAGE_SELF);
    usleep(200000);
    EXPECT_LT(sleeps(RUSAGE_SELF) - before, TASKS);

    semGive(mutex);
    for (size_t i = 0; i < ids.size(); i += 2) {
        taskDelete(ids[i]);
    }
    EXPECT_TRUE(eventually([&] { return taken >= TASKS / 2 && waiting() == 0; }));
    EXPECT_EQ(semTake(mutex, WAIT_FOREVER), OK);
    semGive(mutex);
    semDelete(mutex);
}

// ---- In the C library ----

pthread_mutex_t held_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t never = PTHREAD_COND_INITIALIZER;
int unwritten[2];
int unsent[2];
char byte_read;

// A task may spend any time in these, and they hold no lock of the library.
struct {
    const char* name;
    void (*wait)();
    bool under_tsan; // which delivers no signal in the others
} const waits[] = {
    {"usleep", [] { usleep(100'000'000); }, true},
    {"poll", [] { poll(nullptr, 0, -1); }, true},
    {"select", [] { select(0, nullptr, nullptr, nullptr, nullptr); }, false},
    {"read", [] { (void)!read(unwritten[0], &byte_read, 1); }, true},
    {"recv", [] { recv(unsent[0], &byte_read, 1, 0); }, true},
    {"pause", [] { pause(); }, true},
    {"waitpid", [] { waitpid(-1, nullptr, 0); }, true},
    {"mutex", [] { pthread_mutex_lock(&held_lock); }, false},
    {"condition",
     [] {
         pthread_mutex_t own = PTHREAD_MUTEX_INITIALIZER;
         pthread_mutex_lock(&own);
         pthread_cond_wait(&never, &own);
     },
     false},
};

TEST_F(TaskEndTest, TheCallsOfTheCLibraryThatWaitAreCutShort)
{
    stdout_capture quiet;
    ASSERT_EQ(pipe(unwritten) + socketpair(AF_UNIX, SOCK_STREAM, 0, unsent), 0);
    const pid_t child = fork(); // to be waited for
    if (child == 0) {
        pause();
        _exit(0);
    }
    ASSERT_GT(child, 0);
    pthread_mutex_lock(&held_lock);
    for (const auto& [name, wait, under_tsan] : waits) {
        if (TSAN && !under_tsan) {
            continue;
        }
        probe p;
        const taskId_t id = spawn([&] {
            probe_attach(&p);
            wait();
            FAIL() << name << " returned";
        });
        usleep(2000);
        EXPECT_EQ(taskDelete(id), OK);
        EXPECT_TRUE(eventually([&] { return p.ended.load(); })) << name;
    }
    pthread_mutex_unlock(&held_lock);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    for (const int end : {unwritten[0], unwritten[1], unsent[0], unsent[1]}) {
        close(end);
    }
}

/** What calls of the C library that call back have for their functions. */
struct {
    std::atomic<bool> inside, deleted, go;
    std::atomic<int> taken;
    SEM_ID token;
} called_back;

// An operation neither ends its task there nor gives up.
void wait_inside()
{
    called_back.inside = true;
    while (!called_back.deleted) {
        taskIdVerify(0);
    }
    called_back.taken = semTake(called_back.token, WAIT_FOREVER);
    while (!called_back.go) {
        taskIdVerify(0);
    }
}

ssize_t write_inside(void*, const char*, size_t size)
{
    wait_inside();
    return static_cast<ssize_t>(size);
}

FILE* stream; // with a lock of its own, as every stream

struct {
    const char* name;
    void (*call)();
} const callers[] = {
    {"lfind",
     [] {
         int number = 1;
         size_t count = 1;
         lfind(&number, &number, &count, sizeof number, [](const void*, const void*) {
             wait_inside();
             return 1;
         });
     }},
    {"fflush", [] { fputc('x', stream), fflush(stream); }},
    {"pthread_exit",
     [] {
         pthread_cleanup_push([](void*) { wait_inside(); }, nullptr);
         pthread_exit(nullptr);
         pthread_cleanup_pop(0);
     }},
};

TEST_F(TaskEndTest, WhatTheCLibraryCallsBackIsNotEndedUntilItReturns)
{
    stdout_capture quiet;
    called_back.token = semBCreate(0, SEM_EMPTY);
    for (const auto& [name, call] : callers) {
        probe p;
        stream = fopencookie(nullptr, "w", {nullptr, write_inside, nullptr, nullptr});
        called_back.inside = called_back.deleted = called_back.go = false;
        called_back.taken = 77;
        const taskId_t id = spawn([&] {
            probe_attach(&p);
            for (call();;) { // and enters no operation any more
                TSAN ? taskIdVerify(0) : OK;
            }
        });
        ASSERT_TRUE(eventually([] { return called_back.inside.load(); })) << name;
        EXPECT_EQ(taskDelete(id), OK);
        usleep(2000);
        called_back.deleted = true;
        usleep(2000);
        EXPECT_EQ(called_back.taken, 77) << name;
        semGive(called_back.token);
        EXPECT_TRUE(eventually([] { return called_back.taken == OK; })) << name;
        usleep(30000); // longer than the short periods at which it is asked again
        EXPECT_FALSE(p.ended) << name;
        called_back.go = true;
        EXPECT_TRUE(eventually([&] { return p.ended.load(); })) << name;
        ASSERT_EQ(ftrylockfile(stream), 0) << name;
        funlockfile(stream);
        fclose(stream);
    }
    semDelete(called_back.token);
}

TEST_F(TaskEndTest, ASignalOfAnotherProcessEndsNobody)
{
    stdout_capture out;
    const pid_t own = getpid();
    probe task;
    const taskId_t id = spawn([&] {
        for (probe_attach(&task);;) {
            taskDelay(1);
        }
    });
    const pid_t child = fork();
    if (child == 0) {
        _exit(kill(own, SIGUSR1));
    }
    int status = -1;
    ASSERT_EQ(TEMP_FAILURE_RETRY(waitpid(child, &status, 0)), child); // it may interrupt
    EXPECT_EQ(status, 0);
    usleep(20000);
    EXPECT_FALSE(task.ended);
    EXPECT_EQ(taskDelete(id), OK);
    EXPECT_TRUE(eventually([&] { return task.ended.load(); }));
    EXPECT_EQ(out.text(), "this signal is 10 \n");
}

} // namespace
