#include "lumacrypt/AEAD.h"

#include "Internal.h"
#include "lumacrypt/Base64.h"
#include "lumacrypt/RandomData.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <climits>
#include <optional>
#include <string_view>

namespace lumacrypt {

using detail::CipherCtxPtr;
using detail::throwCrypto;
using Kind = CryptoError::Kind;

namespace {

enum class Cipher { aes128gcm, aes192gcm, aes256gcm, chacha20poly1305 };

// Fetched once and kept for the life of the process; shared read-only between threads.
const EVP_CIPHER *cipherAlgorithm(Cipher cipher) {
    static EVP_CIPHER *const aes128 = EVP_CIPHER_fetch(nullptr, "AES-128-GCM", nullptr);
    static EVP_CIPHER *const aes192 = EVP_CIPHER_fetch(nullptr, "AES-192-GCM", nullptr);
    static EVP_CIPHER *const aes256 = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    static EVP_CIPHER *const chacha = EVP_CIPHER_fetch(nullptr, "ChaCha20-Poly1305", nullptr);
    const EVP_CIPHER *result = nullptr;
    switch (cipher) {
    case Cipher::aes128gcm:
        result = aes128;
        break;
    case Cipher::aes192gcm:
        result = aes192;
        break;
    case Cipher::aes256gcm:
        result = aes256;
        break;
    case Cipher::chacha20poly1305:
        result = chacha;
        break;
    }
    if (result == nullptr) {
        throwCrypto(Kind::underlying, "cipher is not available");
    }
    return result;
}

Cipher aesCipherForKey(const SymmetricKey &key) {
    switch (key.size()) {
    case 16:
        return Cipher::aes128gcm;
    case 24:
        return Cipher::aes192gcm;
    case 32:
        return Cipher::aes256gcm;
    default:
        throw CryptoError(Kind::incorrectKeySize, "AES-GCM key must be 16, 24 or 32 bytes");
    }
}

Cipher chachaCipherForKey(const SymmetricKey &key) {
    if (key.size() != 32) {
        throw CryptoError(Kind::incorrectKeySize, "ChaCha20-Poly1305 key must be 32 bytes");
    }
    return Cipher::chacha20poly1305;
}

// EVP takes int lengths; feed long inputs in pieces.
constexpr std::size_t kChunk = static_cast<std::size_t>(INT_MAX) / 2;

void updateAAD(EVP_CIPHER_CTX *ctx, std::span<const std::uint8_t> aad, bool encrypting) {
    while (!aad.empty()) {
        const std::size_t take = std::min(aad.size(), kChunk);
        int written = 0;
        const int ok =
            encrypting
                ? EVP_EncryptUpdate(ctx, nullptr, &written, aad.data(), static_cast<int>(take))
                : EVP_DecryptUpdate(ctx, nullptr, &written, aad.data(), static_cast<int>(take));
        if (ok != 1) {
            throwCrypto(Kind::underlying, "AEAD additional data failed");
        }
        aad = aad.subspan(take);
    }
}

std::size_t updateData(EVP_CIPHER_CTX *ctx, std::span<const std::uint8_t> in, std::uint8_t *out,
                       bool encrypting) {
    std::size_t total = 0;
    while (!in.empty()) {
        const std::size_t take = std::min(in.size(), kChunk);
        int written = 0;
        const int ok =
            encrypting
                ? EVP_EncryptUpdate(ctx, out + total, &written, in.data(), static_cast<int>(take))
                : EVP_DecryptUpdate(ctx, out + total, &written, in.data(), static_cast<int>(take));
        if (ok != 1 || written < 0) {
            throwCrypto(Kind::underlying, "AEAD update failed");
        }
        total += static_cast<std::size_t>(written);
        in = in.subspan(take);
    }
    return total;
}

Bytes seal(Cipher cipher, const SymmetricKey &key, std::span<const std::uint8_t> message,
           std::span<const std::uint8_t> nonce, std::span<const std::uint8_t> additionalData) {
    if (nonce.size() != kAEADNonceSize) {
        throw CryptoError(Kind::incorrectParameterSize, "AEAD nonce must be 12 bytes");
    }
    if (message.size() > SIZE_MAX - kAEADNonceSize - kAEADTagSize) {
        throw CryptoError(Kind::incorrectParameterSize, "message too long");
    }
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx || EVP_EncryptInit_ex2(ctx.get(), cipherAlgorithm(cipher), key.bytes().data(),
                                    nonce.data(), nullptr) != 1) {
        throwCrypto(Kind::underlying, "AEAD setup failed");
    }
    Bytes combined(kAEADNonceSize + message.size() + kAEADTagSize);
    std::copy(nonce.begin(), nonce.end(), combined.begin());
    updateAAD(ctx.get(), additionalData, true);
    std::size_t written = updateData(ctx.get(), message, combined.data() + kAEADNonceSize, true);
    int finalWritten = 0;
    if (EVP_EncryptFinal_ex(ctx.get(), combined.data() + kAEADNonceSize + written, &finalWritten) !=
        1) {
        throwCrypto(Kind::underlying, "AEAD sealing failed");
    }
    written += static_cast<std::size_t>(finalWritten);
    if (written != message.size() ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(kAEADTagSize),
                            combined.data() + kAEADNonceSize + written) != 1) {
        throwCrypto(Kind::underlying, "AEAD tag failed");
    }
    return combined;
}

