/*
 * The response sinks and the HTTP/HTTPS request family.
 *
 * The twenty-one request members are one transfer routine driven by a short
 * description per member: its method, sink, header kind, connect time-out,
 * what it logs, and the order in which it sets its options. Each exported
 * member below is that description plus a call.
 */
#include "kx_sdk_transport.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "internal/kx_curl_share.h"
#include "internal/kx_format.h"
#include "internal/kx_log.h"
#include "internal/kx_secrets.h"

/* ---- Response sinks ------------------------------------------------------- */

size_t WRITE_DATA(char *ptr, size_t size, size_t nmemb, void *stream)
{
    FILE **stream_var = static_cast<FILE **>(stream);
    /* Guard: the request members check the stream before they transfer, but a
     * direct caller may not; without a stream nothing can be written. */
    if (stream_var == nullptr || *stream_var == nullptr)
        return 0;
    FILE *out = *stream_var;

    /* Append whatever the stream position is: the caller may have read it. */
    fseek(out, 0, SEEK_END);
    size_t written = fwrite(ptr, size, nmemb, out);
    if (written < nmemb) {
        KX_LOGE("Failed to call fwrite.\n");
        if (ferror(out)) {
            KX_LOGE("reset The error indicator of pStream.\n");
            clearerr(out);
        }
    }
    fflush(out);
    return written;
}

/* Stores a chunk of `size` * `nmemb` bytes at *used when it fits in `capacity`
 * (inclusive bound); returns the bytes taken, 0 when the chunk does not fit. */
static size_t append_bounded(char *area, uint32_t *used, size_t capacity, const char *ptr, size_t size,
                             size_t nmemb, size_t *chunk)
{
    /* Guard: a product that overflows, or a count already past the capacity
     * (a record the caller did not zero), counts as "does not fit". */
    if (size != 0 && nmemb > SIZE_MAX / size) {
        *chunk = SIZE_MAX;
        return 0;
    }
    *chunk = size * nmemb;
    if (*used > capacity || *chunk > capacity - *used)
        return 0;
    memcpy(area + *used, ptr, *chunk);
    *used += static_cast<uint32_t>(*chunk);
    return *chunk;
}

size_t WRITE_DATA1(char *ptr, size_t size, size_t nmemb, void *record)
{
    KX_SDK_DATA_BUF_S *buf = static_cast<KX_SDK_DATA_BUF_S *>(record);
    if (buf == nullptr) {
        KX_LOGE("invalid arg!\n");
        return static_cast<size_t>(-1);
    }
    size_t chunk = 0;
    return append_bounded(buf->data, &buf->used, KX_SDK_DATA_BUF_SIZE, ptr, size, nmemb, &chunk);
}

size_t WRITE_LARGEDATA(char *ptr, size_t size, size_t nmemb, void *record)
{
    KX_SDK_LARGEDATA_S *buf = static_cast<KX_SDK_LARGEDATA_S *>(record);
    if (buf == nullptr || buf->buffer == nullptr) {
        KX_LOGE("invalid arg!\n");
        return static_cast<size_t>(-1);
    }
    size_t chunk = 0;
    size_t taken = append_bounded(buf->buffer, &buf->used, KX_SDK_LARGEDATA_SIZE, ptr, size, nmemb, &chunk);
    if (taken == 0 && chunk != 0)
        KX_LOGE("OOM: size=[%d] totalsize=[%d] offset=[%d]\n", static_cast<int>(size), static_cast<int>(chunk),
                static_cast<int>(buf->used));
    return taken;
}

int sockopt_callback(void *clientp, curl_socket_t curlfd, curlsocktype purpose)
{
    (void)purpose;
    int mark = *static_cast<int *>(clientp);
    KX_LOGI("Mark: %d\n", mark);
    if (setsockopt(curlfd, SOL_SOCKET, SO_MARK, &mark, 4) != 0) {
        int err = errno;
        KX_LOGE("Error: %d, strerror: %s\n", err, strerror(err));
        return CURL_SOCKOPT_ERROR;
    }
    return CURL_SOCKOPT_OK;
}

