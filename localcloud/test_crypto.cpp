#include "test_crypto.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/pem.h>

#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace kxtest {

RsaPtr generate_rsa(int bits)
{
    RsaPtr key(RSA_new());
    BIGNUM *e = BN_new();
    BN_set_word(e, RSA_F4);
    if (RSA_generate_key_ex(key.get(), bits, e, nullptr) != 1)
        key.reset();
    BN_free(e);
    return key;
}

std::string public_pem(RSA *key)
{
    BIO *bio = BIO_new(BIO_s_mem());
    PEM_write_bio_RSA_PUBKEY(bio, key);
    char *data = nullptr;
    long n = BIO_get_mem_data(bio, &data);
    std::string text(data, static_cast<size_t>(n));
    BIO_free(bio);
    return text;
}

std::string credentials_dir() { return KX_TEST_CREDENTIALS_DIR; }

RSA *answer_signing_key()
{
    static std::once_flag once;
    static RSA *key = nullptr;
    std::call_once(once, [] {
        std::string path = credentials_dir() + "/answer_signing.pem";
        FILE *f = std::fopen(path.c_str(), "r");
        if (f != nullptr) {
            key = PEM_read_RSAPrivateKey(f, nullptr, nullptr, nullptr);
            std::fclose(f);
        }
    });
    return key;
}

std::string md5_raw(const std::string &text)
{
    unsigned char digest[MD5_DIGEST_LENGTH];
    MD5(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest);
    return std::string(reinterpret_cast<char *>(digest), sizeof digest);
}

std::string base64_encode(const std::string &bytes)
{
    std::vector<unsigned char> out(4 * ((bytes.size() + 2) / 3) + 1);
    int n = EVP_EncodeBlock(out.data(), reinterpret_cast<const unsigned char *>(bytes.data()),
                            static_cast<int>(bytes.size()));
    return std::string(reinterpret_cast<char *>(out.data()), static_cast<size_t>(n));
}

std::string base64_decode(const std::string &text)
{
    if (text.empty())
        return {};
    std::vector<unsigned char> out(3 * (text.size() / 4) + 3);
    int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char *>(text.data()),
                            static_cast<int>(text.size()));
    if (n < 0)
        return {};
    size_t pad = 0;
    for (size_t i = text.size(); i > 0 && text[i - 1] == '='; --i)
        ++pad;
    return std::string(reinterpret_cast<char *>(out.data()), static_cast<size_t>(n) - pad);
}

std::string url_decode(const std::string &text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out += ' ';
        } else if (text[i] == '%' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string hex_encode(const std::string &bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string hex;
    for (unsigned char c : bytes) {
        hex += digits[c >> 4];
        hex += digits[c & 0x0F];
    }
    return hex;
}

std::string hex_decode(const std::string &hex)
{
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

namespace {

std::string aes_cbc(char pair, const std::string &in, bool encrypt)
{
    const std::string key = hex_decode(pair == 'A' ? KX_TEST_AES_A_KEY : KX_TEST_AES_B_KEY);
    const std::string iv = hex_decode(pair == 'A' ? KX_TEST_AES_A_IV : KX_TEST_AES_B_IV);
    auto bytes = [](const std::string &t) { return reinterpret_cast<unsigned char *>(const_cast<char *>(t.data())); };
    std::string out(in.size() + 32, '\0');
    int n = 0, tail = 0;
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    int ok = EVP_CipherInit_ex(ctx, EVP_aes_128_cbc(), nullptr, bytes(key), bytes(iv), encrypt ? 1 : 0) == 1 &&
             EVP_CipherUpdate(ctx, bytes(out), &n, bytes(in), static_cast<int>(in.size())) == 1 &&
             EVP_CipherFinal_ex(ctx, bytes(out) + n, &tail) == 1;
    EVP_CIPHER_CTX_free(ctx);
    return ok ? out.substr(0, static_cast<size_t>(n + tail)) : "";
}

}  // namespace

std::string aes_encrypt(char pair, const std::string &plain) { return aes_cbc(pair, plain, true); }
std::string aes_decrypt(char pair, const std::string &cipher) { return aes_cbc(pair, cipher, false); }

std::string server_signature(const std::string &text, RSA *key)
{
    if (key == nullptr)
        key = answer_signing_key();
    std::string digest = md5_raw(text);
    std::vector<unsigned char> block(static_cast<size_t>(RSA_size(key)));
    int n = RSA_private_encrypt(static_cast<int>(digest.size()), reinterpret_cast<const unsigned char *>(digest.data()),
                                block.data(), key, RSA_PKCS1_PADDING);
    if (n <= 0)
        return {};
    return base64_encode(std::string(reinterpret_cast<char *>(block.data()), static_cast<size_t>(n)));
}

std::string open_request_signature(const std::string &sign, RSA *key)
{
    if (key == nullptr)
        key = answer_signing_key();
    std::string raw = base64_decode(url_decode(sign));
    if (raw.empty())
        return {};
    std::vector<unsigned char> out(static_cast<size_t>(RSA_size(key)));
    int n = RSA_private_decrypt(static_cast<int>(raw.size()), reinterpret_cast<const unsigned char *>(raw.data()),
                                out.data(), key, RSA_PKCS1_PADDING);
    if (n < 0)
        return {};
    return std::string(reinterpret_cast<char *>(out.data()), static_cast<size_t>(n));
}

std::string signed_json(const std::string &object_without_signature, RSA *key)
{
    // The signed text is the object itself; the signature goes in as the last
    // member: ...,"signatureServer":"<sig>"}
    std::string obj = object_without_signature;
    std::string sig = server_signature(obj, key);
    size_t close = obj.rfind('}');
    std::string head = obj.substr(0, close);
    bool empty_object = head.find_first_not_of(" \t\r\n{") == std::string::npos;
    return head + (empty_object ? "" : ",") + "\"signatureServer\":\"" + sig + "\"}";
}

std::string signed_xml(const std::string &xml_without_signature, RSA *key)
{
    // The signature element goes in before the root's closing tag; the signed
    // text is the document without it.
    std::string sig = server_signature(xml_without_signature, key);
    size_t close = xml_without_signature.rfind("</");
    return xml_without_signature.substr(0, close) + "<signatureServer>" + sig + "</signatureServer>" +
           xml_without_signature.substr(close);
}

}  // namespace kxtest
