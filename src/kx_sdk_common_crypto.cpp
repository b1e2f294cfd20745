/*
 * kx_sdk_common, AES and text encodings: AES-128-CBC under the two built-in
 * key/IV pairs, upper-case hexadecimal text both ways, form-style
 * percent-encoding.
 *
 * The pairs are assembled from their fragments on every call into local
 * arrays and wiped afterwards; every call starts from the fixed IV (a fresh
 * copy), so there is no chaining between calls.
 */
#include "kx_sdk_security.h"

#include <openssl/aes.h>
#include <openssl/crypto.h>

#include <cstdio>
#include <cstring>

#include "internal/kx_buffer.h"
#include "internal/kx_log.h"
#include "internal/kx_secrets.h"

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

/* Key text, IV and key schedule of one call, wiped when the call ends. */
struct AesWork {
    unsigned char key[17];
    unsigned char iv[17];
    AES_KEY schedule;
    AesWork() = default;
    AesWork(const AesWork &) = delete;
    AesWork &operator=(const AesWork &) = delete;
    ~AesWork() { OPENSSL_cleanse(this, sizeof *this); }
};

/* Value of an upper-case hexadecimal digit, or -1. */
int hex_nibble(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

void to_hex(const void *in, uint32_t length, char *out)
{
    const unsigned char *src = static_cast<const unsigned char *>(in);
    for (uint32_t i = 0; i < length; ++i) {
        out[2 * i] = kHexDigits[src[i] >> 4];
        out[2 * i + 1] = kHexDigits[src[i] & 0x0F];
    }
}

bool url_keeps(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '*';
}

}  // namespace

extern "C" {

KX_API int32_t KX_SDK_AES_ENCRYPTION(const char *in, void *out, uint32_t length)
{
    if (in == nullptr || out == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    AesWork work;
    kx::aes_pair_a(work.key, work.iv);
    if (AES_set_encrypt_key(work.key, 128, &work.schedule) < 0) {
        KX_LOGE("Failed to call AES_set_encrpt_key().\n");
        return -1;
    }
    /* A length that is not a multiple of 16 still fills a whole last block. */
    AES_cbc_encrypt(reinterpret_cast<const unsigned char *>(in), static_cast<unsigned char *>(out), length,
                    &work.schedule, work.iv, AES_ENCRYPT);
    return 0;
}

KX_API int32_t KX_SDK_AES_DECRYPT(const void *in, uint32_t length, void *out, uint32_t *outlen)
{
    if (in == nullptr || out == nullptr || outlen == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    AesWork work;
    kx::aes_pair_a(work.key, work.iv);
    if (AES_set_decrypt_key(work.key, 128, &work.schedule) < 0) {
        KX_LOGE("Failed to set descrypt key.\n");
        return -1;
    }
    unsigned char *plain = static_cast<unsigned char *>(out);
    AES_cbc_encrypt(static_cast<const unsigned char *>(in), plain, length, &work.schedule, work.iv, AES_DECRYPT);

    /* Only the last byte names the padding. An empty input has no last byte
     * and counts as padding 0; a count beyond the input would zero bytes
     * before out, so it is refused like any other invalid count. */
    const unsigned int pad = length > 0 ? plain[length - 1] : 0;
    if (pad < 1 || pad > 16 || pad > length) {
        KX_LOGE("%d is invalid PaddingByteNum.", static_cast<int>(pad));
        return -1;
    }
    *outlen = length - pad;
    std::memset(plain + length - pad, 0, pad);
    return 0;
}

KX_API int32_t KX_SDK_AES_ENCRYPT(const void *in, uint32_t length, unsigned char **out, uint32_t *outlen)
{
    if (in == nullptr || out == nullptr || outlen == nullptr || *out != nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    /* The padded size must fit the 32-bit length handed back. */
    if (length > UINT32_MAX - 16) {
        KX_LOGE("out of memory!\n");
        return -1;
    }
    const uint32_t total = (length / 16 + 1) * 16;
    kx::Buffer padded(total);
    if (!padded.ok()) {
        KX_LOGE("out of memory!\n");
        return -1;
    }
    kx::Buffer cipher(total);
    if (!cipher.ok()) {
        KX_LOGE("out of memory!\n");
        return -1;
    }
    std::memset(padded.bytes() + length, static_cast<int>(total - length), total - length);
    std::memcpy(padded.bytes(), in, length);

    AesWork work;
    kx::aes_pair_b(work.key, work.iv);
    if (AES_set_encrypt_key(work.key, 128, &work.schedule) < 0) {
        KX_LOGE("Failed to set encrypt key.\n");
        return -1;
    }
    AES_cbc_encrypt(padded.bytes(), cipher.bytes(), total, &work.schedule, work.iv, AES_ENCRYPT);
    OPENSSL_cleanse(padded.bytes(), total);
    *out = reinterpret_cast<unsigned char *>(cipher.release());
    *outlen = total;
    return 0;
}

KX_API void KX_SDK_ENCRYPT_TO_STRING(const void *in, uint32_t length, char *out)
{
    if (in == nullptr || out == nullptr) {
        KX_LOGE("Invalid args!\n");
        return;
    }
    to_hex(in, length, out);
}

KX_API uint32_t KX_SDK_ENCRYPT_TO_HEXSTRING(const void *in, uint32_t length, char *out)
{
    if (in == nullptr || out == nullptr) {
        KX_LOGE("Invalid args!\n");
        return 0;
    }
    to_hex(in, length, out);
    return 0;
}

KX_API void KX_SDK_HEXSTRING_TO_ENCRYPT(const char *in, void *out)
{
    if (in == nullptr || out == nullptr) {
        KX_LOGE("Invalid args!\n");
        return;
    }
    unsigned char *dst = static_cast<unsigned char *>(out);
    const std::size_t pairs = std::strlen(in) / 2;
    for (std::size_t i = 0; i < pairs; ++i) {
        const int high = hex_nibble(in[2 * i]);
        if (high >= 0)
            dst[i] = static_cast<unsigned char>(high << 4);
        else
            KX_LOGE("invalid Byte!\n");
        const int low = hex_nibble(in[2 * i + 1]);
        if (low >= 0)
            dst[i] = static_cast<unsigned char>(dst[i] | low);
        else
            KX_LOGE("invalid Byte!\n");
    }
}

KX_API int32_t KX_SDK_URLEncode(const void *in, int32_t inlen, char *out, int32_t outsize)
{
    if (in == nullptr || out == nullptr || outsize <= 0 || inlen <= 0)
        return 0;
    const unsigned char *src = static_cast<const unsigned char *>(in);
    int32_t read = 0;
    int32_t written = 0;
    while (read < inlen && written < outsize) {
        const unsigned char c = src[read++];
        if (url_keeps(c)) {
            out[written++] = static_cast<char>(c);
        } else if (c == ' ') {
            out[written++] = '+';
        } else {
            if (written + 3 >= outsize)
                return 0;
            /* Three characters and a NUL, all below outsize. */
            std::snprintf(out + written, 4, "%%%02X", c);
            written += 3;
        }
    }
    /* Callers size out as outsize + 1: this NUL may land at out[outsize]. */
    out[written] = '\0';
    return written;
}

}  // extern "C"
