/*
 * The push channel: one secure WebSocket connection served by a thread of its
 * own, a one-frame send slot filled from any thread, heartbeat pings and
 * acknowledgements of received messages.
 *
 * Who touches what:
 *  - The service thread (lws_service_thread_func and, through libwebsockets,
 *    every callback) owns the libwebsockets context and connection. Every
 *    libwebsockets call that is not thread-safe is made on it.
 *  - Application threads fill the slot (fire_writable_out) and may wake the
 *    service thread with lws_cancel_service, the one libwebsockets call made
 *    from outside. They never ask libwebsockets for a writable callback
 *    themselves: the service thread does that when it comes round and finds a
 *    frame waiting.
 *  - The slot is guarded by the record's one-byte try-lock; the fields read
 *    outside it (payload_len, write_protocol, wake_flag) are read and written
 *    with atomic operations.
 *  - The handle's context pointer is published and withdrawn under
 *    g_context_guard, so that a wake-up from another thread never reaches a
 *    context that the service thread is destroying.
 */
#include <cjson/cJSON.h>
#include <libwebsockets.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "internal/kx_format.h"
#include "internal/kx_log.h"
#include "internal/kx_owned.h"
#include "internal/kx_secrets.h"
#include "kx_sdk_list.h"
#include "kx_sdk_lws.h"
#include "vtl_platform.h"

static_assert(LWS_PRE == KX_LWS_PREFIX_SIZE, "the slot's prefix is libwebsockets' frame header room");
static_assert(offsetof(lws_channel_t, payload) == KX_LWS_PREFIX_SIZE, "the slot follows its prefix directly");

