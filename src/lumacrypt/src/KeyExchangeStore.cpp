#include "lumacrypt/KeyExchangeStore.h"

#include "Internal.h"
#include "lumacrypt/AEAD.h"
#include "lumacrypt/Base64.h"

#include <nlohmann/json.hpp>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <algorithm>
#include <cstdlib>
#include <initializer_list>

namespace lumacrypt {

using detail::throwCrypto;
using Kind = CryptoError::Kind;

// ---- HKDF ---------------------------------------------------------------------------------

namespace {

// OpenSSL's HKDF keeps the info in a buffer of at most this many bytes; longer additional data is
// derived with HMAC directly (same construction, RFC 5869).
constexpr std::size_t kKDFInfoLimit = 32 * 1024;

const char *digestName(HashFunction hash) noexcept {
    switch (hash) {
    case HashFunction::sha256:
        return "SHA256";
    case HashFunction::sha384:
        return "SHA384";
    case HashFunction::sha512:
        return "SHA512";
    }
    return "SHA256";
}

// Fetched once; algorithm objects are immutable and safe to share between threads.
EVP_KDF *hkdfAlgorithm() {
    static EVP_KDF *const kdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr);
    if (kdf == nullptr) {
        throwCrypto(Kind::underlying, "HKDF is not available");
    }
    return kdf;
}

EVP_MAC *hmacAlgorithm() {
    static EVP_MAC *const mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    if (mac == nullptr) {
        throwCrypto(Kind::underlying, "HMAC is not available");
    }
    return mac;
}

struct KdfCtxDeleter {
    void operator()(EVP_KDF_CTX *p) const noexcept { EVP_KDF_CTX_free(p); }
};
struct MacCtxDeleter {
    void operator()(EVP_MAC_CTX *p) const noexcept { EVP_MAC_CTX_free(p); }
};

// OSSL_PARAM wants a non-const pointer even for input; an empty span still needs a valid address.
void *paramData(std::span<const std::uint8_t> bytes) noexcept {
    static std::uint8_t empty = 0;
    return bytes.empty() ? &empty : const_cast<std::uint8_t *>(bytes.data());
}

void hmac(HashFunction hash, std::span<const std::uint8_t> key,
          std::initializer_list<std::span<const std::uint8_t>> parts, std::span<std::uint8_t> out) {
    std::unique_ptr<EVP_MAC_CTX, MacCtxDeleter> ctx(EVP_MAC_CTX_new(hmacAlgorithm()));
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(
                               OSSL_MAC_PARAM_DIGEST, const_cast<char *>(digestName(hash)), 0),
                           OSSL_PARAM_construct_end()};
    if (!ctx || EVP_MAC_init(ctx.get(), key.data(), key.size(), params) != 1) {
        throwCrypto(Kind::underlying, "HMAC setup failed");
    }
    for (const auto &part : parts) {
        if (!part.empty() && EVP_MAC_update(ctx.get(), part.data(), part.size()) != 1) {
            throwCrypto(Kind::underlying, "HMAC failed");
        }
    }
    std::size_t length = 0;
    if (EVP_MAC_final(ctx.get(), out.data(), &length, out.size()) != 1 || length != out.size()) {
        throwCrypto(Kind::underlying, "HMAC failed");
    }
}

void hkdfWithHMAC(HashFunction hash, std::span<const std::uint8_t> ikm,
                  std::span<const std::uint8_t> salt, std::span<const std::uint8_t> info,
                  std::span<std::uint8_t> out) {
    const std::size_t hashLength = digestLength(hash);
    SecretBytes prk(Bytes(hashLength, 0));
    // An absent salt is a string of hash-length zeros.
    const Bytes zeros(hashLength, 0);
    hmac(hash, salt.empty() ? std::span<const std::uint8_t>(zeros) : salt, {ikm},
         prk.mutableBytes());
    SecretBytes block(Bytes(hashLength, 0));
    std::size_t produced = 0;
    for (std::uint8_t counter = 1; produced < out.size(); ++counter) {
        const std::uint8_t counterByte[1] = {counter};
        const std::span<const std::uint8_t> previous =
            counter == 1 ? std::span<const std::uint8_t>() : block.bytes();
        SecretBytes next(Bytes(hashLength, 0));
        hmac(hash, prk.bytes(), {previous, info, counterByte}, next.mutableBytes());
        block = std::move(next);
        const std::size_t take = std::min(hashLength, out.size() - produced);
        std::copy_n(block.bytes().begin(), take,
                    out.begin() + static_cast<std::ptrdiff_t>(produced));
        produced += take;
    }
}

} // namespace

