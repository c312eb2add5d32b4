// Looking at processes and threads: a process by its name, whether registered threads are alive,
// control blocks and ids of tasks, names of status codes, and a demonstration of priorities.
//
// The search for a process copies files of /proc with shell commands to fixed names under /tmp,
// where anybody may have put something before. The shell would follow a link there and write
// through it. So each file is made here first, exclusively and of our own; in a directory in which
// others cannot remove or rename it, the shell can open nothing else, and what is read back is
// looked at once more.
//
// Locks, never held together except with the C library's own:
//   tmpFilesLock     the files under /tmp, over a whole search
//   registerLock     registrations; the entries below checkTaskStatusNum are complete for whoever
//                    loads it with acquire, so a check needs no lock
//   task_list_lock   inside the task lock
#include "osaTask.h"

#include "internal.h"
#include "longLock.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int TEXT_SIZE = 256; // of what is read from a file, terminator included
static constexpr int PATH_SIZE = 64;
static constexpr int THREAD_ID_SIZE = 12; // an int in decimal
static constexpr int MAX_REGISTERED = sizeof taskStatus / sizeof taskStatus[0];

static constexpr char CMDLINE_COPY[] = "/tmp/cmdline";
static constexpr char STAT_COPY[] = "/tmp/stat";

static constexpr lock_role_t tmpFilesHeld; // tmpFilesLock
static constexpr lock_role_t registerHeld; // registerLock

TASK_STATUS_T taskStatus[100]; // new entries guarded by registerLock; exist is the checker's
int checkTaskStatusNum = 0;    // atomic, written locked

static pthread_mutex_t registerLock = PTHREAD_MUTEX_INITIALIZER;
static constinit long_lock_t tmpFilesLock;

/** A line of a status file in /proc. */
typedef struct {
    const char* key; // what the line begins with, colon included
    char value[TEXT_SIZE];
    bool found;
} status_line_t;

/** A check of the threads of a process. */
typedef struct {
    int pid;
    TASK_STATUS_T* threads;
    int count;
    int found;
    bool stopped; // one is dead, a zombie or stopped
    bool listed;  // the listing has been walked, and said what could not be read
} thread_check_t;

// ---- A process by its name ----

// The command is fixed but for a process id; what comes of it shows in the file.
static void run_command(const char* command)
{
    [[maybe_unused]] const int status = system(command);
}

// Others must not be able to take our file away from under its name. Whoever owns the directory
// can, whatever its mode; root could do anything in any case.
static bool keeps_names(const char* directory)
{
    struct stat dir;

    return stat(directory, &dir) == 0 && (dir.st_uid == 0 || dir.st_uid == geteuid()) &&
           ((dir.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (dir.st_mode & S_ISVTX) != 0);
}

// Makes an empty file of our own at path; false where that is not possible. What stands there is
// removed, whoever made it, and no link is followed.
static bool claim_copy(const char* path) REQUIRES(tmpFilesHeld)
{
    if (!keeps_names("/tmp")) {
        return false;
    }
    (void)unlink(path); // what stays keeps ours from being made
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    close(fd);
    return true;
}

// Reads the beginning of our own file at path; false where it is not that, or not there.
static bool read_copy(const char* path, char (&text)[TEXT_SIZE]) REQUIRES(tmpFilesHeld)
{
    struct stat opened;
    ssize_t length = 0;

    text[0] = '\0';
    const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool ours =
        fstat(fd, &opened) == 0 && S_ISREG(opened.st_mode) && opened.st_uid == geteuid();
    if (ours) {
        length = read(fd, text, TEXT_SIZE - 1);
        text[length > 0 ? length : 0] = '\0';
    }
    close(fd);
    return ours;
}

// The first argument ends with the first zero byte of the text.
static bool command_line_fits(const char* pid, const char* name) REQUIRES(tmpFilesHeld)
{
    char command[TEXT_SIZE];
    char text[TEXT_SIZE];

    if (!claim_copy(CMDLINE_COPY)) {
        return false;
    }
    snprintf(command, sizeof command, "cat /proc/%.20s/cmdline > %s", pid, CMDLINE_COPY);
    run_command(command);
    if (!read_copy(CMDLINE_COPY, text)) {
        return false;
    }
    run_command("rm /tmp/cmdline");
    return text[0] != '\0' && (strstr(text, name) != nullptr || strstr(name, text) != nullptr);
}

// "pid (name) ...": the number ends one character before the parenthesis. -1 for anything else,
// as when the process has gone meanwhile.
static int pid_in_stat(const char* pid) REQUIRES(tmpFilesHeld)
{
    char command[TEXT_SIZE];
    char text[TEXT_SIZE];

    if (!claim_copy(STAT_COPY)) {
        return -1;
    }
    snprintf(command, sizeof command, "cat /proc/%.20s/stat > %s", pid, STAT_COPY);
    run_command(command);
    const bool copied = read_copy(STAT_COPY, text);
    run_command("rm /tmp/stat");

    char* parenthesis = copied ? strchr(text, '(') : nullptr;
    if (parenthesis == nullptr || parenthesis == text) {
        return -1;
    }
    parenthesis[-1] = '\0';
    return atoi(text);
}

static bool is_number(const char* name)
{
    return name[0] != '\0' && name[strspn(name, "0123456789")] == '\0';
}

static int search_processes(const thread_record_t* me, const char* name) REQUIRES(tmpFilesHeld)
{
    int pid = -1;
    bool fits = false;

    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return -1;
    }
    const struct dirent* entry = readdir(proc);
    while (entry != nullptr && !fits && !end_asked(me)) {
        fits = is_number(entry->d_name) && command_line_fits(entry->d_name, name);
        if (fits) {
            pid = pid_in_stat(entry->d_name);
        } else {
            entry = readdir(proc);
        }
    }
    closedir(proc);
    return pid;
}

