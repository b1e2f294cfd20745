// Core: initialisation state, the service domain, URL building, lists, checked
// release and thread enumeration. Log lines are those the test's own
// debug-log pair received, so every assertion on them also proves that a
// program defining that pair replaces the platform stand-ins. (Concurrent
// initialisations are reliability/threads_test's.)
#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kx_cloud_openapi.h"
#include "suite_text.h"

namespace {

using kxtest::kError;
using kxtest::kInfo;
using kxtest::logged;

std::vector<std::string> items(const KX_SDK_LINKLIST_S *list)
{
    std::vector<std::string> out;
    for (const KX_SDK_LIST_NODE_S *n = list->first; n != nullptr; n = n->next)
        out.emplace_back(static_cast<const char *>(n->item));
    return out;
}

}  // namespace

// Runs first: nothing has set the domain yet.
TEST(Domain, DefaultHostThenBoundaryAt256)
{
    EXPECT_STREQ("cloud-api.kx-tv.com", KX_SDK_GET_DOMAIN());

    const std::string longest(255, 'd');
    EXPECT_EQ(0, KX_SDK_SET_DOMAIN(longest.c_str()));
    EXPECT_EQ(longest, KX_SDK_GET_DOMAIN());

    kxtest::clear_log();
    EXPECT_EQ(-1, KX_SDK_SET_DOMAIN(std::string(256, 'x').c_str()));
    EXPECT_EQ(-1, KX_SDK_SET_DOMAIN(nullptr));
    EXPECT_EQ(2, kxtest::log_count("KX_SDK_SET_DOMAIN(): invalid arg!\n", kError));
    EXPECT_EQ(longest, KX_SDK_GET_DOMAIN());

    char *store = KX_SDK_GET_DOMAIN();
    EXPECT_EQ(0, KX_SDK_SET_DOMAIN(""));
    EXPECT_EQ(store, KX_SDK_GET_DOMAIN());  // the store itself, not a copy
    EXPECT_STREQ("", store);
}

// The port only for plain HTTP; a refusal leaves the caller's pointer as it was.
TEST(CreateUrl, MadeOrRefused)
{
    char held[] = "held";
    const struct { const char *scheme, *domain, *path; char *start; bool null_out; const char *url, *msg; } cases[] = {
        {"https://", "cloud.example", "/aaa/sign_in", nullptr, false, "https://cloud.example/aaa/sign_in", nullptr},
        {"http://", "cloud.example", "/aaa/sign_in", nullptr, false, "http://cloud.example:80/aaa/sign_in", nullptr},
        {"https://", "", "/aaa/sign_in", nullptr, false, "https:///aaa/sign_in", nullptr},
        {"HTTPS://", "d", "/p", nullptr, false, nullptr, "invalid protocol.\n"},
        {"https:", "d", "/p", nullptr, false, nullptr, "invalid protocol.\n"},
        {nullptr, "d", "/p", nullptr, false, nullptr, "invalid arg!\n"},
        {"https://", "d", nullptr, nullptr, false, nullptr, "invalid arg!\n"},
        {"https://", "d", "/p", nullptr, true, nullptr, "invalid arg!\n"},
        {"https://", "d", "/p", held, false, nullptr, "invalid arg!\n"},
    };
    for (const auto &c : cases) {
        kxtest::clear_log();
        char *url = c.start;
        EXPECT_EQ(c.url ? 0 : -1, KX_SDK_CREATE_URL(c.scheme, c.domain, c.path, c.null_out ? nullptr : &url));
        EXPECT_STREQ(c.url ? c.url : c.start, url);
        EXPECT_TRUE(c.url ? logged("KX_SDK_CREATE_URL", "Get ps8Url is " + std::string(c.url) + "\n", kInfo)
                          : logged("KX_SDK_CREATE_URL", c.msg, kError)) << (c.url ? c.url : c.msg);
        if (c.url != nullptr)
            std::free(url);
    }
}

