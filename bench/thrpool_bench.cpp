// The thread pool of the program.
#include "thrpool_rows.h"

#include "osaTask.h"

namespace {

struct hnetd {
    hnetd() { taskThrPoolCreate(WORKERS); }
    ~hnetd() { taskThrPoolDestroy(); }
    static int wake(void* done) { return sem_post(static_cast<sem_t*>(done)); }
    static int add(void* count) { return static_cast<std::atomic<int>*>(count)->fetch_add(1); }
    void post(sem_t* done) { taskThrPoolAddTask(reinterpret_cast<FUNCPTR>(wake), done, -1); }
    void post(std::atomic<int>* count)
    {
        taskThrPoolAddTask(reinterpret_cast<FUNCPTR>(add), count, -1);
    }
};

} // namespace

THRPOOL_ROWS(hnetd, "hnetd");
