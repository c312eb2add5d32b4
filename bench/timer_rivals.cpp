// Timers of the event loops: libevent, libuv, Boost.Asio, GLib. Their passes also look at file
// descriptors and read the clock, which is the way they are used.
#include "timer_rows.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <event2/event.h>
#include <event2/thread.h>
#include <glib.h>
#include <memory>
#include <sys/time.h>
#include <uv.h>

namespace {

const size_t COUNT = static_cast<size_t>(TIMERS_MAX + TIMERS_OWN);

size_t index_of(int number)
{
    return static_cast<size_t>(number);
}

// With its locks, as a program of several threads has it.
struct libevent {
    static constexpr bool WALKS = false;
    static inline int fired = 0;
    event_base* base;
    std::vector<event*> events;

    libevent()
    {
        static const int with_locks = evthread_use_pthreads();
        benchmark::DoNotOptimize(with_locks);
        base = event_base_new();
        for (size_t i = 0; i < COUNT; i++) {
            events.push_back(evtimer_new(base, count, nullptr));
        }
    }
    ~libevent()
    {
        for (event* each : events) {
            event_free(each);
        }
        event_base_free(base);
    }
    static void count(evutil_socket_t, short, void*) { fired++; }
    void arm(int number, uint32_t delay)
    {
        const timeval after = {delay / 1000, delay % 1000 * 1000};
        evtimer_add(events[index_of(number)], &after);
    }
    void arm_due(int number) { arm(number, 0); }
    void move(int number, uint32_t delay) { arm(number, delay); }
    uint32_t left(int number)
    {
        timeval due = {};
        timeval now;
        evtimer_pending(events[index_of(number)], &due);
        gettimeofday(&now, nullptr);
        timersub(&due, &now, &due);
        return static_cast<uint32_t>(due.tv_sec * 1000 + due.tv_usec / 1000);
    }
    void drop(int number) { evtimer_del(events[index_of(number)]); }
    void tidy() {}
    void pass() { event_base_loop(base, EVLOOP_NONBLOCK); }
};

// For one thread alone: it has no locks.
struct libuv {
    static constexpr bool WALKS = false;
    static inline int fired = 0;
    uv_loop_t loop;
    std::vector<uv_timer_t> timers;

    libuv() : timers(COUNT)
    {
        uv_loop_init(&loop);
        for (uv_timer_t& each : timers) {
            uv_timer_init(&loop, &each);
        }
    }
    ~libuv()
    {
        for (uv_timer_t& each : timers) {
            uv_close(reinterpret_cast<uv_handle_t*>(&each), nullptr);
        }
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    }
    static void count(uv_timer_t*) { fired++; }
    void arm(int number, uint32_t delay)
    {
        uv_timer_start(&timers[index_of(number)], count, delay, 0);
    }
    void arm_due(int number) { arm(number, 0); }
    void move(int number, uint32_t delay) { arm(number, delay); }
    uint32_t left(int number)
    {
        return static_cast<uint32_t>(uv_timer_get_due_in(&timers[index_of(number)]));
    }
    void drop(int number) { uv_timer_stop(&timers[index_of(number)]); }
    void tidy() {}
    void pass() { uv_run(&loop, UV_RUN_NOWAIT); }
};

struct asio {
    static constexpr bool WALKS = false;
    static inline int fired = 0;
    boost::asio::io_context context;
    std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;

    asio()
    {
        for (size_t i = 0; i < COUNT; i++) {
            timers.push_back(std::make_unique<boost::asio::steady_timer>(context));
        }
    }
    void arm(int number, uint32_t delay)
    {
        boost::asio::steady_timer& timer = *timers[index_of(number)];
        timer.expires_after(std::chrono::milliseconds(delay));
        timer.async_wait(
            [](const boost::system::error_code& failure) { fired += failure ? 0 : 1; });
    }
    void arm_due(int number) { arm(number, 0); }
    void move(int number, uint32_t delay) { arm(number, delay); }
    uint32_t left(int number)
    {
        const auto rest = timers[index_of(number)]->expiry() - std::chrono::steady_clock::now();
        return static_cast<uint32_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(rest).count());
    }
    void drop(int number) { timers[index_of(number)]->cancel(); }
    void tidy() { context.poll(); } // the handlers of cancelled waits
    void pass() { context.poll(); }
};

struct glib {
    static constexpr bool WALKS = false;
    static inline int fired = 0;
    GMainContext* context = g_main_context_new();
    std::vector<GSource*> sources;

    glib() : sources(COUNT) {}
    ~glib() { g_main_context_unref(context); }
    static gboolean count(gpointer)
    {
        fired++;
        return G_SOURCE_REMOVE;
    }
    void arm(int number, uint32_t delay)
    {
        GSource* source = g_timeout_source_new(delay);
        g_source_set_callback(source, count, nullptr, nullptr);
        g_source_attach(source, context);
        g_source_unref(source); // the context's from now on
        sources[index_of(number)] = source;
    }
    void arm_due(int number) { arm(number, 0); }
    void move(int number, uint32_t delay)
    {
        g_source_set_ready_time(sources[index_of(number)],
                                g_get_monotonic_time() + gint64{delay} * 1000);
    }
    uint32_t left(int number)
    {
        return static_cast<uint32_t>(
            (g_source_get_ready_time(sources[index_of(number)]) - g_get_monotonic_time()) / 1000);
    }
    void drop(int number) { g_source_destroy(sources[index_of(number)]); }
    void tidy() {}
    void pass() { g_main_context_iteration(context, FALSE); }
};

[[maybe_unused]] const bool added[] = {
    add_timers<libevent>("libevent"),    add_timers<libuv>("libuv"),
    add_timers<asio>("Boost.Asio"),      add_timers<glib>("GLib"),
    add_watchdogs<libevent>("libevent"),
};

} // namespace
