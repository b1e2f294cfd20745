/*
 * Voice calls against the local cloud, one table for the whole family: each
 * row is a call with a record, the keys of its body in the order the service
 * documents them, and the lines the call logs for that record. The body sends
 * those keys in that order over URL-encoded values; the signed text holds the
 * same keys (less any the row leaves unsigned) in byte order over raw values.
 * The table drives the wire check on every scheme value (body as sent, sign
 * opened with the server's private key to the MD5 of the signed text), the
 * answer file and buffer, the refusals and the failures; the test after it
 * takes the buffers' bounds.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"
#include "suite_text.h"
#include "test_crypto.h"
#include "voice_services.h"

namespace {

using kxtest::fmt;
using kxtest::file_text;
using kxtest::logged;


using Values = std::map<std::string, std::string>;

/* ---- the values ----------------------------------------------------------------------
 * Every record below holds under each key the value given here (unless its row
 * says otherwise). The free texts hold what the encoding must turn (blanks,
 * "&", "=", JSON): the signed text carries them raw, the body encoded. */

constexpr const char *kName = "Living Room & Kitchen";
constexpr const char *kInputs = "[{\"id\":\"HDMI 1\"}]";
constexpr const char *kApps = "[\"tv.netflix\",\"tv.yt\"]";
constexpr const char *kStates = "{\"power\":\"on\",\"input\":\"a=b&c\"}";

/* Stands for what the request makes itself (the nonce, a time). */
const std::string kMade = "{made}";

const Values kSigned = {
    {"accessToken", "AT"}, {"appkey", "APPK"}, {"brandCode", "BR"}, {"statCode", "ST"}, {"capabilityCode", "CAP"},
    {"featureCode", "FEAT"}, {"FeatureCode", "FEAT"}, {"extfield", "EXT"}, {"hsv", "HSV"}, {"languageId", "7"},
    {"sourceType", "3"}, {"version", "7.0"}, {"lwaToken", "LWA"}, {"vsType", "alexa"}, {"vsAbility", "alexa"},
    {"mac", "MAC"}, {"GSEnable", "0"}, {"VSEnable", "1"}, {"clientIdAVS", "CID-8"}, {"deviceSerialNumberAVS", "SN-9"},
    {"productIdAVS", "PID-7"}, {"updatetimeStamp", "1700000000"}, {"displayLanguageId", "de-DE"}, {"type", "2"},
    {"scope", "-1"}, /* 4294967295 through "%d" */
    {"deviceName", kName}, {"inputlist", kInputs}, {"applist", kApps}, {"stateList", kStates},
    {"randStr", kMade}, {"timeStamp", kMade}};
const Values kEncoded = {{"deviceName", "Living+Room+%26+Kitchen"},
                         {"inputlist", "%5B%7B%22id%22%3A%22HDMI+1%22%7D%5D"},
                         {"applist", "%5B%22tv.netflix%22%2C%22tv.yt%22%5D"},
                         {"stateList", "%7B%22power%22%3A%22on%22%2C%22input%22%3A%22a%3Db%26c%22%7D"}};

/* ---- the records ------------------------------------------------------------------ */

using Devices = KX_VOICE_DEVICES_INFO_S;
using Dev = KX_VOICE_DEV_INFO_S;
using Cfg = KX_VOICE_CFG_INFO_S;
using Skill = KX_VOICE_SKILL_INFO_S;
using State = KX_VOICE_DEV_STATE_S;
using Trait = KX_VOICE_TRAIT_STATE_S;
using Action = KX_VOICE_ACTION_INFO_S;
using Phrases = KX_VOICE_PHRASES_INFO_S;
using Query = KX_VOICE_QUERY_S;
using Google = KX_GOOGLE_QUERY_S;
using Portal = KX_WEB_PORTAL_QUERY_S;

const Devices kDevices = {0, kName, "1", "0", "APPK", "MAC", kApps, kInputs, "ST", "BR", "CAP", "FEAT", "EXT",
                          "HSV", "SN-9", "CID-8", "PID-7", "alexa", "AT", "7.0", 7, 3};
