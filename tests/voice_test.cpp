/*
 * Voice calls against the local cloud, one table for the whole family: each
 * row is a call with a record, and the signed text and the body as the
 * service documents them (its format filled with the record's values). The
 * table drives the wire check (body as sent, sign opened with the server's
 * private key to the MD5 of the signed text), the answer file and buffer, the
 * scheme choice, the refusals and the answer failures; the tests after it
 * take the call-specific rules one by one.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "suite_text.h"
#include "test_cloud.h"
#include "test_crypto.h"
#include "voice_services.h"

namespace {

using kxtest::fmt;
using kxtest::file_text;

using kxcloud::Cloud;

/* Most lines checked here are the information class's. */
bool logged(const std::string &call, const std::string &message, unsigned level = kxtest::kInfo)
{
    return kxtest::logged(call, message, level);
}

/* {rand} and {time} replaced by what the request carried. */
std::string fill(std::string text, std::map<std::string, std::string> sent)
{
    const std::pair<const char *, std::string> values[] = {{"{rand}", sent["randStr"]}, {"{time}", sent["timeStamp"]}};
    for (const auto &v : values)
        for (size_t at; (at = text.find(v.first)) != std::string::npos;)
            text.replace(at, strlen(v.first), v.second);
    return text;
}

/* ---- the records ------------------------------------------------------------------ */

/* Free texts holding what the encoding must turn: blanks, "&", "=", JSON. */
constexpr const char *kName = "Living Room & Kitchen";
constexpr const char *kNameSent = "Living+Room+%26+Kitchen";
constexpr const char *kInputs = "[{\"id\":\"HDMI 1\"}]";
constexpr const char *kInputsSent = "%5B%7B%22id%22%3A%22HDMI+1%22%7D%5D";
constexpr const char *kApps = "[\"tv.netflix\",\"tv.yt\"]";
constexpr const char *kAppsSent = "%5B%22tv.netflix%22%2C%22tv.yt%22%5D";
constexpr const char *kStates = "{\"power\":\"on\",\"input\":\"a=b&c\"}";
constexpr const char *kStatesSent = "%7B%22power%22%3A%22on%22%2C%22input%22%3A%22a%3Db%26c%22%7D";

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
const Skill kSkill = {0, "LWA", "ST", "BR", "EXT", "APPK", "HSV", "FEAT", "CAP", "AT", "7.0", 7, 3};
const State kState = {0, "ST", "BR", "APPK", "LWA", kStates, "AT", "7.0", 7, 3};
const Trait kTrait = {0, "ST", "BR", "APPK", kStates, "AT", "7.0", 7, 3};
const Action kAction = {0, "APPK", "BR", "ST", "CAP", "FEAT", "AT", "7.0", 7, 3};
const Phrases kPhrases = {0, "APPK", "BR", "ST", "CAP", "FEAT", 2, "AT", "7.0", 7, 3};
const Query kQuery = {0, "APPK", "ST", "BR", "1700000000", 4294967295u, 2, "CAP", "FEAT", "HSV", "AT", "7.0", 7, 3};
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

struct Row {
    const char *name, *path, *file;
    bool bang_before;   /* "failed to creat !FILE " rather than "failed to creat FILE! " */
    std::string banner; /* what the banner names */
    Invoke invoke;
    std::vector<Invoke> refused; /* a null record, a null buffer, each required field null */
    std::string sign, body;                 /* {rand} and {time} stand for the request's own */
};

template <typename R>
Row row(const char *name, const char *path, const char *file, bool bang_before, const R &record,
        int32_t (*fn)(const R *, const char *, char *), std::vector<const char *R::*> required, std::string sign,
        std::string body, std::string banner = "")
{
    auto call = [fn](R r) { return [fn, r](uint32_t http, const char *d, char *out) mutable {
                                r.u32ChangeToHttp = http;
                                return fn(&r, d, out);
                            }; };
    std::vector<Invoke> refused = {[fn](uint32_t, const char *d, char *out) { return fn(nullptr, d, out); },
                                   [record, fn](uint32_t, const char *d, char *) { return fn(&record, d, nullptr); }};
    for (const char *R::*field : required)
        refused.push_back(call(with<R>(record, [field](R &r) { r.*field = nullptr; })));
    return {name, path, file, bang_before, banner.empty() ? name : banner, call(record), refused, sign, body};
}

constexpr bool kBefore = true, kAfter = false;

