/*
 * The test cloud checked with plain libcurl, so that a fault in the cloud
 * shows here and not as a puzzling failure in a library suite: what it
 * records, and the answers the suites rely on (ranges, chunks, gzip, stalls,
 * hang-ups, redirects, TLS with the generated CA, HEAD).
 */
#include "test_cloud.h"
#include "test_crypto.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

namespace {

using kxcloud::Cloud;
using kxcloud::Reply;

struct Fetched {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string body, head;
    curl_off_t length = -2;
    long elapsed_ms = 0;
};

struct Ask {
    std::string method = "GET", body;
    std::vector<std::string> headers;
    const char *accept_encoding = nullptr; /* non-null: let libcurl decode */
    bool decode = true;
    long resume_from = 0, timeout_ms = 10000;
    bool follow = false;
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
    if (ask.method == "POST") {
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, ask.body.c_str());
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(ask.body.size()));
    }
    curl_easy_setopt(c, CURLOPT_NOBODY, ask.method == "HEAD" ? 1L : 0L);
    curl_easy_setopt(c, CURLOPT_ACCEPT_ENCODING, ask.accept_encoding);
    curl_easy_setopt(c, CURLOPT_HTTP_CONTENT_DECODING, ask.decode ? 1L : 0L);
    curl_easy_setopt(c, CURLOPT_RESUME_FROM, ask.resume_from);
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, ask.follow ? 1L : 0L);
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

TEST_F(CloudSelfTest, RecordsTheRequestExactlyAsSent)
{
    cloud().reply("POST", "/aaa/sign_in", Reply{200, "answer"});
    Ask ask;
    ask.method = "POST";
    ask.body = "b=%2B1+2&a=&c";
    ask.headers = {"X-Zeta: 1", "X-Alpha:two", "Content-Type: application/json"};
    Fetched f = fetch(url("/aaa/sign_in?x=%20y&q"), ask);
    ASSERT_EQ(CURLE_OK, f.code);
    EXPECT_EQ("answer", f.body);

    ASSERT_EQ(1u, cloud().requests().size());
    kxcloud::Request r = cloud().last();
    EXPECT_TRUE(r.tls);
    EXPECT_EQ("/aaa/sign_in", r.path);
    EXPECT_EQ("x=%20y&q", r.query);
    EXPECT_EQ("/aaa/sign_in?x=%20y&q", r.target);
    EXPECT_EQ("b=%2B1+2&a=&c", r.body);
    EXPECT_EQ("two", r.header("x-alpha"));
    EXPECT_EQ("application/json", r.header("CONTENT-TYPE"));
    EXPECT_FALSE(r.has_header("X-Missing"));

    // The caller's headers keep the order they were sent in.
    std::vector<std::string> names;
    for (const auto &h : r.headers)
        if (h.first.rfind("X-", 0) == 0)
            names.push_back(h.first);
    EXPECT_EQ((std::vector<std::string>{"X-Zeta", "X-Alpha"}), names);

    std::map<std::string, std::string> form{{"a", ""}, {"b", "%2B1+2"}, {"c", ""}};
    EXPECT_EQ(form, r.form());
    std::map<std::string, std::string> query{{"q", ""}, {"x", "%20y"}};
    EXPECT_EQ(query, r.query_form());
}

TEST_F(CloudSelfTest, RoutesByMethodAndPathAndAnswersUnroutedWith404)
{
    cloud().reply("GET", "/a", Reply{200, "get"});
    cloud().reply("*", "/a", Reply{200, "any"});
    cloud().route("*", "/echo", [](const kxcloud::Request &r) { return Reply{201, r.method + " " + r.body}; });

    EXPECT_EQ("get", fetch(url("/a")).body);
    Ask post;
    post.method = "POST";
    post.body = "x";
    EXPECT_EQ("any", fetch(url("/a"), post).body);
    Fetched echo = fetch(url("/echo"), post);
    EXPECT_EQ(201, echo.status);
    EXPECT_EQ("POST x", echo.body);
    // A body far above httplib's 8 KiB cap for form-encoded posts arrives whole.
    for (int i = 0; post.body.size() < 300000; ++i)
        post.body += std::to_string(i) + ",";
    EXPECT_EQ(CURLE_OK, fetch(url("/echo"), post).code);
    EXPECT_TRUE(post.body == cloud().last().body) << cloud().last().body.size();

    Fetched missing = fetch(url("/nowhere"));
    EXPECT_EQ(404, missing.status);
    EXPECT_EQ("", missing.body);
    EXPECT_EQ("/nowhere", cloud().last().path);

    cloud().reset();
    EXPECT_TRUE(cloud().requests().empty());
    EXPECT_EQ("", cloud().last().method);
    EXPECT_EQ(404, fetch(url("/a")).status);
}

