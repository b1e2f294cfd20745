/*
 * The process's libcurl share: TLS sessions and DNS answers kept between the
 * calls of one initialisation, so that the second call to a host resumes the
 * TLS session the first one negotiated instead of repeating the full
 * handshake (for the device and for the cloud alike).
 *
 *   KX_GLOBAL_INIT    kx::curl_share_start()   after curl_global_init
 *   KX_GLOBAL_DEINIT  kx::curl_share_stop()    before curl_global_cleanup
 *
 *   kx::CurlShareUse share;          // declared before the handle's owner,
 *   CURL *curl = curl_easy_init();   // so that it outlives the handle
 *   ...
 *   share.attach(curl);
 *
 * Only sessions and DNS answers are shared, never connections: every call
 * still makes its own easy handle and opens (and closes) its own connection,
 * so a socket mark, a time-out or a header of one call never reaches
 * another. libcurl keys a session by scheme, host, port and the TLS settings
 * (CA file, peer and host checks), so a session is only offered to the same
 * server under the same checks, and the server's certificate is checked again
 * whenever it does not resume.
 *
 * Calls on several threads use the share at once: libcurl takes one mutex per
 * kind of shared data through the lock callbacks here. A call that starts
 * before KX_GLOBAL_INIT or after KX_GLOBAL_DEINIT runs without a share, exactly
 * as a build without sharing does. A de-initialisation that overlaps a running
 * call (the caller is to order them) does not pull the share from under it:
 * each call holds a reference, and the last one out releases a retired share.
 *
 * libcurl 7.88 (up to 8.4 at least) spoils its session cache when an
 * allocation fails while it stores a session: the slot keeps the address of
 * the host name it has just freed, and the next session stored there frees
 * it again. Per call, that cache died with the handle; shared, it would go off
 * in a later call on any thread. So a call whose handle reports "failed to
 * store ssl session" retires the share (released safely: libcurl skips empty
 * slots then) and puts a fresh one in its place.
 *
 * The share also keeps the certificates of the CA bundle, read from the file
 * once (at the first secure call) instead of by every call: libcurl would
 * read and parse the whole bundle for every connection, which for a bundle of
 * the usual size costs far more than the rest of a resumed handshake. Each
 * connection still gets a trust store of its own, filled with those same
 * certificates (shared by reference, not parsed again) before the handshake
 * needs it; the certificates trusted, the checks made and the bytes on the
 * wire are the same. A bundle that cannot be read whole leaves every call to
 * read it itself, as without the share, so a missing or broken bundle fails
 * exactly as before. Calls that trust the kept certificates are told apart in
 * libcurl's session cache by naming the bundle as their CA path (a lookup that
 * finds nothing, since the name is a file), so a session made under other
 * trust is never offered to them.
 *
 * Sharing is a build option (KX_CURL_SHARE, default on). A share that cannot
 * be made (no memory) leaves the library initialised and the calls as they
 * are without sharing: a full handshake each.
 */
#ifndef KX_INTERNAL_CURL_SHARE_H
#define KX_INTERNAL_CURL_SHARE_H

#include <curl/curl.h>

namespace kx {

struct CurlShare;

/* Makes the share; called under sGlobalInitMutex. */
void curl_share_start();
/* Retires the share: released now, or by the last call still using it. */
void curl_share_stop();

/* One call's hold on the share (none when there is none). */
class CurlShareUse {
public:
    CurlShareUse();
    ~CurlShareUse();
    CurlShareUse(const CurlShareUse &) = delete;
    CurlShareUse &operator=(const CurlShareUse &) = delete;

    /* Points the call's handle at the share. The option's result is not
     * counted with the call's others: a handle that cannot take the share
     * transfers without it. */
    void attach(CURL *curl);

    /* The CA bundle `path` as the handle's trust: the share's certificates
     * when it holds them, else the file itself (CURLOPT_CAINFO). The result
     * is the options' own. */
    CURLcode trust(CURL *curl, const char *path);

private:
    CurlShare *share_;
    char errors_[CURL_ERROR_SIZE];
};

}  // namespace kx

#endif
