/*
 * The test cloud checked with plain libcurl, so that a fault in the cloud
 * shows here and not as a puzzling failure in a library suite. Only what the
 * library suites cannot tell apart from a library fault is checked: the
 * recording as sent, ranges, chunks without a length, gzip sent once, stalls
 * and hang-ups, HEAD, TLS with the generated CA, a prompt shut-down, and
 * the faults kx_local_cloud makes on request.
 */
#include "faults.h"
#include "test_cloud.h"
#include "test_crypto.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

namespace {

using kxcloud::Cloud;
using kxcloud::Reply;

struct Fetched {
    CURLcode code = CURLE_OK;
    long status = 0, elapsed_ms = 0;
    std::string body, head;
    curl_off_t length = -2;
};

struct Ask {
    std::string method = "GET", body = "";
    std::vector<std::string> headers = {};
    bool gzip = false; /* ask for gzip and decode it; otherwise keep the bytes as sent */
    long resume_from = 0, timeout_ms = 10000;
};

size_t collect(char *data, size_t size, size_t count, void *user)
{
    static_cast<std::string *>(user)->append(data, size * count);
    return size * count;
}

Fetched fetch(const std::string &url, const Ask &ask = Ask())
{
    Fetched out;
    std::unique_ptr<CURL, void (*)(CURL *)> curl(curl_easy_init(), curl_easy_cleanup);
    std::unique_ptr<curl_slist, void (*)(curl_slist *)> list(nullptr, curl_slist_free_all);
    for (const auto &h : ask.headers)
        list.reset(curl_slist_append(list.release(), h.c_str()));
    std::string ca = kxtest::credentials_dir() + "/ca.pem";
    CURL *c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_CAINFO, ca.c_str());
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, ask.timeout_ms);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &out.body);
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, collect);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &out.head);
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, list.get());
    if (ask.method == "POST")
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, ask.body.c_str()); /* the bodies here hold no NUL */
    curl_easy_setopt(c, CURLOPT_NOBODY, ask.method == "HEAD" ? 1L : 0L);
    curl_easy_setopt(c, CURLOPT_ACCEPT_ENCODING, ask.gzip ? "gzip" : nullptr);
    curl_easy_setopt(c, CURLOPT_HTTP_CONTENT_DECODING, ask.gzip ? 1L : 0L);
    curl_easy_setopt(c, CURLOPT_RESUME_FROM, ask.resume_from);
    auto start = std::chrono::steady_clock::now();
    out.code = curl_easy_perform(c);
    out.elapsed_ms = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::steady_clock::now() - start).count());
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &out.status);
    curl_easy_getinfo(c, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &out.length);
    return out;
}

bool head_has(const Fetched &f, const std::string &line)
{
    return f.head.find(line + "\r\n") != std::string::npos;
}

class CloudSelfTest : public ::testing::Test {
protected:
    void SetUp() override { cloud().reset(); }
    static Cloud &cloud() { return Cloud::shared(); }
    static std::string url(const std::string &path) { return "https://" + cloud().https_domain() + path; }
};

TEST_F(CloudSelfTest, RecordsTheRequestExactlyAsSentAndForgetsItOnReset)
{
    cloud().reply("POST", "/aaa/sign_in", Reply{200, "answer"});
    Ask ask{"POST", "b=%2B1+2&a=&c", {"X-Zeta: 1", "X-Alpha:two", "Content-Type: application/json"}};
    Fetched f = fetch(url("/aaa/sign_in?x=%20y&q"), ask);
    ASSERT_EQ(CURLE_OK, f.code);
    EXPECT_EQ("answer", f.body);

    ASSERT_EQ(1u, cloud().requests().size());
    kxcloud::Request r = cloud().last();
    EXPECT_TRUE(r.tls && !r.has_header("X-Missing"));
    EXPECT_EQ((std::vector<std::string>{"/aaa/sign_in", "x=%20y&q", "/aaa/sign_in?x=%20y&q", "b=%2B1+2&a=&c", "two",
                                        "application/json"}),
              (std::vector<std::string>{r.path, r.query, r.target, r.body, r.header("x-alpha"), r.header("CONTENT-TYPE")}));
    // The caller's headers keep the order they were sent in.
    std::vector<std::string> names;
    for (const auto &h : r.headers)
        if (h.first.rfind("X-", 0) == 0)
            names.push_back(h.first);
    EXPECT_EQ((std::vector<std::string>{"X-Zeta", "X-Alpha"}), names);
    EXPECT_EQ((std::map<std::string, std::string>{{"a", ""}, {"b", "%2B1+2"}, {"c", ""}}), r.form());
    EXPECT_EQ((std::map<std::string, std::string>{{"q", ""}, {"x", "%20y"}}), r.query_form());

    // A body far above httplib's 8 KiB cap for form-encoded posts arrives whole.
    for (int i = 0; ask.body.size() < 300000; ++i)
        ask.body += std::to_string(i) + ",";
    EXPECT_EQ(CURLE_OK, fetch(url("/aaa/sign_in"), ask).code);
    EXPECT_TRUE(ask.body == cloud().last().body) << cloud().last().body.size();

    cloud().reset();
    EXPECT_TRUE(cloud().requests().empty());
    EXPECT_EQ(404, fetch(url("/aaa/sign_in")).status);
}

