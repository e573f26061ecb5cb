// The key exchange store and the key decoders: configuration, key generation and encoding, the
// peer key and its shared secret, per-message key derivation, and every failure path.
#include "TestSupport.h"

#include <QCryptographicHash>
#include <QMessageAuthenticationCode>

#include <openssl/kdf.h>
#include <openssl/params.h>

#include <atomic>
#include <thread>
#include <type_traits>
#include <vector>

using namespace lumacrypt;
using namespace lumatest;
using Kind = CryptoError::Kind;

namespace {
// A fixed X25519 pair (RFC 7748, section 6.1: Alice).
const std::string kAlicePrivateHex =
    "77076d0a7318a57d3c16c17251b26645df4c2f87ebc0992ab177fba51db92c2a";
const std::string kAlicePublicHex =
    "8520f0098930a754748b7ddcb43ef75a0dbf3a0d26381af4eba4a98eaa9b4e6a";
const std::string kBobPublicHex =
    "de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f";
const std::string kSharedHex = "4a5d9d5ba4ce2de1728e3bf480350f25e07e21c947d19e3376f09b3c1e161742";

std::string b64hex(const std::string &hex) {
    return base64Encode(fromHex(hex));
}
} // namespace

class LumacryptKeyExchange : public QObject {
    Q_OBJECT

private slots:
    void keyObjectsShareAndHandOverTheirKey() {
        const PrivateKey original = P256PrivateStore();
        const Bytes raw = original.rawRepresentation();
        PrivateKey copy = original; // shares the key
        QCOMPARE(copy.native(), original.native());
        QVERIFY(copy.rawRepresentation() == raw);
        PrivateKey moved = std::move(copy); // hands it over
        QVERIFY(copy.native() == nullptr);
        QCOMPARE(moved.native(), original.native());
        QCOMPARE(moved.curve(), KeyExchangeCurve::p256);
        PrivateKey assigned = Curve25519PrivateStore();
        assigned = moved;
        QVERIFY(assigned.rawRepresentation() == raw);
        assigned = *&assigned; // self-assignment keeps the key
        QVERIFY(assigned.rawRepresentation() == raw);
        PublicKey publicKey = original.publicKey();
        const PublicKey publicCopy = publicKey;
        publicKey = PublicKey();
        QVERIFY(publicKey.native() == nullptr);
        QVERIFY(publicCopy.rawRepresentation() == original.publicKey().rawRepresentation());
    }

    void enumerationsAreOneByteTagsInOrder() {
        static_assert(sizeof(KeyExchangeCurve) == 1 && sizeof(KeyExchangeKDF) == 1 &&
                      sizeof(KeyExchangeAEAD) == 1 && sizeof(KeyExchangeError) == 1);
        QCOMPARE(int(KeyExchangeCurve::unknown), 0);
        QCOMPARE(int(KeyExchangeCurve::curve25519), 1);
        QCOMPARE(int(KeyExchangeCurve::p256), 2);
        QCOMPARE(int(KeyExchangeCurve::p384), 3);
        QCOMPARE(int(KeyExchangeCurve::p521), 4);
        QCOMPARE(int(KeyExchangeKDF::hkdf), 1);
        QCOMPARE(int(KeyExchangeAEAD::aesgcm), 1);
        QCOMPARE(int(KeyExchangeAEAD::chachapoly), 2);
        QCOMPARE(int(KeyExchangeError::invalidKey), 0);
        QCOMPARE(int(KeyExchangeError::invalidAdditionalDataEncoding), 8);
    }

