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
#include <sys/stat.h>
#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
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
 * the source position it was given. */
namespace {
std::atomic<int> g_thread_start_result{0};
std::mutex g_thread_start_mutex;
std::string g_thread_start_file;
int g_thread_start_line = 0;
}  // namespace

extern "C" __attribute__((visibility("default"))) int _vtlOsalPOSIX_pthread_create_line(
    pthread_t *thread, const pthread_attr_t *attr, void *(*start)(void *), void *arg, const char *file, int line)
{
    {
        std::lock_guard<std::mutex> lock(g_thread_start_mutex);
        g_thread_start_file = file != nullptr ? file : "";
        g_thread_start_line = line;
    }
    if (int refused = g_thread_start_result.load())
        return refused;
    return pthread_create(thread, attr, start, arg);
}

namespace {

constexpr auto kWait = 20s; /* generous: every wait ends as soon as its event is seen */
const char kAck12[] = "{\n\t\"msgType\":\t\"ack\",\n\t\"id\":\t12\n}";

uint32_t gettid_now() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

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

bool thread_exists(uint32_t tid)
{
    struct stat st;
    return stat(("/proc/self/task/" + std::to_string(tid)).c_str(), &st) == 0;
}

/* One callback as the application saw it. */
struct Event {
    Event(std::string kind_, int reason_) : kind(std::move(kind_)), reason(reason_) {}
    std::string kind; /* "established", "message", "closed", "timeout" */
    int reason = 0;
    std::string text;      /* message: the text handed over */
    bool terminated = false; /* message: a NUL follows the text */
    std::string slot;      /* message: the send slot's frame at that moment */
    uint32_t tid = 0;      /* thread that ran the callback */
    int missed = 0;        /* timeout: missed_heartbeats */
    int pings_at_server = -1; /* timeout: pings the server had received */
};

/* The application's record, followed by what the test needs in the
 * callbacks (the record is the first member, so the callbacks find it). */
struct TestChannel {
    lws_channel_t channel;
    WssServer *server;
    void (*message_hook)(TestChannel *);
    lws_client_t *client;
    std::mutex *mutex;
    std::condition_variable *changed;
    std::vector<Event> *events;
};

TestChannel *self(lws_channel_t *channel) { return reinterpret_cast<TestChannel *>(channel); }

void record(lws_channel_t *channel, Event e)
{
    TestChannel *t = self(channel);
    e.tid = gettid_now();
    {
        std::lock_guard<std::mutex> lock(*t->mutex);
        t->events->push_back(std::move(e));
    }
    t->changed->notify_all();
}

int on_established(struct lws *, lws_channel_t *channel, void *, size_t, int reason)
{
    record(channel, {"established", reason});
    return 0;
}

int on_message(struct lws *, lws_channel_t *channel, void *in, size_t len, int reason)
{
    Event e{"message", reason};
    e.text.assign(static_cast<const char *>(in), len);
    e.terminated = static_cast<const char *>(in)[len] == '\0';
    if (channel->payload_len != 0)
        e.slot.assign(reinterpret_cast<const char *>(channel->payload), channel->payload_len);
    record(channel, e);
    if (self(channel)->message_hook != nullptr)
        self(channel)->message_hook(self(channel));
    return 0;
}

int on_closed(struct lws *, lws_channel_t *channel, void *, size_t, int reason)
{
    record(channel, {"closed", reason});
    return 0;
}

int on_timeout(struct lws *, lws_channel_t *channel, void *, size_t, int reason)
{
    Event e{"timeout", reason};
    e.missed = channel->missed_heartbeats;
    e.pings_at_server = self(channel)->server->count(kxcloud::kWsPing);
    record(channel, e);
    return 0;
}

/* One push connection to `server`, torn down with the test. */
class Session {
public:
    explicit Session(WssServer &server, int32_t heartbeat_interval = 0, int32_t max_missed = 3)
        : server_(server), t_(new TestChannel())
    {
        std::memset(&t_->channel, 0, sizeof t_->channel);
        t_->server = &server;
        t_->mutex = &mutex_;
        t_->changed = &changed_;
        t_->events = &events_;
        t_->channel.heartbeat_interval = heartbeat_interval;
        t_->channel.heartbeat_max_missed = max_missed;
        t_->channel.on_established = on_established;
        t_->channel.on_message = on_message;
        t_->channel.on_closed = on_closed;
        t_->channel.on_heartbeat_timeout = on_timeout;
    }
    ~Session()
    {
        disconnect();
        delete t_;
    }

