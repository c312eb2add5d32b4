#include "victims.h"

#include "osaResolv.h"
#include "osaSocket.h"
#include "osaTask.h"
#include "osaWd.h"
#include "sntp.h"
#include "uBm.h"
#include "uEvent.h"
#include "uQm.h"
#include "uTimer.h"

#include <dlfcn.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#if defined(__SANITIZE_THREAD__)
static constexpr bool TSAN = true;
#else
static constexpr bool TSAN = false;
#endif
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#else
static void __lsan_disable() {}
#endif

victims_shared shared;
char victim_event[] = "STRESS";

static constexpr int DELETERS = 8;
static constexpr int WATCHDOGS = 16;
static constexpr int STRANGER = -1; // a message of a victim to the others
static char word[16];
static char variable[] = "HNETD_VICTIM";
static WDOG_ID watchdogs[WATCHDOGS];
static uBmHostHeap_t heap;
static uQmQueue_t blocks;
static int unwritten[2];
static std::atomic<unsigned> turns;

static int64_t now_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

static int nothing(void*)
{
    return OK;
}

static int job(void*)
{
    return semGive(shared.job_done);
}

void victim_timer_due(void*) {}

int32_t victim_event_seen(char*, void*, int32_t*, size_t)
{
    taskIdVerify(0);
    return 0;
}

static void compute(int rounds)
{
    for (int i = 0; i < rounds; i++) {
        __asm__ volatile("");
    }
}

static int compare(const void* a, const void* b)
{
    return *static_cast<const int*>(a) - *static_cast<const int*>(b);
}

static void mask_exit_signal(int how)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(how, &signals, nullptr);
}

// A task of a victim's, which goes by itself when it has lost its owner.
static int spawned_by_victim()
{
    return taskDelay(1000);
}

static void spawn_and_delete()
{
    static char name[] = "tVictim";
    const taskId_t id = taskSpawn(name, 1, 0, 0, reinterpret_cast<FUNCPTR>(spawned_by_victim), 0, 0,
                                  0, 0, 0, 0, 0, 0, 0, 0);
    taskDelete(id);
}

// ---- What they do ----

