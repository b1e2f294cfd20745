/*
 * kx_sdk_voice.h -- Voice service calls: registration and state reports of a
 * device's voice assistants, and the voice service's catalogues (Alexa and
 * Google languages and locales, skills, sample utterances, sales and web-portal
 * data). Reach it through kx_cloud_openapi.h.
 *
 * Every call takes a caller-filled record, the service domain and
 * VoiceResultBuffer, and makes one signed POST to a path under
 * "/voiceservice/":
 *
 *  - Scheme. The record's first field u32ChangeToHttp selects the transport:
 *    1 = "http://" + domain + ":80" + path and the plain POST; any other value
 *    (0, 2, ...) = "https://" + domain + path, checked against the built-in CA.
 *  - Signature. The signed text lists its keys in ascending byte order
 *    (capitals first, so "FeatureCode" and "GSEnable" lead) over the raw
 *    values; the body lists the same keys in an order of its own, carries the
 *    free-text values noted per call URL-encoded (form-style: a space as "+",
 *    "&" as "%26"), and ends in "&sign=" and the signature. The texts below
 *    are the signed text (S) and the body (B) of each call, "&sign=%s"
 *    omitted. Most calls send neither a time stamp nor a nonce; those that do
 *    say so. languageId and sourceType are sent as "%u" text.
 *  - Absent values. A value that is not checked and is null travels as the six
 *    characters "(null)" (noted per call); optional values in brackets below
 *    are left out, key and all, when null.
 *  - Answers. The raw answer is written into the call's fixed file under /tmp
 *    (opened "w+", closed by the call, left on disk); the verified JSON,
 *    without its signatureServer member, is copied into VoiceResultBuffer,
 *    which must hold the whole answer (its size is not checked).
 *  - Results. 0 when the answer verified; -1 otherwise: "please firstly to call
 *    KX_GLOBAL_INIT()!" before initialisation; "invalid arg!" for a null
 *    record, a null VoiceResultBuffer or a null required field (listed per
 *    call; psVersion and psAccessToken where listed); "failed to call
 *    KX_SDK_CREATE_URL()."; "out of memory."; "create signature failed.";
 *    the call's own "failed to creat ..." line when its file cannot be opened;
 *    "failed to verify json data!" for an answer that does not verify,
 *    including every failed transfer (the transport's result decides nothing).
 *  - Files. Calls that share a file must not run at the same time, and no call
 *    may run twice at once: KX_ENABLE_VOICE_SKILL and KX_RESET_VOICE_SKILL
 *    both write "/tmp/getSkill.json".
 *  - Fixed buffers. The URL-encoded device name is cut to 1023 characters and
 *    an encoded list (input list, app list, state list) to 5119; a "%XX" that
 *    would not fit whole is left out together with everything after it.
 *  - Log lines. Each call logs its inputs between "=================NAME input
 *    param=================" and "=================NAME end=================",
 *    NAME being the call's own name unless noted.
 */
#ifndef KX_SDK_VOICE_H
#define KX_SDK_VOICE_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

/* ---- full device description ---------------------------------------------- */

typedef struct {
    uint32_t u32ChangeToHttp;             /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8DeviceName;            /* deviceName, required, URL-encoded in the body */
    const char *ps8VSEnable;              /* VSEnable, required */
    const char *ps8GSEnable;              /* GSEnable, required */
    const char *ps8AppIndex;              /* appkey, required */
    const char *mac;                      /* mac, required */
    const char *Applist;                  /* not read by the description calls; see KX_GET_VOICE_DEVICES_INFO */
    const char *pjsInputlist;             /* inputlist (JSON list), required, URL-encoded in the body */
    const char *ps8StateCode;             /* statCode, required */
    const char *ps8BrandCode;             /* brandCode, required */
    const char *ps8CapabilityCode;        /* capabilityCode, required */
    const char *ps8FeatureCode;           /* featureCode, required */
    const char *ps8ExtField;              /* extfield, required */
    const char *ps8Hsv;                   /* hsv, optional */
    const char *ps8DeviceSerialNumberAVS; /* deviceSerialNumberAVS, optional */
    const char *ps8ClientIdAVS;           /* clientIdAVS, optional */
    const char *ps8ProductIdAVS;          /* productIdAVS, optional */
    const char *ps8VSAbility;             /* vsAbility, required */
    const char *psAccessToken;            /* accessToken, required */
    const char *psVersion;                /* version, required */
    uint32_t u32LanguageID;               /* languageId */
    uint32_t u32SourceType;               /* sourceType */
} KX_VOICE_DEVICES_INFO_S;

