/*
 * The push service of the local cloud: the secure WebSocket endpoint "/push"
 * (a WssServer) with a script a device can watch. Every connection gets a few
 * notices, each with an "id" the channel acknowledges, one message without an
 * id, and is then closed by the server ("session over", 1000), so that a
 * client's own reconnection can be seen working. Pings are answered.
 *
 *   kxcloud::PushService push;
 *   lws_connect("127.0.0.1", "/push", push.port(), &channel, 100);
 *
 * The script runs on a thread of its own and stops with the service, or by
 * itself after the lifetime.
 */
#ifndef KX_TEST_PUSH_SERVICES_H
#define KX_TEST_PUSH_SERVICES_H

#include <chrono>
#include <memory>
#include <string>

#include "wss_server.h"

namespace kxcloud {

struct PushScript {
    int notices = 3;                                 /* messages with an id per connection */
    std::chrono::milliseconds spacing{400};          /* between two messages */
    std::chrono::seconds lifetime{120};
};

class PushService {
public:
    explicit PushService(PushScript script = PushScript());
    ~PushService();
    PushService(const PushService &) = delete;
    PushService &operator=(const PushService &) = delete;

    int port() const;                       /* 0 when the endpoint did not start */
    std::string address() const;            /* "127.0.0.1:<port>" */
    WssServer &server();
    int acknowledged() const;               /* acknowledgements received so far */

    struct State;

private:
    std::unique_ptr<State> state_;
};

}  // namespace kxcloud

#endif
