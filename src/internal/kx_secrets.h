/*
 * The secrets and built-in paths chosen at build time (see cmake/KxOptions.cmake).
 */
#ifndef KX_INTERNAL_SECRETS_H
#define KX_INTERNAL_SECRETS_H

#include <cstddef>

namespace kx {

/* The CA bundle every secure transfer checks the server against. */
const char *ca_bundle_path();

/* The stored form of the server's public key (position-offset rule) and its size,
 * the text's length + 1. */
const unsigned char *stored_key();
std::size_t stored_key_size();

/* Assemble an AES key/IV pair from its fragments into 17-byte arrays: 16 bytes
 * followed by a NUL. Pair A serves KX_SDK_AES_ENCRYPTION and KX_SDK_AES_DECRYPT,
 * pair B serves KX_SDK_AES_ENCRYPT. */
void aes_pair_a(unsigned char key[17], unsigned char iv[17]);
void aes_pair_b(unsigned char key[17], unsigned char iv[17]);

}  // namespace kx

#endif