    void errorNames() {
        const std::pair<KeyExchangeError, const char *> names[] = {
            {KeyExchangeError::invalidKey, "invalidKey"},
            {KeyExchangeError::invalidFormat, "invalidFormat"},
            {KeyExchangeError::invalidCurve, "invalidCurve"},
            {KeyExchangeError::invalidKDF, "invalidKDF"},
            {KeyExchangeError::invalidAEAD, "invalidAEAD"},
            {KeyExchangeError::invalidAdditionalData, "invalidAdditionalData"},
            {KeyExchangeError::publicKeyNotSet, "publicKeyNotSet"},
            {KeyExchangeError::emptyPublicKey, "emptyPublicKey"},
            {KeyExchangeError::invalidAdditionalDataEncoding, "invalidAdditionalDataEncoding"}};
        for (const auto &[error, name] : names) {
            QCOMPARE(std::string(toString(error)), std::string(name));
            QCOMPARE(std::string(KeyExchangeException(error).what()), std::string(name));
            QCOMPARE(KeyExchangeException(error).error(), error);
        }
        QCOMPARE(std::string(PEMException(PEMError::doesNotExist).what()),
                 std::string("doesNotExist"));
        QCOMPARE(CryptoError(Kind::invalidPoint, "x").kind(), Kind::invalidPoint);
    }

    void placeholderStore() {
        const KeyExchangeStore store;
        QCOMPARE(store.curve(), KeyExchangeCurve::unknown);
        QCOMPARE(store.hashFunction(), HashFunction::sha256);
        QCOMPARE(store.kdf(), KeyExchangeKDF::unknown);
        QCOMPARE(store.aead(), KeyExchangeAEAD::unknown);
        QVERIFY(store.privateKey().empty());
        QVERIFY(store.localPublicKey().empty());
        QVERIFY(store.externalPublicKey().empty());
        QVERIFY(!store.hasSharedSecret());
        QCOMPARE(store.LocalPublicKey(), std::string());
        QVERIFY(throwsKeyExchange([&] { store.ExternalPublicKey(); },
                                  KeyExchangeError::publicKeyNotSet));
        QVERIFY(
            throwsKeyExchange([&] { store.SharedSecret(); }, KeyExchangeError::publicKeyNotSet));
        QVERIFY(throwsKeyExchange([&] { store.encrypt(bytesOf("x"), bytesOf("1")); },
                                  KeyExchangeError::publicKeyNotSet));
        // No curve: keys cannot be made or set.
        KeyExchangeStore mutableStore;
        QVERIFY(throwsKeyExchange([&] { mutableStore.resetPrivateKey(""); },
                                  KeyExchangeError::invalidCurve));
        QVERIFY(throwsKeyExchange([&] { mutableStore.setExternalPublicKey(b64hex(kBobPublicHex)); },
                                  KeyExchangeError::invalidCurve));
        QVERIFY(mutableStore.privateKey().empty());
        QVERIFY(mutableStore.externalPublicKey().empty());
    }

    void configuredStoreAndPresets() {
        const KeyExchangeStore s256 = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        QCOMPARE(s256.curve(), KeyExchangeCurve::curve25519);
        QCOMPARE(s256.hashFunction(), HashFunction::sha256);
        QCOMPARE(s256.kdf(), KeyExchangeKDF::hkdf);
        QCOMPARE(s256.aead(), KeyExchangeAEAD::aesgcm);
        QCOMPARE(base64Decode(s256.privateKey())->size(), std::size_t{32});
        QCOMPARE(s256.localPublicKey().size(), std::size_t{44});
        QCOMPARE(s256.LocalPublicKey(), s256.localPublicKey());
        QVERIFY(s256.externalPublicKey().empty());
        QVERIFY(!s256.hasSharedSecret());
        // The public key belongs to the private key.
        QCOMPARE(KeyExchangeCurveKeys(KeyExchangeCurve::curve25519, s256.privateKey()).publicKey,
                 s256.localPublicKey());

        QCOMPARE(KeyExchange_Curve25519_SHA384_HKDF_AESGCM_Store("").hashFunction(),
                 HashFunction::sha384);
        QCOMPARE(KeyExchange_Curve25519_SHA512_HKDF_AESGCM_Store("").hashFunction(),
                 HashFunction::sha512);

        // Every store gets its own fresh key pair.
        QVERIFY(KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("").localPublicKey() !=
                s256.localPublicKey());

        // A peer key given at construction is set, with its secret.
        const KeyExchangeStore withPeer =
            KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(s256.localPublicKey());
        QCOMPARE(withPeer.ExternalPublicKey(), s256.localPublicKey());
        QVERIFY(withPeer.hasSharedSecret());
        QCOMPARE(withPeer.SharedSecret().size(), std::size_t{32});

        // A bad peer key at construction throws.
        QVERIFY(throwsKeyExchange([] { KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("%%%%"); },
                                  KeyExchangeError::invalidKey));
        QVERIFY(throwsCrypto([] { KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("AAAA"); },
                             Kind::incorrectKeySize));
        QVERIFY(throwsKeyExchange(
            [] {
                KeyExchangeStore(KeyExchangeCurve::unknown, HashFunction::sha256,
                                 KeyExchangeKDF::hkdf, KeyExchangeAEAD::aesgcm, "");
            },
            KeyExchangeError::invalidCurve));
    }

