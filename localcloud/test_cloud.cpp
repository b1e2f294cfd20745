#include "test_cloud.h"

#include "test_crypto.h"

#include <httplib.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <type_traits>

namespace kxcloud {

namespace {

using Clock = std::chrono::steady_clock;

/* How long one connection may sit idle (no byte either way) before the cloud
 * gives up on it; and the step in which every wait looks at the stop flag. */
constexpr auto kIdleLimit = std::chrono::seconds(15);
constexpr int kStepMs = 20;
constexpr size_t kWorkers = 8;

bool same_name(const std::string &a, const std::string &b)
{
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

std::string trim(const std::string &s)
{
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos)
        return "";
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

std::map<std::string, std::string> parse_pairs(const std::string &text)
{
    std::map<std::string, std::string> out;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t amp = text.find('&', pos);
        if (amp == std::string::npos)
            amp = text.size();
        std::string item = text.substr(pos, amp - pos);
        if (!item.empty()) {
            size_t eq = item.find('=');
            if (eq == std::string::npos)
                out[item] = "";
            else
                out[item.substr(0, eq)] = item.substr(eq + 1);
        }
        pos = amp + 1;
    }
    return out;
}

const char *reason_of(int status)
{
    switch (status) {
    case 100: return "Continue";
    case 200: return "OK";
    case 201: return "Created";
    case 204: return "No Content";
    case 206: return "Partial Content";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 304: return "Not Modified";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 416: return "Range Not Satisfiable";
    case 500: return "Internal Server Error";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    default: return "Status";
    }
}

/*
 * One accepted connection, read and written by the cloud itself. httplib
 * parses the request through it; every byte received is kept in `seen`, so
 * the handler can take the raw target and the headers in arrival order. Once
 * the cloud has written its answer, `answered` makes further writes (httplib's
 * own answer) vanish.
 */
class Wire : public httplib::Stream {
public:
    Wire(int fd, SSL *ssl, const std::atomic<bool> &stopping) : fd_(fd), ssl_(ssl), stopping_(stopping) {}

    bool is_readable() const override
    {
        if (pos_ < pending_.size())
            return true;
        if (ssl_ != nullptr && SSL_pending(ssl_) > 0)
            return true;
        struct pollfd p = {fd_, POLLIN, 0};
        return ::poll(&p, 1, 0) > 0;
    }
    bool is_writable() const override { return !stopping_; }

    ssize_t read(char *ptr, size_t size) override
    {
        if (pos_ >= pending_.size()) {
            pending_.clear();
            pos_ = 0;
            if (!fill())
                return eof_ ? 0 : -1;
        }
        size_t n = std::min(size, pending_.size() - pos_);
        std::memcpy(ptr, pending_.data() + pos_, n);
        pos_ += n;
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const char *ptr, size_t size) override
    {
        if (answered)
            return static_cast<ssize_t>(size);
        return send_all(ptr, size) ? static_cast<ssize_t>(size) : -1;
    }

    void get_remote_ip_and_port(std::string &ip, int &port) const override { address(false, ip, port); }
    void get_local_ip_and_port(std::string &ip, int &port) const override { address(true, ip, port); }
    socket_t socket() const override { return fd_; }

    /* Writes all bytes, waiting for the peer in small steps. */
    bool send_all(const char *data, size_t size)
    {
        size_t done = 0;
        auto deadline = Clock::now() + kIdleLimit;
        while (done < size) {
            if (stopping_ || Clock::now() > deadline)
                return false;
            ssize_t n;
            bool want_read = false;
            if (ssl_ != nullptr) {
                ERR_clear_error();
                int r = SSL_write(ssl_, data + done, static_cast<int>(std::min<size_t>(size - done, 1 << 20)));
                if (r > 0) {
                    n = r;
                } else {
                    int e = SSL_get_error(ssl_, r);
                    if (e != SSL_ERROR_WANT_WRITE && e != SSL_ERROR_WANT_READ)
                        return false;
                    want_read = e == SSL_ERROR_WANT_READ;
                    n = 0;
                }
            } else {
                n = ::send(fd_, data + done, size - done, MSG_NOSIGNAL);
                if (n < 0) {
                    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                        return false;
                    n = 0;
                }
            }
            if (n > 0) {
                done += static_cast<size_t>(n);
                deadline = Clock::now() + kIdleLimit;
            } else {
                wait_for(want_read ? POLLIN : POLLOUT);
            }
        }
        return true;
    }

