/*
 * Owners for the C resources a call holds. Every resource has exactly one
 * owner inside a call, so an early return releases it by construction.
 * Where a release is observable through its log line (KX_SDK_FREE,
 * KX_SDK_CURL_EASY_CLEANUP, KX_SDK_CURL_SLIST_FREE) the owner of that kind is
 * declared next to the helper, in the module that exports it.
 */
#ifndef KX_INTERNAL_OWNED_H
#define KX_INTERNAL_OWNED_H

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace kx {

template <typename T, void (*Release)(T *)>
struct Releaser {
    void operator()(T *p) const noexcept
    {
        if (p != nullptr)
            Release(p);
    }
};

template <typename T, void (*Release)(T *)>
using Owned = std::unique_ptr<T, Releaser<T, Release>>;

struct FreeReleaser {
    void operator()(void *p) const noexcept { std::free(p); }
};

/* Heap memory from calloc/malloc, released with free. */
template <typename T>
using HeapPtr = std::unique_ptr<T, FreeReleaser>;

struct FileCloser {
    void operator()(std::FILE *f) const noexcept
    {
        if (f != nullptr)
            std::fclose(f);
    }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace kx

#endif
