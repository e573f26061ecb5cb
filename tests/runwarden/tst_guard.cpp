// The single-instance guard: real second starts (a small helper program), stale sockets left by
// a killed instance, permissions, and the request channel with its command handlers.

#include <runwarden/ExitAppIfAlreadyOpen.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QPointer>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace runwarden;

namespace {

const QString guardHelper = QStringLiteral(RUNWARDEN_HELPER_GUARD);
const QString helperName = QStringLiteral("runwarden-guard-helper");
const QString testName = QStringLiteral("runwarden-guard-test");
const QByteArray alreadyOpened = "Application already opened.  Exiting ...\n";

// Runs `work` on a thread of its own while this thread keeps serving its event loop (the guard
// under test lives here), and returns what it produced.
template <typename Work> auto offThread(Work work) {
    using Result = decltype(work());
    std::optional<Result> result;
    std::atomic<bool> done{false};
    std::thread worker([&] {
        result = work();
        done = true;
    });
    QElapsedTimer clock;
    clock.start();
    while (!done && clock.elapsed() < 30000)
        QTest::qWait(10);
    worker.join();
    return *result;
}

// Sends raw bytes as a client and returns everything the server sent back before closing.
QByteArray rawExchange(const QString &socketPath, const QByteArray &bytes) {
    QLocalSocket socket;
    socket.connectToServer(socketPath);
    if (!socket.waitForConnected(5000))
        return "<no connection>";
    socket.write(bytes);
    while (socket.bytesToWrite() > 0 && socket.waitForBytesWritten(5000)) {
    }
    QByteArray received;
    QElapsedTimer clock;
    clock.start();
    while (socket.state() == QLocalSocket::ConnectedState && clock.elapsed() < 10000) {
        socket.waitForReadyRead(200);
        received += socket.readAll();
    }
    received += socket.readAll();
    return received;
}

struct Helper {
    std::unique_ptr<QProcess> process = std::make_unique<QProcess>();
    QByteArray output;

    bool waitForOutput(const QByteArray &text, int timeoutMs = 10000) {
        QElapsedTimer clock;
        clock.start();
        while (!output.contains(text) && clock.elapsed() < timeoutMs) {
            process->waitForReadyRead(100);
            output += process->readAllStandardOutput();
        }
        return output.contains(text);
    }
    bool waitForExit(int timeoutMs = 15000) {
        const bool finished =
            process->state() == QProcess::NotRunning || process->waitForFinished(timeoutMs);
        output += process->readAllStandardOutput();
        return finished;
    }
    ~Helper() {
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(5000);
        }
    }
};

} // namespace

// A temporary directory of the test's own as TMPDIR, and no runtime directory,
// until the end of the scope (also when a check fails half-way).
struct TemporaryDirectoryWithoutRuntime {
    QTemporaryDir dir;
    QByteArray savedTmp = qgetenv("TMPDIR");
    QByteArray savedRuntime = qgetenv("XDG_RUNTIME_DIR");

    TemporaryDirectoryWithoutRuntime() {
        qputenv("TMPDIR", QFile::encodeName(dir.path()));
        qunsetenv("XDG_RUNTIME_DIR");
    }
    ~TemporaryDirectoryWithoutRuntime() {
        qputenv("TMPDIR", savedTmp);
        qputenv("XDG_RUNTIME_DIR", savedRuntime);
    }
    // The private folder the guard uses for `name` there.
    QString folderFor(const QString &name) const {
        return QDir::cleanPath(dir.path()) + QStringLiteral("/%1-%2").arg(name).arg(::getuid());
    }
};

class GuardTest : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_runtime;

    std::unique_ptr<Helper> startHelper() {
        auto helper = std::make_unique<Helper>();
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_runtime->path());
        helper->process->setProcessEnvironment(environment);
        helper->process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        helper->process->start(guardHelper);
        return helper;
    }

    QString helperSocket() const {
        return m_runtime->path() + QStringLiteral("/%1-%2.socket").arg(helperName).arg(::getuid());
    }