Bytes open(Cipher cipher, const SymmetricKey &key, std::span<const std::uint8_t> combined,
           std::span<const std::uint8_t> additionalData) {
    if (combined.size() < kAEADNonceSize + kAEADTagSize) {
        throw CryptoError(Kind::authenticationFailure, "sealed box too short");
    }
    const auto nonce = combined.first(kAEADNonceSize);
    const auto body =
        combined.subspan(kAEADNonceSize, combined.size() - kAEADNonceSize - kAEADTagSize);
    const auto tag = combined.last(kAEADTagSize);
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx || EVP_DecryptInit_ex2(ctx.get(), cipherAlgorithm(cipher), key.bytes().data(),
                                    nonce.data(), nullptr) != 1) {
        throwCrypto(Kind::underlying, "AEAD setup failed");
    }
    updateAAD(ctx.get(), additionalData, false);
    Bytes plaintext(body.size());
    std::size_t written = updateData(ctx.get(), body, plaintext.data(), false);
    if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(kAEADTagSize),
                            const_cast<std::uint8_t *>(tag.data())) != 1) {
        throwCrypto(Kind::underlying, "AEAD tag failed");
    }
    int finalWritten = 0;
    if (EVP_DecryptFinal_ex(ctx.get(), plaintext.data() + written, &finalWritten) != 1) {
        if (!plaintext.empty()) {
            OPENSSL_cleanse(plaintext.data(), plaintext.size());
        }
        ERR_clear_error();
        throw CryptoError(Kind::authenticationFailure, "authentication failed");
    }
    written += static_cast<std::size_t>(finalWritten);
    plaintext.resize(written);
    return plaintext;
}

Cipher cipherFor(KeyExchangeAEAD aead, const SymmetricKey &key) {
    switch (aead) {
    case KeyExchangeAEAD::aesgcm:
        return aesCipherForKey(key);
    case KeyExchangeAEAD::chachapoly:
        return chachaCipherForKey(key);
    default:
        throw KeyExchangeException(KeyExchangeError::invalidAEAD);
    }
}

// Bytes encrypted or decoded per step of the streaming paths: a multiple of three (whole base64
// groups) that stays in the first level of the cache with its text.
constexpr std::size_t kPieceBytes = 3 * 4096;
constexpr std::size_t kPieceChars = kPieceBytes / 3 * 4;

} // namespace

namespace detail {

void sealBase64Into(KeyExchangeAEAD aead, const SymmetricKey &key,
                    std::span<const std::uint8_t> message, std::span<const std::uint8_t> nonce,
                    std::span<const std::uint8_t> additionalData, char *out) {
    // The checks in the order AESGCMEncrypt / ChaChaPolyEncrypt make them.
    if (aead != KeyExchangeAEAD::aesgcm && aead != KeyExchangeAEAD::chachapoly) {
        throw KeyExchangeException(KeyExchangeError::invalidAEAD);
    }
    if (nonce.size() != kAEADNonceSize) {
        throw CryptoError(Kind::incorrectParameterSize,
                          aead == KeyExchangeAEAD::aesgcm
                              ? "AES-GCM nonce must be 12 bytes"
                              : "ChaCha20-Poly1305 nonce must be 12 bytes");
    }
    const Cipher cipher = cipherFor(aead, key);
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx || EVP_EncryptInit_ex2(ctx.get(), cipherAlgorithm(cipher), key.bytes().data(),
                                    nonce.data(), nullptr) != 1) {
        throwCrypto(Kind::underlying, "AEAD setup failed");
    }
    updateAAD(ctx.get(), additionalData, true);
    // The box (nonce || ciphertext || tag) passes through `piece` and leaves as base64 in whole
    // groups; the one or two bytes of an incomplete group wait at the piece's start.
    std::uint8_t piece[kPieceBytes + kAEADTagSize];
    std::copy(nonce.begin(), nonce.end(), piece);
    std::size_t filled = nonce.size();
    const auto emit = [&] {
        const std::size_t whole = filled / 3 * 3;
        base64EncodeInto(std::span(piece, whole), out);
        out += whole / 3 * 4;
        std::copy(piece + whole, piece + filled, piece);
        filled -= whole;
    };
    while (!message.empty()) {
        const std::size_t take = std::min(message.size(), kPieceBytes - filled);
        if (updateData(ctx.get(), message.first(take), piece + filled, true) != take) {
            throwCrypto(Kind::underlying, "AEAD update failed");
        }
        filled += take;
        message = message.subspan(take);
        emit();
    }
    int finalWritten = 0;
    if (EVP_EncryptFinal_ex(ctx.get(), piece + filled, &finalWritten) != 1 || finalWritten != 0) {
        throwCrypto(Kind::underlying, "AEAD sealing failed");
    }
    if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(kAEADTagSize),
                            piece + filled) != 1) {
        throwCrypto(Kind::underlying, "AEAD tag failed");
    }
    filled += kAEADTagSize;
    base64EncodeInto(std::span(piece, filled), out);
    OPENSSL_cleanse(piece, sizeof piece);
}