    /* Reads and discards until the peer closes, for at most `ms`. */
    void drain(int ms)
    {
        auto deadline = Clock::now() + std::chrono::milliseconds(ms);
        char buf[4096];
        while (!stopping_ && Clock::now() < deadline) {
            ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
            if (n == 0)
                return;
            if (n < 0) {
                if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                    return;
                wait_for(POLLIN);
            }
        }
    }

    /* TLS handshake on the non-blocking socket. */
    bool accept_tls()
    {
        auto deadline = Clock::now() + kIdleLimit;
        for (;;) {
            ERR_clear_error();
            int r = SSL_accept(ssl_);
            if (r == 1)
                return true;
            int e = SSL_get_error(ssl_, r);
            if ((e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE) || stopping_ || Clock::now() > deadline)
                return false;
            wait_for(e == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT);
        }
    }

    /* The client has hung up (or reset): nobody is waiting for the answer. */
    bool peer_gone() const
    {
        struct pollfd p = {fd_, POLLRDHUP, 0};
        return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
    }

    const std::string &seen() const { return seen_; }
    bool resumed() const { return ssl_ != nullptr && SSL_session_reused(ssl_) == 1; }

    bool answered = false; /* the cloud's answer is on the wire */
    bool dropped = false;  /* the answer was cut off on purpose: hang up without a goodbye */

private:
    void wait_for(short events) const
    {
        struct pollfd p = {fd_, events, 0};
        ::poll(&p, 1, kStepMs);
    }

    /* Receives the next bytes into pending_; false on end, error or time-out. */
    bool fill()
    {
        char buf[16384];
        auto deadline = Clock::now() + kIdleLimit;
        while (!stopping_ && Clock::now() < deadline) {
            ssize_t n;
            bool want_write = false;
            if (ssl_ != nullptr) {
                ERR_clear_error();
                int r = SSL_read(ssl_, buf, sizeof buf);
                if (r > 0) {
                    n = r;
                } else {
                    int e = SSL_get_error(ssl_, r);
                    if (e == SSL_ERROR_ZERO_RETURN) {
                        eof_ = true;
                        return false;
                    }
                    if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE)
                        return false;
                    want_write = e == SSL_ERROR_WANT_WRITE;
                    n = -1;
                }
            } else {
                n = ::recv(fd_, buf, sizeof buf, 0);
                if (n == 0) {
                    eof_ = true;
                    return false;
                }
                if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                    return false;
            }
            if (n > 0) {
                pending_.append(buf, static_cast<size_t>(n));
                seen_.append(buf, static_cast<size_t>(n));
                return true;
            }
            wait_for(want_write ? POLLOUT : POLLIN);
        }
        return false;
    }

    void address(bool local, std::string &ip, int &port) const
    {
        struct sockaddr_in a;
        socklen_t len = sizeof a;
        std::memset(&a, 0, sizeof a);
        int r = local ? ::getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len)
                      : ::getpeername(fd_, reinterpret_cast<sockaddr *>(&a), &len);
        if (r != 0 || a.sin_family != AF_INET)
            return;
        char text[INET_ADDRSTRLEN] = {0};
        ::inet_ntop(AF_INET, &a.sin_addr, text, sizeof text);
        ip = text;
        port = ntohs(a.sin_port);
    }

    int fd_;
    SSL *ssl_;
    const std::atomic<bool> &stopping_;
    std::string pending_;
    size_t pos_ = 0;
    std::string seen_;
    bool eof_ = false;
};

/* The connection whose request the current worker thread is handling. */
thread_local Wire *current_wire = nullptr;

}  // namespace

struct Cloud::State {
    Options options;
    std::atomic<bool> stopping{false};

    mutable std::mutex mutex;
    std::map<std::pair<std::string, std::string>, Handler> routes;
    std::map<std::string, std::vector<std::function<void(Reply &)>>> changes; /* by path */
    std::vector<Request> recorded;

