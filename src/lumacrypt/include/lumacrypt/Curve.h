// Key pairs and key agreement over X25519 and NIST P-256 / P-384 / P-521.
//
// Raw representations: X25519 keys are 32 bytes (private and public). For the NIST curves the
// private key is the big-endian scalar padded to the field size (32 / 48 / 66 bytes) and the public
// key is x || y without the 0x04 prefix (64 / 96 / 132 bytes). Key strings are the standard base64
// of these raw forms.
#pragma once

#include "lumacrypt/Types.h"

#include <openssl/types.h>

#include <string>

namespace lumacrypt {

namespace detail {
// One counted reference to an OpenSSL key: copies share the key, moves hand
// the reference over, and the last one frees it.
class KeyHandle {
public:
    KeyHandle() noexcept = default;
    // Takes ownership of one reference to `key`.
    explicit KeyHandle(EVP_PKEY *key) noexcept : key_(key) {}
    KeyHandle(const KeyHandle &other) noexcept;
    KeyHandle(KeyHandle &&other) noexcept : key_(other.key_) { other.key_ = nullptr; }
    KeyHandle &operator=(KeyHandle other) noexcept {
        EVP_PKEY *mine = key_;
        key_ = other.key_;
        other.key_ = mine;
        return *this;
    }
    ~KeyHandle();

    EVP_PKEY *get() const noexcept { return key_; }

private:
    EVP_PKEY *key_ = nullptr;
};
} // namespace detail

class PublicKey {
public:
    PublicKey() noexcept = default;
    // Takes ownership of one reference to `key`.
    PublicKey(KeyExchangeCurve curve, EVP_PKEY *key) noexcept : curve_(curve), key_(key) {}

    KeyExchangeCurve curve() const noexcept { return curve_; }
    Bytes rawRepresentation() const;
    EVP_PKEY *native() const noexcept { return key_.get(); }

private:
    KeyExchangeCurve curve_ = KeyExchangeCurve::unknown;
    detail::KeyHandle key_;
};

class PrivateKey {
public:
    PrivateKey() noexcept = default;
    // Takes ownership of one reference to `key`.
    PrivateKey(KeyExchangeCurve curve, EVP_PKEY *key) noexcept : curve_(curve), key_(key) {}

    KeyExchangeCurve curve() const noexcept { return curve_; }
    // The raw private key (secret: wipe it when done, or use rawSecret()).
    Bytes rawRepresentation() const;
    SecretBytes rawSecret() const;
    PublicKey publicKey() const;
    // X25519 or ECDH with `publicKey`, which must be of the same curve. Throws CryptoError
    // (invalidPoint for an all-zero X25519 result, incorrectKeySize for a curve mismatch).
    Bytes sharedSecretFromKeyAgreementData(const PublicKey &publicKey) const;
    AgreedSecret sharedSecretFromKeyAgreement(const PublicKey &publicKey) const;
    EVP_PKEY *native() const noexcept { return key_.get(); }

private:
    KeyExchangeCurve curve_ = KeyExchangeCurve::unknown;
    detail::KeyHandle key_;
};

// Private-key decoders: without argument a new random key; with a string: the empty string gives
// a new random key, text that is not base64 throws KeyExchangeException(invalidKey), and raw
// bytes that are not a key of the curve throw CryptoError.
PrivateKey Curve25519PrivateStore();
PrivateKey Curve25519PrivateStore(const std::string &privateKey);
PrivateKey P256PrivateStore();
PrivateKey P256PrivateStore(const std::string &privateKey);
PrivateKey P384PrivateStore();
PrivateKey P384PrivateStore(const std::string &privateKey);
PrivateKey P521PrivateStore();
PrivateKey P521PrivateStore(const std::string &privateKey);

// Public-key decoders: the empty string or text that is not base64 throws
// KeyExchangeException(invalidKey); a wrong length throws CryptoError(incorrectKeySize); a NIST
// point that is not on the curve throws CryptoError(invalidPoint).
PublicKey Curve25519PublicStore(const std::string &publicKey);
PublicKey P256PublicStore(const std::string &publicKey);
PublicKey P384PublicStore(const std::string &publicKey);
PublicKey P521PublicStore(const std::string &publicKey);

// By curve (unknown throws invalidCurve).
PrivateKey PrivateStore(KeyExchangeCurve curve, const std::string &privateKey);
PublicKey PublicStore(KeyExchangeCurve curve, const std::string &publicKey);

// Raw sizes of a curve's keys in bytes (0 for unknown).
std::size_t rawPrivateKeySize(KeyExchangeCurve) noexcept;
std::size_t rawPublicKeySize(KeyExchangeCurve) noexcept;

struct KeyExchangeLocalKeys {
    std::string privateKey;
    std::string publicKey;
};

// The base64 private and public key of `privateKey` (an empty string generates a new key pair).
KeyExchangeLocalKeys KeyExchangeCurveKeys(KeyExchangeCurve curve, const std::string &privateKey);

// The raw key agreement of the two base64 keys on `curve`.
AgreedSecret CreateSharedSecret(KeyExchangeCurve curve, const std::string &privateKey,
                                const std::string &publicKey);

} // namespace lumacrypt