std::vector<Row> rows()
{
    const std::string wsign = "GSEnable=%s&VSEnable=%s&accessToken=%s&appkey=%s&brandCode=%s&capabilityCode=%s";
    const char *wbody = "GSEnable=%s&accessToken=%s&clientIdAVS=%s&deviceSerialNumberAVS=%s&productIdAVS=%s"
                        "&deviceName=%s&vsAbility=%s&VSEnable=%s&languageId=%s&version=%s&sourceType=%s&appkey=%s"
                        "&hsv=%s&inputlist=%s&mac=%s&brandCode=%s&capabilityCode=%s&extfield=%s&featureCode=%s"
                        "&statCode=%s";
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
    const Query bare_query = with<Query>(kQuery, [](Query &q) { q.ps8Hsv = nullptr; q.ps8UpdatetimeStamp = nullptr; });
    const std::string alexa_sign = "FeatureCode=%s&appkey=%s&brandCode=%s&capabilityCode=%s&format=1&hsv=%s"
                                   "&languageId=%s&randStr=%s&sourceType=%s&statCode=%s&updatetimeStamp=%s&version=%s";
    const char *action_sign = "FeatureCode=%s&accessToken=%s&appkey=%s&brandCode=%s&capabilityCode=%s&languageId=%s"
                              "&sourceType=%s&statCode=%s&version=%s";
    const char *action_body = "accessToken=%s&appkey=%s&FeatureCode=%s&brandCode=%s&capabilityCode=%s&languageId=%s"
                              "&sourceType=%s&statCode=%s&version=%s";
    const char *google = "FeatureCode=%s&appkey=%s&brandCode=%s&capabilityCode=%s&languageId=%s&sourceType=%s"
                         "&statCode=%s&updatetimeStamp=%s&version=%s";
    const char *portal = "accessToken=%s&brandCode=%s&displayLanguageId=%s&languageId=%s&sourceType=%s&statCode=%s"
                         "&version=%s";
    return {
        /* the full description: every optional value present, then none */
        row("KX_VOICE_DEVICES_INFO", "/voiceservice/replacedevinfo", "/tmp/replacedevinfo.json", kAfter, kDevices,
            KX_REPLACE_VOICE_DEV_INFO, wreq,
            fmt((wsign + "&clientIdAVS=%s&deviceName=%s&deviceSerialNumberAVS=%s&extfield=%s&featureCode=%s&hsv=%s"
                         "&inputlist=%s&languageId=%s&mac=%s&productIdAVS=%s&sourceType=%s&statCode=%s&version=%s"
                         "&vsAbility=%s").c_str(),
                "0", "1", "AT", "APPK", "BR", "CAP", "CID-8", kName, "SN-9", "EXT", "FEAT", "HSV", kInputs, "7",
                "MAC", "PID-7", "3", "ST", "7.0", "alexa"),
            fmt(wbody, "0", "AT", "CID-8", "SN-9", "PID-7", kNameSent, "alexa", "1", "7", "7.0", "3", "APPK", "HSV",
                kInputsSent, "MAC", "BR", "CAP", "EXT", "FEAT", "ST"),
            "/voiceservice/replacedevinfo"),
        row("KX_VOICE_DEVICES_INFO", "/voiceservice/reportdeviceinfo", "/tmp/reportdeviceinfo.json", kAfter,
            kDevicesBare, KX_REPORT_VOICE_DEVICES_INFO, wreq,
            fmt((wsign + "&deviceName=%s&extfield=%s&featureCode=%s&inputlist=%s&languageId=%s&mac=%s&sourceType=%s"
                         "&statCode=%s&version=%s&vsAbility=%s").c_str(),
                "0", "1", "AT", "APPK", "BR", "CAP", kName, "EXT", "FEAT", kInputs, "7", "MAC", "3", "ST", "7.0",
                "alexa"),
            fmt(wbody, "0", "AT", "(null)", "(null)", "(null)", kNameSent, "alexa", "1", "7", "7.0", "3", "APPK",
                "(null)", kInputsSent, "MAC", "BR", "CAP", "EXT", "FEAT", "ST"),
            "/voiceservice/reportdeviceinfo"),
        /* registration and state; an unchecked null vsAbility travels as "(null)" */
        row("KX_PUSH_VOICE_DEV_INFO", "/voiceservice/reportdevinfo", "/tmp/pushdevinfo.json", kBefore,
            with<Dev>(kDev, [](Dev &d) { d.ps8VSAbility = nullptr; }), KX_PUSH_VOICE_DEV_INFO,
            {&Dev::ps8DeviceName, &Dev::ps8VSEnable, &Dev::ps8GSEnable, &Dev::ps8AppIndex, &Dev::mac, &Dev::Applist,
             &Dev::psVersion, &Dev::psAccessToken},
            fmt("GSEnable=%s&VSEnable=%s&accessToken=%s&appkey=%s&applist=%s&deviceName=%s&languageId=%s&mac=%s"
                "&sourceType=%s&version=%s&vsAbility=%s",
                "0", "1", "AT", "APPK", kApps, kName, "7", "MAC", "3", "7.0", "(null)"),
            fmt("accessToken=%s&deviceName=%s&GSEnable=%s&VSEnable=%s&languageId=%s&version=%s&sourceType=%s"
                "&vsAbility=%s&appkey=%s&applist=%s&mac=%s",
                "AT", kNameSent, "0", "1", "7", "7.0", "3", "(null)", "APPK", kAppsSent, "MAC")),
        row("KX_GET_VOICE_DEV_INFO", "/voiceservice/getdevinfo", "/tmp/getdevinfo.json", kBefore, kDev,
            KX_GET_VOICE_DEV_INFO, {&Dev::ps8AppIndex, &Dev::psVersion, &Dev::psAccessToken},
            fmt("accessToken=%s&appkey=%s&languageId=%s&sourceType=%s&version=%s", "AT", "APPK", "7", "3", "7.0"),
            fmt("accessToken=%s&languageId=%s&version=%s&sourceType=%s&appkey=%s", "AT", "7", "7.0", "3", "APPK")),
        row("KX_DELETE_VOICE_DEV_INFO", "/voiceservice/deletedevinfo", "/tmp/deletedevinfo.json", kBefore, kDev,
            KX_DELETE_VOICE_DEV_INFO,
            {&Dev::ps8AppIndex, &Dev::ps8StateCode, &Dev::ps8BrandCode, &Dev::ps8CapabilityCode,
             &Dev::ps8FeatureCode, &Dev::ps8ExtField, &Dev::psVersion, &Dev::psAccessToken},
            fmt("accessToken=%s&appkey=%s&brandCode=%s&capabilityCode=%s&extfield=%s&featureCode=%s&languageId=%s"
                "&sourceType=%s&statCode=%s&version=%s",
                "AT", "APPK", "BR", "CAP", "EXT", "FEAT", "7", "3", "ST", "7.0"),
            fmt("accessToken=%s&languageId=%s&version=%s&sourceType=%s&appkey=%s&brandCode=%s&capabilityCode=%s"
                "&extfield=%s&featureCode=%s&statCode=%s",
                "AT", "7", "7.0", "3", "APPK", "BR", "CAP", "EXT", "FEAT", "ST")),
        row("KX_GET_VOICE_CFG_INFO", "/voiceservice/get_deviceportal_url", "/tmp/getconfig.json", kBefore, kCfg,
            KX_GET_VOICE_CFG_INFO,
            {&Cfg::ps8AppIndex, &Cfg::ps8StatCode, &Cfg::ps8BrandCode, &Cfg::ps8VsType, &Cfg::psVersion,
             &Cfg::psAccessToken},
            fmt("accessToken=%s&appkey=%s&brandCode=%s&format=1&languageId=%s&randStr=%s&sourceType=%s&statCode=%s"
                "&timeStamp=%s&version=%s&vsType=%s",
                "AT", "APPK", "BR", "7", "{rand}", "3", "ST", "{time}", "7.0", "alexa"),
            fmt("accessToken=%s&appkey=%s&brandCode=%s&statCode=%s&languageId=%s&format=1&version=%s&randStr=%s"
                "&sourceType=%s&timeStamp=%s&vsType=%s",
                "AT", "APPK", "BR", "ST", "7", "7.0", "{rand}", "3", "{time}", "alexa")),
        row("KX_ENABLE_VOICE_SKILL", "/voiceservice/enableskill", "/tmp/getSkill.json", kBefore, kSkill,
            KX_ENABLE_VOICE_SKILL, skreq,
            fmt("accessToken=%s&appkey=%s&brandCode=%s&capabilityCode=%s&extfield=%s&featureCode=%s&hsv=%s"
                "&languageId=%s&lwaToken=%s&sourceType=%s&statCode=%s&version=%s",
                "AT", "APPK", "BR", "CAP", "EXT", "FEAT", "HSV", "7", "LWA", "3", "ST", "7.0"),
            fmt("accessToken=%s&lwaToken=%s&statCode=%s&brandCode=%s&capabilityCode=%s&featureCode=%s&hsv=%s"
                "&appkey=%s&extfield=%s&languageId=%s&version=%s&sourceType=%s",
                "AT", "LWA", "ST", "BR", "CAP", "FEAT", "HSV", "APPK", "EXT", "7", "7.0", "3")),
        row("KX_RESET_VOICE_SKILL", "/voiceservice/resetskillenablement", "/tmp/getSkill.json", kBefore,
            with<Skill>(kSkill, [](Skill &s) { s.ps8Hsv = nullptr; }), KX_RESET_VOICE_SKILL, skreq,
            fmt("accessToken=%s&appkey=%s&brandCode=%s&capabilityCode=%s&extfield=%s&featureCode=%s&languageId=%s"
                "&lwaToken=%s&sourceType=%s&statCode=%s&version=%s",
                "AT", "APPK", "BR", "CAP", "EXT", "FEAT", "7", "LWA", "3", "ST", "7.0"),
            fmt("accessToken=%s&lwaToken=%s&statCode=%s&brandCode=%s&capabilityCode=%s&featureCode=%s&appkey=%s"
                "&extfield=%s&languageId=%s&version=%s&sourceType=%s",
                "AT", "LWA", "ST", "BR", "CAP", "FEAT", "APPK", "EXT", "7", "7.0", "3"),
            "KX_ENABLE_VOICE_SKILL"),
        row("KX_REPORT_VOICE_DEV_STATE", "/voiceservice/reportstate", "/tmp/reportstate.json", kAfter, kState,
            KX_REPORT_VOICE_DEV_STATE,
            {&State::ps8StateCode, &State::ps8BrandCode, &State::ps8AppIndex, &State::ps8LwaToken,
             &State::ps8StateList, &State::psVersion, &State::psAccessToken},
            fmt("accessToken=%s&appkey=%s&brandCode=%s&languageId=%s&lwaToken=%s&sourceType=%s&statCode=%s"
                "&stateList=%s&version=%s",
                "AT", "APPK", "BR", "7", "LWA", "3", "ST", kStates, "7.0"),
            fmt("accessToken=%s&appkey=%s&brandCode=%s&languageId=%s&lwaToken=%s&sourceType=%s&statCode=%s"
                "&stateList=%s&version=%s",
                "AT", "APPK", "BR", "7", "LWA", "3", "ST", kStatesSent, "7.0")),
        row("KX_REPORT_VOICE_TRAIT_STATE", "/voiceservice/reporttraitstate", "/tmp/reporttraitstate.json", kAfter,
            kTrait, KX_REPORT_VOICE_TRAIT_STATE,
            {&Trait::ps8StateCode, &Trait::ps8BrandCode, &Trait::ps8AppIndex, &Trait::ps8StateList,
             &Trait::psVersion, &Trait::psAccessToken},
            fmt("accessToken=%s&appkey=%s&brandCode=%s&languageId=%s&sourceType=%s&statCode=%s&stateList=%s"
                "&version=%s",
                "AT", "APPK", "BR", "7", "3", "ST", kStates, "7.0"),
            fmt("accessToken=%s&appkey=%s&brandCode=%s&languageId=%s&sourceType=%s&statCode=%s&stateList=%s"
                "&version=%s",
                "AT", "APPK", "BR", "7", "3", "ST", kStatesSent, "7.0")),
        row("KX_GET_VOICE_DEVICES_INFO", "/voiceservice/getdeviceinfo", "/tmp/getdeviceinfo.json", kAfter, kDevices,
            KX_GET_VOICE_DEVICES_INFO,
            {&Devices::ps8AppIndex, &Devices::ps8DeviceName, &Devices::Applist, &Devices::psVersion,
             &Devices::psAccessToken},
            fmt("accessToken=%s&appkey=%s&languageId=%s&sourceType=%s&version=%s", "AT", "APPK", "7", "3", "7.0"),
            fmt("accessToken=%s&deviceName=%s&languageId=%s&version=%s&sourceType=%s&appkey=%s", "AT", kNameSent,
                "7", "7.0", "3", "APPK")),
        row("KX_PUSH_ACTION_INFO", "/voiceservice/get_action_info", "/tmp/getactioninfo.json", kAfter, kAction,
            KX_PUSH_ACTION_INFO, acreq, fmt(action_sign, "FEAT", "AT", "APPK", "BR", "CAP", "7", "3", "ST", "7.0"),
            fmt(action_body, "AT", "APPK", "FEAT", "BR", "CAP", "7", "3", "ST", "7.0")),
        row("KX_PUSH_SIMPLE_PHRASES_INFO", "/voiceservice/get_sample_phrases", "/tmp/get_sample_phrases.json",
            kAfter, kPhrases, KX_PUSH_SIMPLE_PHRASES_INFO,
            {&Phrases::ps8AppIndex, &Phrases::ps8BrandCode, &Phrases::ps8StateCode, &Phrases::ps8CapabilityCode,
             &Phrases::ps8FeatureCode, &Phrases::psVersion, &Phrases::psAccessToken},
            fmt("FeatureCode=%s&accessToken=%s&appkey=%s&brandCode=%s&capabilityCode=%s&languageId=%s&sourceType=%s"
                "&statCode=%s&type=%s&version=%s",
                "FEAT", "AT", "APPK", "BR", "CAP", "7", "3", "ST", "2", "7.0"),
            fmt("accessToken=%s&appkey=%s&FeatureCode=%s&brandCode=%s&capabilityCode=%s&languageId=%s&sourceType=%s"
                "&statCode=%s&type=%s&version=%s",
                "AT", "APPK", "FEAT", "BR", "CAP", "7", "3", "ST", "2", "7.0")),
        /* Alexa side: with and without hsv; an unchecked null stamp or token travels as "(null)" */
        row("KX_GET_ALEXA_LANGUAGE", "/voiceservice/get_alexa_language", "/tmp/getAlexaLan.json", kBefore,
            with<Query>(kQuery, [](Query &q) { q.ps8UpdatetimeStamp = nullptr; }), KX_GET_ALEXA_LANGUAGE, qreq,
            fmt(alexa_sign.c_str(), "FEAT", "APPK", "BR", "CAP", "HSV", "7", "{rand}", "3", "ST", "(null)", "7.0"),
            fmt("appkey=%s&brandCode=%s&capabilityCode=%s&FeatureCode=%s&format=1&hsv=%s&languageId=%s&randStr=%s"
                "&sourceType=%s&statCode=%s&updatetimeStamp=%s&version=%s",
                "APPK", "BR", "CAP", "FEAT", "HSV", "7", "{rand}", "3", "ST", "(null)", "7.0")),
        row("KX_GET_ALEXA_LOCAL", "/voiceservice/get_alexa_locale", "/tmp/getAlexaLocal.json", kBefore, kQuery,
            KX_GET_ALEXA_LOCAL, qreq,
            fmt(alexa_sign.c_str(), "FEAT", "APPK", "BR", "CAP", "HSV", "7", "{rand}", "3", "ST", "1700000000", "7.0"),
            fmt("appkey=%s&brandCode=%s&capabilityCode=%s&FeatureCode=%s&hsv=%s&format=1&languageId=%s&randStr=%s"
                "&sourceType=%s&statCode=%s&updatetimeStamp=%s&version=%s",
                "APPK", "BR", "CAP", "FEAT", "HSV", "7", "{rand}", "3", "ST", "1700000000", "7.0")),
        row("KX_GET_ALEXA_ENDPOINT", "/voiceservice/get_alexa_endpoint_url", "/tmp/getAvsEndPoint.json", kBefore,
            with<Query>(kQuery, [](Query &q) { q.psAccessToken = nullptr; q.ps8CapabilityCode = nullptr; }),
            KX_GET_ALEXA_ENDPOINT, {&Query::ps8AppIndex, &Query::ps8BrandCode, &Query::ps8StatCode, &Query::psVersion},
            fmt("accessToken=%s&appkey=%s&brandCode=%s&format=1&languageId=%s&randStr=%s&sourceType=%s&statCode=%s"
                "&version=%s",
                "(null)", "APPK", "BR", "7", "{rand}", "3", "ST", "7.0"),
            fmt("accessToken=%s&appkey=%s&brandCode=%s&format=1&languageId=%s&randStr=%s&sourceType=%s&statCode=%s"
                "&version=%s",
                "(null)", "APPK", "BR", "7", "{rand}", "3", "ST", "7.0")),
        row("KX_GET_ALEXA_SALE_INFO", "/voiceservice/get_sales_support_info", "/tmp/getSalsSupportInfo.json",
            kBefore, bare_query, KX_GET_ALEXA_SALE_INFO, qreq,
            fmt("FeatureCode=%s&appkey=%s&brandCode=%s&capabilityCode=%s&format=1&languageId=%s&randStr=%s"
                "&sourceType=%s&statCode=%s&version=%s",
                "FEAT", "APPK", "BR", "CAP", "7", "{rand}", "3", "ST", "7.0"),
            fmt("appkey=%s&brandCode=%s&capabilityCode=%s&FeatureCode=%s&format=1&languageId=%s&randStr=%s"
                "&sourceType=%s&statCode=%s&version=%s",
                "APPK", "BR", "CAP", "FEAT", "7", "{rand}", "3", "ST", "7.0")),
        row("KX_GET_SKILL_INFO", "/voiceservice/get_skill_info", "/tmp/getSkillInfo.json", kBefore, kQuery,
            KX_GET_SKILL_INFO, qreq,
            fmt("FeatureCode=%s&appkey=%s&brandCode=%s&capabilityCode=%s&format=1&hsv=%s&languageId=%s&randStr=%s"
                "&sourceType=%s&statCode=%s&version=%s",
                "FEAT", "APPK", "BR", "CAP", "HSV", "7", "{rand}", "3", "ST", "7.0"),
            fmt("appkey=%s&brandCode=%s&format=1&capabilityCode=%s&FeatureCode=%s&hsv=%s&languageId=%s&randStr=%s"
                "&sourceType=%s&statCode=%s&version=%s",
                "APPK", "BR", "CAP", "FEAT", "HSV", "7", "{rand}", "3", "ST", "7.0")),
        row("KX_GET_SAMPLE_UTTERANCE", "/voiceservice/get_sample_utterance", "/tmp/getSampleInfo.json", kBefore,
            bare_query, KX_GET_SAMPLE_UTTERANCE, qreq, /* scope 4294967295 goes as "%d" */
            fmt("FeatureCode=%s&appkey=%s&brandCode=%s&capabilityCode=%s&format=1&languageId=%s&randStr=%s"
                "&scope=%d&sourceType=%s&statCode=%s&type=%d&version=%s",
                "FEAT", "APPK", "BR", "CAP", "7", "{rand}", -1, "3", "ST", 2, "7.0"),
            fmt("appkey=%s&brandCode=%s&capabilityCode=%s&FeatureCode=%s&format=1&languageId=%s&randStr=%s"
                "&scope=%d&sourceType=%s&statCode=%s&type=%d&version=%s",
                "APPK", "BR", "CAP", "FEAT", "7", "{rand}", -1, "3", "ST", 2, "7.0")),
        /* Google, sales, web portal */
        row("KX_GET_GOOGLE_LANGUAGE_INFO", "/voiceservice/get_google_language", "/tmp/get_google_language.json",
            kAfter, kGoogle, KX_GET_GOOGLE_LANGUAGE_INFO,
            {&Google::ps8AppIndex, &Google::ps8BrandCode, &Google::ps8StateCode, &Google::ps8CapabilityCode,
             &Google::ps8FeatureCode, &Google::ps8UpdatetimeStamp, &Google::psVersion, &Google::psAccessToken},
            fmt(google, "FEAT", "APPK", "BR", "CAP", "7", "3", "ST", "1700000000", "7.0"),
            fmt(google, "FEAT", "APPK", "BR", "CAP", "7", "3", "ST", "1700000000", "7.0")),
        row("KX_GET_GOOGLE_LOCALE_INFO", "/voiceservice/get_google_locale", "/tmp/get_google_locale.json", kAfter,
            with<Google>(kGoogle, [](Google &g) { g.ps8FeatureCode = nullptr; }), KX_GET_GOOGLE_LOCALE_INFO,
            {&Google::ps8AppIndex, &Google::ps8BrandCode, &Google::ps8StateCode, &Google::psVersion,
             &Google::psAccessToken},
            fmt(google, "(null)", "APPK", "BR", "CAP", "7", "3", "ST", "1700000000", "7.0"),
            fmt("FeatureCode=%s&&appkey=%s&brandCode=%s&capabilityCode=%s&languageId=%s&sourceType=%s&statCode=%s"
                "&updatetimeStamp=%s&version=%s",
                "(null)", "APPK", "BR", "CAP", "7", "3", "ST", "1700000000", "7.0")),
        row("KX_GET_SALES_INFO", "/voiceservice/get_sales_info", "/tmp/get_sales_info.json", kAfter, kAction,
            KX_GET_SALES_INFO, acreq, fmt(action_sign, "FEAT", "AT", "APPK", "BR", "CAP", "7", "3", "ST", "7.0"),
            fmt(action_body, "AT", "APPK", "FEAT", "BR", "CAP", "7", "3", "ST", "7.0")),
        row("KX_GET_WEB_PORTAL_LANGUAGE_INFO", "/voiceservice/get_web_portal_language",
            "/tmp/get_web_portal_language.json", kAfter, kPortal, KX_GET_WEB_PORTAL_LANGUAGE_INFO, preq,
            fmt(portal, "AT", "BR", "de-DE", "7", "3", "ST", "7.0"),
            fmt(portal, "AT", "BR", "de-DE", "7", "3", "ST", "7.0")),
        row("KX_GET_WEB_PORTAL_LOCALE_INFO", "/voiceservice/get_web_portal_locale", "/tmp/get_web_portal_locale.json",
            kAfter, kPortal, KX_GET_WEB_PORTAL_LOCALE_INFO, preq,
            fmt(portal, "AT", "BR", "de-DE", "7", "3", "ST", "7.0"),
            fmt(portal, "AT", "BR", "de-DE", "7", "3", "ST", "7.0")),
    };
}

