/*
 * Checked heap buffers. Every heap buffer of the library comes from calloc
 * through this type, so that running out of memory is a result the caller
 * checks (and reports with its own documented message), never an abort.
 * A buffer can be handed over to the caller with release(); it then becomes
 * the caller's, to be released with free or KX_SDK_FREE.
 */
#ifndef KX_INTERNAL_BUFFER_H
#define KX_INTERNAL_BUFFER_H

#include <cstddef>
#include <cstdlib>

#include "internal/kx_owned.h"

namespace kx {

class Buffer {
public:
    Buffer() = default;
    /* Zero-filled allocation of `size` bytes; check ok() afterwards. */
    explicit Buffer(std::size_t size) : data_(static_cast<char *>(std::calloc(size == 0 ? 1 : size, 1))), size_(data_ ? size : 0) {}

    bool ok() const { return data_ != nullptr; }
    char *get() const { return data_.get(); }
    unsigned char *bytes() const { return reinterpret_cast<unsigned char *>(data_.get()); }
    std::size_t size() const { return size_; }
    /* Gives up ownership: the memory becomes the receiver's. */
    char *release()
    {
        size_ = 0;
        return data_.release();
    }
    void reset() { data_.reset(); size_ = 0; }

private:
    HeapPtr<char> data_;
    std::size_t size_ = 0;
};

}  // namespace kx

#endif