int32_t KX_SDK_JUDGE_XML_FORM(const char *text)
{
    if (text == nullptr)
        return 0;
    /* Only these three spellings of the declaration count, anywhere in the text. */
    if (strstr(text, "<?xml") != nullptr || strstr(text, "<?XML") != nullptr || strstr(text, "<?Xml") != nullptr) {
        KX_LOGI("the response is xml format!");
        return 1;
    }
    return 0;
}

int32_t KX_SDK_CURL_SLIST_FREE(struct curl_slist *list)
{
    if (list == nullptr) {
        KX_LOGE("the pointer is null already!\n");
        return -1;
    }
    curl_slist_free_all(list);
    return 0;
}

int32_t KX_SDK_CURL_EASY_CLEANUP(CURL *curl)
{
    if (curl == nullptr) {
        KX_LOGE("the pointer is null already!\n");
        return -1;
    }
    curl_easy_cleanup(curl);
    return 0;
}

/* ---- The request members' shared transfer --------------------------------- */

namespace {

/* One option step of a member's option list. */
enum class Opt : uint8_t {
    Url,
    UrlUncounted, /* URL whose setting result is not OR-ed in */
    Mark,         /* SOCKOPTFUNCTION + SOCKOPTDATA, only for a mark of 0 or more */
    Verbose,
    FailOnError,
    Post,
    PostFields,
    PostFieldSize,
    HttpGet,
    ConnectTimeout,
    Timeout,
    WriteFunction,
    WriteData,
    HttpHeader, /* the member's list, set only when it holds a line */
    NoSignal,
    VerifyPeer,
    VerifyHost,
    CaInfo,
    AcceptEncoding,
};

enum class Sink : uint8_t { File, Data, Large };

/* Which request headers a member sends. A member with no list at all releases
 * its handle with curl_easy_cleanup directly and writes neither the perform
 * line nor the clean-up line; the others release list and handle through the
 * logged helpers, even a list that stayed empty. */
enum class Headers : uint8_t { NoList, FormLine, JsonLine, Caller };

enum class RetCode : uint8_t { NotLogged, Logged, LoggedWithLineEnd };

struct Order {
    const Opt *steps;
    size_t count;
};

template <size_t N>
constexpr Order order(const Opt (&steps)[N])
{
    return Order{steps, N};
}

struct Member {
    const char *name;
    bool post;
    Sink sink;
    Headers headers;
    long connect_timeout;
    bool logs_body;
    RetCode ret_code;
    Order options;
};

/* What one call hands to the transfer. */
struct Transfer {
    const char *url;
    const char *body;
    int32_t body_len;
    void *sink;
    const KX_SDK_HTTP_HEADER_S *headers;
    int32_t header_count;
    int mark;
    long total_timeout;
};

using O = Opt;

/* Option orders, as each member sets them. */
constexpr Opt kPlainPost[] = {O::Url,           O::Mark,      O::Verbose,       O::FailOnError, O::ConnectTimeout,
                              O::Timeout,       O::Post,      O::PostFields,    O::PostFieldSize,
                              O::WriteFunction, O::WriteData, O::HttpHeader,    O::NoSignal};
constexpr Opt kSecurePost[] = {O::Url,         O::Mark,          O::Verbose,        O::FailOnError, O::Post,
                               O::PostFields,  O::PostFieldSize, O::ConnectTimeout, O::Timeout,
                               O::WriteFunction, O::WriteData,   O::VerifyPeer,     O::VerifyHost,  O::CaInfo,
                               O::NoSignal};
constexpr Opt kSecurePostTlsLast[] = {O::Url,           O::Mark,      O::Verbose,       O::FailOnError,
                                      O::ConnectTimeout, O::Timeout,  O::Post,          O::PostFields,
                                      O::PostFieldSize, O::WriteFunction, O::WriteData, O::HttpHeader,
                                      O::NoSignal,      O::VerifyPeer, O::VerifyHost,   O::CaInfo};
constexpr Opt kPlainGet[] = {O::Url,     O::Mark,          O::Verbose,   O::FailOnError, O::HttpGet, O::ConnectTimeout,
                             O::Timeout, O::WriteFunction, O::WriteData, O::NoSignal,    O::HttpHeader};
constexpr Opt kSecureGetWithTimeout[] = {O::Url,          O::Verbose,       O::FailOnError, O::HttpGet,
                                         O::ConnectTimeout, O::WriteFunction, O::WriteData, O::VerifyPeer,
                                         O::AcceptEncoding, O::VerifyHost,  O::CaInfo,      O::Timeout,
                                         O::NoSignal};
/* No total time-out, no NOSIGNAL, and the URL's result is not counted. */
constexpr Opt kSecureGetBack[] = {O::UrlUncounted, O::Verbose,    O::FailOnError,    O::HttpGet,
                                  O::ConnectTimeout, O::WriteFunction, O::WriteData, O::VerifyPeer,
                                  O::AcceptEncoding, O::VerifyHost, O::CaInfo};
/* The mark follows VERBOSE here. */
constexpr Opt kSecureGetExternal[] = {O::Url,           O::Verbose,   O::Mark,       O::FailOnError,
                                      O::HttpGet,       O::ConnectTimeout, O::Timeout, O::WriteFunction,
                                      O::WriteData,     O::VerifyPeer, O::VerifyHost, O::CaInfo,
                                      O::AcceptEncoding, O::NoSignal, O::HttpHeader};

// clang-format off
constexpr Member kHttpPostMark          {"KX_SDK_HTTP_POST_MARK",           true,  Sink::File,  Headers::FormLine, 10, true,  RetCode::NotLogged, order(kPlainPost)};
constexpr Member kHttpsPostMark         {"KX_SDK_HTTPS_POST_MARK",          true,  Sink::File,  Headers::NoList,   30, false, RetCode::NotLogged, order(kSecurePost)};
constexpr Member kHttpPostEx            {"KX_SDK_HTTP_POST_EX",             true,  Sink::File,  Headers::JsonLine, 30, true,  RetCode::NotLogged, order(kPlainPost)};
constexpr Member kHttpPostBinary        {"KX_SDK_HTTP_POST_BINARY",         true,  Sink::File,  Headers::JsonLine, 30, true,  RetCode::NotLogged, order(kPlainPost)};
constexpr Member kHttpsPostEx           {"KX_SDK_HTTPS_POST_EX",            true,  Sink::File,  Headers::JsonLine, 30, true,  RetCode::NotLogged, order(kSecurePostTlsLast)};
constexpr Member kHttpsPostBinary       {"KX_SDK_HTTPS_POST_BINARY",        true,  Sink::File,  Headers::JsonLine, 30, true,  RetCode::NotLogged, order(kSecurePostTlsLast)};
constexpr Member kHttpPostExternalMark  {"KX_SDK_HTTP_POST_EXTERNAL_MARK",  true,  Sink::Data,  Headers::Caller,   10, false, RetCode::Logged,    order(kPlainPost)};
constexpr Member kHttpsPostExternalMark {"KX_SDK_HTTPS_POST_EXTERNAL_MARK", true,  Sink::Data,  Headers::Caller,   30, true,  RetCode::Logged,    order(kSecurePostTlsLast)};
constexpr Member kHttpGet               {"KX_SDK_HTTP_GET",                 false, Sink::File,  Headers::NoList,   30, false, RetCode::NotLogged, order(kPlainGet)};
constexpr Member kHttpsGetWithTimeout   {"KX_SDK_HTTPS_GET_WITH_TIMEOUT",   false, Sink::File,  Headers::NoList,   30, false, RetCode::NotLogged, order(kSecureGetWithTimeout)};
constexpr Member kHttpGetBack           {"KX_SDK_HTTP_GET_BACK",            false, Sink::File,  Headers::NoList,   30, false, RetCode::NotLogged, order(kSecureGetBack)};
constexpr Member kHttpGetExternalMark   {"KX_SDK_HTTP_GET_EXTERNAL_MARK",   false, Sink::Data,  Headers::Caller,   30, false, RetCode::Logged,    order(kPlainGet)};
constexpr Member kHttpsGetExternalMark  {"KX_SDK_HTTPS_GET_EXTERNAL_MARK",  false, Sink::Data,  Headers::Caller,   30, false, RetCode::Logged,    order(kSecureGetExternal)};
constexpr Member kHttpsGetExternalMark1 {"KX_SDK_HTTPS_GET_EXTERNAL_MARK1", false, Sink::Large, Headers::Caller,   30, false, RetCode::LoggedWithLineEnd, order(kSecureGetExternal)};
// clang-format on

/* Owners of the handle and the list for the length of one call. Members with
 * a list release both through the logged helpers, list first. */
class HandleOwner {
public:
    HandleOwner(CURL *curl, bool via_helper) : curl_(curl), via_helper_(via_helper) {}
    ~HandleOwner()
    {
        if (via_helper_)
            KX_SDK_CURL_EASY_CLEANUP(curl_);
        else
            curl_easy_cleanup(curl_);
    }
    HandleOwner(const HandleOwner &) = delete;
    HandleOwner &operator=(const HandleOwner &) = delete;
    CURL *get() const { return curl_; }

private:
    CURL *curl_;
    bool via_helper_;
};

class ListOwner {
public:
    explicit ListOwner(bool via_helper) : via_helper_(via_helper) {}
    /* A member without a list never appends to it. */
    ~ListOwner()
    {
        if (via_helper_)
            KX_SDK_CURL_SLIST_FREE(list_);
    }
    ListOwner(const ListOwner &) = delete;
    ListOwner &operator=(const ListOwner &) = delete;
    void append(const char *line)
    {
        /* curl_slist_append returns null and leaves the list intact when it
         * runs out of memory: keep the list, lose the line. */
        struct curl_slist *grown = curl_slist_append(list_, line);
        if (grown != nullptr)
            list_ = grown;
    }
    struct curl_slist *get() const { return list_; }

private:
    struct curl_slist *list_ = nullptr;
    bool via_helper_;
};

void build_headers(const Member &m, const Transfer &t, ListOwner &list)
{
    switch (m.headers) {
    case Headers::NoList:
        break;
    case Headers::FormLine:
        list.append("Content-Type: application/x-www-form-urlencoded;charset=iso-8859-1");
        break;
    case Headers::JsonLine:
        list.append("Content-Type: application/json");
        break;
    case Headers::Caller:
        for (int32_t i = 0; i < t.header_count; ++i) {
            /* A fresh, cleared 128-byte line per record: a longer line is cut.
             * The precisions keep the reads inside the record's two fields
             * even when the caller did not terminate them. */
            kx::FixedText<128> line;
            /* libcurl drops a line with nothing after its colon; a record
             * with an empty value goes to it as "name;", which it sends as
             * "name:" with the empty value. */
            if (t.headers[i].value[0] == '\0')
                line.format("%.*s;", static_cast<int>(sizeof t.headers[i].name), t.headers[i].name);
            else
                line.format("%.*s:%.*s", static_cast<int>(sizeof t.headers[i].name), t.headers[i].name,
                            static_cast<int>(sizeof t.headers[i].value), t.headers[i].value);
            list.append(line.c_str());
        }
        break;
    }
}

curl_write_callback sink_function(Sink sink)
{
    switch (sink) {
    case Sink::File:
        return WRITE_DATA;
    case Sink::Data:
        return WRITE_DATA1;
    case Sink::Large:
        return WRITE_LARGEDATA;
    }
    return WRITE_DATA;
}

/* Sets one option step; returns its libcurl result (0 for a step that sets
 * nothing in this call). */
int set_option(Opt step, CURL *curl, const Member &m, Transfer &t, struct curl_slist *list, kx::CurlShareUse &share)
{
    switch (step) {
    case Opt::Url:
    case Opt::UrlUncounted:
        return curl_easy_setopt(curl, CURLOPT_URL, t.url);
    case Opt::Mark:
        if (t.mark < 0)
            return CURLE_OK;
        return curl_easy_setopt(curl, CURLOPT_SOCKOPTFUNCTION, sockopt_callback) |
               curl_easy_setopt(curl, CURLOPT_SOCKOPTDATA, &t.mark);
    case Opt::Verbose:
        return curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
    case Opt::FailOnError:
        return curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
    case Opt::Post:
        return curl_easy_setopt(curl, CURLOPT_POST, 1L);
    case Opt::PostFields:
        return curl_easy_setopt(curl, CURLOPT_POSTFIELDS, t.body);
    case Opt::PostFieldSize:
        return curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(t.body_len));
    case Opt::HttpGet:
        return curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    case Opt::ConnectTimeout:
        return curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, m.connect_timeout);
    case Opt::Timeout:
        return curl_easy_setopt(curl, CURLOPT_TIMEOUT, t.total_timeout);
    case Opt::WriteFunction:
        return curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, sink_function(m.sink));
    case Opt::WriteData:
        return curl_easy_setopt(curl, CURLOPT_WRITEDATA, t.sink);
    case Opt::HttpHeader:
        if (list == nullptr)
            return CURLE_OK;
        return curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
    case Opt::NoSignal:
        return curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    case Opt::VerifyPeer:
        return curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    case Opt::VerifyHost:
        return curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    case Opt::CaInfo:
        return share.trust(curl, kx::ca_bundle_path());
    case Opt::AcceptEncoding:
        return curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "gzip");
    }
    return CURLE_OK;
}

