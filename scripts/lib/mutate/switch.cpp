// Which planted fault is on, and which ones a run came across. Linked to every mutated program.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {
int hnetd_mutant = 0;                   // 0: none
unsigned char* hnetd_reached = nullptr; // a byte for each fault, in a file shared with children
}

__attribute__((constructor(101))) static void switch_on()
{
    const char* number = getenv("HNETD_MUTANT");
    const char* path = getenv("HNETD_REACHED");

    hnetd_mutant = number != nullptr ? atoi(number) : 0;
    if (path == nullptr) {
        return;
    }
    const int file = open(path, O_RDWR);
    const off_t size = lseek(file, 0, SEEK_END);
    void* bytes =
        mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (bytes != MAP_FAILED) {
        hnetd_reached = static_cast<unsigned char*>(bytes);
    }
}
