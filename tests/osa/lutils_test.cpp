#include "fail.h"
#include "osaMsg.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

class LogTest : public testing::Test {
  protected:
    /** Starts with the table {1}. */
    void SetUp() override
    {
        logInit(1, 100);
        for (const int fd : {1, 2, 3, 4, 5, 6, 7}) {
            while (logFdDelete(fd) == OK) {
            }
        }
        logInit(1, 100);
    }

    void TearDown() override { setExLogCallBack(nullptr); }

    /** Takes the table apart: what it held, in no order. */
    static std::string drain()
    {
        std::string held;
        for (int fd = 0; fd < 8; fd++) {
            while (logFdDelete(fd) == OK) {
                held += std::to_string(fd);
            }
        }
        return held;
    }
};

// ---- Descriptors ----

TEST_F(LogTest, TableHoldsFiveAndTheFirstOfEqualOnesGoes)
{
    EXPECT_EQ(logFdDelete(3), ERROR);
    for (const int fd : {3, 4, 3, 5}) {
        EXPECT_EQ(logFdAdd(fd), OK);
    }
    EXPECT_EQ(logFdAdd(6), ERROR);
    EXPECT_EQ(logFdDelete(3), OK);
    EXPECT_EQ(logFdAdd(7), OK);
    EXPECT_EQ(logFdAdd(6), ERROR);
    EXPECT_EQ(drain(), "13457");
}

TEST_F(LogTest, SettingReplacesTheDefaultAndNoOther)
{
    logFdSet(2);
    EXPECT_EQ(drain(), "2");

    logFdSet(2); // the old default is gone already
    for (const int fd : {3, 4, 5, 6}) {
        EXPECT_EQ(logFdAdd(fd), OK);
    }
    logFdSet(7); // full, but for the default's own place
    EXPECT_EQ(logFdDelete(7), OK);
    EXPECT_EQ(logFdAdd(3), OK);
    logFdSet(1); // full: no default any more
    EXPECT_EQ(logFdDelete(3), OK);
    EXPECT_EQ(logFdAdd(1), OK);
    logFdSet(2); // takes out nothing, for that 1 is somebody else's
    EXPECT_EQ(drain(), "13456");
}

// ---- Messages ----

static std::atomic<int> messages = 0;
static std::vector<int> received;
static char* received_fmt;

static int record_message(char* fmt, int a, int b, int c, int d, int e, int f)
{
    received_fmt = fmt;
    received = {a, b, c, d, e, f};
    return -7;
}

static int count_message(char*, int, int, int, int, int, int)
{
    return messages++;
}

static int use_the_table_from_another_thread(char*, int, int, int, int, int, int)
{
    std::thread([] { setExLogCallBack(count_message); }).join();
    return 0;
}

TEST_F(LogTest, MessageGoesToTheCallbackUnformatted)
{
    char fmt[] = "%s %d\n";
    setExLogCallBack(record_message);
    EXPECT_EQ(logMsg(fmt, 1, -2, 3, 4, 5, 6), 1);
    EXPECT_EQ(received_fmt, fmt);
    EXPECT_EQ(received, (std::vector<int>{1, -2, 3, 4, 5, 6}));

    setExLogCallBack(use_the_table_from_another_thread); // no lock is held over it
    EXPECT_EQ(logMsg(fmt, 0, 0, 0, 0, 0, 0), 1);
    EXPECT_EQ(exLogCallBack, count_message);
}

TEST_F(LogTest, MessageWithoutCallbackIsWrittenNowhere)
{
    setExLogCallBack(record_message);
    logInit(1, 100); // takes the callback out
    received.clear();
    testing::internal::CaptureStderr();
    stdout_capture out;
    EXPECT_EQ(logMsg(const_cast<char*>("text\n"), 1, 2, 3, 4, 5, 6), 1);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(received.empty());
}

// In a process of its own, where nobody called logInit yet.
static void use_without_init()
{
    char fmt[] = "text";
    errno = 0;
    if (logFdAdd(3) != ERROR || errno != S_objLib_OBJ_ID_ERROR || logFdDelete(0) != ERROR) {
        _exit(1);
    }
    logFdSet(3);
    errno = 0;
    if (logMsg(fmt, 0, 0, 0, 0, 0, 0) != 1 || errno != 0) {
        _exit(2);
    }
    setExLogCallBack(count_message);
    if (logMsg(fmt, 0, 0, 0, 0, 0, 0) != 1 || messages != 1) {
        _exit(3);
    }
    fail_malloc(1);
    if (logInit(1, 100) != OK || !failed() || logFdAdd(3) != ERROR) {
        _exit(4);
    }
    fail_nothing();
    if (logInit(1, 100) != OK || logFdDelete(1) != OK || logFdDelete(3) != ERROR) {
        _exit(5);
    }
    _exit(0);
}

TEST(LogDeathTest, UnusableBeforeItsSemaphoreExists)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(use_without_init(), testing::ExitedWithCode(0), "");
}

