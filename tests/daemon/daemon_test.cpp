// The daemon as a process: started like a user starts it, watched from outside, and from inside by
// libraries that take the place of the closed ones.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <poll.h>
#include <regex.h>
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
    /** Starts it, with variables for its environment. */
    explicit daemon_process(const std::map<std::string, std::string>& environment)
    {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that crashes leaves nothing behind
            dup2(ends[1], STDOUT_FILENO);
            close(ends[0]);
            close(ends[1]);
            for (const auto& [name, value] : environment) {
                setenv(name.c_str(), value.c_str(), 1);
            }
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

    /** Reads on to the next line that holds a text. @return that line; empty if none comes */
    std::string await(const std::string& text)
    {
        const auto deadline = steady_clock::now() + LIMIT;
        std::string line;
        while (next_line(&line, deadline)) {
            if (line.find(text) != std::string::npos) {
                return line;
            }
        }
        ADD_FAILURE() << "no line with \"" << text << "\" among\n" << all;
        return "";
    }

    /** Reads on for a time. */
    void read_for(std::chrono::milliseconds time)
    {
        std::string line;
        const auto deadline = steady_clock::now() + time;
        while (next_line(&line, deadline)) {
        }
    }

    /** All lines read so far that begin with one of these. */
    std::vector<std::string> lines(const std::vector<std::string>& beginnings) const
    {
        std::vector<std::string> chosen;
        std::istringstream text(all);
        for (std::string line; std::getline(text, line);) {
            for (const std::string& beginning : beginnings) {
                if (line.rfind(beginning, 0) == 0) {
                    chosen.push_back(line);
                }
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
        if (signal != 0) {
            kill(pid, signal);
        }
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        pid = 0;
        return status;
    }

    pid_t id() const { return pid; }
    const std::string& text() const { return all; }

  private:
    bool next_line(std::string* line, steady_clock::time_point deadline)
    {
        line->clear();
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - steady_clock::now());
            pollfd readable = {output, POLLIN, 0};
            char c = 0;
            if (left.count() < 0 || poll(&readable, 1, static_cast<int>(left.count())) != 1 ||
                read(output, &c, 1) != 1) {
                return false;
            }
            all += c;
            if (c == '\n') {
                return true;
            }
            *line += c;
        }
    }

    pid_t pid = 0;
    int output = -1;
    std::string all;
};

static daemon_process start_probed(std::map<std::string, std::string> environment)
{
    environment["LD_LIBRARY_PATH"] = PROBE_DIR;
    return daemon_process(environment);
}

