// Calls posted to one thread of Boost.Asio, GLib and libuv.
#include "async_rows.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <glib.h>
#include <mutex>
#include <uv.h>

namespace {

struct asio {
    boost::asio::io_context context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{
        context.get_executor()};
    std::thread thread{[this] { context.run(); }};

    ~asio()
    {
        context.stop();
        thread.join();
    }
    void post(sem_t* done)
    {
        boost::asio::post(context, [done] { sem_post(done); });
    }
};

// A pool of one thread of its own.
struct glib_pool {
    GThreadPool* pool = g_thread_pool_new(run, nullptr, 1, TRUE, nullptr);

    static void run(gpointer done, gpointer) { sem_post(static_cast<sem_t*>(done)); }
    void post(sem_t* done) { g_thread_pool_push(pool, done, nullptr); }
};

struct glib_loop {
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    std::thread thread{[this] { g_main_loop_run(loop); }};

    ~glib_loop()
    {
        g_main_loop_quit(loop);
        thread.join();
    }
    static gboolean run(gpointer done)
    {
        sem_post(static_cast<sem_t*>(done));
        return G_SOURCE_REMOVE;
    }
    void post(sem_t* done)
    {
        GSource* source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, run, done, nullptr);
        g_source_attach(source, context);
        g_source_unref(source);
    }
};

// uv_async_send joins calls that are not yet run, so the calls wait in a list with a lock.
struct libuv {
    uv_loop_t loop;
    uv_async_t wake;
    std::mutex lock;
    std::vector<sem_t*> posted;
    std::thread thread;

    libuv()
    {
        uv_loop_init(&loop);
        uv_async_init(&loop, &wake, run_all);
        wake.data = this;
        thread = std::thread([this] { uv_run(&loop, UV_RUN_DEFAULT); });
        thread.detach();
    }
    static void run_all(uv_async_t* wake)
    {
        libuv* self = static_cast<libuv*>(wake->data);
        std::vector<sem_t*> calls;
        {
            std::lock_guard guard(self->lock);
            calls.swap(self->posted);
        }
        for (sem_t* done : calls) {
            sem_post(done);
        }
    }
    void post(sem_t* done)
    {
        {
            std::lock_guard guard(lock);
            posted.push_back(done);
        }
        uv_async_send(&wake);
    }
};

} // namespace

ASYNC_ROWS(asio, "Boost.Asio");
ASYNC_ROWS(glib_pool, "GLib pool of one");
ASYNC_ROWS(glib_loop, "GLib main loop");
ASYNC_ROWS(libuv, "libuv");
