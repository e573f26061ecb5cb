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

// What a release's signature covers: the version the feed offers it as and the
// archive's SHA-256 (32 raw bytes), as the text
//   "tarnwick update\nversion <version>\nsha256 <lower-case hex>\n".
// A signature over the archive alone would let an old archive be offered as a
// new version; this one vouches for the pair.
QByteArray releaseStatement(const QString &version, const QByteArray &sha256);

// SHA-256 of a whole file (mapped, not read into memory); empty when it cannot
// be read, with the reason in *error.
QByteArray sha256OfFile(const QString &path, QString *error = nullptr);

// Verifies a downloaded release: the signature must cover the release
// statement of `version` and the file's digest. Returns an empty string when
// it does, else what went wrong.
QString verifyFile(const QString &path, const QString &version, const QByteArray &publicKey,
                   const QByteArray &signature);

// Base64 text of a 32-byte public key to its raw bytes; empty when the text
// is not exactly that.
QByteArray decodePublicKey(const QString &base64);

} // namespace UpdateVerifier

} // namespace tarnwick::updater
