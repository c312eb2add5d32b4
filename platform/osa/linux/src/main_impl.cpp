// Start-up frame of the layer: the service thread becomes "callManager" and runs the application's
// main-thread hook; the root task "tUsrRoot" initialises the layer and calls the start hook. The
// two run at the same time, so a service that creates itself on first use may be first used by
// both.
//
// No result is looked at: an initialiser that fails leaves its service unusable, and the start goes
// on without it.
#include "osaTask.h"

#include "hostLib.h"
#include "internal.h"
#include "lstLib.h"
#include "osaMsg.h"
#include "osaWd.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/prctl.h>

static constexpr int ROOT_IDLE_TICKS = 500;
static constexpr int STDOUT_FD = 1;
static constexpr int LOG_MESSAGES = 100;

int exit_value = 0;
char** _argv = nullptr;

static void spawn(const char* name, task_entry_t entry)
{
    taskSpawn(const_cast<char*>(name), 0, 0, 0, reinterpret_cast<FUNCPTR>(entry), 0, 0, 0, 0, 0, 0,
              0, 0, 0, 0);
}

int main_v2lin([[maybe_unused]] int argc, char** argv)
{
    _argv = argv;
    prctl(PR_SET_NAME, "callManager", 0, 0, 0);
    spawn("tUsrRoot", root_task);
    errno = 0;
    user_syskill();
    exit(exit_value);
}

int root_task(int, int, int, int, int, int, int, int, int, int)
{
    prctl(PR_SET_NAME, "tUsrRoot", 0, 0, 0);
    spawn("tExcTask", exception_task);
    logInit(STDOUT_FD, LOG_MESSAGES);
    tickInit();
    lstLibInit();
    hostTblInit();
    ifLibInit();
    resolvInit();
    user_sysinit();
    for (;;) {
        taskDelay(ROOT_IDLE_TICKS);
    }
}