const victim_kind victim_kinds[] = {
    {"taskLock", TASK_LOCK, [] { taskLock(); }},
    {"semTake, mutex", MUTEX, [] { semTake(shared.held_mutex, WAIT_FOREVER); }},
    // A mutex that a deleted task has stays locked, and a restart must not find its task.
    {"selfRestart", MUTEX | RESTARTS,
     [] {
         mask_exit_signal(SIG_BLOCK); // or it might end with the lock in its hands
         pthread_mutex_lock(&task_list_lock);
         task_t* own = my_task();
         pthread_mutex_unlock(&task_list_lock);
         mask_exit_signal(SIG_UNBLOCK);
         selfRestart(own);
     }},
    // The sanitizer keeps a signal that comes just before the sleep until the sleep is over.
    {"taskDelay", 0, [] { taskDelay(TSAN ? 5 : 100000); }},
    {"semTake", 0, [] { semTake(shared.empty_sem, WAIT_FOREVER); }},
    {"semTake, timed", 0, [] { semTake(shared.empty_sem, 100000); }},
    {"msgQReceive", 0, [] { msgQReceive(shared.empty_queue, word, sizeof word, WAIT_FOREVER); }},
    {"msgQReceive, timed", 0, [] { msgQReceive(shared.empty_queue, word, sizeof word, 100000); }},
    {"msgQSend", 0, [] { msgQSend(shared.full_queue, word, 16, WAIT_FOREVER, MSG_PRI_NORMAL); }},
    {"msgQSend, timed", 0, [] { msgQSend(shared.full_queue, word, 8, 100000, MSG_PRI_NORMAL); }},
    {"sntpcTimeGet", 0,
     [] {
         static char server[] = "127.0.0.1";
         timespec told;
         sntpcTimeGet(server, 0, &told);
     }},
    {"semaphore", 0, [] { semGive(shared.busy_sem), semTake(shared.busy_sem, 1); }},
    {"queue", 0,
     [] {
         char buffer[16] = {};
         msgQSend(shared.busy_queue, buffer, sizeof buffer, 1, MSG_PRI_NORMAL);
         msgQReceive(shared.busy_queue, buffer, sizeof buffer, 1);
     }},
    {"queue of others", 0,
     [] {
         int stranger = STRANGER;
         msgQSend(shared.others_queue, reinterpret_cast<char*>(&stranger), sizeof stranger, 1,
                  MSG_PRI_NORMAL);
     }},
    {"list", 0, [] { uListAdd(shared.list, word, 0), uListRemove(shared.list, 1); }},
    {"timer", 0,
     [] {
         const uint32_t id = uTimerAdd(reinterpret_cast<void*>(victim_timer_due), nullptr, 5000);
         uTimerRefresh(id, 6000);
         uTimerRemainGet(id);
         uTimerDel(id);
     }},
    {"event", 0,
     [] { // first what one left that was deleted in between
         uEventClear(victim_event, victim_event_seen, nullptr);
         uEventCare(victim_event, victim_event_seen, nullptr);
         uEventRaise(victim_event, nullptr, 0);
         uEventClear(victim_event, victim_event_seen, nullptr);
     }},
    {"call", 0, [] { uAsyncCall(reinterpret_cast<FUNCPTR>(nothing), nullptr), compute(300); }},
    {"pool", OWNS,
     [] {
         void* block = uBmAlloc(&heap, 64);
         if (block != nullptr) { // one in a few hundred is lost with its owner
             uQmEnq(&blocks, block);
             uBmFree(uQmDeq(&blocks));
         }
     }},
    {"allocation", OWNS, [] { uFree(uMalloc(100)), ts_free(ts_malloc(100)); }},
    {"watchdog", 0,
     [] {
         WDOG_ID own = watchdogs[turns++ % WATCHDOGS];
         wdStart(own, 100, reinterpret_cast<FUNCPTR>(nothing), nullptr);
         wdCancel(own);
     }},
    {"thread pool", 0,
     [] {
         taskThrPoolAddTask(reinterpret_cast<FUNCPTR>(job), nullptr, -1);
         semTake(shared.job_done, 5);
     }},
    {"address", OWNS,
     [] {
         osaFreeHostInfoList(osaGetHostByName("192.0.2.1", QUERY_ADDRESS, SERV_SIP));
         sockAddrStorage_t storage;
         sockSetStorageByStringAddr("2001:db8::1", 53, &storage);
     }},
    {"look-ups", 0,
     [] {
         int ids[8];
         int priority;
         taskNameToId(victim_event);
         taskIdVerify(taskIdSelf());
         taskPriorityGet(0, &priority);
         taskIdListGet(ids, 8);
         tickGet();
     }},
    {"taskSpawn", 0, spawn_and_delete},
    // The sanitizer delivers signals at calls it knows.
    {"own code", 0, [] { TSAN ? taskIdVerify(0) : OK, compute(1000); }},
    {"malloc", C_CALLS,
     [] {
         void* volatile block = malloc(turns++ % 500);
         free(block);
         compute(20);
     }},
    {"printf", C_CALLS, [] { printf("%s %d\n", victim_event, 16), compute(100); }},
    {"local time", C_CALLS,
     [] {
         const time_t when = static_cast<time_t>(turns++) * 4001;
         tm local;
         char text[64];
         localtime_r(&when, &local);
         strftime(text, sizeof text, "%F %T %Z", &local);
         mktime(&local);
         compute(300);
     }},
    {"environment", C_CALLS,
     [] {
         setenv(variable, turns++ % 2 == 0 ? "0" : "1", 1);
         getenv(variable);
         compute(100);
     }},
    {"names", C_CALLS,
     [] {
         addrinfo* found = nullptr;
         if (getaddrinfo("localhost", nullptr, nullptr, &found) == 0) {
             freeaddrinfo(found);
         }
         compute(30000);
     }},
    {"stream", C_CALLS,
     [] {
         char line[64];
         rewind(shared.file);
         fprintf(shared.file, "%u %s\n", turns++ % 1000, victim_event);
         fflush(shared.file);
         rewind(shared.file);
         (void)!fgets(line, sizeof line, shared.file);
         compute(1000);
     }},
    {"qsort", C_CALLS,
     [] {
         int numbers[300];
         for (int& number : numbers) {
             number = rand();
         }
         qsort(numbers, 300, sizeof numbers[0], compare);
         compute(1000);
     }},
    {"loader", C_CALLS,
     [] {
         void* library = dlopen("libm.so.6", RTLD_LAZY);
         dlsym(RTLD_DEFAULT, "there is no such symbol");
         dlerror();
         if (library != nullptr) {
             dlclose(library);
         }
         compute(30000);
     }},
    {"read, poll, usleep", C_CALLS,
     [] {
         const unsigned turn = turns++ % 3;
         turn == 0   ? (void)!read(unwritten[0], word, 1)
         : turn == 1 ? (void)poll(nullptr, 0, -1)
                     : (void)usleep(1000000);
     }},
};
const int VICTIM_KINDS = static_cast<int>(std::size(victim_kinds));
static constexpr size_t ROWS = std::size(victim_kinds) + 1;
static victim_figures all_results[ROWS];
victim_figures* const victim_results = all_results;

// ---- A deletion ----

struct slot {
    std::atomic<victim_end> end;
    std::atomic<bool> running, ended;
    std::atomic<int64_t> ended_at;
};
static slot slots[DELETERS];

