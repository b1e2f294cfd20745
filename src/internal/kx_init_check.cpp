#include "internal/kx_init_check.h"

#include "kx_sdk_global.h"

namespace kx {

bool library_inited()
{
    MutexLock lock(sGlobalInitMutex);
    return bGlobalInited != 0;
}

}  // namespace kx
