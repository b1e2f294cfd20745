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


constexpr const char *kNoPort80 = "port 80 needs the private network namespace";

using U = KX_UPGRADE_CHECK_S;
using A = KX_APP_UPGRADE_CHECK_S;
using S = KX_AD_STRATEGY_S;
using L = KX_AD_LINKINFO_S;

const U kFirmware = {0, 4000000000u, "V8.09.01", "AT-1", "RSV-1", nullptr, nullptr, nullptr, nullptr};
const A kApp = {0, 2, "3.1.0", "AT-1", "com.kx.video", nullptr, nullptr};
const S kStrategy = {"SLOT-9", "AT-1", -3, "dvb", "7.0.1", -1, "80331", "DE"};
const L kLinkInfo = {"LINK-4", "AC-1", "7", "AT-1", 2, "dvb", "7.0.1", 5, "80331", "DE"};

using Invoke = std::function<int32_t(uint32_t http, const char *domain, FILE **stream)>;

/* An upgrade check is made on the scheme and domain given; a guide query has
 * no scheme and is always made to the plain listener. */
template <typename R>
void aim(R &record, uint32_t http, const char *&) { record.u32ChangeToHttp = http; }
void aim(S &, uint32_t, const char *&domain) { domain = "127.0.0.1"; }
void aim(L &, uint32_t, const char *&domain) { domain = "127.0.0.1"; }

template <typename R>
Invoke aimed(int32_t (*fn)(const R *, const char *, FILE **), R record)
{
    return [fn, record](uint32_t http, const char *d, FILE **s) mutable {
        aim(record, http, d);
        return fn(&record, d, s);
    };
}

struct AnyCall {
    const char *name, *path;
    Invoke run;
    std::vector<Invoke> bad; /* a null record, stream address or stream, each required text null (or domain) */
    const char *transfer_failure, *verify_failure;
};

template <typename R>
AnyCall call(const char *name, const char *path, int32_t (*fn)(const R *, const char *, FILE **), const R &record,
             std::vector<const char *R::*> required, const char *transfer_failure, const char *verify_failure,
             bool guide = false)
{
    static FILE *closed = nullptr;
    std::vector<Invoke> bad = {[fn](uint32_t, const char *d, FILE **s) { return fn(nullptr, d, s); },
                               [fn, record](uint32_t, const char *d, FILE **) { return fn(&record, d, nullptr); },
                               [fn, record](uint32_t, const char *d, FILE **) { return fn(&record, d, &closed); }};
    for (const char *R::*field : required) {
        R r = record;
        r.*field = nullptr;
        bad.push_back(aimed(fn, r));
    }
    if (guide) /* the guide's domain goes into its URL as it stands */
        bad.push_back([fn, record](uint32_t, const char *, FILE **s) { return fn(&record, nullptr, s); });
    return {name, path, aimed(fn, record), bad, transfer_failure, verify_failure};
}

std::vector<AnyCall> every_call()
{
    return {
        call("KX_UPGRADE_CHECK_VERSION", "/upgrade/check_version", KX_UPGRADE_CHECK_VERSION, kFirmware,
             {&U::ps8CurrentVersion, &U::ps8AccessToken, &U::ps8DvcRsv}, "Failed to call KX_SDK_HTTP_POST.\n",
             "failed to verify xml data!\n"),
        /* names the secure member over either scheme */
        call("KX_APP_UPGRADE_CHECK_VERSION", "/upgrade/check_app_version", KX_APP_UPGRADE_CHECK_VERSION, kApp,
             {&A::ps8CurrentVersion, &A::ps8AccessToken, &A::ps8PackageName}, "Failed to call KX_SDK_HTTPS_POST.\n",
             "failed to verify xml data!\n"),
        call("KX_AD_GET_STRATEGY", "/cgi-bin/epg_index.fcgi", KX_AD_GET_STRATEGY, kStrategy,
             {&S::ps8AdInfo, &S::ps8Token, &S::ps8TvMode, &S::ps8OsVersion}, "Get AD strategy faild!\n",
             "XML verify is false!\n", true),
        call("KX_AD_GET_LINKINFO", "/cgi-bin/epg_index.fcgi", KX_AD_GET_LINKINFO, kLinkInfo,
             {&L::ps8AdLinkId, &L::ps8AdCode, &L::ps8AdPositionOwner, &L::ps8Token, &L::ps8TvMode, &L::ps8OsVersion},
             "Get AD linkinfo faild!\n", "XML verify is false!\n", true),
    };
}

class UpgradeAd : public kxtest::CloudSuite<kxcloud::register_upgrade_ad_services> {
protected:
    /* The guide is always reached over plain HTTP on port 80. */
    bool no_port80() const { return !cloud.http_ready(); }
    std::string domain_of(uint32_t http) const { return http == 1 ? cloud.http_domain() : domain; }
};

/* ---- refusals ------------------------------------------------------------------- */

