/*
 * The push channel against a real secure WebSocket server (the local cloud's
 * WSS endpoint): what reaches the wire frame by frame, what the application's
 * callbacks see and on which thread, what is logged, and that a connection
 * leaves no thread behind.
 *
 * Nothing here sleeps for a fixed time: every wait is for a recorded event
 * (a frame at the server, a callback, a log line) with a generous bound.
 */
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "wss_server.h"

using kxcloud::WssServer;
using kxtest::log_contains;
using kxtest::log_matching;
using namespace std::chrono_literals;

/* The platform's thread start, replaced for this program (the library reaches
 * it through the dynamic linker): it can be told to fail, and it remembers
 * the source position it was given. lws_connect calls it on the test's own
 * thread, so these need no lock. */
static int g_thread_start_result = 0;
static std::string g_thread_start_file;
static int g_thread_start_line = 0;

extern "C" __attribute__((visibility("default"))) int _vtlOsalPOSIX_pthread_create_line(
    pthread_t *thread, const pthread_attr_t *attr, void *(*start)(void *), void *arg, const char *file, int line)
{
    g_thread_start_file = file != nullptr ? file : "";
    g_thread_start_line = line;
    return g_thread_start_result != 0 ? g_thread_start_result : pthread_create(thread, attr, start, arg);
}

namespace {

constexpr auto kWait = 20s; /* generous: every wait ends as soon as its event is seen */

uint32_t gettid_now() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

int thread_count() { return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {})); }

/* Polls `pred` until it holds or the bound passes. */
bool wait_until(const std::function<bool()> &pred)
{
    for (auto deadline = std::chrono::steady_clock::now() + kWait; !pred(); usleep(1000))
        if (std::chrono::steady_clock::now() > deadline)
            return false;
    return true;
}

/* Waits for `times` log lines containing `needle` (the library logs from its own thread). */
bool wait_log(const std::string &needle, size_t times = 1)
{
    return wait_until([&] { return log_matching(needle).size() >= times; });
}

/* Position of the first log line containing `needle`, -1 if none. */
int log_index(const std::string &needle)
{
    auto lines = kxtest::log_lines();
    auto at = std::find_if(lines.begin(), lines.end(),
                           [&](const kxtest::LogLine &l) { return l.text.find(needle) != std::string::npos; });
    return at == lines.end() ? -1 : static_cast<int>(at - lines.begin());
}

std::string ack_of(int id) { return "{\n\t\"msgType\":\t\"ack\",\n\t\"id\":\t" + std::to_string(id) + "\n}"; }

/* The text frames the server received, in order, once there are `n`. */
std::vector<std::string> texts(const WssServer &server, int n)
{
    server.wait_for([&] { return server.count(kxcloud::kWsText) >= n; }, kWait);
    std::vector<std::string> out;
    for (const auto &f : server.frames(kxcloud::kWsText))
        out.push_back(f.payload);
    return out;
}

/* An application queues from its own thread; a -1 (the service thread
 * holds the slot while it writes) means "try again". The library takes a
 * text over once queued; any other frame's payload stays the caller's. */
int32_t queue(lws_client_t *client, const std::string &payload, uint8_t wake, int type = LWS_WRITE_TEXT)
{
    char *buffer = strdup(payload.c_str());
    int32_t result;
    const auto len = static_cast<uint32_t>(payload.size());
    wait_until([&] { return (result = fire_writable_out(client, buffer, len, type, wake)) != -1; });
    if (result != 0 || type != LWS_WRITE_TEXT)
        std::free(buffer);
    return result;
}

/* One callback as the application saw it. */
struct Event {
    std::string kind; /* "established", "message", "closed", "timeout" */
    int reason;
    std::string text = "", slot = ""; /* message: the text handed over, and the send slot's frame at that moment */
    bool terminated = false; /* message: a NUL follows the text */
    int missed = 0, pings_at_server = 0; /* timeout: missed_heartbeats, and pings the server had received */
    uint32_t tid = gettid_now();
};

