/*
 * voice_session.c -- a device's voice assistant meets the cloud:
 *
 *   KX_GLOBAL_INIT -> sign in (for the access token) -> register the voice
 *   device -> read its registration back -> list the Alexa languages
 *   -> KX_GLOBAL_DEINIT
 *
 * Usage: voice_session DOMAIN        e.g. voice_session 127.0.0.1:8443
 *
 * Each voice call prints its verdict and the start of the verified answer.
 * Copy from here: every record is zeroed and then filled field by field
 * (optional fields left null are simply not sent), free texts such as the
 * device name go in as they are (the library encodes them for the body and
 * signs them raw), and every answer buffer is sized for a whole answer (the
 * library does not check its size). Set VTL_DEBUG_LEVEL=info to see the
 * library's own log lines.
 * Exit status: 0 when every call verified, 1 otherwise.
 */
#include <stdio.h>
#include <string.h>

#include <kx_cloud_openapi.h>

#define DEVICE_ID "861003009000001000000610" "1A2B3C4D5E"
#define APP_KEY "tv.appkey.7"
#define APP_SECRET "s3cr3t-Ref"
#define DEVICE_NAME "Living Room & Kitchen"
#define VERSION "7.0"
#define LANGUAGE 1   /* languageId of the device's menu language */
#define SOURCE_TYPE 1

static char answer[64 * 1024]; /* verified JSON answers land here */
static int failures;

/* "call  verified  {first 70 characters of the answer}" or "call  FAILED". */
static void verdict(const char *call, int32_t result)
{
    printf("%-30s %s", call, result == 0 ? "verified " : "FAILED");
    if (result == 0)
        printf(" %.70s%s", answer, strlen(answer) > 70 ? "..." : "");
    putchar('\n');
    if (result != 0)
        failures++;
}

/* Signs in and copies the access token of the XML answer into token. */
static int sign_in(const char *domain, char *token, uint32_t size)
{
    KX_AUTH_AUTHENTICATE_S auth;
    FILE *stream = tmpfile();
    int32_t result;

    if (stream == NULL)
        return -1;
    memset(&auth, 0, sizeof auth);
    auth.eLanguageId = LANGUAGE;
    auth.ps8DeviceId = DEVICE_ID;
    auth.ps8AppIndex = APP_KEY;
    auth.ps8AppReference = APP_SECRET;
    result = KX_AUTH_AUTHENTICATE(&auth, domain, &stream);
    /* The verified answer is still in the stream: the library's own tag
     * reader takes the token from it. */
    if (result == 0)
        result = XML_GET_TAG_CONTENT(stream, "token", token, &size);
    fclose(stream);
    printf("%-30s %s\n", "KX_AUTH_AUTHENTICATE", result == 0 ? "verified  (token taken)" : "FAILED");
    return result;
}

int main(int argc, char **argv)
{
    const char *domain;
    char token[256] = "";
    KX_VOICE_DEVICES_INFO_S device;
    KX_VOICE_QUERY_S query;

    if (argc != 2) {
        fprintf(stderr, "usage: %s DOMAIN\n", argv[0]);
        return 2;
    }
    domain = argv[1];
    if (KX_GLOBAL_INIT(domain) != 0) {
        fprintf(stderr, "KX_GLOBAL_INIT(%s) failed\n", domain);
        return 1;
    }
    if (sign_in(domain, token, sizeof token) != 0) {
        fprintf(stderr, "no verified token: the voice session ends here\n");
        KX_GLOBAL_DEINIT();
        return 1;
    }

    /* Register the voice device with its whole description. The Alexa
     * identifiers and hsv are optional: left null, they are not signed. */
    memset(&device, 0, sizeof device);
    device.u32ChangeToHttp = 0; /* HTTPS */
    device.ps8DeviceName = DEVICE_NAME;
    device.ps8VSEnable = "1";
    device.ps8GSEnable = "0";
    device.ps8AppIndex = APP_KEY;
    device.mac = "00:1A:2B:3C:4D:5E";
    device.Applist = "[\"tv.netflix\",\"tv.youtube\"]"; /* read by KX_GET_VOICE_DEVICES_INFO */
    device.pjsInputlist = "[{\"id\":\"HDMI 1\"},{\"id\":\"HDMI 2\"}]";
    device.ps8StateCode = "DE";
    device.ps8BrandCode = "KX";
    device.ps8CapabilityCode = "voice.far-field";
    device.ps8FeatureCode = "tv-2026";
    device.ps8ExtField = "{}";
    device.ps8ClientIdAVS = "amzn1.application-oa2-client.example";
    device.ps8VSAbility = "alexa";
    device.psAccessToken = token;
    device.psVersion = VERSION;
    device.u32LanguageID = LANGUAGE;
    device.u32SourceType = SOURCE_TYPE;
    memset(answer, 0, sizeof answer);
    verdict("KX_REPORT_VOICE_DEVICES_INFO", KX_REPORT_VOICE_DEVICES_INFO(&device, domain, answer));

    /* Read the registration back (same record). */
    memset(answer, 0, sizeof answer);
    verdict("KX_GET_VOICE_DEVICES_INFO", KX_GET_VOICE_DEVICES_INFO(&device, domain, answer));

    /* The languages Alexa offers this device (a fresh nonce each time). */
    memset(&query, 0, sizeof query);
    query.ps8AppIndex = APP_KEY;
    query.ps8StatCode = "DE";
    query.ps8BrandCode = "KX";
    query.ps8UpdatetimeStamp = "0"; /* everything since the beginning */
    query.ps8CapabilityCode = "voice.far-field";
    query.ps8FeatureCode = "tv-2026";
    query.psAccessToken = token;
    query.psVersion = VERSION;
    query.u32LanguageID = LANGUAGE;
    query.u32SourceType = SOURCE_TYPE;
    memset(answer, 0, sizeof answer);
    verdict("KX_GET_ALEXA_LANGUAGE", KX_GET_ALEXA_LANGUAGE(&query, domain, answer));

    KX_GLOBAL_DEINIT();
    printf("%s\n", failures == 0 ? "voice session complete: every answer verified" : "voice session had failures");
    return failures == 0 ? 0 : 1;
}
