// Free ports, the processor name and the resources directory.

#include <runwarden/Port.h>
#include <runwarden/Resources.h>
#include <runwarden/SystemArchitecture.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSet>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <functional>
#include <optional>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace runwarden;

namespace {

// Runs `body` in a forked child and returns its wait status (or -1 when it hung).
int statusOfForked(const std::function<void()> &body) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGABRT, SIG_DFL); // no crash handler of the test framework in the child
        body();
        ::_exit(0);
    }
    if (child < 0)
        return -1;
    QElapsedTimer clock;
    clock.start();
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        if (clock.elapsed() > 10000) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            return -1;
        }
        QTest::qSleep(10);
    }
    return status;
}

bool diedOfAbort(int status) {
    return status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
}

// A port that is free now, with the next one free as well.
int freePortPair() {
    for (int attempt = 0; attempt < 200; ++attempt) {
        QTcpServer probe;
        if (!probe.listen(QHostAddress::AnyIPv4, 0))
            continue;
        const int port = probe.serverPort();
        probe.close();
        if (port < 65535 && IsOpenPort(port) && IsOpenPort(port + 1))
            return port;
    }
    return -1;
}

} // namespace

class PortTest : public QObject {
    Q_OBJECT

private slots:
    void portHeldByListeningServerIsNotOpen() {
        QTcpServer any;
        QVERIFY(any.listen(QHostAddress::AnyIPv4, 0));
        QVERIFY(!IsOpenPort(any.serverPort()));

        QTcpServer loopback;
        QVERIFY(loopback.listen(QHostAddress::LocalHost, 0));
        QVERIFY(!IsOpenPort(loopback.serverPort()));
    }

