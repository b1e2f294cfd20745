/*
 * The request frame: the road every signed call of the account, messaging and
 * voice families takes from its caller's record to a verified answer.
 *
 *   initialisation check -> argument check -> URL -> input log -> secret
 *   -> time and nonce -> parameter text -> signature -> body -> sink
 *   -> transfer -> verification -> release
 *
 * A call is written as a short description plus its own lines:
 *
 *   if (!kx::initialised_for(__func__)) return -1;
 *   if (record == nullptr || ...) return kx::invalid_arg(__func__);
 *   kx::Request call({__func__, "/aaa/sign_out", record->u32ChangeToHttp, kx::Method::Post,
 *                     kx::kNoMark, kx::Sink::file("/tmp/signout.json",
 *                     "failed to creat !/tmp/signout.json \n"), kx::Verifier::Json,
 *                     "failed to call KX_SDK_CREATE_URL_NA().\n"});
 *   if (!call.build_url(domain)) return -1;
 *   KX_LOGI(...input lines...);
 *   call.stamp();
 *   if (!call.print_params(0, "accessToken=%s&...", ...)) return -1;
 *   if (!call.sign()) return -1;
 *   if (!call.print_body(7, "%s&sign=%s", call.params(), call.signature())) return -1;
 *   if (!call.send()) return -1;
 *   return call.verify(result);
 *
 * Each step logs its own failure under the exported call's name and reports it
 * as false; the call then returns -1 (which is also the signing routine's
 * failure result). Everything the frame holds (URL, secret text, parameter
 * text, body, GET URL, answer file) has one owner inside the Request and is
 * released on every path; a fixed answer file is closed and left on disk.
 * The caller's stream is never opened or closed here.
 *
 * What differs between calls stays in the call: the parameter text and the
 * body are the call's own formats (the body may differ from the signed text in
 * key order, empty keys, encoded values or a leading "?"), a call without a
 * time stamp simply does not call stamp(), an unsigned call does not call
 * sign(), and lines a call logs beside the frame's are the call's own.
 *
 * Keyed texts. Where a call's values are named by their keys (the voice
 * services), the parameter text and the body can be printed from keyed
 * templates instead of printf formats: the documented format itself, in
 * which every "key=%s" (or "key=%d") takes the value filed under that key,
 * so one set of Fields fills a signed text and a body that list the same keys
 * in different orders:
 *
 *   call.print_params_keyed("accessToken=%s&appkey=%s[&hsv=%s]&languageId=%s", fields);
 *   call.sign();
 *   call.print_body_keyed("accessToken=%s&languageId=%s&appkey=%s[&hsv=%s]&sign=%s", fields);
 *
 *  - The signed text takes each field's raw value, the body its sent value
 *    (the URL-encoded copy where the call encoded one): the server checks the
 *    signature over the raw text.
 *  - A piece in brackets is written only when every value in it is present
 *    (an optional fragment); the brackets themselves are never written.
 *  - An absent value outside brackets is written as the six characters
 *    "(null)", which is what the device's C library prints for a null string
 *    and what the server has always received; the frame writes that text
 *    itself and never hands a null pointer to a formatter.
 *  - randStr and timeStamp name the frame's nonce and time (after stamp()),
 *    sign the signature; every other key names a field.
 *  - The texts are allocated at their own length: they never outgrow their
 *    buffer.
 */
#ifndef KX_INTERNAL_REQUEST_H
#define KX_INTERNAL_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <initializer_list>

#include "internal/kx_buffer.h"
#include "internal/kx_format.h"
#include "internal/kx_owned.h"

