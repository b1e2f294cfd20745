/*
 * External fetch: the application's own request (any URL, any body, its own
 * headers) through the library's transport, optionally signed, answered into
 * a heap text.
 *
 * The fetch shares the opening of the request frame (initialisation check,
 * "invalid arg!") but not the rest of it: its answer goes into a memory
 * record instead of an answer file, its results are distinct codes (1 no
 * signature, 3 transfer, 4 verification, 5 memory) instead of -1, and what it
 * signs is the caller's text. The steps below are therefore its own, each
 * call written out as the sequence it takes:
 *
 *   KX_SDK_FETCH_DATA      body signature of ps8SignBody, then the header
 *                          signature of ps8SignBody + "&sign=" + that
 *                          signature; headers sent only when signing; the
 *                          URL or body always ends in "&sign=" (empty when
 *                          unsigned); JSON answers only.
 *   KX_SDK_FETCH_DATA_V31  mode 1 body signature, mode 2 header signature of
 *                          ps8SignBody itself; headers always sent; "&sign="
 *                          only in mode 1; the mark members; XML or JSON.
 *   KX_SDK_FETCH_DATA_3rdUrl  no signature ever ("&sign=" left empty in mode
 *                          1); no verification; up to 204800 bytes by the
 *                          secure GET.
 *
 * The texts a call builds are released at its end through KX_SDK_FREE, which
 * logs "the pointer is null already!" for each one the call's road did not
 * build (an unsigned call, a GET's body text, a POST's URL): a line a reader
 * of the log sees after every fetch.
 *
 * The answer records (100 KiB, and 200 KiB for the third-party call) are
 * taken from the heap, not the caller's stack, whose size on a device thread
 * is not ours to spend.
 */
#include "kx_sdk_external.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <cstring>

#include "internal/kx_buffer.h"
#include "internal/kx_log.h"
#include "internal/kx_owned.h"
#include "internal/kx_request.h"
#include "kx_sdk_list.h"
#include "kx_sdk_security.h"
#include "kx_sdk_transport.h"
#include "kx_sdk_verify.h"

