#include "fail.h"
#include "osaMsg.h"

#include <gtest/gtest.h>

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

/** Adds descriptors, and says which found room. */
static std::string add(const std::string& fds)
{
    std::string added;
    for (const char fd : fds) {
        added += logFdAdd(fd - '0') == OK ? std::string(1, fd) : "";
    }
    return added;
}

TEST(LogTest, TableHoldsFiveAndSettingReplacesTheDefaultAndNoOther)
{
    logInit(1, 100);
    drain();
    logFdSet(1);
    EXPECT_EQ(logFdDelete(3), ERROR);
    EXPECT_EQ(add("34356"), "3435");
    logFdSet(2);                   // full, but for the default's own place
    EXPECT_EQ(logFdDelete(3), OK); // one of the two
    EXPECT_EQ(add("76"), "7");
    EXPECT_EQ(drain(), "23457");

    add("34567"); // the old default is gone already
    logFdSet(1);  // full: no default any more
    EXPECT_EQ(logFdDelete(3), OK);
    EXPECT_EQ(add("1"), "1");
    logFdSet(2); // takes out nothing, for that 1 is somebody else's
    EXPECT_EQ(drain(), "14567");
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

// In a process of its own, where nobody called logInit yet.
TEST(LogDeathTest, TableNeedsItsSemaphoreAndMessagesOnlyACallback)
{
    const auto body = [] {
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
        _exit(HasFailure() ? 1 : 0);
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(body(), testing::ExitedWithCode(0), "");
}

// ---- Pipes ----

TEST(Pipe, IsAFifoAndAnExistingFileWillDo)
{
    char name[] = "/tmp/pipeXXXXXX";
    char missing[] = "/nowhere/fifo";
    struct stat info = {};
    close(mkstemp(name));
    EXPECT_EQ(pipeDevCreate(name, 1, 1), OK);
    EXPECT_EQ(pipeDevDelete(name, 0), OK);
    EXPECT_NE(access(name, F_OK), 0);
    const mode_t mask = umask(022);
    EXPECT_EQ(pipeDevCreate(name, 1, 1), OK);
    umask(mask);
    stat(name, &info);
    EXPECT_EQ(info.st_mode, S_IFIFO | 0755U);
    for (char* gone : {name, name, static_cast<char*>(nullptr)}) {
        EXPECT_EQ(pipeDevDelete(gone, 0), OK);
    }
    EXPECT_EQ(pipeDevCreate(missing, 1, 1), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(pipeDevCreate(nullptr, 1, 1), ERROR);
}

// ---- A function under libc's name ----

// Through a pointer, for the headers may have an inline body of their own.
static ssize_t (*volatile line_of)(char**, size_t*, FILE*) = getline;

TEST(Replaced, GetlineFillsTheCallersBufferWhichMustHaveRoom)
{
    const struct {
        size_t room;
        ssize_t length;
        const char* left; // in the buffer
    } reads[] = {{1, -1, "kept"}, {0, -1, "kept"},      {16, 4, "abc\n"},
                 {4, 3, "abc"},   {4, 3, "def"},        {4, 3, "gh\n"},
                 {2, 1, "l"},     {SIZE_MAX, 3, "ast"}, {16, -1, "ast"}};
    char text[] = "abc\nabcdefgh\nlast";
    FILE* file = fmemopen(text, strlen(text), "r");
    char buffer[16] = "kept";
    char* start = buffer;
    char* none = nullptr;
    size_t room = sizeof buffer;
    EXPECT_EQ(line_of(nullptr, &room, file), -1);
    EXPECT_EQ(line_of(&start, nullptr, file), -1);
    errno = 0;
    EXPECT_EQ(line_of(&none, &room, file), -1);
    EXPECT_EQ(errno, EINVAL);
    for (const auto& read : reads) {
        room = read.room;
        EXPECT_EQ(line_of(&start, &room, file), read.length) << read.left;
        EXPECT_STREQ(buffer, read.left);
    }
    fclose(file);
}