bool arguments_valid(const Member &m, const Transfer &t)
{
    if (t.url == nullptr || t.sink == nullptr)
        return false;
    if (m.post && t.body == nullptr)
        return false;
    if (m.sink == Sink::File && *static_cast<FILE **>(t.sink) == nullptr)
        return false;
    /* Guard: records announced by the count must exist. */
    if (m.headers == Headers::Caller && t.header_count > 0 && t.headers == nullptr)
        return false;
    return true;
}

int32_t perform(const Member &m, Transfer t)
{
    if (!arguments_valid(m, t)) {
        KX_LOGE_AS(m.name, "invalid arg!\n");
        return -1;
    }
    /* Declared before the handle: the handle is released first. */
    kx::CurlShareUse share;
    CURL *curl = curl_easy_init();
    if (curl == nullptr) {
        KX_LOGE_AS(m.name, "Failed to call curl_easy_init.");
        return -1;
    }
    const bool with_list = m.headers != Headers::NoList;
    HandleOwner handle(curl, with_list);
    ListOwner list(with_list);
    share.attach(curl);

    if (m.post && m.logs_body) {
        /* The body need not be NUL-terminated: print at most its length. */
        int shown = t.body_len >= 0 ? static_cast<int>(t.body_len) : INT32_MAX;
        KX_LOGI_AS(m.name, "postbody is %.*s.\n", shown, t.body);
    }

    build_headers(m, t, list);
    int result = CURLE_OK;
    for (size_t i = 0; i < m.options.count; ++i) {
        Opt step = m.options.steps[i];
        int set = set_option(step, curl, m, t, list.get(), share);
        if (step != Opt::UrlUncounted)
            result |= set;
    }
    if (result != CURLE_OK) {
        KX_LOGE_AS(m.name, "Failed to call curl_easy_setopt, error code is %d.\n", result);
        return -1;
    }

    /* The handle is printed as a pointer: it is not text. */
    if (with_list)
        KX_LOGI_AS(m.name, "KxSDK2.0 curl easy perform pCurl: %p\n", curl);
    CURLcode code = curl_easy_perform(curl);
    if (code != CURLE_OK) {
        KX_LOGE_AS(m.name, "Failed to call curl_easy_perform, error code is %d.\n", static_cast<int>(code));
        return -1;
    }

    if (m.ret_code != RetCode::NotLogged) {
        long status = 0;
        if (curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status != 0) {
            if (m.ret_code == RetCode::LoggedWithLineEnd)
                KX_LOGI_AS(m.name, "curl retCode: %ld\n", status);
            else
                KX_LOGI_AS(m.name, "curl retCode: %ld", status);
        }
    }
    if (with_list)
        KX_LOGI_AS(m.name, "KxSDK2.0 curl easy clean up\n");
    return 0;
}

