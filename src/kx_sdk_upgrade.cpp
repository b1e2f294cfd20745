/*
 * Upgrade module: the firmware and the application upgrade checks. Each call
 * is the request frame (internal/kx_request.h) without its signing steps: the
 * body carries the caller's access token and fixed keys instead of a
 * signature, the answer goes into the caller's stream and the XML verifier
 * judges it. Two differences from the signed calls stand in each call:
 *  - the arguments are checked before the initialisation;
 *  - a failed post ends the call at once, with the call's own line and
 *    result, and nothing is verified.
 */
#include <cstring>

#include "internal/kx_log.h"
#include "internal/kx_request.h"
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

kx::Call upgrade_call(const char *name, const char *path, uint32_t change_to_http, FILE **ppStream)
{
    return {name, path, change_to_http, kx::Method::Post, kx::kNoMark, kx::Sink::caller(ppStream), kx::Verifier::Xml,
            "failed to call KX_SDK_CREATE_URL().\n"};
}

}  // namespace

KX_API int32_t KX_UPGRADE_CHECK_VERSION(const KX_UPGRADE_CHECK_S *psCheck, const char *ps8Domain, FILE **ppStream)
{
    if (psCheck == nullptr || ppStream == nullptr || psCheck->ps8CurrentVersion == nullptr ||
        psCheck->ps8DvcRsv == nullptr || psCheck->ps8AccessToken == nullptr || *ppStream == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    kx::Request call(upgrade_call(__func__, "/upgrade/check_version", psCheck->u32ChangeToHttp, ppStream));
    if (!call.build_url(ps8Domain))
        return -1;

    const kx::FixedText<16> language = language_text(psCheck->u32LanguageId);
    const OptionalKey stat{"&statCode=", psCheck->ps8StatCode};
    const OptionalKey post{"&postCode=", psCheck->ps8PostCode};
    const OptionalKey brand{"&brandCode=", psCheck->ps8BrandCode};
    const OptionalKey mac{"&MAC=", psCheck->ps8Mac};

    /* Unsigned: no parameter text and no signature, so the allowance is the
     * body's whole allocation: the values, 59 for the fixed part, the
     * optional keys given, and 60 for the tail. */
    const size_t allocation = strlen(psCheck->ps8CurrentVersion) + strlen(psCheck->ps8DvcRsv) +
                              strlen(psCheck->ps8AccessToken) + language.length() + 59 + stat.allowance() +
                              post.allowance() + brand.allowance() + mac.allowance() + 60;
    if (!call.print_body(allocation, "%s&currentVersion=%s&dvcRsv=%s%s%s%s%s%s%s%s%s&accessToken=%s%s&languageId=%s",
                         "msgVersion=513&msgType=256&msgId=66", psCheck->ps8CurrentVersion, psCheck->ps8DvcRsv,
                         stat.key(), stat.text(), post.key(), post.text(), brand.key(), brand.text(), mac.key(),
                         mac.text(), psCheck->ps8AccessToken, kFixedKeys, language.c_str()))
        return -1;

    if (!call.send())
        return -1;
    /* The post's own result is the call's, over either scheme. */
    if (call.transport_result() != 0) {
        KX_LOGE("Failed to call KX_SDK_HTTP_POST.\n");
        return call.transport_result();
    }
    return call.verify(nullptr);
}

KX_API int32_t KX_APP_UPGRADE_CHECK_VERSION(const KX_APP_UPGRADE_CHECK_S *psCheck, const char *ps8Domain,
                                            FILE **ppStream)
{
    if (psCheck == nullptr || ppStream == nullptr || psCheck->ps8CurrentVersion == nullptr ||
        psCheck->ps8PackageName == nullptr || psCheck->ps8AccessToken == nullptr || *ppStream == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    kx::Request call(upgrade_call(__func__, "/upgrade/check_app_version", psCheck->u32ChangeToHttp, ppStream));
    if (!call.build_url(ps8Domain))
        return -1;

    const kx::FixedText<16> language = language_text(psCheck->u32LanguageId);
    const OptionalKey stat{"&statCode=", psCheck->ps8StatCode};
    const OptionalKey post{"&postCode=", psCheck->ps8PostCode};

    /* The firmware check's allocation rule; its 59 covers this shorter fixed part. */
    const size_t allocation = strlen(psCheck->ps8PackageName) + strlen(psCheck->ps8CurrentVersion) +
                              strlen(psCheck->ps8AccessToken) + language.length() + 59 + stat.allowance() +
                              post.allowance() + 60;
    if (!call.print_body(allocation, "packageName=%s&currentVersion=%s%s%s%s%s&accessToken=%s%s&languageId=%s",
                         psCheck->ps8PackageName, psCheck->ps8CurrentVersion, stat.key(), stat.text(), post.key(),
                         post.text(), psCheck->ps8AccessToken, kFixedKeys, language.c_str()))
        return -1;

    if (!call.send())
        return -1;
    /* Names the secure member over either scheme, and gives -1. */
    if (call.transport_result() != 0) {
        KX_LOGE("Failed to call KX_SDK_HTTPS_POST.\n");
        return -1;
    }
    return call.verify(nullptr);
}