static int find_process(thread_record_t* me, const char* name)
{
    if (name == nullptr || !long_lock_take(me, &tmpFilesLock)) {
        return -1;
    }
    role_taken(tmpFilesHeld);
    const int pid = search_processes(me, name);
    role_given(tmpFilesHeld);
    long_lock_give(&tmpFilesLock);
    return pid;
}

int getPidByName(char* processName)
{
    thread_record_t* me = op_enter();
    const int pid = find_process(me, processName);
    op_leave(me);
    return pid;
}

// ---- Whether threads are alive ----

static void parse_status_line(const char* text, status_line_t* lines, int count)
{
    for (int i = 0; i < count; i++) {
        const size_t length = strlen(lines[i].key);
        if (!lines[i].found && strncmp(text, lines[i].key, length) == 0) {
            lines[i].found = true;
            // An empty value leaves the empty text.
            [[maybe_unused]] const int words = sscanf(text + length, "%255s", lines[i].value);
        }
    }
}

static bool all_found(const status_line_t* lines, int count)
{
    for (int i = 0; i < count; i++) {
        if (!lines[i].found) {
            return false;
        }
    }
    return true;
}

// Finds the lines with the given keys, whatever their order, and the first word of each value.
// Says why where that fails, unless it is quiet.
static bool read_status(const char* path, status_line_t* lines, int count, bool quiet)
{
    char text[TEXT_SIZE];
    bool at_start = true; // of a line; a long one comes in pieces

    FILE* file = fopen(path, "re");
    if (file == nullptr) {
        if (!quiet) {
            printf("file=%s open failed!\n", path);
        }
        return false;
    }
    while (!all_found(lines, count) && fgets(text, sizeof text, file) != nullptr) {
        if (at_start) {
            parse_status_line(text, lines, count);
        }
        at_start = strchr(text, '\n') != nullptr;
    }
    fclose(file);
    const bool complete = all_found(lines, count);
    if (!complete && !quiet) {
        printf("file read error!\n");
    }
    return complete;
}

// True when the process's status can be read and its name is the given one, if there is one.
static bool process_is(int pid, const char* name)
{
    char path[PATH_SIZE];
    status_line_t line = {"Name:", "", false};

    snprintf(path, sizeof path, "/proc/%d/status", pid);
    return read_status(path, &line, 1, false) && (name == nullptr || strcmp(line.value, name) == 0);
}

// Marks the first entry of this id that is not marked yet. Returns its index, or count.
static int mark_thread(thread_check_t* check, int thread_id)
{
    for (int i = 0; i < check->count; i++) {
        TASK_STATUS_T* thread = &check->threads[i];
        if (thread->exist == 0 && thread->threadId == thread_id) {
            thread->exist = 1;
            check->found++;
            return i;
        }
    }
    return check->count;
}

