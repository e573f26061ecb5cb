// Starting the backend through the runner: the key watcher on the backend's output, the reset on
// a rejected key, one loop per runner (relaunch of a held loop, refusal while running, a fresh
// runner after a stop) and the end of the child with the client.

#include <PollManager.h>
#include <lumacrypt/lumacrypt.h>

#include <QCoreApplication>
#include <QFile>
#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <string>
#include <vector>

using tidepost::PollManager;

namespace {

const QString kBackend = QStringLiteral(TIDEPOST_TEST_BACKEND);

// What a subscription's handlers saw. The output handler runs on the runner's thread.
struct Seen {
    std::mutex mutex;
    QString output;
    std::vector<QThread *> outputThreads;
    std::atomic<int> exits{0};
    std::vector<std::optional<std::error_code>> exitErrors;
    std::vector<QThread *> exitThreads;

    runwarden::StandardOutputHandler output_() {
        return [this](const QString &chunk) {
            const std::lock_guard lock(mutex);
            output += chunk;
            outputThreads.push_back(QThread::currentThread());
        };
    }
    runwarden::TaskExitHandler exit_(std::function<void()> also = {}) {
        return [this, also](const std::optional<std::error_code> &error) {
            {
                const std::lock_guard lock(mutex);
                exitErrors.push_back(error);
                exitThreads.push_back(QThread::currentThread());
            }
            ++exits;
            if (also) {
                also();
            }
        };
    }
    QString text() {
        const std::lock_guard lock(mutex);
        return output;
    }
};

int lineCount(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    return int(file.readAll().count('\n'));
}

QList<qint64> pidsIn(const QString &path) {
    QFile file(path);
    QList<qint64> pids;
    if (file.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : file.readAll().split('\n')) {
            if (!line.isEmpty()) {
                pids.append(line.toLongLong());
            }
        }
    }
    return pids;
}

bool processAlive(qint64 pid) {
    return ::kill(pid_t(pid), 0) == 0 || errno != ESRCH;
}

} // namespace

class TestSubscribe : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void keyInOutputSetsThePeerKey();
    void keyIgnoredWithoutWatcher();
    void keyBlockCutIntoPiecesIsTaken();
    void laterKeyBlocksOfARunAreIgnored();
    void rejectedKeyResetsTheBackend();
    void rejectedKeyOfWrongSizeTerminatesTheChild();
    void refusedWhileTheLoopRuns();
    void heldLoopIsRelaunchedWithTheNewHandlers();
    void stoppedRunnerIsReplacedByAFreshOne();
    void destructionEndsTheChild();

private:
    QTemporaryDir dir;
    int counter = 0;
    QString startsFile() { return dir.filePath(QStringLiteral("starts-%1").arg(++counter)); }
};

void TestSubscribe::initTestCase() {
    QVERIFY(dir.isValid());
    QVERIFY2(QFile::exists(kBackend), qPrintable(kBackend));
}

void TestSubscribe::keyInOutputSetsThePeerKey() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    lumacrypt::KeyExchangeStore backend = tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    const QString key = QString::fromStdString(backend.LocalPublicKey());
    QCOMPARE(key.size(), 44);
    pm.processManager().addArgument(QStringLiteral("--key=") + key);

    Seen seen;
    QThread *keySignalThread = nullptr;
    connect(&pm, &PollManager::peerKeyChanged, this,
            [&] { keySignalThread = QThread::currentThread(); });
    QSignalSpy keyChanged(&pm, &PollManager::peerKeyChanged);
    pm.pingCount = 3;
    pm.subscribeWithBinary(kBackend, false, true, 0.0, {}, seen.output_(), seen.exit_());

    QVERIFY(keyChanged.wait(10000));
    QCOMPARE(keyChanged.count(), 1);
    QCOMPARE(pm.kes.externalPublicKey(), key.toStdString());
    QVERIFY(pm.kes.hasSharedSecret());
    QCOMPARE(keySignalThread, QCoreApplication::instance()->thread());
    QCOMPARE(pm.pingCount, std::int64_t(0)); // the output counted as a sign of life
    QVERIFY(seen.text().contains(QStringLiteral("-----BEGIN PUBLIC KEY-----\n") + key));
    {
        const std::lock_guard lock(seen.mutex);
        for (QThread *thread : seen.outputThreads) {
            QVERIFY(thread != QCoreApplication::instance()->thread());
        }
    }

    // The key is the backend's: what the client seals now, the backend opens.
    backend.setExternalPublicKey(pm.bearerToken);
    const lumacrypt::KeyExchangeAEADStore sealed =
        pm.kes.encodeJSONAndEncrypt("ping", "", "", pm.keyExchangeCurrentTimestampData());
    const lumacrypt::Bytes opened = backend.decryptAEADStore(sealed);
    QCOMPARE(std::string(opened.begin(), opened.end()),
             std::string(R"({"Type":"ping","ID":"","Data":""})"));

    QVERIFY(pm.isBackendRunning());
    pm.stopBackend();
    QTRY_COMPARE_WITH_TIMEOUT(seen.exits.load(), 1, 10000);
    QVERIFY(!seen.exitErrors.front().has_value()); // an exit, not a failed start
    QCOMPARE(seen.exitThreads.front(), QCoreApplication::instance()->thread());
    QTRY_VERIFY(!pm.isBackendRunning());
    QTRY_VERIFY(!pm.processManager().isLoopRunning());
}

