/*
 * The response sinks and the twenty-one request members, against the test
 * cloud: what goes on the wire, where the answer lands, what is logged.
 */
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"
#include "suite_text.h"
#include "test_cloud.h"

using kxcloud::Cloud;
using kxcloud::Reply;
using kxtest::log_contains;
using kxtest::stream_text;

namespace {

/* Everything one call may need; each member takes what it uses. */
struct Call {
    std::string url, body = std::string("k=v&\0x", 6); /* the length, not the NUL, ends the body */
    kxtest::Stream file;
    FILE *stream = file.f;
    std::unique_ptr<KX_SDK_DATA_BUF_S> record{new KX_SDK_DATA_BUF_S()};
    KX_SDK_DATA_BUF_S *data = record.get();
    std::vector<char> area = std::vector<char>(KX_SDK_LARGEDATA_SIZE + 1);
    KX_SDK_LARGEDATA_S large{area.data(), 0};
    KX_SDK_LARGEDATA_S *large_record = &large;
    std::vector<KX_SDK_HTTP_HEADER_S> headers{{"X-One", "1"}, {"X-Two", "two"}};
    int32_t mark = -1;
    int32_t n() const { return static_cast<int32_t>(body.size()); }
    int32_t hn() const { return static_cast<int32_t>(headers.size()); }
    const KX_SDK_HTTP_HEADER_S *h() const { return headers.empty() ? nullptr : headers.data(); } /* none: null */
};

enum Sink { kFile, kData, kLarge };

struct Member {
    const char *name, *logs_as; /* wrappers speak through the member they wrap */
    bool tls, post;
    Sink sink;
    const char *content_type; /* nullptr: no Content-Type line */
    bool gzip, logs_body, helpers;
    const char *ret_code_end; /* nullptr: not logged; else what ends the line */
    std::function<int32_t(Call &)> call;
};

#define FILE_POST(fn) [](Call &c) { return fn(c.url.c_str(), c.body.data(), c.n(), &c.stream); }
#define FILE_POST_M(fn) [](Call &c) { return fn(c.url.c_str(), c.body.data(), c.n(), &c.stream, c.mark); }
#define FILE_GET(fn) [](Call &c) { return fn(c.url.c_str(), &c.stream); }
#define EXT_POST(fn) [](Call &c) { return fn(c.url.c_str(), c.body.data(), c.n(), c.data, c.h(), c.hn()); }
#define EXT_POST_M(fn) [](Call &c) { return fn(c.url.c_str(), c.body.data(), c.n(), c.data, c.h(), c.hn(), c.mark); }
#define EXT_GET(fn) [](Call &c) { return fn(c.url.c_str(), c.data, c.h(), c.hn()); }
#define EXT_GET_M(fn) [](Call &c) { return fn(c.url.c_str(), c.data, c.h(), c.hn(), c.mark); }

const char *kForm = "application/x-www-form-urlencoded;charset=iso-8859-1";
const char *kCurlForm = "application/x-www-form-urlencoded"; /* libcurl's own for POST fields */
const char *kJson = "application/json";

// clang-format off
const std::vector<Member> kMembers = {
    {"KX_SDK_HTTP_POST_MARK", "KX_SDK_HTTP_POST_MARK", false, true, kFile, kForm, false, true, true, nullptr, FILE_POST_M(KX_SDK_HTTP_POST_MARK)},
    {"KX_SDK_HTTP_POST", "KX_SDK_HTTP_POST_MARK", false, true, kFile, kForm, false, true, true, nullptr, FILE_POST(KX_SDK_HTTP_POST)},
    {"KX_SDK_HTTPS_POST_MARK", "KX_SDK_HTTPS_POST_MARK", true, true, kFile, kCurlForm, false, false, false, nullptr, FILE_POST_M(KX_SDK_HTTPS_POST_MARK)},
    {"KX_SDK_HTTPS_POST", "KX_SDK_HTTPS_POST_MARK", true, true, kFile, kCurlForm, false, false, false, nullptr, FILE_POST(KX_SDK_HTTPS_POST)},
    {"KX_SDK_HTTP_POST_EX", "KX_SDK_HTTP_POST_EX", false, true, kFile, kJson, false, true, true, nullptr, FILE_POST(KX_SDK_HTTP_POST_EX)},
    {"KX_SDK_HTTP_POST_BINARY", "KX_SDK_HTTP_POST_BINARY", false, true, kFile, kJson, false, true, true, nullptr, FILE_POST(KX_SDK_HTTP_POST_BINARY)},
    {"KX_SDK_HTTPS_POST_EX", "KX_SDK_HTTPS_POST_EX", true, true, kFile, kJson, false, true, true, nullptr, FILE_POST(KX_SDK_HTTPS_POST_EX)},
    {"KX_SDK_HTTPS_POST_BINARY", "KX_SDK_HTTPS_POST_BINARY", true, true, kFile, kJson, false, true, true, nullptr, FILE_POST(KX_SDK_HTTPS_POST_BINARY)},
    {"KX_SDK_HTTP_POST_EXTERNAL_MARK", "KX_SDK_HTTP_POST_EXTERNAL_MARK", false, true, kData, kCurlForm, false, false, true, "", EXT_POST_M(KX_SDK_HTTP_POST_EXTERNAL_MARK)},
    {"KX_SDK_HTTP_POST_EXTERNAL", "KX_SDK_HTTP_POST_EXTERNAL_MARK", false, true, kData, kCurlForm, false, false, true, "", EXT_POST(KX_SDK_HTTP_POST_EXTERNAL)},
    {"KX_SDK_HTTPS_POST_EXTERNAL_MARK", "KX_SDK_HTTPS_POST_EXTERNAL_MARK", true, true, kData, kCurlForm, false, true, true, "", EXT_POST_M(KX_SDK_HTTPS_POST_EXTERNAL_MARK)},
    {"KX_SDK_HTTPS_POST_EXTERNAL", "KX_SDK_HTTPS_POST_EXTERNAL_MARK", true, true, kData, kCurlForm, false, true, true, "", EXT_POST(KX_SDK_HTTPS_POST_EXTERNAL)},
    {"KX_SDK_HTTP_GET", "KX_SDK_HTTP_GET", false, false, kFile, nullptr, false, false, false, nullptr, FILE_GET(KX_SDK_HTTP_GET)},
    {"KX_SDK_HTTPS_GET_WITH_TIMEOUT", "KX_SDK_HTTPS_GET_WITH_TIMEOUT", true, false, kFile, nullptr, true, false, false, nullptr, [](Call &c) { return KX_SDK_HTTPS_GET_WITH_TIMEOUT(c.url.c_str(), &c.stream, 5); }},
    {"KX_SDK_HTTPS_GET", "KX_SDK_HTTPS_GET_WITH_TIMEOUT", true, false, kFile, nullptr, true, false, false, nullptr, FILE_GET(KX_SDK_HTTPS_GET)},
    {"KX_SDK_HTTP_GET_BACK", "KX_SDK_HTTP_GET_BACK", true, false, kFile, nullptr, true, false, false, nullptr, FILE_GET(KX_SDK_HTTP_GET_BACK)},
    {"KX_SDK_HTTP_GET_EXTERNAL_MARK", "KX_SDK_HTTP_GET_EXTERNAL_MARK", false, false, kData, nullptr, false, false, true, "", EXT_GET_M(KX_SDK_HTTP_GET_EXTERNAL_MARK)},
    {"KX_SDK_HTTP_GET_EXTERNAL", "KX_SDK_HTTP_GET_EXTERNAL_MARK", false, false, kData, nullptr, false, false, true, "", EXT_GET(KX_SDK_HTTP_GET_EXTERNAL)},
    {"KX_SDK_HTTPS_GET_EXTERNAL_MARK", "KX_SDK_HTTPS_GET_EXTERNAL_MARK", true, false, kData, nullptr, true, false, true, "", EXT_GET_M(KX_SDK_HTTPS_GET_EXTERNAL_MARK)},
    {"KX_SDK_HTTPS_GET_EXTERNAL", "KX_SDK_HTTPS_GET_EXTERNAL_MARK", true, false, kData, nullptr, true, false, true, "", EXT_GET(KX_SDK_HTTPS_GET_EXTERNAL)},
    {"KX_SDK_HTTPS_GET_EXTERNAL_MARK1", "KX_SDK_HTTPS_GET_EXTERNAL_MARK1", true, false, kLarge, nullptr, true, false, true, "\n",
     [](Call &c) { return KX_SDK_HTTPS_GET_EXTERNAL_MARK1(c.url.c_str(), c.large_record, c.h(), c.hn(), c.mark); }},
};
// clang-format on

const Member &member(const std::string &name)
{
    return *std::find_if(kMembers.begin(), kMembers.end(), [&](const Member &m) { return name == m.name; });
}

std::string received(const Member &m, Call &c)
{
    if (m.sink == kFile)
        return stream_text(c.stream);
    return m.sink == kData ? std::string(c.data->data, c.data->used) : std::string(c.large.buffer, c.large.used);
}

class Transport : public ::testing::Test {
protected:
    /* The members run as the request calls run them: with the library
     * initialised, so through its TLS session share. */
    static void SetUpTestSuite() { ASSERT_EQ(0, KX_GLOBAL_INIT("127.0.0.1")); }
    static void TearDownTestSuite() { KX_GLOBAL_DEINIT(); }
    Cloud &cloud = Cloud::shared();
    void SetUp() override { cloud.reset(); kxtest::clear_log(); }
};

/* Runs `m` against `path` on `on` and gives its result. */
int32_t run(const Member &m, Call &c, const std::string &path, const Cloud &on = Cloud::shared())
{
    c.url = m.tls ? "https://" + on.https_domain() + path : "http://" + on.http_domain() + ":80" + path;
    return m.call(c);
}

TEST_F(Transport, EveryMemberSendsItsRequestCollectsTheAnswerAndRefusesNullSinks)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0), one = 1;
    const bool may_mark = setsockopt(fd, SOL_SOCKET, SO_MARK, &one, sizeof one) == 0; /* in the namespace */
    close(fd);
    for (const Member &m : kMembers) {
        SCOPED_TRACE(m.name);
        cloud.reset();
        cloud.route("*", "/t", [](const kxcloud::Request &req) {
            Reply r{200, "answer to " + req.method};
            r.gzip = req.header("Accept-Encoding").find("gzip") != std::string::npos;
            return r;
        });
        kxtest::clear_log();
        if (!m.tls && !cloud.http_ready())
            continue; /* port 80 needs the private network namespace */
        Call c;
        c.mark = may_mark ? 0 : -1; /* 0 is a mark; the wrappers pass none */
        ASSERT_EQ(0, run(m, c, "/t"));
        EXPECT_EQ(std::string("answer to ") + (m.post ? "POST" : "GET"), received(m, c));

        kxcloud::Request req = cloud.last();
        EXPECT_EQ(std::string(m.tls ? "https " : "http ") + (m.post ? "POST " + c.body : "GET "),
                  std::string(req.tls ? "https " : "http ") + req.method + " " + req.body);
        EXPECT_EQ(m.content_type ? m.content_type : "", req.header("Content-Type"));
        EXPECT_EQ(m.content_type != nullptr, req.has_header("Content-Type"));
        EXPECT_EQ(m.gzip ? "gzip" : "", req.header("Accept-Encoding"));
        std::string extra; /* the caller's headers, in order, each once */
        for (const auto &h : req.headers)
            if (h.first.rfind("X-", 0) == 0)
                extra += h.first + ":" + h.second + ";";
        EXPECT_EQ(m.sink == kFile ? "" : "X-One:1;X-Two:two;", extra);

        std::string prefix = std::string(m.logs_as) + "(): ";
        const bool marked = may_mark && std::string(m.name).find("_MARK") != std::string::npos;
        EXPECT_EQ(marked ? 1u : 0u, kxtest::log_matching("sockopt_callback(): Mark: ").size());
        EXPECT_EQ(marked, log_contains("sockopt_callback(): Mark: 0\n"));
        EXPECT_EQ(m.logs_body, log_contains(prefix + "postbody is k=v&.\n"));
        EXPECT_EQ(m.helpers, log_contains(prefix + "KxSDK2.0 curl easy perform pCurl: 0x"));
        EXPECT_EQ(m.helpers, log_contains(prefix + "KxSDK2.0 curl easy clean up\n"));
        EXPECT_EQ(m.ret_code_end ? 1u : 0u, kxtest::log_matching(prefix + "curl retCode: ").size());
        EXPECT_EQ(m.ret_code_end != nullptr,
                  kxtest::log_has(m.logs_as, std::string("curl retCode: 200") + (m.ret_code_end ? m.ret_code_end : ""), kxtest::kInfo));
        EXPECT_FALSE(log_contains("the pointer is null already!"));

        /* A null stream variable, record or large record: refused before any request. */
        c.stream = nullptr;
        c.data = nullptr;
        c.large_record = nullptr;
        EXPECT_EQ(-1, m.call(c));
        EXPECT_EQ(1, kxtest::log_count(prefix + "invalid arg!\n", kxtest::kError));
        EXPECT_EQ(1u, cloud.requests().size());
    }
}