/*
 * Send the full description of the device's voice assistants:
 * KX_REPLACE_VOICE_DEV_INFO to "/voiceservice/replacedevinfo", answer file
 * "/tmp/replacedevinfo.json"; KX_REPORT_VOICE_DEVICES_INFO to
 * "/voiceservice/reportdeviceinfo", answer file "/tmp/reportdeviceinfo.json".
 * S: GSEnable, VSEnable, accessToken, appkey, brandCode, capabilityCode,
 *    [clientIdAVS], deviceName, [deviceSerialNumberAVS], extfield,
 *    featureCode, [hsv], inputlist, languageId, mac, [productIdAVS],
 *    sourceType, statCode, version, vsAbility
 * B: GSEnable, accessToken, clientIdAVS, deviceSerialNumberAVS, productIdAVS,
 *    deviceName (encoded), vsAbility, VSEnable, languageId, version,
 *    sourceType, appkey, hsv, inputlist (encoded), mac, brandCode,
 *    capabilityCode, extfield, featureCode, statCode
 * The four optional keys are signed only when present but always sent: an
 * absent one goes as "(null)". Every field but Applist and the four optional
 * ones is required. The lines are logged under the name
 * KX_VOICE_DEVICES_INFO, the banner showing the service path; an answer file
 * that cannot be opened is reported as "failed to creat %s! ".
 */
KX_API int32_t KX_REPLACE_VOICE_DEV_INFO(const KX_VOICE_DEVICES_INFO_S *psInfo, const char *ps8Domain,
                                         char *VoiceResultBuffer);
KX_API int32_t KX_REPORT_VOICE_DEVICES_INFO(const KX_VOICE_DEVICES_INFO_S *psInfo, const char *ps8Domain,
                                            char *VoiceResultBuffer);

/* ---- registration and state ------------------------------------------------- */

typedef struct {
    uint32_t u32ChangeToHttp;      /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8DeviceName;     /* deviceName */
    const char *ps8VSEnable;       /* VSEnable */
    const char *ps8GSEnable;       /* GSEnable */
    const char *ps8AppIndex;       /* appkey */
    const char *mac;               /* mac */
    const char *Applist;           /* applist: JSON text of the device's apps */
    const char *ps8StateCode;      /* statCode */
    const char *ps8BrandCode;      /* brandCode */
    const char *ps8CapabilityCode; /* capabilityCode */
    const char *ps8FeatureCode;    /* featureCode */
    const char *ps8ExtField;       /* extfield */
    const char *ps8Reserved;       /* never read */
    const char *ps8VSAbility;      /* vsAbility */
    const char *psAccessToken;     /* accessToken */
    const char *psVersion;         /* version */
    uint32_t u32LanguageID;        /* languageId */
    uint32_t u32SourceType;        /* sourceType */
} KX_VOICE_DEV_INFO_S;

typedef struct {
    uint32_t u32ChangeToHttp;  /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8AppIndex;   /* appkey */
    const char *ps8StatCode;   /* statCode */
    const char *ps8BrandCode;  /* brandCode */
    const char *ps8VsType;     /* vsType */
    const char *ps8Reserved;   /* never read */
    const char *psAccessToken; /* accessToken */
    const char *psVersion;     /* version */
    uint32_t u32LanguageID;    /* languageId */
    uint32_t u32SourceType;    /* sourceType */
} KX_VOICE_CFG_INFO_S;

