/*
 * Advertising module: the programme guide's advertising strategy and link
 * information. Neither call goes through the request frame: there is no
 * scheme selector, no URL building routine, no body and no signature. Each
 * composes its GET URL into a 1024-byte text (cut beyond, deliberately),
 * fetches it into the caller's stream and verifies the signed XML answer:
 *
 *   argument check -> initialisation check -> URL -> fetch -> verification
 *
 * The URL always names "http://" and port 80 and is fetched with the secure
 * GET member; that pairing is what the guide's server is reached with.
 */
#include "internal/kx_format.h"
#include "internal/kx_log.h"
#include "internal/kx_request.h"
#include "kx_cloud_openapi.h"

namespace {

/* Composed URLs keep at most 1023 characters. */
using AdUrl = kx::FixedText<1024>;

/* An optional text the caller left null goes out as the C library's
 * formatter prints a null text, without handing it the null. */
const char *optional_text(const char *text)
{
    return text != nullptr ? text : "(null)";
}

/* Fetches the URL into the caller's stream and verifies the answer there.
 * A failed fetch logs the call's own line and leaves what arrived. */
int32_t fetch_and_verify(const char *name, const AdUrl &url, FILE **ppStream, const char *fetch_failure)
{
    if (KX_SDK_HTTPS_GET(url.c_str(), ppStream) != 0) {
        KX_LOGE_AS(name, "%s", fetch_failure);
        return -1;
    }
    if (KX_SDK_XML_VERIFY(*ppStream) == 0)
        return 0;
    KX_LOGE_AS(name, "XML verify is false!\n");
    return -1;
}

}  // namespace

KX_API int32_t KX_AD_GET_STRATEGY(const KX_AD_STRATEGY_S *psStrategy, const char *ps8Domain, FILE **ppStream)
{
    /* The domain is checked too: it is formatted into the URL as it stands. */
    if (ppStream == nullptr || psStrategy == nullptr || *ppStream == nullptr || ps8Domain == nullptr ||
        psStrategy->ps8AdInfo == nullptr || psStrategy->ps8Token == nullptr || psStrategy->ps8TvMode == nullptr ||
        psStrategy->ps8OsVersion == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    AdUrl url;
    url.format("%s%s%s%s%s%s%s%s%d%s%s%s%s%s%d%s%s%s%s", "http://", ps8Domain, ":80",
               "/cgi-bin/epg_index.fcgi?action=getadstrategy&adinfo=", psStrategy->ps8AdInfo, "&token=",
               psStrategy->ps8Token, "&language_id=", psStrategy->s32LanguageId, "&tv_mode=", psStrategy->ps8TvMode,
               "&os_version=", psStrategy->ps8OsVersion, "&os_type=", psStrategy->s32OsType, "&zipcode=",
               optional_text(psStrategy->ps8ZipCode), "&countrycode=", optional_text(psStrategy->ps8CountryCode));
    KX_LOGI("Strategy Url is: %s\n", url.c_str());

    return fetch_and_verify(__func__, url, ppStream, "Get AD strategy faild!\n");
}

KX_API int32_t KX_AD_GET_LINKINFO(const KX_AD_LINKINFO_S *psLinkInfo, const char *ps8Domain, FILE **ppStream)
{
    if (ppStream == nullptr || psLinkInfo == nullptr || *ppStream == nullptr || ps8Domain == nullptr ||
        psLinkInfo->ps8AdLinkId == nullptr || psLinkInfo->ps8AdCode == nullptr ||
        psLinkInfo->ps8AdPositionOwner == nullptr || psLinkInfo->ps8Token == nullptr ||
        psLinkInfo->ps8TvMode == nullptr || psLinkInfo->ps8OsVersion == nullptr)
        return kx::invalid_arg(__func__);
    if (!kx::initialised_for(__func__))
        return -1;

    /* "&adpositionowner" has no "=": the owner follows the key name directly. */
    AdUrl url;
    url.format("%s%s%s%s%s%s%s%s%s%s%s%s%d%s%s%s%s%s%d%s%s%s%s", "http://", ps8Domain, ":80",
               "/cgi-bin/epg_index.fcgi?action=getadlinkinfo&adlinkid=", psLinkInfo->ps8AdLinkId, "&adcode=",
               psLinkInfo->ps8AdCode, "&adpositionowner", psLinkInfo->ps8AdPositionOwner, "&token=",
               psLinkInfo->ps8Token, "&language_id=", psLinkInfo->s32LanguageId, "&tv_mode=", psLinkInfo->ps8TvMode,
               "&os_version=", psLinkInfo->ps8OsVersion, "&os_type=", psLinkInfo->s32OsType, "&zipcode=",
               optional_text(psLinkInfo->ps8ZipCode), "&countrycode=", optional_text(psLinkInfo->ps8CountryCode));
    KX_LOGI("Linkinfo Url is: %s\n", url.c_str());

    return fetch_and_verify(__func__, url, ppStream, "Get AD linkinfo faild!\n");
}
