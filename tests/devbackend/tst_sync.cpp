// The development backend's real sync: a watched folder goes through the six steps into the vault,
// changes are picked up again, deleted files move to the deleted area and are removed for good by
// the retention pass (with a "day" shortened to one second), unreadable files give the folder an
// error without stopping the rest, watching survives a restart, and stopping ends it.

#include "BackendHarness.h"

#include <Models.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace devbackendtest;

namespace {

const std::string kAddress = "sync@example.org";
const QString kUnicodeName = QStringLiteral("ünïcødé ✓ file.txt");
const QString kSecretName = QStringLiteral("secret.txt");

bool writeFile(const QString &path, const QByteArray &content) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return false;
    }
    const bool ok = file.write(content) == content.size();
    file.close();
    return ok;
}

std::optional<QByteArray> readFile(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    return file.readAll();
}

QByteArray randomBytes(int size, int seed) {
    QByteArray bytes(size, '\0');
    quint32 x = static_cast<quint32>(seed) * 2654435761u + 1;
    for (int i = 0; i < size; ++i) {
        x = x * 1664525u + 1013904223u;
        bytes[i] = static_cast<char>(x >> 24);
    }
    return bytes;
}

} // namespace

class SyncTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void addWatchDirSyncsTheFolderIntoTheVault();
    void aChangedFileIsUploadedAgain();
    void unreadableFileGivesAnErrorAndTheRestSyncs();
    void aDeletedFileMovesToTheDeletedArea();
    void retentionRemovesExpiredDeletedFilesAndRecordsThePass();
    void watchingResumesAfterARestart();
    void aFolderCanBeInOneGroupOnly();
    void stopWatchingEndsTheSync();

private:
    QString vaultCopy(const QString &rel, std::int64_t group = 1) const;
    // Pings until the folder reports "Up to date" (and `extra` holds); returns its last item.
    std::optional<tarnwick::DirItem> waitUntilUpToDate(const std::function<bool()> &extra = {},
                                                       int timeoutMs = 20000);
    bool startBackend();

    QTemporaryDir root_;
    QString stateDir_;
    QString folder_;
    bool privileged_ = false;
    std::unique_ptr<Backend> backend_;
    QStringList statusesSeen_;
    QByteArray deletedContent_;
};

bool SyncTest::startBackend() {
    backend_ = std::make_unique<Backend>();
    Backend::Options options;
    options.stateDir = stateDir_;
    options.environment = {
        {QStringLiteral("KOVRIT_DEV_CODE"), QStringLiteral("246810")},
        {QStringLiteral("KOVRIT_DEV_STEP_MS"), QStringLiteral("40")},
        {QStringLiteral("KOVRIT_DEV_RESCAN_SECONDS"), QStringLiteral("1")},
        {QStringLiteral("KOVRIT_DEV_RETENTION_DAY_SECONDS"), QStringLiteral("1")},
        {QStringLiteral("KOVRIT_DEV_RETENTION_INTERVAL_SECONDS"), QStringLiteral("2")},
    };
    if (privileged_) {
        // Permissions do not stop a privileged reader; the backend then simulates the
        // unreadable file by its name.
        options.environment[QStringLiteral("KOVRIT_DEV_FAULT")] =
            QStringLiteral("unreadable=") + kSecretName;
    }
    QString error;
    if (!backend_->start(options, &error)) {
        qWarning("%s", qPrintable(error));
        return false;
    }
    return true;
}

void SyncTest::initTestCase() {
    QVERIFY(root_.isValid());
    stateDir_ = root_.path() + QStringLiteral("/state");
    folder_ = root_.path() + QStringLiteral("/Documents");
    privileged_ = ::geteuid() == 0;
    QVERIFY(startBackend());

    // KOVRIT_DEV_CODE fixes the code that is "mailed".
    auto answer = backend_->send("requestCode", kAddress);
    QCOMPARE(answer.plaintext, kSuccess);
    QVERIFY(backend_->waitForOutput("sign-in code for sync@example.org: 246810\n", 5000));
    answer = backend_->send("auth", kAddress, "246810");
    QCOMPARE(answer.plaintext, kSuccess);
}

void SyncTest::cleanupTestCase() {
    backend_.reset();
}

QString SyncTest::vaultCopy(const QString &rel, std::int64_t group) const {
    return stateDir_ + QStringLiteral("/vault/") + QString::number(group) +
           QStringLiteral("/files") + folder_ + QLatin1Char('/') + rel;
}

