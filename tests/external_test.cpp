/*
 * The signed external fetch against the local cloud's echo: what each entry
 * point puts on the wire (URL or body, headers, both signatures, opened or
 * recomputed independently), which answers it hands over and with which
 * result, and the log lines it writes. Every answer handed out is released
 * with KX_SDK_FREE.
 */
#include <gtest/gtest.h>
#include <cjson/cJSON.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "external_services.h"
#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_cloud.h"
#include "test_crypto.h"

namespace {

using kxcloud::Cloud;

constexpr const char *kSignBody = "appId=tv-7&deviceId=DEV-1&nonce=42";
constexpr const char *kBody = "deviceId=DEV-1&page=2";
/* A string, a number that loses its first and last digits, a two-digit and a
 * one-digit number that keep nothing. */
constexpr const char *kHeaders = R"({"X-Model":"kx55","X-Build":1234,"X-Small":12,"X-Digit":7})";
constexpr const char *kSalt = "Qm7TzR2bWc9LkXv4+pHsYe1NdGu8Jf3A";

bool may_mark()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0), mark = 1;
    bool ok = setsockopt(fd, SOL_SOCKET, SO_MARK, &mark, sizeof mark) == 0;
    close(fd);
    return ok;
}

/* The header signature, computed here: base64 of MD5(text + salt). */
std::string sign_for(const std::string &text) { return kxtest::base64_encode(kxtest::md5_raw(text + kSalt)); }

bool logged(const std::string &call, const std::string &message, unsigned level = kxtest::kInfo)
{
    return kxtest::log_has(call, message, level);
}

/* The answer a fetch hands out: the caller's, released with KX_SDK_FREE. */
struct Answer {
    char *text = nullptr;
    ~Answer()
    {
        if (text != nullptr) {
            EXPECT_EQ(KX_SDK_FREE(text), 0);
        }
    }
    std::string str() const { return text != nullptr ? text : "(none)"; }
};

enum Entry { kBase, kV31, kV30, k3rd };
const char *const kEntryName[] = {"KX_SDK_FETCH_DATA", "KX_SDK_FETCH_DATA_V31", "KX_SDK_FETCH_DATA_V30",
                                  "KX_SDK_FETCH_DATA_3rdUrl"};

/* One fetch: the record is filled in the entry point's layout. */
struct Fetch {
    Entry entry;
    bool http, get;
    int32_t sign;
    int32_t mark = -1;
    std::string url;
    const char *headers = kHeaders;
    const char *sign_body = kSignBody;
    const char *body = kBody;
    const char *func = "fetch_test";

    int32_t run(char **out) const
    {
        const char *u = url.empty() ? nullptr : url.c_str();
        if (entry == kBase || entry == kV30) {
            KX_SDK_FETCH_REQ_S r = {http, get, sign, func, u, sign_body, body, headers};
            return entry == kBase ? KX_SDK_FETCH_DATA(&r, out) : KX_SDK_FETCH_DATA_V30(&r, out);
        }
        KX_SDK_FETCH_REQ_V31_S r = {mark, http, get, sign, func, u, sign_body, body, headers, 0x5a5a};
        return entry == kV31 ? KX_SDK_FETCH_DATA_V31(&r, out) : KX_SDK_FETCH_DATA_3rdUrl(&r, out);
    }
};

class External : public ::testing::Test {
protected:
    Cloud &cloud = Cloud::shared();

