/*
 * The request frame (see kx_request.h). Every line logged here speaks for the
 * exported call whose description the frame carries.
 */
#include "internal/kx_request.h"

#include <cstdarg>
#include <cstring>
#include <ctime>

#include "internal/kx_init_check.h"
#include "internal/kx_log.h"
#include "kx_cloud_openapi.h"

namespace kx {

namespace {

/* Formats into a zeroed buffer of `allocation` bytes. A documented allocation
 * that is too small for the text would be overrun by the documented algorithm;
 * the buffer then grows to the text's size instead (the documented figure is
 * still what the call reports). */
bool print_into(Buffer &out, std::size_t allocation, const char *fmt, std::va_list ap)
{
    std::va_list measure;
    va_copy(measure, ap);
    const int needed = std::vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);
    if (needed < 0)
        return false;
    const std::size_t size = allocation > static_cast<std::size_t>(needed) ? allocation : static_cast<std::size_t>(needed) + 1;
    Buffer text(size);
    if (!text.ok())
        return false;
    std::vsnprintf(text.get(), size, fmt, ap);
    out = std::move(text);
    return true;
}

bool key_is(const char *key, std::size_t length, const char *name)
{
    return std::strncmp(key, name, length) == 0 && name[length] == '\0';
}

/* What a keyed template's key stands for: a field (its raw or its sent value)
 * or one of the frame's own values. */
struct KeyedSource {
    const Fields &fields;
    bool sent;
    const char *random; /* null before stamp() */
    const char *time;
    const char *sign;   /* null while printing the signed text */

    const char *value(const char *key, std::size_t length) const
    {
        if (const Field *field = fields.keyed(key, length))
            return sent ? field->wire() : field->raw();
        if (key_is(key, length, "randStr"))
            return random;
        if (key_is(key, length, "timeStamp"))
            return time;
        if (key_is(key, length, "sign"))
            return sign;
        return nullptr;
    }
};

bool is_conversion(const char *p) { return p[0] == '%' && (p[1] == 's' || p[1] == 'd'); }

/* Every value of the bracketed piece [begin, end) is present. The key of a
 * conversion is the text between the last "&" (or the piece's start) and the
 * "=" in front of it. */
bool piece_present(const char *begin, const char *end, const KeyedSource &source)
{
    const char *key = begin;
    for (const char *p = begin; p < end; ++p) {
        if (*p == '&')
            key = p + 1;
        else if (is_conversion(p) && p > key && source.value(key, static_cast<std::size_t>(p - 1 - key)) == nullptr)
            return false;
    }
    return true;
}

/* Fills a keyed template (see kx_request.h). Returns the text's length and
 * writes it, with its NUL, into `out` when `out` is given. */
std::size_t fill_keyed(const char *tmpl, const KeyedSource &source, char *out)
{
    std::size_t n = 0;
    auto put = [&](const char *text, std::size_t length) {
        if (out != nullptr)
            std::memcpy(out + n, text, length);
        n += length;
    };
    const char *key = tmpl;
    for (const char *p = tmpl; *p != '\0';) {
        if (*p == '[') {
            const char *end = std::strchr(p, ']');
            if (end == nullptr)
                end = p + std::strlen(p);
            if (!piece_present(p + 1, end, source)) {
                p = *end == ']' ? end + 1 : end;
                continue;
            }
            key = ++p;
        } else if (*p == ']') {
            key = ++p;
        } else if (is_conversion(p) && p > key) {
            const char *value = null_text(source.value(key, static_cast<std::size_t>(p - 1 - key)));
            put(value, std::strlen(value));
            p += 2;
        } else {
            if (*p == '&')
                key = p + 1;
            put(p++, 1);
        }
    }
    if (out != nullptr)
        out[n] = '\0';
    return n;
}

}  // namespace

Field Field::of_text(const char *name, const char *key, const char *text)
{
    Field field;
    field.name = name;
    field.key = key;
    field.text = text;
    field.sent = text;
    return field;
}

Field Field::of_unsigned(const char *name, const char *key, uint32_t value)
{
    Field field;
    field.name = name;
    field.key = key;
    field.kind = Kind::Number;
    field.logged = static_cast<int32_t>(value);
    std::snprintf(field.digits, sizeof field.digits, "%u", value);
    return field;
}

Field Field::of_signed(const char *name, const char *key, uint32_t value)
{
    Field field = of_unsigned(name, key, value);
    std::snprintf(field.digits, sizeof field.digits, "%d", field.logged);
    return field;
}

