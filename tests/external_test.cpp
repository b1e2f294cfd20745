/*
 * The signed external fetch against the local cloud's echo: what each entry
 * point puts on the wire (URL or body, headers, both signatures, opened or
 * recomputed independently), which answers it hands over and with which
 * result, and the log lines it writes. Every answer handed out is released
 * with KX_SDK_FREE. Refused connections, error statuses and the other hostile
 * answers of every entry point are reliability/hostile_test's.
 */
#include <gtest/gtest.h>
#include <cjson/cJSON.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "external_services.h"
#include "kx_cloud_openapi.h"
#include "suite_text.h"
#include "test_crypto.h"

namespace {

using kxtest::kError;
using kxtest::kInfo;
using kxtest::logged;

constexpr const char *kSignBody = "appId=tv-7&deviceId=DEV-1&nonce=42";
constexpr const char *kBody = "deviceId=DEV-1&page=2";
/* A string, a number that loses its first and last digits, a two-digit and a
 * one-digit number that keep nothing. */
constexpr const char *kHeaders = R"({"X-Model":"kx55","X-Build":1234,"X-Small":12,"X-Digit":7})";
constexpr const char *kSalt = "Qm7TzR2bWc9LkXv4+pHsYe1NdGu8Jf3A";

/* The header signature, computed here: base64 of MD5(text + salt). */
std::string sign_for(const std::string &text) { return kxtest::base64_encode(kxtest::md5_raw(text + kSalt)); }

/* The answer a fetch hands out: the caller's, released with KX_SDK_FREE. */
struct Answer {
    char *text = nullptr;
    ~Answer() { EXPECT_EQ(text != nullptr ? KX_SDK_FREE(text) : 0, 0); }
    std::string str() const { return text != nullptr ? text : "(none)"; }
};

enum Entry { kBase, kV31, kV30, k3rd };
const char *const kEntryName[] = {"KX_SDK_FETCH_DATA", "KX_SDK_FETCH_DATA_V31", "KX_SDK_FETCH_DATA_V30",
                                  "KX_SDK_FETCH_DATA_3rdUrl"};
/* The name its lines carry: V30 runs as V31. */
std::string speaker(Entry entry) { return kEntryName[entry == kV30 ? kV31 : entry]; }

/* One fetch: the record is filled in the entry point's layout. */
struct Fetch {
    Entry entry;
    bool http, get;
    int32_t sign;
    std::string url;
    int32_t mark = -1;
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

class External : public kxtest::CloudSuite<kxcloud::register_external_services> {
protected:
    /* A fetch of `path` on the plain or secure listener; a GET's URL ends in "?", ready for its body. */
    Fetch fetch(Entry entry, bool http, bool get, int32_t sign, const std::string &path = kxcloud::kExternalEchoPath)
    {
        const std::string base = http ? "http://" + cloud.http_domain() + ":80" : "https://" + cloud.https_domain();
        return Fetch{entry, http, get, sign, base + path + (get ? "?" : "")};
    }
    /* Runs a fetch that must fail with `result` and `message`, handing nothing out. */
    void expect_result(const Fetch &f, int32_t result, const std::string &message)
    {
        kxtest::clear_log();
        Answer answer;
        EXPECT_EQ(f.run(&answer.text), result) << kEntryName[f.entry];
        EXPECT_EQ(answer.text, nullptr);
        EXPECT_TRUE(logged(speaker(f.entry), message, kError)) << kEntryName[f.entry] << ": no \"" << message << "\"";
    }
};

/* ---- the wire ------------------------------------------------------------- */

enum Suffix { kNothing, kEmptySign, kBodySign };
enum SignFor { kNoSignFor, kOverSignedText, kOverSignBody };

/* Each fetch also logs its input block (the mark family's with its mark and " *end"),
 * the GET's URL, the header count and the answer as received. */
TEST_F(External, EachEntryPointAndSchemeSendsItsUrlOrBodyHeadersAndSignaturesAndLogsThem)
{
    /* bare: no header text and no sign body (needed by no mode 0 call). */
    struct Case { const char *what; Entry entry; bool http, get; int32_t sign; Suffix suffix; SignFor header; bool headers_sent, bare; } cases[] = {
        {"base, secure GET, signed", kBase, false, true, 1, kBodySign, kOverSignedText, true, false},
        {"base, plain POST, signed", kBase, true, false, 1, kBodySign, kOverSignedText, true, false},
        {"base, secure POST, unsigned", kBase, false, false, 0, kEmptySign, kNoSignFor, false, false},
        {"base, plain GET, unsigned", kBase, true, true, 0, kEmptySign, kNoSignFor, false, false},
        {"V31, secure GET, mode 1", kV31, false, true, 1, kBodySign, kNoSignFor, true, false},
        {"V31, plain POST, mode 2, marked", kV31, true, false, 2, kNothing, kOverSignBody, true, false},
        {"V31, secure POST, mode 0", kV31, false, false, 0, kNothing, kNoSignFor, true, false},
        {"V31, secure POST, mode 0, bare", kV31, false, false, 0, kNothing, kNoSignFor, false, true},
        {"V30, secure GET, mode 2", kV30, false, true, 2, kNothing, kOverSignBody, true, false},
        {"V30, plain POST, mode 1", kV30, true, false, 1, kBodySign, kNoSignFor, true, false},
        {"3rdUrl, secure GET, mode 1", k3rd, false, true, 1, kEmptySign, kNoSignFor, true, false},
        {"3rdUrl, plain GET, mode 0", k3rd, true, true, 0, kNothing, kNoSignFor, true, false},
        {"3rdUrl, secure POST, mode 2", k3rd, false, false, 2, kNothing, kNoSignFor, true, false},
        {"3rdUrl, plain POST, mode 1", k3rd, true, false, 1, kEmptySign, kNoSignFor, true, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        if (c.http && !cloud.http_ready())
            continue; /* port 80 (and the right to mark) needs the private network namespace */
        fresh();
        Fetch f = fetch(c.entry, c.http, c.get, c.sign);
        f.mark = c.entry == kV31 && c.http ? 7 : -1;
        if (c.bare)
            f.headers = f.sign_body = nullptr;
        Answer answer;
        ASSERT_EQ(f.run(&answer.text), 0);

        const kxcloud::Request sent = cloud.last();
        EXPECT_EQ(sent.tls, !c.http);
        EXPECT_EQ(sent.method, c.get ? "GET" : "POST");
        const std::string wire = c.get ? sent.query : sent.body;
        const std::string signature = wire.substr(std::min(wire.size(), strlen(kBody) + 6));
        EXPECT_EQ(wire, kBody + std::string(c.suffix == kNothing ? "" : "&sign=") + signature);
        EXPECT_EQ(sent.target, std::string(kxcloud::kExternalEchoPath) + (c.get ? "?" + wire : ""));
        /* The body signature: percent-encoded, opening to the MD5 of ps8SignBody. */
        EXPECT_EQ(signature.find_first_of("+/="), std::string::npos) << signature;
        EXPECT_EQ(kxtest::open_request_signature(signature), c.suffix == kBodySign ? kxtest::md5_raw(kSignBody) : "");
        auto header = [&](const char *name) { return sent.has_header(name) ? sent.header(name) : "(absent)"; };
        EXPECT_EQ(header("x-sign-for"), c.header == kNoSignFor ? "(absent)"
                  : sign_for(kSignBody + (c.header == kOverSignedText ? "&sign=" + signature : std::string())));
        const std::map<std::string, std::string> converted = {{"X-Model", "kx55"}, {"X-Build", "23"}, {"X-Small", ""}, {"X-Digit", ""}};
        for (const auto &h : converted)
            EXPECT_EQ(header(h.first.c_str()), c.headers_sent ? h.second : "(absent)") << h.first;
        EXPECT_EQ(kxtest::log_contains("Mark: 7"), f.mark == 7);

        /* Verified calls hand over the answer without its signature, the
         * third-party call the bytes as received. */
        const std::string echo = kxcloud::external_echo_answer(sent, false), received = kxcloud::signed_json(echo);
        EXPECT_EQ(answer.str(), c.entry == k3rd ? received : echo);

        const bool marked = c.entry == kV31 || c.entry == kV30;
        const std::string headers = c.bare ? "(null)" : kHeaders, sign_body = c.bare ? "(null)" : kSignBody;
        std::vector<std::string> lines = {"=================KX_SDK_FETCH_DATA input param=================\n",
            "    ps8FuncName: fetch_test\n", "    ps8Url: " + f.url + "\n", "    ps8ConnectHeaders: " + headers + "\n",
            std::string("    ps8Body: ") + kBody + "\n", "    ps8SignBody: " + sign_body + (marked ? " *end\n" : "\n"),
            "=================KX_SDK_FETCH_DATA end=================\n",
            c.entry == k3rd ? kxtest::fmt("KX_SDK_HTTP_GET_EXTERNAL success size:%zu,buf: %s \n", received.size(), received.c_str())
                            : "KX_SDK_HTTP_GET_EXTERNAL success buf: " + received + " \n"};
        if (c.get)
            lines.push_back("ps8GetUrl: " + f.url + sent.query + "\n");
        for (const std::string &line : lines)
            EXPECT_TRUE(logged(speaker(c.entry), line, kInfo)) << line;
        EXPECT_EQ(kxtest::log_contains("ps8GetUrl"), c.get);
        EXPECT_EQ(logged(speaker(c.entry), kxtest::fmt("    mark: %d\n", f.mark), kInfo), marked);
        EXPECT_EQ(logged(speaker(c.entry), "not need create up sign.\n", kInfo), marked && c.sign == 0);
        /* Unsigned, the base call converts no headers; the others count the caller's and x-sign-for. */
        EXPECT_EQ(logged(speaker(c.entry), kxtest::fmt("header size :[%d]\n", c.headers_sent ? 4 + (c.header != kNoSignFor) : 0), kInfo),
                  c.entry != kBase || c.sign != 0);
        /* Released at the end, the texts this road did not build say so. */
        EXPECT_EQ(kxtest::log_count("KX_SDK_FREE(): the pointer is null already!", kError), c.entry == kBase && c.sign == 0 ? 2 : 1);
    }
}

TEST_F(External, HeaderConversionKeepsItsQuirks)
{
    const std::string name63(63, 'n'), name64(64, 'n'), value125(125, 'v'), value126(126, 'v');
    struct Case { std::string json; std::vector<std::string> records; /* "name=value" */ } cases[] = {
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

    /* Through the signed base call: "x-sign-for", added after eight caller
     * members, does not fit; header texts that do not parse, or are not an
     * object, supply no header of their own. */
    const std::pair<const char *, int> objects[] = {
        {R"({"h1":"1","h2":"2","h3":"3","h4":"4","h5":"5","h6":"6","h7":"7","h8":"8"})", 8}, {"{not json", 1}, {"[\"X-A\",1]", 1}};
    for (const auto &o : objects) {
        kxtest::clear_log();
        Fetch f = fetch(kBase, false, true, 1);
        f.headers = o.first;
        Answer answer;
        ASSERT_EQ(f.run(&answer.text), 0) << o.first;
        EXPECT_EQ(cloud.last().has_header("x-sign-for"), o.second == 1) << o.first;
        EXPECT_TRUE(logged(kEntryName[kBase], "header size :[" + std::to_string(o.second) + "]\n", kInfo)) << o.first;
    }
}

/* ---- answers and results ---------------------------------------------------- */

TEST_F(External, AnswersAndResultsOfEachCall)
{
    std::string tampered = kxcloud::signed_json(R"({"resultCode":0,"value":"a"})");
    tampered[tampered.find("\"a\"") + 1] = 'b';
    cloud.reply("*", "/tampered", kxcloud::Reply{200, tampered});
    cloud.reply("*", "/missing", kxcloud::Reply{404, ""});
    /* "/N" answers N bytes of 'z', in pieces. */
    for (const size_t size : {KX_SDK_DATA_BUF_SIZE, KX_SDK_DATA_BUF_SIZE + 1, KX_SDK_LARGEDATA_SIZE, KX_SDK_LARGEDATA_SIZE + 1}) {
        kxcloud::Reply big{200, std::string(size, 'z')};
        big.chunk_size = 16384;
        cloud.reply("*", "/" + std::to_string(size), big);
    }
    const std::string xml = kxcloud::kExternalEchoXmlPath;
    struct Case { Entry entry; bool http, get; std::string path; int32_t result; } cases[] = {
        /* XML: verified by the mark family, refused by the base call, which only knows JSON. */
        {kBase, false, true, xml, 4},         {kV31, false, true, xml, 0},        {kV30, false, false, xml, 0},
        {kBase, false, false, "/tampered", 4}, {kV31, false, true, "/tampered", 4}, {kV30, false, true, "/tampered", 4},
        {kBase, false, true, "/missing", 3},  {kV31, false, false, "/missing", 3}, {kV30, false, true, "/missing", 3},
        {kBase, false, true, "/102401", 3},   {kV31, false, false, "/102401", 3},
        /* The third-party call checks nothing and takes 200 KiB on its secure
         * GET; its plain GET and its POSTs receive into a 100 KiB record. */
        {k3rd, false, true, "/tampered", 0},  {k3rd, false, true, "/missing", 3},
        {k3rd, false, true, "/204800", 0},    {k3rd, false, true, "/204801", 3},
        {k3rd, true, true, "/102400", 0},     {k3rd, false, false, "/102401", 3},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(kEntryName[c.entry]) + " " + c.path + (c.get ? " GET" : " POST"));
        if (c.http && !cloud.http_ready())
            continue;
        kxtest::clear_log();
        Answer answer;
        ASSERT_EQ(fetch(c.entry, c.http, c.get, c.entry == k3rd ? 0 : 1, c.path).run(&answer.text), c.result);
        /* Verified XML comes without its signature; the third party's bytes as they came. */
        const std::string expected = c.result != 0 ? "(none)" : c.entry != k3rd ? kxcloud::external_echo_answer(cloud.last(), true)
                                   : c.path == "/tampered" ? tampered : std::string(std::stoul(c.path.substr(1)), 'z');
        EXPECT_TRUE(answer.str() == expected) << "handed out " << answer.str().size() << " bytes";
        EXPECT_EQ(kxtest::log_contains("the response is xml format!"), c.result == 0 && c.entry != k3rd);
        EXPECT_EQ(logged(speaker(k3rd), "KX_SDK_HTTP_GET_EXTERNAL free return_buf.buff\n", kInfo), c.result == 0 && c.entry == k3rd);
        EXPECT_EQ(logged(speaker(c.entry), c.result == 3 ? "failed to get/post data!\n" : "failed to verify json data!\n", kError),
                  c.result != 0);
    }
    /* Without a key the request signature cannot be made: 1, and nothing sent. */
    KX_UNINIT_PUBLICKEY();
    gpKey = nullptr;
    const size_t before = cloud.requests().size();
    expect_result(fetch(kBase, false, true, 1), 1, "create signature-body failed.\n");
    expect_result(fetch(kV31, false, false, 1), 1, "create signature-body failed.\n");
    EXPECT_EQ(cloud.requests().size(), before);
    ASSERT_EQ(KX_INIT_PUBLICKEY(), 0);
}

TEST_F(External, RefusalsComeBeforeAnyTraffic)
{
    struct Case { const char *what; Entry entry; int32_t sign; void (*spoil)(Fetch &); } cases[] = {
        {"no body", kBase, 0, [](Fetch &f) { f.body = nullptr; }},
        {"no URL", kV31, 0, [](Fetch &f) { f.url.clear(); }},
        {"no function name", k3rd, 0, [](Fetch &f) { f.func = nullptr; }},
        {"signed without sign body", kBase, 1, [](Fetch &f) { f.sign_body = nullptr; }},
        {"mode 2 without sign body", kV31, 2, [](Fetch &f) { f.sign_body = nullptr; }},
        {"mode 1 without sign body", kV30, 1, [](Fetch &f) { f.sign_body = nullptr; }},
        {"mode 1 without sign body", k3rd, 1, [](Fetch &f) { f.sign_body = nullptr; }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Fetch f = fetch(c.entry, false, true, c.sign);
        c.spoil(f);
        expect_result(f, -1, "invalid arg!\n");
    }
    /* No answer out, a null record, and every call before initialisation. */
    char *out = nullptr;
    kxtest::clear_log();
    EXPECT_EQ(fetch(kBase, false, true, 0).run(nullptr), -1);
    EXPECT_TRUE(logged(speaker(kBase), "invalid arg!\n", kError));
    EXPECT_EQ(KX_SDK_FETCH_DATA(nullptr, &out), -1);
    EXPECT_EQ(KX_SDK_FETCH_DATA_V30(nullptr, &out), -1);
    EXPECT_EQ(KX_SDK_FETCH_DATA_3rdUrl(nullptr, &out), -1);
    KX_GLOBAL_DEINIT();
    for (Entry entry : {kBase, kV31, kV30, k3rd})
        expect_result(fetch(entry, false, true, 1), -1, "please firstly to call KX_GLOBAL_INIT()!\n");
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(cloud.requests().empty());
}

}  // namespace
