// The development backend over the real protocol: sign-in, the commands and their answers, every
// refusal of the HTTP endpoint, the replay and freshness checks, strictly increasing answer
// timestamps, persistence of the state and logging out.

#include "BackendHarness.h"

#include <Models.h>
#include <lumacrypt/Base64.h>

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <set>
#include <thread>

#include <nlohmann/json.hpp>

using namespace devbackendtest;

namespace {
const std::string kAddress = "someone@example.org";
}

class ProtocolTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void signedOutCommandsAskForAuthentication();
    void requestCodeRefusesAddressesThatAreNoFileName();
    void signInWithTheMailedCode();
    void getGroupsListsTheTwoDefaultGroups();
    void pingWithoutFoldersAnswersPing();
    void answersAreNeverCompressed();
    void unknownCommandIsAnError();
    void openDirPathAnswersAnEmptySealedBody();
    void openWebKnowsOnlyExistingGroups();
    void updateGroupStoresRetention();
    void addWatchDirRefusals();
    void malformedEnvelopeIsAnError();

    void wrongOrMissingBearerIs401();
    void originHeaderIs403BeforeTheBearer();
    void foreignHostIs403();
    void localhostHostIsAccepted();
    void bodyOver16MiBIs413();
    void otherMethodsAndPaths();
    void tamperedRecordIs400();
    void notARecordIs400();
    void replayedRecordIs400();
    void staleOrFutureTimestampIs400();
    void answerTimestampsStrictlyIncrease();
    void listensOnLoopbackAddressOnly();
    void concurrentRequestsAllAnswer();
    void oneConnectionCarriesManyRequests();
    void nothingAClientSendsStopsTheBackend();
    void openCommandsUseTheDesktopOpener();
    void theSignInCodeShowsAsANotification();

    void stateSurvivesARestart();
    void logoutAndExitEndsTheProcess();

private:
    QTemporaryDir stateRoot_;
    QString stateDir_;
    std::unique_ptr<Backend> backend_;
};

void ProtocolTest::initTestCase() {
    QVERIFY(stateRoot_.isValid());
    stateDir_ = stateRoot_.path() + QStringLiteral("/state");
    backend_ = std::make_unique<Backend>();
    QString error;
    Backend::Options options;
    options.stateDir = stateDir_;
    QVERIFY2(backend_->start(options, &error), qPrintable(error));
    QVERIFY(backend_->output().contains("starting, state in " + stateDir_.toUtf8()));
}

void ProtocolTest::cleanupTestCase() {
    backend_.reset();
}

void ProtocolTest::signedOutCommandsAskForAuthentication() {
    const std::vector<std::pair<std::string, std::string>> commands = {
        {"getGroups", ""},           {"ping", ""},
        {"addWatchDir", "Personal"}, {"stopWatching", "/"},
        {"updateGroup", ""},         {"openWeb", "1"},
        {"openDirPath", "/"},        {"no such command", ""},
        {"logoutAndExit", ""},
    };
    for (const auto &[type, id] : commands) {
        const auto answer = backend_->send(type, id);
        QVERIFY2(answer.opened, answer.problem.c_str());
        QCOMPARE(answer.plaintext, kAuthRequest);
    }
    QVERIFY(backend_->running()); // logoutAndExit while signed out does not end it
}

void ProtocolTest::requestCodeRefusesAddressesThatAreNoFileName() {
    for (const char *address : {"../escape@example.org", "", "no-at-sign", "a/b@c.d"}) {
        const auto answer = backend_->send("requestCode", address);
        QVERIFY2(answer.opened, answer.problem.c_str());
        QCOMPARE(answer.plaintext, errorJSON("Invalid e-mail address"));
    }
    QVERIFY(!QFile::exists(stateDir_ + QStringLiteral("/escape@example.org")));
}

void ProtocolTest::signInWithTheMailedCode() {
    auto answer = backend_->send("requestCode", kAddress);
    QVERIFY2(answer.opened, answer.problem.c_str());
    QCOMPARE(answer.plaintext, kSuccess);

    QFile outbox(stateDir_ + QStringLiteral("/outbox/") + QString::fromStdString(kAddress));
    QVERIFY(outbox.open(QIODevice::ReadOnly));
    const QByteArray code = outbox.readAll().trimmed();
    QCOMPARE(code.size(), 6);
    for (const char c : code) {
        QVERIFY(c >= '0' && c <= '9');
    }
    QVERIFY(backend_->waitForOutput(
        "sign-in code for " + QByteArray(kAddress.c_str()) + ": " + code + "\n", 5000));

    const std::string wrong = code == "000000" ? "000001" : "000000";
    answer = backend_->send("auth", kAddress, wrong);
    QVERIFY2(answer.opened, answer.problem.c_str());
    QCOMPARE(answer.plaintext, errorJSON("Invalid or expired code"));
    // The right code for another address does not sign in either.
    answer = backend_->send("auth", "other@example.org", code.toStdString());
    QCOMPARE(answer.plaintext, errorJSON("Invalid or expired code"));
    answer = backend_->send("getGroups");
    QCOMPARE(answer.plaintext, kAuthRequest);

    answer = backend_->send("auth", kAddress, code.toStdString());
    QVERIFY2(answer.opened, answer.problem.c_str());
    QCOMPARE(answer.plaintext, kSuccess);
    // A code signs in once.
    answer = backend_->send("auth", kAddress, code.toStdString());
    QCOMPARE(answer.plaintext, errorJSON("Invalid or expired code"));
}