    void freePortIsOpenAndStaysFree() {
        const int port = freePortPair();
        QVERIFY(port > 0);
        QVERIFY(IsOpenPort(port));
        QVERIFY(IsOpenPort(port)); // the check closed its socket again
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::AnyIPv4, quint16(port)));
    }

    void boundaryPortsAreNoPreconditionFailure() {
        QVERIFY(IsOpenPort(0)); // port 0 binds an ephemeral port
        const int status = statusOfForked([] { (void)IsOpenPort(65535); });
        QVERIFY(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    void outOfRangePortsStopTheProgram() {
        QVERIFY(diedOfAbort(statusOfForked([] { (void)IsOpenPort(70000); })));
        QVERIFY(diedOfAbort(statusOfForked([] { (void)IsOpenPort(-1); })));
        QVERIFY(diedOfAbort(statusOfForked([] { (void)IsOpenPort(65536); })));
        QVERIFY(diedOfAbort(statusOfForked([] { (void)RandomOpenPort(9000, 9000); })));
        QVERIFY(diedOfAbort(statusOfForked([] { (void)RandomOpenPort(-5, 10); })));
        QVERIFY(diedOfAbort(statusOfForked([] { (void)RandomOpenPort(100, 65537); })));
    }

    void randomOpenPortIsInRangeAndOpen() {
        QSet<int> seen;
        for (int i = 0; i < 20; ++i) {
            const int port = RandomOpenPort(8001, 9000);
            QVERIFY(port >= 8001 && port < 9000);
            QVERIFY(IsOpenPort(port));
            seen.insert(port);
        }
        QVERIFY(seen.size() > 1); // drawn at random, not a fixed choice
    }

    void randomOpenPortSkipsTakenPorts() {
        const int port = freePortPair();
        QVERIFY(port > 0);
        QTcpServer holder;
        QVERIFY(holder.listen(QHostAddress::AnyIPv4, quint16(port)));
        for (int i = 0; i < 20; ++i)
            QCOMPARE(RandomOpenPort(port, port + 2), port + 1);
        QCOMPARE(RandomOpenPort(port + 1, port + 2), port + 1); // a range of one port
    }

    void drawingIsBoundedWhenEveryPortIsTaken() {
        int checks = 0;
        QSet<int> seen;
        const auto none = [&](int port) {
            ++checks;
            seen.insert(port);
            return false;
        };
        QCOMPARE(DrawOpenPort(8001, 9000, none, 64), std::nullopt);
        QCOMPARE(checks, 64 + 999);
        QCOMPARE(seen.size(), 999); // the walk looked at every port of the range
        QVERIFY(*std::min_element(seen.begin(), seen.end()) == 8001);
        QVERIFY(*std::max_element(seen.begin(), seen.end()) == 8999);
    }

    void drawingFindsTheLastFreePort() {
        for (int round = 0; round < 20; ++round) {
            const auto onlyOne = [](int port) { return port == 8777; };
            QCOMPARE(DrawOpenPort(8001, 9000, onlyOne, 3), std::optional<int>(8777));
        }
        // With the system's check: a port our server holds is passed over for the free one
        // beside it. (Another program may hold the neighbour too; then another pair is tried.)
        for (int attempt = 0;; ++attempt) {
            QTcpServer server;
            QVERIFY(server.listen(QHostAddress::LocalHost));
            const int taken = server.serverPort();
            if (taken + 2 > 65536 || !IsOpenPort(taken + 1)) {
                QVERIFY2(attempt < 50, "no free port beside a taken one");
                continue;
            }
            const auto drawn = DrawOpenPort(taken, taken + 2);
            QVERIFY(drawn.has_value());
            QCOMPARE(*drawn, taken + 1);
            break;
        }
    }

    void listeningOnLoopbackIsTestedAsAServerBinds() {
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        const int port = server.serverPort();
        QVERIFY(!CanListenOnLoopback(port));
        server.close();
        QVERIFY(CanListenOnLoopback(port));
        // Another program listening on every address takes the port too.
        QTcpServer everywhere;
        QVERIFY(everywhere.listen(QHostAddress::AnyIPv4, static_cast<quint16>(port)));
        QVERIFY(!CanListenOnLoopback(port));
    }

    void systemArchitectureIsUnameMachine() {
        QProcess uname;
        uname.start(QStringLiteral("uname"), {QStringLiteral("-m")});
        QVERIFY(uname.waitForFinished(10000));
        const QString expected = QString::fromLocal8Bit(uname.readAllStandardOutput()).trimmed();
        QVERIFY(!expected.isEmpty());
        QCOMPARE(SystemArchitecture(), expected);
        QCOMPARE(utsname::sMachine(), expected);
        QCOMPARE(utsname::isAppleSilicon(), expected == QLatin1String("arm64"));
    }

    void resourcesDirectoryDefaultsBesideExecutable() {
        qunsetenv("TARNWICK_RESOURCES_DIR");
        QCOMPARE(resourcesDirectory(),
                 QDir::cleanPath(QCoreApplication::applicationDirPath() + "/../libexec/tarnwick"));
        qputenv("TARNWICK_RESOURCES_DIR", "");
        QCOMPARE(resourcesDirectory(),
                 QDir::cleanPath(QCoreApplication::applicationDirPath() + "/../libexec/tarnwick"));
        qunsetenv("TARNWICK_RESOURCES_DIR");
    }

    void bundleResourcePathFindsOnlyExistingFiles() {
        QTemporaryDir directory;
        QVERIFY(directory.isValid());
        QFile file(directory.filePath("kovrit-test"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        QVERIFY(QDir(directory.path()).mkdir("a-directory"));
        qputenv("TARNWICK_RESOURCES_DIR", QFile::encodeName(directory.path()));
        QCOMPARE(resourcesDirectory(), QDir::cleanPath(directory.path()));
        QCOMPARE(bundleResourcePath("kovrit-test"),
                 std::optional<QString>(QDir::cleanPath(directory.path()) + "/kovrit-test"));
        QCOMPARE(bundleResourcePath("kovrit-missing"), std::nullopt);
        QCOMPARE(bundleResourcePath("a-directory"), std::nullopt);
        QCOMPARE(bundleResourcePath(""), std::nullopt);
        QCOMPARE(bundleResourcePath(".."), std::nullopt);
        QCOMPARE(bundleResourcePath("../" + QDir(directory.path()).dirName() + "/kovrit-test"),
                 std::nullopt);
        qunsetenv("TARNWICK_RESOURCES_DIR");
    }
};

QTEST_GUILESS_MAIN(PortTest)
#include "tst_port.moc"
