// The child-process runner against real children (the small helper programs built beside this
// test): output chunks, exits and their threads, retry, hold and relaunch, cancel, SIGKILL after
// the grace period, parent death, idle cost.

#include <runwarden/ProcessManager.h>
#include <runwarden/Resources.h>

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QTest>
#include <QThread>

#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace runwarden;
using namespace std::chrono_literals;

namespace {

const QString piecesHelper = QStringLiteral(RUNWARDEN_HELPER_PIECES);
const QString exitHelper = QStringLiteral(RUNWARDEN_HELPER_EXIT);
const QString splitHelper = QStringLiteral(RUNWARDEN_HELPER_SPLIT);
const QString stubbornHelper = QStringLiteral(RUNWARDEN_HELPER_STUBBORN);
const QString sleeperHelper = QStringLiteral(RUNWARDEN_HELPER_SLEEPER);
const QString echoHelper = QStringLiteral(RUNWARDEN_HELPER_ECHO);
const QString stdioHelper = QStringLiteral(RUNWARDEN_HELPER_STDIO);
const QString parentHelper = QStringLiteral(RUNWARDEN_HELPER_PARENT);

std::optional<QString> path(const QString &file) {
    return file;
}

bool onMainThread() {
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}

// What the handlers of one runner saw. Output arrives on a background thread, exits of failed
// starts on the runner thread, so everything is guarded.
struct Recorder {
    struct Exit {
        std::optional<std::error_code> error;
        bool onMainThread = false;
    };

    mutable std::mutex mutex;
    QStringList chunks;
    QString pending;         // output of the run that has not been reported as ended yet
    QStringList outputOfRun; // output of each ended run, in order
    QList<Exit> exits;

    StandardOutputHandler output() {
        return [this](const QString &chunk) {
            std::lock_guard lock(mutex);
            chunks.append(chunk);
            pending += chunk;
        };
    }

    // `after` runs after the exit is recorded, with the number of exits so far.
    TaskExitHandler exit(std::function<void(int)> after = {}) {
        return [this, after](const std::optional<std::error_code> &error) {
            int count;
            {
                std::lock_guard lock(mutex);
                exits.append({error, onMainThread()});
                outputOfRun.append(pending);
                pending.clear();
                count = int(exits.size());
            }
            if (after)
                after(count);
        };
    }

    int exitCount() const {
        std::lock_guard lock(mutex);
        return int(exits.size());
    }
    QStringList chunkList() const {
        std::lock_guard lock(mutex);
        return chunks;
    }
    bool sawChunk(const QString &text) const { return chunkList().contains(text); }
    Exit exitAt(int i) const {
        std::lock_guard lock(mutex);
        return exits.at(i);
    }
    QString outputOf(int run) const {
        std::lock_guard lock(mutex);
        return outputOfRun.value(run);
    }
};

// A process that no longer runs: no such id, or a zombie nobody has reaped yet.
bool processGone(qint64 pid) {
    if (::kill(pid_t(pid), 0) != 0 && errno == ESRCH)
        return true;
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true;
    const QByteArray text = stat.readAll();
    const qsizetype close = text.lastIndexOf(')');
    if (close < 0 || close + 2 >= text.size())
        return false;
    const char state = text.at(close + 2);
    return state == 'Z' || state == 'X';
}

double cpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

} // namespace

class ProcessManagerTest : public QObject {
    Q_OBJECT

private slots:
    void argumentsTakeTextForms() {
        ProcessManager runner;
        runner.addArgument("port", 8123);
        runner.addArgument("x");
        runner.addArgument(QStringLiteral("-token=abc"));
        runner.addArgument("flag", true);
        runner.addArgument("ratio", 0.25);
        runner.addArgument(std::string("std"));
        runner.addArgument('c');
        runner.addArgument("big", qint64(1) << 40);
        QCOMPARE(runner.arguments(),
                 QStringList({"-port=8123", "x", "-token=abc", "-flag=true", "-ratio=0.25", "std",
                              "c", "-big=1099511627776"}));
        // A copy for a fresh runner is the same list; the original is unchanged by it.
        ProcessManager copy(runner.arguments());
        copy.addArgument("more");
        QCOMPARE(copy.arguments().size(), runner.arguments().size() + 1);
        QCOMPARE(copy.arguments().mid(0, runner.arguments().size()), runner.arguments());
    }

