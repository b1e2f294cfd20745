/*
 * kx_sdk_security.h -- Request signatures, RSA and base64, AES and text encodings, gzip.
 * Reach it through kx_cloud_openapi.h.
 *
 * Request signature. Every signed call carries a `sign` parameter made over the
 * call's parameter text (key=value pairs joined by "&", keys in ascending byte
 * order): MD5 of the text, encrypted with the server's RSA public key gpKey
 * under PKCS #1 v1.5 padding (so it differs on every call), base64, then
 * percent-encoded. The answer's signature is checked the other way round with
 * kxtvverify.
 *
 * Keys. gpKey is loaded from the key built into the library by
 * KX_INIT_PUBLICKEY (called by KX_GLOBAL_INIT) and released by
 * KX_UNINIT_PUBLICKEY (called by KX_GLOBAL_DEINIT). RSA handles are OpenSSL
 * RSA objects (struct rsa_st); this header needs no OpenSSL include.
 *
 * Byte buffers are `void *`; texts are `char *` and NUL-terminated unless a
 * comment says otherwise. Unless stated, the caller owns every buffer and
 * sizes it as the comment says; these functions do not allocate output,
 * except KX_SDK_AES_ENCRYPT, whose result is calloc'ed and becomes the
 * caller's (release with KX_SDK_FREE or free).
 *
 * Threads. kxtvsign holds the signing mutex and kxtvverify the verification
 * mutex only around their MD5 and RSA step, so a signature and a verification
 * run in parallel while two signatures (or two verifications) are
 * serialised. Everything else here is reentrant; KX_CREATE_RAND_STRING
 * reseeds the process-wide rand() on every call.
 */
#ifndef KX_SDK_SECURITY_H
#define KX_SDK_SECURITY_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

struct rsa_st;

/* ---- keys ------------------------------------------------------------------ */

/* The process-wide RSA public key that signs requests and verifies answers.
 * Null until KX_INIT_PUBLICKEY runs. KX_UNINIT_PUBLICKEY releases it without
 * setting it back to null: after tear-down it must not be used until the next
 * KX_INIT_PUBLICKEY. The library owns it. */
KX_API extern struct rsa_st *gpKey;

/* Loads the key built into the library into gpKey (also storing null when it
 * does not load). Returns 0, or -1 with "Init public key faild!". A second
 * call without KX_UNINIT_PUBLICKEY in between replaces gpKey without
 * releasing the previous key. */
KX_API int32_t KX_INIT_PUBLICKEY(void);

/* Releases gpKey (destroy_key). Returns 0. gpKey keeps its old value. */
KX_API int32_t KX_UNINIT_PUBLICKEY(void);

/* Reads a "-----BEGIN PUBLIC KEY-----" PEM text (SubjectPublicKeyInfo).
 * Returns a new RSA handle (release with destroy_key), or null with
 * "invalid public key!" (null text), "Failed to call BIO_new_mem_buf()." or
 * "failed to read public key.". */
KX_API struct rsa_st *init_publickey(const char *key);

/* Reads an RSA private key from the PEM file at path. Returns a new RSA
 * handle (release with destroy_key), or null with "prikey_getfrom_file error"
 * after "RSA_new error" or "Get Public Key from file %s error[, open file
 * error]". On success it re-initialises the signing mutex: do not call it
 * while a kxtvsign runs. The library itself never calls it. */
KX_API struct rsa_st *init_privatekey(const char *path);

/* Releases an RSA handle (null is accepted). Returns 0. */
KX_API int32_t destroy_key(struct rsa_st *key);

/* The buffer size one base64 signature of this key plus its NUL needs, with
 * margin: (modulus bytes / 3) * 4 + 5 (173 for a 1024-bit key). Returns -1
 * with "invalid arg!" for a null key. */
KX_API int32_t signsize(struct rsa_st *key);

/* ---- signing and verification ---------------------------------------------- */

/* Signs n bytes of content: MD5, RSA public-key encryption of the 16-byte
 * digest with PKCS #1 v1.5 padding (random, so every call differs), base64
 * into out with a NUL. outsize must be greater than (RSA size / 3 + 1) * 4;
 * with a 512-byte out the largest usable modulus is 380 bytes. Returns 0, or
 * -1 with "invalid arg!" (null key), "kxtvsign Not a valid private key" (RSA
 * size 0 or above 512), "kxtvsign Private key encrypte error, ret=%d" or
 * "kxtvsign signsize should greater than or equel to %d". */
