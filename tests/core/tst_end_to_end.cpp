// The headless client end to end over the development backend, with real
// processes: preparation, launch, the key from the backend's output, pings,
// sign-in, a folder synced to "Up to date", and crash recovery.
#include "BackendLauncher.h"
#include "DevBackendEnvironment.h"
#include "ItemsProvider.h"
#include "PollManager.h"
#include "SettingsActions.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <sys/mount.h>

using namespace tarnwick;

namespace {

QString readFile(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

void writeFile(const QString &path, const QByteArray &bytes) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        qFatal("cannot write %s", qPrintable(path));
    }
    file.write(bytes);
}

const DirItem *findFolder(const ItemsProvider &model, const QString &path) {
    for (const DirItem &item : model.dirItems()) {
        if (QString::fromStdString(item.path) == path) {
            return &item;
        }
    }
    return nullptr;
}

} // namespace

class EndToEndTest : public QObject {
    Q_OBJECT
    QTemporaryDir state_;

    std::unique_ptr<ItemsProvider>
    start(QStringList *log, std::chrono::milliseconds relaunch = std::chrono::milliseconds(1000)) {
        ItemsProvider::Options options;
        options.singleInstance = false;
        options.relaunchDelay = relaunch;
        options.log = [log](const QString &line) { *log << line; };
        return std::make_unique<ItemsProvider>(options);
    }

private slots:
    void initTestCase() {
        QVERIFY2(tarnwick::test::developmentBackendBuilt(),
                 "the development backend must be built into the resources directory");
        QVERIFY(state_.isValid());
        tarnwick::test::useFreshHome(state_);
        qputenv("KOVRIT_DEV_CODE", "123456");
    }

    void signInAndSyncAFolder() {
        qputenv("KOVRIT_DEV_STATE", state_.filePath("sync").toUtf8());
        qunsetenv("KOVRIT_DEV_FAULT");
        QStringList log;
        auto model = start(&log);
        SettingsActions actions(*model);

        // Prepared, launched, key learned from the output, pings flowing: a
        // fresh backend has nobody signed in and says so.
        QTRY_VERIFY_WITH_TIMEOUT(model->pm().kes.hasSharedSecret(), 15000);
        QVERIFY(log.contains("Binary not found at writable location, will copy from bundle"));
        QCOMPARE(log.filter(QRegularExpression("^o: .*-----BEGIN PUBLIC KEY-----\\n",
                                               QRegularExpression::DotMatchesEverythingOption))
                     .size(),
                 1);
        QTRY_VERIFY_WITH_TIMEOUT(!model->isLoggedIn(), 15000);

        model->setUserName("ana@example.org");
        model->requestCodeViaEmail("ana@example.org");
        QTRY_COMPARE_WITH_TIMEOUT(model->error(),
                                  "6-digit code sent to ana@example.org. Check your email.", 15000);
        QCOMPARE(readFile(state_.filePath("sync/outbox/ana@example.org")).trimmed(), "123456");
        model->performLogin("123456");
        QTRY_VERIFY_WITH_TIMEOUT(model->isLoggedIn(), 15000);
        QCOMPARE(model->error(), "Authenticating ...");

        // A folder with a few files, added as the settings screen adds it.
        const QString folder = state_.filePath("Documents");
        QVERIFY(QDir().mkpath(folder + "/notes"));
        writeFile(folder + "/a.txt", "alpha");
        writeFile(folder + "/notes/b.md", "beta");
        QTRY_VERIFY_WITH_TIMEOUT(!model->isWaiting(), 15000);
        actions.addFolderToSync(folder, "Personal");
        QTRY_VERIFY_WITH_TIMEOUT(findFolder(*model, folder) &&
                                     findFolder(*model, folder)->status == "Up to date",
                                 30000);
        QCOMPARE(findFolder(*model, folder)->progress(), 1.0);
        QTRY_VERIFY_WITH_TIMEOUT(!model->isLoading(), 5000);
        QCOMPARE(model->menuBarString(), "internaldrive");
        QTRY_VERIFY_WITH_TIMEOUT(!model->groups().empty() &&
                                     model->groups()[0].walkPaths ==
                                         std::vector<std::string>{folder.toStdString()},
                                 10000);
        // The files really are in the vault.
        QStringList vaulted;
        QDirIterator it(state_.filePath("sync/vault"), QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            vaulted << readFile(it.next());
        }
        QVERIFY2(vaulted.contains("alpha") && vaulted.contains("beta"),
                 qPrintable(vaulted.join(',')));
    }

