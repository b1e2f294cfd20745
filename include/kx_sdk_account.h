/*
 * kx_sdk_account.h -- Account and messaging calls: device sign-in, device
 * serial, authorisation information, token refresh, sign-out, code
 * authorisation, customer, configuration and message queries.
 * Reach it through kx_cloud_openapi.h.
 *
 * Every call here takes a caller-filled request record, the service domain
 * (normally the one given to KX_GLOBAL_INIT, e.g. "api.example.com" or
 * "127.0.0.1:8443") and the place where the answer goes, and makes one signed
 * request:
 *
 *  - Scheme. The record's first field u32ChangeToHttp selects the transport:
 *    1 = "http://" + domain + ":80" + path and the plain member; any other
 *    value = "https://" + domain + path, checked against the built-in CA.
 *  - Signature. The parameters are printed as key=value pairs joined by "&" in
 *    ascending byte order of the keys (capitals first), with a 32-digit nonce
 *    randStr and the time stamp timeStamp ("%lld" of time()). That text is
 *    signed (MD5, RSA with the built-in server key, base64, percent-encoded)
 *    and the body ends in "&sign=" and the signature. A posted body may carry
 *    keys that are not signed (noted per call).
 *  - Answers. Sign-in and device serial write the server's XML answer into the
 *    caller's stream; the other calls write the raw answer into a fixed file
 *    under /tmp (opened "w+", closed by the call, left on disk) and copy the
 *    verified JSON into the caller's buffer, which must hold the whole answer
 *    (its size is not checked).
 *  - Results. 0 when the answer passed its verification; -1 otherwise,
 *    including every failed transfer (the transport's own result is only
 *    logged). The call keeps no pointer to the record, its texts, the stream
 *    or the buffer after it returns.
 *  - Fixed files are shared by every call of the same kind: two calls of one
 *    kind must not run at the same time.
 *  - 32-bit numbers sent as decimal texts (languages, formats, page sizes,
 *    flags) go through a 4-byte text: they must stay below 1000.
 */
#ifndef KX_SDK_ACCOUNT_H
#define KX_SDK_ACCOUNT_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

/* ---- device sign-in -------------------------------------------------------- */

typedef struct {
    uint32_t u32ChangeToHttp;    /* 1 = plain HTTP on port 80, else HTTPS */
    int32_t eAuthenticationMode; /* logged only, never sent */
    uint32_t eLanguageId;        /* sent as languageId ("%u") */
    const char *ps8DeviceId;     /* sent as deviceId; 24 characters of prefix followed by the
                                    serial, which is sent as devSerial */
    const char *ps8AppIndex;     /* application key, sent as appKey */
    const char *ps8AppReference; /* application secret, sent only AES-encrypted as appSecret */
} KX_AUTH_AUTHENTICATE_S;

/*
 * Signs the device in: POSTs to "/aaa/sign_in" with socket mark 100
 *   appKey, appSecret, devSerial, deviceId, format=0, languageId, loginName=,
 *   qrCodeFlag=, randStr, serviceType=9, signature=, sourceType=1, timeStamp,
 *   version=7.0, webFlag=, sign
 * where appSecret is the secret padded to the next multiple of 16 (PKCS #7),
 * encrypted with KX_SDK_AES_ENCRYPTION and written as upper-case hexadecimal,
 * and the four empty keys are sent but not signed. devSerial is the device id
 * from its 25th character on ("" when the id is shorter).
 * The XML answer is appended to *ppStream, which the caller opened for reading
 * and writing and closes afterwards; on 0 the stream holds the answer without
 * its signature element (KX_SDK_XML_VERIFY).
 * Returns 0 when the answer verified, -1 for an uninitialised library, a null
 * record, stream address, stream, device id, key or secret ("invalid arg!"),
 * a failed URL, allocation, encryption or signature, or an answer that does
 * not verify ("failed to verify xml data!").
 */
KX_API int32_t KX_AUTH_AUTHENTICATE(const KX_AUTH_AUTHENTICATE_S *psAuth, const char *ps8Domain, FILE **ppStream);

/* ---- device serial ---------------------------------------------------------- */

typedef struct {
    uint32_t u32ChangeToHttp;  /* 1 = plain HTTP on port 80, else HTTPS */
    const char *psFeatureCode; /* featureCode, required */
    const char *psDevFlag;     /* dev_flag, required */
    const char *psOriginalId;  /* originalId, required, may be empty */
    const char *psAccessToken; /* accessToken, optional (null or empty: not signed) */
} KX_DEV_SERIAL_S;

