// Sealing and opening of records with a store, the record and envelope JSON, the AEAD functions
// and the message decoder, including malformed and tampered input.
#include "TestSupport.h"

#include <stdexcept>

using namespace lumacrypt;
using namespace lumatest;
using Kind = CryptoError::Kind;

namespace envelope_test {
// A value encoded through a free toJSON found by argument-dependent lookup.
struct Ping {
    int sequence = 0;
};
inline std::string toJSON(const Ping &ping) {
    return "{\"Type\":\"ping\",\"ID\":\"" + std::to_string(ping.sequence) + "\",\"Data\":\"[]\"}";
}
} // namespace envelope_test

static_assert(JSONEncodable<KeyExchangeTypeIDAndData>);
static_assert(JSONEncodable<envelope_test::Ping>);
static_assert(!JSONEncodable<int>);

namespace {

struct Pair {
    KeyExchangeStore client;
    KeyExchangeStore backend;
};

Pair makePair(KeyExchangeAEAD aead = KeyExchangeAEAD::aesgcm) {
    KeyExchangeStore client(KeyExchangeCurve::curve25519, HashFunction::sha256,
                            KeyExchangeKDF::hkdf, aead, "");
    KeyExchangeStore backend(KeyExchangeCurve::curve25519, HashFunction::sha256,
                             KeyExchangeKDF::hkdf, aead, client.LocalPublicKey());
    client.setExternalPublicKey(backend.LocalPublicKey());
    return {client, backend};
}

// Another character of the alphabet whose top bit differs: every character's top bit holds data,
// the last group's included, so the decoded bytes always change.
std::string flipDataBit(std::string base64, std::size_t index) {
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::size_t value = alphabet.find(base64[index]);
    base64[index] = alphabet[value ^ 0x20];
    return base64;
}

} // namespace

class LumacryptEnvelope : public QObject {
    Q_OBJECT

private slots:
    void defaultPresetStoresTalkToEachOther() {
        KeyExchangeStore client = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        KeyExchangeStore backend =
            KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(client.LocalPublicKey());
        client.setExternalPublicKey(backend.LocalPublicKey());
        QVERIFY(client.SharedSecret() == backend.SharedSecret());

        const Bytes timestamp = KeyExchangeCurrentTimestampData();
        const KeyExchangeAEADStore record = client.encodeJSONAndEncrypt(
            "addWatchDir", "Family photos", "/home/ana/Pictures", timestamp);
        const std::string json = record.toJSON();
        QCOMPARE(json, "{\"KDFNonce\":\"" + record.kdfNonce + "\",\"Ciphertext\":\"" +
                           record.ciphertext + "\",\"AEADNonce\":\"" + record.aeadNonce +
                           "\",\"AdditionalData\":\"" + record.additionalData + "\"}");
        QCOMPARE(record.id(), record.ciphertext);
        QCOMPARE(record.additionalData, base64Encode(timestamp));

        const KeyExchangeAEADStore received = KeyExchangeAEADStore::fromJSON(json);
        const Bytes plaintext = backend.decryptAEADStore(received);
        QCOMPARE(textOf(plaintext), std::string("{\"Type\":\"addWatchDir\",\"ID\":\"Family "
                                                "photos\",\"Data\":\"/home/ana/Pictures\"}"));
        const KeyExchangeTypeIDAndData envelope =
            KeyExchangeTypeIDAndData::fromJSON(textOf(plaintext));
        QCOMPARE(envelope.type, std::string("addWatchDir"));
        QCOMPARE(envelope.id, std::string("Family photos"));
        QCOMPARE(envelope.data, std::string("/home/ana/Pictures"));
        QCOMPARE(KeyExchangeTimestamp(received.additionalData),
                 std::optional<std::int64_t>(std::stoll(textOf(timestamp))));

        // And the other way round.
        const KeyExchangeAEADStore reply = backend.encrypt(bytesOf("[]"), bytesOf("5"));
        QCOMPARE(textOf(client.decryptAEADStore(reply)), std::string("[]"));
    }

    void sealsAreFreshEveryTime() {
        const Pair p = makePair();
        const KeyExchangeAEADStore a = p.client.encrypt(bytesOf("same"), bytesOf("1"));
        const KeyExchangeAEADStore b = p.client.encrypt(bytesOf("same"), bytesOf("1"));
        QVERIFY(a.kdfNonce != b.kdfNonce);
        QVERIFY(a.aeadNonce != b.aeadNonce);
        QVERIFY(a.ciphertext != b.ciphertext);
        QCOMPARE(base64Decode(a.kdfNonce)->size(), std::size_t{32});
        QCOMPARE(base64Decode(a.aeadNonce)->size(), std::size_t{12});
        QCOMPARE(base64Decode(a.ciphertext)->size(), std::size_t{12 + 4 + 16});
        QCOMPARE(a.additionalData, b.additionalData);
    }