void ProtocolTest::getGroupsListsTheTwoDefaultGroups() {
    const auto answer = backend_->send("getGroups");
    QVERIFY2(answer.opened, answer.problem.c_str());
    const auto groups = tarnwick::decodeGroupItems(answer.plaintext);
    QCOMPARE(groups.size(), std::size_t(2));
    QCOMPARE(groups[0].groupID, 1);
    QCOMPARE(groups[0].name, std::string("Personal"));
    QVERIFY(groups[0].walkPaths.empty());
    QCOMPARE(groups[1].groupID, 2);
    QCOMPARE(groups[1].name, std::string("Family"));
    // The client tries the folder report first: a group list must not decode as one.
    QVERIFY_THROWS_EXCEPTION(tarnwick::DecodingError, tarnwick::decodeDirItems(answer.plaintext));
}

void ProtocolTest::pingWithoutFoldersAnswersPing() {
    const auto answer = backend_->send("ping", "", "[]");
    QVERIFY2(answer.opened, answer.problem.c_str());
    QCOMPARE(answer.plaintext, kPingMessage);
}

void ProtocolTest::answersAreNeverCompressed() {
    // A client that offers every encoding still gets the body as it is: sealed answers are
    // ciphertext, and refusals are a line of text.
    auto headers = backend_->goodHeaders();
    headers["Accept-Encoding"] = "gzip, deflate, br, zstd";
    const HttpReply sealed = httpExchange(backend_->port(), "POST", "/request", headers,
                                          backend_->seal("ping", "", "[]", nowMs()));
    QVERIFY2(sealed.transportOk, sealed.transportError.c_str());
    QCOMPARE(sealed.status, 200);
    QVERIFY(!sealed.hasHeader("Content-Encoding"));
    QVERIFY(sealed.hasHeader("Content-Length"));
    std::string plaintext, problem;
    std::int64_t timestamp = 0;
    QVERIFY2(backend_->open(sealed.body, plaintext, timestamp, problem), problem.c_str());
    QCOMPARE(plaintext, kPingMessage);

    headers["Authorization"] = "Bearer not-the-token";
    const HttpReply refused = httpExchange(backend_->port(), "POST", "/request", headers,
                                           backend_->seal("ping", "", "[]", nowMs()));
    QCOMPARE(refused.status, 401);
    QVERIFY(!refused.hasHeader("Content-Encoding"));
    QCOMPARE(refused.body, std::string("unauthorized\n"));
}

void ProtocolTest::unknownCommandIsAnError() {
    const auto answer = backend_->send("frobnicate", "x", "y");
    QVERIFY2(answer.opened, answer.problem.c_str());
    QCOMPARE(answer.plaintext, errorJSON("Unknown request type: frobnicate"));
}

void ProtocolTest::openDirPathAnswersAnEmptySealedBody() {
    for (const std::string &path :
         std::vector<std::string>{QDir::tempPath().toStdString(), "/no/such/dir"}) {
        const auto answer = backend_->send("openDirPath", path);
        QVERIFY2(answer.opened, answer.problem.c_str());
        QCOMPARE(answer.http.status, 200);
        QVERIFY(answer.plaintext.empty());
    }
    QVERIFY(backend_->waitForOutput("openDirPath: would open", 5000));
}

void ProtocolTest::openWebKnowsOnlyExistingGroups() {
    auto answer = backend_->send("openWeb", "1");
    QVERIFY2(answer.opened, answer.problem.c_str());
    QCOMPARE(answer.plaintext, kSuccess);
    QVERIFY(backend_->waitForOutput("openWeb: would open file://", 5000));
    answer = backend_->send("openWeb", "99");
    QCOMPARE(answer.plaintext, errorJSON("Unknown group: 99"));
    answer = backend_->send("openWeb", "one");
    QCOMPARE(answer.plaintext, errorJSON("Unknown group: one"));
}