namespace {

constexpr int32_t kNoSignature = 1;
constexpr int32_t kTransferFailed = 3;
constexpr int32_t kNotVerified = 4;
constexpr int32_t kOutOfMemory = 5;

constexpr std::size_t kSignatureSize = 512;
constexpr int kPrintAttempts = 3;

using Json = kx::Owned<cJSON, cJSON_Delete>;
void free_printed(char *text) { cJSON_free(text); }
using Printed = kx::Owned<char, free_printed>;

const char *shown(const char *text) { return text != nullptr ? text : "(null)"; }

/* The fields every fetch record carries, whichever its layout. */
struct Fields {
    int32_t mark;
    bool http;
    bool get;
    int32_t sign;
    const char *func_name;
    const char *url;
    const char *sign_body;
    const char *body;
    const char *connect_headers;
};

Fields fields_of(const KX_SDK_FETCH_REQ_S *r)
{
    return Fields{-1, r->s32Http != 0, r->s32Get != 0, r->s32Sign, r->ps8FuncName, r->ps8Url, r->ps8SignBody,
                  r->ps8Body, r->ps8ConnectHeaders};
}

Fields fields_of(const KX_SDK_FETCH_REQ_V31_S *r)
{
    return Fields{r->s32Mark, r->s32Http != 0, r->s32Get != 0, r->s32SignMode, r->ps8FuncName, r->ps8Url,
                  r->ps8SignBody, r->ps8Body, r->ps8ConnectHeaders};
}

/* Whether the record asks for a signature, and so needs its sign body: the
 * base record's flag, the V31 record's modes 1 and 2. */
bool signs(const KX_SDK_FETCH_REQ_S *r) { return r->s32Sign != 0; }
bool signs(const KX_SDK_FETCH_REQ_V31_S *r) { return r->s32SignMode == 1 || r->s32SignMode == 2; }

/* The input block. The mark members add their mark, and their sign body line
 * ends in " *end". All three calls open with the base call's banner. */
void log_inputs(const char *fn, const Fields &f, bool with_mark)
{
    KX_LOGI_AS(fn, "=================KX_SDK_FETCH_DATA input param=================\n");
    if (with_mark)
        KX_LOGI_AS(fn, "    mark: %d\n", f.mark);
    KX_LOGI_AS(fn, "    ps8FuncName: %s\n", f.func_name);
    KX_LOGI_AS(fn, "    ps8Url: %s\n", f.url);
    KX_LOGI_AS(fn, "    ps8ConnectHeaders: %s\n", shown(f.connect_headers));
    KX_LOGI_AS(fn, "    ps8Body: %s\n", f.body);
    if (with_mark)
        KX_LOGI_AS(fn, "    ps8SignBody: %s *end\n", shown(f.sign_body));
    else
        KX_LOGI_AS(fn, "    ps8SignBody: %s\n", shown(f.sign_body));
    KX_LOGI_AS(fn, "=================KX_SDK_FETCH_DATA end=================\n");
}

/* The opening of every fetch: the initialisation check, the argument check
 * (request, answer out, body, URL and function name; the sign body when the
 * record asks for a signature), then the input block. False when the call
 * is refused and returns -1. */
template <typename Record>
bool accepted(const char *fn, const Record *req, char **answer, bool with_mark, Fields &f)
{
    if (!kx::initialised_for(fn))
        return false;
    if (req == nullptr || answer == nullptr) {
        kx::invalid_arg(fn);
        return false;
    }
    f = fields_of(req);
    if (f.body == nullptr || f.url == nullptr || f.func_name == nullptr || (signs(req) && f.sign_body == nullptr)) {
        kx::invalid_arg(fn);
        return false;
    }
    log_inputs(fn, f, with_mark);
    return true;
}

/* The caller's header object; null when there is none, when it does not
 * parse, or when it is not an object (only an object has named members). */
Json parse_headers(const char *text)
{
    if (text == nullptr)
        return Json();
    Json parsed(cJSON_Parse(text));
    if (parsed && !cJSON_IsObject(parsed.get()))
        parsed.reset();
    return parsed;
}

/* Turns the header object (an empty one made when there is none), with
 * "x-sign-for" added last when `sign_for` is given, into header records, and
 * releases the object. 0, or 5 when memory runs out. */
int32_t convert_headers(const char *fn, Json &object, const char *sign_for, KX_SDK_HTTP_HEADER_S *headers,
                        int32_t &count)
{
    if (!object) {
        object.reset(cJSON_CreateObject());
        if (!object) {
            KX_LOGE_AS(fn, "out of memory.\n");
            return kOutOfMemory;
        }
    }
    if (sign_for != nullptr && cJSON_AddStringToObject(object.get(), "x-sign-for", sign_for) == nullptr) {
        KX_LOGE_AS(fn, "out of memory.\n");
        return kOutOfMemory;
    }
    count = KX_SDK_GET_HTTP_HEADER(object.get(), headers);
    KX_LOGI_AS(fn, "header size :[%d]\n", count);
    object.reset();
    return 0;
}

/* What a fetch zeroes before anything else: the two 512-byte signature
 * texts and the header records. */
struct Scratch {
    char body_signature[kSignatureSize] = {};
    char header_signature[kSignatureSize] = {};
    KX_SDK_HTTP_HEADER_S headers[KX_SDK_FETCH_MAX_HEADERS] = {};
};

/* The heap texts of one fetch, released at its end through KX_SDK_FREE in
 * the order they are built, whether built or not. */
class Texts {
public:
    explicit Texts(bool with_signed_text) : with_signed_text_(with_signed_text) {}
    ~Texts()
    {
        if (with_signed_text_)
            KX_SDK_FREE(signed_text);
        KX_SDK_FREE(get_url);
        KX_SDK_FREE(post_body);
    }
    Texts(const Texts &) = delete;
    Texts &operator=(const Texts &) = delete;

