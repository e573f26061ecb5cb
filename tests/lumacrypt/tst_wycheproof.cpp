// Wycheproof test vectors (X25519, ECDH P-256/384/521 with uncompressed points, HKDF-SHA-2,
// AES-GCM, ChaCha20-Poly1305). Every case is asserted by its "result": "valid" must pass,
// "invalid" must fail, "acceptable" may go either way and is counted.
#include "TestSupport.h"

#include <algorithm>

using namespace lumacrypt;
using namespace lumatest;

namespace {

struct Tally {
    int ran = 0;
    int valid = 0;
    int invalid = 0;
    int acceptablePassed = 0;
    int acceptableFailed = 0;
    int skipped = 0;
};

bool hasFlag(const nlohmann::json &test, const char *flag) {
    const auto &flags = test.at("flags");
    return std::any_of(flags.begin(), flags.end(),
                       [&](const nlohmann::json &f) { return f.get<std::string>() == flag; });
}

std::string caseName(const char *file, const nlohmann::json &test) {
    return std::string(file) + " tcId " + std::to_string(test.at("tcId").get<int>()) + " (" +
           test.at("comment").get<std::string>() + ")";
}

void report(const char *file, const Tally &t) {
    qInfo("%s: %d cases ran (%d valid, %d invalid, acceptable %d passed / %d failed), %d skipped",
          file, t.ran, t.valid, t.invalid, t.acceptablePassed, t.acceptableFailed, t.skipped);
}

// A big-endian scalar from Wycheproof (may carry leading zero bytes or be shorter) as the raw
// fixed-size private key; empty when it does not fit.
Bytes fixedScalar(Bytes scalar, std::size_t size) {
    auto first = std::find_if(scalar.begin(), scalar.end(), [](std::uint8_t b) { return b != 0; });
    scalar.erase(scalar.begin(), first);
    if (scalar.size() > size) {
        return {};
    }
    Bytes out(size - scalar.size(), 0);
    out.insert(out.end(), scalar.begin(), scalar.end());
    return out;
}

} // namespace

class LumacryptWycheproof : public QObject {
    Q_OBJECT

    std::optional<nlohmann::json> load(const char *file) {
        const QString path = vectorPath(QStringLiteral("wycheproof/") + QString::fromLatin1(file));
        if (path.isEmpty()) {
            return std::nullopt;
        }
        return loadJSON(path);
    }

    // Records the outcome of one case against its expected result; returns false on a mismatch.
    static bool judge(const nlohmann::json &test, bool succeeded, Tally &tally) {
        ++tally.ran;
        const auto result = test.at("result").get<std::string>();
        if (result == "valid") {
            ++tally.valid;
            return succeeded;
        }
        if (result == "invalid") {
            ++tally.invalid;
            return !succeeded;
        }
        (succeeded ? tally.acceptablePassed : tally.acceptableFailed)++;
        return true;
    }

    void ecdh(const char *file, KeyExchangeCurve curve) {
        const auto json = load(file);
        if (!json) {
            QFAIL(
                qPrintable(QStringLiteral("missing or unreadable: ") + QString::fromLatin1(file)));
        }
        const std::size_t fieldSize = rawPrivateKeySize(curve);
        Tally tally;
        for (const auto &group : json->at("testGroups")) {
            QCOMPARE(group.at("encoding").get<std::string>(), std::string("ecpoint"));
            for (const auto &test : group.at("tests")) {
                const Bytes point = fromHex(test.at("public").get<std::string>());
                // Our keys are x || y without the uncompressed-point prefix; anything else is
                // handed over as it is and must be refused.
                Bytes raw = point;
                if (point.size() == 1 + 2 * fieldSize && point[0] == 0x04) {
                    raw.assign(point.begin() + 1, point.end());
                }
                const Bytes scalar =
                    fixedScalar(fromHex(test.at("private").get<std::string>()), fieldSize);
                bool succeeded = false;
                std::string shared;
                try {
                    QVERIFY2(!scalar.empty(), caseName(file, test).c_str());
                    const AgreedSecret secret =
                        CreateSharedSecret(curve, base64Encode(scalar), base64Encode(raw));
                    shared = toHex(secret.bytes());
                    succeeded = true;
                } catch (const CryptoError &) {
                } catch (const KeyExchangeException &) {
                }
                if (succeeded) {
                    QVERIFY2(shared == test.at("shared").get<std::string>(),
                             caseName(file, test).c_str());
                }
                QVERIFY2(judge(test, succeeded, tally), caseName(file, test).c_str());
            }
        }
        report(file, tally);
        QVERIFY(tally.valid > 0 && tally.invalid > 0);
    }