    void settingTheSamePeerKeyTwiceGivesTheSameSecret() {
        KeyExchangeStore store = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        const KeyExchangeStore peer = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        store.setExternalPublicKey(peer.localPublicKey());
        const AgreedSecret first = store.SharedSecret();
        store.setExternalPublicKey(peer.localPublicKey());
        QVERIFY(store.SharedSecret() == first);
        QCOMPARE(store.ExternalPublicKey(), peer.localPublicKey());
    }

    void emptyPeerKeyKeepsTheEarlierOne() {
        KeyExchangeStore store = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        const std::string peer =
            KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("").localPublicKey();
        store.setExternalPublicKey(peer);
        const AgreedSecret secret = store.SharedSecret();
        QVERIFY(throwsKeyExchange([&] { store.setExternalPublicKey(""); },
                                  KeyExchangeError::emptyPublicKey));
        QCOMPARE(store.ExternalPublicKey(), peer);
        QVERIFY(store.SharedSecret() == secret);
    }

    void failedPeerKeyLeavesTheStoreAsItWas() {
        KeyExchangeStore store = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        const std::string peer =
            KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("").localPublicKey();
        store.setExternalPublicKey(peer);
        const AgreedSecret secret = store.SharedSecret();
        QVERIFY(throwsKeyExchange([&] { store.setExternalPublicKey("not base64!"); },
                                  KeyExchangeError::invalidKey));
        QVERIFY(throwsCrypto([&] { store.setExternalPublicKey(base64Encode(Bytes(31, 9))); },
                             Kind::incorrectKeySize));
        // A low-order point (all zeros) gives an all-zero secret, which is refused.
        QVERIFY(throwsCrypto([&] { store.setExternalPublicKey(base64Encode(Bytes(32, 0))); },
                             Kind::invalidPoint));
        QCOMPARE(store.ExternalPublicKey(), peer);
        QVERIFY(store.SharedSecret() == secret);
    }

    void resetPrivateKeyWithPeerChangesSecretAndPublicKey() {
        KeyExchangeStore store = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        const KeyExchangeStore peer = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        store.setExternalPublicKey(peer.localPublicKey());
        const AgreedSecret before = store.SharedSecret();
        const std::string publicBefore = store.localPublicKey();
        const std::string privateBefore = store.privateKey();
        store.resetPrivateKey("");
        QVERIFY(store.localPublicKey() != publicBefore);
        QVERIFY(store.privateKey() != privateBefore);
        QVERIFY(!(store.SharedSecret() == before));
        QCOMPARE(store.ExternalPublicKey(), peer.localPublicKey());
        // The new secret is the agreement of the new key pair with the peer.
        QVERIFY(store.SharedSecret() == CreateSharedSecret(KeyExchangeCurve::curve25519,
                                                           peer.privateKey(),
                                                           store.localPublicKey()));
    }

    void resetPrivateKeyReproducesAKnownPublicKey() {
        KeyExchangeStore store = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        store.resetPrivateKey(b64hex(kAlicePrivateHex));
        QCOMPARE(store.privateKey(), b64hex(kAlicePrivateHex));
        QCOMPARE(store.localPublicKey(), b64hex(kAlicePublicHex));
        store.setExternalPublicKey(b64hex(kBobPublicHex));
        QCOMPARE(toHex(store.SharedSecret().bytes()), kSharedHex);
        QCOMPARE(toHex(store.SharedSecret().data()), kSharedHex);
    }

