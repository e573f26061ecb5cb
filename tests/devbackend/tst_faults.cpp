// Each fault-injection switch of KOVRIT_DEV_FAULT makes the backend misbehave exactly as it says,
// so that the client's handling of a broken backend can be tested against it.

#include "BackendHarness.h"

#include <lumacrypt/PEM.h>

#include <QElapsedTimer>
#include <QtTest>

using namespace devbackendtest;

namespace {

std::unique_ptr<Backend> startWithFaults(const QString &faults, bool expectKey = true) {
    auto backend = std::make_unique<Backend>();
    Backend::Options options;
    options.environment = {{QStringLiteral("KOVRIT_DEV_FAULT"), faults}};
    options.expectKey = expectKey;
    QString error;
    if (!backend->start(options, &error)) {
        qWarning("%s", qPrintable(error));
        return nullptr;
    }
    return backend;
}

} // namespace

class FaultsTest : public QObject {
    Q_OBJECT

private slots:
    void exitAfterEndsWithCode1();
    void noPemPrintsNoKey();
    void badPemPrintsABlockThatIsNoKey();
    void hangNeverAnswers();
    void garbageAnswersWithANonRecord();
    void slowDelaysEachAnswer();
    void staleTimestampSignsOneSecondInThePast();
    void statusAnswersEveryRequestWithThatCode();
    void switchesCombine();
    void malformedSwitchesStopTheStart();
    void withoutFaultsTheKeyBlockIsExact();
};

void FaultsTest::exitAfterEndsWithCode1() {
    QElapsedTimer timer;
    timer.start();
    auto backend = startWithFaults(QStringLiteral("exit-after=1"));
    QVERIFY(backend);
    QVERIFY(backend->waitForExit(10000));
    QVERIFY(timer.elapsed() >= 900);
    QCOMPARE(backend->process().exitStatus(), QProcess::NormalExit);
    QCOMPARE(backend->process().exitCode(), 1);
    QVERIFY(backend->output().contains("fault injection: exit-after=1"));
}

void FaultsTest::noPemPrintsNoKey() {
    auto backend = startWithFaults(QStringLiteral("no-pem"), false);
    QVERIFY(backend);
    QVERIFY(backend->waitForOutput("listening on 127.0.0.1:", 10000));
    backend->pump(1000);
    QVERIFY(backend->running());
    QVERIFY(!backend->output().contains("BEGIN PUBLIC KEY"));
    // It still serves: a request without the right bearer is refused as usual.
    QCOMPARE(httpExchange(backend->port(), "POST", "/request", {}, "{}").status, 401);
}

void FaultsTest::badPemPrintsABlockThatIsNoKey() {
    auto backend = startWithFaults(QStringLiteral("bad-pem"), false);
    QVERIFY(backend);
    QVERIFY(backend->waitForOutput("-----END PUBLIC KEY-----\n", 10000));
    const auto body = lumacrypt::PEMSearchString(backend->output().toStdString());
    QVERIFY(body.has_value());
    auto store = lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(std::string());
    QVERIFY_THROWS_EXCEPTION(std::exception, store.setExternalPublicKey(*body));
}

void FaultsTest::hangNeverAnswers() {
    auto backend = startWithFaults(QStringLiteral("hang"));
    QVERIFY(backend);
    const auto reply = httpExchange(backend->port(), "POST", "/request", backend->goodHeaders(),
                                    backend->seal("getGroups", "", "", nowMs()), 2);
    QVERIFY(!reply.transportOk);
    QVERIFY(backend->running());
    // The refusals before it still answer.
    QCOMPARE(httpExchange(backend->port(), "POST", "/request", {}, "{}", 5).status, 401);
    // A hanging backend still ends promptly when asked to.
    QElapsedTimer timer;
    timer.start();
    backend->process().terminate();
    QVERIFY(backend->waitForExit(5000));
}

void FaultsTest::garbageAnswersWithANonRecord() {
    auto backend = startWithFaults(QStringLiteral("garbage"));
    QVERIFY(backend);
    for (int i = 0; i < 3; ++i) {
        const auto answer = backend->send("getGroups");
        QCOMPARE(answer.http.status, 200);
        QVERIFY(!answer.http.body.empty());
        QVERIFY(!answer.opened);
        QVERIFY_THROWS_EXCEPTION(lumacrypt::DecodingError,
                                 lumacrypt::KeyExchangeAEADStore::fromJSON(answer.http.body));
    }
}

