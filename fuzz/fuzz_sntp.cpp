// The reply of an SNTP server. The socket is not there: the system calls on it are replaced at link
// time, and the input is what it receives.
#include "fuzz.h"
#include "sntp.h"

#include <poll.h>
#include <sys/socket.h>

static constexpr int NO_FILE = 1 << 20;

static const uint8_t* input;
static size_t input_size;
static bool is_open;

extern "C" {
int __real_close(int fd);

int __wrap_socket(int, int, int)
{
    is_open = true;
    return NO_FILE;
}

int __wrap_setsockopt(int, int, int, const void*, socklen_t)
{
    return 0;
}

ssize_t __wrap_sendto(int, const void*, size_t size, int, const sockaddr*, socklen_t)
{
    return static_cast<ssize_t>(size);
}

int __wrap_ppoll(pollfd*, nfds_t, const timespec*, const sigset_t*)
{
    return 1;
}

ssize_t __wrap_recvfrom(int, void* buf, size_t size, int, sockaddr*, socklen_t*)
{
    const size_t given = std::min(size, input_size);
    memcpy(buf, input, given);
    return static_cast<ssize_t>(given);
}

int __wrap_close(int fd)
{
    if (fd != NO_FILE) {
        return __real_close(fd);
    }
    is_open = false;
    return 0;
}
}

static uint32_t field(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    char server[] = "127.0.0.1";
    uint8_t reply[48] = {};
    timespec now = {-1, -1};

    memcpy(reply, data, std::min(size, sizeof reply));
    input = data;
    input_size = size;
    const STATUS result = sntpcTimeGet(server, 0, &now);

    const uint32_t seconds = field(reply + 40);
    const bool valid = seconds != 0 && (reply[0] & 0x38) != 0;
    const double exact = field(reply + 44) / 4.294967296;
    expect(!is_open);
    expect(result == (valid ? OK : ERROR));
    expect(valid || (now.tv_sec == -1 && now.tv_nsec == -1));
    expect(!valid || now.tv_sec == static_cast<uint32_t>(seconds - 2208988800));
    const double nsec = static_cast<double>(now.tv_nsec);
    expect(!valid || (now.tv_nsec >= 0 && nsec <= exact && nsec > exact - 80));
    return 0;
}
