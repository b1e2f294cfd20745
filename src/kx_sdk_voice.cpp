/*
 * Voice module: the voice service calls. Every call is one row of the voice
 * frame (internal/kx_voice_frame.h): its name, path, answer file, required and
 * logged fields, and its signed text and body as keyed templates, written as
 * the service documents them ("key=%s" takes the value of that key; a piece
 * in brackets is sent only when its value is present). Each record type has
 * one list of fields below: the name the log shows, the key it travels under.
 *
 * The rows hold what differs: the signed text always lists its keys in byte
 * order (capitals first), the body in the service's own order; the values a
 * row encodes are signed raw and sent URL-encoded; an unchecked null value is
 * sent and logged as "(null)".
 */
#include <cstring>

#include "internal/kx_log.h"
#include "internal/kx_request.h"
#include "internal/kx_voice_frame.h"
#include "kx_cloud_openapi.h"

namespace {

using kx::Field;
using kx::Fields;
using kx::VoiceCall;

/* A record's field under its own name. */
#define KX_TEXT(record, member, key) Field::of_text(#member, key, (record).member)
#define KX_UNSIGNED(record, member, key) Field::of_unsigned(#member, key, (record).member)
#define KX_SIGNED(record, member, key) Field::of_signed(#member, key, (record).member)

/* ---- the records' fields ---------------------------------------------------- */

Fields fields_of(const KX_VOICE_DEVICES_INFO_S &r)
{
    return {KX_TEXT(r, ps8DeviceName, "deviceName"), KX_TEXT(r, ps8VSEnable, "VSEnable"),
            KX_TEXT(r, ps8GSEnable, "GSEnable"), KX_TEXT(r, ps8AppIndex, "appkey"), KX_TEXT(r, mac, "mac"),
            KX_TEXT(r, Applist, nullptr), KX_TEXT(r, pjsInputlist, "inputlist"),
            KX_TEXT(r, ps8StateCode, "statCode"), KX_TEXT(r, ps8BrandCode, "brandCode"),
            KX_TEXT(r, ps8CapabilityCode, "capabilityCode"), KX_TEXT(r, ps8FeatureCode, "featureCode"),
            KX_TEXT(r, ps8ExtField, "extfield"), KX_TEXT(r, ps8Hsv, "hsv"),
            KX_TEXT(r, ps8DeviceSerialNumberAVS, "deviceSerialNumberAVS"),
            KX_TEXT(r, ps8ClientIdAVS, "clientIdAVS"), KX_TEXT(r, ps8ProductIdAVS, "productIdAVS"),
            KX_TEXT(r, ps8VSAbility, "vsAbility"), KX_TEXT(r, psAccessToken, "accessToken"),
            KX_TEXT(r, psVersion, "version"), KX_UNSIGNED(r, u32LanguageID, "languageId"),
            KX_UNSIGNED(r, u32SourceType, "sourceType")};
}

Fields fields_of(const KX_VOICE_DEV_INFO_S &r)
{
    return {KX_TEXT(r, ps8DeviceName, "deviceName"), KX_TEXT(r, ps8VSEnable, "VSEnable"),
            KX_TEXT(r, ps8GSEnable, "GSEnable"), KX_TEXT(r, ps8AppIndex, "appkey"), KX_TEXT(r, mac, "mac"),
            KX_TEXT(r, Applist, "applist"), KX_TEXT(r, ps8StateCode, "statCode"),
            KX_TEXT(r, ps8BrandCode, "brandCode"), KX_TEXT(r, ps8CapabilityCode, "capabilityCode"),
            KX_TEXT(r, ps8FeatureCode, "featureCode"), KX_TEXT(r, ps8ExtField, "extfield"),
            KX_TEXT(r, ps8VSAbility, "vsAbility"), KX_TEXT(r, psAccessToken, "accessToken"),
            KX_TEXT(r, psVersion, "version"), KX_UNSIGNED(r, u32LanguageID, "languageId"),
            KX_UNSIGNED(r, u32SourceType, "sourceType")};
}

Fields fields_of(const KX_VOICE_CFG_INFO_S &r)
{
    return {KX_TEXT(r, ps8AppIndex, "appkey"), KX_TEXT(r, ps8StatCode, "statCode"),
            KX_TEXT(r, ps8BrandCode, "brandCode"), KX_TEXT(r, ps8VsType, "vsType"),
            KX_TEXT(r, psAccessToken, "accessToken"), KX_TEXT(r, psVersion, "version"),
            KX_UNSIGNED(r, u32LanguageID, "languageId"), KX_UNSIGNED(r, u32SourceType, "sourceType")};
}

Fields fields_of(const KX_VOICE_SKILL_INFO_S &r)
{
    return {KX_TEXT(r, ps8lwaToken, "lwaToken"), KX_TEXT(r, ps8StatCode, "statCode"),
            KX_TEXT(r, ps8BrandCode, "brandCode"), KX_TEXT(r, ps8ExtFiled, "extfield"),
            KX_TEXT(r, ps8AppIndex, "appkey"), KX_TEXT(r, ps8Hsv, "hsv"),
            KX_TEXT(r, ps8FeatureCode, "featureCode"), KX_TEXT(r, ps8CapabilityCode, "capabilityCode"),
            KX_TEXT(r, psAccessToken, "accessToken"), KX_TEXT(r, psVersion, "version"),
            KX_UNSIGNED(r, u32LanguageID, "languageId"), KX_UNSIGNED(r, u32SourceType, "sourceType")};
}

Fields fields_of(const KX_VOICE_DEV_STATE_S &r)
{
    return {KX_TEXT(r, ps8StateCode, "statCode"), KX_TEXT(r, ps8BrandCode, "brandCode"),
            KX_TEXT(r, ps8AppIndex, "appkey"), KX_TEXT(r, ps8LwaToken, "lwaToken"),
            KX_TEXT(r, ps8StateList, "stateList"), KX_TEXT(r, psAccessToken, "accessToken"),
            KX_TEXT(r, psVersion, "version"), KX_UNSIGNED(r, u32LanguageID, "languageId"),
            KX_UNSIGNED(r, u32SourceType, "sourceType")};
}

Fields fields_of(const KX_VOICE_TRAIT_STATE_S &r)
{
    return {KX_TEXT(r, ps8StateCode, "statCode"), KX_TEXT(r, ps8BrandCode, "brandCode"),
            KX_TEXT(r, ps8AppIndex, "appkey"), KX_TEXT(r, ps8StateList, "stateList"),
            KX_TEXT(r, psAccessToken, "accessToken"), KX_TEXT(r, psVersion, "version"),
            KX_UNSIGNED(r, u32LanguageID, "languageId"), KX_UNSIGNED(r, u32SourceType, "sourceType")};
}

Fields fields_of(const KX_VOICE_ACTION_INFO_S &r)
{
    return {KX_TEXT(r, ps8AppIndex, "appkey"), KX_TEXT(r, ps8BrandCode, "brandCode"),
            KX_TEXT(r, ps8StateCode, "statCode"), KX_TEXT(r, ps8CapabilityCode, "capabilityCode"),
            KX_TEXT(r, ps8FeatureCode, "FeatureCode"), KX_TEXT(r, psAccessToken, "accessToken"),
            KX_TEXT(r, psVersion, "version"), KX_UNSIGNED(r, u32LanguageID, "languageId"),
            KX_UNSIGNED(r, u32SourceType, "sourceType")};
}

Fields fields_of(const KX_VOICE_PHRASES_INFO_S &r)
{
    return {KX_TEXT(r, ps8AppIndex, "appkey"), KX_TEXT(r, ps8BrandCode, "brandCode"),
            KX_TEXT(r, ps8StateCode, "statCode"), KX_TEXT(r, ps8CapabilityCode, "capabilityCode"),
            KX_TEXT(r, ps8FeatureCode, "FeatureCode"), KX_UNSIGNED(r, ps8Type, "type"),
            KX_TEXT(r, psAccessToken, "accessToken"), KX_TEXT(r, psVersion, "version"),
            KX_UNSIGNED(r, u32LanguageID, "languageId"), KX_UNSIGNED(r, u32SourceType, "sourceType")};
}

Fields fields_of(const KX_VOICE_QUERY_S &r)
{
    return {KX_TEXT(r, ps8AppIndex, "appkey"), KX_TEXT(r, ps8StatCode, "statCode"),
            KX_TEXT(r, ps8BrandCode, "brandCode"), KX_TEXT(r, ps8UpdatetimeStamp, "updatetimeStamp"),
            KX_SIGNED(r, u32Scope, "scope"), KX_SIGNED(r, u32Type, "type"),
            KX_TEXT(r, ps8CapabilityCode, "capabilityCode"), KX_TEXT(r, ps8FeatureCode, "FeatureCode"),
            KX_TEXT(r, ps8Hsv, "hsv"), KX_TEXT(r, psAccessToken, "accessToken"), KX_TEXT(r, psVersion, "version"),
            KX_UNSIGNED(r, u32LanguageID, "languageId"), KX_UNSIGNED(r, u32SourceType, "sourceType")};
}

Fields fields_of(const KX_GOOGLE_QUERY_S &r)
{
    /* The access token is required but travels under no key. */
    return {KX_TEXT(r, ps8AppIndex, "appkey"), KX_TEXT(r, ps8BrandCode, "brandCode"),
            KX_TEXT(r, ps8StateCode, "statCode"), KX_TEXT(r, ps8CapabilityCode, "capabilityCode"),
            KX_TEXT(r, ps8FeatureCode, "FeatureCode"), KX_TEXT(r, ps8UpdatetimeStamp, "updatetimeStamp"),
            KX_TEXT(r, psAccessToken, nullptr), KX_TEXT(r, psVersion, "version"),
            KX_UNSIGNED(r, u32LanguageID, "languageId"), KX_UNSIGNED(r, u32SourceType, "sourceType")};
}

Fields fields_of(const KX_WEB_PORTAL_QUERY_S &r)
{
    return {KX_TEXT(r, ps8BrandCode, "brandCode"), KX_TEXT(r, ps8StateCode, "statCode"),
            KX_TEXT(r, ps8DisplayLanguageId, "displayLanguageId"), KX_TEXT(r, psAccessToken, "accessToken"),
            KX_TEXT(r, psVersion, "version"), KX_UNSIGNED(r, u32LanguageID, "languageId"),
            KX_UNSIGNED(r, u32SourceType, "sourceType")};
}

#undef KX_TEXT
#undef KX_UNSIGNED
#undef KX_SIGNED

/* A row that is another row under another name, path and file. */
constexpr VoiceCall renamed(VoiceCall row, const char *name, const char *path, const char *file, const char *creat)
{
    row.name = name;
    row.path = path;
    row.file = file;
    row.creat = creat;
    return row;
}

/* ---- the full device description ---------------------------------------------
 * One worker behind two entry points: its path comes with the call, its
 * banner shows that path and its answer file is named after it
 * ("failed to creat %s! " when it cannot be opened). The four optional values
 * are signed only when present, but the body always names them ("(null)"). */

constexpr VoiceCall kDevicesInfo = {
    "KX_VOICE_DEVICES_INFO", nullptr, nullptr, nullptr, nullptr,
    "ps8DeviceName ps8VSEnable ps8GSEnable ps8AppIndex mac pjsInputlist ps8StateCode ps8BrandCode "
    "ps8CapabilityCode ps8FeatureCode ps8ExtField ps8VSAbility psVersion psAccessToken",
    "ps8DeviceName ps8VSAbility ps8VSEnable ps8GSEnable ps8BrandCode ps8CapabilityCode ps8ExtField ps8FeatureCode "
    "ps8StateCode psAccessToken pjsInputlist mac psVersion u32LanguageID u32SourceType ps8Hsv?",
    "GSEnable=%s&VSEnable=%s&accessToken=%s&appkey=%s&brandCode=%s&capabilityCode=%s"
    "[&clientIdAVS=%s]"
    "&deviceName=%s"
    "[&deviceSerialNumberAVS=%s]"
    "&extfield=%s&featureCode=%s"
    "[&hsv=%s]"
    "&inputlist=%s&languageId=%s&mac=%s"
    "[&productIdAVS=%s]"
    "&sourceType=%s&statCode=%s&version=%s&vsAbility=%s",
    "GSEnable=%s&accessToken=%s&clientIdAVS=%s&deviceSerialNumberAVS=%s&productIdAVS=%s&deviceName=%s"
    "&vsAbility=%s&VSEnable=%s&languageId=%s&version=%s&sourceType=%s&appkey=%s&hsv=%s&inputlist=%s&mac=%s"
    "&brandCode=%s&capabilityCode=%s&extfield=%s&featureCode=%s&statCode=%s&sign=%s",
    {{"ps8DeviceName", 1024, false}, {"pjsInputlist", 5120, false}}, kx::kPlain, nullptr};

int32_t KX_VOICE_DEVICES_INFO(const KX_VOICE_DEVICES_INFO_S *psInfo, const char *ps8Domain, const char *ps8Path,
                              char *VoiceResultBuffer)
{
    VoiceCall row = kDevicesInfo;
    row.banner = ps8Path;
    row.path = ps8Path;
    return kx::voice_call(row, psInfo, fields_of, ps8Domain, VoiceResultBuffer);
}

/* ---- registration and state ------------------------------------------------------ */

constexpr VoiceCall kPushDevInfo = {
    "KX_PUSH_VOICE_DEV_INFO", nullptr, "/voiceservice/reportdevinfo",
    "/tmp/pushdevinfo.json", "failed to creat !/tmp/pushdevinfo.json \n",
    "ps8DeviceName ps8VSEnable ps8GSEnable ps8AppIndex mac Applist psVersion psAccessToken",
    "ps8DeviceName ps8GSEnable ps8VSEnable psAccessToken Applist mac psVersion u32LanguageID u32SourceType "
    "ps8VSAbility",
    "GSEnable=%s&VSEnable=%s&accessToken=%s&appkey=%s&applist=%s&deviceName=%s&languageId=%s&mac=%s"
    "&sourceType=%s&version=%s&vsAbility=%s",
    "accessToken=%s&deviceName=%s&GSEnable=%s&VSEnable=%s&languageId=%s&version=%s&sourceType=%s&vsAbility=%s"
    "&appkey=%s&applist=%s&mac=%s&sign=%s",
    {{"Applist", 5120, false}, {"ps8DeviceName", 1024, false}}, kx::kPlain, "Applist"};

constexpr VoiceCall kGetDevInfo = {
    "KX_GET_VOICE_DEV_INFO", nullptr, "/voiceservice/getdevinfo",
    "/tmp/getdevinfo.json", "failed to creat !/tmp/getdevinfo.json \n",
    "ps8AppIndex psVersion psAccessToken",
    "ps8AppIndex psAccessToken psVersion u32LanguageID u32SourceType",
    "accessToken=%s&appkey=%s&languageId=%s&sourceType=%s&version=%s",
    "accessToken=%s&languageId=%s&version=%s&sourceType=%s&appkey=%s&sign=%s",
    {}, kx::kPlain, nullptr};

constexpr VoiceCall kDeleteDevInfo = {
    "KX_DELETE_VOICE_DEV_INFO", nullptr, "/voiceservice/deletedevinfo",
    "/tmp/deletedevinfo.json", "failed to creat !/tmp/deletedevinfo.json \n",
    "ps8AppIndex ps8StateCode ps8BrandCode ps8CapabilityCode ps8FeatureCode ps8ExtField psVersion psAccessToken",
    "ps8AppIndex ps8StateCode ps8BrandCode ps8CapabilityCode ps8FeatureCode ps8ExtField psAccessToken psVersion "
    "u32LanguageID u32SourceType",
    "accessToken=%s&appkey=%s&brandCode=%s&capabilityCode=%s&extfield=%s&featureCode=%s&languageId=%s"
    "&sourceType=%s&statCode=%s&version=%s",
    "accessToken=%s&languageId=%s&version=%s&sourceType=%s&appkey=%s&brandCode=%s&capabilityCode=%s&extfield=%s"
    "&featureCode=%s&statCode=%s&sign=%s",
    {}, kx::kPlain, nullptr};

/* With a 32-digit nonce and the time. */
constexpr VoiceCall kGetCfgInfo = {
    "KX_GET_VOICE_CFG_INFO", nullptr, "/voiceservice/get_deviceportal_url",
    "/tmp/getconfig.json", "failed to creat !/tmp/getconfig.json \n",
    "ps8AppIndex ps8StatCode ps8BrandCode ps8VsType psVersion psAccessToken",
    "ps8AppIndex ps8StatCode ps8BrandCode ps8VsType psAccessToken psVersion u32LanguageID u32SourceType",
    "accessToken=%s&appkey=%s&brandCode=%s&format=1&languageId=%s&randStr=%s&sourceType=%s&statCode=%s"
    "&timeStamp=%s&version=%s&vsType=%s",
    "accessToken=%s&appkey=%s&brandCode=%s&statCode=%s&languageId=%s&format=1&version=%s&randStr=%s"
    "&sourceType=%s&timeStamp=%s&vsType=%s&sign=%s",
    {}, kx::kNonce, nullptr};

constexpr VoiceCall kEnableSkill = {
    "KX_ENABLE_VOICE_SKILL", nullptr, "/voiceservice/enableskill",
    "/tmp/getSkill.json", "failed to creat !/tmp/getSkill.json \n",
    "ps8lwaToken ps8StatCode ps8BrandCode ps8ExtFiled ps8AppIndex ps8FeatureCode ps8CapabilityCode psVersion "
    "psAccessToken",
    "ps8lwaToken ps8StatCode ps8BrandCode ps8ExtFiled ps8AppIndex ps8FeatureCode ps8CapabilityCode psAccessToken "
    "psVersion u32LanguageID u32SourceType ps8Hsv?",
    "accessToken=%s&appkey=%s&brandCode=%s&capabilityCode=%s&extfield=%s&featureCode=%s[&hsv=%s]&languageId=%s"
    "&lwaToken=%s&sourceType=%s&statCode=%s&version=%s",
    "accessToken=%s&lwaToken=%s&statCode=%s&brandCode=%s&capabilityCode=%s&featureCode=%s[&hsv=%s]&appkey=%s"
    "&extfield=%s&languageId=%s&version=%s&sourceType=%s&sign=%s",
    {}, kx::kPlain, nullptr};

/* The enable call on another path: its banner and its answer file too. */
constexpr VoiceCall reset_skill()
{
    VoiceCall row = kEnableSkill;
    row.name = "KX_RESET_VOICE_SKILL";
    row.banner = "KX_ENABLE_VOICE_SKILL";
    row.path = "/voiceservice/resetskillenablement";
    return row;
}
constexpr VoiceCall kResetSkill = reset_skill();

/* The state list is signed raw and sent encoded; an encoding that fails
 * (empty, or a "%XX" that does not fit) fails the call. These two bodies
 * keep the signed order. */
constexpr VoiceCall kReportDevState = {
    "KX_REPORT_VOICE_DEV_STATE", nullptr, "/voiceservice/reportstate",
    "/tmp/reportstate.json", "failed to creat /tmp/reportstate.json! \n",
    "ps8StateCode ps8BrandCode ps8AppIndex ps8LwaToken ps8StateList psVersion psAccessToken",
    "ps8StateCode ps8BrandCode ps8AppIndex ps8LwaToken ps8StateList psAccessToken psVersion u32LanguageID "
    "u32SourceType",
    "accessToken=%s&appkey=%s&brandCode=%s&languageId=%s&lwaToken=%s&sourceType=%s&statCode=%s&stateList=%s"
    "&version=%s",
    "accessToken=%s&appkey=%s&brandCode=%s&languageId=%s&lwaToken=%s&sourceType=%s&statCode=%s&stateList=%s"
    "&version=%s&sign=%s",
    {{"ps8StateList", 5120, true}}, kx::kPlain, nullptr};

constexpr VoiceCall kReportTraitState = {
    "KX_REPORT_VOICE_TRAIT_STATE", nullptr, "/voiceservice/reporttraitstate",
    "/tmp/reporttraitstate.json", "failed to creat /tmp/reporttraitstate.json! \n",
    "ps8StateCode ps8BrandCode ps8AppIndex ps8StateList psVersion psAccessToken",
    "ps8StateCode ps8BrandCode ps8AppIndex ps8StateList psAccessToken psVersion u32LanguageID u32SourceType",
    "accessToken=%s&appkey=%s&brandCode=%s&languageId=%s&sourceType=%s&statCode=%s&stateList=%s&version=%s",
    "accessToken=%s&appkey=%s&brandCode=%s&languageId=%s&sourceType=%s&statCode=%s&stateList=%s&version=%s"
    "&sign=%s",
    {{"ps8StateList", 5120, true}}, kx::kPlain, nullptr};

/* The device name is sent (encoded) but not signed; the app list is encoded
 * and measured but not sent. Both are required here: they are read. */
constexpr VoiceCall kGetDevicesInfo = {
    "KX_GET_VOICE_DEVICES_INFO", nullptr, "/voiceservice/getdeviceinfo",
    "/tmp/getdeviceinfo.json", "failed to creat /tmp/getdeviceinfo.json! \n",
    "ps8AppIndex ps8DeviceName Applist psVersion psAccessToken",
    "ps8DeviceName ps8AppIndex psAccessToken psVersion u32LanguageID u32SourceType",
    "accessToken=%s&appkey=%s&languageId=%s&sourceType=%s&version=%s",
    "accessToken=%s&deviceName=%s&languageId=%s&version=%s&sourceType=%s&appkey=%s&sign=%s",
    {{"ps8DeviceName", 1024, false}, {"Applist", 5120, false}}, kx::kPlain, "Applist"};

constexpr VoiceCall kPushActionInfo = {
    "KX_PUSH_ACTION_INFO", nullptr, "/voiceservice/get_action_info",
    "/tmp/getactioninfo.json", "failed to creat /tmp/getactioninfo.json! \n",
    "ps8AppIndex ps8BrandCode ps8StateCode ps8CapabilityCode ps8FeatureCode psVersion psAccessToken",
    "ps8AppIndex ps8BrandCode ps8StateCode ps8CapabilityCode ps8FeatureCode psAccessToken psVersion u32LanguageID "
    "u32SourceType",
    "FeatureCode=%s&accessToken=%s&appkey=%s&brandCode=%s&capabilityCode=%s&languageId=%s&sourceType=%s"
    "&statCode=%s&version=%s",
    "accessToken=%s&appkey=%s&FeatureCode=%s&brandCode=%s&capabilityCode=%s&languageId=%s&sourceType=%s"
    "&statCode=%s&version=%s&sign=%s",
    {}, kx::kPlain, nullptr};

constexpr VoiceCall kPushSimplePhrasesInfo = {
    "KX_PUSH_SIMPLE_PHRASES_INFO", nullptr, "/voiceservice/get_sample_phrases",
    "/tmp/get_sample_phrases.json", "failed to creat /tmp/get_sample_phrases.json! \n",
    "ps8AppIndex ps8BrandCode ps8StateCode ps8CapabilityCode ps8FeatureCode psVersion psAccessToken",
    "ps8AppIndex ps8BrandCode ps8StateCode ps8CapabilityCode ps8FeatureCode ps8Type psAccessToken psVersion "
    "u32LanguageID u32SourceType",
    "FeatureCode=%s&accessToken=%s&appkey=%s&brandCode=%s&capabilityCode=%s&languageId=%s&sourceType=%s"
    "&statCode=%s&type=%s&version=%s",
    "accessToken=%s&appkey=%s&FeatureCode=%s&brandCode=%s&capabilityCode=%s&languageId=%s&sourceType=%s"
    "&statCode=%s&type=%s&version=%s&sign=%s",
    {}, kx::kPlain, nullptr};

/* ---- Alexa-side catalogues ---------------------------------------------------------
 * A fresh nonce and format=1 each; traced ("start", scheme, nonce lines). The
 * update time stamp of the language and locale queries is not checked: null
 * travels as "(null)". */

constexpr const char *kAlexaRequired = "ps8AppIndex ps8BrandCode ps8CapabilityCode ps8FeatureCode ps8StatCode psVersion";
constexpr const char *kAlexaLogged = "ps8AppIndex ps8BrandCode ps8StatCode ps8CapabilityCode ps8FeatureCode psVersion "
                                     "u32LanguageID u32SourceType ps8Hsv?";
constexpr const char *kAlexaSalesSign = "FeatureCode=%s&appkey=%s&brandCode=%s&capabilityCode=%s&format=1[&hsv=%s]"
                                        "&languageId=%s&randStr=%s&sourceType=%s&statCode=%s&version=%s";

constexpr VoiceCall kAlexaLanguage = {
    "KX_GET_ALEXA_LANGUAGE", nullptr, "/voiceservice/get_alexa_language",
    "/tmp/getAlexaLan.json", "failed to creat !/tmp/getAlexaLan.json \n",
    kAlexaRequired, kAlexaLogged,
    "FeatureCode=%s&appkey=%s&brandCode=%s&capabilityCode=%s&format=1[&hsv=%s]&languageId=%s&randStr=%s"
    "&sourceType=%s&statCode=%s&updatetimeStamp=%s&version=%s",
    "appkey=%s&brandCode=%s&capabilityCode=%s&FeatureCode=%s&format=1[&hsv=%s]&languageId=%s&randStr=%s"
    "&sourceType=%s&statCode=%s&updatetimeStamp=%s&version=%s&sign=%s",
    {}, kx::kTraced | kx::kNonce, nullptr};

/* The body's hsv stands before format=1; the signed text is the language query's. */
constexpr VoiceCall alexa_locale()
{
    VoiceCall row = renamed(kAlexaLanguage, "KX_GET_ALEXA_LOCAL", "/voiceservice/get_alexa_locale",
                            "/tmp/getAlexaLocal.json", "failed to creat !/tmp/getAlexaLocal.json \n");
    row.body = "appkey=%s&brandCode=%s&capabilityCode=%s&FeatureCode=%s[&hsv=%s]&format=1&languageId=%s&randStr=%s"
               "&sourceType=%s&statCode=%s&updatetimeStamp=%s&version=%s&sign=%s";
    return row;
}
constexpr VoiceCall kAlexaLocale = alexa_locale();

/* The access token is sent but not checked. */
constexpr VoiceCall kAlexaEndpoint = {
    "KX_GET_ALEXA_ENDPOINT", nullptr, "/voiceservice/get_alexa_endpoint_url",
    "/tmp/getAvsEndPoint.json", "failed to creat !/tmp/getAvsEndPoint.json \n",
    "ps8AppIndex ps8BrandCode ps8StatCode psVersion",
    "ps8AppIndex ps8BrandCode ps8StatCode psAccessToken psVersion u32LanguageID u32SourceType",
    "accessToken=%s&appkey=%s&brandCode=%s&format=1&languageId=%s&randStr=%s&sourceType=%s&statCode=%s&version=%s",
    "accessToken=%s&appkey=%s&brandCode=%s&format=1&languageId=%s&randStr=%s&sourceType=%s&statCode=%s&version=%s"
    "&sign=%s",
    {}, kx::kTraced | kx::kNonce, nullptr};

constexpr VoiceCall kAlexaSaleInfo = {
    "KX_GET_ALEXA_SALE_INFO", nullptr, "/voiceservice/get_sales_support_info",
    "/tmp/getSalsSupportInfo.json", "failed to creat !/tmp/getSalsSupportInfo.json \n",
    kAlexaRequired, kAlexaLogged, kAlexaSalesSign,
    "appkey=%s&brandCode=%s&capabilityCode=%s&FeatureCode=%s&format=1[&hsv=%s]&languageId=%s&randStr=%s"
    "&sourceType=%s&statCode=%s&version=%s&sign=%s",
    {}, kx::kTraced | kx::kNonce, nullptr};

constexpr VoiceCall kSkillInfo = {
    "KX_GET_SKILL_INFO", nullptr, "/voiceservice/get_skill_info",
    "/tmp/getSkillInfo.json", "failed to creat !/tmp/getSkillInfo.json \n",
    kAlexaRequired, kAlexaLogged, kAlexaSalesSign,
    "appkey=%s&brandCode=%s&format=1&capabilityCode=%s&FeatureCode=%s[&hsv=%s]&languageId=%s&randStr=%s"
    "&sourceType=%s&statCode=%s&version=%s&sign=%s",
    {}, kx::kTraced | kx::kNonce, nullptr};

constexpr VoiceCall kSampleUtterance = {
    "KX_GET_SAMPLE_UTTERANCE", nullptr, "/voiceservice/get_sample_utterance",
    "/tmp/getSampleInfo.json", "failed to creat !/tmp/getSampleInfo.json \n",
    kAlexaRequired,
    "ps8AppIndex ps8BrandCode ps8StatCode ps8CapabilityCode ps8FeatureCode u32Scope u32Type psVersion "
    "u32LanguageID u32SourceType ps8Hsv?",
    "FeatureCode=%s&appkey=%s&brandCode=%s&capabilityCode=%s&format=1[&hsv=%s]&languageId=%s&randStr=%s"
    "&scope=%d&sourceType=%s&statCode=%s&type=%d&version=%s",
    "appkey=%s&brandCode=%s&capabilityCode=%s&FeatureCode=%s&format=1[&hsv=%s]&languageId=%s&randStr=%s"
    "&scope=%d&sourceType=%s&statCode=%s&type=%d&version=%s&sign=%s",
    {}, kx::kTraced | kx::kNonce, nullptr};

/* ---- Google, sales and web-portal catalogues -------------------------------------- */

constexpr const char *kGoogleSign = "FeatureCode=%s&appkey=%s&brandCode=%s&capabilityCode=%s&languageId=%s"
                                    "&sourceType=%s&statCode=%s&updatetimeStamp=%s&version=%s";

constexpr VoiceCall kGoogleLanguage = {
    "KX_GET_GOOGLE_LANGUAGE_INFO", nullptr, "/voiceservice/get_google_language",
    "/tmp/get_google_language.json", "failed to creat /tmp/get_google_language.json! \n",
    "ps8AppIndex ps8BrandCode ps8StateCode ps8CapabilityCode ps8FeatureCode ps8UpdatetimeStamp psVersion "
    "psAccessToken",
    "ps8AppIndex ps8BrandCode ps8StateCode ps8CapabilityCode ps8FeatureCode ps8UpdatetimeStamp psVersion "
    "u32LanguageID u32SourceType",
    kGoogleSign,
    "FeatureCode=%s&appkey=%s&brandCode=%s&capabilityCode=%s&languageId=%s&sourceType=%s&statCode=%s"
    "&updatetimeStamp=%s&version=%s&sign=%s",
    {}, kx::kPlain, nullptr};

/* The body without an update time stamp; with one, kGoogleLocaleStampedBody. */
constexpr VoiceCall kGoogleLocale = {
    "KX_GET_GOOGLE_LOCALE_INFO", nullptr, "/voiceservice/get_google_locale",
    "/tmp/get_google_locale.json", "failed to creat /tmp/get_google_locale.json! \n",
    "ps8AppIndex ps8BrandCode ps8StateCode psVersion psAccessToken",
    "ps8AppIndex ps8BrandCode ps8StateCode ps8CapabilityCode ps8FeatureCode psVersion u32LanguageID u32SourceType",
    kGoogleSign, kGoogleLanguage.body,
    {}, kx::kPlain, nullptr};
constexpr const char *kGoogleLocaleStampedBody =
    "FeatureCode=%s&&appkey=%s&brandCode=%s&capabilityCode=%s&languageId=%s&sourceType=%s&statCode=%s"
    "&updatetimeStamp=%s&version=%s&sign=%s";

/* The action query's texts on another path. */
constexpr VoiceCall kSalesInfo = renamed(kPushActionInfo, "KX_GET_SALES_INFO", "/voiceservice/get_sales_info",
                                         "/tmp/get_sales_info.json", "failed to creat /tmp/get_sales_info.json! \n");

constexpr VoiceCall kWebPortalLanguage = {
    "KX_GET_WEB_PORTAL_LANGUAGE_INFO", nullptr, "/voiceservice/get_web_portal_language",
    "/tmp/get_web_portal_language.json", "failed to creat /tmp/get_web_portal_language.json! \n",
    "ps8BrandCode ps8StateCode ps8DisplayLanguageId psVersion psAccessToken",
    "ps8BrandCode ps8StateCode ps8DisplayLanguageId psAccessToken psVersion u32LanguageID u32SourceType",
    "accessToken=%s&brandCode=%s&displayLanguageId=%s&languageId=%s&sourceType=%s&statCode=%s&version=%s",
    "accessToken=%s&brandCode=%s&displayLanguageId=%s&languageId=%s&sourceType=%s&statCode=%s&version=%s&sign=%s",
    {}, kx::kPlain, nullptr};

constexpr VoiceCall kWebPortalLocale =
    renamed(kWebPortalLanguage, "KX_GET_WEB_PORTAL_LOCALE_INFO", "/voiceservice/get_web_portal_locale",
            "/tmp/get_web_portal_locale.json", "failed to creat /tmp/get_web_portal_locale.json! \n");

}  // namespace