TEST_F(Transport, HeaderLinesAreCutToTheirBufferAndMayBeAbsent)
{
    const Member &m = member("KX_SDK_HTTPS_GET_EXTERNAL");
    cloud.reply("GET", "/h", Reply{});
    Call c;
    c.headers.assign(1, KX_SDK_HTTP_HEADER_S{"X-Long", {}});
    memset(c.headers[0].value, 'v', 127);
    EXPECT_EQ(0, run(m, c, "/h"));
    EXPECT_EQ(std::string(127 - strlen("X-Long:"), 'v'), cloud.last().header("X-Long"));

    kxtest::clear_log();
    c.headers.clear(); /* count 0, null array */
    EXPECT_EQ(0, run(m, c, "/h"));
    EXPECT_FALSE(cloud.last().has_header("X-Long"));
    EXPECT_EQ(1, kxtest::log_count("KX_SDK_CURL_SLIST_FREE(): the pointer is null already!\n", kxtest::kError));
}

/* The total limit ends a transfer still under way: -1, libcurl's code
 * logged, and the sink keeps what came. */
TEST_F(Transport, TotalLimitEndsATricklingAnswer)
{
    Reply trickle{200, std::string(30, 't')};
    trickle.chunk_size = 1;
    trickle.piece_delay_ms = 1000; /* 30 s of data, still arriving at 20 s */
    cloud.reply("GET", "/slow", trickle);
    Call c;
    EXPECT_EQ(-1, run(member("KX_SDK_HTTPS_GET"), c, "/slow"));
    EXPECT_TRUE(log_contains("Failed to call curl_easy_perform, error code is 28.\n"));
    const std::string kept = stream_text(c.stream);
    EXPECT_EQ(std::string(kept.size(), 't'), kept);
    EXPECT_FALSE(kept.empty());

    trickle.body = "tri"; /* the member without a limit waits it out */
    cloud.reply("GET", "/slow", trickle);
    Call back;
    EXPECT_EQ(0, run(member("KX_SDK_HTTP_GET_BACK"), back, "/slow"));
    EXPECT_EQ("tri", stream_text(back.stream));
}

