#pragma once

// What the update tests share: a small HTTP server on the loopback interface
// that serves an appcast and its downloads, an Ed25519 key pair to sign
// releases with, and builders for feeds and release files.

#include "AppcastFeed.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QDir>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstddef>
#include <utility>

namespace tarnwick::updater::test {

// A tiny HTTP/1.1 server on 127.0.0.1 serving fixed answers by path. It
// counts every request, and can hold the answers for some paths back until
// told to send them (a check "in progress").
class TestServer : public QObject {
public:
    struct Answer {
        int status = 200;
        QByteArray body;
        QList<QPair<QByteArray, QByteArray>> headers;
    };

    TestServer() {
        connect(&server_, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = server_.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
        if (!server_.listen(QHostAddress::LocalHost, 0)) {
            qFatal("test server cannot listen");
        }
    }

    QUrl url(const QString &path) const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(server_.serverPort()).arg(path));
    }
    void set(const QString &path, Answer answer) { answers_[path] = std::move(answer); }
    void set(const QString &path, const QByteArray &body) {
        answers_[path] = Answer{200, body, {}};
    }
    void redirect(const QString &path, const QUrl &to) {
        answers_[path] = Answer{302, {}, {{"Location", to.toEncoded()}}};
    }
    void hold(const QString &path) { held_.insert(path); }
    void release() {
        held_.clear();
        const auto waiting = std::exchange(waiting_, {});
        for (const auto &[socket, path] : waiting) {
            if (socket) {
                answer(socket, path);
            }
        }
    }

    const QStringList &requests() const { return requests_; }
    int count(const QString &path) const { return int(requests_.count(path)); }

private:
    void read(QTcpSocket *socket) {
        QByteArray &buffer = buffers_[socket];
        buffer += socket->readAll();
        const qsizetype end = buffer.indexOf("\r\n\r\n");
        if (end < 0) {
            return;
        }
        const QList<QByteArray> requestLine = buffer.left(buffer.indexOf("\r\n")).split(' ');
        buffers_.remove(socket);
        const QString path =
            requestLine.size() >= 2 ? QString::fromLatin1(requestLine[1]) : QString();
        requests_.append(path);
        if (held_.contains(path)) {
            waiting_.append({QPointer<QTcpSocket>(socket), path});
            return;
        }
        answer(socket, path);
    }

    void answer(QTcpSocket *socket, const QString &path) {
        const Answer a = answers_.value(path, Answer{404, "not found", {}});
        QByteArray response = "HTTP/1.1 " + QByteArray::number(a.status) +
                              (a.status == 200 ? " OK" : " Other") + "\r\n";
        response += "Content-Length: " + QByteArray::number(a.body.size()) + "\r\n";
        response += "Connection: close\r\n";
        for (const auto &[name, value] : a.headers) {
            response += name + ": " + value + "\r\n";
        }
        response += "\r\n" + a.body;
        socket->write(response);
        socket->disconnectFromHost();
    }

    QTcpServer server_;
    QHash<QString, Answer> answers_;
    QHash<QTcpSocket *, QByteArray> buffers_;
    QSet<QString> held_;
    QList<QPair<QPointer<QTcpSocket>, QString>> waiting_;
    QStringList requests_;
};

// An Ed25519 key pair made for the test.
class KeyPair {
public:
    KeyPair() : key_(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")) {
        if (key_ == nullptr) {
            qFatal("cannot make an Ed25519 key");
        }
    }
    ~KeyPair() { EVP_PKEY_free(key_); }
    KeyPair(const KeyPair &) = delete;
    KeyPair &operator=(const KeyPair &) = delete;

    QByteArray publicKey() const {
        QByteArray raw(32, '\0');
        std::size_t size = 32;
        if (EVP_PKEY_get_raw_public_key(key_, reinterpret_cast<unsigned char *>(raw.data()),
                                        &size) != 1 ||
            size != 32) {
            qFatal("cannot read the public key");
        }
        return raw;
    }