TEST_F(UpgradeAd, ArgumentsAreCheckedBeforeTheInitialisation)
{
    Stream stream;
    /* Initialised or not, the refused arguments are invalid; uninitialised, good arguments are not enough. */
    for (bool initialised : {true, false}) {
        if (!initialised)
            KX_GLOBAL_DEINIT();
        for (const AnyCall &c : every_call()) {
            for (size_t i = 0; i < c.bad.size() + (initialised ? 0 : 1); ++i) {
                const bool good = i == c.bad.size();
                kxtest::clear_log();
                EXPECT_EQ((good ? c.run : c.bad[i])(0, domain.c_str(), &stream.f), -1) << c.name << " case " << i;
                EXPECT_TRUE(logged(c.name, good ? "please firstly to call KX_GLOBAL_INIT()!\n" : "invalid arg!\n"))
                    << c.name << " case " << i << (initialised ? "" : " (not initialised)");
                EXPECT_FALSE(kxtest::log_contains(good ? "invalid arg!" : "please firstly")) << c.name << " case " << i;
            }
        }
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
    /* the language is sent whole, not through a 4-byte text */
    const std::string tail = "&accessToken=AT-1&version=7.0&format=0&sourceType=1&languageId=";
    struct Case { const char *path; Invoke run; std::string body; };
    auto fw = [&](const char *stat, const char *post, const char *brand, const char *mac, const std::string &optional) {
        return Case{"/upgrade/check_version",
                    aimed(KX_UPGRADE_CHECK_VERSION, U{0, 4000000000u, "V8.09.01", "AT-1", "RSV-1", stat, post, brand, mac}),
                    "msgVersion=513&msgType=256&msgId=66&currentVersion=V8.09.01&dvcRsv=RSV-1" + optional + tail +
                        "4000000000"};
    };
    auto ap = [&](const char *stat, const char *post, const std::string &optional) {
        return Case{"/upgrade/check_app_version",
                    aimed(KX_APP_UPGRADE_CHECK_VERSION, A{0, 2, "3.1.0", "AT-1", "com.kx.video", stat, post}),
                    "packageName=com.kx.video&currentVersion=3.1.0" + optional + tail + "2"};
    };
    const Case cases[] = {
        fw(nullptr, nullptr, nullptr, nullptr, ""),
        fw(nullptr, nullptr, nullptr, "00:1A:2B:3C:4D:5E", "&MAC=00:1A:2B:3C:4D:5E"),
        fw("ST-2", "80331", "", "00:1A", "&statCode=ST-2&postCode=80331&brandCode=&MAC=00:1A"), /* an empty brand is sent */
        ap(nullptr, nullptr, ""),
        ap(nullptr, "80331", "&postCode=80331"),
        ap("ST-2", "80331", "&statCode=ST-2&postCode=80331"),
    };
    for (uint32_t http : {0u, 1u}) {
        if (http == 1 && no_port80())
            GTEST_SKIP() << kNoPort80;
        for (const Case &c : cases) {
            SCOPED_TRACE(c.body + (http == 1 ? " over http" : " over https"));
            fresh();
            Stream stream;
            ASSERT_EQ(c.run(http, domain_of(http).c_str(), &stream.f), 0);
            EXPECT_EQ(route(cloud.last()), std::string(http == 1 ? "http" : "https") + " POST " + c.path);
            EXPECT_EQ(cloud.last().body, c.body);
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
                EXPECT_EQ(c.run(http, domain_of(http).c_str(), &stream.f), -1);
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
    const std::string head = base + "getadstrategy&adinfo=";
    const std::string rest = "&token=AT-1&language_id=-3&tv_mode=dvb&os_version=7.0.1&os_type=-1";
    const std::string filled = rest + "&zipcode=80331&countrycode=DE";
    /* adinfo that makes the whole URL 1023 characters long, and one more */
    const std::string fits(1023 - head.size() - filled.size(), 'a'), over(fits + "a");
    auto strategy = [](const char *ad_info, const char *zip, const char *country) {
        return aimed(KX_AD_GET_STRATEGY, S{ad_info, "AT-1", -3, "dvb", "7.0.1", -1, zip, country});
    };
    const std::pair<Invoke, std::string> cases[] = {
        /* negative numbers, then the optional texts left null */
        {strategy("SLOT-9", "80331", "DE"), head + "SLOT-9" + filled},
        {strategy("SLOT-9", nullptr, nullptr), head + "SLOT-9" + rest + "&zipcode=(null)&countrycode=(null)"},
        /* the owner without "=" */
        {aimed(KX_AD_GET_LINKINFO, kLinkInfo), base + "getadlinkinfo&adlinkid=LINK-4&adcode=AC-1&adpositionowner7"
                                                      "&token=AT-1&language_id=2&tv_mode=dvb&os_version=7.0.1&os_type=5"
                                                      "&zipcode=80331&countrycode=DE"},
        /* 1023 characters are sent whole, 1024 cut */
        {strategy(fits.c_str(), "80331", "DE"), head + fits + filled},
        {strategy(over.c_str(), "80331", "DE"), (head + over + filled).substr(0, 1023)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.second);
        fresh();
        Stream stream;
        ASSERT_EQ(c.first(0, nullptr, &stream.f), 0);
        const kxcloud::Request sent = cloud.last();
        EXPECT_EQ(route(sent), "http GET /cgi-bin/epg_index.fcgi");
        EXPECT_EQ("http://127.0.0.1:80" + sent.target, c.second);
        const bool link = c.second.find("getadlinkinfo") != std::string::npos;
        EXPECT_TRUE(logged(link ? "KX_AD_GET_LINKINFO" : "KX_AD_GET_STRATEGY",
                           (link ? "Linkinfo Url is: " : "Strategy Url is: ") + c.second + "\n", kxtest::kInfo));
        /* The secure member asks for gzip; the plain one would not. */
        EXPECT_EQ(sent.header("Accept-Encoding"), "gzip");
    }
}

}  // namespace
