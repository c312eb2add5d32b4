// Every exported operation without memory, threads and descriptors, and with hostile arguments.
//
// Each trial is a process of its own, in which the product has not been used before. It makes the
// arguments, lets the weather turn, calls, and tells the outcome: what came back, what was written,
// and what an operation that failed left behind.
#include "operation.h"

#include "fail.h"
#include "internal.h"
#include "osaTask.h"
#include "osaWd.h"
#include "own_mounts.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <execinfo.h>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <net/if.h>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

using std::string;

static const int reports = memfd_create("reports", 0);
static const int output = memfd_create("output", 0); // standard output and error of the trials
static const operation* tried;
static bool hit; // the weather made something fail
bool c_library_keeps;
static int calls, instants;

extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options()
{
    return "allocator_may_return_null=1";
}

// ---- Outcomes ----

struct room_t {
    const unsigned char* bytes;
    size_t size;
};
static std::vector<room_t> rooms; // of this trial's arguments
static constexpr unsigned char UNWRITTEN = 0xee;

argument room(size_t size)
{
    return [size] {
        auto* bytes = static_cast<unsigned char*>(malloc(size));
        memset(bytes, UNWRITTEN, size);
        rooms.push_back({bytes, size});
        return reinterpret_cast<long>(bytes);
    };
}

static bool written(const room_t& r)
{
    return std::any_of(r.bytes, r.bytes + r.size, [](unsigned char b) { return b != UNWRITTEN; });
}

static string code_name(int code)
{
    static const std::pair<int, const char*> codes[] = {
        {S_memLib_NOT_ENOUGH_MEMORY, "mem"},   {S_msgQLib_INVALID_MSG_LENGTH, "length"},
        {S_objLib_OBJ_ID_ERROR, "id"},         {S_objLib_OBJ_UNAVAILABLE, "unavailable"},
        {S_semLib_INVALID_OPERATION, "kind"},  {S_objLib_OBJ_TIMEOUT, "timeout"},
        {S_smObjLib_NOT_INITIALIZED, "entry"}, {ENOSYS, "ENOSYS"}};
    for (const auto& [known, name] : codes) {
        if (code == known) {
            return string("/") + name;
        }
    }
    return "";
}

static string outcome_of(long result, int code)
{
    const bool address = tried->function.result == callable::ADDRESS;
    const bool done = address ? result != 0 : result >= 0; // errno says nothing then
    string all = std::to_string(result);
    if (tried->function.result == callable::NOTHING) {
        all = "-";
    } else if (address) {
        all = result == 0 ? "null" : "ptr";
    } else if (result > 0 && tried->plain[0] == 'n') {
        all = "n";
    } else if (result == getpid()) {
        all = "PID";
    }
    return all + (done && code != ENOSYS ? "" : code_name(code)) +
           (std::any_of(rooms.begin(), rooms.end(), written) ? "*" : "");
}

// What was said since then; deleted tasks say this one thing at any time.
static string text_since(off_t start)
{
    static const string farewell = "this signal is 10 |";
    fflush(stdout);
    string text(static_cast<size_t>(lseek(output, 0, SEEK_END) - start), '\0');
    text.resize(static_cast<size_t>(pread(output, text.data(), text.size(), start)));
    std::replace(text.begin(), text.end(), '\n', '|');
    for (size_t at; (at = text.find(farewell)) != string::npos;) {
        text.erase(at, farewell.size());
    }
    const string pid = std::to_string(getpid());
    for (size_t at; (at = text.find(pid)) != string::npos;) {
        text.replace(at, pid.size(), "PID");
    }
    return text.empty() || text.find("Sanitizer failed to allocate") != string::npos
               ? ""
               : " '" + text + "'";
}

// Past the end that the thread sanitizer makes, which takes a tenth of a second.
[[noreturn]] static void leave()
{
    syscall(SYS_exit_group, 0);
    __builtin_unreachable();
}

[[noreturn]] static void end_trial(const string& outcome)
{
    const bool was_hit = hit || failed();
    fail_nothing();
    dprintf(reports, "%d %s\n", was_hit ? 1 : 0, outcome.c_str());
    leave();
}

/** What a failed operation leaves as it was: heap blocks, files, threads, tasks, watchdogs. */
using footprint = std::array<long, 5>;

static footprint take_footprint()
{
    int ids[32];
    footprint all = {live_blocks(), 0, thread_count()};
    for (int file = 0; file < 64; file++) {
        all[1] += fcntl(file, F_GETFD) != -1 ? 1 : 0;
    }
    FILE* nowhere = fopen("/dev/null", "w");
    all[3] = taskIdListGet(ids, 32);
    all[4] = wdogShow(nowhere);
    fclose(nowhere);
    return all;
}

