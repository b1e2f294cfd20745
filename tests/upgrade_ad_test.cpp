/*
 * Upgrade checks and advertising against the local cloud: the exact URLs and
 * bodies on the wire (both schemes for the upgrade checks, the plain address
 * through the secure member for the guide), the optional keys, the 1024-byte
 * URL bound, what the caller's stream holds afterwards, and how each call
 * refuses.
 */
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "suite_text.h"
#include "test_cloud.h"
#include "upgrade_ad_services.h"

namespace {

using kxtest::Stream;
using kxtest::logged;
using kxtest::route;

using kxcloud::Cloud;

constexpr const char *kNoPort80 = "port 80 needs the private network namespace";

const KX_UPGRADE_CHECK_S kFirmware = {0, 4000000000u, "V8.09.01", "AT-1", "RSV-1", nullptr, nullptr, nullptr, nullptr};
const KX_APP_UPGRADE_CHECK_S kApp = {0, 2, "3.1.0", "AT-1", "com.kx.video", nullptr, nullptr};
const KX_AD_STRATEGY_S kStrategy = {"SLOT-9", "AT-1", -3, "dvb", "7.0.1", -1, "80331", "DE"};
const KX_AD_LINKINFO_S kLinkInfo = {"LINK-4", "AC-1", "7", "AT-1", 2, "dvb", "7.0.1", 5, "80331", "DE"};

/* One call of the family on its domain: the upgrade checks on the scheme's
 * own, the guide always on the plain listener ("127.0.0.1", port 80). */
struct AnyCall {
    const char *name;
    const char *path;
    std::function<int32_t(FILE **stream)> run;
    const char *transfer_failure, *verify_failure;
};

std::vector<AnyCall> every_call(uint32_t http, const std::string &d)
{
    return {
        {"KX_UPGRADE_CHECK_VERSION", "/upgrade/check_version",
         [http, d](FILE **s) { auto r = kFirmware; r.u32ChangeToHttp = http; return KX_UPGRADE_CHECK_VERSION(&r, d.c_str(), s); },
         "Failed to call KX_SDK_HTTP_POST.\n", "failed to verify xml data!\n"},
        {"KX_APP_UPGRADE_CHECK_VERSION", "/upgrade/check_app_version",
         [http, d](FILE **s) { auto r = kApp; r.u32ChangeToHttp = http; return KX_APP_UPGRADE_CHECK_VERSION(&r, d.c_str(), s); },
         "Failed to call KX_SDK_HTTPS_POST.\n", "failed to verify xml data!\n"},
        {"KX_AD_GET_STRATEGY", "/cgi-bin/epg_index.fcgi",
         [](FILE **s) { return KX_AD_GET_STRATEGY(&kStrategy, "127.0.0.1", s); }, "Get AD strategy faild!\n",
         "XML verify is false!\n"},
        {"KX_AD_GET_LINKINFO", "/cgi-bin/epg_index.fcgi",
         [](FILE **s) { return KX_AD_GET_LINKINFO(&kLinkInfo, "127.0.0.1", s); }, "Get AD linkinfo faild!\n",
         "XML verify is false!\n"},
    };
}

class UpgradeAd : public ::testing::Test {
protected:
    Cloud &cloud = Cloud::shared();
    std::string https_domain;

