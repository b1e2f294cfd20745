/*
 * Log module: the service list, the log policies, the log upload and the
 * upgrade-event report.
 *
 * These calls make no request signature. They compose their URL or body from
 * the caller's token and the service's fixed identifiers, let the transport
 * write the answer into the stream the caller opened (internal/kx_stream_call.h)
 * and judge it themselves: the service list, the log strategy and the event
 * report by the answer's server signature, the all-policy answer by its
 * result code alone. Unlike the account calls they check their arguments
 * before the initialisation.
 *
 * Bytes that come from the cloud are read with two guards the texts of the
 * protocol leave out, each noted where it stands: a cipher text is held in a
 * buffer of whole AES blocks (the cipher reads whole blocks), and an address
 * slot keeps its terminator.
 */
#include <unistd.h>

#include <climits>
#include <cstring>
#include <initializer_list>
#include <utility>

#include <libxml/xmlerror.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include "internal/kx_buffer.h"
#include "internal/kx_format.h"
#include "internal/kx_gzip.h"
#include "internal/kx_json.h"
#include "internal/kx_log.h"
#include "internal/kx_log_parse.h"
#include "internal/kx_request.h"
#include "internal/kx_stream_call.h"
#include "internal/kx_xml.h"
#include "kx_cloud_openapi.h"

namespace {

/* The fixed part of the service list and log strategy queries. */
constexpr const char kQueryTail[] = "&version=7.0&format=0&sourceType=1";

/* The working buffer of an upload holds at least this many bytes. */
constexpr uint32_t kUploadBufferMinimum = 8192;

/* A policy may decompress to this many times its compressed size. */
constexpr uint32_t kPolicyRatio = 32;

using XPathContext = kx::Owned<xmlXPathContext, xmlXPathFreeContext>;
using XPathParser = kx::Owned<xmlXPathParserContext, xmlXPathFreeParserContext>;
using XPathObject = kx::Owned<xmlXPathObject, xmlXPathFreeObject>;

/* An optional text: absent is sent as empty. */
const char *or_empty(const char *text) { return text != nullptr ? text : ""; }

/* A buffer for a cipher text of `length` bytes: AES_cbc_encrypt reads a whole
 * last block even when the length stops inside it, so the buffer is rounded
 * up to whole blocks (zero-filled). */
kx::Buffer cipher_buffer(std::size_t length) { return kx::Buffer((length + 15) / 16 * 16); }

/* The nodes an XPath expression selects, null when it could not be evaluated:
 * also when libxml2 failed on the way (running out of memory, for one), which
 * it may report only through its last error.
 *
 * This is xmlXPathEval with its value stack allocated before the evaluation
 * starts. libxml2 2.9 allocates that stack lazily while evaluating and, when
 * the allocation fails, goes on with the context it has just released; its
 * other entry point, xmlXPathCompiledEval, dereferences a null context when
 * it cannot make one. Both would crash the host process under memory
 * pressure; a stack that is there beforehand takes neither road. */
XPathObject select_nodes(xmlXPathContext *context, const char *expression)
{
    kx::xml_watch();
    XPathParser parser(xmlXPathNewParserContext(reinterpret_cast<const xmlChar *>(expression), context));
    if (!parser)
        return nullptr;
    constexpr int kStack = 10;
    parser->valueTab = static_cast<xmlXPathObjectPtr *>(xmlMalloc(kStack * sizeof(xmlXPathObjectPtr)));
    if (parser->valueTab == nullptr)
        return nullptr;
    parser->valueNr = 0;
    parser->valueMax = kStack;
    parser->value = nullptr;
    xmlXPathEvalExpr(parser.get());
    if (parser->error != XPATH_EXPRESSION_OK || kx::xml_erred())
        return nullptr;
    XPathObject found(valuePop(parser.get()));
    if (found && found->type != XPATH_NODESET)
        found.reset();
    return found;
}

int node_count(const XPathObject &found)
{
    return found && found->nodesetval != nullptr ? found->nodesetval->nodeNr : 0;
}

/* The text of the first node an expression selects: false when there is no
 * such node (or memory ran out), `text` then null. */
bool first_text(xmlXPathContext *context, const char *expression, kx::XmlText &text)
{
    XPathObject found = select_nodes(context, expression);
    if (node_count(found) == 0)
        return false;
    text.reset(xmlNodeGetContent(found->nodesetval->nodeTab[0]));
    return true;
}

}  // namespace

