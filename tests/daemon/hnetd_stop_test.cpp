// The daemon stopped in full flight, by a call or by SIGTERM: its process ends with exit_value,
// whatever its tasks do.
#include "hnetd.h"

#include "osaMsg.h"
#include "osaSem.h"
#include "osaTask.h"
#include "osaWd.h"
#include "uEvent.h"
#include "uTimer.h"
#include "ulist.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__SANITIZE_THREAD__)
static constexpr int DAEMONS = 60;
#else
static constexpr int DAEMONS = 200;
#endif
static constexpr int AT_A_TIME = 8;
static constexpr int EXIT_VALUE = 42;

// The recording double keeps its lines in an object that exit destroys.
extern "C" int __wrap___halden_log_print(int, const char*, const char*, ...)
{
    return 0;
}

static MSG_Q_ID queue;
static SEM_ID sem;

// Uses something of every module.
static int busy()
{
    static char event[] = "BUSY";
    char message[16] = "";
    WDOG_ID watchdog = wdCreate();
    const auto nothing = reinterpret_cast<FUNCPTR>(+[](void*) { return OK; });

    for (;;) {
        msgQSend(queue, message, sizeof message, 1, MSG_PRI_NORMAL);
        semTake(sem, WAIT_FOREVER);
        semGive(sem);
        msgQReceive(queue, message, sizeof message, 1);
        uTimerDel(uTimerAdd(nullptr, nullptr, 10));
        uAsyncCall(nothing, nullptr);
        wdStart(watchdog, 1, nothing, nullptr);
        uEventCare(
            event, [](char*, void*, int32_t*, size_t) { return 0; }, nullptr);
        uEventRaise(event, nullptr, 0);
    }
}

[[noreturn]] static void run_daemon(int round)
{
    static char name[] = "tBusy";

    alarm(60);
    queue = msgQCreate(4, 16, 0);
    sem = semMCreate(0);
    exit_value = EXIT_VALUE;
    if (hnetdStart() != 0) {
        _exit(1);
    }
    for (int i = 0; i < 8; i++) {
        taskSpawn(name, 0, 0, 0, reinterpret_cast<FUNCPTR>(busy), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    }
    usleep(static_cast<useconds_t>(round % 50) * 100);
    if (round % 2 == 0) {
        hnetdStop();
    } else {
        kill(getpid(), SIGTERM);
    }
    for (;;) {
        pause();
    }
}

TEST(HnetdStopTest, EndsTheProcessUnderBusyTasks)
{
    for (int round = 0; round < DAEMONS + AT_A_TIME; round++) {
        if (round >= AT_A_TIME) {
            int status = 0;
            EXPECT_GT(wait(&status), 0);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == EXIT_VALUE) << status;
        }
        if (round < DAEMONS && fork() == 0) {
            run_daemon(round);
        }
    }
}
