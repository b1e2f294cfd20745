#include "wss_server.h"

#include "test_crypto.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <wslay/wslay.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace kxcloud {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kStepMs = 20;                           /* every wait looks at the stop flag this often */
constexpr auto kWriteLimit = std::chrono::seconds(5); /* a client that reads nothing for this long is gone */
constexpr auto kCloseWait = std::chrono::seconds(2);  /* for the client's answer to our close frame */
constexpr size_t kMaxHead = 16384;
constexpr uint64_t kMaxPayload = 16u << 20;
const char kGuid[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

std::string trim(const std::string &s)
{
    size_t b = s.find_first_not_of(" \t");
    return b == std::string::npos ? "" : s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

std::string accept_key(const std::string &key)
{
    std::string text = key + kGuid;
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest);
    unsigned char out[64];
    int n = EVP_EncodeBlock(out, digest, SHA_DIGEST_LENGTH);
    return std::string(reinterpret_cast<char *>(out), static_cast<size_t>(n));
}

void wait_fd(int fd, short events)
{
    struct pollfd p = {fd, events, 0};
    ::poll(&p, 1, kStepMs);
}

}  // namespace

/* One client connection. Its lock guards the TLS session and the frame
 * layer: the server thread reads under it, a test thread sends under it. */
struct Conn {
    enum Phase { kTls, kHttp, kOpen, kClosed };

    int fd = -1;
    SSL *ssl = nullptr;
    std::atomic<int> phase{kTls};
    int number = 0;
    std::string head;    /* the opening request, until its blank line */
    std::string pending; /* bytes read past the request, for the frame layer */
    wslay_frame_context_ptr layer = nullptr;
    WsFrame current;     /* the frame being received */
    uint64_t received = 0;
    bool eof = false;
    bool close_sent = false;
    Clock::time_point close_sent_at;
    const std::atomic<bool> *stopping = nullptr;
    std::mutex mutex;

    ~Conn()
    {
        if (layer != nullptr)
            wslay_frame_context_free(layer);
        if (ssl != nullptr)
            SSL_free(ssl);
        if (fd >= 0)
            ::close(fd);
    }

    /* Everything or nothing, waiting for a slow reader in small steps. */
    bool write_all(const uint8_t *data, size_t size)
    {
        size_t done = 0;
        auto deadline = Clock::now() + kWriteLimit;
        while (done < size) {
            if (ssl == nullptr || *stopping || Clock::now() > deadline)
                return false;
            ERR_clear_error();
            int r = SSL_write(ssl, data + done, static_cast<int>(std::min<size_t>(size - done, 1 << 20)));
            if (r > 0) {
                done += static_cast<size_t>(r);
                continue;
            }
            int e = SSL_get_error(ssl, r);
            if (e != SSL_ERROR_WANT_WRITE && e != SSL_ERROR_WANT_READ)
                return false;
            wait_fd(fd, e == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT);
        }
        return true;
    }

    /* What the frame layer reads: first the bytes that came with the
     * request, then the TLS session. -1 when there is nothing now. */
    ssize_t read_some(uint8_t *buf, size_t len)
    {
        if (!pending.empty()) {
            size_t n = std::min(len, pending.size());
            std::memcpy(buf, pending.data(), n);
            pending.erase(0, n);
            return static_cast<ssize_t>(n);
        }
        ERR_clear_error();
        int r = SSL_read(ssl, buf, static_cast<int>(std::min<size_t>(len, 1 << 20)));
        if (r > 0)
            return r;
        int e = SSL_get_error(ssl, r);
        if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE)
            eof = true;
        return -1;
    }

    bool send_frame(int opcode, const std::string &payload)
    {
        if (phase != kOpen || layer == nullptr)
            return false;
        struct wslay_frame_iocb iocb;
        std::memset(&iocb, 0, sizeof iocb);
        iocb.fin = 1;
        iocb.opcode = static_cast<uint8_t>(opcode);
        iocb.payload_length = payload.size();
        iocb.data = reinterpret_cast<const uint8_t *>(payload.data());
        iocb.data_length = payload.size();
        for (;;) {
            ssize_t r = wslay_frame_send(layer, &iocb);
            if (r < 0)
                return false;
            iocb.data += r;
            iocb.data_length -= static_cast<size_t>(r);
            if (iocb.data_length == 0)
                return true;
        }
    }
};

