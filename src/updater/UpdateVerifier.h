#pragma once

#include <QByteArray>
#include <QString>

#include <cstddef>

namespace tarnwick::updater {

// Ed25519 verification of downloaded updates (OpenSSL EVP, one-shot).
namespace UpdateVerifier {

inline constexpr int kPublicKeySize = 32;
inline constexpr int kSignatureSize = 64;

// True exactly when `signature` (64 bytes) is a valid Ed25519 signature by
// `publicKey` (32 raw bytes) over the bytes [data, data + size).
bool verify(const QByteArray &publicKey, const QByteArray &signature, const unsigned char *data,
            std::size_t size);
bool verify(const QByteArray &publicKey, const QByteArray &signature, const QByteArray &data);

// Verifies a whole file (mapped, not read into memory). Returns an empty
// string when the signature verifies, else what went wrong.
QString verifyFile(const QString &path, const QByteArray &publicKey, const QByteArray &signature);

// Base64 text of a 32-byte public key to its raw bytes; empty when the text
// is not exactly that.
QByteArray decodePublicKey(const QString &base64);

} // namespace UpdateVerifier

} // namespace tarnwick::updater
