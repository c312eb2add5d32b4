#include "sntp.h"

#include "dns_double.h"

#include <csignal>
#include <filesystem>
#include <optional>
#include <poll.h>

using std::string;

static constexpr u_int FOREVER = static_cast<u_int>(WAIT_FOREVER);
static constexpr uint32_t EPOCH = 2208988800; // seconds from 1900 to 1970

// ---- Servers that do as they are told ----

struct peer;
static std::vector<peer*> peers;

/** A socket whose requests are answered by whoever waits for a reply. */
struct peer {
    explicit peer(const char* host = "127.0.0.1", uint16_t port = 0)
    {
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        inet_pton(AF_INET, host, &addr.sin_addr);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        socklen_t size = sizeof addr;
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size);
        peers.push_back(this);
    }
    ~peer()
    {
        std::erase(peers, this);
        close(fd);
    }
    uint16_t port() const { return ntohs(addr.sin_port); }

    void serve()
    {
        char bytes[256];
        sockaddr_in from = {};
        socklen_t size = sizeof from;
        auto* whom = reinterpret_cast<sockaddr*>(&from);
        ssize_t length;
        while ((length = recvfrom(fd, bytes, sizeof bytes, MSG_DONTWAIT, whom, &size)) >= 0) {
            requests.emplace_back(bytes, static_cast<size_t>(length));
            if (reply) {
                const int out = socket(AF_INET, SOCK_DGRAM, 0); // whoever sends it
                sendto(out, reply->data(), reply->size(), 0, whom, size);
                close(out);
            }
        }
    }

    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr = {};
    std::optional<string> reply; // what every request gets; nothing without one
    std::vector<string> requests;
};

// ---- The wait, watched and hurried ----

static std::atomic<bool> hurry;       // waits with an end last 20 ms
static std::atomic<bool> false_alarm; // says readable when it is not
static string waits;                  // "5" for one of 5 s exactly, "-" without an end
static std::function<void()> before_wait = [] {};
static std::function<void()> before_send = [] {};

extern "C" ssize_t __real_sendto(int, const void*, size_t, int, const sockaddr*, socklen_t);
extern "C" ssize_t __wrap_sendto(int fd, const void* bytes, size_t size, int flags,
                                 const sockaddr* to, socklen_t length)
{
    before_send();
    return __real_sendto(fd, bytes, size, flags, to, length);
}

extern "C" int __real_ppoll(pollfd*, nfds_t, const timespec*, const sigset_t*);
extern "C" int __wrap_ppoll(pollfd* fds, nfds_t count, const timespec* limit, const sigset_t* mask)
{
    const timespec shortly = {0, 20000000};

    EXPECT_EQ(count, 1U);
    waits += limit == nullptr ? "-" : limit->tv_sec == 5 && limit->tv_nsec == 0 ? "5" : "?";
    for (peer* p : peers) {
        p->serve();
    }
    before_wait();
    return false_alarm
               ? 1
               : __real_ppoll(fds, count, hurry && limit != nullptr ? &shortly : limit, mask);
}

static string reply_of(uint32_t seconds, uint32_t fraction, char first = 0x0c, size_t size = 48)
{
    string bytes = first + string(39, '\xee'); // what is not looked at
    for (const uint32_t value : {seconds, fraction}) {
        bytes += u16(value >> 16) + u16(value & 0xffff);
    }
    bytes.resize(size, '\xee');
    return bytes;
}

static STATUS fetch(timespec* now, u_int timeout = 0, const char* server = "127.0.0.1")
{
    return sntpcTimeGet(const_cast<char*>(server), timeout, now);
}

static auto open_files()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class SntpTest : public testing::Test {
  protected:
    void SetUp() override
    {
        dns_clear();
        hurry = false_alarm = false;
        waits.clear();
        sntpcInit(server.port());
    }

    peer server;
    timespec now = {7, 7};
};

// ---- Replies ----

TEST_F(SntpTest, RepliesAreTakenForTheirTransmitTime)
{
    constexpr uint32_t SOME = 0xe8b6a8c0; // 2023-09-21 11:34:24
    constexpr time_t SOME_TIME = 1695296064;
    const struct {
        string reply;
        time_t seconds; // 7: refused
        long nanoseconds;
    } cases[] = {
        {reply_of(SOME, 0x80000000), SOME_TIME, 499999940},
        {reply_of(SOME, 0x0fffffff), SOME_TIME, 62499996},
        {reply_of(SOME, 0x10000000), SOME_TIME, 62499980},
        {reply_of(SOME, 1), SOME_TIME, 0},
        {reply_of(SOME, 0xffffffff), SOME_TIME, 999999950},
        {reply_of(1, 0), 2085978497, 0}, // 2036-02-07 06:28:17, the next era
        {reply_of(EPOCH - 1, 0), 4294967295, 0},
        {reply_of(EPOCH, 0), 0, 0},
        {reply_of(0xffffffff, 0), 2085978495, 0},
        {reply_of(SOME, 0, 0x08), SOME_TIME, 0}, // any version, mode and leap indicator
        {reply_of(SOME, 0, '\xff'), SOME_TIME, 0},
        {reply_of(SOME, 0, 0x20), SOME_TIME, 0},
        {reply_of(SOME, 0, '\xc7'), 7, 7}, // but some version
        {reply_of(0, 5), 7, 7},
        {reply_of(SOME, 0x0fffffff, 0x0c, 49), SOME_TIME, 62499996},
        {reply_of(SOME, 0x0fffffff, 0x0c, 47), SOME_TIME, 62499938},
        {reply_of(SOME, 0x80000000, 0x0c, 44), SOME_TIME, 0},
        {reply_of(SOME, 0x80000000, 0x0c, 43), SOME_TIME - 0xc0, 0},
        {reply_of(SOME, 0x80000000, 0x0c, 40), 7, 7},
        {reply_of(SOME, 0x80000000, 0x0c, 0), 7, 7},
    };
    for (const auto& c : cases) {
        now = {7, 7};
        server.reply = c.reply;
        EXPECT_EQ(fetch(&now), c.seconds == 7 ? ERROR : OK) << testing::PrintToString(c.reply);
        EXPECT_EQ(now.tv_sec, c.seconds) << testing::PrintToString(c.reply);
        EXPECT_EQ(now.tv_nsec, c.nanoseconds) << testing::PrintToString(c.reply);
    }
    EXPECT_EQ(server.requests.back(), '\x0b' + string(47, '\0'));
}