void ProtocolTest::updateGroupStoresRetention() {
    tarnwick::GroupItem family{2, "Family", {}, tarnwick::RetentionSettings{}};
    family.retentionSettings->retentionDays = 7;
    auto answer = backend_->send("updateGroup", "", family.toJSON());
    QVERIFY2(answer.opened, answer.problem.c_str());
    QCOMPARE(answer.plaintext, kSuccess);

    answer = backend_->send("getGroups");
    const auto groups = tarnwick::decodeGroupItems(answer.plaintext);
    QCOMPARE(groups.size(), std::size_t(2));
    QVERIFY(groups[1].retentionSettings.has_value());
    QCOMPARE(groups[1].retentionSettings->retentionDays, std::optional<std::int64_t>(7));
    QVERIFY(!groups[0].retentionSettings || !groups[0].retentionSettings->isEnabled());

    const tarnwick::GroupItem unknown{42, "Nobody", {}, std::nullopt};
    answer = backend_->send("updateGroup", "", unknown.toJSON());
    QCOMPARE(answer.plaintext, errorJSON("Unknown group: 42"));
    answer = backend_->send("updateGroup", "", "{not json");
    QCOMPARE(answer.plaintext, errorJSON("Malformed group"));
    tarnwick::GroupItem negative{1, "Personal", {}, tarnwick::RetentionSettings{}};
    negative.retentionSettings->retentionDays = -1;
    answer = backend_->send("updateGroup", "", negative.toJSON());
    QCOMPARE(answer.plaintext, errorJSON("retention_days must not be negative"));
}

void ProtocolTest::addWatchDirRefusals() {
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    QFile file(folder.path() + QStringLiteral("/plain.txt"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("x");
    file.close();
    const std::string path = folder.path().toStdString();

    auto answer = backend_->send("addWatchDir", "Work", path);
    QCOMPARE(answer.plaintext, errorJSON("Unknown group: Work"));
    answer = backend_->send("addWatchDir", "Personal", "relative/path");
    QCOMPARE(answer.plaintext, errorJSON("Path is not absolute: relative/path"));
    answer = backend_->send("addWatchDir", "Personal", path + "/missing");
    QCOMPARE(answer.plaintext, errorJSON("Folder does not exist: " + path + "/missing"));
    answer = backend_->send("addWatchDir", "Personal", path + "/plain.txt");
    QCOMPARE(answer.plaintext, errorJSON("Not a folder: " + path + "/plain.txt"));
    answer = backend_->send("addWatchDir", "Personal", "");
    QCOMPARE(answer.plaintext, errorJSON("No folder given"));
    answer = backend_->send("addWatchDir", "Personal", stateDir_.toStdString() + "/vault");
    QCOMPARE(answer.plaintext, errorJSON("Folder is inside the backend's state folder: " +
                                         stateDir_.toStdString() + "/vault"));

    answer = backend_->send("getGroups");
    for (const auto &group : tarnwick::decodeGroupItems(answer.plaintext)) {
        QVERIFY(group.walkPaths.empty());
    }
}

void ProtocolTest::malformedEnvelopeIsAnError() {
    // A record that opens but does not hold an envelope.
    const std::string timestamp = std::to_string(nowMs());
    const std::string sealed =
        backend_->store()
            .encrypt(
                std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t *>("[1,2,3]"), 7),
                std::span<const std::uint8_t>(
                    reinterpret_cast<const std::uint8_t *>(timestamp.data()), timestamp.size()))
            .toJSON();
    const auto reply =
        httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(), sealed);
    QCOMPARE(reply.status, 200);
    std::string plaintext;
    std::int64_t answerTime = 0;
    std::string problem;
    QVERIFY2(backend_->open(reply.body, plaintext, answerTime, problem), problem.c_str());
    QCOMPARE(plaintext, errorJSON("Malformed request"));
}

void ProtocolTest::wrongOrMissingBearerIs401() {
    const std::string body = backend_->seal("getGroups", "", "", nowMs());
    auto headers = backend_->goodHeaders();
    headers["Authorization"] =
        "Bearer " +
        lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(std::string()).LocalPublicKey();
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", headers, body).status, 401);
    headers["Authorization"] = backend_->token(); // no "Bearer "
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", headers, body).status, 401);
    headers["Authorization"] = "Bearer " + backend_->token() + "x";
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", headers, body).status, 401);
    headers.erase("Authorization");
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", headers, body).status, 401);
    // The good token still works with the same body.
    QCOMPARE(
        httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(), body).status,
        200);
}

void ProtocolTest::originHeaderIs403BeforeTheBearer() {
    auto headers = backend_->goodHeaders();
    headers["Origin"] = "http://127.0.0.1:" + std::to_string(backend_->port());
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", headers,
                          backend_->seal("getGroups", "", "", nowMs()))
                 .status,
             403);
    headers["Origin"] = "null";
    headers["Authorization"] = "Bearer wrong";
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", headers, "{}").status, 403);
}