/* ---- the exported calls ----------------------------------------------------------- */

KX_API int32_t KX_REPLACE_VOICE_DEV_INFO(const KX_VOICE_DEVICES_INFO_S *psInfo, const char *ps8Domain,
                                         char *VoiceResultBuffer)
{
    return KX_VOICE_DEVICES_INFO(psInfo, ps8Domain, "/voiceservice/replacedevinfo", VoiceResultBuffer);
}

KX_API int32_t KX_REPORT_VOICE_DEVICES_INFO(const KX_VOICE_DEVICES_INFO_S *psInfo, const char *ps8Domain,
                                            char *VoiceResultBuffer)
{
    return KX_VOICE_DEVICES_INFO(psInfo, ps8Domain, "/voiceservice/reportdeviceinfo", VoiceResultBuffer);
}

#define KX_VOICE_CALL(name, row, record_type)                                                    \
    KX_API int32_t name(const record_type *psRecord, const char *ps8Domain, char *VoiceResultBuffer) \
    {                                                                                            \
        return kx::voice_call(row, psRecord, fields_of, ps8Domain, VoiceResultBuffer);           \
    }

KX_VOICE_CALL(KX_PUSH_VOICE_DEV_INFO, kPushDevInfo, KX_VOICE_DEV_INFO_S)
KX_VOICE_CALL(KX_GET_VOICE_DEV_INFO, kGetDevInfo, KX_VOICE_DEV_INFO_S)
KX_VOICE_CALL(KX_DELETE_VOICE_DEV_INFO, kDeleteDevInfo, KX_VOICE_DEV_INFO_S)
KX_VOICE_CALL(KX_GET_VOICE_CFG_INFO, kGetCfgInfo, KX_VOICE_CFG_INFO_S)
KX_VOICE_CALL(KX_ENABLE_VOICE_SKILL, kEnableSkill, KX_VOICE_SKILL_INFO_S)
KX_VOICE_CALL(KX_RESET_VOICE_SKILL, kResetSkill, KX_VOICE_SKILL_INFO_S)
KX_VOICE_CALL(KX_REPORT_VOICE_DEV_STATE, kReportDevState, KX_VOICE_DEV_STATE_S)
KX_VOICE_CALL(KX_REPORT_VOICE_TRAIT_STATE, kReportTraitState, KX_VOICE_TRAIT_STATE_S)
KX_VOICE_CALL(KX_GET_VOICE_DEVICES_INFO, kGetDevicesInfo, KX_VOICE_DEVICES_INFO_S)
KX_VOICE_CALL(KX_PUSH_ACTION_INFO, kPushActionInfo, KX_VOICE_ACTION_INFO_S)
KX_VOICE_CALL(KX_PUSH_SIMPLE_PHRASES_INFO, kPushSimplePhrasesInfo, KX_VOICE_PHRASES_INFO_S)