void FaultsTest::slowDelaysEachAnswer() {
    auto backend = startWithFaults(QStringLiteral("slow=700"));
    QVERIFY(backend);
    for (int i = 0; i < 2; ++i) {
        QElapsedTimer timer;
        timer.start();
        const auto answer = backend->send("getGroups");
        const qint64 elapsed = timer.elapsed();
        QVERIFY2(elapsed >= 700, qPrintable(QString::number(elapsed)));
        QVERIFY2(answer.opened, answer.problem.c_str());
        QCOMPARE(answer.plaintext, kAuthRequest);
        // Late, but sealed at the moment it is sent (not 700 ms before).
        const std::int64_t age = nowMs() - answer.timestamp;
        QVERIFY2(age > -50 && age < 500, qPrintable(QString::number(age)));
    }
}

void FaultsTest::staleTimestampSignsOneSecondInThePast() {
    auto backend = startWithFaults(QStringLiteral("stale-timestamp"));
    QVERIFY(backend);
    for (int i = 0; i < 3; ++i) {
        const auto answer = backend->send("ping");
        QVERIFY2(answer.opened, answer.problem.c_str());
        const std::int64_t age = nowMs() - answer.timestamp;
        // One second plus the time the answer took to arrive.
        QVERIFY2(age >= 950 && age < 3000, qPrintable(QString::number(age)));
    }
    const auto &timestamps = backend->answerTimestamps();
    for (std::size_t i = 1; i < timestamps.size(); ++i) {
        QVERIFY(timestamps[i] > timestamps[i - 1]);
    }
}

void FaultsTest::statusAnswersEveryRequestWithThatCode() {
    for (const int code : {503, 201, 500}) {
        auto backend = startWithFaults(QStringLiteral("status=") + QString::number(code));
        QVERIFY(backend);
        QCOMPARE(backend->send("getGroups").http.status, code);
        QCOMPARE(backend->send("requestCode", "a@b.c").http.status, code);
        QCOMPARE(
            httpExchange(backend->port(), "POST", "/request", backend->goodHeaders(), "{}").status,
            code);
        QCOMPARE(
            httpExchange(backend->port(), "GET", "/request", backend->goodHeaders(), "").status,
            code);
    }
}

void FaultsTest::switchesCombine() {
    auto backend = startWithFaults(QStringLiteral("slow=300, stale-timestamp"));
    QVERIFY(backend);
    QElapsedTimer timer;
    timer.start();
    const auto answer = backend->send("ping");
    QVERIFY(timer.elapsed() >= 300);
    QVERIFY2(answer.opened, answer.problem.c_str());
    QVERIFY(nowMs() - answer.timestamp >= 950);
    QVERIFY(backend->output().contains("fault injection: slow=300,stale-timestamp"));
}

void FaultsTest::malformedSwitchesStopTheStart() {
    for (const QString &faults :
         {QStringLiteral("explode"), QStringLiteral("slow=soon"), QStringLiteral("status=99"),
          QStringLiteral("exit-after"), QStringLiteral("hang=1")}) {
        auto backend = startWithFaults(faults, false);
        QVERIFY(backend);
        QVERIFY(backend->waitForExit(10000));
        QCOMPARE(backend->process().exitCode(), 2);
        const QByteArray error = backend->process().readAllStandardError();
        QVERIFY2(error.contains("KOVRIT_DEV_FAULT"), error.constData());
        QVERIFY(!backend->output().contains("BEGIN PUBLIC KEY"));
    }
}

void FaultsTest::withoutFaultsTheKeyBlockIsExact() {
    auto backend = startWithFaults(QString());
    QVERIFY(backend);
    const QByteArray block = "-----BEGIN PUBLIC KEY-----\n" +
                             QByteArray::fromStdString(*backend->peerKey()) +
                             "\n-----END PUBLIC KEY-----\n";
    QVERIFY(backend->output().contains(block));
    QCOMPARE(backend->peerKey()->size(), std::size_t(44));
    QVERIFY(!backend->output().contains("fault injection"));
}

QTEST_GUILESS_MAIN(FaultsTest)
#include "tst_faults.moc"
