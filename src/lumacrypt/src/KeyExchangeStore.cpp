#include "lumacrypt/KeyExchangeStore.h"

#include "Internal.h"
#include "lumacrypt/AEAD.h"
#include "lumacrypt/Base64.h"
#include "lumacrypt/RandomData.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <stdexcept>

namespace lumacrypt {

using detail::throwCrypto;
using Kind = CryptoError::Kind;

// ---- HKDF ---------------------------------------------------------------------------------

namespace {

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
EVP_MAC *hmacAlgorithm() {
    static EVP_MAC *const mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    if (mac == nullptr) {
        throwCrypto(Kind::underlying, "HMAC is not available");
    }
    return mac;
}

// One HMAC context per hash function and thread, with its digest chosen once. Every use starts
// with EVP_MAC_init and a new key, and ends by re-keying it with a constant, so no key-dependent
// state stays behind between derivations.
class HMACContexts {
public:
    ~HMACContexts() {
        for (EVP_MAC_CTX *ctx : contexts_) {
            EVP_MAC_CTX_free(ctx);
        }
    }

    EVP_MAC_CTX *get(HashFunction hash) {
        const auto index = static_cast<std::size_t>(hash);
        if (contexts_[index] == nullptr) {
            EVP_MAC_CTX *ctx = EVP_MAC_CTX_new(hmacAlgorithm());
            OSSL_PARAM params[] = {
                OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST,
                                                 const_cast<char *>(digestName(hash)), 0),
                OSSL_PARAM_construct_end()};
            if (ctx == nullptr || EVP_MAC_CTX_set_params(ctx, params) != 1) {
                EVP_MAC_CTX_free(ctx);
                throwCrypto(Kind::underlying, "HMAC setup failed");
            }
            contexts_[index] = ctx;
        }
        return contexts_[index];
    }

private:
    std::array<EVP_MAC_CTX *, 3> contexts_{};
};

// Leaves the context keyed with a constant whatever happens to the derivation.
class ScrubOnExit {
public:
    explicit ScrubOnExit(EVP_MAC_CTX *ctx) noexcept : ctx_(ctx) {}
    ~ScrubOnExit() {
        static const std::uint8_t constant[1] = {0};
        if (EVP_MAC_init(ctx_, constant, sizeof constant, nullptr) != 1) {
            ERR_clear_error();
        }
    }
    ScrubOnExit(const ScrubOnExit &) = delete;
    ScrubOnExit &operator=(const ScrubOnExit &) = delete;

private:
    EVP_MAC_CTX *ctx_;
};

// HMAC over the concatenation of `parts`, written to `out` (exactly one digest long).
void hmac(EVP_MAC_CTX *ctx, std::span<const std::uint8_t> key,
          std::initializer_list<std::span<const std::uint8_t>> parts, std::span<std::uint8_t> out) {
    // EVP_MAC_init with a NULL key would reuse the previous key: always pass an address.
    static const std::uint8_t noKey[1] = {0};
    if (EVP_MAC_init(ctx, key.empty() ? noKey : key.data(), key.size(), nullptr) != 1) {
        throwCrypto(Kind::underlying, "HMAC init failed");
    }
    for (const auto &part : parts) {
        if (!part.empty() && EVP_MAC_update(ctx, part.data(), part.size()) != 1) {
            throwCrypto(Kind::underlying, "HMAC failed");
        }
    }
    std::size_t length = 0;
    if (EVP_MAC_final(ctx, out.data(), &length, out.size()) != 1 || length != out.size()) {
        throwCrypto(Kind::underlying, "HMAC failed");
    }
}

} // namespace

