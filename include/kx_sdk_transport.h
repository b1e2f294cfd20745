/*
 * kx_sdk_transport.h -- Response sinks, the HTTP/HTTPS request family and the file download.
 * Reach it through kx_cloud_openapi.h.
 *
 * Every transfer of the library (the push channel excepted) is one synchronous
 * libcurl "easy" transfer made by one of the request members below: each
 * member creates its own handle, sets its fixed options, performs on the
 * caller's thread, releases everything it created and returns 0 (libcurl
 * reported success) or -1. No handle or connection outlives a call; there is
 * no connection reuse between calls. While the library is initialised the
 * members, the download and the length probe keep TLS sessions and DNS answers
 * in the library's share (see KX_GLOBAL_INIT), so a later secure call to the
 * same host resumes an earlier call's session on its own new connection. The
 * answer is never examined here: judging it is the caller's business.
 *
 * Common rules of the request members:
 *  - An HTTP status of 400 or more fails the transfer (-1).
 *  - Plain form POSTs connect within 10 s, every other member within 30 s;
 *    the whole transfer is limited to 20 s (except KX_SDK_HTTP_GET_BACK, which
 *    has no total limit, and KX_SDK_HTTPS_GET_WITH_TIMEOUT, which takes it as
 *    an argument).
 *  - Secure members check the server's certificate and host name against the
 *    CA bundle fixed at build time (default
 *    "/usr/local/opt/kxsdk2.0/ca/cacert.pem"); while the library is
 *    initialised its certificates are read once and kept (see
 *    KX_GLOBAL_INIT).
 *  - Mark: a socket mark of 0 or more is set as SO_MARK on the connection's
 *    socket before it connects (needs the network-administration privilege;
 *    without it the connection fails); a negative mark sets nothing. Members
 *    without a mark argument that wrap a _MARK member pass -1.
 *  - File sinks take the address of the caller's open stream variable
 *    (FILE **); every chunk is appended at the stream's end and flushed. The
 *    caller opens and closes the stream.
 *  - Buffer sinks take a caller-owned record zeroed by the caller; a body that
 *    does not fit fails the transfer and the record keeps the chunks received
 *    before the one that did not fit.
 *  - Whatever a sink received before a failure stays in the caller's stream or
 *    record.
 *  - Extra headers are sent as "name:value" (no blank after the colon),
 *    formatted into a 128-byte line: name and value together must stay below
 *    127 characters, a longer line is cut. A record with an empty value is
 *    still sent, as "name:" with nothing after the colon.
 */
#ifndef KX_SDK_TRANSPORT_H
#define KX_SDK_TRANSPORT_H

#include <curl/curl.h>

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

/* ---- Response sinks (libcurl write callbacks) ---------------------------- */

/* File sink. `stream` is a FILE ** (the address of the caller's stream
 * variable). Seeks to the stream's end, writes size * nmemb bytes, flushes.
 * Returns the element count fwrite wrote; a short count ends the transfer with
 * libcurl's write error and logs "Failed to call fwrite." (and, when the
 * stream's error indicator is set, clears it so a later chunk may succeed). */
KX_API size_t WRITE_DATA(char *ptr, size_t size, size_t nmemb, void *stream);

/* Inline-record sink. `record` is a KX_SDK_DATA_BUF_S *. Appends the chunk at
 * record->used when used + size * nmemb <= 102400 and returns the bytes taken;
 * otherwise stores nothing and returns 0 (the transfer stops). A null record
 * logs "invalid arg!" and returns (size_t)-1. No terminating NUL is written. */
KX_API size_t WRITE_DATA1(char *ptr, size_t size, size_t nmemb, void *record);

/* Large-record sink. `record` is a KX_SDK_LARGEDATA_S * whose buffer holds at
 * least 204800 bytes. Appends when used + size * nmemb <= 204800 and returns
 * the bytes taken; otherwise logs "OOM: size=[..] totalsize=[..] offset=[..]"
 * and returns 0. A null record or null buffer logs "invalid arg!" and returns
 * (size_t)-1. */
KX_API size_t WRITE_LARGEDATA(char *ptr, size_t size, size_t nmemb, void *record);