void ProtocolTest::foreignHostIs403() {
    const std::string port = std::to_string(backend_->port());
    const std::vector<std::string> hosts = {"evil.example:" + port, "127.0.0.1:1", "127.0.0.1",
                                            "localhost.evil.example:" + port, "0.0.0.0:" + port};
    for (const auto &host : hosts) {
        auto headers = backend_->goodHeaders();
        headers["Host"] = host;
        const auto reply = httpExchange(backend_->port(), "POST", "/request", headers,
                                        backend_->seal("getGroups", "", "", nowMs()));
        QVERIFY2(reply.status == 403, host.c_str());
    }
    // Wrong bearer and foreign host: the host check comes first.
    auto headers = backend_->goodHeaders();
    headers["Host"] = "evil.example:" + port;
    headers["Authorization"] = "Bearer nope";
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", headers, "{}").status, 403);
}

void ProtocolTest::localhostHostIsAccepted() {
    auto headers = backend_->goodHeaders();
    headers["Host"] = "localhost:" + std::to_string(backend_->port());
    const auto reply = httpExchange(backend_->port(), "POST", "/request", headers,
                                    backend_->seal("getGroups", "", "", nowMs()));
    QCOMPARE(reply.status, 200);
}

void ProtocolTest::bodyOver16MiBIs413() {
    // A request announcing far more than 16 MiB is refused before its body is read.
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(backend_->port()));
    QVERIFY(socket.waitForConnected(5000));
    const QByteArray head =
        "POST /request HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(backend_->port()) +
        "\r\nAuthorization: Bearer " + QByteArray(backend_->token().c_str()) +
        "\r\nContent-Type: application/json\r\nContent-Length: " +
        QByteArray::number(100 * 1024 * 1024) + "\r\n\r\n";
    socket.write(head);
    QVERIFY(socket.waitForBytesWritten(5000));
    QByteArray response;
    QDeadlineTimer deadline(10000);
    while (!response.contains("\r\n") && !deadline.hasExpired()) {
        if (socket.waitForReadyRead(100)) {
            response += socket.readAll();
        } else if (socket.state() != QAbstractSocket::ConnectedState) {
            response += socket.readAll();
            break;
        }
    }
    QVERIFY2(response.startsWith("HTTP/1.1 413"), response.constData());

    // The same size in chunks, with no length announced: refused once the limit is passed.
    QTcpSocket chunked;
    chunked.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(backend_->port()));
    QVERIFY(chunked.waitForConnected(5000));
    chunked.write(
        "POST /request HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(backend_->port()) +
        "\r\nAuthorization: Bearer " + QByteArray(backend_->token().c_str()) +
        "\r\nContent-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\n");
    const QByteArray piece(1024 * 1024, 'a');
    for (int i = 0; i < 17 && chunked.state() == QAbstractSocket::ConnectedState; ++i) {
        chunked.write(QByteArray::number(piece.size(), 16) + "\r\n" + piece + "\r\n");
        while (chunked.bytesToWrite() > 0 && chunked.waitForBytesWritten(5000)) {
        }
    }
    if (chunked.state() == QAbstractSocket::ConnectedState) {
        chunked.write("0\r\n\r\n");
        chunked.waitForBytesWritten(5000);
    }
    QByteArray chunkedResponse = chunked.readAll();
    deadline = QDeadlineTimer(10000);
    while (!chunkedResponse.contains("\r\n") && !deadline.hasExpired() &&
           chunked.waitForReadyRead(100)) {
        chunkedResponse += chunked.readAll();
    }
    QVERIFY2(chunkedResponse.startsWith("HTTP/1.1 413"), chunkedResponse.constData());

    // A whole body one byte over 16 MiB with its length declared: 413, and the client gets to
    // read it.
    const std::string big(16 * 1024 * 1024 + 1, 'a');
    const auto reply =
        httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(), big);
    QVERIFY2(reply.transportOk, reply.transportError.c_str());
    QCOMPARE(reply.status, 413);
    // Exactly 16 MiB is within the limit (and then just not a sealed record).
    const std::string limit(16 * 1024 * 1024, 'a');
    QCOMPARE(
        httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(), limit).status,
        400);
    QVERIFY(backend_->running());
}

void ProtocolTest::otherMethodsAndPaths() {
    const auto headers = backend_->goodHeaders();
    QCOMPARE(httpExchange(backend_->port(), "GET", "/request", headers, "").status, 405);
    QCOMPARE(httpExchange(backend_->port(), "PUT", "/request", headers, "{}").status, 405);
    QCOMPARE(httpExchange(backend_->port(), "DELETE", "/request", headers, "").status, 405);
    QCOMPARE(httpExchange(backend_->port(), "GET", "/", headers, "").status, 404);
    QCOMPARE(httpExchange(backend_->port(), "POST", "/other", headers,
                          backend_->seal("getGroups", "", "", nowMs()))
                 .status,
             404);
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request/extra", headers,
                          backend_->seal("getGroups", "", "", nowMs()))
                 .status,
             404);
}