/*
 * Asks for the device's serial: POSTs to "/aaa/get_dev_serial" with socket
 * mark 100 the body
 *   [accessToken=T&]dev_flag&featureCode&format=0&languageId=0&originalId&
 *   randStr&timeStamp&version=7.0&sign
 * accessToken is sent whenever the token is not null (also empty), originalId
 * always (also empty); the signed text carries each only when it is not
 * empty (a token is signed through a 1024-byte prefix, an original id through
 * a 128-byte one, both cut beyond). The XML answer lands in *ppStream as for
 * KX_AUTH_AUTHENTICATE.
 * Returns 0 verified; -1 otherwise (null record, stream address, feature code,
 * device flag or original id: "invalid arg!").
 */
KX_API int32_t KX_GET_DEV_SERIAL(const KX_DEV_SERIAL_S *psDevSerial, const char *ps8Domain, FILE **ppStream);

/* ---- authorisation information ---------------------------------------------- */

typedef struct {
    uint32_t u32ChangeToHttp;  /* 1 = plain HTTP on port 80, else HTTPS */
    uint32_t u32Format;        /* format ("%u", below 1000) */
    const char *ps8ClientId;   /* client_id, required */
    uint32_t u32LanguageId;    /* languageId ("%u", below 1000) */
    const char *psAccessToken; /* accessToken, required */
    const char *psDevSerial;   /* devSerial, required */
} KX_AUTHORIZATION_INFO_S;

/*
 * Fetches the authorisation information of a signed-in device for a client:
 * GET "/aaa/get_authorizationinfo?accessToken&client_id&devSerial&format&
 * languageId&randStr&sourceType=1&timeStamp&version=7.0&sign" (the signed text
 * includes the leading "?"). The raw answer stays in
 * "/tmp/authorizationinfo.json"; KX_SDK_JSON_VERIFY1 re-prints it (indented)
 * into ps8Result without a signature check.
 * Returns 0 when the answer parsed, -1 otherwise (null record, buffer, token,
 * serial or client id: "invalid arg!").
 */
KX_API int32_t KX_GET_AUTHORIZATION_INFO(const KX_AUTHORIZATION_INFO_S *psInfo, const char *ps8Domain,
                                         char *ps8Result);

/* ---- token and session --------------------------------------------------------- */

typedef struct {
    uint32_t u32ChangeToHttp;    /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8RefreshToken; /* refreshToken */
    const char *ps8AppIndex;     /* appKey */
    const char *ps8AppReference; /* application secret, sent encrypted as appSecret */
    uint32_t u32Reserved;        /* never read */
    const char *psDevSerial;     /* devSerial */
    const char *psDeviceId;      /* deviceId */
} KX_REFRESH_TOKEN_S;

typedef struct {
    uint32_t u32ChangeToHttp;  /* 1 = plain HTTP on port 80, else HTTPS */
    const char *psAccessToken; /* accessToken */
    const char *psDevSerial;   /* devSerial */
    const char *psDeviceId;    /* deviceId */
} KX_TOKEN_DEVICE_S;

typedef struct {
    uint32_t u32ChangeToHttp;    /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8StatCode;     /* statCode */
    const char *ps8BrandCode;    /* brandCode */
    const char *ps8VsType;       /* vsType */
    uint32_t u32Reserved;        /* never read */
    const char *ps8AppIndex;     /* appkey (lower case on the wire) */
    const char *ps8AppReference; /* application secret, sent encrypted as appSecret */
    const char *psAccessToken;   /* accessToken */
    const char *psDevSerial;     /* devSerial */
    const char *psDeviceId;      /* deviceId */
} KX_CODE_AUTH_URL_S;