std::optional<tarnwick::DirItem> SyncTest::waitUntilUpToDate(const std::function<bool()> &extra,
                                                             int timeoutMs) {
    QDeadlineTimer deadline(timeoutMs);
    std::optional<tarnwick::DirItem> last;
    while (!deadline.hasExpired()) {
        const auto answer = backend_->send("ping");
        if (answer.opened) {
            try {
                for (const auto &item : tarnwick::decodeDirItems(answer.plaintext)) {
                    if (item.path == folder_.toStdString()) {
                        last = item;
                        const QString status = QString::fromStdString(item.status);
                        if (statusesSeen_.isEmpty() || statusesSeen_.last() != status) {
                            statusesSeen_.append(status);
                        }
                    }
                }
            } catch (const tarnwick::DecodingError &) {
            }
        }
        if (last && last->status == "Up to date" && (!extra || extra())) {
            return last;
        }
        QThread::msleep(20);
    }
    return std::nullopt;
}

void SyncTest::addWatchDirSyncsTheFolderIntoTheVault() {
    QVERIFY(writeFile(folder_ + QStringLiteral("/a.txt"), "first version of a\n"));
    QVERIFY(writeFile(folder_ + QStringLiteral("/b.bin"), randomBytes(300000, 1)));
    QVERIFY(writeFile(folder_ + QStringLiteral("/sub/c.txt"), "c in a subfolder\n"));
    QVERIFY(writeFile(folder_ + QStringLiteral("/sub/") + kUnicodeName, "non-ASCII name\n"));
    QVERIFY(writeFile(folder_ + QStringLiteral("/sub/deeper/d.txt"), QByteArray()));
    QVERIFY(QFile::link(folder_ + QStringLiteral("/a.txt"), folder_ + QStringLiteral("/link")));

    auto answer = backend_->send("addWatchDir", "Personal", folder_.toStdString());
    QVERIFY2(answer.opened, answer.problem.c_str());
    QCOMPARE(answer.plaintext, kSuccess);

    // Right away the folder is reported at its first step.
    answer = backend_->send("ping");
    auto items = tarnwick::decodeDirItems(answer.plaintext);
    QCOMPARE(items.size(), std::size_t(1));
    QVERIFY2(QString::fromStdString(items[0].status).startsWith(QStringLiteral("1 of 6 - ")) ||
                 QString::fromStdString(items[0].status).startsWith(QStringLiteral("2 of 6 - ")),
             items[0].status.c_str());
    QVERIFY(items[0].progress() < 1.0);

    const auto item = waitUntilUpToDate();
    QVERIFY2(item.has_value(), qPrintable(statusesSeen_.join(QStringLiteral(" | "))));
    QCOMPARE(item->path, folder_.toStdString());
    QCOMPARE(item->name, std::string("Documents"));
    QCOMPARE(item->groupID, 1);
    QVERIFY(item->enabled);
    QVERIFY2(!item->error, item->error ? item->error->c_str() : "");
    QCOMPARE(item->progress(), 1.0);

    // Every status seen was one of the six steps or the idle text.
    static const QRegularExpression step(QStringLiteral("^[1-6] of 6 - .+"));
    for (const auto &status : statusesSeen_) {
        QVERIFY2(step.match(status).hasMatch() || status == QStringLiteral("Up to date"),
                 qPrintable(status));
    }
    QVERIFY(statusesSeen_.size() >= 2);
    qInfo("statuses seen: %s", qPrintable(statusesSeen_.join(QStringLiteral(" | "))));

    for (const QString &rel :
         {QStringLiteral("a.txt"), QStringLiteral("b.bin"), QStringLiteral("sub/c.txt"),
          QStringLiteral("sub/") + kUnicodeName, QStringLiteral("sub/deeper/d.txt")}) {
        const auto original = readFile(folder_ + QLatin1Char('/') + rel);
        const auto copy = readFile(vaultCopy(rel));
        QVERIFY2(copy.has_value(), qPrintable(vaultCopy(rel)));
        QCOMPARE(*copy, *original);
        QCOMPARE(QFileInfo(vaultCopy(rel)).lastModified(),
                 QFileInfo(folder_ + QLatin1Char('/') + rel).lastModified());
    }
    // Symbolic links are not followed or copied.
    QVERIFY(!QFileInfo::exists(vaultCopy(QStringLiteral("link"))));
    QVERIFY(backend_->waitForOutput("sync of " + folder_.toUtf8() + " done: 5 files", 5000));

    // The group lists the folder.
    answer = backend_->send("getGroups");
    const auto groups = tarnwick::decodeGroupItems(answer.plaintext);
    QCOMPARE(groups[0].walkPaths, std::vector<std::string>{folder_.toStdString()});
    QVERIFY(groups[1].walkPaths.empty());
}

