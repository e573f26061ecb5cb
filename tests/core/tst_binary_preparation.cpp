// Preparation of the private backend copy: validation rules, digest
// comparison, copy/replace decisions and crash-recovery replacement.
#include "BinaryPreparation.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using tarnwick::supervisor::BinaryPreparation;

namespace {

QByteArray elfImage(int size, char fill = 'x') {
    QByteArray bytes(size, fill);
    bytes[0] = 0x7f;
    bytes[1] = 'E';
    bytes[2] = 'L';
    bytes[3] = 'F';
    return bytes;
}

void writeFile(const QString &path, const QByteArray &bytes, QFile::Permissions permissions) {
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly | QIODevice::Truncate), qPrintable(path));
    QCOMPARE(file.write(bytes), bytes.size());
    file.close();
    QVERIFY(file.setPermissions(permissions));
}

constexpr QFile::Permissions kExecutable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                           QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther |
                                           QFile::ExeOther;
constexpr QFile::Permissions kPlain = QFile::ReadOwner | QFile::WriteOwner;

mode_t modeOf(const QString &path) {
    struct stat attributes {};
    if (::stat(QFile::encodeName(path).constData(), &attributes) != 0) {
        return 0;
    }
    return attributes.st_mode & 07777;
}

} // namespace

class BinaryPreparationTest : public QObject {
    Q_OBJECT

    QTemporaryDir root_;
    QString resources_;
    QString data_;
    QStringList log_;

    BinaryPreparation preparation() {
        return BinaryPreparation([this](const QString &line) { log_ << line; },
                                 [this](const QString &name) -> std::optional<QString> {
                                     const QString path = resources_ + QLatin1Char('/') + name;
                                     return QFileInfo::exists(path) ? std::optional<QString>(path)
                                                                    : std::nullopt;
                                 },
                                 [this]() -> std::optional<QString> { return data_; });
    }
    QString copyPath(const QString &name) const { return data_ + "/tarnwick/bin/" + name; }
    QString shippedPath(const QString &name) const { return resources_ + QLatin1Char('/') + name; }
    QString file(const QString &name) const { return root_.filePath(name); }

private slots:
    void init() {
        QVERIFY(root_.isValid());
        log_.clear();
        const QString run =
            QString::number(QDateTime::currentMSecsSinceEpoch()) + QString::number(runCounter_++);
        resources_ = root_.filePath("resources" + run);
        data_ = root_.filePath("data" + run);
        QVERIFY(QDir().mkpath(resources_));
        QVERIFY(QDir().mkpath(data_));
    }

    void sizeLimitIsInclusiveAt1024() {
        writeFile(file("exact"), elfImage(1024), kExecutable);
        writeFile(file("short"), elfImage(1023), kExecutable);
        QVERIFY(preparation().validateBinary(file("exact")));
        QCOMPARE(log_.last(), "Binary validation passed for " + file("exact"));
        QVERIFY(!preparation().validateBinary(file("short")));
        QCOMPARE(log_.last(),
                 "Binary validation failed: file size too small (1023 bytes) at " + file("short"));
    }

    void thinMachOPassesUniversalFails() {
        QByteArray thin(2048, '\0');
        thin[0] = char(0xcf), thin[1] = char(0xfa), thin[2] = char(0xed), thin[3] = char(0xfe);
        writeFile(file("thin"), thin, kExecutable);
        QVERIFY(preparation().validateBinary(file("thin")));

        QByteArray universal(2048, '\0');
        universal[0] = char(0xca), universal[1] = char(0xfe), universal[2] = char(0xba),
        universal[3] = char(0xbe);
        writeFile(file("universal"), universal, kExecutable);
        QVERIFY(!preparation().validateBinary(file("universal")));
        QCOMPARE(log_.last(), "Binary validation failed: invalid magic number 0xbebafeca at " +
                                  file("universal"));
    }

    void everyAcceptedMagicPasses_data() {
        QTest::addColumn<QByteArray>("head");
        QTest::newRow("feedface") << QByteArray::fromHex("cefaedfe");
        QTest::newRow("feedfacf") << QByteArray::fromHex("cffaedfe");
        QTest::newRow("cafebabe") << QByteArray::fromHex("bebafeca");
        QTest::newRow("cffaedfe") << QByteArray::fromHex("feedfacf");
        QTest::newRow("cefaedfe") << QByteArray::fromHex("feedface");
        QTest::newRow("elf") << QByteArray::fromHex("7f454c46");
    }
    void everyAcceptedMagicPasses() {
        QFETCH(QByteArray, head);
        QByteArray image(1500, 'z');
        image.replace(0, 4, head);
        writeFile(file("magic"), image, kExecutable);
        QVERIFY(preparation().validateBinary(file("magic")));
    }