// ---- What must not touch the machine, and what would not come back ----

static pthread_t caller;
static int server = -1; // of the time

// A call that waits without end has come to where it waits.
static bool stays()
{
    return string(tried->plain) == "stays" && pthread_self() == caller;
}

extern "C" {
int __wrap___halden_log_print(int priority, const char* /*tag*/, const char* format, ...)
{
    if (pthread_self() != caller) {
        return 0;
    }
    char line[256] = {static_cast<char>('0' + priority), ' '}; // without an allocation
    va_list all;
    va_start(all, format);
    vsnprintf(line + 2, sizeof line - 2, format, all);
    va_end(all);
    return static_cast<int>(write(STDERR_FILENO, line, strlen(line)));
}

STATUS __real_taskDelay(int);
STATUS __wrap_taskDelay(int ticks)
{
    return stays() ? end_trial("stays"), OK : __real_taskDelay(ticks);
}

unsigned int __wrap_sleep(unsigned int)
{
    end_trial("stays");
}

int __real_usleep(useconds_t);
int __wrap_usleep(useconds_t us)
{
    return stays() ? end_trial("stays"), 0 : __real_usleep(us);
}

int __real_clock_nanosleep(clockid_t, int, const timespec*, timespec*);
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec* until, timespec* rest)
{
    if (until->tv_sec - now_ns() / 1'000'000'000 > 1000) {
        end_trial("stays");
    }
    return __real_clock_nanosleep(clock, flags, until, rest);
}

int __wrap_clock_settime(clockid_t, const timespec*)
{
    return 0;
}

// "cat A > B", as the search for a process has it done.
int __wrap_system(const char* command)
{
    char from[64], to[64];
    if (sscanf(command, "cat %63s > %63s", from, to) == 2) {
        char bytes[256];
        const int in = open(from, O_RDONLY);
        const int out = open(to, O_WRONLY);
        const ssize_t size = read(in, bytes, sizeof bytes);
        [[maybe_unused]] const ssize_t put = size > 0 ? write(out, bytes, size_t(size)) : 0;
        close(in);
        close(out);
    }
    return 0;
}

int __real_ppoll(pollfd*, nfds_t, const timespec*, const sigset_t*);
int __wrap_ppoll(pollfd* files, nfds_t number, const timespec* limit, const sigset_t* mask)
{
    unsigned char packet[48] = {};
    sockaddr_in from = {};
    socklen_t size = sizeof from;
    if (recvfrom(server, packet, 48, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &size) > 0) {
        packet[40] = 0xe8; // in 2023
        sendto(server, packet, 48, 0, reinterpret_cast<sockaddr*>(&from), size);
    }
    return __real_ppoll(files, number, limit, mask);
}
}

/** Namespaces of this process's own: no name server, a time server on loopback, an empty /tmp. */
static bool isolate()
{
    if (!own_mounts(CLONE_NEWNET) || mount("none", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
        return false;
    }
    const int control = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq loopback = {};
    strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP;
    ioctl(control, SIOCSIFFLAGS, &loopback);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(123);
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    server = control;
    std::ofstream("/tmp/resolv.conf") << "nameserver 127.0.0.6\n";
    return bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
           mount("/tmp/resolv.conf", "/etc/resolv.conf", nullptr, MS_BIND, nullptr) == 0 &&
           chdir("/tmp") == 0;
}

// ---- Trials ----

enum weather { GOOD, MEMORY_ONCE, MEMORY_AFTER, THREAD_ONCE, THREAD_AFTER, NO_FILES, MANY_FILES };

// So that no file can be opened, or only ones with high numbers.
static void change_files(weather w)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min(rlim_t{1200}, limit.rlim_max);
    if (w == NO_FILES) {
        limit.rlim_cur = static_cast<rlim_t>(dup(0));
        close(static_cast<int>(limit.rlim_cur));
    }
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int last = 0; w == MANY_FILES && last < 1100;) {
        last = dup(0);
    }
}

/** An outcome without what was said. */
static string core_of(const string& outcome)
{
    return outcome.substr(0, outcome.find(" '"));
}

static string call(const std::vector<long>& values, weather w, int nth)
{
    fail_malloc(w == MEMORY_ONCE || w == MEMORY_AFTER ? nth : 0, w == MEMORY_AFTER);
    if (w == THREAD_ONCE || w == THREAD_AFTER) {
        fail_thread(nth, w == THREAD_AFTER);
    }
    const off_t start = lseek(output, 0, SEEK_END);
    errno = 0;
    const long result = tried->function.call(values.data());
    const int code = errno;
    hit = failed();
    fail_nothing();
    const string outcome = outcome_of(result, code);
    return outcome + (hit || outcome != tried->plain ? text_since(start) : "");
}

