/*
 * Account and messaging calls against the local cloud: the exact texts on the
 * wire (rebuilt from the record and the nonce and time the call sent), the
 * request signature opened with the server's private key, the encrypted
 * secret, where the verified answer lands, and how each call refuses its
 * arguments. Answers that fail verification (tampered, unsigned, error
 * statuses, cut off) and what each call leaves in its file or stream then
 * are the hostile-server matrix's (reliability/hostile_test.cpp), which runs
 * them against every call; every call over plain HTTP and every call before
 * initialisation are reliability_calls_test's.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "device_services.h"
#include "kx_cloud_openapi.h"
#include "suite_text.h"
#include "test_crypto.h"

namespace {

using kxtest::fmt;
using kxtest::Stream;
using kxtest::file_text;
using kxtest::logged;
using kxtest::route;


/* appSecret opened independently with pair A; "" when it does not decrypt. */
std::string open_secret(const std::string &hex) { return kxtest::aes_decrypt('A', kxtest::hex_decode(hex)); }

/* The per-request values a call chose, checked for freshness as they are read. */
struct Sent { std::string rand, time, sign, secret; };

Sent sent_values(std::map<std::string, std::string> pairs)
{
    Sent s{pairs["randStr"], pairs["timeStamp"], pairs["sign"], pairs["appSecret"]};
    EXPECT_EQ(s.rand.size(), 32u);
    EXPECT_EQ(s.rand.find_first_not_of("0123456789"), std::string::npos) << s.rand;
    EXPECT_NEAR(std::stoll(s.time), static_cast<long long>(std::time(nullptr)), 5);
    return s;
}

/* `text` with {rand}, {time} and {secret} replaced by what the call sent. */
std::string fill(std::string text, const Sent &s)
{
    const std::pair<const char *, std::string> values[] = {{"{rand}", s.rand}, {"{time}", s.time}, {"{secret}", s.secret}};
    for (const auto &v : values)
        for (size_t at; (at = text.find(v.first)) != std::string::npos;)
            text.replace(at, strlen(v.first), v.second);
    return text;
}

void expect_signs(const Sent &sent, const std::string &signed_text)
{
    EXPECT_EQ(sent.sign.find_first_of("+/="), std::string::npos);
    EXPECT_EQ(kxtest::open_request_signature(sent.sign), kxtest::md5_raw(signed_text)) << signed_text;
}

constexpr const char *kDeviceId = "8610030090000010000006101A2B3C4D5E"; /* 24 + serial */
constexpr const char *kSerial = "1A2B3C4D5E";

const KX_AUTH_AUTHENTICATE_S kAuth = {0, 2, 1, kDeviceId, "tv.appkey.7", "s3cr3t-Ref"};
const KX_DEV_SERIAL_S kDevSerial = {0, "FEAT-1", "flag-2", "OID-3", "AT-9"};
const KX_AUTHORIZATION_INFO_S kAuthInfo = {0, 2, "client-7", 4, "AT-1", "SER-1"};
const KX_REFRESH_TOKEN_S kRefresh = {0, "RT-4", "tv.appkey.7", "refresh-Secret", 77, "SER-1", "DEV-1"};
const KX_CODE_AUTH_URL_S kCode = {0, "ST", "BR", "alexa", 88, "tv.appkey.7", "code-secret", "AT-1", "SER-1", "DEV-1"};
const KX_CUSTOMER_INFO_S kCustomer = {0, "basic", "AT-1", "SER-1", "DEV-1"};
const KX_MSG_INFO_S kMsg = {0, 20, 0, "m-1,m-2", "AT-1", "SER-1", "DEV-1"};
const KX_TOKEN_DEVICE_S kToken = {0, "AT-1", "SER-1", "DEV-1"};

/* ---- the calls that answer into a buffer and keep the raw answer in a file ---- */

struct JsonCall {
    const char *name, *path, *file, *method;
    std::function<int32_t(const char *domain, char *out)> invoke;
    /* signed text ("": unsigned) and the sent text without "&sign=" ("": the signed text) */
    std::string signed_text, sent_text;
    bool verified;               /* the answer reaches the buffer without its signature */
    std::string secret = "";     /* what appSecret decrypts to ("": none sent) */
    const char *creat = nullptr; /* the file failure's message when it is not the usual one */
    const char *banner = nullptr; /* the call whose input banner it borrows */
};

