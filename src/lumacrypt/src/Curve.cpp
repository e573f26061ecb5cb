#include "lumacrypt/Curve.h"

#include "Internal.h"
#include "lumacrypt/Base64.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>
#include <openssl/params.h>

#include <array>

namespace lumacrypt {

using detail::PKeyCtxPtr;
using detail::PKeyPtr;
using detail::throwCrypto;
using Kind = CryptoError::Kind;

namespace {

struct NistCurve {
    const char *groupName; // OpenSSL group name
    int nid;
    std::size_t fieldSize; // bytes of one coordinate / of the private scalar
};

const NistCurve *nistCurve(KeyExchangeCurve curve) noexcept {
    static const NistCurve p256{"P-256", NID_X9_62_prime256v1, 32};
    static const NistCurve p384{"P-384", NID_secp384r1, 48};
    static const NistCurve p521{"P-521", NID_secp521r1, 66};
    switch (curve) {
    case KeyExchangeCurve::p256:
        return &p256;
    case KeyExchangeCurve::p384:
        return &p384;
    case KeyExchangeCurve::p521:
        return &p521;
    default:
        return nullptr;
    }
}

constexpr std::size_t kX25519KeySize = 32;

struct BNDeleter {
    void operator()(BIGNUM *p) const noexcept { BN_clear_free(p); }
};
struct GroupDeleter {
    void operator()(EC_GROUP *p) const noexcept { EC_GROUP_free(p); }
};
struct PointDeleter {
    void operator()(EC_POINT *p) const noexcept { EC_POINT_free(p); }
};
struct BNCtxDeleter {
    void operator()(BN_CTX *p) const noexcept { BN_CTX_free(p); }
};
using BNPtr = std::unique_ptr<BIGNUM, BNDeleter>;

[[noreturn]] void throwInvalidCurve() {
    throw KeyExchangeException(KeyExchangeError::invalidCurve);
}

// Step 2 of decoding a key string: strict base64, failure is invalidKey.
Bytes decodeKeyString(const std::string &text) {
    std::optional<Bytes> bytes = base64Decode(text);
    if (!bytes) {
        throw KeyExchangeException(KeyExchangeError::invalidKey);
    }
    return std::move(*bytes);
}

PrivateKey generateX25519() {
    EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519");
    if (key == nullptr) {
        throwCrypto(Kind::underlying, "X25519 key generation failed");
    }
    return PrivateKey(KeyExchangeCurve::curve25519, key);
}

PrivateKey generateNist(KeyExchangeCurve curve) {
    const NistCurve *info = nistCurve(curve);
    EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", info->groupName);
    if (key == nullptr) {
        throwCrypto(Kind::underlying, "EC key generation failed");
    }
    return PrivateKey(curve, key);
}

PrivateKey x25519PrivateFromRaw(std::span<const std::uint8_t> raw) {
    if (raw.size() != kX25519KeySize) {
        throw CryptoError(Kind::incorrectKeySize, "X25519 private key must be 32 bytes");
    }
    EVP_PKEY *key =
        EVP_PKEY_new_raw_private_key_ex(nullptr, "X25519", nullptr, raw.data(), raw.size());
    if (key == nullptr) {
        throwCrypto(Kind::underlying, "X25519 private key rejected");
    }
    return PrivateKey(KeyExchangeCurve::curve25519, key);
}

PublicKey x25519PublicFromRaw(std::span<const std::uint8_t> raw) {
    if (raw.size() != kX25519KeySize) {
        throw CryptoError(Kind::incorrectKeySize, "X25519 public key must be 32 bytes");
    }
    EVP_PKEY *key =
        EVP_PKEY_new_raw_public_key_ex(nullptr, "X25519", nullptr, raw.data(), raw.size());
    if (key == nullptr) {
        throwCrypto(Kind::underlying, "X25519 public key rejected");
    }
    return PublicKey(KeyExchangeCurve::curve25519, key);
}

// A NIST private key from its raw scalar: the scalar must lie in [1, n-1]; the public point is
// computed here so that the key can be exported again with its public half.
PrivateKey nistPrivateFromRaw(KeyExchangeCurve curve, std::span<const std::uint8_t> raw) {
    const NistCurve *info = nistCurve(curve);
    if (raw.size() != info->fieldSize) {
        throw CryptoError(Kind::incorrectKeySize, "EC private key has the wrong length");
    }
    std::unique_ptr<EC_GROUP, GroupDeleter> group(EC_GROUP_new_by_curve_name(info->nid));
    std::unique_ptr<BN_CTX, BNCtxDeleter> bnctx(BN_CTX_secure_new());
    BNPtr scalar(BN_secure_new());
    if (!group || !bnctx || !scalar ||
        BN_bin2bn(raw.data(), static_cast<int>(raw.size()), scalar.get()) == nullptr) {
        throwCrypto(Kind::underlying, "EC private key setup failed");
    }
    if (BN_is_zero(scalar.get()) || BN_cmp(scalar.get(), EC_GROUP_get0_order(group.get())) >= 0) {
        throw CryptoError(Kind::underlying, "EC private scalar out of range");
    }
    std::unique_ptr<EC_POINT, PointDeleter> point(EC_POINT_new(group.get()));
    if (!point ||
        EC_POINT_mul(group.get(), point.get(), scalar.get(), nullptr, nullptr, bnctx.get()) != 1) {
        throwCrypto(Kind::underlying, "EC public point computation failed");
    }
    std::array<unsigned char, 1 + 2 * 66> encoded{};
    const std::size_t encodedSize =
        EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, encoded.data(),
                           encoded.size(), bnctx.get());
    if (encodedSize != 1 + 2 * info->fieldSize) {
        throwCrypto(Kind::underlying, "EC public point encoding failed");
    }