void ProtocolTest::tamperedRecordIs400() {
    const std::string sealed = backend_->seal("getGroups", "", "", nowMs());
    const auto record = lumacrypt::KeyExchangeAEADStore::fromJSON(sealed);

    auto box = *lumacrypt::base64Decode(record.ciphertext);
    box[box.size() / 2] ^= 0x01;
    auto tampered = record;
    tampered.ciphertext = lumacrypt::base64Encode(box);
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(),
                          tampered.toJSON())
                 .status,
             400);

    tampered = record; // another timestamp in the additional data
    tampered.additionalData = lumacrypt::base64Encode(std::to_string(nowMs() + 1));
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(),
                          tampered.toJSON())
                 .status,
             400);

    tampered = record;
    auto salt = *lumacrypt::base64Decode(record.kdfNonce);
    salt[0] ^= 0x80;
    tampered.kdfNonce = lumacrypt::base64Encode(salt);
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(),
                          tampered.toJSON())
                 .status,
             400);

    tampered = record;
    tampered.ciphertext = "not base64!";
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(),
                          tampered.toJSON())
                 .status,
             400);

    tampered = record; // a box too short to hold nonce and tag
    tampered.ciphertext = lumacrypt::base64Encode(std::string_view("short"));
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(),
                          tampered.toJSON())
                 .status,
             400);

    // The untouched record still opens.
    QCOMPARE(
        httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(), sealed).status,
        200);
    QVERIFY(backend_->running());
}

void ProtocolTest::notARecordIs400() {
    const std::vector<std::string> bodies = {
        std::string(),           "{}", "null", "[1,2]", "{\"KDFNonce\":1}", "\xff\xfe garbage",
        std::string(100000, '[')};
    for (const auto &body : bodies) {
        QCOMPARE(httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(), body)
                     .status,
                 400);
    }
    QVERIFY(backend_->running());
}

void ProtocolTest::replayedRecordIs400() {
    const std::string sealed = backend_->seal("getGroups", "", "", nowMs());
    QCOMPARE(
        httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(), sealed).status,
        200);
    QCOMPARE(
        httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(), sealed).status,
        400);
    // The same salt with another timestamp is another request.
    const auto record = lumacrypt::KeyExchangeAEADStore::fromJSON(sealed);
    const std::string timestamp = std::to_string(nowMs() + 3);
    const auto again = backend_->store().encodeJSONAndEncryptWithNonces(
        "getGroups", "", "", lumacrypt::base64Decode(record.kdfNonce), std::nullopt,
        std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t *>(timestamp.data()),
                                      timestamp.size()));
    QCOMPARE(
        httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(), again.toJSON())
            .status,
        200);
}

void ProtocolTest::staleOrFutureTimestampIs400() {
    auto answer = backend_->send("getGroups", "", "", nowMs() - 6000);
    QCOMPARE(answer.http.status, 400);
    answer = backend_->send("getGroups", "", "", nowMs() + 6000);
    QCOMPARE(answer.http.status, 400);
    // Within the window, either way.
    answer = backend_->send("getGroups", "", "", nowMs() - 3000);
    QCOMPARE(answer.http.status, 200);
    answer = backend_->send("getGroups", "", "", nowMs() + 3000);
    QCOMPARE(answer.http.status, 200);
    // Additional data that is no decimal timestamp.
    const std::string sealed =
        backend_->store()
            .encodeJSONAndEncrypt(
                "getGroups", "", "",
                std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t *>("soon"), 4))
            .toJSON();
    QCOMPARE(
        httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(), sealed).status,
        400);
}

void ProtocolTest::answerTimestampsStrictlyIncrease() {
    for (int i = 0; i < 50; ++i) {
        const auto answer = backend_->send("ping");
        QVERIFY2(answer.opened, answer.problem.c_str());
        // The answer carries the backend's clock (the same clock as this process).
        QVERIFY(std::llabs(answer.timestamp - nowMs()) < 1000);
    }
    const auto &timestamps = backend_->answerTimestamps();
    QVERIFY(timestamps.size() > 50);
    for (std::size_t i = 1; i < timestamps.size(); ++i) {
        QVERIFY2(timestamps[i] > timestamps[i - 1],
                 qPrintable(QStringLiteral("answer %1: %2 after %3")
                                .arg(i)
                                .arg(timestamps[i])
                                .arg(timestamps[i - 1])));
    }
}

void ProtocolTest::listensOnLoopbackAddressOnly() {
    // 127.0.0.2 is a loopback address too, but not the one the backend is bound to.
    QTcpSocket socket;
    socket.connectToHost(QHostAddress(QStringLiteral("127.0.0.2")),
                         static_cast<quint16>(backend_->port()));
    QVERIFY(!socket.waitForConnected(2000));
    QTcpSocket good;
    good.connectToHost(QHostAddress(QStringLiteral("127.0.0.1")),
                       static_cast<quint16>(backend_->port()));
    QVERIFY(good.waitForConnected(2000));
}