KX_API int32_t kxtvsign(const void *content, uint32_t n, char *out, uint32_t outsize, struct rsa_st *key);

/* Key-less digest: base64 of MD5(content followed by the built-in 32-character
 * salt), 24 characters ending "==" plus a NUL into out (at least 25 bytes;
 * outsize is not checked). size is strlen(content) + 1. Returns 0, or -1 when
 * memory runs out (no message) or with "invalid arg!" for a null content or
 * out. */
KX_API int32_t kxtvsign_soundbar(const char *content, uint32_t size, char *out, uint32_t outsize);

/* Checks a base64 signature (count characters, 1 to 512) of n data bytes:
 * the signature is decrypted with the public key (PKCS #1 v1.5) and its first
 * 16 bytes compared with MD5(data). Returns 0 when they match; otherwise -1
 * with "invalid arg!", "kxtvverify signsize is not belong to 0-512",
 * "out of memory.", "kxtvverify base64 decode error",
 * "kxtvverify decrypt error" or "kxtvverify md5 cmp diff". */
KX_API int32_t kxtvverify(const void *data, uint32_t n, const char *sig, uint32_t count, struct rsa_st *key);

/* ---- base64 and hexadecimal bytes ------------------------------------------- */

/* Standard base64 (RFC 4648 alphabet, "=" padding, no line breaks) of n bytes
 * into out, followed by a NUL: out holds 4 * ((n + 2) / 3) + 1 bytes. */
KX_API void kx_base64_encode(const void *in, char *out, uint32_t n);

/* Decodes a base64 text into out. The result is (L / 4) * 3 minus the number
 * of "=" characters, L being strlen(in); out needs that many bytes plus one
 * for the NUL written after the decoded bytes. CR and LF are skipped but still
 * counted in L (so text with line breaks reports too long a result; nothing is
 * ever written beyond it). Returns the result length, or -1 with
 * "%#2x Not a valid base64 encode string" (a character outside the alphabet),
 * "Not a valid base64 encode string" (a count of characters that is not a
 * multiple of 4, "=" anywhere but the last two places, or three pads) or
 * "Base64 decode malloc failed". */
KX_API int32_t kx_base64_decode(const char *in, void *out);

/* Converts pairs of upper-case hexadecimal digits into bytes without any
 * checking ("A" to "F" count 10 to 15, any other character its code minus
 * "0"). A trailing odd character is ignored. out holds strlen(in) / 2 bytes.
 * Returns the number of bytes written. */
KX_API int32_t ChangeToByte(const char *in, void *out);

/* ---- request signature and nonce -------------------------------------------- */

/* Writes length random decimal digits and a NUL into out (length + 1 bytes);
 * length 0 or less writes the NUL only. Reseeds rand() with time(NULL) on
 * every call, so two calls within one second give the same digits. */
KX_API void KX_CREATE_RAND_STRING(unsigned char *out, int32_t length);

/* The request signature of text (all strlen(text) bytes) with gpKey:
 * percent-encoded base64 (no "+", "/" or "=" left; 344 characters before
 * encoding for a 2048-bit key) plus a NUL into out, which must hold 512
 * bytes (an encoded text longer than 511 characters is cut there). Returns 0, or (uint32_t)-1 with "invalid arg!" or
 * "KxSDK2.0 create signature failed" (no key loaded, or kxtvsign failed),
 * leaving out untouched. */
KX_API uint32_t KX_SDK_SIGN_CREATE(const char *text, void *out);

/* The soundbar digest of text (kxtvsign_soundbar): 24 base64 characters ending
 * "==", not percent-encoded, plus a NUL into out (25 bytes or more). Returns
 * 0, or (uint32_t)-1 with "invalid arg!" or "KxSDK2.0 create signature
 * failed". */
KX_API uint32_t KX_SDK_SIGN_CREATE_SOUNDBAR(const char *text, char *out);

/* ---- AES-128-CBC with the built-in key pairs --------------------------------- */

/* Raw CBC encryption of length bytes of in into out with key pair A, starting
 * from the fixed IV on every call. No padding is added: the caller pads to a
 * multiple of 16 first (a shorter last block is zero-filled and still written
 * whole, so out holds length rounded up to 16 bytes). Returns 0, or -1 with
 * "invalid arg!" or "Failed to call AES_set_encrpt_key().". */
KX_API int32_t KX_SDK_AES_ENCRYPTION(const char *in, void *out, uint32_t length);