Fields::Fields(std::initializer_list<Field> fields)
{
    /* A record has fewer fields than the capacity; more would be a mistake in
     * the library itself, and are dropped rather than written past the array. */
    for (const Field &field : fields) {
        if (count_ < kCapacity)
            items_[count_++] = field;
    }
}

Field *Fields::named(const char *name, std::size_t length)
{
    for (std::size_t i = 0; i < count_; ++i) {
        if (key_is(name, length, items_[i].name))
            return &items_[i];
    }
    return nullptr;
}

const Field *Fields::named(const char *name, std::size_t length) const
{
    return const_cast<Fields *>(this)->named(name, length);
}

const Field *Fields::keyed(const char *key, std::size_t length) const
{
    for (std::size_t i = 0; i < count_; ++i) {
        if (items_[i].key != nullptr && key_is(key, length, items_[i].key))
            return &items_[i];
    }
    return nullptr;
}

bool initialised_for(const char *name)
{
    if (library_inited())
        return true;
    KX_LOGE_AS(name, "please firstly to call KX_GLOBAL_INIT()!\n");
    return false;
}

int32_t invalid_arg(const char *name)
{
    KX_LOGE_AS(name, "invalid arg!\n");
    return -1;
}

FixedText<4> number_text(uint32_t value)
{
    FixedText<4> text;
    text.format("%u", value);
    return text;
}

bool Request::build_url(const char *domain)
{
    const char *scheme = call_.change_to_http == 1 ? "http://" : "https://";
    char *url = nullptr;
    /* KX_SDK_CREATE_URL reads the domain without testing it: a null domain is
     * refused here as a URL that cannot be built. */
    if (domain == nullptr || KX_SDK_CREATE_URL(scheme, domain, call_.path, &url) != 0) {
        KX_LOGE_AS(call_.name, "%s", call_.url_failure);
        return false;
    }
    url_.reset(url);
    return true;
}

bool Request::encrypt_secret(const char *secret)
{
    /* PKCS #7: 1 to 16 bytes of value (total - n), so 16 characters take 32. */
    const std::size_t n = std::strlen(secret);
    const std::size_t total = (n / 16 + 1) * 16;
    Buffer plaintext(total);
    Buffer cipher(total);
    Buffer text(2 * total + 1);
    if (!plaintext.ok() || !cipher.ok() || !text.ok()) {
        KX_LOGE_AS(call_.name, "out of memory!\n");
        return false;
    }
    std::memcpy(plaintext.get(), secret, n);
    std::memset(plaintext.get() + n, static_cast<int>(total - n), total - n);
    if (KX_SDK_AES_ENCRYPTION(plaintext.get(), cipher.bytes(), static_cast<uint32_t>(total)) != 0) {
        KX_LOGE_AS(call_.name, "Failed to call KX_SDK_AES_ENCRYPTION().\n");
        return false;
    }
    KX_SDK_ENCRYPT_TO_STRING(cipher.bytes(), static_cast<uint32_t>(total), text.get());
    secret_ = std::move(text);
    return true;
}

void Request::take_time()
{
    time_.format("%lld", static_cast<long long>(std::time(nullptr)));
}

void Request::stamp()
{
    take_time();
    KX_CREATE_RAND_STRING(reinterpret_cast<unsigned char *>(random_), 32);
}

bool Request::print_keyed(Buffer &out, const char *tmpl, const Fields &fields, bool body)
{
    const KeyedSource source{fields, body, random_[0] != '\0' ? random_ : nullptr,
                             time_.length() != 0 ? time_.c_str() : nullptr, body ? signature_ : nullptr};
    const std::size_t length = fill_keyed(tmpl, source, nullptr);
    Buffer text(length + 1);
    if (!text.ok()) {
        KX_LOGE_AS(call_.name, "out of memory.\n");
        return false;
    }
    fill_keyed(tmpl, source, text.get());
    out = std::move(text);
    return true;
}

bool Request::print_params_keyed(const char *tmpl, const Fields &fields)
{
    if (!print_keyed(params_, tmpl, fields, false))
        return false;
    params_length_ = std::strlen(params_.get());
    return true;
}

bool Request::print_body_keyed(const char *tmpl, const Fields &fields)
{
    if (!print_keyed(body_, tmpl, fields, true))
        return false;
    body_allocation_ = std::strlen(body_.get()) + 1;
    return true;
}

bool Request::print_params(std::size_t length, const char *fmt, ...)
{
    std::va_list ap;
    va_start(ap, fmt);
    const bool printed = print_into(params_, length == 0 ? 0 : length + 1, fmt, ap);
    va_end(ap);
    if (!printed) {
        KX_LOGE_AS(call_.name, "out of memory.\n");
        return false;
    }
    params_length_ = length == 0 ? std::strlen(params_.get()) : length;
    return true;
}

