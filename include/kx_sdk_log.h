/*
 * kx_sdk_log.h -- Log service: where to send logs and what to collect (the
 * service list and the log policies), the log upload, and the upgrade-event
 * report. Reach it through kx_cloud_openapi.h.
 *
 * Unlike the account calls these make no request signature: they send the
 * caller's access token (and the service's fixed message identifiers) as
 * plain text, no value URL-encoded. Every call writes the answer into a
 * stream that the caller opened (for reading and writing, e.g. "w+") and
 * passes by reference; the call never opens or closes it, and the caller
 * rewinds it before reading.
 *
 *  - Scheme. u32ChangeToHttp 1 selects "http://" + domain + ":80" and the plain
 *    transport member; any other value "https://" + domain, checked against
 *    the built-in CA.
 *  - Checks. These calls check their arguments before the initialisation:
 *    a null record, stream reference, closed stream (null *ppStream) or
 *    required text is "invalid arg!" and -1 even before KX_GLOBAL_INIT; then
 *    "please firstly to call KX_GLOBAL_INIT()!" and -1.
 *  - Absent optional texts are sent as empty values.
 *  - The two key pairs: service addresses and policies are decrypted with the
 *    pair of KX_SDK_AES_DECRYPT, uploads encrypted with that of
 *    KX_SDK_AES_ENCRYPT (both fixed when the library is built).
 */
#ifndef KX_SDK_LOG_H
#define KX_SDK_LOG_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

/* ---- service list ---------------------------------------------------------- */

#define KX_LOG_SERVICE_SLOTS 8          /* addresses kept of each kind */
#define KX_LOG_SERVICE_ADDRESS_SIZE 256 /* bytes of one address slot */

typedef struct {
    uint32_t u32ChangeToHttp;   /* 1 = plain HTTP on port 80, else HTTPS */
    uint32_t u32LanguageId;     /* languageId ("%u") */
    const char *ps8AppVersion;  /* appVersion, optional (null: empty) */
    const char *ps8AppKey;      /* refAppKey, required */
    const char *ps8AccessToken; /* accessToken, required */
} KX_LOG_SERVICE_REQ_S;

/* Filled by KX_LOG_GET_SERVICELIST, which zeroes it first. */
typedef struct {
    uint32_t u32PolicyServiceNum; /* policy service addresses found (at most 8) */
    uint32_t u32UploadServiceNum; /* upload service addresses found (at most 8) */
    char as8PolicyService[KX_LOG_SERVICE_SLOTS][KX_LOG_SERVICE_ADDRESS_SIZE];
    char as8UploadService[KX_LOG_SERVICE_SLOTS][KX_LOG_SERVICE_ADDRESS_SIZE];
} KX_LOG_SERVICE_LIST_S;

/*
 * Asks where the log services are: GETs
 *   "/pds/getAppServiceList?appVersion=V&refAppKey=K&version=7.0&format=0&
 *   sourceType=1&languageId=L&accessToken=T"
 * (composed into 1024 bytes, cut beyond) into *ppStream and verifies the
 * signed XML answer (KX_SDK_XML_VERIFY: the stream then holds it without its
 * signature). Then psList is zeroed and filled from the answer: every
 *   /response/appServiceList/addressInfo[addressType="strategy_all"]/addressList/address
 * in document order becomes the next policy service address, every
 *   ...addressInfo[addressType="dasurl"]/addressList/address
 * the next upload service address. An address travels as upper-case
 * hexadecimal text of its AES cipher text (KX_SDK_AES_DECRYPT); one that does
 * not decrypt is still counted and leaves its slot empty. Each kind keeps its
 * first 8 addresses, and each slot keeps at most 255 characters and its
 * terminator (the answer's longer addresses are cut).
 * Returns 0 with the list filled; -1 for a null record, domain, list, stream
 * reference, stream, key or token ("invalid arg!"), an uninitialised library,
 * a failed transfer ("Failed to call KX_SDK_HTTP_GET."), an answer that does
 * not verify ("failed to  verify xml data!", two blanks), or one that does not
 * parse or whose resultCode is not "0" ("Failed to parse servicelist xml.").
 */
KX_API int32_t KX_LOG_GET_SERVICELIST(const KX_LOG_SERVICE_REQ_S *psReq, const char *ps8Domain,
                                      KX_LOG_SERVICE_LIST_S *psList, FILE **ppStream);

/* ---- log policies ------------------------------------------------------------ */

typedef struct {
    uint32_t u32ChangeToHttp;   /* 1 = plain HTTP on port 80, else HTTPS */
    uint32_t u32Reserved2;      /* reserved, never read */
    uint32_t u32DeviceType;     /* deviceType ("%u") */
    uint32_t u32LanguageId;     /* languageId ("%u") */
    uint32_t u32Reserved5;      /* reserved, never read */
    uint32_t u32Reserved6;      /* reserved, never read */
    uint32_t u32Reserved7;      /* reserved, never read */
    uint32_t u32Reserved8;      /* reserved, never read */
    const char *ps8AccessToken; /* accessToken, required */
} KX_LOG_POLICY_REQ_S;

