/*
 * The push channel's whole life, over and over: connect, receive a message
 * and acknowledge it, send a frame from the application's thread, send a
 * heartbeat and take its pong, disconnect. A device reconnects for weeks, so
 * whatever one cycle leaves behind (a thread, a context, a connection, a
 * block) adds up; valgrind (scripts/reliability.sh valgrind) and
 * ThreadSanitizer (scripts/reliability.sh tsan) watch these cycles.
 *
 * KX_PUSH_CYCLES sets the number of cycles (default 50).
 */
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "kx_cloud_openapi.h"
#include "rel_log.h"
#include "wss_server.h"

namespace {

using namespace std::chrono_literals;

struct Channel {
    lws_channel_t channel; /* first: the callbacks find the rest from it */
    std::atomic<int> established;
    std::atomic<int> messages;
};

int on_established(struct lws *, lws_channel_t *channel, void *, size_t, int)
{
    reinterpret_cast<Channel *>(channel)->established++;
    return 0;
}

int on_message(struct lws *, lws_channel_t *channel, void *, size_t, int)
{
    reinterpret_cast<Channel *>(channel)->messages++;
    return 0;
}

int thread_count()
{
    int n = 0;
    if (DIR *dir = opendir("/proc/self/task")) {
        while (const dirent *e = readdir(dir))
            if (e->d_name[0] != '.')
                ++n;
        closedir(dir);
    }
    return n;
}

/* Waits for the server's events, and in small steps for the callbacks'. */
template <class Pred>
bool wait(kxcloud::WssServer &server, Pred pred)
{
    const auto deadline = std::chrono::steady_clock::now() + 60s; /* valgrind is slow */
    while (!server.wait_for(pred, 10ms))
        if (std::chrono::steady_clock::now() > deadline)
            return false;
    return true;
}

TEST(PushCycle, ConnectExchangeDisconnectLeavesNothingBehind)
{
    const char *env = std::getenv("KX_PUSH_CYCLES");
    const int cycles = env != nullptr && std::atoi(env) > 0 ? std::atoi(env) : 50;
    kxcloud::WssServer server;
    ASSERT_NE(server.port(), 0);
    const std::string address = server.address();
    const int threads = thread_count();

    for (int cycle = 1; cycle <= cycles; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        kxrel::log_clear();
        server.clear_frames();
        auto *c = new Channel();
        std::memset(&c->channel, 0, sizeof c->channel);
        c->channel.heartbeat_interval = 1;
        c->channel.heartbeat_max_missed = 3;
        c->channel.on_established = on_established;
        c->channel.on_message = on_message;

        lws_client_t *client = lws_connect(address.c_str(), "/push", static_cast<uint32_t>(server.port()),
                                           &c->channel, 50);
        ASSERT_NE(client, nullptr);
        ASSERT_TRUE(wait(server, [&] { return c->established == 1 && server.open_connections() == 1; }));

        /* A message with an id: acknowledged, then delivered. */
        ASSERT_TRUE(server.send_text("{\"msgType\":\"notice\",\"id\":" + std::to_string(cycle) + "}"));
        ASSERT_TRUE(wait(server, [&] { return server.count(kxcloud::kWsText) == 1 && c->messages == 1; }));
        EXPECT_EQ(server.frames(kxcloud::kWsText)[0].payload,
                  "{\n\t\"msgType\":\t\"ack\",\n\t\"id\":\t" + std::to_string(cycle) + "\n}");

        /* A frame from this thread, retried while the service thread holds the slot. */
        char *text = static_cast<char *>(std::malloc(5));
        std::memcpy(text, "hello", 5);
        int32_t queued = -1;
        ASSERT_TRUE(wait(server, [&] { return (queued = fire_writable_out(client, text, 5, LWS_WRITE_TEXT, 1)) != -1; }));
        if (queued != 0)
            std::free(text);
        ASSERT_EQ(queued, 0);
        ASSERT_TRUE(wait(server, [&] { return server.count(kxcloud::kWsText) == 2; }));

        /* Every tenth cycle also waits for a heartbeat and its pong. */
        if (cycle % 10 == 0) {
            ASSERT_TRUE(wait(server, [&] { return server.count(kxcloud::kWsPing) == 1; }));
            ASSERT_TRUE(wait(server, [] { return kxrel::log_contains("receive pong"); }));
        }

        lws_disconnect(client);
        /* Joined: gone from the task list at once natively, within moments
         * under qemu-arm (the emulator tells the joiner before its own host
         * thread has quite ended). */
        EXPECT_TRUE(wait(server, [&] { return thread_count() == threads; })) << "the service thread is joined";
        ASSERT_TRUE(wait(server, [&] { return server.open_connections() == 0; }));
        delete c;
    }
    EXPECT_EQ(server.connections(), cycles);
    EXPECT_EQ(thread_count(), threads);
}

}  // namespace
