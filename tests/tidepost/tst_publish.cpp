// Posting to the backend's local endpoint, against a small HTTP server on 127.0.0.1 that records
// the raw requests it receives and answers with canned replies.

#include <BackendSession.h>
#include <Models.h>
#include <PollManager.h>
#include <runwarden/Clock.h>

#include <QElapsedTimer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QtTest>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

using tidepost::Error;
using tidepost::PollManager;
using tidepost::PollManagerError;

namespace {

// One request as the server received it.
struct Received {
    QByteArray raw; // request line, headers and body exactly as sent
    QByteArray method;
    QByteArray target;
    QList<QPair<QByteArray, QByteArray>> headers; // names lower-cased
    QByteArray body;
    int connection = 0; // which accepted connection carried it (1, 2, ...)

    std::optional<QByteArray> header(const QByteArray &name) const {
        for (const auto &[key, value] : headers) {
            if (key == name.toLower()) {
                return value;
            }
        }
        return std::nullopt;
    }
    int headerCount(const QByteArray &name) const {
        int n = 0;
        for (const auto &entry : headers) {
            n += entry.first == name.toLower() ? 1 : 0;
        }
        return n;
    }
};

class CannedServer : public QObject {
public:
    // Called once a whole request has arrived; writes the answer (or nothing) to the socket.
    using Responder = std::function<void(QTcpSocket *socket, const Received &request)>;

    CannedServer() {
        connect(&server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = server.nextPendingConnection()) {
                const int id = ++connections;
                auto buffer = std::make_shared<QByteArray>();
                connect(socket, &QTcpSocket::readyRead, this, [this, socket, id, buffer] {
                    *buffer += socket->readAll();
                    parse(socket, id, *buffer);
                });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
    }
    bool listen() { return server.listen(QHostAddress::LocalHost, 0); }
    int port() const { return server.serverPort(); }

    Responder respond;
    std::vector<Received> requests;
    int connections = 0;

private:
    void parse(QTcpSocket *socket, int id, QByteArray &buffer) {
        for (;;) {
            const qsizetype end = buffer.indexOf("\r\n\r\n");
            if (end < 0) {
                return;
            }
            Received request;
            request.connection = id;
            const QList<QByteArray> lines = buffer.left(end).split('\n');
            const QList<QByteArray> first = lines.front().trimmed().split(' ');
            request.method = first.value(0);
            request.target = first.value(1);
            qsizetype length = 0;
            for (qsizetype i = 1; i < lines.size(); ++i) {
                const qsizetype colon = lines[i].indexOf(':');
                if (colon < 0) {
                    continue;
                }
                const QByteArray name = lines[i].left(colon).trimmed().toLower();
                const QByteArray value = lines[i].mid(colon + 1).trimmed();
                request.headers.append({name, value});
                if (name == "content-length") {
                    length = value.toLongLong();
                }
            }
            if (buffer.size() < end + 4 + length) {
                return;
            }
            request.body = buffer.mid(end + 4, length);
            request.raw = buffer.left(end + 4 + length);
            buffer.remove(0, end + 4 + length);
            requests.push_back(request);
            if (respond) {
                respond(socket, requests.back());
            }
        }
    }

    QTcpServer server;
};

QByteArray answer(int status, const QByteArray &reason, const QByteArray &body) {
    return "HTTP/1.1 " + QByteArray::number(status) + " " + reason +
           "\r\nContent-Type: application/json\r\nContent-Length: " +
           QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

// The outcome of one publish, with a count of how often the callback ran.
struct Outcome {
    int calls = 0;
    std::optional<QByteArray> body;
    std::optional<Error> error;
    PollManager::ReplyCallback callback() {
        return [this](std::optional<QByteArray> b, std::optional<Error> e) {
            ++calls;
            body = std::move(b);
            error = std::move(e);
        };
    }
};

std::span<const std::uint8_t> asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

const std::string kToken = "dGhpcyBpcyBhIDMyLWJ5dGUgdGVzdCBrZXkgdmFsdWU=";

} // namespace

class TestPublish : public QObject {
    Q_OBJECT

private slots:
    void postsJSONWithBearerToken();
    void emptyTokenSendsNoAuthorization();
    void encodableValueIsSentAsItsJSON();
    void connectionIsReused();
    void statusOtherThan200IsPublishFailure();
    void redirectIsNotFollowed();
    void badURLIsUrlError();
    void transportFailureIsNetworkError();
    void silentServerTimesOut();
    void tricklingServerTimesOut();
    void hugeContentLengthIsRefused();
    void streamedBodyOver64MiBIsRefused();
    void bodyJustUnderTheCapIsAccepted();
    void pendingRequestsAreDroppedWithTheClient();
    void chunkedReplyIsReassembled();
    void connectionClosedByThePeerIsOpenedAgain();
    void streamWithoutLengthIsCutAtTheCap();
    void largeReplyIsFreshWhenItsHeadersWere();
    void replyWhoseHeadersArriveLateIsRefused();
    void bodyWrittenIntoTheRequestArrivesWhole();
    void envelopesThatChangeInPlacesAreSentAsTheirJSON();
    void replyBodyHandedBackTakesTheNextReply();
    void replyHeadsAreReadAsHttpSaysAndRefusedWithTheirReason();
    void bodyInPiecesIsReadToItsLengthAndNoFurther();
};

void TestPublish::postsJSONWithBearerToken() {
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [](QTcpSocket *socket, const Received &) {
        socket->write(answer(200, "OK", R"({"KDFNonce":"a"})"));
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    Outcome outcome;
    const std::string body = R"({"Type":"ping","ID":"","Data":""})";
    pm.publishLocal(body, server.port(), QStringLiteral("/request"), kToken, outcome.callback());
    QCOMPARE(outcome.calls, 0); // never before the call has returned
    QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
    QVERIFY2(!outcome.error, outcome.error ? outcome.error->description.c_str() : "");
    QCOMPARE(outcome.body, std::optional<QByteArray>(R"({"KDFNonce":"a"})"));

    QCOMPARE(server.requests.size(), std::size_t(1));
    const Received &request = server.requests.front();
    QVERIFY2(request.raw.startsWith("POST /request HTTP/1.1\r\n"), request.raw.constData());
    QCOMPARE(request.header("content-type"), std::optional<QByteArray>("application/json"));
    QCOMPARE(request.header("authorization"),
             std::optional<QByteArray>("Bearer " + QByteArray::fromStdString(kToken)));
    QCOMPARE(request.headerCount("authorization"), 1);
    QCOMPARE(request.header("host"),
             std::optional<QByteArray>("127.0.0.1:" + QByteArray::number(server.port())));
    QCOMPARE(request.body, QByteArray::fromStdString(body));
    // Nothing is compressed on loopback: the body is ciphertext.
    QCOMPARE(request.header("accept-encoding"), std::optional<QByteArray>("identity"));
    QCOMPARE(request.headerCount("accept-encoding"), 1);
    QCOMPARE(request.header("content-length"),
             std::optional<QByteArray>(QByteArray::number(qsizetype(body.size()))));
    QTest::qWait(50);
    QCOMPARE(outcome.calls, 1);
}

void TestPublish::emptyTokenSendsNoAuthorization() {
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [](QTcpSocket *socket, const Received &) {
        socket->write(answer(200, "OK", "{}"));
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    Outcome outcome;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), "", outcome.callback());
    QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
    QVERIFY(!outcome.error);
    QCOMPARE(server.requests.size(), std::size_t(1));
    const Received &request = server.requests.front();
    QVERIFY(!request.raw.toLower().contains("authorization"));
    QCOMPARE(request.headerCount("authorization"), 0);
    QCOMPARE(request.method, QByteArray("POST"));
    QCOMPARE(request.header("content-type"), std::optional<QByteArray>("application/json"));

    // The client's own token is what the app sends.
    Outcome second;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), pm.bearerToken,
                    second.callback());
    QTRY_COMPARE_WITH_TIMEOUT(second.calls, 1, 10000);
    QCOMPARE(server.requests.back().header("authorization"),
             std::optional<QByteArray>("Bearer " + QByteArray::fromStdString(pm.bearerToken)));
}

