// The request client against the real development backend: the key from its output, sealed
// requests with the bearer token, replies opened and their timestamps checked, and the backend's
// fault modes (a key that is no key, an endpoint that never answers, a refused token).

#include <Models.h>
#include <PollManager.h>
#include <lumacrypt/lumacrypt.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

using tidepost::Error;
using tidepost::PollManager;
using tidepost::PollManagerError;

namespace {

const QString kBackend = QStringLiteral(TIDEPOST_DEV_BACKEND);

struct Reply {
    int calls = 0;
    std::optional<QByteArray> body;
    std::optional<Error> error;
};

// Posts and waits for the answer (at most `waitMs`).
Reply post(PollManager &pm, const std::string &json, int port, const std::string &token,
           int waitMs = 15000) {
    auto reply = std::make_shared<Reply>();
    pm.publishLocal(json, port, QStringLiteral("/request"), token,
                    [reply](std::optional<QByteArray> body, std::optional<Error> error) {
                        ++reply->calls;
                        reply->body = std::move(body);
                        reply->error = std::move(error);
                    });
    QElapsedTimer clock;
    clock.start();
    while (reply->calls == 0 && clock.elapsed() < waitMs) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return *reply;
}

// A backend started by the client on a free port, with its own state folder.
class Session {
public:
    explicit Session(PollManager &pm, const QByteArray &fault = {}) : pm(pm) {
        qputenv("KOVRIT_DEV_STATE", state.path().toLocal8Bit());
        if (fault.isEmpty()) {
            qunsetenv("KOVRIT_DEV_FAULT");
        } else {
            qputenv("KOVRIT_DEV_FAULT", fault);
        }
        port = pm.randomOpenPort(20000, 40000);
        pm.processManager().addPIDAsArgument(QStringLiteral("pid"));
        pm.processManager().addArgument(QStringLiteral("token"),
                                        QString::fromStdString(pm.bearerToken));
        pm.processManager().addArgument(QStringLiteral("port"), port);
        pm.setLogSink([this](const std::string &line) { logged.push_back(line); });
    }
    ~Session() {
        pm.stopBackend();
        QElapsedTimer clock;
        clock.start();
        while (pm.processManager().isLoopRunning() && clock.elapsed() < 15000) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        }
        qunsetenv("KOVRIT_DEV_FAULT");
        pm.setLogSink({});
    }

    void start(bool withRetry) {
        pm.subscribeWithBinary(
            kBackend, withRetry, true, 0.0, {},
            [this](const QString &chunk) {
                const std::lock_guard lock(mutex);
                output += chunk;
            },
            [this](const std::optional<std::error_code> &) { ++exits; });
    }

    // The sealed envelope, posted with the client's token until the backend listens.
    Reply send(const std::string &type, const std::string &id, const std::string &data,
               std::optional<std::string> token = std::nullopt) {
        Reply reply;
        for (int attempt = 0; attempt < 50; ++attempt) {
            const lumacrypt::KeyExchangeAEADStore sealed =
                pm.kes.encodeJSONAndEncrypt(type, id, data, pm.keyExchangeCurrentTimestampData());
            reply = post(pm, pm.objectAsString(sealed), port, token.value_or(pm.bearerToken));
            const bool refused = reply.error && reply.error->domain == "NetworkError" &&
                                 reply.error->code == int(QNetworkReply::ConnectionRefusedError);
            if (!refused) {
                break;
            }
            QTest::qWait(100);
        }
        return reply;
    }

    QString text() {
        const std::lock_guard lock(mutex);
        return output;
    }

    PollManager &pm;
    QTemporaryDir state;
    int port = 0;
    std::vector<std::string> logged;
    std::mutex mutex;
    QString output;
    std::atomic<int> exits{0};
};

} // namespace

class TestDevBackend : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void sealedRoundTrip();
    void refusedTokenIsPublishFailure();
    void keyThatIsNoKeyRestartsTheBackend();
    void endpointThatNeverAnswersTimesOut();
};

void TestDevBackend::initTestCase() {
    QVERIFY2(QFileInfo(kBackend).isExecutable(), qPrintable(kBackend));
}