const Devices kDevicesBare = {0, kName, "1", "0", "APPK", "MAC", nullptr, kInputs, "ST", "BR", "CAP", "FEAT", "EXT",
                              nullptr, nullptr, nullptr, nullptr, "alexa", "AT", "7.0", 7, 3};
const Dev kDev = {0, kName, "1", "0", "APPK", "MAC", kApps, "ST", "BR", "CAP", "FEAT", "EXT", nullptr, "alexa",
                  "AT", "7.0", 7, 3};
const Cfg kCfg = {0, "APPK", "ST", "BR", "alexa", nullptr, "AT", "7.0", 7, 3};
/* An empty hsv is present: sent and signed as "hsv=". */
const Skill kSkill = {0, "LWA", "ST", "BR", "EXT", "APPK", "", "FEAT", "CAP", "AT", "7.0", 7, 3};
const State kState = {0, "ST", "BR", "APPK", "LWA", kStates, "AT", "7.0", 7, 3};
const Trait kTrait = {0, "ST", "BR", "APPK", kStates, "AT", "7.0", 7, 3};
const Action kAction = {0, "APPK", "BR", "ST", "CAP", "FEAT", "AT", "7.0", 7, 3};
const Phrases kPhrases = {0, "APPK", "BR", "ST", "CAP", "FEAT", 2, "AT", "7.0", 7, 3};
const Query kQuery = {0, "APPK", "ST", "BR", "1700000000", 4294967295u, 2, "CAP", "FEAT", "HSV", "AT", "7.0", 7, 3};
const Query kQueryBare = {0, "APPK", "ST", "BR", nullptr, 4294967295u, 2, "CAP", "FEAT", nullptr, "AT", "7.0", 7, 3};
const Google kGoogle = {0, "APPK", "BR", "ST", "CAP", "FEAT", "1700000000", "AT", "7.0", 7, 3};
const Portal kPortal = {0, "BR", "ST", "de-DE", "AT", "7.0", 7, 3};

template <typename R>
R with(R record, std::function<void(R &)> change)
{
    change(record);
    return record;
}

/* ---- the table ----------------------------------------------------------------------- */

using Invoke = std::function<int32_t(uint32_t http, const char *domain, char *out)>;

/* What the request made itself, read back from what it sent: a 32-digit nonce, or the time. */
std::string made(const std::string &key, Values &sent)
{
    const std::string &value = sent[key];
    if (key == "randStr")
        EXPECT_TRUE(value.size() == 32 && value.find_first_not_of("0123456789") == std::string::npos) << value;
    else
        EXPECT_NEAR(atoll(value.c_str()), static_cast<long long>(time(nullptr)), 5) << key;
    return value;
}

struct Row {
    const char *name, *path, *file;
    bool bang_before;   /* "failed to creat !FILE " rather than "failed to creat FILE! " */
    std::string banner; /* what the banner names */
    Invoke invoke;
    std::vector<Invoke> refused; /* a null record, a null buffer, each required field null */
    /* The body's keys, "&" between them: a key takes the common value, "key=value" stands as
     * written (kMade: what the request sent), and a key after "-" is sent but not signed. */
    std::string keys;
    std::map<std::string, int> lines; /* information lines holding a text, and how many */

    Row logs(std::map<std::string, int> expected) { lines = std::move(expected); return *this; }
    /* The body (the keys in the row's order over encoded values) or the signed text (the
     * signed keys in byte order over raw values). */
    std::string text(bool body, Values &sent) const
    {
        std::vector<std::string> pieces;
        std::istringstream in(keys);
        for (std::string piece; std::getline(in, piece, '&');) {
            if (body || (!piece.empty() && piece[0] != '-'))
                pieces.push_back(piece[0] == '-' ? piece.substr(1) : piece);
        }
        if (!body)
            std::sort(pieces.begin(), pieces.end());
        std::string out;
        for (size_t i = 0; i < pieces.size(); ++i) {
            out += i == 0 ? "" : "&";
            const size_t eq = pieces[i].find('=');
            const std::string key = pieces[i].substr(0, eq);
            if (key.empty())
                continue;
            const std::string value = eq != std::string::npos          ? pieces[i].substr(eq + 1)
                                      : body && kEncoded.count(key) != 0 ? kEncoded.at(key)
                                                                         : kSigned.at(key);
            out += key + "=" + (value == kMade ? made(key, sent) : value);
        }
        return out;
    }
};