    void SetUp() override
    {
        ASSERT_EQ(KX_GLOBAL_INIT("127.0.0.1"), 0);
        fresh();
        https_domain = cloud.https_domain();
    }
    void fresh()
    {
        cloud.reset();
        kxcloud::register_upgrade_ad_services(cloud);
        kxtest::clear_log();
    }
    /* The guide is always reached over plain HTTP on port 80. */
    bool no_port80() const { return !cloud.http_ready(); }
    /* The stream holds the verified answer the cloud gave, and it was a yes. */
    void expect_verified(const Stream &stream)
    {
        const std::string answer = kxcloud::upgrade_ad_answer(cloud.last());
        EXPECT_EQ(stream.text(), answer);
        EXPECT_NE(answer.find("<resultCode>0</resultCode>"), std::string::npos) << answer;
    }
};

/* ---- refusals ------------------------------------------------------------------- */

struct Bad { const char *name; std::function<int32_t()> run; };

/* A null record, stream address or stream, and each required text left null. */
template <typename R, typename Fn>
void add_bad(std::vector<Bad> &bad, const char *name, Fn fn, const R &good, std::initializer_list<const char *R::*> required,
             FILE **stream)
{
    static FILE *closed = nullptr;
    bad.push_back({name, [=] { return fn(nullptr, "127.0.0.1", stream); }});
    bad.push_back({name, [=, &good] { return fn(&good, "127.0.0.1", nullptr); }});
    bad.push_back({name, [=, &good] { return fn(&good, "127.0.0.1", &closed); }});
    for (const char *R::*field : required)
        bad.push_back({name, [=, &good] { R r = good; r.*field = nullptr; return fn(&r, "127.0.0.1", stream); }});
}

TEST_F(UpgradeAd, ArgumentsAreCheckedBeforeTheInitialisation)
{
    Stream stream;
    std::vector<Bad> bad;
    using U = KX_UPGRADE_CHECK_S;
    using A = KX_APP_UPGRADE_CHECK_S;
    using S = KX_AD_STRATEGY_S;
    using L = KX_AD_LINKINFO_S;
    add_bad(bad, "KX_UPGRADE_CHECK_VERSION", KX_UPGRADE_CHECK_VERSION, kFirmware,
            {&U::ps8CurrentVersion, &U::ps8AccessToken, &U::ps8DvcRsv}, &stream.f);
    add_bad(bad, "KX_APP_UPGRADE_CHECK_VERSION", KX_APP_UPGRADE_CHECK_VERSION, kApp,
            {&A::ps8CurrentVersion, &A::ps8AccessToken, &A::ps8PackageName}, &stream.f);
    add_bad(bad, "KX_AD_GET_STRATEGY", KX_AD_GET_STRATEGY, kStrategy,
            {&S::ps8AdInfo, &S::ps8Token, &S::ps8TvMode, &S::ps8OsVersion}, &stream.f);
    add_bad(bad, "KX_AD_GET_LINKINFO", KX_AD_GET_LINKINFO, kLinkInfo,
            {&L::ps8AdLinkId, &L::ps8AdCode, &L::ps8AdPositionOwner, &L::ps8Token, &L::ps8TvMode, &L::ps8OsVersion},
            &stream.f);
    /* The guide's domain goes into its URL as it stands. */
    bad.push_back({"KX_AD_GET_STRATEGY", [&] { return KX_AD_GET_STRATEGY(&kStrategy, nullptr, &stream.f); }});
    bad.push_back({"KX_AD_GET_LINKINFO", [&] { return KX_AD_GET_LINKINFO(&kLinkInfo, nullptr, &stream.f); }});

    for (bool initialised : {true, false}) {
        if (!initialised)
            KX_GLOBAL_DEINIT();
        for (const Bad &c : bad) {
            kxtest::clear_log();
            EXPECT_EQ(c.run(), -1) << c.name;
            EXPECT_TRUE(logged(c.name, "invalid arg!\n")) << c.name << (initialised ? "" : " (not initialised)");
            EXPECT_FALSE(kxtest::log_contains("please firstly")) << c.name;
        }
    }
    /* Good arguments, no initialisation. */
    for (const AnyCall &c : every_call(0, https_domain)) {
        kxtest::clear_log();
        EXPECT_EQ(c.run(&stream.f), -1) << c.name;
        EXPECT_TRUE(logged(c.name, "please firstly to call KX_GLOBAL_INIT()!\n")) << c.name;
    }
    /* Initialised, the upgrade checks find a null domain in the URL building. */
    ASSERT_EQ(KX_GLOBAL_INIT("127.0.0.1"), 0);
    EXPECT_EQ(KX_UPGRADE_CHECK_VERSION(&kFirmware, nullptr, &stream.f), -1);
    EXPECT_TRUE(logged("KX_UPGRADE_CHECK_VERSION", "failed to call KX_SDK_CREATE_URL().\n"));
    EXPECT_EQ(KX_APP_UPGRADE_CHECK_VERSION(&kApp, nullptr, &stream.f), -1);
    EXPECT_TRUE(logged("KX_APP_UPGRADE_CHECK_VERSION", "failed to call KX_SDK_CREATE_URL().\n"));
    EXPECT_TRUE(cloud.requests().empty());
    EXPECT_EQ(stream.text(), "");
}

/* ---- upgrade checks: the bodies, over both schemes ------------------------------- */

TEST_F(UpgradeAd, UpgradeChecksPostTheirBodiesWithExactlyTheOptionalKeysGiven)
{
    const std::string tail = "&accessToken=AT-1&version=7.0&format=0&sourceType=1&languageId=";
    const std::string firmware = "msgVersion=513&msgType=256&msgId=66&currentVersion=V8.09.01&dvcRsv=RSV-1";
    struct Case {
        const char *what, *name, *path;
        std::function<int32_t(uint32_t http, const char *domain, FILE **stream)> run;
        std::string body;
    };
    auto fw = [](const char *stat, const char *post, const char *brand, const char *mac) {
        return [=](uint32_t http, const char *d, FILE **s) {
            KX_UPGRADE_CHECK_S r = kFirmware;
            r.u32ChangeToHttp = http;
            r.ps8StatCode = stat;
            r.ps8PostCode = post;
            r.ps8BrandCode = brand;
            r.ps8Mac = mac;
            return KX_UPGRADE_CHECK_VERSION(&r, d, s);
        };
    };
    auto app = [](const char *stat, const char *post) {
        return [=](uint32_t http, const char *d, FILE **s) {
            KX_APP_UPGRADE_CHECK_S r = kApp;
            r.u32ChangeToHttp = http;
            r.ps8StatCode = stat;
            r.ps8PostCode = post;
            return KX_APP_UPGRADE_CHECK_VERSION(&r, d, s);
        };
    };
    const Case cases[] = {
        /* the language is sent whole, not through a 4-byte text */
        {"no optional key", "KX_UPGRADE_CHECK_VERSION", "/upgrade/check_version", fw(nullptr, nullptr, nullptr, nullptr),
         firmware + tail + "4000000000"},
        {"only MAC", "KX_UPGRADE_CHECK_VERSION", "/upgrade/check_version", fw(nullptr, nullptr, nullptr, "00:1A:2B:3C:4D:5E"),
         firmware + "&MAC=00:1A:2B:3C:4D:5E" + tail + "4000000000"},
        {"all four, empty brand", "KX_UPGRADE_CHECK_VERSION", "/upgrade/check_version", fw("ST-2", "80331", "", "00:1A"),
         firmware + "&statCode=ST-2&postCode=80331&brandCode=&MAC=00:1A" + tail + "4000000000"},
        {"app, no optional key", "KX_APP_UPGRADE_CHECK_VERSION", "/upgrade/check_app_version", app(nullptr, nullptr),
         "packageName=com.kx.video&currentVersion=3.1.0" + tail + "2"},
        {"app, only postCode", "KX_APP_UPGRADE_CHECK_VERSION", "/upgrade/check_app_version", app(nullptr, "80331"),
         "packageName=com.kx.video&currentVersion=3.1.0&postCode=80331" + tail + "2"},
        {"app, both", "KX_APP_UPGRADE_CHECK_VERSION", "/upgrade/check_app_version", app("ST-2", "80331"),
         "packageName=com.kx.video&currentVersion=3.1.0&statCode=ST-2&postCode=80331" + tail + "2"},
    };
    for (uint32_t http : {0u, 1u}) {
        if (http == 1 && no_port80())
            GTEST_SKIP() << kNoPort80;
        const std::string domain = http == 1 ? cloud.http_domain() : https_domain;
        const std::string url = http == 1 ? "http://" + domain + ":80" : "https://" + domain;
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(c.what) + (http == 1 ? " over http" : " over https"));
            fresh();
            Stream stream;
            ASSERT_EQ(c.run(http, domain.c_str(), &stream.f), 0);
            EXPECT_EQ(route(cloud.last()), std::string(http == 1 ? "http" : "https") + " POST " + c.path);
            EXPECT_EQ(cloud.last().body, c.body);
            EXPECT_TRUE(logged("KX_SDK_CREATE_URL", "Get ps8Url is " + url + c.path + "\n", kxtest::kInfo));
            expect_verified(stream);
        }
    }
}

