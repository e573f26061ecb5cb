#include "UpdateVerifier.h"

#include <QFile>

#include <openssl/evp.h>

#include <memory>

namespace tarnwick::updater::UpdateVerifier {

namespace {

struct PkeyDeleter {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
};
struct MdCtxDeleter {
    void operator()(EVP_MD_CTX *ctx) const { EVP_MD_CTX_free(ctx); }
};

} // namespace

bool verify(const QByteArray &publicKey, const QByteArray &signature, const unsigned char *data,
            std::size_t size) {
    if (publicKey.size() != kPublicKeySize || signature.size() != kSignatureSize) {
        return false;
    }
    // An empty message still needs a valid pointer.
    static const unsigned char empty = 0;
    if (data == nullptr) {
        if (size != 0) {
            return false;
        }
        data = &empty;
    }
    std::unique_ptr<EVP_PKEY, PkeyDeleter> key(EVP_PKEY_new_raw_public_key(
        EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char *>(publicKey.constData()),
        static_cast<std::size_t>(publicKey.size())));
    if (!key) {
        return false;
    }
    std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> ctx(EVP_MD_CTX_new());
    if (!ctx) {
        return false;
    }
    // Ed25519 takes no separate digest: the whole message goes in at once.
    if (EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) != 1) {
        return false;
    }
    return EVP_DigestVerify(ctx.get(),
                            reinterpret_cast<const unsigned char *>(signature.constData()),
                            static_cast<std::size_t>(signature.size()), data, size) == 1;
}

bool verify(const QByteArray &publicKey, const QByteArray &signature, const QByteArray &data) {
    return verify(publicKey, signature, reinterpret_cast<const unsigned char *>(data.constData()),
                  static_cast<std::size_t>(data.size()));
}

QByteArray releaseStatement(const QString &version, const QByteArray &sha256) {
    return QByteArrayLiteral("tarnwick update\nversion ") + version.toUtf8() +
           QByteArrayLiteral("\nsha256 ") + sha256.toHex() + '\n';
}

QByteArray sha256OfFile(const QString &path, QString *error) {
    const auto failed = [error](const QString &why) {
        if (error) {
            *error = why;
        }
        return QByteArray();
    };
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return failed(QStringLiteral("cannot open %1: %2").arg(path, file.errorString()));
    }
    std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) {
        return failed(QStringLiteral("cannot compute a digest"));
    }
    const qint64 size = file.size();
    if (size > 0) {
        uchar *bytes = file.map(0, size);
        if (bytes == nullptr) {
            return failed(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
        }
        const bool ok = EVP_DigestUpdate(ctx.get(), bytes, static_cast<std::size_t>(size)) == 1;
        file.unmap(bytes);
        if (!ok) {
            return failed(QStringLiteral("cannot compute a digest"));
        }
    }
    QByteArray digest(EVP_MAX_MD_SIZE, '\0');
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx.get(), reinterpret_cast<unsigned char *>(digest.data()), &length) !=
        1) {
        return failed(QStringLiteral("cannot compute a digest"));
    }
    digest.truncate(static_cast<qsizetype>(length));
    return digest;
}

QString verifyFile(const QString &path, const QString &version, const QByteArray &publicKey,
                   const QByteArray &signature) {
    QString error;
    const QByteArray digest = sha256OfFile(path, &error);
    if (digest.isEmpty()) {
        return error;
    }
    return verify(publicKey, signature, releaseStatement(version, digest))
               ? QString()
               : QStringLiteral("the signature does not match release %1 of this file")
                     .arg(version);
}

QByteArray decodePublicKey(const QString &base64) {
    const auto decoded = QByteArray::fromBase64Encoding(base64.trimmed().toLatin1(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.size() != kPublicKeySize) {
        return {};
    }
    return decoded.decoded;
}

} // namespace tarnwick::updater::UpdateVerifier
