// Schedules one after another, and what is said about them: a scenario is set up, walked, checked
// and taken apart in a process of its own, so that whatever a fault does to it can be told.
#include "engine.h"
#include "internal.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static constexpr int WARM_UP = 300; // random schedules

extern "C" char __executable_start[];
extern "C" int __real_clock_gettime(clockid_t clock, timespec* now);

static std::vector<scenario>& scenarios()
{
    static std::vector<scenario> all;
    return all;
}

bool add_scenarios(std::span<const scenario> some)
{
    scenarios().insert(scenarios().end(), some.begin(), some.end());
    return true;
}

// ---- A schedule ----

static int actor_entry(int number, int, int, int, int, int, int, int, int, int)
{
    const actor& a = x->scene->actors[number];

    x->actors[number] = self();
    self()->name = a.name;
    wait_until([] { return x->gate_open; });
    a.body();
    x->over[number] = true;
    wait_until([] { return x->released; });
    return 0;
}

static void* plain_entry(void* number)
{
    actor_entry(static_cast<int>(reinterpret_cast<intptr_t>(number)), 0, 0, 0, 0, 0, 0, 0, 0, 0);
    return nullptr;
}

static void* deleter_entry(void*)
{
    self()->name = "deleter";
    block(state_t::IDLE, nullptr);
    taskDelete(x->ids[x->victim]);
    return nullptr;
}

void wait_until(bool (*holds)())
{
    self()->until = holds;
    if (!holds()) {
        block(state_t::UNTIL, nullptr);
    }
}

static bool actors_are_done()
{
    for (int i = 0; i < x->started; i++) {
        if (!x->over[i] && !x->cut[i]) {
            return false;
        }
    }
    return x->deleter == nullptr || x->deletion_over;
}

static bool threads_are_gone()
{
    return std::all_of(x->fibers + 1, x->fibers + THREADS, [](const fiber& f) {
        return f.state == state_t::FREE || f.state == state_t::OVER;
    });
}

static void start_actors()
{
    for (int i = 0; i < ACTORS && x->scene->actors[i].body != nullptr; i++) {
        const actor& a = x->scene->actors[i];
        if (a.plain) {
            pthread_t id = 0;
            pthread_create(&id, nullptr, plain_entry, reinterpret_cast<void*>(intptr_t{i}));
            pthread_detach(id);
        } else {
            x->ids[i] =
                taskSpawn(const_cast<char*>(a.name), 100, 0, 0,
                          reinterpret_cast<FUNCPTR>(actor_entry), i, 0, 0, 0, 0, 0, 0, 0, 0, 0);
        }
        x->started = i + 1;
        wait_until([] { return x->actors[x->started - 1] != nullptr; });
    }
    if (x->victim >= 0) {
        pthread_t id = 0;
        pthread_create(&id, nullptr, deleter_entry, nullptr);
        pthread_detach(id);
        x->deleter = reinterpret_cast<fiber*>(id);
        wait_until([] { return x->deleter->state == state_t::IDLE; });
    }
}

// Nobody but the controlling thread is left, and it can have whatever it wants.
static void check_rest()
{
    EXPECT(taskLock() == OK && taskUnlock() == OK);
    EXPECT(taskIdVerify(0) == ERROR && task_list == nullptr);
    EXPECT(self_record->depth == 0 && self()->holds == 0);
    check_heap();
}

static void reset()
{
    restore();
    x->fibers[0].name = "controller";
    std::fill_n(x->actors, ACTORS, nullptr);
    std::fill_n(x->ids, ACTORS, 0);
    std::fill_n(x->over, ACTORS, false);
    std::fill_n(x->cut, ACTORS, false);
    x->used = 1;
    x->started = 0;
    x->deleter = nullptr;
    x->exploring = x->gate_open = x->released = x->abandoned = x->deletion_over = false;
    x->now = NS_PER_S;
    x->operations = 0;
    x->instant = 0;
    x->left = x->bound;
    x->depth = 0;
    report->steps = 0;
}

static void run_schedule()
{
    reset();
    if (x->scene->prepare != nullptr) {
        x->scene->prepare();
    }
    start_actors();
    x->gate_open = x->exploring = true;
    wait_until([] { return x->abandoned || actors_are_done(); });
    x->exploring = false;
    if (x->abandoned) {
        return; // with threads in the middle of things: reset() drops them
    }
    if (x->scene->check != nullptr) {
        x->scene->check();
    }
    x->released = true;
    wait_until(threads_are_gone);
    check_rest();
    report->longest = std::max<uint64_t>(report->longest, x->instant);
}