    void fixedNoncesAreDeterministic() {
        const Pair p = makePair();
        const Bytes salt(32, 0x5a);
        const Bytes nonce = fromHex("000102030405060708090a0b");
        const KeyExchangeAEADStore a =
            p.client.encryptWithNonces(salt, bytesOf("data"), nonce, bytesOf("9"));
        const KeyExchangeAEADStore b =
            p.client.encryptWithNonces(salt, bytesOf("data"), nonce, bytesOf("9"));
        QVERIFY(a == b);
        const Bytes combined = *base64Decode(a.ciphertext);
        QCOMPARE(Bytes(combined.begin(), combined.begin() + 12), *base64Decode(a.aeadNonce));
        QCOMPARE(*base64Decode(a.aeadNonce), nonce);
        QCOMPARE(*base64Decode(a.kdfNonce), salt);
        // Only one nonce fixed: the other one is drawn.
        const KeyExchangeAEADStore c =
            p.client.encryptWithNonces(salt, bytesOf("data"), std::nullopt, bytesOf("9"));
        QCOMPARE(c.kdfNonce, a.kdfNonce);
        QVERIFY(c.aeadNonce != a.aeadNonce);
        const KeyExchangeAEADStore d =
            p.client.encryptWithNonces(std::nullopt, bytesOf("data"), nonce, bytesOf("9"));
        QCOMPARE(d.aeadNonce, a.aeadNonce);
        QVERIFY(d.kdfNonce != a.kdfNonce);
        QCOMPARE(textOf(p.backend.decryptAEADStore(c)), std::string("data"));
        QCOMPARE(textOf(p.backend.decryptAEADStore(d)), std::string("data"));
    }

    void suppliedSaltIsUsedAsGiven() {
        const Pair p = makePair();
        for (const Bytes &salt : {Bytes{}, Bytes(7, 1), Bytes(100, 2)}) {
            const KeyExchangeAEADStore record =
                p.client.encryptWithNonces(salt, bytesOf("x"), std::nullopt, bytesOf("1"));
            QCOMPARE(*base64Decode(record.kdfNonce), salt);
            QCOMPARE(textOf(p.backend.decryptAEADStore(record)), std::string("x"));
        }
    }

    void unsupportedNonceLengthsAreRefused() {
        const Pair p = makePair();
        const Pair chacha = makePair(KeyExchangeAEAD::chachapoly);
        for (const std::size_t length : {0, 8, 11, 13, 16}) {
            const Bytes nonce(length, 1);
            QVERIFY(throwsCrypto(
                [&] {
                    p.client.encryptWithNonces(std::nullopt, bytesOf("x"), nonce, bytesOf("1"));
                },
                Kind::incorrectParameterSize));
            QVERIFY(throwsCrypto(
                [&] {
                    chacha.client.encryptWithNonces(std::nullopt, bytesOf("x"), nonce,
                                                    bytesOf("1"));
                },
                Kind::incorrectParameterSize));
        }
    }

    void alteredAEADNonceStillOpens() {
        const Pair p = makePair();
        KeyExchangeAEADStore record = p.client.encrypt(bytesOf("payload"), bytesOf("42"));
        record.aeadNonce = base64Encode(Bytes(12, 0xee));
        QCOMPARE(textOf(p.backend.decryptAEADStore(record)), std::string("payload"));
        // The field is not consulted at all, not even decoded.
        record.aeadNonce = "not base64 at all";
        QCOMPARE(textOf(p.backend.decryptAEADStore(record)), std::string("payload"));
        record.aeadNonce.clear();
        QCOMPARE(textOf(p.backend.decryptAEADStore(record)), std::string("payload"));
    }

    void tamperingFailsAuthentication() {
        const Pair p = makePair();
        const KeyExchangeAEADStore record = p.client.encrypt(bytesOf("payload"), bytesOf("42"));
        {
            KeyExchangeAEADStore r = record;
            r.additionalData = base64Encode(bytesOf("43"));
            QVERIFY(
                throwsCrypto([&] { p.backend.decryptAEADStore(r); }, Kind::authenticationFailure));
        }
        {
            KeyExchangeAEADStore r = record;
            r.kdfNonce = flipDataBit(r.kdfNonce, 3);
            QVERIFY(
                throwsCrypto([&] { p.backend.decryptAEADStore(r); }, Kind::authenticationFailure));
        }
        for (std::size_t i : {std::size_t{0}, std::size_t{17}, record.ciphertext.size() - 4}) {
            KeyExchangeAEADStore r = record;
            r.ciphertext = flipDataBit(r.ciphertext, i);
            QVERIFY(
                throwsCrypto([&] { p.backend.decryptAEADStore(r); }, Kind::authenticationFailure));
        }
        // A stranger's store (another key pair) cannot open it.
        const KeyExchangeStore stranger =
            KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(p.client.LocalPublicKey());
        QVERIFY(
            throwsCrypto([&] { stranger.decryptAEADStore(record); }, Kind::authenticationFailure));
        // The intact record still opens.
        QCOMPARE(textOf(p.backend.decryptAEADStore(record)), std::string("payload"));
    }

