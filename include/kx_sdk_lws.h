/*
 * kx_sdk_lws.h -- The push channel: one secure WebSocket connection to the
 * cloud's push server, on libwebsockets. Reach it through kx_cloud_openapi.h.
 *
 * The channel keeps one "wss://" connection (subprotocol "ws") on a service
 * thread of its own, sends a heartbeat ping ("heartbeat", 9 bytes) every
 * heartbeat_interval seconds, answers every received text that carries an
 * "id" with the acknowledgement
 *
 *     {
 *             "msgType":      "ack",
 *             "id":   12
 *     }
 *
 * (cJSON's formatted print: tabs and line feeds as shown), and hands
 * connection events and received texts to the callbacks of a record the
 * application owns. It is independent of KX_GLOBAL_INIT and of every request
 * call.
 *
 * Typical use:
 *
 *     static lws_channel_t channel;              zeroed, lives while connected
 *     channel.heartbeat_interval = 30;
 *     channel.heartbeat_max_missed = 3;
 *     channel.on_message = print_message;
 *     lws_client_t *client = lws_connect("push.example", "/push", 443, &channel, 100);
 *     ...
 *     char *text = strdup("{\"msgType\":\"hello\"}");
 *     fire_writable_out(client, text, strlen(text), 0, 1);   the library frees text
 *     ...
 *     lws_disconnect(client);
 *
 * Threads. lws_connect starts one service thread per connection through the
 * platform's _vtlOsalPOSIX_pthread_create_line. Every callback of the record
 * runs on that thread; so do fire_writable_in, fire_writable (with a
 * connection) and writ_callback_send_buf. Any thread may call
 * fire_writable_out. lws_disconnect joins the service thread and must not be
 * called from it (from inside a callback).
 *
 * The send slot. The record holds one frame, not a queue: a frame queued
 * before the service thread wrote the previous one replaces it (the last frame
 * queued wins). The slot is guarded by a one-byte try-lock that is never
 * waited on: a queuing call that finds it held fails at once with -1 and
 * "data is locked", and the frame is dropped. Text frames (write type 0) are
 * taken over by the library once they are copied into the slot and released
 * with KX_SDK_FREE, so they must come from malloc/calloc; a frame that is
 * refused (any negative result) stays the caller's. Other write types (5 =
 * ping, ...) are never released by the library.
 *
 * Frames longer than the slot. A frame of more than KX_LWS_PAYLOAD_SIZE
 * (10240) bytes is refused before the slot is touched: the queuing call
 * returns -3 and logs (error class)
 *     "fire_writable(): len 10241 is bigger than the payload buffer 10240"
 * with the length it was given; nothing is copied and the buffer stays the
 * caller's.
 *
 * Heartbeat. Every heartbeat_interval seconds the service thread queues the
 * ping; when the slot then holds a ping it counts a miss, and from the tick
 * on which the count has reached heartbeat_max_missed (ticks 4, 5, ... for a
 * limit of 3), every tick calls on_heartbeat_timeout. A pong from the server
 * sets the count back to 0. The timeout never closes the connection. A
 * heartbeat_interval of 0 or less sends no heartbeat at all.
 *
 * Reconnection is the application's decision: the channel never reconnects.
 * After on_closed with reason LWS_CALLBACK_WSI_DESTROY (30) the connection is
 * gone (it comes after a refused connection too); call lws_disconnect and
 * lws_connect again. on_closed is also called with
 * LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER (24) while the opening handshake
 * is written: test the reason. A connection that fails while libwebsockets
 * sets it up (an address that does not resolve) may end without any
 * callback: wait for on_established with a time-out of your own. A frame left
 * in the slot when a connection ends is sent on the next connection made with
 * the same record; set payload_len to 0 before lws_connect to drop it.
 * libwebsockets 4.1 keeps a watch of its own: a connection that has had no
 * pong for 300 seconds (since it opened, or since the last pong) gets a ping
 * from libwebsockets, and is closed when no pong follows within 10 seconds.
 *
 * lws_disconnect leaves nothing behind: the service thread leaves its loop,
 * destroys its libwebsockets context, which closes the connection (TLS and
 * TCP; no WebSocket close frame is sent) and runs its close reasons through
 * the callbacks on the service thread, and ends; lws_disconnect joins it and
 * frees the handle.
 * A service thread that left its loop by itself (a negative loop_cycle)
 * releases its context the same way and waits to be joined.
 *
 * The server's certificate is checked against the CA bundle fixed when the
 * library is built (default "/usr/local/opt/kxsdk2.0/ca/cacert.pem").
 * libwebsockets' own log goes to its default emitter (stderr) at level 1287
 * (errors, warnings, notices, client and user lines), set by lws_connect for
 * the whole process.
 */