template <typename R>
Row row(const char *name, const char *path, const char *file, bool bang_before, const R &record,
        int32_t (*fn)(const R *, const char *, char *), std::vector<const char *R::*> required, std::string keys,
        std::string banner = "")
{
    auto call = [fn](R r) { return [fn, r](uint32_t http, const char *d, char *out) mutable {
                                r.u32ChangeToHttp = http;
                                return fn(&r, d, out);
                            }; };
    std::vector<Invoke> refused = {[fn](uint32_t, const char *d, char *out) { return fn(nullptr, d, out); },
                                   [record, fn](uint32_t, const char *d, char *) { return fn(&record, d, nullptr); }};
    for (const char *R::*field : required)
        refused.push_back(call(with<R>(record, [field](R &r) { r.*field = nullptr; })));
    return {name, path, file, bang_before, banner.empty() ? name : banner, call(record), refused, keys, {}};
}

constexpr bool kBefore = true, kAfter = false;

std::vector<Row> rows()
{
    const std::vector<const char *Devices::*> wreq = {
        &Devices::ps8DeviceName, &Devices::ps8VSEnable, &Devices::ps8GSEnable, &Devices::ps8AppIndex,
        &Devices::mac, &Devices::pjsInputlist, &Devices::ps8StateCode, &Devices::ps8BrandCode,
        &Devices::ps8CapabilityCode, &Devices::ps8FeatureCode, &Devices::ps8ExtField, &Devices::ps8VSAbility,
        &Devices::psVersion, &Devices::psAccessToken};
    const std::vector<const char *Skill::*> skreq = {
        &Skill::ps8lwaToken, &Skill::ps8StatCode, &Skill::ps8BrandCode, &Skill::ps8ExtFiled, &Skill::ps8AppIndex,
        &Skill::ps8FeatureCode, &Skill::ps8CapabilityCode, &Skill::psVersion, &Skill::psAccessToken};
    const std::vector<const char *Action::*> acreq = {&Action::ps8AppIndex, &Action::ps8BrandCode,
        &Action::ps8StateCode, &Action::ps8CapabilityCode, &Action::ps8FeatureCode, &Action::psVersion,
        &Action::psAccessToken};
    const std::vector<const char *Query::*> qreq = {&Query::ps8AppIndex, &Query::ps8BrandCode,
        &Query::ps8CapabilityCode, &Query::ps8FeatureCode, &Query::ps8StatCode, &Query::psVersion};
    const std::vector<const char *Portal::*> preq = {&Portal::ps8BrandCode, &Portal::ps8StateCode,
        &Portal::ps8DisplayLanguageId, &Portal::psVersion, &Portal::psAccessToken};
    const char *devices = "GSEnable&accessToken&clientIdAVS&deviceSerialNumberAVS&productIdAVS&deviceName&vsAbility"
                          "&VSEnable&languageId&version&sourceType&appkey&hsv&inputlist&mac&brandCode&capabilityCode"
                          "&extfield&featureCode&statCode";
    const std::string skill = "accessToken&lwaToken&statCode&brandCode&capabilityCode&featureCode&hsv=&appkey"
                              "&extfield&languageId&version&sourceType";
    const char *action = "accessToken&appkey&FeatureCode&brandCode&capabilityCode&languageId&sourceType&statCode"
                         "&version";
    const char *portal = "accessToken&brandCode&displayLanguageId&languageId&sourceType&statCode&version";
    return {
        /* the full description: every optional value present, then none (the body still names them) */
        row("KX_VOICE_DEVICES_INFO", "/voiceservice/replacedevinfo", "/tmp/replacedevinfo.json", kAfter, kDevices,
            KX_REPLACE_VOICE_DEV_INFO, wreq, devices, "/voiceservice/replacedevinfo")
            .logs({{"    ps8DeviceName: " + kEncoded.at("deviceName") + "\n", 1},
                   {"    pjsInputlist: " + kEncoded.at("inputlist") + "\n", 1}, {"    ps8Hsv: HSV\n", 1}}),
        row("KX_VOICE_DEVICES_INFO", "/voiceservice/reportdeviceinfo", "/tmp/reportdeviceinfo.json", kAfter,
            kDevicesBare, KX_REPORT_VOICE_DEVICES_INFO, wreq,
            "GSEnable&accessToken&-clientIdAVS=(null)&-deviceSerialNumberAVS=(null)&-productIdAVS=(null)&deviceName"
            "&vsAbility&VSEnable&languageId&version&sourceType&appkey&-hsv=(null)&inputlist&mac&brandCode"
            "&capabilityCode&extfield&featureCode&statCode",
            "/voiceservice/reportdeviceinfo")
            .logs({{"    ps8Hsv", 0}}),
        /* registration and state; an unchecked null vsAbility travels as "(null)" */
        row("KX_PUSH_VOICE_DEV_INFO", "/voiceservice/reportdevinfo", "/tmp/pushdevinfo.json", kBefore,
            with<Dev>(kDev, [](Dev &d) { d.ps8VSAbility = nullptr; }), KX_PUSH_VOICE_DEV_INFO,
            {&Dev::ps8DeviceName, &Dev::ps8VSEnable, &Dev::ps8GSEnable, &Dev::ps8AppIndex, &Dev::mac, &Dev::Applist,
             &Dev::psVersion, &Dev::psAccessToken},
            "accessToken&deviceName&GSEnable&VSEnable&languageId&version&sourceType&vsAbility=(null)&appkey&applist&mac")
            .logs({{"    ps8VSAbility: (null)\n", 1}, {fmt("cjsonBuff length is %zu.\n", strlen(kApps)), 1}}),
        row("KX_GET_VOICE_DEV_INFO", "/voiceservice/getdevinfo", "/tmp/getdevinfo.json", kBefore, kDev,
            KX_GET_VOICE_DEV_INFO, {&Dev::ps8AppIndex, &Dev::psVersion, &Dev::psAccessToken},
            "accessToken&languageId&version&sourceType&appkey"),
        row("KX_DELETE_VOICE_DEV_INFO", "/voiceservice/deletedevinfo", "/tmp/deletedevinfo.json", kBefore, kDev,
            KX_DELETE_VOICE_DEV_INFO,
            {&Dev::ps8AppIndex, &Dev::ps8StateCode, &Dev::ps8BrandCode, &Dev::ps8CapabilityCode,
             &Dev::ps8FeatureCode, &Dev::ps8ExtField, &Dev::psVersion, &Dev::psAccessToken},
            "accessToken&languageId&version&sourceType&appkey&brandCode&capabilityCode&extfield&featureCode&statCode"),
        row("KX_GET_VOICE_CFG_INFO", "/voiceservice/get_deviceportal_url", "/tmp/getconfig.json", kBefore, kCfg,
            KX_GET_VOICE_CFG_INFO,
            {&Cfg::ps8AppIndex, &Cfg::ps8StatCode, &Cfg::ps8BrandCode, &Cfg::ps8VsType, &Cfg::psVersion,
             &Cfg::psAccessToken},
            "accessToken&appkey&brandCode&statCode&languageId&format=1&version&randStr&sourceType&timeStamp&vsType"),
        /* hsv empty, then null */
        row("KX_ENABLE_VOICE_SKILL", "/voiceservice/enableskill", "/tmp/getSkill.json", kBefore, kSkill,
            KX_ENABLE_VOICE_SKILL, skreq, skill).logs({{"    ps8Hsv: \n", 1}}),
        row("KX_RESET_VOICE_SKILL", "/voiceservice/resetskillenablement", "/tmp/getSkill.json", kBefore,
            with<Skill>(kSkill, [](Skill &s) { s.ps8Hsv = nullptr; }), KX_RESET_VOICE_SKILL, skreq,
            std::string(skill).erase(skill.find("&hsv="), 5), "KX_ENABLE_VOICE_SKILL"),
        row("KX_REPORT_VOICE_DEV_STATE", "/voiceservice/reportstate", "/tmp/reportstate.json", kAfter, kState,
            KX_REPORT_VOICE_DEV_STATE,
            {&State::ps8StateCode, &State::ps8BrandCode, &State::ps8AppIndex, &State::ps8LwaToken,
             &State::ps8StateList, &State::psVersion, &State::psAccessToken},
            "accessToken&appkey&brandCode&languageId&lwaToken&sourceType&statCode&stateList&version"),
        row("KX_REPORT_VOICE_TRAIT_STATE", "/voiceservice/reporttraitstate", "/tmp/reporttraitstate.json", kAfter,
            kTrait, KX_REPORT_VOICE_TRAIT_STATE,
            {&Trait::ps8StateCode, &Trait::ps8BrandCode, &Trait::ps8AppIndex, &Trait::ps8StateList,
             &Trait::psVersion, &Trait::psAccessToken},
            "accessToken&appkey&brandCode&languageId&sourceType&statCode&stateList&version"),
        /* the device name is sent but not signed */
        row("KX_GET_VOICE_DEVICES_INFO", "/voiceservice/getdeviceinfo", "/tmp/getdeviceinfo.json", kAfter, kDevices,
            KX_GET_VOICE_DEVICES_INFO,
            {&Devices::ps8AppIndex, &Devices::ps8DeviceName, &Devices::Applist, &Devices::psVersion,
             &Devices::psAccessToken},
            "accessToken&-deviceName&languageId&version&sourceType&appkey")
            .logs({{fmt("cjsonBuff length is %zu.\n", strlen(kApps)), 1}}),
        row("KX_PUSH_ACTION_INFO", "/voiceservice/get_action_info", "/tmp/getactioninfo.json", kAfter, kAction,
            KX_PUSH_ACTION_INFO, acreq, action),
        row("KX_PUSH_SIMPLE_PHRASES_INFO", "/voiceservice/get_sample_phrases", "/tmp/get_sample_phrases.json",
            kAfter, kPhrases, KX_PUSH_SIMPLE_PHRASES_INFO,
            {&Phrases::ps8AppIndex, &Phrases::ps8BrandCode, &Phrases::ps8StateCode, &Phrases::ps8CapabilityCode,
             &Phrases::ps8FeatureCode, &Phrases::psVersion, &Phrases::psAccessToken},
            "accessToken&appkey&FeatureCode&brandCode&capabilityCode&languageId&sourceType&statCode&type&version"),
        /* Alexa side: with and without hsv; an unchecked null stamp or token travels as "(null)" */
        row("KX_GET_ALEXA_LANGUAGE", "/voiceservice/get_alexa_language", "/tmp/getAlexaLan.json", kBefore,
            with<Query>(kQuery, [](Query &q) { q.ps8UpdatetimeStamp = nullptr; }), KX_GET_ALEXA_LANGUAGE, qreq,
            "appkey&brandCode&capabilityCode&FeatureCode&format=1&hsv&languageId&randStr&sourceType&statCode"
            "&updatetimeStamp=(null)&version"),
        row("KX_GET_ALEXA_LOCAL", "/voiceservice/get_alexa_locale", "/tmp/getAlexaLocal.json", kBefore, kQuery,
            KX_GET_ALEXA_LOCAL, qreq,
            "appkey&brandCode&capabilityCode&FeatureCode&hsv&format=1&languageId&randStr&sourceType&statCode"
            "&updatetimeStamp&version"),
        row("KX_GET_ALEXA_ENDPOINT", "/voiceservice/get_alexa_endpoint_url", "/tmp/getAvsEndPoint.json", kBefore,
            with<Query>(kQuery, [](Query &q) { q.psAccessToken = nullptr; q.ps8CapabilityCode = nullptr; }),
            KX_GET_ALEXA_ENDPOINT, {&Query::ps8AppIndex, &Query::ps8BrandCode, &Query::ps8StatCode, &Query::psVersion},
            "accessToken=(null)&appkey&brandCode&format=1&languageId&randStr&sourceType&statCode&version"),
        row("KX_GET_ALEXA_SALE_INFO", "/voiceservice/get_sales_support_info", "/tmp/getSalsSupportInfo.json",
            kBefore, kQueryBare, KX_GET_ALEXA_SALE_INFO, qreq,
            "appkey&brandCode&capabilityCode&FeatureCode&format=1&languageId&randStr&sourceType&statCode&version"),
        row("KX_GET_SKILL_INFO", "/voiceservice/get_skill_info", "/tmp/getSkillInfo.json", kBefore, kQuery,
            KX_GET_SKILL_INFO, qreq,
            "appkey&brandCode&format=1&capabilityCode&FeatureCode&hsv&languageId&randStr&sourceType&statCode&version"),
        row("KX_GET_SAMPLE_UTTERANCE", "/voiceservice/get_sample_utterance", "/tmp/getSampleInfo.json", kBefore,
            kQueryBare, KX_GET_SAMPLE_UTTERANCE, qreq,
            "appkey&brandCode&capabilityCode&FeatureCode&format=1&languageId&randStr&scope&sourceType&statCode&type"
            "&version")
            .logs({{"start KX_GET_SAMPLE_UTTERANCE\n", 1}, {"KX_CREATE_RAND_STRING success\n", 1},
                   {"    u32Scope: -1\n", 1}, {"    ps8Hsv", 0}}),
        /* Google, sales, web portal */
        row("KX_GET_GOOGLE_LANGUAGE_INFO", "/voiceservice/get_google_language", "/tmp/get_google_language.json",
            kAfter, kGoogle, KX_GET_GOOGLE_LANGUAGE_INFO,
            {&Google::ps8AppIndex, &Google::ps8BrandCode, &Google::ps8StateCode, &Google::ps8CapabilityCode,
             &Google::ps8FeatureCode, &Google::ps8UpdatetimeStamp, &Google::psVersion, &Google::psAccessToken},
            "FeatureCode&appkey&brandCode&capabilityCode&languageId&sourceType&statCode&updatetimeStamp&version"),
        /* the locale query with a stamp doubles the "&" after FeatureCode; without one it sends the time */
        row("KX_GET_GOOGLE_LOCALE_INFO", "/voiceservice/get_google_locale", "/tmp/get_google_locale.json", kAfter,
            with<Google>(kGoogle, [](Google &g) { g.ps8FeatureCode = nullptr; }), KX_GET_GOOGLE_LOCALE_INFO,
            {&Google::ps8AppIndex, &Google::ps8BrandCode, &Google::ps8StateCode, &Google::psVersion,
             &Google::psAccessToken},
            "FeatureCode=(null)&&appkey&brandCode&capabilityCode&languageId&sourceType&statCode&updatetimeStamp"
            "&version")
            .logs({{"ps8UpdatetimeStamp != NULL.\n", 1}, {"ps8UpdatetimeStamp: 1700000000\n", 1},
                   {"ps8UpdatetimeStamp !!= NULL.\n", 1}}),
        row("KX_GET_GOOGLE_LOCALE_INFO", "/voiceservice/get_google_locale", "/tmp/get_google_locale.json", kAfter,
            with<Google>(kGoogle, [](Google &g) { g.ps8UpdatetimeStamp = nullptr; }), KX_GET_GOOGLE_LOCALE_INFO, {},
            "FeatureCode&appkey&brandCode&capabilityCode&languageId&sourceType&statCode&updatetimeStamp={made}&version")
            .logs({{"ps8UpdatetimeStamp == NULL.\n", 2}}),
        row("KX_GET_SALES_INFO", "/voiceservice/get_sales_info", "/tmp/get_sales_info.json", kAfter, kAction,
            KX_GET_SALES_INFO, acreq, action),
        row("KX_GET_WEB_PORTAL_LANGUAGE_INFO", "/voiceservice/get_web_portal_language",
            "/tmp/get_web_portal_language.json", kAfter, kPortal, KX_GET_WEB_PORTAL_LANGUAGE_INFO, preq, portal),
        row("KX_GET_WEB_PORTAL_LOCALE_INFO", "/voiceservice/get_web_portal_locale", "/tmp/get_web_portal_locale.json",
            kAfter, kPortal, KX_GET_WEB_PORTAL_LOCALE_INFO, preq, portal),
    };
}

