// Known-answer vectors of the sealed channel, produced by an independent implementation: key pairs,
// shared secrets, derived keys, exact sealed records, long-digest presets, timestamps and PEM.
#include "TestSupport.h"

using namespace lumacrypt;
using namespace lumatest;

namespace {

KeyExchangeCurve curveNamed(const std::string &name) {
    if (name == "p256") {
        return KeyExchangeCurve::p256;
    }
    if (name == "p384") {
        return KeyExchangeCurve::p384;
    }
    if (name == "p521") {
        return KeyExchangeCurve::p521;
    }
    if (name == "curve25519" || name == "x25519") {
        return KeyExchangeCurve::curve25519;
    }
    return KeyExchangeCurve::unknown;
}

HashFunction hashNamed(const std::string &name) {
    if (name == "sha384") {
        return HashFunction::sha384;
    }
    if (name == "sha512") {
        return HashFunction::sha512;
    }
    return HashFunction::sha256;
}

KeyExchangeAEAD aeadNamed(const std::string &name) {
    if (name == "aesgcm") {
        return KeyExchangeAEAD::aesgcm;
    }
    if (name == "chachapoly") {
        return KeyExchangeAEAD::chachapoly;
    }
    return KeyExchangeAEAD::unknown;
}

} // namespace

class LumacryptVectors : public QObject {
    Q_OBJECT

    nlohmann::json vectors_;
    int messagesChecked_ = 0;

    // A store on `curve` holding the client's private key and the backend's public key.
    KeyExchangeStore clientStore(KeyExchangeCurve curve, HashFunction hash, KeyExchangeAEAD aead,
                                 const nlohmann::json &pair) {
        KeyExchangeStore store(curve, hash, KeyExchangeKDF::hkdf, aead, "");
        store.resetPrivateKey(pair.at("client_private").get<std::string>());
        store.setExternalPublicKey(pair.at("backend_public").get<std::string>());
        return store;
    }

    void checkPair(KeyExchangeCurve curve, const nlohmann::json &pair) {
        const auto clientPrivate = pair.at("client_private").get<std::string>();
        const auto clientPublic = pair.at("client_public").get<std::string>();
        const auto backendPrivate = pair.at("backend_private").get<std::string>();
        const auto backendPublic = pair.at("backend_public").get<std::string>();
        const auto secretHex = pair.at("shared_secret_hex").get<std::string>();

        const KeyExchangeLocalKeys client = KeyExchangeCurveKeys(curve, clientPrivate);
        QCOMPARE(client.privateKey, clientPrivate);
        QCOMPARE(client.publicKey, clientPublic);
        const KeyExchangeLocalKeys backend = KeyExchangeCurveKeys(curve, backendPrivate);
        QCOMPARE(backend.privateKey, backendPrivate);
        QCOMPARE(backend.publicKey, backendPublic);

        const AgreedSecret forward = CreateSharedSecret(curve, clientPrivate, backendPublic);
        const AgreedSecret backward = CreateSharedSecret(curve, backendPrivate, clientPublic);
        QCOMPARE(toHex(forward.bytes()), secretHex);
        QCOMPARE(toHex(backward.bytes()), secretHex);

        // The same through the key objects.
        const PrivateKey own = PrivateStore(curve, clientPrivate);
        QCOMPARE(base64Encode(own.rawRepresentation()), clientPrivate);
        QCOMPARE(base64Encode(own.publicKey().rawRepresentation()), clientPublic);
        QCOMPARE(toHex(own.sharedSecretFromKeyAgreementData(PublicStore(curve, backendPublic))),
                 secretHex);
    }