    // The scalar travels as a native-endian unsigned integer parameter.
    SecretBytes native(Bytes(info->fieldSize, 0));
    if (BN_bn2nativepad(scalar.get(), native.mutableBytes().data(),
                        static_cast<int>(native.size())) < 0) {
        throwCrypto(Kind::underlying, "EC private key export failed");
    }
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME,
                                         const_cast<char *>(info->groupName), 0),
        OSSL_PARAM_construct_BN(OSSL_PKEY_PARAM_PRIV_KEY, native.mutableBytes().data(),
                                native.size()),
        OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, encoded.data(), encodedSize),
        OSSL_PARAM_construct_end()};
    PKeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY *key = nullptr;
    if (!ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_KEYPAIR, params) != 1) {
        throwCrypto(Kind::underlying, "EC private key import failed");
    }
    return PrivateKey(curve, key);
}

// A NIST public key from x || y. The point must be on the curve.
PublicKey nistPublicFromRaw(KeyExchangeCurve curve, std::span<const std::uint8_t> raw) {
    const NistCurve *info = nistCurve(curve);
    if (raw.size() != 2 * info->fieldSize) {
        throw CryptoError(Kind::incorrectKeySize, "EC public key has the wrong length");
    }
    std::array<unsigned char, 1 + 2 * 66> encoded{};
    encoded[0] = 0x04;
    std::copy(raw.begin(), raw.end(), encoded.begin() + 1);
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME,
                                         const_cast<char *>(info->groupName), 0),
        OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, encoded.data(), raw.size() + 1),
        OSSL_PARAM_construct_end()};
    PKeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    if (!ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1) {
        throwCrypto(Kind::underlying, "EC context setup failed");
    }
    EVP_PKEY *raw_key = nullptr;
    if (EVP_PKEY_fromdata(ctx.get(), &raw_key, EVP_PKEY_PUBLIC_KEY, params) != 1) {
        throwCrypto(Kind::invalidPoint, "EC public point is not on the curve");
    }
    PKeyPtr key(raw_key);
    PKeyCtxPtr check(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
    if (!check || EVP_PKEY_public_check_quick(check.get()) != 1) {
        throwCrypto(Kind::invalidPoint, "EC public point is not valid");
    }
    return PublicKey(curve, key.release());
}

PrivateKey privateFromRaw(KeyExchangeCurve curve, std::span<const std::uint8_t> raw) {
    if (curve == KeyExchangeCurve::curve25519) {
        return x25519PrivateFromRaw(raw);
    }
    if (nistCurve(curve) != nullptr) {
        return nistPrivateFromRaw(curve, raw);
    }
    throwInvalidCurve();
}

PublicKey publicFromRaw(KeyExchangeCurve curve, std::span<const std::uint8_t> raw) {
    if (curve == KeyExchangeCurve::curve25519) {
        return x25519PublicFromRaw(raw);
    }
    if (nistCurve(curve) != nullptr) {
        return nistPublicFromRaw(curve, raw);
    }
    throwInvalidCurve();
}

PrivateKey generate(KeyExchangeCurve curve) {
    if (curve == KeyExchangeCurve::curve25519) {
        return generateX25519();
    }
    if (nistCurve(curve) != nullptr) {
        return generateNist(curve);
    }
    throwInvalidCurve();
}

PrivateKey decodePrivate(KeyExchangeCurve curve, const std::string &text) {
    if (text.empty()) {
        return generate(curve);
    }
    SecretBytes raw(decodeKeyString(text));
    return privateFromRaw(curve, raw.bytes());
}

