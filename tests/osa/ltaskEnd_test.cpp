// What a task that ends may keep nobody waiting for, and what waits for it.
#include "child.h"
#include "internal.h"
#include "osaSem.h"
#include "osaTask.h"
#include "osaWd.h"
#include "task_probe.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

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

/** Standard output is a pipe that is full and has no reader. */
class blocked_stdout {
  public:
    blocked_stdout() : saved(dup(STDOUT_FILENO))
    {
        EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
        while (write(ends[1], "0123456789", 10) > 0) {
        }
        fcntl(ends[1], F_SETFL, 0);
        dup2(ends[1], STDOUT_FILENO);
    }
    ~blocked_stdout()
    {
        dup2(saved, STDOUT_FILENO);
        for (const int fd : {saved, ends[0], ends[1]}) {
            close(fd);
        }
    }

  private:
    int saved;
    int ends[2];
};

// First of all: the key is made once in a process.
TEST(TaskEndTest, WithoutAThreadSpecificKeyAPlainThreadIsRefusedTheTaskLock)
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

TEST(TaskEndTest, NoEndWaitsForAReaderOfStandardOutput)
{
    probe task;
    const taskId_t id = spawn([&] {
        taskLock();
        for (probe_attach(&task);;) {
            taskDelay(100);
        }
    });
    probe plain;
    std::thread thread([&] {
        for (probe_attach(&plain);;) {
            usleep(1000); // a sanitizer may hold the signal back until the next call
        }
    });
    ASSERT_TRUE(eventually([&] { return task.running && plain.running; }));
    fflush(nullptr);
    {
        const blocked_stdout nobody_reads;
        EXPECT_EQ(taskDelete(id), OK);
        pthread_kill(thread.native_handle(), SIGUSR1);
        EXPECT_TRUE(eventually([&] { return task.ended && plain.ended; }));
    }
    thread.join();
    EXPECT_EQ(taskLock(), OK);
    taskUnlock();
}

// One deleter waits for the short section of somebody who needs the processor to end it.
TEST(TaskEndTest, ADeleterSleepsWhileItCannotWakeItsTask)
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
TEST(TaskEndTest, ATaskThatDeletesItselfIsNotAskedAgain)
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
#ifdef __SANITIZE_THREAD__ // takes a give by a stranger, which is refused, for a fault
    if (!self->has) {
        return;
    }
#endif
    semGive(self->mutex);
}

void take_and_give(SEM_ID mutex)
{
    taker self = {mutex};
    pthread_cleanup_push(give_back, &self);
    self.has = semTake(mutex, NO_WAIT) == OK; // waits all the same
    pthread_cleanup_pop(1);
}

// Waiting costs nothing, and each wake-up reaches somebody who can go on.
TEST(TaskEndTest, TasksWaitForAMutexAsleepAndPassItsWakeUpOn)
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

// ---- Restarts ----

int ask_for_restarts()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr); // or it might end with the lock in its hands
    pthread_mutex_lock(&task_list_lock);
    task_t* own = my_task();
    pthread_mutex_unlock(&task_list_lock);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    for (;;) {
        selfRestart(own);
    }
}

TEST(TaskEndTest, ATaskThatAsksForItsRestartMayBeDeletedMeanwhile)
{
    const int threads = threads_at_rest();
    stdout_capture quiet;
    for (int round = 0; round < 300; round++) {
        char name[] = "tAsks";
        const taskId_t id = taskSpawn(name, 1, 0, 0, reinterpret_cast<FUNCPTR>(ask_for_restarts), 0,
                                      0, 0, 0, 0, 0, 0, 0, 0, 0);
        usleep(static_cast<useconds_t>(round % 10 * 20));
        ASSERT_EQ(taskDelete(id), OK);
        if (round % 10 == 0) {
            process_wdog();
        }
        ASSERT_EQ(taskNameToId(name), 0U);
    }
    process_wdog();
    EXPECT_TRUE(eventually([=] { return thread_count() == threads; }));
}

} // namespace