    void SetUp() override
    {
        ASSERT_EQ(KX_GLOBAL_INIT("127.0.0.1"), 0);
        cloud.reset();
        kxcloud::register_external_services(cloud);
        kxtest::clear_log();
    }
    /* The URL a fetch is given: a GET's ends in "?", ready for its body. */
    std::string url(bool http, const std::string &path, bool get) const
    {
        return (http ? "http://" + cloud.http_domain() + ":80" : "https://" + cloud.https_domain()) + path +
               (get ? "?" : "");
    }
    Fetch fetch(Entry entry, bool http, bool get, int32_t sign, const std::string &path = kxcloud::kExternalEchoPath)
    {
        return Fetch{entry, http, get, sign, -1, url(http, path, get)};
    }
    /* Runs a fetch that must fail with `result`: nothing handed out. */
    void expect_result(const Fetch &f, int32_t result, const std::string &message, const std::string &what)
    {
        kxtest::clear_log();
        Answer answer;
        EXPECT_EQ(f.run(&answer.text), result) << what << " " << kEntryName[f.entry];
        EXPECT_EQ(answer.text, nullptr) << what;
        if (!message.empty()) {
            EXPECT_TRUE(logged(kEntryName[f.entry == kV30 ? kV31 : f.entry], message, kxtest::kError))
                << what << " " << kEntryName[f.entry] << ": no \"" << message << "\"";
        }
    }
};

/* ---- the wire ------------------------------------------------------------- */

enum Suffix { kNothing, kEmptySign, kBodySign };
enum SignFor { kNoSignFor, kOverSignedText, kOverSignBody };

TEST_F(External, EachEntryPointAndSchemeSendsItsUrlOrBodyHeadersAndSignatures)
{
    struct Case {
        const char *what;
        Entry entry;
        bool http, get;
        int32_t sign;
        Suffix suffix;
        SignFor header;
        bool headers_sent;
    } cases[] = {
        {"base, secure GET, signed", kBase, false, true, 1, kBodySign, kOverSignedText, true},
        {"base, plain POST, signed", kBase, true, false, 1, kBodySign, kOverSignedText, true},
        {"base, secure POST, unsigned", kBase, false, false, 0, kEmptySign, kNoSignFor, false},
        {"base, plain GET, unsigned", kBase, true, true, 0, kEmptySign, kNoSignFor, false},
        {"V31, secure GET, mode 1", kV31, false, true, 1, kBodySign, kNoSignFor, true},
        {"V31, plain POST, mode 2, marked", kV31, true, false, 2, kNothing, kOverSignBody, true},
        {"V31, secure POST, mode 0", kV31, false, false, 0, kNothing, kNoSignFor, true},
        {"V31, plain GET, mode 9", kV31, true, true, 9, kNothing, kNoSignFor, true},
        {"V30, secure GET, mode 2", kV30, false, true, 2, kNothing, kOverSignBody, true},
        {"V30, plain POST, mode 1", kV30, true, false, 1, kBodySign, kNoSignFor, true},
        {"3rdUrl, secure GET, mode 1", k3rd, false, true, 1, kEmptySign, kNoSignFor, true},
        {"3rdUrl, plain GET, mode 0", k3rd, true, true, 0, kNothing, kNoSignFor, true},
        {"3rdUrl, secure POST, mode 2", k3rd, false, false, 2, kNothing, kNoSignFor, true},
        {"3rdUrl, plain POST, mode 1", k3rd, true, false, 1, kEmptySign, kNoSignFor, true},
    };
    const bool marks = may_mark();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        if (c.http && !cloud.http_ready())
            continue; /* port 80 needs the private network namespace */
        cloud.reset();
        kxcloud::register_external_services(cloud);
        kxtest::clear_log();
        Fetch f = fetch(c.entry, c.http, c.get, c.sign);
        if (c.entry == kV31 && c.http && marks)
            f.mark = 7;
        Answer answer;
        ASSERT_EQ(f.run(&answer.text), 0);

        const kxcloud::Request sent = cloud.last();
        EXPECT_EQ(sent.tls, !c.http);
        EXPECT_EQ(sent.method, c.get ? "GET" : "POST");
        const std::string wire = c.get ? sent.query : sent.body;
        std::string signature;
        switch (c.suffix) {
        case kNothing:
            EXPECT_EQ(wire, kBody);
            break;
        case kEmptySign:
            EXPECT_EQ(wire, std::string(kBody) + "&sign=");
            break;
        case kBodySign:
            ASSERT_EQ(wire.rfind(std::string(kBody) + "&sign=", 0), 0u) << wire;
            signature = wire.substr(strlen(kBody) + 6);
            EXPECT_EQ(signature.find_first_of("+/="), std::string::npos) << signature;
            EXPECT_EQ(kxtest::open_request_signature(signature), kxtest::md5_raw(kSignBody));
            break;
        }
        EXPECT_EQ(sent.target, std::string(kxcloud::kExternalEchoPath) + (c.get ? "?" + wire : ""));
        switch (c.header) {
        case kNoSignFor:
            EXPECT_FALSE(sent.has_header("x-sign-for"));
            break;
        case kOverSignedText:
            EXPECT_EQ(sent.header("x-sign-for"), sign_for(std::string(kSignBody) + "&sign=" + signature));
            break;
        case kOverSignBody:
            EXPECT_EQ(sent.header("x-sign-for"), sign_for(kSignBody));
            break;
        }
        if (c.headers_sent) {
            EXPECT_EQ(sent.header("X-Model"), "kx55");
            EXPECT_EQ(sent.header("X-Build"), "23"); /* 1234 without its first and last digit */
            EXPECT_TRUE(sent.has_header("X-Small") && sent.header("X-Small").empty());
            EXPECT_TRUE(sent.has_header("X-Digit") && sent.header("X-Digit").empty());
        } else {
            EXPECT_FALSE(sent.has_header("X-Model") || sent.has_header("X-Build"));
        }
        if (f.mark >= 0) {
            EXPECT_TRUE(kxtest::log_contains("Mark: 7"));
        }

        /* Verified calls hand over the answer without its signature, the
         * third-party call the bytes as received. */
        const std::string echo = kxcloud::external_echo_answer(sent, false);
        EXPECT_EQ(answer.str(), c.entry == k3rd ? kxcloud::signed_json(echo) : echo);
    }
}