#ifndef KX_SDK_LWS_H
#define KX_SDK_LWS_H

#include <pthread.h>
#include <stddef.h>

#include <libwebsockets.h>

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

/* Bytes before the slot that libwebsockets writes its frame header into
 * (LWS_PRE), and the size of the slot itself. */
#define KX_LWS_PREFIX_SIZE 16
#define KX_LWS_PAYLOAD_SIZE 10240

struct lws_channel;

/*
 * An application callback: the libwebsockets connection, the channel record,
 * the event's data and length as libwebsockets gave them (the received text
 * for on_message, NUL-terminated after len bytes), and the libwebsockets
 * reason (LWS_CALLBACK_...). Called on the service thread; the result is
 * ignored.
 */
typedef int (*lws_channel_callback)(struct lws *wsi, struct lws_channel *channel, void *in, size_t len,
                                    int reason);

/*
 * The channel record: allocated, zeroed and owned by the application, which
 * fills in the heartbeat settings and the callbacks before lws_connect and
 * keeps it alive until lws_disconnect has returned. It is the connection's
 * per-connection data inside libwebsockets.
 */
typedef struct lws_channel {
    unsigned char prefix[KX_LWS_PREFIX_SIZE];   /* libwebsockets' frame header room */
    unsigned char payload[KX_LWS_PAYLOAD_SIZE]; /* the send slot */
    uint32_t payload_len;        /* bytes waiting in the slot, 0 = empty */
    uint8_t write_lock;          /* try-lock of the slot: 0 free, 1 held (atomic) */
    uint8_t wake_flag;           /* wake argument of the last frame queued; 0 after each send */
    int32_t write_protocol;      /* write type of the slot's frame (0 text, 5 ping); kept after the send */
    int32_t missed_heartbeats;   /* heartbeat ticks since the last pong; zeroed by lws_connect */
    int32_t reserved;            /* zeroed by lws_connect, never read */
    int32_t heartbeat_interval;  /* heartbeat period in seconds (application) */
    int32_t heartbeat_max_missed; /* misses before on_heartbeat_timeout (application) */
    uint32_t service_pid;        /* process id, written by the service thread */
    uint32_t service_tid;        /* kernel thread id of the service thread */
    lws_channel_callback on_established;       /* connection open (reason 3) */
    lws_channel_callback on_message;           /* a received text (reason 8) */
    lws_channel_callback reserved_callback;    /* never called */
    lws_channel_callback on_closed;            /* reasons 4, 24, 28, 30 */
    lws_channel_callback on_heartbeat_timeout; /* reason 73 */
} lws_channel_t;

/* The handle of one connection: allocated by lws_connect, freed by
 * lws_disconnect. The application reads it at most. */
typedef struct lws_client {
    struct lws *connection;      /* written by the service thread; null when none */
    struct lws_context *context; /* written by the service thread; null when none */
    pthread_t *service_thread;   /* the service thread's id; null if it could not start */
    lws_channel_t *channel;      /* the application's record */
    int32_t *loop_flag;          /* loop_cycle while serving, -1 once told to stop */
    const char *address;         /* the application's text, not copied */
    const char *path;            /* the application's text, not copied */
    uint32_t port;
} lws_client_t;

/* The protocol table of every connection: "ws", lws_protocol_0_callback,
 * sizeof(lws_channel_t) per connection, receive and transmit sizes 10240,
 * then the null terminator. */
KX_API extern const struct lws_protocols lws_protocol_table[2];

