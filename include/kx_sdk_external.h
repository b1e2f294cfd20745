/*
 * kx_sdk_external.h -- Signed external fetch: the application's own request
 * (any URL, any body, its own headers) sent through the library's transport,
 * optionally signed, answered into a heap text after the answer's signature
 * was checked. Reach it through kx_cloud_openapi.h.
 *
 * Four entry points share one design:
 *   KX_SDK_FETCH_DATA         signed or unsigned, JSON answers only
 *   KX_SDK_FETCH_DATA_V31     a socket mark, a choice of body or header
 *                             signature, XML or JSON answers
 *   KX_SDK_FETCH_DATA_V30     KX_SDK_FETCH_DATA_V31 without a mark
 *   KX_SDK_FETCH_DATA_3rdUrl  unsigned and unverified, answers up to 200 KiB
 *
 * Request. All texts are NUL-terminated and stay the caller's. A GET is sent
 * to ps8Url immediately followed by ps8Body (nothing is inserted between the
 * two: ps8Url ends with "?" or "&" as the service needs); a POST sends ps8Body
 * as the form body to ps8Url. A plain field of non-zero selects "http" and the
 * plain transport members, 0 the secure ones (certificate checked against the
 * built-in CA bundle).
 *
 * Signatures.
 *  - Body signature: the request signature of ps8SignBody (MD5, RSA with the
 *    built-in server key, base64, percent-encoded), appended to the URL or
 *    body as "&sign=" and the value.
 *  - Header signature: base64 of MD5(text + the library's salt), sent as the
 *    request header "x-sign-for".
 *
 * Headers. ps8ConnectHeaders, when given, is a JSON object; its members
 * become request headers through KX_SDK_GET_HTTP_HEADER (at most 8, with that
 * call's conversion rules). Anything other than a JSON object supplies no
 * header.
 *
 * Answer. The second argument of every fetch is a char **: on 0 it receives
 * a new text allocated with calloc, which becomes the caller's, to be
 * released with KX_SDK_FREE or free. On any other result it is not written.
 *
 * Results (the request calls of the other areas know only 0 and -1):
 *    0  success
 *   -1  library not initialised, or an invalid argument (nothing is sent)
 *    1  a signature could not be created ("create signature-body failed." or
 *       "create signature-header failed.")
 *    3  the transfer failed: no connection, a certificate that does not
 *       verify, an HTTP status of 400 or more, a time-out (connect 10 or 30 s,
 *       whole transfer 20 s) or an answer larger than the answer area
 *       ("failed to get/post data!")
 *    4  the answer's signature did not verify ("failed to verify json data!",
 *       also for XML answers)
 *    5  out of memory
 *
 * Threads. The calls may run on several threads at once; they share only the
 * initialisation state.
 */
#ifndef KX_SDK_EXTERNAL_H
#define KX_SDK_EXTERNAL_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

/* cJSON's item type (cjson/cJSON.h); only pointers to it pass here. */
struct cJSON;

/* Most header records one fetch builds. */
#define KX_SDK_FETCH_MAX_HEADERS 8

/* Request of KX_SDK_FETCH_DATA (and of KX_SDK_FETCH_DATA_V30). */
typedef struct {
    int32_t s32Http;               /* non-zero: plain "http" members; 0: secure ones */
    int32_t s32Get;                /* non-zero: GET; 0: POST */
    int32_t s32Sign;               /* non-zero: body and header signature (KX_SDK_FETCH_DATA);
                                      the sign mode (KX_SDK_FETCH_DATA_V30) */
    const char *ps8FuncName;       /* required; only logged */
    const char *ps8Url;            /* required; the URL before the query (GET), the target (POST) */
    const char *ps8SignBody;       /* the text to sign; required when signing */
    const char *ps8Body;           /* required; the query (GET) or the form body (POST) */
    const char *ps8ConnectHeaders; /* null, or a JSON object whose members become headers */
} KX_SDK_FETCH_REQ_S;

/* Request of KX_SDK_FETCH_DATA_V31 and KX_SDK_FETCH_DATA_3rdUrl. */
typedef struct {
    int32_t s32Mark;               /* socket mark (SO_MARK); negative: none */
    int32_t s32Http;               /* non-zero: plain "http" members; 0: secure ones */
    int32_t s32Get;                /* non-zero: GET; 0: POST */
    int32_t s32SignMode;           /* 1: body signature, 2: header signature, other: none */
    const char *ps8FuncName;       /* required; only logged */
    const char *ps8Url;            /* required */
    const char *ps8SignBody;       /* the text to sign; required in modes 1 and 2 */
    const char *ps8Body;           /* required */
    const char *ps8ConnectHeaders; /* null, or a JSON object whose members become headers */
    int32_t s32Reserved;           /* reserved; not read */
} KX_SDK_FETCH_REQ_V31_S;

