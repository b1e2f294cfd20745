/*
 * push_session.c -- keep the push channel open and print what the cloud
 * pushes:
 *
 *   connect -> print every message (the library acknowledges those with an
 *   "id") -> the connection ends -> wait -> connect again -> ...
 *
 * Usage: push_session HOST:PORT [SECONDS]     e.g. push_session 127.0.0.1:8444 6
 *
 * The library never reconnects by itself: when a connection ends (on_closed
 * with LWS_CALLBACK_WSI_DESTROY) or does not open in time, this program calls
 * lws_disconnect and, after a pause, lws_connect again. The pause is a capped
 * exponential back-off with full jitter: before attempt n (counted from 0
 * since the last connection that opened) it waits a random time between 0
 * and min(8 s, 250 ms * 2^n), so that a fleet of devices that lost the server
 * together does not come back together.
 *
 * Copy from here: the channel record outlives every connection made with it,
 * the callbacks only take notes (they run on the library's service thread),
 * and every decision is made on the application's own thread. Runs for
 * SECONDS (default 10), then disconnects. Set VTL_DEBUG_LEVEL=info to see the
 * library's own log lines. Exit status: 0 when at least one connection
 * opened, 1 otherwise.
 */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <kx_cloud_openapi.h>

#define BACKOFF_BASE_MS 250L
#define BACKOFF_CAP_MS 8000L
#define OPEN_TIMEOUT_MS 10000L

/* What the callbacks tell the main thread, under `lock`. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed;
static int opened; /* this connection opened */
static int gone;   /* this connection has ended */
static int messages;

static lws_channel_t channel; /* zeroed; lives as long as the program */

static long now_ms(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (long)t.tv_sec * 1000L + t.tv_nsec / 1000000L;
}

/* Waits until *flag (or *or_flag) is set or the clock passes until_ms;
 * returns *flag. */
static int wait_flag(const int *flag, const int *or_flag, long until_ms)
{
    int value;
    pthread_mutex_lock(&lock);
    while (!*flag && !*or_flag && now_ms() < until_ms) {
        struct timespec at;
        at.tv_sec = until_ms / 1000L;
        at.tv_nsec = (until_ms % 1000L) * 1000000L;
        pthread_cond_timedwait(&changed, &lock, &at);
    }
    value = *flag;
    pthread_mutex_unlock(&lock);
    return value;
}

static void set_flag(int *flag)
{
    pthread_mutex_lock(&lock);
    *flag = 1;
    pthread_cond_broadcast(&changed);
    pthread_mutex_unlock(&lock);
}

/* ---- callbacks: on the library's service thread ---------------------------- */

static int on_established(struct lws *wsi, lws_channel_t *ch, void *in, size_t len, int reason)
{
    (void)wsi; (void)ch; (void)in; (void)len; (void)reason;
    printf("push: connected\n");
    set_flag(&opened);
    return 0;
}

static int on_message(struct lws *wsi, lws_channel_t *ch, void *in, size_t len, int reason)
{
    (void)wsi; (void)ch; (void)reason;
    /* `in` holds len bytes of text (NUL-terminated); an "id" in it has
     * already been acknowledged. */
    printf("push: message %.*s\n", (int)len, (const char *)in);
    pthread_mutex_lock(&lock);
    messages++;
    pthread_mutex_unlock(&lock);
    return 0;
}

static int on_closed(struct lws *wsi, lws_channel_t *ch, void *in, size_t len, int reason)
{
    (void)wsi; (void)ch; (void)in; (void)len;
    /* Also called with LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER while the
     * connection opens: only WSI_DESTROY means it has ended. */
    if (reason == LWS_CALLBACK_WSI_DESTROY) {
        printf("push: connection ended\n");
        set_flag(&gone);
    }
    return 0;
}

