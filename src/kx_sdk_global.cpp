/*
 * Global module: process-wide state, initialisation and tear-down.
 */
#include <cstring>

#include <curl/curl.h>
#include <libxml/parser.h>

#include "internal/kx_curl_share.h"
#include "internal/kx_init_check.h"
#include "internal/kx_log.h"
#include "kx_sdk_global.h"
#include "kx_sdk_security.h"

namespace {

constexpr const char kVersion[] = "2.00.4.0.0";

/* KX_GLOBAL_INIT considers at most this many characters of the caller's
 * domain; a longer one is stored as the empty string. */
constexpr std::size_t kInitDomainMax = 64;

}  // namespace

int32_t bGlobalInited = 0;
pthread_mutex_t sGlobalInitMutex = PTHREAD_MUTEX_INITIALIZER;
void *lwsclient = nullptr;

int32_t KX_GLOBAL_INIT(const char *psDNS)
{
    if (psDNS == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }

    /* One byte more than the 64 characters considered: a domain of exactly 64
     * characters is kept whole and still terminated, so nothing later reads
     * past the buffer. */
    char domain[kInitDomainMax + 1];
    std::memset(domain, 0, sizeof(domain));
    /* This line has no line end of its own. */
    KX_LOGI("KX_GLOBAL_INIT(), psDNS: %s", psDNS);

    const std::size_t length = std::strlen(psDNS);
    if (length <= kInitDomainMax)
        std::memcpy(domain, psDNS, length);

    kx::MutexLock lock(sGlobalInitMutex);
    if (bGlobalInited != 0)
        return 0; /* already up: the new domain is ignored */

    KX_LOGE("Version: %s\n", kVersion);

    const CURLcode result = curl_global_init(CURL_GLOBAL_ALL);
    if (result != CURLE_OK) {
        KX_LOGE("Failed to call curl_global_init(CURL_GLOBAL_ALL), error code is %d.\n", static_cast<int>(result));
        return -1;
    }

    /* There is no separate domain look-up: the result line always says 0. */
    const int s32GetDNSResult = 0;
    KX_LOGI("Get DNS is %s\n", domain);
    KX_LOGI("Get DNS len is %d\n", static_cast<int>(std::strlen(domain)));
    KX_LOGI("s32GetDNSResult is %d\n", s32GetDNSResult);

    if (KX_SDK_SET_DOMAIN(domain) != 0) {
        KX_LOGE("Failed to call KX_SDK_SET_DOMAIN().\n");
        curl_global_cleanup();
        return -1;
    }

    /* TLS sessions and DNS answers are kept for the calls from here to
     * KX_GLOBAL_DEINIT (see internal/kx_curl_share.h). */
    kx::curl_share_start();

    /* libxml2 sets itself up lazily on the first parse, which is not safe when
     * two threads parse their first answers at once: do it here, once. */
    xmlInitParser();

    /* A key that fails to load does not fail initialisation: each answer's
     * verification then fails on its own. */
    (void)KX_INIT_PUBLICKEY();

    bGlobalInited = 1;
    return 0;
}

int32_t KX_GLOBAL_DEINIT(void)
{
    KX_LOGI("KX_GLOBAL_DEINIT\n");
    {
        kx::MutexLock lock(sGlobalInitMutex);
        if (bGlobalInited == 0)
            return 0;
        KX_LOGI("KX_GLOBAL_DEINIT, bGlobalInited\n");
        /* The share holds TLS sessions: released while libcurl is still up. */
        kx::curl_share_stop();
        curl_global_cleanup();
        bGlobalInited = 0;
    }
    /* The key is released after the flag has gone to 0, outside the lock. */
    (void)KX_UNINIT_PUBLICKEY();
    return 0;
}
