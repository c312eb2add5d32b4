#include "log_double.h"

#include "nxaLog.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <mutex>

static std::mutex lines_lock;
static std::vector<log_line> lines;
static std::atomic<bool> ignored{false};

int __halden_log_print(int priority, const char* tag, const char* format, ...)
{
    if (ignored) {
        return 0;
    }
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);

    std::lock_guard<std::mutex> guard(lines_lock);
    lines.push_back({priority, tag, text});
    return 0;
}

std::vector<log_line> log_lines()
{
    std::lock_guard<std::mutex> guard(lines_lock);
    return lines;
}

std::string log_texts()
{
    std::string all;
    for (const log_line& line : log_lines()) {
        all += line.text + "|";
    }
    return all;
}

std::string log_of(const std::string& tag)
{
    std::string all;
    for (const log_line& line : log_lines()) {
        EXPECT_EQ(line.tag, tag);
        all += std::to_string(line.priority) + " " + line.text + "|";
    }
    return all;
}

void log_clear()
{
    std::lock_guard<std::mutex> guard(lines_lock);
    lines.clear();
}

void log_ignore()
{
    ignored = true;
}