bool Request::sign()
{
    const int32_t result = static_cast<int32_t>(KX_SDK_SIGN_CREATE(params_.get(), signature_));
    if (result == -1) {
        KX_LOGE_AS(call_.name, "create signature failed.\n");
        return false;
    }
    return true;
}

bool Request::print_body(std::size_t allowance, const char *fmt, ...)
{
    body_allocation_ = params_length_ + std::strlen(signature_) + allowance;
    std::va_list ap;
    va_start(ap, fmt);
    const bool printed = print_into(body_, body_allocation_, fmt, ap);
    va_end(ap);
    if (!printed) {
        KX_LOGE_AS(call_.name, "out of memory.\n");
        return false;
    }
    return true;
}

int32_t Request::transfer(const char *target, std::FILE **stream)
{
    const bool plain = call_.change_to_http == 1;
    if (call_.method == Method::Get)
        return plain ? KX_SDK_HTTP_GET(target, stream) : KX_SDK_HTTPS_GET(target, stream);
    const int32_t length = static_cast<int32_t>(std::strlen(body_.get()));
    if (call_.mark != kNoMark) {
        return plain ? KX_SDK_HTTP_POST_MARK(target, body_.get(), length, stream, call_.mark)
                     : KX_SDK_HTTPS_POST_MARK(target, body_.get(), length, stream, call_.mark);
    }
    return plain ? KX_SDK_HTTP_POST(target, body_.get(), length, stream)
                 : KX_SDK_HTTPS_POST(target, body_.get(), length, stream);
}

bool Request::send()
{
    const char *target = url_.get();
    if (call_.method == Method::Get) {
        /* URL length + the query's allocation + 1, zeroed; the query is copied
         * whole even if it outgrew its documented allocation. */
        const std::size_t url_length = std::strlen(url_.get());
        const std::size_t query_length = std::strlen(body_.get());
        const std::size_t query_room = body_allocation_ > query_length ? body_allocation_ : query_length + 1;
        get_url_ = Buffer(url_length + query_room + 1);
        if (!get_url_.ok()) {
            KX_LOGE_AS(call_.name, "out of memory.\n");
            return false;
        }
        std::memcpy(get_url_.get(), url_.get(), url_length);
        std::memcpy(get_url_.get() + url_length, body_.get(), query_length);
        KX_LOGI_AS(call_.name, "ps8GetUrl: %s\n", get_url_.get());
        target = get_url_.get();
    }

    std::FILE **stream = call_.sink.stream;
    std::FILE *file = nullptr;
    const char *file_name = call_.sink.file_name;
    if (call_.sink.after_path) {
        FixedText<1024> path; /* a longer path is cut to 1023 characters */
        path.format("%s", call_.path);
        const char *slash = std::strrchr(path.c_str(), '/');
        file_name_.format("/tmp/%s.json", slash != nullptr ? slash + 1 : path.c_str());
        file_name = file_name_.c_str();
    }
    if (file_name != nullptr) {
        file_.reset(std::fopen(file_name, "w+"));
        if (!file_) {
            if (call_.sink.after_path)
                KX_LOGE_AS(call_.name, "failed to creat %s! \n", file_name);
            else
                KX_LOGE_AS(call_.name, "%s", call_.sink.creation_failure);
            return false;
        }
        file = file_.get();
        stream = &file;
    }
    transport_result_ = transfer(target, stream);
    return true;
}

int32_t Request::sign_send_verify(char *result)
{
    if (!sign())
        return -1;
    if (!print_body(7, "%s&sign=%s", params(), signature()))
        return -1;
    if (!send())
        return -1;
    return verify(result);
}

int32_t Request::verify(char *result)
{
    /* What the transfer needed is not needed for the verdict. */
    get_url_.reset();
    body_.reset();
    params_.reset();
    secret_.reset();
    url_.reset();

    std::FILE *stream = file_ ? file_.get() : *call_.sink.stream;
    switch (call_.verifier) {
    case Verifier::Xml:
        if (KX_SDK_XML_VERIFY(stream) == 0)
            return 0;
        KX_LOGE_AS(call_.name, "failed to verify xml data!\n");
        return -1;
    case Verifier::Json:
        if (KX_SDK_JSON_VERIFY(stream, result) == 0)
            return 0;
        break;
    case Verifier::Json1:
        if (KX_SDK_JSON_VERIFY1(stream, result) == 0)
            return 0;
        break;
    }
    KX_LOGE_AS(call_.name, "failed to verify json data!\n");
    return -1;
}

}  // namespace kx