TEST_F(CloudSelfTest, TlsFromAnotherCaIsRefusedBeforeAnyRequest)
{
    // Every other case here is trusted through the generated CA; a stranger is not.
    kxcloud::Options other;
    other.http80 = false;
    other.cert = "other_server";
    Cloud stranger(other);
    stranger.reply("GET", "/t", Reply{200, "ok"});
    EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, fetch("https://" + stranger.https_domain() + "/t").code);
    // The handshake failed, so no request reached the routes.
    EXPECT_TRUE(stranger.requests().empty());
}

Reply shaped(std::string body, const std::function<void(Reply &)> &set)
{
    Reply r{200, std::move(body)};
    set(r);
    return r;
}

TEST_F(CloudSelfTest, AnswersLeaveInTheScriptedShape)
{
    const std::string text = "{\"resultCode\":0,\"text\":\"" + std::string(500, 'z') + "\"}";
    const std::string c1000(1000, 'c'), d100(100, 'd'), d10(10, 'd');
    Ask gzip, resume;
    gzip.gzip = true;
    resume.resume_from = 4;
    const CURLcode kAnyFailure = CURL_LAST;
    struct Case {
        const char *what;
        Reply reply;
        Ask ask;
        CURLcode code;
        long status;
        std::string body, has_line, lacks; /* "" checks nothing */
    };
    const Case cases[] = {
        {"range", Reply{200, "0123456789"}, resume, CURLE_OK, 206, "456789", "Content-Range: bytes 4-9/10", ""},
        {"chunked", shaped(c1000, [](Reply &r) { r.chunked = true; r.chunk_size = 300; }), Ask(), CURLE_OK, 200, c1000,
         "Transfer-Encoding: chunked", "Content-Length"},
        {"gzip decoded", shaped(text, [](Reply &r) { r.gzip = true; }), gzip, CURLE_OK, 200, text,
         "Content-Encoding: gzip", ""},
        {"gzip as sent", shaped(text, [](Reply &r) { r.gzip = true; }), Ask(), CURLE_OK, 200,
         kxcloud::gzip_bytes(text), "", ""},
        // A plain answer stays plain even for a client that accepts gzip.
        {"plain to a gzip client", Reply{200, text}, gzip, CURLE_OK, 200, text,
         "Content-Length: " + std::to_string(text.size()), "Content-Encoding"},
        {"drop", shaped(d100, [](Reply &r) { r.drop_after = 10; }), Ask(), CURLE_PARTIAL_FILE, 200, d10, "", ""},
        {"chunked drop", shaped(d100, [](Reply &r) { r.drop_after = 10; r.chunked = true; }), Ask(), kAnyFailure, 200,
         d10, "", ""},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        cloud().reply("GET", "/a", k.reply);
        Fetched f = fetch(url("/a"), k.ask);
        if (k.code == kAnyFailure)
            EXPECT_NE(CURLE_OK, f.code);
        else
            EXPECT_EQ(k.code, f.code);
        EXPECT_EQ(k.status, f.status);
        EXPECT_TRUE(k.body == f.body) << f.body;
        EXPECT_TRUE(k.has_line.empty() || head_has(f, k.has_line)) << f.head;
        EXPECT_TRUE(k.lacks.empty() || f.head.find(k.lacks) == std::string::npos) << f.head;
        EXPECT_EQ(k.ask.resume_from ? "bytes=4-" : "", cloud().last().header("Range"));
    }
}

TEST_F(CloudSelfTest, HeadReportsTheLengthOnlyForFixedAnswers)
{
    Reply chunked{200, "no length"};
    chunked.chunked = true;
    cloud().reply("GET", "/chunked", chunked);
    cloud().reply("GET", "/fixed", Reply{200, "12345"});
    Fetched probe = fetch(url("/chunked"), Ask{"HEAD"});
    EXPECT_EQ(CURLE_OK, probe.code);
    EXPECT_EQ(-1, probe.length);
    EXPECT_EQ(5, fetch(url("/fixed"), Ask{"HEAD"}).length);
    EXPECT_EQ("HEAD", cloud().last().method);
}

