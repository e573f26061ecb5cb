// Telling crashes from normal exits and recovering: the 5-second rule, three
// recoveries in a row, the failed state, the backend name choice.
#include "BackendLauncher.h"
#include "PollManager.h"

#include <runwarden/Clock.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>

using tarnwick::supervisor::BackendLauncher;
using tarnwick::supervisor::BinaryPreparation;

namespace {

struct Fixture {
    QTemporaryDir dir;
    QStringList log;
    QString error;
    runwarden::ManualClock clock;
    // What the port hooks answer.
    std::optional<int> freePort = 8500;
    int portChoices = 0;
    QList<bool> freshAsked;
    tidepost::PollManager pm{tidepost::KeyExchange_Curve25519_SHA256_HKDF_AESGCM};
    std::unique_ptr<BackendLauncher> launcher;

    Fixture() {
        // A shipped "backend" for the recovery copy: any ELF file will do, it
        // is never started here (the relaunch delay is far away).
        QDir().mkpath(dir.filePath("resources"));
        QFile::copy(QStringLiteral("/bin/true"), dir.filePath("resources/kovrit-linux-amd64"));
        BinaryPreparation preparation(
            [this](const QString &line) { log << line; },
            [this](const QString &name) -> std::optional<QString> {
                const QString path = dir.filePath("resources/" + name);
                return QFile::exists(path) ? std::optional<QString>(path) : std::nullopt;
            },
            [this]() -> std::optional<QString> { return dir.filePath("data"); });
        BackendLauncher::Hooks hooks;
        hooks.log = [this](const QString &line) { log << line; };
        hooks.sendPing = [](std::function<void()> done) { done(); };
        hooks.setError = [this](const QString &message) { error = message; };
        hooks.choosePort = [this](bool fresh) {
            ++portChoices;
            freshAsked << fresh;
            return freePort;
        };
        launcher =
            std::make_unique<BackendLauncher>(pm, std::move(preparation), std::move(hooks), true);
        launcher->setClock(clock);
        launcher->setRelaunchDelay(std::chrono::hours(1));
        launcher->setCurrentBinary(dir.filePath("data/tarnwick/bin/kovrit-linux-amd64"),
                                   QStringLiteral("kovrit-linux-amd64"));
    }

    // One run of the given length that ends (a backend that shows its key at
    // once, as every backend does).
    void run(double seconds, std::optional<std::error_code> error = std::nullopt) {
        launcher->markLaunched();
        emit pm.peerKeyChanged();
        clock.advance(std::chrono::milliseconds(std::llround(seconds * 1000)));
        launcher->handleExit(error);
    }
    int count(const QString &line) const { return int(log.count(line)); }
};

} // namespace

class BackendLauncherTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        QVERIFY2(QFile::exists("/bin/true"), "the tests copy /bin/true as a stand-in backend");
    }

    void threeRecoveriesThenTheFailedState() {
        Fixture f;
        for (int attempt = 1; attempt <= 3; ++attempt) {
            f.run(4.9);
            QCOMPARE(f.count("Binary crashed after only 4.9 seconds - attempting recovery"),
                     attempt);
            QCOMPARE(f.count(QStringLiteral("Crash recovery attempt %1 of 3").arg(attempt)), 1);
            QCOMPARE(f.launcher->state(), BackendLauncher::State::recovering);
            QVERIFY(f.error.isEmpty());
        }
        f.run(4.9);
        QCOMPARE(f.count("Fatal: Maximum crash recovery attempts (3) exceeded"), 1);
        QCOMPARE(f.count("Crash recovery attempt 4 of 3"), 0);
        QCOMPARE(f.error, "Binary crashed repeatedly. Please reinstall the app.");
        QCOMPARE(f.launcher->state(), BackendLauncher::State::failed);
        QCOMPARE(f.launcher->binaryCrashCount(), 4);
        QVERIFY(f.pm.processManager().isCancelled()); // nothing relaunches
    }

    void fiveSecondsIsANormalRun() {
        Fixture f;
        f.run(1.0);
        QCOMPARE(f.launcher->binaryCrashCount(), 1);
        f.run(5.0);
        QCOMPARE(f.count("Binary exited normally after running for 5.0 seconds"), 1);
        QCOMPARE(f.launcher->binaryCrashCount(), 0);
        QCOMPARE(f.launcher->state(), BackendLauncher::State::exitedNormally);
    }

    void aLongRunStartsTheCountAgain() {
        Fixture f;
        f.run(0.5);
        f.run(10.0);
        f.run(0.25);
        QCOMPARE(f.count("Crash recovery attempt 1 of 3"), 2);
        QCOMPARE(f.count("Crash recovery attempt 2 of 3"), 0);
        QCOMPARE(f.count("Binary exited normally after running for 10.0 seconds"), 1);
    }

    void exitBeforeAnyLaunchOnlyReports() {
        Fixture f;
        f.launcher->handleExit(std::make_error_code(std::errc::permission_denied));
        QCOMPARE(f.log.size(), 2);
        QCOMPARE(f.log[0], "task exited");
        QCOMPARE(f.log[1], QString::fromStdString(
                               std::make_error_code(std::errc::permission_denied).message()));
        QCOMPARE(f.launcher->binaryCrashCount(), 0);
    }

    void aFailedStartCountsAsACrash() {
        Fixture f;
        f.launcher->markLaunched();
        f.clock.advance(std::chrono::seconds(60)); // long since the last launch
        f.launcher->handleExit(std::make_error_code(std::errc::no_such_file_or_directory));
        QCOMPARE(f.count("Crash recovery attempt 1 of 3"), 1);
        QCOMPARE(f.count("Binary crashed after only 0.0 seconds - attempting recovery"), 1);
    }

    void backendOutputIsLoggedPrintableAndAtAMeasuredRate() {
        Fixture f;
        // A terminal's escape sequence (say from a header another user sent) is written out.
        f.launcher->handleOutput(QStringLiteral("refused request from \x1b[31mX\x07\n"));
        QCOMPARE(f.log.last(), QStringLiteral("o: refused request from \\x1b[31mX\\x07\n"));
        f.log.clear();
        // A flood: the first hundred chunks of a second are logged, the rest counted.
        for (int i = 0; i < 1000; ++i) {
            f.launcher->handleOutput(QStringLiteral("line %1").arg(i));
        }
        QCOMPARE(f.log.size(), BackendLauncher::outputChunksPerSecond - 1);
        QCOMPARE(f.log.last(), QStringLiteral("o: line 98"));
        f.clock.advance(std::chrono::seconds(1));
        f.launcher->handleOutput(QStringLiteral("after"));
        QCOMPARE(f.log.mid(f.log.size() - 2),
                 (QStringList{"o: (901 more chunks of backend output not logged)", "o: after"}));
    }

    void aStartThatShowsNoKeyWithinTenSecondsHasFailed() {
        Fixture f;
        f.launcher->markLaunched();
        f.clock.advance(std::chrono::milliseconds(9999));
        QCOMPARE(f.log.filter("showed no key").size(), 0);
        f.clock.advance(std::chrono::milliseconds(1));
        QCOMPARE(f.count("The backend showed no key within 10 seconds of its start; counting it "
                         "as a failed start"),
                 1);
        // Its end (the runner ends it) is a crash, however long it ran.
        f.clock.advance(std::chrono::seconds(30));
        f.launcher->handleExit(std::nullopt);
        QCOMPARE(f.count("Binary crashed after only 0.0 seconds - attempting recovery"), 1);
        QCOMPARE(f.count("Crash recovery attempt 1 of 3"), 1);
    }

    void aStartThatShowsItsKeyIsFine() {
        Fixture f;
        f.launcher->markLaunched();
        f.clock.advance(std::chrono::seconds(2));
        emit f.pm.peerKeyChanged();
        f.clock.advance(std::chrono::seconds(60));
        QCOMPARE(f.log.filter("showed no key").size(), 0);
        f.launcher->handleExit(std::nullopt);
        QCOMPARE(f.count("Binary exited normally after running for 62.0 seconds"), 1);
        // The next start has its own ten seconds.
        f.launcher->markLaunched();
        f.clock.advance(std::chrono::seconds(10));
        QCOMPARE(f.log.filter("showed no key").size(), 1);
    }

    void recoveryReplacesTheCopyAndWaitsBeforeRelaunching() {
        Fixture f;
        QVERIFY(QDir().mkpath(f.dir.filePath("data/tarnwick/bin")));
        f.run(1.5);
        QTRY_VERIFY2(f.count("Binary replaced successfully, relaunching...") == 1,
                     qPrintable(f.log.join(u'\n')));
        QCOMPARE(f.count("Crash recovery: Replaced binary from bundle"), 1);
        QVERIFY(QFile::exists(f.dir.filePath("data/tarnwick/bin/kovrit-linux-amd64")));
        QCOMPARE(f.launcher->state(), BackendLauncher::State::recovering);
    }

    void recoveryThatCannotReplaceStops() {
        Fixture f;
        // No bin directory: the copy fails and recovery gives up, saying why.
        f.run(1.5);
        QTRY_COMPARE(f.count("Fatal: Binary recovery failed"), 1);
        QCOMPARE(f.launcher->state(), BackendLauncher::State::stopped);
        QVERIFY2(f.error.startsWith("The backend could not be copied to " +
                                    f.dir.filePath("data/tarnwick/bin/kovrit-linux-amd64") + ": "),
                 qPrintable(f.error));
        QCOMPARE(f.launcher->failureText(), f.error);
    }

    void aPreparationThatFailsTellsTheUserWhy() {
        Fixture f;
        QFile::remove(f.dir.filePath("resources/kovrit-linux-amd64"));
        f.launcher->prepareAndLaunch(QStringLiteral("x86_64"));
        QCOMPARE(f.count("Fatal: Could not prepare writable binary"), 1);
        QCOMPARE(f.launcher->state(), BackendLauncher::State::stopped);
        QCOMPARE(f.error, "The backend kovrit-linux-amd64 is missing from this installation.");
        QCOMPARE(f.portChoices, 0); // nothing was launched
    }

    void noFreePortFailsAtOnceWithoutReinstallAdvice() {
        Fixture f;
        f.freePort.reset();
        f.launcher->launchBinary(f.dir.filePath("resources/kovrit-linux-amd64"),
                                 QStringLiteral("kovrit-linux-amd64"));
        QCOMPARE(f.portChoices, 1);
        QCOMPARE(f.launcher->state(), BackendLauncher::State::failed);
        QCOMPARE(f.error, QString::fromLatin1(BackendLauncher::noPortText));
        QVERIFY(!f.error.contains("reinstall"));
        QVERIFY(!f.pm.isBackendRunning());
        QVERIFY(!f.launcher->binaryLaunchTime().has_value());
        // Bounded: no retry loop runs on its own.
        f.clock.advance(std::chrono::minutes(5));
        QCOMPARE(f.portChoices, 1);
    }

    void shortRunsOnATakenPortEndWithTheirOwnWords() {
        Fixture f;
        for (int attempt = 0; attempt < 4; ++attempt) {
            f.launcher->markLaunched();
            f.launcher->handleOutput(QStringLiteral("listen tcp 127.0.0.1:8500: bind: address "
                                                    "already in use\n"));
            f.clock.advance(std::chrono::milliseconds(30));
            f.launcher->handleExit(std::nullopt);
        }
        QCOMPARE(f.count("Fatal: Maximum crash recovery attempts (3) exceeded"), 1);
        QCOMPARE(f.launcher->state(), BackendLauncher::State::failed);
        QCOMPARE(f.error, QString::fromLatin1(BackendLauncher::portTakenText));
    }

    void aStartThatCannotListenGetsAFreshPortNextTime() {
        Fixture f;
        QVERIFY(QDir().mkpath(f.dir.filePath("data/tarnwick/bin")));
        f.launcher->setRelaunchDelay(std::chrono::milliseconds(10));
        f.launcher->markLaunched();
        f.launcher->handleOutput(QStringLiteral("cannot listen on 127.0.0.1:8500: Address "
                                                "already in use\n"));
        f.clock.advance(std::chrono::milliseconds(30));
        f.launcher->handleExit(std::nullopt); // it ends with status 1
        QCOMPARE(f.count("Crash recovery attempt 1 of 3"), 1);
        QTRY_COMPARE(f.count("Binary replaced successfully, relaunching..."), 1);
        // The relaunch asks for a fresh port although the old one may look free again (here
        // none is left, so that nothing is started).
        f.freePort.reset();
        f.clock.advance(std::chrono::milliseconds(10));
        QCOMPARE(f.portChoices, 1);
        QCOMPARE(f.freshAsked, QList<bool>{true});
        QCOMPARE(f.launcher->state(), BackendLauncher::State::failed);
    }

    void startsThatNeverShowAKeyEndWithTheirOwnWords() {
        Fixture f;
        for (int attempt = 0; attempt < 4; ++attempt) {
            f.launcher->markLaunched();
            f.clock.advance(BackendLauncher::keyTimeout);
            f.launcher->handleExit(std::nullopt);
        }
        QCOMPARE(f.count("Fatal: Maximum crash recovery attempts (3) exceeded"), 1);
        QCOMPARE(f.error, QString::fromLatin1(BackendLauncher::noKeyText));
    }

    void aRealCrashKeepsTheReinstallAdvice() {
        Fixture f;
        f.launcher->markLaunched();
        f.launcher->handleOutput(QStringLiteral("cannot listen on 127.0.0.1:8500\n"));
        f.launcher->handleExit(std::nullopt); // an earlier cause does not stick
        for (int attempt = 0; attempt < 3; ++attempt) {
            f.run(0.5);
        }
        QCOMPARE(f.error, QString::fromLatin1(BackendLauncher::crashedText));
    }

    void firstOutputStartsThePingLoopOnce() {
        Fixture f;
        QVERIFY(f.launcher->isFirstRun());
        f.launcher->handleOutput("hello\n");
        QCOMPARE(f.log.last(), "o: hello\n");
        QVERIFY(!f.launcher->isFirstRun());
        f.launcher->handleOutput("again\n");
        QVERIFY(!f.launcher->isFirstRun());
    }

    void secondsText() {
        QCOMPARE(BackendLauncher::secondsText(4.9), "4.9");
        QCOMPARE(BackendLauncher::secondsText(5.0), "5.0");
        QCOMPARE(BackendLauncher::secondsText(10.25), "10.25");
        QCOMPARE(BackendLauncher::secondsText(0.0), "0.0");
    }

    void backendNames() {
        QTemporaryDir dir;
        const auto lookup = [&](const QString &name) -> std::optional<QString> {
            const QString path = dir.filePath(name);
            return QFile::exists(path) ? std::optional<QString>(path) : std::nullopt;
        };
        auto choice = BackendLauncher::chooseBinaryName("x86_64", lookup);
        QCOMPARE(choice.name, "kovrit-linux-amd64");
        QVERIFY(!choice.beta);
        QCOMPARE(BackendLauncher::chooseBinaryName("aarch64", lookup).name, "kovrit-linux-arm64");
        QCOMPARE(BackendLauncher::chooseBinaryName("arm64", lookup).name, "kovrit-linux-arm64");
        // A shipped beta wins, even beside the release build.
        QFile(dir.filePath("kovrit-linux-amd64")).open(QIODevice::WriteOnly);
        QFile(dir.filePath("kovrit-linux-amd64-beta")).open(QIODevice::WriteOnly);
        choice = BackendLauncher::chooseBinaryName("x86_64", lookup);
        QCOMPARE(choice.name, "kovrit-linux-amd64-beta");
        QVERIFY(choice.beta);
    }

    void launchLinesForBetaAndRelease() {
        Fixture f;
        QFile::remove(f.dir.filePath("resources/kovrit-linux-amd64"));
        f.launcher->prepareAndLaunch("x86_64");
        QCOMPARE(f.log.first(), "run release kovrit-linux-amd64:");
        QCOMPARE(f.log.last(), "Fatal: Could not prepare writable binary");
        QCOMPARE(f.launcher->state(), BackendLauncher::State::stopped);

        f.log.clear();
        QFile(f.dir.filePath("resources/kovrit-linux-amd64-beta")).open(QIODevice::WriteOnly);
        f.launcher->prepareAndLaunch("x86_64");
        QCOMPARE(f.log.first(), "run beta: kovrit-linux-amd64-beta");
    }
};

QTEST_GUILESS_MAIN(BackendLauncherTest)
#include "tst_backend_launcher.moc"
