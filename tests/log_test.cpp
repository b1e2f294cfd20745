/*
 * Log service calls against the local cloud: the exact URLs and bodies on the
 * wire, the service list's slots, the policy pipeline end to end with a policy
 * made here (gzip, base64, AES, hex) and its 32-times bound, upload bodies
 * decoded back to the log bytes with the test's own cryptography, the
 * upgrade-event report, and how each call refuses.
 */
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"
#include "suite_text.h"
#include "log_services.h"
#include "test_crypto.h"

namespace {

using kxtest::fmt;
using kxtest::Stream;
using kxtest::logged;
using kxtest::route;


/* A line of `call` at the information level whose message is exactly `message`. */
bool info(const std::string &call, const std::string &message) { return logged(call, message, kxtest::kInfo); }

/* The all-policy answer's content: hexadecimal text of the AES cipher of the base64 text of a gzip stream. */
std::string policy_content(const std::string &gzip)
{
    return kxtest::hex_encode(kxtest::aes_encrypt('A', kxtest::base64_encode(gzip)));
}

std::string all_policy_answer(const std::string &code, const std::string &content)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response><resultCode>" + code +
           "</resultCode><policySeq>7</policySeq><policyContent>" + content + "</policyContent></response>";
}

/* A JSON object's members, names and string values, in their order. */
using Members = std::vector<std::pair<std::string, std::string>>;
Members members(const std::string &json)
{
    Members out;
    cJSON *root = cJSON_Parse(json.c_str());
    for (cJSON *m = root != nullptr ? root->child : nullptr; m != nullptr; m = m->next)
        out.emplace_back(m->string, cJSON_IsString(m) ? m->valuestring : "<not a string>");
    cJSON_Delete(root);
    return out;
}

/* Bytes that do not compress: a cipher text. */
std::string noise(size_t n) { return kxtest::aes_encrypt('A', std::string(n, '\0')).substr(0, n); }

using Invoke = std::function<int32_t(uint32_t http, const char *domain, FILE **stream)>;

/* A call of a record with its scheme selector set. */
template <typename R, typename Fn>
Invoke on_scheme(R record, Fn fn)
{
    return [record, fn](uint32_t http, const char *d, FILE **f) mutable {
        record.u32ChangeToHttp = http;
        return fn(&record, d, f);
    };
}

const KX_LOG_SERVICE_REQ_S kServiceReq = {0, 2, "3.1.0", "tv.appkey.7", "AT-1"};
const KX_LOG_POLICY_REQ_S kPolicyReq = {0, 0, 5, 2, 0, 0, 0, 0, "AT-1"};
const KX_LOG_ALL_POLICY_REQ_S kAllReq = {0, 0, 0, 0, 1077, 0, "DE", "BR", 0, "DEV-1", "12", "CAP", "9.0"};
const KX_UPGRADE_EVENT_S kEvent = {"ext-info", 0, 3, 1, "V8.1", "AT-1", "EV-42"};

class Log : public kxtest::CloudSuite<kxcloud::register_log_services> {
protected:
    KX_LOG_SERVICE_LIST_S list{};

    std::string upload_url(bool plain, const std::string &query = "?device=DEV-1")
    {
        return (plain ? "http://" + cloud.http_domain() + ":80" : "https://" + domain) + "/log/upload" + query;
    }
};

/* ---- refusals ------------------------------------------------------------------ */

