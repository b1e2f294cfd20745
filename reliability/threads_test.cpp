/*
 * Thread checks: the library runs on its callers' threads, several at a time.
 * Signed calls with distinct answer files and streams share the server key,
 * the signing and verification mutexes and the initialisation lock; they must
 * all succeed side by side, and concurrent initialisations must bring the
 * library up exactly once. scripts/reliability.sh tsan runs this suite under
 * ThreadSanitizer, which turns any unguarded shared state into a failure.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "calls.h"
#include "rel_log.h"
#include "test_cloud.h"

namespace {

using kxrel::Call;
using kxrel::Outcome;

/* Starts every thread's body at the same moment. */
class StartLine {
public:
    explicit StartLine(int n) : waiting_(n) {}
    void arrive()
    {
        waiting_.fetch_sub(1);
        while (waiting_.load() > 0)
            std::this_thread::yield();
    }

private:
    std::atomic<int> waiting_;
};

TEST(Threads, ConcurrentInitialisationBringsTheLibraryUpOnce)
{
    KX_GLOBAL_DEINIT();
    kxrel::log_clear();
    const int n = 8;
    StartLine start(n);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i)
        threads.emplace_back([&] {
            start.arrive();
            if (KX_GLOBAL_INIT("127.0.0.1") != 0)
                ++failures;
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
    /* The version line is written only by the initialisation that ran. */
    EXPECT_EQ(kxrel::log_count("Version: 2.00.4.0.0"), 1);
    EXPECT_NE(gpKey, nullptr);
    kxrel::ensure_initialised();
}

/* Calls that need no process-wide change of their own (initialisation and key
 * loading are ordered by the caller) and write no file another call writes. */
std::vector<const Call *> side_by_side_calls()
{
    std::vector<const Call *> out;
    for (const auto &c : kxrel::calls()) {
        bool account = c.family == "account" && !c.plain; /* the /http twins share the files */
        bool crypto = c.family == "verify" || c.name == "kxtvsign" || c.name == "kxtvverify" ||
                      c.name == "KX_SDK_SIGN_CREATE" || c.name == "KX_SDK_AES_ENCRYPT" ||
                      c.name == "KX_SDK_GZDECOMPRESS";
        bool transfer = c.family == "transport" && !c.path.empty() && !c.plain;
        if (account || crypto || transfer)
            out.push_back(&c);
    }
    return out;
}

TEST(Threads, SignedCallsSucceedSideBySide)
{
    kxrel::ensure_initialised();
    std::vector<const Call *> calls = side_by_side_calls();
    for (const Call *c : calls)
        kxrel::route_good(*c);
    const int rounds = 4;
    StartLine start(static_cast<int>(calls.size()) + 1);
    std::vector<std::string> problems(calls.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < calls.size(); ++i)
        threads.emplace_back([&, i] {
            start.arrive();
            for (int round = 0; round < rounds; ++round) {
                kxrel::RunReport report = kxrel::run_call(*calls[i], -1, false);
                if (report.outcome != Outcome::Success && problems[i].empty())
                    problems[i] = std::string(kxrel::outcome_name(report.outcome)) + " in round " +
                                  std::to_string(round) + " (result " + std::to_string(report.result) + ") " +
                                  report.why;
            }
        });
    /* Meanwhile another thread keeps asking for initialisation, which must
     * stay a quiet success that touches nothing the calls use. */
    threads.emplace_back([&] {
        start.arrive();
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(KX_GLOBAL_INIT("ignored.example"), 0);
    });
    for (auto &t : threads)
        t.join();
    for (size_t i = 0; i < calls.size(); ++i)
        EXPECT_EQ(problems[i], "") << calls[i]->name;
    EXPECT_STREQ(KX_SDK_GET_DOMAIN(), "127.0.0.1") << "a second initialisation changed the domain";
}

/* Many calls to one server at once: they take TLS sessions from the share
 * and put new ones in while the others read it, under libcurl's locks. */
TEST(Threads, CallsShareTlsSessionsSideBySide)
{
    kxrel::ensure_initialised();
    kxcloud::Cloud &cloud = kxrel::cloud();
    const std::string path = "/threads/session";
    cloud.reply("GET", path, kxcloud::Reply{200, "shared"});
    const std::string url = "https://" + cloud.https_domain() + path;
    const int n = 8, rounds = 6;
    StartLine start(n);
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i)
        threads.emplace_back([&] {
            start.arrive();
            for (int round = 0; round < rounds; ++round) {
                std::unique_ptr<KX_SDK_DATA_BUF_S> record(new KX_SDK_DATA_BUF_S());
                if (KX_SDK_HTTPS_GET_EXTERNAL(url.c_str(), record.get(), nullptr, 0) == 0 &&
                    std::string(record->data, record->used) == "shared")
                    ++good;
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(good.load(), n * rounds);
    int seen = 0, resumed = 0;
    for (const kxcloud::Request &r : cloud.requests()) {
        if (r.path != path)
            continue;
        ++seen;
        resumed += r.resumed ? 1 : 0;
    }
    EXPECT_EQ(seen, n * rounds);
    /* At most each thread's first call can miss a session (they start at
     * once); every later one resumes. */
    if (KX_TEST_CURL_SHARE)
        EXPECT_GE(resumed, n * (rounds - 1));
    else
        EXPECT_EQ(resumed, 0);
}

}  // namespace
