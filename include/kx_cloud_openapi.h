/*
 * kx_cloud_openapi.h -- the whole public interface of libkx_cloud_openapi,
 * version "2.00.4.0.0": the client library through which a television's or a
 * sound bar's resident software reaches its maker's cloud.
 *
 * Conventions (they hold for every declaration below unless its comment says
 * otherwise):
 *
 *  - Linkage. Every function and variable has C linkage; this header compiles
 *    as C99 and as C++.
 *  - Results. Functions return a 32-bit status: 0 for success, -1 for failure.
 *    A request call returns 0 only when the cloud's answer passed its signature
 *    check; a failed transfer therefore shows as a failed verification. The
 *    exceptions say so in their comments (the download returns libcurl's code,
 *    the gzip helpers zlib's codes, the URL encoder a length).
 *  - Order of checks. Initialisation first ("please firstly to call
 *    KX_GLOBAL_INIT()!"), then arguments ("invalid arg!"), then allocation
 *    ("out of memory."): a failing check logs and returns before anything is
 *    allocated.
 *  - Start and stop. Call KX_GLOBAL_INIT(domain) once per process before any
 *    request call and KX_GLOBAL_DEINIT() at the end. Nothing counts
 *    initialisations, and nothing protects a de-initialisation from a request
 *    still running: the caller orders them.
 *  - Ownership. The caller owns every request record, the domain text, its
 *    streams and result buffers; the library keeps no pointer to them after a
 *    call returns. Memory the library hands out (URLs, cipher texts, verified
 *    texts) is allocated with calloc and becomes the caller's, to be released
 *    with KX_SDK_FREE or free.
 *  - Null rules. A null record, stream or required text is refused with
 *    "invalid arg!" and -1, never dereferenced.
 *  - Threads. Calls run on the caller's thread and block it for at most their
 *    time-outs (connect 10 or 30 s, whole transfer 20 s). Calls that share a
 *    fixed answer file under /tmp must not run at the same time.
 *  - Logging. Every line goes to the maker's debug-log library
 *    (vtlDebugCheckLevelGetFrameAndChunk, vtlDebugOutput0) as
 *    "file:line:function(): message", in an error and an information class.
 *    Define those two functions in the application to receive the lines.
 *  - Configuration. No configuration file and no environment variable: the
 *    domain, tokens and identities come with the calls; the server key, the
 *    AES pairs and the CA bundle path are fixed when the library is built.
 */
#ifndef KX_CLOUD_OPENAPI_H
#define KX_CLOUD_OPENAPI_H

#include "kx_sdk_types.h"
#include "kx_sdk_global.h"
#include "kx_sdk_list.h"
#include "kx_sdk_security.h"
#include "kx_sdk_transport.h"
#include "kx_sdk_verify.h"
#include "kx_sdk_account.h"
#include "kx_sdk_upgrade.h"
#include "kx_sdk_ad.h"
#include "kx_sdk_log.h"
#include "kx_sdk_external.h"
#include "kx_sdk_lws.h"
#include "kx_sdk_voice.h"

#endif
