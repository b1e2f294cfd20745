/*
 * Owner for memory whose release goes through KX_SDK_FREE, so that the
 * release is the one the module's log shows ("the pointer is null already!"
 * never appears for it: the owner skips a null pointer).
 */
#ifndef KX_INTERNAL_SDK_FREE_H
#define KX_INTERNAL_SDK_FREE_H

#include <memory>

#include "kx_sdk_list.h"

namespace kx {

struct SdkFreeReleaser {
    void operator()(void *p) const noexcept
    {
        if (p != nullptr)
            KX_SDK_FREE(p);
    }
};

template <typename T>
using SdkFreePtr = std::unique_ptr<T, SdkFreeReleaser>;

}  // namespace kx

#endif
