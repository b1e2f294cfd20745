// Core: initialisation state, the service domain, URL building, lists, checked
// release and thread enumeration. Log lines are those the test's own
// debug-log pair received, so every assertion on them also proves that a
// program defining that pair replaces the platform stand-ins.
#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kx_cloud_openapi.h"
#include "log_capture.h"

namespace {

// Lines of the given class that read exactly "<file>:<line>:<func>(): <msg>".
int lines(unsigned int level, const std::string &file, const std::string &func, const std::string &msg)
{
    const std::string head = file + ":", tail = ":" + func + "(): " + msg;
    int n = 0;
    for (const auto &line : kxtest::log_lines()) {
        const std::string &t = line.text;
        const std::size_t digits = t.find_first_not_of("0123456789", head.size());
        if (line.level == level && t.compare(0, head.size(), head) == 0 && digits != std::string::npos &&
            digits > head.size() && t.compare(digits, std::string::npos, tail) == 0)
            ++n;
    }
    return n;
}

int32_t flag_as_requests_read_it()
{
    pthread_mutex_lock(&sGlobalInitMutex);
    const int32_t flag = bGlobalInited;
    pthread_mutex_unlock(&sGlobalInitMutex);
    return flag;
}

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
    EXPECT_EQ(2, lines(kxtest::kError, "kx_sdk_common.cpp", "KX_SDK_SET_DOMAIN", "invalid arg!\n"));
    EXPECT_EQ(longest, KX_SDK_GET_DOMAIN());

    char *store = KX_SDK_GET_DOMAIN();
    EXPECT_EQ(0, KX_SDK_SET_DOMAIN(""));
    EXPECT_EQ(store, KX_SDK_GET_DOMAIN());  // the store itself, not a copy
    EXPECT_STREQ("", store);
}

TEST(CreateUrl, PortOnlyForPlainHttp)
{
    const struct { const char *scheme, *domain, *url; } cases[] = {
        {"https://", "cloud.example", "https://cloud.example/aaa/sign_in"},
        {"http://", "cloud.example", "http://cloud.example:80/aaa/sign_in"},
        {"https://", "", "https:///aaa/sign_in"},
        {"http://", "", "http://:80/aaa/sign_in"},
    };
    for (const auto &c : cases) {
        kxtest::clear_log();
        char *url = nullptr;
        ASSERT_EQ(0, KX_SDK_CREATE_URL(c.scheme, c.domain, "/aaa/sign_in", &url)) << c.url;
        EXPECT_STREQ(c.url, url);
        EXPECT_EQ(1, lines(kxtest::kInfo, "kx_sdk_common.cpp", "KX_SDK_CREATE_URL",
                           std::string("Get ps8Url is ") + c.url + "\n"));
        EXPECT_EQ(0, KX_SDK_FREE(url));
    }
}

TEST(CreateUrl, RefusalsLeaveTheCallersPointer)
{
    char held[] = "held";
    const struct { const char *scheme, *path; char *start; bool null_out; const char *msg; } cases[] = {
        {"HTTPS://", "/p", nullptr, false, "invalid protocol.\n"},
        {"ftp://", "/p", nullptr, false, "invalid protocol.\n"},
        {"https:", "/p", nullptr, false, "invalid protocol.\n"},
        {nullptr, "/p", nullptr, false, "invalid arg!\n"},
        {"https://", nullptr, nullptr, false, "invalid arg!\n"},
        {"https://", "/p", nullptr, true, "invalid arg!\n"},
        {"https://", "/p", held, false, "invalid arg!\n"},
    };
    for (const auto &c : cases) {
        kxtest::clear_log();
        char *url = c.start;
        EXPECT_EQ(-1, KX_SDK_CREATE_URL(c.scheme, "d", c.path, c.null_out ? nullptr : &url));
        EXPECT_EQ(c.start, url);
        EXPECT_EQ(1, lines(kxtest::kError, "kx_sdk_common.cpp", "KX_SDK_CREATE_URL", c.msg)) << c.msg;
    }
}

