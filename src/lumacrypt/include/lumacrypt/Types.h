// Basic types of the sealed-channel library: byte buffers, configuration enumerations, errors and
// the two secret-holding value types (raw agreement output and derived symmetric key).
#pragma once

#include <Models.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace lumacrypt {

using Bytes = std::vector<std::uint8_t>;

// One-byte tags; the numeric values are stable (declaration order starting at 0).
enum class KeyExchangeCurve : std::uint8_t { unknown, curve25519, p256, p384, p521 };
enum class KeyExchangeKDF : std::uint8_t { unknown, hkdf };
enum class KeyExchangeAEAD : std::uint8_t { unknown, aesgcm, chachapoly };
enum class HashFunction : std::uint8_t { sha256, sha384, sha512 };

// Digest length in bytes of a hash function (32, 48 or 64).
std::size_t digestLength(HashFunction) noexcept;

enum class KeyExchangeError : std::uint8_t {
    invalidKey,
    invalidFormat,
    invalidCurve,
    invalidKDF,
    invalidAEAD,
    invalidAdditionalData,
    publicKeyNotSet,
    emptyPublicKey,
    invalidAdditionalDataEncoding
};

enum class PEMError : std::uint8_t { doesNotExist };

// The case name, e.g. "invalidKey".
const char *toString(KeyExchangeError) noexcept;
const char *toString(PEMError) noexcept;

// The library's own payload-less error.
class KeyExchangeException : public std::exception {
public:
    explicit KeyExchangeException(KeyExchangeError error) noexcept : error_(error) {}
    KeyExchangeError error() const noexcept { return error_; }
    const char *what() const noexcept override { return toString(error_); }

private:
    KeyExchangeError error_;
};

class PEMException : public std::exception {
public:
    explicit PEMException(PEMError error) noexcept : error_(error) {}
    PEMError error() const noexcept { return error_; }
    const char *what() const noexcept override { return toString(error_); }

private:
    PEMError error_;
};

// Failures of the cryptographic primitives themselves: a key or parameter of a length the
// primitive does not take, a public point that is not on its curve (or a low-order X25519 point
// giving an all-zero secret), an authentication failure when opening, or an internal failure.
class CryptoError : public std::runtime_error {
public:
    enum class Kind {
        incorrectKeySize,
        incorrectParameterSize,
        invalidPoint,
        authenticationFailure,
        underlying
    };
    CryptoError(Kind kind, const std::string &message) : std::runtime_error(message), kind_(kind) {}
    Kind kind() const noexcept { return kind_; }

private:
    Kind kind_;
};

const char *toString(CryptoError::Kind) noexcept;

// JSON text that is not the expected record (not JSON, a missing key, a value of the wrong type):
// the wire records' decoding error, so that the client has one.
using DecodingError = tarnwick::DecodingError;

// A byte buffer that is wiped (OPENSSL_cleanse) when it is dropped or overwritten.
class SecretBytes {
public:
    SecretBytes() = default;
    explicit SecretBytes(std::span<const std::uint8_t> bytes);
    explicit SecretBytes(Bytes &&bytes) noexcept;
    SecretBytes(const SecretBytes &);
    SecretBytes(SecretBytes &&) noexcept;
    SecretBytes &operator=(const SecretBytes &);
    SecretBytes &operator=(SecretBytes &&) noexcept;
    ~SecretBytes();

    std::span<const std::uint8_t> bytes() const noexcept { return bytes_; }
    // Writable view, for filling a buffer created with its final size.
    std::span<std::uint8_t> mutableBytes() noexcept { return bytes_; }
    Bytes data() const { return bytes_; }
    std::size_t size() const noexcept { return bytes_.size(); }
    bool empty() const noexcept { return bytes_.empty(); }
    void clear() noexcept;
    friend bool operator==(const SecretBytes &a, const SecretBytes &b) noexcept;

private:
    Bytes bytes_;
};

// The raw output of a key agreement (X25519 or ECDH x-coordinate).
class AgreedSecret {
public:
    AgreedSecret() = default;
    explicit AgreedSecret(SecretBytes bytes) noexcept : bytes_(std::move(bytes)) {}
    Bytes data() const { return bytes_.data(); }
    std::span<const std::uint8_t> bytes() const noexcept { return bytes_.bytes(); }
    std::size_t size() const noexcept { return bytes_.size(); }
    friend bool operator==(const AgreedSecret &, const AgreedSecret &) = default;

private:
    SecretBytes bytes_;
};

// A symmetric key (derived per message, or supplied directly to the AEAD functions).
class SymmetricKey {
public:
    SymmetricKey() = default;
    explicit SymmetricKey(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
    explicit SymmetricKey(SecretBytes bytes) noexcept : bytes_(std::move(bytes)) {}
    Bytes data() const { return bytes_.data(); }
    std::span<const std::uint8_t> bytes() const noexcept { return bytes_.bytes(); }
    std::size_t size() const noexcept { return bytes_.size(); }
    friend bool operator==(const SymmetricKey &, const SymmetricKey &) = default;

private:
    SecretBytes bytes_;
};

} // namespace lumacrypt
