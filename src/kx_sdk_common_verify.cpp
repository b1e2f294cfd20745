/*
 * Verification of the cloud's signed answers and the two single-element XML
 * readers.
 *
 * Every answer carries an RSA signature of its own body in a signatureServer
 * member. The verifiers cut that member out, rebuild the exact text the server
 * signed and check it with kxtvverify against gpKey:
 *
 *   XML   every byte before "<signatureServer>", then everything from the first
 *         "<" after "</signatureServer>" to the end (a line break between the
 *         closing tag and the next element is dropped);
 *   JSON  the raw answer up to, not including, the two characters before the
 *         first occurrence of "signatureServer" (the comma and the key's
 *         opening quote), then "}".
 *
 * The stream verifiers leave the answer file in one of three states the
 * request calls rely on: rewritten without the signature (XML success),
 * unchanged (JSON success, and XML without any signature element), or emptied
 * to length 0 (every other failure). The heap verifiers work on a
 * zero-terminated copy of an answer record and hand out a calloc'ed text.
 */
#include <cstring>
#include <unistd.h>

#include "kx_sdk_security.h"
#include "kx_sdk_verify.h"
#include "internal/kx_buffer.h"
#include "internal/kx_json.h"
#include "internal/kx_log.h"
#include "internal/kx_owned.h"
#include "internal/kx_xml.h"

