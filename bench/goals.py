"""What the rows are called, and what is asked of them.

A goal is the most that hnetd's median may be of another's: {"floor": 1.1}, or of another's at some
sizes: {"libevent": {30: 1.1, 3000: 1.3}}. A name with a slash is that of another row, or of a size
of the same one: {"/30": 1.1}.
"""

from dataclasses import dataclass, field


@dataclass
class Row:
    key: str
    title: str
    goals: dict = field(default_factory=dict)
    sizes: str = ""  # what the sizes of the row count
    only: tuple = ()  # sizes that the goals hold for; none: all


SECTIONS = {
    "Semaphores": [
        Row("sem.binary", "binary: take and give, nobody waits", {"sem_t": 1.0}),
        Row("sem.counting", "counting: take and give, nobody waits", {"sem_t": 1.0}),
        Row("sem.mutex", "mutex: take and give", {"floor": 1.25}),
        Row("sem.timed", "take with a time-out what is there, and give", {"sem_t": 0.7}),
        Row("sem.empty", "take what is not there, without waiting", {"sem_t": 1.8}),
        Row("sem.late", "take what is not there, time-out in the past", {"sem_t": 0.3}),
        Row("sem.handover", "to another thread and back, one CPU", {"sem_t": 1.25}),
        Row("sem.crowd", "give to one of many, until it has it", {"sem_t": 1.5, "/1": 2.0},
            "waiting"),
    ],
    "Message queues": [
        Row("queue.16", "send and receive 16 bytes, one thread",
            {"textbook": 0.7, "pipe": 0.2, "POSIX mq": 0.2}),
        Row("queue.1024", "send and receive 1024 bytes, one thread",
            {"textbook": 0.9, "pipe": 0.2, "POSIX mq": 0.2}),
        Row("queue.many", "16 bytes through one of many", {"/1": 1.2}, "queues"),
        Row("queue.create", "create one more", {"/1": 2.0}, "queues"),
        Row("queue.handover", "16 bytes to another thread and back, one CPU", {"pipe": 1.1}),
        Row("queue.receivers", "16 bytes to one of many that wait, and back, one CPU",
            {"/1": 2.0, "textbook": 1.1}, "waiting"),
        Row("queue.senders", "16 bytes from one of many that wait for space, one CPU",
            {"/1": 2.0, "textbook": 1.1}, "waiting"),
    ],
    "Software timers": [
        Row("timer.arm", "add one and delete it",
            {"libevent": {30: 1.1, 300: 1.1, 3000: 1.3}, "std::multimap": {100000: 1.0}}, "alive"),
        Row("timer.replace", "delete one and add another",
            {"libevent": {300: 1.1, 100000: 1.0}}, "alive"),
        Row("timer.move", "refresh one", {"libevent": {300: 1.0}}, "alive"),
        Row("timer.ask", "ask for the time left", {"std::multimap": 0.6}, "alive"),
        Row("timer.pass", "a pass with nothing due", {"std::multimap": 0.8, "/30": 1.2}, "alive"),
        Row("timer.fire", "one firing, of a hundred due", {"libevent": 0.2}, "alive"),
    ],
    "Watchdogs": [
        Row("watchdog.arm", "start one and cancel it",
            {"floor": {300: 1.0}, "/30": {10000: 3.0}}, "alive"),
        Row("watchdog.move", "restart one", {"floor": {300: 1.0}, "/30": {10000: 3.0}}, "alive"),
        Row("watchdog.pass", "a tick with nothing due", {"std::multimap": 1.1, "/30": 1.1},
            "alive"),
        Row("watchdog.fire", "one firing, of a hundred due", {"libevent": 0.5}, "alive"),
    ],
    "Memory": [
        Row("pool.block", "a block of the pool: take and put back", {"g_slice": 1.3}),
        Row("pool.zeroed", "zeroed memory: get and free", {"calloc": 1.0}, "bytes"),
    ],
    "Events": [
        Row("event.raise", "raise one by its name",
            {"Boost.Signals2": 1 / 1.5, "GLib": 1 / 1.5, "sigc++": 1.0}, "handlers", (1, 3, 10)),
        Row("event.among", "raise one to one handler, among others", {"sigc++": 0.5, "/1": 1.2},
            "events"),
    ],
    "Calls on other threads": [
        Row("async.one", "asynchronous call: post, run, answer, one CPU", {"Boost.Asio": 1.1}),
        Row("async.batch", "sixteen posted at once, each"),
        Row("thrpool.one", "thread pool: post, run, answer, one CPU"),
        Row("thrpool.jobs", "a thousand jobs, 4 workers, all CPUs, each", {"Boost.Asio": 1.0}),
        Row("task.spawn", "task: from spawn to end, one CPU", {"pthread_create": 1.1}),
    ],
    "A task among many": [
        Row("task.lock", "take and give the task lock", {"/1": 1.5}, "tasks alive"),
        Row("task.verify", "verify the latest task's id", {"/1": 1.5}, "tasks alive"),
        Row("task.name", "name of the latest task", {"/1": 1.5}, "tasks alive"),
        Row("task.semdelete", "create a semaphore and delete it", {"/1": 1.5}, "tasks alive"),
        Row("task.delete", "spawn a task and delete it", {"/1": 1.5}, "tasks alive"),
    ],
    "Addresses": [
        Row("net.checksum", "checksum (floor: reading 64-bit words)", {"floor": 3.5}, "bytes"),
        Row("net.to-text", "IPv4 address to text", {"inet_ntop": 1 / 3}),
        Row("net.from-text4", "text to IPv4 address", {"inet_pton": 3.0}),
        Row("net.from-text6", "text to IPv6 address", {"inet_pton": 3.0}),
    ],
    "Resolver, real server on loopback": [
        Row("dns.address", "A and AAAA of a name",
            {"res_nsearch": 1.15, "getaddrinfo": 1 / 1.3}),
        Row("dns.srv", "SRV with its targets' addresses", {"res_nsearch": 1.15}),
        Row("dns.naptr", "NAPTR, its SRV, their addresses", {"res_nsearch": 1.15}),
    ],
}

GROWTH = {  # the pictures that show what grows with what is alive, and their rows
    "timers": ("timer.arm", "timer.replace", "timer.ask", "timer.fire"),
    "watchdogs": ("watchdog.arm", "watchdog.pass", "watchdog.fire"),
    "tasks": ("task.lock", "task.verify", "task.delete"),
    "queues": ("queue.many", "queue.create"),
    "waiters": ("sem.crowd", "queue.receivers", "queue.senders"),
}

RSS_KIB = 3 * 1024
CPU_RATIO = 1.2
START_MS = 5.0
LATE_MS = 25.0 + 2.0  # half a pump cycle and 2 ms
LEFT_KIB = 100  # after 10,000 deletions: 10 bytes each, or what the C library keeps of 20 threads
ALLOCATIONS = {"raise-to-17": 1, "raise-to-40": 1}  # of one operation; every other: 0