    std::unique_ptr<httplib::Server> http;
    std::unique_ptr<httplib::Server> https;
    std::thread http_thread;
    std::thread https_thread;
    bool http_ready = false;
    int https_port = 0;

    void serve(Wire &wire, const httplib::Request &hreq, const std::string &body, bool tls);
    Request parse(const Wire &wire, const httplib::Request &hreq, const std::string &body, bool tls) const;
    Handler find(const std::string &method, const std::string &path) const;
    void answer(Wire &wire, const Request &req, Reply rep);
    bool pause(int ms, const Wire &wire) const;
    void start(httplib::Server &server, std::thread &thread);
};

namespace {

/*
 * A listener whose connections go through Wire instead of httplib's own
 * sockets: one request per connection, TLS accepted here for the secure one.
 */
template <class Base>
class Listener : public Base {
public:
    template <class... Args>
    Listener(Cloud::State &state, Args &&...args) : Base(std::forward<Args>(args)...), state_(state)
    {
        this->new_task_queue = [] { return new httplib::ThreadPool(kWorkers); };
        /* SO_REUSEADDR only: httplib's default also sets SO_REUSEPORT, which
         * would let two clouds share port 80 and split the requests. */
        this->set_socket_options([](socket_t sock) {
            int yes = 1;
            ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
        auto handler = [this](const httplib::Request &hreq, httplib::Response &) {
            if (current_wire != nullptr)
                state_.serve(*current_wire, hreq, hreq.body, kTls);
        };
        /* Bodies are read through a content reader: httplib's own reading
         * refuses form-encoded bodies above 8 KiB, and libcurl labels every
         * POST form-encoded unless told otherwise. */
        auto reading = [this](const httplib::Request &hreq, httplib::Response &,
                              const httplib::ContentReader &reader) {
            std::string body;
            if (hreq.is_multipart_form_data())
                reader([](const httplib::MultipartFormData &) { return true; },
                       [](const char *, size_t) { return true; });
            else
                reader([&body](const char *data, size_t size) {
                    body.append(data, size);
                    return true;
                });
            if (current_wire != nullptr)
                state_.serve(*current_wire, hreq, body, kTls);
        };
        /* Every path (httplib matches its decoded form, which may hold any byte). */
        const std::string any = "[\\s\\S]*";
        this->Get(any, handler);
        this->Options(any, handler);
        this->Post(any, reading);
        this->Put(any, reading);
        this->Patch(any, reading);
        this->Delete(any, reading);
    }

private:
    static constexpr bool kTls = std::is_base_of<httplib::SSLServer, Base>::value;

    bool process_and_close_socket(socket_t sock) override
    {
        int flags = ::fcntl(sock, F_GETFL, 0);
        ::fcntl(sock, F_SETFL, flags | O_NONBLOCK);
        int yes = 1;
        ::setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);

        std::unique_ptr<SSL, void (*)(SSL *)> owned(nullptr, SSL_free);
        if constexpr (kTls) {
            owned.reset(SSL_new(this->ssl_context()));
            if (owned)
                SSL_set_fd(owned.get(), sock);
        }
        SSL *ssl = owned.get();
        bool ok = true;
        {
            Wire wire(sock, ssl, state_.stopping);
            if (kTls && (ssl == nullptr || !wire.accept_tls())) {
                ok = false;
            } else {
                current_wire = &wire;
                bool closed = false;
                ok = this->process_request(wire, true, closed, nullptr);
                current_wire = nullptr;
                wire.answered = true;
                if (!wire.dropped) {
                    /* A clean end: close_notify, then our half of the
                     * connection, then wait for the client to hang up so
                     * that closing never resets a connection whose answer
                     * is still unread. */
                    if (ssl != nullptr)
                        SSL_shutdown(ssl);
                    ::shutdown(sock, SHUT_WR);
                    wire.drain(1000);
                }
            }
        }
        owned.reset();
        ::close(sock);
        return ok;
    }

    Cloud::State &state_;
};

}  // namespace

/* ---- requests ----------------------------------------------------------- */

std::string Request::header(const std::string &name) const
{
    for (const auto &h : headers)
        if (same_name(h.first, name))
            return h.second;
    return "";
}

bool Request::has_header(const std::string &name) const
{
    for (const auto &h : headers)
        if (same_name(h.first, name))
            return true;
    return false;
}

std::map<std::string, std::string> Request::form() const { return parse_pairs(body); }
std::map<std::string, std::string> Request::query_form() const { return parse_pairs(query); }

Request Cloud::State::parse(const Wire &wire, const httplib::Request &hreq, const std::string &body, bool tls) const
{
    Request req;
    req.tls = tls;
    req.resumed = wire.resumed();
    req.method = hreq.method;
    req.body = body;
    const std::string &raw = wire.seen();
    size_t head_end = raw.find("\r\n\r\n");
    if (head_end == std::string::npos) {
        req.target = hreq.target;
    } else {
        std::string head = raw.substr(0, head_end + 2);
        size_t line_end = head.find("\r\n");
        std::string line = head.substr(0, line_end);
        size_t sp1 = line.find(' ');
        size_t sp2 = line.rfind(' ');
        if (sp1 != std::string::npos && sp2 > sp1)
            req.target = line.substr(sp1 + 1, sp2 - sp1 - 1);
        size_t pos = line_end + 2;
        while (pos < head.size()) {
            size_t end = head.find("\r\n", pos);
            std::string h = head.substr(pos, end - pos);
            pos = end + 2;
            size_t colon = h.find(':');
            if (colon == std::string::npos)
                continue;
            req.headers.emplace_back(h.substr(0, colon), trim(h.substr(colon + 1)));
        }
        /* The body as it came, unless it came in chunks (then the decoded
         * body is the body). */
        std::string length = req.header("Content-Length");
        if (!length.empty() && req.header("Transfer-Encoding").find("chunked") == std::string::npos) {
            size_t n = std::strtoul(length.c_str(), nullptr, 10);
            req.body = raw.substr(head_end + 4, n);
        }
    }
    size_t q = req.target.find('?');
    req.path = req.target.substr(0, q);
    if (q != std::string::npos)
        req.query = req.target.substr(q + 1);
    return req;
}

Handler Cloud::State::find(const std::string &method, const std::string &path) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto it = routes.find({method, path});
    if (it == routes.end() && method == "HEAD")
        it = routes.find({"GET", path});
    if (it == routes.end())
        it = routes.find({"*", path});
    return it == routes.end() ? Handler() : it->second;
}