// At load: a thread that is deleted here must not leave a half-initialised static behind.
static const pthread_key_t slot_key = [] {
    pthread_key_t key;
    pthread_key_create(&key, [](void* arg) {
        slot* own = static_cast<slot*>(arg);
        own->ended_at = now_ns();
        own->ended = true;
    });
    return key;
}();

void victim_ends(victim_end when)
{
    slot* own = static_cast<slot*>(pthread_getspecific(slot_key));
    if (own != nullptr && own->end < when) {
        own->end = when;
    }
}

static void attach(slot* own)
{
    pthread_setspecific(slot_key, own);
    own->running = true;
}

static int victim(int kind, int number, int, int, int, int, int, int, int, int)
{
    if (number >= 0) {
        attach(&slots[number]);
    }
    (victim_kinds[kind].flags & OWNS) != 0 ? __lsan_disable() : (void)0; // in this thread
    for (;;) {
        victim_kinds[kind].step();
        victim_results[kind].steps.fetch_add(1, std::memory_order_relaxed);
    }
}

static taskId_t spawn_victim(int kind, int number)
{
    static char name[] = "tVictim";
    return taskSpawn(name, 1, 0, 0, reinterpret_cast<FUNCPTR>(victim), kind, number, 0, 0, 0, 0, 0,
                     0, 0, 0);
}

static void* bare_thread(void* own)
{
    attach(static_cast<slot*>(own));
    for (;;) {
        compute(1000); // and nothing of ours, for this signal knows no depth
        TSAN ? usleep(100) : 0;
    }
}

static bool await(const std::atomic<bool>& flag)
{
    const int64_t end = now_ns() + 60'000'000'000;
    while (!flag) {
        if (now_ns() > end) {
            return false;
        }
        usleep(50);
    }
    return true;
}

static pthread_t spawn_any(int kind, int number)
{
    pthread_t thread = 0;

    if (kind < VICTIM_KINDS) {
        return spawn_victim(kind, number);
    }
    pthread_create(&thread, nullptr, bare_thread, &slots[number]);
    pthread_detach(thread);
    return thread;
}

bool victim_delete(int kind, int deleter, std::minstd_rand& random, int pause_us)
{
    static constexpr victim_kind none = {"a bare thread", 0, nullptr};
    slot* own = &slots[deleter];
    const victim_kind& of = kind < VICTIM_KINDS ? victim_kinds[kind] : none;
    const bool at_once = kind < VICTIM_KINDS && random() % 8 == 0; // before it begins, or just then
    const unsigned holds = of.flags & (at_once ? MUTEX : MUTEX | TASK_LOCK);

    holds == MUTEX ? semTake(shared.held_mutex, WAIT_FOREVER) : holds != 0 ? taskLock() : OK;
    victim_figures& figures = victim_results[kind];
    own->end = AT_ONCE;
    own->running = own->ended = false;
    const pthread_t id = spawn_any(kind, at_once ? -1 : deleter);
    if (!at_once) {
        while (!own->running) {
            sched_yield();
        }
        usleep(static_cast<useconds_t>(random() % static_cast<unsigned>(pause_us)));
    }
    const int64_t deleted_at = now_ns();
    kind < VICTIM_KINDS ? taskDelete(id) : pthread_kill(id, SIGUSR2);
    if (holds != 0) {
        usleep(random() % 100);
        (of.flags & RESTARTS) != 0 ? process_wdog() : (void)0;
        holds == MUTEX ? semGive(shared.held_mutex) : taskUnlock();
    }
    if (at_once) {
        figures.ends[BEFORE]++;
        return true;
    }
    if (!await(own->ended)) {
        return false;
    }
    figures.ends[own->end]++;
    figures.took.add(own->ended_at - deleted_at);
    return true;
}

bool victims_left()
{
    static char name[] = "tVictim";
    bool any = false;

    for (taskId_t id = taskNameToId(name); id != 0; id = taskNameToId(name)) {
        taskDelete(id);
        any = true;
    }
    return any;
}

