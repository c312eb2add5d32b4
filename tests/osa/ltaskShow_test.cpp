#include "fail.h"
#include "osaTask.h"
#include "own_mounts.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <barrier>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <semaphore>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

// "cat A > B" and "rm B" are done here, in the way of a shell, unless a test has something of its
// own: each shell costs milliseconds.
static std::function<bool(const std::string& command)> hook; // true: done
static std::atomic<int> commands{0};
static std::atomic<int> overlapping{0};
static std::string status_text; // what fopen gives for such a status file; "-": a failure
static const char* status_of = "/task/";
static const char* closed_directory = "none";
static bool lists_nobody = false;
static bool reads_fail = false;

static void write_file(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text;
}

static std::string read_file(const std::string& path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

extern "C" int __wrap_system(const char* command)
{
    static std::atomic<int> inside{0};
    char from[64];
    char to[64];

    overlapping += inside++;
    commands++;
    if (hook && hook(command)) {
    } else if (sscanf(command, "cat %63s > %63s", from, to) == 2) {
        write_file(to, read_file(from));
    } else if (sscanf(command, "rm %63s", to) == 1) {
        unlink(to);
    }
    inside--;
    return 0;
}

extern "C" ssize_t __real_read(int, void*, size_t);
extern "C" ssize_t __wrap_read(int file, void* bytes, size_t size)
{
    return reads_fail ? -1 : __real_read(file, bytes, size);
}

extern "C" FILE* __real_fopen(const char*, const char*);
extern "C" FILE* __wrap_fopen(const char* path, const char* mode)
{
    if (status_text.empty() || strstr(path, status_of) == nullptr) {
        return __real_fopen(path, mode);
    }
    return status_text == "-" ? nullptr : fmemopen(status_text.data(), status_text.size(), "r");
}

extern "C" DIR* __real_opendir(const char*);
extern "C" DIR* __wrap_opendir(const char* path)
{
    const bool closed = strstr(path, closed_directory) != nullptr;
    return closed ? nullptr : __real_opendir(lists_nobody ? "/proc/self/ns" : path);
}

static int pid_of(std::string name)
{
    return getPidByName(name.data());
}

// No other run of this test has such a name.
static std::string unique(const char* name)
{
    return name + std::to_string(getpid());
}

/** A process with a command line and a name of its own, asleep. */
struct process {
    explicit process(const std::string& first_argument, const std::string& name = unique("p"))
    {
        const std::string link = "/tmp/" + name;
        EXPECT_EQ(symlink("/bin/sleep", link.c_str()), 0);
        pid = fork();
        if (pid < 0) {
            abort(); // or the signals meant for it would go to all processes, which is what -1 is
        }
        if (pid == 0) {
            execl(link.c_str(), first_argument.c_str(), "86397", nullptr);
            _exit(1);
        }
        const std::string proc = "/proc/" + std::to_string(pid);
        EXPECT_TRUE(eventually([&] { // the name comes first, the arguments with the new memory
            return read_file(proc + "/comm") == name + "\n" &&
                   read_file(proc + "/cmdline").find(first_argument) == 0;
        }));
        unlink(link.c_str());
    }
    ~process()
    {
        if (pid > 0) { // -1 would be everybody
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    pid_t pid;
};

// From here on this thread, and those it starts, have a /tmp of their own.
static bool private_tmp(mode_t mode)
{
    return own_mounts() && mount("none", "/tmp", "tmpfs", 0, nullptr) == 0 &&
           chmod("/tmp", mode) == 0;
}

class InspectionTest : public testing::Test {
  protected:
    static void SetUpTestSuite() { isolated = private_tmp(01777); }
    void TearDown() override
    {
        hook = nullptr;
        status_text = "";
        closed_directory = "none";
    }
    static inline bool isolated = false;
};

TEST_F(InspectionTest, FindsAProcessByEitherContainment)
{
    const std::string name = unique("hnetdXq");
    process probe("/opt/" + name, "a) (b");
    const std::string front = unique("hnetdYq");
    process longer(front + std::string(254 - front.size(), 'x') + "y86398");

    EXPECT_EQ(pid_of("in:/opt/" + name + "."), probe.pid);
    EXPECT_EQ(pid_of(unique("hnetdxq")), -1);
    EXPECT_EQ(pid_of("xxxxxxxxxxy"), longer.pid);
    EXPECT_EQ(pid_of("xxy8"), -1);  // beyond the 255 bytes that count
    EXPECT_EQ(pid_of("86397"), -1); // not in the first argument
    EXPECT_EQ(getPidByName(nullptr), -1);
    std::string ran;
    hook = [&](const std::string& command) { return ran += command + ";", false; };
    EXPECT_EQ(pid_of(name), probe.pid);
    const std::string cat = "cat /proc/" + std::to_string(probe.pid);
    EXPECT_TRUE(ran.ends_with(cat + "/cmdline > /tmp/cmdline;rm /tmp/cmdline;" + cat +
                              "/stat > /tmp/stat;rm /tmp/stat;"));
    for (const std::string text : {"77 (x) S", "77", "", "(x) S", "no file"}) {
        hook = [text](const std::string& command) {
            const bool stat = command.starts_with("cat") && command.ends_with("/tmp/stat");
            if (stat && text != "no file") {
                write_file("/tmp/stat", text);
            }
            return stat;
        };
        EXPECT_EQ(pid_of(name), text == "77 (x) S" ? 77 : -1) << text;
        EXPECT_NE(access("/tmp/stat", F_OK), 0);
    }
    closed_directory = "/proc";
    EXPECT_EQ(pid_of(name), -1);
}

TEST_F(InspectionTest, SearchesDoNotMixAndADeletionEndsOne)
{
    process one(unique("hnetdOne"));
    process two(unique("hnetdTwo"));
    const auto search = [](const char* name, pid_t pid) {
        for (int i = 0; i < 5; i++) {
            EXPECT_EQ(pid_of(unique(name)), pid);
        }
    };
    overlapping = 0;
    std::jthread other(search, "hnetdTwo", two.pid);
    search("hnetdOne", one.pid);
    other.join();
    EXPECT_EQ(overlapping, 0);

    // Two deletions: of one that waits for its turn, and of the one whose turn it is.
    std::counting_semaphore<> shell_end(0);
    hook = [&](const std::string&) { return shell_end.acquire(), false; };
    commands = 0;
    probe searching;
    probe waiting;
    const auto start_search = [](probe* p) {
        return spawn([p] { probe_attach(p), pid_of("hnetdNone"); });
    };
    const taskId_t first = start_search(&searching);
    ASSERT_TRUE(eventually([] { return commands == 1; }));
    const taskId_t second = start_search(&waiting);
    ASSERT_TRUE(eventually([&] { return waiting.running.load(); }));
    EXPECT_EQ(taskDelete(second), OK);
    EXPECT_TRUE(eventually([&] { return waiting.ended.load(); }));
    EXPECT_EQ(taskDelete(first), OK);
    shell_end.release(2); // of "cat" and "rm"
    EXPECT_TRUE(eventually([&] { return searching.ended.load(); }));
    EXPECT_EQ(commands, 2);
    hook = nullptr;
    EXPECT_EQ(pid_of("hnetdNone"), -1); // the lock is free
}

// Searches in a child process with a fresh /tmp of a mode, in which somebody did something.
static void expect_search(pid_t pid, mode_t mode, const std::function<void()>& plant)
{
    const std::string name = unique("hnetdXq");
    const std::string text = "77 (" + name + ") S"; // would do as either file
    const auto search = [&] {
        alarm(60);
        EXPECT_TRUE(private_tmp(mode));
        write_file("/tmp/victim", text);
        plant();
        EXPECT_EQ(pid_of(name), pid);
        EXPECT_EQ(read_file("/tmp/victim"), text);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(search(), testing::ExitedWithCode(0), "");
}

TEST_F(InspectionTest, NeitherFollowsNorTrustsWhatOthersPlanted)
{
    if (!isolated) {
        GTEST_SKIP() << "no mount namespace of our own here";
    }
    process probe(unique("hnetdXq"));

    for (const char* name : {"/tmp/cmdline", "/tmp/stat"}) {
        const auto link = [=] { EXPECT_EQ(symlink("/tmp/victim", name), 0); };
        const auto file = [=] { write_file(name, "left over"); };
        const auto give_away = [=] { EXPECT_EQ(lchown(name, 4321, 4321), 0); };
        const auto swap_after_cat = [=](const std::function<void()>& plant) {
            hook = [=](const std::string& command) {
                const bool ours = command.ends_with(std::string("> ") + name);
                return ours && unlink(name) == 0 && (plant(), true);
            };
        };
        SCOPED_TRACE(name);
        // What may be removed is; what was put there after that stops the search.
        expect_search(probe.pid, 01777, link);
        expect_search(probe.pid, 01777, file);
        expect_search(probe.pid, 01777, [=] { link(), give_away(); });
        expect_search(probe.pid, 01777, [=] { file(), give_away(); });
        expect_search(-1, 01777, [=] { mkdir(name, 0700); });
        expect_search(-1, 01777, [=] { file(), chmod(name, 0666), setuid(4321); });
        expect_search(-1, 01777, [=] { swap_after_cat(link); });
        expect_search(-1, 01777, [=] { swap_after_cat([=] { mkfifo(name, 0600); }); });
        expect_search(-1, 01777, [=] {
            swap_after_cat([=] { write_file(name, read_file("/tmp/victim")), give_away(); });
        });
    }
    expect_search(-1, 01777, [] { reads_fail = true; });
    expect_search(probe.pid, 0755, [] {});
    expect_search(-1, 0777, [] {}); // anybody could exchange the files
    expect_search(-1, 01777, [] { EXPECT_EQ(chown("/tmp", 4321, 4321), 0); }); // and its owner
}

// An empty name stands for none.
static void expect_check(std::string name, TASK_STATUS_T* thread, int result, std::string printed)
{
    stdout_capture out;
    char* const given = name.empty() ? nullptr : name.data();
    EXPECT_EQ(taskListCheckByName(given, thread, 1), result) << status_text;
    EXPECT_EQ(out.text(), printed) << status_text;
}

TEST_F(InspectionTest, UpToAHundredRegisteredThreadsAreChecked)
{
    std::barrier meeting(151);
    taskNeedCheck();
    taskNeedCheck(); // twice is looked at twice
    std::vector<std::jthread> threads;
    for (int i = 0; i < 150; i++) {
        threads.emplace_back([&] {
            taskNeedCheck();
            meeting.arrive_and_wait();
            meeting.arrive_and_wait();
        });
    }
    meeting.arrive_and_wait();
    EXPECT_EQ(checkTaskStatusNum, 100);
    EXPECT_EQ(taskListCheck(), 0);
    for (const TASK_STATUS_T& entry : taskStatus) {
        EXPECT_EQ(entry.exist, 1);
    }
    meeting.arrive_and_wait();
    threads.clear();
    stdout_capture out;
    EXPECT_TRUE(eventually([] { return taskListCheck() == getpid() && taskStatus[2].exist == 0; }));
    EXPECT_NE(out.text().find("one or more thread is not exist!\n"), std::string::npos);
    EXPECT_EQ(taskStatus[1].exist, 1);
}

TEST_F(InspectionTest, AStoppedProcessIsReportedByItsName)
{
    std::string name = unique("hnetd");
    process probe(name, name);
    TASK_STATUS_T thread = {probe.pid, 0};

    expect_check(name, &thread, 0, "");
    kill(probe.pid, SIGSTOP);
    waitpid(probe.pid, nullptr, WUNTRACED);
    expect_check(name, &thread, probe.pid, "");
    EXPECT_EQ(thread.exist, 1);
    expect_check(name.substr(1), &thread, 0, ""); // its command line's, but not its name
    EXPECT_EQ(thread.exist, 0);
    expect_check("hnetdNone", &thread, 0, "Can not find process hnetdNone!\n");
}

TEST_F(InspectionTest, StatusFilesAreReadByTheirKeys)
{
    const std::string id = std::to_string(getpid());
    const std::string pid = "Pid:\t" + id + "\n";
    const std::string path = "/proc/" + id + "/task/" + id + "/status";
    const std::string missing = "one or more thread is not exist!\n";
    const std::string unreadable = "file read error!\n" + missing;
    const struct {
        std::string text;
        bool well;
        std::string printed;
    } cases[] = {
        {"Name:\tx\nUmask:\t0022\nState:\tR (running)\nTgid:\t1\nNgid:\t0\n" + pid, true, ""},
        {pid + "State:\tt (tracing stop)\n", true, ""},
        {"Name:\tState:\tX\nState:\tS\n" + pid, true, ""},
        {"Name:\t" + std::string(249, 'n') + "Pid:\t1\nState:\tS\n" + pid, true, ""},
        {"State:\tT (stopped)\n" + pid, false, ""},
        {"State:\tZ (zombie)\n" + pid, false, ""},
        {"State:\tS (sleeping)\nPPid:\t1\n", false, unreadable},
        {pid, false, unreadable},
        {"State:\tS\nPid:\t1\n", false, missing},
        {"-", false, "file=" + path + " open failed!\n" + missing},
    };

    TASK_STATUS_T thread = {getpid(), 0};
    for (const auto& c : cases) {
        status_text = c.text;
        expect_check("", &thread, c.well ? 0 : getpid(), c.printed);
    }
    expect_check("", nullptr, 0, "");
    status_of = "/status"; // the process's is looked at first
    expect_check("", &thread, 0, "file=/proc/" + id + "/status open failed!\n");
    status_text = "Umask:\t0022\n";
    expect_check("", &thread, 0, "file read error!\n");
    status_text.clear();
    lists_nobody = true; // a listing may miss any thread
    expect_check("", &thread, 0, "");
    lists_nobody = false;
    closed_directory = "/task";
    expect_check("", &thread, 0, "cannot open /proc/" + id + "/task\n");
}

TEST_F(InspectionTest, ShowsATaskInOneLine)
{
    char expected[200];
    task_t task = {};
    stdout_capture out;
    task.pthrid = 0x7f1200abcdefUL;
    task.prv_priority.sched_priority = 3;
    pthread_attr_init(&task.attr);
    pthread_attr_setschedpolicy(&task.attr, SCHED_RR);
    taskShow(stdout, &task);
    EXPECT_EQ(taskList(stdout, 1), 0); // prints nothing
    snprintf(expected, sizeof expected,
             "  0xabcdef %10p   NULLTASK th:abcdef SCHED_RR  pri 0  prv_pri 3 \n",
             static_cast<void*>(&task));
    EXPECT_EQ(out.text(), expected);
    pthread_attr_destroy(&task.attr);
}

TEST_F(InspectionTest, ListsTaskIdsInTheOrderOfTheirSpawn)
{
    std::counting_semaphore<> end(0);
    std::vector<int> expected;
    for (int i = 0; i < 3; i++) {
        expected.push_back(static_cast<int>(spawn([&] { end.acquire(); })));
    }
    expected.push_back(-1);
    std::vector<int> ids(4, -1);
    EXPECT_EQ(taskIdListGet(ids.data(), -1), 0);
    EXPECT_EQ(taskIdListGet(ids.data(), 2), 2);
    EXPECT_EQ(ids[2], -1);
    EXPECT_EQ(taskIdListGet(ids.data(), 4), 3);
    EXPECT_EQ(ids, expected);
    end.release(3);
    EXPECT_TRUE(eventually([&] { return taskIdListGet(ids.data(), 1) == 0; }));
    EXPECT_EXIT(taskIdListGet(nullptr, 3), testing::KilledBySignal(SIGABRT),
                ": int taskIdListGet\\(int \\*, int\\): assertion \"list\" failed\n");
}

TEST_F(InspectionTest, NamesStatusCodes)
{
    EXPECT_STREQ(VxWorksError(0x3d0004), "S_objLib_OBJ_TIMEOUT");
    EXPECT_STREQ(VxWorksError(0x110001), "S_memLib_NOT_ENOUGH_MEMORY");
    EXPECT_STREQ(VxWorksError(0x30065), "S_taskLib_ILLEGAL_PRIORITY");
    EXPECT_STREQ(VxWorksError(ENOENT), "No such file or directory");
    EXPECT_STREQ(VxWorksError(123456), "Unknown error 123456");
    fail_malloc(1, true);
    const char* const text = VxWorksError(654321);
    fail_nothing();
    EXPECT_STREQ(text, "Unknown error");
}

TEST_F(InspectionTest, DemonstratesThatPrioritiesDoNotReachThreads)
{
    stdout_capture out;
    int id;
    initCheckPriority();
    EXPECT_TRUE(eventually([&] { return taskIdListGet(&id, 1) == 0; }));
    EXPECT_NE(out.text().find("hiTask 999 @ "), std::string::npos);
}