/* One push connection to `server`, torn down with the test; the log starts
 * afresh with it. */
struct Session {
    explicit Session(WssServer &server_, int32_t heartbeat_interval = 0);
    ~Session() { disconnect(); }

    lws_client_t *connect(int32_t loop_cycle = 100)
    {
        return client = lws_connect(address.c_str(), "/push", static_cast<uint32_t>(server.port()), &channel, loop_cycle);
    }
    /* Connects and waits for on_established and the server's handshake. */
    bool open(int32_t loop_cycle = 100)
    {
        return connect(loop_cycle) != nullptr && wait_until([&] { return count("established") == 1; }) &&
               server.wait_for([&] { return server.open_connections() == 1; }, kWait);
    }
    void disconnect()
    {
        if (lws_client_t *was = std::exchange(client, nullptr))
            lws_disconnect(was);
    }
    int record(Event e)
    {
        std::lock_guard<std::mutex> lock(mutex);
        all.push_back(std::move(e));
        return 0;
    }
    std::vector<Event> events(const std::string &kind)
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<Event> out;
        std::copy_if(all.begin(), all.end(), std::back_inserter(out), [&](const Event &e) { return e.kind == kind; });
        return out;
    }
    int count(const std::string &kind) { return static_cast<int>(events(kind).size()); }

    WssServer &server;
    const std::string address = server.address(); /* the library keeps the pointer */
    /* The application's record, followed by the session its callbacks report to. */
    struct { lws_channel_t channel; Session *session; } c{{}, this};
    lws_channel_t &channel = c.channel;
    lws_client_t *client = nullptr;
    void (*hook)(Session &) = nullptr; /* run by on_message */
    std::mutex mutex;
    std::vector<Event> all;
};

Session &of(lws_channel_t *channel) { return *reinterpret_cast<decltype(Session::c) *>(channel)->session; }

Session::Session(WssServer &server_, int32_t heartbeat_interval) : server(server_)
{
    kxtest::clear_log();
    channel.heartbeat_interval = heartbeat_interval;
    channel.heartbeat_max_missed = 3;
    channel.on_established = [](auto, lws_channel_t *ch, auto, auto, int reason) { return of(ch).record({"established", reason}); };
    channel.on_closed = [](auto, lws_channel_t *ch, auto, auto, int reason) { return of(ch).record({"closed", reason}); };
    channel.on_heartbeat_timeout = [](auto, lws_channel_t *ch, auto, auto, int reason) {
        return of(ch).record({"timeout", reason, "", "", false, ch->missed_heartbeats, of(ch).server.count(kxcloud::kWsPing)});
    };
    channel.on_message = [](struct lws *, lws_channel_t *ch, void *in, size_t len, int reason) {
        const char *text = static_cast<const char *>(in);
        of(ch).record({"message", reason, std::string(text, len),
                       std::string(reinterpret_cast<const char *>(ch->payload), ch->payload_len), text[len] == '\0'});
        if (auto hook = of(ch).hook)
            hook(of(ch));
        return 0;
    };
}

/* ---- connecting and disconnecting --------------------------------------- */

