/*
 * Account and messaging calls against the local cloud: the exact texts on the
 * wire (rebuilt from the record and the nonce and time the call sent), the
 * request signature opened with the server's private key, the encrypted
 * secret, where the verified answer lands, and how each call refuses.
 */
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "device_services.h"
#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_cloud.h"
#include "test_crypto.h"

namespace {

using kxcloud::Cloud;

std::string fmt(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *format, ...)
{
    char text[8192];
    va_list ap;
    va_start(ap, format);
    vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    return text;
}

std::string file_text(const char *path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

std::string stream_text(FILE *stream)
{
    std::string text;
    rewind(stream);
    int c;
    while ((c = fgetc(stream)) != EOF)
        text.push_back(static_cast<char>(c));
    return text;
}

std::string hex_to_bytes(const std::string &hex)
{
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

/* appSecret opened independently with pair A (AES-128-CBC, PKCS #7 checked
 * by OpenSSL); "" when it does not decrypt. */
std::string open_secret(const std::string &hex)
{
    const std::string key = hex_to_bytes(KX_TEST_AES_A_KEY), iv = hex_to_bytes(KX_TEST_AES_A_IV);
    const std::string cipher = hex_to_bytes(hex);
    std::string plain(cipher.size() + 16, '\0');
    int n = 0, tail = 0;
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    EVP_DecryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, reinterpret_cast<const unsigned char *>(key.data()),
                       reinterpret_cast<const unsigned char *>(iv.data()));
    EVP_DecryptUpdate(ctx, reinterpret_cast<unsigned char *>(&plain[0]), &n,
                      reinterpret_cast<const unsigned char *>(cipher.data()), static_cast<int>(cipher.size()));
    const int ok = EVP_DecryptFinal_ex(ctx, reinterpret_cast<unsigned char *>(&plain[n]), &tail);
    EVP_CIPHER_CTX_free(ctx);
    return ok == 1 ? plain.substr(0, static_cast<size_t>(n + tail)) : "";
}

/* The per-request values a call chose: nonce, time, signature. */
struct Sent {
    std::string rand, time, sign;
    explicit Sent(const std::map<std::string, std::string> &pairs)
    {
        auto get = [&](const char *key) { auto it = pairs.find(key); return it == pairs.end() ? "" : it->second; };
        rand = get("randStr");
        time = get("timeStamp");
        sign = get("sign");
    }
};

void expect_fresh(const Sent &sent)
{
    EXPECT_EQ(sent.rand.size(), 32u);
    EXPECT_EQ(sent.rand.find_first_not_of("0123456789"), std::string::npos) << sent.rand;
    EXPECT_NEAR(std::stoll(sent.time), static_cast<long long>(std::time(nullptr)), 5);
}

void expect_signs(const Sent &sent, const std::string &signed_text)
{
    EXPECT_EQ(sent.sign.find_first_of("+/="), std::string::npos);
    EXPECT_EQ(kxtest::open_request_signature(sent.sign), kxtest::md5_raw(signed_text)) << signed_text;
}

/* A line of `call` whose message is exactly `message`. */
bool logged(const std::string &call, const std::string &message, unsigned level = kxtest::kError)
{
    for (const kxtest::LogLine &line : kxtest::log_lines()) {
        const std::string head = call + "(): ";
        const size_t at = line.text.find(head);
        if (line.level == level && at != std::string::npos && line.text.substr(at + head.size()) == message)
            return true;
    }
    return false;
}

constexpr const char *kDeviceId = "8610030090000010000006101A2B3C4D5E"; /* 24 + serial */
constexpr const char *kSerial = "1A2B3C4D5E";

class Account : public ::testing::Test {
protected:
    Cloud &cloud = Cloud::shared();
    std::string domain;
    char result[16384] = {};

    void SetUp() override
    {
        ASSERT_EQ(KX_GLOBAL_INIT("127.0.0.1"), 0);
        cloud.reset();
        kxcloud::register_device_services(cloud);
        domain = cloud.https_domain();
        kxtest::clear_log();
    }
    void use_plain()
    {
        if (!cloud.http_ready())
            GTEST_SKIP() << "port 80 needs the private network namespace";
        domain = cloud.http_domain();
    }
};

/* ---- every call: refusals before any traffic ---------------------------------- */

struct Refusal {
    const char *call;
    std::function<int32_t(const char *domain, FILE **stream, char *buf)> invoke;
};

KX_AUTH_AUTHENTICATE_S auth_record()
{
    return {0, 2, 1, kDeviceId, "tv.appkey.7", "s3cr3t-Ref"};
}
KX_TOKEN_DEVICE_S token_record()
{
    return {0, "AT-1", "SER-1", "DEV-1"};
}

std::vector<Refusal> refusals()
{
    static const KX_DEV_SERIAL_S serial = {0, "FC", "DF", "", nullptr};
    static const KX_AUTHORIZATION_INFO_S info = {0, 1, "client", 1, "AT", "SER"};
    static const KX_REFRESH_TOKEN_S refresh = {0, "RT", "key", "secret", 0, "SER", "DEV"};
    static const KX_CODE_AUTH_URL_S code = {0, "stat", "brand", "vs", 0, "key", "secret", "AT", "SER", "DEV"};
    static const KX_CUSTOMER_INFO_S customer = {0, "all", "AT", "SER", "DEV"};
    static const KX_MSG_INFO_S msg = {0, 20, 0, "list", "AT", "SER", "DEV"};
    static const KX_TOKEN_DEVICE_S token = token_record();
    return {
        {"KX_AUTH_AUTHENTICATE", [](const char *d, FILE **s, char *) { auto r = auth_record(); return KX_AUTH_AUTHENTICATE(&r, d, s); }},
        {"KX_GET_DEV_SERIAL", [](const char *d, FILE **s, char *) { return KX_GET_DEV_SERIAL(&serial, d, s); }},
        {"KX_GET_AUTHORIZATION_INFO", [](const char *d, FILE **, char *b) { return KX_GET_AUTHORIZATION_INFO(&info, d, b); }},
        {"KX_REFRESH_TOKEN", [](const char *d, FILE **, char *b) { return KX_REFRESH_TOKEN(&refresh, d, b); }},
        {"KX_SIGN_OUT", [](const char *d, FILE **, char *b) { return KX_SIGN_OUT(&token, d, b); }},
        {"KX_SIGN_INFO_BY_CODE", [](const char *d, FILE **, char *b) { return KX_SIGN_INFO_BY_CODE(&token, d, b); }},
        {"KX_GET_CODE_AUTH_URL", [](const char *d, FILE **, char *b) { return KX_GET_CODE_AUTH_URL(&code, d, b); }},
        {"KX_GET_CUSTOMER_INFO", [](const char *d, FILE **, char *b) { return KX_GET_CUSTOMER_INFO(&customer, d, b); }},
        {"KX_GET_SYS_CONFIG_INFO", [](const char *d, FILE **, char *b) { return KX_GET_SYS_CONFIG_INFO(&token, d, b); }},
        {"KX_GET_MSG_INFO", [](const char *d, FILE **, char *b) { return KX_GET_MSG_INFO(&msg, d, b); }},
        {"KX_GET_MSG_CHANNEL_INFO", [](const char *d, FILE **, char *b) { return KX_GET_MSG_CHANNEL_INFO(&token, d, b); }},
    };
}

TEST_F(Account, EveryCallRefusesBeforeInitialisation)
{
    KX_GLOBAL_DEINIT();
    FILE *stream = tmpfile();
    for (const Refusal &r : refusals()) {
        kxtest::clear_log();
        EXPECT_EQ(r.invoke(domain.c_str(), &stream, result), -1) << r.call;
        EXPECT_TRUE(logged(r.call, "please firstly to call KX_GLOBAL_INIT()!\n")) << r.call;
        EXPECT_FALSE(kxtest::log_contains("invalid arg!")) << r.call;
    }
    fclose(stream);
    EXPECT_TRUE(cloud.requests().empty());
}

TEST_F(Account, NullRecordsOutputsAndFieldsAreInvalidArgs)
{
    FILE *stream = tmpfile();
    FILE *no_stream = nullptr;
    auto auth = auth_record();
    KX_DEV_SERIAL_S serial = {0, "FC", "DF", nullptr, "AT"};
    KX_AUTHORIZATION_INFO_S info = {0, 1, nullptr, 1, "AT", "SER"};
    KX_REFRESH_TOKEN_S refresh = {0, "RT", "key", nullptr, 0, "SER", "DEV"};
    KX_CODE_AUTH_URL_S code = {0, "stat", "brand", nullptr, 0, "key", "secret", "AT", "SER", "DEV"};
    KX_CUSTOMER_INFO_S customer = {0, nullptr, "AT", "SER", "DEV"};
    KX_MSG_INFO_S msg = {0, 20, 0, nullptr, "AT", "SER", "DEV"};
    KX_TOKEN_DEVICE_S token = {0, "AT", nullptr, "DEV"};
    const char *d = domain.c_str();
    const std::vector<std::pair<const char *, std::function<int32_t()>>> cases = {
        {"KX_AUTH_AUTHENTICATE", [&] { return KX_AUTH_AUTHENTICATE(nullptr, d, &stream); }},
        {"KX_AUTH_AUTHENTICATE", [&] { return KX_AUTH_AUTHENTICATE(&auth, d, nullptr); }},
        {"KX_AUTH_AUTHENTICATE", [&] { auto r = auth; r.ps8AppIndex = nullptr; return KX_AUTH_AUTHENTICATE(&r, d, &stream); }},
        {"KX_AUTH_AUTHENTICATE", [&] { auto r = auth; r.ps8AppReference = nullptr; return KX_AUTH_AUTHENTICATE(&r, d, &stream); }},
        {"KX_AUTH_AUTHENTICATE", [&] { return KX_AUTH_AUTHENTICATE(&auth, d, &no_stream); }},
        {"KX_GET_DEV_SERIAL", [&] { return KX_GET_DEV_SERIAL(&serial, d, &stream); }},
        {"KX_GET_DEV_SERIAL", [&] { return KX_GET_DEV_SERIAL(nullptr, d, &stream); }},
        {"KX_GET_AUTHORIZATION_INFO", [&] { return KX_GET_AUTHORIZATION_INFO(&info, d, result); }},
        {"KX_REFRESH_TOKEN", [&] { return KX_REFRESH_TOKEN(&refresh, d, result); }},
        {"KX_SIGN_OUT", [&] { return KX_SIGN_OUT(&token, d, result); }},
        {"KX_SIGN_OUT", [&] { auto t = token_record(); return KX_SIGN_OUT(&t, d, nullptr); }},
        {"KX_SIGN_INFO_BY_CODE", [&] { return KX_SIGN_INFO_BY_CODE(nullptr, d, result); }},
        {"KX_GET_CODE_AUTH_URL", [&] { return KX_GET_CODE_AUTH_URL(&code, d, result); }},
        {"KX_GET_CUSTOMER_INFO", [&] { return KX_GET_CUSTOMER_INFO(&customer, d, result); }},
        {"KX_GET_SYS_CONFIG_INFO", [&] { return KX_GET_SYS_CONFIG_INFO(&token, d, result); }},
        {"KX_GET_MSG_INFO", [&] { return KX_GET_MSG_INFO(&msg, d, result); }},
        {"KX_GET_MSG_CHANNEL_INFO", [&] { return KX_GET_MSG_CHANNEL_INFO(&token, d, result); }},
    };
    for (const auto &c : cases) {
        kxtest::clear_log();
        EXPECT_EQ(c.second(), -1) << c.first;
        EXPECT_TRUE(logged(c.first, "invalid arg!\n")) << c.first;
        EXPECT_FALSE(kxtest::log_contains("Get ps8Url")) << c.first << ": a URL was built";
    }
    fclose(stream);
    EXPECT_TRUE(cloud.requests().empty());
}

/* ---- KX_AUTH_AUTHENTICATE --------------------------------------------------------- */

std::string sign_in_signed(const KX_AUTH_AUTHENTICATE_S &r, const std::string &secret, const char *serial,
                           const Sent &s)
{
    return fmt("appKey=%s&appSecret=%s&devSerial=%s&deviceId=%s&format=0&languageId=%u&randStr=%s&serviceType=9"
               "&sourceType=1&timeStamp=%s&version=7.0",
               r.ps8AppIndex, secret.c_str(), serial, r.ps8DeviceId, r.eLanguageId, s.rand.c_str(), s.time.c_str());
}

TEST_F(Account, SignInPostsTheDocumentedBodyAndVerifiesTheXmlIntoTheStream)
{
    struct Case {
        const char *device_id, *secret, *serial;
        uint32_t language;
        size_t secret_hex;
    } cases[] = {
        {kDeviceId, "s3cr3t-Ref", kSerial, 1, 32},
        {"861003009000001000000610", "0123456789abcde", "", 0, 32},   /* 24 characters: no serial; 15 -> one block */
        {kDeviceId, "0123456789abcdef", kSerial, 999, 64},             /* 16 characters: a whole block of 16s */
    };
    for (const Case &c : cases) {
        cloud.reset();
        kxcloud::register_device_services(cloud);
        kxtest::clear_log();
        KX_AUTH_AUTHENTICATE_S r = {0, 5, c.language, c.device_id, "tv.appkey.7", c.secret};
        FILE *stream = tmpfile();
        ASSERT_EQ(KX_AUTH_AUTHENTICATE(&r, domain.c_str(), &stream), 0) << c.secret;

        const kxcloud::Request sent = cloud.last();
        EXPECT_TRUE(sent.tls);
        EXPECT_EQ(sent.method, "POST");
        EXPECT_EQ(sent.path, "/aaa/sign_in");
        const Sent s(sent.form());
        expect_fresh(s);
        const std::string secret = sent.form()["appSecret"];
        EXPECT_EQ(secret.size(), c.secret_hex);
        EXPECT_EQ(secret.find_first_not_of("0123456789ABCDEF"), std::string::npos);
        EXPECT_EQ(open_secret(secret), c.secret);
        EXPECT_EQ(sent.body,
                  fmt("appKey=tv.appkey.7&appSecret=%s&devSerial=%s&deviceId=%s&format=0&languageId=%u&loginName="
                      "&qrCodeFlag=&randStr=%s&serviceType=9&signature=&sourceType=1&timeStamp=%s&version=7.0"
                      "&webFlag=&sign=%s",
                      secret.c_str(), c.serial, c.device_id, c.language, s.rand.c_str(), s.time.c_str(),
                      s.sign.c_str()));
        expect_signs(s, sign_in_signed(r, secret, c.serial, s));
        EXPECT_EQ(stream_text(stream), kxcloud::device_service_answer("/aaa/sign_in"));
        fclose(stream);

        EXPECT_TRUE(kxtest::log_contains("Mark: 100"));
        EXPECT_TRUE(logged("KX_AUTH_AUTHENTICATE", fmt("    psDevSerial:         %s\n", c.serial), kxtest::kInfo));
        EXPECT_TRUE(logged("KX_AUTH_AUTHENTICATE", "=================KX_AUTH_AUTHENTICATE_EX end =================\n",
                           kxtest::kInfo));
        const size_t length = strlen("tv.appkey.7") + secret.size() + strlen(c.serial) + strlen(c.device_id) +
                              fmt("%u", c.language).size() + 32 + s.time.size() + strlen(c.secret) + 119;
        EXPECT_TRUE(logged("KX_AUTH_AUTHENTICATE", fmt("KxSDK2.0 the size of ps8PostBody is : %zu\n", length + 1)));
    }
}

TEST_F(Account, SignInRefusesAnswersThatDoNotVerify)
{
    const std::string xml = kxcloud::device_service_answer("/aaa/sign_in");
    std::string tampered = kxcloud::signed_xml(xml);
    tampered[tampered.find("604800")] = '9';
    struct Case {
        const char *what;
        kxcloud::Reply reply;
        std::string left;
    } cases[] = {
        {"tampered", {200, tampered}, ""},        /* emptied by the verifier */
        {"unsigned", {200, xml}, xml},            /* left as received */
        {"not found", {404, ""}, ""},
    };
    for (Case &c : cases) {
        cloud.reply("POST", "/aaa/sign_in", c.reply);
        kxtest::clear_log();
        auto r = auth_record();
        FILE *stream = tmpfile();
        EXPECT_EQ(KX_AUTH_AUTHENTICATE(&r, domain.c_str(), &stream), -1) << c.what;
        EXPECT_TRUE(logged("KX_AUTH_AUTHENTICATE", "failed to verify xml data!\n")) << c.what;
        EXPECT_EQ(stream_text(stream), c.left) << c.what;
        fclose(stream);
    }
}

TEST_F(Account, SignInOverPlainHttpUsesPort80)
{
    use_plain();
    KX_AUTH_AUTHENTICATE_S r = auth_record();
    r.u32ChangeToHttp = 1;
    FILE *stream = tmpfile();
    EXPECT_EQ(KX_AUTH_AUTHENTICATE(&r, domain.c_str(), &stream), 0);
    fclose(stream);
    EXPECT_FALSE(cloud.last().tls);
    EXPECT_TRUE(kxtest::log_contains("Get ps8Url is http://127.0.0.1:80/aaa/sign_in"));
    EXPECT_TRUE(kxtest::log_contains("Mark: 100"));
}

/* ---- KX_GET_DEV_SERIAL ------------------------------------------------------------ */

TEST_F(Account, DeviceSerialSignsOnlyTheGivenOptionalKeys)
{
    const std::string long_token(1500, 't');
    struct Case {
        const char *token, *original;
        std::string body_head;   /* what precedes dev_flag in the body */
        std::string signed_token; /* what precedes dev_flag in the signed text */
        std::string signed_original;
    } cases[] = {
        {nullptr, "", "", "", ""},
        {"", "", "accessToken=&", "", ""},
        {"AT-9", "OID-3", "accessToken=AT-9&", "accessToken=AT-9&", "originalId=OID-3&"},
        /* the 1024-byte prefix keeps 1023 characters: the token is cut, the "&" lost */
        {long_token.c_str(), "OID-3", "accessToken=" + long_token + "&", "accessToken=" + long_token.substr(0, 1011),
         "originalId=OID-3&"},
    };
    for (const Case &c : cases) {
        cloud.reset();
        kxcloud::register_device_services(cloud);
        kxtest::clear_log();
        KX_DEV_SERIAL_S r = {0, "FEAT-1", "flag-2", c.original, c.token};
        FILE *stream = tmpfile();
        const int32_t verdict = KX_GET_DEV_SERIAL(&r, domain.c_str(), &stream);
        const kxcloud::Request sent = cloud.last();
        const Sent s(sent.form());
        expect_fresh(s);
        EXPECT_EQ(sent.body, fmt("%sdev_flag=flag-2&featureCode=FEAT-1&format=0&languageId=0&originalId=%s&randStr=%s"
                                 "&timeStamp=%s&version=7.0&sign=%s",
                                 c.body_head.c_str(), c.original, s.rand.c_str(), s.time.c_str(), s.sign.c_str()));
        expect_signs(s, fmt("%sdev_flag=flag-2&featureCode=FEAT-1&format=0&languageId=0&%srandStr=%s&timeStamp=%s"
                            "&version=7.0",
                            c.signed_token.c_str(), c.signed_original.c_str(), s.rand.c_str(), s.time.c_str()));
        EXPECT_EQ(verdict, 0);
        EXPECT_EQ(stream_text(stream), kxcloud::device_service_answer("/aaa/get_dev_serial"));
        fclose(stream);
        EXPECT_TRUE(kxtest::log_contains("Mark: 100"));
        EXPECT_TRUE(logged("KX_GET_DEV_SERIAL", "KX_SDK_HTTPS_POST: 0\n"));
        EXPECT_EQ(kxtest::log_contains("    psAccessToken: "), c.token != nullptr);
    }
}

/* ---- KX_GET_AUTHORIZATION_INFO ------------------------------------------------------ */

TEST_F(Account, AuthorisationInfoSendsASignedQueryWhoseQuestionMarkIsSigned)
{
    KX_AUTHORIZATION_INFO_S r = {0, 2, "client-7", 4, "AT-1", "SER-1"};
    ASSERT_EQ(KX_GET_AUTHORIZATION_INFO(&r, domain.c_str(), result), 0);
    const kxcloud::Request sent = cloud.last();
    EXPECT_EQ(sent.method, "GET");
    EXPECT_EQ(sent.path, "/aaa/get_authorizationinfo");
    EXPECT_EQ(std::count(sent.target.begin(), sent.target.end(), '?'), 1);
    const Sent s(sent.query_form());
    expect_fresh(s);
    const std::string text = fmt("?accessToken=AT-1&client_id=client-7&devSerial=SER-1&format=2&languageId=4"
                                 "&randStr=%s&sourceType=1&timeStamp=%s&version=7.0",
                                 s.rand.c_str(), s.time.c_str());
    EXPECT_EQ("?" + sent.query, text + "&sign=" + s.sign);
    expect_signs(s, text);
    /* Re-printed without a signature check: the member is still there. */
    EXPECT_NE(strstr(result, "living-room speaker"), nullptr);
    EXPECT_NE(strstr(result, "signatureServer"), nullptr);
    EXPECT_EQ(file_text("/tmp/authorizationinfo.json"),
              kxcloud::signed_json(kxcloud::device_service_answer("/aaa/get_authorizationinfo")));
    EXPECT_TRUE(logged("KX_GET_AUTHORIZATION_INFO", "ps8GetUrl: https://" + domain + sent.target + "\n",
                       kxtest::kInfo));
    EXPECT_TRUE(logged("KX_GET_AUTHORIZATION_INFO",
                       "=================KX_GET_CUSTOMER_INFO input param=================\n", kxtest::kInfo));
}

/* ---- session and query calls: one table ------------------------------------------ */

struct JsonCall {
    const char *name, *path, *file, *method;
    std::function<int32_t(uint32_t http, const char *domain, char *out)> invoke;
    /* signed text (empty: unsigned) and the sent text without "&sign=", from the nonce and time */
    std::function<std::string(const Sent &)> signed_text, sent_text;
    bool verified; /* the answer reaches the buffer without its signature */
};

const KX_REFRESH_TOKEN_S kRefresh = {0, "RT-4", "tv.appkey.7", "refresh-Secret", 77, "SER-1", "DEV-1"};
const KX_CODE_AUTH_URL_S kCode = {0, "ST", "BR", "alexa", 88, "tv.appkey.7", "code-secret", "AT-1", "SER-1", "DEV-1"};
const KX_CUSTOMER_INFO_S kCustomer = {0, "basic", "AT-1", "SER-1", "DEV-1"};
const KX_MSG_INFO_S kMsg = {0, 20, 0, "m-1,m-2", "AT-1", "SER-1", "DEV-1"};

std::string token_text(const char *lead, const Sent &s)
{
    return fmt("%saccessToken=AT-1&devSerial=SER-1&deviceId=DEV-1&format=1&languageId=1&randStr=%s&sourceType=1"
               "&timeStamp=%s&version=7.0",
               lead, s.rand.c_str(), s.time.c_str());
}

/* The secret is whatever was sent; its decryption is checked separately. */
std::string sent_secret;

std::vector<JsonCall> json_calls()
{
    auto token = [](uint32_t http) { KX_TOKEN_DEVICE_S t = {http, "AT-1", "SER-1", "DEV-1"}; return t; };
    auto plain = [](const char *lead) { return [lead](const Sent &s) { return token_text(lead, s); }; };
    return {
        {"KX_REFRESH_TOKEN", "/aaa/sign_in_refreshtoken", "/tmp/refreshtoken.json", "POST",
         [](uint32_t h, const char *d, char *o) { auto r = kRefresh; r.u32ChangeToHttp = h; return KX_REFRESH_TOKEN(&r, d, o); },
         [](const Sent &s) {
             return fmt("appKey=tv.appkey.7&appSecret=%s&devSerial=SER-1&deviceId=DEV-1&format=1&languageId=1"
                        "&randStr=%s&refreshToken=RT-4&sourceType=1&timeStamp=%s&version=7.0",
                        sent_secret.c_str(), s.rand.c_str(), s.time.c_str());
         },
         nullptr, true},
        {"KX_SIGN_OUT", "/aaa/sign_out", "/tmp/signout.json", "POST",
         [token](uint32_t h, const char *d, char *o) { auto t = token(h); return KX_SIGN_OUT(&t, d, o); }, plain(""),
         nullptr, true},
        {"KX_SIGN_INFO_BY_CODE", "/aaa/get_signinfo_by_code", "/tmp/signinfo.json", "POST",
         [token](uint32_t h, const char *d, char *o) { auto t = token(h); return KX_SIGN_INFO_BY_CODE(&t, d, o); },
         plain(""), nullptr, true},
        {"KX_GET_CODE_AUTH_URL", "/voiceservice/get_codeauth_url", "/tmp/getauthurl.json", "POST",
         [](uint32_t h, const char *d, char *o) { auto r = kCode; r.u32ChangeToHttp = h; return KX_GET_CODE_AUTH_URL(&r, d, o); },
         [](const Sent &s) {
             return fmt("accessToken=AT-1&appSecret=%s&appkey=tv.appkey.7&brandCode=BR&devSerial=SER-1&deviceId=DEV-1"
                        "&format=1&languageId=1&randStr=%s&sourceType=1&statCode=ST&timeStamp=%s&version=1.1"
                        "&vsType=alexa",
                        sent_secret.c_str(), s.rand.c_str(), s.time.c_str());
         },
         nullptr, true},
        {"KX_GET_CUSTOMER_INFO", "/cam/user/get_customer_info", "/tmp/customerinfo.json", "GET",
         [](uint32_t h, const char *d, char *o) { auto r = kCustomer; r.u32ChangeToHttp = h; return KX_GET_CUSTOMER_INFO(&r, d, o); },
         plain("?"),
         [](const Sent &s) {
             return fmt("?accessToken=AT-1&devSerial=SER-1&deviceId=DEV-1&format=1&languageId=1&randStr=%s"
                        "&queryType=basic&sourceType=1&timeStamp=%s&version=7.0",
                        s.rand.c_str(), s.time.c_str());
         },
         false},
        {"KX_GET_SYS_CONFIG_INFO", "/message/get_msg_configs", "/tmp/sysconfigs.json", "GET",
         [token](uint32_t h, const char *d, char *o) { auto t = token(h); return KX_GET_SYS_CONFIG_INFO(&t, d, o); },
         nullptr, plain("?"), true},
        {"KX_GET_MSG_INFO", "/message/get_msg", "/tmp/sysmsginfo.json", "POST",
         [](uint32_t h, const char *d, char *o) { auto r = kMsg; r.u32ChangeToHttp = h; return KX_GET_MSG_INFO(&r, d, o); },
         [](const Sent &s) {
             return fmt("accessToken=AT-1&devSerial=SER-1&deviceId=DEV-1&format=1&languageId=1&msgList=m-1,m-2"
                        "&pageSize=20&randStr=%s&realtimeFlag=0&sourceType=1&timeStamp=%s&version=7.0",
                        s.rand.c_str(), s.time.c_str());
         },
         nullptr, true},
        {"KX_GET_MSG_CHANNEL_INFO", "/message/get_msg_channel", "/tmp/sysmsgchannel.json", "GET",
         [token](uint32_t h, const char *d, char *o) { auto t = token(h); return KX_GET_MSG_CHANNEL_INFO(&t, d, o); },
         plain("?"), nullptr, true},
    };
}

TEST_F(Account, SessionAndQueryCallsSendTheirDocumentedTextsAndDeliverTheVerifiedAnswer)
{
    for (const JsonCall &c : json_calls()) {
        cloud.reset();
        kxcloud::register_device_services(cloud);
        kxtest::clear_log();
        memset(result, 0, sizeof result);
        unlink(c.file);
        ASSERT_EQ(c.invoke(0, domain.c_str(), result), 0) << c.name;

        const kxcloud::Request sent = cloud.last();
        EXPECT_TRUE(sent.tls) << c.name;
        EXPECT_EQ(sent.method, c.method) << c.name;
        EXPECT_EQ(sent.path, c.path) << c.name;
        const bool get = std::string(c.method) == "GET";
        const std::string wire = get ? "?" + sent.query : sent.body;
        const Sent s(get ? sent.query_form() : sent.form());
        expect_fresh(s);
        sent_secret = (get ? sent.query_form() : sent.form())["appSecret"];
        if (!sent_secret.empty()) {
            EXPECT_EQ(open_secret(sent_secret), c.name == std::string("KX_REFRESH_TOKEN") ? "refresh-Secret" : "code-secret");
        }

        const std::string text = c.sent_text ? c.sent_text(s) : c.signed_text(s);
        if (c.signed_text) {
            EXPECT_EQ(wire, text + "&sign=" + s.sign) << c.name;
            expect_signs(s, c.signed_text(s));
        } else {
            EXPECT_EQ(wire, text) << c.name << ": unsigned";
        }

        const std::string answer = kxcloud::device_service_answer(c.path);
        if (c.verified)
            EXPECT_EQ(std::string(result), answer) << c.name;
        else
            EXPECT_NE(strstr(result, "signatureServer"), nullptr) << c.name;
        EXPECT_EQ(file_text(c.file), kxcloud::signed_json(answer)) << c.name << ": the raw answer stays on disk";
    }
}

TEST_F(Account, SessionAndQueryCallsRefuseFailedAnswersAndEmptyTheirFile)
{
    for (const JsonCall &c : json_calls()) {
        std::string tampered = kxcloud::signed_json(kxcloud::device_service_answer(c.path));
        tampered[tampered.find("resultCode\":0") + 12] = '7';
        const kxcloud::Reply replies[] = {{404, ""}, {200, tampered}};
        for (const kxcloud::Reply &reply : replies) {
            if (!c.verified && reply.status == 200)
                continue; /* the re-printing verifier checks no signature */
            cloud.reset();
            cloud.reply("*", c.path, reply);
            kxtest::clear_log();
            EXPECT_EQ(c.invoke(0, domain.c_str(), result), -1) << c.name << " " << reply.status;
            EXPECT_TRUE(logged(c.name, "failed to verify json data!\n")) << c.name;
            EXPECT_EQ(file_text(c.file), "") << c.name;
        }
    }
}

TEST_F(Account, SessionAndQueryCallsReportAnAnswerFileTheyCannotCreate)
{
    for (const JsonCall &c : json_calls()) {
        unlink(c.file);
        ASSERT_EQ(mkdir(c.file, 0700), 0) << c.file;
        kxtest::clear_log();
        EXPECT_EQ(c.invoke(0, domain.c_str(), result), -1);
        rmdir(c.file);
        EXPECT_TRUE(logged(c.name, fmt("failed to creat !%s \n", c.file))) << c.name;
    }
    EXPECT_TRUE(cloud.requests().empty());
}

TEST_F(Account, SessionAndQueryCallsOverPlainHttp)
{
    use_plain();
    for (const JsonCall &c : json_calls()) {
        kxtest::clear_log();
        EXPECT_EQ(c.invoke(1, domain.c_str(), result), 0) << c.name;
        EXPECT_FALSE(cloud.last().tls) << c.name;
        EXPECT_TRUE(kxtest::log_contains(std::string("Get ps8Url is http://127.0.0.1:80") + c.path)) << c.name;
        EXPECT_FALSE(kxtest::log_contains("Mark: ")) << c.name;
    }
}

TEST_F(Account, QueryDetails)
{
    /* queryType is not signed: two types, one signed text. */
    KX_CUSTOMER_INFO_S other = kCustomer;
    other.ps8QueryType = "full";
    ASSERT_EQ(KX_GET_CUSTOMER_INFO(&other, domain.c_str(), result), 0);
    const Sent s(cloud.last().query_form());
    expect_signs(s, token_text("?", s));
    EXPECT_EQ(cloud.last().query_form()["queryType"], "full");

    /* Numbers travel through 4-byte texts: 1234 is cut to "123". */
    KX_MSG_INFO_S msg = kMsg;
    msg.u32PageSize = 1234;
    ASSERT_EQ(KX_GET_MSG_INFO(&msg, domain.c_str(), result), 0);
    EXPECT_EQ(cloud.last().form()["pageSize"], "123");
    const std::string body = cloud.last().body;
    EXPECT_TRUE(logged("KX_GET_MSG_INFO", "postbody : " + body + "\n", kxtest::kInfo));
    /* allocation = parameter text + signature + 7 = the body ("&sign=" is 6) + 1 */
    EXPECT_TRUE(logged("KX_GET_MSG_INFO", fmt("malloc size: %zu strlen : %zu\n", body.size() + 1, body.size()),
                       kxtest::kInfo));
    /* The message calls borrow the configuration call's banner. */
    EXPECT_TRUE(logged("KX_GET_MSG_INFO", "=================KX_GET_SYS_CONFIG_INFO input param=================\n",
                       kxtest::kInfo));
}

TEST_F(Account, UnreachableCloudGivesAFailedVerification)
{
    auto token = token_record();
    EXPECT_EQ(KX_SIGN_OUT(&token, "127.0.0.1:1", result), -1);
    EXPECT_TRUE(logged("KX_SIGN_OUT", "failed to verify json data!\n"));
    EXPECT_EQ(KX_SIGN_OUT(&token, nullptr, result), -1);
    EXPECT_TRUE(logged("KX_SIGN_OUT", "failed to call KX_SDK_CREATE_URL_NA().\n"));
}

}  // namespace
