#include "sntp.h"

#include "dns_double.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <optional>
#include <poll.h>
#include <semaphore>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using std::string;

// ---- The wait, watched and hurried ----

static std::atomic<bool> hurry;        // waits with an end last 20 ms
static std::atomic<int> limited_waits; // of 5 s exactly
static std::atomic<int> unlimited_waits;
static std::atomic<bool> false_alarm;     // says readable when it is not
static std::function<void()> before_wait; // set while nobody waits

extern "C" int __real_ppoll(pollfd*, nfds_t, const timespec*, const sigset_t*);
extern "C" int __wrap_ppoll(pollfd* fds, nfds_t count, const timespec* limit, const sigset_t* mask)
{
    const timespec shortly = {0, 20000000};

    if (limit == nullptr) {
        unlimited_waits++;
    } else if (limit->tv_sec == 5 && limit->tv_nsec == 0) {
        limited_waits++;
    }
    if (before_wait) {
        before_wait();
    }
    if (false_alarm) {
        return 1;
    }
    return __real_ppoll(fds, count, hurry && limit != nullptr ? &shortly : limit, mask);
}

// ---- A server that does as it is told ----

static sockaddr_in loopback(const char* host, uint16_t port)
{
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    inet_pton(AF_INET, host, &addr.sin_addr);
    return addr;
}

class peer {
  public:
    explicit peer(const char* host = "127.0.0.1", uint16_t wanted_port = 0)
    {
        sockaddr_in addr = loopback(host, wanted_port);
        socklen_t size = sizeof addr;
        fd = socket(AF_INET, SOCK_DGRAM, 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), size), 0) << strerror(errno);
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size);
        port = ntohs(addr.sin_port);
        server = std::thread([this] { serve(); });
    }

    ~peer()
    {
        sockaddr_in addr = {};
        socklen_t size = sizeof addr;
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size);
        stopping = true;
        sendto(fd, "", 0, 0, reinterpret_cast<sockaddr*>(&addr), size); // wakes it
        server.join();
        close(fd);
    }

    /** What every request gets from here on; nothing without one. */
    void answer(std::optional<string> bytes, bool as_stranger = false)
    {
        std::lock_guard<std::mutex> guard(lock);
        reply = std::move(bytes);
        stranger = as_stranger;
    }

    string last_request()
    {
        std::lock_guard<std::mutex> guard(lock);
        return request;
    }

    uint16_t port = 0;
    std::atomic<int> requests{0};

  private:
    void serve()
    {
        for (;;) {
            char bytes[256];
            sockaddr_in from = {};
            socklen_t size = sizeof from;
            const ssize_t length =
                recvfrom(fd, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from), &size);
            if (stopping) {
                return;
            }
            std::lock_guard<std::mutex> guard(lock);
            requests++; // before the reply lets the asker look
            request.assign(bytes, length > 0 ? static_cast<size_t>(length) : 0);
            if (reply) {
                const int out = stranger ? socket(AF_INET, SOCK_DGRAM, 0) : fd;
                sendto(out, reply->data(), reply->size(), 0, reinterpret_cast<sockaddr*>(&from),
                       size);
                if (stranger) {
                    close(out);
                }
            }
        }
    }

    int fd;
    std::mutex lock; // guards the three below
    std::optional<string> reply;
    string request;
    bool stranger = false;
    std::atomic<bool> stopping{false};
    std::thread server;
};

static string reply_of(uint32_t seconds, uint32_t fraction, uint8_t first = 0x0c, size_t size = 48)
{
    string bytes(48, '\xee'); // what is not looked at
    bytes[0] = static_cast<char>(first);
    for (int i = 0; i < 4; i++) {
        bytes[static_cast<size_t>(43 - i)] = static_cast<char>(seconds >> 8 * i);
        bytes[static_cast<size_t>(47 - i)] = static_cast<char>(fraction >> 8 * i);
    }
    bytes.resize(size, '\xee');
    return bytes;
}

static STATUS fetch(timespec* now, u_int timeout = 0, const char* server = "127.0.0.1")
{
    return sntpcTimeGet(const_cast<char*>(server), timeout, now);
}