void SyncTest::aChangedFileIsUploadedAgain() {
    statusesSeen_.clear();
    const QByteArray second = "second, longer version of a\n";
    QVERIFY(writeFile(folder_ + QStringLiteral("/a.txt"), second));
    QVERIFY(writeFile(folder_ + QStringLiteral("/sub/new.txt"), "a new file\n"));
    const auto item = waitUntilUpToDate([&] {
        return readFile(vaultCopy(QStringLiteral("a.txt"))) == second &&
               readFile(vaultCopy(QStringLiteral("sub/new.txt"))) == "a new file\n";
    });
    QVERIFY2(item.has_value(), qPrintable(statusesSeen_.join(QStringLiteral(" | "))));
    QVERIFY(!item->error);
    QVERIFY(backend_->waitForOutput("6 files, 2 uploaded, 0 deleted", 5000));
}

void SyncTest::unreadableFileGivesAnErrorAndTheRestSyncs() {
    const QString secret = folder_ + QStringLiteral("/") + kSecretName;
    QVERIFY(writeFile(secret, "nobody may read this\n"));
    QVERIFY(QFile::setPermissions(secret, QFileDevice::Permissions()));
    QVERIFY(writeFile(folder_ + QStringLiteral("/readable.txt"), "but this is fine\n"));

    const auto item = waitUntilUpToDate([&] {
        return readFile(vaultCopy(QStringLiteral("readable.txt"))) == "but this is fine\n";
    });
    QVERIFY(item.has_value());
    QVERIFY(item->error.has_value());
    QVERIFY2(QString::fromStdString(*item->error).contains(kSecretName), item->error->c_str());
    QVERIFY2(QString::fromStdString(*item->error).contains(QStringLiteral("Permission denied")),
             item->error->c_str());
    QVERIFY(!QFileInfo::exists(vaultCopy(kSecretName)));

    // Once it is gone, the error goes too.
    QVERIFY(QFile::setPermissions(secret, QFileDevice::ReadOwner | QFileDevice::WriteOwner));
    QVERIFY(QFile::remove(secret));
    QDeadlineTimer deadline(15000);
    std::optional<tarnwick::DirItem> last;
    while (!deadline.hasExpired()) {
        last = waitUntilUpToDate();
        if (last && !last->error) {
            break;
        }
        QThread::msleep(100);
    }
    QVERIFY(last.has_value());
    QVERIFY2(!last->error, last->error ? last->error->c_str() : "");
}

void SyncTest::aDeletedFileMovesToTheDeletedArea() {
    const QString rel = QStringLiteral("sub/c.txt");
    deletedContent_ = *readFile(folder_ + QLatin1Char('/') + rel);
    QVERIFY(QFile::remove(folder_ + QLatin1Char('/') + rel));
    const auto item = waitUntilUpToDate([&] { return !QFileInfo::exists(vaultCopy(rel)); });
    QVERIFY(item.has_value());

    // It now lies in vault/1/deleted/<ms>/<folder>/sub/c.txt.
    const QString deletedRoot = stateDir_ + QStringLiteral("/vault/1/deleted");
    const QStringList entries = QDir(deletedRoot).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    QCOMPARE(entries.size(), 1);
    bool isNumber = false;
    const qint64 deletedAt = entries[0].toLongLong(&isNumber);
    QVERIFY(isNumber);
    QVERIFY(std::llabs(deletedAt - nowMs()) < 60000);
    const auto kept =
        readFile(deletedRoot + QLatin1Char('/') + entries[0] + folder_ + QLatin1Char('/') + rel);
    QVERIFY(kept.has_value());
    QCOMPARE(*kept, deletedContent_);
    // The other files stay.
    QVERIFY(QFileInfo::exists(vaultCopy(QStringLiteral("sub/") + kUnicodeName)));
}