Transfer stream_post(const char *url, const char *body, int32_t len, FILE **stream, int32_t mark)
{
    return Transfer{url, body, len, stream, nullptr, 0, mark, 20};
}

Transfer stream_get(const char *url, FILE **stream, long total_timeout)
{
    return Transfer{url, nullptr, 0, stream, nullptr, 0, -1, total_timeout};
}

}  // namespace

/* ---- The members ---------------------------------------------------------- */

int32_t KX_SDK_HTTP_POST_MARK(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream,
                              int32_t s32Mark)
{
    return perform(kHttpPostMark, stream_post(ps8Url, ps8PostBody, s32BodyLen, ppStream, s32Mark));
}

int32_t KX_SDK_HTTP_POST(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream)
{
    return KX_SDK_HTTP_POST_MARK(ps8Url, ps8PostBody, s32BodyLen, ppStream, -1);
}

int32_t KX_SDK_HTTPS_POST_MARK(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream,
                               int32_t s32Mark)
{
    return perform(kHttpsPostMark, stream_post(ps8Url, ps8PostBody, s32BodyLen, ppStream, s32Mark));
}

int32_t KX_SDK_HTTPS_POST(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream)
{
    return KX_SDK_HTTPS_POST_MARK(ps8Url, ps8PostBody, s32BodyLen, ppStream, -1);
}

