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

using Invoke = std::function<int32_t(uint32_t http, const char *domain, FILE **stream)>;

/* An upgrade check of a record on the scheme and domain given. */
template <typename R>
Invoke check(int32_t (*fn)(const R *, const char *, FILE **), R record)
{
    return [fn, record](uint32_t http, const char *d, FILE **s) mutable {
        record.u32ChangeToHttp = http;
        return fn(&record, d, s);
    };
}

/* A guide query of a record: it has no scheme, and is always made to the plain listener. */
template <typename R>
Invoke guide(int32_t (*fn)(const R *, const char *, FILE **), R record)
{
    return [fn, record](uint32_t, const char *, FILE **s) { return fn(&record, "127.0.0.1", s); };
}

struct AnyCall {
    const char *name, *path;
    Invoke run;
    const char *transfer_failure, *verify_failure;
};

std::vector<AnyCall> every_call()
{
    return {
        {"KX_UPGRADE_CHECK_VERSION", "/upgrade/check_version", check(KX_UPGRADE_CHECK_VERSION, kFirmware),
         "Failed to call KX_SDK_HTTP_POST.\n", "failed to verify xml data!\n"},
        /* names the secure member over either scheme */
        {"KX_APP_UPGRADE_CHECK_VERSION", "/upgrade/check_app_version", check(KX_APP_UPGRADE_CHECK_VERSION, kApp),
         "Failed to call KX_SDK_HTTPS_POST.\n", "failed to verify xml data!\n"},
        {"KX_AD_GET_STRATEGY", "/cgi-bin/epg_index.fcgi", guide(KX_AD_GET_STRATEGY, kStrategy),
         "Get AD strategy faild!\n", "XML verify is false!\n"},
        {"KX_AD_GET_LINKINFO", "/cgi-bin/epg_index.fcgi", guide(KX_AD_GET_LINKINFO, kLinkInfo),
         "Get AD linkinfo faild!\n", "XML verify is false!\n"},
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
    std::string domain(uint32_t http) const { return http == 1 ? cloud.http_domain() : https_domain; }
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
    for (const AnyCall &c : every_call()) {
        kxtest::clear_log();
        EXPECT_EQ(c.run(0, https_domain.c_str(), &stream.f), -1) << c.name;
        EXPECT_TRUE(logged(c.name, "please firstly to call KX_GLOBAL_INIT()!\n")) << c.name;
    }
    /* Initialised, the upgrade checks find a null domain in the URL building. */
    ASSERT_EQ(KX_GLOBAL_INIT("127.0.0.1"), 0);
    for (const AnyCall &c : every_call()) {
        if (std::strstr(c.name, "UPGRADE") == nullptr)
            continue;
        EXPECT_EQ(c.run(0, nullptr, &stream.f), -1);
        EXPECT_TRUE(logged(c.name, "failed to call KX_SDK_CREATE_URL().\n")) << c.name;
    }
    EXPECT_TRUE(cloud.requests().empty());
    EXPECT_EQ(stream.text(), "");
}

/* ---- upgrade checks: the bodies, over both schemes ------------------------------- */

TEST_F(UpgradeAd, UpgradeChecksPostTheirBodiesWithExactlyTheOptionalKeysGiven)
{
    const std::string tail = "&accessToken=AT-1&version=7.0&format=0&sourceType=1&languageId=";
    const std::string firmware = "msgVersion=513&msgType=256&msgId=66&currentVersion=V8.09.01&dvcRsv=RSV-1";
    const std::string app = "packageName=com.kx.video&currentVersion=3.1.0";
    auto fw = [](const char *stat, const char *post, const char *brand, const char *mac) {
        return check(KX_UPGRADE_CHECK_VERSION, KX_UPGRADE_CHECK_S{0, 4000000000u, "V8.09.01", "AT-1", "RSV-1", stat,
                                                                  post, brand, mac});
    };
    auto ap = [](const char *stat, const char *post) {
        return check(KX_APP_UPGRADE_CHECK_VERSION, KX_APP_UPGRADE_CHECK_S{0, 2, "3.1.0", "AT-1", "com.kx.video", stat, post});
    };
    struct Case { const char *what, *path; Invoke run; std::string body; };
    const Case cases[] = {
        /* the language is sent whole, not through a 4-byte text */
        {"no optional key", "/upgrade/check_version", fw(nullptr, nullptr, nullptr, nullptr),
         firmware + tail + "4000000000"},
        {"only MAC", "/upgrade/check_version", fw(nullptr, nullptr, nullptr, "00:1A:2B:3C:4D:5E"),
         firmware + "&MAC=00:1A:2B:3C:4D:5E" + tail + "4000000000"},
        {"all four, empty brand", "/upgrade/check_version", fw("ST-2", "80331", "", "00:1A"),
         firmware + "&statCode=ST-2&postCode=80331&brandCode=&MAC=00:1A" + tail + "4000000000"},
        {"app, no optional key", "/upgrade/check_app_version", ap(nullptr, nullptr), app + tail + "2"},
        {"app, only postCode", "/upgrade/check_app_version", ap(nullptr, "80331"), app + "&postCode=80331" + tail + "2"},
        {"app, both", "/upgrade/check_app_version", ap("ST-2", "80331"),
         app + "&statCode=ST-2&postCode=80331" + tail + "2"},
    };
    for (uint32_t http : {0u, 1u}) {
        if (http == 1 && no_port80())
            GTEST_SKIP() << kNoPort80;
        const std::string url = http == 1 ? "http://" + domain(http) + ":80" : "https://" + domain(http);
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(c.what) + (http == 1 ? " over http" : " over https"));
            fresh();
            Stream stream;
            ASSERT_EQ(c.run(http, domain(http).c_str(), &stream.f), 0);
            EXPECT_EQ(route(cloud.last()), std::string(http == 1 ? "http" : "https") + " POST " + c.path);
            EXPECT_EQ(cloud.last().body, c.body);
            EXPECT_TRUE(logged("KX_SDK_CREATE_URL", "Get ps8Url is " + url + c.path + "\n", kxtest::kInfo));
        }
    }
}