/*
 * Fetches the log strategy: GETs
 *   "/log/get_strategy?msgVersion=4&msgType=9&msgId=20&deviceType=D&
 *   version=7.0&format=0&sourceType=1&languageId=L&accessToken=T"
 * (1024 bytes, cut beyond) into *ppStream and verifies the signed XML answer;
 * on 0 the stream holds the strategy without its signature.
 * Returns 0 verified; -1 for a null record, domain, stream reference, stream
 * or token ("invalid arg!"), an uninitialised library, a failed transfer
 * ("Failed to call KX_SDK_POST.", so named although a GET was made) or an
 * answer that does not verify ("failed to  verify xml data!").
 */
KX_API int32_t KX_LOG_QUERY_POLICY(const KX_LOG_POLICY_REQ_S *psReq, const char *ps8Domain, FILE **ppStream);

typedef struct {
    uint32_t u32ChangeToHttp;      /* 1 = plain HTTP on port 80, else HTTPS */
    uint32_t u32Reserved2;         /* reserved, never read */
    uint32_t u32Reserved3;         /* reserved, never read */
    uint32_t u32Reserved4;         /* reserved, never read */
    uint32_t u32AppKey;            /* appKey ("%u") */
    uint32_t u32Reserved6;         /* reserved, never read */
    const char *ps8CountryCode;    /* countryCode, optional */
    const char *ps8BrandCode;      /* brandCode, optional */
    uint32_t u32Reserved9;         /* reserved, never read */
    const char *ps8DeviceId;       /* deviceId, required */
    const char *ps8PolicySeq;      /* policySeq, optional */
    const char *ps8CapabilityCode; /* capabilityCode, optional */
    const char *ps8TVOSVersion;    /* TVOSversion, optional */
} KX_LOG_ALL_POLICY_REQ_S;

/*
 * Fetches the exception-dotting policy: GETs
 *   "/log/get_dotexception_strategy?policySeq=S&deviceId=I&appKey=A&
 *   countryCode=C&brandCode=B&version=1&capabilityCode=P&TVOSversion=O"
 * (1024 bytes, cut beyond) into *ppStream. This answer carries no signature;
 * its resultCode (a direct child of the root) must be exactly "0". Its
 * /response/policyContent is hexadecimal text of an AES cipher text
 * (KX_SDK_AES_DECRYPT) of base64 text of a gzip stream of the policy XML.
 * The stream is truncated, the whole policy written into it in its place and
 * the stream rewound: on 0 it holds the plain policy XML from its start.
 * The policy must be whole: one that decompresses to more than 32 times its
 * compressed size, or whose gzip stream ends early, fails ("failed to
 * decompress policy.") and leaves the stream empty.
 * Returns 0 with the policy in the stream; -1 for a null record, domain,
 * stream reference, stream or device id ("invalid arg!"), an uninitialised
 * library, a failed transfer ("Failed to call KX_SDK_HTTP_GET."), a resultCode
 * other than "0" ("Failed to find resultCode tag."), or a policy that does not
 * decrypt, decode, decompress or write ("Failed to unzip policy.").
 */
KX_API int32_t KX_LOG_QUERY_ALL_POLICY(const KX_LOG_ALL_POLICY_REQ_S *psReq, const char *ps8Domain,
                                       FILE **ppStream);

/* ---- log upload -------------------------------------------------------------- */

#define KX_LOG_COMPRESS_RAW 2 /* KX_LOG_UPLOAD_EX_S.u32CompressMode: send the data uncompressed */
#define KX_LOG_FORM_EVENT 4   /* KX_LOG_UPLOAD_EX_S.u32MsgForm: the event form */

typedef struct {
    uint32_t u32ChangeToHttp;   /* 1 = plain HTTP, else HTTPS */
    uint32_t u32Reserved2;      /* reserved, never read */
    uint32_t u32Reserved3;      /* reserved, never read */
    uint32_t u32Reserved4;      /* reserved, never read */
    uint32_t u32Reserved5;      /* reserved, never read */
    const char *ps8LogTag;      /* the caller's name for this log: required, never sent */
    uint32_t u32LogDataLen;     /* bytes of log data */
    const char *ps8LogData;     /* the log data, required */
    const char *ps8UploadUrl;   /* complete address to post to (an upload service address), required */
} KX_LOG_UPLOAD_S;