int32_t KX_SDK_HTTP_POST_EX(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream)
{
    return perform(kHttpPostEx, stream_post(ps8Url, ps8PostBody, s32BodyLen, ppStream, -1));
}

int32_t KX_SDK_HTTP_POST_BINARY(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream)
{
    return perform(kHttpPostBinary, stream_post(ps8Url, ps8PostBody, s32BodyLen, ppStream, -1));
}

int32_t KX_SDK_HTTPS_POST_EX(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream)
{
    return perform(kHttpsPostEx, stream_post(ps8Url, ps8PostBody, s32BodyLen, ppStream, -1));
}

int32_t KX_SDK_HTTPS_POST_BINARY(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen, FILE **ppStream)
{
    return perform(kHttpsPostBinary, stream_post(ps8Url, ps8PostBody, s32BodyLen, ppStream, -1));
}

int32_t KX_SDK_HTTP_POST_EXTERNAL_MARK(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                       KX_SDK_DATA_BUF_S *pstBuf, const KX_SDK_HTTP_HEADER_S *pstHeaders,
                                       int32_t s32HeaderCount, int32_t s32Mark)
{
    return perform(kHttpPostExternalMark,
                   Transfer{ps8Url, ps8PostBody, s32BodyLen, pstBuf, pstHeaders, s32HeaderCount, s32Mark, 20});
}