/* Calls `fn` with `record`. */
template <typename R, typename F>
std::function<int32_t(const char *, char *)> with(const R &record, F fn)
{
    return [record, fn](const char *d, char *out) { return fn(&record, d, out); };
}

const std::string kTokenText = "accessToken=AT-1&devSerial=SER-1&deviceId=DEV-1&format=1&languageId=1&randStr={rand}"
                               "&sourceType=1&timeStamp={time}&version=7.0";

std::vector<JsonCall> json_calls()
{
    return {
        {"KX_GET_AUTHORIZATION_INFO", "/aaa/get_authorizationinfo", "/tmp/authorizationinfo.json", "GET",
         with(kAuthInfo, KX_GET_AUTHORIZATION_INFO), /* the leading "?" is signed */
         "?accessToken=AT-1&client_id=client-7&devSerial=SER-1&format=2&languageId=4&randStr={rand}&sourceType=1"
         "&timeStamp={time}&version=7.0",
         "", false, "", "failed to creat /tmp/authorizationinfo.json! \n", "KX_GET_CUSTOMER_INFO"},
        {"KX_REFRESH_TOKEN", "/aaa/sign_in_refreshtoken", "/tmp/refreshtoken.json", "POST",
         with(kRefresh, KX_REFRESH_TOKEN),
         "appKey=tv.appkey.7&appSecret={secret}&devSerial=SER-1&deviceId=DEV-1&format=1&languageId=1&randStr={rand}"
         "&refreshToken=RT-4&sourceType=1&timeStamp={time}&version=7.0",
         "", true, "refresh-Secret"},
        {"KX_SIGN_OUT", "/aaa/sign_out", "/tmp/signout.json", "POST", with(kToken, KX_SIGN_OUT), kTokenText, "",
         true},
        {"KX_SIGN_INFO_BY_CODE", "/aaa/get_signinfo_by_code", "/tmp/signinfo.json", "POST",
         with(kToken, KX_SIGN_INFO_BY_CODE), kTokenText, "", true},
        {"KX_GET_CODE_AUTH_URL", "/voiceservice/get_codeauth_url", "/tmp/getauthurl.json", "POST",
         with(kCode, KX_GET_CODE_AUTH_URL),
         "accessToken=AT-1&appSecret={secret}&appkey=tv.appkey.7&brandCode=BR&devSerial=SER-1&deviceId=DEV-1&format=1"
         "&languageId=1&randStr={rand}&sourceType=1&statCode=ST&timeStamp={time}&version=1.1&vsType=alexa",
         "", true, "code-secret"},
        {"KX_GET_CUSTOMER_INFO", "/cam/user/get_customer_info", "/tmp/customerinfo.json", "GET",
         with(kCustomer, KX_GET_CUSTOMER_INFO), "?" + kTokenText,
         "?accessToken=AT-1&devSerial=SER-1&deviceId=DEV-1&format=1&languageId=1&randStr={rand}&queryType=basic"
         "&sourceType=1&timeStamp={time}&version=7.0",
         false},
        {"KX_GET_SYS_CONFIG_INFO", "/message/get_msg_configs", "/tmp/sysconfigs.json", "GET",
         with(kToken, KX_GET_SYS_CONFIG_INFO), "", "?" + kTokenText, true},
        {"KX_GET_MSG_INFO", "/message/get_msg", "/tmp/sysmsginfo.json", "POST", with(kMsg, KX_GET_MSG_INFO),
         "accessToken=AT-1&devSerial=SER-1&deviceId=DEV-1&format=1&languageId=1&msgList=m-1,m-2&pageSize=20"
         "&randStr={rand}&realtimeFlag=0&sourceType=1&timeStamp={time}&version=7.0",
         "", true, "", nullptr, "KX_GET_SYS_CONFIG_INFO"},
        {"KX_GET_MSG_CHANNEL_INFO", "/message/get_msg_channel", "/tmp/sysmsgchannel.json", "GET",
         with(kToken, KX_GET_MSG_CHANNEL_INFO), "?" + kTokenText, "", true, "", nullptr, "KX_GET_SYS_CONFIG_INFO"},
    };
}

class Account : public kxtest::CloudSuite<kxcloud::register_device_services> {
protected:
    char result[16384] = {};
};

/* ---- every call: refusals before any traffic ---------------------------------- */