void TestPublish::encodableValueIsSentAsItsJSON() {
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [](QTcpSocket *socket, const Received &) {
        socket->write(answer(200, "OK", "ok"));
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    lumacrypt::KeyExchangeStore backend = tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    pm.kes.setExternalPublicKey(backend.LocalPublicKey());
    const lumacrypt::KeyExchangeAEADStore record = pm.kes.encodeJSONAndEncrypt(
        "addWatchDir", "Personal", "/home/u/Docs", pm.keyExchangeCurrentTimestampData());
    Outcome outcome;
    pm.publishLocal(record, server.port(), QStringLiteral("/request"), pm.bearerToken,
                    outcome.callback());
    QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
    QCOMPARE(outcome.body, std::optional<QByteArray>("ok"));
    const QByteArray sent = server.requests.front().body;
    QCOMPARE(sent, QByteArray::fromStdString(record.toJSON()));
    // ... and the backend opens what arrived.
    backend.setExternalPublicKey(pm.bearerToken);
    const lumacrypt::Bytes plain = backend.decryptAEADStore(
        lumacrypt::KeyExchangeAEADStore::fromJSON(std::string_view(sent.constData(), sent.size())));
    QCOMPARE(std::string(plain.begin(), plain.end()),
             std::string(R"({"Type":"addWatchDir","ID":"Personal","Data":"/home/u/Docs"})"));
}

void TestPublish::connectionIsReused() {
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [](QTcpSocket *socket, const Received &request) {
        socket->write(answer(200, "OK", request.body));
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    for (int i = 0; i < 3; ++i) {
        Outcome outcome;
        const std::string body = "{\"n\":" + std::to_string(i) + "}";
        pm.publishLocal(body, server.port(), QStringLiteral("/request"), kToken,
                        outcome.callback());
        QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
        QCOMPARE(outcome.body, std::optional<QByteArray>(QByteArray::fromStdString(body)));
    }
    QCOMPARE(server.requests.size(), std::size_t(3));
    QCOMPARE(server.connections, 1);
    for (const Received &request : server.requests) {
        QCOMPARE(request.connection, 1);
    }
}

void TestPublish::statusOtherThan200IsPublishFailure() {
    for (const auto &[status, reason] :
         std::vector<std::pair<int, QByteArray>>{{201, "Created"},
                                                 {204, "No Content"},
                                                 {401, "Unauthorized"},
                                                 {404, "Not Found"},
                                                 {500, "Internal Server Error"}}) {
        CannedServer server;
        QVERIFY(server.listen());
        server.respond = [status = status, reason = reason](QTcpSocket *socket, const Received &) {
            socket->write(answer(status, reason, status == 204 ? "" : R"({"status":"x"})"));
        };
        PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
        Outcome outcome;
        pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken,
                        outcome.callback());
        QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
        QVERIFY(!outcome.body);
        QCOMPARE(outcome.error, std::optional(Error::of(PollManagerError::publishFailure)));
        QTest::qWait(20);
        QCOMPARE(outcome.calls, 1);
    }
}

void TestPublish::redirectIsNotFollowed() {
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [&server](QTcpSocket *socket, const Received &) {
        socket->write("HTTP/1.1 307 Temporary Redirect\r\nLocation: http://127.0.0.1:" +
                      QByteArray::number(server.port()) +
                      "/elsewhere\r\nContent-Length: 0\r\n\r\n");
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    Outcome outcome;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken, outcome.callback());
    QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
    QCOMPARE(outcome.error, std::optional(Error::of(PollManagerError::publishFailure)));
    QTest::qWait(100);
    QCOMPARE(server.requests.size(), std::size_t(1));
}

void TestPublish::badURLIsUrlError() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    Outcome relative;
    pm.publishLocal("{}", 8123, QStringLiteral("request"), kToken, relative.callback());
    Outcome badPort;
    pm.publishLocal("{}", 70000, QStringLiteral("/request"), kToken, badPort.callback());
    Outcome negative;
    pm.publishLocal("{}", -1, QStringLiteral("/request"), kToken, negative.callback());
    Outcome noHost;
    pm.publishWithURL("{}", QUrl(QStringLiteral("/request")), kToken, noHost.callback());
    QCOMPARE(relative.calls + badPort.calls + negative.calls + noHost.calls, 0);
    QTRY_COMPARE(relative.calls + badPort.calls + negative.calls + noHost.calls, 4);
    for (const Outcome *o : {&relative, &badPort, &negative, &noHost}) {
        QCOMPARE(o->calls, 1);
        QCOMPARE(o->error, std::optional(Error::of(PollManagerError::urlError)));
        QVERIFY(!o->body);
    }
}