    void malformedBase64InAReceivedRecordIsInvalidFormat() {
        const Pair p = makePair();
        const KeyExchangeAEADStore record = p.client.encrypt(bytesOf("payload"), bytesOf("42"));
        const std::string bad[] = {"!!!!", "abc", "QUJD\n", " QUJD", "QU=D"};
        for (const std::string &text : bad) {
            KeyExchangeAEADStore r = record;
            r.kdfNonce = text;
            QVERIFY(throwsKeyExchange([&] { p.backend.decryptAEADStore(r); },
                                      KeyExchangeError::invalidFormat));
            r = record;
            r.ciphertext = text;
            QVERIFY(throwsKeyExchange([&] { p.backend.decryptAEADStore(r); },
                                      KeyExchangeError::invalidFormat));
            r = record;
            r.additionalData = text;
            QVERIFY(throwsKeyExchange([&] { p.backend.decryptAEADStore(r); },
                                      KeyExchangeError::invalidFormat));
        }
        QVERIFY(throwsKeyExchange(
            [&] {
                AEADDecrypt(KeyExchangeAEAD::aesgcm, SymmetricKey(Bytes(32, 1)), "%%%%", "", "");
            },
            KeyExchangeError::invalidFormat));
    }

    void recordJSONWrittenInPlaceIsTheRecordsJSON() {
        // Sizes on both sides of the piece the box is sealed and opened in (12,288 bytes of box,
        // i.e. 12,260 of plaintext), and well beyond; AES-GCM and ChaCha20-Poly1305.
        const std::size_t sizes[] = {0,     1,     2,     3,     1000,  12259,  12260,
                                     12261, 12262, 24548, 24549, 24550, 100000, (1 << 20) + 1};
        const Bytes salt(32, 0x5a);
        const Bytes nonce(12, 0x33);
        const Bytes stamp = bytesOf("1700000000123");
        for (const KeyExchangeAEAD aead : {KeyExchangeAEAD::aesgcm, KeyExchangeAEAD::chachapoly}) {
            const Pair p = makePair(aead);
            for (const std::size_t n : sizes) {
                Bytes plain(n);
                for (std::size_t i = 0; i < n; ++i) {
                    plain[i] = std::uint8_t(i * 7 + (i >> 9));
                }
                const std::string expected =
                    p.client.encryptWithNonces(salt, plain, nonce, stamp).toJSON();
                QCOMPARE(KeyExchangeStore::sealedJSONSize(n, stamp.size()), expected.size());
                std::string out(expected.size(), '\0');
                QCOMPARE(p.client.encryptToJSONWithNonces(salt, plain, nonce, stamp, out), salt);
                QCOMPARE(out, expected);

                // The other side opens it into a buffer that held something else before.
                std::string opened(n / 2 + 5, 'x');
                const KeyExchangeAEADStore fields = p.backend.decryptJSON(out, opened);
                QCOMPARE(opened, std::string(plain.begin(), plain.end()));
                QCOMPARE(fields.kdfNonce, base64Encode(salt));
                QCOMPARE(fields.aeadNonce, base64Encode(nonce));
                QCOMPARE(fields.additionalData, base64Encode(stamp));
                QVERIFY(fields.ciphertext.empty());
            }
        }
        // With fresh nonces: the salt returned is the record's, and each seal differs.
        const Pair p = makePair();
        const Bytes plain(20000, 0x41);
        std::string a(KeyExchangeStore::sealedJSONSize(plain.size(), stamp.size()), '\0');
        std::string b = a;
        const Bytes saltA = p.client.encryptToJSON(plain, stamp, a);
        const Bytes saltB = p.client.encryptToJSON(plain, stamp, b);
        QVERIFY(saltA != saltB);
        QVERIFY(a != b);
        const KeyExchangeAEADStore record = KeyExchangeAEADStore::fromJSON(a);
        QCOMPARE(*base64Decode(record.kdfNonce), saltA);
        QCOMPARE(p.backend.decryptAEADStore(record), plain);
        // An output of another length is refused before anything is written.
        std::string shortOut(a.size() - 1, '\0');
        QVERIFY_THROWS_EXCEPTION(std::length_error, p.client.encryptToJSON(plain, stamp, shortOut));
        QCOMPARE(shortOut, std::string(a.size() - 1, '\0'));
    }

