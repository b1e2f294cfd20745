/*
 * log_session.c -- a device's log round against the cloud:
 *
 *   KX_GLOBAL_INIT -> service list (where the log services are)
 *   -> log strategy and exception-dotting policy from the first policy service
 *   -> upload of a small log to the first upload service -> KX_GLOBAL_DEINIT
 *
 * Usage: log_session DOMAIN [ACCESS_TOKEN]     e.g. log_session 127.0.0.1:8443
 *
 * In a product the access token is the one sign-in returned (see
 * device_session.c); this example takes it as an argument. Every answer
 * lands in a stream the caller opens for reading and writing and closes
 * afterwards; the library never opens or closes it. Set VTL_DEBUG_LEVEL=info
 * to see the library's own log lines.
 * Exit status: 0 when every call succeeded, 1 otherwise.
 */
#include <stdio.h>
#include <string.h>

#include <kx_cloud_openapi.h>

#define DEVICE_ID "861003009000001000000610" "1A2B3C4D5E"
#define APP_KEY "tv.appkey.7"

static int failures;

/* Prints "call  ok/FAILED  <first characters of the stream>", the stream read
 * from its start, one line. */
static void report(const char *call, int32_t result, FILE *stream)
{
    char text[96] = "";
    size_t n = 0, i;
    if (result == 0 && stream != NULL) {
        rewind(stream);
        n = fread(text, 1, sizeof text - 1, stream);
        text[n] = '\0';
        for (i = 0; i < n; i++)
            if (text[i] == '\n' || text[i] == '\t')
                text[i] = ' ';
    }
    printf("%-24s %-6s %s%s\n", call, result == 0 ? "ok" : "FAILED", text, n == sizeof text - 1 ? "..." : "");
    if (result != 0)
        failures++;
}

/* A stream of its own for the next answer (answers are appended at a
 * stream's end, so one is not reused without emptying it). */
static FILE *fresh_stream(FILE *old)
{
    if (old != NULL)
        fclose(old);
    return tmpfile();
}

int main(int argc, char **argv)
{
    const char *domain, *token;
    const char *policy_domain, *upload_url;
    KX_LOG_SERVICE_LIST_S services;
    FILE *stream;
    uint32_t i;

    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s DOMAIN [ACCESS_TOKEN]\n", argv[0]);
        return 2;
    }
    domain = argv[1];
    token = argc == 3 ? argv[2] : "AT-5f1c2e9a7b3d4c60";
    if (KX_GLOBAL_INIT(domain) != 0) {
        fprintf(stderr, "KX_GLOBAL_INIT(%s) failed\n", domain);
        return 1;
    }
    stream = fresh_stream(NULL);

    /* Where are the log services? Addresses arrive encrypted; the list holds
     * them decrypted, at most 8 of each kind. */
    {
        KX_LOG_SERVICE_REQ_S request;
        int32_t result;
        memset(&request, 0, sizeof request);
        request.u32ChangeToHttp = 0; /* HTTPS */
        request.u32LanguageId = 1;
        request.ps8AppVersion = "1.0.0";
        request.ps8AppKey = APP_KEY;
        request.ps8AccessToken = token;
        result = KX_LOG_GET_SERVICELIST(&request, domain, &services, &stream);
        report("KX_LOG_GET_SERVICELIST", result, NULL);
        if (result != 0 || services.u32PolicyServiceNum == 0 || services.u32UploadServiceNum == 0) {
            fprintf(stderr, "no log services: the round ends here\n");
            if (stream != NULL)
                fclose(stream);
            KX_GLOBAL_DEINIT();
            return 1;
        }
        for (i = 0; i < services.u32PolicyServiceNum; i++)
            printf("    policy service %u: %s\n", (unsigned)i, services.as8PolicyService[i]);
        for (i = 0; i < services.u32UploadServiceNum; i++)
            printf("    upload service %u: %s\n", (unsigned)i, services.as8UploadService[i]);
        policy_domain = services.as8PolicyService[0];
        upload_url = services.as8UploadService[0];
    }

    /* What to collect: the signed log strategy, then the exception policy,
     * which the call decrypts and decompresses into the stream in place of
     * the answer. */
    {
        KX_LOG_POLICY_REQ_S strategy;
        KX_LOG_ALL_POLICY_REQ_S policy;

        memset(&strategy, 0, sizeof strategy);
        strategy.u32DeviceType = 1;
        strategy.u32LanguageId = 1;
        strategy.ps8AccessToken = token;
        stream = fresh_stream(stream);
        report("KX_LOG_QUERY_POLICY", KX_LOG_QUERY_POLICY(&strategy, policy_domain, &stream), stream);

        memset(&policy, 0, sizeof policy);
        policy.u32AppKey = 7;
        policy.ps8CountryCode = "DE";
        policy.ps8BrandCode = "KX";
        policy.ps8DeviceId = DEVICE_ID;
        policy.ps8PolicySeq = "0";
        policy.ps8CapabilityCode = "1";
        policy.ps8TVOSVersion = "9.0";
        stream = fresh_stream(stream);
        report("KX_LOG_QUERY_ALL_POLICY", KX_LOG_QUERY_ALL_POLICY(&policy, policy_domain, &stream), stream);
    }

    /* Upload a small log: compressed, encrypted and encoded by the call, posted
     * to the upload service's address as it stands. */
    {
        static const char log[] = "00:00:01 boot: tuner ready\n"
                                  "00:00:04 player: buffer underrun, rebuffering\n"
                                  "00:00:09 network: DHCP lease renewed\n";
        KX_LOG_UPLOAD_S upload;
        memset(&upload, 0, sizeof upload);
        upload.u32ChangeToHttp = 0;
        upload.ps8LogTag = "player";
        upload.u32LogDataLen = (uint32_t)(sizeof log - 1);
        upload.ps8LogData = log;
        upload.ps8UploadUrl = upload_url;
        stream = fresh_stream(stream);
        report("KX_LOG_UPLOAD", KX_LOG_UPLOAD(&upload, &stream), stream);
    }

    if (stream != NULL)
        fclose(stream);
    KX_GLOBAL_DEINIT();
    printf("%s\n", failures == 0 ? "log round complete" : "log round had failures");
    return failures == 0 ? 0 : 1;
}
