/*
 * The allocator seen by a reliability test program: glibc's own allocator
 * underneath (__libc_malloc and friends, which glibc exports precisely so that
 * a program can wrap it), with counting, planned failure and tracking for one
 * armed thread at a time. Nothing in here may allocate.
 */
#include "alloc_interposer.h"

#include <dlfcn.h>
#include <execinfo.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

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
constexpr size_t kSlots = 1u << 16;
constexpr uintptr_t kEmpty = 0;
constexpr uintptr_t kGone = 1;
uintptr_t g_slot[kSlots];
size_t g_size[kSlots];
void *g_caller[kSlots]; /* who asked for the block, for leak reports */
/* KX_REL_BACKTRACE=1: whole call chains for leak reports (slower). */
constexpr int kFrames = 48;
void *g_frames[kSlots][kFrames];
bool g_backtrace = false;
__thread bool t_in_backtrace = false;
/* Bytes held by owner, and their high-water marks (under the lock). */
bool g_count_owners = false;
uint8_t g_owner[kSlots];
size_t g_held[kxrel::kOwners + 1]; /* the last one: all owners together */
size_t g_peak[kxrel::kOwners + 1];
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

bool is_runtime(const char *path)
{
    static const char *const runtime[] = {"libc.so", "libstdc++", "libgcc_s", "ld-linux", "libm.so", nullptr};
    const char *name = std::strrchr(path, '/');
    name = name != nullptr ? name + 1 : path;
    for (int i = 0; runtime[i] != nullptr; ++i)
        if (std::strncmp(name, runtime[i], std::strlen(runtime[i])) == 0)
            return true;
    return false;
}

kxrel::Owner owner_of_object(const char *path)
{
    if (std::strstr(path, "libkx_cloud_openapi") != nullptr)
        return kxrel::Owner::Library;
    if (std::strstr(path, "libcurl") != nullptr)
        return kxrel::Owner::Curl;
    if (std::strstr(path, "libssl") != nullptr || std::strstr(path, "libcrypto") != nullptr)
        return kxrel::Owner::OpenSsl;
    return kxrel::Owner::Other;
}

/* Who asked for the block being made: walk out of this allocator (frames in
 * this program before the first frame elsewhere) and the runtimes. Where the
 * chain cannot be unwound (armhf: Debian builds its C libraries, and this
 * library with -fno-exceptions, without unwind tables), the object that
 * called the allocator owns the block; a runtime there (a FILE the library
 * opened) leaves it to Other. */
kxrel::Owner owner_of_caller(void *caller)
{
    void *frames[kFrames];
    int n = backtrace(frames, kFrames);
    Dl_info self;
    const void *own_base = dladdr(reinterpret_cast<void *>(&owner_of_caller), &self) != 0 ? self.dli_fbase : nullptr;
    bool left_allocator = false;
    for (int f = 0; f < n; ++f) {
        Dl_info info;
        if (dladdr(frames[f], &info) == 0 || info.dli_fname == nullptr)
            continue;
        if (!left_allocator && info.dli_fbase == own_base)
            continue;
        left_allocator = true;
        if (!is_runtime(info.dli_fname))
            return owner_of_object(info.dli_fname);
    }
    Dl_info info;
    if (!left_allocator && dladdr(caller, &info) != 0 && info.dli_fname != nullptr)
        return owner_of_object(info.dli_fname);
    return kxrel::Owner::Other;
}

void hold(int owner, size_t size)
{
    for (int k : {owner, kxrel::kOwners}) {
        g_held[k] += size;
        if (g_held[k] > g_peak[k])
            g_peak[k] = g_held[k];
    }
}

void let_go(int owner, size_t size)
{
    for (int k : {owner, kxrel::kOwners})
        g_held[k] -= size < g_held[k] ? size : g_held[k];
}

size_t slot_of(uintptr_t p) { return (p >> 4) * 0x9E3779B97F4A7C15ull >> (64 - 16); }

void track(void *p, size_t size, void *caller)
{
    if (p == nullptr)
        return;
    int owner = static_cast<int>(kxrel::Owner::Other);
    if (g_count_owners && !t_in_backtrace) {
        t_in_backtrace = true;
        owner = static_cast<int>(owner_of_caller(caller));
        t_in_backtrace = false;
    }
    Lock lock;
    uintptr_t key = reinterpret_cast<uintptr_t>(p);
    size_t i = slot_of(key);
    for (size_t n = 0; n < kSlots; ++n, i = (i + 1) & (kSlots - 1)) {
        if (g_slot[i] == kEmpty || g_slot[i] == kGone) {
            g_slot[i] = key;
            g_size[i] = size;
            g_caller[i] = caller;
            g_owner[i] = static_cast<uint8_t>(owner);
            hold(owner, size);
            g_frames[i][0] = nullptr;
            if (g_backtrace && !t_in_backtrace) {
                t_in_backtrace = true;
                int n = backtrace(g_frames[i], kFrames);
                if (n < kFrames)
                    g_frames[i][n] = nullptr;
                t_in_backtrace = false;
            }
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
            let_go(g_owner[i], g_size[i]);
            g_live.fetch_sub(1, std::memory_order_relaxed);
            g_live_bytes.fetch_sub(g_size[i], std::memory_order_relaxed);
            return;
        }
    }
}

