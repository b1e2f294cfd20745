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
 * GET member; that pairing is what the guide's server is reached with. Both
 * run on the unsigned stream-call machinery (internal/kx_stream_call.h), whose
 * scheme selector is fixed here at "not plain" so that get() takes the secure
 * member.
 */
#include "internal/kx_log.h"
#include "internal/kx_request.h"
#include "internal/kx_stream_call.h"
#include "kx_cloud_openapi.h"

namespace {

/* No scheme selector: the stream call's "any value but 1", the secure GET. */
constexpr uint32_t kSecureMember = 0;

/* An optional text the caller left null goes out as the C library's
 * formatter prints a null text, without handing it the null. */
const char *optional_text(const char *text)
{
    return text != nullptr ? text : "(null)";
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

    /* Composed into 1024 bytes: a longer URL is cut at 1023 characters. */
    kx::StreamCall call(__func__, kSecureMember, ppStream);
    call.compose_url("%s%s%s%s%s%s%s%s%d%s%s%s%s%s%d%s%s%s%s", "http://", ps8Domain, ":80",
               "/cgi-bin/epg_index.fcgi?action=getadstrategy&adinfo=", psStrategy->ps8AdInfo, "&token=",
               psStrategy->ps8Token, "&language_id=", psStrategy->s32LanguageId, "&tv_mode=", psStrategy->ps8TvMode,
               "&os_version=", psStrategy->ps8OsVersion, "&os_type=", psStrategy->s32OsType, "&zipcode=",
               optional_text(psStrategy->ps8ZipCode), "&countrycode=", optional_text(psStrategy->ps8CountryCode));
    KX_LOGI("Strategy Url is: %s\n", call.url());

    if (call.get("Get AD strategy faild!\n") != 0)
        return -1;
    return call.verify_xml("XML verify is false!\n");
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
    kx::StreamCall call(__func__, kSecureMember, ppStream);
    call.compose_url("%s%s%s%s%s%s%s%s%s%s%s%s%d%s%s%s%s%s%d%s%s%s%s", "http://", ps8Domain, ":80",
               "/cgi-bin/epg_index.fcgi?action=getadlinkinfo&adlinkid=", psLinkInfo->ps8AdLinkId, "&adcode=",
               psLinkInfo->ps8AdCode, "&adpositionowner", psLinkInfo->ps8AdPositionOwner, "&token=",
               psLinkInfo->ps8Token, "&language_id=", psLinkInfo->s32LanguageId, "&tv_mode=", psLinkInfo->ps8TvMode,
               "&os_version=", psLinkInfo->ps8OsVersion, "&os_type=", psLinkInfo->s32OsType, "&zipcode=",
               optional_text(psLinkInfo->ps8ZipCode), "&countrycode=", optional_text(psLinkInfo->ps8CountryCode));
    KX_LOGI("Linkinfo Url is: %s\n", call.url());

    if (call.get("Get AD linkinfo faild!\n") != 0)
        return -1;
    return call.verify_xml("XML verify is false!\n");
}