TEST_F(Log, ArgumentsAreCheckedBeforeTheInitialisationAndNothingIsSent)
{
    Stream s;
    FILE *closed = nullptr;
    const char *d = domain.c_str();
    const KX_LOG_UPLOAD_S upload = {0, 0, 0, 0, 0, "tag", 3, "log", "https://127.0.0.1:1/x"};
    const KX_LOG_UPLOAD_EX_S upload_ex = {0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, 0, "tag", 3, "log", "https://127.0.0.1:1/x"};
    struct Case { const char *name; std::function<int32_t()> bad, good; };
    const Case cases[] = {
        {"KX_LOG_GET_SERVICELIST", [&] { auto r = kServiceReq; r.ps8AppKey = nullptr; return KX_LOG_GET_SERVICELIST(&r, d, &list, &s.f); },
         [&] { return KX_LOG_GET_SERVICELIST(&kServiceReq, d, &list, &s.f); }},
        {"KX_LOG_GET_SERVICELIST", [&] { return KX_LOG_GET_SERVICELIST(&kServiceReq, d, nullptr, &s.f); }, nullptr},
        {"KX_LOG_GET_SERVICELIST", [&] { return KX_LOG_GET_SERVICELIST(&kServiceReq, d, &list, &closed); }, nullptr},
        {"KX_LOG_QUERY_POLICY", [&] { auto r = kPolicyReq; r.ps8AccessToken = nullptr; return KX_LOG_QUERY_POLICY(&r, d, &s.f); },
         [&] { return KX_LOG_QUERY_POLICY(&kPolicyReq, d, &s.f); }},
        {"KX_LOG_QUERY_ALL_POLICY", [&] { auto r = kAllReq; r.ps8DeviceId = nullptr; return KX_LOG_QUERY_ALL_POLICY(&r, d, &s.f); },
         [&] { return KX_LOG_QUERY_ALL_POLICY(&kAllReq, d, &s.f); }},
        {"KX_LOG_QUERY_ALL_POLICY", [&] { return KX_LOG_QUERY_ALL_POLICY(&kAllReq, d, nullptr); }, nullptr},
        {"KX_LOG_UPLOAD", [&] { auto r = upload; r.ps8LogTag = nullptr; return KX_LOG_UPLOAD(&r, &s.f); },
         [&] { return KX_LOG_UPLOAD(&upload, &s.f); }},
        {"KX_LOG_UPLOAD", [&] { auto r = upload; r.ps8UploadUrl = nullptr; return KX_LOG_UPLOAD(&r, &s.f); }, nullptr},
        {"KX_LOG_UPLOAD_EX", [&] { auto r = upload_ex; r.ps8Data = nullptr; return KX_LOG_UPLOAD_EX(&r, &s.f); },
         [&] { return KX_LOG_UPLOAD_EX(&upload_ex, &s.f); }},
        {"KX_LOG_UPLOAD_EX", [&] { return KX_LOG_UPLOAD_EX(&upload_ex, &closed); }, nullptr},
        {"KX_REPORT_UPGRADE_EVENT", [&] { auto r = kEvent; r.ps8DeviceExtInfoStr = nullptr; return KX_REPORT_UPGRADE_EVENT(&r, d, &s.f); },
         [&] { return KX_REPORT_UPGRADE_EVENT(&kEvent, d, &s.f); }},
        {"KX_REPORT_UPGRADE_EVENT", [&] { auto r = kEvent; r.ps8EventCode = nullptr; return KX_REPORT_UPGRADE_EVENT(&r, d, &s.f); }, nullptr},
    };
    for (bool initialised : {true, false}) {
        if (!initialised)
            KX_GLOBAL_DEINIT();
        for (const Case &c : cases) {
            kxtest::clear_log();
            EXPECT_EQ(c.bad(), -1) << c.name;
            EXPECT_TRUE(logged(c.name, "invalid arg!\n")) << c.name << (initialised ? "" : " before initialisation");
            EXPECT_FALSE(kxtest::log_contains("KX_GLOBAL_INIT")) << c.name;
            if (!initialised && c.good) {
                kxtest::clear_log();
                EXPECT_EQ(c.good(), -1) << c.name;
                EXPECT_TRUE(logged(c.name, "please firstly to call KX_GLOBAL_INIT()!\n")) << c.name;
            }
        }
    }
    EXPECT_TRUE(cloud.requests().empty());
    EXPECT_EQ(s.text(), "");
}

/* ---- URLs ------------------------------------------------------------------------ */