/* CBC decryption of length bytes (a multiple of 16) of in into out (length
 * bytes) with key pair A, then removal of the padding named by the last byte
 * p (1 to 16): the last p bytes are zeroed (which terminates a text) and
 * *outlen set to length - p. The other padding bytes are not compared.
 * Returns 0, or -1 with "invalid arg!", "Failed to set descrypt key." or
 * "%d is invalid PaddingByteNum." (no line end). */
KX_API int32_t KX_SDK_AES_DECRYPT(const void *in, uint32_t length, void *out, uint32_t *outlen);

/* PKCS #7 padding (1 to 16 bytes, so 16 input bytes give 32) and CBC
 * encryption with key pair B. *out must be null on entry; on success it
 * receives a calloc'ed buffer of *outlen bytes that the caller releases with
 * KX_SDK_FREE or free. Returns 0, or -1 with "invalid arg!",
 * "out of memory!" or "Failed to set encrypt key." (nothing left allocated). */
KX_API int32_t KX_SDK_AES_ENCRYPT(const void *in, uint32_t length, unsigned char **out, uint32_t *outlen);

/* ---- text encodings -------------------------------------------------------- */

/* Upper-case hexadecimal text of length bytes, high nibble first, into out
 * (2 * length characters). No terminator is written: give a zeroed buffer of
 * 2 * length + 1 bytes. Null in or out logs "Invalid args!". */
KX_API void KX_SDK_ENCRYPT_TO_STRING(const void *in, uint32_t length, char *out);

/* Same as KX_SDK_ENCRYPT_TO_STRING; the result has no meaning. */
KX_API uint32_t KX_SDK_ENCRYPT_TO_HEXSTRING(const void *in, uint32_t length, char *out);

/* Upper-case hexadecimal text into bytes: strlen(in) / 2 pairs are converted
 * into out (a trailing odd character is ignored; fewer than two characters
 * write nothing). The first character of a pair is written as the byte's high
 * nibble, the second OR-ed in as its low nibble. A character outside "0"-"9",
 * "A"-"F" (lower case included) logs "invalid Byte!" and contributes nothing:
 * an invalid first character leaves the byte as it was, so give a zeroed
 * buffer. Null in or out logs "Invalid args!". */
KX_API void KX_SDK_HEXSTRING_TO_ENCRYPT(const char *in, void *out);

/* Form-style percent-encoding of inlen bytes: letters, digits, "-", ".", "_"
 * and "*" are kept, a space becomes "+", every other byte "%XX" (upper case).
 * Writes at most outsize characters and then a NUL AFTER them: when exactly
 * outsize characters were written that NUL lands at out[outsize], so out must
 * hold outsize + 1 bytes. Returns the number of characters written, or 0 for
 * null pointers, inlen or outsize of 0 or less, or when a "%XX" would not end
 * below outsize (count + 3 >= outsize); that early 0 leaves the partial text
 * without a terminator. */
KX_API int32_t KX_SDK_URLEncode(const void *in, int32_t inlen, char *out, int32_t outsize);

/* ---- gzip ------------------------------------------------------------------ */

/* Compresses inlen bytes of in into a gzip stream in out; *outlen is the
 * capacity of out on entry and the stream's length on return. Returns 0; a
 * positive count of input bytes not consumed when out filled up first (inlen
 * for a capacity of 0; *outlen is then unchanged and out holds an unfinished
 * stream); or -1 with "Invalid params!" (null in, inlen 0),
 * "Failed to call deflateInit2!", "Failed to call deflate with Z_NO_FLUSH
 * param!", "Failed to call deflate with Z_FINISH, err is %d!" (also when out
 * is too small for the final block) or "Failed to call deflateEnd!". Size out
 * as inlen + 32 or more. */
KX_API int32_t KX_SDK_GZCOMPRESS(const void *in, uint32_t inlen, void *out, uint32_t *outlen);

/* Decompresses a gzip stream of inlen bytes into out; *outlen is the capacity
 * of out on entry and the produced length on return. Never writes beyond the
 * capacity: a result cut short by a full out or by the end of the input is
 * still returned with 0. Returns 0, or zlib's negative code with
 * "%s %d error: %d" (the input is not a gzip stream, also after a retry with
 * a zlib header). */
KX_API int32_t KX_SDK_GZDECOMPRESS(const void *in, uint32_t inlen, void *out, uint32_t *outlen);

KX_END_DECLS

#endif