class Voice : public kxtest::CloudSuite<kxcloud::register_voice_services> {
protected:
    char result[65536] = {};

    /* Between rows the result buffer is emptied too. */
    void fresh()
    {
        CloudSuite::fresh();
        memset(result, 0, sizeof result);
    }
};

/* ---- the whole family --------------------------------------------------------------- */

TEST_F(Voice, EveryCallSendsItsDocumentedTextsOverItsSchemeAndDeliversTheVerifiedAnswer)
{
    const bool plain = cloud.http_ready();
    for (const Row &r : rows()) {
        /* Only 1 selects plain HTTP. */
        for (uint32_t http : {0u, 1u, 2u}) {
            if (http == 1 && !plain)
                continue;
            SCOPED_TRACE(fmt("%s over %u", r.path, http));
            fresh();
            unlink(r.file);
            ASSERT_EQ(r.invoke(http, http == 1 ? "127.0.0.1" : domain.c_str(), result), 0);
            const kxcloud::Request sent = cloud.last();
            EXPECT_EQ(kxtest::route(sent) + sent.query, (http == 1 ? "http POST " : "https POST ") + std::string(r.path));
            /* The body as sent (what the request made read from it), the sign opened to the signed text. */
            Values pairs = sent.form();
            const std::string text = r.text(false, pairs);
            EXPECT_EQ(sent.body, r.text(true, pairs) + "&sign=" + pairs["sign"]);
            EXPECT_EQ(kxtest::open_request_signature(pairs["sign"]), kxtest::md5_raw(text)) << text;

            const std::string answer = kxcloud::voice_service_answer(r.path);
            EXPECT_EQ(std::string(result), answer);
            EXPECT_EQ(file_text(r.file), kxcloud::signed_json(answer)) << "the raw answer stays on disk";
            EXPECT_TRUE(logged(r.name, "=================" + r.banner + " input param=================\n", kxtest::kInfo));
            EXPECT_TRUE(logged(r.name, "=================" + r.banner + " end=================\n", kxtest::kInfo));
            for (const auto &line : r.lines)
                EXPECT_EQ(kxtest::log_count(line.first, kxtest::kInfo), line.second) << line.first;
        }
    }
    if (!plain)
        GTEST_SKIP() << "port 80 needs the private network namespace";
}