SecretBytes HKDFDerive(HashFunction hash, std::span<const std::uint8_t> inputKeyMaterial,
                       std::span<const std::uint8_t> salt, std::span<const std::uint8_t> info,
                       std::size_t outputLength) {
    if (outputLength > 255 * digestLength(hash)) {
        throw CryptoError(Kind::incorrectParameterSize, "HKDF output too long");
    }
    SecretBytes out(Bytes(outputLength, 0));
    if (outputLength == 0) {
        return out;
    }
    if (info.size() > kKDFInfoLimit) {
        hkdfWithHMAC(hash, inputKeyMaterial, salt, info, out.mutableBytes());
        return out;
    }
    std::unique_ptr<EVP_KDF_CTX, KdfCtxDeleter> ctx(EVP_KDF_CTX_new(hkdfAlgorithm()));
    if (!ctx) {
        throwCrypto(Kind::underlying, "HKDF setup failed");
    }
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST,
                                         const_cast<char *>(digestName(hash)), 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, paramData(inputKeyMaterial),
                                          inputKeyMaterial.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, paramData(salt), salt.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, paramData(info), info.size()),
        OSSL_PARAM_construct_end()};
    if (EVP_KDF_derive(ctx.get(), out.mutableBytes().data(), outputLength, params) != 1) {
        throwCrypto(Kind::underlying, "HKDF failed");
    }
    return out;
}

SymmetricKey KeyExchangeSymmetricKey(const AgreedSecret &sharedSecret, HashFunction hash,
                                     KeyExchangeKDF kdf, std::span<const std::uint8_t> nonce,
                                     std::span<const std::uint8_t> additionalData) {
    if (kdf != KeyExchangeKDF::hkdf) {
        throw KeyExchangeException(KeyExchangeError::invalidKDF);
    }
    return SymmetricKey(
        HKDFDerive(hash, sharedSecret.bytes(), nonce, additionalData, digestLength(hash)));
}

// ---- JSON records -------------------------------------------------------------------------

namespace {

using OrderedJSON = nlohmann::ordered_json;

// Compact, no key sorting, '/' as is, non-ASCII as raw UTF-8.
std::string dumpCompact(const OrderedJSON &json) {
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

nlohmann::json parseObject(std::string_view text, const char *record) {
    nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded()) {
        throw DecodingError(std::string(record) + ": not valid JSON");
    }
    if (!json.is_object()) {
        throw DecodingError(std::string(record) + ": not a JSON object");
    }
    return json;
}

std::string stringField(const nlohmann::json &object, const char *key, const char *record) {
    const auto it = object.find(key);
    if (it == object.end()) {
        throw DecodingError(std::string(record) + ": missing key \"" + key + "\"");
    }
    if (!it->is_string()) {
        throw DecodingError(std::string(record) + ": \"" + key + "\" is not a string");
    }
    return it->get<std::string>();
}

} // namespace

std::string KeyExchangeAEADStore::toJSON() const {
    OrderedJSON json;
    json["KDFNonce"] = kdfNonce;
    json["Ciphertext"] = ciphertext;
    json["AEADNonce"] = aeadNonce;
    json["AdditionalData"] = additionalData;
    return dumpCompact(json);
}

KeyExchangeAEADStore KeyExchangeAEADStore::fromJSON(std::string_view text) {
    static constexpr const char *kRecord = "KeyExchangeAEADStore";
    const nlohmann::json json = parseObject(text, kRecord);
    KeyExchangeAEADStore record;
    record.kdfNonce = stringField(json, "KDFNonce", kRecord);
    record.ciphertext = stringField(json, "Ciphertext", kRecord);
    record.aeadNonce = stringField(json, "AEADNonce", kRecord);
    record.additionalData = stringField(json, "AdditionalData", kRecord);
    return record;
}

std::string KeyExchangeTypeIDAndData::toJSON() const {
    OrderedJSON json;
    json["Type"] = type;
    json["ID"] = id;
    json["Data"] = data;
    return dumpCompact(json);
}