/* The queries' targets, and the upgrade event's form, with mark 100 on its socket. */
TEST_F(Log, RequestsGoToTheirDocumentedUrlsOnEveryScheme)
{
    auto list_call = [&](const KX_LOG_SERVICE_REQ_S *r, const char *d, FILE **f) { return KX_LOG_GET_SERVICELIST(r, d, &list, f); };
    const std::string list_url = "GetServiceList url is %s!\n", url = "url is %s.\n", event_path = "/upgrade/report_upgrade_event",
                      event_url = "[Report upgrade event]========== report upgrade event url is: %s. ============\n";
    struct Case { const char *name; Invoke run; std::string target, line, body = ""; };
    /* Absent optional texts go as empty values. */
    const Case cases[] = {
        {"KX_LOG_GET_SERVICELIST", on_scheme(kServiceReq, list_call),
         "/pds/getAppServiceList?appVersion=3.1.0&refAppKey=tv.appkey.7&version=7.0&format=0&sourceType=1&languageId=2"
         "&accessToken=AT-1", list_url},
        {"KX_LOG_GET_SERVICELIST", on_scheme(KX_LOG_SERVICE_REQ_S{0, 1, nullptr, "K", "T"}, list_call),
         "/pds/getAppServiceList?appVersion=&refAppKey=K&version=7.0&format=0&sourceType=1&languageId=1&accessToken=T",
         list_url},
        {"KX_LOG_QUERY_POLICY", on_scheme(kPolicyReq, KX_LOG_QUERY_POLICY),
         "/log/get_strategy?msgVersion=4&msgType=9&msgId=20&deviceType=5&version=7.0&format=0&sourceType=1&languageId=2"
         "&accessToken=AT-1", url},
        {"KX_LOG_QUERY_ALL_POLICY", on_scheme(kAllReq, KX_LOG_QUERY_ALL_POLICY),
         "/log/get_dotexception_strategy?policySeq=12&deviceId=DEV-1&appKey=1077&countryCode=DE&brandCode=BR&version=1"
         "&capabilityCode=CAP&TVOSversion=9.0", url},
        {"KX_LOG_QUERY_ALL_POLICY", on_scheme(KX_LOG_ALL_POLICY_REQ_S{0, 0, 0, 0, 4000000000u, 0, nullptr, nullptr, 0, "D", nullptr, nullptr, nullptr},
                                              KX_LOG_QUERY_ALL_POLICY),
         "/log/get_dotexception_strategy?policySeq=&deviceId=D&appKey=4000000000&countryCode=&brandCode=&version=1"
         "&capabilityCode=&TVOSversion=", url},
        {"KX_REPORT_UPGRADE_EVENT", on_scheme(kEvent, KX_REPORT_UPGRADE_EVENT), event_path, event_url,
         "deviceExtInfoStr=ext-info&eventCode=EV-42&accessToken=AT-1&version=V8.1&sourceType=3&languageId=1"},
        {"KX_REPORT_UPGRADE_EVENT", on_scheme(KX_UPGRADE_EVENT_S{"ext", 0, 4000000000u, 0, nullptr, "AT-2", "E2"}, KX_REPORT_UPGRADE_EVENT),
         event_path, event_url, "deviceExtInfoStr=ext&eventCode=E2&accessToken=AT-2&version=&sourceType=4000000000&languageId=0"},
    };
    for (uint32_t http : {0u, 1u, 7u}) {
        if (http == 1 && !cloud.http_ready())
            continue; /* reported as a skip below */
        const std::string base = http == 1 ? "http://127.0.0.1:80" : "https://" + domain;
        const std::string d = http == 1 ? cloud.http_domain() : domain;
        for (const Case &c : cases) {
            SCOPED_TRACE(fmt("%s over %u", c.name, http));
            fresh();
            Stream s;
            EXPECT_EQ(c.run(http, d.c_str(), &s.f), 0);
            const kxcloud::Request sent = cloud.last();
            EXPECT_EQ(sent.tls, http != 1);
            EXPECT_EQ(sent.method + " " + sent.target, (c.body.empty() ? "GET " : "POST ") + c.target);
            EXPECT_TRUE(info(c.name, fmt(c.line.c_str(), (base + c.target).c_str())));
            EXPECT_EQ(sent.body, c.body);
            EXPECT_EQ(kxtest::log_contains("Mark: 100"), !c.body.empty());
            EXPECT_TRUE(c.body.empty() || info(c.name, fmt("[Report upgrade event]========== \n post body is %s. \n u32PostBodySize = %zu. \n============\n",
                                                          c.body.c_str(), c.body.size() + 1)));
        }
    }
    if (!cloud.http_ready())
        GTEST_SKIP() << "the plain-HTTP cases need port 80 (scripts/in-netns.sh)";
}