    void largeRecordsOpenedInPiecesRefuseWhatAWholeDecodeRefuses() {
        const Pair p = makePair();
        Bytes plain(100000);
        for (std::size_t i = 0; i < plain.size(); ++i) {
            plain[i] = std::uint8_t(i * 13);
        }
        const KeyExchangeAEADStore record = p.client.encrypt(plain, bytesOf("42"));
        const std::size_t length = record.ciphertext.size();
        QCOMPARE(length, base64EncodedSize(12 + plain.size() + 16));
        // Positions in the nonce, at and around the pieces' edges (16,384 characters), in the
        // middle, in the tag and in the last group.
        const std::size_t positions[] = {0,     3,     16382, 16383,       16384,      16385,
                                         32767, 32768, 70001, length - 20, length - 5, length - 2};
        for (const std::size_t at : positions) {
            for (const char bad : {'-', '=', ' ', '\0'}) {
                KeyExchangeAEADStore r = record;
                r.ciphertext[at] = bad;
                if (bad == '=' && at == length - 2) {
                    continue; // "x==" is a valid ending when the group allows it; not a test
                }
                const std::string json = r.toJSON();
                std::string opened = "kept";
                QVERIFY2(throwsKeyExchange([&] { p.backend.decryptJSON(json, opened); },
                                           KeyExchangeError::invalidFormat),
                         std::to_string(at).c_str());
                QVERIFY(throwsKeyExchange([&] { p.backend.decryptAEADStore(r); },
                                          KeyExchangeError::invalidFormat));
            }
            // A valid character changed: the box no longer authenticates, and nothing of it
            // is left in the buffer.
            KeyExchangeAEADStore r = record;
            r.ciphertext = flipDataBit(r.ciphertext, at);
            const std::string json = r.toJSON();
            std::string opened = "kept";
            QVERIFY2(throwsCrypto([&] { p.backend.decryptJSON(json, opened); },
                                  Kind::authenticationFailure),
                     std::to_string(at).c_str());
            QVERIFY(opened.empty());
        }
        // Additional data that is not the record's fails too.
        KeyExchangeAEADStore r = record;
        r.additionalData = base64Encode(bytesOf("43"));
        std::string opened;
        QVERIFY(throwsCrypto([&] { p.backend.decryptJSON(r.toJSON(), opened); },
                             Kind::authenticationFailure));
        // The intact record opens.
        p.backend.decryptJSON(record.toJSON(), opened);
        QCOMPARE(opened, std::string(plain.begin(), plain.end()));
    }

    void recordsAreOpenedWhereTheyLieWhenPadded() {
        const Pair p = makePair();
        const Bytes plain(50000, 0x62);
        const std::string json = p.client.encrypt(plain, bytesOf("7")).toJSON();
        // The bytes after the text are not part of it, whatever they hold.
        for (const char filler : {'\0', '"', '}', ','}) {
            const std::string buffer = json + std::string(tarnwick::jsonPadding, filler);
            std::string opened;
            p.backend.decryptJSON(std::string_view(buffer.data(), json.size()), opened, {}, true);
            QCOMPARE(opened, std::string(plain.begin(), plain.end()));
        }
        // A text that is not a record is refused as when it is copied first.
        const std::string cut = json.substr(0, json.size() - 1) + std::string(64, ' ');
        std::string opened;
        QVERIFY_THROWS_EXCEPTION(
            DecodingError,
            p.backend.decryptJSON(std::string_view(cut.data(), json.size() - 1), opened, {}, true));
        QVERIFY_THROWS_EXCEPTION(DecodingError,
                                 p.backend.decryptJSON(json.substr(0, json.size() - 1), opened));
    }

    void recordsInAnyJSONLayoutOpenAsTheirWriterMeantThem() {
        // The writer's own layout is read where it stands; every other way of writing the same
        // record (spaces, another key order, escaped characters, an unknown key) gives the
        // same plaintext, and text that is not JSON is refused as not JSON.
        const Pair p = makePair();
        Bytes plain(40000);
        for (std::size_t i = 0; i < plain.size(); ++i) {
            plain[i] = std::uint8_t(i * 29 + 3);
        }
        const std::string expected(plain.begin(), plain.end());
        const KeyExchangeAEADStore r = p.client.encrypt(plain, bytesOf("1700000000001"));
        QVERIFY(r.ciphertext.find('/') != std::string::npos);
        std::string escaped = r.ciphertext;
        for (std::size_t at = escaped.find('/'); at != std::string::npos;
             at = escaped.find('/', at + 2)) {
            escaped.replace(at, 1, "\\/");
        }
        const std::string layouts[] = {
            r.toJSON(),
            "{ \"KDFNonce\" : \"" + r.kdfNonce + "\", \"Ciphertext\":\"" + r.ciphertext +
                "\",\n\"AEADNonce\":\"" + r.aeadNonce + "\",\"AdditionalData\":\"" +
                r.additionalData + "\" }",
            "{\"AdditionalData\":\"" + r.additionalData + "\",\"AEADNonce\":\"" + r.aeadNonce +
                "\",\"Ciphertext\":\"" + r.ciphertext + "\",\"KDFNonce\":\"" + r.kdfNonce + "\"}",
            "{\"KDFNonce\":\"" + r.kdfNonce + "\",\"Ciphertext\":\"" + escaped +
                "\",\"AEADNonce\":\"" + r.aeadNonce + "\",\"AdditionalData\":\"" +
                r.additionalData + "\"}",
            "{\"KDFNonce\":\"" + r.kdfNonce + "\",\"Ciphertext\":\"" + r.ciphertext +
                "\",\"AEADNonce\":\"" + r.aeadNonce + "\",\"AdditionalData\":\"" +
                r.additionalData + "\",\"Extra\":[1,{\"a\":null}]}",
        };
        for (const std::string &json : layouts) {
            std::string opened;
            const KeyExchangeAEADStore fields = p.backend.decryptJSON(json, opened);
            QCOMPARE(opened, expected);
            QCOMPARE(fields.additionalData, r.additionalData);
            QCOMPARE(fields.kdfNonce, r.kdfNonce);
        }
        // In the writer's layout but not JSON: a control character in a value, a trailing
        // comma, text after the object.
        std::string control = r.toJSON();
        control.insert(control.find(r.aeadNonce), "\t");
        const std::string notJSON[] = {control, r.toJSON().insert(r.toJSON().size() - 1, ","),
                                       r.toJSON() + "x"};
        for (const std::string &json : notJSON) {
            std::string opened;
            QVERIFY_THROWS_EXCEPTION(DecodingError, p.backend.decryptJSON(json, opened));
        }
    }