void TestPublish::transportFailureIsNetworkError() {
    // A port nobody listens on: take one, then close it.
    int port = 0;
    {
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        port = probe.serverPort();
    }
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    Outcome outcome;
    pm.publishLocal("{}", port, QStringLiteral("/request"), kToken, outcome.callback());
    QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
    QVERIFY(outcome.error);
    QCOMPARE(outcome.error->domain, std::string("NetworkError"));
    QCOMPARE(outcome.error->code, int(QNetworkReply::ConnectionRefusedError));
    QVERIFY(!outcome.error->description.empty());

    // A server that closes the connection without an answer.
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [](QTcpSocket *socket, const Received &) { socket->close(); };
    Outcome closed;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken, closed.callback());
    QTRY_COMPARE_WITH_TIMEOUT(closed.calls, 1, 10000);
    QVERIFY(closed.error);
    QCOMPARE(closed.error->domain, std::string("NetworkError"));
}

void TestPublish::silentServerTimesOut() {
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [](QTcpSocket *, const Received &) {}; // never answers
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    QCOMPARE(pm.requestTimeout(), std::chrono::milliseconds(30000));
    pm.setRequestTimeout(std::chrono::milliseconds(300));
    Outcome outcome;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken, outcome.callback());
    QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
    QCOMPARE(server.requests.size(), std::size_t(1)); // it did arrive
    QVERIFY(outcome.error);
    QCOMPARE(outcome.error->domain, std::string("NetworkError"));
    QCOMPARE(outcome.error->code, int(QNetworkReply::TimeoutError));
    QVERIFY(QByteArray::fromStdString(outcome.error->description).contains("timed out"));
    QTest::qWait(50);
    QCOMPARE(outcome.calls, 1);
}

void TestPublish::tricklingServerTimesOut() {
    // Headers, then a byte every 50 ms of a body that never completes: data keeps flowing, but
    // the whole exchange is still bounded.
    CannedServer server;
    QVERIFY(server.listen());
    QTimer trickle;
    QList<QPointer<QTcpSocket>> sockets;
    server.respond = [&](QTcpSocket *socket, const Received &) {
        socket->write("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n");
        sockets.append(socket);
    };
    connect(&trickle, &QTimer::timeout, this, [&] {
        for (const QPointer<QTcpSocket> &socket : sockets) {
            if (socket) {
                socket->write("x");
            }
        }
    });
    trickle.start(50);
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    pm.setRequestTimeout(std::chrono::milliseconds(600));
    Outcome outcome;
    QElapsedTimer clock;
    clock.start();
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken, outcome.callback());
    QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
    QVERIFY(outcome.error);
    QCOMPARE(outcome.error->domain, std::string("NetworkError"));
    QCOMPARE(outcome.error->code, int(QNetworkReply::TimeoutError));
}

