// What stands in for processes and their threads: the image of the program's data, which every
// schedule begins with; a heap in which nothing freed is used again; and stacks to switch between.
#include "engine.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <link.h>
#include <sys/mman.h>
#include <ucontext.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#define SWITCH_BEGINS(save, to) __sanitizer_start_switch_fiber(save, (to)->stack, STACK)
#define SWITCH_ENDS(saved)      __sanitizer_finish_switch_fiber(saved, nullptr, nullptr)
#else
#define SWITCH_BEGINS(save, to)                 static_cast<void>(0)
#define SWITCH_ENDS(saved)                      static_cast<void>(0)
#define ASAN_POISON_MEMORY_REGION(from, size)   static_cast<void>(0)
#define ASAN_UNPOISON_MEMORY_REGION(from, size) static_cast<void>(0)
#endif

static constexpr unsigned char FREED = 0x5a;

struct block_t { // in front of what heap_take hands out
    uint64_t size, alive;
};
static constexpr uint64_t ALIVE = 0x616c697665626c6b;

extern "C" char __data_start[], _end[];
extern "C" pthread_t __real_pthread_self();

engine* x;
shared_state* report;

// The sanitizer would object to what lies between variables.
[[gnu::no_sanitize_address, gnu::optimize("no-tree-loop-distribute-patterns")]] static void
copy_raw(char* to, const char* from, size_t size)
{
    for (size_t i = 0; i < size; i += 8) {
        const uint64_t* word = reinterpret_cast<const uint64_t*>(from + i);
        *reinterpret_cast<uint64_t*>(to + i) = *word;
    }
}

// ---- Memory ----

void* heap_take(size_t size)
{
    fiber* me = self();
    block_t* block = reinterpret_cast<block_t*>(me->heap);
    const size_t whole = (sizeof(block_t) + size + 2 * GRAIN - 1) / GRAIN * GRAIN;

    me->heap += whole;
    if (me->heap > x->heap + HEAP * static_cast<size_t>(me->number + 1)) {
        fail("uses up its heap");
    }
    ASAN_UNPOISON_MEMORY_REGION(block, sizeof *block + size);
    *block = {size, ALIVE};
    ASAN_POISON_MEMORY_REGION(block, sizeof *block);
    memset(block + 1, 0xa5, size);
    x->blocks.push_back(block);
    x->alive++;
    return block + 1;
}

static size_t grain_of(const void* address)
{
    return static_cast<size_t>(static_cast<const char*>(address) - x->heap) / GRAIN;
}

bool is_freed(const void* address)
{
    const size_t grain = grain_of(address);
    return grain < x->freed.size() && x->freed[grain] != 0;
}

void heap_give(void* address)
{
    if (address == nullptr) {
        return;
    }
    block_t* block = static_cast<block_t*>(address) - 1;
    ASAN_UNPOISON_MEMORY_REGION(block, sizeof *block);
    if (grain_of(address) >= x->freed.size() || is_freed(address) || block->alive != ALIVE) {
        fail("frees what is not allocated");
    }
    char* data = static_cast<char*>(address);
    for (const fiber& other : x->fibers) {
        const char* object = static_cast<const char*>(other.object);
        if (other.state != state_t::FREE && other.state != state_t::OVER && object >= data &&
            object < data + block->size) {
            fail("frees what %s waits for", other.name);
        }
    }
    memset(data, FREED, block->size);
    memset(&x->freed[grain_of(block)], 1, grain_of(data + block->size - 1) - grain_of(block) + 1);
    ASAN_POISON_MEMORY_REGION(block, sizeof *block + block->size);
    x->alive--;
}

// Freed blocks are not used again before the end of a schedule, so what wrote to them shows.
void check_heap()
{
    for ([[maybe_unused]] block_t* block : x->blocks) {
#if !defined(__SANITIZE_ADDRESS__) // which has seen it
        const unsigned char* data = reinterpret_cast<unsigned char*>(block + 1);
        if (is_freed(data) && std::any_of(data, data + block->size,
                                          [](unsigned char byte) { return byte != FREED; })) {
            fail("a freed block of %lu bytes was written to",
                 static_cast<unsigned long>(block->size));
        }
#endif
    }
    if (x->alive != x->scene->kept) {
        fail("%d blocks are left allocated, not %d", x->alive, x->scene->kept);
    }
}

// ---- Switching ----

void switch_to(fiber* to)
{
    fiber* from = x->current;

    if (from == to) {
        return;
    }
    from->error = errno;
    copy_raw(from->tls, x->tls, x->tls_size);
    copy_raw(x->tls, to->tls, x->tls_size);
    x->current = to;
    if (_setjmp(from->context) == 0) {
        SWITCH_BEGINS(from->state == state_t::OVER ? nullptr : &from->fake_stack, to);
        _longjmp(to->context, 1);
    }
    SWITCH_ENDS(self()->fake_stack);
    errno = self()->error;
}