TEST_F(Account, NullRecordsOutputsAndFieldsAreInvalidArgsBeforeAnyTraffic)
{
    Stream stream;
    FILE *no_stream = nullptr;
    const char *d = domain.c_str();
    KX_TOKEN_DEVICE_S token = kToken;
    token.psDevSerial = nullptr;
    const std::pair<const char *, std::function<int32_t()>> calls[] = {
        {"KX_AUTH_AUTHENTICATE", [&] { return KX_AUTH_AUTHENTICATE(nullptr, d, &stream.f); }},
        {"KX_AUTH_AUTHENTICATE", [&] { return KX_AUTH_AUTHENTICATE(&kAuth, d, nullptr); }},
        {"KX_AUTH_AUTHENTICATE", [&] { auto r = kAuth; r.ps8AppIndex = nullptr; return KX_AUTH_AUTHENTICATE(&r, d, &stream.f); }},
        {"KX_AUTH_AUTHENTICATE", [&] { auto r = kAuth; r.ps8AppReference = nullptr; return KX_AUTH_AUTHENTICATE(&r, d, &stream.f); }},
        {"KX_AUTH_AUTHENTICATE", [&] { return KX_AUTH_AUTHENTICATE(&kAuth, d, &no_stream); }},
        {"KX_GET_DEV_SERIAL", [&] { auto r = kDevSerial; r.psOriginalId = nullptr; return KX_GET_DEV_SERIAL(&r, d, &stream.f); }},
        {"KX_GET_AUTHORIZATION_INFO", [&] { auto r = kAuthInfo; r.ps8ClientId = nullptr; return KX_GET_AUTHORIZATION_INFO(&r, d, result); }},
        {"KX_REFRESH_TOKEN", [&] { auto r = kRefresh; r.ps8AppReference = nullptr; return KX_REFRESH_TOKEN(&r, d, result); }},
        {"KX_SIGN_OUT", [&] { return KX_SIGN_OUT(&token, d, result); }},
        {"KX_SIGN_OUT", [&] { return KX_SIGN_OUT(&kToken, d, nullptr); }},
        {"KX_SIGN_INFO_BY_CODE", [&] { return KX_SIGN_INFO_BY_CODE(nullptr, d, result); }},
        {"KX_GET_CODE_AUTH_URL", [&] { auto r = kCode; r.ps8VsType = nullptr; return KX_GET_CODE_AUTH_URL(&r, d, result); }},
        {"KX_GET_CUSTOMER_INFO", [&] { auto r = kCustomer; r.ps8QueryType = nullptr; return KX_GET_CUSTOMER_INFO(&r, d, result); }},
        {"KX_GET_SYS_CONFIG_INFO", [&] { return KX_GET_SYS_CONFIG_INFO(&token, d, result); }},
        {"KX_GET_MSG_INFO", [&] { auto r = kMsg; r.psMsgList = nullptr; return KX_GET_MSG_INFO(&r, d, result); }},
        {"KX_GET_MSG_CHANNEL_INFO", [&] { return KX_GET_MSG_CHANNEL_INFO(&token, d, result); }},
    };
    for (const auto &c : calls) {
        kxtest::clear_log();
        EXPECT_EQ(c.second(), -1) << c.first;
        EXPECT_TRUE(logged(c.first, "invalid arg!\n")) << c.first;
        EXPECT_FALSE(kxtest::log_contains("Get ps8Url")) << c.first;
    }
    EXPECT_TRUE(cloud.requests().empty());
}

/* ---- KX_AUTH_AUTHENTICATE --------------------------------------------------------- */