PublicKey decodePublic(KeyExchangeCurve curve, const std::string &text) {
    if (text.empty()) {
        throw KeyExchangeException(KeyExchangeError::invalidKey);
    }
    const Bytes raw = decodeKeyString(text);
    return publicFromRaw(curve, raw);
}

Bytes nistPublicRaw(KeyExchangeCurve curve, EVP_PKEY *key) {
    const NistCurve *info = nistCurve(curve);
    std::array<unsigned char, 1 + 2 * 66> encoded{};
    std::size_t length = 0;
    if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, encoded.data(),
                                        encoded.size(), &length) != 1 ||
        length != 1 + 2 * info->fieldSize || encoded[0] != 0x04) {
        throwCrypto(Kind::underlying, "EC public key export failed");
    }
    return Bytes(encoded.begin() + 1, encoded.begin() + static_cast<std::ptrdiff_t>(length));
}

} // namespace

// ---- key objects --------------------------------------------------------------------------

namespace detail {

KeyHandle::KeyHandle(const KeyHandle &other) noexcept : key_(other.key_) {
    if (key_ != nullptr) {
        EVP_PKEY_up_ref(key_);
    }
}

KeyHandle::~KeyHandle() {
    EVP_PKEY_free(key_);
}

} // namespace detail

Bytes PublicKey::rawRepresentation() const {
    if (key_.get() == nullptr) {
        throw KeyExchangeException(KeyExchangeError::invalidKey);
    }
    if (curve_ == KeyExchangeCurve::curve25519) {
        Bytes raw(kX25519KeySize);
        std::size_t length = raw.size();
        if (EVP_PKEY_get_raw_public_key(key_.get(), raw.data(), &length) != 1 ||
            length != raw.size()) {
            throwCrypto(Kind::underlying, "X25519 public key export failed");
        }
        return raw;
    }
    return nistPublicRaw(curve_, key_.get());
}

SecretBytes PrivateKey::rawSecret() const {
    if (key_.get() == nullptr) {
        throw KeyExchangeException(KeyExchangeError::invalidKey);
    }
    if (curve_ == KeyExchangeCurve::curve25519) {
        SecretBytes raw(Bytes(kX25519KeySize, 0));
        std::size_t length = raw.size();
        if (EVP_PKEY_get_raw_private_key(key_.get(), raw.mutableBytes().data(), &length) != 1 ||
            length != raw.size()) {
            throwCrypto(Kind::underlying, "X25519 private key export failed");
        }
        return raw;
    }
    const NistCurve *info = nistCurve(curve_);
    if (info == nullptr) {
        throwInvalidCurve();
    }
    BIGNUM *scalar = nullptr;
    if (EVP_PKEY_get_bn_param(key_.get(), OSSL_PKEY_PARAM_PRIV_KEY, &scalar) != 1) {
        throwCrypto(Kind::underlying, "EC private key export failed");
    }
    BNPtr owned(scalar);
    SecretBytes raw(Bytes(info->fieldSize, 0));
    if (BN_bn2binpad(scalar, raw.mutableBytes().data(), static_cast<int>(raw.size())) < 0) {
        throwCrypto(Kind::underlying, "EC private key export failed");
    }
    return raw;
}

Bytes PrivateKey::rawRepresentation() const {
    return rawSecret().data();
}

PublicKey PrivateKey::publicKey() const {
    if (key_.get() == nullptr) {
        throw KeyExchangeException(KeyExchangeError::invalidKey);
    }
    if (curve_ == KeyExchangeCurve::curve25519) {
        std::array<std::uint8_t, kX25519KeySize> raw{};
        std::size_t length = raw.size();
        if (EVP_PKEY_get_raw_public_key(key_.get(), raw.data(), &length) != 1 ||
            length != raw.size()) {
            throwCrypto(Kind::underlying, "X25519 public key export failed");
        }
        return x25519PublicFromRaw(raw);
    }
    return nistPublicFromRaw(curve_, nistPublicRaw(curve_, key_.get()));
}