void TestSubscribe::keyBlockCutIntoPiecesIsTaken() {
    // The pipe may hand the key block over in pieces (here cut inside the begin line and
    // inside the key): the key is taken whole once its line is complete, and a piece of it is
    // never mistaken for a bad key (which would reset the backend).
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString starts = dir.filePath(QStringLiteral("starts"));
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    lumacrypt::KeyExchangeStore backend = tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    const QString key = QString::fromStdString(backend.LocalPublicKey());
    pm.processManager().addArgument(QStringLiteral("--key=") + key);
    pm.processManager().addArgument(QStringLiteral("--split-key"));
    pm.processManager().addArgument(QStringLiteral("--starts=") + starts);
    QStringList lines;
    pm.setLogSink([&lines](const std::string &line) { lines << QString::fromStdString(line); });

    Seen seen;
    QSignalSpy keyChanged(&pm, &PollManager::peerKeyChanged);
    pm.subscribeWithBinary(kBackend, false, true, 0.0, {}, seen.output_(), seen.exit_());
    QVERIFY(keyChanged.wait(10000));
    QCOMPARE(pm.kes.externalPublicKey(), key.toStdString());
    // The pieces did arrive apart, and nothing was reset.
    QTRY_VERIFY(seen.text().contains(QStringLiteral("-----END PUBLIC KEY-----")));
    {
        const std::lock_guard lock(seen.mutex);
        QVERIFY2(seen.outputThreads.size() >= 3, qPrintable(seen.output));
    }
    QVERIFY2(!lines.join(u'\n').contains(QStringLiteral("pem search parse error")),
             qPrintable(lines.join(u'\n')));
    QCOMPARE(lineCount(starts), 1);
    QCOMPARE(keyChanged.count(), 1);
    pm.stopBackend();
    QTRY_COMPARE_WITH_TIMEOUT(seen.exits.load(), 1, 10000);
}

void TestSubscribe::laterKeyBlocksOfARunAreIgnored() {
    // A line the backend logs later (a folder's name, say) may hold a key block: the key the
    // backend showed at its start stays.
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    QStringList log;
    pm.setLogSink([&log](const std::string &line) { log << QString::fromStdString(line); });
    const lumacrypt::KeyExchangeStore backend =
        tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    const lumacrypt::KeyExchangeStore other = tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    const QString otherBlock = QStringLiteral("added /home/ana/-----BEGIN PUBLIC KEY-----\n") +
                               QString::fromStdString(other.LocalPublicKey()) +
                               QStringLiteral("\n-----END PUBLIC KEY-----");
    pm.processManager().addArgument(QStringLiteral("--key=") +
                                    QString::fromStdString(backend.LocalPublicKey()));
    pm.processManager().addArgument(QStringLiteral("--later-line=") + otherBlock);
    Seen seen;
    QSignalSpy keyChanged(&pm, &PollManager::peerKeyChanged);
    pm.subscribeWithBinary(kBackend, false, true, 0.0, {}, seen.output_(), seen.exit_());
    QTRY_VERIFY_WITH_TIMEOUT(seen.text().contains(QStringLiteral("added /home/ana/")), 10000);
    QTRY_COMPARE_WITH_TIMEOUT(log.filter("ignored a further key block").size(), 1, 10000);
    QCOMPARE(keyChanged.count(), 1);
    QCOMPARE(pm.kes.externalPublicKey(), backend.LocalPublicKey());
    pm.stopBackend();
    QTRY_COMPARE_WITH_TIMEOUT(seen.exits.load(), 1, 10000);
}

void TestSubscribe::keyIgnoredWithoutWatcher() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    const lumacrypt::KeyExchangeStore backend =
        tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    pm.processManager().addArgument(QStringLiteral("--key=") +
                                    QString::fromStdString(backend.LocalPublicKey()));
    pm.processManager().addArgument(QStringLiteral("--exit-after-ms=300"));
    Seen seen;
    QSignalSpy keyChanged(&pm, &PollManager::peerKeyChanged);
    pm.subscribeWithBinary(kBackend, false, false, 0.0, {}, seen.output_(), seen.exit_());
    QTRY_COMPARE_WITH_TIMEOUT(seen.exits.load(), 1, 10000);
    QVERIFY(seen.text().contains(QStringLiteral("-----END PUBLIC KEY-----")));
    QCoreApplication::processEvents();
    QCOMPARE(keyChanged.count(), 0);
    QVERIFY(pm.kes.externalPublicKey().empty());
}

