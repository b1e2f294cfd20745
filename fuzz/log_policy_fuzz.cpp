/* The all-policy pipeline over an answer file: policyContent is hex of an AES
 * cipher text of base64 of a gzip stream. The input is the answer, the product
 * the file rewritten with the policy: on success it is rewound and holds at
 * most 32 times the compressed policy, which is shorter than the input. */
#include <sys/stat.h>

#include "fuzz_support.h"
#include "internal/kx_log_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int fd = -1;
    FILE *stream = kxfuzz::answer_file(data, size, &fd);
    if (stream == nullptr)
        return 0;
    if (kx::KX_LOG_UNZIP_POLICY(stream) == 0) {
        struct stat st;
        if (ftell(stream) != 0 || fstat(fd, &st) != 0 || static_cast<size_t>(st.st_size) > 32 * size)
            __builtin_trap();
    }
    return 0;
}
