// Asynchronous calls of the program.
#include "async_rows.h"

#include "uTimer.h"

namespace {

struct hnetd {
    static int run(void* done) { return sem_post(static_cast<sem_t*>(done)); }
    void post(sem_t* done) { uAsyncCall(reinterpret_cast<FUNCPTR>(run), done); }
};

} // namespace

ASYNC_ROWS(hnetd, "hnetd");