    lws_channel_t &channel() { return t_->channel; }
    TestChannel &test() { return *t_; }
    lws_client_t *client() const { return client_; }

    lws_client_t *connect(int32_t loop_cycle = 100)
    {
        client_ = lws_connect(address_.c_str(), "/push", static_cast<uint32_t>(server_.port()),
                              &t_->channel, loop_cycle);
        t_->client = client_;
        return client_;
    }
    /* Connects and waits for on_established and the server's handshake. */
    bool open(int32_t loop_cycle = 100)
    {
        return connect(loop_cycle) != nullptr && wait([&] { return count("established") == 1; }) &&
               server_.wait_for([&] { return server_.open_connections() == 1; }, kWait);
    }
    void disconnect()
    {
        if (client_ != nullptr)
            lws_disconnect(client_);
        client_ = nullptr;
        t_->client = nullptr;
    }

    std::vector<Event> events()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    std::vector<Event> events(const std::string &kind)
    {
        std::vector<Event> out;
        for (auto &e : events())
            if (e.kind == kind)
                out.push_back(e);
        return out;
    }
    int count(const std::string &kind) { return static_cast<int>(events(kind).size()); }
    template <class Pred>
    bool wait(Pred pred, std::chrono::milliseconds timeout = kWait)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            lock.unlock();
            bool done = pred();
            lock.lock();
            return done;
        });
    }

private:
    WssServer &server_;
    const std::string address_ = server_.address(); /* the library keeps the pointer */
    TestChannel *t_;
    lws_client_t *client_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
};

/* Waits for a log line containing `needle` (the library logs from its own thread). */
bool wait_log(const std::string &needle, int times = 1, std::chrono::milliseconds timeout = kWait)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (static_cast<int>(log_matching(needle).size()) < times) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
        usleep(2000);
    }
    return true;
}

std::string ack_of(int id) { return "{\n\t\"msgType\":\t\"ack\",\n\t\"id\":\t" + std::to_string(id) + "\n}"; }

std::vector<std::string> payloads(const std::vector<kxcloud::WsFrame> &frames)
{
    std::vector<std::string> out;
    for (const auto &f : frames)
        out.push_back(f.payload);
    return out;
}

/* Position of the first log line containing `needle`, -1 if none. */
int log_index(const std::string &needle, int from = 0)
{
    auto lines = kxtest::log_lines();
    for (int i = from; i < static_cast<int>(lines.size()); ++i)
        if (lines[i].text.find(needle) != std::string::npos)
            return i;
    return -1;
}

/* Polls a condition on the channel record (written by the service thread)
 * until it holds or the bound passes. */
template <class Pred>
bool wait_until(Pred pred, std::chrono::milliseconds timeout = kWait)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        usleep(1000);
    }
    return true;
}

/* An application queues from its own thread; a -1 (the service thread
 * holds the slot while it writes) means "try again". */
int32_t queue_text(lws_client_t *client, const std::string &text, uint8_t wake)
{
    char *buffer = static_cast<char *>(std::malloc(text.size()));
    std::memcpy(buffer, text.data(), text.size());
    int32_t result;
    wait_until([&] {
        result = fire_writable_out(client, buffer, static_cast<uint32_t>(text.size()), LWS_WRITE_TEXT, wake);
        return result != -1;
    });
    if (result != 0)
        std::free(buffer);
    return result;
}

char *heap_text(const std::string &text)
{
    char *p = static_cast<char *>(std::malloc(text.size() + 1));
    std::memcpy(p, text.c_str(), text.size() + 1);
    return p;
}

class Push : public testing::Test {
protected:
    void SetUp() override
    {
        kxtest::clear_log();
        kxtest::log_echo(std::getenv("KX_PUSH_ECHO") != nullptr); /* to watch a test's lines */
        g_thread_start_result = 0;
    }
};

/* ---- connecting --------------------------------------------------------- */

