/* The all-policy pipeline over an answer file: policyContent is hex of an AES
 * cipher text of base64 of a gzip stream. The input is the answer, the product
 * the file rewritten with the policy: on success it is rewound and holds at
 * most 32 times the compressed policy, which is shorter than the input. */
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "fuzz_support.h"
#include "internal/kx_log_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int fd = memfd_create("policy", 0);
    static FILE *stream = fdopen(fd, "r+");
    if (stream == nullptr || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        return 0;
    rewind(stream);
    if (kx::KX_LOG_UNZIP_POLICY(stream) == 0) {
        struct stat st;
        if (ftell(stream) != 0 || fstat(fd, &st) != 0 || static_cast<size_t>(st.st_size) > 32 * size)
            __builtin_trap();
    }
    return 0;
}
