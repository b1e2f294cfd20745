/*
 * fetch_session.c -- a signed fetch of a JSON service of the application's
 * own, with one custom header:
 *
 *   KX_GLOBAL_INIT -> KX_SDK_FETCH_DATA (signed GET) -> print -> KX_SDK_FREE
 *   -> KX_GLOBAL_DEINIT
 *
 * Usage: fetch_session DOMAIN        e.g. fetch_session 127.0.0.1:8443
 *
 * The service here is the local cloud's echo, "/external/echo", which answers
 * with a signed JSON text naming what it received; any service that signs
 * its JSON answers the cloud's way will do. The query is signed (its
 * signature travels as "&sign=..."), a second signature goes out in the
 * "x-sign-for" header beside the custom one, and the answer is handed over
 * only after its own signature verified. Copy from here: the record is
 * filled field by field, every result is told apart, and the answer is the
 * caller's to release. Set VTL_DEBUG_LEVEL=info to see the library's lines.
 * One error line, "KX_SDK_FREE(): the pointer is null already!", belongs to
 * every GET: the fetch releases the POST body it did not build.
 * Exit status: 0 when the answer verified, 1 otherwise.
 */
#include <stdio.h>
#include <string.h>

#include <kx_cloud_openapi.h>

/* What a fetch's result means. */
static const char *meaning(int32_t result)
{
    switch (result) {
    case 0: return "verified";
    case -1: return "refused (not initialised, or an invalid argument)";
    case 1: return "no signature could be made";
    case 3: return "the transfer failed";
    case 4: return "the answer's signature did not verify";
    case 5: return "out of memory";
    default: return "unknown result";
    }
}

int main(int argc, char **argv)
{
    char url[512];
    const char *query = "deviceId=8610030090000010000006101A2B3C4D5E&model=kx55-tv&page=1";
    KX_SDK_FETCH_REQ_S request;
    char *answer = NULL;
    int32_t result;

    if (argc != 2) {
        fprintf(stderr, "usage: %s DOMAIN\n", argv[0]);
        return 2;
    }
    /* A GET is sent to the URL immediately followed by the query: the URL
     * ends with its "?". */
    snprintf(url, sizeof url, "https://%s/external/echo?", argv[1]);

    if (KX_GLOBAL_INIT(argv[1]) != 0) {
        fprintf(stderr, "KX_GLOBAL_INIT(%s) failed\n", argv[1]);
        return 1;
    }

    memset(&request, 0, sizeof request);
    request.s32Http = 0;                 /* HTTPS, checked against the built-in CA */
    request.s32Get = 1;                  /* GET */
    request.s32Sign = 1;                 /* body and header signature */
    request.ps8FuncName = "fetch_session";
    request.ps8Url = url;
    request.ps8SignBody = query;         /* what the service checks the signature against */
    request.ps8Body = query;
    request.ps8ConnectHeaders = "{\"X-Device-Model\":\"kx55-tv\"}";

    result = KX_SDK_FETCH_DATA(&request, &answer);
    printf("%-24s %d (%s)\n", "KX_SDK_FETCH_DATA", (int)result, meaning(result));
    if (result == 0) {
        printf("%s\n", answer);
        KX_SDK_FREE(answer); /* the answer is the caller's */
    }

    KX_GLOBAL_DEINIT();
    printf("%s\n", result == 0 ? "fetch complete: the answer verified" : "fetch failed");
    return result == 0 ? 0 : 1;
}