    void magicIsPrintedWithoutPadding() {
        QByteArray image(1500, '\0');
        image[0] = 1;
        writeFile(file("one"), image, kExecutable);
        QVERIFY(!preparation().validateBinary(file("one")));
        QCOMPARE(log_.last(),
                 "Binary validation failed: invalid magic number 0x1 at " + file("one"));
    }

    void tinyFileFailsOnSizeNotOnMagic() {
        writeFile(file("tiny"),
                  QByteArray("\x7f"
                             "EL"),
                  kExecutable);
        QVERIFY(!preparation().validateBinary(file("tiny")));
        QCOMPARE(log_.size(), 1);
        QCOMPARE(log_.last(),
                 "Binary validation failed: file size too small (3 bytes) at " + file("tiny"));
    }

    void magicReadFailureOnSomethingThatDeliversNoBytes() {
        // A directory is large enough, "executable" and opens for reading,
        // but a read of it fails: the magic-read message.
        const QString directory = file("not-a-file");
        QVERIFY(QDir().mkpath(directory));
        QVERIFY(!preparation().validateBinary(directory));
        QCOMPARE(log_.last(),
                 "Binary validation failed: could not read magic bytes at " + directory);
    }

    void missingFileAndNonExecutable() {
        QVERIFY(!preparation().validateBinary(file("absent")));
        QCOMPARE(log_.last(), "Binary validation failed: file does not exist at " + file("absent"));
        writeFile(file("plain"), elfImage(4096), kPlain);
        QVERIFY(!preparation().validateBinary(file("plain")));
        QCOMPARE(log_.last(),
                 "Binary validation failed: file is not executable at " + file("plain"));
    }

    void unreadableFile() {
        if (::geteuid() == 0) {
            QSKIP("root can read any file");
        }
        writeFile(file("secret"), elfImage(4096), QFile::WriteOwner | QFile::ExeOwner);
        QVERIFY(!preparation().validateBinary(file("secret")));
        QCOMPARE(log_.last(),
                 "Binary validation failed: file is not readable at " + file("secret"));
    }