    void recordCheckRunsBeforeAnythingIsOpened() {
        const Pair p = makePair();
        const KeyExchangeAEADStore record = p.client.encrypt(Bytes(30000, 0x63), bytesOf("9"));
        KeyExchangeAEADStore seen;
        std::string opened;
        p.backend.decryptJSON(record.toJSON(), opened,
                              [&](const KeyExchangeAEADStore &fields) { seen = fields; });
        QCOMPARE(seen.kdfNonce, record.kdfNonce);
        QCOMPARE(seen.aeadNonce, record.aeadNonce);
        QCOMPARE(seen.additionalData, record.additionalData);
        QCOMPARE(opened, std::string(30000, 'c'));

        // A check that refuses wins over a box that would not open, and the buffer is untouched.
        KeyExchangeAEADStore tampered = record;
        tampered.ciphertext = flipDataBit(tampered.ciphertext, 100);
        std::string untouched = "untouched";
        QVERIFY_THROWS_EXCEPTION(
            std::runtime_error,
            p.backend.decryptJSON(tampered.toJSON(), untouched, [](const KeyExchangeAEADStore &) {
                throw std::runtime_error("refused");
            }));
        QCOMPARE(untouched, std::string("untouched"));
    }

    void shortBoxesFailAuthentication() {
        const Pair p = makePair();
        const KeyExchangeAEADStore record = p.client.encrypt(bytesOf(""), bytesOf("1"));
        const Bytes combined = *base64Decode(record.ciphertext);
        QCOMPARE(combined.size(), std::size_t{28});
        QVERIFY(p.backend.decryptAEADStore(record).empty());
        for (const std::size_t length : {0, 1, 12, 27}) {
            KeyExchangeAEADStore r = record;
            r.ciphertext = base64Encode(std::span(combined).first(length));
            QVERIFY(
                throwsCrypto([&] { p.backend.decryptAEADStore(r); }, Kind::authenticationFailure));
        }
        const SymmetricKey key(Bytes(32, 1));
        QVERIFY(throwsCrypto([&] { AESGCMDecrypt(key, Bytes(27, 0), {}); },
                             Kind::authenticationFailure));
        QVERIFY(throwsCrypto([&] { ChaChaPolyDecrypt(key, Bytes(5, 0), {}); },
                             Kind::authenticationFailure));
        QVERIFY(throwsCrypto([&] { AESGCMDecrypt(key, Bytes(28, 0), {}); },
                             Kind::authenticationFailure));
    }

    void noPeerKey() {
        KeyExchangeStore store = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        QVERIFY(throwsKeyExchange([&] { store.encrypt(bytesOf("x"), bytesOf("1")); },
                                  KeyExchangeError::publicKeyNotSet));
        QVERIFY(
            throwsKeyExchange([&] { store.encodeJSONAndEncrypt("ping", "", "[]", bytesOf("1")); },
                              KeyExchangeError::publicKeyNotSet));
        QVERIFY(throwsKeyExchange([&] { store.decrypt("AAAA", "AAAA", "AAAA", "AAAA"); },
                                  KeyExchangeError::publicKeyNotSet));
        QVERIFY(throwsKeyExchange([&] { store.decryptAEADStore({}); },
                                  KeyExchangeError::publicKeyNotSet));
    }