const struct lws_protocols lws_protocol_table[2] = {
    {"ws", lws_protocol_0_callback, sizeof(lws_channel_t), KX_LWS_PAYLOAD_SIZE, 0, nullptr, KX_LWS_PAYLOAD_SIZE},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

namespace {

constexpr int kLogLevel = 1287; /* LLL_ERR | LLL_WARN | LLL_NOTICE | LLL_CLIENT | LLL_USER */
constexpr char kHeartbeat[] = "heartbeat";
constexpr uint32_t kHeartbeatLength = sizeof kHeartbeat - 1;
constexpr int kAckAttempts = 6;
/* The helpers below run inside the protocol callback and speak for it. */
constexpr const char *kCallback = "lws_protocol_0_callback";

pthread_mutex_t g_context_guard = PTHREAD_MUTEX_INITIALIZER;

/*
 * What the service thread keeps about its one connection. It lives on the
 * service thread's stack and is reached from the callbacks (which run on that
 * thread only) through t_service.
 */
struct ServiceState {
    lws_sorted_usec_list_t tick; /* first: the tick callback finds the state from it */
    lws_usec_t tick_period = 0;
    lws_client_t *client = nullptr;
    lws_context *context = nullptr;
    struct lws *connection = nullptr; /* null once libwebsockets destroyed it */
    bool established = false;
};

thread_local ServiceState *t_service = nullptr;

bool try_lock(lws_channel_t *channel)
{
    uint8_t expected = 0;
    return __atomic_compare_exchange_n(&channel->write_lock, &expected, 1, false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_SEQ_CST);
}

void unlock(lws_channel_t *channel)
{
    __atomic_store_n(&channel->write_lock, 0, __ATOMIC_SEQ_CST);
}

template <typename T>
T load(const T *field)
{
    return __atomic_load_n(field, __ATOMIC_ACQUIRE);
}

template <typename T>
void store(T *field, T value)
{
    __atomic_store_n(field, value, __ATOMIC_RELEASE);
}

/* The service thread publishes its context here and withdraws it before
 * destroying it; wake_service never uses a context outside the guard. */
void publish_context(lws_client_t *client, lws_context *context)
{
    pthread_mutex_lock(&g_context_guard);
    store(&client->context, context);
    pthread_mutex_unlock(&g_context_guard);
}

void wake_service(lws_client_t *client)
{
    pthread_mutex_lock(&g_context_guard);
    lws_context *context = load(&client->context);
    if (context != nullptr)
        lws_cancel_service(context);
    pthread_mutex_unlock(&g_context_guard);
}

/*
 * libwebsockets 4 ignores lws_service's time-out and waits until the next
 * event or scheduled callback. This tick brings the service loop round at
 * least every loop_cycle milliseconds, as the time-out promises: a frame
 * queued without a wake-up goes out then, and the loop sees a stop request.
 */
void on_tick(lws_sorted_usec_list_t *sul)
{
    auto *state = reinterpret_cast<ServiceState *>(sul);
    lws_sul_schedule(state->context, 0, &state->tick, on_tick, state->tick_period);
}

void arm_heartbeat(struct lws *wsi, const lws_channel_t *channel)
{
    /* A period of 0 or less would fire at once and for ever: no heartbeat. */
    if (channel->heartbeat_interval > 0)
        lws_set_timer_usecs(wsi, static_cast<lws_usec_t>(channel->heartbeat_interval) * 1000000);
}

void sleep_ms(int32_t ms)
{
    timespec pause = {ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&pause, &pause) != 0) {
    }
}

/* The acknowledgement of message id, queued with up to six attempts. */
void acknowledge(struct lws *wsi, lws_channel_t *channel, int32_t id)
{
    kx::Owned<cJSON, cJSON_Delete> ack(cJSON_CreateObject());
    if (!ack || cJSON_AddStringToObject(ack.get(), "msgType", "ack") == nullptr ||
        cJSON_AddNumberToObject(ack.get(), "id", id) == nullptr)
        return;
    char *text = cJSON_Print(ack.get());
    ack.reset();
    if (text == nullptr)
        return;
    const auto length = static_cast<uint32_t>(std::strlen(text));
    int32_t result = fire_writable_in(wsi, channel, text, length, LWS_WRITE_TEXT);
    for (int retry = 0; result != 0 && retry < kAckAttempts - 1; ++retry) {
        KX_LOGI_AS(kCallback, "retryTime = %d\n", retry);
        result = fire_writable_in(wsi, channel, text, length, LWS_WRITE_TEXT);
    }
    /* Queued, the text is the slot's and already released; refused six
     * times, it is dropped here. */
    if (result != 0)
        KX_SDK_FREE(text);
}

void on_receive(struct lws *wsi, lws_channel_t *channel, void *in, size_t len, int reason)
{
    /* libwebsockets' receive buffer is not NUL-terminated: the text is
     * copied into one that is (a chunk is at most the protocol's receive
     * size, 10240 bytes). */
    char text[KX_LWS_PAYLOAD_SIZE + 1];
    const size_t kept = len < KX_LWS_PAYLOAD_SIZE ? len : KX_LWS_PAYLOAD_SIZE;
    if (kept > 0)
        std::memcpy(text, in, kept);
    text[kept] = '\0';
    KX_LOGI_AS(kCallback, "Rx: %s\n", text);
    if (channel == nullptr || channel->on_message == nullptr)
        return;
    int32_t id = 0;
    if (decodeMessage(text, &id) == 0)
        acknowledge(wsi, channel, id);
    channel->on_message(wsi, channel, kept == len ? text : in, len, reason);
}

void on_heartbeat_tick(struct lws *wsi, lws_channel_t *channel, void *in, size_t len, int reason)
{
    KX_LOGI_AS(kCallback, "LWS_CALLBACK_TIMER, %d, %d, %d\n", load(&channel->write_protocol), channel->missed_heartbeats,
            channel->heartbeat_max_missed);
    /* The ping is queued first, then the slot is looked at: a tick whose
     * ping is in the slot counts a miss, whatever was sent before it. */
    fire_writable_in(wsi, channel, const_cast<char *>(kHeartbeat), kHeartbeatLength, LWS_WRITE_PING);
    if (load(&channel->write_protocol) == LWS_WRITE_PING) {
        if (channel->missed_heartbeats >= channel->heartbeat_max_missed && channel->on_heartbeat_timeout != nullptr)
            channel->on_heartbeat_timeout(wsi, channel, in, len, reason);
        channel->missed_heartbeats++;
    }
    arm_heartbeat(wsi, channel);
}

/* The service thread's own bookkeeping of its connection. */
void note_established(const lws_channel_t *channel)
{
    if (t_service != nullptr && channel != nullptr && channel == t_service->client->channel)
        t_service->established = true;
}

void note_destroyed(const lws_channel_t *channel)
{
    if (t_service == nullptr || channel == nullptr || channel != t_service->client->channel)
        return;
    t_service->established = false;
    t_service->connection = nullptr;
    store(&t_service->client->connection, static_cast<struct lws *>(nullptr));
}

/*
 * The end of a service thread: the context is withdrawn from the handle and
 * destroyed, which closes the connection (its close reasons reach the
 * callbacks here) and releases everything libwebsockets held.
 */
void finish_service(ServiceState &state)
{
    if (state.context == nullptr)
        return;
    lws_sul_cancel(&state.tick);
    publish_context(state.client, nullptr);
    lws_context_destroy(state.context);
    state.context = nullptr;
}

void *lws_service_thread_func(void *arg)
{
    auto *client = static_cast<lws_client_t *>(arg);
    ServiceState state;
    std::memset(&state.tick, 0, sizeof state.tick);
    state.client = client;
    t_service = &state;

    lws_channel_t *channel = client->channel;
    store(&channel->service_pid, static_cast<uint32_t>(getpid()));
    store(&channel->service_tid, static_cast<uint32_t>(syscall(SYS_gettid)));
    KX_LOGI("lws_service_thread_func pid: %u tid %u \n", load(&channel->service_pid), load(&channel->service_tid));

    lws_context_creation_info info;
    std::memset(&info, 0, sizeof info);
    info.port = CONTEXT_PORT_NO_LISTEN;
    info.protocols = lws_protocol_table;
    info.client_ssl_ca_filepath = kx::ca_bundle_path();
    info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
    info.gid = static_cast<gid_t>(-1);
    info.uid = static_cast<uid_t>(-1);
    state.context = lws_create_context(&info);
    if (state.context != nullptr)
        KX_LOGI("lws_create_context success.\n");
    else
        KX_LOGE("lws_create_context failed.\n");
    publish_context(client, state.context);

    kx::FixedText<256> addr_port;
    addr_port.format("%s:%u", client->address, client->port);
    KX_LOGI("addr_port: %s\n", addr_port.c_str());

    /* Without a context there is nothing to connect (libwebsockets would
     * dereference it); the thread still waits for its stop like any other. */
    if (state.context != nullptr) {
        lws_client_connect_info connect;
        std::memset(&connect, 0, sizeof connect);
        connect.context = state.context;
        connect.address = client->address;
        connect.port = static_cast<int>(client->port);
        connect.ssl_connection = LCCSCF_USE_SSL;
        connect.path = client->path;
        connect.host = addr_port.c_str();
        connect.origin = addr_port.c_str();
        connect.protocol = "ws";
        connect.ietf_version_or_minus_one = 0;
        connect.userdata = channel;
        state.connection = lws_client_connect_via_info(&connect);
        store(&client->connection, state.connection);
    }

    const int32_t loop_cycle = load(client->loop_flag);
    KX_LOGI("loop_cycle: %d\n", loop_cycle);
    if (state.context != nullptr && loop_cycle > 0) {
        state.tick_period = static_cast<lws_usec_t>(loop_cycle) * 1000;
        lws_sul_schedule(state.context, 0, &state.tick, on_tick, state.tick_period);
    }
    while (load(client->loop_flag) >= 0) {
        if (state.established && state.connection != nullptr && load(&channel->payload_len) != 0)
            lws_callback_on_writable(state.connection);
        int result;
        if (state.context != nullptr) {
            result = lws_service(state.context, loop_cycle);
        } else {
            sleep_ms(loop_cycle);
            result = -1;
        }
        KX_LOGI("*************loop_cycle*%d %d*************\n", loop_cycle, result);
    }

    finish_service(state);
    t_service = nullptr;
    return nullptr;
}

}  // namespace