typedef struct {
    uint32_t u32ChangeToHttp;      /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8lwaToken;       /* lwaToken */
    const char *ps8StatCode;       /* statCode */
    const char *ps8BrandCode;      /* brandCode */
    const char *ps8ExtFiled;       /* extfield (the field's name is spelt so, also in the log) */
    const char *ps8AppIndex;       /* appkey */
    const char *ps8Hsv;            /* hsv, optional: null sends no hsv key, "" sends "hsv=" */
    const char *ps8FeatureCode;    /* featureCode */
    const char *ps8CapabilityCode; /* capabilityCode */
    const char *psAccessToken;     /* accessToken */
    const char *psVersion;         /* version */
    uint32_t u32LanguageID;        /* languageId */
    uint32_t u32SourceType;        /* sourceType */
} KX_VOICE_SKILL_INFO_S;

typedef struct {
    uint32_t u32ChangeToHttp;  /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8StateCode;  /* statCode */
    const char *ps8BrandCode;  /* brandCode */
    const char *ps8AppIndex;   /* appkey */
    const char *ps8LwaToken;   /* lwaToken */
    const char *ps8StateList;  /* stateList: JSON text, signed raw, sent URL-encoded */
    const char *psAccessToken; /* accessToken */
    const char *psVersion;     /* version */
    uint32_t u32LanguageID;    /* languageId */
    uint32_t u32SourceType;    /* sourceType */
} KX_VOICE_DEV_STATE_S;

typedef struct {
    uint32_t u32ChangeToHttp;  /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8StateCode;  /* statCode */
    const char *ps8BrandCode;  /* brandCode */
    const char *ps8AppIndex;   /* appkey */
    const char *ps8StateList;  /* stateList: JSON text, signed raw, sent URL-encoded */
    const char *psAccessToken; /* accessToken */
    const char *psVersion;     /* version */
    uint32_t u32LanguageID;    /* languageId */
    uint32_t u32SourceType;    /* sourceType */
} KX_VOICE_TRAIT_STATE_S;

typedef struct {
    uint32_t u32ChangeToHttp;      /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8AppIndex;       /* appkey */
    const char *ps8BrandCode;      /* brandCode */
    const char *ps8StateCode;      /* statCode */
    const char *ps8CapabilityCode; /* capabilityCode */
    const char *ps8FeatureCode;    /* FeatureCode (with a capital: first in the signed text) */
    const char *psAccessToken;     /* accessToken */
    const char *psVersion;         /* version */
    uint32_t u32LanguageID;        /* languageId */
    uint32_t u32SourceType;        /* sourceType */
} KX_VOICE_ACTION_INFO_S;

typedef struct {
    uint32_t u32ChangeToHttp;      /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8AppIndex;       /* appkey */
    const char *ps8BrandCode;      /* brandCode */
    const char *ps8StateCode;      /* statCode */
    const char *ps8CapabilityCode; /* capabilityCode */
    const char *ps8FeatureCode;    /* FeatureCode */
    uint32_t ps8Type;              /* type ("%u"; a number despite its name) */
    const char *psAccessToken;     /* accessToken */
    const char *psVersion;         /* version */
    uint32_t u32LanguageID;        /* languageId */
    uint32_t u32SourceType;        /* sourceType */
} KX_VOICE_PHRASES_INFO_S;