    void unknownAEADAndKDF() {
        const Pair p = makePair();
        KeyExchangeStore noAead(KeyExchangeCurve::curve25519, HashFunction::sha256,
                                KeyExchangeKDF::hkdf, KeyExchangeAEAD::unknown,
                                p.backend.LocalPublicKey());
        QVERIFY(throwsKeyExchange([&] { noAead.encrypt(bytesOf("x"), bytesOf("1")); },
                                  KeyExchangeError::invalidAEAD));
        QVERIFY(throwsKeyExchange(
            [&] {
                noAead.encryptWithNonces(Bytes(32, 1), bytesOf("x"), Bytes(12, 1), bytesOf("1"));
            },
            KeyExchangeError::invalidAEAD));
        const KeyExchangeAEADStore record = p.client.encrypt(bytesOf("x"), bytesOf("1"));
        KeyExchangeStore noAeadBackend(KeyExchangeCurve::curve25519, HashFunction::sha256,
                                       KeyExchangeKDF::hkdf, KeyExchangeAEAD::unknown, "");
        noAeadBackend.resetPrivateKey(p.backend.privateKey());
        noAeadBackend.setExternalPublicKey(p.client.LocalPublicKey());
        QVERIFY(throwsKeyExchange([&] { noAeadBackend.decryptAEADStore(record); },
                                  KeyExchangeError::invalidAEAD));

        KeyExchangeStore noKdf(KeyExchangeCurve::curve25519, HashFunction::sha256,
                               KeyExchangeKDF::unknown, KeyExchangeAEAD::aesgcm,
                               p.backend.LocalPublicKey());
        QVERIFY(throwsKeyExchange([&] { noKdf.encrypt(bytesOf("x"), bytesOf("1")); },
                                  KeyExchangeError::invalidKDF));
        QVERIFY(throwsKeyExchange([&] { noKdf.decryptAEADStore(record); },
                                  KeyExchangeError::invalidKDF));

        QVERIFY(throwsKeyExchange([] { AEADRandomNonce(KeyExchangeAEAD::unknown); },
                                  KeyExchangeError::invalidAEAD));
        QVERIFY(throwsKeyExchange([] { AEADRandomKey(KeyExchangeAEAD::unknown); },
                                  KeyExchangeError::invalidAEAD));
        const SymmetricKey key(Bytes(32, 1));
        QVERIFY(throwsKeyExchange(
            [&] { AEADEncrypt(KeyExchangeAEAD::unknown, key, bytesOf("x"), Bytes(12, 0), {}); },
            KeyExchangeError::invalidAEAD));
        QVERIFY(
            throwsKeyExchange([&] { AEADDecrypt(KeyExchangeAEAD::unknown, key, "AAAA", "", ""); },
                              KeyExchangeError::invalidAEAD));
    }

    void longDigestPresetsCannotSeal() {
        const std::string peer =
            KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("").LocalPublicKey();
        for (KeyExchangeStore store : {KeyExchange_Curve25519_SHA384_HKDF_AESGCM_Store(peer),
                                       KeyExchange_Curve25519_SHA512_HKDF_AESGCM_Store(peer)}) {
            QVERIFY(throwsCrypto([&] { store.encrypt(bytesOf("x"), bytesOf("1")); },
                                 Kind::incorrectKeySize));
            QVERIFY(
                throwsCrypto([&] { store.encodeJSONAndEncrypt("ping", "", "[]", bytesOf("1")); },
                             Kind::incorrectKeySize));
        }
        KeyExchangeStore chacha384(KeyExchangeCurve::curve25519, HashFunction::sha384,
                                   KeyExchangeKDF::hkdf, KeyExchangeAEAD::chachapoly, peer);
        QVERIFY(throwsCrypto([&] { chacha384.encrypt(bytesOf("x"), bytesOf("1")); },
                             Kind::incorrectKeySize));
    }

    void chachaPolyChannel() {
        const Pair p = makePair(KeyExchangeAEAD::chachapoly);
        const KeyExchangeAEADStore record = p.client.encrypt(bytesOf("over chacha"), bytesOf("77"));
        QCOMPARE(textOf(p.backend.decryptAEADStore(record)), std::string("over chacha"));
        // An AES-GCM store with the same keys cannot open it.
        KeyExchangeStore aes(KeyExchangeCurve::curve25519, HashFunction::sha256,
                             KeyExchangeKDF::hkdf, KeyExchangeAEAD::aesgcm, "");
        aes.resetPrivateKey(p.backend.privateKey());
        aes.setExternalPublicKey(p.client.LocalPublicKey());
        QVERIFY(throwsCrypto([&] { aes.decryptAEADStore(record); }, Kind::authenticationFailure));
    }

    void aeadFunctions() {
        const Bytes nonce(12, 3);
        const Bytes message = bytesOf("hello");
        const Bytes ad = bytesOf("ad");
        for (const std::size_t keySize : {16, 24, 32}) {
            const SymmetricKey key(Bytes(keySize, 9));
            const Bytes box = AESGCMEncrypt(key, message, nonce, ad);
            QCOMPARE(box.size(), 12 + message.size() + 16);
            QCOMPARE(AESGCMDecrypt(key, box, ad), message);
            QVERIFY(throwsCrypto([&] { AESGCMDecrypt(key, box, bytesOf("other")); },
                                 Kind::authenticationFailure));
        }
        for (const std::size_t keySize : {0, 8, 31, 33, 48, 64}) {
            const SymmetricKey key(Bytes(keySize, 9));
            QVERIFY(throwsCrypto([&] { AESGCMEncrypt(key, message, nonce, ad); },
                                 Kind::incorrectKeySize));
            QVERIFY(throwsCrypto([&] { AESGCMDecrypt(key, Bytes(40, 0), ad); },
                                 Kind::incorrectKeySize));
        }
        for (const std::size_t keySize : {16, 24, 48, 64}) {
            const SymmetricKey key(Bytes(keySize, 9));
            QVERIFY(throwsCrypto([&] { ChaChaPolyEncrypt(key, message, nonce, ad); },
                                 Kind::incorrectKeySize));
        }
        const SymmetricKey key(AEADRandomKey(KeyExchangeAEAD::chachapoly));
        const std::string sealed =
            AEADEncrypt(KeyExchangeAEAD::chachapoly, key, message, nonce, ad);
        QCOMPARE(AEADDecrypt(KeyExchangeAEAD::chachapoly, key, sealed, "", base64Encode(ad)),
                 message);
        QCOMPARE(ChaChaPolyDecrypt(key, *base64Decode(sealed), ad), message);
    }