class Voice : public ::testing::Test {
protected:
    Cloud &cloud = Cloud::shared();
    std::string domain;
    char result[65536] = {};

    void SetUp() override
    {
        ASSERT_EQ(KX_GLOBAL_INIT("127.0.0.1"), 0);
        fresh();
        domain = cloud.https_domain();
    }
    void fresh()
    {
        cloud.reset();
        kxcloud::register_voice_services(cloud);
        kxtest::clear_log();
        memset(result, 0, sizeof result);
    }
    /* The sent body (after {rand} and {time} are read from it) and the signed
     * text the sign opens to. */
    void expect_wire(const Row &r, const kxcloud::Request &sent)
    {
        std::map<std::string, std::string> pairs = sent.form();
        EXPECT_EQ(sent.body, fill(r.body, pairs) + "&sign=" + pairs["sign"]);
        EXPECT_EQ(kxtest::open_request_signature(pairs["sign"]), kxtest::md5_raw(fill(r.sign, pairs)))
            << fill(r.sign, pairs);
        if (r.sign.find("{rand}") != std::string::npos) {
            EXPECT_EQ(pairs["randStr"].size(), 32u);
            EXPECT_EQ(pairs["randStr"].find_first_not_of("0123456789"), std::string::npos);
        }
    }
};

