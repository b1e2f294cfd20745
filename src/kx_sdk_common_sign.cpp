/*
 * kx_sdk_common, request signatures: the process-wide server key, the nonce
 * and the two signature texts that the request calls send.
 */
#include "kx_sdk_security.h"

#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "internal/kx_buffer.h"
#include "internal/kx_log.h"
#include "internal/kx_secrets.h"

extern "C" {

KX_API struct rsa_st *gpKey = nullptr;

KX_API int32_t KX_INIT_PUBLICKEY(void)
{
    /* The stored block is the key text with every byte raised by its
     * position (modulo 256); its last position becomes the terminator. */
    const std::size_t size = kx::stored_key_size();
    kx::Buffer text(size);
    if (!text.ok()) {
        /* gpKey may still hold the key an earlier tear-down released: forget
         * it, or the next tear-down would release it a second time. */
        gpKey = nullptr;
        KX_LOGE("Init public key faild!\n");
        return -1;
    }
    const unsigned char *stored = kx::stored_key();
    unsigned char *key = text.bytes();
    for (std::size_t i = 0; i + 1 < size; ++i)
        key[i] = static_cast<unsigned char>(stored[i] - i);
    key[size - 1] = '\0';

    gpKey = init_publickey(text.get());
    OPENSSL_cleanse(key, size);
    if (gpKey == nullptr) {
        KX_LOGE("Init public key faild!\n");
        return -1;
    }
    return 0;
}

KX_API int32_t KX_UNINIT_PUBLICKEY(void)
{
    /* gpKey keeps its value: nothing may use it before the next load. */
    return destroy_key(gpKey);
}

KX_API void KX_CREATE_RAND_STRING(unsigned char *out, int32_t length)
{
    static const char kDigits[] = "0123456789";
    if (out == nullptr)
        return;
    /* Reseeded on every call: two calls within one second give the same
     * digits, and other users of rand() see their sequence restart. */
    std::srand(static_cast<unsigned int>(std::time(nullptr)));
    int32_t i = 0;
    for (; i < length; ++i)
        out[i] = static_cast<unsigned char>(kDigits[std::rand() % 10]);
    out[i] = '\0';
}

KX_API uint32_t KX_SDK_SIGN_CREATE(const char *text, void *out)
{
    if (text == nullptr || out == nullptr) {
        KX_LOGE("invalid arg!\n");
        return static_cast<uint32_t>(-1);
    }
    char raw[512];
    /* KX_SDK_URLEncode may put its terminator at out[outsize]: one spare
     * byte beyond the 512 it is told about. */
    char encoded[512 + 1];
    std::memset(raw, 0, sizeof raw);
    std::memset(encoded, 0, sizeof encoded);

    if (kxtvsign(text, static_cast<uint32_t>(std::strlen(text)), raw, sizeof raw, gpKey) == -1) {
        KX_LOGE("KxSDK2.0 create signature failed\n");
        return static_cast<uint32_t>(-1);
    }
    KX_LOGI("sSignature is: %s\n", raw);
    /* A base64 text too long to encode within 512 characters leaves a cut
     * text here; the signature is still handed out (kept behaviour). */
    KX_SDK_URLEncode(raw, static_cast<int32_t>(std::strlen(raw)), encoded, 512);
    KX_LOGI("sEnSignature is: %s\n", encoded);

    /* Callers hand in 512 bytes. The encoder can fill all 512 characters
     * (only when the base64 text carries some 84 or more "+", "/" and "="),
     * so at most 511 are copied to leave room for the terminator. */
    std::size_t len = std::strlen(encoded);
    if (len > 511)
        len = 511;
    std::memcpy(out, encoded, len);
    static_cast<char *>(out)[len] = '\0';
    return 0;
}

KX_API uint32_t KX_SDK_SIGN_CREATE_SOUNDBAR(const char *text, char *out)
{
    if (text == nullptr || out == nullptr) {
        KX_LOGE("invalid arg!\n");
        return static_cast<uint32_t>(-1);
    }
    char digest[512];
    std::memset(digest, 0, sizeof digest);
    if (kxtvsign_soundbar(text, static_cast<uint32_t>(std::strlen(text) + 1), digest, sizeof digest) == -1) {
        KX_LOGE("KxSDK2.0 create signature failed\n");
        return static_cast<uint32_t>(-1);
    }
    KX_LOGI("sSignature is: %s\n", digest);
    const std::size_t len = std::strlen(digest);
    std::memcpy(out, digest, len);
    out[len] = '\0';
    return 0;
}

}  // extern "C"
