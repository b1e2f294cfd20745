/*
 * kx_sdk_upgrade.h -- Upgrade checks: does newer firmware exist for this TV,
 * does a newer version of an installed application package exist.
 * Reach it through kx_cloud_openapi.h.
 *
 * Both calls post a form-encoded body to a path under "/upgrade/" and write
 * the cloud's signed XML answer into a stream that the caller opened:
 *
 *  - Scheme. The record's first field u32ChangeToHttp selects the transport:
 *    1 = "http://" + domain + ":80" + path and the plain member; any other
 *    value = "https://" + domain + path, checked against the built-in CA.
 *  - Body. Fixed keys, the caller's values exactly as given (nothing is
 *    URL-encoded) and the caller's access token. No signature is made: the
 *    token is the credential. An optional text left null sends no key at all.
 *  - Answer. Appended to *ppStream, which the caller opened for reading and
 *    writing (normally empty) and closes afterwards; the call never opens,
 *    rewinds or closes it. On 0 the stream holds the answer without its
 *    signature element (KX_SDK_XML_VERIFY).
 *  - Order of checks. Unlike the account calls, these check their arguments
 *    first ("invalid arg!") and the initialisation second ("please firstly to
 *    call KX_GLOBAL_INIT()!").
 *  - The language identifier is sent whole ("%u", any 32-bit value).
 *  - The call keeps no pointer to the record, its texts or the stream.
 */
#ifndef KX_SDK_UPGRADE_H
#define KX_SDK_UPGRADE_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

/* ---- firmware --------------------------------------------------------------- */

typedef struct {
    uint32_t u32ChangeToHttp;        /* 1 = plain HTTP on port 80, else HTTPS */
    uint32_t u32LanguageId;          /* languageId ("%u") */
    const char *ps8CurrentVersion;   /* currentVersion, required */
    const char *ps8AccessToken;      /* accessToken, required */
    const char *ps8DvcRsv;           /* dvcRsv (device reserve), required */
    const char *ps8StatCode;         /* statCode, optional (null: no key) */
    const char *ps8PostCode;         /* postCode, optional (null: no key) */
    const char *ps8BrandCode;        /* brandCode, optional (null: no key) */
    const char *ps8Mac;              /* MAC, optional (null: no key) */
} KX_UPGRADE_CHECK_S;

/*
 * Asks whether newer firmware exists: POSTs to "/upgrade/check_version"
 *   msgVersion=513&msgType=256&msgId=66&currentVersion=V&dvcRsv=R
 *   [&statCode=S][&postCode=P][&brandCode=B][&MAC=M]
 *   &accessToken=T&version=7.0&format=0&sourceType=1&languageId=L
 * and appends the XML answer to *ppStream.
 * Returns 0 when the answer verified. When the post itself fails (no
 * connection, an HTTP error status, a time-out) it logs "Failed to call
 * KX_SDK_HTTP_POST." and returns the transport's own result (-1) without
 * verifying: what arrived before the failure stays in the stream. -1 for a
 * null record, stream address, stream, current version, token or device
 * reserve ("invalid arg!"), an uninitialised library, a URL that cannot be
 * built (also a null domain: "failed to call KX_SDK_CREATE_URL()."), no
 * memory ("out of memory."), or an answer that does not verify ("failed to
 * verify xml data!").
 */
KX_API int32_t KX_UPGRADE_CHECK_VERSION(const KX_UPGRADE_CHECK_S *psCheck, const char *ps8Domain, FILE **ppStream);

/* ---- application package ------------------------------------------------------ */

typedef struct {
    uint32_t u32ChangeToHttp;        /* 1 = plain HTTP on port 80, else HTTPS */
    uint32_t u32LanguageId;          /* languageId ("%u") */
    const char *ps8CurrentVersion;   /* currentVersion, required */
    const char *ps8AccessToken;      /* accessToken, required */
    const char *ps8PackageName;      /* packageName, required */
    const char *ps8StatCode;         /* statCode, optional (null: no key) */
    const char *ps8PostCode;         /* postCode, optional (null: no key) */
} KX_APP_UPGRADE_CHECK_S;

/*
 * Asks whether a newer version of an application package exists: POSTs to
 * "/upgrade/check_app_version"
 *   packageName=N&currentVersion=V[&statCode=S][&postCode=P]
 *   &accessToken=T&version=7.0&format=0&sourceType=1&languageId=L
 * (no message identifiers, no brandCode, no MAC) and appends the XML answer
 * to *ppStream.
 * Returns 0 when the answer verified; -1 otherwise, as for
 * KX_UPGRADE_CHECK_VERSION, except that a failed post logs "Failed to call
 * KX_SDK_HTTPS_POST." (over either scheme) and returns -1. Required: the
 * record, stream address, stream, current version, token and package name.
 */
KX_API int32_t KX_APP_UPGRADE_CHECK_VERSION(const KX_APP_UPGRADE_CHECK_S *psCheck, const char *ps8Domain,
                                            FILE **ppStream);

KX_END_DECLS

#endif
