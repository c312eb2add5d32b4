// The daemon as a process: started like a user starts it, watched from outside, and from inside by
// libraries that take the place of the closed ones.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using std::chrono::steady_clock;
using names = std::set<std::string>;

static constexpr auto LIMIT = std::chrono::seconds(60);

class daemon_process {
  public:
    /** Starts it, with the variable NAME=value in its environment. */
    explicit daemon_process(const std::string& variable = "", const char* libraries = PROBE_DIR)
    {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        pid = fork();
        if (pid < 0) {
            abort(); // or the signals meant for it would go to all processes, which is what -1 is
        }
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that crashes leaves nothing behind
            dup2(ends[1], STDOUT_FILENO);
            close(ends[0]);
            close(ends[1]);
            setenv("LD_LIBRARY_PATH", libraries, 1);
            putenv(const_cast<char*>(variable.c_str()));
            execl(HNETD, HNETD, nullptr);
            _exit(127);
        }
        close(ends[1]);
        output = ends[0];
    }

    ~daemon_process()
    {
        if (pid > 0) {
            end(SIGKILL);
        }
        close(output);
    }

    /** Reads on, if need be, until there is a line that holds a text. */
    void await(const std::string& text)
    {
        const auto deadline = steady_clock::now() + LIMIT;
        while (all.find('\n', all.find(text)) == std::string::npos) {
            ASSERT_TRUE(read_some(deadline)) << "no \"" << text << "\" in\n" << all;
        }
    }

    void read_for(std::chrono::milliseconds time)
    {
        const auto deadline = steady_clock::now() + time;
        while (read_some(deadline)) {
        }
    }

    /** All lines read so far that begin like this. */
    std::vector<std::string> lines(const std::string& beginning) const
    {
        std::vector<std::string> chosen;
        std::istringstream text(all);
        for (std::string line; std::getline(text, line);) {
            if (line.rfind(beginning, 0) == 0) {
                chosen.push_back(line);
            }
        }
        return chosen;
    }

    /** Names of its threads. */
    names threads() const
    {
        names found;
        std::error_code error;
        const std::string path = "/proc/" + std::to_string(pid) + "/task";
        for (const auto& task : std::filesystem::directory_iterator(path, error)) {
            std::string name;
            std::getline(std::ifstream(task.path() / "comm"), name);
            found.insert(name);
        }
        return found;
    }

    /** Waits for it to end, after a signal if one is given. @return its wait status */
    int end(int signal)
    {
        int status = 0;
        if (signal != 0 && pid > 0) { // 0 and -1 would be others
            kill(pid, signal);
        }
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        pid = 0;
        return status;
    }

    pid_t pid = 0;
    std::string all; // what came on its standard output so far

  private:
    bool read_some(steady_clock::time_point deadline)
    {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
        pollfd readable = {output, POLLIN, 0};
        char text[4096];
        if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) != 1) {
            return false;
        }
        const ssize_t size = read(output, text, sizeof text);
        all.append(text, size > 0 ? static_cast<size_t>(size) : 0);
        return size > 0;
    }

    int output = -1;
};

static void expect_threads(const daemon_process& daemon, const names& expected)
{
    const auto deadline = steady_clock::now() + LIMIT;
    while (daemon.threads() != expected && steady_clock::now() < deadline) {
        usleep(10'000);
    }
    EXPECT_EQ(daemon.threads(), expected);
}

TEST(DaemonTest, ShowsItselfAtWorkUntilCtrlC)
{
    daemon_process daemon("", "");
    const std::string binder = "Binder:" + std::to_string(daemon.pid) + "_1";

    // Of what a person who watches for 10 s is to see, the last of each part.
    for (const char* seen :
         {"I callManager: repeated timer", "I callManager: the instant came: ",
          "I tExcTask: watchdog: tick 3", "I tUsrRoot: event DEMO_HELLO for the demonstration",
          "I tAsyncCall: second asynchronous call", "I tDemoReceive: message 5",
          "this signal is 10 ", "I tDemoDelete: tDemoWait is deleted, its id no longer known",
          "tasks: tUsrRoot tExcTask",
          "I tDemoNet: time from 127.0.0.1: ", "I tDemoInspect: pool: 24 of 24 jobs ran"}) {
        daemon.await(seen);
    }
    expect_threads(daemon, {"hnetd", binder, "callManager", "tUsrRoot", "tExcTask", "tAsyncCall",
                            "tDemoSend", "tDemoReceive", "tDemoReport", "tDemoNet",
                            "tDemoSntpServer", "tDemoInspect"});
    EXPECT_EQ(daemon.all.find("not reached"), std::string::npos);
    EXPECT_EQ(daemon.all.find("deleted timer"), std::string::npos);

    const int status = daemon.end(SIGINT);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
}

TEST(DaemonTest, StartsInOrderAndEndsWhenThePoolIsLeft)
{
    daemon_process daemon("HNETD_POOL=leave");

    daemon.await("net: hnetInit on tUsrRoot");
    daemon.await("net: with exception task, no arguments, exit value 0, host table 1, log 0");
    daemon.read_for(LIMIT); // until the pipe closes
    EXPECT_EQ(daemon.lines("proxy:"), std::vector<std::string>{"proxy: SIGPIPE ignored"});
    EXPECT_EQ(daemon.lines("binder:"),
              (std::vector<std::string>{"binder: held, 2", "binder: held, 3",
                                        "binder: startThreadPool", "binder: let go, 2",
                                        "binder: joinThreadPool 1", "binder: let go, 1"}));
    const std::vector<std::string> counts = daemon.lines("threads ");
    ASSERT_EQ(counts.size(), 2U);
    EXPECT_GT(std::stoi(counts[1].substr(8)), std::stoi(counts[0].substr(8)))
        << "the service thread starts between the proxy service and the pool";
    const int status = daemon.end(0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// Nothing but four threads runs until a library asks, and each starts the next.
TEST(DaemonTest, GoesOnWithoutTheThreadsThatCannotBeCreated)
{
    const struct {
        const char* victim; // which cannot create others
        const char* seen;
        const char* unseen;
        names threads;
    } cases[] = {
        {"hnetd", "binder: joinThreadPool 1", "net:", {"hnetd"}},
        {"callManager", "net: the pump runs", "net: hnetInit", {"hnetd", "callManager"}},
        {"tUsrRoot",
         "net: without exception task, no arguments, exit value 0, host table 1, log 0",
         "net: with exception task",
         {"hnetd", "callManager", "tUsrRoot"}},
        {"nobody",
         "net: with exception task",
         "net: without exception task",
         {"hnetd", "callManager", "tUsrRoot", "tExcTask"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.victim);
        daemon_process daemon(std::string("HNETD_NO_THREAD=") + c.victim);
        daemon.await(c.seen);
        daemon.read_for(std::chrono::seconds(1));
        expect_threads(daemon, c.threads);
        EXPECT_EQ(daemon.lines(c.unseen), std::vector<std::string>());
    }
}

TEST(DaemonTest, ServesItsVersionsOfLibcNamesToLibraries)
{
    daemon_process daemon("HNETD_PROBE=libc");
    daemon.await("net: getline 3, sysinfo -1, sethostname 0, gettid 0");
}