private slots:
    void init() {
        // Short, private runtime directories: local socket paths have a small length limit.
        m_runtime = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/rwg-XXXXXX");
        QVERIFY(m_runtime->isValid());
        QVERIFY(QFile::setPermissions(m_runtime->path(), QFileDevice::ReadOwner |
                                                             QFileDevice::WriteOwner |
                                                             QFileDevice::ExeOwner));
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(m_runtime->path()));
    }

    void cleanup() { m_runtime.reset(); }

    void socketPathIsPerUserInRuntimeDirectory() {
        QCOMPARE(instanceSocketPath(testName),
                 m_runtime->path() + QStringLiteral("/%1-%2.socket").arg(testName).arg(::getuid()));
        // Odd characters of the name do not make odd file names.
        QCOMPARE(QFileInfo(instanceSocketPath("a/b c")).fileName(),
                 QStringLiteral("a_b_c-%1.socket").arg(::getuid()));
    }

    void socketPathFallsBackToAPrivateTemporaryFolder() {
        const TemporaryDirectoryWithoutRuntime tmp;
        const QString folder = tmp.folderFor(testName);
        QCOMPARE(instanceSocketPath(testName),
                 folder + QStringLiteral("/%1-%2.socket").arg(testName).arg(::getuid()));
        // Made for this user alone.
        struct stat info {};
        QCOMPARE(::lstat(QFile::encodeName(folder).constData(), &info), 0);
        QVERIFY(S_ISDIR(info.st_mode));
        QCOMPARE(info.st_mode & 0777, mode_t(0700));
        QCOMPARE(info.st_uid, ::getuid());
        // A runtime directory that does not exist is no better.
        qputenv("XDG_RUNTIME_DIR", "/nonexistent/runtime");
        QCOMPARE(QFileInfo(instanceSocketPath(testName)).absolutePath(), folder);
        // Our own folder left open to others is closed again.
        QVERIFY(::chmod(QFile::encodeName(folder).constData(), 0777) == 0);
        QVERIFY(!instanceSocketPath(testName).isEmpty());
        QCOMPARE(::lstat(QFile::encodeName(folder).constData(), &info), 0);
        QCOMPARE(info.st_mode & 0777, mode_t(0700));
    }

    void aTemporaryFolderOfAnotherUserIsRefused() {
        if (::getuid() != 0) {
            QSKIP("making a folder another user owns needs root");
        }
        const TemporaryDirectoryWithoutRuntime tmp;
        // Another user got there first.
        const QString folder = tmp.folderFor(testName);
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(::chown(QFile::encodeName(folder).constData(), 4242, 4242) == 0);
        const InstanceSocketLocation location = instanceSocketLocation(testName);
        QVERIFY(location.path.isEmpty());
        QVERIFY2(location.problem.contains("belongs to another user"),
                 qPrintable(location.problem));
        // The guard does not listen there, and says why.
        InstanceGuard guard(testName);
        QCOMPARE(guard.acquire(), InstanceGuard::Outcome::Failed);
        QVERIFY2(guard.errorString().contains("belongs to another user"),
                 qPrintable(guard.errorString()));
        QVERIFY(QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).isEmpty());
        // A link in its place is refused too.
        QVERIFY(QDir(folder).removeRecursively());
        QVERIFY(QFile::link(tmp.dir.path(), folder));
        QVERIFY(instanceSocketLocation(testName).path.isEmpty());
    }

    void secondInstanceExitsAndFirstShows() {
        auto first = startHelper();
        QVERIFY2(first->waitForOutput("ready\n"), first->output.constData());
        auto second = startHelper();
        QVERIFY(second->waitForExit());
        QCOMPARE(second->process->exitStatus(), QProcess::NormalExit);
        QCOMPARE(second->process->exitCode(), 0);
        QCOMPARE(second->output, alreadyOpened);
        QVERIFY2(first->waitForOutput("show requested\n"), first->output.constData());
        QCOMPARE(first->process->state(), QProcess::Running);
    }

    void simultaneousStartsLeaveOneInstance() {
        std::vector<std::unique_ptr<Helper>> helpers;
        for (int i = 0; i < 3; ++i)
            helpers.push_back(startHelper());
        int exited = 0;
        int running = 0;
        for (auto &helper : helpers) {
            if (helper->waitForExit(8000)) {
                ++exited;
                QCOMPARE(helper->process->exitCode(), 0);
                QCOMPARE(helper->output, alreadyOpened);
            } else {
                ++running;
                QVERIFY(helper->waitForOutput("ready\n"));
            }
        }
        QCOMPARE(running, 1);
        QCOMPARE(exited, 2);
    }

    void startWaitsWhileAnotherStartHoldsTheLock() {
        // This test plays a start that is between its check and its listen: it holds the lock.
        QLockFile lock(helperSocket() + ".lock");
        QVERIFY(lock.tryLock(0));
        auto waiting = startHelper();
        QVERIFY(
            !waiting->waitForOutput("ready\n", 1500)); // it may not look before the lock is free
        QCOMPARE(waiting->process->state(), QProcess::Running);

        QLocalServer winner; // the instance the other start brought up
        winner.setSocketOptions(QLocalServer::UserAccessOption);
        QVERIFY(winner.listen(helperSocket()));
        lock.unlock();
        QVERIFY(waiting->waitForExit());
        QCOMPARE(waiting->process->exitCode(), 0);
        QCOMPARE(waiting->output, alreadyOpened);
    }

    void staleSocketDoesNotBlockNextStart() {
        auto killed = startHelper();
        QVERIFY(killed->waitForOutput("ready\n"));
        QVERIFY(::kill(pid_t(killed->process->processId()), SIGKILL) == 0);
        QVERIFY(killed->waitForExit());
        QVERIFY(QFile::exists(helperSocket())); // left behind by the killed instance

        auto next = startHelper();
        QVERIFY2(next->waitForOutput("ready\n"), next->output.constData());
        QVERIFY(!next->output.contains("Application already opened"));
        QCOMPARE(next->process->state(), QProcess::Running);

        auto third = startHelper(); // and the new instance is the one that answers
        QVERIFY(third->waitForExit());
        QCOMPARE(third->output, alreadyOpened);
    }

    void socketIsUserOnly() {
        auto first = startHelper();
        QVERIFY(first->waitForOutput("ready\n"));
        struct stat info {};
        QCOMPARE(::stat(QFile::encodeName(helperSocket()).constData(), &info), 0);
        QVERIFY(S_ISSOCK(info.st_mode));
        QCOMPARE(info.st_uid, ::getuid());
        QCOMPARE(int(info.st_mode & 077), 0);

        InstanceGuard guard(testName);
        QCOMPARE(guard.acquire(), InstanceGuard::Outcome::Listening);
        QCOMPARE(::stat(QFile::encodeName(guard.socketPath()).constData(), &info), 0);
        QCOMPARE(int(info.st_mode & 077), 0);
    }

    void guardRemovesItsSocketWhenDestroyed() {
        QString socketPath;
        {
            InstanceGuard guard(testName);
            QCOMPARE(guard.acquire(), InstanceGuard::Outcome::Listening);
            socketPath = guard.socketPath();
            QVERIFY(QFile::exists(socketPath));
        }
        QVERIFY(!QFile::exists(socketPath));
    }

    void showRequestIsAnswered() {
        InstanceGuard guard(testName);
        QCOMPARE(guard.acquire(), InstanceGuard::Outcome::Listening);
        QSignalSpy shown(&guard, &InstanceGuard::showRequested);
        const InstanceReply reply = offThread([] {
            return sendInstanceRequest(QJsonObject{{"command", "show"}}, 5000, {}, testName);
        });
        QVERIFY2(reply.connected && reply.finished, qPrintable(reply.error));
        QCOMPARE(reply.lines, QList<QJsonObject>({QJsonObject{{"ok", true}}}));
        QCOMPARE(shown.count(), 1);

        // A second guard of the same application sees the first one.
        InstanceGuard other(testName);
        QCOMPARE(other.acquire(), InstanceGuard::Outcome::OtherInstanceRunning);
        QCOMPARE(other.acquire(), InstanceGuard::Outcome::OtherInstanceRunning);
    }

    void handlerAnswersWithSeveralLinesLater() {
        InstanceGuard guard(testName);
        QCOMPARE(guard.acquire(), InstanceGuard::Outcome::Listening);
        QVERIFY(guard.setCommandHandler("count", [](GuardConnection *connection) {
            const int upTo = connection->request().value("upTo").toInt();
            for (int n = 1; n <= upTo; ++n) {
                QTimer::singleShot(30 * n, connection, [connection, n, upTo] {
                    connection->sendLine(QJsonObject{{"n", n}});
                    if (n == upTo)
                        connection->finish();
                });
            }
        }));
        QList<QJsonObject> streamed;
        const InstanceReply reply = offThread([&] {
            return sendInstanceRequest(
                QJsonObject{{"command", "count"}, {"upTo", 3}}, 5000,
                [&](const QJsonObject &line) { streamed.append(line); }, testName);
        });
        QVERIFY2(reply.connected && reply.finished, qPrintable(reply.error));
        const QList<QJsonObject> expected{QJsonObject{{"n", 1}}, QJsonObject{{"n", 2}},
                                          QJsonObject{{"n", 3}}};
        QCOMPARE(reply.lines, expected);
        QCOMPARE(streamed, expected);
        QVERIFY(reply.error.isEmpty());
    }

    void clientTimesOutAndServerSeesItGo() {
        InstanceGuard guard(testName);
        QCOMPARE(guard.acquire(), InstanceGuard::Outcome::Listening);
        QPointer<GuardConnection> pending;
        bool closed = false;
        guard.setCommandHandler("hang", [&](GuardConnection *connection) {
            pending = connection;
            connect(connection, &GuardConnection::closed, [&] { closed = true; });
            connection->sendLine(QJsonObject{{"started", true}});
        });
        const InstanceReply reply = offThread([] {
            return sendInstanceRequest(QJsonObject{{"command", "hang"}}, 500, {}, testName);
        });
        QVERIFY(reply.connected);
        QVERIFY(!reply.finished);
        QVERIFY(!reply.error.isEmpty());
        QCOMPARE(reply.lines, QList<QJsonObject>({QJsonObject{{"started", true}}}));
        QTRY_VERIFY_WITH_TIMEOUT(closed, 5000);
        QTRY_VERIFY_WITH_TIMEOUT(pending.isNull(), 5000);
    }

    void unknownCommandIsAnswered() {
        InstanceGuard guard(testName);
        QCOMPARE(guard.acquire(), InstanceGuard::Outcome::Listening);
        const InstanceReply reply = offThread([] {
            return sendInstanceRequest(QJsonObject{{"command", "nope"}}, 5000, {}, testName);
        });
        QVERIFY(reply.connected && reply.finished);
        QCOMPARE(reply.lines, QList<QJsonObject>({QJsonObject{{"error", "unknown command"},
                                                              {"command", "nope"}}}));
    }

    void malformedRequestsAreAnsweredNotFatal() {
        InstanceGuard guard(testName);
        QCOMPARE(guard.acquire(), InstanceGuard::Outcome::Listening);
        QSignalSpy shown(&guard, &InstanceGuard::showRequested);
        const QString socket = guard.socketPath();
        const QByteArray malformed = "{\"error\":\"malformed request\"}\n";
        QCOMPARE(offThread([&] { return rawExchange(socket, "not json\n"); }), malformed);
        QCOMPARE(offThread([&] { return rawExchange(socket, "[1,2]\n"); }), malformed);
        QCOMPARE(offThread([&] { return rawExchange(socket, "{\"command\":7}\n"); }), malformed);
        QCOMPARE(offThread([&] { return rawExchange(socket, "\xff\xfe\n"); }), malformed);
        QCOMPARE(offThread([&] {
                     return rawExchange(socket,
                                        QByteArray(InstanceGuard::maxRequestLineBytes + 10, 'x'));
                 }),
                 QByteArray("{\"error\":\"request too long\"}\n"));
        // Only the first line of a connection is a request.
        QCOMPARE(offThread([&] {
                     return rawExchange(socket, "{\"command\":\"show\"}\n{\"command\":\"show\"}\n");
                 }),
                 QByteArray("{\"ok\":true}\n"));
        QCOMPARE(shown.count(), 1);
        // After all that the guard still serves.
        const InstanceReply reply = offThread([] {
            return sendInstanceRequest(QJsonObject{{"command", "show"}}, 5000, {}, testName);
        });
        QVERIFY(reply.finished);
        QCOMPARE(shown.count(), 2);
    }

    void noInstanceMeansNotConnected() {
        const InstanceReply reply =
            sendInstanceRequest(QJsonObject{{"command", "show"}}, 1000, {}, testName);
        QVERIFY(!reply.connected);
        QVERIFY(!reply.finished);
        QVERIFY(!reply.error.isEmpty());
    }

    void showCannotBeReplaced() {
        InstanceGuard guard(testName);
        QVERIFY(!guard.setCommandHandler("show", [](GuardConnection *c) { c->finish(); }));
        QVERIFY(guard.setCommandHandler("other", [](GuardConnection *c) { c->finish(); }));
    }
};

QTEST_GUILESS_MAIN(GuardTest)
#include "tst_guard.moc"