/* ---- the whole family --------------------------------------------------------------- */

TEST_F(Voice, EveryCallSendsItsDocumentedTextsAndDeliversTheVerifiedAnswer)
{
    for (const Row &r : rows()) {
        SCOPED_TRACE(r.path);
        fresh();
        unlink(r.file);
        ASSERT_EQ(r.invoke(0, domain.c_str(), result), 0);
        const kxcloud::Request sent = cloud.last();
        EXPECT_TRUE(sent.tls);
        EXPECT_EQ(sent.method + " " + sent.target, "POST " + std::string(r.path));
        expect_wire(r, sent);

        const std::string answer = kxcloud::voice_service_answer(r.path);
        EXPECT_EQ(std::string(result), answer);
        EXPECT_EQ(file_text(r.file), kxcloud::signed_json(answer)) << "the raw answer stays on disk";
        EXPECT_TRUE(logged(r.name, "=================" + r.banner + " input param=================\n"));
        EXPECT_TRUE(logged(r.name, "=================" + r.banner + " end=================\n"));
    }
}

TEST_F(Voice, OnlyChangeToHttpOneSendsOverPlainHttp)
{
    const bool plain = cloud.http_ready();
    for (const Row &r : rows()) {
        for (uint32_t http : {0u, 1u, 2u}) {
            if (http == 1 && !plain)
                continue;
            fresh();
            const char *d = http == 1 ? "127.0.0.1" : domain.c_str();
            EXPECT_EQ(r.invoke(http, d, result), 0) << r.path << " " << http;
            EXPECT_EQ(cloud.last().tls, http != 1) << r.path << " " << http;
            const std::string url = http == 1 ? "http://127.0.0.1:80" : "https://" + domain;
            EXPECT_TRUE(kxtest::log_contains("Get ps8Url is " + url + r.path)) << r.path << " " << http;
        }
    }
    if (!plain)
        GTEST_SKIP() << "port 80 needs the private network namespace";
}