void TestDevBackend::sealedRoundTrip() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    Session session(pm);
    QSignalSpy keyChanged(&pm, &PollManager::peerKeyChanged);
    session.start(false);
    QVERIFY2(keyChanged.wait(15000), qPrintable(session.text()));
    QCOMPARE(pm.kes.externalPublicKey().size(), std::size_t(44));

    // Nobody is signed in: a ping is answered with the "auth request" message. The reply's
    // timestamp must be fresh (within 50 ms of our clock); on a busy machine one may arrive
    // late, so a few attempts are allowed, but one must pass the check.
    std::optional<tidepost::TypeIDAndData> message;
    std::vector<std::string> failures;
    for (int attempt = 0; attempt < 10 && !message; ++attempt) {
        const Reply reply = session.send("ping", "", "[]");
        QVERIFY2(reply.body, reply.error ? reply.error->description.c_str() : "no reply");
        const std::int64_t before = pm.timestamp;
        try {
            message = pm.decryptAndDecodeJSON<tidepost::TypeIDAndData>(
                *reply.body, pm.kes, [&pm](const std::string &ad) { return pm.authTimestamp(ad); });
            QVERIFY(pm.timestamp > before);
        } catch (...) {
            failures.push_back(Error::fromCurrentException().description);
            QCOMPARE(pm.timestamp, before);
        }
    }
    QVERIFY2(message, failures.empty() ? "" : failures.back().c_str());
    QCOMPARE(*message, (tidepost::TypeIDAndData{"auth request", "", ""}));

    // A request the backend handles without a session, decoded as the record it answers with.
    const Reply code = session.send("requestCode", "someone@example.com", "");
    QVERIFY2(code.body, code.error ? code.error->description.c_str() : "no reply");
    const auto response = pm.decryptAndDecodeJSON<tarnwick::ServerResponse>(*code.body, pm.kes);
    QVERIFY(response.isSuccess());

    // The same reply opened twice with the timestamp check is a replay.
    const Reply again = session.send("ping", "", "[]");
    QVERIFY(again.body);
    pm.timestamp = 0;
    pm.setClock([&] {
        const auto t = lumacrypt::KeyExchangeTimestamp(
            lumacrypt::KeyExchangeAEADStore::fromJSON(again.body->toStdString()).additionalData);
        return t.value_or(0);
    });
    const auto strict = [&pm](const std::string &ad) {
        pm.authTimestampThrows(ad);
        return true;
    };
    pm.decryptAndDecodeJSON<tidepost::TypeIDAndData>(*again.body, pm.kes, strict);
    try {
        pm.decryptAndDecodeJSON<tidepost::TypeIDAndData>(*again.body, pm.kes, strict);
        QFAIL("a replayed reply was accepted");
    } catch (const tidepost::PollManagerException &e) {
        QCOMPARE(e.error(), PollManagerError::timestampExpired);
    }
}

void TestDevBackend::refusedTokenIsPublishFailure() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    Session session(pm);
    QSignalSpy keyChanged(&pm, &PollManager::peerKeyChanged);
    session.start(false);
    QVERIFY(keyChanged.wait(15000));
    const Reply good = session.send("ping", "", "[]");
    QVERIFY2(good.body, good.error ? good.error->description.c_str() : "no reply");

    const lumacrypt::KeyExchangeStore other = tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    const Reply wrong = session.send("ping", "", "[]", other.LocalPublicKey());
    QCOMPARE(wrong.error, std::optional(Error::of(PollManagerError::publishFailure)));
    const Reply none = session.send("ping", "", "[]", std::string());
    QCOMPARE(none.error, std::optional(Error::of(PollManagerError::publishFailure)));
}

void TestDevBackend::keyThatIsNoKeyRestartsTheBackend() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    Session session(pm, "bad-pem");
    QSignalSpy started(&pm.processManager(), &runwarden::ProcessManager::taskStarted);
    session.start(true);
    QTRY_VERIFY_WITH_TIMEOUT(started.count() >= 2, 20000);
    QVERIFY(session.exits.load() >= 1);
    QVERIFY(!session.logged.empty());
    const std::string prefix = "pem search parse error - reset: ";
    QVERIFY2(session.logged.front().starts_with(prefix), session.logged.front().c_str());
    QVERIFY(pm.kes.externalPublicKey().empty());
}

void TestDevBackend::endpointThatNeverAnswersTimesOut() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    pm.setRequestTimeout(std::chrono::milliseconds(500));
    Session session(pm, "hang");
    QSignalSpy keyChanged(&pm, &PollManager::peerKeyChanged);
    session.start(false);
    QVERIFY(keyChanged.wait(15000));
    const Reply reply = session.send("ping", "", "[]");
    QVERIFY(!reply.body);
    QVERIFY(reply.error);
    QCOMPARE(reply.error->domain, std::string("NetworkError"));
    QCOMPARE(reply.error->code, int(QNetworkReply::TimeoutError));
}

QTEST_GUILESS_MAIN(TestDevBackend)
#include "tst_devbackend.moc"