/* Records the request, then writes the routed answer (404 when unrouted). */
void Cloud::State::serve(Wire &wire, const httplib::Request &hreq, const std::string &body, bool tls)
{
    Request req = parse(wire, hreq, body, tls);
    {
        std::lock_guard<std::mutex> lock(mutex);
        recorded.push_back(req);
    }
    Handler handler = find(req.method, req.path);
    Reply rep;
    if (handler) {
        rep = handler(req);
    } else {
        rep.status = 404;
        rep.content_type.clear();
    }
    std::vector<std::function<void(Reply &)>> apply;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const std::string &key : {std::string("*"), req.path}) {
            auto it = changes.find(key);
            if (it != changes.end())
                apply.insert(apply.end(), it->second.begin(), it->second.end());
        }
    }
    for (const auto &change : apply)
        change(rep);
    answer(wire, req, std::move(rep));
    wire.answered = true;
}

/* ---- answers ------------------------------------------------------------ */

/* Sleeps in small steps; false when the cloud is being stopped or the client
 * has given up (a stalled answer must not hold a worker after either). */
bool Cloud::State::pause(int ms, const Wire &wire) const
{
    auto until = Clock::now() + std::chrono::milliseconds(ms);
    while (Clock::now() < until) {
        if (stopping || wire.peer_gone())
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min<long>(
            kStepMs, std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count() + 1)));
    }
    return !stopping;
}

