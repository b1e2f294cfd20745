/* KX_SDK_HEXSTRING_TO_ENCRYPT and ChangeToByte: any text, into buffers of
 * exactly the byte count each documents (L / 2 pairs, and a last half pair
 * for ChangeToByte, which walks pairs until the text ends). */
#include "fuzz_support.h"
#include "kx_cloud_openapi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    kxfuzz::Bytes in = kxfuzz::text_of(data, size);
    size_t length = std::strlen(in.get());
    kxfuzz::Bytes out = kxfuzz::zeroed(length / 2);
    KX_SDK_HEXSTRING_TO_ENCRYPT(in.get(), out.get());
    kxfuzz::Bytes bytes = kxfuzz::zeroed((length + 1) / 2);
    int32_t n = ChangeToByte(in.get(), bytes.get());
    if (n < 0 || static_cast<size_t>(n) > (length + 1) / 2)
        __builtin_trap();
    return 0;
}