int32_t KX_SDK_HTTP_POST_EXTERNAL(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                  KX_SDK_DATA_BUF_S *pstBuf, const KX_SDK_HTTP_HEADER_S *pstHeaders,
                                  int32_t s32HeaderCount)
{
    return KX_SDK_HTTP_POST_EXTERNAL_MARK(ps8Url, ps8PostBody, s32BodyLen, pstBuf, pstHeaders, s32HeaderCount, -1);
}

int32_t KX_SDK_HTTPS_POST_EXTERNAL_MARK(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                        KX_SDK_DATA_BUF_S *pstBuf, const KX_SDK_HTTP_HEADER_S *pstHeaders,
                                        int32_t s32HeaderCount, int32_t s32Mark)
{
    return perform(kHttpsPostExternalMark,
                   Transfer{ps8Url, ps8PostBody, s32BodyLen, pstBuf, pstHeaders, s32HeaderCount, s32Mark, 20});
}

int32_t KX_SDK_HTTPS_POST_EXTERNAL(const char *ps8Url, const char *ps8PostBody, int32_t s32BodyLen,
                                   KX_SDK_DATA_BUF_S *pstBuf, const KX_SDK_HTTP_HEADER_S *pstHeaders,
                                   int32_t s32HeaderCount)
{
    return KX_SDK_HTTPS_POST_EXTERNAL_MARK(ps8Url, ps8PostBody, s32BodyLen, pstBuf, pstHeaders, s32HeaderCount, -1);
}