/* ---- service list ------------------------------------------------------------------ */

TEST_F(Log, ServiceListFillsEightSlotsOfEachKindInDocumentOrder)
{
    /* Addresses "stem-1" to "stem-n", as texts or as the list carries them. */
    auto addresses = [](const char *stem, int n, bool encrypted = false) {
        std::vector<std::string> a;
        for (int i = 1; i <= n; ++i)
            a.push_back(encrypted ? kxcloud::log_service_address(fmt("%s-%d", stem, i)) : fmt("%s-%d", stem, i));
        return a;
    };
    const std::string long_address(300, 'x');
    /* The first block of a longer cipher text: its last byte (a 'b') is no padding. */
    const std::string undecryptable = kxcloud::log_service_address("https://policy-broken.example.invalid").substr(0, 32);
    /* The addresses on the wire, the slots expected, and how many are decrypted. */
    struct Case { const char *what; std::vector<std::string> policy_hex, upload_hex, policy, upload; int decrypted; };
    const std::vector<std::string> three = addresses("p", 3), three_sent = addresses("p", 3, true);
    const Case cases[] = {
        {"two and three", addresses("p", 2, true), addresses("u", 3, true), addresses("p", 2), addresses("u", 3), 5},
        {"more than eight", addresses("p", 10, true), addresses("u", 9, true), addresses("p", 8), addresses("u", 8), 16},
        {"undecryptable and empty", {three_sent[0], undecryptable, "", three_sent[2]}, {}, {three[0], "", "", three[2]},
         {}, 2},
        {"too long for a slot", {kxcloud::log_service_address(long_address)}, addresses("u", 1, true),
         {long_address.substr(0, 255)}, addresses("u", 1), 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        fresh();
        const std::string answer = kxcloud::log_service_list(c.policy_hex, c.upload_hex);
        cloud.reply("GET", "/pds/getAppServiceList", {200, kxcloud::signed_xml(answer)});
        memset(&list, 0x5A, sizeof list);
        Stream s;
        ASSERT_EQ(KX_LOG_GET_SERVICELIST(&kServiceReq, domain.c_str(), &list, &s.f), 0);
        EXPECT_EQ(s.text(), answer) << "verified: the stream holds the answer without its signature";
        ASSERT_EQ(list.u32PolicyServiceNum, c.policy.size());
        ASSERT_EQ(list.u32UploadServiceNum, c.upload.size());
        for (size_t i = 0; i < KX_LOG_SERVICE_SLOTS; ++i) {
            EXPECT_EQ(list.as8PolicyService[i], i < c.policy.size() ? c.policy[i] : "") << i;
            EXPECT_EQ(list.as8UploadService[i], i < c.upload.size() ? c.upload[i] : "") << i;
        }
        EXPECT_TRUE(info("KX_LOG_Parser_ServiceList", fmt("success to find %zu policy service.\n", c.policy.size())));
        EXPECT_TRUE(info("KX_LOG_Parser_ServiceList", fmt("success to find %zu upload service.\n", c.upload.size())));
        EXPECT_TRUE(info("KX_LOG_GET_SERVICELIST", "success to get service list!\n"));
        /* Beyond the eighth nothing is decrypted. */
        EXPECT_EQ(kxtest::log_count("Service Address is ", kxtest::kInfo), c.decrypted);
    }
}

/* ---- all policy ------------------------------------------------------------------------ */

/* A policy of L bytes that gzips to exactly L / 32 bytes (or that and one byte more). */
std::string policy_at_ratio(size_t extra)
{
    for (size_t length = 200; length < 200000; ++length) {
        std::string policy(length, 'p');
        if (kxcloud::gzip_bytes(policy).size() * 32 + extra == length)
            return policy;
    }
    return "";
}

TEST_F(Log, AllPolicyRewritesTheStreamWithTheWholePolicyOfAtMostThirtyTwoTimesItsSize)
{
    const std::string exact = policy_at_ratio(0), over = policy_at_ratio(1);
    ASSERT_FALSE(exact.empty() || over.empty());
    const std::string gz = kxcloud::gzip_bytes(exact);
    const std::string longer = "<?xml version=\"1.0\"?>\n<policy><dot module=\"epg\" level=\"info\"/>" + std::string(3000, ' ') + "</policy>";
    /* The stream is emptied before the policy goes in (shorter than the answer or not) and
     * rewound; a policy that is refused leaves it empty. */
    struct Case { const char *what; std::string gzip, policy; };
    const Case cases[] = {
        {"the sample policy", kxcloud::gzip_bytes(kxcloud::kLogPolicy), kxcloud::kLogPolicy},
        {"longer than its answer", kxcloud::gzip_bytes(longer), longer},
        {"exactly 32 times", gz, exact},
        {"32 times and one byte", kxcloud::gzip_bytes(over), ""},
        {"stream cut short", gz.substr(0, gz.size() / 2), ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        cloud.reply("GET", "/log/get_dotexception_strategy", {200, all_policy_answer("0", policy_content(c.gzip))});
        kxtest::clear_log();
        Stream s;
        EXPECT_EQ(KX_LOG_QUERY_ALL_POLICY(&kAllReq, domain.c_str(), &s.f), c.policy.empty() ? -1 : 0);
        EXPECT_EQ(ftell(s.f), 0L);
        EXPECT_EQ(s.text(), c.policy);
        EXPECT_TRUE(info("KX_LOG_DECRYPT_POLICYCONTENT", "policy content is " + kxtest::base64_encode(c.gzip) + ".\n"));
        EXPECT_EQ(logged("KX_LOG_UNZIP_POLICY", "failed to decompress policy.\n"), c.policy.empty());
        EXPECT_EQ(logged("KX_LOG_QUERY_ALL_POLICY", "Failed to unzip policy.\n"), c.policy.empty());
    }
}

/* ---- failed answers --------------------------------------------------------------------- */

TEST_F(Log, FailuresEndTheCallInItsOwnWords)
{
    struct Call { std::function<int32_t(FILE **)> run; const char *method, *path; };
    const char *d = domain.c_str();
    const Call service_list = {[&](FILE **f) { return KX_LOG_GET_SERVICELIST(&kServiceReq, d, &list, f); }, "GET", "/pds/getAppServiceList"};
    const Call strategy = {[&](FILE **f) { return KX_LOG_QUERY_POLICY(&kPolicyReq, d, f); }, "GET", "/log/get_strategy"};
    const Call all_policy = {[&](FILE **f) { return KX_LOG_QUERY_ALL_POLICY(&kAllReq, d, f); }, "GET", "/log/get_dotexception_strategy"};
    const Call event = {[&](FILE **f) { return KX_REPORT_UPGRADE_EVENT(&kEvent, d, f); }, "POST", "/upgrade/report_upgrade_event"};
    const Call event_nowhere = {[](FILE **f) { return KX_REPORT_UPGRADE_EVENT(&kEvent, nullptr, f); }, "POST", "/upgrade/report_upgrade_event"};
    /* Uploads to an address nobody serves, of nothing, and of 9000 bytes that do not compress
     * (they overflow their 9000-byte working buffer). */
    auto upload = [](std::string url, std::string log) {
        return Call{[url, log](FILE **f) {
                        KX_LOG_UPLOAD_S r = {0, 0, 0, 0, 0, "t", static_cast<uint32_t>(log.size()), log.data(), url.c_str()};
                        return KX_LOG_UPLOAD(&r, f);
                    }, "POST", "/log/upload"};
    };
    const Call upload_nowhere = upload("https://" + domain + "/log/nowhere", "log"), upload_nothing = upload(upload_url(false), ""),
               upload_noise = upload(upload_url(false), noise(9000));
    const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response>";
    const std::string list_answer = kxcloud::log_service_list({kxcloud::log_service_address("p")}, {});
    std::string strategy_altered = kxcloud::signed_xml(kxcloud::log_strategy_answer());
    strategy_altered[strategy_altered.find("3600")] = '9';
    std::string event_altered = kxcloud::signed_xml("<response><resultCode>0</resultCode></response>");
    event_altered[event_altered.find("0</resultCode>")] = '1';
    const std::string policy = policy_content(kxcloud::gzip_bytes(kxcloud::kLogPolicy));
    const std::string not_base64 = kxtest::hex_encode(kxtest::aes_encrypt('A', "#not base64#"));
    const std::string list_get = "KX_LOG_GET_SERVICELIST(): ", list_parser = "KX_LOG_Parser_ServiceList(): ",
                      all = "KX_LOG_QUERY_ALL_POLICY(): ", unzip = "KX_LOG_UNZIP_POLICY(): ", events = "KX_REPORT_UPGRADE_EVENT(): ",
                      tag = all + "Failed to find resultCode tag.\n", unzipped = all + "Failed to unzip policy.\n",
                      list_parse = list_get + "Failed to parse servicelist xml.\n";
    /* What the stream holds afterwards: nothing, the answer as it came, or (verified and parsed) not checked here. */
    enum Left { kEmpty, kAsSent, kUnchecked };
    /* lines: "call(): message" of the error class */
    struct Case { const char *what; const Call &call; kxcloud::Reply reply; std::vector<std::string> lines; Left left; };
    const Case cases[] = {
        {"service list not found", service_list, {404, ""}, {list_get + "Failed to call KX_SDK_HTTP_GET.\n"}, kEmpty},
        {"service list unsigned", service_list, {200, list_answer}, {list_get + "failed to  verify xml data!\n"}, kAsSent},
        {"service list result code 1", service_list, {200, kxcloud::signed_xml(head + "<resultCode>1</resultCode></response>")},
         {list_parser + "Failed to parse service list, ResultCode is 1.\n", list_parse}, kUnchecked},
        {"service list without result code", service_list, {200, kxcloud::signed_xml(head + "<appServiceList/></response>")},
         {list_parser + "Failed to find resultCode node in xml file.\n"}, kUnchecked},
        {"service list not XML", service_list, {200, kxcloud::signed_xml(head + "<resultCode>0</resultCode><a></response>")},
         {list_parser + "Failed to call xmlReadFd().\n", list_parse}, kUnchecked},
        /* the strategy's GET fails in the post routine's name */
        {"strategy not found", strategy, {404, ""}, {"KX_LOG_QUERY_POLICY(): Failed to call KX_SDK_POST.\n"}, kEmpty},
        {"strategy altered", strategy, {200, strategy_altered}, {"KX_LOG_QUERY_POLICY(): failed to  verify xml data!\n"}, kEmpty},
        /* the all-policy answer is judged by its result code alone, exactly "0"; the stream is emptied
           only once the content has decoded */
        {"all policy not found", all_policy, {404, ""}, {all + "Failed to call KX_SDK_HTTP_GET.\n"}, kEmpty},
        {"result code 00", all_policy, {200, all_policy_answer("00", policy)}, {tag}, kAsSent},
        {"result code 0 and a blank", all_policy, {200, all_policy_answer("0 ", policy)}, {tag}, kAsSent},
        {"no policy content", all_policy, {200, "<response><resultCode>0</resultCode></response>"},
         {unzip + "Failed to find policyContent tag.\n", unzipped}, kAsSent},
        {"no padding", all_policy, {200, all_policy_answer("0", policy.substr(0, 32))},
         {"KX_LOG_DECRYPT_POLICYCONTENT(): KX_SDK_AES_DECRYPT() fails!\n", unzip + "decrypt policy content failed.\n", unzipped}, kAsSent},
        {"not base64", all_policy, {200, all_policy_answer("0", not_base64)}, {unzip + "failed to decode policyContent string.\n", unzipped},
         kAsSent},
        {"event not found", event, {404, ""}, {events + "[Report upgrade event]Failed to call KX_SDK_HTTP_POST.\n"}, kEmpty},
        {"event altered", event, {200, event_altered}, {events + "[Report upgrade event]failed to verify xml data!\n"}, kEmpty},
        {"event without domain", event_nowhere, {200, ""}, {events + "[Report upgrade event] failed to call KX_SDK_CREATE_URL().\n"}, kEmpty},
        {"upload nowhere", upload_nowhere, {200, ""}, {"KX_LOG_UPLOAD(): Failed to call KX_SDK_HTTP_POST.\n"}, kEmpty},
        {"upload of nothing", upload_nothing, {200, ""}, {"KX_LOG_UPLOAD(): failed to Compress logdata.\n"}, kEmpty},
        {"upload too large", upload_noise, {200, ""}, {"KX_LOG_UPLOAD(): failed to Compress logdata.\n"}, kEmpty},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        cloud.reply(c.call.method, c.call.path, c.reply);
        kxtest::clear_log();
        Stream s;
        EXPECT_EQ(c.call.run(&s.f), -1);
        for (const std::string &line : c.lines)
            EXPECT_EQ(kxtest::log_count(line, kxtest::kError), 1) << line;
        if (c.left != kUnchecked) {
            EXPECT_EQ(s.text(), c.left == kEmpty ? "" : c.reply.body);
        }
    }
}

/* ---- uploads ------------------------------------------------------------------------------ */

TEST_F(Log, UploadPostsTheLogEncodedAsOneJsonMember)
{
    const std::string binary = noise(10) + '\0' + noise(289);
    struct Case { const char *what; uint32_t http; std::string log; };
    const Case cases[] = {
        {"20000 bytes", 0, [] { std::string t; while (t.size() < 20000) t += fmt("%05zu net: retry %zu\n", t.size(), t.size() % 7); return t.substr(0, 20000); }()},
        {"binary with zero bytes", 0, binary},
        {"incompressible, just fits 8192", 0, noise(8000)},
        {"plain http", 1, "short log over plain http\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        if (c.http == 1 && !cloud.http_ready())
            continue; /* reported as a skip below */
        fresh();
        const std::string url = upload_url(c.http == 1);
        const KX_LOG_UPLOAD_S r = {c.http, 0, 0, 0, 0, "player", static_cast<uint32_t>(c.log.size()), c.log.data(), url.c_str()};
        Stream s;
        ASSERT_EQ(KX_LOG_UPLOAD(&r, &s.f), 0);

        const kxcloud::Request sent = cloud.last();
        EXPECT_EQ(route(sent), std::string(c.http == 1 ? "http" : "https") + " POST /log/upload");
        EXPECT_EQ(sent.query, "device=DEV-1");
        EXPECT_EQ(sent.header("Content-Type"), "application/json");
        /* One member in cJSON's formatted print; its value URL-decoded, base64-decoded,
         * decrypted with pair B and gunzipped gives the log back. */
        const Members body = members(sent.body);
        ASSERT_EQ(body.size(), 1u);
        EXPECT_EQ(sent.body, "{\n\t\"logmsg\":\t\"" + body[0].second + "\"\n}");
        const std::string cipher = kxtest::base64_decode(kxtest::url_decode(body[0].second));
        EXPECT_EQ(kxcloud::gunzip_bytes(kxtest::aes_decrypt('B', cipher)), c.log);

        EXPECT_TRUE(info("KX_LOG_UPLOAD", fmt("log size is %zu, gzdata size is %zu.\n", c.log.size(), kxcloud::gzip_bytes(c.log).size())));
        EXPECT_TRUE(info("KX_LOG_UPLOAD", "upload url is [" + url + "].\n"));
        EXPECT_TRUE(info("KX_LOG_UPLOAD", "json buf: [" + sent.body + "]\n"));
        /* The log's bytes as text, never beyond them. */
        EXPECT_TRUE(info("KX_LOG_UPLOAD", "Upload LogData : [" + c.log.substr(0, c.log.find('\0')) + "].\n"));
    }
    if (!cloud.http_ready())
        GTEST_SKIP() << "the plain-HTTP case needs port 80 (scripts/in-netns.sh)";
}

TEST_F(Log, UploadExSendsTheEventOrTheLogForm)
{
    const std::string log = "tuner: lock lost on 602 MHz\n";
    const std::string padded = log + std::string(8192 - log.size(), '\0'); /* raw: the working buffer, zero-filled */
    const std::string gz_cipher = kxtest::aes_encrypt('B', kxcloud::gzip_bytes(log));
    const std::string raw_cipher = kxtest::aes_encrypt('B', padded);
    /* The log form's value is the cipher bytes read as a text: up to the first zero byte. */
    auto up_to_zero = [](const std::string &bytes) { return bytes.substr(0, bytes.find('\0')); };
    auto event = [](const std::string &cipher, const char *device) {
        return Members{{"message", kxtest::base64_encode(cipher)}, {"deviceid", device}, {"eventcode", "E7"},
                       {"errorcode", "0x1F"}, {"filename", "tuner.log"}};
    };
    struct Case { const char *what; uint32_t compress, form; const char *device; Members body; size_t packed; };
    const Case cases[] = {
        {"event, gzip", 1, KX_LOG_FORM_EVENT, "DEV-1", event(gz_cipher, "DEV-1"), kxcloud::gzip_bytes(log).size()},
        {"event, raw, no device", KX_LOG_COMPRESS_RAW, KX_LOG_FORM_EVENT, nullptr, event(raw_cipher, ""), 8192},
        {"log, gzip", 0, 0, "DEV-1", {{"logmsg", up_to_zero(gz_cipher)}}, kxcloud::gzip_bytes(log).size()},
        {"log, raw", KX_LOG_COMPRESS_RAW, 3, "DEV-1", {{"logmsg", up_to_zero(raw_cipher)}}, 8192},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        fresh();
        const std::string url = upload_url(false);
        const KX_LOG_UPLOAD_EX_S r = {0, c.compress, c.form, 0, 0, c.device, "E7", "0x1F", "tuner.log", 0, "tuner",
                                      static_cast<uint32_t>(log.size()), log.data(), url.c_str()};
        Stream s;
        ASSERT_EQ(KX_LOG_UPLOAD_EX(&r, &s.f), 0);
        const kxcloud::Request sent = cloud.last();
        EXPECT_EQ(members(sent.body), c.body);
        EXPECT_EQ(sent.body.rfind("{\"" + c.body.front().first + "\":\"", 0), 0u) << "printed unformatted";
        EXPECT_EQ(sent.header("Content-Type"), "application/json");
        EXPECT_EQ(info("KX_LOG_UPLOAD_EX", "raw data, no compress.\n"), c.compress == KX_LOG_COMPRESS_RAW);
        EXPECT_TRUE(info("KX_LOG_UPLOAD_EX", fmt("ps8EncryptData size is %zu, gzdata size is %zu.\n", (c.packed / 16 + 1) * 16, c.packed)));
        EXPECT_EQ(info("KX_LOG_UPLOAD_EX", "create json object.\n"), c.form == KX_LOG_FORM_EVENT);
    }
}

}  // namespace