TEST_F(UpgradeAd, FailedTransferEndsTheCallWithoutAVerification)
{
    if (no_port80())
        GTEST_SKIP() << kNoPort80;
    const std::string partial = "<?xml version=\"1.0\"?><response><resultCode>0</resultCode><signatureServer>QUJD";
    /* An error status, and an answer cut off after its first bytes. */
    kxcloud::Reply cut(200, partial + std::string(400, 'x'));
    cut.drop_after = static_cast<long>(partial.size());
    for (uint32_t http : {0u, 1u}) {
        for (const AnyCall &c : every_call(http, http == 1 ? cloud.http_domain() : https_domain)) {
            SCOPED_TRACE(std::string(c.name) + (http == 1 ? " over http" : ""));
            for (const kxcloud::Reply &reply : {kxcloud::Reply(404), cut}) {
                cloud.reply("*", c.path, reply);
                kxtest::clear_log();
                Stream stream;
                EXPECT_EQ(c.run(&stream.f), -1);
                EXPECT_TRUE(logged(c.name, c.transfer_failure));
                EXPECT_FALSE(kxtest::log_contains("s32FileSize")) << "nothing is verified";
                /* What arrived stays in the caller's stream. */
                EXPECT_EQ(stream.text(), reply.status == 404 ? "" : partial);
            }
        }
    }
}

