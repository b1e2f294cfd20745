/*
 * The unsigned calls that answer into the caller's stream: the log service,
 * the upgrade-event report, the upgrade checks and the advertising calls.
 * They make no signature: they send the caller's access token (and, where the
 * service wants them, fixed message identifiers) in a URL or a body of their
 * own, let the transport write the answer into the stream the caller opened,
 * and judge the answer themselves, most of them with the XML verifier.
 *
 *   if (record == nullptr || !kx::StreamCall::stream_open(ppStream) || ...)
 *       return kx::invalid_arg(__func__);
 *   if (!kx::initialised_for(__func__))
 *       return -1;
 *   kx::StreamCall call(__func__, record->u32ChangeToHttp, ppStream);
 *   call.compose_url("%s%s%s/log/get_strategy?...", call.scheme(), ps8Domain, call.port(), ...);
 *   if (call.get("Failed to call KX_SDK_POST.\n") != 0)
 *       return -1;
 *   return call.verify_xml("failed to  verify xml data!\n");
 *
 * Which member a call uses, what it returns when the transfer fails and every
 * failure text (passed whole, slips included) stay in the call's own
 * description; each line is logged under the exported call's name. The stream
 * is never opened or closed here.
 */
#ifndef KX_INTERNAL_STREAM_CALL_H
#define KX_INTERNAL_STREAM_CALL_H

#include <cstdint>
#include <cstdio>

#include "internal/kx_format.h"
#include "internal/kx_owned.h"

namespace kx {

/* A POST member of the transport: URL, body, body length, the caller's stream. */
using PostMember = int32_t (*)(const char *url, const char *body, int32_t length, std::FILE **stream);

/* The member for plain HTTP (u32ChangeToHttp 1) and the one for any other value. */
struct PostMembers {
    PostMember plain;
    PostMember secure;
};

class StreamCall {
public:
    StreamCall(const char *name, uint32_t change_to_http, std::FILE **stream)
        : name_(name), change_to_http_(change_to_http), stream_(stream) {}
    StreamCall(const StreamCall &) = delete;
    StreamCall &operator=(const StreamCall &) = delete;

    /* The stream reference is given and refers to an open stream. */
    static bool stream_open(std::FILE **stream) { return stream != nullptr && *stream != nullptr; }

    bool plain() const { return change_to_http_ == 1; }
    /* "http://" or "https://", and ":80" or "" after the domain. */
    const char *scheme() const { return plain() ? "http://" : "https://"; }
    const char *port() const { return plain() ? ":80" : ""; }

    /* KX_SDK_CREATE_URL(scheme(), domain, path). A null domain cannot be made
     * into a URL either; both log `failure`. */
    bool create_url(const char *domain, const char *path, const char *failure);
    /* Formats the URL into its 1024-byte buffer: a longer text is cut at 1023
     * characters, deliberately. */
    __attribute__((format(printf, 2, 3))) void compose_url(const char *fmt, ...);
    /* The address the caller gave, used as it stands. */
    void use_url(const char *url) { given_ = url; }
    const char *url() const;

    /* Fetches url() into the stream with KX_SDK_HTTP_GET when plain, else
     * KX_SDK_HTTPS_GET. Returns the member's result; a non-zero one logs
     * `failure` (a call that logs more before its failure line passes null
     * and logs that line itself). */
    int32_t get(const char *failure) const;
    /* Posts the body to url() with the member the scheme selects; result and
     * failure as for get(). */
    int32_t post(const PostMembers &members, const char *body, int32_t length, const char *failure) const;
    /* KX_SDK_XML_VERIFY on the stream: 0 when the answer verified (the stream
     * then holds it without its signature), else -1 after `failure`. */
    int32_t verify_xml(const char *failure) const;

private:
    const char *name_;
    uint32_t change_to_http_;
    std::FILE **stream_;
    FixedText<1024> composed_;
    HeapPtr<char> created_;
    const char *given_ = nullptr;
};

}  // namespace kx

#endif