/* ---- TLS sessions kept between calls ---- */

/* A cloud of its own, TLS only, with this certificate, on this port (0: any). */
kxcloud::Options tls_only(const char *cert = "server", int port = 0) { return {true, false, port, cert}; }

/* Whether each TLS request the cloud saw resumed a session, in order. */
std::vector<bool> resumed(const Cloud &cloud)
{
    std::vector<bool> out;
    for (const kxcloud::Request &r : cloud.requests())
        out.push_back(r.resumed);
    return out;
}

TEST_F(Transport, LaterCallsResumeTheFirstCallsSessionAndANewServerIsCheckedInFull)
{
    int port = 0;
    {
        Cloud fresh(tls_only()); /* no session of it exists yet */
        fresh.reply("*", "/s", Reply{200, "kept"});
        port = fresh.https_port();
        std::vector<bool> expected{false}; /* a full handshake first; the download comes last */
        for (const Member &m : kMembers) {
            if (!m.tls)
                continue;
            Call c;
            EXPECT_EQ(0, run(m, c, "/s", fresh)) << m.name;
            EXPECT_EQ("kept", received(m, c)) << m.name;
            expected.push_back(KX_TEST_CURL_SHARE);
        }
        const std::string url = "https://" + fresh.https_domain() + "/s";
        auto to_file = [](char *p, size_t n, size_t k, void *f) { return fwrite(p, n, k, static_cast<FILE *>(f)); };
        auto no_progress = [](void *, double, double, double, double) { return 0; };
        EXPECT_EQ(0, KX_SDK_DownloadFileByCurl(url.c_str(), tmpfile(), 0, to_file, no_progress)); /* closes it */
        EXPECT_EQ(expected, resumed(fresh)); /* each on a connection of its own */
    }
    /* Whoever answers there next cannot take up that session: its
     * certificate is checked as on a first call. */
    struct Case { const char *cert; int32_t result; std::vector<bool> resumed; };
    for (const Case &k : {Case{"elsewhere_server", -1, {}}, Case{"other_server", -1, {}},
                          Case{"server", 0, {false, KX_TEST_CURL_SHARE}}}) { /* the right name and CA, but new */
        SCOPED_TRACE(k.cert);
        Cloud next(tls_only(k.cert, port));
        ASSERT_EQ(port, next.https_port());
        next.reply("*", "/t", Reply{});
        kxtest::clear_log();
        for (const char *name : {"KX_SDK_HTTPS_POST", "KX_SDK_HTTPS_GET_EXTERNAL"}) {
            Call c;
            EXPECT_EQ(k.result, run(member(name), c, "/t", next)) << name;
        }
        EXPECT_EQ(k.resumed, resumed(next)); /* a refused server saw no request */
        EXPECT_EQ(k.result ? 2 : 0, kxtest::log_count("Failed to call curl_easy_perform, error code is 60.\n", kxtest::kError));
    }
}

