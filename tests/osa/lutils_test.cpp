#include "fail.h"
#include "osaMsg.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

// ---- Messages ----

/** Takes the table of descriptors apart: what it held. */
static std::string drain()
{
    std::string held;
    for (int i = 0; i < 40; i++) { // five times each
        held += logFdDelete(i / 5) == OK ? std::to_string(i / 5) : "";
    }
    return held;
}

/** How many of some descriptors find room. */
static int add(const std::vector<int>& fds)
{
    return static_cast<int>(
        std::count_if(fds.begin(), fds.end(), [](int fd) { return logFdAdd(fd) == OK; }));
}

static std::atomic<int> messages = 0;

static int count_message(char*, int, int, int, int, int, int)
{
    return messages++;
}

static int check_message(char* fmt, int a, int b, int c, int d, int e, int f)
{
    EXPECT_STREQ(fmt, "%s %d\n");
    EXPECT_EQ((std::vector{a, b, c, d, e, f}), (std::vector{1, -2, 3, 4, 5, 6}));
    std::thread([] { setExLogCallBack(count_message); }).join(); // no lock is held
    return -7;
}

// First of all, while nobody has called logInit.
TEST(LogTest, TableNeedsItsSemaphoreAndMessagesOnlyACallback)
{
    const auto log = [] { return logMsg(const_cast<char*>("%s %d\n"), 1, -2, 3, 4, 5, 6); };
    errno = 0;
    EXPECT_EQ(logFdAdd(3), ERROR);
    EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
    EXPECT_EQ(log(), 1);
    setExLogCallBack(check_message);
    EXPECT_EQ(log(), 1);
    EXPECT_EQ(exLogCallBack, count_message);
    fail_malloc(1);
    EXPECT_EQ(logInit(1, 100), OK); // takes the callback out
    EXPECT_TRUE(failed());
    EXPECT_EQ(logFdAdd(3), ERROR);
    EXPECT_EQ(logInit(1, 100), OK);
    EXPECT_EQ(drain(), "1");
    setExLogCallBack(check_message);
    EXPECT_EQ(log() + log(), 2);
    logInit(1, 100);
    EXPECT_EQ(log(), 1);
    EXPECT_EQ(messages, 1);
}

TEST(LogTest, TableHoldsFiveAndSettingReplacesTheDefaultAndNoOther)
{
    logInit(1, 100);
    drain();
    logFdSet(1);
    EXPECT_EQ(logFdDelete(3), ERROR);
    EXPECT_EQ(add({3, 4, 3, 5, 6}), 4);
    EXPECT_EQ(logFdDelete(3), OK); // one of the two
    logFdSet(2);
    EXPECT_EQ(add({7, 6}), 1);
    EXPECT_EQ(drain(), "23457");

    logFdSet(2); // the old default is gone already
    EXPECT_EQ(add({3, 4, 5, 6}), 4);
    logFdSet(7); // full, but for the default's own place
    EXPECT_EQ(logFdDelete(7), OK);
    EXPECT_EQ(add({3}), 1);
    logFdSet(1); // full: no default any more
    EXPECT_EQ(logFdDelete(3), OK);
    EXPECT_EQ(add({1}), 1);
    logFdSet(2); // takes out nothing, for that 1 is somebody else's
    EXPECT_EQ(drain(), "13456");
}

// Tasks that end in the middle of it leave the table whole and open to others.
TEST(LogTest, DeletedTasksLeaveTheTableOpen)
{
    logInit(1, 100);
    for (int round = 0; round < 75; round++) {
        probe p;
        const taskId_t id = spawn([&p, round] {
            for (probe_attach(&p);;) {
                logFdAdd(3);
                logMsg(const_cast<char*>("text"), 0, 0, 0, 0, 0, 0);
                setExLogCallBack(round % 2 == 0 ? count_message : nullptr);
                logFdDelete(3);
            }
        });
        ASSERT_TRUE(eventually([&] { return p.running.load(); }));
        logFdDelete(3); // the two of us at it at once
        ASSERT_EQ(taskDelete(id), OK);
        ASSERT_TRUE(eventually([&] { return p.ended.load(); }));
        drain();
        ASSERT_EQ(logFdAdd(4), OK);
        EXPECT_EQ(drain(), "4");
    }
    setExLogCallBack(nullptr);
}

// ---- Pipes ----

TEST(Pipe, IsAFifoAndAnExistingFileWillDo)
{
    char dir[] = "/tmp/pipeXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string name = std::string(dir) + "/fifo";
    struct stat info;
    const mode_t mask = umask(022);
    EXPECT_EQ(pipeDevCreate(name.data(), 1, 1), OK);
    EXPECT_EQ(pipeDevCreate(name.data(), 1, 1), OK);
    umask(mask);
    EXPECT_EQ(stat(name.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode, S_IFIFO | 0755U);
    EXPECT_EQ(pipeDevDelete(name.data(), 0), OK);
    EXPECT_NE(stat(name.c_str(), &info), 0);
    EXPECT_EQ(pipeDevCreate((name + "/missing").data(), 1, 1), ERROR);
    EXPECT_EQ(errno, ENOENT);
    rmdir(dir);
}

// ---- Functions under libc's names ----

// Through a pointer, for the headers may have an inline body of their own.
static ssize_t (*volatile line_of)(char**, size_t*, FILE*) = getline;

TEST(Replaced, GetlineFillsTheCallersBufferWhichMustHaveRoom)
{
    // Room and line; null: refused, or the end.
    const std::pair<size_t, const char*> reads[] = {{1, nullptr}, {0, nullptr},      {16, "abc\n"},
                                                    {4, "abc"},   {4, "def"},        {4, "gh\n"},
                                                    {2, "l"},     {SIZE_MAX, "ast"}, {16, nullptr}};
    char text[] = "abc\nabcdefgh\nlast";
    FILE* file = fmemopen(text, strlen(text), "r");
    char buffer[16] = "kept";
    char* start = buffer;
    char* none = nullptr;
    size_t room = sizeof buffer;
    errno = 0;
    EXPECT_EQ(line_of(&none, &room, file), -1);
    EXPECT_EQ(errno, EINVAL);
    for (auto [given, line] : reads) {
        const std::string expected = line != nullptr ? line : buffer;
        const ssize_t length = line != nullptr ? static_cast<ssize_t>(expected.size()) : -1;
        EXPECT_EQ(line_of(&start, &given, file), length) << expected;
        EXPECT_EQ(buffer, expected);
    }
    fclose(file);
}

TEST(Replaced, HostNameStaysAndThreadsHaveIds)
{
    EXPECT_EQ(sethostname(std::string(1000, 'x').c_str(), 1000), 0); // the system's would refuse
    EXPECT_EQ(gettid(), getpid());
    std::thread([] { EXPECT_NE(gettid(), getpid()); }).join();
}
