// A mount namespace of the calling thread's own, so that what a test mounts stays with the test.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

/**
 * From here on this thread, and those it starts, have their own mounts.
 *
 * @param more  further namespaces of unshare
 * @return false where that is not allowed
 */
static inline bool own_mounts(int more = 0)
{
    const int user = geteuid() != 0 ? CLONE_NEWUSER : 0; // in which this process may mount
    return unshare(CLONE_NEWNS | user | more) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}