// HKDF (RFC 5869): PRK = HMAC(salt, IKM); T(i) = HMAC(PRK, T(i-1) || info || i). Written over
// EVP_MAC with a reused per-thread context: OpenSSL's own HKDF fetches HMAC and the digest again
// on every call, which costs more than the derivation itself, and caps the info at 32 KiB.
SecretBytes HKDFDerive(HashFunction hash, std::span<const std::uint8_t> inputKeyMaterial,
                       std::span<const std::uint8_t> salt, std::span<const std::uint8_t> info,
                       std::size_t outputLength) {
    const std::size_t hashLength = digestLength(hash);
    if (outputLength > 255 * hashLength) {
        throw CryptoError(Kind::incorrectParameterSize, "HKDF output too long");
    }
    SecretBytes out(Bytes(outputLength, 0));
    if (outputLength == 0) {
        return out;
    }
    thread_local HMACContexts contexts;
    EVP_MAC_CTX *ctx = contexts.get(hash);
    const ScrubOnExit scrub(ctx);

    std::array<std::uint8_t, 64> prk{};
    std::array<std::uint8_t, 64> block{};
    struct Wipe {
        std::array<std::uint8_t, 64> &a;
        std::array<std::uint8_t, 64> &b;
        ~Wipe() {
            OPENSSL_cleanse(a.data(), a.size());
            OPENSSL_cleanse(b.data(), b.size());
        }
    } wipe{prk, block};

    // An absent salt is hash-length zeros, which HMAC's key padding makes the same as no key.
    hmac(ctx, salt, {inputKeyMaterial}, std::span(prk).first(hashLength));
    std::size_t produced = 0;
    for (unsigned counter = 1; produced < outputLength; ++counter) {
        const std::uint8_t counterByte[1] = {static_cast<std::uint8_t>(counter)};
        const std::span<const std::uint8_t> previous =
            counter == 1 ? std::span<const std::uint8_t>() : std::span(block).first(hashLength);
        std::array<std::uint8_t, 64> next{};
        hmac(ctx, std::span(prk).first(hashLength), {previous, info, counterByte},
             std::span(next).first(hashLength));
        block = next;
        OPENSSL_cleanse(next.data(), next.size());
        const std::size_t take = std::min(hashLength, outputLength - produced);
        std::copy_n(block.begin(), take,
                    out.mutableBytes().begin() + static_cast<std::ptrdiff_t>(produced));
        produced += take;
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

constexpr std::string_view kRecordKeys[] = {"KDFNonce", "Ciphertext", "AEADNonce",
                                            "AdditionalData"};

} // namespace

std::string KeyExchangeAEADStore::toJSON() const {
    const std::pair<std::string_view, std::string_view> members[] = {
        {kRecordKeys[0], kdfNonce},
        {kRecordKeys[1], ciphertext},
        {kRecordKeys[2], aeadNonce},
        {kRecordKeys[3], additionalData}};
    return tarnwick::encodeStringMembers(members);
}

KeyExchangeAEADStore KeyExchangeAEADStore::fromJSON(std::string_view text) {
    std::vector<std::string> values =
        tarnwick::decodeStringMembers(text, "KeyExchangeAEADStore", kRecordKeys);
    return {std::move(values[0]), std::move(values[1]), std::move(values[2]), std::move(values[3])};
}

// ---- the store -------------------------------------------------------------------------

namespace {
// Length of a generated HKDF salt (AEADRandomKey).
constexpr std::size_t kSaltSize = 32;

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

std::pair<Bytes, Bytes>
KeyExchangeStore::saltAndNonce(const std::optional<Bytes> &kdfNonce,
                               const std::optional<Bytes> &aeadNonce) const {
    if (kdfNonce || aeadNonce) {
        return {kdfNonce ? *kdfNonce : AEADRandomKey(aead_),
                aeadNonce ? *aeadNonce : AEADRandomNonce(aead_)};
    }
    // The same sizes as AEADRandomKey + AEADRandomNonce. Both go out in clear with the record,
    // so they come from the pooled generator: one generator call per message cost more than the
    // rest of sealing a short one.
    if (aead_ != KeyExchangeAEAD::aesgcm && aead_ != KeyExchangeAEAD::chachapoly) {
        throw KeyExchangeException(KeyExchangeError::invalidAEAD);
    }
    std::pair<Bytes, Bytes> both{Bytes(kSaltSize), Bytes(kAEADNonceSize)};
    PublicRandomBytes(both.first);
    PublicRandomBytes(both.second);
    return both;
}

KeyExchangeAEADStore KeyExchangeStore::encrypt(std::span<const std::uint8_t> plaintext,
                                               std::span<const std::uint8_t> additionalData) const {
    return encryptWithNonces(std::nullopt, plaintext, std::nullopt, additionalData);
}

KeyExchangeAEADStore KeyExchangeStore::encryptWithNonces(
    const std::optional<Bytes> &kdfNonce, std::span<const std::uint8_t> plaintext,
    const std::optional<Bytes> &aeadNonce, std::span<const std::uint8_t> additionalData) const {
    const AgreedSecret &secret = SharedSecret();
    const auto [salt, nonce] = saltAndNonce(kdfNonce, aeadNonce);
    const SymmetricKey key =
        KeyExchangeSymmetricKey(secret, hashFunction_, kdf_, salt, additionalData);
    KeyExchangeAEADStore record;
    record.ciphertext = AEADEncrypt(aead_, key, plaintext, nonce, additionalData);
    record.kdfNonce = base64Encode(salt);
    record.aeadNonce = base64Encode(nonce);
    record.additionalData = base64Encode(additionalData);
    return record;
}

namespace {

// The record's JSON text is written by hand here, in the layout encodeStringMembers gives it:
// {"KDFNonce":"…","Ciphertext":"…","AEADNonce":"…","AdditionalData":"…"}. Base64 text needs no
// escaping, so the values go in as they are.
constexpr std::size_t kRecordJSONOverhead = [] {
    std::size_t size = 2 + 3; // braces and the commas between four members
    for (const std::string_view key : kRecordKeys) {
        size += key.size() + 5; // two quotes around the key, a colon, two around the value
    }
    return size;
}();

char *putMember(char *out, std::string_view key, bool first) {
    if (!first) {
        *out++ = ',';
    }
    *out++ = '"';
    out = std::copy(key.begin(), key.end(), out);
    *out++ = '"';
    *out++ = ':';
    *out++ = '"';
    return out;
}

char *putBase64Member(char *out, std::string_view key, std::span<const std::uint8_t> bytes) {
    out = putMember(out, key, false);
    base64EncodeInto(bytes, out);
    out += base64EncodedSize(bytes.size());
    *out++ = '"';
    return out;
}

} // namespace

std::size_t KeyExchangeStore::sealedJSONSize(std::size_t plaintextSize,
                                             std::size_t additionalDataSize) noexcept {
    return kRecordJSONOverhead + base64EncodedSize(kSaltSize) +
           base64EncodedSize(kAEADNonceSize + plaintextSize + kAEADTagSize) +
           base64EncodedSize(kAEADNonceSize) + base64EncodedSize(additionalDataSize);
}

Bytes KeyExchangeStore::encryptToJSON(std::span<const std::uint8_t> plaintext,
                                      std::span<const std::uint8_t> additionalData,
                                      std::span<char> out) const {
    return encryptToJSONWithNonces(std::nullopt, plaintext, std::nullopt, additionalData, out);
}

Bytes KeyExchangeStore::encryptToJSONWithNonces(const std::optional<Bytes> &kdfNonce,
                                                std::span<const std::uint8_t> plaintext,
                                                const std::optional<Bytes> &aeadNonce,
                                                std::span<const std::uint8_t> additionalData,
                                                std::span<char> out) const {
    const AgreedSecret &secret = SharedSecret();
    const auto [salt, nonce] = saltAndNonce(kdfNonce, aeadNonce);
    const std::size_t size = kRecordJSONOverhead + base64EncodedSize(salt.size()) +
                             base64EncodedSize(kAEADNonceSize + plaintext.size() + kAEADTagSize) +
                             base64EncodedSize(nonce.size()) +
                             base64EncodedSize(additionalData.size());
    if (out.size() != size) {
        throw std::length_error("sealed record JSON: the output is not of the record's length");
    }
    const SymmetricKey key =
        KeyExchangeSymmetricKey(secret, hashFunction_, kdf_, salt, additionalData);
    char *at = out.data();
    *at++ = '{';
    at = putMember(at, kRecordKeys[0], true);
    base64EncodeInto(salt, at);
    at += base64EncodedSize(salt.size());
    *at++ = '"';
    at = putMember(at, kRecordKeys[1], false);
    detail::sealBase64Into(aead_, key, plaintext, nonce, additionalData, at);
    at += base64EncodedSize(kAEADNonceSize + plaintext.size() + kAEADTagSize);
    *at++ = '"';
    at = putBase64Member(at, kRecordKeys[2], nonce);
    at = putBase64Member(at, kRecordKeys[3], additionalData);
    *at++ = '}';
    return salt;
}

namespace {

// Printable ASCII other than '"' and '\\': a string value written as it stands.
bool plainASCII(std::string_view text) noexcept {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; });
}

// The record in the exact layout encryptToJSON and toJSON write, values cut out where they
// stand; nothing for any other text. The ciphertext is only cut at the next quote: its
// characters are judged by the strict base64 decoder.
std::optional<std::array<std::string_view, 4>> recordAsWritten(std::string_view json) {
    std::array<std::string_view, 4> values;
    std::size_t at = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        const std::string_view key = kRecordKeys[i];
        // {"Key":"  or  ,"Key":"
        if (at >= json.size() || json[at] != (i == 0 ? '{' : ',') ||
            json.compare(at + 1, 1, "\"") != 0 || json.compare(at + 2, key.size(), key) != 0 ||
            json.compare(at + 2 + key.size(), 3, "\":\"") != 0) {
            return std::nullopt;
        }
        at += 2 + key.size() + 3;
        const void *quote =
            at < json.size() ? std::memchr(json.data() + at, '"', json.size() - at) : nullptr;
        if (quote == nullptr) {
            return std::nullopt;
        }
        const std::size_t end =
            static_cast<std::size_t>(static_cast<const char *>(quote) - json.data());
        values[i] = json.substr(at, end - at);
        if (i != 1 && !plainASCII(values[i])) {
            return std::nullopt;
        }
        at = end + 1;
    }
    if (at + 1 != json.size() || json[at] != '}') {
        return std::nullopt;
    }
    return values;
}

} // namespace