TEST(Push, ConnectsOnItsOwnThreadAndDisconnectJoinsItAtOnceLeavingNothing)
{
    WssServer server;
    Session s(server, 10); /* a heartbeat pending, which the disconnect does not wait for */
    ASSERT_TRUE(s.open(10000));

    const std::string host = "127.0.0.1:" + std::to_string(server.port());
    auto hs = server.handshakes();
    ASSERT_EQ(hs.size(), 1u);
    EXPECT_EQ(hs[0].target, "/push");
    EXPECT_EQ(hs[0].header("Host"), host);
    EXPECT_EQ(hs[0].header("Origin"), "http://" + host) << "libwebsockets puts the scheme before the origin";
    EXPECT_EQ(hs[0].header("Sec-WebSocket-Protocol"), "ws");

    const uint32_t tid = s.channel.service_tid;
    auto est = s.events("established");
    EXPECT_EQ(est[0].reason, LWS_CALLBACK_CLIENT_ESTABLISHED);
    EXPECT_EQ(s.channel.service_pid, static_cast<uint32_t>(getpid()));
    EXPECT_NE(tid, gettid_now());
    EXPECT_EQ(est[0].tid, tid) << "callbacks run on the service thread";
    EXPECT_EQ(g_thread_start_file, "kx_sdk_lws");
    EXPECT_GT(g_thread_start_line, 0);

    /* The service thread's start-up, line by line. */
    const std::string service = "lws_service_thread_func(): ", callback = "lws_protocol_0_callback(): ";
    for (const std::string &line : {std::string("lws_connect(): begin to connect wss\n"), service + "lws_create_context success.\n",
                                    service + "lws_service_thread_func pid: " + std::to_string(getpid()) + " tid " +
                                        std::to_string(tid) + " \n",
                                    service + "addr_port: " + host + "\n", service + "loop_cycle: 10000\n",
                                    callback + "LWS_CALLBACK_PROTOCOL_INIT\n", callback + "Connected to server\n"})
        EXPECT_TRUE(log_contains(line)) << line;
    EXPECT_TRUE(wait_log("lws_service_thread_func(): *************loop_cycle*10000 "));

    /* The stop wakes the service thread: joined long before its next turn
     * or heartbeat (10 s), gone from the task list at once natively, within
     * moments under qemu-arm (the emulator tells the joiner before its host
     * thread ends). */
    const int threads = thread_count();
    const auto started = std::chrono::steady_clock::now();
    s.disconnect();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5000ms) << "woken, not left to its next turn";
    EXPECT_TRUE(wait_until([&] { return thread_count() == threads - 1; }));
    /* The context was destroyed on the service thread, which closed the
     * connection and told the application before the join returned. */
    auto closed = s.events("closed");
    ASSERT_FALSE(closed.empty());
    EXPECT_EQ(closed.back().reason, LWS_CALLBACK_WSI_DESTROY);
    EXPECT_EQ(closed.back().tid, tid);
    EXPECT_TRUE(log_contains("lws_disconnect(): lws_disconnect\n"));
    EXPECT_TRUE(log_contains("lws_disconnect(): *************lws_disconnect**************\n"));
    EXPECT_TRUE(server.wait_for([&] { return server.open_connections() == 0; }, kWait));
}

