// Costs of the sealed channel: one message (HKDF + seal + open) at the usual envelope size and at
// 2 MiB, and the key agreements behind setting a peer key.
#include <lumacrypt/lumacrypt.h>

#include <benchmark/benchmark.h>

#include <string>

using namespace lumacrypt;

namespace {

struct Channel {
    KeyExchangeStore client = KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store("");
    KeyExchangeStore backend =
        KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(client.LocalPublicKey());
    Channel() { client.setExternalPublicKey(backend.LocalPublicKey()); }
};

void sealAndOpen(benchmark::State &state) {
    const Channel channel;
    const Bytes plaintext(static_cast<std::size_t>(state.range(0)), 0x61);
    const Bytes timestamp = KeyExchangeCurrentTimestampData();
    for (auto _ : state) {
        const KeyExchangeAEADStore record = channel.client.encrypt(plaintext, timestamp);
        const Bytes opened = channel.backend.decryptAEADStore(record);
        benchmark::DoNotOptimize(opened.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(sealAndOpen)->Arg(200)->Arg(2 * 1024 * 1024);

void sealAndOpenEnvelopeJSON(benchmark::State &state) {
    const Channel channel;
    const std::string data(200, 'd');
    for (auto _ : state) {
        const KeyExchangeAEADStore record = channel.client.encodeJSONAndEncrypt(
            "ping", "", data, KeyExchangeCurrentTimestampData());
        const std::string wire = record.toJSON();
        const Bytes opened = channel.backend.decryptAEADStore(KeyExchangeAEADStore::fromJSON(wire));
        benchmark::DoNotOptimize(opened.data());
    }
}
BENCHMARK(sealAndOpenEnvelopeJSON);

void base64EncodeOnly(benchmark::State &state) {
    const Bytes data(static_cast<std::size_t>(state.range(0)), 0x5c);
    std::string text(base64EncodedSize(data.size()), '\0');
    for (auto _ : state) {
        base64EncodeInto(data, text.data());
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(base64EncodeOnly)->Arg(2 * 1024 * 1024);

void base64DecodeOnly(benchmark::State &state) {
    const std::string text = base64Encode(Bytes(static_cast<std::size_t>(state.range(0)), 0x5c));
    Bytes out(*base64DecodedSize(text));
    for (auto _ : state) {
        benchmark::DoNotOptimize(base64DecodeInto(text, out.data()));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(base64DecodeOnly)->Arg(2 * 1024 * 1024);

// A sealed record written into and opened from JSON text, as the ping does it.
void sealAndOpenRecordJSON(benchmark::State &state) {
    const Channel channel;
    const Bytes plaintext(static_cast<std::size_t>(state.range(0)), 0x61);
    const Bytes timestamp = KeyExchangeCurrentTimestampData();
    std::string json(KeyExchangeStore::sealedJSONSize(plaintext.size(), timestamp.size()), '\0');
    std::string opened;
    for (auto _ : state) {
        channel.client.encryptToJSON(plaintext, timestamp, json);
        channel.backend.decryptJSON(json, opened);
        benchmark::DoNotOptimize(opened.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(sealAndOpenRecordJSON)->Arg(2 * 1024 * 1024);

void hkdfOnly(benchmark::State &state) {
    const Channel channel;
    const Bytes salt(32, 1);
    const Bytes info = KeyExchangeCurrentTimestampData();
    for (auto _ : state) {
        const SymmetricKey key = KeyExchangeSymmetricKey(
            channel.client.SharedSecret(), HashFunction::sha256, KeyExchangeKDF::hkdf, salt, info);
        benchmark::DoNotOptimize(key.bytes().data());
    }
}
BENCHMARK(hkdfOnly);

void agreement(benchmark::State &state, KeyExchangeCurve curve) {
    const KeyExchangeLocalKeys own = KeyExchangeCurveKeys(curve, "");
    const KeyExchangeLocalKeys peer = KeyExchangeCurveKeys(curve, "");
    for (auto _ : state) {
        const AgreedSecret secret = CreateSharedSecret(curve, own.privateKey, peer.publicKey);
        benchmark::DoNotOptimize(secret.bytes().data());
    }
}
BENCHMARK_CAPTURE(agreement, x25519, KeyExchangeCurve::curve25519);
BENCHMARK_CAPTURE(agreement, p256, KeyExchangeCurve::p256);

} // namespace

BENCHMARK_MAIN();
