/*
 * The local cloud's secure WebSocket endpoint: a real "wss://" server on an
 * ephemeral 127.0.0.1 port, with a certificate issued by the CA that the test
 * build embeds (or by the unrelated CA, for refusal tests).
 *
 * It records everything a client sends, frame by frame and exactly as it
 * arrived (opcode, FIN and mask bits, the unmasked payload, the arrival time),
 * and the opening request of every connection (target and headers in arrival
 * order). It sends what the test asks for: text frames (with or without an
 * "id"), pongs, close frames, or a hang-up without one. It answers pings with
 * pongs unless told to withhold them.
 *
 * Built on wslay (Debian's libwslay-dev), used for its frame layer only: it
 * parses and unmasks frames and writes them, and leaves every decision to the
 * server, so a ping can go unanswered and every control frame is seen. TLS is
 * OpenSSL's, on non-blocking sockets; the opening handshake (RFC 6455, with
 * the first offered subprotocol echoed) is done here.
 *
 * One thread serves the listener and every connection. Sends are made by the
 * calling thread under the connection's lock, so a frame is on the wire when
 * the call returns. The server stops by itself: when it is destroyed, and at
 * the latest after its lifetime (every connection closed, listener shut).
 *
 *   kxcloud::WssServer server;
 *   lws_connect(server.address().c_str(), "/push", server.port(), &channel, 100);
 *   server.wait_for([&] { return server.open_connections() == 1; }, std::chrono::seconds(10));
 *   server.send_text("{\"id\":12}");
 *   server.wait_for([&] { return server.count(kxcloud::kWsText) == 1; }, std::chrono::seconds(10));
 */
#ifndef KX_TEST_WSS_SERVER_H
#define KX_TEST_WSS_SERVER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "test_cloud.h"

namespace kxcloud {

/* Opcodes of RFC 6455. */
constexpr int kWsContinuation = 0x0;
constexpr int kWsText = 0x1;
constexpr int kWsBinary = 0x2;
constexpr int kWsClose = 0x8;
constexpr int kWsPing = 0x9;
constexpr int kWsPong = 0xa;

/* One frame as it arrived from a client. */
struct WsFrame {
    int connection = 0; /* 1 for the first connection that completed its handshake, ... */
    int opcode = 0;
    bool fin = false;
    bool masked = false;
    std::string payload; /* unmasked */
    std::chrono::steady_clock::time_point at; /* when its last byte was read */
};

/* The opening request of one connection, recorded like the cloud's HTTP
 * requests (method, raw target and path, headers in arrival order). */
struct WsHandshake : Request {
    int connection = 0;
    std::chrono::steady_clock::time_point at;
};

struct WssOptions {
    std::string cert = "server"; /* "server" (the embedded CA) or "other_server" */
    bool answer_pings = true;    /* false: pings are recorded and never answered */
    std::chrono::seconds lifetime{300};
};

class WssServer {
public:
    /* Listening before it returns; port() is 0 when it could not start. */
    explicit WssServer(WssOptions options = WssOptions());
    ~WssServer();
    WssServer(const WssServer &) = delete;
    WssServer &operator=(const WssServer &) = delete;

    int port() const;
    std::string address() const { return "127.0.0.1"; }

    /* Answer pings (the default) or withhold the pongs from now on. */
    void answer_pings(bool on);

    /* Frames to the newest open connection; false when there is none or the
     * write failed. The frame is on the wire when the call returns. */
    bool send_text(const std::string &text);
    bool send_frame(int opcode, const std::string &payload);
    /* A close frame with the code and reason; the connection is closed when
     * the client's close answers it (or it hangs up). */
    bool close(uint16_t code = 1000, const std::string &reason = "");
    /* Hangs up the newest open connection without a close frame. */
    bool drop();

    /* What was received, in arrival order. */
    std::vector<WsFrame> frames() const;
    std::vector<WsFrame> frames(int opcode) const;
    int count(int opcode) const;
    std::vector<WsHandshake> handshakes() const;
    int connections() const;      /* handshakes completed */
    int open_connections() const; /* of those, still open */
    int tls_failures() const;     /* connections that failed their TLS handshake */
    /* Forget the frames received so far (connections stay). */
    void clear_frames();

    /* Waits until pred() holds (it is asked again after every event the
     * server records: a frame, a handshake, a connection ending) or the
     * time-out passes; returns pred()'s last answer. pred may call the
     * accessors above. */
    bool wait_for(const std::function<bool()> &pred, std::chrono::milliseconds timeout) const;

    struct State;

private:
    std::unique_ptr<State> state_;
};

}  // namespace kxcloud

#endif
