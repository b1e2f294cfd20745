/* XML_GET_TAG_CONTENT over an answer file: the first byte chooses the
 * capacity, the rest is the file; the tag asked for is "data". The copied
 * content must fit the capacity with room left for a terminator. */
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

#include "fuzz_support.h"
#include "kx_cloud_openapi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int fd = memfd_create("answer", 0);
    static FILE *stream = fdopen(fd, "r+");
    if (size < 1 || stream == nullptr)
        return 0;
    uint32_t capacity = data[0];
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data + 1, size - 1, 0) != static_cast<ssize_t>(size - 1))
        return 0;
    rewind(stream);
    kxfuzz::Bytes out = kxfuzz::zeroed(capacity);
    uint32_t len = capacity;
    if (XML_GET_TAG_CONTENT(stream, "data", out.get(), &len) == 0 && len >= capacity)
        __builtin_trap();
    uint32_t length = 0;
    (void)XML_GET_TAG_LENGTH(stream, "data", &length);
    return 0;
}
