// The table of the sweep. Where nothing stands about a weather, it must not show; an argument is
// fixed where only its caller can know that another is wrong.
#include "operation.h"

#include "hostLib.h"
#include "internal.h"
#include "osaMsg.h"
#include "osaResolv.h"
#include "osaSem.h"
#include "osaTask.h"
#include "osaWd.h"
#include "sntp.h"
#include "uBm.h"
#include "uEvent.h"
#include "uTimer.h"
#include "ulist.h"

#include <arpa/inet.h>
#include <fstream>
#include <sys/sysinfo.h>
#include <unistd.h>

// ---- Arguments ----

static char* copy_of(const std::string& text)
{
    return strdup(text.c_str());
}

argument::argument(const char* text) : make(argument([text] { return copy_of(text); }).make)
{
    std::string bytes;
    for (int c = 1; c < 256; c++) {
        bytes += static_cast<char>(c);
    }
    for (const auto& [name, other] : {std::pair<const char*, std::string>{"empty", ""},
                                      {"long", std::string(10'000, 'x')},
                                      {"bytes", bytes}}) {
        extremes.emplace_back(name, argument([other = other] { return copy_of(other); }).make);
    }
}

/** A text for the C library's resolver, which keeps what it read and makes room as it goes. */
static argument host(const char* name)
{
    argument a(name);
    a.make = argument([name] {
                 c_library_keeps = true;
                 gethostbyname("localhost"); // loads what it needs, but for this, to be read again
                 std::ofstream("/etc/resolv.conf") << "options attempts:1\nnameserver 127.0.0.7\n";
                 return copy_of(name);
             }).make;
    return a;
}

argument count(long number)
{
    argument a(number);
    a.beyond_telling = argument::TOO_LARGE;
    return a;
}

argument fixed(argument valid)
{
    valid.beyond_telling = argument::ALL;
    return valid;
}

/** An id that is looked up: others are one that never was, and one that is no more. */
template <typename T> static argument looked_up(T (*make)(), void (*remove)(T), long never)
{
    argument a(make);
    a.extremes = {{"never", argument(never).make}, {"gone", argument([=] {
                                                                const T id = make();
                                                                remove(id);
                                                                return id;
                                                            }).make}};
    return a;
}

static long nothing()
{
    return 0;
}

static long stay()
{
    for (;;) {
        pause();
    }
}

static taskId_t new_task()
{
    return taskSpawn(const_cast<char*>("tSweep"), 1, 0, 0, argument_as<FUNCPTR>(as_number(stay)), 0,
                     0, 0, 0, 0, 0, 0, 0, 0, 0);
}

static task_t* block_of(taskId_t task)
{
    pthread_mutex_lock(&task_list_lock);
    task_t* block = task_for(task);
    pthread_mutex_unlock(&task_list_lock);
    return block;
}

static MSG_Q_ID new_queue()
{
    const MSG_Q_ID id = msgQCreate(4, 16, 0);
    msgQSend(id, const_cast<char*>("abc"), 4, NO_WAIT, MSG_PRI_NORMAL);
    return id;
}

static uint32_t new_timer()
{
    return uTimerAdd(nullptr, nullptr, 100);
}

static char* member; // first element of the list made last

static ulist_t* new_list(int size)
{
    ulist_t* list = uListInit(1);
    for (int i = 0; i < size; i++) {
        uListAppend(list, static_cast<addr_t>(uMalloc(8)));
    }
    member = uListFirst(list);
    return list;
}

static addr_t free_element(addr_t element)
{
    uFree(element);
    return nullptr;
}

static uBmHostHeap_t* pool; // the one made last

static uBmHostHeap_t* new_pool()
{
    pool = static_cast<uBmHostHeap_t*>(malloc(sizeof *pool));
    uBmInitHeap(pool, 3, 8, malloc(72));
    return pool;
}

static void* new_block()
{
    return uBmAlloc(new_pool(), 8);
}

static uQmQueue_t* new_block_queue(bool filled)
{
    auto* queue = static_cast<uQmQueue_t*>(malloc(sizeof(uQmQueue_t)));
    uQmInit(queue);
    uQmEnq(queue, filled ? new_block() : nullptr);
    return queue;
}

static char* cared_for()
{
    char* const name = copy_of("event");
    uEventCare(name, argument_as<EVENTPROCESS>(as_number(nothing)), nullptr);
    return name;
}

template <typename T> static T* new_address(const char* text)
{
    auto* all = static_cast<T*>(calloc(1, sizeof(T)));
    if constexpr (std::is_same_v<T, sockIpAddr_t>) {
        sockIpAddrPton(text, all);
    } else {
        sockSetStorageByStringAddr(text, 80, all);
    }
    return all;
}

static int connected()
{
    const int file = socket(AF_INET, SOCK_DGRAM, 0);
    auto* peer = new_address<sockAddrStorage_t>("127.0.0.1");
    connect(file, reinterpret_cast<sockaddr*>(peer), sizeof *peer);
    return file;
}

static FILE* lines()
{
    static char text[] = "line\nline\n";
    return fmemopen(text, sizeof text - 1, "r");
}

static TASK_STATUS_T* own_entry()
{
    return new TASK_STATUS_T{gettid(), 0};
}

static const argument SEM = [] { return semCCreate(0, 1); };
static const argument QUEUE = looked_up<MSG_Q_ID>(
    new_queue, [](MSG_Q_ID id) { msgQDelete(id); }, 1);
static const argument TASK = looked_up<taskId_t>(
    new_task, [](taskId_t id) { taskDelete(id); }, 1);
static const argument TIMER = looked_up<uint32_t>(new_timer, uTimerDel, 77);
static const argument DOG = wdCreate;
static const argument TASK_BLOCK = [] { return block_of(new_task()); };
static const argument THREE = [] { return new_list(3); };
static const argument MEMBER = [] { return member; };
static const argument POOL = new_pool;
static const argument BLOCK = new_block;
static const argument HEAP = [] { return malloc(8); };
static const argument EVENT = cared_for;
static const argument FUNCTION = [] { return nothing; };
static const argument STAY = [] { return stay; };
static const argument FREE = [] { return free_element; };
static const argument STORAGE = [] { return new_address<sockAddrStorage_t>("10.0.0.1"); };
static const argument ADDRESS = [] { return new_address<sockIpAddr_t>("10.0.0.1"); };
static const argument SOCKET = fixed(connected); // another number is another file
static const argument OUTPUT = [] { return stdout; };
static const argument THREAD_POOL = [] { return taskThrPoolCreate(2); };
static const argument LOG = [] { return logInit(1, 100), 3; };

// ---- The table ----

// Each a name and the function of that name; CALL where the outcome tells more than the result.
#define OP(name)        #name, callable_of(name)
#define CALL(name, ...) #name, callable_of(+[] __VA_ARGS__)

const char* const variables =
    "exit_value _argv asyncCallMsgQ task_list task_list_lock v2pthread_task_lock taskStatus "
    "checkTaskStatusNum msPerTick tickPerMonth mutexOptionsLogLib exLogCallBack tracev2l trace_fn "
    "tid start_tv prev_tv sntpcPort hostList hostListSem hostInitFlag mutexOptionsHostLib";

#define NO_TIMERS                                                                                  \
    "0 '6 Malloc timer pool failed.' 0 '6 Malloc timer pool failed.6 timer malloc failed! "        \
    "timerListSize=0|' leaves 1 0 0 0 0>0 '6 timer malloc failed! timerListSize=0|'"

// clang-format off
const std::vector<operation> operations = {
    // Start-up frame
    {OP(root_task), {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, "stays", "", "stays", "stays"},

    // Memory, buffer pool and queue manager. Regions and blocks are trusted.
    {OP(uMalloc), {count(64)}, "ptr", "", "null"},
    {OP(uFree), {HEAP}, "-"},
    {OP(uBmInitHeap), {room(48), fixed(3), fixed(8), room(72)}, "-*", "0:-", "-*"},
    {OP(uBmAlloc), {POOL, 8}, "ptr", "0:null"},
    {OP(uBmFree), {BLOCK}, "-"},
    {OP(uQmInit), {room(32)}, "-*", "0:-", "-*"},
    {OP(uQmEnq), {[] { return new_block_queue(false); }, BLOCK}, "-"},
    {OP(uQmDeq), {[] { return new_block_queue(true); }}, "ptr", "0:null"},

    // Indexed list
    {OP(uListInit), {1}, "ptr", "", "null"},
    {OP(uListUninit), {[] { return new_list(0); }}, "0"},
    {OP(uListSize), {THREE}, "3", "0:-1"},
    {OP(uListEol), {THREE, 0}, "0", "0:1 1.-1,min,max:1"},
    {OP(uListFirst), {THREE}, "ptr", "0:null"},
    {OP(uListGet), {THREE, 1}, "ptr", "0:null 1.-1,min,max:null"},
    {OP(uListAdd), {THREE, HEAP, 1}, "4", "0:-1 1:-1 2.min:-1", "-1"},
    {OP(uListAppend), {THREE, HEAP}, "4", "0:-1 1:-1", "-1"},
    {OP(uListRemove), {THREE, 1}, "ptr", "0:null 1.-1,min,max:null"},
    {OP(uListRemoveAndFree), {THREE, 1, FREE}, "2", "0:-1 1.-1,min,max:3"},
    {OP(uListPosGetByElement), {THREE, MEMBER}, "0", "0:-1 1:-1"},
    {OP(uListSearch), {THREE, MEMBER, FUNCTION}, "0", "0:-1 1:-1"},
    {CALL(uListSpecialClear, (ulist_t* list, uListSpecificFreeFuncPtr release) {
        uListSpecialClear(list, release);
        return uListSize(list);
    }), {THREE, FREE}, "0", "0:-1", "3 '6 uListSpecialClear: init list error!'"},

    // Timer service
    {OP(uTimerInit), {300}, "-", "", "- '6 Malloc timer pool failed.'"},
    {OP(uTimerAdd), {FUNCTION, 0, 100}, "n", "2.-1,min:0", NO_TIMERS},
    {OP(uTimerAddSec), {FUNCTION, 0, 100}, "n", "2.-1,max:0", NO_TIMERS},
    {OP(uTimerDel), {TIMER}, "-"},
    {CALL(uTimerRefresh, (uint32_t id, int32_t ms) { return uTimerRefresh(id, ms), uTimerRemainGet(id); }),
        {TIMER, 5}, "5", "0:0 1.0:0 1.-1,min:100 1.max:2147483647"},
    {CALL(uTimerRefreshSec, (uint32_t id, int32_t s) { return uTimerRefreshSec(id, s), uTimerRemainGet(id); }),
        {TIMER, 5}, "5000", "0:0 1.0,min:0 1.-1,max:100"},
    {OP(uTimerRemainGet), {TIMER}, "100", "0:0"},
    {OP(uTimerRun), {100}, "-", "", "- '6 Malloc timer pool failed.'"},
    {OP(uTimerEventAdd), {FUNCTION, 0, [] { return time(nullptr) + 100; }}, "n", "2:0 leaves 1 0 0 0 0", // kept on record
        "0 '5 uTimerEventAdd: malloc error |' 0 '6 Malloc timer pool failed.' leaves 1 0 0 0 0 0 "
        "'6 Malloc timer pool failed.6 timer malloc failed! timerListSize=0|' leaves 2 0 0 0 0>0 "
        "'6 timer malloc failed! timerListSize=0|'"},
    {OP(checktimeoutCb), {30'000}, "-"},
    {OP(uTimerAdjust), {100, 200}, "50", "", "50", "50"},
    {OP(uTimerCheckSysTimeUpdated), {0}, "-", "", "- '3 No module care event SYSTEM_TIME_UPDATED.'"},

    // Event registry and hash functions
    {OP(uEventInit), {}, "-", "", "-"},
    {OP(uEventUninit), {}, "-"},
    {OP(uEventCare), {"event", FUNCTION, 0}, "1", "", 
        "0 '6 register event event fail.' 0 '6 register event event fail.' leaves 1 0 0 0 0 "
        "0 '6 register event event fail.' leaves 257 0 0 0 0"},
    {OP(uEventClear), {EVENT, FUNCTION, 0}, "1", "0:0"},
    {OP(uEventRaise), {EVENT, 0, 4}, "1", "0:0 '3 No module care event .'"},
    {OP(rsHash), {"name", 1000}, "n", "0.null,empty:0"},
    {OP(bkdrHash), {"name"}, "n", "0.null,empty:0"},
    {OP(remainderHash), {"name"}, "n", "0.null,empty:0"},

    // Asynchronous calls
    {OP(uAsyncCall), {FUNCTION, 0}, "0", "0:-1", "-1 leaves 0 0 1 1 0>-1 -1>-1 0", "0"},
    {OP(uAsyncCallTaskEntry), {}, "stays"},

    // Tasks and the task lock
    {OP(taskSpawn), {"tSweep", 1, 2, 1024, STAY, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, "n",
        "4:-1/entry", "-1/entry -1/mem n", "-1/mem"},
    {OP(taskDelay), {1}, "0", "0.-1,min:-1 0.max:stays"},
    {OP(taskIdSelf), {}, "n"},
    {OP(taskIdVerify), {TASK}, "0", "0:-1/id"},
    {OP(taskName), {TASK}, "ptr"},
    {OP(taskNameToId), {[] { return new_task(), copy_of("tSweep"); }}, "n", "0:0"},
    {OP(taskPriorityGet), {TASK, room(4)}, "0*", "0:-1/id 1:0"},
    {OP(taskPrioritySet), {TASK, 5}, "0"},
    {OP(taskLock), {}, "0"},
    {OP(taskUnlock), {}, "0"},
    {OP(taskDelete), {TASK}, "0", "0.0:-1 0.half,max,never,gone:-1/id"},
    {OP(taskDeleteForce), {TASK}, "0", "0.0:-1 0.half,max,never,gone:-1/id"},
    {CALL(enableRoundRobin, () {
        disableRoundRobin();
        enableRoundRobin();
        return roundRobinIsEnabled();
    }), {}, "1"},
    {CALL(disableRoundRobin, () { return disableRoundRobin(), roundRobinIsEnabled(); }), {}, "0"},
    {OP(roundRobinIsEnabled), {}, "1"},
    {OP(ts_malloc), {64}, "ptr", "0.half,max:null", "null"},
    {OP(ts_free), {HEAP}, "-"},
    {CALL(my_task, () { return block_of(0); }), {}, "null"},
    {CALL(task_for, (taskId_t id) { return block_of(id); }), {TASK}, "ptr", "0:null"},
    {CALL(task_wrapper, (task_t* task) { // on a thread that is not the block's
        pthread_t id;
        pthread_create(&id, nullptr, argument_as<void* (*)(void*)>(as_number(task_wrapper)), task);
        usleep(1000);
    }), {TASK_BLOCK}, "-", "", "-", "-"},
    {OP(taskInit), {room(sizeof(task_t)), "t", 1, 2, 0, 3, FUNCTION, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10},
        "38/ENOSYS*", "0:38/ENOSYS"},
    {OP(taskActivate), {TASK}, "38/ENOSYS"},
    {OP(taskSuspend), {TASK}, "38/ENOSYS"},
    {OP(taskResume), {TASK}, "38/ENOSYS"},
    {OP(taskRestart), {TASK}, "38/ENOSYS"},
    {OP(taskSafe), {}, "38/ENOSYS"},
    {OP(taskUnsafe), {}, "38/ENOSYS"},
    {OP(taskIsReady), {TASK}, "1/ENOSYS"},
    {OP(taskIsSuspended), {TASK}, "0/ENOSYS"},

    // Thread pool
    {CALL(taskThrPoolCreate, (int32_t size) {
        const status_t created = taskThrPoolCreate(size);
        taskThrPoolDestroy();
        return created;
    }), {2}, "0", "0:-1",
        "-1 -1 'malloc pthrIds error: Cannot allocate memory|' -1 "
        "'malloc thrPool error: Cannot allocate memory|' 0", "-1 0"},
    {CALL(taskThrPoolAddTask, (long, FUNCPTR entry, void* arg, int32_t worker) {
        return taskThrPoolAddTask(entry, arg, worker);
    }), {fixed(THREAD_POOL), FUNCTION, 0, -1}, "0", "1:-1 3.min,max:-1", 
        "-1 'malloc thrPoolJobQueue_t error: Cannot allocate memory|'"},
    {CALL(taskThrPoolDestroy, (long) { return taskThrPoolDestroy(); }), {fixed(THREAD_POOL)}, "0"},

    // Inspection
    {OP(getPidByName), {"test_sweep"}, "n", "0.null,long,bytes:-1", "-1", "", "-1"},
    {OP(taskListCheckByName), {fixed(0), own_entry, count(1)}, "0", "", 
        "0 0 'cannot open /proc/PID/task|' 0 'file=/proc/PID/status open failed!|' "
        "0 'file=/proc/PID/task/PID/status open failed!|' "
        "PID 'file=/proc/PID/task/PID/status open failed!|one or more thread is not exist!|'",
        "", "0"},
    {OP(taskListCheckByName), {"hnetdNone", own_entry, count(1)}, "0", "", "0 'Can not find process hnetdNone!|'"},
    {OP(taskListCheck), {}, "0", "", "0 0 'cannot open /proc/PID/task|' 0 'file=/proc/PID/status open failed!|'"},
    {OP(taskNeedCheck), {}, "-"},
    {OP(taskShow), {OUTPUT, TASK_BLOCK}, "-"},
    {OP(taskList), {OUTPUT, 1}, "0"},
    {OP(taskIdListGet), {room(16), count(4)}, "0", "0:signal 6"},
    {OP(VxWorksError), {0x110001}, "ptr"},
    {OP(VxWorksError), {654321}, "ptr", "", "ptr"},
    {CALL(initCheckPriority, () { // which prints at length
        close(STDOUT_FILENO);
        initCheckPriority();
    }), {}, "-", "", "-", "-"},

    // Semaphores
    {OP(semBCreate), {0, 1}, "ptr", "", "null"},
    {OP(semCCreate), {0, 1}, "ptr", "1.-1,min:null", "null"},
    {OP(semMCreate), {0}, "ptr", "", "null"},
    {OP(semTake), {SEM, NO_WAIT}, "0", "0:-1/id"},
    {OP(semGive), {SEM}, "0", "0:-1/id"},
    {OP(semFlush), {SEM}, "0", "0:-1/id"},
    {OP(semDelete), {SEM}, "0", "0:-1/id"},
    {OP(semShow), {SEM, OUTPUT, 1}, "-"},
    {OP(semList), {OUTPUT, 1}, "0"},

    // Message queues
    {OP(msgQCreate), {4, 16, 0}, "ptr",
        "0.0,-1,min:null/length 0.max:null/mem 1.-1,min:null/length 1.max:null/mem", "null/mem"},
    {OP(msgQSend), {QUEUE, room(16), 4, NO_WAIT, MSG_PRI_NORMAL}, "0",
        "0:-1/id 'msgQSend not found' 2.half,max:-1/length 'msglen > queue->msg_len|'"},
    {OP(msgQReceive), {QUEUE, room(16), 16, NO_WAIT}, "4*",
        "0.null:-1 0.never,gone:-1/id 1:0 2.0:-1/length 'buflen < queue->msg_len   dd |'"},
    {OP(msgQNumMsgs), {QUEUE}, "1", "0:-1"},
    {OP(msgQDelete), {QUEUE}, "0", "0:-1/id"},
    {OP(msgQSafeDelete), {[] { return new MSG_Q_ID(new_queue()); }}, "0", "0:-1"},
    {OP(msgQShow), {QUEUE, OUTPUT, 1}, "0"},
    {OP(msgQList), {OUTPUT, 1}, "0"},

    // Watchdogs and the exception task
    {OP(wdCreate), {}, "ptr", "", "null"},
    {OP(wdStart), {DOG, 5, FUNCTION, 0}, "0", "0:-1"},
    {OP(wdCancel), {DOG}, "0", "0:-1/id"},
    {OP(wdDelete), {DOG}, "0", "0:-1/id"},
    {OP(wdogShow), {[] {
        return wdStart(wdCreate(), 5, nullptr, nullptr) == OK ? stdout : nullptr;
    }}, "1", "0:0"},
    {OP(process_wdog), {}, "-"},
    {OP(exception_task), {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, "stays"},
    {OP(wdAdjust), {100, 101}, "1000000", "0.max:0 0.0:101000000 0.-1:102000000 0.min:50 1.0,-1,min:0 1.max:50"},
    {CALL(selfRestart, (task_t* task) {
        const taskId_t before = task == nullptr ? 0 : task->pthrid;
        selfRestart(task);
        process_wdog();
        return taskIdVerify(before);
    }), {[] { // the table of watchdogs is there, and stays
        return wdCreate(), block_of(new_task());
    }}, "-1/id", "", "0", "0"},
    {CALL(self_starter, (taskId_t id) { return self_starter(id), taskIdVerify(id); }), {TASK},
        "-1/id", "", "0", "0"},

    // Clock, ticks and system time
    {OP(sysClkRateGet), {}, "100"},
    {CALL(sysClkRateSet, (int ticks) { return sysClkRateSet(ticks), sysClkRateGet(); }), {50}, "50",
        "0:100"},
    {OP(tickInit), {}, "-"},
    {OP(tickReInit), {}, "-"},
    {OP(tickGet), {}, "n"},
    {OP(osaLongTimeSpanCompute), {1, 5}, "4", "0.half:-9223372036854775803 0.0:5 0.max:6 1.0:-1 1.max:-2 1.half:9223372036854775807"},
    {OP(osaIntTimeSpanCompute), {1, 5}, "4", "0.half:2147483653 0.0:5 0.max:6 1.half:2147483647 1.max:4294967294 1.0:4294967295"},
    {OP(osaUpdateSysTimeBase), {100, 50}, "-"},
    {OP(osaGetSysUpMs), {}, "n"},
    {OP(osaGetSysUpSeconds), {}, "n"},
    {OP(osaSetTime), {2024, 0, 15, 12, 0, 0, 0}, "0"},
    {OP(osaSetTimer), {2024, 0, 15, 12, 0, 0, 0}, "0"},
    {OP(osaUpdateTimeZone), {"CET-1"}, "0", "0:-1", "-1 0"},

    // Logging, pipes, tracing and debug aids
    {OP(logInit), {1, 100}, "0", "", "0"},
    {OP(logFdSet), {1}, "-"},
    {OP(logFdAdd), {1}, "-1/id"},
    {OP(logFdAdd), {LOG}, "0"},
    {OP(logFdDelete), {LOG}, "-1"},
    {OP(setExLogCallBack), {FUNCTION}, "-"},
    {OP(logMsg), {"%s", 1, 2, 3, 4, 5, 6}, "1"},
    {OP(pipeDevCreate), {"fifo", 1, 1}, "0", "0:-1"},
    {OP(pipeDevDelete), {"fifo", 1}, "0"},
    {OP(intContext), {}, "0"},
    {OP(splnet), {}, "0"},
    {OP(splx), {1}, "-"},
    {OP(mybreak), {}, "-"},
    {OP(vxShell), {}, "stays"},
    {CALL(trace_time, () {
        close(STDERR_FILENO);
        trace_time();
    }), {}, "-", "", "-"},
    {OP(signal_init), {}, "-"},
    {OP(sighandler), {fixed(11)}, "-"}, // the signal is not used, and the second call is the last
    {CALL(gdb, () {
        const pid_t parent = getpid();
        gdb();
        getpid() != parent ? _exit(0) : void();
    }), {}, "-"},

    // Socket addresses
    {OP(sockGetStorageFamily), {STORAGE}, "2", "0:0"},
    {OP(sockGetStoragePort), {STORAGE, room(2)}, "0*", "0:2 1:2"},
    {OP(sockSetStoragePort), {STORAGE, 80}, "0", "0:2"},
    {OP(sockGetStorageIpVer), {STORAGE}, "1", "0:0"},
    {OP(sockGetStorageStringAddr), {STORAGE, room(46), 46}, "0*", "0:2 1:2 2.0:2"},
    {OP(sockSetStorageByStringAddr), {"10.0.0.1", 80, room(128)}, "0*", "0:1 2:2"},
    {OP(sockGetStorageBinaryAddr), {STORAGE, room(20)}, "0*", "0:2 1:2"},
    {OP(sockSetStorageByBinaryAddr), {SOCK_IPTYPE_OTHER, IPVER_IPV4, room(16), 80, room(128)}, "0*", "0:2 1:3 2:1 4:2"},
    {OP(sockIsValidAddr), {"::1"}, "1", "0:0"},
    {OP(validateIP4Dotted), {"10.0.0.1"}, "1", "0:0"},
    {OP(sockIpAddrPton), {"::1", room(20)}, "0*", "0:1* 1:0"},
    {OP(sockIpAddrNtop), {ADDRESS, room(46), 46}, "0*", "0:1 1:2 2.0:2"},
    {OP(sockGetIpVer), {"10.0.0.1"}, "1", "0:0"},
    {OP(sockGetIpAddrType), {ADDRESS}, "3", "0:0"},
    {OP(sockCompareIpAddr), {ADDRESS, ADDRESS}, "2", "0:0 1:0"},
    {OP(sockGetPeerName), {SOCKET, room(128)}, "0*", "1:2"},
    {OP(sockGetPeerAddr), {SOCKET, room(20)}, "0*", "1:2"},

    // Resolver
    {OP(resolv), {host("localhost"), 0, 0}, "ptr", "0:null", "null ptr", "", "null"},
    {OP(osaGetIpFromName), {host("localhost")}, "n", "", "n"},
    {OP(osaGetHostByName), {host("10.0.0.1"), QUERY_ADDRESS, SERV_NONE}, "ptr", "0:null 1.-1,min,max:null", "null"},
    {OP(osaGetHostByName), {host("no.such.host"), QUERY_NAPTR, SERV_SIP}, "null", "", "null"},
    {OP(osaFreeHostInfoList), {[] {
        return osaGetHostByName("10.0.0.1", QUERY_ADDRESS, SERV_NONE);
    }}, "-"},

    // SNTP client
    {OP(osaGetTimeFromSntpServer), {host("127.0.0.1"), 0, room(16)}, "0*", 
        "0.empty,long,bytes:-1 0.null:-1 'sntpcTimeGet: server is NULL.|' "
        "1.min:-1 'sntpcTimeGet: param error.|' 2:-1 'sntpcTimeGet: param error.|'", "-1", "", "-1"},
    {OP(sntpcInit), {123}, "0"},
    {CALL(sntpcTimeGet, (char* host, u_int timeout, struct timespec* time) {
        return sntpcInit(123), sntpcTimeGet(host, timeout, time);
    }), {host("127.0.0.1"), 0, room(16)}, "0*", 
        "0.empty,long,bytes:-1 0.null:-1 'sntpcTimeGet: server is NULL.|' "
        "1.half:-1 'sntpcTimeGet: param error.|' 2:-1 'sntpcTimeGet: param error.|'", "-1", "", "-1"},

    // Host table and address helpers
    {OP(ifLibInit), {}, "-"},
    {OP(resolvInit), {}, "0"},
    {OP(inet_ntoa_b), {0x0100000a, room(16)}, "-*", "1:-"},
    {OP(checksum), {room(8), count(8)}, "n"},
    {CALL(_presolvHostLibGetByName, (char* name) {
        hostTblInit();
        return reinterpret_cast<int (*)(char*)>(_presolvHostLibGetByName)(name);
    }), {host("10.0.0.1")}, "n", "0:-1", "n"},

    // Taken over from the C library
    {OP(sysinfo), {room(112)}, "-1"},
    {OP(getline), {[] { return new char*(new char[16]); }, [] { return new size_t(16); },
         [] { return lines(); }}, "5", "0:-1 1:-1 2:-1", "5"},
    {OP(sethostname), {"host", 4}, "0"},
    {OP(gettid), {}, "PID"},
};
// clang-format on
