/*
 * kx_sdk_verify.h -- Verification of the cloud's signed XML and JSON answers.
 * Reach it through kx_cloud_openapi.h.
 *
 * Every answer of the cloud carries an RSA signature of its own body in a
 * member named signatureServer:
 *
 *   XML:  ...<signatureServer>BASE64</signatureServer>\n</root>
 *         The signed text is every byte before "<signatureServer>" followed by
 *         everything from the first "<" after "</signatureServer>" to the end
 *         (bytes between the closing tag and that "<", such as a line break,
 *         are not part of it).
 *   JSON: {...,"signatureServer":"BASE64"}
 *         The signed text is the raw answer up to, not including, the two
 *         characters before the first occurrence of the text "signatureServer"
 *         (normally the comma and the key's opening quote), followed by "}".
 *         The server therefore writes signatureServer as the last member, with
 *         no blank between the comma and the key.
 *
 * The signature is checked with kxtvverify against gpKey (the key loaded by
 * KX_GLOBAL_INIT or KX_INIT_PUBLICKEY). The verifiers keep no locks of their
 * own; callers use a distinct answer file per call.
 *
 * Answer files. The stream verifiers read the whole file from its start (its
 * size is taken by seeking to the end) and leave it in one of three states:
 *   - rewritten without the signature, truncated to that length
 *     (KX_SDK_XML_VERIFY success);
 *   - unchanged (KX_SDK_JSON_VERIFY success, and KX_SDK_XML_VERIFY when the
 *     answer holds no "<signatureServer>" at all);
 *   - emptied to length 0 (every other failure).
 *
 * All functions return 0 on success and -1 on failure; every failure is
 * logged with its own message.
 */
#ifndef KX_SDK_VERIFY_H
#define KX_SDK_VERIFY_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

/*
 * Verifies the signed XML answer held in stream (an answer file opened "w+"
 * into which the transport wrote the answer). On success the file is
 * rewritten from its start with the signed text (the answer without its
 * signature element) and truncated to that length, so the caller can parse
 * it as it stands. Returns 0 when the signature matches, -1 otherwise (null
 * stream, unreadable file, missing tags, wrong signature). The stream stays
 * the caller's and open.
 */
KX_API int32_t KX_SDK_XML_VERIFY(FILE *stream);

/*
 * Verifies the signed JSON answer held in stream and, on success, copies the
 * signed text (the answer without its signatureServer member, closed with
 * "}") into out, followed by zeros up to the answer's size less one byte; the
 * file is left unchanged. out is the caller's and must hold at least the
 * answer's size in bytes: no bound is checked. Returns 0 when the signature matches, -1 otherwise (out is then
 * not written and the file is emptied).
 */
KX_API int32_t KX_SDK_JSON_VERIFY(FILE *stream, char *out);

/*
 * In-memory form of KX_SDK_XML_VERIFY over the first `used` bytes of record
 * (the answer record filled by the transport's buffer sink). On success
 * *out receives a new NUL-terminated text, allocated with calloc, holding the
 * signed text (the answer without its signature element); it becomes the
 * caller's, to be released with KX_SDK_FREE or free. Returns 0 on success;
 * -1 otherwise, with *out untouched. The record is only read.
 */
KX_API int32_t KX_SDK_XML_VERIFY_HEAP(const KX_SDK_DATA_BUF_S *record, char **out);

/*
 * In-memory form of KX_SDK_JSON_VERIFY over the first `used` bytes of record.
 * On success *out receives a new calloc'ed text holding the signed text (the
 * answer without its signatureServer member, closed with "}"), which becomes
 * the caller's (KX_SDK_FREE or free). Returns 0 on success; -1 otherwise,
 * with *out untouched.
 */
KX_API int32_t KX_SDK_JSON_VERIFY_HEAP(const KX_SDK_DATA_BUF_S *record, char **out);

/*
 * Reads the JSON answer held in stream, parses it, and copies cJSON's
 * indented re-print of it into out (NUL-terminated). No signature is checked.
 * out must be large enough for the re-print (no bound is checked). Returns 0
 * when the file parses as JSON; -1 otherwise, with the file emptied.
 */
KX_API int32_t KX_SDK_JSON_VERIFY1(FILE *stream, char *out);

/*
 * Parses the XML document held in stream (from its start; declared encoding
 * GB2312) and sets *len to the length of the text content of the first
 * direct child of the root element named tag. Deeper elements are not
 * searched. Returns 0 with *len set; -1 when an argument is null, the file
 * does not parse, or no such child exists.
 */
KX_API int32_t XML_GET_TAG_LENGTH(FILE *stream, const char *tag, uint32_t *len);

/*
 * Like XML_GET_TAG_LENGTH, but copies the content: *len holds the capacity of
 * out on entry. When the content is shorter than that capacity, its bytes are
 * copied into out followed by a NUL, *len is set to its length and 0 is
 * returned. A content as long as the capacity or longer is refused with -1
 * (there would be no room for the terminator), as are null arguments, an
 * unparsable file and a missing child.
 */
KX_API int32_t XML_GET_TAG_CONTENT(FILE *stream, const char *tag, char *out, uint32_t *len);

KX_END_DECLS

#endif