// Calls in bad weather; what failed must have left nothing, and is tried again.
static string outcome_in(const std::vector<long>& values, weather w, int nth)
{
    if (w == MANY_FILES) {
        change_files(w);
    }
    string outcome;
    outcome.reserve(1000); // its block is there from the beginning
    const footprint before = take_footprint();
    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    if (w == NO_FILES) {
        change_files(w);
    }
    outcome += call(values, w, nth);
    setrlimit(RLIMIT_NOFILE, &files);
    if (core_of(outcome) == tried->plain || w == MANY_FILES) {
        return outcome;
    }
    footprint after;
    eventually([&] { return after = take_footprint(), after[2] == before[2]; }, 200); // threads
    // A sanitizer keeps books on threads, and does so in them as well.
    const bool threads = tried->threads[0] != '\0' || (!TSAN && before[2] > 1);
    if (c_library_keeps || after[2] > before[2] || (SANITIZED && threads)) {
        after[0] = before[0];
    }
    string left;
    for (size_t i = 0; i < after.size(); i++) { // fewer threads: one that was ending all the time
        left += " " + std::to_string(std::max(0L, after[i] - before[i]));
    }
    outcome += left != " 0 0 0 0 0" ? " leaves" + left : "";
    if (w != GOOD) {
        rooms.clear();
        const bool was_hit = hit;
        const string again = call(values, GOOD, 0);
        hit = was_hit;
        const string plain = tried->plain;
        outcome += again != plain.substr(0, plain.find('*')) ? ">" + again : "";
    }
    return outcome;
}

struct extreme {
    size_t position;
    string name;
    argument::maker make;
};

static std::vector<extreme> extremes_of(const operation& op)
{
    std::vector<extreme> all;
    for (size_t i = 0; i < op.arguments.size(); i++) {
        const argument& a = op.arguments[i];
        const parameter& p = op.function.parameters[i];
        const auto add = [&](const char* name, unsigned long value) {
            all.push_back({i, name, [value] { return static_cast<long>(value); }});
        };
        if (a.beyond_telling == argument::ALL) {
            continue;
        }
        const unsigned long top = ~0UL >> (8 * (sizeof(long) - p.size) + 1); // with a sign
        add(p.pointer ? "null" : "0", 0);
        if (!p.pointer && p.is_signed) {
            add("-1", ~0UL);
            add("min", ~top);
        }
        if (!p.pointer && a.beyond_telling != argument::TOO_LARGE) {
            p.is_signed ? void() : add("half", top + 1);
            add("max", p.is_signed ? top : 2 * top + 1);
        }
        for (const auto& [name, make] : a.extremes) {
            all.push_back({i, name, make});
        }
    }
    return all;
}

static std::vector<long> values_of(const operation& op)
{
    std::vector<long> all;
    rooms.clear();
    for (const argument& a : op.arguments) {
        all.push_back(a.make());
    }
    return all;
}

// What the C library makes on first use, and keeps.
static void warm_up()
{
    setenv("TZ", "UTC0", 1);
    tzset();
    printf("%s\n", strerror(123456));
    void* frame;
    backtrace(&frame, 1);
    TSAN ? std::thread([] {}).join() : void(); // which brings the sanitizer's own with it
    text_since(0);
    take_footprint();
}

struct report {
    bool hit;
    string outcome;
};

/** Runs a process and collects what it reports, the last of it how it ended if not by itself. */
static std::vector<report> reports_of(const operation& op, const std::function<void()>& body)
{
    std::vector<report> all;
    int status = 0;
    tried = &op;
    [[maybe_unused]] int done = ftruncate(reports, 0) + ftruncate(output, 0);
    lseek(reports, 0, SEEK_SET);
    lseek(output, 0, SEEK_SET);
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        alarm(20);
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        warm_up();
        caller = pthread_self();
        body();
        leave();
    }
    waitpid(child, &status, 0);
    string text(static_cast<size_t>(lseek(reports, 0, SEEK_END)), '\0');
    done += static_cast<int>(pread(reports, text.data(), text.size(), 0));
    std::istringstream lines(text);
    for (report r; lines >> r.hit && std::getline(lines >> std::ws, r.outcome);) {
        all.push_back(r);
    }
    calls += static_cast<int>(all.size());
    if (status != 0) {
        all.push_back({false, WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                                  : "exit " + std::to_string(WEXITSTATUS(status))});
    }
    return all;
}

static report trial(const operation& op, weather w, int nth = 0)
{
    const auto all = reports_of(op, [&] { end_trial(outcome_in(values_of(op), w, nth)); });
    EXPECT_EQ(all.size(), 1U) << op.name;
    return all.empty() ? report{false, "silence"} : all.back();
}