    void checkMessage(KeyExchangeCurve curve, const nlohmann::json &pair,
                      const nlohmann::json &message) {
        const HashFunction hash = hashNamed(message.at("hash").get<std::string>());
        const KeyExchangeAEAD aead = aeadNamed(message.at("aead").get<std::string>());
        QVERIFY(aead != KeyExchangeAEAD::unknown);
        const auto plaintext = message.at("plaintext_utf8").get<std::string>();
        const auto &expected = message.at("record");
        const KeyExchangeAEADStore expectedRecord{expected.at("KDFNonce").get<std::string>(),
                                                  expected.at("Ciphertext").get<std::string>(),
                                                  expected.at("AEADNonce").get<std::string>(),
                                                  expected.at("AdditionalData").get<std::string>()};
        const Bytes salt = *base64Decode(expectedRecord.kdfNonce);
        const Bytes nonce = *base64Decode(expectedRecord.aeadNonce);
        const Bytes additionalData = *base64Decode(expectedRecord.additionalData);

        const KeyExchangeStore client = clientStore(curve, hash, aead, pair);
        QCOMPARE(toHex(client.SharedSecret().bytes()),
                 pair.at("shared_secret_hex").get<std::string>());

        // Derived key.
        const SymmetricKey key = KeyExchangeSymmetricKey(
            client.SharedSecret(), hash, KeyExchangeKDF::hkdf, salt, additionalData);
        QCOMPARE(toHex(key.bytes()), message.at("derived_key_hex").get<std::string>());

        // Sealing the plaintext bytes with the fixed nonces gives exactly the record.
        const KeyExchangeAEADStore sealed =
            client.encryptWithNonces(salt, bytesOf(plaintext), nonce, additionalData);
        QCOMPARE(sealed.kdfNonce, expectedRecord.kdfNonce);
        QCOMPARE(sealed.ciphertext, expectedRecord.ciphertext);
        QCOMPARE(sealed.aeadNonce, expectedRecord.aeadNonce);
        QCOMPARE(sealed.additionalData, expectedRecord.additionalData);
        QVERIFY(sealed == expectedRecord);

        // The envelope encoder reproduces the plaintext byte for byte, so sealing the envelope
        // fields gives the same record.
        const KeyExchangeTypeIDAndData envelope = KeyExchangeTypeIDAndData::fromJSON(plaintext);
        QCOMPARE(envelope.toJSON(), plaintext);
        const KeyExchangeAEADStore sealedEnvelope = client.encodeJSONAndEncryptWithNonces(
            envelope.type, envelope.id, envelope.data, salt, nonce, additionalData);
        QVERIFY(sealedEnvelope == expectedRecord);
        const KeyExchangeAEADStore sealedGeneric =
            client.encodeJSONAndEncryptWithNonces(envelope, salt, nonce, additionalData);
        QVERIFY(sealedGeneric == expectedRecord);

        // The record's JSON round-trips, and both sides open it.
        const KeyExchangeAEADStore reparsed = KeyExchangeAEADStore::fromJSON(sealed.toJSON());
        QVERIFY(reparsed == expectedRecord);
        QCOMPARE(textOf(client.decryptAEADStore(expectedRecord)), plaintext);

        KeyExchangeStore backend(curve, hash, KeyExchangeKDF::hkdf, aead, "");
        backend.resetPrivateKey(pair.at("backend_private").get<std::string>());
        backend.setExternalPublicKey(pair.at("client_public").get<std::string>());
        QCOMPARE(textOf(backend.decrypt(expectedRecord.kdfNonce, expectedRecord.ciphertext,
                                        expectedRecord.aeadNonce, expectedRecord.additionalData)),
                 plaintext);
        ++messagesChecked_;
    }

private slots:
    void initTestCase() {
        const QString path = vectorPath(QStringLiteral("channel_vectors.json"));
        if (path.isEmpty()) {
            QFAIL("channel_vectors.json not found: set TARNWICK_SHARED_DIR to the shared folder");
        }
        const auto json = loadJSON(path);
        if (!json) {
            QFAIL("channel_vectors.json is not valid JSON");
        }
        vectors_ = *json;
        QVERIFY(vectors_.contains("x25519"));
        QVERIFY(vectors_.contains("nist"));
    }

    void x25519KeyPairsAndSecrets() {
        const auto &pairs = vectors_.at("x25519");
        QVERIFY(!pairs.empty());
        for (const auto &pair : pairs) {
            checkPair(KeyExchangeCurve::curve25519, pair);
        }
    }

    void x25519SealedMessages() {
        int count = 0;
        for (const auto &pair : vectors_.at("x25519")) {
            for (const auto &message : pair.at("messages")) {
                checkMessage(KeyExchangeCurve::curve25519, pair, message);
                ++count;
            }
        }
        QVERIFY(count > 0);
        qInfo("x25519: %d sealed messages reproduced exactly", count);
    }

    void nistCurves() {
        int count = 0;
        for (const auto &pair : vectors_.at("nist")) {
            const KeyExchangeCurve curve = curveNamed(pair.at("curve").get<std::string>());
            QVERIFY(curve != KeyExchangeCurve::unknown);
            checkPair(curve, pair);
            checkMessage(curve, pair, pair.at("message"));
            ++count;
        }
        QCOMPARE(count, 3);
    }