struct WssServer::State {
    WssOptions options;
    SSL_CTX *ctx = nullptr;
    int listen_fd = -1;
    int port = 0;
    std::atomic<bool> stopping{false};
    std::atomic<bool> answer_pings{true};
    std::thread thread;

    mutable std::mutex mutex; /* records and the list of connections; taken after a Conn's lock, never before */
    mutable std::condition_variable changed;
    uint64_t events = 0;
    std::vector<WsFrame> frames;
    std::vector<WsHandshake> handshakes;
    std::vector<std::shared_ptr<Conn>> conns;
    int tls_failures = 0;

    void run();
    void accept_all();
    void serve(Conn &conn);
    bool open(Conn &conn);
    void read_frames(Conn &conn);
    void on_frame(Conn &conn);
    void end(Conn &conn);
    void note(const std::function<void()> &record);
    std::shared_ptr<Conn> newest_open() const;
};

namespace {

ssize_t layer_send(const uint8_t *data, size_t len, int, void *user)
{
    auto *conn = static_cast<Conn *>(user);
    return conn->write_all(data, len) ? static_cast<ssize_t>(len) : -1;
}

ssize_t layer_recv(uint8_t *buf, size_t len, int, void *user)
{
    return static_cast<Conn *>(user)->read_some(buf, len);
}

int layer_mask(uint8_t *buf, size_t len, void *)
{
    std::memset(buf, 0, len); /* the server never masks */
    return 0;
}

const struct wslay_frame_callbacks kLayerCallbacks = {layer_send, layer_recv, layer_mask};

}  // namespace

/* Records something under the lock and wakes every waiter. */
void WssServer::State::note(const std::function<void()> &record)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        record();
        ++events;
    }
    changed.notify_all();
}

std::shared_ptr<Conn> WssServer::State::newest_open() const
{
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = conns.rbegin(); it != conns.rend(); ++it)
        if ((*it)->phase == Conn::kOpen)
            return *it;
    return nullptr;
}

void WssServer::State::accept_all()
{
    for (;;) {
        int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            return;
        int yes = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        auto conn = std::make_shared<Conn>();
        conn->fd = fd;
        conn->stopping = &stopping;
        conn->ssl = SSL_new(ctx);
        if (conn->ssl == nullptr)
            continue; /* closed by its destructor */
        SSL_set_fd(conn->ssl, fd);
        std::lock_guard<std::mutex> lock(mutex);
        conns.push_back(conn);
    }
}

/* The opening request is complete in conn.head: answer it. */
bool WssServer::State::open(Conn &conn)
{
    size_t end = conn.head.find("\r\n\r\n");
    conn.pending = conn.head.substr(end + 4);
    std::string request = conn.head.substr(0, end + 2);
    WsHandshake hs;
    hs.tls = true;
    /* "GET /push HTTP/1.1", then one "Name: value" a line. */
    size_t line_end = request.find("\r\n");
    const std::string line = request.substr(0, line_end);
    hs.method = line.substr(0, line.find(' '));
    size_t target_at = line.find(' ') + 1;
    hs.target = line.substr(target_at, line.rfind(' ') - target_at);
    hs.path = hs.target.substr(0, hs.target.find('?'));
    for (size_t pos = line_end + 2, next; pos < request.size(); pos = next + 2) {
        next = request.find("\r\n", pos);
        const std::string field = request.substr(pos, next - pos);
        const size_t colon = field.find(':');
        if (colon != std::string::npos)
            hs.headers.emplace_back(field.substr(0, colon), trim(field.substr(colon + 1)));
    }
    std::string key = hs.header("Sec-WebSocket-Key");
    if (hs.method != "GET" || key.empty()) {
        const char refusal[] = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        conn.write_all(reinterpret_cast<const uint8_t *>(refusal), sizeof refusal - 1);
        return false;
    }
    std::string answer = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                         "Sec-WebSocket-Accept: " + accept_key(key) + "\r\n";
    std::string offered = hs.header("Sec-WebSocket-Protocol");
    if (!offered.empty())
        answer += "Sec-WebSocket-Protocol: " + trim(offered.substr(0, offered.find(','))) + "\r\n";
    answer += "\r\n";
    if (!conn.write_all(reinterpret_cast<const uint8_t *>(answer.data()), answer.size()) ||
        wslay_frame_context_init(&conn.layer, &kLayerCallbacks, &conn) != 0)
        return false;
    hs.at = Clock::now();
    note([&] {
        conn.number = hs.connection = static_cast<int>(handshakes.size()) + 1;
        handshakes.push_back(hs);
        conn.phase = Conn::kOpen;
    });
    return true;
}