KeyExchangeTypeIDAndData KeyExchangeTypeIDAndData::fromJSON(std::string_view text) {
    static constexpr const char *kRecord = "KeyExchangeTypeIDAndData";
    const nlohmann::json json = parseObject(text, kRecord);
    KeyExchangeTypeIDAndData envelope;
    envelope.type = stringField(json, "Type", kRecord);
    envelope.id = stringField(json, "ID", kRecord);
    envelope.data = stringField(json, "Data", kRecord);
    return envelope;
}

// ---- the store ----------------------------------------------------------------------------

namespace {
void wipeString(std::string &text) noexcept {
    if (!text.empty()) {
        OPENSSL_cleanse(text.data(), text.size());
    }
    text.clear();
}
} // namespace

KeyExchangeStore::KeyExchangeStore() = default;

KeyExchangeStore::KeyExchangeStore(KeyExchangeCurve curve, HashFunction hash, KeyExchangeKDF kdf,
                                   KeyExchangeAEAD aead, const std::string &externalPublicKey)
    : curve_(curve), hashFunction_(hash), kdf_(kdf), aead_(aead) {
    resetPrivateKey("");
    if (!externalPublicKey.empty()) {
        setExternalPublicKey(externalPublicKey);
    }
}

KeyExchangeStore::KeyExchangeStore(const KeyExchangeStore &) = default;

KeyExchangeStore::KeyExchangeStore(KeyExchangeStore &&other) noexcept
    : curve_(other.curve_), hashFunction_(other.hashFunction_), kdf_(other.kdf_),
      aead_(other.aead_), privateKey_(std::move(other.privateKey_)),
      localPublicKey_(std::move(other.localPublicKey_)),
      externalPublicKey_(std::move(other.externalPublicKey_)),
      sharedSecret_(std::move(other.sharedSecret_)) {
    other.wipe();
}

KeyExchangeStore &KeyExchangeStore::operator=(const KeyExchangeStore &other) {
    if (this != &other) {
        KeyExchangeStore copy(other);
        *this = std::move(copy);
    }
    return *this;
}

KeyExchangeStore &KeyExchangeStore::operator=(KeyExchangeStore &&other) noexcept {
    if (this != &other) {
        wipe();
        curve_ = other.curve_;
        hashFunction_ = other.hashFunction_;
        kdf_ = other.kdf_;
        aead_ = other.aead_;
        privateKey_ = std::move(other.privateKey_);
        localPublicKey_ = std::move(other.localPublicKey_);
        externalPublicKey_ = std::move(other.externalPublicKey_);
        sharedSecret_ = std::move(other.sharedSecret_);
        other.wipe();
    }
    return *this;
}

KeyExchangeStore::~KeyExchangeStore() {
    wipe();
}

void KeyExchangeStore::wipe() noexcept {
    wipeString(privateKey_);
    localPublicKey_.clear();
    externalPublicKey_.clear();
    sharedSecret_.reset();
}

std::string KeyExchangeStore::LocalPublicKey() const {
    return localPublicKey_;
}

std::string KeyExchangeStore::ExternalPublicKey() const {
    if (externalPublicKey_.empty()) {
        throw KeyExchangeException(KeyExchangeError::publicKeyNotSet);
    }
    return externalPublicKey_;
}

const AgreedSecret &KeyExchangeStore::SharedSecret() const {
    if (externalPublicKey_.empty()) {
        throw KeyExchangeException(KeyExchangeError::publicKeyNotSet);
    }
    if (!sharedSecret_) {
        // A peer key is only ever stored together with its secret.
        std::abort();
    }
    return *sharedSecret_;
}

void KeyExchangeStore::resetPrivateKey(const std::string &privateKey) {
    KeyExchangeLocalKeys keys = KeyExchangeCurveKeys(curve_, privateKey);
    std::optional<AgreedSecret> secret;
    if (!externalPublicKey_.empty()) {
        // Recompute before touching anything, so that a failure leaves the store unchanged.
        secret = CreateSharedSecret(curve_, keys.privateKey, externalPublicKey_);
    }
    wipeString(privateKey_);
    privateKey_ = std::move(keys.privateKey);
    wipeString(keys.privateKey);
    localPublicKey_ = std::move(keys.publicKey);
    if (secret) {
        sharedSecret_ = std::move(secret);
    }
}

void KeyExchangeStore::clearExternalPublicKey() {
    externalPublicKey_.clear();
    sharedSecret_.reset();
}