TEST_F(Voice, RefusalsComeBeforeAnyTraffic)
{
    const std::vector<Row> table = rows();
    const char *d = domain.c_str();
    for (const Row &r : table) {
        for (size_t i = 0; i < r.refused.size(); ++i) {
            kxtest::clear_log();
            EXPECT_EQ(r.refused[i](0, d, result), -1) << r.path << " case " << i;
            EXPECT_TRUE(logged(r.name, "invalid arg!\n", kxtest::kError)) << r.path << " case " << i;
            EXPECT_FALSE(kxtest::log_contains("Get ps8Url")) << r.path << " case " << i;
        }
    }
    /* Fields nobody reads may be null (the description's app list, the device record's reserved text). */
    EXPECT_EQ(KX_REPLACE_VOICE_DEV_INFO(&kDevicesBare, d, result), 0);
    EXPECT_EQ(cloud.requests().size(), 1u);

    KX_GLOBAL_DEINIT();
    cloud.reset();
    for (const Row &r : table) {
        kxtest::clear_log();
        EXPECT_EQ(r.invoke(0, d, result), -1) << r.path;
        EXPECT_TRUE(logged(r.name, "please firstly to call KX_GLOBAL_INIT()!\n", kxtest::kError)) << r.path;
        EXPECT_FALSE(kxtest::log_contains("invalid arg!")) << r.path;
    }
    EXPECT_TRUE(cloud.requests().empty());
}