void TestPublish::hugeContentLengthIsRefused() {
    CannedServer server;
    QVERIFY(server.listen());
    int written = 0;
    server.respond = [&](QTcpSocket *socket, const Received &) {
        // Announces 100 GB, sends a little, and would go on for ever.
        socket->write("HTTP/1.1 200 OK\r\nContent-Length: 100000000000\r\n\r\n" +
                      QByteArray(1024, 'x'));
        ++written;
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    QCOMPARE(pm.maxReplyBytes(), qint64(64) * 1024 * 1024);
    Outcome outcome;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken, outcome.callback());
    QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
    QCOMPARE(written, 1);
    QVERIFY(!outcome.body);
    QVERIFY(outcome.error);
    QCOMPARE(outcome.error->domain, std::string("NetworkError"));
    QVERIFY2(QByteArray::fromStdString(outcome.error->description).contains("67108864"),
             outcome.error->description.c_str());

    // Just over the cap, announced: refused as well.
    server.respond = [](QTcpSocket *socket, const Received &) {
        socket->write("HTTP/1.1 200 OK\r\nContent-Length: 67108865\r\n\r\n");
    };
    Outcome over;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken, over.callback());
    QTRY_COMPARE_WITH_TIMEOUT(over.calls, 1, 10000);
    QVERIFY(over.error);
    QCOMPARE(over.error->domain, std::string("NetworkError"));
}

void TestPublish::streamedBodyOver64MiBIsRefused() {
    // No Content-Length: the body runs until the server closes, and it never stops on its own.
    CannedServer server;
    QVERIFY(server.listen());
    qint64 sent = 0;
    bool refusedByClient = false;
    const QByteArray block(1024 * 1024, 'y');
    server.respond = [&](QTcpSocket *socket, const Received &) {
        socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n");
        auto feed = [&, socket] {
            while (socket->state() == QAbstractSocket::ConnectedState &&
                   socket->bytesToWrite() < 4 * block.size() && sent < 200 * block.size()) {
                socket->write(block);
                sent += block.size();
            }
        };
        connect(socket, &QTcpSocket::bytesWritten, socket, feed);
        connect(socket, &QTcpSocket::disconnected, this, [&] { refusedByClient = true; });
        feed();
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    Outcome outcome;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken, outcome.callback());
    QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 60000);
    QVERIFY(!outcome.body);
    QVERIFY(outcome.error);
    QCOMPARE(outcome.error->domain, std::string("NetworkError"));
    QVERIFY2(QByteArray::fromStdString(outcome.error->description).contains("67108864"),
             outcome.error->description.c_str());
    QTRY_VERIFY_WITH_TIMEOUT(refusedByClient, 10000);
    // The client stopped reading soon after the cap, far from the 200 MiB on offer.
    QVERIFY2(sent < 100 * block.size(), QByteArray::number(sent).constData());
}

void TestPublish::bodyJustUnderTheCapIsAccepted() {
    CannedServer server;
    QVERIFY(server.listen());
    const QByteArray big(1000, 'z');
    server.respond = [&](QTcpSocket *socket, const Received &) {
        socket->write(answer(200, "OK", big));
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    pm.setMaxReplyBytes(1000);
    Outcome exact;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken, exact.callback());
    QTRY_COMPARE_WITH_TIMEOUT(exact.calls, 1, 10000);
    QVERIFY(!exact.error);
    QCOMPARE(exact.body, std::optional<QByteArray>(big));

    pm.setMaxReplyBytes(999);
    Outcome over;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken, over.callback());
    QTRY_COMPARE_WITH_TIMEOUT(over.calls, 1, 10000);
    QVERIFY(over.error);
    QCOMPARE(over.error->domain, std::string("NetworkError"));
}

void TestPublish::pendingRequestsAreDroppedWithTheClient() {
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [](QTcpSocket *, const Received &) {};
    Outcome outcome;
    {
        PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
        pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken,
                        outcome.callback());
        QTRY_COMPARE_WITH_TIMEOUT(server.requests.size(), std::size_t(1), 10000);
    }
    QTest::qWait(100);
    QCOMPARE(outcome.calls, 0);
}

void TestPublish::chunkedReplyIsReassembled() {
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [](QTcpSocket *socket, const Received &) {
        socket->write("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                      "5\r\nhello\r\n6;note=x\r\n world\r\n0\r\nX-Trailer: 1\r\n\r\n");
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    for (int i = 0; i < 2; ++i) {
        Outcome outcome;
        pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken,
                        outcome.callback());
        QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
        QVERIFY2(!outcome.error, outcome.error ? outcome.error->description.c_str() : "");
        QCOMPARE(outcome.body, std::optional<QByteArray>("hello world"));
    }
    // The connection stays open after a complete chunked reply.
    QCOMPARE(server.connections, 1);

    // Chunks that add up to more than the cap are refused.
    pm.setMaxReplyBytes(10);
    Outcome over;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken, over.callback());
    QTRY_COMPARE_WITH_TIMEOUT(over.calls, 1, 10000);
    QVERIFY(!over.body);
    QVERIFY(over.error);
    QCOMPARE(over.error->domain, std::string("NetworkError"));
    QVERIFY2(QByteArray::fromStdString(over.error->description).contains("10 bytes"),
             over.error->description.c_str());
}