namespace kx {

namespace {

/* How opening a hexadecimal cipher text ended. */
enum class Opened { plain, out_of_memory, refused };

/* Hexadecimal text of an AES cipher text, decrypted with KX_SDK_AES_DECRYPT
 * into `plain`, a terminated text of `length` bytes. */
Opened open_hex_cipher(const char *hex, Buffer &plain, uint32_t &length)
{
    const std::size_t bytes = std::strlen(hex) / 2;
    Buffer cipher = cipher_buffer(bytes);
    Buffer text(bytes + 1);
    if (!cipher.ok() || !text.ok())
        return Opened::out_of_memory;
    KX_SDK_HEXSTRING_TO_ENCRYPT(hex, cipher.get());
    if (KX_SDK_AES_DECRYPT(cipher.get(), static_cast<uint32_t>(bytes), text.get(), &length) != 0)
        return Opened::refused;
    text.get()[length] = '\0';
    plain = std::move(text);
    return Opened::plain;
}

/* One service address, decrypted into its zeroed slot. Returns 0 whether or
 * not it decrypted (a failed one leaves the slot empty), -1 only when memory
 * runs out. The slot keeps at most 255 characters so that it stays a
 * terminated text. */
int32_t KX_LOG_DECRYPT_SERVICEURL(const char *hex, char *slot)
{
    Buffer plain;
    uint32_t length = 0;
    switch (open_hex_cipher(hex, plain, length)) {
    case Opened::out_of_memory:
        KX_LOGE("out of memory!\n");
        return -1;
    case Opened::refused:
        return 0;
    case Opened::plain:
        break;
    }
    std::memcpy(slot, plain.get(), length < KX_LOG_SERVICE_ADDRESS_SIZE - 1 ? length : KX_LOG_SERVICE_ADDRESS_SIZE - 1);
    KX_LOGI("Service Address is %.*s.\n", KX_LOG_SERVICE_ADDRESS_SIZE, plain.get());
    return 0;
}

/* The addresses an expression selects, decrypted into the next free slots in
 * document order until all 8 are taken. Returns how many were counted, or -1
 * when the expression could not be evaluated. */
int collect_addresses(xmlXPathContext *context, const char *expression,
                      char (*slots)[KX_LOG_SERVICE_ADDRESS_SIZE])
{
    XPathObject found = select_nodes(context, expression);
    if (!found)
        return -1;
    int count = 0;
    for (int i = 0; i < node_count(found) && count < KX_LOG_SERVICE_SLOTS; ++i) {
        XmlText address(xmlNodeGetContent(found->nodesetval->nodeTab[i]));
        if (address && KX_LOG_DECRYPT_SERVICEURL(reinterpret_cast<const char *>(address.get()), slots[count]) == 0)
            ++count;
    }
    return count;
}

/* The policy content, decrypted into `plain` as a terminated text. */
int32_t KX_LOG_DECRYPT_POLICYCONTENT(const char *hex, Buffer &plain)
{
    uint32_t length = 0;
    switch (open_hex_cipher(hex, plain, length)) {
    case Opened::out_of_memory:
        KX_LOGE("out of memory!\n");
        return -1;
    case Opened::refused:
        KX_LOGE("KX_SDK_AES_DECRYPT() fails!\n");
        return -1;
    case Opened::plain:
        break;
    }
    KX_LOGI("policy content is %s.\n", plain.get());
    KX_LOGI("%s %d PolicyContent: %s\n", __func__, __LINE__, plain.get());
    return 0;
}

/* The stream emptied and rewound. Pending output is written first so that it
 * cannot grow the file again. */
void empty_stream(std::FILE *stream)
{
    std::fflush(stream);
    if (ftruncate(fileno(stream), 0) != 0) {
        // The stream is rewound and rewritten from its start either way.
    }
    std::rewind(stream);
}

}  // namespace

int32_t KX_LOG_Parser_ServiceList(std::FILE *stream, KX_LOG_SERVICE_LIST_S *list)
{
    std::memset(list, 0, sizeof *list);
    std::rewind(stream);
    XmlDoc doc = read_xml_stream(stream);
    if (!doc) {
        KX_LOGE("Failed to call xmlReadFd().\n");
        return -1;
    }
    XPathContext context(xmlXPathNewContext(doc.get()));
    if (!context)
        return -1;

    XmlText code;
    if (!first_text(context.get(), "/response/resultCode", code) || !code) {
        KX_LOGE("Failed to find resultCode node in xml file.\n");
        return -1;
    }
    if (std::strcmp(reinterpret_cast<const char *>(code.get()), "0") != 0) {
        KX_LOGE("Failed to parse service list, ResultCode is %s.\n", reinterpret_cast<const char *>(code.get()));
        return -1;
    }

    const int policies = collect_addresses(
        context.get(), "/response/appServiceList/addressInfo[addressType=\"strategy_all\"]/addressList/address",
        list->as8PolicyService);
    if (policies < 0)
        return -1;
    list->u32PolicyServiceNum = static_cast<uint32_t>(policies);
    KX_LOGI("success to find %d policy service.\n", policies);

    const int uploads = collect_addresses(
        context.get(), "/response/appServiceList/addressInfo[addressType=\"dasurl\"]/addressList/address",
        list->as8UploadService);
    if (uploads < 0)
        return -1;
    list->u32UploadServiceNum = static_cast<uint32_t>(uploads);
    KX_LOGI("success to find %d upload service.\n", uploads);
    KX_LOGI("success to parse service list.\n");
    return 0;
}

int32_t KX_LOG_UNZIP_POLICY(std::FILE *stream)
{
    std::rewind(stream);
    XmlDoc doc = read_xml_stream(stream);
    if (!doc) {
        KX_LOGE("Failed to call xmlReadFd().\n");
        return -1;
    }
    XPathContext context(xmlXPathNewContext(doc.get()));
    XmlText content;
    if (!context || !first_text(context.get(), "/response/policyContent", content)) {
        KX_LOGE("Failed to find policyContent tag.\n");
        return -1;
    }
    if (!content) {
        KX_LOGE("policyContent tag value is null.\n");
        return -1;
    }
    const char *hex = reinterpret_cast<const char *>(content.get());
    const std::size_t hex_length = std::strlen(hex);
    KX_LOGI("%s %d policyContent: %s, len: %d\n", __func__, __LINE__, hex, static_cast<int>(hex_length));

    Buffer plain;
    if (KX_LOG_DECRYPT_POLICYCONTENT(hex, plain) != 0) {
        KX_LOGE("decrypt policy content failed.\n");
        return -1;
    }
    /* The decoded bytes are fewer than the hexadecimal characters. */
    Buffer gzipped(hex_length);
    if (!gzipped.ok()) {
        KX_LOGE("out of memory!\n");
        return -1;
    }
    const int32_t decoded = kx_base64_decode(plain.get(), gzipped.get());
    if (decoded <= 0) {
        KX_LOGE("failed to decode policyContent string.\n");
        return -1;
    }

    empty_stream(stream);

    /* The policy must be whole: the decompressor gets one byte more than the
     * bound, so that a larger policy shows, and must reach the stream's end. */
    const uint32_t length = static_cast<uint32_t>(decoded);
    if (length > (UINT32_MAX - 1) / kPolicyRatio) {
        KX_LOGE("out of memory!\n");
        return -1;
    }
    const uint32_t bound = kPolicyRatio * length;
    Buffer policy(static_cast<std::size_t>(bound) + 1);
    if (!policy.ok()) {
        KX_LOGE("out of memory!\n");
        return -1;
    }
    uint32_t produced = bound + 1;
    bool whole = false;
    if (gz_decompress(gzipped.get(), length, policy.get(), &produced, &whole) != 0 || !whole || produced > bound) {
        KX_LOGE("failed to decompress policy.\n");
        return -1;
    }

    for (std::size_t written = 0; written < produced;) {
        const std::size_t n = std::fwrite(policy.get() + written, 1, produced - written, stream);
        if (n == 0) {
            empty_stream(stream);
            KX_LOGE("failed to write xml file.\n");
            return -1;
        }
        written += n;
    }
    std::fflush(stream);
    std::rewind(stream);
    return 0;
}

}  // namespace kx