static int open_files()
{
    DIR* dir = opendir("/proc/self/fd");
    int count = 0;
    while (readdir(dir) != nullptr) {
        count++;
    }
    closedir(dir);
    return count;
}

class SntpTest : public testing::Test {
  protected:
    void SetUp() override
    {
        dns_clear();
        hurry = false_alarm = false;
        limited_waits = unlimited_waits = 0;
        before_wait = nullptr;
    }
    void TearDown() override { SetUp(); }
};

// ---- Replies ----

TEST_F(SntpTest, RepliesAreTakenForTheirTransmitTime)
{
    constexpr uint32_t SOME = 0xe8b6a8c0; // 2023-09-21 11:34:24
    constexpr time_t SOME_TIME = 1695296064;
    const struct {
        string reply;
        STATUS result;
        time_t seconds;
        long nanoseconds;
    } cases[] = {
        {reply_of(SOME, 0x80000000), OK, SOME_TIME, 499999940},
        {reply_of(SOME, 0x40000000), OK, SOME_TIME, 249999970},
        {reply_of(SOME, 0x0fffffff), OK, SOME_TIME, 62499996},
        {reply_of(SOME, 0x10000000), OK, SOME_TIME, 62499980},
        {reply_of(SOME, 1), OK, SOME_TIME, 0},
        {reply_of(SOME, 0xffffffff), OK, SOME_TIME, 999999950},
        {reply_of(1, 0), OK, 2085978497, 0}, // 2036-02-07 06:28:17, the next era
        {reply_of(2208988799, 0), OK, 4294967295, 0},
        {reply_of(2208988800, 0), OK, 0, 0},
        {reply_of(0xffffffff, 0), OK, 2085978495, 0},
        {reply_of(SOME, 0, 0x08), OK, SOME_TIME, 0}, // any version, mode and leap indicator
        {reply_of(SOME, 0, 0xff), OK, SOME_TIME, 0},
        {reply_of(SOME, 0, 0x20), OK, SOME_TIME, 0},
        {reply_of(SOME, 0, 0xc7), ERROR, 7, 7}, // but some version
        {reply_of(0, 5), ERROR, 7, 7},
        {reply_of(SOME, 0x0fffffff, 0x0c, 49), OK, SOME_TIME, 62499996},
        {reply_of(SOME, 0x0fffffff, 0x0c, 47), OK, SOME_TIME, 62499938}, // 0x0fffff00
        {reply_of(SOME, 0x80000000, 0x0c, 44), OK, SOME_TIME, 0},
        {reply_of(SOME, 0x80000000, 0x0c, 43), OK, SOME_TIME - 0xc0, 0},
        {reply_of(SOME, 0x80000000, 0x0c, 40), ERROR, 7, 7},
        {reply_of(SOME, 0x80000000, 0x0c, 1), ERROR, 7, 7},
        {reply_of(SOME, 0x80000000, 0x0c, 0), ERROR, 7, 7},
    };
    peer server;
    sntpcInit(server.port);
    int number = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(number++);
        timespec now = {7, 7};
        server.answer(c.reply);
        EXPECT_EQ(fetch(&now), c.result);
        EXPECT_EQ(now.tv_sec, c.seconds);
        EXPECT_EQ(now.tv_nsec, c.nanoseconds);
    }
    string request(48, '\0');
    request[0] = 0x0b;
    EXPECT_EQ(server.last_request(), request);

    timespec now;
    server.answer(reply_of(SOME, 0), true); // whoever sends it
    EXPECT_EQ(fetch(&now), OK);
    EXPECT_EQ(now.tv_sec, SOME_TIME);
}