    void hkdf(const char *file, HashFunction hash) {
        const auto json = load(file);
        if (!json) {
            QFAIL(
                qPrintable(QStringLiteral("missing or unreadable: ") + QString::fromLatin1(file)));
        }
        Tally tally;
        for (const auto &group : json->at("testGroups")) {
            for (const auto &test : group.at("tests")) {
                const Bytes ikm = fromHex(test.at("ikm").get<std::string>());
                const Bytes salt = fromHex(test.at("salt").get<std::string>());
                const Bytes info = fromHex(test.at("info").get<std::string>());
                const auto size = test.at("size").get<std::size_t>();
                const auto okm = test.at("okm").get<std::string>();
                bool succeeded = false;
                try {
                    const SecretBytes out = HKDFDerive(hash, ikm, salt, info, size);
                    succeeded = toHex(out.bytes()) == okm;
                    if (size == digestLength(hash)) {
                        // The per-message key derivation is the same HKDF at digest length.
                        const SymmetricKey key = KeyExchangeSymmetricKey(
                            AgreedSecret(SecretBytes(ikm)), hash, KeyExchangeKDF::hkdf, salt, info);
                        QVERIFY2(toHex(key.bytes()) == okm, caseName(file, test).c_str());
                    }
                } catch (const CryptoError &) {
                }
                QVERIFY2(judge(test, succeeded, tally), caseName(file, test).c_str());
            }
        }
        report(file, tally);
        QVERIFY(tally.valid > 0 && tally.invalid > 0);
    }

    using Sealer = Bytes (*)(const SymmetricKey &, std::span<const std::uint8_t>,
                             std::span<const std::uint8_t>, std::span<const std::uint8_t>);
    using Opener = Bytes (*)(const SymmetricKey &, std::span<const std::uint8_t>,
                             std::span<const std::uint8_t>);

    // `skipOtherNonces`: nonces other than 12 bytes are skipped (counted) instead of judged.
    void aead(const char *file, Sealer seal, Opener open, bool skipOtherNonces) {
        const auto json = load(file);
        if (!json) {
            QFAIL(
                qPrintable(QStringLiteral("missing or unreadable: ") + QString::fromLatin1(file)));
        }
        Tally tally;
        for (const auto &group : json->at("testGroups")) {
            const int tagBits = group.at("tagSize").get<int>();
            for (const auto &test : group.at("tests")) {
                const SymmetricKey key(fromHex(test.at("key").get<std::string>()));
                const Bytes iv = fromHex(test.at("iv").get<std::string>());
                const Bytes aad = fromHex(test.at("aad").get<std::string>());
                const Bytes msg = fromHex(test.at("msg").get<std::string>());
                const Bytes ct = fromHex(test.at("ct").get<std::string>());
                const Bytes tag = fromHex(test.at("tag").get<std::string>());
                if (tagBits != 128 || (skipOtherNonces && iv.size() != kAEADNonceSize)) {
                    ++tally.skipped;
                    if (iv.size() != kAEADNonceSize) {
                        // Such nonces are refused, never used.
                        QVERIFY2(throwsCrypto([&] { seal(key, msg, iv, aad); },
                                              CryptoError::Kind::incorrectParameterSize),
                                 caseName(file, test).c_str());
                    }
                    continue;
                }
                Bytes combined = iv;
                combined.insert(combined.end(), ct.begin(), ct.end());
                combined.insert(combined.end(), tag.begin(), tag.end());

                bool sealedMatches = false;
                try {
                    sealedMatches = seal(key, msg, iv, aad) == combined;
                } catch (const CryptoError &) {
                }
                bool opened = false;
                try {
                    opened = open(key, combined, aad) == msg;
                } catch (const CryptoError &) {
                }
                const auto result = test.at("result").get<std::string>();
                if (result == "invalid" && !hasFlag(test, "InvalidNonceSize")) {
                    // A modified tag: sealing gives the right tag, opening must refuse.
                    QVERIFY2(!opened, caseName(file, test).c_str());
                    QVERIFY2(judge(test, opened, tally), caseName(file, test).c_str());
                } else {
                    QVERIFY2(judge(test, sealedMatches && opened, tally),
                             caseName(file, test).c_str());
                }
            }
        }
        report(file, tally);
        QVERIFY(tally.valid > 0 && tally.invalid > 0);
    }

private slots:
    void initTestCase() {
        if (vectorPath(QStringLiteral("wycheproof/x25519_test.json")).isEmpty()) {
            QFAIL("Wycheproof vectors not found: set TARNWICK_SHARED_DIR to the shared folder");
        }
    }