void TestPublish::connectionClosedByThePeerIsOpenedAgain() {
    // The peer answers as if it kept the connection, then closes it: the next request goes out
    // on a fresh connection and succeeds.
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [](QTcpSocket *socket, const Received &request) {
        socket->write(answer(200, "OK", request.body));
        socket->disconnectFromHost();
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    for (int i = 0; i < 3; ++i) {
        Outcome outcome;
        const std::string body = "{\"n\":" + std::to_string(i) + "}";
        pm.publishLocal(body, server.port(), QStringLiteral("/request"), kToken,
                        outcome.callback());
        QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
        QVERIFY2(!outcome.error, outcome.error ? outcome.error->description.c_str() : "");
        QCOMPARE(outcome.body, std::optional<QByteArray>(QByteArray::fromStdString(body)));
    }
    QCOMPARE(server.requests.size(), std::size_t(3));
    QCOMPARE(server.connections, 3);
    QCOMPARE(pm.http().connectionsOpened(), 3);
}

void TestPublish::streamWithoutLengthIsCutAtTheCap() {
    // No Content-Length: the peer offers three times the cap. The client refuses once the body
    // passes the cap, and never holds more than the cap of it.
    CannedServer server;
    QVERIFY(server.listen());
    const QByteArray block(1024 * 1024, 'y');
    const qint64 cap = PollManager::defaultMaxReplyBytes;
    const qint64 offered = 3 * cap;
    qint64 sent = 0;
    server.respond = [&](QTcpSocket *socket, const Received &) {
        socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n");
        auto feed = [&, socket] {
            while (socket->state() == QAbstractSocket::ConnectedState &&
                   socket->bytesToWrite() < 4 * block.size() && sent < offered) {
                socket->write(block);
                sent += block.size();
            }
        };
        connect(socket, &QTcpSocket::bytesWritten, socket, feed);
        feed();
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    QCOMPARE(pm.maxReplyBytes(), cap);
    Outcome outcome;
    qint64 sentWhenRefused = -1;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken,
                    [&](std::optional<QByteArray> body, std::optional<Error> error) {
                        sentWhenRefused = sent;
                        outcome.callback()(std::move(body), std::move(error));
                    });
    QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 60000);
    QVERIFY(!outcome.body);
    QVERIFY(outcome.error);
    QCOMPARE(outcome.error->domain, std::string("NetworkError"));
    QVERIFY2(QByteArray::fromStdString(outcome.error->description).contains("67108864"),
             outcome.error->description.c_str());
    const qint64 peak = pm.http().peakReplyBytes();
    QVERIFY2(peak <= cap, QByteArray::number(peak).constData());
    // It did read up to the cap (less at most one read-ahead buffer) before it refused.
    QVERIFY2(peak >= cap - 2 * block.size(), QByteArray::number(peak).constData());
    // The refusal came while the peer still had most of its offer left to send.
    QVERIFY2(sentWhenRefused < offered, QByteArray::number(sentWhenRefused).constData());
}

namespace {

// A client session and a backend store that trust each other, over the canned server, with
// time driven by hand.
struct SealedPeer {
    runwarden::ManualClock clock;
    tidepost::BackendSession session{tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM};
    lumacrypt::KeyExchangeStore backend = tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();

    explicit SealedPeer(int port) {
        PollManager &pm = session.pollManager();
        pm.setClock([this] { return clock.epochMilliseconds(); });
        pm.timestamp = clock.epochMilliseconds() - 1000;
        pm.setLogSink([](const std::string &) {});
        backend.setExternalPublicKey(pm.bearerToken);
        pm.kes.setExternalPublicKey(backend.LocalPublicKey());
        session.setPort(port);
    }
    // A reply sealed now, padded with blanks (which JSON allows) to `size` bytes when given.
    QByteArray reply(const std::string &plain, qsizetype size = 0) const {
        const std::string stamp = std::to_string(clock.epochMilliseconds());
        QByteArray body =
            QByteArray::fromStdString(backend.encrypt(asBytes(plain), asBytes(stamp)).toJSON());
        if (size > body.size()) {
            body.append(size - body.size(), ' ');
        }
        return body;
    }
};

} // namespace

void TestPublish::largeReplyIsFreshWhenItsHeadersWere() {
    // A 65,000,000-byte reply (under the 64 MiB cap) whose body arrives, and is opened, well
    // after the freshness window: the headers came in time, so it is fresh.
    CannedServer server;
    QVERIFY(server.listen());
    SealedPeer peer(server.port());
    const std::string plain =
        R"({"Type":"ping","ID":"","Data":")" + std::string(40'000'000, 'a') + R"("})";
    const qsizetype size = 65'000'000;
    QByteArray body;
    QPointer<QTcpSocket> replying;
    server.respond = [&](QTcpSocket *socket, const Received &) {
        body = peer.reply(plain, size);
        socket->write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                      QByteArray::number(body.size()) + "\r\n\r\n");
        replying = socket;
    };
    int headersSeen = 0;
    connect(&peer.session.pollManager().http(), &tidepost::LoopbackHttpClient::replyHeadersArrived,
            this, [&](std::int64_t at) {
                ++headersSeen;
                QCOMPARE(at, peer.clock.epochMilliseconds());
                // The body takes half a second to come: ten times the window.
                peer.clock.advance(std::chrono::milliseconds(500));
                QVERIFY(replying);
                replying->write(body);
            });
    std::optional<tidepost::Exchange> result;
    peer.session.send(tarnwick::TypeIDAndData{"ping", "", "[]"},
                      tidepost::BackendSession::Priority::command,
                      [&](const tidepost::Exchange &exchange) { result = exchange; });
    QTRY_VERIFY_WITH_TIMEOUT(result.has_value(), 120000);
    QCOMPARE(body.size(), size);
    QCOMPARE(headersSeen, 1);
    QVERIFY2(result->result == tidepost::Exchange::Result::opened,
             result->error ? result->error->description.c_str() : "not opened");
    QCOMPARE(result->plaintext.size(), plain.size());
    QVERIFY(result->plaintext == plain);
}