TEST_F(UpgradeAd, AnswersThatDoNotVerifyAreRefused)
{
    if (no_port80())
        GTEST_SKIP() << kNoPort80;
    for (uint32_t http : {0u, 1u}) {
        for (const AnyCall &c : every_call(http, http == 1 ? cloud.http_domain() : https_domain)) {
            SCOPED_TRACE(std::string(c.name) + (http == 1 ? " over http" : ""));
            /* The good answer first, to learn what it is, then altered and unsigned. */
            fresh();
            Stream good;
            ASSERT_EQ(c.run(&good.f), 0);
            const std::string xml = kxcloud::upgrade_ad_answer(cloud.last());
            std::string tampered = kxcloud::signed_xml(xml);
            tampered[tampered.find("<resultCode>0") + 12] = '1';
            struct { std::string body, left; } replies[] = {{tampered, ""}, {xml, xml}}; /* emptied / left as is */
            for (const auto &reply : replies) {
                cloud.reply("*", c.path, kxcloud::Reply(200, reply.body));
                kxtest::clear_log();
                Stream stream;
                EXPECT_EQ(c.run(&stream.f), -1);
                EXPECT_TRUE(logged(c.name, c.verify_failure));
                EXPECT_EQ(stream.text(), reply.left);
            }
        }
    }
}

/* ---- advertising: the URLs ------------------------------------------------------ */