/* Socket-option callback. `clientp` points at an int mark; logs "Mark: %d" and
 * sets it as SO_MARK on `curlfd`. Returns CURL_SOCKOPT_OK (0), or
 * CURL_SOCKOPT_ERROR (1) after logging errno when setsockopt fails, which makes
 * libcurl abandon the connection. `purpose` is ignored. */
KX_API int sockopt_callback(void *clientp, curl_socket_t curlfd, curlsocktype purpose);

/* Returns 1 when `text` contains "<?xml", "<?XML" or "<?Xml" anywhere (and logs
 * "the response is xml format!"), else 0; a null text yields 0. */
KX_API int32_t KX_SDK_JUDGE_XML_FORM(const char *text);

/* Null-safe releases: free the list / clean the handle up and return 0; a null
 * argument logs "the pointer is null already!" and returns -1. */
KX_API int32_t KX_SDK_CURL_SLIST_FREE(struct curl_slist *list);
KX_API int32_t KX_SDK_CURL_EASY_CLEANUP(CURL *curl);

/* ---- POST to a stream ----------------------------------------------------- */

/* Plain POST of `s32BodyLen` bytes of `ps8PostBody` to `ps8Url` with the
 * header "Content-Type: application/x-www-form-urlencoded;charset=iso-8859-1";
 * the answer is appended to *ppStream. Connect 10 s, total 20 s. The body is
 * logged as text. Returns 0 when the transfer completed, -1 for a null
 * argument (or *ppStream null), a failed handle, a failed option or a failed
 * transfer. */
KX_API int32_t KX_SDK_HTTP_POST_MARK(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                     FILE **ppStream, int32_t s32Mark);
KX_API int32_t KX_SDK_HTTP_POST(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream);

/* Secure POST, same arguments and results; sends no content-type header of its
 * own (libcurl's default for POST fields applies). Connect 30 s, total 20 s.
 * The body is not logged. */
KX_API int32_t KX_SDK_HTTPS_POST_MARK(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                      FILE **ppStream, int32_t s32Mark);
KX_API int32_t KX_SDK_HTTPS_POST(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream);

/* JSON POSTs ("Content-Type: application/json"), plain or secure, no mark.
 * Connect 30 s, total 20 s. The _BINARY twins send the same options (the body
 * length decides how many bytes go out; the log prints the body as text). */
KX_API int32_t KX_SDK_HTTP_POST_EX(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream);
KX_API int32_t KX_SDK_HTTP_POST_BINARY(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                       FILE **ppStream);
KX_API int32_t KX_SDK_HTTPS_POST_EX(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream);
KX_API int32_t KX_SDK_HTTPS_POST_BINARY(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                        FILE **ppStream);

/* ---- POST to a record, with the caller's headers ------------------------- */

/* POST with `s32HeaderCount` header records (a count of 0 or less sends none;
 * the array may then be null); the answer fills *pstBuf. The response code is
 * logged. Plain: connect 10 s, secure: 30 s; total 20 s. The plain members
 * do not log the body, the secure ones do. */
KX_API int32_t KX_SDK_HTTP_POST_EXTERNAL_MARK(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                              KX_SDK_DATA_BUF_S *pstBuf, const KX_SDK_HTTP_HEADER_S *pstHeaders,
                                              int32_t s32HeaderCount, int32_t s32Mark);
KX_API int32_t KX_SDK_HTTP_POST_EXTERNAL(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                         KX_SDK_DATA_BUF_S *pstBuf, const KX_SDK_HTTP_HEADER_S *pstHeaders,
                                         int32_t s32HeaderCount);
KX_API int32_t KX_SDK_HTTPS_POST_EXTERNAL_MARK(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                               KX_SDK_DATA_BUF_S *pstBuf, const KX_SDK_HTTP_HEADER_S *pstHeaders,
                                               int32_t s32HeaderCount, int32_t s32Mark);
KX_API int32_t KX_SDK_HTTPS_POST_EXTERNAL(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                          KX_SDK_DATA_BUF_S *pstBuf, const KX_SDK_HTTP_HEADER_S *pstHeaders,
                                          int32_t s32HeaderCount);

/* ---- GET to a stream ------------------------------------------------------ */

/* Plain GET of `ps8Url`, answer appended to *ppStream. Connect 30 s, total 20 s.
 * Returns 0 / -1 as the POSTs. */
KX_API int32_t KX_SDK_HTTP_GET(const char *ps8Url, FILE **ppStream);

