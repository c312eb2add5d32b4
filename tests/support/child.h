// Runs a piece of a test in a process of its own, in which the product has not been used yet: for
// what happens once per process. The calling process must have no threads and keep it that way.
#pragma once

#include <cstdio>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

/** @return true if the body ended, and without a failed expectation */
inline bool passes_in_child(void (*body)())
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
}
