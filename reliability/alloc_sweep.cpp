/*
 * Allocation-failure sweep. For each call of the table: one successful run
 * counts the allocations the call makes; then the call is run again once for
 * every N from 1 to that count with allocation N failing. Every run must end
 * with the call's documented failure result (or a genuine success where the
 * failed allocation belonged to a dependency that recovers), leave no block
 * behind (a block left twice in a row at the same N is a leak; once is a
 * dependency's one-time set-up), and leave the library able to run the call
 * again.
 *
 * Environment: KX_SWEEP_STRIDE=k runs every k-th N only (default 1);
 * KX_SWEEP_TLS_STRIDE=k the same for calls that go through TLS;
 * KX_SWEEP_REPORT=file appends one summary line per call; KX_SWEEP_HEALTH=k
 * checks a clean run after every k failing runs (default 16);
 * KX_SWEEP_FROM / KX_SWEEP_TO narrow the range of N (to replay one fault).
 */
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "alloc_interposer.h"
#include "calls.h"
#include "rel_log.h"
#include "test_cloud.h"

namespace {

using kxrel::Call;
using kxrel::Outcome;

/* What a crash report names: written by the signal handler, so plain data. */
char g_current[160];

void on_crash(int sig)
{
    char line[256];
    int n = snprintf(line, sizeof line, "\nalloc_sweep: signal %d while running %s\n", sig, g_current);
    if (n > 0)
        (void)!write(2, line, static_cast<size_t>(n));
    signal(sig, SIG_DFL);
    raise(sig);
}

/* A run that takes minutes is a hang: say which, then stop, rather than
 * leave CI waiting for its own time-out. */
std::atomic<long> g_run_started{0};

void watchdog()
{
    for (;;) {
        std::this_thread::sleep_for(std::chrono::seconds(5));
        long started = g_run_started.load();
        long now = std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::steady_clock::now().time_since_epoch()).count();
        if (started != 0 && now - started > 120) {
            char line[256];
            int n = snprintf(line, sizeof line, "\nalloc_sweep: no end after 120 s while running %s\n", g_current);
            if (n > 0)
                (void)!write(2, line, static_cast<size_t>(n));
            abort();
        }
    }
}

struct RunClock {
    RunClock()
    {
        g_run_started = std::chrono::duration_cast<std::chrono::seconds>(
                            std::chrono::steady_clock::now().time_since_epoch()).count();
    }
    ~RunClock() { g_run_started = 0; }
};

long env_long(const char *name, long fallback)
{
    const char *v = std::getenv(name);
    return v != nullptr && *v != '\0' ? std::atol(v) : fallback;
}

std::vector<std::string> sweep_names()
{
    std::vector<std::string> names;
    for (const auto &c : kxrel::calls())
        if (c.sweep)
            names.push_back(c.name);
    return names;
}

std::string test_name(const testing::TestParamInfo<std::string> &info)
{
    std::string n = info.param;
    for (auto &ch : n)
        if (!isalnum(static_cast<unsigned char>(ch)))
            ch = '_';
    return n;
}

class Sweep : public testing::TestWithParam<std::string> {
protected:
    static void SetUpTestSuite()
    {
        signal(SIGSEGV, on_crash);
        signal(SIGBUS, on_crash);
        signal(SIGABRT, on_crash);
        signal(SIGFPE, on_crash);
        signal(SIGPIPE, SIG_IGN);
        std::thread(watchdog).detach();
    }
};