void TestSubscribe::rejectedKeyResetsTheBackend() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    std::vector<std::string> logged;
    pm.setLogSink([&](const std::string &line) { logged.push_back(line); });
    const QString starts = startsFile();
    pm.processManager().addArgument(QStringLiteral("--key=not-a-valid-key"));
    pm.processManager().addArgument(QStringLiteral("--starts=") + starts);

    Seen seen;
    QSignalSpy keyChanged(&pm, &PollManager::peerKeyChanged);
    pm.subscribeWithBinary(kBackend, true, true, 0.0, {}, seen.output_(), seen.exit_());

    // The child would sleep for 30 s: it is terminated, and the retrying runner starts another.
    QTRY_VERIFY_WITH_TIMEOUT(lineCount(starts) >= 2, 15000);
    QVERIFY(seen.exits.load() >= 1);
    QVERIFY(!logged.empty());
    QCOMPARE(logged.front(), std::string("pem search parse error - reset: invalidKey"));
    const qint64 firstPid = pidsIn(starts).front();
    QTRY_VERIFY(!processAlive(firstPid));
    QCOMPARE(keyChanged.count(), 0);
    QVERIFY(pm.kes.externalPublicKey().empty());

    pm.stopBackend();
    QTRY_VERIFY_WITH_TIMEOUT(!pm.processManager().isLoopRunning(), 10000);
    for (const std::string &line : logged) {
        QCOMPARE(line, std::string("pem search parse error - reset: invalidKey"));
    }
}

void TestSubscribe::rejectedKeyOfWrongSizeTerminatesTheChild() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    std::vector<std::string> logged;
    pm.setLogSink([&](const std::string &line) { logged.push_back(line); });
    // Valid base64, but 3 bytes: not an X25519 key.
    pm.processManager().addArgument(QStringLiteral("--key=AAAA"));
    Seen seen;
    pm.subscribeWithBinary(kBackend, false, true, 0.0, {}, seen.output_(), seen.exit_());
    QTRY_COMPARE_WITH_TIMEOUT(seen.exits.load(), 1, 10000);
    QCOMPARE(logged.size(), std::size_t(1));
    const std::string prefix = "pem search parse error - reset: ";
    QVERIFY2(logged.front().starts_with(prefix), logged.front().c_str());
    QVERIFY(logged.front().size() > prefix.size());
    QVERIFY(pm.kes.externalPublicKey().empty());
}

void TestSubscribe::refusedWhileTheLoopRuns() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    std::vector<std::string> logged;
    pm.setLogSink([&](const std::string &line) { logged.push_back(line); });
    const QString starts = startsFile();
    pm.processManager().addArgument(QStringLiteral("--starts=") + starts);
    QSignalSpy started(&pm.processManager(), &runwarden::ProcessManager::taskStarted);

    Seen first;
    pm.subscribeWithBinary(kBackend, true, false, 0.0, {}, first.output_(), first.exit_());
    QVERIFY(started.wait(10000));
    runwarden::ProcessManager *runner = &pm.processManager();

    Seen second;
    pm.subscribeWithBinary(
        kBackend, true, false, 1.0, [] {}, second.output_(), second.exit_());
    QCOMPARE(logged, std::vector<std::string>{
                         "warning: subscribeWithBinary ignored: the backend is already running"});
    QVERIFY(pm.timer() == nullptr); // nothing of the refused call took effect
    QCOMPARE(&pm.processManager(), runner);
    QTRY_VERIFY(first.text().contains(QStringLiteral("starting")));
    QTest::qWait(300);
    QCOMPARE(started.count(), 1);
    QCOMPARE(lineCount(starts), 1);
    QVERIFY(second.text().isEmpty());

    pm.stopBackend();
    QTRY_VERIFY_WITH_TIMEOUT(!pm.processManager().isLoopRunning(), 10000);
    QTRY_COMPARE_WITH_TIMEOUT(first.exits.load(), 1, 10000);
    QCOMPARE(second.exits.load(), 0);
}