    void largeEnvelope() {
        const Pair p = makePair();
        Bytes big(2 * 1024 * 1024);
        for (std::size_t i = 0; i < big.size(); ++i) {
            big[i] = static_cast<std::uint8_t>(i * 131 + 17);
        }
        const KeyExchangeAEADStore record =
            p.client.encrypt(big, KeyExchangeCurrentTimestampData());
        QCOMPARE(p.backend.decryptAEADStore(KeyExchangeAEADStore::fromJSON(record.toJSON())), big);
        // Long additional data too.
        const Bytes longAd(50000, 'x');
        const KeyExchangeAEADStore withAd = p.client.encrypt(bytesOf("small"), longAd);
        QCOMPARE(textOf(p.backend.decryptAEADStore(withAd)), std::string("small"));
    }

    void genericEncoding() {
        const Pair p = makePair();
        const KeyExchangeAEADStore viaFree =
            p.client.encodeJSONAndEncrypt(envelope_test::Ping{7}, bytesOf("1"));
        QCOMPARE(textOf(p.backend.decryptAEADStore(viaFree)),
                 std::string("{\"Type\":\"ping\",\"ID\":\"7\",\"Data\":\"[]\"}"));
        const KeyExchangeTypeIDAndData envelope{"getGroups", "", ""};
        const KeyExchangeAEADStore viaMember =
            p.client.encodeJSONAndEncrypt(envelope, bytesOf("1"));
        QCOMPARE(KeyExchangeTypeIDAndData::fromJSON(textOf(p.backend.decryptAEADStore(viaMember))),
                 envelope);
    }

    void envelopeJSONForm() {
        const KeyExchangeTypeIDAndData envelope{
            "addWatchDir", "Family photos",
            "/home/ana/Pictures/2024 \xe2\x80\x94 trip \xe2\x9c\x88"};
        QCOMPARE(envelope.toJSON(),
                 std::string("{\"Type\":\"addWatchDir\",\"ID\":\"Family photos\",\"Data\":"
                             "\"/home/ana/Pictures/2024 \xe2\x80\x94 trip \xe2\x9c\x88\"}"));
        const KeyExchangeTypeIDAndData escapes{"t", "quote\" back\\ nl\n tab\t", "\x01"};
        QCOMPARE(escapes.toJSON(), std::string("{\"Type\":\"t\",\"ID\":\"quote\\\" back\\\\ nl\\n "
                                               "tab\\t\",\"Data\":\"\\u0001\"}"));
        QCOMPARE(KeyExchangeTypeIDAndData::fromJSON(escapes.toJSON()), escapes);
        // Invalid UTF-8 in a field is written as U+FFFD rather than producing invalid JSON.
        const KeyExchangeTypeIDAndData broken{"t", "",
                                              "a\xff"
                                              "b"};
        QCOMPARE(broken.toJSON(), std::string("{\"Type\":\"t\",\"ID\":\"\",\"Data\":\"a\xef\xbf\xbd"
                                              "b\"}"));
        // Key order and unknown keys on input do not matter.
        QCOMPARE(KeyExchangeTypeIDAndData::fromJSON(
                     "{\"Data\":\"d\",\"Extra\":1,\"ID\":\"i\",\"Type\":\"t\"}"),
                 (KeyExchangeTypeIDAndData{"t", "i", "d"}));
    }