namespace kx {

enum class Method {
    Post, /* the body is posted to the URL */
    Get,  /* the body (a query beginning with "?") is appended to the URL */
};

/* Who judges the answer (and where the verified text lands). */
enum class Verifier {
    Xml,   /* KX_SDK_XML_VERIFY on the stream: rewritten without its signature */
    Json,  /* KX_SDK_JSON_VERIFY: the signed text copied into the caller's buffer */
    Json1, /* KX_SDK_JSON_VERIFY1: parsed and re-printed into the buffer, no signature check */
};

/* Socket mark of a call that sets none. */
constexpr int32_t kNoMark = -1;

/* Where the transport writes the answer: the caller's open stream, or a fixed
 * file that the frame opens "w+" before the transfer, closes on every path and
 * leaves on disk. The file may also be named after the service path:
 * "/tmp/" + the path's last component + ".json" (the path is first copied into
 * a 1024-byte buffer, so a path longer than 1023 characters would be cut
 * there), and a file of that kind that cannot be opened is reported as
 * "failed to creat %s! " with its name. */
struct Sink {
    std::FILE **stream;           /* caller's stream (caller kind), else null */
    const char *file_name;        /* fixed answer file (file kind), else null */
    const char *creation_failure; /* the call's whole message when the file cannot be opened */
    bool after_path = false;      /* the file is named after the service path */

    static constexpr Sink caller(std::FILE **stream) { return Sink{stream, nullptr, nullptr}; }
    static constexpr Sink file(const char *path, const char *failure) { return Sink{nullptr, path, failure}; }
    static constexpr Sink named_after_path() { return Sink{nullptr, nullptr, nullptr, true}; }
};

/* The text a null value is sent and logged as: "(null)", written by the
 * library itself rather than left to a formatter. */
inline const char *null_text(const char *text) { return text != nullptr ? text : "(null)"; }

/* One value of a keyed text: a field of the caller's record, named as the log
 * names it, filed under the key it travels under. Numbers carry their wire
 * text ("%u", or "%d" where the service wants it) and are logged with "%d". */
struct Field {
    enum class Kind : uint8_t { Text, Number };

    const char *name = nullptr; /* "ps8AppIndex" */
    const char *key = nullptr;  /* "appkey" */
    const char *text = nullptr; /* texts: the caller's text, null when absent */
    const char *sent = nullptr; /* texts: what the body carries (the text, or its encoded copy) */
    Kind kind = Kind::Text;
    int32_t logged = 0;         /* numbers: the value as "%d" logs it */
    char digits[12] = {};       /* numbers: the wire text */

    static Field of_text(const char *name, const char *key, const char *text);
    static Field of_unsigned(const char *name, const char *key, uint32_t value); /* "%u" */
    static Field of_signed(const char *name, const char *key, uint32_t value);   /* "%d" */

    bool present() const { return raw() != nullptr; }
    const char *raw() const { return kind == Kind::Text ? text : digits; }
    const char *wire() const { return kind == Kind::Text ? sent : digits; }
};

/* The fields of one record, in a fixed-size array (no allocation). */
class Fields {
public:
    static constexpr std::size_t kCapacity = 24;

    Fields(std::initializer_list<Field> fields);

    /* By the record's name ("ps8AppIndex"), or null. */
    Field *named(const char *name, std::size_t length);
    const Field *named(const char *name, std::size_t length) const;
    /* By wire key ("appkey"), or null. */
    const Field *keyed(const char *key, std::size_t length) const;

private:
    Field items_[kCapacity];
    std::size_t count_ = 0;
};

/* The description of one call. */
struct Call {
    const char *name;        /* the exported call: every frame line is logged under it */
    const char *path;        /* service path, "/aaa/sign_in" */
    uint32_t change_to_http; /* the record's first field: 1 = "http://" and the plain member */
    Method method;
    int32_t mark;            /* socket mark, or kNoMark */
    Sink sink;
    Verifier verifier;
    const char *url_failure; /* whole message when the URL cannot be built */
};

/* Initialisation check of a request call: logs "please firstly to call
 * KX_GLOBAL_INIT()!" under `name` and returns false while the library is not
 * initialised. */
bool initialised_for(const char *name);

/* Logs "invalid arg!" under `name` and returns -1. */
int32_t invalid_arg(const char *name);

/* The decimal text of a 32-bit number in the 4-byte buffer the wire protocol
 * gives it ("%u"): values of 1000 and more are cut to their first three
 * digits, deliberately. */
FixedText<4> number_text(uint32_t value);

class Request {
public:
    explicit Request(const Call &call) : call_(call) {}
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    /* KX_SDK_CREATE_URL with "http://" when change_to_http is 1, else "https://".
     * Failure logs the call's URL-failure message. */
    bool build_url(const char *domain);