TEST_F(Voice, AnswersThatDoNotVerifyGiveMinusOneAndAnEmptyFile)
{
    for (const Row &r : rows()) {
        std::string tampered = kxcloud::signed_json(kxcloud::voice_service_answer(r.path));
        tampered[tampered.find("resultCode\":0") + 12] = '7';
        for (const kxcloud::Reply &reply : {kxcloud::Reply(200, tampered), kxcloud::Reply(503, "")}) {
            cloud.reset();
            cloud.reply("*", r.path, reply);
            kxtest::clear_log();
            EXPECT_EQ(r.invoke(0, domain.c_str(), result), -1) << r.path << " " << reply.status;
            EXPECT_TRUE(logged(r.name, "failed to verify json data!\n", kxtest::kError)) << r.path;
            EXPECT_EQ(file_text(r.file), "") << r.path;
        }
    }
}

TEST_F(Voice, UrlAndSignatureFailuresStopTheCallBeforeAnyTraffic)
{
    for (const Row &r : rows()) {
        kxtest::clear_log();
        EXPECT_EQ(r.invoke(0, nullptr, result), -1) << r.path;
        EXPECT_TRUE(logged(r.name, "failed to call KX_SDK_CREATE_URL().\n", kxtest::kError)) << r.path;
        auto key = gpKey;
        gpKey = nullptr;
        EXPECT_EQ(r.invoke(0, domain.c_str(), result), -1) << r.path;
        gpKey = key;
        EXPECT_TRUE(logged(r.name, "create signature failed.\n", kxtest::kError)) << r.path;
    }
    EXPECT_TRUE(cloud.requests().empty());
}