int32_t KX_SDK_HTTP_GET(const char *ps8Url, FILE **ppStream)
{
    return perform(kHttpGet, stream_get(ps8Url, ppStream, 20));
}

int32_t KX_SDK_HTTPS_GET_WITH_TIMEOUT(const char *ps8Url, FILE **ppStream, int32_t s32Timeout)
{
    return perform(kHttpsGetWithTimeout, stream_get(ps8Url, ppStream, s32Timeout));
}

int32_t KX_SDK_HTTPS_GET(const char *ps8Url, FILE **ppStream)
{
    return KX_SDK_HTTPS_GET_WITH_TIMEOUT(ps8Url, ppStream, 20);
}

int32_t KX_SDK_HTTP_GET_BACK(const char *ps8Url, FILE **ppStream)
{
    return perform(kHttpGetBack, stream_get(ps8Url, ppStream, 0));
}

int32_t KX_SDK_HTTP_GET_EXTERNAL_MARK(const char *ps8Url, KX_SDK_DATA_BUF_S *pstBuf,
                                      const KX_SDK_HTTP_HEADER_S *pstHeaders, int32_t s32HeaderCount, int32_t s32Mark)
{
    return perform(kHttpGetExternalMark,
                   Transfer{ps8Url, nullptr, 0, pstBuf, pstHeaders, s32HeaderCount, s32Mark, 20});
}

int32_t KX_SDK_HTTP_GET_EXTERNAL(const char *ps8Url, KX_SDK_DATA_BUF_S *pstBuf, const KX_SDK_HTTP_HEADER_S *pstHeaders,
                                 int32_t s32HeaderCount)
{
    return KX_SDK_HTTP_GET_EXTERNAL_MARK(ps8Url, pstBuf, pstHeaders, s32HeaderCount, -1);
}

int32_t KX_SDK_HTTPS_GET_EXTERNAL_MARK(const char *ps8Url, KX_SDK_DATA_BUF_S *pstBuf,
                                       const KX_SDK_HTTP_HEADER_S *pstHeaders, int32_t s32HeaderCount,
                                       int32_t s32Mark)
{
    return perform(kHttpsGetExternalMark,
                   Transfer{ps8Url, nullptr, 0, pstBuf, pstHeaders, s32HeaderCount, s32Mark, 20});
}

int32_t KX_SDK_HTTPS_GET_EXTERNAL(const char *ps8Url, KX_SDK_DATA_BUF_S *pstBuf,
                                  const KX_SDK_HTTP_HEADER_S *pstHeaders, int32_t s32HeaderCount)
{
    return KX_SDK_HTTPS_GET_EXTERNAL_MARK(ps8Url, pstBuf, pstHeaders, s32HeaderCount, -1);
}

int32_t KX_SDK_HTTPS_GET_EXTERNAL_MARK1(const char *ps8Url, KX_SDK_LARGEDATA_S *pstBuf,
                                        const KX_SDK_HTTP_HEADER_S *pstHeaders, int32_t s32HeaderCount,
                                        int32_t s32Mark)
{
    return perform(kHttpsGetExternalMark1,
                   Transfer{ps8Url, nullptr, 0, pstBuf, pstHeaders, s32HeaderCount, s32Mark, 20});
}