lws_client_t *lws_connect(const char *address, const char *path, uint32_t port, lws_channel_t *channel,
                          int32_t loop_cycle)
{
    lws_set_log_level(kLogLevel, nullptr);
    KX_LOGI("begin to connect wss\n");
    if (address == nullptr || channel == nullptr)
        return nullptr;
    if (loop_cycle == 0 || path == nullptr || port == 0)
        return nullptr;

    kx::HeapPtr<lws_client_t> client(static_cast<lws_client_t *>(std::calloc(1, sizeof(lws_client_t))));
    kx::HeapPtr<int32_t> loop_flag(static_cast<int32_t *>(std::calloc(1, sizeof(int32_t))));
    kx::HeapPtr<pthread_t> thread(static_cast<pthread_t *>(std::calloc(1, sizeof(pthread_t))));
    if (!client || !loop_flag || !thread) {
        KX_LOGE("out of memory.\n");
        return nullptr;
    }
    client->channel = channel;
    client->address = address;
    client->path = path;
    client->port = port;
    channel->missed_heartbeats = 0;
    channel->reserved = 0;
    *loop_flag = loop_cycle;
    client->loop_flag = loop_flag.release();
    client->service_thread = thread.get();

    const int ret = _vtlOsalPOSIX_pthread_create_line(thread.get(), nullptr, lws_service_thread_func, client.get(),
                                                      "kx_sdk_lws", __LINE__);
    if (ret != 0) {
        KX_LOGE("ret: %d\n", ret);
        /* No thread to join: lws_disconnect only frees the handle. */
        client->service_thread = nullptr;
        return client.release();
    }
    thread.release();
    return client.release();
}