AgreedSecret PrivateKey::sharedSecretFromKeyAgreement(const PublicKey &publicKey) const {
    if (key_.get() == nullptr || publicKey.native() == nullptr) {
        throw KeyExchangeException(KeyExchangeError::invalidKey);
    }
    if (publicKey.curve() != curve_) {
        throw CryptoError(Kind::incorrectKeySize, "public key belongs to another curve");
    }
    PKeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key_.get(), nullptr));
    if (!ctx || EVP_PKEY_derive_init(ctx.get()) != 1) {
        throwCrypto(Kind::underlying, "key agreement setup failed");
    }
    // Public keys were validated when they were built (on-curve check for NIST points).
    if (EVP_PKEY_derive_set_peer_ex(ctx.get(), publicKey.native(), 0) != 1) {
        throwCrypto(Kind::invalidPoint, "peer public key rejected");
    }
    std::size_t length = 0;
    if (EVP_PKEY_derive(ctx.get(), nullptr, &length) != 1 || length == 0) {
        throwCrypto(Kind::underlying, "key agreement failed");
    }
    SecretBytes secret(Bytes(length, 0));
    std::uint8_t *out = secret.mutableBytes().data();
    if (EVP_PKEY_derive(ctx.get(), out, &length) != 1) {
        // For X25519 this is the all-zero result of a low-order peer point.
        throwCrypto(curve_ == KeyExchangeCurve::curve25519 ? Kind::invalidPoint : Kind::underlying,
                    curve_ == KeyExchangeCurve::curve25519
                        ? "X25519 key agreement gave an all-zero secret"
                        : "key agreement failed");
    }
    if (length != secret.size()) {
        SecretBytes trimmed(secret.bytes().first(length));
        return AgreedSecret(std::move(trimmed));
    }
    return AgreedSecret(std::move(secret));
}

Bytes PrivateKey::sharedSecretFromKeyAgreementData(const PublicKey &publicKey) const {
    return sharedSecretFromKeyAgreement(publicKey).data();
}

// ---- decoders -----------------------------------------------------------------------------

PrivateKey Curve25519PrivateStore() {
    return generateX25519();
}
PrivateKey Curve25519PrivateStore(const std::string &privateKey) {
    return decodePrivate(KeyExchangeCurve::curve25519, privateKey);
}
PrivateKey P256PrivateStore() {
    return generateNist(KeyExchangeCurve::p256);
}
PrivateKey P256PrivateStore(const std::string &privateKey) {
    return decodePrivate(KeyExchangeCurve::p256, privateKey);
}
PrivateKey P384PrivateStore() {
    return generateNist(KeyExchangeCurve::p384);
}
PrivateKey P384PrivateStore(const std::string &privateKey) {
    return decodePrivate(KeyExchangeCurve::p384, privateKey);
}
PrivateKey P521PrivateStore() {
    return generateNist(KeyExchangeCurve::p521);
}
PrivateKey P521PrivateStore(const std::string &privateKey) {
    return decodePrivate(KeyExchangeCurve::p521, privateKey);
}

PublicKey Curve25519PublicStore(const std::string &publicKey) {
    return decodePublic(KeyExchangeCurve::curve25519, publicKey);
}
PublicKey P256PublicStore(const std::string &publicKey) {
    return decodePublic(KeyExchangeCurve::p256, publicKey);
}
PublicKey P384PublicStore(const std::string &publicKey) {
    return decodePublic(KeyExchangeCurve::p384, publicKey);
}
PublicKey P521PublicStore(const std::string &publicKey) {
    return decodePublic(KeyExchangeCurve::p521, publicKey);
}

PrivateKey PrivateStore(KeyExchangeCurve curve, const std::string &privateKey) {
    if (curve != KeyExchangeCurve::curve25519 && nistCurve(curve) == nullptr) {
        throwInvalidCurve();
    }
    return decodePrivate(curve, privateKey);
}

PublicKey PublicStore(KeyExchangeCurve curve, const std::string &publicKey) {
    if (curve != KeyExchangeCurve::curve25519 && nistCurve(curve) == nullptr) {
        throwInvalidCurve();
    }
    return decodePublic(curve, publicKey);
}

std::size_t rawPrivateKeySize(KeyExchangeCurve curve) noexcept {
    if (curve == KeyExchangeCurve::curve25519) {
        return kX25519KeySize;
    }
    const NistCurve *info = nistCurve(curve);
    return info != nullptr ? info->fieldSize : 0;
}

std::size_t rawPublicKeySize(KeyExchangeCurve curve) noexcept {
    if (curve == KeyExchangeCurve::curve25519) {
        return kX25519KeySize;
    }
    const NistCurve *info = nistCurve(curve);
    return info != nullptr ? 2 * info->fieldSize : 0;
}

KeyExchangeLocalKeys KeyExchangeCurveKeys(KeyExchangeCurve curve, const std::string &privateKey) {
    const PrivateKey key = PrivateStore(curve, privateKey);
    const SecretBytes raw = key.rawSecret();
    return KeyExchangeLocalKeys{base64Encode(raw.bytes()),
                                base64Encode(key.publicKey().rawRepresentation())};
}

AgreedSecret CreateSharedSecret(KeyExchangeCurve curve, const std::string &privateKey,
                                const std::string &publicKey) {
    const PrivateKey own = PrivateStore(curve, privateKey);
    const PublicKey peer = PublicStore(curve, publicKey);
    return own.sharedSecretFromKeyAgreement(peer);
}

} // namespace lumacrypt