    void sha256KnownAnswerAndUnreadable() {
        writeFile(file("abc"), "abc", kPlain);
        QCOMPARE(BinaryPreparation::sha256OfFile(file("abc")).value_or(""),
                 std::string("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
        writeFile(file("empty"), "", kPlain);
        QCOMPARE(BinaryPreparation::sha256OfFile(file("empty")).value_or(""),
                 std::string("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
        // Larger than one read block, so the streamed digest covers several blocks.
        QByteArray big(3 * 1024 * 1024 + 17, 'q');
        writeFile(file("big"), big, kPlain);
        QCOMPARE(
            QString::fromStdString(BinaryPreparation::sha256OfFile(file("big")).value_or("")),
            QString::fromLatin1(QCryptographicHash::hash(big, QCryptographicHash::Sha256).toHex()));
        QVERIFY(!BinaryPreparation::sha256OfFile(file("nowhere")).has_value());
    }

    void missingCopyIsCreatedWith0755() {
        writeFile(shippedPath("kovrit-linux-amd64"), elfImage(5000), kPlain);
        const auto result = preparation().getWritableBinaryURL("kovrit-linux-amd64");
        QCOMPARE(result.value_or(""), copyPath("kovrit-linux-amd64"));
        QCOMPARE(modeOf(*result), mode_t(0755));
        QVERIFY(log_.contains("Binary not found at writable location, will copy from bundle"));
        QVERIFY(log_.contains("Binary copied to writable location: " + *result));
        QCOMPARE(log_.last(), "Binary validation passed for " + *result);
        QFile copy(*result);
        QVERIFY(copy.open(QIODevice::ReadOnly));
        QCOMPARE(copy.readAll(), elfImage(5000));
    }

    void identicalCopyIsKeptWithoutWriting() {
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        QVERIFY(preparation().getWritableBinaryURL("k").has_value());
        struct stat before {};
        QCOMPARE(::stat(QFile::encodeName(copyPath("k")).constData(), &before), 0);
        log_.clear();

        const auto result = preparation().getWritableBinaryURL("k");
        QCOMPARE(result.value_or(""), copyPath("k"));
        const std::string digest = *BinaryPreparation::sha256OfFile(shippedPath("k"));
        QVERIFY(log_.contains(QStringLiteral("On-disk kovrit matches bundle (%1\u2026), keeping")
                                  .arg(QString::fromStdString(digest.substr(0, 12)))));
        QCOMPARE(log_.last(), "Using existing binary at: " + copyPath("k"));
        QVERIFY(!log_.join('\n').contains("copied"));
        struct stat after {};
        QCOMPARE(::stat(QFile::encodeName(copyPath("k")).constData(), &after), 0);
        QCOMPARE(after.st_ino, before.st_ino);
        QCOMPARE(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
        QCOMPARE(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    }

    void differentCopyIsReplaced() {
        writeFile(shippedPath("k"), elfImage(5000, 'a'), kPlain);
        QVERIFY(QDir().mkpath(data_ + "/tarnwick/bin"));
        writeFile(copyPath("k"), elfImage(5000, 'b'), kExecutable);
        const auto result = preparation().getWritableBinaryURL("k");
        QVERIFY(result.has_value());
        QVERIFY(log_.contains(
            "On-disk kovrit differs from bundle (or unreadable), copying from bundle"));
        QVERIFY(log_.contains("Removed old/malformed binary at " + copyPath("k")));
        QCOMPARE(log_.last(), "Binary validation passed for " + copyPath("k"));
        QCOMPARE(BinaryPreparation::sha256OfFile(copyPath("k")),
                 BinaryPreparation::sha256OfFile(shippedPath("k")));
    }

    void brokenCopiesAreReplaced_data() {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<bool>("executable");
        QTest::addColumn<QString>("reason");
        QTest::newRow("corrupted magic") << QByteArray(5000, 'c') << true << "invalid magic number";
        QTest::newRow("truncated") << elfImage(100) << true << "file size too small";
        QTest::newRow("not executable") << elfImage(5000) << false << "file is not executable";
    }
    void brokenCopiesAreReplaced() {
        QFETCH(QByteArray, content);
        QFETCH(bool, executable);
        QFETCH(QString, reason);
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        QVERIFY(QDir().mkpath(data_ + "/tarnwick/bin"));
        writeFile(copyPath("k"), content, executable ? kExecutable : kPlain);
        const auto result = preparation().getWritableBinaryURL("k");
        QVERIFY(result.has_value());
        QVERIFY(log_.join('\n').contains(reason));
        QVERIFY(log_.contains(
            "Existing binary is malformed or corrupted, will replace with bundle version"));
        QVERIFY(log_.contains("Removed old/malformed binary at " + copyPath("k")));
        QCOMPARE(modeOf(copyPath("k")), mode_t(0755));
        QCOMPARE(BinaryPreparation::sha256OfFile(copyPath("k")),
                 BinaryPreparation::sha256OfFile(shippedPath("k")));
    }

    void freshCopyFailingValidationIsRemoved() {
        writeFile(shippedPath("k"), QByteArray(5000, 'n'), kPlain);
        QVERIFY(!preparation().getWritableBinaryURL("k").has_value());
        QCOMPARE(log_.last(), QString("Error: Newly copied binary failed validation"));
        QVERIFY(!QFileInfo::exists(copyPath("k")));
    }

    void missingShippedFileAndDataDirectory() {
        QVERIFY(!preparation().getWritableBinaryURL("nope").has_value());
        QCOMPARE(log_.last(), QString("Error: Bundled binary not found: nope"));
        QVERIFY(!preparation().forceReplaceBinaryFromBundle("nope").has_value());
        QCOMPARE(log_.last(), QString("Error: Bundled binary not found: nope"));

        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        BinaryPreparation noData(
            [this](const QString &line) { log_ << line; },
            [this](const QString &) -> std::optional<QString> { return shippedPath("k"); },
            []() -> std::optional<QString> { return std::nullopt; });
        QVERIFY(!noData.getWritableBinaryURL("k").has_value());
        QCOMPARE(log_.last(), QString("Error: Could not access Application Support directory"));
        QVERIFY(!noData.forceReplaceBinaryFromBundle("k").has_value());
        QCOMPARE(log_.last(), QString("Error: Could not access Application Support directory"));
    }

    void onlyARegularFileIsAShippedBackend() {
        QVERIFY(QDir().mkpath(shippedPath("folder")));
        QVERIFY(QDir().mkpath(data_ + "/tarnwick/bin"));
        for (const QString &name : {QString(), QString("folder"), QString("."), QString("..")}) {
            QVERIFY(!preparation().getWritableBinaryURL(name).has_value());
            QCOMPARE(log_.last(), "Error: Bundled binary not found: " + name);
            QVERIFY(!preparation().forceReplaceBinaryFromBundle(name).has_value());
            QCOMPARE(log_.last(), "Error: Bundled binary not found: " + name);
        }
        QVERIFY(QFileInfo(data_ + "/tarnwick/bin").isDir()); // nothing was removed
    }

    void binDirectoryThatCannotBeCreated() {
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        writeFile(data_ + "/tarnwick", "a file where a folder belongs", kPlain);
        QVERIFY(!preparation().getWritableBinaryURL("k").has_value());
        QVERIFY2(log_.last().startsWith("Error creating bin directory: "), qPrintable(log_.last()));
        QVERIFY(log_.last().size() > QString("Error creating bin directory: ").size());
    }

    void aFullDiskLeavesNoPartialCopyAndSaysSo() {
        // The data folder on a small file system of its own: the copy runs out of space.
        const QString small = root_.filePath("small-disk");
        QVERIFY(QDir().mkpath(small));
        if (::mount("tarnwick-test", QFile::encodeName(small).constData(), "tmpfs", 0,
                    "size=256k") != 0) {
            const int error = errno;
            QSKIP(qPrintable(QStringLiteral("mounting a small tmpfs needs root: %1")
                                 .arg(QString::fromLocal8Bit(strerror(error)))));
        }
        struct Unmount {
            QByteArray path;
            ~Unmount() { ::umount2(path.constData(), MNT_DETACH); }
        } unmount{QFile::encodeName(small)};
        data_ = small;
        writeFile(shippedPath("k"), elfImage(1 << 20), kPlain);

        QVERIFY(!preparation().getWritableBinaryURL("k").has_value());
        QVERIFY2(log_.last().startsWith("Error copying binary: "), qPrintable(log_.last()));
        QVERIFY2(log_.last().contains("No space left on device"), qPrintable(log_.join('\n')));
        const BinaryPreparation failed = preparation();
        QVERIFY(!failed.getWritableBinaryURL("k").has_value());
        QCOMPARE(failed.failureReason(), "The backend could not be copied to " + copyPath("k") +
                                             ": the disk is full (No space left on device).");
        // Nothing of the copy is left: neither a partial backend nor its temporary file.
        QCOMPARE(QDir(data_ + "/tarnwick/bin")
                     .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
                 QStringList());
    }

    void aFolderInTheWayIsReported() {
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        QVERIFY(QDir().mkpath(copyPath("k") + "/inside"));
        const BinaryPreparation prepared = preparation();
        QVERIFY(!prepared.getWritableBinaryURL("k").has_value());
        QVERIFY2(prepared.failureReason().startsWith("The backend could not be copied to " +
                                                     copyPath("k") + ": a folder is in the way"),
                 qPrintable(prepared.failureReason()));
        QVERIFY(!QFileInfo::exists(copyPath("k") + ".partial"));
    }

    void aSuccessClearsTheReason() {
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        const BinaryPreparation prepared = preparation();
        QVERIFY(!prepared.getWritableBinaryURL("missing").has_value());
        QVERIFY(!prepared.failureReason().isEmpty());
        QVERIFY(prepared.getWritableBinaryURL("k").has_value());
        QCOMPARE(prepared.failureReason(), QString());
    }

    void aNewBinFolderIsPrivate() {
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        QVERIFY(preparation().getWritableBinaryURL("k").has_value());
        QCOMPARE(modeOf(data_ + "/tarnwick/bin"), mode_t(0700));
    }

    void aBinFolderOthersMayWriteIsMadeAgain() {
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        QVERIFY(preparation().getWritableBinaryURL("k").has_value());
        const QString bin = data_ + "/tarnwick/bin";
        QCOMPARE(::chmod(QFile::encodeName(bin).constData(), 0777), 0);
        writeFile(bin + "/planted", "left by someone else", kPlain);
        log_.clear();

        const auto result = preparation().getWritableBinaryURL("k");
        QCOMPARE(result.value_or(""), copyPath("k"));
        QVERIFY(log_.contains("The bin folder " + bin +
                              " is not private (others may write to it (mode 0777)); making it "
                              "again"));
        QCOMPARE(modeOf(bin), mode_t(0700));
        QVERIFY(!QFileInfo::exists(bin + "/planted"));
        QVERIFY(log_.contains("Binary copied to writable location: " + copyPath("k")));
    }

    void aBinFolderOfAnotherUserIsMadeAgain() {
        if (::geteuid() != 0) {
            QSKIP("handing a folder to another user needs root");
        }
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        const QString bin = data_ + "/tarnwick/bin";
        QVERIFY(QDir().mkpath(bin));
        QCOMPARE(::chown(QFile::encodeName(bin).constData(), 65534, 65534), 0);
        QVERIFY(preparation().getWritableBinaryURL("k").has_value());
        QVERIFY(log_.contains("The bin folder " + bin +
                              " is not private (it belongs to user 65534); making it again"));
        struct stat attributes {};
        QCOMPARE(::stat(QFile::encodeName(bin).constData(), &attributes), 0);
        QCOMPARE(attributes.st_uid, ::geteuid());
    }

    void aLinkedBinFolderIsReplacedAndItsTargetKept() {
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        const QString elsewhere = root_.filePath("elsewhere" + QString::number(runCounter_));
        QVERIFY(QDir().mkpath(elsewhere));
        writeFile(elsewhere + "/k", elfImage(5000), kExecutable);
        QVERIFY(QDir().mkpath(data_ + "/tarnwick"));
        QVERIFY(QFile::link(elsewhere, data_ + "/tarnwick/bin"));

        QVERIFY(preparation().getWritableBinaryURL("k").has_value());
        QVERIFY(log_.join('\n').contains("is not private (it is not a real folder)"));
        QVERIFY(!QFileInfo(data_ + "/tarnwick/bin").isSymLink());
        QVERIFY(QFileInfo::exists(elsewhere + "/k")); // what the link pointed at is untouched
    }

    void aCopyOthersMayWriteIsReplaced() {
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        QVERIFY(preparation().getWritableBinaryURL("k").has_value());
        QCOMPARE(::chmod(QFile::encodeName(copyPath("k")).constData(), 0777), 0);
        log_.clear();
        QVERIFY(preparation().getWritableBinaryURL("k").has_value());
        QVERIFY(log_.contains(
            "Existing binary is not a private file of ours, will replace with bundle version"));
        QCOMPARE(modeOf(copyPath("k")), mode_t(0755));
    }

    void recoveryReplacesUnconditionally() {
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        QVERIFY(preparation().getWritableBinaryURL("k").has_value());
        struct stat before {};
        QCOMPARE(::stat(QFile::encodeName(copyPath("k")).constData(), &before), 0);
        log_.clear();

        const auto result = preparation().forceReplaceBinaryFromBundle("k");
        QCOMPARE(result.value_or(""), copyPath("k"));
        QCOMPARE(log_.at(0), QString("Removed corrupted binary during crash recovery"));
        QCOMPARE(log_.at(1), QString("Crash recovery: Replaced binary from bundle"));
        QCOMPARE(log_.at(2), "Binary validation passed for " + copyPath("k"));
        QCOMPARE(modeOf(copyPath("k")), mode_t(0755));
        QVERIFY(!log_.join('\n').contains("matches bundle")); // no digest comparison
    }

    void recoveryWithoutBinDirectoryFails() {
        writeFile(shippedPath("k"), elfImage(5000), kPlain);
        QVERIFY(!preparation().forceReplaceBinaryFromBundle("k").has_value());
        QVERIFY2(log_.last().startsWith("Error during crash recovery binary replacement: "),
                 qPrintable(log_.last()));
        QVERIFY(!QFileInfo::exists(data_ + "/tarnwick/bin"));
    }

    void recoveryKeepsAnInvalidReplacement() {
        writeFile(shippedPath("k"), QByteArray(5000, 'n'), kPlain);
        QVERIFY(QDir().mkpath(data_ + "/tarnwick/bin"));
        QVERIFY(!preparation().forceReplaceBinaryFromBundle("k").has_value());
        QCOMPARE(log_.last(),
                 QString("Error: Crash recovery binary replacement failed validation"));
        QVERIFY(QFileInfo::exists(copyPath("k")));
    }

private:
    int runCounter_ = 0;
};

QTEST_GUILESS_MAIN(BinaryPreparationTest)
#include "tst_binary_preparation.moc"