KX_VOICE_CALL(KX_GET_ALEXA_LANGUAGE, kAlexaLanguage, KX_VOICE_QUERY_S)
KX_VOICE_CALL(KX_GET_ALEXA_LOCAL, kAlexaLocale, KX_VOICE_QUERY_S)
KX_VOICE_CALL(KX_GET_ALEXA_ENDPOINT, kAlexaEndpoint, KX_VOICE_QUERY_S)
KX_VOICE_CALL(KX_GET_ALEXA_SALE_INFO, kAlexaSaleInfo, KX_VOICE_QUERY_S)
KX_VOICE_CALL(KX_GET_SKILL_INFO, kSkillInfo, KX_VOICE_QUERY_S)
KX_VOICE_CALL(KX_GET_SAMPLE_UTTERANCE, kSampleUtterance, KX_VOICE_QUERY_S)
KX_VOICE_CALL(KX_GET_GOOGLE_LANGUAGE_INFO, kGoogleLanguage, KX_GOOGLE_QUERY_S)
KX_VOICE_CALL(KX_GET_SALES_INFO, kSalesInfo, KX_VOICE_ACTION_INFO_S)
KX_VOICE_CALL(KX_GET_WEB_PORTAL_LANGUAGE_INFO, kWebPortalLanguage, KX_WEB_PORTAL_QUERY_S)
KX_VOICE_CALL(KX_GET_WEB_PORTAL_LOCALE_INFO, kWebPortalLocale, KX_WEB_PORTAL_QUERY_S)