void victims_prepare()
{
    struct sigaction exits = {};

    shared = {.empty_sem = semBCreate(0, SEM_EMPTY),
              .busy_sem = semCCreate(0, 0),
              .held_mutex = semMCreate(0),
              .job_done = semCCreate(0, 0),
              .empty_queue = msgQCreate(2, sizeof word, 0),
              .full_queue = msgQCreate(1, sizeof word, 0),
              .busy_queue = msgQCreate(2, sizeof word, 0),
              .others_queue = msgQCreate(4, sizeof(int), 0),
              .list = uListInit(1),
              .file = fdopen(memfd_create("stream", 0), "w+")};
    msgQSend(shared.full_queue, word, sizeof word, NO_WAIT, MSG_PRI_NORMAL);
    for (WDOG_ID& watchdog : watchdogs) {
        watchdog = wdCreate();
    }
    static constexpr uint32_t BLOCKS = 8192, BLOCK_SIZE = 64;
    uBmInitHeap(&heap, BLOCKS, BLOCK_SIZE,
                uMalloc(BLOCKS * (BLOCK_SIZE + static_cast<uint32_t>(sizeof(uBmBufHead_t)))));
    uQmInit(&blocks);
    uTimerInit(0);
    taskThrPoolCreate(2);
    (void)!pipe(unwritten);
    setenv(variable, "0", 1); // from here on only its value changes
    exits.sa_handler = [](int) { pthread_exit(nullptr); };
    sigaction(SIGUSR2, &exits, nullptr);
}

// ---- The others ----

static std::atomic<bool> stopping, all_sent;
static std::atomic<int> sent, received, others_left;
static std::atomic<const char*> wrong;
static SEM_ID token;
static std::atomic<int> has_token;

static int send_numbers()
{
    for (; !stopping; sent++) {
        int number = sent;
        if (msgQSend(shared.others_queue, reinterpret_cast<char*>(&number), sizeof number,
                     WAIT_FOREVER, MSG_PRI_NORMAL) != OK) {
            wrong = "a message was not sent";
        }
        TSAN ? taskDelay(1) : OK;
    }
    all_sent = true;
    return others_left--;
}

static int receive_numbers()
{
    while (!all_sent || received < sent) {
        int number = 0;
        if (msgQReceive(shared.others_queue, reinterpret_cast<char*>(&number), sizeof number, 10) !=
                sizeof number ||
            number == STRANGER) {
            continue;
        }
        if (number != received++) {
            wrong = "a message was lost";
        }
    }
    return others_left--;
}

static int take_turns()
{
    while (!stopping) {
        semTake(token, WAIT_FOREVER);
        if (has_token++ != 0) {
            wrong = "two had the token";
        }
        has_token--;
        semGive(token);
        taskDelay(0);
    }
    return others_left--;
}

void others_start()
{
    static char name[] = "tOther";
    stopping = all_sent = false;
    wrong = nullptr;
    others_left = 4;
    token = semBCreate(0, SEM_FULL);
    for (int (*entry)() : {send_numbers, receive_numbers, take_turns, take_turns}) {
        taskSpawn(name, 1, 0, 0, reinterpret_cast<FUNCPTR>(entry), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    }
}

const char* others_stop()
{
    stopping = true;
    for (int i = 0; others_left > 0; i++) {
        if (i == 30'000) {
            return "one of the others waits for ever";
        }
        usleep(1000);
    }
    if (semTake(token, NO_WAIT) != OK) {
        wrong = "the token was lost";
    }
    semDelete(token);
    return sent > 0 && sent == received ? wrong.load() : "a message was lost";
}

void c_library_use()
{
    time_t now = time(nullptr);
    tm local;
    addrinfo* found = nullptr;
    char line[64];

    free(malloc(100'000));
    localtime_r(&now, &local);
    mktime(&local);
    setenv(variable, "2", 1);
    fputs(variable, stdout);
    fflush(nullptr);
    rewind(shared.file);
    (void)!fgets(line, sizeof line, shared.file);
    if (getaddrinfo("localhost", nullptr, nullptr, &found) == 0) {
        freeaddrinfo(found);
    }
    dlsym(RTLD_DEFAULT, "there is no such symbol");
    rand();
}

void victims_report(FILE* out, bool ends_known)
{
    const auto ms = [](int64_t ns) { return static_cast<double>(ns) / 1e6; };
    fprintf(out,
            "| Kind | %s | Median, ms | 99 %%, ms | Longest, ms |\n|---|---|---|---|---|---|%s\n",
            ends_known ? "Before it began | At once | After its operation | After the C library"
                       : "Operations | Deletions",
            ends_known ? "---|---|" : "");
    for (size_t row = 0; row < ROWS; row++) {
        const auto& [steps, ends, took] = all_results[row];
        const long before = ends[BEFORE], once = ends[AT_ONCE], op = ends[OPERATION],
                   c = ends[C_LIBRARY];
        if (before + once + op + c == 0) {
            continue;
        }
        fprintf(out, "| %s | ", row + 1 < ROWS ? victim_kinds[row].name : "a bare thread");
        ends_known ? fprintf(out, "%ld | %ld | %ld | %ld", before, once, op, c)
                   : fprintf(out, "%ld | %ld", steps.load(), before + once);
        fprintf(out, " | %.2f | %.2f | %.1f |\n", ms(took.percentile(0.5)),
                ms(took.percentile(0.99)), ms(took.maximum()));
    }
}