void TestPublish::replyWhoseHeadersArriveLateIsRefused() {
    // Sealed at once, but its headers only arrive half a second later: too old.
    CannedServer server;
    QVERIFY(server.listen());
    SealedPeer peer(server.port());
    server.respond = [&](QTcpSocket *socket, const Received &) {
        const QByteArray body = peer.reply(R"({"Type":"ping","ID":"","Data":""})");
        peer.clock.advance(std::chrono::milliseconds(500));
        socket->write(answer(200, "OK", body));
    };
    std::optional<tidepost::Exchange> result;
    peer.session.send(tarnwick::TypeIDAndData{"ping", "", "[]"},
                      tidepost::BackendSession::Priority::command,
                      [&](const tidepost::Exchange &exchange) { result = exchange; });
    QTRY_VERIFY_WITH_TIMEOUT(result.has_value(), 10000);
    QVERIFY(result->result == tidepost::Exchange::Result::unreadable);
    QCOMPARE(result->error, std::optional(Error::of(PollManagerError::timestampInFutureError)));

    // The same reply in time is accepted: the refusal was the lateness alone.
    server.respond = [&](QTcpSocket *socket, const Received &) {
        socket->write(answer(200, "OK", peer.reply(R"({"Type":"ping","ID":"","Data":""})")));
    };
    peer.clock.advance(std::chrono::milliseconds(1));
    result.reset();
    peer.session.send(tarnwick::TypeIDAndData{"ping", "", "[]"},
                      tidepost::BackendSession::Priority::command,
                      [&](const tidepost::Exchange &exchange) { result = exchange; });
    QTRY_VERIFY_WITH_TIMEOUT(result.has_value(), 10000);
    QVERIFY2(result->result == tidepost::Exchange::Result::opened,
             result->error ? result->error->description.c_str() : "not opened");
}

QTEST_GUILESS_MAIN(TestPublish)

void TestPublish::bodyWrittenIntoTheRequestArrivesWhole() {
    // A body written straight into the request's buffer leaves with the same head and headers
    // as one passed whole; requests of other sizes after it (larger, smaller, and one far
    // larger than the kernel takes at once, whose rest follows through the socket's buffer)
    // arrive intact, and a writer that throws sends nothing and leaves the next request
    // unharmed.
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [](QTcpSocket *socket, const Received &request) {
        socket->write(answer(200, "OK", request.body));
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    const std::size_t sizes[] = {5, 300000, 17, 24 * 1024 * 1024, 300000};
    for (std::size_t round = 0; round < std::size(sizes); ++round) {
        const std::size_t size = sizes[round];
        std::string body(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            body[i] = char('a' + (i * 7 + round) % 26);
        }
        // The address and token change now and then: each request carries its own.
        const QString path = round % 3 == 2 ? QStringLiteral("/other") : QStringLiteral("/request");
        const std::string token = round % 2 == 1 ? std::string("another-token") : kToken;
        Outcome outcome;
        pm.publishLocalWritten(
            size,
            [&](std::span<char> out) {
                QCOMPARE(out.size(), size);
                std::copy(body.begin(), body.end(), out.begin());
            },
            server.port(), path, token,
            [&outcome](std::optional<QByteArray> b, std::optional<Error> e, std::int64_t) {
                ++outcome.calls;
                outcome.body = std::move(b);
                outcome.error = std::move(e);
            });
        QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
        QVERIFY(!outcome.error);
        QCOMPARE(outcome.body, std::optional<QByteArray>(QByteArray::fromStdString(body)));
        const Received &request = server.requests.back();
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.target, path.toUtf8());
        QCOMPARE(request.body, QByteArray::fromStdString(body));
        QCOMPARE(request.header("authorization"),
                 std::optional<QByteArray>("Bearer " + QByteArray::fromStdString(token)));
        QCOMPARE(request.header("content-type"), std::optional<QByteArray>("application/json"));
        QCOMPARE(request.header("content-length"),
                 std::optional<QByteArray>(QByteArray::number(qsizetype(size))));
        QCOMPARE(request.header("accept-encoding"), std::optional<QByteArray>("identity"));
    }
    int calls = 0;
    QVERIFY_THROWS_EXCEPTION(
        std::runtime_error,
        pm.publishLocalWritten(
            10, [](std::span<char>) { throw std::runtime_error("sealing failed"); }, server.port(),
            QStringLiteral("/request"), kToken,
            [&calls](std::optional<QByteArray>, std::optional<Error>, std::int64_t) { ++calls; }));
    Outcome after;
    pm.publishLocal(std::string("{}"), server.port(), QStringLiteral("/request"), kToken,
                    after.callback());
    QTRY_COMPARE_WITH_TIMEOUT(after.calls, 1, 10000);
    QCOMPARE(after.body, std::optional<QByteArray>(QByteArray("{}")));
    QCOMPARE(calls, 0);
    QCOMPARE(server.requests.size(), std::size(sizes) + 1);
}

