// The log: one line a call on standard output, as the platform's log shows it:
//
//     MM-DD HH:MM:SS.mmm  pid  tid P tag: text
//
// P is the priority's letter; on a terminal it also colours the line. A line goes out in a single
// write, so lines of several threads do not mix.
#include "nxaLog.h"

#include "demo.h"

#include <stdarg.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

struct look_t {
    char letter;
    const char* colour;
};

static constexpr look_t looks[] = {
    {'?', ""},                              // NXA_LOG_DEFAULT
    {'T', "\033[90m"},                      // grey
    {'V', "\033[90m"},   {'D', "\033[36m"}, // cyan
    {'I', "\033[32m"},                      // green
    {'W', "\033[33m"},                      // yellow
    {'E', "\033[31m"},                      // red
    {'F', "\033[1;31m"},
};

struct line_t {
    size_t used;
    char text[1024];
};

static void add_args(line_t* line, const char* format, va_list args)
{
    const size_t room = sizeof line->text - line->used;
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the callers started it
    const int wanted = vsnprintf(line->text + line->used, room, format, args);
    if (wanted > 0) {
        const size_t length = static_cast<size_t>(wanted);
        line->used += length < room ? length : room - 1; // cut off at the end of the buffer
    }
}

__attribute__((format(printf, 2, 3))) static void add(line_t* line, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    add_args(line, format, args);
    va_end(args);
}

static void add_head(line_t* line, char letter, const char* tag)
{
    struct timespec now;
    struct tm local;

    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    add(line, "%02d-%02d %02d:%02d:%02d.%03ld %5d %5d %c %s: ", local.tm_mon + 1, local.tm_mday,
        local.tm_hour, local.tm_min, local.tm_sec, now.tv_nsec / 1'000'000, getpid(), gettid(),
        letter, tag);
}

static bool on_terminal()
{
    static constinit int terminal = -1; // not asked yet
    int known = __atomic_load_n(&terminal, __ATOMIC_RELAXED);
    if (known < 0) {
        known = isatty(STDOUT_FILENO);
        __atomic_store_n(&terminal, known, __ATOMIC_RELAXED);
    }
    return known != 0;
}

// Callers end some texts with a newline and others not; each is one line here.
static void end_line(line_t* line, const char* close)
{
    static constexpr size_t ROOM = 8; // for the colour's end and the newline
    if (line->used > sizeof line->text - ROOM) {
        line->used = sizeof line->text - ROOM;
    }
    while (line->used > 0 && line->text[line->used - 1] == '\n') {
        line->used--;
    }
    add(line, "%s\n", close);
}

int __halden_log_print(int priority, const char* tag, const char* format, ...)
{
    const bool known = priority > NXA_LOG_DEFAULT && priority < NXA_LOG_SILENT;
    const look_t* look = &looks[known ? priority : NXA_LOG_DEFAULT];
    line_t line = {};
    va_list args;

    // localtime_r takes a lock of the C library: a task must not be ended in the middle of it.
    const sigset_t before = hold_deletion();
    const bool coloured = on_terminal();
    add(&line, "%s", coloured ? look->colour : "");
    add_head(&line, look->letter, tag);
    va_start(args, format);
    add_args(&line, format, args);
    va_end(args);
    end_line(&line, coloured ? "\033[0m" : "");
    const ssize_t written = write(STDOUT_FILENO, line.text, line.used);
    let_deletion_in(before);
    return static_cast<int>(written);
}
