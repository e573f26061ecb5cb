// The key exchange store: own key pair, peer key and shared secret of one channel, per-message key
// derivation, and sealing / opening of the four-string sealed record.
#pragma once

#include "lumacrypt/Curve.h"
#include "lumacrypt/Types.h"

#include <concepts>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace lumacrypt {

// HKDF over `inputKeyMaterial` with the given salt and info, `outputLength` bytes.
// An output longer than 255 digests throws CryptoError(incorrectParameterSize).
SecretBytes HKDFDerive(HashFunction hash, std::span<const std::uint8_t> inputKeyMaterial,
                       std::span<const std::uint8_t> salt, std::span<const std::uint8_t> info,
                       std::size_t outputLength);

// The per-message key: HKDF with salt = `nonce`, info = `additionalData` and an output as long as
// the hash's digest (32 / 48 / 64 bytes). A kdf other than hkdf throws invalidKDF.
SymmetricKey KeyExchangeSymmetricKey(const AgreedSecret &sharedSecret, HashFunction hash,
                                     KeyExchangeKDF kdf, std::span<const std::uint8_t> nonce,
                                     std::span<const std::uint8_t> additionalData);

// The sealed record; every field is standard base64. Its identity is the ciphertext.
struct KeyExchangeAEADStore {
    std::string kdfNonce;       // "KDFNonce": the HKDF salt
    std::string ciphertext;     // "Ciphertext": nonce || ciphertext || tag
    std::string aeadNonce;      // "AEADNonce": the AEAD nonce (informative only)
    std::string additionalData; // "AdditionalData"

    const std::string &id() const { return ciphertext; }
    // Compact JSON, keys in the order KDFNonce, Ciphertext, AEADNonce, AdditionalData.
    std::string toJSON() const;
    // Throws DecodingError unless the text is a JSON object with the four keys as strings.
    static KeyExchangeAEADStore fromJSON(std::string_view json);
    friend bool operator==(const KeyExchangeAEADStore &, const KeyExchangeAEADStore &) = default;
};

// The clear-text envelope {"Type", "ID", "Data"}: the wire records' own, so that the client has
// one envelope type.
using KeyExchangeTypeIDAndData = tarnwick::TypeIDAndData;

namespace detail {
template <class T>
concept HasMemberToJSON = requires(const T &value) {
    { value.toJSON() } -> std::convertible_to<std::string>;
};
template <class T>
concept HasFreeToJSON = requires(const T &value) {
    { toJSON(value) } -> std::convertible_to<std::string>;
};
} // namespace detail

// A value that can be written as JSON text: a member `std::string toJSON() const` or a free
// `std::string toJSON(const T &)` found by argument-dependent lookup.
template <class T>
concept JSONEncodable = detail::HasMemberToJSON<T> || detail::HasFreeToJSON<T>;

template <JSONEncodable T> std::string encodeJSON(const T &value) {
    if constexpr (detail::HasMemberToJSON<T>) {
        return std::string(value.toJSON());
    } else {
        return std::string(toJSON(value));
    }
}

class KeyExchangeStore {
public:
    // An unconfigured placeholder: curve, kdf and aead unknown, SHA-256, no keys, no secret.
    KeyExchangeStore();
    // A configured store with a fresh key pair; a non-empty `externalPublicKey` is set as the peer
    // key. Throws what resetPrivateKey / setExternalPublicKey throw.
    KeyExchangeStore(KeyExchangeCurve curve, HashFunction hash, KeyExchangeKDF kdf,
                     KeyExchangeAEAD aead, const std::string &externalPublicKey);
    KeyExchangeStore(const KeyExchangeStore &);
    KeyExchangeStore(KeyExchangeStore &&) noexcept;
    KeyExchangeStore &operator=(const KeyExchangeStore &);
    KeyExchangeStore &operator=(KeyExchangeStore &&) noexcept;
    virtual ~KeyExchangeStore();

    KeyExchangeCurve curve() const noexcept { return curve_; }
    HashFunction hashFunction() const noexcept { return hashFunction_; }
    KeyExchangeKDF kdf() const noexcept { return kdf_; }
    KeyExchangeAEAD aead() const noexcept { return aead_; }
    const std::string &privateKey() const noexcept { return privateKey_; }
    const std::string &localPublicKey() const noexcept { return localPublicKey_; }
    const std::string &externalPublicKey() const noexcept { return externalPublicKey_; }
    bool hasSharedSecret() const noexcept { return sharedSecret_.has_value(); }

    virtual std::string LocalPublicKey() const;
    // Throws publicKeyNotSet while no peer key is set.
    virtual std::string ExternalPublicKey() const;
    // Throws publicKeyNotSet while no peer key is set.
    virtual const AgreedSecret &SharedSecret() const;
    // Replaces the own key pair ("" generates a new one) and recomputes the secret against a set
    // peer key. On error nothing changes.
    virtual void resetPrivateKey(const std::string &privateKey);
    virtual void clearExternalPublicKey();
    // Sets the peer key and computes the secret. "" throws emptyPublicKey. On error nothing
    // changes.
    virtual void setExternalPublicKey(const std::string &publicKey);