namespace {

constexpr const char kOpenTag[] = "<signatureServer>";    // 17 characters
constexpr const char kCloseTag[] = "</signatureServer>";  // 18 characters
constexpr const char kJsonKey[] = "signatureServer";
constexpr std::size_t kOpenTagLength = sizeof(kOpenTag) - 1;
constexpr std::size_t kCloseTagLength = sizeof(kCloseTag) - 1;

using kx::JsonText;
using kx::JsonTree;
using kx::XmlText;

/* How a cut-and-check of one answer ended. An answer without any XML
 * signature element is told apart because its file is left as it is. */
enum class Outcome { verified, unsigned_answer, failed };

/* The answer file after a failed verification: emptied to length 0. Pending
 * stdio output is written first so that it cannot grow the file again after
 * the truncation, and the position goes back to the start. */
void empty_file(std::FILE *stream)
{
    std::fflush(stream);
    if (ftruncate(fileno(stream), 0) != 0) {
        // Nothing more can be done; the result is -1 either way.
    }
    std::rewind(stream);
}

/* End and start offsets of the stream; the size is their difference. The
 * stream is left at its start. False when the stream cannot seek. */
bool measure(std::FILE *stream, long &end, long &start)
{
    if (std::fseek(stream, 0, SEEK_END) != 0)
        return false;
    end = std::ftell(stream);
    if (std::fseek(stream, 0, SEEK_SET) != 0)
        return false;
    start = std::ftell(stream);
    return end >= 0 && start >= 0 && end >= start;
}

/* Steps of the XML rule over a zero-terminated answer, logged under the
 * exported call `fn`. signed_text has room for the answer's size plus one and
 * receives the signed text, zero-terminated. */
Outcome cut_and_check_xml(const char *fn, const char *answer, std::size_t n, kx::Buffer &signed_text)
{
    const char *open = std::strstr(answer, kOpenTag);
    if (open == nullptr) {
        KX_LOGE_AS(fn, "Token is not available!\n");
        return Outcome::unsigned_answer;
    }
    std::size_t prefix = static_cast<std::size_t>(open - answer);
    std::memcpy(signed_text.get(), answer, prefix);

    // The signature and what follows it, in a buffer of its own in which the
    // closing tag is cut off to leave the signature text.
    kx::Buffer rest(n + 1);
    if (!rest.ok()) {
        KX_LOGE_AS(fn, "out of memory!\n");
        return Outcome::failed;
    }
    std::strcpy(rest.get(), open + kOpenTagLength);
    char *close = std::strstr(rest.get(), kCloseTag);
    if (close == nullptr) {
        KX_LOGE_AS(fn, "Not find </signatureServer>!\n");
        return Outcome::failed;
    }
    *close = '\0';
    const char *signature = rest.get();
    KX_LOGI_AS(fn, "s8SignatureContent is: %s\n", signature);

    const char *next = std::strchr(close + kCloseTagLength, '<');
    if (next == nullptr) {
        KX_LOGE_AS(fn, "Not find <!\n");
        return Outcome::failed;
    }
    std::strcpy(signed_text.get() + prefix, next);
    KX_LOGI_AS(fn, "s8VeryfyXML is: %s\n", signed_text.get());

    if (kxtvverify(signed_text.get(), std::strlen(signed_text.get()), signature, std::strlen(signature), gpKey) != 0) {
        KX_LOGE_AS(fn, "SignatureServer veryfy is false!\n");
        return Outcome::failed;
    }
    KX_LOGI_AS(fn, "SignatureServer veryfy is ok!\n");
    return Outcome::verified;
}

/* Logs the answer with its last two bytes and its terminator, then parses it
 * and logs cJSON's re-print. Null when the text is not JSON. */
JsonTree parse_json(const char *fn, const char *answer, std::size_t n)
{
    // An answer shorter than two bytes has no "last two bytes": the missing
    // ones are shown as 0x00 rather than read from before the buffer.
    const unsigned char *bytes = reinterpret_cast<const unsigned char *>(answer);
    unsigned int before_last = n >= 2 ? bytes[n - 2] : 0u;
    unsigned int last = n >= 1 ? bytes[n - 1] : 0u;
    KX_LOGI_AS(fn, "reture json : [%s][0x%02x] [0x%02x] [0x%02x] \n", answer, before_last, last,
               static_cast<unsigned int>(bytes[n]));

    JsonTree tree(cJSON_Parse(answer));
    if (!tree) {
        KX_LOGE_AS(fn, "reture json is null \n");
        return tree;
    }
    // The re-print exists only for this line: it is made when the line is.
    if (vtlDebugCheckLevelGetFrameAndChunk(kx::kLevelInfo)) {
        JsonText printed(cJSON_Print(tree.get()));
        KX_LOGI_AS(fn, "buf1: %s\n", printed ? printed.get() : "");
    }
    return tree;
}

/* Steps of the JSON rule over a zero-terminated answer of n bytes. On success
 * signed_text holds n + 1 zeroed bytes beginning with the signed text. */
Outcome cut_and_check_json(const char *fn, const char *answer, std::size_t n, kx::Buffer &signed_text)
{
    JsonTree tree = parse_json(fn, answer, n);
    if (!tree)
        return Outcome::failed;

    // A member that is not a string has no signature text to check: it is
    // treated like a missing one.
    const cJSON *member = cJSON_GetObjectItem(tree.get(), kJsonKey);
    if (member == nullptr || !cJSON_IsString(member) || member->valuestring == nullptr) {
        KX_LOGE_AS(fn, "Not find signatureServer\n");
        return Outcome::failed;
    }
    const char *signature = member->valuestring;
    KX_LOGI_AS(fn, "pSignatureServer: %s\n", signature);

    // The raw text must hold the key as written; a key spelled with escapes
    // parses to the same name but cannot be cut out of the raw answer.
    const char *key = std::strstr(answer, kJsonKey);
    if (key == nullptr) {
        KX_LOGE_AS(fn, "Token is not available!\n");
        return Outcome::failed;
    }

    signed_text = kx::Buffer(n + 1);
    if (!signed_text.ok()) {
        KX_LOGE_AS(fn, "out of memory!\n");
        return Outcome::failed;
    }
    // The two characters before the key are dropped; a key at offset 0 or 1
    // has fewer than two before it, so nothing of the answer is kept rather
    // than reading from before the buffer.
    std::size_t offset = static_cast<std::size_t>(key - answer);
    std::size_t kept = offset >= 2 ? offset - 2 : 0;
    std::memcpy(signed_text.get(), answer, kept);
    signed_text.get()[kept] = '}';
    KX_LOGI_AS(fn, "after delete signatureserver json: %s\n", signed_text.get());

    if (kxtvverify(signed_text.get(), std::strlen(signed_text.get()), signature, std::strlen(signature), gpKey) != 0) {
        KX_LOGE_AS(fn, "SignatureServer veryfy is false!\n");
        return Outcome::failed;
    }
    KX_LOGI_AS(fn, "SignatureServer veryfy is ok!\n");
    return Outcome::verified;
}

/* Reads the whole JSON answer file into a zero-terminated buffer, logging its
 * size and the bytes read. On failure the file is emptied and the buffer is
 * left empty. */
kx::Buffer read_json_file(const char *fn, std::FILE *stream, std::size_t &n)
{
    long end = 0, start = 0;
    if (!measure(stream, end, start)) {
        KX_LOGE_AS(fn, "Read file error!\n");
        empty_file(stream);
        return kx::Buffer();
    }
    n = static_cast<std::size_t>(end - start);
    KX_LOGI_AS(fn, "s32FileSize: %d s32FileOffsetSeekEnd: %d s32FileOffsetSeekSet :%d\n", static_cast<int>(n),
               static_cast<int>(end), static_cast<int>(start));
    kx::Buffer answer(n + 1);
    if (!answer.ok()) {
        KX_LOGE_AS(fn, "out of memory!\n");
        empty_file(stream);
        return answer;
    }
    std::size_t got = std::fread(answer.get(), 1, n, stream);
    KX_LOGI_AS(fn, "s32ReadSize = %d,  s32FileSize = %d \n", static_cast<int>(got), static_cast<int>(n));
    if (got != n) {
        KX_LOGE_AS(fn, "Read file error!\n");
        empty_file(stream);
        return kx::Buffer();
    }
    return answer;
}

/* A zero-terminated copy of the bytes an answer record holds. A count beyond
 * the record's data area cannot come from the buffer sink; only the area
 * itself is read. */
kx::Buffer copy_record(const KX_SDK_DATA_BUF_S *record, std::size_t &n)
{
    n = record->used;
    if (n > sizeof(record->data))
        n = sizeof(record->data);
    kx::Buffer copy(n + 1);
    if (copy.ok())
        std::memcpy(copy.get(), record->data, n);
    return copy;
}

/* Parses the stream from its start and finds the first direct child of the
 * root element named tag. On success content holds that element's text. */
bool read_tag(const char *fn, std::FILE *stream, const char *tag, XmlText &content)
{
    kx::XmlDoc doc = kx::read_xml_stream(stream);
    if (!doc) {
        KX_LOGE_AS(fn, "Failed to call xmlReadFd().\n");
        return false;
    }
    xmlNodePtr root = xmlDocGetRootElement(doc.get());
    if (root == nullptr) {
        KX_LOGE_AS(fn, "Failed to call xmlDocGetRootElement().\n");
        return false;
    }
    const xmlChar *wanted = reinterpret_cast<const xmlChar *>(tag);
    for (xmlNodePtr child = root->children; child != nullptr; child = child->next) {
        if (xmlStrcmp(child->name, wanted) == 0) {
            content.reset(xmlNodeGetContent(child));
            return content != nullptr;
        }
    }
    return false;
}

}  // namespace

