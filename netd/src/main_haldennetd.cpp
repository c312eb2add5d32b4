// Process entry: brings up the proxy service, starts the service thread, serves binder calls.
#include "hnetd.h"

#include "nxaLog.h"

#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include <signal.h>
#include <stdint.h>

#define OWNER      "hnetd"
#define DESCRIPTOR OWNER " " HNETD_VERSION // the build defines the version

static constexpr uint32_t NOTE_VERSION = 1; // NT_VERSION, which not every elf.h names

// A note tells the version of a file that does not run, as one beside a core: scripts/version. Both
// texts end with a zero and are filled up to a multiple of 4 bytes.
typedef struct version_note {
    uint32_t owner_size; // the three words of Elf32_Nhdr, used for 64 bits as well
    uint32_t descriptor_size;
    uint32_t type;
    char owner[(sizeof OWNER + 3) / 4 * 4];
    char descriptor[(sizeof DESCRIPTOR + 3) / 4 * 4];
} version_note_t;

[[gnu::section(".note.hnetd"), gnu::used, gnu::aligned(4)]] // not to more, as large objects are
static constexpr version_note_t version_note = {
    .owner_size = sizeof OWNER,
    .descriptor_size = sizeof DESCRIPTOR,
    .type = NOTE_VERSION,
    .owner = OWNER,
    .descriptor = DESCRIPTOR,
};

int main([[maybe_unused]] int argc, [[maybe_unused]] char** argv)
{
    // A write to a socket or pipe that the other side closed must not end the process.
    signal(SIGPIPE, SIG_IGN);

    // Held until main returns, so that the binder state outlives the pool.
    const android::sp<android::ProcessState> process = android::ProcessState::self();

    // The first line of the log, before the closed libraries have anything to say.
    __halden_log_print(NXA_LOG_INFO, "quarn.hnetd", "%s", version_note.descriptor);
    nxaProxyServiceInit();
    hnetdStart(); // failed or not, the proxy service is served
    android::ProcessState::self()->startThreadPool();
    android::IPCThreadState::self()->joinThreadPool(true);
    return 0;
}