void TestPublish::replyBodyHandedBackTakesTheNextReply() {
    // A body handed back is the memory the next reply of no greater size is read into, with
    // room after it for a reader that parses in place.
    CannedServer server;
    QVERIFY(server.listen());
    server.respond = [](QTcpSocket *socket, const Received &request) {
        socket->write(answer(200, "OK", request.body));
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    const auto post = [&](const std::string &body) {
        Outcome outcome;
        pm.publishLocal(body, server.port(), QStringLiteral("/request"), kToken,
                        outcome.callback());
        if (!QTest::qWaitFor([&] { return outcome.calls == 1; }, 10000)) {
            return QByteArray();
        }
        return outcome.body.value_or(QByteArray());
    };
    QByteArray first = post(std::string(100000, 'x'));
    QCOMPARE(first.size(), 100000);
    QVERIFY(first.capacity() - first.size() >= qsizetype(tarnwick::jsonPadding));
    const char *memory = first.constData();
    pm.http().recycle(std::move(first));
    const QByteArray second = post(std::string(90000, 'y'));
    QCOMPARE(second, QByteArray(90000, 'y'));
    QCOMPARE(second.constData(), memory);
    QVERIFY(second.capacity() - second.size() >= qsizetype(tarnwick::jsonPadding));
    // A body still shared elsewhere is not taken: the next reply gets memory of its own.
    QByteArray shared = second;
    pm.http().recycle(std::move(shared));
    const QByteArray third = post(std::string(1000, 'z'));
    QCOMPARE(third, QByteArray(1000, 'z'));
    QVERIFY(third.constData() != second.constData());
}

void TestPublish::envelopesThatChangeInPlacesAreSentAsTheirJSON() {
    // The session keeps the last envelope's JSON and escapes again only the parts of a new
    // folder list that changed: whatever the change, the backend opens exactly the envelope's
    // own JSON text.
    CannedServer server;
    QVERIFY(server.listen());
    SealedPeer peer(server.port());
    std::vector<std::string> opened;
    server.respond = [&](QTcpSocket *socket, const Received &request) {
        const lumacrypt::Bytes plain = peer.backend.decryptAEADStore(
            lumacrypt::KeyExchangeAEADStore::fromJSON(request.body.toStdString()));
        opened.emplace_back(plain.begin(), plain.end());
        peer.clock.advance(std::chrono::milliseconds(1));
        socket->write(answer(200, "OK", peer.reply("[]")));
    };
    std::string list = "[";
    for (int i = 0; i < 3000; ++i) {
        list += "{\"Path\":\"/home/ana/\xD0\x94\xD0\xBE\xD0\xBA " + std::to_string(i) +
                "\",\"Status\":\"3 of 6 - \\\"x\\\"\t" + std::to_string(i * 7) + "\"},";
    }
    list += "{}]";
    std::vector<tarnwick::TypeIDAndData> envelopes;
    envelopes.push_back({"ping", "", list});
    envelopes.push_back({"ping", "", list}); // the same list in a new envelope
    std::string edited = list;
    edited.replace(100000, 3, "\xE6\x97\xA5\"");
    envelopes.push_back({"ping", "", edited});
    edited.insert(40000, "\x94"); // a lone continuation byte
    edited.erase(150000, 5000);
    envelopes.push_back({"ping", "", edited});
    envelopes.push_back({"ping", "", edited + "tail"});
    envelopes.push_back({"getGroups", "7", ""});
    envelopes.push_back({"ping", "", list.substr(0, 1000)});
    envelopes.push_back({"ping", "id", list});
    envelopes.push_back({"ping", "id", ""});
    for (const tarnwick::TypeIDAndData &envelope : envelopes) {
        std::optional<tidepost::Exchange> result;
        peer.session.send(std::make_shared<const tarnwick::TypeIDAndData>(envelope),
                          tidepost::BackendSession::Priority::command,
                          [&](const tidepost::Exchange &exchange) { result = exchange; });
        QTRY_VERIFY_WITH_TIMEOUT(result.has_value(), 10000);
        QVERIFY2(result->result == tidepost::Exchange::Result::opened,
                 result->error ? result->error->description.c_str() : "not opened");
        QCOMPARE(opened.size(), std::size_t(&envelope - envelopes.data() + 1));
        QVERIFY(opened.back() == envelope.toJSON());
    }
}

void TestPublish::replyHeadsAreReadAsHttpSaysAndRefusedWithTheirReason() {
    // Each canned head (then "{}" and a close), and what the request must end with: the body,
    // or the error's description (empty: the publish failure of a status other than 200).
    struct Case {
        QByteArray head;
        std::optional<QByteArray> body;
        QString error;
    };
    const std::vector<Case> cases{
        {"HTTP/1.1 200 OK\r\ncOnTeNt-LeNgTh: 2\r\n\r\n", "{}", {}},
        {"HTTP/1.1 200 OK\r\nContent-Length:2\r\nX-Other:\t a:b \r\n\r\n", "{}", {}},
        {"HTTP/1.1 200 OK  \r\n  Content-Length  :  2  \r\n\r\n", "{}", {}},
        {"HTTP/1.1 200\r\nContent-Length: 2\r\n\r\n", "{}", {}},
        {"HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 2\r\n\r\n", "{}", {}},
        {"HTTP/1.1 200 OK\r\nCONTENT-ENCODING: IDENTITY\r\nContent-Length: 2\r\n\r\n", "{}", {}},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: Identity\r\nContent-Length: 2\r\n\r\n", "{}", {}},
        {"HTTP/1.1 200 OK\r\nConnection: Keep-Alive\r\nContent-Length: 2\r\n\r\n", "{}", {}},
        {"HTTP/1.1 200 OK\r\nConnection: CLOSE\r\n\r\n", "{}", {}},
        {"HTTP/1.0 200 OK\r\n\r\n", "{}", {}},
        {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n", "{}", {}},
        {"HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: 2\r\n\r\n",
         {},
         "The reply is compressed although it was not asked"},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\n",
         {},
         "The reply uses a transfer coding not asked for"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 3\r\n\r\n",
         {},
         "The reply's length is not valid"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 2x\r\n\r\n", {}, "The reply's length is not valid"},
        {"HTTP/1.1 200 OK\r\nContent-Length: -2\r\n\r\n", {}, "The reply's length is not valid"},
        {"HTTP/1.1 200 OK\r\nno colon here\r\nContent-Length: 2\r\n\r\n",
         {},
         "The reply carries a malformed header"},
        {"HTTP/1.1 200 OK\r\n: no name\r\nContent-Length: 2\r\n\r\n",
         {},
         "The reply carries a malformed header"},
        {"ICY 200 OK\r\nContent-Length: 2\r\n\r\n", {}, {}},
        {"HTTP/1.1 2000 OK\r\nContent-Length: 2\r\n\r\n", {}, {}},
        {"HTTP/1.1 404 Not Found\r\nContent-Length: 2\r\n\r\n", {}, {}},
    };
    for (const Case &c : cases) {
        CannedServer server;
        QVERIFY(server.listen());
        server.respond = [&c](QTcpSocket *socket, const Received &) {
            socket->write(c.head + "{}");
            socket->flush();
            socket->disconnectFromHost();
        };
        PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
        Outcome outcome;
        pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken,
                        outcome.callback());
        QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, 1, 10000);
        const QByteArray where = c.head.left(60);
        QVERIFY2(outcome.body == c.body, where.constData());
        if (c.body) {
            continue;
        }
        QVERIFY2(outcome.error.has_value(), where.constData());
        if (!c.error.isEmpty()) {
            QVERIFY2(QString::fromStdString(outcome.error->description).contains(c.error),
                     (where.toStdString() + " -> " + outcome.error->description).c_str());
        } else {
            QVERIFY2(!QString::fromStdString(outcome.error->description)
                          .contains(QStringLiteral("header")),
                     where.constData());
        }
    }
}

