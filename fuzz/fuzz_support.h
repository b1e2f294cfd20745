/*
 * Shared pieces of the fuzz targets: the debug-log pair (every line is
 * formatted, so a bad argument to a log line is caught, and then dropped),
 * and exact-size heap copies so that a read or write past what a routine
 * may touch lands outside the allocation and is reported.
 */
#ifndef KX_FUZZ_SUPPORT_H
#define KX_FUZZ_SUPPORT_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kxfuzz {

struct Free {
    void operator()(void *p) const { std::free(p); }
};
using Bytes = std::unique_ptr<char, Free>;

/* The input as a NUL-terminated text of exactly size + 1 bytes. */
inline Bytes text_of(const uint8_t *data, size_t size)
{
    Bytes b(static_cast<char *>(std::malloc(size + 1)));
    std::memcpy(b.get(), data, size);
    b.get()[size] = '\0';
    return b;
}

/* Keep the library's log lines (class: true for error, and the formatted
 * line) until taken; off by default, when every line is dropped. */
void keep_log(bool on);
std::vector<std::pair<bool, std::string>> take_log();

/* A zeroed buffer of exactly n bytes (at least 1). */
inline Bytes zeroed(size_t n) { return Bytes(static_cast<char *>(std::calloc(n ? n : 1, 1))); }

/* An answer file holding exactly the input, at its start: a memory file and
 * its stream, made once and refilled for every input. Null when it cannot
 * be refilled. `fd` receives its descriptor. */
inline std::FILE *answer_file(const uint8_t *data, size_t size, int *fd = nullptr)
{
    static int file = memfd_create("answer", 0);
    static std::FILE *stream = fdopen(file, "r+");
    if (stream == nullptr || ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size))
        return nullptr;
    std::rewind(stream);
    if (fd != nullptr)
        *fd = file;
    return stream;
}

}  // namespace kxfuzz

#endif