TEST_F(CloudSelfTest, TlsIsTrustedThroughTheGeneratedCaOnly)
{
    cloud().reply("GET", "/t", Reply{200, "ok"});
    EXPECT_EQ(CURLE_OK, fetch(url("/t")).code);

    kxcloud::Options other;
    other.http80 = false;
    other.cert = "other_server";
    Cloud stranger(other);
    stranger.reply("GET", "/t", Reply{200, "ok"});
    EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, fetch("https://" + stranger.https_domain() + "/t").code);
    // The handshake failed, so no request reached the routes.
    EXPECT_TRUE(stranger.requests().empty());
}

TEST_F(CloudSelfTest, RangeAnswersTheTailUnlessTold)
{
    Reply file{200, "0123456789"};
    cloud().reply("GET", "/img", file);
    Ask resume;
    resume.resume_from = 4;
    Fetched tail = fetch(url("/img"), resume);
    ASSERT_EQ(CURLE_OK, tail.code);
    EXPECT_EQ(206, tail.status);
    EXPECT_EQ("456789", tail.body);
    EXPECT_TRUE(head_has(tail, "Content-Range: bytes 4-9/10"));
    EXPECT_EQ("bytes=4-", cloud().last().header("Range"));

    Ask past;
    past.headers = {"Range: bytes=10-"};
    EXPECT_EQ(416, fetch(url("/img"), past).status);

    file.honour_range = false;
    cloud().reply("GET", "/img", file);
    Fetched whole = fetch(url("/img"), past);
    EXPECT_EQ(200, whole.status);
    EXPECT_EQ("0123456789", whole.body);
}

TEST_F(CloudSelfTest, ChunkedAnswersCarryNoLengthAndHeadReportsLengthOnlyForFixedAnswers)
{
    Reply chunked{200, std::string(1000, 'c')};
    chunked.chunked = true;
    chunked.chunk_size = 300;
    cloud().reply("GET", "/chunked", chunked);
    cloud().reply("GET", "/fixed", Reply{200, "12345"});

    Fetched f = fetch(url("/chunked"));
    ASSERT_EQ(CURLE_OK, f.code);
    EXPECT_EQ(chunked.body, f.body);
    EXPECT_TRUE(head_has(f, "Transfer-Encoding: chunked"));
    EXPECT_EQ(std::string::npos, f.head.find("Content-Length"));

    Ask head;
    head.method = "HEAD";
    Fetched probe = fetch(url("/chunked"), head);
    EXPECT_EQ(CURLE_OK, probe.code);
    EXPECT_EQ(-1, probe.length);
    Fetched fixed = fetch(url("/fixed"), head);
    EXPECT_EQ(CURLE_OK, fixed.code);
    EXPECT_EQ(5, fixed.length);
    EXPECT_EQ("", fixed.body);
    EXPECT_EQ("HEAD", cloud().last().method);
}

TEST_F(CloudSelfTest, GzipIsSentOnlyWhenAskedAndExactlyOnce)
{
    const std::string text = "{\"resultCode\":0,\"text\":\"" + std::string(500, 'z') + "\"}";
    Reply zipped{200, text, "application/json"};
    zipped.gzip = true;
    cloud().reply("GET", "/z", zipped);
    cloud().reply("GET", "/plain", Reply{200, text, "application/json"});

    Ask decode;
    decode.accept_encoding = "gzip";
    Fetched f = fetch(url("/z"), decode);
    ASSERT_EQ(CURLE_OK, f.code);
    EXPECT_EQ(text, f.body);
    EXPECT_TRUE(head_has(f, "Content-Encoding: gzip"));

    Ask raw;
    raw.decode = false;
    Fetched bytes = fetch(url("/z"), raw);
    EXPECT_EQ(kxcloud::gzip_bytes(text), bytes.body);

    // A plain answer stays plain even for a client that accepts gzip.
    Fetched plain = fetch(url("/plain"), decode);
    EXPECT_EQ(text, plain.body);
    EXPECT_EQ(std::string::npos, plain.head.find("Content-Encoding"));
    EXPECT_TRUE(head_has(plain, "Content-Length: " + std::to_string(text.size())));
}

