// What the probe libraries share. They report to the test by lines on standard output.
#pragma once

#include <dirent.h>
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
static inline int thread_count()
{
    int count = 0;
    DIR* tasks = opendir("/proc/self/task");
    while (readdir(tasks) != nullptr) {
        count++;
    }
    closedir(tasks);
    return count - 2; // "." and ".."
}
