// Checks on folders and Photos libraries chosen for syncing.
#include "FileSystemUtils.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <unistd.h>

using tarnwick::pathcheck::FileSystemUtils;
using tarnwick::pathcheck::UbiquityValues;

namespace {

void touch(const QString &path) {
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(path));
    file.write("x");
}

const QString kEmptyWarning =
    "Warning: The originals folder appears to be empty. Make sure 'Download Originals to this "
    "Mac' is enabled in Photos settings.";

} // namespace

class PathCheckTest : public QObject {
    Q_OBJECT
    QTemporaryDir root_;

    QString make(const QString &relative) {
        const QString path = root_.filePath(relative);
        [&] { QVERIFY(QDir().mkpath(path)); }();
        return path;
    }

private slots:
    void init() { FileSystemUtils::setUbiquityProvider({}); }
    void cleanupTestCase() { FileSystemUtils::setUbiquityProvider({}); }

    void mobileDocumentsIsICloudByPathAlone() {
        // Never created on disk: the path rule answers before anything is read.
        bool asked = false;
        FileSystemUtils::setUbiquityProvider([&](const QString &) {
            asked = true;
            return std::optional<UbiquityValues>();
        });
        const QString path = "/home/ana/Library/Mobile Documents/com~apple~CloudDocs/Work";
        QVERIFY(FileSystemUtils::isICloudSyncedPath(path));
        QVERIFY(!asked);
        QCOMPARE(FileSystemUtils::getICloudStatusMessage(path).value_or(""),
                 "This folder is in iCloud Drive and may cause sync conflicts.");
    }

    void documentsICloudIsAPlainSubstring() {
        const QString path = make("home/Documents/iCloudBackups");
        QVERIFY(FileSystemUtils::isICloudSyncedPath(path));
        // Its sentence comes from the download status, not from the path.
        QCOMPARE(FileSystemUtils::getICloudStatusMessage(path).value_or(""),
                 "This folder appears to be synced with iCloud.");
        FileSystemUtils::setUbiquityProvider([](const QString &) {
            UbiquityValues values;
            values.downloadingStatus = UbiquityValues::DownloadingStatus::current;
            return std::optional<UbiquityValues>(values);
        });
        QCOMPARE(FileSystemUtils::getICloudStatusMessage(path).value_or(""),
                 "This folder is synced with iCloud Drive.");
    }

    void pathRulesAreCaseSensitive() {
        QVERIFY(!FileSystemUtils::isICloudSyncedPath(make("x/documents/icloud")));
        QVERIFY(!FileSystemUtils::isICloudSyncedPath(make("x/mobile documents/a")));
    }

    void placeholderAmongSiblingsMarksICloud() {
        const QString chosen = make("synced/Reports");
        touch(root_.filePath("synced/.report.pdf.icloud"));
        QVERIFY(FileSystemUtils::isICloudSyncedPath(chosen));
        QVERIFY(FileSystemUtils::isICloudSyncedPath(chosen + "/")); // trailing slash: same item
        QCOMPARE(FileSystemUtils::getICloudStatusMessage(chosen).value_or(""),
                 "This folder appears to be synced with iCloud.");
    }

    void placeholderInsideTheChosenFolderIsNotLookedAt() {
        const QString chosen = make("local/Inbox");
        touch(chosen + "/.draft.txt.icloud");
        QVERIFY(!FileSystemUtils::isICloudSyncedPath(chosen));
        QVERIFY(!FileSystemUtils::getICloudStatusMessage(chosen).has_value());
    }

    void visiblePlaceholderLikeNamesDoNotCount() {
        const QString chosen = make("plain/Docs");
        touch(root_.filePath("plain/report.icloud"));     // not hidden
        touch(root_.filePath("plain/.icloud-notes.txt")); // hidden, wrong ending
        QVERIFY(!FileSystemUtils::isICloudSyncedPath(chosen));
    }

    void presenceOfAnyUbiquityValueCounts() {
        const QString chosen = make("shared/Folder");
        FileSystemUtils::setUbiquityProvider([](const QString &) {
            UbiquityValues values;
            values.isShared = false; // present, though false
            return std::optional<UbiquityValues>(values);
        });
        QVERIFY(FileSystemUtils::isICloudSyncedPath(chosen));
        FileSystemUtils::setUbiquityProvider(
            [](const QString &) { return std::optional<UbiquityValues>(UbiquityValues{}); });
        QVERIFY(!FileSystemUtils::isICloudSyncedPath(chosen));
    }

    void downloadStatusSentences_data() {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("sentence");
        using S = UbiquityValues::DownloadingStatus;
        QTest::newRow("not downloaded")
            << int(S::notDownloaded) << "This iCloud folder has items not downloaded locally.";
        QTest::newRow("downloaded")
            << int(S::downloaded) << "This folder is synced with iCloud Drive.";
        QTest::newRow("current") << int(S::current) << "This folder is synced with iCloud Drive.";
        QTest::newRow("other") << int(S::other) << "This folder is synced with iCloud Drive.";
    }
    void downloadStatusSentences() {
        QFETCH(int, status);
        QFETCH(QString, sentence);
        const QString chosen = make("status/Folder");
        FileSystemUtils::setUbiquityProvider([status](const QString &) {
            UbiquityValues values;
            values.downloadingStatus = static_cast<UbiquityValues::DownloadingStatus>(status);
            return std::optional<UbiquityValues>(values);
        });
        QCOMPARE(FileSystemUtils::getICloudStatusMessage(chosen).value_or(""), sentence);
    }

