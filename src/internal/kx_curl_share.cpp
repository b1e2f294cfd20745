#include "internal/kx_curl_share.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "internal/kx_init_check.h"

#ifndef KX_CURL_SHARE
#define KX_CURL_SHARE 1
#endif

namespace kx {

/* The share and the calls that hold it. */
struct CurlShare {
    CURLSH *handle;
    long users;
    bool retired; /* KX_GLOBAL_DEINIT has let go of it */
};

namespace {

/* Guards g_current and every CurlShare's count and flag. */
pthread_mutex_t g_share_mutex = PTHREAD_MUTEX_INITIALIZER;
CurlShare *g_current = nullptr;

/* One mutex per kind of data libcurl shares (the share's own bookkeeping,
 * DNS, TLS sessions, ...), as libcurl asks of its lock callbacks. */
pthread_mutex_t g_data_mutex[CURL_LOCK_DATA_LAST] = {};
pthread_once_t g_data_once = PTHREAD_ONCE_INIT;

void init_data_mutexes()
{
    for (pthread_mutex_t &m : g_data_mutex)
        pthread_mutex_init(&m, nullptr);
}

pthread_mutex_t *data_mutex(curl_lock_data data)
{
    int index = static_cast<int>(data);
    return index >= 0 && index < CURL_LOCK_DATA_LAST ? &g_data_mutex[index] : nullptr;
}

void lock_data(CURL *, curl_lock_data data, curl_lock_access, void *)
{
    if (pthread_mutex_t *m = data_mutex(data))
        pthread_mutex_lock(m);
}

void unlock_data(CURL *, curl_lock_data data, void *)
{
    if (pthread_mutex_t *m = data_mutex(data))
        pthread_mutex_unlock(m);
}

void release(CurlShare *share)
{
    /* Every handle that used it is gone by now; were one still attached,
     * libcurl would refuse, and the share is then left rather than freed
     * under it. */
    if (curl_share_cleanup(share->handle) == CURLSHE_OK)
        std::free(share);
}

CurlShare *make_share()
{
    CURLSH *handle = curl_share_init();
    if (handle == nullptr)
        return nullptr;
    int result = curl_share_setopt(handle, CURLSHOPT_LOCKFUNC, lock_data);
    result |= curl_share_setopt(handle, CURLSHOPT_UNLOCKFUNC, unlock_data);
    result |= curl_share_setopt(handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    result |= curl_share_setopt(handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    CurlShare *share = result == CURLSHE_OK ? static_cast<CurlShare *>(std::calloc(1, sizeof(CurlShare))) : nullptr;
    if (share == nullptr) {
        curl_share_cleanup(handle);
        return nullptr;
    }
    share->handle = handle;
    return share;
}

/* Replaces a spoiled share, if it is still the current one. */
void retire(CurlShare *spoiled)
{
    CurlShare *fresh = make_share();
    {
        MutexLock lock(g_share_mutex);
        if (g_current == spoiled) {
            spoiled->retired = true;
            g_current = fresh;
            fresh = nullptr;
        }
    }
    if (fresh != nullptr)
        release(fresh);
}

}  // namespace

void curl_share_start()
{
    if (!KX_CURL_SHARE)
        return;
    pthread_once(&g_data_once, init_data_mutexes);
    CurlShare *share = make_share();
    MutexLock lock(g_share_mutex);
    g_current = share;
}

void curl_share_stop()
{
    CurlShare *idle = nullptr;
    {
        MutexLock lock(g_share_mutex);
        if (g_current == nullptr)
            return;
        if (g_current->users == 0)
            idle = g_current;
        else
            g_current->retired = true;
        g_current = nullptr;
    }
    if (idle != nullptr)
        release(idle);
}

CurlShareUse::CurlShareUse() : share_(nullptr), errors_()
{
    if (!KX_CURL_SHARE)
        return;
    MutexLock lock(g_share_mutex);
    share_ = g_current;
    if (share_ != nullptr)
        ++share_->users;
}

CurlShareUse::~CurlShareUse()
{
    if (share_ == nullptr)
        return;
    if (std::strstr(errors_, "failed to store ssl session") != nullptr)
        retire(share_);
    bool last = false;
    {
        MutexLock lock(g_share_mutex);
        last = --share_->users == 0 && share_->retired;
    }
    if (last)
        release(share_);
}

void CurlShareUse::attach(CURL *curl)
{
    if (share_ == nullptr)
        return;
    (void)curl_easy_setopt(curl, CURLOPT_SHARE, share_->handle);
    /* Only the first failure of a transfer is kept here. */
    (void)curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errors_);
}

}  // namespace kx
