// Thread pools of Boost.Asio and GLib.
#include "thrpool_rows.h"

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <glib.h>

namespace {

struct asio {
    boost::asio::thread_pool pool{WORKERS};

    ~asio() { pool.join(); }
    void post(sem_t* done)
    {
        boost::asio::post(pool, [done] { sem_post(done); });
    }
    void post(std::atomic<int>* count)
    {
        boost::asio::post(pool, [count] { count->fetch_add(1); });
    }
};

// A pool has one function, so a job says itself what it is.
struct glib {
    struct job {
        sem_t* done;
        std::atomic<int>* count;
    };
    GThreadPool* pool = g_thread_pool_new(run, nullptr, WORKERS, TRUE, nullptr);

    ~glib() { g_thread_pool_free(pool, FALSE, TRUE); }
    static void run(gpointer data, gpointer)
    {
        job* mine = static_cast<job*>(data);
        if (mine->done != nullptr) {
            sem_post(mine->done);
        } else {
            mine->count->fetch_add(1);
        }
        g_free(mine);
    }
    void push(sem_t* done, std::atomic<int>* count)
    {
        job* mine = g_new(job, 1);
        *mine = {done, count};
        g_thread_pool_push(pool, mine, nullptr);
    }
    void post(sem_t* done) { push(done, nullptr); }
    void post(std::atomic<int>* count) { push(nullptr, count); }
};

} // namespace

THRPOOL_ROWS(asio, "Boost.Asio");
THRPOOL_ROWS(glib, "GLib");