TEST_F(CloudSelfTest, StallHoldsTheAnswerBackAndAnAbandonedStallFreesItsWorker)
{
    Reply stall{200, "0123456789"};
    stall.stall_after = 4;
    stall.stall_ms = 700;
    cloud().reply("GET", "/stall", stall);
    Fetched slow = fetch(url("/stall"));
    EXPECT_EQ(CURLE_OK, slow.code);
    EXPECT_EQ("0123456789", slow.body);
    EXPECT_GE(slow.elapsed_ms, 650);

    stall.stall_ms = 60000;
    cloud().reply("GET", "/stall", stall);
    cloud().reply("GET", "/fine", Reply{200, "fine"});
    // Patient enough for the handshake and the first bytes, however slow the
    // machine (under qemu-arm a handshake alone can take 150 ms).
    Ask impatient;
    impatient.timeout_ms = std::max(150L, 4 * fetch(url("/fine")).elapsed_ms);
    // More abandoned stalls than the listener has workers.
    for (int i = 0; i < 12; ++i) {
        Fetched cut = fetch(url("/stall"), impatient);
        EXPECT_EQ(CURLE_OPERATION_TIMEDOUT, cut.code);
        EXPECT_EQ("0123", cut.body);
    }
    impatient.timeout_ms = 2000;
    EXPECT_EQ("fine", fetch(url("/fine"), impatient).body);
}

/* kx_local_cloud's fault options change what any route answers. */
TEST_F(CloudSelfTest, FaultOptionsChangeWhateverTheRouteAnswers)
{
    const std::string json = kxcloud::signed_json("{\"resultCode\":0,\"total\":12}");
    std::string tampered = json;
    tampered.replace(tampered.find("12"), 2, "13");
    struct Case {
        std::vector<const char *> options;
        CURLcode code;
        long status, at_least_ms;
        std::string body;
    };
    const Case cases[] = {
        {{"drop=/f:5"}, CURLE_PARTIAL_FILE, 200, 0, json.substr(0, 5)},
        {{"drop=*"}, CURLE_PARTIAL_FILE, 200, 0, ""},
        {{"status=/f:503"}, CURLE_OK, 503, 0, json},
        {{"tamper=/f"}, CURLE_OK, 200, 0, tampered},
        {{"stall=/f:1"}, CURLE_OK, 200, 950, json},
        {{"status=*:500", "drop=/f:3"}, CURLE_PARTIAL_FILE, 500, 0, json.substr(0, 3)}, /* both, "*" first */
        {{"status=/other:500"}, CURLE_OK, 200, 0, json},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.options[0]);
        cloud().reset();
        cloud().reply("POST", "/f", Reply{200, json, "application/json"});
        for (const char *option : k.options) {
            kxcloud::Fault fault;
            ASSERT_TRUE(kxcloud::parse_fault(option, fault)) << fault.said;
            cloud().alter(fault.path, fault.change);
        }
        Fetched f = fetch(url("/f"), Ask{"POST", "a=1"});
        EXPECT_EQ(k.code, f.code);
        EXPECT_EQ(k.status, f.status);
        EXPECT_EQ(k.body, f.body);
        EXPECT_GE(f.elapsed_ms, k.at_least_ms);
    }
    // Forgotten on reset, with the routes.
    cloud().reply("POST", "/f", Reply{200, json});
    EXPECT_EQ(json, fetch(url("/f"), Ask{"POST", "a=1"}).body);

    for (const char *bad : {"bogus=/f", "drop", "drop=", "drop=f", "drop=/f:-1", "drop=/f:2x", "tamper=/f:3",
                            "status=/f", "status=/f:99", "stall=/f:3601"}) {
        kxcloud::Fault fault;
        EXPECT_FALSE(kxcloud::parse_fault(bad, fault)) << bad;
        EXPECT_NE(std::string::npos, fault.said.find(bad)) << fault.said;
    }
}

/* Tampering keeps the answer well-formed and leaves the signature as it was. */
TEST(CloudFaults, TamperingChangesTheLastDigitBeforeTheSignature)
{
    const std::pair<std::string, std::string> cases[] = {
        {"{\"a\":19,\"signatureServer\":\"AB12\"}", "{\"a\":10,\"signatureServer\":\"AB12\"}"},
        {"<r><n>7</n><signatureServer>9z</signatureServer></r>", "<r><n>8</n><signatureServer>9z</signatureServer></r>"},
        {"{\"a\":\"xy\",\"signatureServer\":\"1\"}", "{\"a\":\"xY\",\"signatureServer\":\"1\"}"},
        {"plain 41", "plain 42"}, /* no signature: the whole answer */
        {"", ""},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.second, kxcloud::tampered(c.first)) << c.first;
}

TEST(CloudLifetime, DestructionEndsAStalledAnswerPromptly)
{
    kxcloud::Options options;
    options.http80 = false;
    auto cloud = std::make_unique<Cloud>(options);
    Reply stall{200, "0123456789"};
    stall.stall_after = 2;
    stall.stall_ms = 60000;
    cloud->reply("GET", "/s", stall);
    Fetched f;
    std::thread client([&f, target = "https://" + cloud->https_domain() + "/s"] { f = fetch(target); });
    while (cloud->requests().empty())
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto start = std::chrono::steady_clock::now();
    cloud.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    client.join();
    EXPECT_EQ(CURLE_PARTIAL_FILE, f.code);
    EXPECT_EQ("01", f.body);
}

}  // namespace