void Cloud::State::answer(Wire &wire, const Request &req, Reply rep)
{
    if (rep.delay_ms > 0 && !pause(rep.delay_ms, wire)) {
        wire.dropped = true;
        return;
    }
    int status = rep.status;
    std::string body = rep.gzip ? gzip_bytes(rep.body) : rep.body;
    std::vector<std::pair<std::string, std::string>> fields;
    if (!rep.redirect_to.empty()) {
        status = 302;
        fields.emplace_back("Location", rep.redirect_to);
    }
    if (rep.gzip)
        fields.emplace_back("Content-Encoding", "gzip");

    /* "Range: bytes=N-" (or "bytes=N-M") on a 200 answer: the tail from N. */
    std::string range = req.header("Range");
    if (rep.honour_range && status == 200 && range.compare(0, 6, "bytes=") == 0 &&
        range.find(',') == std::string::npos) {
        char *end = nullptr;
        unsigned long long first = std::strtoull(range.c_str() + 6, &end, 10);
        if (end != range.c_str() + 6 && *end == '-') {
            unsigned long long total = body.size();
            unsigned long long last = total == 0 ? 0 : total - 1;
            if (end[1] != '\0')
                last = std::min(last, std::strtoull(end + 1, nullptr, 10));
            if (first >= total || last < first) {
                status = 416;
                fields.emplace_back("Content-Range", "bytes */" + std::to_string(total));
                body.clear();
            } else {
                status = 206;
                fields.emplace_back("Content-Range", "bytes " + std::to_string(first) + "-" +
                                                         std::to_string(last) + "/" + std::to_string(total));
                body = body.substr(first, last - first + 1);
            }
        }
    }

    bool own_length = false;
    bool own_type = false;
    for (const auto &h : rep.headers) {
        own_length = own_length || same_name(h.first, "Content-Length");
        own_type = own_type || same_name(h.first, "Content-Type");
    }
    std::string head = "HTTP/1.1 " + std::to_string(status) + " " + reason_of(status) + "\r\n";
    if (!rep.content_type.empty() && !own_type)
        head += "Content-Type: " + rep.content_type + "\r\n";
    for (const auto &h : fields)
        head += h.first + ": " + h.second + "\r\n";
    for (const auto &h : rep.headers)
        head += h.first + ": " + h.second + "\r\n";
    if (rep.chunked)
        head += "Transfer-Encoding: chunked\r\n";
    else if (!own_length)
        head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    head += "Connection: close\r\n\r\n";
    if (!wire.send_all(head.data(), head.size())) {
        wire.dropped = true;
        return;
    }
    if (req.method == "HEAD")
        return;

    size_t piece = rep.chunk_size > 0 ? rep.chunk_size : std::max<size_t>(body.size(), 1);
    size_t sent = 0;
    bool stalled = false;
    for (;;) {
        if (rep.drop_after >= 0 && sent >= static_cast<size_t>(rep.drop_after)) {
            wire.dropped = true;
            return;
        }
        if (rep.stall_after >= 0 && !stalled && sent >= static_cast<size_t>(rep.stall_after)) {
            stalled = true;
            if (!pause(rep.stall_ms, wire)) {
                wire.dropped = true;
                return;
            }
        }
        if (sent >= body.size())
            break;
        size_t n = std::min(piece, body.size() - sent);
        if (rep.stall_after >= 0 && !stalled)
            n = std::min(n, static_cast<size_t>(rep.stall_after) - sent);
        if (rep.drop_after >= 0)
            n = std::min(n, static_cast<size_t>(rep.drop_after) - sent);
        std::string out;
        if (rep.chunked) {
            char size_line[32];
            std::snprintf(size_line, sizeof size_line, "%zx\r\n", n);
            out = size_line + body.substr(sent, n) + "\r\n";
        } else {
            out = body.substr(sent, n);
        }
        if (!wire.send_all(out.data(), out.size())) {
            wire.dropped = true;
            return;
        }
        sent += n;
        if (rep.piece_delay_ms > 0 && sent < body.size() && !pause(rep.piece_delay_ms, wire)) {
            wire.dropped = true;
            return;
        }
    }
    if (rep.chunked && !wire.send_all("0\r\n\r\n", 5))
        wire.dropped = true;
}

/* ---- the cloud ---------------------------------------------------------- */