TEST_F(Voice, EveryFailureGivesMinusOneInTheCallsOwnWords)
{
    const char *d = domain.c_str();
    for (const Row &r : rows()) {
        SCOPED_TRACE(r.path);
        fresh();
        /* Before any traffic: initialised, the refused records are invalid arguments; uninitialised, every
         * call says so before it looks at its arguments. */
        for (bool initialised : {true, false}) {
            if (!initialised)
                KX_GLOBAL_DEINIT();
            for (size_t i = 0; i < r.refused.size() + (initialised ? 0 : 1); ++i) {
                kxtest::clear_log();
                EXPECT_EQ((i < r.refused.size() ? r.refused[i] : r.invoke)(0, d, result), -1) << "case " << i;
                EXPECT_TRUE(logged(r.name, initialised ? "invalid arg!\n" : "please firstly to call KX_GLOBAL_INIT()!\n"))
                    << "case " << i;
                EXPECT_FALSE(kxtest::log_contains(initialised ? "Get ps8Url" : "invalid arg!")) << "case " << i;
            }
        }
        ASSERT_EQ(KX_GLOBAL_INIT("127.0.0.1"), 0);
        /* No domain, no key, an answer file that cannot be created. */
        EXPECT_EQ(r.invoke(0, nullptr, result), -1);
        EXPECT_TRUE(logged(r.name, "failed to call KX_SDK_CREATE_URL().\n"));
        auto key = gpKey;
        gpKey = nullptr;
        EXPECT_EQ(r.invoke(0, d, result), -1);
        gpKey = key;
        EXPECT_TRUE(logged(r.name, "create signature failed.\n"));
        unlink(r.file);
        ASSERT_EQ(mkdir(r.file, 0700), 0) << r.file;
        EXPECT_EQ(r.invoke(0, d, result), -1);
        rmdir(r.file);
        EXPECT_TRUE(logged(r.name, r.bang_before ? fmt("failed to creat !%s \n", r.file) : fmt("failed to creat %s! \n", r.file)));
        EXPECT_TRUE(cloud.requests().empty());

        /* An answer that does not verify leaves the file empty. */
        std::string tampered = kxcloud::signed_json(kxcloud::voice_service_answer(r.path));
        tampered[tampered.find("resultCode\":0") + 12] = '7';
        cloud.reply("*", r.path, {200, tampered});
        EXPECT_EQ(r.invoke(0, d, result), -1);
        EXPECT_TRUE(logged(r.name, "failed to verify json data!\n"));
        EXPECT_EQ(file_text(r.file), "");
    }
}

