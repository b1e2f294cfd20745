/*
 * device_session.c -- one whole device session against the cloud:
 *
 *   KX_GLOBAL_INIT -> sign in -> refresh token -> customer information
 *   -> system configuration -> messages -> sign out -> KX_GLOBAL_DEINIT
 *
 * Usage: device_session DOMAIN        e.g. device_session 127.0.0.1:8443
 *
 * Each step prints the call's verdict and the start of the verified answer.
 * The token that sign-in returns is used by the calls after it. Copy from
 * here: the records are filled field by field, every result is checked, and
 * every answer buffer is sized for a whole answer (the library does not check
 * their size). Set VTL_DEBUG_LEVEL=info to see the library's own log lines.
 * Exit status: 0 when every call verified, 1 otherwise.
 */
#include <stdio.h>
#include <string.h>

#include <kx_cloud_openapi.h>

/* Identity of this device and application (in a product: from its
 * factory data). The device id is 24 characters of prefix and the serial. */
#define DEVICE_ID "861003009000001000000610" "1A2B3C4D5E"
#define DEVICE_SERIAL "1A2B3C4D5E"
#define APP_KEY "tv.appkey.7"
#define APP_SECRET "s3cr3t-Ref"

static char answer[64 * 1024]; /* verified JSON answers land here */
static int failures;

/* Prints "call  verified  <first characters of the answer>" (or FAILED). */
static void report(const char *call, int32_t result, const char *text)
{
    printf("%-24s %-8s ", call, result == 0 ? "verified" : "FAILED");
    if (result == 0 && text != NULL) {
        /* one line: the answer's first 72 characters, line breaks shown as blanks */
        int i;
        for (i = 0; text[i] != '\0' && i < 72; i++)
            putchar(text[i] == '\n' || text[i] == '\t' ? ' ' : text[i]);
        if (text[i] != '\0')
            fputs("...", stdout);
    }
    putchar('\n');
    if (result != 0)
        failures++;
}

/* Copies the content of the first <tag> element of xml into out (size bytes). */
static int xml_element(const char *xml, const char *tag, char *out, size_t size)
{
    char open[64], close[64];
    const char *start, *end;
    snprintf(open, sizeof open, "<%s>", tag);
    snprintf(close, sizeof close, "</%s>", tag);
    start = strstr(xml, open);
    if (start == NULL)
        return -1;
    start += strlen(open);
    end = strstr(start, close);
    if (end == NULL || (size_t)(end - start) >= size)
        return -1;
    memcpy(out, start, (size_t)(end - start));
    out[end - start] = '\0';
    return 0;
}

int main(int argc, char **argv)
{
    const char *domain;
    char signin[8192] = {0};
    char token[256] = "";
    char refresh_token[256] = "";
    FILE *stream;
    size_t n;
    int32_t result;

    if (argc != 2) {
        fprintf(stderr, "usage: %s DOMAIN\n", argv[0]);
        return 2;
    }
    domain = argv[1];

    if (KX_GLOBAL_INIT(domain) != 0) {
        fprintf(stderr, "KX_GLOBAL_INIT(%s) failed\n", domain);
        return 1;
    }

    /* Sign in: the XML answer arrives in a stream the caller opens and closes. */
    {
        KX_AUTH_AUTHENTICATE_S auth;
        memset(&auth, 0, sizeof auth);
        auth.u32ChangeToHttp = 0; /* HTTPS */
        auth.eAuthenticationMode = 0;
        auth.eLanguageId = 1;
        auth.ps8DeviceId = DEVICE_ID;
        auth.ps8AppIndex = APP_KEY;
        auth.ps8AppReference = APP_SECRET;

        stream = tmpfile();
        if (stream == NULL) {
            perror("tmpfile");
            KX_GLOBAL_DEINIT();
            return 1;
        }
        result = KX_AUTH_AUTHENTICATE(&auth, domain, &stream);
        rewind(stream);
        n = fread(signin, 1, sizeof signin - 1, stream);
        signin[n] = '\0';
        fclose(stream);
        report("KX_AUTH_AUTHENTICATE", result, strstr(signin, "<response>"));
        if (result != 0 || xml_element(signin, "token", token, sizeof token) != 0) {
            fprintf(stderr, "no verified token: the session ends here\n");
            KX_GLOBAL_DEINIT();
            return 1;
        }
        xml_element(signin, "refreshToken", refresh_token, sizeof refresh_token);
    }

    /* Refresh the access token. */
    {
        KX_REFRESH_TOKEN_S refresh;
        memset(&refresh, 0, sizeof refresh);
        refresh.ps8RefreshToken = refresh_token;
        refresh.ps8AppIndex = APP_KEY;
        refresh.ps8AppReference = APP_SECRET;
        refresh.psDevSerial = DEVICE_SERIAL;
        refresh.psDeviceId = DEVICE_ID;
        memset(answer, 0, sizeof answer);
        report("KX_REFRESH_TOKEN", KX_REFRESH_TOKEN(&refresh, domain, answer), answer);
    }

    /* Customer information (the answer is re-printed, indented). */
    {
        KX_CUSTOMER_INFO_S customer;
        memset(&customer, 0, sizeof customer);
        customer.ps8QueryType = "basic";
        customer.psAccessToken = token;
        customer.psDevSerial = DEVICE_SERIAL;
        customer.psDeviceId = DEVICE_ID;
        memset(answer, 0, sizeof answer);
        report("KX_GET_CUSTOMER_INFO", KX_GET_CUSTOMER_INFO(&customer, domain, answer), answer);
    }

    /* Message-system configuration, then the messages themselves. */
    {
        KX_TOKEN_DEVICE_S session;
        KX_MSG_INFO_S messages;

        memset(&session, 0, sizeof session);
        session.psAccessToken = token;
        session.psDevSerial = DEVICE_SERIAL;
        session.psDeviceId = DEVICE_ID;
        memset(answer, 0, sizeof answer);
        report("KX_GET_SYS_CONFIG_INFO", KX_GET_SYS_CONFIG_INFO(&session, domain, answer), answer);

        memset(&messages, 0, sizeof messages);
        messages.u32PageSize = 20;
        messages.u32RealtimeFlag = 0;
        messages.psMsgList = "";
        messages.psAccessToken = token;
        messages.psDevSerial = DEVICE_SERIAL;
        messages.psDeviceId = DEVICE_ID;
        memset(answer, 0, sizeof answer);
        report("KX_GET_MSG_INFO", KX_GET_MSG_INFO(&messages, domain, answer), answer);

        /* Sign out: the token is no longer valid afterwards. */
        memset(answer, 0, sizeof answer);
        report("KX_SIGN_OUT", KX_SIGN_OUT(&session, domain, answer), answer);
    }

    KX_GLOBAL_DEINIT();
    printf("%s\n", failures == 0 ? "session complete: every answer verified" : "session had failures");
    return failures == 0 ? 0 : 1;
}