static bool eventually(const std::function<bool()>& holds)
{
    const auto deadline = steady_clock::now() + LIMIT;
    while (!holds()) {
        if (steady_clock::now() > deadline) {
            return false;
        }
        usleep(10'000);
    }
    return true;
}

TEST(DaemonTest, ShowsItselfAtWorkUntilCtrlC)
{
    daemon_process daemon({});
    const std::string binder = "Binder:" + std::to_string(daemon.id()) + "_1";

    // Everything that a person who watches for 10 s is to see.
    for (const char* seen :
         {"I callManager: one-shot timer of 250 ms fired",
          "I callManager: refreshed timer",
          "I callManager: repeated timer",
          "D quarn.utils.timer: uTimerDel: ",
          "I callManager: the instant came: ",
          "I tExcTask: watchdog: tick 3",
          "I tUsrRoot: event DEMO_HELLO for the demonstration, parameter 42",
          "I tAsyncCall: first asynchronous call",
          "I tAsyncCall: second asynchronous call",
          "I tDemoReceive: message 5",
          "this signal is 10 \n",
          "I tDemoDelete: tDemoWait is deleted, its id no longer known",
          "tasks: tUsrRoot tExcTask",
          "timers fired: ",
          "watchdogs: ",
          "I tDemoNet: address 2001:0DB8:0:0:0:0:0:1 is 2001:db8::1, equal to [2001:db8::1]",
          "I tDemoNet: addresses of 127.0.0.1: 1 found",
          "I tDemoNet: time from 127.0.0.1: ",
          "I tDemoInspect: task check: well",
          "I tDemoInspect: pool: 24 of 24 jobs ran"}) {
        if (daemon.text().find(seen) == std::string::npos) {
            daemon.await(seen);
        }
    }
    EXPECT_TRUE(eventually([&] {
        return daemon.threads() ==
               names{"hnetd",       binder,       "callManager",     "tUsrRoot",
                     "tExcTask",    "tAsyncCall", "tDemoSend",       "tDemoReceive",
                     "tDemoReport", "tDemoNet",   "tDemoSntpServer", "tDemoInspect"};
    }));
    EXPECT_EQ(daemon.text().find("not reached"), std::string::npos);
    EXPECT_EQ(daemon.text().find("deleted timer"), std::string::npos);

    const std::string form = "^[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} +" +
                             std::to_string(daemon.id()) + " +[0-9]+ [TVDIWEF] [^ :]+: .";
    regex_t line_form;
    ASSERT_EQ(regcomp(&line_form, form.c_str(), REG_EXTENDED | REG_NOSUB), 0);
    for (const std::string& line : daemon.lines({""})) {
        EXPECT_TRUE(line == "this signal is 10 " ||
                    regexec(&line_form, line.c_str(), 0, nullptr, 0) == 0)
            << line;
    }
    regfree(&line_form);

    const int status = daemon.end(SIGINT);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
}

TEST(DaemonTest, StartsInOrderAndEndsWhenThePoolIsLeft)
{
    daemon_process daemon = start_probed({{"HNETD_POOL", "leave"}});

    daemon.await("net: hnetInit on tUsrRoot");
    daemon.await("net: with exception task, no arguments, exit value 0, host table 1");
    daemon.read_for(LIMIT); // until the pipe closes
    EXPECT_EQ(
        daemon.lines({"binder:", "proxy:"}),
        (std::vector<std::string>{"binder: held, 2", "proxy: SIGPIPE ignored", "binder: held, 3",
                                  "binder: startThreadPool", "binder: let go, 2",
                                  "binder: joinThreadPool 1", "binder: let go, 1"}));
    const std::vector<std::string> counts = daemon.lines({"threads "});
    ASSERT_EQ(counts.size(), 2U);
    EXPECT_GT(std::stoi(counts[1].substr(8)), std::stoi(counts[0].substr(8)))
        << "the service thread starts between the proxy service and the pool";
    const int status = daemon.end(0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(DaemonTest, NothingButTheFourThreadsRunsUntilALibraryAsks)
{
    daemon_process daemon = start_probed({});

    daemon.await("net: the pump runs");
    EXPECT_TRUE(eventually([&] {
        return daemon.threads() == names{"hnetd", "callManager", "tUsrRoot", "tExcTask"};
    }));
}

TEST(DaemonTest, GoesOnWithoutTheThreadsThatCannotBeCreated)
{
    {
        // No service thread: the pool is served, and nothing else.
        daemon_process daemon = start_probed({{"HNETD_NO_THREAD", "hnetd"}});
        daemon.await("binder: joinThreadPool 1");
        daemon.read_for(std::chrono::seconds(1));
        EXPECT_EQ(daemon.threads(), names{"hnetd"});
        EXPECT_EQ(daemon.lines({"net:"}), std::vector<std::string>());
    }
    {
        // No root task: the pump runs alone.
        daemon_process daemon = start_probed({{"HNETD_NO_THREAD", "callManager"}});
        daemon.await("net: the pump runs");
        EXPECT_EQ(daemon.threads(), (names{"hnetd", "callManager"}));
        EXPECT_EQ(daemon.lines({"net: hnetInit"}), std::vector<std::string>());
    }
    {
        // No exception task: no watchdogs, but the start goes on.
        daemon_process daemon = start_probed({{"HNETD_NO_THREAD", "tUsrRoot"}});
        daemon.await("net: without exception task, no arguments, exit value 0, host table 1");
        daemon.await("net: the pump runs");
        EXPECT_EQ(daemon.threads(), (names{"hnetd", "callManager", "tUsrRoot"}));
    }
}

TEST(DaemonTest, ServesItsVersionsOfLibcNamesToLibraries)
{
    daemon_process daemon = start_probed({{"HNETD_PROBE", "libc"}});

    daemon.await("net: getline of hnetd gives 3");
    daemon.await("net: sysinfo of hnetd gives -1");
    daemon.await("net: sethostname of hnetd gives 0");
    daemon.await("net: gettid of hnetd gives 0");
}

static constexpr char STEPPED[] = "net: SYSTEM_TIME_UPDATED on tAsyncCall, parameter 50, size 4";

// Milliseconds by which the timers ran ahead of the uptime over the step told last.
static long ran_ahead(const daemon_process& daemon)
{
    long aged = 0;
    long passed = 0;
    const std::string line = daemon.lines({"net: timers aged"}).back();
    EXPECT_EQ(sscanf(line.c_str(), "net: timers aged %ld ms in %ld ms", &aged, &passed), 2);
    return aged - passed;
}

TEST(DaemonTest, AStepOfTheWallClockIsAnnouncedAndLeavesTimersAlone)
{
    for (const char* seconds : {"20", "-1"}) {
        SCOPED_TRACE(seconds);
        daemon_process daemon = start_probed({{"HNETD_PROBE", std::string("step ") + seconds}});
        daemon.await(STEPPED);
        daemon.await("net: stepped");
        EXPECT_EQ(daemon.lines({"net: SYSTEM"}), std::vector<std::string>{STEPPED}) << "once";
        EXPECT_LT(ran_ahead(daemon), 200);
    }
}

TEST(DaemonTest, AShortStepForwardCountsAsTimeThatPassed)
{
    daemon_process daemon = start_probed({{"HNETD_PROBE", "step 5"}});
    daemon.await("net: timers aged");
    EXPECT_EQ(daemon.lines({"net: SYSTEM"}), std::vector<std::string>());
    EXPECT_GT(ran_ahead(daemon), 4'000);
}