/*
 * Connects to wss://address:port/path in the background and returns the
 * handle at once. The service thread creates a libwebsockets context with the
 * built-in CA bundle, connects with Host and Origin "address:port" and
 * subprotocol "ws", and serves the connection, coming back to its loop at
 * least every loop_cycle milliseconds, until lws_disconnect. A negative
 * loop_cycle sets the connection up and ends the thread at once.
 *
 * Returns null, starting nothing, when address or channel is null, path is
 * null, port is 0 or loop_cycle is 0, and when the handle cannot be allocated
 * ("out of memory."). When the thread cannot be started the platform's result
 * is logged ("ret: %d") and the handle is still returned, without a thread
 * (service_thread null); lws_disconnect releases it. lws_connect zeroes the
 * record's missed_heartbeats and reserved; address and path must stay valid
 * until lws_disconnect.
 */
KX_API lws_client_t *lws_connect(const char *address, const char *path, uint32_t port, lws_channel_t *channel,
                                 int32_t loop_cycle);

/*
 * Stops the service thread of client (waking it at once), waits for it to
 * end, and frees the handle. The connection is closed and its context
 * released by then. The channel record stays the application's. A null
 * client, or one without a loop flag, is ignored. Refused (logged, nothing
 * done) when called on the service thread itself.
 */
KX_API void lws_disconnect(lws_client_t *client);

/*
 * Queues len bytes of buffer as a frame of write_type (0 text, 5 ping; see
 * the slot rules above) from any thread. With wake non-zero the service
 * thread is woken to send it at once; with wake 0 it is sent when the service
 * thread next comes round (within loop_cycle milliseconds).
 * Returns 0 when queued; -1 when the slot is locked ("data is locked"); -2
 * for a null client or a client without channel record ("data is null"); -3
 * for a null buffer or a zero length ("buf is NULL or len is 0") and for a
 * frame longer than the slot.
 */
KX_API int32_t fire_writable_out(lws_client_t *client, void *buffer, uint32_t len, int32_t write_type, uint8_t wake);

/*
 * Queues a frame from inside a callback, on the service thread, and asks
 * libwebsockets for a writable callback on wsi. Returns 0, -1 (slot locked),
 * -2 (null channel) or -3 (null buffer, zero length, longer than the slot).
 */
KX_API int32_t fire_writable_in(struct lws *wsi, lws_channel_t *channel, void *buffer, uint32_t len,
                                int32_t write_type);

/*
 * The common core of the two above: takes the slot's lock (never waiting),
 * copies the frame, releases a text frame's buffer, records wake, the length
 * and the write type, releases the lock, and asks for a writable callback on
 * wsi. Call it with a connection only on the service thread; with a null wsi
 * the service thread asks for the write itself when it next comes round.
 * Returns 0, -1 (slot locked, "data is locked"), -2 (null channel), -3 (a
 * frame longer than the slot).
 */
KX_API int32_t fire_writable(struct lws *wsi, lws_channel_t *channel, void *buffer, uint32_t len,
                             int32_t write_type, uint8_t wake);

/*
 * Writes the slot's frame on wsi (service thread, writable callback) and
 * empties the slot. Returns what lws_write returned, 0 for an empty slot, -1
 * for a null wsi or channel, or a slot locked by a queuing call (the frame
 * then stays for the next writable callback).
 */
KX_API int32_t writ_callback_send_buf(struct lws *wsi, lws_channel_t *channel);

/*
 * Reads the "id" member (case-sensitive, top level) of the JSON text message
 * into *id: its integer value, as cJSON gives it (a number is truncated and
 * limited to the int range, a member that is not a number gives 0). Returns
 * 0; -1 for a null text, a text that is not JSON ("cJSON_Parse failed!") or a
 * text without "id" ("cId struct uncorrect!").
 */
KX_API int32_t decodeMessage(const char *message, int32_t *id);

/*
 * The libwebsockets callback of the "ws" protocol: logs every reason, calls
 * the record's callbacks, acknowledges messages with an "id" (up to six
 * attempts to queue the acknowledgement, logging "retryTime = N" before each
 * retry) and runs the heartbeat. Always returns 0.
 */
KX_API int lws_protocol_0_callback(struct lws *wsi, enum lws_callback_reasons reason, void *user, void *in,
                                   size_t len);

KX_END_DECLS

#endif
