// The backend's command line and process life: argument errors end it with code 2, a port it
// cannot bind with code 1, and with -pid it ends by itself within 2 s of that process ending.

#include "BackendHarness.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QHostAddress>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

using namespace devbackendtest;

class CliTest : public QObject {
    Q_OBJECT

private slots:
    void badArgumentsExitWith2_data();
    void badArgumentsExitWith2();
    void helpPrintsUsage();
    void argumentFormsAreAccepted();
    void portInUseExitsWith1();
    void exitsWithin2sOfTheWatchedProcess();
    void exitsAtOnceWhenTheWatchedProcessDoesNotExist();

private:
    QString token() const {
        return QString::fromStdString(
            lumacrypt::KeyExchange_Curve25519_SHA256_HKDF_AESGCM_Store(std::string())
                .LocalPublicKey());
    }
};

void CliTest::badArgumentsExitWith2_data() {
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("message");
    const QString goodToken = QStringLiteral("-token=") + token();
    QTest::newRow("nothing") << QStringList{} << QByteArray("-token");
    QTest::newRow("no port") << QStringList{goodToken} << QByteArray("-port");
    QTest::newRow("no token") << QStringList{QStringLiteral("-port=8123")} << QByteArray("-token");
    QTest::newRow("unknown flag") << QStringList{goodToken, QStringLiteral("-port=8123"),
                                                 QStringLiteral("-verbose=1")}
                                  << QByteArray("-verbose");
    QTest::newRow("port not a number")
        << QStringList{goodToken, QStringLiteral("-port=eighty")} << QByteArray("-port");
    QTest::newRow("port out of range")
        << QStringList{goodToken, QStringLiteral("-port=70000")} << QByteArray("-port");
    QTest::newRow("pid not a number")
        << QStringList{QStringLiteral("-pid=me"), goodToken, QStringLiteral("-port=8123")}
        << QByteArray("-pid");
    QTest::newRow("positional") << QStringList{goodToken, QStringLiteral("-port=8123"),
                                               QStringLiteral("extra")}
                                << QByteArray("extra");
    QTest::newRow("token not a key")
        << QStringList{QStringLiteral("-token=bm90IGEga2V5"), QStringLiteral("-port=8123")}
        << QByteArray("-token");
    QTest::newRow("token not base64")
        << QStringList{QStringLiteral("-token=%%%"), QStringLiteral("-port=8123")}
        << QByteArray("-token");
    QTest::newRow("flag without value")
        << QStringList{goodToken, QStringLiteral("-port")} << QByteArray("-port");
}

void CliTest::badArgumentsExitWith2() {
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, message);
    QProcess process;
    process.start(backendBinary(), arguments);
    QVERIFY(process.waitForFinished(10000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 2);
    const QByteArray error = process.readAllStandardError();
    QVERIFY2(error.contains(message), error.constData());
    QVERIFY(!process.readAllStandardOutput().contains("BEGIN PUBLIC KEY"));
}

void CliTest::helpPrintsUsage() {
    QProcess process;
    process.start(backendBinary(), {QStringLiteral("-help")});
    QVERIFY(process.waitForFinished(10000));
    QCOMPARE(process.exitCode(), 0);
    QVERIFY(process.readAllStandardOutput().contains("-token=<client public key>"));
}

void CliTest::argumentFormsAreAccepted() {
    // "--name=value" and "-name value" as well as "-name=value".
    Backend backend;
    Backend::Options options;
    options.arguments = {QStringLiteral("--token=") + QString::fromStdString(backend.token()),
                         QStringLiteral("-port"), QString()};
    // The harness picks the port; fill it in once known.
    const int port = freePort();
    options.arguments[2] = QString::number(port);
    options.expectKey = true;
    QString error;
    QVERIFY2(backend.start(options, &error), qPrintable(error));
    QVERIFY(backend.output().contains("listening on 127.0.0.1:" + QByteArray::number(port)));
}

void CliTest::portInUseExitsWith1() {
    QTcpServer occupant;
    QVERIFY(occupant.listen(QHostAddress::LocalHost, 0));
    QTemporaryDir dir;
    const QString state = dir.path() + QStringLiteral("/state");
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("KOVRIT_DEV_STATE"), state);
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(backendBinary(),
                  {QStringLiteral("-token=") + token(),
                   QStringLiteral("-port=") + QString::number(occupant.serverPort())});
    QVERIFY(process.waitForFinished(10000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 1);
    const QByteArray error = process.readAllStandardError();
    QVERIFY2(
        error.contains("cannot listen on 127.0.0.1:" + QByteArray::number(occupant.serverPort())),
        error.constData());
    QVERIFY(!process.readAllStandardOutput().contains("BEGIN PUBLIC KEY"));
    // It ended before touching its state folder.
    QVERIFY(!QFileInfo::exists(state));
}

void CliTest::exitsWithin2sOfTheWatchedProcess() {
    QProcess sleeper;
    sleeper.start(QStringLiteral("sleep"), {QStringLiteral("30")});
    QVERIFY(sleeper.waitForStarted(5000));

    const qint64 sleeperPid = sleeper.processId();
    Backend backend;
    Backend::Options options;
    options.pid = sleeperPid;
    QString error;
    QVERIFY2(backend.start(options, &error), qPrintable(error));
    backend.pump(500);
    QVERIFY(backend.running());

    sleeper.kill();
    QVERIFY(sleeper.waitForFinished(5000));
    QElapsedTimer timer;
    timer.start();
    QVERIFY(backend.waitForExit(5000));
    const qint64 elapsed = timer.elapsed();
    QVERIFY2(elapsed < 2000, qPrintable(QString::number(elapsed) + QStringLiteral(" ms")));
    QCOMPARE(backend.process().exitCode(), 0);
    QVERIFY(backend.output().contains("client process " + QByteArray::number(sleeperPid) +
                                      " has ended"));
}

void CliTest::exitsAtOnceWhenTheWatchedProcessDoesNotExist() {
    // A process that has ended and been reaped: its id is free.
    QProcess gone;
    gone.start(QStringLiteral("true"), {});
    QVERIFY(gone.waitForStarted(5000));
    const qint64 gonePid = gone.processId();
    QVERIFY(gone.waitForFinished(5000));
    QVERIFY(gonePid > 0);
    Backend backend;
    Backend::Options options;
    options.pid = gonePid;
    options.expectKey = false;
    QString error;
    QVERIFY2(backend.start(options, &error), qPrintable(error));
    QVERIFY(backend.waitForExit(3000));
    QCOMPARE(backend.process().exitCode(), 0);
}

QTEST_GUILESS_MAIN(CliTest)
#include "tst_cli.moc"