/*
 * The base fetch. Checks the initialisation and the arguments (request,
 * answer out, ps8Body, ps8Url and ps8FuncName required, ps8SignBody too when
 * s32Sign is set), logs the inputs, then:
 *  - s32Sign set: makes the body signature of ps8SignBody, then the header
 *    signature of the text ps8SignBody + "&sign=" + body signature, and sends
 *    the caller's headers with "x-sign-for" added after them (8 records at
 *    most: a ninth member, "x-sign-for" included, is dropped);
 *  - s32Sign 0: signs nothing and sends no header at all; ps8ConnectHeaders is
 *    parsed but not sent.
 * GET URL: ps8Url + ps8Body + "&sign=" + body signature; POST body: ps8Body +
 * "&sign=" + body signature. Unsigned, both end in an empty "&sign=".
 * The answer (at most 102400 bytes) must be signed JSON: on 0, *ppAnswer
 * receives the answer without its signatureServer member. An XML answer is
 * refused with 4. Results as above (0, -1, 1, 3, 4, 5).
 */
KX_API int32_t KX_SDK_FETCH_DATA(const KX_SDK_FETCH_REQ_S *pstReq, char **ppAnswer);

/*
 * The fetch with a socket mark and a choice of signature. Like
 * KX_SDK_FETCH_DATA, except:
 *  - s32SignMode 1: only the body signature of ps8SignBody, appended as
 *    "&sign=" and the value; no "x-sign-for";
 *  - s32SignMode 2: only the header signature, made over ps8SignBody itself
 *    and sent as "x-sign-for"; the URL or body is sent as given, without
 *    "&sign=";
 *  - any other mode: nothing is signed and nothing is appended;
 *  - the caller's headers are sent in every mode;
 *  - s32Mark of 0 or more is set as the connection's SO_MARK (needs the
 *    network-administration privilege; without it the transfer fails with 3);
 *  - the answer may be XML (it holds "<?xml", "<?XML" or "<?Xml") or JSON; on
 *    0 *ppAnswer receives it without its signature.
 * s32Reserved is not read. Results as above.
 */
KX_API int32_t KX_SDK_FETCH_DATA_V31(const KX_SDK_FETCH_REQ_V31_S *pstReq, char **ppAnswer);

/*
 * KX_SDK_FETCH_DATA_V31 without a socket mark: the record's fields are taken
 * in their order behind a mark of -1, s32Sign being read as the sign mode
 * (1 body, 2 header, other none). A null record is refused with -1.
 */
KX_API int32_t KX_SDK_FETCH_DATA_V30(const KX_SDK_FETCH_REQ_S *pstReq, char **ppAnswer);

/*
 * Unsigned, unverified fetch of an outside resource. Takes the V31 record
 * (mark and headers as there, and ps8SignBody required in modes 1 and 2 as
 * there) but never creates a signature: in mode 1 the URL or body still ends
 * in an empty "&sign=", in other modes nothing is appended. The answer is not
 * checked: on 0 *ppAnswer receives the bytes received, NUL-terminated (an
 * answer holding NUL bytes is cut there for a reader of the text).
 * Answer sizes: a secure GET takes up to 204800 bytes; a plain GET and both
 * POSTs take up to 102400. Results: 0, -1, 3, 5.
 */
KX_API int32_t KX_SDK_FETCH_DATA_3rdUrl(const KX_SDK_FETCH_REQ_V31_S *pstReq, char **ppAnswer);

/*
 * Converts the members of the JSON object pstJson, in order, into header
 * records at pstHeaders (room for KX_SDK_FETCH_MAX_HEADERS records). Each
 * member's value is printed with cJSON's formatted printer and the printed
 * text is kept without its first and last character: a string loses its
 * quotes ("abc" gives abc), while a number loses its first and last digits
 * (1234 gives 23, 12 and 5 give an empty value). A member whose name is 64
 * bytes or longer, or whose printed value is 128 characters or longer, is
 * skipped, as is a member the printer cannot print for want of memory (after
 * three tries). A header with an empty value is sent as "name:" with nothing
 * after the colon. Stops after 8 records.
 * Returns the number of records filled (0 to 8); 0 for a null object or
 * array, or an object without members. The object stays the caller's.
 */
KX_API int32_t KX_SDK_GET_HTTP_HEADER(const struct cJSON *pstJson, KX_SDK_HTTP_HEADER_S *pstHeaders);

KX_END_DECLS

#endif