TEST_F(Push, ConnectsOnItsOwnThreadAndReportsEstablished)
{
    WssServer server;
    ASSERT_NE(server.port(), 0);
    Session s(server);
    ASSERT_TRUE(s.open());

    const std::string host = "127.0.0.1:" + std::to_string(server.port());
    auto hs = server.handshakes();
    ASSERT_EQ(hs.size(), 1u);
    EXPECT_EQ(hs[0].target, "/push");
    EXPECT_EQ(hs[0].header("Host"), host);
    EXPECT_EQ(hs[0].header("Origin"), "http://" + host) << "libwebsockets puts the scheme before the origin";
    EXPECT_EQ(hs[0].header("Sec-WebSocket-Protocol"), "ws");

    auto est = s.events("established");
    ASSERT_EQ(est.size(), 1u);
    EXPECT_EQ(est[0].reason, LWS_CALLBACK_CLIENT_ESTABLISHED);
    EXPECT_EQ(s.channel().service_pid, static_cast<uint32_t>(getpid()));
    EXPECT_NE(s.channel().service_tid, gettid_now());
    EXPECT_EQ(est[0].tid, s.channel().service_tid) << "callbacks run on the service thread";
    EXPECT_TRUE(thread_exists(s.channel().service_tid));
    EXPECT_NE(s.client()->connection, nullptr);
    EXPECT_NE(s.client()->context, nullptr);
    EXPECT_EQ(*s.client()->loop_flag, 100);
    {
        std::lock_guard<std::mutex> lock(g_thread_start_mutex);
        EXPECT_EQ(g_thread_start_file, "kx_sdk_lws");
        EXPECT_GT(g_thread_start_line, 0);
    }

    /* The service thread's start-up, line by line. */
    for (const std::string &line : std::vector<std::string>{
          "lws_connect(): begin to connect wss\n",
          "lws_service_thread_func(): lws_service_thread_func pid: " + std::to_string(getpid()) + " tid " +
              std::to_string(s.channel().service_tid) + " \n",
          std::string("lws_service_thread_func(): lws_create_context success.\n"),
          "lws_service_thread_func(): addr_port: " + host + "\n",
          std::string("lws_service_thread_func(): loop_cycle: 100\n"),
          std::string("lws_protocol_0_callback(): LWS_CALLBACK_PROTOCOL_INIT\n"),
          std::string("lws_protocol_0_callback(): Connected to server\n")})
        EXPECT_TRUE(log_contains(line)) << line;
    EXPECT_TRUE(wait_log("lws_service_thread_func(): *************loop_cycle*100 "));
}