TEST_F(Account, SignInPostsTheDocumentedBodyAndVerifiesTheXmlIntoTheStream)
{
    /* The secret opens only when padded as documented: 15 characters to one
     * block, 16 to two (a whole block of 16s). */
    struct Case { const char *device_id, *secret, *serial; uint32_t language, http; } cases[] = {
        {kDeviceId, "s3cr3t-Ref", kSerial, 1, 0},
        {"861003009000001000000610", "0123456789abcde", "", 0, 0},   /* 24 characters: no serial */
        {kDeviceId, "0123456789abcdef", kSerial, 999, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.secret);
        if (c.http && !cloud.http_ready())
            continue; /* port 80 needs the private network namespace */
        fresh();
        KX_AUTH_AUTHENTICATE_S r = {c.http, 5, c.language, c.device_id, "tv.appkey.7", c.secret};
        Stream stream;
        ASSERT_EQ(KX_AUTH_AUTHENTICATE(&r, (c.http ? cloud.http_domain() : domain).c_str(), &stream.f), 0);

        const kxcloud::Request sent = cloud.last();
        EXPECT_EQ(route(sent), c.http ? "http POST /aaa/sign_in" : "https POST /aaa/sign_in");
        const Sent s = sent_values(sent.form());
        EXPECT_EQ(s.secret.find_first_not_of("0123456789ABCDEF"), std::string::npos);
        EXPECT_EQ(open_secret(s.secret), c.secret);
        /* The body carries four empty keys that are not signed. */
        const std::string head = fmt("appKey=tv.appkey.7&appSecret={secret}&devSerial=%s&deviceId=%s&format=0"
                                     "&languageId=%u", c.serial, c.device_id, c.language);
        EXPECT_EQ(sent.body, fill(head + "&loginName=&qrCodeFlag=&randStr={rand}&serviceType=9&signature=&sourceType=1"
                                         "&timeStamp={time}&version=7.0&webFlag=&sign=", s) + s.sign);
        expect_signs(s, fill(head + "&randStr={rand}&serviceType=9&sourceType=1&timeStamp={time}&version=7.0", s));
        EXPECT_EQ(stream.text(), kxcloud::device_service_answer("/aaa/sign_in"));

        EXPECT_TRUE(kxtest::log_contains("Mark: 100"));
        EXPECT_TRUE(logged("KX_AUTH_AUTHENTICATE", fmt("    psDevSerial:         %s\n", c.serial), kxtest::kInfo));
        EXPECT_TRUE(logged("KX_AUTH_AUTHENTICATE", "=================KX_AUTH_AUTHENTICATE_EX end =================\n",
                           kxtest::kInfo));
        const size_t length = strlen("tv.appkey.7") + s.secret.size() + strlen(c.serial) + strlen(c.device_id) +
                              fmt("%u", c.language).size() + 32 + s.time.size() + strlen(c.secret) + 119;
        EXPECT_TRUE(logged("KX_AUTH_AUTHENTICATE", fmt("KxSDK2.0 the size of ps8PostBody is : %zu\n", length + 1)));
    }
}

/* ---- KX_GET_DEV_SERIAL ------------------------------------------------------------ */

TEST_F(Account, DeviceSerialSignsOnlyTheGivenOptionalKeys)
{
    const std::string long_token(1500, 't');
    /* body_head precedes dev_flag in the body, signed_token in the signed text, signed_original randStr there */
    struct Case { const char *token, *original; std::string body_head, signed_token, signed_original; uint32_t http; } cases[] = {
        {nullptr, "", "", "", "", 0},
        {"", "", "accessToken=&", "", "", 0},
        {"AT-9", "OID-3", "accessToken=AT-9&", "accessToken=AT-9&", "originalId=OID-3&", 1},
        /* the 1024-byte prefix keeps 1023 characters: the token is cut, the "&" lost */
        {long_token.c_str(), "OID-3", "accessToken=" + long_token + "&", "accessToken=" + long_token.substr(0, 1011),
         "originalId=OID-3&", 0},
    };
    for (const Case &c : cases) {
        if (c.http && !cloud.http_ready())
            continue;
        fresh();
        KX_DEV_SERIAL_S r = {c.http, "FEAT-1", "flag-2", c.original, c.token};
        Stream stream;
        EXPECT_EQ(KX_GET_DEV_SERIAL(&r, (c.http ? cloud.http_domain() : domain).c_str(), &stream.f), 0);
        const kxcloud::Request sent = cloud.last();
        const Sent s = sent_values(sent.form());
        EXPECT_EQ(sent.body, fill(fmt("%sdev_flag=flag-2&featureCode=FEAT-1&format=0&languageId=0&originalId=%s"
                                      "&randStr={rand}&timeStamp={time}&version=7.0&sign=",
                                      c.body_head.c_str(), c.original), s) + s.sign);
        expect_signs(s, fill(fmt("%sdev_flag=flag-2&featureCode=FEAT-1&format=0&languageId=0&%srandStr={rand}"
                                 "&timeStamp={time}&version=7.0", c.signed_token.c_str(), c.signed_original.c_str()), s));
        EXPECT_EQ(stream.text(), kxcloud::device_service_answer("/aaa/get_dev_serial"));
        EXPECT_TRUE(kxtest::log_contains("Mark: 100"));
        EXPECT_TRUE(logged("KX_GET_DEV_SERIAL", "KX_SDK_HTTPS_POST: 0\n"));
        EXPECT_EQ(kxtest::log_contains("    psAccessToken: "), c.token != nullptr);
    }
}