TEST(Push, NothingIsServedWhenRefusedWhenTheThreadCannotStartWithANegativeLoopCycleOrAnotherCa)
{
    WssServer server;
    lws_channel_t channel{};
    const uint32_t port = static_cast<uint32_t>(server.port());
    struct Case { const char *what, *address, *path; uint32_t port; lws_channel_t *channel; int32_t loop_cycle; };
    const Case cases[] = {
        {"null address", nullptr, "/push", port, &channel, 100},
        {"null channel", "127.0.0.1", "/push", port, nullptr, 100},
        {"loop_cycle 0", "127.0.0.1", "/push", port, &channel, 0},
        {"null path", "127.0.0.1", nullptr, port, &channel, 100},
        {"port 0", "127.0.0.1", "/push", 0, &channel, 100},
    };
    const int threads = thread_count();
    for (const auto &c : cases) {
        kxtest::clear_log();
        EXPECT_EQ(lws_connect(c.address, c.path, c.port, c.channel, c.loop_cycle), nullptr) << c.what;
        EXPECT_EQ(thread_count(), threads) << c.what;
        EXPECT_EQ(log_matching("lws_connect(): ").size(), 1u) << c.what << ": only the opening line is logged";
    }

    /* The platform refuses the thread: the handle comes back without one. */
    Session s(server);
    g_thread_start_result = 11;
    ASSERT_NE(s.connect(), nullptr);
    EXPECT_EQ(s.client->service_thread, nullptr);
    EXPECT_EQ(kxtest::log_count("lws_connect(): ret: 11\n", kxtest::kError), 1);
    EXPECT_EQ(thread_count(), threads);
    s.disconnect(); /* frees the handle, joins nothing */
    EXPECT_TRUE(log_contains("lws_disconnect(): *************lws_disconnect**************\n"));
    EXPECT_FALSE(log_contains("lws_service_thread_func"));
    EXPECT_EQ(server.connections(), 0);

    /* A negative loop_cycle sets up and ends at once: the context is released
     * when the loop ends, and the application may still queue and wake. */
    g_thread_start_result = 0;
    Session once(server);
    ASSERT_NE(once.connect(-1), nullptr);
    ASSERT_TRUE(wait_until([&] { return once.count("closed") > 0; }));
    EXPECT_TRUE(wait_log("lws_service_thread_func(): loop_cycle: -1\n"));
    EXPECT_FALSE(log_contains("*************loop_cycle*"));
    EXPECT_EQ(once.count("established"), 0);
    EXPECT_EQ(once.client->context, nullptr);
    EXPECT_EQ(queue(once.client, "nobody", 1), 0);
    once.disconnect(); /* joined: none of its lines comes after the next session's start */

    /* A server whose certificate comes from another CA is refused. */
    WssServer foreign({"other_server"});
    Session refused(foreign);
    ASSERT_NE(refused.connect(), nullptr);
    ASSERT_TRUE(wait_until([&] { return refused.count("closed") > 0; }));
    EXPECT_EQ(kxtest::log_count("lws_protocol_0_callback(): LWS_CALLBACK_CLIENT_CONNECTION_ERROR\n", kxtest::kError), 1);
    EXPECT_EQ(refused.count("established"), 0);
    EXPECT_EQ(refused.events("closed").back().reason, LWS_CALLBACK_WSI_DESTROY);
    EXPECT_TRUE(foreign.wait_for([&] { return foreign.tls_failures() == 1; }, kWait));
    EXPECT_EQ(foreign.connections(), 0) << "no WebSocket handshake over a refused TLS session";
}

/* ---- receiving and acknowledging ---------------------------------------- */

TEST(Push, AckIsRetriedSixTimesWhileLockedThenOnlyATopLevelIdIsAckedBeforeTheTextIsDelivered)
{
    WssServer server;
    Session s(server);
    ASSERT_TRUE(s.open());
    /* The application holds the lock: the acknowledgement is tried six
     * times, each retry announced before it is made, and dropped. */
    __atomic_store_n(&s.channel.write_lock, 1, __ATOMIC_SEQ_CST);
    ASSERT_TRUE(server.send_text("{\"id\":7}"));
    ASSERT_TRUE(wait_until([&] { return s.count("message") == 1; }));
    __atomic_store_n(&s.channel.write_lock, 0, __ATOMIC_SEQ_CST);
    EXPECT_EQ(kxtest::log_count("fire_writable_in(): fire_writable_in\n", kxtest::kInfo), 6);
    EXPECT_EQ(kxtest::log_count("fire_writable(): data is locked\n", kxtest::kError), 6);
    for (int retry = 0; retry < 5; ++retry)
        EXPECT_TRUE(kxtest::log_has("lws_protocol_0_callback", "retryTime = " + std::to_string(retry) + "\n", kxtest::kInfo));
    EXPECT_LT(log_index("fire_writable_in(): fire_writable_in"), log_index("retryTime = 0"));

    /* Unlocked. Frames come in order: once the last message's acknowledgement
     * is in, one for any earlier message (or the dropped one) would be before it. */
    const std::vector<std::string> sent = {"{\"id\":7}", "not json at all", "{\"data\":{\"id\":9}}", "{\"ID\":5}",
                                           "{\"msgType\":\"notice\",\"id\":12,\"text\":\"hello\"}"};
    for (size_t i = 1; i < sent.size(); ++i)
        ASSERT_TRUE(server.send_text(sent[i]));
    ASSERT_EQ(texts(server, 1), std::vector<std::string>{ack_of(12)});
    EXPECT_TRUE(server.frames(kxcloud::kWsText)[0].fin);

    ASSERT_TRUE(wait_until([&] { return s.count("message") == 5; }));
    auto messages = s.events("message");
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(messages[i].text, sent[i]) << "delivered, acknowledged or not";
        EXPECT_TRUE(messages[i].terminated);
        EXPECT_EQ(messages[i].reason, LWS_CALLBACK_CLIENT_RECEIVE);
        EXPECT_EQ(messages[i].tid, s.channel.service_tid);
        /* The acknowledgement is queued before on_message runs. */
        EXPECT_EQ(messages[i].slot, i == 4 ? ack_of(12) : "") << sent[i];
        EXPECT_TRUE(log_contains("lws_protocol_0_callback(): Rx: " + sent[i] + "\n"));
    }
    EXPECT_EQ(kxtest::log_count("decodeMessage(): cJSON_Parse failed!\n", kxtest::kError), 1);
    EXPECT_EQ(kxtest::log_count("decodeMessage(): cId struct uncorrect!\n", kxtest::kError), 2);
    EXPECT_TRUE(wait_log("writ_callback_send_buf(): writ_count: " + std::to_string(ack_of(12).size()) + "\n"));
    EXPECT_TRUE(log_contains("writ_callback_send_buf(): clean up\n"));
    EXPECT_EQ(log_matching("retryTime = ").size(), 5u) << "none after the lock was released";
    EXPECT_TRUE(wait_until([&] { return __atomic_load_n(&s.channel.payload_len, __ATOMIC_ACQUIRE) == 0; }));
    EXPECT_EQ(s.channel.write_protocol, LWS_WRITE_TEXT) << "kept after the send";
}