TEST_F(Push, RefusalsStartNoThread)
{
    WssServer server;
    lws_channel_t channel;
    std::memset(&channel, 0, sizeof channel);
    const uint32_t port = static_cast<uint32_t>(server.port());
    struct Case {
        const char *what, *address, *path;
        uint32_t port;
        lws_channel_t *channel;
        int32_t loop_cycle;
    } cases[] = {
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
    EXPECT_FALSE(log_contains("lws_service_thread_func"));
    EXPECT_EQ(server.connections(), 0);
}

TEST_F(Push, ThreadThatCannotStartLeavesAHandleWithoutThread)
{
    WssServer server;
    Session s(server);
    const int threads = thread_count();
    g_thread_start_result = 11;
    ASSERT_NE(s.connect(), nullptr);
    EXPECT_EQ(s.client()->service_thread, nullptr);
    EXPECT_TRUE(log_contains("lws_connect(): ret: 11\n"));
    EXPECT_EQ(kxtest::log_count("ret: 11", kxtest::kError), 1);
    EXPECT_EQ(thread_count(), threads);
    s.disconnect(); /* frees the handle, joins nothing */
    EXPECT_TRUE(log_contains("lws_disconnect(): *************lws_disconnect**************\n"));
    EXPECT_EQ(server.connections(), 0);
}

TEST_F(Push, CertificateFromAnUnknownCaIsRefused)
{
    kxcloud::WssOptions options;
    options.cert = "other_server";
    WssServer server(options);
    Session s(server);
    ASSERT_NE(s.connect(), nullptr);
    ASSERT_TRUE(s.wait([&] { return s.count("closed") > 0; }));
    EXPECT_TRUE(log_contains("lws_protocol_0_callback(): LWS_CALLBACK_CLIENT_CONNECTION_ERROR\n"));
    EXPECT_EQ(kxtest::log_count("LWS_CALLBACK_CLIENT_CONNECTION_ERROR", kxtest::kError), 1);
    EXPECT_EQ(s.count("established"), 0);
    EXPECT_EQ(s.events("closed").back().reason, LWS_CALLBACK_WSI_DESTROY);
    EXPECT_TRUE(server.wait_for([&] { return server.tls_failures() == 1; }, kWait));
    EXPECT_EQ(server.connections(), 0) << "no WebSocket handshake over a refused TLS session";
    EXPECT_EQ(s.client()->connection, nullptr);
}

/* ---- receiving and acknowledging ---------------------------------------- */

TEST_F(Push, MessageWithIdIsAcknowledgedBeforeTheApplicationSeesIt)
{
    WssServer server;
    Session s(server);
    ASSERT_TRUE(s.open());
    const std::string message = "{\"msgType\":\"notice\",\"id\":12,\"text\":\"hello\"}";
    ASSERT_TRUE(server.send_text(message));
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsText) == 1; }, kWait));

    auto texts = server.frames(kxcloud::kWsText);
    EXPECT_EQ(texts[0].payload, kAck12);
    EXPECT_TRUE(texts[0].fin);
    EXPECT_TRUE(texts[0].masked) << "a client masks every frame";

    ASSERT_TRUE(s.wait([&] { return s.count("message") == 1; }));
    Event m = s.events("message")[0];
    EXPECT_EQ(m.text, message);
    EXPECT_TRUE(m.terminated);
    EXPECT_EQ(m.reason, LWS_CALLBACK_CLIENT_RECEIVE);
    EXPECT_EQ(m.tid, s.channel().service_tid);
    EXPECT_EQ(m.slot, kAck12) << "the acknowledgement is queued before on_message runs";

    EXPECT_TRUE(log_contains("lws_protocol_0_callback(): Rx: " + message + "\n"));
    EXPECT_TRUE(wait_log("writ_callback_send_buf(): writ_count: " + std::to_string(sizeof kAck12 - 1) + "\n"));
    EXPECT_TRUE(log_contains("writ_callback_send_buf(): clean up\n"));
    EXPECT_FALSE(log_contains("retryTime"));
    EXPECT_EQ(s.channel().payload_len, 0u);
    EXPECT_EQ(s.channel().write_protocol, LWS_WRITE_TEXT) << "kept after the send";
}

TEST_F(Push, TextsWithoutAnIdAreDeliveredButNotAcknowledged)
{
    WssServer server;
    Session s(server);
    ASSERT_TRUE(s.open());
    const std::vector<std::string> sent = {"not json at all", "{\"msgType\":\"notice\"}", "[12]", "{\"ID\":5}",
                                           "{\"id\":13}"};
    for (const auto &text : sent)
        ASSERT_TRUE(server.send_text(text));
    /* Frames come in order: once the last message's acknowledgement is in,
     * one for any earlier message would have arrived before it. */
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsText) == 1; }, kWait));
    EXPECT_EQ(payloads(server.frames(kxcloud::kWsText)), std::vector<std::string>{ack_of(13)});

    ASSERT_TRUE(s.wait([&] { return s.count("message") == 5; }));
    std::vector<std::string> delivered;
    for (const auto &e : s.events("message"))
        delivered.push_back(e.text);
    EXPECT_EQ(delivered, sent);
    EXPECT_EQ(kxtest::log_count("lws_protocol_0_callback(): Rx: ", kxtest::kInfo), 5);
    EXPECT_EQ(kxtest::log_count("decodeMessage(): cJSON_Parse failed!\n", kxtest::kError), 1);
    EXPECT_EQ(kxtest::log_count("decodeMessage(): cId struct uncorrect!\n", kxtest::kError), 3);
}

TEST_F(Push, WithoutOnMessageNothingIsAcknowledged)
{
    WssServer server;
    Session s(server);
    s.channel().on_message = nullptr;
    ASSERT_TRUE(s.open());
    ASSERT_TRUE(server.send_text("{\"id\":21}"));
    ASSERT_TRUE(wait_log("Rx: {\"id\":21}"));
    /* A frame the application sends afterwards arrives alone. */
    ASSERT_EQ(queue_text(s.client(), "after", 1), 0);
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsText) == 1; }, kWait));
    EXPECT_EQ(server.frames(kxcloud::kWsText)[0].payload, "after");
    EXPECT_FALSE(log_contains("decodeMessage"));
}