/*
 * Uploads a block of log data: compresses it (KX_SDK_GZCOMPRESS into a
 * working buffer of the larger of its length and 8192 bytes), encrypts the
 * gzip stream (KX_SDK_AES_ENCRYPT), base64-encodes and URL-encodes the cipher
 * text and POSTs the JSON object
 *   {
 *   	"logmsg":	"<the encoded text>"
 *   }
 * (cJSON's formatted print, "Content-Type: application/json") to ps8UploadUrl
 * as it stands, answering into *ppStream. The answer is not examined.
 * Returns 0 when the post succeeded; -1 for a null record, stream reference,
 * stream, tag, data or address ("invalid arg!"), an uninitialised library,
 * data that does not compress into the working buffer ("failed to Compress
 * logdata.", also for empty data), a failed encryption, allocation or JSON
 * object, or a failed post ("Failed to call KX_SDK_HTTP_POST.").
 */
KX_API int32_t KX_LOG_UPLOAD(const KX_LOG_UPLOAD_S *psUpload, FILE **ppStream);

typedef struct {
    uint32_t u32ChangeToHttp;   /* 1 = plain HTTP, else HTTPS */
    uint32_t u32CompressMode;   /* KX_LOG_COMPRESS_RAW = no compression, any other value = gzip */
    uint32_t u32MsgForm;        /* KX_LOG_FORM_EVENT = the event form, any other value = the log form */
    uint32_t u32Reserved4;      /* reserved, never read */
    uint32_t u32Reserved5;      /* reserved, never read */
    const char *ps8DeviceId;    /* event form: deviceid (null: empty) */
    const char *ps8EventCode;   /* event form: eventcode (null: empty) */
    const char *ps8ErrorCode;   /* event form: errorcode (null: empty) */
    const char *ps8FileName;    /* event form: filename (null: empty) */
    uint32_t u32Reserved10;     /* reserved, never read */
    const char *ps8LogTag;      /* the caller's name for this data: required, never sent */
    uint32_t u32DataLen;        /* bytes of data */
    const char *ps8Data;        /* the data, required */
    const char *ps8UploadUrl;   /* complete address to post to, required */
} KX_LOG_UPLOAD_EX_S;

/*
 * Uploads data as KX_LOG_UPLOAD does, with two choices:
 *  - u32CompressMode KX_LOG_COMPRESS_RAW: the data is not compressed; the
 *    whole working buffer (the data, zero-filled to 8192 bytes when shorter)
 *    is encrypted. Any other value compresses as KX_LOG_UPLOAD does.
 *  - u32MsgForm KX_LOG_FORM_EVENT: the object
 *      {"message":"<base64 of the cipher text>","deviceid":"...","eventcode":"...",
 *      "errorcode":"...","filename":"..."}
 *    (no URL-encoding). Any other value: {"logmsg":"<the cipher text>"} with
 *    the raw cipher bytes as the string, which ends at the first zero byte of
 *    the cipher text (it is sent so; the service expects it).
 * Both are printed unformatted. Plain HTTP posts with KX_SDK_HTTP_POST_EX,
 * HTTPS with KX_SDK_HTTPS_POST_BINARY.
 * Returns as KX_LOG_UPLOAD (the required fields are ps8LogTag, ps8Data and
 * ps8UploadUrl).
 */
KX_API int32_t KX_LOG_UPLOAD_EX(const KX_LOG_UPLOAD_EX_S *psUpload, FILE **ppStream);

/* ---- upgrade-event report ------------------------------------------------------ */

/* Note: the scheme selector is this record's second field. */
typedef struct {
    const char *ps8DeviceExtInfoStr; /* deviceExtInfoStr, required */
    uint32_t u32ChangeToHttp;        /* 1 = plain HTTP on port 80, else HTTPS */
    uint32_t u32SourceType;          /* sourceType ("%u") */
    uint32_t u32LanguageId;          /* languageId ("%u") */
    const char *ps8Version;          /* version, optional (null: empty) */
    const char *ps8AccessToken;      /* accessToken, required */
    const char *ps8EventCode;        /* eventCode, required */
} KX_UPGRADE_EVENT_S;

/*
 * Reports an upgrade event: POSTs to "/upgrade/report_upgrade_event" with
 * socket mark 100 the form body
 *   deviceExtInfoStr=X&eventCode=E&accessToken=T&version=V&sourceType=S&languageId=L
 * (no signature, no URL-encoding) into *ppStream and verifies the signed XML
 * answer (on 0 the stream holds it without its signature).
 * Returns 0 verified; -1 for a null record, stream reference, stream, device
 * information, token or event code ("invalid arg!"), an uninitialised
 * library, a URL that cannot be built (also for a null domain), a failed
 * allocation or post, or an answer that does not verify ("[Report upgrade
 * event]failed to verify xml data!").
 */
KX_API int32_t KX_REPORT_UPGRADE_EVENT(const KX_UPGRADE_EVENT_S *psEvent, const char *ps8Domain, FILE **ppStream);

KX_END_DECLS

#endif
