/* The public interface used from plain C99: the whole umbrella header must
 * compile cleanly as C, and its calls must link and run from a C program
 * (their behaviour is the suites', the records' layout as C sees it is
 * layout_test's). */
#include <stdio.h>
#include <string.h>

#include <kx_cloud_openapi.h>

static int failures = 0;

#define CHECK(cond)                                                                    \
    do {                                                                               \
        if (!(cond)) {                                                                 \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            failures++;                                                                \
        }                                                                              \
    } while (0)

int main(void)
{
    char *url = NULL;
    lws_channel_t channel;
    int32_t id = 0;
    char text[] = "{\"msgType\":\"notice\",\"id\":42}";

    CHECK(KX_GLOBAL_INIT(NULL) == -1 && bGlobalInited == 0);
    CHECK(KX_GLOBAL_INIT("127.0.0.1") == 0 && bGlobalInited == 1);
    CHECK(KX_SDK_CREATE_URL("http://", KX_SDK_GET_DOMAIN(), "/upgrade/check_version", &url) == 0);
    CHECK(url != NULL && strcmp(url, "http://127.0.0.1:80/upgrade/check_version") == 0);
    CHECK(KX_SDK_FREE(url) == 0);
    CHECK(KX_GLOBAL_DEINIT() == 0 && bGlobalInited == 0);

    /* The push channel: its message decoder and its refusals. */
    memset(&channel, 0, sizeof channel);
    CHECK(decodeMessage(text, &id) == 0 && id == 42);
    CHECK(lws_connect("127.0.0.1", "/push", 0, &channel, 100) == NULL);
    CHECK(fire_writable_out(NULL, text, 1, 0, 0) == -2);
    lws_disconnect(NULL);

    if (failures != 0) {
        fprintf(stderr, "%d checks failed\n", failures);
        return 1;
    }
    printf("c_api_test: all checks passed\n");
    return 0;
}