void openBase64Into(KeyExchangeAEAD aead, const SymmetricKey &key, std::string_view box,
                    std::span<const std::uint8_t> additionalData, std::string &plaintext) {
    if (aead != KeyExchangeAEAD::aesgcm && aead != KeyExchangeAEAD::chachapoly) {
        throw KeyExchangeException(KeyExchangeError::invalidAEAD);
    }
    const std::optional<std::size_t> total = base64DecodedSize(box);
    if (!total) {
        throw KeyExchangeException(KeyExchangeError::invalidFormat);
    }
    if (box.size() <= kPieceChars) {
        // Small boxes take the plain path, which decodes the whole text before anything else.
        const Bytes combined = decodeReceived(box);
        const Bytes opened = aead == KeyExchangeAEAD::aesgcm
                                 ? AESGCMDecrypt(key, combined, additionalData)
                                 : ChaChaPolyDecrypt(key, combined, additionalData);
        plaintext.assign(opened.begin(), opened.end());
        return;
    }
    const Cipher cipher = cipherFor(aead, key);
    const std::size_t bodyEnd = *total - kAEADTagSize;
    plaintext.resize(bodyEnd - kAEADNonceSize);
    auto *const plain = reinterpret_cast<std::uint8_t *>(plaintext.data());
    std::uint8_t tag[kAEADTagSize];
    std::uint8_t piece[kPieceBytes];
    CipherCtxPtr ctx;
    const auto refuse = [&](auto error) {
        OPENSSL_cleanse(piece, sizeof piece);
        OPENSSL_cleanse(plaintext.data(), plaintext.size());
        plaintext.clear();
        ERR_clear_error();
        throw error;
    };
    // Decoded in pieces: bytes [0, 12) are the nonce, [12, bodyEnd) the ciphertext and the rest
    // the tag. A character outside the alphabet anywhere refuses the box before its tag is
    // judged, as when the whole text is decoded first.
    std::size_t at = 0; // decoded bytes so far
    while (!box.empty()) {
        const std::string_view text = box.substr(0, kPieceChars);
        box.remove_prefix(text.size());
        // Padding may only end the whole text.
        if (!box.empty() && text.back() == '=') {
            refuse(KeyExchangeException(KeyExchangeError::invalidFormat));
        }
        const std::size_t count = *base64DecodedSize(text);
        if (!base64DecodeInto(text, piece)) {
            refuse(KeyExchangeException(KeyExchangeError::invalidFormat));
        }
        std::size_t from = 0;
        if (at == 0) {
            ctx.reset(EVP_CIPHER_CTX_new());
            if (!ctx || EVP_DecryptInit_ex2(ctx.get(), cipherAlgorithm(cipher), key.bytes().data(),
                                            piece, nullptr) != 1) {
                throwCrypto(Kind::underlying, "AEAD setup failed");
            }
            updateAAD(ctx.get(), additionalData, false);
            from = kAEADNonceSize;
        }
        const std::size_t end = at + count;
        const std::size_t bodyTo = std::min(end, bodyEnd);
        if (at + from < bodyTo) {
            const std::size_t length = bodyTo - (at + from);
            if (updateData(ctx.get(), std::span<const std::uint8_t>(piece + from, length),
                           plain + (at + from - kAEADNonceSize), false) != length) {
                throwCrypto(Kind::underlying, "AEAD update failed");
            }
        }
        for (std::size_t i = std::max(at, bodyEnd); i < end; ++i) {
            tag[i - bodyEnd] = piece[i - at];
        }
        at = end;
    }
    int finalWritten = 0;
    if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(kAEADTagSize),
                            tag) != 1) {
        throwCrypto(Kind::underlying, "AEAD tag failed");
    }
    if (EVP_DecryptFinal_ex(ctx.get(), plain + plaintext.size(), &finalWritten) != 1 ||
        finalWritten != 0) {
        refuse(CryptoError(Kind::authenticationFailure, "authentication failed"));
    }
    OPENSSL_cleanse(piece, sizeof piece);
}

} // namespace detail

