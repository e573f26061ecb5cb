#include "lumacrypt/Types.h"

#include <openssl/crypto.h>

namespace lumacrypt {

std::size_t digestLength(HashFunction hash) noexcept {
    switch (hash) {
    case HashFunction::sha256:
        return 32;
    case HashFunction::sha384:
        return 48;
    case HashFunction::sha512:
        return 64;
    }
    return 0;
}

const char *toString(KeyExchangeError error) noexcept {
    switch (error) {
    case KeyExchangeError::invalidKey:
        return "invalidKey";
    case KeyExchangeError::invalidFormat:
        return "invalidFormat";
    case KeyExchangeError::invalidCurve:
        return "invalidCurve";
    case KeyExchangeError::invalidKDF:
        return "invalidKDF";
    case KeyExchangeError::invalidAEAD:
        return "invalidAEAD";
    case KeyExchangeError::invalidAdditionalData:
        return "invalidAdditionalData";
    case KeyExchangeError::publicKeyNotSet:
        return "publicKeyNotSet";
    case KeyExchangeError::emptyPublicKey:
        return "emptyPublicKey";
    case KeyExchangeError::invalidAdditionalDataEncoding:
        return "invalidAdditionalDataEncoding";
    }
    return "unknown";
}

const char *toString(PEMError error) noexcept {
    switch (error) {
    case PEMError::doesNotExist:
        return "doesNotExist";
    }
    return "unknown";
}

const char *toString(CryptoError::Kind kind) noexcept {
    switch (kind) {
    case CryptoError::Kind::incorrectKeySize:
        return "incorrectKeySize";
    case CryptoError::Kind::incorrectParameterSize:
        return "incorrectParameterSize";
    case CryptoError::Kind::invalidPoint:
        return "invalidPoint";
    case CryptoError::Kind::authenticationFailure:
        return "authenticationFailure";
    case CryptoError::Kind::underlying:
        return "underlying";
    }
    return "unknown";
}

SecretBytes::SecretBytes(std::span<const std::uint8_t> bytes)
    : bytes_(bytes.begin(), bytes.end()) {}

SecretBytes::SecretBytes(Bytes &&bytes) noexcept : bytes_(std::move(bytes)) {}

SecretBytes::SecretBytes(const SecretBytes &other) : bytes_(other.bytes_) {}

SecretBytes::SecretBytes(SecretBytes &&other) noexcept : bytes_(std::move(other.bytes_)) {
    other.bytes_.clear();
}

SecretBytes &SecretBytes::operator=(const SecretBytes &other) {
    if (this != &other) {
        Bytes copy(other.bytes_);
        clear();
        bytes_ = std::move(copy);
    }
    return *this;
}

SecretBytes &SecretBytes::operator=(SecretBytes &&other) noexcept {
    if (this != &other) {
        clear();
        bytes_ = std::move(other.bytes_);
        other.bytes_.clear();
    }
    return *this;
}

SecretBytes::~SecretBytes() {
    clear();
}

void SecretBytes::clear() noexcept {
    if (!bytes_.empty()) {
        OPENSSL_cleanse(bytes_.data(), bytes_.size());
    }
    bytes_.clear();
}

bool operator==(const SecretBytes &a, const SecretBytes &b) noexcept {
    return a.bytes_.size() == b.bytes_.size() &&
           (a.bytes_.empty() ||
            CRYPTO_memcmp(a.bytes_.data(), b.bytes_.data(), a.bytes_.size()) == 0);
}

} // namespace lumacrypt