TEST_P(Sweep, EveryAllocationFailureIsSurvived)
{
    if (!kxrel::interposer_active()) {
        GTEST_SKIP() << "the allocator is a sanitizer's in this build";
    }
    const Call *call = kxrel::find_call(GetParam());
    ASSERT_NE(call, nullptr);
    if (call->plain && !kxrel::cloud().http_ready()) {
        GTEST_SKIP() << "port 80 is not listening (run inside scripts/in-netns.sh)";
    }

    snprintf(g_current, sizeof g_current, "%s (counting run)", call->name.c_str());
    kxrel::run_call(*call, 0); /* dependencies' one-time set-up */
    kxrel::RunReport base = kxrel::run_call(*call, 0);
    ASSERT_EQ(base.outcome, Outcome::Success) << "counting run: " << base.why;
    const long count = base.allocations;
    /* TLS calls make thousands of allocations (most in the handshake): they
     * may be given a coarser stride of their own. */
    const bool tls = !call->path.empty() && !call->plain;
    const long stride = std::max(1L, env_long(tls ? "KX_SWEEP_TLS_STRIDE" : "KX_SWEEP_STRIDE",
                                              env_long("KX_SWEEP_STRIDE", 1)));
    const long health = std::max(1L, env_long("KX_SWEEP_HEALTH", 16));

    long runs = 0, successes = 0, failures = 0, leaks = 0, faults = 0, documented = 0, dependency = 0, deferred = 0;
    std::vector<std::string> problems;
    const long first = std::max(1L, env_long("KX_SWEEP_FROM", 1));
    const long last = std::min(count, env_long("KX_SWEEP_TO", count));
    for (long n = first; n <= last; n += stride) {
        snprintf(g_current, sizeof g_current, "%s with allocation %ld of %ld failing", call->name.c_str(), n, count);
        RunClock clock;
        kxrel::RunReport rep = kxrel::run_call(*call, n);
        ++runs;
        if (rep.failures_deferred > 0)
            ++deferred;
        if (rep.outcome == Outcome::Fault) {
            ++faults;
            problems.push_back("N=" + std::to_string(n) + ": " + rep.why + " (result " + std::to_string(rep.result) + ")");
        } else if (rep.outcome == Outcome::Success) {
            ++successes;
        } else {
            ++failures;
        }
        if (rep.live_blocks > 0) {
            if (rep.documented_leak) {
                ++documented;
            } else {
                /* Again, with call chains, to tell whose block it is. */
                kxrel::set_backtraces(true);
                kxrel::RunReport again = kxrel::run_call(*call, n);
                kxrel::set_backtraces(std::getenv("KX_REL_BACKTRACE") != nullptr);
                if (again.live_blocks > 0 && again.library_blocks == 0) {
                    ++dependency;
                    if (std::getenv("KX_SWEEP_VERBOSE") != nullptr)
                        fprintf(stderr, "%s N=%ld: lost inside a dependency:\n%s", call->name.c_str(), n,
                                again.live_detail.c_str());
                } else if (again.live_blocks > 0 && !again.documented_leak) {
                    ++leaks;
                    problems.push_back("N=" + std::to_string(n) + ": " + std::to_string(again.live_blocks) +
                                       " blocks (" + std::to_string(again.live_bytes) + " bytes) leaked\n" + again.live_detail);
                }
            }
        }
        if (runs % health == 0 || n + stride > last) {
            snprintf(g_current, sizeof g_current, "%s health run after N=%ld", call->name.c_str(), n);
            kxrel::RunReport ok = kxrel::run_call(*call, 0);
            if (ok.outcome != Outcome::Success) {
                ++faults;
                problems.push_back("after N=" + std::to_string(n) + " the next clean run failed: " + ok.why);
            }
        }
        if (problems.size() > 20)
            break;
    }

    char summary[512];
    snprintf(summary, sizeof summary,
             "sweep %-32s allocations %5ld runs %5ld success %5ld failure %5ld faults %ld leaks %ld"
             " documented-leak %ld dependency-leak %ld deferred %ld\n",
             call->name.c_str(), count, runs, successes, failures, faults, leaks, documented, dependency, deferred);
    fputs(summary, stdout);
    if (const char *path = std::getenv("KX_SWEEP_REPORT")) {
        if (FILE *f = fopen(path, "a")) {
            fputs(summary, f);
            fclose(f);
        }
    }
    for (const auto &p : problems)
        ADD_FAILURE() << call->name << " " << p;
    RecordProperty("allocations", static_cast<int>(count));
    RecordProperty("runs", static_cast<int>(runs));
}

INSTANTIATE_TEST_SUITE_P(Table, Sweep, testing::ValuesIn(sweep_names()), test_name);