TEST_F(SntpTest, TheEntrySetsThePortAndANameWithoutAnAddressIsNotReported)
{
    stdout_capture out;
    EXPECT_EQ(osaGetTimeFromSntpServer("none.x", 0, &now), ERROR);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(sntpcPort, 123);
    EXPECT_EQ(dns_queries, "A none.x|AAAA none.x|");
}

// ---- Waiting ----

TEST_F(SntpTest, EveryAddressHasItsFiveSeconds)
{
    peer second("127.0.0.2", server.port());
    peer third("127.0.0.3", server.port());
    dns_packet addresses;
    addresses.a("ntp.x", "127.0.0.1").a("ntp.x", "127.0.0.2").a("ntp.x", "127.0.0.3");
    dns_answer("ntp.x", A, addresses.bytes);
    hurry = true;
    EXPECT_EQ(fetch(&now, 0x7fffffff, "ntp.x"), ERROR);
    EXPECT_EQ(waits, "555");
    EXPECT_EQ(now.tv_sec, 7);

    second.reply = reply_of(EPOCH + 20, 0);
    third.reply = reply_of(EPOCH + 30, 0);
    EXPECT_EQ(fetch(&now, 0, "ntp.x"), OK);
    EXPECT_EQ(now.tv_sec, 20);
    EXPECT_EQ(waits, "55555"); // the third was not asked

    second.reply = reply_of(0, 1); // an answer that is none sends it on as well
    EXPECT_EQ(fetch(&now, 0, "ntp.x"), OK);
    EXPECT_EQ(now.tv_sec, 30);
    EXPECT_EQ(fetch(&now, FOREVER, "127.0.0.3"), OK);
    EXPECT_EQ(fetch(&now, 0, "127.255.255.255"), ERROR); // a broadcast goes out like any other
    EXPECT_EQ(waits, "55555555-5");
}

TEST_F(SntpTest, EveryFailureEndsTheCallAndClosesItsSocket)
{
    const auto before = open_files();
    signal(SIGALRM, [](int) {}); // restarts what can be restarted
    ualarm(1000, 1000);
    EXPECT_EQ(fetch(&now, FOREVER), ERROR);
    ualarm(0, 0);
    hurry = true;
    EXPECT_EQ(fetch(&now), ERROR);
    false_alarm = true; // the datagram has vanished
    EXPECT_EQ(fetch(&now, FOREVER), ERROR);
    server.reply = reply_of(5, 5, 0x04); // no version
    EXPECT_EQ(fetch(&now), ERROR);
    sntpcInit(0); // cannot be sent to
    EXPECT_EQ(fetch(&now), ERROR);
    EXPECT_EQ(open_files(), before);
}

// ---- Deletion ----

// The signal comes before the task looks for it the last time, or after and before it sleeps.
TEST_F(SntpTest, ADeletionJustBeforeTheWaitIsNotMissed)
{
    dns_packet twice;
    dns_answer("ntp.x", A, twice.a("ntp.x", "127.0.0.1").a("ntp.x", "127.0.0.1").bytes);
    for (std::function<void()>* place : {&before_send, &before_wait}) {
        const auto before = open_files();
        server.requests.clear();
        EXPECT_TRUE(ends_in(place, [] {
            timespec own;
            fetch(&own, FOREVER, "ntp.x");
        }));
        EXPECT_EQ(open_files(), before);
        server.serve();
        EXPECT_EQ(server.requests.size(), 1); // the second address was not asked any more
    }
}

// As a library does while it holds locks of its own: the call goes its way, the end comes later.
TEST_F(SntpTest, ATaskThatHoldsItsEndOffGetsItsReply)
{
    sigset_t end;
    sigset_t mask = {}; // after the call
    server.reply = reply_of(EPOCH + 9, 0);
    sigemptyset(&end);
    sigaddset(&end, SIGUSR1);
    EXPECT_TRUE(ends_in(&before_send, [&] {
        pthread_sigmask(SIG_BLOCK, &end, nullptr);
        before_send(); // deleted already when it calls
        EXPECT_EQ(fetch(&now), OK);
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        pthread_sigmask(SIG_UNBLOCK, &end, nullptr);
    }));
    EXPECT_EQ(sigismember(&mask, SIGUSR1), 1);
    EXPECT_EQ(now.tv_sec, 9);
}
