/*
 * kx_sdk_ad.h -- Advertising for the programme guide: which adverts to show
 * in an advert slot, and the link behind one advert.
 * Reach it through kx_cloud_openapi.h.
 *
 * Both calls compose one GET URL against the guide's CGI endpoint and write
 * the cloud's signed XML answer into a stream that the caller opened:
 *
 *  - URL. Always "http://" + domain + ":80" + "/cgi-bin/epg_index.fcgi?action=
 *    ..." with the caller's values in plain text (nothing is URL-encoded), in
 *    a 1024-byte buffer: a URL longer than 1023 characters is cut there and
 *    sent cut. The records have no scheme selector; the URL is nevertheless
 *    fetched with the secure GET member (KX_SDK_HTTPS_GET), which takes the
 *    plain address as it stands (it also asks for gzip, which the plain member
 *    does not).
 *  - Numbers are printed with "%d" (negative values with their sign).
 *  - Optional texts (zip code, country code) should be filled: one left null
 *    is sent as the text "(null)".
 *  - Answer. Appended to *ppStream, which the caller opened for reading and
 *    writing (normally empty) and closes afterwards; on 0 the stream holds the
 *    answer without its signature element (KX_SDK_XML_VERIFY).
 *  - Order of checks. Arguments first ("invalid arg!"), initialisation second
 *    ("please firstly to call KX_GLOBAL_INIT()!").
 *  - The call allocates nothing of its own and keeps no pointer to the
 *    record, its texts or the stream.
 */
#ifndef KX_SDK_AD_H
#define KX_SDK_AD_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

/* ---- advertising strategy --------------------------------------------------- */

typedef struct {
    const char *ps8AdInfo;      /* adinfo (the advert slot), required */
    const char *ps8Token;       /* token, required */
    int32_t s32LanguageId;      /* language_id ("%d") */
    const char *ps8TvMode;      /* tv_mode, required */
    const char *ps8OsVersion;   /* os_version, required */
    int32_t s32OsType;          /* os_type ("%d") */
    const char *ps8ZipCode;     /* zipcode, optional ("(null)" when null) */
    const char *ps8CountryCode; /* countrycode, optional ("(null)" when null) */
} KX_AD_STRATEGY_S;

/*
 * Asks which adverts to show in a slot: GETs
 *   http://D:80/cgi-bin/epg_index.fcgi?action=getadstrategy&adinfo=A&token=T&
 *   language_id=L&tv_mode=M&os_version=O&os_type=S&zipcode=Z&countrycode=C
 * (logged as "Strategy Url is: ...") and appends the XML answer to *ppStream.
 * Returns 0 when the answer verified; -1 for a null record, domain, stream
 * address, stream or required text ("invalid arg!"), an uninitialised
 * library, a failed fetch ("Get AD strategy faild!"; what arrived stays in
 * the stream) or an answer that does not verify ("XML verify is false!").
 */
KX_API int32_t KX_AD_GET_STRATEGY(const KX_AD_STRATEGY_S *psStrategy, const char *ps8Domain, FILE **ppStream);

/* ---- link info -------------------------------------------------------------- */

typedef struct {
    const char *ps8AdLinkId;          /* adlinkid, required */
    const char *ps8AdCode;            /* adcode, required */
    const char *ps8AdPositionOwner;   /* adpositionowner, required (sent without "=") */
    const char *ps8Token;             /* token, required */
    int32_t s32LanguageId;            /* language_id ("%d") */
    const char *ps8TvMode;            /* tv_mode, required */
    const char *ps8OsVersion;         /* os_version, required */
    int32_t s32OsType;                /* os_type ("%d") */
    const char *ps8ZipCode;           /* zipcode, optional ("(null)" when null) */
    const char *ps8CountryCode;       /* countrycode, optional ("(null)" when null) */
} KX_AD_LINKINFO_S;

/*
 * Asks for the link behind an advert: GETs
 *   http://D:80/cgi-bin/epg_index.fcgi?action=getadlinkinfo&adlinkid=I&
 *   adcode=K&adpositionownerP&token=T&language_id=L&tv_mode=M&os_version=O&
 *   os_type=S&zipcode=Z&countrycode=C
 * (logged as "Linkinfo Url is: ..."). The position owner follows its key
 * name directly, without "=": the server reads it so. The XML answer is
 * appended to *ppStream.
 * Returns 0 when the answer verified; -1 as for KX_AD_GET_STRATEGY, a failed
 * fetch logging "Get AD linkinfo faild!".
 */
KX_API int32_t KX_AD_GET_LINKINFO(const KX_AD_LINKINFO_S *psLinkInfo, const char *ps8Domain, FILE **ppStream);

KX_END_DECLS

#endif