TEST(GlobalInit, StateTable)
{
    const std::string g = "kx_sdk_global.cpp", init = "KX_GLOBAL_INIT", deinit = "KX_GLOBAL_DEINIT";
    const std::string version = "Version: 2.00.4.0.0\n";

    kxtest::clear_log();
    EXPECT_EQ(0, KX_GLOBAL_DEINIT());  // never initialised: nothing to do
    EXPECT_EQ(1, lines(kxtest::kInfo, g, deinit, "KX_GLOBAL_DEINIT\n"));
    EXPECT_FALSE(kxtest::log_contains("KX_GLOBAL_DEINIT, bGlobalInited"));

    EXPECT_EQ(-1, KX_GLOBAL_INIT(nullptr));
    EXPECT_EQ(1, lines(kxtest::kError, g, init, "invalid arg!\n"));
    EXPECT_EQ(0, flag_as_requests_read_it());

    kxtest::clear_log();
    ASSERT_EQ(0, KX_GLOBAL_INIT("first.example"));
    EXPECT_EQ(1, lines(kxtest::kInfo, g, init, "KX_GLOBAL_INIT(), psDNS: first.example"));  // no line end
    EXPECT_EQ(1, lines(kxtest::kError, g, init, version));
    EXPECT_EQ(1, lines(kxtest::kInfo, g, init, "Get DNS is first.example\n"));
    EXPECT_EQ(1, lines(kxtest::kInfo, g, init, "Get DNS len is 13\n"));
    EXPECT_EQ(1, lines(kxtest::kInfo, g, init, "s32GetDNSResult is 0\n"));
    EXPECT_EQ(1, flag_as_requests_read_it());
    EXPECT_NE(nullptr, gpKey);
    EXPECT_EQ(nullptr, lwsclient);

    EXPECT_EQ(0, KX_GLOBAL_INIT("second.example"));  // silent success, domain kept
    EXPECT_STREQ("first.example", KX_SDK_GET_DOMAIN());
    EXPECT_EQ(1, lines(kxtest::kError, g, init, version));

    kxtest::clear_log();
    EXPECT_EQ(0, KX_GLOBAL_DEINIT());
    EXPECT_EQ(1, lines(kxtest::kInfo, g, deinit, "KX_GLOBAL_DEINIT, bGlobalInited\n"));
    EXPECT_EQ(0, flag_as_requests_read_it());
    EXPECT_STREQ("first.example", KX_SDK_GET_DOMAIN());  // not cleared

    // Over 64 characters: stored as "", still a success; 64 is kept whole.
    const std::string d64(64, 'h');
    const struct { std::string domain, stored; } cases[] = {{std::string(65, 'h'), ""}, {d64, d64}, {"", ""}};
    for (const auto &c : cases) {
        kxtest::clear_log();
        ASSERT_EQ(0, KX_GLOBAL_INIT(c.domain.c_str()));
        EXPECT_EQ(1, lines(kxtest::kError, g, init, version));  // full sequence again
        EXPECT_EQ(c.stored, KX_SDK_GET_DOMAIN());
        EXPECT_EQ(1, lines(kxtest::kInfo, g, init, "Get DNS len is " + std::to_string(c.stored.size()) + "\n"));
        EXPECT_EQ(0, KX_GLOBAL_DEINIT());
    }
}

TEST(GlobalInit, ConcurrentInitsRunTheSequenceOnce)
{
    kxtest::clear_log();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([] { EXPECT_EQ(0, KX_GLOBAL_INIT("race.example")); });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(1, kxtest::log_count("Version: 2.00.4.0.0", kxtest::kError));
    EXPECT_EQ(1, flag_as_requests_read_it());
    EXPECT_EQ(0, KX_GLOBAL_DEINIT());
}

TEST(List, AppendPrintFree)
{
    KX_SDK_LINKLIST_S list;
    KX_SDK_INIT_LINKEDLIST(&list);
    kxtest::clear_log();
    EXPECT_EQ(0, KX_PRINTF_LINKLIST(&list));
    EXPECT_EQ(0, KX_SDK_FREE_LINKLIST(&list));  // empty: nothing released
    EXPECT_TRUE(kxtest::log_matching("KX_PRINTF_LINKLIST").empty());
    EXPECT_FALSE(kxtest::log_contains("null already"));

    KX_SDK_ADDNODE(&list, strdup("alpha"));
    EXPECT_TRUE(list.first == list.last && list.count == 1);
    KX_SDK_ADDNODE(&list, strdup("beta"));
    EXPECT_TRUE(list.first->next == list.last && list.count == 2);
    EXPECT_EQ((std::vector<std::string>{"alpha", "beta"}), items(&list));

    kxtest::clear_log();
    list.count = 1;  // printing stops after count nodes
    EXPECT_EQ(0, KX_PRINTF_LINKLIST(&list));
    EXPECT_EQ(1, lines(kxtest::kInfo, "kx_sdk_linkList.cpp", "KX_PRINTF_LINKLIST", "alpha\n"));
    EXPECT_FALSE(kxtest::log_contains("beta"));

    kxtest::clear_log();
    EXPECT_EQ(0, KX_SDK_FREE_LINKLIST(&list));  // releases both (the sanitizer build checks it)
    EXPECT_EQ(1, lines(kxtest::kInfo, "kx_sdk_linkList.cpp", "KX_SDK_FREE_LINKLIST", "KX_SDK_FREE_LINKLIST\n"));
    EXPECT_FALSE(kxtest::log_contains("null already"));
    EXPECT_EQ(-1, KX_SDK_FREE_LINKLIST(nullptr));
    EXPECT_EQ(1, lines(kxtest::kError, "kx_sdk_linkList.cpp", "KX_SDK_FREE_LINKLIST", "plist is NULL.\n"));
}