// Tasks that end in the middle of it leave the table whole and open to others; callbacks come and
// go meanwhile.
TEST_F(LogTest, DeletedTasksLeaveTheTableOpen)
{
    for (int round = 0; round < 25; round++) {
        probe p[3];
        std::vector<taskId_t> ids;
        for (probe& mine : p) {
            ids.push_back(spawn([&mine, round] {
                probe_attach(&mine);
                for (;;) {
                    logFdAdd(3);
                    logMsg(const_cast<char*>("text"), 0, 0, 0, 0, 0, 0);
                    setExLogCallBack(round % 2 == 0 ? count_message : nullptr);
                    logFdDelete(3);
                }
            }));
        }
        for (size_t i = 0; i < ids.size(); i++) {
            ASSERT_TRUE(eventually([&] { return p[i].running.load(); }));
            ASSERT_EQ(taskDelete(ids[i]), OK);
        }
        for (probe& ended : p) {
            ASSERT_TRUE(eventually([&] { return ended.ended.load(); }));
        }
        while (logFdDelete(3) == OK) {
        }
        ASSERT_EQ(logFdAdd(4), OK);
        ASSERT_EQ(logFdDelete(4), OK);
    }
    EXPECT_EQ(drain(), "1");
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
    umask(mask);
    ASSERT_EQ(stat(name.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode, S_IFIFO | 0755U);
    EXPECT_EQ(pipeDevCreate(name.data(), 1, 1), OK);
    EXPECT_EQ(pipeDevCreate(dir, 1, 1), OK);
    EXPECT_EQ(pipeDevDelete(name.data(), 0), OK);
    EXPECT_NE(stat(name.c_str(), &info), 0);
    EXPECT_EQ(pipeDevDelete(name.data(), 0), OK);
    EXPECT_EQ(pipeDevDelete(nullptr, 0), OK);

    name = std::string(dir) + "/missing/fifo";
    EXPECT_EQ(pipeDevCreate(name.data(), 1, 1), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(pipeDevCreate(nullptr, 1, 1), ERROR);
    rmdir(dir);
}

// ---- Kernel calls ----

TEST(Kernel, ShellSleepsUntilItIsDeleted)
{
    probe p;
    const taskId_t id = spawn([&p] {
        probe_attach(&p);
        vxShell();
    });
    EXPECT_EQ(intContext(), 0);
    EXPECT_EQ(splnet(), 0);
    splx(1);
    mybreak();
    ASSERT_TRUE(eventually([&] { return p.running.load(); }));
    usleep(20'000);
    EXPECT_FALSE(p.ended);
    EXPECT_EQ(taskDelete(id), OK);
    EXPECT_TRUE(eventually([&] { return p.ended.load(); }));
}

// ---- Functions under libc's names ----

// Through a pointer, for the headers may have an inline body of their own.
static ssize_t (*volatile line_of)(char**, size_t*, FILE*) = getline;

TEST(Getline, FillsTheCallersBuffer)
{
    FILE* file = tmpfile();
    const auto next = [file](size_t size) {
        std::vector<char> buffer(size);
        char* start = buffer.data();
        const ssize_t length = line_of(&start, &size, file);
        return std::to_string(length) + (length > 0 ? start : "");
    };
    fputs("abc\nabcdefgh\nlast", file);
    rewind(file);
    EXPECT_EQ(next(16), "4abc\n");
    EXPECT_EQ(next(4), "3abc");
    EXPECT_EQ(next(4), "3def");
    EXPECT_EQ(next(4), "3gh\n");
    EXPECT_EQ(next(2), "1l");
    EXPECT_EQ(next(16), "3ast");
    EXPECT_EQ(next(16), "-1");
    fclose(file);
}

TEST(Getline, RefusesABufferWithoutRoom)
{
    FILE* file = tmpfile();
    char buffer[8] = "kept";
    char* start = buffer;
    char* none = nullptr;
    size_t n = sizeof buffer;

    fputs("abc\n", file);
    rewind(file);
    EXPECT_EQ(line_of(nullptr, &n, file), -1);
    EXPECT_EQ(line_of(&start, nullptr, file), -1);
    EXPECT_EQ(line_of(&none, &n, file), -1);
    for (n = 0; n < 2; n++) {
        EXPECT_EQ(line_of(&start, &n, file), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_STREQ(buffer, "kept");
    n = SIZE_MAX; // more than fgets can be told
    EXPECT_EQ(line_of(&start, &n, file), 4);
    EXPECT_STREQ(buffer, "abc\n");
    fclose(file);
}

TEST(Replaced, HostNameStaysAndThreadsHaveIds)
{
    const std::string too_long(1000, 'x'); // the system's own call would refuse it
    EXPECT_EQ(sethostname(too_long.c_str(), too_long.size()), 0);

    pid_t other = 0;
    std::thread([&other] { other = gettid(); }).join();
    EXPECT_EQ(gettid(), getpid());
    EXPECT_NE(other, getpid());
    EXPECT_GT(other, 0);
}