void ProtocolTest::concurrentRequestsAllAnswer() {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 15;
    std::vector<std::vector<std::string>> bodies(kThreads);
    for (auto &list : bodies) {
        for (int i = 0; i < kPerThread; ++i) {
            list.push_back(backend_->seal("ping", "", "", nowMs()));
        }
    }
    std::vector<std::vector<HttpReply>> replies(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (const auto &body : bodies[t]) {
                replies[t].push_back(httpExchange(backend_->port(), "POST", "/request",
                                                  backend_->goodHeaders(), body));
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    std::set<std::int64_t> timestamps;
    for (const auto &list : replies) {
        for (const auto &reply : list) {
            QCOMPARE(reply.status, 200);
            std::string plaintext;
            std::int64_t timestamp = 0;
            std::string problem;
            QVERIFY2(backend_->open(reply.body, plaintext, timestamp, problem), problem.c_str());
            QCOMPARE(plaintext, kPingMessage);
            QVERIFY(timestamps.insert(timestamp).second); // no two answers share a timestamp
        }
    }
    QCOMPARE(timestamps.size(), std::size_t(kThreads * kPerThread));
}

void ProtocolTest::oneConnectionCarriesManyRequests() {
    // A client keeps its connection open between requests (as the client's ping loop does):
    // every answer comes back on the same connection, whatever the body's transfer coding,
    // until the client asks to close.
    // The answer a ping gets on a connection of its own (signed in or not, as the tests before
    // this one left the backend).
    const Backend::Answer alone = backend_->send("ping", "", "[]");
    QVERIFY2(alone.opened, alone.problem.c_str());
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(backend_->port()));
    QVERIFY(socket.waitForConnected(5000));
    QByteArray received;
    const auto readAnswer = [&](int &status, QByteArray &head, std::string &body) {
        QDeadlineTimer deadline(20000);
        qsizetype end = -1;
        while ((end = received.indexOf("\r\n\r\n")) < 0 && !deadline.hasExpired() &&
               socket.waitForReadyRead(1000)) {
            received += socket.readAll();
        }
        if (end < 0) {
            return false;
        }
        head = received.left(end + 2);
        received.remove(0, end + 4);
        status = head.mid(9, 3).toInt();
        const qsizetype at = head.toLower().indexOf("\r\ncontent-length:");
        if (at < 0) {
            return false;
        }
        const qsizetype lineEnd = head.indexOf("\r\n", at + 2);
        const qsizetype length = head.mid(at + 17, lineEnd - at - 17).trimmed().toLongLong();
        while (received.size() < length && !deadline.hasExpired() &&
               socket.waitForReadyRead(1000)) {
            received += socket.readAll();
        }
        if (received.size() < length) {
            return false;
        }
        body = received.left(length).toStdString();
        received.remove(0, length);
        return true;
    };
    const QByteArray headers =
        "Host: 127.0.0.1:" + QByteArray::number(backend_->port()) + "\r\nAuthorization: Bearer " +
        QByteArray::fromStdString(backend_->token()) + "\r\nContent-Type: application/json\r\n";
    for (int i = 0; i < 6; ++i) {
        const QByteArray sealed =
            QByteArray::fromStdString(backend_->seal("ping", "", "[]", nowMs()));
        QByteArray request = "POST /request HTTP/1.1\r\n" + headers;
        if (i == 2) {
            // The body in two chunks.
            const qsizetype half = sealed.size() / 2;
            request += "Transfer-Encoding: chunked\r\n\r\n" + QByteArray::number(half, 16) +
                       "\r\n" + sealed.left(half) + "\r\n" +
                       QByteArray::number(sealed.size() - half, 16) + "\r\n" + sealed.mid(half) +
                       "\r\n0\r\n\r\n";
        } else if (i == 5) {
            request += "Connection: close\r\nContent-Length: " + QByteArray::number(sealed.size()) +
                       "\r\n\r\n" + sealed;
        } else {
            request += "Content-Length: " + QByteArray::number(sealed.size()) + "\r\n\r\n" + sealed;
        }
        socket.write(request);
        QVERIFY(socket.waitForBytesWritten(5000));
        int status = 0;
        QByteArray head;
        std::string body;
        QVERIFY2(readAnswer(status, head, body), qPrintable(QString::number(i)));
        QVERIFY2(status == 200, head.constData());
        QVERIFY2(!head.toLower().contains("content-encoding"), head.constData());
        std::string plaintext, problem;
        std::int64_t timestamp = 0;
        QVERIFY2(backend_->open(body, plaintext, timestamp, problem), problem.c_str());
        QCOMPARE(plaintext, alone.plaintext);
        if (i < 5) {
            QVERIFY2(!head.toLower().contains("connection: close"), head.constData());
            QCOMPARE(socket.state(), QAbstractSocket::ConnectedState);
        } else {
            QVERIFY2(head.toLower().contains("connection: close"), head.constData());
        }
    }
    // Asked to close: the backend ends the connection.
    QVERIFY(socket.state() == QAbstractSocket::UnconnectedState ||
            socket.waitForDisconnected(10000));
}

void ProtocolTest::nothingAClientSendsStopsTheBackend() {
    QRandomGenerator random(20240501);
    // Mutated sealed records: flipped, cut and inserted bytes.
    for (int i = 0; i < 300; ++i) {
        std::string body = backend_->seal("getGroups", "", "", nowMs());
        switch (i % 3) {
        case 0:
            body[random.bounded(static_cast<int>(body.size()))] ^=
                static_cast<char>(1 + random.bounded(255));
            break;
        case 1:
            body.resize(random.bounded(static_cast<int>(body.size())));
            break;
        default:
            body.insert(random.bounded(static_cast<int>(body.size())),
                        std::string(1 + random.bounded(8), static_cast<char>(random.bounded(256))));
        }
        const auto reply =
            httpExchange(backend_->port(), "POST", "/request", backend_->goodHeaders(), body);
        QVERIFY2(reply.transportOk, reply.transportError.c_str());
        // A change only to the unused AEADNonce field still opens.
        QVERIFY2(reply.status == 400 || reply.status == 200, std::to_string(reply.status).c_str());
    }
    // Envelopes with odd contents, sealed properly.
    const std::vector<std::pair<std::string, std::string>> odd = {
        {"addWatchDir", std::string("/tmp/\0nul", 9)},
        {"addWatchDir", "/../../../../"},
        {"stopWatching", ""},
        {"updateGroup", "[]"},
        {"updateGroup",
         R"({"GroupID":1,"Name":"x","WalkPaths":[],"RetentionSettings":{"retention_days":9223372036854775807}})"},
        {"openWeb", "-1"},
        {"openWeb", "99999999999999999999999"},
        {"openDirPath", "relative"},
        {"auth", std::string(100000, 'x')},
        {std::string("\xff\xfe", 2), ""},
        {"", ""},
    };
    for (const auto &[type, data] : odd) {
        const auto answer = backend_->send(type, "Personal", data);
        QVERIFY2(answer.opened, answer.problem.c_str());
    }
    QCOMPARE(backend_->send("addWatchDir", "Personal", "/../..").plaintext,
             errorJSON("Refusing to sync the whole file system"));
    QCOMPARE(backend_->send("ping").plaintext, kPingMessage); // nothing got watched
    // Odd headers.
    auto headers = backend_->goodHeaders();
    headers["Authorization"] = "Bearer " + std::string(4000, 'A');
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", headers, "{}").status, 401);
    // A header line longer than the server reads is a malformed request.
    headers["Authorization"] = "Bearer " + std::string(10000, 'A');
    QCOMPARE(httpExchange(backend_->port(), "POST", "/request", headers, "{}").status, 400);
    headers = backend_->goodHeaders();
    headers["Content-Length"] = "-5";
    const auto reply = httpExchange(backend_->port(), "POST", "/request", headers, "{}");
    QVERIFY(!reply.transportOk || reply.status >= 400);
    // Still alive and well.
    QVERIFY(backend_->running());
    const auto answer = backend_->send("getGroups");
    QVERIFY2(answer.opened, answer.problem.c_str());
    QCOMPARE(tarnwick::decodeGroupItems(answer.plaintext).size(), std::size_t(2));
}

void ProtocolTest::openCommandsUseTheDesktopOpener() {
    // A stand-in desktop opener records what it was asked to open.
    QTemporaryDir bin;
    QVERIFY(bin.isValid());
    const QString record = bin.path() + QStringLiteral("/opened.txt");
    QFile script(bin.path() + QStringLiteral("/xdg-open"));
    QVERIFY(script.open(QIODevice::WriteOnly));
    script.write("#!/bin/sh\necho \"$@\" >> '" + record.toUtf8() + "'\n");
    script.close();
    QVERIFY(script.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                  QFileDevice::ExeOwner));

    Backend backend;
    Backend::Options options;
    options.environment = {
        {QStringLiteral("KOVRIT_DEV_OPEN"), QStringLiteral("1")},
        {QStringLiteral("PATH"), bin.path() + QLatin1Char(':') + qEnvironmentVariable("PATH")}};
    QString error;
    QVERIFY2(backend.start(options, &error), qPrintable(error));
    std::string signInError;
    QVERIFY2(backend.signIn("opener@example.org", &signInError), signInError.c_str());

    QTemporaryDir folder;
    auto answer = backend.send("openDirPath", folder.path().toStdString());
    QVERIFY2(answer.opened, answer.problem.c_str());
    QVERIFY(answer.plaintext.empty());
    answer = backend.send("openWeb", "2");
    QCOMPARE(answer.plaintext, kSuccess);

    // The two openers run side by side, so their lines may come in either order.
    QByteArrayList expected = {"file://" + folder.path().toUtf8(),
                               "file://" + backend.stateDir().toUtf8() + "/vault/2/files"};
    std::sort(expected.begin(), expected.end());
    const auto opened = [&record] {
        QFile file(record);
        QByteArrayList lines =
            file.open(QIODevice::ReadOnly) ? file.readAll().split('\n') : QByteArrayList();
        lines.removeAll(QByteArray());
        std::sort(lines.begin(), lines.end());
        return lines;
    };
    QTRY_COMPARE_WITH_TIMEOUT(opened(), expected, 5000);
}