// The life of a stack: each thread that gets it begins behind the setjmp.
static void stack_entry()
{
    SWITCH_ENDS(nullptr);
    if (_setjmp(x->current->entry) == 0) {
        SWITCH_BEGINS(&x->current->fake_stack, &x->fibers[0]);
        _longjmp(x->boot, 1);
    }
    SWITCH_ENDS(nullptr);
    errno = 0;
    self()->result = self()->start(self()->arg);
    thread_over();
}

static void boot_stacks()
{
    static ucontext_t context, back;

    for (fiber& f : x->fibers) {
        f.number = static_cast<int>(&f - x->fibers);
        if (f.number == 0) {
            pthread_attr_t attr; // the process's own stack
            void* stack = nullptr;
            size_t size = 0;
            pthread_getattr_np(__real_pthread_self(), &attr);
            pthread_attr_getstack(&attr, &stack, &size);
            pthread_attr_destroy(&attr);
            f.stack = static_cast<char*>(stack) + size - STACK;
            continue;
        }
        f.stack = static_cast<char*>(mmap(nullptr, STACK, PROT_READ | PROT_WRITE,
                                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        getcontext(&context);
        context.uc_stack.ss_sp = f.stack;
        context.uc_stack.ss_size = STACK;
        makecontext(&context, stack_entry, 0);
        x->current = &f;
        if (_setjmp(x->boot) == 0) {
            SWITCH_BEGINS(&x->fibers[0].fake_stack, &f);
            swapcontext(&back, &context);
        }
        SWITCH_ENDS(x->fibers[0].fake_stack);
    }
    x->current = &x->fibers[0];
}

// ---- Threads ----

fiber* new_thread(void* (*start)(void*), void* arg)
{
    fiber* made = nullptr;

    for (fiber& f : x->fibers) { // the id of one that has gone is soon used again
        if (f.state == state_t::FREE || (f.state == state_t::OVER && (f.detached || f.joined))) {
            made = &f;
            break;
        }
    }
    if (made == nullptr) {
        fail("there are too many threads");
    }
    ASAN_UNPOISON_MEMORY_REGION(made->stack, STACK);
    memcpy(made->context, made->entry, sizeof made->entry);
    memcpy(made->tls, x->pristine, x->tls_size);
    made->name = "thread";
    made->start = start;
    made->arg = arg;
    made->object = made->result = nullptr;
    made->detached = made->joined = made->signalled = made->held_off = made->unmoved = false;
    made->masked = self()->masked;
    made->cleanups = nullptr;
    memset(made->specifics, 0, sizeof made->specifics);
    made->holds = 0;
    made->acted = made->stirred = false;
    made->looked = nullptr;
    made->fake_stack = nullptr;
    made->state = state_t::READY;
    x->used = std::max(x->used, made->number + 1);
    return made;
}

// ---- The image ----

void restore()
{
    copy_raw(x->data, x->image.data(), x->image.size());
    copy_raw(x->tls, x->pristine, x->tls_size);
    for (fiber& f : x->fibers) {
        char* heap = x->heap + HEAP * static_cast<size_t>(f.number);
        if (f.heap != nullptr) {
            memset(&x->freed[grain_of(heap)], 0, grain_of(f.heap) - grain_of(heap));
        }
        f.heap = heap;
        f.state = f.number == 0 ? state_t::READY : state_t::FREE;
        f.object = nullptr;
        f.own = 0;
        f.holds = 0;
        f.signalled = f.masked = f.unmoved = false;
    }
    ASAN_POISON_MEMORY_REGION(x->heap, x->freed.size() * GRAIN);
    x->blocks.clear();
    x->alive = 0;
}

static int find_tls(dl_phdr_info* info, size_t, void*)
{
    for (int i = 0; i < info->dlpi_phnum; i++) {
        if (info->dlpi_phdr[i].p_type == PT_TLS) {
            x->tls = static_cast<char*>(info->dlpi_tls_data);
            x->tls_size = (info->dlpi_phdr[i].p_memsz + 7) / 8 * 8;
        }
    }
    return 1; // the program itself comes first
}

void boot()
{
    static constexpr size_t heaps = HEAP * THREADS;

    report = static_cast<shared_state*>(
        mmap(nullptr, sizeof *report, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    x = new engine{};
    x->heap = static_cast<char*>(mmap(nullptr, heaps, PROT_READ | PROT_WRITE,
                                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    x->freed.resize(heaps / GRAIN);
    dl_iterate_phdr(find_tls, nullptr);
    if (x->tls_size > sizeof x->pristine) {
        abort();
    }
    copy_raw(x->pristine, x->tls, x->tls_size);
    boot_stacks();
    x->data = __data_start;
    x->image.resize(static_cast<size_t>(_end - __data_start) / 8 * 8);
    copy_raw(x->image.data(), x->data, x->image.size());
}
