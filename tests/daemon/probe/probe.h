// What the probe libraries share. They report to the test by lines on standard output.
#pragma once

#include <filesystem>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>

/** Writes one line, in one write. */
#define TELL(...) dprintf(1, __VA_ARGS__)

/** What the test asks for: the environment variable HNETD_PROBE, or one of the others. */
static inline bool asked(const char* what, const char* variable = "HNETD_PROBE")
{
    const char* value = getenv(variable);
    return value != nullptr && strcmp(value, what) == 0;
}

static inline bool called_on(const char* thread)
{
    char name[16] = "";
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return strcmp(name, thread) == 0;
}

/** Threads of this process. */
static inline long thread_count()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}
