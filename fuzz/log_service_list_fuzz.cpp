/* The service-list parser over an answer file: the input is the (verified)
 * answer, the product the list it fills. Each kind keeps at most 8 addresses
 * and every slot stays a terminated text. */
#include "fuzz_support.h"
#include "internal/kx_log_parse.h"
#include "kx_cloud_openapi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FILE *stream = kxfuzz::answer_file(data, size);
    static KX_LOG_SERVICE_LIST_S list;
    if (stream == nullptr)
        return 0;
    if (kx::KX_LOG_Parser_ServiceList(stream, &list) == 0 &&
        (list.u32PolicyServiceNum > KX_LOG_SERVICE_SLOTS || list.u32UploadServiceNum > KX_LOG_SERVICE_SLOTS))
        __builtin_trap();
    for (int i = 0; i < KX_LOG_SERVICE_SLOTS; ++i)
        if (list.as8PolicyService[i][KX_LOG_SERVICE_ADDRESS_SIZE - 1] != '\0' ||
            list.as8UploadService[i][KX_LOG_SERVICE_ADDRESS_SIZE - 1] != '\0')
            __builtin_trap();
    return 0;
}