/* Runs the bound listener on its own thread; returns once it accepts. */
void Cloud::State::start(httplib::Server &server, std::thread &thread)
{
    thread = std::thread([&server] { server.listen_after_bind(); });
    auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!server.is_running() && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

Cloud::Cloud(Options options) : state_(new State)
{
    State &s = *state_;
    s.options = std::move(options);
    if (s.options.https) {
        std::string base = kxtest::credentials_dir() + "/" + s.options.cert;
        auto server = std::make_unique<Listener<httplib::SSLServer>>(s, (base + ".pem").c_str(),
                                                                     (base + ".key").c_str());
        if (server->is_valid()) {
            int port = s.options.https_port;
            if (port == 0)
                port = server->bind_to_any_port("127.0.0.1");
            else if (!server->bind_to_port("127.0.0.1", port))
                port = 0;
            if (port > 0) {
                s.https_port = port;
                s.https = std::move(server);
                s.start(*s.https, s.https_thread);
            }
        }
    }
    if (s.options.http80) {
        auto server = std::make_unique<Listener<httplib::Server>>(s);
        if (server->bind_to_port("127.0.0.1", 80)) {
            s.http_ready = true;
            s.http = std::move(server);
            s.start(*s.http, s.http_thread);
        }
    }
}

Cloud::~Cloud()
{
    State &s = *state_;
    s.stopping = true;
    for (auto *pair : {&s.https, &s.http}) {
        if (*pair && (*pair)->is_running())
            (*pair)->stop();
    }
    if (s.https_thread.joinable())
        s.https_thread.join();
    if (s.http_thread.joinable())
        s.http_thread.join();
}

Cloud &Cloud::shared()
{
    static Cloud cloud;
    return cloud;
}

bool Cloud::http_ready() const { return state_->http_ready; }
int Cloud::https_port() const { return state_->https_port; }
std::string Cloud::https_domain() const { return "127.0.0.1:" + std::to_string(state_->https_port); }
std::string Cloud::http_domain() const { return "127.0.0.1"; }

void Cloud::route(const std::string &method, const std::string &path, Handler handler)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->routes[{method, path}] = std::move(handler);
}

void Cloud::reply(const std::string &method, const std::string &path, Reply reply)
{
    route(method, path, [reply](const Request &) { return reply; });
}

void Cloud::alter(const std::string &path, std::function<void(Reply &)> change)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->changes[path].push_back(std::move(change));
}

std::vector<std::string> Cloud::paths() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    std::vector<std::string> out;
    for (const auto &route : state_->routes)
        out.push_back(route.first.second);
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

void Cloud::reset()
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->routes.clear();
    state_->changes.clear();
    state_->recorded.clear();
}

std::vector<Request> Cloud::requests() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->recorded;
}

Request Cloud::last() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->recorded.empty() ? Request() : state_->recorded.back();
}

/* ---- answer bodies ------------------------------------------------------ */

std::string signed_json(const std::string &object_without_signature)
{
    return kxtest::signed_json(object_without_signature);
}

std::string signed_xml(const std::string &xml_without_signature)
{
    return kxtest::signed_xml(xml_without_signature);
}

std::string gzip_bytes(const std::string &bytes)
{
    z_stream z;
    std::memset(&z, 0, sizeof z);
    if (deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        return "";
    std::string out(deflateBound(&z, bytes.size()) + 32, '\0');
    z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.data()));
    z.avail_in = static_cast<uInt>(bytes.size());
    z.next_out = reinterpret_cast<Bytef *>(&out[0]);
    z.avail_out = static_cast<uInt>(out.size());
    int result = deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return result == Z_STREAM_END ? out : "";
}

std::string gunzip_bytes(const std::string &stream)
{
    z_stream z;
    std::memset(&z, 0, sizeof z);
    if (inflateInit2(&z, 31) != Z_OK)
        return "";
    z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(stream.data()));
    z.avail_in = static_cast<uInt>(stream.size());
    std::string out;
    int result = Z_OK;
    char chunk[16384];
    while (result == Z_OK) {
        z.next_out = reinterpret_cast<Bytef *>(chunk);
        z.avail_out = sizeof chunk;
        result = inflate(&z, Z_NO_FLUSH);
        out.append(chunk, sizeof chunk - z.avail_out);
    }
    inflateEnd(&z);
    return result == Z_STREAM_END ? out : "";
}

}  // namespace kxcloud
