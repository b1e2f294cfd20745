/*
 * The unsigned stream calls' shared part (see kx_stream_call.h). Every line
 * logged here speaks for the exported call named in the StreamCall.
 */
#include "internal/kx_stream_call.h"

#include <cstdarg>

#include "internal/kx_log.h"
#include "kx_cloud_openapi.h"

namespace kx {

bool StreamCall::create_url(const char *domain, const char *path, const char *failure)
{
    char *url = nullptr;
    if (domain == nullptr || KX_SDK_CREATE_URL(scheme(), domain, path, &url) != 0) {
        KX_LOGE_AS(name_, "%s", failure);
        return false;
    }
    created_.reset(url);
    return true;
}

void StreamCall::compose_url(const char *fmt, ...)
{
    std::va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(composed_.data(), composed_.capacity(), fmt, ap);
    va_end(ap);
}

const char *StreamCall::url() const
{
    if (given_ != nullptr)
        return given_;
    return created_ ? created_.get() : composed_.c_str();
}

int32_t StreamCall::get(const char *failure) const
{
    const int32_t result = plain() ? KX_SDK_HTTP_GET(url(), stream_) : KX_SDK_HTTPS_GET(url(), stream_);
    if (result != 0 && failure != nullptr)
        KX_LOGE_AS(name_, "%s", failure);
    return result;
}

int32_t StreamCall::post(const PostMembers &members, const char *body, int32_t length, const char *failure) const
{
    const PostMember member = plain() ? members.plain : members.secure;
    const int32_t result = member(url(), body, length, stream_);
    if (result != 0 && failure != nullptr)
        KX_LOGE_AS(name_, "%s", failure);
    return result;
}

int32_t StreamCall::verify_xml(const char *failure) const
{
    if (KX_SDK_XML_VERIFY(*stream_) == 0)
        return 0;
    KX_LOGE_AS(name_, "%s", failure);
    return -1;
}

}  // namespace kx
