/*
 * The local test cloud: a real HTTPS listener (ephemeral 127.0.0.1 port,
 * certificate issued by the CA that the test build embeds) and a plain HTTP
 * listener on 127.0.0.1:80, both recording every request exactly as it
 * arrived and answering with what the test scripted, including answers that
 * stall, trickle, hang up half-way, redirect, arrive chunked or gzip-encoded.
 *
 * Built on cpp-httplib (Debian's libcpp-httplib-dev): a maintained distribution
 * package, HTTP/1.1 with TLS through the same OpenSSL the library uses, a
 * listener with its own worker threads, and a request parser we need not
 * write. Two things it does not give a test server, so the cloud adds them
 * around it (see test_cloud.cpp):
 *  - The wire as sent. httplib keeps headers in a name-sorted map and decodes
 *    the path; the cloud reads each connection through its own stream, keeps
 *    the bytes, and takes the raw target and the headers in arrival order
 *    from them.
 *  - The wire as answered. httplib would compress text answers for clients
 *    that accept gzip, cut ranges on its own terms and cannot hang up at a
 *    chosen byte; the cloud writes each answer onto the connection itself
 *    (status line, headers, body or chunks, pauses and hang-ups) and
 *    discards what httplib would have written after it.
 *
 * Every connection carries one request ("Connection: close"); each library
 * call uses a fresh handle anyway. TLS sessions may be resumed (the listener
 * issues session tickets); each request records whether its handshake did. Delays and stalls sleep in small steps and
 * end as soon as the Cloud is being destroyed, so no test waits on a stalled
 * answer, and no thread or listener outlives its Cloud.
 *
 * Usable from any program: nothing here depends on GoogleTest (the signed
 * answers use tests/support/test_crypto, which needs only OpenSSL).
 */
#ifndef KX_TEST_CLOUD_H
#define KX_TEST_CLOUD_H

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kxcloud {

/* One recorded request, exactly as received. */
struct Request {
    bool tls = false;    /* arrived on the HTTPS listener */
    bool resumed = false; /* its TLS handshake resumed an earlier session */
    std::string method;  /* "GET", "POST", "HEAD" */
    std::string path;    /* "/aaa/sign_in" (no query, not decoded) */
    std::string query;   /* raw query text after '?', not decoded ("" if none) */
    std::string target;  /* raw request target as sent: path + "?" + query */
    std::string body;    /* raw body bytes */
    std::vector<std::pair<std::string, std::string>> headers; /* in arrival order */

    /* Value of the first header of that name (case-insensitive), "" if absent. */
    std::string header(const std::string &name) const;
    bool has_header(const std::string &name) const;
    /* The body parsed as k=v&k=v; keys and values are NOT decoded. */
    std::map<std::string, std::string> form() const;
    /* The same for the query. */
    std::map<std::string, std::string> query_form() const;
};

/* What the cloud answers. Reply{status, body[, type[, headers]]} is the
 * short form; every other field is set by name. */
struct Reply {
    Reply() = default;
    Reply(int status_, std::string body_ = std::string(), std::string content_type_ = "text/plain",
          std::vector<std::pair<std::string, std::string>> headers_ = {})
        : status(status_), body(std::move(body_)), content_type(std::move(content_type_)),
          headers(std::move(headers_)) {}

    int status = 200;
    std::string body;
    std::string content_type = "text/plain"; /* "" sends no Content-Type */
    std::vector<std::pair<std::string, std::string>> headers; /* extra response headers */
    bool chunked = false;     /* Transfer-Encoding: chunked (no Content-Length) */
    bool gzip = false;        /* send body gzip-compressed with Content-Encoding: gzip */
    int delay_ms = 0;         /* wait before sending anything */
    size_t chunk_size = 0;    /* >0: write the body in pieces of this size */
    int piece_delay_ms = 0;   /* pause between pieces (slow trickle) */
    long stall_after = -1;    /* >=0: after this many body bytes, stop sending for stall_ms */
    int stall_ms = 0;
    long drop_after = -1;     /* >=0: after this many body bytes, close the connection */
    std::string redirect_to;  /* non-empty: answer 302 with Location: redirect_to */
    bool honour_range = true; /* answer "Range: bytes=N-" with 206 and the tail */
};

using Handler = std::function<Reply(const Request &)>;

struct Options {
    bool https = true;           /* TLS listener on an ephemeral 127.0.0.1 port */
    bool http80 = true;          /* plain listener on 127.0.0.1:80 (needs the netns / root) */
    int https_port = 0;          /* 0: an ephemeral port; else this one (a server on the same address) */
    std::string cert = "server"; /* "server" (issued by the embedded CA) or "other_server" */
};

class Cloud {
public:
    /* Starts listening before it returns. A listener that cannot start is
     * reported by http_ready() / https_port() (0), never by an abort. */
    explicit Cloud(Options options = Options());
    /* Stops promptly, even with stalled connections. */
    ~Cloud();
    Cloud(const Cloud &) = delete;
    Cloud &operator=(const Cloud &) = delete;

    /* One process-wide instance with default options, started on first use and
     * stopped when the program exits. */
    static Cloud &shared();

    bool http_ready() const;          /* port 80 is listening */
    int https_port() const;           /* 0 when the TLS listener did not start */
    std::string https_domain() const; /* "127.0.0.1:<port>": "https://" + this + path */
    std::string http_domain() const;  /* "127.0.0.1": "http://" + this + ":80" + path */

    /* Route a method ("*" = any) and an exact path to a handler. A later route
     * for the same method and path replaces the earlier one; a route for the
     * exact method wins over "*"; HEAD falls back to the GET route. */
    void route(const std::string &method, const std::string &path, Handler handler);
    /* Route to a fixed answer. */
    void reply(const std::string &method, const std::string &path, Reply reply);
    /* Change every answer to a path ("*" = every path, unrouted ones too)
     * after its route made it: how a misbehaving cloud is made from services
     * that know nothing of it (kx_local_cloud's fault options, faults.h).
     * Changes apply in the order they were added, those for "*" first. */
    void alter(const std::string &path, std::function<void(Reply &)> change);
    /* Every routed path, sorted, once each. */
    std::vector<std::string> paths() const;
    /* Forget routes, changes and recorded requests. */
    void reset();
    /* All recorded requests, in arrival order. */
    std::vector<Request> requests() const;
    /* The last recorded request (an empty Request if none). */
    Request last() const;
    /* An unrouted path answers 404 with an empty body. */

    struct State;

private:
    std::unique_ptr<State> state_;
};

/* Signed answers in the cloud's envelope, signed with the build's
 * answer-signing key. */
std::string signed_json(const std::string &object_without_signature); /* {...,"signatureServer":"..."} */
std::string signed_xml(const std::string &xml_without_signature); /* <signatureServer>...</signatureServer> before the root's end tag */

/* gzip stream (zlib, window bits 31) of the given bytes, and the bytes of
 * such a stream ("" when it is not one, or does not end). */
std::string gzip_bytes(const std::string &bytes);
std::string gunzip_bytes(const std::string &stream);

}  // namespace kxcloud

#endif