#undef KX_VOICE_CALL

/* Without an update time stamp the current time stands in for it; with one,
 * the body doubles the "&" after the FeatureCode value (the signed text does
 * not). The call says which it did. */
KX_API int32_t KX_GET_GOOGLE_LOCALE_INFO(const KX_GOOGLE_QUERY_S *psQuery, const char *ps8Domain,
                                         char *VoiceResultBuffer)
{
    if (!kx::voice_admit(kGoogleLocale, psQuery != nullptr, VoiceResultBuffer != nullptr))
        return -1;
    kx::VoiceRequest call(kGoogleLocale, psQuery->u32ChangeToHttp, fields_of(*psQuery));
    if (!call.admitted() || !call.begin(ps8Domain))
        return -1;

    const bool stamped = psQuery->ps8UpdatetimeStamp != nullptr;
    if (stamped) {
        KX_LOGI("ps8UpdatetimeStamp != NULL.\n");
        KX_LOGI("ps8UpdatetimeStamp: %s\n", psQuery->ps8UpdatetimeStamp);
    } else {
        KX_LOGI("ps8UpdatetimeStamp == NULL.\n");
        call.take_time();
        Field *stamp = call.field("ps8UpdatetimeStamp");
        stamp->text = stamp->sent = call.time_text();
    }
    if (!call.sign())
        return -1;
    KX_LOGI("%s", stamped ? "ps8UpdatetimeStamp !!= NULL.\n" : "ps8UpdatetimeStamp == NULL.\n");
    return call.finish(stamped ? kGoogleLocaleStampedBody : kGoogleLocale.body, VoiceResultBuffer);
}