void SyncTest::retentionRemovesExpiredDeletedFilesAndRecordsThePass() {
    // Retention is off by default: the deleted file stays.
    QThread::msleep(2500);
    const QString deletedRoot = stateDir_ + QStringLiteral("/vault/1/deleted");
    QCOMPARE(QDir(deletedRoot).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 1);

    tarnwick::GroupItem personal{
        1, "Personal", {folder_.toStdString()}, tarnwick::RetentionSettings{}};
    personal.retentionSettings->retentionDays = 1; // one "day" is one second here
    auto answer = backend_->send("updateGroup", "", personal.toJSON());
    QCOMPARE(answer.plaintext, kSuccess);

    const std::int64_t before = nowMs() / 1000;
    QDeadlineTimer deadline(20000);
    std::optional<tarnwick::RetentionSettings> recorded;
    while (!deadline.hasExpired()) {
        answer = backend_->send("getGroups");
        const auto groups = tarnwick::decodeGroupItems(answer.plaintext);
        const auto &settings = groups[0].retentionSettings;
        if (settings && settings->lastRetentionFileCount == 1) {
            recorded = settings;
            break;
        }
        QThread::msleep(50);
    }
    QVERIFY2(recorded.has_value(), "no retention pass removed the deleted file");
    QCOMPARE(recorded->retentionDays, std::optional<std::int64_t>(1));
    QCOMPARE(recorded->lastRetentionByteCount, std::optional<std::int64_t>(deletedContent_.size()));
    QVERIFY(recorded->lastRetentionTime.has_value());
    const auto passTime = recorded->lastRetentionTime->time_since_epoch().count();
    QVERIFY(passTime >= before - 1 && passTime <= nowMs() / 1000 + 1);
    QCOMPARE(QDir(deletedRoot).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 0);
    QVERIFY(backend_->waitForOutput("retention pass for group 1: removed 1 files", 5000));
    // Synced files are not touched by retention.
    QVERIFY(QFileInfo::exists(vaultCopy(QStringLiteral("a.txt"))));

    // Later passes record themselves too (nothing left to remove).
    deadline = QDeadlineTimer(20000);
    bool laterPass = false;
    while (!deadline.hasExpired() && !laterPass) {
        answer = backend_->send("getGroups");
        const auto settings = tarnwick::decodeGroupItems(answer.plaintext)[0].retentionSettings;
        laterPass = settings && settings->lastRetentionFileCount == 0 &&
                    settings->lastRetentionByteCount == 0;
        QThread::msleep(100);
    }
    QVERIFY(laterPass);
}

void SyncTest::watchingResumesAfterARestart() {
    backend_->terminate();
    QVERIFY(writeFile(folder_ + QStringLiteral("/while-down.txt"), "written while stopped\n"));
    QVERIFY(startBackend());
    QVERIFY(backend_->waitForOutput("signed in as sync@example.org", 5000));
    statusesSeen_.clear();
    const auto item = waitUntilUpToDate([&] {
        return readFile(vaultCopy(QStringLiteral("while-down.txt"))) == "written while stopped\n";
    });
    QVERIFY2(item.has_value(), qPrintable(statusesSeen_.join(QStringLiteral(" | "))));
    // The retention setting survived too.
    const auto answer = backend_->send("getGroups");
    QCOMPARE(tarnwick::decodeGroupItems(answer.plaintext)[0].retentionSettings->retentionDays,
             std::optional<std::int64_t>(1));
}

void SyncTest::aFolderCanBeInOneGroupOnly() {
    const auto answer = backend_->send("addWatchDir", "Family", folder_.toStdString());
    QCOMPARE(answer.plaintext,
             errorJSON("Folder is already watched in group Personal: " + folder_.toStdString()));
    // Adding it again to its own group changes nothing.
    QCOMPARE(backend_->send("addWatchDir", "Personal", folder_.toStdString() + "/").plaintext,
             kSuccess);
    const auto groups = tarnwick::decodeGroupItems(backend_->send("getGroups").plaintext);
    QCOMPARE(groups[0].walkPaths, std::vector<std::string>{folder_.toStdString()});
    QVERIFY(groups[1].walkPaths.empty());
    QCOMPARE(tarnwick::decodeDirItems(backend_->send("ping").plaintext).size(), std::size_t(1));
}

void SyncTest::stopWatchingEndsTheSync() {
    auto answer = backend_->send("stopWatching", folder_.toStdString());
    QCOMPARE(answer.plaintext, kSuccess);
    answer = backend_->send("ping");
    QCOMPARE(answer.plaintext, kPingMessage);
    const auto groups = tarnwick::decodeGroupItems(backend_->send("getGroups").plaintext);
    for (const auto &group : groups) {
        QVERIFY(group.walkPaths.empty());
    }
    // Changes are no longer picked up (the rescan runs every second).
    QVERIFY(writeFile(folder_ + QStringLiteral("/after-stop.txt"), "not synced\n"));
    QThread::msleep(2500);
    QVERIFY(!QFileInfo::exists(vaultCopy(QStringLiteral("after-stop.txt"))));
    // What was synced stays in the vault.
    QVERIFY(QFileInfo::exists(vaultCopy(QStringLiteral("a.txt"))));
}

QTEST_GUILESS_MAIN(SyncTest)
#include "tst_sync.moc"