// To the next schedule: the last choice with an alternative within the bound takes it.
static bool next_schedule()
{
    while (!x->frames.empty()) {
        frame& f = x->frames.back();
        f.pick++;
        while (f.pick < f.count && f.left == 0 && (f.costly >> f.pick & 1) != 0) {
            f.pick++;
        }
        if (f.pick < f.count) {
            return true;
        }
        x->frames.pop_back();
    }
    return false;
}

// Objects that turned out to be shared are from now on.
static bool take_up_learned()
{
    if (!x->learned) {
        return false;
    }
    for (auto& word : x->words) {
        word.shared = (word.threads & (word.threads - 1)) != 0;
    }
    x->learned = false;
    return true;
}

static double seconds()
{
    timespec now;
    __real_clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now); // the machine may have other things to do
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

static void walk(double limit)
{
    const double start = seconds();

    x->mode = walk_mode::RANDOM;
    for (int i = 0; i < WARM_UP; i++) {
        run_schedule();
        (void)take_up_learned();
    }
    x->mode = walk_mode::WALK;
    bool more = true;
    while (more && (report->schedules % 256 != 0 || seconds() - start < limit)) {
        run_schedule();
        report->schedules++;
        more = next_schedule();
        if (take_up_learned()) {
            x->frames.clear();
            report->schedules = 0;
            more = true;
        }
    }
    report->complete = !more;
    report->seconds = seconds() - start;
}

// ---- Reports ----

// What a schedule was chosen with: "instant.thread,...", or a deadline of it (+ 16).
static std::string picks_of(const shared_state* r)
{
    std::string text;
    for (int i = 0; i < r->steps; i++) {
        text += (i > 0 ? "," : "") + std::to_string(r->picks[i].instant) + "." +
                std::to_string(r->picks[i].code);
    }
    return text;
}

static std::string variant_name(const scenario& scene, int victim)
{
    return std::string(scene.name) + (victim >= 0 ? "/" : "") +
           (victim >= 0 ? scene.actors[victim].name : "");
}

// The function and line of each step, as addr2line finds them; of what is inlined, the first that
// is no helper of a header.
static std::vector<std::string> lines_of(const shared_state* r)
{
    std::string command = "addr2line -e /proc/" + std::to_string(getpid()) + "/exe -asfipC";
    std::vector<std::string> lines;
    char text[1000];

    for (int i = 0; i < r->lines; i++) {
        const long offset = static_cast<const char*>(r->trace[i].pc) - __executable_start - 1;
        snprintf(text, sizeof text, " %#lx", r->trace[i].pc != nullptr ? offset : 0);
        command += text;
    }
    FILE* out = r->lines > 0 ? popen(command.c_str(), "r") : nullptr;
    while (out != nullptr && fgets(text, sizeof text, out) != nullptr) {
        std::string line(text, strcspn(text, "\n"));
        const size_t at = line.find(": ");
        if (line.compare(0, 2, "0x") == 0 && at != std::string::npos) {
            lines.push_back(line.substr(at + 2));
        } else if (!lines.empty() && lines.back().find(".h:") != std::string::npos) {
            lines.back() = line.substr(line.find("by) ") + 4);
        }
    }
    if (out != nullptr) {
        pclose(out);
    }
    lines.resize(static_cast<size_t>(r->lines));
    return lines;
}

static void print_trace(const shared_state* r)
{
    const std::vector<std::string> lines = lines_of(r);
    std::map<const void*, int> objects;
    const char* last = "";

    for (int i = 0; i < r->lines; i++) {
        const auto& t = r->trace[i];
        const int object =
            t.object == nullptr ? 0 : objects.emplace(t.object, objects.size() + 1).first->second;
        printf("%8u  %-10s %-14s", t.instant, t.thread == last ? "" : t.thread, t.operation);
        printf(object != 0 ? " #%-4d" : "      ", object);
        printf(" %s\n", lines[static_cast<size_t>(i)].c_str());
        last = t.thread;
    }
}

struct wishes {
    int bound = 2;
    double limit = 3600; // seconds for a variant and bound
    std::vector<std::string> names;
    std::string replay;
};