TEST_F(Push, AcknowledgementIsRetriedSixTimesWhileTheApplicationHoldsTheLock)
{
    WssServer server;
    Session s(server);
    ASSERT_TRUE(s.open());
    kxtest::clear_log();
    __atomic_store_n(&s.channel().write_lock, 1, __ATOMIC_SEQ_CST);
    ASSERT_TRUE(server.send_text("{\"id\":7}"));
    ASSERT_TRUE(s.wait([&] { return s.count("message") == 1; }));
    __atomic_store_n(&s.channel().write_lock, 0, __ATOMIC_SEQ_CST);

    EXPECT_EQ(s.events("message")[0].text, "{\"id\":7}") << "delivered although it was not acknowledged";
    EXPECT_EQ(kxtest::log_count("fire_writable_in(): fire_writable_in\n", kxtest::kInfo), 6);
    EXPECT_EQ(kxtest::log_count("fire_writable(): data is locked\n", kxtest::kError), 6);
    /* Each retry is announced by the callback before it is made. */
    std::vector<std::string> retries;
    for (const auto &line : log_matching("retryTime = "))
        retries.push_back(line.substr(line.find(':', line.find(':') + 1) + 1));
    EXPECT_EQ(retries, (std::vector<std::string>{
                           "lws_protocol_0_callback(): retryTime = 0\n", "lws_protocol_0_callback(): retryTime = 1\n",
                           "lws_protocol_0_callback(): retryTime = 2\n", "lws_protocol_0_callback(): retryTime = 3\n",
                           "lws_protocol_0_callback(): retryTime = 4\n"}));
    EXPECT_LT(log_index("fire_writable_in(): fire_writable_in"), log_index("retryTime = 0"));

    /* The dropped acknowledgement never goes out later. */
    ASSERT_TRUE(server.send_text("{\"id\":8}"));
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsText) == 1; }, kWait));
    EXPECT_EQ(payloads(server.frames(kxcloud::kWsText)), std::vector<std::string>{ack_of(8)});
}

/* ---- sending ------------------------------------------------------------ */

void queue_two(TestChannel *t)
{
    /* On the service thread, which cannot write in between. */
    fire_writable_out(t->client, heap_text("first"), 5, LWS_WRITE_TEXT, 0);
    fire_writable_out(t->client, heap_text("second"), 6, LWS_WRITE_TEXT, 1);
    t->message_hook = nullptr;
}

TEST_F(Push, SecondFrameQueuedBeforeTheFirstWasSentReplacesIt)
{
    WssServer server;
    Session s(server);
    ASSERT_TRUE(s.open());
    s.test().message_hook = queue_two;
    ASSERT_TRUE(server.send_text("queue two"));
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsText) == 1; }, kWait));
    /* A frame sent after it shows that nothing else was waiting. */
    ASSERT_EQ(queue_text(s.client(), "third", 1), 0);
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsText) == 2; }, kWait));
    EXPECT_EQ(payloads(server.frames(kxcloud::kWsText)), (std::vector<std::string>{"second", "third"}));
}

TEST_F(Push, FramesFromAnApplicationThreadGoOutWokenOrOnTheNextTurn)
{
    WssServer server;
    Session s(server);
    ASSERT_TRUE(s.open(200));
    /* Woken: at once. */
    ASSERT_EQ(queue_text(s.client(), "woken", 1), 0);
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsText) == 1; }, kWait));
    EXPECT_TRUE(wait_until([&] { return __atomic_load_n(&s.channel().payload_len, __ATOMIC_ACQUIRE) == 0; }));
    EXPECT_EQ(__atomic_load_n(&s.channel().wake_flag, __ATOMIC_ACQUIRE), 0) << "cleared with the send";
    /* Not woken: when the service thread next comes round. A ping's
     * payload stays the caller's. */
    static const char ping[] = "app-ping";
    int32_t queued;
    ASSERT_TRUE(wait_until([&] { return (queued = fire_writable_out(s.client(), const_cast<char *>(ping), 8, LWS_WRITE_PING, 0)) != -1; }));
    ASSERT_EQ(queued, 0);
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsPing) == 1; }, kWait));
    EXPECT_EQ(server.frames(kxcloud::kWsPing)[0].payload, "app-ping");
    EXPECT_EQ(server.frames(kxcloud::kWsText)[0].payload, "woken");
    EXPECT_EQ(kxtest::log_count("fire_writable_out(): fire_writable_out\n", kxtest::kInfo), 2);
}

