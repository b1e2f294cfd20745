#include "internal/kx_secrets.h"

#include <cstring>

#include "kx_secrets_generated.h"

namespace kx {

namespace {

/* Each fragment holds four bytes in reverse order. */
void put_fragment(unsigned char *dst, const unsigned char frag[4])
{
    dst[0] = frag[3];
    dst[1] = frag[2];
    dst[2] = frag[1];
    dst[3] = frag[0];
}

}  // namespace

const char *ca_bundle_path() { return KX_CA_BUNDLE_PATH_TEXT; }

const unsigned char *stored_key() { return kx_stored_key; }

std::size_t stored_key_size() { return KX_STORED_KEY_SIZE; }

void aes_pair_a(unsigned char key[17], unsigned char iv[17])
{
    put_fragment(key + 12, kx_a_key_f3);
    put_fragment(iv + 0, kx_a_iv_f0);
    put_fragment(key + 4, kx_a_key_f1);
    put_fragment(iv + 8, kx_a_iv_f2);
    put_fragment(key + 0, kx_a_key_f0);
    put_fragment(iv + 12, kx_a_iv_f3);
    put_fragment(key + 8, kx_a_key_f2);
    put_fragment(iv + 4, kx_a_iv_f1);
    key[16] = '\0';
    iv[16] = '\0';
}

void aes_pair_b(unsigned char key[17], unsigned char iv[17])
{
    put_fragment(iv + 4, kx_b_iv_f1);
    put_fragment(key + 8, kx_b_key_f2);
    put_fragment(iv + 12, kx_b_iv_f3);
    put_fragment(key + 0, kx_b_key_f0);
    put_fragment(iv + 8, kx_b_iv_f2);
    put_fragment(key + 4, kx_b_key_f1);
    put_fragment(iv + 0, kx_b_iv_f0);
    put_fragment(key + 12, kx_b_key_f3);
    key[16] = '\0';
    iv[16] = '\0';
}

}  // namespace kx
