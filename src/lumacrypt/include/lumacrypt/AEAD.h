// Authenticated encryption: AES-GCM and ChaCha20-Poly1305 in the combined sealed form
// nonce (12 bytes) || ciphertext || tag (16 bytes).
#pragma once

#include "lumacrypt/Types.h"

#include <span>
#include <string>

namespace lumacrypt {

inline constexpr std::size_t kAEADNonceSize = 12;
inline constexpr std::size_t kAEADTagSize = 16;

// 12 random bytes (aesgcm, chachapoly); otherwise throws invalidAEAD.
Bytes AEADRandomNonce(KeyExchangeAEAD aead);
// 32 random bytes (aesgcm, chachapoly); otherwise throws invalidAEAD.
Bytes AEADRandomKey(KeyExchangeAEAD aead);

// Seals and returns the base64 of the combined box. Unknown aead throws invalidAEAD.
std::string AEADEncrypt(KeyExchangeAEAD aead, const SymmetricKey &key,
                        std::span<const std::uint8_t> plaintext,
                        std::span<const std::uint8_t> aeadNonce,
                        std::span<const std::uint8_t> additionalData);
// Opens the base64 combined box. The nonce argument is not consulted (the box carries its nonce).
// Malformed base64 throws invalidFormat; unknown aead throws invalidAEAD.
Bytes AEADDecrypt(KeyExchangeAEAD aead, const SymmetricKey &key, const std::string &ciphertext,
                  const std::string &aeadNonce, const std::string &additionalData);

// AES-GCM: a 16, 24 or 32-byte key (AES-128/192/256), else CryptoError(incorrectKeySize); the
// nonce must be 12 bytes, else CryptoError(incorrectParameterSize).
Bytes AESGCMEncrypt(const SymmetricKey &key, std::span<const std::uint8_t> message,
                    std::span<const std::uint8_t> nonce,
                    std::span<const std::uint8_t> additionalData);
// A box shorter than nonce + tag, or one that does not authenticate, throws
// CryptoError(authenticationFailure).
Bytes AESGCMDecrypt(const SymmetricKey &key, std::span<const std::uint8_t> combined,
                    std::span<const std::uint8_t> additionalData);

// ChaCha20-Poly1305: a 32-byte key and a 12-byte nonce.
Bytes ChaChaPolyEncrypt(const SymmetricKey &key, std::span<const std::uint8_t> message,
                        std::span<const std::uint8_t> nonce,
                        std::span<const std::uint8_t> additionalData);
Bytes ChaChaPolyDecrypt(const SymmetricKey &key, std::span<const std::uint8_t> combined,
                        std::span<const std::uint8_t> additionalData);

} // namespace lumacrypt