    void pidArgument() {
        ProcessManager runner;
        runner.addPIDAsArgument("pid");
        QCOMPARE(runner.arguments(), QStringList{QStringLiteral("-pid=%1").arg(::getpid())});
    }

    void decodeOutputChunkRules() {
        QCOMPARE(decodeOutputChunk("plain\n"), std::optional<QString>(QStringLiteral("plain\n")));
        QCOMPARE(decodeOutputChunk("caf\xC3\xA9"),
                 std::optional<QString>(QString::fromUtf8("caf\xC3\xA9")));
        QCOMPARE(decodeOutputChunk("a\xC3"), std::nullopt); // cut at the end
        QCOMPARE(decodeOutputChunk("\xA9"
                                   "b"),
                 std::nullopt);                                            // cut at the start
        QCOMPARE(decodeOutputChunk("\xC0\xAF"), std::nullopt);             // overlong form
        QCOMPARE(decodeOutputChunk("\xED\xA0\x80"), std::nullopt);         // surrogate
        QCOMPARE(decodeOutputChunk("\xF4\x90\x80\x80"), std::nullopt);     // beyond U+10FFFF
        QCOMPARE(decodeOutputChunk("\xF0\x9F\x98\x80").value().size(), 2); // one emoji
        QCOMPARE(decodeOutputChunk(""), std::optional<QString>(QString()));
    }