static int on_heartbeat_timeout(struct lws *wsi, lws_channel_t *ch, void *in, size_t len, int reason)
{
    (void)wsi; (void)in; (void)len; (void)reason;
    /* The connection stays open; a product might reconnect here. */
    printf("push: no pong for %d heartbeats\n", (int)ch->missed_heartbeats);
    return 0;
}

/* ---- the application's thread ----------------------------------------------- */

/* Full jitter: a random pause in [0, min(cap, base * 2^attempt)]. */
static long backoff_ms(int attempt)
{
    long ceiling = BACKOFF_BASE_MS;
    while (attempt-- > 0 && ceiling < BACKOFF_CAP_MS)
        ceiling *= 2;
    if (ceiling > BACKOFF_CAP_MS)
        ceiling = BACKOFF_CAP_MS;
    return random() % (ceiling + 1);
}

/* Queues one text frame; the library frees it once queued. */
static void say_hello(lws_client_t *client)
{
    const char hello[] = "{\"msgType\":\"hello\",\"device\":\"push_session\"}";
    char *text = malloc(sizeof hello);
    int32_t result;
    if (text == NULL)
        return;
    memcpy(text, hello, sizeof hello);
    result = fire_writable_out(client, text, (uint32_t)strlen(text), LWS_WRITE_TEXT, 1);
    if (result != 0) {
        /* -1: the slot was busy; the frame stays ours. */
        printf("push: hello not queued (%d)\n", (int)result);
        free(text);
    }
}

int main(int argc, char **argv)
{
    char host[256];
    const char *colon;
    unsigned port;
    long seconds = 10, end_ms;
    int attempt = 0, connections = 0;
    pthread_condattr_t attr;

    if (argc < 2 || argc > 3 || (colon = strrchr(argv[1], ':')) == NULL ||
        (size_t)(colon - argv[1]) >= sizeof host || sscanf(colon + 1, "%u", &port) != 1 ||
        (argc == 3 && (seconds = strtol(argv[2], NULL, 10)) <= 0)) {
        fprintf(stderr, "usage: %s HOST:PORT [SECONDS]\n", argv[0]);
        return 2;
    }
    memcpy(host, argv[1], (size_t)(colon - argv[1]));
    host[colon - argv[1]] = '\0';
    setvbuf(stdout, NULL, _IOLBF, 0);
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&changed, &attr);
    srandom((unsigned)time(NULL) ^ (unsigned)getpid());

    channel.heartbeat_interval = 2; /* seconds */
    channel.heartbeat_max_missed = 3;
    channel.on_established = on_established;
    channel.on_message = on_message;
    channel.on_closed = on_closed;
    channel.on_heartbeat_timeout = on_heartbeat_timeout;

    end_ms = now_ms() + seconds * 1000L;
    while (now_ms() < end_ms) {
        lws_client_t *client;
        long pause;

        pthread_mutex_lock(&lock);
        opened = gone = 0;
        pthread_mutex_unlock(&lock);
        channel.payload_len = 0; /* nothing left over from the last connection */
        printf("push: connecting to wss://%s:%u/push\n", host, port);
        client = lws_connect(host, "/push", port, &channel, 100);
        if (client != NULL) {
            long open_by = now_ms() + OPEN_TIMEOUT_MS;
            /* Opened, or ended first (refused, unreachable), or neither in time. */
            if (wait_flag(&opened, &gone, open_by < end_ms ? open_by : end_ms)) {
                connections++;
                attempt = 0;
                say_hello(client);
                wait_flag(&gone, &gone, end_ms);
            }
            lws_disconnect(client); /* joins the service thread */
        }
        if (now_ms() >= end_ms)
            break;
        pause = backoff_ms(attempt++);
        printf("push: reconnecting in %ld ms\n", pause);
        if (now_ms() + pause > end_ms)
            break;
        usleep((useconds_t)pause * 1000);
    }
    printf("push_session: %d connections, %d messages in %ld s\n", connections, messages, seconds);
    pthread_cond_destroy(&changed);
    return connections > 0 ? 0 : 1;
}