TEST(Free, NullIsRefusedAndLogged)
{
    kxtest::clear_log();
    EXPECT_EQ(-1, KX_SDK_FREE(nullptr));
    EXPECT_EQ(1, lines(kxtest::kError, "kx_sdk_common.cpp", "KX_SDK_FREE", "the pointer is null already!\n"));
    EXPECT_EQ(0, KX_SDK_FREE(std::malloc(8)));
    EXPECT_EQ(1, static_cast<int>(kxtest::log_lines().size()));
}

// Enumerates pid's threads and compares with /proc read independently: ids of
// up to four digits are collected (as numeric texts, each logged), longer ones
// logged as "other file". Returns the collected ids.
static std::set<std::string> check_tids(uint32_t pid)
{
    std::set<std::string> short_ids, long_ids;
    const std::string path = "/proc/" + std::to_string(pid) + "/task";
    DIR *dir = opendir(path.c_str());
    EXPECT_NE(nullptr, dir);
    for (dirent *e = dir ? readdir(dir) : nullptr; e != nullptr; e = readdir(dir))
        if (e->d_name[0] != '.')
            (std::strlen(e->d_name) <= 4 ? short_ids : long_ids).insert(e->d_name);
    if (dir)
        closedir(dir);

    kxtest::clear_log();
    KX_SDK_LINKLIST_S *list = KX_SDK_FIND_ALL_TIDS(pid);
    if (list == nullptr) {
        ADD_FAILURE() << "no list for " << pid;
        return {};
    }
    const auto got = items(list);
    EXPECT_EQ(short_ids, std::set<std::string>(got.begin(), got.end()));
    EXPECT_EQ(static_cast<int32_t>(got.size()), list->count);
    for (const auto &id : got) {
        EXPECT_EQ(std::string::npos, id.find_first_not_of("0123456789")) << id;
        EXPECT_EQ(1, lines(kxtest::kInfo, "kx_sdk_linkList.cpp", "KX_PRINTF_LINKLIST", id + "\n"));
    }
    for (const auto &id : long_ids)
        EXPECT_EQ(1, lines(kxtest::kInfo, "kx_sdk_thread.cpp", "KX_SDK_FIND_ALL_TIDS", "other file[" + id + "]\n"));
    EXPECT_EQ(1, lines(kxtest::kInfo, "kx_sdk_thread.cpp", "KX_SDK_FIND_ALL_TIDS",
                       " *********** this is KX_SDK_FIND_ALL_TIDS\n"));
    EXPECT_EQ(0, KX_SDK_FREE_LINKLIST(list));
    EXPECT_EQ(0, KX_SDK_FREE(list));
    return short_ids;
}

TEST(FindAllTids, ShortIdsAreCollected)
{
    std::promise<void> release;
    std::shared_future<void> go = release.get_future().share();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([go] { go.wait(); });
    check_tids(static_cast<uint32_t>(getpid()));
    release.set_value();
    for (auto &t : threads)
        t.join();

    // Process 1 always has the one-digit thread id "1".
    EXPECT_EQ(1u, check_tids(1).count("1"));

    kxtest::clear_log();
    EXPECT_EQ(nullptr, KX_SDK_FIND_ALL_TIDS(4000000000u));  // beyond any pid
    EXPECT_EQ(1, lines(kxtest::kError, "kx_sdk_thread.cpp", "KX_SDK_FIND_ALL_TIDS", " *********** DIR is NULL\n"));
}