/*
 * Registration and state calls. Each signs S and posts B (+ "&sign=%s");
 * required fields are listed before psVersion and psAccessToken, which every
 * one of them requires too.
 *
 * KX_PUSH_VOICE_DEV_INFO   "/voiceservice/reportdevinfo"  "/tmp/pushdevinfo.json"
 *   requires device name, VSEnable, GSEnable, appkey, mac, Applist
 *   S: GSEnable, VSEnable, accessToken, appkey, applist, deviceName,
 *      languageId, mac, sourceType, version, vsAbility
 *   B: accessToken, deviceName (encoded), GSEnable, VSEnable, languageId,
 *      version, sourceType, vsAbility, appkey, applist (encoded), mac
 *   A null vsAbility travels as "(null)". Logs "cjsonBuff length is %d." with
 *   the app list's length.
 * KX_GET_VOICE_DEV_INFO    "/voiceservice/getdevinfo"     "/tmp/getdevinfo.json"
 *   requires appkey
 *   S: accessToken, appkey, languageId, sourceType, version
 *   B: accessToken, languageId, version, sourceType, appkey
 * KX_DELETE_VOICE_DEV_INFO "/voiceservice/deletedevinfo"  "/tmp/deletedevinfo.json"
 *   requires appkey, statCode, brandCode, capabilityCode, featureCode, extfield
 *   S: accessToken, appkey, brandCode, capabilityCode, extfield, featureCode,
 *      languageId, sourceType, statCode, version
 *   B: accessToken, languageId, version, sourceType, appkey, brandCode,
 *      capabilityCode, extfield, featureCode, statCode
 * KX_GET_VOICE_CFG_INFO    "/voiceservice/get_deviceportal_url"  "/tmp/getconfig.json"
 *   requires appkey, statCode, brandCode, vsType
 *   S: accessToken, appkey, brandCode, format=1, languageId, randStr,
 *      sourceType, statCode, timeStamp, version, vsType
 *   B: accessToken, appkey, brandCode, statCode, languageId, format=1,
 *      version, randStr, sourceType, timeStamp, vsType
 *   with a 32-digit nonce (KX_CREATE_RAND_STRING, which reseeds rand()) and
 *   time() as "%lld": two requests within one second differ only in randStr.
 * KX_ENABLE_VOICE_SKILL    "/voiceservice/enableskill"    "/tmp/getSkill.json"
 * KX_RESET_VOICE_SKILL     "/voiceservice/resetskillenablement"  "/tmp/getSkill.json"
 *   require lwaToken, statCode, brandCode, extfield, appkey, featureCode,
 *   capabilityCode
 *   S: accessToken, appkey, brandCode, capabilityCode, extfield, featureCode,
 *      [hsv], languageId, lwaToken, sourceType, statCode, version
 *   B: accessToken, lwaToken, statCode, brandCode, capabilityCode,
 *      featureCode, [hsv], appkey, extfield, languageId, version, sourceType
 *   The reset call logs the enable call's banner. Both write the same file:
 *   never run them at the same time.
 * KX_REPORT_VOICE_DEV_STATE   "/voiceservice/reportstate"      "/tmp/reportstate.json"
 *   requires statCode, brandCode, appkey, lwaToken, state list
 *   S and B: accessToken, appkey, brandCode, languageId, lwaToken, sourceType,
 *      statCode, stateList, version (the body's stateList encoded). An empty
 *   state list, or one whose encoding does not fit whole, fails with
 *   "KX_SDK_URLEncode with something error.".
 * KX_REPORT_VOICE_TRAIT_STATE "/voiceservice/reporttraitstate" "/tmp/reporttraitstate.json"
 *   as the device-state report without lwaToken.
 * KX_GET_VOICE_DEVICES_INFO   "/voiceservice/getdeviceinfo"    "/tmp/getdeviceinfo.json"
 *   record KX_VOICE_DEVICES_INFO_S; requires appkey, device name and Applist
 *   S: accessToken, appkey, languageId, sourceType, version
 *   B: accessToken, deviceName (encoded, not signed), languageId, version,
 *      sourceType, appkey
 *   Applist is not sent: only its length is logged ("cjsonBuff length is %d.").
 * KX_PUSH_ACTION_INFO         "/voiceservice/get_action_info"  "/tmp/getactioninfo.json"
 *   requires appkey, brandCode, statCode, capabilityCode, featureCode
 *   S: FeatureCode, accessToken, appkey, brandCode, capabilityCode,
 *      languageId, sourceType, statCode, version
 *   B: accessToken, appkey, FeatureCode, brandCode, capabilityCode,
 *      languageId, sourceType, statCode, version
 * KX_PUSH_SIMPLE_PHRASES_INFO "/voiceservice/get_sample_phrases" "/tmp/get_sample_phrases.json"
 *   as the action call with type ("%u") between statCode and version.
 */