TEST_F(Push, QueuingResults)
{
    lws_channel_t channel;
    std::memset(&channel, 0, sizeof channel);
    lws_client_t client;
    std::memset(&client, 0, sizeof client);
    client.channel = &channel;
    lws_client_t no_channel;
    std::memset(&no_channel, 0, sizeof no_channel);
    static char slot_size[KX_LWS_PAYLOAD_SIZE + 1];

    struct Case {
        const char *what;
        int32_t expected;
        const char *line; /* the refusal's log line, "" for none */
        std::function<int32_t()> call;
    };
    char text[] = "x";
    const std::vector<Case> cases = {
        {"out: null handle", -2, "fire_writable_out(): data is null\n",
         [&] { return fire_writable_out(nullptr, text, 1, 0, 0); }},
        {"out: handle without record", -2, "fire_writable_out(): data is null\n",
         [&] { return fire_writable_out(&no_channel, text, 1, 0, 0); }},
        {"out: null buffer", -3, "fire_writable_out(): buf is NULL or len is 0\n",
         [&] { return fire_writable_out(&client, nullptr, 1, 0, 0); }},
        {"out: zero length", -3, "fire_writable_out(): buf is NULL or len is 0\n",
         [&] { return fire_writable_out(&client, text, 0, 0, 0); }},
        {"out: one byte over the slot", -3, "fire_writable(): len 10241 is bigger than the payload buffer 10240\n",
         [&] { return fire_writable_out(&client, slot_size, KX_LWS_PAYLOAD_SIZE + 1, 0, 0); }},
        {"in: null buffer", -3, "fire_writable_in(): buf is NULL or len is 0\n",
         [&] { return fire_writable_in(nullptr, &channel, nullptr, 4, 5); }},
        {"in: zero length", -3, "fire_writable_in(): buf is NULL or len is 0\n",
         [&] { return fire_writable_in(nullptr, &channel, text, 0, 5); }},
        {"in: null record", -2, "fire_writable(): data is null\n",
         [&] { return fire_writable_in(nullptr, nullptr, text, 1, 5); }},
        {"in: one byte over the slot", -3, "fire_writable(): len 10241 is bigger than the payload buffer 10240\n",
         [&] { return fire_writable_in(nullptr, &channel, slot_size, KX_LWS_PAYLOAD_SIZE + 1, 0); }},
        {"send: null record", -1, "", [&] { return writ_callback_send_buf(nullptr, nullptr); }},
    };
    for (const auto &c : cases) {
        kxtest::clear_log();
        EXPECT_EQ(c.call(), c.expected) << c.what;
        if (*c.line != '\0') {
            EXPECT_EQ(kxtest::log_count(c.line, kxtest::kError), 1) << c.what;
        }
        EXPECT_EQ(channel.payload_len, 0u) << c.what << ": the slot is untouched";
    }

    /* A frame of exactly the slot's size fits. Then the lock: a queuing call
     * that finds it held fails without waiting and leaves buffer and slot
     * alone; the writer finds it held too. */
    std::memset(slot_size, 'p', sizeof slot_size);
    EXPECT_EQ(fire_writable_out(&client, slot_size, KX_LWS_PAYLOAD_SIZE, LWS_WRITE_BINARY, 0), 0);
    EXPECT_EQ(channel.payload_len, static_cast<uint32_t>(KX_LWS_PAYLOAD_SIZE));
    EXPECT_EQ(channel.payload[KX_LWS_PAYLOAD_SIZE - 1], 'p');
    EXPECT_EQ(channel.write_protocol, LWS_WRITE_BINARY);

    channel.write_lock = 1;
    char *held = heap_text("held");
    kxtest::clear_log();
    EXPECT_EQ(fire_writable_out(&client, held, 4, LWS_WRITE_TEXT, 1), -1);
    EXPECT_EQ(kxtest::log_count("fire_writable(): data is locked\n", kxtest::kError), 1);
    EXPECT_STREQ(held, "held") << "a refused text stays the caller's";
    std::free(held);
    int dummy;
    EXPECT_EQ(writ_callback_send_buf(reinterpret_cast<struct lws *>(&dummy), &channel), -1);
    EXPECT_EQ(channel.payload_len, static_cast<uint32_t>(KX_LWS_PAYLOAD_SIZE)) << "the waiting frame stays";
    channel.write_lock = 0;
    channel.payload_len = 0;
    EXPECT_EQ(writ_callback_send_buf(reinterpret_cast<struct lws *>(&dummy), &channel), 0) << "empty slot";
}