/* The share lives from KX_GLOBAL_INIT to KX_GLOBAL_DEINIT, and a call still
 * under way keeps it until it ends. */
TEST_F(Transport, TheShareLivesWhileTheLibraryIsInitialisedAndOutlivesACallInFlight)
{
    Reply slow{200, "late"};
    slow.delay_ms = 600;
    cloud.reply("POST", "/late", slow);
    Call c;
    auto call = std::async(std::launch::async, [&] { return run(member("KX_SDK_HTTPS_POST"), c, "/late"); });
    for (int i = 0; i < 500 && cloud.requests().empty(); ++i)
        usleep(2000);
    KX_GLOBAL_DEINIT(); /* the caller should not, but the call must survive it */
    EXPECT_EQ(0, call.get());
    EXPECT_EQ("late", stream_text(c.stream));

    /* Uninitialised, each call is on its own. */
    Cloud fresh(tls_only());
    fresh.reply("*", "/s", Reply{});
    Call first, second;
    EXPECT_EQ(0, run(member("KX_SDK_HTTPS_POST"), first, "/s", fresh));
    EXPECT_EQ(0, run(member("KX_SDK_HTTPS_POST"), second, "/s", fresh));
    ASSERT_EQ(0, KX_GLOBAL_INIT("127.0.0.1"));
    EXPECT_EQ((std::vector<bool>{false, false}), resumed(fresh));
}