TEST_F(Voice, AnAnswerFileThatCannotBeCreatedIsReportedInTheCallsOwnWords)
{
    for (const Row &r : rows()) {
        unlink(r.file);
        ASSERT_EQ(mkdir(r.file, 0700), 0) << r.file;
        kxtest::clear_log();
        EXPECT_EQ(r.invoke(0, domain.c_str(), result), -1);
        rmdir(r.file);
        const std::string creat = r.bang_before ? fmt("failed to creat !%s \n", r.file)
                                                : fmt("failed to creat %s! \n", r.file);
        EXPECT_TRUE(logged(r.name, creat, kxtest::kError)) << r.path;
    }
    EXPECT_TRUE(cloud.requests().empty());
}

/* ---- call-specific rules ---------------------------------------------------------- */

TEST_F(Voice, InputLinesNameTheirFieldsAndLogOptionalOnesOnlyWhenPresent)
{
    ASSERT_EQ(KX_REPLACE_VOICE_DEV_INFO(&kDevices, domain.c_str(), result), 0);
    EXPECT_TRUE(logged("KX_VOICE_DEVICES_INFO", fmt("    ps8DeviceName: %s\n", kNameSent)));
    EXPECT_TRUE(logged("KX_VOICE_DEVICES_INFO", fmt("    pjsInputlist: %s\n", kInputsSent)));
    EXPECT_TRUE(logged("KX_VOICE_DEVICES_INFO", "    u32LanguageID: 7\n"));
    EXPECT_TRUE(logged("KX_VOICE_DEVICES_INFO", "    ps8Hsv: HSV\n"));
    kxtest::clear_log();
    ASSERT_EQ(KX_REPORT_VOICE_DEVICES_INFO(&kDevicesBare, domain.c_str(), result), 0);
    EXPECT_FALSE(kxtest::log_contains("ps8Hsv"));

    Dev dev = kDev;
    dev.ps8VSAbility = nullptr;
    ASSERT_EQ(KX_PUSH_VOICE_DEV_INFO(&dev, domain.c_str(), result), 0);
    EXPECT_TRUE(logged("KX_PUSH_VOICE_DEV_INFO", "    ps8VSAbility: (null)\n"));
    EXPECT_TRUE(logged("KX_PUSH_VOICE_DEV_INFO", fmt("cjsonBuff length is %zu.\n", strlen(kApps))));
    ASSERT_EQ(KX_GET_VOICE_DEVICES_INFO(&kDevices, domain.c_str(), result), 0);
    EXPECT_TRUE(logged("KX_GET_VOICE_DEVICES_INFO", fmt("cjsonBuff length is %zu.\n", strlen(kApps))));
    EXPECT_EQ(cloud.last().form().count("applist"), 0u) << "measured, not sent";

    /* Alexa-side calls trace their start, the scheme and the nonce, and log numbers with "%d". */
    kxtest::clear_log();
    ASSERT_EQ(KX_GET_SAMPLE_UTTERANCE(&kQuery, domain.c_str(), result), 0);
    std::vector<std::string> lines;
    for (const kxtest::LogLine &line : kxtest::log_lines())
        if (line.text.find("KX_GET_SAMPLE_UTTERANCE(): ") != std::string::npos && line.level == kxtest::kInfo)
            lines.push_back(line.text.substr(line.text.find("(): ") + 4));
    const std::vector<std::string> expected = {
        "start KX_GET_SAMPLE_UTTERANCE\n", "u32ChangeToHttp != 1 \n", "KX_CREATE_RAND_STRING success\n",
        "=================KX_GET_SAMPLE_UTTERANCE input param=================\n",
        "    ps8AppIndex: APPK\n", "    ps8BrandCode: BR\n", "    ps8StatCode: ST\n", "    ps8CapabilityCode: CAP\n",
        "    ps8FeatureCode: FEAT\n", "    u32Scope: -1\n", "    u32Type: 2\n", "    psVersion: 7.0\n",
        "    u32LanguageID: 7\n", "    u32SourceType: 3\n", "    ps8Hsv: HSV\n",
        "=================KX_GET_SAMPLE_UTTERANCE end=================\n"};
    EXPECT_EQ(lines, expected);
}

TEST_F(Voice, SkillHsvIsLeftOutWhenNullAndSentEmptyWhenEmpty)
{
    Skill skill = kSkill;
    skill.ps8Hsv = "";
    ASSERT_EQ(KX_ENABLE_VOICE_SKILL(&skill, domain.c_str(), result), 0);
    const std::map<std::string, std::string> pairs = cloud.last().form();
    ASSERT_EQ(pairs.count("hsv"), 1u);
    EXPECT_EQ(pairs.at("hsv"), "");
    EXPECT_TRUE(logged("KX_ENABLE_VOICE_SKILL", "    ps8Hsv: \n"));
    EXPECT_EQ(kxtest::open_request_signature(pairs.at("sign")),
              kxtest::md5_raw("accessToken=AT&appkey=APPK&brandCode=BR&capabilityCode=CAP&extfield=EXT&featureCode=FEAT"
                              "&hsv=&languageId=7&lwaToken=LWA&sourceType=3&statCode=ST&version=7.0"));
}