/* ---- the buffers' bounds -------------------------------------------------------------- */

TEST_F(Voice, EncodedValuesAreCutToTheirBuffersAndAFailedStateListEncodingStopsTheCall)
{
    /* 1100 plain characters keep 1023; "&" takes three characters, so 340 of them fill 1020 and the next
     * would not fit whole; a list of 5200 plain characters keeps 5119. */
    std::string escaped;
    for (int i = 0; i < 340; ++i)
        escaped += "%26";
    const struct { decltype(&KX_REPLACE_VOICE_DEV_INFO) call; const char *Devices::*field; const char *key;
                   std::string value, sent; } cuts[] = {
        {KX_REPLACE_VOICE_DEV_INFO, &Devices::ps8DeviceName, "deviceName", std::string(1100, 'n'), std::string(1023, 'n')},
        {KX_GET_VOICE_DEVICES_INFO, &Devices::ps8DeviceName, "deviceName", std::string(400, '&'), escaped},
        {KX_REPLACE_VOICE_DEV_INFO, &Devices::pjsInputlist, "inputlist", std::string(5200, 'l'), std::string(5119, 'l')},
    };
    for (const auto &c : cuts) {
        Devices d = kDevices;
        d.*c.field = c.value.c_str();
        ASSERT_EQ(c.call(&d, domain.c_str(), result), 0) << c.key;
        EXPECT_EQ(cloud.last().form()[c.key], c.sent);
    }

    /* The state reports give up instead of sending a cut list. */
    const std::string quotes(2000, '"');
    for (const char *list : {"", quotes.c_str()}) {
        cloud.reset();
        kxtest::clear_log();
        State s = kState;
        s.ps8StateList = list;
        EXPECT_EQ(KX_REPORT_VOICE_DEV_STATE(&s, domain.c_str(), result), -1);
        EXPECT_TRUE(logged("KX_REPORT_VOICE_DEV_STATE", "KX_SDK_URLEncode with something error.\n"));
        EXPECT_TRUE(cloud.requests().empty());
    }
}

}  // namespace