static string joined(const std::set<string>& outcomes)
{
    string all;
    for (const string& outcome : outcomes) {
        all += (all.empty() ? "" : " ") + outcome;
    }
    return all;
}

// The outcomes when the nth fails, once and with all that follow, up to the first n that is too
// large: what fails nowhere has the plain outcome.
static string outcomes_in(const operation& op, weather once, weather after, const string& known)
{
    std::set<string> outcomes;
    for (const weather w : {once, after}) {
        for (int nth = 1;; nth++) {
            const report r = trial(op, w, nth);
            if (!r.hit) {
                EXPECT_EQ(r.outcome, op.plain) << op.name;
                break;
            }
            outcomes.insert(r.outcome);
            instants++;
        }
    }
    // Under the thread sanitizer there is a stack already, so one thread starts without memory.
    const auto is_known = [&](const string& outcome) {
        return known.find(outcome) != string::npos;
    };
    const bool all_known = std::all_of(outcomes.begin(), outcomes.end(), is_known);
    return TSAN && all_known && !outcomes.empty() ? known : joined(outcomes);
}

class Sweep : public testing::Test {
  protected:
    static void SetUpTestSuite() { isolated = isolate(); }
    void SetUp() override
    {
        if (!isolated) {
            GTEST_SKIP() << "no namespaces of our own here";
        }
        calls = instants = 0;
    }
    void TearDown() override
    {
        RecordProperty("calls", calls);
        printf("%zu operations, %d calls, %d failing instants\n", operations.size(), calls,
               instants);
    }
    static inline bool isolated = false;
};

TEST(SweepTable, HasEveryExportedName)
{
    std::set<string> listed, swept;
    std::istringstream names(variables);
    std::ifstream list(EXPORTS_LIST);
    for (string name; names >> name;) {
        swept.insert(name);
    }
    for (const operation& op : operations) {
        swept.insert(op.name);
        EXPECT_EQ(op.arguments.size(), op.function.parameters.size()) << op.name;
    }
    for (string line; std::getline(list, line);) {
        char name[64], end;
        if (sscanf(line.c_str(), " %63[A-Za-z0-9_]%c", name, &end) == 2 && end == ';') {
            listed.insert(name);
        }
    }
    EXPECT_EQ(listed, swept);
}

TEST_F(Sweep, WithoutMemory)
{
    for (const operation& op : operations) {
        EXPECT_EQ(outcomes_in(op, MEMORY_ONCE, MEMORY_AFTER, op.memory), op.memory) << op.name;
    }
}

TEST_F(Sweep, WithoutThreads)
{
    for (const operation& op : operations) {
        EXPECT_EQ(outcomes_in(op, THREAD_ONCE, THREAD_AFTER, op.threads), op.threads) << op.name;
    }
}

TEST_F(Sweep, WithoutDescriptorsAndWithHighOnes)
{
    for (const operation& op : operations) {
        const string none = op.files[0] == '\0' ? op.plain : op.files;
        EXPECT_EQ(trial(op, NO_FILES).outcome, none) << op.name;
        EXPECT_EQ(trial(op, MANY_FILES).outcome, op.plain) << op.name;
    }
}

// The outcomes that are not the plain one.
static string hostile_outcomes(const operation& op)
{
    const std::vector<extreme> extremes = extremes_of(op);
    std::vector<report> all;
    while (all.size() < extremes.size()) {
        const auto more = reports_of(op, [&] {
            for (size_t i = all.size(); i < extremes.size(); i++) {
                std::vector<long> values = values_of(op);
                values[extremes[i].position] = extremes[i].make();
                const string outcome = outcome_in(values, GOOD, 0);
                dprintf(reports, "0 %s\n", outcome.c_str());
            }
        });
        all.insert(all.end(), more.begin(), more.end());
    }
    string text;
    for (size_t i = 0; i < all.size();) {
        const size_t position = extremes[i].position;
        std::map<string, string> names; // of the extremes, by their outcome
        for (; i < all.size() && extremes[i].position == position; i++) {
            string& known = names[all[i].outcome];
            known += (known.empty() ? "." : ",") + extremes[i].name;
        }
        for (const auto& [outcome, which] : names) {
            text += outcome == op.plain ? ""
                                        : (text.empty() ? "" : " ") + std::to_string(position) +
                                              (names.size() > 1 ? which : "") + ":" + outcome;
        }
    }
    return text;
}

TEST_F(Sweep, WithHostileArguments)
{
    for (const operation& op : operations) {
        EXPECT_EQ(hostile_outcomes(op), op.hostile) << op.name;
    }
}