KX_API int32_t KX_PUSH_VOICE_DEV_INFO(const KX_VOICE_DEV_INFO_S *psInfo, const char *ps8Domain,
                                      char *VoiceResultBuffer);
KX_API int32_t KX_GET_VOICE_DEV_INFO(const KX_VOICE_DEV_INFO_S *psInfo, const char *ps8Domain,
                                     char *VoiceResultBuffer);
KX_API int32_t KX_DELETE_VOICE_DEV_INFO(const KX_VOICE_DEV_INFO_S *psInfo, const char *ps8Domain,
                                        char *VoiceResultBuffer);
KX_API int32_t KX_GET_VOICE_CFG_INFO(const KX_VOICE_CFG_INFO_S *psCfg, const char *ps8Domain,
                                     char *VoiceResultBuffer);
KX_API int32_t KX_ENABLE_VOICE_SKILL(const KX_VOICE_SKILL_INFO_S *psSkill, const char *ps8Domain,
                                     char *VoiceResultBuffer);
KX_API int32_t KX_RESET_VOICE_SKILL(const KX_VOICE_SKILL_INFO_S *psSkill, const char *ps8Domain,
                                    char *VoiceResultBuffer);
KX_API int32_t KX_REPORT_VOICE_DEV_STATE(const KX_VOICE_DEV_STATE_S *psState, const char *ps8Domain,
                                         char *VoiceResultBuffer);
KX_API int32_t KX_REPORT_VOICE_TRAIT_STATE(const KX_VOICE_TRAIT_STATE_S *psState, const char *ps8Domain,
                                           char *VoiceResultBuffer);
KX_API int32_t KX_GET_VOICE_DEVICES_INFO(const KX_VOICE_DEVICES_INFO_S *psInfo, const char *ps8Domain,
                                         char *VoiceResultBuffer);
KX_API int32_t KX_PUSH_ACTION_INFO(const KX_VOICE_ACTION_INFO_S *psAction, const char *ps8Domain,
                                   char *VoiceResultBuffer);
KX_API int32_t KX_PUSH_SIMPLE_PHRASES_INFO(const KX_VOICE_PHRASES_INFO_S *psPhrases, const char *ps8Domain,
                                           char *VoiceResultBuffer);

/* ---- catalogue queries ------------------------------------------------------ */

typedef struct {
    uint32_t u32ChangeToHttp;       /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8AppIndex;        /* appkey */
    const char *ps8StatCode;        /* statCode */
    const char *ps8BrandCode;       /* brandCode */
    const char *ps8UpdatetimeStamp; /* updatetimeStamp (language and locale; null travels as "(null)") */
    uint32_t u32Scope;              /* scope ("%d", sample utterances) */
    uint32_t u32Type;               /* type ("%d", sample utterances) */
    const char *ps8CapabilityCode;  /* capabilityCode */
    const char *ps8FeatureCode;     /* FeatureCode */
    const char *ps8Hsv;             /* hsv, optional */
    const char *psAccessToken;      /* accessToken (endpoint only; null travels as "(null)") */
    const char *psVersion;          /* version, required */
    uint32_t u32LanguageID;         /* languageId */
    uint32_t u32SourceType;         /* sourceType */
} KX_VOICE_QUERY_S;