TEST(GlobalInit, StateTable)
{
    const std::string version = "Version: 2.00.4.0.0\n";
    kxtest::clear_log();
    EXPECT_EQ(0, KX_GLOBAL_DEINIT());  // never initialised: nothing to do
    EXPECT_TRUE(logged("KX_GLOBAL_DEINIT", "KX_GLOBAL_DEINIT\n", kInfo));
    EXPECT_FALSE(kxtest::log_contains("KX_GLOBAL_DEINIT, bGlobalInited"));

    EXPECT_EQ(-1, KX_GLOBAL_INIT(nullptr));
    EXPECT_EQ(0, bGlobalInited);
    // Every line reads "<source file>:<line>:<function>(): <message>".
    EXPECT_TRUE(std::regex_match(kxtest::log_lines().back().text,
                                 std::regex("kx_sdk_global\\.cpp:[0-9]+:KX_GLOBAL_INIT\\(\\): invalid arg!\n")));

    kxtest::clear_log();
    ASSERT_EQ(0, KX_GLOBAL_INIT("first.example"));
    EXPECT_TRUE(logged("KX_GLOBAL_INIT", "KX_GLOBAL_INIT(), psDNS: first.example", kInfo));  // no line end
    EXPECT_TRUE(logged("KX_GLOBAL_INIT", version, kError));
    for (const char *line : {"Get DNS is first.example\n", "Get DNS len is 13\n", "s32GetDNSResult is 0\n"})
        EXPECT_TRUE(logged("KX_GLOBAL_INIT", line, kInfo)) << line;
    EXPECT_EQ(1, bGlobalInited);
    EXPECT_NE(nullptr, gpKey);

    EXPECT_EQ(0, KX_GLOBAL_INIT("second.example"));  // silent success, domain kept
    EXPECT_STREQ("first.example", KX_SDK_GET_DOMAIN());
    EXPECT_EQ(1, kxtest::log_count(version, kError));

    kxtest::clear_log();
    EXPECT_EQ(0, KX_GLOBAL_DEINIT());
    EXPECT_TRUE(logged("KX_GLOBAL_DEINIT", "KX_GLOBAL_DEINIT, bGlobalInited\n", kInfo));
    EXPECT_EQ(0, bGlobalInited);
    EXPECT_STREQ("first.example", KX_SDK_GET_DOMAIN());  // not cleared

    // Over 64 characters: stored as "", still a success; 64 is kept whole.
    const std::string d64(64, 'h');
    const struct { std::string domain, stored; } cases[] = {{std::string(65, 'h'), ""}, {d64, d64}};
    for (const auto &c : cases) {
        kxtest::clear_log();
        ASSERT_EQ(0, KX_GLOBAL_INIT(c.domain.c_str()));
        EXPECT_EQ(1, kxtest::log_count(version, kError));  // full sequence again
        EXPECT_EQ(c.stored, KX_SDK_GET_DOMAIN());
        EXPECT_TRUE(logged("KX_GLOBAL_INIT", "Get DNS len is " + std::to_string(c.stored.size()) + "\n", kInfo));
        EXPECT_EQ(0, KX_GLOBAL_DEINIT());
    }
}