void lws_disconnect(lws_client_t *client)
{
    KX_LOGI("lws_disconnect\n");
    if (client == nullptr || client->loop_flag == nullptr)
        return;
    /* Joining itself would fail and leave the thread running on a freed
     * handle. */
    if (t_service != nullptr && t_service->client == client) {
        KX_LOGE("lws_disconnect in the service thread is refused\n");
        return;
    }
    store(client->loop_flag, -1);
    wake_service(client);
    if (client->service_thread != nullptr) {
        pthread_join(*client->service_thread, nullptr);
        std::free(client->service_thread);
    }
    std::free(client->loop_flag);
    std::free(client);
    KX_LOGI("*************lws_disconnect**************\n");
}

int32_t fire_writable(struct lws *wsi, lws_channel_t *channel, void *buffer, uint32_t len, int32_t write_type,
                      uint8_t wake)
{
    KX_LOGI("fire_writable\n");
    if (channel == nullptr) {
        KX_LOGE("data is null\n");
        return -2;
    }
    if (buffer == nullptr || len == 0) {
        KX_LOGE("buf is NULL or len is 0\n");
        return -3;
    }
    /* The slot is 10240 bytes: a longer frame is refused whole, before the
     * slot is touched. */
    if (len > KX_LWS_PAYLOAD_SIZE) {
        KX_LOGE("len %u is bigger than the payload buffer %u\n", len, static_cast<unsigned>(KX_LWS_PAYLOAD_SIZE));
        return -3;
    }
    if (!try_lock(channel)) {
        KX_LOGE("data is locked\n");
        return -1;
    }
    std::memcpy(channel->payload, buffer, len);
    if (write_type == LWS_WRITE_TEXT)
        KX_SDK_FREE(buffer);
    store(&channel->wake_flag, wake);
    store(&channel->payload_len, len);
    store(&channel->write_protocol, write_type);
    unlock(channel);
    if (wsi != nullptr)
        lws_callback_on_writable(wsi);
    return 0;
}

int32_t fire_writable_out(lws_client_t *client, void *buffer, uint32_t len, int32_t write_type, uint8_t wake)
{
    KX_LOGI("fire_writable_out\n");
    if (client == nullptr || client->channel == nullptr) {
        KX_LOGE("data is null\n");
        return -2;
    }
    if (buffer == nullptr || len == 0) {
        KX_LOGE("buf is NULL or len is 0\n");
        return -3;
    }
    /* Not the handle's connection: asking libwebsockets for a writable
     * callback is the service thread's business, done when it comes round. */
    const int32_t result = fire_writable(nullptr, client->channel, buffer, len, write_type, wake);
    if (result == 0 && wake != 0)
        wake_service(client);
    return result;
}

int32_t fire_writable_in(struct lws *wsi, lws_channel_t *channel, void *buffer, uint32_t len, int32_t write_type)
{
    KX_LOGI("fire_writable_in\n");
    if (buffer == nullptr || len == 0) {
        KX_LOGE("buf is NULL or len is 0\n");
        return -3;
    }
    return fire_writable(wsi, channel, buffer, len, write_type, 0);
}