namespace {

/* The data of an upload in the working buffer (the larger of its length and
 * 8192 bytes, zero-filled), gzip-compressed unless `raw`, then encrypted with
 * KX_SDK_AES_ENCRYPT. */
struct SealedLog {
    kx::HeapPtr<unsigned char> cipher;
    uint32_t cipher_length = 0;
    uint32_t packed_length = 0; /* what was encrypted */
};

bool seal_log(const char *name, const char *data, uint32_t length, bool raw, SealedLog &sealed)
{
    const uint32_t size = length > kUploadBufferMinimum ? length : kUploadBufferMinimum;
    kx::Buffer work(size);
    if (!work.ok()) {
        KX_LOGE_AS(name, "out of memory!\n");
        return false;
    }
    /* The data need not be a terminated text: the line shows its bytes only. */
    KX_LOGI_AS(name, "Upload LogData : [%.*s].\n", length > INT_MAX ? INT_MAX : static_cast<int>(length), data);

    uint32_t packed = size;
    if (raw) {
        KX_LOGI_AS(name, "raw data, no compress.\n");
        std::memcpy(work.get(), data, length); /* shorter data: the rest stays zero */
    } else {
        /* A stream that does not fit the working buffer is refused like any
         * other failed compression (the compressor reports it as input left). */
        if (KX_SDK_GZCOMPRESS(data, length, work.get(), &packed) != 0) {
            KX_LOGE_AS(name, "failed to Compress logdata.\n");
            return false;
        }
        KX_LOGI_AS(name, "log size is %d, gzdata size is %d.\n", static_cast<int>(length), static_cast<int>(packed));
    }

    unsigned char *cipher = nullptr;
    if (KX_SDK_AES_ENCRYPT(work.get(), packed, &cipher, &sealed.cipher_length) != 0) {
        KX_LOGE_AS(name, "Failed to encrypt log data.\n");
        return false;
    }
    sealed.cipher.reset(cipher);
    sealed.packed_length = packed;
    return true;
}

/* The base64 text of the cipher text, in a buffer of cipher_length / 3 * 4 + 5
 * bytes (room for the text and its terminator). */
bool base64_of(const char *name, const SealedLog &sealed, kx::Buffer &text)
{
    text = kx::Buffer(sealed.cipher_length / 3 * 4 + 5);
    if (!text.ok()) {
        KX_LOGE_AS(name, "out of memory.\n");
        return false;
    }
    kx_base64_encode(sealed.cipher.get(), text.get(), sealed.cipher_length);
    return true;
}

/* A JSON object of string members, in the order given; null after "Failed to
 * create JSON object." when it cannot be made. */
kx::JsonTree json_object(const char *name, std::initializer_list<std::pair<const char *, const char *>> members)
{
    kx::JsonTree object(cJSON_CreateObject());
    for (const auto &member : members) {
        if (!object || cJSON_AddStringToObject(object.get(), member.first, member.second) == nullptr) {
            KX_LOGE_AS(name, "Failed to create JSON object.\n");
            return nullptr;
        }
    }
    return object;
}

/* Prints the object (cJSON's formatted or unformatted printer), logs the
 * address and the text and posts the text into the caller's stream. */
int32_t post_object(const char *name, uint32_t change_to_http, std::FILE **stream, const char *url,
                    const kx::PostMembers &members, kx::JsonTree object, bool formatted)
{
    kx::JsonText json(formatted ? cJSON_Print(object.get()) : cJSON_PrintUnformatted(object.get()));
    object.reset();
    if (!json) {
        KX_LOGE_AS(name, "Failed to create JSON object.\n");
        return -1;
    }
    kx::StreamCall call(name, change_to_http, stream);
    call.use_url(url);
    KX_LOGI_AS(name, "upload url is [%s].\n", url);
    KX_LOGI_AS(name, "json buf: [%s]\n", json.get());
    if (call.post(members, json.get(), static_cast<int32_t>(std::strlen(json.get())),
                  "Failed to call KX_SDK_HTTP_POST.\n") != 0)
        return -1;
    return 0;
}

/* Posts with socket mark 100. */
int32_t post_marked_plain(const char *url, const char *body, int32_t length, std::FILE **stream)
{
    return KX_SDK_HTTP_POST_MARK(url, body, length, stream, 100);
}

int32_t post_marked_secure(const char *url, const char *body, int32_t length, std::FILE **stream)
{
    return KX_SDK_HTTPS_POST_MARK(url, body, length, stream, 100);
}

}  // namespace

