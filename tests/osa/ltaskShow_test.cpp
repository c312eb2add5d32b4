#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

// The shell gets the commands about one process only, for each costs milliseconds. Otherwise "cat A
// > B" and "rm B" are done here, in the way of a shell, unless a test has something of its own.
using hook_t = std::function<bool(const std::string& command)>; // true: done

static std::string for_shell = "-";
static hook_t hook;
static std::mutex commands_lock;
static std::vector<std::string> commands;
static std::atomic<int> overlapping{0};

extern "C" int __real_system(const char*);
extern "C" FILE* __real_fopen(const char*, const char*);
extern "C" DIR* __real_opendir(const char*);

static void write_file(const std::string& path, const std::string& text)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
}

static std::string read_file(const std::string& path)
{
    char text[4096];
    const int fd = open(path.c_str(), O_RDONLY);
    const ssize_t size = fd >= 0 ? read(fd, text, sizeof text) : -1;
    close(fd);
    return size > 0 ? std::string(text, static_cast<size_t>(size)) : "";
}

extern "C" int __wrap_system(const char* command)
{
    static std::atomic<int> inside{0};
    static std::atomic<bool> shell{false};
    char from[64];
    char to[64];

    overlapping += inside++;
    {
        std::lock_guard<std::mutex> guard(commands_lock);
        commands.push_back(command);
    }
    const bool copies = sscanf(command, "cat %63s > %63s", from, to) == 2;
    if (copies) {
        shell = strstr(command, for_shell.c_str()) != nullptr;
    }
    if (shell) {
        __real_system(command);
    } else if (hook && hook(command)) {
    } else if (copies) {
        write_file(to, read_file(from));
    } else if (sscanf(command, "rm %63s", to) == 1) {
        unlink(to);
    }
    inside--;
    return 0;
}

// Text that fopen gives for a thread's status file; "-" for a failure.
static std::string status_text;
static const char* closed_directory = nullptr;

extern "C" FILE* __wrap_fopen(const char* path, const char* mode)
{
    if (status_text.empty() || strstr(path, "/task/") == nullptr) {
        return __real_fopen(path, mode);
    }
    return status_text == "-" ? nullptr : fmemopen(status_text.data(), status_text.size(), "r");
}