void ProtocolTest::theSignInCodeShowsAsANotification() {
    // A stand-in notify-send records its arguments, one per line.
    QTemporaryDir bin;
    QVERIFY(bin.isValid());
    const QString record = bin.path() + QStringLiteral("/notified.txt");
    QFile script(bin.path() + QStringLiteral("/notify-send"));
    QVERIFY(script.open(QIODevice::WriteOnly));
    script.write("#!/bin/sh\nprintf '%s\\n' \"$@\" > '" + record.toUtf8() + ".part' && mv '" +
                 record.toUtf8() + ".part' '" + record.toUtf8() + "'\n");
    script.close();
    QVERIFY(script.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                  QFileDevice::ExeOwner));

    Backend backend;
    Backend::Options options;
    options.environment = {
        {QStringLiteral("KOVRIT_DEV_NOTIFY"), QStringLiteral("1")},
        {QStringLiteral("PATH"), bin.path() + QLatin1Char(':') + qEnvironmentVariable("PATH")}};
    QString error;
    QVERIFY2(backend.start(options, &error), qPrintable(error));
    const auto answer = backend.send("requestCode", "notified@example.org");
    QCOMPARE(answer.plaintext, kSuccess);

    QFile outbox(backend.stateDir() + QStringLiteral("/outbox/notified@example.org"));
    QVERIFY(outbox.open(QIODevice::ReadOnly));
    const QByteArray code = outbox.readAll().trimmed();
    QCOMPARE(code.size(), 6);
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(record), 5000);
    QFile notified(record);
    QVERIFY(notified.open(QIODevice::ReadOnly));
    const QByteArrayList arguments = notified.readAll().split('\n');
    QVERIFY2(arguments.contains("Your Tarnwick sign-in code: " + code),
             arguments.join('|').constData());
    QVERIFY(arguments.contains("--app-name=Tarnwick"));
}

