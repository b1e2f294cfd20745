/*
 * Common module, core part: the process-wide service domain, URL building and
 * the checked release of heap memory.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/kx_buffer.h"
#include "internal/kx_log.h"
#include "kx_sdk_global.h"
#include "kx_sdk_list.h"

namespace {

constexpr std::size_t kDomainStoreSize = 256;

/* The cloud's production service host, used until a domain is set. */
char sDomainName[kDomainStoreSize] = "cloud-api.kx-tv.com";

constexpr const char kHttp[] = "http://";
constexpr const char kHttps[] = "https://";
constexpr const char kHttpPort[] = ":80";

}  // namespace

/* Kept beside the domain store for callers that want to guard their own
 * reads; the library writes the domain only inside KX_GLOBAL_INIT (under
 * sGlobalInitMutex) and never takes this one. */
pthread_mutex_t sDomainNameMutex = PTHREAD_MUTEX_INITIALIZER;

int32_t KX_SDK_SET_DOMAIN(const char *domain)
{
    /* A null domain is refused like an over-long one; strnlen measures at
     * most as far as the store could hold, so a text of 256 or more
     * characters is refused without being read to its end. */
    const std::size_t length = domain == nullptr ? kDomainStoreSize : strnlen(domain, kDomainStoreSize);
    if (length >= kDomainStoreSize) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    std::memset(sDomainName, 0, sizeof(sDomainName));
    std::memcpy(sDomainName, domain, length);
    return 0;
}

char *KX_SDK_GET_DOMAIN(void)
{
    return sDomainName;
}

int32_t KX_SDK_CREATE_URL(const char *scheme, const char *domain, const char *path, char **out)
{
    if (scheme == nullptr || path == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    /* A URL already held by the caller is refused rather than overwritten, so
     * it is never leaked. */
    if (out == nullptr || *out != nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    /* Callers always pass a domain; a null one is refused like the other
     * arguments instead of being measured. */
    if (domain == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }

    const bool plain = std::strcmp(scheme, kHttp) == 0;
    const std::size_t size = std::strlen(scheme) + std::strlen(domain) + (plain ? std::strlen(kHttpPort) : 0) +
                             std::strlen(path) + 1;
    kx::Buffer url(size);
    if (!url.ok()) {
        KX_LOGE("out of memory.\n");
        return -1;
    }

    /* The explicit port is written for plain HTTP only, never for HTTPS. */
    if (std::strcmp(scheme, kHttps) == 0) {
        std::snprintf(url.get(), url.size(), "%s%s%s", scheme, domain, path);
    } else if (plain) {
        std::snprintf(url.get(), url.size(), "%s%s%s%s", scheme, domain, kHttpPort, path);
    } else {
        KX_LOGE("invalid protocol.\n");
        return -1;
    }

    *out = url.release();
    KX_LOGI("Get ps8Url is %s\n", *out);
    return 0;
}

int32_t KX_SDK_FREE(void *ptr)
{
    if (ptr == nullptr) {
        KX_LOGE("the pointer is null already!\n");
        return -1;
    }
    std::free(ptr);
    return 0;
}