typedef struct {
    uint32_t u32ChangeToHttp;       /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8AppIndex;        /* appkey */
    const char *ps8BrandCode;       /* brandCode */
    const char *ps8StateCode;       /* statCode */
    const char *ps8CapabilityCode;  /* capabilityCode */
    const char *ps8FeatureCode;     /* FeatureCode */
    const char *ps8UpdatetimeStamp; /* updatetimeStamp; null = time() as "%lld" (locale) */
    const char *psAccessToken;      /* required, though neither Google call sends it */
    const char *psVersion;          /* version */
    uint32_t u32LanguageID;         /* languageId */
    uint32_t u32SourceType;         /* sourceType */
} KX_GOOGLE_QUERY_S;

typedef struct {
    uint32_t u32ChangeToHttp;         /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8BrandCode;         /* brandCode */
    const char *ps8StateCode;         /* statCode */
    const char *ps8DisplayLanguageId; /* displayLanguageId */
    const char *psAccessToken;        /* accessToken */
    const char *psVersion;            /* version */
    uint32_t u32LanguageID;           /* languageId */
    uint32_t u32SourceType;           /* sourceType */
} KX_WEB_PORTAL_QUERY_S;

/*
 * Alexa-side catalogues (KX_VOICE_QUERY_S). Each sends a fresh 32-digit
 * nonce randStr (KX_CREATE_RAND_STRING, which reseeds rand()) and format=1,
 * and logs "start NAME", "u32ChangeToHttp == 1 " (or "!= 1 ") and
 * "KX_CREATE_RAND_STRING success" before its banner. Language, locale,
 * sales-support, skill and sample-utterance queries require appkey, brandCode,
 * capabilityCode, featureCode, statCode and psVersion; hsv is sent only when
 * present.
 *
 * KX_GET_ALEXA_LANGUAGE   "/voiceservice/get_alexa_language"     "/tmp/getAlexaLan.json"
 *   S: FeatureCode, appkey, brandCode, capabilityCode, format, [hsv],
 *      languageId, randStr, sourceType, statCode, updatetimeStamp, version
 *   B: appkey, brandCode, capabilityCode, FeatureCode, format, [hsv],
 *      languageId, randStr, sourceType, statCode, updatetimeStamp, version
 * KX_GET_ALEXA_LOCAL      "/voiceservice/get_alexa_locale"       "/tmp/getAlexaLocal.json"
 *   as the language query, but the body's hsv stands before format.
 * KX_GET_ALEXA_ENDPOINT   "/voiceservice/get_alexa_endpoint_url" "/tmp/getAvsEndPoint.json"
 *   requires appkey, brandCode, statCode, psVersion
 *   S and B: accessToken, appkey, brandCode, format, languageId, randStr,
 *      sourceType, statCode, version
 * KX_GET_ALEXA_SALE_INFO  "/voiceservice/get_sales_support_info" "/tmp/getSalsSupportInfo.json"
 *   as the language query without updatetimeStamp.
 * KX_GET_SKILL_INFO       "/voiceservice/get_skill_info"         "/tmp/getSkillInfo.json"
 *   S as the sales-support query; B: appkey, brandCode, format,
 *   capabilityCode, FeatureCode, [hsv], languageId, randStr, sourceType,
 *   statCode, version
 * KX_GET_SAMPLE_UTTERANCE "/voiceservice/get_sample_utterance"   "/tmp/getSampleInfo.json"
 *   as the sales-support query with scope (after randStr) and type (after
 *   statCode), both "%d".
 */
KX_API int32_t KX_GET_ALEXA_LANGUAGE(const KX_VOICE_QUERY_S *psQuery, const char *ps8Domain, char *VoiceResultBuffer);
KX_API int32_t KX_GET_ALEXA_LOCAL(const KX_VOICE_QUERY_S *psQuery, const char *ps8Domain, char *VoiceResultBuffer);
KX_API int32_t KX_GET_ALEXA_ENDPOINT(const KX_VOICE_QUERY_S *psQuery, const char *ps8Domain, char *VoiceResultBuffer);
KX_API int32_t KX_GET_ALEXA_SALE_INFO(const KX_VOICE_QUERY_S *psQuery, const char *ps8Domain,
                                      char *VoiceResultBuffer);