TEST_F(SntpTest, BadArgumentsAreNamed)
{
    timespec now = {7, 7};
    stdout_capture out;
    EXPECT_EQ(fetch(nullptr), ERROR);
    EXPECT_EQ(fetch(&now, 0x80000000), ERROR);
    EXPECT_EQ(fetch(&now, 0xfffffffe), ERROR);
    EXPECT_EQ(sntpcTimeGet(nullptr, 0, nullptr), ERROR);
    EXPECT_EQ(out.text(), "sntpcTimeGet: param error.\nsntpcTimeGet: param error.\n"
                          "sntpcTimeGet: param error.\nsntpcTimeGet: param error.\n");
    EXPECT_EQ(sntpcTimeGet(nullptr, 0x7fffffff, &now), ERROR);
    EXPECT_EQ(osaGetTimeFromSntpServer(nullptr, -1, &now), ERROR);
    EXPECT_TRUE(out.text().ends_with("sntpcTimeGet: param error.\nsntpcTimeGet: server is NULL.\n"
                                     "sntpcTimeGet: server is NULL.\n"));
    EXPECT_EQ(fetch(&now, 0, "none.x"), ERROR); // no address, no message
    EXPECT_TRUE(out.text().ends_with("NULL.\nsntpcTimeGet: server is NULL.\n"));
    EXPECT_EQ(now.tv_sec, 7);
}

TEST_F(SntpTest, TheEntryOfTheLibrariesUsesTheWellKnownPort)
{
    timespec now;
    sntpcInit(1);
    EXPECT_EQ(osaGetTimeFromSntpServer("none.x", 0, &now), ERROR);
    EXPECT_EQ(sntpcPort, 123);
    EXPECT_EQ(dns_queries(), "A none.x|AAAA none.x|");
}

// ---- Waiting ----

TEST_F(SntpTest, EveryAddressHasItsFiveSeconds)
{
    peer silent("127.0.0.1");
    peer second("127.0.0.2", silent.port);
    peer third("127.0.0.3", silent.port);
    dns_answer(
        "ntp.x", DNS_A,
        dns_packet().a("ntp.x", "127.0.0.1").a("ntp.x", "127.0.0.2").a("ntp.x", "127.0.0.3"));
    sntpcInit(silent.port);
    hurry = true;
    timespec now = {7, 7};
    EXPECT_EQ(fetch(&now, 0x7fffffff, "ntp.x"), ERROR);
    EXPECT_EQ(limited_waits, 3);
    EXPECT_EQ(now.tv_sec, 7);

    second.answer(reply_of(2208988800 + 20, 0));
    third.answer(reply_of(2208988800 + 30, 0));
    EXPECT_EQ(fetch(&now, 0, "ntp.x"), OK);
    EXPECT_EQ(now.tv_sec, 20);
    EXPECT_EQ(limited_waits, 5);
    EXPECT_EQ(silent.requests, 2);
    EXPECT_EQ(third.requests, 1); // not asked the second time
    EXPECT_EQ(unlimited_waits, 0);

    second.answer(reply_of(0, 1)); // an answer that is none sends it on as well
    EXPECT_EQ(fetch(&now, static_cast<u_int>(WAIT_FOREVER), "127.0.0.2"), ERROR);
    EXPECT_EQ(fetch(&now, 0, "ntp.x"), OK);
    EXPECT_EQ(now.tv_sec, 30);
    EXPECT_EQ(unlimited_waits, 1);
}

TEST_F(SntpTest, ADatagramThatVanishesDoesNotHoldTheCallUp)
{
    peer silent;
    timespec now;
    sntpcInit(silent.port);
    false_alarm = true;
    EXPECT_EQ(fetch(&now, static_cast<u_int>(WAIT_FOREVER)), ERROR);
}

TEST_F(SntpTest, ASignalEndsTheWait)
{
    peer silent;
    std::atomic<bool> done = false;
    STATUS result = OK;
    sntpcInit(silent.port);
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR2, &action, nullptr);
    std::thread waiter([&] {
        timespec now;
        result = fetch(&now, static_cast<u_int>(WAIT_FOREVER));
        done = true;
    });
    EXPECT_TRUE(eventually([&] { return silent.requests > 0; }));
    EXPECT_TRUE(eventually([&] {
        pthread_kill(waiter.native_handle(), SIGUSR2);
        return done.load();
    }));
    waiter.join();
    EXPECT_EQ(result, ERROR);
}