extern "C" {

KX_API int32_t KX_SDK_XML_VERIFY(FILE *stream)
{
    if (stream == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    long end = 0, start = 0;
    if (!measure(stream, end, start)) {
        KX_LOGE("Read file error!\n");
        empty_file(stream);
        return -1;
    }
    std::size_t n = static_cast<std::size_t>(end - start);
    KX_LOGI("KxSDK2.0 s32FileSize: %d\n", static_cast<int>(n));
    kx::Buffer answer(n + 1);
    kx::Buffer signed_text(n + 1);
    if (!answer.ok() || !signed_text.ok()) {
        KX_LOGE("out of memory!\n");
        empty_file(stream);
        return -1;
    }

    KX_LOGI("KxSDK2.0 fread the xml file\n");
    std::size_t got = std::fread(answer.get(), 1, n, stream);
    KX_LOGI("KxSDK2.0 fread the xml file s32ReadSize: %d\n", static_cast<int>(got));
    if (got != n) {
        KX_LOGE("Read file error!\n");
        empty_file(stream);
        return -1;
    }

    Outcome outcome = cut_and_check_xml(__func__, answer.get(), n, signed_text);
    if (outcome == Outcome::unsigned_answer)
        return -1;  // the file is left as it is
    if (outcome == Outcome::failed) {
        empty_file(stream);
        return -1;
    }

    // The caller parses the file next: it now holds the signed text only.
    std::size_t length = std::strlen(signed_text.get());
    std::fflush(stream);
    if (ftruncate(fileno(stream), static_cast<off_t>(length)) != 0) {
        // The rewrite below still replaces the whole length.
    }
    std::rewind(stream);
    std::fwrite(signed_text.get(), 1, length, stream);
    std::fflush(stream);
    return 0;
}

KX_API int32_t KX_SDK_JSON_VERIFY(FILE *stream, char *out)
{
    if (stream == nullptr || out == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    std::size_t n = 0;
    kx::Buffer answer = read_json_file(__func__, stream, n);
    if (!answer.ok())
        return -1;

    kx::Buffer signed_text;
    if (cut_and_check_json(__func__, answer.get(), n, signed_text) != Outcome::verified) {
        empty_file(stream);
        return -1;
    }
    // n - 1 bytes of the zero-padded n + 1 byte buffer: never past its end,
    // and the signed text (shorter than n - 15 bytes) arrives terminated.
    std::memcpy(out, signed_text.get(), n - 1);
    return 0;
}

KX_API int32_t KX_SDK_XML_VERIFY_HEAP(const KX_SDK_DATA_BUF_S *record, char **out)
{
    if (record == nullptr || out == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    std::size_t n = 0;
    kx::Buffer answer = copy_record(record, n);
    KX_LOGI("KxSDK2.0 s32FileSize: %d\n", static_cast<int>(n));
    kx::Buffer signed_text(n + 1);
    if (!answer.ok() || !signed_text.ok()) {
        KX_LOGE("out of memory!\n");
        return -1;
    }
    if (cut_and_check_xml(__func__, answer.get(), n, signed_text) != Outcome::verified)
        return -1;
    *out = signed_text.release();
    return 0;
}

KX_API int32_t KX_SDK_JSON_VERIFY_HEAP(const KX_SDK_DATA_BUF_S *record, char **out)
{
    if (record == nullptr || out == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    std::size_t n = 0;
    kx::Buffer answer = copy_record(record, n);
    KX_LOGI("s32FileSize: %d s32FileOffsetSeekEnd: %d s32FileOffsetSeekSet :%d\n", static_cast<int>(n), 0, 0);
    if (!answer.ok()) {
        KX_LOGE("out of memory!\n");
        return -1;
    }
    kx::Buffer signed_text;
    if (cut_and_check_json(__func__, answer.get(), n, signed_text) != Outcome::verified)
        return -1;
    *out = signed_text.release();
    return 0;
}

KX_API int32_t KX_SDK_JSON_VERIFY1(FILE *stream, char *out)
{
    if (stream == nullptr || out == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    std::size_t n = 0;
    kx::Buffer answer = read_json_file(__func__, stream, n);
    if (!answer.ok())
        return -1;
    JsonTree tree = parse_json(__func__, answer.get(), n);
    if (!tree) {
        empty_file(stream);
        return -1;
    }
    JsonText printed(cJSON_Print(tree.get()));
    if (!printed) {
        KX_LOGE("out of memory!\n");
        empty_file(stream);
        return -1;
    }
    std::strcpy(out, printed.get());
    return 0;
}

KX_API int32_t XML_GET_TAG_LENGTH(FILE *stream, const char *tag, uint32_t *len)
{
    if (stream == nullptr || tag == nullptr || len == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    XmlText content;
    if (!read_tag(__func__, stream, tag, content))
        return -1;
    *len = static_cast<uint32_t>(std::strlen(reinterpret_cast<const char *>(content.get())));
    return 0;
}

KX_API int32_t XML_GET_TAG_CONTENT(FILE *stream, const char *tag, char *out, uint32_t *len)
{
    if (stream == nullptr || tag == nullptr || out == nullptr || len == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    XmlText content;
    if (!read_tag(__func__, stream, tag, content))
        return -1;
    std::size_t length = std::strlen(reinterpret_cast<const char *>(content.get()));
    // A content as long as the capacity is refused: the terminator needs a byte.
    if (length >= *len)
        return -1;
    std::memcpy(out, content.get(), length + 1);
    *len = static_cast<uint32_t>(length);
    return 0;
}

}  // extern "C"
