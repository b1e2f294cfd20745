#include "internal/kx_curl_share.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "internal/kx_init_check.h"

#ifndef KX_CURL_SHARE
#define KX_CURL_SHARE 1
#endif

namespace kx {

/* The CA bundle's certificates and revocation lists, read once. Read-only
 * once made: connections take references to its entries, never change it
 * (everything OpenSSL would work out on first use is worked out before the
 * bundle is published under g_share_mutex). */
struct CaBundle {
    STACK_OF(X509) *certs;
    STACK_OF(X509_CRL) *crls;
};

/* The share and the calls that hold it. */
struct CurlShare {
    CURLSH *handle;
    long users;
    bool retired;      /* KX_GLOBAL_DEINIT has let go of it */
    bool bundle_tried; /* the bundle was read (or could not be) */
    CaBundle bundle;   /* empty when it could not be read */
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

void drop_bundle(CaBundle &bundle)
{
    sk_X509_pop_free(bundle.certs, X509_free);
    sk_X509_CRL_pop_free(bundle.crls, X509_CRL_free);
    bundle = CaBundle{};
}

/* Reads the bundle as libcurl would (every certificate and revocation list
 * of the PEM file; any error fails the whole file) and keeps its entries. */
CaBundle read_bundle(const char *path)
{
    CaBundle bundle{};
    X509_STORE *store = X509_STORE_new();
    if (store == nullptr)
        return bundle;
    if (X509_STORE_load_locations(store, path, nullptr) == 1) {
        bundle.certs = sk_X509_new_null();
        bundle.crls = sk_X509_CRL_new_null();
        bool whole = bundle.certs != nullptr && bundle.crls != nullptr;
        STACK_OF(X509_OBJECT) *objects = X509_STORE_get0_objects(store);
        for (int i = 0; whole && i < sk_X509_OBJECT_num(objects); ++i) {
            X509_OBJECT *object = sk_X509_OBJECT_value(objects, i);
            if (X509 *cert = X509_OBJECT_get0_X509(object)) {
                /* OpenSSL works a certificate's extensions out on first use
                 * and keeps them in the object: done here, while the bundle
                 * is still this thread's alone, the connections sharing it
                 * afterwards only read it. */
                X509_check_purpose(cert, -1, 0);
                whole = X509_up_ref(cert) == 1;
                if (whole && sk_X509_push(bundle.certs, cert) <= 0) {
                    X509_free(cert);
                    whole = false;
                }
            } else if (X509_CRL *crl = X509_OBJECT_get0_X509_CRL(object)) {
                whole = X509_CRL_up_ref(crl) == 1;
                if (whole && sk_X509_CRL_push(bundle.crls, crl) <= 0) {
                    X509_CRL_free(crl);
                    whole = false;
                }
            }
        }
        if (!whole || sk_X509_num(bundle.certs) == 0)
            drop_bundle(bundle);
    }
    X509_STORE_free(store);
    return bundle;
}

/* libcurl's SSL context hook: a trust store of the connection's own, holding
 * the bundle's entries by reference. Runs before the handshake; libcurl adds
 * its flags (and the CA path's empty lookup) to this store afterwards. */
CURLcode give_bundle(CURL *, void *ssl_ctx, void *bundle_pointer)
{
    const CaBundle *bundle = static_cast<const CaBundle *>(bundle_pointer);
    X509_STORE *store = X509_STORE_new();
    if (store == nullptr)
        return CURLE_OUT_OF_MEMORY;
    for (int i = 0; i < sk_X509_num(bundle->certs); ++i) {
        if (X509_STORE_add_cert(store, sk_X509_value(bundle->certs, i)) != 1) {
            X509_STORE_free(store);
            return CURLE_OUT_OF_MEMORY;
        }
    }
    for (int i = 0; i < sk_X509_CRL_num(bundle->crls); ++i) {
        if (X509_STORE_add_crl(store, sk_X509_CRL_value(bundle->crls, i)) != 1) {
            X509_STORE_free(store);
            return CURLE_OUT_OF_MEMORY;
        }
    }
    SSL_CTX_set_cert_store(static_cast<SSL_CTX *>(ssl_ctx), store);
    return CURLE_OK;
}

void release(CurlShare *share)
{
    /* Every handle that used it is gone by now; were one still attached,
     * libcurl would refuse, and the share is then left rather than freed
     * under it. */
    if (curl_share_cleanup(share->handle) == CURLSHE_OK) {
        drop_bundle(share->bundle);
        std::free(share);
    }
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

CURLcode CurlShareUse::trust(CURL *curl, const char *path)
{
    const CaBundle *bundle = nullptr;
    if (share_ != nullptr) {
        MutexLock lock(g_share_mutex);
        if (!share_->bundle_tried) {
            share_->bundle = read_bundle(path);
            share_->bundle_tried = true;
        }
        if (share_->bundle.certs != nullptr)
            bundle = &share_->bundle;
    }
    if (bundle != nullptr) {
        CURLcode result = curl_easy_setopt(curl, CURLOPT_CAINFO, static_cast<const char *>(nullptr));
        if (result == CURLE_OK)
            result = curl_easy_setopt(curl, CURLOPT_CAPATH, path);
        if (result == CURLE_OK)
            result = curl_easy_setopt(curl, CURLOPT_SSL_CTX_FUNCTION, give_bundle);
        if (result == CURLE_OK)
            result = curl_easy_setopt(curl, CURLOPT_SSL_CTX_DATA, bundle);
        if (result == CURLE_OK)
            return CURLE_OK;
        /* A TLS back end without the hook: the file, as without the share. */
        (void)curl_easy_setopt(curl, CURLOPT_CAPATH, static_cast<const char *>(nullptr));
        (void)curl_easy_setopt(curl, CURLOPT_SSL_CTX_FUNCTION, static_cast<curl_ssl_ctx_callback>(nullptr));
    }
    return curl_easy_setopt(curl, CURLOPT_CAINFO, path);
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