void ProtocolTest::stateSurvivesARestart() {
    backend_->terminate();
    QVERIFY(!backend_->running());
    QVERIFY(QFile::exists(stateDir_ + QStringLiteral("/state.json")));
    // No temporary file of an interrupted write is left beside it.
    const auto leftovers = QDir(stateDir_).entryList(QDir::Files | QDir::Hidden);
    QCOMPARE(leftovers, QStringList{QStringLiteral("state.json")});

    backend_ = std::make_unique<Backend>();
    Backend::Options options;
    options.stateDir = stateDir_;
    QString error;
    QVERIFY2(backend_->start(options, &error), qPrintable(error));
    const auto answer = backend_->send("getGroups");
    QVERIFY2(answer.opened, answer.problem.c_str());
    const auto groups = tarnwick::decodeGroupItems(answer.plaintext); // still signed in
    QCOMPARE(groups.size(), std::size_t(2));
    QCOMPARE(groups[1].retentionSettings->retentionDays, std::optional<std::int64_t>(7));
    QVERIFY(backend_->waitForOutput("signed in as " + QByteArray(kAddress.c_str()), 5000));
}

void ProtocolTest::logoutAndExitEndsTheProcess() {
    const auto answer = backend_->send("logoutAndExit");
    QVERIFY2(answer.opened, answer.problem.c_str());
    QCOMPARE(answer.plaintext, kSuccess);
    QVERIFY(backend_->waitForExit(3000));
    QCOMPARE(backend_->process().exitStatus(), QProcess::NormalExit);
    QCOMPARE(backend_->process().exitCode(), 0);

    // Signed out for good: a new run asks for authentication.
    backend_ = std::make_unique<Backend>();
    Backend::Options options;
    options.stateDir = stateDir_;
    QString error;
    QVERIFY2(backend_->start(options, &error), qPrintable(error));
    const auto again = backend_->send("getGroups");
    QCOMPARE(again.plaintext, kAuthRequest);
}

QTEST_GUILESS_MAIN(ProtocolTest)
#include "tst_protocol.moc"