/* ---- the sinks and helpers on their own ---- */

/* (Appending whatever the stream's position, and the record sinks' exact
 * bounds, are held for every release by the reliability call table.) */
TEST(Sinks, FileSinkReportsAShortWriteAndRecordSinksRefuseAChunkBeyondTheirCapacityWhole)
{
    kxtest::clear_log();
    char chunk[] = "bb";
    FILE *ro = fopen("/proc/self/exe", "r");
    EXPECT_EQ(0u, WRITE_DATA(chunk, 1, 2, &ro));
    EXPECT_TRUE(log_contains("WRITE_DATA(): Failed to call fwrite.\n"));
    EXPECT_TRUE(log_contains("WRITE_DATA(): reset The error indicator of pStream.\n"));
    EXPECT_EQ(0, ferror(ro)) << "the stream's error is cleared";
    fclose(ro);

    /* Not cut: the record keeps what it held. */
    auto data = std::make_unique<KX_SDK_DATA_BUF_S>();
    data->used = KX_SDK_DATA_BUF_SIZE - 1;
    EXPECT_EQ(0u, WRITE_DATA1(chunk, 1, 2, data.get()));
    EXPECT_EQ(KX_SDK_DATA_BUF_SIZE - 1u, data->used);
    EXPECT_EQ(std::string(KX_SDK_DATA_BUF_SIZE, '\0'), std::string(data->data, KX_SDK_DATA_BUF_SIZE));

    std::vector<char> area(KX_SDK_LARGEDATA_SIZE + 1, '#');
    KX_SDK_LARGEDATA_S large{area.data(), KX_SDK_LARGEDATA_SIZE - 1};
    EXPECT_EQ(0u, WRITE_LARGEDATA(chunk, 1, 2, &large));
    EXPECT_TRUE(kxtest::log_has("WRITE_LARGEDATA", "OOM: size=[1] totalsize=[2] offset=[204799]\n", kxtest::kError));
    EXPECT_EQ(KX_SDK_LARGEDATA_SIZE - 1u, large.used);
    EXPECT_EQ(std::string(area.size(), '#'), std::string(area.data(), area.size()));

    /* Null records, and a large record without its buffer. */
    KX_SDK_LARGEDATA_S no_area{nullptr, 0};
    EXPECT_EQ(static_cast<size_t>(-1), WRITE_DATA1(chunk, 1, 1, nullptr));
    EXPECT_EQ(static_cast<size_t>(-1), WRITE_LARGEDATA(chunk, 1, 1, nullptr));
    EXPECT_EQ(static_cast<size_t>(-1), WRITE_LARGEDATA(chunk, 1, 1, &no_area));
    EXPECT_EQ(3, kxtest::log_count("(): invalid arg!\n", kxtest::kError));
}

TEST(Sinks, XmlIsJudgedByThreeExactSpellingsAnywhere)
{
    struct Case { const char *text; int32_t xml; };
    for (Case k : {Case{"\xEF\xBB\xBF<?xml version", 1}, Case{"  <?XML", 1}, Case{"x<?Xml", 1}, Case{"{\"a\":1}", 0}}) {
        kxtest::clear_log();
        EXPECT_EQ(k.xml, KX_SDK_JUDGE_XML_FORM(k.text)) << k.text;
        EXPECT_EQ(k.xml, static_cast<int32_t>(kxtest::log_matching("xml format").size()));
        EXPECT_EQ(k.xml == 1, kxtest::log_has("KX_SDK_JUDGE_XML_FORM", "the response is xml format!", kxtest::kInfo))
            << "no line end";
    }
}

}  // namespace
