/*
 * The file download with resume and stall limit, and the length probe.
 *
 * Unlike the request members these follow redirects, limit a stall instead of
 * the whole transfer, and return libcurl's own result code.
 */
#include "kx_sdk_transport.h"

#include <unistd.h>

#include "internal/kx_curl_share.h"
#include "internal/kx_log.h"
#include "internal/kx_owned.h"
#include "internal/kx_secrets.h"

namespace {

using EasyHandle = kx::Owned<CURL, curl_easy_cleanup>;

}  // namespace

int64_t KX_SDK_GetDownloadFileLenth(const char *ps8Url)
{
    if (ps8Url == nullptr) {
        KX_LOGE("invalid arg!\n");
        return 0;
    }
    kx::CurlShareUse share; /* outlives the handle */
    EasyHandle curl(curl_easy_init());
    if (!curl) {
        KX_LOGE("Failed to call curl_easy_init.");
        return 1;
    }
    share.attach(curl.get());

    /* A HEAD request with libcurl's defaults for everything else. The length
     * stays -1 unless the server states one. */
    double length = -1;
    int result = curl_easy_setopt(curl.get(), CURLOPT_URL, ps8Url);
    result |= curl_easy_setopt(curl.get(), CURLOPT_HEADER, 1L);
    result |= curl_easy_setopt(curl.get(), CURLOPT_NOBODY, 1L);
    result |= curl_easy_setopt(curl.get(), CURLOPT_VERBOSE, 0L);
    if (result != CURLE_OK) {
        KX_LOGE("Failed to call curl_easy_setopt, error code is %d.\n", result);
    } else {
        CURLcode code = curl_easy_perform(curl.get());
        if (code != CURLE_OK) {
            KX_LOGE("Failed to call curl_easy_perform, error code is %d.\n", static_cast<int>(code));
        } else {
            /* The double-valued length is the one that tells "unknown" (-1)
             * apart; it is kept although libcurl marks it deprecated. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
            code = curl_easy_getinfo(curl.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD, &length);
#pragma GCC diagnostic pop
            if (code != CURLE_OK) {
                KX_LOGE("Failed to call curl_easy_getinfo, error code is %d.\n", static_cast<int>(code));
                length = -1;
            }
        }
    }

    long long file_length = static_cast<long long>(length);
    KX_LOGI("=== getDownloadFileLenth downloadFileLenth = %lld.\n", file_length);
    return file_length;
}

int32_t KX_SDK_DownloadFileByCurl_Mark(const char *ps8Url, FILE *pStream, int32_t s32ResumeOffset,
                                       curl_write_callback pfWrite, curl_progress_callback pfProgress,
                                       int32_t s32Mark)
{
    /* A refused call leaves the stream alone: it is still the caller's. */
    if (ps8Url == nullptr || pStream == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    if (pfWrite == nullptr || pfProgress == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    /* From here on the stream is the call's: synced and closed on every path. */
    kx::FilePtr stream(pStream);
    kx::CurlShareUse share; /* outlives the handle */
    CURL *handle = curl_easy_init();
    if (handle == nullptr) {
        KX_LOGE("Failed to call curl_easy_init.");
        return -1;
    }
    int mark = s32Mark;
    int32_t resume_offset = s32ResumeOffset;
    int result = CURLE_OK;
    {
        EasyHandle curl(handle);
        CURL *c = curl.get();
        share.attach(c);
        result |= curl_easy_setopt(c, CURLOPT_URL, ps8Url);
        if (mark >= 0) {
            result |= curl_easy_setopt(c, CURLOPT_SOCKOPTFUNCTION, sockopt_callback);
            result |= curl_easy_setopt(c, CURLOPT_SOCKOPTDATA, &mark);
        }
        result |= curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, pfWrite);
        result |= curl_easy_setopt(c, CURLOPT_WRITEDATA, pStream);
        result |= curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
        /* The caller's callback has the classic progress signature. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        result |= curl_easy_setopt(c, CURLOPT_PROGRESSFUNCTION, pfProgress);
#pragma GCC diagnostic pop
        result |= curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
        /* Slower than 1 byte/s for 60 s is a stall; a large image may otherwise
         * take as long as it needs. */
        result |= curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
        result |= curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, 60L);
        result |= curl_easy_setopt(c, CURLOPT_HEADER, 0L);
        result |= curl_easy_setopt(c, CURLOPT_NOBODY, 0L);
        result |= curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
        result |= curl_easy_setopt(c, CURLOPT_RESUME_FROM, static_cast<long>(resume_offset));
        result |= curl_easy_setopt(c, CURLOPT_PROGRESSDATA, &resume_offset);
        result |= curl_easy_setopt(c, CURLOPT_VERBOSE, 0L);
        result |= curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, 30L);
        result |= curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
        result |= curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
        result |= share.trust(c, kx::ca_bundle_path());

        if (result != CURLE_OK) {
            KX_LOGE("Failed to call curl_easy_setopt, error code is %d.\n", result);
        } else {
            result = curl_easy_perform(c);
            if (result != CURLE_OK)
                KX_LOGE("Failed to call curl_easy_perform, error code is %d.\n", result);
        }
        KX_LOGI("ps8Url:%s, res = %d.\n", ps8Url, result);
    }
    /* The handle is gone; make the bytes durable before the stream closes
     * (the caller's write callback may have left them in stdio's buffer). */
    fflush(stream.get());
    fsync(fileno(stream.get()));
    return result;
}

int32_t KX_SDK_DownloadFileByCurl(const char *ps8Url, FILE *pStream, int32_t s32ResumeOffset,
                                  curl_write_callback pfWrite, curl_progress_callback pfProgress)
{
    return KX_SDK_DownloadFileByCurl_Mark(ps8Url, pStream, s32ResumeOffset, pfWrite, pfProgress, -1);
}