/* ---- sending and closing ------------------------------------------------ */

TEST(Push, LastQueuedFrameWinsWokenOrOnTheNextTurnWithoutOnMessageNoAckAndAServerCloseIsFinal)
{
    WssServer server;
    Session s(server);
    ASSERT_TRUE(s.open(200));
    /* Two frames queued on the service thread, which cannot write in
     * between; then the application drops its on_message (on that thread,
     * which alone reads it). */
    s.hook = [](Session &t) {
        fire_writable_out(t.client, strdup("first"), 5, LWS_WRITE_TEXT, 0);
        fire_writable_out(t.client, strdup("second"), 6, LWS_WRITE_TEXT, 1);
        t.channel.on_message = nullptr;
    };
    ASSERT_TRUE(server.send_text("queue two"));
    EXPECT_EQ(texts(server, 1), std::vector<std::string>{"second"});
    /* Without on_message a message is logged, neither decoded nor acknowledged. */
    ASSERT_TRUE(server.send_text("{\"id\":21}"));
    ASSERT_TRUE(wait_log("Rx: {\"id\":21}"));
    EXPECT_EQ(log_matching("decodeMessage").size(), 1u) << "only \"queue two\", which is not JSON";
    /* Woken from the application's thread: at once, and nothing else was waiting. */
    ASSERT_EQ(queue(s.client, "woken", 1), 0);
    EXPECT_EQ(texts(server, 2), (std::vector<std::string>{"second", "woken"}));
    EXPECT_TRUE(wait_until([&] { return __atomic_load_n(&s.channel.payload_len, __ATOMIC_ACQUIRE) == 0; }));
    EXPECT_EQ(__atomic_load_n(&s.channel.wake_flag, __ATOMIC_ACQUIRE), 0) << "cleared with the send";

    /* Not woken: when the service thread next comes round. */
    ASSERT_EQ(queue(s.client, "app-ping", 0, LWS_WRITE_PING), 0);
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsPing) == 1; }, kWait));
    EXPECT_EQ(server.frames(kxcloud::kWsPing)[0].payload, "app-ping");

    /* The server closes: on_closed, and nothing reconnects. */
    ASSERT_TRUE(server.close(1000, "bye"));
    ASSERT_TRUE(wait_until([&] { return s.count("closed") == 2; }));
    auto closed = s.events("closed");
    EXPECT_EQ(closed[0].reason, LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER) << "called while the handshake is written";
    EXPECT_EQ(closed[1].reason, LWS_CALLBACK_WSI_DESTROY);
    EXPECT_EQ(closed[1].tid, s.channel.service_tid);
    EXPECT_TRUE(log_contains("lws_protocol_0_callback(): def_callback : 75\n")) << "the client's own close reason";
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsClose) == 1; }, kWait));
    EXPECT_EQ(server.frames(kxcloud::kWsClose)[0].payload, std::string("\x03\xe8" "bye", 5)) << "the server's close echoed";
    /* The service loop goes on turning, and never connects again. */
    const size_t turns = log_matching("*************loop_cycle*200").size();
    ASSERT_TRUE(wait_log("*************loop_cycle*200", turns + 5));
    EXPECT_EQ(server.connections(), 1);
    EXPECT_EQ(log_matching("addr_port:").size(), 1u);
    /* Sending into a closed channel is queued and goes nowhere. */
    EXPECT_EQ(queue(s.client, "late", 1), 0);
}

