/* KX_SDK_URLEncode: the first two bytes choose the out size, the rest is the
 * input (not a text: it may hold NULs). The out buffer is the out size plus
 * the one byte the encoder may put its terminator into. */
#include "fuzz_support.h"
#include "kx_cloud_openapi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    int32_t outsize = (data[0] | (data[1] << 8)) % 2048;
    kxfuzz::Bytes in(static_cast<char *>(std::malloc(size - 2 ? size - 2 : 1)));
    std::memcpy(in.get(), data + 2, size - 2);
    kxfuzz::Bytes out = kxfuzz::zeroed(static_cast<size_t>(outsize) + 1);
    int32_t n = KX_SDK_URLEncode(in.get(), static_cast<int32_t>(size - 2), out.get(), outsize);
    if (n < 0 || n > outsize)
        __builtin_trap();
    return 0;
}