    void x25519() {
        const char *file = "x25519_test.json";
        const auto json = load(file);
        if (!json) {
            QFAIL("x25519_test.json missing or unreadable");
        }
        Tally tally;
        int zeroSecretRefused = 0;
        for (const auto &group : json->at("testGroups")) {
            for (const auto &test : group.at("tests")) {
                const std::string privateKey = base64Encode(fromHex(test.at("private")));
                const std::string publicKey = base64Encode(fromHex(test.at("public")));
                bool succeeded = false;
                std::string shared;
                try {
                    shared = toHex(
                        CreateSharedSecret(KeyExchangeCurve::curve25519, privateKey, publicKey)
                            .bytes());
                    succeeded = true;
                } catch (const CryptoError &) {
                }
                if (hasFlag(test, "ZeroSharedSecret")) {
                    // A low-order peer point giving an all-zero secret is always refused.
                    QVERIFY2(!succeeded, caseName(file, test).c_str());
                    QVERIFY(throwsCrypto(
                        [&] {
                            CreateSharedSecret(KeyExchangeCurve::curve25519, privateKey, publicKey);
                        },
                        CryptoError::Kind::invalidPoint));
                    ++zeroSecretRefused;
                }
                if (succeeded) {
                    QVERIFY2(shared == test.at("shared").get<std::string>(),
                             caseName(file, test).c_str());
                }
                QVERIFY2(judge(test, succeeded, tally), caseName(file, test).c_str());
            }
        }
        report(file, tally);
        qInfo("x25519_test.json: %d zero-shared-secret cases refused", zeroSecretRefused);
        QVERIFY(tally.valid > 0 && zeroSecretRefused > 0);
    }

    void ecdhP256() { ecdh("ecdh_secp256r1_ecpoint_test.json", KeyExchangeCurve::p256); }
    void ecdhP384() { ecdh("ecdh_secp384r1_ecpoint_test.json", KeyExchangeCurve::p384); }
    void ecdhP521() { ecdh("ecdh_secp521r1_ecpoint_test.json", KeyExchangeCurve::p521); }

    void hkdfSha256() { hkdf("hkdf_sha256_test.json", HashFunction::sha256); }
    void hkdfSha384() { hkdf("hkdf_sha384_test.json", HashFunction::sha384); }
    void hkdfSha512() { hkdf("hkdf_sha512_test.json", HashFunction::sha512); }

    void aesGcm() { aead("aes_gcm_test.json", &AESGCMEncrypt, &AESGCMDecrypt, true); }
    void chachaPoly() {
        aead("chacha20_poly1305_test.json", &ChaChaPolyEncrypt, &ChaChaPolyDecrypt, false);
    }
};

QTEST_GUILESS_MAIN(LumacryptWycheproof)
#include "tst_wycheproof.moc"