    void validateMissingPathBeforeAnyICloudRule() {
        bool asked = false;
        FileSystemUtils::setUbiquityProvider([&](const QString &) {
            asked = true;
            return std::optional<UbiquityValues>();
        });
        const auto check =
            FileSystemUtils::validatePathForSync(root_.filePath("gone/Library/Mobile Documents/x"));
        QVERIFY(!check.isValid);
        QCOMPARE(check.warning.value_or(""), "The selected path does not exist.");
        QVERIFY(!asked);
    }

    void validateICloudAndLocal() {
        const QString icloud = make("Library/Mobile Documents/com~apple~CloudDocs");
        const auto cloud = FileSystemUtils::validatePathForSync(icloud);
        QVERIFY(cloud.isValid);
        QCOMPARE(cloud.warning.value_or(""),
                 "This folder is in iCloud Drive and may cause sync conflicts.");

        const auto local = FileSystemUtils::validatePathForSync(make("Projects"));
        QVERIFY(local.isValid);
        QVERIFY(!local.warning.has_value());
    }

    void unreadablePaths() {
        if (::geteuid() == 0) {
            QSKIP("root can read every folder");
        }
        const QString locked = make("locked");
        QVERIFY(QFile::setPermissions(locked, QFile::WriteOwner));
        const auto check = FileSystemUtils::validatePathForSync(locked);
        QVERIFY(!check.isValid);
        QCOMPARE(check.warning.value_or(""),
                 "The selected path is not readable. Check permissions.");
        // An unreadable iCloud path is accepted with its warning.
        const QString cloudLocked = make("Documents/iCloudLocked");
        QVERIFY(QFile::setPermissions(cloudLocked, QFile::WriteOwner));
        const auto cloud = FileSystemUtils::validatePathForSync(cloudLocked);
        QVERIFY(cloud.isValid);
        QCOMPARE(cloud.warning.value_or(""), "This folder appears to be synced with iCloud.");
        QVERIFY(
            QFile::setPermissions(locked, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QVERIFY(QFile::setPermissions(cloudLocked,
                                      QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    }

    void photosLibraryExtension() {
        QVERIFY(
            FileSystemUtils::isPhotosLibrary("/home/ana/Pictures/Photos Library.photoslibrary"));
        QVERIFY(FileSystemUtils::isPhotosLibrary("/home/ana/Pictures/OLD.PHOTOSLIBRARY"));
        QVERIFY(FileSystemUtils::isPhotosLibrary("/home/ana/Pictures/Lib.photoslibrary/"));
        QVERIFY(!FileSystemUtils::isPhotosLibrary("/home/ana/Pictures/photoslibrary"));
        QVERIFY(!FileSystemUtils::isPhotosLibrary("/home/ana/Pictures/Lib.photoslibrary.zip"));
        const auto notLibrary = FileSystemUtils::validatePhotosLibrary(make("Pictures/Holiday"));
        QVERIFY(!notLibrary.isValid);
        QCOMPARE(notLibrary.message.value_or(""), "The selected path is not a Photos library.");
    }

    void photosLibraryOriginals() {
        const QString missing = make("Pictures/Missing.photoslibrary");
        auto check = FileSystemUtils::validatePhotosLibrary(missing);
        QVERIFY(!check.isValid);
        QCOMPARE(check.message.value_or(""),
                 "The originals folder does not exist in this Photos library.");

        const QString hiddenOnly = make("Pictures/Hidden.PHOTOSLIBRARY/originals");
        touch(hiddenOnly + "/.DS_Store");
        QVERIFY(QDir().mkpath(hiddenOnly + "/.cache"));
        check =
            FileSystemUtils::validatePhotosLibrary(root_.filePath("Pictures/Hidden.PHOTOSLIBRARY"));
        QVERIFY(check.isValid);
        QCOMPARE(check.message.value_or(""), kEmptyWarning);

        const QString full = make("Pictures/Full.photoslibrary/originals/0");
        touch(full + "/IMG_0001.HEIC");
        check =
            FileSystemUtils::validatePhotosLibrary(root_.filePath("Pictures/Full.photoslibrary"));
        QVERIFY(check.isValid);
        QVERIFY(!check.message.has_value());

        // An originals "folder" that cannot be listed is accepted with a warning.
        const QString odd = make("Pictures/Odd.photoslibrary");
        touch(odd + "/originals");
        check = FileSystemUtils::validatePhotosLibrary(odd);
        QVERIFY(check.isValid);
        QCOMPARE(check.message.value_or(""),
                 "Warning: Could not verify originals folder contents.");
    }

    void unreadableOriginals() {
        if (::geteuid() == 0) {
            QSKIP("root can read every folder");
        }
        const QString originals = make("Pictures/Locked.photoslibrary/originals");
        QVERIFY(QFile::setPermissions(originals, QFile::WriteOwner));
        const auto check =
            FileSystemUtils::validatePhotosLibrary(root_.filePath("Pictures/Locked.photoslibrary"));
        QVERIFY(!check.isValid);
        QCOMPARE(check.message.value_or(""),
                 "Cannot read the originals folder. Check permissions.");
        QVERIFY(QFile::setPermissions(originals,
                                      QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    }
};

QTEST_GUILESS_MAIN(PathCheckTest)
#include "tst_pathcheck.moc"