    void failedResetLeavesTheStoreAsItWas() {
        KeyExchangeStore store = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        store.setExternalPublicKey(b64hex(kBobPublicHex));
        const KeyExchangeStore before = store;
        QVERIFY(
            throwsKeyExchange([&] { store.resetPrivateKey("abc"); }, KeyExchangeError::invalidKey));
        QVERIFY(throwsCrypto([&] { store.resetPrivateKey(base64Encode(Bytes(16, 1))); },
                             Kind::incorrectKeySize));
        QCOMPARE(store.privateKey(), before.privateKey());
        QCOMPARE(store.localPublicKey(), before.localPublicKey());
        QVERIFY(store.SharedSecret() == before.SharedSecret());
    }

    void clearingThePeerKeyKeepsTheOwnKeys() {
        KeyExchangeStore store =
            KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(b64hex(kBobPublicHex));
        const std::string own = store.localPublicKey();
        QVERIFY(store.hasSharedSecret());
        store.clearExternalPublicKey();
        QVERIFY(!store.hasSharedSecret());
        QVERIFY(store.externalPublicKey().empty());
        QCOMPARE(store.localPublicKey(), own);
        QVERIFY(throwsKeyExchange([&] { store.ExternalPublicKey(); },
                                  KeyExchangeError::publicKeyNotSet));
        QVERIFY(
            throwsKeyExchange([&] { store.SharedSecret(); }, KeyExchangeError::publicKeyNotSet));
        QVERIFY(throwsKeyExchange([&] { store.decrypt("", "", "", ""); },
                                  KeyExchangeError::publicKeyNotSet));
        // Setting it again works.
        store.setExternalPublicKey(b64hex(kBobPublicHex));
        QVERIFY(store.hasSharedSecret());
    }

    void base64KeyText() {
        const std::string key = b64hex(kBobPublicHex);
        QCOMPARE(key.size(), std::size_t{44});
        QCOMPARE(Curve25519PublicStore(key).rawRepresentation(), fromHex(kBobPublicHex));
        QVERIFY(throwsKeyExchange([&] { Curve25519PublicStore(key + "\n"); },
                                  KeyExchangeError::invalidKey));
        QVERIFY(throwsKeyExchange([&] { Curve25519PublicStore(" " + key); },
                                  KeyExchangeError::invalidKey));
        QVERIFY(throwsKeyExchange([&] { Curve25519PublicStore(key.substr(0, 43)); },
                                  KeyExchangeError::invalidKey));
        QVERIFY(
            throwsKeyExchange([&] { Curve25519PublicStore(""); }, KeyExchangeError::invalidKey));
        QVERIFY(throwsKeyExchange([&] { P256PublicStore(""); }, KeyExchangeError::invalidKey));
        QVERIFY(throwsKeyExchange([&] { Curve25519PrivateStore("a\nbc="); },
                                  KeyExchangeError::invalidKey));
        // The empty private key string is a new key.
        const PrivateKey fresh = Curve25519PrivateStore("");
        QCOMPARE(fresh.curve(), KeyExchangeCurve::curve25519);
        QCOMPARE(fresh.rawRepresentation().size(), std::size_t{32});
    }

