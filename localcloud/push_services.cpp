#include "push_services.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kxcloud {

struct PushService::State {
    PushScript script;
    std::unique_ptr<WssServer> server;
    std::thread thread;
    std::mutex mutex;
    std::condition_variable stop_changed;
    bool stopping = false;

    /* Waits for `d` unless the service is stopped first; false then. */
    bool pause(std::chrono::milliseconds d)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return !stop_changed.wait_for(lock, d, [&] { return stopping; });
    }
    bool stopped()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return stopping;
    }

    void run()
    {
        const auto end = std::chrono::steady_clock::now() + script.lifetime;
        int next_id = 1;
        while (!stopped() && std::chrono::steady_clock::now() < end) {
            if (!server->wait_for([&] { return server->open_connections() > 0 || stopped(); },
                                  std::chrono::milliseconds(200)) ||
                stopped())
                continue;
            const int session = server->connections();
            bool open = true;
            for (int i = 0; open && i < script.notices; ++i) {
                open = pause(script.spacing) &&
                       server->send_text("{\"msgType\":\"notice\",\"id\":" + std::to_string(next_id++) +
                                         ",\"text\":\"notice " + std::to_string(i + 1) + " of session " +
                                         std::to_string(session) + "\"}");
            }
            if (open && pause(script.spacing))
                open = server->send_text("{\"msgType\":\"status\",\"text\":\"no id, no acknowledgement\"}");
            if (open && pause(script.spacing))
                server->close(1000, "session over");
            server->wait_for([&] { return server->open_connections() == 0 || stopped(); },
                             std::chrono::seconds(5));
        }
    }
};

PushService::PushService(PushScript script) : state_(new State)
{
    state_->script = script;
    WssOptions options;
    options.lifetime = script.lifetime;
    state_->server.reset(new WssServer(options));
    if (state_->server->port() != 0)
        state_->thread = std::thread([this] { state_->run(); });
}

PushService::~PushService()
{
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->stopping = true;
    }
    state_->stop_changed.notify_all();
    if (state_->thread.joinable())
        state_->thread.join();
}

int PushService::port() const { return state_->server->port(); }
std::string PushService::address() const { return "127.0.0.1:" + std::to_string(port()); }
WssServer &PushService::server() { return *state_->server; }

int PushService::acknowledged() const
{
    int n = 0;
    for (const auto &f : state_->server->frames(kWsText))
        if (f.payload.find("\"ack\"") != std::string::npos)
            ++n;
    return n;
}

}  // namespace kxcloud
