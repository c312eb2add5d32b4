// Message queues of GLib and Boost.Interprocess.
#include "queue_rows.h"

#include <boost/interprocess/ipc/message_queue.hpp>
#include <glib.h>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

// A queue of pointers: whoever sends bytes copies them to memory of their own.
struct glib {
    GAsyncQueue* queue = g_async_queue_new();
    size_t size;
    explicit glib(size_t bytes) : size(bytes) {}
    ~glib() { g_async_queue_unref(queue); }
    void send(const char* message) { g_async_queue_push(queue, g_memdup2(message, size)); }
    void receive(char* message)
    {
        gpointer copy = g_async_queue_pop(queue);
        memcpy(message, copy, size);
        g_free(copy);
    }
};

struct interprocess {
    using message_queue = boost::interprocess::message_queue;
    std::unique_ptr<message_queue> queue;
    size_t size;
    explicit interprocess(size_t bytes) : size(bytes)
    {
        const std::string name = "hnetd-bench-" + std::to_string(getpid()) + "-" +
                                 std::to_string(reinterpret_cast<uintptr_t>(this));
        queue = std::make_unique<message_queue>(boost::interprocess::create_only, name.c_str(),
                                                QUEUE_CAPACITY, bytes);
        message_queue::remove(name.c_str());
    }
    void send(const char* message) { queue->send(message, size, 0); }
    void receive(char* message)
    {
        message_queue::size_type length = 0;
        unsigned priority = 0;
        queue->receive(message, size, length, priority);
    }
};

} // namespace

QUEUE_ROWS(glib, "GLib async queue");
QUEUE_ROWS(interprocess, "Boost.Interprocess");