TEST_F(UpgradeAd, GuideUrlsArePlainAddressesFetchedByTheSecureMember)
{
    if (no_port80())
        GTEST_SKIP() << kNoPort80;
    const std::string guide = "/cgi-bin/epg_index.fcgi?action=";
    struct Case { const char *what, *name, *url_line; std::function<int32_t(FILE **)> run; std::string target; };
    KX_AD_STRATEGY_S unfilled = kStrategy;
    unfilled.ps8ZipCode = nullptr;
    unfilled.ps8CountryCode = nullptr;
    const Case cases[] = {
        {"strategy, negative numbers", "KX_AD_GET_STRATEGY", "Strategy Url is: ",
         [](FILE **s) { return KX_AD_GET_STRATEGY(&kStrategy, "127.0.0.1", s); },
         guide + "getadstrategy&adinfo=SLOT-9&token=AT-1&language_id=-3&tv_mode=dvb&os_version=7.0.1&os_type=-1"
                 "&zipcode=80331&countrycode=DE"},
        {"strategy, optional texts left null", "KX_AD_GET_STRATEGY", "Strategy Url is: ",
         [&unfilled](FILE **s) { return KX_AD_GET_STRATEGY(&unfilled, "127.0.0.1", s); },
         guide + "getadstrategy&adinfo=SLOT-9&token=AT-1&language_id=-3&tv_mode=dvb&os_version=7.0.1&os_type=-1"
                 "&zipcode=(null)&countrycode=(null)"},
        {"link info, the owner without \"=\"", "KX_AD_GET_LINKINFO", "Linkinfo Url is: ",
         [](FILE **s) { return KX_AD_GET_LINKINFO(&kLinkInfo, "127.0.0.1", s); },
         guide + "getadlinkinfo&adlinkid=LINK-4&adcode=AC-1&adpositionowner7&token=AT-1&language_id=2&tv_mode=dvb"
                 "&os_version=7.0.1&os_type=5&zipcode=80331&countrycode=DE"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        fresh();
        Stream stream;
        ASSERT_EQ(c.run(&stream.f), 0);
        const kxcloud::Request sent = cloud.last();
        EXPECT_EQ(route(sent), "http GET /cgi-bin/epg_index.fcgi");
        EXPECT_EQ(sent.target, c.target);
        EXPECT_TRUE(logged(c.name, c.url_line + ("http://127.0.0.1:80" + c.target) + "\n", kxtest::kInfo));
        /* The secure member asks for gzip; the plain one would not. */
        EXPECT_EQ(sent.header("Accept-Encoding"), "gzip");
        expect_verified(stream);
    }
}

TEST_F(UpgradeAd, GuideUrlsAreCutAt1023Characters)
{
    if (no_port80())
        GTEST_SKIP() << kNoPort80;
    const std::string head = "http://127.0.0.1:80/cgi-bin/epg_index.fcgi?action=getadstrategy&adinfo=";
    const std::string rest = "&token=AT-1&language_id=-3&tv_mode=dvb&os_version=7.0.1&os_type=-1&zipcode=80331&countrycode=DE";
    /* Whole URL lengths: the longest sent whole, one over, and far over (cut inside adinfo). */
    for (size_t length : {1023u, 1024u, 1500u}) {
        SCOPED_TRACE(length);
        fresh();
        const std::string adinfo(length - head.size() - rest.size(), 'a');
        const std::string sent = (head + adinfo + rest).substr(0, 1023);
        KX_AD_STRATEGY_S r = kStrategy;
        r.ps8AdInfo = adinfo.c_str();
        Stream stream;
        EXPECT_EQ(KX_AD_GET_STRATEGY(&r, "127.0.0.1", &stream.f), 0);
        EXPECT_TRUE(logged("KX_AD_GET_STRATEGY", "Strategy Url is: " + sent + "\n", kxtest::kInfo));
        EXPECT_EQ("http://127.0.0.1:80" + cloud.last().target, sent);
        /* Cut short of its token, the request is refused by the guide, in a verified answer. */
        EXPECT_EQ(stream.text(), kxcloud::upgrade_ad_answer(cloud.last()));
        EXPECT_EQ(stream.text().find("missing token") != std::string::npos, length == 1500u);
    }
}

}  // namespace
