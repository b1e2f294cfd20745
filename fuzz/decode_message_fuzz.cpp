/* decodeMessage: a received push text (any bytes, NUL-terminated as the
 * protocol callback hands it over). The result is 0 or -1, and on 0 the id
 * is the one the independent check finds: a top-level "id" member. */
#include <cjson/cJSON.h>

#include "fuzz_support.h"
#include "kx_cloud_openapi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    kxfuzz::Bytes text = kxfuzz::text_of(data, size);
    int32_t id = -12345;
    int32_t result = decodeMessage(text.get(), &id);
    if (result != 0 && result != -1)
        __builtin_trap();
    cJSON *root = cJSON_Parse(text.get());
    const cJSON *member = cJSON_GetObjectItemCaseSensitive(root, "id");
    if ((result == 0) != (member != nullptr))
        __builtin_trap();
    if (result == 0 && id != member->valueint)
        __builtin_trap();
    if (result != 0 && id != -12345)
        __builtin_trap(); /* a refusal leaves the caller's id alone */
    cJSON_Delete(root);
    return 0;
}