    void rawSizesPerCurve() {
        struct Case {
            KeyExchangeCurve curve;
            std::size_t privateSize;
            std::size_t publicSize;
        };
        const Case cases[] = {{KeyExchangeCurve::curve25519, 32, 32},
                              {KeyExchangeCurve::p256, 32, 64},
                              {KeyExchangeCurve::p384, 48, 96},
                              {KeyExchangeCurve::p521, 66, 132}};
        for (const Case &c : cases) {
            QCOMPARE(rawPrivateKeySize(c.curve), c.privateSize);
            QCOMPARE(rawPublicKeySize(c.curve), c.publicSize);
            const KeyExchangeLocalKeys keys = KeyExchangeCurveKeys(c.curve, "");
            QCOMPARE(base64Decode(keys.privateKey)->size(), c.privateSize);
            QCOMPARE(base64Decode(keys.publicKey)->size(), c.publicSize);
            // Round trip through the decoders.
            QCOMPARE(KeyExchangeCurveKeys(c.curve, keys.privateKey).publicKey, keys.publicKey);
            QCOMPARE(base64Encode(PublicStore(c.curve, keys.publicKey).rawRepresentation()),
                     keys.publicKey);
            // Wrong lengths are the library's key-size error.
            QVERIFY(throwsCrypto(
                [&] { PublicStore(c.curve, base64Encode(Bytes(c.publicSize + 1, 1))); },
                Kind::incorrectKeySize));
            QVERIFY(throwsCrypto(
                [&] { PrivateStore(c.curve, base64Encode(Bytes(c.privateSize - 1, 1))); },
                Kind::incorrectKeySize));
        }
        QCOMPARE(P256PrivateStore().rawRepresentation().size(), std::size_t{32});
        QCOMPARE(P384PrivateStore().publicKey().rawRepresentation().size(), std::size_t{96});
        QCOMPARE(P521PrivateStore().curve(), KeyExchangeCurve::p521);
        QCOMPARE(Curve25519PrivateStore().publicKey().curve(), KeyExchangeCurve::curve25519);
        QCOMPARE(rawPublicKeySize(KeyExchangeCurve::unknown), std::size_t{0});
    }

    void nistPublicPointMustBeOnTheCurve() {
        const KeyExchangeLocalKeys keys = KeyExchangeCurveKeys(KeyExchangeCurve::p256, "");
        Bytes raw = *base64Decode(keys.publicKey);
        raw.back() ^= 0x01; // y changed: no longer on the curve
        QVERIFY(throwsCrypto([&] { P256PublicStore(base64Encode(raw)); }, Kind::invalidPoint));
        QVERIFY(
            throwsCrypto([&] { P256PublicStore(base64Encode(Bytes(64, 0))); }, Kind::invalidPoint));
        // Coordinates beyond the field prime.
        QVERIFY(throwsCrypto([&] { P384PublicStore(base64Encode(Bytes(96, 0xff))); },
                             Kind::invalidPoint));
        QVERIFY(throwsCrypto([&] { P521PublicStore(base64Encode(Bytes(132, 0x01))); },
                             Kind::invalidPoint));
        // A key of another curve has another length.
        const std::string p384 = KeyExchangeCurveKeys(KeyExchangeCurve::p384, "").publicKey;
        QVERIFY(throwsCrypto([&] { P256PublicStore(p384); }, Kind::incorrectKeySize));
    }

    void nistPrivateScalarMustBeInRange() {
        QVERIFY(
            throwsCrypto([] { P256PrivateStore(base64Encode(Bytes(32, 0))); }, Kind::underlying));
        QVERIFY(throwsCrypto([] { P256PrivateStore(base64Encode(Bytes(32, 0xff))); },
                             Kind::underlying));
        QVERIFY(throwsCrypto([] { P521PrivateStore(base64Encode(Bytes(66, 0xff))); },
                             Kind::underlying));
        // The scalar 1 is valid: its public key is the generator.
        Bytes one(32, 0);
        one.back() = 1;
        const std::string generator =
            "6b17d1f2e12c4247f8bce6e563a440f277037d812deb33a0f4a13945d898c296"
            "4fe342e2fe1a7f9b8ee7eb4a7c0f9e162bce33576b315ececbb6406837bf51f5";
        QCOMPARE(toHex(P256PrivateStore(base64Encode(one)).publicKey().rawRepresentation()),
                 generator);
    }