    void aDataFolderWithoutRoomSaysSoAndKeepsNoPartialCopy() {
        const QString small = state_.filePath("small-disk");
        QVERIFY(QDir().mkpath(small));
        if (::mount("tarnwick-test", QFile::encodeName(small).constData(), "tmpfs", 0,
                    "size=256k") != 0) {
            QSKIP("mounting a small tmpfs needs root");
        }
        struct Unmount {
            QByteArray path;
            ~Unmount() { ::umount2(path.constData(), MNT_DETACH); }
        } unmount{QFile::encodeName(small)};
        QStringList log;
        ItemsProvider::Options options;
        options.singleInstance = false;
        options.log = [&log](const QString &line) { log << line; };
        options.dataDirectory = [small]() -> std::optional<QString> { return small; };
        ItemsProvider model(options);
        QTRY_VERIFY_WITH_TIMEOUT(model.backendFailed(), 15000);
        QVERIFY(log.contains("Fatal: Could not prepare writable binary"));
        QVERIFY2(model.error().startsWith("The backend could not be copied to " + small +
                                          "/tarnwick/bin/"),
                 qPrintable(model.error()));
        QVERIFY2(model.error().endsWith(": the disk is full (No space left on device)."),
                 qPrintable(model.error()));
        QVERIFY(!model.pm().isBackendRunning());
        QCOMPARE(QDir(small + "/tarnwick/bin")
                     .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
                 QStringList());
    }

    void aSquattedPortIsLeftForAFreshOne() {
        qputenv("KOVRIT_DEV_STATE", state_.filePath("squat").toUtf8());
        qunsetenv("KOVRIT_DEV_FAULT");
        QStringList log;
        auto model = start(&log);
        // Another program takes the drawn port before the backend starts.
        const int drawn = model->port();
        QTcpServer squatter;
        QVERIFY(squatter.listen(QHostAddress::LocalHost, static_cast<quint16>(drawn)));

        QTRY_VERIFY_WITH_TIMEOUT(model->backendAnswered(), 15000);
        QVERIFY(model->port() != drawn);
        QVERIFY(model->port() >= 8001 && model->port() < 9000);
        QVERIFY(log.contains(QStringLiteral("Port %1 is taken by another program; the backend "
                                            "will listen on port %2")
                                 .arg(drawn)
                                 .arg(model->port())));
        QVERIFY(log.filter("Binary crashed").isEmpty());
        // And the session works there: sign in.
        QTRY_VERIFY_WITH_TIMEOUT(!model->isLoggedIn(), 15000);
        model->setUserName("ana@example.org");
        model->requestCodeViaEmail("ana@example.org");
        QTRY_COMPARE_WITH_TIMEOUT(model->error(),
                                  "6-digit code sent to ana@example.org. Check your email.", 15000);
        model->performLogin("123456");
        QTRY_VERIFY_WITH_TIMEOUT(model->isLoggedIn(), 15000);
    }

    void aBackendThatKeepsDyingIsRecoveredThreeTimesThenStops() {
        qputenv("KOVRIT_DEV_STATE", state_.filePath("crash").toUtf8());
        qputenv("KOVRIT_DEV_FAULT", "exit-after=1");
        QStringList log;
        auto model = start(&log, std::chrono::milliseconds(200));
        QTRY_COMPARE_WITH_TIMEOUT(model->error(),
                                  "Binary crashed repeatedly. Please reinstall the app.", 30000);
        qunsetenv("KOVRIT_DEV_FAULT");
        QCOMPARE(log.filter("Binary crashed after only").size(), 4);
        for (int attempt = 1; attempt <= 3; ++attempt) {
            QCOMPARE(log.count(QStringLiteral("Crash recovery attempt %1 of 3").arg(attempt)), 1);
        }
        QCOMPARE(log.count("Binary replaced successfully, relaunching..."), 3);
        QCOMPARE(log.count("Crash recovery: Replaced binary from bundle"), 3);
        QCOMPARE(log.count("Fatal: Maximum crash recovery attempts (3) exceeded"), 1);
        QVERIFY(model->backendFailed());
        // Four starts in all, and nothing relaunches afterwards.
        const int exits = int(log.count("task exited"));
        QCOMPARE(exits, 4);
        QTest::qWait(2500);
        QCOMPARE(int(log.count("task exited")), exits);
        QVERIFY(!model->pm().isBackendRunning());

        // The user's restart starts over with a healthy backend.
        model->restartBackend();
        QVERIFY(model->error().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(model->pm().isBackendRunning(), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(!model->isLoggedIn(), 15000); // it answers pings again
        QVERIFY(!model->backendFailed());
    }
};

QTEST_GUILESS_MAIN(EndToEndTest)
#include "tst_end_to_end.moc"
