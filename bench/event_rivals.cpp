// Signals of Boost.Signals2, GLib and sigc++. GLib finds them by name itself; the others get a
// table of names, and a lock for it, in front.
#include "event_rows.h"

#include <boost/signals2/signal.hpp>
#include <glib-object.h>
#include <mutex>
#include <sigc++/sigc++.h>

namespace {

const char event_name[] = "SYSTEM_TIME_UPDATED";

// Emission happens outside the lock, as in the program.
template <class Signal> struct named_signals {
    std::mutex lock;
    name_table<Signal> signals;

    Signal& add(const std::string& name) { return signals[name]; }
    Signal& find(std::string_view name)
    {
        std::lock_guard guard(lock);
        return signals.find(name)->second;
    }
};

struct signals2 {
    using signal = boost::signals2::signal<void(const char*, int*, size_t)>;
    static inline int called = 0;
    named_signals<signal> names;
    int param = 50;

    explicit signals2(int others = OTHER_EVENTS)
    {
        for (int i = 0; i < others; i++) {
            names.add(other_event(i)).connect(count);
        }
    }
    static void count(const char*, int*, size_t) { called += 1; }
    void care(int) { names.add(event_name).connect(count); }
    [[gnu::noinline]] void raise() { names.find(event_name)(event_name, &param, sizeof param); }
};

// Without a name: the signal object is at hand.
struct signals2_at_hand {
    static inline int called = 0;
    signals2::signal signal;
    int param = 50;

    static void count(const char*, int*, size_t) { called += 1; }
    void care(int) { signal.connect(count); }
    [[gnu::noinline]] void raise() { signal(event_name, &param, sizeof param); }
};

// sigc++ itself takes no locks.
struct sigcpp {
    using signal = sigc::signal<void, const char*, int*, size_t>;
    static inline int called = 0;
    named_signals<signal> names;
    int param = 50;

    explicit sigcpp(int others = OTHER_EVENTS)
    {
        for (int i = 0; i < others; i++) {
            names.add(other_event(i)).connect(sigc::ptr_fun(count));
        }
    }
    static void count(const char*, int*, size_t) { called += 1; }
    void care(int) { names.add(event_name).connect(sigc::ptr_fun(count)); }
    [[gnu::noinline]] void raise() { names.find(event_name)(event_name, &param, sizeof param); }
};

struct glib {
    static inline int called = 0;
    GObject* emitter;
    int param = 50;

    glib()
    {
        static const GType type = emitter_type();
        emitter = static_cast<GObject*>(g_object_new(type, nullptr));
    }
    ~glib() { g_object_unref(emitter); }
    static GType emitter_type()
    {
        const GType type = g_type_register_static_simple(
            G_TYPE_OBJECT, "BenchEmitter", sizeof(GObjectClass), nullptr, sizeof(GObject), nullptr,
            static_cast<GTypeFlags>(0));
        for (int i = 0; i < OTHER_EVENTS; i++) {
            add_signal(other_event(i).c_str(), type);
        }
        add_signal(event_name, type);
        return type;
    }
    static void add_signal(const char* name, GType type)
    {
        g_signal_new(name, type, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 2,
                     G_TYPE_POINTER, G_TYPE_ULONG);
    }
    static void count(GObject*, gpointer, gulong, gpointer) { called += 1; }
    void care(int) { g_signal_connect(emitter, event_name, G_CALLBACK(count), this); }
    [[gnu::noinline]] void raise()
    {
        g_signal_emit_by_name(emitter, event_name, &param, gulong{sizeof param});
    }
};

} // namespace

EVENT_ROWS(signals2, "Boost.Signals2");
EVENT_ROWS(signals2_at_hand, "Signals2, no name");
EVENT_ROWS(sigcpp, "sigc++");
EVENT_ROWS(glib, "GLib");
MANY_EVENTS_ROWS(signals2, "Boost.Signals2");
MANY_EVENTS_ROWS(sigcpp, "sigc++");
