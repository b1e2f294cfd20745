/*
 * Independent cryptography for the tests: key pairs made in the test, the
 * build's answer-signing private key, and the server's side of the protocol
 * (signing an answer, opening a request signature). Written against OpenSSL
 * directly so that the library's own code is checked, not reused.
 */
#ifndef KX_TEST_CRYPTO_H
#define KX_TEST_CRYPTO_H

#include <openssl/rsa.h>

#include <memory>
#include <string>

namespace kxtest {

struct RsaFree {
    void operator()(RSA *r) const { RSA_free(r); }
};
using RsaPtr = std::unique_ptr<RSA, RsaFree>;

/* A fresh key pair of the given size (exponent 65537). */
RsaPtr generate_rsa(int bits);
/* "-----BEGIN PUBLIC KEY-----" text of a key. */
std::string public_pem(RSA *key);
/* The private half of the key embedded in the test build (owned by the tests). */
RSA *answer_signing_key();
/* Folder of the test build's generated credentials (keys, CA, certificates). */
std::string credentials_dir();

std::string md5_raw(const std::string &text);
std::string base64_encode(const std::string &bytes);
std::string base64_decode(const std::string &text);
/* Undo form-style percent-encoding ("+" is a space, "%XX" a byte). */
std::string url_decode(const std::string &text);

/* AES-128-CBC with PKCS #7 padding under the key/IV pair the library was
 * built with, 'A' (the sign-in secret, service addresses, policies) or 'B'
 * (log uploads): the library's cipher texts made and opened independently.
 * aes_decrypt gives "" when the padding does not check. */
std::string aes_encrypt(char pair, const std::string &plain);
std::string aes_decrypt(char pair, const std::string &cipher);
/* Upper-case hexadecimal text of bytes, and bytes of such a text. */
std::string hex_encode(const std::string &bytes);
std::string hex_decode(const std::string &hex);

/* The server's answer signature: RSA private-key operation with PKCS #1 v1.5
 * padding over MD5(text), base64. */
std::string server_signature(const std::string &text, RSA *key = nullptr);
/* Opens a request signature (base64, possibly percent-encoded) with the private
 * key; returns the recovered bytes (the MD5 of the signed text), or "" when it
 * does not decrypt. */
std::string open_request_signature(const std::string &sign, RSA *key = nullptr);

/* Signed answers in the cloud's envelope. */
std::string signed_json(const std::string &object_without_signature, RSA *key = nullptr);
std::string signed_xml(const std::string &xml_without_signature, RSA *key = nullptr);

}  // namespace kxtest

#endif