/* ---- failures, every call on both schemes ------------------------------------------ */

TEST_F(UpgradeAd, FailedTransfersAndAnswersThatDoNotVerifyEndEachCallInItsOwnWords)
{
    if (no_port80())
        GTEST_SKIP() << kNoPort80;
    std::string altered = kxcloud::signed_xml("<response><resultCode>0</resultCode></response>");
    altered[altered.find("0</resultCode>")] = '1';
    for (uint32_t http : {0u, 1u}) {
        for (const AnyCall &c : every_call()) {
            SCOPED_TRACE(std::string(c.name) + (http == 1 ? " over http" : ""));
            /* A failed transfer verifies nothing; an altered answer is refused and emptied. */
            for (const kxcloud::Reply &reply : {kxcloud::Reply(404), kxcloud::Reply(200, altered)}) {
                cloud.reply("*", c.path, reply);
                kxtest::clear_log();
                Stream stream;
                EXPECT_EQ(c.run(http, domain(http).c_str(), &stream.f), -1);
                EXPECT_TRUE(logged(c.name, reply.status == 404 ? c.transfer_failure : c.verify_failure));
                EXPECT_EQ(kxtest::log_contains("s32FileSize"), reply.status != 404) << "verified";
                EXPECT_EQ(stream.text(), "");
            }
        }
    }
}

/* ---- advertising: the URLs ------------------------------------------------------ */

TEST_F(UpgradeAd, GuideUrlsArePlainAddressesFetchedByTheSecureMemberAndCutAt1023Characters)
{
    if (no_port80())
        GTEST_SKIP() << kNoPort80;
    const std::string base = "http://127.0.0.1:80/cgi-bin/epg_index.fcgi?action=";
    const std::string strategy = base + "getadstrategy&adinfo=";
    const std::string rest = "&token=AT-1&language_id=-3&tv_mode=dvb&os_version=7.0.1&os_type=-1";
    const std::string filled = rest + "&zipcode=80331&countrycode=DE";
    KX_AD_STRATEGY_S unfilled = kStrategy, longest = kStrategy, too_long = kStrategy;
    unfilled.ps8ZipCode = nullptr;
    unfilled.ps8CountryCode = nullptr;
    /* adinfo that makes the whole URL 1023 characters long, and one more */
    const std::string fits(1023 - strategy.size() - filled.size(), 'a'), over(fits + "a");
    longest.ps8AdInfo = fits.c_str();
    too_long.ps8AdInfo = over.c_str();
    struct Case { const char *what, *name, *url_line; Invoke run; std::string url; };
    const Case cases[] = {
        {"strategy, negative numbers", "KX_AD_GET_STRATEGY", "Strategy Url is: ", guide(KX_AD_GET_STRATEGY, kStrategy),
         strategy + "SLOT-9" + filled},
        {"strategy, optional texts left null", "KX_AD_GET_STRATEGY", "Strategy Url is: ",
         guide(KX_AD_GET_STRATEGY, unfilled), strategy + "SLOT-9" + rest + "&zipcode=(null)&countrycode=(null)"},
        {"link info, the owner without \"=\"", "KX_AD_GET_LINKINFO", "Linkinfo Url is: ",
         guide(KX_AD_GET_LINKINFO, kLinkInfo),
         base + "getadlinkinfo&adlinkid=LINK-4&adcode=AC-1&adpositionowner7&token=AT-1&language_id=2&tv_mode=dvb"
                "&os_version=7.0.1&os_type=5&zipcode=80331&countrycode=DE"},
        {"1023 characters, sent whole", "KX_AD_GET_STRATEGY", "Strategy Url is: ", guide(KX_AD_GET_STRATEGY, longest),
         strategy + fits + filled},
        {"1024 characters, cut", "KX_AD_GET_STRATEGY", "Strategy Url is: ", guide(KX_AD_GET_STRATEGY, too_long),
         (strategy + over + filled).substr(0, 1023)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        fresh();
        Stream stream;
        ASSERT_EQ(c.run(0, nullptr, &stream.f), 0);
        const kxcloud::Request sent = cloud.last();
        EXPECT_EQ(route(sent), "http GET /cgi-bin/epg_index.fcgi");
        EXPECT_EQ("http://127.0.0.1:80" + sent.target, c.url);
        EXPECT_TRUE(logged(c.name, c.url_line + c.url + "\n", kxtest::kInfo));
        /* The secure member asks for gzip; the plain one would not. */
        EXPECT_EQ(sent.header("Accept-Encoding"), "gzip");
    }
}

}  // namespace
