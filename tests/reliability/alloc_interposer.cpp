/*
 * The allocator seen by a reliability test program: glibc's own allocator
 * underneath (__libc_malloc and friends, which glibc exports precisely so that
 * a program can wrap it), with counting, planned failure and tracking for one
 * armed thread at a time. Nothing in here may allocate.
 */
#include "alloc_interposer.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KX_REL_INTERPOSE 0
#else
#define KX_REL_INTERPOSE 1
#endif

#if KX_REL_INTERPOSE

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *p, size_t size);
void __libc_free(void *p);
}

namespace {

/* Per-thread arming: only the thread that runs the call under test counts. */
__thread bool t_armed = false;
__thread long t_count = 0;
__thread long t_fail_at = 0;
__thread bool t_delivered = false;

/* Blocks obtained while armed, by address. Open addressing with tombstones;
 * a run of the largest call stays far below the capacity. */
constexpr size_t kSlots = 1u << 17;
constexpr uintptr_t kEmpty = 0;
constexpr uintptr_t kGone = 1;
uintptr_t g_slot[kSlots];
size_t g_size[kSlots];
void *g_caller[kSlots]; /* who asked for the block, for leak reports */
std::atomic<long> g_live{0};
std::atomic<size_t> g_live_bytes{0};
std::atomic<bool> g_overflow{false};
std::atomic_flag g_lock = ATOMIC_FLAG_INIT;

struct Lock {
    Lock()
    {
        while (g_lock.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~Lock() { g_lock.clear(std::memory_order_release); }
};

size_t slot_of(uintptr_t p) { return (p >> 4) * 0x9E3779B97F4A7C15ull >> (64 - 17); }

void track(void *p, size_t size, void *caller)
{
    if (p == nullptr)
        return;
    Lock lock;
    uintptr_t key = reinterpret_cast<uintptr_t>(p);
    size_t i = slot_of(key);
    for (size_t n = 0; n < kSlots; ++n, i = (i + 1) & (kSlots - 1)) {
        if (g_slot[i] == kEmpty || g_slot[i] == kGone) {
            g_slot[i] = key;
            g_size[i] = size;
            g_caller[i] = caller;
            g_live.fetch_add(1, std::memory_order_relaxed);
            g_live_bytes.fetch_add(size, std::memory_order_relaxed);
            return;
        }
    }
    g_overflow.store(true);
}

void untrack(void *p)
{
    if (p == nullptr || g_live.load(std::memory_order_relaxed) == 0)
        return;
    Lock lock;
    uintptr_t key = reinterpret_cast<uintptr_t>(p);
    size_t i = slot_of(key);
    for (size_t n = 0; n < kSlots; ++n, i = (i + 1) & (kSlots - 1)) {
        if (g_slot[i] == kEmpty)
            return;
        if (g_slot[i] == key) {
            g_slot[i] = kGone;
            g_live.fetch_sub(1, std::memory_order_relaxed);
            g_live_bytes.fetch_sub(g_size[i], std::memory_order_relaxed);
            return;
        }
    }
}

/* One allocation attempt of the armed thread: true = let it fail. */
bool should_fail()
{
    ++t_count;
    if (t_fail_at > 0 && t_count == t_fail_at) {
        t_delivered = true;
        return true;
    }
    return false;
}

}  // namespace

extern "C" {

void *malloc(size_t size)
{
    if (!t_armed)
        return __libc_malloc(size);
    if (should_fail())
        return nullptr;
    void *p = __libc_malloc(size);
    track(p, size, __builtin_return_address(0));
    return p;
}

void *calloc(size_t count, size_t size)
{
    if (!t_armed)
        return __libc_calloc(count, size);
    if (should_fail())
        return nullptr;
    void *p = __libc_calloc(count, size);
    track(p, count * size, __builtin_return_address(0));
    return p;
}

void *realloc(void *old, size_t size)
{
    if (!t_armed) {
        /* A block tracked earlier may grow after the call: keep the table
         * honest by following it. */
        if (old != nullptr && g_live.load(std::memory_order_relaxed) > 0) {
            void *p = __libc_realloc(old, size);
            if (p != nullptr || size == 0)
                untrack(old);
            return p;
        }
        return __libc_realloc(old, size);
    }
    if (old != nullptr && size == 0) {
        untrack(old);
        return __libc_realloc(old, size);
    }
    if (should_fail())
        return nullptr; /* the old block stays valid, as realloc promises */
    void *p = __libc_realloc(old, size);
    if (p != nullptr) {
        untrack(old);
        track(p, size, __builtin_return_address(0));
    }
    return p;
}

void free(void *p)
{
    untrack(p);
    __libc_free(p);
}

}  // extern "C"

namespace kxrel {

bool interposer_active() { return true; }

void arm(long fail_at)
{
    {
        Lock lock;
        std::memset(g_slot, 0, sizeof g_slot);
        g_live.store(0);
        g_live_bytes.store(0);
        g_overflow.store(false);
    }
    t_count = 0;
    t_fail_at = fail_at;
    t_delivered = false;
    t_armed = true;
}

void set_fail_at(long fail_at) { t_fail_at = fail_at; }

long disarm()
{
    t_armed = false;
    return t_count;
}

long allocations() { return t_count; }
bool failure_delivered() { return t_delivered; }
long live_blocks() { return g_live.load(); }
std::size_t live_bytes() { return g_live_bytes.load(); }
bool tracking_overflowed() { return g_overflow.load(); }

void describe_live(std::FILE *out)
{
    for (size_t i = 0; i < kSlots; ++i) {
        if (g_slot[i] == kEmpty || g_slot[i] == kGone)
            continue;
        Dl_info info;
        std::memset(&info, 0, sizeof info);
        dladdr(g_caller[i], &info);
        std::fprintf(out, "  live block of %zu bytes from %s (%s+%#lx)\n", g_size[i],
                     info.dli_sname ? info.dli_sname : "?", info.dli_fname ? info.dli_fname : "?",
                     static_cast<unsigned long>(reinterpret_cast<uintptr_t>(g_caller[i]) -
                                                reinterpret_cast<uintptr_t>(info.dli_fbase)));
    }
}

Paused::Paused() : was_armed_(t_armed) { t_armed = false; }
Paused::~Paused() { t_armed = was_armed_; }

}  // namespace kxrel

#else  // sanitizer build: the sanitizer's allocator stays in charge

namespace kxrel {
bool interposer_active() { return false; }
void arm(long) {}
void set_fail_at(long) {}
long disarm() { return 0; }
long allocations() { return 0; }
bool failure_delivered() { return false; }
long live_blocks() { return 0; }
std::size_t live_bytes() { return 0; }
bool tracking_overflowed() { return false; }
void describe_live(std::FILE *) {}
Paused::Paused() : was_armed_(false) {}
Paused::~Paused() {}
}  // namespace kxrel

#endif
