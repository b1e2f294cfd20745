/*
 * kx_sdk_common, gzip: one-shot compression and decompression between
 * caller-owned buffers of stated capacity. Neither allocates output.
 */
#include "kx_sdk_security.h"

#include <zlib.h>

#include "internal/kx_gzip.h"
#include "internal/kx_log.h"

namespace {

/* zlib version text handed to the initialisers (any "1.x" is accepted). */
constexpr char kZlibVersion[] = "1.2.8";

/* A zlib header offered to the decompressor when the input is not the gzip
 * stream it expects. */
const unsigned char kZlibHeader[2] = {0x78, 0x01};

}  // namespace

extern "C" {

KX_API int32_t KX_SDK_GZCOMPRESS(const void *in, uint32_t inlen, void *out, uint32_t *outlen)
{
    if (in == nullptr || inlen == 0 || outlen == nullptr) {
        KX_LOGE("Invalid params!\n");
        return -1;
    }
    z_stream stream{};
    if (deflateInit2_(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY, kZlibVersion,
                      static_cast<int>(sizeof(z_stream))) != Z_OK) {
        KX_LOGE("Failed to call deflateInit2!\n");
        return -1;
    }
    const uint32_t capacity = *outlen;
    stream.next_in = static_cast<Bytef *>(const_cast<void *>(in));
    stream.avail_in = inlen;
    stream.next_out = static_cast<Bytef *>(out);
    stream.avail_out = capacity;

    for (;;) {
        if (stream.total_out >= capacity) {
            /* Out is full before the input ran out: report what is left. The
             * zlib state is released on this path too; the result is the
             * same. */
            const uint32_t left = inlen - static_cast<uint32_t>(stream.total_in);
            deflateEnd(&stream);
            return static_cast<int32_t>(left);
        }
        if (deflate(&stream, Z_NO_FLUSH) != Z_OK) {
            KX_LOGE("Failed to call deflate with Z_NO_FLUSH param!\n");
            deflateEnd(&stream);
            return -1;
        }
        if (stream.total_in >= inlen)
            break;
    }
    for (;;) {
        const int result = deflate(&stream, Z_FINISH);
        if (result == Z_STREAM_END)
            break;
        if (result != Z_OK) {
            KX_LOGE("Failed to call deflate with Z_FINISH, err is %d!\n", result);
            deflateEnd(&stream);
            return -1;
        }
    }
    if (deflateEnd(&stream) != Z_OK) {
        KX_LOGE("Failed to call deflateEnd!\n");
        return -1;
    }
    *outlen = static_cast<uint32_t>(stream.total_out);
    return 0;
}

KX_API int32_t KX_SDK_GZDECOMPRESS(const void *in, uint32_t inlen, void *out, uint32_t *outlen)
{
    return kx::gz_decompress(in, inlen, out, outlen, nullptr);
}

}  // extern "C"

namespace kx {

/* KX_SDK_GZDECOMPRESS with the one thing its result does not tell: whether
 * the stream's end (trailer included) was reached. Its lines are the
 * exported routine's. */
int32_t gz_decompress(const void *in, uint32_t inlen, void *out, uint32_t *outlen, bool *ended)
{
    static constexpr const char *kName = "KX_SDK_GZDECOMPRESS";
    if (ended != nullptr)
        *ended = false;
    if (outlen == nullptr) {
        KX_LOGE_AS(kName, "%s %d error: %d\n", "outlen", __LINE__, Z_STREAM_ERROR);
        return Z_STREAM_ERROR;
    }
    z_stream stream{};
    stream.next_in = static_cast<Bytef *>(const_cast<void *>(in));
    stream.next_out = static_cast<Bytef *>(out);
    int result = inflateInit2_(&stream, 31, kZlibVersion, static_cast<int>(sizeof(z_stream)));
    if (result != Z_OK) {
        KX_LOGE_AS(kName, "%s %d error: %d\n", "inflateInit2", __LINE__, result);
        return result;
    }
    const uint32_t capacity = *outlen;
    /* One byte in and one byte out per step keeps the output bound exact. */
    while (stream.total_out < capacity && stream.total_in < inlen) {
        stream.avail_in = 1;
        stream.avail_out = 1;
        result = inflate(&stream, Z_NO_FLUSH);
        if (result == Z_STREAM_END) {
            KX_LOGI_AS(kName, "%s %d break out of while loop: %d\n", "inflate", __LINE__, result);
            if (ended != nullptr)
                *ended = true;
            break;
        }
        if (result == Z_OK)
            continue;
        if (result != Z_DATA_ERROR) {
            KX_LOGE_AS(kName, "%s %d error: %d\n", "inflate", __LINE__, result);
            inflateEnd(&stream);
            return result;
        }
        /* Retry with a zlib header in front. The input position is restored
         * afterwards so the walk never continues inside the two-byte header. */
        Bytef *resume = stream.next_in;
        stream.next_in = const_cast<Bytef *>(kZlibHeader);
        stream.avail_in = sizeof kZlibHeader;
        result = inflate(&stream, Z_NO_FLUSH);
        if (result != Z_OK) {
            KX_LOGE_AS(kName, "%s %d error: %d\n", "inflate", __LINE__, result);
            inflateEnd(&stream);
            return result;
        }
        stream.next_in = resume;
    }
    result = inflateEnd(&stream);
    if (result != Z_OK) {
        KX_LOGE_AS(kName, "%s %d error: %d\n", "inflateEnd", __LINE__, result);
        return result;
    }
    *outlen = static_cast<uint32_t>(stream.total_out);
    return 0;
}

}  // namespace kx