KeyExchangeAEADStore KeyExchangeStore::decryptJSON(std::string_view json, std::string &plaintext,
                                                   const RecordCheck &check, bool padded) const {
    KeyExchangeAEADStore record;
    const auto open = [&](std::string_view ciphertext) {
        if (check) {
            check(record);
        }
        const AgreedSecret &secret = SharedSecret();
        const Bytes salt = detail::decodeReceived(record.kdfNonce);
        const Bytes info = detail::decodeReceived(record.additionalData);
        const SymmetricKey key = KeyExchangeSymmetricKey(secret, hashFunction_, kdf_, salt, info);
        detail::openBase64Into(aead_, key, ciphertext, info, plaintext);
    };
    // A record in the layout our own writers give it is read where it stands: its text is then
    // valid JSON whose values are exactly what a JSON reader would give (plain ASCII), as long
    // as the ciphertext passes the strict base64 decoder. A ciphertext that does not is read
    // again in full, as is any other text, which gives the same result as the full reading
    // alone, errors included.
    if (const std::optional<std::array<std::string_view, 4>> values = recordAsWritten(json)) {
        try {
            record.kdfNonce = (*values)[0];
            record.aeadNonce = (*values)[2];
            record.additionalData = (*values)[3];
            open((*values)[1]);
            return record;
        } catch (const KeyExchangeException &error) {
            if (error.error() != KeyExchangeError::invalidFormat) {
                throw;
            }
        }
        record = {};
    }
    tarnwick::visitStringMembers(
        json, "KeyExchangeAEADStore", kRecordKeys,
        [&](std::span<const std::string_view> values) {
            record.kdfNonce = values[0];
            record.aeadNonce = values[2];
            record.additionalData = values[3];
            open(values[1]);
        },
        padded);
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
    // AEADDecrypt on the already decoded additional data; the AEADNonce is not consulted.
    (void)aeadNonce;
    if (aead_ != KeyExchangeAEAD::aesgcm && aead_ != KeyExchangeAEAD::chachapoly) {
        throw KeyExchangeException(KeyExchangeError::invalidAEAD);
    }
    const Bytes combined = detail::decodeReceived(ciphertext);
    return aead_ == KeyExchangeAEAD::aesgcm ? AESGCMDecrypt(key, combined, info)
                                            : ChaChaPolyDecrypt(key, combined, info);
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