    char *signed_text = nullptr; /* ps8SignBody + "&sign=" + body signature */
    char *get_url = nullptr;     /* ps8Url + ps8Body [+ "&sign=" + signature] */
    char *post_body = nullptr;   /* ps8Body [+ "&sign=" + signature] */

private:
    bool with_signed_text_;
};

/* The GET URL or the POST body: the caller's texts, then "&sign=" and
 * `signature` unless `signature` is null. Allocations: URL + body + 520
 * bytes, body + 520 bytes, zeroed (the signature is at most 511
 * characters). 0, or 5 when memory runs out. */
int32_t build_request(const char *fn, const Fields &f, const char *signature, Texts &texts)
{
    const char *sign_key = signature != nullptr ? "&sign=" : "";
    const char *sign_value = signature != nullptr ? signature : "";
    if (f.get) {
        kx::Buffer url(std::strlen(f.body) + std::strlen(f.url) + 520);
        if (!url.ok()) {
            KX_LOGE_AS(fn, "out of memory.\n");
            return kOutOfMemory;
        }
        std::snprintf(url.get(), url.size(), "%s%s%s%s", f.url, f.body, sign_key, sign_value);
        texts.get_url = url.release();
        KX_LOGI_AS(fn, "ps8GetUrl: %s\n", texts.get_url);
        return 0;
    }
    kx::Buffer body(std::strlen(f.body) + 520);
    if (!body.ok()) {
        KX_LOGE_AS(fn, "out of memory.\n");
        return kOutOfMemory;
    }
    std::snprintf(body.get(), body.size(), "%s%s%s", f.body, sign_key, sign_value);
    texts.post_body = body.release();
    return 0;
}

/* A zeroed answer record from the heap (the sink needs it empty). */
kx::Buffer answer_record() { return kx::Buffer(sizeof(KX_SDK_DATA_BUF_S)); }

KX_SDK_DATA_BUF_S *record_of(const kx::Buffer &area) { return reinterpret_cast<KX_SDK_DATA_BUF_S *>(area.get()); }

/* The transfer by one of the record members; `mark` selects the _MARK
 * members (the base call has none). */
int32_t transfer(const Fields &f, const Texts &texts, KX_SDK_DATA_BUF_S *record, const KX_SDK_HTTP_HEADER_S *headers,
                 int32_t count, bool with_mark)
{
    if (f.get) {
        if (with_mark)
            return f.http ? KX_SDK_HTTP_GET_EXTERNAL_MARK(texts.get_url, record, headers, count, f.mark)
                          : KX_SDK_HTTPS_GET_EXTERNAL_MARK(texts.get_url, record, headers, count, f.mark);
        return f.http ? KX_SDK_HTTP_GET_EXTERNAL(texts.get_url, record, headers, count)
                      : KX_SDK_HTTPS_GET_EXTERNAL(texts.get_url, record, headers, count);
    }
    const int32_t length = static_cast<int32_t>(std::strlen(texts.post_body));
    if (with_mark)
        return f.http ? KX_SDK_HTTP_POST_EXTERNAL_MARK(f.url, texts.post_body, length, record, headers, count, f.mark)
                      : KX_SDK_HTTPS_POST_EXTERNAL_MARK(f.url, texts.post_body, length, record, headers, count,
                                                        f.mark);
    return f.http ? KX_SDK_HTTP_POST_EXTERNAL(f.url, texts.post_body, length, record, headers, count)
                  : KX_SDK_HTTPS_POST_EXTERNAL(f.url, texts.post_body, length, record, headers, count);
}

/* Whether the answer is XML. A full record holds no terminator of its own:
 * it is judged on a terminated copy. -1 when that copy cannot be made. */
int judge_xml(const KX_SDK_DATA_BUF_S *record)
{
    if (record->used < sizeof record->data)
        return KX_SDK_JUDGE_XML_FORM(record->data);
    kx::Buffer copy(sizeof record->data + 1);
    if (!copy.ok())
        return -1;
    std::memcpy(copy.get(), record->data, sizeof record->data);
    return KX_SDK_JUDGE_XML_FORM(copy.get());
}

/* The end of the verified calls: the transfer's verdict, then the answer's
 * signature. XML answers are known only to the calls given `xml`. */
int32_t deliver_verified(const char *fn, int32_t transferred, const KX_SDK_DATA_BUF_S *record, bool xml,
                         char **answer)
{
    if (transferred != 0) {
        KX_LOGE_AS(fn, "failed to get/post data!\n");
        return kTransferFailed;
    }
    /* The answer as far as it was received: a full record is not terminated. */
    KX_LOGI_AS(fn, "KX_SDK_HTTP_GET_EXTERNAL success buf: %.*s \n", static_cast<int>(record->used), record->data);
    int is_xml = 0;
    if (xml) {
        is_xml = judge_xml(record);
        if (is_xml < 0) {
            KX_LOGE_AS(fn, "out of memory.\n");
            return kOutOfMemory;
        }
    }
    const int32_t verified = is_xml ? KX_SDK_XML_VERIFY_HEAP(record, answer) : KX_SDK_JSON_VERIFY_HEAP(record, answer);
    if (verified != 0) {
        KX_LOGE_AS(fn, "failed to verify json data!\n");
        return kNotVerified;
    }
    return 0;
}

/* The rest of a verified call: the URL or body (with "&sign=" and
 * `appended` unless that is null), a zeroed answer record, the transfer
 * (by the _MARK members for the mark family) and the verdict. */
int32_t send_verified(const char *fn, const Fields &f, const char *appended, Texts &texts, const Scratch &work,
                      int32_t count, bool mark_family, char **answer)
{
    const int32_t built = build_request(fn, f, appended, texts);
    if (built != 0)
        return built;
    kx::Buffer area = answer_record();
    if (!area.ok()) {
        KX_LOGE_AS(fn, "out of memory.\n");
        return kOutOfMemory;
    }
    const int32_t transferred = transfer(f, texts, record_of(area), work.headers, count, mark_family);
    return deliver_verified(fn, transferred, record_of(area), mark_family, answer);
}

}  // namespace

