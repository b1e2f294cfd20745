/* kx_base64_decode: any text; the out buffer is exactly what the decoder
 * documents it needs, (L / 4) * 3 bytes and one for the terminator. */
#include "fuzz_support.h"
#include "kx_cloud_openapi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    kxfuzz::Bytes in = kxfuzz::text_of(data, size);
    size_t length = std::strlen(in.get());
    kxfuzz::Bytes out = kxfuzz::zeroed(length / 4 * 3 + 1);
    int32_t n = kx_base64_decode(in.get(), out.get());
    if (n > static_cast<int32_t>(length / 4 * 3))
        __builtin_trap(); /* more bytes than the documented result length */
    return 0;
}