/*
 * The four session calls POST to their path, write the raw answer into their
 * fixed file and copy the verified JSON (without its signatureServer member)
 * into ps8Result (KX_SDK_JSON_VERIFY). format and languageId are 1. Every
 * text field of the record is required; a null record, buffer or text is
 * "invalid arg!". Result: 0 verified, else -1.
 *
 * KX_REFRESH_TOKEN      "/aaa/sign_in_refreshtoken"  "/tmp/refreshtoken.json"
 *   appKey, appSecret (encrypted as for sign-in), devSerial, deviceId,
 *   format, languageId, randStr, refreshToken, sourceType=1, timeStamp,
 *   version=7.0
 * KX_SIGN_OUT           "/aaa/sign_out"              "/tmp/signout.json"
 *   accessToken, devSerial, deviceId, format, languageId, randStr,
 *   sourceType=1, timeStamp, version=7.0
 * KX_SIGN_INFO_BY_CODE  "/aaa/get_signinfo_by_code"  "/tmp/signinfo.json"
 *   the sign-out request on its own path (no code parameter)
 * KX_GET_CODE_AUTH_URL  "/voiceservice/get_codeauth_url"  "/tmp/getauthurl.json"
 *   accessToken, appSecret, appkey (lower case), brandCode, devSerial,
 *   deviceId, format, languageId, randStr, sourceType=1, statCode, timeStamp,
 *   version=1.1, vsType
 */
KX_API int32_t KX_REFRESH_TOKEN(const KX_REFRESH_TOKEN_S *psRefresh, const char *ps8Domain, char *ps8Result);
KX_API int32_t KX_SIGN_OUT(const KX_TOKEN_DEVICE_S *psToken, const char *ps8Domain, char *ps8Result);
KX_API int32_t KX_SIGN_INFO_BY_CODE(const KX_TOKEN_DEVICE_S *psToken, const char *ps8Domain, char *ps8Result);
KX_API int32_t KX_GET_CODE_AUTH_URL(const KX_CODE_AUTH_URL_S *psCodeAuth, const char *ps8Domain, char *ps8Result);

/* ---- customer, configuration and message queries ------------------------------ */

typedef struct {
    uint32_t u32ChangeToHttp;  /* 1 = plain HTTP on port 80, else HTTPS */
    const char *ps8QueryType;  /* queryType: sent, not signed */
    const char *psAccessToken; /* accessToken */
    const char *psDevSerial;   /* devSerial */
    const char *psDeviceId;    /* deviceId */
} KX_CUSTOMER_INFO_S;

typedef struct {
    uint32_t u32ChangeToHttp;  /* 1 = plain HTTP on port 80, else HTTPS */
    uint32_t u32PageSize;      /* pageSize ("%u", below 1000) */
    uint32_t u32RealtimeFlag;  /* realtimeFlag ("%u", below 1000) */
    const char *psMsgList;     /* msgList */
    const char *psAccessToken; /* accessToken */
    const char *psDevSerial;   /* devSerial */
    const char *psDeviceId;    /* deviceId */
} KX_MSG_INFO_S;

/*
 * Queries of the signed-in account; every text field is required, format and
 * languageId are 1, the raw answer stays in the fixed file:
 *
 * KX_GET_CUSTOMER_INFO     GET "/cam/user/get_customer_info?..."  "/tmp/customerinfo.json"
 *   signed query with queryType in its sorted place (sent but not signed);
 *   KX_SDK_JSON_VERIFY1 re-prints the answer into ps8Result without a
 *   signature check.
 * KX_GET_SYS_CONFIG_INFO   GET "/message/get_msg_configs?..."     "/tmp/sysconfigs.json"
 *   unsigned query (no sign); the answer is still verified.
 * KX_GET_MSG_INFO          POST "/message/get_msg"                "/tmp/sysmsginfo.json"
 *   accessToken, devSerial, deviceId, format, languageId, msgList, pageSize,
 *   randStr, realtimeFlag, sourceType=1, timeStamp, version=7.0, sign
 * KX_GET_MSG_CHANNEL_INFO  GET "/message/get_msg_channel?..."     "/tmp/sysmsgchannel.json"
 *
 * Result: 0 verified (the JSON without its signature in ps8Result), else -1.
 */
KX_API int32_t KX_GET_CUSTOMER_INFO(const KX_CUSTOMER_INFO_S *psCustomer, const char *ps8Domain, char *ps8Result);
KX_API int32_t KX_GET_SYS_CONFIG_INFO(const KX_TOKEN_DEVICE_S *psToken, const char *ps8Domain, char *ps8Result);
KX_API int32_t KX_GET_MSG_INFO(const KX_MSG_INFO_S *psMsg, const char *ps8Domain, char *ps8Result);
KX_API int32_t KX_GET_MSG_CHANNEL_INFO(const KX_TOKEN_DEVICE_S *psToken, const char *ps8Domain, char *ps8Result);

KX_END_DECLS

#endif
