/*
 * The decompressor behind KX_SDK_GZDECOMPRESS, for callers that need a whole
 * stream: the exported routine returns 0 for a result cut short by a full
 * output or by input that ran out, and cannot say which happened.
 */
#ifndef KX_INTERNAL_GZIP_H
#define KX_INTERNAL_GZIP_H

#include <cstdint>

namespace kx {

/* KX_SDK_GZDECOMPRESS (same arguments, results and log lines), and, when
 * `ended` is not null, whether the gzip stream's end, trailer included, was
 * reached within the capacity. */
int32_t gz_decompress(const void *in, uint32_t inlen, void *out, uint32_t *outlen, bool *ended);

}  // namespace kx

#endif