// ---- Sockets and threads ----

TEST_F(SntpTest, EveryFailureClosesItsSocket)
{
    peer server;
    peer silent;
    timespec now;
    const int before = open_files();
    hurry = true;
    server.answer(reply_of(5, 5, 0x04)); // no version
    for (int i = 0; i < 1000; i++) {
        sntpcInit(i % 2 == 0 ? server.port : 0); // port 0: cannot be sent to
        EXPECT_EQ(fetch(&now), ERROR);
    }
    sntpcInit(silent.port);
    EXPECT_EQ(fetch(&now), ERROR);
    false_alarm = true;
    EXPECT_EQ(fetch(&now), ERROR);
    EXPECT_EQ(open_files(), before);
}

TEST_F(SntpTest, ManyOpenFilesDoNotMatter)
{
    peer server;
    timespec now = {};
    rlimit limit;
    std::vector<int> files;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit kept = limit;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    while (files.empty() || files.back() < 1100) {
        files.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_GE(files.back(), 0) << strerror(errno);
    }
    sntpcInit(server.port);
    server.answer(reply_of(2208988800 + 9, 0));
    EXPECT_EQ(fetch(&now), OK);
    EXPECT_EQ(now.tv_sec, 9);
    for (const int file : files) {
        close(file);
    }
    setrlimit(RLIMIT_NOFILE, &kept);
}

TEST_F(SntpTest, ThreadsAskSideBySide)
{
    peer server;
    std::vector<std::thread> threads;
    sntpcInit(server.port);
    server.answer(reply_of(2208988800 + 1, 0));
    for (int n = 0; n < 4; n++) {
        threads.emplace_back([] {
            for (int i = 0; i < 50; i++) {
                timespec now;
                EXPECT_EQ(fetch(&now), OK);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(server.requests, 200);
}

// The signal comes when the task has looked for it and not gone to sleep yet.
TEST_F(SntpTest, ADeletionJustBeforeTheWaitIsNotMissed)
{
    peer server;
    timespec now;
    probe p;
    std::binary_semaphore about_to_wait(0);
    std::binary_semaphore deleted(0);
    const int before = open_files();

    dns_answer("ntp.x", DNS_A, dns_packet().a("ntp.x", "127.0.0.1").a("ntp.x", "127.0.0.1"));
    sntpcInit(server.port);
    before_wait = [&] {
        about_to_wait.release();
        deleted.acquire();
    };
    const taskId_t id = spawn([&] {
        probe_attach(&p);
        fetch(&now, static_cast<u_int>(WAIT_FOREVER), "ntp.x");
        ADD_FAILURE() << "not ended";
    });
    about_to_wait.acquire();
    EXPECT_EQ(taskDelete(id), OK);
    deleted.release();
    EXPECT_TRUE(eventually([&] { return p.ended.load(); }));
    EXPECT_EQ(open_files(), before);

    before_wait = nullptr;
    server.answer(reply_of(2208988800, 0));
    EXPECT_EQ(fetch(&now), OK);
    EXPECT_EQ(server.requests, 2); // the second address was not asked any more
}

TEST_F(SntpTest, ADeletionAnywhereInACallLeavesNothingBehind)
{
    peer silent;
    const int before = open_files();
    dns_answer("ntp.x", DNS_A, dns_packet().a("ntp.x", "127.0.0.1").a("ntp.x", "127.0.0.1"));
    sntpcInit(silent.port);
    for (int round = 0; round < 200; round++) {
        probe p;
        const taskId_t id = spawn([&] {
            timespec now;
            probe_attach(&p);
            for (;;) {
                fetch(&now, static_cast<u_int>(WAIT_FOREVER), "ntp.x");
            }
        });
        EXPECT_TRUE(eventually([&] { return p.running.load(); }));
        usleep(static_cast<useconds_t>(round % 20 * 10));
        EXPECT_EQ(taskDelete(id), OK);
        ASSERT_TRUE(eventually([&] { return p.ended.load(); }));
    }
    EXPECT_EQ(open_files(), before);
}
