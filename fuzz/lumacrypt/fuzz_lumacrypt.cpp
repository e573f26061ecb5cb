// Everything a backend or a peer can hand us: a sealed record as JSON text (decoded and opened
// with a configured store, as a message too), backend output searched for a PEM key, additional
// data read as a timestamp, and key text on every curve. Only the library's own errors may come
// out; anything else (another exception, a crash, a sanitizer report) is a finding.
#include <lumacrypt/lumacrypt.h>

#include <cstddef>
#include <cstdint>
#include <string>

using namespace lumacrypt;

namespace {

struct Channel {
    KeyExchangeStore client;
    KeyExchangeStore backend;
    KeyExchangeAEADStore sample;
    Channel() {
        client = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
        backend = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(client.LocalPublicKey());
        client.setExternalPublicKey(backend.LocalPublicKey());
        const std::string ts = "1732176000123";
        sample = backend.encodeJSONAndEncrypt("ping", "", "[]", Bytes(ts.begin(), ts.end()));
    }
};

struct Envelope {
    static Envelope fromJSON(std::string_view json) {
        (void)KeyExchangeTypeIDAndData::fromJSON(json);
        return {};
    }
};

template <class F> void guarded(F &&body) {
    try {
        body();
    } catch (const KeyExchangeException &) {
    } catch (const PEMException &) {
    } catch (const CryptoError &) {
    } catch (const DecodingError &) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const Channel channel;
    const std::string text(reinterpret_cast<const char *>(data), size);

    guarded([&] {
        const KeyExchangeAEADStore record = KeyExchangeAEADStore::fromJSON(text);
        (void)channel.client.decryptAEADStore(record);
        (void)KeyExchangeTimestamp(record.additionalData);
    });
    guarded([&] {
        // The fuzzed text as one field of an otherwise valid record.
        KeyExchangeAEADStore record = channel.sample;
        switch (size % 4) {
        case 0:
            record.kdfNonce = text;
            break;
        case 1:
            record.ciphertext = text;
            break;
        case 2:
            record.aeadNonce = text;
            break;
        default:
            record.additionalData = text;
            break;
        }
        (void)channel.client.decryptAEADStore(record);
    });
    guarded([&] {
        (void)KeyExchangeDecryptAndDecodeJSON<Envelope>(
            Message::fromText(text), channel.client,
            [](const std::string &ad) { return KeyExchangeTimestamp(ad).has_value(); });
    });
    guarded([&] { (void)KeyExchangeTypeIDAndData::fromJSON(text); });
    (void)PEMSearchString(text);
    guarded([&] { (void)PEMFromString(text); });
    (void)KeyExchangeTimestamp(text);
    (void)base64Decode(text);
    (void)isValidUTF8(text);
    for (const KeyExchangeCurve curve : {KeyExchangeCurve::curve25519, KeyExchangeCurve::p256,
                                         KeyExchangeCurve::p384, KeyExchangeCurve::p521}) {
        guarded([&] { (void)PublicStore(curve, text); });
        guarded([&] { (void)PrivateStore(curve, text.empty() ? std::string("A") : text); });
    }
    guarded([&] {
        KeyExchangeStore store = channel.client;
        store.setExternalPublicKey(text);
    });
    return 0;
}