TEST_F(Voice, GoogleLocaleUsesTheTimeWhenNoStampIsGivenAndDoublesTheAmpersandWhenOneIs)
{
    ASSERT_EQ(KX_GET_GOOGLE_LOCALE_INFO(&kGoogle, domain.c_str(), result), 0);
    EXPECT_EQ(cloud.last().body.rfind("FeatureCode=FEAT&&appkey=APPK&", 0), 0u);
    EXPECT_TRUE(logged("KX_GET_GOOGLE_LOCALE_INFO", "ps8UpdatetimeStamp != NULL.\n"));
    EXPECT_TRUE(logged("KX_GET_GOOGLE_LOCALE_INFO", "ps8UpdatetimeStamp: 1700000000\n"));
    EXPECT_TRUE(logged("KX_GET_GOOGLE_LOCALE_INFO", "ps8UpdatetimeStamp !!= NULL.\n"));

    fresh();
    Google g = kGoogle;
    g.ps8UpdatetimeStamp = nullptr;
    ASSERT_EQ(KX_GET_GOOGLE_LOCALE_INFO(&g, domain.c_str(), result), 0);
    std::map<std::string, std::string> pairs = cloud.last().form();
    const std::string now = pairs["updatetimeStamp"];
    EXPECT_NEAR(std::stoll(now), static_cast<long long>(time(nullptr)), 5);
    const std::string text = fmt("FeatureCode=FEAT&appkey=APPK&brandCode=BR&capabilityCode=CAP&languageId=7"
                                 "&sourceType=3&statCode=ST&updatetimeStamp=%s&version=7.0", now.c_str());
    EXPECT_EQ(cloud.last().body, text + "&sign=" + pairs["sign"]);
    EXPECT_EQ(kxtest::open_request_signature(pairs["sign"]), kxtest::md5_raw(text));
    EXPECT_EQ(kxtest::log_count("ps8UpdatetimeStamp == NULL.", kxtest::kInfo), 2);
}

TEST_F(Voice, EncodedValuesAreCutToTheirBuffersAndAFailedStateListEncodingStopsTheCall)
{
    /* 1100 plain characters: 1023 are sent, all are signed. */
    const std::string long_name(1100, 'n');
    Devices d = kDevices;
    d.ps8DeviceName = long_name.c_str();
    ASSERT_EQ(KX_REPLACE_VOICE_DEV_INFO(&d, domain.c_str(), result), 0);
    EXPECT_EQ(cloud.last().form()["deviceName"], long_name.substr(0, 1023));
    /* "&" takes three characters: 340 of them fill 1020, the next would not fit whole. */
    const std::string ampersands(400, '&');
    d.ps8DeviceName = ampersands.c_str();
    ASSERT_EQ(KX_GET_VOICE_DEVICES_INFO(&d, domain.c_str(), result), 0);
    std::string expected;
    for (int i = 0; i < 340; ++i)
        expected += "%26";
    EXPECT_NE(cloud.last().body.find("&deviceName=" + expected + "&languageId="), std::string::npos);
    /* A list of 5200 plain characters keeps 5119 of them. */
    const std::string long_list(5200, 'l');
    d = kDevices;
    d.pjsInputlist = long_list.c_str();
    ASSERT_EQ(KX_REPLACE_VOICE_DEV_INFO(&d, domain.c_str(), result), 0);
    EXPECT_EQ(cloud.last().form()["inputlist"], long_list.substr(0, 5119));

    /* The state reports give up instead of sending a cut list. */
    const std::string quotes(2000, '"');
    for (const char *list : {"", quotes.c_str()}) {
        cloud.reset();
        kxtest::clear_log();
        State s = kState;
        s.ps8StateList = list;
        EXPECT_EQ(KX_REPORT_VOICE_DEV_STATE(&s, domain.c_str(), result), -1);
        EXPECT_TRUE(logged("KX_REPORT_VOICE_DEV_STATE", "KX_SDK_URLEncode with something error.\n", kxtest::kError));
        EXPECT_TRUE(cloud.requests().empty());
    }
}

TEST_F(Voice, TheCloudServesEveryCallsPathAndRefusesABadSignWithASignedAnswer)
{
    std::set<std::string> paths;
    for (const Row &r : rows())
        paths.insert(r.path);
    const std::vector<std::string> served = kxcloud::voice_service_paths();
    EXPECT_EQ(paths, std::set<std::string>(served.begin(), served.end()));

    for (const std::string &path : paths) {
        FILE *stream = tmpfile();
        ASSERT_NE(stream, nullptr);
        const std::string body = "appkey=APPK&sign=" + kxtest::base64_encode(std::string(128, 'x'));
        KX_SDK_HTTPS_POST(("https://" + domain + path).c_str(), body.c_str(), static_cast<int32_t>(body.size()),
                          &stream);
        memset(result, 0, sizeof result);
        EXPECT_EQ(KX_SDK_JSON_VERIFY(stream, result), 0) << path;
        EXPECT_STREQ(result, kxcloud::kVoiceRefusal) << path;
        fclose(stream);
    }
}

}  // namespace