TEST_F(CloudSelfTest, StallDelayAndTrickleHoldTheAnswerBack)
{
    Reply stall{200, "0123456789"};
    stall.stall_after = 4;
    stall.stall_ms = 700;
    cloud().reply("GET", "/stall", stall);
    Fetched slow = fetch(url("/stall"));
    EXPECT_EQ(CURLE_OK, slow.code);
    EXPECT_EQ("0123456789", slow.body);
    EXPECT_GE(slow.elapsed_ms, 650);

    Ask impatient;
    impatient.timeout_ms = 300;
    Fetched cut = fetch(url("/stall"), impatient);
    EXPECT_EQ(CURLE_OPERATION_TIMEDOUT, cut.code);
    EXPECT_EQ("0123", cut.body);

    Reply trickle{200, "abcdef"};
    trickle.chunk_size = 2;
    trickle.piece_delay_ms = 150;
    trickle.delay_ms = 100;
    cloud().reply("GET", "/trickle", trickle);
    Fetched t = fetch(url("/trickle"));
    EXPECT_EQ("abcdef", t.body);
    EXPECT_GE(t.elapsed_ms, 380);
}

TEST_F(CloudSelfTest, DropHangsUpAfterTheGivenBytes)
{
    Reply drop{200, std::string(100, 'd')};
    drop.drop_after = 10;
    cloud().reply("GET", "/drop", drop);
    Fetched f = fetch(url("/drop"));
    EXPECT_EQ(CURLE_PARTIAL_FILE, f.code);
    EXPECT_EQ(std::string(10, 'd'), f.body);

    drop.chunked = true;
    cloud().reply("GET", "/drop", drop);
    Fetched c = fetch(url("/drop"));
    EXPECT_NE(CURLE_OK, c.code);
    EXPECT_EQ(std::string(10, 'd'), c.body);
}

TEST_F(CloudSelfTest, RedirectIsFollowedToTheNewPlace)
{
    Reply moved;
    moved.redirect_to = url("/new");
    cloud().reply("GET", "/old", moved);
    cloud().reply("GET", "/new", Reply{200, "here"});

    Fetched plain = fetch(url("/old"));
    EXPECT_EQ(302, plain.status);
    EXPECT_TRUE(head_has(plain, "Location: " + url("/new")));

    Ask follow;
    follow.follow = true;
    Fetched f = fetch(url("/old"), follow);
    EXPECT_EQ(CURLE_OK, f.code);
    EXPECT_EQ("here", f.body);
    EXPECT_EQ("/new", cloud().last().path);
}

TEST_F(CloudSelfTest, PlainListenerOnPort80)
{
    if (!cloud().http_ready())
        GTEST_SKIP() << "port 80 needs the private network namespace";
    cloud().reply("POST", "/p", Reply{200, "plain"});
    Ask post;
    post.method = "POST";
    post.body = "k=v";
    Fetched f = fetch("http://" + cloud().http_domain() + ":80/p", post);
    EXPECT_EQ("plain", f.body);
    EXPECT_FALSE(cloud().last().tls);
    EXPECT_EQ("k=v", cloud().last().body);
}

TEST_F(CloudSelfTest, AStalledAnswerFreesItsWorkerWhenTheClientGivesUp)
{
    Reply stall{200, "0123456789"};
    stall.stall_after = 1;
    stall.stall_ms = 60000;
    cloud().reply("GET", "/stuck", stall);
    cloud().reply("GET", "/fine", Reply{200, "fine"});
    Ask impatient;
    impatient.timeout_ms = 150;
    // More abandoned stalls than the listener has workers.
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(CURLE_OPERATION_TIMEDOUT, fetch(url("/stuck"), impatient).code);
    Ask soon;
    soon.timeout_ms = 2000;
    EXPECT_EQ("fine", fetch(url("/fine"), soon).body);
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
    std::string target = "https://" + cloud->https_domain() + "/s";

    Fetched f;
    std::thread client([&] { f = fetch(target); });
    while (cloud->requests().empty())
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto start = std::chrono::steady_clock::now();
    cloud.reset();
    auto took = std::chrono::steady_clock::now() - start;
    client.join();
    EXPECT_LT(took, std::chrono::seconds(2));
    EXPECT_EQ(CURLE_PARTIAL_FILE, f.code);
    EXPECT_EQ("01", f.body);
}

}  // namespace