    /* Pads the secret with PKCS #7 to the next multiple of 16 (1 to 16 bytes),
     * encrypts it with KX_SDK_AES_ENCRYPTION and keeps its hexadecimal text
     * (secret()). Failures: "out of memory!" or "Failed to call
     * KX_SDK_AES_ENCRYPTION().". */
    bool encrypt_secret(const char *secret);

    /* time() as "%lld" (time_text()) and 32 digits of KX_CREATE_RAND_STRING
     * (random_text()). */
    void stamp();
    /* The time alone, for calls that send no nonce (and so do not reseed the
     * process's rand()). */
    void take_time();

    /* Prints the parameter text. `length` is the call's documented length
     * (the lengths of the values plus the format's allowance), 0 when the call
     * documents none (the text's own length is then taken). The buffer holds
     * length + 1 zeroed bytes or, should the documented figure be too small for
     * the text, as many as the text needs. Failure: "out of memory.". */
    __attribute__((format(printf, 3, 4))) bool print_params(std::size_t length, const char *fmt, ...);

    /* The parameter text from a keyed template and the fields' raw values.
     * Failure: "out of memory.". */
    bool print_params_keyed(const char *tmpl, const Fields &fields);

    /* KX_SDK_SIGN_CREATE over the parameter text into the 512-byte signature
     * text. Only the result -1 is a failure: "create signature failed.". */
    bool sign();

    /* Prints the body (or the GET query) into a zeroed buffer of the documented
     * allocation: the parameter text's length + the signature's length +
     * `allowance` (grown if the text needs more). Failure: "out of memory.". */
    __attribute__((format(printf, 3, 4))) bool print_body(std::size_t allowance, const char *fmt, ...);

    /* The body from a keyed template and the fields' sent values (sign = the
     * signature). Failure: "out of memory.". */
    bool print_body_keyed(const char *tmpl, const Fields &fields);

    /* GET calls: the URL and the query joined in a fresh zeroed buffer, logged
     * as "ps8GetUrl: %s". Then the answer file is opened (file kind; failure
     * logs the call's creation-failure message) and the body is POSTed, or the
     * GET URL fetched, with the member the scheme and the mark select. The
     * transport's result is kept (transport_result()) but decides nothing:
     * false only when the frame could not start the transfer. */
    bool send();

    /* Runs the call's verifier and returns its verdict: 0 verified, else -1
     * after "failed to verify xml data!" or "failed to verify json data!".
     * `result` is the caller's buffer (JSON verifiers; ignored for XML). */
    int32_t verify(char *result);

    /* The common ending of a signed call whose body is its parameter text:
     * sign(), print_body(7, "%s&sign=%s", params, signature), send(), verify().
     * Calls whose body differs from the signed text, or that log between these
     * steps, write the steps out themselves. */
    int32_t sign_send_verify(char *result);

    const char *url() const { return url_.get(); }
    const char *secret() const { return secret_.get(); }
    const char *time_text() const { return time_.c_str(); }
    const char *random_text() const { return random_; }
    const char *params() const { return params_.get(); }
    std::size_t params_length() const { return params_length_; }
    const char *signature() const { return signature_; }
    const char *body() const { return body_.get(); }
    std::size_t body_allocation() const { return body_allocation_; }
    int32_t transport_result() const { return transport_result_; }

private:
    int32_t transfer(const char *target, std::FILE **stream);
    bool print_keyed(Buffer &out, const char *tmpl, const Fields &fields, bool body);

    Call call_;
    HeapPtr<char> url_;
    Buffer secret_;
    FixedText<32> time_;
    char random_[33] = {};
    Buffer params_;
    std::size_t params_length_ = 0;
    char signature_[512] = {};
    Buffer body_;
    std::size_t body_allocation_ = 0;
    Buffer get_url_;
    FixedText<1040> file_name_; /* "/tmp/" + up to 1023 characters + ".json" */
    FilePtr file_;
    int32_t transport_result_ = -1;
};

}  // namespace kx

#endif