/* ---- the buffer calls: one table ------------------------------------------------- */

TEST_F(Account, BufferCallsSendTheirDocumentedTextsAndDeliverTheVerifiedAnswer)
{
    for (const JsonCall &c : json_calls()) {
        SCOPED_TRACE(c.name);
        fresh();
        memset(result, 0, sizeof result);
        unlink(c.file);
        ASSERT_EQ(c.invoke(domain.c_str(), result), 0);

        const kxcloud::Request sent = cloud.last();
        EXPECT_EQ(route(sent), std::string("https ") + c.method + " " + c.path);
        const bool get = std::string(c.method) == "GET";
        const std::string wire = get ? "?" + sent.query : sent.body;
        const Sent s = sent_values(get ? sent.query_form() : sent.form());
        EXPECT_EQ(open_secret(s.secret), c.secret);
        const std::string text = fill(c.sent_text.empty() ? c.signed_text : c.sent_text, s);
        EXPECT_EQ(wire, text + (c.signed_text.empty() ? "" : "&sign=" + s.sign));
        if (!c.signed_text.empty())
            expect_signs(s, fill(c.signed_text, s));
        if (get) {
            EXPECT_TRUE(logged(c.name, "ps8GetUrl: https://" + domain + sent.target + "\n", kxtest::kInfo));
        }
        EXPECT_FALSE(kxtest::log_contains("Mark: ")) << "only sign-in and device serial mark their socket";
        EXPECT_TRUE(logged(c.name, fmt("=================%s input param=================\n", c.banner ? c.banner : c.name),
                           kxtest::kInfo));

        const std::string answer = kxcloud::device_service_answer(c.path);
        if (c.verified)
            EXPECT_EQ(std::string(result), answer);
        else /* re-printed without a signature check: the member is still there */
            EXPECT_NE(strstr(result, "signatureServer"), nullptr);
        EXPECT_EQ(file_text(c.file), kxcloud::signed_json(answer)) << "the raw answer stays on disk";

        /* An answer file it cannot create: its own message, before any traffic. */
        fresh();
        unlink(c.file);
        ASSERT_EQ(mkdir(c.file, 0700), 0) << c.file;
        EXPECT_EQ(c.invoke(domain.c_str(), result), -1);
        rmdir(c.file);
        EXPECT_TRUE(logged(c.name, c.creat ? c.creat : fmt("failed to creat !%s \n", c.file)));
        EXPECT_TRUE(cloud.requests().empty());
    }
}

TEST_F(Account, MessageNumbersTravelThroughFourByteTexts)
{
    /* 1234 is cut to "123". */
    KX_MSG_INFO_S msg = kMsg;
    msg.u32PageSize = 1234;
    ASSERT_EQ(KX_GET_MSG_INFO(&msg, domain.c_str(), result), 0);
    EXPECT_EQ(cloud.last().form()["pageSize"], "123");
    const std::string body = cloud.last().body;
    EXPECT_TRUE(logged("KX_GET_MSG_INFO", "postbody : " + body + "\n", kxtest::kInfo));
    /* allocation = parameter text + signature + 7 = the body ("&sign=" is 6) + 1 */
    EXPECT_TRUE(logged("KX_GET_MSG_INFO", fmt("malloc size: %zu strlen : %zu\n", body.size() + 1, body.size()),
                       kxtest::kInfo));
}

TEST_F(Account, UnreachableCloudGivesAFailedVerification)
{
    EXPECT_EQ(KX_SIGN_OUT(&kToken, "127.0.0.1:1", result), -1);
    EXPECT_TRUE(logged("KX_SIGN_OUT", "failed to verify json data!\n"));
    EXPECT_EQ(KX_SIGN_OUT(&kToken, nullptr, result), -1);
    EXPECT_TRUE(logged("KX_SIGN_OUT", "failed to call KX_SDK_CREATE_URL_NA().\n"));
}

}  // namespace
