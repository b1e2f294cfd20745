/*
 * Upgrade module: the firmware and the application upgrade checks. Both are
 * unsigned stream calls (internal/kx_stream_call.h): the body carries the
 * caller's access token and fixed keys instead of a signature, the answer
 * goes into the caller's stream and the XML verifier judges it. As in the
 * other unsigned calls, the arguments are checked before the initialisation,
 * and a failed post ends the call at once, with the call's own line and
 * result, before anything is verified.
 */
#include <cstdio>
#include <cstring>

#include "internal/kx_buffer.h"
#include "internal/kx_log.h"
#include "internal/kx_request.h"
#include "internal/kx_stream_call.h"
#include "kx_cloud_openapi.h"

namespace {

/* The body's fixed middle part, between the token and the language. */
constexpr const char *kFixedKeys = "&version=7.0&format=0&sourceType=1";

/* An optional key: "&key=" and the value when the value is given, nothing at
 * all when it is null. Its allowance in the body's allocation is the key's
 * own length (10 for statCode, 10 for postCode, 11 for brandCode, 5 for MAC)
 * plus the value's, and only when the value is given. */
struct OptionalKey {
    const char *piece; /* "&statCode=" */
    const char *value;

    const char *key() const { return value != nullptr ? piece : ""; }
    const char *text() const { return value != nullptr ? value : ""; }
    size_t allowance() const { return value != nullptr ? strlen(piece) + strlen(value) : 0; }
};

/* languageId is printed whole with "%u": every 32-bit value fits. */
kx::FixedText<16> language_text(uint32_t language)
{
    kx::FixedText<16> text;
    text.format("%u", language);
    return text;
}

constexpr const char *kUrlFailure = "failed to call KX_SDK_CREATE_URL().\n";

/* The zeroed body of the documented allocation; "out of memory." when it
 * cannot be had. The allocation always holds the text (its allowances are the
 * fixed characters of the format and the terminator). */
kx::Buffer body_buffer(const char *name, size_t allocation)
{
    kx::Buffer body(allocation);
    if (!body.ok())
        KX_LOGE_AS(name, "out of memory.\n");
    return body;
}

}  // namespace

KX_API int32_t KX_UPGRADE_CHECK_VERSION(const KX_UPGRADE_CHECK_S *psCheck, const char *ps8Domain, FILE **ppStream)
{
    if (psCheck == nullptr || ppStream == nullptr || psCheck->ps8CurrentVersion == nullptr ||
        psCheck->ps8DvcRsv == nullptr || psCheck->ps8AccessToken == nullptr || *ppStream == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    kx::StreamCall call(__func__, psCheck->u32ChangeToHttp, ppStream);
    if (!call.create_url(ps8Domain, "/upgrade/check_version", kUrlFailure))
        return -1;

    const kx::FixedText<16> language = language_text(psCheck->u32LanguageId);
    const OptionalKey stat{"&statCode=", psCheck->ps8StatCode};
    const OptionalKey post{"&postCode=", psCheck->ps8PostCode};
    const OptionalKey brand{"&brandCode=", psCheck->ps8BrandCode};
    const OptionalKey mac{"&MAC=", psCheck->ps8Mac};

    /* The values, 59 for the fixed part, the optional keys given, and 60 for
     * the tail. */
    const size_t allocation = strlen(psCheck->ps8CurrentVersion) + strlen(psCheck->ps8DvcRsv) +
                              strlen(psCheck->ps8AccessToken) + language.length() + 59 + stat.allowance() +
                              post.allowance() + brand.allowance() + mac.allowance() + 60;
    kx::Buffer body = body_buffer(__func__, allocation);
    if (!body.ok())
        return -1;
    std::snprintf(body.get(), allocation, "%s&currentVersion=%s&dvcRsv=%s%s%s%s%s%s%s%s%s&accessToken=%s%s&languageId=%s",
                  "msgVersion=513&msgType=256&msgId=66", psCheck->ps8CurrentVersion, psCheck->ps8DvcRsv, stat.key(),
                  stat.text(), post.key(), post.text(), brand.key(), brand.text(), mac.key(), mac.text(), psCheck->ps8AccessToken, kFixedKeys, language.c_str());

    /* The post's own result is the call's, over either scheme. */
    const int32_t posted = call.post({KX_SDK_HTTP_POST, KX_SDK_HTTPS_POST}, body.get(),
                                     static_cast<int32_t>(strlen(body.get())), "Failed to call KX_SDK_HTTP_POST.\n");
    if (posted != 0)
        return posted;
    body.reset();
    return call.verify_xml("failed to verify xml data!\n");
}

KX_API int32_t KX_APP_UPGRADE_CHECK_VERSION(const KX_APP_UPGRADE_CHECK_S *psCheck, const char *ps8Domain,
                                            FILE **ppStream)
{
    if (psCheck == nullptr || ppStream == nullptr || psCheck->ps8CurrentVersion == nullptr ||
        psCheck->ps8PackageName == nullptr || psCheck->ps8AccessToken == nullptr || *ppStream == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    kx::StreamCall call(__func__, psCheck->u32ChangeToHttp, ppStream);
    if (!call.create_url(ps8Domain, "/upgrade/check_app_version", kUrlFailure))
        return -1;

    const kx::FixedText<16> language = language_text(psCheck->u32LanguageId);
    const OptionalKey stat{"&statCode=", psCheck->ps8StatCode};
    const OptionalKey post{"&postCode=", psCheck->ps8PostCode};

    /* The firmware check's allocation rule; its 59 covers this shorter fixed part. */
    const size_t allocation = strlen(psCheck->ps8PackageName) + strlen(psCheck->ps8CurrentVersion) +
                              strlen(psCheck->ps8AccessToken) + language.length() + 59 + stat.allowance() +
                              post.allowance() + 60;
    kx::Buffer body = body_buffer(__func__, allocation);
    if (!body.ok())
        return -1;
    std::snprintf(body.get(), allocation, "packageName=%s&currentVersion=%s%s%s%s%s&accessToken=%s%s&languageId=%s",
                  psCheck->ps8PackageName, psCheck->ps8CurrentVersion, stat.key(), stat.text(), post.key(),
                  post.text(), psCheck->ps8AccessToken, kFixedKeys, language.c_str());

    /* Names the secure member over either scheme, and gives -1. */
    if (call.post({KX_SDK_HTTP_POST, KX_SDK_HTTPS_POST}, body.get(), static_cast<int32_t>(strlen(body.get())),
                  "Failed to call KX_SDK_HTTPS_POST.\n") != 0)
        return -1;
    body.reset();
    return call.verify_xml("failed to verify xml data!\n");
}