extern "C" DIR* __wrap_opendir(const char* path)
{
    const bool closed = closed_directory != nullptr && strstr(path, closed_directory) != nullptr;
    return closed ? nullptr : __real_opendir(path);
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
class process {
  public:
    explicit process(const std::string& first_argument, const std::string& name = "probe")
    {
        char made[] = "/tmp/hnetdXXXXXX";
        directory = mkdtemp(made);
        link = directory + "/" + name;
        EXPECT_EQ(symlink("/bin/sleep", link.c_str()), 0);
        pid = fork();
        if (pid == 0) {
            execl(link.c_str(), first_argument.c_str(), "86397", nullptr);
            _exit(1);
        }
        const std::string proc = "/proc/" + std::to_string(pid);
        EXPECT_TRUE(eventually([&] { // the name comes first, the arguments with the new memory
            return read_file(proc + "/comm") == name + "\n" &&
                   read_file(proc + "/cmdline").find(first_argument) == 0;
        }));
    }

    ~process()
    {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        unlink(link.c_str());
        rmdir(directory.c_str());
    }

    void stop()
    {
        kill(pid, SIGSTOP);
        waitpid(pid, nullptr, WUNTRACED);
    }

    pid_t pid;

  private:
    std::string directory;
    std::string link;
};

static constexpr uid_t STRANGER = 4321;

// From here on this thread, and those it starts, have a /tmp of their own.
static bool private_tmp(mode_t mode)
{
    return unshare(CLONE_NEWNS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/tmp", "tmpfs", 0, nullptr) == 0 && chmod("/tmp", mode) == 0;
}

class InspectionTest : public testing::Test {
  protected:
    static void SetUpTestSuite() { isolated = private_tmp(01777); }

    void SetUp() override
    {
        for_shell = "-";
        hook = nullptr;
        status_text = "";
        closed_directory = nullptr;
        commands.clear();
        checkTaskStatusNum = 0;
    }

    static bool isolated;
};

bool InspectionTest::isolated = false;

TEST_F(InspectionTest, FindsAProcessByEitherContainment)
{
    const std::string name = unique("hnetdXq");
    process probe("/opt/" + name, "a) (b");
    const std::string front = unique("hnetdYq");
    process longer(front + std::string(254 - front.size(), 'x') + "y86398");

    const std::string dir = "/proc/" + std::to_string(probe.pid);
    for_shell = dir + "/";
    EXPECT_EQ(pid_of(name), probe.pid);
    ASSERT_GE(commands.size(), 4U);
    EXPECT_EQ(std::vector<std::string>(commands.end() - 4, commands.end()),
              (std::vector<std::string>{"cat " + dir + "/cmdline > /tmp/cmdline", "rm /tmp/cmdline",
                                        "cat " + dir + "/stat > /tmp/stat", "rm /tmp/stat"}));
    EXPECT_NE(access("/tmp/cmdline", F_OK), 0);
    EXPECT_NE(access("/tmp/stat", F_OK), 0);

    EXPECT_EQ(pid_of("Xq" + name.substr(7)), probe.pid);
    EXPECT_EQ(pid_of("in:/opt/" + name + "."), probe.pid);
    EXPECT_EQ(pid_of(unique("hnetdxq")), -1);
    EXPECT_EQ(pid_of(front), longer.pid);
    EXPECT_EQ(pid_of("xxxxxxxxxxy"), longer.pid);
    EXPECT_EQ(pid_of("xxy8"), -1);  // beyond the 255 bytes that count
    EXPECT_EQ(pid_of("86397"), -1); // not in the first argument
    EXPECT_EQ(getPidByName(nullptr), -1);
    closed_directory = "/proc";
    EXPECT_EQ(pid_of(name), -1);
}

TEST_F(InspectionTest, AStatTextThatIsNotOneGivesNoProcess)
{
    process probe(unique("hnetdZq"));
    const char* const texts[] = {"77 (x) S", "77", "", "(x) S", nullptr}; // null: no file

    for (const char* text : texts) {
        hook = [text](const std::string& command) {
            if (command.rfind("cat", 0) != 0 || command.find("stat") == std::string::npos) {
                return false;
            }
            unlink("/tmp/stat");
            if (text != nullptr) {
                write_file("/tmp/stat", text);
            }
            return true;
        };
        EXPECT_EQ(pid_of(unique("hnetdZq")), text == texts[0] ? 77 : -1);
        EXPECT_EQ(commands.back(), "rm /tmp/stat");
    }
}

TEST_F(InspectionTest, SearchesOfTwoThreadsDoNotMix)
{
    process one(unique("hnetdOne"));
    process two(unique("hnetdTwo"));
    const auto search = [](const char* name, pid_t pid) {
        for (int i = 0; i < 5; i++) {
            EXPECT_EQ(pid_of(unique(name)), pid);
        }
    };

    overlapping = 0;
    std::thread other(search, "hnetdTwo", two.pid);
    search("hnetdOne", one.pid);
    other.join();
    EXPECT_EQ(overlapping, 0);
}

TEST_F(InspectionTest, ADeletionEndsASearchAndLeavesItsLockFree)
{
    probe searching;

    hook = [](const std::string&) {
        usleep(20000);
        return false;
    };
    const taskId_t task = spawn([&] {
        probe_attach(&searching);
        pid_of(unique("hnetdNone"));
    });
    ASSERT_TRUE(eventually([] {
        std::lock_guard<std::mutex> guard(commands_lock);
        return commands.size() >= 2;
    }));
    EXPECT_EQ(taskDelete(task), OK);
    EXPECT_TRUE(eventually([&] { return searching.ended.load(); }));
    const size_t until_then = commands.size();
    hook = nullptr;
    EXPECT_EQ(pid_of(unique("hnetdNone")), -1);
    EXPECT_LT(until_then, commands.size() - until_then);
}

// ---- What somebody planted under the fixed names ----

// Searches in a child process with a fresh /tmp of a mode, in which somebody did something.
// @return the id found; -2 when the victim was touched
static int search_planted(mode_t mode, const std::function<void()>& plant)
{
    int found[2];
    int pid = -3;

    EXPECT_EQ(pipe(found), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (private_tmp(mode)) {
            write_file("/tmp/victim", unique("hnetdXq") + " (");
            plant();
            pid = pid_of("hnetdXq" + std::to_string(getppid()));
            pid = read_file("/tmp/victim") == unique("hnetdXq") + " (" ? pid : -2;
        }
        _exit(write(found[1], &pid, sizeof pid) == sizeof pid ? 0 : 1);
    }
    close(found[1]);
    EXPECT_EQ(read(found[0], &pid, sizeof pid), static_cast<ssize_t>(sizeof pid));
    waitpid(child, nullptr, 0);
    close(found[0]);
    return pid;
}

TEST_F(InspectionTest, NeitherFollowsNorTrustsWhatOthersPlanted)
{
    if (!isolated) {
        GTEST_SKIP() << "no mount namespace of our own here";
    }
    process probe(unique("hnetdXq"));

    for (const char* name : {"/tmp/cmdline", "/tmp/stat"}) {
        const auto link = [&] { EXPECT_EQ(symlink("/tmp/victim", name), 0); };
        const auto file = [&] { write_file(name, "left over"); };
        const auto give_away = [&] { EXPECT_EQ(lchown(name, STRANGER, STRANGER), 0); };
        const auto swap_after_cat = [&] {
            hook = [&](const std::string& command) {
                const bool ours = command.find(std::string("> ") + name) != std::string::npos;
                if (ours) {
                    unlink(name);
                    link();
                }
                return ours;
            };
        };
        // What we left over is removed; what others did stops the search.
        EXPECT_EQ(search_planted(01777, link), probe.pid) << name;
        EXPECT_EQ(search_planted(01777, file), probe.pid) << name;
        EXPECT_EQ(search_planted(01777, [&] { link(), give_away(); }), -1) << name;
        EXPECT_EQ(search_planted(01777, [&] { file(), give_away(); }), -1) << name;
        EXPECT_EQ(search_planted(01777, [&] { mkdir(name, 0700); }), -1) << name;
        EXPECT_EQ(search_planted(01777, swap_after_cat), -1) << name;
    }
    EXPECT_EQ(search_planted(0755, [] {}), probe.pid);
    EXPECT_EQ(search_planted(0777, [] {}), -1); // anybody could exchange the files
}

// ---- Whether threads are alive ----

// An empty name stands for none.
static int check(std::string name, TASK_STATUS_T* threads, int count, std::string* printed)
{
    stdout_capture out;
    const int result = taskListCheckByName(name.empty() ? nullptr : name.data(), threads, count);
    *printed = out.text();
    return result;
}

TEST_F(InspectionTest, RegisteredThreadsAreCheckedUntilTheyEnd)
{
    std::atomic<bool> end = false;
    std::atomic<int> registered = 0;
    const auto body = [&] {
        taskNeedCheck();
        registered++;
        while (!end) {
            usleep(1000);
        }
    };
    taskNeedCheck();
    std::thread other(body);
    ASSERT_TRUE(eventually([&] { return registered == 1; }));
    taskNeedCheck(); // twice is looked at twice
    EXPECT_EQ(taskListCheck(), 0);
    ASSERT_EQ(checkTaskStatusNum, 3);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(taskStatus[i].exist, 1) << i;
    }
    EXPECT_EQ(taskStatus[0].threadId, getpid());
    EXPECT_EQ(taskStatus[2].threadId, getpid());

    end = true;
    other.join();
    stdout_capture out;
    EXPECT_TRUE(eventually([] { return taskListCheck() == getpid(); }));
    EXPECT_NE(out.text().find("one or more thread is not exist!\n"), std::string::npos);
    EXPECT_EQ(taskStatus[1].exist, 0);
}

TEST_F(InspectionTest, TheTableTakesAHundredThreads)
{
    std::vector<std::thread> threads;

    for (int i = 0; i < 150; i++) {
        threads.emplace_back([] { taskNeedCheck(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(checkTaskStatusNum, 100);
    for (const TASK_STATUS_T& entry : taskStatus) {
        EXPECT_GT(entry.threadId, 0);
    }
}

TEST_F(InspectionTest, AStoppedProcessIsReportedByItsName)
{
    std::string name = unique("hnetd");
    process probe(name, name);
    TASK_STATUS_T thread = {probe.pid, 1};
    std::string printed;

    EXPECT_EQ(check(name, &thread, 1, &printed), 0);
    EXPECT_EQ(thread.exist, 1);
    probe.stop();
    EXPECT_EQ(check(name, &thread, 1, &printed), probe.pid);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(thread.exist, 1);
    // Found by its command line, but named otherwise: cannot be checked.
    EXPECT_EQ(check(name.substr(1), &thread, 1, &printed), 0);
    EXPECT_EQ(thread.exist, 0);
    EXPECT_EQ(check("hnetdNone", &thread, 1, &printed), 0);
    EXPECT_EQ(printed, "Can not find process hnetdNone!\n");
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
        {"Name:\tx\nState:\tS (sleeping)\nTgid:\t1\n" + pid + "PPid:\t1\n", true, ""},
        {"Name:\tx\nUmask:\t0022\nState:\tR (running)\nTgid:\t1\nNgid:\t0\n" + pid, true, ""},
        {pid + "State:\tt (tracing stop)\n", true, ""},
        {"Name:\tState:\tX\nState:\tS\n" + pid, true, ""},
        {"Name:\t" + std::string(249, 'n') + "Pid:\t1\nState:\tS\n" + pid, true, ""},
        {"State:\tT (stopped)\n" + pid, false, ""},
        {"State:\tZ (zombie)\n" + pid, false, ""},
        {"State:\tX (dead)\n" + pid, false, ""},
        {"State:\tS (sleeping)\nPPid:\t1\n", false, unreadable},
        {pid, false, unreadable},
        {"State:\tS\nPid:\t1\n", false, missing},
        {"-", false, "file=" + path + " open failed!\n" + missing},
    };

    for (const auto& c : cases) {
        TASK_STATUS_T thread = {getpid(), 0};
        std::string printed;
        status_text = c.text;
        EXPECT_EQ(check("", &thread, 1, &printed), c.well ? 0 : getpid()) << c.text;
        EXPECT_EQ(printed, c.printed) << c.text;
    }

    TASK_STATUS_T thread = {getpid(), 0};
    std::string printed;
    EXPECT_EQ(check("", nullptr, 0, &printed), 0);
    EXPECT_EQ(check("", nullptr, 3, &printed), 0);
    EXPECT_EQ(printed, "");
    closed_directory = "/task";
    EXPECT_EQ(check("", &thread, 1, &printed), 0);
    EXPECT_EQ(printed, "cannot open /proc/" + id + "/task\n");
}

// ---- Tasks, codes and the demonstration ----

static std::string shown(task_t* task)
{
    char* line = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&line, &size);

    taskShow(out, task);
    EXPECT_EQ(taskList(out, 1), 0);
    fclose(out);
    const std::string text(line, size);
    free(line);
    return text;
}

TEST_F(InspectionTest, ShowsATaskInOneLine)
{
    char name[] = "tShown";
    char block[32];
    task_t task = {};
    const struct sched_param seven = {.sched_priority = 7};

    snprintf(block, sizeof block, "%10p", static_cast<void*>(&task));
    task.pthrid = 0x7f1200abcdefUL;
    task.prv_priority.sched_priority = 3;
    pthread_attr_init(&task.attr);
    EXPECT_EQ(shown(&task), std::string("  0xabcdef ") + block +
                                "   NULLTASK th:abcdef SCHED_OTHER  pri 0  prv_pri 3 \n");
    task.taskname = name;
    pthread_attr_setschedpolicy(&task.attr, SCHED_RR);
    pthread_attr_setschedparam(&task.attr, &seven);
    EXPECT_EQ(shown(&task), std::string("  0xabcdef ") + block +
                                "     tShown th:abcdef SCHED_RR  pri 7  prv_pri 3 \n");
    pthread_attr_destroy(&task.attr);
}

TEST_F(InspectionTest, ListsTaskIdsInTheOrderOfTheirSpawn)
{
    std::atomic<bool> end = false;
    int ids[6] = {-1, -1, -1, -1, -1, -1};
    int expected[5];

    for (int& id : expected) {
        id = static_cast<int>(spawn([&] {
            while (!end) {
                taskDelay(1);
            }
        }));
    }
    EXPECT_EQ(taskIdListGet(ids, 0), 0);
    EXPECT_EQ(taskIdListGet(ids, -1), 0);
    EXPECT_EQ(ids[0], -1);
    EXPECT_EQ(taskIdListGet(ids, 2), 2);
    EXPECT_EQ(ids[2], -1);
    EXPECT_EQ(taskIdListGet(ids, 6), 5);
    EXPECT_EQ(std::vector<int>(ids, ids + 5), std::vector<int>(expected, expected + 5));
    end = true;
    EXPECT_TRUE(eventually([&] { return taskIdListGet(ids, 6) == 0; }));
}

TEST_F(InspectionTest, ANullListEndsTheProcess)
{
    int said[2];
    char text[200] = "";
    int status = 0;

    ASSERT_EQ(pipe(said), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(said[1], STDERR_FILENO);
        taskIdListGet(nullptr, 3);
        _exit(0);
    }
    close(said[1]);
    EXPECT_GT(read(said[0], text, sizeof text - 1), 0);
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
    EXPECT_NE(strstr(text, ": int taskIdListGet(int *, int): assertion \"list\" failed\n"),
              nullptr);
    close(said[0]);
}

TEST_F(InspectionTest, NamesStatusCodes)
{
    const struct {
        int code;
        const char* name;
    } codes[] = {{0x110001, "S_memLib_NOT_ENOUGH_MEMORY"},
                 {0x410001, "S_msgQLib_INVALID_MSG_LENGTH"},
                 {0x3d0003, "S_objLib_OBJ_DELETED"},
                 {0x3d0001, "S_objLib_OBJ_ID_ERROR"},
                 {0x3d0004, "S_objLib_OBJ_TIMEOUT"},
                 {0x3d0002, "S_objLib_OBJ_UNAVAILABLE"},
                 {0x160068, "S_semLib_INVALID_OPERATION"},
                 {0x580001, "S_smObjLib_NOT_INITIALIZED"},
                 {0x30065, "S_taskLib_ILLEGAL_PRIORITY"},
                 {ENOENT, "No such file or directory"},
                 {0, "Success"},
                 {0x3d0005, "Unknown error 3997701"}};

    for (const auto& c : codes) {
        EXPECT_STREQ(VxWorksError(c.code), c.name);
    }
}

TEST_F(InspectionTest, DemonstratesThatPrioritiesDoNotReachThreads)
{
    stdout_capture out;
    int ids[2];

    initCheckPriority();
    EXPECT_TRUE(eventually([&] { return taskIdListGet(ids, 2) == 0; }));
    const std::string text = out.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2000);
    for (const char* line : {"lowTask 0 @ ", "lowTask 999 @ ", "hiTask 0 @ ", "hiTask 999 @ "}) {
        unsigned long tick = 0;
        const size_t at = text.find(line);
        ASSERT_NE(at, std::string::npos) << line;
        EXPECT_EQ(sscanf(text.c_str() + at + strlen(line), "%lu\n", &tick), 1);
        EXPECT_LE(tick, tickGet());
    }
}