/* Secure GET accepting a gzip-compressed answer (decoded before the sink sees
 * it). Connect 30 s; total `s32Timeout` seconds (20 s for KX_SDK_HTTPS_GET). */
KX_API int32_t KX_SDK_HTTPS_GET_WITH_TIMEOUT(const char *ps8Url, FILE **ppStream, int32_t s32Timeout);
KX_API int32_t KX_SDK_HTTPS_GET(const char *ps8Url, FILE **ppStream);

/* Secure GET (despite its name) with gzip, connect 30 s and NO total time-out:
 * it waits as long as the server keeps the transfer alive. It also leaves
 * libcurl free to use signals, so it is not safe beside other threads'
 * transfers. */
KX_API int32_t KX_SDK_HTTP_GET_BACK(const char *ps8Url, FILE **ppStream);

/* ---- GET to a record, with the caller's headers -------------------------- */

/* GET with header records into *pstBuf; response code logged. Connect 30 s,
 * total 20 s; the secure members accept gzip. */
KX_API int32_t KX_SDK_HTTP_GET_EXTERNAL_MARK(const char *ps8Url, KX_SDK_DATA_BUF_S *pstBuf,
                                             const KX_SDK_HTTP_HEADER_S *pstHeaders, int32_t s32HeaderCount,
                                             int32_t s32Mark);
KX_API int32_t KX_SDK_HTTP_GET_EXTERNAL(const char *ps8Url, KX_SDK_DATA_BUF_S *pstBuf,
                                        const KX_SDK_HTTP_HEADER_S *pstHeaders, int32_t s32HeaderCount);
KX_API int32_t KX_SDK_HTTPS_GET_EXTERNAL_MARK(const char *ps8Url, KX_SDK_DATA_BUF_S *pstBuf,
                                              const KX_SDK_HTTP_HEADER_S *pstHeaders, int32_t s32HeaderCount,
                                              int32_t s32Mark);
KX_API int32_t KX_SDK_HTTPS_GET_EXTERNAL(const char *ps8Url, KX_SDK_DATA_BUF_S *pstBuf,
                                         const KX_SDK_HTTP_HEADER_S *pstHeaders, int32_t s32HeaderCount);

/* Secure GET into a large record (answers up to 204800 bytes). */
KX_API int32_t KX_SDK_HTTPS_GET_EXTERNAL_MARK1(const char *ps8Url, KX_SDK_LARGEDATA_S *pstBuf,
                                               const KX_SDK_HTTP_HEADER_S *pstHeaders, int32_t s32HeaderCount,
                                               int32_t s32Mark);

/* ---- Download ------------------------------------------------------------- */

/* Asks for `ps8Url`'s size with a HEAD request (libcurl's default time-outs,
 * certificate checks and output: the answer's header lines go to the process's
 * standard output). Returns the Content-Length, -1 when the server gives none
 * or the request fails, 0 for a null URL and 1 when no handle could be made. */
KX_API int64_t KX_SDK_GetDownloadFileLenth(const char *ps8Url);

/* Downloads `ps8Url` from byte `s32ResumeOffset` on (0 = whole resource),
 * following redirects. Every received chunk goes to `pfWrite` with `pStream` as
 * its data; `pfProgress` is called with the address of the call's copy of the
 * resume offset. A transfer slower than 1 byte per second for 60 seconds is
 * abandoned; there is no total limit. Connect 30 s; secure URLs are checked
 * against the built-in CA bundle.
 * Returns libcurl's result (0 = complete, 28 = stalled, ...), or -1 for a null
 * argument or a failed handle creation. Once the handle exists the stream is
 * the call's: it is synced to storage and closed on every path. A call refused
 * for a null argument leaves a non-null stream open: it stays the caller's.
 * To resume, open the file for appending ("ab") and pass the bytes it holds. */
KX_API int32_t KX_SDK_DownloadFileByCurl_Mark(const char *ps8Url, FILE *pStream, int32_t s32ResumeOffset,
                                              curl_write_callback pfWrite, curl_progress_callback pfProgress,
                                              int32_t s32Mark);
KX_API int32_t KX_SDK_DownloadFileByCurl(const char *ps8Url, FILE *pStream, int32_t s32ResumeOffset,
                                         curl_write_callback pfWrite, curl_progress_callback pfProgress);

KX_END_DECLS

#endif