/* A whole frame has arrived in conn.current. */
void WssServer::State::on_frame(Conn &conn)
{
    conn.current.at = Clock::now();
    conn.current.connection = conn.number;
    WsFrame frame = conn.current;
    note([&] { frames.push_back(frame); });
    if (frame.opcode == kWsPing && answer_pings)
        conn.send_frame(kWsPong, frame.payload);
    if (frame.opcode == kWsClose) {
        if (!conn.close_sent)
            conn.send_frame(kWsClose, frame.payload.substr(0, 2));
        end(conn);
    }
}

void WssServer::State::read_frames(Conn &conn)
{
    while (conn.phase == Conn::kOpen) {
        struct wslay_frame_iocb iocb;
        std::memset(&iocb, 0, sizeof iocb);
        ssize_t r = wslay_frame_recv(conn.layer, &iocb);
        if (r == WSLAY_ERR_WANT_READ) {
            if (conn.eof)
                end(conn);
            return;
        }
        if (r < 0) {
            end(conn); /* a protocol violation: hang up */
            return;
        }
        if (conn.received == 0) {
            conn.current = WsFrame();
            conn.current.opcode = iocb.opcode;
            conn.current.fin = iocb.fin != 0;
            conn.current.masked = iocb.mask != 0;
        }
        conn.current.payload.append(reinterpret_cast<const char *>(iocb.data), iocb.data_length);
        conn.received += iocb.data_length;
        if (iocb.payload_length > kMaxPayload) {
            end(conn);
            return;
        }
        if (conn.received == iocb.payload_length) {
            conn.received = 0;
            on_frame(conn);
        }
    }
}

/* Moves one connection on as far as its bytes allow. */
void WssServer::State::serve(Conn &conn)
{
    if (conn.phase == Conn::kTls) {
        ERR_clear_error();
        int r = SSL_accept(conn.ssl);
        if (r != 1) {
            int e = SSL_get_error(conn.ssl, r);
            if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE) {
                note([&] { ++tls_failures; });
                end(conn);
            }
            return;
        }
        conn.phase = Conn::kHttp;
    }
    if (conn.phase == Conn::kHttp) {
        uint8_t buf[4096];
        for (;;) {
            ssize_t n = conn.read_some(buf, sizeof buf);
            if (n <= 0)
                break;
            conn.head.append(reinterpret_cast<char *>(buf), static_cast<size_t>(n));
            if (conn.head.find("\r\n\r\n") != std::string::npos)
                break;
        }
        if (conn.head.find("\r\n\r\n") == std::string::npos) {
            if (conn.eof || conn.head.size() > kMaxHead)
                end(conn);
            return;
        }
        if (!open(conn)) {
            end(conn);
            return;
        }
    }
    if (conn.phase == Conn::kOpen) {
        read_frames(conn);
        if (conn.phase == Conn::kOpen && conn.close_sent && Clock::now() - conn.close_sent_at > kCloseWait)
            end(conn);
    }
}

/* Closes the connection (a clean TLS end unless it was hung up on). */
void WssServer::State::end(Conn &conn)
{
    if (conn.phase == Conn::kClosed)
        return;
    if (conn.ssl != nullptr && !conn.eof)
        SSL_shutdown(conn.ssl);
    ::shutdown(conn.fd, SHUT_RDWR);
    note([&] { conn.phase = Conn::kClosed; });
}

void WssServer::State::run()
{
    const auto deadline = Clock::now() + options.lifetime;
    std::vector<std::shared_ptr<Conn>> live;
    std::vector<struct pollfd> fds;
    while (!stopping && Clock::now() < deadline) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            /* Closed connections leave the list (their records stay). */
            conns.erase(std::remove_if(conns.begin(), conns.end(),
                                       [](const std::shared_ptr<Conn> &c) { return c->phase == Conn::kClosed; }),
                        conns.end());
            live = conns;
        }
        fds.assign(1, {listen_fd, POLLIN, 0});
        for (const auto &c : live)
            fds.push_back({c->fd, POLLIN, 0});
        ::poll(fds.data(), fds.size(), kStepMs);
        if (fds[0].revents != 0)
            accept_all();
        for (size_t i = 0; i < live.size(); ++i) {
            Conn &conn = *live[i];
            /* Every connection is looked at every step: a TLS session may
             * hold bytes the socket no longer shows, and close waits end. */
            std::lock_guard<std::mutex> lock(conn.mutex);
            if (fds[i + 1].revents != 0 || conn.phase != Conn::kOpen || SSL_pending(conn.ssl) > 0 || conn.close_sent)
                serve(conn);
        }
    }
    std::lock_guard<std::mutex> lock(mutex);
    for (auto &c : conns)
        c->phase = Conn::kClosed;
    conns.clear();
    ++events;
    changed.notify_all();
}

