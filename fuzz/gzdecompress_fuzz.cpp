/* KX_SDK_GZDECOMPRESS: the first two bytes choose the capacity, the rest is
 * the stream. The out length never exceeds the capacity. */
#include "fuzz_support.h"
#include "kx_cloud_openapi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    uint32_t capacity = static_cast<uint32_t>(data[0] | (data[1] << 8));
    kxfuzz::Bytes in(static_cast<char *>(std::malloc(size - 2 ? size - 2 : 1)));
    std::memcpy(in.get(), data + 2, size - 2);
    kxfuzz::Bytes out = kxfuzz::zeroed(capacity);
    uint32_t outlen = capacity;
    int32_t result = KX_SDK_GZDECOMPRESS(in.get(), static_cast<uint32_t>(size - 2), out.get(), &outlen);
    if (result == 0 && outlen > capacity)
        __builtin_trap();
    return 0;
}