    // Seals with a fresh random salt (32 bytes) and nonce (12 bytes).
    virtual KeyExchangeAEADStore encrypt(std::span<const std::uint8_t> plaintext,
                                         std::span<const std::uint8_t> additionalData) const;
    // Seals with the given salt and nonce; an absent one is drawn at random. A supplied value is
    // used as given (a nonce length the cipher does not take throws CryptoError).
    virtual KeyExchangeAEADStore
    encryptWithNonces(const std::optional<Bytes> &kdfNonce, std::span<const std::uint8_t> plaintext,
                      const std::optional<Bytes> &aeadNonce,
                      std::span<const std::uint8_t> additionalData) const;

    KeyExchangeAEADStore encodeJSONAndEncrypt(const std::string &type, const std::string &id,
                                              const std::string &data,
                                              std::span<const std::uint8_t> additionalData) const;
    KeyExchangeAEADStore
    encodeJSONAndEncryptWithNonces(const std::string &type, const std::string &id,
                                   const std::string &data, const std::optional<Bytes> &kdfNonce,
                                   const std::optional<Bytes> &aeadNonce,
                                   std::span<const std::uint8_t> additionalData) const;

    template <JSONEncodable T>
    KeyExchangeAEADStore encodeJSONAndEncrypt(const T &value,
                                              std::span<const std::uint8_t> additionalData) const {
        return encodeJSONAndEncryptWithNonces(value, std::nullopt, std::nullopt, additionalData);
    }
    template <JSONEncodable T>
    KeyExchangeAEADStore
    encodeJSONAndEncryptWithNonces(const T &value, const std::optional<Bytes> &kdfNonce,
                                   const std::optional<Bytes> &aeadNonce,
                                   std::span<const std::uint8_t> additionalData) const {
        const std::string json = encodeJSON(value);
        return encryptWithNonces(kdfNonce, asBytes(json), aeadNonce, additionalData);
    }

    // The length of the JSON text encryptToJSON writes for a plaintext of `plaintextSize` bytes
    // and additional data of `additionalDataSize` bytes.
    static std::size_t sealedJSONSize(std::size_t plaintextSize,
                                      std::size_t additionalDataSize) noexcept;
    // Seals like encrypt() and writes the record's JSON text (the text toJSON() gives for the
    // record encrypt() would return) into `out`, which must be exactly sealedJSONSize() long:
    // the box is encrypted and encoded a piece at a time, never held whole. Returns the salt
    // (the decoded KDFNonce). A wrong length of `out` throws std::length_error.
    Bytes encryptToJSON(std::span<const std::uint8_t> plaintext,
                        std::span<const std::uint8_t> additionalData, std::span<char> out) const;
    Bytes encryptToJSONWithNonces(const std::optional<Bytes> &kdfNonce,
                                  std::span<const std::uint8_t> plaintext,
                                  const std::optional<Bytes> &aeadNonce,
                                  std::span<const std::uint8_t> additionalData,
                                  std::span<char> out) const;

    // What decryptJSON hands to its check before it opens anything.
    using RecordCheck = std::function<void(const KeyExchangeAEADStore &record)>;
    // Opens a record given as its JSON text, as fromJSON followed by decryptAEADStore would, and
    // with the same errors, but without copying the ciphertext out of the text: it is decoded
    // and decrypted a piece at a time straight into `plaintext` (its content replaced; its
    // capacity kept, so a buffer reused from one reply to the next grows only once). Returns
    // the record's other three fields (its ciphertext left empty). `check` sees those before
    // anything is opened and may throw to refuse the record. With `padded`, `json` is followed
    // by at least tarnwick::jsonPadding readable bytes and is parsed where it lies.
    KeyExchangeAEADStore decryptJSON(std::string_view json, std::string &plaintext,
                                     const RecordCheck &check = {}, bool padded = false) const;

    // Opens a record given as its four base64 strings. The AEADNonce is not consulted: the nonce
    // at the start of the combined box is the one used. Malformed base64 throws invalidFormat;
    // tampering or a wrong key throws CryptoError(authenticationFailure).
    virtual Bytes decrypt(const std::string &kdfNonce, const std::string &ciphertext,
                          const std::string &aeadNonce, const std::string &additionalData) const;
    virtual Bytes decryptAEADStore(const KeyExchangeAEADStore &record) const;

private:
    static std::span<const std::uint8_t> asBytes(std::string_view text) noexcept {
        return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
    }
    void wipe() noexcept;
    // A message's HKDF salt and AEAD nonce: the given ones, else fresh random ones.
    std::pair<Bytes, Bytes> saltAndNonce(const std::optional<Bytes> &kdfNonce,
                                         const std::optional<Bytes> &aeadNonce) const;

    KeyExchangeCurve curve_ = KeyExchangeCurve::unknown;
    HashFunction hashFunction_ = HashFunction::sha256;
    KeyExchangeKDF kdf_ = KeyExchangeKDF::unknown;
    KeyExchangeAEAD aead_ = KeyExchangeAEAD::unknown;
    std::string privateKey_;
    std::string localPublicKey_;
    std::string externalPublicKey_;
    std::optional<AgreedSecret> sharedSecret_;
};

KeyExchangeStore
KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(const std::string &externalPublicKey);
KeyExchangeStore
KeyExchange_Curve25519_SHA384_HKDF_AESGCM_Store(const std::string &externalPublicKey);
KeyExchangeStore
KeyExchange_Curve25519_SHA512_HKDF_AESGCM_Store(const std::string &externalPublicKey);

} // namespace lumacrypt