void TestSubscribe::heldLoopIsRelaunchedWithTheNewHandlers() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    const QString starts = startsFile();
    pm.processManager().addArgument(QStringLiteral("--starts=") + starts);
    pm.processManager().addArgument(QStringLiteral("--exit-after-ms=200"));
    runwarden::ProcessManager *runner = &pm.processManager();
    QSignalSpy loopEnded(runner, &runwarden::ProcessManager::loopFinished);

    // Like the supervisor: every exit is held, and the next launch is decided later.
    Seen first;
    bool heldFirst = false;
    pm.subscribeWithBinary(kBackend, true, false, 0.0, {}, first.output_(),
                           first.exit_([&] { heldFirst = runner->holdForRelaunch(); }));
    QTRY_COMPARE_WITH_TIMEOUT(first.exits.load(), 1, 10000);
    QVERIFY(heldFirst);
    QVERIFY(runner->isLoopRunning());
    QTRY_VERIFY(runner->isHeld());
    QTest::qWait(200);
    QCOMPARE(lineCount(starts), 1); // held: nothing runs again by itself

    Seen second;
    bool heldSecond = false;
    pm.subscribeWithBinary(kBackend, true, false, 0.0, {}, second.output_(),
                           second.exit_([&] { heldSecond = runner->holdForRelaunch(); }));
    QCOMPARE(&pm.processManager(), runner); // the same runner and loop
    QTRY_COMPARE_WITH_TIMEOUT(second.exits.load(), 1, 10000);
    QVERIFY(heldSecond);
    QCOMPARE(lineCount(starts), 2);
    QVERIFY(second.text().contains(QStringLiteral("starting")));
    QCOMPARE(first.exits.load(), 1); // the old handlers hear nothing more
    QCOMPARE(first.text().count(QStringLiteral("starting")), 1);
    QCOMPARE(loopEnded.count(), 0);

    pm.stopBackend();
    QTRY_VERIFY_WITH_TIMEOUT(loopEnded.count() == 1, 10000);
    QCOMPARE(lineCount(starts), 2);
}

void TestSubscribe::stoppedRunnerIsReplacedByAFreshOne() {
    PollManager pm(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    const lumacrypt::KeyExchangeStore backend =
        tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM();
    const QString starts = startsFile();
    pm.processManager().addArgument(QStringLiteral("--key=") +
                                    QString::fromStdString(backend.LocalPublicKey()));
    pm.processManager().addArgument(QStringLiteral("--starts=") + starts);
    const QStringList arguments = pm.processManager().arguments();
    QSignalSpy keyChanged(&pm, &PollManager::peerKeyChanged);

    Seen first;
    pm.subscribeWithBinary(kBackend, true, true, 0.0, {}, first.output_(), first.exit_());
    QVERIFY(keyChanged.wait(10000));
    QPointer<runwarden::ProcessManager> old = &pm.processManager();

    // "Restart backend": stop, and start again at once, while the old loop may still wind down.
    pm.stopBackend();
    QVERIFY(pm.processManager().isCancelled());
    Seen second;
    pm.subscribeWithBinary(kBackend, true, true, 0.0, {}, second.output_(), second.exit_());
    QVERIFY(&pm.processManager() != old.data());
    QVERIFY(!pm.processManager().isCancelled());
    QCOMPARE(pm.processManager().arguments(), arguments);
    QVERIFY(keyChanged.wait(10000));
    QCOMPARE(lineCount(starts), 2);
    QVERIFY(second.text().contains(QStringLiteral("starting")));
    QTRY_COMPARE_WITH_TIMEOUT(first.exits.load(), 1, 10000); // the old child ended ...
    QCOMPARE(second.exits.load(), 0);                        // ... and the new one runs
    QVERIFY(pm.isBackendRunning());
    QTRY_VERIFY_WITH_TIMEOUT(old.isNull(), 10000); // the old runner went away once it was done

    pm.stopBackend();
    QTRY_COMPARE_WITH_TIMEOUT(second.exits.load(), 1, 10000);
    QTRY_VERIFY(!pm.isBackendRunning());
}

void TestSubscribe::destructionEndsTheChild() {
    auto pm = std::make_unique<PollManager>(tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM);
    const QString starts = startsFile();
    pm->processManager().addArgument(QStringLiteral("--starts=") + starts);
    QSignalSpy started(&pm->processManager(), &runwarden::ProcessManager::taskStarted);
    Seen seen;
    pm->subscribeWithBinary(
        kBackend, true, true, 1.0, [] {}, seen.output_(), seen.exit_());
    QVERIFY(started.wait(10000));
    QTRY_COMPARE(lineCount(starts), 1);
    const qint64 pid = pidsIn(starts).front();
    QVERIFY(processAlive(pid));
    pm.reset();
    QVERIFY(!processAlive(pid));
    QCoreApplication::processEvents();
    QTest::qWait(100); // nothing left behind may still call into the destroyed client
}

QTEST_GUILESS_MAIN(TestSubscribe)
#include "tst_subscribe.moc"
