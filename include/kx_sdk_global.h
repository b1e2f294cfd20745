/*
 * kx_sdk_global.h -- Initialisation, process-wide state, service domain and URL building.
 * Reach it through kx_cloud_openapi.h.
 *
 * The library is brought up once per process with KX_GLOBAL_INIT(domain) and
 * taken down with KX_GLOBAL_DEINIT(). Every request call first reads
 * bGlobalInited under sGlobalInitMutex and refuses with
 * "please firstly to call KX_GLOBAL_INIT()!" and -1 while it is 0.
 */
#ifndef KX_SDK_GLOBAL_H
#define KX_SDK_GLOBAL_H

#include <pthread.h>

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

/* 1 while the library is initialised, 0 otherwise. Read and written only
 * under sGlobalInitMutex; callers should treat it as read-only. */
KX_API extern int32_t bGlobalInited;

/* Guards bGlobalInited and serialises KX_GLOBAL_INIT and KX_GLOBAL_DEINIT
 * against each other. Statically initialised with default attributes. */
KX_API extern pthread_mutex_t sGlobalInitMutex;

/* Lives beside the domain store; no call of the library takes it. */
KX_API extern pthread_mutex_t sDomainNameMutex;

/* The push channel's client; null until the push channel sets it. */
KX_API extern void *lwsclient;

/*
 * Brings the library up: logs the version "2.00.4.0.0", initialises libcurl
 * for the whole process (CURL_GLOBAL_ALL), stores psDNS as the service domain
 * (a host name without scheme or path) and loads the server's public key into
 * gpKey. psDNS stays the caller's. Until KX_GLOBAL_DEINIT the transfers keep
 * TLS sessions and DNS answers in one share, so that calls after the first to
 * a host resume its TLS session (each on its own connection), and the share
 * keeps the CA bundle's certificates, read at the first secure call instead
 * of by every call (a change of the bundle file is seen after the next
 * initialisation); a build with KX_CURL_SHARE=OFF, or a share that cannot be
 * allocated, leaves every call a full handshake and its own reading of the
 * bundle.
 *
 * Only the first 64 characters of psDNS are considered: a domain of 65 or
 * more characters is stored as the empty string (URLs built from it have no
 * host part) and initialisation still succeeds. A key that cannot be loaded
 * does not fail initialisation either; answers then fail their verification.
 *
 * Returns 0 on success and when the library is already initialised (the
 * second call's domain is then ignored); -1 when psDNS is null (nothing is
 * done) or libcurl cannot be initialised (the library stays uninitialised).
 */
KX_API int32_t KX_GLOBAL_INIT(const char *psDNS);

/*
 * Takes the library down: releases the share of TLS sessions and DNS answers
 * (a call still running keeps it until it ends), cleans libcurl up, clears
 * bGlobalInited and then releases gpKey. Nothing counts initialisations: one call ends the
 * initialised state. Without a prior initialisation it does nothing. The
 * stored domain is kept. Must not overlap a running request call. Always
 * returns 0.
 */
KX_API int32_t KX_GLOBAL_DEINIT(void);

/*
 * Stores domain (up to 255 characters; "" is accepted) as the process-wide
 * service domain. Returns 0 when stored; -1 for a null domain or one of 256
 * or more characters, the previous domain then being kept. No lock is taken:
 * the library sets the domain only inside KX_GLOBAL_INIT.
 */
KX_API int32_t KX_SDK_SET_DOMAIN(const char *domain);

/*
 * Returns the process-wide domain store itself (a 256-byte array holding a
 * NUL-terminated host name), not a copy. Before any KX_SDK_SET_DOMAIN it
 * holds the default service host "cloud-api.kx-tv.com". The caller must not
 * free it; it stays valid for the life of the process and changes when the
 * domain is set again.
 */
KX_API char *KX_SDK_GET_DOMAIN(void);

/*
 * Joins scheme, domain and path into a new URL:
 *   "https://" + domain + path             for scheme "https://"
 *   "http://"  + domain + ":80" + path     for scheme "http://"
 * The scheme must be exactly one of those two texts (case-sensitive).
 * *out must be null on entry; on success it receives the URL, a NUL-terminated
 * text allocated with calloc that becomes the caller's (release it with free
 * or KX_SDK_FREE). domain "" gives a URL without host ("https:///path").
 *
 * Returns 0 on success; -1 for a null scheme, domain or path, a null out or a
 * non-null *out (which is left as it was), an unknown scheme, or when memory
 * runs out. On -1 *out is not changed and nothing is leaked.
 */
KX_API int32_t KX_SDK_CREATE_URL(const char *scheme, const char *domain, const char *path, char **out);

KX_END_DECLS

#endif
