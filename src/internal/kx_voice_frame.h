/*
 * The voice frame: the request frame as the voice services speak it. Every
 * voice call is one row of data (a VoiceCall) run by the same steps:
 *
 *   "start" line (traced calls) -> initialisation check -> record and result
 *   buffer -> required fields -> scheme line (traced calls) -> URL
 *   -> URL-encoded copies -> nonce (calls that send randStr) -> banner, one
 *   line per logged field, footer -> signed text (raw values, keys in byte
 *   order) -> signature -> app-list length line (where the row names one)
 *   -> body (sent values, the body's own key order, "&sign=" last) -> answer
 *   file "w+" -> POST -> KX_SDK_JSON_VERIFY into the caller's buffer
 *
 * A row holds what the services' documentation tells per call: the name it
 * logs under and the name its banner shows, the path, the answer file and the
 * message when that file cannot be created, the fields that must be present,
 * the fields it logs, which values it URL-encodes, and the signed text and the
 * body as keyed templates (see kx_request.h: the documented format itself,
 * optional pieces in brackets). A call that needs something between the steps
 * runs them itself: begin(), sign(), finish().
 *
 *   constexpr VoiceCall kGetDevInfo = {"KX_GET_VOICE_DEV_INFO", ...};
 *   return voice_call(kGetDevInfo, record, fields_of(*record), domain, result);
 *
 * Every line is logged under the row's name; every check fails with its
 * documented text and -1, and everything allocated is released on every path.
 */
#ifndef KX_INTERNAL_VOICE_FRAME_H
#define KX_INTERNAL_VOICE_FRAME_H

#include <cstddef>
#include <cstdint>

#include "internal/kx_buffer.h"
#include "internal/kx_request.h"

namespace kx {

/* A value sent URL-encoded: KX_SDK_URLEncode of the raw text into a zeroed
 * heap buffer of `capacity` bytes. The encoder is given capacity - 1 as its
 * output size, so its terminator always stays inside the buffer: what does
 * not fit is cut (at most capacity - 1 characters, and never half of a "%XX"). */
struct Encoding {
    const char *field;     /* the record's field name, null for none */
    std::size_t capacity;  /* 1024 for a device name, 5120 for a list */
    bool checked;          /* an encoder result of 0 fails the call:
                              "KX_SDK_URLEncode with something error." */
};

/* Extra steps of a row. */
enum VoiceSteps : unsigned {
    kPlain = 0,
    kTraced = 1u << 0, /* logs "start NAME", the scheme choice and the nonce */
    kNonce = 1u << 1,  /* sends randStr (and may send timeStamp) */
};

struct VoiceCall {
    const char *name;      /* every line is logged under it */
    const char *banner;    /* the name between the banner's runs of "=": null = the row's name */
    const char *path;      /* service path */
    const char *file;      /* answer file; null = "/tmp/" + the path's last component + ".json" */
    const char *creat;     /* whole message when that file cannot be opened (null with a file
                              named after the path: "failed to creat %s! ") */
    const char *required;  /* record fields that must not be null, blank-separated */
    const char *logged;    /* fields logged between the banners, in order; "name?" is logged
                              only when present; a number is logged with "%d" */
    const char *sign;      /* keyed template of the signed text */
    const char *body;      /* keyed template of the body */
    Encoding encoded[2];   /* values URL-encoded before the banner */
    unsigned steps;        /* VoiceSteps */
    const char *measured;  /* field whose raw length is logged as "cjsonBuff length is %d."
                              after signing; null for none */
};

/* The checks before any field of the record is read: the "start" line of a
 * traced call, the initialisation check, then "invalid arg!" for a null record
 * or result buffer. */
bool voice_admit(const VoiceCall &row, bool have_record, bool have_result);

class VoiceRequest {
public:
    VoiceRequest(const VoiceCall &row, uint32_t change_to_http, const Fields &fields);
    VoiceRequest(const VoiceRequest &) = delete;
    VoiceRequest &operator=(const VoiceRequest &) = delete;

    /* "invalid arg!" unless every required field is present. */
    bool admitted() const;
    /* Scheme line, URL, encoded copies, nonce, input lines. */
    bool begin(const char *domain);
    /* The signed text and its signature. */
    bool sign();
    /* The body from `body` (normally the row's), answer file, POST,
     * verification: 0 when the answer verified, else -1. */
    int32_t finish(const char *body, char *result);

    /* All of them, with the row's body. */
    int32_t run(const char *domain, char *result);

    /* A field's value may be replaced between begin() and sign(). */
    Field *field(const char *name);
    /* The time taken by take_time(). */
    void take_time() { request_.take_time(); }
    const char *time_text() const { return request_.time_text(); }

private:
    const VoiceCall &row_;
    uint32_t change_to_http_;
    Fields fields_;
    Request request_;
    Buffer encoded_[2];
};

/* The whole frame for a row and a record. */
template <typename Record>
int32_t voice_call(const VoiceCall &row, const Record *record, Fields (*fields_of)(const Record &),
                   const char *domain, char *result)
{
    if (!voice_admit(row, record != nullptr, result != nullptr))
        return -1;
    VoiceRequest call(row, record->u32ChangeToHttp, fields_of(*record));
    if (!call.admitted())
        return -1;
    return call.run(domain, result);
}

}  // namespace kx

#endif