    void argumentsReachChildInOrder() {
        Recorder record;
        ProcessManager runner;
        runner.addArgument("x");
        runner.addArgument("port", 8123);
        runner.addPIDAsArgument("pid");
        runner.addArgument(QStringLiteral("two words"));
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(echoHelper), false, record.output(), record.exit()));
        QVERIFY(finished.wait(10000));
        QCOMPARE(record.exitCount(), 1);
        QCOMPARE(record.outputOf(0),
                 QStringLiteral("x\n-port=8123\n-pid=%1\ntwo words\n").arg(::getpid()));
    }

    void argumentsKeepOrderAcrossRuns() {
        Recorder record;
        ProcessManager runner;
        runner.addArgument("a");
        runner.addArgument("b", 2);
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(echoHelper), true, record.output(), record.exit([&](int n) {
            if (n == 3)
                runner.cancel();
        })));
        QVERIFY(finished.wait(10000));
        QCOMPARE(record.exitCount(), 3);
        for (int run = 0; run < 3; ++run)
            QCOMPARE(record.outputOf(run), QStringLiteral("a\n-b=2\n"));
    }

    void outputArrivesInPieces() {
        Recorder record;
        ProcessManager runner;
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(piecesHelper), false, record.output(), record.exit()));
        QVERIFY(finished.wait(10000));
        // Three writes apart in time are three chunks, passed on as they were read.
        QCOMPARE(record.chunkList(), QStringList({"one\n", "two\n", "three\n"}));
    }

    void splitCharacterDropsBothChunks() {
        Recorder record;
        ProcessManager runner;
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(splitHelper), false, record.output(), record.exit()));
        QVERIFY(finished.wait(10000));
        // "a" + C3 and A9 + "b" are each invalid on their own; the later chunk still arrives.
        QCOMPARE(record.chunkList(), QStringList({"ok\n"}));
    }

    void exitReportedOnMainThreadWithoutError() {
        Recorder record;
        ProcessManager runner;
        QSignalSpy started(&runner, &ProcessManager::taskStarted);
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(exitHelper), false, record.output(), record.exit()));
        QVERIFY(runner.isLoopRunning());
        QVERIFY(finished.wait(10000));
        QVERIFY(!runner.isLoopRunning());
        QCOMPARE(record.exitCount(), 1);
        QCOMPARE(record.exitAt(0).error, std::nullopt); // exit status 3 is no error
        QVERIFY(record.exitAt(0).onMainThread);
        QCOMPARE(started.count(), 1);
        QVERIFY(started.at(0).at(0).toLongLong() > 0);
        QCOMPARE(runner.currentTaskPid(), 0);
    }

    // A child may print before its parent has seen the exec succeed: the start is still
    // posted to the main thread before any of the run's output is passed on, so a listener
    // that starts a run's state on taskStarted never sees that run's output first.
    void theStartIsPostedBeforeTheRunsOutput() {
        for (int round = 0; round < 20; ++round) {
            ProcessManager runner;
            runner.addArgument(QStringLiteral("first line"));
            QStringList order;
            QObject::connect(&runner, &ProcessManager::taskStarted, &runner,
                             [&order] { order << QStringLiteral("started"); });
            const StandardOutputHandler output = [&runner, &order](const QString &) {
                QMetaObject::invokeMethod(
                    &runner, [&order] { order << QStringLiteral("output"); }, Qt::QueuedConnection);
            };
            QSignalSpy finished(&runner, &ProcessManager::loopFinished);
            QVERIFY(runner.RunProces(path(echoHelper), false, output, {}));
            QVERIFY(finished.wait(10000));
            QVERIFY2(!order.isEmpty() && order.first() == QStringLiteral("started"),
                     qPrintable(order.join(u',')));
        }
    }

    void absentPathReportedOnRunnerThread() {
        Recorder record;
        ProcessManager runner;
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(std::optional<QString>(), false, record.output(), record.exit()));
        QVERIFY(finished.wait(10000));
        QCOMPARE(record.exitCount(), 1);
        const auto exit = record.exitAt(0);
        QVERIFY(exit.error.has_value());
        QVERIFY(*exit.error == ProcessManagerError::executableNotFound);
        QCOMPARE(errorText(*exit.error), QStringLiteral("executable not found"));
        QVERIFY(!exit.onMainThread);
    }

    void failedStartRunsOnceWithoutRetry() {
        Recorder record;
        ProcessManager runner;
        QSignalSpy started(&runner, &ProcessManager::taskStarted);
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(QStringLiteral("/nonexistent/runwarden-no-such-file")), false,
                                 record.output(), record.exit()));
        QVERIFY(finished.wait(10000));
        QTest::qWait(200);
        QCOMPARE(record.exitCount(), 1);
        const auto exit = record.exitAt(0);
        QVERIFY(exit.error.has_value());
        QVERIFY(*exit.error == std::errc::no_such_file_or_directory);
        QCOMPARE(errorText(*exit.error), QString::fromLocal8Bit(std::strerror(ENOENT)));
        QVERIFY(!exit.onMainThread);
        QCOMPARE(started.count(), 0);
    }

    void notExecutableFileIsStartError() {
        QTemporaryFile script;
        QVERIFY(script.open());
        script.write("#!/bin/sh\necho hi\n");
        script.close();
        QVERIFY(QFile::setPermissions(script.fileName(),
                                      QFileDevice::ReadOwner | QFileDevice::WriteOwner));
        Recorder record;
        ProcessManager runner;
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(script.fileName()), false, record.output(), record.exit()));
        QVERIFY(finished.wait(10000));
        QCOMPARE(record.exitCount(), 1);
        QVERIFY(record.exitAt(0).error.has_value());
        QVERIFY(*record.exitAt(0).error == std::errc::permission_denied);
        QVERIFY(!record.exitAt(0).onMainThread);
    }

    void runsResourceByName() {
        const QString directory = QFileInfo(echoHelper).absolutePath();
        qputenv("TARNWICK_RESOURCES_DIR", QFile::encodeName(directory));
        struct Restore {
            ~Restore() { qunsetenv("TARNWICK_RESOURCES_DIR"); }
        } restore;
        QCOMPARE(resourcesDirectory(), QDir::cleanPath(directory));
        QCOMPARE(bundleResourcePath(QStringLiteral("runwarden_helper_echo")),
                 std::optional<QString>(QDir::cleanPath(directory) + "/runwarden_helper_echo"));

        Recorder record;
        ProcessManager runner;
        runner.addArgument("by-name");
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces("runwarden_helper_echo", false, record.output(), record.exit()));
        QVERIFY(finished.wait(10000));
        QCOMPARE(record.outputOf(0), QStringLiteral("by-name\n"));

        // An absent resource is an absent executable, reported on the runner thread.
        QVERIFY(runner.RunProces(QStringLiteral("runwarden-no-such-resource"), false,
                                 record.output(), record.exit()));
        QVERIFY(finished.wait(10000));
        QCOMPARE(record.exitCount(), 2);
        QVERIFY(*record.exitAt(1).error == ProcessManagerError::executableNotFound);
        QVERIFY(!record.exitAt(1).onMainThread);
    }

    void retryRestartsUntilCancel() {
        Recorder record;
        ProcessManager runner;
        QSignalSpy started(&runner, &ProcessManager::taskStarted);
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(exitHelper), true, record.output(), record.exit([&](int n) {
            if (n == 5) {
                QThread::msleep(200); // a slow handler: the loop must still wait for it
                runner.cancel();
            }
        })));
        QVERIFY(finished.wait(20000));
        // The loop waits for each exit handler: cancelled in the fifth, it never starts a sixth.
        QTest::qWait(300);
        QCOMPARE(record.exitCount(), 5);
        QCOMPARE(started.count(), 5);
        for (int i = 0; i < 5; ++i) {
            QCOMPARE(record.exitAt(i).error, std::nullopt);
            QVERIFY(record.exitAt(i).onMainThread);
        }
        QCOMPARE(finished.count(), 1);
        QVERIFY(runner.isCancelled());
    }

    void cancelFromOutsideEndsTightLoop() {
        Recorder record;
        ProcessManager runner;
        QSignalSpy started(&runner, &ProcessManager::taskStarted);
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(exitHelper), true, record.output(), record.exit()));
        QTRY_VERIFY_WITH_TIMEOUT(record.exitCount() >= 3, 20000);
        runner.cancel();
        QVERIFY(finished.wait(10000));
        QTest::qWait(300);
        const int exits = record.exitCount();
        QCOMPARE(started.count(), exits); // every started child was reported, none started after
        QTest::qWait(300);
        QCOMPARE(record.exitCount(), exits);
    }

    void holdRunsNewPathInSameLoop() {
        Recorder record;
        ProcessManager runner;
        runner.addArgument("relaunched");
        QSignalSpy started(&runner, &ProcessManager::taskStarted);
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        bool held = false;
        QVERIFY(runner.RunProces(path(exitHelper), true, record.output(),
                                 record.exit([&](int) { held = runner.holdForRelaunch(); })));
        QTRY_COMPARE_WITH_TIMEOUT(record.exitCount(), 1, 10000);
        QVERIFY(held);
        QVERIFY(runner.isHeld());
        QTest::qWait(400);
        QCOMPARE(started.count(), 1); // held: nothing runs again by itself
        QVERIFY(runner.isLoopRunning());

        bool secondLoopCalled = false;
        QVERIFY(!runner.RunProces(path(echoHelper), false, {},
                                  [&](const auto &) { secondLoopCalled = true; }));

        QVERIFY(runner.relaunch(path(echoHelper)));
        QTRY_COMPARE_WITH_TIMEOUT(record.exitCount(), 2, 10000);
        QCOMPARE(record.outputOf(0), QString());
        QCOMPARE(record.outputOf(1), QStringLiteral("relaunched\n")); // the new executable ran
        QCOMPARE(started.count(), 2);
        QCOMPARE(finished.count(), 0); // still the same loop
        QVERIFY(runner.isHeld());      // the handler held again

        runner.cancel();
        QVERIFY(finished.wait(10000));
        QVERIFY(!runner.isHeld());
        QVERIFY(!runner.relaunch(path(echoHelper)));
        QCOMPARE(started.count(), 2);
        QVERIFY(!secondLoopCalled);
    }

    void failedStartCanHoldFromRunnerThread() {
        Recorder record;
        ProcessManager runner;
        runner.addArgument("after-failure");
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(QStringLiteral("/nonexistent/runwarden-missing")), true,
                                 record.output(), record.exit([&](int n) {
                                     if (n == 1)
                                         runner.holdForRelaunch(); // on the runner thread
                                     else
                                         runner.cancel();
                                 })));
        QTRY_VERIFY_WITH_TIMEOUT(runner.isHeld(), 10000);
        QTest::qWait(300);
        QCOMPARE(record.exitCount(), 1); // no tight loop of failed starts
        QVERIFY(!record.exitAt(0).onMainThread);
        QVERIFY(runner.relaunch(path(echoHelper)));
        QVERIFY(finished.wait(10000));
        QCOMPARE(record.exitCount(), 2);
        QCOMPARE(record.exitAt(1).error, std::nullopt);
        QCOMPARE(record.outputOf(1), QStringLiteral("after-failure\n"));
    }

    void withoutRetryHoldIsRefused() {
        ProcessManager runner;
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(!runner.holdForRelaunch()); // no loop
        bool holdAccepted = true;
        QVERIFY(runner.RunProces(path(exitHelper), false, {},
                                 [&](const auto &) { holdAccepted = runner.holdForRelaunch(); }));
        QVERIFY(finished.wait(10000));
        QVERIFY(!holdAccepted);
        QVERIFY(!runner.isHeld());
        // The loop has ended: a new one may start.
        QVERIFY(runner.RunProces(path(exitHelper), false));
        QVERIFY(finished.wait(10000));
    }

    void nextLoopStartsFromLoopFinishedNotFromExitHandler() {
        ProcessManager runner;
        runner.addArgument("again");
        Recorder record;
        bool startedInsideHandler = true;
        bool loopAliveInsideHandler = false;
        QVERIFY(runner.RunProces(path(exitHelper), false, record.output(), record.exit([&](int) {
            loopAliveInsideHandler = runner.isLoopRunning();
            startedInsideHandler = runner.RunProces(path(echoHelper));
        })));
        bool startedOnFinished = false;
        const auto connection = connect(&runner, &ProcessManager::loopFinished, this, [&] {
            if (!startedOnFinished)
                startedOnFinished =
                    runner.RunProces(path(echoHelper), false, record.output(), record.exit());
        });
        QTRY_COMPARE_WITH_TIMEOUT(record.exitCount(), 2, 10000);
        disconnect(connection);
        QVERIFY(loopAliveInsideHandler);
        QVERIFY(!startedInsideHandler); // refused every time, not depending on timing
        QVERIFY(startedOnFinished);
        QCOMPARE(record.outputOf(1), QStringLiteral("again\n"));
        QTRY_VERIFY_WITH_TIMEOUT(!runner.isLoopRunning(), 10000);
    }

    void secondRunProcesRefused() {
        Recorder record;
        ProcessManager runner;
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(sleeperHelper), false, record.output(), record.exit()));
        QTRY_VERIFY_WITH_TIMEOUT(record.sawChunk("ready\n"), 10000);
        QVERIFY(!runner.RunProces(path(echoHelper), true));
        QVERIFY(!runner.RunProces("runwarden_helper_echo"));
        runner.cancel();
        QVERIFY(finished.wait(10000));
        QCOMPARE(record.exitCount(), 1);
        QCOMPARE(finished.count(), 1);
    }

    void cancelledRunnerRunsNothing() {
        Recorder record;
        ProcessManager runner;
        runner.cancel();
        QSignalSpy started(&runner, &ProcessManager::taskStarted);
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(echoHelper), true, record.output(), record.exit()));
        QVERIFY(finished.wait(10000));
        QCOMPARE(record.exitCount(), 0);
        QCOMPARE(started.count(), 0);
        QVERIFY(runner.isCancelled());
    }

    void cancelTerminatesRunningChild() {
        Recorder record;
        ProcessManager runner;
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(sleeperHelper), true, record.output(), record.exit()));
        QTRY_VERIFY_WITH_TIMEOUT(record.sawChunk("ready\n"), 10000);
        const qint64 pid = runner.currentTaskPid();
        QVERIFY(pid > 0);
        QVERIFY(!processGone(pid));
        runner.cancel();
        QVERIFY(finished.wait(10000));
        QVERIFY(processGone(pid));
        QCOMPARE(record.exitCount(), 1);
        QCOMPARE(record.exitAt(0).error, std::nullopt);
    }

    void stubbornChildKilledAfterGracePeriod() {
        Recorder record;
        ProcessManager runner;
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(stubbornHelper), false, record.output(), record.exit()));
        QTRY_VERIFY_WITH_TIMEOUT(record.sawChunk("ready\n"), 10000);
        const qint64 pid = runner.currentTaskPid();
        QVERIFY(pid > 0);
        QElapsedTimer clock;
        clock.start();
        runner.cancel();
        QTest::qWait(1000);
        QVERIFY(!processGone(pid)); // SIGTERM alone did not end it
        QVERIFY(finished.wait(10000));
        QVERIFY(processGone(pid));
        QVERIFY(clock.elapsed() >= ProcessManager::terminateGracePeriod.count() - 500);
        QCOMPARE(record.exitCount(), 1);
    }

    void destructorCancelsAndJoins() {
        Recorder record;
        auto runner = std::make_unique<ProcessManager>();
        QVERIFY(runner->RunProces(path(sleeperHelper), true, record.output(), record.exit()));
        QTRY_VERIFY_WITH_TIMEOUT(record.sawChunk("ready\n"), 10000);
        const qint64 pid = runner->currentTaskPid();
        QVERIFY(pid > 0);
        runner.reset();
        QVERIFY(processGone(pid)); // terminated and reaped before the destructor returned
    }

    void blockedChildCostsNoCpu() {
        Recorder record;
        ProcessManager runner;
        QSignalSpy finished(&runner, &ProcessManager::loopFinished);
        QVERIFY(runner.RunProces(path(sleeperHelper), true, record.output(), record.exit()));
        QTRY_VERIFY_WITH_TIMEOUT(record.sawChunk("ready\n"), 10000);
        const auto wallStart = std::chrono::steady_clock::now();
        const double cpuStart = cpuSeconds();
        std::this_thread::sleep_for(1s); // only the runner's own threads are awake to spend
        const double cpu = cpuSeconds() - cpuStart;
        const double wall =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
        QVERIFY2(cpu < 0.05 * wall,
                 qPrintable(QStringLiteral("%1 s CPU in %2 s").arg(cpu).arg(wall)));
        runner.cancel();
        QVERIFY(finished.wait(10000));
    }

    void childDoesNotOutliveKilledParent() {
        QProcess parent;
        parent.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        parent.start(parentHelper, {sleeperHelper});
        QVERIFY(parent.waitForStarted(10000));
        qint64 child = 0;
        QByteArray output;
        QElapsedTimer clock;
        clock.start();
        while (child == 0 && clock.elapsed() < 10000) {
            parent.waitForReadyRead(200);
            output += parent.readAllStandardOutput();
            const qsizetype at = output.indexOf("child ");
            const qsizetype end = output.indexOf('\n', at);
            if (at >= 0 && end > at)
                child = output.mid(at + 6, end - at - 6).toLongLong();
        }
        QVERIFY2(child > 0, output.constData());
        struct NoOrphan { // whatever the outcome, the child does not outlive this test
            qint64 pid;
            ~NoOrphan() {
                if (!processGone(pid))
                    ::kill(pid_t(pid), SIGKILL);
            }
        } noOrphan{child};
        QVERIFY(!processGone(child));
        QVERIFY(::kill(pid_t(parent.processId()), SIGKILL) == 0);
        QVERIFY(parent.waitForFinished(5000));
        QTRY_VERIFY_WITH_TIMEOUT(processGone(child), 2000);
    }

    void standardInputAndErrorInherited() {
        QTemporaryFile errors;
        QVERIFY(errors.open());
        int input[2];
        QVERIFY(::pipe(input) == 0);
        QVERIFY(::write(input[1], "hello\n", 6) == 6);
        ::close(input[1]);

        Recorder record;
        {
            // Standard input and error of this test process, for the time of one run.
            const int savedInput = ::dup(STDIN_FILENO);
            const int savedError = ::dup(STDERR_FILENO);
            struct Restore {
                int in, err;
                ~Restore() {
                    ::dup2(in, STDIN_FILENO);
                    ::dup2(err, STDERR_FILENO);
                    ::close(in);
                    ::close(err);
                }
            } restore{savedInput, savedError};
            QVERIFY(::dup2(input[0], STDIN_FILENO) >= 0);
            ::close(input[0]);
            QVERIFY(::dup2(errors.handle(), STDERR_FILENO) >= 0);

            ProcessManager runner;
            QSignalSpy finished(&runner, &ProcessManager::loopFinished);
            QVERIFY(runner.RunProces(path(stdioHelper), false, record.output(), record.exit()));
            QVERIFY(finished.wait(10000));
        }
        QCOMPARE(record.outputOf(0), QStringLiteral("in:hello\n"));
        errors.seek(0);
        QVERIFY(errors.readAll().contains("err-marker\n"));
    }
};

QTEST_GUILESS_MAIN(ProcessManagerTest)
#include "tst_process.moc"