    void strictRecordDecoding() {
        const char *badEnvelopes[] = {"",
                                      "null",
                                      "[]",
                                      "\"text\"",
                                      "{",
                                      "{\"Type\":\"t\",\"ID\":\"i\"}",
                                      "{\"Type\":\"t\",\"ID\":\"i\",\"Data\":null}",
                                      "{\"Type\":1,\"ID\":\"i\",\"Data\":\"d\"}",
                                      "{\"Type\":\"t\",\"ID\":\"i\",\"Data\":{}}",
                                      "{\"Type\":\"t\",\"ID\":\"i\",\"Data\":\"d\"} x",
                                      "{\"Type\":\"\xff\",\"ID\":\"i\",\"Data\":\"d\"}"};
        for (const char *text : badEnvelopes) {
            QVERIFY2(throwsDecoding([&] { KeyExchangeTypeIDAndData::fromJSON(text); }), text);
        }
        const char *badRecords[] = {
            "",
            "{}",
            "{\"KDFNonce\":\"\",\"Ciphertext\":\"\",\"AEADNonce\":\"\"}",
            "{\"KDFNonce\":\"\",\"Ciphertext\":5,\"AEADNonce\":\"\",\"AdditionalData\":\"\"}",
            "[1,2,3]",
            "{\"KDFNonce\":\"\",\"Ciphertext\":\"\",\"AEADNonce\":\"\",\"AdditionalData\":[]}"};
        for (const char *text : badRecords) {
            QVERIFY2(throwsDecoding([&] { KeyExchangeAEADStore::fromJSON(text); }), text);
        }
        const KeyExchangeAEADStore ok =
            KeyExchangeAEADStore::fromJSON("{\"AdditionalData\":\"d\",\"AEADNonce\":\"c\","
                                           "\"Ciphertext\":\"b\",\"KDFNonce\":\"a\"}");
        QCOMPARE(ok, (KeyExchangeAEADStore{"a", "b", "c", "d"}));
        QCOMPARE(ok.toJSON(), std::string("{\"KDFNonce\":\"a\",\"Ciphertext\":\"b\",\"AEADNonce\":"
                                          "\"c\",\"AdditionalData\":\"d\"}"));
        // Deep nesting is refused without harm.
        const std::string deep = std::string(100000, '[') + std::string(100000, ']');
        QVERIFY(throwsDecoding([&] { KeyExchangeAEADStore::fromJSON(deep); }));
    }

    void messageDecoder() {
        const Pair p = makePair();
        const KeyExchangeTypeIDAndData envelope{"ping", "", "[]"};
        const KeyExchangeAEADStore record =
            p.client.encodeJSONAndEncrypt(envelope, bytesOf("1234"));
        const Message text = Message::fromText(record.toJSON());

        QCOMPARE(KeyExchangeDecryptAndDecodeJSON<KeyExchangeTypeIDAndData>(text, p.backend),
                 envelope);
        QCOMPARE(text.decryptAndDecodeJSON<KeyExchangeTypeIDAndData>(p.backend), envelope);

        std::string seen;
        const auto accepted = KeyExchangeDecryptAndDecodeJSON<KeyExchangeTypeIDAndData>(
            text, p.backend, [&](const std::string &ad) {
                seen = ad;
                return KeyExchangeTimestamp(ad) == 1234;
            });
        QCOMPARE(accepted, envelope);
        QCOMPARE(seen, record.additionalData);

        QVERIFY(throwsKeyExchange(
            [&] {
                KeyExchangeDecryptAndDecodeJSON<KeyExchangeTypeIDAndData>(
                    text, p.backend, [](const std::string &) { return false; });
            },
            KeyExchangeError::invalidAdditionalData));
        bool propagated = false;
        try {
            KeyExchangeDecryptAndDecodeJSON<KeyExchangeTypeIDAndData>(
                text, p.backend,
                [](const std::string &) -> bool { throw std::logic_error("stale"); });
        } catch (const std::logic_error &e) {
            propagated = std::string(e.what()) == "stale";
        }
        QVERIFY(propagated);

        const Message binary = Message::fromBinary(bytesOf(record.toJSON()));
        QVERIFY(throwsKeyExchange(
            [&] { KeyExchangeDecryptAndDecodeJSON<KeyExchangeTypeIDAndData>(binary, p.backend); },
            KeyExchangeError::invalidFormat));
        const Message invalidUtf8 = Message::fromText("{\"KDFNonce\":\"\xc3\x28\"}");
        QVERIFY(throwsKeyExchange(
            [&] {
                KeyExchangeDecryptAndDecodeJSON<KeyExchangeTypeIDAndData>(invalidUtf8, p.backend);
            },
            KeyExchangeError::invalidFormat));
        QVERIFY(throwsDecoding([&] {
            KeyExchangeDecryptAndDecodeJSON<KeyExchangeTypeIDAndData>(Message::fromText("nope"),
                                                                      p.backend);
        }));
        // A plaintext that is not the requested shape.
        const Message notEnvelope =
            Message::fromText(p.client.encrypt(bytesOf("[1]"), bytesOf("1")).toJSON());
        QVERIFY(throwsDecoding([&] {
            KeyExchangeDecryptAndDecodeJSON<KeyExchangeTypeIDAndData>(notEnvelope, p.backend);
        }));
        // Tampered additional data fails before the predicate is asked.
        KeyExchangeAEADStore tampered = record;
        tampered.additionalData = base64Encode(bytesOf("1235"));
        bool asked = false;
        QVERIFY(throwsCrypto(
            [&] {
                KeyExchangeDecryptAndDecodeJSON<KeyExchangeTypeIDAndData>(
                    Message::fromText(tampered.toJSON()), p.backend, [&](const std::string &) {
                        asked = true;
                        return true;
                    });
            },
            Kind::authenticationFailure));
        QVERIFY(!asked);
    }
};

QTEST_GUILESS_MAIN(LumacryptEnvelope)
#include "tst_envelope.moc"