    void longDigestPresets() {
        const auto &presets = vectors_.at("long_digest_presets");
        QVERIFY(!presets.empty());
        for (const auto &preset : presets) {
            const HashFunction hash = hashNamed(preset.at("hash").get<std::string>());
            QVERIFY(hash != HashFunction::sha256);
            const AgreedSecret secret(SecretBytes(fromHex(preset.at("shared_secret_hex"))));
            const Bytes salt = *base64Decode(preset.at("salt_b64").get<std::string>());
            const Bytes info = *base64Decode(preset.at("info_b64").get<std::string>());
            const SymmetricKey key =
                KeyExchangeSymmetricKey(secret, hash, KeyExchangeKDF::hkdf, salt, info);
            QCOMPARE(key.size(), digestLength(hash));
            QCOMPARE(toHex(key.bytes()), preset.at("derived_key_hex").get<std::string>());

            const Bytes nonce(12, 0x42);
            const Bytes plaintext = bytesOf("{\"Type\":\"ping\",\"ID\":\"\",\"Data\":\"[]\"}");
            QVERIFY(throwsCrypto([&] { AESGCMEncrypt(key, plaintext, nonce, info); },
                                 CryptoError::Kind::incorrectKeySize));
            QVERIFY(throwsCrypto([&] { ChaChaPolyEncrypt(key, plaintext, nonce, info); },
                                 CryptoError::Kind::incorrectKeySize));
            QVERIFY(throwsCrypto(
                [&] { AEADEncrypt(KeyExchangeAEAD::aesgcm, key, plaintext, nonce, info); },
                CryptoError::Kind::incorrectKeySize));

            // The same through a store of the matching preset (using the first X25519 pair).
            const auto &pair = vectors_.at("x25519").at(0);
            KeyExchangeStore store = hash == HashFunction::sha384
                                         ? KeyExchange_Curve25519_SHA384_HKDF_AESGCM_Store(
                                               pair.at("backend_public").get<std::string>())
                                         : KeyExchange_Curve25519_SHA512_HKDF_AESGCM_Store(
                                               pair.at("backend_public").get<std::string>());
            store.resetPrivateKey(pair.at("client_private").get<std::string>());
            QCOMPARE(toHex(store.SharedSecret().bytes()),
                     preset.at("shared_secret_hex").get<std::string>());
            const SymmetricKey storeKey = KeyExchangeSymmetricKey(
                store.SharedSecret(), store.hashFunction(), store.kdf(), salt, info);
            QCOMPARE(toHex(storeKey.bytes()), preset.at("derived_key_hex").get<std::string>());
            QVERIFY(throwsCrypto([&] { store.encryptWithNonces(salt, plaintext, nonce, info); },
                                 CryptoError::Kind::incorrectKeySize));
            QVERIFY(throwsCrypto([&] { store.encrypt(plaintext, info); },
                                 CryptoError::Kind::incorrectKeySize));
        }
    }

    void timestamps() {
        const auto &cases = vectors_.at("timestamps");
        QVERIFY(!cases.empty());
        for (const auto &c : cases) {
            const auto text = c.at("text").get<std::string>();
            const auto b64 = c.at("additional_data_b64").get<std::string>();
            QCOMPARE(base64Encode(bytesOf(text)), b64);
            const std::optional<std::int64_t> value = KeyExchangeTimestamp(b64);
            if (c.at("value").is_null()) {
                QVERIFY2(!value.has_value(), text.c_str());
            } else {
                QVERIFY2(value.has_value(), text.c_str());
                QCOMPARE(*value, c.at("value").get<std::int64_t>());
            }
        }
    }

    void pem() {
        const auto &cases = vectors_.at("pem");
        QVERIFY(!cases.empty());
        for (const auto &c : cases) {
            const auto output = c.at("output").get<std::string>();
            const std::optional<std::string> body = PEMSearchString(output);
            if (c.at("body").is_null()) {
                QVERIFY(!body.has_value());
                QVERIFY(throwsPEM([&] { PEMFromString(output); }));
            } else {
                QVERIFY(body.has_value());
                QCOMPARE(*body, c.at("body").get<std::string>());
                QCOMPARE(PEMFromString(output), *body);
                // The body is a usable peer key.
                QCOMPARE(Curve25519PublicStore(*body).rawRepresentation().size(), std::size_t{32});
            }
        }
    }
};

QTEST_GUILESS_MAIN(LumacryptVectors)
#include "tst_vectors.moc"