TEST_F(External, HeaderConversionKeepsItsQuirks)
{
    const std::string name63(63, 'n'), name64(64, 'n');
    const std::string value125(125, 'v'), value126(126, 'v');
    struct Case {
        std::string json;
        std::vector<std::string> records; /* "name=value" */
    } cases[] = {
        {kHeaders, {"X-Model=kx55", "X-Build=23", "X-Small=", "X-Digit="}},
        {R"({"t":true,"z":null,"f":-1.5,"e":"","a":[]})", {"t=ru", "z=ul", "f=1.", "e=", "a="}},
        /* objects keep the formatted printer's own layout, line breaks included */
        {R"({"o":{},"p":{"k":1}})", {"o=\n", "p=\n\t\"k\":\t1\n"}},
        {"{\"" + name64 + "\":\"x\",\"" + name63 + "\":\"y\",\"long\":\"" + value126 + "\",\"fits\":\"" + value125 + "\"}",
         {name63 + "=y", "fits=" + value125}},
        /* at most eight, counted among the members that fit */
        {"{\"" + name64 + "\":1,\"h1\":\"1\",\"h2\":\"2\",\"h3\":\"3\",\"h4\":\"4\",\"h5\":\"5\",\"h6\":\"6\",\"h7\":\"7\","
         "\"h8\":\"8\",\"h9\":\"9\"}",
         {"h1=1", "h2=2", "h3=3", "h4=4", "h5=5", "h6=6", "h7=7", "h8=8"}},
        {"[\"a\",\"b\"]", {}}, /* no names */
        {"\"text\"", {}},
        {"{}", {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.json);
        cJSON *json = cJSON_Parse(c.json.c_str());
        ASSERT_NE(json, nullptr);
        KX_SDK_HTTP_HEADER_S records[KX_SDK_FETCH_MAX_HEADERS + 1];
        memset(records, 0x7f, sizeof records);
        const int32_t count = KX_SDK_GET_HTTP_HEADER(json, records);
        cJSON_Delete(json);
        std::vector<std::string> got;
        for (int32_t i = 0; i < count; ++i)
            got.push_back(std::string(records[i].name) + "=" + records[i].value);
        EXPECT_EQ(got, c.records);
        EXPECT_EQ(records[KX_SDK_FETCH_MAX_HEADERS].name[0], 0x7f) << "wrote past eight records";
    }
    EXPECT_EQ(KX_SDK_GET_HTTP_HEADER(nullptr, nullptr), 0);
}

TEST_F(External, SignedBaseCallDropsWhatFollowsEightHeadersAndIgnoresBadHeaderObjects)
{
    /* Eight caller members fill the records: "x-sign-for", added last, is not sent. */
    Fetch f = fetch(kBase, false, true, 1);
    f.headers = R"({"h1":"1","h2":"2","h3":"3","h4":"4","h5":"5","h6":"6","h7":"7","h8":"8"})";
    Answer full;
    ASSERT_EQ(f.run(&full.text), 0);
    EXPECT_EQ(cloud.last().header("h8"), "8");
    EXPECT_FALSE(cloud.last().has_header("x-sign-for"));
    EXPECT_TRUE(logged("KX_SDK_FETCH_DATA", "header size :[8]\n"));

    /* Text that does not parse, and JSON that is not an object, supply no header. */
    for (const char *headers : {"{not json", "[\"X-A\",1]"}) {
        kxtest::clear_log();
        f.headers = headers;
        Answer answer;
        ASSERT_EQ(f.run(&answer.text), 0) << headers;
        EXPECT_TRUE(cloud.last().has_header("x-sign-for")) << headers;
        EXPECT_TRUE(logged("KX_SDK_FETCH_DATA", "header size :[1]\n")) << headers;
    }
}

/* ---- answers and results ---------------------------------------------------- */

TEST_F(External, AnswersAreVerifiedByFormatAndRefusedWithTheirResults)
{
    std::string tampered = kxcloud::signed_json(R"({"resultCode":0,"value":"a"})");
    tampered[tampered.find("\"a\"") + 1] = 'b';
    cloud.reply("*", "/tampered", kxcloud::Reply{200, tampered});
    cloud.reply("*", "/missing", kxcloud::Reply{404, ""});

    for (Entry entry : {kBase, kV31, kV30}) {
        SCOPED_TRACE(kEntryName[entry]);
        /* XML: verified by the mark family, refused by the base call. */
        Answer xml;
        const int32_t result = fetch(entry, false, true, 1, kxcloud::kExternalEchoXmlPath).run(&xml.text);
        if (entry == kBase) {
            EXPECT_EQ(result, 4);
            EXPECT_EQ(xml.text, nullptr);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(xml.str(), kxcloud::external_echo_answer(cloud.last(), true));
            EXPECT_TRUE(kxtest::log_contains("the response is xml format!"));
        }
        expect_result(fetch(entry, false, false, 1, "/tampered"), 4, "failed to verify json data!\n", "tampered");
        expect_result(fetch(entry, false, true, 1, "/missing"), 3, "failed to get/post data!\n", "404");
        Fetch refused = fetch(entry, false, true, 1);
        refused.url = "https://127.0.0.1:1/external/echo?";
        expect_result(refused, 3, "failed to get/post data!\n", "refused");
    }
    /* The third-party call checks nothing: a tampered answer is handed over as it came. */
    Answer raw;
    ASSERT_EQ(fetch(k3rd, false, true, 0, "/tampered").run(&raw.text), 0);
    EXPECT_EQ(raw.str(), tampered);
    expect_result(fetch(k3rd, false, true, 0, "/missing"), 3, "failed to get/post data!\n", "404");
}

TEST_F(External, AnswerSizeLimitsOfEachCall)
{
    struct Case {
        const char *what;
        Entry entry;
        bool http, get;
        size_t size;
        int32_t result;
    } cases[] = {
        {"base over 100 KiB", kBase, false, true, KX_SDK_DATA_BUF_SIZE + 1, 3},
        {"V31 over 100 KiB", kV31, false, false, KX_SDK_DATA_BUF_SIZE + 1, 3},
        {"3rdUrl secure GET, 150000", k3rd, false, true, 150000, 0},
        {"3rdUrl secure GET, 200 KiB", k3rd, false, true, KX_SDK_LARGEDATA_SIZE, 0},
        {"3rdUrl secure GET over 200 KiB", k3rd, false, true, KX_SDK_LARGEDATA_SIZE + 1, 3},
        /* The plain GET and the POSTs receive into a 100 KiB record of the call's own. */
        {"3rdUrl plain GET, 100 KiB", k3rd, true, true, KX_SDK_DATA_BUF_SIZE, 0},
        {"3rdUrl secure POST over 100 KiB", k3rd, false, false, KX_SDK_DATA_BUF_SIZE + 1, 3},
        {"3rdUrl plain POST, 20", k3rd, true, false, 20, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        if (c.http && !cloud.http_ready())
            continue;
        kxcloud::Reply big{200, std::string(c.size, 'z')};
        big.chunk_size = 16384;
        cloud.reply("*", "/big", big);
        kxtest::clear_log();
        Answer answer;
        EXPECT_EQ(fetch(c.entry, c.http, c.get, 0, "/big").run(&answer.text), c.result);
        if (c.result == 0) {
            ASSERT_NE(answer.text, nullptr);
            EXPECT_EQ(strlen(answer.text), c.size);
            EXPECT_EQ(std::string(answer.text), big.body);
            EXPECT_EQ(kxtest::log_count(kEntryName[k3rd] + std::string("(): KX_SDK_HTTP_GET_EXTERNAL success size:") +
                                            std::to_string(c.size) + ",buf: zzz",
                                        kxtest::kInfo),
                      1);
            EXPECT_TRUE(logged(kEntryName[k3rd], "KX_SDK_HTTP_GET_EXTERNAL free return_buf.buff\n"));
        } else {
            EXPECT_EQ(answer.text, nullptr);
            EXPECT_TRUE(logged(kEntryName[c.entry], "failed to get/post data!\n", kxtest::kError));
        }
    }
}

TEST_F(External, ASignatureThatCannotBeMadeGivesOneAndSendsNothing)
{
    /* Without a key the request signature cannot be made. */
    KX_UNINIT_PUBLICKEY();
    gpKey = nullptr;
    expect_result(fetch(kBase, false, true, 1), 1, "create signature-body failed.\n", "base");
    expect_result(fetch(kV31, false, false, 1), 1, "create signature-body failed.\n", "V31");
    expect_result(fetch(kV30, false, true, 1), 1, "create signature-body failed.\n", "V30");
    EXPECT_TRUE(cloud.requests().empty());
    ASSERT_EQ(KX_INIT_PUBLICKEY(), 0);
}

TEST_F(External, RefusalsComeBeforeAnyTraffic)
{
    struct Case {
        const char *what;
        Entry entry;
        int32_t sign;
        void (*spoil)(Fetch &);
        bool null_out;
    } cases[] = {
        {"no answer out", kBase, 0, nullptr, true},
        {"no body", kBase, 0, [](Fetch &f) { f.body = nullptr; }, false},
        {"no URL", kV31, 0, [](Fetch &f) { f.url.clear(); }, false},
        {"no function name", k3rd, 0, [](Fetch &f) { f.func = nullptr; }, false},
        {"signed without sign body", kBase, 1, [](Fetch &f) { f.sign_body = nullptr; }, false},
        {"mode 2 without sign body", kV31, 2, [](Fetch &f) { f.sign_body = nullptr; }, false},
        {"mode 1 without sign body", kV30, 1, [](Fetch &f) { f.sign_body = nullptr; }, false},
        {"mode 1 without sign body", k3rd, 1, [](Fetch &f) { f.sign_body = nullptr; }, false},
    };
    for (const Case &c : cases) {
        Fetch f = fetch(c.entry, false, true, c.sign);
        if (c.spoil)
            c.spoil(f);
        kxtest::clear_log();
        Answer answer;
        const int32_t result = f.run(c.null_out ? nullptr : &answer.text);
        EXPECT_EQ(answer.text, nullptr);
        EXPECT_EQ(result, -1) << c.what;
        EXPECT_TRUE(logged(kEntryName[c.entry == kV30 ? kV31 : c.entry], "invalid arg!\n", kxtest::kError)) << c.what;
    }
    /* A null record, and every call before initialisation. */
    char *out = nullptr;
    EXPECT_EQ(KX_SDK_FETCH_DATA(nullptr, &out), -1);
    EXPECT_EQ(KX_SDK_FETCH_DATA_V30(nullptr, &out), -1);
    EXPECT_EQ(KX_SDK_FETCH_DATA_3rdUrl(nullptr, &out), -1);
    KX_GLOBAL_DEINIT();
    for (Entry entry : {kBase, kV31, kV30, k3rd})
        expect_result(fetch(entry, false, true, 1), -1, "please firstly to call KX_GLOBAL_INIT()!\n", "uninitialised");
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(cloud.requests().empty());
    /* Outside modes 1 and 2 no sign body is needed. */
    ASSERT_EQ(KX_GLOBAL_INIT("127.0.0.1"), 0);
    Fetch unsigned_fetch = fetch(kV31, false, true, 0);
    unsigned_fetch.sign_body = nullptr;
    Answer answer;
    EXPECT_EQ(unsigned_fetch.run(&answer.text), 0);
    EXPECT_TRUE(logged("KX_SDK_FETCH_DATA_V31", "    ps8SignBody: (null) *end\n"));
}

/* ---- log lines -------------------------------------------------------------- */

TEST_F(External, LogLinesOfASignedGetAndAMarkedPost)
{
    Fetch get = fetch(kBase, false, true, 1);
    Answer got;
    ASSERT_EQ(get.run(&got.text), 0);
    const std::string base = "KX_SDK_FETCH_DATA";
    const std::vector<std::string> block = {
        "=================KX_SDK_FETCH_DATA input param=================\n",
        "    ps8FuncName: fetch_test\n",
        "    ps8Url: " + get.url + "\n",
        std::string("    ps8ConnectHeaders: ") + kHeaders + "\n",
        std::string("    ps8Body: ") + kBody + "\n",
        std::string("    ps8SignBody: ") + kSignBody + "\n",
        "=================KX_SDK_FETCH_DATA end=================\n",
        "header size :[5]\n",
        "ps8GetUrl: https://" + cloud.https_domain() + cloud.last().target + "\n",
    };
    for (const std::string &line : block)
        EXPECT_TRUE(logged(base, line)) << line;
    const std::string echoed = kxcloud::signed_json(kxcloud::external_echo_answer(cloud.last(), false));
    EXPECT_TRUE(logged(base, "KX_SDK_HTTP_GET_EXTERNAL success buf: " + echoed + " \n"));
    /* The POST body was never built: its release says so. */
    EXPECT_EQ(kxtest::log_count("KX_SDK_FREE(): the pointer is null already!", kxtest::kError), 1);

    kxtest::clear_log();
    Fetch post = fetch(kV31, false, false, 0);
    post.mark = may_mark() ? 3 : -1;
    post.headers = nullptr;
    Answer posted;
    ASSERT_EQ(post.run(&posted.text), 0);
    const std::string v31 = "KX_SDK_FETCH_DATA_V31";
    EXPECT_TRUE(logged(v31, "    mark: " + std::to_string(post.mark) + "\n"));
    EXPECT_TRUE(logged(v31, "    ps8ConnectHeaders: (null)\n"));
    EXPECT_TRUE(logged(v31, std::string("    ps8SignBody: ") + kSignBody + " *end\n"));
    EXPECT_TRUE(logged(v31, "not need create up sign.\n"));
    EXPECT_TRUE(logged(v31, "header size :[0]\n"));
    /* The GET's words for a POST too. */
    EXPECT_TRUE(logged(v31, "KX_SDK_HTTP_GET_EXTERNAL success buf: " +
                                kxcloud::signed_json(kxcloud::external_echo_answer(cloud.last(), false)) + " \n"));
    EXPECT_FALSE(kxtest::log_contains("ps8GetUrl"));
    EXPECT_EQ(kxtest::log_count("KX_SDK_FREE(): the pointer is null already!", kxtest::kError), 1);
}

}  // namespace