    QByteArray sign(const QByteArray &message) const {
        EVP_MD_CTX *ctx = EVP_MD_CTX_new();
        QByteArray signature(64, '\0');
        std::size_t size = 64;
        const bool ok =
            EVP_DigestSignInit(ctx, nullptr, nullptr, nullptr, key_) == 1 &&
            EVP_DigestSign(ctx, reinterpret_cast<unsigned char *>(signature.data()), &size,
                           reinterpret_cast<const unsigned char *>(message.constData()),
                           static_cast<std::size_t>(message.size())) == 1;
        EVP_MD_CTX_free(ctx);
        if (!ok || size != 64) {
            qFatal("cannot sign");
        }
        return signature;
    }

    // The private key as PEM text, for tools that sign with it.
    QByteArray privateKeyPem() const {
        BIO *bio = BIO_new(BIO_s_mem());
        if (bio == nullptr ||
            PEM_write_bio_PrivateKey(bio, key_, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
            qFatal("cannot write the private key");
        }
        char *data = nullptr;
        const long size = BIO_get_mem_data(bio, &data);
        QByteArray pem(data, static_cast<qsizetype>(size));
        BIO_free(bio);
        return pem;
    }

    // A release's signature: over the version it is offered as and the archive's SHA-256,
    // written out here independently of the code under test.
    static QByteArray releaseStatement(const QString &version, const QByteArray &archive) {
        return "tarnwick update\nversion " + version.toUtf8() + "\nsha256 " +
               QCryptographicHash::hash(archive, QCryptographicHash::Sha256).toHex() + "\n";
    }
    QByteArray signRelease(const QString &version, const QByteArray &archive) const {
        return sign(releaseStatement(version, archive));
    }

    // Verifies directly with OpenSSL, independently of the code under test.
    bool verifies(const QByteArray &message, const QByteArray &signature) const {
        EVP_MD_CTX *ctx = EVP_MD_CTX_new();
        const bool ok =
            EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, key_) == 1 &&
            EVP_DigestVerify(ctx, reinterpret_cast<const unsigned char *>(signature.constData()),
                             static_cast<std::size_t>(signature.size()),
                             reinterpret_cast<const unsigned char *>(message.constData()),
                             static_cast<std::size_t>(message.size())) == 1;
        EVP_MD_CTX_free(ctx);
        return ok;
    }

private:
    EVP_PKEY *key_;
};

struct FeedItem {
    QString version;
    QString url;
    QByteArray signature; // raw; empty: no attribute
    qint64 length = -1;   // -1: no attribute
    QString shortVersion;
    QString extraAttributes;
    QString extraElements;
};

inline QByteArray feedOf(const QList<FeedItem> &items) {
    QString xml = QStringLiteral(
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
        "<rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/"
        "sparkle\">\n<channel>\n<title>Tarnwick</title>\n");
    for (const FeedItem &item : items) {
        xml += QStringLiteral("<item><title>Version %1</title>%2<enclosure url=\"%3\"")
                   .arg(item.version, item.extraElements, item.url.toHtmlEscaped());
        if (!item.version.isEmpty()) {
            xml += QStringLiteral(" sparkle:version=\"%1\"").arg(item.version);
        }
        if (!item.shortVersion.isEmpty()) {
            xml += QStringLiteral(" sparkle:shortVersionString=\"%1\"").arg(item.shortVersion);
        }
        if (item.length >= 0) {
            xml += QStringLiteral(" length=\"%1\"").arg(item.length);
        }
        if (!item.signature.isEmpty()) {
            xml += QStringLiteral(" sparkle:edSignature=\"%1\"")
                       .arg(QString::fromLatin1(item.signature.toBase64()));
        }
        xml += QStringLiteral(" type=\"application/octet-stream\" %1/></item>\n")
                   .arg(item.extraAttributes);
    }
    xml += QStringLiteral("</channel>\n</rss>\n");
    return xml.toUtf8();
}

inline QByteArray releaseBytes(const QString &version) {
    QByteArray bytes;
    for (int i = 0; i < 20000; ++i) {
        bytes += "Tarnwick " + version.toLatin1() + " block " + QByteArray::number(i) + '\n';
    }
    return bytes;
}

inline QStringList filesIn(const QString &directory) {
    return QDir(directory).entryList(QDir::Files | QDir::Hidden, QDir::Name);
}

} // namespace tarnwick::updater::test