extern "C" {

KX_API int32_t KX_LOG_GET_SERVICELIST(const KX_LOG_SERVICE_REQ_S *psReq, const char *ps8Domain,
                                      KX_LOG_SERVICE_LIST_S *psList, FILE **ppStream)
{
    /* The domain and the list are needed as much as the record. */
    if (psReq == nullptr || ps8Domain == nullptr || psList == nullptr || ppStream == nullptr ||
        psReq->ps8AppKey == nullptr || psReq->ps8AccessToken == nullptr || *ppStream == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    kx::StreamCall call(__func__, psReq->u32ChangeToHttp, ppStream);
    KX_LOGI("to create getServiceList url!\n");
    call.compose_url("%s%s%s%s%s%s&refAppKey=%s%s&languageId=%u&accessToken=%s", call.scheme(), ps8Domain,
                     call.port(), "/pds/getAppServiceList?", "appVersion=", or_empty(psReq->ps8AppVersion),
                     psReq->ps8AppKey, kQueryTail, psReq->u32LanguageId, psReq->ps8AccessToken);
    KX_LOGI("GetServiceList url is %s!\n", call.url());
    if (call.get("Failed to call KX_SDK_HTTP_GET.\n") != 0)
        return -1;

    KX_LOGI("to verify signature!\n");
    if (call.verify_xml("failed to  verify xml data!\n") != 0)
        return -1;
    if (kx::KX_LOG_Parser_ServiceList(*ppStream, psList) != 0) {
        KX_LOGE("Failed to parse servicelist xml.\n");
        return -1;
    }
    KX_LOGI("success to get service list!\n");
    return 0;
}

KX_API int32_t KX_LOG_QUERY_POLICY(const KX_LOG_POLICY_REQ_S *psReq, const char *ps8Domain, FILE **ppStream)
{
    if (psReq == nullptr || ps8Domain == nullptr || ppStream == nullptr || psReq->ps8AccessToken == nullptr ||
        *ppStream == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    kx::StreamCall call(__func__, psReq->u32ChangeToHttp, ppStream);
    call.compose_url("%s%s%s%s%s&deviceType=%u%s&languageId=%u&accessToken=%s", call.scheme(), ps8Domain,
                     call.port(), "/log/get_strategy?", "msgVersion=4&msgType=9&msgId=20", psReq->u32DeviceType,
                     kQueryTail, psReq->u32LanguageId, psReq->ps8AccessToken);
    KX_LOGI("url is %s.\n", call.url());
    /* The line names the post routine although a GET was made. */
    if (call.get("Failed to call KX_SDK_POST.\n") != 0)
        return -1;
    return call.verify_xml("failed to  verify xml data!\n");
}

KX_API int32_t KX_LOG_QUERY_ALL_POLICY(const KX_LOG_ALL_POLICY_REQ_S *psReq, const char *ps8Domain, FILE **ppStream)
{
    if (psReq == nullptr || ps8Domain == nullptr || ppStream == nullptr || psReq->ps8DeviceId == nullptr ||
        *ppStream == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    kx::FixedText<16> app_key;
    app_key.format("%u", psReq->u32AppKey);
    const char *policy_seq = or_empty(psReq->ps8PolicySeq);
    KX_LOGI("policySeq = %s, deviceId = %s\n", policy_seq, psReq->ps8DeviceId);

    kx::StreamCall call(__func__, psReq->u32ChangeToHttp, ppStream);
    call.compose_url("%s%s%s%spolicySeq=%s&deviceId=%s&appKey=%s&countryCode=%s&brandCode=%s&version=1"
                     "&capabilityCode=%s&TVOSversion=%s",
                     call.scheme(), ps8Domain, call.port(), "/log/get_dotexception_strategy?", policy_seq,
                     psReq->ps8DeviceId, app_key.c_str(), or_empty(psReq->ps8CountryCode),
                     or_empty(psReq->ps8BrandCode), or_empty(psReq->ps8CapabilityCode),
                     or_empty(psReq->ps8TVOSVersion));
    /* The address is logged after the transfer, before its verdict. */
    const int32_t fetched = call.get(nullptr);
    KX_LOGI("url is %s.\n", call.url());
    if (fetched != 0) {
        KX_LOGE("Failed to call KX_SDK_HTTP_GET.\n");
        return -1;
    }

    /* No signature is checked on this answer: its result code alone. */
    char code[64] = {};
    uint32_t code_length = sizeof code;
    if (XML_GET_TAG_CONTENT(*ppStream, "resultCode", code, &code_length) != 0 || std::strcmp(code, "0") != 0) {
        KX_LOGE("Failed to find resultCode tag.\n");
        return -1;
    }
    if (kx::KX_LOG_UNZIP_POLICY(*ppStream) != 0) {
        KX_LOGE("Failed to unzip policy.\n");
        return -1;
    }
    return 0;
}

KX_API int32_t KX_LOG_UPLOAD(const KX_LOG_UPLOAD_S *psUpload, FILE **ppStream)
{
    if (psUpload == nullptr || ppStream == nullptr || psUpload->ps8LogTag == nullptr ||
        psUpload->ps8LogData == nullptr || psUpload->ps8UploadUrl == nullptr || *ppStream == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    SealedLog sealed;
    if (!seal_log(__func__, psUpload->ps8LogData, psUpload->u32LogDataLen, false, sealed))
        return -1;
    kx::Buffer base64;
    if (!base64_of(__func__, sealed, base64))
        return -1;
    /* Every base64 character takes at most three: (n / 3) * 16 + 20 is room
     * for them and the terminator, and the capacity given. */
    const std::size_t encoded_size = static_cast<std::size_t>(sealed.cipher_length / 3) * 16 + 20;
    kx::Buffer encoded(encoded_size);
    if (encoded_size > INT32_MAX || !encoded.ok()) {
        KX_LOGE("out of memory.\n");
        return -1;
    }
    KX_SDK_URLEncode(base64.get(), static_cast<int32_t>(std::strlen(base64.get())), encoded.get(),
                     static_cast<int32_t>(encoded_size));
    base64.reset();

    kx::JsonTree object = json_object(__func__, {{"logmsg", encoded.get()}});
    if (!object)
        return -1;
    encoded.reset();
    return post_object(__func__, psUpload->u32ChangeToHttp, ppStream, psUpload->ps8UploadUrl,
                       {KX_SDK_HTTP_POST_EX, KX_SDK_HTTPS_POST_EX}, std::move(object), true);
}

KX_API int32_t KX_LOG_UPLOAD_EX(const KX_LOG_UPLOAD_EX_S *psUpload, FILE **ppStream)
{
    if (psUpload == nullptr || ppStream == nullptr || psUpload->ps8LogTag == nullptr ||
        psUpload->ps8Data == nullptr || psUpload->ps8UploadUrl == nullptr || *ppStream == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    SealedLog sealed;
    if (!seal_log(__func__, psUpload->ps8Data, psUpload->u32DataLen, psUpload->u32CompressMode == KX_LOG_COMPRESS_RAW,
                  sealed))
        return -1;
    KX_LOGI("ps8EncryptData size is %d, gzdata size is %d.\n", static_cast<int>(sealed.cipher_length),
            static_cast<int>(sealed.packed_length));

    kx::JsonTree object;
    if (psUpload->u32MsgForm == KX_LOG_FORM_EVENT) {
        kx::Buffer base64;
        if (!base64_of(__func__, sealed, base64))
            return -1;
        KX_LOGI("create json object.\n");
        object = json_object(__func__, {{"message", base64.get()},
                                        {"deviceid", or_empty(psUpload->ps8DeviceId)},
                                        {"eventcode", or_empty(psUpload->ps8EventCode)},
                                        {"errorcode", or_empty(psUpload->ps8ErrorCode)},
                                        {"filename", or_empty(psUpload->ps8FileName)}});
    } else {
        /* The cipher bytes themselves are the value, read as a text: it ends
         * at their first zero byte. A terminated copy keeps that read inside
         * the cipher text when it holds no zero byte at all. */
        kx::Buffer raw(static_cast<std::size_t>(sealed.cipher_length) + 1);
        if (!raw.ok()) {
            KX_LOGE("out of memory.\n");
            return -1;
        }
        std::memcpy(raw.get(), sealed.cipher.get(), sealed.cipher_length);
        object = json_object(__func__, {{"logmsg", raw.get()}});
    }
    if (!object)
        return -1;
    sealed.cipher.reset();
    /* Plain HTTP posts as JSON, HTTPS through the binary member. */
    return post_object(__func__, psUpload->u32ChangeToHttp, ppStream, psUpload->ps8UploadUrl,
                       {KX_SDK_HTTP_POST_EX, KX_SDK_HTTPS_POST_BINARY}, std::move(object), false);
}

KX_API int32_t KX_REPORT_UPGRADE_EVENT(const KX_UPGRADE_EVENT_S *psEvent, const char *ps8Domain, FILE **ppStream)
{
    if (psEvent == nullptr || ppStream == nullptr || psEvent->ps8EventCode == nullptr ||
        psEvent->ps8AccessToken == nullptr || psEvent->ps8DeviceExtInfoStr == nullptr || *ppStream == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    kx::StreamCall call(__func__, psEvent->u32ChangeToHttp, ppStream);
    if (!call.create_url(ps8Domain, "/upgrade/report_upgrade_event",
                         "[Report upgrade event] failed to call KX_SDK_CREATE_URL().\n"))
        return -1;
    KX_LOGI("[Report upgrade event]========== report upgrade event url is: %s. ============\n", call.url());

    kx::FixedText<16> source_type, language;
    source_type.format("%u", psEvent->u32SourceType);
    language.format("%u", psEvent->u32LanguageId);
    const char *version = or_empty(psEvent->ps8Version);
    /* The values and 75 for the keys, the "&"s and the terminator. */
    const std::size_t size = std::strlen(psEvent->ps8DeviceExtInfoStr) + std::strlen(psEvent->ps8EventCode) +
                             std::strlen(psEvent->ps8AccessToken) + std::strlen(version) + source_type.length() +
                             language.length() + 75;
    kx::Buffer body(size);
    if (!body.ok()) {
        KX_LOGE("[Report upgrade event]out of memory.\n");
        return -1;
    }
    std::snprintf(body.get(), size, "deviceExtInfoStr=%s&eventCode=%s&accessToken=%s&version=%s&sourceType=%s&languageId=%s",
                  psEvent->ps8DeviceExtInfoStr, psEvent->ps8EventCode, psEvent->ps8AccessToken, version,
                  source_type.c_str(), language.c_str());
    KX_LOGI("[Report upgrade event]========== \n post body is %s. \n u32PostBodySize = %d. \n============\n",
            body.get(), static_cast<int>(size));

    if (call.post({post_marked_plain, post_marked_secure}, body.get(), static_cast<int32_t>(std::strlen(body.get())),
                  "[Report upgrade event]Failed to call KX_SDK_HTTP_POST.\n") != 0)
        return -1;
    body.reset();
    return call.verify_xml("[Report upgrade event]failed to verify xml data!\n");
}

}  // extern "C"