// Looks at a thread of the process if it is in the table. One that is there twice is looked at and
// marked twice: the walk goes on after the entry that was marked.
static void check_thread(thread_check_t* check, const char* tid)
{
    const int thread_id = atoi(tid);

    for (int i = 0; i < check->count; i++) {
        char path[PATH_SIZE];
        status_line_t lines[] = {{"State:", "", false}, {"Pid:", "", false}};
        if (check->threads[i].threadId != thread_id) {
            continue;
        }
        snprintf(path, sizeof path, "/proc/%d/task/%.20s/status", check->pid, tid);
        if (!read_status(path, lines, 2, check->listed)) {
            continue;
        }
        i = mark_thread(check, atoi(lines[1].value));
        const char* state = lines[0].value;
        if (strcmp(state, "X") == 0 || strcmp(state, "Z") == 0 || strcmp(state, "T") == 0) {
            check->stopped = true;
            return;
        }
    }
}

// False when the threads of the process cannot be listed.
static bool check_directory(thread_check_t* check)
{
    char path[PATH_SIZE];

    snprintf(path, sizeof path, "/proc/%d/task", check->pid);
    DIR* directory = opendir(path);
    if (directory == nullptr) {
        printf("cannot open %s\n", path);
        return false;
    }
    for (const struct dirent* entry = readdir(directory); entry != nullptr;
         entry = readdir(directory)) {
        if (is_number(entry->d_name)) {
            check_thread(check, entry->d_name);
        }
    }
    closedir(directory);
    return true;
}

// The listing may pass over a thread when its neighbour ends: who was not found is looked for by
// id.
static void check_unlisted(thread_check_t* check)
{
    char tid[THREAD_ID_SIZE];

    check->listed = true;
    for (int i = 0; i < check->count; i++) {
        if (check->threads[i].exist == 0) {
            snprintf(tid, sizeof tid, "%d", check->threads[i].threadId);
            check_thread(check, tid);
        }
    }
}

static int check_threads(thread_record_t* me, const char* name, thread_check_t* check)
{
    for (int i = 0; i < check->count; i++) {
        check->threads[i].exist = 0;
    }
    check->pid = name == nullptr ? getpid() : find_process(me, name);
    if (end_asked(me)) {
        return 0;
    }
    if (check->pid <= 0) {
        printf("Can not find process %s!\n", name);
        return 0;
    }
    if (!process_is(check->pid, name) || !check_directory(check)) {
        return 0;
    }
    if (!check->stopped) {
        check_unlisted(check);
    }
    if (check->stopped) {
        return check->pid;
    }
    if (check->found < check->count) {
        printf("one or more thread is not exist!\n");
        return check->pid;
    }
    return 0;
}

int taskListCheckByName(char* processName, TASK_STATUS_T* thread, int threadNum)
{
    thread_check_t check = {};

    check.threads = thread;
    check.count = thread != nullptr ? threadNum : 0;
    thread_record_t* me = op_enter();
    const int result = check_threads(me, processName, &check);
    op_leave(me);
    return result;
}

int taskListCheck(void)
{
    return taskListCheckByName(nullptr, taskStatus, load_acquire(&checkTaskStatusNum));
}

void taskNeedCheck(void)
{
    thread_record_t* me = op_enter();
    const pid_t thread_id = gettid();
    LOCK_SECTION(&registerLock, registerHeld);
    const int number = checkTaskStatusNum;
    if (number >= 0 && number < MAX_REGISTERED) {
        taskStatus[number].threadId = thread_id;
        taskStatus[number].exist = 0;
        store_release(&checkTaskStatusNum, number + 1);
    }
    END_SECTION(registerHeld);
    op_leave(me);
}

// ---- Tasks ----

static void print_policy(FILE* out, int policy)
{
    switch (policy) {
    case SCHED_OTHER:
        fprintf(out, "SCHED_OTHER ");
        break;
    case SCHED_FIFO:
        fprintf(out, "SCHED_FIFO ");
        break;
    case SCHED_RR:
        fprintf(out, "SCHED_RR ");
        break;
    default:
        fprintf(out, "schedpolicy: %d ", policy);
        break;
    }
}

