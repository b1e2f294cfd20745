/*
 * KX_SDK_GET_HTTP_HEADER over arbitrary JSON, parsed as a caller's header
 * text is. The records go into an exact-size heap array of eight, filled with
 * 0xff first, so a write past the eighth record is reported and a field left
 * without its terminator is caught.
 */
#include <cjson/cJSON.h>

#include "fuzz_support.h"
#include "kx_cloud_openapi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    kxfuzz::Bytes text = kxfuzz::text_of(data, size);
    cJSON *json = cJSON_Parse(text.get());
    if (json == nullptr)
        return 0;
    const size_t area = sizeof(KX_SDK_HTTP_HEADER_S) * KX_SDK_FETCH_MAX_HEADERS;
    kxfuzz::Bytes records(static_cast<char *>(std::malloc(area)));
    std::memset(records.get(), 0xff, area);
    const auto *headers = reinterpret_cast<const KX_SDK_HTTP_HEADER_S *>(records.get());

    const int32_t count = KX_SDK_GET_HTTP_HEADER(json, reinterpret_cast<KX_SDK_HTTP_HEADER_S *>(records.get()));
    if (count < 0 || count > KX_SDK_FETCH_MAX_HEADERS)
        __builtin_trap();
    for (int32_t i = 0; i < count; ++i) {
        if (std::memchr(headers[i].name, '\0', sizeof headers[i].name) == nullptr ||
            std::memchr(headers[i].value, '\0', sizeof headers[i].value) == nullptr)
            __builtin_trap();
    }
    cJSON_Delete(json);
    return 0;
}
