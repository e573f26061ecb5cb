// Helpers shared by the library's sources (not installed, not part of the API).
#pragma once

#include "lumacrypt/Types.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace lumacrypt::detail {

struct PKeyDeleter {
    void operator()(EVP_PKEY *p) const noexcept { EVP_PKEY_free(p); }
};
struct PKeyCtxDeleter {
    void operator()(EVP_PKEY_CTX *p) const noexcept { EVP_PKEY_CTX_free(p); }
};
struct CipherCtxDeleter {
    void operator()(EVP_CIPHER_CTX *p) const noexcept { EVP_CIPHER_CTX_free(p); }
};
using PKeyPtr = std::unique_ptr<EVP_PKEY, PKeyDeleter>;
using PKeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, PKeyCtxDeleter>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter>;

// Throws CryptoError(kind) with `what` and the last OpenSSL error text (if any); the OpenSSL
// error queue is left empty.
[[noreturn]] void throwCrypto(CryptoError::Kind kind, const char *what);

inline std::span<const std::uint8_t> asBytes(std::string_view text) noexcept {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

// Base64 of a field of a received record; malformed text throws invalidFormat.
Bytes decodeReceived(std::string_view base64);

// Seals `message` and writes the base64 of the box (nonce || ciphertext || tag),
// base64EncodedSize(12 + message.size() + 16) characters, to `out`, without holding the box
// itself. Throws what AESGCMEncrypt / ChaChaPolyEncrypt throw; an unknown aead throws
// invalidAEAD.
void sealBase64Into(KeyExchangeAEAD aead, const SymmetricKey &key,
                    std::span<const std::uint8_t> message, std::span<const std::uint8_t> nonce,
                    std::span<const std::uint8_t> additionalData, char *out);

// Opens a box given as base64 text into `plaintext` (replacing its content), decoding and
// decrypting a piece at a time. The text is read as strictly as base64Decode reads it
// (malformed: invalidFormat); a box that does not open throws as AESGCMDecrypt does, and leaves
// `plaintext` wiped and empty.
void openBase64Into(KeyExchangeAEAD aead, const SymmetricKey &key, std::string_view box,
                    std::span<const std::uint8_t> additionalData, std::string &plaintext);

} // namespace lumacrypt::detail