void taskShow(FILE* out, task_t* t)
{
    struct sched_param param = {};
    int policy = 0;

    if (out == nullptr || t == nullptr) {
        return;
    }
    thread_record_t* me = op_enter();
    const unsigned int id = static_cast<unsigned int>(t->pthrid); // the low 32 bits
    pthread_attr_getschedpolicy(&t->attr, &policy);
    pthread_attr_getschedparam(&t->attr, &param);
    flockfile(out); // one line, whoever else prints
    fprintf(out, "%#10x %10p %10s ", id, static_cast<void*>(t),
            t->taskname != nullptr ? t->taskname : "NULLTASK");
    fprintf(out, "th:%x ", id);
    print_policy(out, policy);
    fprintf(out, " pri %d ", param.sched_priority);
    fprintf(out, " prv_pri %d ", t->prv_priority.sched_priority);
    fprintf(out, "\n");
    funlockfile(out);
    op_leave(me);
}

int taskList(FILE*, int)
{
    return 0;
}

// In every build: the caller has nothing to go on with.
[[noreturn]] static void assertion_failed(int line, const char* function, const char* expression)
{
    op_enter();
    dprintf(STDERR_FILENO, "ltaskShow.cpp:%d: %s: assertion \"%s\" failed\n", line, function,
            expression);
    abort();
}

int taskIdListGet(int* list, int maxIds)
{
    int count = 0;

    if (list == nullptr) {
        assertion_failed(__LINE__, "int taskIdListGet(int *, int)", "list");
    }
    thread_record_t* me = op_enter();
    if (task_lock_take(me)) {
        LOCK_SECTION(&task_list_lock, taskListHeld);
        for (const task_t* task = task_list; task != nullptr; task = task->nxt_task) {
            if (count < maxIds) {
                list[count++] = static_cast<int>(task->pthrid); // the low 32 bits
            }
        }
        END_SECTION(taskListHeld);
        task_lock_give();
    }
    op_leave(me);
    return count;
}

// ---- Status codes ----

char* VxWorksError(int status)
{
    static constexpr struct {
        int code;
        const char* name;
    } codes[] = {
        {S_memLib_NOT_ENOUGH_MEMORY, "S_memLib_NOT_ENOUGH_MEMORY"},
        {S_msgQLib_INVALID_MSG_LENGTH, "S_msgQLib_INVALID_MSG_LENGTH"},
        {S_objLib_OBJ_DELETED, "S_objLib_OBJ_DELETED"},
        {S_objLib_OBJ_ID_ERROR, "S_objLib_OBJ_ID_ERROR"},
        {S_objLib_OBJ_TIMEOUT, "S_objLib_OBJ_TIMEOUT"},
        {S_objLib_OBJ_UNAVAILABLE, "S_objLib_OBJ_UNAVAILABLE"},
        {S_semLib_INVALID_OPERATION, "S_semLib_INVALID_OPERATION"},
        {S_smObjLib_NOT_INITIALIZED, "S_smObjLib_NOT_INITIALIZED"},
        {S_taskLib_ILLEGAL_PRIORITY, "S_taskLib_ILLEGAL_PRIORITY"},
    };

    for (const auto& known : codes) {
        if (known.code == status) {
            return const_cast<char*>(known.name);
        }
    }
    thread_record_t* me = op_enter();
    char* text = strerror(status); // null when there is no memory for a number without a text
    op_leave(me);
    return text != nullptr ? text : const_cast<char*>("Unknown error");
}

// ---- Demonstration of priorities ----

static constexpr int DEMO_LINES = 1000;

static void print_lines(const char* who)
{
    for (int i = 0; i < DEMO_LINES; i++) {
        thread_record_t* me = op_enter(); // not ended while the stream is locked
        printf("%s %d @ %lu\n", who, i, tickGet());
        op_leave(me);
    }
}

static void lowTaskPrint(void)
{
    print_lines("lowTask");
}

static void highTaskPrint(void)
{
    print_lines("hiTask");
}

static void spawn_demo(const char* name, int priority, void (*entry)(void))
{
    taskSpawn(const_cast<char*>(name), priority, 0, 1024, reinterpret_cast<FUNCPTR>(entry), 0, 0, 0,
              0, 0, 0, 0, 0, 0, 0);
}

void initCheckPriority(void)
{
    spawn_demo("tLowPri", 100, lowTaskPrint);
    taskDelay(3);
    spawn_demo("tHighPri", 10, highTaskPrint);
}