void KeyExchangeStore::setExternalPublicKey(const std::string &publicKey) {
    if (publicKey.empty()) {
        throw KeyExchangeException(KeyExchangeError::emptyPublicKey);
    }
    AgreedSecret secret = CreateSharedSecret(curve_, privateKey_, publicKey);
    externalPublicKey_ = publicKey;
    sharedSecret_ = std::move(secret);
}

KeyExchangeAEADStore KeyExchangeStore::encrypt(std::span<const std::uint8_t> plaintext,
                                               std::span<const std::uint8_t> additionalData) const {
    return encryptWithNonces(std::nullopt, plaintext, std::nullopt, additionalData);
}

KeyExchangeAEADStore KeyExchangeStore::encryptWithNonces(
    const std::optional<Bytes> &kdfNonce, std::span<const std::uint8_t> plaintext,
    const std::optional<Bytes> &aeadNonce, std::span<const std::uint8_t> additionalData) const {
    const AgreedSecret &secret = SharedSecret();
    const Bytes salt = kdfNonce ? *kdfNonce : AEADRandomKey(aead_);
    const Bytes nonce = aeadNonce ? *aeadNonce : AEADRandomNonce(aead_);
    const SymmetricKey key =
        KeyExchangeSymmetricKey(secret, hashFunction_, kdf_, salt, additionalData);
    KeyExchangeAEADStore record;
    record.ciphertext = AEADEncrypt(aead_, key, plaintext, nonce, additionalData);
    record.kdfNonce = base64Encode(salt);
    record.aeadNonce = base64Encode(nonce);
    record.additionalData = base64Encode(additionalData);
    return record;
}

KeyExchangeAEADStore
KeyExchangeStore::encodeJSONAndEncrypt(const std::string &type, const std::string &id,
                                       const std::string &data,
                                       std::span<const std::uint8_t> additionalData) const {
    return encodeJSONAndEncryptWithNonces(type, id, data, std::nullopt, std::nullopt,
                                          additionalData);
}

KeyExchangeAEADStore KeyExchangeStore::encodeJSONAndEncryptWithNonces(
    const std::string &type, const std::string &id, const std::string &data,
    const std::optional<Bytes> &kdfNonce, const std::optional<Bytes> &aeadNonce,
    std::span<const std::uint8_t> additionalData) const {
    return encodeJSONAndEncryptWithNonces(KeyExchangeTypeIDAndData{type, id, data}, kdfNonce,
                                          aeadNonce, additionalData);
}

Bytes KeyExchangeStore::decrypt(const std::string &kdfNonce, const std::string &ciphertext,
                                const std::string &aeadNonce,
                                const std::string &additionalData) const {
    const AgreedSecret &secret = SharedSecret();
    const Bytes salt = detail::decodeReceived(kdfNonce);
    const Bytes info = detail::decodeReceived(additionalData);
    const SymmetricKey key = KeyExchangeSymmetricKey(secret, hashFunction_, kdf_, salt, info);
    return AEADDecrypt(aead_, key, ciphertext, aeadNonce, additionalData);
}

Bytes KeyExchangeStore::decryptAEADStore(const KeyExchangeAEADStore &record) const {
    return decrypt(record.kdfNonce, record.ciphertext, record.aeadNonce, record.additionalData);
}

KeyExchangeStore
KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(const std::string &externalPublicKey) {
    return KeyExchangeStore(KeyExchangeCurve::curve25519, HashFunction::sha256,
                            KeyExchangeKDF::hkdf, KeyExchangeAEAD::aesgcm, externalPublicKey);
}

KeyExchangeStore
KeyExchange_Curve25519_SHA384_HKDF_AESGCM_Store(const std::string &externalPublicKey) {
    return KeyExchangeStore(KeyExchangeCurve::curve25519, HashFunction::sha384,
                            KeyExchangeKDF::hkdf, KeyExchangeAEAD::aesgcm, externalPublicKey);
}

KeyExchangeStore
KeyExchange_Curve25519_SHA512_HKDF_AESGCM_Store(const std::string &externalPublicKey) {
    return KeyExchangeStore(KeyExchangeCurve::curve25519, HashFunction::sha512,
                            KeyExchangeKDF::hkdf, KeyExchangeAEAD::aesgcm, externalPublicKey);
}

} // namespace lumacrypt