/* A call left out of the sweep says why, and the reason is printed with the
 * figures. */
TEST(Sweep, CallsLeftOutSayWhy)
{
    for (const auto &c : kxrel::calls()) {
        if (c.sweep)
            continue;
        EXPECT_FALSE(c.note.empty()) << c.name;
        printf("sweep %-32s left out: %s\n", c.name.c_str(), c.note.c_str());
    }
}

/* A TLS session whose storing runs out of memory leaves libcurl's session
 * cache spoiled (see alloc_interposer.cpp): the library must not hand that
 * cache to a later call. Each allocation of a resumed call's ticket store is
 * failed in turn, undeferred, and two clean calls follow; a spoiled share
 * would crash the second. */
TEST(Sweep, AFailedSessionStoreSpoilsNoLaterCall)
{
    if (!kxrel::interposer_active())
        GTEST_SKIP() << "the allocator is a sanitizer's in this build";
    if (!KX_TEST_CURL_SHARE)
        GTEST_SKIP() << "built without the share of TLS sessions";
    kxrel::ensure_initialised();
    kxcloud::Cloud &cloud = kxrel::cloud();
    cloud.reply("GET", "/sweep/session", kxcloud::Reply{200, "stored"});
    const std::string url = "https://" + cloud.https_domain() + "/sweep/session";
    auto call = [&url](long fail_at) {
        KX_SDK_DATA_BUF_S record{};
        kxrel::arm(fail_at);
        int32_t result = KX_SDK_HTTPS_GET_EXTERNAL(url.c_str(), &record, nullptr, 0);
        kxrel::disarm();
        return result == 0 && std::string(record.data, record.used) == "stored";
    };
    ASSERT_TRUE(call(0)); /* a session to resume */
    ASSERT_TRUE(call(0));
    const long count = kxrel::disarm();
    /* The store's allocations: those a deferring run moves on from. The
     * ticket is read near the end of the call, but where exactly depends on
     * when it arrives beside the answer: the search walks back from the end
     * and stops 60 allocations below the lowest store found. */
    std::vector<long> store;
    for (long n = count; n >= 1 && (store.empty() || n > store.back() - 60); --n) {
        snprintf(g_current, sizeof g_current, "session store search, allocation %ld", n);
        kxrel::arm(n);
        KX_SDK_DATA_BUF_S record{};
        KX_SDK_HTTPS_GET_EXTERNAL(url.c_str(), &record, nullptr, 0);
        if (kxrel::failures_deferred() > 0)
            store.push_back(n);
        kxrel::disarm();
    }
    ASSERT_FALSE(store.empty()) << "no allocation of a session store found in any of the " << count;
    kxrel::defer_known_faults(false);
    for (long n : store) {
        snprintf(g_current, sizeof g_current, "session store with allocation %ld failing, then clean calls", n);
        call(n); /* the transfer itself may succeed */
        kxrel::defer_known_faults(true);
        EXPECT_TRUE(call(0)) << n;
        EXPECT_TRUE(call(0)) << n;
        kxrel::defer_known_faults(false);
    }
    kxrel::defer_known_faults(true);
    printf("sweep session store: %zu allocations failed undeferred, each followed by clean calls\n", store.size());
}

/* The library is built without exceptions; a throwing operator new inside it
 * would abort the host process on the first failed allocation instead of
 * returning the call's failure. */
TEST(Sweep, LibraryImportsNoThrowingNew)
{
    char command[512];
    snprintf(command, sizeof command,
             "lib=$(ldd /proc/%d/exe | awk '/libkx_cloud_openapi/ {print $3}'); test -f \"$lib\" || echo missing;"
             " nm -D --undefined-only \"$lib\" | grep -E ' _Zn[wa]m' ; true",
             static_cast<int>(getpid()));
    FILE *p = popen(command, "r");
    ASSERT_NE(p, nullptr);
    char line[256];
    std::string found;
    while (fgets(line, sizeof line, p) != nullptr)
        found += line;
    pclose(p);
    EXPECT_EQ(found, "") << "libkx_cloud_openapi imports operator new:\n" << found;
}

}  // namespace