__thread long t_deferred = 0;

/* Known faults of a dependency that a failed allocation would trigger, so
 * that the sweep cannot tell anything about the library there. libcurl 7.88
 * spoils its session cache when an allocation fails while it stores a TLS
 * session ticket (its new-session callback, run from inside SSL_read): the
 * slot keeps the host name it has just freed, and the next ticket stored
 * there frees it again. A full handshake brings two tickets, so that happens
 * within the call; the library's share of sessions would carry it into a
 * later call, which the library prevents (internal/kx_curl_share.h, checked
 * by the sweep's own test). An allocation whose chain runs from libcurl code
 * called back from SSL_read is not failed; the failure moves on to the next
 * one. */
bool g_defer = true;
bool dependency_cannot_survive()
{
    void *frames[40];
    int n = backtrace(frames, 40);
    bool curl_below = false;
    for (int f = 2; f < n; ++f) {
        Dl_info info;
        if (dladdr(frames[f], &info) == 0)
            continue;
        if (info.dli_sname != nullptr && std::strcmp(info.dli_sname, "SSL_read") == 0)
            return curl_below;
        if (info.dli_fname != nullptr && std::strstr(info.dli_fname, "libcurl") != nullptr)
            curl_below = true;
    }
    return false;
}

/* One allocation attempt of the armed thread: true = let it fail. */
bool should_fail()
{
    ++t_count;
    if (t_fail_at > 0 && t_count == t_fail_at) {
        if (g_defer && dependency_cannot_survive()) {
            ++t_deferred;
            ++t_fail_at;
            return false;
        }
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

/* Blocks that belong to per-thread state of a dependency rather than to the
 * call: OpenSSL keeps one text buffer per slot of a thread's error queue (a
 * ring of 16) and re-sizes it for each new error, so such a buffer can be
 * born in any run without anything growing. */
static bool per_thread_state(size_t i)
{
    Dl_info info;
    std::memset(&info, 0, sizeof info);
    if (dladdr(g_caller[i], &info) == 0 || info.dli_sname == nullptr)
        return false;
    return std::strcmp(info.dli_sname, "ERR_vset_error") == 0 || std::strcmp(info.dli_sname, "ERR_add_error_vdata") == 0;
}

static long count_live(size_t *bytes)
{
    long n = 0;
    size_t total = 0;
    for (size_t i = 0; i < kSlots; ++i) {
        if (g_slot[i] == kEmpty || g_slot[i] == kGone || per_thread_state(i))
            continue;
        ++n;
        total += g_size[i];
    }
    if (bytes != nullptr)
        *bytes = total;
    return n;
}

namespace kxrel {

bool interposer_active() { return true; }

void arm(long fail_at)
{
    static bool once = [] {
        /* backtrace() loads its unwinder on first use: do that unarmed. */
        void *frames[2];
        backtrace(frames, 2);
        const char *v = getenv("KX_REL_BACKTRACE");
        if (v != nullptr && *v == '1')
            g_backtrace = true;
        return true;
    }();
    (void)once;
    {
        Lock lock;
        std::memset(g_slot, 0, sizeof g_slot);
        std::memset(g_held, 0, sizeof g_held);
        std::memset(g_peak, 0, sizeof g_peak);
        g_live.store(0);
        g_live_bytes.store(0);
        g_overflow.store(false);
    }
    t_count = 0;
    t_deferred = 0;
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
long failures_deferred() { return t_deferred; }
void set_backtraces(bool on) { g_backtrace = on; }
void count_owners(bool on) { g_count_owners = on; }

HeapPeak heap_peak()
{
    Lock lock;
    HeapPeak out;
    out.total = g_peak[kOwners];
    for (int k = 0; k < kOwners; ++k)
        out.owner[k] = g_peak[k];
    return out;
}
void defer_known_faults(bool on) { g_defer = on; }

/* Which side made a block left behind: the library (it called a function
 * that hands ownership to its caller, or allocated itself) or a dependency
 * (the block was made inside a call that owns what it creates, such as
 * curl_easy_perform, and was lost there). Needs backtraces. */
static bool made_for_library(size_t i)
{
    static const char *const owning[] = {
        "malloc", "calloc", "realloc", "strdup", "strndup", "fopen", "fdopen", "opendir", "open_memstream",
        "curl_easy_init", "curl_slist_append", "BIO_new", "BIO_new_mem_buf", "PEM_read_bio_RSA_PUBKEY",
        "PEM_read_RSAPrivateKey", "RSA_new", "xmlReadFd", "xmlReadMemory", "xmlNodeGetContent",
        "xmlXPathNewContext", "xmlXPathEvalExpression", "cJSON_Parse", "cJSON_ParseWithLength", "cJSON_Print",
        "cJSON_PrintUnformatted", "cJSON_CreateObject", "cJSON_CreateString", "cJSON_CreateNumber",
        "cJSON_AddStringToObject", "cJSON_AddNumberToObject", "cJSON_AddItemToObject", "deflateInit2_",
        "inflateInit2_", "deflate", "inflate", "lws_create_context", "lws_client_connect_via_info", nullptr};
    /* Walk out from the allocation to the first frame of the library; the
     * frame just inside it says what the library called. The interposer's
     * own frames (this program's malloc) mean the library allocated itself. */
    const char *callee = nullptr;
    bool callee_is_allocator = true;
    for (int f = 0; f < kFrames && g_frames[i][f] != nullptr; ++f) {
        Dl_info info;
        std::memset(&info, 0, sizeof info);
        if (dladdr(g_frames[i][f], &info) == 0)
            continue;
        if (info.dli_fname != nullptr && std::strstr(info.dli_fname, "libkx_cloud_openapi") != nullptr) {
            if (callee_is_allocator)
                return true;
            for (int k = 0; callee != nullptr && owning[k] != nullptr; ++k)
                if (std::strcmp(callee, owning[k]) == 0)
                    return true;
            return false;
        }
        Dl_info self;
        callee_is_allocator = dladdr(reinterpret_cast<void *>(&made_for_library), &self) != 0 &&
                              info.dli_fbase == self.dli_fbase;
        callee = info.dli_sname;
    }
    return true; /* no library frame seen: count it, to be safe */
}

long library_blocks()
{
    Lock lock;
    long n = 0;
    for (size_t i = 0; i < kSlots; ++i)
        if (g_slot[i] != kEmpty && g_slot[i] != kGone && !per_thread_state(i) &&
            (!g_backtrace || made_for_library(i)))
            ++n;
    return n;
}

long live_blocks()
{
    if (g_live.load() == 0)
        return 0;
    Lock lock;
    return count_live(nullptr);
}

std::size_t live_bytes()
{
    if (g_live.load() == 0)
        return 0;
    Lock lock;
    size_t bytes = 0;
    count_live(&bytes);
    return bytes;
}
bool tracking_overflowed() { return g_overflow.load(); }

void describe_live(std::FILE *out)
{
    for (size_t i = 0; i < kSlots; ++i) {
        if (g_slot[i] == kEmpty || g_slot[i] == kGone || per_thread_state(i))
            continue;
        Dl_info info;
        std::memset(&info, 0, sizeof info);
        dladdr(g_caller[i], &info);
        std::fprintf(out, "  live block of %zu bytes from %s (%s+%#lx)\n", g_size[i],
                     info.dli_sname ? info.dli_sname : "?", info.dli_fname ? info.dli_fname : "?",
                     static_cast<unsigned long>(reinterpret_cast<uintptr_t>(g_caller[i]) -
                                                reinterpret_cast<uintptr_t>(info.dli_fbase)));
        for (int f = 0; f < kFrames && g_backtrace && g_frames[i][f] != nullptr; ++f) {
            std::memset(&info, 0, sizeof info);
            dladdr(g_frames[i][f], &info);
            std::fprintf(out, "      at %s (%s+%#lx)\n", info.dli_sname ? info.dli_sname : "?",
                         info.dli_fname ? info.dli_fname : "?",
                         static_cast<unsigned long>(reinterpret_cast<uintptr_t>(g_frames[i][f]) -
                                                    reinterpret_cast<uintptr_t>(info.dli_fbase)));
        }
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
long failures_deferred() { return 0; }
long live_blocks() { return 0; }
std::size_t live_bytes() { return 0; }
bool tracking_overflowed() { return false; }
void describe_live(std::FILE *) {}
void set_backtraces(bool) {}
void defer_known_faults(bool) {}
long library_blocks() { return 0; }
void count_owners(bool) {}
HeapPeak heap_peak() { return HeapPeak(); }
Paused::Paused() : was_armed_(false) {}
Paused::~Paused() {}
}  // namespace kxrel

#endif

const char *kxrel::owner_name(Owner owner)
{
    static const char *const names[kOwners] = {"library", "libcurl", "OpenSSL", "other"};
    return names[static_cast<int>(owner)];
}