    void nistStoresAgree() {
        for (const KeyExchangeCurve curve :
             {KeyExchangeCurve::p256, KeyExchangeCurve::p384, KeyExchangeCurve::p521}) {
            KeyExchangeStore a(curve, HashFunction::sha256, KeyExchangeKDF::hkdf,
                               KeyExchangeAEAD::aesgcm, "");
            KeyExchangeStore b(curve, HashFunction::sha256, KeyExchangeKDF::hkdf,
                               KeyExchangeAEAD::aesgcm, a.localPublicKey());
            a.setExternalPublicKey(b.localPublicKey());
            QVERIFY(a.SharedSecret() == b.SharedSecret());
            QCOMPARE(a.SharedSecret().size(), rawPrivateKeySize(curve));
            const KeyExchangeAEADStore record = a.encrypt(bytesOf("hello"), bytesOf("17"));
            QCOMPARE(textOf(b.decryptAEADStore(record)), std::string("hello"));
        }
    }

    void lowOrderX25519PointsAreRefused() {
        const std::string own = KeyExchangeCurveKeys(KeyExchangeCurve::curve25519, "").privateKey;
        Bytes one(32, 0);
        one[0] = 1;
        for (const Bytes &point : {Bytes(32, 0), one}) {
            QVERIFY(throwsCrypto(
                [&] { CreateSharedSecret(KeyExchangeCurve::curve25519, own, base64Encode(point)); },
                Kind::invalidPoint));
        }
    }

    void keyObjects() {
        const PrivateKey alice = Curve25519PrivateStore(b64hex(kAlicePrivateHex));
        const PublicKey bob = Curve25519PublicStore(b64hex(kBobPublicHex));
        QCOMPARE(toHex(alice.sharedSecretFromKeyAgreementData(bob)), kSharedHex);
        // Copies share the key; moved-from objects are empty and refuse use.
        PrivateKey copy = alice;
        QCOMPARE(copy.rawRepresentation(), alice.rawRepresentation());
        PrivateKey moved = std::move(copy);
        QCOMPARE(toHex(moved.publicKey().rawRepresentation()), kAlicePublicHex);
        QVERIFY(throwsKeyExchange([&] { (void)copy.rawRepresentation(); },
                                  KeyExchangeError::invalidKey));
        // Keys of different curves do not agree.
        QVERIFY(throwsCrypto(
            [&] { alice.sharedSecretFromKeyAgreementData(P256PrivateStore().publicKey()); },
            Kind::incorrectKeySize));
        QVERIFY(throwsKeyExchange([] { PrivateStore(KeyExchangeCurve::unknown, ""); },
                                  KeyExchangeError::invalidCurve));
        QVERIFY(throwsKeyExchange([] { PublicStore(KeyExchangeCurve::unknown, "AAAA"); },
                                  KeyExchangeError::invalidCurve));
        QVERIFY(throwsKeyExchange([] { KeyExchangeCurveKeys(KeyExchangeCurve::unknown, ""); },
                                  KeyExchangeError::invalidCurve));
        QVERIFY(throwsKeyExchange(
            [] { CreateSharedSecret(KeyExchangeCurve::unknown, "", b64hex(kBobPublicHex)); },
            KeyExchangeError::invalidCurve));
    }

    void symmetricKeyDerivation() {
        const AgreedSecret secret(SecretBytes(fromHex(kSharedHex)));
        const Bytes salt(32, 7);
        const Bytes info = bytesOf("1732176000123");
        QCOMPARE(
            KeyExchangeSymmetricKey(secret, HashFunction::sha256, KeyExchangeKDF::hkdf, salt, info)
                .size(),
            std::size_t{32});
        QCOMPARE(
            KeyExchangeSymmetricKey(secret, HashFunction::sha384, KeyExchangeKDF::hkdf, salt, info)
                .size(),
            std::size_t{48});
        QCOMPARE(
            KeyExchangeSymmetricKey(secret, HashFunction::sha512, KeyExchangeKDF::hkdf, salt, info)
                .size(),
            std::size_t{64});
        QVERIFY(throwsKeyExchange(
            [&] {
                KeyExchangeSymmetricKey(secret, HashFunction::sha256, KeyExchangeKDF::unknown, salt,
                                        info);
            },
            KeyExchangeError::invalidKDF));
        // Salt and info both change the key.
        const SymmetricKey base =
            KeyExchangeSymmetricKey(secret, HashFunction::sha256, KeyExchangeKDF::hkdf, salt, info);
        QVERIFY(!(base == KeyExchangeSymmetricKey(secret, HashFunction::sha256,
                                                  KeyExchangeKDF::hkdf, Bytes(32, 8), info)));
        QVERIFY(
            !(base == KeyExchangeSymmetricKey(secret, HashFunction::sha256, KeyExchangeKDF::hkdf,
                                              salt, bytesOf("1732176000124"))));
        // SHA-512 preset: a 64-byte key from the store's own secret.
        const KeyExchangeStore store =
            KeyExchange_Curve25519_SHA512_HKDF_AESGCM_Store(b64hex(kBobPublicHex));
        QCOMPARE(KeyExchangeSymmetricKey(store.SharedSecret(), store.hashFunction(), store.kdf(),
                                         salt, info)
                     .size(),
                 std::size_t{64});
    }