extern "C" {

KX_API int32_t KX_SDK_GET_HTTP_HEADER(const cJSON *pstJson, KX_SDK_HTTP_HEADER_S *pstHeaders)
{
    if (pstJson == nullptr || pstHeaders == nullptr)
        return 0;
    int32_t count = 0;
    for (const cJSON *member = pstJson->child; member != nullptr && count < KX_SDK_FETCH_MAX_HEADERS;
         member = member->next) {
        /* Only named members (an object's) can be headers. */
        if (member->string == nullptr)
            continue;
        const std::size_t name_length = std::strlen(member->string);
        if (name_length >= sizeof pstHeaders->name)
            continue;
        /* The printer is tried again when it returns nothing; after a few
         * tries the member is skipped rather than waited for. */
        Printed printed;
        for (int attempt = 0; attempt < kPrintAttempts && !printed; ++attempt)
            printed.reset(cJSON_Print(member));
        if (!printed)
            continue;
        const std::size_t printed_length = std::strlen(printed.get());
        if (printed_length >= sizeof pstHeaders->value)
            continue;

        KX_SDK_HTTP_HEADER_S &header = pstHeaders[count];
        std::memcpy(header.name, member->string, name_length + 1);
        /* Without the first and last character: quotes for a string, digits
         * for a number. A one-character print keeps nothing. */
        const std::size_t kept = printed_length >= 2 ? printed_length - 2 : 0;
        std::memcpy(header.value, printed.get() + 1, kept);
        header.value[kept] = '\0';
        ++count;
    }
    return count;
}

KX_API int32_t KX_SDK_FETCH_DATA(const KX_SDK_FETCH_REQ_S *pstReq, char **ppAnswer)
{
    Scratch work;

    Fields f{};
    if (!accepted(__func__, pstReq, ppAnswer, false, f))
        return -1;

    Texts texts(true);
    Json object = parse_headers(f.connect_headers);
    int32_t count = 0;
    if (f.sign != 0) {
        if (static_cast<int32_t>(KX_SDK_SIGN_CREATE(f.sign_body, work.body_signature)) == -1) {
            KX_LOGE("create signature-body failed.\n");
            return kNoSignature;
        }
        kx::Buffer signed_text(std::strlen(f.sign_body) + 519);
        if (!signed_text.ok()) {
            KX_LOGE("out of memory.\n");
            return kOutOfMemory;
        }
        std::snprintf(signed_text.get(), signed_text.size(), "%s&sign=%s", f.sign_body, work.body_signature);
        texts.signed_text = signed_text.release();
        if (static_cast<int32_t>(KX_SDK_SIGN_CREATE_SOUNDBAR(texts.signed_text, work.header_signature)) == -1) {
            KX_LOGE("create signature-header failed.\n");
            return kNoSignature;
        }
        const int32_t converted = convert_headers(__func__, object, work.header_signature, work.headers, count);
        if (converted != 0)
            return converted;
    }
    /* Unsigned, the caller's headers were parsed but are not sent. */
    object.reset();

    /* Unsigned, the URL or body still ends in "&sign=", with nothing after it. */
    return send_verified(__func__, f, work.body_signature, texts, work, count, false, ppAnswer);
}

KX_API int32_t KX_SDK_FETCH_DATA_V31(const KX_SDK_FETCH_REQ_V31_S *pstReq, char **ppAnswer)
{
    Scratch work;

    Fields f{};
    if (!accepted(__func__, pstReq, ppAnswer, true, f))
        return -1;

    Texts texts(false);
    Json object = parse_headers(f.connect_headers);
    const char *appended = nullptr; /* what follows "&sign=": nothing is appended outside mode 1 */
    const char *sign_for = nullptr;
    if (f.sign == 1) {
        if (static_cast<int32_t>(KX_SDK_SIGN_CREATE(f.sign_body, work.body_signature)) == -1) {
            KX_LOGE("create signature-body failed.\n");
            return kNoSignature;
        }
        appended = work.body_signature;
    } else if (f.sign == 2) {
        /* Over the caller's text itself, not over a signed text. */
        if (static_cast<int32_t>(KX_SDK_SIGN_CREATE_SOUNDBAR(f.sign_body, work.header_signature)) == -1) {
            KX_LOGE("create signature-header failed.\n");
            return kNoSignature;
        }
        sign_for = work.header_signature;
    } else {
        KX_LOGI("not need create up sign.\n");
    }
    /* The caller's headers go out in every mode. */
    int32_t count = 0;
    const int32_t converted = convert_headers(__func__, object, sign_for, work.headers, count);
    if (converted != 0)
        return converted;

    return send_verified(__func__, f, appended, texts, work, count, true, ppAnswer);
}

KX_API int32_t KX_SDK_FETCH_DATA_V30(const KX_SDK_FETCH_REQ_S *pstReq, char **ppAnswer)
{
    if (pstReq == nullptr)
        return KX_SDK_FETCH_DATA_V31(nullptr, ppAnswer);
    /* The record's own fields behind a mark of -1; the reserved word is 0. */
    const KX_SDK_FETCH_REQ_V31_S v31 = {-1,
                                        pstReq->s32Http,
                                        pstReq->s32Get,
                                        pstReq->s32Sign,
                                        pstReq->ps8FuncName,
                                        pstReq->ps8Url,
                                        pstReq->ps8SignBody,
                                        pstReq->ps8Body,
                                        pstReq->ps8ConnectHeaders,
                                        0};
    return KX_SDK_FETCH_DATA_V31(&v31, ppAnswer);
}

KX_API int32_t KX_SDK_FETCH_DATA_3rdUrl(const KX_SDK_FETCH_REQ_V31_S *pstReq, char **ppAnswer)
{
    Scratch work;

    Fields f{};
    if (!accepted(__func__, pstReq, ppAnswer, false, f))
        return -1;

    Texts texts(false);
    Json object = parse_headers(f.connect_headers);
    int32_t count = 0;
    const int32_t converted = convert_headers(__func__, object, nullptr, work.headers, count);
    if (converted != 0)
        return converted;
    /* Nothing is signed; mode 1 still leaves an empty "&sign=". */
    const int32_t built = build_request(__func__, f, f.sign == 1 ? "" : nullptr, texts);
    if (built != 0)
        return built;

    /* One spare zero byte, so that a full 204800-byte answer is still a
     * terminated text for the log line. */
    kx::Buffer large_area(KX_SDK_LARGEDATA_SIZE + 1);
    if (!large_area.ok()) {
        KX_LOGE("not enough memory (malloc returned NULL)\n");
        return kOutOfMemory;
    }
    KX_SDK_LARGEDATA_S large = {large_area.get(), 0};
    int32_t transferred = -1;
    if (f.get && !f.http) {
        transferred = KX_SDK_HTTPS_GET_EXTERNAL_MARK1(texts.get_url, &large, work.headers, count, f.mark);
    } else {
        /* The plain GET and the POSTs receive into a 100 KiB record of the
         * call's own; that answer is what the caller gets. */
        kx::Buffer area = answer_record();
        if (!area.ok()) {
            KX_LOGE("not enough memory (malloc returned NULL)\n");
            return kOutOfMemory;
        }
        KX_SDK_DATA_BUF_S *record = record_of(area);
        transferred = transfer(f, texts, record, work.headers, count, true);
        if (transferred == 0) {
            std::memcpy(large.buffer, record->data, record->used);
            large.used = record->used;
        }
    }
    if (transferred != 0) {
        KX_LOGE("failed to get/post data!\n");
        return kTransferFailed;
    }
    KX_LOGI("KX_SDK_HTTP_GET_EXTERNAL success size:%d,buf: %s \n", static_cast<int>(large.used), large.buffer);
    kx::Buffer answer(static_cast<std::size_t>(large.used) + 1);
    if (!answer.ok()) {
        KX_LOGE("out of memory.\n");
        return kOutOfMemory;
    }
    std::memcpy(answer.get(), large.buffer, large.used);
    *ppAnswer = answer.release();
    large_area.reset();
    KX_LOGI("KX_SDK_HTTP_GET_EXTERNAL free return_buf.buff\n");
    return 0;
}

}  // extern "C"