WssServer::WssServer(WssOptions options) : state_(new State)
{
    State &s = *state_;
    s.options = std::move(options);
    s.answer_pings = s.options.answer_pings;
    s.ctx = SSL_CTX_new(TLS_server_method());
    if (s.ctx == nullptr)
        return;
    std::string base = kxtest::credentials_dir() + "/" + s.options.cert;
    if (SSL_CTX_use_certificate_chain_file(s.ctx, (base + ".pem").c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(s.ctx, (base + ".key").c_str(), SSL_FILETYPE_PEM) != 1)
        return;
    s.listen_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (s.listen_fd < 0)
        return;
    int yes = 1;
    ::setsockopt(s.listen_fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    struct sockaddr_in addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (::bind(s.listen_fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        ::listen(s.listen_fd, 16) != 0 ||
        ::getsockname(s.listen_fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0)
        return;
    s.port = ntohs(addr.sin_port);
    s.thread = std::thread([&s] { s.run(); });
}

WssServer::~WssServer()
{
    State &s = *state_;
    s.stopping = true;
    if (s.thread.joinable())
        s.thread.join();
    if (s.listen_fd >= 0)
        ::close(s.listen_fd);
    if (s.ctx != nullptr)
        SSL_CTX_free(s.ctx);
}

int WssServer::port() const { return state_->thread.joinable() ? state_->port : 0; }

void WssServer::answer_pings(bool on) { state_->answer_pings = on; }

bool WssServer::send_frame(int opcode, const std::string &payload)
{
    std::shared_ptr<Conn> conn = state_->newest_open();
    if (!conn)
        return false;
    std::lock_guard<std::mutex> lock(conn->mutex);
    return conn->send_frame(opcode, payload);
}

bool WssServer::send_text(const std::string &text) { return send_frame(kWsText, text); }

bool WssServer::close(uint16_t code, const std::string &reason)
{
    std::shared_ptr<Conn> conn = state_->newest_open();
    if (!conn)
        return false;
    std::lock_guard<std::mutex> lock(conn->mutex);
    std::string payload;
    payload += static_cast<char>(code >> 8);
    payload += static_cast<char>(code & 0xff);
    payload += reason;
    if (!conn->send_frame(kWsClose, payload))
        return false;
    conn->close_sent = true;
    conn->close_sent_at = Clock::now();
    return true;
}

bool WssServer::drop()
{
    std::shared_ptr<Conn> conn = state_->newest_open();
    if (!conn)
        return false;
    std::lock_guard<std::mutex> lock(conn->mutex);
    /* The server thread sees the end and closes; no close frame, no TLS goodbye. */
    conn->eof = true;
    return ::shutdown(conn->fd, SHUT_RDWR) == 0;
}

std::vector<WsFrame> WssServer::frames() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->frames;
}

std::vector<WsFrame> WssServer::frames(int opcode) const
{
    std::vector<WsFrame> out;
    for (auto &f : frames())
        if (f.opcode == opcode)
            out.push_back(f);
    return out;
}

int WssServer::count(int opcode) const { return static_cast<int>(frames(opcode).size()); }

std::vector<WsHandshake> WssServer::handshakes() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->handshakes;
}

int WssServer::connections() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return static_cast<int>(state_->handshakes.size());
}

int WssServer::open_connections() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    int n = 0;
    for (const auto &c : state_->conns)
        if (c->phase == Conn::kOpen)
            ++n;
    return n;
}

int WssServer::tls_failures() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->tls_failures;
}

void WssServer::clear_frames()
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->frames.clear();
}

bool WssServer::wait_for(const std::function<bool()> &pred, std::chrono::milliseconds timeout) const
{
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        uint64_t seen;
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            seen = state_->events;
        }
        if (pred())
            return true;
        std::unique_lock<std::mutex> lock(state_->mutex);
        if (!state_->changed.wait_until(lock, deadline, [&] { return state_->events != seen; })) {
            lock.unlock();
            return pred();
        }
    }
}

}  // namespace kxcloud