    void hkdfMatchesOpenSSLsHKDF() {
        // HKDFDerive against OpenSSL's own HKDF (EVP_KDF) over a spread of sizes.
        EVP_KDF *kdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr);
        QVERIFY(kdf != nullptr);
        for (const auto &[hash, name] :
             {std::pair{HashFunction::sha256, "SHA256"}, std::pair{HashFunction::sha384, "SHA384"},
              std::pair{HashFunction::sha512, "SHA512"}}) {
            for (const std::size_t ikmSize : {1, 32, 200}) {
                for (const std::size_t saltSize : {0, 13, 32, 200}) {
                    for (const std::size_t infoSize : {0, 13, 1000}) {
                        for (const std::size_t length :
                             {std::size_t{1}, digestLength(hash), std::size_t{100},
                              255 * digestLength(hash)}) {
                            const Bytes ikm(ikmSize, 0x0b);
                            const Bytes salt(saltSize, 0x5c);
                            const Bytes info(infoSize, 0x36);
                            Bytes expected(length);
                            EVP_KDF_CTX *ctx = EVP_KDF_CTX_new(kdf);
                            std::uint8_t empty = 0;
                            OSSL_PARAM params[] = {
                                OSSL_PARAM_construct_utf8_string("digest", const_cast<char *>(name),
                                                                 0),
                                OSSL_PARAM_construct_octet_string(
                                    "key", const_cast<std::uint8_t *>(ikm.data()), ikm.size()),
                                OSSL_PARAM_construct_octet_string(
                                    "salt",
                                    salt.empty() ? &empty : const_cast<std::uint8_t *>(salt.data()),
                                    salt.size()),
                                OSSL_PARAM_construct_octet_string(
                                    "info",
                                    info.empty() ? &empty : const_cast<std::uint8_t *>(info.data()),
                                    info.size()),
                                OSSL_PARAM_construct_end()};
                            const int ok =
                                EVP_KDF_derive(ctx, expected.data(), expected.size(), params);
                            EVP_KDF_CTX_free(ctx);
                            QCOMPARE(ok, 1);
                            QCOMPARE(toHex(HKDFDerive(hash, ikm, salt, info, length).bytes()),
                                     toHex(expected));
                        }
                    }
                }
            }
        }
        EVP_KDF_free(kdf);
        QCOMPARE(HKDFDerive(HashFunction::sha256, Bytes(32, 1), {}, {}, 0).size(), std::size_t{0});
        QVERIFY(throwsCrypto(
            [] { HKDFDerive(HashFunction::sha512, Bytes(32, 1), {}, {}, 255 * 64 + 1); },
            Kind::incorrectParameterSize));
    }

    void longAdditionalDataDerivesLikeHKDF() {
        // Additional data of any length (OpenSSL's HKDF stops at 32 KiB of info): check against an
        // independent HKDF written with Qt's HMAC.
        const Bytes ikm = fromHex(kSharedHex);
        const Bytes salt(32, 3);
        for (const std::size_t infoSize :
             {std::size_t{32 * 1024}, std::size_t{32 * 1024 + 1}, std::size_t{100000}}) {
            Bytes info(infoSize);
            for (std::size_t i = 0; i < info.size(); ++i) {
                info[i] = static_cast<std::uint8_t>(i * 31 + 7);
            }
            for (const auto &[hash, qtHash] :
                 {std::pair{HashFunction::sha256, QCryptographicHash::Sha256},
                  std::pair{HashFunction::sha384, QCryptographicHash::Sha384},
                  std::pair{HashFunction::sha512, QCryptographicHash::Sha512}}) {
                const QByteArray ikmArray(reinterpret_cast<const char *>(ikm.data()),
                                          qsizetype(ikm.size()));
                const QByteArray saltArray(reinterpret_cast<const char *>(salt.data()),
                                           qsizetype(salt.size()));
                const QByteArray infoArray(reinterpret_cast<const char *>(info.data()),
                                           qsizetype(info.size()));
                const QByteArray prk =
                    QMessageAuthenticationCode::hash(ikmArray, saltArray, qtHash);
                const std::size_t length = 100; // more than one block for every hash
                QByteArray okm;
                QByteArray block;
                for (char counter = 1; std::size_t(okm.size()) < length; ++counter) {
                    block = QMessageAuthenticationCode::hash(
                        block + infoArray + QByteArray(1, counter), prk, qtHash);
                    okm += block;
                }
                okm.truncate(qsizetype(length));
                const SecretBytes derived = HKDFDerive(hash, ikm, salt, info, length);
                QCOMPARE(toHex(derived.bytes()), okm.toHex().toStdString());
            }
        }
        // An empty salt is the same as hash-length zeros.
        const Bytes bigInfo(40000, 1);
        QCOMPARE(HKDFDerive(HashFunction::sha256, ikm, {}, bigInfo, 32).data(),
                 HKDFDerive(HashFunction::sha256, ikm, Bytes(32, 0), bigInfo, 32).data());
    }

    void hkdfFromSeveralThreads() {
        // Each thread has its own HMAC contexts; results do not depend on the thread.
        const Bytes ikm = fromHex(kSharedHex);
        const std::string expected =
            toHex(HKDFDerive(HashFunction::sha256, ikm, Bytes(32, 4), bytesOf("17"), 32).bytes());
        std::atomic<int> mismatches{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < 500; ++i) {
                    if (toHex(HKDFDerive(HashFunction::sha256, ikm, Bytes(32, 4), bytesOf("17"), 32)
                                  .bytes()) != expected) {
                        ++mismatches;
                    }
                    (void)HKDFDerive(HashFunction::sha512, ikm, Bytes(7, 1), bytesOf("x"), 64);
                }
            });
        }
        for (auto &thread : threads) {
            thread.join();
        }
        QCOMPARE(mismatches.load(), 0);
    }

    void storesAreCopyableAndMovable() {
        static_assert(std::is_copy_constructible_v<KeyExchangeStore> &&
                      std::is_move_constructible_v<KeyExchangeStore>);
        KeyExchangeStore original =
            KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(b64hex(kBobPublicHex));
        KeyExchangeStore copy = original;
        QCOMPARE(copy.privateKey(), original.privateKey());
        QVERIFY(copy.SharedSecret() == original.SharedSecret());
        copy.resetPrivateKey(""); // independent of the original
        QVERIFY(copy.localPublicKey() != original.localPublicKey());
        const std::string own = original.localPublicKey();
        KeyExchangeStore moved = std::move(original);
        QCOMPARE(moved.localPublicKey(), own);
        QVERIFY(moved.hasSharedSecret());
        KeyExchangeStore assigned;
        assigned = moved;
        QCOMPARE(assigned.localPublicKey(), own);
        assigned = KeyExchangeStore();
        QVERIFY(assigned.localPublicKey().empty());
    }

    void secretsCompareAndCopy() {
        SecretBytes a(fromHex("00112233"));
        SecretBytes b = a;
        QVERIFY(a == b);
        SecretBytes c(std::move(b));
        QVERIFY(c == a);
        QVERIFY(b.empty());
        c.clear();
        QVERIFY(c.empty());
        QVERIFY(!(c == a));
    }
};

QTEST_GUILESS_MAIN(LumacryptKeyExchange)
#include "tst_keyexchange.moc"