TEST(Push, QueuingResultsAndTheLock)
{
    lws_channel_t channel{};
    lws_client_t client{}, no_channel{};
    client.channel = &channel;
    static char slot_size[KX_LWS_PAYLOAD_SIZE + 1];
    char text[] = "x", held[] = "held";
    int32_t id = 99;
    const char *kOver = "fire_writable(): len 10241 is bigger than the payload buffer 10240\n";
    struct Case { int32_t expected; const char *line; std::function<int32_t()> call; }; /* line: "" for none */
    const std::vector<Case> cases = {
        {-2, "fire_writable_out(): data is null\n", [&] { return fire_writable_out(nullptr, text, 1, 0, 0); }},
        {-2, "fire_writable_out(): data is null\n", [&] { return fire_writable_out(&no_channel, text, 1, 0, 0); }},
        {-3, "fire_writable_out(): buf is NULL or len is 0\n", [&] { return fire_writable_out(&client, nullptr, 1, 0, 0); }},
        {-3, "fire_writable_out(): buf is NULL or len is 0\n", [&] { return fire_writable_out(&client, text, 0, 0, 0); }},
        {-3, kOver, [&] { return fire_writable_out(&client, slot_size, KX_LWS_PAYLOAD_SIZE + 1, 0, 0); }},
        {-3, "fire_writable_in(): buf is NULL or len is 0\n", [&] { return fire_writable_in(nullptr, &channel, nullptr, 4, 5); }},
        {-3, "fire_writable_in(): buf is NULL or len is 0\n", [&] { return fire_writable_in(nullptr, &channel, text, 0, 5); }},
        {-2, "fire_writable(): data is null\n", [&] { return fire_writable_in(nullptr, nullptr, text, 1, 5); }},
        {-3, kOver, [&] { return fire_writable_in(nullptr, &channel, slot_size, KX_LWS_PAYLOAD_SIZE + 1, 0); }},
        {-1, "", [&] { return writ_callback_send_buf(nullptr, nullptr); }},
        {-1, "", [&] { return decodeMessage(nullptr, &id); }},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        kxtest::clear_log();
        EXPECT_EQ(cases[i].call(), cases[i].expected) << "case " << i;
        EXPECT_EQ(kxtest::log_count(cases[i].line, kxtest::kError), *cases[i].line ? 1 : 0) << "case " << i;
        EXPECT_EQ(channel.payload_len, 0u) << "case " << i << ": the slot is untouched";
    }
    EXPECT_EQ(id, 99);

    /* A frame of exactly the slot's size fits. */
    std::memset(slot_size, 'p', sizeof slot_size);
    EXPECT_EQ(fire_writable_out(&client, slot_size, KX_LWS_PAYLOAD_SIZE, LWS_WRITE_BINARY, 0), 0);
    EXPECT_EQ(channel.payload[KX_LWS_PAYLOAD_SIZE - 1], 'p');
    EXPECT_EQ(channel.write_protocol, LWS_WRITE_BINARY);

    /* The lock held by the service thread: no waiting, a refused text stays
     * the caller's (`held` is on the stack: freeing it would crash), and a
     * writer that finds the lock held leaves the waiting frame as it is. */
    channel.write_lock = 1;
    kxtest::clear_log();
    EXPECT_EQ(fire_writable_out(&client, held, 4, LWS_WRITE_TEXT, 1), -1);
    EXPECT_EQ(kxtest::log_count("fire_writable(): data is locked\n", kxtest::kError), 1);
    int dummy;
    EXPECT_EQ(writ_callback_send_buf(reinterpret_cast<struct lws *>(&dummy), &channel), -1);
    EXPECT_EQ(channel.payload_len, static_cast<uint32_t>(KX_LWS_PAYLOAD_SIZE)) << "the waiting frame stays";
    EXPECT_EQ(std::string(reinterpret_cast<char *>(channel.payload), 4), "pppp");
    channel.write_lock = 0;
    channel.payload_len = 0;
    EXPECT_EQ(writ_callback_send_buf(reinterpret_cast<struct lws *>(&dummy), &channel), 0) << "empty slot";
}