int32_t writ_callback_send_buf(struct lws *wsi, lws_channel_t *channel)
{
    if (channel == nullptr || wsi == nullptr)
        return -1;
    if (!try_lock(channel))
        return -1;
    int32_t result = 0;
    const uint32_t len = load(&channel->payload_len);
    if (len != 0) {
        result = lws_write(wsi, channel->payload, len, static_cast<enum lws_write_protocol>(load(&channel->write_protocol)));
        KX_LOGI("writ_count: %d\n", result);
    }
    KX_LOGI("clean up\n");
    /* The slot is emptied before the lock is released: emptied after, a
     * frame queued in between would be lost. */
    store(&channel->payload_len, 0u);
    store(&channel->wake_flag, static_cast<uint8_t>(0));
    unlock(channel);
    return result;
}

int32_t decodeMessage(const char *message, int32_t *id)
{
    if (message == nullptr)
        return -1;
    kx::Owned<cJSON, cJSON_Delete> root(cJSON_Parse(message));
    if (!root) {
        KX_LOGE("cJSON_Parse failed!\n");
        return -1;
    }
    const cJSON *member = cJSON_GetObjectItemCaseSensitive(root.get(), "id");
    if (member == nullptr) {
        KX_LOGE("cId struct uncorrect!\n");
        return -1;
    }
    if (id != nullptr)
        *id = member->valueint;
    return 0;
}

int lws_protocol_0_callback(struct lws *wsi, enum lws_callback_reasons reason, void *user, void *in, size_t len)
{
    auto *channel = static_cast<lws_channel_t *>(user);
    switch (reason) {
    case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
        KX_LOGE("LWS_CALLBACK_CLIENT_CONNECTION_ERROR\n");
        break;
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
        KX_LOGI("Connected to server\n");
        if (channel == nullptr)
            break;
        note_established(channel);
        arm_heartbeat(wsi, channel);
        if (channel->on_established != nullptr)
            channel->on_established(wsi, channel, in, len, reason);
        break;
    case LWS_CALLBACK_CLIENT_RECEIVE:
        on_receive(wsi, channel, in, len, reason);
        break;
    case LWS_CALLBACK_CLIENT_RECEIVE_PONG:
        KX_LOGI("receive pong\n");
        if (channel != nullptr)
            channel->missed_heartbeats = 0;
        break;
    case LWS_CALLBACK_CLIENT_WRITEABLE: {
        KX_LOGI("writable callback: %d\n", channel != nullptr ? static_cast<int>(load(&channel->payload_len)) : 0);
        const int32_t written = writ_callback_send_buf(wsi, channel);
        const uint32_t left = channel != nullptr ? load(&channel->payload_len) : 0;
        if (written < static_cast<int64_t>(left))
            KX_LOGE("lws_write failed or data locked \n");
        break;
    }
    case LWS_CALLBACK_OPENSSL_LOAD_EXTRA_CLIENT_VERIFY_CERTS:
        KX_LOGI("LWS_CALLBACK_OPENSSL_LOAD_EXTRA_CLIENT_VERIFY_CERTS\n");
        break;
    case LWS_CALLBACK_PROTOCOL_INIT:
        KX_LOGI("LWS_CALLBACK_PROTOCOL_INIT\n");
        break;
    case LWS_CALLBACK_GET_THREAD_ID:
        KX_LOGI("LWS_CALLBACK_GET_THREAD_ID\n");
        break;
    case LWS_CALLBACK_OPENSSL_PERFORM_SERVER_CERT_VERIFICATION:
        KX_LOGI("LWS_CALLBACK_OPENSSL_PERFORM_SERVER_CERT_VERIFICATION\n");
        break;
    case LWS_CALLBACK_CLIENT_HTTP_BIND_PROTOCOL:
        KX_LOGI("LWS_CALLBACK_CLIENT_HTTP_BIND_PROTOCOL\n");
        break;
    case LWS_CALLBACK_TIMER:
        if (channel != nullptr)
            on_heartbeat_tick(wsi, channel, in, len, reason);
        break;
    default:
        KX_LOGI("def_callback : %d\n", static_cast<int>(reason));
        if (reason == LWS_CALLBACK_WSI_DESTROY)
            note_destroyed(channel);
        if (channel != nullptr && channel->on_closed != nullptr &&
            (reason == LWS_CALLBACK_CLOSED || reason == LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER ||
             reason == LWS_CALLBACK_PROTOCOL_DESTROY || reason == LWS_CALLBACK_WSI_DESTROY))
            channel->on_closed(wsi, channel, in, len, reason);
        break;
    }
    return 0;
}