TEST_F(Push, DecodeMessageReadsTheTopLevelId)
{
    struct Case {
        const char *text;
        int32_t result, id;
        const char *line;
    } cases[] = {
        {"{\"id\":12}", 0, 12, ""},
        {"{\"msgType\":\"x\",\"id\":-3,\"data\":{\"id\":9}}", 0, -3, ""},
        {"{\"id\":7.9}", 0, 7, ""},
        {"{\"id\":\"12\"}", 0, 0, ""},
        {"{\"data\":{\"id\":9}}", -1, 99, "decodeMessage(): cId struct uncorrect!\n"},
        {"{\"ID\":12}", -1, 99, "decodeMessage(): cId struct uncorrect!\n"},
        {"[{\"id\":1}]", -1, 99, "decodeMessage(): cId struct uncorrect!\n"},
        {"{\"id\":12", -1, 99, "decodeMessage(): cJSON_Parse failed!\n"},
        {"", -1, 99, "decodeMessage(): cJSON_Parse failed!\n"},
        {nullptr, -1, 99, ""},
    };
    for (const auto &c : cases) {
        kxtest::clear_log();
        int32_t id = 99;
        EXPECT_EQ(decodeMessage(c.text, &id), c.result) << (c.text ? c.text : "(null)");
        EXPECT_EQ(id, c.id) << (c.text ? c.text : "(null)");
        EXPECT_EQ(kxtest::log_lines().size(), *c.line ? 1u : 0u) << (c.text ? c.text : "(null)");
        if (*c.line) {
            EXPECT_EQ(kxtest::log_count(c.line, kxtest::kError), 1);
        }
    }
}

/* ---- heartbeat ---------------------------------------------------------- */

TEST_F(Push, HeartbeatPingsOnItsPeriod)
{
    WssServer server;
    Session s(server, 1);
    ASSERT_TRUE(s.open());
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsPing) >= 3; }, kWait));
    auto pings = server.frames(kxcloud::kWsPing);
    for (size_t i = 0; i < pings.size(); ++i) {
        EXPECT_EQ(pings[i].payload, "heartbeat");
        EXPECT_TRUE(pings[i].masked);
        if (i > 0) {
            EXPECT_GE(pings[i].at - pings[i - 1].at, 900ms) << "ping " << i;
        }
    }
    const auto first_gap = pings[0].at - server.handshakes()[0].at;
    EXPECT_GE(first_gap, 900ms) << "the first ping comes one period after the connection opened";
    /* Pongs answer them: the count never grows. */
    ASSERT_TRUE(wait_log("receive pong", 2));
    EXPECT_EQ(s.count("timeout"), 0);
    EXPECT_TRUE(log_contains("lws_protocol_0_callback(): LWS_CALLBACK_TIMER, 5, 0, 3\n"));
    EXPECT_FALSE(log_contains("LWS_CALLBACK_TIMER, 5, 2, 3"));
}