/* ---- heartbeat ---------------------------------------------------------- */

TEST(Push, HeartbeatPingsOnItsPeriodAndMissedPongsCallTheTimeoutFromTheFourthTick)
{
    WssServer server({"server", false}); /* pings go unanswered */
    Session s(server, 1);
    ASSERT_TRUE(s.open());
    ASSERT_TRUE(wait_until([&] { return s.count("timeout") == 2; }));

    /* One period after the opening, then one period apart. */
    auto pings = server.frames(kxcloud::kWsPing);
    for (size_t i = 0; i < pings.size(); ++i) {
        EXPECT_EQ(pings[i].payload, "heartbeat");
        EXPECT_GE(pings[i].at - (i > 0 ? pings[i - 1].at : server.handshakes()[0].at), 900ms) << "ping " << i;
    }
    /* Ticks 1 to 3 only ping; tick 4 (three pings at the server, the fourth
     * in the slot) and tick 5 call the timeout. */
    auto timeouts = s.events("timeout");
    EXPECT_EQ(timeouts[0].reason, LWS_CALLBACK_TIMER);
    EXPECT_EQ(timeouts[0].tid, s.channel.service_tid);
    EXPECT_EQ(timeouts[0].pings_at_server, 3);
    EXPECT_EQ(timeouts[1].pings_at_server, 4);
    for (const char *tick : {"LWS_CALLBACK_TIMER, 0, 0, 3\n", "LWS_CALLBACK_TIMER, 5, 1, 3\n",
                             "LWS_CALLBACK_TIMER, 5, 2, 3\n", "LWS_CALLBACK_TIMER, 5, 3, 3\n",
                             "LWS_CALLBACK_TIMER, 5, 4, 3\n"})
        EXPECT_EQ(log_matching(tick).size(), 1u) << tick;
    EXPECT_EQ(server.open_connections(), 1) << "the timeout does not close the connection";

    /* One pong resets the count: the ticks after it count 0, 1, 2 without
     * a timeout, and the next timeout comes with the count at 3 again. */
    ASSERT_TRUE(server.send_frame(kxcloud::kWsPong, ""));
    ASSERT_TRUE(wait_log("lws_protocol_0_callback(): receive pong\n"));
    const int pong_at = log_index("receive pong");
    ASSERT_TRUE(wait_until([&] {
        auto t = s.events("timeout");
        return t.size() >= 3 && t.back().missed == 3;
    }));
    EXPECT_GT(log_index("LWS_CALLBACK_TIMER, 5, 0, 3\n"), pong_at);
    std::vector<int> missed;
    for (const auto &e : s.events("timeout"))
        missed.push_back(e.missed);
    /* A tick may have come between the second timeout and the pong. */
    EXPECT_EQ(missed, (missed.size() == 4 ? std::vector<int>{3, 4, 5, 3} : std::vector<int>{3, 4, 3}));
}

}  // namespace