KX_API int32_t KX_GET_SKILL_INFO(const KX_VOICE_QUERY_S *psQuery, const char *ps8Domain, char *VoiceResultBuffer);
KX_API int32_t KX_GET_SAMPLE_UTTERANCE(const KX_VOICE_QUERY_S *psQuery, const char *ps8Domain,
                                       char *VoiceResultBuffer);

/*
 * Google, sales and web-portal catalogues; none sends a nonce.
 *
 * KX_GET_GOOGLE_LANGUAGE_INFO "/voiceservice/get_google_language" "/tmp/get_google_language.json"
 *   KX_GOOGLE_QUERY_S; requires appkey, brandCode, statCode, capabilityCode,
 *   featureCode, updatetimeStamp, psVersion, psAccessToken
 *   S and B: FeatureCode, appkey, brandCode, capabilityCode, languageId,
 *      sourceType, statCode, updatetimeStamp, version
 * KX_GET_GOOGLE_LOCALE_INFO   "/voiceservice/get_google_locale"   "/tmp/get_google_locale.json"
 *   KX_GOOGLE_QUERY_S; requires appkey, brandCode, statCode, psVersion,
 *   psAccessToken (a null capabilityCode or featureCode travels as "(null)").
 *   S and B as the language query, except that with an update time stamp
 *   the body separates FeatureCode from appkey by "&&"; without one, time()
 *   as "%lld" is sent in its place (with single separators). Logs its choice:
 *   "ps8UpdatetimeStamp != NULL." and "ps8UpdatetimeStamp: %s", or
 *   "ps8UpdatetimeStamp == NULL."; before the body "ps8UpdatetimeStamp !!= NULL."
 *   or "ps8UpdatetimeStamp == NULL.".
 * KX_GET_SALES_INFO           "/voiceservice/get_sales_info"      "/tmp/get_sales_info.json"
 *   KX_VOICE_ACTION_INFO_S; requires appkey, brandCode, statCode,
 *   capabilityCode, featureCode, psVersion, psAccessToken
 *   S: FeatureCode, accessToken, appkey, brandCode, capabilityCode,
 *      languageId, sourceType, statCode, version
 *   B: accessToken, appkey, FeatureCode, brandCode, capabilityCode,
 *      languageId, sourceType, statCode, version
 * KX_GET_WEB_PORTAL_LANGUAGE_INFO "/voiceservice/get_web_portal_language" "/tmp/get_web_portal_language.json"
 * KX_GET_WEB_PORTAL_LOCALE_INFO   "/voiceservice/get_web_portal_locale"   "/tmp/get_web_portal_locale.json"
 *   KX_WEB_PORTAL_QUERY_S; require brandCode, statCode, displayLanguageId,
 *   psVersion, psAccessToken
 *   S and B: accessToken, brandCode, displayLanguageId, languageId,
 *      sourceType, statCode, version
 */
KX_API int32_t KX_GET_GOOGLE_LANGUAGE_INFO(const KX_GOOGLE_QUERY_S *psQuery, const char *ps8Domain,
                                           char *VoiceResultBuffer);
KX_API int32_t KX_GET_GOOGLE_LOCALE_INFO(const KX_GOOGLE_QUERY_S *psQuery, const char *ps8Domain,
                                         char *VoiceResultBuffer);
KX_API int32_t KX_GET_SALES_INFO(const KX_VOICE_ACTION_INFO_S *psAction, const char *ps8Domain,
                                 char *VoiceResultBuffer);
KX_API int32_t KX_GET_WEB_PORTAL_LANGUAGE_INFO(const KX_WEB_PORTAL_QUERY_S *psQuery, const char *ps8Domain,
                                               char *VoiceResultBuffer);
KX_API int32_t KX_GET_WEB_PORTAL_LOCALE_INFO(const KX_WEB_PORTAL_QUERY_S *psQuery, const char *ps8Domain,
                                             char *VoiceResultBuffer);

KX_END_DECLS

#endif
