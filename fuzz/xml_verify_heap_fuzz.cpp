#include "verify_heap_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return kxfuzz::verify_heap(data, size, KX_SDK_XML_VERIFY_HEAP);
}
