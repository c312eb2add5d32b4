// Demonstrations of tasks: two that talk over a message queue, one that is deleted while it waits,
// and one that sums up what has happened and who is alive.
#include "nxaLog.h"
#include "osaMsg.h"
#include "osaSem.h"
#include "osaTask.h"

#include "demo.h"

#include <stdio.h>

static constexpr int SHOWN = 5; // messages that are logged; later ones are only counted

int ticks(int ms)
{
    return ms * sysClkRateGet() / 1'000;
}

// Priority, options and stack size are accepted and not used; up to ten int arguments are.
taskId_t start_task(char* name, int (*entry)(int))
{
    return taskSpawn(name, 100, 0, 0, reinterpret_cast<FUNCPTR>(entry), 0, 0, 0, 0, 0, 0, 0, 0, 0,
                     0);
}

// ---- A message queue between two tasks ----

struct message_t {
    int number;
    int64_t sent_us;
};

static MSG_Q_ID queue;

static int send_messages([[maybe_unused]] int unused)
{
    taskNeedCheck();
    for (int number = 1;; number++) {
        message_t message = {number, now_us()};
        const int pri = number % 4 == 0 ? MSG_PRI_URGENT : MSG_PRI_NORMAL;
        if (msgQSend(queue, reinterpret_cast<char*>(&message), sizeof message, NO_WAIT, pri) ==
            OK) {
            count(&totals.sent, 1);
        }
        taskDelay(ticks(700));
    }
}

static int receive_messages([[maybe_unused]] int unused)
{
    taskNeedCheck();
    for (;;) {
        message_t message;
        if (msgQReceive(queue, reinterpret_cast<char*>(&message), sizeof message, ticks(2'000)) ==
            ERROR) {
            SAY("no message for 2 s");
            continue;
        }
        if (count(&totals.received, 1) <= SHOWN) {
            SAY("message %d, %lld us after it was sent", message.number,
                static_cast<long long>(now_us() - message.sent_us));
        }
    }
}

void demo_queue(void)
{
    static char sender[] = "tDemoSend";
    static char receiver[] = "tDemoReceive";

    queue = msgQCreate(8, sizeof(message_t), 0);
    if (queue == nullptr) {
        SAY("no queue");
        return;
    }
    start_task(receiver, receive_messages);
    start_task(sender, send_messages);
}

// ---- Deleting a task that waits ----

static SEM_ID never_given;

static int wait_for_ever([[maybe_unused]] int unused)
{
    SAY("waiting for a semaphore that nobody gives");
    semTake(never_given, WAIT_FOREVER);
    SAY("not reached: the task was deleted in its wait");
    return ERROR;
}

static int delete_the_waiter([[maybe_unused]] int unused)
{
    static char name[] = "tDemoWait";

    never_given = semBCreate(0, SEM_EMPTY);
    const taskId_t waiter = start_task(name, wait_for_ever);
    taskDelay(ticks(2'000));
    taskDelete(waiter); // the layer says so on standard output, on the task's behalf
    SAY("%s is deleted, its id %s", name,
        taskIdVerify(waiter) == OK ? "still known" : "no longer known");
    semDelete(never_given);
    return OK; // a task ends by returning
}

void demo_deletion(void)
{
    static char name[] = "tDemoDelete";
    start_task(name, delete_the_waiter);
}

// ---- The summary ----

// The list belongs to the daemon and changes under its lock only; names are copied, for a task may
// end as soon as the lock is given back.
static void list_tasks(char* text, size_t size)
{
    size_t used = 0;

    const sigset_t before = hold_deletion(); // the list's lock is held
    pthread_mutex_lock(&task_list_lock);
    for (const task_t* task = task_list; task != nullptr && used < size; task = task->nxt_task) {
        const char* name = task->taskname != nullptr ? task->taskname : "(unnamed)";
        const int wanted = snprintf(text + used, size - used, " %s", name);
        used += wanted > 0 ? static_cast<size_t>(wanted) : 0;
    }
    pthread_mutex_unlock(&task_list_lock);
    let_deletion_in(before);
}

static void sum_up(void)
{
    char tasks[512] = "";
    const double timers = static_cast<double>(counted(&totals.timers));

    list_tasks(tasks, sizeof tasks);
    SAY("system up %lu s, %lu ticks; tasks:%s", osaGetSysUpSeconds(), tickGet(), tasks);
    SAY("timers fired: %.0f, late by %.1f ms on average, %.1f at most", timers,
        timers > 0 ? static_cast<double>(counted(&totals.late_us)) / timers / 1e3 : 0.0,
        static_cast<double>(counted(&totals.most_late_us)) / 1e3);
    SAY("watchdogs: %lld; messages: %lld sent, %lld received, %d in the queue",
        static_cast<long long>(counted(&totals.watchdogs)),
        static_cast<long long>(counted(&totals.sent)),
        static_cast<long long>(counted(&totals.received)), msgQNumMsgs(queue));
}

static int report([[maybe_unused]] int unused)
{
    taskNeedCheck();
    taskDelay(ticks(7'000));
    for (;;) {
        sum_up();
        taskDelay(ticks(30'000));
    }
}

void demo_summary(void)
{
    static char name[] = "tDemoReport";
    start_task(name, report);
}
