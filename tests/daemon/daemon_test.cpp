// The daemon as a process: started like a user starts it, watched from outside, and from inside by
// libraries that take the place of the closed ones.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using names = std::set<std::string>;

static const char* const COMMAND[] = {HNETD_COMMAND, nullptr};
static const std::string MAIN = std::filesystem::path(COMMAND[0]).filename(); // its first thread

static bool eventually(const auto& holds)
{
    using std::chrono::steady_clock;
    const auto deadline = steady_clock::now() + std::chrono::seconds(60);
    while (!holds() && steady_clock::now() < deadline) {
        usleep(10'000);
    }
    return holds();
}

class daemon_process {
  public:
    /** Starts it, with the variable NAME=value in its environment. */
    explicit daemon_process(const std::string& variable = "", const char* libraries = PROBE_DIR)
    {
        fcntl(output, F_SETFL, O_APPEND); // such a file has no lock for its position
        pid = fork();
        if (pid < 0) {
            abort(); // or the signals meant for it would go to all processes, which is what -1 is
        }
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that crashes leaves nothing behind
            dup2(output, STDOUT_FILENO);
            setenv("LD_LIBRARY_PATH", libraries, 1);
            putenv(const_cast<char*>(variable.c_str()));
            execvp(COMMAND[0], const_cast<char**>(COMMAND));
            _exit(127);
        }
    }

    ~daemon_process()
    {
        if (pid > 0) {
            end(SIGKILL);
        }
        close(output);
    }

    /** What came on its standard output so far. */
    std::string all() const
    {
        std::ifstream file("/proc/self/fd/" + std::to_string(output)); // with a place of its own
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /** Waits until there is a whole line that holds a text. */
    void await(const std::string& text) const
    {
        const auto there = [&] {
            const std::string now = all();
            return now.find('\n', now.find(text)) != std::string::npos;
        };
        ASSERT_TRUE(eventually(there)) << "no \"" << text << "\" in\n" << all();
    }

    /** All lines so far that hold a text. */
    std::string lines(const std::string& text) const
    {
        std::string chosen;
        std::istringstream whole(all());
        for (std::string line; std::getline(whole, line);) {
            chosen += line.find(text) != std::string::npos ? line + "\n" : "";
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

  private:
    int output = memfd_create("output", MFD_CLOEXEC);
};

static void expect_threads(const daemon_process& daemon, const names& expected)
{
    eventually([&] { return daemon.threads() == expected; });
    EXPECT_EQ(daemon.threads(), expected);
}

static void expect_killed(int status, int signal)
{
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
}

static void expect_exit(int status, int value)
{
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == value) << status;
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
    expect_threads(daemon,
                   {MAIN, binder, "callManager", "tUsrRoot", "tExcTask", "tAsyncCall", "tDemoSend",
                    "tDemoReceive", "tDemoReport", "tDemoNet", "tDemoSntpServer", "tDemoInspect"});
    EXPECT_EQ(daemon.lines("not reached") + daemon.lines("deleted timer"), "");

    expect_killed(daemon.end(SIGINT), SIGINT);
}

TEST(DaemonTest, StartsInOrderAndEndsWhenThePoolIsLeft)
{
    daemon_process daemon("HNETD_POOL=leave");

    daemon.await("net: hnetInit on tUsrRoot");
    daemon.await("net: with exception task, no arguments, exit value 0, host table 1, log 0");
    expect_exit(daemon.end(0), 0);
    const std::string begin =
        "binder: held, 2\nlog: 4 quarn.hnetd: hnetd " HNETD_VERSION "\nproxy: SIGPIPE ignored\n";
    EXPECT_EQ(daemon.all().substr(0, begin.size()), begin);
    EXPECT_EQ(daemon.lines("binder:"),
              "binder: held, 2\nbinder: held, 3\nbinder: startThreadPool\nbinder: let go, 2\n"
              "binder: joinThreadPool 1\nbinder: let go, 1\n");
    int before = 0;
    int after = 0;
    EXPECT_EQ(sscanf(daemon.lines("threads ").c_str(), "threads %d threads %d", &before, &after),
              2);
    EXPECT_GT(after, before) << "the service thread starts between the proxy service and the pool";
}

// Nothing but four threads runs until a library asks, and each starts the next. SIGTERM ends the
// daemon in order as soon as there is a service thread to see to that.
TEST(DaemonTest, GoesOnWithoutTheThreadsThatCannotBeCreated)
{
    static const std::string END =
        " exception task, no arguments, exit value 0, host table 1, log 0";
    const struct {
        std::string victim, seen, unseen; // the victim cannot create others
        names threads;
    } cases[] = {
        {MAIN, "binder: joinThreadPool 1", "net:", {MAIN}},
        {"callManager", "net: the pump runs", "net: hnetInit", {MAIN, "callManager"}},
        {"tUsrRoot", "net: without" + END, "net: with ", {MAIN, "callManager", "tUsrRoot"}},
        {"nobody",
         "net: with" + END,
         "net: without",
         {MAIN, "callManager", "tUsrRoot", "tExcTask"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.victim);
        daemon_process daemon("HNETD_NO_THREAD=" + c.victim);
        daemon.await(c.seen);
        sleep(1);
        expect_threads(daemon, c.threads);
        EXPECT_EQ(daemon.lines(c.unseen), "");
        if (c.threads.size() == 1) {
            expect_killed(daemon.end(SIGTERM), SIGTERM);
        } else {
            expect_exit(daemon.end(SIGTERM), 0);
        }
    }
}

TEST(DaemonTest, ASecondSigtermEndsItThoughThePumpIsStuck)
{
    daemon_process daemon("HNETD_PROBE=stuck");
    daemon.await("net: the pump is stuck");
    kill(daemon.pid, SIGTERM);
    usleep(300'000); // or the second falls together with it
    EXPECT_EQ(waitpid(daemon.pid, nullptr, WNOHANG), 0) << "the first waits for the pump";
    expect_killed(daemon.end(SIGTERM), SIGTERM);
}

TEST(DaemonTest, ServesItsVersionsOfLibcNamesToLibraries)
{
    daemon_process daemon("HNETD_PROBE=libc");
    daemon.await("net: getline 3, sysinfo -1, sethostname 0, gettid 0");
}