// Runs a variant in a process of its own, which a failure ends. @return whether there was none
static bool run_apart(const scenario& scene, int victim, int bound, double limit,
                      const std::map<uint32_t, uint8_t>* replayed)
{
    fflush(nullptr);
    report->schedules = report->longest = 0;
    report->failure[0] = '\0';
    report->complete = false;
    const pid_t child = fork();
    if (child == 0) {
        const rlimit cpu = {static_cast<rlim_t>(limit) + 60, RLIM_INFINITY}; // without a point
        setrlimit(RLIMIT_CPU, &cpu);
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO); // the program prints there
        x->scene = &scene;
        x->victim = victim;
        x->bound = bound;
        if (replayed != nullptr) {
            report->lines = 0;
            x->mode = walk_mode::REPLAY;
            x->replayed = *replayed;
            x->tracing = true;
            run_schedule();
        } else {
            walk(limit);
        }
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status) && report->failure[0] == '\0') {
        snprintf(report->failure, sizeof report->failure, "the program died of signal %d",
                 WTERMSIG(status));
    } else if (status != 0 && report->failure[0] == '\0') {
        snprintf(report->failure, sizeof report->failure, "the program ended");
    }
    return status == 0;
}

static bool replay(const scenario& scene, int victim, const std::string& picks)
{
    std::map<uint32_t, uint8_t> replayed;
    unsigned instant = 0, code = 0;
    int length = 0;

    for (const char* at = picks.c_str(); sscanf(at, "%u.%u%n", &instant, &code, &length) == 2;) {
        replayed[instant] = static_cast<uint8_t>(code);
        at += length + (at[length] == ',' ? 1 : 0);
    }
    const bool held = run_apart(scene, victim, 0, 60, &replayed);
    print_trace(report);
    printf("%s\n", held ? "nothing failed" : report->failure);
    return held;
}

// A deletion counts as a preemption, and makes one of a third thread.
static int bound_for(const scenario& scene, int victim, int bound)
{
    const int deletion = victim < 0 ? 0 : scene.actors[2].body == nullptr ? 1 : 2;
    return std::max(0, bound - scene.less - deletion);
}

// Fewer preemptions first: what fails is shown with as few as it takes.
static bool explore(const scenario& scene, int victim, const wishes& w)
{
    const int most = bound_for(scene, victim, w.bound);
    const std::string name = variant_name(scene, victim);

    for (int bound = 0; bound <= most; bound++) {
        if (!run_apart(scene, victim, bound, w.limit, nullptr)) {
            const std::string picks = picks_of(report);
            printf("%s fails with %d preemptions: %s\n", name.c_str(), bound, report->failure);
            replay(scene, victim, picks);
            printf("again: test_schedule --replay %s:%s\n", name.c_str(), picks.c_str());
            return false;
        }
        if (!report->complete) {
            break;
        }
    }
    printf("%-36s %d %10lu%s %6lu %8.2f s\n", name.c_str(), most,
           static_cast<unsigned long>(report->schedules), report->complete ? " " : "+",
           static_cast<unsigned long>(report->longest), report->seconds);
    return true;
}

static bool is_wanted(const std::string& name, const wishes& w)
{
    return w.names.empty() ||
           std::any_of(w.names.begin(), w.names.end(), [&](const std::string& wanted) {
               return name.compare(0, wanted.size(), wanted) == 0;
           });
}

static int explore_all(const wishes& w)
{
    const std::string wanted = w.replay.substr(0, w.replay.find(':'));
    uint64_t schedules = 0;
    double took = 0;
    int failed = 0;
    int variants = 0;

    if (w.replay.empty()) {
        printf("%-36s %s %10s  %6s %10s\n", "scenario/deleted task", "b", "schedules", "steps",
               "time");
    }
    for (const scenario& scene : scenarios()) {
        for (int victim = -1; victim < ACTORS; victim++) {
            const actor* a = victim >= 0 ? &scene.actors[victim] : nullptr;
            if (a != nullptr &&
                (a->body == nullptr || a->plain || !(scene.victims >> victim & 1))) {
                continue;
            }
            const std::string name = variant_name(scene, victim);
            if (!w.replay.empty()) {
                if (name == wanted) {
                    return replay(scene, victim, w.replay.substr(wanted.size() + 1)) ? 0 : 1;
                }
            } else if (is_wanted(name, w)) {
                failed += explore(scene, victim, w) ? 0 : 1;
                variants++;
                schedules += report->schedules;
                took += report->seconds;
            }
        }
    }
    printf("%d variants, %lu schedules, %d failed, %.1f s\n", variants,
           static_cast<unsigned long>(schedules), failed, took);
    return failed == 0 && variants > 0 ? 0 : 1;
}

// usage: test_schedule [--bound N] [--seconds N] [NAME...]
//        test_schedule --replay NAME:CHOICES
int main(int argc, char** argv)
{
    wishes w;

    for (int i = 1; i < argc; i++) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : "";
        if (option == "--bound") {
            w.bound = atoi(value);
        } else if (option == "--seconds") {
            w.limit = atof(value);
        } else if (option == "--replay") {
            w.replay = value;
        } else {
            w.names.push_back(option);
            continue;
        }
        i++;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    boot();
    return explore_all(w);
}