TEST_F(Push, MissedPongsCallTheTimeoutFromTheFourthTickUntilAPongArrives)
{
    kxcloud::WssOptions options;
    options.answer_pings = false;
    WssServer server(options);
    Session s(server, 1, 3);
    ASSERT_TRUE(s.open());
    ASSERT_TRUE(s.wait([&] { return s.count("timeout") == 2; }));

    /* Ticks 1 to 3 only ping; tick 4 (three pings at the server, the fourth
     * in the slot) and tick 5 call the timeout. */
    auto timeouts = s.events("timeout");
    EXPECT_EQ(timeouts[0].reason, LWS_CALLBACK_TIMER);
    EXPECT_EQ(timeouts[0].missed, 3);
    EXPECT_EQ(timeouts[0].pings_at_server, 3);
    EXPECT_EQ(timeouts[1].missed, 4);
    EXPECT_EQ(timeouts[1].pings_at_server, 4);
    EXPECT_EQ(timeouts[0].tid, s.channel().service_tid);
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
    ASSERT_TRUE(s.wait([&] {
        auto t = s.events("timeout");
        return t.size() >= 3 && t.back().missed == 3;
    }));
    EXPECT_GT(log_index("LWS_CALLBACK_TIMER, 5, 0, 3\n"), pong_at);
    std::vector<int> missed;
    for (const auto &e : s.events("timeout"))
        missed.push_back(e.missed);
    /* A tick may have come between the second timeout and the pong. */
    if (missed.size() == 4)
        EXPECT_EQ(missed, (std::vector<int>{3, 4, 5, 3}));
    else
        EXPECT_EQ(missed, (std::vector<int>{3, 4, 3}));
}

/* ---- closing ------------------------------------------------------------ */

TEST_F(Push, ServerCloseReachesOnClosedAndNothingReconnects)
{
    WssServer server;
    Session s(server);
    ASSERT_TRUE(s.open());
    ASSERT_TRUE(server.close(1000, "bye"));
    ASSERT_TRUE(s.wait([&] { return s.count("closed") == 2; }));
    auto closed = s.events("closed");
    EXPECT_EQ(closed[0].reason, LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER) << "called while the handshake is written";
    EXPECT_EQ(closed[1].reason, LWS_CALLBACK_WSI_DESTROY);
    EXPECT_EQ(closed[1].tid, s.channel().service_tid);
    EXPECT_TRUE(log_contains("lws_protocol_0_callback(): def_callback : 75\n")) << "the client's own close reason";
    ASSERT_TRUE(server.wait_for([&] { return server.count(kxcloud::kWsClose) == 1; }, kWait));
    auto closes = server.frames(kxcloud::kWsClose);
    EXPECT_EQ(closes[0].payload, std::string("\x03\xe8" "bye", 5)) << "the client answers with the server's close";
    EXPECT_EQ(s.client()->connection, nullptr);

    /* The service loop goes on turning, and never connects again. */
    const size_t turns = log_matching("*************loop_cycle*100").size();
    ASSERT_TRUE(wait_log("*************loop_cycle*100", static_cast<int>(turns) + 5));
    EXPECT_EQ(server.connections(), 1);
    EXPECT_EQ(log_matching("addr_port:").size(), 1u);
    /* Sending into a closed channel is queued and goes nowhere. */
    EXPECT_EQ(queue_text(s.client(), "late", 1), 0);
}

TEST_F(Push, DisconnectJoinsTheServiceThreadAtOnceAndLeavesNothing)
{
    WssServer server;
    Session s(server, 2);
    ASSERT_TRUE(s.open(2000));
    const uint32_t tid = s.channel().service_tid;
    const int threads = thread_count();
    ASSERT_TRUE(thread_exists(tid));

    const auto started = std::chrono::steady_clock::now();
    s.disconnect();
    const auto took = std::chrono::steady_clock::now() - started;
    EXPECT_LT(took, 2000ms) << "within one service period (2000 ms)";
    EXPECT_FALSE(thread_exists(tid));
    EXPECT_EQ(thread_count(), threads - 1);
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

TEST_F(Push, NegativeLoopCycleSetsUpAndEndsAtOnce)
{
    WssServer server;
    Session s(server);
    ASSERT_NE(s.connect(-1), nullptr);
    ASSERT_TRUE(s.wait([&] { return s.count("closed") > 0; })) << "the context is released when the loop ends";
    EXPECT_TRUE(wait_log("lws_service_thread_func(): loop_cycle: -1\n"));
    EXPECT_FALSE(log_contains("*************loop_cycle*"));
    EXPECT_EQ(s.count("established"), 0);
    EXPECT_EQ(s.client()->context, nullptr);
    /* The application may still queue and wake: nothing reaches a context
     * that is gone. */
    EXPECT_EQ(queue_text(s.client(), "nobody", 1), 0);
    s.disconnect();
    EXPECT_TRUE(log_contains("*************lws_disconnect**************"));
}

}  // namespace