void TestPublish::bodyInPiecesIsReadToItsLengthAndNoFurther() {
    // A body that comes in pieces, the last one followed at once by bytes of something else:
    // the reply is the body to its length, not a byte more, and a request sent from the reply's
    // own handler (as the session sends its next one) goes out on a new connection and gets its
    // own reply, not the stray bytes. The rest of the body and the stray bytes are in the kernel
    // before the client has read past the head, so the client finds them together.
    CannedServer server;
    QVERIFY(server.listen());
    QByteArray body(64 * 1024, '\0');
    for (qsizetype i = 0; i < body.size(); ++i) {
        body[i] = char('a' + i % 26);
    }
    QPointer<QTcpSocket> replying;
    int requests = 0;
    server.respond = [&](QTcpSocket *socket, const Received &) {
        if (++requests == 1) {
            socket->write("HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(body.size()) +
                          "\r\n\r\n" + body.first(1000));
            replying = socket;
        } else {
            socket->write(answer(200, "OK", "second"));
        }
    };
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    connect(&pm.http(), &tidepost::LoopbackHttpClient::replyHeadersArrived, this, [&] {
        if (requests != 1) {
            return;
        }
        QVERIFY(replying);
        replying->write(body.sliced(1000));
        replying->write("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nstray");
        QVERIFY(replying->flush());
        QCOMPARE(replying->bytesToWrite(), 0);
    });
    Outcome first, second;
    pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken,
                    [&](std::optional<QByteArray> reply, std::optional<Error> error) {
                        first.callback()(std::move(reply), std::move(error));
                        pm.publishLocal("{}", server.port(), QStringLiteral("/request"), kToken,
                                        second.callback());
                    });
    QTRY_COMPARE_WITH_TIMEOUT(second.calls, 1, 10000);
    QCOMPARE(first.calls, 1);
    QVERIFY2(!first.error, first.error ? first.error->description.c_str() : "");
    QCOMPARE(first.body->size(), body.size());
    QVERIFY(*first.body == body);
    QVERIFY2(!second.error, second.error ? second.error->description.c_str() : "");
    QCOMPARE(second.body, std::optional<QByteArray>("second"));
    QCOMPARE(pm.http().connectionsOpened(), 2);
}

#include "tst_publish.moc"
