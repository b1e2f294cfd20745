/* The heap verifiers take an answer record of up to 102400 bytes; the key is
 * the one built into the library, loaded once. */
#ifndef KX_FUZZ_VERIFY_HEAP_H
#define KX_FUZZ_VERIFY_HEAP_H

#include "fuzz_support.h"
#include "kx_cloud_openapi.h"

namespace kxfuzz {

inline int verify_heap(const uint8_t *data, size_t size, int32_t (*verify)(const KX_SDK_DATA_BUF_S *, char **))
{
    static bool loaded = KX_INIT_PUBLICKEY() == 0;
    (void)loaded;
    if (size > KX_SDK_DATA_BUF_SIZE)
        return 0;
    std::unique_ptr<KX_SDK_DATA_BUF_S> record(new KX_SDK_DATA_BUF_S);
    std::memset(record.get(), 0, sizeof *record);
    std::memcpy(record->data, data, size);
    record->used = static_cast<uint32_t>(size);
    char *out = nullptr;
    if (verify(record.get(), &out) == 0 && out == nullptr)
        __builtin_trap();
    std::free(out);
    return 0;
}

}  // namespace kxfuzz

#endif
