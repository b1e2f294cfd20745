/*
 * sign_verify: the RSA, MD5 and base64 core behind request signatures and
 * answer verification.
 *
 * A request signature is an RSA public-key *encryption* (PKCS #1 v1.5, random
 * padding) of the MD5 digest of the parameter text; the server opens it with
 * its private key. An answer signature is the server's private-key operation
 * over the MD5 of the answer, opened here with RSA_public_decrypt.
 */
#include "kx_sdk_security.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/md5.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <pthread.h>

#include <cstdio>
#include <cstring>

#include "internal/kx_buffer.h"
#include "internal/kx_log.h"
#include "internal/kx_owned.h"

namespace {

/* Guards the digest-and-encrypt step of kxtvsign. */
pthread_mutex_t sSignMutex = PTHREAD_MUTEX_INITIALIZER;
/* Guards the decrypt-and-digest step of kxtvverify. */
pthread_mutex_t sVerifyMutex = PTHREAD_MUTEX_INITIALIZER;

/* Appended to the text before digesting in kxtvsign_soundbar; no other use. */
constexpr char kSoundbarSalt[] = "Qm7TzR2bWc9LkXv4+pHsYe1NdGu8Jf3A";

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char kPad = 255;

void bio_free_all(BIO *bio) { BIO_free_all(bio); }
void rsa_free(RSA *rsa) { RSA_free(rsa); }
using BioPtr = kx::Owned<BIO, bio_free_all>;
using RsaPtr = kx::Owned<RSA, rsa_free>;

class Lock {
public:
    explicit Lock(pthread_mutex_t *m) : m_(m) { pthread_mutex_lock(m_); }
    ~Lock() { pthread_mutex_unlock(m_); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

private:
    pthread_mutex_t *m_;
};

int hex_value(char c) { return (c >= 'A' && c <= 'F') ? c - 'A' + 10 : c - '0'; }

}  // namespace

extern "C" {

KX_API RSA *init_publickey(const char *key)
{
    if (key == nullptr) {
        KX_LOGE("invalid public key!\n");
        return nullptr;
    }
    BioPtr bio(BIO_new_mem_buf(key, static_cast<int>(std::strlen(key))));
    if (!bio) {
        KX_LOGE("Failed to call BIO_new_mem_buf().\n");
        return nullptr;
    }
    RSA *rsa = nullptr;
    if (PEM_read_bio_RSA_PUBKEY(bio.get(), &rsa, nullptr, nullptr) == nullptr) {
        /* The memory BIO is released on this path too. */
        KX_LOGE("failed to read public key.\n");
        return nullptr;
    }
    return rsa;
}

KX_API RSA *init_privatekey(const char *path)
{
    /* The file reading speaks as "prikey_getfrom_file". The empty key made
     * first is never used; it is released rather than left behind. */
    RsaPtr scratch(RSA_new());
    if (!scratch) {
        KX_LOGE_AS("prikey_getfrom_file", "RSA_new error\n");
        return nullptr;
    }
    kx::FilePtr file(path != nullptr ? std::fopen(path, "rb") : nullptr);
    if (!file) {
        KX_LOGE_AS("prikey_getfrom_file", "Get Public Key from file %s error, open file error\n",
                   path != nullptr ? path : "(null)");
        KX_LOGE("prikey_getfrom_file error\n");
        return nullptr;
    }
    RSA *rsa = PEM_read_RSAPrivateKey(file.get(), nullptr, nullptr, nullptr);
    if (rsa == nullptr) {
        KX_LOGE("Get Public Key from file %s error\n", path);
        file.reset();
        KX_LOGE("prikey_getfrom_file error\n");
        return nullptr;
    }
    file.reset();
    /* Kept behaviour: loading a private key resets the signing mutex, so it
     * must not run while a signature is being made. */
    pthread_mutex_init(&sSignMutex, nullptr);
    return rsa;
}

KX_API int32_t destroy_key(RSA *key)
{
    RSA_free(key);
    return 0;
}

KX_API int32_t signsize(RSA *key)
{
    if (key == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    return (RSA_size(key) / 3) * 4 + 5;
}

KX_API void kx_base64_encode(const void *in, char *out, uint32_t n)
{
    const unsigned char *src = static_cast<const unsigned char *>(in);
    uint32_t i = 0;
    char *dst = out;
    for (; i + 3 <= n; i += 3) {
        uint32_t v = (uint32_t(src[i]) << 16) | (uint32_t(src[i + 1]) << 8) | src[i + 2];
        *dst++ = kBase64Alphabet[(v >> 18) & 0x3F];
        *dst++ = kBase64Alphabet[(v >> 12) & 0x3F];
        *dst++ = kBase64Alphabet[(v >> 6) & 0x3F];
        *dst++ = kBase64Alphabet[v & 0x3F];
    }
    if (n - i == 1) {
        uint32_t v = uint32_t(src[i]) << 16;
        *dst++ = kBase64Alphabet[(v >> 18) & 0x3F];
        *dst++ = kBase64Alphabet[(v >> 12) & 0x3F];
        *dst++ = '=';
        *dst++ = '=';
    } else if (n - i == 2) {
        uint32_t v = (uint32_t(src[i]) << 16) | (uint32_t(src[i + 1]) << 8);
        *dst++ = kBase64Alphabet[(v >> 18) & 0x3F];
        *dst++ = kBase64Alphabet[(v >> 12) & 0x3F];
        *dst++ = kBase64Alphabet[(v >> 6) & 0x3F];
        *dst++ = '=';
    }
    *dst = '\0';
}

KX_API int32_t kx_base64_decode(const char *in, void *out)
{
    unsigned char *dst = static_cast<unsigned char *>(out);
    const std::size_t len = std::strlen(in);
    kx::Buffer values(len + 1);
    if (!values.ok()) {
        KX_LOGE("Base64 decode malloc failed\n");
        return -1;
    }
    unsigned char *v = values.bytes();
    std::size_t count = 0;
    int32_t pads = 0;
    for (std::size_t i = 0; i < len; ++i) {
        const unsigned char c = static_cast<unsigned char>(in[i]);
        if (c == '\r' || c == '\n')
            continue;
        if (c >= 'A' && c <= 'Z') {
            v[count++] = c - 'A';
        } else if (c >= 'a' && c <= 'z') {
            v[count++] = c - 'a' + 26;
        } else if (c >= '0' && c <= '9') {
            v[count++] = c - '0' + 52;
        } else if (c == '+') {
            v[count++] = 62;
        } else if (c == '/') {
            v[count++] = 63;
        } else if (c == '=') {
            v[count++] = kPad;
            ++pads;
        } else {
            KX_LOGE("%#2x Not a valid base64 encode string\n", c);
            return -1;
        }
    }
    /* The reported length counts every input character, line breaks
     * included, as it always has. The guards below make sure the bytes
     * actually written never exceed it: only whole groups are decoded (a
     * count that is not a multiple of 4 is refused) and pads may stand only
     * in the last two places of the last group, so the decoded bytes are
     * (count / 4) * 3 - pads <= (len / 4) * 3 - pads. */
    const int32_t result = static_cast<int32_t>((len / 4) * 3) - pads;
    if (count % 4 != 0) {
        KX_LOGE("Not a valid base64 encode string\n");
        return -1;
    }
    if (count == 0) {
        dst[0] = '\0';
        return 0;
    }
    const std::size_t last = count - 4;
    for (std::size_t i = 0; i < last; ++i) {
        if (v[i] == kPad) {
            KX_LOGE("Not a valid base64 encode string\n");
            return -1;
        }
    }
    std::size_t w = 0;
    for (std::size_t i = 0; i < last; i += 4) {
        dst[w++] = static_cast<unsigned char>((v[i] << 2) | (v[i + 1] >> 4));
        dst[w++] = static_cast<unsigned char>((v[i + 1] << 4) | (v[i + 2] >> 2));
        dst[w++] = static_cast<unsigned char>((v[i + 2] << 6) | v[i + 3]);
    }
    const unsigned char *g = v + last;
    if (g[0] == kPad || g[1] == kPad || (g[2] == kPad && g[3] != kPad)) {
        /* Pads in the second (or first) place, or a pad followed by data. */
        KX_LOGE("Not a valid base64 encode string\n");
        return -1;
    }
    dst[w++] = static_cast<unsigned char>((g[0] << 2) | (g[1] >> 4));
    if (g[2] != kPad) {
        dst[w++] = static_cast<unsigned char>((g[1] << 4) | (g[2] >> 2));
        if (g[3] != kPad)
            dst[w++] = static_cast<unsigned char>((g[2] << 6) | g[3]);
    }
    dst[w] = '\0';
    return result;
}

KX_API int32_t kxtvsign(const void *content, uint32_t n, char *out, uint32_t outsize, RSA *key)
{
    if (key == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    const int s = RSA_size(key);
    KX_LOGI("KxSDK2.0 rsasize: %d\n", s);
    /* The content is n bytes, not necessarily terminated: print at most n. */
    KX_LOGI("KxSDK2.0 content: %.*s size: %d\n", static_cast<int>(n), static_cast<const char *>(content),
            static_cast<int>(n));
    if (s == 0 || s > 512) {
        KX_LOGE("kxtvsign Not a valid private key\n");
        return -1;
    }
    kx::Buffer block(static_cast<std::size_t>(s));
    kx::Buffer digest(MD5_DIGEST_LENGTH);
    if (!block.ok() || !digest.ok()) {
        KX_LOGE("out of memory.\n");
        return -1;
    }
    {
        Lock lock(&sSignMutex);
        MD5(static_cast<const unsigned char *>(content), n, digest.bytes());
        const int ret = RSA_public_encrypt(MD5_DIGEST_LENGTH, digest.bytes(), block.bytes(), key, RSA_PKCS1_PADDING);
        if (ret != s) {
            KX_LOGE("kxtvsign Private key encrypte error, ret=%d\n", ret);
            return -1;
        }
    }
    const int t = (s / 3 + 1) * 4;
    if (outsize <= static_cast<uint32_t>(t)) {
        KX_LOGE("kxtvsign signsize should greater than or equel to %d\n", t + 1);
        return -1;
    }
    kx_base64_encode(block.bytes(), out, static_cast<uint32_t>(s));
    return 0;
}

KX_API int32_t kxtvsign_soundbar(const char *content, uint32_t size, char *out, uint32_t outsize)
{
    (void)outsize; /* out holds 25 bytes; its size is not checked */
    if (content == nullptr || out == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    const std::size_t joined_size = static_cast<std::size_t>(size) + 32;
    kx::Buffer joined(joined_size);
    if (!joined.ok())
        return -1;
    /* size is meant to be strlen(content) + 1; the bound keeps a smaller one
     * from writing past the buffer (the text is then cut). */
    std::snprintf(joined.get(), joined_size, "%s%s", content, kSoundbarSalt);
    const std::size_t len = std::strlen(joined.get());
    KX_LOGI("md5content: %s %d\n", joined.get(), static_cast<int>(len));
    unsigned char digest[MD5_DIGEST_LENGTH];
    MD5(joined.bytes(), len, digest);
    kx_base64_encode(digest, out, MD5_DIGEST_LENGTH);
    return 0;
}

KX_API int32_t kxtvverify(const void *data, uint32_t n, const char *sig, uint32_t count, RSA *key)
{
    if (key == nullptr) {
        KX_LOGE("invalid arg!\n");
        return -1;
    }
    if (count == 0 || count > 512) {
        KX_LOGE("kxtvverify signsize is not belong to 0-512\n");
        return -1;
    }
    if (sig == nullptr) {
        KX_LOGE("kxtvverify base64 decode error\n");
        return -1;
    }
    /* The decoder writes strlen(sig) / 4 * 3 bytes and a NUL: when the text
     * is longer than count says, the buffer grows to hold that. */
    const std::size_t sig_len = std::strlen(sig);
    kx::Buffer decoded(sig_len > count ? sig_len + 1 : count);
    /* RSA_public_decrypt writes up to RSA_size bytes; only the first 16 are
     * compared, a shorter block against its zero fill. */
    kx::Buffer decrypted(static_cast<std::size_t>(RSA_size(key)) + MD5_DIGEST_LENGTH);
    if (!decoded.ok() || !decrypted.ok()) {
        KX_LOGE("out of memory.\n");
        return -1;
    }
    const int32_t decoded_len = kx_base64_decode(sig, decoded.get());
    if (decoded_len < 1) {
        KX_LOGE("kxtvverify base64 decode error\n");
        return -1;
    }
    unsigned char computed[MD5_DIGEST_LENGTH] = {0};
    {
        Lock lock(&sVerifyMutex);
        if (RSA_public_decrypt(decoded_len, decoded.bytes(), decrypted.bytes(), key, RSA_PKCS1_PADDING) == -1) {
            KX_LOGE("kxtvverify decrypt error\n");
            return -1;
        }
        MD5(static_cast<const unsigned char *>(data), n, computed);
    }
    if (std::memcmp(decrypted.bytes(), computed, MD5_DIGEST_LENGTH) != 0) {
        KX_LOGE("kxtvverify md5 cmp diff\n");
        return -1;
    }
    return 0;
}

KX_API int32_t ChangeToByte(const char *in, void *out)
{
    unsigned char *dst = static_cast<unsigned char *>(out);
    int32_t written = 0;
    /* A trailing odd character has no partner: the walk stops there instead
     * of pairing it with the terminator and reading beyond it. */
    for (const char *p = in; p[0] != '\0' && p[1] != '\0'; p += 2)
        /* Unchecked digits may count negative: shift as unsigned, keep the low byte. */
        dst[written++] = static_cast<unsigned char>((static_cast<unsigned>(hex_value(p[0])) << 4) |
                                                    static_cast<unsigned>(hex_value(p[1])));
    return written;
}

}  // extern "C"
