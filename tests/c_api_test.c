/* The public interface used from plain C99: the whole umbrella header must
 * compile cleanly as C, and the core calls must work from a C program. */
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <kx_cloud_openapi.h>

static int failures = 0;

#define CHECK(cond)                                                        \
    do {                                                                   \
        if (!(cond)) {                                                     \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            failures++;                                                    \
        }                                                                  \
    } while (0)

static char *copy_text(const char *text)
{
    char *copy = (char *)calloc(strlen(text) + 1, 1);
    if (copy != NULL)
        strcpy(copy, text);
    return copy;
}

static void check_urls(void)
{
    char *url = NULL;
    CHECK(KX_SDK_CREATE_URL("http://", "127.0.0.1", "/upgrade/check_version", &url) == 0);
    CHECK(url != NULL && strcmp(url, "http://127.0.0.1:80/upgrade/check_version") == 0);
    CHECK(KX_SDK_CREATE_URL("https://", "127.0.0.1", "/x", &url) == -1); /* url still held */
    CHECK(KX_SDK_FREE(url) == 0);
    CHECK(KX_SDK_FREE(NULL) == -1);
}

static void check_list(void)
{
    KX_SDK_LINKLIST_S list;
    KX_SDK_INIT_LINKEDLIST(&list);
    CHECK(list.first == NULL && list.last == NULL && list.count == 0);
    KX_SDK_ADDNODE(&list, copy_text("1234"));
    KX_SDK_ADDNODE(&list, copy_text("99"));
    CHECK(list.count == 2 && list.first->next == list.last && list.last->next == NULL);
    CHECK(strcmp((const char *)list.last->item, "99") == 0);
    CHECK(KX_PRINTF_LINKLIST(&list) == 0);
    CHECK(KX_SDK_FREE_LINKLIST(&list) == 0);
    CHECK(KX_SDK_FREE_LINKLIST(NULL) == -1);
}

static void check_init(void)
{
    CHECK(KX_GLOBAL_INIT(NULL) == -1);
    CHECK(bGlobalInited == 0);
    CHECK(KX_GLOBAL_INIT("127.0.0.1") == 0);
    CHECK(bGlobalInited == 1);
    CHECK(strcmp(KX_SDK_GET_DOMAIN(), "127.0.0.1") == 0);
    CHECK(KX_GLOBAL_DEINIT() == 0);
    CHECK(bGlobalInited == 0);
    CHECK(KX_GLOBAL_DEINIT() == 0);
}

/* The push channel's records as C sees them: the slot right after its
 * 16-byte prefix, then the fields and callbacks in their documented order. */
static void check_push(void)
{
    lws_channel_t channel;
    int32_t id = 0;
    char text[] = "{\"msgType\":\"notice\",\"id\":42}";
    memset(&channel, 0, sizeof channel);
    CHECK(offsetof(lws_channel_t, payload) == 16);
    CHECK(offsetof(lws_channel_t, payload_len) == 16 + 10240);
    CHECK(offsetof(lws_channel_t, write_lock) == offsetof(lws_channel_t, payload_len) + 4);
    CHECK(offsetof(lws_channel_t, wake_flag) == offsetof(lws_channel_t, write_lock) + 1);
    CHECK(offsetof(lws_channel_t, write_protocol) < offsetof(lws_channel_t, missed_heartbeats));
    CHECK(offsetof(lws_channel_t, reserved) == offsetof(lws_channel_t, missed_heartbeats) + 4);
    CHECK(offsetof(lws_channel_t, heartbeat_interval) == offsetof(lws_channel_t, reserved) + 4);
    CHECK(offsetof(lws_channel_t, service_tid) == offsetof(lws_channel_t, service_pid) + 4);
    CHECK(offsetof(lws_channel_t, reserved_callback) == offsetof(lws_channel_t, on_message) + sizeof(void *));
    CHECK(offsetof(lws_channel_t, on_closed) == offsetof(lws_channel_t, reserved_callback) + sizeof(void *));
    CHECK(offsetof(lws_client_t, port) > offsetof(lws_client_t, path));
    CHECK(decodeMessage(text, &id) == 0 && id == 42);
    CHECK(lws_connect("127.0.0.1", "/push", 0, &channel, 100) == NULL);
    CHECK(fire_writable_out(NULL, text, 1, 0, 0) == -2);
    lws_disconnect(NULL);
}

int main(void)
{
    check_urls();
    check_list();
    check_init();
    check_push();
    if (failures != 0) {
        fprintf(stderr, "%d checks failed\n", failures);
        return 1;
    }
    printf("c_api_test: all checks passed\n");
    return 0;
}