TEST(List, AppendPrintFree)
{
    KX_SDK_LINKLIST_S list;
    KX_SDK_INIT_LINKEDLIST(&list);
    kxtest::clear_log();
    EXPECT_EQ(0, KX_PRINTF_LINKLIST(&list));
    EXPECT_EQ(0, KX_SDK_FREE_LINKLIST(&list));  // empty: nothing printed, nothing released
    EXPECT_EQ(1u, kxtest::log_lines().size());

    KX_SDK_ADDNODE(&list, strdup("alpha"));
    EXPECT_TRUE(list.first == list.last && list.count == 1);
    KX_SDK_ADDNODE(&list, strdup("beta"));
    EXPECT_TRUE(list.first->next == list.last && list.count == 2);
    EXPECT_EQ((std::vector<std::string>{"alpha", "beta"}), items(&list));

    kxtest::clear_log();
    list.count = 1;  // printing stops after count nodes
    EXPECT_EQ(0, KX_PRINTF_LINKLIST(&list));
    EXPECT_TRUE(logged("KX_PRINTF_LINKLIST", "alpha\n", kInfo));
    EXPECT_FALSE(kxtest::log_contains("beta"));

    kxtest::clear_log();
    EXPECT_EQ(0, KX_SDK_FREE_LINKLIST(&list));  // releases both (the sanitizer build checks it)
    EXPECT_TRUE(logged("KX_SDK_FREE_LINKLIST", "KX_SDK_FREE_LINKLIST\n", kInfo));
    EXPECT_FALSE(kxtest::log_contains("null already"));
    EXPECT_EQ(-1, KX_SDK_FREE_LINKLIST(nullptr));
    EXPECT_TRUE(logged("KX_SDK_FREE_LINKLIST", "plist is NULL.\n"));

    EXPECT_EQ(-1, KX_SDK_FREE(nullptr));
    EXPECT_TRUE(logged("KX_SDK_FREE", "the pointer is null already!\n"));
}

// Thread ids of up to four digits are collected (as numeric texts, each
// logged), longer ones logged as "other file"; compared with /proc read here.
TEST(FindAllTids, ShortIdsAreCollected)
{
    // This process, process 1 (whose id "1" is short) and, where there is one,
    // the longest-lived process with a long id (this process's may be short).
    std::vector<uint32_t> pids = {static_cast<uint32_t>(getpid()), 1u};
    uint32_t long_lived = 0;
    DIR *proc = opendir("/proc");
    for (dirent *e = proc ? readdir(proc) : nullptr; e != nullptr; e = readdir(proc)) {
        const uint32_t id = static_cast<uint32_t>(std::strtoul(e->d_name, nullptr, 10));
        long_lived = id >= 10000 && (long_lived == 0 || id < long_lived) ? id : long_lived;
    }
    if (proc)
        closedir(proc);
    if (long_lived != 0)
        pids.push_back(long_lived);
    for (const uint32_t pid : pids) {
        std::set<std::string> short_ids, long_ids;
        DIR *dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
        ASSERT_NE(nullptr, dir);
        for (dirent *e = readdir(dir); e != nullptr; e = readdir(dir))
            if (e->d_name[0] != '.')
                (std::strlen(e->d_name) <= 4 ? short_ids : long_ids).insert(e->d_name);
        closedir(dir);

        kxtest::clear_log();
        KX_SDK_LINKLIST_S *list = KX_SDK_FIND_ALL_TIDS(pid);
        ASSERT_NE(nullptr, list);
        const auto got = items(list);
        EXPECT_EQ(short_ids, std::set<std::string>(got.begin(), got.end()));
        EXPECT_EQ(static_cast<int32_t>(got.size()), list->count);
        for (const auto &id : got)
            EXPECT_TRUE(logged("KX_PRINTF_LINKLIST", id + "\n", kInfo)) << id;
        for (const auto &id : long_ids)
            EXPECT_TRUE(logged("KX_SDK_FIND_ALL_TIDS", "other file[" + id + "]\n", kInfo)) << id;
        EXPECT_TRUE(logged("KX_SDK_FIND_ALL_TIDS", " *********** this is KX_SDK_FIND_ALL_TIDS\n", kInfo));
        EXPECT_EQ(0, KX_SDK_FREE_LINKLIST(list));
        EXPECT_EQ(0, KX_SDK_FREE(list));
        EXPECT_TRUE(pid != 1 || short_ids.count("1") == 1);
    }
    kxtest::clear_log();
    EXPECT_EQ(nullptr, KX_SDK_FIND_ALL_TIDS(4000000000u));  // beyond any pid
    EXPECT_TRUE(logged("KX_SDK_FIND_ALL_TIDS", " *********** DIR is NULL\n"));
}