Bytes AEADRandomNonce(KeyExchangeAEAD aead) {
    if (aead != KeyExchangeAEAD::aesgcm && aead != KeyExchangeAEAD::chachapoly) {
        throw KeyExchangeException(KeyExchangeError::invalidAEAD);
    }
    return KeyExchangeRandomBytes(kAEADNonceSize);
}

Bytes AEADRandomKey(KeyExchangeAEAD aead) {
    if (aead != KeyExchangeAEAD::aesgcm && aead != KeyExchangeAEAD::chachapoly) {
        throw KeyExchangeException(KeyExchangeError::invalidAEAD);
    }
    return KeyExchangeRandomBytes(32);
}

std::string AEADEncrypt(KeyExchangeAEAD aead, const SymmetricKey &key,
                        std::span<const std::uint8_t> plaintext,
                        std::span<const std::uint8_t> aeadNonce,
                        std::span<const std::uint8_t> additionalData) {
    switch (aead) {
    case KeyExchangeAEAD::aesgcm:
        return base64Encode(AESGCMEncrypt(key, plaintext, aeadNonce, additionalData));
    case KeyExchangeAEAD::chachapoly:
        return base64Encode(ChaChaPolyEncrypt(key, plaintext, aeadNonce, additionalData));
    default:
        throw KeyExchangeException(KeyExchangeError::invalidAEAD);
    }
}

Bytes AEADDecrypt(KeyExchangeAEAD aead, const SymmetricKey &key, const std::string &ciphertext,
                  const std::string & /*aeadNonce: the box carries its own nonce*/,
                  const std::string &additionalData) {
    if (aead != KeyExchangeAEAD::aesgcm && aead != KeyExchangeAEAD::chachapoly) {
        throw KeyExchangeException(KeyExchangeError::invalidAEAD);
    }
    const Bytes combined = detail::decodeReceived(ciphertext);
    const Bytes aad = detail::decodeReceived(additionalData);
    return aead == KeyExchangeAEAD::aesgcm ? AESGCMDecrypt(key, combined, aad)
                                           : ChaChaPolyDecrypt(key, combined, aad);
}

Bytes AESGCMEncrypt(const SymmetricKey &key, std::span<const std::uint8_t> message,
                    std::span<const std::uint8_t> nonce,
                    std::span<const std::uint8_t> additionalData) {
    if (nonce.size() != kAEADNonceSize) {
        throw CryptoError(Kind::incorrectParameterSize, "AES-GCM nonce must be 12 bytes");
    }
    return seal(aesCipherForKey(key), key, message, nonce, additionalData);
}

Bytes AESGCMDecrypt(const SymmetricKey &key, std::span<const std::uint8_t> combined,
                    std::span<const std::uint8_t> additionalData) {
    if (combined.size() < kAEADNonceSize + kAEADTagSize) {
        throw CryptoError(Kind::authenticationFailure, "sealed box too short");
    }
    return open(aesCipherForKey(key), key, combined, additionalData);
}

Bytes ChaChaPolyEncrypt(const SymmetricKey &key, std::span<const std::uint8_t> message,
                        std::span<const std::uint8_t> nonce,
                        std::span<const std::uint8_t> additionalData) {
    if (nonce.size() != kAEADNonceSize) {
        throw CryptoError(Kind::incorrectParameterSize, "ChaCha20-Poly1305 nonce must be 12 bytes");
    }
    return seal(chachaCipherForKey(key), key, message, nonce, additionalData);
}

Bytes ChaChaPolyDecrypt(const SymmetricKey &key, std::span<const std::uint8_t> combined,
                        std::span<const std::uint8_t> additionalData) {
    if (combined.size() < kAEADNonceSize + kAEADTagSize) {
        throw CryptoError(Kind::authenticationFailure, "sealed box too short");
    }
    return open(chachaCipherForKey(key), key, combined, additionalData);
}

} // namespace lumacrypt
